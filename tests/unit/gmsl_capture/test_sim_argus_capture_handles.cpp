// Every capture operation of the simulated camera service, given a bad
// handle (null, made up, of another kind, destroyed, of another service) or
// a bad argument, answers an error and changes nothing.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "SimArgusCaptureSupport.h"

using namespace capturetest;

namespace {

template <typename T>
T* madeUp() {
    return reinterpret_cast<T*>(uintptr_t(0x5a5a5a50));
}

class BadInput : public ::testing::Test {
protected:
    BadInput() : in_(machineFrom(stereoCamera(30) + "," + monoCamera(31))), argus_(platform::argus()) {}
    void SetUp() override {
        ASSERT_TRUE(argus_.createProvider());
        devices_ = devicesOf(argus_);
        ASSERT_EQ(devices_.size(), 3u);
        a_ = buildChain(argus_, devices_[0], {640, 400});
        b_ = buildChain(argus_, devices_[2], {640, 400});
    }
    Installed in_;
    platform::Argus& argus_;
    std::vector<at::CameraDevice*> devices_;
    Chain a_, b_;
};

}  // namespace

TEST_F(BadInput, StreamSettingsAndStreams) {
    at::Status status = at::STATUS_OK;
    EXPECT_EQ(argus_.createEglOutputStreamSettings(nullptr), nullptr);
    EXPECT_EQ(argus_.createEglOutputStreamSettings(madeUp<at::CaptureSession>()), nullptr);
    EXPECT_EQ(argus_.setPixelFormatYCbCr420(nullptr), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setResolution(nullptr, {640, 400}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setMetadataEnable(madeUp<at::OutputStreamSettings>(), true), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setMode(nullptr, at::EglStreamMode::Mailbox), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setCameraDevice(nullptr, devices_[0]), at::STATUS_INVALID_PARAMS);

    at::OutputStreamSettings* settings = argus_.createEglOutputStreamSettings(a_.session);
    ASSERT_NE(settings, nullptr);
    EXPECT_EQ(argus_.setResolution(settings, {0, 400}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setResolution(settings, {640, 0}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setResolution(settings, {20000, 400}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setMode(settings, at::EglStreamMode::Fifo), at::STATUS_UNIMPLEMENTED);
    EXPECT_EQ(argus_.setMode(settings, static_cast<at::EglStreamMode>(7)), at::STATUS_INVALID_PARAMS);
    // A device of another session, or none.
    EXPECT_EQ(argus_.setCameraDevice(settings, devices_[2]), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setCameraDevice(settings, nullptr), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setCameraDevice(settings, madeUp<at::CameraDevice>()), at::STATUS_INVALID_PARAMS);
    // Without device or resolution there is no stream.
    EXPECT_EQ(argus_.createOutputStream(a_.session, settings, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_INVALID_PARAMS);
    ASSERT_EQ(argus_.setCameraDevice(settings, devices_[0]), at::STATUS_OK);
    EXPECT_EQ(argus_.createOutputStream(a_.session, settings, &status), nullptr);
    ASSERT_EQ(argus_.setResolution(settings, {640, 400}), at::STATUS_OK);
    // Settings of one session, stream asked of another.
    EXPECT_EQ(argus_.createOutputStream(b_.session, settings, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.createOutputStream(a_.session, nullptr, &status), nullptr);
    EXPECT_EQ(argus_.createOutputStream(nullptr, settings, nullptr), nullptr);
    EXPECT_NE(argus_.createOutputStream(a_.session, settings, &status), nullptr);
    argus_.destroyOutputStreamSettings(settings);
    argus_.destroyOutputStreamSettings(settings);  // twice: nothing happens
    EXPECT_EQ(argus_.setResolution(settings, {640, 400}), at::STATUS_INVALID_PARAMS);

    EXPECT_EQ(argus_.waitUntilConnected(nullptr, kSecond), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.waitUntilConnected(madeUp<at::OutputStream>(), kSecond), at::STATUS_INVALID_PARAMS);
    argus_.disconnect(nullptr);
    argus_.destroyOutputStream(madeUp<at::OutputStream>());
    EXPECT_EQ(argus_.createFrameConsumer(nullptr, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_INVALID_PARAMS);
    // A consumer handle is not a stream.
    EXPECT_EQ(argus_.createFrameConsumer(reinterpret_cast<at::OutputStream*>(a_.consumer), &status), nullptr);
    EXPECT_EQ(status, at::STATUS_INVALID_PARAMS);
    argus_.disconnect(a_.stream);
    EXPECT_EQ(argus_.waitUntilConnected(a_.stream, kSecond), at::STATUS_DISCONNECTED);
    argus_.destroyFrameConsumer(a_.consumer);
    EXPECT_EQ(argus_.createFrameConsumer(a_.stream, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_DISCONNECTED);
    argus_.destroyOutputStream(a_.stream);
    argus_.destroyOutputStream(a_.stream);
    EXPECT_EQ(argus_.waitUntilConnected(a_.stream, kSecond), at::STATUS_DISCONNECTED);
}

TEST_F(BadInput, RequestsAndRepeats) {
    at::Status status = at::STATUS_OK;
    EXPECT_EQ(argus_.createPreviewRequest(nullptr, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.enableOutputStream(nullptr, a_.stream), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.enableOutputStream(a_.request, nullptr), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.enableOutputStream(a_.request, b_.stream),
              at::STATUS_INVALID_PARAMS);  // another session's
    EXPECT_EQ(argus_.repeat(nullptr, a_.request), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.repeat(a_.session, nullptr), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.repeat(a_.session, b_.request), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.repeat(a_.session, reinterpret_cast<at::Request*>(a_.stream)),
              at::STATUS_INVALID_PARAMS);
    // A request without an enabled stream has nothing to capture into.
    at::Request* empty = argus_.createPreviewRequest(a_.session, &status);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(argus_.repeat(a_.session, empty), at::STATUS_INVALID_PARAMS);
    argus_.stopRepeat(nullptr);
    argus_.stopRepeat(madeUp<at::CaptureSession>());
    EXPECT_EQ(argus_.waitForIdle(nullptr, kSecond), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.waitForIdle(a_.session, 0), at::STATUS_OK);
    EXPECT_FALSE(in_.service().sensorState(0).repeating);

    // While repeating, waitForIdle times out; a destroyed request stops the repeat.
    ASSERT_EQ(argus_.repeat(a_.session, a_.request), at::STATUS_OK);
    EXPECT_EQ(argus_.waitForIdle(a_.session, kSecond / 10), at::STATUS_TIMEOUT);
    argus_.destroyRequest(a_.request);
    EXPECT_EQ(argus_.waitForIdle(a_.session, 0), at::STATUS_OK);
    EXPECT_FALSE(in_.service().sensorState(0).repeating);
    EXPECT_EQ(argus_.repeat(a_.session, a_.request), at::STATUS_INVALID_PARAMS);
    argus_.destroyRequest(a_.request);
    argus_.destroyRequest(nullptr);
    argus_.destroyCaptureSession(a_.session);
    EXPECT_EQ(argus_.waitForIdle(a_.session, 0), at::STATUS_DISCONNECTED);
    argus_.destroyCaptureSession(a_.session);
    argus_.destroyCaptureSession(nullptr);
}

TEST_F(BadInput, SourceAndStreamSettings) {
    at::Request* r = a_.request;
    const uint64_t maxU = std::numeric_limits<uint64_t>::max();
    EXPECT_EQ(argus_.setFrameDurationRange(nullptr, {k30HzNs, k30HzNs}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setFrameDurationRange(r, {0, k30HzNs}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setFrameDurationRange(r, {k30HzNs, k60HzNs}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setExposureTimeRange(r, {0, 1000}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setExposureTimeRange(r, {2000, 1000}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setExposureTimeRange(nullptr, {1000, maxU}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setGainRange(r, {0.0f, 2.0f}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setGainRange(r, {4.0f, 2.0f}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setGainRange(r, {NAN, 2.0f}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setGainRange(r, {1.0f, INFINITY}), at::STATUS_INVALID_PARAMS);

    std::vector<at::SensorMode*> ownModes, otherModes;
    ASSERT_EQ(argus_.getAllSensorModes(devices_[0], ownModes), at::STATUS_OK);
    ASSERT_EQ(argus_.getAllSensorModes(devices_[2], otherModes), at::STATUS_OK);
    EXPECT_EQ(argus_.setSensorMode(r, nullptr), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setSensorMode(r, otherModes[0]),
              at::STATUS_INVALID_PARAMS);  // not this session's sensor
    EXPECT_EQ(argus_.setSensorMode(nullptr, ownModes[0]), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setSensorMode(r, ownModes[2]), at::STATUS_OK);

    EXPECT_EQ(argus_.setSourceClipRect(r, b_.stream, {0, 0, 1, 1}),
              at::STATUS_INVALID_PARAMS);  // not enabled here
    EXPECT_EQ(argus_.setSourceClipRect(r, nullptr, {0, 0, 1, 1}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setSourceClipRect(r, a_.stream, {0, 0, 1.5f, 1}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setSourceClipRect(r, a_.stream, {0.5f, 0, 0.5f, 1}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setSourceClipRect(r, a_.stream, {-0.1f, 0, 1, 1}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setSourceClipRect(r, a_.stream, {0, NAN, 1, 1}), at::STATUS_INVALID_PARAMS);

    // Nothing of the refused calls reached the request.
    ASSERT_EQ(argus_.repeat(a_.session, r), at::STATUS_OK);
    const sim::ArgusRequestSettings s = in_.service().sensorState(0).applied;
    EXPECT_EQ(s.frameDurationNs.min, k60HzNs);
    EXPECT_EQ(s.exposureTimeNs.min, 28000u);
    EXPECT_FLOAT_EQ(s.analogGain.max, 16.0f);
    EXPECT_EQ(s.sensorModeIndex, 2);
    EXPECT_FLOAT_EQ(s.sourceClip.right, 1.0f);
}

TEST_F(BadInput, AutoControlSettings) {
    at::Request* r = a_.request;
    at::Range<float> range;
    EXPECT_EQ(argus_.setIspDigitalGainRange(r, {0.5f, 2.0f}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setIspDigitalGainRange(r, {1.0f, 300.0f}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setIspDigitalGainRange(r, {8.0f, 2.0f}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setIspDigitalGainRange(nullptr, {1.0f, 2.0f}), at::STATUS_INVALID_PARAMS);
    EXPECT_FALSE(argus_.getIspDigitalGainRange(nullptr, range));
    EXPECT_FALSE(argus_.getIspDigitalGainRange(madeUp<at::Request>(), range));
    EXPECT_EQ(argus_.setAeLock(nullptr, true), at::STATUS_INVALID_PARAMS);

    // Regions: at least the 64 x 64 minimum, the right way round, weighed.
    EXPECT_EQ(argus_.setAeRegions(r, {{0, 0, 63, 100, 1.0f}}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setAeRegions(r, {{0, 0, 100, 63, 1.0f}}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setAeRegions(r, {{200, 0, 100, 100, 1.0f}}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setAeRegions(r, {{0, 0, 100, 100, -1.0f}}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setAeRegions(r, {{0, 0, 100, 100, NAN}}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setAeRegions(r, {{0, 0, 64, 64, 1.0f}}), at::STATUS_OK);
    EXPECT_EQ(argus_.setAeRegions(r, {}), at::STATUS_OK);  // no regions: the whole image
    std::vector<at::AcRegion> regions;
    EXPECT_FALSE(argus_.getAeRegions(nullptr, regions));
    EXPECT_TRUE(argus_.getAeRegions(r, regions));
    EXPECT_TRUE(regions.empty());

    EXPECT_EQ(argus_.setAeAntibandingMode(r, static_cast<at::AeAntibandingMode>(4)),
              at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setAeAntibandingMode(r, static_cast<at::AeAntibandingMode>(-1)),
              at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setAwbMode(r, static_cast<at::AwbMode>(10)), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setAwbMode(nullptr, at::AwbMode::Auto), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setWbGains(r, {0.0f, 1, 1, 1}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setWbGains(r, {1, 1, 1, NAN}), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setExposureCompensation(r, 2.5f), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setExposureCompensation(r, -2.5f), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setExposureCompensation(r, NAN), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setExposureCompensation(r, 2.0f), at::STATUS_OK);
    EXPECT_EQ(argus_.setColorSaturation(r, -0.1f, true), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setColorSaturation(r, 2.1f, true), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setColorSaturation(nullptr, 1.0f, true), at::STATUS_INVALID_PARAMS);

    EXPECT_EQ(argus_.getToneMapCurveSize(nullptr), 0u);
    std::vector<float> curve(64, 0.5f);
    EXPECT_EQ(argus_.setToneMapCurve(r, 3, curve, true), at::STATUS_INVALID_PARAMS);  // channels 0..2
    EXPECT_EQ(argus_.setToneMapCurve(r, 0, std::vector<float>(63, 0.5f), true), at::STATUS_INVALID_PARAMS);
    curve[10] = 1.5f;
    EXPECT_EQ(argus_.setToneMapCurve(r, 0, curve, true), at::STATUS_INVALID_PARAMS);
    curve[10] = NAN;
    EXPECT_EQ(argus_.setToneMapCurve(r, 0, curve, true), at::STATUS_INVALID_PARAMS);

    EXPECT_EQ(argus_.setEdgeEnhance(r, at::EdgeEnhanceMode::Fast, 1.5f), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setEdgeEnhance(r, static_cast<at::EdgeEnhanceMode>(3), 0.5f), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setDenoise(r, at::DenoiseMode::Fast, -1.5f), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setDenoise(r, at::DenoiseMode::Fast, NAN), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.setDenoise(nullptr, at::DenoiseMode::Fast, 0.5f), at::STATUS_INVALID_PARAMS);

    ASSERT_EQ(argus_.repeat(a_.session, r), at::STATUS_OK);
    const sim::ArgusRequestSettings s = in_.service().sensorState(0).applied;
    EXPECT_FLOAT_EQ(s.ispDigitalGain.min, 1.0f);
    EXPECT_FLOAT_EQ(s.ispDigitalGain.max, 256.0f);
    EXPECT_EQ(s.aeAntibanding, at::AeAntibandingMode::Auto);
    EXPECT_FLOAT_EQ(s.exposureCompensation, 2.0f);
    EXPECT_FLOAT_EQ(s.colorSaturation, 1.0f);
    EXPECT_TRUE(s.toneMapCurves[0].empty());
    EXPECT_FLOAT_EQ(s.edgeEnhanceStrength, -1.0f);
    EXPECT_FLOAT_EQ(s.denoiseStrength, -1.0f);
}

TEST_F(BadInput, FramesAndConsumers) {
    at::Status status = at::STATUS_OK;
    EXPECT_EQ(argus_.acquireFrame(nullptr, kSecond, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.acquireFrame(madeUp<at::FrameConsumer>(), kSecond, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus_.acquireFrame(reinterpret_cast<at::FrameConsumer*>(a_.stream), kSecond, nullptr),
              nullptr);
    argus_.releaseFrame(nullptr);
    argus_.releaseFrame(madeUp<at::Frame>());
    argus_.destroyFrameConsumer(nullptr);
    uint64_t ns = 0;
    float gain = 0;
    EXPECT_FALSE(argus_.getSensorTimestamp(nullptr, ns));
    EXPECT_FALSE(argus_.getSensorExposureTime(madeUp<at::Frame>(), ns));
    EXPECT_FALSE(argus_.getSensorAnalogGain(nullptr, gain));
    EXPECT_FALSE(argus_.getIspDigitalGain(nullptr, gain));

    // A consumer holds at most 8 frames at a time.
    std::vector<Chain> chains{a_};
    startChain(argus_, chains[0], {1920, 1200});
    std::vector<at::Frame*> held;
    for (int i = 0; i < sim::SimArgus::kMaxHeldFrames; ++i) {
        held.push_back(argus_.acquireFrame(a_.consumer, kSecond, &status));
        ASSERT_NE(held.back(), nullptr);
    }
    EXPECT_EQ(argus_.acquireFrame(a_.consumer, kSecond, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_UNAVAILABLE);
    argus_.releaseFrame(held.back());
    argus_.releaseFrame(held.back());  // twice: nothing happens
    held.pop_back();
    EXPECT_NE(argus_.acquireFrame(a_.consumer, kSecond, &status), nullptr);
    // The consumer's end takes its frames with it.
    argus_.destroyFrameConsumer(a_.consumer);
    EXPECT_EQ(in_.service().liveFrames(), 0);
    EXPECT_FALSE(argus_.getSensorTimestamp(held.front(), ns));
    argus_.releaseFrame(held.front());
    EXPECT_EQ(argus_.acquireFrame(a_.consumer, 0, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_DISCONNECTED);
}

TEST_F(BadInput, HandlesOfAnotherServiceAreRefused) {
    Installed other(machineFrom(monoCamera(31)));
    platform::Argus& second = platform::argus();
    ASSERT_NE(&second, &argus_);
    ASSERT_TRUE(second.createProvider());
    // Objects made in the same order as the first service's: their serials match.
    Chain own = buildChain(second, devicesOf(second)[0], {640, 400});
    at::Status status = at::STATUS_OK;
    EXPECT_EQ(second.createEglOutputStreamSettings(a_.session), nullptr);
    EXPECT_EQ(second.createFrameConsumer(a_.stream, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(second.acquireFrame(a_.consumer, 0, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(second.repeat(a_.session, a_.request), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(second.getToneMapCurveSize(a_.request), 0u);
    EXPECT_EQ(second.repeat(own.session, own.request), at::STATUS_OK);
    // The devices of one service are not those of the other either.
    std::string name;
    EXPECT_FALSE(second.getModelName(devices_[0], name));
}
