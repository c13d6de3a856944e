#pragma once

#include <cstdint>

#include <Eigen/Core>

#include "bh_input/grabber/defines.h"

namespace bh {

// Per-model facts of the sensor engine: the MCU's USB product id, which reader
// talks to it, the accelerometer scale, the device kind, and the default
// position of the IMU relative to the left imager.
enum class IMU_READER_KIND { HID = 0, GMSL = 1 };

struct MCUModelInfo {
    uint16_t product_id = 0;
    IMU_READER_KIND reader = IMU_READER_KIND::HID;
    float accel_lsb = 1.f / 4096.f;     // g a count
    float gyro_lsb = 1000.f / 32768.f;  // degrees per second a count
    BH_DEVICE device = BH_DEVICE_NONE;
    Eigen::Vector3f default_imu_position = Eigen::Vector3f::Zero();  // millimetres
};

// The device kind of the GMSL inertial chip: 16, a value the bus enumeration
// leaves unnamed because no video node or MCU reports it.
constexpr BH_DEVICE BH_DEVICE_GMSL_IMU = static_cast<BH_DEVICE>(16);

// The MCU product id of a model: a table of 31 entries indexed by model - 1;
// model 0 and values above 31 give 0.
uint16_t mcuProductId(MODEL model);

MCUModelInfo mcuModelInfo(MODEL model);

}  // namespace bh
