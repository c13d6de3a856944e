// The "Camera Test" node run whole on simulated machines (real clock, short
// pauses, a shortened bandwidth run): which machines it refuses to test, and
// what a full test of a camera writes.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

#include <string>
#include <vector>

#include "KovNodeTestSupport.h"
#include "diagnostic/KOVNode.h"
#include "tests/unit/grabber/SimScenario.h"

using testsupport::ScopedScenario;
using testsupport::ScopedSysRoot;

namespace {

const char* const kNoCamera =
    "<b>Camera not detected</b> <br/> Make sure the camera is plugged in or try another USB 3.0 port.";
const char* const kFlipCable =
    "<b>Camera not detected</b><br/> Flip the Type-C USB cable connected to the KOV or replug the camera. "
    "Make "
    "sure to use a USB 3.0 port.";
const char* const kMultipleCameras =
    "<b>Multiple cameras have been detected</b> <br/> Please connect one device at a time when running this "
    "diagnostic.";
const char* const kCameraInUse =
    "<b>Camera already in use</b> <br/> Several program cannot use the KOV at the same time, make sure to "
    "close "
    "them.";
const char* const kSpecificResolutions =
    "<b>Specific resolutions are not available</b> <br/> Replug your device or connect the camera to another "
    "<b>USB 3.0</b> port.";

using Texts = std::vector<std::string>;

class CameraTestNode : public testing::Test {
protected:
    void SetUp() override {
        testsupport::clearSharedVerdicts();
        testsupport::shortenPauses(node);
        // The logic of the run, not its length: the real 8.34 s run is
        // measured in test_grabbing_test_bandwidth.
        node.bandwidthRunSeconds = 0.5;
    }
    void TearDown() override { testsupport::clearSharedVerdicts(); }

    QJsonObject run() {
        QJsonObject root;
        node.runDiagnostic(root);
        EXPECT_EQ(node.getPercent(), 100.f);
        return root;
    }

    ScopedSysRoot pc;
    KOVNode node;
};

}  // namespace

TEST_F(CameraTestNode, NoCamera) {
    ScopedScenario scenario("no_camera");
    const QJsonObject root = run();
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ALL), Texts({kNoCamera}));
    EXPECT_EQ(root.value("error").toArray(), QJsonArray({kNoCamera}));
    EXPECT_TRUE(camera_test_reported_that_USB_should_not_be_tested);
    EXPECT_EQ(root.value("InternalDevicesCount").toInt(-1), 0);
    EXPECT_EQ(root.value("KOVCount").toInt(-1), 0);
    EXPECT_FALSE(root.contains("camera"));
    EXPECT_FALSE(root.contains("sensors"));
    EXPECT_FALSE(root.contains("resolutions"));
}

TEST_F(CameraTestNode, TwoCamerasGiveTheWarningAndNoTest) {
    ScopedScenario scenario("two_cameras_one_port");
    const QJsonObject root = run();
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ALL), Texts({kMultipleCameras}));
    EXPECT_EQ(root.value("warning").toArray(), QJsonArray({kMultipleCameras}));
    EXPECT_TRUE(node.multiple_cameras);
    EXPECT_TRUE(camera_test_thrown_multiple_camera_error);
    EXPECT_FALSE(camera_test_reported_that_USB_should_not_be_tested);
    EXPECT_EQ(root.value("KOVCount").toInt(), 2);
    EXPECT_EQ(root.value("InternalDevicesCount").toInt(), 4);
    EXPECT_FALSE(root.contains("camera"));
    EXPECT_FALSE(root.contains("resolutions"));
}

TEST_F(CameraTestNode, OnlyTheMcuOfAFlippedCableGivesTheFlipMessage) {
    // getGrabberState waits 2 s for the video node before it calls it missing.
    ScopedScenario scenario("kov_pico_mcu_only");
    const QJsonObject root = run();
    EXPECT_TRUE(node.no_video_node);
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ALL), Texts({kFlipCable}));
    EXPECT_TRUE(camera_test_reported_that_USB_should_not_be_tested);
    EXPECT_EQ(root.value("KOVCount").toInt(), 1);
    EXPECT_EQ(root.value("InternalDevicesCount").toInt(), 1);
    EXPECT_FALSE(root.contains("camera"));
}

TEST_F(CameraTestNode, CameraHeldByAnotherProgramIsInUseAndNotTested) {
    ScopedScenario scenario("kov_pico_usb3_busy");
    const QJsonObject root = run();
    EXPECT_TRUE(node.camera_busy);
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ERROR), Texts({kCameraInUse}));
    EXPECT_EQ(root.value("error").toArray(), QJsonArray({kCameraInUse}));
    // Its identity could not be read, its MCU's could.
    const QJsonObject camera = root.value("camera").toObject();
    EXPECT_NE(camera.value("Init Output").toString(), "OK");
    EXPECT_FALSE(camera.contains("Serial Number"));
    EXPECT_EQ(root.value("sensors").toObject().value("Init Output").toString(), "OK");
    EXPECT_EQ(root.value("sensors").toObject().value("Model").toString(), "KOV Pico (MCU)");
    EXPECT_FALSE(root.contains("resolutions")) << "no grabbing test";
    EXPECT_TRUE(camera_test_bandwidth_message.empty());
}

TEST_F(CameraTestNode, FullTestOfAKovPicoOnAPc) {
    ScopedScenario scenario("kov_pico_usb3");
    const QJsonObject root = run();
    EXPECT_TRUE(node.getSpecificMessageList(DIAGNOSTIC_ERROR).empty());
    EXPECT_EQ(root.value("KOVCount").toInt(), 1);
    EXPECT_EQ(root.value("InternalDevicesCount").toInt(), 2);

    const QJsonObject camera = root.value("camera").toObject();
    EXPECT_EQ(camera.value("Init Output").toString(), "OK");
    EXPECT_EQ(camera.value("Device ID").toInt(), 0);
    EXPECT_EQ(camera.value("Firmware").toInt(), 1523);
    EXPECT_EQ(camera.value("Serial Number").toInt(), 23456789);
    EXPECT_EQ(camera.value("Model").toString(), "KOV Pico");
    EXPECT_EQ(camera.value("valid").toArray(),
              QJsonArray({"<b>Camera: </b>KOV Pico", "<b>Firmware: </b>1523"}));

    const QJsonObject sensors = root.value("sensors").toObject();
    EXPECT_EQ(sensors.value("Init Output").toString(), "OK");
    EXPECT_EQ(sensors.value("Serial Number").toInt(), 23456789);

    const QJsonObject resolutions = root.value("resolutions").toObject();
    ASSERT_EQ(resolutions.size(), 10);
    for (const QString& key : resolutions.keys()) {
        const QJsonObject mode = resolutions.value(key).toObject();
        EXPECT_TRUE(mode.value("status").toBool()) << key.toStdString();
        EXPECT_EQ(mode.value("initialization").toString(), "OK") << key.toStdString();
        EXPECT_EQ(mode.value("width (output)").toInt(), mode.value("width (input)").toInt())
            << key.toStdString();
        EXPECT_EQ(mode.contains("imageCount"), key == "HD720@60") << key.toStdString();
    }
    const QJsonObject bandwidth = resolutions.value("HD720@60").toObject();
    // What it measures depends on how fast this machine copies frames (see
    // test_grabbing_test_bandwidth); here only that it measured.
    EXPECT_GT(bandwidth.value("imageCount").toInt(), 0);
    EXPECT_TRUE(bandwidth.contains("tearingCount"));
    EXPECT_TRUE(bandwidth.contains("dropCount"));
    EXPECT_FALSE(camera_test_bandwidth_message.empty());
    EXPECT_EQ(node.serial, 23456789);
}

TEST_F(CameraTestNode, OnChip33TheRunIsHd720At30AndFourModesAreMissing) {
    pc.writeChipId("33\n");
    ScopedScenario scenario("kov_pico_usb3");
    const QJsonObject root = run();
    const QJsonObject resolutions = root.value("resolutions").toObject();
    ASSERT_EQ(resolutions.size(), 10);
    for (const char* key : {"VGA@100", "HD720@60", "HD1080@30", "HD2K@15"}) {
        const QJsonObject mode = resolutions.value(key).toObject();
        EXPECT_EQ(mode.keys(), QStringList({"initCode"})) << key;
        EXPECT_EQ(mode.value("initCode").toBool(), true) << key;
    }
    for (const QString& key : resolutions.keys())
        EXPECT_EQ(resolutions.value(key).toObject().contains("imageCount"), key == "HD720@30")
            << key.toStdString();
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ERROR), Texts({kSpecificResolutions}));
    EXPECT_FALSE(camera_test_bandwidth_message.empty());
}

TEST_F(CameraTestNode, OutdatedFirmwareWarnsAndSilencesTheMissingModes) {
    // On chip 33 four modes are placeholders; after the firmware warning the
    // missing modes raise no error.
    pc.writeChipId("33\n");
    ScopedScenario scenario("kov_pico_usb3_fw1522");
    const QJsonObject root = run();
    EXPECT_TRUE(camera_test_thrown_firmware_error);
    const QJsonObject camera = root.value("camera").toObject();
    EXPECT_EQ(camera.value("Firmware").toInt(), 1522);
    EXPECT_EQ(
        camera.value("warning").toArray(),
        QJsonArray({"<b>Firmware outdated</b> (1522) <br/> Please update the internal firmware from the "
                    "<b>setting panel</b> of the <b>KOV Scout</b> tool."}));
    EXPECT_TRUE(node.getSpecificMessageList(DIAGNOSTIC_ERROR).empty());
    EXPECT_EQ(root.value("resolutions").toObject().size(), 10);
}

TEST_F(CameraTestNode, ASecondRunStartsFromCleanFlags) {
    {
        ScopedScenario scenario("two_cameras_one_port");
        run();
        EXPECT_TRUE(node.multiple_cameras);
    }
    node.messages.clear();
    node.setPercent(0);
    testsupport::clearSharedVerdicts();
    node.bandwidthRunSeconds = 0.2;
    ScopedScenario scenario("kov_pico_usb3");
    const QJsonObject root = run();
    EXPECT_FALSE(node.multiple_cameras);
    EXPECT_TRUE(root.contains("resolutions"));
}
