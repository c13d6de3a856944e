// The host checks on a machine with none of CUDA, cuDNN and TensorRT
// (LD_LIBRARY_PATH hides all of them).
#include "diagnostic/GPUNode.h"
#include "diagnostic/SDKNode.h"

#include "StandinTestSupport.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using testsupport::ScopedEnv;
using testsupport::SysRoot;

TEST(NoCuda, GraphicsCardHasOneErrorAndNoDeviceKeys) {
    GPUNode node;
    node.stepPause = std::chrono::milliseconds(0);
    QJsonObject r;
    node.runDiagnostic(r);
    EXPECT_FALSE(r.contains("initResult"));
    EXPECT_FALSE(r.contains("devices"));
    EXPECT_FALSE(r.contains("deviceCount"));
    EXPECT_FALSE(r.contains("deviceDriverVersion"));
    EXPECT_FALSE(r.contains("glx_info"));
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_ERROR),
              std::vector<std::string>{gpuUnableToDetectMessage()});
    EXPECT_EQ(node.messages.size(), 1u);
    EXPECT_FALSE(node.cudaAvailable);
    EXPECT_EQ(node.getPercent(), 100.f);
}

TEST(NoCuda, SdkNodeReportsCudaMissingThreeTimes) {
    SysRoot root;
    root.mkdir("/usr/local");
    ScopedEnv host("KOV_UPDATE_MANIFEST_HOST", "http://127.0.0.1:1");
    SDKNode node;
    node.stepPause = std::chrono::milliseconds(0);
    QJsonObject r;
    CaptureStdout();
    node.runDiagnostic(r);
    const std::string out = GetCapturedStdout();
    EXPECT_EQ(out, "Cannot find CUDA\n");
    // Step 4 (no runtime), the toolkit walk (no nvcc) and the AI components.
    const auto errors = node.getSpecificMessageList(DIAGNOSTIC_ERROR);
    EXPECT_EQ(std::count(errors.begin(), errors.end(), sdkCudaMissingMessage()), 3);
    EXPECT_FALSE(r.contains("GPU Driver Version"));
    const QJsonObject a = r.value("ai").toObject();
    EXPECT_EQ(a.value("cudaVersion").toInt(), -1);
    EXPECT_EQ(a.value("loadAI").toString(), "CUDNN NOT FOUND");
    EXPECT_EQ(node.getPercent(), 100.f);
}

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
