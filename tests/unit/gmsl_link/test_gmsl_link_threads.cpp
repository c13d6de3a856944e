// Several cameras of one process, each on its own thread, make and use the
// one shared link at the same time: every RUN message reaches the daemon, in
// order for each camera, and the last camera tears the link down.

#include <algorithm>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "LinkTestSupport.h"
#include "bh_input/grabber/gmsl/ArgusCamera.h"

using namespace linktest;

namespace {

// Lets a fixed number of threads wait for each other (bounded wait).
class Gate {
public:
    explicit Gate(int parties) : parties_(parties) {}
    bool arriveAndWait() {
        std::unique_lock<std::mutex> lock(mutex_);
        const int round = round_;
        if (++arrived_ == parties_) {
            arrived_ = 0;
            ++round_;
            cv_.notify_all();
            return true;
        }
        return cv_.wait_for(lock, std::chrono::seconds(20), [&] { return round_ != round; });
    }

private:
    std::mutex mutex_;
    std::condition_variable cv_;
    int parties_;
    int arrived_ = 0;
    int round_ = 0;
};

constexpr int kCameras = 4;
constexpr uint64_t kRuns = 100;

}  // namespace

class DaemonThreadsTest : public LinkTest {};

TEST_F(DaemonThreadsTest, ConcurrentCamerasShareTheLink) {
    const std::vector<int> ports = freePorts(2);
    ASSERT_EQ(ports.size(), 2u);
    root.writeUnit(ports[0], ports[1]);
    Daemon daemon(root.unitPath(), root.path() / "daemon_record.txt", {"--version", "35.3.1"});
    ASSERT_TRUE(daemon.waitReady());

    Gate gate(kCameras + 1);
    std::vector<std::thread> threads;
    for (int port = 0; port < kCameras; ++port) {
        threads.emplace_back([&gate, port] {
            auto cam = std::make_unique<ArgusCamera>();
            cam->setPortIndex(port);
            cam->setDeviceCode(6 + port);
            gate.arriveAndWait();  // all cameras exist
            for (uint64_t counter = 0; counter < kRuns; ++counter)
                cam->sendRun(counter);
            gate.arriveAndWait();  // all sent
            gate.arriveAndWait();  // the daemon has them: close
            cam.reset();
        });
    }
    EXPECT_TRUE(gate.arriveAndWait());
    EXPECT_EQ(ArgusCamera::argus_camera_count, kCameras);
    EXPECT_NE(ArgusCamera::zmq_socket_pub, nullptr);
    EXPECT_TRUE(gate.arriveAndWait());
    const std::vector<std::string> lines = daemon.waitLines(kCameras * kRuns, std::chrono::seconds(20));
    EXPECT_TRUE(gate.arriveAndWait());
    for (auto& t : threads)
        t.join();

    EXPECT_EQ(ArgusCamera::argus_camera_count, 0);
    EXPECT_EQ(ArgusCamera::zmq_socket_pub, nullptr);
    ASSERT_EQ(lines.size(), kCameras * kRuns);
    for (int port = 0; port < kCameras; ++port) {
        const std::string prefix = "KOVQ#" + std::to_string(port) + "#" + std::to_string(6 + port) + "#RUN#";
        std::vector<std::string> mine;
        std::copy_if(lines.begin(), lines.end(), std::back_inserter(mine),
                     [&](const std::string& l) { return l.rfind(prefix, 0) == 0; });
        ASSERT_EQ(mine.size(), kRuns) << prefix;
        for (uint64_t counter = 0; counter < kRuns; ++counter)
            EXPECT_EQ(mine[counter], prefix + std::to_string(counter));
    }
}
