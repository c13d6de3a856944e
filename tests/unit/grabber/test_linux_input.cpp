// The USB camera session on the simulated cameras: every setUp code that a
// machine can produce, the LED and image enhancement of CBS cameras, the image
// settings, and the session through bh::LiveCameraGrabber.
#include <gtest/gtest.h>

#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "SimScenario.h"
#include "StereoGrabberSim.h"
#include "bh_input/grabber/GrabberWrapper.h"
#include "bh_input/grabber/linux/LinuxInput.h"
#include "bh_input/mcu/IMUPacket.h"
#include "sim/uvc/CameraFirmware.h"
#include "tests/unit/common/ForwardingSys.h"

using testsupport::ScopedScenario;
using testsupport::SimCameraRig;
using testsupport::waitFor;

namespace {

std::shared_ptr<sim::UvcCamera> cameraOf(sim::Machine& machine) {
    return std::dynamic_pointer_cast<sim::UvcCamera>(machine.videoNode(0));
}

// Passes every call to the simulated Sys, and turns the reply of one CBS
// system-register read into a wrong value: a register that does not keep
// what was written.
class StuckRegisterSys : public testsupport::ForwardingSys {
public:
    StuckRegisterSys(std::shared_ptr<platform::Sys> inner, uint32_t address)
        : ForwardingSys(std::move(inner)), address_(address) {}
    int ioctl(int fd, unsigned long request, void* arg) override {
        const int r = ForwardingSys::ioctl(fd, request, arg);
        if (request != UVCIOC_CTRL_QUERY || r != 0)
            return r;
        auto* q = static_cast<uvc_xu_control_query*>(arg);
        if (q->unit != 4 || q->data == nullptr || q->size < 18)
            return r;
        if (q->query == UVC_SET_CUR) {
            // A system register read: 0x51 0xA2, address big-endian at 5..8.
            const uint32_t address = (uint32_t(q->data[5]) << 24) | (uint32_t(q->data[6]) << 16) |
                                     (uint32_t(q->data[7]) << 8) | q->data[8];
            pending_ = q->data[0] == 0x51 && q->data[1] == 0xA2 && address == address_;
        } else if (q->query == UVC_GET_CUR && pending_) {
            q->data[17] ^= 0x5A;
            ++corrupted;
            pending_ = false;
        }
        return r;
    }
    std::atomic<int> corrupted{0};

private:
    uint32_t address_;
    bool pending_ = false;
};

}  // namespace

// ---------------------------------------------------------------------------
// setUp codes

TEST(LinuxInput, CbsCameraOpensStreamingWithLedOnAndClosesWithLedOff) {
    ScopedScenario scenario("kov_pico_usb3");
    auto firmware = cameraOf(scenario.machine())->firmware();
    bh::LinuxInput session;
    int id = 0;
    ASSERT_EQ(session.setUp(id, 2560, 720, 30, 4, true, IMU_ODR_200, false), 0);
    EXPECT_TRUE(session.isCaptureOpened());
    EXPECT_EQ(session.getCameraModel(), bh::KOV_P);
    EXPECT_EQ(firmware->gpioValue(sim::CameraFirmware::kLedGpio), 1);
    EXPECT_EQ(session.getLEDStatus(), 1);
    EXPECT_EQ(session.getSerialNumber(), 23456789u);
    EXPECT_EQ(session.getFWVersion(), 1523);
    // The region of interest of both sensors is the whole view.
    bh::Rect roi;
    ASSERT_EQ(session.getROIforAECAGC(1, roi), 0);
    EXPECT_EQ(roi.x, 0);
    EXPECT_EQ(roi.width, 1280);
    EXPECT_EQ(roi.height, 720);
    EXPECT_EQ(session.waitForNewFrame(1000), 1);
    session.close(true);
    EXPECT_EQ(firmware->gpioValue(sim::CameraFirmware::kLedGpio), 0);
    EXPECT_EQ(session.getGrabber(), nullptr);
    EXPECT_FALSE(cameraOf(scenario.machine())->streaming());
    // Used after close, the session answers as a closed one and sends nothing.
    const uint64_t requests = firmware->counters().requests;
    EXPECT_EQ(session.getPixels(), nullptr);
    EXPECT_EQ(session.waitForNewFrame(5), 1);
    EXPECT_EQ(session.getSerialNumber(), 0u);
    EXPECT_EQ(session.setBrightnessSetting(3, false), -1);
    EXPECT_EQ(session.ISPExposureSet(0, 100), -1);
    EXPECT_EQ(session.setLEDStatus(1, false), -1);
    EXPECT_EQ(session.getSensorTemperature(0), -1);
    EXPECT_EQ(firmware->counters().requests, requests);
}

TEST(LinuxInput, CloseWithoutLedOffLeavesTheLedOn) {
    ScopedScenario scenario("kov_pico_usb3");
    auto firmware = cameraOf(scenario.machine())->firmware();
    bh::LinuxInput session;
    int id = 0;
    ASSERT_EQ(session.setUp(id, 1344, 376, 15, 2, true, IMU_ODR_200, false), 0);
    session.close(false);
    EXPECT_EQ(firmware->gpioValue(sim::CameraFirmware::kLedGpio), 1);
}

TEST(LinuxInput, NoCameraIsCode4WithNothingCreated) {
    ScopedScenario scenario("no_camera");
    bh::LinuxInput session;
    int id = 0;
    EXPECT_EQ(session.setUp(id, 2560, 720, 15, 2, true, IMU_ODR_200, false), 4);
    EXPECT_EQ(session.getGrabber(), nullptr);
    EXPECT_TRUE(session.getErrors().empty());
}

TEST(LinuxInput, CorrectedSizeIsCode7WithOneMessage) {
    ScopedScenario scenario("kov_pico_usb3");
    bh::LinuxInput session;
    int id = 0;
    EXPECT_EQ(session.setUp(id, 2000, 700, 15, 2, true, IMU_ODR_200, false), 7);
    ASSERT_EQ(session.getErrors().size(), 1u);
    EXPECT_EQ(session.getErrors()[0].second, "Linux grabber construction failed : 7");
    EXPECT_EQ(session.getErrors()[0].first.rfind("grabber/linux/linuxStereoGrabber_", 0), 0u);
    session.close(true);
}

TEST(LinuxInput, BusyNodeIsCode4AndTheCameraStaysFree) {
    SimCameraRig rig("\"busy\": true", false);
    bh::LinuxInput session;
    int id = 0;
    // A node that another program holds cannot even be looked at: no camera.
    EXPECT_EQ(session.setUp(id, 2560, 720, 15, 2, true, IMU_ODR_200, false), 4);
    session.close(true);
}

TEST(LinuxInput, CbsCameraWithoutAFrameFor500MsIsCode10) {
    SimCameraRig rig("\"faults\": {\"stall\": {\"at\": 0, \"seconds\": 5}}", false);
    bh::LinuxInput session;
    int id = 0;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(session.setUp(id, 2560, 720, 15, 2, true, IMU_ODR_200, false), 10);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(450));
    ASSERT_FALSE(session.getErrors().empty());
    EXPECT_EQ(session.getErrors().back().second, "active CBS");
    // A failed setUp leaves the grabber for the caller to close.
    EXPECT_NE(session.getGrabber(), nullptr);
    session.close(true);
    EXPECT_EQ(session.getGrabber(), nullptr);
}

TEST(LinuxInput, OldFirmwareOpensWithoutEnhancementOrRegion) {
    ScopedScenario scenario("kov_old_firmware");
    auto firmware = cameraOf(scenario.machine())->firmware();
    bh::LinuxInput session;
    int id = 0;
    ASSERT_EQ(session.setUp(id, 1344, 376, 30, 2, true, IMU_ODR_200, true), 0);
    EXPECT_TRUE(session.isCaptureOpened());
    EXPECT_FALSE(session.isECT());
    EXPECT_EQ(session.getCameraModel(), bh::KOV);
    // Nothing was written to the region block or the gamma curve.
    EXPECT_EQ(firmware->systemRegister(0x801810C4), 0);
    EXPECT_EQ(firmware->systemRegister(0x80181510), 0);
    bh::Rect roi;
    EXPECT_EQ(session.getROIforAECAGC(0, roi), -1);
    EXPECT_EQ(session.getSerialNumber(), 1234567u);
    EXPECT_EQ(session.getFWVersion(), 1142);
    session.close(true);
}

TEST(LinuxInput, CloseOfASessionThatNeverOpenedDoesNothing) {
    ScopedScenario scenario("no_camera");
    bh::LinuxInput session;
    session.close(true);
    session.close(false);
    EXPECT_EQ(session.getGrabber(), nullptr);
    EXPECT_EQ(session.getPixels(), nullptr);
    EXPECT_EQ(session.waitForNewFrame(10), 1);
    EXPECT_EQ(session.getSensorTemperature(0), -1);
}

TEST(LinuxInput, ImageEnhancementOnAndOff) {
    ScopedScenario scenario("kov_pico_usb3");
    auto firmware = cameraOf(scenario.machine())->firmware();
    bh::LinuxInput session;
    int id = 0;
    ASSERT_EQ(session.setUp(id, 1344, 376, 30, 2, true, IMU_ODR_200, true), 0);
    EXPECT_TRUE(session.isECT());
    // Enhanced: gamma row 5 on both sensors, black level 0x10, sharpening block.
    EXPECT_EQ(firmware->systemRegister(0x80181500), 0x0D);
    EXPECT_EQ(firmware->systemRegister(0x80181D0E), 0xE8);
    EXPECT_EQ(firmware->sensorRegister(1, 0x4005), 0x10);
    EXPECT_EQ(firmware->systemRegister(0x80181C00), 0x40);
    EXPECT_EQ(firmware->systemRegister(0x80181C0D), 0xFF);
    EXPECT_EQ(session.disableECT(), 0);
    EXPECT_FALSE(session.isECT());
    EXPECT_EQ(firmware->systemRegister(0x80181500), 0x07);
    EXPECT_EQ(firmware->sensorRegister(0, 0x4005), 0x40);
    EXPECT_EQ(firmware->systemRegister(0x80181C0A), 2);
    EXPECT_EQ(firmware->systemRegister(0x80181C0F), 16);
    session.close(true);
}

TEST(LinuxInput, GammaReadBackMismatchStopsAtOnce) {
    auto machine = sim::loadScenario(testsupport::scenarioPath("kov_pico_usb3"));
    platform::Backend backend = sim::makeBackend(machine);
    auto stuck = std::make_shared<StuckRegisterSys>(backend.sys, 0x80181503);
    backend.sys = stuck;
    platform::ScopedBackend scoped(backend);
    auto firmware = cameraOf(*machine)->firmware();
    bh::LinuxInput session;
    int id = 0;
    // The enhancement cannot be set on a curve that does not keep its bytes.
    EXPECT_EQ(session.setUp(id, 1344, 376, 30, 2, true, IMU_ODR_200, false), 8);
    EXPECT_EQ(session.setGammaCurve(0, bh::cbs::PRESET_GAMMA[8]), -3);
    // The loop stopped at the fourth byte: nothing after it was written.
    EXPECT_EQ(firmware->systemRegister(0x80181503), 0x69);
    EXPECT_NE(firmware->systemRegister(0x80181504), 0x78);
    EXPECT_GT(stuck->corrupted.load(), 0);
    session.close(true);
}

TEST(LinuxInput, RegionOfTenByTenIsRefusedAndElevenByTenAccepted) {
    ScopedScenario scenario("kov_pico_usb3");
    auto firmware = cameraOf(scenario.machine())->firmware();
    bh::LinuxInput session;
    int id = 0;
    ASSERT_EQ(session.setUp(id, 1344, 376, 30, 2, true, IMU_ODR_200, false), 0);
    EXPECT_EQ(session.setROIforAECAGC(0, bh::Rect{5, 6, 10, 10}), -2);
    EXPECT_EQ(session.setROIforAECAGC(0, bh::Rect{5, 6, 11, 10}), 0);
    bh::Rect roi;
    ASSERT_EQ(session.getROIforAECAGC(0, roi), 0);
    EXPECT_EQ(roi.x, 5);
    EXPECT_EQ(roi.y, 6);
    EXPECT_EQ(roi.width, 11);
    EXPECT_EQ(roi.height, 10);
    // Bytes high then low, x first.
    EXPECT_EQ(firmware->systemRegister(0x801810C1), 5);
    EXPECT_EQ(firmware->systemRegister(0x801810C5), 11);
    // Past the view of one sensor (672 x 376).
    EXPECT_EQ(session.setROIforAECAGC(1, bh::Rect{600, 0, 100, 100}), -2);
    session.close(true);
}

TEST(LinuxInput, GammaSettingEqualToTheControlWritesNothing) {
    ScopedScenario scenario("kov_pico_usb3");
    auto camera = cameraOf(scenario.machine());
    bh::LinuxInput session;
    int id = 0;
    ASSERT_EQ(session.setUp(id, 1344, 376, 30, 2, true, IMU_ODR_200, false), 0);
    camera->setControlValue(V4L2_CID_GAMMA, 5);
    const uint64_t before = camera->firmware()->counters().requests;
    EXPECT_EQ(session.setGammaSetting(5, false), 0);
    EXPECT_EQ(camera->firmware()->counters().requests, before);
    // Another value sends both curves and the control.
    EXPECT_EQ(session.setGammaSetting(3, false), 0);
    EXPECT_EQ(camera->controlValue(V4L2_CID_GAMMA), 3);
    EXPECT_EQ(camera->firmware()->systemRegister(0x80181D00), 0x0A);
    // Only the nine presets exist.
    EXPECT_EQ(session.setGammaSetting(10, false), -1);
    EXPECT_EQ(camera->controlValue(V4L2_CID_GAMMA), 3);
    session.close(true);
}

TEST(LinuxInput, ControlSettingsOutOfRangeWriteNothing) {
    ScopedScenario scenario("kov_pico_usb3");
    auto camera = cameraOf(scenario.machine());
    bh::LinuxInput session;
    int id = 0;
    ASSERT_EQ(session.setUp(id, 1344, 376, 30, 2, true, IMU_ODR_200, false), 0);
    EXPECT_EQ(session.setBrightnessSetting(7, false), 0);
    EXPECT_EQ(session.getBrightnessSetting(), 7);
    EXPECT_EQ(session.setBrightnessSetting(9, false), -1);
    EXPECT_EQ(camera->controlValue(V4L2_CID_BRIGHTNESS), 7);
    EXPECT_EQ(session.setBrightnessSetting(0, true), 0);
    EXPECT_EQ(session.getBrightnessSetting(), 4);  // the driver's default
    EXPECT_EQ(session.setHueSetting(11, false), 0);
    EXPECT_EQ(session.getHueSetting(), 11);
    // Sharpness is kept by the session only.
    EXPECT_EQ(session.getSharpnessSetting(), 3);
    session.setSharpnessSetting(6, false);
    EXPECT_EQ(session.getSharpnessSetting(), 6);
    // White balance: a temperature switches the automatic one off.
    EXPECT_EQ(session.setWhiteBalanceSetting(5000, false), 0);
    EXPECT_EQ(camera->controlValue(V4L2_CID_AUTO_WHITE_BALANCE), 0);
    EXPECT_EQ(camera->controlValue(V4L2_CID_WHITE_BALANCE_TEMPERATURE), 5000);
    EXPECT_EQ(session.setWhiteBalanceSetting(-1, false), 0);
    EXPECT_EQ(camera->controlValue(V4L2_CID_AUTO_WHITE_BALANCE), 1);
    session.close(true);
}

TEST(LinuxInput, ExposureAndGainReachTheSensorRegisters) {
    ScopedScenario scenario("kov_pico_usb3");
    auto firmware = cameraOf(scenario.machine())->firmware();
    bh::LinuxInput session;
    int id = 0;
    ASSERT_EQ(session.setUp(id, 1344, 376, 30, 2, true, IMU_ODR_200, false), 0);
    ASSERT_EQ(session.ISPExposureSet(1, 0x1234), 0);
    // High byte, middle byte, low nibble in the high nibble.
    EXPECT_EQ(firmware->sensorRegister(1, 0x3500), 0x01);
    EXPECT_EQ(firmware->sensorRegister(1, 0x3501), 0x23);
    EXPECT_EQ(firmware->sensorRegister(1, 0x3502), 0x40);
    int exposure = 0;
    ASSERT_EQ(session.ISPExposureGet(1, &exposure), 0);
    EXPECT_EQ(exposure, 0x1234);
    ASSERT_EQ(session.ISPGainSet(0, 0x2F1), 0);
    EXPECT_EQ(firmware->sensorRegister(0, 0x3507), 0);
    EXPECT_EQ(firmware->sensorRegister(0, 0x3508), 0x02);
    EXPECT_EQ(firmware->sensorRegister(0, 0x3509), 0xF1);
    int gain = 0;
    ASSERT_EQ(session.ISPGainGet(0, &gain), 0);
    EXPECT_EQ(gain, 0x2F1);
    // Temperature: 0x4D13 less 64.
    EXPECT_EQ(session.getSensorTemperature(0), 40);
    session.close(true);
}

TEST(LinuxInput, ManualExposureIsParkedAtCloseAndBroughtBackAtTheNextOpen) {
    ScopedScenario scenario("kov_pico_usb3");
    auto firmware = cameraOf(scenario.machine())->firmware();
    int id = 0;
    {
        bh::LinuxInput session;
        ASSERT_EQ(session.setUp(id, 1344, 376, 30, 2, true, IMU_ODR_200, false), 0);
        ASSERT_EQ(session.ISPAECAGCEnable(false), 0);
        ASSERT_EQ(session.ISPExposureSet(0, 0x0567), 0);
        session.close(true);
    }
    EXPECT_EQ(firmware->sensorRegister(0, 0x350A), 0x00);
    EXPECT_EQ(firmware->sensorRegister(0, 0x350B), 0x56);
    EXPECT_EQ(firmware->sensorRegister(0, 0x350C), 0x70);
    // Something else changes the exposure between two sessions.
    firmware->setSensorRegister(0, 0x3501, 0x11);
    bh::LinuxInput session;
    ASSERT_EQ(session.setUp(id, 1344, 376, 30, 2, true, IMU_ODR_200, false), 0);
    EXPECT_EQ(firmware->sensorRegister(0, 0x3501), 0x56);
    session.close(true);
}

// ---------------------------------------------------------------------------
// Through bh::LiveCameraGrabber

TEST(LiveCameraGrabberUsb, EveryResolutionOfTheGrabbingListOpens) {
    ScopedScenario scenario("kov_pico_usb3");
    struct Mode {
        bh::RESOLUTION resolution;
        int fps;
    };
    const Mode modes[] = {{bh::VGA, 15},    {bh::VGA, 30},   {bh::VGA, 60},   {bh::VGA, 100},
                          {bh::HD720, 15},  {bh::HD720, 30}, {bh::HD720, 60}, {bh::HD1080, 15},
                          {bh::HD1080, 30}, {bh::HD2K, 15}};
    for (const Mode& m : modes) {
        const bh::Resolution r = bh::cameraResolution[m.resolution];
        bh::LiveCameraGrabber grabber(bh::USB_INPUT);
        int id = 0;
        ASSERT_EQ(grabber.setUp(id, static_cast<int>(2 * r.width), static_cast<int>(r.height), m.fps, 4, true,
                                IMU_ODR_200, false),
                  0)
            << r.width << "x" << r.height << "@" << m.fps;
        grabber.endSetup(nullptr);
        EXPECT_EQ(grabber.getEffectiveWidth(), r.width);
        EXPECT_EQ(grabber.getEffectiveHeight(), r.height);
        EXPECT_EQ(grabber.getRequestedFPS(), m.fps);
        grabber.close(true);
    }
}

TEST(LiveCameraGrabberUsb, FramesArriveWithTheirInertialPacketAndSettingsRoundTrip) {
    ScopedScenario scenario("kov_pico_usb3");
    auto camera = cameraOf(scenario.machine());
    bh::LiveCameraGrabber grabber(bh::USB_INPUT);
    int id = 0;
    ASSERT_EQ(grabber.setUp(id, 2560, 720, 30, 4, false, IMU_ODR_200, false), 0);
    grabber.endSetup(nullptr);
    ASSERT_TRUE(grabber.hasMCU());
    ASSERT_EQ(grabber.checkStreamStatus(), 0);
    // Frames carry the fused packet of their instant.
    bh::IMUPacket packet;
    ASSERT_TRUE(waitFor(
        [&] {
            grabber.getFrameStatus();
            return grabber.getIMUPacket(packet) == 1 && packet.valid && packet.timestamp != 0;
        },
        5000));
    EXPECT_NE(grabber.getTimeStamp(), 0ull);
    // The measured rate settles on the stream's.
    ASSERT_TRUE(waitFor([&] { return std::abs(grabber.getFPS() - 30.f) < 3.f; }, 3000));

    // Settings by number.
    EXPECT_EQ(grabber.setGrabberSettingsValue(bh::WHITEBALANCE_TEMPERATURE, 2800), 0);
    EXPECT_EQ(camera->controlValue(V4L2_CID_WHITE_BALANCE_TEMPERATURE), 6500);
    EXPECT_EQ(grabber.getGrabberSettingsValue(bh::WHITEBALANCE_TEMPERATURE), 2800);
    EXPECT_EQ(grabber.setGrabberSettingsValue(bh::AEC_AGC, 0), 0);
    EXPECT_EQ(grabber.getGrabberSettingsValue(bh::AEC_AGC), 0);
    EXPECT_EQ(grabber.setGrabberSettingsValue(bh::EXPOSURE, 100), 0);
    EXPECT_EQ(grabber.getGrabberSettingsValue(bh::EXPOSURE), 100);
    EXPECT_EQ(grabber.setGrabberSettingsValue(bh::GAIN, 50), 0);
    EXPECT_EQ(grabber.getGrabberSettingsValue(bh::GAIN), 50);
    EXPECT_EQ(grabber.setGrabberSettingsValue(bh::AEC_AGC, 1), 0);
    EXPECT_EQ(grabber.getGrabberSettingsValue(bh::AEC_AGC), 1);
    // 0 with useDefault does nothing: the camera's control stays on.
    EXPECT_EQ(grabber.setGrabberSettingsValue(bh::AEC_AGC, 0, true), 0);
    EXPECT_EQ(grabber.getGrabberSettingsValue(bh::AEC_AGC), 1);
    EXPECT_EQ(grabber.setGrabberSettingsValue(bh::LED_STATUS, 0), 0);
    EXPECT_EQ(grabber.getGrabberSettingsValue(bh::LED_STATUS), 0);
    EXPECT_EQ(grabber.setGrabberSettingsValue(bh::LED_STATUS, 1), 0);
    EXPECT_EQ(grabber.setGrabberSettingsValue(bh::GAMMA, 4), 0);
    EXPECT_EQ(grabber.getGrabberSettingsValue(bh::GAMMA), 4);

    grabber.close(true);
    EXPECT_EQ(camera->firmware()->gpioValue(sim::CameraFirmware::kLedGpio), 0);
    EXPECT_FALSE(camera->streaming());
    EXPECT_FALSE(grabber.hasMCU());
}

TEST(LiveCameraGrabberUsb, SilenceOfThreeSecondsIsLostAndCutsTheControlChannelOff) {
    SimCameraRig rig("\"faults\": {\"stall\": {\"at\": 1, \"seconds\": 30}}", false);
    bh::LiveCameraGrabber grabber(bh::USB_INPUT);
    int id = 0;
    ASSERT_EQ(grabber.setUp(id, 1344, 376, 30, 4, true, IMU_ODR_200, false), 0);
    grabber.endSetup(nullptr);
    const auto start = std::chrono::steady_clock::now();
    bh::GRABBER_STATE state = bh::GRABBER_STATE_NONE;
    ASSERT_TRUE(waitFor(
        [&] {
            state = grabber.getFrameStatus();
            if (state == bh::GRABBER_STATE_FRAME)
                grabber.getPixels();  // the caller takes each frame, as a grabbing loop does
            return state == bh::GRABBER_STATE_LOST;
        },
        8000));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2900));
    // Lost: the CBS channel refuses requests until a frame comes back.
    EXPECT_LT(grabber.setGrabberSettingsValue(bh::LED_STATUS, 0), 0);
    EXPECT_EQ(rig.camera()->firmware()->gpioValue(sim::CameraFirmware::kLedGpio), 1);
    grabber.close(true);
}

TEST(LiveCameraGrabberUsb, StreamOfOnlyShortFramesIsLostAfterThreeSeconds) {
    // Old firmware: no first frame is needed to open. Every frame is short.
    SimCameraRig rig("\"faults\": {\"short_frames_per_second\": 30}", false, "0xF580");
    bh::LiveCameraGrabber grabber(bh::USB_INPUT);
    int id = 0;
    ASSERT_EQ(grabber.setUp(id, 1344, 376, 30, 4, true, IMU_ODR_200, false), 0);
    grabber.endSetup(nullptr);
    const auto start = std::chrono::steady_clock::now();
    bool sawFrame = false;
    ASSERT_TRUE(waitFor(
        [&] {
            const bh::GRABBER_STATE state = grabber.getFrameStatus();
            sawFrame = sawFrame || state == bh::GRABBER_STATE_FRAME;
            return state == bh::GRABBER_STATE_LOST;
        },
        8000));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2900));
    EXPECT_FALSE(sawFrame);
    EXPECT_GT(rig.camera()->counters().shortFrames, 60u);
    grabber.close(true);
}
