// Wire format of the vendor control channel: the old channel (unit 3, fixed
// 64-byte packets through xioctl) and the CBS channel (unit 4, GET_LEN then
// SET_CUR / GET_CUR under control_mutex). Every expected packet and every
// reply below is written out by hand.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <string>
#include <thread>
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
using testsupport::replyAt;
using testsupport::ScriptedXu;

namespace {

constexpr unsigned long kCtrlQuery = 0xC0107521ul;  // UVCIOC_CTRL_QUERY
constexpr int kFd = 7;
constexpr uint8_t kSetCur = 0x01;
constexpr uint8_t kGetCur = 0x81;
constexpr uint8_t kGetLen = 0x85;

// One extension-unit query: the record, and the packet's leading bytes
// followed by zeros up to its size.
void expectQuery(const IoctlCall& c, uint8_t unit, uint8_t query, uint16_t size) {
    EXPECT_EQ(c.fd, kFd);
    EXPECT_EQ(c.request, kCtrlQuery);
    EXPECT_TRUE(c.xu);
    EXPECT_EQ(c.unit, unit);
    EXPECT_EQ(c.selector, 2);
    EXPECT_EQ(c.query, query);
    EXPECT_EQ(c.size, size);
}

void expectPacket(const IoctlCall& c, uint8_t unit, uint16_t size, const std::vector<uint8_t>& head) {
    expectQuery(c, unit, kSetCur, size);
    ASSERT_EQ(c.bytes.size(), size);
    for (size_t i = 0; i < c.bytes.size(); ++i) {
        const uint8_t expected = i < head.size() ? head[i] : 0;
        EXPECT_EQ(c.bytes[i], expected) << "packet byte " << i;
    }
}

class VendorControl : public ::testing::Test {
protected:
    void SetUp() override {
        sys->xu = [s = script](const IoctlCall& c, uint8_t* data) { return (*s)(c, data); };
        backend = std::make_unique<platform::ScopedBackend>(
            platform::Backend{sys, nullptr, nullptr, nullptr, clock});
    }
    void TearDown() override {
        grabber.reset();
        backend.reset();
    }
    LinuxStereoGrabber& make(bool cbs) {
        grabber = std::make_unique<LinuxStereoGrabber>(cbs);
        LinuxStereoGrabberTestAccess::setFd(*grabber, kFd);
        return *grabber;
    }
    std::vector<IoctlCall> queries(uint8_t query) const {
        std::vector<IoctlCall> out;
        for (const IoctlCall& c : sys->xuCalls())
            if (c.query == query)
                out.push_back(c);
        return out;
    }

    std::shared_ptr<FakeVendorSys> sys = std::make_shared<FakeVendorSys>();
    std::shared_ptr<sim::SteppedClock> clock = std::make_shared<sim::SteppedClock>();
    std::shared_ptr<ScriptedXu> script = std::make_shared<ScriptedXu>();
    std::unique_ptr<platform::ScopedBackend> backend;
    std::unique_ptr<LinuxStereoGrabber> grabber;
    testlog::LogCapture log;
};

// ---------------------------------------------------------------------------
// Old channel

TEST_F(VendorControl, OldSystemReadSetsThenGetsAndTakesByteZero) {
    auto& g = make(false);
    script->replies = {{0xAB, 0x01, 0x02}};
    unsigned char v = 0;
    EXPECT_EQ(g.linux_SystemRead(0x12345678, &v), 0);
    EXPECT_EQ(v, 0xAB);
    const auto calls = sys->calls();
    ASSERT_EQ(calls.size(), 2u);
    expectPacket(calls[0], 3, 64, {0x01, 0x78, 0x56, 0x34, 0x12});
    expectQuery(calls[1], 3, kGetCur, 64);
    // 100 us between the write and the read-back.
    EXPECT_EQ(calls[1].atNs - calls[0].atNs, 100000);
}

TEST_F(VendorControl, OldWriteOnlyPackets) {
    auto& g = make(false);
    const unsigned char data[4] = {0xDE, 0xAD, 0xBE, 0xEF};
    struct Case {
        const char* name;
        std::function<int()> call;
        std::vector<uint8_t> packet;
    };
    const std::vector<Case> cases = {
        {"SystemWrite",
         [&] { return g.linux_SystemWrite(0x00A1B2C3, 0x5A); },
         {0x02, 0xC3, 0xB2, 0xA1, 0x00, 0x5A}},
        {"SensorWrite",
         [&] { return g.linux_SensorWrite(0x6C, 0x3002, 0x80, 1, 1); },
         {0x06, 0x02, 0x30, 0x80, 0x6C, 0x01, 0x01}},
        {"AECAGC on", [&] { return g.linux_ISPAECAGCEnable(true); }, {0x07, 0x22, 0x01}},
        {"AECAGC off", [&] { return g.ISPAECAGCEnable(false); }, {0x07, 0x22, 0x00}},
        {"ManualExposure",
         [&] { return g.linux_ISPManualExposure(0x11, 0x22, 0x33, 1); },
         {0x07, 0x24, 0x01, 0x11, 0x22, 0x33}},
        {"ManualGain",
         [&] { return g.linux_ISPManualGain(0x11, 0x22, 0x33, 0); },
         {0x07, 0x25, 0x00, 0x22, 0x33}},
        {"FlashErase",
         [&] { return g.linux_SPI_FlashErase(1, 0x00123456); },
         {0x09, 0x80, 0x01, 0x56, 0x34, 0x12}},
        {"FlashSetAdr", [&] { return g.linux_SPI_FlashSetAdr(0x00018000); }, {0x09, 0x81, 0x00, 0x80, 0x01}},
        {"FlashProgramStart",
         [&] { return g.linux_SPI_FlashProgramStart(data, 4); },
         {0x09, 0x82, 0x04, 0x00, 0xDE, 0xAD, 0xBE, 0xEF}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        sys->clear();
        EXPECT_EQ(c.call(), 0);
        const auto calls = sys->calls();
        ASSERT_EQ(calls.size(), 1u);
        expectPacket(calls[0], 3, 64, c.packet);
    }
}

TEST_F(VendorControl, OldSensorRead) {
    auto& g = make(false);
    script->replies = {{0x88}};
    unsigned char v = 0;
    EXPECT_EQ(g.linux_SensorRead(0x6C, 0x3744, &v, 1, 1), 0);
    EXPECT_EQ(v, 0x88);
    const auto calls = sys->calls();
    ASSERT_EQ(calls.size(), 2u);
    expectPacket(calls[0], 3, 64, {0x05, 0x44, 0x37, 0x6C, 0x01, 0x01});
    expectQuery(calls[1], 3, kGetCur, 64);
}

TEST_F(VendorControl, OldAutoExposureStateIsBitOneOfByteTwo) {
    auto& g = make(false);
    script->replies = {{0x00, 0x00, 0x02}, {0x00, 0x00, 0xFD}};
    EXPECT_TRUE(g.getISPAECAGC());
    EXPECT_FALSE(g.linux_getISPAECAGC());
    const auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 2u);
    expectPacket(sets[0], 3, 64, {0x07, 0x22});
    EXPECT_EQ(queries(kGetCur).size(), 2u);
}

TEST_F(VendorControl, OldExposureAndGainGet) {
    auto& g = make(false);
    script->replies = {{0x12, 0x34, 0x56, 0x78}, {0x9A, 0xBC, 0xDE}};
    unsigned char exposure[4] = {0xEE, 0xEE, 0xEE, 0xEE};
    EXPECT_EQ(g.linux_ISPExposureGet(exposure, 1), 0);
    EXPECT_EQ(exposure[0], 0x12);
    EXPECT_EQ(exposure[1], 0x34);
    EXPECT_EQ(exposure[2], 0x56);
    EXPECT_EQ(exposure[3], 0xEE);
    unsigned char gain[3] = {0xEE, 0xEE, 0xEE};
    EXPECT_EQ(g.linux_ISPGainGet(gain, 0), 0);
    EXPECT_EQ(gain[0], 0x9A);
    EXPECT_EQ(gain[1], 0xBC);
    EXPECT_EQ(gain[2], 0xEE);
    const auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 2u);
    expectPacket(sets[0], 3, 64, {0x07, 0x26, 0x01});
    expectPacket(sets[1], 3, 64, {0x07, 0x27, 0x00});
}

TEST_F(VendorControl, OldFlashReadReversesGroupsOfFour) {
    auto& g = make(false);
    script->replies = {replyAt(64, 8, {0x44, 0x33, 0x22, 0x11, 0x88, 0x77, 0x66, 0x55})};
    unsigned char out[9];
    std::fill(out, out + 9, 0xEE);
    EXPECT_EQ(g.linux_SPI_FlashProgramRead(out, 0x00018000, 8), 0);
    const unsigned char expected[9] = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0xEE};
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(out[i], expected[i]) << i;
    const auto calls = sys->calls();
    ASSERT_EQ(calls.size(), 2u);
    expectPacket(calls[0], 3, 64, {0x09, 0x83, 0x00, 0x80, 0x01, 0x08});
    expectQuery(calls[1], 3, kGetCur, 64);
    // 100 us and the 5 ms delay before the read-back.
    EXPECT_EQ(calls[1].atNs - calls[0].atNs, 5100000);
}

TEST_F(VendorControl, OldFlashReadIsClampedToTheReply) {
    auto& g = make(false);
    std::vector<uint8_t> reply(64);
    for (int i = 0; i < 64; ++i)
        reply[i] = static_cast<uint8_t>(i);
    script->replies = {reply};
    std::vector<unsigned char> out(200, 0xEE);
    EXPECT_EQ(g.linux_SPI_FlashProgramRead(out.data(), 0x00018000, 200), 0);
    // At most 64 bytes are asked for.
    const auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 1u);
    expectPacket(sets[0], 3, 64, {0x09, 0x83, 0x00, 0x80, 0x01, 0x40});
    EXPECT_EQ(out[0], 0x0B);
    EXPECT_EQ(out[1], 0x0A);
    EXPECT_EQ(out[2], 0x09);
    EXPECT_EQ(out[3], 0x08);
    EXPECT_EQ(out[52], 0x3F);
    EXPECT_EQ(out[53], 0x3E);
    EXPECT_EQ(out[54], 0x3D);
    EXPECT_EQ(out[55], 0x3C);
    // Nothing beyond the 64-byte reply is unpacked.
    for (size_t i = 56; i < out.size(); ++i)
        EXPECT_EQ(out[i], 0xEE) << i;
}

TEST_F(VendorControl, OldSetFailureIsRetriedAndLoggedWithTheErrnoText) {
    auto& g = make(false);
    const std::vector<std::pair<int, std::string>> cases = {
        {56, "Request not supported by control"},
        {105, "Buffer size does not match control size"},
        {2, "Extension unit or control not found"},
        {22, "Invalid request code"},
        {5, "Input/output error"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.first);
        sys->clear();
        log.clear();
        script->failSet = c.first;
        EXPECT_EQ(g.linux_SystemWrite(0x10, 1), -1);
        // xioctl tries four times.
        EXPECT_EQ(queries(kSetCur).size(), 4u);
        EXPECT_TRUE(queries(kGetCur).empty());
        EXPECT_TRUE(log.has("SET failed " + c.second + ". (System code: " + std::to_string(c.first) + ")"))
            << testing::PrintToString(log.lines());
    }
}

TEST_F(VendorControl, OldSetSucceedsOnARetry) {
    auto& g = make(false);
    script->failSet = EIO;
    script->setFailuresLeft = 2;
    EXPECT_EQ(g.linux_SystemWrite(0x10, 1), 0);
    EXPECT_EQ(queries(kSetCur).size(), 3u);
    EXPECT_FALSE(log.contains("SET failed"));
}

TEST_F(VendorControl, OldGetFailureGivesMinusTwo) {
    auto& g = make(false);
    script->failGet = ENOENT;
    unsigned char v = 0x42;
    EXPECT_EQ(g.linux_SystemRead(0x10, &v), -2);
    EXPECT_EQ(v, 0x42);
    EXPECT_EQ(queries(kSetCur).size(), 1u);
    EXPECT_EQ(queries(kGetCur).size(), 4u);
    EXPECT_TRUE(log.has("GET failed Extension unit or control not found. (System code: 2)"));
}

TEST_F(VendorControl, OldBadArgumentsTouchNothing) {
    auto& g = make(false);
    const unsigned char data[64] = {};
    EXPECT_EQ(g.linux_SystemRead(0x10, nullptr), -1);
    EXPECT_EQ(g.linux_SensorRead(0x6C, 0x10, nullptr, 1, 0), -1);
    EXPECT_EQ(g.linux_ISPExposureGet(nullptr, 0), -1);
    EXPECT_EQ(g.linux_ISPGainGet(nullptr, 0), -1);
    EXPECT_EQ(g.linux_SPI_FlashProgramRead(nullptr, 0, 8), -1);
    // The data follow a 4-byte header in a 64-byte packet.
    EXPECT_EQ(g.linux_SPI_FlashProgramStart(data, 61), -1);
    EXPECT_EQ(g.linux_SPI_FlashProgramStart(data, -1), -1);
    EXPECT_EQ(g.linux_VendorControl(nullptr, 64, 1), -1);
    EXPECT_TRUE(sys->calls().empty());
}

// ---------------------------------------------------------------------------
// CBS channel

TEST_F(VendorControl, CbsSystemRegisterReadAsksLengthThenSetsThenGets) {
    auto& g = make(true);
    script->replies = {replyAt(384, 17, {0x5A})};
    unsigned char v = 0;
    EXPECT_EQ(g.linux_cbs_read_system_register(0x80181002, &v), 0);
    EXPECT_EQ(v, 0x5A);
    const auto calls = sys->calls();
    ASSERT_EQ(calls.size(), 3u);
    expectQuery(calls[0], 4, kGetLen, 2);
    expectPacket(calls[1], 4, 384,
                 {0x51, 0xA2, 0x00, 0x04, 0x01, 0x80, 0x18, 0x10, 0x02, 0x00, 0x01, 0x00, 0x01});
    expectQuery(calls[2], 4, kGetCur, 384);
    EXPECT_EQ(calls[2].atNs - calls[1].atNs, 300000);
}

TEST_F(VendorControl, CbsExchangeUsesTheDevicesLength) {
    auto& g = make(true);
    script->length = 100;
    script->replies = {replyAt(100, 17, {0x33})};
    unsigned char v = 0;
    EXPECT_EQ(g.linux_cbs_get_gpio_value(2, &v), 0);
    EXPECT_EQ(v, 0x33);
    const auto calls = sys->calls();
    ASSERT_EQ(calls.size(), 3u);
    expectPacket(calls[1], 4, 100, {0x51, 0x13, 0x02});
    expectQuery(calls[2], 4, kGetCur, 100);
}

TEST_F(VendorControl, CbsWriteOnlyPackets) {
    auto& g = make(true);
    const unsigned char data[4] = {0x01, 0x02, 0x03, 0x04};
    struct Case {
        const char* name;
        std::function<int()> call;
        std::vector<uint8_t> packet;
    };
    const std::vector<Case> cases = {
        {"system register",
         [&] { return g.linux_cbs_write_system_register(0x8018FFF0, 0x77); },
         {0x50, 0xA2, 0x00, 0x04, 0x01, 0x80, 0x18, 0xFF, 0xF0, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00, 0x00,
          0x77}},
        {"sensor 1 register",
         [&] { return g.linux_cbs_write_sensor_register(1, 1, 0x3744, 0x88); },
         {0x50, 0xA5, 0x6C, 0x02, 0x01, 0x00, 0x00, 0x37, 0x44, 0x90, 0x01, 0x00, 0x01, 0x00, 0x00, 0x00,
          0x88}},
        {"sensor 0 register, width 2",
         [&] { return g.linux_cbs_write_sensor_register(0, 2, 0x3503, 0x04); },
         {0x50, 0xA3, 0x6C, 0x03, 0x01, 0x00, 0x00, 0x35, 0x03, 0x90, 0x01, 0x00, 0x01, 0x00, 0x00, 0x00,
          0x04}},
        {"gpio direction", [&] { return g.linux_cbs_set_gpio_direction(2, 0); }, {0x50, 0x10, 0x02, 0x00}},
        {"gpio interrupt",
         [&] { return g.linux_cbs_set_gpio_interrupt(3, 1, 2); },
         {0x50, 0x11, 0x01, 0x03, 0x02}},
        {"gpio value", [&] { return g.linux_cbs_set_gpio_value(2, 1); }, {0x50, 0x12, 0x02, 0x01}},
        {"chip erase",
         [&] { return g.linux_cbs_SPI_FlashErase(0, 0x00018000); },
         {0x51, 0xA1, 0xC7, 0x00, 0x00, 0x00, 0x01, 0x80, 0x00}},
        {"program",
         [&] { return g.linux_cbs_SPI_FlashProgramStart(data, 0x00019000, 4); },
         {0x51, 0xA1, 0x02, 0x00, 0x00, 0x00, 0x01, 0x90, 0x00, 0x90,
          0x04, 0x00, 0x04, 0x00, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        sys->clear();
        EXPECT_EQ(c.call(), 0);
        const auto calls = sys->calls();
        ASSERT_EQ(calls.size(), 2u);
        expectQuery(calls[0], 4, kGetLen, 2);
        expectPacket(calls[1], 4, 384, c.packet);
    }
}

TEST_F(VendorControl, CbsSensorRegisterRead) {
    auto& g = make(true);
    script->replies = {replyAt(384, 17, {0x04}), replyAt(384, 17, {0xC0})};
    unsigned char v = 0;
    EXPECT_EQ(g.linux_cbs_read_sensor_register(0, 1, 0x3503, &v), 0);
    EXPECT_EQ(v, 0x04);
    EXPECT_EQ(g.linux_cbs_read_sensor_register(1, 1, 0x3745, &v), 0);
    EXPECT_EQ(v, 0xC0);
    const auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 2u);
    expectPacket(sets[0], 4, 384,
                 {0x51, 0xA3, 0x6C, 0x02, 0x01, 0x00, 0x00, 0x35, 0x03, 0x90, 0x01, 0x00, 0x01});
    expectPacket(sets[1], 4, 384,
                 {0x51, 0xA5, 0x6C, 0x02, 0x01, 0x00, 0x00, 0x37, 0x45, 0x90, 0x01, 0x00, 0x01});
    // Only sensors 0 and 1 exist.
    sys->clear();
    EXPECT_EQ(g.linux_cbs_read_sensor_register(2, 1, 0x3503, &v), -2);
    EXPECT_EQ(g.linux_cbs_write_sensor_register(-1, 1, 0x3503, 4), -2);
    EXPECT_TRUE(sys->calls().empty());
}

TEST_F(VendorControl, CbsFlashReadTakesDataFromByte17WithTheLongDelay) {
    auto& g = make(true);
    script->replies = {replyAt(384, 17, {0x4F, 0x56, 0x00, 0x01, 0x23, 0x45, 0x06, 0x07, 0x99})};
    unsigned char out[9];
    std::fill(out, out + 9, 0xEE);
    EXPECT_EQ(g.linux_cbs_SPI_FlashProgramRead(out, 0x00018000, 8), 0);
    const unsigned char expected[9] = {0x4F, 0x56, 0x00, 0x01, 0x23, 0x45, 0x06, 0x07, 0xEE};
    for (int i = 0; i < 9; ++i)
        EXPECT_EQ(out[i], expected[i]) << i;
    const auto calls = sys->calls();
    ASSERT_EQ(calls.size(), 3u);
    expectPacket(calls[1], 4, 384,
                 {0x51, 0xA1, 0x03, 0x00, 0x00, 0x00, 0x01, 0x80, 0x00, 0x90, 0x08, 0x00, 0x08});
    expectQuery(calls[2], 4, kGetCur, 384);
    EXPECT_EQ(calls[2].atNs - calls[1].atNs, 2000000);
}

TEST_F(VendorControl, CbsFlashReadOf256WorksAnd257IsRefused) {
    auto& g = make(true);
    std::vector<uint8_t> reply(384, 0);
    reply[17] = 0xA0;
    reply[272] = 0xA5;  // 17 + 255
    reply[273] = 0xFF;
    script->replies = {reply};
    std::vector<unsigned char> out(257, 0xEE);
    EXPECT_EQ(g.linux_cbs_SPI_FlashProgramRead(out.data(), 0x00018000, 256), 0);
    EXPECT_EQ(out[0], 0xA0);
    EXPECT_EQ(out[255], 0xA5);
    EXPECT_EQ(out[256], 0xEE);
    const auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 1u);
    expectPacket(sets[0], 4, 384,
                 {0x51, 0xA1, 0x03, 0x00, 0x00, 0x00, 0x01, 0x80, 0x00, 0x91, 0x00, 0x01, 0x00});

    sys->clear();
    EXPECT_EQ(g.linux_cbs_SPI_FlashProgramRead(out.data(), 0x00018000, 257), -1);
    EXPECT_EQ(g.linux_cbs_SPI_FlashProgramRead(out.data(), 0x00018000, -1), -1);
    EXPECT_TRUE(sys->calls().empty());
}

TEST_F(VendorControl, CbsOversizeRequestGivesMinusTwoWithoutIoctl) {
    auto& g = make(true);
    std::vector<unsigned char> buf(400, 0);
    EXPECT_EQ(g.linux_cbs_VendorControl(buf.data(), 385, 1), -2);
    EXPECT_TRUE(sys->calls().empty());
    EXPECT_EQ(g.linux_cbs_VendorControl(buf.data(), 384, 1), 0);
    EXPECT_EQ(sys->calls().size(), 3u);
}

TEST_F(VendorControl, CbsGetLenFailureGivesMinusFour) {
    auto& g = make(true);
    script->failLen = EIO;
    unsigned char v = 0x42;
    EXPECT_EQ(g.linux_cbs_read_system_register(0x80181002, &v), -4);
    EXPECT_EQ(v, 0x42);
    const auto calls = sys->calls();
    ASSERT_EQ(calls.size(), 1u);  // no retry, nothing sent
    expectQuery(calls[0], 4, kGetLen, 2);
}

TEST_F(VendorControl, CbsLengthBeyondTheCallersBufferIsNotSent) {
    auto& g = make(true);
    unsigned char buf[64] = {0x51, 0x13, 0x02};
    script->length = 65;
    EXPECT_EQ(g.linux_cbs_VendorControl(buf, 64, 1), -4);
    script->length = 0;
    EXPECT_EQ(g.linux_cbs_VendorControl(buf, 64, 1), -4);
    EXPECT_TRUE(queries(kSetCur).empty());
    EXPECT_EQ(queries(kGetLen).size(), 2u);
    script->length = 64;
    EXPECT_EQ(g.linux_cbs_VendorControl(buf, 64, 1), 0);
    const auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 1u);
    expectPacket(sets[0], 4, 64, {0x51, 0x13, 0x02});
}

TEST_F(VendorControl, CbsSetFailureIsNotRetriedAndLogsTheLength) {
    auto& g = make(true);
    script->failSet = ENOBUFS;
    EXPECT_EQ(g.linux_cbs_write_system_register(0x80181002, 1), -1);
    EXPECT_EQ(queries(kSetCur).size(), 1u);
    EXPECT_TRUE(log.has("CBS SET failed Buffer size does not match control size. (System code: 105) 384"))
        << testing::PrintToString(log.lines());
    log.clear();
    script->length = 100;
    script->failSet = EBADRQC;
    unsigned char v = 0;
    EXPECT_EQ(g.linux_cbs_read_system_register(0x80181002, &v), -1);
    EXPECT_TRUE(queries(kGetCur).empty());
    EXPECT_TRUE(log.has("CBS SET failed Request not supported by control. (System code: 56) 100"));
}

TEST_F(VendorControl, CbsGetFailureGivesMinusOne) {
    auto& g = make(true);
    script->failGet = EINVAL;
    unsigned char v = 0x42;
    EXPECT_EQ(g.linux_cbs_read_system_register(0x80181002, &v), -1);
    EXPECT_EQ(v, 0x42);
    EXPECT_EQ(queries(kGetCur).size(), 1u);
    EXPECT_TRUE(log.has("CBS GET failed Invalid request code. (System code: 22)"));
}

TEST_F(VendorControl, CbsRegisterAndGpioOperationsNeedCbsFirmware) {
    auto& g = make(false);
    unsigned char v = 0;
    EXPECT_EQ(g.linux_cbs_read_system_register(0x80181002, &v), -1);
    EXPECT_EQ(g.linux_cbs_write_system_register(0x80181002, 1), -1);
    EXPECT_EQ(g.linux_cbs_read_sensor_register(0, 1, 0x3503, &v), -1);
    EXPECT_EQ(g.linux_cbs_write_sensor_register(0, 1, 0x3503, 4), -1);
    EXPECT_EQ(g.linux_cbs_set_gpio_direction(2, 0), -1);
    EXPECT_EQ(g.linux_cbs_set_gpio_interrupt(2, 1, 0), -1);
    EXPECT_EQ(g.linux_cbs_set_gpio_value(2, 1), -1);
    EXPECT_EQ(g.linux_cbs_get_gpio_value(2, &v), -1);
    EXPECT_EQ(g.InitializeSPIQuery(&v, 1), -1);
    EXPECT_TRUE(sys->calls().empty());
}

TEST_F(VendorControl, DisconnectedCbsAnswersMinusThreeWhileTheOldChannelWorks) {
    auto& g = make(true);
    g.setDisconnected(true);
    unsigned char v = 0;
    unsigned char buf[64] = {};
    EXPECT_EQ(g.linux_cbs_VendorControl(buf, 64, 1), -3);
    EXPECT_EQ(g.linux_cbs_read_system_register(0x80181002, &v), -3);
    EXPECT_EQ(g.linux_cbs_write_system_register(0x80181002, 1), -3);
    EXPECT_EQ(g.linux_cbs_read_sensor_register(0, 1, 0x3503, &v), -3);
    EXPECT_EQ(g.linux_cbs_write_sensor_register(1, 1, 0x3503, 4), -3);
    EXPECT_EQ(g.linux_cbs_set_gpio_direction(2, 0), -3);
    EXPECT_EQ(g.linux_cbs_set_gpio_interrupt(2, 1, 0), -3);
    EXPECT_EQ(g.linux_cbs_set_gpio_value(2, 1), -3);
    EXPECT_EQ(g.linux_cbs_get_gpio_value(2, &v), -3);
    EXPECT_EQ(g.linux_cbs_SPI_FlashErase(0, 0x18000), -3);
    EXPECT_EQ(g.linux_cbs_SPI_FlashProgramStart(buf, 0x18000, 32), -3);
    EXPECT_EQ(g.linux_cbs_SPI_FlashProgramRead(buf, 0x18000, 64), -3);
    EXPECT_EQ(g.InitializeSPIQuery(buf, 64), -3);
    EXPECT_EQ(g.linux_cbs_is_aecagc(0), -3);
    EXPECT_EQ(g.linux_cbs_ispaecagc_enable(1, true), -3);
    // Composites add their steps: any non-zero sum is a failure.
    EXPECT_NE(g.setLEDValue(true), 0);
    EXPECT_NE(g.getLEDValue(&v), 0);
    EXPECT_NE(g.ISPAECAGCEnable(true), 0);
    EXPECT_FALSE(g.getISPAECAGC());
    // A sector erase polls the flash; every poll fails, so it ends with -2.
    EXPECT_EQ(g.linux_cbs_SPI_FlashErase(1, 0x18000), -2);
    EXPECT_TRUE(sys->calls().empty());

    // The old channel is not affected.
    script->replies = {{0x21}};
    EXPECT_EQ(g.linux_SystemRead(0x10, &v), 0);
    EXPECT_EQ(v, 0x21);
    const auto calls = sys->calls();
    ASSERT_EQ(calls.size(), 2u);
    expectPacket(calls[0], 3, 64, {0x01, 0x10});

    // Cleared, the CBS channel answers again.
    g.setDisconnected(false);
    EXPECT_EQ(g.linux_cbs_write_system_register(0x80181002, 1), 0);
}

TEST_F(VendorControl, SectorErasePollsUntilTheSectorReadsErased) {
    auto& g = make(true);
    script->replies = {replyAt(384, 17, {0x00}), replyAt(384, 17, {0x12}), replyAt(384, 17, {0xFF})};
    const int64_t start = clock->steadyNanoseconds();
    EXPECT_EQ(g.linux_cbs_SPI_FlashErase(1, 0x00018000), 0);
    const auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 4u);
    expectPacket(sets[0], 4, 384, {0x51, 0xA1, 0x20, 0x00, 0x00, 0x00, 0x01, 0x80, 0x00});
    for (int i = 1; i < 4; ++i)
        expectPacket(sets[i], 4, 384,
                     {0x51, 0xA1, 0x03, 0x00, 0x00, 0x00, 0x01, 0x80, 0x00, 0x90, 0x40, 0x00, 0x40});
    EXPECT_EQ(queries(kGetCur).size(), 3u);
    const int64_t elapsed = clock->steadyNanoseconds() - start;
    EXPECT_GE(elapsed, 300000000);  // three 100 ms waits
    EXPECT_LT(elapsed, 400000000);
}

TEST_F(VendorControl, SectorEraseGivesUpAfterOneHundredPolls) {
    auto& g = make(true);
    const int64_t start = clock->steadyNanoseconds();
    EXPECT_EQ(g.linux_cbs_SPI_FlashErase(1, 0x00018000), -2);
    EXPECT_EQ(queries(kGetCur).size(), 100u);
    EXPECT_EQ(queries(kSetCur).size(), 101u);
    EXPECT_GE(clock->steadyNanoseconds() - start, 10000000000LL);
}

TEST_F(VendorControl, EraseOfAnotherKindDoesNothing) {
    auto& g = make(true);
    EXPECT_EQ(g.linux_cbs_SPI_FlashErase(2, 0x00018000), 0);
    EXPECT_EQ(g.linux_cbs_SPI_FlashErase(-1, 0x00018000), 0);
    EXPECT_TRUE(sys->calls().empty());
}

TEST_F(VendorControl, AutoExposureBitOfEachSensor) {
    auto& g = make(true);
    EXPECT_EQ(g.linux_cbs_is_aecagc(2), -2);
    EXPECT_EQ(g.linux_cbs_is_aecagc(-1), -2);
    EXPECT_EQ(g.linux_cbs_ispaecagc_enable(2, true), -2);
    EXPECT_TRUE(sys->calls().empty());

    script->replies = {replyAt(384, 17, {0x10}), replyAt(384, 17, {0xEF})};
    EXPECT_EQ(g.linux_cbs_is_aecagc(0), 1);
    EXPECT_EQ(g.linux_cbs_is_aecagc(1), 0);
    const auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 2u);
    expectPacket(sets[0], 4, 384,
                 {0x51, 0xA2, 0x00, 0x04, 0x01, 0x80, 0x18, 0x10, 0x02, 0x00, 0x01, 0x00, 0x01});
    expectPacket(sets[1], 4, 384,
                 {0x51, 0xA2, 0x00, 0x04, 0x01, 0x80, 0x18, 0x18, 0x02, 0x00, 0x01, 0x00, 0x01});
}

TEST_F(VendorControl, AutoExposureEnableIsAReadModifyWriteOfBitFour) {
    auto& g = make(true);
    script->replies = {replyAt(384, 17, {0x03}), replyAt(384, 17, {0xFF})};
    EXPECT_EQ(g.linux_cbs_ispaecagc_enable(1, true), 0);
    EXPECT_EQ(g.linux_cbs_ispaecagc_enable(0, false), 0);
    const auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 4u);
    expectPacket(sets[1], 4, 384,
                 {0x50, 0xA2, 0x00, 0x04, 0x01, 0x80, 0x18, 0x18, 0x02, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00,
                  0x00, 0x13});
    expectPacket(sets[3], 4, 384,
                 {0x50, 0xA2, 0x00, 0x04, 0x01, 0x80, 0x18, 0x10, 0x02, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00,
                  0x00, 0xEF});

    // Without the current value nothing is written.
    sys->clear();
    script->failGet = EIO;
    EXPECT_EQ(g.linux_cbs_ispaecagc_enable(0, true), -1);
    EXPECT_EQ(queries(kSetCur).size(), 1u);
}

TEST_F(VendorControl, CbsAutoExposureCoversBothSensors) {
    auto& g = make(true);
    script->replies = {replyAt(384, 17, {0x00}), replyAt(384, 17, {0x01})};
    EXPECT_EQ(g.ISPAECAGCEnable(true), 0);
    const auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 4u);
    EXPECT_EQ(sets[0].bytes[1], 0xA2);
    EXPECT_EQ(sets[0].bytes[7], 0x10);  // sensor 0 first
    EXPECT_EQ(sets[1].bytes[0], 0x50);
    EXPECT_EQ(sets[1].bytes[16], 0x10);
    EXPECT_EQ(sets[2].bytes[7], 0x18);
    EXPECT_EQ(sets[3].bytes[7], 0x18);
    EXPECT_EQ(sets[3].bytes[16], 0x11);

    script->replies = {replyAt(384, 17, {0x10}), replyAt(384, 17, {0x10})};
    EXPECT_TRUE(g.getISPAECAGC());
    script->replies = {replyAt(384, 17, {0x10}), replyAt(384, 17, {0x00})};
    EXPECT_FALSE(g.linux_getISPAECAGC());
}

TEST_F(VendorControl, LedIsGpioTwo) {
    auto& g = make(true);
    EXPECT_EQ(g.setLEDValue(true), 0);
    EXPECT_EQ(g.setLEDValue(false), 0);
    auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 4u);
    expectPacket(sets[0], 4, 384, {0x50, 0x10, 0x02, 0x00});
    expectPacket(sets[1], 4, 384, {0x50, 0x12, 0x02, 0x01});
    expectPacket(sets[2], 4, 384, {0x50, 0x10, 0x02, 0x00});
    expectPacket(sets[3], 4, 384, {0x50, 0x12, 0x02, 0x00});

    sys->clear();
    script->replies = {replyAt(384, 17, {0x01})};
    unsigned char v = 0;
    EXPECT_EQ(g.getLEDValue(&v), 0);
    EXPECT_EQ(v, 0x01);
    sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 2u);
    expectPacket(sets[0], 4, 384, {0x50, 0x10, 0x02, 0x01});
    expectPacket(sets[1], 4, 384, {0x51, 0x13, 0x02});
    EXPECT_EQ(queries(kGetCur).size(), 1u);
}

TEST_F(VendorControl, SpiQueryReadsFlashAddressZero) {
    auto& g = make(true);
    script->replies = {replyAt(384, 17, {0xC2, 0x20, 0x16})};
    unsigned char out[16] = {};
    EXPECT_EQ(g.InitializeSPIQuery(out, 16), 0);
    EXPECT_EQ(out[0], 0xC2);
    EXPECT_EQ(out[1], 0x20);
    EXPECT_EQ(out[2], 0x16);
    const auto sets = queries(kSetCur);
    ASSERT_EQ(sets.size(), 1u);
    expectPacket(sets[0], 4, 384,
                 {0x51, 0xA1, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x90, 0x10, 0x00, 0x10});
}

// Two threads asking at once: control_mutex keeps every CBS exchange whole, so
// no two extension-unit queries are ever in flight together.
TEST_F(VendorControl, CbsRequestsFromTwoThreadsNeverOverlap) {
    auto& g = make(true);
    sys->hold = std::chrono::microseconds(20);
    std::atomic<int> failures{0};
    auto worker = [&](uint32_t address) {
        for (int i = 0; i < 100; ++i) {
            unsigned char v = 0;
            if (g.linux_cbs_read_system_register(address, &v) != 0)
                ++failures;
        }
    };
    std::thread a(worker, 0x80181002u);
    std::thread b(worker, 0x80181802u);
    a.join();
    b.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(sys->xuCalls().size(), 600u);
    EXPECT_FALSE(sys->overlapped());
}

// The overlap detector itself: two queries made directly, the first held open
// until the second has started, are seen as overlapping.
TEST_F(VendorControl, OverlapDetectorSeesUnserialisedQueries) {
    std::atomic<int> entered{0};
    sys->whileInFlight = [&] {
        ++entered;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (entered.load() < 2 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
    };
    auto query = [] {
        unsigned char len[2] = {};
        uvc_xu_control_query q{};
        q.unit = 4;
        q.selector = 2;
        q.query = 0x85;
        q.size = 2;
        q.data = len;
        platform::sys().ioctl(kFd, kCtrlQuery, &q);
    };
    std::thread a(query);
    std::thread b(query);
    a.join();
    b.join();
    EXPECT_TRUE(sys->overlapped());
}

}  // namespace
