// Shared set-up of the "KOV SDK" check tests: the stand-in fixture and a node
// whose pauses are cut short.
#pragma once

#include <chrono>

#include "StandinTestSupport.h"
#include "diagnostic/SDKNode.h"

struct SdkTestBase : public testsupport::StandinTest {
    // No step pauses; the progress thread ticks every millisecond.
    static void fast(SDKNode& node) {
        node.stepPause = std::chrono::milliseconds(0);
        node.aiSettlePause = std::chrono::milliseconds(0);
        node.progressStepPause = std::chrono::milliseconds(1);
        node.progressStepWait = std::chrono::milliseconds(1);
    }
};
