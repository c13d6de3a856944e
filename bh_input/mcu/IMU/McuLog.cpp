#include "bh_input/mcu/IMU/McuLog.h"

#include <spdlog/spdlog.h>

#include <atomic>

namespace mcu_log {
namespace {
struct Destination {
    Sink sink;
    void* context;
};
std::atomic<Destination*> g_destination{nullptr};
Destination g_slots[2];
int g_slot = 0;
}  // namespace

void setSink(Sink sink, void* context) {
    if (!sink) {
        g_destination.store(nullptr);
        return;
    }
    g_slot ^= 1;
    g_slots[g_slot] = Destination{sink, context};
    g_destination.store(&g_slots[g_slot]);
}

void write(int level, const std::string& line) {
    Destination* d = g_destination.load();
    if (d) {
        d->sink(level, line, d->context);
        return;
    }
    static const spdlog::level::level_enum levels[] = {spdlog::level::trace, spdlog::level::debug,
                                                       spdlog::level::info,  spdlog::level::warn,
                                                       spdlog::level::err,   spdlog::level::critical};
    spdlog::log(levels[level < 0 ? 0 : level > 5 ? 5 : level], "{}", line);
}

}  // namespace mcu_log
