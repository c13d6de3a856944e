#pragma once

// The oscillator of one part of the inertial chip: while it runs, sample k
// (k = 1, 2, ...) falls at start + k * period on the host's steady clock, the
// period being 1 / (nominal rate * (1 + drift)). Samples are counted lazily:
// advanceTo(now) tells how many fell since the last call. Not thread-safe:
// the part that owns it holds its lock.

#include <cstdint>

namespace sim {

class ImuSampleClock {
public:
    explicit ImuSampleClock(double driftPpm) : drift_(1.0 + driftPpm * 1e-6) {}

    // Runs at nominalHz from startNs; the first sample falls one period later.
    void start(double nominalHz, int64_t startNs) {
        nominalHz_ = nominalHz;
        periodNs_ = 1e9 / (nominalHz * drift_);
        startNs_ = startNs;
        last_ = 0;
        running_ = true;
    }
    void stop() { running_ = false; }
    bool running() const { return running_; }
    double nominalHz() const { return running_ ? nominalHz_ : 0.0; }
    double effectiveHz() const { return running_ ? nominalHz_ * drift_ : 0.0; }

    // The number of samples that fell in (time of the last one counted, nowNs].
    int64_t advanceTo(int64_t nowNs) {
        if (!running_ || nowNs <= startNs_)
            return 0;
        const auto due = static_cast<int64_t>(static_cast<double>(nowNs - startNs_) / periodNs_);
        if (due <= last_)
            return 0;
        const int64_t fresh = due - last_;
        last_ = due;
        return fresh;
    }
    // The index of the last sample counted (0: none since start).
    int64_t lastIndex() const { return last_; }
    // The steady time of sample k (k = 0 is the start).
    int64_t timeOf(int64_t k) const {
        return startNs_ + static_cast<int64_t>(static_cast<double>(k) * periodNs_);
    }
    // Where a restart at a new rate keeps the rhythm: at the last sample.
    int64_t lastSampleNs() const { return timeOf(last_); }

private:
    double drift_;
    double nominalHz_ = 0;
    double periodNs_ = 0;
    int64_t startNs_ = 0;
    int64_t last_ = 0;
    bool running_ = false;
};

}  // namespace sim
