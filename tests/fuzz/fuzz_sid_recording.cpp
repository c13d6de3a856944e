// A sensor recording file (".sid") as found on disk: truncated, of another
// version, with a partial last record or garbage. The input is the file. It
// goes through the file reader, then through the HID reader's replay: the
// header read by open() (serial number, start yaw, EEPROM image), the image
// repairs, and the records played back by updateIMUData.
//
// Today no caller reaches the playback of records (open() of a replay answers
// -1 and leaves the reader stopped); it is driven here by marking the reader
// running, so that the code is known to be safe when a caller starts it.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "bh_input/mcu/IMU/IMUHidReader.h"
#include "bh_input/mcu/IMU/SIDRecording.h"
#include "bh_input/mcu/IMU/checkEepromValues.h"
#include "platform/Platform.h"

namespace {

// The HID seam is never used by a replay; a reader still calls init/exit.
class NoHid final : public platform::Hid {
public:
    int init() override { return 0; }
    int exit() override { return 0; }
    hid_device_info* enumerate(unsigned short, unsigned short) override { return nullptr; }
    void free_enumeration(hid_device_info*) override {}
    hid_device* open_path(const char*, int) override { return nullptr; }
    void close(hid_device*) override {}
    int read(hid_device*, unsigned char*, size_t) override { return -1; }
    int read_timeout(hid_device*, unsigned char*, size_t, int) override { return -1; }
    int write(hid_device*, const unsigned char*, size_t) override { return -1; }
    int send_feature_report(hid_device*, const unsigned char*, size_t) override { return -1; }
    int get_feature_report(hid_device*, unsigned char*, size_t) override { return -1; }
    int get_serial_number_string(hid_device*, wchar_t*, size_t) override { return -1; }
    const wchar_t* error(hid_device*) override { return L"no device"; }
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzz::scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string path = fuzz::scratch() + "/recording.sid";
    fuzz::writeFile(path, std::string(reinterpret_cast<const char*>(data), size));

    sidFileHeader header;
    std::vector<sidRecord> records;
    std::string error;
    const bool read = readSIDFile(path, header, records, error);
    if (!read && error.empty())
        __builtin_trap();  // a refusal always says why
    if (read && records.size() != (size - sizeof(sidFileHeader)) / sizeof(sidRecord))
        __builtin_trap();  // every whole record is kept

    platform::ScopedBackend scope(platform::Backend{nullptr, nullptr, std::make_shared<NoHid>(), nullptr,
                                                    std::make_shared<fuzz::InstantClock>()});
    {
        IMUHidReader reader(false, 11011, 1, false, path);
        reader.open(0, false, false);
        eepromMemoryStrc image = reader.getEepromMemory(false);
        checkBiasData(image.bias);
        checkVarianceData(image.variance);
        checkCamIMUData(image.cam_imu);
        checkExtendedGyroCalibData(image.ext_gyro_calib);
        checkExtendedAccCalibData(image.ext_acc_calib);

        reader.is_running = 1;
        for (size_t i = 0; i < records.size() + 2 && i < 256; ++i) {
            if (reader.updateIMUData(false)) {
                volatile float sink = reader.getEnvPressure() + reader.getMappedMagnetoX() +
                                      reader.getCurrentIMUTemperatureInCelsius(true);
                (void)sink;
            }
        }
        reader.close();
    }
    return 0;
}
