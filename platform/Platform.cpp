#include "platform/Platform.h"

#include <atomic>
#include <mutex>
#include <thread>

#include "platform/RealBackend.h"
#ifdef KOV_HAVE_ARGUS
#include "platform/argus/ArgusAdapter.h"
#endif

namespace platform {

int64_t RealClock::steadyNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}
int64_t RealClock::systemNanoseconds() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}
void RealClock::sleepFor(std::chrono::nanoseconds duration) {
    std::this_thread::sleep_for(duration);
}

namespace {

std::mutex& backendMutex() {
    static std::mutex m;
    return m;
}

// The installed backend. The raw pointers are what the accessors read; the
// shared pointers keep the objects alive while installed.
Backend& installed() {
    static Backend b = realBackend();
    return b;
}
std::atomic<Sys*> g_sys{nullptr};
std::atomic<Usb*> g_usb{nullptr};
std::atomic<Hid*> g_hid{nullptr};
std::atomic<Argus*> g_argus{nullptr};
std::atomic<Clock*> g_clock{nullptr};

void publish(const Backend& b) {
    g_sys.store(b.sys.get());
    g_usb.store(b.usb.get());
    g_hid.store(b.hid.get());
    g_argus.store(b.argus.get());
    g_clock.store(b.clock.get());
}

void ensureInitialised() {
    if (g_sys.load() != nullptr)
        return;
    std::lock_guard<std::mutex> lock(backendMutex());
    if (g_sys.load() == nullptr)
        publish(installed());
}

}  // namespace

namespace {
// NVIDIA's camera service where the adapter is built, else none.
std::shared_ptr<Argus> realArgus() {
#ifdef KOV_HAVE_ARGUS
    return std::make_shared<ArgusAdapter>();
#else
    return std::make_shared<NoArgus>();
#endif
}
}  // namespace

Backend realBackend() {
    static const Backend real{std::make_shared<RealSys>(), std::make_shared<RealUsb>(),
                              std::make_shared<RealHid>(), realArgus(), std::make_shared<RealClock>()};
    return real;
}

Backend install(Backend backend) {
    Backend real = realBackend();
    if (!backend.sys)
        backend.sys = real.sys;
    if (!backend.usb)
        backend.usb = real.usb;
    if (!backend.hid)
        backend.hid = real.hid;
    if (!backend.argus)
        backend.argus = real.argus;
    if (!backend.clock)
        backend.clock = real.clock;
    std::lock_guard<std::mutex> lock(backendMutex());
    Backend previous = installed();
    installed() = backend;
    publish(installed());
    return previous;
}

Backend current() {
    std::lock_guard<std::mutex> lock(backendMutex());
    return installed();
}

Sys& sys() {
    ensureInitialised();
    return *g_sys.load();
}
Usb& usb() {
    ensureInitialised();
    return *g_usb.load();
}
Hid& hid() {
    ensureInitialised();
    return *g_hid.load();
}
Argus& argus() {
    ensureInitialised();
    return *g_argus.load();
}
Clock& clock() {
    ensureInitialised();
    return *g_clock.load();
}

}  // namespace platform
