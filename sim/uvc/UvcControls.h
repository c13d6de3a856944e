#pragma once

// The image controls of the simulated camera's video node, as the driver
// exposes the processing unit: VIDIOC_QUERYCTRL, VIDIOC_G_CTRL and
// VIDIOC_S_CTRL over a fixed table (brightness, contrast, saturation, hue,
// auto white balance, gamma, white balance temperature). Not thread-safe: the
// camera calls it under its own mutex.

#include <linux/videodev2.h>

#include <cstdint>
#include <vector>

namespace sim {

struct UvcControl {
    uint32_t id;
    const char* name;
    int32_t minimum, maximum, step, defaultValue;
    int32_t value;
};

class UvcControls {
public:
    UvcControls();
    // 0 or -errno (EINVAL for an unknown control, ERANGE for a value outside
    // the range), as the driver answers.
    int ioctl(unsigned long request, void* arg);
    static bool handles(unsigned long request) {
        return request == VIDIOC_QUERYCTRL || request == VIDIOC_G_CTRL || request == VIDIOC_S_CTRL;
    }
    // The current value of a control, or -1 for an unknown one (tests).
    int32_t value(uint32_t id) const;
    void setValue(uint32_t id, int32_t value);

private:
    UvcControl* find(uint32_t id);
    const UvcControl* find(uint32_t id) const;
    std::vector<UvcControl> controls_;
};

}  // namespace sim
