// The firmware watch of the stereo grabber on a simulated camera streaming in
// stepped time: damaged sensor registers repaired, a locked image processor
// found after two checks of the same sensor, a healthy one never.
#include <gtest/gtest.h>

#include "StereoGrabberSim.h"
#include "sim/uvc/CameraFirmware.h"
#include "tests/unit/common/LogCapture.h"

using testsupport::SimCameraRig;
using testsupport::waitFor;

TEST(StereoGrabberWatch, DamagedSensorRegistersAreRepairedOnBothSensors) {
    testlog::LogCapture log;
    SimCameraRig rig("\"faults\": {\"damaged_sensor_registers\": [0, 1]}", true);
    auto firmware = rig.camera()->firmware();
    ASSERT_EQ(firmware->sensorRegister(1, 0x3744), 0x08);
    bh::LinuxStereoGrabber grabber(true);
    ASSERT_EQ(grabber.construct("/dev/video0", 1344, 376, 100, 4), 0);
    ASSERT_TRUE(grabber.startCapture());
    // Sensor 1 is looked at after 5 s of stream (frame 500 at 100 fps),
    // sensor 0 after 10 s (frame 1000).
    ASSERT_TRUE(waitFor([&] { return rig.camera()->counters().produced > 1100; }, 30000));
    grabber.destruct();
    for (int sensor = 0; sensor < 2; ++sensor) {
        EXPECT_EQ(firmware->sensorRegister(sensor, 0x3744), 0x88) << sensor;
        EXPECT_EQ(firmware->sensorRegister(sensor, 0x3745), 0xC0) << sensor;
        EXPECT_NE(firmware->sensorRegister(sensor, 0x3503) & 0x04, 0) << sensor;
    }
    EXPECT_TRUE(log.has("[FW] Recover Sensor register 0x3744 [Val:8]"));
    EXPECT_TRUE(log.has("[FW] Recover Sensor register 0x3745 [Val:64]"));
}

TEST(StereoGrabberWatch, LockedImageProcessorIsReportedAfterTwoChecksOfTheSameSensor) {
    SimCameraRig rig("\"faults\": {\"isp_lock_at\": 0}", true);
    bh::LinuxStereoGrabber grabber(true);
    ASSERT_EQ(grabber.construct("/dev/video0", 1344, 376, 100, 4), 0);
    ASSERT_TRUE(grabber.startCapture());
    // Lock checks every 10 s of stream, alternating: sensor 1 at frame 1000,
    // sensor 0 at 2000, sensor 1 again at 3000.
    bool lockedEarly = false;
    ASSERT_TRUE(waitFor(
        [&] {
            const bool locked = grabber.isExposureLocked();
            if (locked && rig.camera()->counters().produced < 2900)
                lockedEarly = true;
            return locked;
        },
        60000));
    EXPECT_FALSE(lockedEarly);
    EXPECT_GE(grabber.lockCount(1), 2);
    grabber.destruct();
}

TEST(StereoGrabberWatch, HealthyCameraIsNeverReportedLocked) {
    SimCameraRig rig("", true);
    bh::LinuxStereoGrabber grabber(true);
    ASSERT_EQ(grabber.construct("/dev/video0", 1344, 376, 100, 4), 0);
    ASSERT_TRUE(grabber.startCapture());
    ASSERT_TRUE(waitFor([&] { return rig.camera()->counters().produced > 3100; }, 60000));
    EXPECT_FALSE(grabber.isExposureLocked());
    EXPECT_EQ(grabber.lockCount(0), 0);
    EXPECT_EQ(grabber.lockCount(1), 0);
    grabber.destruct();
}
