// The simulated UVC stereo camera's V4L2 side, driven through platform::sys()
// as a capture program drives a real node: formats, buffers, the queue,
// timing on a stepped clock, and the stream faults of the scenario.
#include <cstring>
#include <set>

#include "tests/unit/sim/uvc_test_support.h"

using uvctest::Rig;
using uvctest::Stream;
using uvctest::xioctl;

namespace {

v4l2_format setFormat(int fd, uint32_t w, uint32_t h, unsigned long request = VIDIOC_S_FMT,
                      uint32_t fourcc = V4L2_PIX_FMT_YUYV) {
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    f.fmt.pix.width = w;
    f.fmt.pix.height = h;
    f.fmt.pix.pixelformat = fourcc;
    EXPECT_EQ(xioctl(fd, request, &f), 0) << w << "x" << h;
    return f;
}

uint32_t setRate(int fd, uint32_t fps) {
    v4l2_streamparm p{};
    p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    p.parm.capture.timeperframe = {1, fps};
    EXPECT_EQ(xioctl(fd, VIDIOC_S_PARM, &p), 0);
    EXPECT_EQ(p.parm.capture.timeperframe.numerator, 1u);
    EXPECT_TRUE(p.parm.capture.capability & V4L2_CAP_TIMEPERFRAME);
    return p.parm.capture.timeperframe.denominator;
}

// Frames delivered by a stream of `seconds` of the stepped clock.
std::vector<v4l2_buffer> run(Rig& rig, Stream& s, double seconds) {
    std::vector<v4l2_buffer> got;
    const double start = rig.seconds();
    v4l2_buffer b{};
    while (rig.seconds() - start < seconds && s.next(&b, 2000)) {
        got.push_back(b);
        EXPECT_EQ(s.requeue(&b), 0);
    }
    return got;
}

}  // namespace

TEST(UvcCamera, FormatsAreTheSideBySideSizesAndOthersAreCorrected) {
    Rig rig("");
    int fd = platform::sys().open("/dev/video0", O_RDWR);
    ASSERT_GE(fd, 0);
    v4l2_format g{};
    g.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(xioctl(fd, VIDIOC_G_FMT, &g), 0);
    EXPECT_EQ(g.fmt.pix.width, 2560u);  // power-on format
    EXPECT_EQ(g.fmt.pix.height, 720u);
    for (auto size :
         std::vector<std::pair<uint32_t, uint32_t>>{{1344, 376}, {2560, 720}, {3840, 1080}, {4416, 1242}}) {
        v4l2_format f = setFormat(fd, size.first, size.second);
        EXPECT_EQ(f.fmt.pix.width, size.first);
        EXPECT_EQ(f.fmt.pix.height, size.second);
        EXPECT_EQ(f.fmt.pix.pixelformat, V4L2_PIX_FMT_YUYV);
        EXPECT_EQ(f.fmt.pix.field, static_cast<uint32_t>(V4L2_FIELD_NONE));
        EXPECT_EQ(f.fmt.pix.bytesperline, size.first * 2);
        EXPECT_EQ(f.fmt.pix.sizeimage, size.first * size.second * 2);
    }
    // Nearest by the least differing rectangle: 1280x720 differs from 1344x376
    // by 464384 pixels, from 2560x720 by 921600.
    v4l2_format f = setFormat(fd, 1280, 720);
    EXPECT_EQ(f.fmt.pix.width, 1344u);
    EXPECT_EQ(f.fmt.pix.height, 376u);
    // 4000x1200: 652800 from 3840x1080, 684672 from 4416x1242.
    f = setFormat(fd, 4000, 1200);
    EXPECT_EQ(f.fmt.pix.width, 3840u);
    EXPECT_EQ(f.fmt.pix.height, 1080u);
    f = setFormat(fd, 100000, 100000);
    EXPECT_EQ(f.fmt.pix.width, 4416u);
    // An unknown pixel format gets the camera's own.
    f = setFormat(fd, 2560, 720, VIDIOC_S_FMT, V4L2_PIX_FMT_MJPEG);
    EXPECT_EQ(f.fmt.pix.pixelformat, V4L2_PIX_FMT_YUYV);
    // TRY_FMT corrects without changing the current format.
    f = setFormat(fd, 1300, 380, VIDIOC_TRY_FMT);
    EXPECT_EQ(f.fmt.pix.width, 1344u);
    ASSERT_EQ(xioctl(fd, VIDIOC_G_FMT, &g), 0);
    EXPECT_EQ(g.fmt.pix.width, 2560u);
    g.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(xioctl(fd, VIDIOC_S_FMT, &g), -1);
    EXPECT_EQ(errno, EINVAL);

    v4l2_cropcap c{};
    c.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(xioctl(fd, VIDIOC_CROPCAP, &c), 0);
    EXPECT_EQ(c.bounds.width, 2560u);
    EXPECT_EQ(c.defrect.height, 720u);
    EXPECT_EQ(c.pixelaspect.numerator, 1u);
    EXPECT_EQ(c.pixelaspect.denominator, 1u);
    c.type = 0;
    EXPECT_EQ(xioctl(fd, VIDIOC_CROPCAP, &c), -1);

    // Rates: the nearest interval the size offers.
    EXPECT_EQ(setRate(fd, 100), 60u);  // 2560x720: 60, 30, 15
    EXPECT_EQ(setRate(fd, 15), 15u);
    EXPECT_EQ(setRate(fd, 40), 30u);  // 25 ms: 33.3 ms is nearer than 16.7 ms
    EXPECT_EQ(setRate(fd, 60), 60u);
    setFormat(fd, 1344, 376);
    EXPECT_EQ(setRate(fd, 100), 100u);
    setFormat(fd, 4416, 1242);  // 60 is not offered at 2K: the interval follows the size
    v4l2_streamparm p{};
    p.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    p.parm.capture.capturemode = 0x1000;
    ASSERT_EQ(xioctl(fd, VIDIOC_G_PARM, &p), 0);
    EXPECT_EQ(p.parm.capture.timeperframe.numerator, 1u);
    EXPECT_EQ(p.parm.capture.timeperframe.denominator, 15u);
    setFormat(fd, 3840, 1080);
    EXPECT_EQ(setRate(fd, 100), 30u);
    v4l2_frmivalenum iv{};
    iv.pixel_format = V4L2_PIX_FMT_YUYV;
    iv.width = 1344;
    iv.height = 376;
    std::vector<uint32_t> rates;
    for (; xioctl(fd, VIDIOC_ENUM_FRAMEINTERVALS, &iv) == 0; ++iv.index)
        rates.push_back(iv.discrete.denominator);
    EXPECT_EQ(rates, (std::vector<uint32_t>{100, 60, 30, 15}));
    platform::sys().close(fd);
}

TEST(UvcCamera, RequestBuffersMapAndQueueAsTheDriverDoes) {
    Rig rig("");
    platform::Sys& sys = platform::sys();
    int fd = sys.open("/dev/video0", O_RDWR | O_NONBLOCK);
    int other = sys.open("/dev/video0", O_RDWR | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    ASSERT_GE(other, 0);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(xioctl(fd, VIDIOC_STREAMON, &type), -1);  // no stream rights yet
    EXPECT_EQ(errno, EBUSY);
    setFormat(fd, 1344, 376);
    EXPECT_EQ(xioctl(fd, VIDIOC_STREAMON, &type), -1);  // no buffers
    EXPECT_EQ(errno, EINVAL);

    v4l2_requestbuffers r{};
    r.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    r.memory = V4L2_MEMORY_MMAP;
    r.count = 50;
    ASSERT_EQ(xioctl(fd, VIDIOC_REQBUFS, &r), 0);
    EXPECT_EQ(r.count, 32u);  // the driver's most
    r.count = 0;
    ASSERT_EQ(xioctl(fd, VIDIOC_REQBUFS, &r), 0);
    EXPECT_EQ(rig.camera()->bufferCount(), 0u);
    r.count = 4;
    ASSERT_EQ(xioctl(fd, VIDIOC_REQBUFS, &r), 0);
    EXPECT_EQ(r.count, 4u);
    EXPECT_EQ(xioctl(other, VIDIOC_REQBUFS, &r), -1);  // the stream has an owner
    EXPECT_EQ(errno, EBUSY);
    v4l2_format f{};
    f.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    f.fmt.pix.width = 2560;
    f.fmt.pix.height = 720;
    EXPECT_EQ(xioctl(fd, VIDIOC_S_FMT, &f), -1);  // buffers allocated
    EXPECT_EQ(errno, EBUSY);

    std::vector<uint8_t*> maps;
    std::set<uint32_t> offsets;
    for (uint32_t i = 0; i < 4; ++i) {
        v4l2_buffer b{};
        b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        b.memory = V4L2_MEMORY_MMAP;
        b.index = i;
        ASSERT_EQ(xioctl(fd, VIDIOC_QUERYBUF, &b), 0);
        EXPECT_EQ(b.length, 1344u * 376u * 2u);
        EXPECT_FALSE(b.flags & V4L2_BUF_FLAG_MAPPED);
        offsets.insert(b.m.offset);
        EXPECT_EQ(sys.mmap(nullptr, b.length, PROT_READ, MAP_PRIVATE, fd, b.m.offset), MAP_FAILED);
        EXPECT_EQ(errno, EINVAL);
        void* m = sys.mmap(nullptr, b.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, b.m.offset);
        ASSERT_NE(m, MAP_FAILED);
        maps.push_back(static_cast<uint8_t*>(m));
        ASSERT_EQ(xioctl(fd, VIDIOC_QUERYBUF, &b), 0);
        EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_MAPPED);
    }
    EXPECT_EQ(offsets.size(), 4u);
    EXPECT_EQ(sys.mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 12345), MAP_FAILED);

    v4l2_buffer b{};
    b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    b.memory = V4L2_MEMORY_MMAP;
    b.index = 4;
    EXPECT_EQ(xioctl(fd, VIDIOC_QBUF, &b), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(xioctl(fd, VIDIOC_QUERYBUF, &b), -1);
    EXPECT_EQ(errno, EINVAL);
    b.index = 0;
    ASSERT_EQ(xioctl(fd, VIDIOC_QBUF, &b), 0);
    EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_QUEUED);
    EXPECT_EQ(xioctl(fd, VIDIOC_QBUF, &b), -1);  // queued already
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(xioctl(other, VIDIOC_QBUF, &b), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(xioctl(fd, VIDIOC_DQBUF, &b), -1);  // not streaming
    EXPECT_EQ(errno, EINVAL);
    pollfd p{fd, POLLIN, 0};
    EXPECT_EQ(sys.poll(&p, 1, 0), 1);
    EXPECT_EQ(p.revents, POLLERR);

    uint32_t prio = V4L2_PRIORITY_RECORD;
    ASSERT_EQ(xioctl(fd, VIDIOC_S_PRIORITY, &prio), 0);
    ASSERT_EQ(xioctl(other, VIDIOC_G_PRIORITY, &prio), 0);
    EXPECT_EQ(prio, static_cast<uint32_t>(V4L2_PRIORITY_RECORD));
    prio = V4L2_PRIORITY_RECORD;
    EXPECT_EQ(xioctl(other, VIDIOC_S_PRIORITY, &prio), -1);  // a higher priority holds the device
    EXPECT_EQ(errno, EBUSY);
    prio = 7;
    EXPECT_EQ(xioctl(fd, VIDIOC_S_PRIORITY, &prio), -1);
    EXPECT_EQ(errno, EINVAL);

    ASSERT_EQ(xioctl(fd, VIDIOC_STREAMON, &type), 0);
    EXPECT_EQ(xioctl(fd, VIDIOC_DQBUF, &b), -1);  // nothing due yet on a non-blocking fd
    EXPECT_EQ(errno, EAGAIN);
    rig.clock->advance(200000000);
    ASSERT_EQ(xioctl(fd, VIDIOC_DQBUF, &b), 0);
    EXPECT_EQ(b.index, 0u);
    EXPECT_EQ(b.bytesused, b.length);
    EXPECT_NE(maps[0][1], 0);  // chroma written into the mapping
    // STREAMOFF gives every buffer back.
    ASSERT_EQ(xioctl(fd, VIDIOC_QBUF, &b), 0);
    ASSERT_EQ(xioctl(fd, VIDIOC_STREAMOFF, &type), 0);
    for (uint32_t i = 0; i < 4; ++i) {
        b.index = i;
        ASSERT_EQ(xioctl(fd, VIDIOC_QUERYBUF, &b), 0);
        EXPECT_FALSE(b.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE));
    }
    // Freed buffers stay readable through their mappings until unmapped.
    r.count = 0;
    ASSERT_EQ(xioctl(fd, VIDIOC_REQBUFS, &r), 0);
    EXPECT_NE(maps[0][1], 0);
    for (uint8_t* m : maps)
        EXPECT_EQ(sys.munmap(m, 1344u * 376u * 2u), 0);
    // With the buffers freed and the priority given up the other handle may take the stream.
    r.count = 2;
    EXPECT_EQ(xioctl(other, VIDIOC_REQBUFS, &r), -1);
    EXPECT_EQ(errno, EBUSY);
    prio = V4L2_PRIORITY_INTERACTIVE;
    ASSERT_EQ(xioctl(fd, VIDIOC_S_PRIORITY, &prio), 0);
    EXPECT_EQ(xioctl(other, VIDIOC_REQBUFS, &r), 0);
    sys.close(other);
    sys.close(fd);
    EXPECT_EQ(rig.camera()->bufferCount(), 0u);
}

TEST(UvcCamera, FramesArriveAtTheRateOnTheSteppedClock) {
    Rig rig("");
    Stream s;
    ASSERT_TRUE(s.start(2560, 720, 60));
    const int64_t t0 = rig.clock->steadyNanoseconds();
    auto frames = run(rig, s, 10.0);
    EXPECT_NEAR(static_cast<double>(frames.size()), 600.0, 1.0);
    for (size_t i = 0; i < frames.size(); ++i) {
        const v4l2_buffer& b = frames[i];
        EXPECT_EQ(b.sequence, i);
        EXPECT_TRUE(b.flags & V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC);
        EXPECT_EQ(b.bytesused, 2560u * 720u * 2u);
        // Frame k starts at t0 + k/60 s, on the steady clock.
        const int64_t ts = b.timestamp.tv_sec * 1000000000LL + b.timestamp.tv_usec * 1000LL;
        const int64_t expected = t0 + static_cast<int64_t>(i) * 1000000000LL / 60;
        EXPECT_NEAR(static_cast<double>(ts), static_cast<double>(expected), 1000.0) << i;
    }
    // A poll waits until the next frame is complete, not longer.
    const int64_t before = rig.clock->steadyNanoseconds();
    v4l2_buffer b{};
    ASSERT_TRUE(s.next(&b));
    EXPECT_LE(rig.clock->steadyNanoseconds() - before, 1000000000LL / 60 + 1);
    // With no buffer queued a poll sleeps its whole timeout and says nothing.
    s.stop();
    Stream idle;
    ASSERT_TRUE(idle.start(2560, 720, 30, 1));
    ASSERT_TRUE(idle.next(&b));
    const int64_t t = rig.clock->steadyNanoseconds();
    pollfd p{idle.fd, POLLIN, 0};
    EXPECT_EQ(platform::sys().poll(&p, 1, 250), 0);
    EXPECT_EQ(rig.clock->steadyNanoseconds() - t, 250000000LL);
    fd_set rd;
    FD_ZERO(&rd);
    FD_SET(idle.fd, &rd);
    timeval tv{0, 100000};
    EXPECT_EQ(platform::sys().select(idle.fd + 1, &rd, nullptr, nullptr, &tv), 0);
    ASSERT_EQ(idle.requeue(&b), 0);
    FD_SET(idle.fd, &rd);
    tv = {2, 0};
    EXPECT_EQ(platform::sys().select(idle.fd + 1, &rd, nullptr, nullptr, &tv), 1);
}

TEST(UvcCamera, FramesWithoutAQueuedBufferAreLostButCounted) {
    Rig rig("");
    Stream s;
    ASSERT_TRUE(s.start(2560, 720, 30, 2));
    rig.clock->advance(1000000000);  // 30 frames complete within 1 s
    v4l2_buffer a{}, b{}, c{};
    for (v4l2_buffer* x : {&a, &b, &c}) {
        x->type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        x->memory = V4L2_MEMORY_MMAP;
    }
    ASSERT_EQ(xioctl(s.fd, VIDIOC_DQBUF, &a), 0);
    ASSERT_EQ(xioctl(s.fd, VIDIOC_DQBUF, &b), 0);
    EXPECT_EQ(xioctl(s.fd, VIDIOC_DQBUF, &c), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(a.sequence, 0u);
    EXPECT_EQ(b.sequence, 1u);
    EXPECT_EQ(rig.camera()->counters().lost, 28u);
    ASSERT_EQ(s.requeue(&a), 0);
    ASSERT_TRUE(s.next(&c));
    EXPECT_EQ(c.sequence, 30u);  // the sensor went on counting
}

TEST(UvcCamera, DropScheduleRemovesExactlyTheConfiguredFrames) {
    // 2.4 drops a second at 60 fps: frames 24, 49, 74, ... (every 25th), 20 in 8.34 s.
    size_t healthy = 0, dropped = 0;
    {
        Rig rig("");
        Stream s;
        ASSERT_TRUE(s.start(2560, 720, 60));
        healthy = run(rig, s, 8.34).size();
    }
    {
        Rig rig("\"faults\": {\"drops_per_second\": 2.4}");
        Stream s;
        ASSERT_TRUE(s.start(2560, 720, 60));
        auto frames = run(rig, s, 8.34);
        dropped = frames.size();
        std::set<uint32_t> seen;
        for (const auto& b : frames)
            seen.insert(b.sequence);
        for (uint32_t k = 0; k < 500; ++k)
            EXPECT_EQ(seen.count(k), (k + 1) % 25 == 0 ? 0u : 1u) << k;
        EXPECT_EQ(rig.camera()->counters().dropped, 20u);
    }
    EXPECT_NEAR(static_cast<double>(healthy), 500.0, 1.0);
    EXPECT_EQ(healthy - dropped, 20u);
}

TEST(UvcCamera, ShortFramesFollowTheirSchedule) {
    // 5 a second at 30 fps: frames 5, 11, 17, ... are short.
    Rig rig("\"faults\": {\"short_frames_per_second\": 5}");
    Stream s;
    ASSERT_TRUE(s.start(2560, 720, 30));
    auto frames = run(rig, s, 6.0);
    ASSERT_GE(frames.size(), 180u);
    int shortCount = 0;
    for (size_t k = 0; k < 180; ++k) {
        const bool isShort = frames[k].bytesused < frames[k].length;
        EXPECT_EQ(isShort, k % 6 == 5) << k;
        if (isShort) {
            EXPECT_TRUE(frames[k].flags & V4L2_BUF_FLAG_ERROR);
        }
        shortCount += isShort;
    }
    EXPECT_EQ(shortCount, 30);
}

TEST(UvcCamera, TornFramesAreDetectedAndHealthyOnesAreNot) {
    // 3 a second at 30 fps: frames 9, 19, 29, ... are torn.
    Rig rig("\"faults\": {\"torn_frames_per_second\": 3}");
    Stream s;
    ASSERT_TRUE(s.start(2560, 720, 30));
    const int W = 1280, H = 720;
    const size_t bytes = static_cast<size_t>(W) * H * 4;
    std::vector<uint8_t> prev(bytes), cur(bytes);
    v4l2_buffer b{};
    int tornPairs = 0, expectedPairs = 0;
    for (uint32_t k = 0; k < 100; ++k) {
        ASSERT_TRUE(s.next(&b));
        ASSERT_EQ(b.sequence, k);
        std::memcpy(cur.data(), s.maps[b.index].first, bytes);
        ASSERT_EQ(s.requeue(&b), 0);
        if (k > 0) {
            uvctest::TearResult r = uvctest::compareFrames(prev.data(), cur.data(), W, H);
            const bool expectTorn = k % 10 == 9 || (k - 1) % 10 == 9;
            EXPECT_EQ(r.torn, expectTorn) << k;
            expectedPairs += expectTorn;
            tornPairs += r.torn;
            if (expectTorn) {
                EXPECT_GT(r.count[2], 0.9 * r.samples[2]);  // a real tear in one band
            } else {
                for (int band = 0; band < 5; ++band)
                    EXPECT_LT(r.count[band], 0.05 * r.samples[band]) << k << " band " << band;
            }
        }
        prev.swap(cur);
    }
    EXPECT_EQ(tornPairs, expectedPairs);
    EXPECT_EQ(rig.camera()->counters().torn, 10u);
}

TEST(UvcCamera, FramesAfterADropDoNotLookTorn) {
    // Every third frame lost: consecutive delivered frames are two frames apart.
    Rig rig("\"faults\": {\"drops_per_second\": 10}");
    Stream s;
    ASSERT_TRUE(s.start(2560, 720, 30));
    const int W = 1280, H = 720;
    const size_t bytes = static_cast<size_t>(W) * H * 4;
    std::vector<uint8_t> prev(bytes), cur(bytes);
    v4l2_buffer b{};
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(s.next(&b));
        std::memcpy(cur.data(), s.maps[b.index].first, bytes);
        ASSERT_EQ(s.requeue(&b), 0);
        if (i > 0) {
            EXPECT_FALSE(uvctest::compareFrames(prev.data(), cur.data(), W, H).torn) << i;
        }
        prev.swap(cur);
    }
}

TEST(UvcCamera, StallMakesNoFramesForItsLength) {
    Rig rig("\"faults\": {\"stall\": {\"at\": 2, \"seconds\": 1}}");
    Stream s;
    ASSERT_TRUE(s.start(2560, 720, 30));
    auto frames = run(rig, s, 5.0);
    EXPECT_NEAR(static_cast<double>(frames.size()), 120.0, 1.0);
    double longest = 0;
    for (size_t i = 1; i < frames.size(); ++i) {
        EXPECT_EQ(frames[i].sequence, frames[i - 1].sequence + 1);  // nothing was made, nothing skipped
        const double gap = (frames[i].timestamp.tv_sec - frames[i - 1].timestamp.tv_sec) +
                           (frames[i].timestamp.tv_usec - frames[i - 1].timestamp.tv_usec) / 1e6;
        longest = std::max(longest, gap);
    }
    EXPECT_NEAR(longest, 1.0 + 1.0 / 30, 0.002);
}

TEST(UvcCamera, UnplugTakesTheNodeAndTheUsbDeviceAway) {
    Rig rig("\"faults\": {\"unplug_at\": 1.5}");
    Stream s;
    ASSERT_TRUE(s.start(2560, 720, 30));
    auto frames = run(rig, s, 10.0);
    EXPECT_NEAR(static_cast<double>(frames.size()), 45.0, 1.0);
    EXPECT_NEAR(rig.seconds() - 1.0, 1.5, 0.05);
    v4l2_buffer b{};
    b.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(xioctl(s.fd, VIDIOC_DQBUF, &b), -1);
    EXPECT_EQ(errno, ENODEV);
    v4l2_capability cap{};
    EXPECT_EQ(xioctl(s.fd, VIDIOC_QUERYCAP, &cap), -1);
    EXPECT_EQ(errno, ENODEV);
    pollfd p{s.fd, POLLIN, 0};
    EXPECT_EQ(platform::sys().poll(&p, 1, 100), 1);
    EXPECT_EQ(p.revents, POLLERR | POLLHUP);
    EXPECT_FALSE(rig.camera()->present());
    EXPECT_EQ(platform::sys().open("/dev/video0", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    for (const auto& d : rig.machine->usb().devices())
        EXPECT_FALSE(d->bus == 2 && d->descriptor.productId == 0xF682);
    // The mappings stay valid until unmapped.
    EXPECT_NE(s.maps[0].first[1], 0);
}

TEST(UvcCamera, BusyNodeRefusesOpen) {
    Rig rig("\"busy\": true");
    EXPECT_EQ(platform::sys().open("/dev/video0", O_RDWR), -1);
    EXPECT_EQ(errno, EBUSY);
}

TEST(UvcCamera, BadFaultFieldsNameTheField) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"\"faults\": {\"drops_per_second\": -1}", "devices[0].faults.drops_per_second"},
        {"\"faults\": {\"drop_per_second\": 1}", "devices[0].faults.drop_per_second"},
        {"\"faults\": {\"stall\": {\"at\": 1}}", "devices[0].faults.stall.seconds"},
        {"\"faults\": {\"isp_lock_sensors\": [2]}", "devices[0].faults.isp_lock_sensors[0]"},
        {"\"firmware\": \"new\"", "devices[0].firmware"},
        {"\"firmware_version\": 999", "devices[0].firmware_version"},
        {"\"flash_patches\": [{\"address\": \"0xFFFFF\", \"bytes\": \"01 02\"}]",
         "devices[0].flash_patches[0].bytes"},
    };
    for (const auto& c : cases) {
        try {
            Rig rig(c.first);
            ADD_FAILURE() << "accepted: " << c.first;
        } catch (const sim::ScenarioError& e) {
            EXPECT_EQ(e.field(), c.second) << e.what();
            EXPECT_EQ(e.file(), "test.json");
        }
    }
}

TEST(UvcCamera, ShippedCameraScenariosStreamAndAnswerOnTheirUnit) {
    const std::vector<std::pair<std::string, uint8_t>> cases = {{"kov_pico_usb3", 4},
                                                                {"kov_tera_usb3", 4},
                                                                {"kov_old_firmware", 3},
                                                                {"kov_usb2", 3},
                                                                {"kov_pico_usb3_drops", 4}};
    for (const auto& c : cases) {
        auto machine = sim::loadScenario(std::string(KOV_SOURCE_DIR) + "/sim/scenarios/" + c.first + ".json");
        machine->setClock(std::make_shared<sim::SteppedClock>());
        platform::ScopedBackend backend(sim::makeBackend(machine));
        Stream s;
        ASSERT_TRUE(s.start(1344, 376, 100)) << c.first;
        v4l2_buffer b{};
        EXPECT_TRUE(s.next(&b)) << c.first;
        uint8_t len[2] = {};
        EXPECT_EQ(uvctest::xu(s.fd, c.second, 0x85, len, 2), 0) << c.first;
        EXPECT_EQ(uvctest::xu(s.fd, c.second == 3 ? 4 : 3, 0x85, len, 2), -1) << c.first;
    }
}
