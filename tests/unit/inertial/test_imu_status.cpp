#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "bh_input/mcu/IMU/IMUStatus.h"

namespace {

void collectLines(const char* line, void* context) {
    static_cast<std::vector<std::string>*>(context)->push_back(line);
}

const uint64_t kStart = 1000000000ull;

}  // namespace

// ------------------------------------------------------------ StandardDeviation

TEST(StandardDeviation, RunningStatisticsSkipTheFirstSampleOfAWindow) {
    StandardDeviation s(5, 0);
    for (int i = 0; i < 5; i++)
        s.update(10.f);
    // count 1 does nothing; then d = 10, 5, 3.33, 2.5 against means 0, 5, 6.67, 7.5.
    EXPECT_EQ(s.count, 5);
    EXPECT_NEAR(s.mean, 8.0, 1e-12);
    EXPECT_NEAR(s.variance, 20.0, 1e-12);
    EXPECT_FALSE(s.outlier);
}

TEST(StandardDeviation, WindowRollOverLosesMeanAndVarianceAndNextTwoAreNoOutliers) {
    StandardDeviation s(5, 0);
    for (int i = 0; i < 5; i++)
        s.update(10.f);
    s.update(1000.f);  // count 6 > 5: restart
    EXPECT_EQ(s.count, 0);
    EXPECT_EQ(s.mean, 0.0);
    EXPECT_EQ(s.variance, 0.0);
    EXPECT_FALSE(s.outlier);
    s.update(1000.f);  // count 1: nothing computed
    EXPECT_EQ(s.count, 1);
    EXPECT_FALSE(s.outlier);
    EXPECT_EQ(s.mean, 0.0);
    s.update(1000.f);  // count 2: against a zero variance
    EXPECT_TRUE(s.outlier);
}

TEST(StandardDeviation, OutlierFlagSurvivesRollOver) {
    StandardDeviation s(3, 0);
    s.update(0.f);
    s.update(0.f);
    s.update(100.f);  // variance 0: outlier
    EXPECT_TRUE(s.outlier);
    s.update(0.f);  // roll-over
    EXPECT_EQ(s.count, 0);
    EXPECT_TRUE(s.outlier);
    s.update(0.f);
    EXPECT_TRUE(s.outlier);
}

TEST(StandardDeviation, DeviationTruncatedToInteger) {
    StandardDeviation s(50, 0);
    for (int i = 0; i < 10; i++)
        s.update(0.f);
    s.update(0.9f);  // truncates to 0: not above 3 x 0
    EXPECT_FALSE(s.outlier);
    StandardDeviation t(50, 0);
    for (int i = 0; i < 10; i++)
        t.update(0.f);
    t.update(1.5f);  // truncates to 1
    EXPECT_TRUE(t.outlier);
}

TEST(StandardDeviation, NegativeStartSpendsRoundsDoingNothing) {
    StandardDeviation s(50, -16);
    for (int i = 0; i < 17; i++)
        s.update(5.f);
    EXPECT_EQ(s.count, 1);
    EXPECT_EQ(s.mean, 0.0);
    s.update(5.f);
    EXPECT_EQ(s.mean, 2.5);
}

// ------------------------------------------------------------ ShockDetector

TEST(ShockDetector, LimitIsThreeHundredUntilTheQueueIsFull) {
    ShockDetector quiet, loud;
    // Samples 1 to 4: queue shorter than 5, limit 30 x 10.
    for (int i = 0; i < 4; i++) {
        EXPECT_FALSE(quiet.update(300.9f, 0.f)) << i;  // truncates to 300
        EXPECT_TRUE(loud.update(301.f, 0.f)) << i;
        EXPECT_EQ(quiet.queueSize(), static_cast<std::size_t>(i + 1));
    }
    // Sample 5: the queue holds 5, the limit becomes max(5 x front, 30) = 30.
    EXPECT_TRUE(quiet.update(31.f, 0.f));
    EXPECT_FALSE(loud.update(30.9f, 0.f));
    EXPECT_EQ(quiet.queueSize(), 5u);
}

TEST(ShockDetector, LimitFollowsTheOldestStandardDeviation) {
    ShockDetector a, b;
    for (int i = 0; i < 4; i++) {
        a.update(0.f, 10.f);
        b.update(0.f, 10.f);
    }
    // Fifth sample: queue of five 10s, limit 5 x 10 = 50.
    EXPECT_FALSE(a.update(50.5f, 10.f));  // truncates to 50
    EXPECT_TRUE(b.update(51.f, 10.f));
    EXPECT_EQ(a.queueFront(), 10.0);
    // The oldest entries are dropped as small deviations come in.
    for (int i = 0; i < 5; i++)
        a.update(0.f, 1.f);
    EXPECT_EQ(a.queueSize(), 5u);
    EXPECT_EQ(a.queueFront(), 1.0);
    // Limit max(5 x 1, 30) = 30; negative deviations count by magnitude.
    EXPECT_TRUE(a.update(-31.f, 1.f));
    EXPECT_TRUE(a.shock);
    EXPECT_FALSE(a.update(-30.5f, 1.f));
    EXPECT_FALSE(a.shock);
}

// ------------------------------------------------------------ IMUStatus

TEST(IMUStatus, StaggeredWindowStarts) {
    IMUStatus s;
    for (const auto& axis : s.sd) {
        ASSERT_EQ(axis.size(), 3u);
        EXPECT_EQ(axis[0].count, 0);
        EXPECT_EQ(axis[1].count, -16);
        EXPECT_EQ(axis[2].count, -33);
        EXPECT_EQ(axis[2].window, 50);
    }
    EXPECT_EQ(s.delta_minimum, 625000u);
    EXPECT_EQ(s.delta_maximum, 1875000u);
}

TEST(IMUStatus, TimestampLimitsAt400Hz) {
    IMUStatus s(1000.f, 156.9064f, 400);
    EXPECT_EQ(s.delta_minimum, 1250000u);
    EXPECT_EQ(s.delta_maximum, 3750000u);
    std::vector<std::string> lines;
    s.setLogSink(collectLines, &lines);

    uint64_t t = kStart;
    s.compute(0, 0, 9.81f, 0, 0, 0, t);  // the first sample never sets 32
    EXPECT_EQ(s.status, 0u);
    t += 2500000;
    s.compute(0, 0, 9.81f, 0, 0, 0, t);
    EXPECT_EQ(s.status, 0u);
    t += 3760000;
    s.compute(0, 0, 9.81f, 0, 0, 0, t);
    EXPECT_EQ(s.status, 32u);
    t += 1240000;
    s.compute(0, 0, 9.81f, 0, 0, 0, t);
    EXPECT_EQ(s.status, 32u);
    t += 1250000;  // limits themselves are accepted
    s.compute(0, 0, 9.81f, 0, 0, 0, t);
    EXPECT_EQ(s.status, 0u);
    t += 3750000;
    s.compute(0, 0, 9.81f, 0, 0, 0, t);
    EXPECT_EQ(s.status, 0u);
    // A clock that steps back is irregular too.
    s.compute(0, 0, 9.81f, 0, 0, 0, t - 1000);
    EXPECT_EQ(s.status, 32u);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "IMU: IRREGULAR_TIMESTAMP_DELTA ");
}

TEST(IMUStatus, FullScaleAccelerationIsSaturatedAtOrAbove) {
    // Full scales that are whole numbers; values are truncated before the test.
    IMUStatus s(1000.f, 160.f, 800);
    s.setLogSink(nullptr, nullptr);
    s.compute(160.f, 0, 0, 0, 0, 0, kStart);
    EXPECT_EQ(s.status, 8u);
    IMUStatus n(1000.f, 160.f, 800);
    n.setLogSink(nullptr, nullptr);
    n.compute(0, -159.99f, 0, 0, 0, 0, kStart);
    EXPECT_EQ(n.status, 0u);
    IMUStatus m(1000.f, 160.f, 800);
    m.setLogSink(nullptr, nullptr);
    m.compute(0, 0, -160.f, 0, 0, 0, kStart);
    EXPECT_EQ(m.status, 8u);
    // A constant stream at full scale keeps the flag.
    for (int i = 1; i < 20; i++) {
        m.compute(0, 0, -160.f, 0, 0, 0, kStart + i * 1250000ull);
        EXPECT_TRUE(m.status & IMUStatus::SATURATED_ACC) << i;
    }

    IMUStatus g(1000.f, 160.f, 800);
    g.setLogSink(nullptr, nullptr);
    g.compute(0, 0, 0, 0, 1000.f, 0, kStart);
    EXPECT_EQ(g.status, 16u);
    IMUStatus h(1000.f, 160.f, 800);
    h.setLogSink(nullptr, nullptr);
    h.compute(0, 0, 0, 999.9f, 0, 0, kStart);
    EXPECT_EQ(h.status, 0u);
}

TEST(IMUStatus, NonIntegerFullScaleComparesTruncatedSample) {
    // The sample is truncated, the full scale is not: with 16 g x 9.80665 =
    // 156.9064 a sample of exactly the full scale reads 156 and stays below.
    IMUStatus s(1000.f, 156.9064f, 800);
    s.setLogSink(nullptr, nullptr);
    s.compute(156.9064f, 0, 0, 0, 0, 0, kStart);
    EXPECT_EQ(s.status & IMUStatus::SATURATED_ACC, 0u);
    IMUStatus t(1000.f, 156.9064f, 800);
    t.setLogSink(nullptr, nullptr);
    t.compute(157.0f, 0, 0, 0, 0, 0, kStart);
    EXPECT_EQ(t.status & IMUStatus::SATURATED_ACC, 8u);
}

TEST(IMUStatus, ShockFlagsAreSummedNotOred) {
    std::vector<std::string> lines;
    IMUStatus one(1000.f, 1000.f, 800);
    one.setLogSink(collectLines, &lines);
    one.compute(400.f, 0, 0, 0, 0, 0, kStart);  // 400 above the start limit of 300
    EXPECT_EQ(one.status, 1u);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "IMU: SHOCK_DETECTED ");

    lines.clear();
    IMUStatus two(1000.f, 1000.f, 800);
    two.setLogSink(collectLines, &lines);
    two.compute(400.f, -400.f, 0, 0, 0, 0, kStart);
    EXPECT_EQ(two.status, 2u);  // reads as HIGH_VIBRATION_ACC
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0], "IMU: HIGH_VIBRATION_ACC ");

    lines.clear();
    IMUStatus three(1000.f, 1000.f, 800);
    three.setLogSink(collectLines, &lines);
    three.compute(400.f, 400.f, 400.f, 0, 0, 0, kStart);
    EXPECT_EQ(three.status, 3u);
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0], "IMU: SHOCK_DETECTED ");
    EXPECT_EQ(lines[1], "IMU: HIGH_VIBRATION_ACC ");
}

TEST(IMUStatus, LogLinesInTableOrder) {
    std::vector<std::string> lines;
    IMUStatus s(1000.f, 100.f, 400);
    s.setLogSink(collectLines, &lines);
    s.compute(400.f, 0, 0, 0, 0, 0, kStart);  // shock 1 + saturated 8
    EXPECT_EQ(s.status, 9u);
    // Second sample: mean 200 now, deviation 200 is no shock; gap 10 ms.
    s.compute(400.f, 0, 0, 0, 0, 0, kStart + 10000000ull);
    EXPECT_EQ(s.status, 40u);
    const std::vector<std::string> expected = {"IMU: SHOCK_DETECTED ", "IMU: SATURATED_ACC ",
                                               "IMU: SATURATED_ACC ", "IMU: IRREGULAR_TIMESTAMP_DELTA "};
    EXPECT_EQ(lines, expected);
}

TEST(IMUStatus, VibrationNeedsStillSamplesThenFlagsHighVariance) {
    IMUStatus s(2000.f, 1000.f, 800);
    s.setLogSink(nullptr, nullptr);
    uint64_t t = kStart;
    bool vibrationEarly = false;
    uint32_t last = 0;
    for (int i = 0; i < 600; i++) {
        const float sign = (i % 2) ? 1.f : -1.f;
        s.compute(40.f * sign, 0, 9.81f, 200.f * sign, 0, 0, t);
        t += 1250000;
        if (i < 100 && (s.status & (IMUStatus::HIGH_VIBRATION_ACC | IMUStatus::HIGH_VIBRATION_GYRO)))
            vibrationEarly = true;
        last = s.status;
    }
    EXPECT_FALSE(vibrationEarly);
    EXPECT_EQ(last, 6u);  // acc variance ~1600 > 900, gyro ~40000 > 10000
    EXPECT_GE(s.still_samples, 150);
}

TEST(IMUStatus, QuietSensorRaisesNothing) {
    IMUStatus s;
    std::vector<std::string> lines;
    s.setLogSink(collectLines, &lines);
    uint64_t t = kStart;
    for (int i = 0; i < 2000; i++) {
        s.compute(0.1f, -0.2f, 9.81f, 0.5f, -0.5f, 0.2f, t);
        t += 1250000;
    }
    EXPECT_EQ(s.status, 0u);
    EXPECT_TRUE(lines.empty());
    EXPECT_FALSE(s.is_moving(99));
    EXPECT_FALSE(s.is_moving(-1));
}

TEST(IMUStatus, IsMovingReadsTheWindowOutliers) {
    IMUStatus s;
    s.setLogSink(nullptr, nullptr);
    for (int i = 0; i < 3; i++)
        EXPECT_FALSE(s.is_moving(i));
    s.sd[4][1].outlier = true;
    EXPECT_TRUE(s.is_moving(1));
    EXPECT_FALSE(s.is_moving(0));
}

TEST(IMUStatus, NoWindowsIsHandled) {
    IMUStatus s;
    s.setLogSink(nullptr, nullptr);
    for (auto& axis : s.sd)
        axis.clear();
    s.compute(0, 0, 9.81f, 0, 0, 0, kStart);
    s.compute(0, 0, 9.81f, 0, 0, 0, kStart + 1250000);
    EXPECT_EQ(s.status, 0u);
    EXPECT_FALSE(s.is_moving(0));
}
