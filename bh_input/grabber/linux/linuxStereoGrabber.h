#pragma once

// bh::LinuxStereoGrabber moves frames from one UVC video node to the caller.
// The camera delivers both sensors side by side in one YUYV image (W x H
// pixels hold two views of W/2 x H). A producer thread dequeues the driver's
// memory-mapped buffers, stamps them and copies them into a staging buffer; a
// consumer thread copies the staging buffer into the output buffer and wakes
// whoever waits for a frame.
//
// The same class speaks the camera's vendor control channel (UVC extension
// unit 3 on old firmware, unit 4 on CBS firmware; linuxVendorControl.cpp) and
// keeps watch over the firmware (linuxFirmware.cpp). Every device call goes
// through platform::sys(); every wait through platform::clock().

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <initializer_list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

#include "bh_input/grabber/defines.h"
#include "bh_input/mcu/IMUPacket.h"

namespace bh {

class KOVmcu;
class FrameRateWindow;

// Pins the calling thread (pid 0) or thread `pid` to one core. Returns 22
// (EINVAL) when the core is negative or not below the number of online
// processors, else the result of sched_setaffinity.
int stick_this_thread_to_core(pid_t pid, int core);

class LinuxStereoGrabber {
public:
    // Result of init_grabber / construct.
    enum InitResult : int {
        INIT_OK = 0,
        INIT_CANNOT_OPEN = 4,
        INIT_BUSY = 5,
        INIT_V4L2_FAILURE = 6,
        INIT_SIZE_REFUSED = 7,
    };

    explicit LinuxStereoGrabber(bool cbs);
    ~LinuxStereoGrabber();
    LinuxStereoGrabber(const LinuxStereoGrabber&) = delete;
    LinuxStereoGrabber& operator=(const LinuxStereoGrabber&) = delete;

    // ---- streaming
    // Opens the node at this size, starts the producer and the consumer, and
    // reads the driver's frame rate once. Returns the code of init_grabber.
    int construct(const std::string& path, int width, int height, float fps, int buffers);
    int init_grabber(const std::string& path, float fps, int buffers);
    bool startCapture();
    // Stops both threads (back within about 1 s whatever the stream does) and
    // releases the node.
    void destruct();

    // The output buffer; null selects the grabber's own.
    void setPtr(unsigned char* ptr);
    unsigned char* getPixels();
    // Copies the last delivered frame under the frame mutex (a reader that
    // must not race the consumer); false when dst is null or too small.
    bool copyLatestFrame(unsigned char* dst, size_t size);
    // A caller that reads the output buffer holds the frame mutex meanwhile,
    // so that the consumer does not write the next frame into it (not
    // re-entrant; call nothing of the grabber in between).
    void enterCriticalSection() { frame_mutex.lock(); }
    void exitCriticalSection() { frame_mutex.unlock(); }
    bool isNewFrame() const { return new_frame.load(std::memory_order_acquire); }
    bool isExposureLocked() const { return exposure_locked.load(std::memory_order_relaxed); }
    void WakeGrab() {}
    // Size of one view.
    void getImageSize(int& w, int& h) const {
        w = width / 2;
        h = height;
    }
    int getEffWidth() const { return width / 2; }
    int getEffHeight() const { return height; }
    int getWidth() const { return width; }
    int getHeight() const { return height; }
    int getCurrentFPS() const { return current_fps; }
    bool isCBS() const { return cbs; }
    // The video node, -1 when closed (V4L2 controls of the session).
    int getFd() const { return fd; }
    bool isRunning() const { return running.load(std::memory_order_acquire); }

    // Marked on a lost stream: CBS requests answer -3 until it is cleared.
    void setDisconnected(bool on) { disconnected.store(on, std::memory_order_release); }
    bool isDisconnected() const { return disconnected.load(std::memory_order_acquire); }

    // The sensor engine for the sensor join (not owned) and the camera model.
    // These three may be set while the producer runs: they take the frame
    // mutex, under which the producer reads them.
    void setMCU(KOVmcu* engine);
    void setModel(MODEL m);
    MODEL getModel() const { return model; }
    void setFrameRateWindow(FrameRateWindow* window);

    // Frames handed to the output so far, and the last one's records.
    uint64_t getFrameCount();
    uint64_t getDeliveredTimestamp();
    IMUPose getDeliveredSensors();
    uint64_t getDeliveredFrameNumber();

    // Waits up to `ms` for the consumer to deliver a frame: 1 on a delivery,
    // else the flag as it stands at the deadline (then cleared).
    int waitForNewFrame(int ms);

    // ioctl through platform::sys(), up to 4 tries 100 us apart while it
    // fails; returns the last result.
    int xioctl(int fd, unsigned long request, void* arg);
    void input_set_framerate(int fps);
    // The frames per second the driver reports, or -1.
    int input_get_framerate();

    // ---- vendor control channel, old firmware (unit 3)
    int linux_VendorControl(unsigned char* data, int size, int mode, bool delay = false);
    int linux_SystemRead(int address, unsigned char* out);
    int linux_SystemWrite(int address, unsigned char value);
    int linux_SensorRead(int chip, int reg, unsigned char* out, int width, int sensor);
    int linux_SensorWrite(int chip, int reg, unsigned char value, int width, int sensor);
    int linux_ISPAECAGCEnable(bool on);
    bool linux_getISPAECAGC();
    int linux_ISPManualExposure(unsigned char a, unsigned char b, unsigned char c, int sensor);
    int linux_ISPManualGain(unsigned char a, unsigned char b, unsigned char c, int sensor);
    int linux_ISPExposureGet(unsigned char* out, int sensor);
    int linux_ISPGainGet(unsigned char* out, int sensor);
    int linux_SPI_FlashErase(int kind, int address);
    int linux_SPI_FlashSetAdr(int address);
    int linux_SPI_FlashProgramStart(const unsigned char* data, int size);
    int linux_SPI_FlashProgramRead(unsigned char* out, int address, int size);

    // ---- vendor control channel, CBS firmware (unit 4)
    int linux_cbs_VendorControl(unsigned char* data, int size, int mode, bool delay = false);
    int linux_cbs_read_system_register(uint32_t address, unsigned char* out);
    int linux_cbs_write_system_register(uint32_t address, unsigned char value);
    int linux_cbs_read_sensor_register(int sensor, int width, uint32_t address, unsigned char* out);
    int linux_cbs_write_sensor_register(int sensor, int width, uint32_t address, unsigned char value);
    int linux_cbs_set_gpio_direction(int gpio, int direction);
    int linux_cbs_set_gpio_interrupt(int gpio, int enable, int mode);
    int linux_cbs_set_gpio_value(int gpio, int value);
    int linux_cbs_get_gpio_value(int gpio, unsigned char* out);
    int linux_cbs_SPI_FlashErase(int kind, uint32_t address);
    int linux_cbs_SPI_FlashProgramStart(const unsigned char* data, uint32_t address, int size);
    int linux_cbs_SPI_FlashProgramRead(unsigned char* out, uint32_t address, int size);

    // ---- composite operations
    int linux_cbs_is_aecagc(int sensor);
    int linux_cbs_ispaecagc_enable(int sensor, bool on);
    int ISPAECAGCEnable(bool on);  // both generations
    bool getISPAECAGC();           // both generations
    int setLEDValue(bool on);
    int getLEDValue(unsigned char* out);
    void activateSyncOV580();
    int InitializeSPIQuery(unsigned char* out, int size);

    // ---- firmware watch and flash-kept values
    void firmwareSanityCheck(unsigned long frame);
    int getKOVSerialNumber();
    bool writeKOVSerialNumber(int serial);
    bool writeExposureInFW(int exposure);
    int getExposureFromFW();
    int getKOVFirmwareVersion();

    // Lock counters of the two sensors (read by tests and the session).
    uint8_t lockCount(int sensor) const { return ispl_lock_count[sensor & 1]; }

private:
    // Tests reach the private state through this one door.
    friend class LinuxStereoGrabberTestAccess;

    void thread_producer();
    void thread_consumer();
    // One frame of the producer: the sensor join, ratio check and clock offset.
    void joinSensors();
    // Queue ioctls of the producer under control_mutex.
    int queueBuffer(unsigned index);
    void releaseBuffers();
    // Sends a CBS write packet made of these first bytes.
    int sendCbsWrite(std::initializer_list<int> head);
    void waitOnNode(int timeoutMs);
    // Flash records of the serial number and the stored exposure.
    bool writeFlashRecord(uint32_t address, const char marker[2], int value);
    int readFlashRecord(uint32_t address, const char marker[2], int tries, int failure);

    // ---- data
    std::vector<unsigned char> staging;
    std::vector<unsigned char> own_output;
    unsigned char* output = nullptr;
    uint64_t frame_count = 0;
    KOVmcu* mcu = nullptr;
    IMUPose delivered_sensors;
    uint64_t delivered_frame_number = 0;
    IMUPose current_sensors;
    MODEL model = static_cast<MODEL>(32);
    FrameRateWindow* frame_rate_window = nullptr;
    const bool cbs;
    std::atomic<bool> new_frame{false};
    std::mutex frame_mutex;
    std::mutex control_mutex;
    std::condition_variable frame_ready_cv;
    bool frame_ready = false;
    std::atomic<bool> exposure_locked{false};
    bool ts_offset_set = false;
    std::vector<int32_t> ntp_samples;
    std::condition_variable delivered_cv;
    std::mutex delivered_mutex;
    bool delivered = false;
    uint64_t frame_ts = 0;
    uint64_t prev_frame_ts = 0;
    uint64_t imu_us = 0;
    uint64_t prev_imu_us = 0;
    uint64_t delivered_ts = 0;
    uint8_t ispl_lock_count[2] = {0, 0};
    int64_t start_wall_ns = 0;
    int64_t start_mono_ns = 0;
    std::thread consumer_thread;
    std::thread producer_thread;
    int fd = -1;
    struct MappedBuffer {
        void* start = nullptr;
        size_t length = 0;
    };
    std::vector<MappedBuffer> buffers;
    uint32_t buffer_count = 0;
    int current_fps = 0;
    int width = 0;
    int height = 0;
    int current_index = -1;
    std::vector<IMUPose> sensor_ring;
    std::atomic<bool> first_frame_seen{false};
    std::atomic<bool> stop{false};
    std::atomic<bool> producer_done{false};
    bool owns_output = false;
    std::atomic<bool> disconnected{false};
    std::atomic<bool> running{false};
};

}  // namespace bh
