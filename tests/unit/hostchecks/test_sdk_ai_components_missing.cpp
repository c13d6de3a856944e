// The AI components check with the CUDA runtime present but cuDNN, TensorRT
// and the AI library all missing.
#include "diagnostic/SDKNode.h"

#include "StandinTestSupport.h"

#include <QJsonArray>

#include <gtest/gtest.h>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using testsupport::SysRoot;

TEST(AIComponentsMissing, CudnnIsReportedFirst) {
    SysRoot root;
    SDKNode node;
    node.stepPause = std::chrono::milliseconds(0);
    node.cudaAvailable = true;
    QJsonObject r;
    CaptureStdout();
    node.getSDKAIComponents(r, 0);
    EXPECT_EQ(GetCapturedStdout(), "Cannot find CUDNN\n");
    const QJsonObject a = r.value("ai").toObject();
    EXPECT_EQ(a.value("loadAI").toString(), "CUDNN NOT FOUND");
    EXPECT_FALSE(a.value("checkAI").toBool(true));
    EXPECT_EQ(a.value("cudnnVersion").toInt(), -1);
    EXPECT_EQ(a.value("tensorVersion").toInt(), -1);
    EXPECT_EQ(a.value("cudaVersion").toInt(), 12020);
    EXPECT_EQ(node.getSpecificMessageList(DIAGNOSTIC_WARNING),
              std::vector<std::string>{sdkObjectDetectionWarning()});
    EXPECT_TRUE(node.getSpecificMessageList(DIAGNOSTIC_ERROR).empty());
    EXPECT_TRUE(r.value("binFiles").toArray().isEmpty());
    EXPECT_EQ(node.getPercent(), 35.f);  // the caller sets 100
}
