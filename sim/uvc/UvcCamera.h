#pragma once

// A USB stereo camera as the uvcvideo driver shows it: /dev/videoN with the
// V4L2 capture ioctls (formats, frame intervals, mmap buffers, the buffer
// queue, stream on/off, priorities, poll/select readiness) and the vendor
// control channel (ExtensionUnits.h) over the camera's firmware state.
//
// Frames are made lazily, without a thread of the simulator: frame k of a
// stream starts at t0 + k*T (t0 the STREAMON time, T the frame interval, on
// platform::clock()'s steady time) and is complete at t0 + (k+1)*T. Any call
// that looks at the queue first completes the frames that are due, each into
// the oldest queued buffer; a frame that finds no queued buffer is lost, and
// its sequence number is skipped. Waiting (poll with a timeout, a blocking
// DQBUF) sleeps on platform::clock() until the next frame is due, so that a
// sim::SteppedClock makes streaming free and exact.
//
// Stream state (format, interval, buffers, queue) belongs to the device, as in
// the driver: the handle that sets the format or requests buffers owns the
// stream until it frees the buffers or closes, and other handles get EBUSY for
// the stream ioctls meanwhile.

#include <sys/time.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "sim/Models.h"
#include "sim/uvc/CameraFirmware.h"
#include "sim/uvc/ExtensionUnits.h"
#include "sim/uvc/FrameGenerator.h"
#include "sim/uvc/UvcControls.h"

namespace sim {

class Machine;

// Faults of the stream. Rates are per second of stream; times are seconds of
// "camera time", counted from the first STREAMON of the node (negative: never).
struct UvcFaults {
    // Frame k of a stream (from 0) is hit by a rate r at F frames a second iff
    // floor((k+1)*r/F) > floor(k*r/F), r taken to a thousandth: over the first
    // N frames exactly floor(N*r/F) are hit. A frame is dropped, else short,
    // else torn, when schedules meet.
    double dropsPerSecond = 0;  // made (sequence advances) but never delivered
    double shortPerSecond = 0;  // delivered with bytesused < length (and V4L2_BUF_FLAG_ERROR)
    double tornPerSecond = 0;   // delivered with the middle fifth of rows from a distant frame
    double stallAt = -1;        // frames starting in [stallAt, stallAt + stallSeconds) are not made
    double stallSeconds = 0;
    double unplugAt = -1;   // the device leaves the bus then
    double ispLockAt = -1;  // from then the lock registers read 0 (0: from power-on)
    bool ispLockSensors[2] = {true, true};
};

struct UvcCameraConfig {
    VideoNodeConfig node;
    FirmwareConfig firmware;
    UvcFaults faults;
    int width = 2560, height = 720, fps = 30;  // the format at power-on
};

// One frame size of the camera and its rates (fastest first).
struct UvcFrameSize {
    int width = 0, height = 0;
    std::vector<int> rates;
};

class UvcCamera : public VideoNode {
public:
    // usb: the camera's device on the machine's bus (detached on unplug); may be null.
    UvcCamera(const UvcCameraConfig& config, UsbBus* bus, std::shared_ptr<UsbDevice> usb);
    ~UvcCamera() override;

    // Adds the USB device and the node to the machine.
    static std::shared_ptr<UvcCamera> addTo(Machine& machine, const UvcCameraConfig& config, UsbDevice usb);
    // The sizes the camera offers: the side-by-side sizes of the stereo
    // resolutions, largest first.
    static std::vector<UvcFrameSize> frameSizes();

    bool present() const override;

    const std::shared_ptr<CameraFirmware>& firmware() const { return firmware_; }

    struct Counters {
        uint64_t produced = 0;     // frames the sensors made (sequence numbers given out)
        uint64_t delivered = 0;    // frames written into a buffer (short and torn ones included)
        uint64_t dropped = 0;      // lost by the drop schedule
        uint64_t lost = 0;         // lost for want of a queued buffer
        uint64_t shortFrames = 0;  // delivered short
        uint64_t torn = 0;         // delivered torn
        uint64_t stalled = 0;      // frame slots of a stall (nothing made)
        uint64_t streams = 0;      // STREAMONs taken
    };
    Counters counters() const;
    bool streaming() const;
    int width() const;
    int height() const;
    int fps() const;
    size_t bufferCount() const;
    // Takes the device off the bus now.
    void unplug();
    // An image control's current value (-1 for an unknown control), and a
    // way for a test to change it as another program would.
    int32_t controlValue(uint32_t id) const;
    void setControlValue(uint32_t id, int32_t value);

    // The open file's operations (called by its handle).
    struct Handle;
    int ioctl(Handle* h, unsigned long request, void* arg);
    void* mmap(Handle* h, size_t length, int prot, int flags, off_t offset, int* err);
    int munmap(void* addr, size_t length);
    short poll(Handle* h, short events, int timeoutMs);
    void release(Handle* h);

protected:
    std::unique_ptr<OpenFile> openFile(int flags) override;

private:
    struct Memory;
    struct Buffer;
    using Lock = std::unique_lock<std::mutex>;

    int64_t now() const;
    void tick(int64_t now);     // time-driven faults (unplug, ISP lock); mutex held
    void advance(int64_t now);  // completes the frames due; mutex held
    void makeFrame(uint64_t k);
    int64_t frameStart(uint64_t k) const;
    int64_t frameDone(uint64_t k) const { return frameStart(k + 1); }
    int64_t nextWake() const;  // the next time something can change on its own
    bool hit(double rate, uint64_t k) const;
    bool gone() const { return !VideoNode::present(); }
    void doUnplug();
    void streamOff();
    void freeBuffers();
    bool otherOwner(Handle* h) const { return owner_ != nullptr && owner_ != h; }
    int priorityBusy(Handle* h) const;
    void fillBuffer(const Buffer& b, uint32_t index, v4l2_buffer* out) const;
    void fillFormat(v4l2_format* f, const UvcFrameSize& size) const;
    const UvcFrameSize& nearestSize(uint32_t width, uint32_t height) const;
    int nearestRate(const UvcFrameSize& size, uint32_t numerator, uint32_t denominator) const;

    int ioctlFormat(Handle* h, unsigned long request, v4l2_format* f);
    int ioctlParm(Handle* h, unsigned long request, v4l2_streamparm* p);
    int ioctlReqbufs(Handle* h, v4l2_requestbuffers* r);
    int ioctlQbuf(Handle* h, v4l2_buffer* b);
    int ioctlDqbuf(Handle* h, Lock& lock, v4l2_buffer* b);
    int ioctlStream(Handle* h, unsigned long request, const int* type);

    UvcCameraConfig config_;
    UsbBus* bus_;
    std::shared_ptr<UsbDevice> usb_;
    std::shared_ptr<CameraFirmware> firmware_;
    std::vector<UvcFrameSize> sizes_;

    mutable std::mutex mutex_;
    int width_, height_, fps_;
    Handle* owner_ = nullptr;
    int priorities_[4] = {};  // open handles at each priority
    std::vector<Buffer> buffers_;
    std::deque<uint32_t> queued_, done_;
    std::map<void*, std::shared_ptr<Memory>> mappings_;
    bool streaming_ = false;
    int64_t t0_ = 0;          // STREAMON time of this stream
    uint64_t nextFrame_ = 0;  // the next frame slot to complete
    uint32_t sequence_ = 0;
    int64_t epoch_ = -1;  // camera time 0: the first STREAMON
    FrameGenerator generator_;
    UvcControls controls_;
    Counters counters_;
};

}  // namespace sim
