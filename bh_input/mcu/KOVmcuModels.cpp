#include "bh_input/mcu/KOVmcuModels.h"

#include <array>

namespace bh {

namespace {

constexpr uint16_t kPico = 0xF681;
constexpr uint16_t kTera = 0xF781;
constexpr uint16_t kTeraR = 0xF881;
constexpr uint16_t kGmsl = 0xA081;

// Indexed by model - 1.
constexpr std::array<uint16_t, 31> kProductIds = {
    kPico, kTera, kTeraR, kGmsl, kGmsl, 0, 0, 0, 0, 0, 0, 0, 0, 0,     0,     0,
    0,     0,     0,      0,     0,     0, 0, 0, 0, 0, 0, 0, 0, kGmsl, kGmsl,
};

}  // namespace

uint16_t mcuProductId(MODEL model) {
    if (model < 1 || model > static_cast<int>(kProductIds.size())) {
        return 0;
    }
    return kProductIds[static_cast<size_t>(model - 1)];
}

MCUModelInfo mcuModelInfo(MODEL model) {
    MCUModelInfo info;
    info.product_id = mcuProductId(model);
    switch (model) {
        case KOV_P:
            info.device = BH_DEVICE_KOV_P_MCU;
            info.default_imu_position = Eigen::Vector3f(15.238f, 1.706f, -2.0f);
            break;
        case KOVT:
            info.device = BH_DEVICE_KOVT_MCU;
            info.default_imu_position = Eigen::Vector3f(23.061f, -0.217f, -2.0f);
            break;
        case KOVTr:
            info.device = BH_DEVICE_KOVTr_MCU;
            info.default_imu_position = Eigen::Vector3f(23.061f, -0.217f, -2.0f);
            break;
        case KOV_Q:
        case KOV_QP:
        case KOV_QS_A:
        case KOV_QS_B:
            info.reader = IMU_READER_KIND::GMSL;
            info.accel_lsb = 0.0003662109375f;
            info.device = BH_DEVICE_GMSL_IMU;
            if (model == KOV_Q) {
                info.default_imu_position = Eigen::Vector3f(35.649f, 0.147f, 0.f);
            } else if (model == KOV_QP) {
                info.default_imu_position = Eigen::Vector3f(34.502f, 4.356f, 0.f);
            }
            break;
        default:
            break;
    }
    return info;
}

}  // namespace bh
