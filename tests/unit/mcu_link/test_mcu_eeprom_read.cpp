// Reading the EEPROM image: feature reports record by record with repairs,
// the legacy burst, firmware gates, and failures.
#include <gtest/gtest.h>

#include "McuTestSupport.h"

using namespace mcutest;

namespace {

struct Fixture {
    SimMachine sim;
    std::shared_ptr<sim::VirtualMcu> mcu;
    std::unique_ptr<IMUHidReader> reader;
    explicit Fixture(sim::McuConfig c) {
        mcu = sim.add(c);
        sim.install();
        reader = std::make_unique<IMUHidReader>(false, VENDOR, c.productId);
    }
};

}  // namespace

TEST(EepromRead, FeatureReadFillsTheMirrorAndSerial) {
    Fixture f(config(12345678, 0x305));
    ASSERT_EQ(f.reader->open(0, true, false), 12345678);
    f.reader->serial_number = 0;
    EXPECT_TRUE(f.reader->updateEepromMemory(true));
    const eepromMemoryStrc dev = f.mcu->eeprom();
    EXPECT_EQ(std::memcmp(&f.reader->eeprom, &dev, sizeof(dev)), 0);
    EXPECT_EQ(val(f.reader->serial_number), 12345678u);
    eepromMemoryStrc copy = f.reader->getEepromMemory(false);
    EXPECT_EQ(std::memcmp(&copy, &dev, sizeof(dev)), 0);
}

TEST(EepromRead, WithoutCameraCalibTheMonoAndStereoRecordsStay) {
    Fixture f(config());
    ASSERT_GT(f.reader->open(0, true, false), 0);
    f.reader->eeprom.calib_mono[3].values[0] = -99.f;
    f.reader->eeprom.calib_stereo.params[0] = -98.f;
    EXPECT_TRUE(f.reader->updateEepromMemory(false));
    EXPECT_FLOAT_EQ(f.reader->eeprom.calib_mono[3].values[0], -99.f);
    EXPECT_FLOAT_EQ(f.reader->eeprom.calib_stereo.params[0], -98.f);
    EXPECT_TRUE(f.reader->updateEepromMemory(true));
    EXPECT_FLOAT_EQ(f.reader->eeprom.calib_mono[3].values[0], 300.f);
    EXPECT_FLOAT_EQ(f.reader->eeprom.calib_stereo.params[0], 120.f);
}

TEST(EepromRead, Firmware0x304ReadsTheRateNotTheMagnetometer0x303Neither) {
    for (uint16_t fw : {0x303, 0x304, 0x305}) {
        Fixture f(config(12345678, fw, 1));
        ASSERT_GT(f.reader->open(0, true, false), 0);
        f.reader->eeprom.mag_calib.offset[0] = -1234.f;
        f.reader->eeprom.imu_odr.odr = 9;
        EXPECT_TRUE(f.reader->updateEepromMemory(false));
        if (fw == 0x303) {
            EXPECT_EQ(val(f.reader->eeprom.imu_odr.odr), 9);
            EXPECT_FLOAT_EQ(f.reader->eeprom.mag_calib.offset[0], -1234.f);
        } else if (fw == 0x304) {
            EXPECT_EQ(val(f.reader->eeprom.imu_odr.odr), 1);
            EXPECT_FLOAT_EQ(f.reader->eeprom.mag_calib.offset[0], -1234.f);
        } else {
            EXPECT_EQ(val(f.reader->eeprom.imu_odr.odr), 1);
            EXPECT_FLOAT_EQ(f.reader->eeprom.mag_calib.offset[0], 10.f);
        }
    }
}

TEST(EepromRead, RepairsApplyOnRead) {
    auto c = config();
    c.eeprom.bias.gyro_bias[0] = 0.21f;
    c.eeprom.bias.acc_bias[0] = 0.21f;
    c.eeprom.variance.gyro_var[1] = 0.5f;
    c.eeprom.cam_imu.rot[2] = 0.3f;
    c.eeprom.ext_gyro_calib.bias[0] = 0.16f;
    c.eeprom.ext_gyro_calib.temp_scale[0] = 0.1f;
    c.eeprom.ext_gyro_calib.temp_scale[1] = 0.1f;
    c.eeprom.ext_acc_calib.bias[2] = 1.5f;
    Fixture f(c);
    ASSERT_GT(f.reader->open(0, true, false), 0);
    ASSERT_TRUE(f.reader->updateEepromMemory(false));
    const eepromMemoryStrc& e = f.reader->eeprom;
    EXPECT_EQ(val(e.bias.gyro_bias[0]), 0.f);
    EXPECT_FLOAT_EQ(e.bias.acc_bias[0], 0.21f);
    EXPECT_FLOAT_EQ(e.variance.gyro_var[1], 1e-5f);
    EXPECT_EQ(val(e.cam_imu.rot[2]), 0.f);
    EXPECT_EQ(val(e.ext_gyro_calib.bias[0]), 0.f);
    EXPECT_EQ(val(e.ext_gyro_calib.temp_scale[0]), 0.f);
    EXPECT_FLOAT_EQ(e.ext_gyro_calib.bias[1], 0.01f);
    EXPECT_FLOAT_EQ(e.ext_gyro_calib.temp_scale[1], 0.1f);
    EXPECT_EQ(val(e.ext_acc_calib.bias[2]), 0.f);
}

TEST(EepromRead, StreamingIsStoppedForTheReadAndStartedAgain) {
    Fixture f(config());
    ASSERT_GT(f.reader->open(0, true, false), 0);
    ASSERT_TRUE(f.reader->sendStartDataStreamingCommand());
    EXPECT_TRUE(f.reader->updateEepromMemory(true));
    EXPECT_TRUE(f.mcu->streaming());
}

TEST(EepromRead, Prefix99Body123456IsTheUnprogrammedValue) {
    auto c = config(990123456);
    ASSERT_EQ(val(c.eeprom.serial.serial_prefix), 99);
    ASSERT_EQ(val(c.eeprom.serial.serial_body), 123456);
    Fixture f(c);
    // Without force, open hands the unprogrammed value back and keeps nothing open.
    EXPECT_EQ(f.reader->open(0, false, false), 990123456);
    EXPECT_EQ(val(f.reader->handle), nullptr);
    // With force the session opens and the image reads the same serial.
    EXPECT_EQ(f.reader->open(0, false, true), 990123456);
    ASSERT_NE(val(f.reader->handle), nullptr);
    EXPECT_TRUE(f.reader->updateEepromMemory(false));
    EXPECT_EQ(val(f.reader->serial_number), 990123456u);
}

TEST(EepromRead, LostReaderReturnsTheMirrorAsItStands) {
    Fixture f(config());
    ASSERT_GT(f.reader->open(0, true, false), 0);
    f.reader->eeprom.bias.gyro_bias[2] = 0.123f;
    f.reader->is_lost = 1;
    const auto before = f.mcu->counters();
    eepromMemoryStrc e = f.reader->getEepromMemory(true);
    EXPECT_FLOAT_EQ(e.bias.gyro_bias[2], 0.123f);
    EXPECT_EQ(val(f.mcu->counters().featureReads), val(before.featureReads));
    EXPECT_FALSE(f.reader->updateEepromMemory(true));
}

TEST(EepromRead, NoHandleFails) {
    Fixture f(config());
    f.reader->is_lost = 0;
    EXPECT_FALSE(f.reader->updateEepromMemory(true));
}

TEST(EepromRead, DeviceGoneDuringTheReadGivesFalse) {
    Fixture f(config());
    ASSERT_GT(f.reader->open(0, true, false), 0);
    f.mcu->unplug();
    EXPECT_FALSE(f.reader->updateEepromMemory(true));
}

TEST(EepromRead, LegacyBurstFillsTheCoreRecords) {
    auto c = config(12345678, 0x206);
    c.eeprom.bias.gyro_bias[0] = 0.5f;  // the legacy read applies no repair
    Fixture f(c);
    ASSERT_GT(f.reader->open(0, true, false), 0);
    f.reader->eeprom.mag_calib.offset[0] = -7.f;
    EXPECT_TRUE(f.reader->updateEepromMemory(true));
    const eepromMemoryStrc& e = f.reader->eeprom;
    EXPECT_EQ(val(e.serial.id), 1);  // records stand as they came, legacy id first
    EXPECT_EQ(val(e.serial.serial_body), 2345678);
    EXPECT_FLOAT_EQ(e.bias.gyro_bias[0], 0.5f);
    EXPECT_EQ(val(e.ext_gyro_calib.id), 14);
    EXPECT_FLOAT_EQ(e.ext_gyro_calib.scale[0], 1.01f);
    EXPECT_EQ(val(e.ext_acc_calib.id), 15);
    EXPECT_FLOAT_EQ(e.mag_calib.offset[0], -7.f);
    EXPECT_EQ(val(f.reader->serial_number), 12345678u);
}

TEST(EepromRead, LegacyFirmwareIgnoringTheFirstRequestGetsItResent) {
    auto c = config(12345678, 0x204);
    c.ignoreFirstRequests = 1;
    Fixture f(c);
    ASSERT_GT(f.reader->open(0, true, false), 0);
    LogCapture log;
    EXPECT_TRUE(f.reader->updateEepromMemory(false));
    EXPECT_TRUE(log.contains("WARNING : resend buffer due to timeout check"));
    const auto n = f.mcu->counters();
    EXPECT_EQ(val(n.ignoredRequests), 1);
    EXPECT_GE(val(n.legacyRequests), 2);
}

TEST(EepromRead, SilentLegacyDeviceEndsWithFalse) {
    auto c = config(12345678, 0x204);
    c.ignoreFirstRequests = 1000000;
    c.legacyStreamAtBoot = false;
    Fixture f(c);
    ASSERT_GT(f.reader->open(0, true, false), 0);
    EXPECT_FALSE(f.reader->updateEepromMemory(false));
}
