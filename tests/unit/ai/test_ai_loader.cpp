// The AI library loader against the stand-in libraries (all of CUDA, cuDNN and
// TensorRT found through LD_LIBRARY_PATH; the AI library in a system root).
#include "ai/LibAILoader.h"

#include "StandinTestSupport.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
using testsupport::countLines;
using testsupport::ScopedEnv;

namespace {

// One Orin-class GPU and a log of the AI library's calls.
struct LoaderTest : public testsupport::StandinTest {
    void SetUp() override {
        StandinTest::SetUp();
        env.unset("KOV_STANDIN_AI_VERSION");
        env.unset("KOV_STANDIN_AI_OPTIM_RESULT");
        env.unset("KOV_STANDIN_CUDNN_VERSION");
    }
};

}  // namespace

TEST_F(LoaderTest, VersionsComeFromTheLibraries) {
    ScopedEnv v("KOV_STANDIN_CUDNN_VERSION", "8905");
    ai::LibVersion versions;
    EXPECT_TRUE(ai::dynamicLoadVersion(versions));
    EXPECT_EQ(versions.cuda, 12020);
    EXPECT_EQ(versions.cudnn, 8905);
    EXPECT_EQ(versions.cudnnCudart, 12020);
    EXPECT_EQ(versions.tensorrt, 8602);
}

TEST_F(LoaderTest, MissingLibraryIsNotFound) {
    ai::AILoader loader;
    EXPECT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), ai::AI_LOAD_BH_AI_NOT_FOUND);
    EXPECT_FALSE(loader.loaded);
    EXPECT_EQ(loader.libHandle, nullptr);
}

TEST_F(LoaderTest, MetadataOnlyLeavesEveryModuleSlotEmpty) {
    root.installAILibrary();
    ai::AILoader loader;
    EXPECT_EQ(loader.loadLib(ai::AI_LIB_METADATA, 0), 0);
    EXPECT_TRUE(loader.loaded);
    EXPECT_NE(loader.metadata, nullptr);
    EXPECT_EQ(loader.boxTrt, nullptr);
    EXPECT_EQ(loader.boxOnnx, nullptr);
    EXPECT_EQ(loader.skeletonPifPaf, nullptr);
    EXPECT_EQ(loader.skeletonRtmPose, nullptr);
    EXPECT_EQ(loader.skeletonYoloPose, nullptr);
    EXPECT_EQ(loader.reid, nullptr);
    EXPECT_EQ(loader.disparity, nullptr);
    EXPECT_EQ(loader.setLogLevelFn, nullptr);
}

TEST_F(LoaderTest, EmptyListLoadsMetadataOnly) {
    root.installAILibrary();
    ai::AILoader loader;
    EXPECT_EQ(loader.loadLib(std::vector<ai::AI_LIB>{}, 0), 0);
    EXPECT_TRUE(loader.loaded);
    EXPECT_NE(loader.metadata, nullptr);
    EXPECT_EQ(loader.boxOnnx, nullptr);
}

TEST_F(LoaderTest, LibraryVersionMustBeTwoPointEightOrOlder) {
    root.installAILibrary();
    for (const char* bad : {"2.9", "3.0", "1.8"}) {
        ScopedEnv v("KOV_STANDIN_AI_VERSION", bad);
        ai::AILoader loader;
        EXPECT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), ai::AI_LOAD_BH_AI_WRONG_VERSION) << bad;
        EXPECT_FALSE(loader.loaded) << bad;
    }
    for (const char* good : {"2.8", "2.0"}) {
        ScopedEnv v("KOV_STANDIN_AI_VERSION", good);
        ai::AILoader loader;
        EXPECT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), 0) << good;
        EXPECT_TRUE(loader.loaded) << good;
    }
}

TEST_F(LoaderTest, AllModulesLoadAndTheLogLevelIsHandedOver) {
    root.installAILibrary();
    ai::AILoader loader;
    EXPECT_EQ(loader.loadLib(ai::AI_LIB_ALL, 673), 0);
    EXPECT_NE(loader.boxTrt, nullptr);
    EXPECT_NE(loader.boxOnnx, nullptr);
    EXPECT_NE(loader.skeletonPifPaf, nullptr);
    EXPECT_NE(loader.skeletonRtmPose, nullptr);
    EXPECT_NE(loader.skeletonYoloPose, nullptr);
    EXPECT_NE(loader.reid, nullptr);
    EXPECT_NE(loader.disparity, nullptr);
    const auto log = root.aiLog();
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), "log level 673");
    // Modules are made in slot order after the metadata.
    const std::vector<std::string> order = {
        "load metadata",        "load boxTrt",           "load boxOnnx", "load skeletonPifPaf",
        "load skeletonRtmPose", "load skeletonYoloPose", "load reid",    "load disparity"};
    ASSERT_GE(log.size(), order.size());
    for (size_t i = 0; i < order.size(); ++i)
        EXPECT_EQ(log[i], order[i]);
}

TEST_F(LoaderTest, OnlyTheAskedModulesAreMade) {
    root.installAILibrary();
    ai::AILoader loader;
    EXPECT_EQ(loader.loadLib(std::vector<ai::AI_LIB>{ai::AI_LIB_BOX_ONNX, ai::AI_LIB_REID}, 0), 0);
    EXPECT_NE(loader.boxOnnx, nullptr);
    EXPECT_NE(loader.reid, nullptr);
    EXPECT_EQ(loader.boxTrt, nullptr);
    EXPECT_EQ(loader.disparity, nullptr);
    EXPECT_EQ(loader.skeletonPifPaf, nullptr);
}

TEST_F(LoaderTest, MissingEntryPointsPrintTheirLabel) {
    {
        root.installAILibrary("no_metadata");
        ai::AILoader loader;
        CaptureStdout();
        EXPECT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), ai::AI_LOAD_BH_AI_NOT_FOUND);
        const std::string out = GetCapturedStdout();
        EXPECT_NE(out.find("getProcAddress (LoadMetaFct): "), std::string::npos) << out;
        EXPECT_NE(out.find("loadInferenceMetadata"), std::string::npos) << out;  // dlerror text
    }
    {
        root.installAILibrary("no_loglevel");
        ai::AILoader loader;
        CaptureStdout();
        EXPECT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), ai::AI_LOAD_BH_AI_NOT_FOUND);
        EXPECT_NE(GetCapturedStdout().find("getProcAddress (set_loglevel): "), std::string::npos);
        // Metadata alone does not need the log level entry point.
        ai::AILoader meta;
        EXPECT_EQ(meta.loadLib(ai::AI_LIB_METADATA, 0), 0);
    }
    {
        root.installAILibrary("no_disparity");
        ai::AILoader loader;
        CaptureStdout();
        EXPECT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), ai::AI_LOAD_BH_AI_NOT_FOUND);
        EXPECT_NE(GetCapturedStdout().find("getProcAddress (LoadDispFct): "), std::string::npos);
        ai::AILoader box;
        EXPECT_EQ(box.loadLib(ai::AI_LIB_BOX_ONNX, 0), 0);
    }
}

TEST_F(LoaderTest, VersionNameNamesTheGpuAndTheLibraries) {
    ai::AILoader unloaded;
    EXPECT_EQ(unloaded.getLibVersionName(0), "");

    root.installAILibrary();
    ScopedEnv gpus("KOV_STANDIN_CUDA_DEVICES", "Orin|8.7|16|1000;Xavier|7.2|8|1000");
    ai::AILoader loader;
    ASSERT_EQ(loader.loadLib(ai::AI_LIB_METADATA, 0), 0);
    EXPECT_EQ(loader.versionSuffix, "12020-8904-8602");
    EXPECT_EQ(loader.getLibVersionName(0), "-87-12020-8904-8602");
    EXPECT_EQ(loader.getLibVersionName(1), "-72-12020-8904-8602");
}

TEST_F(LoaderTest, ModelWithoutItsModulePrintsThenReturnsOne) {
    root.installAILibrary();
    ai::AILoader loader;
    ASSERT_EQ(loader.loadLib(ai::AI_LIB_BOX_ONNX, 0), 0);
    std::string version = loader.getLibVersionName(0);
    CaptureStdout();
    EXPECT_EQ(loader.optimAIModel(bh::NEURAL_DEPTH, 0, false, version, false), 1);
    EXPECT_EQ(GetCapturedStdout(), "Optimizing: NEURAL DEPTH...\n");
    CaptureStdout();
    EXPECT_EQ(loader.optimAIModel(bh::NEURAL_DEPTH, 0, true, version, false), 1);
    EXPECT_EQ(GetCapturedStdout(), "Downloading: NEURAL DEPTH...\n");
}

TEST_F(LoaderTest, UnknownModelReturnsMinusOneSilently) {
    root.installAILibrary();
    ai::AILoader loader;
    ASSERT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), 0);
    std::string version = loader.getLibVersionName(0);
    root.clearAiLog();
    CaptureStdout();
    EXPECT_EQ(loader.optimAIModel(static_cast<bh::AI_MODELS>(99), 0, false, version, false), -1);
    EXPECT_EQ(loader.optimAIModel(static_cast<bh::AI_MODELS>(-1), 0, false, version, false), -1);
    EXPECT_EQ(GetCapturedStdout(), "");
    EXPECT_TRUE(root.aiLog().empty());
}

TEST_F(LoaderTest, EachModelGoesToItsModuleWithItsSize) {
    root.installAILibrary();
    ai::AILoader loader;
    ASSERT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), 0);
    std::string version = loader.getLibVersionName(0);
    const std::string expected[14] = {
        "boxOnnx optimize objects_performance_3.2 -87-12020-8904-8602 gpu=0 download=0 size=0x0",
        "boxOnnx optimize objects_medium_3.2 -87-12020-8904-8602 gpu=0 download=0 size=0x0",
        "boxOnnx optimize objects_accurate_3.2 -87-12020-8904-8602 gpu=0 download=0 size=0x0",
        "skeletonPifPaf optimize skeleton_body18_3.2 -87-12020-8904-8602 gpu=0 download=0 size=256x160",
        "skeletonPifPaf optimize skeleton_body18_3.2 -87-12020-8904-8602 gpu=0 download=0 size=384x224",
        "skeletonPifPaf optimize skeleton_body18_3.2 -87-12020-8904-8602 gpu=0 download=0 size=608x352",
        "skeletonPifPaf optimize skeleton_body38_3.5 -87-12020-8904-8602 gpu=0 download=0 size=320x192",
        "skeletonPifPaf optimize skeleton_body38_3.5 -87-12020-8904-8602 gpu=0 download=0 size=512x320",
        "skeletonPifPaf optimize skeleton_body38_3.5 -87-12020-8904-8602 gpu=0 download=0 size=640x448",
        "boxTrt optimize person_head_performance_2.4 -87-12020-8904-8602 gpu=0 download=0 size=0x0",
        "boxTrt optimize person_head_accurate_2.4 -87-12020-8904-8602 gpu=0 download=0 size=0x0",
        "reid optimize person_reid_1.4 -87-12020-8904-8602 gpu=0 download=0 size=0x0",
        "disparity optimize neural_depth_3.6 -87-12020-8904-8602 gpu=0 download=0 size=896x512",
        "disparity optimize neural_depth_3.6 -87-12020-8904-8602 gpu=0 download=0 size=1920x1024"};
    for (int m = 0; m < 14; ++m) {
        root.clearAiLog();
        CaptureStdout();
        EXPECT_EQ(loader.optimAIModel(static_cast<bh::AI_MODELS>(m), 0, false, version, false), 0);
        EXPECT_EQ(GetCapturedStdout(), std::string("Optimizing: ") + ai::modelDisplayText(m) + "...\n");
        const auto log = root.aiLog();
        ASSERT_EQ(log.size(), 1u) << m;
        EXPECT_EQ(log[0], expected[m]);
    }
}

TEST_F(LoaderTest, OptimisingAllAddsTheResults) {
    root.installAILibrary();
    ai::AILoader loader;
    ASSERT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), 0);
    CaptureStdout();
    EXPECT_EQ(loader.optimAllAIModels(0, false), 0);
    GetCapturedStdout();
    for (int m = 0; m < 14; ++m)
        EXPECT_TRUE(ai::checkAIModelOptim(static_cast<bh::AI_MODELS>(m), 0, false)) << m;

    ScopedEnv fail("KOV_STANDIN_AI_OPTIM_RESULT", "3");
    CaptureStdout();
    EXPECT_EQ(loader.optimAllAIModels(0, true), 42);
    GetCapturedStdout();
}

TEST_F(LoaderTest, OptimisedFormIsPerNetworkAndInputSize) {
    root.installAILibrary();
    for (int m = 0; m < 14; ++m)
        EXPECT_FALSE(ai::checkAIModelOptim(static_cast<bh::AI_MODELS>(m), 0, false)) << m;
    ai::AILoader loader;
    ASSERT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), 0);
    std::string version = loader.getLibVersionName(0);
    CaptureStdout();
    EXPECT_EQ(loader.optimAIModel(bh::HUMAN_BODY_FAST_DETECTION, 0, false, version, false), 0);
    EXPECT_EQ(loader.optimAIModel(bh::MULTI_CLASS_DETECTION, 0, true, version, false), 0);  // download only
    GetCapturedStdout();
    EXPECT_TRUE(ai::checkAIModelOptim(bh::HUMAN_BODY_FAST_DETECTION, 0, false));
    EXPECT_FALSE(ai::checkAIModelOptim(bh::HUMAN_BODY_MEDIUM_DETECTION, 0, false));
    EXPECT_FALSE(ai::checkAIModelOptim(bh::MULTI_CLASS_DETECTION, 0, false));
    EXPECT_TRUE(ai::checkAIModel(bh::MULTI_CLASS_DETECTION));
    EXPECT_TRUE(ai::checkAIModel(bh::HUMAN_BODY_MEDIUM_DETECTION));  // same network file
    EXPECT_FALSE(ai::checkAIModelOptim(static_cast<bh::AI_MODELS>(99), 0, false));
}

TEST_F(LoaderTest, CheckAIModelOptimIsFalseWithoutTheLibrary) {
    EXPECT_FALSE(ai::checkAIModelOptim(bh::NEURAL_DEPTH, 0, false));
}

TEST_F(LoaderTest, RemoveAllOnAnUnloadedLoaderChangesNothing) {
    root.writeFile("/usr/local/kov/resources/neural_depth_3.6.model", "net");
    root.writeFile("/usr/local/kov/resources/neural_depth_3.6-87-x_512.optimized", "engine");
    ai::AILoader loader;
    loader.removeAllAIModels();
    EXPECT_EQ(root.list("/usr/local/kov/resources").size(), 2u);
}

TEST_F(LoaderTest, RemoveAllLeavesNoAIFile) {
    root.installAILibrary();
    ai::AILoader loader;
    ASSERT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), 0);
    CaptureStdout();
    loader.optimAllAIModels(0, false);
    GetCapturedStdout();
    root.writeFile("/usr/local/kov/resources/objects_performance_3.2_timing_cache", "cache");
    root.mkdir("/usr/local/kov/resources/.calibration_set");
    root.writeFile("/usr/local/kov/resources/.calibration_set/img0", "x");
    ASSERT_GT(root.list("/usr/local/kov/resources").size(), 10u);

    loader.removeAllAIModels();
    EXPECT_TRUE(root.list("/usr/local/kov/resources").empty());
    EXPECT_TRUE(root.exists("/usr/local/kov/resources"));
    EXPECT_TRUE(root.exists("/usr/local/kov/lib/libbh_ai.so"));  // the library itself stays
    for (int m = 0; m < 14; ++m) {
        EXPECT_FALSE(ai::checkAIModel(static_cast<bh::AI_MODELS>(m))) << m;
        EXPECT_FALSE(ai::checkAIModelOptim(static_cast<bh::AI_MODELS>(m), 0, false)) << m;
    }
}

TEST_F(LoaderTest, CloseDestroysEveryObjectInSlotOrderAndIsSafeToRepeat) {
    root.installAILibrary();
    ai::AILoader loader;
    ASSERT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), 0);
    root.clearAiLog();
    loader.close();
    const std::vector<std::string> expected = {
        "destroy metadata",        "destroy boxTrt",           "destroy boxOnnx", "destroy skeletonPifPaf",
        "destroy skeletonRtmPose", "destroy skeletonYoloPose", "destroy reid",    "destroy disparity"};
    EXPECT_EQ(root.aiLog(), expected);
    EXPECT_EQ(loader.libHandle, nullptr);
    EXPECT_EQ(loader.metadata, nullptr);
    EXPECT_EQ(loader.disparity, nullptr);
    EXPECT_FALSE(loader.loaded);
    loader.close();
    EXPECT_EQ(root.aiLog().size(), expected.size());
    EXPECT_EQ(loader.getLibVersionName(0), "");
}

namespace {

// The entry at `position` (from 0) of an object's table of virtual operations,
// as the Itanium C++ ABI lays it out: the object starts with a pointer to it.
template <typename Fn>
Fn tableEntry(void* object, size_t position) {
    void** table = *static_cast<void***>(object);
    return reinterpret_cast<Fn>(table[position]);
}

using GetVersion = int (*)(void*, int*, int*);
using GetDeviceKey = int (*)(void*, int);
using IsModelOptimized = int (*)(void*, std::string, std::string, int, int, bool);
using Optimize = int (*)(void*, std::string, std::string, int, bool, bool);
using OptimizeSized = int (*)(void*, std::string, std::string, int, bool, bool, int, int);
using DeletingDestructor = void (*)(void*);

}  // namespace

// The library's objects are reached by table position alone: metadata 2, 4,
// 5; box modules 9; skeleton and disparity 7; re-identification 6; and the
// destructor that deletes, second in the table, at 1.
TEST_F(LoaderTest, ObjectsAnswerAtTheirTablePositions) {
    root.installAILibrary();
    ai::AILoader loader;
    ASSERT_EQ(loader.loadLib(ai::AI_LIB_ALL, 0), 0);
    root.clearAiLog();

    void* meta = loader.metadata;
    int major = -1, minor = -1;
    EXPECT_EQ(tableEntry<GetVersion>(meta, 2)(meta, &major, &minor), 0);
    EXPECT_EQ(major, 2);
    EXPECT_EQ(minor, 8);
    EXPECT_EQ(tableEntry<GetDeviceKey>(meta, 4)(meta, 0), 87);
    EXPECT_EQ(tableEntry<IsModelOptimized>(meta, 5)(meta, "neural_depth_3.6", "-87-x", 0, 512, false), 0);
    root.writeFile("/usr/local/kov/resources/neural_depth_3.6-87-x_512.optimized", "engine");
    EXPECT_NE(tableEntry<IsModelOptimized>(meta, 5)(meta, "neural_depth_3.6", "-87-x", 0, 512, false), 0);

    EXPECT_EQ(tableEntry<Optimize>(loader.boxTrt, 9)(loader.boxTrt, "t", "-v", 0, true, false), 0);
    EXPECT_EQ(tableEntry<Optimize>(loader.boxOnnx, 9)(loader.boxOnnx, "o", "-v", 1, true, false), 0);
    EXPECT_EQ(tableEntry<OptimizeSized>(loader.skeletonPifPaf, 7)(loader.skeletonPifPaf, "s", "-v", 0, true,
                                                                  false, 256, 160),
              0);
    EXPECT_EQ(
        tableEntry<OptimizeSized>(loader.disparity, 7)(loader.disparity, "d", "-v", 0, true, false, 896, 512),
        0);
    EXPECT_EQ(tableEntry<Optimize>(loader.reid, 6)(loader.reid, "r", "-v", 0, true, false), 0);

    void* rtm = loader.skeletonRtmPose;
    loader.metadata = nullptr;
    loader.skeletonRtmPose = nullptr;
    tableEntry<DeletingDestructor>(meta, 1)(meta);
    tableEntry<DeletingDestructor>(rtm, 1)(rtm);

    const std::vector<std::string> expected = {"boxTrt optimize t -v gpu=0 download=1 size=0x0",
                                               "boxOnnx optimize o -v gpu=1 download=1 size=0x0",
                                               "skeletonPifPaf optimize s -v gpu=0 download=1 size=256x160",
                                               "disparity optimize d -v gpu=0 download=1 size=896x512",
                                               "reid optimize r -v gpu=0 download=1 size=0x0",
                                               "destroy metadata",
                                               "destroy skeletonRtmPose"};
    EXPECT_EQ(root.aiLog(), expected);
}

TEST_F(LoaderTest, SeveralLoadersAtOnce) {
    root.installAILibrary();
    ai::AILoader a, b;
    ASSERT_EQ(a.loadLib(ai::AI_LIB_ALL, 0), 0);
    ASSERT_EQ(b.loadLib(ai::AI_LIB_METADATA, 0), 0);
    a.close();
    EXPECT_EQ(b.getLibVersionName(0), "-87-12020-8904-8602");
    EXPECT_EQ(countLines(root.aiLog(), "load metadata"), 2u);
}
