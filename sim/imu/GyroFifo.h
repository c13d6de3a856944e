#pragma once

// The gyroscope's FIFO: up to 100 frames of x, y, z (6 bytes, each axis LSB
// first). In FIFO mode it stops taking frames when full; in stream mode the
// oldest frame goes; in bypass mode it holds nothing. Losing a frame sets the
// overrun flag until the FIFO is configured again. Reading past the last
// frame gives 0x8000 for each axis. Not thread-safe: the gyroscope holds its
// lock.

#include <cstdint>
#include <deque>
#include <functional>

namespace sim {

struct GyroFrame {
    int16_t x = 0, y = 0, z = 0;
};

class GyroFifo {
public:
    static constexpr int64_t kCapacity = 100;
    enum class Mode { Bypass, Fifo, Stream };

    // A new mode empties the FIFO and clears the overrun flag.
    void configure(Mode mode);
    Mode mode() const { return mode_; }

    // Offers `count` new frames, oldest first; `frame(i)` makes frame i of
    // them and is called only for the frames the FIFO keeps.
    void offer(int64_t count, const std::function<GyroFrame(int64_t)>& frame);

    int64_t level() const { return static_cast<int64_t>(frames_.size()); }
    bool overrun() const { return overrun_; }
    // FIFO_STATUS: bit 7 overrun, bits 6:0 frames held.
    uint8_t status() const;

    // The next byte of a FIFO_DATA burst. A frame whose first byte was read
    // leaves the FIFO; endBurst() drops what the burst left of it.
    uint8_t readByte();
    void endBurst();

private:
    Mode mode_ = Mode::Bypass;
    std::deque<GyroFrame> frames_;
    GyroFrame current_;  // the frame being read
    int cursor_ = 0;     // bytes of it read so far (0: none begun)
    bool overrun_ = false;
};

}  // namespace sim
