#pragma once

// The state behind a simulated camera's vendor control channels: the bridge's
// system registers, both image sensors' registers, the GPIOs and the SPI
// flash. Both channel generations (ExtensionUnits.h) read and change this one
// state, and tests inspect it through the accessors. Thread-safe.

#include <cstdint>
#include <map>
#include <mutex>
#include <vector>

namespace sim {

struct FirmwareConfig {
    bool cbs = true;         // channel generation: CBS (unit 4) or old (unit 3)
    int64_t version = 1523;  // CBS: the number the tool shows (registers 0x8018FFF0/1); old: the 32-bit value
    uint32_t flashSize = 0x100000;  // bytes; erased flash reads 0xFF
    bool hasSerial = true;          // a serial record at 0x18000
    int64_t serial = 12345;         // stored digit for digit (12345 -> 00 01 23 45)
    bool hasExposure = false;       // an exposure record at 0x19000
    int64_t exposure = 0;
    int temperatureC = 40;  // 0x4D13 reads this + 64 after 0x4D12 = 1
    int erasePolls = 0;     // flash reads that see the old contents before an erase completes
    bool damagedSensors[2] = {false, false};  // 0x3503 bit 2 clear, 0x3744/0x3745 wrong
    std::vector<std::pair<uint32_t, std::vector<uint8_t>>> flashPatches;  // written over the image at load
};

class CameraFirmware {
public:
    static constexpr uint32_t kSerialRecord = 0x18000;
    static constexpr uint32_t kExposureRecord = 0x19000;
    static constexpr uint32_t kSectorSize = 4096;
    static constexpr uint32_t kIspControl0 = 0x80181002;
    static constexpr uint32_t kIspControl1 = 0x80181802;
    static constexpr uint32_t kVersionHigh = 0x8018FFF0;
    static constexpr uint32_t kVersionLow = 0x8018FFF1;
    static constexpr int kGpioCount = 16;
    static constexpr int kLedGpio = 2;

    explicit CameraFirmware(const FirmwareConfig& config);

    bool cbs() const { return config_.cbs; }
    // The old channel's version packet value.
    uint32_t oldVersion() const { return static_cast<uint32_t>(config_.version); }

    uint8_t systemRegister(uint32_t address) const;
    void setSystemRegister(uint32_t address, uint8_t value);

    // Sensor 0 or 1; reads of the lock registers give 0 while the ISP is locked.
    uint8_t sensorRegister(int sensor, uint16_t address) const;
    void setSensorRegister(int sensor, uint16_t address, uint8_t value);

    uint8_t gpioValue(int gpio) const;
    uint8_t gpioDirection(int gpio) const;
    void setGpioValue(int gpio, uint8_t value);
    void setGpioDirection(int gpio, uint8_t direction);
    void setGpioInterrupt(int gpio, uint8_t enable, uint8_t mode);

    // Auto exposure and gain (bit 4 of the sensor's ISP control register).
    bool autoExposure(int sensor) const;
    void setAutoExposure(int sensor, bool on);

    // Flash as the channels see it: an erase may stay pending for some reads.
    std::vector<uint8_t> readFlash(uint32_t address, size_t size);
    void programFlash(uint32_t address, const uint8_t* data, size_t size);  // NOR: bits only go to 0
    void eraseChip();
    void eraseSector(uint32_t address);
    // The flash image now (a pending erase not applied), for tests.
    std::vector<uint8_t> flash(uint32_t address, size_t size) const;
    bool erasePending() const;

    void setIspLocked(int sensor, bool locked);
    bool ispLocked(int sensor) const;

    // Counters of the channel traffic, for tests.
    struct Counters {
        uint64_t requests = 0;  // SET_CUR packets taken
        uint64_t erases = 0;    // erase commands taken
        uint64_t programs = 0;
        uint64_t flashReads = 0;
    };
    Counters counters() const;
    void countRequest();

private:
    void applyPendingErase();  // mutex held
    void erase(uint32_t begin, uint32_t end);
    uint8_t sensorRegisterLocked(int sensor, uint16_t address) const;

    FirmwareConfig config_;
    mutable std::mutex mutex_;
    std::map<uint32_t, uint8_t> system_;
    std::map<uint16_t, uint8_t> sensor_[2];
    uint8_t gpioValue_[kGpioCount] = {};
    uint8_t gpioDirection_[kGpioCount] = {};
    uint8_t gpioInterrupt_[kGpioCount] = {};
    std::vector<uint8_t> flash_;
    bool ispLocked_[2] = {false, false};
    // An erase waiting for its completion: the range and the reads left.
    bool erasePending_ = false;
    uint32_t eraseBegin_ = 0, eraseEnd_ = 0;
    int eraseReadsLeft_ = 0;
    Counters counters_;
};

// The flash record of the serial number or the exposure: marker, the value's
// decimal digits as hexadecimal digits (big-endian), then the filler bytes
// 0x06..0x1F; 32 bytes.
std::vector<uint8_t> flashRecord(char m0, char m1, int64_t value);

}  // namespace sim
