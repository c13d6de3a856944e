// The camera EEPROM through the GMSL inertial reader: the calibration image
// read at its blocks in 32-byte chunks with the record repairs, writes page by
// page with a read-back compare, the serial number, and the playback of a
// recording's header.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "GmslImuTestSupport.h"
#include "bh_input/mcu/IMU/IMUGMSLReader.h"
#include "bh_input/mcu/IMU/SIDRecording.h"

using namespace gmslimu;

namespace {

constexpr uint32_t kSerial = 20123456;
constexpr uint8_t kBase = 0x55;

struct EepromRig : Rig {
    EepromRig() {
        bus->addCamera(30, kBase, kSerial, 2);
        EXPECT_GT(reader.open(kSerial, true, false), 0);
        bus->clearLog();
    }
    // Image byte o lives at kBase + 1 + (o >> 8), register o & 0xFF.
    void storeImage(const eepromMemoryStrc& image) {
        const uint8_t* b = reinterpret_cast<const uint8_t*>(&image);
        for (size_t o = 0; o < sizeof(image); ++o)
            bus->eepromBlock(30, static_cast<uint8_t>(kBase + 1 + (o >> 8)))->bytes[o & 0xFF] = b[o];
    }
    uint8_t at(unsigned offset) {
        return bus->eepromBlock(30, static_cast<uint8_t>(kBase + (offset >> 8)))->bytes[offset & 0xFF];
    }
    IMUGMSLReader reader{false, 0x2B03, 0xA081};
};

eepromMemoryStrc sampleImage() {
    eepromMemoryStrc image;
    std::memset(&image, 0, sizeof(image));
    image.serial = {0x33, 2, 123456};
    image.bias.id = 0x34;
    image.bias.gyro_bias[0] = 0.21f;  // implausible for a gyroscope: repaired to 0
    image.bias.acc_bias[0] = 0.21f;   // fine for an accelerometer
    image.variance.id = 0x35;
    image.variance.gyro_var[1] = 0.5f;  // repaired to 1e-5
    image.ext_gyro_calib.id = 0x41;
    for (int i = 0; i < 3; ++i) {
        image.ext_gyro_calib.scale[i] = 1.01f;
        image.ext_acc_calib.scale[i] = 0.99f;
    }
    image.ext_gyro_calib.bias[0] = 0.16f;  // with its temperature scale, lost
    image.ext_gyro_calib.temp_scale[0] = 0.1f;
    image.ext_acc_calib.id = 0x42;
    image.date_time.id = 0x45;
    image.date_time.valid = 1;
    std::memcpy(image.date_time.text, "2026/01/02 03:04:05 UTC", 23);
    return image;
}

std::string tempPath(const char* name) {
    return std::string(::testing::TempDir()) + name + std::to_string(::getpid());
}

}  // namespace

// ---------------------------------------------------------------- reading

TEST(GmslImuEeprom, ImageComesFromTheBlocksBehindTheIdentification) {
    EepromRig r;
    const eepromMemoryStrc image = sampleImage();
    r.storeImage(image);
    ASSERT_TRUE(r.reader.updateEepromMemory(false));
    const eepromMemoryStrc got = r.reader.getEepromMemory(false);
    EXPECT_EQ(val(got.serial.serial_body), 123456);
    EXPECT_EQ(val(got.bias.gyro_bias[0]), 0.f);
    EXPECT_FLOAT_EQ(val(got.bias.acc_bias[0]), 0.21f);
    EXPECT_FLOAT_EQ(val(got.variance.gyro_var[1]), 1e-5f);
    EXPECT_EQ(val(got.ext_gyro_calib.bias[0]), 0.f);
    EXPECT_EQ(val(got.ext_gyro_calib.temp_scale[0]), 0.f);
    EXPECT_FLOAT_EQ(val(got.ext_gyro_calib.scale[2]), 1.01f);
    EXPECT_FLOAT_EQ(val(got.ext_acc_calib.scale[0]), 0.99f);
    std::string date;
    ASSERT_TRUE(r.reader.getDataSavingTime(date));
    EXPECT_EQ(date, "2026/01/02 03:04:05 UTC");

    // 32-byte reads: eight in each of the first two blocks, six in the third,
    // the last of them 25 bytes long (697 - 672).
    for (uint8_t block : {0x56, 0x57}) {
        const auto reads = r.bus->readsFrom(block);
        ASSERT_EQ(reads.size(), 8u) << int(block);
        for (size_t i = 0; i < reads.size(); ++i) {
            EXPECT_EQ(reads[i].reg, 32 * i);
            EXPECT_EQ(reads[i].length, 32u);
        }
    }
    const auto last = r.bus->readsFrom(0x58);
    ASSERT_EQ(last.size(), 6u);
    EXPECT_EQ(last.back().reg, 0xA0);
    EXPECT_EQ(last.back().length, 25u);
    EXPECT_TRUE(r.bus->readsFrom(0x55).empty()) << "the identification block is not part of the image";
    EXPECT_EQ(r.bus->openDescriptors(), 2) << "the EEPROM's descriptor is closed again";
}

TEST(GmslImuEeprom, AShortReadFailsTheWholeImage) {
    EepromRig r;
    r.storeImage(sampleImage());
    r.bus->failAddress(30, 0x57);
    testing::internal::CaptureStdout();
    EXPECT_FALSE(r.reader.updateEepromMemory(true));
    EXPECT_NE(testing::internal::GetCapturedStdout().find("image offset 256"), std::string::npos);
    EXPECT_EQ(val(r.reader.getEepromMemory(false).serial.serial_body), 0) << "the image stays as it was";
    EXPECT_EQ(r.bus->openDescriptors(), 2);
}

TEST(GmslImuEeprom, NotOpenReadsNothing) {
    Rig rig;
    IMUGMSLReader reader(false, 0x2B03, 0xA081);
    EXPECT_FALSE(reader.updateEepromMemory(true));
    eepromMemoryStrc image{};
    EXPECT_FALSE(reader.readFulli2cSecEeprom(image));
    EXPECT_TRUE(rig.bus->openedPaths().empty());
}

// ---------------------------------------------------------------- writing

TEST(GmslImuEeprom, WritesGoPageByPage) {
    EepromRig r;
    uint8_t data[20];
    for (int i = 0; i < 20; ++i)
        data[i] = static_cast<uint8_t>(0xC0 + i);
    const int64_t t0 = r.nowNs();
    ASSERT_TRUE(r.reader.writeInEeprom(0x103, data, 20, kBase));
    // 20 bytes at offset 3 of a block with 8-byte pages: 5, 8 and 7 bytes.
    const auto writes = r.bus->writesTo(0x56);
    ASSERT_EQ(writes.size(), 3u);
    EXPECT_EQ(writes[0].reg, 3);
    EXPECT_EQ(writes[0].data.size(), 5u);
    EXPECT_EQ(writes[1].reg, 8);
    EXPECT_EQ(writes[1].data.size(), 8u);
    EXPECT_EQ(writes[2].reg, 16);
    EXPECT_EQ(writes[2].data.size(), 7u);
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(r.at(0x103 + i), 0xC0 + i);
    EXPECT_GE(r.nowNs() - t0, 3 * 5000000) << "the write cycle after each page";
    // Read back as one transfer from the first byte.
    const auto reads = r.bus->readsFrom(0x56);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].reg, 3);
    EXPECT_EQ(reads[0].length, 20u);
}

TEST(GmslImuEeprom, AWriteAcrossABlockEndChangesAddress) {
    EepromRig r;
    uint8_t data[6] = {1, 2, 3, 4, 5, 6};
    ASSERT_TRUE(r.reader.writeInEeprom(0x1FD, data, 6, kBase));
    EXPECT_EQ(r.at(0x1FD), 1);
    EXPECT_EQ(r.at(0x1FF), 3);
    EXPECT_EQ(r.at(0x200), 4);
    EXPECT_EQ(r.at(0x202), 6);
    EXPECT_EQ(r.bus->writesTo(0x56).size(), 1u);
    EXPECT_EQ(r.bus->writesTo(0x57).size(), 1u);
}

TEST(GmslImuEeprom, AReadBackThatDiffersFailsTheWrite) {
    EepromRig r;
    r.bus->eepromBlock(30, 0x56)->ignore_writes = true;
    uint8_t data[4] = {1, 2, 3, 4};
    testing::internal::CaptureStdout();
    EXPECT_FALSE(r.reader.writeInEeprom(0x110, data, 4, kBase));
    EXPECT_NE(testing::internal::GetCapturedStdout().find("differs"), std::string::npos);
}

TEST(GmslImuEeprom, BadWriteRequestsAreRefused) {
    EepromRig r;
    uint8_t data[4] = {};
    testing::internal::CaptureStdout();
    EXPECT_FALSE(r.reader.writeInEeprom(0x3FE, data, 4, kBase)) << "past the fourth block";
    EXPECT_FALSE(r.reader.writeInEeprom(0x100, nullptr, 4, kBase));
    EXPECT_FALSE(r.reader.writeInEeprom(0x100, data, 0, kBase));
    EXPECT_FALSE(r.reader.writeInEeprom(0x100, data, -3, kBase));
    testing::internal::GetCapturedStdout();
    EXPECT_TRUE(r.bus->writesTo(0x56).empty());
}

TEST(GmslImuEeprom, RecordsGoToTheirImageOffsets) {
    EepromRig r;
    ASSERT_TRUE(r.reader.sendWriteBiasCommand(0.01f, 0.02f, 0.03f, 0.1f, 0.2f, 0.3f));
    // The bias record at image offset 9: EEPROM 0x109, its id first.
    EXPECT_EQ(r.at(0x109), 0x34);
    float f = 0;
    std::memcpy(&f, &r.bus->eepromBlock(30, 0x56)->bytes[9 + 1], 4);
    EXPECT_FLOAT_EQ(f, 0.01f);
    std::memcpy(&f, &r.bus->eepromBlock(30, 0x56)->bytes[9 + 13], 4);
    EXPECT_FLOAT_EQ(f, 0.1f);
    EXPECT_FLOAT_EQ(val(r.reader.getEepromMemory(false).bias.acc_bias[2]), 0.3f);

    ASSERT_TRUE(r.reader.sendWriteVarianceCommand(1e-4f, 0, 0, 0, 0, 2e-3f));
    EXPECT_EQ(r.at(0x100 + 34), 0x35);
    ASSERT_TRUE(r.reader.sendWriteKlibCommand(0.001f, 0.002f, 0.003f));
    EXPECT_EQ(r.at(0x100 + 59), 0x36);

    _extended_gyro_calib_data gyro{};
    gyro.scale[0] = gyro.scale[1] = gyro.scale[2] = 1.f;
    gyro.temp_scale[2] = 0.05f;
    ASSERT_TRUE(r.reader.sendWriteExtGyroCalibCommand(gyro));
    EXPECT_EQ(r.at(0x100 + 534), 0x41);
    _extended_acc_calib_data acc{};
    acc.bias[1] = 0.5f;
    ASSERT_TRUE(r.reader.sendWriteExtAccCalibCommand(acc));
    EXPECT_EQ(r.at(0x100 + 595), 0x42);

    // What was written reads back as the image.
    ASSERT_TRUE(r.reader.updateEepromMemory(true));
    const eepromMemoryStrc got = r.reader.getEepromMemory(false);
    EXPECT_FLOAT_EQ(val(got.bias.gyro_bias[1]), 0.02f);
    EXPECT_FLOAT_EQ(val(got.variance.acc_var[2]), 2e-3f);
    EXPECT_FLOAT_EQ(val(got.cam_imu.rot[2]), 0.003f);
    EXPECT_FLOAT_EQ(val(got.ext_gyro_calib.temp_scale[2]), 0.05f);
    EXPECT_FLOAT_EQ(val(got.ext_acc_calib.bias[1]), 0.5f);
}

TEST(GmslImuEeprom, SerialNumberWriteAndSplit) {
    EepromRig r;
    ASSERT_TRUE(r.reader.sendWriteSNCommand(3, 4567890));  // 3 x 10000000 + 4567890 = 34567890
    EXPECT_EQ(r.reader.serial_number, 34567890u);
    // Little-endian at the start of the identification block: 0x020F76D2.
    EXPECT_EQ(r.at(0), 0xD2);
    EXPECT_EQ(r.at(1), 0x76);
    EXPECT_EQ(r.at(2), 0x0F);
    EXPECT_EQ(r.at(3), 0x02);
    EXPECT_EQ(r.at(4), 0x11) << "the version byte is left alone";
    int a = 0;
    int b = 0;
    ASSERT_TRUE(r.reader.readEepromSerialNumber(a, b));
    EXPECT_EQ(a, 34);  // divided by 1000000
    EXPECT_EQ(b, 567890);

    testing::internal::CaptureStdout();
    EXPECT_FALSE(r.reader.sendWriteSNCommand(500, 0)) << "does not fit four bytes";
    EXPECT_FALSE(r.reader.sendWriteSNCommand(-1, 0));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(r.reader.serial_number, 34567890u);
}

TEST(GmslImuEeprom, WritesNeedAnOpenReader) {
    Rig rig;
    rig.bus->addCamera(30, kBase, kSerial, 2);
    IMUGMSLReader reader(false, 0x2B03, 0xA081);
    EXPECT_FALSE(reader.sendWriteBiasCommand(0, 0, 0, 0, 0, 0));
    EXPECT_FALSE(reader.sendWriteSNCommand(1, 1));
    EXPECT_TRUE(rig.bus->writesTo(0x55).empty());
}

// ---------------------------------------------------------------- playback

TEST(GmslImuPlayback, HeaderGivesSerialAndImage) {
    Rig rig;
    const std::string path = tempPath("gmsl_imu_playback.sid");
    sidFileHeader header{};
    header.version = 1;
    header.serial_number = 4242;
    header.start_yaw = 1.5f;
    header.eeprom = sampleImage();
    sidRecord rec{};
    rec.report.report_id = 1;
    rec.report.gyro_x = 77;
    rec.report.timestamp = 256;  // ticks: 10000 us
    rec.report.frame_sync = 1;
    rec.frame_ts = 99;
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(&header, sizeof(header), 1, f);
    std::fwrite(&rec, sizeof(rec), 1, f);
    std::fclose(f);

    IMUGMSLReader reader(false, 11011, 1, false, path);
    ASSERT_EQ(reader.is_replay, 1);
    EXPECT_EQ(reader.open(0, true, false), 4242);
    EXPECT_FLOAT_EQ(reader.start_yaw, 1.5f);
    EXPECT_FLOAT_EQ(val(reader.getEepromMemory(false).bias.gyro_bias[0]), 0.21f) << "taken as recorded";
    EXPECT_TRUE(rig.bus->openedPaths().empty());
    ASSERT_TRUE(reader.sendStartDataStreamingCommand());
    ASSERT_TRUE(reader.updateIMUData(true));
    EXPECT_EQ(val(reader.current_report.gyro_x), 77);
    EXPECT_EQ(reader.getCurrentMCUTimeStamp(), 10000u);
    EXPECT_EQ(reader.sync_event, 1);
    EXPECT_EQ(reader.getRVFFrameTS(), 99u);
    EXPECT_FALSE(reader.updateIMUData(true)) << "end of the recording";
    reader.close();
    std::remove(path.c_str());
}

TEST(GmslImuPlayback, ShortOrForeignHeaderIsRefused) {
    Rig rig;
    const std::string path = tempPath("gmsl_imu_playback_bad.sid");
    sidFileHeader header{};
    header.version = 2;
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(&header, sizeof(header), 1, f);
    std::fclose(f);
    {
        IMUGMSLReader reader(false, 11011, 1, false, path);
        testing::internal::CaptureStdout();
        EXPECT_EQ(reader.open(0, true, false), -1);
        EXPECT_NE(testing::internal::GetCapturedStdout().find("version 2"), std::string::npos);
    }
    f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(&header, 100, 1, f);
    std::fclose(f);
    {
        IMUGMSLReader reader(false, 11011, 1, false, path);
        testing::internal::CaptureStdout();
        EXPECT_EQ(reader.open(0, true, false), -1);
        EXPECT_NE(testing::internal::GetCapturedStdout().find("too short"), std::string::npos);
        EXPECT_EQ(reader.is_open, 0);
    }
    std::remove(path.c_str());
}

TEST(GmslImuRecording, HeaderAndRecordsOfTakenSamples) {
    EepromRig r;
    const std::string path = tempPath("gmsl_imu_recording.sid");
    ASSERT_TRUE(r.reader.createSIDRecording(0.25f, path));
    auto m = std::make_shared<bmi08x_full_sensor_data>();
    m->gyro_x = 5;
    m->timestamp = 10000;
    r.reader.merged_queue.push(m);
    ASSERT_TRUE(r.reader.updateIMUData(false));
    r.reader.disableSIDRecording();
    sidFileHeader header{};
    std::vector<sidRecord> records;
    std::string error;
    ASSERT_TRUE(readSIDFile(path, header, records, error)) << error;
    EXPECT_EQ(val(header.serial_number), kSerial);
    EXPECT_FLOAT_EQ(val(header.start_yaw), 0.25f);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(val(records[0].report.gyro_x), 5);
    EXPECT_EQ(val(records[0].report.timestamp), 256u) << "10000 us in 39.0625-us ticks";
    std::remove(path.c_str());
}

TEST(GmslImuPlayback, RecordingsOfEveryLengthOpenOrAreRefused) {
    Rig rig;
    const std::string path = tempPath("gmsl_imu_playback_lengths.sid");
    sidFileHeader header{};
    header.version = 1;
    header.serial_number = 77;
    std::vector<uint8_t> bytes(sizeof(header) + sizeof(sidRecord) + 50, 0x3C);
    std::memcpy(bytes.data(), &header, sizeof(header));
    for (size_t length : {size_t(0), size_t(1), size_t(711), size_t(712), size_t(713), size_t(712 + 103),
                          size_t(712 + 104), bytes.size()}) {
        FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        if (length)
            std::fwrite(bytes.data(), 1, length, f);
        std::fclose(f);
        IMUGMSLReader reader(false, 11011, 1, false, path);
        testing::internal::CaptureStdout();
        const int opened = reader.open(0, true, false);
        testing::internal::GetCapturedStdout();
        if (length < 712) {
            EXPECT_EQ(opened, -1) << length;
            continue;
        }
        EXPECT_EQ(opened, 77) << length;
        const size_t whole_records = (length - 712) / 104;
        size_t taken = 0;
        while (reader.updateIMUData(true))
            ++taken;
        EXPECT_EQ(taken, whole_records) << length;
    }
    std::remove(path.c_str());
}
