#pragma once

// Loading a scenario and installing the simulated seams.
//
//     KOV_SIMULATION=sim/scenarios/kov_pico_usb3.json ./kov_diagnostic -c
//
// main() calls sim::installFromEnvironment() before anything touches the
// hardware.

#include <memory>
#include <string>

#include "platform/Platform.h"
#include "sim/Machine.h"
#include "sim/Scenario.h"

namespace sim {

// Reads and builds a scenario. Throws ScenarioError (file, field, problem) on
// a file that cannot be read, is not JSON, or has a bad field.
std::shared_ptr<Machine> loadScenario(const std::string& path);
// The same from JSON text; `file` names it in error messages.
std::shared_ptr<Machine> parseScenario(const std::string& jsonText, const std::string& file);

// The simulated seams of a machine. Seams the machine does not simulate
// (Argus without a model, the clock) are the real ones.
platform::Backend makeBackend(std::shared_ptr<Machine> machine);

// Loads the scenario and installs its backend; returns the machine.
std::shared_ptr<Machine> installScenario(const std::string& path);

// When KOV_SIMULATION names a scenario file, installs it and prints one line
// "Simulation: <name> (<file>)" on stderr. Returns false, after printing the
// ScenarioError on stderr, when the scenario cannot be used; true otherwise
// (also when the variable is not set: the real backend stays).
bool installFromEnvironment();

// The machine installed by installFromEnvironment / installScenario, or null.
std::shared_ptr<Machine> installedMachine();

}  // namespace sim
