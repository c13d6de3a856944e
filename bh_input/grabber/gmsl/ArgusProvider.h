#pragma once

// ArgusProvider: the process-wide holder of the Argus camera provider. The
// first getInstance() creates the provider; DeleteInstance() destroys it, so
// that the next getInstance() starts the platform's camera service anew (after
// a freeze). Every open camera of the process and the discovery share it, with
// one state per port (0..7).

#include <cstdint>
#include <memory>
#include <mutex>

#include "platform/Argus.h"

enum ARGUS_CAMERA_STATE : int32_t {
    ARGUS_CAMERA_STATE_CLOSED = 0,
    ARGUS_CAMERA_STATE_OPENING = 1,
    ARGUS_CAMERA_STATE_RUNNING = 2,
    ARGUS_CAMERA_STATE_FROZEN = 3,
};

class ArgusProvider {
public:
    static constexpr int kPorts = 8;

    // The holder, made (and the provider created, all port states cleared) on
    // first use. Also made anew when the installed Argus seam has changed
    // since (a test swapped the backend). Never null.
    static ArgusProvider* getInstance();
    // Destroys the provider and the holder and clears all port states.
    static void DeleteInstance();

    // The Argus on which the provider was created, or null when the
    // provider interface was not available (the camera service is down).
    platform::Argus* cameraProvider() const { return created_ ? argus_.get() : nullptr; }

    // Ports outside 0..7 are ignored (getState gives 0 for them).
    static void changeState(int port, ARGUS_CAMERA_STATE state);
    static ARGUS_CAMERA_STATE getState(int port);
    static bool hasCameraOpening();
    static bool hasCameraFrozen();

    ~ArgusProvider();
    ArgusProvider(const ArgusProvider&) = delete;
    ArgusProvider& operator=(const ArgusProvider&) = delete;

private:
    explicit ArgusProvider(std::shared_ptr<platform::Argus> argus);
    static void clearStates();

    std::shared_ptr<platform::Argus> argus_;  // kept alive until the provider is destroyed on it
    bool created_ = false;

    static ArgusProvider* instance;
    static std::mutex locker;
};
