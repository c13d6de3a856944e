#include "ai/ModelMaintenance.h"

#include "ai/CudaRuntimeApi.h"
#include "ai/LibAILoader.h"

#include <dlfcn.h>

#include <cstdio>
#include <iostream>

int runAIModelMaintenance(const AIParameters& params) {
    void* cudart = ai::dynLoadCudart();
    if (!cudart)
        return 0;

    ai::AILoader loader;
    loader.loadLib(ai::AI_LIB_ALL, params.verbosity);

    auto finish = [&]() {
        loader.close();
        dlclose(cudart);
        return 0;
    };

    ai::LibVersion versions;
    ai::dynamicLoadVersion(versions);
    if (versions.cuda < 0) {
        std::cout << "Cannot find CUDA" << std::endl;
        return finish();
    }
    if (versions.cudnn < 0) {
        std::cout << "Cannot find CUDNN" << std::endl;
        return finish();
    }
    if (versions.tensorrt < 0) {
        std::cout << "Cannot find TENSORT" << std::endl;
        return finish();
    }
    if (versions.cudnn < ai::REQUIRED_CUDNN_VERSION) {
        std::printf("Incompatible CUDNN version (found %f, minimum required %f)\n", versions.cudnn / 1000.0,
                    ai::REQUIRED_CUDNN_VERSION / 1000.0);
        std::fflush(stdout);
        return finish();
    }

    if (params.clear) {
        std::cout << "Removing all AI models" << std::endl;
        loader.removeAllAIModels();
    }

    auto getCount = reinterpret_cast<ai::cuda::GetDeviceCountFn>(dlsym(cudart, "cudaGetDeviceCount"));
    int gpuCount = 0;
    if (!getCount || getCount(&gpuCount) != 0)
        return finish();

    if (params.optimize) {
        std::cout << "Optimizing all AI models" << std::endl;
        for (int gpu = 0; gpu < gpuCount; ++gpu)
            loader.optimAllAIModels(gpu, false);
    } else if (params.download) {
        std::cout << "Downloading all AI models" << std::endl;
        for (int gpu = 0; gpu < gpuCount; ++gpu)
            loader.optimAllAIModels(gpu, true);
    }

    if (params.specific && params.model >= 0) {
        for (int gpu = 0; gpu < gpuCount; ++gpu) {
            std::string versionName = loader.getLibVersionName(gpu);
            // The result is not looked at: the AI library reports its own failures.
            loader.optimAIModel(static_cast<bh::AI_MODELS>(params.model), gpu, false, versionName, false);
        }
    }
    return finish();
}
