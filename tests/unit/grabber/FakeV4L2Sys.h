#pragma once

// A small in-test video node behind platform::Sys: it answers the V4L2 calls
// of the stereo grabber from a few knobs and a script of dequeue results, and
// records what it was asked. Enough to test the grabber's return codes and
// its handling of odd driver answers without the simulator.

#include <linux/videodev2.h>
#include <poll.h>
#include <sys/mman.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "platform/Sys.h"

namespace testsupport {

class FakeV4L2Sys : public platform::Sys {
public:
    static constexpr int kFd = 4242;
    static constexpr const char* kPath = "/dev/video-fake";

    // One answer of VIDIOC_DQBUF.
    struct Dequeue {
        uint32_t index = 0;
        uint32_t bytesused = 0;
        uint32_t length = 0;
        uint8_t fill = 0;  // the byte written into the buffer
        // The driver's time stamp; unset, the count of dequeues in seconds.
        bool stamped = false;
        long sec = 0;
        long usec = 0;
    };

    // Knobs.
    bool statFails = false;
    bool openFails = false;
    // Request -> result forced on that request (negative results set errno).
    std::map<unsigned long, int> forced;
    std::map<unsigned long, int> forcedErrno;
    // S_FMT answers this size instead of the one asked (0: accept).
    uint32_t correctWidth = 0, correctHeight = 0;
    // REQBUFS grants at most this many (-1: as asked).
    int grantMax = -1;
    // G_PARM's denominator.
    uint32_t driverRate = 30;

    // ---- what happened
    std::mutex mutex;
    std::vector<unsigned long> requests;
    uint32_t requestedBuffers = 0;
    uint32_t setRate = 0;
    std::vector<uint32_t> queued;
    int closes = 0;
    int unmaps = 0;

    // Writes each dequeued buffer with its fill byte (off: a benchmark that
    // measures only the grabber's own copies).
    bool fillOnDequeue = true;

    void script(const Dequeue& d) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            dequeues_.push_back(d);
        }
        ready_.notify_all();
    }
    size_t count(unsigned long request) {
        std::lock_guard<std::mutex> lock(mutex);
        size_t n = 0;
        for (unsigned long r : requests)
            n += r == request;
        return n;
    }
    size_t scriptLeft() {
        std::lock_guard<std::mutex> lock(mutex);
        return dequeues_.size();
    }

    int open(const char* path, int, mode_t) override {
        if (openFails || std::string(path) != kPath) {
            errno = ENOENT;
            return -1;
        }
        return kFd;
    }
    int close(int) override {
        std::lock_guard<std::mutex> lock(mutex);
        ++closes;
        return 0;
    }
    ssize_t read(int, void*, size_t) override { return -1; }
    ssize_t write(int, const void*, size_t) override { return -1; }
    int stat(const char* path, struct stat* buf) override {
        if (statFails || std::string(path) != kPath) {
            errno = ENOENT;
            return -1;
        }
        std::memset(buf, 0, sizeof *buf);
        buf->st_mode = S_IFCHR | 0660;
        return 0;
    }
    // Readable as soon as a dequeue is scripted, as a driver wakes its poller.
    int poll(struct pollfd* fds, nfds_t nfds, int timeout) override {
        std::unique_lock<std::mutex> lock(mutex);
        // Not streaming: an error at once, as a driver answers.
        if (!streaming_) {
            for (nfds_t i = 0; i < nfds; ++i)
                fds[i].revents = POLLERR;
            return static_cast<int>(nfds);
        }
        const bool ready = ready_.wait_for(lock, std::chrono::milliseconds(std::max(timeout, 0)),
                                           [this] { return !dequeues_.empty(); });
        for (nfds_t i = 0; i < nfds; ++i)
            fds[i].revents = ready ? POLLIN : 0;
        return ready ? 1 : 0;
    }
    int select(int, fd_set*, fd_set*, fd_set*, struct timeval*) override { return 1; }
    void* mmap(void*, size_t length, int, int, int, off_t offset) override {
        std::lock_guard<std::mutex> lock(mutex);
        auto& storage = memory_[offset];
        storage.assign(length, 0);
        return storage.data();
    }
    int munmap(void*, size_t) override {
        std::lock_guard<std::mutex> lock(mutex);
        ++unmaps;
        return 0;
    }

    int ioctl(int, unsigned long request, void* arg) override {
        std::lock_guard<std::mutex> lock(mutex);
        requests.push_back(request);
        auto f = forced.find(request);
        if (f != forced.end()) {
            if (f->second < 0)
                errno = forcedErrno.count(request) ? forcedErrno[request] : EIO;
            return f->second;
        }
        switch (request) {
            case VIDIOC_S_FMT: {
                auto* fmt = static_cast<v4l2_format*>(arg);
                frameWidth_ = correctWidth ? correctWidth : fmt->fmt.pix.width;
                frameHeight_ = correctHeight ? correctHeight : fmt->fmt.pix.height;
                fmt->fmt.pix.width = frameWidth_;
                fmt->fmt.pix.height = frameHeight_;
                fmt->fmt.pix.sizeimage = frameWidth_ * frameHeight_ * 2;
                return 0;
            }
            case VIDIOC_S_PARM:
                setRate = static_cast<v4l2_streamparm*>(arg)->parm.capture.timeperframe.denominator;
                return 0;
            case VIDIOC_G_PARM: {
                auto* p = static_cast<v4l2_streamparm*>(arg);
                p->parm.capture.timeperframe.numerator = 1;
                p->parm.capture.timeperframe.denominator = driverRate;
                return 0;
            }
            case VIDIOC_REQBUFS: {
                auto* r = static_cast<v4l2_requestbuffers*>(arg);
                requestedBuffers = r->count;
                if (grantMax >= 0 && r->count > static_cast<uint32_t>(grantMax))
                    r->count = static_cast<uint32_t>(grantMax);
                return 0;
            }
            case VIDIOC_QUERYBUF: {
                auto* b = static_cast<v4l2_buffer*>(arg);
                b->length = frameWidth_ * frameHeight_ * 2;
                b->m.offset = b->index * 0x1000000u;
                return 0;
            }
            case VIDIOC_QBUF:
                queued.push_back(static_cast<v4l2_buffer*>(arg)->index);
                return 0;
            case VIDIOC_STREAMON:
                streaming_ = true;
                return 0;
            case VIDIOC_STREAMOFF:
                streaming_ = false;
                return 0;
            case VIDIOC_DQBUF: {
                // A driver hands out nothing before the stream is on.
                if (!streaming_) {
                    errno = EINVAL;
                    return -1;
                }
                if (dequeues_.empty()) {
                    errno = EAGAIN;
                    return -1;
                }
                Dequeue d = dequeues_.front();
                dequeues_.pop_front();
                auto* b = static_cast<v4l2_buffer*>(arg);
                b->index = d.index;
                b->bytesused = d.bytesused;
                b->length = d.length;
                ++dequeued_;
                b->timestamp.tv_sec = d.stamped ? d.sec : dequeued_;
                b->timestamp.tv_usec = d.stamped ? d.usec : 0;
                auto m = memory_.find(static_cast<off_t>(d.index) * 0x1000000);
                if (fillOnDequeue && m != memory_.end())
                    std::memset(m->second.data(), d.fill, m->second.size());
                return 0;
            }
            default:
                return 0;  // QUERYCAP, CROPCAP, S_PRIORITY
        }
    }

    uint32_t frameBytes() const { return frameWidth_ * frameHeight_ * 2; }

private:
    std::condition_variable ready_;
    bool streaming_ = false;
    std::deque<Dequeue> dequeues_;
    std::map<off_t, std::vector<uint8_t>> memory_;
    uint32_t frameWidth_ = 0, frameHeight_ = 0;
    long dequeued_ = 0;
};

}  // namespace testsupport
