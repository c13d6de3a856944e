// A video node made of fuzz input, behind the Sys seam: every call the
// capture code makes on /dev/videoN and /sys/class/video4linux is answered by
// the next answer of the input (see FuzzSupport.h).
//   stat, open          one byte: 0 refuses (ENOENT), otherwise succeeds
//   read                one answer (the file's next piece)
//   ioctl, V4L2         one answer written over the start of the request's
//                       record; a failure sets the errno of one more byte
//   ioctl, extension    GET_LEN and GET_CUR: one answer into the data;
//   unit queries        SET_CUR: one byte, 0 succeeds, otherwise the errno
//   mmap                real memory of the asked length (up to 4 MiB), or
//                       MAP_FAILED when the length byte says so
//   poll, select        one byte: 0 ready, 1 nothing, 2 error
// When the input runs out, `onExhausted` is called once (a test loop that
// only ends on request can then be stopped). With `endlessSuccess` set, a
// device whose input has run out goes on answering every ioctl with success
// and nothing written: the driver that never says "no more".
#pragma once

#include <linux/usb/video.h>
#include <linux/uvcvideo.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "platform/Sys.h"

namespace fuzz {

class FuzzVideoSys final : public platform::Sys {
public:
    explicit FuzzVideoSys(Input& in) : in_(in) {}
    ~FuzzVideoSys() override {
        for (auto& m : mappings_)
            std::free(m.first);
    }

    std::function<void()> onExhausted;
    bool endlessSuccess = false;
    std::vector<std::string> opened;  // every path opened, in order

    int open(const char* path, int, mode_t) override {
        opened.emplace_back(path);
        if (step() == 0)
            return fail(ENOENT);
        return nextFd_++;
    }
    int close(int) override { return 0; }
    ssize_t read(int, void* buf, size_t count) override {
        const int n = in_.answer(buf, count);
        checkExhausted();
        return n < 0 ? fail(EIO) : n;
    }
    ssize_t write(int, const void*, size_t count) override {
        return step() == 0 ? static_cast<ssize_t>(count) : fail(EIO);
    }
    int ioctl(int, unsigned long request, void* arg) override {
        if (request == UVCIOC_CTRL_QUERY)
            return extensionUnit(*static_cast<uvc_xu_control_query*>(arg));
        if (endlessSuccess && in_.empty())
            return 0;
        const int n = in_.answer(arg, _IOC_SIZE(request));
        if (n < 0)
            return fail(errnoByte());
        checkExhausted();
        return 0;
    }
    void* mmap(void*, size_t length, int, int, int, off_t) override {
        if (step() == 0 || length == 0 || length > (4u << 20)) {
            errno = ENOMEM;
            return MAP_FAILED;
        }
        void* p = std::calloc(1, length);
        if (p == nullptr) {
            errno = ENOMEM;
            return MAP_FAILED;
        }
        mappings_[p] = length;
        return p;
    }
    int munmap(void* addr, size_t length) override {
        auto it = mappings_.find(addr);
        if (it == mappings_.end() || it->second != length)
            __builtin_trap();  // unmapping what was never mapped
        std::free(addr);
        mappings_.erase(it);
        return 0;
    }
    int poll(struct pollfd* fds, nfds_t nfds, int) override {
        const uint8_t b = step();
        if (b == 2)
            return fail(EINTR);
        for (nfds_t i = 0; i < nfds; ++i)
            fds[i].revents = b == 0 ? POLLIN : 0;
        return b == 0 ? 1 : 0;
    }
    int select(int, fd_set*, fd_set*, fd_set*, struct timeval*) override {
        const uint8_t b = step();
        return b == 2 ? fail(EINTR) : b == 0 ? 1 : 0;
    }
    int stat(const char*, struct stat* buf) override {
        std::memset(buf, 0, sizeof *buf);
        if (step() == 0)
            return fail(ENOENT);
        buf->st_mode = S_IFCHR | 0660;
        return 0;
    }

private:
    int extensionUnit(uvc_xu_control_query& q) {
        switch (q.query) {
            case UVC_GET_LEN:
            case UVC_GET_CUR: {
                if (q.data == nullptr)
                    return fail(EFAULT);
                const int n = in_.answer(q.data, q.query == UVC_GET_LEN ? 2 : q.size);
                if (n < 0)
                    return fail(errnoByte());
                checkExhausted();
                return 0;
            }
            default: {
                const uint8_t b = step();
                return b == 0 ? 0 : fail(b);
            }
        }
    }
    uint8_t step() {
        const uint8_t b = in_.byte();
        checkExhausted();
        return b;
    }
    void checkExhausted() {
        if (in_.empty() && !exhausted_) {
            exhausted_ = true;
            if (onExhausted)
                onExhausted();
        }
    }
    int errnoByte() {
        const uint8_t b = step();
        return b == 0 ? EIO : b;
    }
    static int fail(int err) {
        errno = err;
        return -1;
    }

    Input& in_;
    int nextFd_ = 7;
    bool exhausted_ = false;
    std::map<void*, size_t> mappings_;
};

}  // namespace fuzz
