#include "bh_input/grabber/gmsl/GMSLWrapperGrabber.h"

#include <cmath>

#include "platform/Clock.h"

namespace bh {

int64_t GMSLWrapperGrabber::now() {
    return platform::clock().steadyNanoseconds();
}

void GMSLWrapperGrabber::endSetup(unsigned char* buffer) {
    setOutputBufferPtr(buffer);
    auto_exposure = true;
    last_status = now();
}

GRABBER_STATE GMSLWrapperGrabber::getFrameStatus() {
    std::lock_guard<std::mutex> lock(mutex);
    if (isExposureLocked()) {
        setCaptureStatus(GRABBER_STATE_LOCKED);
        return GRABBER_STATE_LOCKED;
    }
    // A camera whose frames stopped is lost at once; the silence clock is
    // left as it is.
    if (isCameraDisconnected()) {
        setCaptureStatus(GRABBER_STATE_LOST);
        return GRABBER_STATE_LOST;
    }
    const bool fresh = isNewFrame();
    if (!fresh) {
        const int64_t elapsedMs = (now() - last_status) / 1000000;
        if (static_cast<float>(elapsedMs) <= timeout_ms)
            return GRABBER_STATE_NONE;
    }
    const GRABBER_STATE result = fresh ? GRABBER_STATE_FRAME : GRABBER_STATE_LOST;
    setCaptureStatus(result);
    last_status = now();
    return result;
}

int GMSLWrapperGrabber::checkStreamStatus() {
    return pollStreamStatus(*this, timeout_ms);
}

void GMSLWrapperGrabber::forceReboot() {
    if (ArgusCamera* cam = getCamera())
        cam->forceReboot();
}

int GMSLWrapperGrabber::getIMUPacket(IMUPacket& packet) {
    ArgusCamera* cam = getCamera();
    if (cam == nullptr) {
        packet = IMUPacket{};
        return 0;
    }
    packet = cam->copyIMUPacket();
    return packet.valid ? 1 : 0;
}

// ---------------------------------------------------------------------------
// One-number settings

int GMSLWrapperGrabber::getGrabberSettingsValue(VIDEO_SETTINGS setting) {
    std::lock_guard<std::mutex> lock(mutex);
    int value = -1;
    switch (setting) {
        case GAIN:
            if (ISPGainGet(0, &value) != 0)
                value = -1;
            break;
        case EXPOSURE:
            if (ISPExposureGet(0, &value) != 0)
                value = -1;
            break;
        case GAMMA:
            value = getGammaSetting();
            if (value > 9) {
                setGammaSetting(-1, true);
                value = getGammaSetting();
            }
            break;
        case WHITEBALANCE_TEMPERATURE:
            value = getWhiteBalanceSetting();
            break;
        case AEC_AGC:
            value = isAECAGC();
            break;
        case LED_STATUS:
            value = getLEDStatus();
            break;
        case EXPOSURE_TIME:
        case ANALOG_GAIN:
        case DIGITAL_GAIN:
        case EXPOSURE_COMPENSATION:
        case DENOISING:
            value = readArgusSetting(setting);
            break;
        default:
            break;
    }
    last_status = now();
    return value;
}

int GMSLWrapperGrabber::readArgusSetting(VIDEO_SETTINGS setting) {
    ArgusCamera* cam = getCamera();
    if (cam == nullptr)
        return -1;
    switch (setting) {
        case EXPOSURE_TIME:
            return cam->getFrameExposureTime(0);
        case ANALOG_GAIN: {
            const float gain = cam->getAnalogFrameGain(0);
            return gain < 0.f ? -1 : static_cast<int>(std::lround(gain * 1000.f));
        }
        case DIGITAL_GAIN: {
            const float gain = cam->getDigitalFrameGain(0);
            return gain < 0.f ? -1 : static_cast<int>(std::lround(gain));
        }
        case EXPOSURE_COMPENSATION:
            return cam->getExposureCompensationTarget();
        case DENOISING: {
            const float denoising = cam->getDenoisingValue();
            return denoising < 0.f ? -1 : static_cast<int>(std::lround(denoising * 100.f));
        }
        default:
            return -1;
    }
}

int GMSLWrapperGrabber::setGrabberSettingsValue(VIDEO_SETTINGS setting, int value, bool useDefault) {
    std::lock_guard<std::mutex> lock(mutex);
    int result = -1;
    switch (setting) {
        case GAIN:
        case EXPOSURE:
            if (useDefault) {
                auto_exposure = true;
                result = ISPAECAGCEnable(true);
            } else {
                if (auto_exposure) {
                    auto_exposure = false;
                    ISPAECAGCEnable(false);
                }
                result = setting == GAIN ? ISPGainSet(0, value) : ISPExposureSet(0, value);
            }
            break;
        case AEC_AGC:
            // Unlike USB: 0 switches off whatever the state, and asking for
            // the default switches on.
            if (value == 0 && !useDefault) {
                auto_exposure = false;
                result = ISPAECAGCEnable(false);
            } else if (value == 1 || useDefault) {
                auto_exposure = true;
                result = ISPAECAGCEnable(true);
            } else {
                result = 0;
            }
            break;
        case WHITEBALANCE_TEMPERATURE:
            result =
                value == -1 ? setAutoWhiteBalanceSetting(1, true) : setWhiteBalanceSetting(value, useDefault);
            break;
        case BRIGHTNESS:
            result = setBrightnessSetting(value, useDefault);
            break;
        case CONTRAST:
            result = setContrastSetting(value, useDefault);
            break;
        case HUE:
            result = setHueSetting(value, useDefault);
            break;
        case SATURATION:
            result = setSaturationSetting(value, useDefault);
            break;
        case SHARPNESS:
            result = setSharpnessSetting(value, useDefault);
            break;
        case GAMMA:
            result = setGammaSetting(value, useDefault);
            break;
        case WHITEBALANCE_AUTO:
            result = setAutoWhiteBalanceSetting(value, useDefault);
            break;
        case EXPOSURE_TIME:
        case ANALOG_GAIN:
        case DIGITAL_GAIN:
        case EXPOSURE_COMPENSATION:
        case DENOISING:
            result = writeArgusSetting(setting, value, useDefault);
            break;
        default:
            break;  // LED_STATUS and the pair forms: nothing here
    }
    last_status = now();
    return result;
}

int GMSLWrapperGrabber::writeArgusSetting(VIDEO_SETTINGS setting, int value, bool useDefault) {
    ArgusCamera* cam = getCamera();
    if (cam == nullptr)
        return -1;
    const int sides = cam->isMono() ? 1 : 2;
    int result = 0;
    switch (setting) {
        case EXPOSURE_TIME:
            for (int side = 0; side < sides; ++side)
                result = cam->setManualTimeExposure(side, static_cast<unsigned long>(value < 0 ? 0 : value));
            return result;
        case ANALOG_GAIN:
            for (int side = 0; side < sides; ++side) {
                const float gain = static_cast<float>(value) / 1000.f;
                result = cam->setAnalogFrameGainRange(side, gain, gain);
            }
            return result;
        case DIGITAL_GAIN:
            for (int side = 0; side < sides; ++side)
                result =
                    cam->setDigitalFrameGainRange(side, static_cast<float>(value), static_cast<float>(value));
            return result;
        case EXPOSURE_COMPENSATION:
            return cam->setExposureCompensationTarget(value, useDefault);
        case DENOISING:
            return cam->setDenoisingValue(static_cast<float>(value) / 100.f, useDefault);
        default:
            return -1;
    }
}

// The pair form: the automatic ranges of exposure (us), analog gain (x 1000)
// and digital gain, on both sensors.
int GMSLWrapperGrabber::setGrabberSettingsValue(VIDEO_SETTINGS setting, std::pair<int, int> range,
                                                bool useDefault) {
    std::lock_guard<std::mutex> lock(mutex);
    ArgusCamera* cam = getCamera();
    int result = -1;
    if (cam != nullptr) {
        const int sides = cam->isMono() ? 1 : 2;
        const int lo = useDefault ? 0 : range.first;
        const int hi = useDefault ? 0 : range.second;
        for (int side = 0; side < sides; ++side) {
            switch (setting) {
                case AUTO_EXPOSURE_TIME_RANGE:
                    result = cam->setFrameExposureRange(side, static_cast<unsigned long>(lo < 0 ? 0 : lo),
                                                        static_cast<unsigned long>(hi < 0 ? 0 : hi));
                    break;
                case AUTO_ANALOG_GAIN_RANGE:
                    result = cam->setAnalogFrameGainRange(side, static_cast<float>(lo) / 1000.f,
                                                          static_cast<float>(hi) / 1000.f);
                    break;
                case AUTO_DIGITAL_GAIN_RANGE:
                    result =
                        cam->setDigitalFrameGainRange(side, static_cast<float>(lo), static_cast<float>(hi));
                    break;
                default:
                    break;
            }
        }
    }
    last_status = now();
    return result;
}

int GMSLWrapperGrabber::getGrabberSettingsRangeValue(VIDEO_SETTINGS setting, std::pair<int, int>& range) {
    std::lock_guard<std::mutex> lock(mutex);
    ArgusCamera* cam = getCamera();
    if (cam == nullptr || !cam->isOpened())
        return -1;
    const ArgusSideSettings s = cam->getSideSettings(0);
    switch (setting) {
        case AUTO_EXPOSURE_TIME_RANGE:
            range = {static_cast<int>(s.exposure_range_us.min), static_cast<int>(s.exposure_range_us.max)};
            return 0;
        case AUTO_ANALOG_GAIN_RANGE:
            range = {static_cast<int>(std::lround(s.analog_gain_range.min * 1000.f)),
                     static_cast<int>(std::lround(s.analog_gain_range.max * 1000.f))};
            return 0;
        case AUTO_DIGITAL_GAIN_RANGE:
            range = {static_cast<int>(std::lround(s.digital_gain_range.min)),
                     static_cast<int>(std::lround(s.digital_gain_range.max))};
            return 0;
        default:
            return -1;
    }
}

// ---------------------------------------------------------------------------
// Ranges

bool GMSLWrapperGrabber::cameraSettingRange(VIDEO_SETTINGS setting, int& min, int& max) {
    ArgusCamera* cam = getCamera();
    if (cam == nullptr || !cam->isOpened())
        return false;
    const ArgusSideSettings s = cam->getSideSettings(0);
    switch (setting) {
        case EXPOSURE_TIME:
        case AUTO_EXPOSURE_TIME_RANGE:
            min = static_cast<int>(s.exposure_limits_us.min);
            max = static_cast<int>(s.exposure_limits_us.max);
            return true;
        case ANALOG_GAIN:
        case AUTO_ANALOG_GAIN_RANGE:
            min = static_cast<int>(std::lround(s.analog_gain_limits.min * 1000.f));
            max = static_cast<int>(std::lround(s.analog_gain_limits.max * 1000.f));
            return true;
        case DIGITAL_GAIN:
        case AUTO_DIGITAL_GAIN_RANGE:
            min = static_cast<int>(std::lround(s.digital_gain_limits.min));
            max = static_cast<int>(std::lround(s.digital_gain_limits.max));
            return true;
        default:
            return false;
    }
}

bool GMSLWrapperGrabber::getVideoSettingRange(VIDEO_SETTINGS setting, int& min, int& max) {
    if (gmslFixedVideoSettingRange(setting, min, max))
        return true;
    return cameraSettingRange(setting, min, max);
}

bool GMSLWrapperGrabber::valueInRange(VIDEO_SETTINGS setting, int value) {
    if (value == -1)
        return true;  // asks for the default
    if (setting == EXPOSURE_TIME || setting == ANALOG_GAIN || setting == DIGITAL_GAIN)
        return true;  // the camera's own limits decide
    int min = 0, max = 0;
    return getVideoSettingRange(setting, min, max) && value >= min && value <= max;
}

}  // namespace bh
