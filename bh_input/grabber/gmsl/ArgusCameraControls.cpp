// The image settings of an ArgusCamera. Each setter writes into the capture
// request of one or both sensors; a request's new settings reach the sensor
// when it is dispatched again (dispatchRequest stops and restarts its
// repeat). Results: -1 for a closed camera, 8 when a request is missing,
// else the Argus status of the last call.

#include <algorithm>
#include <cmath>
#include <functional>

#include "bh_input/grabber/gmsl/ArgusCamera.h"

namespace at = platform::argus_types;

namespace {

constexpr int kNoInterface = 8;

at::AwbMode awbModeOf(int mode) {
    switch (mode) {
        case 0:
            return at::AwbMode::Manual;
        case 2:
            return at::AwbMode::Incandescent;
        case 3:
            return at::AwbMode::Fluorescent;
        case 4:
            return at::AwbMode::WarmFluorescent;
        case 5:
            return at::AwbMode::Daylight;
        case 6:
            return at::AwbMode::CloudyDaylight;
        case 7:
            return at::AwbMode::Twilight;
        default:
            return at::AwbMode::Auto;
    }
}

at::AeAntibandingMode antibandingOf(AEANTIBANDING mode) {
    switch (mode) {
        case AEANTIBANDING_AUTO:
            return at::AeAntibandingMode::Auto;
        case AEANTIBANDING_50HZ:
            return at::AeAntibandingMode::Hz50;
        case AEANTIBANDING_60HZ:
            return at::AeAntibandingMode::Hz60;
        default:
            return at::AeAntibandingMode::Off;
    }
}

// The percentage of value within [min, max], to the nearest integer.
template <typename T>
int percentOf(T value, T min, T max) {
    if (max <= min)
        return 0;
    return static_cast<int>(std::lround((static_cast<double>(value) - static_cast<double>(min)) * 100.0 /
                                        (static_cast<double>(max) - static_cast<double>(min))));
}

// Steps 4 and 5 of both estimators: colours on 0..255 to gains around 1,
// softened by the factor (greens by twice the factor).
void toGains(double red, double green, double blue, float factor, float& r, float& g1, float& g2, float& b) {
    const double f = factor != 0.f ? factor : 1.0;
    const double rr = std::clamp(red, 0.0, 255.0) / 127.0;
    const double gg = std::clamp(green, 0.0, 255.0) / 127.0;
    const double bb = std::clamp(blue, 0.0, 255.0) / 127.0;
    r = static_cast<float>((rr - 1.0) / f + 1.0);
    b = static_cast<float>((bb - 1.0) / f + 1.0);
    g1 = static_cast<float>((gg - 1.0) / (2.0 * f) + 1.0);
    g2 = g1;
}

}  // namespace

ArgusSideSettings ArgusCamera::getSideSettings(int side) const {
    std::lock_guard<std::mutex> lock(settings_mutex);
    return side_settings[side == 1 ? 1 : 0];
}

// ---------------------------------------------------------------------------
// Exposure

int ArgusCamera::setFrameExposureRange(int side, unsigned long min, unsigned long max) {
    if (!opened)
        return -1;
    if (side < 0 || side >= sideCount() || component->request[side] == nullptr)
        return kNoInterface;
    const bool both = min != 0 && max != 0;
    if (!both) {
        const ArgusSideSettings limits = getSideSettings(side);
        if (min == 0)
            min = static_cast<unsigned long>(limits.exposure_limits_us.min);
        if (max == 0)
            max = static_cast<unsigned long>(limits.exposure_limits_us.max);
    }
    const int st = component->argus->setExposureTimeRange(
        component->request[side], {static_cast<uint64_t>(min) * 1000, static_cast<uint64_t>(max) * 1000});
    if (st == at::STATUS_OK && (!both || min != max)) {
        std::lock_guard<std::mutex> lock(settings_mutex);
        side_settings[side].exposure_range_us = {min, max};
    }
    return st;
}

int ArgusCamera::setManualExposure(int side, int percent) {
    if (!opened)
        return -1;
    const ArgusSideSettings s = getSideSettings(side);
    const float value = static_cast<float>(s.exposure_limits_us.min) +
                        static_cast<float>(percent) *
                            static_cast<float>(s.exposure_limits_us.max - s.exposure_limits_us.min) / 100.f;
    const unsigned long us = value > 0.f ? static_cast<unsigned long>(value) : 0;
    return setFrameExposureRange(side, us, us);
}

int ArgusCamera::setManualTimeExposure(int side, unsigned long microseconds) {
    return setFrameExposureRange(side, microseconds, microseconds);
}

int ArgusCamera::setAutomaticExposure() {
    return forEachSide([this](int side) { return setFrameExposureRange(side, 0, 0); });
}

int ArgusCamera::getFrameExposureTime(int side) {
    if (!opened)
        return -1;
    return static_cast<int>(getSideSettings(side).frame_exposure_us);
}

int ArgusCamera::getFrameExposurePercent(int side) {
    if (!opened)
        return -1;
    const ArgusSideSettings s = getSideSettings(side);
    return percentOf(s.frame_exposure_us, s.exposure_limits_us.min, s.exposure_limits_us.max);
}

int ArgusCamera::getFrameExposureRange(int side, unsigned long& min, unsigned long& max) {
    if (!opened)
        return -1;
    const ArgusSideSettings s = getSideSettings(side);
    min = static_cast<unsigned long>(s.exposure_range_us.min);
    max = static_cast<unsigned long>(s.exposure_range_us.max);
    return 0;
}

int ArgusCamera::getExposureLimits(int side, unsigned long& min, unsigned long& max) {
    if (!opened)
        return -1;
    const ArgusSideSettings s = getSideSettings(side);
    min = static_cast<unsigned long>(s.exposure_limits_us.min);
    max = static_cast<unsigned long>(s.exposure_limits_us.max);
    return 0;
}

// ---------------------------------------------------------------------------
// Gains

// A gain range of one side: the analog gain of the source settings or the
// ISP's digital gain. A zero bound stands for the side's limit.
int ArgusCamera::setGainRangeOf(int side, bool digital, float min, float max) {
    if (!opened)
        return -1;
    if (side < 0 || side >= sideCount() || component->request[side] == nullptr)
        return kNoInterface;
    const bool both = min != 0.f && max != 0.f;
    if (!both) {
        const ArgusSideSettings s = getSideSettings(side);
        const at::Range<float>& limits = digital ? s.digital_gain_limits : s.analog_gain_limits;
        if (min == 0.f)
            min = limits.min;
        if (max == 0.f)
            max = limits.max;
    }
    platform::Argus& argus = *component->argus;
    const int st = digital ? argus.setIspDigitalGainRange(component->request[side], {min, max})
                           : argus.setGainRange(component->request[side], {min, max});
    if (st == at::STATUS_OK && (!both || min != max)) {
        std::lock_guard<std::mutex> lock(settings_mutex);
        (digital ? side_settings[side].digital_gain_range : side_settings[side].analog_gain_range) = {min,
                                                                                                      max};
    }
    return st;
}

int ArgusCamera::setAnalogFrameGainRange(int side, float min, float max) {
    return setGainRangeOf(side, false, min, max);
}

int ArgusCamera::setManualAnalogGain(int side, int percent) {
    if (!opened)
        return -1;
    const float value = atPercent(getSideSettings(side).analog_gain_limits, percent);
    return setAnalogFrameGainRange(side, value, value);
}

int ArgusCamera::setManualAnalogGainReal(int side, int value) {
    const float gain = static_cast<float>(value) / 100.f;
    return setAnalogFrameGainRange(side, gain, gain);
}

int ArgusCamera::setAutomaticAnalogGain() {
    return forEachSide([this](int side) { return setAnalogFrameGainRange(side, 0.f, 0.f); });
}

float ArgusCamera::getAnalogFrameGain(int side) {
    if (!opened)
        return -1.f;
    return getSideSettings(side).frame_analog_gain;
}

int ArgusCamera::getAnalogFrameGainPercent(int side) {
    if (!opened)
        return -1;
    const ArgusSideSettings s = getSideSettings(side);
    return percentOf(s.frame_analog_gain, s.analog_gain_limits.min, s.analog_gain_limits.max);
}

float ArgusCamera::getAnalogFrameGainRange(int side, float& min, float& max) {
    return readGainRange(side, &ArgusSideSettings::analog_gain_range, min, max);
}

float ArgusCamera::getAnalogGainLimits(int side, float& min, float& max) {
    return readGainRange(side, &ArgusSideSettings::analog_gain_limits, min, max);
}

int ArgusCamera::setDigitalFrameGainRange(int side, float min, float max) {
    return setGainRangeOf(side, true, min, max);
}

int ArgusCamera::setManualDigitalGain(int side, int percent) {
    if (!opened)
        return -1;
    const float value = atPercent(getSideSettings(side).digital_gain_limits, percent);
    return setDigitalFrameGainRange(side, value, value);
}

int ArgusCamera::setManualDigitalGainReal(int side, int value) {
    const float gain = static_cast<float>(value) / 100.f;
    return setDigitalFrameGainRange(side, gain, gain);
}

int ArgusCamera::setAutomaticDigitalGain() {
    return forEachSide([this](int side) { return setDigitalFrameGainRange(side, 0.f, 0.f); });
}

float ArgusCamera::getDigitalFrameGain(int side) {
    if (!opened)
        return -1.f;
    return getSideSettings(side).frame_digital_gain;
}

float ArgusCamera::getDigitalFrameGainRange(int side, float& min, float& max) {
    return readGainRange(side, &ArgusSideSettings::digital_gain_range, min, max);
}

float ArgusCamera::getDigitalGainLimits(int side, float& min, float& max) {
    return readGainRange(side, &ArgusSideSettings::digital_gain_limits, min, max);
}

// The value at `percent` between a side's limits, as a float.
float ArgusCamera::atPercent(const at::Range<float>& limits, int percent) {
    return limits.min + static_cast<float>(percent) * (limits.max - limits.min) / 100.f;
}

float ArgusCamera::readGainRange(int side, at::Range<float> ArgusSideSettings::*field, float& min,
                                 float& max) const {
    if (!opened)
        return -1.f;
    const at::Range<float> range = getSideSettings(side).*field;
    min = range.min;
    max = range.max;
    return 0.f;
}

int ArgusCamera::forEachSide(const std::function<int(int)>& set) {
    if (!opened)
        return -1;
    int result = 0;
    for (int side = 0; side < sideCount(); ++side)
        result = set(side);
    return result;
}

// ---------------------------------------------------------------------------
// White balance

int ArgusCamera::setAutomaticWhiteBalance(int mode, bool reset) {
    if (!opened)
        return -1;
    wb_manual = false;
    if (reset || mode < 0)
        mode = 1;
    else if (mode > 7) {
        wb_mode = mode;  // no Argus mode: stored as it is
        return 0;
    }
    int result = 0;
    for (int side = 0; side < sideCount(); ++side) {
        if (component->request[side] == nullptr)
            return kNoInterface;
        result = component->argus->setAwbMode(component->request[side], awbModeOf(mode));
    }
    wb_mode = mode;
    return result;
}

// The factor that softens the estimated gains: 1 keeps them as estimated.
static constexpr float kWhiteBalanceFactor = 1.f;

int ArgusCamera::setManualWhiteBalance(unsigned int kelvin) {
    if (!opened)
        return -1;
    float r = 1.f, g1 = 1.f, g2 = 1.f, b = 1.f;
    estimageRGGBGainFromColorTemperature_v2(kelvin, kWhiteBalanceFactor, r, g1, g2, b);
    wb_temperature = static_cast<int>(kelvin);
    wb_manual = true;
    int result = 0;
    for (int side = 0; side < sideCount(); ++side) {
        if (component->request[side] == nullptr)
            return kNoInterface;
        component->argus->setWbGains(component->request[side], {r, g1, g2, b});
        result = component->argus->setAwbMode(component->request[side], at::AwbMode::Manual);
    }
    wb_mode = 0;
    return result;
}

int ArgusCamera::getManualWhiteBalance() {
    return opened ? wb_temperature : -1;
}

int ArgusCamera::getAutomaticWhiteBalanceStatus() {
    return opened ? wb_mode : -1;
}

void ArgusCamera::estimageRGGBGainFromColorTemperature(unsigned int kelvin, float factor, float& r, float& g1,
                                                       float& g2, float& b) {
    const unsigned int t = std::clamp(kelvin, 1000u, 40000u);
    const double x = static_cast<double>(t / 100);
    double red = 255.0;
    double green = 0.0;
    double blue = 255.0;
    if (t < 6700) {
        green = t <= 1000 ? 67.92042 : 99.4708025861 * std::log(x) - 161.1195681661;
    } else {
        red = 329.698727446 * std::pow(x - 60.0, -0.1332047592);
        green = 288.1221695283 * std::pow(x - 60.0, -0.0755148492);
    }
    if (t < 6600)
        blue = t < 2000 ? 0.0 : 138.5177312231 * std::log(x - 10.0) - 305.0447927307;
    toGains(red, green, blue, factor, r, g1, g2, b);
}

void ArgusCamera::estimageRGGBGainFromColorTemperature_v2(unsigned int kelvin, float factor, float& r,
                                                          float& g1, float& g2, float& b) {
    double red = 0, green = 0, blue = 0;
    if (kelvin < 1400) {
        red = 3.143984079360962;
        green = 0.47132784128189087;
        blue = -0.07847876846790314;
    } else if (kelvin > 12000) {
        red = 0.7886219620704651;
        green = 1.0064336061477661;
        blue = 1.5589230060577393;
    } else {
        // CIE x of the temperature by the cubic approximation, then y, then
        // linear sRGB of (X, 1, Z).
        const double T = kelvin;
        double a3, a2, a1, a0;
        if (kelvin <= 4000) {
            a3 = 2.7475e8, a2 = -985980.0, a1 = 1174.44, a0 = 0.145986;
        } else if (kelvin <= 7000) {
            a3 = -4.607e9, a2 = 2.9678e6, a1 = 99.11, a0 = 0.244063;
        } else {
            a3 = -2.0064e9, a2 = 1.9018e6, a1 = 247.48, a0 = 0.23704;
        }
        const double x = a3 / (T * T * T) + a2 / (T * T) + a1 / T + a0;
        const double y = -2.35563 * x * x + 2.39688 * x - 0.196035;
        const double X = x / y;
        const double Z = (1.0 - x - y) / y;
        red = 3.24071 * X - 1.53726 - 0.498571 * Z;
        green = -0.969258 * X + 1.87599 + 0.0415557 * Z;
        blue = 0.0556352 * X - 0.203996 + 1.05707 * Z;
    }
    double greatest = 0.0;
    for (double c : {red, green, blue})
        if (c > 0.0 && c > greatest)
            greatest = c;
    if (greatest <= 0.0)
        greatest = 1.0;
    toGains(red / greatest * 255.0, green / greatest * 255.0, blue / greatest * 255.0, factor, r, g1, g2, b);
}

// ---------------------------------------------------------------------------
// The other settings of the requests

int ArgusCamera::setSharpening(int value, bool reset) {
    if (!opened)
        return -1;
    if (reset || value < 0)
        value = 1;
    value = std::min(value, 8);
    int result = 0;
    for (int side = 0; side < sideCount(); ++side) {
        if (component->request[side] == nullptr)
            return kNoInterface;
        result = component->argus->setEdgeEnhance(component->request[side], at::EdgeEnhanceMode::Fast,
                                                  static_cast<float>(value) / 10.f);
    }
    sharpening = value;
    return result;
}

int ArgusCamera::getSharpening() {
    return opened ? sharpening : -1;
}

int ArgusCamera::setDenoisingValue(float value, bool reset) {
    if (!opened)
        return -1;
    if (reset || value < 0.f)
        value = 0.5f;
    value = std::min(value, 1.f);
    for (int side = 0; side < sideCount(); ++side) {
        if (component->request[side] == nullptr)
            return kNoInterface;
        component->argus->setDenoise(component->request[side], at::DenoiseMode::Fast, value);
    }
    denoising = value;
    return dispatchRequest();
}

float ArgusCamera::getDenoisingValue() {
    return opened ? denoising : -1.f;
}

int ArgusCamera::setColorSaturation(float value, bool reset) {
    if (!opened)
        return -1;
    int result = 0;
    for (int side = 0; side < sideCount(); ++side) {
        if (component->request[side] == nullptr)
            return kNoInterface;
        result = component->argus->setColorSaturation(component->request[side], value, !reset);
    }
    saturation = value;
    return result;
}

float ArgusCamera::getColorSaturation() {
    return opened ? saturation : -1.f;
}

int ArgusCamera::setExposureCompensationTarget(int value, bool reset) {
    if (!opened)
        return -1;
    if (reset || value < 0)
        value = 50;
    value = std::min(value, 100);
    for (int side = 0; side < sideCount(); ++side) {
        if (component->request[side] == nullptr)
            return kNoInterface;
        component->argus->setExposureCompensation(component->request[side],
                                                  static_cast<float>(value - 50) / 25.f);
    }
    exposure_compensation = value;
    return dispatchRequest();
}

int ArgusCamera::getExposureCompensationTarget() {
    return opened ? exposure_compensation : -1;
}

int ArgusCamera::setAEAntiBanding(AEANTIBANDING mode) {
    if (!opened)
        return -1;
    int result = 0;
    for (int side = 0; side < sideCount(); ++side) {
        if (component->request[side] == nullptr)
            return kNoInterface;
        result = component->argus->setAeAntibandingMode(component->request[side], antibandingOf(mode));
    }
    return result;
}

int ArgusCamera::setToneMappingFromGamma(int side, float value) {
    if (!opened)
        return -1;
    value = std::clamp(value, 1.5f, 3.25f);
    int result = 0;
    for (int s = 0; s < sideCount(); ++s) {
        if (component->request[s] == nullptr)
            return kNoInterface;
        const uint32_t n = component->argus->getToneMapCurveSize(component->request[s]);
        tone_curve.assign(n, 0.f);
        for (uint32_t i = 0; i < n; ++i)
            tone_curve[i] = std::pow(static_cast<float>(i) / static_cast<float>(n), 1.f / value);
        result = component->argus->setToneMapCurve(component->request[s], static_cast<uint32_t>(side),
                                                   tone_curve, true);
    }
    gamma = value;
    return result;
}

float ArgusCamera::getGamma() {
    return opened ? gamma : -1.f;
}

// ---------------------------------------------------------------------------
// Regions of the automatic exposure

at::AcRegion ArgusCamera::convertACRegion(const bh::Rect& roi) {
    at::AcRegion region;
    region.left = static_cast<uint32_t>(std::max(0, roi.x));
    region.top = static_cast<uint32_t>(std::max(0, roi.y));
    region.right = static_cast<uint32_t>(std::max(0, roi.x + roi.width));
    region.bottom = static_cast<uint32_t>(std::max(0, roi.y + roi.height));
    region.weight = 1.f;
    return region;
}

bh::Rect ArgusCamera::convertACRegion(const at::AcRegion& region) {
    bh::Rect roi;
    roi.x = static_cast<int>(region.left);
    roi.y = static_cast<int>(region.top);
    roi.width = static_cast<int>(region.right) - static_cast<int>(region.left);
    roi.height = static_cast<int>(region.bottom) - static_cast<int>(region.top);
    return roi;
}

int ArgusCamera::setROIforAECAGC(int side, bh::Rect roi) {
    if (!opened)
        return -1;
    if (swap_sides)
        side = 1 - side;
    if (side < 0 || side >= sideCount() || component->request[side] == nullptr)
        return kNoInterface;
    return component->argus->setAeRegions(component->request[side], {convertACRegion(roi)});
}

int ArgusCamera::getROIforAECAGC(int side, bh::Rect& roi) {
    if (!opened)
        return -1;
    if (swap_sides)
        side = 1 - side;
    if (side < 0 || side >= sideCount() || component->request[side] == nullptr)
        return kNoInterface;
    std::vector<at::AcRegion> regions;
    if (!component->argus->getAeRegions(component->request[side], regions))
        return kNoInterface;
    roi = regions.empty() ? bh::Rect{} : convertACRegion(regions.front());
    return 0;
}

int ArgusCamera::resetROIforAECAGC(int side) {
    if (!opened)
        return -1;
    if (swap_sides)
        side = 1 - side;
    if (side < 0 || side >= sideCount() || component->request[side] == nullptr)
        return kNoInterface;
    return component->argus->setAeRegions(component->request[side], {});
}
