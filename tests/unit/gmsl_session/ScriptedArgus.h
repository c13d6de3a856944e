#pragma once

// An in-test platform::Argus for the frame path and the image controls of
// ArgusCamera: each consumer answers acquireFrame from a script of frames
// and failures, every request records what the camera wrote into it, and the
// native buffers hand out images filled with one byte per side. Anything
// else answers an error.

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

#include "platform/Argus.h"

namespace testsupport {

namespace at = platform::argus_types;

// What one acquire answers: a frame (timestamp in ns) or a failure status.
struct ScriptedAcquire {
    bool frame = true;
    uint64_t timestampNs = 0;
    at::Status status = at::STATUS_OK;
    uint64_t exposureNs = 10000000;
    float analogGain = 2.f;
    float digitalGain = 1.f;
};

// Everything a request was told.
struct RecordedRequest {
    at::Range<uint64_t> exposure{0, 0};
    at::Range<float> analogGain{0, 0};
    at::Range<float> digitalGain{1, 8};
    at::Range<uint64_t> frameDuration{0, 0};
    at::AwbMode awb = at::AwbMode::Auto;
    at::BayerTuple wbGains;
    at::AeAntibandingMode antibanding = at::AeAntibandingMode::Auto;
    at::EdgeEnhanceMode edgeMode = at::EdgeEnhanceMode::Off;
    float edgeStrength = -1.f;
    at::DenoiseMode denoiseMode = at::DenoiseMode::Off;
    float denoiseStrength = -1.f;
    float exposureCompensation = 0.f;
    float saturation = 1.f;
    bool saturationEnabled = false;
    std::map<uint32_t, std::vector<float>> toneCurves;
    std::vector<at::AcRegion> aeRegions;
    int repeats = 0;
};

class ScriptedArgus : public platform::Argus {
public:
    static constexpr uint32_t kToneCurveSize = 64;

    // Handles the camera keeps in its component: side 0 and 1.
    at::CaptureSession* session(int side) { return reinterpret_cast<at::CaptureSession*>(&sessions_[side]); }
    at::OutputStream* stream(int side) { return reinterpret_cast<at::OutputStream*>(&streams_[side]); }
    at::FrameConsumer* consumer(int side) { return reinterpret_cast<at::FrameConsumer*>(&consumers_[side]); }
    at::Request* request(int side) { return reinterpret_cast<at::Request*>(&requests_[side]); }

    void script(int side, std::vector<ScriptedAcquire> steps) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            for (auto& s : steps)
                scripts_[side].push_back(s);
        }
        cv_.notify_all();
    }
    // Acquires after the script: failures with this status (a silent camera).
    void setIdleStatus(at::Status status) { idle_ = status; }
    // Acquires after the script wait until more is scripted or release() is
    // called (then they fail with the idle status): a test stops a producer
    // at the end of its script without it counting more silence.
    void setBlockWhenIdle(bool block) { block_ = block; }
    void release() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            released_ = true;
        }
        cv_.notify_all();
    }
    size_t remaining(int side) {
        std::lock_guard<std::mutex> lock(mutex_);
        return scripts_[side].size();
    }
    int acquires(int side) {
        std::lock_guard<std::mutex> lock(mutex_);
        return acquires_[side];
    }
    RecordedRequest recorded(int side) {
        std::lock_guard<std::mutex> lock(mutex_);
        return recorded_[side];
    }
    // The byte each side's images are filled with.
    static unsigned char fillOf(int side) { return side == 0 ? 0x11 : 0x22; }

    // ---- discovery: not used by these tests
    bool createProvider() override { return false; }
    void destroyProvider() override {}
    at::Status getCameraDevices(std::vector<at::CameraDevice*>&) override { return at::STATUS_UNAVAILABLE; }
    at::CaptureSession* createCaptureSession(at::CameraDevice*, at::Status* s) override { return fail(s); }
    at::CaptureSession* createCaptureSession(const std::vector<at::CameraDevice*>&, at::Status* s) override {
        return fail(s);
    }
    void destroyCaptureSession(at::CaptureSession*) override {}
    bool getModelName(at::CameraDevice*, std::string&) override { return false; }
    bool getModuleString(at::CameraDevice*, std::string&) override { return false; }
    bool getSyncSensorModuleId(at::CameraDevice*, char*, uint32_t) override { return false; }
    at::Status getAllSensorModes(at::CameraDevice*, std::vector<at::SensorMode*>&) override {
        return at::STATUS_UNAVAILABLE;
    }
    bool getMinAeRegionSize(at::CameraDevice*, at::Size2D&) override { return false; }
    bool getResolution(at::SensorMode*, at::Size2D&) override { return false; }
    bool getExposureTimeRange(at::SensorMode*, at::Range<uint64_t>&) override { return false; }
    bool getAnalogGainRange(at::SensorMode*, at::Range<float>&) override { return false; }
    bool getFrameDurationRange(at::SensorMode*, at::Range<uint64_t>&) override { return false; }
    at::OutputStreamSettings* createEglOutputStreamSettings(at::CaptureSession*) override { return nullptr; }
    at::OutputStream* createOutputStream(at::CaptureSession*, at::OutputStreamSettings*,
                                         at::Status* s) override {
        if (s != nullptr)
            *s = at::STATUS_UNAVAILABLE;
        return nullptr;
    }
    at::Request* createPreviewRequest(at::CaptureSession*, at::Status* s) override {
        if (s != nullptr)
            *s = at::STATUS_UNAVAILABLE;
        return nullptr;
    }
    void destroyOutputStreamSettings(at::OutputStreamSettings*) override {}
    void destroyOutputStream(at::OutputStream*) override {}
    void destroyRequest(at::Request*) override {}
    at::Status setCameraDevice(at::OutputStreamSettings*, at::CameraDevice*) override { return bad(); }
    at::Status setPixelFormatYCbCr420(at::OutputStreamSettings*) override { return bad(); }
    at::Status setResolution(at::OutputStreamSettings*, at::Size2D) override { return bad(); }
    at::Status setMetadataEnable(at::OutputStreamSettings*, bool) override { return bad(); }
    at::Status setMode(at::OutputStreamSettings*, at::EglStreamMode) override { return bad(); }
    at::Status enableOutputStream(at::Request*, at::OutputStream*) override { return bad(); }
    at::Status setSensorMode(at::Request*, at::SensorMode*) override { return at::STATUS_OK; }
    at::Status setSourceClipRect(at::Request*, at::OutputStream*, at::Rectangle) override {
        return at::STATUS_OK;
    }
    at::FrameConsumer* createFrameConsumer(at::OutputStream*, at::Status* s) override {
        if (s != nullptr)
            *s = at::STATUS_UNAVAILABLE;
        return nullptr;
    }
    void destroyFrameConsumer(at::FrameConsumer*) override {}
    at::Status waitForIdle(at::CaptureSession*, uint64_t) override { return at::STATUS_OK; }
    void disconnect(at::OutputStream*) override {}
    int destroyNvBuffer(int) override { return 0; }

    // ---- requests: recorded
    at::Status repeat(at::CaptureSession* s, at::Request*) override {
        return with(sideOfSession(s), [](RecordedRequest& r) { ++r.repeats; });
    }
    void stopRepeat(at::CaptureSession*) override {}
    at::Status setFrameDurationRange(at::Request* r, at::Range<uint64_t> v) override {
        return with(sideOf(r), [&](RecordedRequest& q) { q.frameDuration = v; });
    }
    at::Status setExposureTimeRange(at::Request* r, at::Range<uint64_t> v) override {
        return with(sideOf(r), [&](RecordedRequest& q) { q.exposure = v; });
    }
    at::Status setGainRange(at::Request* r, at::Range<float> v) override {
        return with(sideOf(r), [&](RecordedRequest& q) { q.analogGain = v; });
    }
    at::Status setIspDigitalGainRange(at::Request* r, at::Range<float> v) override {
        return with(sideOf(r), [&](RecordedRequest& q) { q.digitalGain = v; });
    }
    bool getIspDigitalGainRange(at::Request* r, at::Range<float>& v) override {
        return with(sideOf(r), [&](RecordedRequest& q) { v = q.digitalGain; }) == at::STATUS_OK;
    }
    at::Status setAeLock(at::Request*, bool) override { return at::STATUS_OK; }
    at::Status setAeRegions(at::Request* r, const std::vector<at::AcRegion>& v) override {
        return with(sideOf(r), [&](RecordedRequest& q) { q.aeRegions = v; });
    }
    bool getAeRegions(at::Request* r, std::vector<at::AcRegion>& v) override {
        return with(sideOf(r), [&](RecordedRequest& q) { v = q.aeRegions; }) == at::STATUS_OK;
    }
    at::Status setAeAntibandingMode(at::Request* r, at::AeAntibandingMode m) override {
        return with(sideOf(r), [&](RecordedRequest& q) { q.antibanding = m; });
    }
    at::Status setAwbMode(at::Request* r, at::AwbMode m) override {
        return with(sideOf(r), [&](RecordedRequest& q) { q.awb = m; });
    }
    at::Status setWbGains(at::Request* r, at::BayerTuple g) override {
        return with(sideOf(r), [&](RecordedRequest& q) { q.wbGains = g; });
    }
    at::Status setExposureCompensation(at::Request* r, float ev) override {
        return with(sideOf(r), [&](RecordedRequest& q) { q.exposureCompensation = ev; });
    }
    at::Status setColorSaturation(at::Request* r, float v, bool enable) override {
        return with(sideOf(r), [&](RecordedRequest& q) {
            q.saturation = v;
            q.saturationEnabled = enable;
        });
    }
    uint32_t getToneMapCurveSize(at::Request*) override { return kToneCurveSize; }
    at::Status setToneMapCurve(at::Request* r, uint32_t channel, const std::vector<float>& curve,
                               bool) override {
        return with(sideOf(r), [&](RecordedRequest& q) { q.toneCurves[channel] = curve; });
    }
    at::Status setEdgeEnhance(at::Request* r, at::EdgeEnhanceMode m, float s) override {
        return with(sideOf(r), [&](RecordedRequest& q) {
            q.edgeMode = m;
            q.edgeStrength = s;
        });
    }
    at::Status setDenoise(at::Request* r, at::DenoiseMode m, float s) override {
        return with(sideOf(r), [&](RecordedRequest& q) {
            q.denoiseMode = m;
            q.denoiseStrength = s;
        });
    }

    // ---- frames: scripted
    at::Status waitUntilConnected(at::OutputStream* s, uint64_t) override {
        return sideOfStream(s) >= 0 ? at::STATUS_OK : at::STATUS_INVALID_PARAMS;
    }
    at::Frame* acquireFrame(at::FrameConsumer* c, uint64_t, at::Status* status) override {
        const int side = sideOfConsumer(c);
        std::unique_lock<std::mutex> lock(mutex_);
        if (side < 0) {
            *status = at::STATUS_INVALID_PARAMS;
            return nullptr;
        }
        ++acquires_[side];
        if (block_)
            cv_.wait(lock, [&] { return released_ || !scripts_[side].empty(); });
        if (scripts_[side].empty()) {
            *status = idle_;
            return nullptr;
        }
        ScriptedAcquire step = scripts_[side].front();
        scripts_[side].pop_front();
        if (!step.frame) {
            *status = step.status;
            return nullptr;
        }
        *status = at::STATUS_OK;
        auto* frame = new Frame{side, step};
        return reinterpret_cast<at::Frame*>(frame);
    }
    void releaseFrame(at::Frame* f) override { delete reinterpret_cast<Frame*>(f); }
    bool getSensorTimestamp(at::Frame* f, uint64_t& ns) override {
        ns = reinterpret_cast<Frame*>(f)->step.timestampNs;
        return true;
    }
    bool getSensorExposureTime(at::Frame* f, uint64_t& ns) override {
        ns = reinterpret_cast<Frame*>(f)->step.exposureNs;
        return true;
    }
    bool getSensorAnalogGain(at::Frame* f, float& g) override {
        g = reinterpret_cast<Frame*>(f)->step.analogGain;
        return true;
    }
    bool getIspDigitalGain(at::Frame* f, float& g) override {
        g = reinterpret_cast<Frame*>(f)->step.digitalGain;
        return true;
    }
    int createNvBuffer(at::Frame* f, at::Size2D size, int format, int, int, at::Status* status) override {
        *status = format == 14 ? at::STATUS_OK : at::STATUS_INVALID_PARAMS;
        std::lock_guard<std::mutex> lock(mutex_);
        const int side = reinterpret_cast<Frame*>(f)->side;
        size_[side] = size;
        return format == 14 ? 100 + side : -1;
    }
    at::Status copyToNvBuffer(at::Frame*, int fd) override {
        return fd == 100 || fd == 101 ? at::STATUS_OK : at::STATUS_INVALID_PARAMS;
    }
    int surfaceMapParams(int fd, uint32_t& w, uint32_t& h, uint32_t& pitch) override {
        std::lock_guard<std::mutex> lock(mutex_);
        const at::Size2D size = size_[fd - 100];
        w = size.width;
        h = size.height;
        pitch = (w * 2 + 255) / 256 * 256;
        return 0;
    }
    int surfaceToRaw(int fd, uint32_t, uint32_t w, uint32_t h, unsigned char* out) override {
        std::memset(out, fillOf(fd - 100), static_cast<size_t>(w) * h * 2);
        return 0;
    }

private:
    struct Frame {
        int side;
        ScriptedAcquire step;
    };
    template <typename T>
    int indexIn(T* base, void* handle) {
        for (int i = 0; i < 2; ++i)
            if (handle == &base[i])
                return i;
        return -1;
    }
    int sideOf(at::Request* r) { return indexIn(requests_, r); }
    int sideOfSession(at::CaptureSession* s) { return indexIn(sessions_, s); }
    int sideOfStream(at::OutputStream* s) { return indexIn(streams_, s); }
    int sideOfConsumer(at::FrameConsumer* c) { return indexIn(consumers_, c); }
    template <typename F>
    at::Status with(int side, F f) {
        if (side < 0)
            return at::STATUS_INVALID_PARAMS;
        std::lock_guard<std::mutex> lock(mutex_);
        f(recorded_[side]);
        return at::STATUS_OK;
    }
    static at::CaptureSession* fail(at::Status* s) {
        if (s != nullptr)
            *s = at::STATUS_UNAVAILABLE;
        return nullptr;
    }
    static at::Status bad() { return at::STATUS_INVALID_PARAMS; }

    char sessions_[2] = {};
    char streams_[2] = {};
    char consumers_[2] = {};
    char requests_[2] = {};
    std::mutex mutex_;
    std::condition_variable cv_;
    bool block_ = false;
    bool released_ = false;
    std::deque<ScriptedAcquire> scripts_[2];
    int acquires_[2] = {0, 0};
    RecordedRequest recorded_[2];
    at::Size2D size_[2];
    at::Status idle_ = at::STATUS_TIMEOUT;
};

}  // namespace testsupport
