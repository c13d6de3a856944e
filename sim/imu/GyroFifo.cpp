#include "sim/imu/GyroFifo.h"

#include <algorithm>

namespace sim {

void GyroFifo::configure(Mode mode) {
    mode_ = mode;
    frames_.clear();
    overrun_ = false;
    cursor_ = 0;
}

void GyroFifo::offer(int64_t count, const std::function<GyroFrame(int64_t)>& frame) {
    if (count <= 0 || mode_ == Mode::Bypass)
        return;
    if (mode_ == Mode::Fifo) {
        const int64_t room = kCapacity - level();
        const int64_t kept = std::min(count, room);
        for (int64_t i = 0; i < kept; ++i)
            frames_.push_back(frame(i));
        if (count > room)
            overrun_ = true;
        return;
    }
    // Stream: only the newest frames can survive, so only those are made.
    if (level() + count > kCapacity)
        overrun_ = true;
    const int64_t first = std::max<int64_t>(0, count - kCapacity);
    for (int64_t i = first; i < count; ++i) {
        frames_.push_back(frame(i));
        if (level() > kCapacity)
            frames_.pop_front();
    }
}

uint8_t GyroFifo::status() const {
    return static_cast<uint8_t>((overrun_ ? 0x80 : 0x00) | (level() & 0x7F));
}

uint8_t GyroFifo::readByte() {
    if (cursor_ == 0) {
        if (frames_.empty()) {
            // An empty FIFO reads -32768 (0x8000) on every axis.
            current_ = GyroFrame{INT16_MIN, INT16_MIN, INT16_MIN};
        } else {
            current_ = frames_.front();
            frames_.pop_front();
        }
    }
    const int16_t axis = cursor_ < 2 ? current_.x : cursor_ < 4 ? current_.y : current_.z;
    const auto word = static_cast<uint16_t>(axis);
    const uint8_t byte =
        (cursor_ % 2 == 0) ? static_cast<uint8_t>(word & 0xFF) : static_cast<uint8_t>(word >> 8);
    cursor_ = (cursor_ + 1) % 6;
    return byte;
}

void GyroFifo::endBurst() {
    cursor_ = 0;
}

}  // namespace sim
