// Discovery of GMSL cameras: the identification EEPROM of each camera on the
// Jetson's I2C buses, joined with the sensors that Argus lists.
#include <chrono>
#include <cstdio>
#include <mutex>
#include <sstream>
#include <thread>

#include <zmq.hpp>

#include "bh_input/grabber/FileLocker.h"
#include "bh_input/grabber/gmsl/ArgusCamera.h"
#include "bh_input/grabber/gmsl/ArgusProvider.h"
#include "bh_input/grabber/gmsl/I2CHandler.h"
#include "platform/Clock.h"
#include "platform/Platform.h"
#include "support/KLogger.h"

using platform::argus_types::CameraDevice;
using platform::argus_types::CaptureSession;
using platform::argus_types::Status;

namespace bh {

const std::vector<int> gmsl_i2c_bus_index = {30, 31, 32, 33, 34, 35, 36, 37, 9, 10,
                                             0,  1,  2,  3,  4,  5,  6,  7,  8};
const std::vector<int> eeprom_adress_list = {0x55, 0x57};

namespace {

constexpr uint8_t kCameraVersion = 0x11;
constexpr int kHighestCarrierBus = 8;  // buses 0..8: other carrier-board layouts

// Held for the whole of getGMSLDevices and getGMSLDevicesExt.
std::mutex gmsl_list_guardian;
// Held for the whole of either filter.
std::mutex gmsl_filter_guardian;

void sleepMs(int ms) {
    platform::clock().sleepFor(std::chrono::milliseconds(ms));
}

std::string threadId() {
    std::ostringstream out;
    out << std::this_thread::get_id();
    return out.str();
}

std::string lockPath() {
    return getHiddenDir(HIDDEN_DIR_ROOT) + "/.kov_gmsl_list_lock";
}

uint32_t littleEndian32(const unsigned char* b) {
    return static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
           static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24;
}

struct Identification {
    uint32_t serial = 0;
    uint8_t version = 0;
    uint8_t subModel = 0;
};

// The serial number and identification bytes of the bus's EEPROM, as the
// filters and the cheap sweep read them: the pair of reads at 0x55, or else
// at 0x57. False when neither address gave 4 bytes of serial number (or the
// bus cannot be opened).
bool readIdentificationPair(int bus, Identification& id) {
    I2CHandler i2c;
    if (i2c.openI2C(static_cast<unsigned>(bus), 0) < 0)
        return false;
    unsigned char serial[4] = {};
    unsigned char ident[2] = {};
    bool found = false;
    for (int address : eeprom_adress_list) {
        if (i2c.readBlockRegister(static_cast<unsigned>(address), 0, 1, serial, 4) == 4) {
            sleepMs(1);
            if (i2c.readBlockRegister(static_cast<unsigned>(address), 4, 1, ident, 2) != 2)
                ident[0] = ident[1] = 0;
            found = true;
            break;
        }
    }
    i2c.closeI2C();
    if (!found)
        return false;
    id.serial = littleEndian32(serial);
    id.version = ident[0];
    id.subModel = ident[1];
    return true;
}

// The buses whose EEPROM holds a valid serial number and a camera's
// identification; buses 0..8 are left out once a higher one gave a camera.
std::vector<int> identifiedBuses() {
    std::vector<int> buses;
    bool highBusHit = false;
    for (int bus : gmsl_i2c_bus_index) {
        if (highBusHit && bus <= kHighestCarrierBus)
            continue;
        Identification id;
        const bool read = readIdentificationPair(bus, id);
        if (read && isValidGMSLSerial(id.serial) && isGMSLCameraIdentification(id.version, id.subModel)) {
            buses.push_back(bus);
            if (bus > kHighestCarrierBus)
                highBusHit = true;
        }
        sleepMs(1);
    }
    return buses;
}

// The cheap sweep: how many buses carry an identified EEPROM with a non-zero
// serial number. Argus is not touched.
int countCameraEeproms() {
    int count = 0;
    bool highBusHit = false;
    for (int bus : gmsl_i2c_bus_index) {
        if (highBusHit && bus <= kHighestCarrierBus)
            continue;
        Identification id;
        if (readIdentificationPair(bus, id) && id.serial != 0 &&
            isGMSLCameraIdentification(id.version, id.subModel)) {
            ++count;
            if (bus > kHighestCarrierBus)
                highBusHit = true;
        }
    }
    return count;
}

struct SensorStrings {
    std::string module;
    std::string model;
    std::string moduleId;
};

// The camera-properties strings of a device; false when it offers none.
bool readSensorStrings(platform::Argus& argus, CameraDevice* device, SensorStrings& s) {
    if (!argus.getModuleString(device, s.module) || !argus.getModelName(device, s.model))
        return false;
    char buffer[32] = {};
    if (argus.getSyncSensorModuleId(device, buffer, sizeof buffer)) {
        buffer[sizeof buffer - 1] = '\0';
        s.moduleId = buffer;
    }
    return true;
}

bool has(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

template <typename Keep>
std::shared_ptr<std::vector<CameraDevice*>> filterDevices(std::shared_ptr<std::vector<CameraDevice*>> all,
                                                          std::vector<int>& busesOut, Keep keep) {
    std::lock_guard<std::mutex> lock(gmsl_filter_guardian);
    auto kept = std::make_shared<std::vector<CameraDevice*>>();
    platform::Argus& argus = platform::argus();
    if (all) {
        for (CameraDevice* device : *all) {
            SensorStrings s;
            if (!readSensorStrings(argus, device, s))
                continue;
            if (keep(s))
                kept->push_back(device);
        }
    }
    busesOut = identifiedBuses();
    return kept;
}

// The private FROZEN message to the daemon: the camera service has no
// provider although a camera is on the bus. Also drops the provider holder,
// so that the next attempt starts the service anew.
void reportFrozenService() {
    const int port = ArgusCamera::readServicePort("Service:Port", 20206);
    zmq::context_t context;
    try {
        context.set(zmq::ctxopt::io_threads, 1);
        context.set(zmq::ctxopt::max_sockets, 1023);
        zmq::socket_t socket(context, zmq::socket_type::push);
        socket.set(zmq::sockopt::linger, 0);
        socket.connect("tcp://127.0.0.1:" + std::to_string(port));
        sleepMs(100);  // let the connection come up
        const std::string text = "KOVQ#0#0#FROZEN";
        (void)socket.send(zmq::buffer(text), zmq::send_flags::dontwait);  // EAGAIN: dropped
        socket.close();
    } catch (const zmq::error_t& e) {
        std::printf("[KOV-Argus][getGMSLDevices] Failed to notify kov_q_daemon: %s\n", e.what());
    }
    ArgusProvider::DeleteInstance();
    sleepMs(1000);
    context.close();
}

}  // namespace

bool isGMSLCameraIdentification(uint8_t version, uint8_t subModel) {
    if (version != kCameraVersion)
        return false;
    switch (subModel) {
        case 1:
        case 2:
        case 3:
        case 4:
        case 30:
        case 31:
            return true;
        default:
            return false;
    }
}

bool isValidGMSLSerial(uint32_t serial) {
    return serial >= 1 && serial <= 999999999u;
}

MODEL gmslModelOfSubModel(int subModel) {
    switch (subModel) {
        case 1:
        case 2:
        case 3:
            return KOV_Q;
        case 4:
            return KOV_QP;
        case 30:
            return KOV_QS_A;
        case 31:
            return KOV_QS_B;
        default:
            return KOV_MODEL_UNKNOWN;
    }
}

BH_DEVICE gmslDeviceOfSubModelExt(int subModel) {
    switch (subModel) {
        case 1:
            return BH_DEVICE_GMSL_LEGACY;
        case 2:
            return BH_DEVICE_KOV_QG_ALPHA;
        case 3:
            return BH_DEVICE_KOV_QG_BETA;
        case 4:
            return BH_DEVICE_KOV_QG_PICO;
        case 30:
            return BH_DEVICE_KOV_QS_A;
        case 31:
            return BH_DEVICE_KOV_QS_B;
        default:
            return BH_DEVICE_NONE;
    }
}

std::shared_ptr<std::vector<CameraDevice*>> filterGMSLDeviceWithKOV(
    std::shared_ptr<std::vector<CameraDevice*>> all, std::vector<int>& busesOut) {
    return filterDevices(std::move(all), busesOut, [](const SensorStrings& s) {
        return (has(s.moduleId, "KOV_CAM") || has(s.moduleId, "KOVQ_CAM")) && has(s.module, "kovq_ar0234") &&
               has(s.model, "kovq");
    });
}

std::shared_ptr<std::vector<CameraDevice*>> filterGMSLDeviceWithKOVQS(
    std::shared_ptr<std::vector<CameraDevice*>> all, std::vector<int>& busesOut) {
    return filterDevices(std::move(all), busesOut, [](const SensorStrings& s) {
        if (has(s.moduleId, "KOVQS_CAM") && has(s.module, "kovq_ar0234") && has(s.model, "kovqs"))
            return true;
        if (has(s.moduleId, "KOV_CAM") && has(s.module, "kovq_ar0234") && has(s.model, "kovq")) {
            std::printf(" [WARNING] This is a legacy driver that should not be used in production\n");
            std::fflush(stdout);
            return true;
        }
        return has(s.moduleId, "KOVQS_CAM") && has(s.module, "kovq_imx678") && has(s.model, "kovqs");
    });
}

}  // namespace bh

namespace {

// The sub-model table of the capture session: sub-model minus 1 as index.
const bh::BH_DEVICE kSubModelDevices[31] = {
    bh::BH_DEVICE_GMSL_LEGACY, bh::BH_DEVICE_KOV_QG_ALPHA, bh::BH_DEVICE_KOV_QG_BETA,
    bh::BH_DEVICE_KOV_QG_PICO, bh::BH_DEVICE_NONE,         bh::BH_DEVICE_NONE,
    bh::BH_DEVICE_NONE,        bh::BH_DEVICE_NONE,         bh::BH_DEVICE_NONE,
    bh::BH_DEVICE_NONE,        bh::BH_DEVICE_NONE,         bh::BH_DEVICE_NONE,
    bh::BH_DEVICE_NONE,        bh::BH_DEVICE_NONE,         bh::BH_DEVICE_NONE,
    bh::BH_DEVICE_NONE,        bh::BH_DEVICE_NONE,         bh::BH_DEVICE_NONE,
    bh::BH_DEVICE_NONE,        bh::BH_DEVICE_NONE,         bh::BH_DEVICE_NONE,
    bh::BH_DEVICE_NONE,        bh::BH_DEVICE_NONE,         bh::BH_DEVICE_NONE,
    bh::BH_DEVICE_NONE,        bh::BH_DEVICE_NONE,         bh::BH_DEVICE_NONE,
    bh::BH_DEVICE_NONE,        bh::BH_DEVICE_NONE,         bh::BH_DEVICE_KOV_QS_A,
    bh::BH_DEVICE_KOV_QS_A,
};

// One trial session on a device, destroyed at once: true when the device
// could be claimed (another process holding it refuses the session).
bool claimDevice(platform::Argus& argus, CameraDevice* device) {
    Status status = platform::argus_types::STATUS_OK;
    CaptureSession* session = argus.createCaptureSession(device, &status);
    if (session == nullptr)
        return false;
    argus.destroyCaptureSession(session);
    return true;
}

}  // namespace

bh::BH_DEVICE ArgusCamera::getCameraSubModelDevice(int subModel) {
    const int index = subModel - 1;
    if (index < 0 || index > 30)
        return bh::BH_DEVICE_NONE;
    return kSubModelDevices[index];
}

std::vector<DeviceProperties> ArgusCamera::getGMSLDevices(bool verbose, bool second) {
    std::lock_guard<std::mutex> guard(bh::gmsl_list_guardian);  // std::system_error on failure
    if (verbose)
        std::printf("[Thread %s] BEGIN 'ArgusCamera::getGMSLDevices'\n", bh::threadId().c_str());
    std::vector<DeviceProperties> result;

    bh::FileLocker locker(bh::lockPath());
    locker.lock();  // a time-out goes on unlocked

    // No camera EEPROM anywhere: Argus is never touched.
    if (!second && bh::countCameraEeproms() == 0) {
        locker.unlock();
        return result;
    }

    platform::Argus* argus = ArgusProvider::getInstance()->cameraProvider();
    if (argus == nullptr) {
        bh::reportFrozenService();
        locker.unlock();
        return result;
    }

    std::vector<CameraDevice*> listed;
    argus->getCameraDevices(listed);
    auto devices = std::make_shared<std::vector<CameraDevice*>>(std::move(listed));
    if (!second) {
        std::vector<int> buses;
        devices = bh::filterGMSLDeviceWithKOV(devices, buses);
    }

    size_t cursor = 0;
    for (int bus : bh::gmsl_i2c_bus_index) {
        if (bus <= bh::kHighestCarrierBus && !result.empty())
            continue;
        I2CHandler i2c;
        if (i2c.openI2C(static_cast<unsigned>(bus), 0) < 0)
            continue;
        unsigned char serialBytes[4] = {};
        bool serialRead = false;
        for (int address : bh::eeprom_adress_list) {
            if (i2c.readBlockRegister(static_cast<unsigned>(address), 0, 1, serialBytes, 4) == 4) {
                serialRead = true;
                break;
            }
        }
        if (!serialRead) {
            i2c.closeI2C();
            continue;
        }
        bh::sleepMs(1);
        unsigned char ident[2] = {};
        for (int address : bh::eeprom_adress_list) {
            if (i2c.readBlockRegister(static_cast<unsigned>(address), 4, 1, ident, 2) == 2)
                break;
            ident[0] = ident[1] = 0;
        }
        i2c.closeI2C();

        const uint32_t serial = bh::littleEndian32(serialBytes);
        if (!second && !bh::isValidGMSLSerial(serial)) {
            if (verbose)
                std::printf("[KOV-Argus][getGMSLDevices] Invalid Device  SN : %u for i2C-%d\n", serial, bus);
            continue;
        }
        DeviceProperties record;
        record.camera_state = bh::DEVICE_NOT_AVAILABLE;
        record.id = -1;
        record.camera_model = bh::KOV_MODEL_UNKNOWN;

        bool exhausted = false;
        if (bh::isGMSLCameraIdentification(ident[0], ident[1])) {
            record.camera_model = bh::gmslModelOfSubModel(ident[1]);
            if (cursor < devices->size()) {
                const bool single =
                    record.camera_model == bh::KOV_QS_A || record.camera_model == bh::KOV_QS_B;
                bool claimed = claimDevice(*argus, (*devices)[cursor]);
                ++cursor;
                if (!single) {
                    claimed = cursor < devices->size() && claimDevice(*argus, (*devices)[cursor]) && claimed;
                    ++cursor;
                }
                record.camera_state = claimed ? bh::DEVICE_AVAILABLE : bh::DEVICE_NOT_AVAILABLE;
            } else {
                exhausted = true;
            }
        }
        record.path.set(("/dev/i2c-" + std::to_string(bus)).c_str());
        record.serial_number = serial;
        record.input_type = bh::GMSL_INPUT;
        if (exhausted)
            continue;  // an identified camera without sensors left in the list
        record.id = static_cast<int32_t>(result.size());
        result.push_back(record);
        if (verbose)
            std::printf("[KOV-Argus][getGMSLDevices] Found New KOV-GMSL SN%u for i2C-%d\n", serial, bus);
    }

    devices->clear();
    locker.unlock();
    if (verbose)
        std::printf("[Thread %s] ArgusCamera::getGMSLDevices' COMPLETED -> %zu GMSL cameras found\n",
                    bh::threadId().c_str(), result.size());
    return result;
}

std::vector<std::pair<bh::BH_DEVICE, std::string>> ArgusCamera::getGMSLDevicesExt(bool verbose) {
    std::lock_guard<std::mutex> guard(bh::gmsl_list_guardian);
    if (verbose)
        std::printf("[Thread %s] BEGIN 'ArgusCamera::getGMSLDevicesExt'\n", bh::threadId().c_str());
    std::vector<std::pair<bh::BH_DEVICE, std::string>> result;

    bh::FileLocker locker(bh::lockPath());
    locker.lock();

    bool highBusHit = false;
    for (int bus : bh::gmsl_i2c_bus_index) {
        if (highBusHit && bus <= bh::kHighestCarrierBus)
            continue;
        I2CHandler i2c;
        if (i2c.openI2C(static_cast<unsigned>(bus), 0) < 0)
            continue;
        for (int address : bh::eeprom_adress_list) {
            unsigned char serialBytes[4] = {};
            unsigned char ident[2] = {};
            i2c.readBlockRegister(static_cast<unsigned>(address), 0, 1, serialBytes, 4);
            platform::clock().sleepFor(std::chrono::microseconds(100));
            i2c.readBlockRegister(static_cast<unsigned>(address), 4, 1, ident, 2);
            // Closed inside the address loop: the reads at 0x57 then fail on
            // the closed handle, so only an EEPROM at 0x55 is ever found here.
            i2c.closeI2C();
            const uint32_t serial = bh::littleEndian32(serialBytes);
            if (bh::isValidGMSLSerial(serial) && bh::isGMSLCameraIdentification(ident[0], ident[1])) {
                result.emplace_back(bh::gmslDeviceOfSubModelExt(ident[1]), "/dev/i2c-" + std::to_string(bus));
                if (bus > bh::kHighestCarrierBus)
                    highBusHit = true;
            }
        }
    }

    locker.unlock();
    if (verbose)
        std::printf("[Thread %s] ArgusCamera::getGMSLDevicesExt' COMPLETED -> %zu GMSL cameras found\n",
                    bh::threadId().c_str(), result.size());
    return result;
}
