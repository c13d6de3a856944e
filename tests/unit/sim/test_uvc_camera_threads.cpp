// The simulated camera under several threads: a capture thread streaming
// while another uses the vendor channel, a STREAMOFF that ends a waiting poll,
// and real-time pacing on the real clock without spinning.
#include <linux/usb/video.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "tests/unit/sim/uvc_test_support.h"

using uvctest::Rig;
using uvctest::Stream;
using uvctest::xioctl;

TEST(UvcCameraThreads, StreamingBesideVendorRequests) {
    Rig rig("");
    Stream s;
    ASSERT_TRUE(s.start(1344, 376, 100));
    std::atomic<bool> done{false};
    int frames = 0;
    std::thread producer([&] {
        v4l2_buffer b{};
        const double start = rig.seconds();
        while (rig.seconds() - start < 5.0 && s.next(&b)) {
            ++frames;
            s.requeue(&b);
        }
        done = true;
    });
    int fd = platform::sys().open("/dev/video0", O_RDWR);
    ASSERT_GE(fd, 0);
    int answers = 0;
    while (!done) {
        std::vector<uint8_t> p(384, 0);
        p[0] = 0x51, p[1] = 0xA3, p[2] = 0x6C, p[3] = 0x02, p[4] = 0x01, p[7] = 0x37, p[8] = 0x44;
        ASSERT_EQ(uvctest::xu(fd, 4, UVC_SET_CUR, p.data(), 384), 0);
        ASSERT_EQ(uvctest::xu(fd, 4, UVC_GET_CUR, p.data(), 384), 0);
        answers += p[17] == 0x88;
        v4l2_streamparm parm{};
        parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        EXPECT_EQ(xioctl(fd, VIDIOC_G_PARM, &parm), 0);
        EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 100u);
    }
    producer.join();
    platform::sys().close(fd);
    EXPECT_GT(answers, 0);
    EXPECT_NEAR(frames, 500, 1);
}

TEST(UvcCameraThreads, StreamOffEndsAWaitingPoll) {
    Rig rig("");
    Stream s;
    ASSERT_TRUE(s.start(2560, 720, 30, 1));
    v4l2_buffer b{};
    ASSERT_TRUE(s.next(&b));  // the only buffer is now with us: nothing can become ready
    std::atomic<short> revents{0};
    std::thread waiter([&] {
        pollfd p{s.fd, POLLIN, 0};
        platform::sys().poll(&p, 1, -1);
        revents = p.revents;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(xioctl(s.fd, VIDIOC_STREAMOFF, &type), 0);
    waiter.join();
    EXPECT_EQ(revents.load(), POLLERR);
}

TEST(UvcCameraThreads, RealClockPacesWithoutSpinning) {
    auto machine = sim::parseScenario(
        "{\"devices\": [{\"type\": \"uvc_camera\", \"product_id\": \"0xF682\", \"video_node\": 0}]}",
        "real.json");
    platform::ScopedBackend backend(sim::makeBackend(machine));  // the real clock
    Stream s;
    ASSERT_TRUE(s.start(1344, 376, 100));
    rusage before{}, after{};
    getrusage(RUSAGE_THREAD, &before);
    const auto start = std::chrono::steady_clock::now();
    int frames = 0;
    uint32_t lastSequence = 0;
    v4l2_buffer b{};
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(500) && s.next(&b)) {
        ++frames;
        lastSequence = b.sequence;
        s.requeue(&b);
    }
    getrusage(RUSAGE_THREAD, &after);
    const double cpu = (after.ru_utime.tv_sec - before.ru_utime.tv_sec) +
                       (after.ru_utime.tv_usec - before.ru_utime.tv_usec) / 1e6 +
                       (after.ru_stime.tv_sec - before.ru_stime.tv_sec) +
                       (after.ru_stime.tv_usec - before.ru_stime.tv_usec) / 1e6;
    EXPECT_NEAR(frames, 50, 6);
    EXPECT_EQ(lastSequence + 1, static_cast<uint32_t>(frames));
    EXPECT_LT(cpu, 0.3) << "the wait for frames must sleep";
}
