// Opening the MCU: device choice by serial, the recovery ladder, unprogrammed
// serials, a module reboot, stalled endpoints, and close.
#include <gtest/gtest.h>

#include "McuTestSupport.h"
#include "sim/SimBackend.h"

using namespace mcutest;

namespace {
sim::McuConfig withSerial(uint32_t serial, uint16_t fw = 0x305) {
    return config(serial, fw);
}
}  // namespace

TEST(McuOpen, RequestedSerialIsTakenOtherDevicePassedOverAfterItsUsbClear) {
    SimMachine sim;
    auto a = sim.add(withSerial(456));
    auto b = sim.add(withSerial(123));
    sim.install();
    LogCapture log;
    IMUHidReader r(false, VENDOR, PICO);
    EXPECT_EQ(r.open(123, true, false), 123);
    EXPECT_EQ(val(r.device_path), val(b->identity().path));
    EXPECT_EQ(val(r.serial_number), 123u);
    // Both got the USB clear (OUT and IN halts) and reset, 456 first.
    EXPECT_EQ(val(a->counters().usbClearHalts), 2);
    EXPECT_EQ(val(a->counters().usbResets), 1);
    EXPECT_EQ(val(b->counters().usbClearHalts), 2);
    EXPECT_EQ(val(a->counters().opens), 0);
    EXPECT_EQ(val(b->counters().opens), 1);
    EXPECT_TRUE(log.contains("[enter] open IMUReader 123"));
    EXPECT_EQ(val(log.count("[Sensors] USB clear HALT & RESET - pre -")), 2);
    EXPECT_TRUE(log.contains("[Sensors][enter] hid_open_path MCU " + b->identity().path));
}

TEST(McuOpen, WithoutRequestTheFirstPlausibleDeviceIsTaken) {
    SimMachine sim;
    sim.add(withSerial(456));
    sim.add(withSerial(123));
    sim.install();
    IMUHidReader r(false, VENDOR, PICO);
    EXPECT_EQ(r.open(0, true, false), 456);
}

TEST(McuOpen, OtherProductsAndVendorsAreSkipped) {
    SimMachine sim;
    auto c = withSerial(111);
    c.productId = 0xF781;
    auto tera = sim.add(c);
    sim.add(withSerial(222));
    sim.install();
    IMUHidReader r(false, VENDOR, PICO);
    EXPECT_EQ(r.open(0, true, false), 222);
    EXPECT_EQ(val(tera->counters().usbResets), 0);
    IMUHidReader any(false, VENDOR, 0);  // product 0 matches every product of the vendor
    EXPECT_EQ(any.open(0, true, false), 111);
}

TEST(McuOpen, NoDeviceGivesMinusOne) {
    SimMachine sim;
    sim.install();
    IMUHidReader r(false, VENDOR, PICO);
    EXPECT_EQ(r.open(0, true, false), -1);
    EXPECT_EQ(r.is_open, 0);
    EXPECT_EQ(r.is_lost, 1);
    EXPECT_EQ(r.open(123, false, true), -1);  // open may be called again
}

TEST(McuOpen, UnprogrammedSerialWithoutRecoverOrForceIsReturnedClosed) {
    for (uint32_t bad : {0u, 990123456u}) {
        SimMachine sim;
        auto mcu = sim.add(withSerial(bad));
        sim.install();
        auto* hid = dynamic_cast<sim::SimHid*>(&platform::hid());
        ASSERT_NE(hid, nullptr);
        IMUHidReader r(false, VENDOR, PICO);
        EXPECT_EQ(r.open(0, false, false), static_cast<int>(bad));
        EXPECT_EQ(val(r.handle), nullptr);
        EXPECT_EQ(r.is_open, 0);
        EXPECT_TRUE(r.device_path.empty());
        EXPECT_EQ(hid->openCount(), 0u);
        EXPECT_EQ(val(mcu->counters().mcuResets), 0);
    }
}

TEST(McuOpen, ForcedUnprogrammedSerialOpens) {
    SimMachine sim;
    sim.add(withSerial(0));
    sim.install();
    IMUHidReader r(false, VENDOR, PICO);
    EXPECT_EQ(r.open(0, true, true), 0);
    EXPECT_NE(val(r.handle), nullptr);
    EXPECT_EQ(r.is_open, 1);
    EXPECT_EQ(r.is_running, 1);
    EXPECT_EQ(r.is_lost, 0);
}

TEST(McuOpen, UnprogrammedSerialWithRecoverRebootsTheModuleWhichComesBack) {
    SimMachine sim;
    auto mcu = sim.add(withSerial(0));
    sim.install();
    LogCapture log;
    IMUHidReader r(false, VENDOR, PICO);
    EXPECT_EQ(r.open(0, true, false), 0);
    EXPECT_TRUE(log.contains("[Sensors] MCU module not responding. Attempt module reboot"));
    EXPECT_EQ(val(mcu->counters().mcuResets), 1);
    EXPECT_EQ(val(r.handle), nullptr);
    EXPECT_FALSE(mcu->present());
    sim.clock->advance(500000000);
    EXPECT_TRUE(mcu->present());
    // The engine's second try opens without recovery and gets the bad value again.
    EXPECT_EQ(r.open(0, false, false), 0);
}

TEST(McuOpen, ImplausibleButNotUnprogrammedSerialRebootsAndFails) {
    SimMachine sim;
    auto mcu = sim.add(withSerial(995000000));
    sim.install();
    IMUHidReader r(false, VENDOR, PICO);
    EXPECT_EQ(r.open(0, true, false), -1);
    EXPECT_EQ(val(mcu->counters().mcuResets), 1);
    EXPECT_TRUE(r.device_path.empty());
    sim.clock->advance(500000000);
    // Without recovery the device is taken as it is.
    EXPECT_EQ(r.open(0, false, false), 995000000);
}

TEST(McuOpen, FailedResetWriteTakesTheSecondStepRecovery) {
    SimMachine sim;
    auto c = withSerial(0);
    c.resetWriteFails = true;
    auto mcu = sim.add(c);
    sim.install();
    LogCapture log;
    IMUHidReader r(false, VENDOR, PICO);
    EXPECT_EQ(r.open(0, true, false), 0);
    EXPECT_TRUE(
        log.contains("[Sensors] MCU not responding while resetting module.. Second step recovery... "));
    EXPECT_TRUE(log.contains("[Sensors] USB clear: HALT & RESET - after -"));
    EXPECT_EQ(val(mcu->counters().usbResets), 2);
    EXPECT_TRUE(mcu->present());
}

TEST(McuOpen, MissingSerialStringOnLegacyFirmwareIsTakenAtOnce) {
    SimMachine sim;
    auto c = withSerial(12345678, 0x206);
    c.hasSerialOverride = true;
    c.serialOverride = L"";
    auto mcu = sim.add(c);
    sim.install();
    IMUHidReader r(false, VENDOR, PICO);
    EXPECT_EQ(r.open(123, true, false), 0);        // reboot under way, value 0
    EXPECT_EQ(val(mcu->counters().mcuResets), 0);  // legacy: no reset report
    EXPECT_EQ(r.open(123, false, true), 0);        // forced: opened
    EXPECT_NE(val(r.handle), nullptr);
}

TEST(McuOpen, StalledEndpointIsClearedByTheUsbRecovery) {
    SimMachine sim;
    auto c = withSerial(12345678);
    c.stalled = true;
    auto mcu = sim.add(c);
    sim.install();
    ASSERT_TRUE(mcu->stalled());
    IMUHidReader r(false, VENDOR, PICO);
    ASSERT_EQ(r.open(0, true, false), 12345678);
    EXPECT_FALSE(mcu->stalled());
    ASSERT_TRUE(r.sendStartDataStreamingCommand());
    EXPECT_TRUE(r.updateIMUData(true));
}

TEST(McuOpen, NewAddressAfterUsbResetFailsOnceThenOpens) {
    SimMachine sim;
    auto c = withSerial(12345678);
    c.readdressOnUsbReset = 1;
    auto mcu = sim.add(c);
    sim.install();
    IMUHidReader r(false, VENDOR, PICO);
    const std::string before = mcu->identity().path;
    EXPECT_EQ(r.open(0, true, false), -1);  // the entry's path is stale after the reset
    EXPECT_NE(val(mcu->identity().path), before);
    EXPECT_EQ(r.open(0, true, false), 12345678);
    EXPECT_EQ(val(r.device_path), val(mcu->identity().path));
}

TEST(McuOpen, CloseStopsTheStreamAndClosesTheHandle) {
    SimMachine sim;
    auto mcu = sim.add(withSerial(12345678));
    sim.install();
    auto* hid = dynamic_cast<sim::SimHid*>(&platform::hid());
    {
        IMUHidReader r(false, VENDOR, PICO);
        ASSERT_GT(r.open(0, true, false), 0);
        ASSERT_TRUE(r.sendStartDataStreamingCommand());
        EXPECT_EQ(hid->openCount(), 1u);
        r.close();
        EXPECT_FALSE(mcu->streaming());
        EXPECT_EQ(hid->openCount(), 0u);
        EXPECT_EQ(r.is_closed, 1);
        EXPECT_EQ(r.is_running, 0);
        EXPECT_EQ(val(r.handle), nullptr);
        EXPECT_FALSE(r.updateIMUData(false));
        // Open again after close.
        EXPECT_EQ(r.open(0, true, false), 12345678);
        EXPECT_EQ(hid->openCount(), 1u);
    }
    // The destructor closes an open reader.
    EXPECT_EQ(hid->openCount(), 0u);
}
