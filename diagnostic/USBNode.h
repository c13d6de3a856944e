#pragma once

#include <QJsonObject>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "diagnostic/DiagnosticNode.h"

// Pieces of the "Devices" report that stand on their own.

// A USB id as "0x" and four lower-case hexadecimal digits: 0x2B03 gives "0x2b03".
std::string usbIdText(uint16_t id);

// A BCD field as its high byte, ".", its low byte, both in decimal: 0x0320
// gives "3.32".
std::string usbBcdText(uint16_t bcd);

// A port path as "/" before each port number: {1, 3, 2} gives "/1/3/2".
std::string usbPortPathText(const std::vector<uint8_t>& ports);

// The "device" value of a USB device: "KOV", "KOV pico", ..., "Unknown".
std::string usbDeviceName(uint16_t vendor, uint16_t product);

// 3.0 when the high byte of bcdUSB is 3 or more, else 2.0.
double usbModeOf(uint16_t bcdUSB);

// The "Sub Model" text of a GMSL device code; empty for a code without one.
std::string gmslSubModelName(int device);

// "OK" when the package list names the L4T version on a line that dpkg marks
// "ii" (installed), else "KO". The caller has already set aside outputs of
// fewer than 10 characters (no driver at all).
std::string gmslDriverVerdict(const std::string& dpkgOutput, const std::string& l4tVersion);

// "Devices": the camera family on the USB bus (speed, port, boot loaders), the
// GMSL driver against the L4T release, the GMSL cameras, and the bandwidth
// verdict that the "Camera Test" node left behind.
class USBNode : public DiagnosticNode {
public:
    USBNode();

    void runDiagnostic(QJsonObject& root) override;

    // "USBList", "CorruptedFirmware", the camera and MCU keys and "USBMode".
    void FindUSBCamera(QJsonObject& root);
    // "GMSL driver" and "GMSL driver compatiblity" from the package list.
    void FindGMSLDriver(QJsonObject& root);
    // "GMSLList": one object per GMSL camera of the I2C sweep.
    void FindGMSLCamera(QJsonObject& root);

    // Pause after each progress step, so that the polling watchers show it.
    // It goes through platform::clock(), so a test can also watch it.
    std::chrono::milliseconds stepPause{200};

    // One error of the firmware or speed kind has been given: later checks
    // of that kind stay silent.
    bool error_reported = false;
    bool shared_controller_reported = false;
    // Port path of each camera video device seen so far in this scan.
    std::vector<std::vector<uint8_t>> ports;

private:
    void pause();
    void setProgress(float value);
    void countPicoDevices(QJsonObject& root);
    void checkSharedController(QJsonObject& root, const std::vector<uint8_t>& devicePorts);
};
