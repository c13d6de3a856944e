#include "bh_input/grabber/gmsl/GMSLInput.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "bh_input/mcu/KOVmcu.h"
#include "platform/Clock.h"
#include "support/KLogger.h"

namespace bh {

namespace {

// The engine of a GMSL camera is made with this number as its vendor id: it
// is the one that selects the inertial reader on I2C.
constexpr uint16_t kGmslMcuVendor = 0x2b03;
constexpr int kAutoWhiteBalance = 1;

// Gamma settings 1..9 spread evenly over the tone curve's 1.5..3.25.
constexpr float kGammaLow = 1.5f;
constexpr float kGammaStep = (3.25f - 1.5f) / 8.f;
constexpr int kDefaultGammaSetting = 3;
// Saturation settings 0..8 to the colour saturation of the ISP (1 = as is).
constexpr float kSaturationPerStep = 0.25f;

void sessionLog(const std::string& text) {
    KLOG(LOGGER_NAME::SDK_INPUT, info, "{}", text);
}

}  // namespace

GMSLInput::GMSLInput() = default;

GMSLInput::~GMSLInput() {
    close(false);
}

int GMSLInput::setupCodeOfOpen(int openResult) {
    static const int table[18] = {0, 5, 3, 6, 3, 3, 4, 4, 6, 6, 6, 6, 6, 6, 6, 5, 10, 10};
    if (openResult < 1 || openResult > 17)
        return 3;
    return table[openResult];
}

int GMSLInput::syncThresholdOf(int rate) {
    if (rate <= 0)
        return 0;
    return static_cast<int>((1000000.0 / rate) * 0.3);
}

int GMSLInput::setUp(int& cameraId, int w, int h, int rate, int verbosity, bool noMCU, IMU_FREQ imuRate,
                     bool) {
    if (camera) {
        camera->close();
        camera.reset();
    }
    camera = std::make_unique<ArgusCamera>();

    id = cameraId;
    width = w;
    height = h;
    fps = rate;
    frame_rate = rate;
    mcu_working = false;
    device = BH_DEVICE_NONE;
    model = KOV_MODEL_UNKNOWN;

    ArgusCameraConfig config;
    config.verbosity = std::max(0, verbosity - 4);
    config.sync_threshold = syncThresholdOf(rate);
    config.start_consumer = true;
    config.clip_rectangle = {0.f, 0.f, 1.f, 1.f};
    config.mono = mono_camera;
    if (mono_camera) {
        config.first_sensor = static_cast<uint32_t>(cameraId);
        config.stream_size = {static_cast<uint32_t>(w), static_cast<uint32_t>(h)};
    } else {
        config.first_sensor = static_cast<uint32_t>(cameraId * 2);
        config.second_sensor = static_cast<uint32_t>(cameraId * 2 + 1);
        config.stream_size = {static_cast<uint32_t>(w / 2), static_cast<uint32_t>(h)};
    }
    config.mode_size = config.stream_size;
    config.frame_durations = {rate > 0 ? 1000000000ULL / static_cast<uint64_t>(rate) : 0ULL};

    const int opened = camera->open(config, true);
    if (opened != 0)
        return setupCodeOfOpen(opened);

    frame_rate_window.reset(rate);
    sessionLog("Device Name : KOVQ_CAM" + std::to_string(cameraId));

    effective_width = camera->getEffectiveWidth() * (mono_camera ? 1 : 2);
    effective_height = camera->getEffectiveHeight();
    if (effective_width != w || effective_height != h) {
        KLOG(LOGGER_NAME::SDK_INPUT, error, "gmsl_grabber error Size");
        pushError(__FILE__, __LINE__, "gmsl_grabber error Size");
        return 7;
    }

    imu_freq = imuRate;
    switch (camera->getCameraSubModelID()) {
        case 1:
            device = BH_DEVICE_GMSL_LEGACY;  // no model stored, no swap: kept as it stands
            camera->setSwapSides(false);
            break;
        case 2:
            device = BH_DEVICE_KOV_QG_ALPHA;
            model = KOV_Q;
            camera->setSwapSides(true);
            break;
        case 3:
            device = BH_DEVICE_KOV_QG_BETA;
            model = KOV_Q;
            camera->setSwapSides(true);
            break;
        case 4:
            device = BH_DEVICE_KOV_QG_PICO;
            model = KOV_QP;
            camera->setSwapSides(true);
            break;
        case 30:
            device = BH_DEVICE_KOV_QS_A;
            model = KOV_QS_A;
            break;
        case 31:
            device = BH_DEVICE_KOV_QS_B;
            model = KOV_QS_B;
            break;
        default:
            device = BH_DEVICE_NONE;
            break;
    }

    if (noMCU) {
        mcu_working = true;
        return 0;
    }
    const int result = openMCU(false);
    if (result == 0) {
        mcu_working = true;
        return 0;
    }
    if (result == static_cast<int>(MCU_STATUS::INVALID_SERIAL)) {
        sessionLog("no MCU serial");
        return 2;
    }
    sessionLog("mcu error: " + std::to_string(result));
    return 0;  // the images work without the inertial chip
}

int GMSLInput::openMCU(bool record) {
    // The frame path must not use an engine that is going away.
    if (camera)
        camera->setMCU(nullptr);
    if (mcu) {
        mcu->close();
        mcu.reset();
    }
    mcu = std::make_unique<KOVmcu>(false, kGmslMcuVendor, model, record, ".imu.sid");
    const unsigned int serial = camera ? camera->getSerialNumber() : 0;
    const int result = static_cast<int>(mcu->open(serial, false, imu_freq, nullptr, nullptr, true, false));
    if (camera)
        camera->setMCU(mcu.get());
    if (result != 0) {
        if (camera)
            camera->setMCU(nullptr);
        mcu->close();
        mcu.reset();
        return result;
    }
    if (!mcu->startCapture(0.f))
        sessionLog("MCU NOT running");
    return 0;
}

void GMSLInput::close(bool) {
    if (camera) {
        camera->close();
        camera.reset();
    }
    if (mcu) {
        mcu->close();
        mcu.reset();
    }
}

// ---------------------------------------------------------------------------
// Frames

void GMSLInput::setOutputBufferPtr(unsigned char* ptr) {
    if (camera)
        camera->setPtr(ptr);
}

bool GMSLInput::isNewFrame() {
    return camera ? camera->isNewFrame() : false;
}

unsigned char* GMSLInput::getPixels() {
    if (!camera)
        return nullptr;
    camera->clearNewFrame();
    return camera->getPtr();
}

unsigned long long GMSLInput::getTimeStamp() {
    return camera ? camera->getImageTimestampinUs() * 1000ULL : 0;
}

bool GMSLInput::isCameraDisconnected() {
    if (!camera)
        return false;
    const int status = camera->getStatus();
    return status == 17 || status == 18;
}

int GMSLInput::waitForNewFrame(int timeoutMs) {
    if (!camera)
        return 1;
    return camera->waitForFrame(timeoutMs) ? 1 : 0;
}

bool GMSLInput::WaitForNextFrameEvent(int tries) {
    if (tries <= 0 || !camera)
        return false;
    for (int i = 0; i < tries; ++i) {
        if (isNewFrame()) {
            getPixels();
            afterGrab();
            return true;
        }
        platform::clock().sleepFor(std::chrono::milliseconds(1));
    }
    return false;
}

float GMSLInput::getFPS() {
    return camera ? static_cast<float>(camera->getFPS()) : 0.f;
}

int GMSLInput::getEffectiveWidth() {
    return camera && camera->isOpened() ? effective_width : 0;
}

int GMSLInput::getEffectiveHeight() {
    return camera && camera->isOpened() ? effective_height : 0;
}

void GMSLInput::enterCriticalSection() {
    if (camera)
        camera->enterCriticalSection();
}

void GMSLInput::exitCriticalSection() {
    if (camera)
        camera->exitCriticalSection();
}

const IMUPacket* GMSLInput::getIMUPacket() const {
    return camera ? &camera->getIMUPacket() : nullptr;
}

std::string GMSLInput::getCameraSystemPath(int) {
    if (!camera || camera->getBus() < 0)
        return std::string();
    return "/dev/i2c-" + std::to_string(camera->getBus());
}

unsigned int GMSLInput::getSerialNumber() {
    return camera ? camera->getSerialNumber() : 0;
}

int GMSLInput::writeSerialNumber(int) {
    return -1;  // the identification block is written by the factory tools only
}

int GMSLInput::getFWVersion() {
    return camera ? camera->getFirmwareVersion() : -1;
}

// ---------------------------------------------------------------------------
// Exposure and gains

int GMSLInput::ISPExposureGet(unsigned char sensor, int* value) {
    if (!camera || value == nullptr)
        return -1;
    *value = camera->getFrameExposurePercent(sensor);
    return *value < 0 ? -1 : 0;
}

int GMSLInput::ISPGainGet(unsigned char sensor, int* value) {
    if (!camera || value == nullptr)
        return -1;
    *value = camera->getAnalogFrameGainPercent(sensor);
    return *value < 0 ? -1 : 0;
}

int GMSLInput::ISPGainSet(unsigned char sensor, int value) {
    return camera ? camera->setManualAnalogGain(sensor, value) : -1;
}

int GMSLInput::ISPExposureSet(unsigned char sensor, int value) {
    return camera ? camera->setManualExposure(sensor, value) : -1;
}

int GMSLInput::ISPAECAGCEnable(bool enable) {
    if (!camera)
        return -1;
    aec_off = !enable;
    if (enable)
        return camera->setAutomaticExposure() + camera->setAutomaticAnalogGain() +
               camera->setAutomaticDigitalGain();
    // Back to manual: the sensors keep the exposure and gains of the latest
    // frame.
    int result = 0;
    const int sides = camera->isMono() ? 1 : 2;
    for (int side = 0; side < sides; ++side) {
        const ArgusSideSettings s = camera->getSideSettings(side);
        result += camera->setManualTimeExposure(side, static_cast<unsigned long>(s.frame_exposure_us));
        result += camera->setAnalogFrameGainRange(side, s.frame_analog_gain, s.frame_analog_gain);
        result += camera->setDigitalFrameGainRange(side, s.frame_digital_gain, s.frame_digital_gain);
    }
    return result;
}

int GMSLInput::getExposureLimits(int side, int& min, int& max) {
    unsigned long lo = 0, hi = 0;
    if (!camera || camera->getExposureLimits(side, lo, hi) != 0)
        return -1;
    min = static_cast<int>(lo);
    max = static_cast<int>(hi);
    return 0;
}

int GMSLInput::getAnalogGainLimits(int side, int& min, int& max) {
    float lo = 0, hi = 0;
    if (!camera || camera->getAnalogGainLimits(side, lo, hi) != 0.f)
        return -1;
    min = static_cast<int>(std::lround(lo * 100.f));
    max = static_cast<int>(std::lround(hi * 100.f));
    return 0;
}

int GMSLInput::getDigitalGainLimits(int side, int& min, int& max) {
    float lo = 0, hi = 0;
    if (!camera || camera->getDigitalGainLimits(side, lo, hi) != 0.f)
        return -1;
    min = static_cast<int>(std::lround(lo * 100.f));
    max = static_cast<int>(std::lround(hi * 100.f));
    return 0;
}

// ---------------------------------------------------------------------------
// Image settings

int GMSLInput::setBrightnessSetting(int, bool) {
    return -1;  // no brightness control on these sensors
}
int GMSLInput::setContrastSetting(int, bool) {
    return -1;
}
int GMSLInput::setHueSetting(int, bool) {
    return -1;
}
int GMSLInput::getBrightnessSetting() {
    return -1;
}
int GMSLInput::getContrastSetting() {
    return -1;
}
int GMSLInput::getHueSetting() {
    return -1;
}

int GMSLInput::setSharpnessSetting(int value, bool useDefault) {
    return camera ? camera->setSharpening(value, useDefault) : -1;
}

int GMSLInput::getSharpnessSetting() {
    return camera ? camera->getSharpening() : -1;
}

int GMSLInput::setGammaSetting(int value, bool useDefault) {
    if (!camera)
        return -1;
    if (useDefault || value < 1)
        value = kDefaultGammaSetting;
    value = std::min(value, 9);
    const float gamma = kGammaLow + static_cast<float>(value - 1) * kGammaStep;
    int result = 0;
    for (int channel = 0; channel < 3; ++channel)
        result = camera->setToneMappingFromGamma(channel, gamma);
    return result;
}

int GMSLInput::getGammaSetting() {
    if (!camera)
        return -1;
    const float gamma = camera->getGamma();
    if (gamma < kGammaLow)
        return 255;  // no curve set yet: out of range, so the caller resets it
    return 1 + static_cast<int>(std::lround((gamma - kGammaLow) / kGammaStep));
}

int GMSLInput::setSaturationSetting(int value, bool useDefault) {
    if (!camera)
        return -1;
    return camera->setColorSaturation(static_cast<float>(std::max(0, value)) * kSaturationPerStep,
                                      useDefault);
}

int GMSLInput::getSaturationSetting() {
    if (!camera)
        return -1;
    const float saturation = camera->getColorSaturation();
    return saturation < 0.f ? -1 : static_cast<int>(std::lround(saturation / kSaturationPerStep));
}

int GMSLInput::setWhiteBalanceSetting(int value, bool useDefault) {
    if (!camera)
        return -1;
    if (useDefault)
        return camera->setAutomaticWhiteBalance(kAutoWhiteBalance, true);
    return camera->setManualWhiteBalance(static_cast<unsigned int>(std::max(0, value)));
}

int GMSLInput::getWhiteBalanceSetting() {
    return camera ? camera->getManualWhiteBalance() : -1;
}

int GMSLInput::setAutoWhiteBalanceSetting(int value, bool useDefault) {
    return camera ? camera->setAutomaticWhiteBalance(value, useDefault) : -1;
}

int GMSLInput::getWhiteBalanceAutoSetting() {
    return camera ? camera->getAutomaticWhiteBalanceStatus() : -1;
}

int GMSLInput::setROIforAECAGC(int side, Rect roi) {
    return camera ? camera->setROIforAECAGC(side, roi) : -1;
}

int GMSLInput::resetROIforAECAGC(int side) {
    return camera ? camera->resetROIforAECAGC(side) : -1;
}

int GMSLInput::getROIforAECAGC(int side, Rect& roi) {
    return camera ? camera->getROIforAECAGC(side, roi) : -1;
}

}  // namespace bh
