// Stand-in cuDNN (libcudnn.so.8): versions from the environment.
#include "StandinEnv.h"

#include <cstddef>

extern "C" {

size_t cudnnGetVersion() {
    return static_cast<size_t>(standin::envInt("KOV_STANDIN_CUDNN_VERSION", 8904));
}

size_t cudnnGetCudartVersion() {
    return static_cast<size_t>(standin::envInt("KOV_STANDIN_CUDNN_CUDART_VERSION", 12020));
}

}  // extern "C"
