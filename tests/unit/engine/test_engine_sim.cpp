// The engine on the simulated sensors MCU, through the real HID reader and the
// simulated seams: a KOV Tera streaming at 400 Hz (threaded, real time; and
// driven round by round in simulated time, a large rotation included), open
// edge cases, and the EEPROM write-back read back from the simulated EEPROM,
// legacy echo loop included.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>

#include <Eigen/Geometry>

#include "bh_input/mcu/IMU/IMUHidReader.h"
#include "platform/Platform.h"
#include "sim/Machine.h"
#include "sim/Simulator.h"
#include "sim/SteppedClock.h"
#include "sim/mcu/VirtualMcu.h"
#include "tests/unit/engine/EngineTestSupport.h"

namespace {

constexpr uint16_t kVendor = 11011;

struct SimEngine {
    std::shared_ptr<sim::Machine> machine = std::make_shared<sim::Machine>();
    std::shared_ptr<sim::SteppedClock> clock = std::make_shared<sim::SteppedClock>();
    std::shared_ptr<sim::VirtualMcu> mcu;
    std::unique_ptr<platform::ScopedBackend> scope;
    std::unique_ptr<bh::KOVmcu> engine;

    // `stepped`: simulated time (sleeps return at once); otherwise real time.
    SimEngine(bh::MODEL model, uint32_t serial, uint16_t firmware, int odr, bool stepped,
              const std::function<void(sim::McuConfig&)>& tweak = nullptr) {
        if (stepped) {
            machine->setClock(clock);
        }
        sim::McuConfig c;
        c.firmware = firmware;
        c.productId = bh::mcuProductId(model);
        c.eeprom = sim::McuConfig::defaultEeprom(serial, odr);
        if (model != bh::KOV_P) {
            c.envRate = 25.0;
            c.magRate = 50.0;
        }
        if (tweak) {
            tweak(c);
        }
        // The backend goes in first: the MCU takes its tick base from the
        // installed clock when it is built.
        scope = std::make_unique<platform::ScopedBackend>(sim::makeBackend(machine));
        mcu = sim::VirtualMcu::addTo(*machine, c);
        engine = std::make_unique<bh::KOVmcu>(false, kVendor, model);
    }
    ~SimEngine() {
        engine.reset();  // closes while the simulated seams are installed
        scope.reset();
    }
};

Eigen::Quaternionf orientationOf(const bh::IMUPacket& p) {
    return Eigen::Quaternionf(p.orientation[3], p.orientation[0], p.orientation[1], p.orientation[2]);
}

// Packet vectors are in the camera's axes (y, -z, -x of the engine frame).
Eigen::Vector3f engineFromPacket(const float v[3]) {
    return Eigen::Vector3f(-v[2], v[0], -v[1]);
}

float tiltError(const bh::IMUPacket& p) {
    const Eigen::Vector3f a = engineFromPacket(p.acc).normalized();
    const Eigen::Vector3f up = orientationOf(p).normalized() * a;
    return std::acos(std::min(1.f, std::max(-1.f, up.dot(Eigen::Vector3f::UnitZ())))) * 57.29578f;
}

}  // namespace

TEST(EngineOnSimulatedMcu, TeraAt400HzStreamsInRealTime) {
    SimEngine s(bh::KOVT, 21234567, 0x305, 2, false);
    ASSERT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_EQ(s.engine->rate_hz, 400);
    EXPECT_EQ(s.mcu->rateHz(), 400);
    ASSERT_TRUE(s.engine->startCapture(0.f));
    size_t max_size = 0;
    uint64_t last = 0;
    bool ordered = true;
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(3000);
    while (std::chrono::steady_clock::now() < until) {
        max_size = std::max({max_size, s.engine->imu_queue.size(), s.engine->batch_queue.size(),
                             s.engine->sync_queue.size()});
        const bh::IMUPose pose = s.engine->getIMUPose(0);
        if (pose.valid) {
            ordered = ordered && pose.timestamp >= last;
            last = pose.timestamp;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    s.engine->stopCapture();
    EXPECT_TRUE(ordered);
    EXPECT_LE(max_size, 1000u);
    // 3 s at 400 Hz fills the queue to its limit
    EXPECT_EQ(s.engine->imu_queue.size(), 1000u);
    EXPECT_FALSE(s.mcu->streaming());
    for (size_t i = 1; i < s.engine->imu_queue.size(); ++i) {
        const uint64_t a = s.engine->imu_queue.atBegin(i - 1).timestamp;
        const uint64_t b = s.engine->imu_queue.atBegin(i).timestamp;
        ASSERT_GT(b, a);
        ASSERT_NEAR(static_cast<double>(b - a), 2.5e6, 1e4) << i;
    }
    ASSERT_GT(s.engine->sync_queue.size(), 30u);  // 30 Hz frame triggers
    for (size_t i = 0; i < s.engine->sync_queue.size(); ++i) {
        ASSERT_GT(s.engine->sync_queue.atBegin(i).sync_event, 0);
    }
    const bh::IMUPacket newest = s.engine->imu_queue.atEnd(0);
    EXPECT_LT(tiltError(newest), 1.f);
    EXPECT_GT(newest.mag_valid, 0);
    EXPECT_GT(newest.env_valid, 0);
    EXPECT_TRUE(s.engine->hasMCUSyncCapabilities());
    s.engine->close();
    EXPECT_FALSE(s.engine->capture_thread.joinable());
}

TEST(EngineOnSimulatedMcu, TeraAt400HzInSimulatedTimeStaysLevelAndFollowsTheRates) {
    SimEngine s(bh::KOVT, 21234567, 0x305, 2, true);
    ASSERT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    s.engine->updateCameraIMUcalibration();
    ASSERT_TRUE(s.engine->imu_reader->sendStartDataStreamingCommand());
    s.engine->beginFusion();
    // 10 simulated seconds, round by round on this thread
    std::vector<bh::IMUPacket> packets;
    int guard = 0;
    while (packets.size() < 4000 && guard++ < 40000) {
        if (s.engine->fusionRound()) {
            packets.push_back(s.engine->imu_queue.atEnd(0));
        }
    }
    ASSERT_EQ(packets.size(), 4000u);
    for (size_t i = 1; i < packets.size(); ++i) {
        ASSERT_EQ(packets[i].timestamp - packets[i - 1].timestamp, 2500000u) << i;
    }
    // level: the sensor lies with its z axis up and stays so
    float worst = 0.f;
    for (size_t i = 10; i < packets.size(); ++i) {
        worst = std::max(worst, tiltError(packets[i]));
    }
    EXPECT_LT(worst, 1.f);
    // The simulated MCU turns slowly about its vertical axis (its 5 counts on
    // the gyroscope's z, the engine's x here), which gravity can not correct:
    // the orientation's twist about that axis follows the integral of the
    // calibrated rate that the packets carry.
    double integrated = 0.0;
    for (size_t i = 11; i < packets.size(); ++i) {
        const Eigen::Vector3f w = engineFromPacket(packets[i].gyro);  // degrees per second
        integrated += w.x() * static_cast<double>(packets[i].timestamp - packets[i - 1].timestamp) * 1e-9;
    }
    const Eigen::Quaternionf relative =
        orientationOf(packets[10]).conjugate() * orientationOf(packets.back());
    const double twist = 2.0 * std::atan2(relative.x(), relative.w()) * 57.29578;
    EXPECT_GT(std::fabs(integrated), 0.3);  // the rotation is there
    EXPECT_NEAR(twist, integrated, 0.05);
    EXPECT_LE(s.engine->imu_queue.size(), 1000u);
}

TEST(EngineOnSimulatedMcu, LargeRotationShowsAsItsAngle) {
    // The same motion as the in-memory pipeline test, through the real reader:
    // 2.5 s still, 0.5 s turning at 60 deg/s about the sensors' x, then still
    // again. Gravity turns with the sensors, as a turning camera sees it.
    SimEngine s(bh::KOVT, 21234567, 0x305, 2, true, [](sim::McuConfig& c) { c.hasMotion = true; });
    ASSERT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    s.engine->updateCameraIMUcalibration();
    ASSERT_TRUE(s.engine->imu_reader->sendStartDataStreamingCommand());
    s.engine->beginFusion();
    std::vector<bh::IMUPacket> packets;
    const auto run = [&](size_t count) {
        const size_t target = packets.size() + count;
        int guard = 0;
        while (packets.size() < target && guard++ < 100000) {
            if (s.engine->fusionRound()) {
                packets.push_back(s.engine->imu_queue.atEnd(0));
            }
        }
        return packets.size() == target;
    };
    ASSERT_TRUE(run(1000));
    const bh::IMUPacket still = packets.back();
    s.mcu->setRotationRate(60.0, 0.0, 0.0);
    ASSERT_TRUE(run(200));
    s.mcu->setRotationRate(0.0, 0.0, 0.0);
    ASSERT_TRUE(run(100));
    const bh::IMUPacket after = packets.back();

    EXPECT_NEAR(still.gyro_raw[1], 0.f, 1e-6f);
    EXPECT_LT(tiltError(still), 1.f);
    bool saw_rate = false;
    for (size_t i = 1000; i < 1200; ++i) {
        // reader x is camera y; 1966 counts of 1000/32768 deg/s
        saw_rate = saw_rate || std::fabs(packets[i].gyro_raw[1] - 60.f) < 0.1f;
    }
    EXPECT_TRUE(saw_rate);
    // 0.5 s at 60 deg/s = 30 degrees between the still orientation and the one after the turn
    const float turned = orientationOf(still).angularDistance(orientationOf(after)) * 57.29578f;
    EXPECT_NEAR(turned, 30.f, 2.f);
    // the accelerometer turned with the sensors, so the estimate stays level
    EXPECT_LT(tiltError(after), 1.f);
    // and the measured gravity turned by the same angle
    const Eigen::Vector3f a0(still.acc[0], still.acc[1], still.acc[2]);
    const Eigen::Vector3f a1(after.acc[0], after.acc[1], after.acc[2]);
    EXPECT_NEAR(a1.norm(), a0.norm(), 0.05f * a0.norm());
    EXPECT_NEAR(std::acos(a0.normalized().dot(a1.normalized())) * 57.29578f, 30.f, 1.f);
}

TEST(EngineOnSimulatedMcu, UnprogrammedSerialNeedsForce) {
    {
        SimEngine s(bh::KOV_P, 990123456u, 0x305, 2, true);
        EXPECT_EQ(s.engine->open(0, false, IMU_ODR_400, nullptr, nullptr, false, false),
                  MCU_STATUS::INVALID_SERIAL);
    }
    {
        SimEngine s(bh::KOV_P, 990123456u, 0x305, 2, true);
        EXPECT_EQ(s.engine->open(0, true, IMU_ODR_400, nullptr, nullptr, false, true), MCU_STATUS::SUCCESS);
        EXPECT_EQ(s.engine->getMCUSerialNumber(), 990123456);
    }
}

TEST(EngineOnSimulatedMcu, Firmware0x303RunsAt400WithoutRereading) {
    SimEngine s(bh::KOVT, 21234567, 0x303, 2, true);
    const int reads_before = s.mcu->counters().featureReads;
    ASSERT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    const int reads_after_open = s.mcu->counters().featureReads;
    EXPECT_EQ(s.engine->rate_hz, 400);
    EXPECT_GT(reads_after_open, reads_before);
    // the camera records were never read: the rate write refused and nothing re-read them
    EXPECT_EQ(+s.engine->eeprom.calib_stereo.params[0], 0.f);
}

TEST(EngineOnSimulatedMcu, NoDeviceGivesHidOpenFailed) {
    SimEngine s(bh::KOVT, 21234567, 0x305, 2, true);
    s.mcu->unplug();
    EXPECT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::HID_OPEN_FAILED);
}

TEST(EngineOnSimulatedMcu, WriteBackRoundTrips) {
    SimEngine s(bh::KOVT, 21234567, 0x305, 2, true);
    ASSERT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);

    std::vector<float> bias = {0.01f, -0.02f, 0.03f, 0.1f, -0.2f, 0.3f};
    EXPECT_EQ(s.engine->writeBiasinEEprom(bias, false), MCU_STATUS::SUCCESS);
    EXPECT_FLOAT_EQ(+s.mcu->eeprom().bias.gyro_bias[2], 0.03f);
    EXPECT_FLOAT_EQ(+s.engine->eeprom.bias.acc_bias[1], -0.2f);

    std::vector<float> variance = {1e-5f, 2e-5f, 3e-5f, 4e-4f, 5e-4f, 6e-4f};
    EXPECT_EQ(s.engine->writeVarianceinEEprom(variance, false), MCU_STATUS::SUCCESS);
    EXPECT_EQ(s.engine->writeSNinEEprom(3, 7654321), MCU_STATUS::SUCCESS);

    eepromMemoryStrc image;
    ASSERT_EQ(s.engine->readFullEEprom(image), MCU_STATUS::SUCCESS);
    EXPECT_FLOAT_EQ(+image.bias.gyro_bias[0], 0.01f);
    EXPECT_FLOAT_EQ(+image.bias.acc_bias[2], 0.3f);
    EXPECT_FLOAT_EQ(+image.variance.gyro_var[1], 2e-5f);
    EXPECT_FLOAT_EQ(+image.variance.acc_var[2], 6e-4f);
    EXPECT_EQ(+image.serial.serial_prefix, 3);
    EXPECT_EQ(+image.serial.serial_body, 7654321);
    const eepromMemoryStrc device = s.mcu->eeprom();
    EXPECT_EQ(std::memcmp(&image, &device, 671), 0);  // all but the date record
}

TEST(EngineOnSimulatedMcu, FullCalibrationAndFormatRoundTrips) {
    SimEngine s(bh::KOVT, 21234567, 0x305, 2, true);
    ASSERT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);

    std::vector<std::pair<calib_mono_data, calib_mono_data>> pairs(4);
    for (int r = 0; r < 4; ++r) {
        std::memset(&pairs[r].first, 0, sizeof(calib_mono_data));
        std::memset(&pairs[r].second, 0, sizeof(calib_mono_data));
        pairs[r].first.values[0] = 10.f * r + 1.f;
        pairs[r].second.values[11] = 10.f * r + 2.f;
    }
    _calib_stereo_data stereo{};
    stereo.params[0] = 63.5f;
    stereo.block2[1] = -0.25f;
    _extended_acc_calib_data acc{};
    acc.scale[0] = acc.scale[1] = acc.scale[2] = 1.001f;
    acc.misalign[1] = 0.003f;
    _extended_gyro_calib_data gyro{};
    gyro.scale[0] = gyro.scale[1] = gyro.scale[2] = 0.999f;
    gyro.misalign[4] = -0.004f;
    _mag_calib_data mag{0x43, {1.5f, 1.5f, 1.5f}, {1.f, 2.f, 3.f}};
    variance_data variance{0x35, {1e-5f, 1e-5f, 1e-5f}, {2e-4f, 2e-4f, 2e-4f}};
    _bias_data bias{0x34, {0.002f, 0.f, -0.002f}, {0.05f, 0.f, -0.05f}};
    ASSERT_EQ(s.engine->writeFullCalibinEEprom(pairs, stereo, acc, gyro, mag, variance, bias),
              MCU_STATUS::SUCCESS);
    eepromMemoryStrc image;
    ASSERT_EQ(s.engine->readFullEEprom(image), MCU_STATUS::SUCCESS);
    for (int r = 0; r < 4; ++r) {
        EXPECT_FLOAT_EQ(+image.calib_mono[2 * r].values[0], 10.f * r + 1.f);
        EXPECT_FLOAT_EQ(+image.calib_mono[2 * r + 1].values[11], 10.f * r + 2.f);
    }
    EXPECT_FLOAT_EQ(+image.calib_stereo.params[0], 63.5f);
    EXPECT_FLOAT_EQ(+image.calib_stereo.block2[1], -0.25f);
    EXPECT_FLOAT_EQ(+image.ext_acc_calib.misalign[1], 0.003f);
    EXPECT_FLOAT_EQ(+image.ext_gyro_calib.misalign[4], -0.004f);
    EXPECT_FLOAT_EQ(+image.mag_calib.offset[2], 3.f);
    EXPECT_FLOAT_EQ(+image.barom_calib.scale, 1.f);
    EXPECT_FLOAT_EQ(+image.barom_calib.offset, 0.f);
    EXPECT_FLOAT_EQ(+image.variance.acc_var[0], 2e-4f);
    EXPECT_FLOAT_EQ(+image.bias.acc_bias[2], -0.05f);

    // format: new serial, factory defaults; prefix 3 gives a stereo value of 60
    ASSERT_EQ(s.engine->formatFullEEprom(3, 1111), MCU_STATUS::SUCCESS);
    ASSERT_EQ(s.engine->readFullEEprom(image), MCU_STATUS::SUCCESS);
    EXPECT_EQ(+image.serial.serial_prefix, 3);
    EXPECT_EQ(+image.serial.serial_body, 1111);
    EXPECT_FLOAT_EQ(+image.calib_stereo.params[0], 60.f);
    EXPECT_FLOAT_EQ(+image.calib_mono[6].values[3], 188.f);
    EXPECT_FLOAT_EQ(+image.calib_mono[1].values[2], 1104.f);
    EXPECT_FLOAT_EQ(+image.bias.gyro_bias[2], 0.f);
    EXPECT_FLOAT_EQ(+image.ext_gyro_calib.scale[0], 1.f);
    EXPECT_FLOAT_EQ(+image.ext_gyro_calib.misalign[4], 0.f);
}

TEST(EngineOnSimulatedMcu, LegacyWriteGoesThroughTheEchoLoop) {
    SimEngine s(bh::KOV_P, 21234567, 0x300, 2, true);
    ASSERT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_EQ(s.engine->rate_hz, 800);  // legacy runs at 800 Hz
    const int requests_before = s.mcu->counters().legacyRequests;
    const int feature_writes_before = s.mcu->counters().featureWrites;
    std::vector<float> bias = {0.004f, 0.005f, -0.006f, 0.f, 0.f, 0.f};
    EXPECT_EQ(s.engine->writeBiasinEEprom(bias, false), MCU_STATUS::SUCCESS);
    EXPECT_GT(s.mcu->counters().legacyRequests, requests_before);
    EXPECT_EQ(s.mcu->counters().featureWrites, feature_writes_before);  // no feature report on legacy
    EXPECT_FLOAT_EQ(+s.mcu->eeprom().bias.gyro_bias[2], -0.006f);
    // re-read through the legacy burst
    EXPECT_FLOAT_EQ(+s.engine->imu_reader->eeprom.bias.gyro_bias[1], 0.005f);
    EXPECT_EQ(s.engine->writeKlibinEEprom(0.01f, 0.02f, 0.03f, false), MCU_STATUS::SUCCESS);
    EXPECT_FLOAT_EQ(+s.mcu->eeprom().cam_imu.rot[1], 0.02f);
    // format on 0x300 goes through the erase; legacy has no barometer record
    const int requests = s.mcu->counters().legacyRequests;
    EXPECT_EQ(s.engine->formatFullEEprom(2, 4242), MCU_STATUS::FAILURE);
    EXPECT_GT(s.mcu->counters().legacyRequests, requests);
    EXPECT_EQ(+s.mcu->eeprom().serial.serial_body, 4242);
}

TEST(EngineOnSimulatedMcu, FormatOn0x301SkipsTheErase) {
    SimEngine s(bh::KOVT, 21234567, 0x301, 2, true);
    ASSERT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    const int requests = s.mcu->counters().legacyRequests;
    EXPECT_EQ(s.engine->formatFullEEprom(0, 99), MCU_STATUS::SUCCESS);
    EXPECT_EQ(s.mcu->counters().legacyRequests, requests);
    EXPECT_EQ(+s.mcu->eeprom().serial.serial_body, 99);
    EXPECT_FLOAT_EQ(+s.mcu->eeprom().calib_stereo.params[0], 120.f);
}

TEST(EngineOnSimulatedMcu, CalibrationProceduresAndRetrimming) {
    SimEngine s(bh::KOVT, 21234567, 0x305, 2, true);
    ASSERT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    bh::calibrationIMUParams params;
    params.samples = 400;
    EXPECT_EQ(s.engine->calibrateIMU(params), MCU_STATUS::SUCCESS);
    EXPECT_NEAR(params.gyro_bias[2], 5.f * 1000.f / 32768.f, 1e-3f);  // the simulated 5 counts on z
    EXPECT_NEAR(params.acc_bias[2], 0.f, 1e-3f);                      // 1 g on z, less 1 g
    EXPECT_NEAR(params.acc_bias[1], -12.f / 4096.f, 1e-4f);
    EXPECT_EQ(params.serial_number, 21234567);
    testing::internal::CaptureStdout();
    const int retrim = s.engine->doImuRetrimming();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(retrim, 3);
    EXPECT_EQ(s.mcu->counters().retrimStarts, 1);
}

TEST(EngineOnSimulatedMcu, DisconnectionInTheMiddleOfAMeasurementGives5) {
    SimEngine s(bh::KOVT, 21234567, 0x305, 2, true, [](sim::McuConfig& c) {
        c.shortReadsAfter = 300;
        c.shortReadsCount = 1000000;
    });
    ASSERT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    bh::calibrationIMUParams params;
    params.samples = 1000;
    EXPECT_EQ(s.engine->calibrateIMU(params), MCU_STATUS::DISCONNECTED);
    EXPECT_EQ(params.status, 5);
}

TEST(EngineOnSimulatedMcu, RetrimmingOnPicoWithFirstSerialFieldOneRefuses) {
    SimEngine s(bh::KOV_P, 11234567, 0x305, 2, true);
    ASSERT_EQ(s.engine->open(11234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    testing::internal::CaptureStdout();
    EXPECT_EQ(s.engine->doImuRetrimming(), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(s.mcu->counters().retrimStarts, 0);
}

TEST(EngineOnSimulatedMcu, CloseWritesTheOnlineBias) {
    SimEngine s(bh::KOV_P, 21234567, 0x305, 2, true);
    ASSERT_EQ(s.engine->open(21234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    s.engine->fusion_bias.bias[0] = 0.3f;
    s.engine->fusion_bias.bias[1] = 0.002f;
    s.engine->fusion_bias.bias[2] = -0.001f;
    s.engine->fusion_bias.updated = true;
    s.engine->close();
    EXPECT_FLOAT_EQ(+s.mcu->eeprom().bias.gyro_bias[0], 0.f);
    EXPECT_FLOAT_EQ(+s.mcu->eeprom().bias.gyro_bias[1], 0.002f);
    EXPECT_FLOAT_EQ(+s.mcu->eeprom().bias.gyro_bias[2], -0.001f);
    EXPECT_FLOAT_EQ(+s.mcu->eeprom().bias.acc_bias[0], 0.f);
}
