// Faults of the simulated GMSL cameras and camera service: a freeze that
// lasts until the provider is made anew, a camera without a first frame, a
// stream that never connects, capture errors, and a service that fails to
// start a few times.
#include <gtest/gtest.h>

#include <vector>

#include "SimArgusCaptureSupport.h"

using namespace capturetest;

namespace {

// Acquires until a frame of the camera is `ns` past `since` or none comes.
// Returns the newest timestamp seen.
uint64_t streamUntil(platform::Argus& argus, at::FrameConsumer* consumer, int64_t untilNs, at::Status& last) {
    uint64_t newest = 0;
    for (;;) {
        const Acquired a = acquireOne(argus, consumer);
        last = a.status;
        if (a.status != at::STATUS_OK)
            return newest;
        newest = a.timestampNs;
        if (static_cast<int64_t>(a.timestampNs) >= untilNs)
            return newest;
    }
}

}  // namespace

TEST(SimArgusFaults, FreezeLastsUntilTheProviderIsMadeAnew) {
    Installed in(
        machineFrom(stereoCamera(30, "\"faults\": {\"freeze\": {\"after_s\": 2}}") + "," + monoCamera(31)));
    platform::Argus& argus = platform::argus();
    auto line = sim::GmslFrameSync::of(in.machine(), 30);
    ASSERT_TRUE(argus.createProvider());
    const auto devices = devicesOf(argus);
    ASSERT_EQ(devices.size(), 3u);
    const int64_t repeatAt = in.now();
    std::vector<Chain> chains = openSensors(argus, {devices[0], devices[1]});
    std::vector<Chain> other = openSensors(argus, {devices[2]});

    at::Status last = at::STATUS_OK;
    const uint64_t newest =
        streamUntil(argus, chains[0].consumer, repeatAt + 10 * static_cast<int64_t>(kSecond), last);
    EXPECT_EQ(last, at::STATUS_TIMEOUT);
    // Frames up to the freeze were delivered, none after it.
    EXPECT_GT(static_cast<int64_t>(newest),
              repeatAt + 2 * static_cast<int64_t>(kSecond) - 2 * static_cast<int64_t>(k60HzNs));
    EXPECT_LE(static_cast<int64_t>(newest), repeatAt + 2 * static_cast<int64_t>(kSecond));
    EXPECT_TRUE(in.service().cameraFrozen(0));
    EXPECT_FALSE(line->streaming());
    const uint64_t delivered = in.service().sensorState(0).framesDelivered;
    // The right consumer has not read the last frame before the freeze yet.
    EXPECT_EQ(acquireOne(argus, chains[1].consumer, 0).status, at::STATUS_OK);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(acquireOne(argus, chains[0].consumer).status, at::STATUS_TIMEOUT);
        EXPECT_EQ(acquireOne(argus, chains[1].consumer).status, at::STATUS_TIMEOUT);
    }
    EXPECT_EQ(in.service().sensorState(0).framesDelivered, delivered);
    // Settings dispatched to a frozen camera do not revive it.
    changeRate(argus, chains[0], k30HzNs);
    EXPECT_EQ(acquireOne(argus, chains[0].consumer).status, at::STATUS_TIMEOUT);
    // The other camera goes on.
    EXPECT_EQ(acquireOne(argus, other[0].consumer).status, at::STATUS_OK);

    // The client's restart: close, provider destroyed and made again, open.
    closeSensors(argus, chains);
    argus.destroyProvider();
    // The provider's end ended the other camera's objects too.
    EXPECT_EQ(acquireOne(argus, other[0].consumer).status, at::STATUS_DISCONNECTED);
    EXPECT_FALSE(in.service().cameraFrozen(0));
    ASSERT_TRUE(argus.createProvider());
    const int64_t reopenAt = in.now();
    chains = openSensors(argus, devicesOf(argus));
    chains.resize(2);  // the stereo camera's two sensors
    EXPECT_TRUE(line->streaming());
    // One freeze by default: the camera now streams on.
    const uint64_t later =
        streamUntil(argus, chains[1].consumer, reopenAt + 5 * static_cast<int64_t>(kSecond), last);
    EXPECT_EQ(last, at::STATUS_OK);
    EXPECT_GE(static_cast<int64_t>(later), reopenAt + 5 * static_cast<int64_t>(kSecond));
    EXPECT_FALSE(in.service().cameraFrozen(0));
    argus.destroyProvider();
}

TEST(SimArgusFaults, FreezeCountFreezesOncePerProvider) {
    Installed in(machineFrom(monoCamera(31, "\"faults\": {\"freeze\": {\"after_s\": 1, \"count\": 2}}")));
    platform::Argus& argus = platform::argus();
    for (int provider = 0; provider < 3; ++provider) {
        ASSERT_TRUE(argus.createProvider());
        const int64_t start = in.now();
        std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
        at::Status last = at::STATUS_OK;
        streamUntil(argus, chains[0].consumer, start + 3 * static_cast<int64_t>(kSecond), last);
        EXPECT_EQ(last, provider < 2 ? at::STATUS_TIMEOUT : at::STATUS_OK) << "provider " << provider;
        EXPECT_EQ(in.service().cameraFrozen(0), provider < 2);
        argus.destroyProvider();
    }
}

TEST(SimArgusFaults, ServiceRestartFailsAfterAFreeze) {
    Installed in(
        machineFrom(monoCamera(31, "\"faults\": {\"freeze\": {\"after_s\": 1, \"restart_failures\": 2}}")));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
    in.clock().sleepFor(std::chrono::seconds(2));
    EXPECT_EQ(acquireOne(argus, chains[0].consumer, 0).status, at::STATUS_OK);  // the last frame before
    EXPECT_EQ(acquireOne(argus, chains[0].consumer).status, at::STATUS_TIMEOUT);
    EXPECT_EQ(in.service().providerFailuresLeft(), 2);
    argus.destroyProvider();
    EXPECT_FALSE(argus.createProvider());
    EXPECT_FALSE(argus.createProvider());
    EXPECT_TRUE(argus.createProvider());
    EXPECT_EQ(in.service().createProviderCalls(), 4);
    chains = openSensors(argus, devicesOf(argus));
    EXPECT_EQ(acquireOne(argus, chains[0].consumer).status, at::STATUS_OK);
    argus.destroyProvider();
}

TEST(SimArgusFaults, ProviderFailsTheFirstTimes) {
    Installed in(machineFrom(
        "{\"type\": \"argus\", \"faults\": [{\"name\": \"provider_unavailable\", \"count\": 3}]}, " +
        monoCamera(31)));
    platform::Argus& argus = platform::argus();
    std::vector<at::CameraDevice*> devices;
    for (int i = 0; i < 3; ++i) {
        EXPECT_FALSE(argus.createProvider());
        EXPECT_EQ(argus.getCameraDevices(devices), at::STATUS_UNAVAILABLE);
    }
    EXPECT_TRUE(argus.createProvider());
    EXPECT_EQ(argus.getCameraDevices(devices), at::STATUS_OK);
    EXPECT_EQ(devices.size(), 1u);
    // The knob does the same at run time.
    argus.destroyProvider();
    in.service().setProviderFailures(1);
    EXPECT_FALSE(argus.createProvider());
    EXPECT_TRUE(argus.createProvider());
}

TEST(SimArgusFaults, NoFirstFrame) {
    Installed in(machineFrom(stereoCamera(30, "\"faults\": {\"no_first_frame\": true}")));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
    for (Chain& c : chains)
        EXPECT_EQ(argus.waitUntilConnected(c.stream, kForever), at::STATUS_OK);
    for (int i = 0; i < 5; ++i)
        for (Chain& c : chains)
            EXPECT_EQ(acquireOne(argus, c.consumer).status, at::STATUS_TIMEOUT);
    EXPECT_TRUE(in.service().sensorState(0).repeating);
    EXPECT_EQ(in.service().sensorState(0).framesDelivered, 0u);
    EXPECT_EQ(in.service().sensorState(1).framesDelivered, 0u);
    EXPECT_FALSE(sim::GmslFrameSync::of(in.machine(), 30)->streaming());
    // A restarted service does not help: the camera never delivers.
    closeSensors(argus, chains);
    argus.destroyProvider();
    ASSERT_TRUE(argus.createProvider());
    chains = openSensors(argus, devicesOf(argus));
    EXPECT_EQ(acquireOne(argus, chains[0].consumer).status, at::STATUS_TIMEOUT);
    // Cleared at run time, frames come.
    sim::ArgusCameraFaults none;
    in.service().setCameraFaults(0, none);
    EXPECT_EQ(acquireOne(argus, chains[0].consumer).status, at::STATUS_OK);
    closeSensors(argus, chains);
}

TEST(SimArgusFaults, StreamThatNeverConnects) {
    Installed in(
        machineFrom(stereoCamera(30, "\"faults\": {\"never_connect\": true}") + "," + monoCamera(31)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    const auto devices = devicesOf(argus);
    std::vector<Chain> chains = openSensors(argus, {devices[0], devices[1]});
    // Even an endless wait gives up, after the service's own limit.
    int64_t before = in.now();
    EXPECT_EQ(argus.waitUntilConnected(chains[0].stream, kForever), at::STATUS_TIMEOUT);
    EXPECT_GE(in.now() - before, sim::SimArgus::kNeverConnectGiveUpNs);
    EXPECT_LT(in.now() - before, 3 * static_cast<int64_t>(kSecond));
    before = in.now();
    EXPECT_EQ(argus.waitUntilConnected(chains[1].stream, kSecond / 10), at::STATUS_TIMEOUT);
    EXPECT_GE(in.now() - before, static_cast<int64_t>(kSecond / 10));
    EXPECT_LT(in.now() - before, static_cast<int64_t>(kSecond / 2));
    EXPECT_EQ(acquireOne(argus, chains[0].consumer).status, at::STATUS_TIMEOUT);

    // A healthy stream connects when its consumer is made, not before.
    Chain mono;
    mono.device = devices[2];
    at::Status status;
    mono.session = argus.createCaptureSession(devices[2], &status);
    at::OutputStreamSettings* settings = argus.createEglOutputStreamSettings(mono.session);
    ASSERT_EQ(argus.setResolution(settings, {1920, 1200}), at::STATUS_OK);
    ASSERT_EQ(argus.setCameraDevice(settings, devices[2]), at::STATUS_OK);
    mono.stream = argus.createOutputStream(mono.session, settings, &status);
    ASSERT_NE(mono.stream, nullptr);
    EXPECT_EQ(argus.waitUntilConnected(mono.stream, kSecond / 5), at::STATUS_TIMEOUT);
    mono.consumer = argus.createFrameConsumer(mono.stream, &status);
    ASSERT_NE(mono.consumer, nullptr);
    EXPECT_EQ(argus.waitUntilConnected(mono.stream, 0), at::STATUS_OK);
    // A stream has one consumer.
    EXPECT_EQ(argus.createFrameConsumer(mono.stream, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_UNAVAILABLE);
    argus.destroyProvider();
}

TEST(SimArgusFaults, CaptureErrorDisconnectsTheStreams) {
    Installed in(machineFrom(stereoCamera(30, "\"faults\": {\"capture_error\": {\"after_s\": 1}}")));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    const int64_t start = in.now();
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
    at::Status last = at::STATUS_OK;
    streamUntil(argus, chains[0].consumer, start + 3 * static_cast<int64_t>(kSecond), last);
    EXPECT_EQ(last, at::STATUS_DISCONNECTED);
    EXPECT_GE(in.now() - start, static_cast<int64_t>(kSecond) - static_cast<int64_t>(k60HzNs));
    EXPECT_TRUE(in.service().cameraCaptureError(0));
    // The error answers at once, without waiting for the time-out.
    const int64_t before = in.now();
    EXPECT_EQ(acquireOne(argus, chains[1].consumer, 10 * kSecond).status, at::STATUS_DISCONNECTED);
    EXPECT_LT(in.now() - before, static_cast<int64_t>(kSecond));
    EXPECT_FALSE(sim::GmslFrameSync::of(in.machine(), 30)->streaming());
    closeSensors(argus, chains);
    argus.destroyProvider();
    ASSERT_TRUE(argus.createProvider());
    chains = openSensors(argus, devicesOf(argus));
    streamUntil(argus, chains[0].consumer, in.now() + 3 * static_cast<int64_t>(kSecond), last);
    EXPECT_EQ(last, at::STATUS_OK);
    closeSensors(argus, chains);
}

TEST(SimArgusFaults, KnobsAtRunTime) {
    Installed in(machineFrom(stereoCamera(30)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    ASSERT_EQ(in.service().cameraCount(), 1u);
    EXPECT_EQ(in.service().cameraOf(1), 0);
    EXPECT_EQ(in.service().cameraOf(2), -1);
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
    sim::ArgusCameraFaults faults;
    faults.secondSensorOffsetUs = 25;
    in.service().setCameraFaults(0, faults);
    EXPECT_EQ(in.service().cameraFaults(0).secondSensorOffsetUs, 25);
    const Acquired left = acquireOne(argus, chains[0].consumer);
    const Acquired right = acquireOne(argus, chains[1].consumer);
    EXPECT_EQ(right.timestampNs, left.timestampNs + 25000);

    in.service().freezeNow(0);
    EXPECT_TRUE(in.service().cameraFrozen(0));
    EXPECT_FALSE(sim::GmslFrameSync::of(in.machine(), 30)->streaming());
    (void)acquireOne(argus, chains[0].consumer, 0);  // a frame from before the freeze may wait
    EXPECT_EQ(acquireOne(argus, chains[0].consumer).status, at::STATUS_TIMEOUT);
    closeSensors(argus, chains);
    argus.destroyProvider();
    ASSERT_TRUE(argus.createProvider());
    chains = openSensors(argus, devicesOf(argus));
    EXPECT_EQ(acquireOne(argus, chains[0].consumer).status, at::STATUS_OK);
    closeSensors(argus, chains);
}
