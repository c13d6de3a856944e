// The frame path of a GMSL camera: pairing of left and right images by
// sensor timestamp, the side-by-side copy, the producers' freeze detection.

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "bh_input/grabber/gmsl/ArgusProvider.h"
#include "platform/Platform.h"
#include "sim/SteppedClock.h"
#include "tests/unit/gmsl_session/ArgusCameraProbe.h"

using testsupport::ArgusCameraProbe;
using testsupport::ScriptedAcquire;
using testsupport::ScriptedArgus;
namespace at = platform::argus_types;

namespace {

constexpr int kW = 8;
constexpr int kH = 4;
constexpr unsigned char kLeftFill = 0xA1;
constexpr unsigned char kRightFill = 0xB2;

class FramePathTest : public ::testing::Test {
protected:
    void SetUp() override {
        ArgusProvider::DeleteInstance();  // all port states closed
        platform::Backend backend;
        backend.clock = clock;
        scoped = std::make_unique<platform::ScopedBackend>(backend);
    }
    void TearDown() override {
        camera.reset();
        scoped.reset();
        ArgusProvider::DeleteInstance();
    }
    void attach(int threshold) {
        camera = std::make_unique<ArgusCameraProbe>();
        camera->attach(argus, false, kW, kH, 30, threshold);
    }
    std::vector<unsigned char> sbs() const { return std::vector<unsigned char>(kW * kH * 4, 0); }

    std::shared_ptr<sim::SteppedClock> clock = std::make_shared<sim::SteppedClock>();
    std::unique_ptr<platform::ScopedBackend> scoped;
    ScriptedArgus argus;
    std::unique_ptr<ArgusCameraProbe> camera;
};

TEST_F(FramePathTest, RightQueueLaggingByOnePairsTheNewestLeftWithItsPartner) {
    attach(10);
    // Left has frames at 1000, 2000, 3000 us; right lags one behind.
    camera->push(true, 1000, kLeftFill);
    camera->push(true, 2000, kLeftFill);
    camera->push(true, 3000, kLeftFill);
    camera->push(false, 1000, kRightFill);
    camera->push(false, 2000, kRightFill);

    auto out = sbs();
    unsigned long long ts = 0;
    ASSERT_EQ(camera->readSBS(out.data(), ts), 0);
    // The pair is 2000/2000: the frame at 3000 waits for its partner, the one
    // at 1000 is dropped with the pair.
    EXPECT_EQ(ts, 2000ULL + static_cast<unsigned long long>(ArgusCameraProbe::monotonicToSystemOffsetUs()));
    EXPECT_EQ(camera->timestamps(true), std::vector<uint64_t>{3000});
    EXPECT_TRUE(camera->timestamps(false).empty());
}

TEST_F(FramePathTest, SideBySideRowsHoldLeftThenRight) {
    attach(10);
    camera->push(true, 5000, kLeftFill);
    camera->push(false, 5000, kRightFill);
    auto out = sbs();
    unsigned long long ts = 0;
    ASSERT_EQ(camera->readSBS(out.data(), ts), 0);
    for (int row = 0; row < kH; ++row) {
        for (int byte = 0; byte < kW * 4; ++byte) {
            const unsigned char expected = byte < kW * 2 ? kLeftFill : kRightFill;
            ASSERT_EQ(out[row * kW * 4 + byte], expected) << "row " << row << " byte " << byte;
        }
    }
}

TEST_F(FramePathTest, DistanceOfExactlyTheThresholdPairs) {
    attach(10);
    camera->push(true, 100000, kLeftFill);
    camera->push(false, 100010, kRightFill);
    auto out = sbs();
    unsigned long long ts = 0;
    EXPECT_EQ(camera->readSBS(out.data(), ts), 0);
}

TEST_F(FramePathTest, DistanceOfOneMicrosecondMoreDoesNotPairAndPopsNothing) {
    attach(10);
    camera->push(true, 100000, kLeftFill);
    camera->push(false, 100011, kRightFill);
    auto out = sbs();
    unsigned long long ts = 0;
    EXPECT_EQ(camera->readSBS(out.data(), ts), 1);
    EXPECT_EQ(camera->timestamps(true), std::vector<uint64_t>{100000});
    EXPECT_EQ(camera->timestamps(false), std::vector<uint64_t>{100011});
}

TEST_F(FramePathTest, EmptyQueueGivesNothing) {
    attach(10);
    camera->push(true, 100000, kLeftFill);
    auto out = sbs();
    unsigned long long ts = 0;
    EXPECT_EQ(camera->readSBS(out.data(), ts), 1);
    EXPECT_FALSE(camera->firstFrameSeen());
}

TEST_F(FramePathTest, WithoutSensorEngineTheFrameIsStillDelivered) {
    attach(10);
    ASSERT_EQ(camera->getMCU(), nullptr);
    camera->push(true, 7000, kLeftFill);
    camera->push(false, 7000, kRightFill);
    auto out = sbs();
    unsigned long long ts = 0;
    EXPECT_EQ(camera->readSBS(out.data(), ts), 0);
    EXPECT_EQ(out[0], kLeftFill);
    EXPECT_FALSE(camera->getIMUPacket().valid);
}

// Runs both producers on their scripts, then the consumer's pairing.
TEST_F(FramePathTest, WithTheSwapFlagSideOneFillsTheLeftHalf) {
    attach(10);
    camera->setSwap(true);
    argus.setBlockWhenIdle(true);
    argus.script(0, {ScriptedAcquire{true, 9000000}});
    argus.script(1, {ScriptedAcquire{true, 9000000}});
    std::thread p0 = camera->startProducer(0);
    std::thread p1 = camera->startProducer(1);
    for (int i = 0; i < 2000 && (camera->timestamps(true).empty() || camera->timestamps(false).empty()); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    camera->setStop(true);
    argus.release();
    p0.join();
    p1.join();

    auto out = sbs();
    unsigned long long ts = 0;
    ASSERT_EQ(camera->readSBS(out.data(), ts), 0);
    EXPECT_EQ(out[0], ScriptedArgus::fillOf(1));
    EXPECT_EQ(out[kW * 2], ScriptedArgus::fillOf(0));
}

// ---------------------------------------------------------------------------
// Freeze detection: one producer, scripted acquires, stopped at the end.

class ProducerTest : public FramePathTest {
protected:
    void runSide0(std::vector<ScriptedAcquire> steps) {
        argus.setBlockWhenIdle(true);
        argus.script(0, std::move(steps));
        std::thread producer = camera->startProducer(0);
        for (int i = 0; i < 5000 && argus.remaining(0) > 0 && !camera->stopped(); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        // Let the producer digest the last step, then stop it.
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        camera->setStop(true);
        argus.release();
        producer.join();
    }
    static ScriptedAcquire frame(uint64_t ns) { return ScriptedAcquire{true, ns}; }
    static std::vector<ScriptedAcquire> timeouts(int n) {
        return std::vector<ScriptedAcquire>(static_cast<size_t>(n),
                                            ScriptedAcquire{false, 0, at::STATUS_TIMEOUT});
    }
    static std::vector<ScriptedAcquire> join(std::vector<std::vector<ScriptedAcquire>> parts) {
        std::vector<ScriptedAcquire> all;
        for (auto& p : parts)
            all.insert(all.end(), p.begin(), p.end());
        return all;
    }
};

TEST_F(ProducerTest, ThirtyTimeoutsAreResetByOneGoodFrame) {
    attach(10);
    runSide0(join({{frame(1000000)}, timeouts(30), {frame(2000000)}, timeouts(30)}));
    EXPECT_FALSE(camera->rebootWanted());
    EXPECT_EQ(camera->getStatus(), 0);
}

TEST_F(ProducerTest, ThirtyOneTimeoutsAfterAFrameDeclareAFreeze) {
    attach(10);
    runSide0(join({{frame(1000000)}, timeouts(31)}));
    EXPECT_TRUE(camera->rebootWanted());
    EXPECT_EQ(camera->getStatus(), 17);
    EXPECT_TRUE(camera->stopped());
}

TEST_F(ProducerTest, TimeoutsBeforeTheFirstFrameNeverAskForAReboot) {
    attach(10);
    runSide0(timeouts(45));
    EXPECT_FALSE(camera->rebootWanted());
    EXPECT_EQ(camera->getStatus(), 0);
}

TEST_F(ProducerTest, ACaptureErrorAsksForARebootAtOnce) {
    attach(10);
    runSide0({frame(1000000), ScriptedAcquire{false, 0, at::STATUS_DISCONNECTED}});
    EXPECT_TRUE(camera->rebootWanted());
    EXPECT_EQ(camera->getStatus(), 18);
}

TEST_F(ProducerTest, NoFreezeIsDeclaredWhileAnotherCameraIsOpening) {
    attach(10);
    camera->setPort(0);
    ArgusProvider::changeState(5, ARGUS_CAMERA_STATE_OPENING);
    runSide0(join({{frame(1000000)}, timeouts(40)}));
    EXPECT_FALSE(camera->rebootWanted());
    EXPECT_EQ(camera->getStatus(), 0);
}

TEST_F(ProducerTest, OnlySideZeroJudgesTheCamera) {
    attach(10);
    argus.setBlockWhenIdle(true);
    argus.script(1, join({{frame(1000000)}, timeouts(40)}));
    std::thread producer = camera->startProducer(1);
    for (int i = 0; i < 5000 && argus.remaining(1) > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    camera->setStop(true);
    argus.release();
    producer.join();
    EXPECT_FALSE(camera->rebootWanted());
}

TEST_F(ProducerTest, QueueKeepsAtMostFourImages) {
    attach(10);
    runSide0(
        {frame(1000000), frame(2000000), frame(3000000), frame(4000000), frame(5000000), frame(6000000)});
    EXPECT_EQ(camera->timestamps(true), (std::vector<uint64_t>{3000, 4000, 5000, 6000}));
}

TEST_F(ProducerTest, ImagesCarryTheFrameMetadataInMicroseconds) {
    attach(10);
    ScriptedAcquire f = frame(123456789);
    f.exposureNs = 8000000;
    runSide0({f});
    ASSERT_EQ(camera->timestamps(true), std::vector<uint64_t>{123456});
}

}  // namespace
