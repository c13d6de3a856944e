#pragma once

#include "ai/AIModels.h"
#include "ai/AIModuleInterfaces.h"

#include <cstdint>
#include <string>
#include <vector>

// Run-time loader of the SDK's AI library and of the CUDA, cuDNN and TensorRT
// libraries it needs. Nothing of them is linked: a machine without them gets
// result codes and console lines, never a link failure.

namespace ai {

// Versions of the libraries found; -1 means not found.
struct LibVersion {
    int32_t cuda = -1;         // cudaRuntimeGetVersion
    int32_t cudnn = -1;        // cudnnGetVersion
    int32_t cudnnCudart = -1;  // cudnnGetCudartVersion
    int32_t tensorrt = -1;     // getInferLibVersion
};

// Modules to load.
enum AI_LIB {
    AI_LIB_SKELETON_PIFPAF = 1,
    AI_LIB_SKELETON_RTMPOSE = 2,
    AI_LIB_SKELETON_YOLOPOSE = 3,
    AI_LIB_BOX_TRT = 4,
    AI_LIB_BOX_ONNX = 5,
    AI_LIB_REID = 6,
    AI_LIB_DISPARITY = 7,
    AI_LIB_ALL = 8,
    AI_LIB_METADATA = 9
};

// Result codes of AILoader::loadLib.
enum AI_LOAD_ERROR {
    AI_LOAD_SUCCESS = 0,
    AI_LOAD_MEMORY_TOO_LOW = 1,
    AI_LOAD_CUDNN_NOT_FOUND = 2,
    AI_LOAD_CUDNN_WRONG_VERSION = 3,
    AI_LOAD_BH_AI_NOT_FOUND = 4,
    AI_LOAD_BH_AI_WRONG_VERSION = 5,
    AI_LOAD_MODEL_NOT_FOUND = 6,
    AI_LOAD_MODEL_WRONG_VERSION = 7,
    AI_LOAD_CORRUPTED_MODEL = 8,
    AI_LOAD_NOT_ENOUGH_DISK_SPACE = 9,
    AI_LOAD_TRT_NOT_FOUND = 10
};

// Text of a result code ("CUDNN NOT FOUND", ...); empty for 0 and unknown codes.
std::string toString(int loadError);

// Required cuDNN version (8.904).
constexpr int32_t REQUIRED_CUDNN_VERSION = 8904;

// Absolute path of the AI library (before the system-root prefix).
extern const char* const AI_LIBRARY_PATH;

// dlopen("libcudart.so.12"), else dlopen("libcudart.so"); null when neither loads.
void* dynLoadCudart();

// Fills `out` (all -1 first); true when CUDA, cuDNN and TensorRT were all found.
bool dynamicLoadVersion(LibVersion& out);

// Whether the network file of `model` exists in the resources directory.
bool checkAIModel(bh::AI_MODELS model);

// Whether an optimised form of `model` exists for GPU `gpuId`.
bool checkAIModelOptim(bh::AI_MODELS model, int gpuId, bool flag);

class AILoader {
public:
    AILoader() = default;
    ~AILoader();
    AILoader(const AILoader&) = delete;
    AILoader& operator=(const AILoader&) = delete;

    // Loads the AI library and the modules in `libs` (metadata only when empty).
    // Returns an AI_LOAD_ERROR value.
    int loadLib(std::vector<AI_LIB> libs, int logLevel);
    int loadLib(AI_LIB lib, int logLevel);

    void setLogLevel(int level);

    // "-<device key>-<versionSuffix>", for example "-87-12020-8904-8602";
    // empty when the library is not loaded.
    std::string getLibVersionName(int gpuId);

    // Downloads (downloadOnly) or optimises one model. 0 on success, -1 for an
    // unknown model, 1 when its module is not loaded, else the module's result.
    int optimAIModel(bh::AI_MODELS model, int gpuId, bool downloadOnly, std::string& versionName, bool flag);

    // optimAIModel for models 0 to 13; the sum of the results.
    int optimAllAIModels(int gpuId, bool downloadOnly);

    // Removes every AI file from the resources directory; a no-op when unloaded.
    void removeAllAIModels();

    // Destroys the objects and closes the library; safe to repeat.
    void close();

    lib::InferenceMetadata* metadata = nullptr;
    lib::BoxInferenceModule* boxTrt = nullptr;
    lib::BoxInferenceModule* boxOnnx = nullptr;
    lib::SizedInferenceModule* skeletonPifPaf = nullptr;
    lib::InferenceModule* skeletonRtmPose = nullptr;
    lib::InferenceModule* skeletonYoloPose = nullptr;
    lib::ReIDInferenceModule* reid = nullptr;
    lib::SizedInferenceModule* disparity = nullptr;
    void* libHandle = nullptr;
    bool loaded = false;
    lib::SetLogLevelFn setLogLevelFn = nullptr;
    std::string versionSuffix;
};

}  // namespace ai
