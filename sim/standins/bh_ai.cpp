// Stand-in AI library (libbh_ai.so). Its objects have the operations at the
// table positions the tool calls; "optimising" a model writes files under the
// simulated SDK root:
//   resources/<base>.model                          the downloaded network
//   resources/<base><versionName>_<height>.optimized for fixed-size networks
//   resources/<base><versionName>.optimized          for the others
// Every call is appended to $KOV_STANDIN_AI_LOG when that is set, one line each.
// Build variants leave out an entry point (STANDIN_NO_METADATA,
// STANDIN_NO_LOGLEVEL, STANDIN_NO_DISPARITY) to exercise the loader's failures.
#include "StandinEnv.h"
#include "ai/AIModuleInterfaces.h"

#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <string>

using namespace ai::lib;

namespace {

void log(const std::string& line) {
    const std::string path = standin::env("KOV_STANDIN_AI_LOG");
    if (path.empty())
        return;
    std::ofstream out(path, std::ios::app);
    out << line << "\n";
}

std::string resources() {
    return standin::sysPath("/usr/local/kov") + "/resources";
}

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

void touch(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::trunc);
    out << content;
}

std::string optimizedFile(const std::string& base, const std::string& version, int height) {
    std::string name = resources() + "/" + base + version;
    if (height > 0)
        name += "_" + std::to_string(height);
    return name + ".optimized";
}

int doOptimize(const char* module, const std::string& base, const std::string& version, int gpuId,
               bool downloadOnly, int width, int height) {
    log(std::string(module) + " optimize " + base + " " + version + " gpu=" + std::to_string(gpuId) +
        " download=" + (downloadOnly ? "1" : "0") + " size=" + std::to_string(width) + "x" +
        std::to_string(height));
    const long result = standin::envInt("KOV_STANDIN_AI_OPTIM_RESULT", 0);
    if (result != 0)
        return static_cast<int>(result);
    ::mkdir(standin::sysPath("/usr/local/kov").c_str(), 0775);
    ::mkdir(resources().c_str(), 0775);
    const std::string network = resources() + "/" + base + ".model";
    if (!exists(network))
        touch(network, "network " + base + "\n");
    if (!downloadOnly)
        touch(optimizedFile(base, version, height), "engine " + base + version + "\n");
    return 0;
}

class Metadata : public InferenceMetadata {
public:
    ~Metadata() override { log("destroy metadata"); }
    int getVersion(int* major, int* minor) override {
        int v[2] = {2, 8};
        standin::parseVersion(standin::env("KOV_STANDIN_AI_VERSION", "2.8"), v, 2);
        if (major)
            *major = v[0];
        if (minor)
            *minor = v[1];
        return 0;
    }
    int reserved3() override { return 0; }
    // The device key is the GPU's compute capability as two digits (87 for 8.7).
    int getDeviceKey(int gpuId) override {
        const auto list = standin::devices();
        if (gpuId < 0 || gpuId >= static_cast<int>(list.size()))
            return 0;
        return list[gpuId].major * 10 + list[gpuId].minor;
    }
    int isModelOptimized(std::string modelName, std::string versionName, int, int inputHeight,
                         bool) override {
        return exists(optimizedFile(modelName, versionName, inputHeight)) ||
                       exists(optimizedFile(modelName, versionName, 0))
                   ? 1
                   : 0;
    }
};

class Box : public BoxInferenceModule {
public:
    explicit Box(const char* kind) : kind_(kind) {}
    ~Box() override { log(std::string("destroy ") + kind_); }
    int reserved2() override { return 0; }
    int reserved3() override { return 0; }
    int reserved4() override { return 0; }
    int reserved5() override { return 0; }
    int reserved6() override { return 0; }
    int reserved7() override { return 0; }
    int reserved8() override { return 0; }
    int optimize(std::string modelName, std::string versionName, int gpuId, bool downloadOnly,
                 bool) override {
        return doOptimize(kind_, modelName, versionName, gpuId, downloadOnly, 0, 0);
    }

private:
    const char* kind_;
};

class Sized : public SizedInferenceModule {
public:
    explicit Sized(const char* kind) : kind_(kind) {}
    ~Sized() override { log(std::string("destroy ") + kind_); }
    int reserved2() override { return 0; }
    int reserved3() override { return 0; }
    int reserved4() override { return 0; }
    int reserved5() override { return 0; }
    int reserved6() override { return 0; }
    int optimize(std::string modelName, std::string versionName, int gpuId, bool downloadOnly, bool,
                 int width, int height) override {
        return doOptimize(kind_, modelName, versionName, gpuId, downloadOnly, width, height);
    }

private:
    const char* kind_;
};

class ReID : public ReIDInferenceModule {
public:
    ~ReID() override { log("destroy reid"); }
    int reserved2() override { return 0; }
    int reserved3() override { return 0; }
    int reserved4() override { return 0; }
    int reserved5() override { return 0; }
    int optimize(std::string modelName, std::string versionName, int gpuId, bool downloadOnly,
                 bool) override {
        return doOptimize("reid", modelName, versionName, gpuId, downloadOnly, 0, 0);
    }
};

class Plain : public InferenceModule {
public:
    explicit Plain(const char* kind) : kind_(kind) {}
    ~Plain() override { log(std::string("destroy ") + kind_); }

private:
    const char* kind_;
};

}  // namespace

extern "C" {

#ifndef STANDIN_NO_METADATA
InferenceMetadata* loadInferenceMetadata() {
    log("load metadata");
    return new Metadata;
}
#endif

#ifndef STANDIN_NO_LOGLEVEL
void setAILogLevel(int level) {
    log("log level " + std::to_string(level));
}
#endif

BoxInferenceModule* loadMultiClassBoxInferenceTRTAPIModule() {
    log("load boxTrt");
    return new Box("boxTrt");
}

BoxInferenceModule* loadMultiClassBoxInferenceONNXModule() {
    log("load boxOnnx");
    return new Box("boxOnnx");
}

SizedInferenceModule* loadSkeletonPifPafInferenceModule() {
    log("load skeletonPifPaf");
    return new Sized("skeletonPifPaf");
}

InferenceModule* loadSkeletonRTMPoseInferenceModule() {
    log("load skeletonRtmPose");
    return new Plain("skeletonRtmPose");
}

InferenceModule* loadSkeletonYOLOPoseInferenceModule() {
    log("load skeletonYoloPose");
    return new Plain("skeletonYoloPose");
}

ReIDInferenceModule* loadPeopleReIDInferenceModule() {
    log("load reid");
    return new ReID;
}

#ifndef STANDIN_NO_DISPARITY
SizedInferenceModule* loadDisparityInferenceModule() {
    log("load disparity");
    return new Sized("disparity");
}
#endif

}  // extern "C"
