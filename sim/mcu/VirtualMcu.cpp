#include "sim/mcu/VirtualMcu.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>

#include <QJsonArray>
#include <QJsonValue>

#include "platform/Platform.h"
#include "sim/Machine.h"
#include "sim/Registry.h"
#include "sim/Scenario.h"

namespace sim {

namespace {

constexpr double kGyroCountsPerDps = 32768.0 / 1000.0;  // the MCU's gyroscope scale
constexpr double kAccCountsPerG = 4096.0;
constexpr double kRadiansPerDegree = 3.14159265358979323846 / 180.0;

int16_t toCounts(double value) {
    const double limited = std::max(-32768.0, std::min(32767.0, std::round(value)));
    return static_cast<int16_t>(limited);
}

// Three numbers of a scenario entry; absent keeps `out`.
void readVector3(const Entry& e, const char* key, double out[3]) {
    if (!e.has(key))
        return;
    const QJsonValue v = e.json().value(QString::fromLatin1(key));
    if (!v.isArray() || v.toArray().size() != 3)
        e.fail(key, "must be an array of three numbers");
    const QJsonArray a = v.toArray();
    for (int i = 0; i < 3; ++i) {
        if (!a[i].isDouble() || !std::isfinite(a[i].toDouble()))
            e.fail(key, "must be an array of three numbers");
        out[i] = a[i].toDouble();
    }
}

int64_t steadyNow() {
    return platform::clock().steadyNanoseconds();
}
void sleepNs(int64_t ns) {
    if (ns > 0)
        platform::clock().sleepFor(std::chrono::nanoseconds(ns));
}

// The USB face of the MCU: forwards to the HID model that owns the state.
class McuUsbModel final : public UsbDeviceModel {
public:
    std::weak_ptr<VirtualMcu> mcu;
    int open() override {
        auto m = mcu.lock();
        return m ? m->usbOpen() : LIBUSB_ERROR_NO_DEVICE;
    }
    int claimInterface(int n) override {
        auto m = mcu.lock();
        return m ? m->usbClaim(n) : LIBUSB_ERROR_NO_DEVICE;
    }
    int clearHalt(unsigned char ep) override {
        auto m = mcu.lock();
        return m ? m->usbClearHalt(ep) : LIBUSB_ERROR_NO_DEVICE;
    }
    int reset() override {
        auto m = mcu.lock();
        return m ? m->usbReset() : LIBUSB_ERROR_NO_DEVICE;
    }
};

// Legacy write codes: record id in the image and length.
bool legacyWriteRecord(uint8_t code, uint8_t& featureId, size_t& len) {
    if (code == 0xA1)
        return featureId = mcu_id::SERIAL, len = 9, true;
    if (code == 0xA2)
        return featureId = mcu_id::BIAS, len = 25, true;
    if (code == 0xA3)
        return featureId = mcu_id::VARIANCE, len = 25, true;
    if (code == 0xA4)
        return featureId = mcu_id::CAM_IMU, len = 13, true;
    if (code >= 0xA5 && code <= 0xAC)
        return featureId = static_cast<uint8_t>(0x37 + code - 0xA5), len = 49, true;
    if (code == 0xAD)
        return featureId = mcu_id::STEREO, len = 61, true;
    if (code == 0xAE)
        return featureId = mcu_id::EXT_GYRO, len = 61, true;
    if (code == 0xAF)
        return featureId = mcu_id::EXT_ACC, len = 49, true;
    return false;
}

uint8_t legacyIdOf(uint8_t featureId) {
    switch (featureId) {
        case mcu_id::SERIAL:
            return mcu_id::LEGACY_SERIAL;
        case mcu_id::BIAS:
            return mcu_id::LEGACY_BIAS;
        case mcu_id::VARIANCE:
            return mcu_id::LEGACY_VARIANCE;
        case mcu_id::CAM_IMU:
            return mcu_id::LEGACY_CAM_IMU;
        case mcu_id::STEREO:
            return mcu_id::LEGACY_STEREO;
        case mcu_id::EXT_GYRO:
            return mcu_id::LEGACY_EXT_GYRO;
        case mcu_id::EXT_ACC:
            return mcu_id::LEGACY_EXT_ACC;
        default:
            break;
    }
    if (featureId >= mcu_id::MONO_FIRST && featureId < mcu_id::MONO_FIRST + 8)
        return static_cast<uint8_t>(mcu_id::LEGACY_MONO_FIRST + featureId - mcu_id::MONO_FIRST);
    return 0;
}

}  // namespace

eepromMemoryStrc McuConfig::defaultEeprom(uint32_t serial, int odr) {
    eepromMemoryStrc e{};
    e.serial = {mcu_id::SERIAL, static_cast<int32_t>(serial / 10000000u),
                static_cast<int32_t>(serial % 10000000u)};
    e.bias = {mcu_id::BIAS, {0.001f, -0.002f, 0.0015f}, {0.01f, -0.02f, 0.015f}};
    e.variance = {mcu_id::VARIANCE, {1e-4f, 1e-4f, 1e-4f}, {2e-3f, 2e-3f, 2e-3f}};
    e.cam_imu = {mcu_id::CAM_IMU, {0.001f, 0.002f, -0.001f}};
    for (int i = 0; i < 8; ++i) {
        e.calib_mono[i].id = static_cast<uint8_t>(mcu_id::MONO_FIRST + i);
        for (int k = 0; k < 12; ++k)
            e.calib_mono[i].values[k] = 100.f * i + k;
    }
    e.calib_stereo.id = mcu_id::STEREO;
    e.calib_stereo.params[0] = 120.f;
    e.barom_calib = {mcu_id::BAROM, 0.5f, 1.0f};
    e.ext_gyro_calib.id = mcu_id::EXT_GYRO;
    e.ext_acc_calib.id = mcu_id::EXT_ACC;
    for (int i = 0; i < 3; ++i) {
        e.ext_gyro_calib.scale[i] = 1.01f;
        e.ext_acc_calib.scale[i] = 0.99f;
        e.ext_gyro_calib.bias[i] = 0.01f;
        e.ext_acc_calib.bias[i] = 0.05f;
    }
    e.mag_calib = {mcu_id::MAG, {1.f, 1.f, 1.f}, {10.f, -5.f, 3.f}};
    e.imu_odr = {mcu_id::ODR, static_cast<uint8_t>(odr)};
    e.date_time.id = mcu_id::DATE;
    return e;
}

VirtualMcu::VirtualMcu(McuConfig config, UsbBus* bus) : config_(std::move(config)), bus_(bus) {
    readdressLeft_ = config_.readdressOnUsbReset;
    tickBase_ = config_.startTicks;
    streaming_ = legacy() && config_.legacyStreamAtBoot;
}

std::shared_ptr<VirtualMcu> VirtualMcu::addTo(Machine& machine, McuConfig config) {
    if (config.address == 0)
        config.address = machine.usb().nextAddress(config.bus);
    auto usbModel = std::make_shared<McuUsbModel>();
    UsbDevice dev;
    dev.descriptor.vendorId = config.vendorId;
    dev.descriptor.productId = config.productId;
    dev.descriptor.bcdDevice = config.firmware;
    dev.descriptor.manufacturer = "KOV";
    dev.descriptor.product = "Sensors MCU";
    dev.bus = config.bus;
    dev.address = config.address;
    dev.speed = LIBUSB_SPEED_FULL;
    dev.ports = {1};
    dev.model = usbModel;
    auto mcu = std::make_shared<VirtualMcu>(std::move(config), &machine.usb());
    mcu->usbDevice_ = machine.usb().add(std::move(dev));
    usbModel->mcu = mcu;
    machine.addHidDevice(mcu);
    return mcu;
}

McuConfig VirtualMcu::configFrom(const Entry& e) {
    e.allowOnly({"type",      "comment",       "name",          "model",    "vendor_id",   "product_id",
                 "firmware",  "serial",        "serial_string", "bus",      "address",     "interface",
                 "imu_odr",   "frame_rate",    "env_rate",      "mag_rate", "clock_scale", "start_ticks",
                 "retrim_ms", "retrim_result", "eeprom",        "faults",   "motion"});
    McuConfig c;
    const std::string model = e.choice("model", {"pico", "tera", "tera_r"}, "pico");
    c.productId = model == "pico" ? 0xF681 : model == "tera" ? 0xF781 : 0xF881;
    const bool slowSensors = model != "pico";
    c.vendorId = static_cast<uint16_t>(e.integer("vendor_id", 0x2B03, 0, 0xFFFF));
    c.productId = static_cast<uint16_t>(e.integer("product_id", c.productId, 0, 0xFFFF));
    c.firmware = static_cast<uint16_t>(e.integer("firmware", 0x305, 0, 0xFFFF));
    const int64_t serial = e.integer("serial", 12345678, 0, 0xFFFFFFFFLL);
    if (e.has("serial_string")) {
        c.hasSerialOverride = true;
        const std::string s = e.string("serial_string");
        c.serialOverride.assign(s.begin(), s.end());
    }
    c.bus = static_cast<uint8_t>(e.integer("bus", 1, 1, 255));
    c.address = static_cast<uint8_t>(e.integer("address", 0, 0, 127));
    c.interfaceNumber = static_cast<int>(e.integer("interface", 0, 0, 255));
    const int odr = static_cast<int>(e.integer("imu_odr", 2, 0, 3));
    c.frameRate = e.number("frame_rate", 30.0);
    c.envRate = e.number("env_rate", slowSensors ? 25.0 : 0.0);
    c.magRate = e.number("mag_rate", slowSensors ? 50.0 : 0.0);
    c.clockScale = e.number("clock_scale", 1.0);
    if (c.frameRate < 0 || c.frameRate > 1000)
        e.fail("frame_rate", "must lie in 0..1000");
    if (c.envRate < 0 || c.envRate > 800 || c.magRate < 0 || c.magRate > 800)
        e.fail("env_rate", "rates must lie in 0..800");
    if (!(c.clockScale > 0.1 && c.clockScale < 10))
        e.fail("clock_scale", "must lie in 0.1..10");
    c.startTicks = static_cast<uint64_t>(e.integer("start_ticks", 0, 0, INT64_MAX));
    c.retrimMs = e.integer("retrim_ms", 2000, 0, 600000);
    c.retrimResult = static_cast<int>(e.integer("retrim_result", 3, 0, 255));
    c.eeprom = McuConfig::defaultEeprom(static_cast<uint32_t>(serial), odr);
    if (e.has("eeprom")) {
        std::vector<uint8_t> bytes = e.bytes("eeprom");
        if (bytes.size() != sizeof(eepromMemoryStrc))
            e.fail("eeprom", "must hold exactly 697 bytes");
        std::memcpy(&c.eeprom, bytes.data(), bytes.size());
    }
    if (e.has("motion")) {
        Entry m = e.object("motion");
        m.allowOnly({"comment", "rate_dps", "gravity"});
        c.hasMotion = true;
        readVector3(m, "rate_dps", c.motion.rateDps);
        readVector3(m, "gravity", c.motion.gravity);
        for (double r : c.motion.rateDps)
            if (std::fabs(r) > 1000.0)
                m.fail("rate_dps", "each rate must lie in -1000..1000 deg/s (the gyroscope's range)");
        const double* g = c.motion.gravity;
        if (!(std::sqrt(g[0] * g[0] + g[1] * g[1] + g[2] * g[2]) > 1e-9))
            m.fail("gravity", "must not be the zero vector");
    }
    if (e.has("faults")) {
        Entry f = e.object("faults");
        f.allowOnly({"comment", "stalled", "short_reads", "clock_jump_back_after", "ignore_first_requests",
                     "reset_dropout_ms", "unplug_after", "claim_busy", "readdress_on_usb_reset",
                     "reset_write_fails", "legacy_stream_at_boot"});
        c.stalled = f.boolean("stalled", false);
        if (f.has("short_reads")) {
            Entry s = f.object("short_reads");
            s.allowOnly({"after", "count", "length"});
            c.shortReadsAfter = s.integer("after", 0, 0, INT64_MAX);
            c.shortReadsCount = static_cast<int>(s.integer("count", 1, 0, 1000000));
            c.shortReadLength = static_cast<int>(s.integer("length", 20, 0, 61));
        }
        c.clockJumpBackAfter = f.integer("clock_jump_back_after", -1, -1, INT64_MAX);
        c.ignoreFirstRequests = static_cast<int>(f.integer("ignore_first_requests", 0, 0, 1000000));
        c.resetDropoutMs = f.integer("reset_dropout_ms", 300, 0, 600000);
        c.unplugAfter = f.integer("unplug_after", -1, -1, INT64_MAX);
        c.claimBusy = f.boolean("claim_busy", false);
        c.readdressOnUsbReset = static_cast<int>(f.integer("readdress_on_usb_reset", 0, 0, 1000));
        c.resetWriteFails = f.boolean("reset_write_fails", false);
        c.legacyStreamAtBoot = f.boolean("legacy_stream_at_boot", true);
    }
    return c;
}

// ---------------------------------------------------------------------------
// Presence and power

void VirtualMcu::refreshLocked() const {
    if (!booted_) {
        // Power-on at the first contact, on the clock installed by then.
        auto* self = const_cast<VirtualMcu*>(this);
        self->booted_ = true;
        self->tickBaseNs_ = self->streamStartNs_ = self->motionBaseNs_ = steadyNow();
    }
    if (rebootPending_ && steadyNow() >= absentUntilNs_) {
        auto* self = const_cast<VirtualMcu*>(this);
        self->rebootPending_ = false;
        self->powerOnLocked(absentUntilNs_);
    }
}

void VirtualMcu::powerOnLocked(int64_t nowNs) {
    tickBase_ = 0;
    tickBaseNs_ = nowNs;
    streaming_ = legacy() && config_.legacyStreamAtBoot;
    streamStartNs_ = nowNs;
    nextIndex_ = 0;
    lastFrame_ = -1;
    frameCount_ = 0;
    env_ = SlowSensor{};
    mag_ = SlowSensor{};
    input_.clear();
    retrimEndNs_ = -1;
    if (bus_ && usbDevice_ && !unplugged_)
        bus_->setAttached(usbDevice_, true);
}

bool VirtualMcu::present() const {
    std::lock_guard<std::mutex> lock(mutex_);
    refreshLocked();
    return !unplugged_ && !inDfu_ && !rebootPending_;
}

bool VirtualMcu::open() {
    std::lock_guard<std::mutex> lock(mutex_);
    refreshLocked();
    if (unplugged_ || inDfu_ || rebootPending_)
        return false;
    counters_.opens++;
    return true;
}

void VirtualMcu::close() {
    std::lock_guard<std::mutex> lock(mutex_);
    counters_.closes++;
}

std::wstring VirtualMcu::serialStringLocked() const {
    if (config_.hasSerialOverride)
        return config_.serialOverride;
    const int64_t v = static_cast<int64_t>(config_.eeprom.serial.serial_body) +
                      static_cast<int64_t>(config_.eeprom.serial.serial_prefix) * 10000000LL;
    return std::to_wstring(v);
}

HidIdentity VirtualMcu::identity() const {
    std::lock_guard<std::mutex> lock(mutex_);
    HidIdentity id;
    id.path = hidPath(usbDevice_ ? usbDevice_->bus : config_.bus,
                      usbDevice_ ? usbDevice_->address : config_.address, config_.interfaceNumber);
    id.vendorId = config_.vendorId;
    id.productId = config_.productId;
    id.releaseNumber = config_.firmware;
    id.serial = serialStringLocked();
    id.manufacturer = L"KOV";
    id.product = L"Sensors MCU";
    id.interfaceNumber = config_.interfaceNumber;
    return id;
}

// ---------------------------------------------------------------------------
// Samples

uint64_t VirtualMcu::ticksAtLocked(int64_t tNs) const {
    if (tNs <= tickBaseNs_)
        return tickBase_;
    const uint64_t elapsed = static_cast<uint64_t>(tNs - tickBaseNs_);
    // 25.6 kHz: 16 ticks every 625 us. Exact in integers at the nominal rate.
    if (config_.clockScale == 1.0)
        return tickBase_ + elapsed * 16u / 625000u;
    return tickBase_ + static_cast<uint64_t>(static_cast<long double>(elapsed) * 16.0L *
                                             static_cast<long double>(config_.clockScale) / 625000.0L);
}

int VirtualMcu::rateHz() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return legacy() ? 800 : imuOdrToHz(config_.eeprom.imu_odr.odr);
}

void VirtualMcu::buildSampleLocked(int64_t tNs, McuSensorReport& rep) {
    std::memset(&rep, 0, sizeof(rep));
    if (jumpPending_) {
        jumpPending_ = false;
        tickBase_ = 0;
        tickBaseNs_ = tNs;
    }
    const double phase = static_cast<double>(nextIndex_) * 0.01;
    rep.report_id = legacy() ? 0 : 1;
    rep.imu_not_valid = 0;
    rep.timestamp = ticksAtLocked(tNs);
    if (config_.hasMotion) {
        const double* w = config_.motion.rateDps;
        rep.gyro_x = toCounts(w[0] * kGyroCountsPerDps);
        rep.gyro_y = toCounts(w[1] * kGyroCountsPerDps);
        rep.gyro_z = toCounts(w[2] * kGyroCountsPerDps);
        double g[3];
        gravityAtLocked(tNs, g);
        rep.acc_x = toCounts(g[0] * kAccCountsPerG);
        rep.acc_y = toCounts(g[1] * kAccCountsPerG);
        rep.acc_z = toCounts(g[2] * kAccCountsPerG);
    } else {
        rep.gyro_x = static_cast<int16_t>(std::lround(30.0 * std::sin(phase)));
        rep.gyro_y = static_cast<int16_t>(std::lround(-20.0 * std::cos(phase)));
        rep.gyro_z = 5;
        rep.acc_x = static_cast<int16_t>(std::lround(40.0 * std::sin(phase * 0.5)));
        rep.acc_y = -12;
        rep.acc_z = 4096;
    }
    if (config_.frameRate > 0) {
        rep.sync_capabilities = 1;
        const int64_t frame =
            static_cast<int64_t>(std::floor(static_cast<double>(tNs) * config_.frameRate / 1e9));
        if (lastFrame_ >= 0 && frame > lastFrame_) {
            rep.frame_sync = 1;
            frameCount_++;
        }
        lastFrame_ = frame;
    }
    rep.frame_sync_count = frameCount_;
    rep.imu_temperature = legacy() ? static_cast<int16_t>(12 * 512) : static_cast<int16_t>(3550);
    if (config_.magRate > 0) {
        rep.mag_valid = mag_.tick(tNs, config_.magRate);
        rep.mag_x = 480;
        rep.mag_y = -320;
        rep.mag_z = 640;
    }
    if (config_.envRate > 0) {
        rep.env_valid = env_.tick(tNs, config_.envRate);
        rep.env_temperature = 2450;
        rep.pressure = 101325 + static_cast<uint32_t>(env_.period % 7);
        rep.humidity = 45 * 1024;
    }
    rep.temp_cam_left = 3800;
    rep.temp_cam_right = 3900;
}

// Gravity in the sensors' axes at tNs: the start direction, turned back by the
// angle the sensors have turned since the motion began (a world-fixed vector
// seen from a body turning at w moves as dv/dt = -w x v).
void VirtualMcu::gravityAtLocked(int64_t tNs, double out[3]) const {
    const double* g0 = config_.motion.gravity;
    const double norm = std::sqrt(g0[0] * g0[0] + g0[1] * g0[1] + g0[2] * g0[2]);
    double v[3] = {g0[0] / norm, g0[1] / norm, g0[2] / norm};
    const double* r = config_.motion.rateDps;
    const double rate = std::sqrt(r[0] * r[0] + r[1] * r[1] + r[2] * r[2]);
    if (rate > 0.0) {
        const double k[3] = {r[0] / rate, r[1] / rate, r[2] / rate};
        const double angle = -rate * kRadiansPerDegree * static_cast<double>(tNs - motionBaseNs_) * 1e-9;
        const double c = std::cos(angle), s = std::sin(angle);
        const double kv = k[0] * v[0] + k[1] * v[1] + k[2] * v[2];
        const double kxv[3] = {k[1] * v[2] - k[2] * v[1], k[2] * v[0] - k[0] * v[2],
                               k[0] * v[1] - k[1] * v[0]};
        for (int i = 0; i < 3; ++i)
            v[i] = v[i] * c + kxv[i] * s + k[i] * kv * (1.0 - c);
    }
    for (int i = 0; i < 3; ++i)
        out[i] = v[i];
}

void VirtualMcu::setMotion(const McuMotion& motion) {
    std::lock_guard<std::mutex> lock(mutex_);
    refreshLocked();
    config_.hasMotion = true;
    config_.motion = motion;
    motionBaseNs_ = steadyNow();
}

void VirtualMcu::setRotationRate(double xDps, double yDps, double zDps) {
    std::lock_guard<std::mutex> lock(mutex_);
    refreshLocked();
    const int64_t now = steadyNow();
    if (config_.hasMotion)
        gravityAtLocked(now, config_.motion.gravity);
    config_.hasMotion = true;
    config_.motion.rateDps[0] = xDps;
    config_.motion.rateDps[1] = yDps;
    config_.motion.rateDps[2] = zDps;
    motionBaseNs_ = now;
}

int VirtualMcu::read(unsigned char* data, size_t length, int timeoutMs) {
    if (!data)
        return -1;
    const int64_t timeoutNs = timeoutMs < 0 ? -1 : static_cast<int64_t>(timeoutMs) * 1000000LL;
    for (;;) {
        std::unique_lock<std::mutex> lock(mutex_);
        refreshLocked();
        if (unplugged_ || inDfu_ || rebootPending_)
            return -1;
        if (!input_.empty()) {
            std::vector<uint8_t> rep = std::move(input_.front());
            input_.pop_front();
            const size_t n = std::min(length, rep.size());
            std::memcpy(data, rep.data(), n);
            return static_cast<int>(n);
        }
        if (config_.stalled || !streaming_) {
            lock.unlock();
            if (timeoutNs > 0)
                sleepNs(timeoutNs);
            return 0;
        }
        const int64_t now = steadyNow();
        const int64_t period = 1000000000LL / (legacy() ? 800 : imuOdrToHz(config_.eeprom.imu_odr.odr));
        int64_t due = streamStartNs_ + (nextIndex_ + 1) * period;
        if (due > now) {
            const int64_t wait = due - now;
            lock.unlock();
            if (timeoutNs >= 0 && wait > timeoutNs) {
                sleepNs(timeoutNs);
                return 0;
            }
            sleepNs(wait);
            continue;
        }
        // The host keeps at most 30 reports; older ones are lost.
        const int64_t behind = (now - due) / period;
        if (behind > 30) {
            nextIndex_ += behind - 30;
            due = streamStartNs_ + (nextIndex_ + 1) * period;
        }
        if (config_.unplugAfter >= 0 && counters_.samplesSent >= config_.unplugAfter) {
            unplugged_ = true;
            if (bus_ && usbDevice_)
                bus_->setAttached(usbDevice_, false);
            return -1;
        }
        if (config_.clockJumpBackAfter >= 0 && counters_.samplesSent == config_.clockJumpBackAfter)
            jumpPending_ = true;
        if (config_.shortReadsAfter >= 0 && counters_.samplesSent == config_.shortReadsAfter) {
            shortReadsLeft_ += config_.shortReadsCount;
            shortReadLength_ = config_.shortReadLength;
        }
        McuSensorReport rep;
        buildSampleLocked(due, rep);
        nextIndex_++;
        counters_.samplesSent++;
        uint8_t buf[64] = {};
        std::memcpy(buf, &rep, sizeof(rep));
        size_t n = std::min(length, static_cast<size_t>(legacy() ? 64 : 62));
        if (shortReadsLeft_ > 0) {
            shortReadsLeft_--;
            n = std::min(n, static_cast<size_t>(shortReadLength_));
        }
        std::memcpy(data, buf, n);
        return static_cast<int>(n);
    }
}

// ---------------------------------------------------------------------------
// Legacy generation: output reports in, answers on the interrupt stream

void VirtualMcu::queueLegacyRecordLocked(uint8_t legacyId, const void* record, size_t len) {
    std::vector<uint8_t> rep(64, 0);
    rep[0] = legacyId;
    std::memcpy(rep.data() + 1, static_cast<const uint8_t*>(record) + 1, std::min<size_t>(len, 64) - 1);
    input_.push_back(std::move(rep));
    while (input_.size() > 30)
        input_.pop_front();
}

int VirtualMcu::write(const unsigned char* data, size_t length) {
    if (!data || length < 2)
        return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    refreshLocked();
    if (unplugged_ || inDfu_ || rebootPending_)
        return -1;
    if (!legacy())
        return static_cast<int>(length);  // the feature firmware ignores output reports
    counters_.legacyRequests++;
    if (counters_.ignoredRequests < config_.ignoreFirstRequests) {
        counters_.ignoredRequests++;
        return static_cast<int>(length);
    }
    legacyCommandLocked(data, length);
    return static_cast<int>(length);
}

void VirtualMcu::legacyCommandLocked(const unsigned char* data, size_t length) {
    const uint8_t cls = data[0];
    const uint8_t code = data[1];
    eepromMemoryStrc& img = config_.eeprom;
    if (cls == 0x21) {
        if (code == 0xF1) {
            counters_.dfuRequests++;
            inDfu_ = true;
            streaming_ = false;
            if (bus_ && usbDevice_)
                bus_->setAttached(usbDevice_, false);
            return;
        }
        uint8_t fid = 0;
        size_t len = 0;
        if (!legacyWriteRecord(code, fid, len) || length < 2 + len)
            return;
        if ((fid == mcu_id::EXT_GYRO || fid == mcu_id::EXT_ACC) && config_.firmware < 0x205)
            return;
        uint8_t* rec = nullptr;
        size_t rlen = 0;
        if (!recordOfLocked(fid, rec, rlen))
            return;
        std::memcpy(rec + 1, data + 3, len - 1);
        rec[0] = fid;
        queueLegacyRecordLocked(legacyIdOf(fid), rec, len);
        return;
    }
    if (cls == 0x22) {
        if (code == 0xE1) {
            queueLegacyRecordLocked(mcu_id::LEGACY_SERIAL, &img.serial, sizeof(img.serial));
            queueLegacyRecordLocked(mcu_id::LEGACY_BIAS, &img.bias, sizeof(img.bias));
            queueLegacyRecordLocked(mcu_id::LEGACY_VARIANCE, &img.variance, sizeof(img.variance));
            queueLegacyRecordLocked(mcu_id::LEGACY_CAM_IMU, &img.cam_imu, sizeof(img.cam_imu));
            if (config_.firmware > 516) {
                queueLegacyRecordLocked(mcu_id::LEGACY_EXT_GYRO, &img.ext_gyro_calib,
                                        sizeof(img.ext_gyro_calib));
                queueLegacyRecordLocked(mcu_id::LEGACY_EXT_ACC, &img.ext_acc_calib,
                                        sizeof(img.ext_acc_calib));
            }
            return;
        }
        uint8_t fid = 0;
        if (code == 0xE2)
            fid = mcu_id::BIAS;
        if (code == 0xE3)
            fid = mcu_id::VARIANCE;
        if (code == 0xE4)
            fid = mcu_id::CAM_IMU;
        if (code >= 0xE5 && code <= 0xEC)
            fid = static_cast<uint8_t>(0x37 + code - 0xE5);
        if (code == 0xED)
            fid = mcu_id::STEREO;
        uint8_t* rec = nullptr;
        size_t rlen = 0;
        if (fid && recordOfLocked(fid, rec, rlen))
            queueLegacyRecordLocked(legacyIdOf(fid), rec, rlen);
        return;
    }
    if (cls == 0x23) {
        if (!streaming_) {
            streaming_ = true;
            streamStartNs_ = steadyNow();
            nextIndex_ = 0;
        }
        return;
    }
    if (cls == 0x24 && code == 0x01 && length >= 10) {
        uint32_t a = 0, b = 0;
        std::memcpy(&a, data + 2, 4);
        std::memcpy(&b, data + 6, 4);
        const uint8_t odr = img.imu_odr.odr;
        img = eepromMemoryStrc{};
        img.serial = {mcu_id::SERIAL, static_cast<int32_t>(a), static_cast<int32_t>(b)};
        img.imu_odr = {mcu_id::ODR, odr};
    }
}

// ---------------------------------------------------------------------------
// Feature generation

bool VirtualMcu::recordOfLocked(uint8_t featureId, uint8_t*& rec, size_t& len) {
    size_t off = 0;
    if (!eepromRecordOf(featureId, off, len))
        return false;
    if (featureId == mcu_id::ODR && config_.firmware < 0x304)
        return false;
    if (featureId == mcu_id::MAG && config_.firmware < 0x305)
        return false;
    rec = reinterpret_cast<uint8_t*>(&config_.eeprom) + off;
    return true;
}

int VirtualMcu::sendFeatureReport(const unsigned char* data, size_t length) {
    if (!data || length < 1)
        return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    refreshLocked();
    if (unplugged_ || inDfu_ || rebootPending_ || legacy())
        return -1;
    counters_.featureWrites++;
    const int64_t now = steadyNow();
    const uint8_t id = data[0];
    const uint8_t arg = length > 1 ? data[1] : 0;
    const int done = static_cast<int>(length);
    switch (id) {
        case mcu_id::CMD:
            if (length < 2)
                return -1;
            if (arg == 0xE1) {
                if (config_.resetWriteFails)
                    return -1;
                counters_.mcuResets++;
                streaming_ = false;
                rebootPending_ = true;
                absentUntilNs_ = now + config_.resetDropoutMs * 1000000LL;
                if (bus_ && usbDevice_)
                    bus_->setAttached(usbDevice_, false);
                return done;
            }
            if (arg == 0xF1) {
                counters_.dfuRequests++;
                inDfu_ = true;
                streaming_ = false;
                if (bus_ && usbDevice_)
                    bus_->setAttached(usbDevice_, false);
                return done;
            }
            if (arg == 0xF3) {
                if (config_.eeprom.serial.serial_prefix < 2)
                    return -1;
                counters_.retrimStarts++;
                streaming_ = false;
                retrimEndNs_ = now + config_.retrimMs * 1000000LL;
                return done;
            }
            return -1;
        case mcu_id::OV580:
            if (length < 2 || arg != 0x02)
                return -1;
            counters_.ov580Resets++;
            return done;
        case mcu_id::STREAM:
            if (length < 2)
                return -1;
            if (arg == 0xF2) {
                counters_.pings++;
                return done;
            }
            if (arg == 1 && !streaming_) {
                streaming_ = true;
                streamStartNs_ = now;
                nextIndex_ = 0;
            } else if (arg == 0) {
                streaming_ = false;
            }
            return done;
        default:
            break;
    }
    uint8_t* rec = nullptr;
    size_t rlen = 0;
    if (!recordOfLocked(id, rec, rlen))
        return -1;
    std::memcpy(rec, data, std::min(length, rlen));
    rec[0] = id;
    if (id == mcu_id::ODR && streaming_) {
        streamStartNs_ = now;
        nextIndex_ = 0;
    }
    return done;
}

int VirtualMcu::getFeatureReport(unsigned char* data, size_t length) {
    if (!data || length < 1)
        return -1;
    std::lock_guard<std::mutex> lock(mutex_);
    refreshLocked();
    if (unplugged_ || inDfu_ || rebootPending_ || legacy())
        return -1;
    counters_.featureReads++;
    const uint8_t id = data[0];
    if (id == mcu_id::STREAM || id == mcu_id::RETRIM) {
        if (length < 2)
            return -1;
        if (id == mcu_id::STREAM) {
            data[1] = streaming_ ? 1 : 0;
        } else if (config_.eeprom.serial.serial_prefix < 2) {
            return -1;
        } else {
            data[1] = retrimEndNs_ < 0              ? 0
                      : steadyNow() >= retrimEndNs_ ? static_cast<uint8_t>(config_.retrimResult)
                                                    : 1;
        }
        return 2;
    }
    uint8_t* rec = nullptr;
    size_t rlen = 0;
    if (!recordOfLocked(id, rec, rlen))
        return -1;
    const size_t n = std::min(length, rlen);
    std::memcpy(data, rec, n);
    return static_cast<int>(n);
}

// ---------------------------------------------------------------------------
// USB side

int VirtualMcu::usbOpen() {
    std::lock_guard<std::mutex> lock(mutex_);
    refreshLocked();
    return (unplugged_ || inDfu_ || rebootPending_) ? LIBUSB_ERROR_NO_DEVICE : 0;
}

int VirtualMcu::usbClaim(int) {
    std::lock_guard<std::mutex> lock(mutex_);
    counters_.usbClaims++;
    return config_.claimBusy ? LIBUSB_ERROR_BUSY : 0;
}

int VirtualMcu::usbClearHalt(unsigned char endpoint) {
    std::lock_guard<std::mutex> lock(mutex_);
    counters_.usbClearHalts++;
    if (endpoint == 0x81)
        config_.stalled = false;
    return 0;
}

int VirtualMcu::usbReset() {
    std::lock_guard<std::mutex> lock(mutex_);
    counters_.usbResets++;
    if (!legacy())
        streaming_ = false;
    if (readdressLeft_ > 0 && bus_ && usbDevice_) {
        readdressLeft_--;
        bus_->setAddress(usbDevice_, bus_->nextAddress(usbDevice_->bus));
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Test controls and observers

void VirtualMcu::unplug() {
    std::lock_guard<std::mutex> lock(mutex_);
    unplugged_ = true;
    if (bus_ && usbDevice_)
        bus_->setAttached(usbDevice_, false);
}

void VirtualMcu::replug() {
    std::lock_guard<std::mutex> lock(mutex_);
    unplugged_ = false;
    config_.unplugAfter = -1;
    powerOnLocked(steadyNow());
}

void VirtualMcu::setStalled(bool stalled) {
    std::lock_guard<std::mutex> lock(mutex_);
    config_.stalled = stalled;
}

void VirtualMcu::injectShortReads(int count, int length) {
    std::lock_guard<std::mutex> lock(mutex_);
    shortReadsLeft_ = count;
    shortReadLength_ = length;
}

void VirtualMcu::jumpClockBack() {
    std::lock_guard<std::mutex> lock(mutex_);
    jumpPending_ = true;
}

void VirtualMcu::setEeprom(const eepromMemoryStrc& image) {
    std::lock_guard<std::mutex> lock(mutex_);
    config_.eeprom = image;
}

void VirtualMcu::setFrameRate(double hz) {
    std::lock_guard<std::mutex> lock(mutex_);
    config_.frameRate = hz;
}

void VirtualMcu::setClockScale(double scale) {
    std::lock_guard<std::mutex> lock(mutex_);
    refreshLocked();
    const int64_t now = steadyNow();
    tickBase_ = ticksAtLocked(now);
    tickBaseNs_ = now;
    config_.clockScale = scale;
}

VirtualMcu::Counters VirtualMcu::counters() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counters_;
}

eepromMemoryStrc VirtualMcu::eeprom() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return config_.eeprom;
}

bool VirtualMcu::streaming() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return streaming_;
}

bool VirtualMcu::stalled() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return config_.stalled;
}

}  // namespace sim

KOV_SIM_REGISTER(Mcu) {
    sim::registerDeviceType("mcu", [](const sim::Entry& entry, sim::Machine& machine) {
        sim::VirtualMcu::addTo(machine, sim::VirtualMcu::configFrom(entry));
    });
}
