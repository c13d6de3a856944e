// "AI Models": one line per model, valid when an optimised form exists for the
// first GPU, info otherwise.
#include "ai/LibAILoader.h"
#include "diagnostic/AINode.h"

#include "StandinTestSupport.h"

#include <QJsonArray>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using testsupport::ScopedEnv;
using testsupport::SysRoot;

namespace {

QJsonObject run(AINode& node) {
    node.stepPause = std::chrono::milliseconds(0);
    QJsonObject r;
    node.runDiagnostic(r);
    EXPECT_EQ(node.getPercent(), 100.f);
    return r;
}

}  // namespace

TEST(AINodeTest, NoGpuAndNoLibraryGivesFourteenInfoLines) {
    SysRoot root;
    ScopedEnv env("KOV_STANDIN_CUDA_DEVICES", "");
    AINode node;
    const QJsonObject r = run(node);
    const auto info = node.getSpecificMessageList(DIAGNOSTIC_INFO);
    ASSERT_EQ(info.size(), 14u);
    EXPECT_EQ(info[0], "MULTI CLASS DETECTION is not optimized");
    EXPECT_EQ(info[13], "NEURAL PLUS DEPTH is not optimized");
    EXPECT_TRUE(node.getSpecificMessageList(DIAGNOSTIC_ERROR).empty());
    EXPECT_EQ(node.messages.size(), 14u);
    EXPECT_EQ(r.value("info").toArray().size(), 14);
    EXPECT_EQ(r.keys(), QStringList{"info"});  // no keys of its own
}

TEST(AINodeTest, OptimisedModelsAreValid) {
    SysRoot root;
    ScopedEnv env("KOV_STANDIN_CUDA_DEVICES", "Orin|8.7|16|32000000000");
    root.installAILibrary();
    {
        ai::AILoader loader;
        ASSERT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), 0);
        std::string version = loader.getLibVersionName(0);
        CaptureStdout();
        loader.optimAIModel(bh::NEURAL_DEPTH, 0, false, version, false);
        loader.optimAIModel(bh::REID_ASSOCIATION, 0, false, version, false);
        GetCapturedStdout();
    }
    AINode node;
    run(node);
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_VALID),
              (std::vector<std::string>{"REID ASSOCIATION is optimized", "NEURAL DEPTH is optimized"}));
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_INFO).size(), 12u);
    // Insertion order follows the models.
    EXPECT_EQ(node.messages[11].text, "REID ASSOCIATION is optimized");
    EXPECT_EQ(node.messages[13].text, "NEURAL PLUS DEPTH is not optimized");
}

TEST(AINodeTest, ProgressRunsInStepsOfSeven) {
    SysRoot root;
    AINode node;
    node.stepPause = std::chrono::milliseconds(30);
    std::vector<float> seen;
    std::atomic<bool> done{false};
    std::thread watcher([&] {
        while (!done) {
            const float p = node.getPercent();
            if (seen.empty() || seen.back() != p)
                seen.push_back(p);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    QJsonObject r;
    node.runDiagnostic(r);
    done = true;
    watcher.join();
    ASSERT_FALSE(seen.empty());
    EXPECT_EQ(seen.back(), 100.f);
    for (size_t i = 1; i < seen.size(); ++i)
        EXPECT_GT(seen[i], seen[i - 1]);
    EXPECT_NE(std::find(seen.begin(), seen.end(), 91.f), seen.end());
    EXPECT_NE(std::find(seen.begin(), seen.end(), 7.f), seen.end());
}
