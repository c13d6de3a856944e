#pragma once

// Reading the fields of the "gmsl_camera" and "argus" scenario entries that
// describe the camera service's side: sensor modes and faults. Each function
// throws ScenarioError naming the field on bad input.

#include <vector>

#include "sim/Scenario.h"
#include "sim/argus/SimArgusTypes.h"

namespace sim {

class SimArgus;

// The "modes" array of an entry.
std::vector<ArgusSensorModeConfig> readSensorModes(const Entry& entry);

// The "faults" object of a "gmsl_camera" entry; `sensors` is the number of
// sensors the camera has (faults of a second sensor need two).
ArgusCameraFaults readCameraFaults(const Entry& faults, size_t sensors);

// The "faults" array of an "argus" entry, applied to the service.
void readServiceFaults(const Entry& entry, SimArgus& argus);

}  // namespace sim
