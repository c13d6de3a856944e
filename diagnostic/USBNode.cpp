#include "diagnostic/USBNode.h"

#include <QJsonArray>
#include <QString>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <utility>

#include "bh_input/grabber/DeviceList.h"
#include "bh_input/grabber/gmsl/ArgusCamera.h"
#include "diagnostic/DiagnosticRunner.h"
#include "diagnostic/ProcessorNode.h"
#include "platform/Platform.h"
#include "support/SiteConfig.h"

namespace {

const char kUnableToScan[] =
    "<b>Unable to scan USB devices</b> <br/> Make sure that your Operating system and USB drivers are up to "
    "date.";
const char kFlipCable[] =
    "<b>Camera not detected</b><br/> <b>Flip</b> the Type-C USB cable connected to the KOV or <b>replug</b> "
    "the camera. Make sure to use a USB 3.0 port.";
const char kNoMotionSensors[] =
    "<b>Camera motion sensors not detected</b><br/> Please unplug and <b>replug</b> your camera, wait for 5 "
    "seconds and restart the diagnostic tool.";
const char kSharedController[] =
    "<b>Multiple cameras are connected to the same USB controller</b><br/> If you experience drop frames, we "
    "recommend using PCIe add-on cards to improve USB bandwidth.";
const char kFirmwareDamaged[] =
    "<b>Internal firmware damaged</b> <br/> Please contact the support with the generated diagnostic file. "
    "<a href='mailto:{SUPPORT_MAIL}' style='color: #d9ff42;' >{SUPPORT_MAIL}</a>";
const char kUsb2Connection[] =
    "<b>USB 2.0 connection detected</b><br/> Please connect your camera to an <b>USB 3.0</b> port.";
const char kNoGmslDriver[] = "<b>No GMSL driver found.</b><br/> USB camera are not impacted by this.";
const char kGmslDriverIncompatible[] =
    "<b>GMSL driver incompatible with your L4T version.</b> <br/> If you updated L4T, you should update the "
    "GMSL driver too.";
const char kConnectCamera[] = "Please connect a camera to test the USB connection.";

constexpr uint16_t kMakerVendor = 0x2B03;
constexpr uint16_t kBridgeVendor = 0x05A9;  // the camera bridge's boot loader
constexpr uint16_t kBridgeBootLoader = 0x0580;
constexpr uint16_t kDfuVendor = 0x0483;  // the MCU's DFU boot loader
constexpr uint16_t kDfuProduct = 0xDF11;
constexpr int kMaxPorts = 128;
constexpr int kNoPathDevice = 16;

bool isCameraVideo(uint16_t vendor, uint16_t product) {
    if (vendor != kMakerVendor)
        return false;
    switch (product) {
        case 0xF580:
        case 0xF582:
        case 0xF680:
        case 0xF682:
        case 0xF780:
        case 0xF880:
            return true;
        default:
            return false;
    }
}

bool isCameraMcu(uint16_t vendor, uint16_t product) {
    return vendor == kMakerVendor && (product == 0xF681 || product == 0xF781 || product == 0xF881);
}

bool isPicoVideo(uint16_t vendor, uint16_t product) {
    return vendor == kMakerVendor && (product == 0xF680 || product == 0xF682);
}

bool isPicoMcu(uint16_t vendor, uint16_t product) {
    return vendor == kMakerVendor && product == 0xF681;
}

bool isFamily(uint16_t vendor) {
    return vendor == kMakerVendor || vendor == kBridgeVendor;
}

bool isBridgeBootLoader(uint16_t vendor, uint16_t product) {
    return vendor == kBridgeVendor && product == kBridgeBootLoader;
}

// The device list of the default context for one walk; released (list and
// context) when the walk ends. A negative count means the scan failed.
struct UsbScan {
    libusb_device** list = nullptr;
    ssize_t count = -1;

    explicit UsbScan(bool quiet) {
        platform::Usb& usb = platform::usb();
        if (usb.init(nullptr) < 0)
            return;
        if (quiet)
            usb.set_debug(nullptr, 0);
        count = usb.get_device_list(nullptr, &list);
        if (count < 0) {
            list = nullptr;
            usb.exit(nullptr);
        }
    }
    ~UsbScan() {
        if (count < 0)
            return;
        platform::Usb& usb = platform::usb();
        usb.free_device_list(list, 1);
        usb.exit(nullptr);
    }
    UsbScan(const UsbScan&) = delete;
    UsbScan& operator=(const UsbScan&) = delete;
    bool ok() const { return count >= 0; }
};

std::vector<uint8_t> portPathOf(libusb_device* device) {
    uint8_t numbers[kMaxPorts] = {};
    const int n = platform::usb().get_port_numbers(device, numbers, kMaxPorts);
    if (n <= 0)
        return {};
    return std::vector<uint8_t>(numbers, numbers + std::min(n, kMaxPorts));
}

void writeDescriptorFields(QJsonObject& entry, const libusb_device_descriptor& d, uint8_t bus) {
    entry.insert("bLength", d.bLength);
    entry.insert("bDescriptorType", d.bDescriptorType);
    entry.insert("busNumber", bus);
    entry.insert("bcdUSB", QString::fromStdString(usbBcdText(d.bcdUSB)));
    entry.insert("bcdDevice", QString::fromStdString(usbBcdText(d.bcdDevice)));
    entry.insert("bcdUSBClass", d.bDeviceClass);
    entry.insert("bcdUSBSubClass", d.bDeviceSubClass);
    entry.insert("bDeviceProtocol", d.bDeviceProtocol);
    entry.insert("bMaxPacketSize0", d.bMaxPacketSize0);
    entry.insert("iManufacturer", d.iManufacturer);
    entry.insert("iProduct", d.iProduct);
    entry.insert("iSerial", d.iSerialNumber);
    entry.insert("bNumConfigurations", d.bNumConfigurations);
}

}  // namespace

std::string usbIdText(uint16_t id) {
    char text[8];
    std::snprintf(text, sizeof text, "0x%04x", static_cast<unsigned>(id));
    return text;
}

std::string usbBcdText(uint16_t bcd) {
    return std::to_string(bcd >> 8) + "." + std::to_string(bcd & 0xFF);
}

std::string usbPortPathText(const std::vector<uint8_t>& ports) {
    std::string path;
    for (uint8_t port : ports)
        path += "/" + std::to_string(port);
    return path;
}

std::string usbDeviceName(uint16_t vendor, uint16_t product) {
    if (isBridgeBootLoader(vendor, product))
        return "580";
    if (vendor == kDfuVendor && product == kDfuProduct)
        return "DFU Device (Corrupted fw) ";
    if (vendor != kMakerVendor)
        return "Unknown";
    switch (product) {
        case 0xF580:
        case 0xF582:
            return "KOV";
        case 0xF680:
        case 0xF682:
            return "KOV pico";
        case 0xF780:
            return "KOVT";
        case 0xF880:
            return "KOVTr";
        case 0xF681:
            return "KOV pico MCU";
        case 0xF781:
            return "KOVT MCU";
        case 0xF881:
            return "KOVTr MCU";
        default:
            return "Unknown";
    }
}

double usbModeOf(uint16_t bcdUSB) {
    return (bcdUSB >> 8) >= 3 ? 3.0 : 2.0;
}

std::string gmslSubModelName(int device) {
    switch (device) {
        case 6:
            return "Unsupported : LI-Hawk";
        case 7:
            return "KOV-QG Alpha";
        case 8:
            return "KOV-QG Beta";
        case 9:
            return "KOV-QG Pico";
        default:
            return {};
    }
}

std::string gmslDriverVerdict(const std::string& dpkgOutput, const std::string& l4tVersion) {
    if (l4tVersion.empty())
        return "KO";
    const size_t at = dpkgOutput.find(l4tVersion);
    if (at == std::string::npos)
        return "KO";
    // dpkg -l starts each package line with its two-letter state; "ii" is an
    // installed package. Look at the line that names this L4T version.
    const size_t newline = at == 0 ? std::string::npos : dpkgOutput.rfind('\n', at - 1);
    const size_t lineStart = newline == std::string::npos ? 0 : newline + 1;
    return dpkgOutput.compare(lineStart, 2, "ii") == 0 ? "OK" : "KO";
}

USBNode::USBNode() : DiagnosticNode("Devices") {}

void USBNode::pause() {
    if (stepPause.count() > 0)
        platform::clock().sleepFor(stepPause);
}

void USBNode::setProgress(float value) {
    setPercent(value);
    pause();
}

void USBNode::runDiagnostic(QJsonObject& root) {
    setProgress(10);
    error_reported = false;
    shared_controller_reported = false;
    ports.clear();
    countPicoDevices(root);

    setProgress(20);
    FindUSBCamera(root);

    setProgress(80);
    FindGMSLDriver(root);
    FindGMSLCamera(root);

    setProgress(90);
    if (!error_reported) {
        // Only read: whether a camera was seen changes nothing from here on.
        (void)root.value("KOVDetected").toBool();
        error_reported = true;
    }
    if (!camera_test_reported_that_USB_should_not_be_tested && !camera_test_bandwidth_message.empty())
        addMessage(root, static_cast<DIAGNOSTIC_MESSAGE_LEVEL>(camera_test_bandwidth_message_level),
                   camera_test_bandwidth_message);
    if (camera_test_reported_that_USB_should_not_be_tested && messages.empty())
        addMessage(root, DIAGNOSTIC_NOT_TESTED, kConnectCamera);

    // No message after this store: the watchers read them once they see 100.
    setProgress(100);
}

void USBNode::countPicoDevices(QJsonObject& root) {
    int picoVideo = 0;
    int picoMcu = 0;
    {
        UsbScan scan(true);
        if (!scan.ok()) {
            addMessage(root, DIAGNOSTIC_ERROR, kUnableToScan);
        } else {
            for (ssize_t i = 0; i < scan.count; ++i) {
                libusb_device_descriptor d{};
                if (platform::usb().get_device_descriptor(scan.list[i], &d) < 0)
                    continue;
                picoVideo += isPicoVideo(d.idVendor, d.idProduct) ? 1 : 0;
                picoMcu += isPicoMcu(d.idVendor, d.idProduct) ? 1 : 0;
            }
        }
    }
    // The camera test has its own word on a missing or doubled camera.
    if (camera_test_reported_that_USB_should_not_be_tested || camera_test_thrown_multiple_camera_error)
        return;
    if (picoMcu > 0 && picoVideo == 0) {
        addMessage(root, DIAGNOSTIC_ERROR, kFlipCable);
        error_reported = true;
    } else if (picoVideo > 0 && picoMcu == 0) {
        addMessage(root, DIAGNOSTIC_ERROR, kNoMotionSensors);
        error_reported = true;
    }
}

void USBNode::checkSharedController(QJsonObject& root, const std::vector<uint8_t>& devicePorts) {
    if (devicePorts.empty())
        return;
    for (const std::vector<uint8_t>& seen : ports) {
        if (seen.empty() || seen[0] != devicePorts[0])
            continue;
        // Same root port: two cameras share its controller when their paths
        // part somewhere below it.
        const size_t common = std::min(seen.size(), devicePorts.size());
        const bool differ = !std::equal(seen.begin(), seen.begin() + common, devicePorts.begin());
        if (differ && !shared_controller_reported) {
            addMessage(root, DIAGNOSTIC_ERROR, kSharedController);
            shared_controller_reported = true;
        }
        break;
    }
}

void USBNode::FindUSBCamera(QJsonObject& root) {
    platform::Usb& usb = platform::usb();
    UsbScan scan(false);
    if (!scan.ok()) {
        addMessage(root, DIAGNOSTIC_ERROR, kUnableToScan);
        return;
    }
    root.insert("CorruptedFirmware", false);

    QJsonArray usbList;
    for (ssize_t i = 0; i < scan.count; ++i) {
        libusb_device* device = scan.list[i];
        QJsonObject entry;
        libusb_device_descriptor first{};
        if (usb.get_device_descriptor(device, &first) < 0)
            first = libusb_device_descriptor{};  // the second read below decides
        entry.insert("idVendor", QString::fromStdString(usbIdText(first.idVendor)));
        entry.insert("idProduct", QString::fromStdString(usbIdText(first.idProduct)));
        const std::vector<uint8_t> devicePorts = portPathOf(device);
        if (!devicePorts.empty())
            entry.insert("USB_path", QString::fromStdString(usbPortPathText(devicePorts)));

        bool bootLoaderBranch = false;
        if (isFamily(first.idVendor)) {
            const bool video = isCameraVideo(first.idVendor, first.idProduct);
            if (video) {
                checkSharedController(root, devicePorts);
                ports.push_back(devicePorts);
            }
            if (isBridgeBootLoader(first.idVendor, first.idProduct)) {
                bootLoaderBranch = true;
                if (!error_reported && !camera_test_thrown_multiple_camera_error) {
                    addMessage(root, DIAGNOSTIC_ERROR, site::expand(kFirmwareDamaged));
                    error_reported = true;
                }
                root.insert("CorruptedFirmware", true);
            }
            if (video) {
                root.insert("KOVDetected", true);
                root.insert("KOV Camera Module Detected", first.idProduct);
            }
            if (isCameraMcu(first.idVendor, first.idProduct)) {
                root.insert("MCUDetected", true);
                root.insert("KOV MCU Module Detected", first.idProduct);
            }
        }

        usb.ref_device(device);
        libusb_device_descriptor d{};
        if (usb.get_device_descriptor(device, &d) < 0) {
            // The only step that ends the scan: "USBList" is not stored.
            usb.unref_device(device);
            return;
        }
        const bool video = isCameraVideo(d.idVendor, d.idProduct);
        const bool mcu = isCameraMcu(d.idVendor, d.idProduct);

        entry.insert("device", QString::fromStdString(usbDeviceName(d.idVendor, d.idProduct)));
        if (d.idVendor == kDfuVendor && d.idProduct == kDfuProduct)
            entry.insert("MCU Firmware missing", true);
        writeDescriptorFields(entry, d, usb.get_bus_number(device));

        const double mode = usbModeOf(d.bcdUSB);
        entry.insert("USBMode", mode);
        // An MCU is a USB 2.0 device: it never counts above 2.0 for the camera.
        if (isFamily(d.idVendor))
            root.insert("USBMode", mcu ? std::min(mode, 2.0) : mode);
        if (video && mode < 3.0 && !error_reported && !camera_test_reported_that_USB_should_not_be_tested &&
            !camera_test_thrown_multiple_camera_error) {
            addMessage(root, DIAGNOSTIC_ERROR, kUsb2Connection);
            error_reported = true;
        }
        if (!video && !mcu && bootLoaderBranch)
            entry.insert("FirmwareIssue", true);
        usb.unref_device(device);
        usbList.append(entry);
    }
    root.insert("USBList", usbList);
}

void USBNode::FindGMSLDriver(QJsonObject& root) {
    root.insert("GMSL driver compatiblity", QString("Unknown"));
    // The release goes to a scratch object: "L4T version" belongs to "Processor".
    QJsonObject scratch;
    const std::string l4tVersion = getL4TVersion(scratch);
    std::string output;
    try {
        output = executeCMD("dpkg -l | grep brennhaven");
    } catch (const std::exception&) {
        // No shell: nothing could be listed, which reads as no driver.
    }
    root.insert("GMSL driver", QString::fromStdString(output));
    if (output.size() < 10) {
        addMessage(root, DIAGNOSTIC_WARNING, kNoGmslDriver);
        return;
    }
    const std::string verdict = gmslDriverVerdict(output, l4tVersion);
    root.insert("GMSL driver compatiblity", QString::fromStdString(verdict));
    if (verdict != "OK")
        addMessage(root, DIAGNOSTIC_ERROR, kGmslDriverIncompatible);
}

void USBNode::FindGMSLCamera(QJsonObject& root) {
    std::vector<std::pair<bh::BH_DEVICE, std::string>> devices;
    std::vector<DeviceProperties> records;
    try {
        devices = bh::getGMSLDevice();
        records = ArgusCamera::getGMSLDevices(false, false);
    } catch (const std::exception&) {
        // A discovery that cannot take its lock lists what it had.
    }
    QJsonArray gmslList;
    for (const auto& [device, path] : devices) {
        QJsonObject entry;
        if (device != kNoPathDevice)
            entry.insert("path", QString::fromStdString(path));
        const std::string subModel = gmslSubModelName(device);
        if (!subModel.empty())
            entry.insert("Sub Model", QString::fromStdString(subModel));
        for (const DeviceProperties& record : records) {
            if (record.path.empty() || path != record.path.c_str())
                continue;
            entry.insert("id", record.id);
            entry.insert("state", QString(record.camera_state == bh::DEVICE_AVAILABLE ? "Available"
                                                                                      : "Not Available"));
            entry.insert("Serial", QString::number(record.serial_number));
            break;
        }
        gmslList.append(entry);
    }
    root.insert("GMSLList", gmslList);
}
