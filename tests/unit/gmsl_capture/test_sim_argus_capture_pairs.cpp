// The two sensors of a simulated stereo camera: one frame grid for both
// (equal timestamps), a second sensor whose timestamps are offset or whose
// frames come a frame late, and the camera's frame-start line.
#include <gtest/gtest.h>

#include <vector>

#include "SimArgusCaptureSupport.h"

using namespace capturetest;

namespace {

// The sync threshold the camera client uses by default, in microseconds.
constexpr int64_t kSyncThresholdUs = 10;

struct Pair {
    Acquired left, right;
};

Pair acquirePair(platform::Argus& argus, std::vector<Chain>& chains) {
    Pair p;
    p.left = acquireOne(argus, chains[0].consumer);
    p.right = acquireOne(argus, chains[1].consumer);
    return p;
}

}  // namespace

TEST(SimArgusPairs, BothSensorsShareOneGrid) {
    Installed in(machineFrom(stereoCamera(30)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
    ASSERT_EQ(chains.size(), 2u);
    for (int i = 0; i < 10; ++i) {
        const Pair p = acquirePair(argus, chains);
        ASSERT_EQ(p.left.status, at::STATUS_OK);
        ASSERT_EQ(p.right.status, at::STATUS_OK);
        EXPECT_EQ(p.left.timestampNs, p.right.timestampNs);
    }
    const sim::ArgusSensorState left = in.service().sensorState(0);
    const sim::ArgusSensorState right = in.service().sensorState(1);
    EXPECT_EQ(left.phaseNs, right.phaseNs);
    EXPECT_EQ(left.periodNs, right.periodNs);

    // The client changes the rate one sensor after the other: the second
    // joins the grid the first started.
    changeRate(argus, chains[0], k30HzNs);
    changeRate(argus, chains[1], k30HzNs);
    EXPECT_EQ(in.service().sensorState(0).phaseNs, in.service().sensorState(1).phaseNs);
    for (int i = 0; i < 10; ++i) {
        const Pair p = acquirePair(argus, chains);
        ASSERT_EQ(p.left.status, at::STATUS_OK);
        EXPECT_EQ(p.left.timestampNs, p.right.timestampNs);
    }
    // A settings change at the same rate keeps the grid: no frame is missed.
    const Pair before = acquirePair(argus, chains);
    changeRate(argus, chains[0], k30HzNs);
    changeRate(argus, chains[1], k30HzNs);
    const Pair after = acquirePair(argus, chains);
    EXPECT_EQ(after.left.timestampNs, before.left.timestampNs + k30HzNs);
    EXPECT_EQ(after.right.timestampNs, after.left.timestampNs);
    closeSensors(argus, chains);
}

TEST(SimArgusPairs, SecondSensorOffsetByTheThreshold) {
    for (int64_t offset : {kSyncThresholdUs, kSyncThresholdUs + 1}) {
        Installed in(machineFrom(
            stereoCamera(30, "\"faults\": {\"second_sensor_offset_us\": " + std::to_string(offset) + "}")));
        platform::Argus& argus = platform::argus();
        ASSERT_TRUE(argus.createProvider());
        std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
        for (int i = 0; i < 5; ++i) {
            const Pair p = acquirePair(argus, chains);
            ASSERT_EQ(p.left.status, at::STATUS_OK);
            ASSERT_EQ(p.right.status, at::STATUS_OK);
            EXPECT_EQ(static_cast<int64_t>(p.right.timestampNs - p.left.timestampNs), offset * 1000)
                << "offset " << offset;
        }
        closeSensors(argus, chains);
        argus.destroyProvider();
    }
}

TEST(SimArgusPairs, SecondSensorLagsOneFrame) {
    Installed in(machineFrom(stereoCamera(30, "\"faults\": {\"second_sensor_lag_frames\": 1}")));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
    // The right sensor's first frame comes one period after the left's.
    const Acquired firstLeft = acquireOne(argus, chains[0].consumer);
    ASSERT_EQ(firstLeft.status, at::STATUS_OK);
    EXPECT_EQ(acquireOne(argus, chains[1].consumer, 0).status, at::STATUS_TIMEOUT);
    for (int i = 0; i < 5; ++i) {
        // When a left frame arrives, the newest right frame is the one before.
        const Acquired left = acquireOne(argus, chains[0].consumer);
        const Acquired right = acquireOne(argus, chains[1].consumer, 0);
        ASSERT_EQ(left.status, at::STATUS_OK);
        ASSERT_EQ(right.status, at::STATUS_OK);
        EXPECT_EQ(right.timestampNs + k60HzNs, left.timestampNs);
    }
    // Its partner arrives one period later, with the left timestamp.
    const Acquired left = acquireOne(argus, chains[0].consumer);
    const int64_t leftSeenAt = in.now();
    (void)acquireOne(argus, chains[1].consumer, 0);
    const Acquired partner = acquireOne(argus, chains[1].consumer);
    EXPECT_EQ(partner.timestampNs, left.timestampNs);
    EXPECT_GE(in.now(), leftSeenAt + static_cast<int64_t>(k60HzNs) - 1);
    closeSensors(argus, chains);
}

TEST(SimArgusPairs, FrameStartLineFollowsTheSensors) {
    Installed in(machineFrom(stereoCamera(30) + "," + monoCamera(31)));
    platform::Argus& argus = platform::argus();
    auto line30 = sim::GmslFrameSync::of(in.machine(), 30);
    auto line31 = sim::GmslFrameSync::of(in.machine(), 31);
    ASSERT_TRUE(argus.createProvider());
    const auto devices = devicesOf(argus);
    ASSERT_EQ(devices.size(), 3u);
    EXPECT_FALSE(line30->streaming());

    std::vector<Chain> chains = openSensors(argus, {devices[0], devices[1]});
    EXPECT_TRUE(line30->streaming());
    EXPECT_FALSE(line31->streaming());
    EXPECT_EQ(line30->periodNs(), static_cast<int64_t>(k60HzNs));
    // Each frame's timestamp is a frame start of the line, and none lies between.
    const Acquired a = acquireOne(argus, chains[0].consumer);
    const Acquired b = acquireOne(argus, chains[0].consumer);
    const int64_t ta = static_cast<int64_t>(a.timestampNs);
    const int64_t tb = static_cast<int64_t>(b.timestampNs);
    EXPECT_TRUE(line30->frameStartBetween(ta - 1, ta));
    EXPECT_TRUE(line30->frameStartBetween(tb - 1, tb));
    EXPECT_FALSE(line30->frameStartBetween(ta, tb - 1));

    changeRate(argus, chains[0], k30HzNs);
    changeRate(argus, chains[1], k30HzNs);
    EXPECT_EQ(line30->periodNs(), static_cast<int64_t>(k30HzNs));
    // One sensor still streaming keeps the line.
    argus.stopRepeat(chains[0].session);
    EXPECT_TRUE(line30->streaming());
    argus.stopRepeat(chains[1].session);
    EXPECT_FALSE(line30->streaming());
    ASSERT_EQ(argus.repeat(chains[0].session, chains[0].request), at::STATUS_OK);
    EXPECT_TRUE(line30->streaming());
    // The provider's end stops it.
    argus.destroyProvider();
    EXPECT_FALSE(line30->streaming());
}

TEST(SimArgusPairs, MonoCameraOnADeviceVector) {
    Installed in(machineFrom(monoCamera(31)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    const auto devices = devicesOf(argus);
    ASSERT_EQ(devices.size(), 1u);
    // The single-sensor path makes its session on a one-device vector.
    at::Status status;
    at::CaptureSession* session =
        argus.createCaptureSession(std::vector<at::CameraDevice*>{devices[0]}, &status);
    ASSERT_NE(session, nullptr);
    at::OutputStreamSettings* settings = argus.createEglOutputStreamSettings(session);
    ASSERT_EQ(argus.setResolution(settings, {1280, 720}), at::STATUS_OK);
    ASSERT_EQ(argus.setMetadataEnable(settings, true), at::STATUS_OK);
    ASSERT_EQ(argus.setCameraDevice(settings, devices[0]), at::STATUS_OK);
    at::OutputStream* stream = argus.createOutputStream(session, settings, &status);
    ASSERT_NE(stream, nullptr);
    argus.destroyOutputStreamSettings(settings);
    at::FrameConsumer* consumer = argus.createFrameConsumer(stream, &status);
    at::Request* request = argus.createPreviewRequest(session, &status);
    ASSERT_EQ(argus.enableOutputStream(request, stream), at::STATUS_OK);
    ASSERT_EQ(argus.repeat(session, request), at::STATUS_OK);
    EXPECT_EQ(argus.waitUntilConnected(stream, kForever), at::STATUS_OK);
    const Acquired a = acquireOne(argus, consumer);
    const Acquired b = acquireOne(argus, consumer);
    ASSERT_EQ(b.status, at::STATUS_OK);
    // A new request asks for the first mode's fastest rate.
    EXPECT_EQ(b.timestampNs - a.timestampNs, k60HzNs);
    std::vector<Chain> chains{{devices[0], session, stream, consumer, request, nullptr}};
    closeSensors(argus, chains);
    EXPECT_EQ(in.service().liveSessions(), 0);
}
