#pragma once

// The operating-system calls that capture code makes on devices: video nodes
// (/dev/videoN), I2C buses (/dev/i2c-N) and the files under
// /sys/class/video4linux. Each operation mirrors the libc function of the same
// name, one call to one call: same arguments, same return value, errno set the
// same way. No logic lives here; retries and parsing stay with the caller, so a
// simulated run executes the same code as a real one.
//
// File descriptors handed out by a simulated Sys are plain integers that only
// that Sys understands; never pass them to libc.

#include <poll.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace platform {

class Sys {
public:
    virtual ~Sys() = default;

    virtual int open(const char* path, int flags, mode_t mode = 0) = 0;
    virtual int close(int fd) = 0;
    virtual ssize_t read(int fd, void* buf, size_t count) = 0;
    virtual ssize_t write(int fd, const void* buf, size_t count) = 0;
    // The third argument of ioctl is either a pointer or an integer value
    // (I2C_SLAVE takes the address itself); pass integers with ioctlValue.
    virtual int ioctl(int fd, unsigned long request, void* arg) = 0;
    virtual void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) = 0;
    virtual int munmap(void* addr, size_t length) = 0;
    virtual int poll(struct pollfd* fds, nfds_t nfds, int timeout) = 0;
    virtual int select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds,
                       struct timeval* timeout) = 0;
    virtual int stat(const char* path, struct stat* buf) = 0;

    // ioctl with an integer third argument, as the kernel reads it.
    int ioctlValue(int fd, unsigned long request, unsigned long value) {
        return ioctl(fd, request, reinterpret_cast<void*>(static_cast<uintptr_t>(value)));
    }
};

// The Sys of the process (the installed backend's, see Platform.h).
Sys& sys();

}  // namespace platform
