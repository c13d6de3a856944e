#include "sim/uvc/UvcCamera.h"

#include <fcntl.h>
#include <linux/uvcvideo.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "bh_input/grabber/defines.h"
#include "platform/Platform.h"
#include "sim/Machine.h"

namespace sim {

namespace {

constexpr uint32_t kMaxBuffers = 32;  // the driver's limit
constexpr int64_t kSecond = 1000000000LL;
constexpr size_t kPage = 4096;

size_t pageAlign(size_t n) {
    return (n + kPage - 1) & ~(kPage - 1);
}

int64_t seconds(double s) {
    return static_cast<int64_t>(s * 1e9);
}

}  // namespace

// Memory of one buffer: a shared memory file, so that each mmap of the buffer
// is a real shared mapping of the same pages, and a mapping outlives the
// buffer (and the descriptor) as it does with the driver.
struct UvcCamera::Memory {
    int fd = -1;
    uint8_t* data = nullptr;
    size_t size = 0;
    int mappings = 0;  // the camera's mutex guards it
    ~Memory() {
        if (data)
            ::munmap(data, size);
        if (fd >= 0)
            ::close(fd);
    }
};

struct UvcCamera::Buffer {
    enum State { Dequeued, Queued, Done };
    std::shared_ptr<Memory> memory;
    uint32_t length = 0;
    uint32_t offset = 0;
    State state = Dequeued;
    uint32_t bytesused = 0;
    uint32_t flags = 0;  // V4L2_BUF_FLAG_ERROR of the last fill
    uint32_t sequence = 0;
    timeval timestamp{};
};

struct UvcCamera::Handle final : OpenFile {
    Handle(std::shared_ptr<UvcCamera> camera, int flags)
        : camera(std::move(camera)), nonblocking((flags & O_NONBLOCK) != 0) {}
    ~Handle() override { close(); }
    int ioctl(unsigned long request, void* arg) override { return camera->ioctl(this, request, arg); }
    void* mmap(size_t length, int prot, int flags, off_t offset, int* err) override {
        return camera->mmap(this, length, prot, flags, offset, err);
    }
    int munmap(void* addr, size_t length) override { return camera->munmap(addr, length); }
    short poll(short events, int timeoutMs) override { return camera->poll(this, events, timeoutMs); }
    void close() override {
        if (!closed) {
            closed = true;
            camera->release(this);
        }
    }

    std::shared_ptr<UvcCamera> camera;
    bool nonblocking;
    bool closed = false;
    uint32_t priority = V4L2_PRIORITY_DEFAULT;
};

std::vector<UvcFrameSize> UvcCamera::frameSizes() {
    auto sbs = [](bh::RESOLUTION r, std::vector<int> rates) {
        const bh::Resolution& one = bh::cameraResolution.at(r);
        return UvcFrameSize{static_cast<int>(2 * one.width), static_cast<int>(one.height), std::move(rates)};
    };
    return {sbs(bh::HD2K, {15}), sbs(bh::HD1080, {30, 15}), sbs(bh::HD720, {60, 30, 15}),
            sbs(bh::VGA, {100, 60, 30, 15})};
}

UvcCamera::UvcCamera(const UvcCameraConfig& config, UsbBus* bus, std::shared_ptr<UsbDevice> usb)
    : VideoNode(config.node),
      config_(config),
      bus_(bus),
      usb_(std::move(usb)),
      firmware_(std::make_shared<CameraFirmware>(config.firmware)),
      sizes_(frameSizes()) {
    const UvcFrameSize& s =
        nearestSize(static_cast<uint32_t>(config.width), static_cast<uint32_t>(config.height));
    width_ = s.width;
    height_ = s.height;
    fps_ = nearestRate(s, 1, static_cast<uint32_t>(std::max(1, config.fps)));
    setExtensionUnit(std::make_shared<ExtensionUnits>(firmware_));
    if (config_.faults.ispLockAt == 0)
        for (int s2 = 0; s2 < 2; ++s2)
            if (config_.faults.ispLockSensors[s2])
                firmware_->setIspLocked(s2, true);
}

UvcCamera::~UvcCamera() = default;

std::shared_ptr<UvcCamera> UvcCamera::addTo(Machine& machine, const UvcCameraConfig& config, UsbDevice usb) {
    auto device = machine.usb().add(std::move(usb));
    auto camera = std::make_shared<UvcCamera>(config, &machine.usb(), device);
    machine.addVideoNode(camera);
    return camera;
}

std::unique_ptr<OpenFile> UvcCamera::openFile(int flags) {
    auto self = std::static_pointer_cast<UvcCamera>(shared_from_this());
    std::lock_guard<std::mutex> lock(mutex_);
    ++priorities_[V4L2_PRIORITY_DEFAULT];
    return std::make_unique<Handle>(self, flags);
}

int64_t UvcCamera::now() const {
    return platform::clock().steadyNanoseconds();
}

bool UvcCamera::present() const {
    // Faults that fall due with time are applied when someone looks.
    auto* self = const_cast<UvcCamera*>(this);
    std::lock_guard<std::mutex> lock(mutex_);
    self->tick(now());
    return VideoNode::present();
}

void UvcCamera::tick(int64_t t) {
    if (epoch_ < 0)
        return;
    const UvcFaults& f = config_.faults;
    if (f.ispLockAt > 0 && t >= epoch_ + seconds(f.ispLockAt))
        for (int s = 0; s < 2; ++s)
            if (f.ispLockSensors[s] && !firmware_->ispLocked(s))
                firmware_->setIspLocked(s, true);
    if (f.unplugAt >= 0 && !gone() && t >= epoch_ + seconds(f.unplugAt)) {
        advance(epoch_ + seconds(f.unplugAt));
        doUnplug();
    }
}

void UvcCamera::doUnplug() {
    setPresent(false);
    if (bus_ && usb_)
        bus_->setAttached(usb_, false);
}

void UvcCamera::unplug() {
    std::lock_guard<std::mutex> lock(mutex_);
    advance(now());
    doUnplug();
}

int64_t UvcCamera::frameStart(uint64_t k) const {
    return t0_ + static_cast<int64_t>(k) * kSecond / fps_;
}

bool UvcCamera::hit(double rate, uint64_t k) const {
    if (rate <= 0)
        return false;
    const int64_t milli = static_cast<int64_t>(rate * 1000.0 + 0.5);
    const int64_t per = static_cast<int64_t>(fps_) * 1000;
    return static_cast<int64_t>(k + 1) * milli / per > static_cast<int64_t>(k) * milli / per;
}

void UvcCamera::advance(int64_t t) {
    if (!streaming_ || gone())
        return;
    while (frameDone(nextFrame_) <= t)
        makeFrame(nextFrame_++);
}

void UvcCamera::makeFrame(uint64_t k) {
    const UvcFaults& f = config_.faults;
    const int64_t start = frameStart(k);
    if (f.stallSeconds > 0 && f.stallAt >= 0 && start >= epoch_ + seconds(f.stallAt) &&
        start < epoch_ + seconds(f.stallAt + f.stallSeconds)) {
        ++counters_.stalled;
        return;
    }
    const uint32_t sequence = sequence_++;
    ++counters_.produced;
    if (hit(f.dropsPerSecond, k)) {
        ++counters_.dropped;
        return;
    }
    if (queued_.empty()) {
        ++counters_.lost;
        return;
    }
    const uint32_t index = queued_.front();
    queued_.pop_front();
    Buffer& b = buffers_[index];
    const bool shortFrame = hit(f.shortPerSecond, k);
    const bool torn = !shortFrame && hit(f.tornPerSecond, k);
    // A short frame: the transfer ended half way down the image.
    b.bytesused = shortFrame ? b.length / 2 : b.length;
    generator_.render(k, b.memory->data, b.bytesused, torn);
    b.flags = shortFrame ? V4L2_BUF_FLAG_ERROR : 0;
    b.sequence = sequence;
    b.timestamp.tv_sec = start / kSecond;
    b.timestamp.tv_usec = (start % kSecond) / 1000;
    b.state = Buffer::Done;
    done_.push_back(index);
    ++counters_.delivered;
    counters_.shortFrames += shortFrame;
    counters_.torn += torn;
}

int64_t UvcCamera::nextWake() const {
    int64_t wake = frameDone(nextFrame_);
    const UvcFaults& f = config_.faults;
    if (epoch_ >= 0 && f.unplugAt >= 0)
        wake = std::min(wake, epoch_ + seconds(f.unplugAt));
    return wake;
}

void UvcCamera::streamOff() {
    streaming_ = false;
    queued_.clear();
    done_.clear();
    for (Buffer& b : buffers_)
        b.state = Buffer::Dequeued;
}

void UvcCamera::freeBuffers() {
    streamOff();
    // Mapped memory stays valid for its mappings (orphaned buffers).
    buffers_.clear();
}

void UvcCamera::release(Handle* h) {
    std::lock_guard<std::mutex> lock(mutex_);
    --priorities_[h->priority];
    if (owner_ == h) {
        freeBuffers();
        owner_ = nullptr;
    }
}

int UvcCamera::priorityBusy(Handle* h) const {
    for (uint32_t p = h->priority + 1; p <= V4L2_PRIORITY_RECORD; ++p)
        if (priorities_[p] > 0)
            return -EBUSY;
    return 0;
}

const UvcFrameSize& UvcCamera::nearestSize(uint32_t w, uint32_t h) const {
    // The size whose rectangle differs least from the request (the driver's rule).
    const UvcFrameSize* best = &sizes_.front();
    uint64_t bestD = UINT64_MAX;
    for (const UvcFrameSize& s : sizes_) {
        const uint64_t sw = static_cast<uint64_t>(s.width), sh = static_cast<uint64_t>(s.height);
        const uint64_t common = std::min<uint64_t>(sw, w) * std::min<uint64_t>(sh, h);
        const uint64_t d = sw * sh + static_cast<uint64_t>(w) * h - 2 * common;
        if (d < bestD) {
            bestD = d;
            best = &s;
        }
    }
    return *best;
}

int UvcCamera::nearestRate(const UvcFrameSize& size, uint32_t numerator, uint32_t denominator) const {
    // Nearest frame interval, in the driver's 100 ns units.
    uint64_t want =
        denominator == 0 ? UINT32_MAX : static_cast<uint64_t>(numerator) * 10000000ULL / denominator;
    int best = size.rates.front();
    uint64_t bestD = UINT64_MAX;
    for (int r : size.rates) {
        const uint64_t interval = 10000000ULL / static_cast<uint64_t>(r);
        const uint64_t d = interval > want ? interval - want : want - interval;
        if (d < bestD) {
            bestD = d;
            best = r;
        }
    }
    return best;
}

void UvcCamera::fillFormat(v4l2_format* f, const UvcFrameSize& s) const {
    const uint32_t type = f->type;
    std::memset(f, 0, sizeof *f);
    f->type = type;
    v4l2_pix_format& p = f->fmt.pix;
    p.width = static_cast<uint32_t>(s.width);
    p.height = static_cast<uint32_t>(s.height);
    p.pixelformat = V4L2_PIX_FMT_YUYV;
    p.field = V4L2_FIELD_NONE;
    p.bytesperline = p.width * 2;
    p.sizeimage = p.bytesperline * p.height;
    p.colorspace = V4L2_COLORSPACE_SRGB;
}

void UvcCamera::fillBuffer(const Buffer& b, uint32_t index, v4l2_buffer* out) const {
    std::memset(out, 0, sizeof *out);
    out->index = index;
    out->type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    out->memory = V4L2_MEMORY_MMAP;
    out->bytesused = b.bytesused;
    out->field = V4L2_FIELD_NONE;
    out->flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | V4L2_BUF_FLAG_TSTAMP_SRC_SOE | b.flags;
    if (b.memory->mappings > 0)
        out->flags |= V4L2_BUF_FLAG_MAPPED;
    if (b.state == Buffer::Queued)
        out->flags |= V4L2_BUF_FLAG_QUEUED;
    if (b.state == Buffer::Done)
        out->flags |= V4L2_BUF_FLAG_DONE;
    out->timestamp = b.timestamp;
    out->sequence = b.sequence;
    out->m.offset = b.offset;
    out->length = b.length;
}

int UvcCamera::ioctl(Handle* h, unsigned long request, void* arg) {
    if (arg == nullptr)
        return -EFAULT;
    Lock lock(mutex_);
    const int64_t t = now();
    tick(t);
    if (gone())
        return -ENODEV;
    advance(t);
    switch (request) {
        case VIDIOC_G_FMT:
        case VIDIOC_S_FMT:
        case VIDIOC_TRY_FMT:
            return ioctlFormat(h, request, static_cast<v4l2_format*>(arg));
        case VIDIOC_G_PARM:
        case VIDIOC_S_PARM:
            return ioctlParm(h, request, static_cast<v4l2_streamparm*>(arg));
        case VIDIOC_QUERYCTRL:
        case VIDIOC_G_CTRL:
        case VIDIOC_S_CTRL:
            return controls_.ioctl(request, arg);
        case VIDIOC_CROPCAP: {
            auto* c = static_cast<v4l2_cropcap*>(arg);
            if (c->type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
                return -EINVAL;
            const uint32_t type = c->type;
            std::memset(c, 0, sizeof *c);
            c->type = type;
            c->bounds = {0, 0, static_cast<uint32_t>(width_), static_cast<uint32_t>(height_)};
            c->defrect = c->bounds;
            c->pixelaspect = {1, 1};
            return 0;
        }
        case VIDIOC_ENUM_FRAMESIZES: {
            auto* s = static_cast<v4l2_frmsizeenum*>(arg);
            if (s->pixel_format != V4L2_PIX_FMT_YUYV || s->index >= sizes_.size())
                return -EINVAL;
            s->type = V4L2_FRMSIZE_TYPE_DISCRETE;
            s->discrete.width = static_cast<uint32_t>(sizes_[s->index].width);
            s->discrete.height = static_cast<uint32_t>(sizes_[s->index].height);
            return 0;
        }
        case VIDIOC_ENUM_FRAMEINTERVALS: {
            auto* iv = static_cast<v4l2_frmivalenum*>(arg);
            if (iv->pixel_format != V4L2_PIX_FMT_YUYV)
                return -EINVAL;
            for (const UvcFrameSize& s : sizes_) {
                if (static_cast<uint32_t>(s.width) != iv->width ||
                    static_cast<uint32_t>(s.height) != iv->height)
                    continue;
                if (iv->index >= s.rates.size())
                    return -EINVAL;
                iv->type = V4L2_FRMIVAL_TYPE_DISCRETE;
                iv->discrete.numerator = 1;
                iv->discrete.denominator = static_cast<uint32_t>(s.rates[iv->index]);
                return 0;
            }
            return -EINVAL;
        }
        case VIDIOC_REQBUFS:
            return ioctlReqbufs(h, static_cast<v4l2_requestbuffers*>(arg));
        case VIDIOC_QUERYBUF: {
            auto* b = static_cast<v4l2_buffer*>(arg);
            if (owner_ != h)
                return -EBUSY;
            if (b->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || b->index >= buffers_.size())
                return -EINVAL;
            fillBuffer(buffers_[b->index], b->index, b);
            return 0;
        }
        case VIDIOC_QBUF:
            return ioctlQbuf(h, static_cast<v4l2_buffer*>(arg));
        case VIDIOC_DQBUF:
            return ioctlDqbuf(h, lock, static_cast<v4l2_buffer*>(arg));
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF:
            return ioctlStream(h, request, static_cast<const int*>(arg));
        case VIDIOC_G_PRIORITY: {
            uint32_t p = V4L2_PRIORITY_UNSET;
            for (uint32_t i = V4L2_PRIORITY_RECORD; i > V4L2_PRIORITY_UNSET; --i)
                if (priorities_[i] > 0) {
                    p = i;
                    break;
                }
            *static_cast<uint32_t*>(arg) = p;
            return 0;
        }
        case VIDIOC_S_PRIORITY: {
            if (int busy = priorityBusy(h))
                return busy;
            const uint32_t p = *static_cast<const uint32_t*>(arg);
            if (p == V4L2_PRIORITY_UNSET || p > V4L2_PRIORITY_RECORD)
                return -EINVAL;
            --priorities_[h->priority];
            h->priority = p;
            ++priorities_[p];
            return 0;
        }
        case VIDIOC_ENUMINPUT: {
            auto* in = static_cast<v4l2_input*>(arg);
            if (in->index != 0)
                return -EINVAL;
            std::memset(in, 0, sizeof *in);
            std::strncpy(reinterpret_cast<char*>(in->name), "Camera 1", sizeof in->name - 1);
            in->type = V4L2_INPUT_TYPE_CAMERA;
            return 0;
        }
        case VIDIOC_G_INPUT:
            *static_cast<int*>(arg) = 0;
            return 0;
        case VIDIOC_S_INPUT:
            return *static_cast<const int*>(arg) == 0 ? 0 : -EINVAL;
        default:
            // Capabilities, formats and the vendor channel: not stream state.
            lock.unlock();
            return baseIoctl(request, arg);
    }
}

int UvcCamera::ioctlFormat(Handle* h, unsigned long request, v4l2_format* f) {
    if (f->type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return -EINVAL;
    if (request == VIDIOC_G_FMT) {
        fillFormat(f, nearestSize(static_cast<uint32_t>(width_), static_cast<uint32_t>(height_)));
        return 0;
    }
    // Any pixel format but the one the camera has is taken as that one.
    const UvcFrameSize& s = nearestSize(f->fmt.pix.width, f->fmt.pix.height);
    if (request == VIDIOC_S_FMT) {
        if (int busy = priorityBusy(h))
            return busy;
        if (otherOwner(h))
            return -EBUSY;
        owner_ = h;
        if (!buffers_.empty() || streaming_)
            return -EBUSY;
        width_ = s.width;
        height_ = s.height;
        fps_ = nearestRate(s, 1, static_cast<uint32_t>(fps_));
    }
    fillFormat(f, s);
    return 0;
}

int UvcCamera::ioctlParm(Handle* h, unsigned long request, v4l2_streamparm* p) {
    if (p->type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return -EINVAL;
    if (request == VIDIOC_S_PARM) {
        if (int busy = priorityBusy(h))
            return busy;
        if (otherOwner(h))
            return -EBUSY;
        owner_ = h;
        if (streaming_)
            return -EBUSY;
        const UvcFrameSize& s = nearestSize(static_cast<uint32_t>(width_), static_cast<uint32_t>(height_));
        fps_ =
            nearestRate(s, p->parm.capture.timeperframe.numerator, p->parm.capture.timeperframe.denominator);
    }
    const uint32_t type = p->type;
    std::memset(p, 0, sizeof *p);
    p->type = type;
    p->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    p->parm.capture.timeperframe.numerator = 1;
    p->parm.capture.timeperframe.denominator = static_cast<uint32_t>(fps_);
    return 0;
}

int UvcCamera::ioctlReqbufs(Handle* h, v4l2_requestbuffers* r) {
    if (r->type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return -EINVAL;
    if (int busy = priorityBusy(h))
        return busy;
    if (otherOwner(h))
        return -EBUSY;
    if (r->memory != V4L2_MEMORY_MMAP)
        return -EINVAL;  // this model offers memory-mapped buffers only
    if (streaming_)
        return -EBUSY;
    freeBuffers();
    std::memset(r->reserved, 0, sizeof r->reserved);
    r->capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
    if (r->count == 0) {
        owner_ = nullptr;
        return 0;
    }
    owner_ = h;
    const uint32_t count = std::min(std::max(r->count, 1u), kMaxBuffers);
    const uint32_t length = static_cast<uint32_t>(width_) * static_cast<uint32_t>(height_) * 2;
    const size_t size = pageAlign(length);
    for (uint32_t i = 0; i < count; ++i) {
        auto m = std::make_shared<Memory>();
        m->size = size;
        m->fd = ::memfd_create("uvc-buffer", MFD_CLOEXEC);
        if (m->fd < 0 || ::ftruncate(m->fd, static_cast<off_t>(size)) != 0)
            break;
        void* p = ::mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, m->fd, 0);
        if (p == MAP_FAILED)
            break;
        m->data = static_cast<uint8_t*>(p);
        Buffer b;
        b.memory = std::move(m);
        b.length = length;
        b.offset = static_cast<uint32_t>(i * size);
        buffers_.push_back(std::move(b));
    }
    if (buffers_.empty())
        return -ENOMEM;
    r->count = static_cast<uint32_t>(buffers_.size());
    generator_.configure(width_, height_);
    return 0;
}

int UvcCamera::ioctlQbuf(Handle* h, v4l2_buffer* b) {
    if (otherOwner(h) || owner_ == nullptr)
        return -EBUSY;
    if (b->type != V4L2_BUF_TYPE_VIDEO_CAPTURE || b->memory != V4L2_MEMORY_MMAP ||
        b->index >= buffers_.size())
        return -EINVAL;
    Buffer& buf = buffers_[b->index];
    if (buf.state != Buffer::Dequeued)
        return -EINVAL;
    buf.state = Buffer::Queued;
    buf.bytesused = 0;
    buf.flags = 0;
    queued_.push_back(b->index);
    fillBuffer(buf, b->index, b);
    return 0;
}

int UvcCamera::ioctlDqbuf(Handle* h, Lock& lock, v4l2_buffer* b) {
    if (otherOwner(h) || owner_ == nullptr)
        return -EBUSY;
    if (b->type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return -EINVAL;
    for (;;) {
        if (gone())
            return -ENODEV;
        if (!streaming_)
            return -EINVAL;
        if (!done_.empty())
            break;
        if (h->nonblocking)
            return -EAGAIN;
        // Wait for the next frame on the machine's clock.
        const int64_t t = now();
        const int64_t wake = nextWake();
        lock.unlock();
        if (wake > t)
            platform::clock().sleepFor(std::chrono::nanoseconds(wake - t));
        lock.lock();
        const int64_t later = now();
        tick(later);
        advance(later);
    }
    const uint32_t index = done_.front();
    done_.pop_front();
    Buffer& buf = buffers_[index];
    buf.state = Buffer::Dequeued;
    fillBuffer(buf, index, b);
    return 0;
}

int UvcCamera::ioctlStream(Handle* h, unsigned long request, const int* type) {
    if (int busy = priorityBusy(h))
        return busy;
    if (owner_ != h)
        return -EBUSY;
    if (*type != V4L2_BUF_TYPE_VIDEO_CAPTURE)
        return -EINVAL;
    if (request == VIDIOC_STREAMOFF) {
        streamOff();
        return 0;
    }
    if (streaming_)
        return 0;
    if (buffers_.empty())
        return -EINVAL;
    streaming_ = true;
    t0_ = now();
    if (epoch_ < 0)
        epoch_ = t0_;
    nextFrame_ = 0;
    sequence_ = 0;
    ++counters_.streams;
    generator_.configure(width_, height_);
    return 0;
}

void* UvcCamera::mmap(Handle*, size_t length, int prot, int flags, off_t offset, int* err) {
    std::lock_guard<std::mutex> lock(mutex_);
    tick(now());
    if (gone()) {
        *err = ENODEV;
        return nullptr;
    }
    if (!(flags & MAP_SHARED)) {
        *err = EINVAL;
        return nullptr;
    }
    for (Buffer& b : buffers_) {
        if (static_cast<off_t>(b.offset) != offset)
            continue;
        if (length == 0 || length > b.memory->size) {
            *err = EINVAL;
            return nullptr;
        }
        void* p = ::mmap(nullptr, length, prot, MAP_SHARED, b.memory->fd, 0);
        if (p == MAP_FAILED) {
            *err = errno;
            return nullptr;
        }
        ++b.memory->mappings;
        mappings_[p] = b.memory;
        return p;
    }
    *err = EINVAL;
    return nullptr;
}

int UvcCamera::munmap(void* addr, size_t length) {
    std::shared_ptr<Memory> m;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = mappings_.find(addr);
        if (it == mappings_.end())
            return -EINVAL;
        m = it->second;
        --m->mappings;
        mappings_.erase(it);
    }
    return ::munmap(addr, length) == 0 ? 0 : -errno;
}

short UvcCamera::poll(Handle*, short events, int timeoutMs) {
    Lock lock(mutex_);
    int64_t t = now();
    const int64_t deadline = timeoutMs < 0 ? INT64_MAX : t + static_cast<int64_t>(timeoutMs) * 1000000;
    const short always = POLLERR | POLLHUP;
    for (;;) {
        tick(t);
        if (gone())
            return static_cast<short>(POLLERR | POLLHUP | (events & POLLPRI));
        if (!streaming_)
            return POLLERR;
        advance(t);
        if (!done_.empty()) {
            const short ready = static_cast<short>((POLLIN | POLLRDNORM) & (events | always));
            if (ready)
                return ready;
        }
        if (t >= deadline)
            return 0;
        const int64_t wake = std::min(deadline, nextWake());
        lock.unlock();
        if (wake > t)
            platform::clock().sleepFor(std::chrono::nanoseconds(wake - t));
        lock.lock();
        t = now();
    }
}

UvcCamera::Counters UvcCamera::counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counters_;
}

bool UvcCamera::streaming() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return streaming_;
}

int UvcCamera::width() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return width_;
}

int UvcCamera::height() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return height_;
}

int UvcCamera::fps() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return fps_;
}

size_t UvcCamera::bufferCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return buffers_.size();
}

int32_t UvcCamera::controlValue(uint32_t id) const {
    Lock lock(mutex_);
    return controls_.value(id);
}

void UvcCamera::setControlValue(uint32_t id, int32_t value) {
    Lock lock(mutex_);
    controls_.setValue(id, value);
}

}  // namespace sim
