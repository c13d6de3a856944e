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
