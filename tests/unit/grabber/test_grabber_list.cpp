// The list of usable cameras on simulated machines: a camera that opens, a
// camera held by another program (a ghost record when its MCU is seen), and
// two processes asking for the list at once.
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "SimScenario.h"
#include "bh_input/grabber/DeviceList.h"
#include "sim/uvc/UvcCamera.h"
#include "tests/unit/common/DeviceRecordExpect.h"

using testsupport::ScopedScenario;

namespace {

std::shared_ptr<sim::Machine> machineFrom(const std::string& devices) {
    return sim::parseScenario("{\"devices\": [" + devices + "]}", "grabber-list-test.json");
}

const char* const kBusyPico =
    "{\"type\": \"uvc_camera\", \"product_id\": \"0xF682\", \"bus\": 2, \"address\": 3, \"video_node\": 0, "
    "\"busy\": true, \"flash_serial\": 23456789},"
    "{\"type\": \"mcu\", \"model\": \"pico\", \"bus\": 1, \"address\": 4, \"serial\": 23456789}";

}  // namespace

TEST(GrabberList, CameraThatOpensIsListedWithItsSerialNumber) {
    ScopedScenario scenario("kov_pico_usb3");
    const std::vector<DeviceProperties> list = bh::getGrabberList(false);
    ASSERT_EQ(list.size(), 1u);
    testsupport::expectRecord(list[0], bh::DEVICE_AVAILABLE, 0, "/dev/video0", bh::KOV_P, 23456789u,
                              bh::USB_INPUT);
    // The probe closed the camera: its LED is off and it streams no more.
    auto camera = std::dynamic_pointer_cast<sim::UvcCamera>(scenario.machine().videoNode(0));
    EXPECT_FALSE(camera->streaming());
}

TEST(GrabberList, HeldCameraWithMcuComesBackAsAGhost) {
    ScopedScenario scenario(machineFrom(kBusyPico));
    const std::vector<DeviceProperties> list = bh::getGrabberList(false);
    ASSERT_EQ(list.size(), 1u);
    testsupport::expectRecord(list[0], bh::DEVICE_NOT_AVAILABLE, -1, "", bh::KOV_P, 0u, bh::USB_INPUT);
}

TEST(GrabberList, HeldCameraWithoutMcuDoesNotAppear) {
    ScopedScenario scenario(
        machineFrom("{\"type\": \"uvc_camera\", \"product_id\": \"0xF580\", \"bus\": 2, \"address\": 3, "
                    "\"video_node\": 0, "
                    "\"busy\": true}"));
    EXPECT_TRUE(bh::getGrabberList(false).empty());
}

TEST(GrabberList, GmslCamerasFollowTheUsbOnes) {
    ScopedScenario scenario("kov_pico_usb3");
    bh::setGMSLCameraLister([](bool) {
        DeviceProperties gmsl;
        gmsl.camera_state = bh::DEVICE_AVAILABLE;
        gmsl.id = 0;
        gmsl.camera_model = bh::KOV_Q;
        gmsl.serial_number = 40000001;
        gmsl.input_type = bh::USB_INPUT;  // the list marks it GMSL whatever the discovery says
        return std::vector<DeviceProperties>{gmsl};
    });
    const std::vector<DeviceProperties> list = bh::getGrabberList(true);
    bh::setGMSLCameraLister(nullptr);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0].input_type, bh::USB_INPUT);
    EXPECT_EQ(list[1].input_type, bh::GMSL_INPUT);
    EXPECT_EQ(list[1].serial_number, 40000001u);
}

// Run as a child process by the test below: one walk of the list on the
// simulated KOV Pico, its size and duration on standard output.
TEST(GrabberListChild, Walk) {
    if (std::getenv("KOV_GRABBER_LIST_CHILD") == nullptr)
        GTEST_SKIP() << "run by GrabberList.TwoProcessesAtOnceBothGetTheWholeList";
    ScopedScenario scenario("kov_pico_usb3");
    const auto start = std::chrono::steady_clock::now();
    const size_t n = bh::getGrabberList(false).size();
    const long ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start)
            .count();
    std::printf("cameras=%zu elapsed_ms=%ld\n", n, ms);
}

TEST(GrabberList, TwoProcessesAtOnceBothGetTheWholeList) {
    const std::string self = "/proc/" + std::to_string(getpid()) + "/exe";
    const std::string command = "KOV_GRABBER_LIST_CHILD=1 " + self +
                                " --gtest_filter=GrabberListChild.Walk 2>/dev/null | grep cameras=";
    FILE* a = popen(command.c_str(), "r");
    FILE* b = popen(command.c_str(), "r");
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    char lineA[128] = {}, lineB[128] = {};
    const bool readA = std::fgets(lineA, sizeof lineA, a) != nullptr;
    const bool readB = std::fgets(lineB, sizeof lineB, b) != nullptr;
    pclose(a);
    pclose(b);
    ASSERT_TRUE(readA && readB);
    for (const char* line : {lineA, lineB}) {
        size_t cameras = 0;
        long ms = 0;
        ASSERT_EQ(std::sscanf(line, "cameras=%zu elapsed_ms=%ld", &cameras, &ms), 2) << line;
        EXPECT_EQ(cameras, 1u) << line;
        // The lock is given up after about 3.2 s at worst; each walk takes far less.
        EXPECT_LT(ms, 3200 + 2000) << line;
    }
}
