#pragma once

#include <cstdint>

#include <Eigen/Core>

namespace bh {

// Per-model facts of the sensor engine: the MCU's USB product id, which reader
// talks to it, the accelerometer scale, the device kind, and the default
// position of the IMU relative to the left imager.
enum class IMU_READER_KIND { HID = 0, GMSL = 1 };

struct MCUModelInfo {
    uint16_t product_id = 0;
    IMU_READER_KIND reader = IMU_READER_KIND::HID;
    float accel_lsb = 1.f / 4096.f;                                  // g a count
    float gyro_lsb = 1000.f / 32768.f;                               // degrees per second a count
    int device = 17;                                                 // BH_DEVICE value
    Eigen::Vector3f default_imu_position = Eigen::Vector3f::Zero();  // millimetres
};

// Camera model values as the capture layer numbers them.
namespace mcu_model {
constexpr int KOV = 0;
constexpr int KOV_P = 1;
constexpr int KOVT = 2;
constexpr int KOVTr = 3;
constexpr int KOV_Q = 4;
constexpr int KOV_QP = 5;
constexpr int KOV_QS_A = 30;
constexpr int KOV_QS_B = 31;
}  // namespace mcu_model

// Device kinds of the MCUs (BH_DEVICE values) and the GMSL inertial chip.
namespace mcu_device {
constexpr int KOV_P_MCU = 12;
constexpr int KOVT_MCU = 13;
constexpr int KOVTr_MCU = 14;
constexpr int GMSL_IMU = 16;
constexpr int NONE = 17;
}  // namespace mcu_device

// The MCU product id of a model: a table of 31 entries indexed by model - 1;
// model 0 and values above 31 give 0.
uint16_t mcuProductId(int model);

MCUModelInfo mcuModelInfo(int model);

}  // namespace bh
