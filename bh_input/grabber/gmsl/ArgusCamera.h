#pragma once

// ArgusCamera: one GMSL camera read through NVIDIA Argus. This header holds
// what the class shares across a process:
//
//  - the link to the GMSL daemon kov_q_daemon (ArgusCameraLink.cpp): two
//    loopback ZeroMQ sockets made by the first camera of the process and torn
//    down with the last, a text protocol "KOVQ#<port>#<device>#<verb>[#n]",
//    and the check that a container runs the host's L4T version;
//  - the discovery of GMSL cameras (ArgusDiscovery.cpp): the camera EEPROMs
//    on the Jetson's I2C buses joined with the sensors Argus lists.
//
// The capture session itself (open, the frame path, controls) builds on it.
// All hardware goes through platform::sys() (I2C) and platform::argus().

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <zmq.hpp>

#include "bh_input/grabber/defines.h"
#include "platform/Argus.h"

namespace bh {

// The I2C buses tried for camera EEPROMs, in this order. Buses 0..8 stand
// for carrier boards with another numbering: they are tried only when the
// higher numbers gave nothing.
extern const std::vector<int> gmsl_i2c_bus_index;
// The I2C addresses of the camera EEPROM, in this order.
extern const std::vector<int> eeprom_adress_list;

// The identification block of a camera EEPROM: version byte 0x11 and a known
// sub-model byte.
bool isGMSLCameraIdentification(uint8_t version, uint8_t subModel);
// 1 .. 999999999.
bool isValidGMSLSerial(uint32_t serial);
// The model of a sub-model byte as the full discovery lists it (32: unknown).
MODEL gmslModelOfSubModel(int subModel);
// The device code of a sub-model byte as the fast discovery lists it (17: unknown).
BH_DEVICE gmslDeviceOfSubModelExt(int subModel);

// Keep the Argus devices of stereo cameras (resp. the single-sensor family)
// and list the I2C buses whose EEPROM identifies a camera.
std::shared_ptr<std::vector<platform::argus_types::CameraDevice*>> filterGMSLDeviceWithKOV(
    std::shared_ptr<std::vector<platform::argus_types::CameraDevice*>> all, std::vector<int>& busesOut);
std::shared_ptr<std::vector<platform::argus_types::CameraDevice*>> filterGMSLDeviceWithKOVQS(
    std::shared_ptr<std::vector<platform::argus_types::CameraDevice*>> all, std::vector<int>& busesOut);

}  // namespace bh

class ArgusCamera {
public:
    // The first camera of the process makes the daemon link (a failure is a
    // warning, never an error); the first one also checks the L4T version of
    // a container once per process.
    ArgusCamera();
    virtual ~ArgusCamera();
    ArgusCamera(const ArgusCamera&) = delete;
    ArgusCamera& operator=(const ArgusCamera&) = delete;

    // ---- daemon link
    // Makes both sockets from the ports of the daemon's systemd unit; false
    // on any failure (nothing is thrown).
    bool connectToKOVQDaemon();
    // True outside a container, or when the host's L4T version (asked of the
    // daemon) is found in this machine's.
    static bool checkL4TVersionMatchInContainer();
    // The local L4T version from the text of /etc/nv_tegra_release:
    // "# R35 (release), REVISION: 3.1, GCID: ..." gives "35.3.1".
    static std::string reduceL4TRelease(const std::string& releaseText);
    // Releases this camera's share of the link; the last one tears it down.
    // Called by the session's close; safe to call more than once.
    void releaseLink();

    // "KOVQ#<port>#<device>#<verb>", and "KOVQ#<port>#<device>#RUN#<count>".
    static std::string statusMessage(int port, int device, const std::string& verb);
    static std::string runMessage(int port, int device, uint64_t count);
    // Whether the consumed frame `counter` carries a RUN message: a multiple
    // of the frame rate (about once a second, and the very first frame); a
    // rate of 0 or less sends it for frame 0 only.
    static bool shouldSendRun(uint64_t counter, int fps);
    // Sends this camera's status (OPENING, FROZEN, CLOSING) or its RUN message
    // on the link, without waiting; nothing when there is no link.
    void sendStatus(const std::string& verb);
    void sendRun(uint64_t count);
    // Sends one text on the link's sending socket without waiting (EAGAIN
    // ignored); false when there is no link.
    static bool sendOnLink(const std::string& text);

    // A port of the daemon's unit file ("Service:Port", "Service:PortSub"),
    // or `fallback` when the file or the key cannot be read; *parsed tells
    // whether the file itself was read and parsed.
    static int readServicePort(const std::string& sectionKey, int fallback, bool* parsed = nullptr);

    void setPortIndex(int index) { port_index = index; }
    void setDeviceCode(int code) { device_code = code; }
    int getPortIndex() const { return port_index; }
    int getDeviceCode() const { return device_code; }

    // ---- discovery
    static std::vector<DeviceProperties> getGMSLDevices(bool verbose, bool second = false);
    static std::vector<std::pair<bh::BH_DEVICE, std::string>> getGMSLDevicesExt(bool verbose);
    // The device code of a sub-model byte (table lookup; 17 outside it).
    static bh::BH_DEVICE getCameraSubModelDevice(int subModel);

    // ---- process-wide link state
    static std::unique_ptr<zmq::context_t> zmq_context_pub;
    static std::unique_ptr<zmq::context_t> zmq_context_sub;
    static std::unique_ptr<zmq::socket_t> zmq_socket_pub;
    static std::unique_ptr<zmq::socket_t> zmq_socket_sub;
    static int32_t zmq_type_pub;
    static int32_t zmq_type_sub;
    static int32_t argus_camera_count;
    static bool warning_displayed;

protected:
    int32_t port_pub = 20206;
    int32_t port_sub = 20207;
    int32_t port_index = 0;
    int32_t device_code = 17;
    bool holds_link = false;
};
