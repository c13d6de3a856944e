// Scenario type "uvc_camera": the streaming camera with its vendor channels
// (replaces the identity-only built-in type; every built-in field is kept).
#include <cmath>

#include "sim/Builtins.h"
#include "sim/Registry.h"
#include "sim/Scenario.h"
#include "sim/uvc/UvcCamera.h"

namespace sim {

namespace {

bool cbsByProduct(uint16_t product) {
    // First-generation products speak the old channel; the others CBS.
    return product != 0xF580 && product != 0xF680;
}

double rate(const Entry& e, const char* key) {
    const double r = e.number(key, 0.0);
    if (!std::isfinite(r) || r < 0 || r > 1000)
        e.fail(key, "must be a number of frames per second in 0..1000");
    return r;
}

double seconds(const Entry& e, const char* key, double fallback) {
    const double s = e.number(key, fallback);
    if (!std::isfinite(s) || (s < 0 && s != fallback) || s > 1e6)
        e.fail(key, "must be a number of seconds in 0..1000000");
    return s;
}

void readSensors(const Entry& e, const char* key, bool out[2]) {
    if (!e.has(key))
        return;
    out[0] = out[1] = false;
    for (int64_t s : e.integers(key, 0, 1))
        out[s] = true;
}

UvcFaults readFaults(const Entry& f) {
    f.allowOnly({"comment", "drops_per_second", "short_frames_per_second", "torn_frames_per_second", "stall",
                 "unplug_at", "isp_lock_at", "isp_lock_sensors", "damaged_sensor_registers"});
    UvcFaults u;
    u.dropsPerSecond = rate(f, "drops_per_second");
    u.shortPerSecond = rate(f, "short_frames_per_second");
    u.tornPerSecond = rate(f, "torn_frames_per_second");
    if (f.has("stall")) {
        Entry s = f.object("stall");
        s.allowOnly({"comment", "at", "seconds"});
        if (!s.has("at"))
            s.fail("at", "missing (seconds from the first stream start)");
        if (!s.has("seconds"))
            s.fail("seconds", "missing (length of the stall)");
        u.stallAt = seconds(s, "at", 0);
        u.stallSeconds = seconds(s, "seconds", 0);
    }
    u.unplugAt = seconds(f, "unplug_at", -1);
    u.ispLockAt = seconds(f, "isp_lock_at", -1);
    readSensors(f, "isp_lock_sensors", u.ispLockSensors);
    return u;
}

void addUvcCamera(const Entry& e, Machine& m) {
    e.allowOnly({"type",
                 "comment",
                 "vendor_id",
                 "product_id",
                 "bus",
                 "address",
                 "ports",
                 "speed",
                 "bcd_usb",
                 "bcd_device",
                 "device_class",
                 "manufacturer",
                 "product",
                 "serial",
                 "descriptor_error",
                 "video_node",
                 "card",
                 "bus_info",
                 "busy",
                 "formats",
                 "modalias",
                 "firmware",
                 "firmware_version",
                 "flash_serial",
                 "flash_exposure",
                 "flash_erase_polls",
                 "flash_patches",
                 "temperature",
                 "width",
                 "height",
                 "fps",
                 "faults"});
    UsbDevice d = readUsbDevice(e, m, 0x2B03, -1);
    UvcCameraConfig c;
    c.node = readVideoNode(e, "video_node");
    if (m.videoNode(c.node.number))
        e.fail("video_node", "/dev/video" + std::to_string(c.node.number) + " exists already");
    if (c.node.card.empty())
        c.node.card = d.descriptor.product.empty() ? "KOV camera" : d.descriptor.product;
    if (c.node.busInfo.empty()) {
        c.node.busInfo = "usb-0000:00:14.0-";
        for (size_t i = 0; i < d.ports.size(); ++i)
            c.node.busInfo += (i ? "." : "") + std::to_string(d.ports[i]);
    }
    c.node.modalias = e.string(
        "modalias", usbModalias(d.descriptor.vendorId, d.descriptor.productId, d.descriptor.bcdDevice));

    FirmwareConfig& fw = c.firmware;
    fw.cbs =
        e.choice("firmware", {"cbs", "old"}, cbsByProduct(d.descriptor.productId) ? "cbs" : "old") == "cbs";
    fw.version = fw.cbs ? e.integer("firmware_version", 1523, 1000, 10999)
                        : e.integer("firmware_version", 1142, 0, 0xFFFFFFFFLL);
    const int64_t serial = e.integer("flash_serial", 12345, -1, 99999999);
    fw.hasSerial = serial >= 0;
    fw.serial = serial;
    const int64_t exposure = e.integer("flash_exposure", -1, -1, 99999999);
    fw.hasExposure = exposure >= 0;
    fw.exposure = exposure;
    fw.erasePolls = static_cast<int>(e.integer("flash_erase_polls", 0, 0, 1000));
    fw.temperatureC = static_cast<int>(e.integer("temperature", 40, -64, 191));
    for (const Entry& p : e.objects("flash_patches")) {
        p.allowOnly({"comment", "address", "bytes"});
        const uint32_t at = static_cast<uint32_t>(p.integer("address", 0, fw.flashSize - 1));
        std::vector<uint8_t> bytes = p.bytes("bytes");
        if (at + bytes.size() > fw.flashSize)
            p.fail("bytes", "run past the end of the flash (1 MiB)");
        fw.flashPatches.emplace_back(at, std::move(bytes));
    }

    c.width = static_cast<int>(e.integer("width", 2560, 1, 65535));
    c.height = static_cast<int>(e.integer("height", 720, 1, 65535));
    c.fps = static_cast<int>(e.integer("fps", 30, 1, 1000));
    if (e.has("faults")) {
        Entry f = e.object("faults");
        c.faults = readFaults(f);
        readSensors(f, "damaged_sensor_registers", fw.damagedSensors);
    }
    UvcCamera::addTo(m, c, d);
}

}  // namespace

}  // namespace sim

KOV_SIM_REGISTER(UvcCamera) {
    sim::registerDeviceType("uvc_camera", sim::addUvcCamera);
}
