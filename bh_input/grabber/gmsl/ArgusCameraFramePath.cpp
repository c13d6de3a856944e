// The frame path of an ArgusCamera: one producer per sensor takes images out
// of its EGL stream into a small queue, the consumer pairs the newest left
// and right images whose sensor timestamps agree, attaches the inertial
// packet of that moment, and hands the side-by-side image to the reader. The
// producers also decide that a camera froze.

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bh_input/grabber/gmsl/ArgusCamera.h"
#include "bh_input/grabber/gmsl/ArgusProvider.h"
#include "bh_input/mcu/KOVmcu.h"
#include "platform/Clock.h"

namespace at = platform::argus_types;

namespace {

constexpr uint64_t kAcquireTimeoutNs = 1000000000ULL;  // 1 s
constexpr int kFreezeTimeouts = 31;                    // acquires without a frame: 31 s
constexpr size_t kQueueLimit = 3;                      // a queue keeps at most 4 images
constexpr int kNativeFormatYUYV = 14;
constexpr int kSyncSearchDepth = 100;

void sleepFor(std::chrono::nanoseconds d) {
    platform::clock().sleepFor(d);
}

bool isCaptureError(int status) {
    return status == at::STATUS_OUT_OF_MEMORY || status == at::STATUS_CANCELLED ||
           status == at::STATUS_DISCONNECTED || status == at::STATUS_END_OF_STREAM;
}

void freeImage(argusMonoImage& image) {
    std::free(image.data);
    image.data = nullptr;
}

// Pops and frees every entry up to and including the one with `timestamp`.
void popThrough(std::deque<argusMonoImage>& queue, uint64_t timestamp) {
    auto used = std::find_if(queue.begin(), queue.end(),
                             [&](const argusMonoImage& image) { return image.timestamp == timestamp; });
    if (used == queue.end())
        return;
    const auto count = std::distance(queue.begin(), used) + 1;
    for (auto i = 0; i < count; ++i) {
        freeImage(queue.front());
        queue.pop_front();
    }
}

const argusMonoImage* findByTimestamp(const std::deque<argusMonoImage>& queue, uint64_t timestamp) {
    for (const argusMonoImage& image : queue)
        if (image.timestamp == timestamp)
            return &image;
    return nullptr;
}

}  // namespace

int64_t ArgusCamera::monotonicToSystemOffsetUs() {
    platform::Clock& clock = platform::clock();
    return clock.systemNanoseconds() / 1000 - clock.steadyNanoseconds() / 1000;
}

std::deque<argusMonoImage>& ArgusCamera::queueOf(int side) {
    // Without swap side 0 fills the left queue; with it side 1 does.
    return (side == 0) != swap_sides ? left_queue : right_queue;
}

std::mutex& ArgusCamera::queueMutexOf(int side) {
    return (side == 0) != swap_sides ? left_mutex : right_mutex;
}

void ArgusCamera::setPtr(unsigned char* buffer) {
    std::lock_guard<std::mutex> lock(critical_mutex);
    ptr_from_caller = buffer != nullptr;
    ptr = buffer != nullptr ? buffer : image_buffer[0];
}

// ---------------------------------------------------------------------------
// Producers

void ArgusCamera::produceSingle(int side) {
    platform::Argus& argus = *component->argus;
    at::OutputStream* stream = component->stream[side];
    at::FrameConsumer* consumer = component->consumer[side];
    log(3, " Wait for connection");
    const at::Status connected = argus.waitUntilConnected(stream, UINT64_MAX);
    log(3, " Wait for consumer");
    if (connected != at::STATUS_OK || consumer == nullptr) {
        status = 16;
        return;
    }
    log(3, " Done for connection");

    reboot_wanted = false;
    bool frameSeen = false;
    int timeouts = 0;
    while (!stop_capture) {
        at::Status st = at::STATUS_OK;
        at::Frame* frame = nullptr;
        {
            std::lock_guard<std::mutex> lock(request_mutex[side]);
            frame = argus.acquireFrame(consumer, kAcquireTimeoutNs, &st);
        }
        if (stop_capture) {
            // Closing: what the acquire answered says nothing of the camera.
            if (frame != nullptr)
                argus.releaseFrame(frame);
            break;
        }
        if (frame == nullptr) {
            if (!handleMissingFrame(side, st, frameSeen, timeouts))
                break;
            continue;
        }

        argusMonoImage image;
        uint64_t timestampNs = 0;
        uint64_t exposureNs = 0;
        if (!argus.getSensorTimestamp(frame, timestampNs)) {
            std::printf("Failed to get left IFrame interface.\n");
            argus.releaseFrame(frame);
            continue;
        }
        argus.getSensorExposureTime(frame, exposureNs);
        argus.getSensorAnalogGain(frame, image.analog_gain);
        argus.getIspDigitalGain(frame, image.digital_gain);
        image.timestamp = timestampNs / 1000;
        image.exposure = exposureNs / 1000;

        const int converted = convert(frame, image, side);
        if (converted == 0) {
            {
                std::lock_guard<std::mutex> lock(queueMutexOf(side));
                std::deque<argusMonoImage>& queue = queueOf(side);
                if (queue.size() > kQueueLimit) {
                    freeImage(queue.front());
                    queue.pop_front();
                }
                queue.push_back(image);
            }
            if (run.verbosity > 1)
                log(2, "[KOV-Argus][Debug] --> New image available for port : " + std::to_string(port_index) +
                           " for SIDE " + std::to_string(side) +
                           " and timestamp : " + std::to_string(image.timestamp) + "  with sync level :" +
                           std::to_string(run.sync_threshold) + " and settings : " + std::to_string(width) +
                           "x" + std::to_string(height) + "@" + std::to_string(fps));
            frameSeen = true;
            timeouts = 0;
            status = 0;
        } else {
            freeImage(image);
            status = 20;
            log(2, "[KOV-Argus][Debug] --> NO NEW image available for port : " + std::to_string(port_index) +
                       " for SIDE " + std::to_string(side) + " -> " + std::to_string(converted));
        }
        sleepFor(std::chrono::milliseconds(1));
        argus.releaseFrame(frame);
    }
}

// Only side 0 judges the camera, and not while another camera is opening
// (which stalls its neighbours): a capture error at once, a silence of 31
// acquires as a freeze. Either stops this capture and asks the watchdog for
// a reboot.
bool ArgusCamera::handleMissingFrame(int side, int argusStatus, bool& frameSeen, int& timeouts) {
    if (!frameSeen || side != 0 || ArgusProvider::hasCameraOpening())
        return true;
    log(1, "[KOV-Argus] CAM " + std::to_string(port_index) + " State : " + std::to_string(argusStatus));
    if (isCaptureError(argusStatus)) {
        status = 18;
    } else {
        if (++timeouts < kFreezeTimeouts)
            return true;
        status = 17;
    }
    if (!reboot_wanted) {
        reboot_wanted = true;
        if (status == 18)
            log(1, "[KOV-Argus] CAM " + std::to_string(port_index) + " has trigger a capture error " +
                       std::to_string(argusStatus));
        else
            log(1, "[KOV-Argus] CAM " + std::to_string(port_index) + " has timeout for " +
                       std::to_string(timeouts) + "tries");
        stop_capture = true;
        return true;
    }
    frameSeen = false;
    sleepFor(std::chrono::milliseconds(10));
    return true;
}

void ArgusCamera::produceMono() {
    platform::Argus& argus = *component->argus;
    if (argus.waitUntilConnected(component->stream[0], UINT64_MAX) != at::STATUS_OK) {
        status = 16;
        log(1, "[KOV_Argus] Connection timeout (EGLStream)");
        return;
    }
    at::FrameConsumer* consumer = component->consumer[0];
    if (consumer == nullptr) {
        status = 16;
        log(1, "[KOV_Argus] Connection timeout (Consumer)");
        return;
    }
    const uint64_t timeoutNs = 5ULL * (fps > 0 ? 1000000000ULL / static_cast<uint64_t>(fps) : 1000000000ULL);
    log(3, "[KOV-Argus][MONO] timeout is " + std::to_string(timeoutNs));

    while (!stop_capture) {
        at::Status st = at::STATUS_OK;
        at::Frame* frame = nullptr;
        {
            std::lock_guard<std::mutex> lock(request_mutex[0]);
            frame = argus.acquireFrame(consumer, timeoutNs, &st);
        }
        if (frame == nullptr)
            continue;
        uint64_t timestampNs = 0;
        if (!argus.getSensorTimestamp(frame, timestampNs)) {
            std::printf("Failed to get IFrame interface.\n");
            argus.releaseFrame(frame);
            continue;
        }
        argusMonoImage image;
        uint64_t exposureNs = 0;
        argus.getSensorExposureTime(frame, exposureNs);
        argus.getSensorAnalogGain(frame, image.analog_gain);
        argus.getIspDigitalGain(frame, image.digital_gain);
        image.timestamp = timestampNs / 1000;
        image.exposure = exposureNs / 1000;
        if (timestampNs == 0) {
            status = 19;
        } else {
            first_frame_seen = true;
            if (convert(frame, image, 0) == 0) {
                // The one queue of a single sensor: every image is delivered
                // in order, none is dropped here.
                std::lock_guard<std::mutex> lock(left_mutex);
                left_queue.push_back(image);
                status = 0;
            } else {
                freeImage(image);
                status = 20;
            }
        }
        sleepFor(std::chrono::microseconds(10));
        argus.releaseFrame(frame);
    }
}

// The frame's image, copied through the side's native buffer into a
// malloc'ed, tightly packed YUYV image.
int ArgusCamera::convert(at::Frame* frame, argusMonoImage& image, int side) {
    platform::Argus& argus = *component->argus;
    int fd = native_fd[side];
    if (fd == -1 || fd == -2) {
        at::Status st = at::STATUS_OK;
        fd = argus.createNvBuffer(frame, component->stream_size, kNativeFormatYUYV, 0, 0, &st);
        if (fd < 0 || st != at::STATUS_OK) {
            status = 18;
            return fd < 0 ? fd : -1;
        }
    }
    if (argus.copyToNvBuffer(frame, fd) != at::STATUS_OK) {
        status = 18;
        native_fd[side] = fd;
        return -2;
    }
    if (fd != 0) {
        native_fd[side] = fd;
        uint32_t w = 0, h = 0, pitch = 0;
        if (argus.surfaceMapParams(fd, w, h, pitch) != 0)
            return -3;
        image.pitch = static_cast<int32_t>(w * 2);
        image.data = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(h) * image.pitch));
        if (image.data == nullptr)
            return -3;
        if (argus.surfaceToRaw(fd, 0, w, h, image.data) != 0) {
            freeImage(image);
            return -3;
        }
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Pairing and delivery

int ArgusCamera::readSBS(unsigned char* out, unsigned long long& timestamp) {
    size_t leftSize = 0, rightSize = 0;
    {
        std::lock_guard<std::mutex> lock(left_mutex);
        leftSize = left_queue.size();
    }
    {
        std::lock_guard<std::mutex> lock(right_mutex);
        rightSize = right_queue.size();
    }
    if (leftSize == 0 || rightSize == 0)
        return 1;
    log(4, "[KOV-Argus][Debug] Got a new SBS frame ");
    first_frame_seen = true;

    // From the newest pair backwards: the newest left image with a right
    // partner within the sync threshold wins.
    const int64_t threshold = run.sync_threshold;
    bool found = false;
    uint64_t leftTs = 0, rightTs = 0;
    for (size_t l = leftSize; l-- > 0 && !found;) {
        {
            std::lock_guard<std::mutex> lock(left_mutex);
            if (l >= left_queue.size())
                return 1;
            leftTs = left_queue[l].timestamp;
        }
        for (size_t r = rightSize; r-- > 0;) {
            {
                std::lock_guard<std::mutex> lock(right_mutex);
                if (r >= right_queue.size())
                    return 1;
                rightTs = right_queue[r].timestamp;
            }
            const int64_t distance = static_cast<int64_t>(leftTs) - static_cast<int64_t>(rightTs);
            if (std::llabs(distance) <= threshold) {
                found = true;
                break;
            }
            sleepFor(std::chrono::microseconds(100));
        }
    }
    if (!found) {
        log(2, "[KOV-Argus]" + std::to_string(port_index) + " Invalid right image found");
        return 1;
    }

    timestamp = leftTs;
    bool delivered = true;
    {
        // Left before right, always.
        std::lock_guard<std::mutex> leftLock(left_mutex);
        std::lock_guard<std::mutex> rightLock(right_mutex);
        // The producers may have moved the queues since the search: the pair
        // is found again by its timestamps.
        const argusMonoImage* left = findByTimestamp(left_queue, leftTs);
        const argusMonoImage* right = findByTimestamp(right_queue, rightTs);
        if (left == nullptr || right == nullptr) {
            delivered = false;
        } else if (out != nullptr && left->data != nullptr && right->data != nullptr) {
            timestamp = leftTs + monotonicToSystemOffsetUs();
            storeFrameValues(0, *left);
            storeFrameValues(1, *right);
            const size_t rowBytes = static_cast<size_t>(width) * 2;
            const unsigned char* l = left->data;
            const unsigned char* r = right->data;
            for (int row = 0; row < height; ++row) {
                std::memcpy(out + static_cast<size_t>(width) * row * 4, l, rowBytes);
                std::memcpy(out + static_cast<size_t>(width) * (2 * row + 1) * 2, r, rowBytes);
                l += left->pitch;
                r += left->pitch;
            }
        }
        popThrough(left_queue, leftTs);
        popThrough(right_queue, rightTs);
    }
    if (!delivered)
        return 1;
    if (out != nullptr)
        attachIMUPacket(timestamp, false);
    return 0;
}

int ArgusCamera::readSingle(unsigned char* out, unsigned long long& timestamp) {
    argusMonoImage image;
    {
        std::lock_guard<std::mutex> lock(left_mutex);
        if (left_queue.empty())
            return 1;
        image = left_queue.front();  // the oldest: a single sensor delivers every image in order
        left_queue.pop_front();
    }
    log(4, "[KOV-Argus][Debug] Got a new MONO frame ");
    first_frame_seen = true;
    timestamp = image.timestamp + monotonicToSystemOffsetUs();
    storeFrameValues(0, image);
    if (out != nullptr && image.data != nullptr)
        std::memcpy(out, image.data, static_cast<size_t>(width) * height * channels);
    freeImage(image);
    attachIMUPacket(timestamp, true);
    return 0;
}

void ArgusCamera::storeFrameValues(int side, const argusMonoImage& image) {
    std::lock_guard<std::mutex> lock(settings_mutex);
    side_settings[side].frame_exposure_us = image.exposure;
    side_settings[side].frame_analog_gain = image.analog_gain;
    side_settings[side].frame_digital_gain = image.digital_gain;
}

void ArgusCamera::consume() {
    uint64_t counter = 0;
    while (!stop_capture) {
        unsigned long long ts = 0;
        const int r = run.mono ? readSingle(image_buffer[1], ts) : readSBS(image_buffer[1], ts);
        if (r != 0) {
            sleepFor(std::chrono::microseconds(100));
            continue;
        }
        if (run.verbosity > 2)
            log(3, "[KOV-Argus] Port " + std::to_string(port_index) + " --> New Frame consumed " +
                       std::to_string(ts));
        enterCriticalSection();
        image_timestamp = ts;
        imu_packet = pending_packet;
        if (ptr == nullptr) {
            std::printf("[KOV-Argus][CRITICAL] Invalid pointer for buffer acquisition\n");
        } else if (ptr != image_buffer[1]) {
            std::memcpy(ptr, image_buffer[1], static_cast<size_t>(width) * height * channels);
        }
        exitCriticalSection();

        new_frame = true;
        {
            std::lock_guard<std::mutex> lock(frame_cv_mutex);
            frame_ready = true;
        }
        frame_cv.notify_all();

        if (shouldSendRun(counter, fps)) {
            ArgusProvider::changeState(port_index, ARGUS_CAMERA_STATE_RUNNING);
            sendRun(counter);
        }
        ++counter;
    }
}

bh::IMUPacket ArgusCamera::copyIMUPacket() {
    std::lock_guard<std::mutex> lock(critical_mutex);
    return imu_packet;
}

bool ArgusCamera::waitForFrame(int milliseconds) {
    std::unique_lock<std::mutex> lock(frame_cv_mutex);
    const bool came = frame_cv.wait_for(lock, std::chrono::milliseconds(std::max(0, milliseconds)),
                                        [this] { return frame_ready; });
    frame_ready = false;
    return came;
}

bool ArgusCamera::isNewFrame() {
    if (run.start_consumer)
        return new_frame;
    std::lock_guard<std::mutex> leftLock(left_mutex);
    std::lock_guard<std::mutex> rightLock(right_mutex);
    return !left_queue.empty() && !right_queue.empty();
}

void ArgusCamera::clearImageQueues() {
    {
        std::lock_guard<std::mutex> lock(left_mutex);
        for (argusMonoImage& image : left_queue)
            freeImage(image);
        left_queue.clear();
    }
    std::lock_guard<std::mutex> lock(right_mutex);
    for (argusMonoImage& image : right_queue)
        freeImage(image);
    right_queue.clear();
}

int ArgusCamera::dispatchRequest() {
    int result = dispatchSingleRequest(0);
    if (!run.mono)
        result = dispatchSingleRequest(1);
    return result;
}

int ArgusCamera::dispatchSingleRequest(int side) {
    std::lock_guard<std::mutex> lock(request_mutex[side]);
    if (component->argus == nullptr || component->session[side] == nullptr)
        return 8;
    component->argus->stopRepeat(component->session[side]);
    return component->argus->repeat(component->session[side], component->request[side]);
}

// ---------------------------------------------------------------------------
// The inertial packet of a frame

void ArgusCamera::attachIMUPacket(unsigned long long ts, bool single) {
    std::lock_guard<std::mutex> lock(mcu_mutex);
    if (mcu == nullptr) {
        log(2, " --> [Warning] No Valid MCU ");
        return;
    }
    if (!mcu->hasMCUSyncCapabilities()) {
        log(1, "[KOV-Argus] Port " + std::to_string(port_index) +
                   "\xC2\xA8 --> [Warning] No Sync IMU/Image Detected ");
        return;
    }
    int index = 0;
    bh::IMUPacket packet;
    if (!findCorrespondingIMUPacket(ts, index, kSyncSearchDepth, packet))
        return;
    pending_packet = packet;
    if (run.verbosity > 1) {
        const double imageMs = static_cast<double>(ts) / 1000.0;
        const double packetMs = static_cast<double>(packet.host_timestamp) / 1000000.0;
        std::string line = " --> IMU/Image SyncShift (ms) " + std::to_string(std::fabs(imageMs - packetMs));
        if (single)
            line += " FROM TS camera " + std::to_string(ts) +
                    " and MCU TS : " + std::to_string(packet.host_timestamp);
        log(2, line);
    }
}

// Packets of the sync queue, newest first, against the image time at
// millisecond resolution: an exact match, else the nearer of the two around
// the target, else the newest when the target is newer than all.
bool ArgusCamera::findCorrespondingIMUPacket(unsigned long long ts, int& index, int max,
                                             bh::IMUPacket& found) {
    found = bh::IMUPacket{};
    index = 0;
    if (mcu == nullptr)
        return false;
    const uint64_t target = ts / 1000;
    int start = 0;
    for (;;) {
        const bh::IMUPacket a = mcu->getIMUPoseAtImage(start).packet;
        const bh::IMUPacket b = mcu->getIMUPoseAtImage(index + 1).packet;
        const uint64_t ta = a.host_timestamp / 1000000;
        const uint64_t tb = b.host_timestamp / 1000000;
        const bh::IMUPacket* take = nullptr;
        if (ta == target) {
            take = &a;
        } else if (tb == target) {
            take = &b;
        } else if (tb < target && ta >= target) {
            take = (ta - target) > (target - tb) ? &b : &a;
        } else if (ta < target && tb < target) {
            take = &a;
        }
        if (take != nullptr) {
            found = *take;
            found.valid = true;
            return true;
        }
        // The target is older than both: look further back. The index always
        // moves, so the search ends at `max` even on a queue out of order.
        if (++index > max)
            return false;
        start = index;
    }
}
