// Time source of the MCU reader: the host clock it stamps samples with and the
// sleeps of its protocol. Real by default; tests and the simulator can put a
// virtual clock in its place so that streaming runs in simulated time.
#pragma once

#include <cstdint>

namespace mcu_clock {

struct Source {
    virtual ~Source() = default;
    virtual uint64_t nowNs() = 0;           // system clock, nanoseconds
    virtual void sleepUs(uint64_t us) = 0;  // full duration, also across EINTR
};

// The source in use; never null.
Source& current();
// Installs `source` (nullptr: the real clock again). Not owned.
void install(Source* source);

inline uint64_t nowNs() {
    return current().nowNs();
}
inline void sleepUs(uint64_t us) {
    current().sleepUs(us);
}

}  // namespace mcu_clock
