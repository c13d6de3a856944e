#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <cstring>

#include "platform/Platform.h"
#include "sim/Builtins.h"
#include "sim/SimBackend.h"
#include "sim/Simulator.h"

namespace {
std::shared_ptr<sim::Machine> load(const char* name) {
    return sim::loadScenario(std::string(KOV_SOURCE_DIR) + "/sim/scenarios/" + name + ".json");
}
}  // namespace

TEST(VirtualUsb, DescriptorsPortsStringsAndRefcounts) {
    auto m = load("two_cameras_one_port");
    sim::SimUsb usb(m);
    libusb_context* ctx = nullptr;
    ASSERT_EQ(usb.init(&ctx), 0);
    libusb_device** list = nullptr;
    ssize_t n = usb.get_device_list(ctx, &list);
    ASSERT_EQ(n, 5);
    libusb_device_descriptor d{};
    ASSERT_EQ(usb.get_device_descriptor(list[1], &d), 0);
    EXPECT_EQ(d.idVendor, 0x2B03);
    EXPECT_EQ(d.idProduct, 0xF682);
    EXPECT_EQ(d.bLength, 18);
    EXPECT_EQ(d.bcdUSB, 0x0320);
    EXPECT_EQ(usb.get_bus_number(list[1]), 2);
    EXPECT_EQ(usb.get_device_address(list[1]), 3);
    EXPECT_EQ(usb.get_device_speed(list[1]), LIBUSB_SPEED_SUPER);
    uint8_t ports[8];
    ASSERT_EQ(usb.get_port_numbers(list[1], ports, 8), 2);
    EXPECT_EQ(ports[0], 1);
    EXPECT_EQ(ports[1], 1);
    EXPECT_EQ(usb.get_port_numbers(list[1], ports, 1), LIBUSB_ERROR_OVERFLOW);
    libusb_device_handle* h = nullptr;
    ASSERT_EQ(usb.open(list[1], &h), 0);
    unsigned char text[64];
    EXPECT_EQ(usb.get_string_descriptor_ascii(h, d.iProduct, text, sizeof text), 8);
    EXPECT_STREQ(reinterpret_cast<char*>(text), "KOV Pico");
    EXPECT_EQ(usb.get_device(h), list[1]);
    usb.free_device_list(list, 1);
    EXPECT_GT(usb.liveObjects(), 1u);  // the handle keeps its device
    usb.close(h);
    usb.exit(ctx);
    EXPECT_EQ(usb.liveObjects(), 0u);
    EXPECT_STREQ(usb.error_name(LIBUSB_ERROR_NOT_FOUND), "LIBUSB_ERROR_NOT_FOUND");
}

TEST(VirtualUsb, BootLoaderIds) {
    auto m = load("boot_loader");
    auto devs = m->usb().devices();
    ASSERT_EQ(devs.size(), 2u);
    EXPECT_EQ(devs[0]->descriptor.vendorId, 0x05A9);
    EXPECT_EQ(devs[0]->descriptor.productId, 0x0580);
    EXPECT_EQ(devs[1]->descriptor.vendorId, 0x0483);
    EXPECT_EQ(devs[1]->descriptor.productId, 0xDF11);
}

TEST(VirtualHid, McuEnumeratesWithPathReleaseAndSerial) {
    auto m = load("kov_pico_usb3");
    sim::SimHid hid(m);
    hid_device_info* list = hid.enumerate(0x2B03, 0xF681);
    ASSERT_NE(list, nullptr);
    EXPECT_STREQ(list->path, "0001:0004:00");
    EXPECT_EQ(list->release_number, 0x0305);
    EXPECT_EQ(list->next, nullptr);
    hid_device* dev = hid.open_path(list->path, 1);
    ASSERT_NE(dev, nullptr);
    wchar_t serial[32];
    EXPECT_EQ(hid.get_serial_number_string(dev, serial, 32), 0);
    EXPECT_GT(std::wcslen(serial), 0u);
    hid.close(dev);
    hid.free_enumeration(list);
    EXPECT_EQ(hid.enumerate(0x2B03, 0xF781), nullptr);
    testing::internal::CaptureStderr();
    EXPECT_EQ(hid.open_path("0009:0009:00", 1), nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("0009:0009:00"), std::string::npos);
    EXPECT_EQ(hid.openCount(), 0u);
}

TEST(VirtualVideo, QuerycapEnumFmtAndSysfs) {
    auto m = load("kov_pico_usb3");
    platform::ScopedBackend b(sim::makeBackend(m));
    platform::Sys& sys = platform::sys();
    int fd = sys.open("/dev/video0", O_RDWR);
    ASSERT_GE(fd, 0);
    v4l2_capability cap{};
    ASSERT_EQ(sys.ioctl(fd, VIDIOC_QUERYCAP, &cap), 0);
    EXPECT_STREQ(reinterpret_cast<char*>(cap.driver), "uvcvideo");
    EXPECT_TRUE(cap.capabilities & V4L2_CAP_VIDEO_CAPTURE);
    EXPECT_TRUE(cap.device_caps & V4L2_CAP_VIDEO_CAPTURE);
    v4l2_fmtdesc fmt{};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    ASSERT_EQ(sys.ioctl(fd, VIDIOC_ENUM_FMT, &fmt), 0);
    EXPECT_EQ(fmt.pixelformat, V4L2_PIX_FMT_YUYV);
    fmt.index = 1;
    EXPECT_EQ(sys.ioctl(fd, VIDIOC_ENUM_FMT, &fmt), -1);
    EXPECT_EQ(errno, EINVAL);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    EXPECT_EQ(sys.ioctl(fd, VIDIOC_STREAMON, &type), -1);  // no format set, no buffers: no stream rights
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(sys.close(fd), 0);
    EXPECT_EQ(sys.open("/dev/video1", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
    int mfd = sys.open("/sys/class/video4linux/video0/device/modalias", O_RDONLY);
    ASSERT_GE(mfd, 0);
    char buf[128] = {};
    ASSERT_GT(sys.read(mfd, buf, sizeof buf - 1), 0);
    EXPECT_EQ(std::string(buf).rfind("usb:v2B03pF682d0100", 0), 0u) << buf;
    sys.close(mfd);
    struct stat st {};
    EXPECT_EQ(sys.stat("/sys/class/video4linux/video0", &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(sys.stat("/dev/video0", &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    // Other paths go to the real system.
    int real = sys.open("/dev/null", O_RDONLY);
    EXPECT_GE(real, 0);
    sys.close(real);
}

TEST(VirtualI2c, EepromAnswersAndEmptyAddressesFail) {
    auto m = load("gmsl_eeprom_bus30");
    platform::ScopedBackend b(sim::makeBackend(m));
    platform::Sys& sys = platform::sys();
    int fd = sys.open("/dev/i2c-30", O_RDWR);
    ASSERT_GE(fd, 0);
    // 0x55 is held by the camera driver: only the forced request selects it.
    errno = 0;
    EXPECT_EQ(sys.ioctlValue(fd, I2C_SLAVE, 0x55), -1);
    EXPECT_EQ(errno, EBUSY);
    ASSERT_EQ(sys.ioctlValue(fd, I2C_SLAVE_FORCE, 0x55), 0);
    uint8_t reg = 4;
    ASSERT_EQ(sys.write(fd, &reg, 1), 1);
    uint8_t two[2];
    ASSERT_EQ(sys.read(fd, two, 2), 2);
    EXPECT_EQ(two[0], 0x11);
    EXPECT_EQ(two[1], 2);
    ASSERT_EQ(sys.ioctlValue(fd, I2C_SLAVE, 0x57), 0);
    EXPECT_EQ(sys.read(fd, two, 2), -1);
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(sys.ioctlValue(fd, I2C_SLAVE, 0x400), -1);
    sys.close(fd);
    EXPECT_EQ(sys.open("/dev/i2c-5", O_RDWR), -1);
}

TEST(VirtualI2c, ClaimedAddressRefusesOnlyThePlainRequest) {
    auto m = load("gmsl_eeprom_bus30");
    platform::ScopedBackend b(sim::makeBackend(m));
    platform::Sys& sys = platform::sys();
    int fd = sys.open("/dev/i2c-30", O_RDWR);
    ASSERT_GE(fd, 0);
    // The request numbers as the kernel defines them: 1795 plain, 1798 forced.
    for (int address : {0x1a, 0x40, 0x55}) {
        errno = 0;
        EXPECT_EQ(sys.ioctlValue(fd, 1795, static_cast<unsigned long>(address)), -1) << address;
        EXPECT_EQ(errno, EBUSY) << address;
        EXPECT_EQ(sys.ioctlValue(fd, 1798, static_cast<unsigned long>(address)), 0) << address;
    }
    // A refused plain request leaves the earlier selection in place.
    ASSERT_EQ(sys.ioctlValue(fd, 1798, 0x55), 0);
    EXPECT_EQ(sys.ioctlValue(fd, 1795, 0x40), -1);
    uint8_t reg = 0;
    ASSERT_EQ(sys.write(fd, &reg, 1), 1);
    uint8_t serial[4] = {};
    ASSERT_EQ(sys.read(fd, serial, 4), 4);
    EXPECT_EQ(serial[0] | serial[1] << 8 | serial[2] << 16 | static_cast<uint32_t>(serial[3]) << 24,
              41000123u);
    // Unclaimed addresses take the plain request; the claim does not touch I2C_RDWR.
    EXPECT_EQ(sys.ioctlValue(fd, 1795, 0x57), 0);
    uint8_t id[2] = {};
    uint8_t at = 4;
    i2c_msg msgs[2] = {{0x55, 0, 1, &at}, {0x55, I2C_M_RD, 2, id}};
    i2c_rdwr_ioctl_data rdwr{msgs, 2};
    EXPECT_EQ(sys.ioctl(fd, I2C_RDWR, &rdwr), 2);
    EXPECT_EQ(id[0], 0x11);
    EXPECT_EQ(id[1], 2);
    sys.close(fd);
    // Bus 31 claims nothing.
    fd = sys.open("/dev/i2c-31", O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(sys.ioctlValue(fd, 1795, 0x55), 0);
    sys.close(fd);
}

TEST(VirtualI2c, PageWriteWrapsWithinPage) {
    sim::RegisterChip chip(64, 1, 8);
    uint8_t w[] = {6, 1, 2, 3, 4};  // register 6, four bytes: 6, 7 then wraps to 0, 1
    ASSERT_TRUE(chip.write(w, sizeof w));
    auto c = chip.contents();
    EXPECT_EQ(c[6], 1);
    EXPECT_EQ(c[7], 2);
    EXPECT_EQ(c[0], 3);
    EXPECT_EQ(c[1], 4);
    EXPECT_EQ(c[8], 0xFF);
}
