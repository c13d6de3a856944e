// The camera EEPROM as the GMSL inertial reader uses it: the identification
// block at the base address A (serial number at 0) and the IMU calibration
// image in the blocks behind it, image byte o at address A + 1 + (o >> 8),
// register o & 0xFF. Offsets here count from the start of block A.
#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <vector>

#include "bh_input/grabber/gmsl/I2CHandler.h"
#include "bh_input/mcu/IMU/IMUGMSLReader.h"
#include "bh_input/mcu/IMU/checkEepromValues.h"
#include "platform/Clock.h"

namespace {

// The descriptor of one EEPROM access, closed on every way out.
class BusHandle {
public:
    explicit BusHandle(int bus) : fd_(bus >= 0 ? i2c_open(static_cast<unsigned>(bus)) : -1) {}
    ~BusHandle() { i2c_close(fd_); }
    BusHandle(const BusHandle&) = delete;
    BusHandle& operator=(const BusHandle&) = delete;
    int fd() const { return fd_; }

private:
    int fd_;
};

uint8_t chipOf(unsigned char base, unsigned offset) {
    return static_cast<uint8_t>(base + (offset >> 8));
}

}  // namespace

bool IMUGMSLReader::readFulli2cSecEeprom(eepromMemoryStrc& image) {
    if (i2c_bus < 0 || eeprom_address == 0)
        return false;
    BusHandle bus(i2c_bus);
    if (bus.fd() < 0) {
        std::printf("[IMUGMSL] Cannot open %s for the EEPROM\n", device_path.c_str());
        return false;
    }
    uint8_t* out = reinterpret_cast<uint8_t*>(&image);
    const unsigned size = sizeof(eepromMemoryStrc);
    for (unsigned o = 0; o < size; o += EEPROM_READ_CHUNK) {
        const unsigned length = std::min<unsigned>(EEPROM_READ_CHUNK, size - o);
        const unsigned at = IMAGE_EEPROM_OFFSET + o;
        if (i2c_read(bus.fd(), chipOf(eeprom_address, at), static_cast<uint8_t>(at & 0xFF), out + o,
                     length) != 0) {
            std::printf("[IMUGMSL] EEPROM read failed at image offset %u\n", o);
            return false;
        }
    }
    return true;
}

bool IMUGMSLReader::writeInEeprom(unsigned int offset, void* data, int size, unsigned char eeprom_base) {
    if (data == nullptr || size <= 0 || offset >= EEPROM_SIZE ||
        static_cast<unsigned>(size) > EEPROM_SIZE - offset || eeprom_base == 0) {
        std::printf("[IMUGMSL] EEPROM write of %d bytes at 0x%X refused\n", size, offset);
        return false;
    }
    BusHandle bus(i2c_bus);
    if (bus.fd() < 0)
        return false;
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    // Page by page: a write that ran over a page end would wrap inside the
    // page. The chip takes no command during its write cycle.
    for (int done = 0; done < size;) {
        const unsigned at = offset + static_cast<unsigned>(done);
        const int piece = std::min<int>(EEPROM_PAGE - static_cast<int>(at % EEPROM_PAGE), size - done);
        if (i2c_write(bus.fd(), chipOf(eeprom_base, at), static_cast<uint8_t>(at & 0xFF), bytes + done,
                      static_cast<uint32_t>(piece)) != 0) {
            std::printf("[IMUGMSL] EEPROM write failed at 0x%X\n", at);
            return false;
        }
        platform::clock().sleepFor(std::chrono::microseconds(EEPROM_WRITE_CYCLE_US));
        done += piece;
    }
    // Read back, never across a block.
    std::vector<uint8_t> back(static_cast<size_t>(size));
    for (int done = 0; done < size;) {
        const unsigned at = offset + static_cast<unsigned>(done);
        const int piece = std::min<int>(256 - static_cast<int>(at & 0xFF), size - done);
        if (i2c_read(bus.fd(), chipOf(eeprom_base, at), static_cast<uint8_t>(at & 0xFF), back.data() + done,
                     static_cast<uint32_t>(piece)) != 0) {
            std::printf("[IMUGMSL] EEPROM read-back failed at 0x%X\n", at);
            return false;
        }
        done += piece;
    }
    if (std::memcmp(back.data(), bytes, back.size()) != 0) {
        std::printf("[IMUGMSL] EEPROM read-back differs from what was written at 0x%X\n", offset);
        return false;
    }
    return true;
}

bool IMUGMSLReader::updateEepromMemory(bool) {
    if (is_replay)
        return is_open != 0;  // the recording's image stays
    if (!is_open)
        return false;
    eepromMemoryStrc image{};
    if (!readFulli2cSecEeprom(image))
        return false;
    checkBiasData(image.bias);
    checkVarianceData(image.variance);
    checkCamIMUData(image.cam_imu);
    checkExtendedGyroCalibData(image.ext_gyro_calib);
    checkExtendedAccCalibData(image.ext_acc_calib);
    std::lock_guard<std::mutex> lock(eeprom_mutex);
    eeprom = image;
    return true;
}

eepromMemoryStrc IMUGMSLReader::getEepromMemory(bool refresh) {
    if (refresh)
        updateEepromMemory(true);
    std::lock_guard<std::mutex> lock(eeprom_mutex);
    return eeprom;
}

bool IMUGMSLReader::writeImageRecord(size_t image_offset, const void* record, size_t length) {
    if (!is_open || is_replay)
        return false;
    std::vector<uint8_t> copy(static_cast<const uint8_t*>(record),
                              static_cast<const uint8_t*>(record) + length);
    if (!writeInEeprom(static_cast<unsigned>(IMAGE_EEPROM_OFFSET + image_offset), copy.data(),
                       static_cast<int>(length), eeprom_address)) {
        return false;
    }
    std::lock_guard<std::mutex> lock(eeprom_mutex);
    std::memcpy(reinterpret_cast<uint8_t*>(&eeprom) + image_offset, copy.data(), length);
    return true;
}

bool IMUGMSLReader::sendWriteSNCommand(int serial_prefix, int serial_body) {
    const int64_t value = static_cast<int64_t>(serial_prefix) * 10000000 + serial_body;
    if (value < 0 || value > static_cast<int64_t>(UINT32_MAX)) {
        std::printf("[IMUGMSL] Serial number %" PRId64 " does not fit 4 bytes\n", value);
        return false;
    }
    if (!is_open || is_replay)
        return false;
    const uint32_t v = static_cast<uint32_t>(value);
    uint8_t bytes[4] = {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v >> 16),
                        static_cast<uint8_t>(v >> 24)};
    if (!writeInEeprom(0, bytes, sizeof(bytes), eeprom_address))
        return false;
    serial_number = v;
    return true;
}

bool IMUGMSLReader::readEepromSerialNumber(int& serial_prefix, int& serial_body) {
    serial_prefix = static_cast<int>(serial_number / 1000000u);
    serial_body = static_cast<int>(serial_number % 1000000u);
    return true;
}

bool IMUGMSLReader::sendWriteBiasCommand(float gx, float gy, float gz, float ax, float ay, float az) {
    _bias_data rec{mcu_id::BIAS, {gx, gy, gz}, {ax, ay, az}};
    return writeImageRecord(offsetof(eepromMemoryStrc, bias), &rec, sizeof(rec));
}

bool IMUGMSLReader::sendWriteVarianceCommand(float gx, float gy, float gz, float ax, float ay, float az) {
    variance_data rec{mcu_id::VARIANCE, {gx, gy, gz}, {ax, ay, az}};
    return writeImageRecord(offsetof(eepromMemoryStrc, variance), &rec, sizeof(rec));
}

bool IMUGMSLReader::sendWriteKlibCommand(float x, float y, float z) {
    _cam_imu_data rec{mcu_id::CAM_IMU, {x, y, z}};
    return writeImageRecord(offsetof(eepromMemoryStrc, cam_imu), &rec, sizeof(rec));
}

bool IMUGMSLReader::sendWriteExtGyroCalibCommand(_extended_gyro_calib_data& data) {
    data.id = mcu_id::EXT_GYRO;
    return writeImageRecord(offsetof(eepromMemoryStrc, ext_gyro_calib), &data, sizeof(data));
}

bool IMUGMSLReader::sendWriteExtAccCalibCommand(_extended_acc_calib_data& data) {
    data.id = mcu_id::EXT_ACC;
    return writeImageRecord(offsetof(eepromMemoryStrc, ext_acc_calib), &data, sizeof(data));
}

bool IMUGMSLReader::getDataSavingTime(std::string& text) {
    std::lock_guard<std::mutex> lock(eeprom_mutex);
    if (eeprom.date_time.valid != 1)
        return false;
    const char* begin = eeprom.date_time.text;
    text.assign(begin, strnlen(begin, sizeof(eeprom.date_time.text)));
    return true;
}
