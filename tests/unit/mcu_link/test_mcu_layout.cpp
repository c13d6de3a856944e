// Byte layouts of the wire types: EEPROM image records, the sensor report, the
// recording header and record, and the mono-record id arithmetic.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

#include "PackedValue.h"
#include "bh_input/mcu/IMU/SIDRecording.h"
#include "bh_input/mcu/IMU/VirtualIMUReader.h"
#include "bh_input/mcu/IMU/eepromMemory.h"

TEST(EepromLayout, ImageIs697BytesWithEveryRecordAtItsOffset) {
    EXPECT_EQ(sizeof(eepromMemoryStrc), 697u);
    struct Row {
        size_t offset, length, expectOffset, expectLength;
    };
    const Row rows[] = {
        {offsetof(eepromMemoryStrc, serial), sizeof(_serial_data), 0, 9},
        {offsetof(eepromMemoryStrc, bias), sizeof(_bias_data), 9, 25},
        {offsetof(eepromMemoryStrc, variance), sizeof(variance_data), 34, 25},
        {offsetof(eepromMemoryStrc, cam_imu), sizeof(_cam_imu_data), 59, 13},
        {offsetof(eepromMemoryStrc, calib_mono), sizeof(calib_mono_data) * 8, 72, 8 * 49},
        {offsetof(eepromMemoryStrc, calib_stereo), sizeof(_calib_stereo_data), 464, 61},
        {offsetof(eepromMemoryStrc, barom_calib), sizeof(_barom_calib_data), 525, 9},
        {offsetof(eepromMemoryStrc, ext_gyro_calib), sizeof(_extended_gyro_calib_data), 534, 61},
        {offsetof(eepromMemoryStrc, ext_acc_calib), sizeof(_extended_acc_calib_data), 595, 49},
        {offsetof(eepromMemoryStrc, mag_calib), sizeof(_mag_calib_data), 644, 25},
        {offsetof(eepromMemoryStrc, imu_odr), sizeof(_imu_odr_data), 669, 2},
        {offsetof(eepromMemoryStrc, date_time), sizeof(_date_time_data), 671, 26},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(r.offset, r.expectOffset);
        EXPECT_EQ(r.length, r.expectLength) << "record at " << r.expectOffset;
    }
}

TEST(EepromLayout, FieldOffsetsInsideRecords) {
    EXPECT_EQ(offsetof(_serial_data, serial_prefix), 1u);
    EXPECT_EQ(offsetof(_serial_data, serial_body), 5u);
    EXPECT_EQ(offsetof(_bias_data, gyro_bias), 1u);
    EXPECT_EQ(offsetof(_bias_data, acc_bias), 13u);
    EXPECT_EQ(offsetof(variance_data, gyro_var), 1u);
    EXPECT_EQ(offsetof(variance_data, acc_var), 13u);
    EXPECT_EQ(offsetof(_cam_imu_data, rot), 1u);
    EXPECT_EQ(offsetof(calib_mono_data, values), 1u);
    EXPECT_EQ(offsetof(_calib_stereo_data, params), 1u);
    EXPECT_EQ(offsetof(_calib_stereo_data, block1), 13u);
    EXPECT_EQ(offsetof(_calib_stereo_data, block2), 29u);
    EXPECT_EQ(offsetof(_calib_stereo_data, block3), 45u);
    EXPECT_EQ(offsetof(_barom_calib_data, offset), 1u);
    EXPECT_EQ(offsetof(_barom_calib_data, scale), 5u);
    EXPECT_EQ(offsetof(_extended_gyro_calib_data, scale), 1u);
    EXPECT_EQ(offsetof(_extended_gyro_calib_data, misalign), 13u);
    EXPECT_EQ(offsetof(_extended_gyro_calib_data, bias), 37u);
    EXPECT_EQ(offsetof(_extended_gyro_calib_data, temp_scale), 49u);
    EXPECT_EQ(offsetof(_extended_acc_calib_data, scale), 1u);
    EXPECT_EQ(offsetof(_extended_acc_calib_data, misalign), 13u);
    EXPECT_EQ(offsetof(_extended_acc_calib_data, bias), 25u);
    EXPECT_EQ(offsetof(_extended_acc_calib_data, temp_scale), 37u);
    EXPECT_EQ(offsetof(_mag_calib_data, scale), 1u);
    EXPECT_EQ(offsetof(_mag_calib_data, offset), 13u);
    EXPECT_EQ(offsetof(_imu_odr_data, odr), 1u);
    EXPECT_EQ(offsetof(_date_time_data, valid), 1u);
    EXPECT_EQ(offsetof(_date_time_data, text), 2u);
}

TEST(EepromLayout, RecordOfEveryFeatureIdMatchesTheImage) {
    struct Row {
        uint8_t id;
        size_t offset, length;
    };
    const Row rows[] = {{0x33, 0, 9},    {0x34, 9, 25},   {0x35, 34, 25},  {0x36, 59, 13},  {0x37, 72, 49},
                        {0x38, 121, 49}, {0x39, 170, 49}, {0x3A, 219, 49}, {0x3B, 268, 49}, {0x3C, 317, 49},
                        {0x3D, 366, 49}, {0x3E, 415, 49}, {0x3F, 464, 61}, {0x40, 525, 9},  {0x41, 534, 61},
                        {0x42, 595, 49}, {0x43, 644, 25}, {0x44, 669, 2},  {0x45, 671, 26}};
    for (const Row& r : rows) {
        size_t off = 0, len = 0;
        ASSERT_TRUE(eepromRecordOf(r.id, off, len)) << std::hex << int(r.id);
        EXPECT_EQ(off, r.offset) << std::hex << int(r.id);
        EXPECT_EQ(len, r.length) << std::hex << int(r.id);
    }
    size_t off = 0, len = 0;
    for (int id : {0x00, 0x01, 0x21, 0x22, 0x25, 0x32, 0x46, 0xFF}) {
        EXPECT_FALSE(eepromRecordOf(static_cast<uint8_t>(id), off, len)) << id;
    }
}

TEST(EepromLayout, MonoIdArithmeticForAllEightIndices) {
    for (int res = 0; res < 4; ++res) {
        for (int side = 0; side < 2; ++side) {
            const int index = 2 * res + side;
            EXPECT_EQ(mcu_id::monoIndex(res, side), index);
            EXPECT_EQ(mcu_id::monoFeatureId(res, side), 0x37 + index);
            EXPECT_EQ(mcu_id::monoLegacyId(res, side), 5 + index);
            EXPECT_EQ(mcu_id::monoLegacyWriteCode(res, side), 0xA5 + index);
            EXPECT_EQ(mcu_id::monoLegacyReadCode(res, side), 0xE5 + index);
            EXPECT_EQ(offsetof(eepromMemoryStrc, calib_mono) + index * sizeof(calib_mono_data),
                      72u + 49u * index);
        }
    }
    // Resolution 3, side 1: feature id 0x3E, legacy id 12, write code 0xAC, read code 0xEC.
    EXPECT_EQ(mcu_id::monoFeatureId(3, 1), 0x3E);
    EXPECT_EQ(mcu_id::monoLegacyId(3, 1), 12);
    EXPECT_EQ(mcu_id::monoLegacyWriteCode(3, 1), 0xAC);
    EXPECT_EQ(mcu_id::monoLegacyReadCode(3, 1), 0xEC);
}

TEST(SensorReportLayout, FieldOffsets) {
    EXPECT_EQ(sizeof(McuSensorReport), 62u);
    EXPECT_EQ(offsetof(McuSensorReport, report_id), 0u);
    EXPECT_EQ(offsetof(McuSensorReport, imu_not_valid), 1u);
    EXPECT_EQ(offsetof(McuSensorReport, timestamp), 2u);
    EXPECT_EQ(offsetof(McuSensorReport, gyro_x), 10u);
    EXPECT_EQ(offsetof(McuSensorReport, gyro_y), 12u);
    EXPECT_EQ(offsetof(McuSensorReport, gyro_z), 14u);
    EXPECT_EQ(offsetof(McuSensorReport, acc_x), 16u);
    EXPECT_EQ(offsetof(McuSensorReport, acc_y), 18u);
    EXPECT_EQ(offsetof(McuSensorReport, acc_z), 20u);
    EXPECT_EQ(offsetof(McuSensorReport, frame_sync), 22u);
    EXPECT_EQ(offsetof(McuSensorReport, sync_capabilities), 23u);
    EXPECT_EQ(offsetof(McuSensorReport, frame_sync_count), 24u);
    EXPECT_EQ(offsetof(McuSensorReport, imu_temperature), 28u);
    EXPECT_EQ(offsetof(McuSensorReport, mag_valid), 30u);
    EXPECT_EQ(offsetof(McuSensorReport, mag_x), 31u);
    EXPECT_EQ(offsetof(McuSensorReport, mag_y), 33u);
    EXPECT_EQ(offsetof(McuSensorReport, mag_z), 35u);
    EXPECT_EQ(offsetof(McuSensorReport, imu_state), 42u);
    EXPECT_EQ(offsetof(McuSensorReport, env_valid), 47u);
    EXPECT_EQ(offsetof(McuSensorReport, env_temperature), 48u);
    EXPECT_EQ(offsetof(McuSensorReport, pressure), 50u);
    EXPECT_EQ(offsetof(McuSensorReport, humidity), 54u);
    EXPECT_EQ(offsetof(McuSensorReport, temp_cam_left), 58u);
    EXPECT_EQ(offsetof(McuSensorReport, temp_cam_right), 60u);
}

TEST(SensorReportLayout, LittleEndianDecodeOfAWireReport) {
    uint8_t wire[62] = {};
    wire[0] = 1;
    wire[2] = 0x10;  // timestamp 0x0000000000002010
    wire[3] = 0x20;
    wire[10] = 0xFE;  // gyro_x -2
    wire[11] = 0xFF;
    wire[24] = 0x03;  // frame_sync_count 3
    wire[50] = 0x64;  // pressure 100
    McuSensorReport r;
    std::memcpy(&r, wire, sizeof(r));
    EXPECT_EQ(mcutest::val(r.report_id), 1);
    EXPECT_EQ(mcutest::val(r.timestamp), 0x2010u);
    EXPECT_EQ(mcutest::val(r.gyro_x), -2);
    EXPECT_EQ(mcutest::val(r.frame_sync_count), 3u);
    EXPECT_EQ(mcutest::val(r.pressure), 100u);
}

TEST(RecordingLayout, HeaderAndRecord) {
    EXPECT_EQ(sizeof(sidFileHeader), 712u);
    EXPECT_EQ(offsetof(sidFileHeader, version), 0u);
    EXPECT_EQ(offsetof(sidFileHeader, serial_number), 4u);
    EXPECT_EQ(offsetof(sidFileHeader, start_yaw), 8u);
    EXPECT_EQ(offsetof(sidFileHeader, eeprom), 12u);
    EXPECT_EQ(offsetof(sidFileHeader, zero), 709u);
    EXPECT_EQ(sizeof(sidRecord), 104u);
    EXPECT_EQ(offsetof(sidRecord, report), 0u);
    EXPECT_EQ(offsetof(sidRecord, zero0), 62u);
    EXPECT_EQ(offsetof(sidRecord, ext_quaternion), 64u);
    EXPECT_EQ(offsetof(sidRecord, zero1), 92u);
    EXPECT_EQ(offsetof(sidRecord, frame_ts), 96u);
}

TEST(McuEnums, StatusValuesAndTexts) {
    EXPECT_EQ(static_cast<int>(MCU_STATUS::SUCCESS), 0);
    EXPECT_EQ(static_cast<int>(MCU_STATUS::NOT_OPEN), 2);
    EXPECT_EQ(static_cast<int>(MCU_STATUS::HID_OPEN_FAILED), 3);
    EXPECT_EQ(static_cast<int>(MCU_STATUS::EEPROM_FAILURE), 4);
    EXPECT_EQ(static_cast<int>(MCU_STATUS::DISCONNECTED), 5);
    EXPECT_EQ(static_cast<int>(MCU_STATUS::FAILURE), 6);
    EXPECT_EQ(static_cast<int>(MCU_STATUS::INVALID_SERIAL), 7);
    EXPECT_EQ(static_cast<int>(MCU_STATUS::NOT_RUNNING), 8);
    EXPECT_STREQ(mcuStatusText(MCU_STATUS::SUCCESS), "OK");
    EXPECT_STREQ(mcuStatusText(MCU_STATUS::NOT_OPEN), "Error : Cannot open sensors MCU device");
    EXPECT_STREQ(mcuStatusText(MCU_STATUS::HID_OPEN_FAILED),
                 "Error : Cannot open sensors MCU communication (HID)");
    EXPECT_STREQ(mcuStatusText(MCU_STATUS::EEPROM_FAILURE),
                 "Error : Cannot access internal sensors MCU memory (eeprom)");
    EXPECT_STREQ(mcuStatusText(MCU_STATUS::DISCONNECTED), "Unknown");
    EXPECT_STREQ(mcuStatusText(MCU_STATUS::FAILURE), "Error : Sensors MCU failure");
    EXPECT_STREQ(mcuStatusText(MCU_STATUS::INVALID_SERIAL), "Error : Sensors MCU invalid serial number");
    EXPECT_STREQ(mcuStatusText(MCU_STATUS::NOT_RUNNING), "Error : Sensors MCU not running");
    EXPECT_STREQ(mcuStatusText(1), "Unknown");
    EXPECT_STREQ(mcuStatusText(-3), "Unknown");
    EXPECT_STREQ(mcuStatusText(99), "Unknown");
}

TEST(McuEnums, RatesShareTheirValues) {
    EXPECT_EQ(IMU_ODR_100, 0);
    EXPECT_EQ(IMU_ODR_200, 1);
    EXPECT_EQ(IMU_ODR_400, 2);
    EXPECT_EQ(IMU_ODR_800, 3);
    IMU_FREQ f = IMU_ODR_400;
    _imu_odr o = f;
    EXPECT_EQ(o, IMU_ODR_400);
    EXPECT_EQ(imuOdrToHz(0), 100);
    EXPECT_EQ(imuOdrToHz(1), 200);
    EXPECT_EQ(imuOdrToHz(2), 400);
    EXPECT_EQ(imuOdrToHz(3), 800);
    EXPECT_EQ(imuOdrToHz(7), 800);
}
