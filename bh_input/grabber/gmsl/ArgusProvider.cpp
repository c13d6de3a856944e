#include "bh_input/grabber/gmsl/ArgusProvider.h"

#include <atomic>

#include "platform/Platform.h"

// Not destroyed at exit: the provider's teardown calls into the installed
// backend, which static destruction may already have taken down; the
// process's end releases the camera service anyway.
ArgusProvider* ArgusProvider::instance = nullptr;
std::mutex ArgusProvider::locker;

namespace {
// Read by the capture threads without a lock: one word per port.
std::atomic<int32_t> g_cameraStates[ArgusProvider::kPorts];
}  // namespace

ArgusProvider::ArgusProvider(std::shared_ptr<platform::Argus> argus) : argus_(std::move(argus)) {
    created_ = argus_ && argus_->createProvider();
}

ArgusProvider::~ArgusProvider() {
    if (created_)
        argus_->destroyProvider();
}

ArgusProvider* ArgusProvider::getInstance() {
    std::lock_guard<std::mutex> lock(locker);
    std::shared_ptr<platform::Argus> current = platform::current().argus;
    if (instance != nullptr && instance->argus_ != current) {
        delete instance;  // made on another backend: its provider belongs there
        instance = nullptr;
    }
    if (instance == nullptr) {
        instance = new ArgusProvider(std::move(current));
        clearStates();
    }
    return instance;
}

void ArgusProvider::DeleteInstance() {
    std::lock_guard<std::mutex> lock(locker);
    delete instance;
    instance = nullptr;
    clearStates();
}

void ArgusProvider::clearStates() {
    for (auto& state : g_cameraStates)
        state.store(ARGUS_CAMERA_STATE_CLOSED, std::memory_order_relaxed);
}

void ArgusProvider::changeState(int port, ARGUS_CAMERA_STATE state) {
    if (port >= 0 && port < kPorts)
        g_cameraStates[port].store(state, std::memory_order_relaxed);
}

ARGUS_CAMERA_STATE ArgusProvider::getState(int port) {
    if (port < 0 || port >= kPorts)
        return ARGUS_CAMERA_STATE_CLOSED;
    return static_cast<ARGUS_CAMERA_STATE>(g_cameraStates[port].load(std::memory_order_relaxed));
}

bool ArgusProvider::hasCameraOpening() {
    for (int port = 0; port < kPorts; ++port)
        if (getState(port) == ARGUS_CAMERA_STATE_OPENING)
            return true;
    return false;
}

bool ArgusProvider::hasCameraFrozen() {
    for (int port = 0; port < kPorts; ++port)
        if (getState(port) == ARGUS_CAMERA_STATE_FROZEN)
            return true;
    return false;
}
