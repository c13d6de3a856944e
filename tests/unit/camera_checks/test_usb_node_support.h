#pragma once

// Shared pieces of the "Devices" node tests: a machine installed for one test
// (shipped scenario, scenario text or hand-built USB devices), a stand-in dpkg
// on PATH, the Jetson release file in the test's KOV_SYSROOT, the shared
// verdicts of the camera test cleared around each test, and a clock that
// records the node's pauses instead of sleeping.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "bh_input/grabber/DeviceList.h"
#include "diagnostic/DiagnosticRunner.h"
#include "diagnostic/USBNode.h"
#include "platform/Clock.h"
#include "platform/Platform.h"
#include "sim/SimBackend.h"
#include "sim/Simulator.h"
#include "tests/unit/gmsl_discovery/DiscoveryTestSupport.h"

namespace usbnodetest {

// A USB device with this identity, port path and bcdUSB; tests change the rest.
inline sim::UsbDevice handDevice(uint16_t vendor, uint16_t product, uint8_t bus, std::vector<uint8_t> ports,
                                 uint16_t bcdUSB) {
    sim::UsbDevice d;
    d.descriptor.vendorId = vendor;
    d.descriptor.productId = product;
    d.descriptor.bcdUSB = bcdUSB;
    d.bus = bus;
    d.ports = std::move(ports);
    d.speed = bcdUSB >= 0x0300 ? 4 : 3;  // libusb: 3 high, 4 super
    return d;
}

// Records every sleep with the node's progress at that moment; never sleeps.
class RecordingClock : public platform::Clock {
public:
    explicit RecordingClock(const DiagnosticNode& node) : node_(node) {}
    struct Pause {
        float percent;
        std::chrono::nanoseconds duration;
        size_t messages;
    };
    int64_t steadyNanoseconds() override {
        return std::chrono::steady_clock::now().time_since_epoch().count() + slept().count();
    }
    int64_t systemNanoseconds() override {
        return std::chrono::system_clock::now().time_since_epoch().count() + slept().count();
    }
    void sleepFor(std::chrono::nanoseconds duration) override {
        std::lock_guard<std::mutex> lock(mutex_);
        pauses_.push_back({node_.getPercent(), duration, node_.messages.size()});
        slept_ += duration;
    }
    std::chrono::nanoseconds slept() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return slept_;
    }
    std::vector<Pause> pauses() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return pauses_;
    }

private:
    const DiagnosticNode& node_;
    mutable std::mutex mutex_;
    std::vector<Pause> pauses_;
    std::chrono::nanoseconds slept_{0};
};

// Clears the five shared verdicts, as the runner does when a run starts.
inline void clearCameraTestVerdicts() {
    camera_test_reported_that_USB_should_not_be_tested = false;
    camera_test_thrown_firmware_error = false;
    camera_test_thrown_multiple_camera_error = false;
    camera_test_bandwidth_message.clear();
    camera_test_bandwidth_message_level = 0;
}

inline void writeFile(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
}

// The release line of an L4T 35.4.1 Jetson, as its /etc/nv_tegra_release holds it.
inline const char* releaseR35_4_1() {
    return "# R35 (release), REVISION: 4.1, GCID: 33958178, BOARD: t186ref, EABI: aarch64, DATE: Tue Aug  1 "
           "19:57:35 UTC 2023\n";
}

class UsbNodeTest : public testsupport::DiscoveryTest {
protected:
    void SetUp() override {
        testsupport::DiscoveryTest::SetUp();
        clearCameraTestVerdicts();
        bh::setGMSLDeviceLister(nullptr);
        bin_ = testsupport::sysroot() + "/test-bin";
        std::filesystem::create_directories(bin_);
        const char* path = std::getenv("PATH");
        oldPath_ = path != nullptr ? path : "/usr/bin:/bin";
        setenv("PATH", (bin_ + ":" + oldPath_).c_str(), 1);
        setDpkgList("");
        std::filesystem::remove(bin_ + "/grep");
        removeRelease();
    }
    void TearDown() override {
        setenv("PATH", oldPath_.c_str(), 1);
        clearCameraTestVerdicts();
        bh::setGMSLDeviceLister(nullptr);
        installed_.reset();
        testsupport::DiscoveryTest::TearDown();
    }

    // What `dpkg -l` prints (the node greps it for the maker's packages).
    void setDpkgList(const std::string& listing) {
        writeFile(bin_ + "/dpkg-list.txt", listing);
        writeFile(bin_ + "/dpkg",
                  "#!/bin/sh\n[ \"$1\" = \"-l\" ] || exit 2\ncat '" + bin_ + "/dpkg-list.txt'\n");
        ::chmod((bin_ + "/dpkg").c_str(), 0755);
    }
    // The pipeline's output exactly: dpkg prints `text` and a stand-in grep
    // lets everything through (a real grep only ever gives whole lines).
    void setPipelineOutput(const std::string& text) {
        setDpkgList(text);
        writeFile(bin_ + "/grep", "#!/bin/sh\ncat\n");
        ::chmod((bin_ + "/grep").c_str(), 0755);
    }
    void setRelease(const std::string& content) {
        writeFile(testsupport::sysroot() + "/etc/nv_tegra_release", content);
    }
    void removeRelease() {
        std::error_code ignored;
        std::filesystem::remove(testsupport::sysroot() + "/etc/nv_tegra_release", ignored);
    }
    // An L4T 35.4.1 Jetson with a GMSL driver built for it: the driver check
    // then adds no message.
    void installMatchingDriver() {
        setRelease(releaseR35_4_1());
        setDpkgList("ii  brennhaven-kovq-gmsl-35.4.1  1.2.0-1  arm64  GMSL camera driver for the KOV-Q\n");
    }

    void install(std::shared_ptr<sim::Machine> machine) {
        installed_.reset();
        machine_ = machine;
        installed_.emplace(std::move(machine));
    }
    void installShipped(const std::string& name) {
        install(sim::loadScenario(testsupport::scenarioPath(name)));
    }
    void installDevices(const std::string& devicesJson) {
        install(sim::parseScenario("{\"devices\": [" + devicesJson + "]}", "usb-node-test.json"));
    }
    void installHand(std::vector<sim::UsbDevice> devices) {
        auto machine = std::make_shared<sim::Machine>("usb-node-hand.json");
        for (sim::UsbDevice& d : devices)
            machine->usb().add(std::move(d));
        install(std::move(machine));
    }
    sim::Machine& machine() { return *machine_; }
    size_t liveUsbObjects() const { return dynamic_cast<sim::SimUsb&>(platform::usb()).liveObjects(); }

    // The whole node with its pauses recorded instead of slept.
    QJsonObject runNode(USBNode& node) {
        platform::Backend backend = platform::current();
        clock_ = std::make_shared<RecordingClock>(node);
        backend.clock = clock_;
        platform::ScopedBackend scoped(backend);
        QJsonObject root;
        testing::internal::CaptureStderr();
        node.runDiagnostic(root);
        stderrText = testing::internal::GetCapturedStderr();
        return root;
    }
    QJsonObject runNode() { return runNode(node); }

    static std::vector<std::string> texts(const QJsonObject& o, const char* key) {
        std::vector<std::string> out;
        for (const QJsonValue& v : o.value(key).toArray())
            out.push_back(v.toString().toStdString());
        return out;
    }
    static std::string dump(const QJsonObject& o) {
        return QJsonDocument(o).toJson(QJsonDocument::Indented).toStdString();
    }
    // The "USBList" object whose "idProduct" is this text, or an empty object.
    static QJsonObject usbEntry(const QJsonObject& root, const QString& vendor, const QString& product) {
        for (const QJsonValue& v : root.value("USBList").toArray()) {
            const QJsonObject o = v.toObject();
            if (o.value("idVendor").toString() == vendor && o.value("idProduct").toString() == product)
                return o;
        }
        return {};
    }

    USBNode node;
    std::shared_ptr<RecordingClock> clock_;
    std::string stderrText;

private:
    std::shared_ptr<sim::Machine> machine_;
    std::optional<testsupport::Installed> installed_;
    std::string bin_;
    std::string oldPath_;
};

}  // namespace usbnodetest
