// The command-line watcher's loop while the diagnosis works: each round finds
// the node being worked on among the six, asks the terminal for its size,
// repaints the progress line ("- Running ... : 42%\r", flushed) and sleeps
// 10 ms. The counter "core_percent" is the loop thread's CPU time as a share
// of one core (the figure to keep below 2 %):
// - BM_PollRound: one round without its sleep, times 100 rounds a second;
// - BM_PollLoopOverIdleRunner: the loop itself, sleeps and wake-ups included,
//   for one second over a runner whose node is busy, as runCommandLine runs it.
// Standard output goes to /dev/null during the measurement; a terminal costs a
// little more per write, which scripts/measure_diagnosis.sh measures in a real
// run.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <QJsonObject>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "diagnostic/CommandLine.h"
#include "diagnostic/DiagnosticRunner.h"

namespace {

constexpr double kRoundsPerSecond = 100.0;  // one round every 10 ms

double threadCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

class IdleNode : public DiagnosticNode {
public:
    explicit IdleNode(std::string name) : DiagnosticNode(std::move(name)) {}
    void runDiagnostic(QJsonObject&) override {}
};

// A node that stays at 42 % until released, sleeping meanwhile.
class BusyNode : public DiagnosticNode {
public:
    explicit BusyNode(std::string name) : DiagnosticNode(std::move(name)) {}
    void runDiagnostic(QJsonObject&) override {
        setPercent(42.f);
        while (!release.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        setPercent(100.f);
    }
    std::atomic<bool> release{false};
};

// Points standard output at /dev/null for its lifetime.
class SilentStdout {
public:
    SilentStdout() {
        std::fflush(stdout);
        saved_ = dup(STDOUT_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDOUT_FILENO);
        close(null);
    }
    ~SilentStdout() {
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }

private:
    int saved_ = -1;
};

void BM_PollRound(benchmark::State& state) {
    IdleNode sdk("KOV SDK"), processor("Processor"), gpu("Graphics Card"), ai("AI Models"),
        camera("Camera Test"), devices("Devices");
    // The camera test is running; the four before it have finished without
    // messages (their final lines were printed once, long ago).
    for (IdleNode* done : {&sdk, &processor, &gpu, &ai})
        done->setPercent(100.f);
    camera.setPercent(42.f);
    DiagnosticRunner runner;
    runner.nodes = {&sdk, &processor, &gpu, &ai, &camera, &devices};
    currentNode = &ai;
    const double cpuBefore = threadCpuSeconds();
    {
        SilentStdout silent;
        for (auto _ : state)
            printDiagnosticStatus(runner);
    }
    const double cpuPerRound = (threadCpuSeconds() - cpuBefore) / static_cast<double>(state.iterations());
    state.counters["core_percent"] = cpuPerRound * kRoundsPerSecond * 100.0;
}
BENCHMARK(BM_PollRound);

void BM_PollLoopOverIdleRunner(benchmark::State& state) {
    for (auto _ : state) {
        BusyNode camera("Camera Test");
        DiagnosticRunner runner;
        runner.nodes = {&camera};
        currentNode = nullptr;
        runner.start();
        SilentStdout silent;
        const auto begin = std::chrono::steady_clock::now();
        const double cpuBefore = threadCpuSeconds();
        int rounds = 0;
        // The loop of runCommandLine; the node is let go after a second.
        while (!runner.finished.load(std::memory_order_acquire)) {
            printDiagnosticStatus(runner);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            if (++rounds == static_cast<int>(kRoundsPerSecond))
                camera.release = true;
        }
        const double cpu = threadCpuSeconds() - cpuBefore;
        const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        runner.stopAndJoin();
        state.counters["core_percent"] = 100.0 * cpu / wall;
        state.counters["rounds"] = rounds;
    }
}
BENCHMARK(BM_PollLoopOverIdleRunner)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
