#include "diagnostic/NodeList.h"

#include "diagnostic/AINode.h"
#include "diagnostic/GPUNode.h"
#include "diagnostic/KOVNode.h"
#include "diagnostic/ProcessorNode.h"
#include "diagnostic/SDKNode.h"

std::vector<DiagnosticNode*> buildDiagnosticNodes(bool arCheck) {
    static SDKNode sdk;              // position 1
    static ProcessorNode processor;  // position 2
    static GPUNode gpu;              // position 3
    gpu.arCheck = arCheck;
    static AINode aiModels;  // position 4
    // Position 5: "Camera Test", 6: "Devices".
    static KOVNode camera;
    return {&sdk, &processor, &gpu, &aiModels, &camera};
}

DiagnosticNode* buildRecoverMcuNode() {
    return nullptr;
}

DiagnosticNode* buildKernelLogNode() {
    return nullptr;
}
