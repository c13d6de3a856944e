#include "diagnostic/GPUNode.h"

#include "ai/LibAILoader.h"
#include "diagnostic/ProcessorNode.h"
#include "support/SiteConfig.h"

#include <QJsonArray>
#include <QString>

#include <dlfcn.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <exception>
#include <memory>
#include <thread>

const char* const REQUIRED_CUDA_VERSION = "12.2";
const char* const LINK_STYLE = " style='color: #d9ff42;' ";

std::string gpuUnableToDetectMessage() {
    return site::expand(
        "Unable to detect your graphics card. Please install/repair <a href='{DOWNLOAD_SITE}/cuda12_2_web'" +
        std::string(LINK_STYLE) +
        ">CUDA</a> and update your NVIDIA graphics <a href='{DOWNLOAD_SITE}/nvidia/driver'" + LINK_STYLE +
        ">drivers</a>.");
}

std::string gpuUpdateDriversMessage() {
    return site::expand(
        "Your graphics drivers need to be updated. Please download the latest drivers from <a "
        "href='{DOWNLOAD_SITE}/nvidia/driver'" +
        std::string(LINK_STYLE) + ">NVIDIA website</a>.");
}

void gpuArchitecture(int major, int minor, int multiprocessors, std::string& arch, int& cores) {
    // Cores per multiprocessor as the tool has always counted them, which is
    // not the hardware's true figure for every generation.
    int perSm = 0;
    arch = "unknown";
    switch (major) {
        case 1:
            arch = "Tesla";
            perSm = 0;
            break;
        case 2:
            arch = "Fermi";
            perSm = minor == 1 ? 48 : 32;
            break;
        case 3:
            arch = "Kepler";
            perSm = 192;
            break;
        case 5:
            arch = "Maxwell";
            perSm = 128;
            break;
        case 6:
            arch = "Pascal";
            perSm = minor == 0 ? 64 : (minor == 1 ? 128 : 0);
            break;
        case 7:
            arch = minor <= 2 ? "Volta" : "Turing";
            perSm = 128;
            break;
        case 8:
            arch = minor <= 8 ? "Ampere" : "Ada Lovelace";
            perSm = 128;
            break;
        case 9:
            arch = "Hopper";
            perSm = 128;
            break;
        default:
            break;
    }
    cores = multiprocessors * perSm;
}

GPUNode::GPUNode(bool ar) : DiagnosticNode("Graphics Card"), arCheck(ar) {}

void GPUNode::pause() {
    // sleep_for resumes by itself after an interrupting signal.
    std::this_thread::sleep_for(stepPause);
}

void GPUNode::runDiagnostic(QJsonObject& result) {
    driverFailed = false;
    cudaAvailable = false;
    setPercent(10.f);
    pause();

    cudaHandle = ai::dynLoadCudart();
    if (cudaHandle) {
        cudaAvailable = true;
        result["initResult"] = 0;
    }
    setPercent(30.f);
    pause();

    if (!cudaAvailable) {
        addMessage(result, DIAGNOSTIC_ERROR, gpuUnableToDetectMessage());
    } else {
        getCudaDevices(result);
        setPercent(50.f);
        pause();
        getDeviceDriverVersion(result);
        std::string glx;
        try {
            glx = executeCMD("glxinfo | grep OpenGL");
        } catch (const std::exception&) {
            glx.clear();  // no shell: no OpenGL identification
        }
        result["glx_info"] = QString::fromStdString(glx);
    }
    // The CUDA handle stays open: the runtime remains loaded for the process.
    setPercent(100.f);
    pause();
}

void GPUNode::getCudaDevices(QJsonObject& result) {
    if (!cudaAvailable)
        return;
    auto getCount = reinterpret_cast<ai::cuda::GetDeviceCountFn>(dlsym(cudaHandle, "cudaGetDeviceCount"));
    int count = 0;
    if (!getCount || getCount(&count) != 0) {
        addMessage(result, DIAGNOSTIC_ERROR, gpuUnableToDetectMessage());
        return;
    }
    if (count == 0) {
        addMessage(result, DIAGNOSTIC_ERROR,
                   "No CUDA-compatible graphics card detected. Install an NVIDIA GPU and reboot after the "
                   "CUDA/drivers installation.");
        return;
    }
    deviceCount = count;
    result["deviceCount"] = count;

    QJsonArray devices;
    auto getProps =
        reinterpret_cast<ai::cuda::GetDevicePropertiesFn>(dlsym(cudaHandle, "cudaGetDeviceProperties"));
    if (getProps && count >= 1) {
        for (int i = 0; i < count; ++i) {
            // The record is large; keep it off the worker's stack.
            auto prop = std::make_unique<ai::cuda::cudaDeviceProp>();
            getProps(prop.get(), i);
            prop->name[sizeof(prop->name) - 1] = '\0';
            QJsonObject device;
            device["name"] = QString::fromUtf8(prop->name);
            getDeviceComputeCap(device, i, *prop);
            device["totalMemoryBytes"] = QString::number(static_cast<qulonglong>(prop->totalGlobalMem));
            const float mb = static_cast<float>(prop->totalGlobalMem) / 1024.f / 1024.f;
            device["totalMemoryMB"] = static_cast<double>(mb);
            devices.append(device);
            if (device.value("arch").isString() && device.value("name").isString())
                rateDevice(result, device.value("arch").toString().toStdString(),
                           device.value("name").toString().toStdString());
        }
    }
    result["devices"] = devices;
}

void GPUNode::rateDevice(QJsonObject& result, const std::string& arch, const std::string& name) {
    const std::string label = "<b>Graphics card: </b> " + name;
    const std::string notSupported = label + " <br/> This graphics card is not supported by CUDA " +
                                     REQUIRED_CUDA_VERSION + " and KOV SDK.";
    const std::string arMessage =
        label + " <br/> A GTX 1070 or greater is recommended for AR/MR applications.";
    const bool tooOld = arch == "Fermi" || arch == "Tesla";
    if (!arCheck) {
        if (tooOld)
            addMessage(result, DIAGNOSTIC_ERROR, notSupported);
        else
            addMessage(result, DIAGNOSTIC_VALID, label);
        return;
    }
    if (arch == "Pascal") {
        std::string lower = name;
        std::transform(lower.begin(), lower.end(), lower.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        const bool highEnd = name.find("1070") != std::string::npos ||
                             name.find("1080") != std::string::npos ||
                             lower.find("titan") != std::string::npos;
        addMessage(result, highEnd ? DIAGNOSTIC_VALID : DIAGNOSTIC_WARNING, highEnd ? label : arMessage);
    } else if (arch == "Maxwell" || arch == "Kepler") {
        addMessage(result, DIAGNOSTIC_WARNING, arMessage);
    } else if (tooOld) {
        addMessage(result, DIAGNOSTIC_ERROR, notSupported);
    } else {
        addMessage(result, DIAGNOSTIC_VALID, label);
    }
}

void GPUNode::getDeviceComputeCap(QJsonObject& device, int index, ai::cuda::cudaDeviceProp& prop) {
    if (!cudaAvailable)
        return;
    const int cc = prop.major * 10 + prop.minor;
    // Jetson boards: TX1/Nano, TX2, Xavier, Orin.
    if (cc != 53 && cc != 62 && cc != 72 && cc != 87) {
        addMessage(
            device, DIAGNOSTIC_ERROR,
            site::expand("The graphics card compute capabilities doesn't match the requirements. Should "
                         "be 5.3 for Jetson TX1/Nano // 6.2 for Jetson TX2 // 7.2 for XAVIER // 8.7 for "
                         "ORIN but detected " +
                         std::to_string(prop.major) + "." + std::to_string(prop.minor) +
                         ". <a href='{CUDA_GPUS_PAGE}'" + LINK_STYLE + ">Compute Capabilities</a>"));
    }
    device["computeCapability"] = QString::number(cc / 10.0, 'f', 1);

    int multiprocessors = 0;
    auto getAttr =
        reinterpret_cast<ai::cuda::DeviceGetAttributeFn>(dlsym(cudaHandle, "cudaDeviceGetAttribute"));
    if (getAttr && getAttr(&multiprocessors, ai::cuda::cudaDevAttrMultiProcessorCount, index) != 0)
        multiprocessors = 0;
    std::string arch;
    int cores = 0;
    gpuArchitecture(prop.major, prop.minor, multiprocessors, arch, cores);
    device["cores"] = cores;
    device["arch"] = QString::fromStdString(arch);
}

void GPUNode::getDeviceDriverVersion(QJsonObject& result) {
    if (!cudaAvailable)
        return;
    auto getDriver =
        reinterpret_cast<ai::cuda::DriverGetVersionFn>(dlsym(cudaHandle, "cudaDriverGetVersion"));
    if (!getDriver) {
        addMessage(result, DIAGNOSTIC_ERROR, gpuUpdateDriversMessage());
        return;
    }
    int version = 0;
    if (getDriver(&version) != 0) {
        addMessage(result, DIAGNOSTIC_ERROR, gpuUpdateDriversMessage());
        driverFailed = true;
        return;
    }
    if (version < 8000)
        addMessage(result, DIAGNOSTIC_ERROR, gpuUpdateDriversMessage());
    result["deviceDriverVersion"] = version;
}
