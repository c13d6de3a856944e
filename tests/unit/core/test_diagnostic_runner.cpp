#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <QJsonArray>
#include <QJsonObject>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "diagnostic/CommandLine.h"
#include "diagnostic/DiagnosticRunner.h"

namespace {

// A node that records one message and, optionally, acts on the runner while
// it runs.
class FakeNode : public DiagnosticNode {
public:
    explicit FakeNode(std::string n) : DiagnosticNode(std::move(n)) {}
    void runDiagnostic(QJsonObject& result) override {
        ++runs;
        setPercent(50.f);
        if (onRun)
            onRun();
        result.insert("run", runs);
        addMessage(result, DIAGNOSTIC_INFO, "ran");
        setPercent(100.f);
    }
    int runs = 0;
    std::function<void()> onRun;
};

bool waitFinished(DiagnosticRunner& runner) {
    for (int i = 0; i < 3000; ++i) {
        if (runner.finished.load())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace

TEST(DiagnosticRunner, StartsRunningAndNotFinished) {
    DiagnosticRunner runner;
    EXPECT_TRUE(runner.running.load());
    EXPECT_FALSE(runner.finished.load());
    EXPECT_EQ(runner.thread, nullptr);
    EXPECT_EQ(runner.results, nullptr);
}

TEST(DiagnosticRunner, NoNodesFinishesAtOnceAndSignalsOnce) {
    DiagnosticRunner runner;
    std::atomic<int> emitted{0};
    QObject::connect(&runner, &DiagnosticRunner::s_diagnosticFinished, [&] { ++emitted; });
    QJsonObject results;
    runner.results = &results;
    DiagnosticRunner::runDiagnostic(&runner);
    EXPECT_TRUE(runner.finished.load());
    EXPECT_EQ(emitted.load(), 1);
    EXPECT_TRUE(results.isEmpty());
}

TEST(DiagnosticRunner, ClearsTheSharedCameraValuesAtStart) {
    camera_test_reported_that_USB_should_not_be_tested = true;
    camera_test_thrown_firmware_error = true;
    camera_test_thrown_multiple_camera_error = true;
    camera_test_bandwidth_message = "stale";
    camera_test_bandwidth_message_level = 3;
    DiagnosticRunner runner;
    DiagnosticRunner::runDiagnostic(&runner);
    EXPECT_FALSE(camera_test_reported_that_USB_should_not_be_tested);
    EXPECT_FALSE(camera_test_thrown_firmware_error);
    EXPECT_FALSE(camera_test_thrown_multiple_camera_error);
    EXPECT_TRUE(camera_test_bandwidth_message.empty());
    EXPECT_EQ(camera_test_bandwidth_message_level, 0);
}

TEST(DiagnosticRunner, StopDuringNodeThreeEndsItAndSkipsTheRest) {
    std::vector<std::unique_ptr<FakeNode>> owned;
    DiagnosticRunner runner;
    for (int i = 1; i <= 6; ++i) {
        owned.push_back(std::make_unique<FakeNode>("Node " + std::to_string(i)));
        runner.nodes.push_back(owned.back().get());
    }
    owned[2]->onRun = [&] { runner.running.store(false); };
    std::atomic<int> emitted{0};
    QObject::connect(&runner, &DiagnosticRunner::s_diagnosticFinished, [&] { ++emitted; });
    QJsonObject results;
    runner.results = &results;
    runner.start();
    ASSERT_TRUE(waitFinished(runner));
    runner.stopAndJoin();
    EXPECT_EQ(emitted.load(), 1);
    EXPECT_EQ(results.keys(), (QStringList{"Node 1", "Node 2", "Node 3"}));
    EXPECT_EQ(owned[2]->getPercent(), 100.f);
    EXPECT_EQ(owned[2]->runs, 1);
    for (int i = 3; i < 6; ++i)
        EXPECT_EQ(owned[i]->runs, 0) << i;
}

TEST(DiagnosticRunner, RunsInOrderWithPausesBetweenNodesOnly) {
    FakeNode a("A"), b("B");
    std::vector<std::chrono::steady_clock::time_point> starts;
    a.onRun = [&] { starts.push_back(std::chrono::steady_clock::now()); };
    b.onRun = [&] { starts.push_back(std::chrono::steady_clock::now()); };
    DiagnosticRunner runner;
    runner.nodes = {&a, &b};
    QJsonObject results;
    runner.results = &results;
    const auto begin = std::chrono::steady_clock::now();
    DiagnosticRunner::runDiagnostic(&runner);
    const auto end = std::chrono::steady_clock::now();
    ASSERT_EQ(starts.size(), 2u);
    // About 250 ms between the nodes, generous upper bound for a busy machine.
    EXPECT_GE(starts[1] - starts[0], std::chrono::milliseconds(240));
    EXPECT_LT(end - begin, std::chrono::seconds(5));
    EXPECT_EQ(results.keys(), (QStringList{"A", "B"}));
}

// The worker's sleeps end when asked: its timer slack is the least the kernel
// allows, on the worker thread (and the threads its nodes start) only.
TEST(DiagnosticRunner, WorkerSleepsWithoutTimerSlack) {
    // The owner's thread keeps its own setting (tests above may have run the
    // body on this thread, so it is set to a known value first).
    const unsigned long ownerSlack = 50000;
    ASSERT_EQ(prctl(PR_SET_TIMERSLACK, ownerSlack, 0, 0, 0), 0);
    FakeNode a("A");
    long workerSlack = -1;
    long nodeThreadSlack = -1;
    a.onRun = [&] {
        workerSlack = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0);
        std::thread([&] { nodeThreadSlack = prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0); }).join();
    };
    DiagnosticRunner runner;
    runner.nodes = {&a};
    runner.start();
    ASSERT_TRUE(waitFinished(runner));
    runner.stopAndJoin();
    EXPECT_EQ(workerSlack, 1);
    EXPECT_EQ(nodeThreadSlack, 1);
    EXPECT_EQ(prctl(PR_GET_TIMERSLACK, 0, 0, 0, 0), static_cast<long>(ownerSlack));
}

TEST(DiagnosticRunner, SecondRunGivesEachNodeAFreshObject) {
    FakeNode a("A");
    DiagnosticRunner runner;
    runner.nodes = {&a};
    QJsonObject results;
    results.insert("Old", QJsonObject{{"kept", true}});
    runner.results = &results;
    runner.start();
    ASSERT_TRUE(waitFinished(runner));
    // The owner puts the node back to idle before a repeated run.
    a.setPercent(0.f);
    a.messages.clear();
    runner.start();
    ASSERT_TRUE(waitFinished(runner));
    runner.stopAndJoin();
    const QJsonObject node = results.value("A").toObject();
    EXPECT_EQ(node.value("run").toInt(), 2);
    EXPECT_EQ(node.value("info").toArray().size(), 1);
    // Keys of an earlier run that no node replaces survive.
    EXPECT_TRUE(results.contains("Old"));
}

TEST(DiagnosticRunner, DestructorWaitsForTheWorker) {
    FakeNode a("A");
    std::atomic<bool> started{false};
    std::atomic<bool> done{false};
    a.onRun = [&] {
        started = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        done = true;
    };
    QJsonObject results;
    {
        DiagnosticRunner runner;
        runner.nodes = {&a};
        runner.results = &results;
        runner.start();
        while (!started.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    // A node that has begun runs to its end before the runner goes.
    EXPECT_TRUE(done.load());
    EXPECT_TRUE(results.contains("A"));
}

// The command-line watcher's loop: poll every 10 ms while the worker runs,
// reading each node's messages once it has reached 100.
TEST(DiagnosticRunner, PollingWatcherSeesEveryNodeFinish) {
    std::vector<std::unique_ptr<FakeNode>> owned;
    DiagnosticRunner runner;
    for (int i = 1; i <= 3; ++i) {
        owned.push_back(std::make_unique<FakeNode>("Poll " + std::to_string(i)));
        runner.nodes.push_back(owned.back().get());
    }
    QJsonObject results;
    runner.results = &results;
    currentNode = nullptr;
    testing::internal::CaptureStdout();
    runner.start();
    while (!runner.finished.load()) {
        printDiagnosticStatus(runner);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    printDiagnosticStatus(runner);
    runner.stopAndJoin();
    const std::string out = testing::internal::GetCapturedStdout();
    for (int i = 1; i <= 3; ++i) {
        const std::string done = "- Running Poll " + std::to_string(i) + " Diagnostic : \033[32mOK  \n";
        EXPECT_NE(out.find(done), std::string::npos) << i;
    }
    EXPECT_EQ(results.size(), 3);
}
