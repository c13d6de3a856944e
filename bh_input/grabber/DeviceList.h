#pragma once

// What is on the bus, seen three ways: the raw USB device list, the V4L2
// nodes, and (getGrabberList, with the USB session) the usable cameras.

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "bh_input/grabber/defines.h"

namespace bh {

// The V4L2 driver a camera node must report.
extern const char* const capability_driver;

// The device of a (vendor, product) pair; BH_DEVICE_NONE outside the table.
BH_DEVICE deviceFromUsbIds(int vendor, int product);

// Known devices on USB, in libusb's order, with their address in decimal.
std::vector<std::pair<BH_DEVICE, std::string>> getUSBDevice();

// The GMSL cameras found by the I2C sweep: ArgusCamera::getGMSLDevicesExt(false),
// or the lister a test installed in its place (null restores the discovery).
std::vector<std::pair<BH_DEVICE, std::string>> getGMSLDevice();
void setGMSLDeviceLister(std::function<std::vector<std::pair<BH_DEVICE, std::string>>()> lister);

// DEVICE_AVAILABLE, DEVICE_NOT_AVAILABLE or DEVICE_MISSING for camera `id`.
DEVICE_STATE getGrabberState(int id);

// The number of camera video devices on USB.
int getNumberOfKOV();

// How many pairs of the list have this device.
int countOccur(const std::vector<std::pair<BH_DEVICE, std::string>>& list, BH_DEVICE device);

// Finds the id-th camera node (/dev/videoN); sets path_number to N and
// returns its device, or BH_DEVICE_NONE.
BH_DEVICE findDevicePath_linux(int& path_number, int id);

// The device of one V4L2 node ("/dev/videoN"), from its sysfs modalias.
BH_DEVICE getDeviceModelfromPath(std::string path);

// The cameras that can be used now: each USB camera is opened for a moment to
// read its serial number (a camera held by another program drops out, and
// comes back as a ghost record with id -1 when its MCU is seen), then the GMSL
// cameras of the discovery. Serialised between threads and, for the USB walk,
// between processes by the lock file /tmp/.kov_enum_lock. The argument goes
// to the GMSL discovery only, as its verbose flag
// (ArgusCamera::getGMSLDevices(gmslArgument, false)).
std::vector<DeviceProperties> getGrabberList(bool gmslArgument = false);
// Replaces the GMSL discovery of getGrabberList (tests); null restores it.
void setGMSLCameraLister(std::function<std::vector<DeviceProperties>(bool)> lister);

}  // namespace bh
