#pragma once

// The simulated camera service: a platform::Argus with the sensors of the
// scenario's GMSL cameras.
//
//   SimArgus.cpp          scenario side, observation, provider, discovery
//   SimArgusTiming.cpp    frames on the steady clock of platform::clock(), on
//                         a grid shared by the sensors of a camera; faults;
//                         the camera's frame-start line
//   SimArgusCapture.cpp   output streams, requests, repeats, consumers, frames
//   SimArgusControls.cpp  the settings of a request
//   SimArgusBuffers.cpp   native buffers that render a moving scene
//
// Camera faults (freeze, no first frame, a stream that never connects, a
// lagging or offset second sensor, capture errors) come from the scenario or
// from the knobs below. sim/argus/README.md tells the exact behaviour.
//
// Handles must only be given back to the SimArgus that made them; any other
// value answers an error. Every member is safe from any thread.

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "platform/Argus.h"
#include "sim/Machine.h"
#include "sim/argus/SimArgusRecords.h"
#include "sim/argus/SimArgusTypes.h"

namespace sim {

class FrameGenerator;

class SimArgus : public platform::Argus {
public:
    // How long a stream with the never-connect fault keeps a waitUntilConnected
    // before it answers STATUS_TIMEOUT, whatever its time-out.
    static constexpr int64_t kNeverConnectGiveUpNs = 1000000000;
    // Longest sleep of a waiting call between two looks at its handles.
    static constexpr int64_t kWaitSliceNs = 20000000;
    static constexpr uint32_t kToneMapCurveSize = 64;
    static constexpr int kMaxHeldFrames = 8;  // per consumer

    SimArgus();
    ~SimArgus() override;

    // The machine's SimArgus, made and installed (Machine::setArgus) on first use.
    static std::shared_ptr<SimArgus> of(Machine& machine);

    // ---- scenario side
    // Adds a camera; returns its index for ArgusSensorConfig::camera.
    size_t addCamera(ArgusCameraConfig camera);
    // Adds a sensor at the end of the device list; returns its index.
    size_t addSensor(ArgusSensorConfig sensor);
    void setProviderUnavailable(bool unavailable);
    // The next `count` createProvider calls fail (the service is restarting).
    void setProviderFailures(int count);
    void setInUse(size_t sensor, bool inUse);
    std::vector<ArgusSensorConfig> sensors() const;

    // ---- faults at run time (tests)
    size_t cameraCount() const;
    int cameraOf(size_t sensor) const;  // -1 for an unknown sensor
    ArgusCameraFaults cameraFaults(size_t camera) const;
    // Replaces the camera's faults. Freeze and capture-error times count from
    // the camera's next first repeat under a provider; the others act at once.
    void setCameraFaults(size_t camera, ArgusCameraFaults faults);
    // The camera stops delivering now, until the provider is destroyed.
    void freezeNow(size_t camera);

    // ---- observation (tests)
    int createProviderCalls() const;
    int destroyProviderCalls() const;
    bool providerCreated() const;
    int providerFailuresLeft() const;
    int sessionsCreated() const;  // successful createCaptureSession calls
    int liveSessions() const;
    // The sensor index of a device handle, or -1.
    int indexOf(platform::argus_types::CameraDevice* device) const;
    // A sensor's stream state, brought up to the clock's now first.
    ArgusSensorState sensorState(size_t sensor);
    bool cameraFrozen(size_t camera);
    bool cameraCaptureError(size_t camera);
    int liveStreams() const;
    int liveConsumers() const;
    int liveFrames() const;
    int liveNvBuffers() const;

    // ---- discovery
    bool createProvider() override;
    void destroyProvider() override;
    platform::argus_types::Status getCameraDevices(
        std::vector<platform::argus_types::CameraDevice*>& devices) override;
    platform::argus_types::CaptureSession* createCaptureSession(
        platform::argus_types::CameraDevice* device, platform::argus_types::Status* status) override;
    platform::argus_types::CaptureSession* createCaptureSession(
        const std::vector<platform::argus_types::CameraDevice*>& devices,
        platform::argus_types::Status* status) override;
    void destroyCaptureSession(platform::argus_types::CaptureSession* session) override;
    bool getModelName(platform::argus_types::CameraDevice* device, std::string& name) override;
    bool getModuleString(platform::argus_types::CameraDevice* device, std::string& module) override;
    bool getSyncSensorModuleId(platform::argus_types::CameraDevice* device, char* buffer,
                               uint32_t size) override;
    platform::argus_types::Status getAllSensorModes(
        platform::argus_types::CameraDevice* device,
        std::vector<platform::argus_types::SensorMode*>& modes) override;
    bool getMinAeRegionSize(platform::argus_types::CameraDevice* device,
                            platform::argus_types::Size2D& size) override;
    bool getResolution(platform::argus_types::SensorMode* mode, platform::argus_types::Size2D& size) override;
    bool getExposureTimeRange(platform::argus_types::SensorMode* mode,
                              platform::argus_types::Range<uint64_t>& range) override;
    bool getAnalogGainRange(platform::argus_types::SensorMode* mode,
                            platform::argus_types::Range<float>& range) override;
    bool getFrameDurationRange(platform::argus_types::SensorMode* mode,
                               platform::argus_types::Range<uint64_t>& range) override;

    // ---- capture
    platform::argus_types::OutputStreamSettings* createEglOutputStreamSettings(
        platform::argus_types::CaptureSession* session) override;
    platform::argus_types::OutputStream* createOutputStream(
        platform::argus_types::CaptureSession* session, platform::argus_types::OutputStreamSettings* settings,
        platform::argus_types::Status* status) override;
    platform::argus_types::Request* createPreviewRequest(platform::argus_types::CaptureSession* session,
                                                         platform::argus_types::Status* status) override;
    platform::argus_types::Status repeat(platform::argus_types::CaptureSession* session,
                                         platform::argus_types::Request* request) override;
    void stopRepeat(platform::argus_types::CaptureSession* session) override;
    platform::argus_types::Status waitForIdle(platform::argus_types::CaptureSession* session,
                                              uint64_t timeoutNs) override;
    void destroyOutputStreamSettings(platform::argus_types::OutputStreamSettings* settings) override;
    void destroyOutputStream(platform::argus_types::OutputStream* stream) override;
    void destroyRequest(platform::argus_types::Request* request) override;
    platform::argus_types::Status setCameraDevice(platform::argus_types::OutputStreamSettings* settings,
                                                  platform::argus_types::CameraDevice* device) override;
    platform::argus_types::Status setPixelFormatYCbCr420(
        platform::argus_types::OutputStreamSettings* settings) override;
    platform::argus_types::Status setResolution(platform::argus_types::OutputStreamSettings* settings,
                                                platform::argus_types::Size2D size) override;
    platform::argus_types::Status setMetadataEnable(platform::argus_types::OutputStreamSettings* settings,
                                                    bool enable) override;
    platform::argus_types::Status setMode(platform::argus_types::OutputStreamSettings* settings,
                                          platform::argus_types::EglStreamMode mode) override;
    platform::argus_types::Status enableOutputStream(platform::argus_types::Request* request,
                                                     platform::argus_types::OutputStream* stream) override;
    platform::argus_types::Status setFrameDurationRange(
        platform::argus_types::Request* request, platform::argus_types::Range<uint64_t> range) override;
    platform::argus_types::Status setSensorMode(platform::argus_types::Request* request,
                                                platform::argus_types::SensorMode* mode) override;
    platform::argus_types::Status setExposureTimeRange(platform::argus_types::Request* request,
                                                       platform::argus_types::Range<uint64_t> range) override;
    platform::argus_types::Status setGainRange(platform::argus_types::Request* request,
                                               platform::argus_types::Range<float> range) override;
    platform::argus_types::Status setSourceClipRect(platform::argus_types::Request* request,
                                                    platform::argus_types::OutputStream* stream,
                                                    platform::argus_types::Rectangle clip) override;
    platform::argus_types::Status setIspDigitalGainRange(platform::argus_types::Request* request,
                                                         platform::argus_types::Range<float> range) override;
    bool getIspDigitalGainRange(platform::argus_types::Request* request,
                                platform::argus_types::Range<float>& range) override;
    platform::argus_types::Status setAeLock(platform::argus_types::Request* request, bool lock) override;
    platform::argus_types::Status setAeRegions(
        platform::argus_types::Request* request,
        const std::vector<platform::argus_types::AcRegion>& regions) override;
    bool getAeRegions(platform::argus_types::Request* request,
                      std::vector<platform::argus_types::AcRegion>& regions) override;
    platform::argus_types::Status setAeAntibandingMode(
        platform::argus_types::Request* request, platform::argus_types::AeAntibandingMode mode) override;
    platform::argus_types::Status setAwbMode(platform::argus_types::Request* request,
                                             platform::argus_types::AwbMode mode) override;
    platform::argus_types::Status setWbGains(platform::argus_types::Request* request,
                                             platform::argus_types::BayerTuple gains) override;
    platform::argus_types::Status setExposureCompensation(platform::argus_types::Request* request,
                                                          float ev) override;
    platform::argus_types::Status setColorSaturation(platform::argus_types::Request* request,
                                                     float saturation, bool enable) override;
    uint32_t getToneMapCurveSize(platform::argus_types::Request* request) override;
    platform::argus_types::Status setToneMapCurve(platform::argus_types::Request* request, uint32_t channel,
                                                  const std::vector<float>& curve, bool enable) override;
    platform::argus_types::Status setEdgeEnhance(platform::argus_types::Request* request,
                                                 platform::argus_types::EdgeEnhanceMode mode,
                                                 float strength) override;
    platform::argus_types::Status setDenoise(platform::argus_types::Request* request,
                                             platform::argus_types::DenoiseMode mode,
                                             float strength) override;
    platform::argus_types::Status waitUntilConnected(platform::argus_types::OutputStream* stream,
                                                     uint64_t timeoutNs) override;
    void disconnect(platform::argus_types::OutputStream* stream) override;
    platform::argus_types::FrameConsumer* createFrameConsumer(platform::argus_types::OutputStream* stream,
                                                              platform::argus_types::Status* status) override;
    void destroyFrameConsumer(platform::argus_types::FrameConsumer* consumer) override;
    platform::argus_types::Frame* acquireFrame(platform::argus_types::FrameConsumer* consumer,
                                               uint64_t timeoutNs,
                                               platform::argus_types::Status* status) override;
    void releaseFrame(platform::argus_types::Frame* frame) override;
    bool getSensorTimestamp(platform::argus_types::Frame* frame, uint64_t& ns) override;
    bool getSensorExposureTime(platform::argus_types::Frame* frame, uint64_t& ns) override;
    bool getSensorAnalogGain(platform::argus_types::Frame* frame, float& gain) override;
    bool getIspDigitalGain(platform::argus_types::Frame* frame, float& gain) override;
    int createNvBuffer(platform::argus_types::Frame* frame, platform::argus_types::Size2D size,
                       int colorFormat, int layout, int rotation,
                       platform::argus_types::Status* status) override;
    platform::argus_types::Status copyToNvBuffer(platform::argus_types::Frame* frame, int fd) override;
    int surfaceMapParams(int fd, uint32_t& width, uint32_t& height, uint32_t& pitch) override;
    int surfaceToRaw(int fd, uint32_t plane, uint32_t width, uint32_t height, unsigned char* out) override;
    int destroyNvBuffer(int fd) override;

private:
    using Key = argus_records::Key;
    using Sensor = argus_records::Sensor;
    using Mode = argus_records::Mode;
    using Camera = argus_records::Camera;
    using Session = argus_records::Session;

    // Discovery look-ups, under mutex_: the record behind a handle while the
    // provider exists, or null.
    Sensor* sensorLocked(platform::argus_types::CameraDevice* device) const;
    Mode* modeLocked(platform::argus_types::SensorMode* mode) const;
    Session* sessionLocked(platform::argus_types::CaptureSession* session) const;
    int modeIndexLocked(const Sensor& sensor, const Mode* mode) const;

    // Frame timing (SimArgusTiming.cpp), under mutex_.
    void advanceLocked(int64_t nowNs);
    void noteCameraFaultsLocked(Camera& camera, int64_t nowNs);
    void deliverLocked(Sensor& sensor, int64_t nowNs);
    int64_t cutOffLocked(const Sensor& sensor) const;
    int64_t delayLocked(const Sensor& sensor) const;
    int64_t nextAvailableLocked(const Sensor& sensor) const;
    argus_records::FrameInfo frameInfoLocked(const Sensor& sensor, int64_t index) const;
    void updateLineLocked(Camera& camera);
    void startRunLocked(Sensor& sensor, Key session, const argus_records::Request& request,
                        const ArgusSensorModeConfig& mode, int64_t nowNs);
    void stopRunLocked(Sensor& sensor);
    void stopSessionLocked(Key session, int64_t nowNs);
    void destroySessionLocked(Key session, int64_t nowNs);
    void destroyStreamLocked(Key stream);
    void destroyConsumerLocked(Key consumer);
    void endProviderLocked(int64_t nowNs);
    const ArgusSensorModeConfig* modeForLocked(const Sensor& sensor,
                                               const ArgusRequestSettings& settings) const;
    argus_records::Request* requestLocked(platform::argus_types::Request* request) const;
    std::shared_ptr<const FrameGenerator> generatorLocked(platform::argus_types::Size2D size);

    static uintptr_t nextInstance();

    mutable std::mutex mutex_;
    const uintptr_t instance_ = nextInstance();
    std::vector<std::unique_ptr<Sensor>> sensors_;
    std::vector<std::unique_ptr<Camera>> cameras_;
    argus_records::HandleTable<Session> sessions_{instance_, 1};
    argus_records::HandleTable<argus_records::StreamSettings> settings_{instance_, 2};
    argus_records::HandleTable<argus_records::Stream> streams_{instance_, 3};
    argus_records::HandleTable<argus_records::Request> requests_{instance_, 4};
    argus_records::HandleTable<argus_records::Consumer> consumers_{instance_, 5};
    argus_records::HandleTable<argus_records::Frame> frames_{instance_, 6};
    std::map<int, argus_records::NvBuffer> buffers_;
    int nextBuffer_ = 1000;
    std::map<std::pair<uint32_t, uint32_t>, std::shared_ptr<const FrameGenerator>> generators_;
    bool providerUnavailable_ = false;
    int providerFailures_ = 0;
    bool providerCreated_ = false;
    int createCalls_ = 0;
    int destroyCalls_ = 0;
    int sessionsCreated_ = 0;
};

}  // namespace sim
