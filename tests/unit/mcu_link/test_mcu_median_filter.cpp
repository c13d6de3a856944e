// The running median of the pressure filter against a sorted window.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "bh_input/mcu/IMU/MedianFilter.h"

TEST(MedianFilter, InitRefusesBadArguments) {
    sMedianFilterNode_t nodes[6];
    sMedianFilter_t f{};
    EXPECT_EQ(MEDIANFILTER_Init(nullptr), -1);
    f.numNodes = 5;
    f.medianBuffer = nullptr;
    EXPECT_EQ(MEDIANFILTER_Init(&f), -1);
    f.medianBuffer = nodes;
    for (unsigned n : {0u, 1u, 2u, 4u, 6u}) {
        f.numNodes = n;
        EXPECT_EQ(MEDIANFILTER_Init(&f), -1) << n;
    }
    f.numNodes = 5;
    EXPECT_EQ(MEDIANFILTER_Init(&f), 0);
    EXPECT_EQ(f.medianHead, &nodes[2]);
    EXPECT_EQ(f.valueHead, &nodes[0]);
    EXPECT_EQ(f.ageHead, &nodes[0]);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(nodes[i].value, 0);
}

TEST(MedianFilter, FirstTwoPositiveValuesGiveZero) {
    sMedianFilterNode_t nodes[5];
    sMedianFilter_t f{5, nodes, nullptr, nullptr, nullptr};
    ASSERT_EQ(MEDIANFILTER_Init(&f), 0);
    EXPECT_EQ(MEDIANFILTER_Insert(&f, 101325), 0);
    EXPECT_EQ(MEDIANFILTER_Insert(&f, 101330), 0);
    EXPECT_EQ(MEDIANFILTER_Insert(&f, 101320), 101320);
    EXPECT_EQ(MEDIANFILTER_Insert(&f, 101340), 101325);
    EXPECT_EQ(MEDIANFILTER_Insert(&f, 101335), 101330);
}

TEST(MedianFilter, MatchesSortedWindowOnRandomInput) {
    std::mt19937 rng(7);
    for (unsigned n : {3u, 5u, 7u, 9u}) {
        std::vector<sMedianFilterNode_t> nodes(n);
        sMedianFilter_t f{n, nodes.data(), nullptr, nullptr, nullptr};
        ASSERT_EQ(MEDIANFILTER_Init(&f), 0);
        std::vector<int32_t> window(n, 0);
        size_t oldest = 0;
        // Narrow ranges give many repeated values, wide ones many distinct.
        for (int range : {3, 1000, 2000000000}) {
            std::uniform_int_distribution<int32_t> dist(-range, range);
            for (int i = 0; i < 3000; ++i) {
                const int32_t v = dist(rng);
                window[oldest] = v;
                oldest = (oldest + 1) % n;
                std::vector<int32_t> sorted = window;
                std::sort(sorted.begin(), sorted.end());
                ASSERT_EQ(MEDIANFILTER_Insert(&f, v), sorted[n / 2]) << "n=" << n << " i=" << i;
            }
        }
    }
}
