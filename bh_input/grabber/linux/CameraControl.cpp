#include "bh_input/grabber/linux/CameraControl.h"

#include <algorithm>
#include <cmath>

#include "bh_input/grabber/virtualGrabber.h"

namespace bh {

namespace {

// Largest exposure in sensor units: the frame period leaves no more.
int exposureLimitAt(int fps) {
    if (fps <= 15)
        return 1548;
    if (fps <= 30)
        return 1116;
    if (fps <= 60)
        return 828;
    if (fps <= 100)
        return 635;
    return 0;
}

int roundToInt(float v) {
    return std::isfinite(v) ? static_cast<int>(std::lround(v)) : 0;
}

}  // namespace

CameraControl::CameraControl(VirtualGrabber* g, int rate) : grabber(g), fps(rate) {}

int CameraControl::getExposureLimit() const {
    return exposureLimitAt(fps);
}

// The sensor's gain has four usable ranges with jumps between them; the
// segmented scale runs through them without gaps, 0..532.
int CameraControl::cvtGainToSegmentedGain(int gain) {
    if (gain >= 122 && gain <= 255)
        return gain - 122;
    if (gain >= 378 && gain <= 511)
        return gain - 245;
    if (gain >= 890 && gain <= 1023)
        return gain - 624;
    if (gain >= 1914 && gain <= 2047)
        return gain - 1515;
    return -1;
}

int CameraControl::cvtSegmentedGainToGain(int segmented) {
    if (segmented < 134)
        return segmented + 122;
    if (segmented < 267)
        return segmented + 245;
    if (segmented < 400)
        return segmented + 624;
    if (segmented < 533)
        return segmented + 1515;
    return 0;
}

int CameraControl::computeNewExposureValue(int x) const {
    if (x > 100)
        return -1;
    const int value =
        static_cast<int>(static_cast<float>(x) / 100.f * static_cast<float>(getExposureLimit()));
    return value < 1 ? 10 : value;
}

int CameraControl::computeXExpoFromExpo(int exposure) const {
    const int limit = getExposureLimit();
    if (exposure < 0)
        return -1;
    if (exposure > limit)
        return 100;
    if (limit <= 0)
        return 0;  // no exposure range at this rate: only 0 fits
    return static_cast<int>(static_cast<float>(exposure) * 100.f / static_cast<float>(limit) + 0.5f);
}

int CameraControl::computeNewSegmGainValue(int x) const {
    if (x > 100)
        return -1;
    return std::max(0, maxGain * x / 100);
}

int CameraControl::computeXGainFromSegmentedGain(int segmented) const {
    if (segmented > maxGain)
        return 100;
    if (segmented < 0)
        return -1;
    return static_cast<int>(static_cast<float>(segmented) * 100.f / static_cast<float>(maxGain) + 0.5f);
}

int CameraControl::modifyExposureToX(int x) {
    x = std::clamp(x, 0, 100);
    xExpo = x;
    const int value = computeNewExposureValue(x);
    if (!isExpoValide(value))
        return -20;
    return setExposure(0, value) + setExposure(1, value);
}

int CameraControl::modifyGainToX(int x) {
    x = std::clamp(x, 0, 100);
    xGain = x;
    const int gain = cvtSegmentedGainToGain(computeNewSegmGainValue(x));
    return setGain(0, gain) + setGain(1, gain);
}

int CameraControl::modifyExposureByNIncrements(int n) {
    if (n == 0)
        return -10;
    return modifyExposureToX(static_cast<int>(static_cast<float>(xExpo) + static_cast<float>(n) * incrExpo));
}

int CameraControl::modifyGainByNIncrements(int n) {
    if (n == 0 || (xGain == 0 && n < 0) || (xGain == 1 && n > 0))
        return -10;
    return modifyGainToX(static_cast<int>(static_cast<float>(xGain) + static_cast<float>(n) * incrGain));
}

int CameraControl::setXExpoFromCamera() {
    int exposure = 0;
    const int x = getExposure(1, &exposure) == 0 ? computeXExpoFromExpo(exposure) : -1;
    if (x == -1) {
        xExpo = lastXExpo;
        return -1;
    }
    xExpo = x;
    lastXExpo = x;
    return 0;
}

int CameraControl::setXGainFromCamera() {
    int gain = 0;
    const int x = getGain(1, &gain) == 0 ? computeXGainFromSegmentedGain(cvtGainToSegmentedGain(gain)) : -1;
    if (x == -1) {
        xGain = lastXGain;
        return -1;
    }
    xGain = x;
    lastXGain = x;
    return 0;
}

int CameraControl::setExposure(int side, int value) {
    if (value >= (1 << 24))
        return -2;
    return grabber ? grabber->ISPExposureSet(static_cast<unsigned char>(side), value) : -1;
}

int CameraControl::getExposure(int side, int* value) {
    return grabber ? grabber->ISPExposureGet(static_cast<unsigned char>(side), value) : -1;
}

int CameraControl::setGain(int side, int value) {
    return grabber ? grabber->ISPGainSet(static_cast<unsigned char>(side), value) : -1;
}

int CameraControl::getGain(int side, int* value) {
    return grabber ? grabber->ISPGainGet(static_cast<unsigned char>(side), value) : -1;
}

int CameraControl::getYAVG(unsigned char* out, int side) {
    return grabber ? grabber->SensorRead(0x6C, 0x5693, out, 1, side != 0 ? 2 : 1) : -1;
}

int CameraControl::getGlobalYAVG() {
    unsigned char left = 0, right = 0;
    getYAVG(&left, 0);
    getYAVG(&right, 1);
    return (static_cast<int>(left) + static_cast<int>(right)) / 2;
}

void CameraControl::setIncrExpo(float v) {
    incrExpo = std::clamp(v, 0.001f, 0.1f);
}
void CameraControl::setIncrGain(float v) {
    incrGain = std::clamp(v, 0.001f, 0.1f);
}
void CameraControl::setMaxExpo(int v) {
    maxExpo = std::min(v, 1548);
}
void CameraControl::setXPondFar(float v) {
    xPondFar = std::clamp(v, 0.f, 1.f);
}
void CameraControl::setXPondClose(float v) {
    xPondClose = std::clamp(v, 0.f, 1.f);
}

int CameraControl::AEC_AGC() {
    const int y = getGlobalYAVG();
    const float e = static_cast<float>(targetYAVG) - static_cast<float>(y);
    sumY = std::clamp(sumY + e, static_cast<float>(minSomme), static_cast<float>(maxSomme));
    derivative = e - lastErrorY;
    const float u = Kp * e + Ki * sumY + Kd * derivative;
    lastErrorY = e;

    auto moveGain = [&] { modifyGainByNIncrements(roundToInt(u / incrGain)); };
    float u2 = 0.f;
    if (xPondFar != 1.f && xPondClose != 1.f) {
        int expo = 0;
        getExposure(0, &expo);
        const float e2 = static_cast<float>(targetExpo) - static_cast<float>(expo);
        sumExpo = std::clamp(sumExpo + e2, static_cast<float>(minSomme), static_cast<float>(maxSomme));
        // The brightness integral goes into the exposure term too, on purpose:
        // both terms then share one memory of the brightness error.
        u2 = Kp * e2 + Ki * sumY + Kd * (e2 - lastErrorExpo);
        lastErrorExpo = e2;
        if ((expo >= maxExpo && u > 0.f) || (u2 == 0.f && xGain >= 2)) {
            moveGain();
            return y;
        }
    } else {
        const int expo = targetExpo;
        if ((expo >= maxExpo && u > 0.f) || xGain >= 2) {
            moveGain();
            return y;
        }
    }

    if ((xGain == 0 && u <= 0.f) || (xGain == 1 && u >= 0.f)) {
        modifyExposureByNIncrements(roundToInt(u / incrExpo));
        return y;
    }

    const float r = u / u2;
    const float pond = r > 0.f ? xPondClose : xPondFar;
    modifyExposureByNIncrements(roundToInt((1.f - pond) * u / incrExpo));
    modifyGainByNIncrements(roundToInt(u * pond / incrGain));
    return y;
}

}  // namespace bh
