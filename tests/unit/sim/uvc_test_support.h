#pragma once

// Helpers of the simulated UVC camera tests: a machine from inline JSON with a
// stepped clock, raw V4L2 calls through platform::sys(), and the frame-pair
// tearing comparison of the grabbing test.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sys/mman.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "sim/Machine.h"
#include "sim/Simulator.h"
#include "sim/SteppedClock.h"
#include "sim/uvc/UvcCamera.h"

namespace uvctest {

// A machine with one camera entry (extra fields spliced into the entry) on a stepped clock.
struct Rig {
    std::shared_ptr<sim::Machine> machine;
    std::shared_ptr<sim::SteppedClock> clock = std::make_shared<sim::SteppedClock>();
    std::unique_ptr<platform::ScopedBackend> backend;

    explicit Rig(const std::string& extra, const std::string& product = "0xF682") {
        machine = sim::parseScenario("{\"devices\": [{\"type\": \"uvc_camera\", \"product_id\": \"" +
                                         product + "\", \"bus\": 2, \"address\": 3, \"video_node\": 0" +
                                         (extra.empty() ? "" : ", " + extra) + "}]}",
                                     "test.json");
        machine->setClock(clock);
        backend = std::make_unique<platform::ScopedBackend>(sim::makeBackend(machine));
    }
    std::shared_ptr<sim::UvcCamera> camera() const {
        return std::dynamic_pointer_cast<sim::UvcCamera>(machine->videoNode(0));
    }
    double seconds() const { return clock->steadyNanoseconds() / 1e9; }
};

inline int xioctl(int fd, unsigned long request, void* arg) {
    return platform::sys().ioctl(fd, request, arg);
}

// An open node streaming into memory-mapped buffers.
struct Stream {
    int fd = -1;
    std::vector<std::pair<uint8_t*, size_t>> maps;
    uint32_t width = 0, height = 0;

    bool start(uint32_t w, uint32_t h, uint32_t fps, uint32_t count = 4) {
        fd = platform::sys().open("/dev/video0", O_RDWR | O_NONBLOCK);
        if (fd < 0)
            return false;
        v4l2_format f{};
        f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        f.fmt.pix.width = w;
        f.fmt.pix.height = h;
        f.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
        if (xioctl(fd, VIDIOC_S_FMT, &f) != 0)
            return false;
        width = f.fmt.pix.width;
        height = f.fmt.pix.height;
        v4l2_streamparm p{};
        p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        p.parm.capture.timeperframe = {1, fps};
        if (xioctl(fd, VIDIOC_S_PARM, &p) != 0)
            return false;
        v4l2_requestbuffers r{};
        r.count = count;
        r.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        r.memory = V4L2_MEMORY_MMAP;
        if (xioctl(fd, VIDIOC_REQBUFS, &r) != 0)
            return false;
        for (uint32_t i = 0; i < r.count; ++i) {
            v4l2_buffer b{};
            b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            b.memory = V4L2_MEMORY_MMAP;
            b.index = i;
            if (xioctl(fd, VIDIOC_QUERYBUF, &b) != 0)
                return false;
            void* m =
                platform::sys().mmap(nullptr, b.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, b.m.offset);
            if (m == MAP_FAILED)
                return false;
            maps.emplace_back(static_cast<uint8_t*>(m), b.length);
            if (xioctl(fd, VIDIOC_QBUF, &b) != 0)
                return false;
        }
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        return xioctl(fd, VIDIOC_STREAMON, &type) == 0;
    }

    // Waits (poll, up to timeoutMs) and dequeues one buffer; false if none came.
    bool next(v4l2_buffer* b, int timeoutMs = 1000) {
        pollfd p{fd, POLLIN, 0};
        if (platform::sys().poll(&p, 1, timeoutMs) != 1 || !(p.revents & POLLIN))
            return false;
        *b = v4l2_buffer{};
        b->type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b->memory = V4L2_MEMORY_MMAP;
        return xioctl(fd, VIDIOC_DQBUF, b) == 0;
    }
    int requeue(v4l2_buffer* b) { return xioctl(fd, VIDIOC_QBUF, b); }

    void stop() {
        if (fd < 0)
            return;
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        xioctl(fd, VIDIOC_STREAMOFF, &type);
        for (auto& m : maps)
            platform::sys().munmap(m.first, m.second);
        maps.clear();
        platform::sys().close(fd);
        fd = -1;
    }
    ~Stream() { stop(); }
};

// The grabbing test's comparison of two side-by-side YUYV frames, W and H the
// size of one view: chroma samples at every other pixel pair of every other
// row; a sample changed when a chroma byte moved by more than 10; five bands of
// rows; a band scores 100 - 100 * count / n (n = W*H*0.2*0.5, band 0: W*H*0.5);
// the pair is torn when a band scores below 85.
struct TearResult {
    bool torn = false;
    int count[5] = {};
    int samples[5] = {};
    double score[5] = {};
};

inline TearResult compareFrames(const uint8_t* prev, const uint8_t* cur, int W, int H) {
    TearResult r;
    for (int y = 0; y < H; y += 2) {
        for (int x = 0; x < W; x += 2) {
            const size_t i = 4 * static_cast<size_t>(x) + 4 * static_cast<size_t>(W) * y;
            const bool changed =
                std::abs(cur[i + 1] - prev[i + 1]) > 10 || std::abs(cur[i + 3] - prev[i + 3]) > 10;
            for (int b = 0; b < 5; ++b) {
                if (y >= b * H * 0.2 && y < (b + 1) * H * 0.2) {
                    r.count[b] += changed;
                    ++r.samples[b];
                }
            }
        }
    }
    for (int b = 0; b < 5; ++b) {
        const int n = b == 0 ? static_cast<int>(W * H * 0.5) : static_cast<int>(W * H * 0.2 * 0.5);
        double s = 100.0 - 100.0 * r.count[b] / n;
        r.score[b] = s < 0 ? 0 : (s > 100 ? 100 : s);
        if (r.score[b] < 85)
            r.torn = true;
    }
    return r;
}

// One vendor-channel query.
inline int xu(int fd, uint8_t unit, uint8_t query, uint8_t* data, uint16_t size) {
    uvc_xu_control_query q{};
    q.unit = unit;
    q.selector = 2;
    q.query = query;
    q.size = size;
    q.data = data;
    return xioctl(fd, UVCIOC_CTRL_QUERY, &q);
}

}  // namespace uvctest
