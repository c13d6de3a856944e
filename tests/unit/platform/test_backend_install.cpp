#include <fcntl.h>
#include <gtest/gtest.h>

#include "platform/Platform.h"
#include "platform/RealBackend.h"
#include "sim/SimBackend.h"
#include "sim/Simulator.h"

TEST(PlatformBackend, StartsOnTheRealBackend) {
    platform::Backend b = platform::current();
    EXPECT_NE(dynamic_cast<platform::RealSys*>(b.sys.get()), nullptr);
    EXPECT_NE(dynamic_cast<platform::RealUsb*>(b.usb.get()), nullptr);
    EXPECT_NE(dynamic_cast<platform::RealHid*>(b.hid.get()), nullptr);
    EXPECT_NE(dynamic_cast<platform::NoArgus*>(b.argus.get()), nullptr);
    EXPECT_FALSE(platform::argus().createProvider());
}

TEST(PlatformBackend, InstallSwapsAllSeamsAtOnceAndRestores) {
    auto m = std::make_shared<sim::Machine>("test");
    {
        platform::ScopedBackend scoped(sim::makeBackend(m));
        EXPECT_NE(dynamic_cast<sim::SimSys*>(&platform::sys()), nullptr);
        EXPECT_NE(dynamic_cast<sim::SimUsb*>(&platform::usb()), nullptr);
        EXPECT_NE(dynamic_cast<sim::SimHid*>(&platform::hid()), nullptr);
        // Seams the machine does not simulate stay real.
        EXPECT_NE(dynamic_cast<platform::NoArgus*>(&platform::argus()), nullptr);
        EXPECT_NE(dynamic_cast<platform::RealClock*>(&platform::clock()), nullptr);
    }
    EXPECT_NE(dynamic_cast<platform::RealSys*>(&platform::sys()), nullptr);
    EXPECT_NE(dynamic_cast<platform::RealUsb*>(&platform::usb()), nullptr);
}

TEST(PlatformBackend, RealSysForwardsToLibc) {
    platform::Sys& sys = platform::sys();
    int fd = sys.open("/dev/null", O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(sys.write(fd, "abc", 3), 3);
    char c;
    EXPECT_EQ(sys.read(fd, &c, 1), 0);
    struct stat st {};
    EXPECT_EQ(sys.stat("/dev/null", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(sys.close(fd), 0);
    EXPECT_EQ(sys.open("/nonexistent/kov", O_RDONLY), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(PlatformBackend, RealClockMoves) {
    int64_t a = platform::clock().steadyNanoseconds();
    platform::clock().sleepFor(std::chrono::milliseconds(2));
    EXPECT_GT(platform::clock().steadyNanoseconds(), a);
}

// The real USB and HID seams run on this machine (which may have no USB at
// all): enumeration ends with a list, possibly empty, and frees what it got.
TEST(PlatformBackend, RealUsbAndHidEnumerate) {
    platform::Usb& usb = platform::usb();
    libusb_context* ctx = nullptr;
    int r = usb.init(&ctx);
    if (r == 0) {
        libusb_device** list = nullptr;
        ssize_t n = usb.get_device_list(ctx, &list);
        if (n >= 0) {
            for (ssize_t i = 0; i < n; ++i) {
                libusb_device_descriptor d{};
                EXPECT_EQ(usb.get_device_descriptor(list[i], &d), 0);
                EXPECT_EQ(d.bDescriptorType, LIBUSB_DT_DEVICE);
            }
            usb.free_device_list(list, 1);
        }
        usb.exit(ctx);
    } else {
        EXPECT_NE(usb.error_name(r), nullptr);
    }
    platform::Hid& hid = platform::hid();
    EXPECT_EQ(hid.init(), 0);
    hid.free_enumeration(hid.enumerate(0x2B03, 0));
    testing::internal::CaptureStderr();
    EXPECT_EQ(hid.open_path("ffff:ffff:00", 1), nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("ffff:ffff:00"), std::string::npos);
    EXPECT_EQ(hid.exit(), 0);
}
