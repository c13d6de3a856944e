#include "diagnostic/NodeList.h"

#include "diagnostic/AINode.h"
#include "diagnostic/DMesgLogger.h"
#include "diagnostic/GPUNode.h"
#include "diagnostic/KOVNode.h"
#include "diagnostic/ProcessorNode.h"
#include "diagnostic/RecoverMcuSerialNode.h"
#include "diagnostic/SDKNode.h"
#include "diagnostic/USBNode.h"

std::vector<DiagnosticNode*> buildDiagnosticNodes(bool arCheck) {
    static SDKNode sdk;              // position 1
    static ProcessorNode processor;  // position 2
    static GPUNode gpu;              // position 3
    gpu.arCheck = arCheck;
    static AINode aiModels;  // position 4
    static KOVNode camera;   // position 5
    static USBNode devices;  // position 6
    return {&sdk, &processor, &gpu, &aiModels, &camera, &devices};
}

DiagnosticNode* buildRecoverMcuNode() {
    static RecoverMcuSerialNode recoverMcu;
    return &recoverMcu;
}

DiagnosticNode* buildKernelLogNode() {
    static DMesgLogger kernelLog;
    return &kernelLog;
}
