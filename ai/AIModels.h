#pragma once

#include "bh_input/grabber/String.h"

#include <cstdint>
#include <string>
#include <unordered_map>

// Catalogue of the AI models: the user-visible models, the network file behind
// each, and the constant tables shared by the loader, the checks and the GUI.

namespace bh {

enum AI_MODELS : int {
    MULTI_CLASS_DETECTION = 0,
    MULTI_CLASS_MEDIUM_DETECTION = 1,
    MULTI_CLASS_ACCURATE_DETECTION = 2,
    HUMAN_BODY_FAST_DETECTION = 3,
    HUMAN_BODY_MEDIUM_DETECTION = 4,
    HUMAN_BODY_ACCURATE_DETECTION = 5,
    HUMAN_BODY_38_FAST_DETECTION = 6,
    HUMAN_BODY_38_MEDIUM_DETECTION = 7,
    HUMAN_BODY_38_ACCURATE_DETECTION = 8,
    PERSON_HEAD_DETECTION = 9,
    PERSON_HEAD_ACCURATE_DETECTION = 10,
    REID_ASSOCIATION = 11,
    NEURAL_DEPTH = 12,
    NEURAL_PLUS_DEPTH = 13,
    LAST = 14
};

// Display text of a model ("MULTI CLASS DETECTION", ...), "Unknown" for any
// other value.
String toString(const AI_MODELS& model);

// Sub-folder of the SDK root that holds the model files.
extern const std::string _dir_resources;

}  // namespace bh

namespace ai {

// Number of models; every loop over them runs from 0 to AI_MODELS_COUNT - 1.
constexpr int AI_MODELS_COUNT = 14;

extern const std::string AI_MODEL_EXTENSION;
extern const std::string TIMING_CACHE_SUFFIX;
extern const std::string INT8_CALIB_CACHE_SUFFIX;
extern const std::string INT8_CALIB_DATASET_NAME;
extern const std::string INT8_STEREO_CALIB_DATASET_NAME;
extern const std::string CALIBRATION_SET_URL;
extern const std::string CALIBRATION_SET_STEREO_URL;
extern const std::string OPTIM_STRING_OPTIMIZED_SUFFIX_OD;
extern const std::string OPTIM_STRING_OPTIMIZED_SUFFIX_NEURAL;
extern const std::string OPTIM_STRING_OPTIMIZED_SUFFIX_SK;

// Base names of the network files.
extern const std::string MODEL_OBJECT_NAME_FAST;
extern const std::string MODEL_OBJECT_NAME;
extern const std::string MODEL_OBJECT_NAME_MEDIUM;
extern const std::string MODEL_OBJECT_NAME_ACCURATE;
extern const std::string MODEL_SKELETON_BODY18_NAME_FAST;
extern const std::string MODEL_SKELETON_BODY18_NAME_MEDIUM;
extern const std::string MODEL_SKELETON_BODY18_NAME_ACCURATE;
// Named after body 31 and body 65 for history; the values are the body-38 and
// body-70 networks that are installed.
extern const std::string MODEL_SKELETON_BODY31_NAME;
extern const std::string MODEL_SKELETON_BODY65_NAME;
extern const std::string MODEL_OBJECT_NAME_CROWD;
extern const std::string MODEL_OBJECT_NAME_CROWD_ACCURATE;
extern const std::string PERSON_REID_MODEL_NAME;
extern const std::string MODEL_NEURAL_NAME;
extern const std::string MODEL_NEURAL_ACCURATE_NAME;
extern const std::string MODEL_NEURAL_V1_NAME;
extern const std::string MODEL_NEURAL_SDK_38_NAME;
extern const std::string MODEL_NEURAL_SDK_40_NAME;
extern const std::string MODEL_NEURAL_FAST_NAME;

// Network base name -> MD5 digest of its file (32 lower-case hex digits).
extern const std::unordered_map<std::string, std::string> MODELS_MD5SUM_MAP;

// Estimated optimisation time in seconds per network; "unknown" is the fallback.
extern const std::unordered_map<std::string, int32_t> jetson_model_optim_timing;
extern const std::unordered_map<std::string, int32_t> linux_model_optim_timing_fp16;
extern const std::unordered_map<std::string, int32_t> linux_model_optim_timing_fp32;
extern const std::unordered_map<std::string, int32_t> win_model_optim_timing_fp16;
extern const std::unordered_map<std::string, int32_t> win_model_optim_timing_fp32;

// Display text of a model, "Unknown" for a value outside 0..13.
const char* modelDisplayText(int model);

// Base name of the network behind a model; empty for an unknown model.
std::string getModelBaseName(int model);

// Fixed input size of a model's network. Models with only a height (object
// detection) give width 0; the re-identification model gives 0 x 0. Returns
// false for an unknown model.
bool getModelInputSize(int model, int& width, int& height);

}  // namespace ai
