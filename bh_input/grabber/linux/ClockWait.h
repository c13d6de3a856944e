#pragma once

// The short waits of the USB capture code, on platform::clock() so that tests
// can run them in stepped time.

#include <chrono>
#include <cstdint>

#include "platform/Clock.h"

namespace bh {

inline void sleepUs(int64_t us) {
    platform::clock().sleepFor(std::chrono::microseconds(us));
}

}  // namespace bh
