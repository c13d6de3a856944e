// The settings of a request (source, stream and auto-control settings, edge
// enhancement, denoise). A setter checks its arguments as the camera service
// does and stores them; they reach the sensor at the next repeat of the
// request.
#include <algorithm>
#include <cmath>

#include "sim/argus/SimArgus.h"

namespace sim {

namespace at = platform::argus_types;

namespace {

bool finite(float v) {
    return std::isfinite(v);
}

bool validGainRange(at::Range<float> r, float lowest, float highest) {
    return finite(r.min) && finite(r.max) && r.min >= lowest && r.min <= r.max && r.max <= highest;
}

template <typename E>
bool enumIn(E value, E last) {
    const int v = static_cast<int>(value);
    return v >= 0 && v <= static_cast<int>(last);
}

bool validStrength(float strength) {
    return finite(strength) && strength >= -1.0f && strength <= 1.0f;
}

}  // namespace

at::Status SimArgus::setFrameDurationRange(at::Request* handle, at::Range<uint64_t> range) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr || range.min == 0 || range.min > range.max)
        return at::STATUS_INVALID_PARAMS;
    request->settings.frameDurationNs = range;
    return at::STATUS_OK;
}

at::Status SimArgus::setSensorMode(at::Request* handle, at::SensorMode* modeHandle) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    const Mode* mode = modeLocked(modeHandle);
    const Session* session = request != nullptr ? sessions_.find(request->session) : nullptr;
    if (session == nullptr || mode == nullptr)
        return at::STATUS_INVALID_PARAMS;
    // The mode must be one of a sensor of the request's session.
    for (const Sensor* sensor : session->sensors) {
        const int index = modeIndexLocked(*sensor, mode);
        if (index >= 0) {
            request->settings.sensorModeIndex = index;
            return at::STATUS_OK;
        }
    }
    return at::STATUS_INVALID_PARAMS;
}

at::Status SimArgus::setExposureTimeRange(at::Request* handle, at::Range<uint64_t> range) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr || range.min == 0 || range.min > range.max)
        return at::STATUS_INVALID_PARAMS;
    request->settings.exposureTimeNs = range;
    return at::STATUS_OK;
}

at::Status SimArgus::setGainRange(at::Request* handle, at::Range<float> range) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr || !validGainRange(range, 0.0f, 1e6f) || range.min <= 0.0f)
        return at::STATUS_INVALID_PARAMS;
    request->settings.analogGain = range;
    return at::STATUS_OK;
}

at::Status SimArgus::setSourceClipRect(at::Request* handle, at::OutputStream* stream, at::Rectangle clip) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    const argus_records::Key key = streams_.keyOf(stream);
    // Stream settings exist only for a stream enabled on the request.
    if (request == nullptr || std::count(request->streams.begin(), request->streams.end(), key) == 0)
        return at::STATUS_INVALID_PARAMS;
    const bool inside = finite(clip.left) && finite(clip.top) && finite(clip.right) && finite(clip.bottom) &&
                        clip.left >= 0.0f && clip.top >= 0.0f && clip.right <= 1.0f && clip.bottom <= 1.0f &&
                        clip.left < clip.right && clip.top < clip.bottom;
    if (!inside)
        return at::STATUS_INVALID_PARAMS;
    request->clips[key] = clip;
    return at::STATUS_OK;
}

at::Status SimArgus::setIspDigitalGainRange(at::Request* handle, at::Range<float> range) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr || !validGainRange(range, 1.0f, 256.0f))
        return at::STATUS_INVALID_PARAMS;
    request->settings.ispDigitalGain = range;
    return at::STATUS_OK;
}

bool SimArgus::getIspDigitalGainRange(at::Request* handle, at::Range<float>& range) {
    std::lock_guard<std::mutex> lock(mutex_);
    const argus_records::Request* request = requestLocked(handle);
    if (request == nullptr)
        return false;
    range = request->settings.ispDigitalGain;
    return true;
}

at::Status SimArgus::setAeLock(at::Request* handle, bool lock) {
    std::lock_guard<std::mutex> guard(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr)
        return at::STATUS_INVALID_PARAMS;
    request->settings.aeLock = lock;
    return at::STATUS_OK;
}

at::Status SimArgus::setAeRegions(at::Request* handle, const std::vector<at::AcRegion>& regions) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    const Session* session = request != nullptr ? sessions_.find(request->session) : nullptr;
    if (session == nullptr)
        return at::STATUS_INVALID_PARAMS;
    const ArgusSensorConfig& sensor = session->sensors.front()->config;
    for (const at::AcRegion& r : regions) {
        // Each region at least the sensor's minimum size, with a weight.
        if (r.right < r.left || r.bottom < r.top || r.right - r.left < sensor.minAeRegionWidth ||
            r.bottom - r.top < sensor.minAeRegionHeight || !finite(r.weight) || r.weight < 0.0f)
            return at::STATUS_INVALID_PARAMS;
    }
    request->settings.aeRegions = regions;
    return at::STATUS_OK;
}

bool SimArgus::getAeRegions(at::Request* handle, std::vector<at::AcRegion>& regions) {
    std::lock_guard<std::mutex> lock(mutex_);
    const argus_records::Request* request = requestLocked(handle);
    if (request == nullptr)
        return false;
    regions = request->settings.aeRegions;
    return true;
}

at::Status SimArgus::setAeAntibandingMode(at::Request* handle, at::AeAntibandingMode mode) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr || !enumIn(mode, at::AeAntibandingMode::Hz60))
        return at::STATUS_INVALID_PARAMS;
    request->settings.aeAntibanding = mode;
    return at::STATUS_OK;
}

at::Status SimArgus::setAwbMode(at::Request* handle, at::AwbMode mode) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr || !enumIn(mode, at::AwbMode::Manual))
        return at::STATUS_INVALID_PARAMS;
    request->settings.awbMode = mode;
    return at::STATUS_OK;
}

at::Status SimArgus::setWbGains(at::Request* handle, at::BayerTuple gains) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    const float all[] = {gains.r, gains.gEven, gains.gOdd, gains.b};
    if (request == nullptr ||
        std::any_of(std::begin(all), std::end(all), [](float g) { return !finite(g) || g <= 0; }))
        return at::STATUS_INVALID_PARAMS;
    request->settings.wbGains = gains;
    return at::STATUS_OK;
}

at::Status SimArgus::setExposureCompensation(at::Request* handle, float ev) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr || !finite(ev) || ev < -2.0f || ev > 2.0f)
        return at::STATUS_INVALID_PARAMS;
    request->settings.exposureCompensation = ev;
    return at::STATUS_OK;
}

at::Status SimArgus::setColorSaturation(at::Request* handle, float saturation, bool enable) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr || !finite(saturation) || saturation < 0.0f || saturation > 2.0f)
        return at::STATUS_INVALID_PARAMS;
    request->settings.colorSaturation = saturation;
    request->settings.colorSaturationEnabled = enable;
    return at::STATUS_OK;
}

uint32_t SimArgus::getToneMapCurveSize(at::Request* handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    return requestLocked(handle) != nullptr ? kToneMapCurveSize : 0;
}

at::Status SimArgus::setToneMapCurve(at::Request* handle, uint32_t channel, const std::vector<float>& curve,
                                     bool enable) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr || channel >= request->settings.toneMapCurves.size() ||
        curve.size() != kToneMapCurveSize ||
        std::any_of(curve.begin(), curve.end(), [](float v) { return !finite(v) || v < 0.0f || v > 1.0f; }))
        return at::STATUS_INVALID_PARAMS;
    request->settings.toneMapCurves[channel] = curve;
    request->settings.toneMapEnabled = enable;
    return at::STATUS_OK;
}

at::Status SimArgus::setEdgeEnhance(at::Request* handle, at::EdgeEnhanceMode mode, float strength) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr || !enumIn(mode, at::EdgeEnhanceMode::HighQuality) || !validStrength(strength))
        return at::STATUS_INVALID_PARAMS;
    request->settings.edgeEnhanceMode = mode;
    request->settings.edgeEnhanceStrength = strength;
    return at::STATUS_OK;
}

at::Status SimArgus::setDenoise(at::Request* handle, at::DenoiseMode mode, float strength) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requestLocked(handle);
    if (request == nullptr || !enumIn(mode, at::DenoiseMode::HighQuality) || !validStrength(strength))
        return at::STATUS_INVALID_PARAMS;
    request->settings.denoiseMode = mode;
    request->settings.denoiseStrength = strength;
    return at::STATUS_OK;
}

}  // namespace sim
