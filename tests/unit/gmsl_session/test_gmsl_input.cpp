// The GMSL session's translation of grabber arguments into the camera's
// configuration, and of the camera's open results into setup codes.

#include <gtest/gtest.h>

#include "bh_input/grabber/gmsl/ArgusProvider.h"
#include "bh_input/grabber/gmsl/GMSLInput.h"
#include "platform/Platform.h"

namespace {

// The real backend here has no Argus provider: open ends at once with 3 (no
// provider), after the configuration was stored.
class GmslInputTest : public ::testing::Test {
protected:
    void SetUp() override { ArgusProvider::DeleteInstance(); }
    void TearDown() override { ArgusProvider::DeleteInstance(); }
};

TEST_F(GmslInputTest, SyncThresholdIsThirtyPerCentOfTheFramePeriod) {
    EXPECT_EQ(bh::GMSLInput::syncThresholdOf(15), 20000);
    EXPECT_EQ(bh::GMSLInput::syncThresholdOf(60), 5000);
    EXPECT_EQ(bh::GMSLInput::syncThresholdOf(30), 10000);
    EXPECT_EQ(bh::GMSLInput::syncThresholdOf(0), 0);
}

TEST_F(GmslInputTest, OpenResultsMapToSetupCodes) {
    const int expected[18] = {3, 5, 3, 6, 3, 3, 4, 4, 6, 6, 6, 6, 6, 6, 6, 5, 10, 10};
    for (int r = 1; r <= 17; ++r)
        EXPECT_EQ(bh::GMSLInput::setupCodeOfOpen(r), expected[r]) << r;
    EXPECT_EQ(bh::GMSLInput::setupCodeOfOpen(0), 3);
    EXPECT_EQ(bh::GMSLInput::setupCodeOfOpen(18), 3);
    EXPECT_EQ(bh::GMSLInput::setupCodeOfOpen(-1), 3);
}

TEST_F(GmslInputTest, StereoSetUpAsksForHalfTheWidthPerSensor) {
    bh::GMSLInput input;
    int id = 1;
    EXPECT_EQ(input.setUp(id, 3840, 1200, 15, 4, true, IMU_ODR_400, false), 6);  // no provider: open gives 3
    ASSERT_NE(input.getCamera(), nullptr);
    const ArgusCameraConfig config = input.getCamera()->getConfig();
    EXPECT_EQ(config.first_sensor, 2u);
    EXPECT_EQ(config.second_sensor, 3u);
    EXPECT_EQ(config.stream_size, (std::vector<uint32_t>{1920, 1200}));
    EXPECT_EQ(config.mode_size, (std::vector<uint32_t>{1920, 1200}));
    EXPECT_EQ(config.sync_threshold, 20000);
    EXPECT_EQ(config.frame_durations, std::vector<uint64_t>{66666666});
    EXPECT_TRUE(config.start_consumer);
    EXPECT_FALSE(config.mono);
    EXPECT_EQ(config.clip_rectangle, (std::vector<float>{0.f, 0.f, 1.f, 1.f}));
}

TEST_F(GmslInputTest, MonoSetUpUsesTheIdAndTheWholeWidth) {
    bh::GMSLInput input;
    input.setMonoCamera(true);
    int id = 3;
    input.setUp(id, 1920, 1080, 60, 0, true, IMU_ODR_400, false);
    const ArgusCameraConfig config = input.getCamera()->getConfig();
    EXPECT_TRUE(config.mono);
    EXPECT_EQ(config.first_sensor, 3u);
    EXPECT_EQ(config.stream_size, (std::vector<uint32_t>{1920, 1080}));
    EXPECT_EQ(config.sync_threshold, 5000);
}

TEST_F(GmslInputTest, VerbosityIsTheArgumentMinusFourNeverBelowZero) {
    for (int v = 0; v <= 4; ++v) {
        bh::GMSLInput input;
        int id = 0;
        input.setUp(id, 3840, 1200, 30, v, true, IMU_ODR_400, false);
        EXPECT_EQ(input.getCamera()->getConfig().verbosity, 0) << v;
    }
    bh::GMSLInput input;
    int id = 0;
    input.setUp(id, 3840, 1200, 30, 6, true, IMU_ODR_400, false);
    EXPECT_EQ(input.getCamera()->getConfig().verbosity, 2);
}

TEST_F(GmslInputTest, ASecondSetUpClosesTheFirstCamera) {
    bh::GMSLInput input;
    int id = 0;
    input.setUp(id, 3840, 1200, 30, 4, true, IMU_ODR_400, false);
    EXPECT_EQ(ArgusCamera::argus_camera_count, 1);
    input.setUp(id, 3840, 1200, 30, 4, true, IMU_ODR_400, false);
    EXPECT_EQ(ArgusCamera::argus_camera_count, 1);  // the first one went
    input.close(false);
    EXPECT_EQ(input.getCamera(), nullptr);
    EXPECT_EQ(ArgusCamera::argus_camera_count, 0);
}

TEST_F(GmslInputTest, WithoutCameraTheForwardsAnswerTheirDefaults) {
    bh::GMSLInput input;
    EXPECT_EQ(input.waitForNewFrame(10), 1);
    EXPECT_FALSE(input.isNewFrame());
    EXPECT_EQ(input.getPixels(), nullptr);
    EXPECT_EQ(input.getTimeStamp(), 0u);
    EXPECT_EQ(input.getSerialNumber(), 0u);
    EXPECT_FALSE(input.isCameraDisconnected());
    EXPECT_FALSE(input.WaitForNextFrameEvent(0));
    EXPECT_EQ(input.getLEDStatus(), -1);
    EXPECT_EQ(input.enableECT(), -1);
    EXPECT_EQ(input.activateCBS(), 1);
    EXPECT_FALSE(input.isExposureLocked());
    EXPECT_EQ(input.SPI_FlashErase(0, 0), 0);
    EXPECT_EQ(input.SensorRead(0, 0, nullptr, 0, 0), 0);
    int lo = 0, hi = 0;
    EXPECT_EQ(input.getExposureLimits(0, lo, hi), -1);
}

}  // namespace
