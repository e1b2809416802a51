// Pixel buffers for tests. Every buffer is one heap block of exactly bytesPerRow * height bytes,
// so AddressSanitizer catches any read or write outside it.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "platform/media.h"

namespace gb::fakes {

inline uint32_t bgra(uint8_t b, uint8_t g, uint8_t r, uint8_t a = 255) {
    return uint32_t{b} | uint32_t{g} << 8 | uint32_t{r} << 16 | uint32_t{a} << 24;
}

inline uint8_t* pixel(const PixelBuffer& b, int x, int y) {
    return b.baseAddress() + static_cast<size_t>(y) * b.bytesPerRow() + static_cast<size_t>(x) * 4;
}
inline uint32_t pixelAt(const PixelBuffer& b, int x, int y) {
    uint32_t v;
    std::memcpy(&v, pixel(b, x, y), 4);
    return v;
}

// Blue, green, red and alpha of one pixel.
struct Bgra {
    int b, g, r, a;
};
inline Bgra channelsAt(const PixelBuffer& b, int x, int y) {
    const uint32_t v = pixelAt(b, x, y);
    return {int(v & 0xFF), int(v >> 8 & 0xFF), int(v >> 16 & 0xFF), int(v >> 24)};
}

// Largest per-channel difference of two pixels.
inline int channelDistance(uint32_t a, uint32_t b) {
    int worst = 0;
    for (int shift = 0; shift < 32; shift += 8)
        worst = std::max(worst, std::abs(int(a >> shift & 0xFF) - int(b >> shift & 0xFF)));
    return worst;
}

inline void fill(PixelBuffer& b, const std::function<uint32_t(int x, int y)>& colour) {
    for (int y = 0; y < b.height(); ++y)
        for (int x = 0; x < b.width(); ++x) {
            const uint32_t v = colour(x, y);
            std::memcpy(pixel(b, x, y), &v, 4);
        }
}

inline PixelBufferRef exactBuffer(int width, int height, size_t bytesPerRow = 0,
                                  uint8_t fillByte = 0) {
    if (bytesPerRow == 0) bytesPerRow = static_cast<size_t>(width) * 4;
    auto storage = std::make_shared<std::vector<uint8_t>>(bytesPerRow * size_t(height), fillByte);
    return PixelBuffer::wrap(width, height, bytesPerRow,
                             storage->empty() ? nullptr : storage->data(), [storage] {});
}

// Padding bytes (beyond width * 4 in each row) are 0xEE.
inline PixelBufferRef solidBuffer(int width, int height, uint32_t colour, size_t bytesPerRow = 0) {
    auto b = exactBuffer(width, height, bytesPerRow, 0xEE);
    fill(*b, [colour](int, int) { return colour; });
    return b;
}

// Hands out exact buffers; the calls for which `fails` (counted from 0) says so fail.
class ScriptedBufferFactory final : public PixelBufferFactory {
public:
    std::function<bool(int call)> fails = [](int) { return false; };
    int calls = 0;
    PixelBufferRef create(int width, int height) override {
        if (fails(calls++) || width <= 0 || height <= 0) return nullptr;
        return exactBuffer(width, height, static_cast<size_t>(width) * 4, 0xAB);
    }
};

}  // namespace gb::fakes
