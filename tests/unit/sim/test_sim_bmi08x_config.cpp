// The "imu" object of a GMSL camera entry: defaults, every field, errors that
// name the field, fuzzed input, and the bus conflicts attachGmslImu refuses.
#include <QJsonDocument>
#include <QJsonObject>
#include <random>
#include <stdexcept>

#include "tests/unit/sim/test_sim_bmi08x_support.h"

namespace {

sim::Entry entryOf(const std::string& json) {
    const QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(json));
    EXPECT_TRUE(doc.isObject()) << json;
    return sim::Entry(doc.object(), "imu.json", "devices[0].imu");
}

}  // namespace

TEST(Bmi08xConfig, Defaults) {
    const sim::GmslImuConfig c = sim::readGmslImuConfig(entryOf("{}"));
    EXPECT_TRUE(c.present);
    EXPECT_EQ(c.accChipId, 0x1E);
    EXPECT_EQ(c.gyroChipId, 0x0F);
    EXPECT_LT(c.stopAfterSeconds, 0);
    EXPECT_LT(c.nackAfterSeconds, 0);
    // Two oscillators, a few hundred ppm at most, not the same.
    EXPECT_NE(c.accDriftPpm, c.gyroDriftPpm);
    EXPECT_LE(std::abs(c.accDriftPpm), 500);
    EXPECT_LE(std::abs(c.gyroDriftPpm), 500);
    EXPECT_EQ(c.gravityG, (std::array<double, 3>{0, 0, 1}));
    EXPECT_EQ(c.angularRateDps, (std::array<double, 3>{0, 0, 0}));
    EXPECT_GT(c.accNoiseMg, 0);
    EXPECT_GT(c.gyroNoiseDps, 0);
    EXPECT_EQ(c.image, sim::CalibrationImageKind::Valid);
}

TEST(Bmi08xConfig, EveryField) {
    const sim::GmslImuConfig c = sim::readGmslImuConfig(entryOf(R"({
        "comment": "a camera on a vibrating mount",
        "present": false, "acc_chip_id": "0x1F", "gyro_chip_id": 16,
        "stop_after_s": 12.5, "nack_after_s": 30,
        "acc_drift_ppm": -250, "gyro_drift_ppm": 310.5,
        "angular_rate_dps": [1.5, -2, 3], "gravity_g": [0.1, -0.2, 0.97],
        "acc_noise_mg": 0, "gyro_noise_dps": 0.2, "noise_seed": "0xFFFFFFFF",
        "temperature_c": -12.25, "calibration_image": "blank", "image_imu_odr": 1})"));
    EXPECT_FALSE(c.present);
    EXPECT_EQ(c.accChipId, 0x1F);
    EXPECT_EQ(c.gyroChipId, 16);
    EXPECT_DOUBLE_EQ(c.stopAfterSeconds, 12.5);
    EXPECT_DOUBLE_EQ(c.nackAfterSeconds, 30);
    EXPECT_DOUBLE_EQ(c.accDriftPpm, -250);
    EXPECT_DOUBLE_EQ(c.gyroDriftPpm, 310.5);
    EXPECT_EQ(c.angularRateDps, (std::array<double, 3>{1.5, -2, 3}));
    EXPECT_EQ(c.gravityG, (std::array<double, 3>{0.1, -0.2, 0.97}));
    EXPECT_DOUBLE_EQ(c.accNoiseMg, 0);
    EXPECT_DOUBLE_EQ(c.gyroNoiseDps, 0.2);
    EXPECT_EQ(c.noiseSeed, 0xFFFFFFFFu);
    EXPECT_DOUBLE_EQ(c.temperatureC, -12.25);
    EXPECT_EQ(c.image, sim::CalibrationImageKind::Blank);
    EXPECT_EQ(c.imageImuOdr, 1);
    EXPECT_EQ(sim::readGmslImuConfig(entryOf(R"({"calibration_image": "absent"})")).image,
              sim::CalibrationImageKind::Absent);
}

TEST(Bmi08xConfig, BadFieldsAreNamed) {
    const struct {
        const char* json;
        const char* field;
        const char* problem;
    } cases[] = {
        {R"({"gyro_drift": 10})", "gyro_drift", "unknown field"},
        {R"({"present": "yes"})", "present", "true or false"},
        {R"({"acc_chip_id": 256})", "acc_chip_id", "out of range"},
        {R"({"gyro_chip_id": "0xZZ"})", "gyro_chip_id", "expected an integer"},
        {R"({"stop_after_s": -1})", "stop_after_s", "out of range"},
        {R"({"nack_after_s": "soon"})", "nack_after_s", "expected a number"},
        {R"({"acc_drift_ppm": 5000})", "acc_drift_ppm", "out of range"},
        {R"({"gyro_drift_ppm": -1001})", "gyro_drift_ppm", "out of range"},
        {R"({"angular_rate_dps": [1, 2]})", "angular_rate_dps", "three numbers"},
        {R"({"angular_rate_dps": 5})", "angular_rate_dps", "three numbers"},
        {R"({"angular_rate_dps": [1, "a", 3]})", "angular_rate_dps[1]", "expected a number"},
        {R"({"gravity_g": [0, 0, 101]})", "gravity_g[2]", "out of range"},
        {R"({"acc_noise_mg": -0.5})", "acc_noise_mg", "out of range"},
        {R"({"gyro_noise_dps": 1000})", "gyro_noise_dps", "out of range"},
        {R"({"noise_seed": -1})", "noise_seed", "out of range"},
        {R"({"temperature_c": 200})", "temperature_c", "out of range"},
        {R"({"calibration_image": "broken"})", "calibration_image", "is not one of"},
        {R"({"image_imu_odr": 4})", "image_imu_odr", "out of range"},
    };
    for (const auto& c : cases) {
        try {
            sim::readGmslImuConfig(entryOf(c.json));
            ADD_FAILURE() << "accepted: " << c.json;
        } catch (const sim::ScenarioError& e) {
            EXPECT_EQ(e.file(), "imu.json");
            EXPECT_EQ(e.field(), std::string("devices[0].imu.") + c.field) << c.json << " -> " << e.what();
            EXPECT_NE(std::string(e.what()).find(c.problem), std::string::npos)
                << c.json << " -> " << e.what();
        }
    }
}

TEST(Bmi08xConfig, FuzzedObjectsNeverCrash) {
    const std::string base =
        R"({"present": true, "acc_chip_id": 30, "stop_after_s": 3, "acc_drift_ppm": 120, )"
        R"("angular_rate_dps": [1, 2, 3], "gravity_g": [0, 0, 1], "temperature_c": 30, )"
        R"("calibration_image": "valid", "image_imu_odr": 2})";
    std::mt19937 rng(20251103);
    const char alphabet[] = "{}[]\",:-.0123456789eExtruefalsvidbnkgyr_ ";
    int accepted = 0, rejected = 0, notObjects = 0;
    for (int i = 0; i < 4000; ++i) {
        std::string s = base;
        const int edits = 1 + static_cast<int>(rng() % 4);
        for (int k = 0; k < edits && !s.empty(); ++k) {
            const size_t at = rng() % s.size();
            switch (rng() % 3) {
                case 0:
                    s[at] = alphabet[rng() % (sizeof alphabet - 1)];
                    break;
                case 1:
                    s.erase(at, 1 + rng() % 6);
                    break;
                default:
                    s.insert(at, 1, alphabet[rng() % (sizeof alphabet - 1)]);
                    break;
            }
        }
        const QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(s));
        if (!doc.isObject()) {
            ++notObjects;
            continue;
        }
        try {
            sim::readGmslImuConfig(sim::Entry(doc.object(), "fuzz.json", "imu"));
            ++accepted;
        } catch (const sim::ScenarioError& e) {
            EXPECT_EQ(e.file(), "fuzz.json");
            EXPECT_EQ(e.field().rfind("imu.", 0), 0u) << e.what();
            ++rejected;
        }
    }
    EXPECT_GT(accepted, 0);
    EXPECT_GT(rejected, 0);
    EXPECT_EQ(accepted + rejected + notObjects, 4000);
}

TEST(Bmi08xConfig, AttachRefusesTakenAddresses) {
    auto expectRefused = [](sim::Machine& m, int bus, int address, const sim::GmslImuConfig& c,
                            const char* text) {
        try {
            sim::attachGmslImu(m, bus, address, 1, c);
            ADD_FAILURE() << "attached over " << text;
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(text), std::string::npos) << e.what();
        }
    };
    sim::GmslImuConfig config;
    {
        sim::Machine m;
        m.i2cBus(30)->attach(0x18, std::make_shared<sim::RegisterChip>(256, 1));
        expectRefused(m, 30, 0x55, config, "0x18");
        // Without the chip, 0x18 may be taken.
        sim::GmslImuConfig absent = config;
        absent.present = false;
        EXPECT_NE(sim::attachGmslImu(m, 30, 0x55, 1, absent), nullptr);
        EXPECT_NE(sim::GmslImu::find(m, 30), nullptr);
        EXPECT_EQ(sim::GmslImu::find(m, 31), nullptr);
        expectRefused(m, 30, 0x55, absent, "inertial chip already");
    }
    {
        sim::Machine m;
        m.i2cBus(30)->attach(0x57, std::make_shared<sim::RegisterChip>(256, 1));
        expectRefused(m, 30, 0x55, config, "0x57");
        sim::GmslImuConfig noImage = config;
        noImage.image = sim::CalibrationImageKind::Absent;
        EXPECT_NE(sim::attachGmslImu(m, 30, 0x55, 1, noImage), nullptr);
    }
    {
        sim::Machine m;
        expectRefused(m, 30, 0x75, config, "0x75");
        // Two cameras on two buses.
        EXPECT_NE(sim::attachGmslImu(m, 30, 0x55, 1, config), nullptr);
        EXPECT_NE(sim::attachGmslImu(m, 31, 0x57, 2, config), nullptr);
        EXPECT_NE(m.i2cBus(31)->chip(0x58), nullptr);
        EXPECT_NE(m.i2cBus(31)->chip(0x5A), nullptr);
    }
}
