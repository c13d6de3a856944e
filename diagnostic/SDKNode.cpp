#include "diagnostic/SDKNode.h"

#include "ai/AIModels.h"
#include "ai/LibAILoader.h"
#include "diagnostic/GPUNode.h"
#include "support/SiteConfig.h"
#include "support/Updater.h"
#include "utils/SysPath.h"

#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QJsonArray>
#include <QProcess>
#include <QRegExp>
#include <QStringList>

#include <dlfcn.h>

#include <cstdio>
#include <iostream>
#include <thread>

const char* const KOV_SDK_LIBRARY_PATH = "/usr/local/kov/lib/libbh_kov.so";

std::atomic<float> current_percent{0.f};

namespace {

constexpr int PROCESS_TIMEOUT_MS = 30000;

using GetSdkVersionFn = void (*)(int* major, int* minor, int* patch);

// Standard output of a program, up to its first zero byte; empty when it
// cannot be started.
QByteArray runProcess(const QString& program, const QStringList& args) {
    QProcess process;
    process.start(program, args);
    process.waitForFinished(PROCESS_TIMEOUT_MS);
    QByteArray out = process.readAllStandardOutput();
    const int zero = out.indexOf('\0');
    if (zero >= 0)
        out.truncate(zero);
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(1000);
    }
    return out;
}

QJsonArray toJsonArray(const QStringList& list) {
    QJsonArray array;
    for (const QString& s : list)
        array.append(s);
    return array;
}

}  // namespace

std::string sdkCudaMissingMessage() {
    return site::expand(
        "<b>CUDA 12.2 not detected</b> <br/> Make sure CUDA is installed and restart your computer. <a "
        "href='{DOWNLOAD_SITE}/cuda12_2_web'" +
        std::string(LINK_STYLE) + ">Download</a>.");
}

std::string sdkObjectDetectionWarning() {
    return "<b>Object detection</b> module corrupted. Please reinstall the KOV SDK and enable the Object "
           "Detection option.";
}

SDKNode::SDKNode() : DiagnosticNode("KOV SDK") {}

void SDKNode::pause() {
    // sleep_for resumes by itself after an interrupting signal.
    std::this_thread::sleep_for(stepPause);
}

void SDKNode::runDiagnostic(QJsonObject& result) {
    setPercent(5.f);
    checkToolkit = false;
    pause();
    setPercent(10.f);
    checkToolkit = true;
    pause();

    getDLLVersion(result);
    if (!cudaAvailable)
        addMessage(result, DIAGNOSTIC_ERROR, sdkCudaMissingMessage());
    setPercent(15.f);
    pause();
    setPercent(20.f);
    pause();

    getKOVSDKVersion(result);
    setPercent(25.f);
    pause();
    setPercent(30.f);
    pause();

    if (checkToolkit)
        getCUDAToolKitVerson(result);
    getSDKAIComponents(result, 0);
    setPercent(100.f);
    pause();
}

void SDKNode::getDLLVersion(QJsonObject& result) {
    cudaHandle = ai::dynLoadCudart();
    if (!cudaHandle) {
        cudaAvailable = false;
        return;
    }
    cudaAvailable = true;

    const QString text = QString::fromLocal8Bit(runProcess("nvidia-smi", {"-q"}));
    // Every matching line overwrites the previous one: the last one stands.
    for (const QString& line : text.split('\n')) {
        if (line.contains("Driver Version"))
            result["GPU Driver Version"] = line;
        if (line.contains("Performance"))
            result["GPU Performance"] = line;
    }
}

void SDKNode::getKOVSDKVersion(QJsonObject& result) {
    result["KOV SDK Version (Diag)"] =
        QString("%1.%2.%3").arg(KOV_SDK_MAJOR).arg(KOV_SDK_MINOR).arg(KOV_SDK_PATCH);

    const std::string link = CheckSDKUpdateOnline(true);
    if (!link.empty()) {
        addMessage(result, DIAGNOSTIC_WARNING,
                   "<b>KOV SDK Outdated:</b> <br/> KOV SDK update is available <a href='" + link + "'" +
                       LINK_STYLE + ">here</a>.");
    }

    void* handle = dlopen(utils::sysPath(KOV_SDK_LIBRARY_PATH).c_str(), RTLD_NOW);
    if (!handle) {
        const char* err = dlerror();
        addMessage(result, DIAGNOSTIC_ERROR,
                   std::string("<b>Loading KOV binaries :</b> ") + (err ? err : ""));
        return;
    }
    auto getVersion = reinterpret_cast<GetSdkVersionFn>(dlsym(handle, "getKOVSDKRuntimeVersion_C"));
    if (!getVersion) {
        const char* err = dlerror();
        addMessage(result, DIAGNOSTIC_ERROR,
                   std::string("<b>Loading KOV binaries :</b> ") + (err ? err : ""));
        dlclose(handle);
        return;
    }
    int major = 0, minor = 0, patch = 0;
    getVersion(&major, &minor, &patch);
    const std::string runtime =
        std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(patch);
    result["KOV SDK Version (RT)"] = QString::fromStdString(runtime);

    if (major == KOV_SDK_MAJOR && minor == KOV_SDK_MINOR && patch == KOV_SDK_PATCH) {
        addMessage(result, DIAGNOSTIC_VALID, "<b>KOV SDK version:</b> " + runtime);
    } else {
        addMessage(
            result, DIAGNOSTIC_ERROR,
            site::expand("Your KOV SDK needs to be updated. Please download the latest version from our "
                         "website. <a href='{WEB_SITE}/developers/'") +
                LINK_STYLE + ">Download</a> : 4.1.2 vs " + runtime);
    }
    dlclose(handle);
}

void SDKNode::getCUDAToolKitVerson(QJsonObject& result) {
    QDirIterator it(QString::fromStdString(utils::sysPath("/usr/local/")), QStringList{"*nvcc*"}, QDir::Files,
                    QDirIterator::Subdirectories | QDirIterator::FollowSymlinks);
    int others = 0;
    bool requiredFound = false;
    bool otherFound = false;
    const QRegExp versionPattern("V(\\d{1,2}).(\\d).(\\d+)");
    while (it.hasNext()) {
        const QString path = it.next();
        const QFileInfo info = it.fileInfo();
        if (!info.isFile() || info.fileName() != "nvcc")
            continue;

        const QString output = QString::fromLocal8Bit(runProcess(path, {"--version"}));
        QRegExp rx(versionPattern);
        const QString version = rx.indexIn(output) != -1 ? rx.cap(0) : QString();

        if (version.contains("V12.2")) {
            result["CUDA Toolkit version"] = version + " -->located in " + path;
            addMessage(result, DIAGNOSTIC_VALID, "<b>CUDA version:</b> " + version.toStdString());
            requiredFound = true;
        } else {
            result[QString("[Warning] Other cuda version N°%1").arg(others)] =
                version + "-->located in  in " + path;
            ++others;
            otherFound = true;
        }
    }
    if (!requiredFound) {
        addMessage(result, DIAGNOSTIC_ERROR, sdkCudaMissingMessage());
    } else if (otherFound) {
        addMessage(
            result, DIAGNOSTIC_WARNING,
            "Multiple version of CUDA has been detected. It is recommended to uninstall other versions than "
            "12.2.");
    }
}

void SDKNode::increase_percent(SDKNode* node) {
    while (current_percent.load(std::memory_order_relaxed) < 90.f) {
        const float next = current_percent.load(std::memory_order_relaxed) + 1.f;
        current_percent.store(next, std::memory_order_relaxed);
        node->setPercent(next);
        std::this_thread::sleep_for(node->progressStepPause);
        // The wait is cut in slices so that the end of the AI work (which sets
        // 95) is seen at once instead of at the next 3 s boundary.
        const auto slice = std::chrono::milliseconds(50);
        for (auto waited = std::chrono::milliseconds(0); waited < node->progressStepWait; waited += slice) {
            if (current_percent.load(std::memory_order_relaxed) >= 90.f)
                return;
            std::this_thread::sleep_for(std::min(slice, node->progressStepWait - waited));
        }
    }
}

void SDKNode::getSDKAIComponents(QJsonObject& result, int logLevel) {
    const QDir libDir(QString::fromStdString(utils::sysPath("/usr/local/kov/lib/")));
    result["binFiles"] = toJsonArray(libDir.entryList(QStringList{"libbh_ai.so"}, QDir::Files));
    const QDir resDir(QString::fromStdString(utils::sysPath("/usr/local/kov/resources/")));
    result["resourcesFiles"] = toJsonArray(resDir.entryList(
        QStringList{QString::fromStdString(ai::MODEL_OBJECT_NAME + ai::AI_MODEL_EXTENSION)}, QDir::Files));
    result["resourcesFilesExpected"] = QJsonArray{QString::fromStdString(ai::MODEL_OBJECT_NAME)};

    setPercent(35.f);
    pause();
    current_percent.store(35.f, std::memory_order_relaxed);

    ai::AILoader loader;
    const int loadResult = loader.loadLib(ai::AI_LIB_ALL, logLevel);
    ai::LibVersion versions;
    ai::dynamicLoadVersion(versions);

    QJsonObject aiObject;
    aiObject["checkAI"] = loadResult == ai::AI_LOAD_SUCCESS;
    if (loadResult != ai::AI_LOAD_SUCCESS)
        aiObject["loadAI"] = QString::fromStdString(ai::toString(loadResult));
    aiObject["cudnnVersion"] = versions.cudnn;
    aiObject["cudnnVersionExpected"] = ai::REQUIRED_CUDNN_VERSION;
    aiObject["cudnnCudartVersion"] = versions.cudnnCudart;
    aiObject["cudaVersion"] = versions.cuda;
    aiObject["tensorVersion"] = versions.tensorrt;
    result["ai"] = aiObject;

    // "End" below: the loader closes itself on return.
    if (versions.cuda == -1) {
        std::cout << "Cannot find CUDA" << std::endl;
        addMessage(result, DIAGNOSTIC_ERROR, sdkCudaMissingMessage());
        return;
    }
    if (versions.cudnn == -1) {
        std::cout << "Cannot find CUDNN" << std::endl;
        addMessage(result, DIAGNOSTIC_WARNING, sdkObjectDetectionWarning());
        return;
    }
    if (versions.tensorrt == -1) {
        std::cout << "Cannot find TENSORT" << std::endl;
        addMessage(result, DIAGNOSTIC_WARNING, sdkObjectDetectionWarning());
        return;
    }
    if (versions.cudnn < ai::REQUIRED_CUDNN_VERSION) {
        std::printf("Incompatible CUDNN version (found %f, minimum required %f)\n", versions.cudnn / 1000.0,
                    ai::REQUIRED_CUDNN_VERSION / 1000.0);
        std::fflush(stdout);
        addMessage(result, DIAGNOSTIC_WARNING, sdkObjectDetectionWarning());
        return;
    }

    // A failed load shows only in "checkAI" and "loadAI".
    if (loadResult != ai::AI_LOAD_SUCCESS)
        return;

    std::thread progress(&SDKNode::increase_percent, this);
    result["CUDA loading"] = false;
    if (!cudaAvailable) {
        cudaHandle = ai::dynLoadCudart();
        if (cudaHandle) {
            result["CUDA loading"] = cudaAvailable;  // the value before the change
            cudaAvailable = true;
        }
    }

    loader.close();
    if (cudaHandle) {
        dlclose(cudaHandle);
        cudaHandle = nullptr;
    }

    current_percent.store(95.f, std::memory_order_relaxed);
    std::this_thread::sleep_for(aiSettlePause);
    progress.join();

    // No model is optimised by this check, so the version name stays empty and
    // the line below is never added.
    const std::string versionName;
    if (!versionName.empty())
        addMessage(result, DIAGNOSTIC_VALID, "AI model downloaded and optimized for the GPU " + versionName);
}
