// The Argus and EGLStream half of the adapter: provider, devices, sessions,
// streams, requests and their settings, frames and their metadata. Each
// operation queries one interface and makes one call.

#include "platform/argus/ArgusAdapter.h"

#include <Argus/Argus.h>
#include <Argus/Ext/SyncSensorCalibrationData.h>
#include <EGLStream/EGLStream.h>

#include <cstring>

namespace platform {

namespace at = argus_types;

namespace {

template <typename T>
T* as(void* handle) {
    return reinterpret_cast<T*>(handle);
}

at::Status statusOf(::Argus::Status status) {
    return static_cast<at::Status>(static_cast<int>(status));
}

void setStatus(at::Status* out, ::Argus::Status status) {
    if (out != nullptr)
        *out = statusOf(status);
}

// The interface of an object, or null (the object may be null too).
template <typename I, typename O>
I* iface(O* object) {
    return object != nullptr ? ::Argus::interface_cast<I>(object) : nullptr;
}

::Argus::ISourceSettings* sourceSettings(at::Request* request) {
    ::Argus::IRequest* r = iface<::Argus::IRequest>(as<::Argus::Request>(request));
    return r != nullptr ? ::Argus::interface_cast<::Argus::ISourceSettings>(r->getSourceSettings()) : nullptr;
}

::Argus::IAutoControlSettings* autoControl(at::Request* request) {
    ::Argus::IRequest* r = iface<::Argus::IRequest>(as<::Argus::Request>(request));
    return r != nullptr ? ::Argus::interface_cast<::Argus::IAutoControlSettings>(r->getAutoControlSettings())
                        : nullptr;
}

const ::Argus::ICaptureMetadata* metadataOf(at::Frame* frame) {
    auto* m = iface<EGLStream::IArgusCaptureMetadata>(as<EGLStream::Frame>(frame));
    return m != nullptr ? ::Argus::interface_cast<const ::Argus::ICaptureMetadata>(m->getMetadata())
                        : nullptr;
}

constexpr at::Status kNoInterface = at::STATUS_UNAVAILABLE;

}  // namespace

ArgusAdapter::~ArgusAdapter() {
    destroyProvider();
}

// ---------------------------------------------------------------------------
// Provider and devices

bool ArgusAdapter::createProvider() {
    destroyProvider();
    ::Argus::CameraProvider* provider = ::Argus::CameraProvider::create();
    if (provider == nullptr)
        return false;
    if (::Argus::interface_cast<::Argus::ICameraProvider>(provider) == nullptr) {
        provider->destroy();
        return false;
    }
    provider_ = provider;
    return true;
}

void ArgusAdapter::destroyProvider() {
    if (provider_ != nullptr)
        as<::Argus::CameraProvider>(provider_)->destroy();
    provider_ = nullptr;
}

at::Status ArgusAdapter::getCameraDevices(std::vector<at::CameraDevice*>& devices) {
    devices.clear();
    auto* p = iface<::Argus::ICameraProvider>(as<::Argus::CameraProvider>(provider_));
    if (p == nullptr)
        return kNoInterface;
    std::vector<::Argus::CameraDevice*> listed;
    const ::Argus::Status st = p->getCameraDevices(&listed);
    for (::Argus::CameraDevice* d : listed)
        devices.push_back(reinterpret_cast<at::CameraDevice*>(d));
    return statusOf(st);
}

at::CaptureSession* ArgusAdapter::createCaptureSession(at::CameraDevice* device, at::Status* status) {
    auto* p = iface<::Argus::ICameraProvider>(as<::Argus::CameraProvider>(provider_));
    if (p == nullptr) {
        setStatus(status, ::Argus::STATUS_UNAVAILABLE);
        return nullptr;
    }
    ::Argus::Status st = ::Argus::STATUS_OK;
    ::Argus::CaptureSession* s = p->createCaptureSession(as<::Argus::CameraDevice>(device), &st);
    setStatus(status, st);
    return reinterpret_cast<at::CaptureSession*>(s);
}

at::CaptureSession* ArgusAdapter::createCaptureSession(const std::vector<at::CameraDevice*>& devices,
                                                       at::Status* status) {
    auto* p = iface<::Argus::ICameraProvider>(as<::Argus::CameraProvider>(provider_));
    if (p == nullptr) {
        setStatus(status, ::Argus::STATUS_UNAVAILABLE);
        return nullptr;
    }
    std::vector<::Argus::CameraDevice*> list;
    for (at::CameraDevice* d : devices)
        list.push_back(as<::Argus::CameraDevice>(d));
    ::Argus::Status st = ::Argus::STATUS_OK;
    ::Argus::CaptureSession* s = p->createCaptureSession(list, &st);
    setStatus(status, st);
    return reinterpret_cast<at::CaptureSession*>(s);
}

void ArgusAdapter::destroyCaptureSession(at::CaptureSession* session) {
    if (session != nullptr)
        as<::Argus::CaptureSession>(session)->destroy();
}

bool ArgusAdapter::getModelName(at::CameraDevice* device, std::string& name) {
    auto* p = iface<::Argus::ICameraProperties>(as<::Argus::CameraDevice>(device));
    if (p == nullptr)
        return false;
    name = p->getModelName();
    return true;
}

bool ArgusAdapter::getModuleString(at::CameraDevice* device, std::string& module) {
    auto* p = iface<::Argus::ICameraProperties>(as<::Argus::CameraDevice>(device));
    if (p == nullptr)
        return false;
    module = p->getModuleString();
    return true;
}

bool ArgusAdapter::getSyncSensorModuleId(at::CameraDevice* device, char* buffer, uint32_t size) {
    auto* p = iface<::Argus::Ext::ISyncSensorCalibrationData>(as<::Argus::CameraDevice>(device));
    if (p == nullptr || buffer == nullptr || size == 0)
        return false;
    std::memset(buffer, 0, size);
    return p->getSyncSensorModuleId(buffer, size) == ::Argus::STATUS_OK;
}

at::Status ArgusAdapter::getAllSensorModes(at::CameraDevice* device, std::vector<at::SensorMode*>& modes) {
    modes.clear();
    auto* p = iface<::Argus::ICameraProperties>(as<::Argus::CameraDevice>(device));
    if (p == nullptr)
        return kNoInterface;
    std::vector<::Argus::SensorMode*> listed;
    const ::Argus::Status st = p->getAllSensorModes(&listed);
    for (::Argus::SensorMode* m : listed)
        modes.push_back(reinterpret_cast<at::SensorMode*>(m));
    return statusOf(st);
}

bool ArgusAdapter::getMinAeRegionSize(at::CameraDevice* device, at::Size2D& size) {
    auto* p = iface<::Argus::ICameraProperties>(as<::Argus::CameraDevice>(device));
    if (p == nullptr)
        return false;
    const ::Argus::Size2D<uint32_t> s = p->getMinAeRegionSize();
    size = {s.width(), s.height()};
    return true;
}

// ---------------------------------------------------------------------------
// Sensor modes

bool ArgusAdapter::getResolution(at::SensorMode* mode, at::Size2D& size) {
    auto* m = iface<::Argus::ISensorMode>(as<::Argus::SensorMode>(mode));
    if (m == nullptr)
        return false;
    const ::Argus::Size2D<uint32_t> s = m->getResolution();
    size = {s.width(), s.height()};
    return true;
}

bool ArgusAdapter::getExposureTimeRange(at::SensorMode* mode, at::Range<uint64_t>& range) {
    auto* m = iface<::Argus::ISensorMode>(as<::Argus::SensorMode>(mode));
    if (m == nullptr)
        return false;
    const ::Argus::Range<uint64_t> r = m->getExposureTimeRange();
    range = {r.min(), r.max()};
    return true;
}

bool ArgusAdapter::getAnalogGainRange(at::SensorMode* mode, at::Range<float>& range) {
    auto* m = iface<::Argus::ISensorMode>(as<::Argus::SensorMode>(mode));
    if (m == nullptr)
        return false;
    const ::Argus::Range<float> r = m->getAnalogGainRange();
    range = {r.min(), r.max()};
    return true;
}

bool ArgusAdapter::getFrameDurationRange(at::SensorMode* mode, at::Range<uint64_t>& range) {
    auto* m = iface<::Argus::ISensorMode>(as<::Argus::SensorMode>(mode));
    if (m == nullptr)
        return false;
    const ::Argus::Range<uint64_t> r = m->getFrameDurationRange();
    range = {r.min(), r.max()};
    return true;
}

// ---------------------------------------------------------------------------
// Sessions, streams, requests

at::OutputStreamSettings* ArgusAdapter::createEglOutputStreamSettings(at::CaptureSession* session) {
    auto* s = iface<::Argus::ICaptureSession>(as<::Argus::CaptureSession>(session));
    if (s == nullptr)
        return nullptr;
    return reinterpret_cast<at::OutputStreamSettings*>(
        s->createOutputStreamSettings(::Argus::STREAM_TYPE_EGL));
}

at::OutputStream* ArgusAdapter::createOutputStream(at::CaptureSession* session,
                                                   at::OutputStreamSettings* settings, at::Status* status) {
    auto* s = iface<::Argus::ICaptureSession>(as<::Argus::CaptureSession>(session));
    if (s == nullptr) {
        setStatus(status, ::Argus::STATUS_UNAVAILABLE);
        return nullptr;
    }
    ::Argus::Status st = ::Argus::STATUS_OK;
    ::Argus::OutputStream* stream = s->createOutputStream(as<::Argus::OutputStreamSettings>(settings), &st);
    setStatus(status, st);
    return reinterpret_cast<at::OutputStream*>(stream);
}

at::Request* ArgusAdapter::createPreviewRequest(at::CaptureSession* session, at::Status* status) {
    auto* s = iface<::Argus::ICaptureSession>(as<::Argus::CaptureSession>(session));
    if (s == nullptr) {
        setStatus(status, ::Argus::STATUS_UNAVAILABLE);
        return nullptr;
    }
    ::Argus::Status st = ::Argus::STATUS_OK;
    ::Argus::Request* request = s->createRequest(::Argus::CAPTURE_INTENT_PREVIEW, &st);
    setStatus(status, st);
    return reinterpret_cast<at::Request*>(request);
}

at::Status ArgusAdapter::repeat(at::CaptureSession* session, at::Request* request) {
    auto* s = iface<::Argus::ICaptureSession>(as<::Argus::CaptureSession>(session));
    return s != nullptr ? statusOf(s->repeat(as<::Argus::Request>(request))) : kNoInterface;
}

void ArgusAdapter::stopRepeat(at::CaptureSession* session) {
    if (auto* s = iface<::Argus::ICaptureSession>(as<::Argus::CaptureSession>(session)))
        s->stopRepeat();
}

at::Status ArgusAdapter::waitForIdle(at::CaptureSession* session, uint64_t timeoutNs) {
    auto* s = iface<::Argus::ICaptureSession>(as<::Argus::CaptureSession>(session));
    return s != nullptr ? statusOf(s->waitForIdle(timeoutNs)) : kNoInterface;
}

void ArgusAdapter::destroyOutputStreamSettings(at::OutputStreamSettings* settings) {
    if (settings != nullptr)
        as<::Argus::OutputStreamSettings>(settings)->destroy();
}

void ArgusAdapter::destroyOutputStream(at::OutputStream* stream) {
    if (stream != nullptr)
        as<::Argus::OutputStream>(stream)->destroy();
}

void ArgusAdapter::destroyRequest(at::Request* request) {
    if (request != nullptr)
        as<::Argus::Request>(request)->destroy();
}

at::Status ArgusAdapter::setCameraDevice(at::OutputStreamSettings* settings, at::CameraDevice* device) {
    auto* s = iface<::Argus::IOutputStreamSettings>(as<::Argus::OutputStreamSettings>(settings));
    return s != nullptr ? statusOf(s->setCameraDevice(as<::Argus::CameraDevice>(device))) : kNoInterface;
}

at::Status ArgusAdapter::setPixelFormatYCbCr420(at::OutputStreamSettings* settings) {
    auto* s = iface<::Argus::IEGLOutputStreamSettings>(as<::Argus::OutputStreamSettings>(settings));
    return s != nullptr ? statusOf(s->setPixelFormat(::Argus::PIXEL_FMT_YCbCr_420_888)) : kNoInterface;
}

at::Status ArgusAdapter::setResolution(at::OutputStreamSettings* settings, at::Size2D size) {
    auto* s = iface<::Argus::IEGLOutputStreamSettings>(as<::Argus::OutputStreamSettings>(settings));
    return s != nullptr ? statusOf(s->setResolution(::Argus::Size2D<uint32_t>(size.width, size.height)))
                        : kNoInterface;
}

at::Status ArgusAdapter::setMetadataEnable(at::OutputStreamSettings* settings, bool enable) {
    auto* s = iface<::Argus::IEGLOutputStreamSettings>(as<::Argus::OutputStreamSettings>(settings));
    return s != nullptr ? statusOf(s->setMetadataEnable(enable)) : kNoInterface;
}

at::Status ArgusAdapter::setMode(at::OutputStreamSettings* settings, at::EglStreamMode mode) {
    auto* s = iface<::Argus::IEGLOutputStreamSettings>(as<::Argus::OutputStreamSettings>(settings));
    if (s == nullptr)
        return kNoInterface;
    return statusOf(s->setMode(mode == at::EglStreamMode::Mailbox ? ::Argus::EGL_STREAM_MODE_MAILBOX
                                                                  : ::Argus::EGL_STREAM_MODE_FIFO));
}

at::Status ArgusAdapter::enableOutputStream(at::Request* request, at::OutputStream* stream) {
    auto* r = iface<::Argus::IRequest>(as<::Argus::Request>(request));
    return r != nullptr ? statusOf(r->enableOutputStream(as<::Argus::OutputStream>(stream))) : kNoInterface;
}

at::Status ArgusAdapter::setFrameDurationRange(at::Request* request, at::Range<uint64_t> range) {
    ::Argus::ISourceSettings* s = sourceSettings(request);
    return s != nullptr ? statusOf(s->setFrameDurationRange(::Argus::Range<uint64_t>(range.min, range.max)))
                        : kNoInterface;
}

at::Status ArgusAdapter::setSensorMode(at::Request* request, at::SensorMode* mode) {
    ::Argus::ISourceSettings* s = sourceSettings(request);
    return s != nullptr ? statusOf(s->setSensorMode(as<::Argus::SensorMode>(mode))) : kNoInterface;
}

at::Status ArgusAdapter::setExposureTimeRange(at::Request* request, at::Range<uint64_t> range) {
    ::Argus::ISourceSettings* s = sourceSettings(request);
    return s != nullptr ? statusOf(s->setExposureTimeRange(::Argus::Range<uint64_t>(range.min, range.max)))
                        : kNoInterface;
}

at::Status ArgusAdapter::setGainRange(at::Request* request, at::Range<float> range) {
    ::Argus::ISourceSettings* s = sourceSettings(request);
    return s != nullptr ? statusOf(s->setGainRange(::Argus::Range<float>(range.min, range.max)))
                        : kNoInterface;
}

at::Status ArgusAdapter::setSourceClipRect(at::Request* request, at::OutputStream* stream,
                                           at::Rectangle clip) {
    auto* r = iface<::Argus::IRequest>(as<::Argus::Request>(request));
    if (r == nullptr)
        return kNoInterface;
    auto* s = ::Argus::interface_cast<::Argus::IStreamSettings>(
        r->getStreamSettings(as<::Argus::OutputStream>(stream)));
    if (s == nullptr)
        return kNoInterface;
    return statusOf(
        s->setSourceClipRect(::Argus::Rectangle<float>(clip.left, clip.top, clip.right, clip.bottom)));
}

// ---------------------------------------------------------------------------
// Automatic controls and the image processor

at::Status ArgusAdapter::setIspDigitalGainRange(at::Request* request, at::Range<float> range) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    return a != nullptr ? statusOf(a->setIspDigitalGainRange(::Argus::Range<float>(range.min, range.max)))
                        : kNoInterface;
}

bool ArgusAdapter::getIspDigitalGainRange(at::Request* request, at::Range<float>& range) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    if (a == nullptr)
        return false;
    const ::Argus::Range<float> r = a->getIspDigitalGainRange();
    range = {r.min(), r.max()};
    return true;
}

at::Status ArgusAdapter::setAeLock(at::Request* request, bool lock) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    return a != nullptr ? statusOf(a->setAeLock(lock)) : kNoInterface;
}

at::Status ArgusAdapter::setAeRegions(at::Request* request, const std::vector<at::AcRegion>& regions) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    if (a == nullptr)
        return kNoInterface;
    std::vector<::Argus::AcRegion> list;
    for (const at::AcRegion& r : regions)
        list.push_back(::Argus::AcRegion(r.left, r.top, r.right, r.bottom, r.weight));
    return statusOf(a->setAeRegions(list));
}

bool ArgusAdapter::getAeRegions(at::Request* request, std::vector<at::AcRegion>& regions) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    if (a == nullptr)
        return false;
    std::vector<::Argus::AcRegion> list;
    if (a->getAeRegions(&list) != ::Argus::STATUS_OK)
        return false;
    regions.clear();
    for (const ::Argus::AcRegion& r : list)
        regions.push_back({r.left(), r.top(), r.right(), r.bottom(), r.weight()});
    return true;
}

at::Status ArgusAdapter::setAeAntibandingMode(at::Request* request, at::AeAntibandingMode mode) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    if (a == nullptr)
        return kNoInterface;
    switch (mode) {
        case at::AeAntibandingMode::Auto:
            return statusOf(a->setAeAntibandingMode(::Argus::AE_ANTIBANDING_MODE_AUTO));
        case at::AeAntibandingMode::Hz50:
            return statusOf(a->setAeAntibandingMode(::Argus::AE_ANTIBANDING_MODE_50HZ));
        case at::AeAntibandingMode::Hz60:
            return statusOf(a->setAeAntibandingMode(::Argus::AE_ANTIBANDING_MODE_60HZ));
        default:
            return statusOf(a->setAeAntibandingMode(::Argus::AE_ANTIBANDING_MODE_OFF));
    }
}

at::Status ArgusAdapter::setAwbMode(at::Request* request, at::AwbMode mode) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    if (a == nullptr)
        return kNoInterface;
    switch (mode) {
        case at::AwbMode::Off:
            return statusOf(a->setAwbMode(::Argus::AWB_MODE_OFF));
        case at::AwbMode::Incandescent:
            return statusOf(a->setAwbMode(::Argus::AWB_MODE_INCANDESCENT));
        case at::AwbMode::Fluorescent:
            return statusOf(a->setAwbMode(::Argus::AWB_MODE_FLUORESCENT));
        case at::AwbMode::WarmFluorescent:
            return statusOf(a->setAwbMode(::Argus::AWB_MODE_WARM_FLUORESCENT));
        case at::AwbMode::Daylight:
            return statusOf(a->setAwbMode(::Argus::AWB_MODE_DAYLIGHT));
        case at::AwbMode::CloudyDaylight:
            return statusOf(a->setAwbMode(::Argus::AWB_MODE_CLOUDY_DAYLIGHT));
        case at::AwbMode::Twilight:
            return statusOf(a->setAwbMode(::Argus::AWB_MODE_TWILIGHT));
        case at::AwbMode::Shade:
            return statusOf(a->setAwbMode(::Argus::AWB_MODE_SHADE));
        case at::AwbMode::Manual:
            return statusOf(a->setAwbMode(::Argus::AWB_MODE_MANUAL));
        default:
            return statusOf(a->setAwbMode(::Argus::AWB_MODE_AUTO));
    }
}

at::Status ArgusAdapter::setWbGains(at::Request* request, at::BayerTuple gains) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    return a != nullptr ? statusOf(a->setWbGains(
                              ::Argus::BayerTuple<float>(gains.r, gains.gEven, gains.gOdd, gains.b)))
                        : kNoInterface;
}

at::Status ArgusAdapter::setExposureCompensation(at::Request* request, float ev) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    return a != nullptr ? statusOf(a->setExposureCompensation(ev)) : kNoInterface;
}

at::Status ArgusAdapter::setColorSaturation(at::Request* request, float saturation, bool enable) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    if (a == nullptr)
        return kNoInterface;
    const ::Argus::Status st = a->setColorSaturation(saturation);
    return st != ::Argus::STATUS_OK ? statusOf(st) : statusOf(a->setColorSaturationEnable(enable));
}

uint32_t ArgusAdapter::getToneMapCurveSize(at::Request* request) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    return a != nullptr ? a->getToneMapCurveSize(::Argus::RGB_CHANNEL_R) : 0;
}

at::Status ArgusAdapter::setToneMapCurve(at::Request* request, uint32_t channel,
                                         const std::vector<float>& curve, bool enable) {
    ::Argus::IAutoControlSettings* a = autoControl(request);
    if (a == nullptr || channel > 2)
        return kNoInterface;
    const ::Argus::Status st = a->setToneMapCurve(static_cast<::Argus::RGBChannel>(channel), curve);
    return st != ::Argus::STATUS_OK ? statusOf(st) : statusOf(a->setToneMapCurveEnable(enable));
}

at::Status ArgusAdapter::setEdgeEnhance(at::Request* request, at::EdgeEnhanceMode mode, float strength) {
    auto* e = iface<::Argus::IEdgeEnhanceSettings>(as<::Argus::Request>(request));
    if (e == nullptr)
        return kNoInterface;
    const ::Argus::EdgeEnhanceMode m = mode == at::EdgeEnhanceMode::Fast ? ::Argus::EDGE_ENHANCE_MODE_FAST
                                       : mode == at::EdgeEnhanceMode::HighQuality
                                           ? ::Argus::EDGE_ENHANCE_MODE_HIGH_QUALITY
                                           : ::Argus::EDGE_ENHANCE_MODE_OFF;
    const ::Argus::Status st = e->setEdgeEnhanceMode(m);
    return st != ::Argus::STATUS_OK ? statusOf(st) : statusOf(e->setEdgeEnhanceStrength(strength));
}

at::Status ArgusAdapter::setDenoise(at::Request* request, at::DenoiseMode mode, float strength) {
    auto* d = iface<::Argus::IDenoiseSettings>(as<::Argus::Request>(request));
    if (d == nullptr)
        return kNoInterface;
    const ::Argus::DenoiseMode m = mode == at::DenoiseMode::Fast          ? ::Argus::DENOISE_MODE_FAST
                                   : mode == at::DenoiseMode::HighQuality ? ::Argus::DENOISE_MODE_HIGH_QUALITY
                                                                          : ::Argus::DENOISE_MODE_OFF;
    const ::Argus::Status st = d->setDenoiseMode(m);
    return st != ::Argus::STATUS_OK ? statusOf(st) : statusOf(d->setDenoiseStrength(strength));
}

// ---------------------------------------------------------------------------
// EGL streams and frames

at::Status ArgusAdapter::waitUntilConnected(at::OutputStream* stream, uint64_t timeoutNs) {
    auto* s = iface<::Argus::IEGLOutputStream>(as<::Argus::OutputStream>(stream));
    return s != nullptr ? statusOf(s->waitUntilConnected(timeoutNs)) : kNoInterface;
}

void ArgusAdapter::disconnect(at::OutputStream* stream) {
    if (auto* s = iface<::Argus::IEGLOutputStream>(as<::Argus::OutputStream>(stream)))
        s->disconnect();
}

at::FrameConsumer* ArgusAdapter::createFrameConsumer(at::OutputStream* stream, at::Status* status) {
    ::Argus::Status st = ::Argus::STATUS_OK;
    EGLStream::FrameConsumer* c = EGLStream::FrameConsumer::create(as<::Argus::OutputStream>(stream), &st);
    setStatus(status, st);
    return reinterpret_cast<at::FrameConsumer*>(c);
}

void ArgusAdapter::destroyFrameConsumer(at::FrameConsumer* consumer) {
    if (consumer != nullptr)
        as<EGLStream::FrameConsumer>(consumer)->destroy();
}

at::Frame* ArgusAdapter::acquireFrame(at::FrameConsumer* consumer, uint64_t timeoutNs, at::Status* status) {
    auto* c = iface<EGLStream::IFrameConsumer>(as<EGLStream::FrameConsumer>(consumer));
    if (c == nullptr) {
        setStatus(status, ::Argus::STATUS_UNAVAILABLE);
        return nullptr;
    }
    ::Argus::Status st = ::Argus::STATUS_OK;
    EGLStream::Frame* frame = c->acquireFrame(timeoutNs, &st);
    setStatus(status, st);
    return reinterpret_cast<at::Frame*>(frame);
}

void ArgusAdapter::releaseFrame(at::Frame* frame) {
    if (frame != nullptr)
        as<EGLStream::Frame>(frame)->destroy();
}

bool ArgusAdapter::getSensorTimestamp(at::Frame* frame, uint64_t& ns) {
    // No IFrame interface, no frame: the metadata of such an object is not read.
    if (iface<EGLStream::IFrame>(as<EGLStream::Frame>(frame)) == nullptr)
        return false;
    const ::Argus::ICaptureMetadata* m = metadataOf(frame);
    if (m == nullptr)
        return false;
    ns = m->getSensorTimestamp();
    return true;
}

bool ArgusAdapter::getSensorExposureTime(at::Frame* frame, uint64_t& ns) {
    const ::Argus::ICaptureMetadata* m = metadataOf(frame);
    if (m == nullptr)
        return false;
    ns = m->getSensorExposureTime();
    return true;
}

bool ArgusAdapter::getSensorAnalogGain(at::Frame* frame, float& gain) {
    const ::Argus::ICaptureMetadata* m = metadataOf(frame);
    if (m == nullptr)
        return false;
    gain = m->getSensorAnalogGain();
    return true;
}

bool ArgusAdapter::getIspDigitalGain(at::Frame* frame, float& gain) {
    const ::Argus::ICaptureMetadata* m = metadataOf(frame);
    if (m == nullptr)
        return false;
    gain = m->getIspDigitalGain();
    return true;
}

}  // namespace platform
