#include "diagnostic/RecoverMcuSerialNode.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bh_input/grabber/linux/USBWrapperGrabber.h"
#include "bh_input/mcu/KOVmcu.h"
#include "platform/Clock.h"
#include "support/SiteConfig.h"

namespace {

constexpr uint16_t kMcuVendorId = 0x2B03;
constexpr int kOpenTries = 10;
// The camera's serial number holds the model in its ten-millions digit.
constexpr int64_t kModelDigit = 10000000;
// Firmware whose bias record is left as it is after a serial write.
constexpr int kFirmwareKeepingBias = 515;

const char* const kCameraNotFound =
    "<b>Camera not found.</b><br/> Please connect the camera to be recovered.";
const char* const kMcuNotFound =
    "<b>MCU not found.</b><br/> You connected a KOV camera which is not provided with MCU and inertial "
    "sensors.";
const char* const kCameraFwNotValid =
    "<b>Camera FW not valid.</b><br/> Please contact Brennhaven support writing an email to {SUPPORT_MAIL}  "
    "to get assistance.";
const char* const kMcuFwNotValid =
    "<b>MCU FW not valid.</b><br/> Please contact Brennhaven support writing an email to {SUPPORT_MAIL}  to "
    "get assistance.";
const char* const kMcuNotOpened =
    "<b>MCU not opened.</b><br/> Please contact Brennhaven support writing an email to {SUPPORT_MAIL}  to "
    "get assistance. <br/>Error code: ";
const char* const kRecoveryNotRequired =
    "<b>MCU FW recovery not required.</b><br/> The connected camera correctly replyed to check up tests.";
const char* const kRecoverFailed =
    "<b>MCU FW Recover failed.</b><br/> Please contact Brennhaven support writing an email to {SUPPORT_MAIL} "
    " "
    "to get assistance.";
const char* const kVerificationFailed =
    "<b>MCU FW verification failed.</b><br/> Please contact Brennhaven support writing an email to "
    "{SUPPORT_MAIL}  to get assistance.";

bool isUsableOpenResult(int result) {
    // 7 is the invalid serial number: exactly what this node repairs.
    return result == static_cast<int>(MCU_STATUS::SUCCESS) ||
           result == static_cast<int>(MCU_STATUS::INVALID_SERIAL);
}

bool holdsSerial(bh::KOVmcu& mcu, unsigned int serial) {
    return static_cast<int64_t>(mcu.getMCUSerialNumber()) == static_cast<int64_t>(serial);
}

}  // namespace

RecoverMcuSerialNode::RecoverMcuSerialNode() : DiagnosticNode("Recover MCU Serial Number") {}

void RecoverMcuSerialNode::pause(std::chrono::milliseconds length) {
    if (length.count() > 0)
        platform::clock().sleepFor(length);
}

void RecoverMcuSerialNode::step(float value) {
    setPercent(value);
    pause(stepPause);
}

void RecoverMcuSerialNode::runDiagnostic(QJsonObject& result) {
    step(0);
    // The camera alone: the session's own MCU stays closed, this node opens
    // the MCU itself.
    auto camera = std::make_unique<bh::USBWrapperGrabber>();
    bh::MODEL model = bh::KOV_MODEL_UNKNOWN;
    unsigned int serial = 0;
    if (const char* failure = checkCamera(*camera, model, serial)) {
        camera->close(true);
        addMessage(result, DIAGNOSTIC_ERROR, site::expand(failure));
    } else {
        step(50);
        recoverMCU(result, model, serial);
    }
    step(100);
    camera.reset();  // closes the camera
}

const char* RecoverMcuSerialNode::checkCamera(bh::USBWrapperGrabber& camera, bh::MODEL& model,
                                              unsigned int& serial) {
    int id = 0;
    if (camera.setUp(id, 1344, 376, 15, 2, true, IMU_ODR_400, false) != 0)
        return kCameraNotFound;
    step(15);
    model = camera.getCameraModel();
    if (model == bh::KOV)
        return kMcuNotFound;
    step(30);
    serial = camera.getSerialNumber();
    if (serial == 0)
        return kCameraFwNotValid;
    return nullptr;
}

bool RecoverMcuSerialNode::recoverMCU(QJsonObject& result, bh::MODEL model, unsigned int serial) {
    if (model != bh::KOV_P && model != bh::KOVT && model != bh::KOVTr) {
        addMessage(result, DIAGNOSTIC_ERROR, site::expand(kMcuFwNotValid));
        return false;
    }

    step(60);
    bh::KOVmcu mcu(false, kMcuVendorId, model, false, "");
    int opened = -1;
    for (int attempt = 0; attempt < kOpenTries; ++attempt) {
        setPercent(static_cast<float>(61 + attempt));
        // Serial 0 takes the first MCU of the model; no EEPROM read, no reboot
        // of a lost MCU, and a lost serial number is accepted (force).
        opened = static_cast<int>(mcu.open(0, true, IMU_ODR_400, nullptr, nullptr, false, true));
        pause(stepPause);
        pause(retryPause);
        if (isUsableOpenResult(opened))
            break;
    }
    if (!isUsableOpenResult(opened)) {
        addMessage(result, DIAGNOSTIC_ERROR, site::expand(kMcuNotOpened) + std::to_string(opened));
        mcu.close();
        return false;
    }

    step(70);
    if (holdsSerial(mcu, serial)) {
        addMessage(result, DIAGNOSTIC_INFO, kRecoveryNotRequired);
        mcu.close();
        return false;
    }

    step(75);
    const int body =
        static_cast<int>(static_cast<int64_t>(serial) - static_cast<int64_t>(model) * kModelDigit);
    if (mcu.writeSNinEEprom(static_cast<int>(model), body) != MCU_STATUS::SUCCESS) {
        addMessage(result, DIAGNOSTIC_ERROR, site::expand(kRecoverFailed));
        mcu.close();
        return true;
    }

    step(80);
    if (mcu.getMCUFirmwareVersion() != kFirmwareKeepingBias) {
        std::vector<float> zeroBias(6, 0.f);
        mcu.writeBiasinEEprom(zeroBias, false);
    }

    step(90);
    if (!holdsSerial(mcu, serial)) {
        addMessage(result, DIAGNOSTIC_ERROR, site::expand(kVerificationFailed));
        mcu.close();
        return false;
    }
    mcu.close();
    return true;
}
