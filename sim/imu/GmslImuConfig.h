#pragma once

// Everything a scenario can say about the inertial chip of a GMSL camera (the
// accelerometer at 0x18 and the gyroscope at 0x68 on the camera's I2C bus) and
// about the calibration image stored behind the camera's identification EEPROM.
// The "gmsl_camera" entry holds these fields in its "imu" object.

#include <array>
#include <cstdint>
#include <string>

#include "sim/Scenario.h"

namespace sim {

// What the EEPROM blocks after the identification block hold.
enum class CalibrationImageKind {
    Valid,   // a plausible calibration: every record passes the reader's checks
    Blank,   // an unprogrammed EEPROM: every byte 0xFF
    Absent,  // no chip answers at the image's addresses
};

struct GmslImuConfig {
    // Faults of the chip itself.
    bool present = true;       // false: nothing answers at 0x18 and 0x68
    uint8_t accChipId = 0x1E;  // what ACC_CHIP_ID reads (another value: a wrong chip)
    uint8_t gyroChipId = 0x0F;
    double stopAfterSeconds = -1;  // the parts produce no sample after this (negative: never)
    double nackAfterSeconds = -1;  // both parts refuse every transfer after this (negative: never)

    // Oscillators: each part runs at its nominal rate times (1 + drift).
    double accDriftPpm = 120;
    double gyroDriftPpm = -80;

    // Motion and environment, in the chip's frame.
    std::array<double, 3> angularRateDps{{0, 0, 0}};
    std::array<double, 3> gravityG{{0, 0, 1}};
    double accNoiseMg = 1.5;     // standard deviation per axis
    double gyroNoiseDps = 0.05;  // standard deviation per axis
    uint32_t noiseSeed = 1;
    double temperatureC = 30;

    // The calibration image after the identification block.
    CalibrationImageKind image = CalibrationImageKind::Valid;
    uint8_t imageImuOdr = 2;  // the image's IMU data rate record (an _imu_odr value)
};

// The scenario fields, with their limits, as the README lists them.
// Seconds of the two time faults count from the first transfer to either part.
//
//   present (bool), acc_chip_id, gyro_chip_id (0..255), stop_after_s,
//   nack_after_s (0..1e6), acc_drift_ppm, gyro_drift_ppm (-1000..1000),
//   angular_rate_dps [x, y, z] (-10000..10000 each), gravity_g [x, y, z]
//   (-100..100 each), acc_noise_mg (0..1000), gyro_noise_dps (0..100),
//   noise_seed (u32), temperature_c (-104..150), calibration_image
//   ("valid" | "blank" | "absent"), image_imu_odr (0..3), comment.
//
// Unknown fields and bad values throw ScenarioError naming the field.
GmslImuConfig readGmslImuConfig(const Entry& imuObject);

}  // namespace sim
