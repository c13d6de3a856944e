#pragma once

// What the inertial chip of a GMSL camera feels: a constant angular rate, the
// gravity in the chip's frame, the die temperature, and a small noise. Both
// parts of one chip read the same object, from their own threads.
//
// The noise of a sample is a function of the seed, the part, the sample's
// index and the axis only, so a run gives the same values whatever the order
// in which the parts are read.

#include <array>
#include <cstdint>
#include <mutex>

namespace sim {

class ImuMotion {
public:
    enum class Part { Accelerometer, Gyroscope };

    ImuMotion(const std::array<double, 3>& angularRateDps, const std::array<double, 3>& gravityG,
              double accNoiseMg, double gyroNoiseDps, uint32_t seed, double temperatureC);

    // Acceleration in mg of the accelerometer's sample number `index`.
    std::array<double, 3> accelerationMg(uint64_t index) const;
    // Angular rate in deg/s of the gyroscope's sample number `index`.
    std::array<double, 3> angularRateDps(uint64_t index) const;
    double temperatureC() const;

    void setAngularRate(const std::array<double, 3>& dps);
    void setGravity(const std::array<double, 3>& g);
    void setNoise(double accMg, double gyroDps);
    void setTemperature(double degC);

    // A deterministic value of mean 0 and standard deviation 1 (bounded by
    // +-3.47) for a part, sample and axis.
    static double unitNoise(uint32_t seed, Part part, uint64_t index, int axis);

private:
    mutable std::mutex mutex_;
    std::array<double, 3> rateDps_;
    std::array<double, 3> gravityG_;
    double accNoiseMg_;
    double gyroNoiseDps_;
    uint32_t seed_;
    double temperatureC_;
};

}  // namespace sim
