// Two threads read the two parts of the simulated inertial chip at once, each
// on its own descriptor as the GMSL reader does, while a third moves the
// clock. Every transfer must succeed, every value must be whole, and the
// gyroscope's frames must add up to the samples it produced.
#include <atomic>
#include <chrono>
#include <thread>

#include "tests/unit/sim/test_sim_bmi08x_support.h"

using namespace bmi08xtest;

namespace {

// A descriptor of its own on bus 30, addressed to one part.
class PartLink {
public:
    explicit PartLink(uint8_t chip) : fd_(platform::sys().open("/dev/i2c-30", O_RDWR)) {
        ok_ = fd_ >= 0 && platform::sys().ioctlValue(fd_, kI2cSlaveForce, chip) == 0;
    }
    ~PartLink() {
        if (fd_ >= 0)
            platform::sys().close(fd_);
    }
    PartLink(const PartLink&) = delete;
    PartLink& operator=(const PartLink&) = delete;
    bool ok() const { return ok_; }
    bool read(uint8_t reg, uint8_t* out, size_t count) {
        return platform::sys().write(fd_, &reg, 1) == 1 &&
               platform::sys().read(fd_, out, count) == static_cast<ssize_t>(count);
    }

private:
    int fd_;
    bool ok_ = false;
};

// Joins on every way out of the test.
class Joiner {
public:
    explicit Joiner(std::vector<std::thread>& threads) : threads_(threads) {}
    ~Joiner() {
        for (auto& t : threads_)
            if (t.joinable())
                t.join();
    }

private:
    std::vector<std::thread>& threads_;
};

}  // namespace

TEST(Bmi08xThreads, TwoPartsReadConcurrentlyWhileTheClockRuns) {
    sim::GmslImuConfig config = exactConfig();
    config.gyroDriftPpm = -200;
    config.accDriftPpm = 150;
    Bench b(config);
    b.imu().motion().setAngularRate({31.25, -31.25, 62.5});  // 1024, -1024, 2048 counts
    b.setUpLikeTheReader();
    ASSERT_TRUE(b.write(kGyro, 0x3E, 0x40));  // FIFO mode: nothing is lost silently
    ASSERT_TRUE(b.write(kGyro, 0x34, 0x00));  // no sync bit: z stays whole
    // What the gyroscope made before the FIFO took frames (2 kHz after its reset).
    const uint64_t gyroBeforeRun = b.imu().gyro().samplesProduced();

    std::atomic<bool> clockDone{false};
    std::atomic<int> failures{0}, badValues{0}, accelSamples{0};
    std::atomic<int64_t> gyroFrames{0};
    std::vector<std::thread> threads;
    {
        Joiner joiner(threads);
        threads.emplace_back([&] {
            // 2 s of simulated time in 1 ms steps, at a pace the readers can follow.
            for (int step = 0; step < 2000; ++step) {
                b.advanceUs(1000);
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
            clockDone = true;
        });
        threads.emplace_back([&] {
            PartLink acc(kAcc);
            if (!acc.ok()) {
                ++failures;
                return;
            }
            // Until the clock stops, then once more for what came last.
            for (bool last = false; !last;) {
                last = clockDone.load();
                uint8_t status = 0;
                uint8_t data[6] = {};
                if (!acc.read(0x1D, &status, 1) || !acc.read(0x12, data, 6)) {
                    ++failures;
                    continue;
                }
                if (status & 0x80)
                    ++accelSamples;
                const auto z = static_cast<int16_t>(data[4] | data[5] << 8);
                if (z != 0 && (z < 2730 || z > 2731))  // 1 g at +-12 g, once sampling began
                    ++badValues;
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
        });
        threads.emplace_back([&] {
            PartLink gyro(kGyro);
            if (!gyro.ok()) {
                ++failures;
                return;
            }
            for (bool last = false; !last;) {
                last = clockDone.load();
                uint8_t status = 0;
                if (!gyro.read(0x0E, &status, 1)) {
                    ++failures;
                    continue;
                }
                const int level = status & 0x7F;
                if (level > 0) {
                    std::vector<uint8_t> bytes(static_cast<size_t>(level) * 6);
                    if (!gyro.read(0x3F, bytes.data(), bytes.size())) {
                        ++failures;
                        continue;
                    }
                    for (const Frame& f : framesOf(bytes))
                        badValues += f.x != 1024 || f.y != -1024 || f.z != 2048;
                    gyroFrames += level;
                }
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(badValues.load(), 0);
    // 2 s at 200 Hz: the reader saw at most every sample, and most of them.
    const uint64_t accelProduced = b.imu().accel().samplesProduced();
    EXPECT_NEAR(static_cast<double>(accelProduced), 400, 3);
    EXPECT_LE(static_cast<uint64_t>(accelSamples.load()), accelProduced);
    EXPECT_GT(accelSamples.load(), 0);
    // In FIFO mode every frame read was produced; without overrun every
    // produced frame after the setup was read.
    const uint64_t gyroRun = b.imu().gyro().samplesProduced() - gyroBeforeRun;
    EXPECT_NEAR(static_cast<double>(gyroRun), 800 * (1 - 200e-6), 3);  // 2 s at 400 Hz
    EXPECT_LE(static_cast<uint64_t>(gyroFrames.load()), gyroRun);
    if (!b.imu().gyro().fifoOverrun()) {
        EXPECT_EQ(static_cast<uint64_t>(gyroFrames.load()), gyroRun);
    }
}
