#pragma once

// The real implementations of the seams. Capture code never names these; it
// uses platform::sys(), usb(), hid(), argus() and clock().

#include "platform/Platform.h"

namespace platform {

class RealSys final : public Sys {
public:
    int open(const char* path, int flags, mode_t mode) override;
    int close(int fd) override;
    ssize_t read(int fd, void* buf, size_t count) override;
    ssize_t write(int fd, const void* buf, size_t count) override;
    int ioctl(int fd, unsigned long request, void* arg) override;
    void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) override;
    int munmap(void* addr, size_t length) override;
    int poll(struct pollfd* fds, nfds_t nfds, int timeout) override;
    int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
               struct timeval* timeout) override;
    int stat(const char* path, struct stat* buf) override;
};

class RealUsb final : public Usb {
public:
    int init(libusb_context** ctx) override;
    void exit(libusb_context* ctx) override;
    void set_debug(libusb_context* ctx, int level) override;
    ssize_t get_device_list(libusb_context* ctx, libusb_device*** list) override;
    void free_device_list(libusb_device** list, int unref_devices) override;
    int get_device_descriptor(libusb_device* dev, libusb_device_descriptor* desc) override;
    int get_port_numbers(libusb_device* dev, uint8_t* port_numbers, int port_numbers_len) override;
    uint8_t get_bus_number(libusb_device* dev) override;
    uint8_t get_device_address(libusb_device* dev) override;
    int get_device_speed(libusb_device* dev) override;
    libusb_device* ref_device(libusb_device* dev) override;
    void unref_device(libusb_device* dev) override;
    int open(libusb_device* dev, libusb_device_handle** handle) override;
    void close(libusb_device_handle* handle) override;
    libusb_device* get_device(libusb_device_handle* handle) override;
    int get_string_descriptor_ascii(libusb_device_handle* handle, uint8_t desc_index, unsigned char* data,
                                    int length) override;
    int set_auto_detach_kernel_driver(libusb_device_handle* handle, int enable) override;
    int claim_interface(libusb_device_handle* handle, int interface_number) override;
    int release_interface(libusb_device_handle* handle, int interface_number) override;
    int clear_halt(libusb_device_handle* handle, unsigned char endpoint) override;
    int reset_device(libusb_device_handle* handle) override;
    const char* error_name(int error_code) override;
};

class RealHid final : public Hid {
public:
    int init() override;
    int exit() override;
    hid_device_info* enumerate(unsigned short vendor_id, unsigned short product_id) override;
    void free_enumeration(hid_device_info* devs) override;
    hid_device* open_path(const char* path, int verbose) override;
    void close(hid_device* dev) override;
    int read(hid_device* dev, unsigned char* data, size_t length) override;
    int read_timeout(hid_device* dev, unsigned char* data, size_t length, int milliseconds) override;
    int write(hid_device* dev, const unsigned char* data, size_t length) override;
    int send_feature_report(hid_device* dev, const unsigned char* data, size_t length) override;
    int get_feature_report(hid_device* dev, unsigned char* data, size_t length) override;
    int get_serial_number_string(hid_device* dev, wchar_t* string, size_t maxlen) override;
    const wchar_t* error(hid_device* dev) override;
};

class RealClock final : public Clock {
public:
    int64_t steadyNanoseconds() override;
    int64_t systemNanoseconds() override;
    void sleepFor(std::chrono::nanoseconds duration) override;
};

// The Argus of a machine without NVIDIA's libraries: no provider can be
// created, and every other operation fails as it would without a provider.
class NoArgus final : public Argus {
public:
    bool createProvider() override { return false; }
    void destroyProvider() override {}
    argus_types::Status getCameraDevices(std::vector<argus_types::CameraDevice*>&) override {
        return argus_types::STATUS_UNAVAILABLE;
    }
    argus_types::CaptureSession* createCaptureSession(argus_types::CameraDevice*,
                                                      argus_types::Status* s) override {
        return fail(s);
    }
    argus_types::CaptureSession* createCaptureSession(const std::vector<argus_types::CameraDevice*>&,
                                                      argus_types::Status* s) override {
        return fail(s);
    }
    void destroyCaptureSession(argus_types::CaptureSession*) override {}
    bool getModelName(argus_types::CameraDevice*, std::string&) override { return false; }
    bool getModuleString(argus_types::CameraDevice*, std::string&) override { return false; }
    bool getSyncSensorModuleId(argus_types::CameraDevice*, char*, uint32_t) override { return false; }
    argus_types::Status getAllSensorModes(argus_types::CameraDevice*,
                                          std::vector<argus_types::SensorMode*>&) override {
        return argus_types::STATUS_UNAVAILABLE;
    }
    bool getMinAeRegionSize(argus_types::CameraDevice*, argus_types::Size2D&) override { return false; }
    bool getResolution(argus_types::SensorMode*, argus_types::Size2D&) override { return false; }
    bool getExposureTimeRange(argus_types::SensorMode*, argus_types::Range<uint64_t>&) override {
        return false;
    }
    bool getAnalogGainRange(argus_types::SensorMode*, argus_types::Range<float>&) override { return false; }
    bool getFrameDurationRange(argus_types::SensorMode*, argus_types::Range<uint64_t>&) override {
        return false;
    }
    argus_types::OutputStreamSettings* createEglOutputStreamSettings(argus_types::CaptureSession*) override {
        return nullptr;
    }
    argus_types::OutputStream* createOutputStream(argus_types::CaptureSession*,
                                                  argus_types::OutputStreamSettings*,
                                                  argus_types::Status* s) override {
        return fail(s);
    }
    argus_types::Request* createPreviewRequest(argus_types::CaptureSession*,
                                               argus_types::Status* s) override {
        return fail(s);
    }
    argus_types::Status repeat(argus_types::CaptureSession*, argus_types::Request*) override {
        return argus_types::STATUS_UNAVAILABLE;
    }
    void stopRepeat(argus_types::CaptureSession*) override {}
    argus_types::Status waitForIdle(argus_types::CaptureSession*, uint64_t) override {
        return argus_types::STATUS_UNAVAILABLE;
    }
    void destroyOutputStreamSettings(argus_types::OutputStreamSettings*) override {}
    void destroyOutputStream(argus_types::OutputStream*) override {}
    void destroyRequest(argus_types::Request*) override {}
    argus_types::Status setCameraDevice(argus_types::OutputStreamSettings*,
                                        argus_types::CameraDevice*) override {
        return na();
    }
    argus_types::Status setPixelFormatYCbCr420(argus_types::OutputStreamSettings*) override { return na(); }
    argus_types::Status setResolution(argus_types::OutputStreamSettings*, argus_types::Size2D) override {
        return na();
    }
    argus_types::Status setMetadataEnable(argus_types::OutputStreamSettings*, bool) override { return na(); }
    argus_types::Status setMode(argus_types::OutputStreamSettings*, argus_types::EglStreamMode) override {
        return na();
    }
    argus_types::Status enableOutputStream(argus_types::Request*, argus_types::OutputStream*) override {
        return na();
    }
    argus_types::Status setFrameDurationRange(argus_types::Request*, argus_types::Range<uint64_t>) override {
        return na();
    }
    argus_types::Status setSensorMode(argus_types::Request*, argus_types::SensorMode*) override {
        return na();
    }
    argus_types::Status setExposureTimeRange(argus_types::Request*, argus_types::Range<uint64_t>) override {
        return na();
    }
    argus_types::Status setGainRange(argus_types::Request*, argus_types::Range<float>) override {
        return na();
    }
    argus_types::Status setSourceClipRect(argus_types::Request*, argus_types::OutputStream*,
                                          argus_types::Rectangle) override {
        return na();
    }
    argus_types::Status setIspDigitalGainRange(argus_types::Request*, argus_types::Range<float>) override {
        return na();
    }
    bool getIspDigitalGainRange(argus_types::Request*, argus_types::Range<float>&) override { return false; }
    argus_types::Status setAeLock(argus_types::Request*, bool) override { return na(); }
    argus_types::Status setAeRegions(argus_types::Request*,
                                     const std::vector<argus_types::AcRegion>&) override {
        return na();
    }
    bool getAeRegions(argus_types::Request*, std::vector<argus_types::AcRegion>&) override { return false; }
    argus_types::Status setAeAntibandingMode(argus_types::Request*, argus_types::AeAntibandingMode) override {
        return na();
    }
    argus_types::Status setAwbMode(argus_types::Request*, argus_types::AwbMode) override { return na(); }
    argus_types::Status setWbGains(argus_types::Request*, argus_types::BayerTuple) override { return na(); }
    argus_types::Status setExposureCompensation(argus_types::Request*, float) override { return na(); }
    argus_types::Status setColorSaturation(argus_types::Request*, float, bool) override { return na(); }
    uint32_t getToneMapCurveSize(argus_types::Request*) override { return 0; }
    argus_types::Status setToneMapCurve(argus_types::Request*, uint32_t, const std::vector<float>&,
                                        bool) override {
        return na();
    }
    argus_types::Status setEdgeEnhance(argus_types::Request*, argus_types::EdgeEnhanceMode, float) override {
        return na();
    }
    argus_types::Status setDenoise(argus_types::Request*, argus_types::DenoiseMode, float) override {
        return na();
    }
    argus_types::Status waitUntilConnected(argus_types::OutputStream*, uint64_t) override { return na(); }
    void disconnect(argus_types::OutputStream*) override {}
    argus_types::FrameConsumer* createFrameConsumer(argus_types::OutputStream*,
                                                    argus_types::Status* s) override {
        return fail(s);
    }
    void destroyFrameConsumer(argus_types::FrameConsumer*) override {}
    argus_types::Frame* acquireFrame(argus_types::FrameConsumer*, uint64_t, argus_types::Status* s) override {
        return fail(s);
    }
    void releaseFrame(argus_types::Frame*) override {}
    bool getSensorTimestamp(argus_types::Frame*, uint64_t&) override { return false; }
    bool getSensorExposureTime(argus_types::Frame*, uint64_t&) override { return false; }
    bool getSensorAnalogGain(argus_types::Frame*, float&) override { return false; }
    bool getIspDigitalGain(argus_types::Frame*, float&) override { return false; }
    int createNvBuffer(argus_types::Frame*, argus_types::Size2D, int, int, int,
                       argus_types::Status* s) override {
        if (s)
            *s = argus_types::STATUS_UNAVAILABLE;
        return -1;
    }
    argus_types::Status copyToNvBuffer(argus_types::Frame*, int) override { return na(); }
    int surfaceMapParams(int, uint32_t&, uint32_t&, uint32_t&) override { return -1; }
    int surfaceToRaw(int, uint32_t, uint32_t, uint32_t, unsigned char*) override { return -1; }
    int destroyNvBuffer(int) override { return -1; }

private:
    static argus_types::Status na() { return argus_types::STATUS_UNAVAILABLE; }
    struct Null {
        template <typename T>
        operator T*() const {
            return nullptr;
        }
    };
    static Null fail(argus_types::Status* s) {
        if (s)
            *s = argus_types::STATUS_UNAVAILABLE;
        return {};
    }
};

}  // namespace platform
