// The real kov_diagnostic binary: the host checks in its report, with the
// stand-ins of an Orin-class machine and on the plain machine, and the
// command-line model maintenance.
#include "LoopbackHttpServer.h"
#include "StandinTestSupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>

#include <gtest/gtest.h>

using testsupport::SysRoot;

namespace {

struct ToolRun {
    int exitCode = -1;
    std::string out;
    QJsonObject report;
};

// The tool scans its own path for options too: a build folder whose path holds
// "-c", "-d", "-r" and the like would change the run. Start it through a link
// at a plain path instead.
QString plainToolPath() {
    static const QString path = [] {
        const QString dir =
            QDir::tempPath() + "/kov_hostchecks_" + QString::number(QCoreApplication::applicationPid());
        QDir().mkpath(dir);
        const QString link = dir + "/kov_diagnostic";
        QFile::remove(link);
        QFile::link(KOV_DIAGNOSTIC_BIN, link);
        return link;
    }();
    return path;
}

// Runs the tool in `cwd` with `env` and reads the report it wrote there.
ToolRun runTool(const QStringList& args, const QProcessEnvironment& env, const QString& cwd) {
    QProcess p;
    p.setProcessEnvironment(env);
    p.setWorkingDirectory(cwd);
    p.setProcessChannelMode(QProcess::MergedChannels);
    p.start(plainToolPath(), args);
    ToolRun r;
    if (!p.waitForFinished(240000)) {
        p.kill();
        p.waitForFinished();
        ADD_FAILURE() << "kov_diagnostic did not finish";
        return r;
    }
    r.exitCode = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    r.out = p.readAll().toStdString();
    QFile f(cwd + "/KOV_Diagnostic_Results.json");
    if (f.open(QIODevice::ReadOnly))
        r.report = QJsonDocument::fromJson(f.readAll()).object();
    return r;
}

std::vector<std::string> texts(const QJsonObject& node, const char* level) {
    std::vector<std::string> list;
    for (const QJsonValue& v : node.value(level).toArray())
        list.push_back(v.toString().toStdString());
    return list;
}

bool anyContains(const std::vector<std::string>& list, const std::string& needle) {
    for (const auto& s : list)
        if (s.find(needle) != std::string::npos)
            return true;
    return false;
}

// An Orin-class machine: SDK 4.1.2 and its AI library installed, CUDA 12.2
// toolkit, stand-in libraries and commands, update server unreachable.
struct OrinMachine {
    SysRoot root;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    explicit OrinMachine(const QString& gpus = "Orin|8.7|16|32000000000") {
        root.installSdkLibrary();
        root.installAILibrary();
        root.writeFile("/usr/local/cuda-12.2/version.txt", "12.2.140");
        root.copyLibrary(testsupport::standinDir() + "/bin/nvcc", "/usr/local/cuda-12.2/bin/nvcc");
        QFile::setPermissions(QString::fromStdString(root.path("/usr/local/cuda-12.2/bin/nvcc")),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
        env.insert("KOV_SYSROOT", QString::fromStdString(root.root()));
        env.insert("LD_LIBRARY_PATH", QString::fromStdString(testsupport::standinDir() + "/lib"));
        env.insert("PATH", QString::fromStdString(testsupport::standinDir() + "/bin:") + env.value("PATH"));
        env.insert("KOV_STANDIN_CUDA_DEVICES", gpus);
        env.insert("KOV_STANDIN_AI_LOG", QString::fromStdString(root.aiLogPath()));
        env.insert("KOV_UPDATE_MANIFEST_HOST", "http://127.0.0.1:1");
        env.remove("KOV_SIMULATION");
    }
    QString cwd() const { return QString::fromStdString(root.root()); }
};

}  // namespace

TEST(HostChecksEndToEnd, OrinWithTheRightVersions) {
    OrinMachine m;
    const ToolRun r = runTool({"-c"}, m.env, m.cwd());
    EXPECT_EQ(r.exitCode, 0) << r.out;

    const QJsonObject gpu = r.report.value("Graphics Card").toObject();
    const QJsonObject device = gpu.value("devices").toArray()[0].toObject();
    EXPECT_EQ(device.value("arch").toString(), "Ampere");
    EXPECT_EQ(device.value("cores").toInt(), 16 * 128);
    EXPECT_EQ(device.value("computeCapability").toString(), "8.7");
    EXPECT_EQ(texts(gpu, "valid"), std::vector<std::string>{"<b>Graphics card: </b> Orin"});
    EXPECT_TRUE(texts(gpu, "error").empty());
    EXPECT_TRUE(gpu.value("glx_info").toString().contains("OpenGL"));

    const QJsonObject sdk = r.report.value("KOV SDK").toObject();
    EXPECT_EQ(sdk.value("KOV SDK Version (Diag)").toString(), "4.1.2");
    EXPECT_EQ(sdk.value("KOV SDK Version (RT)").toString(), "4.1.2");
    EXPECT_TRUE(anyContains(texts(sdk, "valid"), "<b>KOV SDK version:</b> 4.1.2"));
    EXPECT_TRUE(anyContains(texts(sdk, "valid"), "<b>CUDA version:</b> V12.2.140"));
    EXPECT_TRUE(texts(sdk, "error").empty()) << r.out;
    EXPECT_TRUE(sdk.value("ai").toObject().value("checkAI").toBool());
    EXPECT_TRUE(sdk.value("GPU Driver Version").toString().contains("Driver Version"));

    const QJsonObject models = r.report.value("AI Models").toObject();
    EXPECT_EQ(texts(models, "info").size() + texts(models, "valid").size(), 14u);
    EXPECT_NE(r.out.find("Running Graphics Card Diagnostic : "), std::string::npos);
}

TEST(HostChecksEndToEnd, CommandLinePrintsTheMakersMessages) {
    OrinMachine m;
    testsupport::LoopbackHttpServer server;
    server.setBody(
        R"({"latest":{"version":{"webpage":"https://example.test/release","major":4,"minor":1,"patch":3,)"
        R"("message":"Release notes"}},"messages":[)"
        R"({"version":"*","text":"Maintenance tonight","title":"Notice","type":"warning","webpage":"https://example.test/m"},)"
        R"({"version":"4.1.2","text":"Broken <b>build</b>","title":"Stop","type":"error","webpage":""},)"
        R"({"version":"4.0.0","text":"Old version","title":"Other","type":"info","webpage":""}]})");
    m.env.insert("KOV_UPDATE_MANIFEST_HOST", QString::fromStdString(server.host()));
    const ToolRun r = runTool({"-c"}, m.env, m.cwd());
    EXPECT_EQ(r.exitCode, 0) << r.out;
    // Each message for this version is printed at its level; the release
    // announcement is not (the node asks without it), and nothing waits.
    EXPECT_NE(r.out.find("[WARNING] Notice : Maintenance tonight (https://example.test/m)"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("[ERROR] Stop : Broken build"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Old version"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Release notes"), std::string::npos) << r.out;
    // The newer release still reaches the report.
    const QJsonObject sdk = r.report.value("KOV SDK").toObject();
    EXPECT_TRUE(anyContains(texts(sdk, "warning"), "https://example.test/release")) << r.out;
    EXPECT_FALSE(m.root.exists("/usr/local/kov/settings/.updates.bin"));
}

TEST(HostChecksEndToEnd, PlainMachine) {
    QTemporaryDir cwd;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.remove("LD_LIBRARY_PATH");
    env.remove("KOV_SYSROOT");
    env.remove("KOV_SIMULATION");
    env.insert("KOV_UPDATE_MANIFEST_HOST", "http://127.0.0.1:1");
    const ToolRun r = runTool({"-c"}, env, cwd.path());
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_TRUE(anyContains(texts(r.report.value("Graphics Card").toObject(), "error"),
                            "Unable to detect your graphics card"));
    EXPECT_TRUE(
        anyContains(texts(r.report.value("KOV SDK").toObject(), "error"), "<b>CUDA 12.2 not detected</b>"));
    const auto info = texts(r.report.value("AI Models").toObject(), "info");
    EXPECT_EQ(info.size(), 14u);
    for (const auto& line : info)
        EXPECT_NE(line.find(" is not optimized"), std::string::npos) << line;
    EXPECT_TRUE(texts(r.report.value("AI Models").toObject(), "error").empty());
}

TEST(HostChecksEndToEnd, ClearThenOptimiseAllThenDiagnose) {
    OrinMachine m;
    m.root.writeFile("/usr/local/kov/resources/stale_engine.optimized", "old");
    const ToolRun maintenance = runTool({"-aio", "-aic"}, m.env, m.cwd());
    EXPECT_EQ(maintenance.exitCode, 0) << maintenance.out;
    const size_t removing = maintenance.out.find("Removing all AI models");
    const size_t optimizing = maintenance.out.find("Optimizing all AI models");
    ASSERT_NE(removing, std::string::npos) << maintenance.out;
    ASSERT_NE(optimizing, std::string::npos) << maintenance.out;
    EXPECT_LT(removing, optimizing);
    EXPECT_FALSE(m.root.exists("/usr/local/kov/resources/stale_engine.optimized"));
    EXPECT_FALSE(QFile::exists(m.cwd() + "/KOV_Diagnostic_Results.json"));  // no report for maintenance

    const ToolRun r = runTool({"-c"}, m.env, m.cwd());
    EXPECT_EQ(r.exitCode, 0);
    const QJsonObject models = r.report.value("AI Models").toObject();
    const auto valid = texts(models, "valid");
    EXPECT_EQ(valid.size(), 14u);
    for (const auto& line : valid)
        EXPECT_NE(line.find(" is optimized"), std::string::npos) << line;
    EXPECT_FALSE(models.contains("info"));
}

TEST(HostChecksEndToEnd, NeuralPlusOnEveryGpu) {
    OrinMachine m("Orin|8.7|16|32000000000;Xavier|7.2|8|16000000000");
    const ToolRun r = runTool({"-nrlo_plus"}, m.env, m.cwd());
    EXPECT_EQ(r.exitCode, 0) << r.out;
    std::vector<std::string> optim;
    for (const auto& l : m.root.aiLog())
        if (l.find(" optimize ") != std::string::npos)
            optim.push_back(l);
    const std::vector<std::string> expected = {
        "disparity optimize neural_depth_3.6 -87-12020-8904-8602 gpu=0 download=0 size=1920x1024",
        "disparity optimize neural_depth_3.6 -72-12020-8904-8602 gpu=1 download=0 size=1920x1024"};
    EXPECT_EQ(optim, expected);
}
