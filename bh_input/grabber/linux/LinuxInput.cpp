#include "bh_input/grabber/linux/LinuxInput.h"
#include "bh_input/grabber/linux/ClockWait.h"

#include <chrono>
#include <cstring>

#include "bh_input/grabber/DeviceList.h"
#include "bh_input/mcu/KOVmcu.h"
#include "platform/Platform.h"
#include "support/KLogger.h"

namespace bh {

namespace {

constexpr const char* kErrorFile = "grabber/linux/linuxStereoGrabber";
constexpr int kSessionMcuVendor = 0x2B03;

// The frame rate a session asks for when the caller gives 0, by image height.
int defaultRateForHeight(int height) {
    if (height < 720)
        return 100;
    if (height < 1080)
        return 60;
    if (height < 1200)
        return 30;
    return 15;
}

}  // namespace

LinuxInput::LinuxInput() {
    frame_rate_window.reset(60);
    frame_rate_window.window = 1000000000ULL;
}

LinuxInput::~LinuxInput() {
    close(true);
}

// ---------------------------------------------------------------------------
// setUp and close

int LinuxInput::setUp(int& camera, int w, int h, int rate, int buffers, bool noMCU, IMU_FREQ imuFreq,
                      bool withEct) {
    width = w;
    height = h;
    imu_freq = imuFreq;
    capture_opened = false;
    ect = false;
    id = camera;
    fps = rate != 0 ? rate : defaultRateForHeight(h);

    int node = -1;
    const BH_DEVICE found = findDevicePath_linux(node, camera);
    if (found == BH_DEVICE_NONE)
        return 4;

    device = found;
    cbs = isCBSDevice(device);
    model = deviceToModel(device);
    sharpness = (model == KOVT || model == KOVTr) ? 4 : 3;

    const std::string path = "/dev/video" + std::to_string(node);
    KLOG(LOGGER_NAME::SDK_INPUT, info, "Device Name : {}", path);

    grabber = std::make_unique<LinuxStereoGrabber>(cbs);
    // The caller's own rate goes down: the grabber applies its width rule to 0.
    const int built = grabber->construct(path, w, h, static_cast<float>(rate), buffers);
    if (built != 0) {
        pushError(kErrorFile, __LINE__, "Linux grabber construction failed : " + std::to_string(built));
        KLOG(LOGGER_NAME::SDK_INPUT, error, "Linux grabber construction failed {}", built);
        return built;
    }
    if (getEffectiveWidth() != w / 2) {
        pushError(kErrorFile, __LINE__, " linux_grabber error Size");
        KLOG(LOGGER_NAME::SDK_INPUT, error, " linux_grabber error Size");
        return 7;
    }

    grabber->setModel(model);
    frame_rate_window.reset(rate);
    grabber->setFrameRateWindow(&frame_rate_window);

    if (!grabber->startCapture()) {
        pushError(kErrorFile, __LINE__, "capture not started");
        KLOG(LOGGER_NAME::SDK_INPUT, error, "capture not started");
        return 5;
    }
    if (!activateCBS()) {
        pushError(kErrorFile, __LINE__, "active CBS");
        KLOG(LOGGER_NAME::SDK_INPUT, error, "active CBS timeout");
        return 10;
    }
    grabber->activateSyncOV580();

    if (!noMCU && (model == KOV_P || model == KOVT || model == KOVTr)) {
        const int opened = openMCU(false);
        if (opened == static_cast<int>(MCU_STATUS::INVALID_SERIAL)) {
            pushError(kErrorFile, __LINE__, "no MCU serial");
            KLOG(LOGGER_NAME::SDK_INPUT, error, "no MCU serial");
            return 11;
        }
        if (opened != 0) {
            pushError(kErrorFile, __LINE__, "mcu error:" + std::to_string(opened));
            KLOG(LOGGER_NAME::SDK_INPUT, error, "mcu error: {}", opened);
            return 2;
        }
    }

    // Image enhancement and the region of interest exist only on CBS.
    if (!cbs) {
        capture_opened = true;
        return 0;
    }
    if ((withEct ? enableECT() : disableECT()) != 0) {
        pushError(kErrorFile, __LINE__, "ect");
        KLOG(LOGGER_NAME::SDK_INPUT, error, "ect error");
        return 8;
    }
    resetROIforAECAGC(0);
    resetROIforAECAGC(1);
    applyManualExpFromRegister();
    capture_opened = true;
    return 0;
}

void LinuxInput::close(bool ledOff) {
    if (grabber) {
        if (ledOff && cbs && capture_opened)
            grabber->setLEDValue(false);
        saveManualExpToRegister();
        grabber->destruct();
        grabber.reset();
    }
    if (mcu) {
        mcu->close();
        mcu.reset();
    }
    capture_opened = false;
}

bool LinuxInput::activateCBS() {
    if (!cbs)
        return true;
    if (!WaitForNextFrameEvent(100))
        return false;
    unsigned char buffer[64];
    std::memset(buffer, 0, sizeof buffer);
    if (grabber->InitializeSPIQuery(buffer, 64) != 0) {
        WaitForNextFrameEvent(100);
        grabber->InitializeSPIQuery(buffer, 64);
    }
    if (buffer[0] != 'O')
        return false;
    grabber->setLEDValue(true);
    return true;
}

bool LinuxInput::WaitForNextFrameEvent(int tries) {
    if (!grabber || tries < 1)
        return false;
    for (int i = 0; i < tries; ++i) {
        if (isNewFrame()) {
            getPixels();
            afterGrab();
            return true;
        }
        sleepUs(5000);
    }
    return false;
}

int LinuxInput::openMCU(bool record) {
    // The producer must not join samples of an engine that is going away.
    if (grabber)
        grabber->setMCU(nullptr);
    mcu.reset();
    mcu =
        std::make_unique<KOVmcu>(false, static_cast<uint16_t>(kSessionMcuVendor), model, record, "./imu.sid");
    const unsigned int serial = getSerialNumber();
    int result = static_cast<int>(mcu->open(serial, false, imu_freq, nullptr, nullptr, true, false));
    if (result == 0) {
        if (mcu->startCapture(0.0f)) {
            if (grabber)
                grabber->setMCU(mcu.get());
            return 0;
        }
        KLOG(LOGGER_NAME::SDK_INPUT, error, "mcu NOT running");
        pushError(kErrorFile, __LINE__, "mcu NOT running");
        result = static_cast<int>(MCU_STATUS::NOT_RUNNING);
    }
    mcu.reset();
    return result;
}

int LinuxInput::enableECT() {
    if (!cbs)
        return 0;
    int sum = setEnhancedGammaCurve() + setEnhancedBLC() + setEnhancedSharpening();
    for (int retry = 0; retry < 5 && sum != 0; ++retry)
        sum = setEnhancedGammaCurve() + setEnhancedBLC() + setEnhancedSharpening();
    if (sum == 0) {
        ect = true;
        return 0;
    }
    KLOG(LOGGER_NAME::SDK_INPUT, warn, "Warning unable to set Image Enhancement");
    return sum;
}

int LinuxInput::disableECT() {
    if (!cbs)
        return 0;
    int sum = setDefaultGammaCurve() + setDefaultBLC() + setDefaultSharpening();
    for (int retry = 0; retry < 5 && sum != 0; ++retry)
        sum = setDefaultGammaCurve() + setDefaultBLC() + setDefaultSharpening();
    ect = false;
    if (sum != 0)
        KLOG(LOGGER_NAME::SDK_INPUT, warn, "Warning unable to disable Image Enhancement");
    return sum;
}

// ---------------------------------------------------------------------------
// Frames

void LinuxInput::setOutputBufferPtr(unsigned char* ptr) {
    if (grabber)
        grabber->setPtr(ptr);
}

bool LinuxInput::isNewFrame() {
    return grabber ? grabber->isNewFrame() : false;
}

void LinuxInput::setCaptureStatus(GRABBER_STATE state) {
    // A lost stream cuts the CBS channel off until a frame comes back.
    if (grabber)
        grabber->setDisconnected(state == GRABBER_STATE_LOST);
}

unsigned char* LinuxInput::getPixels() {
    return grabber ? grabber->getPixels() : nullptr;
}

unsigned long long LinuxInput::getTimeStamp() {
    return grabber ? grabber->getDeliveredTimestamp() : 0;
}

bool LinuxInput::isExposureLocked() {
    return grabber ? grabber->isExposureLocked() : false;
}

int LinuxInput::waitForNewFrame(int timeoutMs) {
    return grabber ? grabber->waitForNewFrame(timeoutMs) : 1;
}

float LinuxInput::getFPS() {
    if (!grabber)
        return 0.f;
    const uint64_t now = static_cast<uint64_t>(platform::clock().systemNanoseconds());
    // The window answers the fallback (-1 here) when it cannot tell; only then
    // is the driver asked, which costs an ioctl.
    const float measured = frame_rate_window.fps(now, -1.f);
    return measured >= 0.f ? measured : static_cast<float>(grabber->input_get_framerate());
}

int LinuxInput::getEffectiveWidth() {
    return grabber ? grabber->getEffWidth() : 0;
}

int LinuxInput::getEffectiveHeight() {
    return grabber ? grabber->getEffHeight() : 0;
}

int LinuxInput::getIMUPacket(IMUPacket& packet) {
    if (!grabber || !mcu)
        return 0;
    packet = grabber->getDeliveredSensors().packet;
    return 1;
}

std::string LinuxInput::getCameraSystemPath(int camera) {
    int node = -1;
    findDevicePath_linux(node, camera);
    return "/dev/video" + std::to_string(node);
}

// ---------------------------------------------------------------------------
// Identity and flash

unsigned int LinuxInput::getSerialNumber() {
    if (!grabber)
        return 0;
    const int serial = grabber->getKOVSerialNumber();
    return serial > 0 ? static_cast<unsigned int>(serial) : 0;
}

int LinuxInput::writeSerialNumber(int serial) {
    return grabber && grabber->writeKOVSerialNumber(serial) ? 0 : -1;
}

int LinuxInput::getFWVersion() {
    return grabber ? grabber->getKOVFirmwareVersion() : 0;
}

// A sector erase at the address; the size only says which sector.
int LinuxInput::SPI_FlashErase(int address, int /*size*/) {
    if (!grabber)
        return -1;
    return cbs ? grabber->linux_cbs_SPI_FlashErase(1, static_cast<uint32_t>(address))
               : grabber->linux_SPI_FlashErase(1, address);
}

int LinuxInput::SPI_FlashProgramStart(int address, unsigned char* data, int size) {
    if (!grabber)
        return -1;
    if (cbs)
        return grabber->linux_cbs_SPI_FlashProgramStart(data, static_cast<uint32_t>(address), size);
    return grabber->linux_SPI_FlashSetAdr(address) + grabber->linux_SPI_FlashProgramStart(data, size);
}

int LinuxInput::SPI_FlashProgramRead(unsigned char* data, int address, int size) {
    if (!grabber)
        return -1;
    return cbs ? grabber->linux_cbs_SPI_FlashProgramRead(data, static_cast<uint32_t>(address), size)
               : grabber->linux_SPI_FlashProgramRead(data, address, size);
}

// ---------------------------------------------------------------------------
// Control channel forwards

int LinuxInput::SensorRead(unsigned char chip, unsigned long address, unsigned char* value, int w,
                           int sensor) {
    if (!grabber)
        return -1;
    if (cbs)
        return grabber->linux_cbs_read_sensor_register(cbsSensor(sensor), w, static_cast<uint32_t>(address),
                                                       value);
    return grabber->linux_SensorRead(chip, static_cast<int>(address), value, w, sensor);
}

int LinuxInput::SensorWrite(unsigned char chip, unsigned long address, unsigned char value, int w,
                            int sensor) {
    if (!grabber)
        return -1;
    if (cbs)
        return grabber->linux_cbs_write_sensor_register(cbsSensor(sensor), w, static_cast<uint32_t>(address),
                                                        value);
    return grabber->linux_SensorWrite(chip, static_cast<int>(address), value, w, sensor);
}

int LinuxInput::SystemRead(unsigned long address, unsigned char* value) {
    if (!grabber)
        return -1;
    return cbs ? grabber->linux_cbs_read_system_register(static_cast<uint32_t>(address), value)
               : grabber->linux_SystemRead(static_cast<int>(address), value);
}

int LinuxInput::SystemWrite(unsigned long address, unsigned char value) {
    if (!grabber)
        return -1;
    return cbs ? grabber->linux_cbs_write_system_register(static_cast<uint32_t>(address), value)
               : grabber->linux_SystemWrite(static_cast<int>(address), value);
}

// Exposure in three bytes: high 8 bits, middle 8 bits, low 4 bits in the
// high nibble. On CBS the sensor registers 0x3500..0x3502 hold them.
int LinuxInput::ISPExposureGet(unsigned char side, int* value) {
    if (!grabber || value == nullptr)
        return -1;
    unsigned char b[3] = {0, 0, 0};
    int r;
    if (cbs) {
        r = grabber->linux_cbs_read_sensor_register(side, 1, 0x3502, &b[0]);
        if (r == 0 && b[0] == 0xFF)
            return -1;
        r += grabber->linux_cbs_read_sensor_register(side, 1, 0x3501, &b[1]);
        r += grabber->linux_cbs_read_sensor_register(side, 1, 0x3500, &b[2]);
    } else {
        r = grabber->linux_ISPExposureGet(b, side + 1);
    }
    if (r != 0)
        return r;
    *value = (b[2] << 12) + (b[1] << 4) + (b[0] >> 4);
    return 0;
}

int LinuxInput::ISPExposureSet(unsigned char side, int value) {
    if (!grabber)
        return -1;
    const unsigned char high = static_cast<unsigned char>(value >> 12);
    const unsigned char middle = static_cast<unsigned char>((value & 0xFFFF) >> 4);
    const unsigned char low = static_cast<unsigned char>((value & 15) * 16);
    if (!cbs)
        return grabber->linux_ISPManualExposure(high, middle, low, side + 1);
    return grabber->linux_cbs_write_sensor_register(side, 1, 0x3500, high) +
           grabber->linux_cbs_write_sensor_register(side, 1, 0x3501, middle) +
           grabber->linux_cbs_write_sensor_register(side, 1, 0x3502, low);
}

int LinuxInput::ISPGainGet(unsigned char side, int* value) {
    if (!grabber || value == nullptr)
        return -1;
    unsigned char b[2] = {0, 0};
    int r;
    if (cbs) {
        r = grabber->linux_cbs_read_sensor_register(side, 1, 0x3509, &b[0]) +
            grabber->linux_cbs_read_sensor_register(side, 1, 0x3508, &b[1]);
    } else {
        r = grabber->linux_ISPGainGet(b, side + 1);
    }
    if (r != 0)
        return r;
    *value = b[0] + (b[1] << 8);
    return 0;
}

int LinuxInput::ISPGainSet(unsigned char side, int value) {
    if (!grabber)
        return -1;
    const unsigned char high = static_cast<unsigned char>(value >> 8);
    const unsigned char low = static_cast<unsigned char>(value & 255);
    if (!cbs)
        return grabber->linux_ISPManualGain(0, high, low, side + 1);
    return grabber->linux_cbs_write_sensor_register(side, 1, 0x3507, 0) +
           grabber->linux_cbs_write_sensor_register(side, 1, 0x3508, high) +
           grabber->linux_cbs_write_sensor_register(side, 1, 0x3509, low);
}

int LinuxInput::ISPAECAGCEnable(bool enable) {
    return grabber ? grabber->ISPAECAGCEnable(enable) : -1;
}

int LinuxInput::isAECAGC() {
    return grabber && grabber->getISPAECAGC() ? 1 : 0;
}

int LinuxInput::getLEDStatus() {
    if (!grabber || !cbs)
        return -1;
    unsigned char value = 0;
    return grabber->getLEDValue(&value) == 0 ? value : -1;
}

// The LED is on by default.
int LinuxInput::setLEDStatus(int value, bool useDefault) {
    if (!grabber || !cbs)
        return -1;
    return grabber->setLEDValue(useDefault || value != 0);
}

int LinuxInput::getSensorTemperature(int side) {
    if (!grabber)
        return -1;
    unsigned char value = 0;
    if (SensorWrite(0x6C, 0x4D12, 1, 1, side + 1) != 0)
        return -1;
    if (SensorRead(0x6C, 0x4D13, &value, 1, side + 1) != 0)
        return -1;
    return static_cast<int>(value) - 64;
}

}  // namespace bh
