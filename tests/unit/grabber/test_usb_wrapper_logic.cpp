#include <gtest/gtest.h>

#include <atomic>

#include "FakeGrabber.h"
#include "bh_input/grabber/USBWrapperLogic.h"
#include "platform/Platform.h"

using namespace bh;

namespace {

// A clock that moves only when told (sleeping moves it too).
class SteppedClock : public platform::Clock {
public:
    int64_t steadyNanoseconds() override { return ns.load(); }
    int64_t systemNanoseconds() override { return ns.load(); }
    void sleepFor(std::chrono::nanoseconds d) override { ns += d.count(); }
    void advanceMs(int64_t ms) { ns += ms * 1000000; }
    std::atomic<int64_t> ns{1000000000000LL};
};

// A USB session with the few registers the wrapper reads.
class FakeSession : public FakeGrabber {
public:
    FakeSession() : FakeGrabber(&w, &h, &f) {}
    int w = 0, h = 0, f = 0;
    int gamma = 255;  // what a camera may answer before its first reset
    int whiteBalance = 4500;
    int led = 1;
    bool newFrame = false;
    bool locked = false;
    int aec = 1;
    std::vector<GRABBER_STATE> statuses;

    bool isNewFrame() override { return newFrame; }
    bool isExposureLocked() override { return locked; }
    void setCaptureStatus(GRABBER_STATE s) override { statuses.push_back(s); }
    float getFPS() override { return 30.f; }
    int getGammaSetting() override { return gamma; }
    int setGammaSetting(int v, bool useDefault) override {
        gamma = useDefault || v < 0 ? 5 : v;
        return 0;
    }
    int getWhiteBalanceSetting() override { return whiteBalance; }
    int setWhiteBalanceSetting(int v, bool) override {
        whiteBalance = v;
        return 0;
    }
    int ISPAECAGCEnable(bool on) override {
        aec = on;
        return 0;
    }
    int isAECAGC() override { return aec; }
    int getLEDStatus() { return led; }
    int setLEDStatus(int v, bool) {
        led = v;
        return 0;
    }
    int setDefaultGammaCurve() { return 0; }
    int setEnhancedGammaCurve() { return 0; }
    int setDefaultBLC() { return 0; }
    int setEnhancedBLC() { return 0; }
    int setDefaultSharpening() { return 0; }
    int setEnhancedSharpening() { return 0; }
    int setDefaultAWBGain() { return 0; }
    int setEnhancedAWBGain() { return 0; }
};

struct FakeControl {
    FakeControl(VirtualGrabber*, int rate) : fps(rate) {}
    int fps;
    int inits = 0, xGain = 40, xExpo = 60;
    int initXExpoAndXGain() { return ++inits, 0; }
    int setXGainFromCamera() { return 0; }
    int getXGain() { return xGain; }
    int setXExpoFromCamera() { return 0; }
    int getXExpo() { return xExpo; }
    int modifyGainToX(int x) { return xGain = x, 0; }
    int modifyExposureToX(int x) { return xExpo = x, 0; }
};

using Wrapper = USBWrapperGrabberT<FakeSession, FakeControl>;

struct UsbWrapperLogic : ::testing::Test {
    std::shared_ptr<SteppedClock> clock = std::make_shared<SteppedClock>();
    platform::ScopedBackend backend{platform::Backend{nullptr, nullptr, nullptr, nullptr, clock}};
};

}  // namespace

TEST_F(UsbWrapperLogic, GammaAbove9IsResetAndReadAgain) {
    Wrapper w;
    w.gamma = 255;
    EXPECT_EQ(w.getGrabberSettingsValue(GAMMA), 5);
    EXPECT_EQ(w.gamma, 5);
    w.gamma = 9;
    EXPECT_EQ(w.getGrabberSettingsValue(GAMMA), 9);
}

TEST_F(UsbWrapperLogic, WhiteBalanceTemperatureIsMirrored) {
    Wrapper w;
    EXPECT_EQ(w.setGrabberSettingsValue(WHITEBALANCE_TEMPERATURE, 2800, false), 0);
    EXPECT_EQ(w.whiteBalance, 6500);
    EXPECT_EQ(w.getGrabberSettingsValue(WHITEBALANCE_TEMPERATURE), 2800);
}

TEST_F(UsbWrapperLogic, SilenceJustUnderTimeoutThenLostThenQuietAgain) {
    Wrapper w;
    w.endSetup(nullptr);
    ASSERT_NE(w.control, nullptr);
    EXPECT_EQ(w.control->fps, 30);
    clock->advanceMs(2999);
    EXPECT_EQ(w.getFrameStatus(), GRABBER_STATE_NONE);
    clock->advanceMs(1);  // exactly 3000 ms: not above the time-out yet
    EXPECT_EQ(w.getFrameStatus(), GRABBER_STATE_NONE);
    clock->advanceMs(1);
    EXPECT_EQ(w.getFrameStatus(), GRABBER_STATE_LOST);
    ASSERT_FALSE(w.statuses.empty());
    EXPECT_EQ(w.statuses.back(), GRABBER_STATE_LOST);
    // last_status was reset: quiet again for 3000 ms.
    clock->advanceMs(1);
    EXPECT_EQ(w.getFrameStatus(), GRABBER_STATE_NONE);
    clock->advanceMs(2998);
    EXPECT_EQ(w.getFrameStatus(), GRABBER_STATE_NONE);
    clock->advanceMs(2);
    EXPECT_EQ(w.getFrameStatus(), GRABBER_STATE_LOST);
    w.newFrame = true;
    EXPECT_EQ(w.getFrameStatus(), GRABBER_STATE_FRAME);
    EXPECT_EQ(w.statuses.back(), GRABBER_STATE_FRAME);
    w.locked = true;
    EXPECT_EQ(w.getFrameStatus(), GRABBER_STATE_LOCKED);
    EXPECT_EQ(w.statuses.back(), GRABBER_STATE_LOCKED);
}

TEST_F(UsbWrapperLogic, SettingsCallsResetTheSilenceClock) {
    Wrapper w;
    w.endSetup(nullptr);
    clock->advanceMs(2500);
    w.getGrabberSettingsValue(LED_STATUS);
    clock->advanceMs(2500);
    EXPECT_EQ(w.getFrameStatus(), GRABBER_STATE_NONE);
}

TEST_F(UsbWrapperLogic, CheckStreamStatus) {
    Wrapper w;
    w.endSetup(nullptr);
    w.newFrame = true;
    EXPECT_EQ(w.checkStreamStatus(), 0);
    w.newFrame = false;
    EXPECT_EQ(w.checkStreamStatus(), 1);  // the stepped clock runs out the 3000 ms
    w.timeout_ms = 0;
    EXPECT_EQ(w.checkStreamStatus(), 1);
}

TEST_F(UsbWrapperLogic, GainAndAecSwitching) {
    Wrapper w;
    EXPECT_EQ(w.getGrabberSettingsValue(GAIN), -1);  // no control before endSetup
    w.endSetup(nullptr);
    EXPECT_TRUE(w.auto_exposure);
    EXPECT_EQ(w.getGrabberSettingsValue(GAIN), 40);
    EXPECT_EQ(w.setGrabberSettingsValue(GAIN, 70, false), 0);
    EXPECT_FALSE(w.auto_exposure);
    EXPECT_EQ(w.aec, 0);
    EXPECT_EQ(w.control->xGain, 70);
    EXPECT_EQ(w.control->inits, 2);  // re-read after switching off
    EXPECT_EQ(w.setGrabberSettingsValue(EXPOSURE, 20, false), 0);
    EXPECT_EQ(w.control->inits, 2);  // already off: no second re-read
    EXPECT_EQ(w.control->xExpo, 20);
    EXPECT_EQ(w.setGrabberSettingsValue(AEC_AGC, 0, true), 0);  // 0 with default: nothing
    EXPECT_EQ(w.aec, 0);
    EXPECT_EQ(w.setGrabberSettingsValue(AEC_AGC, 1, false), 0);
    EXPECT_EQ(w.aec, 1);
    EXPECT_TRUE(w.auto_exposure);
    EXPECT_EQ(w.setGrabberSettingsValue(AEC_AGC, 0, false), 0);
    EXPECT_EQ(w.aec, 0);
    EXPECT_EQ(w.setGrabberSettingsValue(GAIN, 0, true), 0);
    EXPECT_TRUE(w.auto_exposure);
    EXPECT_EQ(w.aec, 1);
    EXPECT_EQ(w.setGrabberSettingsValue(LED_STATUS, 0, false), 0);
    EXPECT_EQ(w.getGrabberSettingsValue(LED_STATUS), 0);
    EXPECT_EQ(w.getGrabberSettingsValue(static_cast<VIDEO_SETTINGS>(9)), -1);
}

TEST_F(UsbWrapperLogic, OneNumberReadAnswersMinusOneForPlainImageSettings) {
    Wrapper w;
    w.endSetup(nullptr);
    // The session itself has values for these; the one-number read does not
    // pass them on.
    ASSERT_EQ(w.setSharpnessSetting(6, false), 0);
    ASSERT_EQ(w.getSharpnessSetting(), 6);
    EXPECT_EQ(w.getGrabberSettingsValue(BRIGHTNESS), -1);
    EXPECT_EQ(w.getGrabberSettingsValue(CONTRAST), -1);
    EXPECT_EQ(w.getGrabberSettingsValue(HUE), -1);
    EXPECT_EQ(w.getGrabberSettingsValue(SATURATION), -1);
    EXPECT_EQ(w.getGrabberSettingsValue(SHARPNESS), -1);
    EXPECT_EQ(w.getGrabberSettingsValue(WHITEBALANCE_AUTO), -1);
    // The settings with a read of their own still answer.
    EXPECT_EQ(w.getGrabberSettingsValue(LED_STATUS), 1);
    EXPECT_EQ(w.getGrabberSettingsValue(AEC_AGC), 1);
}

TEST_F(UsbWrapperLogic, RangesOfTheUsbTable) {
    Wrapper w;
    int lo = 0, hi = 0;
    EXPECT_TRUE(w.getVideoSettingRange(GAMMA, lo, hi));
    EXPECT_EQ(lo, 1);
    EXPECT_EQ(hi, 9);
    EXPECT_FALSE(w.getVideoSettingRange(DENOISING, lo, hi));
    EXPECT_TRUE(w.valueInRange(DENOISING, -1));
    EXPECT_FALSE(w.valueInRange(DENOISING, 5));
    EXPECT_TRUE(w.valueInRange(WHITEBALANCE_TEMPERATURE, 6500));
    EXPECT_FALSE(w.valueInRange(WHITEBALANCE_TEMPERATURE, 6501));
}

TEST_F(UsbWrapperLogic, LiveCameraGrabberForwardsToRegisteredWrapper) {
    setWrapperFactory(USB_INPUT, [] { return std::make_unique<Wrapper>(); });
    LiveCameraGrabber g(USB_INPUT);
    int id = 0;
    ASSERT_EQ(g.setUp(id), 0);
    g.endSetup(nullptr);
    EXPECT_EQ(g.getGrabberSettingsValue(GAMMA), 5);
    EXPECT_EQ(g.setGrabberSettingsValue(WHITEBALANCE_TEMPERATURE, 2800), 0);
    EXPECT_EQ(g.getGrabberSettingsValue(WHITEBALANCE_TEMPERATURE), 2800);
    EXPECT_EQ(g.getFrameStatus(), GRABBER_STATE_NONE);
    clock->advanceMs(3001);
    EXPECT_EQ(g.getFrameStatus(), GRABBER_STATE_LOST);
    setWrapperFactory(USB_INPUT, nullptr);
}
