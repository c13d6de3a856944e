#include <gtest/gtest.h>

#include <cmath>

#include "bh_input/mcu/IMU/FusionBias.h"

namespace {

const float kDt = 1.0f / 800.0f;

// As the sensor engine prepares it.
FusionBias makeTracker(float variance, float bx = 0, float by = 0, float bz = 0) {
    FusionBias b;
    b.initialise(kDt);
    b.setInitBias(bx, by, bz);
    b.enabled = true;
    b.setup(variance, variance, variance);
    return b;
}

void expectCountersZero(const FusionBias& b) {
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(b.in_band[i], 0) << i;
        EXPECT_EQ(b.total[i], 0) << i;
    }
}

}  // namespace

TEST(FusionBias, SetupComputesGatesAndLimits) {
    FusionBias b;
    b.setup(0.02f, 0.5f, 2.0f);
    EXPECT_FLOAT_EQ(b.gate[0], 3.0f * 0.2f);  // 3 sqrt(2 x 0.02)
    EXPECT_FLOAT_EQ(b.gate[1], 3.0f);
    EXPECT_FLOAT_EQ(b.gate[2], 6.0f);
    EXPECT_FLOAT_EQ(b.inverse_spread[0], 5.0f);
    EXPECT_FLOAT_EQ(b.inverse_spread[2], 0.5f);
    EXPECT_EQ(b.bias_min[1], -0.1f);
    EXPECT_EQ(b.bias_max[1], 0.1f);
    EXPECT_FALSE(b.updated);
    EXPECT_FALSE(b.enabled);  // setup does not touch it
}

TEST(FusionBias, ZeroVarianceMeansEveryFrameIsDisturbed) {
    FusionBias b = makeTracker(0.0f);
    EXPECT_EQ(b.gate[0], 0.f);
    EXPECT_TRUE(std::isinf(b.inverse_spread[0]));
    for (int i = 0; i < 3 * 800; i++) {
        b.update(0.01f, 0.01f, 0.01f);
        ASSERT_FALSE(b.steady) << i;
    }
    EXPECT_EQ(b.bias[0], 0.f);
    EXPECT_EQ(b.bias[1], 0.f);
    EXPECT_EQ(b.bias[2], 0.f);
    EXPECT_FALSE(b.updated);
    EXPECT_FALSE(b.isActive());

    // Even a stream equal to the bias never gets in band (|d| < 0 is false).
    FusionBias c = makeTracker(0.0f);
    for (int i = 0; i < 3 * 800; i++) {
        c.update(0.f, 0.f, 0.f);
        ASSERT_FALSE(c.steady) << i;
    }
    EXPECT_FALSE(c.updated);
}

TEST(FusionBias, ConstantStreamBecomesSteadyAfterOneSecondAndConverges) {
    FusionBias b = makeTracker(0.01f);
    int firstSteady = -1;
    for (int i = 1; i <= 810; i++) {
        b.update(0.05f, -0.03f, 0.02f);
        if (b.steady && firstSteady < 0)
            firstSteady = i;
    }
    // stationary_time reaches 1.0 s after 800 samples (801 with float rounding).
    EXPECT_GE(firstSteady, 799);
    EXPECT_LE(firstSteady, 802);
    EXPECT_TRUE(b.isActive());
    EXPECT_TRUE(b.refine);
    EXPECT_TRUE(b.updated);

    // Gain dt x 0.2094 per sample: a time constant of about 4.8 s.
    for (int i = 0; i < 60 * 800; i++)
        b.update(0.05f, -0.03f, 0.02f);
    EXPECT_NEAR(b.bias[0], 0.05f, 1e-4f);
    EXPECT_NEAR(b.bias[1], -0.03f, 1e-4f);
    EXPECT_NEAR(b.bias[2], 0.02f, 1e-4f);
}

TEST(FusionBias, BiasClampedToPlusMinusOneTenth) {
    FusionBias b = makeTracker(0.01f);
    for (int i = 0; i < 80 * 800; i++)
        b.update(0.3f, -0.3f, 0.3f);
    EXPECT_TRUE(b.steady);
    EXPECT_EQ(b.bias[0], 0.1f);
    EXPECT_EQ(b.bias[1], -0.1f);
    EXPECT_EQ(b.bias[2], 0.1f);
}

TEST(FusionBias, SingleStepMovesBiasByTheExactGain) {
    FusionBias b = makeTracker(0.01f);
    for (int i = 0; i < 900; i++)
        b.update(0.f, 0.f, 0.f);
    ASSERT_TRUE(b.steady);
    ASSERT_EQ(b.bias[0], 0.f);
    // The new sample is within the gates of the old ones and of the bias.
    b.update(0.01f, 0.f, 0.f);
    ASSERT_TRUE(b.steady);
    const float gain = kDt * 0.2094395211624412f;
    EXPECT_FLOAT_EQ(b.bias[0], gain * 0.01f);
    EXPECT_EQ(b.bias[1], 0.f);
}

TEST(FusionBias, DisabledUpdateChangesNothing) {
    FusionBias b;
    b.initialise(kDt);
    b.setup(0.01f, 0.01f, 0.01f);
    b.enabled = false;
    const FusionBias before = b;
    for (int i = 0; i < 2000; i++)
        b.update(0.05f, 0.05f, 0.05f);
    for (int i = 0; i < 3; i++) {
        EXPECT_EQ(b.previous[i], before.previous[i]);
        EXPECT_EQ(b.bias[i], before.bias[i]);
        EXPECT_EQ(b.in_band[i], before.in_band[i]);
        EXPECT_EQ(b.total[i], before.total[i]);
        EXPECT_EQ(b.low_pass[i].seeded, before.low_pass[i].seeded);
        EXPECT_EQ(b.low_pass[i].value, before.low_pass[i].value);
    }
    EXPECT_EQ(b.stationary_time, before.stationary_time);
    EXPECT_EQ(b.steady, before.steady);
    EXPECT_EQ(b.refine, before.refine);
    EXPECT_EQ(b.updated, before.updated);
}

TEST(FusionBias, SampleThreeGatesFromBiasClearsProgressButNotBias) {
    FusionBias b = makeTracker(0.01f);  // gate = 3 sqrt(0.02) = 0.4243
    for (int i = 0; i < 2000; i++)
        b.update(0.05f, 0.f, 0.f);
    ASSERT_TRUE(b.steady);
    const float biasBefore = b.bias[0];
    ASSERT_GT(biasBefore, 0.f);

    // Far from the bias (beyond 3 x gate = 1.273), twice, so that the second
    // sample passes the statistics (difference 0) and only the bias test trips.
    const float far = biasBefore + 3.0f * b.gate[0] + 0.05f;
    b.update(far, 0.f, 0.f);
    b.update(far, 0.f, 0.f);
    EXPECT_EQ(b.stationary_time, 0.f);
    EXPECT_FALSE(b.steady);
    EXPECT_FALSE(b.refine);
    expectCountersZero(b);
    EXPECT_EQ(b.previous[0], far);
    EXPECT_EQ(b.bias[0], biasBefore);
    EXPECT_FALSE(b.isActive());
}

TEST(FusionBias, FirstSampleDifferenceAgainstZeroPreviousMayTrip) {
    // variance 1e-6: spread 0.001414, inverse 707.1, gate 0.00424.
    FusionBias b = makeTracker(1e-6f);
    b.update(0.01f, 0.f, 0.f);  // |0.01 - 0| x 707 = 7.07 > 4: disturbed
    EXPECT_EQ(b.stationary_time, 0.f);
    expectCountersZero(b);
    EXPECT_EQ(b.previous[0], 0.01f);
    b.update(0.01f, 0.f, 0.f);  // difference 0 now
    EXPECT_EQ(b.stationary_time, kDt);
    EXPECT_EQ(b.total[0], 1);
    EXPECT_EQ(b.in_band[0], 1);

    FusionBias c = makeTracker(1e-6f);
    c.update(0.002f, 0.f, 0.f);  // 0.002 x 707 = 1.41 and below the gate: counted
    EXPECT_EQ(c.stationary_time, kDt);
    EXPECT_EQ(c.total[0], 1);
    EXPECT_EQ(c.in_band[0], 1);
}

TEST(FusionBias, ResetKeepsBiasAndDynamicResetKeepsPrevious) {
    FusionBias b = makeTracker(0.01f);
    for (int i = 0; i < 3000; i++)
        b.update(0.05f, 0.02f, 0.01f);
    ASSERT_TRUE(b.isActive());
    const float bias0 = b.bias[0];

    b.dynamic_motion_reset();
    EXPECT_EQ(b.previous[0], 0.05f);
    EXPECT_EQ(b.stationary_time, 0.f);
    EXPECT_FALSE(b.steady);
    expectCountersZero(b);
    EXPECT_EQ(b.bias[0], bias0);

    b.reset();
    EXPECT_EQ(b.previous[0], 0.f);
    EXPECT_EQ(b.bias[0], bias0);
    EXPECT_FALSE(b.isActive());
    EXPECT_TRUE(b.enabled);

    b.initialise(kDt);  // zeroes the bias
    EXPECT_EQ(b.bias[0], 0.f);
    EXPECT_TRUE(b.enabled);
    b.close();
}

TEST(FusionBias, NoisyStillSensorConvergesOnTheOffset) {
    // Noise of +-0.005 around an offset of 0.04; variance given as 1e-4.
    FusionBias b = makeTracker(1e-4f);
    uint32_t state = 7;
    auto noise = [&]() {
        state = state * 1664525u + 1013904223u;
        return (static_cast<float>(state >> 8) / 8388608.0f - 1.0f) * 0.005f;
    };
    for (int i = 0; i < 60 * 800; i++)
        b.update(0.04f + noise(), -0.02f + noise(), 0.01f + noise());
    EXPECT_TRUE(b.updated);
    EXPECT_NEAR(b.bias[0], 0.04f, 2e-3f);
    EXPECT_NEAR(b.bias[1], -0.02f, 2e-3f);
    EXPECT_NEAR(b.bias[2], 0.01f, 2e-3f);
}
