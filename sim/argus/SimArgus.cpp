// The simulated camera service: the scenario side, the observation of tests,
// the provider and the discovery operations.
#include "sim/argus/SimArgus.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "platform/Clock.h"

namespace sim {

namespace at = platform::argus_types;
using argus_records::Key;

namespace {
void setStatus(at::Status* status, at::Status value) {
    if (status != nullptr)
        *status = value;
}
}  // namespace

uintptr_t SimArgus::nextInstance() {
    static std::atomic<uintptr_t> count{0};
    return ++count;
}

SimArgus::SimArgus() = default;
SimArgus::~SimArgus() = default;

std::shared_ptr<SimArgus> SimArgus::of(Machine& machine) {
    auto argus = machine.shared<SimArgus>("argus", [] { return std::make_shared<SimArgus>(); });
    machine.setArgus(argus);
    return argus;
}

// ---------------------------------------------------------------------------
// Scenario side

size_t SimArgus::addCamera(ArgusCameraConfig config) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto camera = std::make_unique<Camera>();
    camera->freezesLeft = config.faults.freezeCount;
    camera->errorsLeft = config.faults.captureErrorCount;
    camera->config = std::move(config);
    cameras_.push_back(std::move(camera));
    return cameras_.size() - 1;
}

size_t SimArgus::addSensor(ArgusSensorConfig config) {
    if (config.camera < 0 || static_cast<size_t>(config.camera) >= cameraCount()) {
        ArgusCameraConfig own;
        own.bus = config.bus;
        config.camera = static_cast<int>(addCamera(own));
    }
    std::lock_guard<std::mutex> lock(mutex_);
    auto sensor = std::make_unique<Sensor>();
    for (const ArgusSensorModeConfig& m : config.modes)
        sensor->modes.push_back(std::make_unique<Mode>(Mode{m}));
    Camera& camera = *cameras_[static_cast<size_t>(config.camera)];
    sensor->camera = static_cast<size_t>(config.camera);
    sensor->position = static_cast<int>(camera.sensors.size());
    sensor->config = std::move(config);
    camera.sensors.push_back(sensor.get());
    sensors_.push_back(std::move(sensor));
    return sensors_.size() - 1;
}

void SimArgus::setProviderUnavailable(bool unavailable) {
    std::lock_guard<std::mutex> lock(mutex_);
    providerUnavailable_ = unavailable;
}

void SimArgus::setProviderFailures(int count) {
    std::lock_guard<std::mutex> lock(mutex_);
    providerFailures_ = std::max(0, count);
}

void SimArgus::setInUse(size_t sensor, bool inUse) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (sensor < sensors_.size())
        sensors_[sensor]->config.inUse = inUse;
}

std::vector<ArgusSensorConfig> SimArgus::sensors() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<ArgusSensorConfig> out;
    for (const auto& s : sensors_)
        out.push_back(s->config);
    return out;
}

size_t SimArgus::cameraCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return cameras_.size();
}

int SimArgus::cameraOf(size_t sensor) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sensor < sensors_.size() ? static_cast<int>(sensors_[sensor]->camera) : -1;
}

ArgusCameraFaults SimArgus::cameraFaults(size_t camera) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return camera < cameras_.size() ? cameras_[camera]->config.faults : ArgusCameraFaults{};
}

void SimArgus::setCameraFaults(size_t index, ArgusCameraFaults faults) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (index >= cameras_.size())
        return;
    advanceLocked(platform::clock().steadyNanoseconds());
    Camera& camera = *cameras_[index];
    camera.config.faults = faults;
    camera.freezesLeft = faults.freezeCount;
    camera.errorsLeft = faults.captureErrorCount;
    updateLineLocked(camera);
}

void SimArgus::freezeNow(size_t index) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (index >= cameras_.size())
        return;
    const int64_t now = platform::clock().steadyNanoseconds();
    advanceLocked(now);
    Camera& camera = *cameras_[index];
    if (!camera.frozen) {
        camera.frozen = true;
        camera.frozenAtNs = now;
        providerFailures_ += camera.config.faults.freezeRestartFailures;
    }
    updateLineLocked(camera);
}

// ---------------------------------------------------------------------------
// Observation

int SimArgus::createProviderCalls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return createCalls_;
}

int SimArgus::destroyProviderCalls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return destroyCalls_;
}

bool SimArgus::providerCreated() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return providerCreated_;
}

int SimArgus::providerFailuresLeft() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return providerFailures_;
}

int SimArgus::sessionsCreated() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sessionsCreated_;
}

int SimArgus::liveSessions() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(sessions_.items().size());
}

int SimArgus::liveStreams() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(streams_.items().size());
}

int SimArgus::liveConsumers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(consumers_.items().size());
}

int SimArgus::liveFrames() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(frames_.items().size());
}

int SimArgus::liveNvBuffers() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(buffers_.size());
}

int SimArgus::indexOf(at::CameraDevice* device) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (size_t i = 0; i < sensors_.size(); ++i)
        if (reinterpret_cast<at::CameraDevice*>(sensors_[i].get()) == device)
            return static_cast<int>(i);
    return -1;
}

ArgusSensorState SimArgus::sensorState(size_t index) {
    std::lock_guard<std::mutex> lock(mutex_);
    ArgusSensorState state;
    if (index >= sensors_.size())
        return state;
    advanceLocked(platform::clock().steadyNanoseconds());
    const Sensor& s = *sensors_[index];
    state.repeating = s.run.active;
    state.periodNs = s.run.periodNs;
    state.phaseNs = s.run.phaseNs;
    state.framesDelivered = s.delivered;
    state.framesAcquired = s.acquired;
    state.repeats = s.repeats;
    state.hasApplied = s.hasApplied;
    state.applied = s.run.settings;
    return state;
}

bool SimArgus::cameraFrozen(size_t camera) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (camera >= cameras_.size())
        return false;
    advanceLocked(platform::clock().steadyNanoseconds());
    return cameras_[camera]->frozen;
}

bool SimArgus::cameraCaptureError(size_t camera) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (camera >= cameras_.size())
        return false;
    advanceLocked(platform::clock().steadyNanoseconds());
    return cameras_[camera]->errored;
}

// ---------------------------------------------------------------------------
// Look-ups

SimArgus::Sensor* SimArgus::sensorLocked(at::CameraDevice* device) const {
    if (!providerCreated_ || device == nullptr)
        return nullptr;
    for (const auto& s : sensors_)
        if (reinterpret_cast<at::CameraDevice*>(s.get()) == device)
            return s.get();
    return nullptr;
}

SimArgus::Mode* SimArgus::modeLocked(at::SensorMode* mode) const {
    if (!providerCreated_ || mode == nullptr)
        return nullptr;
    for (const auto& s : sensors_)
        for (const auto& m : s->modes)
            if (reinterpret_cast<at::SensorMode*>(m.get()) == mode)
                return m.get();
    return nullptr;
}

int SimArgus::modeIndexLocked(const Sensor& sensor, const Mode* mode) const {
    for (size_t i = 0; i < sensor.modes.size(); ++i)
        if (sensor.modes[i].get() == mode)
            return static_cast<int>(i);
    return -1;
}

SimArgus::Session* SimArgus::sessionLocked(at::CaptureSession* session) const {
    return sessions_.find(session);
}

// ---------------------------------------------------------------------------
// Provider

bool SimArgus::createProvider() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++createCalls_;
    // A freeze that is due now asks for its restart failures first.
    advanceLocked(platform::clock().steadyNanoseconds());
    if (providerUnavailable_)
        return false;
    if (providerFailures_ > 0) {
        --providerFailures_;
        return false;
    }
    providerCreated_ = true;
    return true;
}

void SimArgus::destroyProvider() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++destroyCalls_;
    const int64_t now = platform::clock().steadyNanoseconds();
    advanceLocked(now);
    endProviderLocked(now);
    providerCreated_ = false;
}

at::Status SimArgus::getCameraDevices(std::vector<at::CameraDevice*>& devices) {
    std::lock_guard<std::mutex> lock(mutex_);
    devices.clear();
    if (!providerCreated_)
        return at::STATUS_UNAVAILABLE;
    for (const auto& s : sensors_)
        devices.push_back(reinterpret_cast<at::CameraDevice*>(s.get()));
    return at::STATUS_OK;
}

at::CaptureSession* SimArgus::createCaptureSession(at::CameraDevice* device, at::Status* status) {
    return createCaptureSession(std::vector<at::CameraDevice*>{device}, status);
}

at::CaptureSession* SimArgus::createCaptureSession(const std::vector<at::CameraDevice*>& devices,
                                                   at::Status* status) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!providerCreated_) {
        setStatus(status, at::STATUS_UNAVAILABLE);
        return nullptr;
    }
    if (devices.empty()) {
        setStatus(status, at::STATUS_INVALID_PARAMS);
        return nullptr;
    }
    auto session = std::make_unique<Session>();
    for (at::CameraDevice* d : devices) {
        Sensor* sensor = sensorLocked(d);
        if (sensor == nullptr) {
            setStatus(status, at::STATUS_INVALID_PARAMS);
            return nullptr;
        }
        // Held by another process, or by a session of this one.
        if (sensor->config.inUse || sensor->sessions > 0 ||
            std::count(session->sensors.begin(), session->sensors.end(), sensor) != 0) {
            setStatus(status, at::STATUS_UNAVAILABLE);
            return nullptr;
        }
        session->sensors.push_back(sensor);
    }
    for (Sensor* sensor : session->sensors)
        ++sensor->sessions;
    ++sessionsCreated_;
    const Key key = sessions_.add(std::move(session));
    setStatus(status, at::STATUS_OK);
    return sessions_.handleOf<at::CaptureSession>(key);
}

void SimArgus::destroyCaptureSession(at::CaptureSession* session) {
    std::lock_guard<std::mutex> lock(mutex_);
    const Key key = sessions_.keyOf(session);
    if (sessions_.find(key) == nullptr)
        return;
    const int64_t now = platform::clock().steadyNanoseconds();
    advanceLocked(now);
    destroySessionLocked(key, now);
}

bool SimArgus::getModelName(at::CameraDevice* device, std::string& name) {
    std::lock_guard<std::mutex> lock(mutex_);
    Sensor* s = sensorLocked(device);
    if (s == nullptr)
        return false;
    name = s->config.modelName;
    return true;
}

bool SimArgus::getModuleString(at::CameraDevice* device, std::string& module) {
    std::lock_guard<std::mutex> lock(mutex_);
    Sensor* s = sensorLocked(device);
    if (s == nullptr)
        return false;
    module = s->config.moduleString;
    return true;
}

bool SimArgus::getSyncSensorModuleId(at::CameraDevice* device, char* buffer, uint32_t size) {
    std::lock_guard<std::mutex> lock(mutex_);
    Sensor* s = sensorLocked(device);
    if (s == nullptr || buffer == nullptr || size == 0)
        return false;
    const std::string& id = s->config.moduleId;
    const size_t n = std::min<size_t>(id.size(), size - 1);
    std::memcpy(buffer, id.data(), n);
    buffer[n] = '\0';
    return true;
}

at::Status SimArgus::getAllSensorModes(at::CameraDevice* device, std::vector<at::SensorMode*>& modes) {
    std::lock_guard<std::mutex> lock(mutex_);
    modes.clear();
    Sensor* s = sensorLocked(device);
    if (s == nullptr)
        return at::STATUS_INVALID_PARAMS;
    for (const auto& m : s->modes)
        modes.push_back(reinterpret_cast<at::SensorMode*>(m.get()));
    return at::STATUS_OK;
}

bool SimArgus::getMinAeRegionSize(at::CameraDevice* device, at::Size2D& size) {
    std::lock_guard<std::mutex> lock(mutex_);
    Sensor* s = sensorLocked(device);
    if (s == nullptr)
        return false;
    size.width = s->config.minAeRegionWidth;
    size.height = s->config.minAeRegionHeight;
    return true;
}

bool SimArgus::getResolution(at::SensorMode* mode, at::Size2D& size) {
    std::lock_guard<std::mutex> lock(mutex_);
    Mode* m = modeLocked(mode);
    if (m == nullptr)
        return false;
    size.width = m->config.width;
    size.height = m->config.height;
    return true;
}

bool SimArgus::getFrameDurationRange(at::SensorMode* mode, at::Range<uint64_t>& range) {
    std::lock_guard<std::mutex> lock(mutex_);
    Mode* m = modeLocked(mode);
    return m != nullptr && argus_records::frameDurationsOf(m->config, range);
}

bool SimArgus::getExposureTimeRange(at::SensorMode* mode, at::Range<uint64_t>& range) {
    std::lock_guard<std::mutex> lock(mutex_);
    Mode* m = modeLocked(mode);
    if (m == nullptr)
        return false;
    range = argus_records::exposureRangeOf(m->config);
    return true;
}

bool SimArgus::getAnalogGainRange(at::SensorMode* mode, at::Range<float>& range) {
    std::lock_guard<std::mutex> lock(mutex_);
    Mode* m = modeLocked(mode);
    if (m == nullptr)
        return false;
    range.min = m->config.analogGainMin;
    range.max = m->config.analogGainMax;
    return true;
}

}  // namespace sim
