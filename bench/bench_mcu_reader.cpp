// One updateIMUData round of the HID reader on the simulated MCU, in simulated
// time (the stepped clock makes the wait for the next sample free, so what is
// measured is the round's own cost: the HID seam, the sample copy, the clock
// and the slow-sensor bookkeeping). A second case feeds a fixed report through
// a bare HID model to isolate the reader from the simulator's sample synthesis.
#include <benchmark/benchmark.h>

#include <cstring>

#include "bh_input/mcu/IMU/IMUHidReader.h"
#include "platform/Platform.h"
#include "sim/Machine.h"
#include "sim/Simulator.h"
#include "sim/SteppedClock.h"
#include "sim/mcu/VirtualMcu.h"
#include "support/KLogger.h"

namespace {

// Silences the capture stack's logger for one benchmark, so that the reader's
// lines do not weigh on the figures.
class QuietInputLog {
public:
    QuietInputLog() : previous_(bh::KLogger::get_instance().get_level(bh::LOGGER_NAME::SDK_INPUT)) {
        bh::KLogger::get_instance().change_level(bh::LOGGER_LEVEL::NONE, bh::LOGGER_NAME::SDK_INPUT);
    }
    ~QuietInputLog() { bh::KLogger::get_instance().change_level(previous_, bh::LOGGER_NAME::SDK_INPUT); }
    QuietInputLog(const QuietInputLog&) = delete;
    QuietInputLog& operator=(const QuietInputLog&) = delete;

private:
    bh::LOGGER_LEVEL previous_;
};

// Answers every read with the same report, its tick counter moved on by one
// 800 Hz interval, and a frame trigger every 27 samples.
class FixedReportHid final : public sim::HidDeviceModel {
public:
    McuSensorReport report{};
    sim::HidIdentity identity() const override {
        sim::HidIdentity id;
        id.path = "0001:0002:00";
        id.vendorId = 0x2B03;
        id.productId = 0xF681;
        id.releaseNumber = 0x305;
        id.serial = L"12345678";
        return id;
    }
    int read(unsigned char* data, size_t length, int) override {
        report.timestamp += 32;
        report.frame_sync = (++n_ % 27) == 0 ? 1 : 0;
        report.frame_sync_count += report.frame_sync;
        report.env_valid = (n_ % 32) == 0 ? 2 : 1;
        report.mag_valid = (n_ % 16) == 0 ? 2 : 1;
        const size_t k = std::min(length, sizeof(report));
        std::memcpy(data, &report, k);
        return static_cast<int>(k);
    }
    int write(const unsigned char*, size_t length) override { return static_cast<int>(length); }
    int sendFeatureReport(const unsigned char*, size_t length) override { return static_cast<int>(length); }
    int getFeatureReport(unsigned char* data, size_t) override {
        data[1] = 1;
        return 2;
    }

private:
    uint64_t n_ = 0;
};

void BM_UpdateIMUData_SimulatedMcu(benchmark::State& state) {
    QuietInputLog quiet;
    auto machine = std::make_shared<sim::Machine>();
    auto clock = std::make_shared<sim::SteppedClock>();
    machine->setClock(clock);
    sim::McuConfig c;
    c.productId = 0xF781;
    c.envRate = 25;
    c.magRate = 50;
    c.eeprom = sim::McuConfig::defaultEeprom(12345678, static_cast<int>(state.range(0)));
    sim::VirtualMcu::addTo(*machine, c);
    platform::ScopedBackend scope(sim::makeBackend(machine));
    IMUHidReader reader(false, 0x2B03, 0xF781);
    if (reader.open(0, true, false) <= 0 || !reader.sendStartDataStreamingCommand()) {
        state.SkipWithError("the simulated MCU did not open");
        return;
    }
    int64_t delivered = 0;
    for (auto _ : state) {
        delivered += reader.updateIMUData(false) ? 1 : 0;
    }
    state.counters["delivered"] = static_cast<double>(delivered) / static_cast<double>(state.iterations());
    reader.close();
}
BENCHMARK(BM_UpdateIMUData_SimulatedMcu)->Arg(2)->Arg(3);

void BM_UpdateIMUData_FixedReport(benchmark::State& state) {
    QuietInputLog quiet;
    auto machine = std::make_shared<sim::Machine>();
    machine->setClock(std::make_shared<sim::SteppedClock>());
    auto dev = std::make_shared<FixedReportHid>();
    dev->report.report_id = 1;
    dev->report.acc_z = 4096;
    machine->addHidDevice(dev);
    platform::ScopedBackend scope(sim::makeBackend(machine));
    IMUHidReader reader(false, 0x2B03, 0xF681);
    if (reader.open(0, false, false) <= 0) {
        state.SkipWithError("the device did not open");
        return;
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(reader.updateIMUData(false));
    }
}
BENCHMARK(BM_UpdateIMUData_FixedReport);

}  // namespace

BENCHMARK_MAIN();
