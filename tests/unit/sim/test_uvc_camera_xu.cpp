// The simulated camera's vendor control channels, packet by packet: requests
// written by hand as the control channel's table gives them, replies checked
// byte for byte.
#include <linux/usb/video.h>

#include <initializer_list>

#include "tests/unit/sim/uvc_test_support.h"

using uvctest::Rig;
using uvctest::Stream;
using uvctest::xu;

namespace {

std::vector<uint8_t> packet(size_t size, std::initializer_list<std::pair<size_t, uint8_t>> bytes) {
    std::vector<uint8_t> p(size, 0);
    for (const auto& b : bytes)
        p[b.first] = b.second;
    return p;
}

// CBS: SET_CUR with the control's own length, then (for reads) GET_CUR.
std::vector<uint8_t> cbs(int fd, std::vector<uint8_t> p, bool read = true) {
    EXPECT_EQ(xu(fd, 4, UVC_SET_CUR, p.data(), 384), 0);
    if (read) {
        EXPECT_EQ(xu(fd, 4, UVC_GET_CUR, p.data(), 384), 0);
    }
    return p;
}

std::vector<uint8_t> cbsSystemRead(uint32_t a) {
    return packet(384, {{0, 0x51},
                        {1, 0xA2},
                        {3, 0x04},
                        {4, 0x01},
                        {5, uint8_t(a >> 24)},
                        {6, uint8_t(a >> 16)},
                        {7, uint8_t(a >> 8)},
                        {8, uint8_t(a)},
                        {10, 0x01},
                        {12, 0x01}});
}

std::vector<uint8_t> cbsSensor(bool write, int sensor, uint16_t reg, uint8_t value = 0) {
    return packet(384, {{0, write ? 0x50 : 0x51},
                        {1, sensor == 0 ? 0xA3 : 0xA5},
                        {2, 0x6C},
                        {3, 0x02},
                        {4, 0x01},
                        {7, uint8_t(reg >> 8)},
                        {8, uint8_t(reg)},
                        {9, 0x90},
                        {10, 0x01},
                        {12, 0x01},
                        {16, value}});
}

std::vector<uint8_t> cbsFlash(uint8_t op, uint32_t a, uint16_t size) {
    const uint16_t len = static_cast<uint16_t>(0x9000 + size);
    return packet(384, {{0, 0x51},
                        {1, 0xA1},
                        {2, op},
                        {5, uint8_t(a >> 24)},
                        {6, uint8_t(a >> 16)},
                        {7, uint8_t(a >> 8)},
                        {8, uint8_t(a)},
                        {9, uint8_t(len >> 8)},
                        {10, uint8_t(len)},
                        {11, uint8_t(size >> 8)},
                        {12, uint8_t(size)}});
}

std::vector<uint8_t> old(int fd, std::vector<uint8_t> p, bool read = true) {
    EXPECT_EQ(xu(fd, 3, UVC_SET_CUR, p.data(), 64), 0);
    if (read) {
        EXPECT_EQ(xu(fd, 3, UVC_GET_CUR, p.data(), 64), 0);
    }
    return p;
}

struct Node {
    int fd;
    Node() : fd(platform::sys().open("/dev/video0", O_RDWR)) {}
    ~Node() { platform::sys().close(fd); }
};

}  // namespace

TEST(UvcCameraCbs, UnitLengthAndErrors) {
    Rig rig("\"firmware_version\": 1523");
    Node n;
    ASSERT_GE(n.fd, 0);
    uint8_t len[2] = {};
    ASSERT_EQ(xu(n.fd, 4, UVC_GET_LEN, len, 2), 0);
    EXPECT_EQ(len[0], 0x80);  // 384, little-endian
    EXPECT_EQ(len[1], 0x01);
    uint8_t info = 0;
    ASSERT_EQ(xu(n.fd, 4, UVC_GET_INFO, &info, 1), 0);
    EXPECT_EQ(info, 0x03);
    std::vector<uint8_t> p(384);
    EXPECT_EQ(xu(n.fd, 3, UVC_SET_CUR, p.data(), 64), -1);  // CBS firmware has no unit 3
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(xu(n.fd, 4, UVC_SET_CUR, p.data(), 64), -1);  // not the control's length
    EXPECT_EQ(errno, ENOBUFS);
    uvc_xu_control_query q{4, 1, UVC_GET_CUR, 384, p.data()};
    EXPECT_EQ(platform::sys().ioctl(n.fd, UVCIOC_CTRL_QUERY, &q), -1);  // selector 1
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(xu(n.fd, 4, 0x42, p.data(), 384), -1);
    EXPECT_EQ(errno, EINVAL);
}

TEST(UvcCameraCbs, SystemAndSensorRegisters) {
    Rig rig("\"firmware_version\": 1523, \"temperature\": 41");
    Node n;
    // Version 1523: registers 0x05 and 0x23.
    EXPECT_EQ(cbs(n.fd, cbsSystemRead(0x8018FFF0))[17], 0x05);
    EXPECT_EQ(cbs(n.fd, cbsSystemRead(0x8018FFF1))[17], 0x23);
    // ISP control: auto exposure (bit 4) on at power-on; write it off on sensor 1.
    EXPECT_EQ(cbs(n.fd, cbsSystemRead(0x80181002))[17] & 0x10, 0x10);
    auto w = packet(384, {{0, 0x50},
                          {1, 0xA2},
                          {3, 0x04},
                          {4, 0x01},
                          {5, 0x80},
                          {6, 0x18},
                          {7, 0x18},
                          {8, 0x02},
                          {10, 0x01},
                          {12, 0x01},
                          {16, 0x00}});
    cbs(n.fd, w, false);
    EXPECT_EQ(cbs(n.fd, cbsSystemRead(0x80181802))[17], 0x00);
    EXPECT_FALSE(rig.camera()->firmware()->autoExposure(1));
    EXPECT_TRUE(rig.camera()->firmware()->autoExposure(0));

    auto r = cbs(n.fd, cbsSensor(false, 0, 0x3744));
    EXPECT_EQ(r[17], 0x88);
    EXPECT_EQ(r[0], 0x51);  // the header comes back as it went
    EXPECT_EQ(cbs(n.fd, cbsSensor(false, 1, 0x3745))[17], 0xC0);
    EXPECT_EQ(cbs(n.fd, cbsSensor(false, 0, 0x3503))[17] & 0x04, 0x04);
    for (uint16_t reg = 0x484A; reg <= 0x484D; ++reg)
        EXPECT_NE(cbs(n.fd, cbsSensor(false, 1, reg))[17], 0) << std::hex << reg;
    cbs(n.fd, cbsSensor(true, 1, 0x350A, 0x12), false);
    EXPECT_EQ(rig.camera()->firmware()->sensorRegister(1, 0x350A), 0x12);
    EXPECT_EQ(rig.camera()->firmware()->sensorRegister(0, 0x350A), 0x00);
    // Temperature: write 1 to 0x4D12, then 0x4D13 reads 41 + 64.
    cbs(n.fd, cbsSensor(true, 0, 0x4D12, 1), false);
    EXPECT_EQ(cbs(n.fd, cbsSensor(false, 0, 0x4D13))[17], 105);
    // Sync output: bit 7 of 0x3002 set by a read-modify-write.
    uint8_t v = cbs(n.fd, cbsSensor(false, 0, 0x3002))[17];
    cbs(n.fd, cbsSensor(true, 0, 0x3002, uint8_t(v | 0x80)), false);
    EXPECT_EQ(cbs(n.fd, cbsSensor(false, 0, 0x3002))[17] & 0x80, 0x80);
}

TEST(UvcCameraCbs, LedOnGpio2) {
    Rig rig("");
    Node n;
    cbs(n.fd, packet(384, {{0, 0x50}, {1, 0x10}, {2, 2}, {3, 0}}), false);  // output
    cbs(n.fd, packet(384, {{0, 0x50}, {1, 0x12}, {2, 2}, {3, 1}}), false);  // on
    EXPECT_EQ(rig.camera()->firmware()->gpioValue(2), 1);
    cbs(n.fd, packet(384, {{0, 0x50}, {1, 0x10}, {2, 2}, {3, 1}}), false);  // input, then read
    EXPECT_EQ(cbs(n.fd, packet(384, {{0, 0x51}, {1, 0x13}, {2, 2}}))[17], 1);
    EXPECT_EQ(rig.camera()->firmware()->gpioDirection(2), 1);
    cbs(n.fd, packet(384, {{0, 0x50}, {1, 0x12}, {2, 2}, {3, 0}}), false);
    EXPECT_EQ(cbs(n.fd, packet(384, {{0, 0x51}, {1, 0x13}, {2, 2}}))[17], 0);
}

TEST(UvcCameraCbs, FlashRecordsEraseProgramRead) {
    Rig rig("\"flash_serial\": 12345, \"flash_exposure\": 800, \"flash_erase_polls\": 3");
    Node n;
    // Serial record: "OV", 00 01 23 45, then the filler 06..1F; erased after 32 bytes.
    auto r = cbs(n.fd, cbsFlash(0x03, 0x18000, 64));
    const std::vector<uint8_t> head = {'O', 'V', 0x00, 0x01, 0x23, 0x45, 0x06, 0x07};
    EXPECT_EQ(std::vector<uint8_t>(r.begin() + 17, r.begin() + 25), head);
    EXPECT_EQ(r[17 + 31], 0x1F);
    EXPECT_EQ(r[17 + 32], 0xFF);
    r = cbs(n.fd, cbsFlash(0x03, 0x19000, 8));
    EXPECT_EQ(std::vector<uint8_t>(r.begin() + 17, r.begin() + 23),
              (std::vector<uint8_t>{'E', 'P', 0, 0, 0x08, 0}));
    // First flash byte.
    EXPECT_EQ(cbs(n.fd, cbsFlash(0x03, 0, 1))[17], 'O');

    // Sector erase: three reads still see the record, the fourth the erased sector.
    cbs(n.fd, cbsFlash(0x20, 0x18000, 0), false);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(cbs(n.fd, cbsFlash(0x03, 0x18000, 64))[17], 'O') << i;
    r = cbs(n.fd, cbsFlash(0x03, 0x18000, 64));
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(r[17 + i], 0xFF) << i;
    EXPECT_EQ(rig.camera()->firmware()->flash(0x19000, 2),
              (std::vector<uint8_t>{'E', 'P'}));  // other sector kept

    // Program 32 bytes (serial 987654 -> 00 98 76 54), read them back.
    auto prog = cbsFlash(0x02, 0x18000, 32);
    const uint8_t rec[6] = {'O', 'V', 0x00, 0x98, 0x76, 0x54};
    for (int i = 0; i < 32; ++i)
        prog[16 + i] = i < 6 ? rec[i] : uint8_t(i);
    cbs(n.fd, prog, false);
    r = cbs(n.fd, cbsFlash(0x03, 0x18000, 32));
    for (int i = 0; i < 32; ++i)
        EXPECT_EQ(r[17 + i], i < 6 ? rec[i] : uint8_t(i)) << i;
    // Chip erase (after its polls).
    cbs(n.fd, cbsFlash(0xC7, 0, 0), false);
    for (int i = 0; i < 4; ++i)
        cbs(n.fd, cbsFlash(0x03, 0, 4));
    EXPECT_EQ(rig.camera()->firmware()->flash(0, 4), (std::vector<uint8_t>{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(rig.camera()->firmware()->flash(0x19000, 2), (std::vector<uint8_t>{0xFF, 0xFF}));
}

TEST(UvcCameraCbs, DamagedRegistersAndIspLock) {
    Rig rig("\"faults\": {\"damaged_sensor_registers\": [1], \"isp_lock_at\": 2}");
    Node n;
    EXPECT_EQ(cbs(n.fd, cbsSensor(false, 0, 0x3503))[17] & 0x04, 0x04);
    EXPECT_EQ(cbs(n.fd, cbsSensor(false, 1, 0x3503))[17] & 0x04, 0x00);
    EXPECT_NE(cbs(n.fd, cbsSensor(false, 1, 0x3744))[17], 0x88);
    EXPECT_NE(cbs(n.fd, cbsSensor(false, 1, 0x3745))[17], 0xC0);
    // The repair a host does sticks.
    cbs(n.fd, cbsSensor(true, 1, 0x3744, 0x88), false);
    EXPECT_EQ(cbs(n.fd, cbsSensor(false, 1, 0x3744))[17], 0x88);

    Stream s;
    ASSERT_TRUE(s.start(2560, 720, 30));
    rig.clock->advance(1900000000);
    for (int sensor = 0; sensor < 2; ++sensor)
        for (uint16_t reg = 0x484A; reg <= 0x484D; ++reg)
            EXPECT_NE(cbs(n.fd, cbsSensor(false, sensor, reg))[17], 0);
    rig.clock->advance(200000000);  // 2.1 s of camera time
    for (int sensor = 0; sensor < 2; ++sensor)
        for (uint16_t reg = 0x484A; reg <= 0x484D; ++reg)
            EXPECT_EQ(cbs(n.fd, cbsSensor(false, sensor, reg))[17], 0);
    EXPECT_TRUE(rig.camera()->firmware()->ispLocked(0));
}

TEST(UvcCameraOld, PacketsOfTheOldChannel) {
    Rig rig("\"firmware_version\": 1142, \"flash_serial\": 12345", "0xF580");
    Node n;
    std::vector<uint8_t> p(64);
    EXPECT_EQ(xu(n.fd, 4, UVC_SET_CUR, p.data(), 384), -1);  // no unit 4 on old firmware
    EXPECT_EQ(errno, ENOENT);
    uint8_t len[2] = {};
    ASSERT_EQ(xu(n.fd, 3, UVC_GET_LEN, len, 2), 0);
    EXPECT_EQ(len[0] | len[1] << 8, 64);

    // Firmware version: 0x10 0x02 -> 1142 = 0x476, little-endian in bytes 0..3.
    auto r = old(n.fd, packet(64, {{0, 0x10}, {1, 0x02}}));
    EXPECT_EQ(std::vector<uint8_t>(r.begin(), r.begin() + 4), (std::vector<uint8_t>{0x76, 0x04, 0x00, 0x00}));
    // System register 0x80181002, address little-endian: value at byte 0.
    r = old(n.fd, packet(64, {{0, 0x01}, {1, 0x02}, {2, 0x10}, {3, 0x18}, {4, 0x80}}));
    EXPECT_EQ(r[0], 0x10);
    old(n.fd, packet(64, {{0, 0x02}, {1, 0x34}, {2, 0x12}, {3, 0x00}, {4, 0x00}, {5, 0x5A}}), false);
    EXPECT_EQ(rig.camera()->firmware()->systemRegister(0x1234), 0x5A);
    // Sensor register 0x3744 of sensor 1 at chip 0x6C.
    r = old(n.fd, packet(64, {{0, 0x05}, {1, 0x44}, {2, 0x37}, {3, 0x6C}, {4, 0x01}, {5, 0x01}}));
    EXPECT_EQ(r[0], 0x88);
    old(n.fd, packet(64, {{0, 0x06}, {1, 0x02}, {2, 0x30}, {3, 0x80}, {4, 0x6C}, {5, 0x01}, {6, 0x00}}),
        false);
    EXPECT_EQ(rig.camera()->firmware()->sensorRegister(0, 0x3002), 0x80);
    EXPECT_EQ(rig.camera()->firmware()->sensorRegister(1, 0x3002), 0x00);

    // Flash read of 8 bytes at 0x018000: data from byte 8, each group of four reversed.
    r = old(n.fd, packet(64, {{0, 0x09}, {1, 0x83}, {2, 0x00}, {3, 0x80}, {4, 0x01}, {5, 8}}));
    EXPECT_EQ(std::vector<uint8_t>(r.begin() + 8, r.begin() + 16),
              (std::vector<uint8_t>{0x01, 0x00, 'V', 'O', 0x07, 0x06, 0x45, 0x23}));
    // Erase the sector, set the address, program four bytes, read them back.
    old(n.fd, packet(64, {{0, 0x09}, {1, 0x80}, {2, 1}, {3, 0x00}, {4, 0x80}, {5, 0x01}}), false);
    EXPECT_EQ(rig.camera()->firmware()->flash(0x18000, 2), (std::vector<uint8_t>{0xFF, 0xFF}));
    old(n.fd, packet(64, {{0, 0x09}, {1, 0x81}, {2, 0x00}, {3, 0x80}, {4, 0x01}}), false);
    old(n.fd, packet(64, {{0, 0x09}, {1, 0x82}, {2, 4}, {4, 'E'}, {5, 'P'}, {6, 0x00}, {7, 0x07}}), false);
    r = old(n.fd, packet(64, {{0, 0x09}, {1, 0x83}, {2, 0x00}, {3, 0x80}, {4, 0x01}, {5, 4}}));
    EXPECT_EQ(std::vector<uint8_t>(r.begin() + 8, r.begin() + 12),
              (std::vector<uint8_t>{0x07, 0x00, 'P', 'E'}));
}

TEST(UvcCameraOld, IspPackets) {
    Rig rig("", "0xF680");
    Node n;
    auto fw = rig.camera()->firmware();
    // 0x07 0x22 0: auto exposure off (a command: no reply read).
    old(n.fd, packet(64, {{0, 0x07}, {1, 0x22}, {2, 0}}), false);
    EXPECT_FALSE(fw->autoExposure(0));
    EXPECT_FALSE(fw->autoExposure(1));
    // The query (same packet, reply read): bit 1 of byte 2, and the state stays.
    EXPECT_EQ(old(n.fd, packet(64, {{0, 0x07}, {1, 0x22}}))[2] & 0x02, 0);
    old(n.fd, packet(64, {{0, 0x07}, {1, 0x22}, {2, 1}}), false);
    EXPECT_TRUE(fw->autoExposure(0));
    EXPECT_EQ(old(n.fd, packet(64, {{0, 0x07}, {1, 0x22}}))[2] & 0x02, 0x02);
    EXPECT_TRUE(fw->autoExposure(1));
    // Manual exposure of sensor 1, read back with 0x26.
    old(n.fd, packet(64, {{0, 0x07}, {1, 0x24}, {2, 1}, {3, 0x01}, {4, 0x23}, {5, 0x45}}), false);
    auto r = old(n.fd, packet(64, {{0, 0x07}, {1, 0x26}, {2, 1}}));
    EXPECT_EQ(std::vector<uint8_t>(r.begin(), r.begin() + 3), (std::vector<uint8_t>{0x01, 0x23, 0x45}));
    old(n.fd, packet(64, {{0, 0x07}, {1, 0x25}, {2, 0}, {3, 0x02}, {4, 0x40}}), false);
    r = old(n.fd, packet(64, {{0, 0x07}, {1, 0x27}, {2, 0}}));
    EXPECT_EQ(r[0], 0x02);
    EXPECT_EQ(r[1], 0x40);
}
