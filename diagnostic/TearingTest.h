#pragma once

// Tearing test of one frame pair of the grabbing test.
//
// Both frames are side-by-side YUYV images of two views of viewWidth x
// viewHeight pixels: a row holds 4 * viewWidth bytes and a frame
// 4 * viewWidth * viewHeight bytes. A sample is the pair of chroma bytes at
// 4x + 4Wy + 1 and + 3 for x = 0, 2, 4, ... < W and y = 0, 2, 4, ... < H (it
// covers the whole row, both views). A sample changed when either chroma byte
// moved by more than 10. The rows are split into five bands,
// [b * H * 0.2, (b + 1) * H * 0.2) in floating point; a band scores
// 100 - 100 * count / n clamped to 0..100, with n = (int)(W * H * 0.2 * 0.5),
// except band 0 where n = (int)(W * H * 0.5), so that the first band hardly
// ever fails. The pair is torn when any band scores below 85.

#include <cstdint>

namespace tearing {

constexpr int kBands = 5;
// A chroma byte must move by more than this to mark its sample as changed.
constexpr int kChromaThreshold = 10;
// A band scoring below this tears the pair.
constexpr double kTornBelow = 85.0;

struct BandScores {
    int64_t count[kBands] = {};  // changed samples per band
    int64_t n[kBands] = {};      // divisor of the band's score
    // 100 - 100 * count / n clamped to 0..100. A band whose n is 0 (frames of
    // fewer than 10 pixels per view, or fewer than 2 for band 0) cannot be
    // judged: it scores 100 and never tears the pair.
    double score[kBands] = {100, 100, 100, 100, 100};
    bool torn = false;
};

// The comparison, vectorised where the compiler offers vector extensions
// (16-byte vectors: SSE2, NEON), with 32-byte ones on x86-64 processors that
// have AVX2 unless wideVectors is false (the tests cover both). Width or
// height below 1, or a null frame, give the default result (all scores 100,
// not torn) without reading anything.
BandScores compareFrames(const uint8_t* previous, const uint8_t* current, int viewWidth, int viewHeight,
                         bool wideVectors = true);

// compareFrames(...).torn.
bool isTorn(const uint8_t* previous, const uint8_t* current, int viewWidth, int viewHeight);

// A plain one-sample-at-a-time version of the same comparison, kept as the
// yardstick of compareFrames in the tests. Same results, bit for bit.
BandScores compareFramesReference(const uint8_t* previous, const uint8_t* current, int viewWidth,
                                  int viewHeight);

}  // namespace tearing
