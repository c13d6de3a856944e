#pragma once

// An in-test platform::Sys with I2C buses (/dev/i2c-N) that carry a camera
// EEPROM (256-byte blocks at consecutive addresses, 8-byte write pages) and
// the two parts of the inertial chip, scripted from the chip's register map:
// an accelerometer (0x18) and a gyroscope (0x68) with its FIFO. Every
// transfer is logged, so tests can check the exact register writes.
//
// The chip can also produce samples by itself from platform::clock(): the
// accelerometer at the rate of ACC_CONF while powered, the gyroscope into its
// FIFO at the rate of GYRO_BANDWIDTH, the sync bit on every n-th frame.

#include <linux/i2c-dev.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/Clock.h"
#include "platform/Sys.h"

namespace gmslimu {

// One write transfer: the register number and the data bytes behind it (empty
// for a transfer that only sets the register pointer before a read).
struct RegWrite {
    int bus = 0;
    uint8_t address = 0;
    uint8_t reg = 0;
    std::vector<uint8_t> data;
};

struct RegRead {
    int bus = 0;
    uint8_t address = 0;
    uint8_t reg = 0;
    size_t length = 0;
};

// A chip with one-byte register numbers and auto-increment.
class FakeDevice {
public:
    virtual ~FakeDevice() = default;
    // First byte: the register number; the rest: data from it on.
    virtual void write(const uint8_t* bytes, size_t n) = 0;
    virtual void read(uint8_t* out, size_t n) = 0;
    uint8_t pointer = 0;
};

// One 256-byte block of the EEPROM. Writes wrap inside their 8-byte page, as
// the real part does; reads wrap inside the block.
class FakeEepromBlock : public FakeDevice {
public:
    std::array<uint8_t, 256> bytes{};
    bool ignore_writes = false;  // a worn cell: the write is acknowledged and lost

    void write(const uint8_t* b, size_t n) override {
        pointer = b[0];
        const uint8_t page_start = static_cast<uint8_t>(pointer & ~7u);
        uint8_t in_page = static_cast<uint8_t>(pointer & 7u);
        for (size_t i = 1; i < n; ++i) {
            if (!ignore_writes)
                bytes[page_start + in_page] = b[i];
            in_page = static_cast<uint8_t>((in_page + 1) & 7u);
        }
    }
    void read(uint8_t* out, size_t n) override {
        for (size_t i = 0; i < n; ++i)
            out[i] = bytes[pointer++];
    }
};

// The accelerometer part.
class FakeAccel : public FakeDevice {
public:
    std::array<uint8_t, 256> regs{};
    uint8_t chip_id = 0x1E;
    int resets = 0;
    // Auto production: samples by clock time while powered (0 = scripted only).
    bool auto_produce = false;
    uint32_t produced = 0;
    std::function<void(uint32_t index, int16_t xyz[3])> value_of = [](uint32_t i, int16_t xyz[3]) {
        xyz[0] = static_cast<int16_t>(i % 1000);
        xyz[1] = static_cast<int16_t>(-(static_cast<int>(i % 1000)));
        xyz[2] = 2048;
    };

    FakeAccel() { reset(); }

    void reset() {
        regs.fill(0);
        regs[0x00] = chip_id;
        regs[0x40] = 0xA8;
        regs[0x41] = 0x01;
        regs[0x7C] = 0x03;
        regs[0x7D] = 0x00;
        next_due_ns_ = 0;
    }

    // A scripted sample: data registers and the data-ready bits.
    void setSample(int16_t x, int16_t y, int16_t z) {
        const int16_t v[3] = {x, y, z};
        for (int i = 0; i < 3; ++i) {
            regs[0x12 + 2 * i] = static_cast<uint8_t>(static_cast<uint16_t>(v[i]) & 0xFF);
            regs[0x13 + 2 * i] = static_cast<uint8_t>(static_cast<uint16_t>(v[i]) >> 8);
        }
        regs[0x03] |= 0x80;
        regs[0x1D] |= 0x80;
    }
    void setTemperature(uint8_t msb, uint8_t lsb) {
        regs[0x22] = msb;
        regs[0x23] = lsb;
    }

    void write(const uint8_t* b, size_t n) override {
        pointer = b[0];
        for (size_t i = 1; i < n; ++i) {
            if (pointer == 0x7E && b[i] == 0xB6) {
                ++resets;
                reset();
                continue;
            }
            regs[pointer] = b[i];
            if (pointer != 0x5E)  // the feature-config data port does not move on
                ++pointer;
        }
    }
    void read(uint8_t* out, size_t n) override {
        produce();
        bool data_read = false;
        bool int_stat_read = false;
        for (size_t i = 0; i < n; ++i) {
            out[i] = regs[pointer];
            data_read |= pointer >= 0x12 && pointer <= 0x17;
            int_stat_read |= pointer == 0x1D;
            ++pointer;
        }
        if (data_read)
            regs[0x03] &= 0x7F;
        if (int_stat_read)
            regs[0x1D] &= 0x7F;
    }

    int64_t periodNs() const {
        static const int64_t kOdrHz1000[] = {12500, 25000, 50000, 100000, 200000, 400000, 800000, 1600000};
        const int odr = regs[0x40] & 0x0F;
        if (odr < 5 || odr > 12)
            return 0;
        return 1000000000000LL / kOdrHz1000[odr - 5];
    }

private:
    void produce() {
        const bool active = regs[0x7D] == 0x04 && regs[0x7C] == 0x00;
        const int64_t period = periodNs();
        if (!auto_produce || !active || period == 0) {
            next_due_ns_ = 0;
            return;
        }
        const int64_t now = platform::clock().steadyNanoseconds();
        if (next_due_ns_ == 0)
            next_due_ns_ = now + period;
        while (next_due_ns_ <= now) {
            int16_t v[3];
            value_of(produced++, v);
            setSample(v[0], v[1], v[2]);
            next_due_ns_ += period;
        }
    }
    int64_t next_due_ns_ = 0;
};

// The gyroscope part and its FIFO.
class FakeGyro : public FakeDevice {
public:
    std::array<uint8_t, 256> regs{};
    std::deque<std::array<uint8_t, 6>> fifo;
    bool overrun = false;
    int resets = 0;
    bool auto_produce = false;
    uint32_t produced = 0;
    uint32_t sync_every = 0;  // every n-th produced frame carries the sync mark (0: none)
    std::function<void(uint32_t index, int16_t xyz[3])> value_of = [](uint32_t i, int16_t xyz[3]) {
        xyz[0] = static_cast<int16_t>(i % 2000);
        xyz[1] = 100;
        xyz[2] = static_cast<int16_t>(2 * (i % 1000));
    };

    FakeGyro() { reset(); }

    void reset() {
        regs.fill(0);
        regs[0x00] = 0x0F;
        fifo.clear();
        overrun = false;
        next_due_ns_ = 0;
    }

    // A frame as the FIFO stores it (z with its sync bit as given).
    void pushFrame(int16_t x, int16_t y, int16_t z) {
        std::array<uint8_t, 6> f{};
        const int16_t v[3] = {x, y, z};
        for (int i = 0; i < 3; ++i) {
            f[2 * i] = static_cast<uint8_t>(static_cast<uint16_t>(v[i]) & 0xFF);
            f[2 * i + 1] = static_cast<uint8_t>(static_cast<uint16_t>(v[i]) >> 8);
        }
        fifo.push_back(f);
        if (fifo.size() > 100) {
            fifo.pop_front();
            overrun = true;
        }
    }

    uint8_t watermark() const { return regs[0x3D] & 0x7F; }
    bool watermarkReached() const {
        return regs[0x1E] == 0x88 && watermark() > 0 && fifo.size() >= watermark();
    }

    void write(const uint8_t* b, size_t n) override {
        pointer = b[0];
        for (size_t i = 1; i < n; ++i) {
            if (pointer == 0x14 && b[i] == 0xB6) {
                ++resets;
                reset();
                continue;
            }
            regs[pointer] = b[i];
            if (pointer == 0x3E) {  // a new FIFO configuration empties it
                fifo.clear();
                overrun = false;
            }
            ++pointer;
        }
    }
    void read(uint8_t* out, size_t n) override {
        produce();
        if (pointer == 0x3F) {
            // The FIFO streams; an empty one reads 0x8000 on every axis.
            for (size_t i = 0; i < n; i += 6) {
                std::array<uint8_t, 6> f = {0x00, 0x80, 0x00, 0x80, 0x00, 0x80};
                if (!fifo.empty()) {
                    f = fifo.front();
                    fifo.pop_front();
                }
                for (size_t k = 0; k < 6 && i + k < n; ++k)
                    out[i + k] = f[k];
            }
            return;
        }
        for (size_t i = 0; i < n; ++i) {
            uint8_t v = regs[pointer];
            if (pointer == 0x0A)
                v = static_cast<uint8_t>((v & 0x80) | (watermarkReached() ? 0x10 : 0));
            else if (pointer == 0x0E)
                v = static_cast<uint8_t>((fifo.size() > 127 ? 127 : fifo.size()) | (overrun ? 0x80 : 0));
            else if (pointer == 0x10)
                v |= 0x80;
            out[i] = v;
            ++pointer;
        }
    }

    int64_t periodNs() const {
        switch (regs[0x10] & 0x7F) {
            case 0x00:
            case 0x01:
                return 500000;
            case 0x02:
                return 1000000;
            case 0x03:
                return 2500000;
            case 0x04:
            case 0x06:
                return 5000000;
            default:
                return 10000000;
        }
    }

private:
    void produce() {
        const bool running = regs[0x11] == 0x00 && (regs[0x3E] & 0xC0) != 0;
        if (!auto_produce || !running) {
            next_due_ns_ = 0;
            return;
        }
        const int64_t now = platform::clock().steadyNanoseconds();
        const int64_t period = periodNs();
        if (next_due_ns_ == 0)
            next_due_ns_ = now + period;
        while (next_due_ns_ <= now) {
            int16_t v[3];
            const uint32_t index = produced++;
            value_of(index, v);
            if (regs[0x34] & 0x20) {
                const bool mark = sync_every != 0 && index % sync_every == 0;
                v[2] = static_cast<int16_t>((static_cast<uint16_t>(v[2]) & 0xFFFEu) | (mark ? 1u : 0u));
            }
            pushFrame(v[0], v[1], v[2]);
            next_due_ns_ += period;
        }
    }
    int64_t next_due_ns_ = 0;
};

// The buses. All calls are serialised by one mutex. The chip accessors hand
// out plain pointers: tests script the chips through them only while no
// reader thread runs, and read registers of a running chip with
// gyroRegister().
class FakeImuBus : public platform::Sys {
public:
    struct Bus {
        std::map<uint8_t, std::shared_ptr<FakeDevice>> devices;
    };

    // A camera: EEPROM blocks at base .. base + 3 with the identification
    // block (serial u32 at 0, version 0x11 at 4, sub-model at 5), and the
    // inertial chip unless `with_chip` is false.
    void addCamera(int bus, uint8_t base, uint32_t serial, uint8_t sub_model, bool with_chip = true) {
        std::lock_guard<std::mutex> lock(mutex_);
        Bus& b = buses_[bus];
        for (int k = 0; k < 4; ++k)
            b.devices[static_cast<uint8_t>(base + k)] = std::make_shared<FakeEepromBlock>();
        auto& id = static_cast<FakeEepromBlock&>(*b.devices[base]).bytes;
        id[0] = static_cast<uint8_t>(serial);
        id[1] = static_cast<uint8_t>(serial >> 8);
        id[2] = static_cast<uint8_t>(serial >> 16);
        id[3] = static_cast<uint8_t>(serial >> 24);
        id[4] = 0x11;
        id[5] = sub_model;
        if (with_chip) {
            b.devices[0x18] = std::make_shared<FakeAccel>();
            b.devices[0x68] = std::make_shared<FakeGyro>();
        }
    }
    void addEmptyBus(int bus) {
        std::lock_guard<std::mutex> lock(mutex_);
        buses_[bus];
    }

    FakeAccel* accel(int bus) { return deviceAs<FakeAccel>(bus, 0x18); }
    FakeGyro* gyro(int bus) { return deviceAs<FakeGyro>(bus, 0x68); }
    FakeEepromBlock* eepromBlock(int bus, uint8_t address) { return deviceAs<FakeEepromBlock>(bus, address); }
    // A register of a part, read under the lock (while reader threads run).
    uint8_t gyroRegister(int bus, uint8_t reg) {
        FakeGyro* g = gyro(bus);
        std::lock_guard<std::mutex> lock(mutex_);
        return g ? g->regs[reg] : 0;
    }

    // Writes with data to one address, in order (pointer-only writes left out).
    std::vector<RegWrite> writesTo(uint8_t address) const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<RegWrite> out;
        for (const RegWrite& w : writes_)
            if (w.address == address && !w.data.empty())
                out.push_back(w);
        return out;
    }
    std::vector<RegRead> readsFrom(uint8_t address) const {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<RegRead> out;
        for (const RegRead& r : reads_)
            if (r.address == address)
                out.push_back(r);
        return out;
    }
    void clearLog() {
        std::lock_guard<std::mutex> lock(mutex_);
        writes_.clear();
        reads_.clear();
    }
    int openDescriptors() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return static_cast<int>(fds_.size());
    }
    std::vector<std::string> openedPaths() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return opened_;
    }
    // Transfers to this address fail (the device does not acknowledge).
    void failAddress(int bus, uint8_t address) {
        std::lock_guard<std::mutex> lock(mutex_);
        failing_[bus].push_back(address);
    }

    // ---- platform::Sys
    int open(const char* path, int, mode_t) override {
        std::lock_guard<std::mutex> lock(mutex_);
        opened_.emplace_back(path);
        const std::string p(path);
        const std::string prefix = "/dev/i2c-";
        if (p.compare(0, prefix.size(), prefix) != 0)
            return fail(ENOENT);
        const int bus = std::atoi(p.c_str() + prefix.size());
        if (buses_.count(bus) == 0)
            return fail(ENOENT);
        const int fd = next_fd_++;
        fds_[fd] = Open{bus, 0};
        return fd;
    }
    int close(int fd) override {
        std::lock_guard<std::mutex> lock(mutex_);
        return fds_.erase(fd) ? 0 : fail(EBADF);
    }
    int ioctl(int fd, unsigned long request, void* arg) override {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = fds_.find(fd);
        if (it == fds_.end())
            return fail(EBADF);
        if (request == I2C_SLAVE_FORCE || request == I2C_SLAVE) {
            it->second.address = static_cast<uint8_t>(reinterpret_cast<uintptr_t>(arg));
            return 0;
        }
        if (request == I2C_TENBIT)
            return 0;
        return fail(EINVAL);
    }
    ssize_t write(int fd, const void* buf, size_t count) override {
        std::lock_guard<std::mutex> lock(mutex_);
        FakeDevice* dev = nullptr;
        Open* o = nullptr;
        if (!target(fd, dev, o) || count == 0)
            return fail(ENXIO);
        const uint8_t* b = static_cast<const uint8_t*>(buf);
        writes_.push_back(RegWrite{o->bus, o->address, b[0], std::vector<uint8_t>(b + 1, b + count)});
        dev->write(b, count);
        return static_cast<ssize_t>(count);
    }
    ssize_t read(int fd, void* buf, size_t count) override {
        std::lock_guard<std::mutex> lock(mutex_);
        FakeDevice* dev = nullptr;
        Open* o = nullptr;
        if (!target(fd, dev, o))
            return fail(ENXIO);
        reads_.push_back(RegRead{o->bus, o->address, dev->pointer, count});
        dev->read(static_cast<uint8_t*>(buf), count);
        return static_cast<ssize_t>(count);
    }
    void* mmap(void*, size_t, int, int, int, off_t) override {
        errno = ENOSYS;
        return reinterpret_cast<void*>(-1);
    }
    int munmap(void*, size_t) override { return fail(ENOSYS); }
    int poll(struct pollfd*, nfds_t, int) override { return fail(ENOSYS); }
    int select(int, fd_set*, fd_set*, fd_set*, struct timeval*) override { return fail(ENOSYS); }
    int stat(const char*, struct stat*) override { return fail(ENOENT); }

private:
    struct Open {
        int bus;
        uint8_t address;
    };

    static int fail(int e) {
        errno = e;
        return -1;
    }

    template <typename T>
    T* deviceAs(int bus, uint8_t address) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto b = buses_.find(bus);
        if (b == buses_.end())
            return nullptr;
        auto d = b->second.devices.find(address);
        return d == b->second.devices.end() ? nullptr : dynamic_cast<T*>(d->second.get());
    }

    bool target(int fd, FakeDevice*& dev, Open*& o) {
        auto it = fds_.find(fd);
        if (it == fds_.end())
            return false;
        o = &it->second;
        for (uint8_t a : failing_[o->bus])
            if (a == o->address)
                return false;
        auto& devices = buses_[o->bus].devices;
        auto d = devices.find(o->address);
        if (d == devices.end())
            return false;
        dev = d->second.get();
        return true;
    }

    mutable std::mutex mutex_;
    std::map<int, Bus> buses_;
    std::map<int, Open> fds_;
    std::map<int, std::vector<uint8_t>> failing_;
    std::vector<RegWrite> writes_;
    std::vector<RegRead> reads_;
    std::vector<std::string> opened_;
    int next_fd_ = 100;
};

}  // namespace gmslimu
