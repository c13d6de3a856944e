#include <gtest/gtest.h>

#include "bh_input/grabber/GrabberWrapper.h"

using namespace bh;

TEST(LiveCameraGrabber, NewGrabberHasNoInput) {
    LiveCameraGrabber g;
    EXPECT_EQ(g.getInputType(), NO_INPUT);
    LiveCameraGrabber u(USB_INPUT);
    EXPECT_EQ(u.getInputType(), USB_INPUT);
}

TEST(LiveCameraGrabber, SetUpWithNoInputReturns4AndCreatesNothing) {
    LiveCameraGrabber g;
    int id = 0;
    EXPECT_EQ(g.setUp(id, -1, -1, -1, 2, true, IMU_ODR_400, false), 4);
    EXPECT_EQ(g.getFrameStatus(), GRABBER_STATE_LOST);
    EXPECT_EQ(g.checkStreamStatus(), 2);
    EXPECT_EQ(g.getCameraModel(), KOV_MODEL_UNKNOWN);
}

TEST(LiveCameraGrabber, FixedAnswersWithoutSetUp) {
    for (INPUT_TYPE type : {NO_INPUT, USB_INPUT, GMSL_INPUT}) {
        LiveCameraGrabber g(type);
        EXPECT_EQ(g.getFrameStatus(), 3) << type;
        EXPECT_EQ(g.checkStreamStatus(), 2) << type;
        EXPECT_EQ(g.getCameraModel(), 32) << type;
        EXPECT_EQ(g.getGrabberSettingsValue(GAIN), -1);
        EXPECT_EQ(g.setGrabberSettingsValue(GAIN, 10), -1);
        EXPECT_EQ(g.getSharpnessSetting(), -1);
        Rect r;
        EXPECT_EQ(g.getROIforAECAGC(0, r), -1);
        EXPECT_EQ(g.setROIforAECAGC(0, r), -1);
        EXPECT_EQ(g.resetROIforAECAGC(0), -1);
        EXPECT_EQ(g.getSensorTemperature(0), -1);
        EXPECT_EQ(g.setDefaultGammaCurve(), -1);
        EXPECT_EQ(g.setEnhancedAWBGain(), -1);
        EXPECT_EQ(g.waitForNewFrame(10), 1);
        EXPECT_EQ(g.getPixels(), nullptr);
        EXPECT_EQ(g.getMCU(), nullptr);
        EXPECT_EQ(g.getTimeStamp(), 0u);
        EXPECT_EQ(g.getFPS(), 0.f);
        EXPECT_EQ(g.getRequestedFPS(), 0);
        EXPECT_EQ(g.getWidth(), 0);
        EXPECT_EQ(g.getHeight(), 0);
        EXPECT_EQ(g.getEffectiveWidth(), 0);
        EXPECT_EQ(g.getEffectiveHeight(), 0);
        EXPECT_EQ(g.getSerialNumber(), 0u);
        EXPECT_EQ(g.getFWVersion(), 0);
        EXPECT_EQ(g.writeSerialNumber(5), 0);
        EXPECT_FALSE(g.hasMCU());
        EXPECT_EQ(g.getCameraSystemPath(0), "");
        std::pair<int, int> range;
        EXPECT_EQ(g.getGrabberSettingsRangeValue(AUTO_EXPOSURE_TIME_RANGE, range), -1);
        // Forwards without a session do nothing and do not crash.
        g.close(true);
        g.setOutputBufferPtr(nullptr);
        g.endSetup(nullptr);
        g.forceReboot();
    }
}

TEST(LiveCameraGrabber, SetUpWithoutRegisteredSessionAnswersNoGrabberSystem) {
    setWrapperFactory(USB_INPUT, nullptr);
    setWrapperFactory(GMSL_INPUT, nullptr);
    LiveCameraGrabber g(USB_INPUT);
    int id = 0;
    EXPECT_EQ(g.setUp(id), 3);
    g.setInputType(GMSL_INPUT);
    EXPECT_EQ(g.setUp(id), 3);
}

TEST(LiveCameraGrabber, InputTypeFromModel) {
    LiveCameraGrabber g;
    g.setInputTypeFromModel(KOVT);
    EXPECT_EQ(g.getInputType(), USB_INPUT);
    g.setInputTypeFromModel(KOV_QS_B);
    EXPECT_EQ(g.getInputType(), GMSL_INPUT);
    g.setInputTypeFromModel(KOV_MODEL_UNKNOWN);
    EXPECT_EQ(g.getInputType(), GMSL_INPUT);
    g.setInputTypeFromModel(KOV);
    EXPECT_EQ(g.getInputType(), USB_INPUT);
}

TEST(LiveCameraGrabber, ValueInRangeAsymmetry) {
    LiveCameraGrabber g(GMSL_INPUT);
    // -1 (the default) is always in range.
    EXPECT_TRUE(g.valueInRange(EXPOSURE_TIME, -1));
    EXPECT_TRUE(g.valueInRange(BRIGHTNESS, -1));
    // On GMSL, brightness, contrast and hue are judged like USB although the
    // GMSL range query answers false for them.
    int lo, hi;
    EXPECT_FALSE(gmslFixedVideoSettingRange(BRIGHTNESS, lo, hi));
    EXPECT_TRUE(g.valueInRange(BRIGHTNESS, 8));
    EXPECT_FALSE(g.valueInRange(BRIGHTNESS, 9));
    EXPECT_TRUE(g.valueInRange(HUE, 11));
    EXPECT_FALSE(g.valueInRange(HUE, 12));
    EXPECT_TRUE(g.valueInRange(CONTRAST, 0));
    EXPECT_FALSE(g.valueInRange(CONTRAST, -2));
}

// A session that registers itself: setUp gets the defaults for negative
// arguments, and a repeated setUp builds a fresh wrapper.
namespace {
struct FakeState {
    int built = 0;
    int width = 0, height = 0, fps = 0;
    bool mono = false;
};
FakeState g_fake;

class FakeWrapper : public WrapperGrabber {
public:
    VirtualGrabber& grabber() override { return *grabber_; }
    void endSetup(unsigned char*) override {}
    GRABBER_STATE getFrameStatus() override { return GRABBER_STATE_FRAME; }
    int checkStreamStatus() override { return 0; }
    int getGrabberSettingsValue(VIDEO_SETTINGS) override { return 7; }
    int setGrabberSettingsValue(VIDEO_SETTINGS, int, bool) override { return 0; }
    bool getVideoSettingRange(VIDEO_SETTINGS, int&, int&) override { return false; }
    bool valueInRange(VIDEO_SETTINGS, int) override { return false; }
    void setMonoCamera(bool m) override { g_fake.mono = m; }
    int setDefaultGammaCurve() override { return 0; }
    int setEnhancedGammaCurve() override { return 0; }
    int setDefaultBLC() override { return 0; }
    int setEnhancedBLC() override { return 0; }
    int setDefaultSharpening() override { return 0; }
    int setEnhancedSharpening() override { return 0; }
    int setDefaultAWBGain() override { return 0; }
    int setEnhancedAWBGain() override { return 0; }
    std::unique_ptr<VirtualGrabber> grabber_;
};
}  // namespace

#include "FakeGrabber.h"

TEST(LiveCameraGrabber, SetUpDefaultsAndFreshWrappers) {
    setWrapperFactory(USB_INPUT, [] {
        auto w = std::make_unique<FakeWrapper>();
        w->grabber_ = std::make_unique<FakeGrabber>(&g_fake.width, &g_fake.height, &g_fake.fps);
        ++g_fake.built;
        return w;
    });
    setWrapperFactory(GMSL_INPUT, [] {
        auto w = std::make_unique<FakeWrapper>();
        w->grabber_ = std::make_unique<FakeGrabber>(&g_fake.width, &g_fake.height, &g_fake.fps);
        ++g_fake.built;
        return w;
    });
    LiveCameraGrabber g(USB_INPUT);
    int id = 0;
    EXPECT_EQ(g.setUp(id), 0);
    EXPECT_EQ(g_fake.width, 2560);
    EXPECT_EQ(g_fake.height, 720);
    EXPECT_EQ(g_fake.fps, 15);
    EXPECT_EQ(g.setUp(id, 1344, 376, 30), 0);
    EXPECT_EQ(g_fake.width, 1344);
    EXPECT_EQ(g.getWidth(), 672);  // one sensor's width
    EXPECT_EQ(g.getHeight(), 376);
    EXPECT_EQ(g_fake.built, 2);
    EXPECT_EQ(g.getFrameStatus(), GRABBER_STATE_FRAME);
    EXPECT_EQ(g.getGrabberSettingsValue(GAIN), 7);
    EXPECT_EQ(g.getCameraModel(), KOVT);

    g.setInputType(GMSL_INPUT);
    g.setMonoCapture(true);
    EXPECT_EQ(g.setUp(id), 0);
    EXPECT_EQ(g_fake.width, 3840);
    EXPECT_EQ(g_fake.height, 1200);
    EXPECT_EQ(g_fake.fps, 60);
    EXPECT_TRUE(g_fake.mono);
    setWrapperFactory(USB_INPUT, nullptr);
    setWrapperFactory(GMSL_INPUT, nullptr);
}

TEST(LiveCameraGrabber, PushErrorKeepsFileLineAndMessage) {
    int w = 0, h = 0, f = 0;
    FakeGrabber g(&w, &h, &f);
    g.pushError("bh_input/grabber/linux/LinuxInput.cpp", 120, "Cannot open MCU");
    g.pushError("x.cpp", 7, "second");
    ASSERT_EQ(g.getErrors().size(), 2u);
    EXPECT_EQ(g.getErrors()[0].first, "bh_input/grabber/linux/LinuxInput.cpp_120");
    EXPECT_EQ(g.getErrors()[0].second, "Cannot open MCU");
    EXPECT_EQ(g.getErrors()[1].first, "x.cpp_7");
    g.close(true);
    EXPECT_EQ(g.getErrors().size(), 2u);  // the list outlives close
}
