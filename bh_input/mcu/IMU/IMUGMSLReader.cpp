// Lifecycle of the GMSL inertial reader: the camera search on the I2C buses,
// the chip's programming, start and stop of the three threads, the samples
// handed to the sensor engine, playback and recording, and the commands that
// have no meaning without an MCU.
#include "bh_input/mcu/IMU/IMUGMSLReader.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "bh_input/grabber/gmsl/ArgusCamera.h"
#include "bh_input/grabber/gmsl/I2CHandler.h"
#include "bh_input/mcu/IMU/SIDRecording.h"
#include "platform/Clock.h"

namespace {

uint32_t littleEndian32(const uint8_t* b) {
    return static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
           static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24;
}

// Microseconds to the report's 39.0625-us ticks (x 16 / 625), and back.
uint64_t usToTicks(uint64_t us) {
    return us / 625u * 16u + (us % 625u) * 16u / 625u;
}
uint64_t ticksToUs(uint64_t ticks) {
    return ticks * 39u + ticks / 16u;
}

constexpr int kRetrimUnavailable = 5;  // the retrimming status "failed / not available"

}  // namespace

// ---------------------------------------------------------------------------
// Construction

IMUGMSLReader::IMUGMSLReader(bool verbose_, unsigned short vendor_id_, unsigned short product_id_,
                             bool allow_recording_, std::string path) {
    verbose = verbose_ ? 1 : 0;
    vendor_id = vendor_id_;
    product_id = product_id_;
    allow_recording = allow_recording_ ? 1 : 0;
    sid_path = path;
    firmware_version = FIRMWARE_VERSION;
    std::memset(fifo_buffer, 0, sizeof(fifo_buffer));
    // The file mode of the readers: a recording is played back instead of a chip.
    if (vendor_id == 11011 && product_id == 1 && !path.empty()) {
        replay_file = std::fopen(path.c_str(), "rb");
        if (replay_file)
            is_replay = 1;
    }
}

IMUGMSLReader::~IMUGMSLReader() {
    close();
    if (replay_file) {
        std::fclose(replay_file);
        replay_file = nullptr;
    }
}

uint64_t IMUGMSLReader::nowUs() const {
    return static_cast<uint64_t>(platform::clock().steadyNanoseconds() / 1000);
}

// ---------------------------------------------------------------------------
// Open and close

bool IMUGMSLReader::findCamera(unsigned int serial, int& bus, uint8_t& address, uint32_t& value) {
    for (int candidate : bh::gmsl_i2c_bus_index) {
        const int fd = i2c_open(static_cast<unsigned>(candidate));
        if (fd < 0)
            continue;
        for (int eeprom : bh::eeprom_adress_list) {
            uint8_t raw[4] = {};
            if (i2c_read(fd, static_cast<uint8_t>(eeprom), 0, raw, sizeof(raw)) != 0)
                continue;
            const uint32_t found = littleEndian32(raw);
            if (serial == 0 || found == serial) {
                i2c_close(fd);
                bus = candidate;
                address = static_cast<uint8_t>(eeprom);
                value = found;
                return true;
            }
        }
        i2c_close(fd);
    }
    return false;
}

int IMUGMSLReader::openPlayback() {
    sidFileHeader header{};
    std::rewind(replay_file);
    if (std::fread(&header, 1, sizeof(header), replay_file) != sizeof(header)) {
        std::printf("[IMUGMSL] Recording too short for its header (%zu bytes)\n", sizeof(header));
        return -1;
    }
    if (header.version != SID_VERSION) {
        std::printf("[IMUGMSL] Recording of version %u, only version %u is read\n", header.version,
                    SID_VERSION);
        return -1;
    }
    serial_number = header.serial_number;
    start_yaw = header.start_yaw;
    {
        std::lock_guard<std::mutex> lock(eeprom_mutex);
        eeprom = header.eeprom;
    }
    is_open = 1;
    is_closed = 0;
    is_running = 1;
    is_lost = 0;
    return static_cast<int>(serial_number);
}

int IMUGMSLReader::open(unsigned int serial, bool, bool) {
    close();
    std::lock_guard<std::mutex> control(control_mutex);
    if (is_replay)
        return openPlayback();
    if (serial == static_cast<unsigned int>(-1)) {
        std::printf("[IMUGMSL][CRITICAL] Wrong Serial Number -- Camera Not Configured\n");
        return -1;
    }
    int bus = -1;
    uint8_t address = 0;
    uint32_t value = 0;
    if (!findCamera(serial, bus, address, value)) {
        if (verbose)
            std::printf("[IMUGMSL] No camera EEPROM with serial number %u on the I2C buses\n", serial);
        return -1;
    }
    eeprom_address = address;
    if (initImu(bus)) {
        std::printf("[IMUGMSL] Inertial chip on %s does not answer\n", device_path.c_str());
        return -2;
    }
    serial_number = value;
    firmware_version = FIRMWARE_VERSION;
    wait_us = 1000;
    is_open = 1;
    is_closed = 0;
    is_running = 1;
    is_lost = 0;
    return static_cast<int>(value);
}

void IMUGMSLReader::close() {
    std::lock_guard<std::mutex> control(control_mutex);
    joinThreads();
    if (interrupts_enabled && gyro_dev.fd >= 0)
        bmi08x_error_codes_print_result("bmi08xDisableInterrupt", bmi08xDisableInterrupt());
    closeChip();
    disableSIDRecording();
    gyro_queue.clear();
    acc_queue.clear();
    merged_queue.clear();
    if (is_open)
        is_closed = 1;
    is_open = 0;
    is_running = 0;
    has_new_data = 0;
}

void IMUGMSLReader::closeChip() {
    i2c_close(acc_dev.fd);
    i2c_close(gyro_dev.fd);
    acc_dev.fd = -1;
    gyro_dev.fd = -1;
    interrupts_enabled = 0;
}

// ---------------------------------------------------------------------------
// The chip

bmi08x_variant IMUGMSLReader::variantOfSubModel(uint8_t) {
    // Every camera of the family carries the +-24 g part (accelerometer id 0x1E).
    return BMI08X_VARIANT_BMI088;
}

bool IMUGMSLReader::readIdentification() {
    const int fd = i2c_open(static_cast<unsigned>(i2c_bus));
    uint8_t ident[2] = {};
    const bool ok = fd >= 0 && i2c_read(fd, eeprom_address, 4, ident, sizeof(ident)) == 0;
    i2c_close(fd);
    version_byte = ok ? ident[0] : 0;
    sub_model = ok ? ident[1] : 0;
    if (!ok)
        std::printf("[IMUGMSL] Camera identification unreadable on %s\n", device_path.c_str());
    return ok;
}

void IMUGMSLReader::fillDeviceConfig() {
    const bool slow = rate == IMU_ODR_200;
    acc_dev.accel_cfg.power = BMI08A_PM_ACTIVE;
    acc_dev.accel_cfg.range = scale_acc;
    acc_dev.accel_cfg.bw = BMI08A_BW_NORMAL;
    acc_dev.accel_cfg.odr = slow ? BMI08A_ODR_100_HZ : BMI08A_ODR_200_HZ;
    gyro_dev.gyro_cfg.power = BMI08G_PM_NORMAL;
    gyro_dev.gyro_cfg.range = scale_gyro;
    gyro_dev.gyro_cfg.bw = BMI08G_ODR_400_BW_47;
    gyro_dev.gyro_cfg.odr = slow ? BMI08G_ODR_200_BW_23 : BMI08G_ODR_400_BW_47;
}

bool IMUGMSLReader::initImu(int bus) {
    closeChip();
    i2c_bus = bus;
    device_path = "/dev/i2c-" + std::to_string(bus);
    readIdentification();

    const int gyro_fd = i2c_open(static_cast<unsigned>(bus));
    const int acc_fd = i2c_open(static_cast<unsigned>(bus));
    const bmi08x_variant variant = variantOfSubModel(sub_model);
    int8_t rslt = bmi08x_interface_init(&gyro_dev, BMI08X_INTF_I2C, gyro_fd, GYRO_I2C_ADDRESS, variant);
    if (rslt == BMI08X_OK)
        rslt = bmi08x_interface_init(&acc_dev, BMI08X_INTF_I2C, acc_fd, ACCEL_I2C_ADDRESS, variant);
    if (rslt != BMI08X_OK || gyro_fd < 0 || acc_fd < 0) {
        i2c_close(gyro_fd);
        i2c_close(acc_fd);
        gyro_dev.fd = acc_dev.fd = -1;
        return true;
    }
    fillDeviceConfig();
    if (bmi08xInit() != BMI08X_OK || bmi08xEnableInterrupt() != BMI08X_OK) {
        closeChip();
        return true;
    }
    return false;
}

int8_t IMUGMSLReader::bmi08xInit() {
    int8_t rslt = bmi08x_error_codes_print_result("bmi08a_init", bmi08a_init(&acc_dev));
    if (rslt != BMI08X_OK)
        return rslt;
    rslt = bmi08x_error_codes_print_result("bmi08g_init", bmi08g_init(&gyro_dev));
    if (rslt != BMI08X_OK)
        return rslt;
    // Every start from the reset values, whatever a previous run left; the
    // later steps all run, the first failure is the result.
    const int8_t steps[] = {
        bmi08x_error_codes_print_result("bmi08a_soft_reset", bmi08a_soft_reset(&acc_dev)),
        bmi08x_error_codes_print_result("bmi08g_soft_reset", bmi08g_soft_reset(&gyro_dev)),
        bmi08x_error_codes_print_result("bmi08a_set_power_mode", bmi08a_set_power_mode(&acc_dev)),
        bmi08x_error_codes_print_result("bmi08a_set_meas_conf", bmi08a_set_meas_conf(&acc_dev)),
        bmi08x_error_codes_print_result("bmi08g_set_power_mode", bmi08g_set_power_mode(&gyro_dev)),
        bmi08x_error_codes_print_result("bmi08g_set_meas_conf", bmi08g_set_meas_conf(&gyro_dev)),
    };
    for (int8_t step : steps) {
        if (step != BMI08X_OK)
            return step;
    }
    return BMI08X_OK;
}

int8_t IMUGMSLReader::bmi08xEnableInterrupt() {
    bmi08x_int_cfg gyro_int;
    gyro_int.channel = BMI08X_INT_CHANNEL_4;
    gyro_int.kind = BMI08X_INT_FIFO;
    gyro_int.enable = 1;
    gyro_int.pin.active_high = 1;
    gyro_int.pin.open_drain = 0;
    bmi08g_fifo_config fifo;
    fifo.mode = BMI08G_FIFO_MODE_STREAM;
    fifo.data_select = BMI08G_FIFO_DATA_XYZ;
    fifo.watermark = FIFO_FRAMES;
    fifo.ext_sync = 1;        // the camera's frame-start line
    fifo.ext_sync_input = 0;  // on INT3
    bmi08x_int_cfg acc_int;
    acc_int.channel = BMI08X_INT_CHANNEL_1;
    acc_int.kind = BMI08X_INT_DATA_READY;
    acc_int.enable = 1;
    acc_int.pin.output_enable = 1;
    acc_int.pin.open_drain = 0;
    acc_int.pin.active_high = 1;

    const int8_t steps[] = {
        bmi08x_error_codes_print_result("bmi08g_set_int_config", bmi08g_set_int_config(&gyro_dev, &gyro_int)),
        bmi08x_error_codes_print_result("bmi08g_enable_watermark", bmi08g_enable_watermark(&gyro_dev, 1)),
        bmi08x_error_codes_print_result("bmi08g_set_fifo_config", bmi08g_set_fifo_config(&gyro_dev, &fifo)),
        bmi08x_error_codes_print_result("bmi08a_set_int_config", bmi08a_set_int_config(&acc_dev, &acc_int)),
    };
    for (int8_t step : steps) {
        if (step != BMI08X_OK)
            return step;
    }
    interrupts_enabled = 1;
    return BMI08X_OK;
}

int8_t IMUGMSLReader::bmi08xDisableInterrupt() {
    interrupts_enabled = 0;
    return bmi08g_enable_watermark(&gyro_dev, 0);
}

void IMUGMSLReader::applyMeasConfIfIdle() {
    // The threads own the descriptors while they run: a change waits for the
    // next start.
    if (!is_open || is_replay || run_flag || acc_dev.fd < 0)
        return;
    const bmi08x_cfg acc_before = acc_dev.accel_cfg;
    const bmi08x_cfg gyro_before = gyro_dev.gyro_cfg;
    fillDeviceConfig();
    if (acc_before.odr != acc_dev.accel_cfg.odr || acc_before.range != acc_dev.accel_cfg.range)
        bmi08x_error_codes_print_result("bmi08a_set_meas_conf", bmi08a_set_meas_conf(&acc_dev));
    if (gyro_before.odr != gyro_dev.gyro_cfg.odr || gyro_before.range != gyro_dev.gyro_cfg.range)
        bmi08x_error_codes_print_result("bmi08g_set_meas_conf", bmi08g_set_meas_conf(&gyro_dev));
}

bool IMUGMSLReader::setRate(_imu_odr value) {
    std::lock_guard<std::mutex> control(control_mutex);
    rate = value;
    period_us = value == IMU_ODR_200 ? PERIOD_US_200HZ : PERIOD_US_400HZ;
    applyMeasConfIfIdle();
    return true;
}

bool IMUGMSLReader::sendWriteImuFreq(_imu_odr value) {
    // No record to write: the host programs the chip's rates itself.
    return setRate(value);
}

void IMUGMSLReader::setScale(ScaleAcc acc, ScaleGyro gyro) {
    static const float kAccRange[] = {3.f, 6.f, 12.f, 24.f};
    static const float kGyroRange[] = {2000.f, 1000.f, 500.f, 250.f, 125.f};
    std::lock_guard<std::mutex> control(control_mutex);
    if (acc > ACC_24G || gyro > GYRO_125DPS) {
        std::printf("[IMUGMSL] Scale out of range (accelerometer %d, gyroscope %d)\n", acc, gyro);
        return;
    }
    scale_acc = acc;
    scale_gyro = gyro;
    acc_range_g = kAccRange[acc];
    gyro_range_dps = kGyroRange[gyro];
    applyMeasConfIfIdle();
}

// ---------------------------------------------------------------------------
// Streaming

bool IMUGMSLReader::threadsJoinable() const {
    return gyro_thread.joinable() || acc_thread.joinable() || consume_thread.joinable();
}

void IMUGMSLReader::joinThreads() {
    run_flag = 0;
    gyro_queue.wakeAll();
    acc_queue.wakeAll();
    merged_queue.wakeAll();
    for (std::thread* t : {&gyro_thread, &acc_thread, &consume_thread}) {
        if (t->joinable())
            t->join();
    }
}

bool IMUGMSLReader::startThreads() {
    run_flag = 1;
    try {
        gyro_thread = std::thread(&IMUGMSLReader::readGyroThreadFunc, this);
        acc_thread = std::thread(&IMUGMSLReader::readAccThreadFunc, this);
        consume_thread = std::thread(&IMUGMSLReader::consumeThreadFunc, this);
    } catch (const std::system_error& e) {
        std::printf("[IMUGMSL] Cannot start the reading threads: %s\n", e.what());
        joinThreads();
        return false;
    }
    return true;
}

bool IMUGMSLReader::sendStartDataStreamingCommand() {
    std::lock_guard<std::mutex> control(control_mutex);
    if (!is_open)
        return false;
    if (is_replay)
        return true;
    joinThreads();
    // A stop switched the watermark interrupt off: without it the FIFO is
    // never read again.
    if (!interrupts_enabled && bmi08xEnableInterrupt() != BMI08X_OK)
        return false;
    applyMeasConfIfIdle();
    gyro_queue.clear();
    acc_queue.clear();
    merged_queue.clear();
    return startThreads();
}

bool IMUGMSLReader::sendStopDataStreamingCommand() {
    std::lock_guard<std::mutex> control(control_mutex);
    if (!is_open)
        return false;
    if (is_replay)
        return true;
    joinThreads();
    if (interrupts_enabled)
        bmi08x_error_codes_print_result("bmi08xDisableInterrupt", bmi08xDisableInterrupt());
    return true;
}

bool IMUGMSLReader::isDataStreamEnabled() {
    return is_replay ? is_open.load() != 0 : run_flag.load() != 0;
}

bool IMUGMSLReader::updateIMUData(bool long_wait) {
    if (!is_open) {
        has_new_data = 0;
        return false;
    }
    if (is_replay)
        return replayNext();
    auto sample = merged_queue.pop();
    if (!sample && long_wait && run_flag) {
        // The engine's loop asks again at once: wait here for the merge thread
        // rather than let the caller spin.
        merged_queue.waitFor(1, std::chrono::microseconds(wait_us), [this] { return run_flag.load() != 0; });
        sample = merged_queue.pop();
    }
    if (!sample) {
        has_new_data = 0;
        return false;
    }
    publish(*sample);
    return true;
}

void IMUGMSLReader::publish(const bmi08x_full_sensor_data& s) {
    int16_t gyro[3];
    int16_t acc[3];
    toCameraFrame(s, swap_lr.load(), gyro, acc);
    platform::Clock& clock = platform::clock();
    const int64_t wall_minus_steady = clock.systemNanoseconds() - clock.steadyNanoseconds();
    {
        std::lock_guard<std::mutex> lock(sample_mutex);
        delta_us = (last_sample_us != 0 && s.timestamp >= last_sample_us) ? s.timestamp - last_sample_us : 0;
        last_sample_us = s.timestamp;
        sample_us = s.timestamp;
        current_ts = static_cast<uint64_t>(static_cast<int64_t>(s.timestamp * 1000) + wall_minus_steady);
        McuSensorReport& r = current_report;
        r.report_id = 1;
        r.imu_not_valid = 0;
        r.timestamp = usToTicks(s.timestamp);
        r.gyro_x = gyro[0];
        r.gyro_y = gyro[1];
        r.gyro_z = gyro[2];
        r.acc_x = acc[0];
        r.acc_y = acc[1];
        r.acc_z = acc[2];
        r.frame_sync = s.sync;
        r.sync_capabilities = synchronised.load();
        if (s.sync)
            r.frame_sync_count++;
        r.imu_temperature = static_cast<int16_t>(temperature_milli.load() / 10);
        r.mag_valid = 0;
        r.env_valid = 0;
    }
    sync_event = s.sync ? 1 : 0;
    has_new_data = 1;
    sample_counter++;
    if (is_recording) {
        std::lock_guard<std::mutex> lock(recording_mutex);
        if (sid_file) {
            sidRecord rec{};
            rec.report = current_report;
            std::memcpy(rec.ext_quaternion, ext_quaternion, sizeof(rec.ext_quaternion));
            rec.frame_ts = rvf_frame_ts;
            std::fwrite(&rec, sizeof(rec), 1, sid_file);
        }
    }
}

bool IMUGMSLReader::replayNext() {
    sidRecord rec;
    if (!replay_file || std::fread(&rec, 1, sizeof(rec), replay_file) != sizeof(rec)) {
        has_new_data = 0;
        return false;
    }
    rvf_frame_ts = rec.frame_ts;
    const uint64_t us = ticksToUs(rec.report.timestamp);
    {
        std::lock_guard<std::mutex> lock(sample_mutex);
        current_report = rec.report;
        delta_us = (last_sample_us != 0 && us >= last_sample_us) ? us - last_sample_us : 0;
        last_sample_us = us;
        sample_us = us;
        current_ts = us * 1000;
    }
    sync_event = rec.report.frame_sync == 1 ? 1 : 0;
    platform::clock().sleepFor(std::chrono::milliseconds(1));  // the pace of a live stream
    has_new_data = 1;
    sample_counter++;
    return true;
}

// ---------------------------------------------------------------------------
// Recording

bool IMUGMSLReader::enableSIDRecording(float yaw) {
    if (allow_recording && !sid_path.empty() && !is_replay)
        return createSIDRecording(yaw, sid_path);
    return false;
}

bool IMUGMSLReader::createSIDRecording(float yaw, std::string path) {
    disableSIDRecording();
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    sidFileHeader header{};
    header.version = SID_VERSION;
    header.serial_number = serial_number;
    header.start_yaw = yaw;
    header.eeprom = getEepromMemory(false);
    std::fwrite(&header, sizeof(header), 1, f);
    std::lock_guard<std::mutex> lock(recording_mutex);
    sid_file = f;
    is_recording = 1;
    return true;
}

bool IMUGMSLReader::disableSIDRecording() {
    std::lock_guard<std::mutex> lock(recording_mutex);
    if (sid_file)
        std::fclose(sid_file);
    sid_file = nullptr;
    is_recording = 0;
    return true;
}

void IMUGMSLReader::setOptExtQuaternion(float x, float y, float z, float w, float a, float b, float c) {
    std::lock_guard<std::mutex> lock(recording_mutex);
    const float q[7] = {x, y, z, w, a, b, c};
    std::memcpy(ext_quaternion, q, sizeof(q));
}

// ---------------------------------------------------------------------------
// Getters and plain settings

void IMUGMSLReader::setRVFFrameTS(uint64_t ts) {
    rvf_frame_ts = ts;
}
uint64_t IMUGMSLReader::getRVFFrameTS() {
    return rvf_frame_ts;
}
bool IMUGMSLReader::reset() {
    return true;
}
void IMUGMSLReader::setSwapLR(int swap) {
    swap_lr = swap;
}
void IMUGMSLReader::setTSOffset(long offset) {
    // Kept for the interface: the host clock stamps the samples, there is no
    // device clock to lock.
    ts_offset = offset;
    ts_offset_pending = 1;
}

uint64_t IMUGMSLReader::getDeltaTime_us() {
    return delta_us;
}
uint64_t IMUGMSLReader::getCurrentMCUTimeStamp() {
    return sample_us.load();
}
uint64_t IMUGMSLReader::getCurrentMCUEnvTimeStamp() {
    return 0;
}
uint64_t IMUGMSLReader::getCurrentMCUMagTimeStamp() {
    return 0;
}
uint64_t IMUGMSLReader::getCurrentBHIMUTimestamp() {
    return current_ts;
}
uint64_t IMUGMSLReader::getCurrentBHEnvTimestamp() {
    return 0;
}
uint64_t IMUGMSLReader::getCurrentBHMagTimestamp() {
    return 0;
}

// No magnetometer, environment or imager temperature sensors on this path.
float IMUGMSLReader::getMappedMagnetoX() {
    return std::nanf("");
}
float IMUGMSLReader::getMappedMagnetoY() {
    return std::nanf("");
}
float IMUGMSLReader::getMappedMagnetoZ() {
    return std::nanf("");
}
float IMUGMSLReader::getEnvTemperature() {
    return std::nanf("");
}
float IMUGMSLReader::getEnvHumidity() {
    return std::nanf("");
}
float IMUGMSLReader::getEnvPressure() {
    return std::nanf("");
}
float IMUGMSLReader::getOnBoardLeftTemperature() {
    return std::nanf("");
}
float IMUGMSLReader::getOnBoardRightTemperature() {
    return std::nanf("");
}

float IMUGMSLReader::getCurrentIMUTemperatureInCelsius(bool) {
    return static_cast<float>(temperature_milli.load()) * 0.001f;
}

McuSensorReport IMUGMSLReader::getSensorData() {
    std::lock_guard<std::mutex> lock(sample_mutex);
    sensor_data = current_report;
    // Known from the first marked sample on, even before it is taken in.
    sensor_data.sync_capabilities = synchronised.load();
    return sensor_data;
}

// ---------------------------------------------------------------------------
// Commands of the MCU that have no meaning here

bool IMUGMSLReader::sendDFUEnterCommand() {
    return false;
}
bool IMUGMSLReader::sendMcuResetCommand() {
    return false;
}
bool IMUGMSLReader::sendOV580ResetCommand() {
    return false;
}
bool IMUGMSLReader::sendEraseCommandwithSN(int, int) {
    std::fprintf(stderr, "[IMU GMSL] {sendEraseCommandwithSN} Not Implemented\n");
    return false;
}
bool IMUGMSLReader::sendWriteBaromCalibCommand(float, float) {
    return false;
}
bool IMUGMSLReader::sendWriteMagCalibCommand(_mag_calib_data&) {
    return false;
}
bool IMUGMSLReader::sendWriteCalibMonoCommand(int, int, calib_mono_data&) {
    return false;
}
bool IMUGMSLReader::sendWriteCalibStereoCommand(float, float, float, float*, float*, float*) {
    return false;
}
bool IMUGMSLReader::sendReadDataTimeCommand() {
    return false;
}
bool IMUGMSLReader::sendReadSNCommand() {
    return false;
}
bool IMUGMSLReader::sendReadBiasCommand() {
    return false;
}
bool IMUGMSLReader::sendReadVarianceCommand() {
    return false;
}
bool IMUGMSLReader::sendReadBaromCalibCommand() {
    return false;
}
bool IMUGMSLReader::sendReadKlibCommand() {
    return false;
}
bool IMUGMSLReader::sendReadCalibMonoCommand(int, int) {
    return false;
}
bool IMUGMSLReader::sendReadCalibStereoCommand() {
    return false;
}
bool IMUGMSLReader::sendReadImuFreq() {
    return false;
}
bool IMUGMSLReader::startImuRetrimming() {
    return false;
}
int IMUGMSLReader::getImuRetrimmingStatus() {
    return kRetrimUnavailable;
}
