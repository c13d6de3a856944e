#pragma once

// The faults one inertial chip shares between its two parts: samples that stop
// and transfers that fail, each a number of seconds after the chip's first
// transfer (its life as the host sees it begins when a driver first talks to
// it). Safe from any thread.

#include <cstdint>
#include <limits>
#include <mutex>

namespace sim {

class ImuFaults {
public:
    static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

    ImuFaults(double stopAfterSeconds, double nackAfterSeconds)
        : stopAfterNs_(toNs(stopAfterSeconds)), nackAfterNs_(toNs(nackAfterSeconds)) {}

    // Called at every transfer; the first one fixes the origin.
    void noteTransfer(int64_t nowNs) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!started_) {
            started_ = true;
            originNs_ = nowNs;
        }
    }
    // The last steady time at which samples are produced (kNever: no limit).
    int64_t sampleLimitNs() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return deadline(stopAfterNs_);
    }
    bool nacking(int64_t nowNs) const {
        std::lock_guard<std::mutex> lock(mutex_);
        const int64_t at = deadline(nackAfterNs_);
        return at != kNever && nowNs >= at;
    }
    // Negative seconds: never.
    void setStopAfter(double seconds) {
        std::lock_guard<std::mutex> lock(mutex_);
        stopAfterNs_ = toNs(seconds);
    }
    void setNackAfter(double seconds) {
        std::lock_guard<std::mutex> lock(mutex_);
        nackAfterNs_ = toNs(seconds);
    }

private:
    static int64_t toNs(double seconds) { return seconds < 0 ? kNever : static_cast<int64_t>(seconds * 1e9); }
    int64_t deadline(int64_t afterNs) const {
        if (afterNs == kNever || !started_)
            return kNever;
        return originNs_ + afterNs;
    }

    mutable std::mutex mutex_;
    bool started_ = false;
    int64_t originNs_ = 0;
    int64_t stopAfterNs_;
    int64_t nackAfterNs_;
};

}  // namespace sim
