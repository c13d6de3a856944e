#pragma once

// A simulated machine with one GMSL camera on I2C bus 30: the identification
// EEPROM at 0x55, the inertial chip (0x18, 0x68) and the calibration image
// (0x56..0x58), on a stepped clock, installed for the test. The chip is
// reached only through platform::sys(), as a driver reaches it.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Platform.h"
#include "platform/Sys.h"
#include "sim/Builtins.h"
#include "sim/Machine.h"
#include "sim/Simulator.h"
#include "sim/SteppedClock.h"
#include "sim/argus/GmslFrameSync.h"
#include "sim/imu/GmslImu.h"

namespace bmi08xtest {

constexpr int kBus = 30;
constexpr unsigned long kI2cSlaveForce = 1798;
constexpr uint8_t kAcc = 0x18;
constexpr uint8_t kGyro = 0x68;
constexpr uint32_t kSerial = 42000123;

// No noise and no drift: values and counts follow the formulas exactly.
inline sim::GmslImuConfig exactConfig() {
    sim::GmslImuConfig c;
    c.accNoiseMg = 0;
    c.gyroNoiseDps = 0;
    c.accDriftPpm = 0;
    c.gyroDriftPpm = 0;
    return c;
}

class Bench {
public:
    explicit Bench(const sim::GmslImuConfig& config = exactConfig())
        : machine_(std::make_shared<sim::Machine>("bmi08x-test")),
          clock_(std::make_shared<sim::SteppedClock>()) {
        machine_->setClock(clock_);
        auto bus = machine_->i2cBus(kBus);
        bus->attach(0x55, sim::makeCameraEeprom(kSerial, 0x11, 4, 1));
        for (uint16_t claimed : {0x1a, 0x40, 0x55})
            bus->claim(claimed);
        imu_ = sim::attachGmslImu(*machine_, kBus, 0x55, kSerial, config);
        scoped_.emplace(sim::makeBackend(machine_));
        fd_ = platform::sys().open("/dev/i2c-30", O_RDWR);
        EXPECT_GE(fd_, 0);
    }
    ~Bench() {
        if (fd_ >= 0)
            platform::sys().close(fd_);
    }
    Bench(const Bench&) = delete;
    Bench& operator=(const Bench&) = delete;

    sim::Machine& machine() { return *machine_; }
    sim::GmslImu& imu() { return *imu_; }
    sim::SteppedClock& clock() { return *clock_; }
    sim::GmslFrameSync& frameSync() { return *sim::GmslFrameSync::of(*machine_, kBus); }
    int fd() const { return fd_; }

    void advanceUs(int64_t us) { clock_->advance(us * 1000); }
    void advanceMs(double ms) { clock_->advance(static_cast<int64_t>(ms * 1e6)); }
    int64_t nowNs() { return clock_->steadyNanoseconds(); }

    // A register write transfer: register number, then the data bytes.
    bool write(uint8_t chip, uint8_t reg, const std::vector<uint8_t>& data) {
        if (platform::sys().ioctlValue(fd_, kI2cSlaveForce, chip) != 0)
            return false;
        std::vector<uint8_t> transfer{reg};
        transfer.insert(transfer.end(), data.begin(), data.end());
        return platform::sys().write(fd_, transfer.data(), transfer.size()) ==
               static_cast<ssize_t>(transfer.size());
    }
    bool write(uint8_t chip, uint8_t reg, uint8_t value) {
        return write(chip, reg, std::vector<uint8_t>{value});
    }

    // The register number, then a read of `count` bytes; empty on failure.
    std::vector<uint8_t> read(uint8_t chip, uint8_t reg, size_t count) {
        if (platform::sys().ioctlValue(fd_, kI2cSlaveForce, chip) != 0)
            return {};
        if (platform::sys().write(fd_, &reg, 1) != 1)
            return {};
        std::vector<uint8_t> out(count);
        if (platform::sys().read(fd_, out.data(), count) != static_cast<ssize_t>(count))
            return {};
        return out;
    }
    // One register, or -1 when the transfer failed.
    int reg(uint8_t chip, uint8_t reg) {
        std::vector<uint8_t> v = read(chip, reg, 1);
        return v.empty() ? -1 : v[0];
    }

    // The reader's setup of the two parts, register by register as the chip's
    // register map gives it: soft resets, accelerometer active at 200 Hz
    // (ACC_CONF 0xA9) and +-12 g, gyroscope normal at 400 Hz (bandwidth 0x03)
    // and +-1000 deg/s, FIFO in stream mode with a watermark of 6 frames, the
    // watermark interrupt on INT4 and external sync on INT3.
    void setUpLikeTheReader() {
        ASSERT_TRUE(write(kAcc, 0x7E, 0xB6));
        ASSERT_TRUE(write(kGyro, 0x14, 0xB6));
        advanceMs(50);
        ASSERT_TRUE(write(kAcc, 0x7C, 0x00));
        ASSERT_TRUE(write(kAcc, 0x7D, 0x04));
        ASSERT_TRUE(write(kAcc, 0x40, 0xA9));
        ASSERT_TRUE(write(kAcc, 0x41, 0x02));
        ASSERT_TRUE(write(kAcc, 0x53, 0x0A));
        ASSERT_TRUE(write(kAcc, 0x58, 0x04));
        ASSERT_TRUE(write(kGyro, 0x11, 0x00));
        ASSERT_TRUE(write(kGyro, 0x0F, 0x01));
        ASSERT_TRUE(write(kGyro, 0x10, 0x03));
        ASSERT_TRUE(write(kGyro, 0x16, 0x00));
        ASSERT_TRUE(write(kGyro, 0x18, 0x20));
        ASSERT_TRUE(write(kGyro, 0x15, 0x40));
        ASSERT_TRUE(write(kGyro, 0x1E, 0x88));
        ASSERT_TRUE(write(kGyro, 0x3D, 0x06));
        ASSERT_TRUE(write(kGyro, 0x3E, 0x80));
        ASSERT_TRUE(write(kGyro, 0x34, 0x20));
    }

private:
    std::shared_ptr<sim::Machine> machine_;
    std::shared_ptr<sim::SteppedClock> clock_;
    std::shared_ptr<sim::GmslImu> imu_;
    std::optional<platform::ScopedBackend> scoped_;
    int fd_ = -1;
};

inline int16_t le16(const std::vector<uint8_t>& bytes, size_t at) {
    return static_cast<int16_t>(static_cast<uint16_t>(bytes[at] | bytes[at + 1] << 8));
}

// One FIFO frame: x, y, z.
struct Frame {
    int16_t x, y, z;
};

inline std::vector<Frame> framesOf(const std::vector<uint8_t>& bytes) {
    std::vector<Frame> out;
    for (size_t at = 0; at + 6 <= bytes.size(); at += 6)
        out.push_back({le16(bytes, at), le16(bytes, at + 2), le16(bytes, at + 4)});
    return out;
}

}  // namespace bmi08xtest
