// Faults of the simulated inertial chip: absent, wrong chip id, parts that
// stop producing samples, transfers refused after a while; from the scenario
// configuration and from the run-time setters.
#include <cerrno>

#include "tests/unit/sim/test_sim_bmi08x_support.h"

using namespace bmi08xtest;

namespace {

void bothPartsOn(Bench& b) {
    b.setUpLikeTheReader();
}

}  // namespace

TEST(Bmi08xFaults, AbsentChipAnswersNothing) {
    sim::GmslImuConfig config = exactConfig();
    config.present = false;
    Bench b(config);
    for (uint8_t chip : {kAcc, kGyro}) {
        ASSERT_EQ(platform::sys().ioctlValue(b.fd(), kI2cSlaveForce, chip), 0);
        uint8_t reg = 0;
        errno = 0;
        EXPECT_EQ(platform::sys().write(b.fd(), &reg, 1), -1);
        EXPECT_EQ(errno, ENXIO) << int(chip);
    }
    // The camera EEPROM and its calibration image still answer.
    EXPECT_EQ(b.reg(0x55, 0x04), 0x11);
    EXPECT_EQ(b.reg(0x56, 0x00), 0x33);
    // Plugged in at run time, and out again.
    b.imu().setPresent(true);
    EXPECT_EQ(b.reg(kAcc, 0x00), 0x1E);
    EXPECT_EQ(b.reg(kGyro, 0x00), 0x0F);
    b.imu().setPresent(false);
    errno = 0;
    EXPECT_EQ(b.reg(kGyro, 0x00), -1);
    EXPECT_EQ(errno, ENXIO);
}

TEST(Bmi08xFaults, WrongChipIds) {
    sim::GmslImuConfig config = exactConfig();
    config.accChipId = 0x1F;
    config.gyroChipId = 0x10;
    Bench b(config);
    EXPECT_EQ(b.reg(kAcc, 0x00), 0x1F);
    EXPECT_EQ(b.reg(kGyro, 0x00), 0x10);
    // A soft reset does not make it the right chip.
    ASSERT_TRUE(b.write(kAcc, 0x7E, 0xB6));
    b.advanceMs(2);
    EXPECT_EQ(b.reg(kAcc, 0x00), 0x1F);
    b.imu().setChipIds(0x1E, 0x0F);
    EXPECT_EQ(b.reg(kAcc, 0x00), 0x1E);
    EXPECT_EQ(b.reg(kGyro, 0x00), 0x0F);
}

TEST(Bmi08xFaults, PartsStopProducingAfterAWhile) {
    sim::GmslImuConfig config = exactConfig();
    config.stopAfterSeconds = 2.0;
    Bench b(config);
    bothPartsOn(b);  // the first transfer starts the 2 s
    int framesBefore = 0, accelBefore = 0;
    for (int i = 0; i < 100; ++i) {  // 1 s: samples come
        b.advanceMs(10);
        const int level = b.reg(kGyro, 0x0E) & 0x7F;
        framesBefore += level;
        b.read(kGyro, 0x3F, static_cast<size_t>(level) * 6);
        accelBefore += (b.reg(kAcc, 0x1D) & 0x80) != 0;
    }
    EXPECT_GT(framesBefore, 350);
    EXPECT_GT(accelBefore, 90);
    b.advanceMs(1500);  // past the 2 s: what was produced before stays readable
    int level = b.reg(kGyro, 0x0E) & 0x7F;
    EXPECT_GT(level, 0);
    b.read(kGyro, 0x3F, static_cast<size_t>(level) * 6);
    b.read(kAcc, 0x12, 6);
    b.read(kGyro, 0x02, 6);
    b.reg(kAcc, 0x1D);
    const uint64_t accelProduced = b.imu().accel().samplesProduced();
    const uint64_t gyroProduced = b.imu().gyro().samplesProduced();
    for (int i = 0; i < 100; ++i) {  // then nothing any more, while the chip answers
        b.advanceMs(10);
        EXPECT_EQ(b.reg(kGyro, 0x00), 0x0F);
        EXPECT_EQ(b.reg(kGyro, 0x0E) & 0x7F, 0x00);  // empty (it overran before the stop)
        EXPECT_EQ(b.reg(kGyro, 0x0A) & 0x90, 0x00);
        EXPECT_EQ(b.reg(kAcc, 0x1D), 0x00);
        EXPECT_EQ(b.reg(kAcc, 0x03) & 0x80, 0x00);
    }
    EXPECT_EQ(b.imu().accel().samplesProduced(), accelProduced);
    EXPECT_EQ(b.imu().gyro().samplesProduced(), gyroProduced);
    // Samples up to 2 s after the first transfer: the gyroscope ran at 2 kHz
    // from the end of its reset silence (30 ms) to its configuration (50 ms),
    // then at 400 Hz; the accelerometer at 200 Hz from 50 ms.
    EXPECT_NEAR(static_cast<double>(gyroProduced), 40 + 1.95 * 400, 3);
    EXPECT_NEAR(static_cast<double>(accelProduced), 1.95 * 200, 3);
}

TEST(Bmi08xFaults, StopAtRunTime) {
    Bench b;
    bothPartsOn(b);
    b.advanceMs(100);
    EXPECT_GT(b.reg(kGyro, 0x0E) & 0x7F, 0);
    b.imu().setStopAfter(0);  // from the first transfer: already past
    b.read(kGyro, 0x3F, 600);
    b.advanceMs(100);
    EXPECT_EQ(b.reg(kGyro, 0x0E), 0x00);
    b.imu().setStopAfter(-1);  // running again
    b.advanceMs(100);
    EXPECT_GT(b.reg(kGyro, 0x0E) & 0x7F, 0);
}

TEST(Bmi08xFaults, TransfersRefusedAfterAWhile) {
    sim::GmslImuConfig config = exactConfig();
    config.nackAfterSeconds = 1.5;
    Bench b(config);
    bothPartsOn(b);
    b.advanceMs(1000);
    EXPECT_EQ(b.reg(kAcc, 0x00), 0x1E);
    EXPECT_EQ(b.reg(kGyro, 0x00), 0x0F);
    EXPECT_TRUE(b.write(kGyro, 0x3D, 0x06));
    b.advanceMs(1000);
    for (uint8_t chip : {kAcc, kGyro}) {
        errno = 0;
        EXPECT_EQ(b.reg(chip, 0x00), -1) << int(chip);
        EXPECT_EQ(errno, EREMOTEIO) << int(chip);
        EXPECT_FALSE(b.write(chip, 0x0F, 0x01));
    }
    // Only the inertial chip: the EEPROM answers.
    EXPECT_EQ(b.reg(0x55, 0x04), 0x11);
    EXPECT_GT(b.imu().gyro().refusedTransfers(), 0u);
    b.imu().setNackAfter(-1);
    EXPECT_EQ(b.reg(kGyro, 0x00), 0x0F);
    b.imu().setNackAfter(0);
    EXPECT_EQ(b.reg(kAcc, 0x00), -1);
}
