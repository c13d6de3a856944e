#include "support/KLogger.h"

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <spdlog/details/fmt_helper.h>
#include <spdlog/pattern_formatter.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "utils/SysPath.h"

bool is_enabled(std::string value) {
    std::transform(value.begin(), value.end(), value.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return value == "enabled" || value == "on" || value == "enable" || value == "yes" || value == "y" ||
           value == "1";
}

namespace bh {

namespace {

const char* const kVersion = "4.1.2";

std::string homeDirectory() {
    const char* home = std::getenv("HOME");
    if (home != nullptr)
        return home;
    const passwd* entry = getpwuid(getuid());
    if (entry != nullptr && entry->pw_dir != nullptr)
        return entry->pw_dir;
    return "";
}

// Creates the directory and any missing parent (mode 0775); failures are
// ignored, the directory may well exist.
void makeDir(const std::string& path) {
    for (size_t i = 1; i < path.size(); ++i) {
        if (path[i] == '/')
            (void)::mkdir(path.substr(0, i).c_str(), 0775);
    }
    (void)::mkdir(path.c_str(), 0775);
}

const char* levelName(spdlog::level::level_enum level) {
    switch (level) {
        case spdlog::level::trace:
            return "TRACE";
        case spdlog::level::debug:
            return "DEBUG";
        case spdlog::level::info:
            return "INFO";
        case spdlog::level::warn:
            return "WARNING";
        case spdlog::level::err:
            return "ERROR";
        case spdlog::level::critical:
            return "CRITICAL";
        default:
            return "NONE";
    }
}

// %~ : the level's name in capitals.
class LevelNameFlag : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg& msg, const std::tm&, spdlog::memory_buf_t& dest) override {
        const char* name = levelName(msg.level);
        dest.append(name, name + std::char_traits<char>::length(name));
    }
    std::unique_ptr<custom_flag_formatter> clone() const override {
        return std::make_unique<LevelNameFlag>();
    }
};

// %Q : the record's time as whole milliseconds since the epoch, a JSON
// number, so that the line stays a valid JSON object.
class EpochMillisecondsFlag : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg& msg, const std::tm&, spdlog::memory_buf_t& dest) override {
        const long long ms =
            std::chrono::duration_cast<std::chrono::milliseconds>(msg.time.time_since_epoch()).count();
        spdlog::details::fmt_helper::append_int(ms, dest);
    }
    std::unique_ptr<custom_flag_formatter> clone() const override {
        return std::make_unique<EpochMillisecondsFlag>();
    }
};

// %* : the message, escaped as a JSON string body, so that each file line
// stays one valid JSON object whatever the text holds.
class JsonMessageFlag : public spdlog::custom_flag_formatter {
public:
    void format(const spdlog::details::log_msg& msg, const std::tm&, spdlog::memory_buf_t& dest) override {
        static const char hex[] = "0123456789abcdef";
        for (char ch : msg.payload) {
            const unsigned char c = static_cast<unsigned char>(ch);
            switch (c) {
                case '"':
                    dest.append(std::string_view("\\\""));
                    break;
                case '\\':
                    dest.append(std::string_view("\\\\"));
                    break;
                case '\n':
                    dest.append(std::string_view("\\n"));
                    break;
                case '\r':
                    dest.append(std::string_view("\\r"));
                    break;
                case '\t':
                    dest.append(std::string_view("\\t"));
                    break;
                default:
                    if (c < 0x20) {
                        const char esc[6] = {'\\', 'u', '0', '0', hex[c >> 4], hex[c & 15]};
                        dest.append(esc, esc + 6);
                    } else {
                        dest.push_back(ch);
                    }
            }
        }
    }
    std::unique_ptr<custom_flag_formatter> clone() const override {
        return std::make_unique<JsonMessageFlag>();
    }
};

spdlog::level::level_enum toSpdlog(LOGGER_LEVEL level) {
    switch (level) {
        case LOGGER_LEVEL::TRACE_L3:
        case LOGGER_LEVEL::TRACE_L2:
        case LOGGER_LEVEL::TRACE_L1:
            return spdlog::level::trace;
        case LOGGER_LEVEL::DEBUG:
            return spdlog::level::debug;
        case LOGGER_LEVEL::INFO:
            return spdlog::level::info;
        case LOGGER_LEVEL::WARNING:
            return spdlog::level::warn;
        case LOGGER_LEVEL::ERROR:
            return spdlog::level::err;
        case LOGGER_LEVEL::CRITICAL:
            return spdlog::level::critical;
        default:
            return spdlog::level::off;
    }
}

const LOGGER_NAME kAreas[] = {LOGGER_NAME::SDK,      LOGGER_NAME::SDK_MAPPING, LOGGER_NAME::SDK_TRACKING,
                              LOGGER_NAME::SDK_AI,   LOGGER_NAME::SDK_INPUT,   LOGGER_NAME::SDK_SLUTILS,
                              LOGGER_NAME::SDK_GNSS, LOGGER_NAME::FUSION};

}  // namespace

const char* loggerNameText(LOGGER_NAME name) {
    switch (name) {
        case LOGGER_NAME::SDK:
            return "SDK";
        case LOGGER_NAME::SDK_MAPPING:
            return "SDK.mapping";
        case LOGGER_NAME::SDK_TRACKING:
            return "SDK.tracking";
        case LOGGER_NAME::SDK_AI:
            return "SDK.ai";
        case LOGGER_NAME::SDK_INPUT:
            return "SDK.input";
        case LOGGER_NAME::SDK_SLUTILS:
            return "SDK.slutils";
        case LOGGER_NAME::SDK_GNSS:
            return "SDK.gnss";
        case LOGGER_NAME::FUSION:
            return "FUSION";
        default:
            return "SDK";
    }
}

std::string getHiddenDir(HIDDEN_DIR which) {
    const std::string root = utils::sysPath("/usr/local/kov");
    makeDir(root);
    std::string dir;
    switch (which) {
        case HIDDEN_DIR_SETTINGS:
            dir = root + "/settings/";
            break;
        case HIDDEN_DIR_RESOURCES:
            dir = root + "/resources/";
            break;
        case HIDDEN_DIR_LOG: {
            const std::string home = homeDirectory();
            makeDir(home + "/.kov");
            dir = home + "/.kov/log/";
            break;
        }
        case HIDDEN_DIR_HOME:
            dir = homeDirectory() + "/";
            break;
        case HIDDEN_DIR_FIRMWARE:
            dir = root + "/firmware/";
            break;
        case HIDDEN_DIR_ASSETS:
            dir = root + "/assets/";
            break;
        default:
            dir = root + "/";
            break;
    }
    makeDir(dir);
    return dir;
}

std::string getLoggerLocation(int home) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char date[32];
    std::strftime(date, sizeof date, "%F", &local);
    const std::string dir = getHiddenDir(home != 0 ? HIDDEN_DIR_HOME : HIDDEN_DIR_LOG);
    return dir + "kovlog_" + date + "_" + std::to_string(static_cast<long>(getpid())) + ".log";
}

KLogger& KLogger::get_instance() {
    static KLogger instance;
    return instance;
}

KLogger::KLogger() {
    const char* noColour = std::getenv("KOV_SDK_DISABLE_COLOR_LOGGER");
    colours_ = noColour == nullptr || !is_enabled(noColour);

    filePath_ = getLoggerLocation(0);
    const size_t cut = filePath_.find_last_of("/\\");
    if (cut != std::string::npos)
        makeDir(filePath_.substr(0, cut));

    pool_ = std::make_shared<spdlog::details::thread_pool>(8192, 1);

    std::vector<spdlog::sink_ptr> sinks;
    try {
        fileHandler_ = std::make_shared<spdlog::sinks::rotating_file_sink_mt>(filePath_, 0x100000, 5, false);
        auto formatter = std::make_unique<spdlog::pattern_formatter>();
        formatter->add_flag<JsonMessageFlag>('*')
            .add_flag<LevelNameFlag>('~')
            .add_flag<EpochMillisecondsFlag>('Q');
        formatter->set_pattern(
            std::string("{ \"time\": %Q, \"name\": \"%n\", \"version\": \"") + kVersion +
            "\", \"level\": \"%~\", \"pid\": %P, \"thread_name\": %t, \"message\": \"%*\"}");
        fileHandler_->set_formatter(std::move(formatter));
        sinks.push_back(fileHandler_);
    } catch (const std::exception& e) {
        // No file log; the console still works.
        fileError_ = e.what();
        fileHandler_.reset();
        std::fprintf(stderr, "Warning: cannot write the log file %s: %s\n", filePath_.c_str(), e.what());
    }

    stdoutHandler_ = std::make_shared<spdlog::sinks::stdout_color_sink_mt>(
        colours_ ? spdlog::color_mode::automatic : spdlog::color_mode::never);
    auto consoleFormatter = std::make_unique<spdlog::pattern_formatter>(spdlog::pattern_time_type::utc);
    consoleFormatter->add_flag<LevelNameFlag>('~');
    consoleFormatter->set_pattern("%^[%Y-%m-%d %H:%M:%S UTC][KOV][%~] %v%$");
    stdoutHandler_->set_formatter(std::move(consoleFormatter));
    sinks.push_back(stdoutHandler_);

    for (LOGGER_NAME area : kAreas) {
        auto logger = std::make_shared<spdlog::async_logger>(loggerNameText(area), sinks.begin(), sinks.end(),
                                                             pool_, spdlog::async_overflow_policy::block);
        logger->set_level(spdlog::level::info);
        loggers_[static_cast<int>(area)] = logger;
        levels_[static_cast<int>(area)] = LOGGER_LEVEL::INFO;
    }
}

KLogger::~KLogger() {
    for (auto& entry : loggers_)
        entry.second->flush();
    // The pool writes out its queue and joins its thread before the loggers
    // and handlers go, so nothing is written through a destroyed handler.
    pool_.reset();
    loggers_.clear();
}

spdlog::logger* KLogger::get_logger(LOGGER_NAME name) {
    auto it = loggers_.find(static_cast<int>(name));
    if (it == loggers_.end())
        it = loggers_.find(static_cast<int>(LOGGER_NAME::SDK));
    return it->second.get();
}

void KLogger::change_level(LOGGER_LEVEL level, LOGGER_NAME name) {
    if (static_cast<int>(level) < 0)
        level = LOGGER_LEVEL::TRACE_L3;
    if (level == LOGGER_LEVEL::BACKTRACE)
        throw LoggerError("LogLevel::Backtrace is only used internally. Please don't use it.");
    if (static_cast<int>(level) > static_cast<int>(LOGGER_LEVEL::NONE))
        level = LOGGER_LEVEL::NONE;
    for (auto& entry : loggers_) {
        if (name == LOGGER_NAME::ALL || entry.first == static_cast<int>(name)) {
            entry.second->set_level(toSpdlog(level));
            levels_[entry.first] = level;
        }
    }
}

void KLogger::change_level_raw_user_facing(int value) {
    LOGGER_LEVEL level = LOGGER_LEVEL::INFO;
    switch (value) {
        case 0:
            level = LOGGER_LEVEL::CRITICAL;
            break;
        case 2:
            level = LOGGER_LEVEL::WARNING;
            break;
        case 3:
            level = LOGGER_LEVEL::ERROR;
            break;
        case 4:
            level = LOGGER_LEVEL::CRITICAL;
            break;
        case 671:
            level = LOGGER_LEVEL::DEBUG;
            break;
        case 672:
            level = LOGGER_LEVEL::TRACE_L1;
            break;
        case 673:
            level = LOGGER_LEVEL::TRACE_L2;
            break;
        case 674:
            level = LOGGER_LEVEL::TRACE_L3;
            break;
        default:
            break;
    }
    change_level(level, LOGGER_NAME::ALL);
}

LOGGER_LEVEL KLogger::get_level(LOGGER_NAME name) const {
    auto it = levels_.find(static_cast<int>(name));
    return it != levels_.end() ? it->second : LOGGER_LEVEL::INFO;
}

void KLogger::flush() {
    for (auto& entry : loggers_)
        entry.second->flush();
    // The flush requests go through the queue; wait until the background
    // thread has taken everything, then flush the sinks from here (their
    // mutex orders this after any write still in progress).
    for (int i = 0; i < 2000 && pool_->queue_size() > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (fileHandler_)
        fileHandler_->flush();
    stdoutHandler_->flush();
}

}  // namespace bh
