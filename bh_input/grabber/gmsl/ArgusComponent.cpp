#include "bh_input/grabber/gmsl/ArgusComponent.h"

namespace at = platform::argus_types;

ArgusComponent::~ArgusComponent() {
    release();
}

void ArgusComponent::stop(bool stopSessions) {
    if (argus == nullptr)
        return;
    if (stopSessions) {
        for (at::CaptureSession* s : session) {
            if (s != nullptr) {
                argus->stopRepeat(s);
                argus->waitForIdle(s, UINT64_MAX);  // no time-out
            }
        }
    }
    for (at::OutputStream* s : stream)
        if (s != nullptr)
            argus->disconnect(s);
}

void ArgusComponent::release() {
    if (argus != nullptr) {
        for (at::Request*& r : request) {
            if (r != nullptr)
                argus->destroyRequest(r);
            r = nullptr;
        }
        for (at::OutputStream*& s : stream) {
            if (s != nullptr)
                argus->destroyOutputStream(s);
            s = nullptr;
        }
        for (at::FrameConsumer*& c : consumer) {
            if (c != nullptr)
                argus->destroyFrameConsumer(c);
            c = nullptr;
        }
        for (at::CaptureSession*& s : session) {
            if (s != nullptr)
                argus->destroyCaptureSession(s);
            s = nullptr;
        }
    }
    device[0] = device[1] = nullptr;
    mode[0] = mode[1] = nullptr;
    single_device.clear();
    devices.reset();
}

void ArgusComponent::close(bool stopSessions) {
    stop(stopSessions);
    release();
}
