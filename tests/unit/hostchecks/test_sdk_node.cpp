// "KOV SDK": versions, update notice, driver lines, CUDA toolkits and the AI
// components, against the stand-in libraries and commands.
#include "diagnostic/SDKNode.h"

#include "LoopbackHttpServer.h"
#include "SdkTestSupport.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>

#include <gtest/gtest.h>

#include <chrono>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using testsupport::ScopedEnv;

namespace {

struct SdkTest : public SdkTestBase {
    void SetUp() override {
        SdkTestBase::SetUp();
        env.set("KOV_UPDATE_MANIFEST_HOST", "http://127.0.0.1:1");  // nothing listens: no update
        env.unset("KOV_STANDIN_SDK_VERSION");
        env.unset("KOV_STANDIN_CUDNN_VERSION");
        env.unset("KOV_STANDIN_NVIDIA_SMI_FILE");
        root.mkdir("/usr/local");
    }
    // A toolkit folder under /usr/local whose nvcc reports `version`.
    void addToolkit(const std::string& dir, const std::string& version) {
        root.writeFile("/usr/local/" + dir + "/version.txt", version);
        root.copyLibrary(testsupport::standinDir() + "/bin/nvcc", "/usr/local/" + dir + "/bin/nvcc");
        QFile::setPermissions(QString::fromStdString(root.path("/usr/local/" + dir + "/bin/nvcc")),
                              QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }
    QJsonObject runFull(SDKNode& node) {
        fast(node);
        QJsonObject r;
        CaptureStdout();
        node.runDiagnostic(r);
        GetCapturedStdout();
        EXPECT_EQ(node.getPercent(), 100.f);
        return r;
    }
};

bool hasText(const std::vector<std::string>& list, const std::string& needle) {
    for (const auto& s : list)
        if (s.find(needle) != std::string::npos)
            return true;
    return false;
}

}  // namespace

TEST_F(SdkTest, MatchingVersionsAreValid) {
    root.installSdkLibrary();
    addToolkit("cuda-12.2", "12.2.140");
    SDKNode node;
    const QJsonObject r = runFull(node);
    EXPECT_EQ(r.value("KOV SDK Version (Diag)").toString(), "4.1.2");
    EXPECT_EQ(r.value("KOV SDK Version (RT)").toString(), "4.1.2");
    EXPECT_TRUE(hasText(node.getSpecificMessageList(DIAGNOSTIC_VALID), "<b>KOV SDK version:</b> 4.1.2"));
    EXPECT_TRUE(node.getSpecificMessageList(DIAGNOSTIC_ERROR).empty());
    EXPECT_TRUE(node.getSpecificMessageList(DIAGNOSTIC_WARNING).empty());
}

TEST_F(SdkTest, NewerOrOlderInstalledLibraryIsAnError) {
    root.installSdkLibrary();
    for (const char* v : {"4.1.3", "4.0.2", "5.1.2"}) {
        ScopedEnv sdk("KOV_STANDIN_SDK_VERSION", v);
        SDKNode node;
        const QJsonObject r = runFull(node);
        EXPECT_EQ(r.value("KOV SDK Version (RT)").toString().toStdString(), v);
        const auto errors = node.getSpecificMessageList(DIAGNOSTIC_ERROR);
        bool found = false;
        for (const auto& e : errors) {
            if (e.rfind("Your KOV SDK needs to be updated.", 0) == 0) {
                found = true;
                EXPECT_EQ(
                    e,
                    "Your KOV SDK needs to be updated. Please download the latest version from our website. "
                    "<a href='https://www.brennhaven.com/developers/' style='color: #d9ff42;' >Download</a> "
                    ": 4.1.2 vs " +
                        std::string(v));
            }
        }
        EXPECT_TRUE(found) << v;
    }
}

TEST_F(SdkTest, MissingSdkLibraryReportsTheLoaderText) {
    SDKNode node;
    const QJsonObject r = runFull(node);
    EXPECT_FALSE(r.contains("KOV SDK Version (RT)"));
    const auto errors = node.getSpecificMessageList(DIAGNOSTIC_ERROR);
    ASSERT_FALSE(errors.empty());
    EXPECT_EQ(errors[0].rfind("<b>Loading KOV binaries :</b> ", 0), 0u);
    EXPECT_NE(errors[0].find("libbh_kov.so"), std::string::npos);
    EXPECT_NE(errors[0].find("No such file"), std::string::npos);
}

TEST_F(SdkTest, SdkLibraryWithoutTheVersionExport) {
    root.copyLibrary(testsupport::standinDir() + "/lib/libnvinfer.so", "/usr/local/kov/lib/libbh_kov.so");
    SDKNode node;
    const QJsonObject r = runFull(node);
    EXPECT_FALSE(r.contains("KOV SDK Version (RT)"));
    EXPECT_TRUE(hasText(node.getSpecificMessageList(DIAGNOSTIC_ERROR), "<b>Loading KOV binaries :</b> ") &&
                hasText(node.getSpecificMessageList(DIAGNOSTIC_ERROR), "getKOVSDKRuntimeVersion_C"));
}

TEST_F(SdkTest, RequiredAndOtherToolkit) {
    root.installSdkLibrary();
    addToolkit("cuda-12.2", "12.2.140");
    addToolkit("cuda-11.4", "11.4.315");
    SDKNode node;
    const QJsonObject r = runFull(node);
    EXPECT_EQ(r.value("CUDA Toolkit version").toString().toStdString(),
              "V12.2.140 -->located in " + root.path("/usr/local/cuda-12.2/bin/nvcc"));
    EXPECT_EQ(r.value("[Warning] Other cuda version N°0").toString().toStdString(),
              "V11.4.315-->located in  in " + root.path("/usr/local/cuda-11.4/bin/nvcc"));
    EXPECT_FALSE(r.contains("[Warning] Other cuda version N°1"));
    const auto valid = node.getSpecificMessageList(DIAGNOSTIC_VALID);
    EXPECT_EQ(std::count(valid.begin(), valid.end(), "<b>CUDA version:</b> V12.2.140"), 1);
    EXPECT_EQ(
        node.getSpecificMessageList(DIAGNOSTIC_WARNING),
        std::vector<std::string>{"Multiple version of CUDA has been detected. It is recommended to uninstall "
                                 "other versions than 12.2."});
    EXPECT_FALSE(hasText(node.getSpecificMessageList(DIAGNOSTIC_ERROR), "CUDA 12.2 not detected"));
}

TEST_F(SdkTest, OnlyAnOtherToolkit) {
    root.installSdkLibrary();
    addToolkit("cuda-11.4", "11.4.315");
    SDKNode node;
    const QJsonObject r = runFull(node);
    EXPECT_TRUE(r.contains("[Warning] Other cuda version N°0"));
    EXPECT_FALSE(r.contains("CUDA Toolkit version"));
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ERROR),
              std::vector<std::string>{sdkCudaMissingMessage()});
    EXPECT_EQ(sdkCudaMissingMessage(),
              "<b>CUDA 12.2 not detected</b> <br/> Make sure CUDA is installed and restart your computer. <a "
              "href='https://download.brennhaven.com/cuda12_2_web' style='color: #d9ff42;' >Download</a>.");
    EXPECT_FALSE(hasText(node.getSpecificMessageList(DIAGNOSTIC_WARNING), "Multiple version"));
}

TEST_F(SdkTest, LinkNamedNvccCountsAndNvccPrefixedNamesDoNot) {
    root.installSdkLibrary();
    addToolkit("cuda-12.2", "12.2.140");
    root.mkdir("/usr/local/bin");
    ASSERT_TRUE(QFile::link(QString::fromStdString(root.path("/usr/local/cuda-12.2/bin/nvcc")),
                            QString::fromStdString(root.path("/usr/local/bin/nvcc"))));
    root.writeFile("/usr/local/bin/nvcc_wrapper", "#!/bin/sh\necho V11.0.1\n", true);
    root.writeFile("/usr/local/bin/nvcc.profile", "x");
    SDKNode node;
    const QJsonObject r = runFull(node);
    // The link reports 12.2 too: two valid lines, no other version.
    const auto valid = node.getSpecificMessageList(DIAGNOSTIC_VALID);
    EXPECT_EQ(std::count(valid.begin(), valid.end(), "<b>CUDA version:</b> V12.2.140"), 2);
    EXPECT_FALSE(r.contains("[Warning] Other cuda version N°0"));
}

TEST_F(SdkTest, SilentNvccIsAnOtherVersionWithEmptyText) {
    root.installSdkLibrary();
    root.writeFile("/usr/local/cuda-x/bin/nvcc", "#!/bin/sh\nexit 0\n", true);
    SDKNode node;
    const QJsonObject r = runFull(node);
    EXPECT_EQ(r.value("[Warning] Other cuda version N°0").toString().toStdString(),
              "-->located in  in " + root.path("/usr/local/cuda-x/bin/nvcc"));
    EXPECT_TRUE(hasText(node.getSpecificMessageList(DIAGNOSTIC_ERROR), "CUDA 12.2 not detected"));
}

TEST_F(SdkTest, VersionPatternDotsMatchAnyCharacter) {
    root.installSdkLibrary();
    root.writeFile("/usr/local/odd/bin/nvcc", "#!/bin/sh\necho 'release V12x2y77 here'\n", true);
    SDKNode node;
    const QJsonObject r = runFull(node);
    EXPECT_EQ(r.value("[Warning] Other cuda version N°0").toString().toStdString(),
              "V12x2y77-->located in  in " + root.path("/usr/local/odd/bin/nvcc"));
}

TEST_F(SdkTest, DriverLinesFromNvidiaSmi) {
    root.installSdkLibrary();
    root.writeFile(
        "/smi.txt",
        "Driver Version : 1.0\n    Performance State : P8\nDriver Version                : 540.4.0  \n\n"
        "Clocks Event Reasons (Performance)\n");
    ScopedEnv smi("KOV_STANDIN_NVIDIA_SMI_FILE", root.path("/smi.txt"));
    SDKNode node;
    const QJsonObject r = runFull(node);
    EXPECT_EQ(r.value("GPU Driver Version").toString(), "Driver Version                : 540.4.0  ");
    EXPECT_EQ(r.value("GPU Performance").toString(), "Clocks Event Reasons (Performance)");
}

TEST_F(SdkTest, MissingNvidiaSmiLeavesTheKeysOut) {
    root.installSdkLibrary();
    addToolkit("cuda-12.2", "12.2.140");
    ScopedEnv path("PATH", "/nonexistent-bin:/bin:/usr/bin");
    SDKNode node;
    const QJsonObject r = runFull(node);
    EXPECT_FALSE(r.contains("GPU Driver Version"));
    EXPECT_FALSE(r.contains("GPU Performance"));
    EXPECT_TRUE(node.getSpecificMessageList(DIAGNOSTIC_ERROR).empty());
}

TEST_F(SdkTest, OutdatedSdkIsAWarningWithTheLink) {
    testsupport::LoopbackHttpServer server;
    server.setBody(
        R"({"latest":{"version":{"webpage":"https://example.test/sdk-4.2","major":4,"minor":2,"patch":0,
                       "message":"New!"}},"messages":[]})");
    ScopedEnv host("KOV_UPDATE_MANIFEST_HOST", server.host());
    root.installSdkLibrary();
    SDKNode node;
    runFull(node);
    EXPECT_EQ(server.requests(), 1);
    EXPECT_EQ(
        node.getSpecificMessageList(DIAGNOSTIC_WARNING),
        std::vector<std::string>{"<b>KOV SDK Outdated:</b> <br/> KOV SDK update is available <a "
                                 "href='https://example.test/sdk-4.2' style='color: #d9ff42;' >here</a>."});
}

TEST_F(SdkTest, UpdateServerThatNeverAnswersDoesNotHoldTheNode) {
    testsupport::LoopbackHttpServer server;
    server.setSilent();
    ScopedEnv host("KOV_UPDATE_MANIFEST_HOST", server.host());
    ScopedEnv timeout("KOV_UPDATE_TIMEOUT_MS", "500");
    root.installSdkLibrary();
    SDKNode node;
    const auto start = std::chrono::steady_clock::now();
    const QJsonObject r = runFull(node);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
    EXPECT_EQ(server.requests(), 1);
    EXPECT_EQ(r.value("KOV SDK Version (RT)").toString(), "4.1.2");
    EXPECT_FALSE(hasText(node.getSpecificMessageList(DIAGNOSTIC_WARNING), "Outdated"));
}

TEST_F(SdkTest, OldCudnnPrintsItsLineAndWarns) {
    root.installAILibrary();
    ScopedEnv old("KOV_STANDIN_CUDNN_VERSION", "8200");
    SDKNode node;
    fast(node);
    node.cudaAvailable = true;
    QJsonObject r;
    CaptureStdout();
    node.getSDKAIComponents(r, 0);
    EXPECT_EQ(GetCapturedStdout(),
              "Incompatible CUDNN version (found 8.200000, minimum required 8.904000)\n");
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_WARNING),
              std::vector<std::string>{sdkObjectDetectionWarning()});
    EXPECT_EQ(r.value("ai").toObject().value("cudnnVersionExpected").toInt(), 8904);
    EXPECT_EQ(r.value("ai").toObject().value("cudnnVersion").toInt(), 8200);
    EXPECT_FALSE(r.contains("CUDA loading"));
}

TEST_F(SdkTest, FailedLibraryLoadShowsOnlyInTheReport) {
    ScopedEnv wrong("KOV_STANDIN_AI_VERSION", "3.0");
    root.installAILibrary();
    SDKNode node;
    fast(node);
    node.cudaAvailable = true;
    QJsonObject r;
    CaptureStdout();
    node.getSDKAIComponents(r, 0);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_TRUE(node.messages.empty());
    EXPECT_FALSE(r.value("ai").toObject().value("checkAI").toBool(true));
    EXPECT_EQ(r.value("ai").toObject().value("loadAI").toString(), "BH AI WRONG VERSION");
    EXPECT_FALSE(r.contains("CUDA loading"));
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
