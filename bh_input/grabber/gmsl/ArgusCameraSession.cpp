// The life of an ArgusCamera session: open builds the Argus chain of one or
// two sensors and waits for the first frames, close tears it down, and the
// watchdog (control) reopens the chain when the producers found the camera
// frozen.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bh_input/grabber/gmsl/ArgusCamera.h"
#include "bh_input/grabber/gmsl/ArgusProvider.h"
#include "bh_input/mcu/KOVmcu.h"
#include "platform/Clock.h"
#include "platform/Platform.h"

namespace at = platform::argus_types;

namespace {

// What open returns.
enum ARGUS_STATUS : int {
    ARGUS_READY = 0,
    ARGUS_ALREADY_OPEN = 1,
    ARGUS_I2C_FAILED = 2,
    ARGUS_NO_PROVIDER = 3,
    ARGUS_ENUMERATION_FAILED = 4,
    ARGUS_TOO_FEW_SENSORS = 5,
    ARGUS_INVALID_PROPERTIES = 6,
    ARGUS_INVALID_SERIAL = 7,
    ARGUS_SESSION_FAILED = 8,
    ARGUS_STREAM_SETTINGS_FAILED = 9,
    ARGUS_STREAM_CREATION_FAILED = 10,
    ARGUS_CONSUMER_FAILED = 11,
    ARGUS_REQUEST_FAILED = 12,
    ARGUS_ENABLE_STREAM_FAILED = 13,
    ARGUS_SENSOR_MODE_FAILED = 14,
    ARGUS_REPEAT_FAILED = 15,
    ARGUS_FIRST_FRAME_TIMEOUT = 17,
};

constexpr uint8_t kCameraVersion = 0x11;
constexpr int kFirstFramePolls = 201;  // 100 ms apart: 20.1 s
constexpr int kRebootTries = 5;

void sleepFor(std::chrono::nanoseconds d) {
    platform::clock().sleepFor(d);
}

uint32_t littleEndian32(const unsigned char* b) {
    return static_cast<uint32_t>(b[0]) | static_cast<uint32_t>(b[1]) << 8 |
           static_cast<uint32_t>(b[2]) << 16 | static_cast<uint32_t>(b[3]) << 24;
}

bool validSubModel(int subModel) {
    return (subModel >= 1 && subModel <= 4) || subModel == 30 || subModel == 31;
}

uint32_t even(uint32_t v) {
    return v + (v & 1u);
}

}  // namespace

ArgusCamera::ArgusCamera() {
    config.sync_threshold = 10;
    run.sync_threshold = 10;
    status = 0;
    joinLink();
    component = std::make_unique<ArgusComponent>();
    stop_capture = true;
    opened = false;
}

ArgusCamera::~ArgusCamera() {
    if (opened) {
        close();
    } else {
        // A failed open may have left threads behind: they are joined here.
        abortControlThread();
        stopCapture();
        if (component) {
            component->stop(false);
            component->release();
        }
        clearBuffers();
        clearImageQueues();
    }
    component.reset();
    releaseLink();
}

void ArgusCamera::log(int level, const std::string& text) const {
    if (run.verbosity >= level) {
        std::printf("%s\n", text.c_str());
        std::fflush(stdout);
    }
}

void ArgusCamera::logCam(const std::string& text) const {
    log(1, "[KOV-Argus][CAM" + std::to_string(port_index) + text);
}

int ArgusCamera::fail(int code) {
    ArgusProvider::changeState(port_index, ARGUS_CAMERA_STATE_CLOSED);
    return code;
}

void ArgusCamera::deleteProviderInstance() {
    ArgusProvider::DeleteInstance();
}

void ArgusCamera::setMCU(bh::KOVmcu* engine) {
    std::lock_guard<std::mutex> lock(mcu_mutex);
    mcu = engine;
    if (mcu != nullptr && mcu->imu_reader)
        mcu->imu_reader->setSwapLR(swap_sides ? 1 : 0);
}

// ---------------------------------------------------------------------------
// open

int ArgusCamera::open(const ArgusCameraConfig& cfg, bool firstOpen) {
    (void)firstOpen;
    if (opened) {
        // A running session keeps going; only the stored configuration
        // changes (the next reboot uses it).
        std::lock_guard<std::mutex> lock(config_mutex);
        config = cfg;
        return ARGUS_ALREADY_OPEN;
    }
    // What an earlier, failed open left behind goes first: its threads, then
    // its Argus objects (a session still held would refuse the new one).
    stopCapture();
    component->close(false);
    clearBuffers();

    first_frame_seen = false;
    clearImageQueues();
    imu_packet = bh::IMUPacket{};
    pending_packet = bh::IMUPacket{};
    {
        std::lock_guard<std::mutex> lock(config_mutex);
        config = cfg;
    }
    run.sync_threshold = config.sync_threshold;
    run.verbosity = config.verbosity;
    run.mono = config.mono;
    run.start_consumer = config.start_consumer;
    channels = config.mono ? 2 : 4;
    port_index = static_cast<int32_t>(config.mono ? config.first_sensor : config.first_sensor >> 1);

    ArgusProvider* provider = ArgusProvider::getInstance();
    platform::Argus* argus = provider->cameraProvider();
    if (argus == nullptr) {
        ArgusProvider::changeState(port_index, ARGUS_CAMERA_STATE_FROZEN);
        sendStatus("FROZEN");
        ArgusProvider::DeleteInstance();
        logCam("] Invalid camera provider : " + std::to_string(port_index));
        return ARGUS_NO_PROVIDER;
    }
    component->argus = argus;

    int code = openDevices(*argus);
    if (code == 0)
        code = readIdentification();
    if (code == 0)
        code = createStreams(*argus);
    if (code != 0)
        return code;

    // The producers start before the requests repeat: they wait for their
    // streams and then for frames.
    stop_capture = false;
    code = startRequests(*argus);
    if (code != 0)
        return code;

    width = static_cast<int>(config.mode_size[0]);
    height = static_cast<int>(config.mode_size[1]);
    const size_t bytes =
        static_cast<size_t>(width) * static_cast<size_t>(height) * static_cast<size_t>(channels);
    for (unsigned char*& buffer : image_buffer) {
        std::free(buffer);
        buffer = static_cast<unsigned char*>(std::malloc(bytes));
    }
    if (!ptr_from_caller)
        ptr = image_buffer[0];

    opened = true;
    if (config.start_consumer && !consumer_thread.joinable())
        consumer_thread = std::thread(&ArgusCamera::consume, this);
    if (!control_thread.joinable()) {
        stop_control = false;
        control_thread = std::thread(&ArgusCamera::control, this);
    }

    sendStatus("OPENING");
    int polls = 0;
    while (!first_frame_seen && polls < kFirstFramePolls && !stop_control) {
        sleepFor(std::chrono::milliseconds(100));
        ++polls;
    }
    if (!first_frame_seen)
        return fail(ARGUS_FIRST_FRAME_TIMEOUT);
    logCam("] Start Capture ( timeout " + std::to_string(polls) + ")");

    code = applyWantedRate(*argus);
    if (code != 0)
        return code;

    sleepFor(std::chrono::milliseconds(10));
    logCam("] --> Dispatch Request ");
    setDenoisingValue(0.5f, true);
    setSharpening(1, true);
    setAEAntiBanding(AEANTIBANDING_OFF);
    dispatchRequest();
    logCam("] --> Ready!");
    return ARGUS_READY;
}

// Enumeration, filter, the two devices and their model names.
int ArgusCamera::openDevices(platform::Argus& argus) {
    std::vector<at::CameraDevice*> listed;
    if (argus.getCameraDevices(listed) != at::STATUS_OK) {
        log(1, "[KOV-Argus] INVALID_DEVICE_ENUMERATION");
        return ARGUS_ENUMERATION_FAILED;
    }
    auto all = std::make_shared<std::vector<at::CameraDevice*>>(std::move(listed));
    std::vector<int> buses;
    component->devices =
        config.mono ? bh::filterGMSLDeviceWithKOVQS(all, buses) : bh::filterGMSLDeviceWithKOV(all, buses);
    const std::vector<at::CameraDevice*>& devices = *component->devices;
    const size_t found = devices.size();
    if (config.mono ? found < 1 : found < 2) {
        logCam(std::string(config.mono ? "] MONO" : "] STEREO") +
               " : Nb Sensors detected : " + std::to_string(found));
        return ARGUS_TOO_FEW_SENSORS;
    }
    if (config.first_sensor >= found)
        return ARGUS_INVALID_PROPERTIES;
    component->device[0] = devices[config.first_sensor];

    ArgusProvider::changeState(port_index, ARGUS_CAMERA_STATE_OPENING);
    std::string firstModel;
    argus.getModelName(component->device[0], firstModel);
    {
        std::lock_guard<std::mutex> lock(settings_mutex);
        argus.getMinAeRegionSize(component->device[0], side_settings[0].ae_min_region);
    }
    if (!config.mono) {
        if (config.second_sensor >= found)
            return fail(ARGUS_INVALID_PROPERTIES);
        component->device[1] = devices[config.second_sensor];
        std::string secondModel;
        argus.getModelName(component->device[1], secondModel);
        if (secondModel != firstModel)
            return fail(ARGUS_SESSION_FAILED);
        std::lock_guard<std::mutex> lock(settings_mutex);
        argus.getMinAeRegionSize(component->device[1], side_settings[1].ae_min_region);
    }

    if (port_index < 0 || static_cast<size_t>(port_index) >= buses.size()) {
        logCam(std::string(config.mono ? "] MONO" : "] STEREO") +
               " : Nb Sensors detected : " + std::to_string(found));
        return fail(ARGUS_TOO_FEW_SENSORS);
    }
    bus = buses[static_cast<size_t>(port_index)];
    return 0;
}

// Serial number, version and sub-model, and the saved white balance mode,
// from the camera's EEPROM.
int ArgusCamera::readIdentification() {
    const int fd = i2c.openI2C(static_cast<unsigned>(bus), config.verbosity > 1 ? 1 : 0);
    if (fd < 1) {
        logCam("] i2c Sensor Comm failed / fd = " + std::to_string(fd));
        return fail(ARGUS_I2C_FAILED);
    }
    unsigned char serial[4] = {};
    eeprom_address = bh::eeprom_adress_list[0];
    if (i2c.readBlockRegister(static_cast<unsigned>(eeprom_address), 0, 1, serial, 4) != 4) {
        eeprom_address = bh::eeprom_adress_list[1];
        std::memset(serial, 0, sizeof serial);
        i2c.readBlockRegister(static_cast<unsigned>(eeprom_address), 0, 1, serial, 4);
    }
    serial_number = littleEndian32(serial);
    if (serial_number == 0 || serial_number == 0xFFFFFFFFu) {
        logCam("] Invalid Serial Number // sn = " + std::to_string(serial_number));
        i2c.closeI2C();
        return fail(ARGUS_INVALID_SERIAL);
    }
    sleepFor(std::chrono::microseconds(100));
    unsigned char ident[2] = {};
    i2c.readBlockRegister(static_cast<unsigned>(eeprom_address), 4, 1, ident, 2);
    sub_model = ident[1];
    if (ident[0] != kCameraVersion || !validSubModel(sub_model)) {
        logCam("] Invalid camera properties  // VER_ID = " + std::to_string(ident[0]));
        i2c.closeI2C();
        return fail(ARGUS_INVALID_PROPERTIES);
    }
    device_code = getCameraSubModelDevice(sub_model);
    sleepFor(std::chrono::microseconds(100));
    unsigned char counter = 0;
    if (i2c.readRegister(static_cast<unsigned>(eeprom_address), 6, 1, counter) == 1) {
        wb_mode = static_cast<int>(counter) - 1;
        wb_mode_read = true;
    }
    i2c.closeI2C();
    return 0;
}

// Sessions, EGL streams and their consumers.
int ArgusCamera::createStreams(platform::Argus& argus) {
    const int sides = sideCount();
    at::Status st = at::STATUS_OK;
    if (config.mono) {
        component->single_device.clear();
        component->single_device.push_back(component->device[0]);
        component->session[0] = argus.createCaptureSession(component->single_device, &st);
    } else {
        for (int s = 0; s < 2; ++s)
            component->session[s] = argus.createCaptureSession(component->device[s], &st);
    }
    for (int s = 0; s < sides; ++s) {
        if (component->session[s] == nullptr) {
            log(1, "[KOV-Argus] CAM " + std::to_string(port_index) + " ID " + std::to_string(s) +
                       " State : " + std::to_string(st));
            return fail(ARGUS_SESSION_FAILED);
        }
    }

    component->stream_size.width = even(config.stream_size.size() > 0 ? config.stream_size[0] : 0);
    component->stream_size.height = even(config.stream_size.size() > 1 ? config.stream_size[1] : 0);
    for (int s = 0; s < sides; ++s) {
        at::OutputStreamSettings* settings = argus.createEglOutputStreamSettings(component->session[s]);
        const bool ok = settings != nullptr && argus.setPixelFormatYCbCr420(settings) == at::STATUS_OK &&
                        argus.setResolution(settings, component->stream_size) == at::STATUS_OK &&
                        argus.setMetadataEnable(settings, true) == at::STATUS_OK &&
                        argus.setMode(settings, at::EglStreamMode::Mailbox) == at::STATUS_OK;
        if (!ok) {
            if (settings != nullptr)
                argus.destroyOutputStreamSettings(settings);
            logCam("] --> INVALID_OUTPUT_STREAM_SETTINGS");
            return fail(ARGUS_STREAM_SETTINGS_FAILED);
        }
        argus.setCameraDevice(settings, component->device[s]);
        component->stream[s] = argus.createOutputStream(component->session[s], settings, &st);
        argus.destroyOutputStreamSettings(settings);
        if (component->stream[s] == nullptr) {
            logCam("] --> INVALID_STREAM_CREATION");
            return fail(ARGUS_STREAM_CREATION_FAILED);
        }
    }
    for (int s = 0; s < sides; ++s) {
        component->consumer[s] = argus.createFrameConsumer(component->stream[s], &st);
        if (component->consumer[s] == nullptr) {
            logCam("] --> Invalid frame consumer " + std::to_string(s));
            return fail(ARGUS_CONSUMER_FAILED);
        }
    }
    return 0;
}

// Requests, the producer threads, the sensor modes, and the first repeat at
// the mode's fastest rate.
int ArgusCamera::startRequests(platform::Argus& argus) {
    const int sides = sideCount();
    at::Status st = at::STATUS_OK;
    for (int s = 0; s < sides; ++s) {
        component->request[s] = argus.createPreviewRequest(component->session[s], &st);
        if (component->request[s] == nullptr)
            return fail(ARGUS_REQUEST_FAILED);
        if (argus.enableOutputStream(component->request[s], component->stream[s]) != at::STATUS_OK)
            return fail(ARGUS_ENABLE_STREAM_FAILED);
    }

    const uint64_t duration = config.frame_durations.empty() ? 0 : config.frame_durations[0];
    fps = duration == 0 ? 0 : static_cast<int>(1000000000ULL / duration);

    if (config.mono) {
        mono_thread = std::thread(&ArgusCamera::produceMono, this);
    } else {
        producer_thread[0] = std::thread(&ArgusCamera::produceSingle, this, 0);
        producer_thread[1] = std::thread(&ArgusCamera::produceSingle, this, 1);
    }

    const uint32_t wantW = config.mode_size.size() > 0 ? config.mode_size[0] : 0;
    const uint32_t wantH = config.mode_size.size() > 1 ? config.mode_size[1] : 0;
    for (int s = 0; s < sides; ++s) {
        std::vector<at::SensorMode*> modes;
        if (argus.getAllSensorModes(component->device[s], modes) != at::STATUS_OK) {
            logCam("] ERROR :  Cannot get sensor modes");
            return fail(ARGUS_SENSOR_MODE_FAILED);
        }
        component->mode[s] = nullptr;
        for (at::SensorMode* m : modes) {
            at::Size2D size;
            if (argus.getResolution(m, size) && size.width == wantW && size.height == wantH) {
                component->mode[s] = m;
                break;
            }
        }
        if (component->mode[s] == nullptr) {
            logCam("] ERROR : Cannot find a correct sensor mode for " + std::to_string(wantW) + "x" +
                   std::to_string(wantH));
            return fail(ARGUS_SENSOR_MODE_FAILED);
        }
    }

    for (int s = 0; s < sides; ++s) {
        at::Range<uint64_t> durations;
        if (!argus.getFrameDurationRange(component->mode[s], durations) ||
            argus.setFrameDurationRange(component->request[s], {durations.min, durations.min}) !=
                at::STATUS_OK) {
            logCam("] ERROR :  Cannot set frame duration");
            return fail(ARGUS_SENSOR_MODE_FAILED);
        }
        if (argus.setSensorMode(component->request[s], component->mode[s]) != at::STATUS_OK) {
            logCam("] ERROR :  Cannot set sensor mode");
            return fail(ARGUS_SENSOR_MODE_FAILED);
        }
        at::Rectangle clip;
        if (config.clip_rectangle.size() >= 4)
            clip = {config.clip_rectangle[0], config.clip_rectangle[1], config.clip_rectangle[2],
                    config.clip_rectangle[3]};
        if (argus.setSourceClipRect(component->request[s], component->stream[s], clip) != at::STATUS_OK)
            return fail(ARGUS_SENSOR_MODE_FAILED);
        std::lock_guard<std::mutex> lock(request_mutex[s]);
        if (argus.repeat(component->session[s], component->request[s]) != at::STATUS_OK)
            return fail(ARGUS_REPEAT_FAILED);
    }
    return 0;
}

// After the first frames: the wanted frame duration, and the limits of
// exposure and gains (the exposure never longer than the frame period).
int ArgusCamera::applyWantedRate(platform::Argus& argus) {
    const int sides = sideCount();
    for (int s = 0; s < sides; ++s) {
        if (fps > 0) {
            const uint64_t period = 1000000000ULL / static_cast<uint64_t>(fps);
            argus.setFrameDurationRange(component->request[s], {period, period});
        }
        at::Range<float> digital{1.f, 1.f};
        argus.getIspDigitalGainRange(component->request[s], digital);
        at::Range<uint64_t> exposureNs;
        at::Range<float> analog;
        if (!argus.getExposureTimeRange(component->mode[s], exposureNs) ||
            !argus.getAnalogGainRange(component->mode[s], analog))
            return fail(ARGUS_SENSOR_MODE_FAILED);
        at::Range<uint64_t> exposureUs{exposureNs.min / 1000, exposureNs.max / 1000};
        bool cut = false;
        if (fps > 0) {
            const uint64_t periodUs = 100000000ULL / (static_cast<uint64_t>(fps) * 100ULL);
            if (exposureUs.max > periodUs) {
                exposureUs.max = periodUs;
                cut = true;
            }
        }
        {
            std::lock_guard<std::mutex> lock(settings_mutex);
            ArgusSideSettings& side = side_settings[s];
            side.exposure_limits_us = exposureUs;
            side.exposure_range_us = exposureUs;
            side.analog_gain_limits = analog;
            side.analog_gain_range = analog;
            side.digital_gain_limits = digital;
            side.digital_gain_range = digital;
        }
        if (cut)
            setFrameExposureRange(s, exposureUs.min, exposureUs.max);
    }
    return 0;
}

// ---------------------------------------------------------------------------
// close, reboot and the watchdog

void ArgusCamera::close() {
    // Nothing may reopen the chain while it is torn down: the watchdog goes
    // first, with any reboot it has pending.
    abortControlThread();
    reboot_wanted = false;

    if (bus >= 0 && wb_mode_read) {
        I2CHandler writer;
        if (writer.openI2C(static_cast<unsigned>(bus), 0) > 0) {
            writer.writeRegister(static_cast<unsigned>(eeprom_address), 6, 1,
                                 static_cast<unsigned char>(wb_mode + 1));
            writer.closeI2C();
        }
    }
    stop_capture = true;
    opened = false;
    // The streams are stopped and disconnected before the threads are joined
    // (that ends their waits at once), and released only once no thread can
    // touch them any more.
    component->stop(true);
    sendStatus("CLOSING");
    abortCapture();
    component->release();
    clearBuffers();
    clearImageQueues();
    releaseLink();
}

int ArgusCamera::reboot(bool deleteProvider) {
    log(2, "[KOV-Argus][Debug] Reboot asked for port " + std::to_string(port_index));
    sendStatus("FROZEN");
    stop_capture = true;
    opened = false;
    component->stop(false);
    abortCapture();
    clearBuffers();
    clearImageQueues();
    i2c.closeI2C();
    component->release();

    sleepFor(std::chrono::milliseconds(100));
    if (deleteProvider)
        ArgusProvider::DeleteInstance();
    sleepFor(std::chrono::seconds(2));
    if (stop_control)
        return ARGUS_FIRST_FRAME_TIMEOUT;  // closing: do not reopen
    ArgusCameraConfig stored;
    {
        std::lock_guard<std::mutex> lock(config_mutex);
        stored = config;
    }
    return open(stored, false);
}

void ArgusCamera::forceReboot() {
    if (opened)
        reboot_wanted = true;
}

void ArgusCamera::control() {
    reboot_wanted = false;
    while (!stop_control) {
        sleepFor(std::chrono::milliseconds(100));
        if (!reboot_wanted || stop_control)
            continue;
        ArgusProvider::changeState(port_index, ARGUS_CAMERA_STATE_FROZEN);
        int result = reboot(true);
        for (int tries = 1; result != 0 && tries < kRebootTries && !stop_control; ++tries)
            result = reboot(false);
        if (result != 0 && !stop_control) {
            std::printf("[KOV-Argus][Error] Port %d: Rebooot has failed for CAM %d\n", port_index,
                        port_index);
            std::fflush(stdout);
            ArgusProvider::changeState(port_index, ARGUS_CAMERA_STATE_CLOSED);
        }
        reboot_wanted = false;
    }
}

void ArgusCamera::stopCapture() {
    stop_capture = true;
    abortCapture();
}

void ArgusCamera::abortCapture() {
    for (std::thread& t : producer_thread)
        if (t.joinable())
            t.join();
    if (mono_thread.joinable())
        mono_thread.join();
    if (consumer_thread.joinable())
        consumer_thread.join();
}

void ArgusCamera::abortControlThread() {
    stop_control = true;
    if (control_thread.joinable() && control_thread.get_id() != std::this_thread::get_id())
        control_thread.join();
}

void ArgusCamera::clearBuffers() {
    {
        std::lock_guard<std::mutex> lock(critical_mutex);
        if (!ptr_from_caller)
            ptr = nullptr;
        for (unsigned char*& buffer : image_buffer) {
            std::free(buffer);
            buffer = nullptr;
        }
    }
    for (int& fd : native_fd) {
        if (fd > 0 && component && component->argus != nullptr)
            component->argus->destroyNvBuffer(fd);
        fd = -1;
    }
}

// ---------------------------------------------------------------------------
// The identification block of a camera's EEPROM

int ArgusCamera::formatEEpromMemory(int port, int serial, bh::BH_DEVICE device, bool force) {
    I2CHandler writer;
    if (writer.openI2C(static_cast<unsigned>(port + 30), 0) < 1)
        return -1;
    const unsigned address = static_cast<unsigned>(bh::eeprom_adress_list[0]);
    unsigned char block[7] = {};
    const bool read = writer.readBlockRegister(address, 0, 1, block, 7) == 7;
    const bool valid = read && littleEndian32(block) != 0 && littleEndian32(block) != 0xFFFFFFFFu &&
                       bh::isGMSLCameraIdentification(block[4], block[5]);
    const bool forced = force && device >= bh::BH_DEVICE_KOV_QG_ALPHA && device <= bh::BH_DEVICE_KOV_QS_B;
    if (valid && !forced) {
        writer.closeI2C();
        return 0;
    }
    int subModel = 2;
    switch (device) {
        case bh::BH_DEVICE_KOV_QS_A:
            subModel = 30;
            break;
        case bh::BH_DEVICE_KOV_QS_B:
            subModel = 31;
            break;
        case bh::BH_DEVICE_KOV_QG_BETA:
            subModel = 3;
            break;
        case bh::BH_DEVICE_KOV_QG_PICO:
            subModel = 4;
            break;
        default:
            subModel = 2;
            break;
    }
    const uint32_t sn = static_cast<uint32_t>(serial);
    unsigned char header[7] = {static_cast<unsigned char>(sn),
                               static_cast<unsigned char>(sn >> 8),
                               static_cast<unsigned char>(sn >> 16),
                               static_cast<unsigned char>(sn >> 24),
                               kCameraVersion,
                               static_cast<unsigned char>(subModel),
                               2};  // white balance mode 1 (automatic), saved as mode + 1
    int result = writer.writeBlockRegister(address, 0, 1, header, 7) == 7 ? 0 : -1;

    // The serial record of the calibration image, in the block after the
    // identification block: id 0x33, then prefix and body of the number.
    const int32_t prefix = static_cast<int32_t>(sn / 10000000u);
    const int32_t body = static_cast<int32_t>(sn % 10000000u);
    unsigned char record[9] = {0x33};
    std::memcpy(record + 1, &prefix, 4);
    std::memcpy(record + 5, &body, 4);
    if (writer.writeBlockRegister(address + 1, 0, 1, record, 9) != 9)
        result = -1;
    writer.closeI2C();
    return result;
}
