#pragma once

// Reader of the inertial chip of a GMSL camera. The chip sits on the camera's
// I2C bus beside its EEPROM, with no MCU in between: the host programs it,
// reads the gyroscope's FIFO and the accelerometer's data registers in two
// threads, stamps every sample with the host's monotonic clock (the clock of
// the image times too), and a third thread resamples the accelerometer onto
// the gyroscope's times. The sensor engine sees the same interface as on USB.
//
// Host time: samples carry monotonic microseconds (getCurrentMCUTimeStamp);
// getCurrentBHIMUTimestamp gives the same instant on the wall clock, in
// nanoseconds, as the camera's image times are.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "bh_input/mcu/IMU/IMUGMSLReaderQueue.h"
#include "bh_input/mcu/IMU/VirtualIMUReader.h"
#include "bh_input/mcu/IMU/bmi08x.h"

// A merged sample: the gyroscope's reading and the accelerometer resampled at
// its time (microseconds of the monotonic clock); sync 1 marks a sample
// during which a camera frame started.
struct bmi08x_full_sensor_data {
    int16_t gyro_x = 0;
    int16_t gyro_y = 0;
    int16_t gyro_z = 0;
    int16_t acc_x = 0;
    int16_t acc_y = 0;
    int16_t acc_z = 0;
    uint64_t timestamp = 0;
    uint8_t sync = 0;
};

// One step of the merge of a gyroscope sample g with the two oldest
// accelerometer samples a0, a1 (times t0 <= t1):
//  - DropGyro: g is older than a0, nothing can be interpolated for it;
//  - PopAccel: g is younger than a1, a0 is of no more use;
//  - Merge: t0 <= tg <= t1; `out` holds g with the interpolated accelerometer.
enum class GMSLMergeAction : uint8_t { DropGyro, PopAccel, Merge };
GMSLMergeAction gmslMergeStep(const bmi08x_sensor_data& gyro, const bmi08x_sensor_data& acc0,
                              const bmi08x_sensor_data& acc1, bmi08x_full_sensor_data& out);

class IMUGMSLReader : public VirtualIMUReader {
public:
    // Accelerometer range in g and gyroscope range in degrees per second, as
    // the chip's range registers number them.
    enum ScaleAcc : uint8_t { ACC_3G = 0, ACC_6G = 1, ACC_12G = 2, ACC_24G = 3 };
    enum ScaleGyro : uint8_t {
        GYRO_2000DPS = 0,
        GYRO_1000DPS = 1,
        GYRO_500DPS = 2,
        GYRO_250DPS = 3,
        GYRO_125DPS = 4
    };

    static constexpr uint8_t ACCEL_I2C_ADDRESS = 0x18;
    static constexpr uint8_t GYRO_I2C_ADDRESS = 0x68;
    // The engine picks its calibration records and the rate write by firmware
    // version: this value takes the newest branches (extended records with
    // their cross-axis terms, rate write accepted).
    static constexpr int32_t FIRMWARE_VERSION = 0x0400;
    static constexpr uint32_t PERIOD_US_400HZ = 2500;
    static constexpr uint32_t PERIOD_US_200HZ = 5000;  // when the rate field is 1
    static constexpr int FIFO_FRAMES = 6;              // the watermark and one read
    static constexpr int FIFO_BUFFER_BYTES = FIFO_FRAMES * BMI08G_FIFO_FRAME_BYTES;
    static constexpr unsigned IMAGE_EEPROM_OFFSET = 0x100;  // image byte 0 in the EEPROM
    static constexpr unsigned EEPROM_SIZE = 0x400;          // four 256-byte blocks
    static constexpr int EEPROM_READ_CHUNK = 32;
    static constexpr int EEPROM_PAGE = 8;
    static constexpr uint32_t EEPROM_WRITE_CYCLE_US = 5000;
    static constexpr uint32_t POLL_US = 10;
    static constexpr uint32_t TEMPERATURE_EVERY = 100;  // accelerometer samples
    static constexpr size_t QUEUE_LIMIT = 4000;

    IMUGMSLReader(bool verbose, unsigned short vendor_id, unsigned short product_id,
                  bool allow_recording = false, std::string path = "");
    ~IMUGMSLReader() override;

    int open(unsigned int serial, bool recover, bool force) override;
    void close() override;
    bool setRate(_imu_odr rate) override;
    bool enableSIDRecording(float yaw) override;
    bool createSIDRecording(float yaw, std::string path) override;
    bool disableSIDRecording() override;
    void setOptExtQuaternion(float x, float y, float z, float w, float a, float b, float c) override;
    void setRVFFrameTS(uint64_t ts) override;
    uint64_t getRVFFrameTS() override;
    bool updateIMUData(bool long_wait) override;
    bool reset() override;
    uint64_t getDeltaTime_us() override;
    uint64_t getCurrentMCUTimeStamp() override;
    uint64_t getCurrentMCUEnvTimeStamp() override;
    uint64_t getCurrentMCUMagTimeStamp() override;
    float getMappedMagnetoX() override;
    float getMappedMagnetoY() override;
    float getMappedMagnetoZ() override;
    float getEnvTemperature() override;
    float getEnvHumidity() override;
    float getEnvPressure() override;
    float getOnBoardLeftTemperature() override;
    float getOnBoardRightTemperature() override;
    bool sendDFUEnterCommand() override;
    bool sendMcuResetCommand() override;
    bool sendOV580ResetCommand() override;
    bool sendStartDataStreamingCommand() override;
    bool sendStopDataStreamingCommand() override;
    bool isDataStreamEnabled() override;
    bool sendWriteSNCommand(int serial_prefix, int serial_body) override;
    bool sendEraseCommandwithSN(int serial_prefix, int serial_body) override;
    bool sendWriteBiasCommand(float gx, float gy, float gz, float ax, float ay, float az) override;
    bool sendWriteVarianceCommand(float gx, float gy, float gz, float ax, float ay, float az) override;
    bool sendWriteBaromCalibCommand(float scale, float offset) override;
    bool sendWriteKlibCommand(float x, float y, float z) override;
    bool sendWriteExtGyroCalibCommand(_extended_gyro_calib_data& data) override;
    bool sendWriteExtAccCalibCommand(_extended_acc_calib_data& data) override;
    bool sendWriteMagCalibCommand(_mag_calib_data& data) override;
    bool sendWriteCalibMonoCommand(int resolution, int side, calib_mono_data& data) override;
    bool sendWriteCalibStereoCommand(float p0, float p1, float p2, float* block1, float* block2,
                                     float* block3) override;
    bool sendWriteImuFreq(_imu_odr rate) override;
    bool updateEepromMemory(bool read_camera_calib) override;
    bool readEepromSerialNumber(int& serial_prefix, int& serial_body) override;
    bool sendReadDataTimeCommand() override;
    bool sendReadSNCommand() override;
    bool sendReadBiasCommand() override;
    bool sendReadVarianceCommand() override;
    bool sendReadBaromCalibCommand() override;
    bool sendReadKlibCommand() override;
    bool sendReadCalibMonoCommand(int resolution, int side) override;
    bool sendReadCalibStereoCommand() override;
    bool sendReadImuFreq() override;
    bool startImuRetrimming() override;
    int getImuRetrimmingStatus() override;
    eepromMemoryStrc getEepromMemory(bool refresh) override;
    McuSensorReport getSensorData() override;
    bool getDataSavingTime(std::string& text) override;
    uint64_t getCurrentBHIMUTimestamp() override;
    uint64_t getCurrentBHEnvTimestamp() override;
    uint64_t getCurrentBHMagTimestamp() override;
    float getCurrentIMUTemperatureInCelsius(bool nan_if_absent) override;
    void setTSOffset(long offset) override;
    void setSwapLR(int swap) override;

    // ---- the chip
    // Opens the chip on the bus and programs it; false on success.
    bool initImu(int bus);
    int8_t bmi08xInit();
    int8_t bmi08xEnableInterrupt();
    int8_t bmi08xDisableInterrupt();
    void setScale(ScaleAcc acc, ScaleGyro gyro);
    // The chip variant of a camera sub-model.
    static bmi08x_variant variantOfSubModel(uint8_t sub_model);

    // ---- the threads, and one round of each (tests drive the rounds alone)
    void readGyroThreadFunc();
    void readAccThreadFunc();
    void consumeThreadFunc();
    // What the gyroscope thread keeps between FIFO reads.
    struct GyroBatchClock {
        bool have_previous = false;
        uint64_t previous_us = 0;
        uint32_t reads = 0;
    };
    // One poll of the FIFO watermark and, when set, one FIFO read; true when read.
    bool pollGyroOnce(GyroBatchClock& batch);
    // One poll of the accelerometer; true when a sample was taken.
    bool pollAccOnce(uint32_t& count);
    enum class MergeOutcome : uint8_t { Idle, DroppedGyro, PoppedAccel, Merged };
    // One merge step on the queues, waiting up to `wait` for their samples.
    MergeOutcome mergeOnce(std::chrono::microseconds wait);
    // Integer part of a0 + (a1 - a0) x f, within the int16 range; a0 when f is
    // not a number (t0 == t1 == tg).
    static int16_t lerp(int16_t a0, int16_t a1, double f);
    // The sub-model 30/31 mounting: x takes the chip's y, y the chip's -x.
    static void turnAxes(bmi08x_sensor_data& sample);
    // The reader's frame to the stereo camera's, by the swap flag.
    static void toCameraFrame(const bmi08x_full_sensor_data& in, int swap, int16_t gyro[3], int16_t acc[3]);

    // ---- EEPROM
    // The calibration image, read in 32-byte chunks; false on any short read.
    bool readFulli2cSecEeprom(eepromMemoryStrc& image);
    // Writes `size` bytes at `offset` of the EEPROM whose first block answers at
    // `eeprom_base` (block k at eeprom_base + k), page by page, then reads them
    // back; true when they compare equal.
    bool writeInEeprom(unsigned int offset, void* data, int size, unsigned char eeprom_base);

    uint32_t periodUs() const { return period_us.load(); }
    bool threadsJoinable() const;

    // ---- state
    IMUGMSLSampleQueue<bmi08x_sensor_data> gyro_queue{QUEUE_LIMIT};
    IMUGMSLSampleQueue<bmi08x_sensor_data> acc_queue{QUEUE_LIMIT};
    IMUGMSLSampleQueue<bmi08x_full_sensor_data> merged_queue{QUEUE_LIMIT};

    int i2c_bus = -1;
    uint8_t eeprom_address = 0;
    std::string device_path;
    uint8_t fifo_buffer[FIFO_BUFFER_BYTES] = {};
    bmi08x_dev acc_dev;
    bmi08x_dev gyro_dev;
    std::atomic<uint32_t> period_us{PERIOD_US_400HZ};
    _imu_odr rate = IMU_ODR_400;
    std::atomic<uint8_t> run_flag{0};
    ScaleAcc scale_acc = ACC_12G;
    ScaleGyro scale_gyro = GYRO_1000DPS;
    float acc_range_g = 12.f;
    float gyro_range_dps = 1000.f;
    uint8_t version_byte = 0;
    uint8_t sub_model = 0;
    std::atomic<int> swap_lr{0};
    std::atomic<int32_t> temperature_milli{0};
    std::atomic<uint8_t> synchronised{0};  // a sample with the frame-sync mark was seen
    uint8_t interrupts_enabled = 0;
    uint32_t wait_us = 1000;  // the longest updateIMUData(true) waits for a sample
    std::atomic<uint64_t> sample_us{0};
    uint64_t last_sample_us = 0;

    std::mutex sample_mutex;     // current_report
    std::mutex recording_mutex;  // recording file and external quaternion
    std::mutex eeprom_mutex;     // the image
    std::mutex control_mutex;    // open, close, start, stop

private:
    bool findCamera(unsigned int serial, int& bus, uint8_t& address, uint32_t& value);
    int openPlayback();
    bool readIdentification();
    void fillDeviceConfig();
    void applyMeasConfIfIdle();
    void closeChip();
    bool startThreads();
    void joinThreads();
    void publish(const bmi08x_full_sensor_data& sample);
    bool replayNext();
    bool writeImageRecord(size_t image_offset, const void* record, size_t length);
    uint64_t nowUs() const;

    std::thread gyro_thread;
    std::thread acc_thread;
    std::thread consume_thread;
};
