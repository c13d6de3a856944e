// The rules of the grabbing test, as pure functions: the bandwidth verdict
// table, the low-bandwidth text, board classes and the chip id file, the mode
// lists and the progress arithmetic.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "KovNodeTestSupport.h"
#include "diagnostic/GrabbingTest.h"
#include "support/SiteConfig.h"

using namespace grabbing;

namespace {

// The long text of a low bandwidth, written out from its description.
std::string longText(const std::string& drops, const std::string& tears, const std::string& expected) {
    return std::string(
               "<b>Low USB bandwidth</b> <br/> Read our FAQ to troubleshoot your USB connection issues. "
               "<a href='") +
           site::SUPPORT_SITE +
           "/hc/en-us/articles/207635225' style='color: #d9ff42;' >Learn more</a><br/> <b>Frame drops:</b> " +
           drops + "/" + expected + "<br/> <b>Frame tearing:</b> " + tears + "/" + expected;
}

const char* const kOk = "<b>USB Bandwidth: </b> OK";

struct VerdictRow {
    int tears;
    int drops;
    int frames;
    float expected;
    std::string message;
    DIAGNOSTIC_MESSAGE_LEVEL level;
};

}  // namespace

TEST(BandwidthVerdict, Table) {
    const float e60 = 500.4f;  // 60 fps over 8.34 s
    const float e30 = 250.2f;  // 30 fps over 8.34 s
    const std::vector<VerdictRow> rows = {
        // At most 14 of each and a frame: OK.
        {0, 0, 500, e60, kOk, DIAGNOSTIC_VALID},
        {14, 14, 486, e60, kOk, DIAGNOSTIC_VALID},
        {0, -1, 501, e60, kOk, DIAGNOSTIC_VALID},
        {3, 2, 248, e30, kOk, DIAGNOSTIC_VALID},
        // 15 to 37 drops, few tears: a warning.
        {0, 15, 485, e60, longText("15", "0", "500"), DIAGNOSTIC_WARNING},
        {14, 37, 463, e60, longText("37", "14", "500"), DIAGNOSTIC_WARNING},
        {2, 20, 230, e30, longText("20", "2", "250"), DIAGNOSTIC_WARNING},
        // 15 tears, or more than 37 drops: an error.
        {15, 0, 500, e60, longText("0", "15", "500"), DIAGNOSTIC_ERROR},
        {0, 38, 462, e60, longText("38", "0", "500"), DIAGNOSTIC_ERROR},
        {40, 40, 460, e60, longText("40", "40", "500"), DIAGNOSTIC_ERROR},
        {15, 14, 486, e60, longText("14", "15", "500"), DIAGNOSTIC_ERROR},
        // No frame at all: whatever the counts, never OK.
        {0, 500, 0, e60, longText("500", "0", "500"), DIAGNOSTIC_ERROR},
        {0, 10, 0, 10.f, longText("10", "0", "10"), DIAGNOSTIC_WARNING},
        {0, 0, 0, 0.4f, longText("0", "0", "0"), DIAGNOSTIC_WARNING},
    };
    for (const VerdictRow& row : rows) {
        const BandwidthVerdict verdict = bandwidthVerdict(row.tears, row.drops, row.frames, row.expected);
        EXPECT_EQ(verdict.message, row.message) << row.tears << " " << row.drops << " " << row.frames;
        EXPECT_EQ(verdict.level, row.level) << row.tears << " " << row.drops << " " << row.frames;
    }
}

TEST(BandwidthVerdict, LongTextCountsAgainstTheExpectedFrames) {
    // 15 drops of a 60 fps run: out of 500, the expected count, not the 485
    // frames received.
    EXPECT_EQ(lowBandwidthText(15, 3, 500.4f), longText("15", "3", "500"));
}

TEST(BandwidthVerdict, DropsAreTheIntegerPartOfExpectedLessReceived) {
    const float e = expectedFrames(60, 8.34);
    EXPECT_FLOAT_EQ(e, 500.4f);
    EXPECT_EQ(droppedFrames(e, 485), 15);
    EXPECT_EQ(droppedFrames(e, 486), 14);
    EXPECT_EQ(droppedFrames(e, 462), 38);
    EXPECT_EQ(droppedFrames(e, 500), 0);
    // More frames than expected: the part toward zero.
    EXPECT_EQ(droppedFrames(e, 501), 0);
    EXPECT_EQ(droppedFrames(e, 502), -1);
    EXPECT_EQ(droppedFrames(e, 0), 500);
    EXPECT_FLOAT_EQ(expectedFrames(30, 8.34), 250.2f);
}

TEST(BoardClass, ByChipId) {
    EXPECT_EQ(boardClass(ChipId{false, 0}), 1);
    EXPECT_EQ(boardClass(ChipId{false, 33}), 1);  // no file: the id means nothing
    EXPECT_EQ(boardClass(ChipId{true, 33}), 4);
    EXPECT_EQ(boardClass(ChipId{true, 24}), 3);
    EXPECT_EQ(boardClass(ChipId{true, 25}), 2);
    EXPECT_EQ(boardClass(ChipId{true, 35}), 5);
    EXPECT_EQ(boardClass(ChipId{true, 0}), 5);
    EXPECT_EQ(boardClass(ChipId{true, -24}), 5);
}

TEST(BandwidthFps, ThirtyOnChip33Only) {
    EXPECT_EQ(bandwidthFps(ChipId{false, 0}), 60);
    EXPECT_EQ(bandwidthFps(ChipId{true, 33}), 30);
    EXPECT_EQ(bandwidthFps(ChipId{true, 24}), 60);
    EXPECT_EQ(bandwidthFps(ChipId{true, 25}), 60);
    EXPECT_EQ(bandwidthFps(ChipId{true, 7}), 60);
}

TEST(ChipIdFile, ParserTable) {
    struct Row {
        std::string text;
        bool ok;
        int id;
    };
    const std::vector<Row> rows = {
        {"33\n", true, 33},
        {"24", true, 24},
        {"  25\n", true, 25},
        {"\t33 \n", true, 33},
        {"33abc", true, 33},
        {"-7\n", true, -7},
        {"+25", true, 25},
        {"0x21", true, 0},
        {"", false, 0},
        {"\n", false, 0},
        {"abc", false, 0},
        {"-", false, 0},
        {"+\n", false, 0},
        {"- 3", false, 0},
        {"99999999999", false, 0},
        {"-99999999999", false, 0},
        {"2147483647", true, 2147483647},
    };
    for (const Row& row : rows) {
        int id = -12345;
        EXPECT_EQ(parseChipId(row.text, id), row.ok) << "'" << row.text << "'";
        if (row.ok)
            EXPECT_EQ(id, row.id) << "'" << row.text << "'";
        else
            EXPECT_EQ(id, -12345) << "a refused text leaves the id alone";
    }
}

TEST(ChipIdFile, ParserSurvivesArbitraryBytes) {
    // Every short byte string, and longer random ones: no crash, and an
    // accepted text always starts (after blanks) with a sign or a digit.
    std::string text;
    unsigned seed = 12345;
    for (int n = 0; n < 20000; ++n) {
        text.clear();
        const int length = n % 12;
        for (int i = 0; i < length; ++i) {
            seed = seed * 1103515245u + 12345u;
            text += static_cast<char>((seed >> 16) & 0xFF);
        }
        int id = 0;
        if (parseChipId(text, id)) {
            const size_t first = text.find_first_not_of(" \t\n\v\f\r");
            ASSERT_NE(first, std::string::npos);
            EXPECT_TRUE(text[first] == '-' || text[first] == '+' ||
                        (text[first] >= '0' && text[first] <= '9'));
        }
    }
}

TEST(ChipIdFile, ReadThroughTheSystemRoot) {
    {
        testsupport::ScopedSysRoot pc;
        const ChipId chip = readChipId();
        EXPECT_FALSE(chip.present);
        EXPECT_EQ(boardClass(chip), 1);
        EXPECT_EQ(bandwidthFps(chip), 60);
    }
    {
        testsupport::ScopedSysRoot jetson("33\n");
        const ChipId chip = readChipId();
        EXPECT_TRUE(chip.present);
        EXPECT_EQ(chip.id, 33);
        EXPECT_EQ(boardClass(chip), 4);
        EXPECT_EQ(bandwidthFps(chip), 30);
    }
    {
        testsupport::ScopedSysRoot odd("not a number\n");
        const ChipId chip = readChipId();
        EXPECT_TRUE(chip.present);
        EXPECT_EQ(boardClass(chip), 5);
        EXPECT_EQ(bandwidthFps(chip), 60);
    }
}

TEST(GrabbingModes, UsbListAndWhenEachModeIsTested) {
    struct Expected {
        const char* key;
        bh::RESOLUTION resolution;
        int fps;
        bool onCapableBoards;  // tested only on board classes 1 to 3
    };
    const std::vector<Expected> expected = {
        {"VGA@15", bh::VGA, 15, false},      {"VGA@30", bh::VGA, 30, false},
        {"VGA@60", bh::VGA, 60, false},      {"VGA@100", bh::VGA, 100, true},
        {"HD720@15", bh::HD720, 15, false},  {"HD720@30", bh::HD720, 30, false},
        {"HD720@60", bh::HD720, 60, true},   {"HD1080@15", bh::HD1080, 15, false},
        {"HD1080@30", bh::HD1080, 30, true}, {"HD2K@15", bh::HD2K, 15, true},
    };
    const std::vector<GrabbingMode>& modes = grabbingModes(bh::USB_INPUT);
    ASSERT_EQ(modes.size(), expected.size());
    for (size_t i = 0; i < modes.size(); ++i) {
        EXPECT_STREQ(modes[i].key, expected[i].key);
        EXPECT_EQ(modes[i].resolution, expected[i].resolution) << expected[i].key;
        EXPECT_EQ(modes[i].fps, expected[i].fps) << expected[i].key;
        for (int board = 1; board <= 5; ++board) {
            const bool tested = !expected[i].onCapableBoards || board <= 3;
            EXPECT_EQ(isModeTested(modes[i], board), tested) << expected[i].key << " on board " << board;
        }
    }
}

TEST(GrabbingModes, GmslListIsAlwaysTestedAndOtherInputsHaveNone) {
    const std::vector<GrabbingMode>& modes = grabbingModes(bh::GMSL_INPUT);
    ASSERT_EQ(modes.size(), 3u);
    EXPECT_STREQ(modes[0].key, "HD1200@30");
    EXPECT_EQ(modes[0].resolution, bh::HD1200);
    EXPECT_EQ(modes[0].fps, 30);
    EXPECT_STREQ(modes[1].key, "HD1200@60");
    EXPECT_EQ(modes[1].resolution, bh::HD1200);
    EXPECT_EQ(modes[1].fps, 60);
    EXPECT_STREQ(modes[2].key, "SVGA@120");
    EXPECT_EQ(modes[2].resolution, bh::SVGA);
    EXPECT_EQ(modes[2].fps, 120);
    for (const GrabbingMode& mode : modes)
        for (int board = 1; board <= 5; ++board)
            EXPECT_TRUE(isModeTested(mode, board)) << mode.key;
    EXPECT_TRUE(grabbingModes(bh::NO_INPUT).empty());
    EXPECT_TRUE(grabbingModes(static_cast<bh::INPUT_TYPE>(1)).empty());
}

TEST(GrabbingModes, OnlyHd720AtTheBandwidthRateMeasures) {
    for (int rate : {60, 30}) {
        int measuring = 0;
        for (const GrabbingMode& mode : grabbingModes(bh::USB_INPUT))
            if (isBandwidthRun(mode.resolution, mode.fps, rate)) {
                ++measuring;
                EXPECT_STREQ(mode.key, rate == 60 ? "HD720@60" : "HD720@30");
            }
        EXPECT_EQ(measuring, 1) << rate;
        for (const GrabbingMode& mode : grabbingModes(bh::GMSL_INPUT))
            EXPECT_FALSE(isBandwidthRun(mode.resolution, mode.fps, rate)) << mode.key;
    }
}

TEST(Progress, StepsOfTheModeList) {
    // Ten USB steps from 30 to 90: 6 a step.
    EXPECT_FLOAT_EQ(modeProgress(30, 90, 10, 0), 30.f);
    EXPECT_FLOAT_EQ(modeProgress(30, 90, 10, 1), 36.f);
    EXPECT_FLOAT_EQ(modeProgress(30, 90, 10, 7), 72.f);
    EXPECT_FLOAT_EQ(modeProgress(30, 90, 10, 10), 90.f);
    // Three GMSL steps: 20 a step.
    EXPECT_FLOAT_EQ(modeProgress(30, 90, 3, 1), 50.f);
    EXPECT_FLOAT_EQ(modeProgress(30, 90, 3, 2), 70.f);
    EXPECT_FLOAT_EQ(modeProgress(30, 90, 3, 3), 90.f);
    // No mode: the start.
    EXPECT_FLOAT_EQ(modeProgress(30, 90, 0, 0), 30.f);
}

TEST(Progress, BandwidthRunMovesFifteenOverItsLength) {
    EXPECT_FLOAT_EQ(bandwidthProgress(66.f, 0.0), 66.f);
    EXPECT_NEAR(bandwidthProgress(66.f, 1.0), 67.7985611, 1e-4);
    EXPECT_NEAR(bandwidthProgress(66.f, 8.34), 81.0, 1e-4);
    EXPECT_NEAR(bandwidthProgress(60.f, 4.17), 67.5, 1e-4);
}
