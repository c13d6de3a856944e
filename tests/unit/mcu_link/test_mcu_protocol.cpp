// The HID report protocol of the reader, both generations, against the
// simulated MCU: commands, gates, conversions, and the listed edge cases.
#include <gtest/gtest.h>

#include <cctype>
#include <cmath>

#include "McuTestSupport.h"

using namespace mcutest;

namespace {

struct Opened {
    SimMachine sim;
    std::shared_ptr<sim::VirtualMcu> mcu;
    std::unique_ptr<IMUHidReader> reader;
    explicit Opened(sim::McuConfig c) {
        mcu = sim.add(c);
        sim.install();
        reader = std::make_unique<IMUHidReader>(false, VENDOR, c.productId);
    }
    int open() { return reader->open(0, true, false); }
};

}  // namespace

TEST(McuProtocolFeature, OpensAndReportsSerialAndFirmware) {
    Opened o(config(12345678, 0x305));
    EXPECT_EQ(o.open(), 12345678);
    EXPECT_EQ(val(o.reader->firmware_version), 0x305);
    EXPECT_EQ(o.reader->is_open, 1);
    EXPECT_EQ(o.reader->is_lost, 0);
    EXPECT_FALSE(o.reader->isLegacy());
}

TEST(McuProtocolFeature, StreamStartStopAndState) {
    Opened o(config());
    ASSERT_GT(o.open(), 0);
    EXPECT_FALSE(o.reader->isDataStreamEnabled());
    EXPECT_TRUE(o.reader->sendStartDataStreamingCommand());
    EXPECT_TRUE(o.mcu->streaming());
    EXPECT_TRUE(o.reader->isDataStreamEnabled());
    EXPECT_TRUE(o.reader->sendStopDataStreamingCommand());
    EXPECT_FALSE(o.mcu->streaming());
    EXPECT_FALSE(o.reader->isDataStreamEnabled());
    EXPECT_TRUE(o.reader->sendPing());
    EXPECT_EQ(val(o.mcu->counters().pings), 1);
    EXPECT_TRUE(o.reader->sendOV580ResetCommand());
    EXPECT_EQ(val(o.mcu->counters().ov580Resets), 1);
}

TEST(McuProtocolFeature, ResetOnHealthyDeviceReturnsFalseAndTheMcuComesBack) {
    Opened o(config());
    ASSERT_GT(o.open(), 0);
    EXPECT_FALSE(o.reader->sendMcuResetCommand());
    EXPECT_EQ(val(o.mcu->counters().mcuResets), 1);
    EXPECT_FALSE(o.mcu->present());
    o.sim.clock->advance(400000000);  // beyond the 300 ms drop-out
    EXPECT_TRUE(o.mcu->present());
}

TEST(McuProtocolFeature, ResetWhoseWriteFailsReturnsTrue) {
    auto c = config();
    c.resetWriteFails = true;
    Opened o(c);
    ASSERT_GT(o.open(), 0);
    EXPECT_TRUE(o.reader->sendMcuResetCommand());
    EXPECT_TRUE(o.mcu->present());
}

TEST(McuProtocolFeature, WritesOfCalibrationRecordsStampTheDateSerialDoesNot) {
    Opened o(config());
    ASSERT_GT(o.open(), 0);
    EXPECT_TRUE(o.reader->sendWriteSNCommand(1, 2345678));
    EXPECT_EQ(val(o.mcu->eeprom().serial.serial_body), 2345678);
    EXPECT_EQ(val(o.mcu->eeprom().date_time.valid), 0);

    EXPECT_TRUE(o.reader->sendWriteBiasCommand(0.01f, 0.02f, 0.03f, 0.1f, 0.2f, 0.3f));
    eepromMemoryStrc e = o.mcu->eeprom();
    EXPECT_FLOAT_EQ(e.bias.gyro_bias[1], 0.02f);
    EXPECT_FLOAT_EQ(e.bias.acc_bias[2], 0.3f);
    EXPECT_EQ(val(e.date_time.valid), 1);
    const std::string text(e.date_time.text, strnlen(e.date_time.text, sizeof(e.date_time.text)));
    // "%Y/%m/%d %H:%M:%S UTC"
    const std::string shape = "dddd/dd/dd dd:dd:dd UTC";
    ASSERT_EQ(text.size(), shape.size()) << text;
    for (size_t i = 0; i < shape.size(); ++i) {
        if (shape[i] == 'd') {
            EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(text[i]))) << text;
        } else {
            EXPECT_EQ(val(text[i]), val(shape[i])) << text;
        }
    }

    std::string saved;
    EXPECT_TRUE(o.reader->getDataSavingTime(saved));
    EXPECT_EQ(saved, text);
}

TEST(McuProtocolFeature, EveryRecordWriteLandsInTheImage) {
    Opened o(config());
    ASSERT_GT(o.open(), 0);
    EXPECT_TRUE(o.reader->sendWriteVarianceCommand(1e-3f, 2e-3f, 3e-3f, 4e-3f, 5e-3f, 6e-3f));
    EXPECT_TRUE(o.reader->sendWriteKlibCommand(0.1f, 0.2f, 0.3f));
    EXPECT_TRUE(o.reader->sendWriteBaromCalibCommand(1.5f, -2.5f));
    _extended_gyro_calib_data g{};
    g.scale[0] = 1.2f;
    EXPECT_TRUE(o.reader->sendWriteExtGyroCalibCommand(g));
    _extended_acc_calib_data a{};
    a.bias[2] = 0.7f;
    EXPECT_TRUE(o.reader->sendWriteExtAccCalibCommand(a));
    _mag_calib_data m{};
    m.offset[1] = 42.f;
    EXPECT_TRUE(o.reader->sendWriteMagCalibCommand(m));
    calib_mono_data mono{};
    mono.values[11] = 7.f;
    EXPECT_TRUE(o.reader->sendWriteCalibMonoCommand(3, 1, mono));
    float b1[4] = {1, 2, 3, 4}, b2[4] = {5, 6, 7, 8}, b3[4] = {9, 10, 11, 12};
    EXPECT_TRUE(o.reader->sendWriteCalibStereoCommand(0.5f, 0.6f, 0.7f, b1, b2, b3));
    EXPECT_TRUE(o.reader->sendWriteImuFreq(IMU_ODR_800));

    eepromMemoryStrc e = o.mcu->eeprom();
    EXPECT_FLOAT_EQ(e.variance.acc_var[2], 6e-3f);
    EXPECT_FLOAT_EQ(e.cam_imu.rot[1], 0.2f);
    EXPECT_FLOAT_EQ(e.barom_calib.scale, 1.5f);  // written (scale, offset), stored offset first
    EXPECT_FLOAT_EQ(e.barom_calib.offset, -2.5f);
    EXPECT_EQ(val(e.ext_gyro_calib.id), 0x41);
    EXPECT_FLOAT_EQ(e.ext_gyro_calib.scale[0], 1.2f);
    EXPECT_FLOAT_EQ(e.ext_acc_calib.bias[2], 0.7f);
    EXPECT_FLOAT_EQ(e.mag_calib.offset[1], 42.f);
    EXPECT_EQ(val(e.calib_mono[7].id), 0x3E);
    EXPECT_FLOAT_EQ(e.calib_mono[7].values[11], 7.f);
    EXPECT_FLOAT_EQ(e.calib_stereo.params[2], 0.7f);
    EXPECT_FLOAT_EQ(e.calib_stereo.block3[3], 12.f);
    EXPECT_EQ(val(e.imu_odr.odr), 3);
    EXPECT_EQ(o.mcu->rateHz(), 800);

    // Read back into the reader's image.
    std::memset(&o.reader->eeprom, 0, sizeof(o.reader->eeprom));
    EXPECT_TRUE(o.reader->sendReadSNCommand());
    EXPECT_TRUE(o.reader->sendReadBiasCommand());
    EXPECT_TRUE(o.reader->sendReadVarianceCommand());
    EXPECT_TRUE(o.reader->sendReadKlibCommand());
    EXPECT_TRUE(o.reader->sendReadCalibMonoCommand(3, 1));
    EXPECT_TRUE(o.reader->sendReadCalibStereoCommand());
    EXPECT_TRUE(o.reader->sendReadImuFreq());
    EXPECT_EQ(val(o.reader->eeprom.serial.serial_body), val(e.serial.serial_body));
    EXPECT_FLOAT_EQ(o.reader->eeprom.variance.acc_var[2], 6e-3f);
    EXPECT_FLOAT_EQ(o.reader->eeprom.calib_mono[7].values[11], 7.f);
    EXPECT_FLOAT_EQ(o.reader->eeprom.calib_stereo.block1[0], 1.f);
    EXPECT_EQ(val(o.reader->eeprom.imu_odr.odr), 3);
}

TEST(McuProtocolFeature, BaromReadPutsItsIdIntoTheVarianceRecord) {
    Opened o(config());
    ASSERT_GT(o.open(), 0);
    o.reader->eeprom.variance.id = mcu_id::VARIANCE;
    o.reader->eeprom.barom_calib.id = mcu_id::BAROM;
    // The device answers 9 bytes where 25 are asked for: the read fails, and
    // the variance record's first byte now holds 0x40.
    EXPECT_FALSE(o.reader->sendReadBaromCalibCommand());
    EXPECT_EQ(val(o.reader->eeprom.variance.id), 0x40);
}

TEST(McuProtocolFeature, RateRecordGatedAt0x304MagAt0x305) {
    {
        Opened o(config(12345678, 0x303));
        ASSERT_GT(o.open(), 0);
        EXPECT_FALSE(o.reader->sendWriteImuFreq(IMU_ODR_400));
        EXPECT_FALSE(o.reader->sendReadImuFreq());
        _mag_calib_data m{};
        EXPECT_FALSE(o.reader->sendWriteMagCalibCommand(m));
        EXPECT_EQ(val(o.mcu->counters().featureWrites), 0);
    }
    {
        Opened o(config(12345678, 0x304));
        ASSERT_GT(o.open(), 0);
        EXPECT_TRUE(o.reader->sendWriteImuFreq(IMU_ODR_200));
        _mag_calib_data m{};
        EXPECT_FALSE(o.reader->sendWriteMagCalibCommand(m));
    }
}

TEST(McuProtocolFeature, RetrimmingStatusIs5OnPicoWithPrefix1WithoutTraffic) {
    auto c = config(12345678);  // prefix 1
    Opened o(c);
    ASSERT_GT(o.open(), 0);
    ASSERT_TRUE(o.reader->sendReadSNCommand());
    ASSERT_EQ(val(o.reader->eeprom.serial.serial_prefix), 1);
    const auto before = o.mcu->counters();
    EXPECT_EQ(o.reader->getImuRetrimmingStatus(), BMI270_CRT_ERROR);
    EXPECT_FALSE(o.reader->startImuRetrimming());
    const auto after = o.mcu->counters();
    EXPECT_EQ(val(after.featureReads), val(before.featureReads));
    EXPECT_EQ(val(after.featureWrites), val(before.featureWrites));
}

TEST(McuProtocolFeature, RetrimmingRunsAndCompletes) {
    Opened o(config(22345678));  // prefix 2
    ASSERT_GT(o.open(), 0);
    ASSERT_TRUE(o.reader->sendReadSNCommand());
    ASSERT_TRUE(o.reader->sendStartDataStreamingCommand());
    EXPECT_TRUE(o.reader->startImuRetrimming());
    EXPECT_FALSE(o.mcu->streaming());  // stopped first
    EXPECT_EQ(o.reader->getImuRetrimmingStatus(), 1);
    o.sim.clock->advance(3000000000LL);
    EXPECT_EQ(o.reader->getImuRetrimmingStatus(), IMU_RETRIM_DONE);
}

TEST(McuProtocolFeature, DfuEntryDropsTheDevice) {
    Opened o(config());
    ASSERT_GT(o.open(), 0);
    EXPECT_FALSE(o.reader->sendDFUEnterCommand());  // complete write: inverted
    EXPECT_EQ(val(o.mcu->counters().dfuRequests), 1);
    EXPECT_FALSE(o.mcu->present());
}

TEST(McuProtocolFeature, DfuEntryOnALostReaderReopensFirst) {
    Opened o(config());
    ASSERT_GT(o.open(), 0);
    o.reader->is_lost = 1;
    const int opens = o.mcu->counters().opens;
    EXPECT_FALSE(o.reader->sendDFUEnterCommand());  // reopened, then the complete write inverted
    EXPECT_EQ(val(o.mcu->counters().opens), val(opens + 1));
    EXPECT_EQ(val(o.mcu->counters().dfuRequests), 1);
    EXPECT_EQ(o.reader->is_lost, 0);
}

TEST(McuProtocolFeature, EraseRefusedOnFeatureFirmware) {
    Opened o(config());
    ASSERT_GT(o.open(), 0);
    EXPECT_FALSE(o.reader->sendEraseCommandwithSN(1, 2));
}

TEST(McuProtocolFeature, LostReaderRefusesEveryCommandWithoutTraffic) {
    Opened o(config(22345678));
    ASSERT_GT(o.open(), 0);
    o.reader->eeprom.serial.serial_prefix = 2;
    o.reader->is_lost = 1;
    const auto before = o.mcu->counters();
    EXPECT_FALSE(o.reader->isDataStreamEnabled());
    EXPECT_FALSE(o.reader->sendStartDataStreamingCommand());
    EXPECT_FALSE(o.reader->sendStopDataStreamingCommand());
    EXPECT_FALSE(o.reader->sendPing());
    EXPECT_FALSE(o.reader->sendMcuResetCommand());
    EXPECT_FALSE(o.reader->sendOV580ResetCommand());
    EXPECT_FALSE(o.reader->sendWriteSNCommand(1, 1));
    EXPECT_FALSE(o.reader->sendWriteBiasCommand(0, 0, 0, 0, 0, 0));
    EXPECT_FALSE(o.reader->sendReadBiasCommand());
    EXPECT_FALSE(o.reader->sendWriteImuFreq(IMU_ODR_400));
    EXPECT_FALSE(o.reader->startImuRetrimming());
    EXPECT_EQ(o.reader->getImuRetrimmingStatus(), BMI270_CRT_ERROR);
    EXPECT_FALSE(o.reader->updateEepromMemory(true));
    EXPECT_FALSE(o.reader->writeCurrentDataTime());
    const auto after = o.mcu->counters();
    EXPECT_EQ(val(after.featureReads), val(before.featureReads));
    EXPECT_EQ(val(after.featureWrites), val(before.featureWrites));
}

TEST(McuProtocolFeature, FixedAnswers) {
    Opened o(config());
    ASSERT_GT(o.open(), 0);
    EXPECT_TRUE(o.reader->setRate(IMU_ODR_100));
    EXPECT_TRUE(o.reader->reset());
    o.reader->setRVFFrameTS(1234);
    EXPECT_EQ(o.reader->getRVFFrameTS(), 1234u);
    int p = -1, b = -1;
    o.reader->eeprom.serial.serial_prefix = 3;
    o.reader->eeprom.serial.serial_body = 77;
    EXPECT_TRUE(o.reader->readEepromSerialNumber(p, b));
    EXPECT_EQ(p, 3);
    EXPECT_EQ(b, 77);
}

// ---------------------------------------------------------------------------
// Legacy generation

TEST(McuProtocolLegacy, ReadsAndWritesThroughOutputReports) {
    auto c = config(12345678, 0x206);
    Opened o(c);
    ASSERT_EQ(o.open(), 12345678);
    EXPECT_TRUE(o.reader->isLegacy());
    EXPECT_TRUE(o.reader->isDataStreamEnabled());           // fixed answer
    EXPECT_TRUE(o.reader->sendStopDataStreamingCommand());  // no stop on legacy

    EXPECT_TRUE(o.reader->sendWriteBiasCommand(0.01f, 0.02f, 0.03f, 0.1f, 0.2f, 0.3f));
    EXPECT_FLOAT_EQ(o.mcu->eeprom().bias.acc_bias[0], 0.1f);
    EXPECT_TRUE(o.reader->sendWriteVarianceCommand(1e-3f, 1e-3f, 1e-3f, 2e-3f, 2e-3f, 2e-3f));
    EXPECT_TRUE(o.reader->sendWriteKlibCommand(0.1f, 0.2f, 0.3f));
    EXPECT_TRUE(o.reader->sendWriteSNCommand(1, 2000000));
    EXPECT_EQ(val(o.mcu->eeprom().serial.serial_body), 2000000);
    calib_mono_data mono{};
    mono.values[0] = 3.5f;
    EXPECT_TRUE(o.reader->sendWriteCalibMonoCommand(3, 1, mono));  // code 0xAC, legacy id 12
    EXPECT_EQ(val(o.mcu->eeprom().calib_mono[7].id), 0x3E);
    EXPECT_FLOAT_EQ(o.mcu->eeprom().calib_mono[7].values[0], 3.5f);
    float b1[4] = {1, 2, 3, 4};
    EXPECT_TRUE(o.reader->sendWriteCalibStereoCommand(1, 2, 3, b1, b1, b1));
    _extended_gyro_calib_data g{};
    g.misalign[3] = 0.05f;  // offset 25 is compared in the echo
    EXPECT_TRUE(o.reader->sendWriteExtGyroCalibCommand(g));
    EXPECT_EQ(val(g.id), 0x41);  // feature id back after success
    _extended_acc_calib_data a{};
    a.misalign[1] = 0.02f;
    EXPECT_TRUE(o.reader->sendWriteExtAccCalibCommand(a));
    EXPECT_EQ(val(a.id), 0x42);

    // Feature-only records do not exist here.
    EXPECT_FALSE(o.reader->sendWriteBaromCalibCommand(1, 0));
    _mag_calib_data m{};
    EXPECT_FALSE(o.reader->sendWriteMagCalibCommand(m));
    EXPECT_FALSE(o.reader->sendWriteImuFreq(IMU_ODR_400));
    EXPECT_FALSE(o.reader->sendReadDataTimeCommand());
    std::string t;
    EXPECT_FALSE(o.reader->getDataSavingTime(t));
    EXPECT_FALSE(o.reader->sendMcuResetCommand());
    EXPECT_FALSE(o.reader->sendOV580ResetCommand());

    std::memset(&o.reader->eeprom, 0, sizeof(o.reader->eeprom));
    EXPECT_TRUE(o.reader->sendReadCalibMonoCommand(3, 1));
    EXPECT_FLOAT_EQ(o.reader->eeprom.calib_mono[7].values[0], 3.5f);
    EXPECT_TRUE(o.reader->sendReadBiasCommand());
    EXPECT_FLOAT_EQ(o.reader->eeprom.bias.acc_bias[0], 0.1f);
    EXPECT_TRUE(o.reader->sendReadSNCommand());
    EXPECT_EQ(val(o.reader->eeprom.serial.serial_body), 2000000);
}

TEST(McuProtocolLegacy, ExtendedCommandsRefusedBelow517) {
    Opened o(config(12345678, 0x204));
    ASSERT_GT(o.open(), 0);
    const int before = o.mcu->counters().legacyRequests;
    _extended_gyro_calib_data g{};
    _extended_acc_calib_data a{};
    EXPECT_FALSE(o.reader->sendWriteExtGyroCalibCommand(g));
    EXPECT_FALSE(o.reader->sendWriteExtAccCalibCommand(a));
    EXPECT_EQ(val(o.mcu->counters().legacyRequests), before);
}

TEST(McuProtocolLegacy, EraseAndDfu) {
    Opened o(config(12345678, 0x206));
    ASSERT_GT(o.open(), 0);
    LogCapture log;
    EXPECT_TRUE(o.reader->sendEraseCommandwithSN(1, 999));
    EXPECT_TRUE(log.contains("[enter] sendEraseCommandwithSN 999 1"));
    EXPECT_TRUE(log.contains("[exit] sendEraseCommandwithSN --> OK"));
    EXPECT_EQ(val(o.mcu->eeprom().serial.serial_body), 999);
    EXPECT_FLOAT_EQ(o.mcu->eeprom().bias.gyro_bias[0], 0.f);
    EXPECT_TRUE(o.reader->sendDFUEnterCommand());
    EXPECT_FALSE(o.mcu->present());
}

TEST(McuProtocolLegacy, StartStreamingWhenSamplesAlreadyFlow) {
    Opened o(config(12345678, 0x206));
    ASSERT_GT(o.open(), 0);
    EXPECT_TRUE(o.reader->sendStartDataStreamingCommand());
    EXPECT_TRUE(o.mcu->streaming());
}

TEST(McuProtocolLegacy, StartStreamingSendsTheCommandWhenIdle) {
    auto c = config(12345678, 0x206);
    c.legacyStreamAtBoot = false;
    Opened o(c);
    ASSERT_GT(o.open(), 0);
    EXPECT_FALSE(o.mcu->streaming());
    EXPECT_TRUE(o.reader->sendStartDataStreamingCommand());
    EXPECT_TRUE(o.mcu->streaming());
}

// ---------------------------------------------------------------------------
// Conversions

TEST(McuConversions, ImuTemperatureByFirmware) {
    IMUHidReader r(false, VENDOR, PICO);
    r.current_report.imu_temperature = -512;
    r.firmware_version = 0x206;
    EXPECT_FLOAT_EQ(r.getCurrentIMUTemperatureInCelsius(false), -106.f);  // 23 - 66048/512
    r.current_report.imu_temperature = 1024;
    EXPECT_FLOAT_EQ(r.getCurrentIMUTemperatureInCelsius(false), 25.f);
    r.firmware_version = 0x301;
    r.current_report.imu_temperature = 3550;
    EXPECT_FLOAT_EQ(r.getCurrentIMUTemperatureInCelsius(false), 35.5f);
    r.firmware_version = 0x203;
    EXPECT_TRUE(std::isnan(r.getCurrentIMUTemperatureInCelsius(true)));
    EXPECT_EQ(r.getCurrentIMUTemperatureInCelsius(false), 0.f);
}

TEST(McuConversions, MagnetometerAndOnBoardTemperatures) {
    IMUHidReader r(false, VENDOR, PICO);
    r.current_report.mag_valid = 0;
    EXPECT_TRUE(std::isnan(r.getMappedMagnetoX()));
    EXPECT_TRUE(std::isnan(r.getMappedMagnetoY()));
    EXPECT_TRUE(std::isnan(r.getMappedMagnetoZ()));
    r.current_report.mag_valid = 1;
    r.current_report.mag_x = 160;
    r.current_report.mag_y = -32;
    r.current_report.mag_z = 8;
    EXPECT_FLOAT_EQ(r.getMappedMagnetoX(), 10.f);
    EXPECT_FLOAT_EQ(r.getMappedMagnetoY(), -2.f);
    EXPECT_FLOAT_EQ(r.getMappedMagnetoZ(), 0.5f);
    r.current_report.temp_cam_left = 3812;
    r.current_report.temp_cam_right = -27315;
    EXPECT_FLOAT_EQ(r.getOnBoardLeftTemperature(), 38.12f);
    EXPECT_FLOAT_EQ(r.getOnBoardRightTemperature(), -273.15f);
    r.current_report.timestamp = 256;  // 256 x 39.0625 = 10000 us
    EXPECT_EQ(r.getCurrentMCUTimeStamp(), 10000u);
    r.current_report.timestamp = 3;  // 117.1875 us rounds down
    EXPECT_EQ(r.getCurrentMCUTimeStamp(), 117u);
}

// ---------------------------------------------------------------------------
// Report ids that do not fit the generation

TEST(McuReportId, LegacyIdFromFeatureDeviceAndFeatureIdFromLegacyDeviceAreDropped) {
    for (uint16_t fw : {0x305, 0x206}) {
        SimMachine sim;
        auto dev = std::make_shared<ScriptedHid>();
        dev->id.releaseNumber = fw;
        const uint8_t good = fw > 0x300 ? 1 : 0;
        const uint8_t bad = fw > 0x300 ? 0 : 1;
        dev->stream = {reportBytes(sample(good, 100)), reportBytes(sample(bad, 200)),
                       reportBytes(sample(good, 300))};
        dev->features[mcu_id::STREAM] = {mcu_id::STREAM, 0};
        sim.machine->addHidDevice(dev);
        sim.install();
        IMUHidReader r(false, VENDOR, PICO);
        ASSERT_EQ(r.open(0, false, false), 12345678);
        EXPECT_TRUE(r.updateIMUData(false));
        EXPECT_EQ(r.has_new_data, 1);
        EXPECT_FALSE(r.updateIMUData(false)) << std::hex << fw;
        EXPECT_EQ(r.has_new_data, 0);
        EXPECT_TRUE(r.updateIMUData(false));
        EXPECT_EQ(val(r.getSensorData().timestamp), 300u);
    }
}
