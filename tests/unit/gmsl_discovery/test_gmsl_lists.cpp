// The GMSL cameras of the shipped scenarios through the device list
// (getGMSLDevice, getGrabberList), and two processes sweeping at once.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "DiscoveryTestSupport.h"
#include "bh_input/grabber/DeviceList.h"
#include "bh_input/grabber/gmsl/ArgusCamera.h"

using testsupport::DiscoveryTest;
using testsupport::Installed;
using Pairs = std::vector<std::pair<bh::BH_DEVICE, std::string>>;

TEST_F(DiscoveryTest, GetGMSLDeviceListsTheShippedCameras) {
    {
        Installed m("gmsl_kov_qg_pico_bus30");
        EXPECT_EQ(bh::getGMSLDevice(), (Pairs{{bh::BH_DEVICE_KOV_QG_PICO, "/dev/i2c-30"}}));
        EXPECT_EQ(m.argus().createProviderCalls(), 0);  // the fast list never touches Argus
    }
    {
        Installed m("gmsl_kov_qs_bus31");
        EXPECT_EQ(bh::getGMSLDevice(), (Pairs{{bh::BH_DEVICE_KOV_QS_A, "/dev/i2c-31"}}));
    }
    {
        Installed m("gmsl_legacy_bus30");
        EXPECT_EQ(bh::getGMSLDevice(), (Pairs{{bh::BH_DEVICE_GMSL_LEGACY, "/dev/i2c-30"}}));
    }
    {
        Installed m("gmsl_eeprom_bus30");
        EXPECT_EQ(bh::getGMSLDevice(), (Pairs{{bh::BH_DEVICE_KOV_QG_ALPHA, "/dev/i2c-30"}}));
    }
}

TEST_F(DiscoveryTest, GrabberListAppendsTheGmslCameraOfTheDiscovery) {
    Installed m("gmsl_kov_qg_pico_bus30");
    const std::vector<DeviceProperties> list = bh::getGrabberList(false);
    ASSERT_EQ(list.size(), 1u);
    testsupport::expectRecord(list[0], bh::DEVICE_AVAILABLE, 0, "/dev/i2c-30", bh::KOV_QP, 42000123u,
                              bh::GMSL_INPUT);
    EXPECT_EQ(m.argus().liveSessions(), 0);
}

TEST_F(DiscoveryTest, GrabberListArgumentIsTheDiscoveryVerboseFlag) {
    Installed m("gmsl_legacy_bus30");
    testing::internal::CaptureStdout();
    const auto list = bh::getGrabberList(true);
    const std::string out = testing::internal::GetCapturedStdout();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].camera_model, bh::KOV_Q);
    EXPECT_NE(out.find("[KOV-Argus][getGMSLDevices] Found New KOV-GMSL SN40000789 for i2C-30\n"),
              std::string::npos)
        << out;
}

TEST_F(DiscoveryTest, SingleSensorCameraIsDroppedByTheStereoFilterOfTheFullList) {
    // The full list filters the sensors with the stereo filter: the single
    // sensor's id (KOVQS_CAM_0) does not pass it, so no sensor is left.
    Installed m("gmsl_kov_qs_bus31");
    EXPECT_TRUE(bh::getGrabberList(false).empty());
    EXPECT_EQ(m.argus().createProviderCalls(), 1);
    EXPECT_EQ(m.argus().sessionsCreated(), 0);
}

TEST_F(DiscoveryTest, ListsWithoutAnyGmslBusAreEmpty) {
    Installed m("kov_pico_usb3");
    EXPECT_TRUE(bh::getGMSLDevice().empty());
    const auto list = bh::getGrabberList(false);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].input_type, bh::USB_INPUT);
}

// ---------------------------------------------------------------------------
// Two processes

namespace {

int64_t nowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// A camera EEPROM that takes 150 ms per read and remembers when the first
// read began and the last one ended.
class SlowEeprom : public sim::RegisterChip {
public:
    SlowEeprom() : sim::RegisterChip(256, 1, 8) {
        setContents(0, {0x15, 0xCD, 0x5B, 0x07, 0x11, 0x04, 0x01});
    }
    bool read(uint8_t* data, size_t length) override {
        int64_t expected = 0;
        first_.compare_exchange_strong(expected, nowNs());
        std::this_thread::sleep_for(std::chrono::milliseconds(150));
        const bool ok = sim::RegisterChip::read(data, length);
        last_.store(nowNs());
        return ok;
    }
    int64_t first() const { return first_.load(); }
    int64_t last() const { return last_.load(); }

private:
    std::atomic<int64_t> first_{0};
    std::atomic<int64_t> last_{0};
};

}  // namespace

// Run as a child by the test below: one discovery on a camera (bus 30) and a
// slow EEPROM without sensors (bus 31); prints when its I2C traffic began and
// ended.
TEST(GmslDiscoveryChild, Sweep) {
    if (std::getenv("KOV_GMSL_DISCOVERY_CHILD") == nullptr)
        GTEST_SKIP() << "run by GmslDiscoveryProcesses.TwoSweepsNeverInterleave";
    testsupport::sysroot();
    auto machine = testsupport::machineFrom(
        "{\"type\": \"gmsl_camera\", \"bus\": 30, \"serial\": 42000300, \"sub_model\": 4}");
    auto slow = std::make_shared<SlowEeprom>();
    machine->i2cBus(31)->attach(0x55, slow);
    Installed m(machine);
    const auto start = std::chrono::steady_clock::now();
    const size_t cameras = ArgusCamera::getGMSLDevices(false).size();
    const long ms = static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
            .count());
    std::printf("cameras=%zu first_ns=%lld last_ns=%lld elapsed_ms=%ld\n", cameras,
                static_cast<long long>(slow->first()), static_cast<long long>(slow->last()), ms);
    ArgusProvider::DeleteInstance();
}

TEST(GmslDiscoveryProcesses, TwoSweepsNeverInterleave) {
    testsupport::sysroot();  // both children inherit this KOV_SYSROOT, so the same lock file
    const std::string self = "/proc/" + std::to_string(getpid()) + "/exe";
    const std::string command = "KOV_GMSL_DISCOVERY_CHILD=1 " + self +
                                " --gtest_filter=GmslDiscoveryChild.Sweep 2>/dev/null | grep cameras=";
    FILE* a = popen(command.c_str(), "r");
    FILE* b = popen(command.c_str(), "r");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    char lineA[256] = {}, lineB[256] = {};
    const bool readA = std::fgets(lineA, sizeof lineA, a) != nullptr;
    const bool readB = std::fgets(lineB, sizeof lineB, b) != nullptr;
    pclose(a);
    pclose(b);
    ASSERT_TRUE(readA && readB);
    struct Run {
        size_t cameras = 0;
        long long first = 0, last = 0;
        long ms = 0;
    } runs[2];
    const char* lines[2] = {lineA, lineB};
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(std::sscanf(lines[i], "cameras=%zu first_ns=%lld last_ns=%lld elapsed_ms=%ld",
                              &runs[i].cameras, &runs[i].first, &runs[i].last, &runs[i].ms),
                  4)
            << lines[i];
        EXPECT_EQ(runs[i].cameras, 1u) << lines[i];
        ASSERT_GT(runs[i].first, 0) << lines[i];
        // Six slow reads: the cheap sweep, the filter's and the claiming one.
        EXPECT_GE(runs[i].last - runs[i].first, 700LL * 1000 * 1000) << lines[i];
        // The lock is given up after about 3.2 s at worst.
        EXPECT_LT(runs[i].ms, 3200 + 3000) << lines[i];
    }
    const Run& early = runs[0].first < runs[1].first ? runs[0] : runs[1];
    const Run& late = runs[0].first < runs[1].first ? runs[1] : runs[0];
    EXPECT_GE(late.first, early.last) << lineA << lineB;
}
