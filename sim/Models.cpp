#include "sim/Models.h"

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/uvcvideo.h>
#include <poll.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace sim {

// ---------------------------------------------------------------------------
// Files

ssize_t OpenFile::read(void*, size_t) {
    return -EINVAL;
}
ssize_t OpenFile::write(const void*, size_t) {
    return -EINVAL;
}
int OpenFile::ioctl(unsigned long, void*) {
    return -ENOTTY;
}
void* OpenFile::mmap(size_t, int, int, off_t, int* err) {
    *err = ENODEV;
    return nullptr;
}
int OpenFile::munmap(void*, size_t) {
    return -EINVAL;
}
short OpenFile::poll(short events, int) {
    return events & (POLLIN | POLLOUT);
}

unsigned DeviceFile::statMode() const {
    return S_IFCHR | 0660;
}

namespace {

class TextOpenFile : public OpenFile {
public:
    explicit TextOpenFile(const std::string& text) : text_(text) {}
    ssize_t read(void* buf, size_t count) override {
        size_t n = std::min(count, text_.size() - std::min(pos_, text_.size()));
        std::memcpy(buf, text_.data() + pos_, n);
        pos_ += n;
        return static_cast<ssize_t>(n);
    }
    ssize_t write(const void*, size_t) override { return -EACCES; }

private:
    std::string text_;
    size_t pos_ = 0;
};

}  // namespace

std::unique_ptr<OpenFile> TextFile::open(int flags, int* err) {
    if ((flags & O_ACCMODE) != O_RDONLY) {
        *err = EACCES;
        return nullptr;
    }
    return std::make_unique<TextOpenFile>(text_);
}

unsigned TextFile::statMode() const {
    return S_IFREG | 0444;
}

// ---------------------------------------------------------------------------
// USB

std::shared_ptr<UsbDevice> UsbBus::add(UsbDevice device) {
    auto d = std::make_shared<UsbDevice>(std::move(device));
    std::lock_guard<std::mutex> lock(mutex_);
    devices_.push_back(d);
    return d;
}

std::vector<std::shared_ptr<UsbDevice>> UsbBus::devices() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::shared_ptr<UsbDevice>> out;
    for (const auto& d : devices_)
        if (d->attached)
            out.push_back(d);
    return out;
}

std::shared_ptr<UsbDevice> UsbBus::find(uint8_t bus, uint8_t address) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& d : devices_)
        if (d->attached && d->bus == bus && d->address == address)
            return d;
    return nullptr;
}

uint8_t UsbBus::nextAddress(uint8_t bus) const {
    std::lock_guard<std::mutex> lock(mutex_);
    int highest = 1;  // address 1 is the root hub
    for (const auto& d : devices_)
        if (d->bus == bus)
            highest = std::max<int>(highest, d->address);
    return static_cast<uint8_t>(highest >= 127 ? 2 : highest + 1);
}

void UsbBus::setAttached(const std::shared_ptr<UsbDevice>& device, bool attached) {
    std::lock_guard<std::mutex> lock(mutex_);
    device->attached = attached;
}

void UsbBus::setAddress(const std::shared_ptr<UsbDevice>& device, uint8_t address) {
    std::lock_guard<std::mutex> lock(mutex_);
    device->address = address;
}

bool UsbBus::isAttached(const UsbDevice& device) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return device.attached;
}

uint8_t UsbBus::addressOf(const UsbDevice& device) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return device.address;
}

std::string hidPath(uint8_t bus, uint8_t address, int interfaceNumber) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%04x:%04x:%02x", bus, address, interfaceNumber & 0xFF);
    return buf;
}

// ---------------------------------------------------------------------------
// Video nodes

namespace {

class VideoOpenFile : public OpenFile {
public:
    explicit VideoOpenFile(std::shared_ptr<VideoNode> node) : node_(std::move(node)) {}
    int ioctl(unsigned long request, void* arg) override { return node_->baseIoctl(request, arg); }

private:
    std::shared_ptr<VideoNode> node_;
};

void copyText(uint8_t* dst, size_t size, const std::string& text) {
    std::memset(dst, 0, size);
    std::memcpy(dst, text.data(), std::min(size - 1, text.size()));
}

}  // namespace

std::unique_ptr<OpenFile> VideoNode::open(int flags, int* err) {
    if (!present_) {
        *err = ENOENT;
        return nullptr;
    }
    if (busy_) {
        *err = EBUSY;
        return nullptr;
    }
    return openFile(flags);
}

std::unique_ptr<OpenFile> VideoNode::openFile(int) {
    return std::make_unique<VideoOpenFile>(shared_from_this());
}

int VideoNode::baseIoctl(unsigned long request, void* arg) {
    if (!present_)
        return -ENODEV;
    if (arg == nullptr)
        return -EFAULT;
    switch (request) {
        case VIDIOC_QUERYCAP: {
            auto* cap = static_cast<v4l2_capability*>(arg);
            std::memset(cap, 0, sizeof *cap);
            copyText(cap->driver, sizeof cap->driver, config_.driver);
            copyText(cap->card, sizeof cap->card, config_.card);
            copyText(cap->bus_info, sizeof cap->bus_info, config_.busInfo);
            cap->version = 0x050a00;
            cap->capabilities = config_.capabilities;
            cap->device_caps = config_.deviceCaps;
            return 0;
        }
        case VIDIOC_ENUM_FMT: {
            auto* fmt = static_cast<v4l2_fmtdesc*>(arg);
            if (fmt->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || !(config_.deviceCaps & V4L2_CAP_VIDEO_CAPTURE))
                return -EINVAL;
            if (fmt->index >= config_.formats.size())
                return -EINVAL;
            const VideoFormat& f = config_.formats[fmt->index];
            uint32_t index = fmt->index, type = fmt->type;
            std::memset(fmt, 0, sizeof *fmt);
            fmt->index = index;
            fmt->type = type;
            fmt->pixelformat = f.pixelformat;
            copyText(fmt->description, sizeof fmt->description, f.description);
            return 0;
        }
        case UVCIOC_CTRL_QUERY: {
            if (!xu_)
                return -ENOENT;
            auto* q = static_cast<uvc_xu_control_query*>(arg);
            if (q->size > 0 && q->data == nullptr)
                return -EFAULT;
            return xu_->query(q->unit, q->selector, q->query, q->data, q->size);
        }
        default:
            return -ENOTTY;
    }
}

// ---------------------------------------------------------------------------
// I2C

RegisterChip::RegisterChip(size_t size, int addressBytes, size_t pageSize)
    : memory_(size, 0xFF), addressBytes_(addressBytes), pageSize_(pageSize) {}

bool RegisterChip::write(const uint8_t* data, size_t length) {
    std::lock_guard<std::mutex> lock(mutex_);
    writeLog_.emplace_back(data, data + length);
    if (length < static_cast<size_t>(addressBytes_))
        return false;
    size_t reg = 0;
    for (int i = 0; i < addressBytes_; ++i)
        reg = (reg << 8) | data[i];
    if (memory_.empty())
        return false;
    reg %= memory_.size();
    pointer_ = reg;
    size_t pageStart = pageSize_ ? reg - reg % pageSize_ : 0;
    for (size_t i = addressBytes_; i < length; ++i) {
        memory_[pointer_] = data[i];
        onRegisterWritten(pointer_, data[i]);
        if (pageSize_) {
            pointer_ = pageStart + (pointer_ - pageStart + 1) % pageSize_;
        } else {
            pointer_ = (pointer_ + 1) % memory_.size();
        }
    }
    return true;
}

bool RegisterChip::read(uint8_t* data, size_t length) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (memory_.empty())
        return false;
    for (size_t i = 0; i < length; ++i) {
        data[i] = onRegisterRead(pointer_, memory_[pointer_]);
        pointer_ = (pointer_ + 1) % memory_.size();
    }
    return true;
}

std::vector<uint8_t> RegisterChip::contents() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return memory_;
}

void RegisterChip::setContents(size_t offset, const std::vector<uint8_t>& bytes) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (size_t i = 0; i < bytes.size() && offset + i < memory_.size(); ++i)
        memory_[offset + i] = bytes[i];
}

std::vector<std::vector<uint8_t>> RegisterChip::writeLog() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return writeLog_;
}

void RegisterChip::clearWriteLog() {
    std::lock_guard<std::mutex> lock(mutex_);
    writeLog_.clear();
}

namespace {

class I2cOpenFile : public OpenFile {
public:
    explicit I2cOpenFile(std::shared_ptr<I2cBus> bus) : bus_(std::move(bus)) {}

    ssize_t read(void* buf, size_t count) override {
        auto chip = selected();
        if (!chip)
            return -ENXIO;
        if (!chip->read(static_cast<uint8_t*>(buf), count))
            return -EREMOTEIO;
        return static_cast<ssize_t>(count);
    }
    ssize_t write(const void* buf, size_t count) override {
        auto chip = selected();
        if (!chip)
            return -ENXIO;
        if (!chip->write(static_cast<const uint8_t*>(buf), count))
            return -EREMOTEIO;
        return static_cast<ssize_t>(count);
    }
    int ioctl(unsigned long request, void* arg) override {
        unsigned long value = static_cast<unsigned long>(reinterpret_cast<uintptr_t>(arg));
        switch (request) {
            case I2C_TENBIT:
                tenBit_ = value != 0;
                return 0;
            case I2C_SLAVE:
            case I2C_SLAVE_FORCE:
                if (value > (tenBit_ ? 0x3FFu : 0x7Fu))
                    return -EINVAL;
                // Only the forced request may take an address a kernel driver holds.
                if (request == I2C_SLAVE && bus_->claimed(static_cast<uint16_t>(value)))
                    return -EBUSY;
                address_ = static_cast<int>(value);
                return 0;
            case I2C_FUNCS:
                if (arg == nullptr)
                    return -EFAULT;
                *static_cast<unsigned long*>(arg) = I2C_FUNC_I2C | I2C_FUNC_10BIT_ADDR | I2C_FUNC_SMBUS_EMUL;
                return 0;
            case I2C_RDWR: {
                auto* data = static_cast<i2c_rdwr_ioctl_data*>(arg);
                if (data == nullptr || data->msgs == nullptr || data->nmsgs > I2C_RDWR_IOCTL_MAX_MSGS)
                    return -EINVAL;
                for (uint32_t i = 0; i < data->nmsgs; ++i) {
                    const i2c_msg& m = data->msgs[i];
                    auto chip = bus_->chip(m.addr);
                    if (!chip)
                        return -ENXIO;
                    bool ok = (m.flags & I2C_M_RD) ? chip->read(m.buf, m.len) : chip->write(m.buf, m.len);
                    if (!ok)
                        return -EREMOTEIO;
                }
                return static_cast<int>(data->nmsgs);
            }
            default:
                return -ENOTTY;
        }
    }

private:
    std::shared_ptr<I2cChip> selected() const {
        return address_ < 0 ? nullptr : bus_->chip(static_cast<uint16_t>(address_));
    }
    std::shared_ptr<I2cBus> bus_;
    int address_ = -1;
    bool tenBit_ = false;
};

}  // namespace

std::unique_ptr<OpenFile> I2cBus::open(int, int*) {
    return std::make_unique<I2cOpenFile>(shared_from_this());
}

void I2cBus::attach(uint16_t address, std::shared_ptr<I2cChip> chip) {
    std::lock_guard<std::mutex> lock(mutex_);
    chips_[address] = std::move(chip);
}

std::shared_ptr<I2cChip> I2cBus::chip(uint16_t address) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = chips_.find(address);
    return it == chips_.end() ? nullptr : it->second;
}

void I2cBus::claim(uint16_t address) {
    std::lock_guard<std::mutex> lock(mutex_);
    claimed_.insert(address);
}

bool I2cBus::claimed(uint16_t address) const {
    std::lock_guard<std::mutex> lock(mutex_);
    return claimed_.count(address) != 0;
}

}  // namespace sim
