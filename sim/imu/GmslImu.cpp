#include "sim/imu/GmslImu.h"

#include <cstdio>
#include <mutex>
#include <stdexcept>
#include <string>

#include "sim/argus/GmslFrameSync.h"

namespace sim {

namespace {

// The machine's record of the chip on one bus.
struct GmslImuSlot {
    std::mutex mutex;
    std::shared_ptr<GmslImu> imu;
};

std::shared_ptr<GmslImuSlot> slotOf(Machine& machine, int bus) {
    return machine.shared<GmslImuSlot>("gmsl_imu_" + std::to_string(bus),
                                       [] { return std::make_shared<GmslImuSlot>(); });
}

std::string hex(int address) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%02x", address);
    return text;
}

void requireFree(I2cBus& bus, int address, const std::string& what) {
    if (bus.chip(static_cast<uint16_t>(address)))
        throw std::invalid_argument("bus " + std::to_string(bus.number()) + " has a chip at " + hex(address) +
                                    " already, where the camera's " + what + " answers");
}

}  // namespace

GmslImu::GmslImu(Machine& machine, int bus, int eepromAddress, uint32_t serial, const GmslImuConfig& config)
    : bus_(bus), eepromAddress_(eepromAddress), i2c_(machine.i2cBus(bus)) {
    motion_ = std::make_shared<ImuMotion>(config.angularRateDps, config.gravityG, config.accNoiseMg,
                                          config.gyroNoiseDps, config.noiseSeed, config.temperatureC);
    faults_ = std::make_shared<ImuFaults>(config.stopAfterSeconds, config.nackAfterSeconds);
    accel_ = std::make_shared<Bmi08xAccel>(motion_, faults_, config.accDriftPpm, config.accChipId);
    gyro_ = std::make_shared<Bmi08xGyro>(motion_, faults_, GmslFrameSync::of(machine, bus),
                                         config.gyroDriftPpm, config.gyroChipId);
    if (config.present)
        setPresent(true);
    attachImage(config.image, serial, config.imageImuOdr);
}

void GmslImu::attachImage(CalibrationImageKind kind, uint32_t serial, uint8_t imuOdr) {
    if (kind == CalibrationImageKind::Absent)
        return;
    std::vector<uint8_t> bytes = kind == CalibrationImageKind::Valid
                                     ? imageBytes(makeCalibrationImage(serial, imuOdr))
                                     : std::vector<uint8_t>();
    for (int b = 0; b < kCalibrationImageBlocks; ++b) {
        // Same geometry as the identification block: one-byte registers, pages of 8.
        auto block = std::make_shared<RegisterChip>(256, 1, 8);
        const size_t from = static_cast<size_t>(b) * 256;
        if (from < bytes.size())
            block->setContents(0, std::vector<uint8_t>(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                                                       bytes.begin() + static_cast<std::ptrdiff_t>(std::min(
                                                                           bytes.size(), from + 256))));
        i2c_->attach(static_cast<uint16_t>(eepromAddress_ + 1 + b), block);
        blocks_[static_cast<size_t>(b)] = block;
    }
}

std::shared_ptr<GmslImu> GmslImu::find(Machine& machine, int bus) {
    auto slot = slotOf(machine, bus);
    std::lock_guard<std::mutex> lock(slot->mutex);
    return slot->imu;
}

void GmslImu::setPresent(bool present) {
    // An address without a chip behind it answers nothing (ENXIO), as on a bus
    // where the chip is missing.
    i2c_->attach(kAccelAddress, present ? accel_ : nullptr);
    i2c_->attach(kGyroAddress, present ? gyro_ : nullptr);
}

void GmslImu::setChipIds(uint8_t accel, uint8_t gyro) {
    accel_->setChipId(accel);
    gyro_->setChipId(gyro);
}

void GmslImu::setStopAfter(double seconds) {
    faults_->setStopAfter(seconds);
}

void GmslImu::setNackAfter(double seconds) {
    faults_->setNackAfter(seconds);
}

eepromMemoryStrc GmslImu::calibrationImage() const {
    std::vector<uint8_t> bytes;
    for (const auto& block : blocks_) {
        if (!block)
            return eepromMemoryStrc{};
        const std::vector<uint8_t> contents = block->contents();
        bytes.insert(bytes.end(), contents.begin(), contents.end());
    }
    return imageFromBytes(bytes);
}

void GmslImu::setCalibrationImage(const eepromMemoryStrc& image) {
    const std::vector<uint8_t> bytes = imageBytes(image);
    for (size_t b = 0; b < blocks_.size(); ++b) {
        if (!blocks_[b])
            continue;
        const size_t from = b * 256;
        const size_t to = std::min(bytes.size(), from + 256);
        blocks_[b]->setContents(0, std::vector<uint8_t>(bytes.begin() + static_cast<std::ptrdiff_t>(from),
                                                        bytes.begin() + static_cast<std::ptrdiff_t>(to)));
    }
}

std::shared_ptr<RegisterChip> GmslImu::imageBlock(int index) const {
    if (index < 0 || index >= kCalibrationImageBlocks)
        return nullptr;
    return blocks_[static_cast<size_t>(index)];
}

std::shared_ptr<GmslImu> attachGmslImu(Machine& machine, int bus, int eepromAddress, uint32_t serial,
                                       const GmslImuConfig& config) {
    if (eepromAddress < 0x03 || eepromAddress + kCalibrationImageBlocks > 0x77)
        throw std::invalid_argument("camera EEPROM address " + hex(eepromAddress) +
                                    " leaves no room for the calibration image (0x03..0x74)");
    auto slot = slotOf(machine, bus);
    std::lock_guard<std::mutex> lock(slot->mutex);
    if (slot->imu)
        throw std::invalid_argument("bus " + std::to_string(bus) + " has an inertial chip already");
    auto i2c = machine.i2cBus(bus);
    if (config.present) {
        requireFree(*i2c, GmslImu::kAccelAddress, "accelerometer");
        requireFree(*i2c, GmslImu::kGyroAddress, "gyroscope");
    }
    if (config.image != CalibrationImageKind::Absent) {
        for (int b = 0; b < kCalibrationImageBlocks; ++b)
            requireFree(*i2c, eepromAddress + 1 + b, "calibration image");
    }
    slot->imu = std::make_shared<GmslImu>(machine, bus, eepromAddress, serial, config);
    return slot->imu;
}

}  // namespace sim
