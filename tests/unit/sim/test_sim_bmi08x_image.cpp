// The calibration image behind a GMSL camera's identification EEPROM: image
// byte o at I2C address A + 1 + (o >> 8), register o & 0xFF; read in 32-byte
// pieces as the reader does, checked with the reader's record checks, and
// written back in 8-byte pages.
#include <cstring>

#include "bh_input/mcu/IMU/checkEepromValues.h"
#include "bh_input/mcu/IMU/eepromMemory.h"
#include "tests/unit/sim/test_sim_bmi08x_support.h"

using namespace bmi08xtest;

namespace {

constexpr size_t kImageSize = 697;
constexpr uint8_t kBase = 0x55;

// The whole image, in 32-byte reads at offsets that are multiples of 32.
std::vector<uint8_t> readImage(Bench& b, uint8_t base = kBase) {
    std::vector<uint8_t> image;
    for (size_t offset = 0; offset < kImageSize; offset += 32) {
        const size_t length = std::min<size_t>(32, kImageSize - offset);
        const std::vector<uint8_t> piece = b.read(static_cast<uint8_t>(base + 1 + (offset >> 8)),
                                                  static_cast<uint8_t>(offset & 0xFF), length);
        EXPECT_EQ(piece.size(), length) << "offset " << offset;
        if (piece.size() != length)
            return {};
        image.insert(image.end(), piece.begin(), piece.end());
    }
    return image;
}

// Writes bytes at an image offset as the reader's I2C write does: pieces that
// end at 8-byte page boundaries, each its own transfer.
bool writeImage(Bench& b, size_t offset, const std::vector<uint8_t>& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const size_t at = offset + done;
        const size_t piece = std::min(bytes.size() - done, 8 - at % 8);
        if (!b.write(static_cast<uint8_t>(kBase + 1 + (at >> 8)), static_cast<uint8_t>(at & 0xFF),
                     std::vector<uint8_t>(bytes.begin() + static_cast<std::ptrdiff_t>(done),
                                          bytes.begin() + static_cast<std::ptrdiff_t>(done + piece))))
            return false;
        done += piece;
    }
    return true;
}

// "%Y/%m/%d %H:%M:%S UTC": a digit where the pattern has 'd'.
bool isCalibrationDate(const std::string& text) {
    const std::string pattern = "dddd/dd/dd dd:dd:dd UTC";
    if (text.size() != pattern.size())
        return false;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool digit = text[i] >= '0' && text[i] <= '9';
        if (pattern[i] == 'd' ? !digit : text[i] != pattern[i])
            return false;
    }
    return true;
}

template <typename Record>
bool unchangedBy(void (*check)(Record&), const Record& record) {
    Record copy = record;
    check(copy);
    return std::memcmp(&copy, &record, sizeof record) == 0;
}

}  // namespace

TEST(Bmi08xImage, ReadableInBlocksAndValid) {
    Bench b;
    const std::vector<uint8_t> bytes = readImage(b);
    ASSERT_EQ(bytes.size(), kImageSize);
    // Record ids at their offsets.
    const struct {
        size_t offset;
        uint8_t id;
    } records[] = {{0, 0x33},   {9, 0x34},   {34, 0x35},  {59, 0x36},  {72, 0x37},  {121, 0x38}, {170, 0x39},
                   {219, 0x3A}, {268, 0x3B}, {317, 0x3C}, {366, 0x3D}, {415, 0x3E}, {464, 0x3F}, {525, 0x40},
                   {534, 0x41}, {595, 0x42}, {644, 0x43}, {669, 0x44}, {671, 0x45}};
    for (const auto& r : records)
        EXPECT_EQ(bytes[r.offset], r.id) << "offset " << r.offset;
    // Serial record: prefix (i32 at 1) * 10000000 + body (i32 at 5).
    int32_t prefix = 0, body = 0;
    std::memcpy(&prefix, &bytes[1], 4);
    std::memcpy(&body, &bytes[5], 4);
    EXPECT_EQ(prefix, 4);
    EXPECT_EQ(body, 2000123);
    EXPECT_EQ(static_cast<uint32_t>(prefix) * 10000000u + static_cast<uint32_t>(body), kSerial);
    // IMU data rate record: 400 Hz (2) by default.
    EXPECT_EQ(bytes[670], 2);

    eepromMemoryStrc image{};
    std::memcpy(&image, bytes.data(), sizeof image);
    // Every record passes the reader's checks as it is.
    EXPECT_TRUE(unchangedBy(checkBiasData, image.bias));
    EXPECT_TRUE(unchangedBy(checkVarianceData, image.variance));
    EXPECT_TRUE(unchangedBy(checkCamIMUData, image.cam_imu));
    EXPECT_TRUE(unchangedBy(checkExtendedGyroCalibData, image.ext_gyro_calib));
    EXPECT_TRUE(unchangedBy(checkExtendedAccCalibData, image.ext_acc_calib));
    // And is a calibration, not a blank: variances and scales are set. (The
    // record fields are packed: copy them before gtest takes references.)
    for (int i = 0; i < 3; ++i) {
        const float gyroVar = image.variance.gyro_var[i], accVar = image.variance.acc_var[i];
        const float gyroScale = image.ext_gyro_calib.scale[i], accScale = image.ext_acc_calib.scale[i];
        EXPECT_GT(gyroVar, 0.f);
        EXPECT_GT(accVar, 0.f);
        EXPECT_NEAR(gyroScale, 1.0f, 0.05f);
        EXPECT_NEAR(accScale, 1.0f, 0.05f);
    }
    const uint8_t dateValid = image.date_time.valid;
    EXPECT_EQ(dateValid, 1);
    const std::string date(image.date_time.text, strnlen(image.date_time.text, sizeof image.date_time.text));
    EXPECT_TRUE(isCalibrationDate(date)) << date;
    // The last read, at 672, was 25 bytes; the block holds 185 bytes of image.
    EXPECT_EQ(b.read(0x58, 185, 1), std::vector<uint8_t>{0xFF});
}

TEST(Bmi08xImage, WritesPersistAndReadBack) {
    Bench b;
    // A new bias record at offset 9 (25 bytes).
    _bias_data bias{0x34, {0.01f, -0.02f, 0.03f}, {0.1f, -0.2f, 0.3f}};
    std::vector<uint8_t> bytes(sizeof bias);
    std::memcpy(bytes.data(), &bias, sizeof bias);
    ASSERT_TRUE(writeImage(b, 9, bytes));
    EXPECT_EQ(b.read(0x56, 9, bytes.size()), bytes);
    // Across a block boundary: 12 bytes at image offset 250 (block 0 and block 1).
    const std::vector<uint8_t> across = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    ASSERT_TRUE(writeImage(b, 250, across));
    const std::vector<uint8_t> image = readImage(b);
    ASSERT_EQ(image.size(), kImageSize);
    EXPECT_EQ(std::vector<uint8_t>(image.begin() + 250, image.begin() + 262), across);
    EXPECT_EQ(std::vector<uint8_t>(image.begin() + 9, image.begin() + 34), bytes);
    // The model's own view agrees.
    const eepromMemoryStrc seen = b.imu().calibrationImage();
    EXPECT_EQ(std::memcmp(&seen.bias, &bias, sizeof bias), 0);
    // The identification block is another chip: untouched.
    EXPECT_EQ(b.reg(0x55, 0x04), 0x11);
}

TEST(Bmi08xImage, RateRecordFromTheConfiguration) {
    sim::GmslImuConfig config = exactConfig();
    config.imageImuOdr = 1;
    Bench b(config);
    EXPECT_EQ(b.read(0x58, 669 - 512, 2), (std::vector<uint8_t>{0x44, 0x01}));
}

TEST(Bmi08xImage, BlankImageIsAllOnes) {
    sim::GmslImuConfig config = exactConfig();
    config.image = sim::CalibrationImageKind::Blank;
    Bench b(config);
    const std::vector<uint8_t> image = readImage(b);
    ASSERT_EQ(image.size(), kImageSize);
    for (uint8_t byte : image)
        ASSERT_EQ(byte, 0xFF);
}

TEST(Bmi08xImage, AbsentImageAnswersNothing) {
    sim::GmslImuConfig config = exactConfig();
    config.image = sim::CalibrationImageKind::Absent;
    Bench b(config);
    for (uint8_t address : {0x56, 0x57, 0x58})
        EXPECT_EQ(b.reg(address, 0), -1) << int(address);
    EXPECT_EQ(b.reg(0x55, 0x04), 0x11);
    EXPECT_EQ(b.reg(kAcc, 0x00), 0x1E);
}
