#include "sim/imu/Bmi08xGyro.h"

#include <algorithm>
#include <cmath>

namespace sim {

namespace {

enum Reg : uint8_t {
    kChipIdReg = 0x00,
    kDataFirst = 0x02,
    kDataLast = 0x07,
    kIntStat1 = 0x0A,
    kFifoStatus = 0x0E,
    kRange = 0x0F,
    kBandwidth = 0x10,
    kLpm1 = 0x11,
    kSoftReset = 0x14,
    kIntCtrl = 0x15,
    kIoConf = 0x16,
    kIoMap = 0x18,
    kFifoWmEnable = 0x1E,
    kFifoExtIntS = 0x34,
    kSelfTest = 0x3C,
    kFifoConfig0 = 0x3D,
    kFifoConfig1 = 0x3E,
    kFifoData = 0x3F,
};

constexpr uint8_t kSoftResetCommand = 0xB6;

// Output data rate of a GYRO_BANDWIDTH field (0..7), 0 for a reserved one.
double odrOf(uint8_t field) {
    static const double kHz[8] = {2000, 2000, 1000, 400, 200, 100, 200, 100};
    return field < 8 ? kHz[field] : 0;
}

// Full scale of a GYRO_RANGE value (0..4), 0 for a reserved one.
double rangeOf(uint8_t value) {
    static const double kDps[5] = {2000, 1000, 500, 250, 125};
    return value < 5 ? kDps[value] : 0;
}

}  // namespace

Bmi08xGyro::Bmi08xGyro(std::shared_ptr<ImuMotion> motion, std::shared_ptr<ImuFaults> faults,
                       std::shared_ptr<GmslFrameSync> frameSync, double driftPpm, uint8_t chipId)
    : Bmi08xPart(std::move(faults), kResetSilenceNs),
      motion_(std::move(motion)),
      frameSync_(std::move(frameSync)),
      chipId_(chipId),
      clock_(driftPpm) {
    reset(0);
}

void Bmi08xGyro::reset(int64_t runFromNs) {
    regs_.fill(0);
    regs_[kChipIdReg] = chipId_;
    regs_[kBandwidth] = 0x80;
    regs_[kIoConf] = 0x0F;
    regs_[kFifoWmEnable] = 0x08;
    odrHz_ = 2000;
    rangeDps_ = 2000;
    newData_ = false;
    fifo_.configure(GyroFifo::Mode::Bypass);
    // The gyroscope comes back in normal mode: it samples again once it answers.
    clock_.stop();
    if (poweredUp_)
        updateSampling(runFromNs);
}

int16_t Bmi08xGyro::countsOf(double dps, double rangeDps) {
    const double raw = std::round(dps / rangeDps * 32768.0);
    return static_cast<int16_t>(std::clamp(raw, -32768.0, 32767.0));
}

bool Bmi08xGyro::syncOnInt3() const {
    // Bit 5: external sync on; bit 4: its input is INT4, which the camera leaves unwired.
    return (regs_[kFifoExtIntS] & 0x30) == 0x20;
}

GyroFrame Bmi08xGyro::frameOf(uint64_t index, int64_t sampleK, bool syncOn) {
    const auto dps = motion_->angularRateDps(index);
    GyroFrame f{countsOf(dps[0], rangeDps_), countsOf(dps[1], rangeDps_), countsOf(dps[2], rangeDps_)};
    if (syncOn) {
        const bool frameStarted =
            frameSync_->frameStartBetween(clock_.timeOf(sampleK - 1), clock_.timeOf(sampleK));
        f.z = static_cast<int16_t>((static_cast<uint16_t>(f.z) & 0xFFFEu) | (frameStarted ? 1u : 0u));
        if (frameStarted)
            ++syncMarks_;
    }
    return f;
}

void Bmi08xGyro::produceUntil(int64_t limitNs) {
    if (!poweredUp_) {
        // Power-on: normal mode at the reset rate, from the first transfer on.
        poweredUp_ = true;
        updateSampling(limitNs);
        return;
    }
    const int64_t fresh = clock_.advanceTo(limitNs);
    if (fresh <= 0)
        return;
    const int64_t firstK = clock_.lastIndex() - fresh + 1;
    const bool syncOn = syncOnInt3();
    fifo_.offer(fresh,
                [&](int64_t i) { return frameOf(produced_ + static_cast<uint64_t>(i), firstK + i, syncOn); });
    // The data registers show the newest sample, without the sync bit.
    const GyroFrame last = frameOf(produced_ + static_cast<uint64_t>(fresh) - 1, clock_.lastIndex(), false);
    const int16_t axes[3] = {last.x, last.y, last.z};
    for (size_t axis = 0; axis < 3; ++axis) {
        const auto word = static_cast<uint16_t>(axes[axis]);
        regs_[kDataFirst + 2 * axis] = static_cast<uint8_t>(word & 0xFF);
        regs_[kDataFirst + 2 * axis + 1] = static_cast<uint8_t>(word >> 8);
    }
    produced_ += static_cast<uint64_t>(fresh);
    newData_ = true;
}

uint8_t Bmi08xGyro::intStatus1() const {
    uint8_t value = newData_ ? 0x80 : 0x00;
    const int64_t watermark = regs_[kFifoConfig0] & 0x7F;
    // A watermark of 0 frames would always be reached: it counts as no watermark.
    if ((regs_[kFifoWmEnable] & 0x80) != 0 && watermark > 0 && fifo_.level() >= watermark)
        value |= 0x10;
    return value;
}

uint8_t Bmi08xGyro::readRegister(uint8_t reg, int64_t) {
    if (reg >= kDataFirst && reg <= kDataLast) {
        newData_ = false;
        return regs_[reg];
    }
    switch (reg) {
        case kIntStat1:
            return intStatus1();
        case kFifoStatus:
            return fifo_.status();
        case kBandwidth:
            return static_cast<uint8_t>(regs_[reg] | 0x80);
        case kFifoData:
            return fifo_.readByte();
        default:
            return regs_[reg];
    }
}

void Bmi08xGyro::writeBandwidth(uint8_t value, int64_t nowNs) {
    regs_[kBandwidth] = static_cast<uint8_t>(value | 0x80);
    const double hz = odrOf(value & 0x7F);
    if (hz > 0)
        odrHz_ = hz;  // a reserved value keeps the last rate
    updateSampling(nowNs);
}

void Bmi08xGyro::writeFifoConfig1(uint8_t value) {
    regs_[kFifoConfig1] = value;
    switch (value & 0xC0) {
        case 0x40:
            fifo_.configure(GyroFifo::Mode::Fifo);
            break;
        case 0x80:
            fifo_.configure(GyroFifo::Mode::Stream);
            break;
        default:
            fifo_.configure(GyroFifo::Mode::Bypass);
            break;
    }
}

void Bmi08xGyro::updateSampling(int64_t nowNs) {
    if (regs_[kLpm1] != 0x00) {  // suspend or deep suspend
        clock_.stop();
        return;
    }
    if (clock_.running() && clock_.nominalHz() == odrHz_)
        return;
    clock_.start(odrHz_, clock_.running() ? clock_.lastSampleNs() : nowNs);
}

void Bmi08xGyro::writeRegister(uint8_t reg, uint8_t value, int64_t nowNs) {
    switch (reg) {
        case kRange: {
            regs_[reg] = value;
            const double dps = rangeOf(value);
            if (dps > 0)
                rangeDps_ = dps;  // a reserved value keeps the last range
            break;
        }
        case kBandwidth:
            writeBandwidth(value, nowNs);
            break;
        case kLpm1:
            regs_[reg] = value;
            updateSampling(nowNs);
            break;
        case kSoftReset:
            if (value == kSoftResetCommand) {
                beginSilence(nowNs);
                reset(nowNs + kResetSilenceNs);
            }
            break;
        case kIntCtrl:
        case kIoConf:
        case kIoMap:
        case kFifoWmEnable:
        case kFifoExtIntS:
        case kSelfTest:
            regs_[reg] = value;
            break;
        case kFifoConfig0:
            regs_[reg] = value & 0x7F;
            break;
        case kFifoConfig1:
            writeFifoConfig1(value);
            break;
        default:
            break;  // read-only or reserved: the write has no effect
    }
}

bool Bmi08xGyro::isPort(uint8_t reg) const {
    return reg == kFifoData;
}

void Bmi08xGyro::endBurst() {
    fifo_.endBurst();
}

void Bmi08xGyro::setChipId(uint8_t id) {
    std::lock_guard<std::mutex> lock(mutex_);
    chipId_ = id;
    regs_[kChipIdReg] = id;
}

double Bmi08xGyro::rateHz() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return clock_.nominalHz();
}

double Bmi08xGyro::effectiveRateHz() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return clock_.effectiveHz();
}

double Bmi08xGyro::rangeDps() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return rangeDps_;
}

int64_t Bmi08xGyro::fifoLevel() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fifo_.level();
}

bool Bmi08xGyro::fifoOverrun() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fifo_.overrun();
}

GyroFifo::Mode Bmi08xGyro::fifoMode() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fifo_.mode();
}

uint64_t Bmi08xGyro::syncMarks() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return syncMarks_;
}

}  // namespace sim
