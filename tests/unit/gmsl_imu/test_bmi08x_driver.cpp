// The inertial chip driver against a fake chip on a fake I2C bus: identities,
// the exact register writes of every setting, data, FIFO frames with the sync
// bit, the temperature conversion and the feature-engine blob load. The
// expected bytes come from the chip's register map.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "GmslImuTestSupport.h"
#include "bh_input/grabber/gmsl/I2CHandler.h"
#include "bh_input/mcu/IMU/bmi08x.h"

using namespace gmslimu;

namespace {

constexpr int kBus = 30;

struct DriverRig : Rig {
    DriverRig() {
        bus->addCamera(kBus, 0x55, 12345, 2);
        fd = i2c_open(kBus);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(bmi08x_interface_init(&acc, BMI08X_INTF_I2C, fd, 0x18, BMI08X_VARIANT_BMI088), BMI08X_OK);
        EXPECT_EQ(bmi08x_interface_init(&gyro, BMI08X_INTF_I2C, fd, 0x68, BMI08X_VARIANT_BMI088), BMI08X_OK);
        bus->clearLog();
    }
    ~DriverRig() { i2c_close(fd); }
    FakeAccel& chipA() { return *bus->accel(kBus); }
    FakeGyro& chipG() { return *bus->gyro(kBus); }

    int fd = -1;
    bmi08x_dev acc;
    bmi08x_dev gyro;
};

}  // namespace

// ---------------------------------------------------------------- interface

TEST(Bmi08xInterface, I2CSetsTheBusFunctionsAndChunkLength) {
    bmi08x_dev dev;
    dev.read_write_len = 3;
    ASSERT_EQ(bmi08x_interface_init(&dev, BMI08X_INTF_I2C, 7, 0x68, BMI08X_VARIANT_BMI088), BMI08X_OK);
    EXPECT_EQ(dev.read, &bmi08x_i2c_read);
    EXPECT_EQ(dev.write, &bmi08x_i2c_write);
    EXPECT_EQ(dev.delay_us, &bmi08x_delay_us);
    EXPECT_EQ(dev.read_write_len, 16);
    EXPECT_EQ(dev.fd, 7);
    EXPECT_EQ(dev.i2c_address, 0x68);
    EXPECT_EQ(dev.variant, BMI08X_VARIANT_BMI088);
}

TEST(Bmi08xInterface, SpiIsRefusedWithItsMessage) {
    bmi08x_dev dev;
    testing::internal::CaptureStdout();
    EXPECT_EQ(bmi08x_interface_init(&dev, BMI08X_INTF_SPI, 7, 0x68, BMI08X_VARIANT_BMI088),
              BMI08X_ERR_INTERFACE);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "NIMPL : SPI Interface \n");
    EXPECT_EQ(dev.read, nullptr);
    EXPECT_EQ(bmi08x_interface_init(nullptr, BMI08X_INTF_I2C, 7, 0x68, BMI08X_VARIANT_BMI088),
              BMI08X_ERR_NULL);
}

TEST(Bmi08xInterface, DelayGoesThroughThePlatformClock) {
    Rig rig;
    const int64_t before = rig.nowNs();
    bmi08x_delay_us(30000);
    EXPECT_EQ(rig.nowNs() - before, 30000000);
}

TEST(Bmi08xInterface, FunctionsRefuseNullRecords) {
    uint8_t status = 0;
    bmi08x_sensor_data s;
    int32_t t = 0;
    EXPECT_EQ(bmi08a_init(nullptr), BMI08X_ERR_NULL);
    EXPECT_EQ(bmi08g_init(nullptr), BMI08X_ERR_NULL);
    EXPECT_EQ(bmi08a_get_reg_int_status(nullptr, &status), BMI08X_ERR_NULL);
    EXPECT_EQ(bmi08a_get_data(nullptr, &s), BMI08X_ERR_NULL);
    EXPECT_EQ(bmi08a_get_sensor_temperature(nullptr, &t), BMI08X_ERR_NULL);
    bmi08x_dev unbound;  // no bus functions
    unbound.accel_cfg = {BMI08A_PM_ACTIVE, BMI08A_RANGE_12G, BMI08A_BW_NORMAL, BMI08A_ODR_200_HZ};
    EXPECT_EQ(bmi08a_set_meas_conf(&unbound), BMI08X_ERR_NULL);
    EXPECT_EQ(bmi08g_get_data_int_status(&unbound, &status), BMI08X_ERR_NULL);
}

TEST(Bmi08xInterface, ErrorsArePrintedWithTheCallName) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(bmi08x_error_codes_print_result("bmi08a_init", BMI08X_OK), BMI08X_OK);
    EXPECT_EQ(bmi08x_error_codes_print_result("bmi08a_init", BMI08X_ERR_CHIP_ID), BMI08X_ERR_CHIP_ID);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_EQ(text.find("bmi08a_init"), text.rfind("bmi08a_init")) << "success prints nothing";
    EXPECT_NE(text.find("chip id"), std::string::npos) << text;
    EXPECT_STREQ(bmi08x_error_text(-100), "unknown error");
}

// ---------------------------------------------------------------- the plain I2C functions

TEST(Bmi08xBus, PlainFunctionsOnAClosedDescriptorFailAndLeaveTheBuffer) {
    Rig rig;
    uint8_t buf[4] = {0xA5, 0xA5, 0xA5, 0xA5};
    EXPECT_EQ(i2c_read(-1, 0x18, 0x00, buf, 4), -1);
    EXPECT_EQ(i2c_ioctl_read(-1, 0x18, 0x00, buf, 4), -1);
    for (uint8_t b : buf)
        EXPECT_EQ(b, 0xA5);
    EXPECT_EQ(i2c_write(-1, 0x18, 0x7E, buf, 1), -1);
    EXPECT_EQ(i2c_ioctl_write(-1, 0x18, 0x7E, buf, 1), -1);
    EXPECT_EQ(i2c_open(256), -1);
    EXPECT_EQ(i2c_open(3), -1) << "no such bus";
    EXPECT_EQ(rig.bus->writesTo(0x18).size(), 0u);
}

TEST(Bmi08xBus, AnAbsentChipFailsTheTransfer) {
    DriverRig r;
    r.bus->failAddress(kBus, 0x68);
    uint8_t id = 0x5A;
    EXPECT_EQ(bmi08x_i2c_read(&r.gyro, 0x00, &id, 1), BMI08X_ERR_BUS);
    EXPECT_EQ(bmi08g_init(&r.gyro), BMI08X_ERR_BUS);
    EXPECT_EQ(bmi08g_soft_reset(&r.gyro), BMI08X_ERR_BUS);
    // The accelerometer on the same descriptor still answers.
    EXPECT_EQ(bmi08a_init(&r.acc), BMI08X_OK);
}

TEST(Bmi08xBus, ReadSelectsTheAddressWritesTheRegisterAndReads) {
    DriverRig r;
    uint8_t id = 0;
    ASSERT_EQ(bmi08x_i2c_read(&r.gyro, 0x00, &id, 1), BMI08X_OK);
    EXPECT_EQ(id, 0x0F);
    const auto reads = r.bus->readsFrom(0x68);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].reg, 0x00);
    EXPECT_EQ(reads[0].length, 1u);
}

// ---------------------------------------------------------------- identity and reset

TEST(Bmi08xAccel, InitChecksTheChipId) {
    DriverRig r;
    EXPECT_EQ(bmi08a_init(&r.acc), BMI08X_OK);
    EXPECT_EQ(r.acc.chip_id, 0x1E);
    r.chipA().regs[0x00] = 0x1F;  // the BMI085's accelerometer
    EXPECT_EQ(bmi08a_init(&r.acc), BMI08X_ERR_CHIP_ID);
    EXPECT_EQ(r.acc.chip_id, 0x1F);
    r.acc.variant = BMI08X_VARIANT_BMI085;
    EXPECT_EQ(bmi08a_init(&r.acc), BMI08X_OK);
}

TEST(Bmi08xGyro, InitChecksTheChipId) {
    DriverRig r;
    EXPECT_EQ(bmi08g_init(&r.gyro), BMI08X_OK);
    EXPECT_EQ(r.gyro.chip_id, 0x0F);
    r.chipG().regs[0x00] = 0x00;
    EXPECT_EQ(bmi08g_init(&r.gyro), BMI08X_ERR_CHIP_ID);
}

TEST(Bmi08xReset, BothPartsGetB6AndTheirWait) {
    DriverRig r;
    const int64_t t0 = r.nowNs();
    ASSERT_EQ(bmi08a_soft_reset(&r.acc), BMI08X_OK);
    EXPECT_EQ(r.nowNs() - t0, 1000000) << "the accelerometer answers after 1 ms";
    const int64_t t1 = r.nowNs();
    ASSERT_EQ(bmi08g_soft_reset(&r.gyro), BMI08X_OK);
    EXPECT_EQ(r.nowNs() - t1, 30000000) << "the gyroscope answers after 30 ms";
    EXPECT_EQ(writesOf(*r.bus, 0x18), (Expected{{0x7E, {0xB6}}}));
    EXPECT_EQ(writesOf(*r.bus, 0x68), (Expected{{0x14, {0xB6}}}));
    EXPECT_EQ(r.chipA().resets, 1);
    EXPECT_EQ(r.chipG().resets, 1);
}

// ---------------------------------------------------------------- settings

TEST(Bmi08xAccel, PowerActiveWritesConfThenCtrl) {
    DriverRig r;
    r.acc.accel_cfg.power = BMI08A_PM_ACTIVE;
    ASSERT_EQ(bmi08a_set_power_mode(&r.acc), BMI08X_OK);
    r.acc.accel_cfg.power = BMI08A_PM_SUSPEND;
    ASSERT_EQ(bmi08a_set_power_mode(&r.acc), BMI08X_OK);
    EXPECT_EQ(writesOf(*r.bus, 0x18),
              (Expected{{0x7C, {0x00}}, {0x7D, {0x04}}, {0x7C, {0x03}}, {0x7D, {0x00}}}));
    r.acc.accel_cfg.power = 0x01;
    r.bus->clearLog();
    EXPECT_EQ(bmi08a_set_power_mode(&r.acc), BMI08X_ERR_RANGE);
    EXPECT_TRUE(r.bus->writesTo(0x18).empty());
}

TEST(Bmi08xAccel, MeasConfNormalBandwidth200HzAnd12g) {
    DriverRig r;
    r.acc.accel_cfg.bw = BMI08A_BW_NORMAL;
    r.acc.accel_cfg.odr = BMI08A_ODR_200_HZ;
    r.acc.accel_cfg.range = BMI08A_RANGE_12G;
    ASSERT_EQ(bmi08a_set_meas_conf(&r.acc), BMI08X_OK);
    EXPECT_EQ(writesOf(*r.bus, 0x18), (Expected{{0x40, {0xA9}}, {0x41, {0x02}}}));
    EXPECT_EQ(r.chipA().regs[0x40], 0xA9);
    EXPECT_EQ(r.chipA().regs[0x41], 0x02);
}

TEST(Bmi08xAccel, MeasConfOutsideTheChipsValuesWritesNothing) {
    DriverRig r;
    const bmi08x_cfg bad[] = {
        {0, 0x00, 0x0B, 0x09},  // bandwidth above normal
        {0, 0x00, 0x07, 0x09},  // bandwidth below OSR4
        {0, 0x00, 0x0A, 0x04},  // rate below 12.5 Hz
        {0, 0x00, 0x0A, 0x0D},  // rate above 1600 Hz
        {0, 0x04, 0x0A, 0x09},  // range above 24 g
    };
    for (const bmi08x_cfg& cfg : bad) {
        r.acc.accel_cfg = cfg;
        EXPECT_EQ(bmi08a_set_meas_conf(&r.acc), BMI08X_ERR_RANGE);
    }
    EXPECT_TRUE(r.bus->writesTo(0x18).empty());
}

TEST(Bmi08xGyro, PowerAndMeasConf) {
    DriverRig r;
    r.gyro.gyro_cfg.power = BMI08G_PM_NORMAL;
    r.gyro.gyro_cfg.range = BMI08G_RANGE_1000_DPS;
    r.gyro.gyro_cfg.odr = BMI08G_ODR_400_BW_47;
    ASSERT_EQ(bmi08g_set_power_mode(&r.gyro), BMI08X_OK);
    ASSERT_EQ(bmi08g_set_meas_conf(&r.gyro), BMI08X_OK);
    EXPECT_EQ(writesOf(*r.bus, 0x68), (Expected{{0x11, {0x00}}, {0x0F, {0x01}}, {0x10, {0x03}}}));
    r.bus->clearLog();
    r.gyro.gyro_cfg.power = 0x40;
    EXPECT_EQ(bmi08g_set_power_mode(&r.gyro), BMI08X_ERR_RANGE);
    r.gyro.gyro_cfg.power = BMI08G_PM_NORMAL;
    r.gyro.gyro_cfg.range = 0x05;
    EXPECT_EQ(bmi08g_set_meas_conf(&r.gyro), BMI08X_ERR_RANGE);
    r.gyro.gyro_cfg.range = 0x00;
    r.gyro.gyro_cfg.odr = 0x08;
    EXPECT_EQ(bmi08g_set_meas_conf(&r.gyro), BMI08X_ERR_RANGE);
    EXPECT_TRUE(r.bus->writesTo(0x68).empty());
}

TEST(Bmi08xAccel, DataReadyOnInt1PushPullActiveHigh) {
    DriverRig r;
    bmi08x_int_cfg cfg;
    cfg.channel = BMI08X_INT_CHANNEL_1;
    cfg.kind = BMI08X_INT_DATA_READY;
    cfg.enable = 1;
    cfg.pin = {1, 0, 1};
    ASSERT_EQ(bmi08a_set_int_config(&r.acc, &cfg), BMI08X_OK);
    EXPECT_EQ(writesOf(*r.bus, 0x18), (Expected{{0x53, {0x0A}}, {0x58, {0x04}}}));

    // INT2 keeps INT1's mapping; switching INT1 off keeps INT2's.
    r.bus->clearLog();
    cfg.channel = BMI08X_INT_CHANNEL_2;
    cfg.pin = {1, 1, 0};
    ASSERT_EQ(bmi08a_set_int_config(&r.acc, &cfg), BMI08X_OK);
    cfg.channel = BMI08X_INT_CHANNEL_1;
    cfg.enable = 0;
    ASSERT_EQ(bmi08a_set_int_config(&r.acc, &cfg), BMI08X_OK);
    EXPECT_EQ(writesOf(*r.bus, 0x18), (Expected{{0x54, {0x0C}}, {0x58, {0x44}}, {0x58, {0x40}}}));

    cfg.channel = BMI08X_INT_CHANNEL_3;
    EXPECT_EQ(bmi08a_set_int_config(&r.acc, &cfg), BMI08X_ERR_INPUT);
    cfg.channel = BMI08X_INT_CHANNEL_1;
    cfg.kind = BMI08X_INT_FIFO;
    EXPECT_EQ(bmi08a_set_int_config(&r.acc, &cfg), BMI08X_ERR_INPUT);
}

TEST(Bmi08xGyro, FifoInterruptOnInt4) {
    DriverRig r;
    bmi08x_int_cfg cfg;
    cfg.channel = BMI08X_INT_CHANNEL_4;
    cfg.kind = BMI08X_INT_FIFO;
    cfg.enable = 1;
    cfg.pin = {1, 0, 1};
    ASSERT_EQ(bmi08g_set_int_config(&r.gyro, &cfg), BMI08X_OK);
    // IO_CONF: INT4 active high (bit 2), push-pull; IO_MAP: FIFO on INT4 (bit 5);
    // INT_CTRL: FIFO interrupt on.
    EXPECT_EQ(writesOf(*r.bus, 0x68), (Expected{{0x16, {0x04}}, {0x18, {0x20}}, {0x15, {0x40}}}));

    r.bus->clearLog();
    cfg.channel = BMI08X_INT_CHANNEL_3;
    cfg.kind = BMI08X_INT_DATA_READY;
    cfg.pin = {1, 1, 0};
    ASSERT_EQ(bmi08g_set_int_config(&r.gyro, &cfg), BMI08X_OK);
    EXPECT_EQ(writesOf(*r.bus, 0x68), (Expected{{0x16, {0x06}}, {0x18, {0x21}}, {0x15, {0x80}}}));

    r.bus->clearLog();
    cfg.enable = 0;
    ASSERT_EQ(bmi08g_set_int_config(&r.gyro, &cfg), BMI08X_OK);
    EXPECT_EQ(writesOf(*r.bus, 0x68), (Expected{{0x16, {0x06}}, {0x18, {0x20}}, {0x15, {0x00}}}));

    cfg.channel = BMI08X_INT_CHANNEL_1;
    EXPECT_EQ(bmi08g_set_int_config(&r.gyro, &cfg), BMI08X_ERR_INPUT);
}

TEST(Bmi08xGyro, WatermarkOnAndOff) {
    DriverRig r;
    ASSERT_EQ(bmi08g_enable_watermark(&r.gyro, 1), BMI08X_OK);
    ASSERT_EQ(bmi08g_enable_watermark(&r.gyro, 0), BMI08X_OK);
    EXPECT_EQ(writesOf(*r.bus, 0x68), (Expected{{0x1E, {0x88}}, {0x1E, {0x08}}}));
}

TEST(Bmi08xGyro, FifoConfigStreamXyzWatermarkSixExternalSyncOnInt3) {
    DriverRig r;
    bmi08g_fifo_config cfg;
    cfg.mode = BMI08G_FIFO_MODE_STREAM;
    cfg.data_select = BMI08G_FIFO_DATA_XYZ;
    cfg.watermark = 6;
    cfg.ext_sync = 1;
    cfg.ext_sync_input = 0;
    ASSERT_EQ(bmi08g_set_fifo_config(&r.gyro, &cfg), BMI08X_OK);
    EXPECT_EQ(writesOf(*r.bus, 0x68), (Expected{{0x34, {0x20}}, {0x3D, {0x06}}, {0x3E, {0x80}}}));

    r.bus->clearLog();
    cfg.mode = BMI08G_FIFO_MODE_FIFO;
    cfg.ext_sync_input = 1;
    cfg.watermark = 100;
    ASSERT_EQ(bmi08g_set_fifo_config(&r.gyro, &cfg), BMI08X_OK);
    EXPECT_EQ(writesOf(*r.bus, 0x68), (Expected{{0x34, {0x30}}, {0x3D, {0x64}}, {0x3E, {0x40}}}));

    r.bus->clearLog();
    cfg.mode = 0x00;
    EXPECT_EQ(bmi08g_set_fifo_config(&r.gyro, &cfg), BMI08X_ERR_RANGE);
    cfg.mode = BMI08G_FIFO_MODE_STREAM;
    cfg.watermark = 101;
    EXPECT_EQ(bmi08g_set_fifo_config(&r.gyro, &cfg), BMI08X_ERR_RANGE);
    EXPECT_TRUE(r.bus->writesTo(0x68).empty());
}

// ---------------------------------------------------------------- data

TEST(Bmi08xAccel, DataIsLittleEndianTwosComplement) {
    DriverRig r;
    uint8_t status = 0;
    ASSERT_EQ(bmi08a_get_reg_int_status(&r.acc, &status), BMI08X_OK);
    EXPECT_EQ(status & 0x80, 0);
    // x = 0x1234, y = -2 (0xFFFE), z = -32768 (0x8000)
    r.chipA().regs[0x12] = 0x34;
    r.chipA().regs[0x13] = 0x12;
    r.chipA().regs[0x14] = 0xFE;
    r.chipA().regs[0x15] = 0xFF;
    r.chipA().regs[0x16] = 0x00;
    r.chipA().regs[0x17] = 0x80;
    r.chipA().regs[0x1D] = 0x80;
    ASSERT_EQ(bmi08a_get_reg_int_status(&r.acc, &status), BMI08X_OK);
    EXPECT_EQ(status, 0x80);
    ASSERT_EQ(bmi08a_get_reg_int_status(&r.acc, &status), BMI08X_OK);
    EXPECT_EQ(status, 0x00) << "reading ACC_INT_STAT_1 clears it";

    bmi08x_sensor_data s;
    s.timestamp = 77;
    s.sync = 1;
    ASSERT_EQ(bmi08a_get_data(&r.acc, &s), BMI08X_OK);
    EXPECT_EQ(s.x, 0x1234);
    EXPECT_EQ(s.y, -2);
    EXPECT_EQ(s.z, -32768);
    EXPECT_EQ(s.timestamp, 77u) << "the caller stamps the sample";
    EXPECT_EQ(s.sync, 1);
    const auto reads = r.bus->readsFrom(0x18);
    ASSERT_FALSE(reads.empty());
    EXPECT_EQ(reads.back().reg, 0x12);
    EXPECT_EQ(reads.back().length, 6u);
}

TEST(Bmi08xAccel, TemperatureFormula) {
    // t11 = MSB * 8 + (LSB >> 5), negative above 1023; 0.125 degC a count, 23 at 0.
    EXPECT_EQ(bmi08a_temperature_from_registers(0x00, 0x00), 23000);
    EXPECT_EQ(bmi08a_temperature_from_registers(0x00, 0x20), 23125);
    EXPECT_EQ(bmi08a_temperature_from_registers(0x7F, 0xE0), 150875);   // 1023
    EXPECT_EQ(bmi08a_temperature_from_registers(0x80, 0x00), -105000);  // 1024 -> -1024
    EXPECT_EQ(bmi08a_temperature_from_registers(0xFF, 0xE0), 22875);    // 2047 -> -1
    EXPECT_EQ(bmi08a_temperature_from_registers(0x02, 0x1F), 25000);    // 16, low bits ignored

    DriverRig r;
    r.chipA().setTemperature(0x04, 0x40);  // 32 + 2 = 34 -> 27.25 degC
    int32_t milli = 0;
    ASSERT_EQ(bmi08a_get_sensor_temperature(&r.acc, &milli), BMI08X_OK);
    EXPECT_EQ(milli, 27250);
    const auto reads = r.bus->readsFrom(0x18);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].reg, 0x22);
    EXPECT_EQ(reads[0].length, 2u);
}

TEST(Bmi08xGyro, FifoStatusBitAndFramesWithTheSyncBit) {
    DriverRig r;
    uint8_t status = 0xFF;
    ASSERT_EQ(bmi08g_get_data_int_status(&r.gyro, &status), BMI08X_OK);
    EXPECT_EQ(status & 0x10, 0);

    // Watermark 2, on; frames (1, 2, 4), (-1, -2, 5: sync), (300, -300, -7: sync).
    r.chipG().regs[0x3D] = 2;
    r.chipG().regs[0x1E] = 0x88;
    r.chipG().pushFrame(1, 2, 4);
    r.chipG().pushFrame(-1, -2, 5);
    r.chipG().pushFrame(300, -300, -7);
    ASSERT_EQ(bmi08g_get_data_int_status(&r.gyro, &status), BMI08X_OK);
    EXPECT_EQ(status & 0x10, 0x10);

    uint8_t buffer[36] = {};
    bmi08g_fifo_buffer fifo;
    fifo.data = buffer;
    fifo.capacity = sizeof(buffer);
    ASSERT_EQ(bmi08g_read_fifo_data(&r.gyro, &fifo), BMI08X_OK);
    EXPECT_EQ(fifo.frames_available, 3);
    EXPECT_EQ(fifo.overrun, 0);
    EXPECT_EQ(fifo.length, 18);
    const std::vector<uint8_t> expected = {0x01, 0x00, 0x02, 0x00, 0x04, 0x00, 0xFF, 0xFF, 0xFE,
                                           0xFF, 0x05, 0x00, 0x2C, 0x01, 0xD4, 0xFE, 0xF9, 0xFF};
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 18), expected);
    const auto reads = r.bus->readsFrom(0x68);
    ASSERT_GE(reads.size(), 2u);
    EXPECT_EQ(reads[reads.size() - 2].reg, 0x0E);
    EXPECT_EQ(reads.back().reg, 0x3F);
    EXPECT_EQ(reads.back().length, 18u);

    bmi08x_sensor_data out[6];
    uint8_t n = 6;
    ASSERT_EQ(bmi08g_extract_gyro(out, &n, &fifo), BMI08X_OK);
    ASSERT_EQ(n, 3);
    EXPECT_EQ(out[0].x, 1);
    EXPECT_EQ(out[0].y, 2);
    EXPECT_EQ(out[0].z, 4);
    EXPECT_EQ(out[0].sync, 0);
    EXPECT_EQ(out[1].x, -1);
    EXPECT_EQ(out[1].z, 5) << "z is kept as read";
    EXPECT_EQ(out[1].sync, 1);
    EXPECT_EQ(out[2].x, 300);
    EXPECT_EQ(out[2].y, -300);
    EXPECT_EQ(out[2].z, -7);
    EXPECT_EQ(out[2].sync, 1);
}

TEST(Bmi08xGyro, ReadTakesNoMoreFramesThanFit) {
    DriverRig r;
    for (int i = 0; i < 10; ++i)
        r.chipG().pushFrame(static_cast<int16_t>(i), 0, 0);
    uint8_t buffer[36] = {};
    bmi08g_fifo_buffer fifo;
    fifo.data = buffer;
    fifo.capacity = sizeof(buffer);
    ASSERT_EQ(bmi08g_read_fifo_data(&r.gyro, &fifo), BMI08X_OK);
    EXPECT_EQ(fifo.frames_available, 10);
    EXPECT_EQ(fifo.length, 36);
    EXPECT_EQ(r.chipG().fifo.size(), 4u);
    bmi08x_sensor_data out[3];
    uint8_t n = 3;  // room for three only
    ASSERT_EQ(bmi08g_extract_gyro(out, &n, &fifo), BMI08X_OK);
    EXPECT_EQ(n, 3);
    EXPECT_EQ(out[2].x, 2);
}

TEST(Bmi08xGyro, EmptyFifoReadsNothingAndEmptyFramesEndTheData) {
    DriverRig r;
    uint8_t buffer[12] = {};
    bmi08g_fifo_buffer fifo;
    fifo.data = buffer;
    fifo.capacity = sizeof(buffer);
    ASSERT_EQ(bmi08g_read_fifo_data(&r.gyro, &fifo), BMI08X_OK);
    EXPECT_EQ(fifo.length, 0);
    EXPECT_EQ(r.bus->readsFrom(0x68).size(), 1u) << "only FIFO_STATUS";

    // A buffer holding one frame and then what an empty FIFO reads.
    const uint8_t raw[12] = {0x10, 0x00, 0x20, 0x00, 0x31, 0x00, 0x00, 0x80, 0x00, 0x80, 0x00, 0x80};
    std::copy(raw, raw + 12, buffer);
    fifo.length = 12;
    bmi08x_sensor_data out[2];
    uint8_t n = 2;
    ASSERT_EQ(bmi08g_extract_gyro(out, &n, &fifo), BMI08X_OK);
    EXPECT_EQ(n, 1);
    EXPECT_EQ(out[0].z, 0x31);
    EXPECT_EQ(out[0].sync, 1);

    // A real reading of -32768 on one axis only is data.
    const uint8_t one[6] = {0x00, 0x80, 0x00, 0x00, 0x00, 0x80};
    std::copy(one, one + 6, buffer);
    fifo.length = 6;
    n = 2;
    ASSERT_EQ(bmi08g_extract_gyro(out, &n, &fifo), BMI08X_OK);
    EXPECT_EQ(n, 1);
    EXPECT_EQ(out[0].x, -32768);

    fifo.capacity = 5;
    EXPECT_EQ(bmi08g_read_fifo_data(&r.gyro, &fifo), BMI08X_ERR_INPUT);
    EXPECT_EQ(bmi08g_extract_gyro(nullptr, &n, &fifo), BMI08X_ERR_NULL);
}

// ---------------------------------------------------------------- feature-engine blob

TEST(Bmi08xAccel, ConfigBlobGoesInChunksWithItsPosition) {
    DriverRig r;
    std::vector<uint8_t> blob(40);
    for (size_t i = 0; i < blob.size(); ++i)
        blob[i] = static_cast<uint8_t>(i + 1);
    const int64_t t0 = r.nowNs();
    ASSERT_EQ(bmi08a_load_config_file(&r.acc, blob.data(), static_cast<uint32_t>(blob.size())), BMI08X_OK);
    EXPECT_GE(r.nowNs() - t0, 150000000) << "the feature engine starts in 150 ms";

    // Positions in words: 0 -> (0, 0); 16 bytes = 8 words -> (8, 0); 32 bytes =
    // 16 words -> (0, 1).
    const Expected expected = {
        {0x7C, {0x00}},       {0x59, {0x00}},
        {0x5B, {0x00, 0x00}}, {0x5E, std::vector<uint8_t>(blob.begin(), blob.begin() + 16)},
        {0x5B, {0x08, 0x00}}, {0x5E, std::vector<uint8_t>(blob.begin() + 16, blob.begin() + 32)},
        {0x5B, {0x00, 0x01}}, {0x5E, std::vector<uint8_t>(blob.begin() + 32, blob.end())},
        {0x59, {0x01}},
    };
    EXPECT_EQ(writesOf(*r.bus, 0x18), expected) << describe(writesOf(*r.bus, 0x18));
}

TEST(Bmi08xAccel, ConfigBlobPositionOfALargeFile) {
    DriverRig r;
    std::vector<uint8_t> blob(6144, 0x5A);
    ASSERT_EQ(bmi08a_load_config_file(&r.acc, blob.data(), static_cast<uint32_t>(blob.size())), BMI08X_OK);
    const auto writes = r.bus->writesTo(0x18);
    // 2 + 384 x 2 + 1 writes; the last chunk starts at byte 6128 = word 3064
    // = 0xBF8: low nibble 8, high part 0xBF.
    ASSERT_EQ(writes.size(), 2u + 384u * 2u + 1u);
    const RegWrite& last_position = writes[writes.size() - 3];
    EXPECT_EQ(last_position.reg, 0x5B);
    EXPECT_EQ(last_position.data, (std::vector<uint8_t>{0x08, 0xBF}));
}

TEST(Bmi08xAccel, ConfigBlobOfBadSizeWritesNothing) {
    DriverRig r;
    uint8_t blob[5] = {1, 2, 3, 4, 5};
    EXPECT_EQ(bmi08a_load_config_file(&r.acc, blob, 5), BMI08X_ERR_BLOB);
    EXPECT_EQ(bmi08a_load_config_file(&r.acc, blob, 0), BMI08X_ERR_BLOB);
    EXPECT_EQ(bmi08a_load_config_file(&r.acc, nullptr, 4), BMI08X_ERR_NULL);
    r.acc.read_write_len = 3;
    EXPECT_EQ(bmi08a_load_config_file(&r.acc, blob, 4), BMI08X_ERR_INPUT);
    EXPECT_TRUE(r.bus->writesTo(0x18).empty());
}

// ---------------------------------------------------------------- arbitrary bytes

TEST(Bmi08xFuzz, ExtractTakesAnyBytesWithinItsBounds) {
    uint32_t seed = 12345;
    auto next = [&seed] {
        seed = seed * 1664525u + 1013904223u;
        return seed >> 8;
    };
    uint8_t bytes[64];
    bmi08x_sensor_data out[12];
    for (int round = 0; round < 5000; ++round) {
        for (uint8_t& b : bytes)
            b = static_cast<uint8_t>(next());
        // Now and then an empty-FIFO frame somewhere.
        if (round % 7 == 0) {
            const size_t at = 6 * (next() % 10);
            for (size_t k = 0; k < 6; k += 2) {
                bytes[at + k] = 0x00;
                bytes[at + k + 1] = 0x80;
            }
        }
        bmi08g_fifo_buffer fifo;
        fifo.data = bytes;
        fifo.capacity = static_cast<uint16_t>(next() % 65);
        fifo.length = static_cast<uint16_t>(next() % 200);  // may claim more than the buffer
        const uint8_t room = static_cast<uint8_t>(next() % 13);
        uint8_t n = room;
        ASSERT_EQ(bmi08g_extract_gyro(out, &n, &fifo), BMI08X_OK);
        const size_t usable = std::min<size_t>(fifo.length, fifo.capacity) / 6;
        ASSERT_LE(n, room);
        ASSERT_LE(n, usable);
        for (uint8_t i = 0; i < n; ++i) {
            const uint8_t* f = bytes + 6 * i;
            ASSERT_EQ(static_cast<uint16_t>(out[i].x), f[0] | (f[1] << 8));
            ASSERT_EQ(static_cast<uint16_t>(out[i].z), f[4] | (f[5] << 8));
            ASSERT_EQ(out[i].sync, f[4] & 1);
        }
    }
}

TEST(Bmi08xFuzz, AStatusClaimingMoreFramesThanFitReadsOnlyWhatFits) {
    DriverRig r;
    for (int i = 0; i < 100; ++i)
        r.chipG().pushFrame(1, 2, 3);
    r.chipG().pushFrame(4, 5, 6);  // the 101st: the oldest goes, overrun
    uint8_t buffer[40];
    std::fill(buffer, buffer + sizeof(buffer), 0xEE);
    bmi08g_fifo_buffer fifo;
    fifo.data = buffer;
    fifo.capacity = 38;  // six frames and two spare bytes
    ASSERT_EQ(bmi08g_read_fifo_data(&r.gyro, &fifo), BMI08X_OK);
    EXPECT_EQ(fifo.frames_available, 100);
    EXPECT_EQ(fifo.overrun, 1);
    EXPECT_EQ(fifo.length, 36);
    EXPECT_EQ(buffer[36], 0xEE) << "nothing past the whole frames";
    EXPECT_EQ(buffer[39], 0xEE);
}
