#include <gtest/gtest.h>

#include "SimScenario.h"
#include "bh_input/grabber/gmsl/I2CHandler.h"
#include "sim/Builtins.h"

using testsupport::ScopedScenario;

TEST(I2CHandler, ClosedHandlerGivesMinusOneAndLeavesBuffer) {
    I2CHandler h;
    unsigned char buf[4] = {0xA5, 0xA5, 0xA5, 0xA5};
    EXPECT_EQ(h.readBlockRegister(0x55, 0, 1, buf, 4, 1), -1);
    for (unsigned char b : buf)
        EXPECT_EQ(b, 0xA5);
    unsigned char v = 0x5A;
    EXPECT_EQ(h.readRegister(0x55, 4, 1, v, 1), 0);
    EXPECT_EQ(v, 0x5A);
    EXPECT_EQ(h.writeBlockRegister(0x55, 0, 1, buf, 4), -1);
}

TEST(I2CHandler, BusOutOfRange) {
    I2CHandler h;
    testing::internal::CaptureStdout();
    EXPECT_EQ(h.openI2C(256, 1), -1);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Error: I2C bus out of range (0-255)!"),
              std::string::npos);
}

TEST(I2CHandler, ReadsTheCameraIdentificationBlock) {
    ScopedScenario s("gmsl_eeprom_bus30");
    I2CHandler h;
    ASSERT_GE(h.openI2C(30, 0), 0);
    unsigned char serial[4] = {};
    EXPECT_EQ(h.readBlockRegister(0x55, 0, 1, serial, 4, 1), 4);
    uint32_t sn = serial[0] | serial[1] << 8 | serial[2] << 16 | static_cast<uint32_t>(serial[3]) << 24;
    EXPECT_EQ(sn, 41000123u);
    unsigned char id[2] = {};
    EXPECT_EQ(h.readBlockRegister(0x55, 4, 1, id, 2, 1), 2);
    EXPECT_EQ(id[0], 0x11);
    EXPECT_EQ(id[1], 2);
    unsigned char v = 0;
    EXPECT_EQ(h.readRegister(0x55, 5, 1, v, 1), 1);
    EXPECT_EQ(v, 2);
    // Nothing at 0x57: the read fails and reports 0.
    unsigned char other[4] = {9, 9, 9, 9};
    testing::internal::CaptureStdout();
    h.closeI2C();
    ASSERT_GE(h.openI2C(30, 1), 0);
    EXPECT_EQ(h.readBlockRegister(0x57, 0, 1, other, 4, 1), 0);
    EXPECT_NE(testing::internal::GetCapturedStdout().find("Mismatch data size"), std::string::npos);
    EXPECT_EQ(h.readBlockRegister(256, 0, 1, other, 4, 1), -2);
    h.closeI2C();
    EXPECT_EQ(h.getFd(), -1);
    // Bus 31 exists but is empty; bus 32 does not exist.
    EXPECT_GE(h.openI2C(31, 0), 0);
    EXPECT_EQ(h.readBlockRegister(0x55, 0, 1, other, 4, 1), 0);
    EXPECT_EQ(h.openI2C(32, 0), -1);
}

TEST(I2CHandler, WriteSplitsAtPageBoundaries) {
    auto m = std::make_shared<sim::Machine>("test");
    auto chip = sim::makeCameraEeprom(1234, 0x11, 2, 1);
    m->i2cBus(30)->attach(0x55, chip);
    ScopedScenario s(m);
    I2CHandler h;
    ASSERT_GE(h.openI2C(30, 0), 0);
    unsigned char data[20];
    for (int i = 0; i < 20; ++i)
        data[i] = static_cast<unsigned char>(0x40 + i);
    chip->clearWriteLog();
    EXPECT_EQ(h.writeBlockRegister(0x55, 3, 1, data, 20), 20);
    auto log = chip->writeLog();
    ASSERT_EQ(log.size(), 3u);
    // Each piece: the register byte, then 5, 8 and 7 data bytes.
    EXPECT_EQ(log[0].size(), 1u + 5);
    EXPECT_EQ(log[1].size(), 1u + 8);
    EXPECT_EQ(log[2].size(), 1u + 7);
    EXPECT_EQ(log[0][0], 3);
    EXPECT_EQ(log[1][0], 8);
    EXPECT_EQ(log[2][0], 16);
    auto mem = chip->contents();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(mem[3 + i], 0x40 + i) << i;
    EXPECT_EQ(mem[0], 1234 & 0xFF);  // untouched
    unsigned char back[20] = {};
    EXPECT_EQ(h.readBlockRegister(0x55, 3, 1, back, 20, 1), 20);
    EXPECT_EQ(0, memcmp(back, data, 20));
    // A page-aligned single byte is one piece.
    chip->clearWriteLog();
    EXPECT_EQ(h.writeRegister(0x55, 6, 1, 0x07), 1);
    EXPECT_EQ(chip->writeLog().size(), 1u);
    // Two-byte register numbers go most significant first.
    chip->clearWriteLog();
    unsigned char two[2] = {1, 2};
    EXPECT_EQ(h.writeBlockRegister(0x55, 0x0102, 2, two, 2), 2);
    ASSERT_EQ(chip->writeLog().size(), 1u);
    EXPECT_EQ(chip->writeLog()[0][0], 0x01);
    EXPECT_EQ(chip->writeLog()[0][1], 0x02);
}

TEST(I2CPlainFunctions, ReadWriteOnDescriptor) {
    auto m = std::make_shared<sim::Machine>("test");
    auto chip = std::make_shared<sim::RegisterChip>(128, 1, 0);
    chip->setContents(0, {0x1E, 0x00, 0x0F});
    m->i2cBus(30)->attach(0x18, chip);
    ScopedScenario s(m);
    int fd = i2c_open(30);
    ASSERT_GE(fd, 0);
    uint8_t id = 0;
    EXPECT_EQ(i2c_read(fd, 0x18, 0x00, &id, 1), 0);
    EXPECT_EQ(id, 0x1E);
    uint8_t cfg[2] = {0xAA, 0xBB};
    EXPECT_EQ(i2c_write(fd, 0x18, 0x40, cfg, 2), 0);
    EXPECT_EQ(chip->contents()[0x41], 0xBB);
    uint8_t back[2] = {};
    EXPECT_EQ(i2c_ioctl_read(fd, 0x18, 0x40, back, 2), 0);
    EXPECT_EQ(back[0], 0xAA);
    EXPECT_EQ(i2c_ioctl_write(fd, 0x18, 0x7C, cfg, 1), 0);
    EXPECT_EQ(chip->contents()[0x7C], 0xAA);
    EXPECT_EQ(i2c_read(fd, 0x19, 0x00, &id, 1), -1);  // no chip there
    EXPECT_EQ(i2c_read(-1, 0x18, 0x00, &id, 1), -1);
    i2c_close(fd);
    EXPECT_EQ(i2c_open(300), -1);
}
