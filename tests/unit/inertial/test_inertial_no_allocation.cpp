// The per-sample path of the inertial algorithms must not allocate: the global
// allocation functions of this executable count every call, and the updates
// run between two readings of the counter.
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>

#include "bh_input/mcu/IMU/AltitudeEstimator.h"
#include "bh_input/mcu/IMU/ComplementaryFilter.h"
#include "bh_input/mcu/IMU/FusionBias.h"
#include "bh_input/mcu/IMU/IMUStatus.h"
#include "bh_input/mcu/IMU/RTMath.h"

namespace {
std::atomic<long> g_allocations{0};

void* countedAllocation(std::size_t size) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (size == 0)
        size = 1;
    if (void* p = std::malloc(size))
        return p;
    throw std::bad_alloc();
}
}  // namespace

void* operator new(std::size_t size) {
    return countedAllocation(size);
}
void* operator new[](std::size_t size) {
    return countedAllocation(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size ? size : 1);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

void noLog(const char*, void*) {}

const int kSamples = 20000;
const double kDt = 1.0 / 800.0;

}  // namespace

TEST(InertialNoAllocation, CounterSeesAllocations) {
    const long before = g_allocations.load();
    int* p = new int(3);
    delete p;
    auto* v = new std::vector<int>(100);
    delete v;
    EXPECT_GE(g_allocations.load() - before, 3);
}

TEST(InertialNoAllocation, OrientationFilterSteps) {
    imu_tools::ComplementaryFilter f;
    f.setInitialGyroCovariance(1e-4, 1e-4, 1e-4);
    f.setInitialAccCovariance(1e-3, 1e-3, 1e-3);
    imu_tools::ComplementaryFilter classic;
    classic.setDoBiasEstimation(true);
    const RTQuaternion prior(0.9f, 0.1f, 0.2f, 0.3f);

    const long before = g_allocations.load();
    for (int i = 0; i < kSamples; i++) {
        const double t = i * kDt;
        const double ax = 0.3 * std::sin(t), ay = 0.2 * std::cos(t), az = 9.81;
        const double wx = 0.5 * std::sin(0.3 * t), wy = 1.5 * std::cos(0.2 * t), wz = 0.2;
        f.updateWithMadwick(ax, ay, az, wx, wy, wz, kDt);
        if (i % 100 == 0) {
            f.updateWithMadwick(ax, ay, az, wx, wy, wz, kDt, prior);
            f.updateWithMadwick(ax, ay, az, wx, wy, wz, 0.3, 0.1, -0.5, kDt);
        }
        classic.update(ax, ay, az, wx, wy, wz, kDt);
        classic.update(ax, ay, az, wx, wy, wz, 0.3, 0.1, -0.5, kDt);
    }
    float cov[16];
    f.getCovariance(cov);
    EXPECT_EQ(g_allocations.load() - before, 0);
    EXPECT_TRUE(std::isfinite(cov[0]));
}

TEST(InertialNoAllocation, IMUStatusCompute) {
    IMUStatus s(1000.f, 156.9064f, 800);
    s.setLogSink(noLog, nullptr);  // the owner's logger is outside this budget
    const long before = g_allocations.load();
    uint64_t t = 1000000000ull;
    for (int i = 0; i < kSamples; i++) {
        // Includes shocks, saturation and irregular gaps, so every branch runs.
        const float kick = (i % 500 == 0) ? 400.f : 0.f;
        s.compute(0.1f + kick, -0.2f, 9.81f, 0.5f * std::sin(i * 0.01f), -0.5f,
                  (i % 700 == 0) ? 1000.f : 0.2f, t);
        t += (i % 300 == 0) ? 5000000 : 1250000;
    }
    EXPECT_EQ(g_allocations.load() - before, 0);
}

TEST(InertialNoAllocation, FusionBiasUpdate) {
    FusionBias b;
    b.initialise(static_cast<float>(kDt));
    b.setInitBias(0, 0, 0);
    b.enabled = true;
    b.setup(1e-4f, 1e-4f, 1e-4f);
    const long before = g_allocations.load();
    for (int i = 0; i < kSamples; i++)
        b.update(0.01f + ((i % 1000 == 0) ? 1.f : 0.f), -0.01f, 0.02f);
    EXPECT_EQ(g_allocations.load() - before, 0);
    EXPECT_TRUE(b.updated);
}

TEST(InertialNoAllocation, AltitudeEstimate) {
    AltitudeEstimator e(0.008f, 0.09f, 0.18f, 0.25f, 0.05f);
    const long before = g_allocations.load();
    unsigned int t = 1000;
    for (int i = 0; i < kSamples; i++) {
        float accel[3] = {0.01f, 0.f, 1.f + 0.05f * std::sin(i * 0.01f)};
        float gyro[3] = {0.01f, -0.02f, 0.f};
        e.estimate(accel, gyro, i < kSamples / 2 ? 0.f : 5.f, t);
        t += 1250;
    }
    EXPECT_EQ(g_allocations.load() - before, 0);
    EXPECT_TRUE(std::isfinite(e.getAltitude()));
}
