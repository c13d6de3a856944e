// The sensor recording: header and records written while streaming, read back.
#include <gtest/gtest.h>

#include <QTemporaryDir>
#include <fstream>

#include "McuTestSupport.h"
#include "bh_input/mcu/IMU/SIDRecording.h"

using namespace mcutest;

TEST(Recording, WrittenWhileStreamingAndReadBack) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const std::string path = dir.filePath("imu.sid").toStdString();
    SimMachine sim;
    sim.add(config(12345678, 0x305, 2));
    sim.install();
    IMUHidReader r(false, VENDOR, PICO, true, path);
    ASSERT_EQ(r.open(0, true, false), 12345678);
    ASSERT_TRUE(r.updateEepromMemory(true));
    ASSERT_TRUE(r.enableSIDRecording(0.75f));
    ASSERT_TRUE(r.sendStartDataStreamingCommand());
    std::vector<uint64_t> stamps;
    for (int i = 0; i < 100; ++i) {
        r.setOptExtQuaternion(0.f, 0.f, 0.f, 1.f, static_cast<float>(i), 2.f, 3.f);
        r.setRVFFrameTS(1000u + i);
        ASSERT_TRUE(r.updateIMUData(true));
        stamps.push_back(val(r.current_report.timestamp));
    }
    ASSERT_TRUE(r.disableSIDRecording());
    ASSERT_TRUE(r.updateIMUData(true));  // one more sample, not recorded

    sidFileHeader header;
    std::vector<sidRecord> records;
    std::string error;
    ASSERT_TRUE(readSIDFile(path, header, records, error)) << error;
    EXPECT_TRUE(error.empty()) << error;
    EXPECT_EQ(val(header.version), 1u);
    EXPECT_EQ(val(header.serial_number), 12345678u);
    EXPECT_FLOAT_EQ(header.start_yaw, 0.75f);
    EXPECT_EQ(std::memcmp(&header.eeprom, &r.eeprom, sizeof(r.eeprom)), 0);
    EXPECT_EQ(val(header.zero[0] | header.zero[1] | header.zero[2]), 0);
    ASSERT_EQ(records.size(), 100u);
    for (size_t i = 0; i < records.size(); ++i) {
        // The record holds the report as it came, before the clock correction.
        EXPECT_EQ(val(records[i].report.timestamp), val(stamps[i])) << i;
        EXPECT_EQ(val(records[i].report.report_id), 1);
        EXPECT_FLOAT_EQ(records[i].ext_quaternion[3], 1.f);
        EXPECT_FLOAT_EQ(records[i].ext_quaternion[4], static_cast<float>(i));
        EXPECT_EQ(val(records[i].frame_ts), val(1000u + i));
        EXPECT_EQ(val(records[i].zero0[0] | records[i].zero0[1]), 0);
        if (i > 0) {
            EXPECT_GT(val(records[i].report.timestamp), val(records[i - 1].report.timestamp));
        }
    }
}

TEST(Recording, EnableNeedsPermissionAndAPath) {
    SimMachine sim;
    sim.install();
    IMUHidReader denied(false, VENDOR, PICO, false, "./never.sid");
    EXPECT_FALSE(denied.enableSIDRecording(0.f));
    IMUHidReader noPath(false, VENDOR, PICO, true, "");
    EXPECT_FALSE(noPath.enableSIDRecording(0.f));
    IMUHidReader badDir(false, VENDOR, PICO, true, "/nonexistent-dir/imu.sid");
    EXPECT_FALSE(badDir.enableSIDRecording(0.f));
    EXPECT_EQ(badDir.is_recording, 0);
}

TEST(Recording, ReplayFileIsReadByOpenWhichStillFails) {
    QTemporaryDir dir;
    const std::string path = dir.filePath("replay.sid").toStdString();
    {
        SimMachine sim;
        sim.install();
        IMUHidReader w(false, VENDOR, PICO, true, path);
        w.serial_number = 4242;
        w.eeprom.bias.gyro_bias[0] = 0.125f;
        ASSERT_TRUE(w.createSIDRecording(1.5f, path));
        w.disableSIDRecording();
    }
    SimMachine sim;
    sim.install();
    IMUHidReader r(false, 11011, 1, false, path);
    EXPECT_EQ(val(r.is_replay), 1);
    EXPECT_EQ(r.open(0, true, false), -1);
    EXPECT_EQ(val(r.serial_number), 4242u);
    EXPECT_FLOAT_EQ(r.start_yaw, 1.5f);
    EXPECT_FLOAT_EQ(r.eeprom.bias.gyro_bias[0], 0.125f);
    EXPECT_TRUE(r.sendStartDataStreamingCommand());  // no traffic in replay
    EXPECT_TRUE(r.sendStopDataStreamingCommand());
    EXPECT_FALSE(r.updateIMUData(false));  // never running
}

TEST(Recording, MalformedFilesGiveClearMessages) {
    QTemporaryDir dir;
    sidFileHeader h;
    std::vector<sidRecord> recs;
    std::string err;
    EXPECT_FALSE(readSIDFile(dir.filePath("missing.sid").toStdString(), h, recs, err));
    EXPECT_NE(err.find("cannot open"), std::string::npos) << err;

    const std::string shortPath = dir.filePath("short.sid").toStdString();
    std::ofstream(shortPath, std::ios::binary) << std::string(100, '\1');
    EXPECT_FALSE(readSIDFile(shortPath, h, recs, err));
    EXPECT_NE(err.find("shorter than its 712-byte header"), std::string::npos) << err;

    const std::string badVersion = dir.filePath("v2.sid").toStdString();
    {
        sidFileHeader v{};
        v.version = 2;
        std::ofstream f(badVersion, std::ios::binary);
        f.write(reinterpret_cast<const char*>(&v), sizeof(v));
    }
    EXPECT_FALSE(readSIDFile(badVersion, h, recs, err));
    EXPECT_NE(err.find("version 2"), std::string::npos) << err;

    const std::string partial = dir.filePath("partial.sid").toStdString();
    {
        sidFileHeader v{};
        v.version = 1;
        sidRecord rec{};
        std::ofstream f(partial, std::ios::binary);
        f.write(reinterpret_cast<const char*>(&v), sizeof(v));
        f.write(reinterpret_cast<const char*>(&rec), sizeof(rec));
        f.write(reinterpret_cast<const char*>(&rec), 50);
    }
    EXPECT_TRUE(readSIDFile(partial, h, recs, err));
    EXPECT_EQ(recs.size(), 1u);
    EXPECT_NE(err.find("partial record of 50 bytes"), std::string::npos) << err;
}
