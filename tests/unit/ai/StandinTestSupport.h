#pragma once

// Helpers for tests that run against the stand-in vendor libraries: a small
// system root (KOV_SYSROOT) with the SDK libraries copied in, and scoped
// environment variables that configure the stand-ins. Which CUDA, cuDNN and
// TensorRT libraries load is fixed per test executable by LD_LIBRARY_PATH
// (set by CTest), since the dynamic loader reads it only at start-up.

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdlib>
#include <fstream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace testsupport {

inline std::string standinDir() {
    return KOV_STANDIN_DIR;
}

// Sets environment variables for the life of the object and restores them.
class ScopedEnv {
public:
    ScopedEnv() = default;
    ScopedEnv(const std::string& name, const std::string& value) { set(name, value); }
    ~ScopedEnv() {
        for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
            if (it->second)
                ::setenv(it->first.c_str(), it->second->c_str(), 1);
            else
                ::unsetenv(it->first.c_str());
        }
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

    void set(const std::string& name, const std::string& value) {
        remember(name);
        ::setenv(name.c_str(), value.c_str(), 1);
    }
    void unset(const std::string& name) {
        remember(name);
        ::unsetenv(name.c_str());
    }

private:
    void remember(const std::string& name) {
        const char* old = std::getenv(name.c_str());
        saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
    }
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

// A temporary system root, installed as KOV_SYSROOT for the life of the object.
class SysRoot {
public:
    SysRoot() : root_(dir_.path().toStdString()), env_("KOV_SYSROOT", root_) {}

    const std::string& root() const { return root_; }
    std::string path(const std::string& absolute) const { return root_ + absolute; }

    void mkdir(const std::string& absolute) const { QDir().mkpath(QString::fromStdString(path(absolute))); }

    void writeFile(const std::string& absolute, const std::string& content, bool executable = false) const {
        const QString p = QString::fromStdString(path(absolute));
        QDir().mkpath(QFileInfo(p).absolutePath());
        std::ofstream out(p.toStdString(), std::ios::trunc);
        out << content;
        out.close();
        if (executable)
            QFile::setPermissions(
                p, QFile::permissions(p) | QFile::ExeOwner | QFile::ExeGroup | QFile::ExeOther);
    }

    bool exists(const std::string& absolute) const {
        return QFileInfo::exists(QString::fromStdString(path(absolute)));
    }

    std::string readFile(const std::string& absolute) const {
        std::ifstream in(path(absolute));
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    // Copies a built stand-in library to the given absolute path of the root.
    void copyLibrary(const std::string& source, const std::string& absolute) const {
        mkdir(QFileInfo(QString::fromStdString(absolute)).path().toStdString());
        const QString dst = QString::fromStdString(path(absolute));
        QFile::remove(dst);
        ASSERT_TRUE(QFile::copy(QString::fromStdString(source), dst)) << source;
    }

    // The AI library at /usr/local/kov/lib/libbh_ai.so; `variant` names a build
    // with one entry point left out ("no_metadata", "no_loglevel", "no_disparity").
    void installAILibrary(const std::string& variant = "") const {
        const std::string src = variant.empty() ? standinDir() + "/lib/libbh_ai.so"
                                                : standinDir() + "/variants/" + variant + "/libbh_ai.so";
        copyLibrary(src, "/usr/local/kov/lib/libbh_ai.so");
    }

    void installSdkLibrary() const {
        copyLibrary(standinDir() + "/lib/libbh_kov.so", "/usr/local/kov/lib/libbh_kov.so");
    }

    // Lines the stand-in AI library logged, and a fresh log.
    std::string aiLogPath() const { return root_ + "/ai_calls.log"; }
    std::vector<std::string> aiLog() const {
        std::vector<std::string> lines;
        std::ifstream in(aiLogPath());
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
        return lines;
    }
    void clearAiLog() const { std::remove(aiLogPath().c_str()); }

    // Names of the files in a directory of the root, sorted.
    std::vector<std::string> list(const std::string& absolute) const {
        std::vector<std::string> names;
        for (const QString& n : QDir(QString::fromStdString(path(absolute)))
                                    .entryList(QDir::Files | QDir::Dirs | QDir::NoDotAndDotDot))
            names.push_back(n.toStdString());
        return names;
    }

private:
    QTemporaryDir dir_;
    std::string root_;
    ScopedEnv env_;
};

inline size_t countLines(const std::vector<std::string>& lines, const std::string& needle) {
    size_t n = 0;
    for (const auto& l : lines)
        if (l.find(needle) != std::string::npos)
            ++n;
    return n;
}

inline size_t countOccurrences(const std::string& text, const std::string& needle) {
    size_t n = 0;
    for (size_t pos = text.find(needle); pos != std::string::npos;
         pos = text.find(needle, pos + needle.size()))
        ++n;
    return n;
}

// The GPU the stand-in CUDA library reports in most tests: one Orin-class device.
inline constexpr char kOrinDevice[] = "Orin|8.7|16|32000000000";

// Base of the fixtures that run against the stand-ins: a system root, the
// environment restored afterwards, one Orin-class GPU, and the AI library's
// calls logged in the root. Fixtures add their own variables in SetUp after
// calling this one.
struct StandinTest : public ::testing::Test {
    SysRoot root;
    ScopedEnv env;
    void SetUp() override {
        env.set("KOV_STANDIN_CUDA_DEVICES", kOrinDevice);
        env.set("KOV_STANDIN_AI_LOG", root.aiLogPath());
    }
};

}  // namespace testsupport
