#pragma once

// A simulated machine: what a scenario describes, and what the simulated
// seams (platform::Sys, Usb, Hid, Argus) answer from. Device factories
// (Registry.h) add their models here while the scenario is loaded.

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <typeindex>
#include <vector>

#include "platform/Argus.h"
#include "platform/Clock.h"
#include "sim/Models.h"

namespace sim {

class Machine {
public:
    explicit Machine(std::string scenarioFile = {}) : scenarioFile_(std::move(scenarioFile)) {}

    const std::string& scenarioFile() const { return scenarioFile_; }
    const std::string& name() const { return name_; }
    void setName(std::string name) { name_ = std::move(name); }

    UsbBus& usb() { return usb_; }

    // Machine-wide failures of the USB library (libusb error codes, 0 = none).
    struct UsbFaults {
        int initError = 0;  // libusb_init fails with it
        int listError = 0;  // libusb_get_device_list fails with it
    };
    UsbFaults& usbFaults() { return usbFaults_; }

    // Files reached through platform::Sys. Paths are absolute ("/dev/video0").
    void addFile(const std::string& path, std::shared_ptr<DeviceFile> file);
    void addTextFile(const std::string& path, const std::string& text);
    std::shared_ptr<DeviceFile> file(const std::string& path) const;
    // The directory entries under a directory path (for stat of directories).
    bool isDirectory(const std::string& path) const;

    // A video node and its sysfs files (/sys/class/video4linux/videoN/...).
    std::shared_ptr<VideoNode> addVideoNode(std::shared_ptr<VideoNode> node);
    std::shared_ptr<VideoNode> videoNode(int number) const;

    // An I2C bus (/dev/i2c-N), created on first use.
    std::shared_ptr<I2cBus> i2cBus(int number);

    void addHidDevice(std::shared_ptr<HidDeviceModel> device);
    std::vector<std::shared_ptr<HidDeviceModel>> hidDevices() const;

    // The Argus of this machine (null: the default one, without provider).
    void setArgus(std::shared_ptr<platform::Argus> argus) { argus_ = std::move(argus); }
    std::shared_ptr<platform::Argus> argus() const { return argus_; }

    // The clock of this machine (null: the real clock).
    void setClock(std::shared_ptr<platform::Clock> clock) { clock_ = std::move(clock); }
    std::shared_ptr<platform::Clock> clock() const { return clock_; }

    // Shared state between entries of one scenario, one object per type and
    // key: for example the simulated Argus provider that every GMSL camera
    // entry adds its sensors to.
    template <typename T>
    std::shared_ptr<T> shared(const std::string& key, const std::function<std::shared_ptr<T>()>& make) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto& slot = shared_[{std::type_index(typeid(T)), key}];
        if (!slot)
            slot = make();
        return std::static_pointer_cast<T>(slot);
    }

private:
    std::string scenarioFile_;
    std::string name_;
    UsbBus usb_;
    UsbFaults usbFaults_;
    mutable std::mutex mutex_;
    std::map<std::string, std::shared_ptr<DeviceFile>> files_;
    std::map<int, std::shared_ptr<VideoNode>> videoNodes_;
    std::map<int, std::shared_ptr<I2cBus>> i2cBuses_;
    std::vector<std::shared_ptr<HidDeviceModel>> hid_;
    std::shared_ptr<platform::Argus> argus_;
    std::shared_ptr<platform::Clock> clock_;
    std::map<std::pair<std::type_index, std::string>, std::shared_ptr<void>> shared_;
};

}  // namespace sim
