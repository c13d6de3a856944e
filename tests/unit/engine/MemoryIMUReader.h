#pragma once

// A sensors MCU that lives in memory: an EEPROM image, a firmware version, a
// serial number and a sample stream generated on demand. It implements the
// reader interface directly, so the engine can be driven without any HID or
// USB layer (engine tests, the fusion benchmark).

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bh_input/mcu/IMU/VirtualIMUReader.h"

class MemoryIMUReader : public VirtualIMUReader {
public:
    struct Motion {
        int16_t gyro[3] = {0, 0, 0};  // counts, reader frame
        int16_t acc[3] = {0, 0, 0};
    };

    explicit MemoryIMUReader(int firmware = 0x305, int serial_prefix = 2, int serial_body = 123456) {
        std::memset(&device_eeprom, 0, sizeof(device_eeprom));
        std::memset(&eeprom, 0, sizeof(eeprom));
        device_eeprom.serial.id = 0x33;
        device_eeprom.serial.serial_prefix = serial_prefix;
        device_eeprom.serial.serial_body = serial_body;
        device_eeprom.barom_calib.id = 0x40;
        device_eeprom.barom_calib.scale = 1.f;
        device_eeprom.ext_gyro_calib.id = 0x41;
        device_eeprom.ext_acc_calib.id = 0x42;
        for (int i = 0; i < 3; ++i) {
            device_eeprom.ext_gyro_calib.scale[i] = 1.f;
            device_eeprom.ext_acc_calib.scale[i] = 1.f;
        }
        firmware_version = firmware;
        is_lost = 1;
    }

    // What stays readable after the engine has destroyed the reader.
    struct Observed {
        eepromMemoryStrc device_eeprom{};
        std::vector<std::string> calls;
        bool destroyed = false;
    };
    std::shared_ptr<Observed> observed = std::make_shared<Observed>();

    ~MemoryIMUReader() override {
        observed->device_eeprom = device_eeprom;
        observed->calls = calls();
        observed->destroyed = true;
    }

    // ---- knobs
    eepromMemoryStrc device_eeprom;
    int16_t gravity[3] = {-4096, 0, 0};            // still, level camera: reader x points down the image
    std::function<Motion(uint64_t index)> motion;  // adds to the still values
    std::atomic<int> rate_hz{800};                 // written by sendWriteImuFreq while a capture may run
    int sync_every = 0;                            // frame trigger every n samples (0: none)
    int mag_every = 0;                             // magnetometer sample every n samples (0: none)
    int env_every = 0;                             // environment sample every n samples (0: none)
    std::function<float(uint64_t env_index)> pressure_hpa = [](uint64_t i) {
        return 1000.f + 0.01f * (i % 50);
    };
    std::atomic<int64_t> max_samples{-1};  // stop delivering after this many (-1: endless)
    std::atomic<int64_t> fail_after{-1};   // updateIMUData fails from this sample on (-1: never)
    std::atomic<int> pace_us{0};           // real sleep per sample
    bool fail_stop_stream = false;
    bool fail_eeprom_read = false;
    bool stream_on_open = true;
    std::set<std::string> failing_commands;
    std::deque<int> retrim_statuses;  // answers of getImuRetrimmingStatus, last one repeats
    bool dfu_result = true;
    int16_t imu_state_byte = 0;

    // ---- observations
    std::atomic<uint64_t> produced{0};
    std::atomic<uint64_t> update_calls{0};
    std::atomic<int> open_calls{0};
    std::atomic<bool> streaming{false};

    std::vector<std::string> calls() {
        std::lock_guard<std::mutex> lock(calls_mutex);
        return call_log;
    }
    int countCalls(const std::string& name) {
        std::lock_guard<std::mutex> lock(calls_mutex);
        int n = 0;
        for (const auto& c : call_log) {
            n += c == name ? 1 : 0;
        }
        return n;
    }
    void clearCalls() {
        std::lock_guard<std::mutex> lock(calls_mutex);
        call_log.clear();
    }

    bool isLegacy() const { return firmware_version <= 0x300; }
    uint64_t samplePeriodTicks() const { return static_cast<uint64_t>(25600 / rate_hz); }

    // ---- interface
    int open(unsigned int, bool, bool force) override {
        note("open");
        ++open_calls;
        const long long value = static_cast<long long>(device_eeprom.serial.serial_body) +
                                static_cast<long long>(device_eeprom.serial.serial_prefix) * 10000000LL;
        if (failing_commands.count("open")) {
            return -1;
        }
        if (!force && (value == 0 || value == 990123456LL)) {
            return static_cast<int>(value);
        }
        is_open = 1;
        is_closed = 0;
        is_running = 1;
        is_lost = 0;
        serial_number = static_cast<uint32_t>(value);
        streaming = stream_on_open;
        return static_cast<int>(value);
    }
    void close() override {
        note("close");
        is_running = 0;
        is_open = 0;
        is_closed = 1;
        has_new_data = 0;
        streaming = false;
    }
    bool setRate(_imu_odr) override { return true; }
    bool enableSIDRecording(float) override { return false; }
    bool createSIDRecording(float, std::string) override { return false; }
    bool disableSIDRecording() override { return true; }
    void setOptExtQuaternion(float, float, float, float, float, float, float) override {}
    void setRVFFrameTS(uint64_t ts) override { rvf_frame_ts = ts; }
    uint64_t getRVFFrameTS() override { return rvf_frame_ts; }

    bool updateIMUData(bool) override {
        ++update_calls;
        if (!is_running || !streaming) {
            has_new_data = 0;
            std::this_thread::sleep_for(std::chrono::microseconds(50));
            return false;
        }
        const uint64_t index = produced.load();
        const int64_t fail = fail_after.load();
        if (fail >= 0 && static_cast<int64_t>(index) >= fail) {
            has_new_data = 0;
            is_lost = 1;
            return false;
        }
        const int64_t limit = max_samples.load();
        if (limit >= 0 && static_cast<int64_t>(index) >= limit) {
            has_new_data = 0;
            std::this_thread::sleep_for(std::chrono::microseconds(100));
            return false;
        }
        if (const int pace = pace_us.load()) {
            std::this_thread::sleep_for(std::chrono::microseconds(pace));
        }
        fillSample(index);
        produced = index + 1;
        has_new_data = 1;
        return true;
    }

    // Builds sample `index` into the current report (no checks, no sleeps).
    void fillSample(uint64_t index) {
        McuSensorReport& r = current_report;
        r.report_id = isLegacy() ? 0 : 1;
        r.imu_not_valid = 0;
        r.timestamp = 1000 + index * samplePeriodTicks();
        Motion m;
        if (motion) {
            m = motion(index);
        }
        r.gyro_x = m.gyro[0];
        r.gyro_y = m.gyro[1];
        r.gyro_z = m.gyro[2];
        r.acc_x = static_cast<int16_t>(gravity[0] + m.acc[0]);
        r.acc_y = static_cast<int16_t>(gravity[1] + m.acc[1]);
        r.acc_z = static_cast<int16_t>(gravity[2] + m.acc[2]);
        r.sync_capabilities = 1;
        const bool sync = sync_every > 0 && index % static_cast<uint64_t>(sync_every) == 0;
        r.frame_sync = sync ? 1 : 0;
        if (sync) {
            ++r.frame_sync_count;
        }
        sync_event = sync ? 2 : 0;
        r.imu_temperature = 2500;
        r.imu_state = static_cast<uint8_t>(imu_state_byte);
        if (mag_every > 0) {
            const bool fresh = index % static_cast<uint64_t>(mag_every) == 0;
            if (fresh) {
                r.mag_valid = 2;
                r.mag_x = 300;
                r.mag_y = -120;
                r.mag_z = 500;
                mag_ticks = r.timestamp;
                mag_ts = hostNs(index);
            } else if (r.mag_valid == 2) {
                r.mag_valid = 1;
            }
        } else {
            r.mag_valid = 0;
        }
        if (env_every > 0) {
            const bool fresh = index % static_cast<uint64_t>(env_every) == 0;
            if (fresh) {
                r.env_valid = 2;
                env_pressure_hpa = pressure_hpa(index / static_cast<uint64_t>(env_every));
                r.pressure = static_cast<uint32_t>(env_pressure_hpa * 100.f);
                r.env_temperature = 2200;
                r.humidity = 40 * 1024;
                r.temp_cam_left = 3000;
                r.temp_cam_right = 3100;
                env_ticks = r.timestamp;
                env_ts = hostNs(index);
            } else if (r.env_valid == 2) {
                r.env_valid = 1;
            }
        } else {
            r.env_valid = 0;
        }
        last_ticks = r.timestamp;
        delta_us = static_cast<uint64_t>(samplePeriodTicks() * 39.0625);
        current_ts = hostNs(index);
        {
            std::lock_guard<std::mutex> lock(sample_mutex);
            sensor_data = r;
        }
    }

    uint64_t hostNs(uint64_t index) const { return 5000000000ULL + index * (1000000000ULL / rate_hz); }

    bool reset() override { return true; }
    uint64_t getDeltaTime_us() override { return delta_us; }
    uint64_t getCurrentMCUTimeStamp() override {
        return static_cast<uint64_t>(current_report.timestamp * 39.0625);
    }
    uint64_t getCurrentMCUEnvTimeStamp() override { return static_cast<uint64_t>(env_ticks * 39.0625); }
    uint64_t getCurrentMCUMagTimeStamp() override { return static_cast<uint64_t>(mag_ticks * 39.0625); }
    float getMappedMagnetoX() override {
        return current_report.mag_valid ? current_report.mag_x / 16.f : NAN;
    }
    float getMappedMagnetoY() override {
        return current_report.mag_valid ? current_report.mag_y / 16.f : NAN;
    }
    float getMappedMagnetoZ() override {
        return current_report.mag_valid ? current_report.mag_z / 16.f : NAN;
    }
    float getEnvTemperature() override { return current_report.env_valid ? 22.f : NAN; }
    float getEnvHumidity() override { return current_report.env_valid ? 40.f : NAN; }
    float getEnvPressure() override { return current_report.env_valid ? env_pressure_hpa : NAN; }
    float getOnBoardLeftTemperature() override { return current_report.temp_cam_left * 0.01f; }
    float getOnBoardRightTemperature() override { return current_report.temp_cam_right * 0.01f; }

    bool sendDFUEnterCommand() override { return command("sendDFUEnterCommand") && dfu_result; }
    bool sendMcuResetCommand() override { return command("sendMcuResetCommand") && false; }
    bool sendOV580ResetCommand() override { return command("sendOV580ResetCommand"); }
    bool sendStartDataStreamingCommand() override {
        if (!command("sendStartDataStreamingCommand")) {
            return false;
        }
        streaming = true;
        return true;
    }
    bool sendStopDataStreamingCommand() override {
        note("sendStopDataStreamingCommand");
        if (fail_stop_stream) {
            return false;
        }
        if (!isLegacy()) {
            streaming = false;
        }
        return true;
    }
    bool isDataStreamEnabled() override {
        note("isDataStreamEnabled");
        return isLegacy() ? true : streaming.load();
    }
    bool sendWriteSNCommand(int prefix, int body) override {
        if (!command("sendWriteSNCommand"))
            return false;
        device_eeprom.serial.serial_prefix = prefix;
        device_eeprom.serial.serial_body = body;
        return true;
    }
    bool sendEraseCommandwithSN(int prefix, int body) override {
        if (!isLegacy() || !command("sendEraseCommandwithSN"))
            return false;
        std::memset(&device_eeprom, 0xFF, sizeof(device_eeprom));
        device_eeprom.serial.id = 0x33;
        device_eeprom.serial.serial_prefix = prefix;
        device_eeprom.serial.serial_body = body;
        return true;
    }
    bool sendWriteBiasCommand(float gx, float gy, float gz, float ax, float ay, float az) override {
        if (!command("sendWriteBiasCommand"))
            return false;
        device_eeprom.bias = _bias_data{0x34, {gx, gy, gz}, {ax, ay, az}};
        return true;
    }
    bool sendWriteVarianceCommand(float gx, float gy, float gz, float ax, float ay, float az) override {
        if (!command("sendWriteVarianceCommand"))
            return false;
        device_eeprom.variance = variance_data{0x35, {gx, gy, gz}, {ax, ay, az}};
        return true;
    }
    bool sendWriteBaromCalibCommand(float scale, float offset) override {
        if (isLegacy() || !command("sendWriteBaromCalibCommand"))
            return false;
        device_eeprom.barom_calib = _barom_calib_data{0x40, offset, scale};
        return true;
    }
    bool sendWriteKlibCommand(float x, float y, float z) override {
        if (!command("sendWriteKlibCommand"))
            return false;
        device_eeprom.cam_imu = _cam_imu_data{0x36, {x, y, z}};
        return true;
    }
    bool sendWriteExtGyroCalibCommand(_extended_gyro_calib_data& d) override {
        if (firmware_version < 517 || !command("sendWriteExtGyroCalibCommand"))
            return false;
        device_eeprom.ext_gyro_calib = d;
        device_eeprom.ext_gyro_calib.id = 0x41;
        return true;
    }
    bool sendWriteExtAccCalibCommand(_extended_acc_calib_data& d) override {
        if (firmware_version < 517 || !command("sendWriteExtAccCalibCommand"))
            return false;
        device_eeprom.ext_acc_calib = d;
        device_eeprom.ext_acc_calib.id = 0x42;
        return true;
    }
    bool sendWriteMagCalibCommand(_mag_calib_data& d) override {
        if (firmware_version < 0x305 || !command("sendWriteMagCalibCommand"))
            return false;
        device_eeprom.mag_calib = d;
        device_eeprom.mag_calib.id = 0x43;
        return true;
    }
    bool sendWriteCalibMonoCommand(int resolution, int side, calib_mono_data& d) override {
        if (!command("sendWriteCalibMonoCommand"))
            return false;
        const int index = 2 * resolution + side;
        if (index < 0 || index > 7)
            return false;
        device_eeprom.calib_mono[index] = d;
        device_eeprom.calib_mono[index].id = static_cast<uint8_t>(0x37 + index);
        return true;
    }
    bool sendWriteCalibStereoCommand(float p0, float p1, float p2, float* b1, float* b2, float* b3) override {
        if (!command("sendWriteCalibStereoCommand"))
            return false;
        _calib_stereo_data& s = device_eeprom.calib_stereo;
        s.id = 0x3F;
        s.params[0] = p0;
        s.params[1] = p1;
        s.params[2] = p2;
        std::memcpy(s.block1, b1, sizeof(s.block1));
        std::memcpy(s.block2, b2, sizeof(s.block2));
        std::memcpy(s.block3, b3, sizeof(s.block3));
        return true;
    }
    bool sendWriteImuFreq(_imu_odr rate) override {
        note("sendWriteImuFreq");
        if (firmware_version < 0x304 || failing_commands.count("sendWriteImuFreq"))
            return false;
        device_eeprom.imu_odr = _imu_odr_data{0x44, static_cast<uint8_t>(rate)};
        rate_hz = imuOdrToHz(rate);
        return true;
    }
    bool updateEepromMemory(bool read_camera_calib) override {
        note(read_camera_calib ? "updateEepromMemory(true)" : "updateEepromMemory(false)");
        if (fail_eeprom_read || is_lost) {
            return false;
        }
        const eepromMemoryStrc& d = device_eeprom;
        eeprom.serial = d.serial;
        serial_number = static_cast<uint32_t>(d.serial.serial_body + d.serial.serial_prefix * 10000000LL);
        eeprom.bias = d.bias;
        eeprom.variance = d.variance;
        eeprom.cam_imu = d.cam_imu;
        if (read_camera_calib) {
            std::memcpy(eeprom.calib_mono, d.calib_mono, sizeof(d.calib_mono));
            eeprom.calib_stereo = d.calib_stereo;
        }
        if (!isLegacy()) {
            eeprom.barom_calib = d.barom_calib;
        }
        eeprom.ext_gyro_calib = d.ext_gyro_calib;
        eeprom.ext_acc_calib = d.ext_acc_calib;
        if (firmware_version > 0x304)
            eeprom.mag_calib = d.mag_calib;
        if (firmware_version > 0x303)
            eeprom.imu_odr = d.imu_odr;
        return true;
    }
    bool readEepromSerialNumber(int& prefix, int& body) override {
        prefix = eeprom.serial.serial_prefix;
        body = eeprom.serial.serial_body;
        return true;
    }
    bool sendReadDataTimeCommand() override { return command("sendReadDataTimeCommand"); }
    bool sendReadSNCommand() override { return command("sendReadSNCommand"); }
    bool sendReadBiasCommand() override { return command("sendReadBiasCommand"); }
    bool sendReadVarianceCommand() override { return command("sendReadVarianceCommand"); }
    bool sendReadBaromCalibCommand() override { return command("sendReadBaromCalibCommand"); }
    bool sendReadKlibCommand() override { return command("sendReadKlibCommand"); }
    bool sendReadCalibMonoCommand(int, int) override { return command("sendReadCalibMonoCommand"); }
    bool sendReadCalibStereoCommand() override { return command("sendReadCalibStereoCommand"); }
    bool sendReadImuFreq() override { return command("sendReadImuFreq"); }
    bool startImuRetrimming() override {
        note("startImuRetrimming");
        if (isLegacy() || device_eeprom.serial.serial_prefix < 2)
            return false;
        return true;
    }
    int getImuRetrimmingStatus() override {
        note("getImuRetrimmingStatus");
        if (isLegacy() || device_eeprom.serial.serial_prefix < 2)
            return 5;
        if (retrim_statuses.empty())
            return 5;
        const int s = retrim_statuses.front();
        if (retrim_statuses.size() > 1)
            retrim_statuses.pop_front();
        return s;
    }
    eepromMemoryStrc getEepromMemory(bool refresh) override {
        if (refresh)
            updateEepromMemory(true);
        return eeprom;
    }
    McuSensorReport getSensorData() override {
        std::lock_guard<std::mutex> lock(sample_mutex);
        return sensor_data;
    }
    bool getDataSavingTime(std::string& text) override {
        text = "2026/01/01 00:00:00 UTC";
        return !isLegacy();
    }
    uint64_t getCurrentBHIMUTimestamp() override { return current_ts; }
    uint64_t getCurrentBHEnvTimestamp() override { return env_ts; }
    uint64_t getCurrentBHMagTimestamp() override { return mag_ts; }
    float getCurrentIMUTemperatureInCelsius(bool) override { return current_report.imu_temperature * 0.01f; }
    void setTSOffset(long offset) override {
        ts_offset = offset;
        ts_offset_pending = 1;
    }
    void setSwapLR(int) override {}

private:
    void note(const std::string& name) {
        std::lock_guard<std::mutex> lock(calls_mutex);
        call_log.push_back(name);
    }
    bool command(const std::string& name) {
        note(name);
        if (is_lost)
            return false;
        return failing_commands.count(name) == 0;
    }

    float env_pressure_hpa = 0.f;
    std::mutex calls_mutex;
    std::vector<std::string> call_log;
    std::mutex sample_mutex;
};
