// The device types every scenario can use. Sub-folders of sim/ replace or add
// types through Registry.h.
#include <libusb-1.0/libusb.h>

#include <chrono>
#include <cstdio>
#include <thread>

#include "sim/Builtins.h"
#include "sim/Registry.h"

namespace sim {

namespace {

const std::vector<std::string> kUsbFields = {
    "type",    "comment",    "vendor_id",    "product_id",   "bus",     "address", "ports",           "speed",
    "bcd_usb", "bcd_device", "device_class", "manufacturer", "product", "serial",  "descriptor_error"};

std::vector<std::string> with(std::vector<std::string> base, const std::vector<std::string>& more) {
    base.insert(base.end(), more.begin(), more.end());
    return base;
}

}  // namespace

UsbDevice readUsbDevice(const Entry& e, Machine& machine, int defaultVendor, int defaultProduct) {
    UsbDevice d;
    d.descriptor.vendorId =
        static_cast<uint16_t>(defaultVendor >= 0 ? e.integer("vendor_id", defaultVendor, 0, 0xFFFF)
                                                 : e.integer("vendor_id", 0, 0xFFFF));
    d.descriptor.productId =
        static_cast<uint16_t>(defaultProduct >= 0 ? e.integer("product_id", defaultProduct, 0, 0xFFFF)
                                                  : e.integer("product_id", 0, 0xFFFF));
    std::string speed = e.choice("speed", {"low", "full", "high", "super", "super_plus"}, "high");
    d.speed = speed == "low"     ? LIBUSB_SPEED_LOW
              : speed == "full"  ? LIBUSB_SPEED_FULL
              : speed == "high"  ? LIBUSB_SPEED_HIGH
              : speed == "super" ? LIBUSB_SPEED_SUPER
                                 : LIBUSB_SPEED_SUPER_PLUS;
    int defaultBcdUsb = d.speed >= LIBUSB_SPEED_SUPER ? 0x0320 : 0x0200;
    d.descriptor.bcdUSB = static_cast<uint16_t>(e.integer("bcd_usb", defaultBcdUsb, 0, 0xFFFF));
    d.descriptor.bcdDevice = static_cast<uint16_t>(e.integer("bcd_device", 0x0100, 0, 0xFFFF));
    d.descriptor.deviceClass = static_cast<uint8_t>(e.integer("device_class", 0, 0, 255));
    d.descriptor.manufacturer = e.string("manufacturer", "");
    d.descriptor.product = e.string("product", "");
    d.descriptor.serial = e.string("serial", "");
    d.bus = static_cast<uint8_t>(e.integer("bus", 1, 1, 255));
    d.address = static_cast<uint8_t>(e.has("address") ? e.integer("address", 1, 127)
                                                      : machine.usb().nextAddress(d.bus));
    for (int64_t p : e.integers("ports", 1, 255))
        d.ports.push_back(static_cast<uint8_t>(p));
    if (d.ports.size() > 7)
        e.fail("ports", "at most 7 ports deep (USB allows no more)");
    if (d.ports.empty())
        d.ports.push_back(1);
    d.descriptorError = static_cast<int>(e.integer("descriptor_error", 0, -99, 0));
    if (machine.usb().find(d.bus, d.address))
        e.fail("address", "bus " + std::to_string(d.bus) + " already has a device at address " +
                              std::to_string(d.address));
    return d;
}

std::string usbModalias(uint16_t vendor, uint16_t product, uint16_t bcdDevice) {
    char buf[96];
    // The kernel's form for a UVC interface: class 0xEF/2/1, interface 14/1/0.
    std::snprintf(buf, sizeof buf, "usb:v%04Xp%04Xd%04XdcEFdsc02dp01ic0Eisc01ip00in00", vendor, product,
                  bcdDevice);
    return buf;
}

VideoNodeConfig readVideoNode(const Entry& e, const std::string& numberKey) {
    VideoNodeConfig c;
    c.number = static_cast<int>(e.integer(numberKey, 0, 255));
    c.card = e.string("card", "");
    c.busInfo = e.string("bus_info", "");
    c.busy = e.boolean("busy", false);
    if (e.has("formats")) {
        c.formats.clear();
        for (const Entry& f : e.objects("formats")) {
            f.allowOnly({"fourcc", "description", "comment"});
            std::string fourcc = f.string("fourcc");
            if (fourcc.size() != 4)
                f.fail("fourcc", "a four-character code is required, e.g. \"YUYV\"");
            VideoFormat vf;
            vf.pixelformat = v4l2_fourcc(fourcc[0], fourcc[1], fourcc[2], fourcc[3]);
            vf.description = f.string("description", fourcc);
            c.formats.push_back(vf);
        }
    }
    return c;
}

namespace {

// The MCU's identity without its protocol: it enumerates, opens and accepts
// writes, but never answers. A full model registered as "mcu" replaces it.
class SilentHidDevice : public HidDeviceModel {
public:
    SilentHidDevice(Machine& m, std::shared_ptr<UsbDevice> usb, HidIdentity id)
        : bus_(m.usb()), usb_(std::move(usb)), id_(std::move(id)) {}
    HidIdentity identity() const override {
        HidIdentity id = id_;
        id.path = hidPath(usb_->bus, bus_.addressOf(*usb_), id.interfaceNumber);
        return id;
    }
    bool present() const override { return bus_.isAttached(*usb_); }
    int read(unsigned char*, size_t, int timeoutMs) override {
        if (timeoutMs > 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(std::min(timeoutMs, 50)));
        return 0;
    }
    int write(const unsigned char*, size_t length) override { return static_cast<int>(length); }
    int sendFeatureReport(const unsigned char*, size_t) override { return -1; }
    int getFeatureReport(unsigned char*, size_t) override { return -1; }

private:
    UsbBus& bus_;  // the machine owns both the bus and this model
    std::shared_ptr<UsbDevice> usb_;
    HidIdentity id_;
};

std::wstring widen(const std::string& s) {
    return std::wstring(s.begin(), s.end());
}

void addUsbDevice(const Entry& e, Machine& m) {
    e.allowOnly(kUsbFields);
    m.usb().add(readUsbDevice(e, m, -1, -1));
}

void addBootLoader(const Entry& e, Machine& m) {
    e.allowOnly(with(kUsbFields, {"kind"}));
    std::string kind = e.choice("kind", {"ov580", "stm32_dfu"}, "");
    if (kind.empty())
        e.fail("kind", "missing (\"ov580\" or \"stm32_dfu\")");
    UsbDevice d = kind == "ov580" ? readUsbDevice(e, m, 0x05A9, 0x0580) : readUsbDevice(e, m, 0x0483, 0xDF11);
    m.usb().add(d);
}

void addUvcCamera(const Entry& e, Machine& m) {
    e.allowOnly(with(kUsbFields, {"video_node", "card", "bus_info", "busy", "formats", "modalias"}));
    UsbDevice d = readUsbDevice(e, m, 0x2B03, -1);
    VideoNodeConfig c = readVideoNode(e, "video_node");
    if (m.videoNode(c.number))
        e.fail("video_node", "/dev/video" + std::to_string(c.number) + " exists already");
    if (c.card.empty())
        c.card = d.descriptor.product.empty() ? "KOV camera" : d.descriptor.product;
    if (c.busInfo.empty()) {
        c.busInfo = "usb-0000:00:14.0-";
        for (size_t i = 0; i < d.ports.size(); ++i)
            c.busInfo += (i ? "." : "") + std::to_string(d.ports[i]);
    }
    c.modalias = e.string("modalias",
                          usbModalias(d.descriptor.vendorId, d.descriptor.productId, d.descriptor.bcdDevice));
    m.usb().add(d);
    m.addVideoNode(std::make_shared<VideoNode>(c));
}

void addVideoNode(const Entry& e, Machine& m) {
    e.allowOnly({"type", "comment", "number", "driver", "card", "bus_info", "busy", "formats", "modalias",
                 "capture"});
    VideoNodeConfig c = readVideoNode(e, "number");
    if (m.videoNode(c.number))
        e.fail("number", "/dev/video" + std::to_string(c.number) + " exists already");
    c.driver = e.string("driver", "tegra-video");
    if (!e.boolean("capture", true)) {
        c.capabilities = V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_DEVICE_CAPS;
        c.deviceCaps = V4L2_CAP_VIDEO_OUTPUT;
    }
    c.modalias = e.string("modalias", "");
    m.addVideoNode(std::make_shared<VideoNode>(c));
}

void addMcu(const Entry& e, Machine& m) {
    // The fields of the full MCU model that matter for identity.
    e.allowOnly({"type", "comment", "name", "model", "vendor_id", "product_id", "firmware", "serial", "bus",
                 "address", "interface"});
    std::string model = e.choice("model", {"pico", "tera", "tera_r"}, "pico");
    UsbDevice d;
    d.descriptor.vendorId = static_cast<uint16_t>(e.integer("vendor_id", 0x2B03, 0, 0xFFFF));
    d.descriptor.productId = static_cast<uint16_t>(e.integer("product_id",
                                                             model == "pico"   ? 0xF681
                                                             : model == "tera" ? 0xF781
                                                                               : 0xF881,
                                                             0, 0xFFFF));
    d.descriptor.bcdDevice = static_cast<uint16_t>(e.integer("firmware", 0x305, 0, 0xFFFF));
    d.descriptor.serial = std::to_string(e.integer("serial", 12345678, 0, 0xFFFFFFFFLL));
    d.bus = static_cast<uint8_t>(e.integer("bus", 1, 1, 255));
    d.address =
        static_cast<uint8_t>(e.has("address") ? e.integer("address", 1, 127) : m.usb().nextAddress(d.bus));
    d.speed = LIBUSB_SPEED_FULL;
    d.ports = {1};
    auto usb = m.usb().add(d);
    HidIdentity id;
    id.vendorId = d.descriptor.vendorId;
    id.productId = d.descriptor.productId;
    id.releaseNumber = d.descriptor.bcdDevice;
    id.serial = widen(d.descriptor.serial);
    id.interfaceNumber = static_cast<int>(e.integer("interface", 0, 0, 255));
    m.addHidDevice(std::make_shared<SilentHidDevice>(m, usb, id));
}

void addI2cBus(const Entry& e, Machine& m) {
    e.allowOnly({"type", "comment", "bus", "chips", "claimed"});
    int number = static_cast<int>(e.integer("bus", 0, 255));
    auto bus = m.i2cBus(number);
    // Addresses held by kernel drivers (a camera driver's sensor, serializer
    // and EEPROM): only the forced address request reaches them.
    for (int64_t address : e.integers("claimed", 0x03, 0x77))
        bus->claim(static_cast<uint16_t>(address));
    for (const Entry& c : e.objects("chips")) {
        std::string type = c.string("type");
        ChipFactory make = detail::findI2cChipType(type);
        if (!make) {
            std::string known;
            for (const auto& t : i2cChipTypes())
                known += (known.empty() ? "" : ", ") + t;
            c.fail("type", "unknown chip type \"" + type + "\" (known: " + known + ")");
        }
        uint16_t address = static_cast<uint16_t>(c.integer("address", 0x03, 0x77));
        if (bus->chip(address))
            c.fail("address", "the bus has a chip at this address already");
        bus->attach(address, make(c, m, number));
    }
}

std::shared_ptr<I2cChip> makeEeprom(const Entry& c, Machine&, int) {
    c.allowOnly({"type", "comment", "address", "size", "address_bytes", "page_size", "contents"});
    auto chip = std::make_shared<RegisterChip>(static_cast<size_t>(c.integer("size", 256, 1, 65536)),
                                               static_cast<int>(c.integer("address_bytes", 1, 1, 2)),
                                               static_cast<size_t>(c.integer("page_size", 8, 0, 256)));
    std::vector<uint8_t> bytes = c.bytes("contents");
    if (bytes.size() > chip->contents().size())
        c.fail("contents", "longer than the chip");
    chip->setContents(0, bytes);
    return chip;
}

}  // namespace

std::shared_ptr<RegisterChip> makeCameraEeprom(uint32_t serial, uint8_t version, uint8_t subModel,
                                               uint8_t counter) {
    auto chip = std::make_shared<RegisterChip>(256, 1, 8);
    chip->setContents(0, {static_cast<uint8_t>(serial), static_cast<uint8_t>(serial >> 8),
                          static_cast<uint8_t>(serial >> 16), static_cast<uint8_t>(serial >> 24), version,
                          subModel, counter});
    return chip;
}

namespace {

std::shared_ptr<I2cChip> makeCameraEepromEntry(const Entry& c, Machine&, int) {
    c.allowOnly({"type", "comment", "address", "serial", "version", "sub_model", "counter"});
    return makeCameraEeprom(static_cast<uint32_t>(c.integer("serial", 0, 0xFFFFFFFFLL)),
                            static_cast<uint8_t>(c.integer("version", 0x11, 0, 255)),
                            static_cast<uint8_t>(c.integer("sub_model", 0, 255)),
                            static_cast<uint8_t>(c.integer("counter", 1, 0, 255)));
}

}  // namespace

void registerBuiltinTypes() {
    registerDeviceType("usb_device", addUsbDevice);
    registerDeviceType("boot_loader", addBootLoader);
    registerDeviceType("uvc_camera", addUvcCamera);
    registerDeviceType("video_node", addVideoNode);
    registerDeviceType("mcu", addMcu);
    registerDeviceType("i2c_bus", addI2cBus);
    registerI2cChipType("eeprom", makeEeprom);
    registerI2cChipType("camera_eeprom", makeCameraEepromEntry);
}

}  // namespace sim
