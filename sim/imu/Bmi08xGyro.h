#pragma once

// The gyroscope part of the simulated inertial chip (I2C address 0x68): its
// registers, reset values, power modes, ranges and output data rates follow
// the chip's public register map. Samples come from the shared motion model
// by the part's own oscillator, go to the data registers and, in FIFO or
// stream mode, into the FIFO. With external FIFO sync on INT3, the least
// significant bit of each z value put into the FIFO tells whether the camera
// started a frame during that sample's period (GmslFrameSync).

#include <cstdint>
#include <memory>

#include "sim/argus/GmslFrameSync.h"
#include "sim/imu/Bmi08xPart.h"
#include "sim/imu/GyroFifo.h"
#include "sim/imu/ImuMotion.h"
#include "sim/imu/ImuSampleClock.h"

namespace sim {

class Bmi08xGyro final : public Bmi08xPart {
public:
    static constexpr uint8_t kChipId = 0x0F;
    static constexpr int64_t kResetSilenceNs = 30000000;  // 30 ms

    Bmi08xGyro(std::shared_ptr<ImuMotion> motion, std::shared_ptr<ImuFaults> faults,
               std::shared_ptr<GmslFrameSync> frameSync, double driftPpm, uint8_t chipId = kChipId);

    void setChipId(uint8_t id);

    // The state as of the last transfer (the accessors do not produce samples).
    double rateHz() const;           // nominal output data rate; 0 while not producing
    double effectiveRateHz() const;  // with the oscillator's drift
    double rangeDps() const;         // 2000, 1000, 500, 250 or 125
    int64_t fifoLevel() const;
    bool fifoOverrun() const;
    GyroFifo::Mode fifoMode() const;
    // Samples put into the FIFO with the sync bit set.
    uint64_t syncMarks() const;

    // Raw count of an angular rate at a full scale in deg/s, rounded and
    // saturated at int16.
    static int16_t countsOf(double dps, double rangeDps);

private:
    void produceUntil(int64_t limitNs) override;
    uint8_t readRegister(uint8_t reg, int64_t nowNs) override;
    void writeRegister(uint8_t reg, uint8_t value, int64_t nowNs) override;
    bool isPort(uint8_t reg) const override;
    void endBurst() override;

    void reset(int64_t runFromNs);
    void writeBandwidth(uint8_t value, int64_t nowNs);
    void writeFifoConfig1(uint8_t value);
    void updateSampling(int64_t nowNs);
    GyroFrame frameOf(uint64_t index, int64_t sampleK, bool syncOn);
    bool syncOnInt3() const;
    uint8_t intStatus1() const;

    std::shared_ptr<ImuMotion> motion_;
    std::shared_ptr<GmslFrameSync> frameSync_;
    uint8_t chipId_;
    ImuSampleClock clock_;
    GyroFifo fifo_;
    double odrHz_ = 2000;
    double rangeDps_ = 2000;
    bool newData_ = false;    // GYRO_INT_STAT_1 bit 7
    bool poweredUp_ = false;  // the oscillator starts at the first transfer
    uint64_t syncMarks_ = 0;
};

}  // namespace sim
