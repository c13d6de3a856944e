// Tearing test of one HD720 frame pair (2560 x 720 side-by-side YUYV, view
// 1280 x 720), fast and per-sample versions. The yardstick, measured in the
// same run, is one memcpy of one such frame: the grabbing test copies every
// frame once before comparing it, so the comparison should cost no more.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include "diagnostic/TearingTest.h"

namespace {

constexpr int kViewWidth = 1280;
constexpr int kViewHeight = 720;
constexpr size_t kFrameBytes = static_cast<size_t>(2 * kViewWidth) * kViewHeight * 2;

// A random scene and the same scene with sensor-like noise (a fifth of the
// bytes moved by up to 12), so that some samples change and most do not.
struct Pair {
    std::vector<uint8_t> previous, current;
    Pair() : previous(kFrameBytes), current(kFrameBytes) {
        std::mt19937 rng(7);
        for (size_t i = 0; i < kFrameBytes; ++i) {
            previous[i] = static_cast<uint8_t>(rng());
            const uint32_t r = rng();
            const int d = (r & 0xFF) < 51 ? static_cast<int>((r >> 8) % 25) - 12 : 0;
            current[i] = static_cast<uint8_t>(std::min(255, std::max(0, previous[i] + d)));
        }
    }
};

void BM_TearingCompareHD720(benchmark::State& state) {
    const Pair p;
    for (auto _ : state) {
        auto r = tearing::compareFrames(p.previous.data(), p.current.data(), kViewWidth, kViewHeight);
        benchmark::DoNotOptimize(r);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kFrameBytes));
}
BENCHMARK(BM_TearingCompareHD720)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_TearingCompareReferenceHD720(benchmark::State& state) {
    const Pair p;
    for (auto _ : state) {
        auto r =
            tearing::compareFramesReference(p.previous.data(), p.current.data(), kViewWidth, kViewHeight);
        benchmark::DoNotOptimize(r);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kFrameBytes));
}
BENCHMARK(BM_TearingCompareReferenceHD720)->Unit(benchmark::kMicrosecond)->UseRealTime();

void BM_MemcpyHD720Frame(benchmark::State& state) {
    std::vector<uint8_t> src(kFrameBytes, 0x42), dst(kFrameBytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), kFrameBytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kFrameBytes));
}
BENCHMARK(BM_MemcpyHD720Frame)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
