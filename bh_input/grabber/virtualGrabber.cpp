#include "bh_input/grabber/virtualGrabber.h"

#include "bh_input/mcu/KOVmcu.h"

namespace bh {

void FrameRateWindow::reset(int32_t newCapacity) {
    std::lock_guard<std::mutex> lock(mutex);
    capacity = newCapacity;
    timestamps.clear();
}

void FrameRateWindow::push(uint64_t timestampNs) {
    std::lock_guard<std::mutex> lock(mutex);
    timestamps.push_back(timestampNs);
    while (capacity > 0 && timestamps.size() > static_cast<size_t>(capacity))
        timestamps.pop_front();
}

float FrameRateWindow::fps(uint64_t nowNs, float fallback) {
    std::lock_guard<std::mutex> lock(mutex);
    if (timestamps.empty())
        return fallback;
    // Walk newest to oldest; stop at the first entry whose age reaches the
    // window (that entry counted) or at the oldest.
    int64_t k = 0;
    uint64_t age = 0;
    for (auto it = timestamps.rbegin(); it != timestamps.rend(); ++it) {
        ++k;
        age = nowNs > *it ? nowNs - *it : 0;
        if (age >= window)
            break;
    }
    // k + 2 over-counts by design; kept as it is.
    const double c = static_cast<double>(k + 2);
    if (age < window) {
        if (age > 0 && capacity > 0) {
            double rate = c * static_cast<double>(window) / static_cast<double>(age);
            if (rate > 0)
                return static_cast<float>(std::min<double>(capacity, rate));
        }
        return fallback;
    }
    double smaller = std::min<double>(c, capacity);
    if (smaller > 0)
        return static_cast<float>(smaller);
    return fallback;
}

VirtualGrabber::VirtualGrabber() = default;
VirtualGrabber::~VirtualGrabber() = default;

int VirtualGrabber::getRequestedFPS() {
    return fps;
}

void VirtualGrabber::pushError(const std::string& file, int line, const std::string& message) {
    errors.emplace_back(file + "_" + std::to_string(line), message);
}

}  // namespace bh
