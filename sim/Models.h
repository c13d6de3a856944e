#pragma once

// The device models of the simulator: what a scenario entry turns into.
// Later work extends the simulator by subclassing these and registering a
// factory for a scenario "type" (see Registry.h); nothing here needs editing.

#include <linux/videodev2.h>
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace sim {

// ---------------------------------------------------------------------------
// Files reached through platform::Sys (/dev/videoN, /dev/i2c-N, sysfs files).

// One open file description. Operations return what the system call would,
// except that failures return -errno (the simulated Sys sets errno and
// returns -1 for them).
class OpenFile {
public:
    virtual ~OpenFile() = default;
    virtual ssize_t read(void* buf, size_t count);
    virtual ssize_t write(const void* buf, size_t count);
    virtual int ioctl(unsigned long request, void* arg);
    // Returns the mapping or nullptr with *err set to an errno value.
    virtual void* mmap(size_t length, int prot, int flags, off_t offset, int* err);
    // Called for a range this file mapped; returns 0 or -errno.
    virtual int munmap(void* addr, size_t length);
    // The ready events of this file among `events` (POLLIN, POLLOUT...). May
    // block up to timeoutMs (0: do not wait, -1: no limit) until something is
    // ready; returns the ready events, 0 at timeout.
    virtual short poll(short events, int timeoutMs);
    virtual void close() {}
};

// Something at a path that can be opened.
class DeviceFile {
public:
    virtual ~DeviceFile() = default;
    // Returns an open file, or nullptr with *err set (ENOENT, EBUSY, EACCES...).
    virtual std::unique_ptr<OpenFile> open(int flags, int* err) = 0;
    // st_mode for stat (character device by default).
    virtual unsigned statMode() const;
    // A file that exists no more (unplugged device): open and stat fail with ENOENT.
    virtual bool present() const { return true; }
};

// A read-only text file (sysfs attributes such as modalias).
class TextFile : public DeviceFile {
public:
    explicit TextFile(std::string text) : text_(std::move(text)) {}
    std::unique_ptr<OpenFile> open(int flags, int* err) override;
    unsigned statMode() const override;
    const std::string& text() const { return text_; }

private:
    std::string text_;
};

// ---------------------------------------------------------------------------
// Virtual USB bus.

struct UsbDescriptor {
    uint16_t bcdUSB = 0x0200;
    uint8_t deviceClass = 0, deviceSubClass = 0, deviceProtocol = 0;
    uint8_t maxPacketSize0 = 64;
    uint16_t vendorId = 0, productId = 0;
    uint16_t bcdDevice = 0x0100;
    uint8_t numConfigurations = 1;
    std::string manufacturer, product, serial;  // string descriptors 1, 2, 3 ("" = none)
};

// Behaviour of a USB device beyond its descriptors (opening, interfaces,
// endpoints, reset). Results are libusb error codes (0 = success).
class UsbDeviceModel {
public:
    virtual ~UsbDeviceModel() = default;
    virtual int open() { return 0; }
    virtual void close() {}
    virtual int setAutoDetachKernelDriver(int) { return 0; }
    virtual int claimInterface(int) { return 0; }
    virtual int releaseInterface(int) { return 0; }
    virtual int clearHalt(unsigned char) { return 0; }
    // After a successful reset the device may re-enumerate with a new address:
    // the model can change its UsbDevice through UsbBus::setAddress.
    virtual int reset() { return 0; }
};

// A value that models and seams may read from any thread while the bus
// changes it (a device re-addressed after a reset, or unplugged).
template <typename T>
class SharedValue {
public:
    explicit SharedValue(T value = T()) : v_(value) {}
    SharedValue(const SharedValue& other) : v_(other.v_.load()) {}
    SharedValue& operator=(const SharedValue& other) {
        v_.store(other.v_.load());
        return *this;
    }
    SharedValue& operator=(T value) {
        v_.store(value);
        return *this;
    }
    operator T() const { return v_.load(); }  // NOLINT

private:
    std::atomic<T> v_;
};

class UsbDevice {
public:
    UsbDescriptor descriptor;
    uint8_t bus = 1;
    SharedValue<uint8_t> address{1};
    std::vector<uint8_t> ports;             // port path from the root hub, e.g. {1, 3}
    int speed = 3;                          // enum libusb_speed: 2 full, 3 high, 4 super, 5 super plus
    SharedValue<bool> attached{true};       // false: gone from the bus (unplugged, or re-enumerating)
    int descriptorError = 0;                // libusb error of get_device_descriptor (0: none)
    std::shared_ptr<UsbDeviceModel> model;  // may be null: plain device
};

class UsbBus {
public:
    std::shared_ptr<UsbDevice> add(UsbDevice device);
    // The attached devices in bus order (as libusb lists them).
    std::vector<std::shared_ptr<UsbDevice>> devices() const;
    std::shared_ptr<UsbDevice> find(uint8_t bus, uint8_t address) const;
    // A free address on a bus (the next after the highest in use).
    uint8_t nextAddress(uint8_t bus) const;
    // Change attachment and address only through these, and read them through
    // isAttached / addressOf when another thread may change them.
    void setAttached(const std::shared_ptr<UsbDevice>& device, bool attached);
    void setAddress(const std::shared_ptr<UsbDevice>& device, uint8_t address);
    bool isAttached(const UsbDevice& device) const;
    uint8_t addressOf(const UsbDevice& device) const;

private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<UsbDevice>> devices_;
};

// ---------------------------------------------------------------------------
// HID devices (platform::Hid).

struct HidIdentity {
    std::string path;  // hidapi-libusb form "bbbb:aaaa:ii" (hexadecimal bus, address, interface)
    uint16_t vendorId = 0, productId = 0;
    uint16_t releaseNumber = 0;  // bcdDevice
    std::wstring serial, manufacturer, product;
    int interfaceNumber = 0;
};

// "bbbb:aaaa:ii" as hidapi's libusb back-end writes paths.
std::string hidPath(uint8_t bus, uint8_t address, int interfaceNumber);

class HidDeviceModel {
public:
    virtual ~HidDeviceModel() = default;
    virtual HidIdentity identity() const = 0;
    // Listed by enumerate and openable only while present.
    virtual bool present() const { return true; }
    // Return false to refuse an open (busy, lost). One open at a time is the
    // model's own business.
    virtual bool open() { return true; }
    virtual void close() {}
    // hidapi results: bytes moved, 0 for a read time-out, -1 for an error.
    virtual int read(unsigned char* data, size_t length, int timeoutMs) = 0;
    virtual int write(const unsigned char* data, size_t length) = 0;
    virtual int sendFeatureReport(const unsigned char* data, size_t length) = 0;
    virtual int getFeatureReport(unsigned char* data, size_t length) = 0;
};

// ---------------------------------------------------------------------------
// Video nodes (/dev/videoN).

// The vendor control channel of a UVC camera: UVCIOC_CTRL_QUERY on an
// extension unit. Returns 0 or -errno.
class ExtensionUnitModel {
public:
    virtual ~ExtensionUnitModel() = default;
    virtual int query(uint8_t unit, uint8_t selector, uint8_t query, uint8_t* data, uint16_t size) = 0;
};

struct VideoFormat {
    uint32_t pixelformat = V4L2_PIX_FMT_YUYV;
    std::string description = "YUYV 4:2:2";
};

struct VideoNodeConfig {
    int number = 0;                   // N of /dev/videoN
    std::string driver = "uvcvideo";  // VIDIOC_QUERYCAP driver
    std::string card;                 // VIDIOC_QUERYCAP card
    std::string busInfo;              // VIDIOC_QUERYCAP bus_info
    uint32_t capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING | V4L2_CAP_DEVICE_CAPS;
    uint32_t deviceCaps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    std::vector<VideoFormat> formats{VideoFormat{}};
    std::string modalias;  // /sys/class/video4linux/videoN/device/modalias ("" = no such file)
    bool busy = false;     // opens fail with EBUSY
};

// A /dev/videoN node answering VIDIOC_QUERYCAP and VIDIOC_ENUM_FMT, and
// UVCIOC_CTRL_QUERY through its extension unit model when it has one. A
// streaming camera subclasses it and overrides openFile() to return its own
// OpenFile (which may call VideoNode::baseIoctl for the queries above).
class VideoNode : public DeviceFile, public std::enable_shared_from_this<VideoNode> {
public:
    explicit VideoNode(VideoNodeConfig config) : config_(std::move(config)), busy_(config_.busy) {}
    std::unique_ptr<OpenFile> open(int flags, int* err) override;
    bool present() const override { return present_; }

    const VideoNodeConfig& config() const { return config_; }
    void setPresent(bool present) { present_ = present; }
    void setBusy(bool busy) { busy_ = busy; }
    bool busy() const { return busy_; }
    void setExtensionUnit(std::shared_ptr<ExtensionUnitModel> xu) { xu_ = std::move(xu); }
    std::shared_ptr<ExtensionUnitModel> extensionUnit() const { return xu_; }

    // VIDIOC_QUERYCAP, VIDIOC_ENUM_FMT, UVCIOC_CTRL_QUERY; -ENOTTY for others.
    int baseIoctl(unsigned long request, void* arg);

protected:
    // The open file of this node; the base one answers baseIoctl only.
    virtual std::unique_ptr<OpenFile> openFile(int flags);

private:
    VideoNodeConfig config_;
    std::atomic<bool> present_{true};
    std::atomic<bool> busy_{false};
    std::shared_ptr<ExtensionUnitModel> xu_;
};

// ---------------------------------------------------------------------------
// I2C buses (/dev/i2c-N).

// A chip on an I2C bus. A plain write (after I2C_SLAVE or I2C_SLAVE_FORCE) is one write
// transfer; a plain read one read transfer; I2C_RDWR gives the messages one
// by one. Return false to NACK (the caller sees EIO / ENXIO).
class I2cChip {
public:
    virtual ~I2cChip() = default;
    virtual bool write(const uint8_t* data, size_t length) = 0;
    virtual bool read(uint8_t* data, size_t length) = 0;
};

// A chip with registers addressed by 1 or 2 bytes (most significant first)
// and an auto-incrementing pointer, as an EEPROM or a sensor: a write sets the
// pointer then stores the data bytes; a read returns bytes from the pointer.
// With a page size, a write wraps within its page as a real EEPROM does.
class RegisterChip : public I2cChip {
public:
    RegisterChip(size_t size, int addressBytes, size_t pageSize = 0);
    bool write(const uint8_t* data, size_t length) override;
    bool read(uint8_t* data, size_t length) override;

    std::vector<uint8_t> contents() const;
    void setContents(size_t offset, const std::vector<uint8_t>& bytes);
    // Each write transfer as it came (register address bytes included).
    std::vector<std::vector<uint8_t>> writeLog() const;
    void clearWriteLog();

protected:
    // Hooks for chips with side effects (an inertial chip's command register).
    virtual void onRegisterWritten(size_t reg, uint8_t value) { (void)reg, (void)value; }
    virtual uint8_t onRegisterRead(size_t reg, uint8_t stored) {
        (void)reg;
        return stored;
    }

    mutable std::mutex mutex_;
    std::vector<uint8_t> memory_;

private:
    int addressBytes_;
    size_t pageSize_;
    size_t pointer_ = 0;
    std::vector<std::vector<uint8_t>> writeLog_;
};

class I2cBus : public DeviceFile, public std::enable_shared_from_this<I2cBus> {
public:
    explicit I2cBus(int number) : number_(number) {}
    std::unique_ptr<OpenFile> open(int flags, int* err) override;
    int number() const { return number_; }
    void attach(uint16_t address, std::shared_ptr<I2cChip> chip);
    std::shared_ptr<I2cChip> chip(uint16_t address) const;
    // Marks an address as held by a kernel driver: I2C_SLAVE on it fails with
    // EBUSY, I2C_SLAVE_FORCE is accepted, and I2C_RDWR ignores the claim, as
    // the kernel's i2c-dev does. A claim needs no chip behind it.
    void claim(uint16_t address);
    bool claimed(uint16_t address) const;

private:
    int number_;
    mutable std::mutex mutex_;
    std::map<uint16_t, std::shared_ptr<I2cChip>> chips_;
    std::set<uint16_t> claimed_;
};

}  // namespace sim
