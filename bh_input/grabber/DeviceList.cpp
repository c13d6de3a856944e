#include "bh_input/grabber/DeviceList.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "bh_input/grabber/gmsl/ArgusCamera.h"
#include "platform/Platform.h"
#include "support/KLogger.h"

namespace bh {

const char* const capability_driver = "uvcvideo";

BH_DEVICE deviceFromUsbIds(int vendor, int product) {
    if (vendor == 0x2B03) {
        switch (product) {
            case 0xF580:
                return BH_DEVICE_KOV;
            case 0xF680:
                return BH_DEVICE_KOV_P;
            case 0xF582:
                return BH_DEVICE_KOV_CBS;
            case 0xF682:
                return BH_DEVICE_KOV_P_CBS;
            case 0xF780:
                return BH_DEVICE_KOVT;
            case 0xF880:
                return BH_DEVICE_KOVTr;
            case 0xF681:
                return BH_DEVICE_KOV_P_MCU;
            case 0xF781:
                return BH_DEVICE_KOVT_MCU;
            case 0xF881:
                return BH_DEVICE_KOVTr_MCU;
            default:
                return BH_DEVICE_NONE;
        }
    }
    if (vendor == 0x0483 && product == 0xDF11)
        return BH_DEVICE_MCU_DFU;
    return BH_DEVICE_NONE;
}

std::vector<std::pair<BH_DEVICE, std::string>> getUSBDevice() {
    std::vector<std::pair<BH_DEVICE, std::string>> out;
    platform::Usb& usb = platform::usb();
    // The default context, as the rest of the tool's USB walks use.
    if (usb.init(nullptr) < 0)
        return out;
    libusb_device** list = nullptr;
    ssize_t count = usb.get_device_list(nullptr, &list);
    if (count < 0) {
        usb.exit(nullptr);
        return out;
    }
    for (ssize_t i = 0; i < count; ++i) {
        libusb_device_descriptor desc{};
        if (usb.get_device_descriptor(list[i], &desc) < 0)
            continue;
        BH_DEVICE device = deviceFromUsbIds(desc.idVendor, desc.idProduct);
        if (device == BH_DEVICE_NONE)
            continue;
        out.emplace_back(device, std::to_string(usb.get_device_address(list[i])));
    }
    usb.free_device_list(list, 1);
    usb.exit(nullptr);
    return out;
}

namespace {
std::mutex g_gmslMutex;
std::function<std::vector<std::pair<BH_DEVICE, std::string>>()> g_gmslLister;
}  // namespace

void setGMSLDeviceLister(std::function<std::vector<std::pair<BH_DEVICE, std::string>>()> lister) {
    std::lock_guard<std::mutex> lock(g_gmslMutex);
    g_gmslLister = std::move(lister);
}

std::vector<std::pair<BH_DEVICE, std::string>> getGMSLDevice() {
    std::function<std::vector<std::pair<BH_DEVICE, std::string>>()> lister;
    {
        std::lock_guard<std::mutex> lock(g_gmslMutex);
        lister = g_gmslLister;
    }
    // The fast I2C-only discovery, unless a test installed its own lister.
    return lister ? lister() : ArgusCamera::getGMSLDevicesExt(false);
}

int countOccur(const std::vector<std::pair<BH_DEVICE, std::string>>& list, BH_DEVICE device) {
    int n = 0;
    for (const auto& p : list)
        if (p.first == device)
            ++n;
    return n;
}

int getNumberOfKOV() {
    int n = 0;
    for (const auto& p : getUSBDevice())
        if (p.first >= BH_DEVICE_KOV && p.first <= BH_DEVICE_KOVTr)
            ++n;
    return n;
}

DEVICE_STATE getGrabberState(int id) {
    auto list = getUSBDevice();
    int mcus = countOccur(list, BH_DEVICE_KOV_P_MCU) + countOccur(list, BH_DEVICE_KOVT_MCU) +
               countOccur(list, BH_DEVICE_KOVTr_MCU);
    // DFU boot loaders count here as devices.
    if (static_cast<int>(list.size()) - mcus > id)
        return DEVICE_AVAILABLE;
    int picoVideo = countOccur(list, BH_DEVICE_KOV_P) + countOccur(list, BH_DEVICE_KOV_P_CBS);
    if (picoVideo >= countOccur(list, BH_DEVICE_KOV_P_MCU))
        return DEVICE_NOT_AVAILABLE;
    // A Pico's MCU is visible but its video node not yet: give it 2 s.
    for (int i = 0; i < 20; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    list = getUSBDevice();
    picoVideo = countOccur(list, BH_DEVICE_KOV_P) + countOccur(list, BH_DEVICE_KOV_P_CBS);
    return id < picoVideo ? DEVICE_AVAILABLE : DEVICE_MISSING;
}

namespace {

// A camera node lists a handful of formats. A driver that never ends its list
// (every index answered) must not hold the discovery: the walk stops here.
constexpr uint32_t kMaxFormats = 64;

int parseHex4(const std::string& s, size_t pos, bool& ok) {
    int v = 0;
    for (size_t i = pos; i < pos + 4; ++i) {
        char c = s[i];
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else {
            ok = false;
            return 0;
        }
        v = v * 16 + d;
    }
    return v;
}

// The first whitespace-delimited word of a file, read through the Sys seam.
bool readFirstWord(const std::string& path, std::string& word) {
    platform::Sys& sys = platform::sys();
    int fd = sys.open(path.c_str(), O_RDONLY);
    if (fd < 0)
        return false;
    std::string text;
    char buf[256];
    for (;;) {
        ssize_t n = sys.read(fd, buf, sizeof buf);
        if (n <= 0)
            break;
        text.append(buf, static_cast<size_t>(n));
        if (text.size() > 4096)
            break;
    }
    sys.close(fd);
    size_t begin = text.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos)
        return false;
    size_t end = text.find_first_of(" \t\r\n", begin);
    word = text.substr(begin, end == std::string::npos ? std::string::npos : end - begin);
    return true;
}

}  // namespace

BH_DEVICE getDeviceModelfromPath(std::string path) {
    path.erase(0, std::min<size_t>(5, path.size()));  // "/dev/video3" -> "video3"
    std::string word;
    if (!readFirstWord("/sys/class/video4linux/" + path + "/device/modalias", word))
        return BH_DEVICE_NONE;
    if (word.size() < 14)
        return BH_DEVICE_NONE;
    // usb:vVVVVpPPPP...
    if (word.compare(0, 5, "usb:v") != 0 || word[9] != 'p')
        return BH_DEVICE_NONE;
    bool ok = true;
    int vendor = parseHex4(word, 5, ok);
    int product = parseHex4(word, 10, ok);
    if (!ok)
        return BH_DEVICE_NONE;
    return deviceFromUsbIds(vendor, product);
}

BH_DEVICE findDevicePath_linux(int& path_number, int id) {
    platform::Sys& sys = platform::sys();
    BH_DEVICE result = BH_DEVICE_NONE;
    int found = 0;
    for (int n = 0; n < 99; ++n) {
        std::string path = "/dev/video" + std::to_string(n);
        int fd = sys.open(path.c_str(), O_RDONLY);
        if (fd < 0)
            continue;
        v4l2_capability cap{};
        if (sys.ioctl(fd, VIDIOC_QUERYCAP, &cap) < 0) {
            sys.close(fd);
            continue;
        }
        BH_DEVICE device = getDeviceModelfromPath(path);
        if (device > BH_DEVICE_KOV_QS_B) {  // MCU, DFU and unknown nodes
            sys.close(fd);
            continue;
        }
        std::memset(&cap, 0, sizeof cap);
        bool counts = sys.ioctl(fd, VIDIOC_QUERYCAP, &cap) == 0 &&
                      std::strncmp(reinterpret_cast<const char*>(cap.driver), capability_driver,
                                   sizeof cap.driver) == 0 &&
                      (cap.capabilities & V4L2_CAP_VIDEO_CAPTURE) &&
                      (cap.device_caps & V4L2_CAP_VIDEO_CAPTURE);
        if (!counts) {
            sys.close(fd);
            continue;
        }
        v4l2_fmtdesc fmt{};
        fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        for (fmt.index = 0; fmt.index < kMaxFormats && sys.ioctl(fd, VIDIOC_ENUM_FMT, &fmt) == 0;
             ++fmt.index) {
        }
        if (fmt.index == kMaxFormats)
            KLOG(LOGGER_NAME::SDK_INPUT, warn,
                 "{} lists {} formats or more: the rest of its list is not read", path, kMaxFormats);
        sys.close(fd);
        if (found == id) {
            result = device;
            path_number = n;
            break;
        }
        ++found;
    }
    return result;
}

}  // namespace bh
