// Calibration procedures of the engine on an in-memory MCU: the camera to IMU
// transform, the stationary measurements and the retrimming.
#include <gtest/gtest.h>

#include <cmath>

#include <Eigen/Geometry>

#include "tests/unit/engine/EngineTestSupport.h"

namespace {}  // namespace

TEST(EngineCalibration, TransformUsesTheRecordAndTheModelPosition) {
    EngineOnMemory e(bh::KOVT, 0x305);
    e.reader->device_eeprom.cam_imu.rot[2] = 0.1f;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    e.engine->calib.R.setZero();  // unset: the record's vector is used
    e.engine->calib.T.setZero();  // unset: the model's position is used
    e.engine->updateCameraIMUcalibration();
    const Eigen::Matrix4f t = e.engine->getIMUCameraTransform();
    const Eigen::Matrix3f expected = Eigen::AngleAxisf(0.1f, Eigen::Vector3f::UnitZ()).toRotationMatrix();
    const Eigen::Matrix3f rotation = t.block<3, 3>(0, 0);
    EXPECT_TRUE(rotation.isApprox(expected, 1e-5f));
    EXPECT_NEAR(t(0, 3), 23.061f, 1e-3f);  // millimetres in the getter
    EXPECT_NEAR(t(1, 3), -0.217f, 1e-4f);
    EXPECT_NEAR(e.engine->cam_imu_transform(0, 3), 0.023061f, 1e-6f);  // metres inside
}

TEST(EngineCalibration, CalibratedValuesWinOverTheRecord) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    e.reader->device_eeprom.cam_imu.rot[2] = 0.1f;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    e.engine->calib.R = Eigen::Vector3f(0.f, 0.2f, 0.f);
    e.engine->calib.T = Eigen::Vector3f(1.f, 2.f, 3.f);
    e.engine->updateCameraIMUcalibration();
    const Eigen::Matrix4f t = e.engine->getIMUCameraTransform();
    const Eigen::Matrix3f rotation = t.block<3, 3>(0, 0);
    EXPECT_TRUE(
        rotation.isApprox(Eigen::AngleAxisf(0.2f, Eigen::Vector3f::UnitY()).toRotationMatrix(), 1e-5f));
    EXPECT_NEAR(t(2, 3), 3.f, 1e-4f);
}

TEST(EngineCalibration, CorruptedRecordIsLoggedAndZeroedAtStart) {
    LogCapture log;
    EngineOnMemory e(bh::KOV_P, 0x280);  // legacy: open does not check the vector
    e.reader->device_eeprom.cam_imu.rot[1] = NAN;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    e.engine->calib.R.setZero();
    e.engine->updateCameraIMUcalibration();
    EXPECT_TRUE(log.has("Eeprom calib is corrupted 0 nan 0", spdlog::level::err));
    const Eigen::Matrix3f r = e.engine->cam_imu_transform.block<3, 3>(0, 0);
    EXPECT_TRUE(r.isIdentity());
}

TEST(EngineCalibration, VerboseStartPrintsTheCalibration) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    e.engine->verbose = 1;
    testing::internal::CaptureStdout();
    e.engine->updateCameraIMUcalibration();
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(out.rfind("IMU calibration\n", 0), 0u);
    EXPECT_NE(out.find("T-Scale\n"), std::string::npos);
}

TEST(EngineCalibration, SetCalibrationParametersIgnoresAnUnsetStructure) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    e.engine->calib.acc_bias.x() = 0.5f;
    bh::IMUCalibParam unset;
    e.engine->setCalibrationParameters(unset);
    EXPECT_FLOAT_EQ(e.engine->calib.acc_bias.x(), 0.5f);
    bh::IMUCalibParam given;
    given.gyro_bias.y() = 0.25f;
    e.engine->setCalibrationParameters(given);
    EXPECT_FLOAT_EQ(e.engine->calib.gyro_bias.y(), 0.25f);
    EXPECT_FLOAT_EQ(e.engine->calib.acc_bias.x(), 0.f);
}

TEST(EngineCalibration, SimpleMeanIsRelativeToTheFirstSample) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    e.reader->motion = [](uint64_t i) {
        MemoryIMUReader::Motion m;
        m.gyro[0] = 3;
        m.gyro[1] = -2;
        m.gyro[2] = static_cast<int16_t>(10 + (i % 2));
        m.acc[1] = static_cast<int16_t>(100 + 2 * (i % 2));
        return m;
    };
    std::vector<float> values;
    EXPECT_EQ(e.engine->calibrateIMU(values, 10), MCU_STATUS::SUCCESS);
    ASSERT_EQ(values.size(), 6u);
    EXPECT_FLOAT_EQ(values[0], 0.f);           // accelerometer x is not measured
    EXPECT_FLOAT_EQ(values[1], 2.f * 5 / 10);  // 5 odd samples 2 counts above the first
    EXPECT_FLOAT_EQ(values[2], 0.f);
    EXPECT_FLOAT_EQ(values[3], 3.f * 9 / 10);  // counts of the 9 samples after the first
    EXPECT_FLOAT_EQ(values[4], -2.f * 9 / 10);
    EXPECT_FLOAT_EQ(values[5], 1.f * 5 / 10);
    EXPECT_TRUE(e.reader->streaming);  // the stream stays on
    std::vector<float> none;
    EXPECT_EQ(e.engine->calibrateIMU(none, 0), MCU_STATUS::SUCCESS);
    EXPECT_EQ(none, std::vector<float>(6, 0.f));
}

TEST(EngineCalibration, SimpleMeanChecksTheReader) {
    bh::KOVmcu engine(false, 11011, bh::KOV_P, std::unique_ptr<VirtualIMUReader>());
    std::vector<float> values;
    EXPECT_EQ(engine.calibrateIMU(values, 10), MCU_STATUS::FAILURE);
    EngineOnMemory e(bh::KOV_P, 0x305);
    EXPECT_EQ(e.engine->calibrateIMU(values, 10), MCU_STATUS::NOT_OPEN);
}

TEST(EngineCalibration, BiasAndVarianceOfAStillSensor) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    e.reader->gravity[0] = 0;
    e.reader->gravity[2] = 4096;  // 1 g on z
    e.reader->motion = [](uint64_t i) {
        MemoryIMUReader::Motion m;
        m.gyro[1] = static_cast<int16_t>(i % 2 == 0 ? 10 : 20);  // mean 15 counts, spread 5
        m.acc[0] = 41;
        return m;
    };
    std::vector<float> bias;
    std::vector<float> variance;
    EXPECT_EQ(e.engine->calibrateIMU(bias, variance, 1000), MCU_STATUS::SUCCESS);
    ASSERT_EQ(bias.size(), 6u);
    ASSERT_EQ(variance.size(), 6u);
    const float lsb = 1000.f / 32768.f;
    EXPECT_NEAR(bias[0], 0.f, 1e-6f);
    EXPECT_NEAR(bias[1], 15.f * lsb, 1e-4f);  // degrees per second
    EXPECT_NEAR(bias[3], 41.f / 4096.f, 1e-5f);
    EXPECT_NEAR(bias[5], 0.f, 1e-5f);  // z less 1 g
    EXPECT_NEAR(variance[1], 25.f * lsb * lsb, 1e-4f);
    EXPECT_NEAR(variance[3], 0.f, 1e-6f);
    // the procedure reset the calibration and the image copy
    EXPECT_TRUE(e.engine->calib.isUnset());
}

TEST(EngineCalibration, ZeroSamplesInTheParametersMeasures5000) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    bh::calibrationIMUParams params;
    params.samples = 0;
    const uint64_t before = e.reader->produced;
    EXPECT_EQ(e.engine->calibrateIMU(params), MCU_STATUS::SUCCESS);
    EXPECT_EQ(params.samples, 5000);
    EXPECT_EQ(e.reader->produced - before, 5000u);
    EXPECT_EQ(params.status, 0);
    EXPECT_EQ(params.firmware_version, 0x305);
    EXPECT_EQ(params.serial_number, 20123456);
    EXPECT_NEAR(params.acc_bias[0], -1.f, 1e-5f);  // gravity on reader x
    EXPECT_NEAR(params.acc_bias[2], -1.f, 1e-5f);  // z less 1 g
}

TEST(EngineCalibration, DisconnectionInTheMiddleGives5Not6) {
    LogCapture log;
    EngineOnMemory e(bh::KOV_P, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    e.reader->fail_after = static_cast<int64_t>(e.reader->produced) + 200;
    bh::calibrationIMUParams params;
    params.samples = 1000;
    EXPECT_EQ(e.engine->calibrateIMU(params), MCU_STATUS::DISCONNECTED);
    EXPECT_EQ(params.status, 5);
    EXPECT_TRUE(log.has("MCU_STATUS::DISCONNECTED"));
    std::vector<float> values;
    EXPECT_EQ(e.engine->calibrateIMU(values, 10), MCU_STATUS::DISCONNECTED);
}

TEST(EngineCalibration, ClosedReaderIsOpenedWithSerialZero) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    std::vector<float> bias, variance;
    EXPECT_EQ(e.engine->calibrateIMU(bias, variance, 5), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.reader->open_calls, 1);
    EngineOnMemory f(bh::KOV_P, 0x305);
    f.reader->failing_commands.insert("open");
    EXPECT_EQ(f.engine->calibrateIMU(bias, variance, 5), MCU_STATUS::HID_OPEN_FAILED);
}

TEST(EngineCalibration, MeasurementStopsTheFusionThreadFirst) {
    EngineOnMemory e(bh::KOVT, 0x305);
    e.reader->pace_us = 100;
    e.reader->mag_every = 2;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_800), MCU_STATUS::SUCCESS);
    ASSERT_TRUE(e.engine->startCapture(0.f));
    std::vector<float> values;
    EXPECT_EQ(e.engine->calibrateIMU(values, 50), MCU_STATUS::SUCCESS);
    EXPECT_FALSE(e.engine->running);
    EXPECT_FALSE(e.engine->capture_thread.joinable());
}

TEST(EngineRetrimming, PicoWithFirstSerialFieldOneRefusesWithZero) {
    EngineOnMemory e(bh::KOV_P, 0x305, 1, 234567);
    ASSERT_EQ(e.engine->open(10234567, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    testing::internal::CaptureStdout();
    EXPECT_EQ(e.engine->doImuRetrimming(), 0);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find(" ** Starting IMU re-trimming (CRT) **"), std::string::npos);
    EXPECT_NE(out.find(" ERROR starting IMU re-trimming (CRT)"), std::string::npos);
    EXPECT_EQ(e.reader->countCalls("getImuRetrimmingStatus"), 0);
    EXPECT_EQ(e.engine->verbose, 1);
}

TEST(EngineRetrimming, PollEndsAtOnceOn5) {
    LogCapture log;
    EngineOnMemory e(bh::KOVT, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    e.reader->retrim_statuses = {5};
    testing::internal::CaptureStdout();
    EXPECT_EQ(e.engine->doImuRetrimming(), 5);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(e.reader->countCalls("getImuRetrimmingStatus"), 1);
    EXPECT_TRUE(log.has(" ** IMU re-trimming aborted. Not handled error: 5"));
}

TEST(EngineRetrimming, PollWaitsForCompletionOrMotion) {
    {
        LogCapture log;
        EngineOnMemory e(bh::KOVT, 0x305);
        ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
        e.reader->retrim_statuses = {1, 2, 2, 3};
        testing::internal::CaptureStdout();
        EXPECT_EQ(e.engine->doImuRetrimming(), 3);
        testing::internal::GetCapturedStdout();
        EXPECT_EQ(e.reader->countCalls("getImuRetrimmingStatus"), 4);
        EXPECT_TRUE(log.has(" ** IMU re-trimming completed successfully"));
    }
    {
        LogCapture log;
        EngineOnMemory e(bh::KOVT, 0x305);
        ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
        e.reader->retrim_statuses = {0, 4};
        testing::internal::CaptureStdout();
        EXPECT_EQ(e.engine->doImuRetrimming(), 4);
        testing::internal::GetCapturedStdout();
        EXPECT_TRUE(log.has(" ** IMU re-trimming aborted. Camera moved while calibrating?"));
    }
}

TEST(EngineRetrimming, NoReaderGives5) {
    bh::KOVmcu engine(false, 11011, bh::KOV_P, std::unique_ptr<VirtualIMUReader>());
    EXPECT_EQ(engine.doImuRetrimming(), 5);
    EngineOnMemory e(bh::KOV_P, 0x305);
    e.reader->failing_commands.insert("open");
    EXPECT_EQ(e.engine->doImuRetrimming(), 5);
}
