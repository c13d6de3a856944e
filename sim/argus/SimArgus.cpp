#include "sim/argus/SimArgus.h"

#include <algorithm>
#include <cstring>

namespace sim {

namespace at = platform::argus_types;

namespace {
void setStatus(at::Status* status, at::Status value) {
    if (status != nullptr)
        *status = value;
}
}  // namespace

std::shared_ptr<SimArgus> SimArgus::of(Machine& machine) {
    auto argus = machine.shared<SimArgus>("argus", [] { return std::make_shared<SimArgus>(); });
    machine.setArgus(argus);
    return argus;
}

SimArgus::~SimArgus() {
    for (Session* s : sessions_)
        delete s;
}

size_t SimArgus::addSensor(ArgusSensorConfig config) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto sensor = std::make_unique<Sensor>();
    for (const ArgusSensorModeConfig& m : config.modes)
        sensor->modes.push_back(std::make_unique<Mode>(Mode{m}));
    sensor->config = std::move(config);
    sensors_.push_back(std::move(sensor));
    return sensors_.size() - 1;
}

void SimArgus::setProviderUnavailable(bool unavailable) {
    std::lock_guard<std::mutex> lock(mutex_);
    providerUnavailable_ = unavailable;
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

int SimArgus::sessionsCreated() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sessionsCreated_;
}

int SimArgus::liveSessions() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(sessions_.size());
}

int SimArgus::indexOf(at::CameraDevice* device) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (size_t i = 0; i < sensors_.size(); ++i)
        if (reinterpret_cast<at::CameraDevice*>(sensors_[i].get()) == device)
            return static_cast<int>(i);
    return -1;
}

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

SimArgus::Session* SimArgus::sessionLocked(at::CaptureSession* session) const {
    auto* s = reinterpret_cast<Session*>(session);
    return sessions_.count(s) != 0 ? s : nullptr;
}

// ---------------------------------------------------------------------------
// Discovery

bool SimArgus::createProvider() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++createCalls_;
    if (providerUnavailable_)
        return false;
    providerCreated_ = true;
    return true;
}

void SimArgus::destroyProvider() {
    std::lock_guard<std::mutex> lock(mutex_);
    ++destroyCalls_;
    providerCreated_ = false;
    // Sessions end with their provider.
    for (Session* s : sessions_) {
        for (Sensor* sensor : s->sensors)
            --sensor->sessions;
        delete s;
    }
    sessions_.clear();
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
    Session* raw = session.release();
    sessions_.insert(raw);
    setStatus(status, at::STATUS_OK);
    return reinterpret_cast<at::CaptureSession*>(raw);
}

void SimArgus::destroyCaptureSession(at::CaptureSession* session) {
    std::lock_guard<std::mutex> lock(mutex_);
    Session* s = sessionLocked(session);
    if (s == nullptr)
        return;
    for (Sensor* sensor : s->sensors)
        --sensor->sessions;
    sessions_.erase(s);
    delete s;
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

bool SimArgus::getMinAeRegionSize(at::CameraDevice*, at::Size2D&) {
    return false;
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
    if (m == nullptr || m->config.fps.empty())
        return false;
    const auto [slowest, fastest] = std::minmax_element(m->config.fps.begin(), m->config.fps.end());
    range.min = static_cast<uint64_t>(1e9 / *fastest);
    range.max = static_cast<uint64_t>(1e9 / *slowest);
    return true;
}

bool SimArgus::getExposureTimeRange(at::SensorMode*, at::Range<uint64_t>&) {
    return false;
}

bool SimArgus::getAnalogGainRange(at::SensorMode*, at::Range<float>&) {
    return false;
}

// ---------------------------------------------------------------------------
// Capture: not simulated yet.

at::OutputStreamSettings* SimArgus::createEglOutputStreamSettings(at::CaptureSession*) {
    return nullptr;
}
at::OutputStream* SimArgus::createOutputStream(at::CaptureSession*, at::OutputStreamSettings*,
                                               at::Status* status) {
    setStatus(status, at::STATUS_UNIMPLEMENTED);
    return nullptr;
}
at::Request* SimArgus::createPreviewRequest(at::CaptureSession*, at::Status* status) {
    setStatus(status, at::STATUS_UNIMPLEMENTED);
    return nullptr;
}
at::Status SimArgus::repeat(at::CaptureSession*, at::Request*) {
    return at::STATUS_UNIMPLEMENTED;
}
void SimArgus::stopRepeat(at::CaptureSession*) {}
at::Status SimArgus::waitForIdle(at::CaptureSession*, uint64_t) {
    return at::STATUS_UNIMPLEMENTED;
}
void SimArgus::destroyOutputStreamSettings(at::OutputStreamSettings*) {}
void SimArgus::destroyOutputStream(at::OutputStream*) {}
void SimArgus::destroyRequest(at::Request*) {}
at::Status SimArgus::setCameraDevice(at::OutputStreamSettings*, at::CameraDevice*) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setPixelFormatYCbCr420(at::OutputStreamSettings*) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setResolution(at::OutputStreamSettings*, at::Size2D) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setMetadataEnable(at::OutputStreamSettings*, bool) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setMode(at::OutputStreamSettings*, at::EglStreamMode) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::enableOutputStream(at::Request*, at::OutputStream*) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setFrameDurationRange(at::Request*, at::Range<uint64_t>) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setSensorMode(at::Request*, at::SensorMode*) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setExposureTimeRange(at::Request*, at::Range<uint64_t>) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setGainRange(at::Request*, at::Range<float>) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setSourceClipRect(at::Request*, at::OutputStream*, at::Rectangle) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setIspDigitalGainRange(at::Request*, at::Range<float>) {
    return at::STATUS_UNIMPLEMENTED;
}
bool SimArgus::getIspDigitalGainRange(at::Request*, at::Range<float>&) {
    return false;
}
at::Status SimArgus::setAeLock(at::Request*, bool) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setAeRegions(at::Request*, const std::vector<at::AcRegion>&) {
    return at::STATUS_UNIMPLEMENTED;
}
bool SimArgus::getAeRegions(at::Request*, std::vector<at::AcRegion>&) {
    return false;
}
at::Status SimArgus::setAeAntibandingMode(at::Request*, at::AeAntibandingMode) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setAwbMode(at::Request*, at::AwbMode) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setWbGains(at::Request*, at::BayerTuple) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setExposureCompensation(at::Request*, float) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setColorSaturation(at::Request*, float, bool) {
    return at::STATUS_UNIMPLEMENTED;
}
uint32_t SimArgus::getToneMapCurveSize(at::Request*) {
    return 0;
}
at::Status SimArgus::setToneMapCurve(at::Request*, uint32_t, const std::vector<float>&, bool) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setEdgeEnhance(at::Request*, at::EdgeEnhanceMode, float) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::setDenoise(at::Request*, at::DenoiseMode, float) {
    return at::STATUS_UNIMPLEMENTED;
}
at::Status SimArgus::waitUntilConnected(at::OutputStream*, uint64_t) {
    return at::STATUS_UNIMPLEMENTED;
}
void SimArgus::disconnect(at::OutputStream*) {}
at::FrameConsumer* SimArgus::createFrameConsumer(at::OutputStream*, at::Status* status) {
    setStatus(status, at::STATUS_UNIMPLEMENTED);
    return nullptr;
}
void SimArgus::destroyFrameConsumer(at::FrameConsumer*) {}
at::Frame* SimArgus::acquireFrame(at::FrameConsumer*, uint64_t, at::Status* status) {
    setStatus(status, at::STATUS_UNIMPLEMENTED);
    return nullptr;
}
void SimArgus::releaseFrame(at::Frame*) {}
bool SimArgus::getSensorTimestamp(at::Frame*, uint64_t&) {
    return false;
}
bool SimArgus::getSensorExposureTime(at::Frame*, uint64_t&) {
    return false;
}
bool SimArgus::getSensorAnalogGain(at::Frame*, float&) {
    return false;
}
bool SimArgus::getIspDigitalGain(at::Frame*, float&) {
    return false;
}
int SimArgus::createNvBuffer(at::Frame*, at::Size2D, int, int, int, at::Status* status) {
    setStatus(status, at::STATUS_UNIMPLEMENTED);
    return -1;
}
at::Status SimArgus::copyToNvBuffer(at::Frame*, int) {
    return at::STATUS_UNIMPLEMENTED;
}
int SimArgus::surfaceMapParams(int, uint32_t&, uint32_t&, uint32_t&) {
    return -1;
}
int SimArgus::surfaceToRaw(int, uint32_t, uint32_t, uint32_t, unsigned char*) {
    return -1;
}
int SimArgus::destroyNvBuffer(int) {
    return -1;
}

}  // namespace sim
