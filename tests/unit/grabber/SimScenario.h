#pragma once

// Installs a shipped scenario (sim/scenarios/<name>.json) for one test.

#include <memory>
#include <string>

#include "platform/Platform.h"
#include "sim/Simulator.h"

namespace testsupport {

inline std::string scenarioPath(const std::string& name) {
    return std::string(KOV_SOURCE_DIR) + "/sim/scenarios/" + name + ".json";
}

class ScopedScenario {
public:
    explicit ScopedScenario(const std::string& name)
        : machine_(sim::loadScenario(scenarioPath(name))), backend_(sim::makeBackend(machine_)) {}
    explicit ScopedScenario(std::shared_ptr<sim::Machine> machine)
        : machine_(std::move(machine)), backend_(sim::makeBackend(machine_)) {}
    sim::Machine& machine() { return *machine_; }

private:
    std::shared_ptr<sim::Machine> machine_;
    platform::ScopedBackend backend_;
};

}  // namespace testsupport
