#pragma once

// The stereo grabber on a simulated camera: a machine from one inline camera
// entry (real or stepped clock), and small waits on the grabber's progress.

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "bh_input/grabber/linux/linuxStereoGrabber.h"
#include "platform/Platform.h"
#include "sim/Machine.h"
#include "sim/Simulator.h"
#include "sim/SteppedClock.h"
#include "sim/uvc/UvcCamera.h"

namespace testsupport {

struct SimCameraRig {
    std::shared_ptr<sim::Machine> machine;
    std::shared_ptr<sim::SteppedClock> clock;  // null: real time
    std::unique_ptr<platform::ScopedBackend> backend;

    // `extra` is spliced into the camera entry (e.g. "\"faults\": {...}").
    SimCameraRig(const std::string& extra, bool stepped, const std::string& product = "0xF682") {
        machine = sim::parseScenario("{\"devices\": [{\"type\": \"uvc_camera\", \"product_id\": \"" +
                                         product + "\", \"bus\": 2, \"address\": 3, \"video_node\": 0" +
                                         (extra.empty() ? "" : ", " + extra) + "}]}",
                                     "grabber-test.json");
        if (stepped) {
            clock = std::make_shared<sim::SteppedClock>();
            machine->setClock(clock);
        }
        backend = std::make_unique<platform::ScopedBackend>(sim::makeBackend(machine));
    }
    std::shared_ptr<sim::UvcCamera> camera() const {
        return std::dynamic_pointer_cast<sim::UvcCamera>(machine->videoNode(0));
    }
};

// Polls `done` in real time every millisecond, up to `ms`.
inline bool waitFor(const std::function<bool()>& done, int ms = 10000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace testsupport
