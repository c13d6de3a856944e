#include <gtest/gtest.h>

#include <QJsonObject>

#include <cstdio>
#include <string>

#include "diagnostic/CommandLine.h"
#include "diagnostic/ConsoleColor.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

class StaticNode : public DiagnosticNode {
public:
    explicit StaticNode(std::string n) : DiagnosticNode(std::move(n)) {}
    void runDiagnostic(QJsonObject&) override {}
    void add(DIAGNOSTIC_MESSAGE_LEVEL level, const std::string& text) { addMessage(result, level, text); }
    QJsonObject result;
};

std::string printed(DiagnosticNode* node) {
    CaptureStdout();
    printDiagnosticLine(node);
    std::fflush(stdout);
    return GetCapturedStdout();
}

const std::string kRed = "\033[31m", kOrange = "\033[33m", kGreen = "\033[32m", kBlue = "\033[34m",
                  kGray = "\033[37m", kDefault = "\033[37m";

class ConsoleOutput : public testing::Test {
protected:
    void SetUp() override { currentNode = nullptr; }
};

}  // namespace

TEST(ConsoleColours, SequencesAreFiveBytes) {
    CaptureStdout();
    setDefaultConsoleColor();
    setRedConsoleColor();
    setOrangeConsoleColor();
    setGreenConsoleColor();
    setBlueConsoleColor();
    setGrayConsoleColor();
    std::fflush(stdout);
    EXPECT_EQ(GetCapturedStdout(), kDefault + kRed + kOrange + kGreen + kBlue + kGray);
}

TEST(RemoveHTMLMarkup, KnownPatterns) {
    EXPECT_EQ(removeHTMLMarkup("<b>Processor: </b> x <br/> y"), "Processor:  x  y");
    EXPECT_EQ(removeHTMLMarkup("<i>a</i>"), "a");
    EXPECT_EQ(removeHTMLMarkup("see <a href='https://example.org'>here</a>"),
              "see (https://example.org) here");
    // A link with a style keeps the style text, quote and bracket included.
    EXPECT_EQ(removeHTMLMarkup("<a href='https://x.org' style='color: #d9ff42;' >site</a>"),
              "(https://x.org' style='color: #d9ff42;' >site");
    // Case-sensitive, and unknown tags stay.
    EXPECT_EQ(removeHTMLMarkup("<B>x</B><br>"), "<B>x</B><br>");
    EXPECT_EQ(removeHTMLMarkup(""), "");
    EXPECT_EQ(removeHTMLMarkup("caf\xc3\xa9"), "caf\xc3\xa9");
}

TEST_F(ConsoleOutput, RunningNodeShowsTruncatedPercentAndCarriageReturn) {
    StaticNode node("Processor");
    node.setPercent(42.9f);
    EXPECT_EQ(printed(&node), "- Running Processor Diagnostic : 42%\r");
    // Not yet finished: it is printed again at the next poll.
    EXPECT_EQ(printed(&node), "- Running Processor Diagnostic : 42%\r");
    EXPECT_EQ(currentNode, nullptr);
}

TEST_F(ConsoleOutput, FinishedNodeWithoutMessagesIsOkAndPrintedOnce) {
    StaticNode node("Empty");
    node.setPercent(100.f);
    EXPECT_EQ(printed(&node), "- Running Empty Diagnostic : " + kGreen + "OK  \n" + kDefault);
    EXPECT_EQ(currentNode, &node);
    EXPECT_EQ(printed(&node), "");
}

TEST_F(ConsoleOutput, ErrorWinsAndMessagesGoByLevelWithColours) {
    StaticNode node("Graphics Card");
    node.add(DIAGNOSTIC_VALID, "<b>good</b>");
    node.add(DIAGNOSTIC_WARNING, "meh");
    node.add(DIAGNOSTIC_ERROR, "bad");
    node.add(DIAGNOSTIC_NOT_TESTED, "skipped");
    node.add(DIAGNOSTIC_INFO, "fyi");
    node.setPercent(100.f);
    const std::string expected = "- Running Graphics Card Diagnostic : " + kRed + "Failed" + "\n" + kDefault +
                                 kRed + "    bad\n" + kDefault + kOrange + "    meh\n" + kDefault + kBlue +
                                 "    fyi\n" + kDefault + kGreen + "    good\n" + kDefault + kGray +
                                 "    skipped\n" + kDefault;
    EXPECT_EQ(printed(&node), expected);
}

TEST_F(ConsoleOutput, StatusWords) {
    StaticNode warning("W");
    warning.add(DIAGNOSTIC_WARNING, "w");
    warning.add(DIAGNOSTIC_VALID, "v");
    warning.setPercent(100.f);
    EXPECT_NE(printed(&warning).find(kOrange + "Warning\n"), std::string::npos);

    StaticNode info("I");
    info.add(DIAGNOSTIC_INFO, "i");
    info.setPercent(100.f);
    EXPECT_NE(printed(&info).find(kGreen + "OK  \n"), std::string::npos);

    StaticNode notTested("N");
    notTested.add(DIAGNOSTIC_NOT_TESTED, "n");
    notTested.setPercent(100.f);
    const std::string out = printed(&notTested);
    EXPECT_EQ(out, "- Running N Diagnostic : " + kGray + "Not Tested\n" + kDefault + kRed + kDefault +
                       kOrange + kDefault + kBlue + kDefault + kGreen + kDefault + kGray + "    n\n" +
                       kDefault);
}

TEST_F(ConsoleOutput, StatusFollowsTheLastStartedNode) {
    StaticNode a("A"), b("B"), c("C");
    DiagnosticRunner runner;
    runner.nodes = {&a, &b, &c};

    CaptureStdout();
    printDiagnosticStatus(runner);
    std::fflush(stdout);
    // Nothing started: position 0.
    EXPECT_EQ(GetCapturedStdout(), "- Running A Diagnostic : 0%\r");
    EXPECT_EQ(currentIndex, 0);

    a.setPercent(100.f);
    b.setPercent(35.f);
    CaptureStdout();
    printDiagnosticStatus(runner);
    std::fflush(stdout);
    EXPECT_EQ(GetCapturedStdout(), "- Running B Diagnostic : 35%\r");
    EXPECT_EQ(currentIndex, 1);
}

TEST_F(ConsoleOutput, EmptyListPrintsNothing) {
    DiagnosticRunner runner;
    currentIndex = 5;
    CaptureStdout();
    printDiagnosticStatus(runner);
    std::fflush(stdout);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_EQ(currentIndex, 0);
}
