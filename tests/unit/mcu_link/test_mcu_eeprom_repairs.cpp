// In-place repairs of implausible EEPROM records.
#include <gtest/gtest.h>

#include "PackedValue.h"
#include "bh_input/mcu/IMU/checkEepromValues.h"

using mcutest::val;

TEST(EepromRepairs, GyroBiasAbove02IsZeroedTheSameValueInAccStays) {
    _bias_data b{mcu_id::BIAS, {0.21f, -0.21f, 0.19f}, {0.21f, -1.01f, 1.0f}};
    checkBiasData(b);
    EXPECT_EQ(val(b.gyro_bias[0]), 0.f);
    EXPECT_EQ(val(b.gyro_bias[1]), 0.f);
    EXPECT_FLOAT_EQ(b.gyro_bias[2], 0.19f);
    EXPECT_FLOAT_EQ(b.acc_bias[0], 0.21f);
    EXPECT_EQ(val(b.acc_bias[1]), 0.f);
    EXPECT_FLOAT_EQ(b.acc_bias[2], 1.0f);
    EXPECT_EQ(val(b.id), mcu_id::BIAS);
}

TEST(EepromRepairs, VarianceAbove02Becomes1e5) {
    variance_data v{mcu_id::VARIANCE, {0.3f, 0.1f, -0.25f}, {0.2f, 5.f, 0.0f}};
    checkVarianceData(v);
    EXPECT_FLOAT_EQ(v.gyro_var[0], 1e-5f);
    EXPECT_FLOAT_EQ(v.gyro_var[1], 0.1f);
    EXPECT_FLOAT_EQ(v.gyro_var[2], 1e-5f);
    // 0.2f is slightly above 0.2 in double precision: replaced.
    EXPECT_FLOAT_EQ(v.acc_var[0], 1e-5f);
    EXPECT_FLOAT_EQ(v.acc_var[1], 1e-5f);
    EXPECT_FLOAT_EQ(v.acc_var[2], 0.0f);
}

TEST(EepromRepairs, CamImuAbove02IsZeroed) {
    _cam_imu_data c{mcu_id::CAM_IMU, {0.15f, -0.5f, 0.199f}};
    checkCamIMUData(c);
    EXPECT_FLOAT_EQ(c.rot[0], 0.15f);
    EXPECT_EQ(val(c.rot[1]), 0.f);
    EXPECT_FLOAT_EQ(c.rot[2], 0.199f);
}

TEST(EepromRepairs, ExtendedGyroBiasAndTempScalePerAxis) {
    _extended_gyro_calib_data g{};
    g.id = mcu_id::EXT_GYRO;
    for (int i = 0; i < 3; ++i) {
        g.scale[i] = 1.0f;
        g.bias[i] = 0.05f;
        g.temp_scale[i] = 0.1f;
    }
    g.bias[0] = 0.16f;         // x: bias too large, both go
    g.temp_scale[2] = -0.25f;  // z: temperature scale too large, both go
    g.scale[1] = 1.31f;
    g.scale[2] = 0.75f;
    for (int i = 0; i < 6; ++i)
        g.misalign[i] = 0.01f * i;
    g.misalign[4] = 0.3f;
    checkExtendedGyroCalibData(g);
    EXPECT_EQ(val(g.bias[0]), 0.f);
    EXPECT_EQ(val(g.temp_scale[0]), 0.f);
    EXPECT_FLOAT_EQ(g.bias[1], 0.05f);
    EXPECT_FLOAT_EQ(g.temp_scale[1], 0.1f);
    EXPECT_EQ(val(g.bias[2]), 0.f);
    EXPECT_EQ(val(g.temp_scale[2]), 0.f);
    EXPECT_FLOAT_EQ(g.scale[0], 1.0f);
    EXPECT_FLOAT_EQ(g.scale[1], 1.0f);
    EXPECT_FLOAT_EQ(g.scale[2], 0.75f);
    EXPECT_EQ(val(g.misalign[4]), 0.f);
    EXPECT_FLOAT_EQ(g.misalign[3], 0.03f);
}

TEST(EepromRepairs, ExtendedGyroOnlyXLosesBiasAndTempScale) {
    _extended_gyro_calib_data g{};
    for (int i = 0; i < 3; ++i) {
        g.scale[i] = 1.f;
        g.bias[i] = 0.1f;
        g.temp_scale[i] = 0.1f;
    }
    g.bias[0] = 0.16f;
    checkExtendedGyroCalibData(g);
    EXPECT_EQ(val(g.bias[0]), 0.f);
    EXPECT_EQ(val(g.temp_scale[0]), 0.f);
    EXPECT_FLOAT_EQ(g.bias[1], 0.1f);
    EXPECT_FLOAT_EQ(g.temp_scale[1], 0.1f);
    EXPECT_FLOAT_EQ(g.bias[2], 0.1f);
    EXPECT_FLOAT_EQ(g.temp_scale[2], 0.1f);
}

TEST(EepromRepairs, ExtendedAccKeepsMisalignments) {
    _extended_acc_calib_data a{};
    for (int i = 0; i < 3; ++i) {
        a.scale[i] = 1.f;
        a.bias[i] = 0.5f;
        a.temp_scale[i] = 0.05f;
        a.misalign[i] = 0.9f;
    }
    a.bias[1] = 1.5f;
    a.temp_scale[2] = 0.3f;
    a.scale[0] = 2.0f;
    checkExtendedAccCalibData(a);
    EXPECT_FLOAT_EQ(a.scale[0], 1.f);
    EXPECT_FLOAT_EQ(a.bias[0], 0.5f);
    EXPECT_EQ(val(a.bias[1]), 0.f);
    EXPECT_EQ(val(a.temp_scale[1]), 0.f);
    EXPECT_EQ(val(a.bias[2]), 0.f);
    EXPECT_EQ(val(a.temp_scale[2]), 0.f);
    for (int i = 0; i < 3; ++i)
        EXPECT_FLOAT_EQ(a.misalign[i], 0.9f);
}
