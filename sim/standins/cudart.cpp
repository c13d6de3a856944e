// Stand-in CUDA runtime (libcudart.so.12): devices, driver and failures come
// from the environment (StandinEnv.h).
#include "StandinEnv.h"
#include "ai/CudaRuntimeApi.h"

#include <cstring>

using ai::cuda::cudaDeviceProp;
using ai::cuda::cudaError_t;

namespace {
constexpr cudaError_t cudaErrorInvalidDevice = 101;
constexpr cudaError_t cudaErrorInvalidValue = 1;
}  // namespace

extern "C" {

cudaError_t cudaGetDeviceCount(int* count) {
    const long result = standin::envInt("KOV_STANDIN_CUDA_COUNT_RESULT", 0);
    if (!count)
        return cudaErrorInvalidValue;
    *count = 0;
    if (result != 0)
        return static_cast<cudaError_t>(result);
    *count = static_cast<int>(standin::devices().size());
    return 0;
}

cudaError_t cudaGetDeviceProperties(cudaDeviceProp* prop, int device) {
    const auto list = standin::devices();
    if (!prop)
        return cudaErrorInvalidValue;
    if (device < 0 || device >= static_cast<int>(list.size()))
        return cudaErrorInvalidDevice;
    std::memset(prop, 0, sizeof(*prop));
    std::strncpy(prop->name, list[device].name.c_str(), sizeof(prop->name) - 1);
    prop->totalGlobalMem = static_cast<size_t>(list[device].memory);
    prop->major = list[device].major;
    prop->minor = list[device].minor;
    return 0;
}

cudaError_t cudaDeviceGetAttribute(int* value, int attr, int device) {
    const auto list = standin::devices();
    if (!value)
        return cudaErrorInvalidValue;
    if (device < 0 || device >= static_cast<int>(list.size()))
        return cudaErrorInvalidDevice;
    if (attr != ai::cuda::cudaDevAttrMultiProcessorCount)
        return cudaErrorInvalidValue;
    *value = list[device].multiprocessors;
    return 0;
}

cudaError_t cudaDriverGetVersion(int* version) {
    if (!version)
        return cudaErrorInvalidValue;
    const long result = standin::envInt("KOV_STANDIN_CUDA_DRIVER_RESULT", 0);
    if (result != 0)
        return static_cast<cudaError_t>(result);
    *version = static_cast<int>(standin::envInt("KOV_STANDIN_CUDA_DRIVER_VERSION", 12020));
    return 0;
}

cudaError_t cudaRuntimeGetVersion(int* version) {
    if (!version)
        return cudaErrorInvalidValue;
    *version = static_cast<int>(standin::envInt("KOV_STANDIN_CUDA_RUNTIME_VERSION", 12020));
    return 0;
}

}  // extern "C"
