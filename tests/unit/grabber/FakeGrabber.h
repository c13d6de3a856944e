#pragma once

// A VirtualGrabber whose setUp records its arguments; every other operation
// answers a neutral value. Only for tests of the interface itself.

#include "bh_input/grabber/virtualGrabber.h"

class FakeGrabber : public bh::VirtualGrabber {
public:
    FakeGrabber(int* w, int* h, int* f) : w_(w), h_(h), f_(f) {}
    int setUp(int& i, int wi, int he, int fp, int, bool, bh::IMU_FREQ, bool) override {
        id = i, width = wi, height = he, fps = fp;
        model = bh::KOVT;
        *w_ = wi, *h_ = he, *f_ = fp;
        return 0;
    }
    void setOutputBufferPtr(unsigned char*) override {}
    void close(bool) override {}
    bool isNewFrame() override { return false; }
    void setCaptureStatus(bh::GRABBER_STATE) override {}
    unsigned char* getPixels() override { return nullptr; }
    int getSensorTemperature(int) override { return -1; }
    unsigned long long getTimeStamp() override { return 0; }
    bool isExposureLocked() override { return false; }
    bool isCameraDisconnected() override { return false; }
    int enableECT() override { return 0; }
    int disableECT() override { return 0; }
    int waitForNewFrame(int) override { return 1; }
    float getFPS() override { return 0; }
    int getEffectiveWidth() override { return width; }
    int getEffectiveHeight() override { return height; }
    unsigned int getSerialNumber() override { return 0; }
    int writeSerialNumber(int) override { return 0; }
    int getFWVersion() override { return 0; }
    void deleteWinVI() override {}
    void afterGrab() override {}
    void enterCriticalSection() override {}
    void exitCriticalSection() override {}
    int SPI_FlashErase(int, int) override { return 0; }
    int SPI_FlashProgramStart(int, unsigned char*, int) override { return 0; }
    int SPI_FlashProgramRead(unsigned char*, int, int) override { return 0; }
    int ISPExposureGet(unsigned char, int*) override { return 0; }
    int ISPGainGet(unsigned char, int*) override { return 0; }
    int ISPGainSet(unsigned char, int) override { return 0; }
    int ISPExposureSet(unsigned char, int) override { return 0; }
    int ISPAECAGCEnable(bool) override { return 0; }
    int isAECAGC() override { return 0; }
    int SensorRead(unsigned char, unsigned long, unsigned char*, int, int) override { return 0; }
    int SensorWrite(unsigned char, unsigned long, unsigned char, int, int) override { return 0; }
    int SystemRead(unsigned long, unsigned char*) override { return 0; }
    int SystemWrite(unsigned long, unsigned char) override { return 0; }
    int setBrightnessSetting(int, bool) override { return 0; }
    int setSharpnessSetting(int v, bool) override { return sharpness = v, 0; }
    int setContrastSetting(int, bool) override { return 0; }
    int setGammaSetting(int, bool) override { return 0; }
    int setHueSetting(int, bool) override { return 0; }
    int setSaturationSetting(int, bool) override { return 0; }
    int setWhiteBalanceSetting(int, bool) override { return 0; }
    int setAutoWhiteBalanceSetting(int, bool) override { return 0; }
    int getBrightnessSetting() override { return 0; }
    int getSharpnessSetting() override { return sharpness; }
    int getContrastSetting() override { return 0; }
    int getHueSetting() override { return 0; }
    int getGammaSetting() override { return 0; }
    int getSaturationSetting() override { return 0; }
    int getWhiteBalanceSetting() override { return 0; }
    int getWhiteBalanceAutoSetting() override { return 0; }
    std::string getCameraSystemPath(int) override { return "/dev/video0"; }
    int setROIforAECAGC(int, bh::Rect) override { return 0; }
    int resetROIforAECAGC(int) override { return 0; }
    int getROIforAECAGC(int, bh::Rect&) override { return 0; }
    int openMCU(bool) override { return 0; }
    bh::KOVmcu* getMCU() override { return nullptr; }

private:
    int *w_, *h_, *f_;
};
