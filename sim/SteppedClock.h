#pragma once

// A clock that only moves when someone sleeps on it (or when a test advances
// it): a sleep returns at once with the time moved forward by its duration.
// Streaming at 800 Hz over simulated minutes then costs no wall time, and every
// run sees the same times.

#include <atomic>
#include <chrono>
#include <cstdint>

#include "platform/Clock.h"

namespace sim {

class SteppedClock final : public platform::Clock {
public:
    // systemNanoseconds() = epochNs + steadyNanoseconds().
    explicit SteppedClock(int64_t startNs = 1000000000LL, int64_t epochNs = 1767225600LL * 1000000000LL)
        : steady_(startNs), epoch_(epochNs) {}

    int64_t steadyNanoseconds() override { return steady_.load(); }
    int64_t systemNanoseconds() override { return epoch_ + steady_.load(); }
    void sleepFor(std::chrono::nanoseconds duration) override {
        if (duration.count() > 0)
            steady_.fetch_add(duration.count());
    }
    void advance(int64_t ns) {
        if (ns > 0)
            steady_.fetch_add(ns);
    }

private:
    std::atomic<int64_t> steady_;
    int64_t epoch_;
};

}  // namespace sim
