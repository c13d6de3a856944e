#pragma once

// A platform::Sys that passes every call to another one. Tests derive from it
// and override only the calls they record or alter.

#include <memory>
#include <utility>

#include "platform/Sys.h"

namespace testsupport {

class ForwardingSys : public platform::Sys {
public:
    explicit ForwardingSys(std::shared_ptr<platform::Sys> inner) : inner_(std::move(inner)) {}
    int open(const char* path, int flags, mode_t mode) override { return inner_->open(path, flags, mode); }
    int close(int fd) override { return inner_->close(fd); }
    ssize_t read(int fd, void* buf, size_t count) override { return inner_->read(fd, buf, count); }
    ssize_t write(int fd, const void* buf, size_t count) override { return inner_->write(fd, buf, count); }
    int ioctl(int fd, unsigned long request, void* arg) override { return inner_->ioctl(fd, request, arg); }
    void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) override {
        return inner_->mmap(addr, length, prot, flags, fd, offset);
    }
    int munmap(void* addr, size_t length) override { return inner_->munmap(addr, length); }
    int poll(struct pollfd* fds, nfds_t nfds, int timeout) override {
        return inner_->poll(fds, nfds, timeout);
    }
    int select(int nfds, fd_set* r, fd_set* w, fd_set* e, struct timeval* timeout) override {
        return inner_->select(nfds, r, w, e, timeout);
    }
    int stat(const char* path, struct stat* buf) override { return inner_->stat(path, buf); }

protected:
    platform::Sys& inner() { return *inner_; }

private:
    std::shared_ptr<platform::Sys> inner_;
};

}  // namespace testsupport
