#include "portable/bgra_to_i420.h"

namespace gb {
namespace {

// Y' = 16 + 219/255 (0.2126 R + 0.7152 G + 0.0722 B), and Cb, Cr likewise with 224/255, in
// fixed point with 15 fraction bits. Chroma is taken from the sum of 2×2 pixels: 2 more bits.
constexpr int32_t kYR = 5983, kYG = 20127, kYB = 2032;
constexpr int32_t kUR = -3298, kUG = -11094, kUB = 14392;
constexpr int32_t kVR = 14392, kVG = -13073, kVB = -1320;
constexpr int32_t kLumaOffset = (16 << 15) + (1 << 14);
constexpr int32_t kChromaOffset = (128 << 17) + (1 << 16);

inline uint8_t luma(const uint8_t* p) {
    return static_cast<uint8_t>((kYR * p[2] + kYG * p[1] + kYB * p[0] + kLumaOffset) >> 15);
}

// From the sums of four pixels' channels.
inline uint8_t chromaU(int32_t r, int32_t g, int32_t b) {
    return static_cast<uint8_t>((kUR * r + kUG * g + kUB * b + kChromaOffset) >> 17);
}
inline uint8_t chromaV(int32_t r, int32_t g, int32_t b) {
    return static_cast<uint8_t>((kVR * r + kVG * g + kVB * b + kChromaOffset) >> 17);
}

// Two rows, `pairs` columns of two. Plain enough for the compiler to vectorise (this file is
// built with -O3).
__attribute__((always_inline)) inline void twoRowsBody(const uint8_t* __restrict upper,
                                                       const uint8_t* __restrict lower, int pairs,
                                                       uint8_t* __restrict yUpper,
                                                       uint8_t* __restrict yLower,
                                                       uint8_t* __restrict u,
                                                       uint8_t* __restrict v) {
    for (int i = 0; i < pairs; ++i) {
        const uint8_t* a = upper + 8 * i;
        const uint8_t* b = lower + 8 * i;
        yUpper[2 * i] = luma(a);
        yUpper[2 * i + 1] = luma(a + 4);
        yLower[2 * i] = luma(b);
        yLower[2 * i + 1] = luma(b + 4);
        const int32_t red = int32_t{a[2]} + a[6] + b[2] + b[6];
        const int32_t green = int32_t{a[1]} + a[5] + b[1] + b[5];
        const int32_t blue = int32_t{a[0]} + a[4] + b[0] + b[4];
        u[i] = chromaU(red, green, blue);
        v[i] = chromaV(red, green, blue);
    }
}

using TwoRows = void (*)(const uint8_t*, const uint8_t*, int, uint8_t*, uint8_t*, uint8_t*,
                         uint8_t*);

void twoRowsPlain(const uint8_t* upper, const uint8_t* lower, int pairs, uint8_t* yUpper,
                  uint8_t* yLower, uint8_t* u, uint8_t* v) {
    twoRowsBody(upper, lower, pairs, yUpper, yLower, u, v);
}

#if defined(__x86_64__) && defined(__GNUC__)
__attribute__((target("avx2"))) void twoRowsAvx2(const uint8_t* upper, const uint8_t* lower,
                                                 int pairs, uint8_t* yUpper, uint8_t* yLower,
                                                 uint8_t* u, uint8_t* v) {
    twoRowsBody(upper, lower, pairs, yUpper, yLower, u, v);
}

TwoRows pickTwoRows() {
    return __builtin_cpu_supports("avx2") ? twoRowsAvx2 : twoRowsPlain;
}
#else
TwoRows pickTwoRows() {
    return twoRowsPlain;
}
#endif

}  // namespace

void convertBgraToI420(const uint8_t* bgra, size_t bytesPerRow, int width, int height,
                       const I420Planes& out) {
    static const TwoRows twoRows = pickTwoRows();
    if (width <= 0 || height <= 0) return;
    const int pairs = width / 2;
    for (int row = 0; row < height; row += 2) {
        const uint8_t* upper = bgra + static_cast<size_t>(row) * bytesPerRow;
        // A last odd row stands in for the row below it.
        const bool single = row + 1 == height;
        const uint8_t* lower = single ? upper : upper + bytesPerRow;
        uint8_t* yUpper = out.y + static_cast<size_t>(row) * out.yStride;
        uint8_t* yLower = single ? yUpper : yUpper + out.yStride;
        uint8_t* u = out.u + static_cast<size_t>(row / 2) * out.uStride;
        uint8_t* v = out.v + static_cast<size_t>(row / 2) * out.vStride;
        twoRows(upper, lower, pairs, yUpper, yLower, u, v);
        if (width % 2 != 0) {
            const uint8_t* a = upper + static_cast<size_t>(width - 1) * 4;
            const uint8_t* b = lower + static_cast<size_t>(width - 1) * 4;
            yUpper[width - 1] = luma(a);
            yLower[width - 1] = luma(b);
            const int32_t red = 2 * (a[2] + b[2]);
            const int32_t green = 2 * (a[1] + b[1]);
            const int32_t blue = 2 * (a[0] + b[0]);
            u[pairs] = chromaU(red, green, blue);
            v[pairs] = chromaV(red, green, blue);
        }
    }
}

}  // namespace gb
