#pragma once

#include <QJsonObject>

#include <atomic>
#include <chrono>
#include <string>

#include "diagnostic/DiagnosticNode.h"

// "<b>CUDA 12.2 not detected</b> ..." with the download link, shared by the
// SDK and AI components checks.
std::string sdkCudaMissingMessage();

// "<b>Object detection</b> module corrupted. ..."
std::string sdkObjectDetectionWarning();

// Absolute path of the SDK library (before the system-root prefix).
extern const char* const KOV_SDK_LIBRARY_PATH;

// Progress figure shared with the progress thread of the AI components check.
// Relaxed atomic: it only drives a display.
extern std::atomic<float> current_percent;

// "KOV SDK": the tool's SDK version against the installed library's, the
// online update check, the GPU driver line, the CUDA toolkits under
// /usr/local/, and the AI components (getSDKAIComponents).
class SDKNode : public DiagnosticNode {
public:
    SDKNode();

    void runDiagnostic(QJsonObject& result) override;

    // Lists the AI files and tries the AI library; adds "binFiles",
    // "resourcesFiles", "resourcesFilesExpected", "ai" and "CUDA loading".
    void getSDKAIComponents(QJsonObject& result, int logLevel);

    // Body of the thread that moves the progress bar during the AI work: +1
    // every 3.2 s while current_percent is below 90.
    static void increase_percent(SDKNode* node);

    bool checkToolkit = false;
    bool cudaAvailable = false;
    void* cudaHandle = nullptr;

    // Pause after each progress step, so that the polling watchers show it.
    std::chrono::milliseconds stepPause{200};
    // Wait at the end of a successful AI components check.
    std::chrono::milliseconds aiSettlePause{3000};
    // One step of the progress thread: a pause, then a wait.
    std::chrono::milliseconds progressStepPause{200};
    std::chrono::milliseconds progressStepWait{3000};

private:
    void pause();
    void getDLLVersion(QJsonObject& result);
    void getKOVSDKVersion(QJsonObject& result);
    void getCUDAToolKitVerson(QJsonObject& result);
};
