// The USB scan of the "Devices" node (FindUSBCamera): the keys of each
// "USBList" object, the device names, the speed of the camera, the shared root
// port, boot loaders, and the scan that ends on a failed descriptor read.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/SiteConfig.h"
#include "test_usb_node_support.h"

using usbnodetest::handDevice;
using usbnodetest::UsbNodeTest;
using Strings = std::vector<std::string>;

namespace {

const char kUsb2[] =
    "<b>USB 2.0 connection detected</b><br/> Please connect your camera to an <b>USB 3.0</b> port.";
const char kSharedController[] =
    "<b>Multiple cameras are connected to the same USB controller</b><br/> If you experience drop frames, we "
    "recommend using PCIe add-on cards to improve USB bandwidth.";

// The damaged-firmware text with the support mailbox this build was given.
std::string firmwareDamaged() {
    const std::string mail = site::SUPPORT_MAIL;
    return "<b>Internal firmware damaged</b> <br/> Please contact the support with the generated diagnostic "
           "file. <a href='mailto:" +
           mail + "' style='color: #d9ff42;' >" + mail + "</a>";
}

}  // namespace

TEST(UsbNodeText, IdsAreZeroXAndFourHexDigits) {
    EXPECT_EQ(usbIdText(0x2B03), "0x2b03");
    EXPECT_EQ(usbIdText(0x0483), "0x0483");
    EXPECT_EQ(usbIdText(0x0000), "0x0000");
    EXPECT_EQ(usbIdText(0x000F), "0x000f");
    EXPECT_EQ(usbIdText(0xFFFF), "0xffff");
}

TEST(UsbNodeText, BcdIsHighByteDotLowByteInDecimal) {
    EXPECT_EQ(usbBcdText(0x0320), "3.32");
    EXPECT_EQ(usbBcdText(0x0310), "3.16");
    EXPECT_EQ(usbBcdText(0x0200), "2.0");
    EXPECT_EQ(usbBcdText(0x0100), "1.0");
    EXPECT_EQ(usbBcdText(0x0305), "3.5");
    EXPECT_EQ(usbBcdText(0x0000), "0.0");
    EXPECT_EQ(usbBcdText(0xFFFF), "255.255");
}

TEST(UsbNodeText, PortPathHasASlashBeforeEachPort) {
    EXPECT_EQ(usbPortPathText({1, 3, 2}), "/1/3/2");
    EXPECT_EQ(usbPortPathText({4}), "/4");
    EXPECT_EQ(usbPortPathText({255, 10}), "/255/10");
    EXPECT_EQ(usbPortPathText({}), "");
}

TEST(UsbNodeText, ModeFollowsTheHighByteOfBcdUsb) {
    EXPECT_EQ(usbModeOf(0x0300), 3.0);
    EXPECT_EQ(usbModeOf(0x0320), 3.0);
    EXPECT_EQ(usbModeOf(0x0400), 3.0);
    EXPECT_EQ(usbModeOf(0x02FF), 2.0);
    EXPECT_EQ(usbModeOf(0x0210), 2.0);
    EXPECT_EQ(usbModeOf(0x0110), 2.0);
    EXPECT_EQ(usbModeOf(0x0000), 2.0);
}

TEST(UsbNodeText, DeviceNamesByTheTable) {
    struct Row {
        uint16_t vendor, product;
        const char* name;
    };
    const Row rows[] = {
        {0x05A9, 0x0580, "580"},
        {0x2B03, 0xF580, "KOV"},
        {0x2B03, 0xF582, "KOV"},
        {0x2B03, 0xF680, "KOV pico"},
        {0x2B03, 0xF682, "KOV pico"},
        {0x2B03, 0xF780, "KOVT"},
        {0x2B03, 0xF880, "KOVTr"},
        {0x2B03, 0xF681, "KOV pico MCU"},
        {0x2B03, 0xF781, "KOVT MCU"},
        {0x2B03, 0xF881, "KOVTr MCU"},
        {0x0483, 0xDF11, "DFU Device (Corrupted fw) "},
        {0x2B03, 0xF581, "Unknown"},
        {0x2B03, 0x0580, "Unknown"},
        {0x05A9, 0x0581, "Unknown"},
        {0x05A9, 0xF580, "Unknown"},
        {0x0483, 0xDF12, "Unknown"},
        {0x046D, 0xC31C, "Unknown"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(usbDeviceName(row.vendor, row.product), row.name)
            << std::hex << row.vendor << ":" << row.product;
}

TEST_F(UsbNodeTest, HandDescribedDeviceGivesEveryKeyInItsFormat) {
    sim::UsbDevice d = handDevice(0x2B03, 0xF682, 3, {1, 3, 2}, 0x0310);
    d.descriptor.bcdDevice = 0x0215;
    d.descriptor.deviceClass = 0xEF;
    d.descriptor.deviceSubClass = 2;
    d.descriptor.deviceProtocol = 1;
    d.descriptor.maxPacketSize0 = 9;
    d.descriptor.numConfigurations = 1;
    d.descriptor.manufacturer = "KOV";
    d.descriptor.product = "KOV Pico";
    d.descriptor.serial = "OV0001";
    sim::UsbDevice mcu = handDevice(0x2B03, 0xF681, 1, {2}, 0x0200);
    mcu.descriptor.maxPacketSize0 = 64;
    mcu.descriptor.bcdDevice = 0x0305;
    installHand({d, mcu});

    QJsonObject root;
    node.FindUSBCamera(root);

    const QJsonObject expectedCamera{
        {"idVendor", "0x2b03"},    {"idProduct", "0xf682"}, {"USB_path", "/1/3/2"}, {"device", "KOV pico"},
        {"bLength", 18},           {"bDescriptorType", 1},  {"busNumber", 3},       {"bcdUSB", "3.16"},
        {"bcdDevice", "2.21"},     {"bcdUSBClass", 239},    {"bcdUSBSubClass", 2},  {"bDeviceProtocol", 1},
        {"bMaxPacketSize0", 9},    {"iManufacturer", 1},    {"iProduct", 2},        {"iSerial", 3},
        {"bNumConfigurations", 1}, {"USBMode", 3.0},
    };
    const QJsonObject expectedMcu{
        {"idVendor", "0x2b03"},    {"idProduct", "0xf681"}, {"USB_path", "/2"},    {"device", "KOV pico MCU"},
        {"bLength", 18},           {"bDescriptorType", 1},  {"busNumber", 1},      {"bcdUSB", "2.0"},
        {"bcdDevice", "3.5"},      {"bcdUSBClass", 0},      {"bcdUSBSubClass", 0}, {"bDeviceProtocol", 0},
        {"bMaxPacketSize0", 64},   {"iManufacturer", 0},    {"iProduct", 0},       {"iSerial", 0},
        {"bNumConfigurations", 1}, {"USBMode", 2.0},
    };
    const QJsonObject expectedRoot{
        {"CorruptedFirmware", false},
        {"USBList", QJsonArray{expectedCamera, expectedMcu}},
        {"KOVDetected", true},
        {"KOV Camera Module Detected", 0xF682},
        {"MCUDetected", true},
        {"KOV MCU Module Detected", 0xF681},
        {"USBMode", 2.0},
    };
    EXPECT_EQ(root, expectedRoot) << dump(root);
    EXPECT_TRUE(node.messages.empty());
    EXPECT_EQ(liveUsbObjects(), 0u);
}

TEST_F(UsbNodeTest, DeviceWithoutPortsHasNoPathKey) {
    installHand({handDevice(0x1D6B, 0x0003, 2, {}, 0x0300)});  // a root hub
    QJsonObject root;
    node.FindUSBCamera(root);
    const QJsonArray list = root.value("USBList").toArray();
    ASSERT_EQ(list.size(), 1);
    EXPECT_FALSE(list[0].toObject().contains("USB_path"));
    EXPECT_EQ(list[0].toObject().value("device").toString(), "Unknown");
    EXPECT_FALSE(root.contains("USBMode"));  // not a device of the family
}

TEST_F(UsbNodeTest, EveryDeviceOfTheTableIsNamedInTheList) {
    installHand({handDevice(0x2B03, 0xF580, 2, {1}, 0x0300), handDevice(0x2B03, 0xF582, 2, {2}, 0x0300),
                 handDevice(0x2B03, 0xF680, 2, {3}, 0x0300), handDevice(0x2B03, 0xF682, 2, {4}, 0x0300),
                 handDevice(0x2B03, 0xF780, 2, {5}, 0x0300), handDevice(0x2B03, 0xF880, 2, {6}, 0x0300),
                 handDevice(0x2B03, 0xF681, 1, {1}, 0x0200), handDevice(0x2B03, 0xF781, 1, {2}, 0x0200),
                 handDevice(0x2B03, 0xF881, 1, {3}, 0x0200), handDevice(0x05A9, 0x0580, 1, {4}, 0x0200),
                 handDevice(0x0483, 0xDF11, 1, {5}, 0x0200), handDevice(0x8087, 0x0026, 1, {6}, 0x0200)});
    camera_test_thrown_multiple_camera_error = true;
    QJsonObject root;
    node.FindUSBCamera(root);
    Strings names;
    for (const QJsonValue& v : root.value("USBList").toArray())
        names.push_back(v.toObject().value("device").toString().toStdString());
    EXPECT_EQ(names, (Strings{"KOV", "KOV", "KOV pico", "KOV pico", "KOVT", "KOVTr", "KOV pico MCU",
                              "KOVT MCU", "KOVTr MCU", "580", "DFU Device (Corrupted fw) ", "Unknown"}));
    // The last video device and the last MCU of the list.
    EXPECT_EQ(root.value("KOV Camera Module Detected"), QJsonValue(0xF880));
    EXPECT_EQ(root.value("KOV MCU Module Detected"), QJsonValue(0xF881));
}

TEST_F(UsbNodeTest, BootLoadersAreMarkedAndReported) {
    installShipped("boot_loader");
    QJsonObject root;
    node.FindUSBCamera(root);

    EXPECT_EQ(root.value("CorruptedFirmware"), QJsonValue(true));
    EXPECT_EQ(texts(root, "error"), Strings{firmwareDamaged()});
    EXPECT_TRUE(node.error_reported);

    const QJsonObject bridge = usbEntry(root, "0x05a9", "0x0580");
    EXPECT_EQ(bridge.value("device").toString(), "580");
    EXPECT_EQ(bridge.value("FirmwareIssue"), QJsonValue(true));
    EXPECT_FALSE(bridge.contains("MCU Firmware missing"));
    EXPECT_EQ(bridge.value("USB_path").toString(), "/1");

    const QJsonObject dfu = usbEntry(root, "0x0483", "0xdf11");
    EXPECT_EQ(dfu.value("device").toString(), "DFU Device (Corrupted fw) ");
    EXPECT_EQ(dfu.value("MCU Firmware missing"), QJsonValue(true));
    EXPECT_FALSE(dfu.contains("FirmwareIssue"));
    EXPECT_EQ(dfu.value("USB_path").toString(), "/2");
    EXPECT_EQ(dfu.value("iProduct"), QJsonValue(2));

    EXPECT_FALSE(root.contains("KOVDetected"));
    EXPECT_FALSE(root.contains("MCUDetected"));
}

TEST_F(UsbNodeTest, DfuBootLoaderAloneIsNoDamagedBridge) {
    installHand({handDevice(0x0483, 0xDF11, 1, {5}, 0x0200)});
    QJsonObject root;
    node.FindUSBCamera(root);
    EXPECT_EQ(root.value("CorruptedFirmware"), QJsonValue(false));
    EXPECT_TRUE(node.messages.empty());
    EXPECT_FALSE(root.contains("USBMode"));
    EXPECT_EQ(usbEntry(root, "0x0483", "0xdf11").value("MCU Firmware missing"), QJsonValue(true));
}

TEST_F(UsbNodeTest, DamagedBridgeIsSilentAfterAnotherErrorOrWithSeveralCameras) {
    // An earlier error of the speed kind keeps the bridge quiet, and the
    // report still marks the firmware.
    installHand({handDevice(0x2B03, 0xF580, 1, {3}, 0x0200), handDevice(0x05A9, 0x0580, 1, {4}, 0x0200)});
    QJsonObject root;
    node.FindUSBCamera(root);
    EXPECT_EQ(texts(root, "error"), Strings{kUsb2});
    EXPECT_EQ(root.value("CorruptedFirmware"), QJsonValue(true));
    EXPECT_EQ(usbEntry(root, "0x05a9", "0x0580").value("FirmwareIssue"), QJsonValue(true));

    USBNode other;
    camera_test_thrown_multiple_camera_error = true;
    installShipped("boot_loader");
    QJsonObject second;
    other.FindUSBCamera(second);
    EXPECT_TRUE(other.messages.empty());
    EXPECT_FALSE(other.error_reported);
    EXPECT_EQ(second.value("CorruptedFirmware"), QJsonValue(true));
}

TEST_F(UsbNodeTest, CameraBelowUsb3GetsTheUsb2Error) {
    installShipped("kov_usb2");
    QJsonObject root;
    node.FindUSBCamera(root);
    EXPECT_EQ(texts(root, "error"), Strings{kUsb2});
    EXPECT_TRUE(node.error_reported);
    EXPECT_EQ(root.value("USBMode"), QJsonValue(2.0));
    EXPECT_EQ(root.value("KOVDetected"), QJsonValue(true));
    EXPECT_EQ(root.value("KOV Camera Module Detected"), QJsonValue(0xF580));
    const QJsonObject camera = usbEntry(root, "0x2b03", "0xf580");
    EXPECT_EQ(camera.value("USBMode"), QJsonValue(2.0));
    EXPECT_EQ(camera.value("bcdUSB").toString(), "2.0");
    EXPECT_EQ(camera.value("USB_path").toString(), "/3");
    EXPECT_EQ(camera.value("busNumber"), QJsonValue(1));
}

TEST_F(UsbNodeTest, Usb2ErrorIsGivenOnce) {
    installHand({handDevice(0x2B03, 0xF580, 1, {3}, 0x0210), handDevice(0x2B03, 0xF780, 1, {4}, 0x0200)});
    QJsonObject root;
    node.FindUSBCamera(root);
    EXPECT_EQ(texts(root, "error"), Strings{kUsb2});
}

TEST_F(UsbNodeTest, Usb2ErrorIsSilencedByEitherCameraTestVerdict) {
    for (int which = 0; which < 2; ++which) {
        SCOPED_TRACE(which);
        usbnodetest::clearCameraTestVerdicts();
        camera_test_reported_that_USB_should_not_be_tested = which == 0;
        camera_test_thrown_multiple_camera_error = which == 1;
        installShipped("kov_usb2");
        USBNode fresh;
        QJsonObject root;
        fresh.FindUSBCamera(root);
        EXPECT_TRUE(fresh.messages.empty());
        EXPECT_FALSE(fresh.error_reported);
        EXPECT_EQ(root.value("USBMode"), QJsonValue(2.0));
    }
}

TEST_F(UsbNodeTest, McuOnUsb2IsNoSpeedError) {
    installShipped("kov_tera_usb3");
    QJsonObject root;
    node.FindUSBCamera(root);
    EXPECT_TRUE(node.messages.empty());
    EXPECT_EQ(usbEntry(root, "0x2b03", "0xf781").value("USBMode"), QJsonValue(2.0));
    EXPECT_EQ(usbEntry(root, "0x2b03", "0xf780").value("USBMode"), QJsonValue(3.0));
}

TEST_F(UsbNodeTest, RootModeIsTheLastDeviceOfTheFamilyAndAnMcuNeverRaisesIt) {
    // An MCU that reports bcdUSB 3.0 is still a USB 2.0 device for the camera:
    // its own entry says 3.0, the camera's value becomes 2.0.
    installHand({handDevice(0x2B03, 0xF682, 2, {1}, 0x0320), handDevice(0x2B03, 0xF681, 1, {1}, 0x0300)});
    QJsonObject root;
    node.FindUSBCamera(root);
    EXPECT_EQ(usbEntry(root, "0x2b03", "0xf681").value("USBMode"), QJsonValue(3.0));
    EXPECT_EQ(root.value("USBMode"), QJsonValue(2.0));

    // The MCU listed first: the video device after it sets 3.0.
    USBNode other;
    installHand({handDevice(0x2B03, 0xF681, 1, {1}, 0x0200), handDevice(0x2B03, 0xF682, 2, {1}, 0x0320)});
    QJsonObject second;
    other.FindUSBCamera(second);
    EXPECT_EQ(second.value("USBMode"), QJsonValue(3.0));

    // A device outside the family leaves the camera's value alone.
    USBNode third;
    installHand({handDevice(0x2B03, 0xF682, 2, {1}, 0x0320), handDevice(0x046D, 0xC31C, 1, {2}, 0x0110)});
    QJsonObject thirdRoot;
    third.FindUSBCamera(thirdRoot);
    EXPECT_EQ(thirdRoot.value("USBMode"), QJsonValue(3.0));
}

TEST_F(UsbNodeTest, SharedRootPortIsReportedOnceForThreeCameras) {
    installHand({handDevice(0x2B03, 0xF682, 2, {2, 1}, 0x0320), handDevice(0x2B03, 0xF780, 2, {2, 2}, 0x0320),
                 handDevice(0x2B03, 0xF880, 2, {2, 3, 1}, 0x0320)});
    camera_test_thrown_multiple_camera_error = true;  // the camera test's own verdict does not silence this
    QJsonObject root;
    node.FindUSBCamera(root);
    EXPECT_EQ(texts(root, "error"), Strings{kSharedController});
    EXPECT_TRUE(node.shared_controller_reported);
    EXPECT_EQ(node.ports, (std::vector<std::vector<uint8_t>>{{2, 1}, {2, 2}, {2, 3, 1}}));
}

TEST_F(UsbNodeTest, CamerasOnTwoRootPortsShareNothing) {
    installHand({handDevice(0x2B03, 0xF682, 2, {1}, 0x0320), handDevice(0x2B03, 0xF780, 2, {2}, 0x0320),
                 handDevice(0x2B03, 0xF681, 1, {1}, 0x0200), handDevice(0x2B03, 0xF781, 1, {2}, 0x0200)});
    QJsonObject root;
    node.FindUSBCamera(root);
    EXPECT_TRUE(node.messages.empty());
    EXPECT_FALSE(node.shared_controller_reported);
}

TEST_F(UsbNodeTest, CameraAndItsMcuBehindOneHubAreOneCamera) {
    installHand(
        {handDevice(0x2B03, 0xF780, 2, {1, 1}, 0x0320), handDevice(0x2B03, 0xF781, 1, {1, 2}, 0x0200)});
    QJsonObject root;
    node.FindUSBCamera(root);
    EXPECT_TRUE(node.messages.empty());
}

TEST_F(UsbNodeTest, FailedSecondDescriptorReadEndsTheScanWithoutAList) {
    sim::UsbDevice broken = handDevice(0x1234, 0x5678, 1, {2}, 0x0200);
    broken.descriptorError = LIBUSB_ERROR_IO;
    installHand(
        {handDevice(0x2B03, 0xF682, 2, {1}, 0x0320), broken, handDevice(0x05A9, 0x0580, 1, {3}, 0x0200)});
    QJsonObject root;
    node.FindUSBCamera(root);
    EXPECT_FALSE(root.contains("USBList")) << dump(root);
    // What came before the broken device stays; the boot loader after it is never seen.
    EXPECT_EQ(root.value("KOVDetected"), QJsonValue(true));
    EXPECT_EQ(root.value("USBMode"), QJsonValue(3.0));
    EXPECT_EQ(root.value("CorruptedFirmware"), QJsonValue(false));
    EXPECT_TRUE(node.messages.empty());
    EXPECT_EQ(liveUsbObjects(), 0u);
}

TEST_F(UsbNodeTest, UsbListOfTheTwoCameraMachineKeepsBusOrder) {
    installShipped("two_cameras_one_port");
    QJsonObject root;
    node.FindUSBCamera(root);
    Strings paths;
    for (const QJsonValue& v : root.value("USBList").toArray())
        paths.push_back(v.toObject().value("USB_path").toString().toStdString());
    EXPECT_EQ(paths, (Strings{"/1", "/1/1", "/1/2", "/1", "/1"}));
    EXPECT_EQ(root.value("KOV Camera Module Detected"), QJsonValue(0xF780));
    EXPECT_EQ(root.value("KOV MCU Module Detected"), QJsonValue(0xF781));
}
