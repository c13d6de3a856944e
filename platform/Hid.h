#pragma once

// The hidapi calls (libusb back-end) the tool makes. Each operation mirrors the
// hidapi function of the same name without its "hid_" prefix, one call to one
// call, with one difference: open_path takes a second flag that, when set,
// makes the seam print why the device could not be opened (hidapi's own
// hid_open_path takes the path only).
//
// hid_device stays an opaque type: a simulated Hid hands out pointers to its
// own objects cast to hid_device*, and only that Hid dereferences them.
// hid_device_info is hidapi's plain record: enumerate returns a linked list
// that must be given back with free_enumeration of the same Hid.

#include <hidapi/hidapi.h>

#include <cstddef>
#include <cwchar>

namespace platform {

class Hid {
public:
    virtual ~Hid() = default;

    virtual int init() = 0;
    virtual int exit() = 0;
    virtual hid_device_info* enumerate(unsigned short vendor_id, unsigned short product_id) = 0;
    virtual void free_enumeration(hid_device_info* devs) = 0;
    virtual hid_device* open_path(const char* path, int verbose) = 0;
    virtual void close(hid_device* dev) = 0;
    virtual int read(hid_device* dev, unsigned char* data, size_t length) = 0;
    virtual int read_timeout(hid_device* dev, unsigned char* data, size_t length, int milliseconds) = 0;
    virtual int write(hid_device* dev, const unsigned char* data, size_t length) = 0;
    virtual int send_feature_report(hid_device* dev, const unsigned char* data, size_t length) = 0;
    virtual int get_feature_report(hid_device* dev, unsigned char* data, size_t length) = 0;
    virtual int get_serial_number_string(hid_device* dev, wchar_t* string, size_t maxlen) = 0;
    // hidapi's text of the last failure on dev (or of the library when dev is null).
    virtual const wchar_t* error(hid_device* dev) = 0;
};

// The Hid of the process (the installed backend's, see Platform.h).
Hid& hid();

}  // namespace platform
