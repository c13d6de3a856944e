#pragma once

// Support for the tests of the "Camera Test" node:
// - ScriptedCamera: a camera session registered as the wrapper of an input
//   type (bh::setWrapperFactory), whose setUp codes, identity and frame
//   stream a test writes down. Frames follow platform::clock(): frame k of a
//   stream is complete (k + 1) / fps seconds after endSetup, so that with a
//   stepped clock a test knows exactly how many frames the 8.34 s run sees.
// - ScopedSteppedClock: the process clock replaced by sim::SteppedClock.
// - ScopedSysRoot: KOV_SYSROOT on a temporary root, with or without the
//   Jetson chip id file.

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <sys/stat.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "bh_input/grabber/GrabberWrapper.h"
#include "bh_input/grabber/gmsl/GMSLWrapperGrabber.h"
#include "bh_input/grabber/linux/USBWrapperGrabber.h"
#include "diagnostic/DiagnosticRunner.h"
#include "diagnostic/KOVNode.h"
#include "platform/Platform.h"
#include "sim/SteppedClock.h"
#include "tests/unit/grabber/FakeGrabber.h"

namespace testsupport {

// One setUp call as the session saw it.
struct SetUpCall {
    int id;
    int width;
    int height;
    int fps;
    int buffers;
    bool noMCU;
    int imuFreq;
};

// What the scripted camera does; tests fill it before the node opens it.
struct CameraScript {
    // The code of setUp call n (from 0); 0 when unset.
    std::function<int(int call)> setUpCode;
    bh::MODEL model = bh::KOV_P;
    int firmware = 1523;
    unsigned int serial = 12345678;
    // Answered by getFPS; negative: the rate asked for.
    float fps = -1.f;
    // Subtracted from the effective width of one view.
    int widthShortfall = 0;
    // Frames that never arrive, and frames whose band 2 arrives from another
    // scene (indices from 0 in each stream).
    bool streaming = true;
    std::set<int> dropped;
    std::set<int> torn;
    // Called at every frame status poll.
    std::function<void()> onPoll;

    // Records.
    std::vector<SetUpCall> calls;
    int endSetups = 0;
    int polls = 0;
    int delivered = 0;
};

inline CameraScript& cameraScript() {
    static CameraScript script;
    return script;
}

// A side-by-side YUYV image of two views of viewWidth x viewHeight: a fixed
// scene, or the same scene with the chroma of rows 0.4 H .. 0.6 H moved by
// 60 (a torn frame as the tearing test sees it).
inline std::vector<unsigned char> scriptedFrame(int viewWidth, int viewHeight, bool torn) {
    const size_t rowBytes = static_cast<size_t>(viewWidth) * 4;
    std::vector<unsigned char> frame(rowBytes * static_cast<size_t>(viewHeight));
    for (int y = 0; y < viewHeight; ++y) {
        const bool inBand = torn && y >= viewHeight * 2 / 5 && y < viewHeight * 3 / 5;
        for (size_t b = 0; b < rowBytes; b += 2) {
            frame[y * rowBytes + b] = static_cast<unsigned char>(16 + (b + y) % 200);           // luma
            frame[y * rowBytes + b + 1] = static_cast<unsigned char>(inBand ? 128 + 60 : 128);  // chroma
        }
    }
    return frame;
}

class ScriptedCamera : public FakeGrabber, public bh::WrapperGrabber {
public:
    ScriptedCamera() : FakeGrabber(&w_, &h_, &f_) {}

    bh::VirtualGrabber& grabber() override { return *this; }

    int setUp(int& camera, int wi, int he, int rate, int buffers, bool noMCU, bh::IMU_FREQ imuFreq,
              bool) override {
        CameraScript& s = cameraScript();
        const int call = static_cast<int>(s.calls.size());
        s.calls.push_back({camera, wi, he, rate, buffers, noMCU, static_cast<int>(imuFreq)});
        id = camera, width = wi, height = he, fps = rate;
        model = s.model;
        return s.setUpCode ? s.setUpCode(call) : 0;
    }
    void endSetup(unsigned char*) override {
        ++cameraScript().endSetups;
        start_ = platform::clock().steadyNanoseconds();
        next_ = 0;
    }
    bh::GRABBER_STATE getFrameStatus() override {
        CameraScript& s = cameraScript();
        ++s.polls;
        if (s.onPoll)
            s.onPoll();
        if (!s.streaming || fps <= 0)
            return bh::GRABBER_STATE_NONE;
        const int64_t since = platform::clock().steadyNanoseconds() - start_;
        const int64_t complete = since * fps / 1000000000LL;
        if (complete <= next_)
            return bh::GRABBER_STATE_NONE;
        const int64_t latest = complete - 1;
        next_ = complete;
        if (s.dropped.count(static_cast<int>(latest)))
            return bh::GRABBER_STATE_NONE;
        ++s.delivered;
        const bool torn = s.torn.count(static_cast<int>(latest)) != 0;
        std::vector<unsigned char>& frame = torn ? tornFrame_ : plainFrame_;
        if (frame.empty())
            frame = scriptedFrame(width / 2, height, torn);
        pixels_ = frame.data();
        return bh::GRABBER_STATE_FRAME;
    }
    unsigned char* getPixels() override { return pixels_; }
    float getFPS() override { return cameraScript().fps < 0 ? static_cast<float>(fps) : cameraScript().fps; }
    int getEffectiveWidth() override { return width / 2 - cameraScript().widthShortfall; }
    int getEffectiveHeight() override { return height; }
    unsigned int getSerialNumber() override { return cameraScript().serial; }
    int getFWVersion() override { return cameraScript().firmware; }

    int checkStreamStatus() override { return 1; }
    int getGrabberSettingsValue(bh::VIDEO_SETTINGS) override { return -1; }
    int setGrabberSettingsValue(bh::VIDEO_SETTINGS, int, bool) override { return -1; }
    bool getVideoSettingRange(bh::VIDEO_SETTINGS, int&, int&) override { return false; }
    bool valueInRange(bh::VIDEO_SETTINGS, int) override { return false; }
    int setDefaultGammaCurve() override { return 0; }
    int setEnhancedGammaCurve() override { return 0; }
    int setDefaultBLC() override { return 0; }
    int setEnhancedBLC() override { return 0; }
    int setDefaultSharpening() override { return 0; }
    int setEnhancedSharpening() override { return 0; }
    int setDefaultAWBGain() override { return 0; }
    int setEnhancedAWBGain() override { return 0; }

private:
    int w_ = 0, h_ = 0, f_ = 0;
    int64_t start_ = 0;
    int64_t next_ = 0;
    unsigned char* pixels_ = nullptr;
    std::vector<unsigned char> plainFrame_;
    std::vector<unsigned char> tornFrame_;
};

// The scripted camera as the session of both input types for one test; the
// script starts afresh, and the real sessions come back at the end.
class ScopedScriptedCamera {
public:
    ScopedScriptedCamera() {
        cameraScript() = CameraScript();
        const auto make = [] { return std::unique_ptr<bh::WrapperGrabber>(new ScriptedCamera()); };
        bh::setWrapperFactory(bh::USB_INPUT, make);
        bh::setWrapperFactory(bh::GMSL_INPUT, make);
    }
    ~ScopedScriptedCamera() {
        bh::setWrapperFactory(
            bh::USB_INPUT, [] { return std::unique_ptr<bh::WrapperGrabber>(new bh::USBWrapperGrabber()); });
        bh::setWrapperFactory(
            bh::GMSL_INPUT, [] { return std::unique_ptr<bh::WrapperGrabber>(new bh::GMSLWrapperGrabber()); });
        cameraScript() = CameraScript();
    }
    CameraScript& script() { return cameraScript(); }
};

// sim::SteppedClock as the process clock for one test: sleeps return at once
// and move the time on.
class ScopedSteppedClock {
public:
    ScopedSteppedClock() : clock_(std::make_shared<sim::SteppedClock>()), scoped_(withClock(clock_)) {}
    sim::SteppedClock& clock() { return *clock_; }
    double seconds() const { return static_cast<double>(clock_->steadyNanoseconds()) / 1e9; }

private:
    static platform::Backend withClock(std::shared_ptr<platform::Clock> clock) {
        platform::Backend backend = platform::current();
        backend.clock = std::move(clock);
        return backend;
    }
    std::shared_ptr<sim::SteppedClock> clock_;
    platform::ScopedBackend scoped_;
};

// KOV_SYSROOT on a fresh root for one test. A chip id of "" leaves the chip
// id file out (a desktop PC).
class ScopedSysRoot {
public:
    explicit ScopedSysRoot(const std::string& chipIdText = "") {
        EXPECT_TRUE(dir_.isValid());
        root_ = dir_.path().toStdString();
        ::mkdir((root_ + "/tmp").c_str(), 0775);
        if (!chipIdText.empty())
            writeChipId(chipIdText);
        setenv("KOV_SYSROOT", root_.c_str(), 1);
    }
    ~ScopedSysRoot() { unsetenv("KOV_SYSROOT"); }
    void writeChipId(const std::string& text) {
        std::string path = root_;
        for (const char* part : {"/sys", "/module", "/tegra_fuse", "/parameters"}) {
            path += part;
            ::mkdir(path.c_str(), 0775);
        }
        std::ofstream(path + "/tegra_chip_id") << text;
    }
    const std::string& root() const { return root_; }

private:
    QTemporaryDir dir_;
    std::string root_;
};

// The shared verdicts as a fresh run leaves them.
inline void clearSharedVerdicts() {
    camera_test_reported_that_USB_should_not_be_tested = false;
    camera_test_thrown_firmware_error = false;
    camera_test_thrown_multiple_camera_error = false;
    camera_test_bandwidth_message.clear();
    camera_test_bandwidth_message_level = 0;
}

// A node whose pauses are short, for tests about what it decides rather than
// how long it waits.
inline void shortenPauses(KOVNode& node) {
    node.stepPause = std::chrono::milliseconds(1);
    node.setUpPause = std::chrono::milliseconds(1);
    node.closingCameraPause = std::chrono::milliseconds(1);
}

}  // namespace testsupport
