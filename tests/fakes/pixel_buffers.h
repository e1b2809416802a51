// Pixel buffers for tests. Every buffer is one heap block of exactly bytesPerRow * height bytes,
// so AddressSanitizer catches any read or write outside it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <vector>

#include "platform/media.h"

namespace gb::fakes {

inline uint32_t bgra(uint8_t b, uint8_t g, uint8_t r, uint8_t a = 255) {
    return static_cast<uint32_t>(b) | static_cast<uint32_t>(g) << 8 |
           static_cast<uint32_t>(r) << 16 | static_cast<uint32_t>(a) << 24;
}

inline PixelBufferRef exactBuffer(int width, int height, size_t bytesPerRow = 0,
                                  uint8_t fillByte = 0) {
    if (bytesPerRow == 0) bytesPerRow = static_cast<size_t>(width) * 4;
    const size_t bytes = bytesPerRow * static_cast<size_t>(height);
    auto storage = std::make_shared<std::vector<uint8_t>>(bytes, fillByte);
    return PixelBuffer::wrap(width, height, bytesPerRow,
                             storage->empty() ? nullptr : storage->data(), [storage] {});
}

inline uint32_t pixelAt(const PixelBuffer& b, int x, int y) {
    uint32_t v;
    std::memcpy(
        &v, b.baseAddress() + static_cast<size_t>(y) * b.bytesPerRow() + static_cast<size_t>(x) * 4,
        4);
    return v;
}

// Blue, green, red and alpha of one pixel.
struct Bgra {
    int b, g, r, a;
};
inline Bgra channelsAt(const PixelBuffer& b, int x, int y) {
    const uint32_t v = pixelAt(b, x, y);
    return {static_cast<int>(v & 0xFF), static_cast<int>(v >> 8 & 0xFF),
            static_cast<int>(v >> 16 & 0xFF), static_cast<int>(v >> 24)};
}

inline void setPixel(PixelBuffer& b, int x, int y, uint32_t v) {
    std::memcpy(
        b.baseAddress() + static_cast<size_t>(y) * b.bytesPerRow() + static_cast<size_t>(x) * 4, &v,
        4);
}

inline void fill(PixelBuffer& b, const std::function<uint32_t(int x, int y)>& colour) {
    for (int y = 0; y < b.height(); ++y) {
        for (int x = 0; x < b.width(); ++x) setPixel(b, x, y, colour(x, y));
    }
}

inline PixelBufferRef solidBuffer(int width, int height, uint32_t colour, size_t bytesPerRow = 0) {
    auto b = exactBuffer(width, height, bytesPerRow, 0xEE);
    if (height <= 0 || width <= 0) return b;
    for (int x = 0; x < width; ++x) setPixel(*b, x, 0, colour);
    const size_t rowBytes = static_cast<size_t>(width) * 4;
    for (int y = 1; y < height; ++y) {
        std::memcpy(b->baseAddress() + static_cast<size_t>(y) * b->bytesPerRow(), b->baseAddress(),
                    rowBytes);
    }
    return b;
}

// Largest per-channel difference of two pixels.
inline int channelDistance(uint32_t a, uint32_t b) {
    int worst = 0;
    for (int shift = 0; shift < 32; shift += 8) {
        const int d = static_cast<int>((a >> shift) & 0xFF) - static_cast<int>((b >> shift) & 0xFF);
        worst = std::max(worst, d < 0 ? -d : d);
    }
    return worst;
}

// Hands out exact buffers; the calls listed in `failures` (counted from 0) fail.
class ScriptedBufferFactory final : public PixelBufferFactory {
public:
    std::function<bool(int call)> fails = [](int) { return false; };
    int calls = 0;

    PixelBufferRef create(int width, int height) override {
        const int call = calls++;
        if (fails(call) || width <= 0 || height <= 0) return nullptr;
        return exactBuffer(width, height, static_cast<size_t>(width) * 4, 0xAB);
    }
};

}  // namespace gb::fakes
