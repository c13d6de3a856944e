#pragma once

// The frame-start line of a simulated GMSL camera. Its sensors (SimArgus) set
// it while they stream; the inertial chip on the camera's I2C bus reads it,
// as the real camera wires its frame-sync signal to the gyroscope's sync
// input, and marks the gyroscope sample during which a frame started.
//
// Frames start at phaseNs + k * periodNs on the steady clock
// (platform::clock().steadyNanoseconds()), k any integer. One object per
// bus, found with GmslFrameSync::of(machine, bus); safe from any thread.

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "sim/Machine.h"

namespace sim {

class GmslFrameSync {
public:
    static std::shared_ptr<GmslFrameSync> of(Machine& machine, int bus) {
        return machine.shared<GmslFrameSync>("gmsl_frame_sync_" + std::to_string(bus),
                                             [] { return std::make_shared<GmslFrameSync>(); });
    }

    // The sensors stream with this frame period and phase (both > 0 / >= 0).
    void start(int64_t periodNs, int64_t phaseNs) {
        std::lock_guard<std::mutex> lock(mutex_);
        period_ = periodNs > 0 ? periodNs : 0;
        phase_ = phaseNs;
    }
    // No frames start any more (capture stopped, or the camera froze).
    void stop() {
        std::lock_guard<std::mutex> lock(mutex_);
        period_ = 0;
    }
    bool streaming() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return period_ > 0;
    }
    int64_t periodNs() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return period_;
    }
    // Whether a frame starts in (fromNs, toNs].
    bool frameStartBetween(int64_t fromNs, int64_t toNs) const {
        std::lock_guard<std::mutex> lock(mutex_);
        if (period_ <= 0 || toNs <= fromNs)
            return false;
        // The last frame start at or before toNs.
        const int64_t rel = toNs - phase_;
        int64_t k = rel / period_;
        if (rel < 0 && rel % period_ != 0)
            --k;
        const int64_t last = phase_ + k * period_;
        return last > fromNs;
    }

private:
    mutable std::mutex mutex_;
    int64_t period_ = 0;
    int64_t phase_ = 0;
};

}  // namespace sim
