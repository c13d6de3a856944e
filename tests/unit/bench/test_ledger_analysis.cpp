// The pause ledger's reader (table of good and malformed files) and the
// analysis of a hand-built run: which sleeps count as pauses, the bandwidth
// run counted as its 8.34 s, and the overhead split into its parts.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "bench/ledger_analysis.h"

using namespace ledger;

namespace {

struct ParseCase {
    const char* name;
    std::string text;
    bool ok;
    const char* errorPart;  // a text the error must hold
};

class LedgerParse : public testing::TestWithParam<ParseCase> {};

TEST_P(LedgerParse, AcceptsGoodFilesAndNamesTheFaultOfBadOnes) {
    const ParseCase& c = GetParam();
    std::istringstream in(c.text);
    Ledger ledger;
    std::string error;
    EXPECT_EQ(parseLedger(in, ledger, error), c.ok) << error;
    if (c.ok)
        EXPECT_TRUE(error.empty());
    else
        EXPECT_NE(error.find(c.errorPart), std::string::npos) << error;
}

const char* const kHeader = "# pid 100 events 2 lost 0\n";

INSTANTIATE_TEST_SUITE_P(
    Table, LedgerParse,
    testing::Values(
        ParseCase{"good", std::string(kHeader) + "101 5 200 210 3 0 -1\n101 300 -1 40 9 4 -1\n", true, ""},
        ParseCase{"header only", kHeader, true, ""},
        ParseCase{"no trailing line feed", std::string(kHeader) + "101 5 200 210 3 0 17", true, ""},
        ParseCase{"empty", "", false, "empty ledger"},
        ParseCase{"not a header", "101 5 200 210 3 0 -1\n", false, "line 1"},
        ParseCase{"header word wrong", "# pid 100 entries 2 lost 0\n", false, "line 1"},
        ParseCase{"header number missing", "# pid 100 events lost 0\n", false, "line 1"},
        ParseCase{"header with more", "# pid 100 events 2 lost 0 more\n", false, "line 1"},
        ParseCase{"header pid zero", "# pid 0 events 2 lost 0\n", false, "line 1"},
        ParseCase{"lost entries", "# pid 100 events 2 lost 3\n", false, "lost 3"},
        ParseCase{"short entry", std::string(kHeader) + "101 5 200 210 3 0\n", false, "line 2"},
        ParseCase{"entry with more", std::string(kHeader) + "101 5 200 210 3 0 -1 8\n", false, "line 2"},
        ParseCase{"letters", std::string(kHeader) + "101 5 abc 210 3 0 -1\n", false, "line 2"},
        ParseCase{"unknown kind", std::string(kHeader) + "101 5 200 210 3 5 -1\n", false, "line 2"},
        ParseCase{"negative kind", std::string(kHeader) + "101 5 200 210 3 -1 -1\n", false, "line 2"},
        ParseCase{"negative duration", std::string(kHeader) + "101 5 200 -4 3 0 -1\n", false, "line 2"},
        ParseCase{"no thread", std::string(kHeader) + "0 5 200 210 3 0 -1\n", false, "line 2"},
        ParseCase{"bad third line", std::string(kHeader) + "101 5 200 210 3 0 -1\n\n", false, "line 3"}),
    [](const testing::TestParamInfo<ParseCase>& info) {
        std::string name = info.param.name;
        for (char& ch : name)
            if (ch == ' ')
                ch = '_';
        return name;
    });

// Builds the ledger of a small run on a clock in nanoseconds.
class RunBuilder {
public:
    static constexpr int64_t kPid = 100;
    static constexpr int64_t kWorker = 101;
    static constexpr int64_t kOther = 102;

    // A sleep of the worker `afterGapNs` after its previous one, `lateNs` late.
    void sleep(int64_t requestedNs, int64_t lateNs, int64_t afterGapNs, int64_t cpuInGapNs = 0,
               int64_t queuedNs = -1) {
        now_ += afterGapNs;
        workerCpu_ += cpuInGapNs;
        ledger.events.push_back(
            {kWorker, now_, requestedNs, requestedNs + lateNs, workerCpu_, kSleep, queuedNs});
        now_ += requestedNs + lateNs;
    }
    // A wait of the worker, `afterNs` after the end of its last sleep.
    void waitAfterLastSleep(int kind, int64_t afterNs, int64_t tookNs) {
        const Event& last = ledger.events.back();
        ledger.events.push_back({kWorker, last.endNs() + afterNs, -1, tookNs, workerCpu_, kind, -1});
    }
    int64_t now() const { return now_; }

    Ledger ledger{kPid, {}};

private:
    int64_t now_ = 0;
    int64_t workerCpu_ = 0;
};

constexpr int64_t kStart = 1000 * kMs;  // the process starts here, the worker's first sleep later

TEST(LedgerAnalysis, PausesAreTheWorkersSleepsAndTheBandwidthRunCountsAsItsLength) {
    RunBuilder run;
    run.sleep(200 * kMs, kMs / 10, kStart + 20 * kMs, 2 * kMs, 1000);  // first node's step
    run.sleep(kRunnerPauseNs, kMs / 10, 3 * kMs);
    run.waitAfterLastSleep(4, kMs, 30 * kMs);                // a command, in the next gap
    run.sleep(200 * kMs, kMs / 5, 40 * kMs, 5 * kMs, 5000);  // ends the gap with the command
    for (int i = 0; i < 3; ++i)
        run.sleep(kBandwidthSleepNs, 0, kMs / 2);  // three short 1 ms waits: plain pauses
    run.sleep(200 * kMs, 0, kMs, 0, 6000);
    // The bandwidth run: 4170 rounds of a 1 ms sleep and 1 ms of work.
    const int64_t bandwidthFirst = run.now() + 2 * kMs;
    run.sleep(kBandwidthSleepNs, 0, 2 * kMs, 0, 7000);
    for (int i = 1; i < 4170; ++i)
        run.sleep(kBandwidthSleepNs, 0, kMs, kMs / 2, i == 4169 ? 900000 : -1);
    const int64_t bandwidthSpan = run.now() - bandwidthFirst;
    run.sleep(200 * kMs, 0, 4 * kMs, 0, 901000);  // after the run
    const int64_t wall = run.now() + 15 * kMs - kStart;
    // The main thread's poll sleeps, and a sleep of another thread (a capture
    // thread, say), which is no pause of the diagnosis.
    run.ledger.events.push_back(
        {RunBuilder::kPid, kStart + 10 * kMs, kPollSleepNs, kPollSleepNs, 100, kSleep, -1});
    run.ledger.events.push_back(
        {RunBuilder::kPid, kStart + 5010 * kMs, kPollSleepNs, kPollSleepNs, 100 + 20 * kMs, kSleep, -1});
    run.ledger.events.push_back({RunBuilder::kOther, kStart, 200 * kMs, 200 * kMs, 0, kSleep, -1});

    const Analysis a = analyse(run.ledger, kStart, wall, 2);
    ASSERT_TRUE(a.ok) << a.error;
    EXPECT_TRUE(a.bandwidthRun);
    EXPECT_EQ(a.bandwidthSpanNs, bandwidthSpan);
    EXPECT_EQ(a.pausesNs, 4 * 200 * kMs + kRunnerPauseNs + 3 * kMs + kBandwidthRunNs);
    EXPECT_EQ(a.lateWakeNs, kMs / 10 + kMs / 10 + kMs / 5);
    EXPECT_EQ(a.startupNs, 20 * kMs);
    EXPECT_EQ(a.teardownNs, 15 * kMs);
    // Gaps outside the bandwidth run, its two edges included.
    EXPECT_EQ(a.gapNs, 3 * kMs + 40 * kMs + 3 * kMs / 2 + kMs + 2 * kMs + 4 * kMs);
    EXPECT_EQ(a.gapCpuNs, 5 * kMs);
    EXPECT_EQ(a.gapWaitNs[4], 30 * kMs);
    // The parts add up to the overhead.
    EXPECT_EQ(a.overheadNs(),
              a.startupNs + a.teardownNs + a.lateWakeNs + (a.bandwidthSpanNs - kBandwidthRunNs) + a.gapNs);
    // Run-queue time from the first to the last sleep, less the bandwidth run's.
    EXPECT_EQ(a.queuedNs, (901000 - 1000) - (900000 - 7000));
    EXPECT_EQ(a.pausesBySize.at(200 * kMs), std::make_pair(4, 800 * kMs));
    EXPECT_EQ(a.pausesBySize.at(kBandwidthSleepNs), std::make_pair(3, 3 * kMs));
    ASSERT_EQ(a.longestGaps.size(), 2u);
    EXPECT_EQ(a.longestGaps[0].ns, 40 * kMs);
    EXPECT_EQ(a.longestGaps[0].waitNs[4], 30 * kMs);
    EXPECT_EQ(a.polls, 2);
    EXPECT_EQ(a.pollWallNs, 5000 * kMs);
    EXPECT_EQ(a.pollCpuNs, 20 * kMs);
    EXPECT_DOUBLE_EQ(a.pollSharePercent(), 0.4);
}

TEST(LedgerAnalysis, AShortStretchOfOneMillisecondSleepsIsNoBandwidthRun) {
    RunBuilder run;
    run.sleep(kRunnerPauseNs, 0, kStart + kMs);
    for (int i = 0; i < 100; ++i)
        run.sleep(kBandwidthSleepNs, 0, kMs);
    const Analysis a = analyse(run.ledger, kStart, run.now() - kStart, 0);
    ASSERT_TRUE(a.ok) << a.error;
    EXPECT_FALSE(a.bandwidthRun);
    EXPECT_EQ(a.pausesNs, kRunnerPauseNs + 100 * kBandwidthSleepNs);
    EXPECT_TRUE(a.longestGaps.empty());
}

TEST(LedgerAnalysis, WithoutTheRunnersPauseThereIsNoWorker) {
    Ledger ledger{100,
                  {{100, 0, kRunnerPauseNs, kRunnerPauseNs, 0, kSleep, -1},
                   {101, 0, 200 * kMs, 200 * kMs, 0, kSleep, -1},
                   {101, 0, kRunnerPauseNs, kRunnerPauseNs, 0, 1, -1}}};
    const Analysis a = analyse(ledger, 0, kMs, 0);
    EXPECT_FALSE(a.ok);
    EXPECT_NE(a.error.find("250 ms"), std::string::npos);
}

}  // namespace
