#include "bh_input/grabber/linux/linuxStereoGrabber.h"
#include "bh_input/grabber/linux/ClockWait.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstring>

#include "bh_input/grabber/virtualGrabber.h"
#include "bh_input/mcu/KOVmcu.h"
#include "platform/Platform.h"
#include "support/KLogger.h"

namespace bh {

namespace {

constexpr int kMaxBuffers = 10;
constexpr int kFirstFrameWaitMs = 2000;
constexpr int64_t kMaxSlewUs = 4000;
constexpr int kMaxIMUSyncTries = 10;

// A driver time stamp is a time of the monotonic clock: never negative, its
// microseconds below one second, and (here) below about 31 years of uptime.
// Beyond that the sums of the producer could overflow.
constexpr int64_t kMaxStampSeconds = 1000000000;

bool plausibleStamp(const timeval& t) {
    return t.tv_sec >= 0 && t.tv_sec <= kMaxStampSeconds && t.tv_usec >= 0 && t.tv_usec < 1000000;
}

// A V4L2 record cleared the way the API asks (reserved fields zero).
template <typename T>
T cleared() {
    T value;
    std::memset(&value, 0, sizeof value);
    return value;
}

}  // namespace

int stick_this_thread_to_core(pid_t pid, int core) {
    const long cores = sysconf(_SC_NPROCESSORS_ONLN);
    if (core < 0 || core >= cores)
        return EINVAL;
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(core, &set);
    return sched_setaffinity(pid, sizeof set, &set);
}

LinuxStereoGrabber::LinuxStereoGrabber(bool cbsFirmware) : cbs(cbsFirmware) {}

LinuxStereoGrabber::~LinuxStereoGrabber() {
    destruct();
}

// ---------------------------------------------------------------------------
// Opening

int LinuxStereoGrabber::xioctl(int device, unsigned long request, void* arg) {
    platform::Sys& sys = platform::sys();
    int result = -1;
    for (int attempt = 0; attempt < 4; ++attempt) {
        result = sys.ioctl(device, request, arg);
        if (result >= 0)
            break;
        // No wait after the last try: errno still tells the caller why.
        if (attempt < 3) {
            const int saved = errno;
            sleepUs(100);
            errno = saved;
        }
    }
    return result;
}

int LinuxStereoGrabber::construct(const std::string& path, int w, int h, float fps, int bufferCount) {
    width = w;
    height = h;
    const int result = init_grabber(path, fps, bufferCount);
    if (result != INIT_OK)
        return result;
    stop.store(false);
    producer_done.store(false);
    consumer_thread = std::thread(&LinuxStereoGrabber::thread_consumer, this);
    producer_thread = std::thread(&LinuxStereoGrabber::thread_producer, this);
    input_get_framerate();
    return result;
}

int LinuxStereoGrabber::init_grabber(const std::string& path, float fps, int bufferCount) {
    platform::Sys& sys = platform::sys();
    new_frame.store(false);
    {
        std::lock_guard<std::mutex> lock(frame_mutex);
        frame_ready = false;
    }
    first_frame_seen.store(false);

    struct stat st;
    if (sys.stat(path.c_str(), &st) != 0)
        return INIT_CANNOT_OPEN;
    fd = sys.open(path.c_str(), O_RDWR | O_NONBLOCK);
    if (fd < 0)
        return INIT_CANNOT_OPEN;

    // xioctl hands back the call's own result, not errno: a busy node reads
    // as "any other failure" unless the call itself returns 16.
    auto failure = [](int result) { return result == 16 ? INIT_BUSY : INIT_V4L2_FAILURE; };

    auto cap = cleared<v4l2_capability>();
    int r = xioctl(fd, VIDIOC_QUERYCAP, &cap);
    if (r != 0)
        return failure(r);
    auto cropcap = cleared<v4l2_cropcap>();
    cropcap.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    r = xioctl(fd, VIDIOC_CROPCAP, &cropcap);
    if (r != 0)
        return failure(r);
    // No crop is set: the default rectangle is only read.

    auto format = cleared<v4l2_format>();
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    format.fmt.pix.width = static_cast<uint32_t>(width);
    format.fmt.pix.height = static_cast<uint32_t>(height);
    format.fmt.pix.pixelformat = V4L2_PIX_FMT_YUYV;
    format.fmt.pix.field = V4L2_FIELD_ANY;
    r = xioctl(fd, VIDIOC_S_FMT, &format);
    if (r != 0)
        return failure(r);
    if (static_cast<int>(format.fmt.pix.width) != width ||
        static_cast<int>(format.fmt.pix.height) != height) {
        width = static_cast<int>(format.fmt.pix.width);
        height = static_cast<int>(format.fmt.pix.height);
        return INIT_SIZE_REFUSED;
    }

    int rate = static_cast<int>(fps);
    if (fps <= 0) {
        switch (width) {
            case 2560:
                rate = 60;
                break;
            case 3840:
                rate = 30;
                break;
            case 1344:
                rate = 100;
                break;
            default:
                rate = 15;
                break;
        }
    }
    input_set_framerate(rate);

    const size_t frameBytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 2;
    {
        std::lock_guard<std::mutex> lock(frame_mutex);
        own_output.assign(frameBytes, 0);
        staging.assign(frameBytes, 0);
        if (!owns_output)
            output = own_output.data();
    }

    const int count = std::clamp(bufferCount, 1, kMaxBuffers);

    start_wall_ns = platform::clock().systemNanoseconds();
    start_mono_ns = platform::clock().steadyNanoseconds();

    auto request = cleared<v4l2_requestbuffers>();
    request.count = static_cast<uint32_t>(count);
    request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    request.memory = V4L2_MEMORY_MMAP;
    if (xioctl(fd, VIDIOC_REQBUFS, &request) != 0)
        return INIT_V4L2_FAILURE;
    // A driver that grants no buffer leaves nothing to stream with.
    if (request.count == 0)
        return INIT_V4L2_FAILURE;
    request.count = std::min<uint32_t>(request.count, kMaxBuffers);

    buffers.assign(request.count, MappedBuffer{});
    buffer_count = request.count;
    sensor_ring.assign(request.count, IMUPose{});
    for (uint32_t i = 0; i < request.count; ++i) {
        auto buf = cleared<v4l2_buffer>();
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        buf.index = i;
        if (xioctl(fd, VIDIOC_QUERYBUF, &buf) != 0) {
            if (i + 1 == request.count)
                return INIT_V4L2_FAILURE;
            continue;
        }
        void* start = sys.mmap(nullptr, buf.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, buf.m.offset);
        if (start == MAP_FAILED || start == nullptr)
            continue;
        buffers[i].start = start;
        buffers[i].length = buf.length;
    }
    disconnected.store(false);
    return INIT_OK;
}

void LinuxStereoGrabber::input_set_framerate(int fps) {
    current_fps = fps;
    auto parm = cleared<v4l2_streamparm>();
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    parm.parm.capture.capturemode = 0x1000;
    parm.parm.capture.timeperframe.numerator = 1;
    parm.parm.capture.timeperframe.denominator = static_cast<uint32_t>(fps > 0 ? fps : 0);
    xioctl(fd, VIDIOC_S_PARM, &parm);  // the driver's answer is read back by input_get_framerate
}

bool LinuxStereoGrabber::startCapture() {
    {
        std::lock_guard<std::mutex> lock(frame_mutex);
        frame_ready = false;
    }
    running.store(true, std::memory_order_release);
    new_frame.store(false);
    for (uint32_t i = 0; i < buffer_count; ++i)
        queueBuffer(i);
    uint32_t priority = V4L2_PRIORITY_RECORD;
    xioctl(fd, VIDIOC_S_PRIORITY, &priority);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    return xioctl(fd, VIDIOC_STREAMON, &type) == 0;
}

int LinuxStereoGrabber::queueBuffer(unsigned index) {
    auto buf = cleared<v4l2_buffer>();
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    buf.memory = V4L2_MEMORY_MMAP;
    buf.index = index;
    std::lock_guard<std::mutex> lock(control_mutex);
    return xioctl(fd, VIDIOC_QBUF, &buf);
}

// ---------------------------------------------------------------------------
// Closing

void LinuxStereoGrabber::destruct() {
    new_frame.store(false);
    {
        std::lock_guard<std::mutex> lock(frame_mutex);
        frame_ready = true;
        stop.store(true);
    }
    frame_ready_cv.notify_all();
    running.store(false, std::memory_order_release);

    if (consumer_thread.joinable() || producer_thread.joinable()) {
        sleepUs(5000);
        for (int i = 0; i < 200 && !producer_done.load(); ++i)
            sleepUs(5000);
    }
    if (consumer_thread.joinable())
        consumer_thread.join();
    if (producer_thread.joinable())
        producer_thread.join();
    releaseBuffers();
}

void LinuxStereoGrabber::releaseBuffers() {
    if (fd < 0)
        return;
    platform::Sys& sys = platform::sys();
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    xioctl(fd, VIDIOC_STREAMOFF, &type);
    for (MappedBuffer& b : buffers)
        if (b.start != nullptr)
            sys.munmap(b.start, b.length);
    buffers.clear();
    buffer_count = 0;
    sys.close(fd);
    fd = -1;
}

// ---------------------------------------------------------------------------
// Output side

void LinuxStereoGrabber::setMCU(KOVmcu* engine) {
    std::lock_guard<std::mutex> lock(frame_mutex);
    mcu = engine;
}

void LinuxStereoGrabber::setModel(MODEL m) {
    std::lock_guard<std::mutex> lock(frame_mutex);
    model = m;
}

void LinuxStereoGrabber::setFrameRateWindow(FrameRateWindow* window) {
    std::lock_guard<std::mutex> lock(frame_mutex);
    frame_rate_window = window;
}

void LinuxStereoGrabber::setPtr(unsigned char* ptr) {
    std::lock_guard<std::mutex> lock(frame_mutex);
    owns_output = ptr != nullptr;
    output = ptr != nullptr ? ptr : (own_output.empty() ? nullptr : own_output.data());
}

unsigned char* LinuxStereoGrabber::getPixels() {
    new_frame.store(false, std::memory_order_release);
    return output;
}

bool LinuxStereoGrabber::copyLatestFrame(unsigned char* dst, size_t size) {
    std::lock_guard<std::mutex> lock(frame_mutex);
    const size_t frameBytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 2;
    if (dst == nullptr || output == nullptr || size < frameBytes)
        return false;
    std::memcpy(dst, output, frameBytes);
    new_frame.store(false, std::memory_order_release);
    return true;
}

uint64_t LinuxStereoGrabber::getFrameCount() {
    std::lock_guard<std::mutex> lock(frame_mutex);
    return frame_count;
}

uint64_t LinuxStereoGrabber::getDeliveredTimestamp() {
    std::lock_guard<std::mutex> lock(frame_mutex);
    return delivered_ts;
}

IMUPose LinuxStereoGrabber::getDeliveredSensors() {
    std::lock_guard<std::mutex> lock(frame_mutex);
    return delivered_sensors;
}

uint64_t LinuxStereoGrabber::getDeliveredFrameNumber() {
    std::lock_guard<std::mutex> lock(frame_mutex);
    return delivered_frame_number;
}

int LinuxStereoGrabber::waitForNewFrame(int ms) {
    std::unique_lock<std::mutex> lock(delivered_mutex);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(ms, 0));
    if (delivered_cv.wait_until(lock, deadline, [this] { return delivered; })) {
        delivered = false;
        return 1;
    }
    const int flag = delivered ? 1 : 0;
    delivered = false;
    return flag;
}

// ---------------------------------------------------------------------------
// The producer

void LinuxStereoGrabber::waitOnNode(int timeoutMs) {
    struct pollfd pfd = {fd, POLLIN, 0};
    const int64_t before = platform::clock().steadyNanoseconds();
    const int r = platform::sys().poll(&pfd, 1, timeoutMs);
    // A node that answers at once with an error (unplugged, not streaming)
    // must not make the producer spin: wait out the time it would have waited.
    if (r < 0 || (r > 0 && (pfd.revents & (POLLERR | POLLHUP | POLLNVAL)))) {
        const int64_t spentUs = (platform::clock().steadyNanoseconds() - before) / 1000;
        const int64_t leftUs = static_cast<int64_t>(timeoutMs) * 1000 - spentUs;
        if (leftUs > 0)
            sleepUs(leftUs);
    }
}

void LinuxStereoGrabber::thread_producer() {
    if (fd < 0) {
        producer_done.store(true);
        return;
    }
    producer_done.store(false);

    // Wait up to 2 s for the first frame, in slices so that a stop is seen.
    for (int waited = 0; waited < kFirstFrameWaitMs && !stop.load(); waited += 100) {
        const int64_t before = platform::clock().steadyNanoseconds();
        int r;
        if (fd < FD_SETSIZE) {
            fd_set readable;
            FD_ZERO(&readable);
            FD_SET(fd, &readable);
            struct timeval tv = {0, 100000};
            r = platform::sys().select(fd + 1, &readable, nullptr, nullptr, &tv);
        } else {
            // An fd_set cannot hold this descriptor: the same wait with poll.
            struct pollfd pfd = {fd, POLLIN, 0};
            r = platform::sys().poll(&pfd, 1, 100);
        }
        if (r > 0)
            break;
        // An immediate error must not turn this into a spin either.
        const int64_t leftUs = 100000 - (platform::clock().steadyNanoseconds() - before) / 1000;
        if (r < 0 && leftUs > 0)
            sleepUs(leftUs);
    }

    {
        std::lock_guard<std::mutex> lock(frame_mutex);
        std::fill(sensor_ring.begin(), sensor_ring.end(), IMUPose{});
    }
    const int waitMs = current_fps > 0 ? 1000 / current_fps + 2 : 69;
    int64_t offset_us = 0;
    uint64_t n = 0;
    int64_t first_t_us = 0;
    int64_t first_wall_ns = 0;
    const size_t frameBytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 2;
    bool bad_stamp_reported = false;

    auto buf = cleared<v4l2_buffer>();
    while (!stop.load()) {
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        buf.memory = V4L2_MEMORY_MMAP;
        int dq;
        {
            std::lock_guard<std::mutex> lock(control_mutex);
            dq = platform::sys().ioctl(fd, VIDIOC_DQBUF, &buf);
        }
        // A short frame, or a failed dequeue (bytesused all ones, length 0
        // after a wait): hand the buffer back and wait.
        const bool shortFrame = buf.bytesused != buf.length;
        const bool failed = dq != 0 || buf.index >= buffer_count;
        if (shortFrame || failed) {
            if (shortFrame)
                queueBuffer(buf.index);
            waitOnNode(waitMs);
            buf.length = 0;
            buf.bytesused = 0xFFFFFFFFu;
            continue;
        }

        current_index = static_cast<int>(buf.index);
        // A stamp no clock can give is replaced by the time of the dequeue.
        int64_t stamp_us = platform::clock().steadyNanoseconds() / 1000;
        if (plausibleStamp(buf.timestamp)) {
            stamp_us = static_cast<int64_t>(buf.timestamp.tv_sec) * 1000000 +
                       static_cast<int64_t>(buf.timestamp.tv_usec);
        } else if (!bad_stamp_reported) {
            KLOG(LOGGER_NAME::SDK_INPUT, warn,
                 "[Capture] the driver's frame time stamp {}.{:06} s is not a clock time: frames without a "
                 "usable stamp take the time they are received",
                 static_cast<int64_t>(buf.timestamp.tv_sec), static_cast<int64_t>(buf.timestamp.tv_usec));
            bad_stamp_reported = true;
        }
        int64_t t_us = stamp_us + offset_us;
        const int64_t rel_ns = (t_us - start_mono_ns / 1000) * 1000;

        // Slew the driver clock to the wall clock, at most 4 ms a frame.
        if (n == 0) {
            first_t_us = t_us;
            first_wall_ns = platform::clock().systemNanoseconds();
        } else {
            const int64_t wallUs = (platform::clock().systemNanoseconds() - first_wall_ns) / 1000;
            const int64_t d = std::clamp(wallUs - (t_us - first_t_us), -kMaxSlewUs, kMaxSlewUs);
            offset_us += d;
        }

        const uint64_t this_frame_ts = static_cast<uint64_t>(start_wall_ns + rel_ns);
        FrameRateWindow* window = nullptr;
        {
            std::unique_lock<std::mutex> lock(frame_mutex);
            frame_ts = this_frame_ts;
            const MappedBuffer& mapped = buffers[buf.index];
            if (!staging.empty() && frameBytes > 0 && mapped.start != nullptr && mapped.length >= frameBytes)
                std::memcpy(staging.data(), mapped.start, frameBytes);
            window = frame_rate_window;
            if (mcu != nullptr && model != 0)
                joinSensors();
            frame_ready = true;
        }
        frame_ready_cv.notify_one();

        {
            std::lock_guard<std::mutex> lock(control_mutex);
            ++n;
            auto requeue = cleared<v4l2_buffer>();
            requeue.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            requeue.memory = V4L2_MEMORY_MMAP;
            requeue.index = buf.index;
            xioctl(fd, VIDIOC_QBUF, &requeue);
        }
        first_frame_seen.store(true, std::memory_order_release);

        if (n > 5) {
            if (window != nullptr)
                window->push(this_frame_ts);
            if (n > 100)
                firmwareSanityCheck(static_cast<unsigned long>(n));
        }
        if (n == 5 && cbs) {
            linux_cbs_write_sensor_register(0, 1, 0x3503, 4);
            linux_cbs_write_sensor_register(1, 1, 0x3503, 4);
            linux_cbs_write_sensor_register(0, 1, 0x3505, 0);
            linux_cbs_write_sensor_register(1, 1, 0x3505, 0);
        }
    }
    producer_done.store(true);
}

// Called by the producer with frame_mutex held.
void LinuxStereoGrabber::joinSensors() {
    IMUPose& slot = sensor_ring[static_cast<size_t>(current_index)];
    const bool canSync = mcu->hasMCUSyncCapabilities();
    if (canSync) {
        slot = mcu->getIMUPoseAtImage(0);
    } else {
        KLOG(LOGGER_NAME::SDK_INPUT, warn, " [WARNING] * IMU - Camera are not synchronized ");
        activateSyncOV580();
        slot = mcu->getIMUPose(6);
    }
    current_sensors = slot;
    imu_us = current_sensors.packet.timestamp / 1000;

    if (prev_frame_ts != 0) {
        // How many frame periods the IMU time moved during one frame period.
        auto ratioNow = [this]() -> int {
            const double imuMs = static_cast<double>(
                (static_cast<int64_t>(imu_us) - static_cast<int64_t>(prev_imu_us)) / 1000);
            const double frameMs = static_cast<double>(
                (static_cast<int64_t>(frame_ts) - static_cast<int64_t>(prev_frame_ts)) / 1000000);
            const double r = std::floor(imuMs / frameMs + 0.5);
            return std::isfinite(r) && std::fabs(r) < 1e6 ? static_cast<int>(r) : 0;
        };
        int ratio = ratioNow();
        int tries = 0;
        while (ratio >= 2 && ratio <= 9) {
            ++tries;
            if (tries > kMaxIMUSyncTries) {
                KLOG(LOGGER_NAME::SDK_INPUT, info, "IMU sync timeout");
                break;
            }
            slot = canSync ? mcu->getIMUPoseAtImage(tries) : mcu->getIMUPose((tries + 1) * 6);
            current_sensors = slot;
            imu_us = current_sensors.packet.timestamp / 1000;
            ratio = ratioNow();
            sleepUs(10);
        }

        const int ntpCount = mcu->getIMUReaderNtpCount();
        if (ntpCount == 3) {
            ntp_samples.push_back(
                static_cast<int32_t>((static_cast<int64_t>(current_sensors.packet.host_timestamp) -
                                      static_cast<int64_t>(frame_ts)) /
                                     1000000));
        } else if (ntpCount >= 4 && !ts_offset_set) {
            if (ntp_samples.size() > 5) {
                int64_t sum = 0;
                for (int32_t s : ntp_samples)
                    sum += s;
                const int64_t mean = sum / static_cast<int64_t>(ntp_samples.size());
                mcu->setIMUReaderTSOffset(static_cast<uint64_t>(mean * 1000000));
                ntp_samples.clear();
                KLOG(LOGGER_NAME::SDK_INPUT, info, " ntp adjust");
            }
            ts_offset_set = true;
        }
    }
    prev_frame_ts = frame_ts;
    prev_imu_us = imu_us;
}

void LinuxStereoGrabber::activateSyncOV580() {
    if (model < 1 || model > 3)
        return;
    unsigned char value = 0;
    if (cbs) {
        if (linux_cbs_read_sensor_register(0, 1, 0x3002, &value) == 0)
            linux_cbs_write_sensor_register(0, 1, 0x3002, static_cast<unsigned char>(value | 0x80));
    } else {
        if (linux_SensorRead(0x6C, 0x3002, &value, 1, 0) == 0 && value < 128)
            linux_SensorWrite(0x6C, 0x3002, 128, 1, 0);
    }
}

// ---------------------------------------------------------------------------
// The consumer

void LinuxStereoGrabber::thread_consumer() {
    while (!stop.load()) {
        // Until the first frame, look every millisecond. The wait is on the
        // frame condition in real time, not a sleep on platform::clock(): a
        // stepped test clock must not run ahead while nothing streams.
        while (!first_frame_seen.load(std::memory_order_acquire)) {
            if (stop.load())
                return;
            std::unique_lock<std::mutex> idle(frame_mutex);
            frame_ready_cv.wait_for(idle, std::chrono::milliseconds(1));
        }
        std::unique_lock<std::mutex> lock(frame_mutex);
        frame_ready_cv.wait(lock, [this] { return frame_ready; });
        if (stop.load())
            return;
        const size_t frameBytes = static_cast<size_t>(width) * static_cast<size_t>(height) * 2;
        if (output != nullptr && staging.size() >= frameBytes)
            std::memcpy(output, staging.data(), frameBytes);
        ++frame_count;
        delivered_sensors = current_sensors;
        delivered_frame_number = frame_count;
        delivered_ts = frame_ts;
        frame_ready = false;
        new_frame.store(true, std::memory_order_release);
        {
            std::lock_guard<std::mutex> signal(delivered_mutex);
            delivered = true;
        }
        delivered_cv.notify_all();
    }
}

}  // namespace bh
