#include "sim/uvc/UvcControls.h"

#include <cerrno>
#include <cstring>

namespace sim {

UvcControls::UvcControls()
    : controls_{
          {V4L2_CID_BRIGHTNESS, "Brightness", 0, 8, 1, 4, 4},
          {V4L2_CID_CONTRAST, "Contrast", 0, 8, 1, 4, 4},
          {V4L2_CID_SATURATION, "Saturation", 0, 8, 1, 4, 4},
          {V4L2_CID_HUE, "Hue", 0, 11, 1, 0, 0},
          {V4L2_CID_AUTO_WHITE_BALANCE, "White Balance, Automatic", 0, 1, 1, 1, 1},
          {V4L2_CID_GAMMA, "Gamma", 1, 9, 1, 8, 8},
          {V4L2_CID_WHITE_BALANCE_TEMPERATURE, "White Balance Temperature", 2800, 6500, 100, 4600, 4600},
      } {}

UvcControl* UvcControls::find(uint32_t id) {
    for (UvcControl& c : controls_)
        if (c.id == id)
            return &c;
    return nullptr;
}

const UvcControl* UvcControls::find(uint32_t id) const {
    for (const UvcControl& c : controls_)
        if (c.id == id)
            return &c;
    return nullptr;
}

int UvcControls::ioctl(unsigned long request, void* arg) {
    if (request == VIDIOC_QUERYCTRL) {
        auto* q = static_cast<v4l2_queryctrl*>(arg);
        const UvcControl* c = find(q->id);
        if (c == nullptr)
            return -EINVAL;
        std::memset(q, 0, sizeof *q);
        q->id = c->id;
        q->type = c->maximum == 1 && c->minimum == 0 ? V4L2_CTRL_TYPE_BOOLEAN : V4L2_CTRL_TYPE_INTEGER;
        std::strncpy(reinterpret_cast<char*>(q->name), c->name, sizeof q->name - 1);
        q->minimum = c->minimum;
        q->maximum = c->maximum;
        q->step = c->step;
        q->default_value = c->defaultValue;
        return 0;
    }
    auto* v = static_cast<v4l2_control*>(arg);
    UvcControl* c = find(v->id);
    if (c == nullptr)
        return -EINVAL;
    if (request == VIDIOC_G_CTRL) {
        v->value = c->value;
        return 0;
    }
    if (v->value < c->minimum || v->value > c->maximum)
        return -ERANGE;
    c->value = v->value;
    return 0;
}

int32_t UvcControls::value(uint32_t id) const {
    const UvcControl* c = find(id);
    return c ? c->value : -1;
}

void UvcControls::setValue(uint32_t id, int32_t v) {
    if (UvcControl* c = find(id))
        c->value = v;
}

}  // namespace sim
