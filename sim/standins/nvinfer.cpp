// Stand-in TensorRT (libnvinfer.so): version from the environment.
#include "StandinEnv.h"

extern "C" int getInferLibVersion() {
    return static_cast<int>(standin::envInt("KOV_STANDIN_TRT_VERSION", 8602));
}
