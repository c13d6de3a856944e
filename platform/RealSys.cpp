// Real Sys: each operation is the libc call of the same name.
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/RealBackend.h"

namespace platform {

int RealSys::open(const char* path, int flags, mode_t mode) {
    return ::open(path, flags, mode);
}
int RealSys::close(int fd) {
    return ::close(fd);
}
ssize_t RealSys::read(int fd, void* buf, size_t count) {
    return ::read(fd, buf, count);
}
ssize_t RealSys::write(int fd, const void* buf, size_t count) {
    return ::write(fd, buf, count);
}
int RealSys::ioctl(int fd, unsigned long request, void* arg) {
    return ::ioctl(fd, request, arg);
}
void* RealSys::mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    return ::mmap(addr, length, prot, flags, fd, offset);
}
int RealSys::munmap(void* addr, size_t length) {
    return ::munmap(addr, length);
}
int RealSys::poll(struct pollfd* fds, nfds_t nfds, int timeout) {
    return ::poll(fds, nfds, timeout);
}
int RealSys::select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout) {
    return ::select(nfds, readfds, writefds, exceptfds, timeout);
}
int RealSys::stat(const char* path, struct stat* buf) {
    return ::stat(path, buf);
}

}  // namespace platform
