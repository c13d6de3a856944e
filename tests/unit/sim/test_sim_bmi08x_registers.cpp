// The simulated inertial chip's registers, reached through platform::sys() as a
// driver reaches them: chip ids, reset values, soft reset and its silence,
// power modes, data-ready flags, ranges and raw counts, temperature, sensor
// time and the feature-config port. Expected values come from the chip's
// register map, not from the model.
#include <cerrno>
#include <cmath>

#include "tests/unit/sim/test_sim_bmi08x_support.h"

using namespace bmi08xtest;

namespace {

// Degrees Celsius from TEMP_MSB and TEMP_LSB, by the register map's formula.
double degreesOf(uint8_t msb, uint8_t lsb) {
    int t11 = msb * 8 + (lsb >> 5);
    if (t11 > 1023)
        t11 -= 2048;
    return t11 * 0.125 + 23;
}

// Accelerometer on at 100 Hz (ACC_CONF 0xA8) with a range, and one sample taken.
void accelOn(Bench& b, uint8_t range) {
    ASSERT_TRUE(b.write(kAcc, 0x7C, 0x00));
    ASSERT_TRUE(b.write(kAcc, 0x7D, 0x04));
    ASSERT_TRUE(b.write(kAcc, 0x41, range));
    b.advanceMs(25);
}

std::vector<int16_t> accelAxes(Bench& b) {
    std::vector<uint8_t> d = b.read(kAcc, 0x12, 6);
    if (d.size() != 6)
        return {};
    return {le16(d, 0), le16(d, 2), le16(d, 4)};
}

std::vector<int16_t> gyroAxes(Bench& b) {
    std::vector<uint8_t> d = b.read(kGyro, 0x02, 6);
    if (d.size() != 6)
        return {};
    return {le16(d, 0), le16(d, 2), le16(d, 4)};
}

}  // namespace

TEST(Bmi08xRegisters, ChipIdsOnTheForcedAddresses) {
    Bench b;
    EXPECT_EQ(b.reg(kAcc, 0x00), 0x1E);
    EXPECT_EQ(b.reg(kGyro, 0x00), 0x0F);
    // The camera's EEPROM still answers beside them.
    EXPECT_EQ(b.reg(0x55, 0x04), 0x11);
}

TEST(Bmi08xRegisters, AccelerometerResetValues) {
    Bench b;
    EXPECT_EQ(b.reg(kAcc, 0x02), 0x00);  // ACC_ERR_REG: healthy
    EXPECT_EQ(b.reg(kAcc, 0x40), 0xA8);  // ACC_CONF
    EXPECT_EQ(b.reg(kAcc, 0x41), 0x01);  // ACC_RANGE
    EXPECT_EQ(b.reg(kAcc, 0x7C), 0x03);  // ACC_PWR_CONF: suspend
    EXPECT_EQ(b.reg(kAcc, 0x7D), 0x00);  // ACC_PWR_CTRL: off
}

TEST(Bmi08xRegisters, GyroscopeResetValues) {
    Bench b;
    EXPECT_EQ(b.reg(kGyro, 0x0F), 0x00);         // +-2000 deg/s
    EXPECT_EQ(b.reg(kGyro, 0x10) & 0x80, 0x80);  // bit 7 reads as 1
    EXPECT_EQ(b.reg(kGyro, 0x11), 0x00);         // normal mode
    EXPECT_EQ(b.reg(kGyro, 0x1E), 0x08);         // watermark interrupt off
    EXPECT_EQ(b.reg(kGyro, 0x0E), 0x00);         // FIFO empty, no overrun
    EXPECT_EQ(b.reg(kGyro, 0x0A) & 0x10, 0x00);  // no FIFO interrupt
}

TEST(Bmi08xRegisters, AccelerometerSoftResetSilenceAndDefaults) {
    Bench b;
    ASSERT_TRUE(b.write(kAcc, 0x41, 0x03));
    ASSERT_TRUE(b.write(kAcc, 0x40, 0xAB));
    ASSERT_EQ(b.reg(kAcc, 0x41), 0x03);
    ASSERT_TRUE(b.write(kAcc, 0x7E, 0xB6));
    // About 1 ms of silence: well inside it every transfer fails.
    b.advanceUs(300);
    errno = 0;
    EXPECT_EQ(b.reg(kAcc, 0x00), -1);
    EXPECT_EQ(errno, EREMOTEIO);
    EXPECT_FALSE(b.write(kAcc, 0x41, 0x02));
    // The gyroscope is another part: it answers meanwhile.
    EXPECT_EQ(b.reg(kGyro, 0x00), 0x0F);
    b.advanceUs(1700);
    EXPECT_EQ(b.reg(kAcc, 0x00), 0x1E);
    EXPECT_EQ(b.reg(kAcc, 0x41), 0x01);
    EXPECT_EQ(b.reg(kAcc, 0x40), 0xA8);
    EXPECT_EQ(b.reg(kAcc, 0x7C), 0x03);
    // Any other value written to ACC_SOFTRESET does nothing.
    ASSERT_TRUE(b.write(kAcc, 0x41, 0x02));
    ASSERT_TRUE(b.write(kAcc, 0x7E, 0x55));
    EXPECT_EQ(b.reg(kAcc, 0x41), 0x02);
}

TEST(Bmi08xRegisters, GyroscopeSoftResetSilenceAndDefaults) {
    Bench b;
    ASSERT_TRUE(b.write(kGyro, 0x0F, 0x04));
    ASSERT_TRUE(b.write(kGyro, 0x3E, 0x80));
    ASSERT_TRUE(b.write(kGyro, 0x14, 0xB6));
    // About 30 ms of silence.
    b.advanceMs(5);
    EXPECT_EQ(b.reg(kGyro, 0x00), -1);
    b.advanceMs(15);
    EXPECT_EQ(b.reg(kGyro, 0x00), -1);
    EXPECT_EQ(b.reg(kAcc, 0x00), 0x1E);
    b.advanceMs(20);
    EXPECT_EQ(b.reg(kGyro, 0x00), 0x0F);
    EXPECT_EQ(b.reg(kGyro, 0x0F), 0x00);
    EXPECT_EQ(b.reg(kGyro, 0x3E), 0x00);
}

TEST(Bmi08xRegisters, AccelerometerSamplesOnlyWhenActiveAndOn) {
    Bench b;
    auto readyFlags = [&] {
        // ACC_INT_STAT_1 bit 7 and ACC_STATUS bit 7.
        return std::make_pair(b.reg(kAcc, 0x1D) & 0x80, b.reg(kAcc, 0x03) & 0x80);
    };
    b.advanceMs(100);
    EXPECT_EQ(readyFlags(), std::make_pair(0, 0));  // suspended after power-up
    ASSERT_TRUE(b.write(kAcc, 0x7C, 0x00));         // active, but still off
    b.advanceMs(100);
    EXPECT_EQ(readyFlags(), std::make_pair(0, 0));
    ASSERT_TRUE(b.write(kAcc, 0x7D, 0x04));  // on: 100 Hz by the reset ACC_CONF
    b.advanceMs(20);
    EXPECT_EQ(readyFlags(), std::make_pair(0x80, 0x80));
    ASSERT_TRUE(b.write(kAcc, 0x7C, 0x03));  // suspend again
    b.read(kAcc, 0x12, 6);
    readyFlags();
    b.advanceMs(100);
    EXPECT_EQ(readyFlags(), std::make_pair(0, 0));
    // Power on and active in one burst from 0x7C.
    ASSERT_TRUE(b.write(kAcc, 0x7D, 0x00));
    ASSERT_TRUE(b.write(kAcc, 0x7C, std::vector<uint8_t>{0x00, 0x04}));
    EXPECT_EQ(b.reg(kAcc, 0x7D), 0x04);
    b.advanceMs(20);
    EXPECT_EQ(b.reg(kAcc, 0x1D) & 0x80, 0x80);
}

TEST(Bmi08xRegisters, AccelerometerDataReadyFlagsClearAsTheMapSays) {
    Bench b;
    accelOn(b, 0x01);
    // ACC_STATUS keeps drdy until the data registers are read.
    EXPECT_EQ(b.reg(kAcc, 0x03) & 0x80, 0x80);
    EXPECT_EQ(b.reg(kAcc, 0x03) & 0x80, 0x80);
    ASSERT_EQ(b.read(kAcc, 0x12, 6).size(), 6u);
    EXPECT_EQ(b.reg(kAcc, 0x03) & 0x80, 0x00);
    // ACC_INT_STAT_1 is cleared by reading it, not by the data.
    EXPECT_EQ(b.reg(kAcc, 0x1D) & 0x80, 0x80);
    EXPECT_EQ(b.reg(kAcc, 0x1D) & 0x80, 0x00);
    b.advanceMs(11);  // one more sample at 100 Hz
    ASSERT_EQ(b.read(kAcc, 0x12, 6).size(), 6u);
    EXPECT_EQ(b.reg(kAcc, 0x1D) & 0x80, 0x80);
}

TEST(Bmi08xRegisters, AccelerometerCountsFollowTheRange) {
    Bench b;
    // 1 g on z: raw = 1000 mg * 32768 / (1000 * 2^(range + 1) * 1.5).
    const struct {
        uint8_t range;
        int low, high;
    } cases[] = {{0x00, 10922, 10923}, {0x01, 5461, 5462}, {0x02, 2730, 2731}, {0x03, 1365, 1366}};
    for (const auto& c : cases) {
        accelOn(b, c.range);
        const std::vector<int16_t> axes = accelAxes(b);
        ASSERT_EQ(axes.size(), 3u);
        EXPECT_EQ(axes[0], 0) << int(c.range);
        EXPECT_EQ(axes[1], 0) << int(c.range);
        EXPECT_GE(axes[2], c.low) << int(c.range);
        EXPECT_LE(axes[2], c.high) << int(c.range);
    }
    // Upside down, and beyond the range: saturated at int16.
    b.imu().motion().setGravity({0.5, 4.0, -4.0});
    accelOn(b, 0x00);
    const std::vector<int16_t> axes = accelAxes(b);
    ASSERT_EQ(axes.size(), 3u);
    EXPECT_GE(axes[0], 5461);  // 0.5 g of +-3 g
    EXPECT_LE(axes[0], 5462);
    EXPECT_EQ(axes[1], 32767);
    EXPECT_EQ(axes[2], -32768);
}

TEST(Bmi08xRegisters, GyroscopeCountsFollowTheRange) {
    Bench b;
    b.imu().motion().setAngularRate({100, -50, 31.25});
    ASSERT_TRUE(b.write(kGyro, 0x0F, 0x04));  // +-125 deg/s
    b.advanceMs(5);
    std::vector<int16_t> axes = gyroAxes(b);
    ASSERT_EQ(axes.size(), 3u);
    // raw = rate / range * 32768
    EXPECT_GE(axes[0], 26214);
    EXPECT_LE(axes[0], 26215);
    EXPECT_GE(axes[1], -13108);
    EXPECT_LE(axes[1], -13107);
    EXPECT_EQ(axes[2], 8192);
    ASSERT_TRUE(b.write(kGyro, 0x0F, 0x01));  // +-1000 deg/s
    b.advanceMs(5);
    axes = gyroAxes(b);
    ASSERT_EQ(axes.size(), 3u);
    EXPECT_GE(axes[0], 3276);
    EXPECT_LE(axes[0], 3277);
    EXPECT_EQ(axes[2], 1024);
    // Beyond +-125 deg/s: saturated.
    b.imu().motion().setAngularRate({200, -200, 0});
    ASSERT_TRUE(b.write(kGyro, 0x0F, 0x04));
    b.advanceMs(5);
    axes = gyroAxes(b);
    ASSERT_EQ(axes.size(), 3u);
    EXPECT_EQ(axes[0], 32767);
    EXPECT_EQ(axes[1], -32768);
}

TEST(Bmi08xRegisters, TemperatureByTheFormula) {
    Bench b;
    b.imu().motion().setTemperature(25.0);
    std::vector<uint8_t> t = b.read(kAcc, 0x22, 2);
    ASSERT_EQ(t.size(), 2u);
    // 25 degC = 23 + 16 * 0.125: t11 = 16, MSB = 16 >> 3, LSB = (16 & 7) << 5.
    EXPECT_EQ(t[0], 0x02);
    EXPECT_EQ(t[1], 0x00);
    for (double degC : {23.0, 23.125, 24.875, -10.0, -40.5, 85.0, 0.0}) {
        b.imu().motion().setTemperature(degC);
        t = b.read(kAcc, 0x22, 2);
        ASSERT_EQ(t.size(), 2u);
        EXPECT_DOUBLE_EQ(degreesOf(t[0], t[1]), degC) << degC;
        EXPECT_EQ(t[1] & 0x1F, 0) << degC;  // only bits 7:5 of TEMP_LSB carry data
    }
    b.imu().motion().setTemperature(-10.0);
    t = b.read(kAcc, 0x22, 2);
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t[0], 0xDF);  // t11 = -264, as 11 bits 1784
    EXPECT_EQ(t[1], 0x00);
}

TEST(Bmi08xRegisters, SensorTimeCountsAt39us) {
    sim::GmslImuConfig config = exactConfig();
    for (double ppm : {0.0, 400.0}) {
        config.accDriftPpm = ppm;
        Bench b(config);
        auto sensorTime = [&] {
            std::vector<uint8_t> s = b.read(kAcc, 0x18, 3);
            EXPECT_EQ(s.size(), 3u);
            return s.size() == 3 ? static_cast<int64_t>(s[0] | s[1] << 8 | s[2] << 16) : -1;
        };
        const int64_t first = sensorTime();
        b.advanceMs(1000);
        const int64_t second = sensorTime();
        const int64_t ticks = (second - first + (1 << 24)) % (1 << 24);
        const double expected = 1e6 / 39.0625 * (1 + ppm * 1e-6);  // 25600 a second
        EXPECT_NEAR(static_cast<double>(ticks), expected, 1.5) << ppm;
    }
}

TEST(Bmi08xRegisters, AccelerometerConfigAndErrorRegister) {
    Bench b;
    ASSERT_TRUE(b.write(kAcc, 0x40, 0xA9));
    EXPECT_EQ(b.reg(kAcc, 0x40), 0xA9);
    EXPECT_EQ(b.reg(kAcc, 0x02), 0x00);
    // A rate field outside 0x05..0x0C is an invalid configuration: error code 1.
    ASSERT_TRUE(b.write(kAcc, 0x40, 0xA2));
    EXPECT_EQ((b.reg(kAcc, 0x02) >> 2) & 0x07, 1);
    ASSERT_TRUE(b.write(kAcc, 0x40, 0xA8));
    EXPECT_EQ(b.reg(kAcc, 0x02), 0x00);
    // Interrupt pin configuration and mapping keep what was written.
    ASSERT_TRUE(b.write(kAcc, 0x53, 0x0A));
    ASSERT_TRUE(b.write(kAcc, 0x58, 0x04));
    EXPECT_EQ(b.reg(kAcc, 0x53), 0x0A);
    EXPECT_EQ(b.reg(kAcc, 0x58), 0x04);
    // The chip id is read-only.
    ASSERT_TRUE(b.write(kAcc, 0x00, 0x55));
    EXPECT_EQ(b.reg(kAcc, 0x00), 0x1E);
}

TEST(Bmi08xRegisters, FeatureConfigLoadThroughThePort) {
    Bench b;
    ASSERT_TRUE(b.write(kAcc, 0x7C, 0x00));
    ASSERT_TRUE(b.write(kAcc, 0x59, 0x00));
    // One burst of 33 bytes at position 0 (the position registers get
    // (position / 2) & 0x0F and (position / 2) >> 4 in one burst from 0x5B).
    // Were the pointer to move, the last byte would land on ACC_SOFTRESET.
    std::vector<uint8_t> blob;
    for (int i = 0; i < 33; ++i)
        blob.push_back(static_cast<uint8_t>(i % 2 == 0 ? 0xB6 : 0x04));
    ASSERT_TRUE(b.write(kAcc, 0x5B, std::vector<uint8_t>{0x00, 0x00}));
    ASSERT_TRUE(b.write(kAcc, 0x5E, blob));
    // A chunk far out: position 4096 = word 2048: low nibble 0, high byte 128.
    ASSERT_TRUE(b.write(kAcc, 0x5B, std::vector<uint8_t>{0x00, 0x80}));
    ASSERT_TRUE(b.write(kAcc, 0x5E, std::vector<uint8_t>{1, 2, 3, 4}));
    ASSERT_TRUE(b.write(kAcc, 0x59, 0x01));
    // The burst stayed on the port: no register after 0x5E was touched.
    EXPECT_EQ(b.reg(kAcc, 0x00), 0x1E);
    EXPECT_EQ(b.reg(kAcc, 0x7C), 0x00);
    const std::vector<uint8_t> written = b.imu().accel().featureConfig();
    ASSERT_EQ(written.size(), 4100u);
    EXPECT_EQ(std::vector<uint8_t>(written.begin(), written.begin() + 33), blob);
    EXPECT_EQ(written[100], 0x00);  // never written
    EXPECT_EQ(std::vector<uint8_t>(written.begin() + 4096, written.end()),
              (std::vector<uint8_t>{1, 2, 3, 4}));
    EXPECT_EQ(b.imu().accel().featureBytesWritten(), 37u);
    EXPECT_EQ(b.imu().accel().initCtrl(), 1);
    // Read back through the port from position 16.
    ASSERT_TRUE(b.write(kAcc, 0x5B, std::vector<uint8_t>{0x08, 0x00}));
    EXPECT_EQ(b.read(kAcc, 0x5E, 17), std::vector<uint8_t>(blob.begin() + 16, blob.end()));
}

TEST(Bmi08xRegisters, GyroscopeSamplesOnlyInNormalMode) {
    Bench b;
    b.imu().motion().setAngularRate({0, 0, 31.25});
    b.reg(kGyro, 0x00);  // first contact: the gyroscope runs from here
    for (uint8_t mode : {0x80, 0x20}) {
        ASSERT_TRUE(b.write(kGyro, 0x11, mode));
        EXPECT_EQ(b.reg(kGyro, 0x11), mode);
        gyroAxes(b);  // clears new data
        b.advanceMs(50);
        EXPECT_EQ(b.reg(kGyro, 0x0A) & 0x80, 0x00) << int(mode);
    }
    ASSERT_TRUE(b.write(kGyro, 0x11, 0x00));
    b.advanceMs(5);
    EXPECT_EQ(b.reg(kGyro, 0x0A) & 0x80, 0x80);
    const std::vector<int16_t> axes = gyroAxes(b);
    ASSERT_EQ(axes.size(), 3u);
    EXPECT_EQ(axes[2], 512);  // 31.25 of +-2000 deg/s
    EXPECT_EQ(b.reg(kGyro, 0x0A) & 0x80, 0x00);
}
