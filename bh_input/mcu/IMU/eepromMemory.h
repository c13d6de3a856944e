// The host's mirror of the sensors MCU EEPROM: a flat sequence of fixed records,
// each exactly one HID report as it comes over the wire (report id included).
// Packed, little-endian; every record sits at a fixed offset in the image.
#pragma once

#include <cstddef>
#include <cstdint>

#pragma pack(push, 1)

// Serial record, feature id 0x33, legacy id 1. The camera's serial number is
// serial_body + serial_prefix * 10000000; serial_prefix doubles as hardware generation.
struct _serial_data {
    uint8_t id;
    int32_t serial_prefix;
    int32_t serial_body;
};

// Bias record, feature id 0x34, legacy id 2.
struct _bias_data {
    uint8_t id;
    float gyro_bias[3];  // x, y, z
    float acc_bias[3];   // x, y, z
};

// Variance record, feature id 0x35, legacy id 3.
struct variance_data {
    uint8_t id;
    float gyro_var[3];
    float acc_var[3];
};

// Camera to IMU rotation as a rotation vector, feature id 0x36, legacy id 4.
struct _cam_imu_data {
    uint8_t id;
    float rot[3];
};

// One imager at one resolution, feature id 0x37 + index, legacy id 5 + index,
// index = 2 x resolution + side. Copied in and out without interpretation.
struct calib_mono_data {
    uint8_t id;
    float values[12];
};

// Stereo calibration, feature id 0x3F, legacy id 13. Copied without interpretation.
struct _calib_stereo_data {
    uint8_t id;
    float params[3];
    float block1[4];
    float block2[4];
    float block3[4];
};

// Barometer calibration, feature id 0x40. calibrated = scale * pressure + offset.
struct _barom_calib_data {
    uint8_t id;
    float offset;
    float scale;
};

// Extended gyroscope calibration, feature id 0x41, legacy id 14.
// misalign[] maps to matrix elements (1,0) (2,0) (0,1) (2,1) (0,2) (1,2).
struct _extended_gyro_calib_data {
    uint8_t id;
    float scale[3];
    float misalign[6];
    float bias[3];
    float temp_scale[3];
};

// Extended accelerometer calibration, feature id 0x42, legacy id 15.
// misalign[] maps to matrix elements (1,0) (2,0) (2,1): lower triangular.
struct _extended_acc_calib_data {
    uint8_t id;
    float scale[3];
    float misalign[3];
    float bias[3];
    float temp_scale[3];
};

// Magnetometer calibration, feature id 0x43. calibrated = (raw - offset) * scale.
struct _mag_calib_data {
    uint8_t id;
    float scale[3];
    float offset[3];
};

// IMU output data rate, feature id 0x44 (an _imu_odr value).
struct _imu_odr_data {
    uint8_t id;
    uint8_t odr;
};

// Date of the last calibration write, feature id 0x45. Text "%Y/%m/%d %H:%M:%S UTC",
// not terminated when it fills the field.
struct _date_time_data {
    uint8_t id;
    uint8_t valid;
    char text[24];
};

struct eepromMemoryStrc {
    _serial_data serial;                       // 0
    _bias_data bias;                           // 9
    variance_data variance;                    // 34
    _cam_imu_data cam_imu;                     // 59
    calib_mono_data calib_mono[8];             // 72
    _calib_stereo_data calib_stereo;           // 464
    _barom_calib_data barom_calib;             // 525
    _extended_gyro_calib_data ext_gyro_calib;  // 534
    _extended_acc_calib_data ext_acc_calib;    // 595
    _mag_calib_data mag_calib;                 // 644
    _imu_odr_data imu_odr;                     // 669
    _date_time_data date_time;                 // 671
};

#pragma pack(pop)

static_assert(sizeof(_serial_data) == 9, "serial record");
static_assert(sizeof(_bias_data) == 25, "bias record");
static_assert(sizeof(variance_data) == 25, "variance record");
static_assert(sizeof(_cam_imu_data) == 13, "camera to IMU record");
static_assert(sizeof(calib_mono_data) == 49, "mono record");
static_assert(sizeof(_calib_stereo_data) == 61, "stereo record");
static_assert(sizeof(_barom_calib_data) == 9, "barometer record");
static_assert(sizeof(_extended_gyro_calib_data) == 61, "extended gyro record");
static_assert(sizeof(_extended_acc_calib_data) == 49, "extended acc record");
static_assert(sizeof(_mag_calib_data) == 25, "magnetometer record");
static_assert(sizeof(_imu_odr_data) == 2, "rate record");
static_assert(sizeof(_date_time_data) == 26, "date record");
static_assert(sizeof(eepromMemoryStrc) == 697, "EEPROM image");

// Report ids of the records (feature generation) and their legacy ids.
namespace mcu_id {
constexpr uint8_t CMD = 0x21;         // '!' reset / DFU / retrimming
constexpr uint8_t OV580 = 0x22;       // '"' video bridge reset
constexpr uint8_t RETRIM = 0x25;      // '%' retrimming status
constexpr uint8_t STREAM = 0x32;      // '2' stream state, ping
constexpr uint8_t SERIAL = 0x33;      // '3'
constexpr uint8_t BIAS = 0x34;        // '4'
constexpr uint8_t VARIANCE = 0x35;    // '5'
constexpr uint8_t CAM_IMU = 0x36;     // '6'
constexpr uint8_t MONO_FIRST = 0x37;  // '7' .. '>'
constexpr uint8_t STEREO = 0x3F;      // '?'
constexpr uint8_t BAROM = 0x40;       // '@'
constexpr uint8_t EXT_GYRO = 0x41;    // 'A'
constexpr uint8_t EXT_ACC = 0x42;     // 'B'
constexpr uint8_t MAG = 0x43;         // 'C'
constexpr uint8_t ODR = 0x44;         // 'D'
constexpr uint8_t DATE = 0x45;        // 'E'

constexpr uint8_t LEGACY_SERIAL = 1;
constexpr uint8_t LEGACY_BIAS = 2;
constexpr uint8_t LEGACY_VARIANCE = 3;
constexpr uint8_t LEGACY_CAM_IMU = 4;
constexpr uint8_t LEGACY_MONO_FIRST = 5;
constexpr uint8_t LEGACY_STEREO = 13;
constexpr uint8_t LEGACY_EXT_GYRO = 14;
constexpr uint8_t LEGACY_EXT_ACC = 15;

// Mono calibration: index = 2 x resolution + side (0..7).
constexpr int monoIndex(int resolution, int side) {
    return 2 * resolution + side;
}
constexpr uint8_t monoFeatureId(int resolution, int side) {
    return static_cast<uint8_t>(MONO_FIRST + monoIndex(resolution, side));
}
constexpr uint8_t monoLegacyId(int resolution, int side) {
    return static_cast<uint8_t>(LEGACY_MONO_FIRST + monoIndex(resolution, side));
}
constexpr uint8_t monoLegacyWriteCode(int resolution, int side) {
    return static_cast<uint8_t>(0xA5 + monoIndex(resolution, side));
}
constexpr uint8_t monoLegacyReadCode(int resolution, int side) {
    return static_cast<uint8_t>(0xE5 + monoIndex(resolution, side));
}
}  // namespace mcu_id

// Offset and length of the record that a feature report id maps to in the image;
// false for ids that are not records of the image.
bool eepromRecordOf(uint8_t feature_id, size_t& offset, size_t& length);
