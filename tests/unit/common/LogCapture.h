// Captures the lines of one named logger of bh::KLogger (by default
// "SDK.input", where the capture stack writes) for the life of the object.
//
// A single capturing sink is attached to the logger the first time a capture
// is made, after the background writer has drained its queue, and stays for
// the rest of the process; later captures only switch it on and off. Make the
// first capture of a test program before any thread of its own logs. While a
// capture lives, the logger takes every level; its earlier level comes back
// afterwards.
#pragma once

#include <spdlog/sinks/base_sink.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "support/KLogger.h"

namespace testlog {

class LogCapture {
public:
    using Line = std::pair<spdlog::level::level_enum, std::string>;

    explicit LogCapture(bh::LOGGER_NAME area = bh::LOGGER_NAME::SDK_INPUT) : area_(area) {
        bh::KLogger& klogger = bh::KLogger::get_instance();
        previous_ = klogger.get_level(area_);
        sink_ = sinkFor(area_);
        klogger.flush();
        sink_->take();
        klogger.change_level(bh::LOGGER_LEVEL::TRACE_L3, area_);
    }
    ~LogCapture() {
        bh::KLogger& klogger = bh::KLogger::get_instance();
        klogger.flush();
        klogger.change_level(previous_, area_);
        sink_->release();
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Every line so far, once the background writer has caught up.
    std::vector<Line> entries() const {
        bh::KLogger::get_instance().flush();
        return sink_->lines();
    }
    std::vector<std::string> lines() const {
        std::vector<std::string> out;
        for (const Line& l : entries())
            out.push_back(l.second);
        return out;
    }
    // A line equal to `text`, at `level` unless that is `off`.
    bool has(const std::string& text, spdlog::level::level_enum level = spdlog::level::off) const {
        const auto all = entries();
        return std::any_of(all.begin(), all.end(), [&](const Line& l) {
            return l.second == text && (level == spdlog::level::off || l.first == level);
        });
    }
    bool contains(const std::string& part) const { return count(part) > 0; }
    int count(const std::string& part) const {
        const auto all = entries();
        return static_cast<int>(std::count_if(
            all.begin(), all.end(), [&](const Line& l) { return l.second.find(part) != std::string::npos; }));
    }
    void clear() {
        bh::KLogger::get_instance().flush();
        sink_->clear();
    }

private:
    class Sink : public spdlog::sinks::base_sink<std::mutex> {
    public:
        void take() {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.clear();
            active_ = true;
        }
        void release() {
            std::lock_guard<std::mutex> lock(mutex_);
            active_ = false;
            lines_.clear();
        }
        void clear() {
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.clear();
        }
        std::vector<Line> lines() {
            std::lock_guard<std::mutex> lock(mutex_);
            return lines_;
        }

    protected:
        void sink_it_(const spdlog::details::log_msg& msg) override {
            if (active_)
                lines_.emplace_back(msg.level, std::string(msg.payload.data(), msg.payload.size()));
        }
        void flush_() override {}

    private:
        bool active_ = false;
        std::vector<Line> lines_;
    };

    static std::shared_ptr<Sink> sinkFor(bh::LOGGER_NAME area) {
        static std::mutex mutex;
        static std::vector<std::pair<bh::LOGGER_NAME, std::shared_ptr<Sink>>> attached;
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& entry : attached)
            if (entry.first == area)
                return entry.second;
        auto sink = std::make_shared<Sink>();
        bh::KLogger& klogger = bh::KLogger::get_instance();
        klogger.flush();
        klogger.get_logger(area)->sinks().push_back(sink);
        attached.emplace_back(area, sink);
        return sink;
    }

    bh::LOGGER_NAME area_;
    bh::LOGGER_LEVEL previous_ = bh::LOGGER_LEVEL::INFO;
    std::shared_ptr<Sink> sink_;
};

}  // namespace testlog
