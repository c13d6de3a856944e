#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <random>

#include "diagnostic/CommandLine.h"
#include "diagnostic/DisplayCheck.h"

namespace {

// Saves and clears the display variables for one test.
class DisplayEnv : public testing::Test {
protected:
    void SetUp() override {
        for (const char* name : kNames) {
            const char* v = std::getenv(name);
            saved.push_back(v ? std::make_pair(true, std::string(v)) : std::make_pair(false, std::string()));
            unsetenv(name);
        }
    }
    void TearDown() override {
        for (size_t i = 0; i < saved.size(); ++i) {
            if (saved[i].first)
                setenv(kNames[i], saved[i].second.c_str(), 1);
            else
                unsetenv(kNames[i]);
        }
    }
    static constexpr const char* kNames[] = {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY",
                                             "XDG_RUNTIME_DIR"};
    std::vector<std::pair<bool, std::string>> saved;
};

}  // namespace

TEST(XDisplayName, Table) {
    std::string host;
    int number = -1;
    EXPECT_TRUE(parseXDisplay(":0", host, number));
    EXPECT_EQ(host, "");
    EXPECT_EQ(number, 0);
    EXPECT_TRUE(parseXDisplay(":12.1", host, number));
    EXPECT_EQ(number, 12);
    EXPECT_TRUE(parseXDisplay("localhost:10.0", host, number));
    EXPECT_EQ(host, "localhost");
    EXPECT_EQ(number, 10);
    EXPECT_TRUE(parseXDisplay("unix:3", host, number));
    EXPECT_EQ(host, "unix");
    for (const char* bad : {"", ":", "0", ":x", ":1.x", "host::0", ":99999999999", ":1:2", ":-1"})
        EXPECT_FALSE(parseXDisplay(bad, host, number)) << bad;
}

TEST_F(DisplayEnv, NothingSetIsNoDisplay) {
    EXPECT_FALSE(displayReachable());
}

TEST_F(DisplayEnv, PlatformsWithoutDisplay) {
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    EXPECT_TRUE(displayReachable());
    setenv("QT_QPA_PLATFORM", "minimal:enable_fonts", 1);
    EXPECT_TRUE(displayReachable());
}

TEST_F(DisplayEnv, XDisplayWithoutServerIsNotReachable) {
    setenv("DISPLAY", ":97", 1);
    EXPECT_FALSE(displayReachable());
    setenv("QT_QPA_PLATFORM", "xcb", 1);
    EXPECT_FALSE(displayReachable());
    setenv("DISPLAY", "garbage", 1);
    EXPECT_FALSE(displayReachable());
}

TEST_F(DisplayEnv, WaylandSocketThatListensIsReachable) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const std::string path = dir.path().toStdString() + "/wayland-test";
    setenv("XDG_RUNTIME_DIR", dir.path().toStdString().c_str(), 1);
    setenv("WAYLAND_DISPLAY", "wayland-test", 1);
    EXPECT_FALSE(displayReachable());

    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(fd, 1), 0);
    EXPECT_TRUE(displayReachable());
    setenv("QT_QPA_PLATFORM", "wayland", 1);
    EXPECT_TRUE(displayReachable());
    close(fd);
}

// The abort fallback re-executes the program with "-c" added. The child here
// is this test program, run with a filter that selects FallbackChild.
void abortWhileStarting() {
    setenv("KOV_TEST_FALLBACK_CHILD", "1", 1);
    static std::string self = "/proc/self/exe";
    static std::string filter = "--gtest_filter=FallbackChild.*";
    static char* args[] = {&self[0], &filter[0], nullptr};
    GUICheck = 1;
    installGuiAbortFallback(2, args);
    std::abort();
}

void abortOnceTheWindowStands() {
    static std::string self = "/proc/self/exe";
    static char* args[] = {&self[0], nullptr};
    installGuiAbortFallback(1, args);
    GUICheck = 0;
    std::abort();
}

TEST(GuiAbortFallbackDeathTest, AbortWhileStartingReRunsWithCommandLineFlag) {
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(abortWhileStarting(), testing::ExitedWithCode(42), "");
}

TEST(GuiAbortFallbackDeathTest, AbortOnceTheWindowStandsEndsWithOne) {
    GTEST_FLAG_SET(death_test_style, "fast");
    EXPECT_EXIT(abortOnceTheWindowStands(), testing::ExitedWithCode(1), "");
}

// Runs only as the re-executed child of the test above.
TEST(FallbackChild, SeesTheCommandLineFlag) {
    if (std::getenv("KOV_TEST_FALLBACK_CHILD") == nullptr)
        GTEST_SKIP() << "only run as a re-executed child";
    const std::vector<std::string> args = testing::internal::GetArgvs();
    const bool hasFlag = !args.empty() && args.back() == "-c";
    std::exit(hasFlag ? 42 : 43);
}

// A real X server (Xvfb, installed with the project's packages) is reachable.
TEST_F(DisplayEnv, RunningXServerIsReachable) {
    if (system("command -v Xvfb >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "Xvfb is not installed";
    // A display number unlikely to be taken, derived from the process id.
    const int number = 200 + getpid() % 500;
    const std::string socketPath = "/tmp/.X11-unix/X" + std::to_string(number);
    const pid_t server = fork();
    ASSERT_GE(server, 0);
    if (server == 0) {
        const std::string display = ":" + std::to_string(number);
        execlp("Xvfb", "Xvfb", display.c_str(), "-nolisten", "tcp", static_cast<char*>(nullptr));
        _exit(127);
    }
    bool ready = false;
    for (int i = 0; i < 200 && !ready; ++i) {
        ready = access(socketPath.c_str(), F_OK) == 0;
        if (!ready)
            usleep(50 * 1000);
    }
    setenv("DISPLAY", (":" + std::to_string(number)).c_str(), 1);
    const bool reachable = ready && displayReachable();
    kill(server, SIGTERM);
    waitpid(server, nullptr, 0);
    ASSERT_TRUE(ready) << "Xvfb did not start";
    EXPECT_TRUE(reachable);
    // Once the server has gone, the same display is no longer reachable.
    EXPECT_FALSE(displayReachable());
}

TEST(XDisplayName, FuzzedNamesGiveAPortInRangeOrFalse) {
    std::mt19937 rng(7);
    const std::string alphabet = ":.0123456789abcunix/-\xff";
    for (int round = 0; round < 20000; ++round) {
        std::string name;
        const size_t len = rng() % 24;
        for (size_t i = 0; i < len; ++i)
            name += alphabet[rng() % alphabet.size()];
        std::string host;
        int number = -1;
        if (parseXDisplay(name, host, number)) {
            EXPECT_GE(number, 0) << name;
            EXPECT_LE(6000 + number, 65535) << name;
            EXPECT_EQ(host.find(':'), std::string::npos) << name;
        }
    }
}
