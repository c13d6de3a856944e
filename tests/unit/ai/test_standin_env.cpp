// Parsing of the stand-ins' configuration variables: device lists and
// versions, well-formed and not.
#include "sim/standins/StandinEnv.h"

#include "StandinTestSupport.h"

#include <gtest/gtest.h>

using testsupport::ScopedEnv;

TEST(StandinEnv, DeviceListTable) {
    struct Case {
        const char* text;
        size_t count;
        const char* firstName;
        int major, minor, sm;
        unsigned long long memory;
    };
    const Case cases[] = {
        {"", 0, "", 0, 0, 0, 0},
        {";;;", 0, "", 0, 0, 0, 0},
        {"Orin|8.7|16|32000000000", 1, "Orin", 8, 7, 16, 32000000000ULL},
        {"Orin|8.7|16|1;Xavier|7.2|8|2", 2, "Orin", 8, 7, 16, 1},
        {"Only a name", 1, "Only a name", 0, 0, 0, 0},
        {"A|9", 1, "A", 9, 0, 0, 0},
        {"A|x.y|z|w", 1, "A", 0, 0, 0, 0},
        {"|8.7||", 1, "", 8, 7, 0, 0},
        {"A|8.7.5.4|16|5|extra|fields", 1, "A", 8, 7, 16, 5},
    };
    for (const Case& c : cases) {
        ScopedEnv env("KOV_STANDIN_CUDA_DEVICES", c.text);
        const auto list = standin::devices();
        ASSERT_EQ(list.size(), c.count) << c.text;
        if (list.empty())
            continue;
        EXPECT_EQ(list[0].name, c.firstName) << c.text;
        EXPECT_EQ(list[0].major, c.major) << c.text;
        EXPECT_EQ(list[0].minor, c.minor) << c.text;
        EXPECT_EQ(list[0].multiprocessors, c.sm) << c.text;
        EXPECT_EQ(list[0].memory, c.memory) << c.text;
    }
}

TEST(StandinEnv, IntegersFallBackOnGarbage) {
    ScopedEnv env;
    env.unset("KOV_TEST_NUMBER");
    EXPECT_EQ(standin::envInt("KOV_TEST_NUMBER", 7), 7);
    for (const char* bad : {"", "abc", "12abc", " "}) {
        env.set("KOV_TEST_NUMBER", bad);
        EXPECT_EQ(standin::envInt("KOV_TEST_NUMBER", 7), 7) << bad;
    }
    env.set("KOV_TEST_NUMBER", "-35");
    EXPECT_EQ(standin::envInt("KOV_TEST_NUMBER", 7), -35);
}

TEST(StandinEnv, VersionsKeepTheirDefaultsWhereMissing) {
    int v[3] = {4, 1, 2};
    standin::parseVersion("5", v, 3);
    EXPECT_EQ(v[0], 5);
    EXPECT_EQ(v[1], 1);
    EXPECT_EQ(v[2], 2);
    standin::parseVersion("4.0.9.9", v, 3);
    EXPECT_EQ(v[1], 0);
    EXPECT_EQ(v[2], 9);
}
