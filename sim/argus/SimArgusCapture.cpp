// The capture of the simulated camera service: the frame timing of the
// sensors, output streams, repeats, frame consumers and frames.
//
// Nothing runs in the background: every call first brings the sensors up to
// the clock's now (advanceLocked), delivering into each stream's mailbox the
// newest frame that has become available since the last call. Waiting calls
// sleep on platform::clock() in slices and look their handles up again after
// each slice, so that a destruction by another thread ends the wait.
#include <algorithm>
#include <chrono>
#include <cmath>

#include "platform/Clock.h"
#include "sim/argus/GmslFrameSync.h"
#include "sim/argus/SimArgus.h"

namespace sim {

namespace at = platform::argus_types;
using argus_records::floorDiv;
using argus_records::FrameInfo;
using argus_records::Key;
using argus_records::saturatingAdd;

namespace {

constexpr double kTwoPi = 6.28318530717958647692;

void setStatus(at::Status* status, at::Status value) {
    if (status != nullptr)
        *status = value;
}

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

// ---------------------------------------------------------------------------
// Output streams

at::OutputStreamSettings* SimArgus::createEglOutputStreamSettings(at::CaptureSession* session) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (sessions_.find(session) == nullptr)
        return nullptr;
    auto settings = std::make_unique<argus_records::StreamSettings>();
    settings->session = sessions_.keyOf(session);
    return settings_.handleOf<at::OutputStreamSettings>(settings_.add(std::move(settings)));
}

void SimArgus::destroyOutputStreamSettings(at::OutputStreamSettings* settings) {
    std::lock_guard<std::mutex> lock(mutex_);
    settings_.erase(settings_.keyOf(settings));
}

at::Status SimArgus::setCameraDevice(at::OutputStreamSettings* handle, at::CameraDevice* device) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::StreamSettings* settings = settings_.find(handle);
    Sensor* sensor = sensorLocked(device);
    if (settings == nullptr || sensor == nullptr)
        return at::STATUS_INVALID_PARAMS;
    const Session* session = sessions_.find(settings->session);
    if (session == nullptr || std::count(session->sensors.begin(), session->sensors.end(), sensor) == 0)
        return at::STATUS_INVALID_PARAMS;  // not a device of the stream's session
    settings->device = sensor;
    return at::STATUS_OK;
}

at::Status SimArgus::setPixelFormatYCbCr420(at::OutputStreamSettings* handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    return settings_.find(handle) != nullptr ? at::STATUS_OK : at::STATUS_INVALID_PARAMS;
}

at::Status SimArgus::setResolution(at::OutputStreamSettings* handle, at::Size2D size) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::StreamSettings* settings = settings_.find(handle);
    if (settings == nullptr || size.width == 0 || size.height == 0 || size.width > 16384 ||
        size.height > 16384)
        return at::STATUS_INVALID_PARAMS;
    settings->size = size;
    return at::STATUS_OK;
}

at::Status SimArgus::setMetadataEnable(at::OutputStreamSettings* handle, bool enable) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::StreamSettings* settings = settings_.find(handle);
    if (settings == nullptr)
        return at::STATUS_INVALID_PARAMS;
    settings->metadata = enable;
    return at::STATUS_OK;
}

at::Status SimArgus::setMode(at::OutputStreamSettings* handle, at::EglStreamMode mode) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (settings_.find(handle) == nullptr)
        return at::STATUS_INVALID_PARAMS;
    if (mode == at::EglStreamMode::Mailbox)
        return at::STATUS_OK;
    return mode == at::EglStreamMode::Fifo ? at::STATUS_UNIMPLEMENTED : at::STATUS_INVALID_PARAMS;
}

at::OutputStream* SimArgus::createOutputStream(at::CaptureSession* session, at::OutputStreamSettings* handle,
                                               at::Status* status) {
    std::lock_guard<std::mutex> lock(mutex_);
    const argus_records::StreamSettings* settings = settings_.find(handle);
    if (sessions_.find(session) == nullptr || settings == nullptr ||
        settings->session != sessions_.keyOf(session) || settings->device == nullptr ||
        settings->size.width == 0) {
        setStatus(status, at::STATUS_INVALID_PARAMS);
        return nullptr;
    }
    auto stream = std::make_unique<argus_records::Stream>();
    stream->session = settings->session;
    stream->sensor = settings->device;
    stream->size = settings->size;
    stream->metadata = settings->metadata;
    setStatus(status, at::STATUS_OK);
    return streams_.handleOf<at::OutputStream>(streams_.add(std::move(stream)));
}

void SimArgus::destroyOutputStream(at::OutputStream* stream) {
    std::lock_guard<std::mutex> lock(mutex_);
    advanceLocked(platform::clock().steadyNanoseconds());
    destroyStreamLocked(streams_.keyOf(stream));
}

at::Status SimArgus::waitUntilConnected(at::OutputStream* handle, uint64_t timeoutNs) {
    platform::Clock& clock = platform::clock();
    const Key key = streams_.keyOf(handle);
    const int64_t start = clock.steadyNanoseconds();
    int64_t deadline = saturatingAdd(start, timeoutNs);
    for (;;) {
        int64_t now = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            const argus_records::Stream* stream = streams_.find(key);
            if (stream == nullptr)
                return streams_.issued(key) ? at::STATUS_DISCONNECTED : at::STATUS_INVALID_PARAMS;
            if (stream->disconnected)
                return at::STATUS_DISCONNECTED;
            const bool never = cameras_[stream->sensor->camera]->config.faults.neverConnect;
            if (never)
                deadline = std::min(deadline, start + kNeverConnectGiveUpNs);
            else if (stream->consumers > 0)
                return at::STATUS_OK;
            now = clock.steadyNanoseconds();
            if (now >= deadline)
                return at::STATUS_TIMEOUT;
        }
        clock.sleepFor(std::chrono::nanoseconds(std::min(deadline - now, kWaitSliceNs)));
    }
}

void SimArgus::disconnect(at::OutputStream* handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    advanceLocked(platform::clock().steadyNanoseconds());
    if (argus_records::Stream* stream = streams_.find(handle))
        stream->disconnected = true;
}

// ---------------------------------------------------------------------------
// Requests and repeats

at::Request* SimArgus::createPreviewRequest(at::CaptureSession* handle, at::Status* status) {
    std::lock_guard<std::mutex> lock(mutex_);
    const Session* session = sessions_.find(handle);
    if (session == nullptr) {
        setStatus(status, at::STATUS_INVALID_PARAMS);
        return nullptr;
    }
    auto request = std::make_unique<argus_records::Request>();
    request->session = sessions_.keyOf(handle);
    // A new request asks for what the sensor's first mode allows.
    const Sensor& first = *session->sensors.front();
    if (!first.modes.empty()) {
        const ArgusSensorModeConfig& mode = first.modes.front()->config;
        argus_records::frameDurationsOf(mode, request->settings.frameDurationNs);
        request->settings.exposureTimeNs = argus_records::exposureRangeOf(mode);
        request->settings.analogGain = {mode.analogGainMin, mode.analogGainMax};
    }
    setStatus(status, at::STATUS_OK);
    return requests_.handleOf<at::Request>(requests_.add(std::move(request)));
}

argus_records::Request* SimArgus::requestLocked(at::Request* request) const {
    return requests_.find(request);
}

void SimArgus::destroyRequest(at::Request* handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    const Key key = requests_.keyOf(handle);
    if (requests_.find(key) == nullptr)
        return;
    const int64_t now = platform::clock().steadyNanoseconds();
    advanceLocked(now);
    std::vector<Key> repeating;
    for (const auto& s : sessions_.items())
        if (s.second->repeating == key)
            repeating.push_back(s.first);
    for (Key session : repeating)
        stopSessionLocked(session, now);
    requests_.erase(key);
}

at::Status SimArgus::enableOutputStream(at::Request* handle, at::OutputStream* stream) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Request* request = requests_.find(handle);
    const argus_records::Stream* s = streams_.find(stream);
    if (request == nullptr || s == nullptr || s->session != request->session)
        return at::STATUS_INVALID_PARAMS;
    const Key key = streams_.keyOf(stream);
    if (std::count(request->streams.begin(), request->streams.end(), key) == 0)
        request->streams.push_back(key);
    return at::STATUS_OK;
}

at::Status SimArgus::repeat(at::CaptureSession* handle, at::Request* requestHandle) {
    std::lock_guard<std::mutex> lock(mutex_);
    const Key key = sessions_.keyOf(handle);
    Session* session = sessions_.find(key);
    const argus_records::Request* request = requests_.find(requestHandle);
    if (session == nullptr || request == nullptr || request->session != key || request->streams.empty())
        return at::STATUS_INVALID_PARAMS;
    std::vector<const ArgusSensorModeConfig*> modes;
    for (const Sensor* sensor : session->sensors) {
        modes.push_back(modeForLocked(*sensor, request->settings));
        if (modes.back() == nullptr)
            return at::STATUS_INVALID_SETTINGS;  // a sensor without modes
    }
    const int64_t now = platform::clock().steadyNanoseconds();
    advanceLocked(now);
    // A repeat replaces the one running.
    if (session->repeating != 0)
        stopSessionLocked(key, now);
    for (size_t i = 0; i < session->sensors.size(); ++i)
        startRunLocked(*session->sensors[i], key, *request, *modes[i], now);
    session->repeating = requests_.keyOf(requestHandle);
    for (const Sensor* sensor : session->sensors)
        updateLineLocked(*cameras_[sensor->camera]);
    return at::STATUS_OK;
}

void SimArgus::stopRepeat(at::CaptureSession* handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    const int64_t now = platform::clock().steadyNanoseconds();
    advanceLocked(now);
    stopSessionLocked(sessions_.keyOf(handle), now);
}

at::Status SimArgus::waitForIdle(at::CaptureSession* handle, uint64_t timeoutNs) {
    platform::Clock& clock = platform::clock();
    const Key key = sessions_.keyOf(handle);
    const int64_t deadline = saturatingAdd(clock.steadyNanoseconds(), timeoutNs);
    for (;;) {
        int64_t now = 0;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            const Session* session = sessions_.find(key);
            if (session == nullptr)
                return sessions_.issued(key) ? at::STATUS_DISCONNECTED : at::STATUS_INVALID_PARAMS;
            if (session->repeating == 0)
                return at::STATUS_OK;
            now = clock.steadyNanoseconds();
            if (now >= deadline)
                return at::STATUS_TIMEOUT;
        }
        clock.sleepFor(std::chrono::nanoseconds(std::min(deadline - now, kWaitSliceNs)));
    }
}

// ---------------------------------------------------------------------------
// Frame consumers and frames

at::FrameConsumer* SimArgus::createFrameConsumer(at::OutputStream* handle, at::Status* status) {
    std::lock_guard<std::mutex> lock(mutex_);
    argus_records::Stream* stream = streams_.find(handle);
    if (stream == nullptr) {
        setStatus(status, at::STATUS_INVALID_PARAMS);
        return nullptr;
    }
    if (stream->disconnected || stream->consumers > 0) {
        // An EGL stream has one consumer, and a disconnected one takes none.
        setStatus(status, stream->disconnected ? at::STATUS_DISCONNECTED : at::STATUS_UNAVAILABLE);
        return nullptr;
    }
    advanceLocked(platform::clock().steadyNanoseconds());
    auto consumer = std::make_unique<argus_records::Consumer>();
    consumer->stream = streams_.keyOf(handle);
    // Only frames that arrive from now on reach it.
    consumer->lastSequence = stream->hasFrame ? stream->newest.sequence : 0;
    ++stream->consumers;
    setStatus(status, at::STATUS_OK);
    return consumers_.handleOf<at::FrameConsumer>(consumers_.add(std::move(consumer)));
}

void SimArgus::destroyFrameConsumer(at::FrameConsumer* consumer) {
    std::lock_guard<std::mutex> lock(mutex_);
    destroyConsumerLocked(consumers_.keyOf(consumer));
}

at::Frame* SimArgus::acquireFrame(at::FrameConsumer* handle, uint64_t timeoutNs, at::Status* status) {
    platform::Clock& clock = platform::clock();
    const Key key = consumers_.keyOf(handle);
    const int64_t deadline = saturatingAdd(clock.steadyNanoseconds(), timeoutNs);
    for (;;) {
        int64_t now = 0;
        int64_t wake = deadline;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            now = clock.steadyNanoseconds();
            advanceLocked(now);
            argus_records::Consumer* consumer = consumers_.find(key);
            if (consumer == nullptr) {
                setStatus(status,
                          consumers_.issued(key) ? at::STATUS_DISCONNECTED : at::STATUS_INVALID_PARAMS);
                return nullptr;
            }
            const argus_records::Stream* stream = streams_.find(consumer->stream);
            if (stream == nullptr || stream->disconnected || cameras_[stream->sensor->camera]->errored) {
                setStatus(status, at::STATUS_DISCONNECTED);
                return nullptr;
            }
            if (stream->hasFrame && stream->newest.sequence > consumer->lastSequence) {
                if (consumer->held >= kMaxHeldFrames) {
                    setStatus(status, at::STATUS_UNAVAILABLE);
                    return nullptr;
                }
                auto frame = std::make_unique<argus_records::Frame>();
                frame->consumer = key;
                frame->sensor = stream->sensor;
                frame->info = stream->newest;
                consumer->lastSequence = stream->newest.sequence;
                ++consumer->held;
                ++stream->sensor->acquired;
                setStatus(status, at::STATUS_OK);
                return frames_.handleOf<at::Frame>(frames_.add(std::move(frame)));
            }
            if (now >= deadline) {
                setStatus(status, at::STATUS_TIMEOUT);
                return nullptr;
            }
            wake = std::min({deadline, now + kWaitSliceNs, nextAvailableLocked(*stream->sensor)});
        }
        clock.sleepFor(std::chrono::nanoseconds(std::max<int64_t>(1, wake - now)));
    }
}

void SimArgus::releaseFrame(at::Frame* handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    const argus_records::Frame* frame = frames_.find(handle);
    if (frame == nullptr)
        return;
    if (argus_records::Consumer* consumer = consumers_.find(frame->consumer))
        consumer->held = std::max(0, consumer->held - 1);
    frames_.erase(frames_.keyOf(handle));
}

bool SimArgus::getSensorTimestamp(at::Frame* handle, uint64_t& ns) {
    std::lock_guard<std::mutex> lock(mutex_);
    const argus_records::Frame* frame = frames_.find(handle);
    if (frame == nullptr || !frame->info.metadata)
        return false;
    ns = static_cast<uint64_t>(frame->info.timestampNs);
    return true;
}

bool SimArgus::getSensorExposureTime(at::Frame* handle, uint64_t& ns) {
    std::lock_guard<std::mutex> lock(mutex_);
    const argus_records::Frame* frame = frames_.find(handle);
    if (frame == nullptr || !frame->info.metadata)
        return false;
    ns = frame->info.exposureNs;
    return true;
}

bool SimArgus::getSensorAnalogGain(at::Frame* handle, float& gain) {
    std::lock_guard<std::mutex> lock(mutex_);
    const argus_records::Frame* frame = frames_.find(handle);
    if (frame == nullptr || !frame->info.metadata)
        return false;
    gain = frame->info.analogGain;
    return true;
}

bool SimArgus::getIspDigitalGain(at::Frame* handle, float& gain) {
    std::lock_guard<std::mutex> lock(mutex_);
    const argus_records::Frame* frame = frames_.find(handle);
    if (frame == nullptr || !frame->info.metadata)
        return false;
    gain = frame->info.digitalGain;
    return true;
}

}  // namespace sim
