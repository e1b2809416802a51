// Where a picture of one size goes inside a frame of another: scaled to fit with its aspect
// ratio kept, centred, black bars on the two free sides. Coordinates and sizes are even so the
// rectangle falls on whole 4:2:0 chroma samples.
#pragma once

#include <algorithm>
#include <cstdint>

namespace gb::linuxp {

struct LetterboxRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    friend bool operator==(const LetterboxRect&, const LetterboxRect&) = default;
};

// The largest centred rectangle of the source's aspect ratio inside a frame of `frameWidth` x
// `frameHeight` (both even). An empty rectangle for an empty source.
inline LetterboxRect letterboxRect(int sourceWidth, int sourceHeight, int frameWidth,
                                   int frameHeight) {
    if (sourceWidth <= 0 || sourceHeight <= 0 || frameWidth <= 0 || frameHeight <= 0) return {};
    const auto evenDown = [](int64_t v) { return static_cast<int>(std::max<int64_t>(2, v & ~1)); };
    int width = frameWidth;
    int height = frameHeight;
    // Compare aspect ratios exactly: source wider than the frame -> bars above and below.
    const int64_t lhs = static_cast<int64_t>(sourceWidth) * frameHeight;
    const int64_t rhs = static_cast<int64_t>(frameWidth) * sourceHeight;
    if (lhs > rhs) {
        height = evenDown((static_cast<int64_t>(frameWidth) * sourceHeight + sourceWidth / 2) /
                          sourceWidth);
    } else if (lhs < rhs) {
        width = evenDown((static_cast<int64_t>(frameHeight) * sourceWidth + sourceHeight / 2) /
                         sourceHeight);
    }
    width = std::min(width, frameWidth);
    height = std::min(height, frameHeight);
    return LetterboxRect{((frameWidth - width) / 2) & ~1, ((frameHeight - height) / 2) & ~1, width,
                         height};
}

}  // namespace gb::linuxp
