#include "sim/SimBackend.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <thread>

namespace sim {

// ===========================================================================
// Sys

SimSys::SimSys(std::shared_ptr<Machine> machine) : machine_(std::move(machine)) {}

SimSys::~SimSys() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& f : files_)
        ::close(f.first);
}

bool SimSys::isSimulatedPath(const std::string& path) {
    auto starts = [&](const char* prefix) { return path.compare(0, std::strlen(prefix), prefix) == 0; };
    return starts("/dev/video") || starts("/dev/i2c-") || starts("/sys/class/video4linux");
}

std::shared_ptr<OpenFile> SimSys::lookup(int fd) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = files_.find(fd);
    return it == files_.end() ? nullptr : it->second;
}

size_t SimSys::openCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return files_.size();
}

int SimSys::open(const char* path, int flags, mode_t mode) {
    if (path == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (!isSimulatedPath(path))
        return ::open(path, flags, mode);
    auto file = machine_->file(path);
    if (!file || !file->present()) {
        errno = ENOENT;
        return -1;
    }
    int err = 0;
    std::unique_ptr<OpenFile> open = file->open(flags, &err);
    if (!open) {
        errno = err ? err : EIO;
        return -1;
    }
    // Reserve the number from the real system so that it can never be a real fd.
    int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    files_[fd] = std::shared_ptr<OpenFile>(std::move(open));
    return fd;
}

int SimSys::close(int fd) {
    std::shared_ptr<OpenFile> f;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = files_.find(fd);
        if (it != files_.end()) {
            f = it->second;
            files_.erase(it);
        }
    }
    if (!f)
        return ::close(fd);
    f->close();
    return ::close(fd);
}

namespace {
template <typename T>
T result(T r) {
    if (r < 0) {
        errno = static_cast<int>(-r);
        return -1;
    }
    return r;
}
}  // namespace

ssize_t SimSys::read(int fd, void* buf, size_t count) {
    auto f = lookup(fd);
    if (!f)
        return ::read(fd, buf, count);
    return result(f->read(buf, count));
}

ssize_t SimSys::write(int fd, const void* buf, size_t count) {
    auto f = lookup(fd);
    if (!f)
        return ::write(fd, buf, count);
    return result(f->write(buf, count));
}

int SimSys::ioctl(int fd, unsigned long request, void* arg) {
    auto f = lookup(fd);
    if (!f)
        return ::ioctl(fd, request, arg);
    return result(f->ioctl(request, arg));
}

void* SimSys::mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    auto f = lookup(fd);
    if (!f)
        return ::mmap(addr, length, prot, flags, fd, offset);
    int err = 0;
    void* p = f->mmap(length, prot, flags, offset, &err);
    if (p == nullptr) {
        errno = err ? err : ENODEV;
        return MAP_FAILED;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    mappings_[p] = f;
    return p;
}

int SimSys::munmap(void* addr, size_t length) {
    std::shared_ptr<OpenFile> f;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = mappings_.find(addr);
        if (it != mappings_.end()) {
            f = it->second;
            mappings_.erase(it);
        }
    }
    if (!f)
        return ::munmap(addr, length);
    return result(f->munmap(addr, length));
}

int SimSys::poll(struct pollfd* fds, nfds_t nfds, int timeout) {
    if (fds == nullptr && nfds > 0) {
        errno = EFAULT;
        return -1;
    }
    // One simulated descriptor: let the model block.
    if (nfds == 1) {
        if (auto f = lookup(fds[0].fd)) {
            fds[0].revents = f->poll(fds[0].events, timeout);
            return fds[0].revents ? 1 : 0;
        }
    }
    bool anySim = false;
    for (nfds_t i = 0; i < nfds; ++i)
        anySim = anySim || lookup(fds[i].fd) != nullptr;
    if (!anySim)
        return ::poll(fds, nfds, timeout);
    // Mixed or several simulated descriptors: look at each without waiting,
    // every millisecond, until something is ready or the time is up.
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout);
    for (;;) {
        int ready = 0;
        for (nfds_t i = 0; i < nfds; ++i) {
            fds[i].revents = 0;
            if (auto f = lookup(fds[i].fd)) {
                fds[i].revents = f->poll(fds[i].events, 0);
            } else if (fds[i].fd >= 0) {
                struct pollfd one = fds[i];
                if (::poll(&one, 1, 0) > 0)
                    fds[i].revents = one.revents;
            }
            if (fds[i].revents)
                ++ready;
        }
        if (ready > 0 || timeout == 0)
            return ready;
        if (timeout > 0 && std::chrono::steady_clock::now() >= deadline)
            return 0;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

int SimSys::select(int nfds, fd_set* readfds, fd_set* writefds, fd_set* exceptfds, struct timeval* timeout) {
    std::vector<struct pollfd> fds;
    for (int fd = 0; fd < nfds && fd < FD_SETSIZE; ++fd) {
        short events = 0;
        if (readfds && FD_ISSET(fd, readfds))
            events |= POLLIN;
        if (writefds && FD_ISSET(fd, writefds))
            events |= POLLOUT;
        if (exceptfds && FD_ISSET(fd, exceptfds))
            events |= POLLPRI;
        if (events)
            fds.push_back({fd, events, 0});
    }
    bool anySim = false;
    for (const auto& p : fds)
        anySim = anySim || lookup(p.fd) != nullptr;
    if (!anySim)
        return ::select(nfds, readfds, writefds, exceptfds, timeout);
    int ms = timeout ? static_cast<int>(timeout->tv_sec * 1000 + timeout->tv_usec / 1000) : -1;
    int r = poll(fds.data(), fds.size(), ms);
    if (r < 0)
        return r;
    if (readfds)
        FD_ZERO(readfds);
    if (writefds)
        FD_ZERO(writefds);
    if (exceptfds)
        FD_ZERO(exceptfds);
    int count = 0;
    for (const auto& p : fds) {
        if (readfds && (p.revents & (POLLIN | POLLHUP | POLLERR)))
            FD_SET(p.fd, readfds), ++count;
        if (writefds && (p.revents & POLLOUT))
            FD_SET(p.fd, writefds), ++count;
        if (exceptfds && (p.revents & POLLPRI))
            FD_SET(p.fd, exceptfds), ++count;
    }
    return count;
}

int SimSys::stat(const char* path, struct stat* buf) {
    if (path == nullptr || buf == nullptr) {
        errno = EFAULT;
        return -1;
    }
    if (!isSimulatedPath(path))
        return ::stat(path, buf);
    std::memset(buf, 0, sizeof *buf);
    auto file = machine_->file(path);
    if (file && file->present()) {
        buf->st_mode = file->statMode();
        return 0;
    }
    if (machine_->isDirectory(path)) {
        buf->st_mode = S_IFDIR | 0755;
        return 0;
    }
    errno = ENOENT;
    return -1;
}

// ===========================================================================
// Usb

namespace {
constexpr uint32_t kContextMagic = 0x55534243;  // "USBC"
constexpr uint32_t kDeviceMagic = 0x55534244;   // "USBD"
constexpr uint32_t kHandleMagic = 0x55534248;   // "USBH"
struct Context {
    uint32_t magic = kContextMagic;
};
}  // namespace

struct SimUsb::DeviceRef {
    uint32_t magic = kDeviceMagic;
    std::shared_ptr<UsbDevice> device;
    int count = 0;
};

struct SimUsb::Handle {
    uint32_t magic = kHandleMagic;
    DeviceRef* ref = nullptr;
};

SimUsb::SimUsb(std::shared_ptr<Machine> machine) : machine_(std::move(machine)) {}

SimUsb::~SimUsb() {
    for (auto& r : refs_)
        delete r.second;
}

size_t SimUsb::liveObjects() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return refs_.size() + static_cast<size_t>(contexts_) + static_cast<size_t>(handles_);
}

SimUsb::DeviceRef* SimUsb::ref(libusb_device* dev) const {
    auto* r = reinterpret_cast<DeviceRef*>(dev);
    if (r == nullptr || r->magic != kDeviceMagic) {
        std::fprintf(stderr, "simulated libusb: not a device of this simulator\n");
        std::abort();
    }
    return r;
}

SimUsb::Handle* SimUsb::handle(libusb_device_handle* h) const {
    auto* p = reinterpret_cast<Handle*>(h);
    if (p == nullptr || p->magic != kHandleMagic) {
        std::fprintf(stderr, "simulated libusb: not a device handle of this simulator\n");
        std::abort();
    }
    return p;
}

int SimUsb::init(libusb_context** ctx) {
    if (int e = machine_->usbFaults().initError)
        return e;
    std::lock_guard<std::mutex> lock(mutex_);
    ++contexts_;
    if (ctx)
        *ctx = reinterpret_cast<libusb_context*>(new Context);
    return 0;
}

void SimUsb::exit(libusb_context* ctx) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (contexts_ > 0)
        --contexts_;
    delete reinterpret_cast<Context*>(ctx);
}

void SimUsb::set_debug(libusb_context*, int) {}

ssize_t SimUsb::get_device_list(libusb_context*, libusb_device*** list) {
    if (int e = machine_->usbFaults().listError)
        return e;
    if (list == nullptr)
        return LIBUSB_ERROR_INVALID_PARAM;
    auto devices = machine_->usb().devices();
    auto** out = new libusb_device*[devices.size() + 1];
    std::lock_guard<std::mutex> lock(mutex_);
    for (size_t i = 0; i < devices.size(); ++i) {
        DeviceRef*& r = refs_[devices[i].get()];
        if (r == nullptr) {
            r = new DeviceRef;
            r->device = devices[i];
        }
        ++r->count;
        out[i] = reinterpret_cast<libusb_device*>(r);
    }
    out[devices.size()] = nullptr;
    *list = out;
    return static_cast<ssize_t>(devices.size());
}

void SimUsb::free_device_list(libusb_device** list, int unref_devices) {
    if (list == nullptr)
        return;
    if (unref_devices)
        for (libusb_device** p = list; *p; ++p)
            unref_device(*p);
    delete[] list;
}

int SimUsb::get_device_descriptor(libusb_device* dev, libusb_device_descriptor* desc) {
    const UsbDevice& d = *ref(dev)->device;
    if (d.descriptorError)
        return d.descriptorError;
    const UsbDescriptor& s = d.descriptor;
    std::memset(desc, 0, sizeof *desc);
    desc->bLength = LIBUSB_DT_DEVICE_SIZE;
    desc->bDescriptorType = LIBUSB_DT_DEVICE;
    desc->bcdUSB = s.bcdUSB;
    desc->bDeviceClass = s.deviceClass;
    desc->bDeviceSubClass = s.deviceSubClass;
    desc->bDeviceProtocol = s.deviceProtocol;
    desc->bMaxPacketSize0 = s.maxPacketSize0;
    desc->idVendor = s.vendorId;
    desc->idProduct = s.productId;
    desc->bcdDevice = s.bcdDevice;
    desc->iManufacturer = s.manufacturer.empty() ? 0 : 1;
    desc->iProduct = s.product.empty() ? 0 : 2;
    desc->iSerialNumber = s.serial.empty() ? 0 : 3;
    desc->bNumConfigurations = s.numConfigurations;
    return 0;
}

int SimUsb::get_port_numbers(libusb_device* dev, uint8_t* port_numbers, int port_numbers_len) {
    const UsbDevice& d = *ref(dev)->device;
    if (port_numbers_len <= 0)
        return LIBUSB_ERROR_INVALID_PARAM;
    if (d.ports.size() > static_cast<size_t>(port_numbers_len))
        return LIBUSB_ERROR_OVERFLOW;
    // A root hub has no port path (and an empty vector may hold no buffer).
    if (!d.ports.empty())
        std::memcpy(port_numbers, d.ports.data(), d.ports.size());
    return static_cast<int>(d.ports.size());
}

uint8_t SimUsb::get_bus_number(libusb_device* dev) {
    return ref(dev)->device->bus;
}
uint8_t SimUsb::get_device_address(libusb_device* dev) {
    return machine_->usb().addressOf(*ref(dev)->device);
}
int SimUsb::get_device_speed(libusb_device* dev) {
    return ref(dev)->device->speed;
}

libusb_device* SimUsb::ref_device(libusb_device* dev) {
    DeviceRef* r = ref(dev);
    std::lock_guard<std::mutex> lock(mutex_);
    ++r->count;
    return dev;
}

void SimUsb::unref_device(libusb_device* dev) {
    DeviceRef* r = ref(dev);
    std::lock_guard<std::mutex> lock(mutex_);
    if (--r->count <= 0) {
        refs_.erase(r->device.get());
        delete r;
    }
}

int SimUsb::open(libusb_device* dev, libusb_device_handle** out) {
    DeviceRef* r = ref(dev);
    if (!machine_->usb().isAttached(*r->device))
        return LIBUSB_ERROR_NO_DEVICE;
    if (r->device->model) {
        if (int e = r->device->model->open())
            return e;
    }
    ref_device(dev);
    auto* h = new Handle;
    h->ref = r;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        ++handles_;
    }
    *out = reinterpret_cast<libusb_device_handle*>(h);
    return 0;
}

void SimUsb::close(libusb_device_handle* hh) {
    if (hh == nullptr)
        return;
    Handle* h = handle(hh);
    if (h->ref->device->model)
        h->ref->device->model->close();
    unref_device(reinterpret_cast<libusb_device*>(h->ref));
    h->magic = 0;
    delete h;
    std::lock_guard<std::mutex> lock(mutex_);
    --handles_;
}

libusb_device* SimUsb::get_device(libusb_device_handle* h) {
    return reinterpret_cast<libusb_device*>(handle(h)->ref);
}

int SimUsb::get_string_descriptor_ascii(libusb_device_handle* h, uint8_t desc_index, unsigned char* data,
                                        int length) {
    const UsbDevice& d = *handle(h)->ref->device;
    if (!machine_->usb().isAttached(d))
        return LIBUSB_ERROR_NO_DEVICE;
    const std::string* s = nullptr;
    if (desc_index == 1)
        s = &d.descriptor.manufacturer;
    if (desc_index == 2)
        s = &d.descriptor.product;
    if (desc_index == 3)
        s = &d.descriptor.serial;
    if (s == nullptr || s->empty())
        return LIBUSB_ERROR_PIPE;
    if (data == nullptr || length <= 0)
        return LIBUSB_ERROR_INVALID_PARAM;
    int n = std::min<int>(length - 1, static_cast<int>(s->size()));
    std::memcpy(data, s->data(), n);
    data[n] = 0;
    return n;
}

#define SIM_USB_FORWARD(call)               \
    UsbDevice& d = *handle(h)->ref->device; \
    if (!machine_->usb().isAttached(d))     \
        return LIBUSB_ERROR_NO_DEVICE;      \
    return d.model ? d.model->call : 0

int SimUsb::set_auto_detach_kernel_driver(libusb_device_handle* h, int enable) {
    SIM_USB_FORWARD(setAutoDetachKernelDriver(enable));
}
int SimUsb::claim_interface(libusb_device_handle* h, int n) {
    SIM_USB_FORWARD(claimInterface(n));
}
int SimUsb::release_interface(libusb_device_handle* h, int n) {
    SIM_USB_FORWARD(releaseInterface(n));
}
int SimUsb::clear_halt(libusb_device_handle* h, unsigned char endpoint) {
    SIM_USB_FORWARD(clearHalt(endpoint));
}
int SimUsb::reset_device(libusb_device_handle* h) {
    SIM_USB_FORWARD(reset());
}

#undef SIM_USB_FORWARD

const char* SimUsb::error_name(int error_code) {
    // libusb's table of names is plain data, the same with or without hardware.
    return libusb_error_name(error_code);
}

// ===========================================================================
// Hid

namespace {
constexpr uint32_t kHidMagic = 0x48494448;  // "HIDH"
thread_local std::wstring t_hidError;

wchar_t* wideCopy(const std::wstring& s) {
    auto* p = static_cast<wchar_t*>(std::malloc((s.size() + 1) * sizeof(wchar_t)));
    if (p == nullptr)
        return nullptr;
    std::wmemcpy(p, s.c_str(), s.size() + 1);
    return p;
}
}  // namespace

struct SimHid::Handle {
    uint32_t magic = kHidMagic;
    std::shared_ptr<HidDeviceModel> model;
};

SimHid::SimHid(std::shared_ptr<Machine> machine) : machine_(std::move(machine)) {}

SimHid::~SimHid() {
    for (auto& h : handles_)
        delete h.second;
}

size_t SimHid::openCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return handles_.size();
}

int SimHid::init() {
    return 0;
}
int SimHid::exit() {
    return 0;
}

hid_device_info* SimHid::enumerate(unsigned short vendor_id, unsigned short product_id) {
    hid_device_info* head = nullptr;
    hid_device_info** tail = &head;
    for (const auto& m : machine_->hidDevices()) {
        if (!m->present())
            continue;
        HidIdentity id = m->identity();
        if ((vendor_id != 0 && id.vendorId != vendor_id) || (product_id != 0 && id.productId != product_id))
            continue;
        auto* info = static_cast<hid_device_info*>(std::calloc(1, sizeof(hid_device_info)));
        if (info == nullptr)
            break;
        info->path = strdup(id.path.c_str());
        info->vendor_id = id.vendorId;
        info->product_id = id.productId;
        info->serial_number = wideCopy(id.serial);
        info->release_number = id.releaseNumber;
        info->manufacturer_string = wideCopy(id.manufacturer);
        info->product_string = wideCopy(id.product);
        info->interface_number = id.interfaceNumber;
        info->bus_type = HID_API_BUS_USB;
        *tail = info;
        tail = &info->next;
    }
    return head;
}

void SimHid::free_enumeration(hid_device_info* devs) {
    while (devs) {
        hid_device_info* next = devs->next;
        std::free(devs->path);
        std::free(devs->serial_number);
        std::free(devs->manufacturer_string);
        std::free(devs->product_string);
        std::free(devs);
        devs = next;
    }
}

hid_device* SimHid::open_path(const char* path, int verbose) {
    std::shared_ptr<HidDeviceModel> found;
    if (path != nullptr) {
        for (const auto& m : machine_->hidDevices())
            if (m->present() && m->identity().path == path) {
                found = m;
                break;
            }
    }
    if (!found || !found->open()) {
        t_hidError = found ? L"device refused to open" : L"no such device";
        if (verbose)
            std::fprintf(stderr, "hid_open_path: unable to open device %s: %ls\n", path ? path : "(null)",
                         t_hidError.c_str());
        return nullptr;
    }
    auto* h = new Handle;
    h->model = found;
    auto* dev = reinterpret_cast<hid_device*>(h);
    std::lock_guard<std::mutex> lock(mutex_);
    handles_[dev] = h;
    return dev;
}

std::shared_ptr<HidDeviceModel> SimHid::model(hid_device* dev) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = handles_.find(dev);
    if (it == handles_.end())
        return nullptr;
    return it->second->model;
}

void SimHid::close(hid_device* dev) {
    Handle* h = nullptr;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = handles_.find(dev);
        if (it == handles_.end())
            return;
        h = it->second;
        handles_.erase(it);
    }
    h->model->close();
    delete h;
}

int SimHid::read(hid_device* dev, unsigned char* data, size_t length) {
    return read_timeout(dev, data, length, -1);
}

int SimHid::read_timeout(hid_device* dev, unsigned char* data, size_t length, int milliseconds) {
    auto m = model(dev);
    if (!m || data == nullptr)
        return -1;
    return m->read(data, length, milliseconds);
}

int SimHid::write(hid_device* dev, const unsigned char* data, size_t length) {
    auto m = model(dev);
    if (!m || data == nullptr)
        return -1;
    return m->write(data, length);
}

int SimHid::send_feature_report(hid_device* dev, const unsigned char* data, size_t length) {
    auto m = model(dev);
    if (!m || data == nullptr)
        return -1;
    return m->sendFeatureReport(data, length);
}

int SimHid::get_feature_report(hid_device* dev, unsigned char* data, size_t length) {
    auto m = model(dev);
    if (!m || data == nullptr)
        return -1;
    return m->getFeatureReport(data, length);
}

int SimHid::get_serial_number_string(hid_device* dev, wchar_t* string, size_t maxlen) {
    auto m = model(dev);
    if (!m || string == nullptr || maxlen == 0)
        return -1;
    std::wstring s = m->identity().serial;
    size_t n = std::min(maxlen - 1, s.size());
    std::wmemcpy(string, s.data(), n);
    string[n] = L'\0';
    return 0;
}

const wchar_t* SimHid::error(hid_device*) {
    return t_hidError.empty() ? nullptr : t_hidError.c_str();
}

}  // namespace sim
