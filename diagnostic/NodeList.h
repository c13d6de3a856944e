#pragma once

#include <vector>

#include "diagnostic/DiagnosticNode.h"

// The nodes of a full diagnosis, in run order: "KOV SDK", "Processor",
// "Graphics Card", "AI Models", "Camera Test", "Devices". Only the nodes that
// exist in this build are returned; each is made once and lives until the
// process ends, so a second call returns the same objects. `arCheck` goes to
// the "Graphics Card" node.
std::vector<DiagnosticNode*> buildDiagnosticNodes(bool arCheck);

// The nodes that run alone on the command line ("-r", "-dmesg"). Null when the
// node is not part of this build.
DiagnosticNode* buildRecoverMcuNode();
DiagnosticNode* buildKernelLogNode();
