// Per-sample cost of the inertial algorithms on the fusion thread.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "bh_input/mcu/IMU/AltitudeEstimator.h"
#include "bh_input/mcu/IMU/ComplementaryFilter.h"
#include "bh_input/mcu/IMU/FusionBias.h"
#include "bh_input/mcu/IMU/IMUStatus.h"

namespace {

struct Sample {
    float ax, ay, az, gx, gy, gz;
};

// A recorded-like stream: slow motion with a little noise, cycled through so
// that branches and low-pass states see realistic input.
std::vector<Sample> makeSamples(std::size_t n) {
    std::vector<Sample> out(n);
    uint32_t state = 1;
    auto noise = [&]() {
        state = state * 1664525u + 1013904223u;
        return (static_cast<float>(state >> 8) / 8388608.0f - 1.0f);
    };
    for (std::size_t i = 0; i < n; i++) {
        const float t = static_cast<float>(i) / 800.0f;
        out[i] = {0.3f * std::sin(t) + 0.02f * noise(),
                  0.2f * std::cos(0.7f * t) + 0.02f * noise(),
                  9.81f + 0.02f * noise(),
                  0.4f * std::sin(0.3f * t) + 0.005f * noise(),
                  0.6f * std::cos(0.2f * t) + 0.005f * noise(),
                  0.1f + 0.005f * noise()};
    }
    return out;
}

const std::vector<Sample>& samples() {
    static const std::vector<Sample> s = makeSamples(4096);
    return s;
}

void BM_UpdateWithMadwickAndCovariance(benchmark::State& state) {
    const auto& s = samples();
    imu_tools::ComplementaryFilter f;
    f.setInitialAccCovariance(1e-3, 1e-3, 1e-3);
    f.setInitialGyroCovariance(1e-4, 1e-4, 1e-4);
    f.updateWithMadwick(s[0].ax, s[0].ay, s[0].az, 0, 0, 0, 1.0 / 800);
    std::size_t i = 0;
    for (auto _ : state) {
        const Sample& x = s[i++ & 4095];
        f.updateWithMadwick(x.ax, x.ay, x.az, x.gx, x.gy, x.gz, 1.0 / 800);
        benchmark::DoNotOptimize(f.P.data());
    }
}
BENCHMARK(BM_UpdateWithMadwickAndCovariance);

// For scale: the bare Madgwick step, no low-pass, no covariance.
void BM_MadgwickStepOnly(benchmark::State& state) {
    const auto& s = samples();
    double q0 = 1, q1 = 0, q2 = 0, q3 = 0;
    std::size_t i = 0;
    for (auto _ : state) {
        const Sample& x = s[i++ & 4095];
        benchmark::DoNotOptimize(imu_tools::MadgwickAHRSupdateIMUAdaptative(q0, q1, q2, q3, x.gx, x.gy, x.gz,
                                                                            x.ax, x.ay, x.az, 800.f));
        benchmark::DoNotOptimize(q0);
    }
}
BENCHMARK(BM_MadgwickStepOnly);

void noLog(const char*, void*) {}

void BM_IMUStatusCompute(benchmark::State& state) {
    const auto& s = samples();
    IMUStatus status(1000.f, 156.9064f, 800);
    status.setLogSink(noLog, nullptr);
    uint64_t t = 1000000000ull;
    std::size_t i = 0;
    for (auto _ : state) {
        const Sample& x = s[i++ & 4095];
        status.compute(x.ax, x.ay, x.az, x.gx * 57.3f, x.gy * 57.3f, x.gz * 57.3f, t);
        t += 1250000;
        benchmark::DoNotOptimize(status.status);
    }
}
BENCHMARK(BM_IMUStatusCompute);

void BM_FusionBiasUpdate(benchmark::State& state) {
    const auto& s = samples();
    FusionBias b;
    b.initialise(1.0f / 800);
    b.setInitBias(0, 0, 0);
    b.enabled = true;
    b.setup(1e-4f, 1e-4f, 1e-4f);
    std::size_t i = 0;
    std::size_t steady = 0;
    for (auto _ : state) {
        const Sample& x = s[i++ & 4095];
        // Still-sensor rates (the tracker's working case): an offset with
        // small noise and drift, inside the gates.
        b.update(0.01f + 0.1f * (x.gz - 0.1f), -0.01f + 0.01f * x.gy, 0.02f + 0.01f * (x.az - 9.81f));
        steady += b.steady ? 1 : 0;
        benchmark::DoNotOptimize(b.bias);
    }
    state.counters["steady_fraction"] = static_cast<double>(steady) / static_cast<double>(i ? i : 1);
}
BENCHMARK(BM_FusionBiasUpdate);

void BM_AltitudeEstimatorEstimate(benchmark::State& state) {
    const auto& s = samples();
    AltitudeEstimator e(0.008f, 0.09f, 0.18f, 0.25f, 0.05f);
    unsigned int t = 1000;
    std::size_t i = 0;
    for (auto _ : state) {
        const Sample& x = s[i++ & 4095];
        float accel[3] = {x.ax / 9.81f, x.ay / 9.81f, x.az / 9.81f};
        float gyro[3] = {x.gx, x.gy, x.gz};
        e.estimate(accel, gyro, 0.5f, t);
        t += 1250;
        benchmark::DoNotOptimize(e.altitude);
    }
}
BENCHMARK(BM_AltitudeEstimatorEstimate);

}  // namespace

BENCHMARK_MAIN();
