#pragma once

// Helpers of the built-in device types, for models that build on them.

#include <memory>
#include <string>

#include "sim/Machine.h"
#include "sim/Scenario.h"

namespace sim {

// The USB fields of an entry (vendor_id, product_id, bus, address, ports,
// speed, bcd_usb, bcd_device, device_class, manufacturer, product, serial,
// descriptor_error). A default id of -1 makes the field required.
UsbDevice readUsbDevice(const Entry& entry, Machine& machine, int defaultVendor, int defaultProduct);

// The video-node fields of an entry (card, bus_info, busy, formats), the node
// number read from numberKey.
VideoNodeConfig readVideoNode(const Entry& entry, const std::string& numberKey);

// The modalias the kernel gives a UVC interface of this device (capital hex).
std::string usbModalias(uint16_t vendor, uint16_t product, uint16_t bcdDevice);

// A camera EEPROM holding the identification block: serial (4 bytes,
// little-endian) at 0, version byte at 4, sub-model at 5, counter at 6;
// 256 bytes, one-byte register numbers, pages of 8.
std::shared_ptr<RegisterChip> makeCameraEeprom(uint32_t serial, uint8_t version, uint8_t subModel,
                                               uint8_t counter);

}  // namespace sim
