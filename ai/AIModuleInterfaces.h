#pragma once

#include <string>

// Layout of the objects that the SDK's AI library hands out. The tool calls
// them only through their tables of virtual operations, so each class below
// declares its operations in table order. The virtual destructor comes first
// and fills two entries of the table (the complete-object destructor at 0,
// the deleting destructor, which `delete` calls, at 1); every later
// declaration takes the next position. Operations the tool never calls are
// kept as placeholders so that the positions hold. Every operation returns 0
// for success.

namespace ai {
namespace lib {

class InferenceMetadata {
public:
    virtual ~InferenceMetadata() = default;              // 0, 1
    virtual int getVersion(int* major, int* minor) = 0;  // 2
    virtual int reserved3() = 0;                         // 3
    virtual int getDeviceKey(int gpuId) = 0;             // 4: names a GPU in a version name
    virtual int isModelOptimized(std::string modelName, std::string versionName, int gpuId, int inputHeight,
                                 bool flag) = 0;  // 5: non-zero when optimised
};

// Object detection, by TensorRT API or ONNX.
class BoxInferenceModule {
public:
    virtual ~BoxInferenceModule() = default;  // 0, 1
    virtual int reserved2() = 0;              // 2
    virtual int reserved3() = 0;              // 3
    virtual int reserved4() = 0;              // 4
    virtual int reserved5() = 0;              // 5
    virtual int reserved6() = 0;              // 6
    virtual int reserved7() = 0;              // 7
    virtual int reserved8() = 0;              // 8
    virtual int optimize(std::string modelName, std::string versionName, int gpuId, bool downloadOnly,
                         bool flag) = 0;  // 9
};

// Networks with a fixed input size: skeleton (PifPaf) and disparity.
class SizedInferenceModule {
public:
    virtual ~SizedInferenceModule() = default;  // 0, 1
    virtual int reserved2() = 0;                // 2
    virtual int reserved3() = 0;                // 3
    virtual int reserved4() = 0;                // 4
    virtual int reserved5() = 0;                // 5
    virtual int reserved6() = 0;                // 6
    virtual int optimize(std::string modelName, std::string versionName, int gpuId, bool downloadOnly,
                         bool flag, int width, int height) = 0;  // 7
};

// People re-identification.
class ReIDInferenceModule {
public:
    virtual ~ReIDInferenceModule() = default;  // 0, 1
    virtual int reserved2() = 0;               // 2
    virtual int reserved3() = 0;               // 3
    virtual int reserved4() = 0;               // 4
    virtual int reserved5() = 0;               // 5
    virtual int optimize(std::string modelName, std::string versionName, int gpuId, bool downloadOnly,
                         bool flag) = 0;  // 6
};

// Modules the tool loads but never calls beyond destroying them.
class InferenceModule {
public:
    virtual ~InferenceModule() = default;  // 0, 1
};

// Entry points, exported with C linkage; each takes no argument and returns a
// new object, or null.
using LoadMetadataFn = InferenceMetadata* (*)();
using LoadBoxFn = BoxInferenceModule* (*)();
using LoadSizedFn = SizedInferenceModule* (*)();
using LoadReIDFn = ReIDInferenceModule* (*)();
using LoadModuleFn = InferenceModule* (*)();
using SetLogLevelFn = void (*)(int level);

}  // namespace lib
}  // namespace ai
