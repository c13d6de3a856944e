// What the diagnosis costs beyond the pauses it must make, and what the
// command-line poll loop costs while it waits.
//
// Runs `kov_diagnostic -c` several times on a simulated scenario, on a pseudo
// terminal (as a user would see it), with the pause ledger preloaded
// (bench/pause_ledger.cpp), and works out for each run:
//
// - wall: from the start of the process to its end;
// - pauses: every sleep of the runner's worker thread (the thread that makes
//   the 250 ms pauses between nodes), at the length asked for: the nodes'
//   pacing sleeps, the pauses between nodes, the camera test's sleeps, the
//   capture code's waits; the bandwidth run (the longest stretch of the
//   worker's 1 ms sleeps) counts as its 8.34 s instead of the sleeps in it;
// - overhead = wall - pauses, and where it goes: process start and end, the
//   sleeps' late wake-ups, the bandwidth run's last round, and the worker's
//   time between its sleeps (its CPU time, its blocking waits by kind, and
//   the rest: waiting for a core, or blocking calls the ledger does not see);
// - of that overhead, the time the worker spent runnable but waiting for a
//   core (the kernel's run-queue time, outside the bandwidth run), which other
//   programs on a busy machine cause; "own" is the overhead without it;
// - the main thread's CPU time between its first and its last 10 ms poll
//   sleep, as a share of one core over that time.
//
// Usage (scripts/measure_diagnosis.sh builds and runs it):
//   diagnosis_timing --binary build/kov_diagnostic --ledger build/bench/libkov_pause_ledger.so
//                    [--scenario FILE] [--runs N] [--gaps N] [--env NAME=VALUE]... [--keep DIR]
// --gaps N lists the N longest stretches between two of the worker's sleeps;
// --keep DIR keeps each run's terminal output and ledger there.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

constexpr int64_t kMs = 1000000;
constexpr int64_t kBandwidthRunNs = 8340 * kMs;  // the grabbing test's measuring time
constexpr int64_t kRunnerPauseNs = 250 * kMs;
constexpr int64_t kPollSleepNs = 10 * kMs;
constexpr int64_t kBandwidthSleepNs = 1 * kMs;

// Entry kinds of the ledger.
constexpr int kSleep = 0;
constexpr int kWaitKinds = 5;
const char* const kWaitNames[kWaitKinds] = {"", "condition", "poll/select", "join", "command"};

struct Options {
    std::string binary;
    std::string ledgerLibrary;
    std::string scenario = "sim/scenarios/kov_pico_usb3.json";
    int runs = 5;
    int gaps = 0;
    std::vector<std::string> env;
    std::string keep;
};

struct Event {
    int64_t tid = 0, startNs = 0, requestedNs = 0, tookNs = 0, cpuNs = 0;
    int kind = 0;
    int64_t queuedNs = -1;
    int64_t endNs() const { return startNs + tookNs; }
};

struct Gap {
    int64_t ns = 0, cpuNs = 0, afterRequestedNs = 0;
    std::array<int64_t, kWaitKinds> waitNs{};
    size_t index = 0;
};

struct RunResult {
    bool ok = false;
    std::string error;
    int64_t wallNs = 0;
    int64_t processCpuNs = 0;
    int64_t pausesNs = 0;
    std::map<int64_t, std::pair<int, int64_t>> pausesBySize;  // length -> count, sum
    bool bandwidthRun = false;
    int64_t bandwidthSpanNs = 0;
    // Where the overhead goes.
    int64_t startupNs = 0;   // process start to the worker's first sleep
    int64_t teardownNs = 0;  // the worker's last sleep to the process end
    int64_t lateWakeNs = 0;  // sleeps that ended after the time asked for
    int64_t gapNs = 0, gapCpuNs = 0;
    int64_t queuedNs = 0;  // the worker, runnable but not running
    std::array<int64_t, kWaitKinds> gapWaitNs{};
    std::vector<Gap> longestGaps;
    // The poll loop.
    int polls = 0;
    int64_t pollWallNs = 0, pollCpuNs = 0;

    int64_t overheadNs() const { return wallNs - pausesNs; }
    int64_t ownNs() const { return overheadNs() - queuedNs; }
    double pollSharePercent() const { return pollWallNs > 0 ? 100.0 * pollCpuNs / pollWallNs : 0.0; }
};

int64_t monotonicNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

double seconds(int64_t ns) {
    return static_cast<double>(ns) / 1e9;
}

bool parseOptions(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const bool hasValue = i + 1 < argc;
        const std::string v = hasValue ? argv[i + 1] : "";
        if (a == "--binary" && hasValue) {
            o.binary = v;
        } else if (a == "--ledger" && hasValue) {
            o.ledgerLibrary = v;
        } else if (a == "--scenario" && hasValue) {
            o.scenario = v;
        } else if (a == "--runs" && hasValue) {
            o.runs = std::atoi(v.c_str());
        } else if (a == "--gaps" && hasValue) {
            o.gaps = std::atoi(v.c_str());
        } else if (a == "--env" && hasValue && v.find('=') != std::string::npos) {
            o.env.push_back(v);
        } else if (a == "--keep" && hasValue) {
            o.keep = v;
        } else {
            std::fprintf(stderr, "diagnosis_timing: bad argument \"%s\"\n", a.c_str());
            return false;
        }
        ++i;
    }
    if (o.binary.empty() || o.ledgerLibrary.empty() || o.runs < 1 || o.gaps < 0) {
        std::fprintf(stderr, "diagnosis_timing: --binary and --ledger are required, --runs at least 1\n");
        return false;
    }
    return true;
}

std::string absolute(const std::string& path) {
    char* resolved = realpath(path.c_str(), nullptr);
    if (resolved == nullptr)
        return path;
    std::string out = resolved;
    std::free(resolved);
    return out;
}

[[noreturn]] void execTool(const Options& o, const std::string& slave, const std::string& work,
                           const std::string& ledger) {
    setsid();
    const int fd = open(slave.c_str(), O_RDWR);
    if (fd < 0)
        _exit(126);
    dup2(fd, 0);
    dup2(fd, 1);
    dup2(fd, 2);
    if (fd > 2)
        close(fd);
    if (chdir(work.c_str()) != 0)
        _exit(126);
    setenv("LD_PRELOAD", o.ledgerLibrary.c_str(), 1);
    setenv("KOV_PAUSE_LEDGER", ledger.c_str(), 1);
    setenv("KOV_SIMULATION", o.scenario.c_str(), 1);
    setenv("HOME", work.c_str(), 1);
    unsetenv("DISPLAY");
    unsetenv("WAYLAND_DISPLAY");
    for (const std::string& kv : o.env) {
        const size_t eq = kv.find('=');
        setenv(kv.substr(0, eq).c_str(), kv.substr(eq + 1).c_str(), 1);
    }
    // argv[0] carries no option text: the tool searches it too.
    char* const args[] = {const_cast<char*>("kov_diagnostic"), const_cast<char*>("-c"), nullptr};
    execv(o.binary.c_str(), args);
    _exit(127);
}

// Starts the tool on a new pseudo terminal and keeps what it prints until it
// ends; fills the wall time and the CPU time, and the start time.
bool runOnTerminal(const Options& o, const std::string& work, const std::string& ledger, RunResult& r,
                   int64_t& startNs, std::string& output) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        r.error = "no pseudo terminal";
        return false;
    }
    const std::string slave = ptsname(master);
    startNs = monotonicNs();
    const pid_t pid = fork();
    if (pid == 0) {
        close(master);
        execTool(o, slave, work, ledger);
    }
    if (pid < 0) {
        r.error = "fork failed";
        close(master);
        return false;
    }
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(master, buffer, sizeof buffer);
        if (n > 0) {
            output.append(buffer, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        break;  // EIO: the last holder of the terminal has gone
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    r.wallNs = monotonicNs() - startNs;
    close(master);
    r.processCpuNs = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000000LL +
                     (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1000LL;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        r.error = "the tool ended with status " + std::to_string(status);
        return false;
    }
    return true;
}

bool readLedger(const std::string& path, int64_t& pid, std::vector<Event>& events, std::string& error) {
    std::ifstream in(path);
    std::string header;
    if (!std::getline(in, header)) {
        error = "no ledger written (is the library preloaded?)";
        return false;
    }
    std::istringstream h(header);
    std::string hash, word;
    size_t count = 0, lost = 0;
    if (!(h >> hash >> word >> pid >> word >> count >> word >> lost) || hash != "#") {
        error = "the ledger's first line is not its header";
        return false;
    }
    if (lost != 0) {
        error = "the ledger overflowed";
        return false;
    }
    Event e;
    while (in >> e.tid >> e.startNs >> e.requestedNs >> e.tookNs >> e.cpuNs >> e.kind >> e.queuedNs) {
        if (e.kind < 0 || e.kind >= kWaitKinds) {
            error = "unknown entry kind in the ledger";
            return false;
        }
        events.push_back(e);
    }
    return true;
}

// The longest stretch [begin, end) of consecutive 1 ms sleeps.
std::pair<size_t, size_t> bandwidthStretch(const std::vector<Event>& sleeps) {
    size_t bestBegin = 0, bestEnd = 0;
    int64_t bestSpan = 0;
    for (size_t i = 0; i < sleeps.size();) {
        size_t j = i;
        while (j < sleeps.size() && sleeps[j].requestedNs == kBandwidthSleepNs)
            ++j;
        if (j == i) {
            ++i;
            continue;
        }
        const int64_t span = sleeps[j - 1].endNs() - sleeps[i].startNs;
        if (span > bestSpan) {
            bestSpan = span;
            bestBegin = i;
            bestEnd = j;
        }
        i = j;
    }
    return {bestBegin, bestEnd};
}

void analyse(int64_t pid, int64_t processStartNs, std::vector<Event> events, size_t gapCount, RunResult& r) {
    std::sort(events.begin(), events.end(),
              [](const Event& a, const Event& b) { return a.startNs < b.startNs; });
    int64_t worker = -1;
    for (const Event& e : events) {
        if (e.kind == kSleep && e.tid != pid && e.requestedNs == kRunnerPauseNs) {
            worker = e.tid;
            break;
        }
    }
    if (worker < 0) {
        r.error = "no thread made the runner's 250 ms pause";
        return;
    }
    std::vector<Event> sleeps, waits, polls;
    for (const Event& e : events) {
        if (e.tid == worker)
            (e.kind == kSleep ? sleeps : waits).push_back(e);
        else if (e.tid == pid && e.kind == kSleep && e.requestedNs == kPollSleepNs)
            polls.push_back(e);
    }

    const auto [bwBegin, bwEnd] = bandwidthStretch(sleeps);
    if (bwEnd > bwBegin) {
        r.bandwidthSpanNs = sleeps[bwEnd - 1].endNs() - sleeps[bwBegin].startNs;
        // A stretch shorter than most of the run is some other 1 ms wait.
        r.bandwidthRun = r.bandwidthSpanNs > kBandwidthRunNs * 9 / 10;
    }
    auto inBandwidthRun = [&, bwBegin = bwBegin, bwEnd = bwEnd](size_t i) {
        return r.bandwidthRun && i >= bwBegin && i < bwEnd;
    };
    for (size_t i = 0; i < sleeps.size(); ++i) {
        if (inBandwidthRun(i))
            continue;
        r.pausesNs += sleeps[i].requestedNs;
        r.lateWakeNs += sleeps[i].tookNs - sleeps[i].requestedNs;
        auto& bucket = r.pausesBySize[sleeps[i].requestedNs];
        bucket.first += 1;
        bucket.second += sleeps[i].requestedNs;
    }
    if (r.bandwidthRun)
        r.pausesNs += kBandwidthRunNs;

    // Run-queue time from the first sleep to the last, less the bandwidth run's.
    int64_t firstQueued = -1, lastQueued = -1;
    for (const Event& e : sleeps) {
        if (e.queuedNs < 0)
            continue;
        if (firstQueued < 0)
            firstQueued = e.queuedNs;
        lastQueued = e.queuedNs;
    }
    r.queuedNs = firstQueued >= 0 ? lastQueued - firstQueued : 0;
    if (r.bandwidthRun && sleeps[bwBegin].queuedNs >= 0 && sleeps[bwEnd - 1].queuedNs >= 0)
        r.queuedNs -= sleeps[bwEnd - 1].queuedNs - sleeps[bwBegin].queuedNs;

    r.startupNs = sleeps.front().startNs - processStartNs;
    r.teardownNs = processStartNs + r.wallNs - sleeps.back().endNs();

    // The stretches between two sleeps, and the worker's waits inside them.
    std::vector<Gap> gaps;
    size_t w = 0;
    for (size_t i = 1; i < sleeps.size(); ++i) {
        Gap g;
        g.ns = sleeps[i].startNs - sleeps[i - 1].endNs();
        g.cpuNs = sleeps[i].cpuNs - sleeps[i - 1].cpuNs;
        g.afterRequestedNs = sleeps[i - 1].requestedNs;
        g.index = i;
        while (w < waits.size() && waits[w].startNs < sleeps[i].startNs) {
            if (waits[w].startNs >= sleeps[i - 1].endNs())
                g.waitNs[static_cast<size_t>(waits[w].kind)] += waits[w].tookNs;
            ++w;
        }
        if (inBandwidthRun(i - 1) && inBandwidthRun(i))
            continue;  // inside the bandwidth run: counted in its 8.34 s
        r.gapNs += g.ns;
        r.gapCpuNs += g.cpuNs;
        for (int k = 1; k < kWaitKinds; ++k)
            r.gapWaitNs[static_cast<size_t>(k)] += g.waitNs[static_cast<size_t>(k)];
        gaps.push_back(g);
    }
    std::sort(gaps.begin(), gaps.end(), [](const Gap& a, const Gap& b) { return a.ns > b.ns; });
    gaps.resize(std::min(gaps.size(), gapCount));
    r.longestGaps = gaps;

    if (polls.size() >= 2) {
        r.polls = static_cast<int>(polls.size());
        r.pollWallNs = polls.back().startNs - polls.front().startNs;
        r.pollCpuNs = polls.back().cpuNs - polls.front().cpuNs;
    }
    r.ok = true;
}

void printRun(int run, const RunResult& r) {
    std::printf("%4d %8.3f %8.3f %8.3f | %8.3f %8.3f %8.3f %8.3f %8.3f | %8.3f %8.3f | %8.3f %7d %8.3f%%\n",
                run, seconds(r.wallNs), seconds(r.pausesNs), seconds(r.overheadNs()),
                seconds(r.startupNs + r.teardownNs), seconds(r.lateWakeNs),
                seconds(r.bandwidthRun ? r.bandwidthSpanNs - kBandwidthRunNs : 0), seconds(r.gapCpuNs),
                seconds(r.gapNs - r.gapCpuNs), seconds(r.queuedNs), seconds(r.ownNs()),
                seconds(r.processCpuNs), r.polls, r.pollSharePercent());
    std::printf("      the worker's waits between its sleeps:");
    for (int k = 1; k < kWaitKinds; ++k)
        std::printf(" %s %.3f s%s", kWaitNames[k], seconds(r.gapWaitNs[static_cast<size_t>(k)]),
                    k + 1 < kWaitKinds ? "," : "\n");
    for (const Gap& g : r.longestGaps) {
        std::printf("      %7.3f s between sleeps #%zu and #%zu (after one of %.3f ms): CPU %.3f s",
                    seconds(g.ns), g.index - 1, g.index, static_cast<double>(g.afterRequestedNs) / kMs,
                    seconds(g.cpuNs));
        for (int k = 1; k < kWaitKinds; ++k) {
            if (g.waitNs[static_cast<size_t>(k)] > 0)
                std::printf(", %s %.3f s", kWaitNames[k], seconds(g.waitNs[static_cast<size_t>(k)]));
        }
        std::printf("\n");
    }
    std::fflush(stdout);
}

int64_t median(std::vector<int64_t> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parseOptions(argc, argv, o))
        return 2;
    o.binary = absolute(o.binary);
    o.ledgerLibrary = absolute(o.ledgerLibrary);
    o.scenario = absolute(o.scenario);

    std::printf("scenario %s, %d runs on a pseudo terminal; seconds unless marked\n", o.scenario.c_str(),
                o.runs);
    std::printf("%4s %8s %8s %8s | %8s %8s %8s %8s %8s | %8s %8s | %8s %7s %9s\n", "run", "wall", "pauses",
                "overhead", "start+end", "late", "bw last", "w. CPU", "w. off", "queued", "own", "proc CPU",
                "polls", "poll CPU");
    std::printf(
        "     overhead = wall - pauses = start+end + late wake-ups + bandwidth run's last round + the\n"
        "     worker's time between sleeps on and off CPU; queued: the worker's run-queue time (in late\n"
        "     and off), own = overhead - queued\n");
    std::vector<RunResult> results;
    for (int run = 1; run <= o.runs; ++run) {
        char work[] = "/tmp/kov_timing_XXXXXX";
        if (mkdtemp(work) == nullptr) {
            std::perror("mkdtemp");
            return 1;
        }
        const std::string ledger = std::string(work) + "/ledger.txt";
        RunResult r;
        std::string output;
        int64_t processStart = 0;
        if (runOnTerminal(o, work, ledger, r, processStart, output)) {
            int64_t pid = 0;
            std::vector<Event> events;
            if (readLedger(ledger, pid, events, r.error))
                analyse(pid, processStart, events, static_cast<size_t>(o.gaps), r);
        }
        if (!o.keep.empty()) {
            std::ofstream(o.keep + "/run" + std::to_string(run) + ".out") << output;
            std::rename(ledger.c_str(), (o.keep + "/run" + std::to_string(run) + ".ledger").c_str());
        }
        const std::string cleanup = std::string("rm -rf '") + work + "'";
        if (std::system(cleanup.c_str()) != 0)
            std::fprintf(stderr, "could not remove %s\n", work);
        if (!r.ok) {
            std::printf("%4d failed: %s\n", run, r.error.c_str());
            return 1;
        }
        printRun(run, r);
        results.push_back(r);
    }

    const RunResult& first = results.front();
    std::printf("\nthe worker's pauses by length (run 1):\n");
    for (const auto& [length, bucket] : first.pausesBySize)
        std::printf("  %10.3f ms x %5d = %8.3f s\n", static_cast<double>(length) / kMs, bucket.first,
                    seconds(bucket.second));
    if (first.bandwidthRun)
        std::printf("  bandwidth run           = %8.3f s (its 1 ms sleeps span %.3f s)\n",
                    seconds(kBandwidthRunNs), seconds(first.bandwidthSpanNs));
    std::printf("  total                   = %8.3f s\n", seconds(first.pausesNs));

    std::vector<int64_t> walls, pauses, overheads, owns, pollShares;
    int64_t worstOverhead = 0, bestOverhead = INT64_MAX;
    double worstPollShare = 0;
    for (const RunResult& r : results) {
        walls.push_back(r.wallNs);
        pauses.push_back(r.pausesNs);
        overheads.push_back(r.overheadNs());
        owns.push_back(r.ownNs());
        pollShares.push_back(static_cast<int64_t>(r.pollSharePercent() * 1000));
        worstOverhead = std::max(worstOverhead, r.overheadNs());
        bestOverhead = std::min(bestOverhead, r.overheadNs());
        worstPollShare = std::max(worstPollShare, r.pollSharePercent());
    }
    std::printf(
        "\n%d runs: wall %.3f s, pauses %.3f s (medians); overhead median %.3f s, best %.3f s, worst "
        "%.3f s; without the time queued for a core, median %.3f s; poll loop median %.3f %% of one core, "
        "worst %.3f %%\n",
        o.runs, seconds(median(walls)), seconds(median(pauses)), seconds(median(overheads)),
        seconds(bestOverhead), seconds(worstOverhead), seconds(median(owns)), median(pollShares) / 1000.0,
        worstPollShare);
    return 0;
}
