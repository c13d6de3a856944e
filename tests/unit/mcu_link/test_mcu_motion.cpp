// The steady motion of the simulated MCU: the "motion" scenario keys (and
// their bad values), and the samples the real reader gets from it: a constant
// rotation rate in gyroscope counts and a gravity direction that turns with
// the sensors. Runs in simulated time (stepped clock).
#include <gtest/gtest.h>

#include <cmath>

#include "McuTestSupport.h"
#include "sim/Scenario.h"

using namespace mcutest;

namespace {

struct MotionStream {
    SimMachine sim;
    std::shared_ptr<sim::VirtualMcu> mcu;
    std::unique_ptr<IMUHidReader> reader;

    explicit MotionStream(sim::McuConfig c) {
        c.eeprom = sim::McuConfig::defaultEeprom(12345678, 2);  // 400 Hz
        mcu = sim.add(c);
        sim.install();
        reader = std::make_unique<IMUHidReader>(false, VENDOR, c.productId);
        EXPECT_GT(reader->open(0, true, false), 0);
        EXPECT_TRUE(reader->sendStartDataStreamingCommand());
    }
    // The next `n` good samples; the last one stays in current_report.
    bool take(int n) {
        for (int got = 0, tries = 0; got < n; ++tries) {
            if (tries > 10 * n + 10)
                return false;
            got += reader->updateIMUData(true) ? 1 : 0;
        }
        return true;
    }
    const McuSensorReport& last() const { return reader->current_report; }
};

}  // namespace

TEST(McuMotion, ScenarioKeys) {
    const char* json = R"({"devices": [{"type": "mcu", "model": "tera",
        "motion": {"rate_dps": [60, -12.5, 0], "gravity": [0, 0, -2]}}]})";
    auto m = sim::parseScenario(json, "motion.json");
    auto devs = m->hidDevices();
    ASSERT_EQ(devs.size(), 1u);
    auto mcu = std::dynamic_pointer_cast<sim::VirtualMcu>(devs[0]);
    ASSERT_NE(mcu, nullptr);
    const sim::McuConfig& c = mcu->config();
    EXPECT_TRUE(c.hasMotion);
    EXPECT_DOUBLE_EQ(c.motion.rateDps[0], 60.0);
    EXPECT_DOUBLE_EQ(c.motion.rateDps[1], -12.5);
    EXPECT_DOUBLE_EQ(c.motion.gravity[2], -2.0);

    auto plain = sim::parseScenario(R"({"devices": [{"type": "mcu"}]})", "plain.json");
    auto other = std::dynamic_pointer_cast<sim::VirtualMcu>(plain->hidDevices().at(0));
    ASSERT_NE(other, nullptr);
    EXPECT_FALSE(other->config().hasMotion);
}

TEST(McuMotion, BadMotionNamesTheField) {
    struct Row {
        const char* motion;
        const char* field;
    };
    const Row rows[] = {
        {R"({"rate": [1, 2, 3]})", "rate"},
        {R"({"rate_dps": [1, 2]})", "rate_dps"},
        {R"({"rate_dps": 60})", "rate_dps"},
        {R"({"rate_dps": [1, "x", 3]})", "rate_dps"},
        {R"({"rate_dps": [1001, 0, 0]})", "rate_dps"},
        {R"({"rate_dps": [0, -2000, 0]})", "rate_dps"},
        {R"({"gravity": [0, 0, 0]})", "gravity"},
        {R"({"gravity": [0, 0, 1, 0]})", "gravity"},
        {R"({"gravity": null})", "gravity"},
        {R"(7)", "motion"},
    };
    for (const Row& row : rows) {
        const std::string json =
            std::string(R"({"devices": [{"type": "mcu", "motion": )") + row.motion + "}]}";
        try {
            sim::parseScenario(json, "bad.json");
            ADD_FAILURE() << "accepted: " << json;
        } catch (const sim::ScenarioError& e) {
            EXPECT_EQ(e.file(), "bad.json");
            EXPECT_NE(e.field().find(row.field), std::string::npos) << e.field() << " / " << e.what();
        }
    }
}

TEST(McuMotion, WithoutMotionTheBuiltInSmallRatesStay) {
    MotionStream s(sim::McuConfig{});
    ASSERT_TRUE(s.take(1));
    EXPECT_EQ(val(s.last().gyro_z), 5);
    EXPECT_EQ(val(s.last().acc_z), 4096);
}

TEST(McuMotion, ConstantRateAndTurningGravity) {
    sim::McuConfig c;
    c.productId = 0xF781;
    c.hasMotion = true;
    c.motion.rateDps[0] = 60.0;
    MotionStream s(c);
    ASSERT_TRUE(s.take(1));
    // 60 deg/s at 1000/32768 deg/s a count
    EXPECT_EQ(val(s.last().gyro_x), 1966);
    EXPECT_EQ(val(s.last().gyro_y), 0);
    EXPECT_EQ(val(s.last().gyro_z), 0);
    // Turning about +x, the sensors see gravity (first on +z) move towards +y,
    // by the angle turned between two samples.
    const auto tilt = [&] { return std::atan2(s.last().acc_y, s.last().acc_z) * 57.29578; };
    const double tilt0 = tilt();
    const uint64_t t0 = s.reader->getCurrentBHIMUTimestamp();
    ASSERT_TRUE(s.take(200));  // 0.5 s at 400 Hz
    const double turned = 60.0 * static_cast<double>(s.reader->getCurrentBHIMUTimestamp() - t0) * 1e-9;
    ASSERT_NEAR(turned, 30.0, 0.5);
    EXPECT_EQ(val(s.last().gyro_x), 1966);
    EXPECT_NEAR(val(s.last().acc_x), 0, 1);
    EXPECT_NEAR(tilt() - tilt0, turned, 0.5);
    EXPECT_NEAR(std::hypot(val(s.last().acc_y), val(s.last().acc_z)), 4096.0, 2.0);

    // Stopping keeps gravity where the turn left it.
    const int16_t y_before = val(s.last().acc_y);
    s.mcu->setRotationRate(0.0, 0.0, 0.0);
    ASSERT_TRUE(s.take(100));
    EXPECT_EQ(val(s.last().gyro_x), 0);
    EXPECT_NEAR(val(s.last().acc_y), y_before, 30);
    EXPECT_GT(val(s.last().acc_y), 1900);

    // setMotion sets gravity afresh.
    sim::McuMotion down;
    down.gravity[0] = 0.0;
    down.gravity[1] = 0.0;
    down.gravity[2] = -1.0;
    down.rateDps[2] = -90.0;
    s.mcu->setMotion(down);
    ASSERT_TRUE(s.take(1));
    EXPECT_EQ(val(s.last().gyro_z), -2949);      // -90 * 32.768, rounded
    EXPECT_NEAR(val(s.last().acc_z), -4096, 2);  // rotation about gravity leaves it in place
    ASSERT_TRUE(s.take(400));
    EXPECT_NEAR(val(s.last().acc_z), -4096, 2);
    EXPECT_NEAR(val(s.last().acc_x), 0, 2);
}
