#include "bh_input/grabber/FileLocker.h"

#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <sstream>
#include <thread>

namespace bh {

// The lock file is an ordinary file under /tmp, not a device: it is opened
// with libc directly (the seams cover devices only).

FileLocker::FileLocker(std::string p, bool v) : verbose(v), path(std::move(p)) {
    std::memset(&file_lock, 0, sizeof file_lock);
    file_lock.l_whence = SEEK_SET;
}

FileLocker::~FileLocker() {
    if (locked)
        unlock();
    if (fd >= 0) {
        ::close(fd);  // seam-exempt: lock file
        fd = -1;
    }
}

std::string FileLocker::prefix() const {
    std::ostringstream s;
    s << "FileLocker - Thread " << std::this_thread::get_id();
    return s.str();
}

bool FileLocker::openFile() {
    fd = ::open(path.c_str(), O_WRONLY | O_CREAT, 0664);  // seam-exempt: lock file
    if (verbose) {
        if (fd >= 0)
            std::cout << prefix() << " - Locker file '" << path << "' correctly created/opened. FD: " << fd
                      << std::endl;
        else
            std::cerr << prefix() << " - Locker file '" << path
                      << "' NOT CREATED/OPENED:" << std::strerror(errno) << std::endl;
    }
    return fd >= 0;
}

bool FileLocker::lock() {
    if (locked) {
        if (verbose)
            std::cerr << prefix() << " - File '" << path << "' already locked." << std::endl;
        return false;
    }
    if (fd < 0 && !openFile()) {
        if (verbose)
            std::cerr << prefix() << " - LOCK - File '" << path << "' not opened." << std::endl;
        return false;
    }
    file_lock.l_type = F_WRLCK;
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        int result = ::fcntl(fd, F_SETLK, &file_lock);  // seam-exempt: lock file
        if (result == 0) {
            locked = true;
            if (verbose)
                std::cout << prefix() << " - File '" << path << "' correctly locked." << std::endl;
            return true;
        }
        if (verbose) {
            std::cerr << prefix() << " - #" << attempt
                      << "  fcntl (fd, F_SETLK, &file_lock); return: " << result << std::endl;
            std::cerr << prefix() << " - #" << attempt << " Waiting for file lock to be released..."
                      << std::endl;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kRetryMs));
    }
    std::cerr << prefix() << " - #32 File lock timeout. Is the process that keeps the file frozen?"
              << std::endl;
    locked = false;
    return false;
}

void FileLocker::unlock() {
    if (!locked) {
        if (verbose)
            std::cerr << prefix() << " - UNLOCK - Already unlocked." << std::endl;
        return;
    }
    if (fd < 0) {
        if (verbose)
            std::cerr << prefix() << " - UNLOCK - File '" << path << "' not opened. FD: " << fd << std::endl;
        locked = false;
        return;
    }
    file_lock.l_type = F_UNLCK;
    if (::fcntl(fd, F_SETLKW, &file_lock) == 0) {  // seam-exempt: lock file
        if (verbose)
            std::cout << prefix() << " - File '" << path << "' correctly unlocked." << std::endl;
        locked = false;
    } else {
        const char* why = std::strerror(errno);
        if (verbose)
            std::cerr << prefix() << " - File '" << path << "' not unlocked:" << why << std::endl;
        std::cerr << "Failed to unlock the file: " << why << std::endl;
    }
    ::close(fd);  // seam-exempt: lock file
    fd = -1;
}

}  // namespace bh
