// Online update check against a local HTTP server on loopback.
#include "support/SiteConfig.h"
#include "support/Updater.h"

#include "diagnostic/CommandLine.h"
#include "tests/unit/common/LogCapture.h"

#include "LoopbackHttpServer.h"
#include "StandinTestSupport.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <chrono>

using testsupport::LoopbackHttpServer;
using testsupport::ScopedEnv;
using testsupport::SysRoot;

namespace {

std::string manifest(int major, int minor, int patch, const std::string& message = "",
                     const std::string& messages = "[]") {
    return R"({"latest":{"version":{"webpage":"https://example.test/release","major":)" +
           std::to_string(major) + R"(,"minor":)" + std::to_string(minor) + R"(,"patch":)" +
           std::to_string(patch) + R"(,"message":")" + message + R"("}},"messages":)" + messages + "}";
}

// Records every dialog and answers "Hide" as told.
struct RecordingPresenter {
    std::vector<UpdateDialog> shown;
    bool hide = false;
    UpdateDialogPresenter fn() {
        return [this](const UpdateDialog& d) {
            shown.push_back(d);
            return hide;
        };
    }
};

struct UpdaterTest : public ::testing::Test {
    SysRoot root;
    LoopbackHttpServer server;
    ScopedEnv env;
    RecordingPresenter presenter;
    void SetUp() override {
        env.set("KOV_UPDATE_MANIFEST_HOST", server.host());
        env.unset("KOV_UPDATE_TIMEOUT_MS");
        setUpdateDialogPresenter(presenter.fn());
    }
    void TearDown() override { setUpdateDialogPresenter(nullptr); }
};

}  // namespace

TEST_F(UpdaterTest, FetchesTheManifestPath) {
    server.setBody(manifest(4, 1, 2));
    CheckSDKUpdateOnline(true);
    EXPECT_EQ(server.requests(), 1);
    EXPECT_EQ(server.lastRequestLine(), "GET /.kovsdk_update.json HTTP/1.1");
}

TEST_F(UpdaterTest, NewerVersionsGiveTheWebPage) {
    struct Case {
        int major, minor, patch;
        bool newer;
    };
    for (const Case& c : {Case{4, 1, 3, true}, Case{4, 1, 2, false}, Case{4, 0, 9, false},
                          Case{5, 0, 0, true}, Case{4, 2, 0, true}, Case{3, 9, 9, false}}) {
        server.setBody(manifest(c.major, c.minor, c.patch));
        EXPECT_EQ(CheckSDKUpdateOnline(true), c.newer ? "https://example.test/release" : "")
            << c.major << "." << c.minor << "." << c.patch;
    }
}

TEST_F(UpdaterTest, ArgumentTrueSkipsOnlyTheReleaseDialog) {
    server.setBody(manifest(4, 1, 3, "Release notes",
                            R"([{"version":"*","text":"For all","title":"T","type":"info","webpage":""}])"));
    EXPECT_EQ(CheckSDKUpdateOnline(true), "https://example.test/release");
    // No release box, but the message for all versions is shown.
    ASSERT_EQ(presenter.shown.size(), 1u);
    EXPECT_EQ(presenter.shown[0].title, "T");
    EXPECT_EQ(presenter.shown[0].text, "For all");
    EXPECT_EQ(presenter.shown[0].icon, UpdateDialog::Information);
    EXPECT_FALSE(presenter.shown[0].moreButton);
    EXPECT_FALSE(root.exists("/usr/local/kov/settings/.updates.bin"));
}

TEST_F(UpdaterTest, ArgumentTrueShowsMessagesForThisVersionAndKeepsTheHiddenList) {
    root.writeFile("/usr/local/kov/settings/.updates.bin", messageDigest("Seen before") + "\n");
    server.setBody(manifest(
        4, 1, 2, "",
        R"([{"version":"4.1.2","text":"Mine","title":"For 4.1.2","type":"warning","webpage":"https://example.test/m"},
            {"version":"4.1.3","text":"Not mine","title":"Other","type":"info"},
            {"version":"*","text":"Seen before","title":"Old","type":"error"},
            {"version":"*","text":"Everyone","title":"All","type":"error"}])"));
    presenter.hide = true;
    EXPECT_EQ(CheckSDKUpdateOnline(true), "");
    ASSERT_EQ(presenter.shown.size(), 2u);
    EXPECT_EQ(presenter.shown[0].title, "For 4.1.2");
    EXPECT_EQ(presenter.shown[0].icon, UpdateDialog::Warning);
    EXPECT_TRUE(presenter.shown[0].moreButton);
    EXPECT_EQ(presenter.shown[0].webpage, "https://example.test/m");
    EXPECT_EQ(presenter.shown[1].title, "All");
    EXPECT_EQ(presenter.shown[1].icon, UpdateDialog::Critical);
    // "Hide" ticked on both: they join the list, after the one already there.
    // The hexadecimal MD5 digests of "Seen before", "Mine" and "Everyone".
    EXPECT_EQ(root.readFile("/usr/local/kov/settings/.updates.bin"),
              "1d7da3e171e111753515103c1bddea8d\n"
              "fedc0e3f18d0ff5df1579ad5ce33ba5d\n"
              "f9ae5e5c44e59f94680af569879f704a\n");
    presenter.shown.clear();
    CheckSDKUpdateOnline(true);
    EXPECT_TRUE(presenter.shown.empty());
}

TEST_F(UpdaterTest, ReleaseDialog) {
    server.setBody(manifest(4, 1, 3, "Release notes"));
    EXPECT_EQ(CheckSDKUpdateOnline(false), "https://example.test/release");
    ASSERT_EQ(presenter.shown.size(), 1u);
    const UpdateDialog& d = presenter.shown[0];
    EXPECT_EQ(d.title, "New KOV SDK available");
    EXPECT_EQ(d.text, "Release notes");
    EXPECT_TRUE(d.moreButton);
    EXPECT_EQ(d.webpage, "https://example.test/release");
    EXPECT_EQ(d.icon, UpdateDialog::NoIcon);
}

TEST_F(UpdaterTest, NoReleaseDialogWithoutMessageOrWhenNotNewer) {
    server.setBody(manifest(4, 1, 3, ""));
    CheckSDKUpdateOnline(false);
    server.setBody(manifest(4, 1, 2, "Same version"));
    CheckSDKUpdateOnline(false);
    EXPECT_TRUE(presenter.shown.empty());
}

TEST_F(UpdaterTest, MessageIconsAndButtons) {
    server.setBody(
        manifest(4, 1, 2, "",
                 R"([{"version":"*","text":"e","title":"E","type":"error","webpage":"https://example.test/e"},
            {"version":"4.1.2","text":"i","title":"I","type":"info","webpage":""},
            {"version":"4.1.2","text":"q","title":"Q","type":"question"},
            {"version":"*","text":"w","title":"W","type":"warning","webpage":""},
            {"version":"*","text":"u","title":"U","type":"celebration","webpage":""},
            {"version":"4.0.0","text":"other version","title":"X","type":"info","webpage":""}])"));
    EXPECT_EQ(CheckSDKUpdateOnline(false), "");
    ASSERT_EQ(presenter.shown.size(), 5u);
    EXPECT_EQ(presenter.shown[0].icon, UpdateDialog::Critical);
    EXPECT_TRUE(presenter.shown[0].moreButton);
    EXPECT_EQ(presenter.shown[0].webpage, "https://example.test/e");
    EXPECT_EQ(presenter.shown[0].title, "E");
    EXPECT_EQ(presenter.shown[1].icon, UpdateDialog::Information);
    EXPECT_FALSE(presenter.shown[1].moreButton);
    EXPECT_EQ(presenter.shown[2].icon, UpdateDialog::Question);
    EXPECT_FALSE(presenter.shown[2].moreButton);
    EXPECT_EQ(presenter.shown[3].icon, UpdateDialog::Warning);
    // An unknown type leaves the box without a special icon.
    EXPECT_EQ(presenter.shown[4].icon, UpdateDialog::NoIcon);
    EXPECT_EQ(presenter.shown[4].text, "u");
}

TEST_F(UpdaterTest, HiddenMessageStaysHidden) {
    server.setBody(
        manifest(4, 1, 3, "Release notes",
                 R"([{"version":"*","text":"Maintenance tonight","title":"Notice","type":"warning"}])"));
    presenter.hide = true;
    CheckSDKUpdateOnline(false);
    ASSERT_EQ(presenter.shown.size(), 2u);
    const std::string list = root.readFile("/usr/local/kov/settings/.updates.bin");
    EXPECT_EQ(list, messageDigest("Release notes") + "\n" + messageDigest("Maintenance tonight") + "\n");
    EXPECT_EQ(messageDigest("Release notes").size(), 32u);

    presenter.shown.clear();
    EXPECT_EQ(CheckSDKUpdateOnline(false), "https://example.test/release");
    EXPECT_TRUE(presenter.shown.empty());
    EXPECT_EQ(root.readFile("/usr/local/kov/settings/.updates.bin"), list);
}

TEST_F(UpdaterTest, CloseWithoutHideShowsAgainAndWritesNothing) {
    server.setBody(manifest(4, 1, 2, "", R"([{"version":"*","text":"Hello","title":"Hi","type":"info"}])"));
    presenter.hide = false;
    CheckSDKUpdateOnline(false);
    CheckSDKUpdateOnline(false);
    EXPECT_EQ(presenter.shown.size(), 2u);
    EXPECT_FALSE(root.exists("/usr/local/kov/settings/.updates.bin"));
}

TEST_F(UpdaterTest, ExistingHiddenListIsKept) {
    root.writeFile("/usr/local/kov/settings/.updates.bin", messageDigest("Old news") + "\n");
    server.setBody(manifest(4, 1, 2, "",
                            R"([{"version":"*","text":"Old news","title":"A","type":"info"},
                                {"version":"*","text":"Fresh","title":"B","type":"info"}])"));
    presenter.hide = true;
    CheckSDKUpdateOnline(false);
    ASSERT_EQ(presenter.shown.size(), 1u);
    EXPECT_EQ(presenter.shown[0].text, "Fresh");
    EXPECT_EQ(root.readFile("/usr/local/kov/settings/.updates.bin"),
              messageDigest("Old news") + "\n" + messageDigest("Fresh") + "\n");
}

TEST_F(UpdaterTest, EmptyOrBrokenRepliesChangeNothing) {
    root.writeFile("/usr/local/kov/settings/.updates.bin", "abc\n");
    for (const char* body : {"", "not json at all", "{\"latest\": 5}", "[1,2,3]",
                             "{\"latest\":{\"version\":"
                             "{\"major\":\"5\"}}}",
                             "\x01\x02\xff"}) {
        server.setBody(body);
        EXPECT_EQ(CheckSDKUpdateOnline(false), "") << body;
    }
    EXPECT_TRUE(presenter.shown.empty());
    EXPECT_EQ(root.readFile("/usr/local/kov/settings/.updates.bin"), "abc\n");
}

TEST_F(UpdaterTest, NoServerGivesNothing) {
    ScopedEnv host("KOV_UPDATE_MANIFEST_HOST", "http://127.0.0.1:1");
    EXPECT_EQ(CheckSDKUpdateOnline(false), "");
    EXPECT_TRUE(presenter.shown.empty());
}

TEST_F(UpdaterTest, ServerThatNeverAnswersTimesOut) {
    server.setSilent();
    ScopedEnv timeout("KOV_UPDATE_TIMEOUT_MS", "700");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(CheckSDKUpdateOnline(false), "");
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(600));
    EXPECT_LT(elapsed, std::chrono::seconds(8));
    EXPECT_EQ(server.requests(), 1);
    EXPECT_TRUE(presenter.shown.empty());
}

TEST_F(UpdaterTest, CheckRunsOnAWorkerThreadToo) {
    server.setBody(manifest(5, 0, 0));
    std::string result;
    std::thread worker([&] { result = CheckSDKUpdateOnline(true); });
    worker.join();
    EXPECT_EQ(result, "https://example.test/release");
}

TEST_F(UpdaterTest, CommandLinePrintsEachMessageAtItsLevel) {
    testlog::LogCapture log(bh::LOGGER_NAME::SDK);
    setUpdateDialogPresenter(&printUpdateMessage);
    root.writeFile("/usr/local/kov/settings/.updates.bin", messageDigest("Hidden one") + "\n");
    server.setBody(manifest(
        4, 1, 3, "Release notes",
        R"([{"version":"*","text":"Driver <b>36.3</b> needed","title":"Heads up","type":"warning","webpage":"https://example.test/w"},
            {"version":"4.1.2","text":"Broken build","title":"Stop","type":"error","webpage":""},
            {"version":"*","text":"New forum","title":"News","type":"info"},
            {"version":"*","text":"Survey","title":"Ask","type":"question"},
            {"version":"*","text":"Hidden one","title":"Gone","type":"info"}])"));
    // The call of the "KOV SDK" node: no release box, every message printed.
    EXPECT_EQ(CheckSDKUpdateOnline(true), "https://example.test/release");
    EXPECT_TRUE(log.has("Heads up : Driver 36.3 needed (https://example.test/w)", spdlog::level::warn));
    EXPECT_TRUE(log.has("Stop : Broken build", spdlog::level::err));
    EXPECT_TRUE(log.has("News : New forum", spdlog::level::info));
    EXPECT_TRUE(log.has("Ask : Survey", spdlog::level::info));
    EXPECT_FALSE(log.contains("Release notes"));
    EXPECT_FALSE(log.contains("Hidden one"));
    // Nothing is waited for, so nothing joins the hidden list.
    EXPECT_EQ(root.readFile("/usr/local/kov/settings/.updates.bin"), messageDigest("Hidden one") + "\n");
    // A text holding format characters is printed as it is.
    log.clear();
    server.setBody(
        manifest(4, 1, 2, "", R"([{"version":"*","text":"100% {} done %s","title":"T","type":"info"}])"));
    CheckSDKUpdateOnline(true);
    EXPECT_TRUE(log.has("T : 100% {} done %s", spdlog::level::info));
}

TEST(UpdateVersion, NewerThanRunning) {
    EXPECT_TRUE(isNewerSDKVersion(4, 1, 3));
    EXPECT_FALSE(isNewerSDKVersion(4, 1, 2));
    EXPECT_FALSE(isNewerSDKVersion(4, 0, 9));
    EXPECT_TRUE(isNewerSDKVersion(5, 0, 0));
    EXPECT_TRUE(isNewerSDKVersion(4, 2, 0));
    EXPECT_FALSE(isNewerSDKVersion(0, 0, 0));
    EXPECT_FALSE(isNewerSDKVersion(3, 99, 99));
}

TEST(SiteConfig, PlaceholdersAndUpdateSettings) {
    EXPECT_EQ(site::expand(
                  "<a href='{DOWNLOAD_SITE}/x'>{SUPPORT_MAIL}</a> {WEB_SITE}{SUPPORT_SITE} {CUDA_GPUS_PAGE}"),
              std::string("<a href='") + site::DOWNLOAD_SITE + "/x'>" + site::SUPPORT_MAIL + "</a> " +
                  site::WEB_SITE + site::SUPPORT_SITE + " " + site::CUDA_GPUS_PAGE);
    EXPECT_EQ(site::expand("{DOWNLOAD_SITE}{DOWNLOAD_SITE}"),
              std::string(site::DOWNLOAD_SITE) + site::DOWNLOAD_SITE);
    {
        ScopedEnv env;
        env.unset("KOV_UPDATE_MANIFEST_HOST");
        EXPECT_EQ(site::updateManifestUrl(), std::string(site::DOWNLOAD_SITE) + "/.kovsdk_update.json");
        env.set("KOV_UPDATE_MANIFEST_HOST", "http://127.0.0.1:8080/");
        EXPECT_EQ(site::updateManifestUrl(), "http://127.0.0.1:8080/.kovsdk_update.json");
    }
    {
        ScopedEnv env;
        env.unset("KOV_UPDATE_TIMEOUT_MS");
        EXPECT_EQ(site::updateTimeoutMs(), 10000);
        for (const char* bad : {"", "abc", "-5", "0", "12x"}) {
            env.set("KOV_UPDATE_TIMEOUT_MS", bad);
            EXPECT_EQ(site::updateTimeoutMs(), 10000) << bad;
        }
        env.set("KOV_UPDATE_TIMEOUT_MS", "250");
        EXPECT_EQ(site::updateTimeoutMs(), 250);
    }
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
