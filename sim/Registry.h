#pragma once

// Extending the simulator. A scenario's "devices" array holds entries with a
// "type"; each type has a factory that reads the entry and adds models to the
// machine. I2C chips inside an "i2c_bus" entry have their own "type" and
// factory. Registering a type that exists replaces it, so a fuller model
// written later takes over a built-in one of the same name.
//
// Registering from a sub-folder of sim/ without editing this folder:
//
//     // sim/mcu/McuModel.cpp (compiled into kov_sim by sim/mcu/CMakeLists.txt)
//     #include "sim/Registry.h"
//     KOV_SIM_REGISTER(Mcu) {
//         sim::registerDeviceType("mcu", [](const sim::Entry& e, sim::Machine& m) { ... });
//     }
//
// sim/CMakeLists.txt finds every KOV_SIM_REGISTER(Name) in the .cpp files of
// the sub-folders and calls the functions once, before the first scenario is
// loaded (built-ins first). Tests may also call registerDeviceType directly.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "sim/Machine.h"
#include "sim/Scenario.h"

namespace sim {

using DeviceFactory = std::function<void(const Entry& entry, Machine& machine)>;
using ChipFactory = std::function<std::shared_ptr<I2cChip>(const Entry& entry, Machine& machine, int bus)>;

void registerDeviceType(const std::string& type, DeviceFactory factory);
void registerI2cChipType(const std::string& type, ChipFactory factory);
std::vector<std::string> deviceTypes();
std::vector<std::string> i2cChipTypes();

namespace detail {
// Runs the built-in registrations and those of the sub-folders, once.
void ensureRegistered();
DeviceFactory findDeviceType(const std::string& type);
ChipFactory findI2cChipType(const std::string& type);
}  // namespace detail

}  // namespace sim

#define KOV_SIM_REGISTER(Name) extern "C" void kovSimRegister_##Name()
