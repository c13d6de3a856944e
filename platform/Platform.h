#pragma once

// One backend = one implementation of each seam. The process starts on the
// real backend (libc, libusb-1.0, hidapi, the system clock, no Argus unless the
// adapter is built); install() swaps all seams at once. Tests install a
// simulated backend directly; the executable installs the simulator when
// KOV_SIMULATION names a scenario (sim::installFromEnvironment).
//
// Swap backends only while no capture code is running: callers hold plain
// references to the seams they use.

#include <memory>

#include "platform/Argus.h"
#include "platform/Clock.h"
#include "platform/Hid.h"
#include "platform/Sys.h"
#include "platform/Usb.h"

namespace platform {

struct Backend {
    std::shared_ptr<Sys> sys;
    std::shared_ptr<Usb> usb;
    std::shared_ptr<Hid> hid;
    std::shared_ptr<Argus> argus;
    std::shared_ptr<Clock> clock;
};

// The real implementations (each shared object is created once per process).
Backend realBackend();

// Installs every seam of the backend (a null member keeps the real one) and
// returns the backend that was installed before.
Backend install(Backend backend);

// The backend installed now.
Backend current();

// Installs a backend for the life of a scope and puts the previous one back.
class ScopedBackend {
public:
    explicit ScopedBackend(Backend backend) : previous_(install(std::move(backend))) {}
    ~ScopedBackend() { install(std::move(previous_)); }
    ScopedBackend(const ScopedBackend&) = delete;
    ScopedBackend& operator=(const ScopedBackend&) = delete;

private:
    Backend previous_;
};

}  // namespace platform
