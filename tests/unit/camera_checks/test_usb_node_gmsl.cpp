// The GMSL half of the "Devices" node: the driver package against the L4T
// release (a stand-in dpkg on PATH, the release file in KOV_SYSROOT), and the
// "GMSLList" of the simulated GMSL cameras.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "test_usb_node_support.h"

using usbnodetest::UsbNodeTest;
using Strings = std::vector<std::string>;

namespace {

const char kNoGmslDriver[] = "<b>No GMSL driver found.</b><br/> USB camera are not impacted by this.";
const char kIncompatible[] =
    "<b>GMSL driver incompatible with your L4T version.</b> <br/> If you updated L4T, you should update the "
    "GMSL driver too.";

}  // namespace

TEST_F(UsbNodeTest, NoPackageMeansNoDriver) {
    setRelease(usbnodetest::releaseR35_4_1());
    setDpkgList("ii  libc6  2.36-9  arm64  GNU C Library\n");
    QJsonObject root;
    node.FindGMSLDriver(root);
    EXPECT_EQ(root.value("GMSL driver compatiblity").toString(), "Unknown");
    EXPECT_EQ(root.value("GMSL driver").toString(), "");
    EXPECT_EQ(texts(root, "warning"), Strings{kNoGmslDriver});
    EXPECT_EQ(node.messages.size(), 1u);
    EXPECT_EQ(node.messages[0].level, DIAGNOSTIC_WARNING);
}

// Edge case: fewer than 10 characters of dpkg output count as no driver, even
// when they would pass the version test.
TEST_F(UsbNodeTest, OutputOfNineCharactersCountsAsNoDriver) {
    setRelease(usbnodetest::releaseR35_4_1());
    setPipelineOutput("ii 35.4.1");
    QJsonObject root;
    node.FindGMSLDriver(root);
    EXPECT_EQ(root.value("GMSL driver").toString(), "ii 35.4.1");
    EXPECT_EQ(root.value("GMSL driver compatiblity").toString(), "Unknown");
    EXPECT_EQ(texts(root, "warning"), Strings{kNoGmslDriver});
    EXPECT_EQ(node.messages.size(), 1u);
}

TEST_F(UsbNodeTest, TenCharactersAreEnoughForAVerdict) {
    setRelease(usbnodetest::releaseR35_4_1());
    setPipelineOutput("ii 35.4.1\n");
    QJsonObject root;
    node.FindGMSLDriver(root);
    EXPECT_EQ(root.value("GMSL driver").toString(), "ii 35.4.1\n");
    EXPECT_EQ(root.value("GMSL driver compatiblity").toString(), "OK");
    EXPECT_TRUE(node.messages.empty());

    USBNode other;
    setPipelineOutput("ii 35.3.1\n");
    QJsonObject ko;
    other.FindGMSLDriver(ko);
    EXPECT_EQ(ko.value("GMSL driver compatiblity").toString(), "KO");
    EXPECT_EQ(texts(ko, "error"), Strings{kIncompatible});
}

TEST_F(UsbNodeTest, EmptyOutputCountsAsNoDriver) {
    setRelease(usbnodetest::releaseR35_4_1());
    setPipelineOutput("");
    QJsonObject root;
    node.FindGMSLDriver(root);
    EXPECT_EQ(root.value("GMSL driver").toString(), "");
    EXPECT_EQ(texts(root, "warning"), Strings{kNoGmslDriver});
}

TEST_F(UsbNodeTest, DriverBuiltForTheReleaseIsOk) {
    const std::string line =
        "ii  brennhaven-kovq-gmsl-35.4.1  1.2.0-1  arm64  GMSL camera driver for the KOV-Q\n";
    setRelease(usbnodetest::releaseR35_4_1());
    setDpkgList(
        "Desired=Unknown/Install/Remove/Purge/Hold\n"
        "||/ Name                           Version    Architecture Description\n"
        "+++-==============================-==========-============-=================\n"
        "ii  adduser                        3.118      all          add and remove users and groups\n" +
        line + "ii  zlib1g:arm64                   1:1.2.11   arm64        compression library\n");
    QJsonObject root;
    testing::internal::CaptureStderr();
    node.FindGMSLDriver(root);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(root.value("GMSL driver").toString().toStdString(), line);
    EXPECT_EQ(root.value("GMSL driver compatiblity").toString(), "OK");
    EXPECT_TRUE(node.messages.empty());
    EXPECT_FALSE(root.contains("L4T version"));
    EXPECT_EQ(err, "");
}

TEST_F(UsbNodeTest, DriverBuiltForAnotherReleaseIsKo) {
    setRelease(usbnodetest::releaseR35_4_1());
    setDpkgList("ii  brennhaven-kovq-gmsl-35.3.1  1.2.0-1  arm64  GMSL camera driver for the KOV-Q\n");
    QJsonObject root;
    node.FindGMSLDriver(root);
    EXPECT_EQ(root.value("GMSL driver compatiblity").toString(), "KO");
    EXPECT_EQ(texts(root, "error"), Strings{kIncompatible});
    ASSERT_EQ(node.messages.size(), 1u);
    EXPECT_EQ(node.messages[0].level, DIAGNOSTIC_ERROR);
}

TEST_F(UsbNodeTest, RemovedDriverOfTheReleaseIsKo) {
    setRelease(usbnodetest::releaseR35_4_1());
    setDpkgList("rc  brennhaven-kovq-gmsl-35.4.1  1.2.0-1  arm64  GMSL camera driver for the KOV-Q\n");
    QJsonObject root;
    node.FindGMSLDriver(root);
    EXPECT_EQ(root.value("GMSL driver compatiblity").toString(), "KO");
    EXPECT_EQ(texts(root, "error"), Strings{kIncompatible});
}

TEST_F(UsbNodeTest, DriverOffJetsonIsKo) {
    // No release file: the version reads "unknown", which no package names.
    setDpkgList("ii  brennhaven-kovq-gmsl-35.4.1  1.2.0-1  arm64  GMSL camera driver for the KOV-Q\n");
    QJsonObject root;
    testing::internal::CaptureStderr();
    node.FindGMSLDriver(root);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(root.value("GMSL driver compatiblity").toString(), "KO");
    EXPECT_EQ(texts(root, "error"), Strings{kIncompatible});
    EXPECT_EQ(err, "Error: Could not open the file.\n");
}

TEST(UsbNodeDriverVerdict, Table) {
    struct Row {
        const char* output;
        const char* version;
        const char* verdict;
    };
    const Row rows[] = {
        {"ii  brennhaven-gmsl-35.4.1  1.0  arm64  driver\n", "35.4.1", "OK"},
        {"ii  brennhaven-gmsl-35.4.1  1.0  arm64  driver\n", "35.3.1", "KO"},
        {"rc  brennhaven-gmsl-35.4.1  1.0  arm64  driver\n", "35.4.1", "KO"},
        {"iU  brennhaven-gmsl-35.4.1  1.0  arm64  driver\n", "35.4.1", "KO"},
        {"ii  brennhaven-gmsl-35.3.1  1.0  arm64  driver\nii  brennhaven-gmsl-35.4.1  2.0  arm64  driver\n",
         "35.4.1", "OK"},
        {"ii  brennhaven-tools  1.0  arm64  tools\nrc  brennhaven-gmsl-35.4.1  2.0  arm64  driver\n",
         "35.4.1", "KO"},
        {"ii  brennhaven-gmsl-32.7.1  1.0  arm64  driver\n", "32.7.1", "OK"},
        {"35.4.1 ii  brennhaven-gmsl\n", "35.4.1", "KO"},
        {"i", "35.4.1", "KO"},
        {"", "35.4.1", "KO"},
        {"ii  brennhaven-gmsl-35.4.1\n", "", "KO"},
        {"ii  brennhaven-gmsl-35.4.1\n", "unknown", "KO"},
        {"\nii  brennhaven-gmsl-35.4.1\n", "35.4.1", "OK"},
        {"\n35.4.1", "35.4.1", "KO"},
    };
    for (const Row& row : rows)
        EXPECT_EQ(gmslDriverVerdict(row.output, row.version), row.verdict)
            << "output \"" << row.output << "\" version \"" << row.version << "\"";
}

TEST(UsbNodeDriverVerdict, ArbitraryOutputGivesOkOrKoAndNeverCrashes) {
    std::mt19937 random(20240611);
    const std::string alphabet = "i \n\r\t.0123456789rcbrenhav-\xff";
    const std::string versions[] = {"35.4.1", "32.7.1", "", "unknown", "i", "\n", "ii"};
    for (int round = 0; round < 20000; ++round) {
        std::string output(random() % 64, ' ');
        for (char& c : output)
            c = alphabet[random() % alphabet.size()];
        const std::string& version = versions[random() % (sizeof versions / sizeof versions[0])];
        const std::string verdict = gmslDriverVerdict(output, version);
        ASSERT_TRUE(verdict == "OK" || verdict == "KO") << verdict;
        if (verdict == "OK") {
            // An OK needs the version and a line starting "ii" in the output.
            ASSERT_FALSE(version.empty());
            ASSERT_NE(output.find(version), std::string::npos);
            ASSERT_TRUE(output.rfind("ii", 0) == 0 || output.find("\nii") != std::string::npos) << output;
        }
    }
}

// "GMSLList" of the shipped GMSL machines.

TEST_F(UsbNodeTest, KovQgPicoOnBus30IsListedAvailable) {
    installShipped("gmsl_kov_qg_pico_bus30");
    QJsonObject root;
    node.FindGMSLCamera(root);
    const QJsonArray expected{QJsonObject{{"path", "/dev/i2c-30"},
                                          {"Sub Model", "KOV-QG Pico"},
                                          {"id", 0},
                                          {"state", "Available"},
                                          {"Serial", "42000123"}}};
    EXPECT_EQ(root.value("GMSLList").toArray(), expected) << dump(root);
    EXPECT_TRUE(node.messages.empty());
}

TEST_F(UsbNodeTest, LegacyBoardIsListedAsUnsupported) {
    installShipped("gmsl_legacy_bus30");
    QJsonObject root;
    node.FindGMSLCamera(root);
    const QJsonArray expected{QJsonObject{{"path", "/dev/i2c-30"},
                                          {"Sub Model", "Unsupported : LI-Hawk"},
                                          {"id", 0},
                                          {"state", "Available"},
                                          {"Serial", "40000789"}}};
    EXPECT_EQ(root.value("GMSLList").toArray(), expected) << dump(root);
}

TEST_F(UsbNodeTest, SingleSensorCameraHasOnlyItsPath) {
    // The full list drops single-sensor cameras, and their codes have no sub-model text.
    installShipped("gmsl_kov_qs_bus31");
    QJsonObject root;
    node.FindGMSLCamera(root);
    const QJsonArray expected{QJsonObject{{"path", "/dev/i2c-31"}}};
    EXPECT_EQ(root.value("GMSLList").toArray(), expected) << dump(root);
}

TEST_F(UsbNodeTest, CameraWithoutCameraServiceHasNoAvailability) {
    // EEPROM only: the camera service has no provider, so the full list is empty.
    installShipped("gmsl_eeprom_bus30");
    QJsonObject root;
    node.FindGMSLCamera(root);
    const QJsonArray expected{QJsonObject{{"path", "/dev/i2c-30"}, {"Sub Model", "KOV-QG Alpha"}}};
    EXPECT_EQ(root.value("GMSLList").toArray(), expected) << dump(root);
}

TEST_F(UsbNodeTest, CameraInUseElsewhereIsNotAvailable) {
    installDevices(
        R"({"type": "gmsl_camera", "bus": 30, "serial": 42000777, "sub_model": 3, "in_use": true})");
    QJsonObject root;
    node.FindGMSLCamera(root);
    const QJsonArray expected{QJsonObject{{"path", "/dev/i2c-30"},
                                          {"Sub Model", "KOV-QG Beta"},
                                          {"id", 0},
                                          {"state", "Not Available"},
                                          {"Serial", "42000777"}}};
    EXPECT_EQ(root.value("GMSLList").toArray(), expected) << dump(root);
}

TEST_F(UsbNodeTest, TwoCamerasAreJoinedWithTheirRecordsByPath) {
    installDevices(R"({"type": "gmsl_camera", "bus": 30, "serial": 41000001, "sub_model": 2},
                      {"type": "gmsl_camera", "bus": 31, "serial": 42000002, "sub_model": 4})");
    QJsonObject root;
    node.FindGMSLCamera(root);
    const QJsonArray expected{
        QJsonObject{{"path", "/dev/i2c-30"},
                    {"Sub Model", "KOV-QG Alpha"},
                    {"id", 0},
                    {"state", "Available"},
                    {"Serial", "41000001"}},
        QJsonObject{{"path", "/dev/i2c-31"},
                    {"Sub Model", "KOV-QG Pico"},
                    {"id", 1},
                    {"state", "Available"},
                    {"Serial", "42000002"}},
    };
    EXPECT_EQ(root.value("GMSLList").toArray(), expected) << dump(root);
}

TEST_F(UsbNodeTest, NoGmslCameraGivesAnEmptyList) {
    installShipped("no_camera");
    QJsonObject root;
    node.FindGMSLCamera(root);
    EXPECT_TRUE(root.contains("GMSLList"));
    EXPECT_EQ(root.value("GMSLList").toArray(), QJsonArray());
}

TEST_F(UsbNodeTest, SubModelTextsAndTheDeviceWithoutPath) {
    installShipped("no_camera");
    bh::setGMSLDeviceLister([] {
        return std::vector<std::pair<bh::BH_DEVICE, std::string>>{
            {bh::BH_DEVICE_GMSL_LEGACY, "/dev/i2c-1"},      {bh::BH_DEVICE_KOV_QG_ALPHA, "/dev/i2c-2"},
            {bh::BH_DEVICE_KOV_QG_BETA, "/dev/i2c-3"},      {bh::BH_DEVICE_KOV_QG_PICO, "/dev/i2c-4"},
            {bh::BH_DEVICE_KOV_QS_A, "/dev/i2c-5"},         {bh::BH_DEVICE_KOV_QS_B, "/dev/i2c-6"},
            {static_cast<bh::BH_DEVICE>(16), "/dev/i2c-7"}, {bh::BH_DEVICE_NONE, "/dev/i2c-8"}};
    });
    QJsonObject root;
    node.FindGMSLCamera(root);
    const QJsonArray expected{
        QJsonObject{{"path", "/dev/i2c-1"}, {"Sub Model", "Unsupported : LI-Hawk"}},
        QJsonObject{{"path", "/dev/i2c-2"}, {"Sub Model", "KOV-QG Alpha"}},
        QJsonObject{{"path", "/dev/i2c-3"}, {"Sub Model", "KOV-QG Beta"}},
        QJsonObject{{"path", "/dev/i2c-4"}, {"Sub Model", "KOV-QG Pico"}},
        QJsonObject{{"path", "/dev/i2c-5"}},
        QJsonObject{{"path", "/dev/i2c-6"}},
        QJsonObject{},
        QJsonObject{{"path", "/dev/i2c-8"}},
    };
    EXPECT_EQ(root.value("GMSLList").toArray(), expected) << dump(root);
}

TEST(UsbNodeText, SubModelNames) {
    EXPECT_EQ(gmslSubModelName(6), "Unsupported : LI-Hawk");
    EXPECT_EQ(gmslSubModelName(7), "KOV-QG Alpha");
    EXPECT_EQ(gmslSubModelName(8), "KOV-QG Beta");
    EXPECT_EQ(gmslSubModelName(9), "KOV-QG Pico");
    for (int other : {-1, 0, 5, 10, 11, 16, 17})
        EXPECT_EQ(gmslSubModelName(other), "") << other;
}

TEST_F(UsbNodeTest, GmslCameraThroughTheWholeNode) {
    installShipped("gmsl_kov_qg_pico_bus30");
    installMatchingDriver();
    const QJsonObject root = runNode();
    EXPECT_EQ(root.value("GMSL driver compatiblity").toString(), "OK");
    EXPECT_EQ(root.value("GMSLList").toArray().size(), 1);
    EXPECT_EQ(root.value("USBList").toArray(), QJsonArray());
    EXPECT_TRUE(node.messages.empty()) << dump(root);
}
