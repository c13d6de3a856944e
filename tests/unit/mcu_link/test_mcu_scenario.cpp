// The "mcu" entry of a scenario: the full model replaces the built-in silent
// one, reads its keys, and rejects bad ones with the file and field named.
#include <gtest/gtest.h>

#include <cmath>

#include "McuTestSupport.h"
#include "sim/Registry.h"
#include "sim/Scenario.h"
#include "sim/Simulator.h"

using namespace mcutest;

namespace {
std::shared_ptr<sim::VirtualMcu> onlyMcu(const sim::Machine& m) {
    auto devs = m.hidDevices();
    EXPECT_EQ(devs.size(), 1u);
    return devs.empty() ? nullptr : std::dynamic_pointer_cast<sim::VirtualMcu>(devs[0]);
}
}  // namespace

TEST(McuScenario, ShippedScenarioGetsTheFullModel) {
    auto m = sim::loadScenario(std::string(KOV_SOURCE_DIR) + "/sim/scenarios/kov_pico_mcu_only.json");
    auto mcu = onlyMcu(*m);
    ASSERT_NE(mcu, nullptr);
    EXPECT_EQ(val(mcu->identity().path), sim::hidPath(1, 6, 0));
    EXPECT_EQ(val(mcu->identity().releaseNumber), 0x305);
    EXPECT_EQ(val(mcu->identity().serial), L"23456789");
    m->setClock(std::make_shared<sim::SteppedClock>());
    platform::ScopedBackend scope(sim::makeBackend(m));
    IMUHidReader r(false, VENDOR, PICO);
    EXPECT_EQ(r.open(23456789, true, false), 23456789);
    EXPECT_TRUE(r.updateEepromMemory(true));
    EXPECT_TRUE(r.sendStartDataStreamingCommand());
    EXPECT_TRUE(r.updateIMUData(true));
}

TEST(McuScenario, KeysAndFaults) {
    const char* json = R"({"name": "t", "devices": [
        {"type": "mcu", "model": "tera", "firmware": "0x0206", "serial": 0, "bus": 2, "address": 9,
         "imu_odr": 1, "frame_rate": 15, "env_rate": 10, "mag_rate": 20, "clock_scale": 1.2,
         "faults": {"stalled": true, "ignore_first_requests": 3, "short_reads": {"after": 5, "count": 2},
                    "clock_jump_back_after": 100, "reset_dropout_ms": 50, "unplug_after": 1000,
                    "claim_busy": false, "readdress_on_usb_reset": 1, "legacy_stream_at_boot": false}}]})";
    auto m = sim::parseScenario(json, "keys.json");
    auto mcu = onlyMcu(*m);
    ASSERT_NE(mcu, nullptr);
    const sim::McuConfig& c = mcu->config();
    EXPECT_EQ(val(c.productId), 0xF781);
    EXPECT_EQ(val(c.firmware), 0x206);
    EXPECT_EQ(val(mcu->identity().serial), L"0");
    EXPECT_EQ(val(mcu->identity().path), sim::hidPath(2, 9, 0));
    EXPECT_EQ(val(c.eeprom.imu_odr.odr), 1);
    EXPECT_DOUBLE_EQ(c.frameRate, 15);
    EXPECT_DOUBLE_EQ(c.envRate, 10);
    EXPECT_DOUBLE_EQ(c.magRate, 20);
    EXPECT_DOUBLE_EQ(c.clockScale, 1.2);
    EXPECT_TRUE(c.stalled);
    EXPECT_EQ(val(c.ignoreFirstRequests), 3);
    EXPECT_EQ(val(c.shortReadsAfter), 5);
    EXPECT_EQ(val(c.shortReadsCount), 2);
    EXPECT_EQ(val(c.clockJumpBackAfter), 100);
    EXPECT_EQ(val(c.resetDropoutMs), 50);
    EXPECT_EQ(val(c.unplugAfter), 1000);
    EXPECT_EQ(val(c.readdressOnUsbReset), 1);
    EXPECT_FALSE(c.legacyStreamAtBoot);
    EXPECT_EQ(m->usb().devices().size(), 1u);
}

TEST(McuScenario, MissingSerialStringAndEepromBytes) {
    std::string hex;
    eepromMemoryStrc e = sim::McuConfig::defaultEeprom(31234567, 3);
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&e);
    char b[3];
    for (size_t i = 0; i < sizeof(e); ++i) {
        std::snprintf(b, sizeof b, "%02x", p[i]);
        hex += b;
    }
    const std::string json =
        std::string(R"({"devices": [{"type": "mcu", "serial_string": "", "eeprom": ")") + hex + R"("}]})";
    auto m = sim::parseScenario(json, "eeprom.json");
    auto mcu = onlyMcu(*m);
    ASSERT_NE(mcu, nullptr);
    EXPECT_EQ(val(mcu->identity().serial), L"");
    EXPECT_EQ(val(mcu->eeprom().serial.serial_prefix), 3);
    EXPECT_EQ(val(mcu->eeprom().imu_odr.odr), 3);
}

TEST(McuScenario, BadEntriesNameTheField) {
    struct Row {
        const char* json;
        const char* field;
    };
    const Row rows[] = {
        {R"({"devices": [{"type": "mcu", "frimware": 1}]})", "frimware"},
        {R"({"devices": [{"type": "mcu", "model": "giga"}]})", "model"},
        {R"({"devices": [{"type": "mcu", "frame_rate": -1}]})", "frame_rate"},
        {R"({"devices": [{"type": "mcu", "clock_scale": 0}]})", "clock_scale"},
        {R"({"devices": [{"type": "mcu", "imu_odr": 9}]})", "imu_odr"},
        {R"({"devices": [{"type": "mcu", "eeprom": "00ff"}]})", "eeprom"},
        {R"({"devices": [{"type": "mcu", "faults": {"stall": true}}]})", "stall"},
        {R"({"devices": [{"type": "mcu", "faults": {"short_reads": {"length": 99}}}]})", "length"},
        {R"({"devices": [{"type": "mcu", "serial": "abc"}]})", "serial"},
    };
    for (const Row& row : rows) {
        try {
            sim::parseScenario(row.json, "bad.json");
            ADD_FAILURE() << "accepted: " << row.json;
        } catch (const sim::ScenarioError& e) {
            EXPECT_EQ(e.file(), "bad.json");
            EXPECT_NE(e.field().find(row.field), std::string::npos) << e.field() << " / " << e.what();
        }
    }
}

TEST(McuScenario, FaultScenarioStreamsThroughTheRecoveryAndTheClockReset) {
    auto m = sim::loadScenario(std::string(KOV_SOURCE_DIR) + "/sim/mcu/scenarios/kov_tera_mcu_faults.json");
    auto mcu = onlyMcu(*m);
    ASSERT_NE(mcu, nullptr);
    EXPECT_TRUE(mcu->stalled());
    m->setClock(std::make_shared<sim::SteppedClock>());
    platform::ScopedBackend scope(sim::makeBackend(m));
    IMUHidReader r(false, VENDOR, 0xF781);
    ASSERT_EQ(r.open(0, true, false), 34567890);
    EXPECT_FALSE(mcu->stalled());
    ASSERT_TRUE(r.sendStartDataStreamingCommand());
    uint64_t last = 0;
    for (int i = 0; i < 3000; ++i) {
        ASSERT_TRUE(r.updateIMUData(true));
        if (i > 0) {
            ASSERT_EQ(val(r.getCurrentMCUTimeStamp() - last), 2500u) << i;
        }
        last = r.getCurrentMCUTimeStamp();
    }
    EXPECT_NE(val(r.accumulated_ts_offset), 0u);
    EXPECT_FALSE(std::isnan(r.getEnvPressure()));
}

TEST(McuScenario, LegacyScenarioReadsItsImageDespiteIgnoredRequests) {
    auto m = sim::loadScenario(std::string(KOV_SOURCE_DIR) + "/sim/mcu/scenarios/kov_pico_mcu_legacy.json");
    auto mcu = onlyMcu(*m);
    ASSERT_NE(mcu, nullptr);
    m->setClock(std::make_shared<sim::SteppedClock>());
    platform::ScopedBackend scope(sim::makeBackend(m));
    IMUHidReader r(false, VENDOR, PICO);
    ASSERT_EQ(r.open(0, true, false), 12345678);
    EXPECT_TRUE(r.updateEepromMemory(false));
    EXPECT_EQ(val(mcu->counters().ignoredRequests), 2);
    EXPECT_EQ(val(r.serial_number), 12345678u);
}
