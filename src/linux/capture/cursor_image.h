// The pointer's picture, drawn into captured frames by the X11 and PipeWire screen sources.
// Owned and used by one capture thread at a time.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace gb::linuxp {

struct CursorImage {
    int width = 0;
    int height = 0;
    int hotX = 0;
    int hotY = 0;
    std::vector<uint32_t> pixels;  // premultiplied BGRA (as XFixes gives it), row by row

    // Source-over with its top-left corner at (left, top) of a BGRA frame, clipped to it; the
    // frame stays opaque.
    void drawInto(uint8_t* frame, size_t bytesPerRow, int frameWidth, int frameHeight, int left,
                  int top) const {
        const int firstRow = std::max(0, -top);
        const int lastRow = std::min(height, frameHeight - top);
        const int firstCol = std::max(0, -left);
        const int lastCol = std::min(width, frameWidth - left);
        for (int row = firstRow; row < lastRow; ++row) {
            auto* dst =
                reinterpret_cast<uint32_t*>(frame + static_cast<size_t>(top + row) * bytesPerRow) +
                left;
            const uint32_t* src = pixels.data() + static_cast<size_t>(row) * width;
            for (int col = firstCol; col < lastCol; ++col) {
                const uint32_t s = src[col];
                const uint32_t alpha = s >> 24;
                if (alpha == 0) continue;
                if (alpha == 255) {
                    dst[col] = s;
                    continue;
                }
                const uint32_t d = dst[col];
                const uint32_t keep = 255 - alpha;
                uint32_t out = 0xff000000u;
                for (int shift = 0; shift <= 16; shift += 8) {
                    const uint32_t channel =
                        ((s >> shift) & 0xff) + (((d >> shift) & 0xff) * keep + 127) / 255;
                    out |= std::min<uint32_t>(channel, 255) << shift;
                }
                dst[col] = out;
            }
        }
    }
};

}  // namespace gb::linuxp
