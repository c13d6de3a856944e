#include <gtest/gtest.h>

#include "bh_input/grabber/String.h"

TEST(BhString, EmptyStringsAreEqual) {
    bh::String a, b;
    EXPECT_TRUE(a == b);
    EXPECT_FALSE(a != b);
    EXPECT_TRUE(a.empty());
    EXPECT_EQ(a.get(), nullptr);
    EXPECT_EQ(a.c_str(), nullptr);
    EXPECT_EQ(a.size(), 0u);
}

TEST(BhString, EmptyNeverEqualsNonEmpty) {
    bh::String a, b("/dev/video0");
    EXPECT_FALSE(a == b);
    EXPECT_FALSE(b == a);
    EXPECT_TRUE(a != b);
}

TEST(BhString, SetCopiesAndCountsTerminator) {
    bh::String s;
    s.set("abc");
    EXPECT_EQ(s.size(), 4u);
    EXPECT_STREQ(s.c_str(), "abc");
    s.set("");
    EXPECT_TRUE(s.empty());
    EXPECT_EQ(s.get(), nullptr);
    s.set("x");
    s.set(nullptr);
    EXPECT_TRUE(s.empty());
}

TEST(BhString, CopyAndCompare) {
    bh::String a("/dev/i2c-30");
    bh::String b = a;
    EXPECT_TRUE(a == b);
    EXPECT_NE(a.get(), b.get());
    b.set("/dev/i2c-31");
    EXPECT_TRUE(a != b);
    a = b;
    EXPECT_TRUE(a == b);
    a = a;  // self-assignment keeps the text
    EXPECT_STREQ(a.c_str(), "/dev/i2c-31");
    a.set(a.c_str());  // setting from its own text
    EXPECT_STREQ(a.c_str(), "/dev/i2c-31");
    a.clear();
    EXPECT_TRUE(a.empty());
}
