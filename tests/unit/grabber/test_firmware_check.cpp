// The firmware watch of a streaming camera (sensor register repair, ISP lock
// detection) and the values kept in the camera's SPI flash, against a small
// camera model behind a fake platform::Sys.

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "FakeVendorSys.h"
#include "GrabberTestAccess.h"
#include "bh_input/grabber/linux/linuxStereoGrabber.h"
#include "platform/Platform.h"
#include "sim/SteppedClock.h"
#include "tests/unit/common/LogCapture.h"

using bh::LinuxStereoGrabber;
using bh::LinuxStereoGrabberTestAccess;
using testsupport::FakeVendorSys;
using testsupport::IoctlCall;

namespace {

constexpr int kFd = 9;

uint32_t be32(const std::vector<uint8_t>& p, size_t at) {
    return static_cast<uint32_t>(p[at]) << 24 | static_cast<uint32_t>(p[at + 1]) << 16 |
           static_cast<uint32_t>(p[at + 2]) << 8 | p[at + 3];
}
uint32_t be16(const std::vector<uint8_t>& p, size_t at) {
    return static_cast<uint32_t>(p[at]) << 8 | p[at + 1];
}
uint32_t le24(const std::vector<uint8_t>& p, size_t at) {
    return p[at] | static_cast<uint32_t>(p[at + 1]) << 8 | static_cast<uint32_t>(p[at + 2]) << 16;
}

// A camera as the two control channels see it: system and sensor registers,
// a 128 KiB SPI flash (erased to 0xFF, programming clears bits), and the old
// firmware's version. Replies are built from the last SET_CUR packet.
class FakeCamera {
public:
    std::map<uint32_t, uint8_t> systemRegs;
    std::map<uint32_t, uint8_t> sensorRegs[2];
    std::set<std::pair<int, uint32_t>> failingReads;  // (sensor, register) whose GET_CUR fails
    std::set<uint32_t> failingSystemReads;
    std::vector<uint8_t> flash = std::vector<uint8_t>(0x20000, 0xFF);
    uint32_t oldVersion = 0;
    uint16_t length = 384;

    // What the camera saw.
    std::vector<std::pair<int, uint32_t>> sensorReads;
    std::vector<std::tuple<int, uint32_t, uint8_t>> sensorWrites;
    int flashReads = 0;

    void putFlash(uint32_t address, const std::vector<uint8_t>& bytes) {
        std::copy(bytes.begin(), bytes.end(), flash.begin() + address);
    }

    int answer(const IoctlCall& c, uint8_t* data) {
        if (c.unit == 4)
            return cbs(c, data);
        if (c.unit == 3)
            return old(c, data);
        return ENOENT;
    }

private:
    static int sensorOf(uint8_t command) { return command == 0xA3 ? 0 : command == 0xA5 ? 1 : -1; }

    void eraseSector(uint32_t address) {
        const uint32_t start = address & ~0xFFFu;
        for (uint32_t i = start; i < start + 0x1000 && i < flash.size(); ++i)
            flash[i] = 0xFF;
    }
    void program(uint32_t address, const uint8_t* bytes, size_t n) {
        for (size_t i = 0; i < n && address + i < flash.size(); ++i)
            flash[address + i] &= bytes[i];
    }

    int cbs(const IoctlCall& c, uint8_t* data) {
        if (c.query == 0x85) {
            data[0] = static_cast<uint8_t>(length);
            data[1] = static_cast<uint8_t>(length >> 8);
            return 0;
        }
        if (c.query == 0x01) {
            pending_ = c.bytes;
            const auto& p = pending_;
            const int sensor = sensorOf(p[1]);
            if (p[0] == 0x50 && p[1] == 0xA2)
                systemRegs[be32(p, 5)] = p[16];
            else if (p[0] == 0x50 && sensor >= 0) {
                sensorRegs[sensor][be32(p, 5)] = p[16];
                sensorWrites.emplace_back(sensor, be32(p, 5), p[16]);
            } else if (p[0] == 0x51 && p[1] == 0xA1 && (p[2] == 0x20 || p[2] == 0xC7))
                eraseSector(be32(p, 5));
            else if (p[0] == 0x51 && p[1] == 0xA1 && p[2] == 0x02)
                program(be32(p, 5), p.data() + 16, be16(p, 11));
            return 0;
        }
        if (c.query != 0x81)
            return EINVAL;
        const auto& p = pending_;
        std::fill(data, data + c.size, 0);
        const int sensor = sensorOf(p[1]);
        if (p[0] == 0x51 && p[1] == 0xA2) {
            if (failingSystemReads.count(be32(p, 5)))
                return EIO;
            data[17] = systemRegs[be32(p, 5)];
        } else if (p[0] == 0x51 && sensor >= 0) {
            sensorReads.emplace_back(sensor, be32(p, 5));
            if (failingReads.count({sensor, be32(p, 5)}))
                return EIO;
            data[17] = sensorRegs[sensor][be32(p, 5)];
        } else if (p[0] == 0x51 && p[1] == 0xA1 && p[2] == 0x03) {
            ++flashReads;
            const uint32_t address = be32(p, 5);
            const uint32_t n = be16(p, 11);
            for (uint32_t i = 0; i < n && 17 + i < c.size; ++i)
                data[17 + i] = flash[address + i];
        }
        return 0;
    }

    int old(const IoctlCall& c, uint8_t* data) {
        if (c.query == 0x01) {
            pending_ = c.bytes;
            const auto& p = pending_;
            if (p[0] == 0x09 && p[1] == 0x80)
                eraseSector(le24(p, 3));
            else if (p[0] == 0x09 && p[1] == 0x81)
                oldAddress_ = le24(p, 2);
            else if (p[0] == 0x09 && p[1] == 0x82)
                program(oldAddress_, p.data() + 4, p[2]);
            return 0;
        }
        if (c.query != 0x81)
            return EINVAL;
        const auto& p = pending_;
        std::fill(data, data + c.size, 0);
        if (p[0] == 0x10 && p[1] == 0x02) {
            for (int i = 0; i < 4; ++i)
                data[i] = static_cast<uint8_t>(oldVersion >> (8 * i));
        } else if (p[0] == 0x09 && p[1] == 0x83) {
            // The data from byte 8, each group of four reversed.
            ++flashReads;
            const uint32_t address = le24(p, 2);
            for (int i = 0; i < p[5]; ++i) {
                const int to = 8 + (i / 4) * 4 + (3 - i % 4);
                if (to < c.size)
                    data[to] = flash[address + i];
            }
        }
        return 0;
    }

    std::vector<uint8_t> pending_;
    uint32_t oldAddress_ = 0;
};

class FirmwareTest : public ::testing::Test {
protected:
    void SetUp() override {
        sys->xu = [cam = camera](const IoctlCall& c, uint8_t* data) { return cam->answer(c, data); };
        backend = std::make_unique<platform::ScopedBackend>(
            platform::Backend{sys, nullptr, nullptr, nullptr, clock});
    }
    void TearDown() override {
        grabber.reset();
        backend.reset();
    }
    LinuxStereoGrabber& make(bool cbs, int fps = 15) {
        grabber = std::make_unique<LinuxStereoGrabber>(cbs);
        LinuxStereoGrabberTestAccess::setFd(*grabber, kFd);
        LinuxStereoGrabberTestAccess::setCurrentFps(*grabber, fps);
        LinuxStereoGrabberTestAccess::setFirstFrameSeen(*grabber, true);
        return *grabber;
    }
    // Registers of a healthy, unlocked sensor.
    void healthy(int sensor) {
        auto& r = camera->sensorRegs[sensor];
        r[0x3503] = 0x04;
        r[0x3744] = 0x88;
        r[0x3745] = 0xC0;
        r[0x484A] = 0x10;
        r[0x484B] = 0x20;
        r[0x484C] = 0x30;
        r[0x484D] = 0x40;
    }
    void lockedRegisters(int sensor) {
        for (uint32_t reg = 0x484A; reg <= 0x484D; ++reg)
            camera->sensorRegs[sensor][reg] = 0;
    }
    std::vector<IoctlCall> sets() const {
        std::vector<IoctlCall> out;
        for (const IoctlCall& c : sys->xuCalls())
            if (c.query == 0x01)
                out.push_back(c);
        return out;
    }

    std::shared_ptr<FakeVendorSys> sys = std::make_shared<FakeVendorSys>();
    std::shared_ptr<sim::SteppedClock> clock = std::make_shared<sim::SteppedClock>();
    std::shared_ptr<FakeCamera> camera = std::make_shared<FakeCamera>();
    std::unique_ptr<platform::ScopedBackend> backend;
    std::unique_ptr<LinuxStereoGrabber> grabber;
    testlog::LogCapture log;
};

using Reads = std::vector<std::pair<int, uint32_t>>;

// ---------------------------------------------------------------------------
// Firmware watch

TEST_F(FirmwareTest, FifteenFramesPerSecondChecksAt150And225And300) {
    auto& g = make(true, 15);
    healthy(0);
    healthy(1);
    std::map<unsigned long, Reads> readsAt;
    for (unsigned long frame = 101; frame <= 300; ++frame) {
        camera->sensorReads.clear();
        g.firmwareSanityCheck(frame);
        if (!camera->sensorReads.empty())
            readsAt[frame] = camera->sensorReads;
    }
    const Reads repair1 = {{1, 0x3503}, {1, 0x3744}, {1, 0x3745}};
    const std::map<unsigned long, Reads> expected = {
        // 150: repair of sensor 0 (150 % 150 = 0), lock check of sensor 1 (150 % 300 = 150).
        {150, {{0, 0x3503}, {0, 0x3744}, {0, 0x3745}, {1, 0x484A}, {1, 0x484B}, {1, 0x484C}, {1, 0x484D}}},
        // 225: repair of sensor 1 (225 % 150 = 75).
        {225, repair1},
        // 300: repair and lock check of sensor 0.
        {300, {{0, 0x3503}, {0, 0x3744}, {0, 0x3745}, {0, 0x484A}, {0, 0x484B}, {0, 0x484C}, {0, 0x484D}}},
    };
    EXPECT_EQ(readsAt, expected);
    // Healthy sensors: nothing written, nothing logged, nothing locked.
    EXPECT_TRUE(camera->sensorWrites.empty());
    EXPECT_FALSE(log.contains("[FW]"));
    EXPECT_FALSE(g.isExposureLocked());
}

// The producer calls the check only above frame 100; the check itself is
// purely periodic, and at 30 frames a second its first period (150) lies
// beyond the first 100 frames.
TEST_F(FirmwareTest, FirstHundredFramesAtThirtyFpsCheckNothing) {
    auto& g = make(true, 30);
    healthy(0);
    healthy(1);
    for (unsigned long frame = 1; frame <= 100; ++frame)
        g.firmwareSanityCheck(frame);
    EXPECT_TRUE(sys->calls().empty());
    g.firmwareSanityCheck(150);  // 5 F: repair of sensor 1
    EXPECT_FALSE(sys->calls().empty());
}

TEST_F(FirmwareTest, NothingWithoutCbsOrWithoutAFrameRate) {
    auto& old = make(false, 15);
    for (unsigned long frame = 0; frame <= 600; frame += 75)
        old.firmwareSanityCheck(frame);
    EXPECT_TRUE(sys->calls().empty());

    auto& zero = make(true, 0);
    for (unsigned long frame = 0; frame <= 600; ++frame)
        zero.firmwareSanityCheck(frame);
    auto& negative = make(true, -15);
    for (unsigned long frame = 0; frame <= 600; ++frame)
        negative.firmwareSanityCheck(frame);
    EXPECT_TRUE(sys->xuCalls().empty());
}

TEST_F(FirmwareTest, RepairRewritesLostSensorRegisters) {
    auto& g = make(true, 15);
    healthy(0);
    healthy(1);
    camera->sensorRegs[0][0x3503] = 0x00;
    camera->sensorRegs[0][0x3744] = 0x12;
    g.firmwareSanityCheck(150);
    using W = std::tuple<int, uint32_t, uint8_t>;
    EXPECT_EQ(camera->sensorWrites, (std::vector<W>{W{0, 0x3503, 0x04}, W{0, 0x3744, 0x88}}));
    EXPECT_TRUE(log.has("[FW] Recover Sensor register 0x3744 [Val:18]"));
    EXPECT_FALSE(log.contains("0x3745"));

    // Sensor 1: bit 2 of 0x3503 already set (0x06), 0x3745 lost.
    camera->sensorWrites.clear();
    log.clear();
    camera->sensorRegs[1][0x3503] = 0x06;
    camera->sensorRegs[1][0x3745] = 0x00;
    g.firmwareSanityCheck(225);
    EXPECT_EQ(camera->sensorWrites, (std::vector<W>{W{1, 0x3745, 0xC0}}));
    EXPECT_TRUE(log.has("[FW] Recover Sensor register 0x3745 [Val:0]"));
    EXPECT_FALSE(log.contains("0x3744"));

    // The written packet of the last repair, byte for byte.
    const auto s = sets();
    ASSERT_FALSE(s.empty());
    const std::vector<uint8_t> packet = {0x50, 0xA5, 0x6C, 0x02, 0x01, 0x00, 0x00, 0x37, 0x45,
                                         0x90, 0x01, 0x00, 0x01, 0x00, 0x00, 0x00, 0xC0};
    ASSERT_EQ(s.back().bytes.size(), 384u);
    EXPECT_TRUE(std::equal(packet.begin(), packet.end(), s.back().bytes.begin()));
}

TEST_F(FirmwareTest, AFailedReadSkipsThatRepair) {
    auto& g = make(true, 15);
    camera->sensorRegs[0][0x3503] = 0x00;
    camera->sensorRegs[0][0x3744] = 0x00;
    camera->sensorRegs[0][0x3745] = 0x00;
    camera->failingReads = {{0, 0x3503}, {0, 0x3744}};
    g.firmwareSanityCheck(150);
    using W = std::tuple<int, uint32_t, uint8_t>;
    EXPECT_EQ(camera->sensorWrites, (std::vector<W>{W{0, 0x3745, 0xC0}}));
    EXPECT_FALSE(log.contains("0x3744"));
}

TEST_F(FirmwareTest, OneFailedReadWithThreeZerosCountsAsAllZero) {
    auto& g = make(true, 15);
    healthy(0);
    healthy(1);
    lockedRegisters(0);
    camera->failingReads = {{0, 0x484A}};
    g.firmwareSanityCheck(300);
    EXPECT_EQ(g.lockCount(0), 1);
    EXPECT_FALSE(g.isExposureLocked());
    EXPECT_FALSE(log.contains("ISP locked"));
    // Two checks of the same sensor in a row with zeros: locked.
    g.firmwareSanityCheck(600);
    EXPECT_EQ(g.lockCount(0), 2);
    EXPECT_TRUE(g.isExposureLocked());
    EXPECT_TRUE(log.has("[Capture] ISP locked --> Trigger recovery", spdlog::level::warn));
    // The counter is not reset: the state persists.
    g.firmwareSanityCheck(900);
    EXPECT_EQ(g.lockCount(0), 3);
    EXPECT_TRUE(g.isExposureLocked());
    EXPECT_EQ(g.lockCount(1), 0);
}

TEST_F(FirmwareTest, LockChecksAlternateBetweenSensors) {
    auto& g = make(true, 15);
    healthy(0);
    healthy(1);
    lockedRegisters(1);
    g.firmwareSanityCheck(150);  // sensor 1
    EXPECT_EQ(g.lockCount(1), 1);
    g.firmwareSanityCheck(300);  // sensor 0, healthy
    EXPECT_EQ(g.lockCount(0), 0);
    EXPECT_EQ(g.lockCount(1), 1);
    EXPECT_FALSE(g.isExposureLocked());
    g.firmwareSanityCheck(450);  // sensor 1 again
    EXPECT_EQ(g.lockCount(1), 2);
    EXPECT_TRUE(g.isExposureLocked());
}

TEST_F(FirmwareTest, OneNonZeroValueResetsTheSensorAndClearsTheLock) {
    auto& g = make(true, 15);
    healthy(1);
    lockedRegisters(0);
    camera->sensorRegs[0][0x484C] = 7;
    LinuxStereoGrabberTestAccess::setLockCount(g, 0, 2);
    LinuxStereoGrabberTestAccess::setLockCount(g, 1, 1);
    LinuxStereoGrabberTestAccess::setExposureLocked(g, true);
    g.firmwareSanityCheck(300);
    EXPECT_EQ(g.lockCount(0), 0);
    EXPECT_EQ(g.lockCount(1), 1);
    EXPECT_FALSE(g.isExposureLocked());
    EXPECT_FALSE(log.contains("ISP locked"));
}

TEST_F(FirmwareTest, NoWorkingReadResetsTheSensor) {
    auto& g = make(true, 15);
    lockedRegisters(0);
    camera->failingReads = {{0, 0x484A}, {0, 0x484B}, {0, 0x484C}, {0, 0x484D}};
    LinuxStereoGrabberTestAccess::setLockCount(g, 0, 5);
    LinuxStereoGrabberTestAccess::setExposureLocked(g, true);
    g.firmwareSanityCheck(300);
    EXPECT_EQ(g.lockCount(0), 0);
    EXPECT_FALSE(g.isExposureLocked());
}

// ---------------------------------------------------------------------------
// Serial number

TEST_F(FirmwareTest, SerialIsStoredDigitForDigit) {
    auto& g = make(true);
    camera->putFlash(0x18000, {0x4F, 0x56, 0x00, 0x01, 0x23, 0x45, 0x06, 0x07});
    EXPECT_EQ(g.getKOVSerialNumber(), 12345);
    EXPECT_EQ(camera->flashReads, 1);
    // The read asks for 64 bytes at 0x18000.
    const auto s = sets();
    ASSERT_EQ(s.size(), 1u);
    const std::vector<uint8_t> packet = {0x51, 0xA1, 0x03, 0x00, 0x00, 0x00, 0x01,
                                         0x80, 0x00, 0x90, 0x40, 0x00, 0x40};
    EXPECT_TRUE(std::equal(packet.begin(), packet.end(), s[0].bytes.begin()));
}

TEST_F(FirmwareTest, SerialBeforeTheFirstFrameIsMinusOneOnCbs) {
    auto& g = make(true);
    LinuxStereoGrabberTestAccess::setFirstFrameSeen(g, false);
    camera->putFlash(0x18000, {0x4F, 0x56, 0x00, 0x01, 0x23, 0x45});
    EXPECT_EQ(g.getKOVSerialNumber(), -1);
    EXPECT_EQ(g.getExposureFromFW(), -1);
    EXPECT_TRUE(sys->calls().empty());
}

TEST_F(FirmwareTest, WrongMarkerReadsMinusThreeAfterFourTries) {
    auto& g = make(true);
    camera->putFlash(0x18000, {0x4F, 0x57, 0x00, 0x01, 0x23, 0x45});
    const int64_t start = clock->steadyNanoseconds();
    EXPECT_EQ(g.getKOVSerialNumber(), -3);
    EXPECT_EQ(camera->flashReads, 4);
    // Four reads with their 2 ms delay, and a 100 us pause between two tries.
    EXPECT_EQ(clock->steadyNanoseconds() - start, 4 * 2000000 + 3 * 100000);
}

TEST_F(FirmwareTest, SerialReadRetriesAFailedRead) {
    auto& g = make(true);
    camera->putFlash(0x18000, {0x4F, 0x56, 0x41, 0x00, 0x01, 0x23});
    camera->length = 0;  // GET_LEN answers 0: the first try fails with -4
    int tries = 0;
    sys->xu = [cam = camera, &tries](const IoctlCall& c, uint8_t* data) {
        if (c.query == 0x85 && ++tries == 2)
            cam->length = 384;
        return cam->answer(c, data);
    };
    EXPECT_EQ(g.getKOVSerialNumber(), 41000123);
    EXPECT_EQ(camera->flashReads, 1);
    EXPECT_EQ(tries, 2);
}

TEST_F(FirmwareTest, SerialTextThatDoesNotParseIsMinusOne) {
    auto& g = make(true);
    camera->putFlash(0x18000, {0x4F, 0x56, 0xAB, 0xCD, 0xEF, 0x01});
    EXPECT_EQ(g.getKOVSerialNumber(), -1);
}

TEST_F(FirmwareTest, OldSerialComesBackThroughTheReversedGroups) {
    auto& g = make(false);
    LinuxStereoGrabberTestAccess::setFirstFrameSeen(g, false);  // no first-frame rule on the old channel
    camera->putFlash(0x18000, {0x4F, 0x56, 0x00, 0x01, 0x23, 0x45, 0x06, 0x07});
    EXPECT_EQ(g.getKOVSerialNumber(), 12345);
    const auto s = sets();
    ASSERT_EQ(s.size(), 1u);
    const std::vector<uint8_t> packet = {0x09, 0x83, 0x00, 0x80, 0x01, 0x40};
    EXPECT_TRUE(std::equal(packet.begin(), packet.end(), s[0].bytes.begin()));
}

TEST_F(FirmwareTest, CbsSerialWriteErasesProgramsAndReadsBack) {
    auto& g = make(true);
    camera->putFlash(0x18000, {0x00, 0x00, 0x00, 0x00});  // an old record, bits cleared
    EXPECT_TRUE(g.writeKOVSerialNumber(12345));
    const auto s = sets();
    // Erase, one poll (the sector reads erased at once), program, read back.
    ASSERT_EQ(s.size(), 4u);
    const std::vector<uint8_t> erase = {0x51, 0xA1, 0x20, 0x00, 0x00, 0x00, 0x01, 0x80, 0x00};
    EXPECT_TRUE(std::equal(erase.begin(), erase.end(), s[0].bytes.begin()));
    EXPECT_EQ(s[1].bytes[2], 0x03);
    const std::vector<uint8_t> program = {
        0x51, 0xA1, 0x02, 0x00, 0x00, 0x00, 0x01, 0x80, 0x00, 0x90, 0x20, 0x00, 0x20, 0x00, 0x00, 0x00,
        // the record: "OV", 0x00012345, then the ascending filler
        0x4F, 0x56, 0x00, 0x01, 0x23, 0x45, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10,
        0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C, 0x1D, 0x1E, 0x1F};
    ASSERT_EQ(s[2].bytes.size(), 384u);
    for (size_t i = 0; i < s[2].bytes.size(); ++i)
        EXPECT_EQ(s[2].bytes[i], i < program.size() ? program[i] : 0) << "byte " << i;
    const std::vector<uint8_t> readBack = {0x51, 0xA1, 0x03, 0x00, 0x00, 0x00, 0x01,
                                           0x80, 0x00, 0x90, 0x20, 0x00, 0x20};
    EXPECT_TRUE(std::equal(readBack.begin(), readBack.end(), s[3].bytes.begin()));
    // Only 32 bytes were written.
    EXPECT_EQ(camera->flash[0x1801F], 0x1F);
    EXPECT_EQ(camera->flash[0x18020], 0xFF);
    EXPECT_EQ(g.getKOVSerialNumber(), 12345);
}

TEST_F(FirmwareTest, OldSerialWriteErasesSetsTheAddressAndPrograms) {
    auto& g = make(false);
    EXPECT_TRUE(g.writeKOVSerialNumber(41000123));
    const auto s = sets();
    ASSERT_EQ(s.size(), 3u);
    const std::vector<uint8_t> erase = {0x09, 0x80, 0x01, 0x00, 0x80, 0x01};
    const std::vector<uint8_t> address = {0x09, 0x81, 0x00, 0x80, 0x01};
    const std::vector<uint8_t> program = {0x09, 0x82, 0x20, 0x00, 0x4F, 0x56, 0x41, 0x00, 0x01,
                                          0x23, 0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D,
                                          0x0E, 0x0F, 0x10, 0x11, 0x12, 0x13, 0x14, 0x15, 0x16,
                                          0x17, 0x18, 0x19, 0x1A, 0x1B, 0x1C, 0x1D, 0x1E, 0x1F};
    for (size_t i = 0; i < 64; ++i) {
        EXPECT_EQ(s[0].bytes[i], i < erase.size() ? erase[i] : 0) << "erase byte " << i;
        EXPECT_EQ(s[1].bytes[i], i < address.size() ? address[i] : 0) << "address byte " << i;
        EXPECT_EQ(s[2].bytes[i], i < program.size() ? program[i] : 0) << "program byte " << i;
    }
    EXPECT_EQ(g.getKOVSerialNumber(), 41000123);
}

TEST_F(FirmwareTest, ValuesThatCannotBeStoredAreRefused) {
    auto& g = make(true);
    EXPECT_FALSE(g.writeKOVSerialNumber(-5));
    EXPECT_FALSE(g.writeKOVSerialNumber(100000000));
    EXPECT_FALSE(g.writeExposureInFW(-1));
    EXPECT_TRUE(sys->calls().empty());
}

TEST_F(FirmwareTest, FailedWriteIsFalse) {
    auto& g = make(true);
    g.setDisconnected(true);
    EXPECT_FALSE(g.writeKOVSerialNumber(12345));
    EXPECT_FALSE(g.writeExposureInFW(2500));
}

// ---------------------------------------------------------------------------
// Stored exposure

TEST_F(FirmwareTest, ExposureRoundTripOnBothChannels) {
    auto& g = make(true);
    EXPECT_TRUE(g.writeExposureInFW(2500));
    const std::vector<uint8_t> record = {0x45, 0x50, 0x00, 0x00, 0x25, 0x00, 0x06, 0x07};
    EXPECT_TRUE(std::equal(record.begin(), record.end(), camera->flash.begin() + 0x19000));
    EXPECT_EQ(g.getExposureFromFW(), 2500);

    auto& old = make(false);
    EXPECT_TRUE(old.writeExposureInFW(871));
    EXPECT_EQ(camera->flash[0x19004], 0x08);
    EXPECT_EQ(camera->flash[0x19005], 0x71);
    EXPECT_EQ(old.getExposureFromFW(), 871);
}

TEST_F(FirmwareTest, ExposureWithAWrongMarkerIsMinusOneAfterOneRead) {
    auto& g = make(true);
    camera->putFlash(0x19000, {0x4F, 0x56, 0x00, 0x00, 0x25, 0x00});
    EXPECT_EQ(g.getExposureFromFW(), -1);
    EXPECT_EQ(camera->flashReads, 1);
}

// ---------------------------------------------------------------------------
// Firmware version

TEST_F(FirmwareTest, CbsFirmwareVersionReadsTwoRegistersAsDecimalDigits) {
    auto& g = make(true);
    camera->systemRegs[0x8018FFF0] = 0x05;
    camera->systemRegs[0x8018FFF1] = 0x23;
    EXPECT_EQ(g.getKOVFirmwareVersion(), 1523);
    const auto s = sets();
    ASSERT_EQ(s.size(), 2u);
    const std::vector<uint8_t> high = {0x51, 0xA2, 0x00, 0x04, 0x01, 0x80, 0x18,
                                       0xFF, 0xF0, 0x00, 0x01, 0x00, 0x01};
    const std::vector<uint8_t> low = {0x51, 0xA2, 0x00, 0x04, 0x01, 0x80, 0x18,
                                      0xFF, 0xF1, 0x00, 0x01, 0x00, 0x01};
    EXPECT_TRUE(std::equal(high.begin(), high.end(), s[0].bytes.begin()));
    EXPECT_TRUE(std::equal(low.begin(), low.end(), s[1].bytes.begin()));

    camera->failingSystemReads = {0x8018FFF1};
    EXPECT_EQ(g.getKOVFirmwareVersion(), -1);
}

TEST_F(FirmwareTest, OldFirmwareVersionIsALittleEndianWord) {
    auto& g = make(false);
    camera->oldVersion = 0x00011234;  // reply bytes 0x34 0x12 0x01 0x00
    EXPECT_EQ(g.getKOVFirmwareVersion(), 70196);
    const auto calls = sys->xuCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].unit, 3);
    EXPECT_EQ(calls[0].query, 0x01);
    EXPECT_EQ(calls[0].size, 64);
    for (size_t i = 0; i < 64; ++i)
        EXPECT_EQ(calls[0].bytes[i], i == 0 ? 0x10 : i == 1 ? 0x02 : 0) << i;
    EXPECT_EQ(calls[1].query, 0x81);

    sys->xu = [](const IoctlCall& c, uint8_t*) { return c.query == 0x81 ? EIO : 0; };
    EXPECT_EQ(g.getKOVFirmwareVersion(), -1);
}

// ---------------------------------------------------------------------------
// Frame rate

TEST_F(FirmwareTest, FrameRateIsTheDenominatorOfTheTimePerFrame) {
    auto& g = make(true);
    std::vector<std::pair<uint32_t, uint32_t>> seen;  // (type, capture mode)
    sys->other = [&](unsigned long request, void* arg) {
        if (request != VIDIOC_G_PARM)
            return ENOTTY;
        auto* parm = static_cast<v4l2_streamparm*>(arg);
        seen.emplace_back(parm->type, parm->parm.capture.capturemode);
        parm->parm.capture.timeperframe.numerator = 1;
        parm->parm.capture.timeperframe.denominator = 30;
        return 0;
    };
    EXPECT_EQ(g.input_get_framerate(), 30);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].first, 1u);  // V4L2_BUF_TYPE_VIDEO_CAPTURE
    EXPECT_EQ(seen[0].second, 0x1000u);
    const auto calls = sys->calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].fd, kFd);
    EXPECT_FALSE(log.contains("VIDIOC_G_PARM"));
}

TEST_F(FirmwareTest, FrameRateFailureIsMinusOneAndLogged) {
    auto& g = make(true);
    int asked = 0;
    sys->other = [&](unsigned long request, void*) {
        if (request == VIDIOC_G_PARM)
            ++asked;
        return EINVAL;
    };
    EXPECT_EQ(g.input_get_framerate(), -1);
    EXPECT_EQ(asked, 4);  // xioctl's tries
    EXPECT_TRUE(log.has("VIDIOC_G_PARM - Unable to get timeperframe"));
}

}  // namespace
