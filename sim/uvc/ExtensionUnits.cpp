#include "sim/uvc/ExtensionUnits.h"

#include <linux/usb/video.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace sim {

namespace {

uint32_t le32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
           static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}
uint16_t le16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] | p[1] << 8);
}
uint32_t le24(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16;
}
uint32_t be32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 |
           static_cast<uint32_t>(p[2]) << 8 | static_cast<uint32_t>(p[3]);
}
uint16_t be16(const uint8_t* p) {
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

constexpr uint8_t kSensorChip = 0x6C;  // the image sensors' I2C address behind the bridge

}  // namespace

int ExtensionUnits::query(uint8_t unit, uint8_t selector, uint8_t query, uint8_t* data, uint16_t size) {
    const bool cbs = fw_->cbs();
    if (unit != (cbs ? kCbsUnit : kOldUnit) || selector != kSelector)
        return -ENOENT;
    const uint16_t length = cbs ? kCbsLength : kOldLength;
    std::lock_guard<std::mutex> lock(mutex_);
    switch (query) {
        case UVC_GET_LEN:
            if (size != 2)
                return -ENOBUFS;
            data[0] = static_cast<uint8_t>(length & 0xFF);
            data[1] = static_cast<uint8_t>(length >> 8);
            return 0;
        case UVC_GET_INFO:
            if (size != 1)
                return -ENOBUFS;
            data[0] = 0x03;  // supports GET and SET
            return 0;
        case UVC_SET_CUR:
            if (size != length)
                return -ENOBUFS;
            fw_->countRequest();
            aecQueryOpen_ = false;
            if (cbs)
                cbsRequest(data);
            else
                oldRequest(data);
            return 0;
        case UVC_GET_CUR:
            if (size != length)
                return -ENOBUFS;
            if (aecQueryOpen_) {
                // The 0x07 0x22 packet was the state query: undo it and report.
                fw_->setAutoExposure(0, aecBefore_[0]);
                fw_->setAutoExposure(1, aecBefore_[1]);
                reply_[2] = aecBefore_[0] && aecBefore_[1] ? 0x02 : 0x00;
                aecQueryOpen_ = false;
            }
            std::memcpy(data, reply_, length);
            return 0;
        case UVC_GET_MIN:
        case UVC_GET_DEF:
        case UVC_GET_RES:
        case UVC_GET_MAX:
            if (size != length)
                return -ENOBUFS;
            std::memset(data, query == UVC_GET_MAX ? 0xFF : 0x00, length);
            return 0;
        default:
            return -EINVAL;
    }
}

void ExtensionUnits::oldRequest(const uint8_t* req) {
    // The reply starts as the request; the answer overwrites its first bytes.
    std::memset(reply_, 0, sizeof reply_);
    std::memcpy(reply_, req, kOldLength);
    switch (req[0]) {
        case 0x01:  // system register read: address LE at 1..4
            reply_[0] = fw_->systemRegister(le32(req + 1));
            return;
        case 0x02:  // system register write: address LE at 1..4, value at 5
            fw_->setSystemRegister(le32(req + 1), req[5]);
            return;
        case 0x05:  // sensor register read: register LE at 1..2, chip 3, width 4, sensor 5
            reply_[0] = req[3] == kSensorChip ? fw_->sensorRegister(req[5], le16(req + 1)) : 0;
            return;
        case 0x06:  // sensor register write: register LE at 1..2, value 3, chip 4, width 5, sensor 6
            if (req[4] == kSensorChip)
                fw_->setSensorRegister(req[6], le16(req + 1), req[3]);
            return;
        case 0x07:  // image signal processor
            switch (req[1]) {
                case 0x22: {
                    aecBefore_[0] = fw_->autoExposure(0);
                    aecBefore_[1] = fw_->autoExposure(1);
                    const bool on = (req[2] & 1) != 0;
                    fw_->setAutoExposure(0, on);
                    fw_->setAutoExposure(1, on);
                    aecQueryOpen_ = true;
                    return;
                }
                case 0x24:  // manual exposure a, b, c of sensor req[2]
                    for (int i = 0; i < 3; ++i)
                        fw_->setSensorRegister(req[2], static_cast<uint16_t>(0x3500 + i), req[3 + i]);
                    return;
                case 0x25:  // manual gain b, c of sensor req[2]
                    fw_->setSensorRegister(req[2], 0x3508, req[3]);
                    fw_->setSensorRegister(req[2], 0x3509, req[4]);
                    return;
                case 0x26:
                    for (int i = 0; i < 3; ++i)
                        reply_[i] = fw_->sensorRegister(req[2], static_cast<uint16_t>(0x3500 + i));
                    return;
                case 0x27:
                    reply_[0] = fw_->sensorRegister(req[2], 0x3508);
                    reply_[1] = fw_->sensorRegister(req[2], 0x3509);
                    return;
                default:
                    return;
            }
        case 0x10:  // 0x10 0x02: firmware version, 32 bits LE
            if (req[1] == 0x02) {
                const uint32_t v = fw_->oldVersion();
                for (int i = 0; i < 4; ++i)
                    reply_[i] = static_cast<uint8_t>(v >> (8 * i));
            }
            return;
        case 0x09:  // SPI flash
            switch (req[1]) {
                case 0x80:  // erase: kind 2 (0 chip, 1 sector), address 3..5 LE
                    if (req[2] == 0)
                        fw_->eraseChip();
                    else if (req[2] == 1)
                        fw_->eraseSector(le24(req + 3));
                    return;
                case 0x81:  // set address 2..4 LE
                    flashAddress_ = le24(req + 2);
                    return;
                case 0x82: {  // program size req[2] bytes from 4 at the set address
                    const size_t n = std::min<size_t>(req[2], kOldLength - 4);
                    fw_->programFlash(flashAddress_, req + 4, n);
                    flashAddress_ += static_cast<uint32_t>(n);
                    return;
                }
                case 0x83: {  // read: address 2..4 LE, size 5; data from byte 8, each 4-byte group reversed
                    const size_t n = std::min<size_t>(req[5], kOldLength - 8);
                    std::vector<uint8_t> bytes = fw_->readFlash(le24(req + 2), n);
                    for (size_t i = 0; i < n; ++i)
                        reply_[8 + (i / 4) * 4 + 3 - i % 4] = bytes[i];
                    return;
                }
                default:
                    return;
            }
        default:
            return;
    }
}

void ExtensionUnits::cbsRequest(const uint8_t* req) {
    // The reply echoes the request header; values come from byte 17.
    std::memset(reply_, 0, sizeof reply_);
    std::memcpy(reply_, req, 16);
    const bool read = req[0] == 0x51;
    switch (req[1]) {
        case 0xA2:  // system register, address BE at 5..8
            if (read)
                reply_[17] = fw_->systemRegister(be32(req + 5));
            else if (req[0] == 0x50)
                fw_->setSystemRegister(be32(req + 5), req[16]);
            return;
        case 0xA3:    // sensor 0 register
        case 0xA5: {  // sensor 1 register
            const int sensor = req[1] == 0xA3 ? 0 : 1;
            const uint16_t reg = static_cast<uint16_t>(be32(req + 5));
            if (req[2] != kSensorChip)
                return;
            if (read)
                reply_[17] = fw_->sensorRegister(sensor, reg);
            else if (req[0] == 0x50)
                fw_->setSensorRegister(sensor, reg, req[16]);
            return;
        }
        case 0x10:
            fw_->setGpioDirection(req[2], req[3]);
            return;
        case 0x11:
            fw_->setGpioInterrupt(req[3], req[2], req[4]);
            return;
        case 0x12:
            fw_->setGpioValue(req[2], req[3]);
            return;
        case 0x13:
            reply_[17] = fw_->gpioValue(req[2]);
            return;
        case 0xA1: {  // SPI flash: operation at 2, address BE at 5..8, size BE at 11..12
            const uint32_t address = be32(req + 5);
            const size_t size = be16(req + 11);
            switch (req[2]) {
                case 0xC7:
                    fw_->eraseChip();
                    return;
                case 0x20:
                    fw_->eraseSector(address);
                    return;
                case 0x02:
                    fw_->programFlash(address, req + 16, std::min<size_t>(size, kCbsLength - 16));
                    return;
                case 0x03: {
                    const size_t n = std::min<size_t>(size, kCbsLength - 17);
                    std::vector<uint8_t> bytes = fw_->readFlash(address, n);
                    std::copy(bytes.begin(), bytes.end(), reply_ + 17);
                    return;
                }
                default:
                    return;
            }
        }
        default:
            return;
    }
}

}  // namespace sim
