// Output data rates of the simulated inertial chip over a stepped clock, and
// the drift of the two parts' oscillators. Samples are counted through the
// registers: the accelerometer's data-ready interrupt status, the gyroscope's
// FIFO.
#include "tests/unit/sim/test_sim_bmi08x_support.h"

using namespace bmi08xtest;

namespace {

// Accelerometer samples seen by polling ACC_INT_STAT_1 (cleared on read) every
// pollUs for the given time.
int countAccelSamples(Bench& b, double seconds, int64_t pollUs) {
    int seen = 0;
    const auto polls = static_cast<int64_t>(seconds * 1e6) / pollUs;
    for (int64_t i = 0; i < polls; ++i) {
        b.advanceUs(pollUs);
        const int status = b.reg(kAcc, 0x1D);
        EXPECT_GE(status, 0);
        if (status > 0 && (status & 0x80) != 0)
            ++seen;
    }
    return seen;
}

// Reads the frames the gyroscope's FIFO holds now (FIFO_STATUS, then that
// many frames from FIFO_DATA); returns how many.
int64_t drainGyro(Bench& b) {
    const int status = b.reg(kGyro, 0x0E);
    EXPECT_GE(status, 0);
    if (status < 0)
        return 0;
    EXPECT_EQ(status & 0x80, 0) << "the FIFO overran: read more often";
    const int level = status & 0x7F;
    if (level > 0) {
        EXPECT_EQ(b.read(kGyro, 0x3F, static_cast<size_t>(level) * 6).size(), static_cast<size_t>(level) * 6);
    }
    return level;
}

// Gyroscope frames read every readMs for the given time.
int64_t countGyroFrames(Bench& b, double seconds, double readMs) {
    int64_t frames = 0;
    const auto reads = static_cast<int64_t>(seconds * 1000 / readMs + 0.5);
    for (int64_t i = 0; i < reads; ++i) {
        b.advanceMs(readMs);
        frames += drainGyro(b);
    }
    return frames;
}

void accelOnAt(Bench& b, uint8_t conf) {
    ASSERT_TRUE(b.write(kAcc, 0x7C, 0x00));
    ASSERT_TRUE(b.write(kAcc, 0x7D, 0x04));
    ASSERT_TRUE(b.write(kAcc, 0x40, conf));
    b.reg(kAcc, 0x1D);  // clear the interrupt status
}

void gyroFifoAt(Bench& b, uint8_t bandwidth) {
    ASSERT_TRUE(b.write(kGyro, 0x10, bandwidth));
    ASSERT_TRUE(b.write(kGyro, 0x3E, 0x40));  // FIFO mode, x y z
}

}  // namespace

TEST(Bmi08xSampling, AccelerometerRateFollowsAccConf) {
    const struct {
        uint8_t conf;
        double hz;
    } cases[] = {{0xA5, 12.5}, {0xA8, 100}, {0xA9, 200}, {0x8A, 400}, {0x9B, 800}, {0xAC, 1600}};
    for (const auto& c : cases) {
        Bench b;
        accelOnAt(b, c.conf);
        const uint64_t before = b.imu().accel().samplesProduced();
        const int seen = countAccelSamples(b, 1.0, static_cast<int64_t>(1e6 / c.hz / 4));
        EXPECT_NEAR(seen, c.hz, 1.5) << std::hex << int(c.conf);
        EXPECT_EQ(b.imu().accel().samplesProduced() - before, static_cast<uint64_t>(seen));
        EXPECT_DOUBLE_EQ(b.imu().accel().rateHz(), c.hz);
    }
}

TEST(Bmi08xSampling, GyroscopeRateFollowsBandwidth) {
    const struct {
        uint8_t bandwidth;
        double hz;
    } cases[] = {{0x00, 2000}, {0x01, 2000}, {0x02, 1000}, {0x03, 400},
                 {0x04, 200},  {0x05, 100},  {0x06, 200},  {0x07, 100}};
    for (const auto& c : cases) {
        Bench b;
        gyroFifoAt(b, c.bandwidth);
        const int64_t frames = countGyroFrames(b, 1.0, 20);
        EXPECT_NEAR(static_cast<double>(frames), c.hz, 1.5) << int(c.bandwidth);
        EXPECT_EQ(b.reg(kGyro, 0x10), 0x80 | c.bandwidth);
    }
}

TEST(Bmi08xSampling, FourHundredHertzForOneSecondWithDrift) {
    for (double ppm : {-300.0, 0.0, 300.0}) {
        sim::GmslImuConfig config = exactConfig();
        config.gyroDriftPpm = ppm;
        Bench b(config);
        gyroFifoAt(b, 0x03);
        // 400 * (1 +- 300e-6) = 400 +- 0.12 samples in a second.
        EXPECT_NEAR(static_cast<double>(countGyroFrames(b, 1.0, 50)), 400.0, 1.0) << ppm;
        EXPECT_NEAR(b.imu().gyro().effectiveRateHz(), 400.0 * (1 + ppm * 1e-6), 1e-9);
    }
}

TEST(Bmi08xSampling, DriftMakesThePartsCountsDiffer) {
    sim::GmslImuConfig config = exactConfig();
    config.accDriftPpm = 500;
    config.gyroDriftPpm = -500;
    Bench b(config);
    accelOnAt(b, 0xA9);   // 200 Hz
    gyroFifoAt(b, 0x03);  // 400 Hz
    // 20 s, reading each part as a driver would: the accelerometer every 1 ms,
    // the gyroscope every 50 ms.
    int accel = 0;
    int64_t gyro = 0;
    for (int step = 0; step < 400; ++step) {
        accel += countAccelSamples(b, 0.05, 1000);
        gyro += drainGyro(b);  // what the last 50 ms brought
    }
    // 200 Hz * 20 s * (1 + 500e-6) = 4002; 400 Hz * 20 s * (1 - 500e-6) = 7996.
    EXPECT_NEAR(accel, 4002, 1.5);
    EXPECT_NEAR(static_cast<double>(gyro), 7996, 1.5);
    // Nominally the gyroscope gives exactly twice the accelerometer's samples.
    EXPECT_GE(2 * accel - gyro, 5);
    EXPECT_LE(2 * accel - gyro, 11);
}

TEST(Bmi08xSampling, RateChangeKeepsSampling) {
    Bench b;
    accelOnAt(b, 0xA8);  // 100 Hz
    EXPECT_NEAR(countAccelSamples(b, 0.5, 1000), 50, 1.5);
    ASSERT_TRUE(b.write(kAcc, 0x40, 0xAA));  // 400 Hz
    EXPECT_NEAR(countAccelSamples(b, 0.5, 500), 200, 1.5);
    // An invalid rate keeps the last valid one.
    ASSERT_TRUE(b.write(kAcc, 0x40, 0xA1));
    EXPECT_NEAR(countAccelSamples(b, 0.5, 500), 200, 1.5);
}
