#pragma once

// The IMU calibration image that a GMSL camera keeps in the EEPROM blocks
// after its identification block: an eepromMemoryStrc, image byte o at I2C
// address base + 1 + (o >> 8), register o & 0xFF.

#include <cstdint>
#include <vector>

#include "bh_input/mcu/IMU/eepromMemory.h"

namespace sim {

// A plausible factory calibration of a camera: every record passes the
// reader's plausibility checks unchanged; the serial record holds `serial`
// as prefix * 10000000 + body; the rate record holds `imuOdr`.
eepromMemoryStrc makeCalibrationImage(uint32_t serial, uint8_t imuOdr);

// The image as bytes, and back (a shorter vector leaves the rest zero).
std::vector<uint8_t> imageBytes(const eepromMemoryStrc& image);
eepromMemoryStrc imageFromBytes(const std::vector<uint8_t>& bytes);

// Blocks of 256 bytes the image takes (3).
constexpr int kCalibrationImageBlocks = static_cast<int>((sizeof(eepromMemoryStrc) + 255) / 256);

}  // namespace sim
