#include "diagnostic/AINode.h"

#include "ai/AIModels.h"
#include "ai/LibAILoader.h"

#include <string>
#include <thread>

AINode::AINode() : DiagnosticNode("AI Models") {}

void AINode::runDiagnostic(QJsonObject& result) {
    for (int m = 0; m < ai::AI_MODELS_COUNT; ++m) {
        setPercent(7.f * static_cast<float>(m));
        std::this_thread::sleep_for(stepPause);
        const std::string text = ai::modelDisplayText(m);
        if (ai::checkAIModelOptim(static_cast<bh::AI_MODELS>(m), 0, false))
            addMessage(result, DIAGNOSTIC_VALID, text + " is optimized");
        else
            addMessage(result, DIAGNOSTIC_INFO, text + " is not optimized");
    }
    setPercent(100.f);
    std::this_thread::sleep_for(stepPause);
}
