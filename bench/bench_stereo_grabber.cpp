// Producer-to-consumer delivery of one HD720 side-by-side frame (2560 x 720
// YUYV) through the stereo grabber: the driver buffer is copied to staging by
// the producer and to the output by the consumer. The yardstick, measured in
// the same run, is one memcpy of the same frame.
#include <benchmark/benchmark.h>

#include <time.h>

#include <cstring>
#include <memory>
#include <vector>

#include "bh_input/grabber/linux/linuxStereoGrabber.h"
#include "platform/Platform.h"
#include "tests/unit/grabber/FakeV4L2Sys.h"

namespace {

constexpr int kWidth = 2560;
constexpr int kHeight = 720;
constexpr size_t kFrameBytes = static_cast<size_t>(kWidth) * kHeight * 2;

void BM_MemcpyHD720Frame(benchmark::State& state) {
    std::vector<unsigned char> src(kFrameBytes, 0x42), dst(kFrameBytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), kFrameBytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kFrameBytes));
}
BENCHMARK(BM_MemcpyHD720Frame)->Unit(benchmark::kMicrosecond)->UseRealTime();

// The same copy from four driver-sized buffers in turn, as the producer reads
// them: the source is seldom in the cache any more.
void BM_MemcpyHD720FrameFromFourBuffers(benchmark::State& state) {
    std::vector<std::vector<unsigned char>> sources(4, std::vector<unsigned char>(kFrameBytes, 0x42));
    std::vector<unsigned char> dst(kFrameBytes);
    size_t i = 0;
    for (auto _ : state) {
        std::memcpy(dst.data(), sources[i++ % 4].data(), kFrameBytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kFrameBytes));
}
BENCHMARK(BM_MemcpyHD720FrameFromFourBuffers)->Unit(benchmark::kMicrosecond)->UseRealTime();

double processCpuSeconds() {
    timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// One iteration: the driver hands over a filled buffer; the iteration ends
// when the consumer has delivered it to the output buffer. The time per
// iteration includes three thread wake-ups (driver to producer, producer to
// consumer, consumer to caller); the counter cpu_us_per_frame is the CPU time
// of the whole process per frame, the work of the two copies and the locking.
void BM_GrabberDeliveryHD720(benchmark::State& state) {
    auto sys = std::make_shared<testsupport::FakeV4L2Sys>();
    sys->fillOnDequeue = false;
    platform::ScopedBackend backend(platform::Backend{sys, nullptr, nullptr, nullptr, nullptr});
    bh::LinuxStereoGrabber grabber(false);
    if (grabber.construct(testsupport::FakeV4L2Sys::kPath, kWidth, kHeight, 60, 4) != 0 ||
        !grabber.startCapture()) {
        state.SkipWithError("the grabber did not open the in-memory node");
        return;
    }
    const uint32_t bytes = static_cast<uint32_t>(kFrameBytes);
    uint32_t index = 0;
    // Warm up: the first frame also wakes the consumer out of its start wait.
    sys->script({index, bytes, bytes, 0});
    while (grabber.waitForNewFrame(1000) != 1) {
    }
    const double cpuStart = processCpuSeconds();
    for (auto _ : state) {
        index = (index + 1) % 4;
        sys->script({index, bytes, bytes, 0});
        while (grabber.waitForNewFrame(1000) != 1) {
        }
    }
    const double cpu = processCpuSeconds() - cpuStart;
    state.counters["cpu_us_per_frame"] = cpu * 1e6 / static_cast<double>(state.iterations());
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kFrameBytes));
    grabber.destruct();
}
BENCHMARK(BM_GrabberDeliveryHD720)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
