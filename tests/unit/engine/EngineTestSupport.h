#pragma once

// Shared helpers of the engine tests: an engine on an in-memory MCU, and a
// capture of the MCU link's log lines.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bh_input/mcu/KOVmcu.h"
#include "tests/unit/common/LogCapture.h"
#include "tests/unit/engine/MemoryIMUReader.h"

using LogCapture = testlog::LogCapture;

struct EngineOnMemory {
    EngineOnMemory(bh::MODEL model, int firmware, int prefix = 2, int body = 123456) {
        auto r = std::make_unique<MemoryIMUReader>(firmware, prefix, body);
        reader = r.get();
        observed = r->observed;
        engine = std::make_unique<bh::KOVmcu>(false, 11011, model, std::move(r));
    }
    ~EngineOnMemory() {
        if (engine) {
            engine->close();
        }
    }
    MemoryIMUReader* reader;  // owned by the engine; gone after close
    std::shared_ptr<MemoryIMUReader::Observed> observed;
    std::unique_ptr<bh::KOVmcu> engine;
};

inline int countOf(const std::vector<std::string>& calls, const std::string& name) {
    int n = 0;
    for (const auto& c : calls) {
        n += c == name ? 1 : 0;
    }
    return n;
}
