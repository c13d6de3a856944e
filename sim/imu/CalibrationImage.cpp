#include "sim/imu/CalibrationImage.h"

#include <algorithm>
#include <cstring>

namespace sim {

namespace {

// Intrinsics of one imager at one resolution (index = 2 x resolution + side):
// focal lengths, principal point, then small distortion terms.
calib_mono_data monoRecord(int index) {
    calib_mono_data m{};
    m.id = static_cast<uint8_t>(mcu_id::MONO_FIRST + index);
    static const float kScale[4] = {1.0f, 1.0f, 0.6667f, 0.3333f};
    const float scale = kScale[(index / 2) % 4];
    const float side = (index % 2 == 0) ? 0.0f : 1.5f;
    const float values[12] = {1460.2f * scale + side,
                              1460.9f * scale + side,
                              960.4f * scale - side,
                              600.7f * scale + side,
                              -0.0412f,
                              0.0921f,
                              0.00031f,
                              -0.00012f,
                              -0.0387f,
                              0.0f,
                              0.0f,
                              0.0f};
    std::copy(std::begin(values), std::end(values), m.values);
    return m;
}

}  // namespace

eepromMemoryStrc makeCalibrationImage(uint32_t serial, uint8_t imuOdr) {
    eepromMemoryStrc e{};
    e.serial = {mcu_id::SERIAL, static_cast<int32_t>(serial / 10000000u),
                static_cast<int32_t>(serial % 10000000u)};
    e.bias = {mcu_id::BIAS, {0.0021f, -0.0013f, 0.0008f}, {0.012f, -0.008f, 0.021f}};
    e.variance = {mcu_id::VARIANCE, {2.5e-5f, 2.4e-5f, 2.7e-5f}, {4.1e-4f, 3.9e-4f, 4.4e-4f}};
    e.cam_imu = {mcu_id::CAM_IMU, {0.0035f, -0.0021f, 0.0012f}};
    for (int i = 0; i < 8; ++i)
        e.calib_mono[i] = monoRecord(i);
    e.calib_stereo.id = mcu_id::STEREO;
    e.calib_stereo.params[0] = 119.87f;  // baseline in mm, then the two small angles
    e.calib_stereo.params[1] = 0.0021f;
    e.calib_stereo.params[2] = -0.0009f;
    for (int i = 0; i < 4; ++i) {
        e.calib_stereo.block1[i] = 0.0004f * static_cast<float>(i + 1);
        e.calib_stereo.block2[i] = -0.0003f * static_cast<float>(i + 1);
        e.calib_stereo.block3[i] = 0.0002f * static_cast<float>(i + 1);
    }
    e.barom_calib = {mcu_id::BAROM, 0.0f, 1.0f};
    e.ext_gyro_calib = {mcu_id::EXT_GYRO,
                        {1.0021f, 0.9984f, 1.0007f},
                        {0.0012f, -0.0008f, 0.0005f, 0.0011f, -0.0006f, 0.0009f},
                        {0.0019f, -0.0011f, 0.0007f},
                        {0.0001f, -0.0002f, 0.0001f}};
    e.ext_acc_calib = {mcu_id::EXT_ACC,
                       {0.9992f, 1.0013f, 1.0004f},
                       {0.0009f, -0.0004f, 0.0007f},
                       {0.011f, -0.007f, 0.019f},
                       {0.0002f, 0.0001f, -0.0001f}};
    e.mag_calib = {mcu_id::MAG, {1.0f, 1.0f, 1.0f}, {0.0f, 0.0f, 0.0f}};
    e.imu_odr = {mcu_id::ODR, imuOdr};
    e.date_time.id = mcu_id::DATE;
    e.date_time.valid = 1;
    const char date[] = "2025/11/03 14:20:00 UTC";
    static_assert(sizeof(date) <= sizeof(e.date_time.text), "date text fits its field");
    std::memcpy(e.date_time.text, date, sizeof(date));
    return e;
}

std::vector<uint8_t> imageBytes(const eepromMemoryStrc& image) {
    std::vector<uint8_t> out(sizeof(image));
    std::memcpy(out.data(), &image, sizeof(image));
    return out;
}

eepromMemoryStrc imageFromBytes(const std::vector<uint8_t>& bytes) {
    eepromMemoryStrc image{};
    if (!bytes.empty())
        std::memcpy(&image, bytes.data(), std::min(bytes.size(), sizeof(image)));
    return image;
}

}  // namespace sim
