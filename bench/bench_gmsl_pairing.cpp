// Pairing and side-by-side copy of one HD1200 stereo pair (two 1920 x 1200
// YUYV images into one 3840 x 1200 image), as the GMSL consumer does it for
// every frame. The yardstick, measured in the same run, is one memcpy of the
// pair's bytes: the stereo copy is one copy of each image, so the pairing
// should cost little more.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "bh_input/grabber/gmsl/ArgusCamera.h"

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1200;
constexpr size_t kImageBytes = static_cast<size_t>(kWidth) * kHeight * 2;

// A camera whose queues the benchmark fills directly, as two producers would.
class PairingBench : public ArgusCamera {
public:
    PairingBench() {
        width = kWidth;
        height = kHeight;
        channels = 4;
        run.sync_threshold = 10000;
    }
    void pushPair(uint64_t timestampUs) {
        for (int side = 0; side < 2; ++side) {
            argusMonoImage image;
            image.timestamp = timestampUs + static_cast<uint64_t>(side);
            image.pitch = kWidth * 2;
            image.data = static_cast<unsigned char*>(std::malloc(kImageBytes));
            std::memset(image.data, 0x40 + side, kImageBytes);
            std::lock_guard<std::mutex> lock(side == 0 ? left_mutex : right_mutex);
            (side == 0 ? left_queue : right_queue).push_back(image);
        }
    }
};

void BM_GmslPairAndStereoCopyHD1200(benchmark::State& state) {
    PairingBench camera;
    std::vector<unsigned char> out(kImageBytes * 2);
    uint64_t ts = 1000;
    for (auto _ : state) {
        state.PauseTiming();
        camera.pushPair(ts += 16666);
        state.ResumeTiming();
        unsigned long long delivered = 0;
        const int r = camera.readSBS(out.data(), delivered);
        benchmark::DoNotOptimize(r);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kImageBytes * 2));
}
BENCHMARK(BM_GmslPairAndStereoCopyHD1200)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The same pair's bytes in one memcpy, from sources written just before, as
// the producers leave them.
void BM_MemcpyHD1200Pair(benchmark::State& state) {
    std::vector<unsigned char> out(kImageBytes * 2);
    for (auto _ : state) {
        state.PauseTiming();
        auto* src = static_cast<unsigned char*>(std::malloc(kImageBytes * 2));
        std::memset(src, 0x41, kImageBytes * 2);
        state.ResumeTiming();
        std::memcpy(out.data(), src, kImageBytes * 2);
        benchmark::DoNotOptimize(out.data());
        state.PauseTiming();
        std::free(src);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kImageBytes * 2));
}
BENCHMARK(BM_MemcpyHD1200Pair)->Unit(benchmark::kMicrosecond)->UseRealTime();

// One memcpy of the pair from a source that stays in place (the best case).
void BM_MemcpyHD1200PairWarm(benchmark::State& state) {
    std::vector<unsigned char> src(kImageBytes * 2, 0x41), out(kImageBytes * 2);
    for (auto _ : state) {
        std::memcpy(out.data(), src.data(), kImageBytes * 2);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kImageBytes * 2));
}
BENCHMARK(BM_MemcpyHD1200PairWarm)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
