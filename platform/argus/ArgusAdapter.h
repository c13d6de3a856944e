#pragma once

// platform::Argus over NVIDIA's libargus, EGLStream and NvBufSurface: the
// camera service of a Jetson. Built only with KOV_WITH_ARGUS=ON where the
// Jetson Multimedia API headers are installed. Every operation is one
// interface query and one call of NVIDIA's published API; handles are the
// Argus objects themselves, cast to the seam's opaque types.
//
// ArgusAdapter.cpp holds the Argus and EGLStream calls; ArgusNvBuffer.cpp the
// native-buffer ones (EGLStream::NV and NvBufSurface), which need the
// multimedia API's buffer headers.

#include "platform/Argus.h"

namespace platform {

class ArgusAdapter final : public Argus {
public:
    ~ArgusAdapter() override;

    bool createProvider() override;
    void destroyProvider() override;
    argus_types::Status getCameraDevices(std::vector<argus_types::CameraDevice*>& devices) override;
    argus_types::CaptureSession* createCaptureSession(argus_types::CameraDevice* device,
                                                      argus_types::Status* status) override;
    argus_types::CaptureSession* createCaptureSession(const std::vector<argus_types::CameraDevice*>& devices,
                                                      argus_types::Status* status) override;
    void destroyCaptureSession(argus_types::CaptureSession* session) override;

    bool getModelName(argus_types::CameraDevice* device, std::string& name) override;
    bool getModuleString(argus_types::CameraDevice* device, std::string& module) override;
    bool getSyncSensorModuleId(argus_types::CameraDevice* device, char* buffer, uint32_t size) override;
    argus_types::Status getAllSensorModes(argus_types::CameraDevice* device,
                                          std::vector<argus_types::SensorMode*>& modes) override;
    bool getMinAeRegionSize(argus_types::CameraDevice* device, argus_types::Size2D& size) override;

    bool getResolution(argus_types::SensorMode* mode, argus_types::Size2D& size) override;
    bool getExposureTimeRange(argus_types::SensorMode* mode, argus_types::Range<uint64_t>& range) override;
    bool getAnalogGainRange(argus_types::SensorMode* mode, argus_types::Range<float>& range) override;
    bool getFrameDurationRange(argus_types::SensorMode* mode, argus_types::Range<uint64_t>& range) override;

    argus_types::OutputStreamSettings* createEglOutputStreamSettings(
        argus_types::CaptureSession* session) override;
    argus_types::OutputStream* createOutputStream(argus_types::CaptureSession* session,
                                                  argus_types::OutputStreamSettings* settings,
                                                  argus_types::Status* status) override;
    argus_types::Request* createPreviewRequest(argus_types::CaptureSession* session,
                                               argus_types::Status* status) override;
    argus_types::Status repeat(argus_types::CaptureSession* session, argus_types::Request* request) override;
    void stopRepeat(argus_types::CaptureSession* session) override;
    argus_types::Status waitForIdle(argus_types::CaptureSession* session, uint64_t timeoutNs) override;
    void destroyOutputStreamSettings(argus_types::OutputStreamSettings* settings) override;
    void destroyOutputStream(argus_types::OutputStream* stream) override;
    void destroyRequest(argus_types::Request* request) override;

    argus_types::Status setCameraDevice(argus_types::OutputStreamSettings* settings,
                                        argus_types::CameraDevice* device) override;
    argus_types::Status setPixelFormatYCbCr420(argus_types::OutputStreamSettings* settings) override;
    argus_types::Status setResolution(argus_types::OutputStreamSettings* settings,
                                      argus_types::Size2D size) override;
    argus_types::Status setMetadataEnable(argus_types::OutputStreamSettings* settings, bool enable) override;
    argus_types::Status setMode(argus_types::OutputStreamSettings* settings,
                                argus_types::EglStreamMode mode) override;

    argus_types::Status enableOutputStream(argus_types::Request* request,
                                           argus_types::OutputStream* stream) override;
    argus_types::Status setFrameDurationRange(argus_types::Request* request,
                                              argus_types::Range<uint64_t> range) override;
    argus_types::Status setSensorMode(argus_types::Request* request, argus_types::SensorMode* mode) override;
    argus_types::Status setExposureTimeRange(argus_types::Request* request,
                                             argus_types::Range<uint64_t> range) override;
    argus_types::Status setGainRange(argus_types::Request* request, argus_types::Range<float> range) override;
    argus_types::Status setSourceClipRect(argus_types::Request* request, argus_types::OutputStream* stream,
                                          argus_types::Rectangle clip) override;

    argus_types::Status setIspDigitalGainRange(argus_types::Request* request,
                                               argus_types::Range<float> range) override;
    bool getIspDigitalGainRange(argus_types::Request* request, argus_types::Range<float>& range) override;
    argus_types::Status setAeLock(argus_types::Request* request, bool lock) override;
    argus_types::Status setAeRegions(argus_types::Request* request,
                                     const std::vector<argus_types::AcRegion>& regions) override;
    bool getAeRegions(argus_types::Request* request, std::vector<argus_types::AcRegion>& regions) override;
    argus_types::Status setAeAntibandingMode(argus_types::Request* request,
                                             argus_types::AeAntibandingMode mode) override;
    argus_types::Status setAwbMode(argus_types::Request* request, argus_types::AwbMode mode) override;
    argus_types::Status setWbGains(argus_types::Request* request, argus_types::BayerTuple gains) override;
    argus_types::Status setExposureCompensation(argus_types::Request* request, float ev) override;
    argus_types::Status setColorSaturation(argus_types::Request* request, float saturation,
                                           bool enable) override;
    uint32_t getToneMapCurveSize(argus_types::Request* request) override;
    argus_types::Status setToneMapCurve(argus_types::Request* request, uint32_t channel,
                                        const std::vector<float>& curve, bool enable) override;
    argus_types::Status setEdgeEnhance(argus_types::Request* request, argus_types::EdgeEnhanceMode mode,
                                       float strength) override;
    argus_types::Status setDenoise(argus_types::Request* request, argus_types::DenoiseMode mode,
                                   float strength) override;

    argus_types::Status waitUntilConnected(argus_types::OutputStream* stream, uint64_t timeoutNs) override;
    void disconnect(argus_types::OutputStream* stream) override;
    argus_types::FrameConsumer* createFrameConsumer(argus_types::OutputStream* stream,
                                                    argus_types::Status* status) override;
    void destroyFrameConsumer(argus_types::FrameConsumer* consumer) override;
    argus_types::Frame* acquireFrame(argus_types::FrameConsumer* consumer, uint64_t timeoutNs,
                                     argus_types::Status* status) override;
    void releaseFrame(argus_types::Frame* frame) override;
    bool getSensorTimestamp(argus_types::Frame* frame, uint64_t& ns) override;
    bool getSensorExposureTime(argus_types::Frame* frame, uint64_t& ns) override;
    bool getSensorAnalogGain(argus_types::Frame* frame, float& gain) override;
    bool getIspDigitalGain(argus_types::Frame* frame, float& gain) override;

    // ArgusNvBuffer.cpp
    int createNvBuffer(argus_types::Frame* frame, argus_types::Size2D size, int colorFormat, int layout,
                       int rotation, argus_types::Status* status) override;
    argus_types::Status copyToNvBuffer(argus_types::Frame* frame, int fd) override;
    int surfaceMapParams(int fd, uint32_t& width, uint32_t& height, uint32_t& pitch) override;
    int surfaceToRaw(int fd, uint32_t plane, uint32_t width, uint32_t height, unsigned char* out) override;
    int destroyNvBuffer(int fd) override;

private:
    void* provider_ = nullptr;  // Argus::CameraProvider*
};

}  // namespace platform
