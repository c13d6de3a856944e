// The grabbing test on a scripted camera and a stepped clock: the whole
// 8.34 s bandwidth run takes no wall time and sees exactly the frames the
// script sends (frame k complete (k + 1) / fps seconds after endSetup, so a
// healthy 60 fps run receives 500 frames), so drops, tears, the verdict, the
// progress and the setUp tries are checked exactly.
#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>

#include <string>
#include <vector>

#include "KovNodeTestSupport.h"
#include "diagnostic/KOVNode.h"
#include "support/SiteConfig.h"

using testsupport::ScopedScriptedCamera;
using testsupport::ScopedSteppedClock;
using testsupport::ScopedSysRoot;

namespace {

std::string longText(int drops, int tears, int expected) {
    const std::string outOf = "/" + std::to_string(expected);
    return std::string(
               "<b>Low USB bandwidth</b> <br/> Read our FAQ to troubleshoot your USB connection issues. "
               "<a href='") +
           site::SUPPORT_SITE +
           "/hc/en-us/articles/207635225' style='color: #d9ff42;' >Learn more</a><br/> <b>Frame drops:</b> " +
           std::to_string(drops) + outOf + "<br/> <b>Frame tearing:</b> " + std::to_string(tears) + outOf;
}

const char* const kSpecificResolutions =
    "<b>Specific resolutions are not available</b> <br/> Replug your device or connect the camera to another "
    "<b>USB 3.0</b> port.";

std::set<int> firstOfEvery(int period, int count, int offset) {
    std::set<int> frames;
    for (int i = 0; i < count; ++i)
        frames.insert(offset + i * period);
    return frames;
}

class GrabbingTestScripted : public testing::Test {
protected:
    void SetUp() override {
        testsupport::clearSharedVerdicts();
        node.input_type = bh::USB_INPUT;
    }
    void TearDown() override { testsupport::clearSharedVerdicts(); }

    // The HD720@60 bandwidth mode of a desktop PC.
    QJsonObject runBandwidthMode() { return node.CheckSingleResolution(bh::HD720, 60); }

    ScopedSysRoot pc;
    ScopedSteppedClock clock;
    ScopedScriptedCamera camera;
    KOVNode node;
};

}  // namespace

TEST_F(GrabbingTestScripted, HealthyRunReceivesTheExpectedFramesAndIsOk) {
    const QJsonObject mode = runBandwidthMode();
    EXPECT_EQ(mode.value("status").toBool(), true);
    EXPECT_EQ(mode.value("imageCount").toInt(), 500);
    EXPECT_EQ(mode.value("dropCount").toInt(), 0);
    EXPECT_EQ(mode.value("tearingCount").toInt(), 0);
    EXPECT_EQ(camera_test_bandwidth_message, "<b>USB Bandwidth: </b> OK");
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_VALID);
    EXPECT_FALSE(node.tearing_seen);
    // The run is the only one that opens with its MCU.
    ASSERT_EQ(camera.script().calls.size(), 1u);
    EXPECT_FALSE(camera.script().calls[0].noMCU);
    // More than 8.34 s of polls, 1 ms apart: the wait never spins.
    EXPECT_GE(camera.script().polls, 8340);
    EXPECT_LE(camera.script().polls, 8342);
}

TEST_F(GrabbingTestScripted, FifteenOfFiveHundredLostIsAWarning) {
    camera.script().dropped = firstOfEvery(30, 15, 10);
    const QJsonObject mode = runBandwidthMode();
    EXPECT_EQ(mode.value("imageCount").toInt(), 485);
    EXPECT_EQ(mode.value("dropCount").toInt(), 15);
    EXPECT_EQ(camera_test_bandwidth_message, longText(15, 0, 500));
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_WARNING);
}

TEST_F(GrabbingTestScripted, FourteenLostIsStillOk) {
    camera.script().dropped = firstOfEvery(30, 14, 10);
    const QJsonObject mode = runBandwidthMode();
    EXPECT_EQ(mode.value("dropCount").toInt(), 14);
    EXPECT_EQ(camera_test_bandwidth_message, "<b>USB Bandwidth: </b> OK");
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_VALID);
}

TEST_F(GrabbingTestScripted, ThirtyEightLostIsAnError) {
    camera.script().dropped = firstOfEvery(12, 38, 5);
    const QJsonObject mode = runBandwidthMode();
    EXPECT_EQ(mode.value("imageCount").toInt(), 462);
    EXPECT_EQ(mode.value("dropCount").toInt(), 38);
    EXPECT_EQ(camera_test_bandwidth_message, longText(38, 0, 500));
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_ERROR);
}

TEST_F(GrabbingTestScripted, ThirtySevenLostIsAWarning) {
    camera.script().dropped = firstOfEvery(12, 37, 5);
    runBandwidthMode();
    EXPECT_EQ(camera_test_bandwidth_message, longText(37, 0, 500));
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_WARNING);
}

TEST_F(GrabbingTestScripted, IdenticalFramesHaveNoTearing) {
    const QJsonObject mode = runBandwidthMode();
    EXPECT_EQ(mode.value("tearingCount").toInt(), 0);
    EXPECT_FALSE(node.tearing_seen);
}

TEST_F(GrabbingTestScripted, EachTornFrameTearsTwoPairs) {
    // Seven torn frames, none adjacent: the pair before and after each.
    camera.script().torn = firstOfEvery(50, 7, 20);
    const QJsonObject mode = runBandwidthMode();
    EXPECT_EQ(mode.value("imageCount").toInt(), 500);
    EXPECT_EQ(mode.value("tearingCount").toInt(), 14);
    EXPECT_TRUE(node.tearing_seen);
    EXPECT_EQ(camera_test_bandwidth_message, "<b>USB Bandwidth: </b> OK");
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_VALID);
}

TEST_F(GrabbingTestScripted, FifteenTornPairsAreAnErrorCountedAgainstTheExpectedFrames) {
    // Eight torn frames make 16 torn pairs; 20 frames lost as well. Both
    // numbers are out of the 500 expected, not the 480 received.
    camera.script().torn = firstOfEvery(50, 8, 20);
    camera.script().dropped = firstOfEvery(24, 20, 3);
    const QJsonObject mode = runBandwidthMode();
    EXPECT_EQ(mode.value("imageCount").toInt(), 480);
    EXPECT_EQ(mode.value("dropCount").toInt(), 20);
    EXPECT_EQ(mode.value("tearingCount").toInt(), 16);
    EXPECT_EQ(camera_test_bandwidth_message, longText(20, 16, 500));
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_ERROR);
}

TEST_F(GrabbingTestScripted, ATornFirstFrameCountsOnce) {
    // The first frame has no previous one: only the pair after it tears.
    camera.script().torn = {0};
    const QJsonObject mode = runBandwidthMode();
    EXPECT_EQ(mode.value("tearingCount").toInt(), 1);
}

TEST_F(GrabbingTestScripted, NoFrameAtAllIsAnError) {
    camera.script().streaming = false;
    const QJsonObject mode = runBandwidthMode();
    EXPECT_EQ(mode.value("imageCount").toInt(), 0);
    EXPECT_EQ(mode.value("dropCount").toInt(), 500);
    EXPECT_EQ(camera_test_bandwidth_message, longText(500, 0, 500));
    EXPECT_EQ(camera_test_bandwidth_message_level, DIAGNOSTIC_ERROR);
}

TEST_F(GrabbingTestScripted, ProgressClimbsFifteenDuringTheRun) {
    node.setPercent(66.f);
    std::vector<float> seen;
    camera.script().onPoll = [&] { seen.push_back(node.getPercent()); };
    runBandwidthMode();
    ASSERT_FALSE(seen.empty());
    EXPECT_FLOAT_EQ(seen.front(), 66.f);
    for (size_t i = 1; i < seen.size(); ++i)
        ASSERT_GE(seen[i], seen[i - 1]) << i;
    // After about 1 s of the run: 66 + 1.7985611.
    ASSERT_GT(seen.size(), 1001u);
    EXPECT_NEAR(seen[1001], 66.0 + 1.0 * 1.7985611, 1e-3);
    EXPECT_NEAR(node.getPercent(), 81.0, 1e-2);
}

TEST_F(GrabbingTestScripted, ThirtyFpsRunOnChip33) {
    pc.writeChipId("33\n");
    const QJsonObject atSixty = node.CheckSingleResolution(bh::HD720, 60);
    EXPECT_FALSE(atSixty.contains("imageCount")) << "60 fps does not measure on chip 33";
    const QJsonObject atThirty = node.CheckSingleResolution(bh::HD720, 30);
    EXPECT_EQ(atThirty.value("imageCount").toInt(), 250);
    EXPECT_EQ(atThirty.value("dropCount").toInt(), 0);
    EXPECT_EQ(camera_test_bandwidth_message, "<b>USB Bandwidth: </b> OK");
}

TEST_F(GrabbingTestScripted, OtherModesOpenWithoutMcuAndWriteTheirSizes) {
    const QJsonObject mode = node.CheckSingleResolution(bh::HD1080, 15);
    ASSERT_EQ(camera.script().calls.size(), 1u);
    const testsupport::SetUpCall& call = camera.script().calls[0];
    EXPECT_EQ(call.id, 0);
    EXPECT_EQ(call.width, 3840);
    EXPECT_EQ(call.height, 1080);
    EXPECT_EQ(call.fps, 15);
    EXPECT_EQ(call.buffers, 4);
    EXPECT_TRUE(call.noMCU);
    EXPECT_EQ(call.imuFreq, 2);
    EXPECT_EQ(camera.script().endSetups, 1);
    EXPECT_EQ(mode.value("status").toBool(), true);
    EXPECT_EQ(mode.value("initialization").toString(), "OK");
    EXPECT_EQ(mode.value("width (input)").toInt(), 1920);
    EXPECT_EQ(mode.value("height (input)").toInt(), 1080);
    EXPECT_EQ(mode.value("width (output)").toInt(), 1920);
    EXPECT_EQ(mode.value("height (output)").toInt(), 1080);
    EXPECT_EQ(mode.value("fps (input)").toInt(), 15);
    EXPECT_EQ(mode.value("fps (output)").toDouble(), 15.0);
    EXPECT_FALSE(mode.contains("imageCount"));
    EXPECT_FALSE(mode.contains("dropCount"));
    EXPECT_FALSE(mode.contains("tearingCount"));
    EXPECT_EQ(camera.script().polls, 0);
    EXPECT_TRUE(camera_test_bandwidth_message.empty());
    EXPECT_EQ(node.serial, 12345678) << "an unknown serial is read when the mode matches";
}

TEST_F(GrabbingTestScripted, SerialIsReadOnlyWhenUnknownAndTheModeMatches) {
    node.serial = 777;
    node.CheckSingleResolution(bh::VGA, 30);
    EXPECT_EQ(node.serial, 777);

    node.serial = -1;
    camera.script().fps = 29.5f;
    const QJsonObject slow = node.CheckSingleResolution(bh::VGA, 30);
    EXPECT_EQ(node.serial, -1);
    EXPECT_DOUBLE_EQ(slow.value("fps (output)").toDouble(), 29.5);

    camera.script().fps = -1.f;
    camera.script().widthShortfall = 8;
    const QJsonObject narrow = node.CheckSingleResolution(bh::VGA, 30);
    EXPECT_EQ(node.serial, -1);
    EXPECT_EQ(narrow.value("width (output)").toInt(), 664);
}

TEST_F(GrabbingTestScripted, NineTriesTwoHundredMillisecondsApartThenTheLastCode) {
    camera.script().setUpCode = [](int) { return 5; };
    const double before = clock.seconds();
    const QJsonObject mode = node.CheckSingleResolution(bh::VGA, 15);
    EXPECT_EQ(camera.script().calls.size(), 9u);
    EXPECT_NEAR(clock.seconds() - before, 9 * 0.2, 1e-6);
    EXPECT_EQ(camera.script().endSetups, 0);
    EXPECT_EQ(mode.value("status").toBool(true), false);
    EXPECT_EQ(mode.value("initialization").toString(),
              "Error : Cannot start camera stream. Camera might already be used by another application.");
    EXPECT_EQ(mode.size(), 2) << "a mode that did not open has only its status and text";
}

TEST_F(GrabbingTestScripted, StopsAtTheFirstSuccessfulTry) {
    camera.script().setUpCode = [](int call) { return call < 3 ? 4 : 0; };
    const double before = clock.seconds();
    const QJsonObject mode = node.CheckSingleResolution(bh::VGA, 60);
    EXPECT_EQ(camera.script().calls.size(), 4u);
    EXPECT_NEAR(clock.seconds() - before, 4 * 0.2, 1e-6) << "a pause follows every try, the good one too";
    EXPECT_EQ(mode.value("status").toBool(), true);
    EXPECT_EQ(mode.value("initialization").toString(), "OK");
}

TEST_F(GrabbingTestScripted, UnknownSetUpCodeReadsUnknown) {
    camera.script().setUpCode = [](int) { return 42; };
    const QJsonObject mode = node.CheckSingleResolution(bh::VGA, 60);
    EXPECT_EQ(mode.value("initialization").toString(), "Unknown");
}

// ---- the whole list

TEST_F(GrabbingTestScripted, OnAPcEveryModeRunsAndOnlyHd720At60Measures) {
    node.setPercent(30.f);
    QJsonObject root;
    node.CheckGrabbingStatus(root, 30, 90);
    const QJsonObject resolutions = root.value("resolutions").toObject();
    const std::vector<std::string> keys = {"VGA@15",   "VGA@30",   "VGA@60",    "VGA@100",   "HD720@15",
                                           "HD720@30", "HD720@60", "HD1080@15", "HD1080@30", "HD2K@15"};
    ASSERT_EQ(resolutions.size(), static_cast<int>(keys.size()));
    for (const std::string& key : keys) {
        const QJsonObject mode = resolutions.value(QString::fromStdString(key)).toObject();
        EXPECT_EQ(mode.value("status").toBool(), true) << key;
        EXPECT_EQ(mode.contains("imageCount"), key == "HD720@60") << key;
    }
    EXPECT_EQ(camera.script().calls.size(), 10u);
    EXPECT_FALSE(root.contains("error"));
    EXPECT_EQ(camera_test_bandwidth_message, "<b>USB Bandwidth: </b> OK");
    EXPECT_FLOAT_EQ(node.getPercent(), 90.f);
}

TEST_F(GrabbingTestScripted, OnChip33FourModesArePlaceholdersAndHd720At30Measures) {
    pc.writeChipId("33\n");
    QJsonObject root;
    node.CheckGrabbingStatus(root, 30, 90);
    const QJsonObject resolutions = root.value("resolutions").toObject();
    ASSERT_EQ(resolutions.size(), 10);
    QJsonObject placeholder;
    placeholder.insert("initCode", true);
    for (const char* key : {"VGA@100", "HD720@60", "HD1080@30", "HD2K@15"})
        EXPECT_EQ(resolutions.value(key).toObject(), placeholder) << key;
    for (const char* key : {"VGA@15", "VGA@30", "VGA@60", "HD720@15", "HD720@30", "HD1080@15"}) {
        EXPECT_EQ(resolutions.value(key).toObject().value("status").toBool(), true) << key;
        EXPECT_EQ(resolutions.value(key).toObject().contains("imageCount"), std::string(key) == "HD720@30")
            << key;
    }
    EXPECT_EQ(camera.script().calls.size(), 6u);
    // A placeholder counts as a missing mode.
    EXPECT_EQ(root.value("error").toArray(), QJsonArray({kSpecificResolutions}));
    EXPECT_EQ(camera_test_bandwidth_message, "<b>USB Bandwidth: </b> OK");
}

TEST_F(GrabbingTestScripted, OnAnUnknownJetsonTheCapableModesArePlaceholdersAndNothingMeasures) {
    pc.writeChipId("35\n");
    QJsonObject root;
    node.CheckGrabbingStatus(root, 30, 90);
    EXPECT_EQ(camera.script().calls.size(), 6u);
    EXPECT_TRUE(camera_test_bandwidth_message.empty())
        << "HD720@60 is not tested and 30 fps does not measure";
    EXPECT_EQ(root.value("error").toArray(), QJsonArray({kSpecificResolutions}));
}

TEST_F(GrabbingTestScripted, ProgressAfterEachModeOfTheList) {
    std::vector<float> atSetUp;
    camera.script().setUpCode = [&](int) {
        atSetUp.push_back(node.getPercent());
        return 0;
    };
    node.bandwidthRunSeconds = 0.1;
    node.setPercent(30.f);
    QJsonObject root;
    node.CheckGrabbingStatus(root, 30, 90);
    // Each mode opens at the progress the one before left: 30, 36, ... 84.
    ASSERT_EQ(atSetUp.size(), 10u);
    for (size_t i = 0; i < atSetUp.size(); ++i)
        EXPECT_FLOAT_EQ(atSetUp[i], 30.f + 6.f * static_cast<float>(i)) << i;
}

TEST_F(GrabbingTestScripted, AFailedModeGivesTheErrorUnlessTheFirmwareWasOutdated) {
    camera.script().setUpCode = [](int call) { return call < 9 ? 6 : 0; };  // VGA@15 never opens
    QJsonObject root;
    node.CheckGrabbingStatus(root, 30, 90);
    const QJsonObject first = root.value("resolutions").toObject().value("VGA@15").toObject();
    EXPECT_EQ(first.value("status").toBool(true), false);
    EXPECT_EQ(first.value("initialization").toString(),
              "Error : Cannot construct a valid video device (/dev/videoX) for the camera");
    EXPECT_EQ(root.value("error").toArray(), QJsonArray({kSpecificResolutions}));
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ERROR),
              std::vector<std::string>({kSpecificResolutions}));

    // The same with the firmware warning given before: no error.
    KOVNode second;
    second.input_type = bh::USB_INPUT;
    camera_test_thrown_firmware_error = true;
    camera.script().calls.clear();
    QJsonObject root2;
    second.CheckGrabbingStatus(root2, 30, 90);
    EXPECT_FALSE(root2.contains("error"));
    EXPECT_TRUE(second.messages.empty());
}

TEST_F(GrabbingTestScripted, GmslListOpensThreeModesAndNeverMeasures) {
    node.input_type = bh::GMSL_INPUT;
    QJsonObject root;
    node.CheckGrabbingStatus(root, 30, 90);
    const QJsonObject resolutions = root.value("resolutions").toObject();
    ASSERT_EQ(resolutions.size(), 3);
    ASSERT_EQ(camera.script().calls.size(), 3u);
    const int widths[] = {3840, 3840, 1920};
    const int heights[] = {1200, 1200, 600};
    const int rates[] = {30, 60, 120};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(camera.script().calls[i].width, widths[i]);
        EXPECT_EQ(camera.script().calls[i].height, heights[i]);
        EXPECT_EQ(camera.script().calls[i].fps, rates[i]);
        EXPECT_TRUE(camera.script().calls[i].noMCU);
    }
    for (const char* key : {"HD1200@30", "HD1200@60", "SVGA@120"}) {
        EXPECT_EQ(resolutions.value(key).toObject().value("status").toBool(), true) << key;
        EXPECT_FALSE(resolutions.value(key).toObject().contains("imageCount")) << key;
    }
    EXPECT_EQ(camera.script().polls, 0);
    EXPECT_TRUE(camera_test_bandwidth_message.empty());
    EXPECT_EQ(camera_test_bandwidth_message_level, 0);
    EXPECT_FALSE(root.contains("error"));
}

TEST_F(GrabbingTestScripted, NoInputRunsNoModeAndRaisesNothing) {
    node.input_type = bh::NO_INPUT;
    QJsonObject root;
    node.setPercent(30.f);
    node.CheckGrabbingStatus(root, 30, 90);
    EXPECT_TRUE(root.value("resolutions").toObject().isEmpty());
    EXPECT_TRUE(camera.script().calls.empty());
    EXPECT_FALSE(root.contains("error"));
    EXPECT_FLOAT_EQ(node.getPercent(), 90.f);
}

TEST_F(GrabbingTestScripted, ShortenedRunScalesTheExpectedCount) {
    // A unit test may shorten the run; the expected count follows (60 x 1 s).
    node.bandwidthRunSeconds = 1.0;
    camera.script().dropped = firstOfEvery(3, 15, 1);
    const QJsonObject mode = runBandwidthMode();
    EXPECT_EQ(mode.value("imageCount").toInt(), 45);
    EXPECT_EQ(mode.value("dropCount").toInt(), 15);
    EXPECT_EQ(camera_test_bandwidth_message, longText(15, 0, 60));
}
