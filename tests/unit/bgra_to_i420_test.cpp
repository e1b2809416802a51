// Guards against: wrong BT.709 levels or swapped channels in the video, chroma off by a pixel, and
// a picture converted in pieces (where the screen changed) differing from one converted whole.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "portable/bgra_to_i420.h"

namespace gb {
namespace {

struct Picture {
    Picture(int width, int height)
        : width(width),
          height(height),
          bgra(static_cast<size_t>(width) * height * 4),
          y(static_cast<size_t>(width) * height),
          u(static_cast<size_t>((width + 1) / 2) * ((height + 1) / 2)),
          v(u.size()) {}
    // The planes from pixel (x, y) on, both even.
    I420Planes planesAt(int x, int top) {
        const size_t chromaWidth = static_cast<size_t>((width + 1) / 2);
        return {y.data() + static_cast<size_t>(top) * width + x, static_cast<size_t>(width),
                u.data() + top / 2 * chromaWidth + x / 2,        chromaWidth,
                v.data() + top / 2 * chromaWidth + x / 2,        chromaWidth};
    }
    void convert(int x, int top, int w, int h) {
        convertBgraToI420(bgra.data() + (static_cast<size_t>(top) * width + x) * 4,
                          static_cast<size_t>(width) * 4, w, h, planesAt(x, top));
    }
    const uint8_t* pixel(int x, int row) const {
        return bgra.data() + (static_cast<size_t>(row) * width + x) * 4;
    }
    int width, height;
    std::vector<uint8_t> bgra, y, u, v;
};

void randomise(std::vector<uint8_t>& bytes, unsigned seed) {
    std::mt19937 random(seed);
    for (auto& b : bytes) b = static_cast<uint8_t>(random());
}

TEST(BgraToI420, MatchesTheBt709FormulaWithinOneLevel) {
    Picture p(37, 23);  // odd both ways: the last column and row stand alone
    randomise(p.bgra, 1);
    p.convert(0, 0, p.width, p.height);
    const auto luma = [](const uint8_t* q) {
        return 16 + 219.0 / 255 * (0.2126 * q[2] + 0.7152 * q[1] + 0.0722 * q[0]);
    };
    for (int row = 0; row < p.height; ++row) {
        for (int x = 0; x < p.width; ++x) {
            EXPECT_NEAR(p.y[static_cast<size_t>(row) * p.width + x], luma(p.pixel(x, row)), 1.0)
                << x << "," << row;
        }
    }
    for (int row = 0; row < p.height; row += 2) {
        for (int x = 0; x < p.width; x += 2) {
            double r = 0, g = 0, b = 0, n = 0;
            for (int dy = 0; dy < 2 && row + dy < p.height; ++dy) {
                for (int dx = 0; dx < 2 && x + dx < p.width; ++dx, ++n) {
                    const uint8_t* q = p.pixel(x + dx, row + dy);
                    b += q[0], g += q[1], r += q[2];
                }
            }
            r /= n, g /= n, b /= n;
            const size_t at = static_cast<size_t>(row / 2) * ((p.width + 1) / 2) + x / 2;
            EXPECT_NEAR(p.u[at],
                        128 + 224.0 / 255 * (b - (0.2126 * r + 0.7152 * g + 0.0722 * b)) / 1.8556,
                        1.0);
            EXPECT_NEAR(p.v[at],
                        128 + 224.0 / 255 * (r - (0.2126 * r + 0.7152 * g + 0.0722 * b)) / 1.5748,
                        1.0);
        }
    }
}

TEST(BgraToI420, KnownColoursGetStudioLevels) {
    Picture p(2, 2);
    const auto levels = [&p](uint8_t b, uint8_t g, uint8_t r) {
        for (size_t i = 0; i < p.bgra.size(); i += 4) {
            p.bgra[i] = b, p.bgra[i + 1] = g, p.bgra[i + 2] = r, p.bgra[i + 3] = 255;
        }
        p.convert(0, 0, 2, 2);
        return std::vector<int>{p.y[0], p.u[0], p.v[0]};
    };
    EXPECT_EQ(levels(255, 255, 255), (std::vector<int>{235, 128, 128}));
    EXPECT_EQ(levels(0, 0, 0), (std::vector<int>{16, 128, 128}));
    EXPECT_EQ(levels(0, 0, 255), (std::vector<int>{63, 102, 240}));  // red
    EXPECT_EQ(levels(255, 0, 0), (std::vector<int>{32, 240, 118}));  // blue
}

TEST(BgraToI420, ConvertingChangedAreasEqualsConvertingTheWholePicture) {
    Picture pieces(130, 66);
    randomise(pieces.bgra, 2);
    pieces.convert(0, 0, pieces.width, pieces.height);
    // Areas on even corners, one reaching the right and bottom edges, with odd widths.
    const int areas[][4] = {{0, 0, 7, 5}, {64, 16, 66, 50}, {10, 40, 33, 17}};
    std::mt19937 random(3);
    for (const auto& a : areas) {
        for (int row = a[1]; row < a[1] + a[3]; ++row) {
            for (int x = a[0]; x < a[0] + a[2]; ++x) {
                uint8_t* q = pieces.bgra.data() + (static_cast<size_t>(row) * pieces.width + x) * 4;
                q[0] = static_cast<uint8_t>(random()), q[2] = static_cast<uint8_t>(random());
            }
        }
        // As the encoder rounds an area out: even width, or up to the picture's edge.
        pieces.convert(a[0], a[1], std::min(a[2] + a[2] % 2, pieces.width - a[0]), a[3] + a[3] % 2);
    }
    Picture whole(130, 66);
    whole.bgra = pieces.bgra;
    whole.convert(0, 0, whole.width, whole.height);
    EXPECT_EQ(pieces.y, whole.y);
    EXPECT_EQ(pieces.u, whole.u);
    EXPECT_EQ(pieces.v, whole.v);
}

}  // namespace
}  // namespace gb
