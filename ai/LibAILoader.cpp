#include "ai/LibAILoader.h"

#include "ai/CudaRuntimeApi.h"
#include "utils/SysPath.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <system_error>
#include <type_traits>

namespace ai {

const char* const AI_LIBRARY_PATH = "/usr/local/kov/lib/libbh_ai.so";

namespace {

const char* const SDK_ROOT = "/usr/local/kov";

// The AI library version this tool speaks to: major 2, minor up to 8.
constexpr int AI_LIB_MAJOR = 2;
constexpr int AI_LIB_MAX_MINOR = 8;

template <typename Fn>
Fn lookup(void* handle, const char* symbol) {
    return reinterpret_cast<Fn>(dlsym(handle, symbol));
}

std::string lastDlError() {
    const char* err = dlerror();
    return err ? err : "";
}

bool contains(const std::vector<AI_LIB>& libs, AI_LIB lib) {
    return std::find(libs.begin(), libs.end(), lib) != libs.end();
}

std::string resourcesDir() {
    return utils::sysPath(SDK_ROOT) + "/" + bh::_dir_resources;
}

// Creates the SDK root and its resources directory; failures are ignored (the
// following open or listing reports what is missing).
void makeResourcesDir() {
    ::mkdir(utils::sysPath(SDK_ROOT).c_str(), 0775);
    ::mkdir(resourcesDir().c_str(), 0775);
}

}  // namespace

std::string toString(int loadError) {
    switch (loadError) {
        case AI_LOAD_MEMORY_TOO_LOW:
            return "MEMORY TOO LOW";
        case AI_LOAD_CUDNN_NOT_FOUND:
            return "CUDNN NOT FOUND";
        case AI_LOAD_CUDNN_WRONG_VERSION:
            return "CUDNN WRONG VERSION";
        case AI_LOAD_BH_AI_NOT_FOUND:
            return "BH AI NOT FOUND";
        case AI_LOAD_BH_AI_WRONG_VERSION:
            return "BH AI WRONG VERSION";
        case AI_LOAD_MODEL_NOT_FOUND:
            return "MODEL NOT FOUND";
        case AI_LOAD_MODEL_WRONG_VERSION:
            return "MODEL WRONG VERSION";
        case AI_LOAD_CORRUPTED_MODEL:
            return "CORRUPTED MODEL";
        case AI_LOAD_NOT_ENOUGH_DISK_SPACE:
            return "NOT ENOUGH DISK SPACE";
        case AI_LOAD_TRT_NOT_FOUND:
            return "TRT NOT FOUND";
        default:
            return "";
    }
}

void* dynLoadCudart() {
    void* handle = dlopen("libcudart.so.12", RTLD_LAZY);
    if (!handle)
        handle = dlopen("libcudart.so", RTLD_LAZY);
    return handle;
}

bool dynamicLoadVersion(LibVersion& out) {
    out = LibVersion{};
    bool ok = false;

    if (void* cudart = dynLoadCudart()) {
        if (auto fn = lookup<cuda::RuntimeGetVersionFn>(cudart, "cudaRuntimeGetVersion")) {
            int version = -1;
            if (fn(&version) == 0)
                out.cuda = version;
        }
        dlclose(cudart);
        ok = true;
    }

    if (void* cudnn = dlopen("libcudnn.so.8", RTLD_LAZY)) {
        if (auto fn = lookup<cuda::CudnnGetVersionFn>(cudnn, "cudnnGetVersion"))
            out.cudnn = static_cast<int32_t>(fn());
        if (auto fn = lookup<cuda::CudnnGetCudartVersionFn>(cudnn, "cudnnGetCudartVersion"))
            out.cudnnCudart = static_cast<int32_t>(fn());
        dlclose(cudnn);
    } else {
        ok = false;
    }

    if (void* trt = dlopen("libnvinfer.so", RTLD_LAZY)) {
        if (auto fn = lookup<cuda::GetInferLibVersionFn>(trt, "getInferLibVersion"))
            out.tensorrt = fn();
        dlclose(trt);
    } else {
        ok = false;
    }
    return ok;
}

bool checkAIModel(bh::AI_MODELS model) {
    const std::string base = getModelBaseName(model);
    if (base.empty())
        return false;
    makeResourcesDir();
    std::ifstream file(resourcesDir() + "/" + base + AI_MODEL_EXTENSION);
    return file.is_open();
}

bool checkAIModelOptim(bh::AI_MODELS model, int gpuId, bool flag) {
    AILoader loader;
    if (loader.loadLib(AI_LIB_METADATA, 0) != AI_LOAD_SUCCESS) {
        loader.close();
        return false;
    }
    const std::string versionName = loader.getLibVersionName(gpuId);
    const std::string base = getModelBaseName(model);
    int width = 0, height = 0;
    if (base.empty() || !getModelInputSize(model, width, height)) {
        loader.close();
        return false;
    }
    const bool optimized = loader.metadata->isModelOptimized(base, versionName, gpuId, height, flag) != 0;
    loader.close();
    return optimized;
}

AILoader::~AILoader() {
    close();
}

int AILoader::loadLib(AI_LIB lib, int logLevel) {
    return loadLib(std::vector<AI_LIB>{lib}, logLevel);
}

int AILoader::loadLib(std::vector<AI_LIB> libs, int logLevel) {
    if (libs.empty())
        libs.push_back(AI_LIB_METADATA);

    LibVersion versions;
    if (!dynamicLoadVersion(versions)) {
        if (versions.cudnn < 0)
            return AI_LOAD_CUDNN_NOT_FOUND;
        if (versions.tensorrt < 0)
            return AI_LOAD_TRT_NOT_FOUND;
        // A missing CUDA runtime alone does not stop the load.
    }
    versionSuffix = std::to_string(versions.cuda) + "-" + std::to_string(versions.cudnn) + "-" +
                    std::to_string(versions.tensorrt);

    // A loader may be loaded again: release what an earlier call left.
    close();

    libHandle = dlopen(utils::sysPath(AI_LIBRARY_PATH).c_str(), RTLD_NOW);
    if (!libHandle)
        return AI_LOAD_BH_AI_NOT_FOUND;

    auto loadMeta = lookup<lib::LoadMetadataFn>(libHandle, "loadInferenceMetadata");
    if (!loadMeta) {
        std::cout << "getProcAddress (LoadMetaFct): " << lastDlError() << std::endl;
        return AI_LOAD_BH_AI_NOT_FOUND;
    }
    metadata = loadMeta();
    if (!metadata)
        return AI_LOAD_BH_AI_NOT_FOUND;

    int major = -1, minor = -1;
    metadata->getVersion(&major, &minor);
    if (major != AI_LIB_MAJOR || minor > AI_LIB_MAX_MINOR)
        return AI_LOAD_BH_AI_WRONG_VERSION;

    if (contains(libs, AI_LIB_METADATA)) {
        loaded = true;
        return AI_LOAD_SUCCESS;
    }

    setLogLevelFn = lookup<lib::SetLogLevelFn>(libHandle, "setAILogLevel");
    if (!setLogLevelFn) {
        std::cout << "getProcAddress (set_loglevel): " << lastDlError() << std::endl;
        return AI_LOAD_BH_AI_NOT_FOUND;
    }

    const bool all = contains(libs, AI_LIB_ALL);
    bool any = false;
    // Looks up one entry point and makes its object; false (after the console
    // line) when the entry point is missing.
    auto make = [&](AI_LIB which, const char* entry, const char* label, auto& slot) {
        if (!all && !contains(libs, which))
            return true;
        using Fn = std::remove_reference_t<decltype(slot)> (*)();
        auto fn = lookup<Fn>(libHandle, entry);
        if (!fn) {
            std::cout << label << lastDlError() << std::endl;
            return false;
        }
        slot = fn();
        any = any || slot != nullptr;
        return true;
    };
    if (!make(AI_LIB_BOX_TRT, "loadMultiClassBoxInferenceTRTAPIModule",
              "getProcAddress (LoadODFct): ", boxTrt) ||
        !make(AI_LIB_BOX_ONNX, "loadMultiClassBoxInferenceONNXModule",
              "getProcAddress (LoadODFct): ", boxOnnx) ||
        !make(AI_LIB_SKELETON_PIFPAF, "loadSkeletonPifPafInferenceModule",
              "getProcAddress (LoadSKFct): ", skeletonPifPaf) ||
        !make(AI_LIB_SKELETON_RTMPOSE, "loadSkeletonRTMPoseInferenceModule",
              "getProcAddress (LoadSKFct): ", skeletonRtmPose) ||
        !make(AI_LIB_SKELETON_YOLOPOSE, "loadSkeletonYOLOPoseInferenceModule",
              "getProcAddress (LoadSKFct): ", skeletonYoloPose) ||
        !make(AI_LIB_REID, "loadPeopleReIDInferenceModule", "getProcAddress (LoadReIDFct): ", reid) ||
        !make(AI_LIB_DISPARITY, "loadDisparityInferenceModule",
              "getProcAddress (LoadDispFct): ", disparity)) {
        return AI_LOAD_BH_AI_NOT_FOUND;
    }
    if (!any)
        return AI_LOAD_BH_AI_NOT_FOUND;

    loaded = true;
    setLogLevel(logLevel);
    return AI_LOAD_SUCCESS;
}

void AILoader::setLogLevel(int level) {
    if (setLogLevelFn)
        setLogLevelFn(level);
}

std::string AILoader::getLibVersionName(int gpuId) {
    if (!metadata)
        return "";
    return "-" + std::to_string(metadata->getDeviceKey(gpuId)) + "-" + versionSuffix;
}

int AILoader::optimAIModel(bh::AI_MODELS model, int gpuId, bool downloadOnly, std::string& versionName,
                           bool flag) {
    const std::string base = getModelBaseName(model);
    if (base.empty())
        return -1;
    int width = 0, height = 0;
    getModelInputSize(model, width, height);

    std::cout << (downloadOnly ? "Downloading" : "Optimizing") << ": " << modelDisplayText(model) << "..."
              << std::endl;

    switch (model) {
        case bh::MULTI_CLASS_DETECTION:
        case bh::MULTI_CLASS_MEDIUM_DETECTION:
        case bh::MULTI_CLASS_ACCURATE_DETECTION:
            if (!boxOnnx)
                return 1;
            return boxOnnx->optimize(base, versionName, gpuId, downloadOnly, flag);
        case bh::HUMAN_BODY_FAST_DETECTION:
        case bh::HUMAN_BODY_MEDIUM_DETECTION:
        case bh::HUMAN_BODY_ACCURATE_DETECTION:
        case bh::HUMAN_BODY_38_FAST_DETECTION:
        case bh::HUMAN_BODY_38_MEDIUM_DETECTION:
        case bh::HUMAN_BODY_38_ACCURATE_DETECTION:
            if (!skeletonPifPaf)
                return 1;
            return skeletonPifPaf->optimize(base, versionName, gpuId, downloadOnly, flag, width, height);
        case bh::PERSON_HEAD_DETECTION:
        case bh::PERSON_HEAD_ACCURATE_DETECTION:
            if (!boxTrt)
                return 1;
            return boxTrt->optimize(base, versionName, gpuId, downloadOnly, flag);
        case bh::REID_ASSOCIATION:
            if (!reid)
                return 1;
            return reid->optimize(base, versionName, gpuId, downloadOnly, flag);
        case bh::NEURAL_DEPTH:
        case bh::NEURAL_PLUS_DEPTH:
            if (!disparity)
                return 1;
            return disparity->optimize(base, versionName, gpuId, downloadOnly, flag, width, height);
        default:
            return -10;
    }
}

int AILoader::optimAllAIModels(int gpuId, bool downloadOnly) {
    std::string versionName = getLibVersionName(gpuId);
    int sum = 0;
    for (int m = 0; m < AI_MODELS_COUNT; ++m)
        sum += optimAIModel(static_cast<bh::AI_MODELS>(m), gpuId, downloadOnly, versionName, false);
    return sum;
}

void AILoader::removeAllAIModels() {
    if (!metadata)
        return;
    makeResourcesDir();
    namespace fs = std::filesystem;
    std::error_code ec;
    const fs::path dir = resourcesDir();
    const std::string root = utils::sysPath(SDK_ROOT);
    // Every entry of the resources directory is an AI file (network, optimised
    // engine, caches, calibration sets): all go, so that each model has to be
    // downloaded and optimised again. The directory itself stays.
    std::vector<fs::path> entries;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec))
        entries.push_back(it->path());
    for (const fs::path& p : entries) {
        if (p.string().find(root) == std::string::npos)
            continue;
        fs::remove_all(p, ec);
    }
}

void AILoader::close() {
    if (!libHandle)
        return;
    // Objects are destroyed through their own virtual destructors, slot order.
    delete metadata;
    metadata = nullptr;
    delete boxTrt;
    boxTrt = nullptr;
    delete boxOnnx;
    boxOnnx = nullptr;
    delete skeletonPifPaf;
    skeletonPifPaf = nullptr;
    delete skeletonRtmPose;
    skeletonRtmPose = nullptr;
    delete skeletonYoloPose;
    skeletonYoloPose = nullptr;
    delete reid;
    reid = nullptr;
    delete disparity;
    disparity = nullptr;
    dlclose(libHandle);
    libHandle = nullptr;
    loaded = false;
    setLogLevelFn = nullptr;
}

}  // namespace ai
