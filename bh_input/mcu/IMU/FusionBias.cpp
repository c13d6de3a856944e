#include "bh_input/mcu/IMU/FusionBias.h"

#include <cmath>
#include <limits>

namespace {
// Gain of the bias update per second of samples (2 pi / 30).
constexpr float kBiasGainPerSecond = 0.2094395211624412f;
}  // namespace

void FusionBias::initialise(float sample_period) {
    dt = sample_period;
    stationary_time = 0.f;
    steady = false;
    for (int i = 0; i < 3; i++) {
        bias[i] = 0.f;
        previous[i] = 0.f;
    }
}

void FusionBias::setInitBias(float x, float y, float z) {
    bias[0] = x;
    bias[1] = y;
    bias[2] = z;
}

void FusionBias::setup(float vx, float vy, float vz) {
    variance[0] = vx;
    variance[1] = vy;
    variance[2] = vz;
    for (int i = 0; i < 3; i++) {
        const float spread = std::sqrt(2.0f * variance[i]);
        gate[i] = 3.0f * spread;
        inverse_spread[i] = spread > 0.f ? 1.0f / spread : std::numeric_limits<float>::infinity();
        bias_min[i] = -0.1f;
        bias_max[i] = 0.1f;
        previous[i] = 0.f;
    }
    clearCounters();
    stationary_time = 0.f;
    steady = false;
    refine = false;
    updated = false;
}

void FusionBias::clearCounters() {
    for (int i = 0; i < 3; i++) {
        in_band[i] = 0;
        total[i] = 0;
    }
}

void FusionBias::update(float x, float y, float z) {
    if (!enabled)
        return;

    const float sample[3] = {x, y, z};
    float deviation[3];
    for (int i = 0; i < 3; i++) {
        LowPass& lp = low_pass[i];
        if (!lp.seeded) {
            lp.value = sample[i];
            lp.seeded = true;
        } else {
            lp.value = lp.alpha * sample[i] + (1.0f - lp.alpha) * lp.value;
        }
        deviation[i] = std::fabs(sample[i] - lp.value);
    }

    update_state(x - previous[0], y - previous[1], z - previous[2], deviation[0], deviation[1], deviation[2]);

    // A rate that far from the bias is motion, whatever the statistics said.
    for (int i = 0; i < 3; i++) {
        if (std::fabs(sample[i] - bias[i]) > 3.0f * gate[i]) {
            stationary_time = 0.f;
            steady = false;
            refine = false;
            clearCounters();
            for (int j = 0; j < 3; j++)
                previous[j] = sample[j];
            return;
        }
    }

    if (steady) {
        const float gain = dt * kBiasGainPerSecond;
        for (int i = 0; i < 3; i++) {
            bias[i] = bias[i] + gain * (sample[i] - bias[i]);
            if (bias[i] < bias_min[i])
                bias[i] = bias_min[i];
            if (bias[i] > bias_max[i])
                bias[i] = bias_max[i];
        }
        updated = true;
    }

    for (int i = 0; i < 3; i++)
        previous[i] = sample[i];
}

void FusionBias::update_state(float dx, float dy, float dz, float rx, float ry, float rz) {
    steady = false;
    refine = false;
    stationary_time += dt;

    const float d[3] = {dx, dy, dz};
    const float r[3] = {rx, ry, rz};
    for (int i = 0; i < 3; i++) {
        if (std::fabs(d[i]) < gate[i])
            in_band[i]++;
        total[i]++;
    }

    for (int i = 0; i < 3; i++) {
        if (std::fabs(d[i]) * inverse_spread[i] > normalised_limit || r[i] > gate[i]) {
            stationary_time = 0.f;
            clearCounters();
            return;
        }
    }

    float ratio[3];
    for (int i = 0; i < 3; i++)
        ratio[i] = static_cast<float>(in_band[i]) / static_cast<float>(total[i]);

    if (ratio[0] > steady_ratio && ratio[1] > steady_ratio && ratio[2] > steady_ratio &&
        stationary_time >= 1.0f)
        steady = true;

    if (ratio[0] > refine_ratio && ratio[1] > refine_ratio && ratio[2] > refine_ratio) {
        if (stationary_time >= 1.0f)
            refine = true;
        return;
    }

    stationary_time = 0.f;
    steady = false;
    clearCounters();
}

void FusionBias::reset() {
    clearCounters();
    stationary_time = 0.f;
    steady = false;
    refine = false;
    for (int i = 0; i < 3; i++)
        previous[i] = 0.f;
}

void FusionBias::dynamic_motion_reset() {
    clearCounters();
    stationary_time = 0.f;
    steady = false;
    refine = false;
}

bool FusionBias::isActive() const {
    return stationary_time >= 1.0f;
}

void FusionBias::close() {}
