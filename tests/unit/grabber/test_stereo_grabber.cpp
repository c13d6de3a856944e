// The stereo grabber's opening codes, buffer and rate rules, and its handling
// of odd driver answers, against a small in-test video node.
#include <gtest/gtest.h>

#include <linux/videodev2.h>

#include <chrono>
#include <cstdlib>
#include <limits>
#include <memory>
#include <thread>

#include "FakeV4L2Sys.h"
#include "StereoGrabberSim.h"
#include "bh_input/grabber/linux/linuxStereoGrabber.h"
#include "platform/Platform.h"
#include "tests/unit/common/LogCapture.h"

using testsupport::FakeV4L2Sys;

namespace {

struct FakeNode {
    std::shared_ptr<FakeV4L2Sys> sys = std::make_shared<FakeV4L2Sys>();
    platform::ScopedBackend backend{platform::Backend{sys, nullptr, nullptr, nullptr, nullptr}};
};

}  // namespace

TEST(StereoGrabberOpen, MissingNodeIsCode4) {
    FakeNode node;
    bh::LinuxStereoGrabber grabber(false);
    EXPECT_EQ(grabber.init_grabber("/dev/video-none", 30, 2), 4);
    node.sys->openFails = true;
    EXPECT_EQ(grabber.init_grabber(FakeV4L2Sys::kPath, 30, 2), 4);
}

TEST(StereoGrabberOpen, CallResult16IsBusyAndOtherFailuresAre6) {
    {
        FakeNode node;
        node.sys->forced[VIDIOC_QUERYCAP] = 16;
        bh::LinuxStereoGrabber grabber(false);
        EXPECT_EQ(grabber.construct(FakeV4L2Sys::kPath, 2560, 720, 60, 2), 5);
    }
    {
        // A busy node in practice: the call gives -1 with errno EBUSY, which
        // the result alone cannot tell from any other failure.
        FakeNode node;
        node.sys->forced[VIDIOC_CROPCAP] = -1;
        node.sys->forcedErrno[VIDIOC_CROPCAP] = EBUSY;
        bh::LinuxStereoGrabber grabber(false);
        EXPECT_EQ(grabber.construct(FakeV4L2Sys::kPath, 2560, 720, 60, 2), 6);
        // xioctl tried four times before giving up.
        EXPECT_EQ(node.sys->count(VIDIOC_CROPCAP), 4u);
    }
    {
        FakeNode node;
        node.sys->forced[VIDIOC_S_FMT] = -1;
        bh::LinuxStereoGrabber grabber(false);
        EXPECT_EQ(grabber.construct(FakeV4L2Sys::kPath, 2560, 720, 60, 2), 6);
    }
}

TEST(StereoGrabberOpen, RefusedSizeIsCode7AndKeepsTheAcceptedWidth) {
    FakeNode node;
    node.sys->correctWidth = 1344;
    node.sys->correctHeight = 376;
    bh::LinuxStereoGrabber grabber(false);
    EXPECT_EQ(grabber.construct(FakeV4L2Sys::kPath, 2000, 700, 30, 2), 7);
    EXPECT_EQ(grabber.getWidth(), 1344);
    EXPECT_EQ(grabber.getEffWidth(), 672);
}

TEST(StereoGrabberOpen, BufferCountIsClampedToOneToTen) {
    for (auto [asked, expected] : {std::pair<int, uint32_t>{0, 1}, {-3, 1}, {11, 10}, {4, 4}}) {
        FakeNode node;
        bh::LinuxStereoGrabber grabber(false);
        ASSERT_EQ(grabber.init_grabber(FakeV4L2Sys::kPath, 30, asked), 0) << asked;
        EXPECT_EQ(node.sys->requestedBuffers, expected) << asked;
        grabber.destruct();
    }
}

TEST(StereoGrabberOpen, ZeroBuffersGrantedIsAFailure) {
    FakeNode node;
    node.sys->grantMax = 0;
    bh::LinuxStereoGrabber grabber(false);
    EXPECT_EQ(grabber.init_grabber(FakeV4L2Sys::kPath, 30, 4), 6);
}

TEST(StereoGrabberOpen, FailedRequestOrLastQueryIsCode6) {
    {
        FakeNode node;
        node.sys->forced[VIDIOC_REQBUFS] = -1;
        bh::LinuxStereoGrabber grabber(false);
        EXPECT_EQ(grabber.init_grabber(FakeV4L2Sys::kPath, 30, 4), 6);
    }
    {
        FakeNode node;
        node.sys->forced[VIDIOC_QUERYBUF] = -1;
        bh::LinuxStereoGrabber grabber(false);
        EXPECT_EQ(grabber.init_grabber(FakeV4L2Sys::kPath, 30, 4), 6);
    }
}

TEST(StereoGrabberOpen, DefaultRateFollowsTheWidth) {
    struct Case {
        int width, height;
        uint32_t rate;
    };
    for (Case c : {Case{1344, 376, 100}, Case{2560, 720, 60}, Case{3840, 1080, 30}, Case{4416, 1242, 15}}) {
        FakeNode node;
        bh::LinuxStereoGrabber grabber(false);
        grabber.construct(FakeV4L2Sys::kPath, c.width, c.height, 0, 2);
        EXPECT_EQ(node.sys->setRate, c.rate) << c.width;
        EXPECT_EQ(grabber.getCurrentFPS(), static_cast<int>(c.rate));
    }
}

TEST(StereoGrabberOpen, GivenRateIsUsed) {
    FakeNode node;
    bh::LinuxStereoGrabber grabber(false);
    grabber.construct(FakeV4L2Sys::kPath, 2560, 720, 15, 2);
    EXPECT_EQ(node.sys->setRate, 15u);
}

TEST(StereoGrabberOpen, XioctlStopsAtTheFirstSuccessAndGivesUpAfterFour) {
    FakeNode node;
    bh::LinuxStereoGrabber grabber(false);
    v4l2_capability cap{};
    EXPECT_EQ(grabber.xioctl(FakeV4L2Sys::kFd, VIDIOC_QUERYCAP, &cap), 0);
    EXPECT_EQ(node.sys->count(VIDIOC_QUERYCAP), 1u);
    node.sys->forced[VIDIOC_STREAMON] = -1;
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(grabber.xioctl(FakeV4L2Sys::kFd, VIDIOC_STREAMON, &type), -1);
    EXPECT_EQ(node.sys->count(VIDIOC_STREAMON), 4u);
}

TEST(StereoGrabberOpen, StickToCoreRefusesCoresThatDoNotExist) {
    EXPECT_EQ(bh::stick_this_thread_to_core(0, -1), 22);
    EXPECT_EQ(bh::stick_this_thread_to_core(0, static_cast<int>(std::thread::hardware_concurrency()) + 64),
              22);
    std::thread t([] { EXPECT_EQ(bh::stick_this_thread_to_core(0, 0), 0); });
    t.join();
}

TEST(StereoGrabberOpen, StartCaptureQueuesEveryBufferAndStreams) {
    FakeNode node;
    bh::LinuxStereoGrabber grabber(false);
    ASSERT_EQ(grabber.init_grabber(FakeV4L2Sys::kPath, 30, 3), 0);
    EXPECT_TRUE(grabber.startCapture());
    EXPECT_EQ(node.sys->queued, (std::vector<uint32_t>{0, 1, 2}));
    EXPECT_EQ(node.sys->count(VIDIOC_S_PRIORITY), 1u);
    node.sys->forced[VIDIOC_STREAMON] = -1;
    EXPECT_FALSE(grabber.startCapture());
}

TEST(StereoGrabberStream, OddDequeuesAreNeverDelivered) {
    FakeNode node;
    bh::LinuxStereoGrabber grabber(false);
    const uint32_t bytes = 1344 * 376 * 2;
    // Out of range index, bytesused beyond the length, a short frame; then a
    // good frame of 0x5A.
    node.sys->script({7, bytes, bytes, 1});
    node.sys->script({0, bytes + 64, bytes, 2});
    node.sys->script({1, bytes / 2, bytes, 3});
    node.sys->script({1, bytes, bytes, 0x5A});
    ASSERT_EQ(grabber.construct(FakeV4L2Sys::kPath, 1344, 376, 100, 2), 0);
    ASSERT_TRUE(grabber.startCapture());
    ASSERT_TRUE(testsupport::waitFor([&] { return grabber.getFrameCount() >= 1; }));
    EXPECT_EQ(node.sys->scriptLeft(), 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(grabber.getFrameCount(), 1u);
    std::vector<unsigned char> frame(bytes);
    ASSERT_TRUE(grabber.copyLatestFrame(frame.data(), frame.size()));
    EXPECT_EQ(frame.front(), 0x5A);
    EXPECT_EQ(frame.back(), 0x5A);
    grabber.destruct();
    EXPECT_EQ(node.sys->closes, 1);
    EXPECT_EQ(node.sys->unmaps, 2);
}

TEST(StereoGrabberStream, EveryFrameShortDeliversNothing) {
    FakeNode node;
    bh::LinuxStereoGrabber grabber(false);
    const uint32_t bytes = 1344 * 376 * 2;
    for (int i = 0; i < 20; ++i)
        node.sys->script({static_cast<uint32_t>(i % 2), bytes - 4, bytes, 9});
    ASSERT_EQ(grabber.construct(FakeV4L2Sys::kPath, 1344, 376, 100, 2), 0);
    ASSERT_TRUE(grabber.startCapture());
    ASSERT_TRUE(testsupport::waitFor([&] { return node.sys->scriptLeft() == 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(grabber.getFrameCount(), 0u);
    EXPECT_FALSE(grabber.isNewFrame());
    EXPECT_EQ(grabber.waitForNewFrame(20), 0);
}

TEST(StereoGrabberStream, FramesFlowWithoutEngineAndNoSyncWarning) {
    testlog::LogCapture log;
    FakeNode node;
    bh::LinuxStereoGrabber grabber(false);
    grabber.setModel(bh::KOV_P);
    const uint32_t bytes = 1344 * 376 * 2;
    for (int i = 0; i < 8; ++i)
        node.sys->script({static_cast<uint32_t>(i % 2), bytes, bytes, static_cast<uint8_t>(i)});
    ASSERT_EQ(grabber.construct(FakeV4L2Sys::kPath, 1344, 376, 100, 2), 0);
    ASSERT_TRUE(grabber.startCapture());
    ASSERT_TRUE(
        testsupport::waitFor([&] { return node.sys->scriptLeft() == 0 && grabber.getFrameCount() >= 1; }));
    EXPECT_EQ(grabber.waitForNewFrame(100), 1);
    grabber.destruct();
    for (const std::string& line : log.lines())
        EXPECT_EQ(line.find("not synchronized"), std::string::npos) << line;
}

// Time stamps that no clock gives (negative, microseconds beyond a second,
// seconds near the largest number): the frames still come, stamped with the
// time they were received, and the odd stamp is reported once.
TEST(StereoGrabberStream, ImpossibleTimeStampsGiveTheReceptionTime) {
    testlog::LogCapture log;
    FakeNode node;
    bh::LinuxStereoGrabber grabber(false);
    const uint32_t bytes = 1344 * 376 * 2;
    const long huge = std::numeric_limits<long>::max();
    const long lowest = std::numeric_limits<long>::min();
    node.sys->script({0, bytes, bytes, 1, true, -360287969190639680L, 0});
    node.sys->script({1, bytes, bytes, 2, true, huge, huge});
    node.sys->script({0, bytes, bytes, 3, true, 5, -5});
    node.sys->script({1, bytes, bytes, 4, true, lowest, 999999});
    ASSERT_EQ(grabber.construct(FakeV4L2Sys::kPath, 1344, 376, 100, 2), 0);
    ASSERT_TRUE(grabber.startCapture());
    ASSERT_TRUE(
        testsupport::waitFor([&] { return node.sys->scriptLeft() == 0 && grabber.getFrameCount() >= 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(
                            std::chrono::system_clock::now().time_since_epoch())
                            .count();
    const int64_t delivered = static_cast<int64_t>(grabber.getDeliveredTimestamp());
    EXPECT_LT(std::llabs(now - delivered), 60LL * 1000000000LL) << delivered;
    grabber.destruct();
    int reports = 0;
    for (const std::string& line : log.lines())
        reports += line.find("is not a clock time") != std::string::npos ? 1 : 0;
    EXPECT_EQ(reports, 1);
}

TEST(StereoGrabberStream, NewFrameMarkIsClearedByGetPixels) {
    FakeNode node;
    bh::LinuxStereoGrabber grabber(false);
    const uint32_t bytes = 1344 * 376 * 2;
    node.sys->script({0, bytes, bytes, 1});
    ASSERT_EQ(grabber.construct(FakeV4L2Sys::kPath, 1344, 376, 100, 2), 0);
    ASSERT_TRUE(grabber.startCapture());
    ASSERT_TRUE(testsupport::waitFor([&] { return grabber.isNewFrame(); }));
    EXPECT_NE(grabber.getPixels(), nullptr);
    EXPECT_FALSE(grabber.isNewFrame());
}

TEST(StereoGrabberStream, CallerBufferReceivesTheFrames) {
    FakeNode node;
    bh::LinuxStereoGrabber grabber(false);
    const uint32_t bytes = 1344 * 376 * 2;
    std::vector<unsigned char> mine(bytes, 0);
    grabber.setPtr(mine.data());
    node.sys->script({0, bytes, bytes, 0x33});
    ASSERT_EQ(grabber.construct(FakeV4L2Sys::kPath, 1344, 376, 100, 2), 0);
    ASSERT_TRUE(grabber.startCapture());
    ASSERT_TRUE(testsupport::waitFor([&] { return grabber.getFrameCount() >= 1; }));
    EXPECT_EQ(grabber.getPixels(), mine.data());
    grabber.destruct();
    EXPECT_EQ(mine[bytes / 2], 0x33);
}

TEST(StereoGrabberClose, DestructOfAGrabberThatNeverStreamedIsQuick) {
    FakeNode node;
    bh::LinuxStereoGrabber grabber(false);
    ASSERT_EQ(grabber.construct(FakeV4L2Sys::kPath, 2560, 720, 60, 2), 0);
    const auto start = std::chrono::steady_clock::now();
    grabber.destruct();
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LT(took, std::chrono::milliseconds(1500));
    EXPECT_EQ(node.sys->closes, 1);
}

TEST(StereoGrabberClose, DestructWithoutConstructDoesNothing) {
    FakeNode node;
    bh::LinuxStereoGrabber grabber(true);
    grabber.destruct();
    EXPECT_EQ(node.sys->closes, 0);
}
