// The simulated camera service's capture: the stream life cycle through the
// platform::Argus seam, frame timing on the steady clock, frame metadata and
// the request settings that a repeat applies.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "SimArgusCaptureSupport.h"
#include "tests/unit/grabber/SimScenario.h"

using namespace capturetest;

TEST(SimArgusCapture, StreamLifeCycleThroughTheSeam) {
    Installed in(sim::loadScenario(testsupport::scenarioPath("gmsl_kov_qg_pico_bus30")));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    const auto devices = devicesOf(argus);
    ASSERT_EQ(devices.size(), 2u);
    std::vector<Chain> chains = openSensors(argus, devices);
    ASSERT_EQ(chains.size(), 2u);
    EXPECT_EQ(in.service().liveStreams(), 2);
    EXPECT_EQ(in.service().liveConsumers(), 2);

    for (Chain& c : chains)
        EXPECT_EQ(argus.waitUntilConnected(c.stream, kForever), at::STATUS_OK);
    // The producer's loop: acquire, metadata, native buffer, copy out, release.
    int fds[2] = {-1, -1};
    std::vector<unsigned char> image(1920 * 1200 * 2);
    for (int round = 0; round < 3; ++round) {
        for (int side = 0; side < 2; ++side) {
            at::Status status = at::STATUS_UNIMPLEMENTED;
            at::Frame* frame = argus.acquireFrame(chains[side].consumer, kSecond, &status);
            ASSERT_NE(frame, nullptr);
            EXPECT_EQ(status, at::STATUS_OK);
            uint64_t ts = 0, exposure = 0;
            float analog = 0, digital = 0;
            EXPECT_TRUE(argus.getSensorTimestamp(frame, ts));
            EXPECT_TRUE(argus.getSensorExposureTime(frame, exposure));
            EXPECT_TRUE(argus.getSensorAnalogGain(frame, analog));
            EXPECT_TRUE(argus.getIspDigitalGain(frame, digital));
            EXPECT_GT(ts, 0u);
            EXPECT_GT(exposure, 0u);
            EXPECT_GE(analog, 1.0f);
            EXPECT_GE(digital, 1.0f);
            if (fds[side] < 0) {
                fds[side] = argus.createNvBuffer(frame, {1920, 1200}, 14, 0, 0, &status);
                EXPECT_EQ(status, at::STATUS_OK);
                ASSERT_GT(fds[side], 0);
            }
            EXPECT_EQ(argus.copyToNvBuffer(frame, fds[side]), at::STATUS_OK);
            uint32_t w = 0, h = 0, pitch = 0;
            EXPECT_EQ(argus.surfaceMapParams(fds[side], w, h, pitch), 0);
            EXPECT_EQ(w, 1920u);
            EXPECT_EQ(h, 1200u);
            EXPECT_EQ(pitch, 3840u);
            EXPECT_EQ(argus.surfaceToRaw(fds[side], 0, w, h, image.data()), 0);
            argus.releaseFrame(frame);
        }
    }
    EXPECT_NE(fds[0], fds[1]);
    EXPECT_EQ(in.service().liveFrames(), 0);
    EXPECT_TRUE(sim::GmslFrameSync::of(in.machine(), 30)->streaming());

    // The wanted rate, set after the first frames, as stop and repeat.
    for (Chain& c : chains)
        changeRate(argus, c, k30HzNs);
    EXPECT_EQ(in.service().sensorState(0).periodNs, static_cast<int64_t>(k30HzNs));
    EXPECT_EQ(in.service().sensorState(1).periodNs, static_cast<int64_t>(k30HzNs));
    EXPECT_EQ(acquireOne(argus, chains[0].consumer).status, at::STATUS_OK);

    closeSensors(argus, chains);
    EXPECT_EQ(in.service().liveSessions(), 0);
    EXPECT_EQ(in.service().liveStreams(), 0);
    EXPECT_EQ(in.service().liveConsumers(), 0);
    EXPECT_FALSE(in.service().sensorState(0).repeating);
    EXPECT_FALSE(sim::GmslFrameSync::of(in.machine(), 30)->streaming());
    for (int fd : fds)
        EXPECT_EQ(argus.destroyNvBuffer(fd), 0);
    EXPECT_EQ(in.service().liveNvBuffers(), 0);
    argus.destroyProvider();
}

TEST(SimArgusCapture, TimestampsFollowTheRequestedRate) {
    Installed in(machineFrom(monoCamera(31)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
    ASSERT_EQ(chains.size(), 1u);
    Chain& c = chains[0];

    // Started at the mode's shortest duration (60 Hz), frames are one period apart.
    const int64_t repeatAt = in.now();
    Acquired previous = acquireOne(argus, c.consumer);
    ASSERT_EQ(previous.status, at::STATUS_OK);
    EXPECT_GT(static_cast<int64_t>(previous.timestampNs), repeatAt);
    EXPECT_LE(static_cast<int64_t>(previous.timestampNs), repeatAt + static_cast<int64_t>(k60HzNs));
    for (int i = 0; i < 20; ++i) {
        const Acquired next = acquireOne(argus, c.consumer);
        ASSERT_EQ(next.status, at::STATUS_OK);
        EXPECT_EQ(next.timestampNs - previous.timestampNs, k60HzNs);
        // A frame is handed out once it has happened, not before.
        EXPECT_GE(in.now(), static_cast<int64_t>(next.timestampNs));
        previous = next;
    }

    changeRate(argus, c, k30HzNs);
    previous = acquireOne(argus, c.consumer);
    for (int i = 0; i < 20; ++i) {
        const Acquired next = acquireOne(argus, c.consumer);
        ASSERT_EQ(next.status, at::STATUS_OK);
        EXPECT_EQ(next.timestampNs - previous.timestampNs, k30HzNs);
        previous = next;
    }
    // Durations outside the mode's range are clamped to it.
    changeRate(argus, c, kSecond / 1000);
    EXPECT_EQ(in.service().sensorState(0).periodNs, static_cast<int64_t>(k60HzNs));
    changeRate(argus, c, kSecond / 2);
    EXPECT_EQ(in.service().sensorState(0).periodNs, static_cast<int64_t>(k15HzNs));
    previous = acquireOne(argus, c.consumer);
    const Acquired next = acquireOne(argus, c.consumer);
    EXPECT_EQ(next.timestampNs - previous.timestampNs, k15HzNs);
    closeSensors(argus, chains);
}

TEST(SimArgusCapture, MailboxHandsOutTheNewestFrame) {
    Installed in(machineFrom(monoCamera(31)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
    Chain& c = chains[0];
    const Acquired first = acquireOne(argus, c.consumer);
    ASSERT_EQ(first.status, at::STATUS_OK);
    const uint64_t deliveredBefore = in.service().sensorState(0).framesDelivered;

    // Five frames pass unread: the next acquire gets the fifth, at once.
    in.clock().sleepFor(std::chrono::nanoseconds(5 * k60HzNs));
    const Acquired newest = acquireOne(argus, c.consumer, 0);
    ASSERT_EQ(newest.status, at::STATUS_OK);
    EXPECT_EQ(newest.timestampNs, first.timestampNs + 5 * k60HzNs);
    EXPECT_EQ(in.service().sensorState(0).framesDelivered, deliveredBefore + 5);
    // Nothing newer yet: a zero time-out answers at once.
    EXPECT_EQ(acquireOne(argus, c.consumer, 0).status, at::STATUS_TIMEOUT);
    const Acquired after = acquireOne(argus, c.consumer);
    EXPECT_EQ(after.timestampNs, newest.timestampNs + k60HzNs);
    EXPECT_EQ(in.service().sensorState(0).framesAcquired, 3u);

    // A frame stays readable until released, however many frames follow.
    at::Status status = at::STATUS_UNIMPLEMENTED;
    at::Frame* held = argus.acquireFrame(c.consumer, kSecond, &status);
    ASSERT_NE(held, nullptr);
    uint64_t heldTs = 0;
    ASSERT_TRUE(argus.getSensorTimestamp(held, heldTs));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(acquireOne(argus, c.consumer).status, at::STATUS_OK);
    uint64_t again = 0;
    EXPECT_TRUE(argus.getSensorTimestamp(held, again));
    EXPECT_EQ(again, heldTs);
    argus.releaseFrame(held);
    EXPECT_FALSE(argus.getSensorTimestamp(held, again));
    closeSensors(argus, chains);
}

TEST(SimArgusCapture, NoFramesWithoutARepeat) {
    Installed in(machineFrom(monoCamera(31)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    const auto devices = devicesOf(argus);
    Chain c = buildChain(argus, devices[0], {1920, 1200});
    const int64_t before = in.now();
    EXPECT_EQ(acquireOne(argus, c.consumer, 100000000).status, at::STATUS_TIMEOUT);
    EXPECT_GE(in.now() - before, 100000000);
    EXPECT_EQ(in.service().sensorState(0).framesDelivered, 0u);

    // After stopRepeat nothing new comes either.
    std::vector<Chain> chains{c};
    startChain(argus, chains[0], {1920, 1200});
    EXPECT_EQ(acquireOne(argus, c.consumer).status, at::STATUS_OK);
    argus.stopRepeat(c.session);
    EXPECT_EQ(argus.waitForIdle(c.session, kForever), at::STATUS_OK);
    EXPECT_EQ(acquireOne(argus, c.consumer, kSecond).status, at::STATUS_TIMEOUT);
    closeSensors(argus, chains);
}

TEST(SimArgusCapture, MetadataFollowsTheRequest) {
    Installed in(machineFrom(monoCamera(31)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
    Chain& c = chains[0];
    changeRate(argus, c, k30HzNs);

    // Automatic: inside the request's ranges, and no longer than a frame.
    for (int i = 0; i < 30; ++i) {
        at::Status status;
        at::Frame* frame = argus.acquireFrame(c.consumer, kSecond, &status);
        ASSERT_NE(frame, nullptr);
        uint64_t exposure = 0;
        float analog = 0, digital = 0;
        ASSERT_TRUE(argus.getSensorExposureTime(frame, exposure));
        ASSERT_TRUE(argus.getSensorAnalogGain(frame, analog));
        ASSERT_TRUE(argus.getIspDigitalGain(frame, digital));
        EXPECT_GE(exposure, 28000u);
        EXPECT_LE(exposure, k30HzNs);
        EXPECT_GE(analog, 1.0f);
        EXPECT_LE(analog, 16.0f);
        EXPECT_GE(digital, 1.0f);
        EXPECT_LE(digital, 256.0f);
        argus.releaseFrame(frame);
    }

    // Manual: one value per range.
    ASSERT_EQ(argus.setExposureTimeRange(c.request, {5000000, 5000000}), at::STATUS_OK);
    ASSERT_EQ(argus.setGainRange(c.request, {4.0f, 4.0f}), at::STATUS_OK);
    ASSERT_EQ(argus.setIspDigitalGainRange(c.request, {2.0f, 2.0f}), at::STATUS_OK);
    argus.stopRepeat(c.session);
    ASSERT_EQ(argus.repeat(c.session, c.request), at::STATUS_OK);
    at::Status status;
    at::Frame* frame = argus.acquireFrame(c.consumer, kSecond, &status);
    ASSERT_NE(frame, nullptr);
    uint64_t exposure = 0;
    float analog = 0, digital = 0;
    EXPECT_TRUE(argus.getSensorExposureTime(frame, exposure));
    EXPECT_TRUE(argus.getSensorAnalogGain(frame, analog));
    EXPECT_TRUE(argus.getIspDigitalGain(frame, digital));
    EXPECT_EQ(exposure, 5000000u);
    EXPECT_FLOAT_EQ(analog, 4.0f);
    EXPECT_FLOAT_EQ(digital, 2.0f);
    argus.releaseFrame(frame);

    // An exposure longer than the frame is cut to the frame.
    ASSERT_EQ(argus.setExposureTimeRange(c.request, {50000000, 50000000}), at::STATUS_OK);
    argus.stopRepeat(c.session);
    ASSERT_EQ(argus.repeat(c.session, c.request), at::STATUS_OK);
    frame = argus.acquireFrame(c.consumer, kSecond, &status);
    ASSERT_NE(frame, nullptr);
    EXPECT_TRUE(argus.getSensorExposureTime(frame, exposure));
    EXPECT_EQ(exposure, k30HzNs);
    argus.releaseFrame(frame);
    closeSensors(argus, chains);
}

TEST(SimArgusCapture, StreamWithoutMetadataHasNoSensorValues) {
    Installed in(machineFrom(monoCamera(31)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    std::vector<Chain> chains{buildChain(argus, devicesOf(argus)[0], {1280, 720}, false)};
    startChain(argus, chains[0], {1280, 720});
    at::Status status;
    at::Frame* frame = argus.acquireFrame(chains[0].consumer, kSecond, &status);
    ASSERT_NE(frame, nullptr);
    uint64_t ts = 0;
    float gain = 0;
    EXPECT_FALSE(argus.getSensorTimestamp(frame, ts));
    EXPECT_FALSE(argus.getSensorExposureTime(frame, ts));
    EXPECT_FALSE(argus.getSensorAnalogGain(frame, gain));
    EXPECT_FALSE(argus.getIspDigitalGain(frame, gain));
    argus.releaseFrame(frame);
    closeSensors(argus, chains);
}

TEST(SimArgusCapture, SettingsReachTheSensorAtTheNextRepeat) {
    Installed in(machineFrom(monoCamera(31)));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
    Chain& c = chains[0];
    at::Range<float> isp;
    ASSERT_TRUE(argus.getIspDigitalGainRange(c.request, isp));
    EXPECT_FLOAT_EQ(isp.min, 1.0f);
    EXPECT_FLOAT_EQ(isp.max, 256.0f);
    EXPECT_EQ(argus.getToneMapCurveSize(c.request), 64u);

    sim::ArgusSensorState state = in.service().sensorState(0);
    ASSERT_TRUE(state.hasApplied);
    EXPECT_EQ(state.applied.frameDurationNs.min, k60HzNs);
    EXPECT_EQ(state.applied.sensorModeIndex, 0);
    EXPECT_EQ(state.applied.awbMode, at::AwbMode::Auto);

    std::vector<float> curve(64);
    for (size_t i = 0; i < curve.size(); ++i)
        curve[i] = std::pow(static_cast<float>(i) / 64.0f, 1.0f / 2.2f);
    const std::vector<at::AcRegion> regions{{100, 50, 300, 250, 1.0f}};
    ASSERT_EQ(argus.setFrameDurationRange(c.request, {k30HzNs, k30HzNs}), at::STATUS_OK);
    ASSERT_EQ(argus.setExposureTimeRange(c.request, {1000000, 8000000}), at::STATUS_OK);
    ASSERT_EQ(argus.setGainRange(c.request, {1.5f, 8.0f}), at::STATUS_OK);
    ASSERT_EQ(argus.setIspDigitalGainRange(c.request, {1.0f, 4.0f}), at::STATUS_OK);
    ASSERT_EQ(argus.setAeLock(c.request, true), at::STATUS_OK);
    ASSERT_EQ(argus.setAeRegions(c.request, regions), at::STATUS_OK);
    ASSERT_EQ(argus.setAeAntibandingMode(c.request, at::AeAntibandingMode::Hz50), at::STATUS_OK);
    ASSERT_EQ(argus.setAwbMode(c.request, at::AwbMode::Manual), at::STATUS_OK);
    ASSERT_EQ(argus.setWbGains(c.request, {2.0f, 1.0f, 1.0f, 1.5f}), at::STATUS_OK);
    ASSERT_EQ(argus.setExposureCompensation(c.request, -2.0f), at::STATUS_OK);
    ASSERT_EQ(argus.setColorSaturation(c.request, 1.25f, true), at::STATUS_OK);
    ASSERT_EQ(argus.setToneMapCurve(c.request, 1, curve, true), at::STATUS_OK);
    ASSERT_EQ(argus.setEdgeEnhance(c.request, at::EdgeEnhanceMode::Fast, 0.8f), at::STATUS_OK);
    ASSERT_EQ(argus.setDenoise(c.request, at::DenoiseMode::Fast, 0.5f), at::STATUS_OK);
    ASSERT_EQ(argus.setSourceClipRect(c.request, c.stream, {0.25f, 0.0f, 0.75f, 1.0f}), at::STATUS_OK);
    std::vector<at::AcRegion> back;
    ASSERT_TRUE(argus.getAeRegions(c.request, back));
    ASSERT_EQ(back.size(), 1u);
    EXPECT_EQ(back[0].right, 300u);
    ASSERT_TRUE(argus.getIspDigitalGainRange(c.request, isp));
    EXPECT_FLOAT_EQ(isp.max, 4.0f);

    // Not applied before the request is repeated again.
    state = in.service().sensorState(0);
    EXPECT_EQ(state.applied.frameDurationNs.min, k60HzNs);
    EXPECT_EQ(state.applied.awbMode, at::AwbMode::Auto);
    EXPECT_EQ(state.repeats, 1);

    argus.stopRepeat(c.session);
    ASSERT_EQ(argus.repeat(c.session, c.request), at::STATUS_OK);
    state = in.service().sensorState(0);
    EXPECT_TRUE(state.repeating);
    EXPECT_EQ(state.repeats, 2);
    EXPECT_EQ(state.periodNs, static_cast<int64_t>(k30HzNs));
    const sim::ArgusRequestSettings& s = state.applied;
    EXPECT_EQ(s.frameDurationNs.min, k30HzNs);
    EXPECT_EQ(s.exposureTimeNs.min, 1000000u);
    EXPECT_EQ(s.exposureTimeNs.max, 8000000u);
    EXPECT_FLOAT_EQ(s.analogGain.min, 1.5f);
    EXPECT_FLOAT_EQ(s.analogGain.max, 8.0f);
    EXPECT_FLOAT_EQ(s.ispDigitalGain.max, 4.0f);
    EXPECT_TRUE(s.aeLock);
    ASSERT_EQ(s.aeRegions.size(), 1u);
    EXPECT_EQ(s.aeRegions[0].left, 100u);
    EXPECT_EQ(s.aeRegions[0].bottom, 250u);
    EXPECT_EQ(s.aeAntibanding, at::AeAntibandingMode::Hz50);
    EXPECT_EQ(s.awbMode, at::AwbMode::Manual);
    EXPECT_FLOAT_EQ(s.wbGains.r, 2.0f);
    EXPECT_FLOAT_EQ(s.wbGains.b, 1.5f);
    EXPECT_FLOAT_EQ(s.exposureCompensation, -2.0f);
    EXPECT_FLOAT_EQ(s.colorSaturation, 1.25f);
    EXPECT_TRUE(s.colorSaturationEnabled);
    EXPECT_EQ(s.toneMapCurves[1], curve);
    EXPECT_TRUE(s.toneMapCurves[0].empty());
    EXPECT_TRUE(s.toneMapEnabled);
    EXPECT_EQ(s.edgeEnhanceMode, at::EdgeEnhanceMode::Fast);
    EXPECT_FLOAT_EQ(s.edgeEnhanceStrength, 0.8f);
    EXPECT_EQ(s.denoiseMode, at::DenoiseMode::Fast);
    EXPECT_FLOAT_EQ(s.denoiseStrength, 0.5f);
    EXPECT_FLOAT_EQ(s.sourceClip.left, 0.25f);
    EXPECT_FLOAT_EQ(s.sourceClip.right, 0.75f);

    // With the auto-exposure lock the automatic exposure holds still.
    uint64_t first = 0;
    for (int i = 0; i < 60; ++i) {
        at::Status status;
        at::Frame* frame = argus.acquireFrame(c.consumer, kSecond, &status);
        ASSERT_NE(frame, nullptr);
        uint64_t exposure = 0;
        ASSERT_TRUE(argus.getSensorExposureTime(frame, exposure));
        if (i == 0)
            first = exposure;
        EXPECT_EQ(exposure, first);
        EXPECT_GE(exposure, 1000000u);
        EXPECT_LE(exposure, 8000000u);
        argus.releaseFrame(frame);
    }
    closeSensors(argus, chains);
}

TEST(SimArgusCapture, SensorModeRangesAndRegionSize) {
    Installed in(machineFrom(
        stereoCamera(30,
                     "\"modes\": [{\"width\": 1920, \"height\": 1200, \"fps\": [30, 60]}, "
                     "{\"width\": 960, \"height\": 600, \"fps\": [120], \"exposure_us\": [10, 5000], "
                     "\"analog_gain\": [1, 8.5]}]")));
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    const auto devices = devicesOf(argus);
    std::vector<at::SensorMode*> modes;
    ASSERT_EQ(argus.getAllSensorModes(devices[1], modes), at::STATUS_OK);
    ASSERT_EQ(modes.size(), 2u);
    at::Range<uint64_t> exposure;
    at::Range<float> gain;
    // Defaults: 28 us up to the mode's longest frame; gain 1 to 16.
    ASSERT_TRUE(argus.getExposureTimeRange(modes[0], exposure));
    EXPECT_EQ(exposure.min, 28000u);
    EXPECT_EQ(exposure.max, 33333333u);
    ASSERT_TRUE(argus.getAnalogGainRange(modes[0], gain));
    EXPECT_FLOAT_EQ(gain.min, 1.0f);
    EXPECT_FLOAT_EQ(gain.max, 16.0f);
    ASSERT_TRUE(argus.getExposureTimeRange(modes[1], exposure));
    EXPECT_EQ(exposure.min, 10000u);
    EXPECT_EQ(exposure.max, 5000000u);
    ASSERT_TRUE(argus.getAnalogGainRange(modes[1], gain));
    EXPECT_FLOAT_EQ(gain.max, 8.5f);
    at::Size2D region;
    ASSERT_TRUE(argus.getMinAeRegionSize(devices[0], region));
    EXPECT_EQ(region.width, 64u);
    EXPECT_EQ(region.height, 64u);

    // The modes answer nothing once the provider is gone.
    argus.destroyProvider();
    EXPECT_FALSE(argus.getExposureTimeRange(modes[0], exposure));
    EXPECT_FALSE(argus.getAnalogGainRange(modes[0], gain));
    EXPECT_FALSE(argus.getMinAeRegionSize(devices[0], region));
}
