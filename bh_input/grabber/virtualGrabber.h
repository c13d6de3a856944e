#pragma once

// The abstract grabber that every capture session implements: bh::LinuxInput
// (USB, V4L2) and bh::GMSLInput (GMSL, Argus). The order of the virtual
// operations is part of the interface; keep it.

#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "bh_input/grabber/defines.h"

namespace bh {

class KOVmcu;

// The measure behind getFPS: timestamps (ns, system clock) of the latest
// frames, newest at the back.
class FrameRateWindow {
public:
    std::deque<uint64_t> timestamps;
    std::mutex mutex;
    int32_t capacity = 60;
    uint64_t window = 1000000000ULL;

    // Clears the queue and sets the capacity (setUp: the requested rate).
    void reset(int32_t newCapacity);
    // The producer: pushes a frame's timestamp, dropping the oldest once
    // capacity entries are kept.
    void push(uint64_t timestampNs);
    // The frame rate at time nowNs; `fallback` (the driver's own rate) when
    // the window cannot tell.
    float fps(uint64_t nowNs, float fallback);
};

class VirtualGrabber {
public:
    VirtualGrabber();
    virtual ~VirtualGrabber();

    virtual int setUp(int& id, int width, int height, int fps, int buffers, bool noMCU, IMU_FREQ imuFreq,
                      bool ect) = 0;
    virtual void setOutputBufferPtr(unsigned char* ptr) = 0;
    virtual void close(bool force) = 0;
    virtual bool isNewFrame() = 0;
    virtual void setCaptureStatus(GRABBER_STATE state) = 0;
    virtual unsigned char* getPixels() = 0;
    virtual int getSensorTemperature(int side) = 0;
    virtual unsigned long long getTimeStamp() = 0;
    virtual bool isExposureLocked() = 0;
    virtual bool isCameraDisconnected() = 0;
    virtual int enableECT() = 0;
    virtual int disableECT() = 0;
    virtual int waitForNewFrame(int timeoutMs) = 0;
    virtual float getFPS() = 0;
    virtual int getRequestedFPS();
    virtual int getEffectiveWidth() = 0;
    virtual int getEffectiveHeight() = 0;
    virtual unsigned int getSerialNumber() = 0;
    virtual int writeSerialNumber(int serial) = 0;
    virtual int getFWVersion() = 0;
    virtual void deleteWinVI() = 0;
    virtual void afterGrab() = 0;
    virtual void enterCriticalSection() = 0;
    virtual void exitCriticalSection() = 0;
    virtual int SPI_FlashErase(int address, int size) = 0;
    virtual int SPI_FlashProgramStart(int address, unsigned char* data, int size) = 0;
    virtual int SPI_FlashProgramRead(unsigned char* data, int address, int size) = 0;
    virtual int ISPExposureGet(unsigned char sensor, int* value) = 0;
    virtual int ISPGainGet(unsigned char sensor, int* value) = 0;
    virtual int ISPGainSet(unsigned char sensor, int value) = 0;
    virtual int ISPExposureSet(unsigned char sensor, int value) = 0;
    virtual int ISPAECAGCEnable(bool enable) = 0;
    virtual int isAECAGC() = 0;
    virtual int SensorRead(unsigned char sensor, unsigned long address, unsigned char* value, int length,
                           int flags) = 0;
    virtual int SensorWrite(unsigned char sensor, unsigned long address, unsigned char value, int length,
                            int flags) = 0;
    virtual int SystemRead(unsigned long address, unsigned char* value) = 0;
    virtual int SystemWrite(unsigned long address, unsigned char value) = 0;
    virtual int setBrightnessSetting(int value, bool useDefault) = 0;
    virtual int setSharpnessSetting(int value, bool useDefault) = 0;
    virtual int setContrastSetting(int value, bool useDefault) = 0;
    virtual int setGammaSetting(int value, bool useDefault) = 0;
    virtual int setHueSetting(int value, bool useDefault) = 0;
    virtual int setSaturationSetting(int value, bool useDefault) = 0;
    virtual int setWhiteBalanceSetting(int value, bool useDefault) = 0;
    virtual int setAutoWhiteBalanceSetting(int value, bool useDefault) = 0;
    virtual int getBrightnessSetting() = 0;
    virtual int getSharpnessSetting() = 0;
    virtual int getContrastSetting() = 0;
    virtual int getHueSetting() = 0;
    virtual int getGammaSetting() = 0;
    virtual int getSaturationSetting() = 0;
    virtual int getWhiteBalanceSetting() = 0;
    virtual int getWhiteBalanceAutoSetting() = 0;
    virtual std::string getCameraSystemPath(int id) = 0;
    virtual int setROIforAECAGC(int side, Rect roi) = 0;
    virtual int resetROIforAECAGC(int side) = 0;
    virtual int getROIforAECAGC(int side, Rect& roi) = 0;
    virtual int openMCU(bool verbose) = 0;
    virtual KOVmcu* getMCU() = 0;

    // Appends (file + "_" + line, message) to the error list.
    void pushError(const std::string& file, int line, const std::string& message);
    const std::vector<std::pair<std::string, std::string>>& getErrors() const { return errors; }
    MODEL getCameraModel() const { return model; }
    // The side-by-side size asked for in setUp (not the effective one).
    int getSetupWidth() const { return width; }
    int getSetupHeight() const { return height; }

    VirtualGrabber(const VirtualGrabber&) = delete;
    VirtualGrabber& operator=(const VirtualGrabber&) = delete;

protected:
    int32_t id = 0;
    int32_t width = 0;
    int32_t height = 0;
    int32_t fps = 0;
    int32_t sharpness = 0;
    BH_DEVICE device = BH_DEVICE_NONE;
    MODEL model = KOV_MODEL_UNKNOWN;
    IMU_FREQ imu_freq = IMU_ODR_400;
    FrameRateWindow frame_rate_window;
    std::unique_ptr<KOVmcu> mcu;
    std::vector<std::pair<std::string, std::string>> errors;
};

}  // namespace bh
