#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <chrono>

#include "SimScenario.h"
#include "bh_input/grabber/DeviceList.h"
#include "platform/Platform.h"
#include "sim/Builtins.h"
#include "sim/SimBackend.h"
#include "tests/unit/common/ForwardingSys.h"

using namespace bh;
using testsupport::ScopedScenario;

TEST(DeviceList, PicoOnUsb3ListsVideoAndMcuWithAddresses) {
    ScopedScenario s("kov_pico_usb3");
    auto list = getUSBDevice();
    ASSERT_EQ(list.size(), 2u);
    // In bus order: the MCU on bus 1, then the camera on bus 2.
    EXPECT_EQ(list[0].first, BH_DEVICE_KOV_P_MCU);
    EXPECT_EQ(list[0].second, "4");
    EXPECT_EQ(list[1].first, BH_DEVICE_KOV_P_CBS);
    EXPECT_EQ(list[1].second, "3");
    EXPECT_EQ(getNumberOfKOV(), 1);
}

TEST(DeviceList, UnknownDevicesAreSkipped) {
    ScopedScenario s("no_camera");
    EXPECT_TRUE(getUSBDevice().empty());
    EXPECT_EQ(getNumberOfKOV(), 0);
    int n = -1;
    EXPECT_EQ(findDevicePath_linux(n, 0), BH_DEVICE_NONE);
    EXPECT_EQ(n, -1);
}

TEST(DeviceList, BootLoadersAndTwoCameras) {
    {
        ScopedScenario s("boot_loader");
        auto list = getUSBDevice();
        ASSERT_EQ(list.size(), 1u);  // the bridge's boot loader is not in the device table
        EXPECT_EQ(list[0].first, BH_DEVICE_MCU_DFU);
        EXPECT_EQ(list[0].second, "8");
        EXPECT_EQ(getGrabberState(0), DEVICE_AVAILABLE);  // DFU devices count as devices here
    }
    {
        ScopedScenario s("two_cameras_one_port");
        auto list = getUSBDevice();
        ASSERT_EQ(list.size(), 4u);
        EXPECT_EQ(countOccur(list, BH_DEVICE_KOV_P_CBS), 1);
        EXPECT_EQ(countOccur(list, BH_DEVICE_KOVT), 1);
        EXPECT_EQ(countOccur(list, BH_DEVICE_KOVT_MCU), 1);
        EXPECT_EQ(countOccur(list, BH_DEVICE_NONE), 0);
        EXPECT_EQ(getNumberOfKOV(), 2);
        int n = -1;
        EXPECT_EQ(findDevicePath_linux(n, 0), BH_DEVICE_KOV_P_CBS);
        EXPECT_EQ(n, 0);
        EXPECT_EQ(findDevicePath_linux(n, 1), BH_DEVICE_KOVT);
        EXPECT_EQ(n, 2);
        n = -1;
        EXPECT_EQ(findDevicePath_linux(n, 2), BH_DEVICE_NONE);
        EXPECT_EQ(n, -1);
        EXPECT_EQ(getGrabberState(1), DEVICE_AVAILABLE);
        EXPECT_EQ(getGrabberState(2), DEVICE_NOT_AVAILABLE);
    }
}

TEST(DeviceList, LibusbFailuresGiveEmptyList) {
    auto m = sim::loadScenario(testsupport::scenarioPath("kov_pico_usb3"));
    m->usbFaults().initError = LIBUSB_ERROR_OTHER;
    {
        ScopedScenario s(m);
        EXPECT_TRUE(getUSBDevice().empty());
    }
    m->usbFaults().initError = 0;
    m->usbFaults().listError = LIBUSB_ERROR_NO_MEM;
    {
        ScopedScenario s(m);
        EXPECT_TRUE(getUSBDevice().empty());
    }
}

TEST(DeviceList, FailedDescriptorIsSkipped) {
    auto m = sim::loadScenario(testsupport::scenarioPath("kov_pico_usb3"));
    m->usb().devices()[1]->descriptorError = LIBUSB_ERROR_IO;  // the camera
    ScopedScenario s(m);
    auto list = getUSBDevice();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].first, BH_DEVICE_KOV_P_MCU);
}

TEST(DeviceList, EnumerationReleasesEverything) {
    auto m = sim::loadScenario(testsupport::scenarioPath("two_cameras_one_port"));
    auto sys = std::make_shared<sim::SimSys>(m);
    auto usb = std::make_shared<sim::SimUsb>(m);
    platform::Backend b = sim::makeBackend(m);
    b.sys = sys;
    b.usb = usb;
    platform::ScopedBackend scoped(b);
    getUSBDevice();
    int n = 0;
    findDevicePath_linux(n, 1);
    getDeviceModelfromPath("/dev/video0");
    EXPECT_EQ(usb->liveObjects(), 0u);
    EXPECT_EQ(sys->openCount(), 0u);
}

namespace {
std::shared_ptr<sim::Machine> machineWithModalias(const std::string& modalias) {
    auto m = std::make_shared<sim::Machine>("test");
    sim::VideoNodeConfig c;
    c.number = 3;
    c.modalias = modalias;
    m->addVideoNode(std::make_shared<sim::VideoNode>(c));
    return m;
}
}  // namespace

TEST(DeviceList, ModaliasTable) {
    struct Case {
        const char* modalias;
        BH_DEVICE expected;
    } cases[] = {
        {"usb:v2B03pF682d0100dcEFdsc02dp01ic0Eisc01ip00in00", BH_DEVICE_KOV_P_CBS},
        {"usb:v2b03pf682d0100dcEFdsc02dp01ic0Eisc01ip00in00", BH_DEVICE_KOV_P_CBS},  // small letters
        {"usb:v2B03pF880d0100", BH_DEVICE_KOVTr},
        {"usb:v2B03pF580", BH_DEVICE_KOV},             // exactly 14 characters
        {"usb:v2B03pF58", BH_DEVICE_NONE},             // 13 characters
        {"usb:v2B03pF681d0305", BH_DEVICE_KOV_P_MCU},  // parsed; the node filter drops it later
        {"usb:v0483pDF11d2200", BH_DEVICE_MCU_DFU},
        {"usb:v046DpC31Cd0100", BH_DEVICE_NONE},     // not in the table
        {"usb:v2B03xF682d0100", BH_DEVICE_NONE},     // no 'p' at index 9
        {"pci:v00008086d00001234", BH_DEVICE_NONE},  // not usb
        {"usb:v2G03pF682d0100", BH_DEVICE_NONE},     // not hexadecimal
        {"platform:tegra-capture-vi", BH_DEVICE_NONE},
    };
    for (const Case& c : cases) {
        ScopedScenario s(machineWithModalias(c.modalias));
        EXPECT_EQ(getDeviceModelfromPath("/dev/video3"), c.expected) << c.modalias;
    }
    ScopedScenario s(machineWithModalias(""));  // no modalias file
    EXPECT_EQ(getDeviceModelfromPath("/dev/video3"), BH_DEVICE_NONE);
    EXPECT_EQ(getDeviceModelfromPath("/dev/video9"), BH_DEVICE_NONE);
    EXPECT_EQ(getDeviceModelfromPath(""), BH_DEVICE_NONE);
}

TEST(DeviceList, CapitalHexModaliasFoundByNodeSearch) {
    for (const char* alias : {"usb:v2B03pF682d0100dcEF", "usb:v2b03pf682d0100dcef"}) {
        ScopedScenario s(machineWithModalias(alias));
        int n = -1;
        EXPECT_EQ(findDevicePath_linux(n, 0), BH_DEVICE_KOV_P_CBS) << alias;
        EXPECT_EQ(n, 3);
    }
}

// A driver that answers every format index, however high: the walk of the
// format list must end by itself.
TEST(DeviceList, EndlessFormatListIsCutAndTheCameraStillFound) {
    class EndlessFormats : public testsupport::ForwardingSys {
    public:
        using ForwardingSys::ForwardingSys;
        int ioctl(int fd, unsigned long request, void* arg) override {
            if (request != VIDIOC_ENUM_FMT)
                return ForwardingSys::ioctl(fd, request, arg);
            ++asked;
            return 0;
        }
        long asked = 0;
    };
    auto machine = machineWithModalias("usb:v2B03pF682d0100");
    platform::Backend backend = sim::makeBackend(machine);
    auto sys = std::make_shared<EndlessFormats>(backend.sys);
    backend.sys = sys;
    platform::ScopedBackend scope(backend);
    int n = -1;
    EXPECT_EQ(findDevicePath_linux(n, 0), BH_DEVICE_KOV_P_CBS);
    EXPECT_EQ(n, 3);
    EXPECT_GE(sys->asked, 1);
    EXPECT_LE(sys->asked, 64);
}

TEST(DeviceList, NodesThatAreNotCamerasAreSkipped) {
    auto m = std::make_shared<sim::Machine>("test");
    auto add = [&](int number, const char* driver, uint32_t caps, const char* modalias) {
        sim::VideoNodeConfig c;
        c.number = number;
        c.driver = driver;
        c.capabilities = caps | V4L2_CAP_DEVICE_CAPS;
        c.deviceCaps = caps;
        c.modalias = modalias;
        m->addVideoNode(std::make_shared<sim::VideoNode>(c));
    };
    add(0, "tegra-video", V4L2_CAP_VIDEO_CAPTURE, "usb:v2B03pF682d0100");  // wrong driver
    add(1, "uvcvideo", V4L2_CAP_META_CAPTURE, "usb:v2B03pF682d0100");      // metadata node of the camera
    add(2, "uvcvideo", V4L2_CAP_VIDEO_CAPTURE, "usb:v2B03pF681d0100");     // an MCU id
    add(4, "uvcvideo", V4L2_CAP_VIDEO_CAPTURE, "usb:v2B03pF780d0100");     // the camera
    ScopedScenario s(m);
    int n = -1;
    EXPECT_EQ(findDevicePath_linux(n, 0), BH_DEVICE_KOVT);
    EXPECT_EQ(n, 4);
    n = -1;
    EXPECT_EQ(findDevicePath_linux(n, 1), BH_DEVICE_NONE);
    EXPECT_EQ(n, -1);
    // A node that cannot be opened is passed over.
    m->videoNode(4)->setBusy(true);
    EXPECT_EQ(findDevicePath_linux(n, 0), BH_DEVICE_NONE);
}

TEST(DeviceList, GrabberStateMcuOnlyWaitsTwoSecondsAndReportsMissing) {
    ScopedScenario s("kov_pico_mcu_only");
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(getGrabberState(0), DEVICE_MISSING);
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(seconds, 1.9);
    EXPECT_LE(seconds, 6.0);
}

TEST(DeviceList, GrabberStateOfPresentCamera) {
    ScopedScenario s("kov_pico_usb3");
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(getGrabberState(0), DEVICE_AVAILABLE);
    EXPECT_EQ(getGrabberState(1), DEVICE_NOT_AVAILABLE);  // one Pico video device per Pico MCU: no wait
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1500));
}

TEST(DeviceList, GmslListerDefaultsToTheFastDiscovery) {
    ScopedScenario s("gmsl_eeprom_bus30");
    // The discovery's own answer: the EEPROM of bus 30 (sub-model 2).
    auto list = getGMSLDevice();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].first, BH_DEVICE_KOV_QG_ALPHA);
    EXPECT_EQ(list[0].second, "/dev/i2c-30");
    // A lister installed in its place answers instead, until it is removed.
    setGMSLDeviceLister([] {
        return std::vector<std::pair<BH_DEVICE, std::string>>{{BH_DEVICE_KOV_QS_A, "/dev/i2c-31"}};
    });
    list = getGMSLDevice();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].second, "/dev/i2c-31");
    setGMSLDeviceLister(nullptr);
    list = getGMSLDevice();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].second, "/dev/i2c-30");
}

TEST(DeviceList, GmslListIsEmptyWithoutGmslBuses) {
    ScopedScenario s("no_camera");
    EXPECT_TRUE(getGMSLDevice().empty());
}
