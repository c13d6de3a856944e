// Shared set-up of the MCU link tests: a simulated machine with virtual MCUs,
// a stepped clock, the simulated seams installed for the test's life, and a
// capture of the reader's log lines.
#pragma once

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "PackedValue.h"
#include "bh_input/mcu/IMU/IMUHidReader.h"
#include "platform/Platform.h"
#include "sim/Machine.h"
#include "sim/Simulator.h"
#include "sim/SteppedClock.h"
#include "sim/mcu/VirtualMcu.h"
#include "tests/unit/common/LogCapture.h"

namespace mcutest {

constexpr uint16_t VENDOR = 0x2B03;
constexpr uint16_t PICO = 0xF681;

using LogCapture = testlog::LogCapture;

// A machine with a stepped clock; MCUs are added before install().
struct SimMachine {
    std::shared_ptr<sim::Machine> machine = std::make_shared<sim::Machine>();
    std::shared_ptr<sim::SteppedClock> clock = std::make_shared<sim::SteppedClock>();
    std::unique_ptr<platform::ScopedBackend> scope;

    explicit SimMachine(bool steppedClock = true) {
        if (steppedClock)
            machine->setClock(clock);
    }
    std::shared_ptr<sim::VirtualMcu> add(sim::McuConfig config) {
        return sim::VirtualMcu::addTo(*machine, config);
    }
    void install() { scope = std::make_unique<platform::ScopedBackend>(sim::makeBackend(machine)); }
    int64_t nowNs() const { return clock->steadyNanoseconds(); }
};

inline sim::McuConfig config(uint32_t serial = 12345678, uint16_t firmware = 0x305, int odr = 2) {
    sim::McuConfig c;
    c.firmware = firmware;
    c.eeprom = sim::McuConfig::defaultEeprom(serial, odr);
    return c;
}

}  // namespace mcutest

namespace mcutest {

// A HID device that plays back reports given by the test: the interrupt stream
// returns the queued byte strings one per read (then time-outs), feature gets
// answer from a table, and every write is recorded.
class ScriptedHid final : public sim::HidDeviceModel {
public:
    sim::HidIdentity id;
    std::vector<std::vector<uint8_t>> stream;
    std::vector<int> streamResults;  // when set: the return value for the read of the same index
    size_t next = 0;
    std::map<uint8_t, std::vector<uint8_t>> features;
    std::vector<std::vector<uint8_t>> writes;
    std::vector<std::vector<uint8_t>> featureWrites;
    bool isPresent = true;
    int featureWriteResult = -2;  // -2: the length written

    ScriptedHid() {
        id.path = "0001:0009:00";
        id.vendorId = VENDOR;
        id.productId = PICO;
        id.releaseNumber = 0x305;
        id.serial = L"12345678";
    }
    sim::HidIdentity identity() const override { return id; }
    bool present() const override { return isPresent; }
    int read(unsigned char* data, size_t length, int) override {
        if (next >= stream.size())
            return 0;
        const std::vector<uint8_t>& r = stream[next];
        const size_t n = std::min(length, r.size());
        const int result = next < streamResults.size() ? streamResults[next] : static_cast<int>(n);
        ++next;
        if (result >= 0 && n > 0)
            std::memcpy(data, r.data(), n);  // a failed read leaves the buffer alone
        return result;
    }
    int write(const unsigned char* data, size_t length) override {
        writes.emplace_back(data, data + length);
        return static_cast<int>(length);
    }
    int sendFeatureReport(const unsigned char* data, size_t length) override {
        featureWrites.emplace_back(data, data + length);
        return featureWriteResult == -2 ? static_cast<int>(length) : featureWriteResult;
    }
    int getFeatureReport(unsigned char* data, size_t length) override {
        auto it = features.find(data[0]);
        if (it == features.end())
            return -1;
        const size_t n = std::min(length, it->second.size());
        if (n > 0)
            std::memcpy(data, it->second.data(), n);
        return static_cast<int>(n);
    }
};

inline std::vector<uint8_t> reportBytes(const McuSensorReport& r) {
    const uint8_t* p = reinterpret_cast<const uint8_t*>(&r);
    return std::vector<uint8_t>(p, p + sizeof(r));
}

inline McuSensorReport sample(uint8_t id, uint64_t ticks) {
    McuSensorReport r{};
    r.report_id = id;
    r.timestamp = ticks;
    r.acc_z = 4096;
    return r;
}

}  // namespace mcutest
