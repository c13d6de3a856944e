// The settings scale of exposure and gain, checked against the numbers of
// the sensor's ranges, through a grabber that records what reaches it.
#include <gtest/gtest.h>

#include <map>
#include <utility>
#include <vector>

#include "FakeGrabber.h"
#include "bh_input/grabber/linux/CameraControl.h"

namespace {

class SensorGrabber : public FakeGrabber {
public:
    SensorGrabber() : FakeGrabber(&w, &h, &f) {}
    int ISPExposureSet(unsigned char side, int value) override {
        exposureWrites.emplace_back(side, value);
        exposure[side] = value;
        return 0;
    }
    int ISPExposureGet(unsigned char side, int* value) override {
        if (failReads)
            return -1;
        *value = exposure[side];
        return 0;
    }
    int ISPGainSet(unsigned char side, int value) override {
        gainWrites.emplace_back(side, value);
        gain[side] = value;
        return 0;
    }
    int ISPGainGet(unsigned char side, int* value) override {
        if (failReads)
            return -1;
        *value = gain[side];
        return 0;
    }
    int SensorRead(unsigned char chip, unsigned long address, unsigned char* value, int length,
                   int flags) override {
        sensorReads.push_back({chip, address, length, flags});
        *value = flags == 2 ? yRight : yLeft;
        return 0;
    }

    struct Read {
        unsigned chip;
        unsigned long address;
        int length, flags;
    };
    int w = 0, h = 0, f = 0;
    bool failReads = false;
    std::map<int, int> exposure, gain;
    std::vector<std::pair<int, int>> exposureWrites, gainWrites;
    std::vector<Read> sensorReads;
    unsigned char yLeft = 0, yRight = 0;
};

}  // namespace

TEST(CameraControl, ExposureLimitFollowsTheFrameRate) {
    SensorGrabber g;
    EXPECT_EQ(bh::CameraControl(&g, 15).getExposureLimit(), 1548);
    EXPECT_EQ(bh::CameraControl(&g, 16).getExposureLimit(), 1116);
    EXPECT_EQ(bh::CameraControl(&g, 30).getExposureLimit(), 1116);
    EXPECT_EQ(bh::CameraControl(&g, 60).getExposureLimit(), 828);
    EXPECT_EQ(bh::CameraControl(&g, 100).getExposureLimit(), 635);
    EXPECT_EQ(bh::CameraControl(&g, 101).getExposureLimit(), 0);
}

TEST(CameraControl, ExposureOfZeroIsTenNotZero) {
    SensorGrabber g;
    bh::CameraControl c(&g, 30);
    EXPECT_EQ(c.computeNewExposureValue(0), 10);
    EXPECT_EQ(c.computeNewExposureValue(101), -1);
    EXPECT_EQ(c.computeNewExposureValue(50), 558);
}

TEST(CameraControl, ExposureHundredWritesTheLimitOnBothSides) {
    SensorGrabber g30;
    bh::CameraControl c30(&g30, 30);
    EXPECT_EQ(c30.modifyExposureToX(100), 0);
    EXPECT_EQ(g30.exposureWrites, (std::vector<std::pair<int, int>>{{0, 1116}, {1, 1116}}));
    SensorGrabber g15;
    bh::CameraControl c15(&g15, 15);
    EXPECT_EQ(c15.modifyExposureToX(100), 0);
    EXPECT_EQ(g15.exposureWrites, (std::vector<std::pair<int, int>>{{0, 1548}, {1, 1548}}));
    // Out of scale values are clamped, not refused.
    EXPECT_EQ(c15.modifyExposureToX(250), 0);
    EXPECT_EQ(c15.getXExpo(), 100);
}

TEST(CameraControl, ExposureWithoutRangeIsRefused) {
    SensorGrabber g;
    bh::CameraControl c(&g, 120);  // no exposure fits at this rate
    EXPECT_EQ(c.modifyExposureToX(0), -20);
    EXPECT_TRUE(g.exposureWrites.empty());
}

TEST(CameraControl, GainHundredWritesSensorGain2047) {
    SensorGrabber g;
    bh::CameraControl c(&g, 30);
    EXPECT_EQ(c.modifyGainToX(100), 0);
    EXPECT_EQ(g.gainWrites, (std::vector<std::pair<int, int>>{{0, 2047}, {1, 2047}}));
    g.gainWrites.clear();
    EXPECT_EQ(c.modifyGainToX(0), 0);
    EXPECT_EQ(g.gainWrites, (std::vector<std::pair<int, int>>{{0, 122}, {1, 122}}));
}

TEST(CameraControl, SegmentedGainRanges) {
    using C = bh::CameraControl;
    EXPECT_EQ(C::cvtGainToSegmentedGain(122), 0);
    EXPECT_EQ(C::cvtGainToSegmentedGain(255), 133);
    EXPECT_EQ(C::cvtGainToSegmentedGain(378), 133);
    EXPECT_EQ(C::cvtGainToSegmentedGain(511), 266);
    EXPECT_EQ(C::cvtGainToSegmentedGain(890), 266);
    EXPECT_EQ(C::cvtGainToSegmentedGain(1023), 399);
    EXPECT_EQ(C::cvtGainToSegmentedGain(1914), 399);
    EXPECT_EQ(C::cvtGainToSegmentedGain(2047), 532);
    EXPECT_EQ(C::cvtGainToSegmentedGain(300), -1);
    EXPECT_EQ(C::cvtGainToSegmentedGain(121), -1);
    EXPECT_EQ(C::cvtGainToSegmentedGain(2048), -1);
    EXPECT_EQ(C::cvtSegmentedGainToGain(0), 122);
    EXPECT_EQ(C::cvtSegmentedGainToGain(133), 255);
    EXPECT_EQ(C::cvtSegmentedGainToGain(134), 379);
    EXPECT_EQ(C::cvtSegmentedGainToGain(266), 511);
    EXPECT_EQ(C::cvtSegmentedGainToGain(267), 891);
    EXPECT_EQ(C::cvtSegmentedGainToGain(399), 1023);
    EXPECT_EQ(C::cvtSegmentedGainToGain(400), 1915);
    EXPECT_EQ(C::cvtSegmentedGainToGain(532), 2047);
    EXPECT_EQ(C::cvtSegmentedGainToGain(533), 0);
}

TEST(CameraControl, ScaleFromSensorValues) {
    SensorGrabber g;
    bh::CameraControl c(&g, 30);
    EXPECT_EQ(c.computeXExpoFromExpo(0), 0);
    EXPECT_EQ(c.computeXExpoFromExpo(558), 50);
    EXPECT_EQ(c.computeXExpoFromExpo(1116), 100);
    EXPECT_EQ(c.computeXExpoFromExpo(5000), 100);
    EXPECT_EQ(c.computeXExpoFromExpo(-1), -1);
    EXPECT_EQ(c.computeXGainFromSegmentedGain(600), 100);
    EXPECT_EQ(c.computeXGainFromSegmentedGain(-1), -1);
    EXPECT_EQ(c.computeXGainFromSegmentedGain(266), 50);
    EXPECT_EQ(c.computeNewSegmGainValue(50), 266);
    EXPECT_EQ(c.computeNewSegmGainValue(101), -1);
}

TEST(CameraControl, GainIncrementAtOneIsRefusedAndChangesNothing) {
    SensorGrabber g;
    bh::CameraControl c(&g, 30);
    ASSERT_EQ(c.getXGain(), 1);
    EXPECT_EQ(c.modifyGainByNIncrements(1), -10);
    EXPECT_EQ(c.getXGain(), 1);
    EXPECT_TRUE(g.gainWrites.empty());
    EXPECT_EQ(c.modifyGainByNIncrements(0), -10);
    EXPECT_EQ(c.modifyExposureByNIncrements(0), -10);
    c.modifyGainToX(0);
    g.gainWrites.clear();
    EXPECT_EQ(c.modifyGainByNIncrements(-1), -10);
    EXPECT_TRUE(g.gainWrites.empty());
}

TEST(CameraControl, ReadsTheCameraIntoTheScale) {
    SensorGrabber g;
    g.exposure[1] = 558;
    g.gain[1] = 511;  // segmented 266
    bh::CameraControl c(&g, 30);
    EXPECT_EQ(c.initXExpoAndXGain(), 0);
    EXPECT_EQ(c.getXExpo(), 50);
    EXPECT_EQ(c.getXGain(), 50);
    // A failed read keeps the last good value.
    g.failReads = true;
    EXPECT_EQ(c.setXExpoFromCamera(), -1);
    EXPECT_EQ(c.getXExpo(), 50);
    // A gain between the ranges does not convert either.
    g.failReads = false;
    g.gain[1] = 300;
    EXPECT_EQ(c.setXGainFromCamera(), -1);
    EXPECT_EQ(c.getXGain(), 50);
}

TEST(CameraControl, TuningSettersClamp) {
    SensorGrabber g;
    bh::CameraControl c(&g, 30);
    c.setIncrExpo(5.f);
    EXPECT_FLOAT_EQ(c.getIncrExpo(), 0.1f);
    c.setIncrGain(0.f);
    EXPECT_FLOAT_EQ(c.getIncrGain(), 0.001f);
    c.setMaxExpo(4000);
    EXPECT_EQ(c.getMaxExpo(), 1548);
    c.setXPondFar(2.f);
    EXPECT_FLOAT_EQ(c.getXPondFar(), 1.f);
    c.setXPondClose(-1.f);
    EXPECT_FLOAT_EQ(c.getXPondClose(), 0.f);
    c.setMinGain(-5);
    EXPECT_EQ(c.getMinGain(), 0);
}

TEST(CameraControl, ExposureOf24BitsIsRefused) {
    SensorGrabber g;
    bh::CameraControl c(&g, 30);
    EXPECT_EQ(c.setExposure(0, 1 << 24), -2);
    EXPECT_EQ(c.setExposure(0, (1 << 24) - 1), 0);
}

TEST(CameraControl, BrightnessIsReadFromRegister5693OfEachSide) {
    SensorGrabber g;
    g.yLeft = 40;
    g.yRight = 61;
    bh::CameraControl c(&g, 30);
    EXPECT_EQ(c.getGlobalYAVG(), 50);
    ASSERT_EQ(g.sensorReads.size(), 2u);
    EXPECT_EQ(g.sensorReads[0].chip, 0x6Cu);
    EXPECT_EQ(g.sensorReads[0].address, 0x5693u);
    EXPECT_EQ(g.sensorReads[0].flags, 1);
    EXPECT_EQ(g.sensorReads[1].flags, 2);
}

TEST(CameraControl, ControllerStepReturnsTheBrightnessAndMovesGainAtMaxExposure) {
    SensorGrabber g;
    g.yLeft = g.yRight = 10;  // far too dark
    g.exposure[0] = 700;      // above the controller's 600
    bh::CameraControl c(&g, 30);
    c.modifyGainToX(50);
    g.gainWrites.clear();
    EXPECT_EQ(c.AEC_AGC(), 10);
    // u = 0.001 * 40 + 0.00001 * 40 + 0.000001 * 40 = 0.04044: four increments
    // of 0.01 on a scale of whole steps leave the gain at 50.
    ASSERT_EQ(g.gainWrites.size(), 2u);
    EXPECT_EQ(g.gainWrites[0].second, 511);
    EXPECT_TRUE(g.exposureWrites.empty());
}
