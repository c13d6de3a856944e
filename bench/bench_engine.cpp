// One fusion round of the sensor engine: from a reader sample to the pushed
// packet (calibration, online bias, orientation filter with its covariance,
// altitude, health watch, magnetometer heading, the three queue pushes). The
// reader answers from memory, so only the engine's own work is measured.
// Target: at most 2 microseconds, under 0.2 % of the 1.25 ms between samples
// at 800 Hz.
#include <benchmark/benchmark.h>

#include <memory>

#include "bh_input/mcu/KOVmcu.h"
#include "tests/unit/engine/MemoryIMUReader.h"

namespace {

// A reader whose every call delivers the next sample at once.
class BenchReader final : public MemoryIMUReader {
public:
    BenchReader() : MemoryIMUReader(0x305, 2, 123456) {}
    bool updateIMUData(bool) override {
        fillSample(index_++);
        has_new_data = 1;
        return true;
    }
    uint64_t index_ = 0;
};

struct Fixture {
    Fixture() {
        auto r = std::make_unique<BenchReader>();
        reader = r.get();
        reader->sync_every = 13;
        reader->mag_every = 8;
        reader->env_every = 16;
        reader->motion = [](uint64_t i) {
            MemoryIMUReader::Motion m;
            m.gyro[0] = static_cast<int16_t>(40 * ((i / 100) % 3));
            m.gyro[2] = static_cast<int16_t>(i % 7);
            m.acc[1] = static_cast<int16_t>((i % 11) - 5);
            return m;
        };
        engine = std::make_unique<bh::KOVmcu>(false, 11011, bh::KOVT, std::move(r));
        engine->open(20123456, false, IMU_ODR_800);
        engine->updateCameraIMUcalibration();
        engine->beginFusion();
        // past the first estimate, the translation start and the pressure
        // reference, and with full queues: the steady state of a long capture
        for (int i = 0; i < 1500; ++i) {
            engine->fusionRound();
        }
    }
    BenchReader* reader;
    std::unique_ptr<bh::KOVmcu> engine;
};

void BM_FusionRound(benchmark::State& state) {
    Fixture f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.engine->fusionRound());
    }
    state.counters["queue"] = static_cast<double>(f.engine->imu_queue.size());
}
BENCHMARK(BM_FusionRound);

// The reader's part alone (building the sample in memory), for reference.
void BM_MemoryReaderSample(benchmark::State& state) {
    Fixture f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(f.reader->updateIMUData(true));
    }
}
BENCHMARK(BM_MemoryReaderSample);

}  // namespace

BENCHMARK_MAIN();
