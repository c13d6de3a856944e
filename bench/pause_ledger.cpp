// Pause ledger: a library preloaded (LD_PRELOAD) into the diagnostic tool that
// records every sleep the process takes, whatever the sleep point:
// std::this_thread::sleep_for and the real platform clock both end in
// nanosleep; the C library's usleep and clock_nanosleep are caught too. It
// also records the blocking waits that are not sleeps (condition variables,
// poll and select, thread joins, commands), so that the time a thread spends
// between two of its sleeps can be told apart into work and waiting.
//
// Nothing is recorded unless KOV_PAUSE_LEDGER names a file. The file is
// written when the process ends: a first line "# pid <pid> events <n> lost
// <n>", then one line per entry:
//
//   <thread id> <start ns> <requested ns> <took ns> <thread CPU ns at start> <kind> <queued ns>
//
// - kind: 0 sleep, 1 condition variable, 2 poll or select, 3 thread join,
//   4 command (a wait for a child, or a pipe from popen to pclose);
// - requested: the sleep's length, or the wait's time-out (-1 for none);
// - times are CLOCK_MONOTONIC; the thread CPU time (CLOCK_THREAD_CPUTIME_ID)
//   tells what a thread spent between two entries;
// - queued: before each sleep of 1 ms or more, the time the thread has spent
//   so far runnable but waiting for a core (the kernel's schedstat); -1
//   elsewhere.
//
// bench/ledger_analysis.cpp reads the file.
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {

struct Event {
    int64_t tid;
    int64_t startNs;
    int64_t requestedNs;
    int64_t tookNs;
    int64_t cpuNs;
    int kind;
    int64_t queuedNs;
    std::atomic<bool> complete;
};

enum Kind { kSleep = 0, kCondition = 1, kPoll = 2, kJoin = 3, kChild = 4 };

// Room for a diagnosis many times over (it makes some tens of thousands of
// entries); the array is zero-filled memory that the kernel maps only where
// it is touched.
constexpr size_t kCapacity = size_t{1} << 20;
Event events[kCapacity];
std::atomic<size_t> used{0};
std::atomic<size_t> lost{0};
std::atomic<bool> enabled{false};
char ledgerPath[4096];  // the file to write, kept from the environment

using NanosleepFn = int (*)(const timespec*, timespec*);
using ClockNanosleepFn = int (*)(clockid_t, int, const timespec*, timespec*);
using UsleepFn = int (*)(useconds_t);

NanosleepFn realNanosleep = nullptr;
ClockNanosleepFn realClockNanosleep = nullptr;
UsleepFn realUsleep = nullptr;

int64_t nowNs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// The calling thread's schedstat file, opened once and read again from its
// start each time (a few microseconds).
struct SchedStat {
    int fd = -1;
    ~SchedStat() {
        if (fd >= 0)
            close(fd);
    }
};
thread_local SchedStat schedStat;

// Time the calling thread has spent waiting on a run queue, from the second
// field of /proc/thread-self/schedstat; -1 when it cannot be read.
int64_t readQueuedNs() {
    if (schedStat.fd < 0)
        schedStat.fd = open("/proc/thread-self/schedstat", O_RDONLY | O_CLOEXEC);
    char text[128];
    const ssize_t n = schedStat.fd < 0 ? -1 : pread(schedStat.fd, text, sizeof text - 1, 0);
    if (n <= 0)
        return -1;
    text[n] = '\0';
    long long running = 0, waiting = -1;
    if (std::sscanf(text, "%lld %lld", &running, &waiting) != 2)
        return -1;
    return waiting;
}

int64_t toNs(const timespec* ts) {
    return ts == nullptr ? 0 : static_cast<int64_t>(ts->tv_sec) * 1000000000 + ts->tv_nsec;
}

// Opens an entry before the sleep or wait; null when the ledger is off or full.
Event* begin(int64_t requestedNs, int kind = kSleep) {
    if (!enabled.load(std::memory_order_relaxed))
        return nullptr;
    const size_t index = used.fetch_add(1, std::memory_order_relaxed);
    if (index >= kCapacity) {
        lost.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
    }
    Event* e = &events[index];
    e->tid = static_cast<int64_t>(syscall(SYS_gettid));
    e->requestedNs = requestedNs;
    e->kind = kind;
    e->queuedNs = kind == kSleep && requestedNs >= 1000000 ? readQueuedNs() : -1;
    e->cpuNs = nowNs(CLOCK_THREAD_CPUTIME_ID);
    e->startNs = nowNs(CLOCK_MONOTONIC);
    return e;
}

// Commands run through popen: the entry opened by popen, closed by pclose.
struct OpenPipe {
    std::FILE* file;
    Event* event;
};
std::mutex pipesMutex;
OpenPipe pipes[64];

void end(Event* e) {
    if (e == nullptr)
        return;
    e->tookNs = nowNs(CLOCK_MONOTONIC) - e->startNs;
    e->complete.store(true, std::memory_order_release);
}

template <typename Fn>
Fn next(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

void resolve() {
    if (realNanosleep == nullptr)
        realNanosleep = reinterpret_cast<NanosleepFn>(dlsym(RTLD_NEXT, "nanosleep"));
    if (realClockNanosleep == nullptr)
        realClockNanosleep = reinterpret_cast<ClockNanosleepFn>(dlsym(RTLD_NEXT, "clock_nanosleep"));
    if (realUsleep == nullptr)
        realUsleep = reinterpret_cast<UsleepFn>(dlsym(RTLD_NEXT, "usleep"));
}

__attribute__((constructor)) void startLedger() {
    resolve();
    const char* path = std::getenv("KOV_PAUSE_LEDGER");
    if (path == nullptr || *path == '\0')
        return;
    const int length = std::snprintf(ledgerPath, sizeof ledgerPath, "%s", path);
    if (length < 0 || static_cast<size_t>(length) >= sizeof ledgerPath) {
        std::fprintf(stderr, "pause ledger: the path in KOV_PAUSE_LEDGER is too long\n");
        return;
    }
    // The commands the tool runs are not measured, and must not write the
    // file in their turn: they do not inherit the ledger.
    unsetenv("KOV_PAUSE_LEDGER");
    unsetenv("LD_PRELOAD");
    enabled = true;
}

// Runs after the program's own static destructors: the preloaded library is
// the last one finalised.
__attribute__((destructor)) void writeLedger() {
    if (!enabled.exchange(false))
        return;
    const char* path = ledgerPath;
    std::FILE* out = std::fopen(path, "w");
    if (out == nullptr) {
        std::fprintf(stderr, "pause ledger: cannot write %s\n", path);
        return;
    }
    size_t count = used.load();
    if (count > kCapacity)
        count = kCapacity;
    std::fprintf(out, "# pid %d events %zu lost %zu\n", static_cast<int>(getpid()), count, lost.load());
    for (size_t i = 0; i < count; ++i) {
        const Event& e = events[i];
        if (!e.complete.load(std::memory_order_acquire))
            continue;  // a sleep still under way on a thread that outlives main
        std::fprintf(out, "%lld %lld %lld %lld %lld %d %lld\n", static_cast<long long>(e.tid),
                     static_cast<long long>(e.startNs), static_cast<long long>(e.requestedNs),
                     static_cast<long long>(e.tookNs), static_cast<long long>(e.cpuNs), e.kind,
                     static_cast<long long>(e.queuedNs));
    }
    std::fclose(out);
}

}  // namespace

extern "C" {

int nanosleep(const timespec* request, timespec* remaining) {
    resolve();
    Event* e = begin(toNs(request));
    const int result = realNanosleep(request, remaining);
    const int savedErrno = errno;
    end(e);
    errno = savedErrno;
    return result;
}

int clock_nanosleep(clockid_t clock, int flags, const timespec* request, timespec* remaining) {
    resolve();
    int64_t requested = toNs(request);
    if ((flags & TIMER_ABSTIME) != 0)
        requested -= nowNs(clock);
    Event* e = begin(requested);
    // clock_nanosleep reports errors by its result, not by errno.
    const int result = realClockNanosleep(clock, flags, request, remaining);
    end(e);
    return result;
}

int usleep(useconds_t microseconds) {
    resolve();
    Event* e = begin(static_cast<int64_t>(microseconds) * 1000);
    const int result = realUsleep(microseconds);
    const int savedErrno = errno;
    end(e);
    errno = savedErrno;
    return result;
}

// Waits. Only calls that may block are recorded: a poll or select with a
// zero time-out is a check, not a wait.

int pthread_cond_wait(pthread_cond_t* condition, pthread_mutex_t* mutex) {
    static const auto real = next<decltype(&pthread_cond_wait)>("pthread_cond_wait");
    Event* e = begin(-1, kCondition);
    const int result = real(condition, mutex);
    end(e);
    return result;
}

int pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex, const timespec* deadline) {
    static const auto real = next<decltype(&pthread_cond_timedwait)>("pthread_cond_timedwait");
    Event* e = begin(-1, kCondition);
    const int result = real(condition, mutex, deadline);
    end(e);
    return result;
}

int pthread_cond_clockwait(pthread_cond_t* condition, pthread_mutex_t* mutex, clockid_t clock,
                           const timespec* deadline) {
    static const auto real = next<decltype(&pthread_cond_clockwait)>("pthread_cond_clockwait");
    Event* e = begin(toNs(deadline) - nowNs(clock), kCondition);
    const int result = real(condition, mutex, clock, deadline);
    end(e);
    return result;
}

int poll(pollfd* fds, nfds_t count, int timeoutMs) {
    static const auto real = next<decltype(&poll)>("poll");
    Event* e = timeoutMs == 0 ? nullptr : begin(timeoutMs < 0 ? -1 : int64_t{timeoutMs} * 1000000, kPoll);
    const int result = real(fds, count, timeoutMs);
    const int savedErrno = errno;
    end(e);
    errno = savedErrno;
    return result;
}

int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask) {
    static const auto real = next<decltype(&ppoll)>("ppoll");
    const bool check = timeout != nullptr && toNs(timeout) == 0;
    Event* e = check ? nullptr : begin(timeout == nullptr ? -1 : toNs(timeout), kPoll);
    const int result = real(fds, count, timeout, mask);
    const int savedErrno = errno;
    end(e);
    errno = savedErrno;
    return result;
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* failed, timeval* timeout) {
    static const auto real = next<decltype(&select)>("select");
    const int64_t timeoutNs =
        timeout == nullptr ? -1
                           : static_cast<int64_t>(timeout->tv_sec) * 1000000000 + timeout->tv_usec * 1000;
    Event* e = timeoutNs == 0 ? nullptr : begin(timeoutNs, kPoll);
    const int result = real(count, readable, writable, failed, timeout);
    const int savedErrno = errno;
    end(e);
    errno = savedErrno;
    return result;
}

int pthread_join(pthread_t thread, void** value) {
    static const auto real = next<decltype(&pthread_join)>("pthread_join");
    Event* e = begin(-1, kJoin);
    const int result = real(thread, value);
    end(e);
    return result;
}

std::FILE* popen(const char* command, const char* mode) {
    static const auto real = next<decltype(&popen)>("popen");
    Event* e = begin(-1, kChild);
    std::FILE* file = real(command, mode);
    if (e != nullptr) {
        const std::lock_guard<std::mutex> lock(pipesMutex);
        for (OpenPipe& p : pipes) {
            if (p.file == nullptr && file != nullptr) {
                p = {file, e};
                return file;
            }
        }
        end(e);  // no room to follow it, or it failed: the entry covers popen only
    }
    return file;
}

int pclose(std::FILE* file) {
    static const auto real = next<decltype(&pclose)>("pclose");
    const int result = real(file);
    const std::lock_guard<std::mutex> lock(pipesMutex);
    for (OpenPipe& p : pipes) {
        if (p.file == file && file != nullptr) {
            end(p.event);
            p = {nullptr, nullptr};
        }
    }
    return result;
}

pid_t waitpid(pid_t pid, int* status, int options) {
    static const auto real = next<decltype(&waitpid)>("waitpid");
    Event* e = (options & WNOHANG) != 0 ? nullptr : begin(-1, kChild);
    const pid_t result = real(pid, status, options);
    const int savedErrno = errno;
    end(e);
    errno = savedErrno;
    return result;
}

}  // extern "C"
