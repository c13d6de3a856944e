// Threads on the simulated camera service: capture objects, or the provider
// itself, destroyed while another thread waits in acquireFrame,
// waitUntilConnected or waitForIdle. The waiting call must come back soon
// with STATUS_DISCONNECTED, never touch freed memory (run under the address
// and thread sanitizers), and two producers streaming while settings change
// must not race.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>
#include <vector>

#include "SimArgusCaptureSupport.h"
#include "sim/ScaledClock.h"

using namespace capturetest;

namespace {

// Real time is what the waiting thread spends; the margins are generous.
constexpr auto kLongEnough = std::chrono::seconds(20);

struct WaitResult {
    at::Status status = at::STATUS_UNIMPLEMENTED;
    bool gotFrame = false;
    int64_t returnedAtNs = 0;
};

// Starts `wait` on another thread, lets it block, runs `destroy`, and gives
// what the wait answered and when (simulated time).
WaitResult waitThenDestroy(Installed& in, const std::function<at::Status(bool&)>& wait,
                           const std::function<void()>& destroy, int64_t& destroyedAtNs) {
    std::promise<void> started;
    WaitResult result;
    std::thread waiter([&] {
        started.set_value();
        bool gotFrame = false;
        result.status = wait(gotFrame);
        result.gotFrame = gotFrame;
        result.returnedAtNs = in.now();
    });
    started.get_future().wait();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // let it block
    destroyedAtNs = in.now();
    destroy();
    waiter.join();
    return result;
}

class ThreadedCapture : public ::testing::Test {
protected:
    // Real time: a waiting thread sleeps in real slices.
    ThreadedCapture()
        : in_(machineFrom(monoCamera(31) + "," + stereoCamera(30)), std::make_shared<sim::ScaledClock>(1.0)) {
    }

    void SetUp() override {
        ASSERT_TRUE(platform::argus().createProvider());
        devices_ = devicesOf(platform::argus());
        ASSERT_EQ(devices_.size(), 3u);
        // Built but not repeating: no frame will ever come on its own.
        chain_ = buildChain(platform::argus(), devices_[0], {1280, 720});
    }

    // The waiter came back with DISCONNECTED within a second of the destruction.
    void expectPromptDisconnect(const WaitResult& r, int64_t destroyedAtNs) {
        EXPECT_FALSE(r.gotFrame);
        EXPECT_EQ(r.status, at::STATUS_DISCONNECTED);
        EXPECT_LT(r.returnedAtNs - destroyedAtNs, static_cast<int64_t>(kSecond));
    }

    std::function<at::Status(bool&)> acquireLong() {
        at::FrameConsumer* consumer = chain_.consumer;
        return [consumer](bool& gotFrame) {
            at::Status status = at::STATUS_UNIMPLEMENTED;
            at::Frame* frame = platform::argus().acquireFrame(consumer, 30 * kSecond, &status);
            gotFrame = frame != nullptr;
            if (frame != nullptr)
                platform::argus().releaseFrame(frame);
            return status;
        };
    }

    Installed in_;
    std::vector<at::CameraDevice*> devices_;
    Chain chain_;
};

}  // namespace

TEST_F(ThreadedCapture, ConsumerDestroyedWhileAcquiring) {
    int64_t at = 0;
    const WaitResult r = waitThenDestroy(
        in_, acquireLong(), [&] { platform::argus().destroyFrameConsumer(chain_.consumer); }, at);
    expectPromptDisconnect(r, at);
    // The stale handle answers the same afterwards.
    at::Status status = at::STATUS_OK;
    EXPECT_EQ(platform::argus().acquireFrame(chain_.consumer, kSecond, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_DISCONNECTED);
}

TEST_F(ThreadedCapture, StreamDestroyedWhileAcquiring) {
    int64_t at = 0;
    const WaitResult r = waitThenDestroy(
        in_, acquireLong(), [&] { platform::argus().destroyOutputStream(chain_.stream); }, at);
    expectPromptDisconnect(r, at);
}

TEST_F(ThreadedCapture, StreamDisconnectedWhileAcquiring) {
    int64_t at = 0;
    const WaitResult r = waitThenDestroy(
        in_, acquireLong(), [&] { platform::argus().disconnect(chain_.stream); }, at);
    expectPromptDisconnect(r, at);
}

TEST_F(ThreadedCapture, SessionDestroyedWhileAcquiring) {
    int64_t at = 0;
    const WaitResult r = waitThenDestroy(
        in_, acquireLong(), [&] { platform::argus().destroyCaptureSession(chain_.session); }, at);
    expectPromptDisconnect(r, at);
    EXPECT_EQ(in_.service().liveStreams(), 0);
}

TEST_F(ThreadedCapture, ProviderDestroyedWhileAcquiring) {
    int64_t at = 0;
    const WaitResult r = waitThenDestroy(
        in_, acquireLong(), [&] { platform::argus().destroyProvider(); }, at);
    expectPromptDisconnect(r, at);
    EXPECT_EQ(in_.service().liveConsumers(), 0);
    // The handles of the old provider answer errors, and nothing crashes.
    platform::argus().destroyFrameConsumer(chain_.consumer);
    platform::argus().destroyCaptureSession(chain_.session);
}

TEST_F(ThreadedCapture, StreamDestroyedWhileWaitingForConnection) {
    at::Status status;
    at::OutputStreamSettings* settings = platform::argus().createEglOutputStreamSettings(chain_.session);
    ASSERT_EQ(platform::argus().setResolution(settings, {640, 480}), at::STATUS_OK);
    ASSERT_EQ(platform::argus().setCameraDevice(settings, devices_[0]), at::STATUS_OK);
    at::OutputStream* lonely = platform::argus().createOutputStream(chain_.session, settings, &status);
    ASSERT_NE(lonely, nullptr);
    int64_t at = 0;
    const WaitResult r = waitThenDestroy(
        in_, [lonely](bool&) { return platform::argus().waitUntilConnected(lonely, kForever); },
        [&] { platform::argus().destroyOutputStream(lonely); }, at);
    expectPromptDisconnect(r, at);
}

TEST_F(ThreadedCapture, WaitForIdleEndsWithStopRepeat) {
    std::vector<Chain> chains{chain_};
    startChain(platform::argus(), chains[0], {1280, 720});
    int64_t at = 0;
    const WaitResult r = waitThenDestroy(
        in_, [this](bool&) { return platform::argus().waitForIdle(chain_.session, kForever); },
        [&] { platform::argus().stopRepeat(chain_.session); }, at);
    EXPECT_EQ(r.status, at::STATUS_OK);
    EXPECT_LT(r.returnedAtNs - at, static_cast<int64_t>(kSecond));
    closeSensors(platform::argus(), chains);
}

// Two producers stream a stereo camera as the client's threads do while the
// caller's thread changes settings and another reads the frame-start line;
// then the camera is closed under the producers' feet.
TEST_F(ThreadedCapture, ProducersStreamWhileSettingsChangeAndCloseComes) {
    platform::Argus& argus = platform::argus();
    std::vector<Chain> chains = openSensors(argus, {devices_[1], devices_[2]}, {640, 400});
    std::atomic<bool> stop{false};
    std::atomic<int> frames[2] = {{0}, {0}};
    std::atomic<int> endedDisconnected{0};
    auto produce = [&](int side) {
        std::vector<unsigned char> image(640 * 400 * 2);
        int fd = -1;
        while (!stop.load()) {
            at::Status status = at::STATUS_UNIMPLEMENTED;
            at::Frame* frame = argus.acquireFrame(chains[side].consumer, kSecond, &status);
            if (frame == nullptr) {
                if (status == at::STATUS_DISCONNECTED) {
                    ++endedDisconnected;
                    break;
                }
                continue;
            }
            uint64_t ts = 0;
            argus.getSensorTimestamp(frame, ts);
            if (fd < 0)
                fd = argus.createNvBuffer(frame, {640, 400}, 14, 0, 0, &status);
            if (fd > 0 && argus.copyToNvBuffer(frame, fd) == at::STATUS_OK)
                argus.surfaceToRaw(fd, 0, 640, 400, image.data());
            argus.releaseFrame(frame);
            ++frames[side];
        }
        if (fd > 0)
            argus.destroyNvBuffer(fd);
    };
    auto line = sim::GmslFrameSync::of(in_.machine(), 30);
    std::atomic<int> lineStarts{0};
    std::thread reader([&] {
        int64_t last = in_.now();
        while (!stop.load()) {
            const int64_t now = in_.now();
            if (line->frameStartBetween(last, now))
                ++lineStarts;
            last = now;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    std::thread left(produce, 0), right(produce, 1);
    const auto deadline = std::chrono::steady_clock::now() + kLongEnough;
    while ((frames[0].load() < 10 || frames[1].load() < 10) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    for (int i = 0; i < 5; ++i)
        for (Chain& c : chains)
            changeRate(argus, c, i % 2 == 0 ? k30HzNs : k60HzNs);
    const int before = frames[0].load();
    while (frames[0].load() < before + 5 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    // Closed while the producers still acquire: they see the disconnection.
    closeSensors(argus, chains);
    left.join();
    right.join();
    stop = true;
    reader.join();
    EXPECT_GE(frames[0].load(), before + 5);
    EXPECT_GE(frames[1].load(), 10);
    EXPECT_EQ(endedDisconnected.load(), 2);
    EXPECT_GT(lineStarts.load(), 0);
    EXPECT_EQ(in_.service().liveFrames(), 0);
    EXPECT_EQ(in_.service().liveNvBuffers(), 0);
}
