#pragma once

// The accelerometer part of the simulated inertial chip (I2C address 0x18).
// Its registers, reset values, power modes, data-ready flags, temperature,
// sensor time and feature-config port follow the chip's public register map;
// samples come from the shared motion model at the rate of ACC_CONF, by the
// part's own oscillator, while it is powered (PWR_CTRL 0x04, PWR_CONF 0x00).

#include <cstdint>
#include <memory>
#include <vector>

#include "sim/imu/Bmi08xPart.h"
#include "sim/imu/ImuMotion.h"
#include "sim/imu/ImuSampleClock.h"

namespace sim {

class Bmi08xAccel final : public Bmi08xPart {
public:
    static constexpr uint8_t kChipId = 0x1E;
    static constexpr int64_t kResetSilenceNs = 1000000;  // 1 ms

    Bmi08xAccel(std::shared_ptr<ImuMotion> motion, std::shared_ptr<ImuFaults> faults, double driftPpm,
                uint8_t chipId = kChipId);

    // What ACC_CHIP_ID reads (a wrong chip answers something else).
    void setChipId(uint8_t id);

    // The state as of the last transfer (the accessors do not produce samples).
    double rateHz() const;           // nominal output data rate; 0 while not producing
    double effectiveRateHz() const;  // with the oscillator's drift
    double rangeG() const;           // 3, 6, 12 or 24
    bool producing() const;
    // The feature-config memory as written through the data port, from
    // position 0, and the number of bytes written since the last reset.
    std::vector<uint8_t> featureConfig() const;
    uint64_t featureBytesWritten() const;
    // The last value written to ACC_INIT_CTRL (-1: none since reset).
    int initCtrl() const;

    // Raw count of an acceleration in mg at a range setting (0..3), rounded
    // and saturated at int16.
    static int16_t countsOf(double mg, int range);
    // TEMP_MSB and TEMP_LSB of a temperature.
    static void temperatureBytes(double degC, uint8_t& msb, uint8_t& lsb);

private:
    void produceUntil(int64_t limitNs) override;
    uint8_t readRegister(uint8_t reg, int64_t nowNs) override;
    void writeRegister(uint8_t reg, uint8_t value, int64_t nowNs) override;
    bool isPort(uint8_t reg) const override;
    void endBurst() override;

    void reset();
    void writeConfig(uint8_t value, int64_t nowNs);
    // Starts, retimes or stops the oscillator after a power or rate change.
    void updateSampling(int64_t nowNs);
    size_t featurePosition() const;
    uint8_t sensorTimeByte(int index, int64_t nowNs) const;

    std::shared_ptr<ImuMotion> motion_;
    double drift_;
    uint8_t chipId_;
    ImuSampleClock clock_;
    double odrHz_ = 100;    // the last valid ACC_CONF rate
    bool newData_ = false;  // ACC_STATUS bit 7
    bool dataInt_ = false;  // ACC_INT_STAT_1 bit 7
    std::vector<uint8_t> featureConfig_;
    size_t portOffset_ = 0;  // bytes moved through the data port in this burst
    uint64_t featureBytes_ = 0;
    int initCtrl_ = -1;
};

}  // namespace sim
