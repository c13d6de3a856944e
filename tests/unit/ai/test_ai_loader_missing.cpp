// The loader and the command-line model maintenance when one of the libraries
// the AI library needs is not installed. Built once per missing library
// (KOV_MISSING_LIB "cudnn", "tensorrt" or "cuda"); LD_LIBRARY_PATH puts an
// empty file of that library's name in front of the stand-ins.
#include "ai/LibAILoader.h"
#include "ai/ModelMaintenance.h"

#include "StandinTestSupport.h"

#include <gtest/gtest.h>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using testsupport::countLines;

namespace {

const std::string missing = KOV_MISSING_LIB;

struct MissingLibTest : public testsupport::StandinTest {
    void SetUp() override {
        StandinTest::SetUp();
        root.installAILibrary();
    }
};

AIParameters optimiseAll() {
    AIParameters p;
    p.clear = true;
    p.optimize = true;
    return p;
}

}  // namespace

TEST_F(MissingLibTest, VersionsTellWhatIsMissing) {
    ai::LibVersion v;
    const bool all = ai::dynamicLoadVersion(v);
    EXPECT_EQ(v.cuda == -1, missing == "cuda");
    EXPECT_EQ(v.cudnn == -1, missing == "cudnn");
    EXPECT_EQ(v.cudnnCudart == -1, missing == "cudnn");
    EXPECT_EQ(v.tensorrt == -1, missing == "tensorrt");
    // CUDA alone missing still counts as "not all found".
    EXPECT_FALSE(all);
}

TEST_F(MissingLibTest, LoadLibAnswersBeforeLookingForTheLibrary) {
    ai::AILoader loader;
    const int rc = loader.loadLib(ai::AI_LIB_ALL, 0);
    if (missing == "cudnn") {
        EXPECT_EQ(rc, ai::AI_LOAD_CUDNN_NOT_FOUND);
        EXPECT_EQ(countLines(root.aiLog(), "load metadata"), 0u);
        EXPECT_EQ(loader.libHandle, nullptr);
    } else if (missing == "tensorrt") {
        EXPECT_EQ(rc, ai::AI_LOAD_TRT_NOT_FOUND);
        EXPECT_EQ(countLines(root.aiLog(), "load metadata"), 0u);
    } else {
        // A missing CUDA runtime alone goes on; the suffix carries -1.
        EXPECT_EQ(rc, 0);
        EXPECT_TRUE(loader.loaded);
        EXPECT_EQ(loader.versionSuffix, "-1-8904-8602");
    }
}

TEST_F(MissingLibTest, CudnnMissingWinsEvenWithoutTheAILibrary) {
    if (missing != "cudnn")
        GTEST_SKIP() << "only without cuDNN";
    std::remove(root.path("/usr/local/kov/lib/libbh_ai.so").c_str());
    ai::AILoader loader;
    EXPECT_EQ(loader.loadLib(ai::AI_LIB_METADATA, 0), ai::AI_LOAD_CUDNN_NOT_FOUND);
}

TEST_F(MissingLibTest, ModelMaintenanceStopsWithItsLine) {
    root.writeFile("/usr/local/kov/resources/stale.model", "old");
    CaptureStdout();
    EXPECT_EQ(runAIModelMaintenance(optimiseAll()), 0);
    const std::string out = GetCapturedStdout();
    if (missing == "cuda") {
        // No CUDA runtime: nothing at all happens and nothing is printed.
        EXPECT_EQ(out, "");
    } else if (missing == "cudnn") {
        EXPECT_EQ(out, "Cannot find CUDNN\n");
    } else {
        EXPECT_EQ(out, "Cannot find TENSORT\n");
    }
    EXPECT_TRUE(root.exists("/usr/local/kov/resources/stale.model"));
    EXPECT_EQ(countLines(root.aiLog(), " optimize "), 0u);
}
