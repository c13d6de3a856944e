// Lifecycle of the sensor engine on an in-memory MCU: open with each firmware
// generation, start and stop, close with the bias write-back.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tests/unit/engine/EngineTestSupport.h"

namespace {

void setGyroRecord(eepromMemoryStrc& e) {
    _extended_gyro_calib_data& g = e.ext_gyro_calib;
    g.scale[0] = 1.01f;
    g.scale[1] = 0.99f;
    g.scale[2] = 1.02f;
    for (int i = 0; i < 6; ++i) {
        g.misalign[i] = 0.001f * static_cast<float>(i + 1);
    }
    g.bias[0] = 0.01f;
    g.bias[1] = -0.02f;
    g.bias[2] = 0.03f;
    g.temp_scale[0] = 0.001f;
    g.temp_scale[1] = 0.002f;
    g.temp_scale[2] = 0.003f;
    _extended_acc_calib_data& a = e.ext_acc_calib;
    a.scale[0] = 1.03f;
    a.scale[1] = 0.98f;
    a.scale[2] = 1.0f;
    a.misalign[0] = 0.004f;
    a.misalign[1] = 0.005f;
    a.misalign[2] = 0.006f;
    a.bias[0] = 0.1f;
    a.bias[1] = 0.2f;
    a.bias[2] = 0.3f;
    a.temp_scale[0] = 0.01f;
    a.temp_scale[1] = 0.02f;
    a.temp_scale[2] = 0.03f;
    e.variance.gyro_var[0] = 1e-4f;
    e.variance.gyro_var[1] = 2e-4f;
    e.variance.gyro_var[2] = 3e-4f;
    e.variance.acc_var[0] = 4e-4f;
    e.variance.acc_var[1] = 5e-4f;
    e.variance.acc_var[2] = 6e-4f;
    e.bias.gyro_bias[0] = 0.004f;
    e.bias.gyro_bias[1] = 0.005f;
    e.bias.gyro_bias[2] = 0.006f;
}

}  // namespace

// ---------------------------------------------------------------- open

TEST(EngineOpen, WithoutReaderFails) {
    bh::KOVmcu engine(false, 11011, bh::KOVT, std::unique_ptr<VirtualIMUReader>());
    EXPECT_EQ(engine.open(123, false, IMU_ODR_400), MCU_STATUS::FAILURE);
    EXPECT_FALSE(engine.startCapture(0.f));
    EXPECT_FALSE(engine.stopCapture());
    EXPECT_EQ(engine.getMCUSerialNumber(), -1);
    EXPECT_EQ(engine.getMCUFirmwareVersion(), -1);
    EXPECT_EQ(engine.getIMUReaderNtpCount(), -1);
    const McuSensorReport report = engine.getIMUReaderData();
    const uint8_t* bytes = reinterpret_cast<const uint8_t*>(&report);
    for (size_t i = 0; i < sizeof(report); ++i) {
        ASSERT_EQ(bytes[i], 0u);
    }
    engine.close();
}

TEST(EngineOpen, GmslModelsHaveNoReaderUntilTheGmslLayerRegistersOne) {
    bh::KOVmcu::setGMSLReaderFactory(nullptr);
    for (bh::MODEL model : {bh::KOV_Q, bh::KOV_QP, bh::KOV_QS_A, bh::KOV_QS_B}) {
        bh::KOVmcu engine(false, 11011, model);
        EXPECT_EQ(engine.imu_reader, nullptr);
        EXPECT_EQ(engine.device, bh::BH_DEVICE_GMSL_IMU);
        EXPECT_EQ(engine.open(0, false, IMU_ODR_400), MCU_STATUS::FAILURE) << model;
    }
    uint16_t seen_pid = 0;
    bh::KOVmcu::setGMSLReaderFactory([&seen_pid](bool, uint16_t, uint16_t pid, bool, const std::string&) {
        seen_pid = pid;
        return std::unique_ptr<VirtualIMUReader>(new MemoryIMUReader(0x305));
    });
    {
        bh::KOVmcu engine(false, 11011, bh::KOV_Q);
        ASSERT_NE(engine.imu_reader, nullptr);
        EXPECT_EQ(seen_pid, 0xA081);
        EXPECT_EQ(engine.open(0, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    }
    bh::KOVmcu::setGMSLReaderFactory(nullptr);
}

TEST(EngineOpen, UsbModelsBuildTheHidReader) {
    bh::KOVmcu engine(false, 11011, bh::KOVT);
    ASSERT_NE(engine.imu_reader, nullptr);
    EXPECT_EQ(engine.imu_reader->product_id, 0xF781);
    EXPECT_EQ(engine.imu_reader->vendor_id, 11011);
    EXPECT_EQ(engine.device, bh::BH_DEVICE_KOVT_MCU);
}

TEST(EngineOpen, AnAlreadyOpenReaderIsNotOpenedAgain) {
    EngineOnMemory e(bh::KOVT, 775);
    setGyroRecord(e.reader->device_eeprom);
    ASSERT_GT(e.reader->open(123456, true, false), 0);
    ASSERT_EQ(e.reader->open_calls, 1);
    EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.reader->open_calls, 1);
    // the calibration still came from the image
    EXPECT_FLOAT_EQ(e.engine->calib.gyro_scale(0, 0), 1.01f);
    EXPECT_FLOAT_EQ(e.engine->calib.gyro_missalign(1, 0), 0.001f);
    EXPECT_FLOAT_EQ(e.engine->calib.gyro_missalign(1, 2), 0.006f);
    EXPECT_FLOAT_EQ(e.engine->calib.acc_missalign(2, 1), 0.006f);
    EXPECT_FLOAT_EQ(e.engine->calib.gyro_bias(2), 0.03f);
    EXPECT_FLOAT_EQ(e.engine->calib.acc_bias(1), 0.2f);
    EXPECT_TRUE(e.engine->calib.T.isApprox(Eigen::Vector3f(23.061f, -0.217f, -2.0f)));
    EXPECT_TRUE(
        e.engine->calib.gyro_full.isApprox(e.engine->calib.gyro_missalign * e.engine->calib.gyro_scale));
}

TEST(EngineOpen, UnprogrammedSerialIsInvalidWithoutForceAndOpensWithForce) {
    {
        EngineOnMemory e(bh::KOVT, 0x305, 99, 123456);
        EXPECT_EQ(e.engine->open(0, false, IMU_ODR_400, nullptr, nullptr, true, false),
                  MCU_STATUS::INVALID_SERIAL);
        EXPECT_EQ(e.reader->open_calls, 2);  // tried once more without recovery
        EXPECT_EQ(e.engine->getMCUSerialNumber(), -1);
    }
    {
        EngineOnMemory e(bh::KOVT, 0x305, 99, 123456);
        EXPECT_EQ(e.engine->open(0, true, IMU_ODR_400, nullptr, nullptr, false, true), MCU_STATUS::SUCCESS);
        EXPECT_EQ(e.reader->open_calls, 1);
        EXPECT_EQ(e.engine->getMCUSerialNumber(), 990123456);
    }
    {
        EngineOnMemory e(bh::KOVT, 0x305, 0, 0);
        EXPECT_EQ(e.engine->open(0, false, IMU_ODR_400), MCU_STATUS::INVALID_SERIAL);
    }
}

TEST(EngineOpen, ReaderOpenFailureAndEepromFailure) {
    {
        EngineOnMemory e(bh::KOVT, 0x305);
        e.reader->failing_commands.insert("open");
        EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::HID_OPEN_FAILED);
    }
    {
        EngineOnMemory e(bh::KOVT, 0x305);
        e.reader->fail_eeprom_read = true;
        EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::EEPROM_FAILURE);
    }
    {
        // serial 0 reads nothing at open, so a broken read does not matter
        EngineOnMemory e(bh::KOVT, 0x305);
        e.reader->fail_eeprom_read = true;
        EXPECT_EQ(e.engine->open(0, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
        EXPECT_EQ(e.reader->countCalls("updateEepromMemory(false)"), 0);
    }
}

TEST(EngineOpen, Firmware0x303AtRate2RunsAt400WithoutRereading) {
    EngineOnMemory e(bh::KOVT, 0x303);
    EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.reader->countCalls("sendWriteImuFreq"), 1);
    EXPECT_EQ(e.reader->countCalls("updateEepromMemory(true)"), 0);
    EXPECT_EQ(e.engine->rate_hz, 400);
    EXPECT_FLOAT_EQ(e.engine->fusion_bias.dt, 1.f / 400.f);
    ASSERT_NE(e.engine->imu_status, nullptr);
    EXPECT_EQ(e.engine->imu_status->delta_minimum, 1250000u);
    EXPECT_EQ(e.engine->imu_status->delta_maximum, 3750000u);
}

TEST(EngineOpen, Firmware0x304TakesTheRateAndRereadsTheImage) {
    EngineOnMemory e(bh::KOVT, 0x304);
    EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_200), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.reader->countCalls("updateEepromMemory(true)"), 1);
    EXPECT_EQ(e.engine->rate_hz, 200);
    EXPECT_EQ(+e.reader->device_eeprom.imu_odr.odr, IMU_ODR_200);
    EXPECT_EQ(+e.engine->eeprom.imu_odr.odr, IMU_ODR_200);
}

TEST(EngineOpen, LegacyFirmwareIsForcedTo800) {
    EngineOnMemory e(bh::KOVT, 0x300);
    EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.engine->rate_hz, 800);
    EXPECT_FLOAT_EQ(e.engine->fusion_bias.dt, 0.00125f);
    // firmware 516 may still be given a rate
    EngineOnMemory f(bh::KOVT, 516);
    EXPECT_EQ(f.engine->open(20123456, false, IMU_ODR_100), MCU_STATUS::SUCCESS);
    EXPECT_EQ(f.engine->rate_hz, 100);
}

TEST(EngineOpen, OldRawFormatScalesVariancesAndBiases) {
    EngineOnMemory e(bh::KOV_P, 0x200);
    e.reader->device_eeprom.variance.acc_var[0] = 2.f;
    e.reader->device_eeprom.variance.gyro_var[2] = 3.f;
    e.reader->device_eeprom.bias.gyro_bias[0] = 10.f;  // counts
    setGyroRecord(e.reader->device_eeprom);
    e.reader->device_eeprom.variance.acc_var[0] = 2.f;
    e.reader->device_eeprom.variance.gyro_var[2] = 3.f;
    e.reader->device_eeprom.bias.gyro_bias[0] = 10.f;
    EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    const bh::IMUCalibParam& c = e.engine->calib;
    EXPECT_TRUE(c.gyro_scale.isIdentity());
    EXPECT_TRUE(c.acc_missalign.isIdentity());
    EXPECT_TRUE(c.gyro_bias.isZero());
    EXPECT_FLOAT_EQ(c.acc_var(0), 2.f * (1.f / 4096.f) / 9.80665f);
    EXPECT_FLOAT_EQ(c.gyro_var(2), 3.f * (1000.f / 32768.f) * 0.017453292f);
    // below 516 the bias seed is scaled from counts
    EXPECT_FLOAT_EQ(e.engine->fusion_bias.bias[0], 10.f * (1000.f / 32768.f) * 0.017453292f);
    EXPECT_TRUE(e.engine->fusion_bias.enabled);
}

TEST(EngineOpen, FeatureFirmwareUpTo774LeavesOutGyroBiasAndTemperatureTerms) {
    EngineOnMemory e(bh::KOVT, 0x305);
    setGyroRecord(e.reader->device_eeprom);
    EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    const bh::IMUCalibParam& c = e.engine->calib;
    EXPECT_TRUE(c.gyro_bias.isZero());
    EXPECT_TRUE(c.gyro_tscale.isZero());
    EXPECT_TRUE(c.acc_tscale.isZero());
    EXPECT_FLOAT_EQ(c.acc_bias(2), 0.3f);  // the accelerometer bias is taken
    EXPECT_FLOAT_EQ(c.gyro_var(1), 2e-4f);

    EngineOnMemory f(bh::KOVT, 775);
    setGyroRecord(f.reader->device_eeprom);
    EXPECT_EQ(f.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_FLOAT_EQ(f.engine->calib.gyro_bias(0), 0.01f);
    EXPECT_FLOAT_EQ(f.engine->calib.gyro_tscale(2), 0.003f);
    EXPECT_FLOAT_EQ(f.engine->calib.acc_tscale(1), 0.02f);

    EngineOnMemory g(bh::KOVT, 0x280);  // 517 to 0x300: all terms
    setGyroRecord(g.reader->device_eeprom);
    EXPECT_EQ(g.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_FLOAT_EQ(g.engine->calib.gyro_bias(1), -0.02f);
    EXPECT_FLOAT_EQ(g.engine->calib.acc_tscale(0), 0.01f);
}

TEST(EngineOpen, RotationVectorOfNorm3141IsLoggedAndZeroed) {
    LogCapture log;
    EngineOnMemory e(bh::KOVT, 0x305);
    e.reader->device_eeprom.cam_imu.rot[0] = 3141.f;
    EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_TRUE(e.engine->calib.R.isZero());
    EXPECT_TRUE(log.has("Eeprom calib is corrupted 0 0 3141", spdlog::level::err));

    LogCapture log2;
    EngineOnMemory f(bh::KOVT, 0x305);
    f.reader->device_eeprom.cam_imu.rot[0] = 3140.f;
    EXPECT_EQ(f.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_FLOAT_EQ(f.engine->calib.R(0), 3140.f);
    EXPECT_FALSE(log2.contains("Eeprom calib is corrupted"));
}

TEST(EngineOpen, ExternalBiasAndVarianceDefineTheCalibration) {
    EngineOnMemory e(bh::KOVT, 0x305);
    setGyroRecord(e.reader->device_eeprom);
    float bias[6] = {0.1f, 0.2f, 0.3f, 0.01f, 0.02f, 0.03f};
    float variance[6] = {1.f, 2.f, 3.f, 4.f, 5.f, 6.f};
    EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_400, bias, variance), MCU_STATUS::SUCCESS);
    const bh::IMUCalibParam& c = e.engine->calib;
    EXPECT_TRUE(c.acc_bias.isApprox(Eigen::Vector3f(0.1f, 0.2f, 0.3f)));
    EXPECT_TRUE(c.gyro_bias.isApprox(Eigen::Vector3f(0.01f, 0.02f, 0.03f)));
    EXPECT_TRUE(c.acc_var.isApprox(Eigen::Vector3f(1.f, 2.f, 3.f)));
    EXPECT_TRUE(c.gyro_var.isApprox(Eigen::Vector3f(4.f, 5.f, 6.f)));
    EXPECT_TRUE(c.gyro_scale.isIdentity());  // the extended record is not used
}

TEST(EngineOpen, BarometerCalibrationComesFromTheRecord) {
    EngineOnMemory e(bh::KOVT, 0x305);
    e.reader->device_eeprom.barom_calib.scale = 1.5f;
    e.reader->device_eeprom.barom_calib.offset = -3.f;
    EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_FLOAT_EQ(e.engine->barometer_scale, 1.5f);
    EXPECT_FLOAT_EQ(e.engine->barometer_offset, -3.f);
}

TEST(EngineOpen, StaticDebugVariableWritesTheCalibrationFile) {
    char dir_template[] = "/tmp/kov_engine_debugXXXXXX";
    const char* dir = mkdtemp(dir_template);
    ASSERT_NE(dir, nullptr);
    char old_dir[4096];
    ASSERT_NE(getcwd(old_dir, sizeof(old_dir)), nullptr);
    ASSERT_EQ(chdir(dir), 0);
    setenv("KOV_SDK_ENABLE_STATIC_IMU_DEBUG", "1", 1);
    {
        EngineOnMemory e(bh::KOVT, 0x305);
        e.reader->device_eeprom.bias.acc_bias[1] = 0.25f;
        e.reader->device_eeprom.ext_gyro_calib.scale[2] = 1.5f;
        testing::internal::CaptureStdout();
        EXPECT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
        const std::string out = testing::internal::GetCapturedStdout();
        EXPECT_NE(out.find("In IMU Debug mode..."), std::string::npos);
        EXPECT_EQ(e.engine->debug_static, 1);
        std::ifstream f("imu_calibration.txt");
        ASSERT_TRUE(f.good());
        std::stringstream text;
        text << f.rdbuf();
        EXPECT_EQ(text.str().rfind("Online Biases\n Acc: [0.000000, 0.250000, 0.000000]\n", 0), 0u);
        EXPECT_NE(text.str().find("Calibrated Scales\n Acc: [1.000000, 1.000000, 1.000000]\nGyro: [1.000000, "
                                  "1.000000, 1.500000]\n\n"),
                  std::string::npos);
    }
    unsetenv("KOV_SDK_ENABLE_STATIC_IMU_DEBUG");
    ASSERT_EQ(chdir(old_dir), 0);
    std::remove((std::string(dir) + "/imu_calibration.txt").c_str());
    std::remove((std::string(dir) + "/gyro_val.txt").c_str());
    rmdir(dir);
}

// ---------------------------------------------------------------- capture

TEST(EngineCapture, StartStreamsAndStopJoins) {
    EngineOnMemory e(bh::KOVT, 0x305);
    e.reader->pace_us = 200;
    e.reader->mag_every = 4;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_800), MCU_STATUS::SUCCESS);
    EXPECT_TRUE(e.engine->startCapture(0.f));
    EXPECT_TRUE(e.engine->running);
    EXPECT_TRUE(e.engine->capture_thread.joinable());
    EXPECT_TRUE(e.engine->stopCapture());
    EXPECT_FALSE(e.engine->running);
    EXPECT_FALSE(e.engine->capture_thread.joinable());
    EXPECT_FALSE(e.reader->streaming);
    const size_t kept = e.engine->imu_queue.size();
    EXPECT_GT(kept, 0u);
    // the queues survive the stop
    EXPECT_EQ(e.engine->imu_queue.size(), kept);
}

TEST(EngineCapture, SecondStartOnlyWaitsAndReturnsTheFirstSampleMark) {
    LogCapture log;
    EngineOnMemory e(bh::KOVT, 0x305);
    e.reader->pace_us = 200;
    e.reader->mag_every = 4;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_800), MCU_STATUS::SUCCESS);
    ASSERT_TRUE(e.engine->startCapture(0.f));
    const std::thread::id first = e.engine->capture_thread.get_id();
    EXPECT_TRUE(e.engine->startCapture(1.f));
    EXPECT_EQ(e.engine->capture_thread.get_id(), first);
    EXPECT_FLOAT_EQ(e.engine->start_yaw, 0.f);
    EXPECT_EQ(e.reader->countCalls("sendStartDataStreamingCommand"), 1);
    EXPECT_TRUE(log.has("IMU reading already started -- call getIMUPose() to get data", spdlog::level::warn));
    e.engine->stopCapture();
}

TEST(EngineCapture, NoSampleWithinTheWaitReturnsFalseAndTheThreadRunsOn) {
    EngineOnMemory e(bh::KOVT, 0x305);
    e.reader->max_samples = 0;
    e.engine->first_sample_wait_rounds = 20;  // 100 ms instead of 5 s
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_800), MCU_STATUS::SUCCESS);
    EXPECT_FALSE(e.engine->startCapture(0.f));
    EXPECT_TRUE(e.engine->running);
    EXPECT_TRUE(e.engine->capture_thread.joinable());
    e.reader->max_samples = -1;
    e.reader->pace_us = 500;
    EXPECT_TRUE(e.engine->startCapture(0.f));  // already running: waits, now sees samples
    e.engine->close();
    EXPECT_FALSE(e.engine->capture_thread.joinable());
}

TEST(EngineCapture, CloseJoinsTheFusionThreadEveryTime) {
    for (int round = 0; round < 10; ++round) {
        EngineOnMemory e(bh::KOVT, 0x305);
        e.reader->pace_us = 100;
        e.reader->mag_every = 2;
        ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_800), MCU_STATUS::SUCCESS);
        ASSERT_TRUE(e.engine->startCapture(0.f));
        e.engine->close();
        EXPECT_FALSE(e.engine->capture_thread.joinable()) << round;
        EXPECT_FALSE(e.engine->running);
        EXPECT_EQ(e.engine->imu_reader, nullptr);
        EXPECT_TRUE(e.observed->destroyed);
        EXPECT_EQ(e.engine->imu_queue.size(), 0u);
        EXPECT_EQ(e.engine->batch_queue.size(), 0u);
        EXPECT_EQ(e.engine->altitude_estimator, nullptr);
    }
    // start and stop cycles on one engine
    EngineOnMemory e(bh::KOVT, 0x305);
    e.reader->pace_us = 100;
    e.reader->mag_every = 2;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_800), MCU_STATUS::SUCCESS);
    for (int round = 0; round < 10; ++round) {
        ASSERT_TRUE(e.engine->startCapture(0.f));
        e.engine->stopCapture();
        EXPECT_FALSE(e.engine->capture_thread.joinable());
    }
    // the destructor closes what is left running
    ASSERT_TRUE(e.engine->startCapture(0.f));
    e.engine.reset();
    EXPECT_TRUE(e.observed->destroyed);
}

TEST(EngineCapture, ResetPositionRestartsTheThread) {
    EngineOnMemory e(bh::KOVT, 0x305);
    e.reader->pace_us = 200;
    e.reader->mag_every = 2;
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_800), MCU_STATUS::SUCCESS);
    ASSERT_TRUE(e.engine->startCapture(0.f));
    e.engine->resetPosition(0.f);
    EXPECT_TRUE(e.engine->running);
    EXPECT_EQ(e.reader->countCalls("sendStartDataStreamingCommand"), 2);
    // the reset is taken by the first estimate of the new thread
    ASSERT_TRUE(e.engine->imu_queue.waitForSize(20, std::chrono::seconds(5)));
    for (int i = 0; i < 500 && e.engine->reset_orientation; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_FALSE(e.engine->reset_orientation);
    e.engine->stopCapture();
}

// ---------------------------------------------------------------- close

TEST(EngineClose, PicoOnlineBiasAboveTheLimitIsWrittenAsZero) {
    EngineOnMemory e(bh::KOV_P, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    e.engine->fusion_bias.bias[0] = 0.3f;
    e.engine->fusion_bias.bias[1] = 0.05f;
    e.engine->fusion_bias.bias[2] = -0.3f;  // a negative value passes
    e.engine->fusion_bias.updated = true;
    e.engine->close();
    ASSERT_TRUE(e.observed->destroyed);
    const _bias_data& b = e.observed->device_eeprom.bias;
    EXPECT_FLOAT_EQ(+b.gyro_bias[0], 0.f);
    EXPECT_FLOAT_EQ(+b.gyro_bias[1], 0.05f);
    EXPECT_FLOAT_EQ(+b.gyro_bias[2], -0.3f);
    EXPECT_FLOAT_EQ(+b.acc_bias[0], 0.f);
    EXPECT_EQ(countOf(e.observed->calls, "sendWriteBiasCommand"), 1);
}

TEST(EngineClose, OldPicoFirmwareWritesCounts) {
    EngineOnMemory e(bh::KOV_P, 0x200);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    const float k = (1000.f / 32768.f) * 0.017453292f;
    e.engine->fusion_bias.bias[0] = 0.1f * k;   // 0.1 count
    e.engine->fusion_bias.bias[1] = 0.3f * k;   // 0.3 count: not below 0.2
    e.engine->fusion_bias.bias[2] = -0.5f * k;  // negative passes
    e.engine->fusion_bias.updated = true;
    e.engine->close();
    const _bias_data& b = e.observed->device_eeprom.bias;
    EXPECT_NEAR(+b.gyro_bias[0], 0.1f, 1e-5f);
    EXPECT_FLOAT_EQ(+b.gyro_bias[1], 0.f);
    EXPECT_NEAR(+b.gyro_bias[2], -0.5f, 1e-5f);
}

TEST(EngineClose, NothingIsWrittenWithoutAnEstimateOrForOtherDevices) {
    {
        EngineOnMemory e(bh::KOVT, 0x305);
        ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
        e.engine->close();
        EXPECT_EQ(countOf(e.observed->calls, "sendWriteBiasCommand"), 0);
    }
    {
        EngineOnMemory e(bh::KOV, 0x305);  // no MCU: BH_DEVICE_NONE
        ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
        e.engine->fusion_bias.bias[0] = 0.01f;
        e.engine->fusion_bias.updated = true;
        e.engine->close();
        EXPECT_EQ(countOf(e.observed->calls, "sendWriteBiasCommand"), 0);
    }
}

TEST(EngineGetters, ReaderValuesPassThrough) {
    EngineOnMemory e(bh::KOVT, 0x305);
    ASSERT_EQ(e.engine->open(20123456, false, IMU_ODR_400), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.engine->getMCUSerialNumber(), 20123456);
    EXPECT_EQ(e.engine->getMCUFirmwareVersion(), 0x305);
    std::string date;
    EXPECT_TRUE(e.engine->getMCUDataSavingTime(date));
    EXPECT_EQ(date, "2026/01/01 00:00:00 UTC");
    e.reader->fillSample(0);
    EXPECT_TRUE(e.engine->hasMCUSyncCapabilities());
    short x = 0, y = 0, z = 0;
    e.reader->has_new_data = 1;
    EXPECT_TRUE(e.engine->getAccelRawData(&x, &y, &z));
    EXPECT_EQ(x, -4096);
    EXPECT_EQ(y, 0);
    e.engine->setIMUReaderTSOffset(1234);
    EXPECT_EQ(e.reader->ts_offset, 1234);
    EXPECT_EQ(e.reader->ts_offset_pending, 1);
    EXPECT_EQ(e.engine->getIMUReaderNtpCount(), 0);
    const Eigen::Matrix4f t = e.engine->getIMUCameraTransform();
    EXPECT_FLOAT_EQ(t(3, 3), 1.f);
}
