// The GMSL wrapper's status polling and one-number settings, over a camera
// put in its opened state on an in-test Argus.

#include <gtest/gtest.h>

#include <memory>

#include "bh_input/grabber/gmsl/ArgusProvider.h"
#include "bh_input/grabber/gmsl/GMSLWrapperGrabber.h"
#include "platform/Platform.h"
#include "sim/SteppedClock.h"
#include "tests/unit/gmsl_session/ArgusCameraProbe.h"

using testsupport::ArgusCameraProbe;
using testsupport::ScriptedArgus;
namespace at = platform::argus_types;

namespace {

class WrapperProbe : public bh::GMSLWrapperGrabber {
public:
    ArgusCameraProbe& adopt(ScriptedArgus& argus) {
        auto probe = std::make_unique<ArgusCameraProbe>();
        probe->attach(argus, false, 64, 40, 30, 10);
        for (int side = 0; side < 2; ++side)
            probe->setLimits(side, {100, 1100}, {1.f, 16.f}, {1.f, 8.f});
        ArgusCameraProbe& ref = *probe;
        camera = std::move(probe);
        return ref;
    }
};

class GmslWrapperTest : public ::testing::Test {
protected:
    void SetUp() override {
        platform::Backend backend;
        backend.clock = clock;
        scoped = std::make_unique<platform::ScopedBackend>(backend);
        camera = &wrapper.adopt(argus);
        wrapper.endSetup(nullptr);
    }
    void TearDown() override {
        wrapper.close(false);
        scoped.reset();
    }
    std::shared_ptr<sim::SteppedClock> clock = std::make_shared<sim::SteppedClock>();
    std::unique_ptr<platform::ScopedBackend> scoped;
    ScriptedArgus argus;
    WrapperProbe wrapper;
    ArgusCameraProbe* camera = nullptr;
};

TEST_F(GmslWrapperTest, SilenceIsNotLostWithinThirtySeconds) {
    EXPECT_EQ(wrapper.getFrameStatus(), bh::GRABBER_STATE_NONE);
    clock->advance(29999LL * 1000000);
    EXPECT_EQ(wrapper.getFrameStatus(), bh::GRABBER_STATE_NONE);
    clock->advance(2LL * 1000000);
    EXPECT_EQ(wrapper.getFrameStatus(), bh::GRABBER_STATE_LOST);
}

TEST_F(GmslWrapperTest, ADisconnectedCameraIsLostAtOnceWithoutTouchingTheSilenceClock) {
    const int64_t before = wrapper.last_status;
    clock->advance(1000000);
    camera->setStatusField(17);
    EXPECT_EQ(wrapper.getFrameStatus(), bh::GRABBER_STATE_LOST);
    EXPECT_EQ(wrapper.last_status, before);
    camera->setStatusField(18);
    EXPECT_EQ(wrapper.getFrameStatus(), bh::GRABBER_STATE_LOST);
    EXPECT_EQ(wrapper.last_status, before);
    camera->setStatusField(20);  // a failed conversion is no disconnection
    EXPECT_EQ(wrapper.getFrameStatus(), bh::GRABBER_STATE_NONE);
}

TEST_F(GmslWrapperTest, AecAgcZeroWithDefaultSwitchesOnUnlikeUsb) {
    wrapper.setGrabberSettingsValue(bh::AEC_AGC, 0, false);
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::AEC_AGC), 0);
    wrapper.setGrabberSettingsValue(bh::AEC_AGC, 0, true);
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::AEC_AGC), 1);
    // On again means the automatic ranges: back to the limits.
    EXPECT_EQ(argus.recorded(0).exposure.min, 100000u);
    EXPECT_EQ(argus.recorded(1).exposure.max, 1100000u);
    EXPECT_FLOAT_EQ(argus.recorded(0).analogGain.max, 16.f);
    wrapper.setGrabberSettingsValue(bh::AEC_AGC, 0, false);
    wrapper.setGrabberSettingsValue(bh::AEC_AGC, 1, false);
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::AEC_AGC), 1);
    wrapper.setGrabberSettingsValue(bh::AEC_AGC, 7, false);  // neither: nothing
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::AEC_AGC), 1);
}

TEST_F(GmslWrapperTest, ManualExposureSwitchesTheAutomaticExposureOff) {
    EXPECT_TRUE(wrapper.auto_exposure);
    wrapper.setGrabberSettingsValue(bh::EXPOSURE, 50, false);
    EXPECT_FALSE(wrapper.auto_exposure);
    EXPECT_EQ(wrapper.isAECAGC(), 0);
    EXPECT_EQ(argus.recorded(0).exposure.min, 600000u);  // sensor 0 only
    EXPECT_EQ(argus.recorded(0).exposure.max, 600000u);
    wrapper.setGrabberSettingsValue(bh::GAIN, 0, true);
    EXPECT_TRUE(wrapper.auto_exposure);
}

TEST_F(GmslWrapperTest, PairFormsSetTheAutomaticRangesOfBothSensors) {
    EXPECT_EQ(wrapper.setGrabberSettingsValue(bh::AUTO_EXPOSURE_TIME_RANGE, std::make_pair(200, 900), false),
              0);
    EXPECT_EQ(argus.recorded(1).exposure.min, 200000u);
    EXPECT_EQ(argus.recorded(1).exposure.max, 900000u);
    wrapper.setGrabberSettingsValue(bh::AUTO_ANALOG_GAIN_RANGE, std::make_pair(2000, 8000), false);
    EXPECT_FLOAT_EQ(argus.recorded(0).analogGain.min, 2.f);
    EXPECT_FLOAT_EQ(argus.recorded(1).analogGain.max, 8.f);
    wrapper.setGrabberSettingsValue(bh::AUTO_DIGITAL_GAIN_RANGE, std::make_pair(2, 4), false);
    EXPECT_FLOAT_EQ(argus.recorded(1).digitalGain.min, 2.f);

    std::pair<int, int> range;
    EXPECT_EQ(wrapper.getGrabberSettingsRangeValue(bh::AUTO_EXPOSURE_TIME_RANGE, range), 0);
    EXPECT_EQ(range, std::make_pair(200, 900));
    EXPECT_EQ(wrapper.getGrabberSettingsRangeValue(bh::AUTO_ANALOG_GAIN_RANGE, range), 0);
    EXPECT_EQ(range, std::make_pair(2000, 8000));
    EXPECT_EQ(wrapper.getGrabberSettingsRangeValue(bh::AUTO_DIGITAL_GAIN_RANGE, range), 0);
    EXPECT_EQ(range, std::make_pair(2, 4));
    EXPECT_EQ(wrapper.getGrabberSettingsRangeValue(bh::GAIN, range), -1);
}

TEST_F(GmslWrapperTest, RangesOfTheCameraAndFixedOnes) {
    int min = 0, max = 0;
    EXPECT_TRUE(wrapper.getVideoSettingRange(bh::EXPOSURE_TIME, min, max));
    EXPECT_EQ(min, 100);
    EXPECT_EQ(max, 1100);
    EXPECT_TRUE(wrapper.getVideoSettingRange(bh::ANALOG_GAIN, min, max));
    EXPECT_EQ(min, 1000);
    EXPECT_EQ(max, 16000);
    EXPECT_TRUE(wrapper.getVideoSettingRange(bh::WHITEBALANCE_TEMPERATURE, min, max));
    EXPECT_EQ(min, 2800);
    EXPECT_EQ(max, 11000);
    EXPECT_FALSE(wrapper.getVideoSettingRange(bh::BRIGHTNESS, min, max));
    EXPECT_FALSE(wrapper.getVideoSettingRange(bh::LED_STATUS, min, max));
    EXPECT_TRUE(wrapper.valueInRange(bh::EXPOSURE_TIME, 999999));  // any value
    EXPECT_TRUE(wrapper.valueInRange(bh::SHARPNESS, -1));
    EXPECT_FALSE(wrapper.valueInRange(bh::SHARPNESS, 9));
    EXPECT_TRUE(wrapper.valueInRange(bh::WHITEBALANCE_TEMPERATURE, 11000));
}

TEST_F(GmslWrapperTest, ArgusSettingsReadFromTheLatestFrame) {
    camera->setFrameValues(0, 640, 2.5f, 3.f);
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::EXPOSURE_TIME), 640);
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::ANALOG_GAIN), 2500);
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::DIGITAL_GAIN), 3);
    wrapper.setGrabberSettingsValue(bh::DENOISING, 30, false);
    EXPECT_FLOAT_EQ(argus.recorded(0).denoiseStrength, 0.3f);
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::DENOISING), 30);
    wrapper.setGrabberSettingsValue(bh::EXPOSURE_COMPENSATION, 75, false);
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::EXPOSURE_COMPENSATION), 75);
    EXPECT_FLOAT_EQ(argus.recorded(1).exposureCompensation, 1.f);
    wrapper.setGrabberSettingsValue(bh::EXPOSURE_TIME, 300, false);
    EXPECT_EQ(argus.recorded(1).exposure.min, 300000u);  // both sensors
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::LED_STATUS), -1);
}

TEST_F(GmslWrapperTest, GammaAbove9IsResetToItsDefault) {
    // No curve set yet reads as out of range: the read resets it first.
    const int gamma = wrapper.getGrabberSettingsValue(bh::GAMMA);
    EXPECT_GE(gamma, 1);
    EXPECT_LE(gamma, 9);
    EXPECT_EQ(argus.recorded(0).toneCurves.size(), 3u);
}

TEST_F(GmslWrapperTest, WhiteBalanceTemperatureGoesAsIs) {
    wrapper.setGrabberSettingsValue(bh::WHITEBALANCE_TEMPERATURE, 5600, false);
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::WHITEBALANCE_TEMPERATURE), 5600);
    EXPECT_EQ(argus.recorded(0).awb, at::AwbMode::Manual);
    wrapper.setGrabberSettingsValue(bh::WHITEBALANCE_TEMPERATURE, -1, false);
    EXPECT_EQ(argus.recorded(0).awb, at::AwbMode::Auto);
}

TEST(GmslWrapperWithoutCamera, SettingsAnswerMinusOne) {
    bh::GMSLWrapperGrabber wrapper;
    EXPECT_EQ(wrapper.getGrabberSettingsValue(bh::EXPOSURE_TIME), -1);
    EXPECT_EQ(wrapper.setGrabberSettingsValue(bh::EXPOSURE_TIME, 10, false), -1);
    std::pair<int, int> range;
    EXPECT_EQ(wrapper.getGrabberSettingsRangeValue(bh::AUTO_EXPOSURE_TIME_RANGE, range), -1);
    bh::IMUPacket packet;
    packet.valid = true;
    EXPECT_EQ(wrapper.getIMUPacket(packet), 0);
    EXPECT_FALSE(packet.valid);
}

}  // namespace
