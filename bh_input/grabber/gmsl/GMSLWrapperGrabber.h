#pragma once

// bh::GMSLWrapperGrabber: the GMSL session with the wrapper's status polling
// and one-number settings. bh::LiveCameraGrabber builds one for GMSL_INPUT.
// A disconnected camera (frames stopped, capture error) polls as lost at
// once; otherwise the shape is the USB wrapper's, with a 30 s silence before
// a stream counts as lost (a frozen camera restarts within it).

#include <mutex>
#include <utility>

#include "bh_input/grabber/GrabberWrapper.h"
#include "bh_input/grabber/gmsl/GMSLInput.h"

namespace bh {

class GMSLWrapperGrabber : public GMSLInput, public WrapperGrabber {
public:
    VirtualGrabber& grabber() override { return *this; }

    void endSetup(unsigned char* buffer) override;
    GRABBER_STATE getFrameStatus() override;
    int checkStreamStatus() override;
    int getGrabberSettingsValue(VIDEO_SETTINGS setting) override;
    int setGrabberSettingsValue(VIDEO_SETTINGS setting, int value, bool useDefault) override;
    int setGrabberSettingsValue(VIDEO_SETTINGS setting, std::pair<int, int> range, bool useDefault) override;
    int getGrabberSettingsRangeValue(VIDEO_SETTINGS setting, std::pair<int, int>& range) override;
    bool getVideoSettingRange(VIDEO_SETTINGS setting, int& min, int& max) override;
    bool valueInRange(VIDEO_SETTINGS setting, int value) override;
    void setMonoCamera(bool mono) override { GMSLInput::setMonoCamera(mono); }
    void forceReboot() override;
    // 1 with the packet of the latest frame, 0 when it has none.
    int getIMUPacket(IMUPacket& packet) override;

    int setDefaultGammaCurve() override { return GMSLInput::setDefaultGammaCurve(); }
    int setEnhancedGammaCurve() override { return GMSLInput::setEnhancedGammaCurve(); }
    int setDefaultBLC() override { return GMSLInput::setDefaultBLC(); }
    int setEnhancedBLC() override { return GMSLInput::setEnhancedBLC(); }
    int setDefaultSharpening() override { return GMSLInput::setDefaultSharpening(); }
    int setEnhancedSharpening() override { return GMSLInput::setEnhancedSharpening(); }
    int setDefaultAWBGain() override { return GMSLInput::setDefaultAWBGain(); }
    int setEnhancedAWBGain() override { return GMSLInput::setEnhancedAWBGain(); }

    bool auto_exposure = false;
    int64_t last_status = 0;  // ns of the steady clock (platform::clock())
    int32_t unused_rate = 30;
    float timeout_ms = 30000.0f;
    std::mutex mutex;

private:
    static int64_t now();
    // Settings 13 to 20 as the camera's frame metadata and requests tell them.
    int readArgusSetting(VIDEO_SETTINGS setting);
    int writeArgusSetting(VIDEO_SETTINGS setting, int value, bool useDefault);
    // The camera-dependent ranges of settings 13 to 18.
    bool cameraSettingRange(VIDEO_SETTINGS setting, int& min, int& max);
};

}  // namespace bh
