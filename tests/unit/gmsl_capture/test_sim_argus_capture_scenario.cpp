// The scenario fields of the simulated GMSL cameras' capture: camera faults,
// sensor-mode ranges and faults of the camera service; their errors name the
// field; the shipped GMSL scenarios stream.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "SimArgusCaptureSupport.h"
#include "sim/Scenario.h"
#include "tests/unit/grabber/SimScenario.h"

using namespace capturetest;

namespace {

struct Refusal {
    std::string field;
    std::string problem;
};

Refusal refusalOf(const std::string& devices) {
    try {
        machineFrom(devices);
    } catch (const sim::ScenarioError& e) {
        EXPECT_EQ(e.file(), "gmsl-capture-test.json");
        return {e.field(), e.problem()};
    }
    return {"(no error)", ""};
}

std::string withFaults(const std::string& faults, bool mono = false) {
    return mono ? monoCamera(31, "\"faults\": " + faults) : stereoCamera(30, "\"faults\": " + faults);
}

}  // namespace

TEST(SimArgusScenario, CameraFaultsAreRead) {
    auto machine = machineFrom(withFaults(
        "{\"freeze\": {\"after_s\": 2.5, \"count\": 3, \"restart_failures\": 2}, "
        "\"capture_error\": {\"after_s\": 40}, \"no_first_frame\": true, \"never_connect\": true, "
        "\"second_sensor_lag_frames\": 1, \"second_sensor_offset_us\": -11, \"comment\": \"all of them\"}"));
    auto argus = sim::SimArgus::of(*machine);
    ASSERT_EQ(argus->cameraCount(), 1u);
    const sim::ArgusCameraFaults f = argus->cameraFaults(0);
    EXPECT_EQ(f.freezeAfterNs, 2500000000LL);
    EXPECT_EQ(f.freezeCount, 3);
    EXPECT_EQ(f.freezeRestartFailures, 2);
    EXPECT_EQ(f.captureErrorAfterNs, 40000000000LL);
    EXPECT_EQ(f.captureErrorCount, 1);
    EXPECT_TRUE(f.noFirstFrame);
    EXPECT_TRUE(f.neverConnect);
    EXPECT_EQ(f.secondSensorLagFrames, 1);
    EXPECT_EQ(f.secondSensorOffsetUs, -11);
    // Both sensors belong to the camera; without faults nothing is set.
    EXPECT_EQ(argus->cameraOf(0), 0);
    EXPECT_EQ(argus->cameraOf(1), 0);

    auto plain = sim::SimArgus::of(*machineFrom(stereoCamera(30) + "," + monoCamera(31)));
    ASSERT_EQ(plain->cameraCount(), 2u);
    EXPECT_EQ(plain->cameraOf(2), 1);
    const sim::ArgusCameraFaults none = plain->cameraFaults(1);
    EXPECT_LT(none.freezeAfterNs, 0);
    EXPECT_LT(none.captureErrorAfterNs, 0);
    EXPECT_FALSE(none.noFirstFrame);
    EXPECT_FALSE(none.neverConnect);
    EXPECT_EQ(none.secondSensorLagFrames, 0);
    EXPECT_EQ(none.secondSensorOffsetUs, 0);
}

TEST(SimArgusScenario, ModeRangesAreRead) {
    auto argus = sim::SimArgus::of(*machineFrom(stereoCamera(
        30,
        "\"modes\": [{\"width\": 1280, \"height\": 720, \"fps\": [60], \"exposure_us\": [20, 16000], "
        "\"analog_gain\": [1.0, 12.5]}]")));
    const auto sensors = argus->sensors();
    ASSERT_EQ(sensors.size(), 2u);
    ASSERT_EQ(sensors[1].modes.size(), 1u);
    EXPECT_EQ(sensors[1].modes[0].exposureMinNs, 20000u);
    EXPECT_EQ(sensors[1].modes[0].exposureMaxNs, 16000000u);
    EXPECT_FLOAT_EQ(sensors[1].modes[0].analogGainMin, 1.0f);
    EXPECT_FLOAT_EQ(sensors[1].modes[0].analogGainMax, 12.5f);
}

TEST(SimArgusScenario, BadFieldsAreNamed) {
    struct Case {
        std::string devices;
        std::string field;
    };
    const std::vector<Case> cases = {
        {withFaults("[\"freeze\"]"), "devices[0].faults"},
        {withFaults("{\"freez\": {\"after_s\": 1}}"), "devices[0].faults.freez"},
        {withFaults("{\"freeze\": 5}"), "devices[0].faults.freeze"},
        {withFaults("{\"freeze\": {}}"), "devices[0].faults.freeze.after_s"},
        {withFaults("{\"freeze\": {\"after_s\": 0}}"), "devices[0].faults.freeze.after_s"},
        {withFaults("{\"freeze\": {\"after_s\": -3}}"), "devices[0].faults.freeze.after_s"},
        {withFaults("{\"freeze\": {\"after_s\": \"5\"}}"), "devices[0].faults.freeze.after_s"},
        {withFaults("{\"freeze\": {\"after_s\": 100000}}"), "devices[0].faults.freeze.after_s"},
        {withFaults("{\"freeze\": {\"after_s\": 1, \"count\": 0}}"), "devices[0].faults.freeze.count"},
        {withFaults("{\"freeze\": {\"after_s\": 1, \"count\": 1.5}}"), "devices[0].faults.freeze.count"},
        {withFaults("{\"freeze\": {\"after_s\": 1, \"restart_failures\": 101}}"),
         "devices[0].faults.freeze.restart_failures"},
        {withFaults("{\"freeze\": {\"after_s\": 1, \"when\": 2}}"), "devices[0].faults.freeze.when"},
        {withFaults("{\"capture_error\": {\"count\": 1}}"), "devices[0].faults.capture_error.after_s"},
        {withFaults("{\"capture_error\": {\"after_s\": 1, \"count\": -1}}"),
         "devices[0].faults.capture_error.count"},
        {withFaults("{\"no_first_frame\": \"yes\"}"), "devices[0].faults.no_first_frame"},
        {withFaults("{\"never_connect\": 1}"), "devices[0].faults.never_connect"},
        {withFaults("{\"second_sensor_lag_frames\": 9}"), "devices[0].faults.second_sensor_lag_frames"},
        {withFaults("{\"second_sensor_offset_us\": 2000000}"), "devices[0].faults.second_sensor_offset_us"},
        {withFaults("{\"second_sensor_lag_frames\": 1}", true), "devices[0].faults.second_sensor_lag_frames"},
        {withFaults("{\"second_sensor_offset_us\": 10}", true), "devices[0].faults.second_sensor_offset_us"},
        {stereoCamera(30, "\"imu\": {\"type\": \"bmi088\"}"), "devices[0].imu.type"},
        {stereoCamera(30, "\"imu\": {\"acc_drift_ppm\": 5000}"), "devices[0].imu.acc_drift_ppm"},
        {stereoCamera(30, "\"imu\": 3"), "devices[0].imu"},
        {stereoCamera(30,
                      "\"modes\": [{\"width\": 640, \"height\": 480, \"fps\": [30], \"exposure_us\": [5]}]"),
         "devices[0].modes[0].exposure_us"},
        {stereoCamera(
             30, "\"modes\": [{\"width\": 640, \"height\": 480, \"fps\": [30], \"exposure_us\": [50, 5]}]"),
         "devices[0].modes[0].exposure_us"},
        {stereoCamera(
             30, "\"modes\": [{\"width\": 640, \"height\": 480, \"fps\": [30], \"exposure_us\": [1.5, 50]}]"),
         "devices[0].modes[0].exposure_us"},
        {stereoCamera(
             30, "\"modes\": [{\"width\": 640, \"height\": 480, \"fps\": [30], \"analog_gain\": [0, 8]}]"),
         "devices[0].modes[0].analog_gain"},
        {stereoCamera(
             30, "\"modes\": [{\"width\": 640, \"height\": 480, \"fps\": [30], \"analog_gain\": \"1-8\"}]"),
         "devices[0].modes[0].analog_gain"},
        {"{\"type\": \"argus\", \"faults\": \"provider_unavailable\"}", "devices[0].faults"},
        {"{\"type\": \"argus\", \"faults\": [3]}", "devices[0].faults"},
        {"{\"type\": \"argus\", \"faults\": [{\"count\": 2}]}", "devices[0].faults[0].name"},
        {"{\"type\": \"argus\", \"faults\": [{\"name\": \"provider_unavailabl\"}]}",
         "devices[0].faults[0].name"},
        {"{\"type\": \"argus\", \"faults\": [{\"name\": \"provider_unavailable\", \"count\": 0}]}",
         "devices[0].faults[0].count"},
        {"{\"type\": \"argus\", \"faults\": [\"provider_unavailable\", {\"name\": \"provider_unavailable\", "
         "\"times\": 2}]}",
         "devices[0].faults[1].times"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(refusalOf(c.devices).field, c.field) << c.devices;
}

TEST(SimArgusScenario, MessagesSayWhatIsExpected) {
    EXPECT_EQ(refusalOf(withFaults("{\"freeze\": {\"after_s\": 0}}")).problem,
              "expected seconds above 0 and at most 86400, got 0");
    EXPECT_EQ(refusalOf(withFaults("{\"freeze\": {}}")).problem, "missing (a number of seconds is required)");
    EXPECT_EQ(refusalOf(stereoCamera(30,
                                     "\"modes\": [{\"width\": 64, \"height\": 48, \"fps\": [30], "
                                     "\"exposure_us\": [50, 5]}]"))
                  .problem,
              "expected 1 <= min <= max <= 1e+07, got [50, 5]");
    EXPECT_EQ(refusalOf(withFaults("{\"second_sensor_lag_frames\": 1}", true)).problem,
              "the camera has 1 sensor(s): there is no second sensor");
    EXPECT_EQ(refusalOf("{\"type\": \"argus\", \"faults\": [{\"name\": \"frozen\"}]}").problem,
              "unknown fault \"frozen\" (known: provider_unavailable)");
}

// Every fault field given values of every JSON kind: the scenario is either
// read or refused with a ScenarioError, never anything else.
TEST(SimArgusScenario, AnyValueOfAnyFieldIsReadOrRefused) {
    const std::vector<std::string> keys = {"freeze",
                                           "capture_error",
                                           "no_first_frame",
                                           "never_connect",
                                           "second_sensor_lag_frames",
                                           "second_sensor_offset_us"};
    const std::vector<std::string> values = {"null",
                                             "true",
                                             "0",
                                             "-1",
                                             "1",
                                             "9",
                                             "1e308",
                                             "-1e308",
                                             "2.5",
                                             "\"1\"",
                                             "\"\"",
                                             "[]",
                                             "[1, 2]",
                                             "{}",
                                             "{\"after_s\": 1}",
                                             "{\"after_s\": null}",
                                             "{\"after_s\": 1e300}",
                                             "{\"after_s\": 1, \"count\": 1e9}",
                                             "{\"after_s\": 0.000000001}",
                                             "{\"after_s\": 1, \"restart_failures\": \"0x10\"}"};
    std::mt19937 random(2024);
    int read = 0, refused = 0;
    for (int round = 0; round < 400; ++round) {
        // Distinct keys: Qt's JSON reader leaks a little on a repeated key.
        std::vector<std::string> drawn = keys;
        std::shuffle(drawn.begin(), drawn.end(), random);
        std::string faults = "{";
        const int n = 1 + static_cast<int>(random() % 3);
        for (int i = 0; i < n; ++i)
            faults += (i ? ", \"" : "\"") + drawn[i] + "\": " + values[random() % values.size()];
        faults += "}";
        try {
            machineFrom(withFaults(faults, random() % 2 == 0));
            ++read;
        } catch (const sim::ScenarioError& e) {
            EXPECT_NE(std::string(e.field()).find("devices[0].faults"), std::string::npos) << faults;
            ++refused;
        }
    }
    EXPECT_GT(read, 0);
    EXPECT_GT(refused, 0);
}

TEST(SimArgusScenario, ShippedFreezeScenario) {
    Installed in(sim::loadScenario(testsupport::scenarioPath("gmsl_kov_q_freeze")));
    ASSERT_EQ(in.service().cameraCount(), 1u);
    const sim::ArgusCameraFaults f = in.service().cameraFaults(0);
    EXPECT_EQ(f.freezeAfterNs, 5000000000LL);
    EXPECT_EQ(f.freezeCount, 1);
    platform::Argus& argus = platform::argus();
    ASSERT_TRUE(argus.createProvider());
    const int64_t start = in.now();
    std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
    ASSERT_EQ(chains.size(), 2u);
    uint64_t newest = 0;
    for (;;) {
        const Acquired a = acquireOne(argus, chains[0].consumer);
        if (a.status != at::STATUS_OK)
            break;
        newest = a.timestampNs;
    }
    EXPECT_LE(static_cast<int64_t>(newest), start + 5 * static_cast<int64_t>(kSecond));
    EXPECT_GT(static_cast<int64_t>(newest), start + 4 * static_cast<int64_t>(kSecond));
    EXPECT_TRUE(in.service().cameraFrozen(0));
    closeSensors(argus, chains);
    argus.destroyProvider();
}

TEST(SimArgusScenario, ShippedGmslScenariosStream) {
    for (const char* name : {"gmsl_kov_qg_pico_bus30", "gmsl_kov_qs_bus31", "gmsl_legacy_bus30"}) {
        Installed in(sim::loadScenario(testsupport::scenarioPath(name)));
        platform::Argus& argus = platform::argus();
        ASSERT_TRUE(argus.createProvider()) << name;
        std::vector<Chain> chains = openSensors(argus, devicesOf(argus));
        ASSERT_FALSE(chains.empty()) << name;
        for (Chain& c : chains)
            EXPECT_EQ(acquireOne(argus, c.consumer).status, at::STATUS_OK) << name;
        closeSensors(argus, chains);
        argus.destroyProvider();
    }
    // The EEPROM-only scenario has no camera service.
    auto eepromOnly = sim::loadScenario(testsupport::scenarioPath("gmsl_eeprom_bus30"));
    EXPECT_EQ(eepromOnly->argus(), nullptr);
}
