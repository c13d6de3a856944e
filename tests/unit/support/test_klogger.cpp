#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegExp>

#include <pwd.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "support/KLogger.h"

using bh::KLogger;
using bh::LOGGER_LEVEL;
using bh::LOGGER_NAME;

namespace {

// A private home and machine root for this process, set before the logger
// is first made.
const std::string& sandbox() {
    static const std::string dir = [] {
        char pattern[] = "/tmp/kov_klogger_XXXXXX";
        const char* made = mkdtemp(pattern);
        std::string d = made ? made : "/tmp";
        setenv("HOME", d.c_str(), 1);
        setenv("KOV_SYSROOT", (d + "/root").c_str(), 1);
        QDir().mkpath(QString::fromStdString(d + "/root"));
        return d;
    }();
    return dir;
}

KLogger& logger() {
    sandbox();
    return KLogger::get_instance();
}

}  // namespace

TEST(IsEnabled, Table) {
    for (const char* yes : {"enabled", "on", "enable", "yes", "y", "1", "YES", "On", "ENABLED", "Y"})
        EXPECT_TRUE(is_enabled(yes)) << yes;
    for (const char* no : {"0", "", "no", "off", "true", "yes ", " 1", "enabledd"})
        EXPECT_FALSE(is_enabled(no)) << no;
}

// Each of these makes the logger in a fresh child process, with its own
// environment.
TEST(KLoggerDeathTest, DisableColourYesTurnsColoursOff) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("KOV_SDK_DISABLE_COLOR_LOGGER", "YES", 1);
            std::exit(logger().colours_enabled() ? 10 : 20);
        },
        testing::ExitedWithCode(20), "");
}

TEST(KLoggerDeathTest, DisableColourZeroKeepsColours) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            setenv("KOV_SDK_DISABLE_COLOR_LOGGER", "0", 1);
            std::exit(logger().colours_enabled() ? 10 : 20);
        },
        testing::ExitedWithCode(10), "");
    EXPECT_EXIT(
        {
            unsetenv("KOV_SDK_DISABLE_COLOR_LOGGER");
            std::exit(logger().colours_enabled() ? 10 : 20);
        },
        testing::ExitedWithCode(10), "");
}

TEST(KLoggerDeathTest, UnwritableLogDirectoryIsAWarningNotACrash) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            // A file where the log directory should be.
            const std::string home = sandbox() + "/blocked";
            QDir().mkpath(QString::fromStdString(home + "/.kov"));
            QFile f(QString::fromStdString(home + "/.kov/log"));
            f.open(QIODevice::WriteOnly);
            f.close();
            setenv("HOME", home.c_str(), 1);
            KLogger& l = KLogger::get_instance();
            l.get_logger(LOGGER_NAME::SDK)->info("still works");
            l.flush();
            std::exit(l.file_error().empty() ? 10 : 20);
        },
        testing::ExitedWithCode(20), "cannot write the log file");
}

TEST(HiddenDir, Paths) {
    const std::string root = sandbox() + "/root/usr/local/kov";
    EXPECT_EQ(bh::getHiddenDir(bh::HIDDEN_DIR_ROOT), root + "/");
    EXPECT_EQ(bh::getHiddenDir(bh::HIDDEN_DIR_SETTINGS), root + "/settings/");
    EXPECT_EQ(bh::getHiddenDir(bh::HIDDEN_DIR_RESOURCES), root + "/resources/");
    EXPECT_EQ(bh::getHiddenDir(bh::HIDDEN_DIR_FIRMWARE), root + "/firmware/");
    EXPECT_EQ(bh::getHiddenDir(bh::HIDDEN_DIR_ASSETS), root + "/assets/");
    EXPECT_EQ(bh::getHiddenDir(static_cast<bh::HIDDEN_DIR>(42)), root + "/");
    EXPECT_EQ(bh::getHiddenDir(bh::HIDDEN_DIR_LOG), sandbox() + "/.kov/log/");
    EXPECT_EQ(bh::getHiddenDir(bh::HIDDEN_DIR_HOME), sandbox() + "/");
    // Created as a side effect.
    EXPECT_TRUE(QFileInfo(QString::fromStdString(root + "/settings")).isDir());
    EXPECT_TRUE(QFileInfo(QString::fromStdString(sandbox() + "/.kov/log")).isDir());
}

TEST(HiddenDir, WithoutHomeThePasswordEntryIsUsed) {
    sandbox();
    const std::string saved = std::getenv("HOME");
    unsetenv("HOME");
    const passwd* entry = getpwuid(getuid());
    ASSERT_NE(entry, nullptr);
    const std::string home = bh::getHiddenDir(bh::HIDDEN_DIR_HOME);
    setenv("HOME", saved.c_str(), 1);
    EXPECT_EQ(home, std::string(entry->pw_dir) + "/");
}

TEST(LoggerLocation, PerProcessFileName) {
    const std::string pid = std::to_string(getpid());
    const QString inLog = QString::fromStdString(bh::getLoggerLocation(0));
    EXPECT_TRUE(
        QRegExp(QString::fromStdString(sandbox() + "/.kov/log/kovlog_\\d{4}-\\d{2}-\\d{2}_" + pid + "\\.log"))
            .exactMatch(inLog))
        << inLog.toStdString();
    const QString inHome = QString::fromStdString(bh::getLoggerLocation(1));
    EXPECT_TRUE(QRegExp(QString::fromStdString(sandbox() + "/kovlog_\\d{4}-\\d{2}-\\d{2}_" + pid + "\\.log"))
                    .exactMatch(inHome));
}

TEST(KLogger, LoggerNames) {
    KLogger& l = logger();
    EXPECT_EQ(l.get_logger(LOGGER_NAME::SDK)->name(), "SDK");
    EXPECT_EQ(l.get_logger(LOGGER_NAME::SDK_MAPPING)->name(), "SDK.mapping");
    EXPECT_EQ(l.get_logger(LOGGER_NAME::SDK_TRACKING)->name(), "SDK.tracking");
    EXPECT_EQ(l.get_logger(LOGGER_NAME::SDK_AI)->name(), "SDK.ai");
    EXPECT_EQ(l.get_logger(LOGGER_NAME::SDK_INPUT)->name(), "SDK.input");
    EXPECT_EQ(l.get_logger(LOGGER_NAME::SDK_SLUTILS)->name(), "SDK.slutils");
    EXPECT_EQ(l.get_logger(LOGGER_NAME::SDK_GNSS)->name(), "SDK.gnss");
    EXPECT_EQ(l.get_logger(LOGGER_NAME::FUSION)->name(), "FUSION");
    EXPECT_EQ(&KLogger::get_instance(), &l);
}

TEST(KLogger, RawUserFacingLevels) {
    KLogger& l = logger();
    const std::pair<int, LOGGER_LEVEL> table[] = {
        {0, LOGGER_LEVEL::CRITICAL},   {1, LOGGER_LEVEL::INFO},       {2, LOGGER_LEVEL::WARNING},
        {3, LOGGER_LEVEL::ERROR},      {4, LOGGER_LEVEL::CRITICAL},   {5, LOGGER_LEVEL::INFO},
        {671, LOGGER_LEVEL::DEBUG},    {672, LOGGER_LEVEL::TRACE_L1}, {673, LOGGER_LEVEL::TRACE_L2},
        {674, LOGGER_LEVEL::TRACE_L3}, {-1, LOGGER_LEVEL::INFO},      {675, LOGGER_LEVEL::INFO}};
    for (const auto& row : table) {
        l.change_level_raw_user_facing(row.first);
        EXPECT_EQ(l.get_level(LOGGER_NAME::SDK), row.second) << row.first;
        EXPECT_EQ(l.get_level(LOGGER_NAME::FUSION), row.second) << row.first;
    }
    l.change_level_raw_user_facing(2);
    EXPECT_EQ(l.get_logger(LOGGER_NAME::SDK_INPUT)->level(), spdlog::level::warn);
    l.change_level_raw_user_facing(1);
    EXPECT_EQ(l.get_logger(LOGGER_NAME::SDK_INPUT)->level(), spdlog::level::info);
}

TEST(KLogger, ChangeLevelOfOneOrAll) {
    KLogger& l = logger();
    l.change_level(LOGGER_LEVEL::INFO, LOGGER_NAME::ALL);
    l.change_level(LOGGER_LEVEL::ERROR, LOGGER_NAME::SDK_INPUT);
    EXPECT_EQ(l.get_level(LOGGER_NAME::SDK_INPUT), LOGGER_LEVEL::ERROR);
    EXPECT_EQ(l.get_level(LOGGER_NAME::SDK), LOGGER_LEVEL::INFO);
    l.change_level(static_cast<LOGGER_LEVEL>(-3), LOGGER_NAME::SDK);
    EXPECT_EQ(l.get_level(LOGGER_NAME::SDK), LOGGER_LEVEL::TRACE_L3);
    l.change_level(LOGGER_LEVEL::NONE, LOGGER_NAME::FUSION);
    EXPECT_EQ(l.get_logger(LOGGER_NAME::FUSION)->level(), spdlog::level::off);
    try {
        l.change_level(LOGGER_LEVEL::BACKTRACE, LOGGER_NAME::ALL);
        ADD_FAILURE() << "no error raised";
    } catch (const bh::LoggerError& e) {
        EXPECT_STREQ(e.what(), "LogLevel::Backtrace is only used internally. Please don't use it.");
    }
    l.change_level(LOGGER_LEVEL::INFO, LOGGER_NAME::ALL);
}

// The file line, field by field: the time is a bare number of milliseconds
// since the epoch, then name, version, level, pid, thread and message.
TEST(KLogger, FileLineLayoutWithMillisecondTime) {
    KLogger& l = logger();
    l.change_level(LOGGER_LEVEL::INFO, LOGGER_NAME::ALL);
    ASSERT_TRUE(l.file_error().empty()) << l.file_error();
    const auto msNow = [] {
        return static_cast<qint64>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                       std::chrono::system_clock::now().time_since_epoch())
                                       .count());
    };
    const qint64 before = msNow();
    testing::internal::CaptureStdout();
    l.get_logger(LOGGER_NAME::SDK_INPUT)->info("layout marker");
    l.flush();
    testing::internal::GetCapturedStdout();
    const qint64 after = msNow();

    QFile f(QString::fromStdString(l.file_path()));
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    QString found;
    while (!f.atEnd()) {
        const QString line = QString::fromUtf8(f.readLine()).trimmed();
        if (line.contains("\"layout marker\""))
            found = line;
    }
    ASSERT_FALSE(found.isEmpty());
    QRegExp layout(QString("^\\{ \"time\": (\\d+), \"name\": \"SDK\\.input\", \"version\": \"4\\.1\\.2\", "
                           "\"level\": \"INFO\", \"pid\": %1, \"thread_name\": \\d+, "
                           "\"message\": \"layout marker\"\\}$")
                       .arg(getpid()));
    ASSERT_TRUE(layout.exactMatch(found)) << found.toStdString();
    const qint64 time = layout.cap(1).toLongLong();
    EXPECT_GE(time, before);
    EXPECT_LE(time, after);
    const QJsonDocument doc = QJsonDocument::fromJson(found.toUtf8());
    ASSERT_TRUE(doc.isObject());
    EXPECT_TRUE(doc.object().value("time").isDouble());
}

TEST(KLogger, FileLinesAreJsonAndRotateAtOneMebibyte) {
    KLogger& l = logger();
    l.change_level(LOGGER_LEVEL::INFO, LOGGER_NAME::ALL);
    const QString path = QString::fromStdString(l.file_path());
    ASSERT_TRUE(l.file_error().empty()) << l.file_error();
    EXPECT_TRUE(QFileInfo::exists(path));

    const std::string tricky = "quote \" backslash \\ tab \t newline \n ctrl \x01 100% {} done";
    const std::string filler(180, 'x');
    testing::internal::CaptureStdout();
    l.get_logger(LOGGER_NAME::SDK_INPUT)->info(tricky);
    for (int i = 0; i < 4000; ++i)
        l.get_logger(LOGGER_NAME::FUSION)->warn("line {} {}", i, filler);
    l.flush();
    const std::string console = testing::internal::GetCapturedStdout();
    EXPECT_NE(console.find("][KOV][WARNING] line 3999 "), std::string::npos);

    const QString rotated = path.left(path.size() - 4) + ".1.log";
    ASSERT_TRUE(QFileInfo::exists(rotated)) << rotated.toStdString();
    EXPECT_LE(QFileInfo(rotated).size(), 0x100000);
    EXPECT_GT(QFileInfo(rotated).size(), 0x100000 - 4096);
    EXPECT_LE(QFileInfo(path).size(), 0x100000);
    EXPECT_FALSE(QFileInfo::exists(path.left(path.size() - 4) + ".6.log"));

    int lines = 0;
    bool sawTricky = false;
    bool sawLast = false;
    for (const QString& file : {rotated, path}) {
        QFile f(file);
        ASSERT_TRUE(f.open(QIODevice::ReadOnly));
        while (!f.atEnd()) {
            const QByteArray line = f.readLine();
            QJsonParseError error{};
            const QJsonDocument doc = QJsonDocument::fromJson(line, &error);
            ASSERT_EQ(error.error, QJsonParseError::NoError) << line.toStdString();
            const QJsonObject o = doc.object();
            for (const char* key : {"time", "name", "version", "level", "pid", "thread_name", "message"})
                EXPECT_TRUE(o.contains(key)) << key;
            EXPECT_EQ(o.value("pid").toInt(), getpid());
            if (o.value("message").toString().toStdString() == tricky) {
                sawTricky = true;
                EXPECT_EQ(o.value("name").toString(), "SDK.input");
                EXPECT_EQ(o.value("level").toString(), "INFO");
            }
            if (o.value("message").toString().startsWith("line 3999 ")) {
                sawLast = true;
                EXPECT_EQ(o.value("level").toString(), "WARNING");
                EXPECT_EQ(o.value("name").toString(), "FUSION");
            }
            ++lines;
        }
    }
    EXPECT_TRUE(sawLast);
    // About 1.3 MiB in all: one rotation, nothing lost.
    EXPECT_FALSE(QFileInfo::exists(path.left(path.size() - 4) + ".2.log"));
    EXPECT_TRUE(sawTricky);
    EXPECT_GE(lines, 4001);
}
