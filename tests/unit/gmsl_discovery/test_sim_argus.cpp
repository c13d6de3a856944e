// The simulated camera service and the "gmsl_camera" / "argus" scenario types.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "DiscoveryTestSupport.h"
#include "sim/Scenario.h"

namespace at = platform::argus_types;
using testsupport::machineFrom;

namespace {

std::string fieldOfError(const std::string& devices) {
    try {
        machineFrom(devices);
    } catch (const sim::ScenarioError& e) {
        EXPECT_EQ(e.file(), "gmsl-discovery-test.json");
        return e.field();
    }
    return "(no error)";
}

std::vector<at::CameraDevice*> devicesOf(sim::SimArgus& argus) {
    std::vector<at::CameraDevice*> devices;
    EXPECT_EQ(argus.getCameraDevices(devices), at::STATUS_OK);
    return devices;
}

}  // namespace

TEST(SimArgus, BadScenarioFieldsAreNamed) {
    EXPECT_EQ(fieldOfError("{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 1, \"sub_model\": 4, "
                           "\"address\": \"0x56\"}"),
              "devices[0].address");
    EXPECT_EQ(fieldOfError("{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 1, \"sub_model\": 4, "
                           "\"in_uze\": true}"),
              "devices[0].in_uze");
    EXPECT_EQ(fieldOfError("{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 1}"),
              "devices[0].sub_model");
    EXPECT_EQ(fieldOfError("{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 1, \"sub_model\": 4, "
                           "\"sensors\": [{\"module_id\": \"KOVQ_CAM_0123456789012345678901234\"}]}"),
              "devices[0].sensors[0].module_id");
    EXPECT_EQ(fieldOfError("{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 1, \"sub_model\": 4, "
                           "\"modes\": [{\"width\": 1920, \"height\": 1080, \"fps\": [30, \"sixty\"]}]}"),
              "devices[0].modes[0].fps");
    EXPECT_EQ(fieldOfError("{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 1, \"sub_model\": 4}, "
                           "{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 2, \"sub_model\": 4}"),
              "devices[1].address");
    EXPECT_EQ(fieldOfError("{\"type\": \"argus\", \"faults\": [\"provider_unavalable\"]}"),
              "devices[0].faults");
}

TEST(SimArgus, SensorsPerSubModelPassTheirFilters) {
    auto machine = machineFrom(
        "{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 1, \"sub_model\": 4},"
        "{\"type\": \"gmsl_camera\", \"bus\": 31, \"serial\": 2, \"sub_model\": 30},"
        "{\"type\": \"gmsl_camera\", \"bus\": 32, \"serial\": 3, \"sub_model\": 1, \"address\": \"0x57\"},"
        "{\"type\": \"gmsl_camera\", \"bus\": 33, \"serial\": 4, \"sub_model\": 77}");
    auto argus = std::dynamic_pointer_cast<sim::SimArgus>(machine->argus());
    ASSERT_NE(argus, nullptr);
    const auto sensors = argus->sensors();
    ASSERT_EQ(sensors.size(), 5u);  // 2 + 1 + 2 + none for an unknown sub-model
    EXPECT_EQ(sensors[0].moduleId, "KOVQ_CAM_0");
    EXPECT_EQ(sensors[1].moduleId, "KOVQ_CAM_1");
    EXPECT_EQ(sensors[1].moduleString, "kovq_ar0234");
    EXPECT_EQ(sensors[1].modelName, "kovq_ar0234");
    EXPECT_EQ(sensors[2].moduleId, "KOVQS_CAM_0");
    EXPECT_EQ(sensors[2].modelName, "kovqs_ar0234");
    EXPECT_EQ(sensors[2].bus, 31);
    EXPECT_EQ(sensors[3].moduleId, "KOV_CAM_0");
    EXPECT_EQ(sensors[4].bus, 32);
    // The camera driver's addresses are held on the bus.
    EXPECT_TRUE(machine->i2cBus(30)->claimed(0x1a));
    EXPECT_TRUE(machine->i2cBus(30)->claimed(0x40));
    EXPECT_TRUE(machine->i2cBus(30)->claimed(0x55));
    EXPECT_TRUE(machine->i2cBus(32)->claimed(0x57));
    EXPECT_FALSE(machine->i2cBus(32)->claimed(0x55));
    EXPECT_NE(machine->i2cBus(32)->chip(0x57), nullptr);
}

TEST(SimArgus, ProviderFaultRefusesTheProvider) {
    auto machine = machineFrom("{\"type\": \"argus\", \"faults\": [\"provider_unavailable\"]}");
    auto argus = std::dynamic_pointer_cast<sim::SimArgus>(machine->argus());
    ASSERT_NE(argus, nullptr);
    EXPECT_FALSE(argus->createProvider());
    std::vector<at::CameraDevice*> devices;
    EXPECT_EQ(argus->getCameraDevices(devices), at::STATUS_UNAVAILABLE);
    EXPECT_EQ(argus->createProviderCalls(), 1);
}

TEST(SimArgus, SessionsAreRefusedOnSensorsInUse) {
    auto machine = machineFrom(
        "{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 1, \"sub_model\": 4},"
        "{\"type\": \"gmsl_camera\", \"bus\": 31, \"serial\": 2, \"sub_model\": 30, \"in_use\": true}");
    auto argus = sim::SimArgus::of(*machine);
    ASSERT_TRUE(argus->createProvider());
    const auto devices = devicesOf(*argus);
    ASSERT_EQ(devices.size(), 3u);

    at::Status status = at::STATUS_OK;
    EXPECT_EQ(argus->createCaptureSession(devices[2], &status), nullptr);
    EXPECT_EQ(status, at::STATUS_UNAVAILABLE);

    at::CaptureSession* both = argus->createCaptureSession({devices[0], devices[1]}, &status);
    ASSERT_NE(both, nullptr);
    EXPECT_EQ(status, at::STATUS_OK);
    // A sensor in a live session of this process is not free either.
    EXPECT_EQ(argus->createCaptureSession(devices[1], &status), nullptr);
    EXPECT_EQ(status, at::STATUS_UNAVAILABLE);
    EXPECT_EQ(argus->liveSessions(), 1);
    argus->destroyCaptureSession(both);
    EXPECT_EQ(argus->liveSessions(), 0);
    at::CaptureSession* one = argus->createCaptureSession(devices[1], &status);
    EXPECT_NE(one, nullptr);
    argus->setInUse(2, false);
    EXPECT_NE(argus->createCaptureSession(devices[2], &status), nullptr);
    EXPECT_EQ(argus->sessionsCreated(), 3);
    // The provider's end ends its sessions and its handles.
    argus->destroyProvider();
    EXPECT_EQ(argus->liveSessions(), 0);
    std::string name;
    EXPECT_FALSE(argus->getModelName(devices[0], name));
    EXPECT_EQ(argus->createCaptureSession(devices[0], &status), nullptr);
}

TEST(SimArgus, PropertiesAndSensorModesComeFromTheScenario) {
    auto machine = machineFrom(
        "{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 1, \"sub_model\": 30, "
        "\"modes\": [{\"width\": 1920, \"height\": 1200, \"fps\": [30, 60]}, "
        "{\"width\": 960, \"height\": 600, \"fps\": [120]}], "
        "\"sensors\": [{\"model_name\": \"kovqs_imx678\", \"module_string\": \"kovq_imx678_a\", "
        "\"module_id\": \"KOVQS_CAM_7\"}]}");
    auto argus = sim::SimArgus::of(*machine);
    ASSERT_TRUE(argus->createProvider());
    const auto devices = devicesOf(*argus);
    ASSERT_EQ(devices.size(), 1u);
    std::string text;
    EXPECT_TRUE(argus->getModelName(devices[0], text));
    EXPECT_EQ(text, "kovqs_imx678");
    EXPECT_TRUE(argus->getModuleString(devices[0], text));
    EXPECT_EQ(text, "kovq_imx678_a");
    char id[32];
    std::memset(id, 'x', sizeof id);
    EXPECT_TRUE(argus->getSyncSensorModuleId(devices[0], id, sizeof id));
    EXPECT_STREQ(id, "KOVQS_CAM_7");

    std::vector<at::SensorMode*> modes;
    ASSERT_EQ(argus->getAllSensorModes(devices[0], modes), at::STATUS_OK);
    ASSERT_EQ(modes.size(), 2u);
    at::Size2D size;
    EXPECT_TRUE(argus->getResolution(modes[1], size));
    EXPECT_EQ(size.width, 960u);
    EXPECT_EQ(size.height, 600u);
    at::Range<uint64_t> durations;
    EXPECT_TRUE(argus->getFrameDurationRange(modes[0], durations));
    EXPECT_EQ(durations.min, 16666666u);
    EXPECT_EQ(durations.max, 33333333u);
    EXPECT_FALSE(argus->getResolution(nullptr, size));
}

TEST(SimArgus, CaptureObjectsNeedALiveSession) {
    auto machine = machineFrom("{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 1, \"sub_model\": 30}");
    auto argus = sim::SimArgus::of(*machine);
    ASSERT_TRUE(argus->createProvider());
    const auto devices = devicesOf(*argus);
    at::Status status = at::STATUS_UNIMPLEMENTED;
    at::CaptureSession* session = argus->createCaptureSession(devices[0], &status);
    ASSERT_NE(session, nullptr);
    EXPECT_NE(argus->createEglOutputStreamSettings(session), nullptr);
    EXPECT_NE(argus->createPreviewRequest(session, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_OK);
    EXPECT_EQ(argus->repeat(session, nullptr), at::STATUS_INVALID_PARAMS);
    EXPECT_EQ(argus->acquireFrame(nullptr, 0, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_INVALID_PARAMS);
    argus->destroyCaptureSession(session);
    EXPECT_EQ(argus->createEglOutputStreamSettings(session), nullptr);
    EXPECT_EQ(argus->createPreviewRequest(session, &status), nullptr);
    EXPECT_EQ(status, at::STATUS_INVALID_PARAMS);
}
