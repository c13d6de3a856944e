#pragma once

// bh::LiveCameraGrabber, the object that callers hold: it keeps one wrapper of
// each kind (USB, GMSL) and forwards every call to the wrapper of the current
// input type, with fixed answers when there is none.
//
// The wrappers themselves (bh::USBWrapperGrabber on bh::LinuxInput,
// bh::GMSLWrapperGrabber on bh::GMSLInput) live with their sessions. They
// implement bh::WrapperGrabber and make themselves known with
// bh::setWrapperFactory; until a session registers its factory, setUp on that
// input type answers 3 ("No grabber system found").

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "bh_input/grabber/virtualGrabber.h"

namespace bh {

struct IMUPacket;

// The operations a wrapper adds to its session; `grabber()` is the session
// itself (a VirtualGrabber).
class WrapperGrabber {
public:
    virtual ~WrapperGrabber() = default;
    virtual VirtualGrabber& grabber() = 0;

    virtual void endSetup(unsigned char* buffer) = 0;
    virtual GRABBER_STATE getFrameStatus() = 0;
    virtual int checkStreamStatus() = 0;
    virtual int getGrabberSettingsValue(VIDEO_SETTINGS setting) = 0;
    virtual int setGrabberSettingsValue(VIDEO_SETTINGS setting, int value, bool useDefault) = 0;
    virtual bool getVideoSettingRange(VIDEO_SETTINGS setting, int& min, int& max) = 0;
    virtual bool valueInRange(VIDEO_SETTINGS setting, int value) = 0;
    virtual void setMonoCamera(bool mono) { (void)mono; }
    virtual void forceReboot() {}
    virtual int getGrabberSettingsRangeValue(VIDEO_SETTINGS setting, std::pair<int, int>& range) {
        (void)setting, (void)range;
        return -1;
    }
    virtual int setGrabberSettingsValue(VIDEO_SETTINGS setting, std::pair<int, int> range, bool useDefault) {
        (void)setting, (void)range, (void)useDefault;
        return -1;
    }
    virtual int getIMUPacket(IMUPacket& packet) {
        (void)packet;
        return 0;
    }
    virtual int getSensorTemperature(int side) {
        (void)side;
        return -1;
    }
    virtual int setDefaultGammaCurve() = 0;
    virtual int setEnhancedGammaCurve() = 0;
    virtual int setDefaultBLC() = 0;
    virtual int setEnhancedBLC() = 0;
    virtual int setDefaultSharpening() = 0;
    virtual int setEnhancedSharpening() = 0;
    virtual int setDefaultAWBGain() = 0;
    virtual int setEnhancedAWBGain() = 0;
};

// checkStreamStatus of both wrappers: polls getFrameStatus every 10 ms until
// it yields a frame (0), or until timeoutMs has passed since the call (1); a
// time-out of 0 or less gives 1 at once.
int pollStreamStatus(WrapperGrabber& wrapper, float timeoutMs);

using WrapperFactory = std::function<std::unique_ptr<WrapperGrabber>()>;
// Registers how to build the wrapper of an input type (USB_INPUT or GMSL_INPUT).
void setWrapperFactory(INPUT_TYPE type, WrapperFactory factory);

class LiveCameraGrabber {
public:
    explicit LiveCameraGrabber(INPUT_TYPE type = NO_INPUT);
    ~LiveCameraGrabber();
    LiveCameraGrabber(const LiveCameraGrabber&) = delete;
    LiveCameraGrabber& operator=(const LiveCameraGrabber&) = delete;

    void setInputType(INPUT_TYPE type) { input_type = type; }
    INPUT_TYPE getInputType() const { return input_type; }
    void setMonoCapture(bool m) { mono = m; }
    // Models 0..3 give USB_INPUT, 4, 5, 30, 31 GMSL_INPUT; others change nothing.
    void setInputTypeFromModel(MODEL model);

    int setUp(int& id, int width = -1, int height = -1, int fps = -1, int buffers = 2, bool noMCU = false,
              IMU_FREQ imuFreq = IMU_ODR_400, bool ect = false);
    void endSetup(unsigned char* buffer);
    void close(bool force = false);
    void forceReboot();

    GRABBER_STATE getFrameStatus();
    int checkStreamStatus();
    int getGrabberSettingsValue(VIDEO_SETTINGS setting);
    int setGrabberSettingsValue(VIDEO_SETTINGS setting, int value, bool useDefault = false);
    int setGrabberSettingsValue(VIDEO_SETTINGS setting, std::pair<int, int> range, bool useDefault = false);
    int getGrabberSettingsRangeValue(VIDEO_SETTINGS setting, std::pair<int, int>& range);
    bool getVideoSettingRange(VIDEO_SETTINGS setting, int& min, int& max);
    bool valueInRange(VIDEO_SETTINGS setting, int value);

    int getSensorTemperature(int side);
    int getWidth();
    int getHeight();
    bool hasMCU();
    MODEL getCameraModel();

    unsigned char* getPixels();
    KOVmcu* getMCU();
    int getIMUPacket(IMUPacket& packet);
    unsigned long long getTimeStamp();
    float getFPS();
    int getRequestedFPS();
    int getEffectiveWidth();
    int getEffectiveHeight();
    unsigned int getSerialNumber();
    int getFWVersion();
    int writeSerialNumber(int serial);
    int waitForNewFrame(int timeoutMs);
    int getSharpnessSetting();
    int getROIforAECAGC(int side, Rect& roi);
    int setROIforAECAGC(int side, Rect roi);
    int resetROIforAECAGC(int side);

    void setOutputBufferPtr(unsigned char* ptr);
    void deleteWinVI();
    void enterCriticalSection();
    void exitCriticalSection();
    void afterGrab();
    int enableECT();
    int disableECT();
    std::string getCameraSystemPath(int id);

    int setDefaultGammaCurve();
    int setEnhancedGammaCurve();
    int setDefaultBLC();
    int setEnhancedBLC();
    int setDefaultSharpening();
    int setEnhancedSharpening();
    int setDefaultAWBGain();
    int setEnhancedAWBGain();

private:
    // The wrapper of the current input type, or null.
    WrapperGrabber* current() const;
    VirtualGrabber* session() const;

    std::unique_ptr<WrapperGrabber> usb;
    std::unique_ptr<WrapperGrabber> gmsl;
    INPUT_TYPE input_type = NO_INPUT;
    bool mono = false;
};

}  // namespace bh
