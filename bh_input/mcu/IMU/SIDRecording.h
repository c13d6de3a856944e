// Sensor recording file (".sid"): a 712-byte header then 104-byte records,
// little-endian.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "bh_input/mcu/IMU/VirtualIMUReader.h"

#pragma pack(push, 1)
struct sidFileHeader {
    uint32_t version;  // always 1
    uint32_t serial_number;
    float start_yaw;
    eepromMemoryStrc eeprom;
    uint8_t zero[3];
};

struct sidRecord {
    McuSensorReport report;
    uint8_t zero0[2];
    float ext_quaternion[7];  // x, y, z, w and three further values
    uint8_t zero1[4];
    uint64_t frame_ts;
};
#pragma pack(pop)
static_assert(sizeof(sidFileHeader) == 712, "recording header");
static_assert(sizeof(sidRecord) == 104, "recording record");

constexpr uint32_t SID_VERSION = 1;

// Reads a whole recording. Returns false, with a message in `error`, on a
// missing file, a short header or a version other than 1. A trailing partial
// record is ignored and reported in `error` while the result stays true.
bool readSIDFile(const std::string& path, sidFileHeader& header, std::vector<sidRecord>& records,
                 std::string& error);
