#include "ai/AIModels.h"

namespace bh {
const std::string _dir_resources = "resources";

String toString(const AI_MODELS& model) {
    return String(ai::modelDisplayText(static_cast<int>(model)));
}
}  // namespace bh

namespace ai {

namespace {

struct ModelEntry {
    const char* text;
    const std::string* baseName;
    int width;
    int height;
};

}  // namespace

// The digest table comes first, then the name constants, then the timing maps.
// The digests stand in for the released files' digests (each is the MD5 of the
// network's name) until the download service publishes its own list; nothing in
// this tool compares a file against them.
const std::unordered_map<std::string, std::string> MODELS_MD5SUM_MAP = {
    {"skeleton_performance_2.1", "c716ba34c49684feaaa459938b6913fb"},
    {"skeleton_medium_2.0", "7a1de89af8bf63bba9cc0efd1cb660c9"},
    {"skeleton_accurate_2.0", "c5ccaf62b9ac299e5bd9fc0c17756671"},
    {"skeleton_medium_2.1", "e36b62fcad2e2ba92c9ac10780d3cc37"},
    {"skeleton_performance_2.2", "6c4210936d4f11974458bbe4146292ff"},
    {"skeleton_medium_2.2", "f4e065f2be7d5577a59ebd6dc943c071"},
    {"skeleton_accurate_2.2", "158e7242d0303aa7c6aab5b1b2dcacce"},
    {"skeleton_accurate_2.5", "fa8dff12cb9614b7fa1954965bc09d6f"},
    {"skeleton_full_accurate_1.0", "772ecb186c9a36d0bfe4f27e49b9f811"},
    {"skeleton_full_medium_1.0", "610307e95d29ead079ea7bd4e2d11b35"},
    {"skeleton_animals_accurate_1.0", "fe4edf4175d3dd7587ec6102e6ae4d52"},
    {"skeleton_performance_3.0", "27e9990cc96d60e217ed5e3fd0b18736"},
    {"skeleton_body136_3.0", "cff8c84e6a320f73d5b765c7c07a1512"},
    {"skeleton_body68_3.0", "363737ffb1a3e33bf6e5ba9d2c0ba9f7"},
    {"skeleton_body34_3.0", "48cba431827a4d9884e11d4366ef6f48"},
    {"skeleton_body34_3.1", "5ae6a356c1f30eac899a6a13c38c9d6b"},
    {"skeleton_body68_3.1", "2993e43b8d955034c0a79e5b93c6545a"},
    {"skeleton_body38_3.2", "e5e1963af75ed1335e99cc547110b245"},
    {"skeleton_body70_3.2", "cbd4548966d9e69380bdc7dd3cd77e79"},
    {"skeleton_body18_3.2", "77c7978e0af2afae8c74d34729ccfb43"},
    {"skeleton_body38_3.3", "e3f6dcc1c883e9dd06c005aa0f8b3309"},
    {"skeleton_body70_3.3", "c32187826353ed1a0a7ad3f190e369b9"},
    {"skeleton_body38_3.4", "6648dc95a81f355fdb5dad6e5569110a"},
    {"skeleton_body38_3.5", "26b5ff926d5f8a83a5d97ace9e9b3b2b"},
    {"rtmpose-tiny_simcc-aic-coco_pt-aic-coco_420e-256x192-cfc8f33d_20230126",
     "9b45e736ae372e88061ebf07b9df2a55"},
    {"rtmpose-s_simcc-aic-coco_pt-aic-coco_420e-256x192-fcb2599b_20230126",
     "efe75fb37a4795986413061577e57578"},
    {"rtmpose-m_simcc-aic-coco_pt-aic-coco_420e-256x192-63eb25f7_20230126",
     "f853ff15c4cef7dfebeb4f3b8247a57a"},
    {"rtmpose-m_simcc-aic-coco_pt-aic-coco_420e-384x288-a62a0b32_20230228",
     "8bb7ea3ac1f5e17f0c8124faddd9192f"},
    {"rtmpose-l_simcc-aic-coco_pt-aic-coco_420e-256x192-f016ffe0_20230126",
     "469447722f97da0967f30053009387f2"},
    {"rtmpose-l_simcc-aic-coco_pt-aic-coco_420e-384x288-97d6cb0f_20230228",
     "1e78721dea4b0f21234b215684d86cba"},
    {"rtmpose-m_simcc-coco-wholebody_pt-aic-coco_270e-256x192-cd5e845c_20230123",
     "3f02e15889d0f99c42dfdf0a1c3b4bd8"},
    {"rtmpose-l_simcc-coco-wholebody_pt-aic-coco_270e-256x192-6f206314_20230124",
     "e7e6cc10e8dd373323854d9586481777"},
    {"rtmpose-l_simcc-coco-wholebody_pt-aic-coco_270e-384x288-eaeb96c8_20230125",
     "a9e6646b50e5c9fcd46f3e6b048a4553"},
    {"dw-ll_ucoco_384", "900c6052f7598b2fc65bff790a0bcc06"},
    {"rtmpose-l_simcc-ucoco_dw-ucoco_270e-256x192-4d6dfc62_20230728", "8c8df3e9a8737692fc114cd6105433ae"},
    {"rtmpose-l_simcc-ucoco_dw-ucoco_270e-384x288-2438fd99_20230728", "ddf033529a5f96cb7963a037119d271b"},
    {"rtmpose-m_simcc-ucoco_dw-ucoco_270e-256x192-c8b76419_20230728", "85ff36a9e15e46b37093f89253870a4e"},
    {"rtmpose-s_simcc-ucoco_dw-ucoco_270e-256x192-3fd922c8_20230728", "79e0981cb790a942e8ab6ec97101a1c9"},
    {"rtmpose-t_simcc-ucoco_dw-ucoco_270e-256x192-dcf277bf_20230728", "7d3e3d0884c6845fe3697685e6f06a32"},
    {"rtmpose-l_simcc-body7_pt-body7_420e-256x192-4dba18fc_20230504", "8c49694fcad6979da1cc2a669c1167e6"},
    {"rtmpose-l_simcc-body7_pt-body7_420e-384x288-3f5a1437_20230504", "3e4b41f1ffc04d0d24cbc46705df5f42"},
    {"rtmpose-m_simcc-body7_pt-body7_420e-256x192-e48f03d0_20230504", "329aeaaa6a1b741cde7957d76d1a4727"},
    {"rtmpose-m_simcc-body7_pt-body7_420e-384x288-65e718c4_20230504", "d4cb5c76321ad404ec7456282c5b259a"},
    {"rtmpose-s_simcc-body7_pt-body7_420e-256x192-acd4a1ef_20230504", "bde7b78e235f65b51858e1d5a00b9f96"},
    {"rtmpose-t_simcc-body7_pt-body7_420e-256x192-026a1439_20230504", "1b013d7ae387e7c8e92b0d99cfe300fb"},
    {"rtmpose-x_simcc-body7_pt-body7_700e-384x288-71d7b7e9_20230629", "9252fb423fb36e9b79e5609be5adff27"},
    {"yolov8n-pose", "564da53d2b3cd94a79de72346c32e45d"},
    {"yolov8s-pose", "35e8e2d30655438efa9dbe2606beba44"},
    {"yolov8l-pose", "6e6bfa24c72cde2de39a620778a74006"},
    {"yolov8x-pose", "6a8659ed56d3dbaf4373875a5b255b96"},
    {"person_reid_1.4", "cdabf5fcd59b796ce6a13eafc81d30a4"},
    {"person_head_2.2", "7ce65d985e5ff2c07a0c33777097b8be"},
    {"objects_performance_2.1", "f1741fc963d68c45a2b58d5d79bf46e0"},
    {"objects_medium_2.1", "c8262e1488e8a48e8ddeba0cc23b3d5c"},
    {"objects_accurate_2.1", "c8d7c967fab1443748f605a2e116edf0"},
    {"person_head_2.3", "ef139f34fcf34b113a45940b53ea76c6"},
    {"person_head_performance_2.4", "eb8564cca178cb8f8cf20814e0f14452"},
    {"person_head_accurate_2.4", "3c4bbdaae2ad4e4f76707b19a5e42765"},
    {"objects_performance_2.2", "a37e1dcc815170baf6d57417e68dda8a"},
    {"objects_medium_2.2", "a877c23d49566d6da2b505e5cc057af7"},
    {"objects_accurate_2.2", "eabb7aecdc9704f2de886e99c1dba01e"},
    {"yolov8l", "d992b850c204bbc1dc4c8b298f8951fb"},
    {"yolov8m", "6a212df85b1e4736d771ebd9221745aa"},
    {"yolov8n", "f50648d6345c90f6ae3be4050fe33c15"},
    {"yolov8s", "8405e12dc7c4d14deec8124394bc5081"},
    {"yolov8x", "547659dbdff6ceb25309643fd4bf5ab7"},
    {"yolov8l-wholebody-l1_wip", "e966fd984c2ed32177bfc13dacb51c30"},
    {"yolov8x-wholebody_wip2", "9be5005240c67eaf297cce3be48a3331"},
    {"yolov8l-wholebody_wip2", "463c6ee6556dcd657437ad5b91a08b7f"},
    {"yolov8s-wholebody_wip2", "a4521a002ddc42d9aa18c208c695ec2c"},
    {"yolov6n", "6cb058ef2f6c55430f454b3fbcfeb70e"},
    {"yolov5s", "e25442135af44dfeb2117a8537866600"},
    {"objects_accurate_3.0", "4530d13046694542c7a163b46a95e290"},
    {"objects_medium_3.0", "886b9573e148ab7a9f13a1d7b2c4239e"},
    {"objects_performance_3.0", "a3fda4beaea112e8b2e43cc1fd0d2341"},
    {"objects_medium_3.1", "8abc9d2fd0309db2554aac8e3eb9241c"},
    {"objects_performance_3.2", "f779ef74db8ccb6452e80a2485feea9b"},
    {"objects_medium_3.2", "b2f6e5c28f0082b63e529e508953d032"},
    {"objects_accurate_3.2", "f897ac888cb00f0e0f1c7e659d692715"},
    {"neural_1.4_1920x320", "018f4ed6097aac73db88541de565f129"},
    {"neural_1.4_1920x576", "e08e1a40a622ebad18d1edf9f4e479f5"},
    {"neural_1.4_1920x320_refiner_native", "0c93b193622bbe05055b24841843c7c4"},
    {"neural_1.4_1920x576_refiner_native", "111ae124e1dff9236191b69594fb3f73"},
    {"neural_1.4_896x512_refiner_native", "2cbbdcfe93d3dc0bfa489757e710ca2d"},
    {"neural_1.4_1280x704", "7c55087ae62a83f2c086b6332019de1a"},
    {"neural_1.4_1280x704_refiner_native", "a066ba7fc975f81e90b2ad3d3f4d949c"},
    {"neural_1.4_1920x1024", "2bd609a8a931e2b88ea92c5a082e119a"},
    {"neural_1.4_1920x1024_refiner_native", "bc2b7df90c10ab92ebe4b7e8ad5146c2"},
    {"neural_depth_1.8", "f1ef478c85297bf53f9f622ed09a4284"},
    {"neural_depth_1.9", "a55ae78898c2674f0e2824da2b51d412"},
    {"neural_depth_2.0", "12a424d71c21032b23376bfdb0e5afc7"},
    {"neural_depth_fast_1.0", "1dec51746b7dc05caa0d2112162c0faf"},
    {"neural_fast_slicerv1", "bc6a172a4397fec52a9c1bffc015968d"},
    {"neural_depth_fast_1.2", "a1ac08bbf75b88b1c30c785dbc5c9709"},
    {"neural_standard_harder_augm_hvt_slicerv1", "7feec8bb1254869612e3c923f8cfc16c"},
    {"neural_standard_harder_augm_hvt_slicerv2", "9c9721d6e1ab80c19dcfad7535b76b25"},
    {"neural_pos_encoder", "0602a937c1efe08f33b72ea9baa61777"},
    {"neural_depth_fast_3.0", "922037941a66b7f423e406ac127ee91a"},
    {"neural_depth_standard_3.0", "a58f0649e9c70f6e86ce5bdc908604aa"},
    {"neural_depth_accurate_3.0", "29713e1abcbda96db98de8671c9777b6"},
    {"neural_depth_3.2", "9fccc6f12a0c2ca0059f30d8e54221fa"},
    {"neural_depth_3.3", "cd07040b194955682cb1e1a84057e2ec"},
    {"neural_depth_3.4", "a8bc4a608a7c24fdc1528172cacf6cd6"},
    {"neural_depth_3.5", "2f22c3261526f5947ff923c053e25b4b"},
    {"neural_depth_3.6", "1694046fe6f84c09ff78b1abb820f476"},
    {"neural_depth_standard_3.1", "b130f537ead497ac82acbe3f631b6b41"},
    {"neural_standard_lr_raft_new_hourglass2", "bf070a5da397db43411392f72241c8c5"},
    {"neural_depth_fast_2.0_rand", "bd5befbb354d169d1d02d3eee7b64c0f"},
    {"bgnet_low_res_baseline_normal_camnoise_feat_resnet18_simplerecon_torchresnet_fixed2",
     "543c1bb30b6aef8c307ef847d7f77175"},
    {"neural_baseline_low_res", "83de3feb62c4e0ef17ed91155eb17ac6"},
    {"neural_camnoise_normal_lowres", "85ee8e4eba63a765d0f1e8061d083edc"},
    {"neural_camnoise_normal_highres", "cd742e5cf0f34c5a352c83a0484e07b6"},
    {"neural_matchability_refiner_input", "9995de84e176d01d3106d9c0e183a7ef"},
    {"neural_matchability_and_confidence_in_refiner", "1ce78fc6623f8007479c0f2ddf3829a8"},
    {"conf_finetune_LR_1e-5", "ff02b7436a6cfe4b04dcfbcc57faf566"},
    {"HVT_cycle_finetune", "6920fa5b5c8794a40f043e5a9d26cb09"},
    {"neural_confidence_near_range", "5a08c9b0dbc149a524545dc1e20fcfc6"},
};

const std::string AI_MODEL_EXTENSION = ".model";
const std::string TIMING_CACHE_SUFFIX = "_timing_cache";
const std::string INT8_CALIB_CACHE_SUFFIX = "_calibration_cache";
const std::string INT8_CALIB_DATASET_NAME = ".calibration_set";
const std::string INT8_STEREO_CALIB_DATASET_NAME = ".calibration_set_stereo";
const std::string CALIBRATION_SET_URL = "calibration_set_1_0";
const std::string CALIBRATION_SET_STEREO_URL = "calibration_set_stereo_1_0";
const std::string OPTIM_STRING_OPTIMIZED_SUFFIX_OD = "0";
const std::string OPTIM_STRING_OPTIMIZED_SUFFIX_NEURAL = "-0e53";
const std::string OPTIM_STRING_OPTIMIZED_SUFFIX_SK = "-2";

const std::string MODEL_OBJECT_NAME_FAST = "objects_performance_3.2";
const std::string MODEL_OBJECT_NAME = MODEL_OBJECT_NAME_FAST;
const std::string MODEL_OBJECT_NAME_MEDIUM = "objects_medium_3.2";
const std::string MODEL_OBJECT_NAME_ACCURATE = "objects_accurate_3.2";
const std::string MODEL_SKELETON_BODY18_NAME_FAST = "skeleton_body18_3.2";
const std::string MODEL_SKELETON_BODY18_NAME_MEDIUM = "skeleton_body18_3.2";
const std::string MODEL_SKELETON_BODY18_NAME_ACCURATE = "skeleton_body18_3.2";
const std::string MODEL_SKELETON_BODY31_NAME = "skeleton_body38_3.5";
const std::string MODEL_SKELETON_BODY65_NAME = "skeleton_body70_3.3";
const std::string MODEL_OBJECT_NAME_CROWD = "person_head_performance_2.4";
const std::string MODEL_OBJECT_NAME_CROWD_ACCURATE = "person_head_accurate_2.4";
const std::string PERSON_REID_MODEL_NAME = "person_reid_1.4";
const std::string MODEL_NEURAL_NAME = "neural_depth_3.6";
const std::string MODEL_NEURAL_ACCURATE_NAME = "neural_depth_3.6";
const std::string MODEL_NEURAL_V1_NAME = "neural_depth_2.0";
const std::string MODEL_NEURAL_SDK_38_NAME = "neural_depth_1.8";
const std::string MODEL_NEURAL_SDK_40_NAME = "neural_depth_2.0";
const std::string MODEL_NEURAL_FAST_NAME = "neural_depth_fast_3.0";

const std::unordered_map<std::string, int32_t> jetson_model_optim_timing = {
    {MODEL_SKELETON_BODY31_NAME, 210}, {MODEL_SKELETON_BODY65_NAME, 215},
    {MODEL_NEURAL_NAME, 800},          {MODEL_OBJECT_NAME_ACCURATE, 140},
    {MODEL_OBJECT_NAME_MEDIUM, 120},   {MODEL_OBJECT_NAME_FAST, 300},
    {MODEL_OBJECT_NAME_CROWD, 80},     {MODEL_OBJECT_NAME_CROWD_ACCURATE, 120},
    {PERSON_REID_MODEL_NAME, 220},     {"unknown", 350}};
const std::unordered_map<std::string, int32_t> linux_model_optim_timing_fp16 = {
    {MODEL_SKELETON_BODY31_NAME, 130}, {MODEL_SKELETON_BODY65_NAME, 130},
    {MODEL_NEURAL_NAME, 700},          {MODEL_OBJECT_NAME_ACCURATE, 320},
    {MODEL_OBJECT_NAME_MEDIUM, 200},   {MODEL_OBJECT_NAME_FAST, 130},
    {MODEL_OBJECT_NAME_CROWD, 150},    {MODEL_OBJECT_NAME_CROWD_ACCURATE, 150},
    {PERSON_REID_MODEL_NAME, 140},     {"unknown", 350}};
const std::unordered_map<std::string, int32_t> linux_model_optim_timing_fp32 = {
    {MODEL_SKELETON_BODY31_NAME, 80}, {MODEL_SKELETON_BODY65_NAME, 80},
    {MODEL_NEURAL_NAME, 250},         {MODEL_OBJECT_NAME_ACCURATE, 250},
    {MODEL_OBJECT_NAME_MEDIUM, 230},  {MODEL_OBJECT_NAME_FAST, 220},
    {MODEL_OBJECT_NAME_CROWD, 130},   {MODEL_OBJECT_NAME_CROWD_ACCURATE, 200},
    {PERSON_REID_MODEL_NAME, 80},     {"unknown", 250}};
const std::unordered_map<std::string, int32_t> win_model_optim_timing_fp16 = {
    {MODEL_SKELETON_BODY31_NAME, 370}, {MODEL_SKELETON_BODY65_NAME, 400},
    {MODEL_NEURAL_NAME, 2000},         {MODEL_OBJECT_NAME_ACCURATE, 1900},
    {MODEL_OBJECT_NAME_MEDIUM, 1800},  {MODEL_OBJECT_NAME_FAST, 1700},
    {MODEL_OBJECT_NAME_CROWD, 1700},   {MODEL_OBJECT_NAME_CROWD_ACCURATE, 1700},
    {PERSON_REID_MODEL_NAME, 310},     {"unknown", 2000}};
const std::unordered_map<std::string, int32_t> win_model_optim_timing_fp32 = {
    {MODEL_SKELETON_BODY31_NAME, 140}, {MODEL_SKELETON_BODY65_NAME, 150},
    {MODEL_NEURAL_NAME, 600},          {MODEL_OBJECT_NAME_ACCURATE, 1900},
    {MODEL_OBJECT_NAME_MEDIUM, 1800},  {MODEL_OBJECT_NAME_FAST, 1800},
    {MODEL_OBJECT_NAME_CROWD, 1700},   {MODEL_OBJECT_NAME_CROWD_ACCURATE, 1700},
    {PERSON_REID_MODEL_NAME, 130},     {"unknown", 1900}};

namespace {

// One row per bh::AI_MODELS value, in order. Detection models have a fixed
// height only (width 0); the re-identification model has no fixed input.
const ModelEntry* modelEntry(int model) {
    static const ModelEntry entries[AI_MODELS_COUNT] = {
        {"MULTI CLASS DETECTION", &MODEL_OBJECT_NAME, 0, 512},
        {"MULTI CLASS MEDIUM DETECTION", &MODEL_OBJECT_NAME_MEDIUM, 0, 416},
        {"MULTI CLASS ACCURATE DETECTION", &MODEL_OBJECT_NAME_ACCURATE, 0, 512},
        {"HUMAN BODY FAST DETECTION", &MODEL_SKELETON_BODY18_NAME_FAST, 256, 160},
        {"HUMAN BODY MEDIUM DETECTION", &MODEL_SKELETON_BODY18_NAME_MEDIUM, 384, 224},
        {"HUMAN BODY ACCURATE DETECTION", &MODEL_SKELETON_BODY18_NAME_ACCURATE, 608, 352},
        {"HUMAN BODY 38 FAST DETECTION", &MODEL_SKELETON_BODY31_NAME, 320, 192},
        {"HUMAN BODY 38 MEDIUM DETECTION", &MODEL_SKELETON_BODY31_NAME, 512, 320},
        {"HUMAN BODY 38 ACCURATE DETECTION", &MODEL_SKELETON_BODY31_NAME, 640, 448},
        {"PERSON HEAD DETECTION", &MODEL_OBJECT_NAME_CROWD, 0, 832},
        {"PERSON HEAD ACCURATE DETECTION", &MODEL_OBJECT_NAME_CROWD_ACCURATE, 0, 960},
        {"REID ASSOCIATION", &PERSON_REID_MODEL_NAME, 0, 0},
        {"NEURAL DEPTH", &MODEL_NEURAL_NAME, 896, 512},
        {"NEURAL PLUS DEPTH", &MODEL_NEURAL_ACCURATE_NAME, 1920, 1024},
    };
    if (model < 0 || model >= AI_MODELS_COUNT)
        return nullptr;
    return &entries[model];
}

}  // namespace

const char* modelDisplayText(int model) {
    const ModelEntry* e = modelEntry(model);
    return e ? e->text : "Unknown";
}

std::string getModelBaseName(int model) {
    const ModelEntry* e = modelEntry(model);
    return e ? *e->baseName : std::string();
}

bool getModelInputSize(int model, int& width, int& height) {
    const ModelEntry* e = modelEntry(model);
    if (!e)
        return false;
    width = e->width;
    height = e->height;
    return true;
}

}  // namespace ai
