// The simulated UVC camera's own cost per frame, against the yardstick of one
// memcpy of the same frame (2560x720 YUYV, 3.6864 MB) in the same program.
// The camera runs on a stepped clock, so the wait for the next frame is free:
// what is measured is poll + DQBUF + QBUF through platform::sys() and the
// rendering of the frame into its buffer.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/mman.h>

#include <cstring>
#include <vector>

#include "platform/Platform.h"
#include "sim/Machine.h"
#include "sim/Simulator.h"
#include "sim/SteppedClock.h"
#include "sim/uvc/FrameGenerator.h"

namespace {

constexpr uint32_t kWidth = 2560, kHeight = 720;
constexpr size_t kFrameBytes = static_cast<size_t>(kWidth) * kHeight * 2;

void BM_MemcpyFrame(benchmark::State& state) {
    std::vector<uint8_t> src(kFrameBytes, 0x5A), dst(kFrameBytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), kFrameBytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameBytes));
}
BENCHMARK(BM_MemcpyFrame);

// The same copy into four destinations in turn, as the camera fills four buffers.
void BM_MemcpyFrameFourBuffers(benchmark::State& state) {
    std::vector<uint8_t> src(kFrameBytes, 0x5A);
    std::vector<std::vector<uint8_t>> dst(4, std::vector<uint8_t>(kFrameBytes));
    size_t i = 0;
    for (auto _ : state) {
        std::memcpy(dst[i++ % 4].data(), src.data(), kFrameBytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameBytes));
}
BENCHMARK(BM_MemcpyFrameFourBuffers);

void BM_GeneratorRender(benchmark::State& state) {
    sim::FrameGenerator g;
    g.configure(kWidth, kHeight);
    std::vector<uint8_t> dst(kFrameBytes);
    uint64_t k = 0;
    for (auto _ : state) {
        g.render(k++, dst.data(), dst.size(), false);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameBytes));
}
BENCHMARK(BM_GeneratorRender);

void BM_UvcSimFrame(benchmark::State& state) {
    auto machine = sim::parseScenario(
        "{\"devices\": [{\"type\": \"uvc_camera\", \"product_id\": \"0xF682\", \"video_node\": 0}]}",
        "bench.json");
    machine->setClock(std::make_shared<sim::SteppedClock>());
    platform::ScopedBackend backend(sim::makeBackend(machine));
    platform::Sys& sys = platform::sys();
    const int fd = sys.open("/dev/video0", O_RDWR | O_NONBLOCK);
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    f.fmt.pix.width = kWidth;
    f.fmt.pix.height = kHeight;
    f.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
    v4l2_streamparm p{};
    p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    p.parm.capture.timeperframe = {1, 60};
    v4l2_requestbuffers r{};
    r.count = 4;
    r.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    r.memory = V4L2_MEMORY_MMAP;
    if (fd < 0 || sys.ioctl(fd, VIDIOC_S_FMT, &f) || sys.ioctl(fd, VIDIOC_S_PARM, &p) ||
        sys.ioctl(fd, VIDIOC_REQBUFS, &r)) {
        state.SkipWithError("camera setup failed");
        return;
    }
    std::vector<std::pair<void*, size_t>> maps;
    for (uint32_t i = 0; i < r.count; ++i) {
        v4l2_buffer b{};
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_MMAP;
        b.index = i;
        sys.ioctl(fd, VIDIOC_QUERYBUF, &b);
        maps.emplace_back(sys.mmap(nullptr, b.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, b.m.offset),
                          b.length);
        sys.ioctl(fd, VIDIOC_QBUF, &b);
    }
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    sys.ioctl(fd, VIDIOC_STREAMON, &type);
    for (auto _ : state) {
        pollfd pf{fd, POLLIN, 0};
        sys.poll(&pf, 1, 1000);
        v4l2_buffer b{};
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_MMAP;
        if (sys.ioctl(fd, VIDIOC_DQBUF, &b) != 0) {
            state.SkipWithError("no frame");
            break;
        }
        sys.ioctl(fd, VIDIOC_QBUF, &b);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kFrameBytes));
    sys.ioctl(fd, VIDIOC_STREAMOFF, &type);
    for (auto& m : maps)
        sys.munmap(m.first, m.second);
    sys.close(fd);
}
BENCHMARK(BM_UvcSimFrame);

}  // namespace

BENCHMARK_MAIN();
