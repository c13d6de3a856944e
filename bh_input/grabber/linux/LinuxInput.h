#pragma once

// bh::LinuxInput, the capture session of a USB camera: it finds the camera's
// video node, builds the stereo grabber, opens the sensors MCU, brings up the
// control channel and leaves the camera streaming (setUp), and undoes all of
// it in close. The image tuning operations (V4L2 controls, gamma presets,
// enhancement sets, regions of interest) live in LinuxInputTuning.cpp.

#include <memory>
#include <string>

#include "bh_input/grabber/linux/linuxStereoGrabber.h"
#include "bh_input/grabber/virtualGrabber.h"

namespace bh {

struct IMUPacket;

// V4L2 control ids of the image settings.
enum CAMERA_CONTROL_ID : uint32_t {
    CONTROL_BRIGHTNESS = 0x980900,
    CONTROL_CONTRAST = 0x980901,
    CONTROL_SATURATION = 0x980902,
    CONTROL_HUE = 0x980903,
    CONTROL_AUTO_WHITE_BALANCE = 0x98090C,
    CONTROL_GAMMA = 0x980910,
    CONTROL_WHITE_BALANCE_TEMPERATURE = 0x98091A,
};

namespace cbs {
// The nine gamma curves selected by the gamma setting 1..9 (row = setting - 1).
extern const unsigned char PRESET_GAMMA[9][16];
}  // namespace cbs

class LinuxInput : public VirtualGrabber {
public:
    LinuxInput();
    ~LinuxInput() override;

    // ---- session
    int setUp(int& id, int width, int height, int fps, int buffers, bool noMCU, IMU_FREQ imuFreq,
              bool ect) override;
    void setOutputBufferPtr(unsigned char* ptr) override;
    void close(bool ledOff) override;
    int openMCU(bool record) override;
    KOVmcu* getMCU() override { return mcu.get(); }
    bool activateCBS();
    bool WaitForNextFrameEvent(int tries);
    int enableECT() override;
    int disableECT() override;
    bool isCaptureOpened() const { return capture_opened; }
    bool isECT() const { return ect; }
    bool isCBS() const { return cbs; }
    // The grabber while a session exists (tests, the node checks).
    LinuxStereoGrabber* getGrabber() { return grabber.get(); }

    // ---- frames
    bool isNewFrame() override;
    void setCaptureStatus(GRABBER_STATE state) override;
    unsigned char* getPixels() override;
    unsigned long long getTimeStamp() override;
    bool isExposureLocked() override;
    bool isCameraDisconnected() override { return false; }
    int waitForNewFrame(int timeoutMs) override;
    float getFPS() override;
    int getEffectiveWidth() override;
    int getEffectiveHeight() override;
    void deleteWinVI() override {}
    void afterGrab() override {}
    // Brackets a read of the output buffer (see LinuxStereoGrabber).
    void enterCriticalSection() override {
        if (grabber)
            grabber->enterCriticalSection();
    }
    void exitCriticalSection() override {
        if (grabber)
            grabber->exitCriticalSection();
    }
    // The fused inertial packet of the last delivered frame; 1 when there is
    // one, 0 without sensors.
    int getIMUPacket(IMUPacket& packet);
    std::string getCameraSystemPath(int id) override;

    // ---- camera identity and flash
    unsigned int getSerialNumber() override;
    int writeSerialNumber(int serial) override;
    int getFWVersion() override;
    int SPI_FlashErase(int address, int size) override;
    int SPI_FlashProgramStart(int address, unsigned char* data, int size) override;
    int SPI_FlashProgramRead(unsigned char* data, int address, int size) override;

    // ---- control channel forwards (CBS or old by the camera's firmware)
    int SensorRead(unsigned char chip, unsigned long address, unsigned char* value, int width,
                   int sensor) override;
    int SensorWrite(unsigned char chip, unsigned long address, unsigned char value, int width,
                    int sensor) override;
    int SystemRead(unsigned long address, unsigned char* value) override;
    int SystemWrite(unsigned long address, unsigned char value) override;
    int ISPExposureGet(unsigned char side, int* value) override;
    int ISPGainGet(unsigned char side, int* value) override;
    int ISPGainSet(unsigned char side, int value) override;
    int ISPExposureSet(unsigned char side, int value) override;
    int ISPAECAGCEnable(bool enable) override;
    int isAECAGC() override;
    int getLEDStatus();
    int setLEDStatus(int value, bool useDefault);
    int getSensorTemperature(int side) override;

    // ---- image tuning (LinuxInputTuning.cpp)
    int setCameraControlSettings(uint32_t id, int value);
    int getCameraControlSettings(uint32_t id);
    int resetCameraControlSettings(uint32_t id);
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
    int setGammaPreset(int sensor, int setting);
    int setGammaCurve(int sensor, const unsigned char* curve);
    int setDefaultGammaCurve();
    int setEnhancedGammaCurve();
    int setDefaultBLC();
    int setEnhancedBLC();
    int setDefaultSharpening();
    int setEnhancedSharpening();
    int setDefaultAWBGain();
    int setEnhancedAWBGain();
    int setROIforAECAGC(int side, Rect roi) override;
    int resetROIforAECAGC(int side) override;
    int getROIforAECAGC(int side, Rect& roi) override;
    int applyManualExpFromRegister();
    int saveManualExpToRegister();

protected:
    std::unique_ptr<LinuxStereoGrabber> grabber;
    bool capture_opened = false;
    bool cbs = false;
    bool ect = false;

private:
    // The CBS sensor (0 or 1) of a forward's sensor number (1 or 2 as the
    // old channel counts them).
    static int cbsSensor(int sensor) { return sensor >= 2 ? 1 : 0; }
    int setBLC(unsigned char value);
    int setAWBGain(unsigned char value);
    int copyExposureRegisters(bool toParking);
    // Writes one sensor register of both sensors, 100 us apart, and reads it
    // back; 0 when both hold the value.
    int writeSensorPair(uint32_t address, unsigned char value, int mismatch);
};

}  // namespace bh
