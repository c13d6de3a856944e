#pragma once

// The simulated seams. Each answers from one Machine. Capture code does not
// name these classes; tests may, to reach a seam of a machine directly.

#include <map>
#include <memory>
#include <mutex>

#include "platform/Platform.h"
#include "sim/Machine.h"

namespace sim {

// Paths under /dev/video*, /dev/i2c-* and /sys/class/video4linux are answered
// by the machine (ENOENT when it has no such file); any other path goes to the
// real system, so a simulated run still reads ordinary files. Simulated file
// descriptors are numbers reserved from the real system (an open /dev/null),
// so they never clash with real ones and fit in an fd_set.
class SimSys final : public platform::Sys {
public:
    explicit SimSys(std::shared_ptr<Machine> machine);
    ~SimSys() override;

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

    static bool isSimulatedPath(const std::string& path);
    // Number of simulated files open now (tests check that code closes what it opens).
    size_t openCount() const;

private:
    std::shared_ptr<OpenFile> lookup(int fd) const;
    std::shared_ptr<Machine> machine_;
    mutable std::mutex mutex_;
    std::map<int, std::shared_ptr<OpenFile>> files_;
    std::map<void*, std::shared_ptr<OpenFile>> mappings_;
};

class SimUsb final : public platform::Usb {
public:
    explicit SimUsb(std::shared_ptr<Machine> machine);
    ~SimUsb() override;

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

    // Contexts, device references and handles still held (leak checks in tests).
    size_t liveObjects() const;

    struct DeviceRef;
    struct Handle;

private:
    DeviceRef* ref(libusb_device* dev) const;
    Handle* handle(libusb_device_handle* h) const;
    std::shared_ptr<Machine> machine_;
    mutable std::mutex mutex_;
    std::map<UsbDevice*, DeviceRef*> refs_;
    int contexts_ = 0;
    int handles_ = 0;
};

class SimHid final : public platform::Hid {
public:
    explicit SimHid(std::shared_ptr<Machine> machine);
    ~SimHid() override;

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

    size_t openCount() const;
    struct Handle;

private:
    std::shared_ptr<HidDeviceModel> model(hid_device* dev) const;
    std::shared_ptr<Machine> machine_;
    mutable std::mutex mutex_;
    std::map<hid_device*, Handle*> handles_;
};

}  // namespace sim
