#include "ledger_analysis.h"

#include <algorithm>
#include <sstream>

namespace ledger {

const char* const kKindNames[kKinds] = {"sleep", "condition", "poll/select", "join", "command"};

namespace {

// "# pid <pid> events <n> lost <n>"
bool parseHeader(const std::string& line, Ledger& ledger, std::string& error) {
    std::istringstream in(line);
    std::string hash, pidWord, eventsWord, lostWord, rest;
    long long events = 0, lost = 0;
    if (!(in >> hash >> pidWord >> ledger.pid >> eventsWord >> events >> lostWord >> lost) || hash != "#" ||
        pidWord != "pid" || eventsWord != "events" || lostWord != "lost" || (in >> rest) || ledger.pid <= 0 ||
        events < 0 || lost < 0) {
        error = "line 1: not a ledger header (\"# pid <pid> events <n> lost <n>\")";
        return false;
    }
    if (lost != 0) {
        error = "line 1: the ledger lost " + std::to_string(lost) + " entries (it was full)";
        return false;
    }
    return true;
}

// "<tid> <start> <requested> <took> <cpu> <kind> <queued>"
bool parseEntry(const std::string& line, Event& e) {
    std::istringstream in(line);
    std::string rest;
    return static_cast<bool>(in >> e.tid >> e.startNs >> e.requestedNs >> e.tookNs >> e.cpuNs >> e.kind >>
                             e.queuedNs) &&
           !(in >> rest) && e.tid > 0 && e.tookNs >= 0 && e.cpuNs >= 0 && e.kind >= 0 && e.kind < kKinds;
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

}  // namespace

bool parseLedger(std::istream& in, Ledger& ledger, std::string& error) {
    ledger = Ledger();
    std::string line;
    if (!std::getline(in, line)) {
        error = "empty ledger (was the library preloaded?)";
        return false;
    }
    if (!parseHeader(line, ledger, error))
        return false;
    for (size_t number = 2; std::getline(in, line); ++number) {
        Event e;
        if (!parseEntry(line, e)) {
            error = "line " + std::to_string(number) + ": malformed entry \"" + line.substr(0, 80) + "\"";
            return false;
        }
        ledger.events.push_back(e);
    }
    return true;
}

Analysis analyse(const Ledger& ledger, int64_t processStartNs, int64_t wallNs, size_t gapCount) {
    Analysis r;
    r.wallNs = wallNs;
    const int64_t pid = ledger.pid;
    std::vector<Event> events = ledger.events;
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
        return r;
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
        for (int k = 1; k < kKinds; ++k)
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
    return r;
}

}  // namespace ledger
