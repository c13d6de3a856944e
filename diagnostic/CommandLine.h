#pragma once

#include <csignal>
#include <string>

#include "diagnostic/AIParameters.h"
#include "diagnostic/DiagnosticNode.h"
#include "diagnostic/DiagnosticRunner.h"
#include "support/Updater.h"

// 1 until the graphical mode has built its application object; the abort
// fallback re-runs the tool on the command line only while it is 1.
extern volatile std::sig_atomic_t GUICheck;
// No report file and no banner in the command-line mode; written only by the
// argument scan.
extern bool skip_json;
// The node whose final lines were printed last.
extern DiagnosticNode* currentNode;
// Position of the node being shown.
extern int currentIndex;

// Name of the report file.
extern const char* const kReportFileName;

// Exit code of a command-line run that asked for a check this build lacks.
constexpr int kExitCheckUnavailable = 3;

// The command-line mode: runs the model maintenance, a single node or the
// full diagnosis, paints the progress on the terminal and writes the report.
// Returns the process's exit code.
int runCommandLine(int argc, char** argv, AIParameters ai, bool arCheck, bool recoverMcu, bool kernelLog);

// Paints the line of the node being worked on (the last one started).
void printDiagnosticStatus(DiagnosticRunner& runner);
// A running node's progress line (overwritten by the next poll), or once, when
// it has finished, its status and its messages by level.
void printDiagnosticLine(DiagnosticNode* node);
// Strips the rich-text tags the messages use, for the console.
std::string removeHTMLMarkup(std::string text);

// The command line's presenter of the update check's messages: one log line
// (title, text and, when there is one, the web page, tags stripped) at the
// message's level: error for "error", warning for "warning", info otherwise.
// Nothing waits for an answer, so nothing is ever hidden from here.
bool printUpdateMessage(const UpdateDialog& dialog);
