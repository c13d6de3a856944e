// A GMSL camera through the object callers hold (bh::LiveCameraGrabber) on
// the simulated camera service and inertial chip: the three modes of the
// grabbing test, paired frames at the requested rate with their inertial
// packet, a freeze that the daemon is told of and that the camera recovers
// from, and no thread left behind.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>

#include "bh_input/grabber/GrabberWrapper.h"
#include "bh_input/grabber/gmsl/GMSLInput.h"
#include "bh_input/mcu/IMUPacket.h"
#include "platform/Clock.h"
#include "sim/Models.h"
#include "tests/unit/common/ForwardingSys.h"
#include "tests/unit/gmsl_session/SessionSimSupport.h"

using sessiontest::SessionSimTest;
using sessiontest::threadCount;
using sessiontest::waitUntil;
using testsupport::ForwardingSys;

namespace {

// Runs `hook` just before the n-th open of one path.
class OpenHookSys : public ForwardingSys {
public:
    OpenHookSys(std::shared_ptr<platform::Sys> inner, std::string path, int n, std::function<void()> hook)
        : ForwardingSys(std::move(inner)), path_(std::move(path)), n_(n), hook_(std::move(hook)) {}
    int open(const char* path, int flags, mode_t mode) override {
        if (path_ == path && ++count_ == n_)
            hook_();
        return ForwardingSys::open(path, flags, mode);
    }

private:
    std::string path_;
    int n_;
    std::function<void()> hook_;
    int count_ = 0;
};

struct Mode {
    int width;  // side by side
    int height;
    int fps;
};

// Counts the frames the wrapper reports over `ms` of real time.
int countFrames(bh::LiveCameraGrabber& g, int ms) {
    int frames = 0;
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::milliseconds(ms)) {
        if (g.getFrameStatus() == bh::GRABBER_STATE_FRAME) {
            g.getPixels();
            ++frames;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    return frames;
}

class GmslSessionSim : public SessionSimTest {};

TEST_F(GmslSessionSim, TheThreeModesOfTheGrabbingTestStreamPairsAtTheirRate) {
    install("gmsl_kov_qg_pico_bus30.json");
    // The threads that stay once a first camera came and went: the logger's
    // and the daemon link's receiving side, which lives until exit.
    int lasting = -1;
    for (const Mode m : {Mode{3840, 1200, 30}, Mode{3840, 1200, 60}, Mode{1920, 600, 120}}) {
        SCOPED_TRACE(std::to_string(m.width) + "x" + std::to_string(m.height) + "@" + std::to_string(m.fps));
        bh::LiveCameraGrabber g(bh::GMSL_INPUT);
        int id = 0;
        ASSERT_EQ(g.setUp(id, m.width, m.height, m.fps, 4, false, IMU_ODR_400, false), 0);
        g.endSetup(nullptr);
        EXPECT_EQ(g.getEffectiveWidth(), m.width);
        EXPECT_EQ(g.getEffectiveHeight(), m.height);
        EXPECT_EQ(static_cast<int>(g.getFPS()), m.fps);
        EXPECT_EQ(g.getCameraModel(), bh::KOV_QP);
        EXPECT_EQ(g.getSerialNumber(), 42000123u);
        EXPECT_TRUE(g.hasMCU());

        const int frames = countFrames(g, 2000);
        if (sessiontest::kMeasureRates) {
            EXPECT_GE(frames, m.fps * 2 * 7 / 10);
            EXPECT_LE(frames, m.fps * 2 * 11 / 10);
        } else {
            EXPECT_GT(frames, 0);
        }

        // One side-by-side row. The simulated camera's second sensor sees
        // the scene 12 pixel pairs further on; on this board the sensors
        // are swapped, so the second sensor fills the left half.
        g.enterCriticalSection();
        const unsigned char* pixels = g.getPixels();
        ASSERT_NE(pixels, nullptr);
        const int half = m.width;  // bytes of one view's row: (width / 2) x 2
        EXPECT_EQ(std::memcmp(pixels, pixels + half + 48, 64), 0);
        EXPECT_NE(std::memcmp(pixels, pixels + half, 64), 0);
        g.exitCriticalSection();

        // The frame's inertial packet: the chip's sample nearest the image.
        bh::IMUPacket packet;
        EXPECT_TRUE(waitUntil([&] { return g.getIMUPacket(packet) == 1; }, 3000));
        EXPECT_TRUE(packet.valid);
        const double distanceMs =
            std::abs(static_cast<double>(packet.host_timestamp) - static_cast<double>(g.getTimeStamp())) /
            1e6;
        EXPECT_LT(distanceMs, 250.0 * sessiontest::kSlow);  // a few frames may pass between the two reads
        g.close();
        if (lasting < 0)
            lasting = threadCount();
        EXPECT_TRUE(waitUntil([&] { return threadCount() <= lasting; }, 3000))
            << threadCount() << " threads, " << lasting << " after the first close";
    }
}

TEST_F(GmslSessionSim, SetUpOfAMissingModeNamesTheVideoDevice) {
    install("gmsl_kov_qg_pico_bus30.json");
    bh::LiveCameraGrabber g(bh::GMSL_INPUT);
    int id = 0;
    EXPECT_EQ(g.setUp(id, 2 * 672, 376, 30, 4, true, IMU_ODR_400, false), 6);  // no VGA mode: 14
    g.close();
}

TEST_F(GmslSessionSim, CameraInUseElsewhereCannotStart) {
    install(R"({"type": "gmsl_camera", "bus": 30, "serial": 42000123, "sub_model": 4, "in_use": true})");
    bh::LiveCameraGrabber g(bh::GMSL_INPUT);
    int id = 0;
    EXPECT_EQ(g.setUp(id, 3840, 1200, 30, 4, true, IMU_ODR_400, false), 6);  // sessions refused: 8
}

// Frozen 3 s after the first frames: 31 silent acquires on side 0, FROZEN to
// the daemon, the service restarted (provider deleted and made anew), and
// the camera streams again. The clock runs 8 times faster than real time.
TEST_F(GmslSessionSim, AFreezeIsDetectedTheDaemonToldAndFramesComeBack) {
    const std::vector<int> ports = linktest::freePorts(2);
    ASSERT_EQ(ports.size(), 2u);
    const auto unit = root.writeUnit(ports[0], ports[1]);
    linktest::Daemon daemon(unit, root.path() / "daemon.log", {});
    ASSERT_TRUE(daemon.waitReady());

    // The freeze comes well after the open's first frames, also in the
    // slower sanitizer builds.
    const std::string freezeAfter = sessiontest::kMeasureRates ? "3" : "12";
    install(R"({"type": "gmsl_camera", "bus": 30, "serial": 42000124, "sub_model": 4,
                "modes": [{"width": 320, "height": 200, "fps": [15, 30]}],
                "faults": {"freeze": {"after_s": )" +
                freezeAfter + "}}}",
            sessiontest::kMeasureRates ? 8.0 : 2.0);
    {
        bh::LiveCameraGrabber g(bh::GMSL_INPUT);
        int id = 0;
        ASSERT_EQ(g.setUp(id, 640, 200, 30, 4, true, IMU_ODR_400, false), 0);
        g.endSetup(nullptr);
        ASSERT_GT(countFrames(g, 200), 0);
        const int threadsStreaming = threadCount();

        // Frozen: the producers give up after 31 s of the camera's clock.
        ASSERT_TRUE(waitUntil([&] { return argus().cameraFrozen(0); }, 5000));
        EXPECT_TRUE(waitUntil(
            [&] {
                const auto lines = daemon.lines();
                return std::count(lines.begin(), lines.end(), "KOVQ#0#9#FROZEN") >= 1;
            },
            15000));
        // Restarted: the provider was made anew and frames flow again.
        EXPECT_TRUE(waitUntil([&] { return argus().createProviderCalls() >= 2; }, 15000));
        EXPECT_TRUE(waitUntil([&] { return countFrames(g, 100) > 0; }, 20000));
        EXPECT_GE(argus().destroyProviderCalls(), 1);
        // One watchdog over the reboot, and the same threads as before (once
        // the old capture threads have been joined).
        EXPECT_TRUE(waitUntil([&] { return threadCount() == threadsStreaming; }, 3000))
            << threadCount() << " threads, " << threadsStreaming << " while streaming before";
        g.close();
        // Capture, inertial and watchdog threads all gone (the link's
        // receiving side and the logger stay, by design).
        EXPECT_TRUE(waitUntil([&] { return threadCount() <= threadsStreaming - 4; }, 3000));
    }
    const auto lines = daemon.waitLines(1);
    EXPECT_GE(std::count(lines.begin(), lines.end(), "KOVQ#0#9#OPENING"), 2);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "KOVQ#0#9#CLOSING"), 1);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "KOVQ#0#9#RUN#0"), lines.end());
}

// ---------------------------------------------------------------------------
// The camera itself

ArgusCameraConfig stereoConfig(uint32_t w, uint32_t h, int fps) {
    ArgusCameraConfig c;
    c.first_sensor = 0;
    c.second_sensor = 1;
    c.stream_size = {w, h};
    c.mode_size = {w, h};
    c.frame_durations = {1000000000ULL / static_cast<uint64_t>(fps)};
    c.sync_threshold = bh::GMSLInput::syncThresholdOf(fps);
    return c;
}

class ArgusCameraSim : public SessionSimTest {};

TEST_F(ArgusCameraSim, OpenOnAnOpenCameraReturnsOneAndOnlyStoresTheConfiguration) {
    install("gmsl_kov_qg_pico_bus30.json");
    ArgusCamera camera;
    ASSERT_EQ(camera.open(stereoConfig(1920, 1200, 30), true), 0);
    ArgusCameraConfig other = stereoConfig(1920, 1080, 15);
    EXPECT_EQ(camera.open(other, true), 1);
    EXPECT_EQ(camera.getConfig().mode_size, (std::vector<uint32_t>{1920, 1080}));
    EXPECT_EQ(camera.getEffectiveHeight(), 1200);  // still the running session
    EXPECT_EQ(camera.getFPS(), 30);
    camera.close();
}

TEST_F(ArgusCameraSim, SensorsOfDifferentModelsGiveEight) {
    install(R"({"type": "gmsl_camera", "bus": 30, "serial": 42000123, "sub_model": 4,
                "sensors": [{}, {"model_name": "kovq_ar0235"}]})");
    ArgusCamera camera;
    EXPECT_EQ(camera.open(stereoConfig(1920, 1200, 30), true), 8);
    EXPECT_EQ(ArgusProvider::getState(0), ARGUS_CAMERA_STATE_CLOSED);
}

// The discovery listed the bus while its EEPROM held a valid number; by the
// time the camera opens, 0x55 answers 0xFFFFFFFF. That read succeeded, so
// 0x57 (where a valid camera EEPROM waits) is not tried: 7.
TEST_F(ArgusCameraSim, AnAllOnesSerialAt0x55IsInvalidAnd0x57IsNotTried) {
    install(R"({"type": "gmsl_camera", "bus": 30, "serial": 42000123, "sub_model": 4,
                "imu": {"present": false, "calibration_image": "absent"}},
               {"type": "i2c_bus", "bus": 30, "chips": [
                   {"type": "camera_eeprom", "address": 87, "serial": 42000125, "sub_model": 4}]})");
    auto eeprom = std::dynamic_pointer_cast<sim::RegisterChip>(machine->i2cBus(30)->chip(0x55));
    ASSERT_NE(eeprom, nullptr);
    platform::Backend backend = platform::current();
    auto sys = std::make_shared<OpenHookSys>(backend.sys, "/dev/i2c-30", 2, [&] {
        eeprom->setContents(0, {0xFF, 0xFF, 0xFF, 0xFF});
    });
    backend.sys = sys;
    platform::ScopedBackend hooked(backend);
    ArgusCamera camera;
    EXPECT_EQ(camera.open(stereoConfig(1920, 1200, 30), true), 7);
}

TEST_F(ArgusCameraSim, NoFirstFrameWithinTheWaitGivesSeventeenAndTheThreadsRunUntilClose) {
    install(R"({"type": "gmsl_camera", "bus": 30, "serial": 42000123, "sub_model": 4,
                "faults": {"no_first_frame": true}})",
            25.0);  // the 20.1 s wait in under a second
    {
        ArgusCamera camera;
        const auto start = std::chrono::steady_clock::now();
        const int64_t clockStart = platform::clock().steadyNanoseconds();
        EXPECT_EQ(camera.open(stereoConfig(1920, 1200, 30), true), 17);
        const int64_t waited = platform::clock().steadyNanoseconds() - clockStart;
        EXPECT_GE(waited, 20000000000LL);  // 201 polls 100 ms apart
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
        EXPECT_EQ(ArgusProvider::getState(0), ARGUS_CAMERA_STATE_CLOSED);
        EXPECT_GT(threadCount(), baseline);  // producers, consumer, watchdog
        camera.close();
        EXPECT_TRUE(waitUntil([&] { return threadCount() <= baseline; }, 3000));
    }
}

TEST_F(ArgusCameraSim, TheWatchdogIsOneThreadOverReboots) {
    install("gmsl_kov_qg_pico_bus30.json", 4.0);
    ArgusCamera camera;
    ASSERT_EQ(camera.open(stereoConfig(1280, 720, 30), true), 0);
    const int streaming = threadCount();
    camera.forceReboot();
    // FROZEN, release, 2.1 s, open again: a new provider and new frames.
    EXPECT_TRUE(waitUntil([&] { return argus().createProviderCalls() >= 2; }, 10000));
    EXPECT_TRUE(waitUntil([&] { return camera.isOpened() && camera.getStatus() == 0; }, 15000));
    EXPECT_TRUE(waitUntil([&] { return camera.isNewFrame(); }, 5000));
    EXPECT_EQ(threadCount(), streaming);
    camera.close();
}

TEST_F(ArgusCameraSim, ARightSensorLaggingByAFrameStillPairs) {
    install(R"({"type": "gmsl_camera", "bus": 30, "serial": 42000123, "sub_model": 4,
                "faults": {"second_sensor_lag_frames": 1}})");
    ArgusCamera camera;
    ASSERT_EQ(camera.open(stereoConfig(1280, 720, 30), true), 0);
    int frames = 0;
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < std::chrono::seconds(1)) {
        if (camera.waitForFrame(100)) {
            camera.clearNewFrame();
            ++frames;
        }
    }
    EXPECT_GE(frames, sessiontest::kMeasureRates ? 20 : 3);
    camera.close();
}

TEST_F(ArgusCameraSim, AnOffsetJustPastTheThresholdNeverPairs) {
    // 30 fps: a threshold of 10000 us; the right sensor 10001 us late. Both
    // queues fill, which counts as the first frame, but no pair is ever made.
    install(R"({"type": "gmsl_camera", "bus": 30, "serial": 42000123, "sub_model": 4,
                "faults": {"second_sensor_offset_us": 10001}})");
    ArgusCamera camera;
    ASSERT_EQ(camera.open(stereoConfig(1280, 720, 30), true), 0);
    // The first frames come at the mode's fastest rate, 120 fps, where a
    // 10000 us threshold spans more than a period and pairs neighbours; from
    // the wanted 30 fps on, nothing pairs.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    camera.waitForFrame(0);
    camera.clearNewFrame();
    EXPECT_FALSE(camera.waitForFrame(1000));
    EXPECT_FALSE(camera.isNewFrame());
    camera.close();
}

TEST_F(ArgusCameraSim, AnOffsetOfExactlyTheThresholdPairs) {
    install(R"({"type": "gmsl_camera", "bus": 30, "serial": 42000123, "sub_model": 4,
                "faults": {"second_sensor_offset_us": 10000}})");
    ArgusCamera camera;
    ASSERT_EQ(camera.open(stereoConfig(1280, 720, 30), true), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // past the fastest-rate start
    camera.waitForFrame(0);
    camera.clearNewFrame();
    EXPECT_TRUE(camera.waitForFrame(1000));
    camera.close();
}

TEST(ArgusProviderPorts, StatesOutsideZeroToSevenAreIgnored) {
    ArgusProvider::DeleteInstance();
    ArgusProvider::changeState(8, ARGUS_CAMERA_STATE_RUNNING);
    ArgusProvider::changeState(-1, ARGUS_CAMERA_STATE_FROZEN);
    EXPECT_EQ(ArgusProvider::getState(8), ARGUS_CAMERA_STATE_CLOSED);
    EXPECT_EQ(ArgusProvider::getState(-1), ARGUS_CAMERA_STATE_CLOSED);
    EXPECT_FALSE(ArgusProvider::hasCameraFrozen());
    ArgusProvider::changeState(7, ARGUS_CAMERA_STATE_OPENING);
    EXPECT_TRUE(ArgusProvider::hasCameraOpening());
    ArgusProvider::DeleteInstance();
    EXPECT_FALSE(ArgusProvider::hasCameraOpening());
}

}  // namespace
