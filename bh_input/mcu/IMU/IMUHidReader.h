// Reader of the USB cameras' sensors MCU over HID: both protocol generations
// (feature reports above firmware 0x300, output/input reports at or below), the
// EEPROM mirror, the sample stream and its clock, recording, USB recovery.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

#include "bh_input/mcu/IMU/VirtualIMUReader.h"

struct hid_device_;
typedef struct hid_device_ hid_device;

// Clears a stalled or claimed MCU at the USB level. `hid_path` is a HID
// enumeration path "bus:address:interface" in hexadecimal. 0 when done or when
// no such device exists, otherwise the libusb error code. A path without exactly
// three fields does nothing and returns 0; bus or address fields that are not
// hexadecimal numbers are logged and give LIBUSB_ERROR_INVALID_PARAM (-2).
int mcu_usb_recover(const char* hid_path);

// Status replies of the retrimming status report.
constexpr int IMU_RETRIM_DONE = 3;
constexpr int IMU_RETRIM_ABORTED_MOVED = 4;
constexpr int BMI270_CRT_ERROR = 5;

class IMUHidReader : public VirtualIMUReader {
public:
    IMUHidReader(bool verbose, uint16_t vendor_id, uint16_t product_id, bool allow_recording = false,
                 std::string path = "./imu.sid");
    ~IMUHidReader() override;

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

    // Transport (feature generation).
    bool readReportCommand(uint8_t* buf, size_t len);
    bool writeReportCommand(uint8_t* buf, size_t len);
    // Transport (legacy generation).
    int tryWrite(hid_device* dev, uint8_t* buf);
    int tryRead(hid_device* dev, uint8_t* buf, size_t len);

    bool enableDataStream(bool enable);
    bool sendPing();
    bool writeCurrentDataTime();
    bool readEepromFeatRep(bool read_camera_calib);
    bool readEepromEx();

    bool isLegacy() const { return firmware_version <= mcu_fw::LEGACY_MAX; }

    hid_device* handle = nullptr;
    std::string device_path;
    uint8_t tx_buffer[65] = {};  // 64-byte transmit buffer and the zero byte behind it
    uint8_t rx_buffer[65] = {};
    uint8_t stream_buffer[64] = {};  // last report off the interrupt stream
    int32_t reopen_failures = 0;

    std::mutex device_mutex;
    std::mutex sample_mutex;
    std::mutex recording_mutex;

private:
    bool legacyRead(uint8_t cls, uint8_t code, uint8_t legacy_id, uint8_t* record, size_t len);
    bool legacyWrite(uint8_t cls, uint8_t code, uint8_t legacy_id, uint8_t* record, size_t len,
                     int compare_offset, bool strict_write);
    bool featureWrite(uint8_t* record, size_t len, bool stamp_date);
    void processTimestamps(bool imu_valid);
};
