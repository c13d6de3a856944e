#include <gtest/gtest.h>

#include "bh_input/grabber/defines.h"

using namespace bh;

TEST(DeviceRecords, EnumerationValues) {
    EXPECT_EQ(KOV, 0);
    EXPECT_EQ(KOVTr, 3);
    EXPECT_EQ(KOV_QP, 5);
    EXPECT_EQ(KOV_QS_A, 30);
    EXPECT_EQ(KOV_QS_B, 31);
    EXPECT_EQ(KOV_MODEL_UNKNOWN, 32);
    EXPECT_EQ(BH_DEVICE_GMSL_LEGACY, 6);
    EXPECT_EQ(BH_DEVICE_KOV_QS_B, 11);
    EXPECT_EQ(BH_DEVICE_MCU_DFU, 15);
    EXPECT_EQ(BH_DEVICE_NONE, 17);
    EXPECT_EQ(USB_INPUT, 0);
    EXPECT_EQ(GMSL_INPUT, 3);
    EXPECT_EQ(NO_INPUT, 4);
    EXPECT_EQ(GRABBER_STATE_LOCKED, 4);
    EXPECT_EQ(WHITEBALANCE_TEMPERATURE, 10);
    EXPECT_EQ(DENOISING, 20);
}

TEST(DeviceRecords, DeviceToModelTable) {
    EXPECT_EQ(deviceToModel(BH_DEVICE_KOV), KOV);
    EXPECT_EQ(deviceToModel(BH_DEVICE_KOV_P), KOV_P);
    EXPECT_EQ(deviceToModel(BH_DEVICE_KOV_CBS), KOV);
    EXPECT_EQ(deviceToModel(BH_DEVICE_KOV_P_CBS), KOV_P);
    EXPECT_EQ(deviceToModel(BH_DEVICE_KOVT), KOVT);
    EXPECT_EQ(deviceToModel(BH_DEVICE_KOVTr), KOVTr);
    for (int d = 6; d <= 17; ++d)
        EXPECT_EQ(deviceToModel(static_cast<BH_DEVICE>(d)), KOV_MODEL_UNKNOWN) << d;
    EXPECT_FALSE(isCBSDevice(BH_DEVICE_KOV_P));
    EXPECT_TRUE(isCBSDevice(BH_DEVICE_KOV_CBS));
    EXPECT_TRUE(isCBSDevice(BH_DEVICE_KOVTr));
}

TEST(DeviceRecords, DeviceStateToError) {
    int e = 99;
    DEVICE_STATE2ERROR(DEVICE_AVAILABLE, e);
    EXPECT_EQ(e, 0);
    DEVICE_STATE2ERROR(DEVICE_NOT_AVAILABLE, e);
    EXPECT_EQ(e, 4);
    DEVICE_STATE2ERROR(DEVICE_MISSING, e);
    EXPECT_EQ(e, 27);
    e = 55;
    DEVICE_STATE2ERROR(static_cast<DEVICE_STATE>(3), e);
    EXPECT_EQ(e, 55);
}

TEST(DeviceRecords, CameraResolutionTable) {
    EXPECT_EQ(cameraResolution[HD4K].width, 3840);
    EXPECT_EQ(cameraResolution[HD2K].height, 1242);
    EXPECT_EQ(cameraResolution[HD1200].height, 1200);
    EXPECT_EQ(cameraResolution[HD720].width, 1280);
    EXPECT_EQ(cameraResolution[VGA].width, 672);
    EXPECT_EQ(cameraResolution[VGA].height, 376);
    EXPECT_EQ(cameraResolution.size(), 7u);
    // A plain map: an absent key inserts a zero entry.
    std::map<RESOLUTION, Resolution> copy = cameraResolution;
    EXPECT_EQ(copy[static_cast<RESOLUTION>(9)].width, 0);
    EXPECT_EQ(copy.size(), 8u);
}

TEST(DeviceRecords, SetupCodeTexts) {
    EXPECT_STREQ(setupCodeText(0), "OK");
    EXPECT_STREQ(setupCodeText(3), "Error : No grabber system found");
    EXPECT_STREQ(setupCodeText(5),
                 "Error : Cannot start camera stream. Camera might already be used by another application.");
    EXPECT_STREQ(setupCodeText(8),
                 "Warning : Cannot activate ECT (Constrast Enhancement) mode for the camera");
    EXPECT_STREQ(setupCodeText(9), "Error : Cannot initialize camera controller");
    EXPECT_STREQ(setupCodeText(10), "Unknown");
    EXPECT_STREQ(setupCodeText(-1), "Unknown");
}

TEST(DeviceRecords, FixedRanges) {
    int lo = 0, hi = 0;
    EXPECT_TRUE(usbVideoSettingRange(HUE, lo, hi));
    EXPECT_EQ(hi, 11);
    EXPECT_TRUE(usbVideoSettingRange(WHITEBALANCE_TEMPERATURE, lo, hi));
    EXPECT_EQ(lo, 2800);
    EXPECT_EQ(hi, 6500);
    EXPECT_FALSE(usbVideoSettingRange(EXPOSURE_TIME, lo, hi));
    EXPECT_FALSE(gmslFixedVideoSettingRange(BRIGHTNESS, lo, hi));
    EXPECT_TRUE(gmslFixedVideoSettingRange(WHITEBALANCE_TEMPERATURE, lo, hi));
    EXPECT_EQ(hi, 11000);
    EXPECT_FALSE(gmslFixedVideoSettingRange(LED_STATUS, lo, hi));
}

TEST(DeviceRecords, DevicePropertiesDefaults) {
    DeviceProperties p;
    EXPECT_EQ(p.id, -1);
    EXPECT_TRUE(p.path.empty());
    EXPECT_EQ(p.serial_number, 0u);
    EXPECT_EQ(p.camera_model, KOV_MODEL_UNKNOWN);
}
