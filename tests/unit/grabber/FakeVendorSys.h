#pragma once

// A platform::Sys for tests of the vendor control channel: it records every
// ioctl (request number, fd, and for UVCIOC_CTRL_QUERY the query record and a
// copy of the bytes handed in) and lets the test answer extension-unit queries
// and other ioctls. It can tell whether two UVCIOC_CTRL_QUERY calls were ever
// in flight at the same time.

#include <linux/uvcvideo.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/Platform.h"

namespace testsupport {

struct IoctlCall {
    int fd = -1;
    unsigned long request = 0;
    // UVCIOC_CTRL_QUERY only.
    bool xu = false;
    uint8_t unit = 0;
    uint8_t selector = 0;
    uint8_t query = 0;
    uint16_t size = 0;
    std::vector<uint8_t> bytes;  // the data buffer as it was handed in
    int64_t atNs = 0;            // platform::clock() at the call
};

class FakeVendorSys : public platform::Sys {
public:
    // Answers one extension-unit query: fills `data` (size bytes) for GET_LEN
    // and GET_CUR, returns 0, or an errno to fail with.
    using XuHandler = std::function<int(const IoctlCall&, uint8_t* data)>;
    // Answers any other ioctl: 0, or an errno to fail with.
    using OtherHandler = std::function<int(unsigned long request, void* arg)>;

    XuHandler xu;
    OtherHandler other;
    // Real time each extension-unit query lasts (widens any race).
    std::chrono::microseconds hold{0};
    // Runs inside each extension-unit query, outside the fake's own locks.
    std::function<void()> whileInFlight;

    int ioctl(int fd, unsigned long request, void* arg) override {
        IoctlCall call;
        call.fd = fd;
        call.request = request;
        call.atNs = platform::clock().steadyNanoseconds();
        if (request != UVCIOC_CTRL_QUERY) {
            record(call);
            const int err = other ? other(request, arg) : ENOTTY;
            return fail(err);
        }
        if (inFlight_.fetch_add(1) != 0)
            overlapped_ = true;
        auto* q = static_cast<uvc_xu_control_query*>(arg);
        call.xu = true;
        call.unit = q->unit;
        call.selector = q->selector;
        call.query = q->query;
        call.size = q->size;
        if (q->data != nullptr)
            call.bytes.assign(q->data, q->data + q->size);
        record(call);
        if (hold.count() > 0)
            std::this_thread::sleep_for(hold);
        if (whileInFlight)
            whileInFlight();
        int err = 0;
        {
            std::lock_guard<std::mutex> lock(handlerMutex_);
            if (xu)
                err = xu(call, q->data);
        }
        inFlight_.fetch_sub(1);
        return fail(err);
    }

    std::vector<IoctlCall> calls() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return calls_;
    }
    std::vector<IoctlCall> xuCalls() const {
        std::vector<IoctlCall> out;
        for (const IoctlCall& c : calls())
            if (c.xu)
                out.push_back(c);
        return out;
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.clear();
    }
    bool overlapped() const { return overlapped_.load(); }

    int open(const char*, int, mode_t) override { return fail(ENOENT); }
    int close(int) override { return 0; }
    ssize_t read(int, void*, size_t) override { return fail(EIO); }
    ssize_t write(int, const void*, size_t) override { return fail(EIO); }
    void* mmap(void*, size_t, int, int, int, off_t) override {
        errno = ENODEV;
        return reinterpret_cast<void*>(-1);
    }
    int munmap(void*, size_t) override { return 0; }
    int poll(struct pollfd*, nfds_t, int) override { return 0; }
    int select(int, fd_set*, fd_set*, fd_set*, struct timeval*) override { return 0; }
    int stat(const char*, struct stat*) override { return fail(ENOENT); }

private:
    static int fail(int err) {
        if (err == 0)
            return 0;
        errno = err;
        return -1;
    }
    void record(const IoctlCall& call) {
        std::lock_guard<std::mutex> lock(mutex_);
        calls_.push_back(call);
    }

    mutable std::mutex mutex_;
    std::mutex handlerMutex_;
    std::vector<IoctlCall> calls_;
    std::atomic<int> inFlight_{0};
    std::atomic<bool> overlapped_{false};
};

// Extension-unit answers written by the test: the control length for GET_LEN,
// hand-written GET_CUR replies in order (zeros when none is left), and an
// errno for the queries of one kind that should fail.
struct ScriptedXu {
    uint16_t length = 384;
    std::deque<std::vector<uint8_t>> replies;
    int failLen = 0;
    int failSet = 0;
    int failGet = 0;
    int setFailuresLeft = -1;  // with failSet: how many SET_CUR fail (-1: all)

    int operator()(const IoctlCall& c, uint8_t* data) {
        switch (c.query) {
            case 0x85:
                if (failLen)
                    return failLen;
                data[0] = static_cast<uint8_t>(length);
                data[1] = static_cast<uint8_t>(length >> 8);
                return 0;
            case 0x01:
                if (failSet && setFailuresLeft != 0) {
                    if (setFailuresLeft > 0)
                        --setFailuresLeft;
                    return failSet;
                }
                return 0;
            case 0x81: {
                if (failGet)
                    return failGet;
                std::vector<uint8_t> reply;
                if (!replies.empty()) {
                    reply = replies.front();
                    replies.pop_front();
                }
                for (uint16_t i = 0; i < c.size; ++i)
                    data[i] = i < reply.size() ? reply[i] : 0;
                return 0;
            }
            default:
                return EINVAL;
        }
    }
};

// A reply of `size` zero bytes with the given bytes at `offset`.
inline std::vector<uint8_t> replyAt(size_t size, size_t offset, std::vector<uint8_t> bytes) {
    std::vector<uint8_t> reply(size, 0);
    for (size_t i = 0; i < bytes.size() && offset + i < size; ++i)
        reply[offset + i] = bytes[i];
    return reply;
}

}  // namespace testsupport
