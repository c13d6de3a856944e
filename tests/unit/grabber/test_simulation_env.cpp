// KOV_SIMULATION names the Pico scenario (set by CTest): the program's own
// start-up path installs it, and enumeration sees the simulated devices.
#include <gtest/gtest.h>

#include "bh_input/grabber/DeviceList.h"
#include "sim/Simulator.h"

TEST(SimulationEnvironment, PicoScenarioThroughEnvironment) {
    ASSERT_NE(std::getenv("KOV_SIMULATION"), nullptr);
    ASSERT_TRUE(sim::installFromEnvironment());
    ASSERT_NE(sim::installedMachine(), nullptr);
    auto list = bh::getUSBDevice();
    ASSERT_EQ(list.size(), 2u);
    // The scenario lists the MCU (bus 1) before the camera (bus 2), as a
    // machine's USB bus is enumerated.
    EXPECT_EQ(list[0], std::make_pair(bh::BH_DEVICE_KOV_P_MCU, std::string("4")));
    EXPECT_EQ(list[1], std::make_pair(bh::BH_DEVICE_KOV_P_CBS, std::string("3")));
    int n = -1;
    EXPECT_EQ(bh::findDevicePath_linux(n, 0), bh::BH_DEVICE_KOV_P_CBS);
    EXPECT_EQ(n, 0);
    EXPECT_EQ(bh::getDeviceModelfromPath("/dev/video" + std::to_string(n)), bh::BH_DEVICE_KOV_P_CBS);
    EXPECT_EQ(bh::getGrabberState(0), bh::DEVICE_AVAILABLE);
}
