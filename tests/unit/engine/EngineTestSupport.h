#pragma once

// Shared helpers of the engine tests: an engine on an in-memory MCU, and a
// capture of the MCU link's log lines.

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bh_input/mcu/IMU/McuLog.h"
#include "bh_input/mcu/KOVmcu.h"
#include "tests/unit/engine/MemoryIMUReader.h"

struct LogCapture {
    LogCapture() { mcu_log::setSink(&LogCapture::sink, this); }
    ~LogCapture() { mcu_log::setSink(nullptr, nullptr); }

    static void sink(int level, const std::string& line, void* context) {
        auto* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->lines.push_back({level, line});
    }
    bool has(const std::string& text, int level = -1) {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& l : lines) {
            if (l.second == text && (level < 0 || l.first == level)) {
                return true;
            }
        }
        return false;
    }
    bool contains(const std::string& part) {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& l : lines) {
            if (l.second.find(part) != std::string::npos) {
                return true;
            }
        }
        return false;
    }

    std::mutex mutex;
    std::vector<std::pair<int, std::string>> lines;
};

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
