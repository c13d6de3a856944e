#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "diagnostic/Arguments.h"

namespace {

LaunchOptions scan(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(&a[0]);
    argv.push_back(nullptr);
    return parseArguments(static_cast<int>(args.size()), argv.data());
}

}  // namespace

TEST(Arguments, NothingGivenStartsTheWindow) {
    const LaunchOptions o = scan({"kov_diagnostic"});
    EXPECT_FALSE(o.forceCommandLine);
    EXPECT_FALSE(o.skipJson);
    EXPECT_FALSE(o.help);
    EXPECT_FALSE(o.autoStart);
    EXPECT_EQ(o.ai.model, -1);
    EXPECT_EQ(o.ai.verbosity, 0);
    EXPECT_FALSE(o.ai.clear || o.ai.download || o.ai.optimize || o.ai.specific);
    EXPECT_TRUE(o.error.empty());
}

TEST(Arguments, SkipJsonAloneDoesNotForceTheCommandLine) {
    const LaunchOptions o = scan({"kov_diagnostic", "-s"});
    EXPECT_TRUE(o.skipJson);
    EXPECT_FALSE(o.forceCommandLine);
}

TEST(Arguments, CommandLineWithSkip) {
    const LaunchOptions o = scan({"kov_diagnostic", "-c", "-s"});
    EXPECT_TRUE(o.skipJson);
    EXPECT_TRUE(o.forceCommandLine);
}

TEST(Arguments, RecoverAndKernelLogBothSetAndForceCommandLine) {
    const LaunchOptions o = scan({"kov_diagnostic", "-r", "-dmesg"});
    EXPECT_TRUE(o.recoverMcu);
    EXPECT_TRUE(o.kernelLog);
    EXPECT_TRUE(o.forceCommandLine);
    EXPECT_TRUE(o.skipJson);
    // "-dmesg" also holds "-d".
    EXPECT_TRUE(o.autoStart);
}

TEST(Arguments, VerbosityRules) {
    EXPECT_EQ(scan({"p", "-v", "7"}).ai.verbosity, 673);
    EXPECT_EQ(scan({"p", "-v", "5"}).ai.verbosity, 671);
    EXPECT_EQ(scan({"p", "-v", "8"}).ai.verbosity, 674);
    EXPECT_EQ(scan({"p", "-v", "9"}).ai.verbosity, 671);
    EXPECT_EQ(scan({"p", "-v"}).ai.verbosity, 671);
    EXPECT_EQ(scan({"p", "-v", "99999999999999999999"}).ai.verbosity, 671);
    EXPECT_EQ(scan({"p", "-v", "-7"}).ai.verbosity, 671);
}

TEST(Arguments, VerbosityWordAfterIsStillScanned) {
    const LaunchOptions o = scan({"p", "-v", "abc-c"});
    EXPECT_EQ(o.ai.verbosity, 671);
    EXPECT_TRUE(o.forceCommandLine);
    const LaunchOptions o2 = scan({"p", "-v", "-c"});
    EXPECT_EQ(o2.ai.verbosity, 671);
    EXPECT_TRUE(o2.forceCommandLine);
}

TEST(Arguments, NeuralPlusSetsModelThirteen) {
    const LaunchOptions o = scan({"p", "-nrlo_plus"});
    EXPECT_EQ(o.ai.model, 13);
    EXPECT_TRUE(o.ai.specific);
    EXPECT_FALSE(o.ai.optimize);
    EXPECT_TRUE(o.forceCommandLine && o.skipJson);
    ASSERT_EQ(o.logLines.size(), 1u);
    EXPECT_EQ(o.logLines[0], "[KOV_Diagnostic] Optimizing NEURAL PLUS depth mode for target device");
}

TEST(Arguments, NeuralMatchesWithoutDashAndUndoesAnEarlierOptimize) {
    const LaunchOptions o = scan({"p", "-aio", "nrlo"});
    EXPECT_EQ(o.ai.model, 12);
    EXPECT_TRUE(o.ai.specific);
    EXPECT_FALSE(o.ai.optimize);
    ASSERT_EQ(o.logLines.size(), 1u);
    EXPECT_EQ(o.logLines[0], "[KOV_Diagnostic] Optimizing NEURAL depth mode for target device");
    const LaunchOptions later = scan({"p", "-nrlo", "-aio"});
    EXPECT_TRUE(later.ai.optimize);
    EXPECT_TRUE(later.ai.specific);
}

TEST(Arguments, ModelOperations) {
    EXPECT_TRUE(scan({"p", "-aid"}).ai.download);
    EXPECT_TRUE(scan({"p", "-aic"}).ai.clear);
    EXPECT_TRUE(scan({"p", "-aio"}).ai.optimize);
    const LaunchOptions s = scan({"p", "-ais", "4"});
    EXPECT_TRUE(s.ai.specific);
    EXPECT_EQ(s.ai.model, 4);
    EXPECT_TRUE(s.forceCommandLine && s.skipJson);
    // The number is not checked here.
    EXPECT_EQ(scan({"p", "-ais", "77"}).ai.model, 77);
    EXPECT_EQ(scan({"p", "-ais", "abc"}).ai.model, 0);
}

TEST(Arguments, SpecificModelGivenLastIsAClearError) {
    const LaunchOptions o = scan({"p", "-ais"});
    EXPECT_FALSE(o.error.empty());
    EXPECT_NE(o.error.find("-ais"), std::string::npos);
}

TEST(Arguments, SubstringMatchingIncludesTheProgramPath) {
    const LaunchOptions o = scan({"/opt/tools-c/kov_diagnostic"});
    EXPECT_TRUE(o.forceCommandLine);
    const LaunchOptions several = scan({"p", "x-c-s-ar"});
    EXPECT_TRUE(several.forceCommandLine);
    EXPECT_TRUE(several.skipJson);
    EXPECT_TRUE(several.arCheck);
    // Case-sensitive: "-C" is not "-c".
    EXPECT_FALSE(scan({"p", "-C"}).forceCommandLine);
    // Unknown words are ignored.
    EXPECT_TRUE(scan({"p", "--unknown", "zzz"}).error.empty());
}

TEST(Arguments, Help) {
    EXPECT_TRUE(scan({"p", "-h"}).help);
    const std::vector<std::string>& lines = usageLines();
    ASSERT_EQ(lines.size(), 12u);
    EXPECT_EQ(lines.front(), "Usage:");
    EXPECT_EQ(lines[6], "    -ais X | Download and Optimize the associated bh::DETECTION_MODEL (int)");
    EXPECT_EQ(lines.back(), "    -h | Display this help");
}

// Random argument lines built from option fragments never crash the scan and
// keep its invariants.
TEST(Arguments, FuzzedLines) {
    const std::vector<std::string> pieces = {"-d", "-aid", "-aio", "-aic", "-ais", "nrlo",   "_plus",
                                             "-c", "-s",   "-h",   "-ar",  "-r",   "-dmesg", "-v",
                                             "7",  "x",    "",     "-",    "99",   "\xff"};
    std::mt19937 rng(1234);
    for (int round = 0; round < 5000; ++round) {
        std::vector<std::string> args = {"p"};
        const int count = static_cast<int>(rng() % 6);
        for (int i = 0; i < count; ++i) {
            std::string word;
            const int parts = 1 + static_cast<int>(rng() % 3);
            for (int j = 0; j < parts; ++j)
                word += pieces[rng() % pieces.size()];
            args.push_back(word);
        }
        const LaunchOptions o = scan(args);
        if (o.ai.clear || o.ai.download || o.ai.specific || o.recoverMcu || o.kernelLog) {
            EXPECT_TRUE(o.forceCommandLine);
            EXPECT_TRUE(o.skipJson);
        }
        EXPECT_TRUE(o.ai.verbosity == 0 || (o.ai.verbosity >= 671 && o.ai.verbosity <= 674));
        if (!o.error.empty()) {
            EXPECT_NE(args.back().find("-ais"), std::string::npos);
        }
    }
}
