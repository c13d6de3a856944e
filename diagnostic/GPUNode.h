#pragma once

#include <QJsonObject>

#include <chrono>
#include <string>

#include "ai/CudaRuntimeApi.h"
#include "diagnostic/DiagnosticNode.h"

// Required CUDA version and the download links shared by the host checks.
extern const char* const REQUIRED_CUDA_VERSION;  // "12.2"
// Link style placed after the closing quote of every href of a message.
extern const char* const LINK_STYLE;  // " style='color: #d9ff42;' "
// "Unable to detect your graphics card..." and "Your graphics drivers need to
// be updated...", with the site addresses put in.
std::string gpuUnableToDetectMessage();
std::string gpuUpdateDriversMessage();

// Architecture name and cores of a compute capability with `multiprocessors`
// multiprocessors; "unknown" and 0 outside the table.
void gpuArchitecture(int major, int minor, int multiprocessors, std::string& arch, int& cores);

// "Graphics Card": the CUDA devices through the run-time loaded CUDA runtime,
// their rating for the SDK (and for AR/MR with "-ar"), the driver version and
// the OpenGL identification.
class GPUNode : public DiagnosticNode {
public:
    explicit GPUNode(bool arCheck = false);

    void runDiagnostic(QJsonObject& result) override;

    bool cudaAvailable = false;
    bool driverFailed = false;
    bool arCheck = false;
    void* cudaHandle = nullptr;
    int32_t deviceCount = 0;

    // Pause after each progress step, so that the polling watchers show it.
    std::chrono::milliseconds stepPause{200};

private:
    void pause();
    void getCudaDevices(QJsonObject& result);
    void getDeviceComputeCap(QJsonObject& device, int index, ai::cuda::cudaDeviceProp& prop);
    void getDeviceDriverVersion(QJsonObject& result);
    void rateDevice(QJsonObject& result, const std::string& arch, const std::string& name);
};
