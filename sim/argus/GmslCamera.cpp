// Scenario types of the GMSL cameras: "gmsl_camera" (the identification
// EEPROM on an I2C bus, the camera's sensors in the simulated Argus and its
// inertial chip on the same bus) and "argus" (faults of the camera service
// itself).

#include <stdexcept>

#include "sim/Builtins.h"
#include "sim/Registry.h"
#include "sim/argus/GmslFrameSync.h"
#include "sim/argus/GmslScenario.h"
#include "sim/argus/SimArgus.h"
#include "sim/imu/GmslImu.h"

namespace sim {

namespace {

// What a sensor of each sub-model reports, chosen so that the discovery's
// filters keep it: the legacy board (1) has the old driver's module id.
struct SensorDefaults {
    int sensors;
    const char* modelName;
    const char* moduleString;
    const char* moduleIdPrefix;
};

SensorDefaults defaultsOf(int subModel) {
    switch (subModel) {
        case 1:
            return {2, "kovq_ar0234", "kovq_ar0234_legacy", "KOV_CAM_"};
        case 2:
        case 3:
        case 4:
            return {2, "kovq_ar0234", "kovq_ar0234", "KOVQ_CAM_"};
        case 30:
        case 31:
            return {1, "kovqs_ar0234", "kovq_ar0234", "KOVQS_CAM_"};
        default:
            return {0, "", "", ""};
    }
}

std::vector<ArgusSensorModeConfig> defaultModes() {
    return {{1920, 1200, {15, 30, 60}},
            {1920, 1080, {15, 30, 60}},
            {1280, 720, {15, 30, 60, 120}},
            {960, 600, {15, 30, 60, 120}}};
}

std::string readModuleId(const Entry& e, const std::string& fallback) {
    std::string id = e.string("module_id", fallback);
    if (id.size() > 31)
        e.fail("module_id", "at most 31 characters (the id is read into 32 bytes)");
    return id;
}

void addGmslCamera(const Entry& e, Machine& m) {
    e.allowOnly({"type", "comment", "bus", "address", "serial", "version", "sub_model", "counter", "claimed",
                 "in_use", "modes", "sensors", "faults", "imu"});
    const int number = static_cast<int>(e.integer("bus", 0, 255));
    const int address = static_cast<int>(e.integer("address", 0x55, 0x03, 0x77));
    if (address != 0x55 && address != 0x57)
        e.fail("address", "a camera EEPROM answers at 0x55 or 0x57");
    const int subModel = static_cast<int>(e.integer("sub_model", 0, 255));
    const uint32_t serial = static_cast<uint32_t>(e.integer("serial", 0, 0xFFFFFFFFLL));
    auto eeprom = makeCameraEeprom(serial, static_cast<uint8_t>(e.integer("version", 0x11, 0, 255)),
                                   static_cast<uint8_t>(subModel),
                                   static_cast<uint8_t>(e.integer("counter", 1, 0, 255)));

    auto bus = m.i2cBus(number);
    if (bus->chip(static_cast<uint16_t>(address)))
        e.fail("address", "bus " + std::to_string(number) + " has a chip at this address already");
    bus->attach(static_cast<uint16_t>(address), eeprom);
    // The camera driver's sensor, serializer and EEPROM, as a Jetson holds them.
    std::vector<int64_t> claimed = {0x1a, 0x40, address};
    if (e.has("claimed"))
        claimed = e.integers("claimed", 0x03, 0x77);
    for (int64_t a : claimed)
        bus->claim(static_cast<uint16_t>(a));

    // The inertial chip on the same bus, and its calibration image in the
    // EEPROM blocks after the identification block.
    const GmslImuConfig imu = e.has("imu") ? readGmslImuConfig(e.object("imu")) : GmslImuConfig{};
    try {
        attachGmslImu(m, number, address, serial, imu);
    } catch (const std::invalid_argument& conflict) {
        e.fail("imu", conflict.what());
    }

    const SensorDefaults d = defaultsOf(subModel);
    const bool inUse = e.boolean("in_use", false);
    std::vector<ArgusSensorModeConfig> modes = e.has("modes") ? readSensorModes(e) : defaultModes();
    auto argus = SimArgus::of(m);
    auto makeSensor = [&](int index) {
        ArgusSensorConfig s;
        s.modelName = d.modelName;
        s.moduleString = d.moduleString;
        s.moduleId = std::string(d.moduleIdPrefix) + std::to_string(index);
        s.modes = modes;
        s.inUse = inUse;
        s.bus = number;
        return s;
    };
    std::vector<ArgusSensorConfig> sensors;
    if (e.has("sensors")) {
        int index = 0;
        for (const Entry& se : e.objects("sensors")) {
            se.allowOnly({"comment", "model_name", "module_string", "module_id", "modes", "in_use"});
            ArgusSensorConfig s = makeSensor(index++);
            s.modelName = se.string("model_name", s.modelName);
            s.moduleString = se.string("module_string", s.moduleString);
            s.moduleId = readModuleId(se, s.moduleId);
            if (se.has("modes"))
                s.modes = readSensorModes(se);
            s.inUse = se.boolean("in_use", s.inUse);
            sensors.push_back(s);
        }
    } else {
        for (int i = 0; i < d.sensors; ++i)
            sensors.push_back(makeSensor(i));
    }

    // The sensors share the camera's frame grid and its frame-start line.
    ArgusCameraConfig camera;
    camera.bus = number;
    if (e.has("faults"))
        camera.faults = readCameraFaults(e.object("faults"), sensors.size());
    camera.frameSync = GmslFrameSync::of(m, number);
    const int cameraIndex = static_cast<int>(argus->addCamera(camera));
    for (ArgusSensorConfig& s : sensors) {
        s.camera = cameraIndex;
        argus->addSensor(s);
    }
}

void addArgusService(const Entry& e, Machine& m) {
    e.allowOnly({"type", "comment", "faults"});
    readServiceFaults(e, *SimArgus::of(m));
}

}  // namespace

}  // namespace sim

KOV_SIM_REGISTER(GmslArgus) {
    sim::registerDeviceType("gmsl_camera", sim::addGmslCamera);
    sim::registerDeviceType("argus", sim::addArgusService);
}
