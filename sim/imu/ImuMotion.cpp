#include "sim/imu/ImuMotion.h"

#include <cmath>

namespace sim {

namespace {

// A well-mixed 64-bit value of a 64-bit input.
uint64_t mix(uint64_t x) {
    x += 0x9E3779B97F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

}  // namespace

ImuMotion::ImuMotion(const std::array<double, 3>& angularRateDps, const std::array<double, 3>& gravityG,
                     double accNoiseMg, double gyroNoiseDps, uint32_t seed, double temperatureC)
    : rateDps_(angularRateDps),
      gravityG_(gravityG),
      accNoiseMg_(accNoiseMg),
      gyroNoiseDps_(gyroNoiseDps),
      seed_(seed),
      temperatureC_(temperatureC) {}

double ImuMotion::unitNoise(uint32_t seed, Part part, uint64_t index, int axis) {
    uint64_t state = mix((static_cast<uint64_t>(seed) << 8) ^ (part == Part::Gyroscope ? 0x80u : 0u) ^
                         static_cast<uint64_t>(axis));
    state = mix(state ^ index);
    // The sum of four uniform values is close enough to a normal one and
    // cannot produce the outliers that would look like a fault.
    double sum = 0;
    for (int i = 0; i < 4; ++i) {
        sum += static_cast<double>(state & 0xFFFF) / 65535.0;
        state >>= 16;
    }
    return (sum - 2.0) * std::sqrt(3.0);
}

std::array<double, 3> ImuMotion::accelerationMg(uint64_t index) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::array<double, 3> out{};
    for (int a = 0; a < 3; ++a) {
        const auto i = static_cast<size_t>(a);
        out[i] = gravityG_[i] * 1000.0;
        if (accNoiseMg_ > 0)
            out[i] += accNoiseMg_ * unitNoise(seed_, Part::Accelerometer, index, a);
    }
    return out;
}

std::array<double, 3> ImuMotion::angularRateDps(uint64_t index) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::array<double, 3> out{};
    for (int a = 0; a < 3; ++a) {
        const auto i = static_cast<size_t>(a);
        out[i] = rateDps_[i];
        if (gyroNoiseDps_ > 0)
            out[i] += gyroNoiseDps_ * unitNoise(seed_, Part::Gyroscope, index, a);
    }
    return out;
}

double ImuMotion::temperatureC() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return temperatureC_;
}

void ImuMotion::setAngularRate(const std::array<double, 3>& dps) {
    std::lock_guard<std::mutex> lock(mutex_);
    rateDps_ = dps;
}

void ImuMotion::setGravity(const std::array<double, 3>& g) {
    std::lock_guard<std::mutex> lock(mutex_);
    gravityG_ = g;
}

void ImuMotion::setNoise(double accMg, double gyroDps) {
    std::lock_guard<std::mutex> lock(mutex_);
    accNoiseMg_ = accMg;
    gyroNoiseDps_ = gyroDps;
}

void ImuMotion::setTemperature(double degC) {
    std::lock_guard<std::mutex> lock(mutex_);
    temperatureC_ = degC;
}

}  // namespace sim
