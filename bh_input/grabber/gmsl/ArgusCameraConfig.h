#pragma once

// What ArgusCamera::open is asked for. The camera copies it whole and reuses
// it when it reopens itself after a freeze.

#include <cstdint>
#include <vector>

struct ArgusCameraConfig {
    // Index of the first sensor in the filtered device list, and of the
    // second one (stereo only).
    uint32_t first_sensor = 0;
    uint32_t second_sensor = 1;
    // Left, top, right, bottom, relative to the sensor image.
    std::vector<float> clip_rectangle = {0.f, 0.f, 1.f, 1.f};
    // Width and height of one sensor's EGL stream, and of the sensor mode.
    std::vector<uint32_t> stream_size = {0, 0};
    std::vector<uint32_t> mode_size = {0, 0};
    // Nanoseconds; the first entry is the wanted frame duration.
    std::vector<uint64_t> frame_durations;
    // Greatest distance of a left and a right timestamp that still pairs, us.
    int32_t sync_threshold = 10;
    bool start_consumer = true;
    // 0 silent; 1 errors and steps; 2 debug; 3 per frame; 4 more.
    int32_t verbosity = 0;
    bool mono = false;

    // Mode width x 1.5 x mode height: the size of one YCbCr 4:2:0 image.
    uint64_t getOutputSizeBytes() const {
        if (mode_size.size() < 2)
            return 0;
        return static_cast<uint64_t>(static_cast<double>(mode_size[0]) * 1.5 *
                                     static_cast<double>(mode_size[1]));
    }
};
