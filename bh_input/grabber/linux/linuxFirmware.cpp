// Watch over the camera firmware while it streams, and the values the camera
// keeps in its SPI flash (serial number, stored exposure).

#include <linux/videodev2.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bh_input/grabber/linux/ClockWait.h"
#include "bh_input/grabber/linux/linuxStereoGrabber.h"
#include "platform/Platform.h"
#include "support/KLogger.h"

namespace bh {

namespace {

constexpr uint32_t kSerialAddress = 0x18000;
constexpr uint32_t kExposureAddress = 0x19000;
constexpr int kRecordWritten = 32;
constexpr int kRecordRead = 64;
constexpr int kSerialTries = 4;
constexpr int kSensorRegisterWidth = 1;

constexpr uint32_t kFirmwareVersionHigh = 0x8018FFF0;
constexpr uint32_t kFirmwareVersionLow = 0x8018FFF1;

// The leading decimal number of `text`, or -1 when it has none.
int parseDecimal(const char* text) {
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return end == text ? -1 : static_cast<int>(value);
}

}  // namespace

// ---------------------------------------------------------------------------
// Firmware watch (CBS only). Periods count frames at current_fps (F): the
// sensor repair every 5 s (frame % 10F at 0 for sensor 0, at 5F for sensor 1),
// the lock check every 10 s (frame % 20F at 0 and 10F). The producer calls
// this only once it has passed its first 100 frames.

void LinuxStereoGrabber::firmwareSanityCheck(unsigned long frame) {
    if (!cbs || current_fps <= 0)
        return;
    const uint64_t f = static_cast<uint64_t>(current_fps);
    const uint64_t n = frame;

    const uint64_t repairPhase = n % (10 * f);
    if (repairPhase == 0 || repairPhase == 5 * f) {
        const int sensor = repairPhase == 0 ? 0 : 1;
        unsigned char value = 0;
        if (linux_cbs_read_sensor_register(sensor, kSensorRegisterWidth, 0x3503, &value) == 0 &&
            (value & 0x04) == 0)
            linux_cbs_write_sensor_register(sensor, kSensorRegisterWidth, 0x3503, 0x04);
        if (linux_cbs_read_sensor_register(sensor, kSensorRegisterWidth, 0x3744, &value) == 0 &&
            value != 0x88) {
            KLOG(LOGGER_NAME::SDK_INPUT, warn, "[FW] Recover Sensor register 0x3744 [Val:{}]",
                 static_cast<int>(value));
            linux_cbs_write_sensor_register(sensor, kSensorRegisterWidth, 0x3744, 0x88);
        }
        if (linux_cbs_read_sensor_register(sensor, kSensorRegisterWidth, 0x3745, &value) == 0 &&
            value != 0xC0) {
            KLOG(LOGGER_NAME::SDK_INPUT, warn, "[FW] Recover Sensor register 0x3745 [Val:{}]",
                 static_cast<int>(value));
            linux_cbs_write_sensor_register(sensor, kSensorRegisterWidth, 0x3745, 0xC0);
        }
    }

    const uint64_t lockPhase = n % (20 * f);
    if (lockPhase == 0 || lockPhase == 10 * f) {
        const int sensor = lockPhase == 0 ? 0 : 1;
        // A locked image signal processor leaves these four registers at 0.
        // Failed reads do not count either way.
        int worked = 0;
        int zeros = 0;
        for (uint32_t reg = 0x484A; reg <= 0x484D; ++reg) {
            unsigned char value = 0;
            const int r = linux_cbs_read_sensor_register(sensor, kSensorRegisterWidth, reg, &value);
            sleepUs(5);
            if (r == 0) {
                ++worked;
                if (value == 0)
                    ++zeros;
            }
        }
        if (worked == 0 || zeros != worked) {
            ispl_lock_count[sensor] = 0;
            exposure_locked.store(false, std::memory_order_relaxed);
            return;
        }
        // Saturates rather than wrapping back to 0, so a lock stays reported.
        if (ispl_lock_count[sensor] < 255)
            ++ispl_lock_count[sensor];
        if (ispl_lock_count[sensor] > 1) {
            exposure_locked.store(true, std::memory_order_relaxed);
            KLOG(LOGGER_NAME::SDK_INPUT, warn, "[Capture] ISP locked --> Trigger recovery");
        }
    }
}

// ---------------------------------------------------------------------------
// Flash records: marker (2 bytes), value (4 bytes big-endian), then the
// ascending filler 0x06, 0x07, ... Written as 32 bytes, read as 64. The value
// is kept digit for digit: the decimal digits of the number are stored as hex
// digits (12345 becomes 0x00012345).

bool LinuxStereoGrabber::writeFlashRecord(uint32_t address, const char marker[2], int value) {
    // Only 0 to 8 decimal digits fit into 4 bytes of hex digits.
    if (value < 0 || value > 99999999)
        return false;
    char text[16];
    std::snprintf(text, sizeof text, "%d", value);
    const uint32_t stored = static_cast<uint32_t>(std::strtoul(text, nullptr, 16));

    unsigned char record[kRecordRead];
    for (int i = 0; i < kRecordRead; ++i)
        record[i] = static_cast<unsigned char>(i);
    record[0] = static_cast<unsigned char>(marker[0]);
    record[1] = static_cast<unsigned char>(marker[1]);
    record[2] = static_cast<unsigned char>(stored >> 24);
    record[3] = static_cast<unsigned char>(stored >> 16);
    record[4] = static_cast<unsigned char>(stored >> 8);
    record[5] = static_cast<unsigned char>(stored);

    int sum = 0;
    if (cbs) {
        unsigned char readBack[kRecordRead] = {};
        sum += linux_cbs_SPI_FlashErase(1, address);
        sum += linux_cbs_SPI_FlashProgramStart(record, address, kRecordWritten);
        sum += linux_cbs_SPI_FlashProgramRead(readBack, address, kRecordWritten);
    } else {
        sum += linux_SPI_FlashErase(1, static_cast<int>(address));
        sum += linux_SPI_FlashSetAdr(static_cast<int>(address));
        sum += linux_SPI_FlashProgramStart(record, kRecordWritten);
    }
    return sum == 0;
}

int LinuxStereoGrabber::readFlashRecord(uint32_t address, const char marker[2], int tries, int failure) {
    for (int attempt = 0; attempt < tries; ++attempt) {
        if (attempt > 0)
            sleepUs(100);
        unsigned char record[kRecordRead] = {};
        const int r = cbs ? linux_cbs_SPI_FlashProgramRead(record, address, kRecordRead)
                          : linux_SPI_FlashProgramRead(record, static_cast<int>(address), kRecordRead);
        if (r != 0 || record[0] != static_cast<unsigned char>(marker[0]) ||
            record[1] != static_cast<unsigned char>(marker[1]))
            continue;
        const uint32_t stored = static_cast<uint32_t>(record[2]) << 24 |
                                static_cast<uint32_t>(record[3]) << 16 |
                                static_cast<uint32_t>(record[4]) << 8 | record[5];
        char text[16];
        std::snprintf(text, sizeof text, "%x", stored);
        return parseDecimal(text);
    }
    return failure;
}

int LinuxStereoGrabber::getKOVSerialNumber() {
    if (cbs && !first_frame_seen.load())
        return -1;
    return readFlashRecord(kSerialAddress, "OV", kSerialTries, -3);
}

bool LinuxStereoGrabber::writeKOVSerialNumber(int serial) {
    return writeFlashRecord(kSerialAddress, "OV", serial);
}

bool LinuxStereoGrabber::writeExposureInFW(int exposure) {
    return writeFlashRecord(kExposureAddress, "EP", exposure);
}

int LinuxStereoGrabber::getExposureFromFW() {
    if (cbs && !first_frame_seen.load())
        return -1;
    return readFlashRecord(kExposureAddress, "EP", 1, -1);
}

int LinuxStereoGrabber::getKOVFirmwareVersion() {
    if (cbs) {
        unsigned char high = 0;
        unsigned char low = 0;
        if (linux_cbs_read_system_register(kFirmwareVersionHigh, &high) != 0 ||
            linux_cbs_read_system_register(kFirmwareVersionLow, &low) != 0)
            return -1;
        // The two bytes are read as the digits of a decimal number: 0x05,
        // 0x23 give 523, and the version is 1523.
        char text[8];
        std::snprintf(text, sizeof text, "%02x%02x", high, low);
        return parseDecimal(text) + 1000;
    }
    unsigned char p[64] = {};
    p[0] = 0x10;
    p[1] = 0x02;
    if (linux_VendorControl(p, sizeof p, 1) != 0)
        return -1;
    const uint32_t version = static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                             static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
    return static_cast<int>(version);
}

// ---------------------------------------------------------------------------

int LinuxStereoGrabber::input_get_framerate() {
    v4l2_streamparm parm;
    std::memset(&parm, 0, sizeof parm);
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.capturemode = 0x1000;
    if (xioctl(fd, VIDIOC_G_PARM, &parm) < 0) {
        KLOG(LOGGER_NAME::SDK_INPUT, error, "VIDIOC_G_PARM - Unable to get timeperframe");
        return -1;
    }
    return static_cast<int>(parm.parm.capture.timeperframe.denominator);
}

}  // namespace bh
