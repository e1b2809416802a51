// Guards against: wrong bilinear scaling or placement of the overlay, and writes or reads outside buffers the compositor cannot use safely (ASan).
#include "portable/cpu_image_compositor.h"

#include <gtest/gtest.h>

#include <cmath>

#include "fakes/pixel_buffers.h"

namespace gb {
namespace {

using fakes::bgra;
using fakes::channelDistance;
using fakes::exactBuffer;
using fakes::fill;
using fakes::pixelAt;
using fakes::solidBuffer;

const uint32_t kScreen = bgra(10, 20, 30);
const uint32_t kCamera = bgra(200, 150, 100);

class CpuCompositorTest : public ::testing::Test {
protected:
    // Renders `image` into a fresh destination of the given size and row padding.
    PixelBufferRef render(const ImageRef& image, int width, int height, size_t padding = 0) {
        auto destination =
            exactBuffer(width, height, static_cast<size_t>(width) * 4 + padding, 0xAB);
        context->render(image, *destination);
        return destination;
    }
    ImageRef overlay(const PixelBufferRef& camera, const AffineTransform& t,
                     const PixelBufferRef& screen) {
        return backend.compositingOver(
            backend.applyingTransform(backend.imageFromPixelBuffer(camera), t),
            backend.imageFromPixelBuffer(screen));
    }
    CpuImageCompositor backend;
    std::shared_ptr<ImageContext> context = backend.makeContext();
};

TEST_F(CpuCompositorTest, ScalesBilinearlyToExactlyTheOverlaySize) {
    const int cw = 640, ch = 480, ow = 240, oh = 135, W = 400, H = 300;
    const auto camera = exactBuffer(cw, ch);
    fill(*camera, [&](int x, int y) {
        return bgra(x * 255 / (cw - 1), y * 255 / (ch - 1), (x * 7 + y * 3) & 0xFF);
    });
    const auto screen = solidBuffer(W, H, kScreen);
    const int left = 100, top = 60;  // placement from the top-left
    const AffineTransform t = AffineTransform::scale(double(ow) / cw, double(oh) / ch)
                                  .concatenating(AffineTransform::translation(left, H - top - oh));
    const auto out = render(overlay(camera, t, screen), W, H);
    // Reference: bilinear on pixel centres with clamped edges, in double precision.
    const auto reference = [&](int i, int j) {
        const double u = (i + 0.5) * cw / ow - 0.5;
        const double v = (j + 0.5) * ch / oh - 0.5;
        const int x0 = static_cast<int>(std::floor(u)), y0 = static_cast<int>(std::floor(v));
        const double fx = u - x0, fy = v - y0;
        const auto at = [&](int x, int y, int shift) {
            x = std::clamp(x, 0, cw - 1);
            y = std::clamp(y, 0, ch - 1);
            return static_cast<double>((pixelAt(*camera, x, y) >> shift) & 0xFF);
        };
        uint32_t result = 0;
        for (int shift = 0; shift < 32; shift += 8) {
            const double c =
                (at(x0, y0, shift) * (1 - fx) + at(x0 + 1, y0, shift) * fx) * (1 - fy) +
                (at(x0, y0 + 1, shift) * (1 - fx) + at(x0 + 1, y0 + 1, shift) * fx) * fy;
            result |= static_cast<uint32_t>(std::lround(c)) << shift;
        }
        return result;
    };
    for (int y = 0; y < H; ++y) {
        for (int x = 0; x < W; ++x) {
            const bool inside = x >= left && x < left + ow && y >= top && y < top + oh;
            if (!inside) {
                ASSERT_EQ(pixelAt(*out, x, y), kScreen) << x << "," << y;
                continue;
            }
            ASSERT_LE(channelDistance(pixelAt(*out, x, y), reference(x - left, y - top)), 2)
                << x << "," << y;
        }
    }
}

TEST_F(CpuCompositorTest, BuffersItCannotWriteSafelyAreLeftAlone) {
    const auto image = backend.imageFromPixelBuffer(solidBuffer(8, 8, kCamera));
    auto narrow = exactBuffer(8, 8, 16, 0xAB);  // rows shorter than the width
    context->render(image, *narrow);
    EXPECT_EQ(pixelAt(*narrow, 0, 0), 0xABABABABu);
    auto unbacked = PixelBuffer::wrap(8, 8, 32, nullptr, {});
    context->render(image, *unbacked);  // must not crash
    // A picture whose rows are shorter than its width is never read.
    const auto storage = solidBuffer(8, 2, kCamera);
    const auto broken = PixelBuffer::wrap(8, 8, 4, storage->baseAddress(), {});
    const auto out = render(overlay(broken, {}, solidBuffer(8, 8, kScreen)), 8, 8);
    EXPECT_EQ(pixelAt(*out, 0, 7), kScreen);
}

}  // namespace
}  // namespace gb
