#pragma once

// The NVIDIA Argus, EGLStream and NvBufSurface operations that the GMSL capture
// uses, flattened into one interface. Every operation stands for one call (or
// one interface query followed by one call) of NVIDIA's published API; the
// names say which. An adapter to the real libraries is built only where the
// Jetson Multimedia API headers exist (CMake option KOV_WITH_ARGUS); elsewhere
// the default backend answers as a machine without a camera service: no
// provider can be created.
//
// Objects are opaque handles owned by the implementation. A handle stays valid
// until the matching destroy* call (or, for devices and sensor modes, until the
// provider is destroyed). Operations that query an Argus interface
// (IID_CAMERA_PROPERTIES, IID_SYNC_SENSOR_CALIBRATION_DATA, ...) return false
// or a null handle when the object does not offer it.

#include <cstdint>
#include <string>
#include <vector>

namespace platform {
namespace argus_types {

// Argus::Status values.
enum Status : int {
    STATUS_OK = 0,
    STATUS_INVALID_PARAMS = 1,
    STATUS_INVALID_SETTINGS = 2,
    STATUS_UNAVAILABLE = 3,
    STATUS_OUT_OF_MEMORY = 4,
    STATUS_UNIMPLEMENTED = 5,
    STATUS_TIMEOUT = 6,
    STATUS_CANCELLED = 7,
    STATUS_DISCONNECTED = 8,
    STATUS_END_OF_STREAM = 9,
};

enum class AwbMode {
    Off,
    Auto,
    Incandescent,
    Fluorescent,
    WarmFluorescent,
    Daylight,
    CloudyDaylight,
    Twilight,
    Shade,
    Manual
};
enum class AeAntibandingMode { Off, Auto, Hz50, Hz60 };
enum class EdgeEnhanceMode { Off, Fast, HighQuality };
enum class DenoiseMode { Off, Fast, HighQuality };
enum class EglStreamMode { Mailbox, Fifo };

struct Size2D {
    uint32_t width = 0;
    uint32_t height = 0;
};
template <typename T>
struct Range {
    T min{};
    T max{};
};
struct Rectangle {
    float left = 0, top = 0, right = 0, bottom = 0;  // normalised, as Argus' Rectangle<float>
};
struct AcRegion {
    uint32_t left = 0, top = 0, right = 0, bottom = 0;
    float weight = 1.0f;
};
struct BayerTuple {
    float r = 1, gEven = 1, gOdd = 1, b = 1;
};

// Opaque handles.
struct CameraDevice;
struct SensorMode;
struct CaptureSession;
struct OutputStreamSettings;
struct OutputStream;
struct Request;
struct FrameConsumer;
struct Frame;

}  // namespace argus_types

class Argus {
public:
    virtual ~Argus() = default;

    // Argus::CameraProvider::create / destroy; IID_CAMERA_PROVIDER.
    // createProvider returns false when no provider interface is available.
    virtual bool createProvider() = 0;
    virtual void destroyProvider() = 0;
    virtual argus_types::Status getCameraDevices(std::vector<argus_types::CameraDevice*>& devices) = 0;
    virtual argus_types::CaptureSession* createCaptureSession(argus_types::CameraDevice* device,
                                                              argus_types::Status* status) = 0;
    virtual argus_types::CaptureSession* createCaptureSession(
        const std::vector<argus_types::CameraDevice*>& devices, argus_types::Status* status) = 0;
    virtual void destroyCaptureSession(argus_types::CaptureSession* session) = 0;

    // IID_CAMERA_PROPERTIES and Ext::IID_SYNC_SENSOR_CALIBRATION_DATA.
    virtual bool getModelName(argus_types::CameraDevice* device, std::string& name) = 0;
    virtual bool getModuleString(argus_types::CameraDevice* device, std::string& module) = 0;
    // The sensor-module id, read into a 32-byte buffer (NUL-terminated text).
    virtual bool getSyncSensorModuleId(argus_types::CameraDevice* device, char* buffer, uint32_t size) = 0;
    virtual argus_types::Status getAllSensorModes(argus_types::CameraDevice* device,
                                                  std::vector<argus_types::SensorMode*>& modes) = 0;
    virtual bool getMinAeRegionSize(argus_types::CameraDevice* device, argus_types::Size2D& size) = 0;

    // IID_SENSOR_MODE.
    virtual bool getResolution(argus_types::SensorMode* mode, argus_types::Size2D& size) = 0;
    virtual bool getExposureTimeRange(argus_types::SensorMode* mode, argus_types::Range<uint64_t>& range) = 0;
    virtual bool getAnalogGainRange(argus_types::SensorMode* mode, argus_types::Range<float>& range) = 0;
    virtual bool getFrameDurationRange(argus_types::SensorMode* mode,
                                       argus_types::Range<uint64_t>& range) = 0;

    // IID_CAPTURE_SESSION.
    virtual argus_types::OutputStreamSettings* createEglOutputStreamSettings(
        argus_types::CaptureSession* session) = 0;
    virtual argus_types::OutputStream* createOutputStream(argus_types::CaptureSession* session,
                                                          argus_types::OutputStreamSettings* settings,
                                                          argus_types::Status* status) = 0;
    virtual argus_types::Request* createPreviewRequest(argus_types::CaptureSession* session,
                                                       argus_types::Status* status) = 0;
    virtual argus_types::Status repeat(argus_types::CaptureSession* session,
                                       argus_types::Request* request) = 0;
    virtual void stopRepeat(argus_types::CaptureSession* session) = 0;
    virtual argus_types::Status waitForIdle(argus_types::CaptureSession* session, uint64_t timeoutNs) = 0;
    virtual void destroyOutputStreamSettings(argus_types::OutputStreamSettings* settings) = 0;
    virtual void destroyOutputStream(argus_types::OutputStream* stream) = 0;
    virtual void destroyRequest(argus_types::Request* request) = 0;

    // IID_OUTPUT_STREAM_SETTINGS and IID_EGL_OUTPUT_STREAM_SETTINGS.
    virtual argus_types::Status setCameraDevice(argus_types::OutputStreamSettings* settings,
                                                argus_types::CameraDevice* device) = 0;
    virtual argus_types::Status setPixelFormatYCbCr420(argus_types::OutputStreamSettings* settings) = 0;
    virtual argus_types::Status setResolution(argus_types::OutputStreamSettings* settings,
                                              argus_types::Size2D size) = 0;
    virtual argus_types::Status setMetadataEnable(argus_types::OutputStreamSettings* settings,
                                                  bool enable) = 0;
    virtual argus_types::Status setMode(argus_types::OutputStreamSettings* settings,
                                        argus_types::EglStreamMode mode) = 0;

    // IID_REQUEST, IID_SOURCE_SETTINGS, IID_STREAM_SETTINGS.
    virtual argus_types::Status enableOutputStream(argus_types::Request* request,
                                                   argus_types::OutputStream* stream) = 0;
    virtual argus_types::Status setFrameDurationRange(argus_types::Request* request,
                                                      argus_types::Range<uint64_t> range) = 0;
    virtual argus_types::Status setSensorMode(argus_types::Request* request,
                                              argus_types::SensorMode* mode) = 0;
    virtual argus_types::Status setExposureTimeRange(argus_types::Request* request,
                                                     argus_types::Range<uint64_t> range) = 0;
    virtual argus_types::Status setGainRange(argus_types::Request* request,
                                             argus_types::Range<float> range) = 0;
    virtual argus_types::Status setSourceClipRect(argus_types::Request* request,
                                                  argus_types::OutputStream* stream,
                                                  argus_types::Rectangle clip) = 0;

    // IID_AUTO_CONTROL_SETTINGS of a request.
    virtual argus_types::Status setIspDigitalGainRange(argus_types::Request* request,
                                                       argus_types::Range<float> range) = 0;
    virtual bool getIspDigitalGainRange(argus_types::Request* request, argus_types::Range<float>& range) = 0;
    virtual argus_types::Status setAeLock(argus_types::Request* request, bool lock) = 0;
    virtual argus_types::Status setAeRegions(argus_types::Request* request,
                                             const std::vector<argus_types::AcRegion>& regions) = 0;
    virtual bool getAeRegions(argus_types::Request* request, std::vector<argus_types::AcRegion>& regions) = 0;
    virtual argus_types::Status setAeAntibandingMode(argus_types::Request* request,
                                                     argus_types::AeAntibandingMode mode) = 0;
    virtual argus_types::Status setAwbMode(argus_types::Request* request, argus_types::AwbMode mode) = 0;
    virtual argus_types::Status setWbGains(argus_types::Request* request, argus_types::BayerTuple gains) = 0;
    virtual argus_types::Status setExposureCompensation(argus_types::Request* request, float ev) = 0;
    virtual argus_types::Status setColorSaturation(argus_types::Request* request, float saturation,
                                                   bool enable) = 0;
    virtual uint32_t getToneMapCurveSize(argus_types::Request* request) = 0;
    virtual argus_types::Status setToneMapCurve(argus_types::Request* request, uint32_t channel,
                                                const std::vector<float>& curve, bool enable) = 0;
    // IID_EDGE_ENHANCE_SETTINGS, IID_DENOISE_SETTINGS.
    virtual argus_types::Status setEdgeEnhance(argus_types::Request* request,
                                               argus_types::EdgeEnhanceMode mode, float strength) = 0;
    virtual argus_types::Status setDenoise(argus_types::Request* request, argus_types::DenoiseMode mode,
                                           float strength) = 0;

    // IID_EGL_OUTPUT_STREAM.
    virtual argus_types::Status waitUntilConnected(argus_types::OutputStream* stream, uint64_t timeoutNs) = 0;
    virtual void disconnect(argus_types::OutputStream* stream) = 0;

    // EGLStream::FrameConsumer, IID_FRAME_CONSUMER, IID_FRAME, IArgusCaptureMetadata / ICaptureMetadata.
    virtual argus_types::FrameConsumer* createFrameConsumer(argus_types::OutputStream* stream,
                                                            argus_types::Status* status) = 0;
    virtual void destroyFrameConsumer(argus_types::FrameConsumer* consumer) = 0;
    // Returns null when no frame arrived; status tells why.
    virtual argus_types::Frame* acquireFrame(argus_types::FrameConsumer* consumer, uint64_t timeoutNs,
                                             argus_types::Status* status) = 0;
    virtual void releaseFrame(argus_types::Frame* frame) = 0;
    virtual bool getSensorTimestamp(argus_types::Frame* frame, uint64_t& ns) = 0;
    virtual bool getSensorExposureTime(argus_types::Frame* frame, uint64_t& ns) = 0;
    virtual bool getSensorAnalogGain(argus_types::Frame* frame, float& gain) = 0;
    virtual bool getIspDigitalGain(argus_types::Frame* frame, float& gain) = 0;

    // EGLStream::NV::IID_IMAGE_NATIVE_BUFFER: createNvBuffer returns a buffer
    // descriptor or -1; copyToNvBuffer returns an Argus status.
    virtual int createNvBuffer(argus_types::Frame* frame, argus_types::Size2D size, int colorFormat,
                               int layout, int rotation, argus_types::Status* status) = 0;
    virtual argus_types::Status copyToNvBuffer(argus_types::Frame* frame, int fd) = 0;

    // NvBufSurfaceFromFd + NvBufSurfaceGetMapParams (plane 0) and NvBufSurface2Raw.
    // Both return 0 on success, as the NvBufSurface functions do.
    virtual int surfaceMapParams(int fd, uint32_t& width, uint32_t& height, uint32_t& pitch) = 0;
    virtual int surfaceToRaw(int fd, uint32_t plane, uint32_t width, uint32_t height, unsigned char* out) = 0;
    // NvBufSurfaceDestroy of a buffer made by createNvBuffer.
    virtual int destroyNvBuffer(int fd) = 0;
};

// The Argus of the process (the installed backend's, see Platform.h).
Argus& argus();

}  // namespace platform
