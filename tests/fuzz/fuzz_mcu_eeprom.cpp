// The sensors MCU's EEPROM image as the tool takes it in: a half-written or
// damaged image of 697 bytes (NaN, infinities, huge values, stray ids) read
// through the HID reader of either protocol generation (feature reports, or
// the legacy burst of records), repaired, turned into the sensor engine's
// calibration, and used for a few fusion rounds on sample reports that follow
// the image in the input.
//
// Input: flags (generation, model, stream state), the image (697 bytes), then
// 62-byte sample reports.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <vector>

#include "FuzzSupport.h"
#include "bh_input/mcu/IMU/IMUHidReader.h"
#include "bh_input/mcu/IMU/checkEepromValues.h"
#include "bh_input/mcu/KOVmcu.h"
#include "platform/Platform.h"

namespace {

constexpr unsigned short kReleases[8] = {0x200, 0x204, 0x205, 0x300, 0x301, 0x304, 0x305, 0x307};
constexpr bh::MODEL kModels[4] = {bh::KOV, bh::KOV_P, bh::KOVT, bh::KOVTr};

// A well-behaved MCU that serves a given image: feature reports answer with
// the record of the asked id, the legacy burst sends the records one per
// read, and the interrupt stream plays the given reports, then times out.
class ImageHid final : public platform::Hid {
public:
    ImageHid(const eepromMemoryStrc& image, unsigned short release, bool streaming)
        : image_(image), release_(release), streaming_(streaming) {}

    std::deque<std::vector<uint8_t>> stream;

    int init() override { return 0; }
    int exit() override { return 0; }
    hid_device_info* enumerate(unsigned short, unsigned short) override {
        auto* info = new hid_device_info{};
        info->path = strdup("0001:0009:00");
        info->vendor_id = 0x2B03;
        info->product_id = 0xF681;
        info->serial_number = wcsdup(L"12345678");
        info->release_number = release_;
        return info;
    }
    void free_enumeration(hid_device_info* devs) override {
        if (devs == nullptr)
            return;
        std::free(devs->path);
        std::free(devs->serial_number);
        delete devs;
    }
    hid_device* open_path(const char*, int) override { return reinterpret_cast<hid_device*>(&token_); }
    void close(hid_device*) override {}
    int read(hid_device* dev, unsigned char* data, size_t length) override {
        return read_timeout(dev, data, length, -1);
    }
    int read_timeout(hid_device*, unsigned char* data, size_t length, int) override {
        if (burst_ && !legacyRecords().empty())
            return serve(legacyRecords(), data, length);
        return serve(stream, data, length);
    }
    int write(hid_device*, const unsigned char* data, size_t length) override {
        // The legacy "read EEPROM" command starts the burst of records.
        if (length >= 2 && data[0] == 0x22 && data[1] == 0xE1)
            burst_ = true;
        return static_cast<int>(length);
    }
    int send_feature_report(hid_device*, const unsigned char* data, size_t length) override {
        if (length >= 2 && data[0] == mcu_id::STREAM && data[1] <= 1)
            streaming_ = data[1] == 1;
        return static_cast<int>(length);
    }
    int get_feature_report(hid_device*, unsigned char* data, size_t length) override {
        const uint8_t id = data[0];
        if (id == mcu_id::STREAM) {
            data[1] = streaming_ ? 1 : 0;
            return 2;
        }
        size_t offset = 0;
        size_t size = 0;
        if (!eepromRecordOf(id, offset, size))
            return -1;
        const size_t n = std::min(size, length);
        std::memcpy(data, reinterpret_cast<const uint8_t*>(&image_) + offset, n);
        data[0] = id;
        return static_cast<int>(n);
    }
    int get_serial_number_string(hid_device*, wchar_t* s, size_t n) override {
        if (n > 0)
            s[0] = L'\0';
        return 0;
    }
    const wchar_t* error(hid_device*) override { return L"image device"; }

private:
    std::deque<std::vector<uint8_t>>& legacyRecords() {
        if (!legacyBuilt_) {
            legacyBuilt_ = true;
            const uint8_t* p = reinterpret_cast<const uint8_t*>(&image_);
            auto add = [&](uint8_t legacyId, size_t offset, size_t size) {
                std::vector<uint8_t> r(p + offset, p + offset + size);
                r[0] = legacyId;
                legacy_.push_back(r);
            };
            add(mcu_id::LEGACY_SERIAL, offsetof(eepromMemoryStrc, serial), sizeof(_serial_data));
            add(mcu_id::LEGACY_BIAS, offsetof(eepromMemoryStrc, bias), sizeof(_bias_data));
            add(mcu_id::LEGACY_VARIANCE, offsetof(eepromMemoryStrc, variance), sizeof(variance_data));
            add(mcu_id::LEGACY_CAM_IMU, offsetof(eepromMemoryStrc, cam_imu), sizeof(_cam_imu_data));
            add(mcu_id::LEGACY_EXT_GYRO, offsetof(eepromMemoryStrc, ext_gyro_calib),
                sizeof(_extended_gyro_calib_data));
            add(mcu_id::LEGACY_EXT_ACC, offsetof(eepromMemoryStrc, ext_acc_calib),
                sizeof(_extended_acc_calib_data));
        }
        return legacy_;
    }
    static int serve(std::deque<std::vector<uint8_t>>& queue, unsigned char* data, size_t length) {
        if (queue.empty())
            return 0;
        const std::vector<uint8_t> r = queue.front();
        queue.pop_front();
        const size_t n = std::min(length, r.size());
        std::memcpy(data, r.data(), n);
        return static_cast<int>(n);
    }

    eepromMemoryStrc image_;
    unsigned short release_;
    bool streaming_;
    bool burst_ = false;
    bool legacyBuilt_ = false;
    std::deque<std::vector<uint8_t>> legacy_;
    int token_ = 0;
};

// The repairs alone, on a copy of each record.
void repair(const eepromMemoryStrc& image) {
    eepromMemoryStrc copy = image;
    checkBiasData(copy.bias);
    checkVarianceData(copy.variance);
    checkCamIMUData(copy.cam_imu);
    checkExtendedGyroCalibData(copy.ext_gyro_calib);
    checkExtendedAccCalibData(copy.ext_acc_calib);
    for (unsigned id = 0; id < 256; ++id) {
        size_t offset = 0;
        size_t length = 0;
        if (eepromRecordOf(static_cast<uint8_t>(id), offset, length) && offset + length > sizeof copy)
            __builtin_trap();  // a record outside the image
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    fuzz::Input in(data, size);
    const uint8_t flags = in.byte();
    eepromMemoryStrc image{};
    in.take(&image, sizeof image);
    repair(image);

    const unsigned short release = kReleases[flags & 7];
    const bh::MODEL model = kModels[(flags >> 3) & 3];
    auto hid = std::make_shared<ImageHid>(image, release, (flags & 0x20) != 0);
    for (int i = 0; i < 48 && !in.empty(); ++i) {
        std::vector<uint8_t> report(sizeof(McuSensorReport), 0);
        in.take(report.data(), report.size());
        hid->stream.push_back(report);
    }
    platform::ScopedBackend scope(
        platform::Backend{nullptr, nullptr, hid, nullptr, std::make_shared<fuzz::InstantClock>()});
    {
        auto reader = std::make_unique<IMUHidReader>(false, 0x2B03, 0xF681);
        bh::KOVmcu engine(false, 0x2B03, model, std::move(reader));
        const _imu_odr rate = static_cast<_imu_odr>((flags >> 6) & 3);
        if (engine.open(12345678, false, rate) == MCU_STATUS::SUCCESS) {
            engine.updateCameraIMUcalibration();
            engine.beginFusion();
            for (int round = 0; round < 64; ++round)
                engine.fusionRound();
            (void)engine.getIMUPose(0);
            (void)engine.getIMUPoseAtImage(0);
            (void)engine.getIMUPoseFromAccel(0, true);
            (void)engine.getIMUCameraTransform();
            (void)engine.exportCalib();
            (void)engine.getIMUPacketBatch(0, UINT64_MAX);
            std::string text;
            engine.getMCUDataSavingTime(text);
        }
        engine.close();
    }
    return 0;
}
