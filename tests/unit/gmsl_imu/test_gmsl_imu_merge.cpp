// The pure steps of the GMSL inertial reader: the merge of a gyroscope sample
// with two accelerometer samples, the interpolation, the sub-model mounting
// turn and the conversion to the stereo camera's frame.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "bh_input/mcu/IMU/IMUGMSLReader.h"

namespace {

bmi08x_sensor_data sample(uint64_t t, int16_t x, int16_t y, int16_t z, uint8_t sync = 0) {
    bmi08x_sensor_data s;
    s.timestamp = t;
    s.x = x;
    s.y = y;
    s.z = z;
    s.sync = sync;
    return s;
}

}  // namespace

TEST(GmslMerge, GyroOlderThanTheOldestAccelIsDropped) {
    bmi08x_full_sensor_data out;
    out.timestamp = 42;
    EXPECT_EQ(gmslMergeStep(sample(999, 1, 2, 3), sample(1000, 0, 0, 0), sample(2000, 0, 0, 0), out),
              GMSLMergeAction::DropGyro);
    EXPECT_EQ(out.timestamp, 42u) << "nothing merged";
}

TEST(GmslMerge, GyroYoungerThanBothPopsTheOlderAccel) {
    bmi08x_full_sensor_data out;
    EXPECT_EQ(gmslMergeStep(sample(2001, 1, 2, 3), sample(1000, 0, 0, 0), sample(2000, 0, 0, 0), out),
              GMSLMergeAction::PopAccel);
}

TEST(GmslMerge, InBetweenInterpolatesTheAccelAtTheGyroTime) {
    bmi08x_full_sensor_data out;
    // f = (1250 - 1000) / (2000 - 1000) = 0.25
    ASSERT_EQ(
        gmslMergeStep(sample(1250, 7, -8, 9, 1), sample(1000, 100, -100, 0), sample(2000, 200, 100, -3), out),
        GMSLMergeAction::Merge);
    EXPECT_EQ(out.gyro_x, 7);
    EXPECT_EQ(out.gyro_y, -8);
    EXPECT_EQ(out.gyro_z, 9);
    EXPECT_EQ(out.acc_x, 125);  // 100 + 100 x 0.25
    EXPECT_EQ(out.acc_y, -50);  // -100 + 200 x 0.25
    EXPECT_EQ(out.acc_z, 0);    // 0 - 0.75: integer part 0
    EXPECT_EQ(out.timestamp, 1250u);
    EXPECT_EQ(out.sync, 1);
}

TEST(GmslMerge, TheBoundsThemselvesMerge) {
    bmi08x_full_sensor_data out;
    ASSERT_EQ(gmslMergeStep(sample(1000, 0, 0, 0), sample(1000, 10, 20, 30), sample(2000, 50, 60, 70), out),
              GMSLMergeAction::Merge);
    EXPECT_EQ(out.acc_x, 10);
    EXPECT_EQ(out.sync, 0);
    ASSERT_EQ(gmslMergeStep(sample(2000, 0, 0, 0), sample(1000, 10, 20, 30), sample(2000, 50, 60, 70), out),
              GMSLMergeAction::Merge);
    EXPECT_EQ(out.acc_x, 50);
    EXPECT_EQ(out.acc_z, 70);
}

TEST(GmslMerge, EqualTimesDoNotTrap) {
    // t0 == t1 == tg: the fraction is 0/0. The step must not trap (this test
    // runs under the undefined-behaviour sanitizer too) and keeps a0.
    bmi08x_full_sensor_data out;
    ASSERT_EQ(
        gmslMergeStep(sample(5000, 1, 1, 1), sample(5000, -7, 8, 32767), sample(5000, 9, -9, -32768), out),
        GMSLMergeAction::Merge);
    EXPECT_EQ(out.acc_x, -7);
    EXPECT_EQ(out.acc_y, 8);
    EXPECT_EQ(out.acc_z, 32767);
    EXPECT_EQ(out.timestamp, 5000u);
}

TEST(GmslMerge, ASyncByteOtherThanOneIsNoMark) {
    bmi08x_full_sensor_data out;
    ASSERT_EQ(gmslMergeStep(sample(1500, 0, 0, 0, 2), sample(1000, 0, 0, 0), sample(2000, 0, 0, 0), out),
              GMSLMergeAction::Merge);
    EXPECT_EQ(out.sync, 0);
}

TEST(GmslLerp, IntegerPartWithinInt16) {
    EXPECT_EQ(IMUGMSLReader::lerp(0, 10, 0.55), 5);
    EXPECT_EQ(IMUGMSLReader::lerp(0, -10, 0.55), -5) << "toward zero";
    EXPECT_EQ(IMUGMSLReader::lerp(-32768, 32767, 1.0), 32767);
    EXPECT_EQ(IMUGMSLReader::lerp(-32768, 32767, 0.0), -32768);
    EXPECT_EQ(IMUGMSLReader::lerp(-32768, 32767, 0.5), 0);  // -0.5 -> 0
    EXPECT_EQ(IMUGMSLReader::lerp(30000, 32000, 3.0), 32767) << "outside [0, 1] stays in range";
    EXPECT_EQ(IMUGMSLReader::lerp(-30000, -32000, 3.0), -32768);
    EXPECT_EQ(IMUGMSLReader::lerp(12, 99, std::nan("")), 12);
    EXPECT_EQ(IMUGMSLReader::lerp(12, 99, std::numeric_limits<double>::infinity()), 12);
}

TEST(GmslAxes, SubModelMountingTurn) {
    // x takes the chip's y, y the chip's minus x: a rotation about the chip's
    // x axis shows up on the sample's y axis.
    bmi08x_sensor_data s = sample(0, 1000, 0, 5);
    IMUGMSLReader::turnAxes(s);
    EXPECT_EQ(s.x, 0);
    EXPECT_EQ(s.y, -1000);
    EXPECT_EQ(s.z, 5);
    s = sample(0, -32768, 77, 0);
    IMUGMSLReader::turnAxes(s);
    EXPECT_EQ(s.x, 77);
    EXPECT_EQ(s.y, 32767) << "the one count that has no negative";
}

TEST(GmslAxes, SwapTable) {
    bmi08x_full_sensor_data in;
    in.gyro_x = 1;
    in.gyro_y = 2;
    in.gyro_z = 3;
    in.acc_x = 10;
    in.acc_y = 20;
    in.acc_z = 30;
    int16_t g[3];
    int16_t a[3];
    // swap 0: x, -y, -z
    IMUGMSLReader::toCameraFrame(in, 0, g, a);
    EXPECT_EQ(g[0], 1);
    EXPECT_EQ(g[1], -2);
    EXPECT_EQ(g[2], -3);
    EXPECT_EQ(a[0], 10);
    EXPECT_EQ(a[1], -20);
    EXPECT_EQ(a[2], -30);
    // swap 1: -x, y, -z
    IMUGMSLReader::toCameraFrame(in, 1, g, a);
    EXPECT_EQ(g[0], -1);
    EXPECT_EQ(g[1], 2);
    EXPECT_EQ(g[2], -3);
    EXPECT_EQ(a[0], -10);
    EXPECT_EQ(a[1], 20);
    EXPECT_EQ(a[2], -30);
}
