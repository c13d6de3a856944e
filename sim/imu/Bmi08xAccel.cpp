#include "sim/imu/Bmi08xAccel.h"

#include <algorithm>
#include <cmath>

namespace sim {

namespace {

enum Reg : uint8_t {
    kChipIdReg = 0x00,
    kErrReg = 0x02,
    kStatus = 0x03,
    kDataFirst = 0x12,
    kDataLast = 0x17,
    kSensorTime0 = 0x18,
    kSensorTime2 = 0x1A,
    kIntStat1 = 0x1D,
    kTempMsb = 0x22,
    kTempLsb = 0x23,
    kInternalStatus = 0x2A,
    kConf = 0x40,
    kRange = 0x41,
    kInt1IoCtrl = 0x53,
    kInt2IoCtrl = 0x54,
    kIntMapData = 0x58,
    kInitCtrl = 0x59,
    kFeaturePosLow = 0x5B,
    kFeaturePosHigh = 0x5C,
    kFeatureData = 0x5E,
    kSelfTest = 0x6D,
    kPwrConf = 0x7C,
    kPwrCtrl = 0x7D,
    kSoftReset = 0x7E,
};

constexpr uint8_t kSoftResetCommand = 0xB6;
constexpr double kSensorTimeTickNs = 39062.5;
// The feature engine's memory is 6 KiB; a position beyond it is the driver's error.
constexpr size_t kFeatureMemory = 8192;

// Hz of an ACC_CONF rate field, 0 for an invalid one.
double odrOf(uint8_t field) {
    if (field < 0x05 || field > 0x0C)
        return 0;
    return 12.5 * std::pow(2.0, field - 0x05);
}

bool validBandwidth(uint8_t field) {
    return field >= 0x08 && field <= 0x0A;
}

}  // namespace

Bmi08xAccel::Bmi08xAccel(std::shared_ptr<ImuMotion> motion, std::shared_ptr<ImuFaults> faults,
                         double driftPpm, uint8_t chipId)
    : Bmi08xPart(std::move(faults), kResetSilenceNs),
      motion_(std::move(motion)),
      drift_(1.0 + driftPpm * 1e-6),
      chipId_(chipId),
      clock_(driftPpm) {
    reset();
}

void Bmi08xAccel::reset() {
    regs_.fill(0);
    regs_[kChipIdReg] = chipId_;
    regs_[kConf] = 0xA8;
    regs_[kRange] = 0x01;
    regs_[kPwrConf] = 0x03;
    regs_[kPwrCtrl] = 0x00;
    odrHz_ = 100;
    clock_.stop();
    newData_ = false;
    dataInt_ = false;
    featureConfig_.clear();
    portOffset_ = 0;
    featureBytes_ = 0;
    initCtrl_ = -1;
}

int16_t Bmi08xAccel::countsOf(double mg, int range) {
    const double fullScaleMg = 1000.0 * std::pow(2.0, (range & 0x03) + 1) * 1.5;
    const double raw = std::round(mg / fullScaleMg * 32768.0);
    return static_cast<int16_t>(std::clamp(raw, -32768.0, 32767.0));
}

void Bmi08xAccel::temperatureBytes(double degC, uint8_t& msb, uint8_t& lsb) {
    // The 11-bit field holds -1024..1023 steps of 0.125 degC from 23 degC.
    const double steps = std::isfinite(degC) ? std::clamp((degC - 23.0) / 0.125, -1024.0, 1023.0) : 0.0;
    const auto t11 = static_cast<int>(std::lround(steps));
    const auto bits = static_cast<unsigned>(t11) & 0x7FFu;
    msb = static_cast<uint8_t>(bits >> 3);
    lsb = static_cast<uint8_t>((bits & 0x07u) << 5);
}

void Bmi08xAccel::produceUntil(int64_t limitNs) {
    const int64_t fresh = clock_.advanceTo(limitNs);
    if (fresh <= 0)
        return;
    // Only the newest sample is visible in the data registers.
    const uint64_t index = produced_ + static_cast<uint64_t>(fresh) - 1;
    const auto mg = motion_->accelerationMg(index);
    for (size_t axis = 0; axis < 3; ++axis) {
        const auto word = static_cast<uint16_t>(countsOf(mg[axis], regs_[kRange]));
        regs_[kDataFirst + 2 * axis] = static_cast<uint8_t>(word & 0xFF);
        regs_[kDataFirst + 2 * axis + 1] = static_cast<uint8_t>(word >> 8);
    }
    produced_ += static_cast<uint64_t>(fresh);
    newData_ = true;
    dataInt_ = true;
}

uint8_t Bmi08xAccel::sensorTimeByte(int index, int64_t nowNs) const {
    // A free-running 24-bit counter on the part's own oscillator.
    const auto ticks = static_cast<uint64_t>(static_cast<double>(nowNs) * drift_ / kSensorTimeTickNs);
    return static_cast<uint8_t>(ticks >> (8 * index));
}

uint8_t Bmi08xAccel::readRegister(uint8_t reg, int64_t nowNs) {
    if (reg >= kDataFirst && reg <= kDataLast) {
        newData_ = false;
        return regs_[reg];
    }
    if (reg >= kSensorTime0 && reg <= kSensorTime2)
        return sensorTimeByte(reg - kSensorTime0, nowNs);
    switch (reg) {
        case kStatus:
            return newData_ ? 0x80 : 0x00;
        case kIntStat1: {
            const uint8_t value = dataInt_ ? 0x80 : 0x00;
            dataInt_ = false;
            return value;
        }
        case kTempMsb:
        case kTempLsb: {
            uint8_t msb = 0, lsb = 0;
            temperatureBytes(motion_->temperatureC(), msb, lsb);
            return reg == kTempMsb ? msb : lsb;
        }
        case kFeatureData: {
            const size_t at = featurePosition() + portOffset_++;
            return at < featureConfig_.size() ? featureConfig_[at] : 0x00;
        }
        default:
            return regs_[reg];
    }
}

size_t Bmi08xAccel::featurePosition() const {
    // The position registers hold half the byte position: 4 bits, then 8.
    const size_t words = (regs_[kFeaturePosLow] & 0x0Fu) | (static_cast<size_t>(regs_[kFeaturePosHigh]) << 4);
    return 2 * words;
}

void Bmi08xAccel::writeConfig(uint8_t value, int64_t nowNs) {
    regs_[kConf] = value;
    const double hz = odrOf(value & 0x0F);
    const bool valid = hz > 0 && validBandwidth(value >> 4);
    // ERR_REG bits 4:2 = 1 tells a driver that ACC_CONF holds an invalid setting.
    regs_[kErrReg] = static_cast<uint8_t>((regs_[kErrReg] & ~0x1Cu) | (valid ? 0x00u : 0x04u));
    if (valid)
        odrHz_ = hz;
    updateSampling(nowNs);
}

void Bmi08xAccel::updateSampling(int64_t nowNs) {
    const bool active = regs_[kPwrCtrl] == 0x04 && regs_[kPwrConf] == 0x00;
    if (!active) {
        clock_.stop();
        return;
    }
    if (clock_.running() && clock_.nominalHz() == odrHz_)
        return;
    clock_.start(odrHz_, clock_.running() ? clock_.lastSampleNs() : nowNs);
}

void Bmi08xAccel::writeRegister(uint8_t reg, uint8_t value, int64_t nowNs) {
    switch (reg) {
        case kConf:
            writeConfig(value, nowNs);
            break;
        case kRange:
            regs_[reg] = value & 0x03;
            break;
        case kInt1IoCtrl:
        case kInt2IoCtrl:
        case kIntMapData:
        case kSelfTest:
            regs_[reg] = value;
            break;
        case kInitCtrl:
            regs_[reg] = value;
            initCtrl_ = value;
            // Starting the feature engine reports "initialised" in INTERNAL_STATUS.
            regs_[kInternalStatus] = value == 0x01 ? 0x01 : 0x00;
            break;
        case kFeaturePosLow:
        case kFeaturePosHigh:
            regs_[reg] = value;
            portOffset_ = 0;
            break;
        case kFeatureData: {
            const size_t at = featurePosition() + portOffset_++;
            if (at < kFeatureMemory) {
                if (featureConfig_.size() <= at)
                    featureConfig_.resize(at + 1, 0x00);
                featureConfig_[at] = value;
                ++featureBytes_;
            }
            break;
        }
        case kPwrConf:
        case kPwrCtrl:
            regs_[reg] = value;
            updateSampling(nowNs);
            break;
        case kSoftReset:
            if (value == kSoftResetCommand) {
                reset();
                beginSilence(nowNs);
            }
            break;
        default:
            break;  // read-only or reserved: the write has no effect
    }
}

bool Bmi08xAccel::isPort(uint8_t reg) const {
    return reg == kFeatureData;
}

void Bmi08xAccel::endBurst() {
    portOffset_ = 0;
}

void Bmi08xAccel::setChipId(uint8_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    chipId_ = id;
    regs_[kChipIdReg] = id;
}

double Bmi08xAccel::rateHz() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return clock_.nominalHz();
}

double Bmi08xAccel::effectiveRateHz() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return clock_.effectiveHz();
}

double Bmi08xAccel::rangeG() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return 1.5 * std::pow(2.0, (regs_[kRange] & 0x03) + 1);
}

bool Bmi08xAccel::producing() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return clock_.running();
}

std::vector<uint8_t> Bmi08xAccel::featureConfig() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return featureConfig_;
}

uint64_t Bmi08xAccel::featureBytesWritten() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return featureBytes_;
}

int Bmi08xAccel::initCtrl() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return initCtrl_;
}

}  // namespace sim
