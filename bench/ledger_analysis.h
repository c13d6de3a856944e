#pragma once

// Reading and analysing the pause ledger of one diagnosis (the file that
// bench/pause_ledger.cpp writes): which sleeps are the pauses the diagnosis
// must make, and where the rest of its wall time goes. Used by
// bench/diagnosis_timing.cpp.
#include <array>
#include <cstdint>
#include <istream>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace ledger {

constexpr int64_t kMs = 1000000;
constexpr int64_t kBandwidthRunNs = 8340 * kMs;  // the grabbing test's measuring time
constexpr int64_t kRunnerPauseNs = 250 * kMs;    // between two nodes
constexpr int64_t kPollSleepNs = 10 * kMs;       // the command line's poll
constexpr int64_t kBandwidthSleepNs = 1 * kMs;   // each round of the bandwidth run

// Entry kinds.
constexpr int kSleep = 0;
constexpr int kKinds = 5;  // sleep, condition, poll/select, join, command
extern const char* const kKindNames[kKinds];

struct Event {
    int64_t tid = 0, startNs = 0, requestedNs = 0, tookNs = 0, cpuNs = 0;
    int kind = 0;
    int64_t queuedNs = -1;
    int64_t endNs() const { return startNs + tookNs; }
};

struct Ledger {
    int64_t pid = 0;
    std::vector<Event> events;
};

// Parses a whole ledger; false with `error` naming the line and the fault
// for a missing or malformed header, a ledger that lost entries, or a
// malformed entry line.
bool parseLedger(std::istream& in, Ledger& ledger, std::string& error);

// A stretch of the worker's time between two of its sleeps.
struct Gap {
    int64_t ns = 0, cpuNs = 0, afterRequestedNs = 0;
    std::array<int64_t, kKinds> waitNs{};  // by kind; [0] unused
    size_t index = 0;                      // of the sleep that ends it
};

struct Analysis {
    bool ok = false;
    std::string error;
    int64_t wallNs = 0;
    int64_t pausesNs = 0;
    std::map<int64_t, std::pair<int, int64_t>> pausesBySize;  // length -> count, sum
    bool bandwidthRun = false;
    int64_t bandwidthSpanNs = 0;
    // Where the overhead goes.
    int64_t startupNs = 0;   // process start to the worker's first sleep
    int64_t teardownNs = 0;  // the worker's last sleep to the process end
    int64_t lateWakeNs = 0;  // sleeps that ended after the time asked for
    int64_t gapNs = 0, gapCpuNs = 0;
    std::array<int64_t, kKinds> gapWaitNs{};
    int64_t queuedNs = 0;  // the worker, runnable but not running
    std::vector<Gap> longestGaps;
    // The poll loop of the main thread.
    int polls = 0;
    int64_t pollWallNs = 0, pollCpuNs = 0;

    int64_t overheadNs() const { return wallNs - pausesNs; }
    int64_t ownNs() const { return overheadNs() - queuedNs; }
    double pollSharePercent() const { return pollWallNs > 0 ? 100.0 * pollCpuNs / pollWallNs : 0.0; }
};

// Analyses one run: the process (whose main thread has the process id)
// started at `processStartNs` and ran for `wallNs`, on the same clock as the
// ledger. The worker is the thread that made the runner's 250 ms pause; the
// bandwidth run is its longest stretch of 1 ms sleeps when that lasts at
// least nine tenths of 8.34 s. Keeps the `gapCount` longest gaps.
Analysis analyse(const Ledger& ledger, int64_t processStartNs, int64_t wallNs, size_t gapCount);

}  // namespace ledger
