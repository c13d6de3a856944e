#include "sim/imu/Bmi08xPart.h"

#include <algorithm>

#include "platform/Clock.h"

namespace sim {

Bmi08xPart::Bmi08xPart(std::shared_ptr<ImuFaults> faults, int64_t resetSilenceNs)
    : faults_(std::move(faults)), resetSilenceNs_(resetSilenceNs) {}

bool Bmi08xPart::refuse(int64_t nowNs) {
    faults_->noteTransfer(nowNs);
    if (nowNs < silentUntilNs_ || faults_->nacking(nowNs)) {
        ++refused_;
        return true;
    }
    produceUntil(std::min(nowNs, faults_->sampleLimitNs()));
    return false;
}

bool Bmi08xPart::write(const uint8_t* data, size_t length) {
    const int64_t now = platform::clock().steadyNanoseconds();
    std::lock_guard<std::mutex> lock(mutex_);
    if (refuse(now))
        return false;
    if (length == 0)
        return true;  // an address-only transfer: acknowledged, nothing changes
    pointer_ = data[0] & 0x7F;
    for (size_t i = 1; i < length; ++i) {
        writeRegister(pointer_, data[i], now);
        if (now < silentUntilNs_)
            break;  // a soft reset: the rest of the burst is not heard
        if (!isPort(pointer_))
            pointer_ = (pointer_ + 1) & 0x7F;
    }
    endBurst();
    return true;
}

bool Bmi08xPart::read(uint8_t* data, size_t length) {
    const int64_t now = platform::clock().steadyNanoseconds();
    std::lock_guard<std::mutex> lock(mutex_);
    if (refuse(now))
        return false;
    for (size_t i = 0; i < length; ++i) {
        data[i] = readRegister(pointer_, now);
        if (!isPort(pointer_))
            pointer_ = (pointer_ + 1) & 0x7F;
    }
    endBurst();
    return true;
}

void Bmi08xPart::beginSilence(int64_t nowNs) {
    silentUntilNs_ = nowNs + resetSilenceNs_;
    pointer_ = 0;
}

uint64_t Bmi08xPart::samplesProduced() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return produced_;
}

uint8_t Bmi08xPart::registerValue(uint8_t reg) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return regs_[reg & 0x7F];
}

uint64_t Bmi08xPart::refusedTransfers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return refused_;
}

}  // namespace sim
