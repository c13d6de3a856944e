#pragma once

#include <QJsonObject>

#include <chrono>

#include "diagnostic/DiagnosticNode.h"

// "AI Models": whether each of the 14 models has an optimised form for the
// first GPU. An unoptimised model is an info line, not a fault: the SDK
// optimises it at first use.
class AINode : public DiagnosticNode {
public:
    AINode();

    void runDiagnostic(QJsonObject& result) override;

    // Pause after each progress step, so that the polling watchers show it.
    std::chrono::milliseconds stepPause{200};
};
