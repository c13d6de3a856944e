#include <gtest/gtest.h>

#include <QDir>
#include <random>

#include "platform/Platform.h"
#include "sim/Registry.h"
#include "sim/SimBackend.h"
#include "sim/Simulator.h"

TEST(ScenarioParser, EveryShippedScenarioLoads) {
    QDir dir(QString(KOV_SOURCE_DIR) + "/sim/scenarios");
    auto files = dir.entryList({"*.json"}, QDir::Files);
    ASSERT_GE(files.size(), 7);
    for (const QString& f : files) {
        std::string path = dir.filePath(f).toStdString();
        EXPECT_NO_THROW(sim::loadScenario(path)) << path;
    }
}

struct BadCase {
    const char* json;
    const char* field;    // expected field in the message ("" for the file level)
    const char* problem;  // a part of the expected problem text
};

TEST(ScenarioParser, BadScenariosNameFileAndField) {
    const BadCase cases[] = {
        {"", "", "not valid JSON"},
        {"{\"devices\": [}", "", "not valid JSON at line 1"},
        {"[1, 2]", "", "top level must be a JSON object"},
        {"{\"devcies\": []}", "devcies", "unknown field"},
        {"{\"devices\": {}}", "devices", "expected an array"},
        {"{\"devices\": [3]}", "devices[0]", "expected an object"},
        {"{\"devices\": [{}]}", "devices[0].type", "missing"},
        {"{\"devices\": [{\"type\": \"toaster\"}]}", "devices[0].type", "unknown device type \"toaster\""},
        {"{\"devices\": [{\"type\": \"usb_device\", \"product_id\": 1}]}", "devices[0].vendor_id", "missing"},
        {"{\"devices\": [{\"type\": \"usb_device\", \"vendor_id\": \"0xZZ\", \"product_id\": 1}]}",
         "devices[0].vendor_id", "expected an integer"},
        {"{\"devices\": [{\"type\": \"usb_device\", \"vendor_id\": 70000, \"product_id\": 1}]}",
         "devices[0].vendor_id", "out of range"},
        {"{\"devices\": [{\"type\": \"usb_device\", \"vendor_id\": 1.5, \"product_id\": 1}]}",
         "devices[0].vendor_id", "expected an integer"},
        {"{\"devices\": [{\"type\": \"usb_device\", \"vendor_id\": 1, \"product_id\": 1, \"speed\": "
         "\"warp\"}]}",
         "devices[0].speed", "not one of"},
        {"{\"devices\": [{\"type\": \"usb_device\", \"vendor_id\": 1, \"product_id\": 1, \"ports\": [0]}]}",
         "devices[0].ports[0]", "out of range"},
        {"{\"devices\": [{\"type\": \"usb_device\", \"vendor_id\": 1, \"product_id\": 1, \"bus\": 1, "
         "\"address\": 5},"
         "{\"type\": \"usb_device\", \"vendor_id\": 1, \"product_id\": 2, \"bus\": 1, \"address\": 5}]}",
         "devices[1].address", "already has a device"},
        {"{\"devices\": [{\"type\": \"uvc_camera\", \"product_id\": \"0xF682\"}]}", "devices[0].video_node",
         "missing"},
        {"{\"devices\": [{\"type\": \"uvc_camera\", \"product_id\": \"0xF682\", \"video_node\": 0},"
         "{\"type\": \"video_node\", \"number\": 0}]}",
         "devices[1].number", "exists already"},
        {"{\"devices\": [{\"type\": \"video_node\", \"number\": 1, \"formats\": [{\"fourcc\": \"YUV\"}]}]}",
         "devices[0].formats[0].fourcc", "four-character"},
        {"{\"devices\": [{\"type\": \"boot_loader\"}]}", "devices[0].kind", "missing"},
        {"{\"devices\": [{\"type\": \"i2c_bus\", \"bus\": 30, \"chips\": [{\"type\": \"camera_eeprom\", "
         "\"address\": \"0x55\"}]}]}",
         "devices[0].chips[0].sub_model", "missing"},
        {"{\"devices\": [{\"type\": \"i2c_bus\", \"bus\": 30, \"chips\": [{\"type\": \"eeprom\", "
         "\"address\": "
         "\"0x99\"}]}]}",
         "devices[0].chips[0].address", "out of range"},
        {"{\"devices\": [{\"type\": \"i2c_bus\", \"bus\": 30, \"chips\": [{\"type\": \"eeprom\", "
         "\"address\": 80, "
         "\"contents\": \"0G\"}]}]}",
         "devices[0].chips[0].contents", "not a hexadecimal digit"},
        {"{\"devices\": [{\"type\": \"i2c_bus\", \"bus\": 30, \"chips\": [{\"type\": \"flux\", \"address\": "
         "80}]}]}",
         "devices[0].chips[0].type", "unknown chip type"},
        {"{\"devices\": [{\"type\": \"i2c_bus\", \"bus\": 30, \"claimed\": [\"0x55\", \"0x99\"]}]}",
         "devices[0].claimed[1]", "out of range"},
        {"{\"devices\": [{\"type\": \"i2c_bus\", \"bus\": 30, \"claimed\": \"0x55\"}]}", "devices[0].claimed",
         "array"},
        {"{\"usb\": {\"init_error\": 5}}", "usb.init_error", "out of range"},
    };
    for (const BadCase& c : cases) {
        try {
            sim::parseScenario(c.json, "bad.json");
            ADD_FAILURE() << "accepted: " << c.json;
        } catch (const sim::ScenarioError& e) {
            EXPECT_EQ(e.file(), "bad.json") << c.json;
            EXPECT_EQ(e.field(), c.field) << c.json << " -> " << e.what();
            EXPECT_NE(std::string(e.what()).find(c.problem), std::string::npos)
                << c.json << " -> " << e.what();
            EXPECT_EQ(std::string(e.what()).rfind("bad.json: ", 0), 0u) << e.what();
        }
    }
}

TEST(ScenarioParser, MissingFileIsNamed) {
    try {
        sim::loadScenario("/nonexistent/scenario.json");
        FAIL();
    } catch (const sim::ScenarioError& e) {
        EXPECT_EQ(e.file(), "/nonexistent/scenario.json");
        EXPECT_NE(std::string(e.what()).find("cannot read"), std::string::npos);
    }
}

TEST(ScenarioParser, FuzzedInputNeverCrashes) {
    std::string base;
    {
        QFile f(QString(KOV_SOURCE_DIR) + "/sim/scenarios/two_cameras_one_port.json");
        ASSERT_TRUE(f.open(QIODevice::ReadOnly));
        base = f.readAll().toStdString();
    }
    std::mt19937 rng(1234);
    const char alphabet[] = "{}[]\",:0123456789xabcdefABCDEF-. \ntypeusb_i2ccameramcu";
    int accepted = 0, rejected = 0;
    for (int i = 0; i < 3000; ++i) {
        std::string s = base;
        int edits = 1 + static_cast<int>(rng() % 4);
        for (int k = 0; k < edits; ++k) {
            size_t pos = rng() % s.size();
            switch (rng() % 3) {
                case 0:
                    s[pos] = alphabet[rng() % (sizeof alphabet - 1)];
                    break;
                case 1:
                    s.erase(pos, 1 + rng() % 8);
                    break;
                default:
                    s.insert(pos, 1, alphabet[rng() % (sizeof alphabet - 1)]);
                    break;
            }
            if (s.empty())
                s = "{";
        }
        try {
            sim::parseScenario(s, "fuzz.json");
            ++accepted;
        } catch (const sim::ScenarioError& e) {
            EXPECT_EQ(e.file(), "fuzz.json");
            ++rejected;
        }
    }
    EXPECT_GT(rejected, 0);
    EXPECT_GT(accepted + rejected, 2999);
}

TEST(ScenarioParser, InstallFromEnvironmentReportsBadScenario) {
    setenv("KOV_SIMULATION", "/nonexistent/scenario.json", 1);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(sim::installFromEnvironment());
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("KOV_SIMULATION: /nonexistent/scenario.json: cannot read"), std::string::npos) << err;
    unsetenv("KOV_SIMULATION");
    EXPECT_TRUE(sim::installFromEnvironment());  // unset: the real backend stays
}

TEST(ScenarioParser, RegisteredTypeIsUsedAndReplaces) {
    int calls = 0;
    sim::registerDeviceType("test_widget", [&](const sim::Entry& e, sim::Machine& m) {
        ++calls;
        m.addTextFile("/sys/class/video4linux/video9/name", e.string("label"));
    });
    auto m =
        sim::parseScenario("{\"devices\": [{\"type\": \"test_widget\", \"label\": \"hello\"}]}", "t.json");
    EXPECT_EQ(calls, 1);
    ASSERT_NE(m->file("/sys/class/video4linux/video9/name"), nullptr);
    auto types = sim::deviceTypes();
    EXPECT_NE(std::find(types.begin(), types.end(), "uvc_camera"), types.end());
    EXPECT_NE(std::find(types.begin(), types.end(), "mcu"), types.end());
}
