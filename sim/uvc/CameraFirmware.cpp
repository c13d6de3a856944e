#include "sim/uvc/CameraFirmware.h"

#include <algorithm>
#include <string>

namespace sim {

namespace {

// Decimal digits read as hexadecimal ones: 12345 -> 0x12345.
uint32_t digitsAsHex(int64_t value) {
    if (value < 0)
        return 0xFFFFFFFFu;
    return static_cast<uint32_t>(std::stoul(std::to_string(value), nullptr, 16));
}

uint8_t bcd(int value) {
    return static_cast<uint8_t>(((value / 10) % 10) << 4 | (value % 10));
}

// Power-on values of one sensor's registers that the host looks at.
const std::map<uint16_t, uint8_t> kSensorDefaults = {
    {0x3002, 0x00},                                                  // frame sync output off
    {0x3500, 0x00}, {0x3501, 0x2E}, {0x3502, 0x80},                  // exposure
    {0x3503, 0x04},                                                  // bit 2: the setting the firmware needs
    {0x3505, 0x01},                                                  //
    {0x3507, 0x00}, {0x3508, 0x00}, {0x3509, 0xF8},                  // gain
    {0x350A, 0x00}, {0x350B, 0x00}, {0x350C, 0x00},                  // parked manual exposure
    {0x3744, 0x88}, {0x3745, 0xC0},                                  // analogue settings
    {0x484A, 0x3C}, {0x484B, 0x1F}, {0x484C, 0x52}, {0x484D, 0x07},  // ISP statistics, live
    {0x4D12, 0x00}, {0x4D13, 0x00},                                  // temperature trigger and reading
};

bool isLockRegister(uint16_t address) {
    return address >= 0x484A && address <= 0x484D;
}

}  // namespace

std::vector<uint8_t> flashRecord(char m0, char m1, int64_t value) {
    std::vector<uint8_t> r(32);
    for (size_t i = 0; i < r.size(); ++i)
        r[i] = static_cast<uint8_t>(i);
    uint32_t v = digitsAsHex(value);
    r[0] = static_cast<uint8_t>(m0);
    r[1] = static_cast<uint8_t>(m1);
    r[2] = static_cast<uint8_t>(v >> 24);
    r[3] = static_cast<uint8_t>(v >> 16);
    r[4] = static_cast<uint8_t>(v >> 8);
    r[5] = static_cast<uint8_t>(v);
    return r;
}

CameraFirmware::CameraFirmware(const FirmwareConfig& config)
    : config_(config), flash_(config.flashSize, 0xFF) {
    for (int s = 0; s < 2; ++s) {
        sensor_[s] = kSensorDefaults;
        if (config_.damagedSensors[s]) {
            sensor_[s][0x3503] = 0x00;
            sensor_[s][0x3744] = 0x08;
            sensor_[s][0x3745] = 0x40;
        }
    }
    system_[kIspControl0] = 0x10;
    system_[kIspControl1] = 0x10;
    if (config_.cbs) {
        int v = static_cast<int>(config_.version - 1000);
        system_[kVersionHigh] = bcd(v / 100);
        system_[kVersionLow] = bcd(v % 100);
    }
    // The firmware image starts with its marker; the records follow.
    const uint8_t header[] = {'O', 'K', 0x01, 0x00};
    std::copy(std::begin(header), std::end(header), flash_.begin());
    auto put = [this](uint32_t at, const std::vector<uint8_t>& bytes) {
        for (size_t i = 0; i < bytes.size() && at + i < flash_.size(); ++i)
            flash_[at + i] = bytes[i];
    };
    if (config_.hasSerial)
        put(kSerialRecord, flashRecord('O', 'V', config_.serial));
    if (config_.hasExposure)
        put(kExposureRecord, flashRecord('E', 'P', config_.exposure));
    for (const auto& patch : config_.flashPatches)
        put(patch.first, patch.second);
}

uint8_t CameraFirmware::systemRegister(uint32_t address) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = system_.find(address);
    return it == system_.end() ? 0 : it->second;
}

void CameraFirmware::setSystemRegister(uint32_t address, uint8_t value) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (address == kVersionHigh || address == kVersionLow)
        return;  // read-only
    system_[address] = value;
}

uint8_t CameraFirmware::sensorRegisterLocked(int sensor, uint16_t address) const {
    if (sensor < 0 || sensor > 1)
        return 0;
    if (ispLocked_[sensor] && isLockRegister(address))
        return 0;
    auto it = sensor_[sensor].find(address);
    return it == sensor_[sensor].end() ? 0 : it->second;
}

uint8_t CameraFirmware::sensorRegister(int sensor, uint16_t address) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sensorRegisterLocked(sensor, address);
}

void CameraFirmware::setSensorRegister(int sensor, uint16_t address, uint8_t value) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (sensor < 0 || sensor > 1 || isLockRegister(address))
        return;  // statistics are read-only
    sensor_[sensor][address] = value;
    if (address == 0x4D12 && value == 1) {
        int t = std::max(0, std::min(255, config_.temperatureC + 64));
        sensor_[sensor][0x4D13] = static_cast<uint8_t>(t);
    }
}

uint8_t CameraFirmware::gpioValue(int gpio) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return gpio >= 0 && gpio < kGpioCount ? gpioValue_[gpio] : 0;
}

uint8_t CameraFirmware::gpioDirection(int gpio) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return gpio >= 0 && gpio < kGpioCount ? gpioDirection_[gpio] : 0;
}

void CameraFirmware::setGpioValue(int gpio, uint8_t value) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (gpio >= 0 && gpio < kGpioCount)
        gpioValue_[gpio] = value ? 1 : 0;
}

void CameraFirmware::setGpioDirection(int gpio, uint8_t direction) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (gpio >= 0 && gpio < kGpioCount)
        gpioDirection_[gpio] = direction ? 1 : 0;
}

void CameraFirmware::setGpioInterrupt(int gpio, uint8_t enable, uint8_t mode) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (gpio >= 0 && gpio < kGpioCount)
        gpioInterrupt_[gpio] = enable ? static_cast<uint8_t>(0x80 | (mode & 0x7F)) : 0;
}

bool CameraFirmware::autoExposure(int sensor) const {
    return (systemRegister(sensor == 0 ? kIspControl0 : kIspControl1) & 0x10) != 0;
}

void CameraFirmware::setAutoExposure(int sensor, bool on) {
    uint32_t reg = sensor == 0 ? kIspControl0 : kIspControl1;
    std::lock_guard<std::mutex> lock(mutex_);
    system_[reg] = static_cast<uint8_t>(on ? (system_[reg] | 0x10) : (system_[reg] & ~0x10));
}

void CameraFirmware::erase(uint32_t begin, uint32_t end) {
    end = std::min<uint32_t>(end, static_cast<uint32_t>(flash_.size()));
    if (begin < end)
        std::fill(flash_.begin() + begin, flash_.begin() + end, 0xFF);
}

void CameraFirmware::applyPendingErase() {
    if (!erasePending_)
        return;
    erase(eraseBegin_, eraseEnd_);
    erasePending_ = false;
}

void CameraFirmware::eraseChip() {
    std::lock_guard<std::mutex> lock(mutex_);
    applyPendingErase();
    ++counters_.erases;
    eraseBegin_ = 0;
    eraseEnd_ = static_cast<uint32_t>(flash_.size());
    erasePending_ = true;
    eraseReadsLeft_ = config_.erasePolls;
    if (eraseReadsLeft_ == 0)
        applyPendingErase();
}

void CameraFirmware::eraseSector(uint32_t address) {
    std::lock_guard<std::mutex> lock(mutex_);
    applyPendingErase();
    ++counters_.erases;
    eraseBegin_ = address & ~(kSectorSize - 1);
    eraseEnd_ = eraseBegin_ + kSectorSize;
    erasePending_ = true;
    eraseReadsLeft_ = config_.erasePolls;
    if (eraseReadsLeft_ == 0)
        applyPendingErase();
}

std::vector<uint8_t> CameraFirmware::readFlash(uint32_t address, size_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++counters_.flashReads;
    // While an erase runs the array still shows its old contents.
    if (erasePending_ && eraseReadsLeft_-- <= 0)
        applyPendingErase();
    std::vector<uint8_t> out(size, 0xFF);
    for (size_t i = 0; i < size; ++i) {
        size_t a = (static_cast<size_t>(address) + i) % flash_.size();
        out[i] = flash_[a];
    }
    return out;
}

void CameraFirmware::programFlash(uint32_t address, const uint8_t* data, size_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    applyPendingErase();
    ++counters_.programs;
    // A page program wraps within its 256-byte page, as the flash chip does.
    uint32_t page = address & ~0xFFu;
    for (size_t i = 0; i < size; ++i) {
        size_t a = page | ((address + i) & 0xFFu);
        if (a < flash_.size())
            flash_[a] &= data[i];
    }
}

std::vector<uint8_t> CameraFirmware::flash(uint32_t address, size_t size) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<uint8_t> out;
    for (size_t i = 0; i < size && address + i < flash_.size(); ++i)
        out.push_back(flash_[address + i]);
    return out;
}

bool CameraFirmware::erasePending() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return erasePending_;
}

void CameraFirmware::setIspLocked(int sensor, bool locked) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (sensor >= 0 && sensor < 2)
        ispLocked_[sensor] = locked;
}

bool CameraFirmware::ispLocked(int sensor) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sensor >= 0 && sensor < 2 && ispLocked_[sensor];
}

CameraFirmware::Counters CameraFirmware::counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counters_;
}

void CameraFirmware::countRequest() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++counters_.requests;
}

}  // namespace sim
