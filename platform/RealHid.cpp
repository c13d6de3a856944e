// Real Hid: each operation is the hidapi (libusb back-end) call of the same
// name; open_path adds the printing of a failure when asked.
#include <cstdio>

#include "platform/RealBackend.h"

namespace platform {

int RealHid::init() {
    return hid_init();
}
int RealHid::exit() {
    return hid_exit();
}
hid_device_info* RealHid::enumerate(unsigned short vendor_id, unsigned short product_id) {
    return hid_enumerate(vendor_id, product_id);
}
void RealHid::free_enumeration(hid_device_info* devs) {
    hid_free_enumeration(devs);
}
hid_device* RealHid::open_path(const char* path, int verbose) {
    hid_device* dev = hid_open_path(path);
    if (dev == nullptr && verbose) {
        const wchar_t* why = hid_error(nullptr);
        std::fprintf(stderr, "hid_open_path: unable to open device %s: %ls\n", path ? path : "(null)",
                     why ? why : L"unknown error");
    }
    return dev;
}
void RealHid::close(hid_device* dev) {
    hid_close(dev);
}
int RealHid::read(hid_device* dev, unsigned char* data, size_t length) {
    return hid_read(dev, data, length);
}
int RealHid::read_timeout(hid_device* dev, unsigned char* data, size_t length, int milliseconds) {
    return hid_read_timeout(dev, data, length, milliseconds);
}
int RealHid::write(hid_device* dev, const unsigned char* data, size_t length) {
    return hid_write(dev, data, length);
}
int RealHid::send_feature_report(hid_device* dev, const unsigned char* data, size_t length) {
    return hid_send_feature_report(dev, data, length);
}
int RealHid::get_feature_report(hid_device* dev, unsigned char* data, size_t length) {
    return hid_get_feature_report(dev, data, length);
}
int RealHid::get_serial_number_string(hid_device* dev, wchar_t* string, size_t maxlen) {
    return hid_get_serial_number_string(dev, string, maxlen);
}
const wchar_t* RealHid::error(hid_device* dev) {
    return hid_error(dev);
}

}  // namespace platform
