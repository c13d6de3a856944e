#pragma once

// The USB wrapper's behaviour (status polling and the one-number settings),
// written once over the session it wraps:
//
//     // linux/: the real wrapper
//     class USBWrapperGrabber : public USBWrapperGrabberT<LinuxInput, CameraControl> {};
//     bh::setWrapperFactory(bh::USB_INPUT, [] { return std::make_unique<USBWrapperGrabber>(); });
//
// Session is a VirtualGrabber that also has getLEDStatus(), setLEDStatus(int,
// bool), getSensorTemperature(int) and the eight default/enhanced image
// operations. Control is the software exposure control, constructed as
// Control(VirtualGrabber*, int fps), with initXExpoAndXGain, setXGainFromCamera,
// getXGain, setXExpoFromCamera, getXExpo, modifyGainToX, modifyExposureToX.
//
// Time comes from platform::clock(), so tests can step it.

#include <memory>
#include <mutex>

#include "bh_input/grabber/GrabberWrapper.h"
#include "platform/Clock.h"

namespace bh {

template <class Session, class Control>
class USBWrapperGrabberT : public Session, public WrapperGrabber {
public:
    VirtualGrabber& grabber() override { return *this; }

    void endSetup(unsigned char* buffer) override {
        Session::setOutputBufferPtr(buffer);
        auto_exposure = true;
        int rate = static_cast<int>(Session::getFPS());
        control = std::make_unique<Control>(this, rate);
        control->initXExpoAndXGain();
        last_status = now();
    }

    GRABBER_STATE getFrameStatus() override {
        std::lock_guard<std::mutex> lock(mutex);
        if (Session::isExposureLocked()) {
            Session::setCaptureStatus(GRABBER_STATE_LOCKED);
            return GRABBER_STATE_LOCKED;
        }
        bool fresh = Session::isNewFrame();
        if (!fresh) {
            int64_t elapsedMs = (now() - last_status) / 1000000;
            if (static_cast<float>(elapsedMs) <= timeout_ms)
                return GRABBER_STATE_NONE;
        }
        GRABBER_STATE result = fresh ? GRABBER_STATE_FRAME : GRABBER_STATE_LOST;
        Session::setCaptureStatus(result);
        last_status = now();
        return result;
    }

    int checkStreamStatus() override { return pollStreamStatus(*this, timeout_ms); }

    int getGrabberSettingsValue(VIDEO_SETTINGS setting) override {
        std::lock_guard<std::mutex> lock(mutex);
        int value = -1;
        switch (setting) {
            case GAIN:
                if (control)
                    value = control->setXGainFromCamera() < 0 ? -1 : control->getXGain();
                break;
            case EXPOSURE:
                if (control)
                    value = control->setXExpoFromCamera() < 0 ? -1 : control->getXExpo();
                break;
            case GAMMA:
                value = Session::getGammaSetting();
                if (value > 9) {
                    Session::setGammaSetting(-1, true);
                    value = Session::getGammaSetting();
                }
                break;
            case WHITEBALANCE_TEMPERATURE:
                value = 9300 - Session::getWhiteBalanceSetting();
                break;
            case AEC_AGC:
                value = Session::isAECAGC();
                break;
            case LED_STATUS:
                value = Session::getLEDStatus();
                break;
            default:
                // The other settings are read through the session's own
                // getters; this one-number read answers -1 for them.
                break;
        }
        last_status = now();
        return value;
    }

    int setGrabberSettingsValue(VIDEO_SETTINGS setting, int value, bool useDefault) override {
        std::lock_guard<std::mutex> lock(mutex);
        int result = -1;
        switch (setting) {
            case GAIN:
            case EXPOSURE:
                if (useDefault) {
                    auto_exposure = true;
                    result = Session::ISPAECAGCEnable(true);
                } else {
                    switchAutoExposureOff();
                    if (control)
                        result = setting == GAIN ? control->modifyGainToX(value)
                                                 : control->modifyExposureToX(value);
                }
                break;
            case AEC_AGC:
                if (value == 1) {
                    auto_exposure = true;
                    result = Session::ISPAECAGCEnable(true);
                } else if (value == 0 && !useDefault) {
                    result = switchAutoExposureOff();
                } else {
                    result = 0;
                }
                break;
            case WHITEBALANCE_TEMPERATURE:
                result = value == -1 ? Session::setAutoWhiteBalanceSetting(1, true)
                                     : Session::setWhiteBalanceSetting(9300 - value, useDefault);
                break;
            case LED_STATUS:
                result = Session::setLEDStatus(value, useDefault);
                break;
            case BRIGHTNESS:
                result = Session::setBrightnessSetting(value, useDefault);
                break;
            case CONTRAST:
                result = Session::setContrastSetting(value, useDefault);
                break;
            case HUE:
                result = Session::setHueSetting(value, useDefault);
                break;
            case SATURATION:
                result = Session::setSaturationSetting(value, useDefault);
                break;
            case SHARPNESS:
                result = Session::setSharpnessSetting(value, useDefault);
                break;
            case GAMMA:
                result = Session::setGammaSetting(value, useDefault);
                break;
            case WHITEBALANCE_AUTO:
                result = Session::setAutoWhiteBalanceSetting(value, useDefault);
                break;
            default:
                break;
        }
        last_status = now();
        return result;
    }

    bool getVideoSettingRange(VIDEO_SETTINGS setting, int& min, int& max) override {
        return usbVideoSettingRange(setting, min, max);
    }

    bool valueInRange(VIDEO_SETTINGS setting, int value) override {
        if (value == -1)
            return true;
        int min = 0, max = 0;
        return usbVideoSettingRange(setting, min, max) && value >= min && value <= max;
    }

    int getSensorTemperature(int side) override { return Session::getSensorTemperature(side); }
    int setDefaultGammaCurve() override { return Session::setDefaultGammaCurve(); }
    int setEnhancedGammaCurve() override { return Session::setEnhancedGammaCurve(); }
    int setDefaultBLC() override { return Session::setDefaultBLC(); }
    int setEnhancedBLC() override { return Session::setEnhancedBLC(); }
    int setDefaultSharpening() override { return Session::setDefaultSharpening(); }
    int setEnhancedSharpening() override { return Session::setEnhancedSharpening(); }
    int setDefaultAWBGain() override { return Session::setDefaultAWBGain(); }
    int setEnhancedAWBGain() override { return Session::setEnhancedAWBGain(); }

    bool auto_exposure = false;
    std::unique_ptr<Control> control;
    int64_t last_status = 0;  // ns of the steady clock (platform::clock())
    int32_t unused_rate = 30;
    float timeout_ms = 3000.0f;
    std::mutex mutex;

protected:
    static int64_t now() { return platform::clock().steadyNanoseconds(); }

private:
    // Hands exposure back to the software control: off in the camera, then
    // the control re-reads the current values.
    int switchAutoExposureOff() {
        if (!auto_exposure)
            return 0;
        auto_exposure = false;
        int r = Session::ISPAECAGCEnable(false);
        if (control)
            r += control->initXExpoAndXGain();
        return r;
    }
};

}  // namespace bh
