#include "TearingTest.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

#if defined(__GNUC__) && defined(__x86_64__)
#include <immintrin.h>
#elif defined(__GNUC__) && defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__GNUC__) && defined(__ARM_NEON)
#include <arm_neon.h>
#endif

namespace tearing {

namespace {

// Band b holds the rows y with b * H * 0.2 <= y < (b + 1) * H * 0.2. The
// product is formed in double, as the integer b * H converted would be.
bool rowInBand(int y, int band, int viewHeight) {
    return y >= band * static_cast<double>(viewHeight) * 0.2 &&
           y < (band + 1) * static_cast<double>(viewHeight) * 0.2;
}

int64_t bandDivisor(int band, int viewWidth, int viewHeight) {
    const double pixels = static_cast<double>(viewWidth) * viewHeight;
    return band == 0 ? static_cast<int64_t>(pixels * 0.5) : static_cast<int64_t>(pixels * 0.2 * 0.5);
}

void scoreBands(BandScores& r, int viewWidth, int viewHeight) {
    for (int b = 0; b < kBands; ++b) {
        r.n[b] = bandDivisor(b, viewWidth, viewHeight);
        double s = 100.0;
        if (r.n[b] != 0) {
            s = 100.0 - 100.0 * static_cast<double>(r.count[b]) / static_cast<double>(r.n[b]);
            s = s < 0.0 ? 0.0 : (s > 100.0 ? 100.0 : s);
        }
        r.score[b] = s;
        if (s < kTornBelow)
            r.torn = true;
    }
}

bool sampleChanged(const uint8_t* previous, const uint8_t* current) {
    return std::abs(current[1] - previous[1]) > kChromaThreshold ||
           std::abs(current[3] - previous[3]) > kChromaThreshold;
}

// Changed samples among samples [first, last) of one row; sample k sits at
// byte 8k of the row.
int64_t countSamplesScalar(const uint8_t* previous, const uint8_t* current, size_t first, size_t last) {
    int64_t changed = 0;
    for (size_t k = first; k < last; ++k)
        changed += sampleChanged(previous + 8 * k, current + 8 * k);
    return changed;
}

#if defined(__GNUC__)
// GCC and Clang vector extensions: 16 bytes, SSE2 on x86-64, NEON on ARM64.
typedef uint8_t U8x16 __attribute__((vector_size(16)));
typedef uint32_t U32x4 __attribute__((vector_size(16)));

inline U8x16 load16(const uint8_t* p) {
    U8x16 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// a - b, or 0 where b >= a: one instruction where the target has it.
inline U8x16 subSaturated(U8x16 a, U8x16 b) {
#if defined(__SSE2__)
    return reinterpret_cast<U8x16>(_mm_subs_epu8(reinterpret_cast<__m128i>(a), reinterpret_cast<__m128i>(b)));
#elif defined(__ARM_NEON)
    return reinterpret_cast<U8x16>(
        vqsubq_u8(reinterpret_cast<uint8x16_t>(a), reinterpret_cast<uint8x16_t>(b)));
#else
    return (a > b ? a : b) - b;
#endif
}

// Non-zero in the chroma bytes of the samples that changed, zero elsewhere.
// |a - b| - 10, saturated, is non-zero exactly when |a - b| > 10.
inline U8x16 changedChroma(const uint8_t* previous, const uint8_t* current) {
    const U8x16 chroma = {0, 0xFF, 0, 0xFF, 0, 0, 0, 0, 0, 0xFF, 0, 0xFF, 0, 0, 0, 0};
    const U8x16 threshold = {kChromaThreshold, kChromaThreshold, kChromaThreshold, kChromaThreshold,
                             kChromaThreshold, kChromaThreshold, kChromaThreshold, kChromaThreshold,
                             kChromaThreshold, kChromaThreshold, kChromaThreshold, kChromaThreshold,
                             kChromaThreshold, kChromaThreshold, kChromaThreshold, kChromaThreshold};
    const U8x16 a = load16(previous), b = load16(current);
    return subSaturated(subSaturated(a, b) | subSaturated(b, a), threshold) & chroma;
}

// Changed samples in the first 2 * blocks samples of a row. A 16-byte block
// holds two samples, with their chroma bytes at 1, 3 and 9, 11: they fall into
// the 32-bit lanes 0 and 2, so that a lane is non-zero exactly when its sample
// changed (lanes 1 and 3 stay zero).
int64_t countSamplesVector(const uint8_t* previous, const uint8_t* current, size_t blocks) {
    // Each lane goes down by one for every block in which it is zero; two
    // accumulators keep two blocks in flight.
    U32x4 unchangedA = {0, 0, 0, 0};
    U32x4 unchangedB = {0, 0, 0, 0};
    size_t i = 0;
    for (; i + 2 <= blocks; i += 2) {
        const U8x16 m0 = changedChroma(previous + 16 * i, current + 16 * i);
        const U8x16 m1 = changedChroma(previous + 16 * i + 16, current + 16 * i + 16);
        unchangedA += reinterpret_cast<U32x4>(reinterpret_cast<U32x4>(m0) == 0);
        unchangedB += reinterpret_cast<U32x4>(reinterpret_cast<U32x4>(m1) == 0);
    }
    if (i < blocks)
        unchangedA += reinterpret_cast<U32x4>(
            reinterpret_cast<U32x4>(changedChroma(previous + 16 * i, current + 16 * i)) == 0);
    // The lanes hold minus the unchanged count, modulo 2^32; a row has far
    // fewer blocks than that.
    const uint32_t unchanged =
        (0u - unchangedA[0]) + (0u - unchangedA[2]) + (0u - unchangedB[0]) + (0u - unchangedB[2]);
    return static_cast<int64_t>(2 * blocks) - static_cast<int64_t>(unchanged);
}

#if defined(__x86_64__)
// The same count on 32-byte blocks (four samples), for processors with AVX2,
// chosen at run time: the program itself is built for plain x86-64.
__attribute__((target("avx2"))) inline __m256i changedChromaAvx2(const uint8_t* previous,
                                                                 const uint8_t* current) {
    const __m256i chroma = _mm256_set1_epi64x(0xFF00FF00);  // bytes 1 and 3 of every 8
    const __m256i threshold = _mm256_set1_epi8(kChromaThreshold);
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(previous));
    const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(current));
    const __m256i d = _mm256_or_si256(_mm256_subs_epu8(a, b), _mm256_subs_epu8(b, a));
    return _mm256_and_si256(_mm256_subs_epu8(d, threshold), chroma);
}

// Changed samples in the first 4 * blocks samples of a row.
__attribute__((target("avx2"))) int64_t countSamplesAvx2(const uint8_t* previous, const uint8_t* current,
                                                         size_t blocks) {
    const __m256i zero = _mm256_setzero_si256();
    // Each lane goes up by one for every block in which it is zero.
    __m256i unchangedA = zero, unchangedB = zero;
    size_t i = 0;
    for (; i + 2 <= blocks; i += 2) {
        const __m256i m0 = changedChromaAvx2(previous + 32 * i, current + 32 * i);
        const __m256i m1 = changedChromaAvx2(previous + 32 * i + 32, current + 32 * i + 32);
        unchangedA = _mm256_sub_epi32(unchangedA, _mm256_cmpeq_epi32(m0, zero));
        unchangedB = _mm256_sub_epi32(unchangedB, _mm256_cmpeq_epi32(m1, zero));
    }
    if (i < blocks)
        unchangedA = _mm256_sub_epi32(
            unchangedA, _mm256_cmpeq_epi32(changedChromaAvx2(previous + 32 * i, current + 32 * i), zero));
    uint32_t lanes[8];
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(lanes), _mm256_add_epi32(unchangedA, unchangedB));
    const uint32_t unchanged = lanes[0] + lanes[2] + lanes[4] + lanes[6];
    return static_cast<int64_t>(4 * blocks) - static_cast<int64_t>(unchanged);
}

const bool kHasAvx2 = __builtin_cpu_supports("avx2");
#endif

int64_t countRow(const uint8_t* previous, const uint8_t* current, int viewWidth, bool wideVectors) {
    const size_t samples = (static_cast<size_t>(viewWidth) + 1) / 2;
    // Whole 16-byte blocks inside the row's 4 * W bytes; the last one or two
    // samples may be left to the scalar loop, which reads no byte past the row.
    size_t blocks = static_cast<size_t>(viewWidth) / 4;
    int64_t changed = 0;
    size_t done = 0;  // bytes counted so far
#if defined(__x86_64__)
    if (wideVectors && kHasAvx2) {
        changed += countSamplesAvx2(previous, current, blocks / 2);
        done = 32 * (blocks / 2);
        blocks %= 2;
    }
#endif
    changed += countSamplesVector(previous + done, current + done, blocks);
    done += 16 * blocks;
    return changed + countSamplesScalar(previous, current, done / 8, samples);
}
#else
int64_t countRow(const uint8_t* previous, const uint8_t* current, int viewWidth, bool) {
    return countSamplesScalar(previous, current, 0, (static_cast<size_t>(viewWidth) + 1) / 2);
}
#endif

}  // namespace

BandScores compareFrames(const uint8_t* previous, const uint8_t* current, int viewWidth, int viewHeight,
                         bool wideVectors) {
    BandScores r;
    if (previous == nullptr || current == nullptr || viewWidth < 1 || viewHeight < 1)
        return r;
    const size_t rowBytes = 4 * static_cast<size_t>(viewWidth);
    for (int y = 0; y < viewHeight; y += 2) {
        const size_t offset = rowBytes * static_cast<size_t>(y);
        const int64_t changed = countRow(previous + offset, current + offset, viewWidth, wideVectors);
        for (int b = 0; b < kBands; ++b)
            if (rowInBand(y, b, viewHeight))
                r.count[b] += changed;
    }
    scoreBands(r, viewWidth, viewHeight);
    return r;
}

bool isTorn(const uint8_t* previous, const uint8_t* current, int viewWidth, int viewHeight) {
    return compareFrames(previous, current, viewWidth, viewHeight).torn;
}

BandScores compareFramesReference(const uint8_t* previous, const uint8_t* current, int viewWidth,
                                  int viewHeight) {
    BandScores r;
    if (previous == nullptr || current == nullptr || viewWidth < 1 || viewHeight < 1)
        return r;
    const size_t W = static_cast<size_t>(viewWidth);
    const int H = viewHeight;
    for (int y = 0; y < H; y += 2) {
        for (size_t x = 0; x < W; x += 2) {
            const size_t i = 4 * x + 4 * W * static_cast<size_t>(y);
            const int d1 = std::abs(static_cast<int>(current[i + 1]) - static_cast<int>(previous[i + 1]));
            const int d3 = std::abs(static_cast<int>(current[i + 3]) - static_cast<int>(previous[i + 3]));
            if (d1 > 10 || d3 > 10) {
                for (int b = 0; b < 5; ++b) {
                    const double from = b * static_cast<double>(H) * 0.2;
                    const double to = (b + 1) * static_cast<double>(H) * 0.2;
                    if (y >= from && y < to)
                        r.count[b] += 1;
                }
            }
        }
    }
    for (int b = 0; b < 5; ++b) {
        const double wh = static_cast<double>(viewWidth) * viewHeight;
        r.n[b] = b == 0 ? static_cast<int64_t>(wh * 0.5) : static_cast<int64_t>(wh * 0.2 * 0.5);
        if (r.n[b] == 0) {
            r.score[b] = 100.0;
            continue;
        }
        double score = 100.0 - 100.0 * static_cast<double>(r.count[b]) / static_cast<double>(r.n[b]);
        if (score < 0.0)
            score = 0.0;
        if (score > 100.0)
            score = 100.0;
        r.score[b] = score;
        if (score < 85.0)
            r.torn = true;
    }
    return r;
}

}  // namespace tearing
