// The capture objects of the simulated camera service: output streams and
// their settings, requests and repeats, frame consumers and frames. Waiting
// calls sleep on platform::clock() in slices and look their handles up again
// after each slice, so that a destruction by another thread ends the wait.
#include <algorithm>
#include <chrono>

#include "platform/Clock.h"
#include "sim/argus/SimArgus.h"

namespace sim {

namespace at = platform::argus_types;
using argus_records::Key;
using argus_records::saturatingAdd;

namespace {

void setStatus(at::Status* status, at::Status value) {
    if (status != nullptr)
        *status = value;
}

}  // namespace

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
