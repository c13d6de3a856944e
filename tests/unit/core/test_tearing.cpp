// Tearing test of a frame pair: the verdict on hand-built pairs, and the fast
// comparison against a plain per-sample transcription on many pairs and sizes.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "diagnostic/TearingTest.h"

namespace {

using Frame = std::vector<uint8_t>;

// Exactly 4 * W * H bytes, so that the sanitizers see any read past the end.
Frame makeScene(int w, int h, uint32_t seed) {
    Frame f(4 * static_cast<size_t>(w) * h);
    std::mt19937 rng(seed);
    for (auto& v : f)
        v = static_cast<uint8_t>(rng());
    return f;
}

size_t rowBytes(int w) {
    return 4 * static_cast<size_t>(w);
}

// First and one-past-last row of band b, found by scanning the band rule.
std::pair<int, int> bandRows(int b, int h) {
    int first = -1, last = -1;
    for (int y = 0; y < h; ++y) {
        if (y >= b * h * 0.2 && y < (b + 1) * h * 0.2) {
            if (first < 0)
                first = y;
            last = y + 1;
        }
    }
    return {first, last};
}

// The rows of band b of `frame` taken from `other`.
void replaceBand(Frame& frame, const Frame& other, int w, int h, int b) {
    const auto rows = bandRows(b, h);
    for (int y = rows.first; y < rows.second; ++y)
        for (size_t i = 0; i < rowBytes(w); ++i)
            frame[rowBytes(w) * y + i] = other[rowBytes(w) * y + i];
}

// Both chroma bytes of every sample of band b moved by 128.
void flipBandChroma(Frame& frame, int w, int h, int b) {
    const auto rows = bandRows(b, h);
    for (int y = rows.first; y < rows.second; ++y)
        for (size_t i = 0; i < rowBytes(w); ++i)
            if (i % 2 == 1)
                frame[rowBytes(w) * y + i] ^= 0x80;
}

void expectSame(const tearing::BandScores& fast, const tearing::BandScores& ref, const std::string& what) {
    for (int b = 0; b < tearing::kBands; ++b) {
        EXPECT_EQ(fast.count[b], ref.count[b]) << what << " band " << b;
        EXPECT_EQ(fast.n[b], ref.n[b]) << what << " band " << b;
        // Bit for bit: the same double, not merely a close one.
        EXPECT_EQ(fast.score[b], ref.score[b]) << what << " band " << b;
    }
    EXPECT_EQ(fast.torn, ref.torn) << what;
}

tearing::BandScores checked(const Frame& prev, const Frame& cur, int w, int h) {
    const auto fast = tearing::compareFrames(prev.data(), cur.data(), w, h);
    const auto narrow = tearing::compareFrames(prev.data(), cur.data(), w, h, false);
    const auto ref = tearing::compareFramesReference(prev.data(), cur.data(), w, h);
    const std::string name = std::to_string(w) + "x" + std::to_string(h);
    expectSame(fast, ref, name);
    expectSame(narrow, ref, name + " (16-byte vectors)");
    EXPECT_EQ(tearing::isTorn(prev.data(), cur.data(), w, h), fast.torn);
    return fast;
}

TEST(Tearing, IdenticalFramesAreNotTorn) {
    const Frame a = makeScene(1280, 720, 1);
    const Frame b = a;
    const auto r = checked(a, b, 1280, 720);
    EXPECT_FALSE(r.torn);
    for (int i = 0; i < tearing::kBands; ++i) {
        EXPECT_EQ(r.count[i], 0);
        EXPECT_EQ(r.score[i], 100.0);
    }
}

TEST(Tearing, BandFromAnotherSceneTears) {
    const int w = 1280, h = 720;
    const Frame prev = makeScene(w, h, 2);
    Frame cur = prev;
    replaceBand(cur, makeScene(w, h, 3), w, h, 2);
    const auto r = checked(prev, cur, w, h);
    EXPECT_TRUE(r.torn);
    EXPECT_LT(r.score[2], 85.0);
    for (int b : {0, 1, 3, 4})
        EXPECT_EQ(r.score[b], 100.0) << b;
}

TEST(Tearing, BandFullyChangedScoresByHand) {
    // Band 2 of 720 rows is rows 288..431: 72 sampled rows of 640 samples;
    // n = 1280 * 720 * 0.1 = 92160, score 100 - 100 * 46080 / 92160 = 50.
    const int w = 1280, h = 720;
    const Frame prev = makeScene(w, h, 4);
    Frame cur = prev;
    flipBandChroma(cur, w, h, 2);
    const auto r = checked(prev, cur, w, h);
    EXPECT_EQ(r.count[2], 46080);
    EXPECT_EQ(r.n[2], 92160);
    EXPECT_EQ(r.score[2], 50.0);
    EXPECT_TRUE(r.torn);
}

TEST(Tearing, SameChangeInFirstBandDoesNotTear) {
    // Band 0 is judged against the whole frame's samples x 2: the same 46080
    // changed samples give 100 - 100 * 46080 / 460800 = 90.
    const int w = 1280, h = 720;
    const Frame prev = makeScene(w, h, 5);
    Frame cur = prev;
    flipBandChroma(cur, w, h, 0);
    const auto r = checked(prev, cur, w, h);
    EXPECT_EQ(r.count[0], 46080);
    EXPECT_EQ(r.n[0], 460800);
    EXPECT_EQ(r.score[0], 90.0);
    EXPECT_FALSE(r.torn);

    Frame other = prev;
    replaceBand(other, makeScene(w, h, 6), w, h, 0);
    const auto s = checked(prev, other, w, h);
    EXPECT_GE(s.score[0], 85.0);
    EXPECT_FALSE(s.torn);
}

TEST(Tearing, ChromaDifferenceMustExceedTen) {
    const int w = 64, h = 40;                        // band 1 holds rows 8..15
    const size_t sample = rowBytes(w) * 10 + 4 * 4;  // x = 4, y = 10
    for (int offset : {1, 3}) {
        for (int delta : {10, 11, -10, -11}) {
            Frame prev(4 * static_cast<size_t>(w) * h, 100);
            Frame cur = prev;
            cur[sample + offset] = static_cast<uint8_t>(100 + delta);
            const auto r = checked(prev, cur, w, h);
            const int expected = std::abs(delta) > 10 ? 1 : 0;
            EXPECT_EQ(r.count[1], expected) << "offset " << offset << " delta " << delta;
            EXPECT_EQ(r.count[0] + r.count[2] + r.count[3] + r.count[4], 0);
        }
    }
    // 0 against 255 and back: the difference is taken without wrapping.
    Frame prev(4 * static_cast<size_t>(w) * h, 0);
    Frame cur = prev;
    cur[sample + 1] = 255;
    EXPECT_EQ(checked(prev, cur, w, h).count[1], 1);
    EXPECT_EQ(checked(cur, prev, w, h).count[1], 1);
}

TEST(Tearing, OnlySampledChromaBytesCount) {
    const int w = 64, h = 40;
    Frame prev(4 * static_cast<size_t>(w) * h, 100);
    Frame cur = prev;
    for (int y = 0; y < h; ++y) {
        for (size_t i = 0; i < rowBytes(w); ++i) {
            const bool luma = i % 2 == 0;
            const bool oddPair = (i / 4) % 2 == 1;
            if (luma || oddPair || y % 2 == 1)
                cur[rowBytes(w) * y + i] = 0;
        }
    }
    const auto r = checked(prev, cur, w, h);
    for (int b = 0; b < tearing::kBands; ++b)
        EXPECT_EQ(r.count[b], 0) << b;
    EXPECT_FALSE(r.torn);
}

TEST(Tearing, ScoreOfExactlyEightyFiveDoesNotTear) {
    // Band 1 of 1280 x 720: n = 92160; 13824 changed samples score exactly 85.
    const int w = 1280, h = 720;
    const auto rows = bandRows(1, h);
    for (int changed : {13824, 13825}) {
        Frame prev(4 * static_cast<size_t>(w) * h, 50);
        Frame cur = prev;
        int left = changed;
        for (int y = rows.first; y < rows.second && left > 0; y += 2)
            for (int x = 0; x < w && left > 0; x += 2, --left)
                cur[rowBytes(w) * y + 4 * x + 3] = 200;
        const auto r = checked(prev, cur, w, h);
        EXPECT_EQ(r.count[1], changed);
        EXPECT_EQ(r.torn, changed == 13825) << changed;
    }
}

TEST(Tearing, BadArgumentsReadNothing) {
    const Frame f(16, 0);
    for (auto size : {std::pair<int, int>{0, 4}, {4, 0}, {-1, 4}, {4, -3}}) {
        const auto r = tearing::compareFrames(f.data(), f.data(), size.first, size.second);
        EXPECT_FALSE(r.torn);
        const auto ref = tearing::compareFramesReference(f.data(), f.data(), size.first, size.second);
        expectSame(r, ref, "bad size");
    }
    EXPECT_FALSE(tearing::isTorn(nullptr, f.data(), 2, 2));
    EXPECT_FALSE(tearing::isTorn(f.data(), nullptr, 2, 2));
}

TEST(Tearing, BandsWithNoDivisorScoreHundred) {
    // 3 x 3: n is (int)(9 * 0.1) = 0 for bands 1 to 4 and (int)(4.5) = 4 for
    // band 0. Row 0 is band 0, row 2 band 3 ([1.8, 2.4)); two samples a row.
    const int w = 3, h = 3;
    const Frame prev(4 * static_cast<size_t>(w) * h, 0);
    const Frame cur(prev.size(), 255);
    const auto r = checked(prev, cur, w, h);
    EXPECT_EQ(r.count[0], 2);
    EXPECT_EQ(r.count[3], 2);
    EXPECT_EQ(r.n[0], 4);
    EXPECT_EQ(r.n[3], 0);
    EXPECT_EQ(r.score[0], 50.0);
    EXPECT_EQ(r.score[3], 100.0);
    EXPECT_TRUE(r.torn);
}

// Pairs of every kind at the camera sizes and at odd and tiny ones.
TEST(Tearing, FastMatchesReference) {
    const std::vector<std::pair<int, int>> sizes = {
        {1280, 720}, {672, 376}, {1920, 1080}, {2208, 1242}, {1281, 721}, {1283, 719}, {641, 3}, {5, 641},
        {13, 9},     {7, 5},     {4, 4},       {3, 3},       {2, 2},      {1, 1},      {1, 2},   {2, 1},
        {3, 1},      {1, 7},     {6, 11},      {9, 10},      {17, 33},    {31, 23},    {8, 8},   {33, 5}};
    std::mt19937 rng(20240611);
    int tornPairs = 0, wholePairs = 0;
    for (const auto& size : sizes) {
        const int w = size.first, h = size.second;
        const std::string name = std::to_string(w) + "x" + std::to_string(h);
        const Frame base = makeScene(w, h, rng());

        // Unrelated scenes.
        checked(base, makeScene(w, h, rng()), w, h);

        // Noise around the threshold on a share of the bytes that varies per
        // pair, so that scores land on both sides of 85.
        for (int pair = 0; pair < 8; ++pair) {
            Frame cur = base;
            const uint32_t share = rng() % 256;
            for (auto& v : cur) {
                const uint32_t r = rng();
                if ((r & 0xFF) < share) {
                    const int d = static_cast<int>((r >> 8) % 41) - 20;
                    v = static_cast<uint8_t>(std::min(255, std::max(0, v + d)));
                }
            }
            const auto r = checked(base, cur, w, h);
            tornPairs += r.torn;
            wholePairs += !r.torn;
        }

        // Each band in turn from another scene, and flipped chroma.
        for (int b = 0; b < tearing::kBands; ++b) {
            Frame cur = base;
            replaceBand(cur, makeScene(w, h, rng()), w, h, b);
            checked(base, cur, w, h);
            Frame flipped = base;
            flipBandChroma(flipped, w, h, b);
            checked(base, flipped, w, h);
        }

        // Single changed bytes at the first and last samples of a row and
        // at the last bytes of the frame: every row of small frames, the rows
        // around the band edges and the frame edges of large ones.
        std::set<int> rows;
        for (int y = 0; y < h; ++y)
            if (h <= 64 || y < 2 || y >= h - 2)
                rows.insert(y);
        for (int b = 0; b < tearing::kBands; ++b) {
            const auto edge = bandRows(b, h);
            for (int y : {edge.first - 1, edge.first, edge.second - 1, edge.second})
                if (y >= 0 && y < h)
                    rows.insert(y);
        }
        Frame cur = base;
        for (int y : rows) {
            for (size_t i :
                 {size_t{1}, size_t{3}, rowBytes(w) - 1, rowBytes(w) - 3, rowBytes(w) - 5, rowBytes(w) - 7}) {
                if (i >= rowBytes(w))
                    continue;
                cur[rowBytes(w) * y + i] ^= 0x40;
                checked(base, cur, w, h);
                cur[rowBytes(w) * y + i] ^= 0x40;
            }
        }
    }
    // The noise pairs must have met both verdicts.
    EXPECT_GT(tornPairs, 0);
    EXPECT_GT(wholePairs, 0);
}

}  // namespace
