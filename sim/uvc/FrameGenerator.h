#pragma once

// The scene a simulated stereo camera films: a side-by-side YUYV image whose
// texture drifts sideways by one pixel pair (4 bytes) per frame. The chroma is
// a smooth periodic wave, so that consecutive frames differ by a few levels
// only; luma carries stripes and bands so the image is not flat. The scene is
// rendered once per size, wider than the frame by one period, and a frame is
// a copy of each row from an offset that grows with the frame number: a frame
// costs about one memcpy of itself.
//
// The scene has at most kSceneRows distinct rows, each used for a run of
// neighbouring image rows, so that it stays in the processor's cache and a
// frame costs about the writing of it.
//
// A torn frame carries, in the middle fifth of its rows, the rows of a frame
// half a period away: there the chroma is inverted, which a frame-to-frame
// chroma comparison flags on nearly every sample.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace sim {

class FrameGenerator {
public:
    static constexpr int kPeriod = 256;          // pixel pairs per period of the wave
    static constexpr int kChromaAmplitude = 60;  // levels around 128
    static constexpr int kDisparity = 12;        // pixel pairs between the two views
    static constexpr int kSceneRows = 64;        // distinct rows of the scene

    // width: the side-by-side width in pixels (even halves of even width).
    void configure(int width, int height);
    int width() const { return width_; }
    int height() const { return height_; }
    size_t frameBytes() const { return static_cast<size_t>(width_) * height_ * 2; }

    // Writes frame `index` (only its first `bytes` bytes, for a short frame).
    void render(uint64_t index, uint8_t* dst, size_t bytes, bool torn) const;
    // Writes one view (0 left, 1 right) of frame `index` alone, as a camera
    // with one stream per sensor gives it: the top-left `width` x `height`
    // pixels of the view (at most width() / 2 x height()), each row of
    // width * 2 bytes at dst + row * pitch. The rows are those of render().
    void renderView(uint64_t index, int view, uint8_t* dst, size_t pitch, int width, int height) const;
    // Rows [tornBegin, tornEnd) carry the distant frame in a torn frame.
    int tornBegin() const { return tornBegin_; }
    int tornEnd() const { return tornEnd_; }

private:
    int width_ = 0, height_ = 0;
    int viewPairs_ = 0;   // pixel pairs of one view
    size_t segment_ = 0;  // bytes of one view's scene row (viewPairs_ + kPeriod pairs)
    int tornBegin_ = 0, tornEnd_ = 0;
    int sceneRows_ = 0;
    std::vector<uint8_t> scene_;  // per scene row: left segment, then right segment
};

}  // namespace sim
