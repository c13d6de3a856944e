#pragma once

// The libusb-1.0 calls the tool makes. Each operation mirrors the libusb
// function of the same name without its "libusb_" prefix, one call to one
// call. The real libusb types are used: libusb_device, libusb_device_handle and
// libusb_context stay opaque (incomplete) types, so a simulated Usb hands out
// pointers to objects of its own, cast to these types, and only that Usb ever
// dereferences them. libusb_device_descriptor is libusb's plain record.

#include <libusb-1.0/libusb.h>

#include <sys/types.h>
#include <cstdint>

namespace platform {

class Usb {
public:
    virtual ~Usb() = default;

    virtual int init(libusb_context** ctx) = 0;
    virtual void exit(libusb_context* ctx) = 0;
    virtual void set_debug(libusb_context* ctx, int level) = 0;
    virtual ssize_t get_device_list(libusb_context* ctx, libusb_device*** list) = 0;
    virtual void free_device_list(libusb_device** list, int unref_devices) = 0;
    virtual int get_device_descriptor(libusb_device* dev, libusb_device_descriptor* desc) = 0;
    virtual int get_port_numbers(libusb_device* dev, uint8_t* port_numbers, int port_numbers_len) = 0;
    virtual uint8_t get_bus_number(libusb_device* dev) = 0;
    virtual uint8_t get_device_address(libusb_device* dev) = 0;
    virtual int get_device_speed(libusb_device* dev) = 0;
    virtual libusb_device* ref_device(libusb_device* dev) = 0;
    virtual void unref_device(libusb_device* dev) = 0;
    virtual int open(libusb_device* dev, libusb_device_handle** handle) = 0;
    virtual void close(libusb_device_handle* handle) = 0;
    virtual libusb_device* get_device(libusb_device_handle* handle) = 0;
    virtual int get_string_descriptor_ascii(libusb_device_handle* handle, uint8_t desc_index,
                                            unsigned char* data, int length) = 0;
    virtual int set_auto_detach_kernel_driver(libusb_device_handle* handle, int enable) = 0;
    virtual int claim_interface(libusb_device_handle* handle, int interface_number) = 0;
    virtual int release_interface(libusb_device_handle* handle, int interface_number) = 0;
    virtual int clear_halt(libusb_device_handle* handle, unsigned char endpoint) = 0;
    virtual int reset_device(libusb_device_handle* handle) = 0;
    virtual const char* error_name(int error_code) = 0;
};

// The Usb of the process (the installed backend's, see Platform.h).
Usb& usb();

}  // namespace platform
