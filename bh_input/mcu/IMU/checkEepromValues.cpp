#include "bh_input/mcu/IMU/checkEepromValues.h"

#include <cmath>

namespace {
// Tests in double precision on the float's value.
bool above(float v, double limit) {
    return std::fabs(static_cast<double>(v)) > limit;
}
// Tests on the float itself.
bool aboveF(float v, float limit) {
    return std::fabs(v) > limit;
}
}  // namespace

void checkBiasData(_bias_data& data) {
    for (int i = 0; i < 3; ++i) {
        if (aboveF(data.acc_bias[i], 1.0f))
            data.acc_bias[i] = 0.f;
        if (above(data.gyro_bias[i], 0.2))
            data.gyro_bias[i] = 0.f;
    }
}

void checkVarianceData(variance_data& data) {
    for (int i = 0; i < 3; ++i) {
        if (above(data.gyro_var[i], 0.2))
            data.gyro_var[i] = 1e-5f;
        if (above(data.acc_var[i], 0.2))
            data.acc_var[i] = 1e-5f;
    }
}

void checkCamIMUData(_cam_imu_data& data) {
    for (int i = 0; i < 3; ++i) {
        if (above(data.rot[i], 0.2))
            data.rot[i] = 0.f;
    }
}

void checkExtendedGyroCalibData(_extended_gyro_calib_data& data) {
    for (int i = 0; i < 3; ++i) {
        if (std::fabs(static_cast<double>(data.scale[i]) - 1.0) > 0.3)
            data.scale[i] = 1.f;
        if (above(data.bias[i], 0.15) || above(data.temp_scale[i], 0.2)) {
            data.bias[i] = 0.f;
            data.temp_scale[i] = 0.f;
        }
    }
    for (int i = 0; i < 6; ++i) {
        if (above(data.misalign[i], 0.2))
            data.misalign[i] = 0.f;
    }
}

void checkExtendedAccCalibData(_extended_acc_calib_data& data) {
    // The misalignments are deliberately left as they are.
    for (int i = 0; i < 3; ++i) {
        if (std::fabs(static_cast<double>(data.scale[i]) - 1.0) > 0.3)
            data.scale[i] = 1.f;
        if (aboveF(data.bias[i], 1.0f) || above(data.temp_scale[i], 0.2)) {
            data.bias[i] = 0.f;
            data.temp_scale[i] = 0.f;
        }
    }
}
