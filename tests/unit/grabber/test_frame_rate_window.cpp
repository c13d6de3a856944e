#include <gtest/gtest.h>

#include "bh_input/grabber/virtualGrabber.h"

constexpr uint64_t kMs = 1000000ULL;

TEST(FrameRateWindow, EmptyFallsBack) {
    bh::FrameRateWindow w;
    EXPECT_EQ(w.capacity, 60);
    EXPECT_EQ(w.window, 1000000000ULL);
    EXPECT_FLOAT_EQ(w.fps(5000 * kMs, 15.f), 15.f);
}

TEST(FrameRateWindow, ShortHistoryUsesCountOverAge) {
    bh::FrameRateWindow w;
    w.reset(30);
    // 10 frames 33 ms apart; now = last frame + 0: newest has age 0.
    uint64_t t0 = 1000 * kMs;
    for (int i = 0; i < 10; ++i)
        w.push(t0 + i * 33 * kMs);
    uint64_t now = t0 + 9 * 33 * kMs + 10 * kMs;
    // All 10 visited (none reaches 1 s); oldest age 307 ms; c = 12.
    float expected = std::min(30.f, static_cast<float>(12.0 * 1e9 / (307.0 * kMs)));
    EXPECT_NEAR(w.fps(now, -1.f), expected, 1e-3);
}

TEST(FrameRateWindow, ClampedByCapacity) {
    bh::FrameRateWindow w;
    w.reset(15);
    uint64_t t0 = 1000 * kMs;
    for (int i = 0; i < 10; ++i)
        w.push(t0 + i * kMs);  // 1000 fps burst
    EXPECT_FLOAT_EQ(w.fps(t0 + 20 * kMs, -1.f), 15.f);
}

TEST(FrameRateWindow, OldEntryStopsWalkAndCountsPlusTwo) {
    bh::FrameRateWindow w;
    w.reset(60);
    uint64_t t0 = 1000 * kMs;
    w.push(t0);  // will be older than the window
    for (int i = 0; i < 5; ++i)
        w.push(t0 + 900 * kMs + i * 100 * kMs);  // 900..1300
    uint64_t now = t0 + 1350 * kMs;
    // Visits 1300, 1200, 1100, 1000 (age 350 ms... ) then 900 (age 450 ms) then t0 (age 1350 ms >= window):
    // k = 6, c = 8, d >= window: min(8, 60) = 8.
    EXPECT_FLOAT_EQ(w.fps(now, -1.f), 8.f);
}

TEST(FrameRateWindow, ZeroAgeFallsBack) {
    bh::FrameRateWindow w;
    w.push(1000 * kMs);
    EXPECT_FLOAT_EQ(w.fps(1000 * kMs, 7.f), 7.f);
}

TEST(FrameRateWindow, PushKeepsCapacity) {
    bh::FrameRateWindow w;
    w.reset(5);
    for (int i = 0; i < 20; ++i)
        w.push(static_cast<uint64_t>(i));
    EXPECT_EQ(w.timestamps.size(), 5u);
    EXPECT_EQ(w.timestamps.front(), 15u);
    w.reset(10);
    EXPECT_TRUE(w.timestamps.empty());
}
