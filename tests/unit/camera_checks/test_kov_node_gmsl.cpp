// The "Camera Test" node on a simulated GMSL camera (KOV-QG Pico on bus 30):
// the camera list makes it a GMSL test, the three GMSL modes are opened
// through the GMSL session, and nothing measures the bandwidth.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <string>
#include <tuple>
#include <vector>

#include "KovNodeTestSupport.h"
#include "diagnostic/KOVNode.h"
#include "sim/argus/SimArgus.h"
#include "tests/unit/grabber/SimScenario.h"

using testsupport::ScopedScenario;
using testsupport::ScopedSysRoot;

namespace {

const char* const kSpecificResolutions =
    "<b>Specific resolutions are not available</b> <br/> Replug your device or connect the camera to another "
    "<b>USB 3.0</b> port.";

class GmslCameraTest : public testing::Test {
protected:
    void SetUp() override {
        testsupport::clearSharedVerdicts();
        testsupport::shortenPauses(node);
    }
    void TearDown() override { testsupport::clearSharedVerdicts(); }

    ScopedSysRoot jetson{"25\n"};
    ScopedScenario scenario{"gmsl_kov_qg_pico_bus30"};
    KOVNode node;
};

}  // namespace

TEST_F(GmslCameraTest, TheListMakesItAGmslTest) {
    QJsonObject root;
    node.checkUSB_ID(root);
    EXPECT_EQ(node.input_type, bh::GMSL_INPUT);
    EXPECT_EQ(root.value("KOVCount").toInt(), 1);
    EXPECT_EQ(root.value("InternalDevicesCount").toInt(-1), 0);
    EXPECT_FALSE(node.no_video_node);
    EXPECT_FALSE(node.camera_busy);
    EXPECT_TRUE(node.messages.empty());
    // No MCU on USB: the sensors object stays empty.
    EXPECT_TRUE(node.findMCUDevice().isEmpty());
}

TEST_F(GmslCameraTest, ModesThatCannotOpenAreMissingAndNothingMeasures) {
    QJsonObject root;
    node.checkUSB_ID(root);
    ASSERT_EQ(node.input_type, bh::GMSL_INPUT);
    // Another process takes both sensors after the list was read: no mode can
    // start a capture session.
    auto argus = sim::SimArgus::of(scenario.machine());
    argus->setInUse(0, true);
    argus->setInUse(1, true);

    node.setPercent(30.f);
    node.CheckGrabbingStatus(root, 30, 90);
    const QJsonObject resolutions = root.value("resolutions").toObject();
    EXPECT_EQ(resolutions.keys(), QStringList({"HD1200@30", "HD1200@60", "SVGA@120"}));
    for (const QString& key : resolutions.keys()) {
        const QJsonObject mode = resolutions.value(key).toObject();
        EXPECT_EQ(mode.value("status").toBool(true), false) << key.toStdString();
        EXPECT_NE(mode.value("initialization").toString(), "OK") << key.toStdString();
        EXPECT_EQ(mode.size(), 2) << key.toStdString();
    }
    EXPECT_EQ(root.value("error").toArray(), QJsonArray({kSpecificResolutions}));
    EXPECT_TRUE(camera_test_bandwidth_message.empty());
    EXPECT_EQ(camera_test_bandwidth_message_level, 0);
    EXPECT_FLOAT_EQ(node.getPercent(), 90.f);
}

TEST_F(GmslCameraTest, WholeRunTestsTheThreeGmslModesOnly) {
    QJsonObject root;
    node.runDiagnostic(root);
    EXPECT_EQ(node.getPercent(), 100.f);
    EXPECT_TRUE(root.value("sensors").toObject().isEmpty());
    const QJsonObject resolutions = root.value("resolutions").toObject();
    ASSERT_EQ(resolutions.keys(), QStringList({"HD1200@30", "HD1200@60", "SVGA@120"}));
    bool allOpened = true;
    for (const QString& key : resolutions.keys()) {
        const QJsonObject mode = resolutions.value(key).toObject();
        ASSERT_TRUE(mode.value("status").isBool()) << key.toStdString();
        allOpened = allOpened && mode.value("status").toBool();
        EXPECT_FALSE(mode.contains("imageCount")) << key.toStdString();
    }
    // Whether the simulated GMSL capture opens or not, the list never
    // measures, and the error follows the statuses.
    EXPECT_TRUE(camera_test_bandwidth_message.empty());
    EXPECT_EQ(root.value("error").toArray().contains(kSpecificResolutions), !allOpened);
}

// The camera opens through the GMSL session: identified, and every mode of
// the GMSL list streams at the size and rate asked for.
TEST_F(GmslCameraTest, AStreamingCameraPassesEveryGmslMode) {
    QJsonObject root;
    node.runDiagnostic(root);
    const QJsonObject camera = root.value("camera").toObject();
    EXPECT_EQ(camera.value("Init Output").toString(), "OK");
    EXPECT_EQ(camera.value("Model").toString(), "KOV-QP");
    EXPECT_EQ(camera.value("Serial Number").toInt(), 42000123);
    EXPECT_EQ(camera.value("Firmware").toInt(), 2001);
    EXPECT_EQ(node.serial, 42000123);
    const QJsonObject resolutions = root.value("resolutions").toObject();
    const std::vector<std::tuple<const char*, int, int, int>> modes = {
        {"HD1200@30", 1920, 1200, 30}, {"HD1200@60", 1920, 1200, 60}, {"SVGA@120", 960, 600, 120}};
    for (const auto& [key, w, h, fps] : modes) {
        const QJsonObject mode = resolutions.value(key).toObject();
        EXPECT_TRUE(mode.value("status").toBool()) << key;
        EXPECT_EQ(mode.value("initialization").toString(), "OK") << key;
        EXPECT_EQ(mode.value("fps (input)").toInt(), fps) << key;
        EXPECT_EQ(mode.value("fps (output)").toInt(), fps) << key;
    }
    EXPECT_FALSE(root.contains("error")) << QJsonDocument(root).toJson().toStdString();
    EXPECT_TRUE(camera_test_bandwidth_message.empty());
    EXPECT_FLOAT_EQ(node.getPercent(), 100.f);
}
