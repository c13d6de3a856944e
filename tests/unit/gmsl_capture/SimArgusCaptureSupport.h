#pragma once

// Shared pieces of the simulated camera service's capture tests: a scenario
// installed with a chosen clock, and the capture chain of one sensor built
// and torn down in the order the camera client uses.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "sim/Simulator.h"
#include "sim/SteppedClock.h"
#include "sim/argus/GmslFrameSync.h"
#include "sim/argus/SimArgus.h"

namespace capturetest {

namespace at = platform::argus_types;

constexpr uint64_t kForever = ~uint64_t(0);
constexpr uint64_t kSecond = 1000000000ULL;

// The default modes of a simulated camera: 1920x1200 at 15, 30 and 60 Hz.
constexpr uint64_t k60HzNs = 16666666;
constexpr uint64_t k30HzNs = 33333333;
constexpr uint64_t k15HzNs = 66666666;

inline std::shared_ptr<sim::Machine> machineFrom(const std::string& devices) {
    return sim::parseScenario("{\"devices\": [" + devices + "]}", "gmsl-capture-test.json");
}

inline std::string stereoCamera(int bus, const std::string& extra = "") {
    return "{\"type\": \"gmsl_camera\", \"bus\": " + std::to_string(bus) +
           ", \"serial\": " + std::to_string(42000000 + bus) + ", \"sub_model\": 4" +
           (extra.empty() ? "" : ", " + extra) + "}";
}

inline std::string monoCamera(int bus, const std::string& extra = "") {
    return "{\"type\": \"gmsl_camera\", \"bus\": " + std::to_string(bus) +
           ", \"serial\": " + std::to_string(43000000 + bus) + ", \"sub_model\": 30" +
           (extra.empty() ? "" : ", " + extra) + "}";
}

// A machine installed for one test with the given clock (a SteppedClock by default).
class Installed {
public:
    explicit Installed(std::shared_ptr<sim::Machine> machine,
                       std::shared_ptr<platform::Clock> clock = nullptr)
        : machine_(std::move(machine)) {
        clock_ = clock ? std::move(clock) : std::make_shared<sim::SteppedClock>();
        machine_->setClock(clock_);
        argus_ = sim::SimArgus::of(*machine_);
        scoped_.emplace(sim::makeBackend(machine_));
    }
    sim::Machine& machine() { return *machine_; }
    sim::SimArgus& service() { return *argus_; }
    platform::Clock& clock() { return *clock_; }
    int64_t now() { return clock_->steadyNanoseconds(); }

private:
    std::shared_ptr<sim::Machine> machine_;
    std::shared_ptr<platform::Clock> clock_;
    std::shared_ptr<sim::SimArgus> argus_;
    std::optional<platform::ScopedBackend> scoped_;
};

// The capture objects of one sensor.
struct Chain {
    at::CameraDevice* device = nullptr;
    at::CaptureSession* session = nullptr;
    at::OutputStream* stream = nullptr;
    at::FrameConsumer* consumer = nullptr;
    at::Request* request = nullptr;
    at::SensorMode* mode = nullptr;
};

inline std::vector<at::CameraDevice*> devicesOf(platform::Argus& argus) {
    std::vector<at::CameraDevice*> devices;
    EXPECT_EQ(argus.getCameraDevices(devices), at::STATUS_OK);
    return devices;
}

// Builds the chain of one sensor up to the stream's consumer and request, as
// the client does (stream settings, stream, consumer, request, enable).
inline Chain buildChain(platform::Argus& argus, at::CameraDevice* device, at::Size2D size,
                        bool metadata = true) {
    Chain c;
    c.device = device;
    at::Status status = at::STATUS_UNIMPLEMENTED;
    c.session = argus.createCaptureSession(device, &status);
    EXPECT_EQ(status, at::STATUS_OK);
    at::OutputStreamSettings* settings = argus.createEglOutputStreamSettings(c.session);
    EXPECT_NE(settings, nullptr);
    EXPECT_EQ(argus.setPixelFormatYCbCr420(settings), at::STATUS_OK);
    EXPECT_EQ(argus.setResolution(settings, size), at::STATUS_OK);
    EXPECT_EQ(argus.setMetadataEnable(settings, metadata), at::STATUS_OK);
    EXPECT_EQ(argus.setMode(settings, at::EglStreamMode::Mailbox), at::STATUS_OK);
    EXPECT_EQ(argus.setCameraDevice(settings, device), at::STATUS_OK);
    c.stream = argus.createOutputStream(c.session, settings, &status);
    EXPECT_EQ(status, at::STATUS_OK);
    argus.destroyOutputStreamSettings(settings);
    c.consumer = argus.createFrameConsumer(c.stream, &status);
    EXPECT_EQ(status, at::STATUS_OK);
    c.request = argus.createPreviewRequest(c.session, &status);
    EXPECT_EQ(status, at::STATUS_OK);
    EXPECT_EQ(argus.enableOutputStream(c.request, c.stream), at::STATUS_OK);
    return c;
}

// Picks the mode of the wanted size, asks for the mode's shortest frame
// duration, and starts the repeat.
inline void startChain(platform::Argus& argus, Chain& c, at::Size2D modeSize) {
    std::vector<at::SensorMode*> modes;
    ASSERT_EQ(argus.getAllSensorModes(c.device, modes), at::STATUS_OK);
    for (at::SensorMode* m : modes) {
        at::Size2D r;
        ASSERT_TRUE(argus.getResolution(m, r));
        if (r.width == modeSize.width && r.height == modeSize.height) {
            c.mode = m;
            break;
        }
    }
    ASSERT_NE(c.mode, nullptr);
    at::Range<uint64_t> durations;
    ASSERT_TRUE(argus.getFrameDurationRange(c.mode, durations));
    ASSERT_EQ(argus.setFrameDurationRange(c.request, {durations.min, durations.min}), at::STATUS_OK);
    ASSERT_EQ(argus.setSensorMode(c.request, c.mode), at::STATUS_OK);
    ASSERT_EQ(argus.setSourceClipRect(c.request, c.stream, {0, 0, 1, 1}), at::STATUS_OK);
    ASSERT_EQ(argus.repeat(c.session, c.request), at::STATUS_OK);
}

// A new frame duration, applied as the client applies settings: stop and repeat.
inline void changeRate(platform::Argus& argus, Chain& c, uint64_t durationNs) {
    ASSERT_EQ(argus.setFrameDurationRange(c.request, {durationNs, durationNs}), at::STATUS_OK);
    argus.stopRepeat(c.session);
    ASSERT_EQ(argus.repeat(c.session, c.request), at::STATUS_OK);
}

// Opens every device of the list (one session each) at 1920x1200.
inline std::vector<Chain> openSensors(platform::Argus& argus, const std::vector<at::CameraDevice*>& devices,
                                      at::Size2D size = {1920, 1200}) {
    std::vector<Chain> chains;
    for (at::CameraDevice* d : devices)
        chains.push_back(buildChain(argus, d, size));
    for (Chain& c : chains)
        startChain(argus, c, {1920, 1200});
    return chains;
}

// Tears down as the client's close does.
inline void closeSensors(platform::Argus& argus, std::vector<Chain>& chains) {
    for (Chain& c : chains) {
        argus.stopRepeat(c.session);
        EXPECT_EQ(argus.waitForIdle(c.session, kForever), at::STATUS_OK);
    }
    for (Chain& c : chains)
        argus.disconnect(c.stream);
    for (Chain& c : chains)
        argus.destroyRequest(c.request);
    for (Chain& c : chains)
        argus.destroyOutputStream(c.stream);
    for (Chain& c : chains)
        argus.destroyFrameConsumer(c.consumer);
    for (Chain& c : chains)
        argus.destroyCaptureSession(c.session);
    chains.clear();
}

// One acquired frame's timestamp (released at once); 0 when none came.
struct Acquired {
    at::Status status = at::STATUS_UNIMPLEMENTED;
    uint64_t timestampNs = 0;
};

inline Acquired acquireOne(platform::Argus& argus, at::FrameConsumer* consumer,
                           uint64_t timeoutNs = kSecond) {
    Acquired a;
    at::Frame* frame = argus.acquireFrame(consumer, timeoutNs, &a.status);
    if (frame == nullptr)
        return a;
    EXPECT_TRUE(argus.getSensorTimestamp(frame, a.timestampNs));
    argus.releaseFrame(frame);
    return a;
}

}  // namespace capturetest
