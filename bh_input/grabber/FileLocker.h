#pragma once

// A lock on a whole file shared between processes (fcntl write lock). lock()
// tries 32 times, 100 ms apart, then gives up with a time-out line on the
// error stream; the caller goes on without the lock.

#include <fcntl.h>

#include <string>

namespace bh {

class FileLocker {
public:
    FileLocker(std::string path, bool verbose = false);
    ~FileLocker();
    FileLocker(const FileLocker&) = delete;
    FileLocker& operator=(const FileLocker&) = delete;

    bool openFile();
    bool lock();
    void unlock();

    bool isLocked() const { return locked; }

    static constexpr int kAttempts = 32;
    static constexpr int kRetryMs = 100;

private:
    std::string prefix() const;
    bool verbose;
    bool locked = false;
    std::string path;
    int fd = -1;
    struct flock file_lock {};
};

}  // namespace bh
