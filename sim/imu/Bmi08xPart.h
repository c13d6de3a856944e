#pragma once

// What both parts of the simulated inertial chip share on the bus: 128
// one-byte registers behind an auto-incrementing pointer (a write transfer is
// the register number then data; a read returns bytes from the pointer on),
// except for port registers that a burst keeps reading or writing; silence
// (every transfer refused) for a while after a soft reset; and the chip's
// faults. Before each transfer the part produces the samples that fell since
// the last one, by platform::clock().steadyNanoseconds().

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>

#include "sim/Models.h"
#include "sim/imu/ImuFaults.h"

namespace sim {

class Bmi08xPart : public I2cChip {
public:
    bool write(const uint8_t* data, size_t length) final;
    bool read(uint8_t* data, size_t length) final;

    // Samples produced since the chip was made (as of its last transfer).
    uint64_t samplesProduced() const;
    // A register as stored, without the side effects of a read.
    uint8_t registerValue(uint8_t reg) const;
    // Transfers refused so far (silence after reset, NACK fault).
    uint64_t refusedTransfers() const;

protected:
    Bmi08xPart(std::shared_ptr<ImuFaults> faults, int64_t resetSilenceNs);

    // The hooks below run with mutex_ held.
    // Produces the samples that fell up to limitNs.
    virtual void produceUntil(int64_t limitNs) = 0;
    // The byte a read of `reg` gives, with its side effects.
    virtual uint8_t readRegister(uint8_t reg, int64_t nowNs) = 0;
    virtual void writeRegister(uint8_t reg, uint8_t value, int64_t nowNs) = 0;
    // A register whose burst does not move the pointer (a FIFO or data port).
    virtual bool isPort(uint8_t reg) const {
        (void)reg;
        return false;
    }
    // Called once at the end of every transfer that was not refused.
    virtual void endBurst() {}

    // A soft reset: the part refuses transfers until nowNs + the silence.
    void beginSilence(int64_t nowNs);

    mutable std::mutex mutex_;
    std::array<uint8_t, 128> regs_{};
    uint64_t produced_ = 0;

private:
    // Notes the transfer, produces samples, and tells whether it is refused.
    bool refuse(int64_t nowNs);

    std::shared_ptr<ImuFaults> faults_;
    int64_t resetSilenceNs_;
    int64_t silentUntilNs_ = 0;
    uint8_t pointer_ = 0;
    uint64_t refused_ = 0;
};

}  // namespace sim
