#pragma once

// Time as the capture code sees it: the steady clock, the system clock and
// sleeping. The real clock forwards to std::chrono and std::this_thread; a
// simulated one may run faster than real time so that unit tests can shorten
// waits that the behaviour requires. Code that needs the wall-clock duration
// of a wait (lock files, end-to-end runs) keeps using the real clock.

#include <chrono>
#include <cstdint>

namespace platform {

class Clock {
public:
    virtual ~Clock() = default;
    // Nanoseconds of std::chrono::steady_clock (or its simulated stand-in).
    virtual int64_t steadyNanoseconds() = 0;
    // Nanoseconds since the epoch of std::chrono::system_clock (or its stand-in).
    virtual int64_t systemNanoseconds() = 0;
    virtual void sleepFor(std::chrono::nanoseconds duration) = 0;
};

// The Clock of the process (the installed backend's, see Platform.h).
Clock& clock();

}  // namespace platform
