// The camera's vendor control channel: UVC extension-unit requests on the video
// node. Old firmware answers on unit 3 with fixed 64-byte packets; CBS firmware
// answers on unit 4 with packets whose length the device reports itself.

#include <linux/usb/video.h>
#include <linux/uvcvideo.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <initializer_list>
#include <mutex>

#include "bh_input/grabber/linux/ClockWait.h"
#include "bh_input/grabber/linux/linuxStereoGrabber.h"
#include "platform/Platform.h"
#include "support/KLogger.h"

namespace bh {

namespace {

constexpr uint8_t kOldUnit = 3;
constexpr uint8_t kCbsUnit = 4;
constexpr uint8_t kSelector = 2;

constexpr int kOldPacket = 64;
// Every CBS operation builds its packet in a buffer this large: the device
// exchanges its own control length, which may exceed the packet's content.
constexpr int kCbsBuffer = 384;
constexpr int kCbsReplyByte = 17;
constexpr int kCbsMaxFlashRead = 256;

constexpr int kModeRead = 1;
constexpr int kModeWrite = 2;

constexpr uint32_t kIspControl0 = 0x80181002;
constexpr uint32_t kIspControl1 = 0x80181802;
constexpr unsigned char kAecAgcBit = 0x10;
constexpr int kLedGpio = 2;

// The text a failed UVCIOC_CTRL_QUERY gets in the log.
const char* queryErrorText(int err) {
    switch (err) {
        case EBADRQC:
            return "Request not supported by control";
        case ENOBUFS:
            return "Buffer size does not match control size";
        case ENOENT:
            return "Extension unit or control not found";
        case EINVAL:
            return "Invalid request code";
        default:
            return std::strerror(err);
    }
}

uvc_xu_control_query makeQuery(uint8_t unit, uint8_t query, uint16_t size, unsigned char* data) {
    uvc_xu_control_query q;
    std::memset(&q, 0, sizeof q);
    q.unit = unit;
    q.selector = kSelector;
    q.query = query;
    q.size = size;
    q.data = data;
    return q;
}

void putLE16(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v);
    p[1] = static_cast<unsigned char>(v >> 8);
}

void putLE24(unsigned char* p, uint32_t v) {
    putLE16(p, v);
    p[2] = static_cast<unsigned char>(v >> 16);
}

void putLE32(unsigned char* p, uint32_t v) {
    putLE24(p, v);
    p[3] = static_cast<unsigned char>(v >> 24);
}

void putBE16(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 8);
    p[1] = static_cast<unsigned char>(v);
}

void putBE32(unsigned char* p, uint32_t v) {
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

// Sensor 0 and 1 have their own command byte in the CBS sensor packets; 0 for
// any other sensor.
unsigned char cbsSensorCommand(int sensor) {
    return sensor == 0 ? 0xA3 : sensor == 1 ? 0xA5 : 0;
}

// The CBS register packets: 0x51 reads, 0x50 writes (value at byte 16).
constexpr unsigned char kCbsRead = 0x51;
constexpr unsigned char kCbsWrite = 0x50;

void fillCbsSystemPacket(unsigned char* p, unsigned char op, uint32_t address) {
    p[0] = op;
    p[1] = 0xA2;
    p[3] = 0x04;
    p[4] = 0x01;
    putBE32(p + 5, address);
    p[10] = 0x01;
    p[12] = 0x01;
}

void fillCbsSensorPacket(unsigned char* p, unsigned char op, unsigned char command, int width,
                         uint32_t address) {
    p[0] = op;
    p[1] = command;
    p[2] = 0x6C;
    p[3] = static_cast<unsigned char>(width + 1);
    p[4] = 0x01;
    putBE32(p + 5, address);
    putLE16(p + 9, 0x0190);
    p[12] = 0x01;
}

}  // namespace

// ---------------------------------------------------------------------------
// Old channel (unit 3): SET_CUR, optionally GET_CUR into the same buffer.

int LinuxStereoGrabber::linux_VendorControl(unsigned char* data, int size, int mode, bool delay) {
    if (data == nullptr || size <= 0 || size > 0xFFFF)
        return -1;
    uvc_xu_control_query set = makeQuery(kOldUnit, UVC_SET_CUR, static_cast<uint16_t>(size), data);
    if (xioctl(fd, UVCIOC_CTRL_QUERY, &set) < 0) {
        const int err = errno;
        KLOG(LOGGER_NAME::SDK_INPUT, error, "SET failed {}. (System code: {})", queryErrorText(err), err);
        return -1;
    }
    sleepUs(100);
    if (delay)
        sleepUs(5000);
    if (mode == kModeRead) {
        uvc_xu_control_query get = makeQuery(kOldUnit, UVC_GET_CUR, static_cast<uint16_t>(size), data);
        if (xioctl(fd, UVCIOC_CTRL_QUERY, &get) < 0) {
            const int err = errno;
            KLOG(LOGGER_NAME::SDK_INPUT, error, "GET failed {}. (System code: {})", queryErrorText(err), err);
            return -2;
        }
    }
    return 0;
}

int LinuxStereoGrabber::linux_SystemRead(int address, unsigned char* out) {
    if (out == nullptr)
        return -1;
    unsigned char p[kOldPacket] = {};
    p[0] = 0x01;
    putLE32(p + 1, static_cast<uint32_t>(address));
    const int r = linux_VendorControl(p, kOldPacket, kModeRead);
    if (r == 0)
        *out = p[0];
    return r;
}

int LinuxStereoGrabber::linux_SystemWrite(int address, unsigned char value) {
    unsigned char p[kOldPacket] = {};
    p[0] = 0x02;
    putLE32(p + 1, static_cast<uint32_t>(address));
    p[5] = value;
    return linux_VendorControl(p, kOldPacket, kModeWrite);
}

int LinuxStereoGrabber::linux_SensorRead(int chip, int reg, unsigned char* out, int width, int sensor) {
    if (out == nullptr)
        return -1;
    unsigned char p[kOldPacket] = {};
    p[0] = 0x05;
    putLE16(p + 1, static_cast<uint32_t>(reg));
    p[3] = static_cast<unsigned char>(chip);
    p[4] = static_cast<unsigned char>(width);
    p[5] = static_cast<unsigned char>(sensor);
    const int r = linux_VendorControl(p, kOldPacket, kModeRead);
    if (r == 0)
        *out = p[0];
    return r;
}

int LinuxStereoGrabber::linux_SensorWrite(int chip, int reg, unsigned char value, int width, int sensor) {
    unsigned char p[kOldPacket] = {};
    p[0] = 0x06;
    putLE16(p + 1, static_cast<uint32_t>(reg));
    p[3] = value;
    p[4] = static_cast<unsigned char>(chip);
    p[5] = static_cast<unsigned char>(width);
    p[6] = static_cast<unsigned char>(sensor);
    return linux_VendorControl(p, kOldPacket, kModeWrite);
}

int LinuxStereoGrabber::linux_ISPAECAGCEnable(bool on) {
    if (cbs)
        return linux_cbs_ispaecagc_enable(0, on) + linux_cbs_ispaecagc_enable(1, on);
    unsigned char p[kOldPacket] = {};
    p[0] = 0x07;
    p[1] = 0x22;
    p[2] = on ? 1 : 0;
    return linux_VendorControl(p, kOldPacket, kModeWrite);
}

bool LinuxStereoGrabber::linux_getISPAECAGC() {
    if (cbs)
        return linux_cbs_is_aecagc(0) == 1 && linux_cbs_is_aecagc(1) == 1;
    unsigned char p[kOldPacket] = {};
    p[0] = 0x07;
    p[1] = 0x22;
    if (linux_VendorControl(p, kOldPacket, kModeRead) != 0)
        return false;
    return (p[2] & 0x02) != 0;
}

int LinuxStereoGrabber::linux_ISPManualExposure(unsigned char a, unsigned char b, unsigned char c,
                                                int sensor) {
    unsigned char p[kOldPacket] = {};
    p[0] = 0x07;
    p[1] = 0x24;
    p[2] = static_cast<unsigned char>(sensor);
    p[3] = a;
    p[4] = b;
    p[5] = c;
    return linux_VendorControl(p, kOldPacket, kModeWrite);
}

// The gain packet carries only the two low bytes; `a` is not sent.
int LinuxStereoGrabber::linux_ISPManualGain(unsigned char, unsigned char b, unsigned char c, int sensor) {
    unsigned char p[kOldPacket] = {};
    p[0] = 0x07;
    p[1] = 0x25;
    p[2] = static_cast<unsigned char>(sensor);
    p[3] = b;
    p[4] = c;
    return linux_VendorControl(p, kOldPacket, kModeWrite);
}

int LinuxStereoGrabber::linux_ISPExposureGet(unsigned char* out, int sensor) {
    if (out == nullptr)
        return -1;
    unsigned char p[kOldPacket] = {};
    p[0] = 0x07;
    p[1] = 0x26;
    p[2] = static_cast<unsigned char>(sensor);
    const int r = linux_VendorControl(p, kOldPacket, kModeRead);
    if (r == 0)
        std::memcpy(out, p, 3);
    return r;
}

int LinuxStereoGrabber::linux_ISPGainGet(unsigned char* out, int sensor) {
    if (out == nullptr)
        return -1;
    unsigned char p[kOldPacket] = {};
    p[0] = 0x07;
    p[1] = 0x27;
    p[2] = static_cast<unsigned char>(sensor);
    const int r = linux_VendorControl(p, kOldPacket, kModeRead);
    if (r == 0)
        std::memcpy(out, p, 2);
    return r;
}

int LinuxStereoGrabber::linux_SPI_FlashErase(int kind, int address) {
    unsigned char p[kOldPacket] = {};
    p[0] = 0x09;
    p[1] = 0x80;
    p[2] = static_cast<unsigned char>(kind);
    putLE24(p + 3, static_cast<uint32_t>(address));
    return linux_VendorControl(p, kOldPacket, kModeWrite);
}

int LinuxStereoGrabber::linux_SPI_FlashSetAdr(int address) {
    unsigned char p[kOldPacket] = {};
    p[0] = 0x09;
    p[1] = 0x81;
    putLE24(p + 2, static_cast<uint32_t>(address));
    return linux_VendorControl(p, kOldPacket, kModeWrite);
}

int LinuxStereoGrabber::linux_SPI_FlashProgramStart(const unsigned char* data, int size) {
    // The data follow a 4-byte header inside the 64-byte packet.
    constexpr int kHeader = 4;
    if (size < 0 || size > kOldPacket - kHeader || (data == nullptr && size > 0))
        return -1;
    unsigned char p[kOldPacket] = {};
    p[0] = 0x09;
    p[1] = 0x82;
    p[2] = static_cast<unsigned char>(size);
    if (size > 0)
        std::memcpy(p + kHeader, data, static_cast<size_t>(size));
    return linux_VendorControl(p, kOldPacket, kModeWrite);
}

int LinuxStereoGrabber::linux_SPI_FlashProgramRead(unsigned char* out, int address, int size) {
    // The data come back from byte 8 of the 64-byte reply, each group of four
    // bytes reversed. At most 64 bytes are asked for; only the 56 that fit in
    // the reply can be unpacked, the rest of `out` is left as it was.
    constexpr int kDataStart = 8;
    if (out == nullptr || size <= 0)
        return -1;
    if (size > kOldPacket)
        size = kOldPacket;
    unsigned char p[kOldPacket] = {};
    p[0] = 0x09;
    p[1] = 0x83;
    putLE24(p + 2, static_cast<uint32_t>(address));
    p[5] = static_cast<unsigned char>(size);
    const int r = linux_VendorControl(p, kOldPacket, kModeRead, true);
    if (r != 0)
        return r;
    for (int i = 0; i < size; ++i) {
        const int from = kDataStart + (i / 4) * 4 + (3 - i % 4);
        if (from >= kOldPacket)
            break;
        out[i] = p[from];
    }
    return 0;
}

// ---------------------------------------------------------------------------
// CBS channel (unit 4): GET_LEN, SET_CUR, optionally GET_CUR, all under
// control_mutex so that they never interleave with the producer's queue calls.

int LinuxStereoGrabber::linux_cbs_VendorControl(unsigned char* data, int size, int mode, bool delay) {
    if (size > kCbsBuffer)
        return -2;
    if (disconnected.load(std::memory_order_acquire))
        return -3;
    if (data == nullptr)
        return -1;
    platform::Sys& sys = platform::sys();
    std::lock_guard<std::mutex> lock(control_mutex);

    unsigned char lengthBytes[2] = {0, 0};
    uvc_xu_control_query len = makeQuery(kCbsUnit, UVC_GET_LEN, sizeof lengthBytes, lengthBytes);
    if (sys.ioctl(fd, UVCIOC_CTRL_QUERY, &len) < 0)
        return -4;
    const int length = lengthBytes[0] | lengthBytes[1] << 8;
    // The exchange moves the device's length in and out of `data`, which holds
    // only `size` bytes: a longer (or empty) control would overrun the caller's
    // buffer, so the request is not made.
    if (length == 0 || length > size)
        return -4;

    uvc_xu_control_query set = makeQuery(kCbsUnit, UVC_SET_CUR, static_cast<uint16_t>(length), data);
    if (sys.ioctl(fd, UVCIOC_CTRL_QUERY, &set) < 0) {
        const int err = errno;
        KLOG(LOGGER_NAME::SDK_INPUT, error, "CBS SET failed {}. (System code: {}) {}", queryErrorText(err),
             err, length);
        return -1;
    }
    sleepUs(delay ? 2000 : 300);
    if (mode != kModeRead)
        return 0;

    uvc_xu_control_query get = makeQuery(kCbsUnit, UVC_GET_CUR, static_cast<uint16_t>(length), data);
    if (sys.ioctl(fd, UVCIOC_CTRL_QUERY, &get) < 0) {
        const int err = errno;
        KLOG(LOGGER_NAME::SDK_INPUT, error, "CBS GET failed {}. (System code: {})", queryErrorText(err), err);
        return -1;
    }
    return 0;
}

int LinuxStereoGrabber::linux_cbs_read_system_register(uint32_t address, unsigned char* out) {
    if (!cbs || out == nullptr)
        return -1;
    unsigned char p[kCbsBuffer] = {};
    fillCbsSystemPacket(p, kCbsRead, address);
    const int r = linux_cbs_VendorControl(p, kCbsBuffer, kModeRead);
    if (r == 0)
        *out = p[kCbsReplyByte];
    return r;
}

int LinuxStereoGrabber::linux_cbs_write_system_register(uint32_t address, unsigned char value) {
    if (!cbs)
        return -1;
    unsigned char p[kCbsBuffer] = {};
    fillCbsSystemPacket(p, kCbsWrite, address);
    p[16] = value;
    return linux_cbs_VendorControl(p, kCbsBuffer, kModeWrite);
}

int LinuxStereoGrabber::linux_cbs_read_sensor_register(int sensor, int width, uint32_t address,
                                                       unsigned char* out) {
    if (!cbs || out == nullptr)
        return -1;
    const unsigned char command = cbsSensorCommand(sensor);
    if (command == 0)
        return -2;
    unsigned char p[kCbsBuffer] = {};
    fillCbsSensorPacket(p, kCbsRead, command, width, address);
    const int r = linux_cbs_VendorControl(p, kCbsBuffer, kModeRead);
    if (r == 0)
        *out = p[kCbsReplyByte];
    return r;
}

int LinuxStereoGrabber::linux_cbs_write_sensor_register(int sensor, int width, uint32_t address,
                                                        unsigned char value) {
    if (!cbs)
        return -1;
    const unsigned char command = cbsSensorCommand(sensor);
    if (command == 0)
        return -2;
    unsigned char p[kCbsBuffer] = {};
    fillCbsSensorPacket(p, kCbsWrite, command, width, address);
    p[16] = value;
    return linux_cbs_VendorControl(p, kCbsBuffer, kModeWrite);
}

// A CBS write packet made of its first bytes, the rest zero.
int LinuxStereoGrabber::sendCbsWrite(std::initializer_list<int> head) {
    if (!cbs)
        return -1;
    unsigned char p[kCbsBuffer] = {};
    size_t i = 0;
    for (int byte : head)
        p[i++] = static_cast<unsigned char>(byte);
    return linux_cbs_VendorControl(p, kCbsBuffer, kModeWrite);
}

int LinuxStereoGrabber::linux_cbs_set_gpio_direction(int gpio, int direction) {
    return sendCbsWrite({0x50, 0x10, gpio, direction});
}

int LinuxStereoGrabber::linux_cbs_set_gpio_interrupt(int gpio, int enable, int mode) {
    return sendCbsWrite({0x50, 0x11, enable, gpio, mode});
}

int LinuxStereoGrabber::linux_cbs_set_gpio_value(int gpio, int value) {
    return sendCbsWrite({0x50, 0x12, gpio, value});
}

int LinuxStereoGrabber::linux_cbs_get_gpio_value(int gpio, unsigned char* out) {
    if (!cbs || out == nullptr)
        return -1;
    unsigned char p[kCbsBuffer] = {};
    p[0] = 0x51;
    p[1] = 0x13;
    p[2] = static_cast<unsigned char>(gpio);
    const int r = linux_cbs_VendorControl(p, kCbsBuffer, kModeRead);
    if (r == 0)
        *out = p[kCbsReplyByte];
    return r;
}

int LinuxStereoGrabber::linux_cbs_SPI_FlashErase(int kind, uint32_t address) {
    if (kind != 0 && kind != 1)
        return 0;
    unsigned char p[kCbsBuffer] = {};
    p[0] = 0x51;
    p[1] = 0xA1;
    p[2] = kind == 0 ? 0xC7 : 0x20;
    putBE32(p + 5, address);
    const int r = linux_cbs_VendorControl(p, kCbsBuffer, kModeWrite);
    if (kind == 0 || p[0] == 0xFF)
        return r;
    // A sector erase takes a while: poll the start of the sector until it
    // reads erased (0xFF), 100 ms apart, for at most 100 polls.
    constexpr int kPolls = 100;
    constexpr int kPollBytes = 64;
    for (int i = 0; i < kPolls; ++i) {
        linux_cbs_SPI_FlashProgramRead(p, address, kPollBytes);
        sleepUs(100000);
        if (p[0] == 0xFF)
            return r;
    }
    return -2;
}

int LinuxStereoGrabber::linux_cbs_SPI_FlashProgramStart(const unsigned char* data, uint32_t address,
                                                        int size) {
    constexpr int kDataStart = 16;
    if (size < 0 || size > kCbsBuffer - kDataStart)
        return -2;
    if (data == nullptr && size > 0)
        return -1;
    unsigned char p[kCbsBuffer] = {};
    p[0] = 0x51;
    p[1] = 0xA1;
    p[2] = 0x02;
    putBE32(p + 5, address);
    putBE16(p + 9, 0x9000u + static_cast<uint32_t>(size));
    putBE16(p + 11, static_cast<uint32_t>(size));
    if (size > 0)
        std::memcpy(p + kDataStart, data, static_cast<size_t>(size));
    return linux_cbs_VendorControl(p, kCbsBuffer, kModeWrite);
}

int LinuxStereoGrabber::linux_cbs_SPI_FlashProgramRead(unsigned char* out, uint32_t address, int size) {
    if (size > kCbsMaxFlashRead || size < 0 || (out == nullptr && size > 0))
        return -1;
    unsigned char p[kCbsBuffer] = {};
    p[0] = 0x51;
    p[1] = 0xA1;
    p[2] = 0x03;
    putBE32(p + 5, address);
    putBE16(p + 9, 0x9000u + static_cast<uint32_t>(size));
    putBE16(p + 11, static_cast<uint32_t>(size));
    const int r = linux_cbs_VendorControl(p, kCbsBuffer, kModeRead, true);
    // 17 + 256 bytes lie well inside the 384-byte buffer.
    if (r == 0 && size > 0)
        std::memcpy(out, p + kCbsReplyByte, static_cast<size_t>(size));
    return r;
}

// ---------------------------------------------------------------------------
// Composite operations

int LinuxStereoGrabber::linux_cbs_is_aecagc(int sensor) {
    if (sensor != 0 && sensor != 1)
        return -2;
    unsigned char value = 0;
    const int r = linux_cbs_read_system_register(sensor == 0 ? kIspControl0 : kIspControl1, &value);
    if (r != 0)
        return r;
    return (value & kAecAgcBit) != 0 ? 1 : 0;
}

int LinuxStereoGrabber::linux_cbs_ispaecagc_enable(int sensor, bool on) {
    if (sensor != 0 && sensor != 1)
        return -2;
    const uint32_t address = sensor == 0 ? kIspControl0 : kIspControl1;
    unsigned char value = 0;
    const int r = linux_cbs_read_system_register(address, &value);
    // Without the current value the other bits cannot be kept: write nothing.
    if (r != 0)
        return r;
    value =
        on ? static_cast<unsigned char>(value | kAecAgcBit) : static_cast<unsigned char>(value & ~kAecAgcBit);
    return linux_cbs_write_system_register(address, value);
}

int LinuxStereoGrabber::ISPAECAGCEnable(bool on) {
    return linux_ISPAECAGCEnable(on);
}

bool LinuxStereoGrabber::getISPAECAGC() {
    return linux_getISPAECAGC();
}

int LinuxStereoGrabber::setLEDValue(bool on) {
    return linux_cbs_set_gpio_direction(kLedGpio, 0) + linux_cbs_set_gpio_value(kLedGpio, on ? 1 : 0);
}

int LinuxStereoGrabber::getLEDValue(unsigned char* out) {
    return linux_cbs_set_gpio_direction(kLedGpio, 1) + linux_cbs_get_gpio_value(kLedGpio, out);
}

int LinuxStereoGrabber::InitializeSPIQuery(unsigned char* out, int size) {
    if (!cbs)
        return -1;
    return linux_cbs_SPI_FlashProgramRead(out, 0, size);
}

}  // namespace bh
