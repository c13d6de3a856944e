// Abstract reader of the camera's sensors MCU, shared by the USB (HID) and
// GMSL (I2C) back-ends, and the wire types of the MCU's sample stream.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "bh_input/mcu/IMU/MedianFilter.h"
#include "bh_input/mcu/IMU/eepromMemory.h"

// Result of every sensor engine operation.
enum class MCU_STATUS : int {
    SUCCESS = 0,
    NOT_OPEN = 2,
    HID_OPEN_FAILED = 3,
    EEPROM_FAILURE = 4,
    DISCONNECTED = 5,
    FAILURE = 6,
    INVALID_SERIAL = 7,
    NOT_RUNNING = 8,
};

// Text shown for a status; any value outside the table reads "Unknown".
const char* mcuStatusText(int status);
inline const char* mcuStatusText(MCU_STATUS status) {
    return mcuStatusText(static_cast<int>(status));
}

// IMU output data rate. 0, 1, 2 are 100, 200, 400 Hz; 3 and above 800 Hz.
enum _imu_odr : uint8_t {
    IMU_ODR_100 = 0,
    IMU_ODR_200 = 1,
    IMU_ODR_400 = 2,
    IMU_ODR_800 = 3,
};
// The same rate as the capture layer names it; values pass through unchanged.
using IMU_FREQ = _imu_odr;

// Rate in Hz of an _imu_odr value (3 and above: 800).
inline int imuOdrToHz(int odr) {
    return odr <= 0 ? 100 : odr == 1 ? 200 : odr == 2 ? 400 : 800;
}

// Firmware versions (bcdDevice as integer) on which protocol features hang.
namespace mcu_fw {
constexpr int NO_IMU_TEMP_BELOW = 0x204;    // below: no IMU temperature, old raw format
constexpr int ODR_SETTABLE_LEGACY = 0x204;  // legacy firmware that still takes a rate
constexpr int EXT_CALIB_FROM = 0x205;       // extended calibration commands
constexpr int LEGACY_MAX = 0x300;           // at or below: legacy generation
constexpr int FEATURE_FROM = 0x301;         // feature generation
constexpr int ODR_FROM = 0x304;             // rate record 'D'
constexpr int MAG_FROM = 0x305;             // magnetometer calibration record 'C'
constexpr int CROSS_AXIS_ABOVE = 774;       // cross-axis terms honoured above
}  // namespace mcu_fw

#pragma pack(push, 1)
// One sensor sample as it comes off the interrupt stream, 62 bytes, little-endian.
struct McuSensorReport {
    uint8_t report_id;          // 0  1: feature firmware, 0: legacy firmware
    uint8_t imu_not_valid;      // 1  0: fresh inertial reading
    uint64_t timestamp;         // 2  ticks of 39.0625 us
    int16_t gyro_x;             // 10 1000/32768 deg/s a count
    int16_t gyro_y;             // 12
    int16_t gyro_z;             // 14
    int16_t acc_x;              // 16 2^-12 g a count
    int16_t acc_y;              // 18
    int16_t acc_z;              // 20
    uint8_t frame_sync;         // 22 1: carries a frame trigger
    uint8_t sync_capabilities;  // 23 non-zero: trigger visible at all
    uint32_t frame_sync_count;  // 24
    int16_t imu_temperature;    // 28
    uint8_t mag_valid;          // 30 0 none, 1 old, 2 new
    int16_t mag_x;              // 31 1/16 uT a count
    int16_t mag_y;              // 33
    int16_t mag_z;              // 35
    uint8_t reserved_37[5];     // 37 not read
    uint8_t imu_state;          // 42 1: sensor in its own calibrating state
    uint8_t reserved_43[4];     // 43 not read
    uint8_t env_valid;          // 47 0 none, 1 old, 2 new
    int16_t env_temperature;    // 48 0.01 degC a count
    uint32_t pressure;          // 50 0.01 hPa a count
    uint32_t humidity;          // 54 1/1024 % a count
    int16_t temp_cam_left;      // 58 0.01 degC a count
    int16_t temp_cam_right;     // 60 0.01 degC a count
};
#pragma pack(pop)
static_assert(sizeof(McuSensorReport) == 62, "MCU sensor report");

// One MCU tick in microseconds (25.6 kHz counter).
constexpr double MCU_TICK_US = 39.0625;

class VirtualIMUReader {
public:
    VirtualIMUReader() = default;
    VirtualIMUReader(const VirtualIMUReader&) = delete;
    VirtualIMUReader& operator=(const VirtualIMUReader&) = delete;

    virtual ~VirtualIMUReader() = default;
    // Serial number on success, negative on failure, 0 or 990123456 for an
    // unprogrammed MCU that was not forced.
    virtual int open(unsigned int serial, bool recover, bool force) = 0;
    virtual void close() = 0;
    virtual bool setRate(_imu_odr rate) = 0;
    virtual bool enableSIDRecording(float yaw) = 0;
    virtual bool createSIDRecording(float yaw, std::string path) = 0;
    virtual bool disableSIDRecording() = 0;
    virtual void setOptExtQuaternion(float x, float y, float z, float w, float a, float b, float c) = 0;
    virtual void setRVFFrameTS(uint64_t ts) = 0;
    virtual uint64_t getRVFFrameTS() = 0;
    // True when a new inertial sample has been taken in.
    virtual bool updateIMUData(bool long_wait) = 0;
    virtual bool reset() = 0;
    virtual uint64_t getDeltaTime_us() = 0;
    virtual uint64_t getCurrentMCUTimeStamp() = 0;     // microseconds
    virtual uint64_t getCurrentMCUEnvTimeStamp() = 0;  // microseconds
    virtual uint64_t getCurrentMCUMagTimeStamp() = 0;  // microseconds
    virtual float getMappedMagnetoX() = 0;             // uT, NaN without data
    virtual float getMappedMagnetoY() = 0;
    virtual float getMappedMagnetoZ() = 0;
    virtual float getEnvTemperature() = 0;  // degC, NaN without data
    virtual float getEnvHumidity() = 0;     // %
    virtual float getEnvPressure() = 0;     // hPa, median-filtered
    virtual float getOnBoardLeftTemperature() = 0;
    virtual float getOnBoardRightTemperature() = 0;
    virtual bool sendDFUEnterCommand() = 0;
    virtual bool sendMcuResetCommand() = 0;
    virtual bool sendOV580ResetCommand() = 0;
    virtual bool sendStartDataStreamingCommand() = 0;
    virtual bool sendStopDataStreamingCommand() = 0;
    virtual bool isDataStreamEnabled() = 0;
    virtual bool sendWriteSNCommand(int serial_prefix, int serial_body) = 0;
    virtual bool sendEraseCommandwithSN(int serial_prefix, int serial_body) = 0;
    virtual bool sendWriteBiasCommand(float gx, float gy, float gz, float ax, float ay, float az) = 0;
    virtual bool sendWriteVarianceCommand(float gx, float gy, float gz, float ax, float ay, float az) = 0;
    virtual bool sendWriteBaromCalibCommand(float scale, float offset) = 0;
    virtual bool sendWriteKlibCommand(float x, float y, float z) = 0;
    virtual bool sendWriteExtGyroCalibCommand(_extended_gyro_calib_data& data) = 0;
    virtual bool sendWriteExtAccCalibCommand(_extended_acc_calib_data& data) = 0;
    virtual bool sendWriteMagCalibCommand(_mag_calib_data& data) = 0;
    virtual bool sendWriteCalibMonoCommand(int resolution, int side, calib_mono_data& data) = 0;
    virtual bool sendWriteCalibStereoCommand(float p0, float p1, float p2, float* block1, float* block2,
                                             float* block3) = 0;
    virtual bool sendWriteImuFreq(_imu_odr rate) = 0;
    virtual bool updateEepromMemory(bool read_camera_calib) = 0;
    virtual bool readEepromSerialNumber(int& serial_prefix, int& serial_body) = 0;
    virtual bool sendReadDataTimeCommand() = 0;
    virtual bool sendReadSNCommand() = 0;
    virtual bool sendReadBiasCommand() = 0;
    virtual bool sendReadVarianceCommand() = 0;
    virtual bool sendReadBaromCalibCommand() = 0;
    virtual bool sendReadKlibCommand() = 0;
    virtual bool sendReadCalibMonoCommand(int resolution, int side) = 0;
    virtual bool sendReadCalibStereoCommand() = 0;
    virtual bool sendReadImuFreq() = 0;
    virtual bool startImuRetrimming() = 0;
    virtual int getImuRetrimmingStatus() = 0;
    virtual eepromMemoryStrc getEepromMemory(bool refresh) = 0;
    virtual McuSensorReport getSensorData() = 0;
    virtual bool getDataSavingTime(std::string& text) = 0;
    virtual uint64_t getCurrentBHIMUTimestamp() = 0;  // host nanoseconds
    virtual uint64_t getCurrentBHEnvTimestamp() = 0;
    virtual uint64_t getCurrentBHMagTimestamp() = 0;
    virtual float getCurrentIMUTemperatureInCelsius(bool nan_if_absent) = 0;
    virtual void setTSOffset(long offset) = 0;
    virtual void setSwapLR(int swap) = 0;

    // Reader state, shared by all back-ends (plain data, in this order). The flags
    // read by other threads without a lock are atomics (relaxed is enough).
    McuSensorReport current_report{};
    McuSensorReport sensor_data{};  // copy handed out by getSensorData
    std::atomic<uint8_t> is_open{0};
    std::atomic<uint8_t> is_closed{1};
    std::atomic<uint8_t> is_running{0};
    std::atomic<uint8_t> has_new_data{0};
    uint8_t verbose = 0;
    std::atomic<uint8_t> is_lost{1};
    uint8_t is_replay = 0;
    int32_t firmware_version = 0;
    uint32_t serial_number = 0;
    uint16_t vendor_id = 0;
    uint16_t product_id = 0;
    int32_t ntp_count = 0;
    double clock_ratio = 1.0;
    FILE* replay_file = nullptr;
    int32_t sync_event = 0;
    uint64_t rvf_frame_ts = 0;
    eepromMemoryStrc eeprom{};

    // Recording ("./imu.sid" by default).
    uint8_t allow_recording = 0;
    std::atomic<uint8_t> is_recording{0};
    std::string sid_path;
    FILE* sid_file = nullptr;
    float ext_quaternion[7] = {0, 0, 0, 0, 0, 0, 0};
    float start_yaw = 0.f;

    // MCU tick to host time.
    uint64_t accumulated_ts_offset = 0;  // ticks
    uint64_t last_ticks = 0;             // ticks
    uint64_t delta_us = 0;
    uint64_t mcu_time_ns = 0;
    uint64_t current_ts = 0;  // host ns of the current sample
    uint64_t env_ts = 0;
    uint64_t mag_ts = 0;
    uint64_t env_ticks = 0;
    uint64_t mag_ticks = 0;
    uint64_t sync_ticks = 0;
    std::vector<uint64_t> mcu_sync_times;
    std::vector<uint64_t> host_sync_times;
    int64_t ts_offset = 0;
    uint8_t ts_offset_pending = 0;
    uint8_t ts_locked = 0;
    uint32_t last_frame_sync_count = 0;
    uint32_t sample_counter = 0;

    // Slow sensors: last values kept.
    uint32_t env_pressure = 0;  // median
    uint32_t env_humidity = 0;
    int16_t env_temperature = 0;
    uint8_t env_stored = 0;  // an environment sample has been stored
    uint8_t mag_stored = 0;  // a magnetometer sample has been stored
    sMedianFilterNode_t pressure_nodes[5];
    sMedianFilter_t pressure_filter{};
};
