// The stereo grabber streaming a simulated KOV Pico at HD720 (2560 x 720) and
// 60 frames a second for 8.34 s of real time, as the bandwidth run of the
// grabbing test does: the delivered count against the expected one, with
// drops and short frames configured in the camera.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <thread>

#include "StereoGrabberSim.h"

using testsupport::SimCameraRig;

namespace {

constexpr double kRunSeconds = 8.34;
constexpr int kRate = 60;
// Frames the run should see: 60 x 8.34 = 500.4.
const int kExpected = static_cast<int>(kRate * kRunSeconds);

struct RunResult {
    long delivered = 0;
    sim::UvcCamera::Counters camera;
};

// Counts the frames the consumer delivers from the first one on, for 8.34 s.
RunResult streamForTheBandwidthRun(SimCameraRig& rig) {
    RunResult result;
    bh::LinuxStereoGrabber grabber(true);
    EXPECT_EQ(grabber.construct("/dev/video0", 2560, 720, kRate, 4), 0);
    EXPECT_TRUE(grabber.startCapture());
    EXPECT_TRUE(testsupport::waitFor([&] { return grabber.getFrameCount() >= 1; }, 10000));
    const auto start = std::chrono::steady_clock::now();
    const uint64_t first = grabber.getFrameCount();
    std::this_thread::sleep_until(start + std::chrono::microseconds(static_cast<long>(kRunSeconds * 1e6)));
    result.delivered = static_cast<long>(grabber.getFrameCount() - first) + 1;
    grabber.destruct();
    result.camera = rig.camera()->counters();
    return result;
}

}  // namespace

TEST(StereoGrabberBandwidth, HealthyStreamDeliversTheExpectedCount) {
    SimCameraRig rig("", false);
    const RunResult r = streamForTheBandwidthRun(rig);
    EXPECT_NEAR(r.delivered, kExpected, 1);
    EXPECT_EQ(r.camera.dropped, 0u);
    EXPECT_EQ(r.camera.lost, 0u) << "the grabber left the driver without a queued buffer";
}

TEST(StereoGrabberBandwidth, TwentyDropsGiveExactlyTwentyFewer) {
    // Every 25th frame is lost at 60 fps: 20 of the first 500.
    SimCameraRig rig("\"faults\": {\"drops_per_second\": 2.4}", false);
    const RunResult r = streamForTheBandwidthRun(rig);
    EXPECT_NEAR(r.delivered, kExpected - 20, 1);
    EXPECT_EQ(r.camera.lost, 0u);
}

TEST(StereoGrabberBandwidth, ShortFramesAreNeverDelivered) {
    // One frame in ten arrives short: 50 of the first 500.
    SimCameraRig rig("\"faults\": {\"short_frames_per_second\": 6}", false);
    const RunResult r = streamForTheBandwidthRun(rig);
    EXPECT_NEAR(r.delivered, kExpected - 50, 1);
    EXPECT_GE(r.camera.shortFrames, 50u);
    // Every frame the camera handed over was either delivered or short.
    EXPECT_NEAR(static_cast<double>(r.camera.delivered - r.camera.shortFrames),
                static_cast<double>(r.delivered), 3.0);
}
