// The simulated gyroscope's FIFO: frame layout, watermark and FIFO interrupt
// status, overrun in FIFO and stream mode, empty reads, and the external
// frame sync carried in z's least significant bit.
#include "tests/unit/sim/test_sim_bmi08x_support.h"

using namespace bmi08xtest;

namespace {

// 31.25 deg/s at +-1000 deg/s is exactly 1024 counts.
constexpr double kRate = 31.25;
constexpr int16_t kCounts = 1024;

// Gyroscope at 400 Hz and +-1000 deg/s, FIFO in the given mode.
void gyroAt400(Bench& b, uint8_t fifoConfig1) {
    ASSERT_TRUE(b.write(kGyro, 0x0F, 0x01));
    ASSERT_TRUE(b.write(kGyro, 0x10, 0x03));
    ASSERT_TRUE(b.write(kGyro, 0x3E, fifoConfig1));
}

int fifoLevel(Bench& b) {
    const int status = b.reg(kGyro, 0x0E);
    EXPECT_GE(status, 0);
    return status < 0 ? -1 : status & 0x7F;
}

}  // namespace

TEST(Bmi08xFifo, FramesAreXYZLeastSignificantByteFirst) {
    Bench b;
    b.imu().motion().setAngularRate({kRate, -2 * kRate, 3 * kRate});
    gyroAt400(b, 0x40);
    b.advanceMs(6);  // two samples at 400 Hz
    EXPECT_EQ(b.reg(kGyro, 0x0E), 2);
    // 1024, -2048, 3072
    const std::vector<uint8_t> expected = {0x00, 0x04, 0x00, 0xF8, 0x00, 0x0C,
                                           0x00, 0x04, 0x00, 0xF8, 0x00, 0x0C};
    EXPECT_EQ(b.read(kGyro, 0x3F, 12), expected);
    EXPECT_EQ(b.reg(kGyro, 0x0E), 0);
}

TEST(Bmi08xFifo, EmptyFifoReads0x8000) {
    Bench b;
    b.imu().motion().setAngularRate({kRate, kRate, kRate});
    gyroAt400(b, 0x40);
    EXPECT_EQ(b.read(kGyro, 0x3F, 6), (std::vector<uint8_t>{0x00, 0x80, 0x00, 0x80, 0x00, 0x80}));
    // Two frames held, four asked for: two real frames, then the empty pattern.
    b.advanceMs(6);
    ASSERT_EQ(fifoLevel(b), 2);
    const std::vector<Frame> frames = framesOf(b.read(kGyro, 0x3F, 24));
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames[0].x, kCounts);
    EXPECT_EQ(frames[1].z, kCounts);
    for (size_t i = 2; i < 4; ++i) {
        EXPECT_EQ(frames[i].x, -32768);
        EXPECT_EQ(frames[i].y, -32768);
        EXPECT_EQ(frames[i].z, -32768);
    }
}

TEST(Bmi08xFifo, WatermarkSetsTheFifoInterruptStatus) {
    Bench b;
    gyroAt400(b, 0x80);
    ASSERT_TRUE(b.write(kGyro, 0x3D, 0x06));
    ASSERT_TRUE(b.write(kGyro, 0x1E, 0x88));
    bool sawBelow = false, sawAtOrAbove = false;
    // Step 1 ms at a time: bit 4 of GYRO_INT_STAT_1 follows "at least 6 frames".
    for (int ms = 0; ms < 20; ++ms) {
        b.advanceMs(1);
        const int level = fifoLevel(b);
        const int status = b.reg(kGyro, 0x0A);
        ASSERT_GE(status, 0);
        EXPECT_EQ((status & 0x10) != 0, level >= 6) << "level " << level;
        sawBelow |= level < 6;
        sawAtOrAbove |= level >= 6;
    }
    EXPECT_TRUE(sawBelow);
    EXPECT_TRUE(sawAtOrAbove);
    // Reading the frames out clears it.
    const int level = fifoLevel(b);
    ASSERT_GE(level, 6);
    EXPECT_EQ(b.read(kGyro, 0x3F, static_cast<size_t>(level) * 6).size(), static_cast<size_t>(level) * 6);
    EXPECT_EQ(b.reg(kGyro, 0x0A) & 0x10, 0);
    // With the watermark interrupt off (0x08) the status never comes.
    ASSERT_TRUE(b.write(kGyro, 0x1E, 0x08));
    b.advanceMs(40);
    EXPECT_GE(fifoLevel(b), 6);
    EXPECT_EQ(b.reg(kGyro, 0x0A) & 0x10, 0);
}

TEST(Bmi08xFifo, FifoModeKeepsTheOldestStreamModeTheNewest) {
    for (uint8_t mode : {0x40, 0x80}) {
        Bench b;
        b.imu().motion().setAngularRate({kRate, 0, 0});
        gyroAt400(b, mode);
        b.advanceMs(300);  // 120 samples: the 100 frames fill after 250 ms
        EXPECT_EQ(b.reg(kGyro, 0x0E), 0x80 | 100) << int(mode);
        b.imu().motion().setAngularRate({2 * kRate, 0, 0});
        b.advanceMs(300);
        EXPECT_EQ(b.reg(kGyro, 0x0E), 0x80 | 100) << int(mode);
        const std::vector<Frame> frames = framesOf(b.read(kGyro, 0x3F, 600));
        ASSERT_EQ(frames.size(), 100u);
        const int16_t expected = mode == 0x40 ? kCounts : 2 * kCounts;
        for (const Frame& f : frames)
            EXPECT_EQ(f.x, expected) << int(mode);
        // Read out: empty, but the overrun stays until the FIFO is configured.
        EXPECT_EQ(b.reg(kGyro, 0x0E), 0x80);
        ASSERT_TRUE(b.write(kGyro, 0x3E, mode));
        EXPECT_EQ(b.reg(kGyro, 0x0E), 0x00);
    }
}

TEST(Bmi08xFifo, FifoModeTakesNewFramesOnceReadOut) {
    Bench b;
    gyroAt400(b, 0x40);
    b.advanceMs(400);
    ASSERT_EQ(b.reg(kGyro, 0x0E), 0x80 | 100);
    ASSERT_EQ(b.read(kGyro, 0x3F, 600).size(), 600u);
    b.advanceMs(26);  // ten samples
    const int level = fifoLevel(b);
    EXPECT_GE(level, 10);
    EXPECT_LE(level, 11);
}

TEST(Bmi08xFifo, BypassModeHoldsNothing) {
    Bench b;
    b.imu().motion().setAngularRate({kRate, 0, 0});
    gyroAt400(b, 0x00);
    b.advanceMs(100);
    EXPECT_EQ(b.reg(kGyro, 0x0E), 0x00);
    // The data registers still show the newest sample.
    const std::vector<uint8_t> data = b.read(kGyro, 0x02, 6);
    ASSERT_EQ(data.size(), 6u);
    EXPECT_EQ(le16(data, 0), kCounts);
}

namespace {

struct SyncRun {
    int samples = 0;
    int marked = 0;
    int wrong = 0;  // samples whose mark differs from a frame start in its period
};

// Steps the clock by 100 us and reads each gyroscope sample as it arrives; a
// sample that becomes visible at step time a_k was taken in (a_k - 100 us, a_k].
// Frames start every 25 ms (ten samples at 400 Hz), their phase put half a
// sample period after a sample, far from any sample time, so that a frame
// start F falls in the sample period (s_k-1, s_k] exactly when it falls in
// (a_k-1, a_k]. Each sample's z is 1024 with its least significant bit
// replaced by the sync input when the sync is on.
SyncRun runWithFrames(Bench& b, bool expectMarks) {
    SyncRun run;
    const int64_t periodNs = 2500000;
    const int64_t framePeriodNs = 25000000;
    // Find where a sample falls.
    int64_t lastArrival = 0;
    while (fifoLevel(b) == 0)
        b.advanceUs(100);
    lastArrival = b.nowNs();
    b.read(kGyro, 0x3F, 6 * 100);
    const int64_t phase = lastArrival + periodNs / 2;
    b.frameSync().start(framePeriodNs, phase);
    auto frameStartIn = [&](int64_t from, int64_t to) {
        // A frame start F = phase + m * period with from < F <= to.
        for (int64_t m = (from - phase) / framePeriodNs - 1; phase + m * framePeriodNs <= to; ++m) {
            const int64_t f = phase + m * framePeriodNs;
            if (f > from && f <= to)
                return true;
        }
        return false;
    };
    for (int step = 0; step < 5000 && run.samples < 200; ++step) {
        b.advanceUs(100);
        const int level = fifoLevel(b);
        if (level <= 0)
            continue;
        EXPECT_EQ(level, 1);
        const std::vector<Frame> frames = framesOf(b.read(kGyro, 0x3F, 6));
        if (frames.size() != 1)
            break;
        const bool marked = frames[0].z == kCounts + 1;
        EXPECT_TRUE(frames[0].z == kCounts || marked) << frames[0].z;
        const bool expected = expectMarks && frameStartIn(lastArrival, b.nowNs());
        run.wrong += marked != expected;
        run.marked += marked;
        ++run.samples;
        lastArrival = b.nowNs();
    }
    return run;
}

}  // namespace

TEST(Bmi08xFifo, SyncBitMarksTheSampleDuringWhichAFrameStarted) {
    Bench b;
    b.imu().motion().setAngularRate({0, 0, kRate});
    b.setUpLikeTheReader();  // sync on INT3 (FIFO_EXT_INT_S 0x20)
    const SyncRun run = runWithFrames(b, true);
    EXPECT_EQ(run.samples, 200);
    EXPECT_EQ(run.marked, 20);  // one sample in ten
    EXPECT_EQ(run.wrong, 0);
    // The data registers keep z as measured.
    const std::vector<uint8_t> data = b.read(kGyro, 0x06, 2);
    ASSERT_EQ(data.size(), 2u);
    EXPECT_EQ(le16(data, 0), kCounts);
}

TEST(Bmi08xFifo, NoSyncBitWithoutSyncOrWithoutFrames) {
    for (uint8_t extIntS : {0x00, 0x30}) {  // sync off; sync on INT4, which is not wired
        Bench b;
        b.imu().motion().setAngularRate({0, 0, kRate});
        b.setUpLikeTheReader();
        ASSERT_TRUE(b.write(kGyro, 0x34, extIntS));
        const SyncRun run = runWithFrames(b, false);
        EXPECT_EQ(run.samples, 200);
        EXPECT_EQ(run.marked, 0) << int(extIntS);
    }
    Bench b;
    b.imu().motion().setAngularRate({0, 0, kRate});
    b.setUpLikeTheReader();
    b.frameSync().stop();
    int samples = 0;
    for (int step = 0; step < 100; ++step) {
        b.advanceMs(10);
        const int level = fifoLevel(b);
        for (const Frame& f : framesOf(b.read(kGyro, 0x3F, static_cast<size_t>(level) * 6))) {
            EXPECT_EQ(f.z, kCounts);
            ++samples;
        }
    }
    EXPECT_NEAR(samples, 400, 2);
}
