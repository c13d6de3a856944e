// The model catalogue: display texts, network files, constants and tables.
#include "ai/AIModels.h"
#include "ai/LibAILoader.h"

#include "StandinTestSupport.h"

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <set>

using testsupport::SysRoot;

TEST(AICatalogue, DisplayTextsOfAllModels) {
    const char* expected[14] = {"MULTI CLASS DETECTION",
                                "MULTI CLASS MEDIUM DETECTION",
                                "MULTI CLASS ACCURATE DETECTION",
                                "HUMAN BODY FAST DETECTION",
                                "HUMAN BODY MEDIUM DETECTION",
                                "HUMAN BODY ACCURATE DETECTION",
                                "HUMAN BODY 38 FAST DETECTION",
                                "HUMAN BODY 38 MEDIUM DETECTION",
                                "HUMAN BODY 38 ACCURATE DETECTION",
                                "PERSON HEAD DETECTION",
                                "PERSON HEAD ACCURATE DETECTION",
                                "REID ASSOCIATION",
                                "NEURAL DEPTH",
                                "NEURAL PLUS DEPTH"};
    for (int m = 0; m < 14; ++m)
        EXPECT_STREQ(ai::modelDisplayText(m), expected[m]) << m;
    EXPECT_EQ(bh::NEURAL_PLUS_DEPTH, 13);
    EXPECT_EQ(ai::AI_MODELS_COUNT, 14);
}

TEST(AICatalogue, OutOfRangeModelIsUnknown) {
    EXPECT_STREQ(ai::modelDisplayText(14), "Unknown");
    EXPECT_STREQ(ai::modelDisplayText(-1), "Unknown");
    EXPECT_STREQ(bh::toString(static_cast<bh::AI_MODELS>(14)).get(), "Unknown");
    EXPECT_STREQ(bh::toString(static_cast<bh::AI_MODELS>(-1)).get(), "Unknown");
    EXPECT_EQ(ai::getModelBaseName(14), "");
    EXPECT_EQ(ai::getModelBaseName(-1), "");
    int w = 7, h = 7;
    EXPECT_FALSE(ai::getModelInputSize(99, w, h));
}

TEST(AICatalogue, BaseNamesAndInputSizes) {
    struct Row {
        const char* base;
        int w, h;
    };
    const Row rows[14] = {{"objects_performance_3.2", 0, 512},  {"objects_medium_3.2", 0, 416},
                          {"objects_accurate_3.2", 0, 512},     {"skeleton_body18_3.2", 256, 160},
                          {"skeleton_body18_3.2", 384, 224},    {"skeleton_body18_3.2", 608, 352},
                          {"skeleton_body38_3.5", 320, 192},    {"skeleton_body38_3.5", 512, 320},
                          {"skeleton_body38_3.5", 640, 448},    {"person_head_performance_2.4", 0, 832},
                          {"person_head_accurate_2.4", 0, 960}, {"person_reid_1.4", 0, 0},
                          {"neural_depth_3.6", 896, 512},       {"neural_depth_3.6", 1920, 1024}};
    for (int m = 0; m < 14; ++m) {
        EXPECT_EQ(ai::getModelBaseName(m), rows[m].base) << m;
        int w = -1, h = -1;
        ASSERT_TRUE(ai::getModelInputSize(m, w, h));
        EXPECT_EQ(w, rows[m].w) << m;
        EXPECT_EQ(h, rows[m].h) << m;
    }
}

TEST(AICatalogue, BodyEighteenModelsShareOneFile) {
    for (int m : {3, 4, 5})
        EXPECT_EQ(ai::getModelBaseName(m) + ai::AI_MODEL_EXTENSION, "skeleton_body18_3.2.model") << m;

    // With only that file installed, exactly the three models find their network.
    SysRoot root;
    root.writeFile("/usr/local/kov/resources/skeleton_body18_3.2.model", "net");
    for (int m = 0; m < 14; ++m)
        EXPECT_EQ(ai::checkAIModel(static_cast<bh::AI_MODELS>(m)), m >= 3 && m <= 5) << m;
}

TEST(AICatalogue, CheckAIModelCreatesTheDirectoriesAndRejectsUnknownModels) {
    SysRoot root;
    root.mkdir("/usr/local");  // as on any machine; the SDK folders are made by the check
    EXPECT_FALSE(ai::checkAIModel(bh::NEURAL_DEPTH));
    EXPECT_TRUE(root.exists("/usr/local/kov"));
    EXPECT_TRUE(root.exists("/usr/local/kov/resources"));
    EXPECT_FALSE(ai::checkAIModel(static_cast<bh::AI_MODELS>(99)));
    EXPECT_FALSE(ai::checkAIModel(static_cast<bh::AI_MODELS>(-1)));
}

TEST(AICatalogue, NamesKeptFromEarlierGenerations) {
    EXPECT_EQ(ai::MODEL_SKELETON_BODY31_NAME, "skeleton_body38_3.5");
    EXPECT_EQ(ai::MODEL_SKELETON_BODY65_NAME, "skeleton_body70_3.3");
}

TEST(AICatalogue, FurtherConstants) {
    EXPECT_EQ(ai::AI_MODEL_EXTENSION, ".model");
    EXPECT_EQ(ai::TIMING_CACHE_SUFFIX, "_timing_cache");
    EXPECT_EQ(ai::INT8_CALIB_CACHE_SUFFIX, "_calibration_cache");
    EXPECT_EQ(ai::INT8_CALIB_DATASET_NAME, ".calibration_set");
    EXPECT_EQ(ai::INT8_STEREO_CALIB_DATASET_NAME, ".calibration_set_stereo");
    EXPECT_EQ(ai::CALIBRATION_SET_URL, "calibration_set_1_0");
    EXPECT_EQ(ai::CALIBRATION_SET_STEREO_URL, "calibration_set_stereo_1_0");
    EXPECT_EQ(ai::OPTIM_STRING_OPTIMIZED_SUFFIX_OD, "0");
    EXPECT_EQ(ai::OPTIM_STRING_OPTIMIZED_SUFFIX_NEURAL, "-0e53");
    EXPECT_EQ(ai::OPTIM_STRING_OPTIMIZED_SUFFIX_SK, "-2");
    EXPECT_EQ(ai::MODEL_OBJECT_NAME_FAST, "objects_performance_3.2");
    EXPECT_EQ(ai::MODEL_OBJECT_NAME, ai::MODEL_OBJECT_NAME_FAST);
    EXPECT_EQ(ai::MODEL_NEURAL_V1_NAME, "neural_depth_2.0");
    EXPECT_EQ(ai::MODEL_NEURAL_SDK_38_NAME, "neural_depth_1.8");
    EXPECT_EQ(ai::MODEL_NEURAL_SDK_40_NAME, "neural_depth_2.0");
    EXPECT_EQ(ai::MODEL_NEURAL_FAST_NAME, "neural_depth_fast_3.0");
    EXPECT_EQ(bh::_dir_resources, "resources");
}

TEST(AICatalogue, DigestTableHas117WellFormedRows) {
    EXPECT_EQ(ai::MODELS_MD5SUM_MAP.size(), 117u);
    for (const auto& [key, digest] : ai::MODELS_MD5SUM_MAP) {
        ASSERT_EQ(digest.size(), 32u) << key;
        for (char c : digest)
            EXPECT_TRUE(std::isdigit(static_cast<unsigned char>(c)) || (c >= 'a' && c <= 'f')) << key;
    }
    for (const char* key : {"skeleton_performance_2.1",
                            "rtmpose-tiny_simcc-aic-coco_pt-aic-coco_420e-256x192-cfc8f33d_20230126",
                            "yolov8n-pose", "person_reid_1.4", "objects_performance_3.2", "neural_depth_3.6",
                            "conf_finetune_LR_1e-5", "neural_confidence_near_range"})
        EXPECT_EQ(ai::MODELS_MD5SUM_MAP.count(key), 1u) << key;
    // Every network of the catalogue has a row.
    for (int m = 0; m < 14; ++m)
        EXPECT_EQ(ai::MODELS_MD5SUM_MAP.count(ai::getModelBaseName(m)), 1u) << m;
}

TEST(AICatalogue, TimingTablesShareTenKeysWithFallback) {
    const std::unordered_map<std::string, int32_t>* maps[5] = {
        &ai::jetson_model_optim_timing, &ai::linux_model_optim_timing_fp16,
        &ai::linux_model_optim_timing_fp32, &ai::win_model_optim_timing_fp16,
        &ai::win_model_optim_timing_fp32};
    for (auto* map : maps) {
        EXPECT_EQ(map->size(), 10u);
        EXPECT_EQ(map->count("unknown"), 1u);
        for (const auto& kv : ai::jetson_model_optim_timing)
            EXPECT_EQ(map->count(kv.first), 1u) << kv.first;
    }
    EXPECT_EQ(ai::jetson_model_optim_timing.at(ai::MODEL_NEURAL_NAME), 800);
    EXPECT_EQ(ai::jetson_model_optim_timing.at(ai::MODEL_OBJECT_NAME_FAST), 300);
    EXPECT_EQ(ai::linux_model_optim_timing_fp16.at(ai::MODEL_OBJECT_NAME_ACCURATE), 320);
    EXPECT_EQ(ai::linux_model_optim_timing_fp32.at("unknown"), 250);
    EXPECT_EQ(ai::win_model_optim_timing_fp16.at(ai::MODEL_SKELETON_BODY65_NAME), 400);
    EXPECT_EQ(ai::win_model_optim_timing_fp32.at(ai::PERSON_REID_MODEL_NAME), 130);
    EXPECT_EQ(ai::win_model_optim_timing_fp32.at("unknown"), 1900);
}

TEST(AICatalogue, LoadErrorTexts) {
    EXPECT_EQ(ai::toString(0), "");
    EXPECT_EQ(ai::toString(1), "MEMORY TOO LOW");
    EXPECT_EQ(ai::toString(2), "CUDNN NOT FOUND");
    EXPECT_EQ(ai::toString(3), "CUDNN WRONG VERSION");
    EXPECT_EQ(ai::toString(4), "BH AI NOT FOUND");
    EXPECT_EQ(ai::toString(5), "BH AI WRONG VERSION");
    EXPECT_EQ(ai::toString(6), "MODEL NOT FOUND");
    EXPECT_EQ(ai::toString(7), "MODEL WRONG VERSION");
    EXPECT_EQ(ai::toString(8), "CORRUPTED MODEL");
    EXPECT_EQ(ai::toString(9), "NOT ENOUGH DISK SPACE");
    EXPECT_EQ(ai::toString(10), "TRT NOT FOUND");
    EXPECT_EQ(ai::toString(11), "");
    EXPECT_EQ(ai::toString(-3), "");
}
