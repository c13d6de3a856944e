#include "sim/uvc/FrameGenerator.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace sim {

namespace {

constexpr double kTwoPi = 6.28318530717958647692;

uint8_t clampByte(double v) {
    return static_cast<uint8_t>(std::max(0L, std::min(255L, std::lround(v))));
}

}  // namespace

void FrameGenerator::configure(int width, int height) {
    if (width == width_ && height == height_)
        return;
    width_ = width;
    height_ = height;
    viewPairs_ = width / 4;
    segment_ = static_cast<size_t>(viewPairs_ + kPeriod) * 4;
    tornBegin_ = static_cast<int>(std::floor(height * 0.4));
    tornEnd_ = static_cast<int>(std::ceil(height * 0.6));
    sceneRows_ = std::min(height, kSceneRows);
    scene_.assign(segment_ * 2 * static_cast<size_t>(sceneRows_), 0);

    // Luma: vertical stripes (5 per period) over horizontal bands; chroma: one
    // wave per period, U and V in quadrature, its phase turning down the image.
    std::vector<double> stripes(2 * kPeriod);
    for (int p = 0; p < 2 * kPeriod; ++p)
        stripes[p] = 45.0 * std::sin(kTwoPi * 5.0 * p / (2.0 * kPeriod));
    std::vector<uint8_t> u(kPeriod), v(kPeriod), y0(kPeriod), y1(kPeriod);
    for (int row = 0; row < sceneRows_; ++row) {
        const double rowPhase = kTwoPi * row / sceneRows_;
        const double band = 128.0 + 40.0 * std::sin(3.0 * rowPhase);
        for (int m = 0; m < kPeriod; ++m) {
            const double phase = kTwoPi * m / kPeriod + rowPhase;
            u[m] = clampByte(128.0 + kChromaAmplitude * std::sin(phase));
            v[m] = clampByte(128.0 + kChromaAmplitude * std::cos(phase));
            y0[m] = clampByte(band + stripes[2 * m]);
            y1[m] = clampByte(band + stripes[2 * m + 1]);
        }
        for (int view = 0; view < 2; ++view) {
            uint8_t* out = scene_.data() + (static_cast<size_t>(row) * 2 + view) * segment_;
            for (int m = 0; m < viewPairs_ + kPeriod; ++m) {
                const int k = (m + view * kDisparity) % kPeriod;
                out[4 * m + 0] = y0[k];
                out[4 * m + 1] = u[k];
                out[4 * m + 2] = y1[k];
                out[4 * m + 3] = v[k];
            }
        }
    }
}

void FrameGenerator::render(uint64_t index, uint8_t* dst, size_t bytes, bool torn) const {
    const size_t rowBytes = static_cast<size_t>(width_) * 2;
    const size_t viewBytes = static_cast<size_t>(viewPairs_) * 4;
    const size_t offset = static_cast<size_t>(index % kPeriod) * 4;
    const size_t tornOffset = static_cast<size_t>((index + kPeriod / 2) % kPeriod) * 4;
    for (int row = 0; row < height_; ++row) {
        const size_t at = static_cast<size_t>(row) * rowBytes;
        if (at >= bytes)
            break;
        const size_t off = torn && row >= tornBegin_ && row < tornEnd_ ? tornOffset : offset;
        const size_t sceneRow = static_cast<size_t>(row) * sceneRows_ / height_;
        const uint8_t* left = scene_.data() + sceneRow * 2 * segment_ + off;
        const uint8_t* right = left + segment_;
        const size_t n = std::min(rowBytes, bytes - at);
        std::memcpy(dst + at, left, std::min(n, viewBytes));
        if (n > viewBytes)
            std::memcpy(dst + at + viewBytes, right, n - viewBytes);
    }
}

void FrameGenerator::renderView(uint64_t index, int view, uint8_t* dst, size_t pitch, int width,
                                int height) const {
    if (dst == nullptr || width <= 0 || height <= 0 || view < 0 || view > 1)
        return;
    const size_t viewBytes = static_cast<size_t>(viewPairs_) * 4;
    const size_t n = std::min(static_cast<size_t>(width) * 2, viewBytes);
    const size_t offset = static_cast<size_t>(index % kPeriod) * 4;
    const int rows = std::min(height, height_);
    for (int row = 0; row < rows; ++row) {
        const size_t sceneRow = static_cast<size_t>(row) * sceneRows_ / height_;
        const uint8_t* src = scene_.data() + (sceneRow * 2 + static_cast<size_t>(view)) * segment_ + offset;
        std::memcpy(dst + static_cast<size_t>(row) * pitch, src, n);
    }
}

}  // namespace sim
