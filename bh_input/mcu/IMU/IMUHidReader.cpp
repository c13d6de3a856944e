#include "bh_input/mcu/IMU/IMUHidReader.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <ctime>
#include <limits>
#include <stdexcept>
#include <vector>

#include "bh_input/mcu/IMU/SIDRecording.h"
#include "bh_input/mcu/IMU/checkEepromValues.h"
#include "platform/Platform.h"
#include "support/KLogger.h"

namespace {

constexpr int REPORT_LEN = 62;
constexpr int LEGACY_ROUNDS = 502;
constexpr uint32_t UNPROGRAMMED_SERIAL = 990123456u;
constexpr unsigned long long PLAUSIBLE_MAX = 990123455ull;
// Reads of nothing that the legacy EEPROM burst tolerates before giving up, so
// that a silent device cannot hold the caller forever.
constexpr int LEGACY_EMPTY_READS_MAX = 5001;

void sleepUs(uint64_t us) {
    platform::clock().sleepFor(std::chrono::microseconds(us));
}
void sleepMs(uint64_t ms) {
    platform::clock().sleepFor(std::chrono::milliseconds(ms));
}

// Floor of ticks x 39.0625 in exact integer arithmetic.
uint64_t ticksToUs(uint64_t ticks) {
    return ticks * 39u + ticks / 16u;
}

bool parseDecimal(const wchar_t* text, unsigned long long& value) {
    if (!text || !*text)
        return false;
    unsigned long long v = 0;
    for (const wchar_t* p = text; *p; ++p) {
        if (*p < L'0' || *p > L'9')
            return false;
        if (v > (std::numeric_limits<unsigned long long>::max() - 9) / 10)
            return false;
        v = v * 10 + static_cast<unsigned long long>(*p - L'0');
    }
    value = v;
    return true;
}

std::string narrow(const wchar_t* text) {
    std::string out;
    for (const wchar_t* p = text; p && *p; ++p)
        out.push_back(*p < 128 ? static_cast<char>(*p) : '?');
    return out;
}

uint8_t* bytesOf(void* p) {
    return static_cast<uint8_t*>(p);
}

}  // namespace

// ---------------------------------------------------------------------------
// USB recovery

int mcu_usb_recover(const char* hid_path) {
    if (!hid_path)
        return 0;
    std::vector<std::string> fields;
    {
        std::string cur;
        for (const char* p = hid_path; *p; ++p) {
            if (*p == ':') {
                fields.push_back(cur);
                cur.clear();
            } else {
                cur.push_back(*p);
            }
        }
        fields.push_back(cur);
    }
    if (fields.size() != 3)
        return 0;

    uint8_t bus = 0;
    uint8_t address = 0;
    try {
        bus = static_cast<uint8_t>(std::stoul(fields[0], nullptr, 16));
        address = static_cast<uint8_t>(std::stoul(fields[1], nullptr, 16));
    } catch (const std::invalid_argument&) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error,
             "mcu_usb_recover: malformed HID path '{}' (stoul: not a number)", hid_path);
        return LIBUSB_ERROR_INVALID_PARAM;
    } catch (const std::out_of_range&) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error,
             "mcu_usb_recover: malformed HID path '{}' (stoul: out of range)", hid_path);
        return LIBUSB_ERROR_INVALID_PARAM;
    }

    platform::Usb& usb = platform::usb();
    libusb_context* ctx = nullptr;
    libusb_device** list = nullptr;
    libusb_device_handle* handle = nullptr;
    int code = usb.init(&ctx);
    const bool inited = code >= 0;
    if (inited) {
        code = 0;
        ssize_t n = usb.get_device_list(ctx, &list);
        if (n < 0) {
            code = static_cast<int>(n);
            list = nullptr;
        } else {
            libusb_device* dev = nullptr;
            for (ssize_t i = 0; i < n && list[i]; ++i) {
                if (usb.get_bus_number(list[i]) == bus && usb.get_device_address(list[i]) == address) {
                    dev = list[i];
                    break;
                }
            }
            if (!dev || usb.open(dev, &handle) != 0) {
                handle = nullptr;
                KLOG(bh::LOGGER_NAME::SDK_INPUT, error,
                     "usb resetting unsuccessful! No matching device found, or error encountered!");
                code = LIBUSB_ERROR_NOT_FOUND;
            } else {
                do {
                    if ((code = usb.set_auto_detach_kernel_driver(handle, 1)) != 0) {
                        KLOG(bh::LOGGER_NAME::SDK_INPUT, error,
                             "libusb_set_auto_detach_kernel_driver failed");
                        break;
                    }
                    if ((code = usb.claim_interface(handle, 0)) != 0) {
                        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "libusb_claim_interface failed");
                        break;
                    }
                    if ((code = usb.clear_halt(handle, 1)) != 0) {
                        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "libusb_clear_halt 1 failed");
                        break;
                    }
                    if ((code = usb.clear_halt(handle, 129)) != 0) {
                        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "libusb_clear_halt 129 failed");
                        break;
                    }
                    if ((code = usb.reset_device(handle)) != 0) {
                        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "libusb_reset_device failed");
                        break;
                    }
                } while (false);
            }
        }
    }
    if (handle) {
        usb.release_interface(handle, 0);
        usb.close(handle);
    }
    if (list)
        usb.free_device_list(list, 1);
    if (inited)
        usb.exit(ctx);
    if (code != 0 && code != LIBUSB_ERROR_NOT_FOUND) {
        const char* name = usb.error_name(code);
        KLOG(bh::LOGGER_NAME::SDK_INPUT, critical, "libhid error: {}", name ? name : "unknown");
    }
    return code;
}

// ---------------------------------------------------------------------------
// Construction

IMUHidReader::IMUHidReader(bool verbose_, uint16_t vendor_id_, uint16_t product_id_, bool allow_recording_,
                           std::string path) {
    platform::hid().init();
    verbose = verbose_ ? 1 : 0;
    vendor_id = vendor_id_;
    product_id = product_id_;
    allow_recording = allow_recording_ ? 1 : 0;
    sid_path = path;
    is_lost = 1;
    if (vendor_id == 11011 && product_id == 1 && !path.empty()) {
        replay_file = std::fopen(path.c_str(), "rb");
        if (replay_file)
            is_replay = 1;
    }
    mcu_sync_times.reserve(100);
    host_sync_times.reserve(100);
    pressure_filter.numNodes = 5;
    pressure_filter.medianBuffer = pressure_nodes;
    MEDIANFILTER_Init(&pressure_filter);
}

IMUHidReader::~IMUHidReader() {
    if (is_open && !is_closed)
        close();
    disableSIDRecording();
    if (replay_file) {
        std::fclose(replay_file);
        replay_file = nullptr;
    }
    if (platform::hid().exit() != 0)
        KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "[Sensors][Read]: Error on Hid Exit");
}

// ---------------------------------------------------------------------------
// Transport

bool IMUHidReader::readReportCommand(uint8_t* buf, size_t len) {
    if (is_lost || !handle || len > 66)
        return false;
    uint8_t local[66] = {};
    local[0] = buf[0];
    int r = platform::hid().get_feature_report(handle, local, sizeof(local));
    // Unsigned on purpose: an error (-1) passes the length test and the caller
    // judges by the id byte alone.
    if (static_cast<size_t>(static_cast<long>(r)) >= len && local[0] == buf[0]) {
        std::memcpy(buf, local, len);
        return true;
    }
    return false;
}

bool IMUHidReader::writeReportCommand(uint8_t* buf, size_t len) {
    if (is_lost)
        return false;
    int r = 0;
    if (handle)
        r = platform::hid().send_feature_report(handle, buf, len);
    sleepUs(10);
    return r == static_cast<int>(len);
}

int IMUHidReader::tryWrite(hid_device* dev, uint8_t* buf) {
    if (!dev)
        return -1;
    int r = platform::hid().write(dev, buf, 65);
    sleepMs(5);
    return r;
}

int IMUHidReader::tryRead(hid_device* dev, uint8_t* buf, size_t len) {
    sleepMs(5);
    if (!dev)
        return -1;
    return platform::hid().read(dev, buf, len);
}

// ---------------------------------------------------------------------------
// Feature-generation helpers

bool IMUHidReader::featureWrite(uint8_t* record, size_t len, bool stamp_date) {
    if (!writeReportCommand(record, len))
        return false;
    size_t off = 0, rlen = 0;
    if (eepromRecordOf(record[0], off, rlen))
        std::memcpy(bytesOf(&eeprom) + off, record, std::min(len, rlen));
    if (stamp_date)
        writeCurrentDataTime();
    return true;
}

bool IMUHidReader::enableDataStream(bool enable) {
    if (is_lost)
        return false;
    if (isLegacy())
        return true;
    uint8_t buf[2] = {mcu_id::STREAM, static_cast<uint8_t>(enable ? 1 : 0)};
    return writeReportCommand(buf, 2);
}

bool IMUHidReader::sendPing() {
    if (is_lost)
        return false;
    if (isLegacy())
        return true;
    uint8_t buf[2] = {mcu_id::STREAM, 0xF2};
    return writeReportCommand(buf, 2);
}

bool IMUHidReader::isDataStreamEnabled() {
    if (is_lost)
        return false;
    if (isLegacy())
        return true;
    uint8_t buf[2] = {mcu_id::STREAM, 0};
    return readReportCommand(buf, 2) && buf[1] == 1;
}

bool IMUHidReader::writeCurrentDataTime() {
    if (is_lost)
        return false;
    if (isLegacy())
        return true;
    time_t secs = static_cast<time_t>(platform::clock().systemNanoseconds() / 1000000000LL);
    struct tm utc;
    gmtime_r(&secs, &utc);
    char text[64] = {};
    size_t n = std::strftime(text, sizeof(text), "%Y/%m/%d %H:%M:%S UTC", &utc);
    _date_time_data rec{};
    rec.id = mcu_id::DATE;
    rec.valid = 1;
    std::memcpy(rec.text, text, std::min(n, sizeof(rec.text)));
    sleepMs(5);
    return featureWrite(bytesOf(&rec), sizeof(rec), false);
}

// ---------------------------------------------------------------------------
// Legacy-generation helpers

bool IMUHidReader::legacyRead(uint8_t cls, uint8_t code, uint8_t legacy_id, uint8_t* record, size_t len) {
    if (is_lost || !handle)
        return false;
    std::memset(tx_buffer, 0, sizeof(tx_buffer));
    tx_buffer[0] = cls;
    tx_buffer[1] = code;
    if (tryWrite(handle, tx_buffer) == 0)
        return false;
    const uint8_t first = record[0];
    for (int round = 1; round <= LEGACY_ROUNDS; ++round) {
        std::memset(rx_buffer, 0, sizeof(rx_buffer));
        int r = tryRead(handle, rx_buffer, len);
        if (r < static_cast<int>(len) || rx_buffer[0] != legacy_id)
            continue;
        if (round == LEGACY_ROUNDS)
            return false;
        std::memcpy(record, rx_buffer, len);
        record[0] = first;
        return true;
    }
    return false;
}

bool IMUHidReader::legacyWrite(uint8_t cls, uint8_t code, uint8_t legacy_id, uint8_t* record, size_t len,
                               int compare_offset, bool strict_write) {
    if (is_lost || !handle)
        return false;
    record[0] = legacy_id;
    std::memset(tx_buffer, 0, sizeof(tx_buffer));
    tx_buffer[0] = cls;
    tx_buffer[1] = code;
    std::memcpy(tx_buffer + 2, record, len);
    int w = tryWrite(handle, tx_buffer);
    if (strict_write ? w < 1 : w == 0)
        return false;
    const size_t cmp_len = compare_offset == 1 ? 8 : 4;  // the serial compares both fields
    for (int round = 1; round <= LEGACY_ROUNDS; ++round) {
        std::memset(rx_buffer, 0, sizeof(rx_buffer));
        int r = tryRead(handle, rx_buffer, len);
        if (r < static_cast<int>(len) || rx_buffer[0] != legacy_id)
            continue;
        if (compare_offset > 0 &&
            std::memcmp(rx_buffer + compare_offset, record + compare_offset, cmp_len) != 0) {
            continue;
        }
        if (round == LEGACY_ROUNDS)
            return false;
        return true;
    }
    return false;
}

// ---------------------------------------------------------------------------
// Commands

bool IMUHidReader::setRate(_imu_odr) {
    return true;
}
bool IMUHidReader::reset() {
    return true;
}
void IMUHidReader::setSwapLR(int) {}
void IMUHidReader::setRVFFrameTS(uint64_t ts) {
    rvf_frame_ts = ts;
}
uint64_t IMUHidReader::getRVFFrameTS() {
    return rvf_frame_ts;
}

bool IMUHidReader::sendDFUEnterCommand() {
    if (is_lost) {
        if (open(serial_number, true, false) < 0)
            return false;
        sleepMs(500);
    }
    if (!isLegacy()) {
        uint8_t buf[2] = {mcu_id::CMD, 0xF1};
        return !writeReportCommand(buf, 2);
    }
    std::memset(tx_buffer, 0, sizeof(tx_buffer));
    tx_buffer[0] = 0x21;
    tx_buffer[1] = 0xF1;
    return tryWrite(handle, tx_buffer) > 0;
}

bool IMUHidReader::sendMcuResetCommand() {
    if (is_lost || isLegacy())
        return false;
    uint8_t buf[2] = {mcu_id::CMD, 0xE1};
    // The MCU drops off the bus while handling the report: a complete write is
    // the unexpected outcome.
    return !writeReportCommand(buf, 2);
}

bool IMUHidReader::sendOV580ResetCommand() {
    if (is_lost || isLegacy())
        return false;
    uint8_t buf[4] = {mcu_id::OV580, 0x02, 0x00, 0x00};
    return writeReportCommand(buf, 4);
}

bool IMUHidReader::sendStartDataStreamingCommand() {
    KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "[enter] sendStartDataStreamingCommand");
    if (is_replay)
        return true;
    if (is_lost)
        return false;
    if (!isLegacy())
        return enableDataStream(true);
    std::memset(tx_buffer, 0, sizeof(tx_buffer));
    std::memset(rx_buffer, 0, sizeof(rx_buffer));
    tx_buffer[0] = 0x23;
    int r = tryRead(handle, rx_buffer, 65);
    if (r > 0 && rx_buffer[0] == 0)
        return true;
    sleepMs(5);
    tryWrite(handle, tx_buffer);
    tryRead(handle, rx_buffer, 65);
    for (int round = 1; rx_buffer[0] != 0; ++round) {
        if (round >= LEGACY_ROUNDS)
            return false;
        std::memset(rx_buffer, 0, sizeof(rx_buffer));
        tryRead(handle, rx_buffer, 65);
        if (round >= 250 && rx_buffer[0] == 0)
            return true;
        if (round >= 250 && round % 10 == 0 && handle) {
            sleepMs(5);
            platform::hid().write(handle, tx_buffer, 65);
        }
    }
    return true;
}

bool IMUHidReader::sendStopDataStreamingCommand() {
    KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "[enter] sendStopDataStreamingCommand");
    if (is_replay)
        return true;
    if (is_lost)
        return false;
    if (isLegacy())
        return true;
    bool ok = enableDataStream(false);
    sleepMs(100);
    return ok;
}

bool IMUHidReader::sendWriteSNCommand(int serial_prefix, int serial_body) {
    _serial_data rec{mcu_id::SERIAL, serial_prefix, serial_body};
    if (is_lost)
        return false;
    if (!isLegacy())
        return featureWrite(bytesOf(&rec), sizeof(rec), false);
    if (!legacyWrite(0x21, 0xA1, mcu_id::LEGACY_SERIAL, bytesOf(&rec), sizeof(rec), 1, true))
        return false;
    eeprom.serial = rec;
    return true;
}

bool IMUHidReader::sendEraseCommandwithSN(int serial_prefix, int serial_body) {
    if (!isLegacy() || is_lost)
        return false;
    KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "[enter] sendEraseCommandwithSN {} {}", serial_body,
         serial_prefix);
    std::memset(tx_buffer, 0, sizeof(tx_buffer));
    tx_buffer[0] = 0x24;
    tx_buffer[1] = 0x01;
    uint32_t a = static_cast<uint32_t>(serial_prefix), b = static_cast<uint32_t>(serial_body);
    std::memcpy(tx_buffer + 2, &a, 4);
    std::memcpy(tx_buffer + 6, &b, 4);
    if (tryWrite(handle, tx_buffer) > 0) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "[exit] sendEraseCommandwithSN --> OK");
        return true;
    }
    KLOG(bh::LOGGER_NAME::SDK_INPUT, error, "[exit] sendEraseCommandwithSN -->Failed to write /FALSE/");
    return false;
}

bool IMUHidReader::sendWriteBiasCommand(float gx, float gy, float gz, float ax, float ay, float az) {
    _bias_data rec{mcu_id::BIAS, {gx, gy, gz}, {ax, ay, az}};
    if (is_lost)
        return false;
    if (!isLegacy())
        return featureWrite(bytesOf(&rec), sizeof(rec), true);
    if (!legacyWrite(0x21, 0xA2, mcu_id::LEGACY_BIAS, bytesOf(&rec), sizeof(rec), 13, true))
        return false;
    eeprom.bias = rec;
    return true;
}

bool IMUHidReader::sendWriteVarianceCommand(float gx, float gy, float gz, float ax, float ay, float az) {
    variance_data rec{mcu_id::VARIANCE, {gx, gy, gz}, {ax, ay, az}};
    if (is_lost)
        return false;
    if (!isLegacy())
        return featureWrite(bytesOf(&rec), sizeof(rec), true);
    if (!legacyWrite(0x21, 0xA3, mcu_id::LEGACY_VARIANCE, bytesOf(&rec), sizeof(rec), 13, true))
        return false;
    eeprom.variance = rec;
    return true;
}

bool IMUHidReader::sendWriteBaromCalibCommand(float scale, float offset) {
    if (is_lost || isLegacy())
        return false;
    _barom_calib_data rec{mcu_id::BAROM, offset, scale};
    return featureWrite(bytesOf(&rec), sizeof(rec), true);
}

bool IMUHidReader::sendWriteKlibCommand(float x, float y, float z) {
    _cam_imu_data rec{mcu_id::CAM_IMU, {x, y, z}};
    if (is_lost)
        return false;
    if (!isLegacy())
        return featureWrite(bytesOf(&rec), sizeof(rec), true);
    if (!legacyWrite(0x21, 0xA4, mcu_id::LEGACY_CAM_IMU, bytesOf(&rec), sizeof(rec), 5, false))
        return false;
    eeprom.cam_imu = rec;
    return true;
}

bool IMUHidReader::sendWriteExtGyroCalibCommand(_extended_gyro_calib_data& data) {
    if (is_lost)
        return false;
    if (!isLegacy()) {
        data.id = mcu_id::EXT_GYRO;
        return featureWrite(bytesOf(&data), sizeof(data), true);
    }
    if (firmware_version < mcu_fw::EXT_CALIB_FROM)
        return false;
    if (!legacyWrite(0x21, 0xAE, mcu_id::LEGACY_EXT_GYRO, bytesOf(&data), sizeof(data), 25, true))
        return false;
    data.id = mcu_id::EXT_GYRO;
    eeprom.ext_gyro_calib = data;
    return true;
}

bool IMUHidReader::sendWriteExtAccCalibCommand(_extended_acc_calib_data& data) {
    if (is_lost)
        return false;
    if (!isLegacy()) {
        data.id = mcu_id::EXT_ACC;
        return featureWrite(bytesOf(&data), sizeof(data), true);
    }
    if (firmware_version < mcu_fw::EXT_CALIB_FROM)
        return false;
    if (!legacyWrite(0x21, 0xAF, mcu_id::LEGACY_EXT_ACC, bytesOf(&data), sizeof(data), 17, true))
        return false;
    data.id = mcu_id::EXT_ACC;
    eeprom.ext_acc_calib = data;
    return true;
}

bool IMUHidReader::sendWriteMagCalibCommand(_mag_calib_data& data) {
    if (is_lost || firmware_version < mcu_fw::MAG_FROM)
        return false;
    data.id = mcu_id::MAG;
    return featureWrite(bytesOf(&data), sizeof(data), true);
}

bool IMUHidReader::sendWriteCalibMonoCommand(int resolution, int side, calib_mono_data& data) {
    const int index = mcu_id::monoIndex(resolution, side);
    if (is_lost || resolution < 0 || side < 0 || side > 1 || index < 0 || index > 7)
        return false;
    calib_mono_data rec = data;
    if (!isLegacy()) {
        rec.id = mcu_id::monoFeatureId(resolution, side);
        return featureWrite(bytesOf(&rec), sizeof(rec), true);
    }
    if (!legacyWrite(0x21, mcu_id::monoLegacyWriteCode(resolution, side),
                     mcu_id::monoLegacyId(resolution, side), bytesOf(&rec), sizeof(rec), 0, false)) {
        return false;
    }
    eeprom.calib_mono[index] = rec;
    return true;
}

bool IMUHidReader::sendWriteCalibStereoCommand(float p0, float p1, float p2, float* block1, float* block2,
                                               float* block3) {
    if (is_lost || !block1 || !block2 || !block3)
        return false;
    _calib_stereo_data rec{};
    rec.id = mcu_id::STEREO;
    rec.params[0] = p0;
    rec.params[1] = p1;
    rec.params[2] = p2;
    std::memcpy(rec.block1, block1, sizeof(rec.block1));
    std::memcpy(rec.block2, block2, sizeof(rec.block2));
    std::memcpy(rec.block3, block3, sizeof(rec.block3));
    if (!isLegacy())
        return featureWrite(bytesOf(&rec), sizeof(rec), true);
    if (!legacyWrite(0x21, 0xAD, mcu_id::LEGACY_STEREO, bytesOf(&rec), sizeof(rec), 0, false))
        return false;
    eeprom.calib_stereo = rec;
    return true;
}

bool IMUHidReader::sendWriteImuFreq(_imu_odr rate) {
    if (is_lost || firmware_version < mcu_fw::ODR_FROM)
        return false;
    _imu_odr_data rec{mcu_id::ODR, static_cast<uint8_t>(rate)};
    return featureWrite(bytesOf(&rec), sizeof(rec), false);
}

bool IMUHidReader::sendReadImuFreq() {
    if (is_lost || firmware_version < mcu_fw::ODR_FROM)
        return false;
    eeprom.imu_odr.id = mcu_id::ODR;
    return readReportCommand(bytesOf(&eeprom.imu_odr), sizeof(eeprom.imu_odr));
}

bool IMUHidReader::sendReadDataTimeCommand() {
    if (is_lost || isLegacy())
        return false;
    eeprom.date_time.id = mcu_id::DATE;
    return readReportCommand(bytesOf(&eeprom.date_time), sizeof(eeprom.date_time));
}

bool IMUHidReader::getDataSavingTime(std::string& text) {
    if (firmware_version < mcu_fw::FEATURE_FROM)
        return false;
    if (!sendReadDataTimeCommand())
        return false;
    if (eeprom.date_time.valid == 0)
        return false;
    const char* p = eeprom.date_time.text;
    text.assign(p, strnlen(p, sizeof(eeprom.date_time.text)));
    return true;
}

bool IMUHidReader::sendReadSNCommand() {
    if (is_lost)
        return false;
    if (!isLegacy()) {
        eeprom.serial.id = mcu_id::SERIAL;
        return readReportCommand(bytesOf(&eeprom.serial), sizeof(eeprom.serial));
    }
    return legacyRead(0x22, 0xE1, mcu_id::LEGACY_SERIAL, bytesOf(&eeprom.serial), sizeof(eeprom.serial));
}

bool IMUHidReader::sendReadBiasCommand() {
    if (is_lost)
        return false;
    if (!isLegacy()) {
        eeprom.bias.id = mcu_id::BIAS;
        return readReportCommand(bytesOf(&eeprom.bias), sizeof(eeprom.bias));
    }
    return legacyRead(0x22, 0xE2, mcu_id::LEGACY_BIAS, bytesOf(&eeprom.bias), sizeof(eeprom.bias));
}

bool IMUHidReader::sendReadVarianceCommand() {
    if (is_lost)
        return false;
    if (!isLegacy()) {
        eeprom.variance.id = mcu_id::VARIANCE;
        return readReportCommand(bytesOf(&eeprom.variance), sizeof(eeprom.variance));
    }
    return legacyRead(0x22, 0xE3, mcu_id::LEGACY_VARIANCE, bytesOf(&eeprom.variance),
                      sizeof(eeprom.variance));
}

bool IMUHidReader::sendReadBaromCalibCommand() {
    if (is_lost || isLegacy())
        return false;
    // Kept as the firmware tools do it: the id lands in the variance record and
    // 25 bytes are read at the barometer record with whatever id stands there.
    eeprom.variance.id = mcu_id::BAROM;
    return readReportCommand(bytesOf(&eeprom.barom_calib), 25);
}

bool IMUHidReader::sendReadKlibCommand() {
    if (is_lost)
        return false;
    if (!isLegacy()) {
        eeprom.cam_imu.id = mcu_id::CAM_IMU;
        return readReportCommand(bytesOf(&eeprom.cam_imu), sizeof(eeprom.cam_imu));
    }
    return legacyRead(0x22, 0xE4, mcu_id::LEGACY_CAM_IMU, bytesOf(&eeprom.cam_imu), sizeof(eeprom.cam_imu));
}

bool IMUHidReader::sendReadCalibMonoCommand(int resolution, int side) {
    const int index = mcu_id::monoIndex(resolution, side);
    if (is_lost || resolution < 0 || side < 0 || side > 1 || index < 0 || index > 7)
        return false;
    calib_mono_data& rec = eeprom.calib_mono[index];
    if (!isLegacy()) {
        rec.id = mcu_id::monoFeatureId(resolution, side);
        return readReportCommand(bytesOf(&rec), sizeof(rec));
    }
    return legacyRead(0x22, mcu_id::monoLegacyReadCode(resolution, side),
                      mcu_id::monoLegacyId(resolution, side), bytesOf(&rec), sizeof(rec));
}

bool IMUHidReader::sendReadCalibStereoCommand() {
    if (is_lost)
        return false;
    if (!isLegacy()) {
        eeprom.calib_stereo.id = mcu_id::STEREO;
        return readReportCommand(bytesOf(&eeprom.calib_stereo), sizeof(eeprom.calib_stereo));
    }
    return legacyRead(0x22, 0xED, mcu_id::LEGACY_STEREO, bytesOf(&eeprom.calib_stereo),
                      sizeof(eeprom.calib_stereo));
}

bool IMUHidReader::startImuRetrimming() {
    if (is_lost || isLegacy() || eeprom.serial.serial_prefix < 2)
        return false;
    if (!sendStopDataStreamingCommand())
        return false;
    uint8_t buf[2] = {mcu_id::CMD, 0xF3};
    return writeReportCommand(buf, 2);
}

int IMUHidReader::getImuRetrimmingStatus() {
    if (isLegacy() || eeprom.serial.serial_prefix < 2)
        return BMI270_CRT_ERROR;
    uint8_t buf[2] = {mcu_id::RETRIM, 0};
    if (!readReportCommand(buf, 2))
        return BMI270_CRT_ERROR;
    return buf[1];
}

// ---------------------------------------------------------------------------
// EEPROM image

bool IMUHidReader::readEepromSerialNumber(int& serial_prefix, int& serial_body) {
    serial_prefix = eeprom.serial.serial_prefix;
    serial_body = eeprom.serial.serial_body;
    return true;
}

eepromMemoryStrc IMUHidReader::getEepromMemory(bool refresh) {
    if (refresh)
        updateEepromMemory(true);
    return eeprom;
}

bool IMUHidReader::updateEepromMemory(bool read_camera_calib) {
    if (is_lost || !handle)
        return false;
    return isLegacy() ? readEepromEx() : readEepromFeatRep(read_camera_calib);
}

bool IMUHidReader::readEepromFeatRep(bool read_camera_calib) {
    if (is_lost)
        return false;
    const bool was_running = isDataStreamEnabled();
    if (was_running && !sendStopDataStreamingCommand())
        return false;

    uint8_t buf[66] = {};
    long sum = 0;
    auto fetch = [&](uint8_t id, void* dst, size_t len) {
        buf[0] = id;
        int r = handle ? platform::hid().get_feature_report(handle, buf, sizeof(buf)) : -1;
        sum += r;
        std::memcpy(dst, buf, len);
    };
    auto step = [&](uint8_t id, void* dst, size_t len, int sleep_ms) {
        fetch(id, dst, len);
        KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "len_read {}", sum);
        if (sleep_ms > 0)
            sleepMs(sleep_ms);
    };

    fetch(mcu_id::SERIAL, &eeprom.serial, sizeof(eeprom.serial));
    serial_number = static_cast<uint32_t>(static_cast<int64_t>(eeprom.serial.serial_body) +
                                          static_cast<int64_t>(eeprom.serial.serial_prefix) * 10000000LL);
    KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "len_read {}", sum);
    KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "SN: {} / len_read {}", serial_number, sum);
    sleepMs(2);
    fetch(mcu_id::BIAS, &eeprom.bias, sizeof(eeprom.bias));
    checkBiasData(eeprom.bias);
    KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "len_read {}", sum);
    sleepMs(2);
    fetch(mcu_id::VARIANCE, &eeprom.variance, sizeof(eeprom.variance));
    checkVarianceData(eeprom.variance);
    KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "len_read {}", sum);
    sleepMs(2);
    fetch(mcu_id::CAM_IMU, &eeprom.cam_imu, sizeof(eeprom.cam_imu));
    checkCamIMUData(eeprom.cam_imu);
    KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "len_read {}", sum);
    sleepMs(2);
    if (read_camera_calib) {
        for (int i = 0; i < 8; ++i) {
            step(static_cast<uint8_t>(mcu_id::MONO_FIRST + i), &eeprom.calib_mono[i], sizeof(calib_mono_data),
                 5);
        }
        step(mcu_id::STEREO, &eeprom.calib_stereo, sizeof(eeprom.calib_stereo), 1);
    }
    step(mcu_id::BAROM, &eeprom.barom_calib, sizeof(eeprom.barom_calib), 2);
    fetch(mcu_id::EXT_GYRO, &eeprom.ext_gyro_calib, sizeof(eeprom.ext_gyro_calib));
    checkExtendedGyroCalibData(eeprom.ext_gyro_calib);
    KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "len_read {}", sum);
    sleepMs(2);
    fetch(mcu_id::EXT_ACC, &eeprom.ext_acc_calib, sizeof(eeprom.ext_acc_calib));
    checkExtendedAccCalibData(eeprom.ext_acc_calib);
    KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "len_read {}", sum);
    sleepMs(2);
    if (firmware_version > 0x304)
        step(mcu_id::MAG, &eeprom.mag_calib, sizeof(eeprom.mag_calib), 5);
    if (firmware_version > 0x303)
        step(mcu_id::ODR, &eeprom.imu_odr, sizeof(eeprom.imu_odr), 2);
    step(mcu_id::DATE, &eeprom.date_time, sizeof(eeprom.date_time), 0);

    if (was_running && !sendStartDataStreamingCommand())
        return false;
    return sum > 0;
}

bool IMUHidReader::readEepromEx() {
    if (is_lost || !handle)
        return false;
    std::memset(tx_buffer, 0, sizeof(tx_buffer));
    tx_buffer[0] = 0x22;
    tx_buffer[1] = 0xE1;
    if (tryWrite(handle, tx_buffer) == 0)
        return false;
    sleepMs(4);
    bool got_serial = false, got_bias = false, got_var = false, got_cam = false, got_gyro = false,
         got_acc = false;
    const bool need_ext = firmware_version > 516;
    int rounds = 0;
    int empty = 0;
    while (true) {
        std::memset(rx_buffer, 0, sizeof(rx_buffer));
        int r = tryRead(handle, rx_buffer, 65);
        sleepMs(5);
        if (r <= 0) {
            if (++empty >= LEGACY_EMPTY_READS_MAX)
                return false;
            continue;
        }
        if (++rounds > 5001)
            return false;
        const uint8_t id = rx_buffer[0];
        if (id & 0x80)
            continue;
        switch (id) {
            case 0:
                if (rounds >= 11 && rounds % 50 == 0) {
                    KLOG(bh::LOGGER_NAME::SDK_INPUT, warn, "WARNING : resend buffer due to timeout check");
                    platform::hid().write(handle, tx_buffer, 65);
                }
                break;
            case mcu_id::LEGACY_SERIAL:
                if (!got_serial) {
                    std::memcpy(&eeprom.serial, rx_buffer, sizeof(eeprom.serial));
                    serial_number =
                        static_cast<uint32_t>(static_cast<int64_t>(eeprom.serial.serial_body) +
                                              static_cast<int64_t>(eeprom.serial.serial_prefix) * 10000000LL);
                    got_serial = true;
                }
                break;
            case mcu_id::LEGACY_BIAS:
                if (!got_bias)
                    std::memcpy(&eeprom.bias, rx_buffer, sizeof(eeprom.bias));
                got_bias = true;
                break;
            case mcu_id::LEGACY_VARIANCE:
                if (!got_var)
                    std::memcpy(&eeprom.variance, rx_buffer, sizeof(eeprom.variance));
                got_var = true;
                break;
            case mcu_id::LEGACY_CAM_IMU:
                if (!got_cam)
                    std::memcpy(&eeprom.cam_imu, rx_buffer, sizeof(eeprom.cam_imu));
                got_cam = true;
                break;
            case mcu_id::LEGACY_EXT_GYRO:
                if (!got_gyro)
                    std::memcpy(&eeprom.ext_gyro_calib, rx_buffer, sizeof(eeprom.ext_gyro_calib));
                got_gyro = true;
                break;
            case mcu_id::LEGACY_EXT_ACC:
                if (!got_acc)
                    std::memcpy(&eeprom.ext_acc_calib, rx_buffer, sizeof(eeprom.ext_acc_calib));
                got_acc = true;
                break;
            default:
                break;
        }
        if (got_serial && got_bias && got_var && got_cam && (!need_ext || (got_gyro && got_acc)))
            return true;
    }
}

// ---------------------------------------------------------------------------
// Open and close

int IMUHidReader::open(unsigned int serial, bool recover, bool force) {
    sync_event = 0;
    accumulated_ts_offset = 0;
    if (handle) {
        std::lock_guard<std::mutex> lock(device_mutex);
        platform::hid().close(handle);
    }
    handle = nullptr;
    sample_counter = 0;
    reopen_failures = 0;

    if (is_replay) {
        if (!replay_file)
            return -1;
        sidFileHeader header;
        if (std::fread(&header, 1, sizeof(header), replay_file) == sizeof(header)) {
            serial_number = header.serial_number;
            start_yaw = header.start_yaw;
            eeprom = header.eeprom;
        }
        return -1;  // no device handle in replay
    }

    platform::Hid& hid = platform::hid();
    std::unique_lock<std::mutex> lock(device_mutex);
    char requested[16];
    std::snprintf(requested, sizeof(requested), "%u", serial);
    unsigned long long wanted = serial;
    KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "[enter] open IMUReader {}", requested);
    KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "[Sensors][enter] hid_enumerate IMUReader");
    hid_device_info* devs = hid.enumerate(vendor_id, product_id);
    KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "[Sensors][enter] listcheck IMUReader");

    std::string chosen_path;
    unsigned long long chosen_serial = 0;
    bool taken = false;
    bool reboot = false;
    for (hid_device_info* cur = devs; cur; cur = cur->next) {
        // The format repeats its first argument, as the field tools print it.
        KLOG(bh::LOGGER_NAME::SDK_INPUT, debug, "[Sensors][list] Device! {0:x} {0:x} vs {0:x} {0:x}",
             cur->vendor_id, cur->product_id, vendor_id, product_id);
        if (cur->vendor_id != vendor_id || (product_id != 0 && cur->product_id != product_id))
            continue;
        if (!cur->path)
            continue;
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "[Sensors] USB clear HALT & RESET - pre -");
        mcu_usb_recover(cur->path);

        unsigned long long sn = 0;
        const bool has_sn = parseDecimal(cur->serial_number, sn);
        const bool plausible = has_sn && sn >= 1 && sn <= PLAUSIBLE_MAX;
        if (!plausible && recover && !force) {
            KLOG(bh::LOGGER_NAME::SDK_INPUT, warn,
                 "[Sensors] MCU module not responding. Attempt module reboot");
            is_lost = 0;
            hid_device* dev = hid.open_path(cur->path, 1);
            if (dev && cur->release_number > mcu_fw::LEGACY_MAX) {
                handle = dev;
                uint8_t buf[2] = {mcu_id::CMD, 0xE1};
                const bool written = writeReportCommand(buf, 2);
                hid.close(dev);
                is_lost = 1;
                if (written) {
                    reboot = true;
                } else {
                    KLOG(bh::LOGGER_NAME::SDK_INPUT, warn,
                         "[Sensors] MCU not responding while resetting module.. Second step recovery... ");
                    KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "[Sensors] USB clear: HALT & RESET - after -");
                    mcu_usb_recover(cur->path);
                }
            } else {
                if (dev)
                    hid.close(dev);
                is_lost = 1;
                reboot = true;
            }
            handle = nullptr;
        }

        auto take = [&](unsigned long long value) {
            taken = true;
            chosen_path = cur->path;
            chosen_serial = value;
            firmware_version = cur->release_number;
        };
        if (!has_sn || ((sn == 0 || sn == UNPROGRAMMED_SERIAL) && !force)) {
            take(has_sn ? sn : 0);
            break;
        }
        if (narrow(cur->serial_number) == std::to_string(wanted)) {
            take(sn);
            break;
        }
        if (wanted != 0)
            continue;
        take(sn);
        wanted = sn;
    }

    const bool good = chosen_serial != 0 && chosen_serial != UNPROGRAMMED_SERIAL;
    if (taken && ((!reboot && good) || force)) {
        KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "[Sensors][enter] hid_open_path MCU {}", chosen_path);
        handle = hid.open_path(chosen_path.c_str(), 1);
        device_path = chosen_path;
    }
    hid.free_enumeration(devs);
    lock.unlock();

    if (taken && reboot && good) {
        if (handle)
            hid.close(handle);
        handle = nullptr;
        device_path.clear();
        return -1;
    }
    if (taken && !good && !force) {
        if (handle)
            hid.close(handle);
        handle = nullptr;
        device_path.clear();
        return static_cast<int>(chosen_serial);
    }
    if (!handle)
        return -1;
    is_lost = 0;
    serial_number = static_cast<uint32_t>(chosen_serial);
    MEDIANFILTER_Init(&pressure_filter);
    is_open = 1;
    is_closed = 0;
    is_running = 1;
    ts_locked = 0;
    return static_cast<int>(chosen_serial);
}

void IMUHidReader::close() {
    is_running = 0;
    std::lock_guard<std::mutex> lock(device_mutex);
    if (is_open && !is_closed && !is_replay) {
        if (handle) {
            if (isLegacy() || isDataStreamEnabled())
                sendStopDataStreamingCommand();
            sleepMs(10);
            if (!is_lost)
                platform::hid().close(handle);
        }
    } else if (is_replay && replay_file) {
        std::fclose(replay_file);
        replay_file = nullptr;
    }
    disableSIDRecording();
    mcu_sync_times.clear();
    host_sync_times.clear();
    is_closed = 1;
    has_new_data = 0;
    handle = nullptr;
}

// ---------------------------------------------------------------------------
// Streaming

void IMUHidReader::processTimestamps(bool imu_valid) {
    const uint64_t raw = current_report.timestamp;
    uint64_t corrected = raw + accumulated_ts_offset;
    uint64_t delta;
    if (corrected < last_ticks) {
        // The MCU restarted its counter: place the sample one interval after the last.
        delta = static_cast<uint64_t>(static_cast<double>(delta_us) / MCU_TICK_US);
        corrected = last_ticks + delta;
        accumulated_ts_offset = corrected - raw;
    } else {
        delta = corrected - last_ticks;
    }
    current_report.timestamp = corrected;
    last_ticks = corrected;
    delta_us = ticksToUs(delta);

    const uint64_t now = imu_valid ? static_cast<uint64_t>(platform::clock().systemNanoseconds()) : 0;
    const bool trigger = current_report.frame_sync == 1;
    if (mcu_time_ns != 0) {
        mcu_time_ns += static_cast<uint64_t>(clock_ratio * 1000.0) * delta_us;
        if (trigger && imu_valid) {
            mcu_sync_times.push_back(mcu_time_ns);
            host_sync_times.push_back(now);
            if (mcu_sync_times.size() >= 100 && host_sync_times.size() >= 100) {
                const size_t first = ntp_count < 2 ? 50 : 5;
                const double host_span =
                    static_cast<double>(static_cast<int64_t>(host_sync_times[99] - host_sync_times[first]));
                const double mcu_span =
                    static_cast<double>(static_cast<int64_t>(mcu_sync_times[99] - mcu_sync_times[first]));
                double ratio = host_span / mcu_span;
                if (std::isnan(ratio))
                    ratio = 1.0;
                ratio = std::min(1.2, std::max(0.8, ratio));
                clock_ratio *= ratio;
                mcu_sync_times.clear();
                host_sync_times.clear();
                bool count_up = true;
                if (ntp_count < 2) {
                    mcu_time_ns = now;
                    if (!ts_offset_pending) {
                        ntp_count++;
                        count_up = false;
                    }
                }
                if (count_up) {
                    if (ts_offset_pending) {
                        mcu_time_ns = now - static_cast<uint64_t>(ts_offset);
                        ts_offset_pending = 0;
                        ts_locked = 1;
                    }
                    ntp_count++;
                    if (ntp_count > 5)
                        ts_locked = 1;
                }
            }
        }
    }
    if (mcu_time_ns == 0 && trigger && imu_valid) {
        mcu_sync_times.clear();
        host_sync_times.clear();
        mcu_time_ns = now;
    }
    if (imu_valid)
        current_ts = ts_locked ? mcu_time_ns : now;
}

bool IMUHidReader::updateIMUData(bool long_wait) {
    if (!is_running)
        return false;
    if (!handle && !replay_file)
        return false;

    if (handle) {
        int r;
        {
            std::lock_guard<std::mutex> lock(device_mutex);
            if (!handle)
                return false;
            r = platform::hid().read_timeout(handle, stream_buffer, REPORT_LEN, long_wait ? 1000 : 200);
        }
        // One count for the calls of every reader of the process: from the
        // 400th on, a call that got data pings its MCU and the count restarts.
        static std::atomic<uint32_t> calls{0};
        if (++calls >= 400 && r > 0) {
            sendPing();
            calls = 1;
        }
        // Unsigned on purpose: an error (-1) counts as a full read and the
        // previous buffer goes through again.
        if (static_cast<size_t>(static_cast<long>(r)) < static_cast<size_t>(REPORT_LEN)) {
            has_new_data = 0;
            reopen_failures++;
            if (reopen_failures == 1) {
                {
                    std::lock_guard<std::mutex> lock(device_mutex);
                    if (handle)
                        platform::hid().close(handle);
                    handle = platform::hid().open_path(device_path.c_str(), 1);
                }
                sendStartDataStreamingCommand();
                sleepMs(100);
            }
            sleepMs(100);
            if (reopen_failures > 2)
                is_lost = 1;
            return false;
        }
        {
            std::lock_guard<std::mutex> lock(sample_mutex);
            std::memcpy(&current_report, stream_buffer, REPORT_LEN);
        }
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
    } else {
        sidRecord rec;
        if (std::fread(&rec, 1, sizeof(rec), replay_file) != sizeof(rec)) {
            has_new_data = 0;
            return false;
        }
        rvf_frame_ts = rec.frame_ts;
        std::lock_guard<std::mutex> lock(sample_mutex);
        current_report = rec.report;
    }

    const uint8_t expected_id = isLegacy() ? 0 : 1;
    if (current_report.report_id != expected_id) {
        has_new_data = 0;
        return false;
    }

    const bool imu_valid = current_report.imu_not_valid == 0;
    {
        std::lock_guard<std::mutex> lock(sample_mutex);
        processTimestamps(imu_valid);
    }
    if (!imu_valid) {
        has_new_data = 0;
        return false;
    }
    has_new_data = 1;

    {
        std::lock_guard<std::mutex> lock(sample_mutex);
        McuSensorReport& rep = current_report;
        if (rep.env_valid > 2)
            rep.env_valid = 0;
        if (rep.env_valid == 2 || (rep.env_valid == 1 && !env_stored)) {
            env_ts = current_ts;
            env_ticks = rep.timestamp;
            env_humidity = rep.humidity;
            env_temperature = rep.env_temperature;
            env_pressure = static_cast<uint32_t>(
                MEDIANFILTER_Insert(&pressure_filter, static_cast<int32_t>(rep.pressure)));
            env_stored = 1;
        }
        if (rep.mag_valid > 2)
            rep.mag_valid = 0;
        if (rep.mag_valid == 2 || (rep.mag_valid != 0 && !mag_stored)) {
            mag_ts = current_ts;
            mag_ticks = rep.timestamp;
            mag_stored = 1;
        }
    }

    const bool trigger = current_report.frame_sync == 1;
    const bool changed = current_report.frame_sync_count != last_frame_sync_count;
    sync_event = (!trigger && !changed) ? 0 : (trigger && changed) ? 2 : 1;
    if (sync_event != 0)
        sync_ticks = current_report.timestamp;
    last_frame_sync_count = current_report.frame_sync_count;

    if (is_replay)
        sleepMs(1);
    sample_counter++;
    is_lost = 0;
    reopen_failures = 0;
    return has_new_data;
}

// ---------------------------------------------------------------------------
// Recording

bool IMUHidReader::enableSIDRecording(float yaw) {
    if (allow_recording && !sid_path.empty())
        return createSIDRecording(yaw, sid_path);
    return false;
}

bool IMUHidReader::createSIDRecording(float yaw, std::string path) {
    disableSIDRecording();
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f)
        return false;
    sidFileHeader header{};
    header.version = SID_VERSION;
    header.serial_number = serial_number;
    header.start_yaw = yaw;
    header.eeprom = eeprom;
    std::fwrite(&header, sizeof(header), 1, f);
    std::lock_guard<std::mutex> lock(recording_mutex);
    sid_file = f;
    is_recording = 1;
    return true;
}

bool IMUHidReader::disableSIDRecording() {
    std::lock_guard<std::mutex> lock(recording_mutex);
    if (sid_file)
        std::fclose(sid_file);
    sid_file = nullptr;
    is_recording = 0;
    return true;
}

void IMUHidReader::setOptExtQuaternion(float x, float y, float z, float w, float a, float b, float c) {
    std::lock_guard<std::mutex> lock(recording_mutex);
    const float q[7] = {x, y, z, w, a, b, c};
    std::memcpy(ext_quaternion, q, sizeof(q));
}

void IMUHidReader::setTSOffset(long offset) {
    ts_offset = offset;
    ts_offset_pending = 1;
}

// ---------------------------------------------------------------------------
// Getters

uint64_t IMUHidReader::getDeltaTime_us() {
    return delta_us;
}
uint64_t IMUHidReader::getCurrentMCUTimeStamp() {
    return ticksToUs(current_report.timestamp);
}
uint64_t IMUHidReader::getCurrentMCUEnvTimeStamp() {
    return ticksToUs(env_ticks);
}
uint64_t IMUHidReader::getCurrentMCUMagTimeStamp() {
    return ticksToUs(mag_ticks);
}

float IMUHidReader::getMappedMagnetoX() {
    return current_report.mag_valid == 0 ? std::nanf("") : current_report.mag_x / 16.f;
}
float IMUHidReader::getMappedMagnetoY() {
    return current_report.mag_valid == 0 ? std::nanf("") : current_report.mag_y / 16.f;
}
float IMUHidReader::getMappedMagnetoZ() {
    return current_report.mag_valid == 0 ? std::nanf("") : current_report.mag_z / 16.f;
}
float IMUHidReader::getEnvTemperature() {
    return current_report.env_valid == 0 ? std::nanf("") : env_temperature * 0.01f;
}
float IMUHidReader::getEnvHumidity() {
    return current_report.env_valid == 0 ? std::nanf("") : env_humidity / 1024.f;
}
float IMUHidReader::getEnvPressure() {
    return current_report.env_valid == 0 ? std::nanf("") : env_pressure * 0.01f;
}
float IMUHidReader::getOnBoardLeftTemperature() {
    return current_report.temp_cam_left * 0.01f;
}
float IMUHidReader::getOnBoardRightTemperature() {
    return current_report.temp_cam_right * 0.01f;
}

float IMUHidReader::getCurrentIMUTemperatureInCelsius(bool nan_if_absent) {
    if (firmware_version < mcu_fw::NO_IMU_TEMP_BELOW)
        return nan_if_absent ? std::nanf("") : 0.f;
    const int count = current_report.imu_temperature;
    if (firmware_version > mcu_fw::LEGACY_MAX)
        return count * 0.01f;
    // The sign is corrected twice on purpose, as the firmware tools read it.
    if (count >= 0)
        return 23.f + count / 512.f;
    return 23.f - (65536 - count) / 512.f;
}

McuSensorReport IMUHidReader::getSensorData() {
    std::lock_guard<std::mutex> lock(sample_mutex);
    sensor_data = current_report;
    return sensor_data;
}

uint64_t IMUHidReader::getCurrentBHIMUTimestamp() {
    return current_ts;
}
uint64_t IMUHidReader::getCurrentBHEnvTimestamp() {
    return env_ts;
}
uint64_t IMUHidReader::getCurrentBHMagTimestamp() {
    return mag_ts;
}
