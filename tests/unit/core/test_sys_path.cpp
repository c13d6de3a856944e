#include <gtest/gtest.h>

#include <cstdlib>

#include "utils/SysPath.h"

TEST(SysPath, UnsetLeavesThePathAlone) {
    unsetenv("KOV_SYSROOT");
    EXPECT_EQ(utils::sysPath("/proc/cpuinfo"), "/proc/cpuinfo");
    setenv("KOV_SYSROOT", "", 1);
    EXPECT_EQ(utils::sysPath("/proc/cpuinfo"), "/proc/cpuinfo");
}

TEST(SysPath, PrefixesTheRoot) {
    setenv("KOV_SYSROOT", "/tmp/root", 1);
    EXPECT_EQ(utils::sysPath("/etc/nv_tegra_release"), "/tmp/root/etc/nv_tegra_release");
    setenv("KOV_SYSROOT", "/tmp/root///", 1);
    EXPECT_EQ(utils::sysPath("/usr/local/kov"), "/tmp/root/usr/local/kov");
    EXPECT_EQ(utils::sysPath("relative"), "/tmp/root/relative");
    unsetenv("KOV_SYSROOT");
}
