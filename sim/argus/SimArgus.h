#pragma once

// The simulated camera service: a platform::Argus that lists the sensors of
// the scenario's GMSL cameras. Discovery works in full (provider, devices,
// trial capture sessions, properties, sensor modes); the capture operations
// answer STATUS_UNIMPLEMENTED, false or null until a frame model is added.
//
// Handles handed out are this object's own records cast to the opaque Argus
// types; they must only be given back to the same SimArgus.

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "platform/Argus.h"
#include "sim/Machine.h"

namespace sim {

struct ArgusSensorModeConfig {
    uint32_t width = 0;
    uint32_t height = 0;
    std::vector<double> fps;  // frame rates the mode offers, ascending
};

struct ArgusSensorConfig {
    std::string modelName;     // ICameraProperties model name
    std::string moduleString;  // ICameraProperties module string
    std::string moduleId;      // ISyncSensorCalibrationData module id (at most 31 characters)
    std::vector<ArgusSensorModeConfig> modes;
    bool inUse = false;  // held by another process: capture sessions are refused
    int bus = -1;        // the I2C bus of its camera (information only)
};

class SimArgus : public platform::Argus {
public:
    // The machine's SimArgus, made and installed (Machine::setArgus) on first use.
    static std::shared_ptr<SimArgus> of(Machine& machine);

    // ---- scenario side
    // Adds a sensor at the end of the device list; returns its index.
    size_t addSensor(ArgusSensorConfig sensor);
    void setProviderUnavailable(bool unavailable);
    void setInUse(size_t sensor, bool inUse);
    std::vector<ArgusSensorConfig> sensors() const;

    // ---- observation (tests)
    int createProviderCalls() const;
    int destroyProviderCalls() const;
    bool providerCreated() const;
    int sessionsCreated() const;  // successful createCaptureSession calls
    int liveSessions() const;
    // The sensor index of a device handle, or -1.
    int indexOf(platform::argus_types::CameraDevice* device) const;

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

    // ---- capture: not simulated yet
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

protected:
    struct Mode {
        ArgusSensorModeConfig config;
    };
    struct Sensor {
        ArgusSensorConfig config;
        std::vector<std::unique_ptr<Mode>> modes;
        int sessions = 0;  // live sessions of this process on it
    };
    struct Session {
        std::vector<Sensor*> sensors;
    };

    // Under mutex_: the sensor behind a handle while the provider exists, or null.
    Sensor* sensorLocked(platform::argus_types::CameraDevice* device) const;
    Mode* modeLocked(platform::argus_types::SensorMode* mode) const;
    Session* sessionLocked(platform::argus_types::CaptureSession* session) const;

    mutable std::mutex mutex_;
    std::vector<std::unique_ptr<Sensor>> sensors_;
    std::set<Session*> sessions_;  // owned
    bool providerUnavailable_ = false;
    bool providerCreated_ = false;
    int createCalls_ = 0;
    int destroyCalls_ = 0;
    int sessionsCreated_ = 0;

public:
    ~SimArgus() override;
};

}  // namespace sim
