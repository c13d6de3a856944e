#pragma once

// A clock that runs `factor` times faster than real time: a sleep lasts
// duration / factor of real time, and the clock reads start + factor x the
// real time elapsed since construction. Unlike SteppedClock, every thread
// still waits in real time, so producers, consumers and polling loops
// interleave as they do on a real machine; tests use it to shorten waits
// that the behaviour requires (a 31 s freeze detection, a 20 s first-frame
// wait) without changing their order.

#include <chrono>
#include <cstdint>
#include <thread>

#include "platform/Clock.h"

namespace sim {

class ScaledClock final : public platform::Clock {
public:
    // systemNanoseconds() = epochNs + steadyNanoseconds().
    explicit ScaledClock(double factor, int64_t startNs = 1000000000LL,
                         int64_t epochNs = 1767225600LL * 1000000000LL)
        : factor_(factor > 0 ? factor : 1.0),
          start_(startNs),
          epoch_(epochNs),
          realStart_(std::chrono::steady_clock::now()) {}

    int64_t steadyNanoseconds() override {
        const auto real = std::chrono::steady_clock::now() - realStart_;
        return start_ + static_cast<int64_t>(static_cast<double>(real.count()) * factor_);
    }
    int64_t systemNanoseconds() override { return epoch_ + steadyNanoseconds(); }
    void sleepFor(std::chrono::nanoseconds duration) override {
        if (duration.count() > 0)
            std::this_thread::sleep_for(std::chrono::nanoseconds(
                static_cast<int64_t>(static_cast<double>(duration.count()) / factor_)));
    }
    double factor() const { return factor_; }

private:
    double factor_;
    int64_t start_;
    int64_t epoch_;
    std::chrono::steady_clock::time_point realStart_;
};

}  // namespace sim
