// The frame timing of the simulated camera service: the runs of the sensors
// (a repeat of one request), the frames they deliver into their streams'
// mailboxes, the camera faults that cut them off, the frame-start line, and
// the end of what a session or the provider takes with it.
//
// Nothing runs in the background: every call first brings the sensors up to
// the clock's now (advanceLocked), delivering into each stream's mailbox the
// newest frame that has become available since the last call.
#include <algorithm>
#include <cmath>

#include "sim/argus/GmslFrameSync.h"
#include "sim/argus/SimArgus.h"

namespace sim {

namespace at = platform::argus_types;
using argus_records::floorDiv;
using argus_records::FrameInfo;
using argus_records::Key;

namespace {

constexpr double kTwoPi = 6.28318530717958647692;

// A slow wave in -1..1 that the auto controls follow, as light changes.
double drift(int64_t ns, double periodSeconds) {
    return std::sin(kTwoPi * (static_cast<double>(ns) * 1e-9) / periodSeconds);
}

template <typename T>
T clampTo(T v, T lo, T hi) {
    return std::max(lo, std::min(v, hi));
}

// What a frame's exposure and gains are under the settings of a repeat: the
// value itself when the range is one value (manual), else a value inside the
// range that drifts slowly (automatic; held at the repeat's start while the
// auto-exposure lock is on).
void fillMetadata(FrameInfo& info, const argus_records::Run& run) {
    const ArgusRequestSettings& s = run.settings;
    const int64_t aeTime = s.aeLock ? run.startNs : info.gridNs;

    const at::Range<uint64_t> mode = argus_records::exposureRangeOf(run.mode);
    // A sensor cannot expose longer than a frame lasts.
    const uint64_t cap = std::max(mode.min, std::min(mode.max, static_cast<uint64_t>(run.periodNs)));
    const uint64_t lo = clampTo(s.exposureTimeNs.min, mode.min, cap);
    const uint64_t hi = clampTo(s.exposureTimeNs.max, lo, cap);
    if (s.exposureTimeNs.min == s.exposureTimeNs.max) {
        info.exposureNs = lo;
    } else {
        const double w =
            clampTo((0.3 + 0.1 * drift(aeTime, 8.0)) * std::pow(2.0, s.exposureCompensation), 0.0, 1.0);
        info.exposureNs = lo + static_cast<uint64_t>(static_cast<double>(hi - lo) * w);
    }

    const float gLo = clampTo(s.analogGain.min, run.mode.analogGainMin, run.mode.analogGainMax);
    const float gHi = clampTo(s.analogGain.max, gLo, run.mode.analogGainMax);
    info.analogGain = s.analogGain.min == s.analogGain.max
                          ? gLo
                          : gLo + (gHi - gLo) * static_cast<float>(0.1 + 0.05 * drift(aeTime, 11.0));

    const float dLo = s.ispDigitalGain.min;
    const float dHi = s.ispDigitalGain.max;
    info.digitalGain =
        dLo == dHi ? dLo
                   : dLo + std::min(dHi - dLo, 1.0f) * static_cast<float>(0.25 + 0.25 * drift(aeTime, 13.0));
}

}  // namespace

// ---------------------------------------------------------------------------
// Frame timing

void SimArgus::advanceLocked(int64_t nowNs) {
    for (auto& camera : cameras_) {
        noteCameraFaultsLocked(*camera, nowNs);
        for (Sensor* sensor : camera->sensors)
            deliverLocked(*sensor, nowNs);
        updateLineLocked(*camera);
    }
}

void SimArgus::noteCameraFaultsLocked(Camera& camera, int64_t nowNs) {
    if (!camera.frozen && nowNs >= camera.freezeAtNs) {
        camera.frozen = true;
        camera.frozenAtNs = camera.freezeAtNs;
        camera.freezesLeft = std::max(0, camera.freezesLeft - 1);
        providerFailures_ += camera.config.faults.freezeRestartFailures;
    }
    if (!camera.errored && nowNs >= camera.errorAtNs) {
        camera.errored = true;
        camera.errorsLeft = std::max(0, camera.errorsLeft - 1);
    }
}

// The last grid time at which the sensor's camera still delivers.
int64_t SimArgus::cutOffLocked(const Sensor& sensor) const {
    const Camera& camera = *cameras_[sensor.camera];
    if (camera.config.faults.noFirstFrame)
        return INT64_MIN;
    int64_t cut = std::min(camera.freezeAtNs, camera.errorAtNs);
    if (camera.frozen)
        cut = std::min(cut, camera.frozenAtNs);
    return cut;
}

// How long after its grid time a frame of the sensor becomes available.
int64_t SimArgus::delayLocked(const Sensor& sensor) const {
    if (sensor.position != 1)
        return 0;
    const ArgusCameraFaults& f = cameras_[sensor.camera]->config.faults;
    return std::max<int64_t>(0, f.secondSensorOffsetUs * 1000) +
           f.secondSensorLagFrames * sensor.run.periodNs;
}

FrameInfo SimArgus::frameInfoLocked(const Sensor& sensor, int64_t index) const {
    const argus_records::Run& run = sensor.run;
    FrameInfo info;
    info.gridNs = run.phaseNs + index * run.periodNs;
    info.periodNs = run.periodNs;
    info.timestampNs = info.gridNs;
    if (sensor.position == 1)
        info.timestampNs += cameras_[sensor.camera]->config.faults.secondSensorOffsetUs * 1000;
    info.view = std::min(sensor.position, 1);
    fillMetadata(info, run);
    return info;
}

void SimArgus::deliverLocked(Sensor& sensor, int64_t nowNs) {
    argus_records::Run& run = sensor.run;
    if (!run.active)
        return;
    const int64_t limit = std::min(nowNs - delayLocked(sensor), cutOffLocked(sensor));
    if (limit <= run.startNs)
        return;
    const int64_t newest = floorDiv(limit - run.phaseNs, run.periodNs);
    if (newest <= run.lastIndex)
        return;
    sensor.delivered += static_cast<uint64_t>(newest - run.lastIndex);
    run.lastIndex = newest;
    FrameInfo info = frameInfoLocked(sensor, newest);
    info.sequence = sensor.delivered;
    if (cameras_[sensor.camera]->config.faults.neverConnect)
        return;  // a stream that never connected takes no frame
    for (Key key : run.streams) {
        argus_records::Stream* stream = streams_.find(key);
        if (stream == nullptr || stream->disconnected)
            continue;
        stream->newest = info;
        stream->newest.metadata = stream->metadata;
        stream->hasFrame = true;
    }
}

// When the sensor's next frame becomes available; INT64_MAX when none will.
int64_t SimArgus::nextAvailableLocked(const Sensor& sensor) const {
    const argus_records::Run& run = sensor.run;
    if (!run.active)
        return INT64_MAX;
    const int64_t grid = run.phaseNs + (run.lastIndex + 1) * run.periodNs;
    if (grid > cutOffLocked(sensor))
        return INT64_MAX;
    return grid + delayLocked(sensor);
}

// The frame-start line follows the first sensor of the camera that delivers.
void SimArgus::updateLineLocked(Camera& camera) {
    if (!camera.config.frameSync)
        return;
    const argus_records::Run* on = nullptr;
    if (!camera.frozen && !camera.errored && !camera.config.faults.noFirstFrame)
        for (Sensor* s : camera.sensors)
            if (s->run.active) {
                on = &s->run;
                break;
            }
    if (on != nullptr) {
        if (!camera.lineOn || camera.linePeriodNs != on->periodNs || camera.linePhaseNs != on->phaseNs) {
            camera.config.frameSync->start(on->periodNs, on->phaseNs);
            camera.lineOn = true;
            camera.linePeriodNs = on->periodNs;
            camera.linePhaseNs = on->phaseNs;
        }
    } else if (camera.lineOn) {
        camera.config.frameSync->stop();
        camera.lineOn = false;
    }
}

const ArgusSensorModeConfig* SimArgus::modeForLocked(const Sensor& sensor,
                                                     const ArgusRequestSettings& settings) const {
    if (settings.sensorModeIndex >= 0 && static_cast<size_t>(settings.sensorModeIndex) < sensor.modes.size())
        return &sensor.modes[static_cast<size_t>(settings.sensorModeIndex)]->config;
    return sensor.modes.empty() ? nullptr : &sensor.modes.front()->config;
}

void SimArgus::startRunLocked(Sensor& sensor, Key session, const argus_records::Request& request,
                              const ArgusSensorModeConfig& mode, int64_t nowNs) {
    Camera& camera = *cameras_[sensor.camera];
    const ArgusCameraFaults& faults = camera.config.faults;
    if (!camera.started) {
        // The first repeat under this provider arms the timed faults.
        camera.started = true;
        if (faults.freezeAfterNs >= 0 && camera.freezesLeft > 0)
            camera.freezeAtNs = nowNs + faults.freezeAfterNs;
        if (faults.captureErrorAfterNs >= 0 && camera.errorsLeft > 0)
            camera.errorAtNs = nowNs + faults.captureErrorAfterNs;
    }

    at::Range<uint64_t> durations;
    int64_t period = static_cast<int64_t>(request.settings.frameDurationNs.min);
    if (argus_records::frameDurationsOf(mode, durations))
        period =
            static_cast<int64_t>(clampTo(request.settings.frameDurationNs.min, durations.min, durations.max));
    if (period <= 0)
        period = 33333333;

    // Sensors of a camera are synchronised: a sensor that starts at the rate
    // of one already running joins its grid; otherwise a new grid starts now.
    int64_t phase = nowNs;
    for (Sensor* other : camera.sensors)
        if (other != &sensor && other->run.active && other->run.periodNs == period) {
            phase = other->run.phaseNs;
            break;
        }

    argus_records::Run& run = sensor.run;
    run = argus_records::Run{};
    run.active = true;
    run.session = session;
    run.periodNs = period;
    run.phaseNs = phase;
    run.startNs = nowNs;
    run.lastIndex = floorDiv(nowNs - phase, period);
    run.settings = request.settings;
    run.mode = mode;
    for (Key key : request.streams) {
        const argus_records::Stream* stream = streams_.find(key);
        if (stream == nullptr || stream->sensor != &sensor)
            continue;
        if (run.streams.empty()) {
            auto clip = request.clips.find(key);
            if (clip != request.clips.end())
                run.settings.sourceClip = clip->second;
        }
        run.streams.push_back(key);
    }
    ++sensor.repeats;
    sensor.hasApplied = true;
}

void SimArgus::stopRunLocked(Sensor& sensor) {
    sensor.run.active = false;
}

void SimArgus::stopSessionLocked(Key key, int64_t nowNs) {
    Session* session = sessions_.find(key);
    if (session == nullptr)
        return;
    for (Sensor* sensor : session->sensors) {
        deliverLocked(*sensor, nowNs);
        if (sensor->run.active && sensor->run.session == key)
            stopRunLocked(*sensor);
        updateLineLocked(*cameras_[sensor->camera]);
    }
    session->repeating = 0;
}

void SimArgus::destroyStreamLocked(Key key) {
    for (auto& request : requests_.items()) {
        auto& list = request.second->streams;
        list.erase(std::remove(list.begin(), list.end(), key), list.end());
        request.second->clips.erase(key);
    }
    for (auto& sensor : sensors_) {
        auto& list = sensor->run.streams;
        list.erase(std::remove(list.begin(), list.end(), key), list.end());
    }
    streams_.erase(key);
}

void SimArgus::destroyConsumerLocked(Key key) {
    argus_records::Consumer* consumer = consumers_.find(key);
    if (consumer == nullptr)
        return;
    for (auto it = frames_.items().begin(); it != frames_.items().end();)
        it = it->second->consumer == key ? frames_.items().erase(it) : std::next(it);
    if (argus_records::Stream* stream = streams_.find(consumer->stream))
        stream->consumers = std::max(0, stream->consumers - 1);
    consumers_.erase(key);
}

// A session takes its streams, stream settings and requests with it.
void SimArgus::destroySessionLocked(Key key, int64_t nowNs) {
    Session* session = sessions_.find(key);
    if (session == nullptr)
        return;
    stopSessionLocked(key, nowNs);
    std::vector<Key> doomed;
    for (const auto& s : streams_.items())
        if (s.second->session == key)
            doomed.push_back(s.first);
    for (Key stream : doomed)
        destroyStreamLocked(stream);
    for (auto it = requests_.items().begin(); it != requests_.items().end();)
        it = it->second->session == key ? requests_.items().erase(it) : std::next(it);
    for (auto it = settings_.items().begin(); it != settings_.items().end();)
        it = it->second->session == key ? settings_.items().erase(it) : std::next(it);
    for (Sensor* sensor : session->sensors)
        --sensor->sessions;
    sessions_.erase(key);
}

// Everything made under the provider ends with it; a frozen or failed camera
// is well again for the next provider. Native buffers are not the
// provider's and stay.
void SimArgus::endProviderLocked(int64_t nowNs) {
    std::vector<Key> sessions;
    for (const auto& s : sessions_.items())
        sessions.push_back(s.first);
    for (Key key : sessions)
        destroySessionLocked(key, nowNs);
    std::vector<Key> consumers;
    for (const auto& c : consumers_.items())
        consumers.push_back(c.first);
    for (Key key : consumers)
        destroyConsumerLocked(key);
    streams_.clear();
    requests_.clear();
    settings_.clear();
    frames_.clear();
    for (auto& camera : cameras_) {
        for (Sensor* sensor : camera->sensors)
            stopRunLocked(*sensor);
        camera->started = false;
        camera->freezeAtNs = INT64_MAX;
        camera->frozen = false;
        camera->frozenAtNs = INT64_MAX;
        camera->errorAtNs = INT64_MAX;
        camera->errored = false;
        updateLineLocked(*camera);
    }
}

}  // namespace sim
