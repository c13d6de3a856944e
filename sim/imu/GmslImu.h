#pragma once

// The inertial chip of a simulated GMSL camera and the calibration image
// behind its identification EEPROM, put on the camera's I2C bus:
//
//   0x18                     accelerometer (Bmi08xAccel)
//   0x68                     gyroscope (Bmi08xGyro), frame sync from the bus's GmslFrameSync
//   A+1, A+2, A+3            the calibration image, 256-byte blocks (A: the EEPROM's address)
//
// The "gmsl_camera" entry reads its "imu" object with readGmslImuConfig and
// calls attachGmslImu; tests find the chip again with GmslImu::find and change
// its faults and motion while a scenario runs.

#include <array>
#include <cstdint>
#include <memory>

#include "bh_input/mcu/IMU/eepromMemory.h"
#include "sim/Machine.h"
#include "sim/imu/Bmi08xAccel.h"
#include "sim/imu/Bmi08xGyro.h"
#include "sim/imu/CalibrationImage.h"
#include "sim/imu/GmslImuConfig.h"
#include "sim/imu/ImuFaults.h"
#include "sim/imu/ImuMotion.h"

namespace sim {

class GmslImu {
public:
    static constexpr uint16_t kAccelAddress = 0x18;
    static constexpr uint16_t kGyroAddress = 0x68;

    GmslImu(Machine& machine, int bus, int eepromAddress, uint32_t serial, const GmslImuConfig& config);

    // The chip attached to a bus of the machine, or null.
    static std::shared_ptr<GmslImu> find(Machine& machine, int bus);

    int bus() const { return bus_; }
    int eepromAddress() const { return eepromAddress_; }
    Bmi08xAccel& accel() { return *accel_; }
    Bmi08xGyro& gyro() { return *gyro_; }
    ImuMotion& motion() { return *motion_; }

    // Faults at run time.
    // false: nothing answers at 0x18 and 0x68 (the bus gives ENXIO).
    void setPresent(bool present);
    void setChipIds(uint8_t accel, uint8_t gyro);
    // Seconds after the chip's first transfer; negative: never.
    void setStopAfter(double seconds);
    void setNackAfter(double seconds);

    // The calibration image as the EEPROM blocks hold it now (zeros when the
    // image is absent), and a way to replace it.
    eepromMemoryStrc calibrationImage() const;
    void setCalibrationImage(const eepromMemoryStrc& image);
    // The EEPROM block at A+1+index (index 0..2), null when the image is absent.
    std::shared_ptr<RegisterChip> imageBlock(int index) const;

private:
    void attachImage(CalibrationImageKind kind, uint32_t serial, uint8_t imuOdr);

    int bus_;
    int eepromAddress_;
    std::shared_ptr<I2cBus> i2c_;
    std::shared_ptr<ImuMotion> motion_;
    std::shared_ptr<ImuFaults> faults_;
    std::shared_ptr<Bmi08xAccel> accel_;
    std::shared_ptr<Bmi08xGyro> gyro_;
    std::array<std::shared_ptr<RegisterChip>, kCalibrationImageBlocks> blocks_;
};

// Puts the chip and the calibration image on `bus` of the machine, beside the
// camera EEPROM at eepromAddress (0x03..0x74; the image takes the next three
// addresses), and returns it. Throws std::invalid_argument naming the bus and
// address when one of them is taken, or when the bus has a chip already.
std::shared_ptr<GmslImu> attachGmslImu(Machine& machine, int bus, int eepromAddress, uint32_t serial,
                                       const GmslImuConfig& config);

}  // namespace sim
