// Command-line model maintenance ("-aic", "-aid", "-aio", "-ais", "-nrlo",
// "-nrlo_plus", "-v") against the stand-in libraries.
#include "ai/LibAILoader.h"
#include "ai/ModelMaintenance.h"

#include "StandinTestSupport.h"

#include <gtest/gtest.h>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using testsupport::countLines;
using testsupport::ScopedEnv;

namespace {

struct MaintenanceTest : public testsupport::StandinTest {
    void SetUp() override {
        StandinTest::SetUp();
        env.unset("KOV_STANDIN_CUDNN_VERSION");
        env.unset("KOV_STANDIN_CUDA_COUNT_RESULT");
        root.installAILibrary();
    }
    std::string run(const AIParameters& p) {
        CaptureStdout();
        EXPECT_EQ(runAIModelMaintenance(p), 0);
        return GetCapturedStdout();
    }
};

}  // namespace

TEST_F(MaintenanceTest, ClearThenOptimiseAll) {
    root.writeFile("/usr/local/kov/resources/stale_engine.optimized", "old");
    AIParameters p;
    p.clear = true;
    p.optimize = true;
    const std::string out = run(p);
    const size_t removing = out.find("Removing all AI models\n");
    const size_t optimizing = out.find("Optimizing all AI models\n");
    ASSERT_NE(removing, std::string::npos) << out;
    ASSERT_NE(optimizing, std::string::npos) << out;
    EXPECT_LT(removing, optimizing);
    EXPECT_FALSE(root.exists("/usr/local/kov/resources/stale_engine.optimized"));
    EXPECT_EQ(countLines(root.aiLog(), " optimize "), 14u);
    EXPECT_EQ(testsupport::countOccurrences(out, "Optimizing: "), 14u);
    for (int m = 0; m < 14; ++m)
        EXPECT_TRUE(ai::checkAIModelOptim(static_cast<bh::AI_MODELS>(m), 0, false)) << m;
}

TEST_F(MaintenanceTest, ClearAloneRemovesEverything) {
    root.writeFile("/usr/local/kov/resources/neural_depth_3.6.model", "net");
    AIParameters p;
    p.clear = true;
    EXPECT_EQ(run(p), "Removing all AI models\n");
    EXPECT_TRUE(root.list("/usr/local/kov/resources").empty());
    EXPECT_EQ(countLines(root.aiLog(), " optimize "), 0u);
}

TEST_F(MaintenanceTest, DownloadFetchesWithoutOptimising) {
    AIParameters p;
    p.download = true;
    const std::string out = run(p);
    EXPECT_NE(out.find("Downloading all AI models\n"), std::string::npos);
    EXPECT_EQ(testsupport::countOccurrences(out, "Downloading: "), 14u);
    for (int m = 0; m < 14; ++m) {
        EXPECT_TRUE(ai::checkAIModel(static_cast<bh::AI_MODELS>(m))) << m;
        EXPECT_FALSE(ai::checkAIModelOptim(static_cast<bh::AI_MODELS>(m), 0, false)) << m;
    }
}

TEST_F(MaintenanceTest, OptimiseWinsOverDownload) {
    AIParameters p;
    p.download = true;
    p.optimize = true;
    const std::string out = run(p);
    EXPECT_EQ(out.find("Downloading all AI models"), std::string::npos);
    EXPECT_EQ(countLines(root.aiLog(), "download=1"), 0u);
    EXPECT_EQ(countLines(root.aiLog(), "download=0"), 14u);
}

TEST_F(MaintenanceTest, EveryGpuIsOptimisedWithItsOwnVersionName) {
    ScopedEnv gpus("KOV_STANDIN_CUDA_DEVICES", "Orin|8.7|16|1000;Xavier|7.2|8|1000");
    AIParameters p;
    p.optimize = true;
    run(p);
    EXPECT_EQ(countLines(root.aiLog(), "-87-12020-8904-8602 gpu=0"), 14u);
    EXPECT_EQ(countLines(root.aiLog(), "-72-12020-8904-8602 gpu=1"), 14u);
}

TEST_F(MaintenanceTest, NeuralPlusOptimisesModel13OnEveryGpu) {
    ScopedEnv gpus("KOV_STANDIN_CUDA_DEVICES", "Orin|8.7|16|1000;Xavier|7.2|8|1000;Nano|5.3|1|1000");
    AIParameters p;  // as "-nrlo_plus" sets it
    p.specific = true;
    p.model = 13;
    const std::string out = run(p);
    EXPECT_EQ(testsupport::countOccurrences(out, "Optimizing: NEURAL PLUS DEPTH...\n"), 3u);
    std::vector<std::string> optim;
    for (const auto& l : root.aiLog())
        if (l.find(" optimize ") != std::string::npos)
            optim.push_back(l);
    const std::vector<std::string> expected = {
        "disparity optimize neural_depth_3.6 -87-12020-8904-8602 gpu=0 download=0 size=1920x1024",
        "disparity optimize neural_depth_3.6 -72-12020-8904-8602 gpu=1 download=0 size=1920x1024",
        "disparity optimize neural_depth_3.6 -53-12020-8904-8602 gpu=2 download=0 size=1920x1024"};
    EXPECT_EQ(optim, expected);
    EXPECT_TRUE(ai::checkAIModelOptim(bh::NEURAL_PLUS_DEPTH, 0, false));
    EXPECT_FALSE(ai::checkAIModelOptim(bh::NEURAL_DEPTH, 0, false));
}

TEST_F(MaintenanceTest, UnknownModelIsIgnored) {
    AIParameters p;
    p.specific = true;
    p.model = 99;
    EXPECT_EQ(run(p), "");
    EXPECT_EQ(countLines(root.aiLog(), " optimize "), 0u);
}

TEST_F(MaintenanceTest, NegativeModelDoesNothing) {
    AIParameters p;
    p.specific = true;
    p.model = -1;
    EXPECT_EQ(run(p), "");
    EXPECT_EQ(countLines(root.aiLog(), " optimize "), 0u);
}

TEST_F(MaintenanceTest, VerbosityReachesTheLibrary) {
    AIParameters p;
    p.specific = true;
    p.model = 12;
    p.verbosity = 673;
    run(p);
    EXPECT_EQ(countLines(root.aiLog(), "log level 673"), 1u);
}

TEST_F(MaintenanceTest, OldCudnnStopsWithItsLine) {
    ScopedEnv old("KOV_STANDIN_CUDNN_VERSION", "8200");
    AIParameters p;
    p.optimize = true;
    EXPECT_EQ(run(p), "Incompatible CUDNN version (found 8.200000, minimum required 8.904000)\n");
    EXPECT_EQ(countLines(root.aiLog(), " optimize "), 0u);
}

TEST_F(MaintenanceTest, FailingDeviceCountStopsAfterTheClear) {
    ScopedEnv fail("KOV_STANDIN_CUDA_COUNT_RESULT", "35");
    root.writeFile("/usr/local/kov/resources/old.model", "x");
    AIParameters p;
    p.clear = true;
    p.optimize = true;
    EXPECT_EQ(run(p), "Removing all AI models\n");
    EXPECT_FALSE(root.exists("/usr/local/kov/resources/old.model"));
    EXPECT_EQ(countLines(root.aiLog(), " optimize "), 0u);
}

TEST_F(MaintenanceTest, FailedOptimisationLeavesNoTraceButTheLibrarysOwn) {
    ScopedEnv fail("KOV_STANDIN_AI_OPTIM_RESULT", "8");
    AIParameters p;
    p.specific = true;
    p.model = 12;
    EXPECT_EQ(run(p), "Optimizing: NEURAL DEPTH...\n");
    EXPECT_FALSE(ai::checkAIModelOptim(bh::NEURAL_DEPTH, 0, false));
}

TEST_F(MaintenanceTest, WithoutTheAILibraryNothingIsOptimised) {
    std::remove(root.path("/usr/local/kov/lib/libbh_ai.so").c_str());
    AIParameters p;
    p.optimize = true;
    const std::string out = run(p);
    // The modules are not loaded: every model answers 1 after its line.
    EXPECT_EQ(testsupport::countOccurrences(out, "Optimizing: "), 14u);
    EXPECT_FALSE(ai::checkAIModel(bh::NEURAL_DEPTH));
}
