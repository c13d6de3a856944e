#pragma once

// The Argus objects of one camera session: per sensor a capture session, an
// EGL output stream with its frame consumer, a capture request and the
// chosen sensor mode, and the filtered device list they were made from.
// Owned by ArgusCamera; released in a fixed order.

#include <memory>
#include <vector>

#include "platform/Argus.h"

class ArgusComponent {
public:
    ArgusComponent() = default;
    ~ArgusComponent();
    ArgusComponent(const ArgusComponent&) = delete;
    ArgusComponent& operator=(const ArgusComponent&) = delete;

    // Stops the repeating captures (when stopSessions) and waits for the
    // sessions to go idle, then disconnects both streams: a thread blocked in
    // acquireFrame on them returns.
    void stop(bool stopSessions);
    // Destroys the requests, streams, consumers and sessions, in that order,
    // each pair first then second, and drops the device lists. Call once no
    // thread uses them any more.
    void release();
    // stop() then release().
    void close(bool stopSessions);

    // The Argus the objects were made on (the provider's); null when none.
    platform::Argus* argus = nullptr;

    platform::argus_types::CaptureSession* session[2] = {nullptr, nullptr};
    platform::argus_types::OutputStream* stream[2] = {nullptr, nullptr};
    platform::argus_types::FrameConsumer* consumer[2] = {nullptr, nullptr};
    platform::argus_types::Request* request[2] = {nullptr, nullptr};
    platform::argus_types::CameraDevice* device[2] = {nullptr, nullptr};
    platform::argus_types::SensorMode* mode[2] = {nullptr, nullptr};
    // The list the filters returned, and the one-device vector of the mono
    // session.
    std::shared_ptr<std::vector<platform::argus_types::CameraDevice*>> devices;
    std::vector<platform::argus_types::CameraDevice*> single_device;
    // The size of one sensor's stream (even width and height).
    platform::argus_types::Size2D stream_size;
};
