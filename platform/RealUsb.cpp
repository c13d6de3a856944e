// Real Usb: each operation is the libusb-1.0 call of the same name.
#include "platform/RealBackend.h"

namespace platform {

int RealUsb::init(libusb_context** ctx) {
    return libusb_init(ctx);
}
void RealUsb::exit(libusb_context* ctx) {
    libusb_exit(ctx);
}
void RealUsb::set_debug(libusb_context* ctx, int level) {
    // libusb_set_debug is deprecated in favour of this option; same effect.
    libusb_set_option(ctx, LIBUSB_OPTION_LOG_LEVEL, level);
}
ssize_t RealUsb::get_device_list(libusb_context* ctx, libusb_device*** list) {
    return libusb_get_device_list(ctx, list);
}
void RealUsb::free_device_list(libusb_device** list, int unref_devices) {
    libusb_free_device_list(list, unref_devices);
}
int RealUsb::get_device_descriptor(libusb_device* dev, libusb_device_descriptor* desc) {
    return libusb_get_device_descriptor(dev, desc);
}
int RealUsb::get_port_numbers(libusb_device* dev, uint8_t* port_numbers, int port_numbers_len) {
    return libusb_get_port_numbers(dev, port_numbers, port_numbers_len);
}
uint8_t RealUsb::get_bus_number(libusb_device* dev) {
    return libusb_get_bus_number(dev);
}
uint8_t RealUsb::get_device_address(libusb_device* dev) {
    return libusb_get_device_address(dev);
}
int RealUsb::get_device_speed(libusb_device* dev) {
    return libusb_get_device_speed(dev);
}
libusb_device* RealUsb::ref_device(libusb_device* dev) {
    return libusb_ref_device(dev);
}
void RealUsb::unref_device(libusb_device* dev) {
    libusb_unref_device(dev);
}
int RealUsb::open(libusb_device* dev, libusb_device_handle** handle) {
    return libusb_open(dev, handle);
}
void RealUsb::close(libusb_device_handle* handle) {
    libusb_close(handle);
}
libusb_device* RealUsb::get_device(libusb_device_handle* handle) {
    return libusb_get_device(handle);
}
int RealUsb::get_string_descriptor_ascii(libusb_device_handle* handle, uint8_t desc_index,
                                         unsigned char* data, int length) {
    return libusb_get_string_descriptor_ascii(handle, desc_index, data, length);
}
int RealUsb::set_auto_detach_kernel_driver(libusb_device_handle* handle, int enable) {
    return libusb_set_auto_detach_kernel_driver(handle, enable);
}
int RealUsb::claim_interface(libusb_device_handle* handle, int interface_number) {
    return libusb_claim_interface(handle, interface_number);
}
int RealUsb::release_interface(libusb_device_handle* handle, int interface_number) {
    return libusb_release_interface(handle, interface_number);
}
int RealUsb::clear_halt(libusb_device_handle* handle, unsigned char endpoint) {
    return libusb_clear_halt(handle, endpoint);
}
int RealUsb::reset_device(libusb_device_handle* handle) {
    return libusb_reset_device(handle);
}
const char* RealUsb::error_name(int error_code) {
    return libusb_error_name(error_code);
}

}  // namespace platform
