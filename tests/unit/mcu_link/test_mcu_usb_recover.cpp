// USB-level recovery of the MCU over platform::Usb, against the simulated bus.
#include <gtest/gtest.h>

#include "McuTestSupport.h"
#include "sim/SimBackend.h"

using namespace mcutest;

namespace {
struct Bus {
    SimMachine sim;
    std::shared_ptr<sim::VirtualMcu> mcu;
    explicit Bus(sim::McuConfig c = config()) {
        mcu = sim.add(c);
        sim.install();
    }
    std::string path() const { return mcu->identity().path; }
    size_t live() const { return dynamic_cast<sim::SimUsb&>(platform::usb()).liveObjects(); }
};
}  // namespace

TEST(McuUsbRecover, ClearsBothHaltsAndResets) {
    auto c = config();
    c.stalled = true;
    Bus b(c);
    LogCapture log;
    EXPECT_EQ(mcu_usb_recover(b.path().c_str()), 0);
    const auto n = b.mcu->counters();
    EXPECT_EQ(val(n.usbClaims), 1);
    EXPECT_EQ(val(n.usbClearHalts), 2);
    EXPECT_EQ(val(n.usbResets), 1);
    EXPECT_FALSE(b.mcu->stalled());
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(b.live(), 0u);
}

TEST(McuUsbRecover, PathsWithoutThreeFieldsDoNothing) {
    Bus b;
    LogCapture log;
    for (const char* p : {"", "0001", "0001:0002", "0001:0002:00:07", ":::", "a:b:c:d:e"}) {
        EXPECT_EQ(mcu_usb_recover(p), 0) << p;
    }
    EXPECT_EQ(mcu_usb_recover(nullptr), 0);
    EXPECT_EQ(val(b.mcu->counters().usbClaims), 0);
    EXPECT_TRUE(log.lines().empty());
}

TEST(McuUsbRecover, AbsentDeviceLogsUnsuccessfulWithoutLibhidError) {
    Bus b;
    LogCapture log;
    EXPECT_EQ(mcu_usb_recover("0001:007f:00"), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_TRUE(log.contains("usb resetting unsuccessful! No matching device found, or error encountered!"));
    EXPECT_FALSE(log.contains("libhid error"));
    EXPECT_EQ(b.live(), 0u);
}

TEST(McuUsbRecover, UnpluggedDeviceCannotBeOpened) {
    Bus b;
    const std::string path = b.path();
    b.mcu->unplug();
    LogCapture log;
    EXPECT_EQ(mcu_usb_recover(path.c_str()), LIBUSB_ERROR_NOT_FOUND);
    EXPECT_TRUE(log.contains("usb resetting unsuccessful!"));
}

TEST(McuUsbRecover, ClaimFailureLeavesTheHaltsAndStillReleasesAndCloses) {
    auto c = config();
    c.claimBusy = true;
    c.stalled = true;
    Bus b(c);
    LogCapture log;
    EXPECT_EQ(mcu_usb_recover(b.path().c_str()), LIBUSB_ERROR_BUSY);
    EXPECT_TRUE(log.contains("libusb_claim_interface failed"));
    EXPECT_TRUE(log.contains("libhid error: LIBUSB_ERROR_BUSY"));
    EXPECT_EQ(val(b.mcu->counters().usbClearHalts), 0);
    EXPECT_EQ(val(b.mcu->counters().usbResets), 0);
    EXPECT_TRUE(b.mcu->stalled());
    EXPECT_EQ(b.live(), 0u);  // handle closed, list freed, context gone
}

TEST(McuUsbRecover, LibraryFailuresAreReturnedAndLogged) {
    {
        Bus b;
        b.sim.machine->usbFaults().initError = LIBUSB_ERROR_NO_MEM;
        LogCapture log;
        EXPECT_EQ(mcu_usb_recover(b.path().c_str()), LIBUSB_ERROR_NO_MEM);
        EXPECT_TRUE(log.contains("libhid error: LIBUSB_ERROR_NO_MEM"));
        EXPECT_EQ(b.live(), 0u);
    }
    {
        Bus b;
        b.sim.machine->usbFaults().listError = LIBUSB_ERROR_IO;
        LogCapture log;
        EXPECT_EQ(mcu_usb_recover(b.path().c_str()), LIBUSB_ERROR_IO);
        EXPECT_TRUE(log.contains("libhid error: LIBUSB_ERROR_IO"));
        EXPECT_EQ(b.live(), 0u);
    }
}

TEST(McuUsbRecover, MalformedNumbersGiveAMessageNotACrash) {
    Bus b;
    LogCapture log;
    EXPECT_EQ(mcu_usb_recover("zz:0001:00"), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_TRUE(log.contains("malformed HID path 'zz:0001:00' (stoul: not a number)"));
    EXPECT_EQ(mcu_usb_recover("0001::00"), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_EQ(mcu_usb_recover("ffffffffffffffffffffffff:1:0"), LIBUSB_ERROR_INVALID_PARAM);
    EXPECT_TRUE(log.contains("(stoul: out of range)"));
    EXPECT_EQ(val(b.mcu->counters().usbClaims), 0);
    // Hexadecimal with prefix and values truncated to 8 bits are read as stoul reads them.
    const auto dev = b.mcu->usbDevice();
    char path[64];
    std::snprintf(path, sizeof path, "0x%x:%x:00", dev->bus, 0x100 + dev->address);
    EXPECT_EQ(mcu_usb_recover(path), 0);
    EXPECT_EQ(val(b.mcu->counters().usbResets), 1);
}
