#include "diagnostic/NodeList.h"

#include "diagnostic/ProcessorNode.h"

std::vector<DiagnosticNode*> buildDiagnosticNodes(bool arCheck) {
    (void)arCheck;  // read by the "Graphics Card" node
    // Position 1: "KOV SDK".
    static ProcessorNode processor;  // position 2
    // Position 3: "Graphics Card", 4: "AI Models", 5: "Camera Test", 6: "Devices".
    return {&processor};
}

DiagnosticNode* buildRecoverMcuNode() {
    return nullptr;
}

DiagnosticNode* buildKernelLogNode() {
    return nullptr;
}
