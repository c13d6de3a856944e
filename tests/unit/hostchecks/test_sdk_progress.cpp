// The threaded part of the "KOV SDK" check: the AI components step with its
// progress thread, and the progress thread itself. Kept apart from the other
// SDK tests so that the thread-sanitizer run covers it: those reach Qt's network
// stack, whose D-Bus helper thread inside the uninstrumented glib draws false
// reports.
#include "diagnostic/SDKNode.h"

#include "SdkTestSupport.h"

#include <QJsonArray>

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

struct SdkTest : public SdkTestBase {
    void SetUp() override {
        SdkTestBase::SetUp();
        env.unset("KOV_STANDIN_CUDNN_VERSION");
        env.unset("KOV_STANDIN_AI_VERSION");
    }
};

}  // namespace

TEST_F(SdkTest, AIComponentsAllRightWaitsAndAddsNothing) {
    root.installAILibrary();
    root.writeFile("/usr/local/kov/resources/objects_performance_3.2.model", "net");
    root.writeFile("/usr/local/kov/resources/other.model", "net");
    SDKNode node;
    node.stepPause = std::chrono::milliseconds(0);  // the 3 s settle pause stays
    node.cudaAvailable = true;
    QJsonObject r;
    CaptureStdout();
    const auto start = std::chrono::steady_clock::now();
    node.getSDKAIComponents(r, 0);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_GE(elapsed, std::chrono::milliseconds(2900));
    EXPECT_LT(elapsed, std::chrono::seconds(20));
    EXPECT_TRUE(node.messages.empty());
    EXPECT_EQ(r.value("binFiles").toArray(), QJsonArray{"libbh_ai.so"});
    EXPECT_EQ(r.value("resourcesFiles").toArray(), QJsonArray{"objects_performance_3.2.model"});
    EXPECT_EQ(r.value("resourcesFilesExpected").toArray(), QJsonArray{"objects_performance_3.2"});
    const QJsonObject a = r.value("ai").toObject();
    EXPECT_TRUE(a.value("checkAI").toBool());
    EXPECT_FALSE(a.contains("loadAI"));
    EXPECT_EQ(a.value("cudnnVersion").toInt(), 8904);
    EXPECT_EQ(a.value("cudnnVersionExpected").toInt(), 8904);
    EXPECT_EQ(a.value("cudnnCudartVersion").toInt(), 12020);
    EXPECT_EQ(a.value("cudaVersion").toInt(), 12020);
    EXPECT_EQ(a.value("tensorVersion").toInt(), 8602);
    EXPECT_EQ(r.value("CUDA loading"), QJsonValue(false));
    // The progress thread was stopped at 95 and the loader closed its objects.
    EXPECT_EQ(current_percent.load(), 95.f);
    EXPECT_EQ(testsupport::countLines(root.aiLog(), "destroy metadata"), 1u);
}

TEST_F(SdkTest, AIComponentsReloadCudaWhenItWasMissing) {
    root.installAILibrary();
    SDKNode node;
    fast(node);
    node.cudaAvailable = false;
    QJsonObject r;
    node.getSDKAIComponents(r, 0);
    EXPECT_TRUE(node.cudaAvailable);
    EXPECT_EQ(r.value("CUDA loading"), QJsonValue(false));
    EXPECT_EQ(node.cudaHandle, nullptr);  // closed again at the end
}

TEST_F(SdkTest, ProgressClimbsUntilTheAIWorkEnds) {
    SDKNode node;
    node.progressStepPause = std::chrono::milliseconds(1);
    node.progressStepWait = std::chrono::milliseconds(1);
    current_percent = 35.f;
    std::thread t(&SDKNode::increase_percent, &node);
    t.join();  // climbs to 90 by itself
    EXPECT_EQ(current_percent.load(), 90.f);
    EXPECT_EQ(node.getPercent(), 90.f);

    // Stopped from outside: 95 ends the thread at its next test, long before 3.2 s steps would.
    node.progressStepPause = std::chrono::milliseconds(200);
    node.progressStepWait = std::chrono::milliseconds(3000);
    current_percent = 35.f;
    std::thread slow(&SDKNode::increase_percent, &node);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const auto start = std::chrono::steady_clock::now();
    current_percent = 95.f;
    slow.join();
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
    EXPECT_EQ(node.getPercent(), 36.f);
}
