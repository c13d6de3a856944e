#pragma once

// An ArgusCamera whose inner state a test may set and read: it is put in the
// state that open leaves (requests, streams and consumers of a ScriptedArgus,
// sizes, limits) without running open, so that the frame path and the image
// controls can be driven one call at a time.

#include <cstdlib>
#include <cstring>
#include <thread>

#include "bh_input/grabber/gmsl/ArgusCamera.h"
#include "tests/unit/gmsl_session/ScriptedArgus.h"

namespace testsupport {

class ArgusCameraProbe : public ArgusCamera {
public:
    using ArgusCamera::handleMissingFrame;
    using ArgusCamera::monotonicToSystemOffsetUs;

    // As after a successful open of a stereo (or mono) camera of w x h
    // sensors at `rate` frames per second.
    void attach(ScriptedArgus& argus, bool mono, int w, int h, int rate, int threshold) {
        component->argus = &argus;
        const int sides = mono ? 1 : 2;
        for (int s = 0; s < sides; ++s) {
            component->session[s] = argus.session(s);
            component->stream[s] = argus.stream(s);
            component->consumer[s] = argus.consumer(s);
            component->request[s] = argus.request(s);
        }
        component->stream_size = {static_cast<uint32_t>(w), static_cast<uint32_t>(h)};
        run.mono = mono;
        run.sync_threshold = threshold;
        run.start_consumer = true;
        config.mono = mono;
        config.sync_threshold = threshold;
        width = w;
        height = h;
        fps = rate;
        channels = mono ? 2 : 4;
        for (unsigned char*& b : image_buffer)
            b = static_cast<unsigned char*>(std::calloc(static_cast<size_t>(w) * h * channels, 1));
        ptr = image_buffer[0];
        opened = true;
        stop_capture = false;
    }
    // Detaches from the scripted Argus before the camera is destroyed.
    ~ArgusCameraProbe() override {
        stop_capture = true;
        abortCapture();
        opened = false;
        component->argus = nullptr;
        clearBuffers();
        clearImageQueues();
    }

    void setLimits(int side, platform::argus_types::Range<uint64_t> exposureUs,
                   platform::argus_types::Range<float> analog, platform::argus_types::Range<float> digital) {
        std::lock_guard<std::mutex> lock(settings_mutex);
        ArgusSideSettings& s = side_settings[side];
        s.exposure_limits_us = s.exposure_range_us = exposureUs;
        s.analog_gain_limits = s.analog_gain_range = analog;
        s.digital_gain_limits = s.digital_gain_range = digital;
    }
    void setFrameValues(int side, uint64_t exposureUs, float analog, float digital) {
        std::lock_guard<std::mutex> lock(settings_mutex);
        side_settings[side].frame_exposure_us = exposureUs;
        side_settings[side].frame_analog_gain = analog;
        side_settings[side].frame_digital_gain = digital;
    }

    // An image of the queue of that name, filled with `fill`.
    void push(bool left, uint64_t timestampUs, unsigned char fill) {
        argusMonoImage image;
        image.timestamp = timestampUs;
        image.pitch = width * 2;
        image.exposure = 1000;
        image.analog_gain = 1.5f;
        image.digital_gain = 1.f;
        image.data = static_cast<unsigned char*>(std::malloc(static_cast<size_t>(width) * height * 2));
        std::memset(image.data, fill, static_cast<size_t>(width) * height * 2);
        std::lock_guard<std::mutex> lock(left ? left_mutex : right_mutex);
        (left ? left_queue : right_queue).push_back(image);
    }
    std::vector<uint64_t> timestamps(bool left) {
        std::lock_guard<std::mutex> lock(left ? left_mutex : right_mutex);
        std::vector<uint64_t> out;
        for (const argusMonoImage& image : left ? left_queue : right_queue)
            out.push_back(image.timestamp);
        return out;
    }

    void setSwap(bool swap) { swap_sides = swap; }
    void setStatusField(int value) { status = value; }
    void setStop(bool stop) { stop_capture = stop; }
    bool stopped() const { return stop_capture; }
    bool rebootWanted() const { return reboot_wanted; }
    void setRebootWanted(bool wanted) { reboot_wanted = wanted; }
    bool firstFrameSeen() const { return first_frame_seen; }
    void setPort(int port) { port_index = port; }

    std::thread startProducer(int side) { return std::thread(&ArgusCamera::produceSingle, this, side); }
    std::thread startConsumer() { return std::thread(&ArgusCamera::consume, this); }
};

}  // namespace testsupport
