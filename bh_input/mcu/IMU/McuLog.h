// Log lines of the MCU link. They go to spdlog's default logger unless a sink is
// set (tests capture them this way).
#pragma once

#include <fmt/format.h>

#include <string>

namespace mcu_log {

enum Level : int { TRACE = 0, DEBUG = 1, INFO = 2, WARN = 3, ERR = 4, CRITICAL = 5 };

using Sink = void (*)(int level, const std::string& line, void* context);

// Replaces the destination of every line (nullptr: back to spdlog).
void setSink(Sink sink, void* context);
void write(int level, const std::string& line);

template <typename... Args>
void log(int level, const char* format, const Args&... args) {
    write(level, fmt::format(format, args...));
}

}  // namespace mcu_log
