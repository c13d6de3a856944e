// The list of usable cameras: every USB camera is opened for a moment to read
// its serial number; sensors MCUs without their video device come back as
// ghost records; GMSL cameras come from their discovery.
#include <chrono>
#include <mutex>

#include "bh_input/grabber/DeviceList.h"
#include "bh_input/grabber/FileLocker.h"
#include "bh_input/grabber/gmsl/ArgusCamera.h"
#include "bh_input/grabber/linux/USBWrapperGrabber.h"
#include "platform/Platform.h"
#include "utils/SysPath.h"

namespace bh {

namespace {

std::mutex cam_list_guardian;
std::mutex g_gmslListerMutex;
std::function<std::vector<DeviceProperties>(bool)> g_gmslCameraLister;

constexpr int kSetUpTries = 6;

DeviceProperties probeUsbCamera(int index) {
    DeviceProperties record;
    record.camera_state = DEVICE_NOT_AVAILABLE;
    record.id = index;
    record.camera_model = KOV_MODEL_UNKNOWN;
    record.serial_number = 0;
    record.input_type = USB_INPUT;

    USBWrapperGrabber session;
    const Resolution hd720 = cameraResolution[HD720];
    int id = index;
    int result = -1;
    for (int attempt = 0; attempt < kSetUpTries && result != 0; ++attempt) {
        result = session.setUp(id, static_cast<int>(2 * hd720.width), static_cast<int>(hd720.height), 15, 2,
                               true, IMU_ODR_400, false);
        if (result != 0) {
            session.close(true);
            platform::clock().sleepFor(std::chrono::milliseconds(10));
        }
    }
    int node = -1;
    findDevicePath_linux(node, index);
    record.path.set(("/dev/video" + std::to_string(node)).c_str());
    record.camera_model = session.getCameraModel();
    if (result == 0) {
        session.setOutputBufferPtr(nullptr);
        session.endSetup(nullptr);
        record.camera_state = DEVICE_AVAILABLE;
        record.serial_number = session.getSerialNumber();
    }
    session.close(true);
    return record;
}

// One record for each MCU of a model beyond the cameras of that model in the
// list: a camera whose video node another program holds has dropped out of
// the list, but its MCU is still on the bus.
void appendGhosts(const std::vector<std::pair<BH_DEVICE, std::string>>& usb,
                  std::vector<DeviceProperties>& list) {
    struct Pairing {
        BH_DEVICE mcu;
        MODEL model;
    };
    const Pairing pairings[] = {
        {BH_DEVICE_KOV_P_MCU, KOV_P},
        {BH_DEVICE_KOVT_MCU, KOVT},
        {BH_DEVICE_KOVTr_MCU, KOVTr},
    };
    for (const Pairing& p : pairings) {
        int cameras = 0;
        for (const DeviceProperties& record : list)
            cameras += record.input_type == USB_INPUT && record.camera_model == p.model;
        for (int extra = countOccur(usb, p.mcu) - cameras; extra > 0; --extra) {
            DeviceProperties ghost;
            ghost.camera_state = DEVICE_NOT_AVAILABLE;
            ghost.id = -1;
            ghost.camera_model = p.model;
            ghost.serial_number = 0;
            ghost.input_type = USB_INPUT;
            list.push_back(ghost);
        }
    }
}

}  // namespace

void setGMSLCameraLister(std::function<std::vector<DeviceProperties>(bool)> lister) {
    std::lock_guard<std::mutex> lock(g_gmslListerMutex);
    g_gmslCameraLister = std::move(lister);
}

std::vector<DeviceProperties> getGrabberList(bool gmslArgument) {
    std::lock_guard<std::mutex> guard(cam_list_guardian);
    std::vector<DeviceProperties> list;

    // Between processes: a timeout does not stop the walk, it goes on unlocked.
    FileLocker locker(utils::sysPath("/tmp/.kov_enum_lock"), false);
    locker.lock();
    const std::vector<std::pair<BH_DEVICE, std::string>> usb = getUSBDevice();
    int videoIndex = 0;
    for (const auto& entry : usb) {
        if (entry.first > 11)
            continue;
        DeviceProperties record = probeUsbCamera(videoIndex++);
        // A camera held elsewhere has no serial number and drops out here;
        // its MCU brings it back as a ghost below.
        if (record.serial_number != 0)
            list.push_back(record);
    }
    appendGhosts(usb, list);
    locker.unlock();

    std::function<std::vector<DeviceProperties>(bool)> gmsl;
    {
        std::lock_guard<std::mutex> lock(g_gmslListerMutex);
        gmsl = g_gmslCameraLister;
    }
    // The argument is the discovery's verbose flag: every caller passes false
    // for its second flag.
    const std::vector<DeviceProperties> cameras =
        gmsl ? gmsl(gmslArgument) : ArgusCamera::getGMSLDevices(gmslArgument, false);
    for (DeviceProperties record : cameras) {
        record.input_type = GMSL_INPUT;
        list.push_back(record);
    }
    return list;
}

}  // namespace bh
