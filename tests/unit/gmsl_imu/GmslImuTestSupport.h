#pragma once

// A test rig for the inertial chip driver and the GMSL reader: the fake I2C
// buses of FakeImuBus and a clock, installed as the process's seams for the
// life of the rig.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "FakeImuBus.h"
#include "platform/Platform.h"
#include "sim/SteppedClock.h"

namespace gmslimu {

struct Rig {
    explicit Rig(std::shared_ptr<platform::Clock> clock_ = std::make_shared<sim::SteppedClock>())
        : clock(std::move(clock_)), scope(backend(bus, clock)) {}

    std::shared_ptr<FakeImuBus> bus = std::make_shared<FakeImuBus>();
    std::shared_ptr<platform::Clock> clock;
    platform::ScopedBackend scope;

    int64_t nowNs() { return clock->steadyNanoseconds(); }

private:
    static platform::Backend backend(std::shared_ptr<FakeImuBus> sys,
                                     std::shared_ptr<platform::Clock> clock) {
        platform::Backend b;
        b.sys = std::move(sys);
        b.clock = std::move(clock);
        return b;
    }
};

// A copy of a value: fields of packed records must not be bound to the
// references that the comparison macros take.
template <typename T>
T val(T v) {
    return v;
}

using Expected = std::vector<std::pair<uint8_t, std::vector<uint8_t>>>;

// The register writes of one address as (register, data) pairs.
inline Expected writesOf(const FakeImuBus& bus, uint8_t address) {
    Expected out;
    for (const RegWrite& w : bus.writesTo(address))
        out.emplace_back(w.reg, w.data);
    return out;
}

inline std::string describe(const Expected& e) {
    std::string s;
    char buf[16];
    for (const auto& w : e) {
        std::snprintf(buf, sizeof(buf), "[%02X:", w.first);
        s += buf;
        for (uint8_t b : w.second) {
            std::snprintf(buf, sizeof(buf), " %02X", b);
            s += buf;
        }
        s += "] ";
    }
    return s;
}

}  // namespace gmslimu
