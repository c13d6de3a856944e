// The "Devices" node as a whole: its progress and pauses, the Pico's video and
// MCU count, the verdicts the camera test leaves behind, and the no-camera,
// turned-plug and shared-port cases of the simulated machines.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "diagnostic/NodeList.h"
#include "test_usb_node_support.h"

using usbnodetest::handDevice;
using usbnodetest::UsbNodeTest;
using Strings = std::vector<std::string>;

namespace {

const char kFlip[] =
    "<b>Camera not detected</b><br/> <b>Flip</b> the Type-C USB cable connected to the KOV or <b>replug</b> "
    "the "
    "camera. Make sure to use a USB 3.0 port.";
const char kNoMotionSensors[] =
    "<b>Camera motion sensors not detected</b><br/> Please unplug and <b>replug</b> your camera, wait for 5 "
    "seconds and restart the diagnostic tool.";
const char kSharedController[] =
    "<b>Multiple cameras are connected to the same USB controller</b><br/> If you experience drop frames, we "
    "recommend using PCIe add-on cards to improve USB bandwidth.";
const char kConnectCamera[] = "Please connect a camera to test the USB connection.";
const char kUnableToScan[] =
    "<b>Unable to scan USB devices</b> <br/> Make sure that your Operating system and USB drivers are up to "
    "date.";
const char kNoGmslDriver[] = "<b>No GMSL driver found.</b><br/> USB camera are not impacted by this.";
const char kLowBandwidth[] =
    "<b>Low USB bandwidth</b> <br/> Read our FAQ to troubleshoot your USB connection issues. <a "
    "href='https://support.example/hc/en-us/articles/207635225' style='color: #d9ff42;' >Learn more</a><br/> "
    "<b>Frame drops:</b> 20/500<br/> <b>Frame tearing:</b> 4/500";

Strings allTexts(USBNode& node) {
    return node.getSpecificMessageList(DIAGNOSTIC_ALL);
}

}  // namespace

TEST_F(UsbNodeTest, DisplayNameIsDevices) {
    EXPECT_EQ(node.name, "Devices");
}

TEST_F(UsbNodeTest, DiagnosisEndsWithTheDevicesNodeAfterTheHostChecks) {
    const std::vector<DiagnosticNode*> nodes = buildDiagnosticNodes(false);
    ASSERT_GE(nodes.size(), 5u);
    EXPECT_EQ(nodes[0]->name, "KOV SDK");
    EXPECT_EQ(nodes[3]->name, "AI Models");
    EXPECT_EQ(nodes.back()->name, "Devices");
    EXPECT_NE(dynamic_cast<USBNode*>(nodes.back()), nullptr);
}

TEST_F(UsbNodeTest, ProgressGoesTenTwentyEightyNinetyHundredWithAPauseOf200MsAtEach) {
    installShipped("kov_pico_usb3");
    installMatchingDriver();
    EXPECT_EQ(node.stepPause, std::chrono::milliseconds(200));
    runNode();
    std::vector<float> steps;
    for (const auto& pause : clock_->pauses()) {
        if (pause.duration == std::chrono::milliseconds(200))
            steps.push_back(pause.percent);
        else
            EXPECT_LT(pause.duration, std::chrono::milliseconds(200));  // the discovery's own short waits
    }
    EXPECT_EQ(steps, (std::vector<float>{10, 20, 80, 90, 100}));
    EXPECT_EQ(node.getPercent(), 100.f);
}

TEST_F(UsbNodeTest, NoMessageIsAddedAfterTheNodeReaches100) {
    installShipped("kov_pico_mcu_only");
    camera_test_bandwidth_message = "<b>Bandwidth</b>";
    camera_test_bandwidth_message_level = DIAGNOSTIC_INFO;
    runNode();
    ASSERT_FALSE(clock_->pauses().empty());
    const auto last = clock_->pauses().back();
    EXPECT_EQ(last.percent, 100.f);
    EXPECT_EQ(last.messages, node.messages.size());
    EXPECT_GE(node.messages.size(), 2u);
}

TEST_F(UsbNodeTest, ShortenedPauseIsNotSlept) {
    installShipped("no_camera");
    node.stepPause = std::chrono::milliseconds(0);
    runNode();
    for (const auto& pause : clock_->pauses())
        EXPECT_LT(pause.duration, std::chrono::milliseconds(200));
    EXPECT_EQ(node.getPercent(), 100.f);
}

// Edge case: a machine with no camera gives one not-tested message (once the
// camera test has said that USB cannot be tested), and no device of the family
// in "USBList".
TEST_F(UsbNodeTest, NoCameraGivesOneNotTestedMessageAndNoFamilyInUsbList) {
    installShipped("no_camera");
    installMatchingDriver();
    camera_test_reported_that_USB_should_not_be_tested = true;
    const QJsonObject root = runNode();

    ASSERT_EQ(node.messages.size(), 1u) << dump(root);
    EXPECT_EQ(node.messages[0].level, DIAGNOSTIC_NOT_TESTED);
    EXPECT_EQ(node.messages[0].text, kConnectCamera);
    EXPECT_EQ(texts(root, "notTested"), Strings{kConnectCamera});

    const QJsonArray list = root.value("USBList").toArray();
    ASSERT_EQ(list.size(), 2);  // the keyboard and the hub
    for (const QJsonValue& v : list) {
        const QJsonObject entry = v.toObject();
        EXPECT_EQ(entry.value("device").toString(), "Unknown");
        EXPECT_NE(entry.value("idVendor").toString(), "0x2b03");
        EXPECT_NE(entry.value("idVendor").toString(), "0x05a9");
        EXPECT_NE(entry.value("idVendor").toString(), "0x0483");
        EXPECT_FALSE(entry.contains("FirmwareIssue"));
        EXPECT_FALSE(entry.contains("MCU Firmware missing"));
    }
    EXPECT_EQ(root.value("CorruptedFirmware"), QJsonValue(false));
    EXPECT_FALSE(root.contains("KOVDetected"));
    EXPECT_FALSE(root.contains("MCUDetected"));
    EXPECT_FALSE(root.contains("USBMode"));
    EXPECT_EQ(root.value("GMSLList"), QJsonValue(QJsonArray()));
}

TEST_F(UsbNodeTest, NoCameraWithoutTheCameraTestVerdictSaysNothing) {
    installShipped("no_camera");
    installMatchingDriver();
    runNode();
    EXPECT_EQ(allTexts(node), Strings{});
}

TEST_F(UsbNodeTest, NotTestedMessageOnlyWhenTheNodeHasNoOtherMessage) {
    // Off a Jetson the driver check warns, so the node is not silent.
    installShipped("no_camera");
    camera_test_reported_that_USB_should_not_be_tested = true;
    const QJsonObject root = runNode();
    EXPECT_EQ(allTexts(node), Strings{kNoGmslDriver});
    EXPECT_FALSE(root.contains("notTested"));
}

// Edge case: a KOV Pico with a turned Type-C plug shows its MCU only.
TEST_F(UsbNodeTest, TurnedPlugShowsTheMcuOnlyAndGetsTheFlipMessage) {
    installShipped("kov_pico_mcu_only");
    installMatchingDriver();
    const QJsonObject root = runNode();

    EXPECT_EQ(texts(root, "error"), Strings{kFlip});
    EXPECT_EQ(allTexts(node), Strings{kFlip});
    EXPECT_EQ(root.value("MCUDetected"), QJsonValue(true));
    EXPECT_EQ(root.value("KOV MCU Module Detected"), QJsonValue(0xF681));
    EXPECT_FALSE(root.contains("KOVDetected"));
    EXPECT_FALSE(root.contains("KOV Camera Module Detected"));
    const QJsonArray list = root.value("USBList").toArray();
    ASSERT_EQ(list.size(), 1);
    EXPECT_EQ(list[0].toObject().value("device").toString(), "KOV pico MCU");
    EXPECT_TRUE(node.error_reported);
}

TEST_F(UsbNodeTest, PicoVideoWithoutItsMcuGetsTheMotionSensorMessage) {
    installHand({handDevice(0x2B03, 0xF680, 2, {1}, 0x0320)});
    installMatchingDriver();
    const QJsonObject root = runNode();
    EXPECT_EQ(texts(root, "error"), Strings{kNoMotionSensors});
    EXPECT_EQ(root.value("KOVDetected"), QJsonValue(true));
    EXPECT_FALSE(root.contains("MCUDetected"));
}

TEST_F(UsbNodeTest, PicoWithItsMcuGetsNeitherMessage) {
    installShipped("kov_pico_usb3");
    installMatchingDriver();
    const QJsonObject root = runNode();
    EXPECT_EQ(allTexts(node), Strings{}) << dump(root);
    EXPECT_EQ(root.value("KOVDetected"), QJsonValue(true));
    EXPECT_EQ(root.value("MCUDetected"), QJsonValue(true));
    EXPECT_EQ(root.value("KOV Camera Module Detected"), QJsonValue(0xF682));
    EXPECT_EQ(root.value("KOV MCU Module Detected"), QJsonValue(0xF681));
}

TEST_F(UsbNodeTest, OnlyThePicoIsCounted) {
    // A KOV Tera's MCU without its video device is not a Pico with a turned plug.
    installDevices(R"({"type": "mcu", "model": "tera", "bus": 1, "address": 4})");
    installMatchingDriver();
    runNode();
    EXPECT_EQ(allTexts(node), Strings{});
}

TEST_F(UsbNodeTest, CameraTestVerdictsSilenceTheFlipAndMotionMessages) {
    installMatchingDriver();
    for (bool notTested : {true, false}) {
        for (const char* scenario : {"kov_pico_mcu_only", "pico_video_only"}) {
            SCOPED_TRACE(std::string(scenario) + (notTested ? " / USB not tested" : " / multiple cameras"));
            if (std::string(scenario) == "pico_video_only")
                installHand({handDevice(0x2B03, 0xF682, 2, {1}, 0x0320)});
            else
                installShipped(scenario);
            USBNode fresh;
            usbnodetest::clearCameraTestVerdicts();
            camera_test_reported_that_USB_should_not_be_tested = notTested;
            camera_test_thrown_multiple_camera_error = !notTested;
            const QJsonObject root = runNode(fresh);
            const Strings all = fresh.getSpecificMessageList(DIAGNOSTIC_ALL);
            EXPECT_EQ(all, notTested ? Strings{kConnectCamera} : Strings{}) << dump(root);
        }
    }
}

// Edge case: two cameras on one root port report "Multiple cameras..." once.
TEST_F(UsbNodeTest, TwoCamerasOnOneRootPortReportTheSharedControllerOnce) {
    installShipped("two_cameras_one_port");
    installMatchingDriver();
    const QJsonObject root = runNode();
    EXPECT_EQ(texts(root, "error"), Strings{kSharedController}) << dump(root);
    EXPECT_EQ(allTexts(node), Strings{kSharedController});
}

TEST_F(UsbNodeTest, MembersAreClearedWhenARunStarts) {
    installMatchingDriver();
    installShipped("two_cameras_one_port");
    runNode();
    ASSERT_TRUE(node.shared_controller_reported);

    // The same node on a machine with one camera behind a hub of root port 1:
    // no port is left from the first run, so nothing is shared.
    node.messages.clear();
    installHand(
        {handDevice(0x2B03, 0xF780, 2, {1, 4}, 0x0320), handDevice(0x2B03, 0xF781, 1, {1, 5}, 0x0200)});
    const QJsonObject root = runNode();
    EXPECT_EQ(allTexts(node), Strings{}) << dump(root);
    EXPECT_FALSE(node.shared_controller_reported);
    EXPECT_EQ(node.ports, (std::vector<std::vector<uint8_t>>{{1, 4}}));

    // And a second run on the shared port reports it again.
    node.messages.clear();
    installShipped("two_cameras_one_port");
    runNode();
    EXPECT_EQ(allTexts(node), Strings{kSharedController});
}

TEST_F(UsbNodeTest, BandwidthVerdictIsPassedThroughAtItsLevel) {
    installShipped("kov_pico_usb3");
    installMatchingDriver();
    const std::vector<std::pair<int, const char*>> levels = {
        {DIAGNOSTIC_ERROR, "error"}, {DIAGNOSTIC_WARNING, "warning"}, {DIAGNOSTIC_VALID, "valid"}};
    for (const auto& [level, key] : levels) {
        SCOPED_TRACE(key);
        USBNode fresh;
        camera_test_bandwidth_message = kLowBandwidth;
        camera_test_bandwidth_message_level = level;
        const QJsonObject root = runNode(fresh);
        EXPECT_EQ(texts(root, key), Strings{kLowBandwidth}) << dump(root);
        ASSERT_EQ(fresh.messages.size(), 1u);
        EXPECT_EQ(fresh.messages[0].level, level);
    }
}

TEST_F(UsbNodeTest, BandwidthVerdictIsSilencedWhenUsbCouldNotBeTested) {
    installShipped("kov_pico_usb3");
    installMatchingDriver();
    camera_test_bandwidth_message = kLowBandwidth;
    camera_test_bandwidth_message_level = DIAGNOSTIC_WARNING;
    camera_test_reported_that_USB_should_not_be_tested = true;
    runNode();
    EXPECT_EQ(allTexts(node), Strings{kConnectCamera});
}

TEST_F(UsbNodeTest, EmptyBandwidthVerdictAddsNothing) {
    installShipped("kov_pico_usb3");
    installMatchingDriver();
    camera_test_bandwidth_message_level = DIAGNOSTIC_ERROR;
    runNode();
    EXPECT_EQ(allTexts(node), Strings{});
}

TEST_F(UsbNodeTest, FirmwareVerdictOfTheCameraTestSilencesNothingHere) {
    installShipped("kov_usb2");
    installMatchingDriver();
    camera_test_thrown_firmware_error = true;
    runNode();
    EXPECT_EQ(
        allTexts(node),
        Strings{"<b>USB 2.0 connection detected</b><br/> Please connect your camera to an <b>USB 3.0</b> "
                "port."});
}

TEST_F(UsbNodeTest, UnlistableBusIsReportedByTheCountAndByTheScan) {
    installDevices(R"({"type": "uvc_camera", "product_id": "0xF682", "bus": 2, "ports": [1], "speed": "super",
                       "video_node": 0})");
    machine().usbFaults().listError = LIBUSB_ERROR_NO_MEM;
    installMatchingDriver();
    const QJsonObject root = runNode();
    EXPECT_EQ(texts(root, "error"), (Strings{kUnableToScan, kUnableToScan}));
    EXPECT_FALSE(root.contains("USBList"));
    EXPECT_FALSE(root.contains("CorruptedFirmware"));
    EXPECT_EQ(root.value("GMSL driver compatiblity").toString(), "OK");
    EXPECT_EQ(node.getPercent(), 100.f);
    EXPECT_EQ(liveUsbObjects(), 0u);
}

TEST_F(UsbNodeTest, LibraryThatCannotStartIsReportedLikeAnUnlistableBus) {
    installShipped("kov_pico_usb3");
    machine().usbFaults().initError = LIBUSB_ERROR_OTHER;
    installMatchingDriver();
    const QJsonObject root = runNode();
    EXPECT_EQ(texts(root, "error"), (Strings{kUnableToScan, kUnableToScan}));
    EXPECT_FALSE(root.contains("USBList"));
    EXPECT_EQ(node.getPercent(), 100.f);
}

TEST_F(UsbNodeTest, NodeObjectHoldsTheListsAndTheDriverKeys) {
    installShipped("kov_pico_usb3");
    installMatchingDriver();
    const QJsonObject root = runNode();
    for (const char* key :
         {"CorruptedFirmware", "USBList", "KOVDetected", "MCUDetected", "KOV Camera Module Detected",
          "KOV MCU Module Detected", "USBMode", "GMSL driver compatiblity", "GMSL driver", "GMSLList"})
        EXPECT_TRUE(root.contains(key)) << key;
    // The release is the "Processor" node's key.
    EXPECT_FALSE(root.contains("L4T version"));
    EXPECT_EQ(liveUsbObjects(), 0u);
}
