// The image settings of a GMSL camera, as written into the capture requests.
// Expected values come from the settings' own definitions: ranges and
// defaults, the strength and compensation scales, the two white-balance
// estimators' fixed rows and formulas.

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "bh_input/grabber/gmsl/ArgusProvider.h"
#include "tests/unit/gmsl_session/ArgusCameraProbe.h"

using testsupport::ArgusCameraProbe;
using testsupport::ScriptedArgus;
namespace at = platform::argus_types;

namespace {

class ControlsTest : public ::testing::Test {
protected:
    void SetUp() override {
        camera = std::make_unique<ArgusCameraProbe>();
        camera->attach(argus, false, 64, 40, 30, 10);
        for (int side = 0; side < 2; ++side)
            camera->setLimits(side, {100, 1100}, {1.f, 16.f}, {1.f, 8.f});
    }
    ScriptedArgus argus;
    std::unique_ptr<ArgusCameraProbe> camera;
};

// Gains of the estimators' last two steps, with a factor of 1: colour / 127,
// greens the same.
float gainOf(double colour0to255) {
    return static_cast<float>(colour0to255 / 127.0);
}

TEST_F(ControlsTest, SharpeningBelowRangeTakesTheDefaultAboveItTheTop) {
    EXPECT_EQ(camera->setSharpening(-1, false), 0);
    EXPECT_FLOAT_EQ(argus.recorded(0).edgeStrength, 0.1f);
    EXPECT_FLOAT_EQ(argus.recorded(1).edgeStrength, 0.1f);
    EXPECT_EQ(argus.recorded(0).edgeMode, at::EdgeEnhanceMode::Fast);
    camera->setSharpening(20, false);
    EXPECT_FLOAT_EQ(argus.recorded(0).edgeStrength, 0.8f);
    EXPECT_EQ(camera->getSharpening(), 8);
    camera->setSharpening(5, true);
    EXPECT_FLOAT_EQ(argus.recorded(1).edgeStrength, 0.1f);
}

TEST_F(ControlsTest, ExposureCompensationSpansMinusTwoToTwoAndIsDispatched) {
    const int repeats = argus.recorded(0).repeats;
    camera->setExposureCompensationTarget(100, false);
    EXPECT_FLOAT_EQ(argus.recorded(0).exposureCompensation, 2.0f);
    camera->setExposureCompensationTarget(0, false);
    EXPECT_FLOAT_EQ(argus.recorded(1).exposureCompensation, -2.0f);
    camera->setExposureCompensationTarget(-3, false);
    EXPECT_FLOAT_EQ(argus.recorded(0).exposureCompensation, 0.0f);
    EXPECT_EQ(argus.recorded(0).repeats, repeats + 3);
}

TEST_F(ControlsTest, DenoisingDefaultsToOneHalfAndIsDispatched) {
    camera->setDenoisingValue(0.2f, true);
    EXPECT_FLOAT_EQ(argus.recorded(0).denoiseStrength, 0.5f);
    EXPECT_EQ(argus.recorded(0).denoiseMode, at::DenoiseMode::Fast);
    EXPECT_EQ(argus.recorded(1).repeats, 1);
    camera->setDenoisingValue(0.25f, false);
    EXPECT_FLOAT_EQ(argus.recorded(1).denoiseStrength, 0.25f);
}

TEST_F(ControlsTest, GammaIsClampedAndTheCurveFollowsIt) {
    camera->setToneMappingFromGamma(0, 5.0f);
    EXPECT_FLOAT_EQ(camera->getGamma(), 3.25f);
    const std::vector<float> curve = argus.recorded(0).toneCurves[0];
    ASSERT_EQ(curve.size(), ScriptedArgus::kToneCurveSize);
    EXPECT_FLOAT_EQ(curve[0], 0.f);
    EXPECT_NEAR(curve[32], std::pow(0.5f, 1.f / 3.25f), 1e-6);
    camera->setToneMappingFromGamma(2, 1.0f);
    EXPECT_FLOAT_EQ(camera->getGamma(), 1.5f);
    EXPECT_NEAR(argus.recorded(1).toneCurves[2][16], std::pow(0.25f, 1.f / 1.5f), 1e-6);
}

TEST_F(ControlsTest, ManualWhiteBalanceBelow1400UsesTheFixedFirstRow) {
    ASSERT_EQ(camera->setManualWhiteBalance(1000), 0);
    const double greatest = 3.143984079360962;
    const at::BayerTuple g = argus.recorded(0).wbGains;
    EXPECT_NEAR(g.r, gainOf(3.143984079360962 / greatest * 255.0), 1e-5);
    const float green = gainOf(0.47132784128189087 / greatest * 255.0);
    EXPECT_NEAR(g.gEven, (green - 1.f) / 2.f + 1.f, 1e-5);
    EXPECT_NEAR(g.gOdd, g.gEven, 1e-7);
    EXPECT_NEAR(g.b, 0.f, 1e-6);  // a negative blue is clamped to 0
    EXPECT_EQ(argus.recorded(1).awb, at::AwbMode::Manual);
    EXPECT_EQ(camera->getAutomaticWhiteBalanceStatus(), 0);
    EXPECT_EQ(camera->getManualWhiteBalance(), 1000);
}

TEST_F(ControlsTest, ManualWhiteBalanceAbove12000UsesTheFixedLastRow) {
    camera->setManualWhiteBalance(20000);
    const double greatest = 1.5589230060577393;  // the blue test takes the blue
    const at::BayerTuple g = argus.recorded(1).wbGains;
    EXPECT_NEAR(g.r, gainOf(0.7886219620704651 / greatest * 255.0), 1e-5);
    EXPECT_NEAR(g.gEven, (gainOf(1.0064336061477661 / greatest * 255.0) - 1.f) / 2.f + 1.f, 1e-5);
    EXPECT_NEAR(g.b, gainOf(255.0), 1e-5);
}

TEST_F(ControlsTest, SecondEstimatorInTheMiddleRangeFollowsTheCubic) {
    const double T = 5000;
    const double x = -4.607e9 / (T * T * T) + 2.9678e6 / (T * T) + 99.11 / T + 0.244063;
    const double y = -2.35563 * x * x + 2.39688 * x - 0.196035;
    const double X = x / y, Z = (1 - x - y) / y;
    const double r = 3.24071 * X - 1.53726 - 0.498571 * Z;
    const double gr = -0.969258 * X + 1.87599 + 0.0415557 * Z;
    const double b = 0.0556352 * X - 0.203996 + 1.05707 * Z;
    const double greatest = std::max({r, gr, b});
    float R, G1, G2, B;
    ArgusCamera::estimageRGGBGainFromColorTemperature_v2(5000, 1.f, R, G1, G2, B);
    EXPECT_NEAR(R, gainOf(r / greatest * 255.0), 1e-4);
    EXPECT_NEAR(G1, (gainOf(gr / greatest * 255.0) - 1.f) / 2.f + 1.f, 1e-4);
    EXPECT_FLOAT_EQ(G1, G2);
    EXPECT_NEAR(B, gainOf(b / greatest * 255.0), 1e-4);
}

TEST_F(ControlsTest, FirstEstimatorFollowsItsPiecewiseFormulas) {
    float r, g1, g2, b;
    // 3000 K: red 255, green and blue by their logarithms of x = 30.
    ArgusCamera::estimageRGGBGainFromColorTemperature(3000, 1.f, r, g1, g2, b);
    const float green3000 = g1;
    EXPECT_NEAR(r, gainOf(255.0), 1e-5);
    EXPECT_NEAR(g1, (gainOf(99.4708025861 * std::log(30.0) - 161.1195681661) - 1.f) / 2.f + 1.f, 1e-5);
    EXPECT_NEAR(b, gainOf(138.5177312231 * std::log(20.0) - 305.0447927307), 1e-5);
    // Below 1000 K it is taken as 1000 K: green 67.92042, blue 0.
    ArgusCamera::estimageRGGBGainFromColorTemperature(500, 1.f, r, g1, g2, b);
    EXPECT_NEAR(g1, (gainOf(67.92042) - 1.f) / 2.f + 1.f, 1e-5);
    EXPECT_NEAR(b, 0.f, 1e-6);
    // Above 40000 K red is 151.67438.
    ArgusCamera::estimageRGGBGainFromColorTemperature(50000, 1.f, r, g1, g2, b);
    EXPECT_NEAR(r, gainOf(151.67438), 1e-4);
    // A factor of 2 halves every distance to 1 (the greens' was halved already).
    float r2, g12, g22, b2;
    ArgusCamera::estimageRGGBGainFromColorTemperature(3000, 2.f, r2, g12, g22, b2);
    EXPECT_NEAR(r2, (gainOf(255.0) - 1.f) / 2.f + 1.f, 1e-5);
    EXPECT_NEAR(g12 - 1.f, (green3000 - 1.f) / 2.f, 1e-5);
}

TEST_F(ControlsTest, AutomaticWhiteBalanceModes) {
    camera->setAutomaticWhiteBalance(5, false);
    EXPECT_EQ(argus.recorded(0).awb, at::AwbMode::Daylight);
    EXPECT_EQ(camera->getAutomaticWhiteBalanceStatus(), 5);
    camera->setAutomaticWhiteBalance(7, false);
    EXPECT_EQ(argus.recorded(1).awb, at::AwbMode::Twilight);
    camera->setAutomaticWhiteBalance(0, false);
    EXPECT_EQ(argus.recorded(0).awb, at::AwbMode::Manual);
    camera->setAutomaticWhiteBalance(12, false);  // no such mode: stored, Argus untouched
    EXPECT_EQ(argus.recorded(0).awb, at::AwbMode::Manual);
    EXPECT_EQ(camera->getAutomaticWhiteBalanceStatus(), 12);
    camera->setAutomaticWhiteBalance(3, true);
    EXPECT_EQ(argus.recorded(0).awb, at::AwbMode::Auto);
    EXPECT_EQ(camera->getAutomaticWhiteBalanceStatus(), 1);
}

TEST_F(ControlsTest, ExposureRangeWithZeroBoundsTakesTheLimits) {
    EXPECT_EQ(camera->setFrameExposureRange(0, 0, 500), 0);
    EXPECT_EQ(argus.recorded(0).exposure.min, 100000u);
    EXPECT_EQ(argus.recorded(0).exposure.max, 500000u);
    unsigned long lo = 0, hi = 0;
    camera->getFrameExposureRange(0, lo, hi);
    EXPECT_EQ(lo, 100u);
    EXPECT_EQ(hi, 500u);
}

TEST_F(ControlsTest, ManualExposureIsAPercentOfTheLimitsAndLeavesTheRange) {
    camera->setManualExposure(1, 50);  // 100 + 50 x 1000 / 100 = 600 us
    EXPECT_EQ(argus.recorded(1).exposure.min, 600000u);
    EXPECT_EQ(argus.recorded(1).exposure.max, 600000u);
    unsigned long lo = 0, hi = 0;
    camera->getFrameExposureRange(1, lo, hi);
    EXPECT_EQ(lo, 100u);  // a fixed exposure is not a range
    EXPECT_EQ(hi, 1100u);
    camera->setAutomaticExposure();
    EXPECT_EQ(argus.recorded(1).exposure.min, 100000u);
    EXPECT_EQ(argus.recorded(1).exposure.max, 1100000u);
}

TEST_F(ControlsTest, GainsInPercentAndReal) {
    camera->setManualAnalogGain(0, 100);
    EXPECT_FLOAT_EQ(argus.recorded(0).analogGain.min, 16.f);
    camera->setManualAnalogGainReal(0, 250);
    EXPECT_FLOAT_EQ(argus.recorded(0).analogGain.max, 2.5f);
    camera->setManualDigitalGainReal(1, 300);
    EXPECT_FLOAT_EQ(argus.recorded(1).digitalGain.min, 3.f);
    camera->setAutomaticDigitalGain();
    EXPECT_FLOAT_EQ(argus.recorded(1).digitalGain.max, 8.f);
}

TEST_F(ControlsTest, FramePercentIsMeasuredAgainstTheLimits) {
    camera->setFrameValues(0, 350, 4.f, 2.f);
    EXPECT_EQ(camera->getFrameExposureTime(0), 350);
    EXPECT_EQ(camera->getFrameExposurePercent(0), 25);    // (350 - 100) x 100 / 1000
    EXPECT_EQ(camera->getAnalogFrameGainPercent(0), 20);  // (4 - 1) x 100 / 15
    EXPECT_FLOAT_EQ(camera->getDigitalFrameGain(0), 2.f);
}

TEST_F(ControlsTest, RegionsBecomeAeRegionsAndSwapExchangesTheSides) {
    camera->setROIforAECAGC(0, bh::Rect{10, 20, 30, 40});
    ASSERT_EQ(argus.recorded(0).aeRegions.size(), 1u);
    const at::AcRegion r = argus.recorded(0).aeRegions[0];
    EXPECT_EQ(r.left, 10u);
    EXPECT_EQ(r.top, 20u);
    EXPECT_EQ(r.right, 40u);
    EXPECT_EQ(r.bottom, 60u);
    EXPECT_FLOAT_EQ(r.weight, 1.f);
    bh::Rect back;
    EXPECT_EQ(camera->getROIforAECAGC(0, back), 0);
    EXPECT_EQ(back.width, 30);
    EXPECT_EQ(back.height, 40);

    camera->setSwap(true);
    camera->setROIforAECAGC(0, bh::Rect{1, 2, 3, 4});
    EXPECT_EQ(argus.recorded(1).aeRegions.size(), 1u);
    camera->resetROIforAECAGC(1);
    EXPECT_TRUE(argus.recorded(0).aeRegions.empty());
}

TEST_F(ControlsTest, AntiBandingModes) {
    camera->setAEAntiBanding(AEANTIBANDING_50HZ);
    EXPECT_EQ(argus.recorded(0).antibanding, at::AeAntibandingMode::Hz50);
    camera->setAEAntiBanding(AEANTIBANDING_OFF);
    EXPECT_EQ(argus.recorded(1).antibanding, at::AeAntibandingMode::Off);
}

TEST_F(ControlsTest, ColourSaturationCarriesItsEnableFlag) {
    camera->setColorSaturation(1.5f, false);
    EXPECT_FLOAT_EQ(argus.recorded(0).saturation, 1.5f);
    EXPECT_TRUE(argus.recorded(0).saturationEnabled);
    camera->setColorSaturation(1.0f, true);
    EXPECT_FALSE(argus.recorded(1).saturationEnabled);
}

TEST(ControlsClosed, EverySetterAnswersMinusOneOnAClosedCamera) {
    ArgusCamera camera;
    EXPECT_EQ(camera.setSharpening(3, false), -1);
    EXPECT_EQ(camera.setManualExposure(0, 10), -1);
    EXPECT_EQ(camera.setFrameExposureRange(0, 1, 2), -1);
    EXPECT_EQ(camera.setAnalogFrameGainRange(0, 1, 2), -1);
    EXPECT_EQ(camera.setDigitalFrameGainRange(0, 1, 2), -1);
    EXPECT_EQ(camera.setManualWhiteBalance(5000), -1);
    EXPECT_EQ(camera.setAutomaticWhiteBalance(1, false), -1);
    EXPECT_EQ(camera.setDenoisingValue(0.5f, false), -1);
    EXPECT_EQ(camera.setExposureCompensationTarget(50, false), -1);
    EXPECT_EQ(camera.setToneMappingFromGamma(0, 2.f), -1);
    EXPECT_EQ(camera.setROIforAECAGC(0, bh::Rect{}), -1);
    EXPECT_FLOAT_EQ(camera.getAnalogFrameGain(0), -1.f);
    float lo, hi;
    EXPECT_FLOAT_EQ(camera.getAnalogGainLimits(0, lo, hi), -1.f);
    EXPECT_EQ(camera.getFrameExposurePercent(0), -1);
}

}  // namespace
