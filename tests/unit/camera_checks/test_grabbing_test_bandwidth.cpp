// The bandwidth run of the grabbing test on the simulated KOV Pico, in real
// time: HD720@60 for 8.34 s, 500.4 frames expected. The camera completes a
// frame every 1/60 s, so a healthy run receives the 500 or 501 frames that
// complete within the run plus, often, the one already waiting when it
// starts: 0 or -1 drops. A run that loses d frames therefore counts d - 2 to
// d - 1 drops (more if the machine is so loaded that two frames arrive
// between two polls).
#include <gtest/gtest.h>

#include <QJsonObject>

#include <iostream>
#include <string>

#include "KovNodeTestSupport.h"
#include "diagnostic/KOVNode.h"
#include "support/SiteConfig.h"
#include "tests/unit/grabber/SimScenario.h"

using testsupport::ScopedScenario;
using testsupport::ScopedSysRoot;

namespace {

std::string longText(int drops, int tears) {
    return std::string(
               "<b>Low USB bandwidth</b> <br/> Read our FAQ to troubleshoot your USB connection issues. "
               "<a href='") +
           site::SUPPORT_SITE +
           "/hc/en-us/articles/207635225' style='color: #d9ff42;' >Learn more</a><br/> <b>Frame drops:</b> " +
           std::to_string(drops) + "/500<br/> <b>Frame tearing:</b> " + std::to_string(tears) + "/500";
}

struct Measured {
    int frames;
    int drops;
    int tears;
};

class BandwidthRun : public testing::Test {
protected:
    void SetUp() override {
        testsupport::clearSharedVerdicts();
        node.input_type = bh::USB_INPUT;
    }
    void TearDown() override { testsupport::clearSharedVerdicts(); }

    Measured measure(const std::string& scenarioName) {
        ScopedScenario scenario(scenarioName);
        const QJsonObject mode = node.CheckSingleResolution(bh::HD720, 60);
        EXPECT_EQ(mode.value("status").toBool(), true);
        const Measured run{mode.value("imageCount").toInt(-1), mode.value("dropCount").toInt(-1000),
                           mode.value("tearingCount").toInt(-1)};
        std::cout << scenarioName << ": " << run.frames << " frames, " << run.drops << " drops, " << run.tears
                  << " torn pairs\n";
        // The drops are counted against the expected 500.4 frames.
        EXPECT_EQ(run.drops, static_cast<int>(500.4f - static_cast<float>(run.frames)));
        return run;
    }

    ScopedSysRoot pc;
    KOVNode node;  // the program's pauses and the full 8.34 s run
};

}  // namespace

TEST_F(BandwidthRun, HealthyStreamIsOk) {
    const Measured run = measure("kov_pico_usb3");
    EXPECT_GE(run.frames, 495);
    EXPECT_LE(run.frames, 502);
    EXPECT_EQ(run.tears, 0) << "consecutive frames of a healthy stream differ too little to tear";
    EXPECT_EQ(camera_test_bandwidth_message, "<b>USB Bandwidth: </b> OK");
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_VALID);
    EXPECT_FALSE(node.tearing_seen);
}

TEST_F(BandwidthRun, AboutFifteenLostIsAWarning) {
    // 17 or 18 frames lost within the run.
    const Measured run = measure("kov_pico_usb3_drops_15");
    EXPECT_GE(run.drops, 15);
    EXPECT_LE(run.drops, 37);
    EXPECT_EQ(run.tears, 0);
    EXPECT_EQ(camera_test_bandwidth_message, longText(run.drops, 0));
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_WARNING);
}

TEST_F(BandwidthRun, FortyLostIsAnError) {
    // 40 or 41 frames lost within the run.
    const Measured run = measure("kov_pico_usb3_drops_40");
    EXPECT_GE(run.drops, 38);
    EXPECT_LE(run.drops, 50);
    EXPECT_EQ(camera_test_bandwidth_message, longText(run.drops, run.tears));
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_ERROR);
}

TEST_F(BandwidthRun, FifteenTornPairsAreAnError) {
    // 8 or 9 torn frames, each torn against the frame before and after it.
    const Measured run = measure("kov_pico_usb3_torn_15");
    EXPECT_GE(run.tears, 15);
    EXPECT_LE(run.tears, 18);
    EXPECT_LE(run.drops, 14);
    EXPECT_TRUE(node.tearing_seen);
    EXPECT_EQ(camera_test_bandwidth_message, longText(run.drops, run.tears));
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_ERROR);
}
