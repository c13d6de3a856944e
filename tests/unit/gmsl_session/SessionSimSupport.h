#pragma once

// Shared set-up of the GMSL session tests on the simulated camera: a system
// root for the daemon's unit file, a scenario installed as the backend
// (optionally with a faster clock), the process-wide Argus and link state
// reset around each test, and the threads of the process counted.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "bh_input/grabber/gmsl/ArgusProvider.h"
#include "platform/Platform.h"
#include "sim/ScaledClock.h"
#include "sim/Simulator.h"
#include "sim/argus/SimArgus.h"
#include "tests/unit/gmsl_link/LinkTestSupport.h"

namespace sessiontest {

namespace fs = std::filesystem;

// The sanitizer builds run several times slower: rates are not measured
// there, time limits stretch, and simulated clocks run slower.
#ifdef KOV_SANITIZER_BUILD
constexpr bool kMeasureRates = false;
constexpr int kSlow = 4;
#else
constexpr bool kMeasureRates = true;
constexpr int kSlow = 1;
#endif

// Threads of this process now.
inline int threadCount() {
    int n = 0;
    for (const auto& entry : fs::directory_iterator("/proc/self/task")) {
        (void)entry;
        ++n;
    }
    return n;
}

// Waits (real time) until `done` holds or `limitMs` passes.
template <typename F>
bool waitUntil(F done, int limitMs) {
    const auto start = std::chrono::steady_clock::now();
    while (!done()) {
        if (std::chrono::steady_clock::now() - start > std::chrono::milliseconds(limitMs * kSlow))
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

class SessionSimTest : public ::testing::Test {
protected:
    void SetUp() override {
        linktest::resetLinkState();
        ArgusProvider::DeleteInstance();
        baseline = threadCount();
    }
    void TearDown() override {
        scoped.reset();
        ArgusProvider::DeleteInstance();
        linktest::resetLinkState();
    }
    // Installs a scenario given as its devices array, or a shipped file.
    void install(const std::string& devicesOrFile, double clockFactor = 0) {
        if (devicesOrFile.find('{') == std::string::npos)
            machine = sim::loadScenario(std::string(KOV_SOURCE_DIR) + "/sim/scenarios/" + devicesOrFile);
        else
            machine = sim::parseScenario("{\"devices\": [" + devicesOrFile + "]}", "gmsl-session-test.json");
        platform::Backend backend = sim::makeBackend(machine);
        if (clockFactor > 0)
            backend.clock = std::make_shared<sim::ScaledClock>(clockFactor);
        scoped.emplace(backend);
    }
    sim::SimArgus& argus() { return *sim::SimArgus::of(*machine); }

    linktest::SysRoot root;
    linktest::ScopedEnv container{"NVIDIA_DRIVER_CAPABILITIES", std::nullopt};
    std::shared_ptr<sim::Machine> machine;
    std::optional<platform::ScopedBackend> scoped;
    int baseline = 0;
};

}  // namespace sessiontest
