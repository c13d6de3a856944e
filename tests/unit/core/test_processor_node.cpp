#include <gtest/gtest.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <string>

#include "diagnostic/ProcessorNode.h"

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

void writeFile(const std::string& path, const std::string& content) {
    const size_t slash = path.find_last_of('/');
    std::string dir;
    for (size_t i = 1; i <= slash; ++i) {
        if (path[i] == '/' || i == slash)
            ::mkdir(path.substr(0, i).c_str(), 0775);
    }
    std::ofstream(path, std::ios::binary) << content;
}

// A machine root (KOV_SYSROOT) and a stand-in lscpu on PATH.
class ProcessorFixture : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(dir.isValid());
        root = dir.path().toStdString() + "/root";
        bin = dir.path().toStdString() + "/bin";
        ::mkdir(root.c_str(), 0775);
        ::mkdir(bin.c_str(), 0775);
        setenv("KOV_SYSROOT", root.c_str(), 1);
        oldPath = std::getenv("PATH") ? std::getenv("PATH") : "";
        setenv("PATH", (bin + ":" + oldPath).c_str(), 1);
        setLscpu("4", "1");
        writeFile(root + "/proc/cpuinfo",
                  "processor\t: 0\nvendor_id\t: Test\nmodel name\t: Test  CPU   X1\n");
        writeFile(root + "/etc/issue", "Debian GNU/Linux 12 \\n \\l\n\n");
    }
    void TearDown() override {
        unsetenv("KOV_SYSROOT");
        setenv("PATH", oldPath.c_str(), 1);
    }
    void setLscpu(const std::string& cpus, const std::string& threadsPerCore) {
        std::string script = "#!/bin/sh\n";
        if (!cpus.empty() || !threadsPerCore.empty()) {
            script += "echo 'Architecture:            x86_64'\n";
            script += "echo 'CPU(s):                  " + cpus + "'\n";
            script += "echo 'On-line CPU(s) list:     0-3'\n";
            script += "echo 'Thread(s) per core:      " + threadsPerCore + "'\n";
        }
        writeFile(bin + "/lscpu", script);
        ::chmod((bin + "/lscpu").c_str(), 0755);
    }
    QJsonObject run(ProcessorNode& node) {
        node.stepPause = std::chrono::milliseconds(0);
        QJsonObject result;
        CaptureStderr();
        node.runDiagnostic(result);
        stderrText = GetCapturedStderr();
        return result;
    }
    static QStringList texts(const QJsonObject& o, const char* key) {
        QStringList out;
        for (const QJsonValue& v : o.value(key).toArray())
            out << v.toString();
        return out;
    }

    QTemporaryDir dir;
    std::string root, bin, oldPath, stderrText;
};

}  // namespace

TEST_F(ProcessorFixture, AllKeysWithTheirTypes) {
    ProcessorNode node;
    EXPECT_EQ(node.name, "Processor");
    const QJsonObject r = run(node);
    for (const char* key : {"cpu", "datetime", "OS", "coreCount", "threadCount", "hyperThreading",
                            "ramCapacity", "ramUsed", "ramUsage", "motherboard", "L4T version"})
        EXPECT_TRUE(r.value(key).isString()) << key;
    EXPECT_TRUE(r.value("avxSupported").isBool());
    EXPECT_FALSE(r.value("avxSupported").toBool());
    EXPECT_EQ(r.value("ramUsage").toString(), "");
    EXPECT_EQ(r.value("cpu").toString(), " Test CPU X1");
    EXPECT_EQ(r.value("OS").toString(), "Debian GNU/Linux 12 ");
    EXPECT_EQ(r.value("coreCount").toString(), "4");
    EXPECT_EQ(r.value("threadCount").toString(), "4");
    EXPECT_EQ(r.value("hyperThreading").toString(), "0");
    EXPECT_TRUE(
        QRegExp("\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2}").exactMatch(r.value("datetime").toString()))
        << r.value("datetime").toString().toStdString();
    EXPECT_TRUE(QRegExp("\\d+\\.\\d{6}").exactMatch(r.value("ramCapacity").toString()));
    EXPECT_TRUE(QRegExp("\\d+\\.\\d{6}").exactMatch(r.value("ramUsed").toString()));
    EXPECT_EQ(node.getPercent(), 100.f);
}

TEST_F(ProcessorFixture, FourCoresIsValid) {
    ProcessorNode node;
    const QJsonObject r = run(node);
    EXPECT_EQ(texts(r, "valid"), (QStringList{"<b>Processor: </b>  Test CPU X1"}));
    EXPECT_FALSE(r.contains("warning"));
}

TEST_F(ProcessorFixture, ThreeCoresWarnsWithTheName) {
    setLscpu("3", "2");
    ProcessorNode node;
    const QJsonObject r = run(node);
    EXPECT_EQ(texts(r, "warning"),
              (QStringList{"<b>Processor: </b>  Test CPU X1 <br/> A Quad-core processor is recommended."}));
    EXPECT_EQ(r.value("threadCount").toString(), "6");
    EXPECT_EQ(r.value("hyperThreading").toString(), "1");
}

TEST_F(ProcessorFixture, AbsurdCountsAreClampedNotOverflowed) {
    setLscpu("99999999999999999999", "99999999999999999999");
    ProcessorNode node;
    const QJsonObject r = run(node);
    EXPECT_EQ(r.value("threadCount").toString(), "9223372036854775807");
    EXPECT_EQ(node.getPercent(), 100.f);
}

TEST_F(ProcessorFixture, EmptyLscpuAnswerCannotIdentify) {
    setLscpu("", "");
    ProcessorNode node;
    const QJsonObject r = run(node);
    EXPECT_EQ(r.value("coreCount").toString(), "");
    EXPECT_EQ(r.value("threadCount").toString(), "0");
    EXPECT_EQ(r.value("hyperThreading").toString(), "0");
    EXPECT_EQ(texts(r, "warning"),
              (QStringList{"Unable to identify your processor, make sure that it fits the requirements."}));
    EXPECT_EQ(node.getPercent(), 100.f);
}

TEST_F(ProcessorFixture, NonNumericCoreCountIsNotACrash) {
    setLscpu("lots", "1");
    ProcessorNode node;
    const QJsonObject r = run(node);
    EXPECT_EQ(r.value("coreCount").toString(), "lots");
    EXPECT_EQ(texts(r, "warning"),
              (QStringList{"Unable to identify your processor, make sure that it fits the requirements."}));
    EXPECT_EQ(node.getPercent(), 100.f);
}

TEST_F(ProcessorFixture, IssueStopsBeforeTheFirstBackslash) {
    writeFile(root + "/etc/issue", "Ubuntu 22.04.4 LTS \\n \\l\n");
    ProcessorNode node;
    EXPECT_EQ(run(node).value("OS").toString(), "Ubuntu 22.04.4 LTS ");
}

TEST_F(ProcessorFixture, EmptyIssueKeepsTheNotFoundText) {
    writeFile(root + "/etc/issue", "");
    ProcessorNode node;
    EXPECT_EQ(run(node).value("OS").toString(), "Linux Distribution not found");
}

TEST_F(ProcessorFixture, MissingIssueKeepsTheNotFoundTextQuietly) {
    ::unlink((root + "/etc/issue").c_str());
    ProcessorNode node;
    EXPECT_EQ(run(node).value("OS").toString(), "Linux Distribution not found");
    EXPECT_EQ(stderrText, "Error: Could not open the file.\n");
}

TEST_F(ProcessorFixture, NoReleaseFileIsUnknownWithOneErrorLine) {
    ProcessorNode node;
    const QJsonObject r = run(node);
    EXPECT_EQ(r.value("L4T version").toString(), "unknown");
    EXPECT_EQ(stderrText, "Error: Could not open the file.\n");
}

TEST_F(ProcessorFixture, ReleaseR32Revision71) {
    writeFile(
        root + "/etc/nv_tegra_release",
        "# R32 (release), REVISION: 7.1, GCID: 29818004, BOARD: t186ref, EABI: aarch64, DATE: Sat Feb 19 "
        "17:07:00 UTC 2022\n");
    ProcessorNode node;
    const QJsonObject r = run(node);
    EXPECT_EQ(r.value("L4T version").toString(), "32.7.1");
    EXPECT_EQ(stderrText, "");
    QJsonObject direct;
    EXPECT_EQ(getL4TVersion(direct), "32.7.1");
    EXPECT_EQ(direct.value("L4T version").toString(), "32.7.1");
}

TEST_F(ProcessorFixture, CpuinfoWithoutModelNameGivesEmptyCpu) {
    writeFile(root + "/proc/cpuinfo", "processor\t: 0\nBogoMIPS\t: 62.50\nFeatures\t: fp asimd\n");
    ProcessorNode node;
    const QJsonObject r = run(node);
    EXPECT_EQ(r.value("cpu").toString(), "");
    EXPECT_EQ(texts(r, "valid").value(0), "<b>Processor: </b> ");
}

TEST_F(ProcessorFixture, MotherboardFromDmi) {
    writeFile(root + "/sys/devices/virtual/dmi/id/board_vendor", "Acme Inc.\n");
    writeFile(root + "/sys/devices/virtual/dmi/id/board_name", "B-450\n");
    ProcessorNode node;
    const QJsonObject r = run(node);
    EXPECT_EQ(r.value("motherboard").toString(), "B-450, Acme Inc.");
    EXPECT_TRUE(texts(r, "valid").contains("<b>Motherboard: </b> B-450, Acme Inc."));
}

TEST_F(ProcessorFixture, NoDmiFilesNoMotherboardLine) {
    ProcessorNode node;
    const QJsonObject r = run(node);
    EXPECT_EQ(r.value("motherboard").toString(), "");
    for (const QString& t : texts(r, "valid"))
        EXPECT_FALSE(t.contains("Motherboard"));
}

TEST_F(ProcessorFixture, ExecuteCommandReturnsEverythingPrinted) {
    EXPECT_EQ(executeCMD("printf 'a\\nb'"), "a\nb");
    // Standard error is dropped.
    EXPECT_EQ(executeCMD("echo out; echo err >&2"), "out\n");
    // Longer than one read piece.
    EXPECT_EQ(executeCMD("head -c 25000 /dev/zero | tr '\\0' x").size(), 25000u);
    // Commands come through PATH.
    EXPECT_NE(executeCMD("lscpu").find("CPU(s):"), std::string::npos);
}

TEST(L4TRelease, Table) {
    struct Case {
        const char* line;
        const char* expected;
    } cases[] = {
        {"# R35 (release), REVISION: 4.1, GCID: 33958178, BOARD: t186ref", "35.4.1"},
        {"# R32 (release), REVISION: 7.1, GCID: 29818004", "32.7.1"},
        {"# R36 (release), REVISION: 3.0, GCID: 36923193", "36.3.0"},
        // A first comma outside the skipped brackets is copied.
        {"# R32, REVISION: 7.1, GCID: 1", "32,EVISION7.1"},
        {"", ""},
        {"garbage", "garbage"},
        {"(((", "..."},
        {",,,", ","},
    };
    for (const Case& c : cases)
        EXPECT_EQ(condenseL4TRelease(c.line), c.expected) << c.line;
}

TEST(L4TRelease, FuzzedLinesNeverKeepDroppedCharacters) {
    std::mt19937 rng(42);
    const std::string alphabet = "# R()(,:.0123456789abcEVISON\t\n\xff";
    for (int round = 0; round < 20000; ++round) {
        std::string line;
        const size_t len = rng() % 64;
        for (size_t i = 0; i < len; ++i)
            line += alphabet[rng() % alphabet.size()];
        const std::string out = condenseL4TRelease(line);
        EXPECT_LE(out.size(), line.size());
        EXPECT_EQ(out.find_first_of(" #R:"), std::string::npos) << line;
    }
}

TEST(CpuInfoLine, Table) {
    EXPECT_EQ(cpuModelFromLine("model name\t: Intel(R) Core(TM)  i7   CPU"), " Intel(R) Core(TM) i7 CPU");
    EXPECT_EQ(cpuModelFromLine("model name\t:"), "");
    EXPECT_EQ(cpuModelFromLine("model name"), "");
    EXPECT_EQ(cpuModelFromLine("model name\t:    x"), " x");
    EXPECT_EQ(cpuModelFromLine("model name\t: a:b"), " a:b");
}

TEST(IssueText, Table) {
    EXPECT_EQ(osNameFromIssue("Debian GNU/Linux 12 \\n \\l\n"), "Debian GNU/Linux 12 ");
    EXPECT_EQ(osNameFromIssue("No escapes\n"), "No escapes\n");
    EXPECT_EQ(osNameFromIssue("\\"), "");
    EXPECT_EQ(osNameFromIssue(""), "");
}
