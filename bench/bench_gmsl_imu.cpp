// One merge step of the GMSL inertial reader: a gyroscope sample against the
// two oldest accelerometer samples. Measured as the pure step alone, and as
// the reader's round on its queues (the shared-pointer allocation of the
// merged sample, three queue locks); beside it two yardsticks of the same
// run, a bare interpolation of three int16 axes and a std::deque push/pop of
// a shared_ptr sample, so the figures can be read against the machine.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <deque>
#include <memory>

#include "bh_input/mcu/IMU/IMUGMSLReader.h"

namespace {

bmi08x_sensor_data sample(uint64_t t, int16_t x, int16_t y, int16_t z) {
    bmi08x_sensor_data s;
    s.timestamp = t;
    s.x = x;
    s.y = y;
    s.z = z;
    return s;
}

void BM_GmslMergeStep_Pure(benchmark::State& state) {
    const bmi08x_sensor_data a0 = sample(1000000, 120, -340, 2048);
    const bmi08x_sensor_data a1 = sample(1005000, 180, -300, 2050);
    bmi08x_sensor_data g = sample(1000000, 11, 22, 33);
    bmi08x_full_sensor_data out;
    uint64_t offset = 0;
    for (auto _ : state) {
        g.timestamp = 1000000 + offset;  // walks across the interval
        offset = (offset + 2500) % 5000;
        benchmark::DoNotOptimize(gmslMergeStep(g, a0, a1, out));
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_GmslMergeStep_Pure);

void BM_GmslMergeOnce_Queues(benchmark::State& state) {
    IMUGMSLReader reader(false, 0x2B03, 0xA081);
    reader.acc_queue.push(std::make_shared<bmi08x_sensor_data>(sample(1000000, 120, -340, 2048)));
    reader.acc_queue.push(std::make_shared<bmi08x_sensor_data>(sample(1005000, 180, -300, 2050)));
    auto gyro = std::make_shared<bmi08x_sensor_data>(sample(1002500, 11, 22, 33));
    const std::chrono::microseconds no_wait(0);
    for (auto _ : state) {
        reader.gyro_queue.push(gyro);
        if (reader.mergeOnce(no_wait) != IMUGMSLReader::MergeOutcome::Merged) {
            state.SkipWithError("the step did not merge");
            break;
        }
        benchmark::DoNotOptimize(reader.merged_queue.pop());
    }
}
BENCHMARK(BM_GmslMergeOnce_Queues);

// Yardstick: the arithmetic of the step without its decisions.
void BM_Yardstick_LerpThreeAxes(benchmark::State& state) {
    int16_t a0[3] = {120, -340, 2048};
    int16_t a1[3] = {180, -300, 2050};
    double f = 0.25;
    for (auto _ : state) {
        benchmark::DoNotOptimize(a0);
        benchmark::DoNotOptimize(a1);
        benchmark::DoNotOptimize(f);
        int16_t out[3];
        for (int i = 0; i < 3; ++i)
            out[i] = static_cast<int16_t>(a0[i] + (a1[i] - a0[i]) * f);
        benchmark::DoNotOptimize(out);
    }
}
BENCHMARK(BM_Yardstick_LerpThreeAxes);

// Yardstick: one allocation and one queue round, unlocked.
void BM_Yardstick_DequeSharedPtrPushPop(benchmark::State& state) {
    std::deque<std::shared_ptr<bmi08x_full_sensor_data>> queue;
    for (auto _ : state) {
        queue.push_back(std::make_shared<bmi08x_full_sensor_data>());
        benchmark::DoNotOptimize(queue.front());
        queue.pop_front();
    }
}
BENCHMARK(BM_Yardstick_DequeSharedPtrPushPop);

}  // namespace

BENCHMARK_MAIN();
