#pragma once

#include <QJsonObject>

#include <chrono>
#include <string>

#include "diagnostic/DiagnosticNode.h"

// Runs a shell command (found through PATH) and returns everything it printed.
// " 2>&1 2>/dev/null" is appended to the command. Throws
// std::runtime_error("popen() failed!") when the shell cannot be started.
std::string executeCMD(std::string cmd);

// Reads the Jetson release from "/etc/nv_tegra_release", stores it under
// "L4T version" in `result` and returns it; "unknown" when the file is absent.
std::string getL4TVersion(QJsonObject& result);

// Condenses the first line of the release file: "# R35 (release), REVISION:
// 4.1, GCID: ..." gives "35.4.1".
std::string condenseL4TRelease(const std::string& firstLine);

// The value of a "/proc/cpuinfo" "model name" line: everything after the first
// ':' with runs of blanks squeezed to one (the blank after the colon stays).
std::string cpuModelFromLine(const std::string& line);

// The distribution text of "/etc/issue": everything before the first backslash.
std::string osNameFromIssue(const std::string& issue);

// "Processor": processor name, date, OS, cores, memory, motherboard, L4T release.
class ProcessorNode : public DiagnosticNode {
public:
    ProcessorNode();

    void runDiagnostic(QJsonObject& result) override;

    // Pause after each progress step, so that the polling watchers show it.
    std::chrono::milliseconds stepPause{200};

private:
    void pause();
    void getCPU(QJsonObject& result);
    void getOSName(QJsonObject& result);
    void getCoresThreads(QJsonObject& result);
    void getRAM(QJsonObject& result);
    void getMotherboard(QJsonObject& result);
};
