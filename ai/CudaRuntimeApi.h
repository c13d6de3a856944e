#pragma once

#include <cstddef>

// The few CUDA runtime, cuDNN and TensorRT entry points this tool calls, with
// the signatures those libraries publish. Nothing here is linked: the functions
// are found with dlsym in libraries opened at run time.

namespace ai {
namespace cuda {

using cudaError_t = int;  // 0 is success
constexpr int cudaDevAttrMultiProcessorCount = 16;

// Device properties as the 12.x runtime lays them out. Only the leading fields
// up to `minor` are read; the tail is reserved room so that the runtime may
// write its full record.
struct cudaDeviceProp {
    char name[256];
    unsigned char uuid[16];
    char luid[8];
    unsigned int luidDeviceNodeMask;
    size_t totalGlobalMem;
    size_t sharedMemPerBlock;
    int regsPerBlock;
    int warpSize;
    size_t memPitch;
    int maxThreadsPerBlock;
    int maxThreadsDim[3];
    int maxGridSize[3];
    int clockRate;
    size_t totalConstMem;
    int major;
    int minor;
    unsigned char reserved[4096];
};

using GetDeviceCountFn = cudaError_t (*)(int* count);
using GetDevicePropertiesFn = cudaError_t (*)(cudaDeviceProp* prop, int device);
using DeviceGetAttributeFn = cudaError_t (*)(int* value, int attr, int device);
using DriverGetVersionFn = cudaError_t (*)(int* version);
using RuntimeGetVersionFn = cudaError_t (*)(int* version);

// cuDNN and TensorRT version queries.
using CudnnGetVersionFn = size_t (*)();
using CudnnGetCudartVersionFn = size_t (*)();
using GetInferLibVersionFn = int (*)();

}  // namespace cuda
}  // namespace ai
