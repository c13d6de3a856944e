// Shared pieces of the fuzz targets: a reader that takes the fuzz input from
// the front (so that seed files can be written by hand, field after field), a
// quiet scratch environment, and the convention by which fakes answer.
//
// Device answers: every answer a fake device gives starts with one kind byte.
//   0        the call fails (-1, errno EIO)
//   1        the call succeeds with nothing (0 bytes, a time-out)
//   2..255   the call succeeds; a length byte follows, then that many data
//            bytes (cut to what the caller asked for and to what is left).
// An exhausted input reads as zeros: every later call fails, so each loop of
// the code under test ends by its own bounds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "support/KLogger.h"

namespace fuzz {

class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}

    bool empty() const { return pos_ >= size_; }
    size_t left() const { return size_ - pos_; }

    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    bool flag() { return (byte() & 1) != 0; }
    uint16_t u16() { return static_cast<uint16_t>(byte() | byte() << 8); }
    uint32_t u32() { return static_cast<uint32_t>(u16()) | static_cast<uint32_t>(u16()) << 16; }
    uint64_t u64() { return static_cast<uint64_t>(u32()) | static_cast<uint64_t>(u32()) << 32; }
    int32_t i32() { return static_cast<int32_t>(u32()); }
    float f32() {
        const uint32_t bits = u32();
        float f;
        std::memcpy(&f, &bits, sizeof f);
        return f;
    }

    // Copies up to n bytes into out; the count copied.
    size_t take(void* out, size_t n) {
        const size_t count = n < left() ? n : left();
        if (count > 0)
            std::memcpy(out, data_ + pos_, count);
        pos_ += count;
        return count;
    }
    std::vector<uint8_t> bytes(size_t n) {
        std::vector<uint8_t> out(n < left() ? n : left());
        take(out.data(), out.size());
        return out;
    }
    // A length byte, then that many characters.
    std::string text() {
        const size_t n = byte();
        const std::vector<uint8_t> b = bytes(n);
        return std::string(b.begin(), b.end());
    }
    std::string rest() {
        const std::vector<uint8_t> b = bytes(left());
        return std::string(b.begin(), b.end());
    }

    // One device answer by the convention above. Returns -1 for a failure,
    // otherwise the count of bytes written to out (at most capacity).
    int answer(void* out, size_t capacity) {
        const uint8_t kind = byte();
        if (kind == 0)
            return -1;
        if (kind == 1)
            return 0;
        size_t n = byte();
        if (n > capacity)
            n = capacity;
        return static_cast<int>(take(out, n));
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

// A clock that never waits: a sleep moves it forward at once.
class InstantClock final : public platform::Clock {
public:
    int64_t steadyNanoseconds() override { return steady_; }
    int64_t systemNanoseconds() override { return 1767225600LL * 1000000000LL + steady_; }
    void sleepFor(std::chrono::nanoseconds d) override {
        if (d.count() > 0)
            steady_ += d.count();
    }

private:
    int64_t steady_ = 1000000000LL;
};

// A private scratch tree, made once per process and removed at exit. HOME and
// KOV_SYSROOT point into it, so log files, lock files and the fixed system
// paths the code reads stay inside; the loggers are switched off (their
// background writer would only slow the run down).
inline const std::string& scratch() {
    static const std::string dir = [] {
        // A memory file system when there is one: the targets rewrite their
        // input file for every run, which a disk file system would flush.
        char shm[] = "/dev/shm/kov_fuzz_XXXXXX";
        char tmp[] = "/tmp/kov_fuzz_XXXXXX";
        const char* made = mkdtemp(shm);
        if (made == nullptr)
            made = mkdtemp(tmp);
        if (made == nullptr)
            std::abort();
        const std::string root = made;
        std::filesystem::create_directories(root + "/home");
        std::filesystem::create_directories(root + "/root/usr/local/kov/settings");
        std::filesystem::create_directories(root + "/root/etc/systemd/system");
        std::filesystem::create_directories(root + "/root/proc");
        setenv("HOME", (root + "/home").c_str(), 1);
        setenv("KOV_SYSROOT", (root + "/root").c_str(), 1);
        setenv("KOV_TEST", "1", 1);
        static struct Remover {
            std::string dir;
            ~Remover() {
                std::error_code ignored;
                std::filesystem::remove_all(dir, ignored);
            }
        } remover{root};
        bh::KLogger::get_instance().change_level(bh::LOGGER_LEVEL::NONE, bh::LOGGER_NAME::ALL);
        return root;
    }();
    return dir;
}

// The path of a fixed system file inside the scratch root.
inline std::string sysroot(const std::string& absolute) {
    return scratch() + "/root" + absolute;
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(content.data(), static_cast<std::streamsize>(content.size()));
}

}  // namespace fuzz
