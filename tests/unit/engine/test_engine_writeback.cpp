// EEPROM write-back on an in-memory MCU: each write read back from the image,
// the stream and thread handling, the format by firmware generation.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/unit/engine/EngineTestSupport.h"

namespace {

struct OpenEngine : EngineOnMemory {
    explicit OpenEngine(int firmware = 0x305, int prefix = 2)
        : EngineOnMemory(bh::KOVT, firmware, prefix, 123456) {
        reader->pace_us = 100;
        reader->mag_every = 2;
        opened = engine->open(static_cast<unsigned>(prefix) * 10000000u + 123456u, false, IMU_ODR_400);
    }
    MCU_STATUS opened;
};

eepromMemoryStrc readBack(bh::KOVmcu& engine) {
    eepromMemoryStrc image;
    std::memset(&image, 0, sizeof(image));
    EXPECT_EQ(engine.readFullEEprom(image), MCU_STATUS::SUCCESS);
    return image;
}

}  // namespace

TEST(EngineWriteBack, BiasRoundTripRestartsTheStream) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    ASSERT_TRUE(e.engine->startCapture(0.f));
    std::vector<float> values = {0.01f, -0.02f, 0.03f, 0.1f, 0.2f, -0.3f};
    EXPECT_EQ(e.engine->writeBiasinEEprom(values, false), MCU_STATUS::SUCCESS);
    EXPECT_FALSE(e.engine->running);                               // the capture stays stopped
    EXPECT_TRUE(e.reader->streaming);                              // the stream was on: it is on again
    EXPECT_FLOAT_EQ(+e.reader->eeprom.bias.gyro_bias[1], -0.02f);  // re-read
    EXPECT_FLOAT_EQ(+e.engine->eeprom.bias.acc_bias[2], -0.3f);
    const eepromMemoryStrc image = readBack(*e.engine);
    EXPECT_EQ(+image.bias.id, 0x34);
    EXPECT_FLOAT_EQ(+image.bias.gyro_bias[0], 0.01f);
    EXPECT_FLOAT_EQ(+image.bias.acc_bias[1], 0.2f);
}

TEST(EngineWriteBack, KeepStoppedSkipsTheReread) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    e.reader->clearCalls();
    std::vector<float> values = {1e-4f, 2e-4f, 3e-4f, 4e-4f, 5e-4f, 6e-4f};
    EXPECT_EQ(e.engine->writeVarianceinEEprom(values, true), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.reader->countCalls("updateEepromMemory(false)"), 0);
    EXPECT_FLOAT_EQ(+e.reader->eeprom.variance.gyro_var[0], 0.f);  // mirror still old
    const eepromMemoryStrc image = readBack(*e.engine);
    EXPECT_FLOAT_EQ(+image.variance.gyro_var[0], 1e-4f);
    EXPECT_FLOAT_EQ(+image.variance.acc_var[2], 6e-4f);
}

TEST(EngineWriteBack, VarianceRecordIsRepacked) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    variance_data v{0x35, {1.f, 2.f, 3.f}, {4.f, 5.f, 6.f}};
    EXPECT_EQ(e.engine->writeVarianceinEEprom(v, false), MCU_STATUS::SUCCESS);
    EXPECT_FLOAT_EQ(+e.reader->eeprom.variance.gyro_var[2], 3.f);
    EXPECT_FLOAT_EQ(+e.reader->eeprom.variance.acc_var[0], 4.f);
}

TEST(EngineWriteBack, SerialKlibBarometerMagAndExtendedRecords) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.engine->writeSNinEEprom(3, 654321), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.engine->writeKlibinEEprom(0.01f, 0.02f, 0.03f, false), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.engine->writeBarometerCalibInEEprom(1.25f, -4.f), MCU_STATUS::SUCCESS);
    _mag_calib_data mag{0x43, {1.f, 1.1f, 1.2f}, {-1.f, -2.f, -3.f}};
    EXPECT_EQ(e.engine->writeMagCalibInEEprom(mag), MCU_STATUS::SUCCESS);
    _extended_gyro_calib_data gyro;
    std::memset(&gyro, 0, sizeof(gyro));
    gyro.scale[0] = gyro.scale[1] = gyro.scale[2] = 1.01f;
    gyro.misalign[5] = 0.003f;
    EXPECT_EQ(e.engine->writeExtendedGyroCalibInEEprom(gyro, false), MCU_STATUS::SUCCESS);
    _extended_acc_calib_data acc;
    std::memset(&acc, 0, sizeof(acc));
    acc.scale[0] = acc.scale[1] = acc.scale[2] = 0.99f;
    acc.bias[2] = 0.05f;
    EXPECT_EQ(e.engine->writeExtendedAccCalibInEEprom(acc, false), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.engine->writeImuFrequencyinEEprom(IMU_ODR_800), MCU_STATUS::SUCCESS);

    const eepromMemoryStrc image = readBack(*e.engine);
    EXPECT_EQ(+image.serial.serial_prefix, 3);
    EXPECT_EQ(+image.serial.serial_body, 654321);
    EXPECT_FLOAT_EQ(+image.cam_imu.rot[2], 0.03f);
    EXPECT_FLOAT_EQ(+image.barom_calib.scale, 1.25f);
    EXPECT_FLOAT_EQ(+image.barom_calib.offset, -4.f);
    EXPECT_FLOAT_EQ(+image.mag_calib.offset[1], -2.f);
    EXPECT_FLOAT_EQ(+image.ext_gyro_calib.misalign[5], 0.003f);
    EXPECT_FLOAT_EQ(+image.ext_acc_calib.bias[2], 0.05f);
    EXPECT_EQ(+image.imu_odr.odr, IMU_ODR_800);
    EXPECT_EQ(e.engine->getMCUSerialNumber(), 30654321);
}

TEST(EngineWriteBack, MonoAndStereoRereadTheCameraRecords) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    e.reader->clearCalls();
    calib_mono_data mono;
    std::memset(&mono, 0, sizeof(mono));
    mono.values[0] = 700.f;
    mono.values[11] = -1.f;
    EXPECT_EQ(e.engine->writeMonoCalibinEEprom(3, 1, mono), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.reader->countCalls("updateEepromMemory(true)"), 1);
    EXPECT_EQ(+e.reader->eeprom.calib_mono[7].id, 0x3E);
    EXPECT_FLOAT_EQ(+e.reader->eeprom.calib_mono[7].values[11], -1.f);
    _calib_stereo_data stereo;
    std::memset(&stereo, 0, sizeof(stereo));
    stereo.params[0] = 120.f;
    stereo.block3[3] = 0.5f;
    EXPECT_EQ(e.engine->writeStereoCalibinEEprom(stereo), MCU_STATUS::SUCCESS);
    EXPECT_FLOAT_EQ(+e.reader->eeprom.calib_stereo.block3[3], 0.5f);
    EXPECT_EQ(e.engine->writeMonoCalibinEEprom(4, 0, mono), MCU_STATUS::FAILURE);  // no such record
    EXPECT_EQ(e.engine->writeStereoCalibinEEprom(1.f, 2.f, 3.f, nullptr, nullptr, nullptr),
              MCU_STATUS::FAILURE);
}

TEST(EngineWriteBack, ChecksComeFirst) {
    LogCapture log;
    bh::KOVmcu engine(false, 11011, bh::KOVT, std::unique_ptr<VirtualIMUReader>());
    std::vector<float> values(6, 0.f);
    EXPECT_EQ(engine.writeBiasinEEprom(values, false), MCU_STATUS::FAILURE);
    EXPECT_TRUE(log.has("MCU_STATUS::FAILURE", spdlog::level::info));
    EngineOnMemory e(bh::KOVT, 0x305);
    EXPECT_EQ(e.engine->writeBiasinEEprom(values, false), MCU_STATUS::NOT_OPEN);
    EXPECT_TRUE(log.has("MCU_STATUS::NOT_OPEN", spdlog::level::info));
    eepromMemoryStrc image;
    EXPECT_EQ(e.engine->readFullEEprom(image), MCU_STATUS::NOT_OPEN);
    EXPECT_EQ(e.engine->formatFullEEprom(2, 1), MCU_STATUS::NOT_OPEN);
    EXPECT_EQ(e.engine->switchToDFU(), MCU_STATUS::NOT_OPEN);
    EXPECT_EQ(engine.resetHW(), MCU_STATUS::FAILURE);
    std::vector<float> short_values(3, 0.f);
    OpenEngine o;
    EXPECT_EQ(o.engine->writeBiasinEEprom(short_values, false), MCU_STATUS::FAILURE);
}

TEST(EngineWriteBack, AFailedStopOfTheStreamLeavesTheCaptureThreadRunning) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    ASSERT_TRUE(e.engine->startCapture(0.f));
    e.reader->fail_stop_stream = true;
    std::vector<float> values(6, 0.f);
    EXPECT_EQ(e.engine->writeBiasinEEprom(values, false), MCU_STATUS::FAILURE);
    EXPECT_TRUE(e.engine->running);
    EXPECT_TRUE(e.engine->capture_thread.joinable());
    const uint64_t before = e.reader->produced;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GT(e.reader->produced.load(), before);  // still fusing
    EXPECT_EQ(e.reader->countCalls("sendWriteBiasCommand"), 0);
    e.reader->fail_stop_stream = false;
    e.engine->stopCapture();
}

TEST(EngineWriteBack, AFailedRecordWriteLeavesTheStreamStoppedAndTheImageOld) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    ASSERT_TRUE(e.engine->startCapture(0.f));
    e.reader->failing_commands.insert("sendWriteKlibCommand");
    e.reader->clearCalls();
    EXPECT_EQ(e.engine->writeKlibinEEprom(1.f, 2.f, 3.f, false), MCU_STATUS::FAILURE);
    EXPECT_FALSE(e.reader->streaming);
    EXPECT_FALSE(e.engine->running);
    EXPECT_EQ(e.reader->countCalls("updateEepromMemory(false)"), 0);
}

TEST(EngineWriteBack, FrequencyWriteDoesNotStopTheCapture) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    ASSERT_TRUE(e.engine->startCapture(0.f));
    e.reader->fail_stop_stream = false;
    // the stream is stopped around the write, the fusion thread is not joined
    EXPECT_EQ(e.engine->writeImuFrequencyinEEprom(IMU_ODR_200), MCU_STATUS::SUCCESS);
    EXPECT_TRUE(e.engine->running);
    EXPECT_TRUE(e.engine->capture_thread.joinable());
    e.engine->stopCapture();
}

TEST(EngineWriteBack, FullCalibrationRoundTrip) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    std::vector<std::pair<calib_mono_data, calib_mono_data>> pairs(4);
    for (int r = 0; r < 4; ++r) {
        std::memset(&pairs[r].first, 0, sizeof(calib_mono_data));
        std::memset(&pairs[r].second, 0, sizeof(calib_mono_data));
        pairs[r].first.values[0] = 100.f * r + 1.f;
        pairs[r].second.values[0] = 100.f * r + 2.f;
    }
    _calib_stereo_data stereo;
    std::memset(&stereo, 0, sizeof(stereo));
    stereo.params[0] = 119.9f;
    _extended_acc_calib_data acc;
    std::memset(&acc, 0, sizeof(acc));
    acc.scale[0] = acc.scale[1] = acc.scale[2] = 1.f;
    acc.misalign[2] = 0.002f;
    _extended_gyro_calib_data gyro;
    std::memset(&gyro, 0, sizeof(gyro));
    gyro.scale[0] = gyro.scale[1] = gyro.scale[2] = 1.f;
    gyro.temp_scale[1] = 0.004f;
    _mag_calib_data mag{0x43, {2.f, 2.f, 2.f}, {0.f, 0.f, 1.f}};
    variance_data variance{0x35, {1e-5f, 1e-5f, 1e-5f}, {2e-5f, 2e-5f, 2e-5f}};
    _bias_data bias{0x34, {0.001f, 0.002f, 0.003f}, {0.01f, 0.02f, 0.03f}};
    e.reader->device_eeprom.barom_calib.scale = 3.f;
    EXPECT_EQ(e.engine->writeFullCalibinEEprom(pairs, stereo, acc, gyro, mag, variance, bias),
              MCU_STATUS::SUCCESS);
    const eepromMemoryStrc image = readBack(*e.engine);
    for (int r = 0; r < 4; ++r) {
        EXPECT_FLOAT_EQ(+image.calib_mono[2 * r].values[0], 100.f * r + 1.f);
        EXPECT_FLOAT_EQ(+image.calib_mono[2 * r + 1].values[0], 100.f * r + 2.f);
    }
    EXPECT_FLOAT_EQ(+image.calib_stereo.params[0], 119.9f);
    EXPECT_FLOAT_EQ(+image.barom_calib.scale, 1.f);
    EXPECT_FLOAT_EQ(+image.barom_calib.offset, 0.f);
    EXPECT_FLOAT_EQ(+image.ext_acc_calib.misalign[2], 0.002f);
    EXPECT_FLOAT_EQ(+image.ext_gyro_calib.temp_scale[1], 0.004f);
    EXPECT_FLOAT_EQ(+image.mag_calib.offset[2], 1.f);
    EXPECT_FLOAT_EQ(+image.variance.acc_var[0], 2e-5f);
    EXPECT_FLOAT_EQ(+image.bias.gyro_bias[2], 0.003f);
    // the order of the steps
    const std::vector<std::string> calls = e.reader->calls();
    std::vector<std::string> writes;
    for (const auto& c : calls) {
        if (c.rfind("sendWrite", 0) == 0) {
            writes.push_back(c);
        }
    }
    const std::vector<std::string> expected_tail = {
        "sendWriteCalibStereoCommand", "sendWriteMagCalibCommand",     "sendWriteBaromCalibCommand",
        "sendWriteExtAccCalibCommand", "sendWriteExtGyroCalibCommand", "sendWriteVarianceCommand",
        "sendWriteBiasCommand"};
    ASSERT_GE(writes.size(), expected_tail.size() + 8);
    EXPECT_EQ(std::vector<std::string>(writes.end() - 7, writes.end()), expected_tail);
}

TEST(EngineWriteBack, FullCalibrationStopsAtTheFirstFailure) {
    LogCapture log;
    OpenEngine e(0x304);  // no magnetometer record below 0x305
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    std::vector<std::pair<calib_mono_data, calib_mono_data>> pairs;
    _calib_stereo_data stereo{};
    _extended_acc_calib_data acc{};
    _extended_gyro_calib_data gyro{};
    _mag_calib_data mag{};
    variance_data variance{};
    _bias_data bias{};
    e.reader->clearCalls();
    EXPECT_EQ(e.engine->writeFullCalibinEEprom(pairs, stereo, acc, gyro, mag, variance, bias),
              MCU_STATUS::FAILURE);
    EXPECT_EQ(e.reader->countCalls("sendWriteBaromCalibCommand"), 0);
    EXPECT_TRUE(log.has("MCU_STATUS::FAILURE"));

    LogCapture log2;
    OpenEngine f;
    ASSERT_EQ(f.opened, MCU_STATUS::SUCCESS);
    f.reader->fail_eeprom_read = true;
    EXPECT_EQ(f.engine->writeFullCalibinEEprom(pairs, stereo, acc, gyro, mag, variance, bias),
              MCU_STATUS::FAILURE);
    EXPECT_TRUE(log2.has("KOVmcu::writeFullCalibinEEprom: can not update Eeprom Memory", spdlog::level::err));
}

TEST(EngineWriteBack, FormatWritesFactoryDefaults) {
    OpenEngine e(0x305);
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    e.reader->device_eeprom.bias.gyro_bias[0] = 0.1f;
    e.reader->clearCalls();
    EXPECT_EQ(e.engine->formatFullEEprom(2, 777), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.reader->countCalls("sendEraseCommandwithSN"), 0);  // 0x301 and above: no erase
    const eepromMemoryStrc image = readBack(*e.engine);
    EXPECT_EQ(+image.serial.serial_prefix, 2);
    EXPECT_EQ(+image.serial.serial_body, 777);
    EXPECT_FLOAT_EQ(+image.bias.gyro_bias[0], 0.f);
    EXPECT_FLOAT_EQ(+image.calib_stereo.params[0], 120.f);
    const float expected[4][4] = {
        {1400, 1400, 1104, 621}, {1400, 1400, 960, 540}, {700, 700, 640, 360}, {350, 350, 336, 188}};
    for (int r = 0; r < 4; ++r) {
        for (int side = 0; side < 2; ++side) {
            for (int i = 0; i < 4; ++i) {
                EXPECT_FLOAT_EQ(+image.calib_mono[2 * r + side].values[i], expected[r][i]);
            }
            EXPECT_FLOAT_EQ(+image.calib_mono[2 * r + side].values[4], 0.f);
        }
    }
    EXPECT_FLOAT_EQ(+image.barom_calib.scale, 1.f);
    EXPECT_FLOAT_EQ(+image.ext_acc_calib.scale[1], 1.f);
    EXPECT_FLOAT_EQ(+image.ext_gyro_calib.scale[2], 1.f);
    EXPECT_FLOAT_EQ(+image.ext_gyro_calib.bias[0], 0.f);
}

TEST(EngineWriteBack, FormatPrefixMaskGivesTheStereoValue) {
    for (int prefix : {0, 1, 2, 3}) {
        OpenEngine e(0x305);
        ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
        EXPECT_EQ(e.engine->formatFullEEprom(prefix, 5), MCU_STATUS::SUCCESS);
        const float expected = (prefix == 0 || prefix == 2) ? 120.f : 60.f;
        EXPECT_FLOAT_EQ(+e.reader->eeprom.calib_stereo.params[0], expected) << prefix;
    }
}

TEST(EngineWriteBack, FormatOnLegacyFirmwareErasesFirst) {
    OpenEngine e(0x300);
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    e.reader->clearCalls();
    // legacy firmware has no barometer record: the format counts that failure
    EXPECT_EQ(e.engine->formatFullEEprom(2, 42), MCU_STATUS::FAILURE);
    const std::vector<std::string> calls = e.reader->calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(countOf(calls, "sendEraseCommandwithSN"), 1);
    EXPECT_EQ(countOf(calls, "sendWriteSNCommand"), 1);
    EXPECT_EQ(countOf(calls, "sendWriteCalibMonoCommand"), 8);
    EXPECT_EQ(+e.reader->eeprom.serial.serial_body, 42);

    OpenEngine old(0x201);  // below 514: four records only
    ASSERT_EQ(old.opened, MCU_STATUS::SUCCESS);
    old.reader->clearCalls();
    EXPECT_EQ(old.engine->formatFullEEprom(2, 43), MCU_STATUS::SUCCESS);
    EXPECT_EQ(old.reader->countCalls("sendEraseCommandwithSN"), 0);
    EXPECT_EQ(old.reader->countCalls("sendWriteCalibMonoCommand"), 0);
    EXPECT_EQ(old.reader->countCalls("sendWriteKlibCommand"), 1);
    EXPECT_EQ(+old.reader->eeprom.serial.serial_body, 43);
}

TEST(EngineWriteBack, ReadFullEepromLeavesTheCaptureStopped) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    ASSERT_TRUE(e.engine->startCapture(0.f));
    eepromMemoryStrc image;
    EXPECT_EQ(e.engine->readFullEEprom(image), MCU_STATUS::SUCCESS);
    EXPECT_FALSE(e.engine->running);
    EXPECT_FALSE(e.engine->capture_thread.joinable());
    EXPECT_FALSE(e.reader->streaming);
    EXPECT_EQ(+image.serial.serial_body, 123456);
    e.reader->fail_eeprom_read = true;
    EXPECT_EQ(e.engine->readFullEEprom(image), MCU_STATUS::FAILURE);
}

TEST(EngineWriteBack, DfuAndResets) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    e.reader->dfu_result = false;  // a device that took the report and dropped off
    EXPECT_EQ(e.engine->switchToDFU(), MCU_STATUS::FAILURE);
    e.reader->dfu_result = true;
    EXPECT_EQ(e.engine->switchToDFU(), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.engine->resetHW(), MCU_STATUS::SUCCESS);  // whatever the command answered
    EXPECT_EQ(e.engine->resetOV580(), MCU_STATUS::SUCCESS);
    EXPECT_EQ(e.reader->countCalls("sendMcuResetCommand"), 1);
    EXPECT_EQ(e.reader->countCalls("sendOV580ResetCommand"), 1);
}

TEST(EngineWriteBack, ExportCalibTurnsTheMatricesIntoTheImageFrame) {
    OpenEngine e;
    ASSERT_EQ(e.opened, MCU_STATUS::SUCCESS);
    e.engine->calib.acc_scale = Eigen::Vector3f(1.1f, 1.2f, 1.3f).asDiagonal();
    e.engine->calib.gyro_missalign(1, 0) = 0.01f;
    e.engine->calib.gyro_bias = Eigen::Vector3f(0.01f, 0.f, 0.f);
    e.engine->calib.setup();
    const bh::IMUCalibExport out = e.engine->exportCalib();
    // reader x and y swap, z flips sign: the diagonal swaps its first two entries
    EXPECT_FLOAT_EQ(out.acc_scale(0, 0), 1.2f);
    EXPECT_FLOAT_EQ(out.acc_scale(1, 1), 1.1f);
    EXPECT_FLOAT_EQ(out.acc_scale(2, 2), 1.3f);
    EXPECT_FLOAT_EQ(out.gyro_missalign(0, 1), 0.01f);
    EXPECT_FLOAT_EQ(out.gyro_bias(1), 0.01f * 57.295776f);
}
