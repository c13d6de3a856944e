#pragma once

// Reaches the private state of bh::LinuxStereoGrabber for unit tests (the
// class names this one as its friend).

#include "bh_input/grabber/linux/linuxStereoGrabber.h"

namespace bh {

class LinuxStereoGrabberTestAccess {
public:
    static void setFd(LinuxStereoGrabber& g, int fd) { g.fd = fd; }
    static int fd(const LinuxStereoGrabber& g) { return g.fd; }
    static void setFirstFrameSeen(LinuxStereoGrabber& g, bool seen) { g.first_frame_seen.store(seen); }
    static void setCurrentFps(LinuxStereoGrabber& g, int fps) { g.current_fps = fps; }
    static void setExposureLocked(LinuxStereoGrabber& g, bool locked) { g.exposure_locked.store(locked); }
    static void setLockCount(LinuxStereoGrabber& g, int sensor, uint8_t count) {
        g.ispl_lock_count[sensor & 1] = count;
    }
};

}  // namespace bh
