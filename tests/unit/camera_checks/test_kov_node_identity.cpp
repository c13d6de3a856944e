// The camera's identity (findKOVDevice) on a scripted camera, and the sensors
// MCU's (findMCUDevice) on simulated machines.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

#include <string>
#include <vector>

#include "KovNodeTestSupport.h"
#include "diagnostic/KOVNode.h"
#include "support/SiteConfig.h"
#include "tests/unit/grabber/SimScenario.h"

using testsupport::ScopedScenario;
using testsupport::ScopedScriptedCamera;
using testsupport::ScopedSteppedClock;

namespace {

const char* const kFlipCable =
    "<b>Camera not detected</b><br/> Flip the Type-C USB cable connected to the KOV or replug the camera. "
    "Make "
    "sure to use a USB 3.0 port.";

class CameraIdentity : public testing::Test {
protected:
    void SetUp() override { testsupport::clearSharedVerdicts(); }
    void TearDown() override { testsupport::clearSharedVerdicts(); }

    ScopedSteppedClock clock;
    ScopedScriptedCamera camera;
    KOVNode node;
};

QJsonArray texts(std::initializer_list<const char*> list) {
    QJsonArray array;
    for (const char* text : list)
        array.append(text);
    return array;
}

}  // namespace

TEST_F(CameraIdentity, GoodOpenWritesTheIdentityAndItsLines) {
    camera.script().serial = 23456789;
    const QJsonObject object = node.findKOVDevice();

    ASSERT_EQ(camera.script().calls.size(), 1u);
    const testsupport::SetUpCall& call = camera.script().calls[0];
    EXPECT_EQ(call.id, 0);
    // The grabber's USB defaults: 2560 x 720 at 15 fps; 4 buffers, with the
    // MCU, sensors at 400 Hz.
    EXPECT_EQ(call.width, 2560);
    EXPECT_EQ(call.height, 720);
    EXPECT_EQ(call.fps, 15);
    EXPECT_EQ(call.buffers, 4);
    EXPECT_FALSE(call.noMCU);
    EXPECT_EQ(call.imuFreq, 2);
    EXPECT_EQ(camera.script().endSetups, 1);

    EXPECT_EQ(object.value("Init Output").toString(), "OK");
    EXPECT_EQ(object.value("Device ID").toInt(), 0);
    EXPECT_EQ(object.value("Firmware").toInt(), 1523);
    EXPECT_EQ(object.value("Serial Number").toInt(), 23456789);
    EXPECT_EQ(object.value("Model").toString(), "KOV Pico");
    // The lines land in the camera's own object.
    EXPECT_EQ(object.value("valid").toArray(), texts({"<b>Camera: </b>KOV Pico", "<b>Firmware: </b>1523"}));
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ALL),
              std::vector<std::string>({"<b>Camera: </b>KOV Pico", "<b>Firmware: </b>1523"}));
    EXPECT_EQ(node.model_name, "KOV Pico");
    EXPECT_EQ(node.firmware, 1523);
    EXPECT_EQ(node.serial, 23456789);
    EXPECT_FALSE(camera_test_thrown_firmware_error);
    EXPECT_EQ(node.grabber, nullptr) << "the camera is closed again";
}

TEST_F(CameraIdentity, ModelNames) {
    const std::vector<std::pair<bh::MODEL, std::string>> models = {
        {bh::KOV, "KOV"},          {bh::KOV_P, "KOV Pico"}, {bh::KOVT, "KOV Tera"},
        {bh::KOVTr, "KOV Tera R"}, {bh::KOV_Q, "KOV-Q"},    {bh::KOV_QP, "KOV-QP"},
    };
    for (const auto& model : models) {
        KOVNode fresh;
        camera.script().model = model.first;
        const QJsonObject object = fresh.findKOVDevice();
        EXPECT_EQ(object.value("Model").toString().toStdString(), model.second);
        EXPECT_EQ(fresh.getSpecificMessageList(DIAGNOSTIC_VALID).at(0), "<b>Camera: </b>" + model.second);
    }
}

TEST_F(CameraIdentity, SingleSensorAndUnknownModelsLeaveTheNameEmpty) {
    for (bh::MODEL model : {bh::KOV_QS_A, bh::KOV_QS_B, bh::KOV_MODEL_UNKNOWN}) {
        KOVNode fresh;
        camera.script().model = model;
        const QJsonObject object = fresh.findKOVDevice();
        EXPECT_TRUE(fresh.model_name.empty()) << model;
        EXPECT_EQ(object.value("Model").toString(), "") << model;
        EXPECT_EQ(fresh.getSpecificMessageList(DIAGNOSTIC_VALID).at(0), "<b>Camera: </b>") << model;
    }
}

TEST_F(CameraIdentity, ANameAlreadyKnownIsKept) {
    node.model_name = "KOV Tera";
    camera.script().model = bh::KOV_P;
    node.findKOVDevice();
    EXPECT_EQ(node.model_name, "KOV Tera");
}

TEST_F(CameraIdentity, Firmware1522IsOutdated) {
    camera.script().firmware = 1522;
    const QJsonObject object = node.findKOVDevice();
    EXPECT_EQ(object.value("Firmware").toInt(), 1522);
    EXPECT_EQ(
        object.value("warning").toArray(),
        texts(
            {"<b>Firmware outdated</b> (1522) <br/> Please update the internal firmware from the <b>setting "
             "panel</b> of the <b>KOV Scout</b> tool."}));
    EXPECT_EQ(object.value("valid").toArray(), texts({"<b>Camera: </b>KOV Pico"}));
    EXPECT_TRUE(camera_test_thrown_firmware_error);
}

TEST_F(CameraIdentity, Firmware1523IsThePlainLine) {
    camera.script().firmware = 1523;
    const QJsonObject object = node.findKOVDevice();
    EXPECT_FALSE(object.contains("warning"));
    EXPECT_EQ(object.value("valid").toArray(), texts({"<b>Camera: </b>KOV Pico", "<b>Firmware: </b>1523"}));
    EXPECT_FALSE(camera_test_thrown_firmware_error);
}

TEST_F(CameraIdentity, UnreadableFirmwareIsThePlainLineWithMinusOne) {
    camera.script().firmware = -1;
    const QJsonObject object = node.findKOVDevice();
    EXPECT_EQ(object.value("Firmware").toInt(), -1);
    EXPECT_FALSE(object.contains("warning"));
    EXPECT_EQ(object.value("valid").toArray(), texts({"<b>Camera: </b>KOV Pico", "<b>Firmware: </b>-1"}));
    EXPECT_FALSE(camera_test_thrown_firmware_error);
}

TEST_F(CameraIdentity, FirmwareZeroIsOutdated) {
    camera.script().firmware = 0;
    node.findKOVDevice();
    EXPECT_TRUE(camera_test_thrown_firmware_error);
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_WARNING).size(), 1u);
}

TEST_F(CameraIdentity, Code1IsAnSdkIssue) {
    camera.script().setUpCode = [](int) { return 1; };
    const QJsonObject object = node.findKOVDevice();
    EXPECT_TRUE(node.sdk_issue);
    const std::string expected = std::string(
                                     "There seem to be an issue with your KOV SDK installation. Please "
                                     "reinstall the latest version of the "
                                     "KOV SDK. <a href='") +
                                 site::WEB_SITE + "/developers/' style='color: #d9ff42;' >Download</a>";
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ERROR), std::vector<std::string>({expected}));
    EXPECT_EQ(object.value("error").toArray(), QJsonArray({QString::fromStdString(expected)}));
    EXPECT_EQ(object.value("Init Output").toString(), "Error : Cannot setup camera controller");
    EXPECT_EQ(object.value("Device ID").toInt(), 0);
    EXPECT_FALSE(object.contains("Firmware"));
    EXPECT_FALSE(object.contains("Serial Number"));
    EXPECT_FALSE(object.contains("Model"));
    EXPECT_EQ(camera.script().endSetups, 0);
    EXPECT_FALSE(camera_test_reported_that_USB_should_not_be_tested);
}

TEST_F(CameraIdentity, Code2IsACameraNotDetected) {
    camera.script().setUpCode = [](int) { return 2; };
    const QJsonObject object = node.findKOVDevice();
    EXPECT_FALSE(node.sdk_issue);
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ERROR), std::vector<std::string>({kFlipCable}));
    EXPECT_TRUE(camera_test_reported_that_USB_should_not_be_tested);
    EXPECT_EQ(object.value("Init Output").toString(), "Error : Cannot open MCU for the camera");
    EXPECT_FALSE(object.contains("Firmware"));
}

TEST_F(CameraIdentity, OtherCodesOnlyWriteTheirText) {
    const std::vector<std::pair<int, std::string>> codes = {
        {3, "Error : No grabber system found"},
        {4, "Error : Camera not found in system path"},
        {5, "Error : Cannot start camera stream. Camera might already be used by another application."},
        {6, "Error : Cannot construct a valid video device (/dev/videoX) for the camera"},
        {7, "Warning : Invalid resolution (requested vs effective)"},
        {8, "Warning : Cannot activate ECT (Constrast Enhancement) mode for the camera"},
        {9, "Error : Cannot initialize camera controller"},
        {10, "Unknown"},
        {-1, "Unknown"},
    };
    for (const auto& code : codes) {
        KOVNode fresh;
        const int value = code.first;
        camera.script().setUpCode = [value](int) { return value; };
        const QJsonObject object = fresh.findKOVDevice();
        EXPECT_EQ(object.value("Init Output").toString().toStdString(), code.second);
        EXPECT_EQ(object.size(), 2) << "Init Output and Device ID only, for code " << value;
        EXPECT_TRUE(fresh.messages.empty()) << value;
        EXPECT_FALSE(fresh.sdk_issue);
    }
    EXPECT_FALSE(camera_test_reported_that_USB_should_not_be_tested);
}

TEST_F(CameraIdentity, GmslCameraOpensWithTheGmslDefaults) {
    node.input_type = bh::GMSL_INPUT;
    camera.script().model = bh::KOV_QP;
    node.findKOVDevice();
    ASSERT_EQ(camera.script().calls.size(), 1u);
    EXPECT_EQ(camera.script().calls[0].width, 3840);
    EXPECT_EQ(camera.script().calls[0].height, 1200);
    EXPECT_EQ(camera.script().calls[0].fps, 60);
    EXPECT_EQ(node.model_name, "KOV-QP");
}

TEST_F(CameraIdentity, NoInputTypeIsCode4) {
    node.input_type = bh::NO_INPUT;
    const QJsonObject object = node.findKOVDevice();
    EXPECT_TRUE(camera.script().calls.empty());
    EXPECT_EQ(object.value("Init Output").toString(), "Error : Camera not found in system path");
}

// ---- the sensors MCU on simulated machines

namespace {

std::shared_ptr<sim::Machine> machineWith(const std::string& devices) {
    return sim::parseScenario("{\"devices\": [" + devices + "]}", "kov-node-identity.json");
}

}  // namespace

TEST(SensorsIdentity, KovPicoMcuOpens) {
    ScopedScenario scenario("kov_pico_usb3");
    KOVNode node;
    const QJsonObject sensors = node.findMCUDevice();
    EXPECT_EQ(sensors.value("Init Output").toString(), "OK");
    EXPECT_EQ(sensors.value("Firmware").toInt(), 0x0305);
    EXPECT_EQ(sensors.value("Serial Number").toInt(), 23456789);
    EXPECT_EQ(sensors.value("Model").toString(), "KOV Pico (MCU)");
    EXPECT_EQ(sensors.size(), 4);
    EXPECT_TRUE(node.messages.empty());
}

TEST(SensorsIdentity, KovTeraMcuOpens) {
    ScopedScenario scenario("kov_tera_usb3");
    KOVNode node;
    const QJsonObject sensors = node.findMCUDevice();
    EXPECT_EQ(sensors.value("Init Output").toString(), "OK");
    EXPECT_EQ(sensors.value("Model").toString(), "KOV Tera (MCU)");
}

TEST(SensorsIdentity, KovTeraRMcuOpens) {
    ScopedScenario scenario(machineWith(
        "{\"type\": \"mcu\", \"model\": \"tera_r\", \"bus\": 1, \"address\": 4, \"serial\": 31234567}"));
    KOVNode node;
    const QJsonObject sensors = node.findMCUDevice();
    EXPECT_EQ(sensors.value("Init Output").toString(), "OK");
    EXPECT_EQ(sensors.value("Serial Number").toInt(), 31234567);
    EXPECT_EQ(sensors.value("Model").toString(), "KOV Tera R (MCU)");
}

TEST(SensorsIdentity, TheFirstMcuOnTheBusIsTaken) {
    ScopedScenario scenario(machineWith(
        "{\"type\": \"mcu\", \"model\": \"tera\", \"bus\": 1, \"address\": 4, \"serial\": 21234567},"
        "{\"type\": \"mcu\", \"model\": \"pico\", \"bus\": 1, \"address\": 5, \"serial\": 11234567}"));
    KOVNode node;
    const QJsonObject sensors = node.findMCUDevice();
    EXPECT_EQ(sensors.value("Model").toString(), "KOV Tera (MCU)");
    EXPECT_EQ(sensors.value("Serial Number").toInt(), 21234567);
}

TEST(SensorsIdentity, NoMcuLeavesTheObjectEmpty) {
    ScopedScenario scenario("kov_usb2");
    KOVNode node;
    EXPECT_TRUE(node.findMCUDevice().isEmpty());
}

TEST(SensorsIdentity, AnMcuWithoutItsHidDeviceCannotBeOpened) {
    // The MCU's USB identity on the bus, but no HID device behind it.
    ScopedScenario scenario(machineWith(
        "{\"type\": \"usb_device\", \"vendor_id\": \"0x2B03\", \"product_id\": \"0xF681\", \"bus\": 1}"));
    KOVNode node;
    const QJsonObject sensors = node.findMCUDevice();
    EXPECT_EQ(sensors.value("Init Output").toString().toStdString(),
              "Error : Cannot open sensors MCU communication (HID)");
    // Read although the open failed: the engine answers -1 when not open.
    EXPECT_EQ(sensors.value("Firmware").toInt(), -1);
    EXPECT_EQ(sensors.value("Serial Number").toInt(), -1);
    EXPECT_EQ(sensors.value("Model").toString(), "KOV Pico (MCU)");
    EXPECT_TRUE(node.messages.empty()) << "the sensors' state is a key, not a message";
}
