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
#include <string>
#include <vector>

#include "ledger_analysis.h"

namespace {

using namespace ledger;

struct Options {
    std::string binary;
    std::string ledgerLibrary;
    std::string scenario = "sim/scenarios/kov_pico_usb3.json";
    int runs = 5;
    int gaps = 0;
    std::vector<std::string> env;
    std::string keep;
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

// One run of the tool: its process, then the analysis of its ledger.
struct RunResult : Analysis {
    int64_t processCpuNs = 0;
};

// What the process did, as seen from outside.
struct Process {
    std::string error;
    int64_t startNs = 0, wallNs = 0, cpuNs = 0;
    std::string output;
};

// Starts the tool on a new pseudo terminal and keeps what it prints until it
// ends; fills the start time, the wall time and the CPU time.
bool runOnTerminal(const Options& o, const std::string& work, const std::string& ledger, Process& r) {
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        r.error = "no pseudo terminal";
        return false;
    }
    const std::string slave = ptsname(master);
    r.startNs = monotonicNs();
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
            r.output.append(buffer, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        break;  // EIO: the last holder of the terminal has gone
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    r.wallNs = monotonicNs() - r.startNs;
    close(master);
    r.cpuNs = (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1000000000LL +
              (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1000LL;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        r.error = "the tool ended with status " + std::to_string(status);
        return false;
    }
    return true;
}

bool readLedger(const std::string& path, Ledger& ledger, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "no ledger written (was the library preloaded?)";
        return false;
    }
    if (!parseLedger(in, ledger, error)) {
        error = path + ": " + error;
        return false;
    }
    return true;
}

void printRun(int run, const RunResult& r) {
    std::printf("%4d %8.3f %8.3f %8.3f | %8.3f %8.3f %8.3f %8.3f %8.3f | %8.3f %8.3f | %8.3f %7d %8.3f%%\n",
                run, seconds(r.wallNs), seconds(r.pausesNs), seconds(r.overheadNs()),
                seconds(r.startupNs + r.teardownNs), seconds(r.lateWakeNs),
                seconds(r.bandwidthRun ? r.bandwidthSpanNs - kBandwidthRunNs : 0), seconds(r.gapCpuNs),
                seconds(r.gapNs - r.gapCpuNs), seconds(r.queuedNs), seconds(r.ownNs()),
                seconds(r.processCpuNs), r.polls, r.pollSharePercent());
    std::printf("      the worker's waits between its sleeps:");
    for (int k = 1; k < kKinds; ++k)
        std::printf(" %s %.3f s%s", kKindNames[k], seconds(r.gapWaitNs[static_cast<size_t>(k)]),
                    k + 1 < kKinds ? "," : "\n");
    for (const Gap& g : r.longestGaps) {
        std::printf("      %7.3f s between sleeps #%zu and #%zu (after one of %.3f ms): CPU %.3f s",
                    seconds(g.ns), g.index - 1, g.index, static_cast<double>(g.afterRequestedNs) / kMs,
                    seconds(g.cpuNs));
        for (int k = 1; k < kKinds; ++k) {
            if (g.waitNs[static_cast<size_t>(k)] > 0)
                std::printf(", %s %.3f s", kKindNames[k], seconds(g.waitNs[static_cast<size_t>(k)]));
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
    for (const std::string& file : {o.binary, o.ledgerLibrary, o.scenario}) {
        if (access(file.c_str(), R_OK) != 0) {
            std::fprintf(stderr, "diagnosis_timing: cannot read %s\n", file.c_str());
            return 2;
        }
    }

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
        Process process;
        Ledger record;
        if (!runOnTerminal(o, work, ledger, process))
            r.error = process.error;
        else if (readLedger(ledger, record, r.error))
            static_cast<Analysis&>(r) =
                analyse(record, process.startNs, process.wallNs, static_cast<size_t>(o.gaps));
        r.processCpuNs = process.cpuNs;
        if (!o.keep.empty()) {
            std::ofstream(o.keep + "/run" + std::to_string(run) + ".out") << process.output;
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
