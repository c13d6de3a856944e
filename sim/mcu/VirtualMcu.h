#pragma once

// The simulated sensors MCU of a USB camera: a HID device beside the video
// device that answers as its firmware does, in both protocol generations
// (feature reports above firmware 0x300, output/input reports at or below),
// with its EEPROM image as state, a sample stream at the rate of its rate
// record (legacy: 800 Hz) carrying frame triggers at a camera rate, and
// environment and magnetometer samples at their own rates.
//
// Time comes from platform::clock(): with sim::SteppedClock installed the
// stream runs in simulated time (a read that waits for the next sample moves
// the clock to it); with the real clock it paces in real time.
//
// Scenario entry (type "mcu"), every key optional:
//   "model": "pico" | "tera" | "tera_r"   product id 0xF681 / 0xF781 / 0xF881 (default "pico")
//   "vendor_id", "product_id", "firmware" (bcdDevice, default 0x305)
//   "serial": number (EEPROM serial record; default 12345678)
//   "serial_string": USB serial string override ("" = the device has none)
//   "bus", "address" (default: next free on the bus), "interface" (default 0)
//   "imu_odr": 0..3 (rate record, default 2), "frame_rate" (Hz, 0 = no trigger, default 30)
//   "env_rate", "mag_rate" (Hz; default 25 and 50 on tera/tera_r, 0 on pico)
//   "clock_scale" (MCU ticks per true tick, default 1.0), "start_ticks"
//   "retrim_ms" (duration of a retrimming, default 2000), "retrim_result" (3 or 4)
//   "eeprom": 697 bytes (hex string or byte array) replacing the whole image
//   "motion": {                        a steady motion instead of the built-in small rates
//     "rate_dps": [x, y, z]            constant rotation rate, deg/s per sensor axis (|v| <= 1000)
//     "gravity": [x, y, z]             direction of gravity at power-on (default [0, 0, 1])
//   }
//   "faults": {
//     "stalled": bool                  IN endpoint halted until a USB clear-halt of 0x81
//     "short_reads": {"after": samples, "count": n, "length": bytes}
//     "clock_jump_back_after": samples the tick counter restarts at 0
//     "ignore_first_requests": n       legacy: the first n output reports are dropped
//     "reset_dropout_ms": ms           absence after a reset request (default 300)
//     "unplug_after": samples          device gone (reads fail with -1)
//     "claim_busy": bool               USB claim of interface 0 fails (BUSY)
//     "readdress_on_usb_reset": n      the first n USB resets re-enumerate at a new address
//     "reset_write_fails": bool        the reset report's write fails (-1) and nothing happens
//     "legacy_stream_at_boot": bool    legacy firmware streams from power-on (default true)
//   }

#include <cmath>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bh_input/mcu/IMU/VirtualIMUReader.h"
#include "bh_input/mcu/IMU/eepromMemory.h"
#include "sim/Models.h"

namespace sim {

class Machine;
class Entry;

// A steady motion of the sensors: a constant rotation rate in degrees per
// second about each axis of the MCU's sensors, and the direction of gravity in
// those axes when the motion starts (any length but zero; it is normalised).
// While the sensors turn, gravity turns with them as a turning body sees it.
struct McuMotion {
    double rateDps[3] = {0.0, 0.0, 0.0};
    double gravity[3] = {0.0, 0.0, 1.0};
};

struct McuConfig {
    uint16_t vendorId = 0x2B03;
    uint16_t productId = 0xF681;
    uint16_t firmware = 0x305;
    bool hasSerialOverride = false;
    std::wstring serialOverride;  // used instead of the EEPROM serial when set ("" = none)
    uint8_t bus = 1;
    uint8_t address = 0;  // 0: next free
    int interfaceNumber = 0;
    double frameRate = 30.0;
    double envRate = 0.0;
    double magRate = 0.0;
    double clockScale = 1.0;
    uint64_t startTicks = 0;
    int64_t retrimMs = 2000;
    int retrimResult = 3;
    eepromMemoryStrc eeprom{};  // filled by defaultEeprom() unless given
    bool hasMotion = false;     // false: small built-in rates, gravity on +z
    McuMotion motion;           // from power-on, when hasMotion

    // Faults.
    bool stalled = false;
    int64_t shortReadsAfter = -1;
    int shortReadsCount = 0;
    int shortReadLength = 20;
    int64_t clockJumpBackAfter = -1;
    int ignoreFirstRequests = 0;
    int64_t resetDropoutMs = 300;
    int64_t unplugAfter = -1;
    bool claimBusy = false;
    int readdressOnUsbReset = 0;
    bool resetWriteFails = false;
    bool legacyStreamAtBoot = true;

    // A plausible factory image for a serial number and rate.
    static eepromMemoryStrc defaultEeprom(uint32_t serial, int odr);
};

class VirtualMcu final : public HidDeviceModel, public std::enable_shared_from_this<VirtualMcu> {
public:
    VirtualMcu(McuConfig config, UsbBus* bus);

    // Adds the MCU to a machine: a USB device on its bus and the HID device.
    static std::shared_ptr<VirtualMcu> addTo(Machine& machine, McuConfig config);
    // Reads a scenario entry of type "mcu" into a configuration.
    static McuConfig configFrom(const Entry& entry);

    // HidDeviceModel.
    HidIdentity identity() const override;
    bool present() const override;
    bool open() override;
    void close() override;
    int read(unsigned char* data, size_t length, int timeoutMs) override;
    int write(const unsigned char* data, size_t length) override;
    int sendFeatureReport(const unsigned char* data, size_t length) override;
    int getFeatureReport(unsigned char* data, size_t length) override;

    // USB side (through the UsbDeviceModel of its UsbDevice).
    int usbOpen();
    int usbClaim(int interfaceNumber);
    int usbClearHalt(unsigned char endpoint);
    int usbReset();

    // Test controls.
    void unplug();
    void replug();
    void setStalled(bool stalled);
    void injectShortReads(int count, int length);
    void jumpClockBack();  // the tick counter restarts at 0 with the next sample
    void setEeprom(const eepromMemoryStrc& image);
    void setFrameRate(double hz);
    void setClockScale(double scale);
    // From now on the sensors follow `motion` (gravity as given, at this instant).
    void setMotion(const McuMotion& motion);
    // Changes the rotation rate only; gravity goes on from where the turn so
    // far has brought it. Starts a steady motion if none was set.
    void setRotationRate(double xDps, double yDps, double zDps);

    // Observers.
    struct Counters {
        int opens = 0, closes = 0;
        int pings = 0, mcuResets = 0, ov580Resets = 0, dfuRequests = 0, retrimStarts = 0;
        int usbClaims = 0, usbClearHalts = 0, usbResets = 0;
        int legacyRequests = 0, ignoredRequests = 0;
        int64_t samplesSent = 0;
        int featureWrites = 0, featureReads = 0;
    };
    Counters counters() const;
    eepromMemoryStrc eeprom() const;
    bool streaming() const;
    bool stalled() const;
    int rateHz() const;
    const McuConfig& config() const { return config_; }
    std::shared_ptr<UsbDevice> usbDevice() const { return usbDevice_; }

private:
    bool legacy() const { return config_.firmware <= 0x300; }
    void refreshLocked() const;
    void powerOnLocked(int64_t nowNs);
    void buildSampleLocked(int64_t tNs, McuSensorReport& rep);
    void gravityAtLocked(int64_t tNs, double out[3]) const;
    uint64_t ticksAtLocked(int64_t tNs) const;
    bool recordOfLocked(uint8_t featureId, uint8_t*& rec, size_t& len);
    void legacyCommandLocked(const unsigned char* data, size_t length);
    void queueLegacyRecordLocked(uint8_t legacyId, const void* record, size_t len);
    std::wstring serialStringLocked() const;

    McuConfig config_;
    UsbBus* bus_;
    std::shared_ptr<UsbDevice> usbDevice_;
    mutable std::mutex mutex_;

    // Power and presence.
    bool booted_ = false;
    bool unplugged_ = false;
    bool inDfu_ = false;
    mutable int64_t absentUntilNs_ = 0;
    mutable bool rebootPending_ = false;
    int readdressLeft_ = 0;

    // Streaming.
    bool streaming_ = false;
    int64_t streamStartNs_ = 0;
    int64_t nextIndex_ = 0;  // index of the next sample since the stream started
    int64_t tickBaseNs_ = 0;
    uint64_t tickBase_ = 0;
    bool jumpPending_ = false;
    int64_t lastFrame_ = -1;
    uint32_t frameCount_ = 0;
    // A sensor slower than the stream: its flag is 2 on the first report of a
    // new period, 1 while the last value stands, 0 before the first one.
    struct SlowSensor {
        int64_t period = -1;
        bool seen = false;
        uint8_t tick(int64_t tNs, double rateHz) {
            const int64_t now = static_cast<int64_t>(std::floor(static_cast<double>(tNs) * rateHz / 1e9));
            if (now != period) {
                period = now;
                seen = true;
                return 2;
            }
            return seen ? 1 : 0;
        }
    };
    SlowSensor env_;
    SlowSensor mag_;
    int shortReadsLeft_ = 0;
    int shortReadLength_ = 20;
    std::deque<std::vector<uint8_t>> input_;  // legacy answers waiting on the interrupt stream

    // Retrimming.
    int64_t retrimEndNs_ = -1;

    // Steady motion: config_.motion holds from motionBaseNs_ on.
    int64_t motionBaseNs_ = 0;

    Counters counters_;
};

}  // namespace sim
