// A sensors MCU made of fuzz input, behind the Hid and Usb seams. The
// enumeration shows one device whose path, release number (the protocol
// generation) and serial string come from the input; every later answer of
// the device (reports off the interrupt stream, feature reports, the results
// of writes) is the next answer of the input (see FuzzSupport.h).
#pragma once

#include <hidapi/hidapi.h>
#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "platform/Hid.h"
#include "platform/Usb.h"

namespace fuzz {

// How the device presents itself on the bus.
struct McuIdentity {
    std::string path = "0001:0009:00";
    std::wstring serial = L"12345678";
    unsigned short release = 0x305;
    unsigned short vendor = 0x2B03;
    unsigned short product = 0xF681;
    bool listed = true;

    // Identity bytes: flags, release (2), vendor/product choice, path text,
    // serial text.
    void read(Input& in) {
        const uint8_t flags = in.byte();
        listed = (flags & 1) == 0;
        release = in.u16();
        if ((flags & 2) != 0)
            product = in.u16();
        path = in.text();
        const std::string s = in.text();
        serial.assign(s.begin(), s.end());
        if ((flags & 4) != 0 && !serial.empty())
            serial[0] = static_cast<wchar_t>(0x263A);  // a character outside ASCII
    }
};

class FuzzHid final : public platform::Hid {
public:
    FuzzHid(Input& in, McuIdentity id, std::shared_ptr<InstantClock> clock)
        : in_(in), id_(std::move(id)), clock_(std::move(clock)) {}

    // A long steady stream, as a device gives it between two calls of the
    // test: `count` reads answer the template report with its time stamp
    // moved on by `tickStep` each, a frame trigger (and a new trigger count)
    // every `syncEvery` reports, while host time moves on by `hostStepUs`.
    // Returns the count granted: at most 4096 burst reads in all per input,
    // so that one input stays fast.
    int startBurst(const std::vector<uint8_t>& report, int count, uint32_t tickStep, int syncEvery,
                   uint32_t hostStepUs) {
        count = std::min(count, burstBudget_);
        burstBudget_ -= count;
        burst_ = report;
        burst_.resize(62);
        burstLeft_ = count;
        tickStep_ = tickStep;
        syncEvery_ = syncEvery > 0 ? syncEvery : 1;
        hostStepUs_ = hostStepUs;
        std::memcpy(&ticks_, burst_.data() + 2, sizeof ticks_);
        return count;
    }

    int init() override { return 0; }
    int exit() override { return 0; }
    hid_device_info* enumerate(unsigned short, unsigned short) override {
        if (!id_.listed)
            return nullptr;
        auto* info = new hid_device_info{};
        info->path = strdup(id_.path.c_str());
        info->vendor_id = id_.vendor;
        info->product_id = id_.product;
        info->serial_number = wcsdup(id_.serial.c_str());
        info->release_number = id_.release;
        return info;
    }
    void free_enumeration(hid_device_info* devs) override {
        while (devs != nullptr) {
            hid_device_info* next = devs->next;
            std::free(devs->path);
            std::free(devs->serial_number);
            delete devs;
            devs = next;
        }
    }
    hid_device* open_path(const char*, int) override {
        // One byte: 0 refuses the open.
        return in_.byte() == 0 ? nullptr : handle();
    }
    void close(hid_device*) override {}
    int read(hid_device* dev, unsigned char* data, size_t length) override {
        return read_timeout(dev, data, length, -1);
    }
    int read_timeout(hid_device*, unsigned char* data, size_t length, int) override {
        if (burstLeft_ > 0)
            return burstRead(data, length);
        return in_.answer(data, length);
    }
    int write(hid_device*, const unsigned char*, size_t length) override { return result(length); }
    int send_feature_report(hid_device*, const unsigned char*, size_t length) override {
        return result(length);
    }
    int get_feature_report(hid_device*, unsigned char* data, size_t length) override {
        // The report id the caller put in data[0] is what a device echoes;
        // the answer may overwrite it.
        return in_.answer(data, length);
    }
    int get_serial_number_string(hid_device*, wchar_t* string, size_t maxlen) override {
        if (maxlen == 0)
            return -1;
        const size_t n = std::min(maxlen - 1, id_.serial.size());
        std::wmemcpy(string, id_.serial.data(), n);
        string[n] = L'\0';
        return 0;
    }
    const wchar_t* error(hid_device*) override { return L"fuzz device"; }

private:
    int burstRead(unsigned char* data, size_t length) {
        --burstLeft_;
        ++burstCount_;
        ticks_ += tickStep_;
        std::memcpy(burst_.data() + 2, &ticks_, sizeof ticks_);
        const bool trigger = burstCount_ % static_cast<uint32_t>(syncEvery_) == 0;
        burst_[22] = trigger ? 1 : 0;
        if (trigger) {
            uint32_t triggers = 0;
            std::memcpy(&triggers, burst_.data() + 24, sizeof triggers);
            ++triggers;
            std::memcpy(burst_.data() + 24, &triggers, sizeof triggers);
        }
        if (clock_)
            clock_->sleepFor(std::chrono::microseconds(hostStepUs_));
        const size_t n = std::min(length, burst_.size());
        std::memcpy(data, burst_.data(), n);
        return static_cast<int>(n);
    }

    hid_device* handle() { return reinterpret_cast<hid_device*>(&token_); }
    // The result of a write: one byte, 0 all written, 1 nothing, 2 failure,
    // 3 one byte short (nothing read during a burst: all written).
    int result(size_t length) {
        if (burstLeft_ > 0)
            return static_cast<int>(length);  // a steadily streaming device takes every write
        switch (in_.byte() & 3) {
            case 0:
                return static_cast<int>(length);
            case 1:
                return 0;
            case 2:
                return -1;
            default:
                return static_cast<int>(length) - 1;
        }
    }

    Input& in_;
    McuIdentity id_;
    std::shared_ptr<InstantClock> clock_;
    int token_ = 0;
    std::vector<uint8_t> burst_;
    int burstLeft_ = 0;
    int burstBudget_ = 4096;
    uint32_t burstCount_ = 0;
    uint64_t ticks_ = 0;
    uint32_t tickStep_ = 0;
    int syncEvery_ = 1;
    uint32_t hostStepUs_ = 0;
};

// The USB side of the MCU recovery: a list of up to three devices whose bus
// and address come from the input, and results of each call read from it.
class FuzzUsb final : public platform::Usb {
public:
    explicit FuzzUsb(Input& in) : in_(in) {}

    int init(libusb_context** ctx) override {
        if (ctx != nullptr)
            *ctx = nullptr;
        return code();
    }
    void exit(libusb_context*) override {}
    void set_debug(libusb_context*, int) override {}
    ssize_t get_device_list(libusb_context*, libusb_device*** list) override {
        const int c = code();
        if (c < 0)
            return c;
        const size_t n = in_.byte() % 4;
        devices_.assign(n, Device{});
        pointers_.clear();
        for (Device& d : devices_) {
            d.bus = in_.byte();
            d.address = in_.byte();
            pointers_.push_back(reinterpret_cast<libusb_device*>(&d));
        }
        pointers_.push_back(nullptr);
        *list = pointers_.data();
        return static_cast<ssize_t>(n);
    }
    void free_device_list(libusb_device**, int) override {}
    int get_device_descriptor(libusb_device*, libusb_device_descriptor* desc) override {
        std::memset(desc, 0, sizeof *desc);
        return code();
    }
    int get_port_numbers(libusb_device*, uint8_t*, int) override { return 0; }
    uint8_t get_bus_number(libusb_device* dev) override { return of(dev).bus; }
    uint8_t get_device_address(libusb_device* dev) override { return of(dev).address; }
    int get_device_speed(libusb_device*) override { return 0; }
    libusb_device* ref_device(libusb_device* dev) override { return dev; }
    void unref_device(libusb_device*) override {}
    int open(libusb_device*, libusb_device_handle** handle) override {
        const int c = code();
        *handle = c == 0 ? reinterpret_cast<libusb_device_handle*>(&token_) : nullptr;
        return c;
    }
    void close(libusb_device_handle*) override {}
    libusb_device* get_device(libusb_device_handle*) override { return nullptr; }
    int get_string_descriptor_ascii(libusb_device_handle*, uint8_t, unsigned char*, int) override {
        return LIBUSB_ERROR_IO;
    }
    int set_auto_detach_kernel_driver(libusb_device_handle*, int) override { return code(); }
    int claim_interface(libusb_device_handle*, int) override { return code(); }
    int release_interface(libusb_device_handle*, int) override { return code(); }
    int clear_halt(libusb_device_handle*, unsigned char) override { return code(); }
    int reset_device(libusb_device_handle*) override { return code(); }
    const char* error_name(int) override { return "LIBUSB_ERROR_FUZZ"; }

private:
    struct Device {
        uint8_t bus = 0;
        uint8_t address = 0;
    };
    static Device& of(libusb_device* dev) { return *reinterpret_cast<Device*>(dev); }
    // One byte: 0 success, otherwise a libusb error code (-1 .. -12, -99).
    int code() {
        const uint8_t b = in_.byte();
        if (b == 0)
            return 0;
        return b % 13 == 0 ? LIBUSB_ERROR_OTHER : -static_cast<int>(b % 13);
    }

    Input& in_;
    std::vector<Device> devices_;
    std::vector<libusb_device*> pointers_;
    int token_ = 0;
};

}  // namespace fuzz
