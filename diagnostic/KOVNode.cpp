#include "diagnostic/KOVNode.h"

#include <utility>
#include <vector>

#include "bh_input/grabber/DeviceList.h"
#include "bh_input/mcu/KOVmcu.h"
#include "diagnostic/DiagnosticRunner.h"
#include "platform/Clock.h"
#include "support/SiteConfig.h"

namespace {

// Vendor id of the camera maker, given to the sensors MCU engine.
constexpr uint16_t kCameraVendorId = 0x2B03;
// Firmware versions below this one are outdated.
constexpr int kCurrentCameraFirmware = 1523;
// Reads of the list while a camera may still be closing.
constexpr int kClosingCameraReads = 20;

const char* const kNoCameraText =
    "<b>Camera not detected</b> <br/> Make sure the camera is plugged in or try another USB 3.0 port.";
const char* const kFlipCableText =
    "<b>Camera not detected</b><br/> Flip the Type-C USB cable connected to the KOV or replug the camera. "
    "Make "
    "sure to use a USB 3.0 port.";
const char* const kMultipleCamerasText =
    "<b>Multiple cameras have been detected</b> <br/> Please connect one device at a time when running this "
    "diagnostic.";
const char* const kCameraInUseText =
    "<b>Camera already in use</b> <br/> Several program cannot use the KOV at the same time, make sure to "
    "close "
    "them.";
const char* const kSdkIssueText =
    "There seem to be an issue with your KOV SDK installation. Please reinstall the latest version of the "
    "KOV "
    "SDK. <a href='{WEB_SITE}/developers/' style='color: #d9ff42;' >Download</a>";

bool hasError(DiagnosticNode& node) {
    return !node.getSpecificMessageList(DIAGNOSTIC_ERROR).empty();
}

// The engine model and the display name of a sensors MCU device; false for
// any other device.
bool mcuModelOfDevice(bh::BH_DEVICE device, bh::MODEL& model, const char*& name) {
    switch (device) {
        case bh::BH_DEVICE_KOV_P_MCU:
            model = bh::KOV_P, name = "KOV Pico (MCU)";
            return true;
        case bh::BH_DEVICE_KOVTr_MCU:
            model = bh::KOVTr, name = "KOV Tera R (MCU)";
            return true;
        case bh::BH_DEVICE_KOVT_MCU:
            model = bh::KOVT, name = "KOV Tera (MCU)";
            return true;
        default:
            return false;
    }
}

}  // namespace

KOVNode::KOVNode() : DiagnosticNode("Camera Test") {}

void KOVNode::pause(std::chrono::milliseconds duration) {
    platform::clock().sleepFor(duration);
}

void KOVNode::setProgress(float value, bool thenPause) {
    setPercent(value);
    if (thenPause)
        pause(stepPause);
}

void KOVNode::runDiagnostic(QJsonObject& root) {
    tearing_seen = no_video_node = camera_busy = sdk_issue = multiple_cameras = false;
    serial = -1;
    model_name.clear();
    setProgress(10);

    checkUSB_ID(root);
    const bool canOpen = !no_video_node && !multiple_cameras && !hasError(*this);
    if (canOpen) {
        setProgress(10);
        root.insert("camera", findKOVDevice());
        setProgress(20);
        root.insert("sensors", findMCUDevice());
        if (!sdk_issue && !hasError(*this)) {
            if (camera_busy) {
                addMessage(root, DIAGNOSTIC_ERROR, kCameraInUseText);
            } else {
                setProgress(30);
                CheckGrabbingStatus(root, 30, 90);
                setProgress(90);
            }
        }
    }
    setProgress(100);
}

bool KOVNode::waitForClosingCamera() {
    for (int read = 0; read < kClosingCameraReads; ++read) {
        pause(closingCameraPause);
        const std::vector<DeviceProperties> again = bh::getGrabberList(false);
        // An empty list says nothing about the camera: keep waiting.
        if (!again.empty() && again[0].camera_state != bh::DEVICE_NOT_AVAILABLE) {
            input_type = again[0].input_type;
            return true;
        }
    }
    return false;
}

void KOVNode::checkUSB_ID(QJsonObject& root) {
    const auto devices = bh::getUSBDevice();
    root.insert("InternalDevicesCount", static_cast<int>(devices.size()));
    const std::vector<DeviceProperties> cameras = bh::getGrabberList(false);
    const int count = static_cast<int>(cameras.size());

    if (count == 0) {
        addMessage(root, DIAGNOSTIC_ERROR, kNoCameraText);
        camera_test_reported_that_USB_should_not_be_tested = true;
        root.insert("KOVCount", count);
        return;
    }
    if (count == 1) {
        const bh::DEVICE_STATE state = cameras[0].camera_state;
        if (bh::getGrabberState(0) == bh::DEVICE_MISSING) {
            no_video_node = true;
        } else if (state != bh::DEVICE_NOT_AVAILABLE) {
            input_type = cameras[0].input_type;
        } else if (!waitForClosingCamera()) {
            camera_busy = true;
        }
    }
    if (count > 1) {
        multiple_cameras = true;
        addMessage(root, DIAGNOSTIC_WARNING, kMultipleCamerasText);
        camera_test_thrown_multiple_camera_error = true;
    } else if (no_video_node) {
        addMessage(root, DIAGNOSTIC_ERROR, kFlipCableText);
        camera_test_reported_that_USB_should_not_be_tested = true;
    }
    root.insert("KOVCount", count);
}

void KOVNode::setCameraModelName(bh::MODEL model) {
    if (!model_name.empty())
        return;
    switch (model) {
        case bh::KOV:
            model_name = "KOV";
            break;
        case bh::KOV_P:
            model_name = "KOV Pico";
            break;
        case bh::KOVT:
            model_name = "KOV Tera";
            break;
        case bh::KOVTr:
            model_name = "KOV Tera R";
            break;
        case bh::KOV_Q:
            model_name = "KOV-Q";
            break;
        case bh::KOV_QP:
            model_name = "KOV-QP";
            break;
        default:
            // The single-sensor models and an unknown one have no name here.
            break;
    }
}

void KOVNode::reportFirmware(QJsonObject& camera) {
    camera.insert("Firmware", firmware);
    if (firmware < kCurrentCameraFirmware && firmware != -1) {
        addMessage(
            camera, DIAGNOSTIC_WARNING,
            "<b>Firmware outdated</b> (" + std::to_string(firmware) +
                ") <br/> Please update the internal firmware from the <b>setting panel</b> of the <b>KOV "
                "Scout</b> tool.");
        camera_test_thrown_firmware_error = true;
    } else {
        addMessage(camera, DIAGNOSTIC_VALID, "<b>Firmware: </b>" + std::to_string(firmware));
    }
}

QJsonObject KOVNode::findKOVDevice() {
    QJsonObject camera;
    grabber = std::make_unique<bh::LiveCameraGrabber>(bh::NO_INPUT);
    grabber->setInputType(input_type);
    int id = 0;
    // Negative sizes and rate: the grabber's defaults.
    const int code = grabber->setUp(id, -1, -1, -1, 4, false, IMU_ODR_400, false);
    if (code == 1) {
        sdk_issue = true;
        addMessage(camera, DIAGNOSTIC_ERROR, site::expand(kSdkIssueText));
    } else if (code == 2) {
        addMessage(camera, DIAGNOSTIC_ERROR, kFlipCableText);
        camera_test_reported_that_USB_should_not_be_tested = true;
    } else if (code == 0) {
        grabber->endSetup(nullptr);
        setCameraModelName(grabber->getCameraModel());
        firmware = grabber->getFWVersion();
        serial = static_cast<int32_t>(grabber->getSerialNumber());
        addMessage(camera, DIAGNOSTIC_VALID, "<b>Camera: </b>" + model_name);
        reportFirmware(camera);
        camera.insert("Serial Number", serial);
        camera.insert("Model", QString::fromStdString(model_name));
    }
    camera.insert("Init Output", bh::setupCodeText(code));
    camera.insert("Device ID", id);
    grabber.reset();
    return camera;
}

QJsonObject KOVNode::findMCUDevice() {
    QJsonObject sensors;
    bh::MODEL model = bh::KOV_MODEL_UNKNOWN;
    const char* name = nullptr;
    bool found = false;
    for (const auto& device : bh::getUSBDevice()) {
        if (mcuModelOfDevice(device.first, model, name)) {
            found = true;
            break;
        }
    }
    if (!found)
        return sensors;

    auto mcu = std::make_unique<bh::KOVmcu>(false, kCameraVendorId, model, false, std::string());
    const MCU_STATUS result = mcu->open(0, false, IMU_ODR_400, nullptr, nullptr, true, false);
    // Read whether or not the open worked.
    const int mcuFirmware = mcu->getMCUFirmwareVersion();
    const int mcuSerial = mcu->getMCUSerialNumber();
    sensors.insert("Init Output", mcuStatusText(result));
    sensors.insert("Firmware", mcuFirmware);
    sensors.insert("Serial Number", mcuSerial);
    sensors.insert("Model", name);
    mcu->close();
    return sensors;
}
