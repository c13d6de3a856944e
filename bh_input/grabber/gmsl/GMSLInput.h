#pragma once

// bh::GMSLInput, the capture session of a GMSL camera: it turns a grabber's
// setup arguments into an ArgusCameraConfig, owns the ArgusCamera and the
// sensor engine of the camera's inertial chip, and passes every grabber
// operation on. Operations with no meaning for this hardware (LED, flash,
// sensor registers) answer fixed values.

#include <memory>
#include <string>

#include "bh_input/grabber/gmsl/ArgusCamera.h"
#include "bh_input/grabber/virtualGrabber.h"

namespace bh {

class GMSLInput : public VirtualGrabber {
public:
    GMSLInput();
    ~GMSLInput() override;

    // ---- session
    // `verbosity` takes the place of the buffer count: the camera logs at
    // verbosity - 4. Returns a setup code.
    int setUp(int& id, int width, int height, int fps, int verbosity, bool noMCU, IMU_FREQ rate,
              bool unused) override;
    int openMCU(bool record) override;
    KOVmcu* getMCU() override { return mcu.get(); }
    void close(bool force) override;
    void setMonoCamera(bool mono) { mono_camera = mono; }
    bool isMonoCamera() const { return mono_camera; }
    bool hasWorkingMCU() const { return mcu_working; }
    ArgusCamera* getCamera() { return camera.get(); }

    // ---- frames
    void setOutputBufferPtr(unsigned char* ptr) override;
    bool isNewFrame() override;
    void setCaptureStatus(GRABBER_STATE) override {}
    unsigned char* getPixels() override;
    unsigned long long getTimeStamp() override;
    bool isCameraDisconnected() override;
    int waitForNewFrame(int timeoutMs) override;
    bool WaitForNextFrameEvent(int tries);
    float getFPS() override;
    int getEffectiveWidth() override;
    int getEffectiveHeight() override;
    void enterCriticalSection() override;
    void exitCriticalSection() override;
    void afterGrab() override {}
    void deleteWinVI() override {}
    // The inertial packet of the latest frame (zeroed when there is none).
    const IMUPacket* getIMUPacket() const;
    std::string getCameraSystemPath(int id) override;

    // ---- identity
    unsigned int getSerialNumber() override;
    int writeSerialNumber(int serial) override;
    int getFWVersion() override;

    // ---- exposure and gains
    int ISPExposureGet(unsigned char sensor, int* value) override;
    int ISPGainGet(unsigned char sensor, int* value) override;
    int ISPGainSet(unsigned char sensor, int value) override;
    int ISPExposureSet(unsigned char sensor, int value) override;
    int ISPAECAGCEnable(bool enable) override;
    int isAECAGC() override { return aec_off ? 0 : 1; }
    bool isExposureLocked() override { return false; }
    // Microseconds; the gains times 100. -1 without a camera.
    int getExposureLimits(int side, int& min, int& max);
    int getAnalogGainLimits(int side, int& min, int& max);
    int getDigitalGainLimits(int side, int& min, int& max);

    // ---- image settings
    int setBrightnessSetting(int value, bool useDefault) override;
    int setSharpnessSetting(int value, bool useDefault) override;
    int setContrastSetting(int value, bool useDefault) override;
    int setGammaSetting(int value, bool useDefault) override;
    int setHueSetting(int value, bool useDefault) override;
    int setSaturationSetting(int value, bool useDefault) override;
    int setWhiteBalanceSetting(int value, bool useDefault) override;
    int setAutoWhiteBalanceSetting(int value, bool useDefault) override;
    int getBrightnessSetting() override;
    int getSharpnessSetting() override;
    int getContrastSetting() override;
    int getHueSetting() override;
    int getGammaSetting() override;
    int getSaturationSetting() override;
    int getWhiteBalanceSetting() override;
    int getWhiteBalanceAutoSetting() override;
    int setROIforAECAGC(int side, Rect roi) override;
    int resetROIforAECAGC(int side) override;
    int getROIforAECAGC(int side, Rect& roi) override;

    // ---- no meaning on this hardware
    int getSensorTemperature(int) override { return -1; }
    int enableECT() override { return -1; }
    int disableECT() override { return -1; }
    int activateCBS() { return 1; }
    int getLEDStatus() { return -1; }
    int setLEDStatus(int, bool) { return 0; }
    int SPI_FlashErase(int, int) override { return 0; }
    int SPI_FlashProgramStart(int, unsigned char*, int) override { return 0; }
    int SPI_FlashProgramRead(unsigned char*, int, int) override { return 0; }
    int SensorRead(unsigned char, unsigned long, unsigned char*, int, int) override { return 0; }
    int SensorWrite(unsigned char, unsigned long, unsigned char, int, int) override { return 0; }
    int SystemRead(unsigned long, unsigned char*) override { return 0; }
    int SystemWrite(unsigned long, unsigned char) override { return 0; }
    int setEnhancedGammaCurve() { return 0; }
    int setDefaultGammaCurve() { return 0; }
    int setDefaultBLC() { return 0; }
    int setEnhancedBLC() { return 0; }
    int setDefaultSharpening() { return 0; }
    int setEnhancedSharpening() { return 0; }
    int setDefaultAWBGain() { return 0; }
    int setEnhancedAWBGain() { return 0; }

    // The setup code of an ArgusCamera::open result (3 outside 1..17).
    static int setupCodeOfOpen(int openResult);
    // The sync threshold (us) of a frame rate: 30 per cent of the period.
    static int syncThresholdOf(int fps);

protected:
    std::unique_ptr<ArgusCamera> camera;
    int effective_width = 0;
    int effective_height = 0;
    int frame_rate = 0;
    bool mono_camera = false;
    bool aec_off = false;
    bool mcu_working = false;
};

}  // namespace bh
