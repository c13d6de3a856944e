#pragma once

// ArgusCamera: one GMSL camera, stereo or single-sensor, read through NVIDIA
// Argus. The class is spread over several files along its seams:
//
//  - ArgusCameraLink.cpp: the link to the GMSL daemon kov_q_daemon, two
//    loopback ZeroMQ sockets made by the first camera of the process and torn
//    down with the last, a text protocol "KOVQ#<port>#<device>#<verb>[#n]",
//    and the check that a container runs the host's L4T version;
//  - ArgusDiscovery.cpp: the camera EEPROMs on the Jetson's I2C buses joined
//    with the sensors Argus lists;
//  - ArgusCameraSession.cpp: open, close, reboot and the watchdog that
//    restarts the whole chain when the camera service stops delivering;
//  - ArgusCameraFramePath.cpp: the producers that take images out of the EGL
//    streams, the pairing of left and right by sensor timestamp, the
//    inertial packet of a frame, and the consumer that delivers frames;
//  - ArgusCameraControls.cpp: exposure, gains, white balance and the other
//    image settings, written into the capture requests.
//
// All hardware goes through platform::sys() (I2C) and platform::argus().

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <zmq.hpp>

#include "bh_input/grabber/defines.h"
#include "bh_input/grabber/gmsl/ArgusCameraConfig.h"
#include "bh_input/grabber/gmsl/ArgusComponent.h"
#include "bh_input/grabber/gmsl/I2CHandler.h"
#include "bh_input/mcu/IMUPacket.h"
#include "platform/Argus.h"

namespace bh {

class KOVmcu;

// The I2C buses tried for camera EEPROMs, in this order. Buses 0..8 stand
// for carrier boards with another numbering: they are tried only when the
// higher numbers gave nothing.
extern const std::vector<int> gmsl_i2c_bus_index;
// The I2C addresses of the camera EEPROM, in this order.
extern const std::vector<int> eeprom_adress_list;

// The identification block of a camera EEPROM: version byte 0x11 and a known
// sub-model byte.
bool isGMSLCameraIdentification(uint8_t version, uint8_t subModel);
// 1 .. 999999999.
bool isValidGMSLSerial(uint32_t serial);
// The model of a sub-model byte as the full discovery lists it (32: unknown).
MODEL gmslModelOfSubModel(int subModel);
// The device code of a sub-model byte as the fast discovery lists it (17: unknown).
BH_DEVICE gmslDeviceOfSubModelExt(int subModel);

// Keep the Argus devices of stereo cameras (resp. the single-sensor family)
// and list the I2C buses whose EEPROM identifies a camera.
std::shared_ptr<std::vector<platform::argus_types::CameraDevice*>> filterGMSLDeviceWithKOV(
    std::shared_ptr<std::vector<platform::argus_types::CameraDevice*>> all, std::vector<int>& busesOut);
std::shared_ptr<std::vector<platform::argus_types::CameraDevice*>> filterGMSLDeviceWithKOVQS(
    std::shared_ptr<std::vector<platform::argus_types::CameraDevice*>> all, std::vector<int>& busesOut);

}  // namespace bh

// One image taken out of a sensor's EGL stream.
struct argusMonoImage {
    uint64_t timestamp = 0;  // sensor timestamp, us of the monotonic clock
    uint64_t exposure = 0;   // us
    float analog_gain = 0.f;
    float digital_gain = 0.f;
    int32_t pitch = 0;              // bytes per row of data
    unsigned char* data = nullptr;  // malloc'ed YUYV image, owned by the queue entry
};

// Anti-banding of the automatic exposure.
enum AEANTIBANDING : int {
    AEANTIBANDING_OFF = 0,
    AEANTIBANDING_AUTO = 1,
    AEANTIBANDING_50HZ = 2,
    AEANTIBANDING_60HZ = 3,
};

// Exposure and gains of one sensor: those of the latest delivered frame, the
// sensor's limits (read at open) and the ranges asked for now.
struct ArgusSideSettings {
    uint64_t frame_exposure_us = 0;
    float frame_analog_gain = 0.f;
    float frame_digital_gain = 0.f;
    platform::argus_types::Range<uint64_t> exposure_limits_us;
    platform::argus_types::Range<float> analog_gain_limits;
    platform::argus_types::Range<float> digital_gain_limits;
    platform::argus_types::Range<uint64_t> exposure_range_us;
    platform::argus_types::Range<float> analog_gain_range;
    platform::argus_types::Range<float> digital_gain_range;
    platform::argus_types::Size2D ae_min_region;
};

class ArgusCamera {
public:
    // The first camera of the process makes the daemon link (a failure is a
    // warning, never an error); the first one also checks the L4T version of
    // a container once per process.
    ArgusCamera();
    virtual ~ArgusCamera();
    ArgusCamera(const ArgusCamera&) = delete;
    ArgusCamera& operator=(const ArgusCamera&) = delete;

    // ---- session (ArgusCameraSession.cpp)
    // A status code: 0 ready, 1 already open, 2 .. 17 the failed step (see
    // ARGUS_STATUS in the .cpp). firstOpen is false when reboot reopens.
    int open(const ArgusCameraConfig& config, bool firstOpen);
    void close();
    // Closes the chain and opens it again with the stored configuration;
    // deleteProvider also restarts the platform's camera service.
    int reboot(bool deleteProvider);
    // The watchdog thread: reboots when a producer asked for it.
    void control();
    // Asks the watchdog for a reboot (as a frozen producer does).
    void forceReboot();
    // Joins and clears the producer and consumer threads.
    void abortCapture();
    // Stops and joins the watchdog.
    void abortControlThread();

    bool isOpened() const { return opened; }
    int getEffectiveWidth() const { return opened ? width : 0; }
    int getEffectiveHeight() const { return opened ? height : 0; }
    int getFPS() const { return opened ? fps : 0; }
    unsigned int getSerialNumber() const { return opened ? serial_number : 0; }
    int getFirmwareVersion() const { return 2001; }
    int getChannels() const { return channels; }
    // The status field: 0 while frames come, else the last failure
    // (16 never connected, 17 frames stopped, 18 capture error, 19 no
    // timestamp, 20 conversion failed).
    int getStatus() const { return status; }
    int getCameraSubModelID() const { return sub_model; }
    bool isSwapped() const { return swap_sides; }
    // Side 1 fills the left half of a pair (the sensors are mounted the other
    // way round on some boards).
    void setSwapSides(bool swap) { swap_sides = swap; }
    int getBus() const { return bus; }
    // The configuration stored by the latest open.
    ArgusCameraConfig getConfig() const {
        std::lock_guard<std::mutex> lock(config_mutex);
        return config;
    }
    bool isMono() const { return run.mono; }

    // The engine of the camera's inertial chip; the swap flag is passed on
    // to its reader.
    void setMCU(bh::KOVmcu* engine);
    bh::KOVmcu* getMCU() const { return mcu; }

    static void deleteProviderInstance();
    // Rewrites the identification block of the camera on bus port + 30 when
    // it is not valid (or, with force, for devices 7 to 11): serial number,
    // version 0x11, the sub-model of the device, and the serial record of the
    // calibration image. 0 on success.
    static int formatEEpromMemory(int port, int serial, bh::BH_DEVICE device, bool force);

    // ---- frame path (ArgusCameraFramePath.cpp)
    void produceSingle(int side);
    void produceMono();
    void consume();
    // 0 when a frame was produced into out (may be null), 1 when none.
    int readSBS(unsigned char* out, unsigned long long& timestamp);
    int readSingle(unsigned char* out, unsigned long long& timestamp);
    // 0, or a negative code: the frame's image copied into image.data.
    int convert(platform::argus_types::Frame* frame, argusMonoImage& image, int side);
    bool isNewFrame();
    void clearNewFrame() { new_frame = false; }
    void clearImageQueues();
    int dispatchRequest();
    int dispatchSingleRequest(int side);
    // The output buffer; null gives back the camera's own.
    void setPtr(unsigned char* buffer);
    unsigned char* getPtr() const { return ptr; }
    // The timestamp of the latest delivered frame, us of the system clock.
    unsigned long long getImageTimestampinUs() const { return image_timestamp; }
    void enterCriticalSection() { critical_mutex.lock(); }
    void exitCriticalSection() { critical_mutex.unlock(); }
    // The packet of the sync queue nearest to an image time (us of the
    // system clock), compared at millisecond resolution. False when none.
    bool findCorrespondingIMUPacket(unsigned long long ts, int& index, int max, bh::IMUPacket& found);
    // The inertial packet found for the latest delivered frame: the field
    // itself (read it inside the critical section), or a copy taken in it.
    const bh::IMUPacket& getIMUPacket() const { return imu_packet; }
    bh::IMUPacket copyIMUPacket();
    // Waits for the consumer's signal; true when a frame came in time.
    bool waitForFrame(int milliseconds);

    // ---- image controls (ArgusCameraControls.cpp); -1 when closed
    int setFrameExposureRange(int side, unsigned long min, unsigned long max);
    int setManualExposure(int side, int percent);
    int setManualTimeExposure(int side, unsigned long microseconds);
    int setAutomaticExposure();
    int getFrameExposureTime(int side);
    int getFrameExposurePercent(int side);
    int getFrameExposureRange(int side, unsigned long& min, unsigned long& max);
    int getExposureLimits(int side, unsigned long& min, unsigned long& max);

    int setAnalogFrameGainRange(int side, float min, float max);
    int setManualAnalogGain(int side, int percent);
    int setManualAnalogGainReal(int side, int value);
    int setAutomaticAnalogGain();
    float getAnalogFrameGain(int side);
    int getAnalogFrameGainPercent(int side);
    float getAnalogFrameGainRange(int side, float& min, float& max);
    float getAnalogGainLimits(int side, float& min, float& max);

    int setDigitalFrameGainRange(int side, float min, float max);
    int setManualDigitalGain(int side, int percent);
    int setManualDigitalGainReal(int side, int value);
    int setAutomaticDigitalGain();
    float getDigitalFrameGain(int side);
    float getDigitalFrameGainRange(int side, float& min, float& max);
    float getDigitalGainLimits(int side, float& min, float& max);

    int setAutomaticWhiteBalance(int mode, bool reset);
    int setManualWhiteBalance(unsigned int kelvin);
    int getManualWhiteBalance();
    int getAutomaticWhiteBalanceStatus();
    static void estimageRGGBGainFromColorTemperature(unsigned int kelvin, float factor, float& r, float& g1,
                                                     float& g2, float& b);
    static void estimageRGGBGainFromColorTemperature_v2(unsigned int kelvin, float factor, float& r,
                                                        float& g1, float& g2, float& b);

    int setSharpening(int value, bool reset);
    int getSharpening();
    int setDenoisingValue(float value, bool reset);
    float getDenoisingValue();
    int setColorSaturation(float value, bool reset);
    float getColorSaturation();
    int setExposureCompensationTarget(int value, bool reset);
    int getExposureCompensationTarget();
    int setAEAntiBanding(AEANTIBANDING mode);
    int setToneMappingFromGamma(int side, float gamma);
    float getGamma();

    int setROIforAECAGC(int side, bh::Rect roi);
    int getROIforAECAGC(int side, bh::Rect& roi);
    int resetROIforAECAGC(int side);
    static platform::argus_types::AcRegion convertACRegion(const bh::Rect& roi);
    static bh::Rect convertACRegion(const platform::argus_types::AcRegion& region);

    // The settings of one side (copies, under their lock).
    ArgusSideSettings getSideSettings(int side) const;

    // ---- daemon link (ArgusCameraLink.cpp)
    // Makes both sockets from the ports of the daemon's systemd unit; false
    // on any failure (nothing is thrown).
    bool connectToKOVQDaemon();
    // True outside a container, or when the host's L4T version (asked of the
    // daemon) is found in this machine's.
    static bool checkL4TVersionMatchInContainer();
    // The local L4T version from the text of /etc/nv_tegra_release:
    // "# R35 (release), REVISION: 3.1, GCID: ..." gives "35.3.1".
    static std::string reduceL4TRelease(const std::string& releaseText);
    // Whether the daemon's REPORT reply ("...#<host version>#...") names a
    // version found in the local one; false for an empty reply or one
    // without a second '#' field.
    static bool l4tReplyMatches(const std::string& localVersion, const std::string& reply);
    // Takes this camera's share of the link: the first camera of the process
    // makes it, and the L4T check runs once per process.
    void joinLink();
    // Releases this camera's share of the link; the last one tears it down.
    // Called by close; safe to call more than once.
    void releaseLink();

    // "KOVQ#<port>#<device>#<verb>", and "KOVQ#<port>#<device>#RUN#<count>".
    static std::string statusMessage(int port, int device, const std::string& verb);
    static std::string runMessage(int port, int device, uint64_t count);
    // Whether the consumed frame `counter` carries a RUN message: a multiple
    // of the frame rate (about once a second, and the very first frame); a
    // rate of 0 or less sends it for frame 0 only.
    static bool shouldSendRun(uint64_t counter, int fps);
    // Sends this camera's status (OPENING, FROZEN, CLOSING) or its RUN message
    // on the link, without waiting; nothing when there is no link.
    void sendStatus(const std::string& verb);
    void sendRun(uint64_t count);
    // Sends one text on the link's sending socket without waiting (EAGAIN
    // ignored); false when there is no link.
    static bool sendOnLink(const std::string& text);

    // A port of the daemon's unit file ("Service:Port", "Service:PortSub"),
    // or `fallback` when the file or the key cannot be read; *parsed tells
    // whether the file itself was read and parsed.
    static int readServicePort(const std::string& sectionKey, int fallback, bool* parsed = nullptr);

    void setPortIndex(int index) { port_index = index; }
    void setDeviceCode(int code) { device_code = code; }
    int getPortIndex() const { return port_index; }
    int getDeviceCode() const { return device_code; }

    // ---- discovery (ArgusDiscovery.cpp)
    static std::vector<DeviceProperties> getGMSLDevices(bool verbose, bool second = false);
    static std::vector<std::pair<bh::BH_DEVICE, std::string>> getGMSLDevicesExt(bool verbose);
    // The device code of a sub-model byte (table lookup; 17 outside it).
    static bh::BH_DEVICE getCameraSubModelDevice(int subModel);

    // ---- process-wide link state
    static std::unique_ptr<zmq::context_t> zmq_context_pub;
    static std::unique_ptr<zmq::context_t> zmq_context_sub;
    static std::unique_ptr<zmq::socket_t> zmq_socket_pub;
    static std::unique_ptr<zmq::socket_t> zmq_socket_sub;
    static int32_t zmq_type_pub;
    static int32_t zmq_type_sub;
    static int32_t argus_camera_count;
    static bool warning_displayed;

protected:
    // ---- session steps (ArgusCameraSession.cpp)
    // Steps of open; each returns 0 or the status code of its failure.
    int openDevices(platform::Argus& argus);
    int readIdentification();
    int createStreams(platform::Argus& argus);
    int startRequests(platform::Argus& argus);
    int applyWantedRate(platform::Argus& argus);
    // Frees the image buffers and the native buffers of both sides.
    void clearBuffers();
    // Stops the producers and the consumer, joins them.
    void stopCapture();
    // A line on standard output when the verbosity reaches `level`.
    void log(int level, const std::string& text) const;
    // "[KOV-Argus][CAM<port>" + text, at verbosity 1.
    void logCam(const std::string& text) const;
    // Sets the port's state to closed and gives back the code.
    int fail(int code);
    bool stopRequested() const { return stop_control; }

    // ---- frame path helpers (ArgusCameraFramePath.cpp)
    // The queue a side's images go to (the swap flag exchanges them).
    std::deque<argusMonoImage>& queueOf(int side);
    std::mutex& queueMutexOf(int side);
    // What a producer does when an acquire brought no frame; false ends it.
    bool handleMissingFrame(int side, int argusStatus, bool& frameSeen, int& timeouts);
    // Stores exposure and gains of a delivered frame as the current ones.
    void storeFrameValues(int side, const argusMonoImage& image);
    // Finds and keeps the inertial packet of an image time (us, system clock).
    void attachIMUPacket(unsigned long long ts, bool single);
    // us to add to a monotonic time to get the system clock's.
    static int64_t monotonicToSystemOffsetUs();

    // ---- controls helpers (ArgusCameraControls.cpp)
    int sideCount() const { return run.mono ? 1 : 2; }
    int setGainRangeOf(int side, bool digital, float min, float max);
    // A gain range or limits of one side (0), -1 when closed.
    float readGainRange(int side, platform::argus_types::Range<float> ArgusSideSettings::*field, float& min,
                        float& max) const;
    // Runs a setter for each sensor; the last result, -1 when closed.
    int forEachSide(const std::function<int(int)>& set);
    static float atPercent(const platform::argus_types::Range<float>& limits, int percent);

    // ---- frame signalling
    std::condition_variable frame_cv;
    std::mutex frame_cv_mutex;
    bool frame_ready = false;
    std::atomic<bool> new_frame{false};

    // ---- output
    unsigned char* ptr = nullptr;    // where delivered frames are copied
    bool ptr_from_caller = false;    // set by setPtr with a caller's buffer
    bh::IMUPacket imu_packet{};      // of the latest delivered frame
    bh::IMUPacket pending_packet{};  // found for the frame being delivered (consumer only)
    std::atomic<unsigned long long> image_timestamp{0};  // written by the consumer, read by callers

    // ---- threads
    std::thread producer_thread[2];
    std::thread mono_thread;
    std::thread consumer_thread;
    std::thread control_thread;

    // ---- flags shared with the threads
    std::atomic<bool> stop_capture{true};
    std::atomic<bool> stop_control{false};
    std::atomic<bool> opened{false};
    std::atomic<bool> reboot_wanted{false};
    std::atomic<bool> first_frame_seen{false};
    std::atomic<int> status{0};

    // ---- image queues: left and right, each with its own mutex; the left
    // one's lock comes before the right one's
    std::deque<argusMonoImage> left_queue;
    std::deque<argusMonoImage> right_queue;
    std::mutex left_mutex;
    std::mutex right_mutex;
    // A side's request: held during acquireFrame and while a setter
    // dispatches it.
    std::mutex request_mutex[2];
    // Guards the output buffer against the reader of the pixels.
    std::mutex critical_mutex;

    // ---- geometry
    int width = 0;
    int height = 0;
    int channels = 4;  // 2 for a single sensor, 4 for a side-by-side pair
    int fps = 0;
    std::atomic<bool> swap_sides{false};

    // ---- the camera's EEPROM
    I2CHandler i2c;
    int bus = -1;
    int eeprom_address = 0x55;
    uint32_t serial_number = 0;
    int sub_model = 0;
    int wb_mode = 1;  // white balance mode, saved in the EEPROM counter at close
    bool wb_mode_read = false;

    // ---- buffers
    unsigned char* image_buffer[2] = {nullptr, nullptr};  // malloc'ed, width x height x channels
    int native_fd[2] = {-1, -1};                          // native buffers, made at the first frame

    // The configuration of the latest open, reused by reboot.
    ArgusCameraConfig config;
    mutable std::mutex config_mutex;
    // What the threads of the running session read of it, fixed at open
    // before they start.
    struct RunSettings {
        int32_t sync_threshold = 10;
        int32_t verbosity = 0;
        bool mono = false;
        bool start_consumer = true;
    } run;
    std::unique_ptr<ArgusComponent> component;
    bh::KOVmcu* mcu = nullptr;
    // Held by the consumer while it uses the engine, and by setMCU.
    std::mutex mcu_mutex;

    // ---- image settings
    mutable std::mutex settings_mutex;  // the frame values and ranges of both sides
    ArgusSideSettings side_settings[2];
    float gamma = -1.f;  // none yet
    int wb_temperature = 0;
    bool wb_manual = false;
    std::vector<float> tone_curve;
    int sharpening = 1;
    float denoising = 0.5f;
    float saturation = 1.f;
    int exposure_compensation = 50;

    // ---- daemon link
    int32_t port_pub = 20206;
    int32_t port_sub = 20207;
    int32_t port_index = 0;
    int32_t device_code = 17;
    bool holds_link = false;
};
