// The stereo grabber on the simulated camera: closing in every state of the
// stream, and frames that reach the caller intact.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "StereoGrabberSim.h"

using testsupport::SimCameraRig;
using testsupport::waitFor;

namespace {

// Real time that destruct took.
std::chrono::milliseconds timeDestruct(bh::LinuxStereoGrabber& grabber) {
    const auto start = std::chrono::steady_clock::now();
    grabber.destruct();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
}

}  // namespace

TEST(StereoGrabberSim, DestructOfAStreamThatNeverStartedIsBackWithinASecond) {
    SimCameraRig rig("", false);
    bh::LinuxStereoGrabber grabber(true);
    ASSERT_EQ(grabber.construct("/dev/video0", 2560, 720, 60, 4), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_LT(timeDestruct(grabber).count(), 1300);
    EXPECT_FALSE(rig.camera()->streaming());
}

TEST(StereoGrabberSim, DestructWhileStreamingIsBackWithinASecondAndStopsTheStream) {
    SimCameraRig rig("", false);
    bh::LinuxStereoGrabber grabber(true);
    ASSERT_EQ(grabber.construct("/dev/video0", 1344, 376, 100, 4), 0);
    ASSERT_TRUE(grabber.startCapture());
    ASSERT_TRUE(waitFor([&] { return grabber.getFrameCount() >= 10; }, 10000));
    EXPECT_LT(timeDestruct(grabber).count(), 1300);
    EXPECT_FALSE(rig.camera()->streaming());
    EXPECT_EQ(rig.camera()->bufferCount(), 0u);  // unmapped and closed: the driver freed them
}

TEST(StereoGrabberSim, DestructOfAnUnpluggedCameraIsBackWithinASecond) {
    SimCameraRig rig("\"faults\": {\"unplug_at\": 0.3}", false);
    bh::LinuxStereoGrabber grabber(true);
    ASSERT_EQ(grabber.construct("/dev/video0", 1344, 376, 100, 4), 0);
    ASSERT_TRUE(grabber.startCapture());
    ASSERT_TRUE(waitFor([&] { return !rig.camera()->present(); }, 10000));
    const uint64_t atUnplug = grabber.getFrameCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(grabber.getFrameCount(), atUnplug);
    EXPECT_LT(timeDestruct(grabber).count(), 1300);
}

TEST(StereoGrabberSim, DestructOfAStalledStreamIsBackWithinASecond) {
    SimCameraRig rig("\"faults\": {\"stall\": {\"at\": 0.2, \"seconds\": 60}}", false);
    bh::LinuxStereoGrabber grabber(true);
    ASSERT_EQ(grabber.construct("/dev/video0", 1344, 376, 100, 4), 0);
    ASSERT_TRUE(grabber.startCapture());
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const uint64_t stalled = grabber.getFrameCount();
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(grabber.getFrameCount(), stalled);
    EXPECT_LT(timeDestruct(grabber).count(), 1300);
}

TEST(StereoGrabberSim, FramesReachTheCallerWithTheSceneAndTheirTimestamps) {
    SimCameraRig rig("", false);
    bh::LinuxStereoGrabber grabber(true);
    const int w = 1344, h = 376;
    std::vector<unsigned char> frame(static_cast<size_t>(w) * h * 2), previous(frame.size());
    ASSERT_EQ(grabber.construct("/dev/video0", w, h, 30, 4), 0);
    ASSERT_TRUE(grabber.startCapture());
    ASSERT_TRUE(waitFor([&] { return grabber.getFrameCount() >= 2; }, 10000));
    ASSERT_TRUE(grabber.copyLatestFrame(previous.data(), previous.size()));
    const uint64_t firstTs = grabber.getDeliveredTimestamp();
    const uint64_t count = grabber.getFrameCount();
    ASSERT_TRUE(waitFor([&] { return grabber.getFrameCount() > count; }, 10000));
    ASSERT_TRUE(grabber.copyLatestFrame(frame.data(), frame.size()));
    const uint64_t secondTs = grabber.getDeliveredTimestamp();
    grabber.destruct();
    // Not a blank image, and the scene moved a little between two frames.
    EXPECT_NE(std::memcmp(frame.data(), previous.data(), frame.size()), 0);
    size_t distinct = 0;
    for (size_t i = 1; i < 4096; ++i)
        distinct += frame[i] != frame[i - 1];
    EXPECT_GT(distinct, 100u);
    // Timestamps on the system clock's scale, about a frame period apart.
    const uint64_t wallNow = static_cast<uint64_t>(platform::clock().systemNanoseconds());
    EXPECT_LT(wallNow - secondTs, 5000000000ull);
    EXPECT_GT(secondTs, firstTs);
    EXPECT_GE(secondTs - firstTs, 20000000ull);
}

TEST(StereoGrabberSim, OldFirmwareStreamsToo) {
    SimCameraRig rig("", false, "0xF580");
    bh::LinuxStereoGrabber grabber(false);
    ASSERT_EQ(grabber.construct("/dev/video0", 1344, 376, 100, 2), 0);
    ASSERT_TRUE(grabber.startCapture());
    EXPECT_TRUE(waitFor([&] { return grabber.getFrameCount() >= 5; }, 10000));
    // Its channel answers: the version packet of the old firmware.
    EXPECT_EQ(grabber.getKOVFirmwareVersion(), 1142);
    grabber.destruct();
}

TEST(StereoGrabberSim, BusyNodeCannotBeOpened) {
    SimCameraRig rig("\"busy\": true", false);
    bh::LinuxStereoGrabber grabber(true);
    EXPECT_EQ(grabber.construct("/dev/video0", 2560, 720, 60, 4), 4);
}

TEST(StereoGrabberSim, SizeTheCameraDoesNotOfferIsRefusedWithTheOneItGives) {
    SimCameraRig rig("", false);
    bh::LinuxStereoGrabber grabber(true);
    EXPECT_EQ(grabber.construct("/dev/video0", 2000, 700, 30, 4), 7);
    EXPECT_EQ(grabber.getWidth(), 2560);
    EXPECT_EQ(grabber.getHeight(), 720);
}
