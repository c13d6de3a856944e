// The simulator's scenario file: any text through the scenario reader and
// every device factory it reaches (USB devices, boot loaders, UVC cameras,
// video nodes, MCUs, I2C buses and their chips, GMSL cameras, the camera
// service). A bad file must end in a ScenarioError naming the problem, never
// in another exception or a crash. A machine that was built is then
// installed and walked as the tool's discovery walks it.
//
// Input: the scenario text.
#include <hidapi/hidapi.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "FuzzSupport.h"
#include "bh_input/grabber/DeviceList.h"
#include "platform/Platform.h"
#include "sim/Simulator.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::shared_ptr<sim::Machine> machine;
    try {
        machine = sim::parseScenario(text, "fuzz.json");
    } catch (const sim::ScenarioError& e) {
        if (std::string(e.what()).empty() || e.problem().empty())
            __builtin_trap();  // a refusal always says why
        return 0;
    }
    platform::Backend backend = sim::makeBackend(machine);
    backend.clock = std::make_shared<fuzz::InstantClock>();
    platform::ScopedBackend scope(backend);
    (void)bh::getUSBDevice();
    hid_device_info* devices = platform::hid().enumerate(0, 0);
    platform::hid().free_enumeration(devices);
    int node = -1;
    (void)bh::findDevicePath_linux(node, 0);
    return 0;
}
