#pragma once

#include <spdlog/async_logger.h>
#include <spdlog/details/thread_pool.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_color_sinks.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <unordered_map>

// True for "enabled", "on", "enable", "yes", "y" and "1", in any case.
bool is_enabled(std::string value);

namespace bh {

// The named logging areas; ALL addresses every one of them in change_level.
enum class LOGGER_NAME : int {
    SDK = 0,
    SDK_MAPPING = 1,
    SDK_TRACKING = 2,
    SDK_AI = 3,
    SDK_INPUT = 4,
    SDK_SLUTILS = 5,
    SDK_GNSS = 6,
    FUSION = 7,
    ALL = 8,
};

// Log levels, from the most verbose. The three trace levels all write as
// "trace"; BACKTRACE is internal and refused by change_level.
enum class LOGGER_LEVEL : int {
    TRACE_L3 = 0,
    TRACE_L2 = 1,
    TRACE_L1 = 2,
    DEBUG = 3,
    INFO = 4,
    WARNING = 5,
    ERROR = 6,
    CRITICAL = 7,
    BACKTRACE = 8,
    NONE = 9,
};

// The program's directories; each path ends in "/".
enum HIDDEN_DIR {
    HIDDEN_DIR_ROOT = 0,       // /usr/local/kov
    HIDDEN_DIR_SETTINGS = 1,   // /usr/local/kov/settings
    HIDDEN_DIR_RESOURCES = 2,  // /usr/local/kov/resources
    HIDDEN_DIR_LOG = 3,        // <home>/.kov/log
    HIDDEN_DIR_HOME = 4,       // <home>
    HIDDEN_DIR_FIRMWARE = 5,   // /usr/local/kov/firmware
    HIDDEN_DIR_ASSETS = 6,     // /usr/local/kov/assets
};

// Raised for a level the loggers cannot take.
class LoggerError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The directory of `which`, created (mode 0775) if missing; "/usr/local/kov"
// is created on every call. Failures to create are ignored. Fixed paths follow
// KOV_SYSROOT; the home directory is $HOME, or the password entry without it.
std::string getHiddenDir(HIDDEN_DIR which);

// This process's log file: <dir>/kovlog_<YYYY-MM-DD>_<pid>.log, in the log
// directory, or in the home directory when `home` is not 0.
std::string getLoggerLocation(int home);

// The name of a logging area ("SDK", "SDK.input", ...).
const char* loggerNameText(LOGGER_NAME name);

// The program's logging: one asynchronous logger per area, each writing one
// JSON object per line to a rotating file (1 MiB, 5 backups) in the user's
// home and a coloured line to standard output.
class KLogger {
public:
    static KLogger& get_instance();

    // The logger of one area (ALL gives the "SDK" logger).
    spdlog::logger* get_logger(LOGGER_NAME name);

    // Sets one area's level, or every area's with ALL. A level below 0 counts
    // as 0; BACKTRACE raises LoggerError.
    void change_level(LOGGER_LEVEL level, LOGGER_NAME name);
    // Sets every area from a user's number: 0 and 4 critical, 2 warning,
    // 3 error, 671 debug, 672 to 674 trace, anything else info.
    void change_level_raw_user_facing(int value);

    // The level last set on an area.
    LOGGER_LEVEL get_level(LOGGER_NAME name) const;
    // Whether console lines may be coloured (KOV_SDK_DISABLE_COLOR_LOGGER off).
    bool colours_enabled() const { return colours_; }
    // The log file, and an explanation when it could not be opened.
    const std::string& file_path() const { return filePath_; }
    const std::string& file_error() const { return fileError_; }

    // Writes out everything logged so far (waits for the background thread).
    void flush();

    KLogger(const KLogger&) = delete;
    KLogger& operator=(const KLogger&) = delete;

private:
    KLogger();
    ~KLogger();

    // Joined first in the destructor, so that the queue is written out.
    std::shared_ptr<spdlog::details::thread_pool> pool_;
    std::shared_ptr<spdlog::sinks::rotating_file_sink_mt> fileHandler_;
    std::shared_ptr<spdlog::sinks::stdout_color_sink_mt> stdoutHandler_;
    std::unordered_map<int, std::shared_ptr<spdlog::async_logger>> loggers_;
    std::unordered_map<int, LOGGER_LEVEL> levels_;
    std::string filePath_;
    std::string fileError_;
    bool colours_ = true;
};

}  // namespace bh

// Convenience: KLOG(bh::LOGGER_NAME::SDK_INPUT, info, "opened {}", path);
#define KLOG(area, level, ...) ::bh::KLogger::get_instance().get_logger(area)->level(__VA_ARGS__)
