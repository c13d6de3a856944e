#pragma once

// Software exposure control of a USB camera: maps the settings scale 0..100
// of GAIN and EXPOSURE to the sensor's own units, and holds a PID step
// (AEC_AGC) that steers exposure and gain toward a brightness target. It
// works only through the grabber's exposure, gain and sensor-read operations.

#include <cstdint>

namespace bh {

class VirtualGrabber;

class CameraControl {
public:
    CameraControl(VirtualGrabber* grabber, int fps);

    // ---- scale mapping
    // Exposure limit in sensor units at the frame rate.
    int getExposureLimit() const;
    static int cvtGainToSegmentedGain(int gain);
    static int cvtSegmentedGainToGain(int segmented);
    int computeNewExposureValue(int x) const;
    int computeXExpoFromExpo(int exposure) const;
    int computeNewSegmGainValue(int x) const;
    int computeXGainFromSegmentedGain(int segmented) const;
    bool isExpoValide(int exposure) const { return exposure < getExposureLimit() + 1; }

    int modifyExposureToX(int x);
    int modifyGainToX(int x);
    int modifyExposureByNIncrements(int n);
    int modifyGainByNIncrements(int n);
    int increaseExposure() { return modifyExposureByNIncrements(1); }
    int decreaseExposure() { return modifyExposureByNIncrements(-1); }
    int increaseGain() { return modifyGainByNIncrements(1); }
    int decreaseGain() { return modifyGainByNIncrements(-1); }

    int setXExpoFromCamera();
    int setXGainFromCamera();
    int initXExpoAndXGain() { return setXExpoFromCamera() + setXGainFromCamera(); }
    int getXExpo() const { return xExpo; }
    int getXGain() const { return xGain; }

    // ---- sensor access
    int setExposure(int side, int value);
    int getExposure(int side, int* value);
    int setGain(int side, int value);
    int getGain(int side, int* value);
    int getYAVG(unsigned char* out, int side);
    int getGlobalYAVG();

    // ---- one step of the brightness controller; returns the brightness seen
    int AEC_AGC();

    // ---- tuning
    void setIncrExpo(float v);
    void setIncrGain(float v);
    void setMaxExpo(int v);
    void setXPondFar(float v);
    void setXPondClose(float v);
    void setMinGain(int v) { minGain = v < 0 ? 0 : v; }
    void setTargetYAVG(uint8_t v) { targetYAVG = v; }
    void setTargetExpo(int v) { targetExpo = v; }
    float getIncrExpo() const { return incrExpo; }
    float getIncrGain() const { return incrGain; }
    int getMaxExpo() const { return maxExpo; }
    float getXPondFar() const { return xPondFar; }
    float getXPondClose() const { return xPondClose; }
    int getMinGain() const { return minGain; }

private:
    VirtualGrabber* grabber;
    int32_t fps;
    float incrExpo = 0.01f;
    float incrGain = 0.01f;
    int32_t xExpo = 1;
    int32_t xGain = 1;
    uint8_t targetYAVG = 50;
    int32_t targetExpo = 350;
    int32_t maxExpo = 600;
    float xPondFar = 0.95f;
    float xPondClose = 0.05f;
    int32_t lastXGain = -1;
    int32_t lastXExpo = -1;
    int32_t minGain = 0;
    int32_t maxGain = 532;
    float Kp = 0.001f;
    float Ki = 0.00001f;
    float Kd = 0.000001f;
    float sumY = 0.f;
    float sumExpo = 0.f;
    int32_t minSomme = -200;
    int32_t maxSomme = 200;
    float derivative = 0.f;
    float lastErrorY = 0.f;
    float lastErrorExpo = 0.f;
};

}  // namespace bh
