#include "linux/portable/cpu_image_compositor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>

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

TEST_F(CpuCompositorTest, RendersOneToOneWhateverTheRowPaddingAndClearsWhatIsUncovered) {
    const auto source = exactBuffer(37, 11, 37 * 4 + 8);
    fill(*source, [](int x, int y) { return bgra(x, y, x ^ y, 255 - x); });
    for (size_t padding : {size_t{0}, size_t{8}, size_t{20}}) {
        const auto out = render(backend.imageFromPixelBuffer(source), 37, 11, padding);
        for (int y = 0; y < 11; ++y) {
            for (int x = 0; x < 37; ++x) ASSERT_EQ(pixelAt(*out, x, y), pixelAt(*source, x, y));
        }
    }
    // Image space grows upward: a smaller image sits at the destination's bottom-left.
    const auto out = render(backend.imageFromPixelBuffer(solidBuffer(4, 4, kCamera)), 8, 8);
    for (int y = 0; y < 8; ++y) {
        for (int x = 0; x < 8; ++x) {
            ASSERT_EQ(pixelAt(*out, x, y), (x < 4 && y >= 4) ? kCamera : 0u) << x << "," << y;
        }
    }
}

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
    int covered = 0;
    for (int y = 0; y < H; ++y) {
        for (int x = 0; x < W; ++x) {
            const bool inside = x >= left && x < left + ow && y >= top && y < top + oh;
            if (!inside) {
                ASSERT_EQ(pixelAt(*out, x, y), kScreen) << x << "," << y;
                continue;
            }
            ++covered;
            ASSERT_LE(channelDistance(pixelAt(*out, x, y), reference(x - left, y - top)), 2)
                << x << "," << y;
        }
    }
    EXPECT_EQ(covered, ow * oh);
    // The corners of the picture reach the corners of the overlay.
    EXPECT_LE(channelDistance(pixelAt(*out, left, top), pixelAt(*camera, 1, 1)), 3);
    EXPECT_LE(channelDistance(pixelAt(*out, left + ow - 1, top + oh - 1),
                              pixelAt(*camera, cw - 2, ch - 2)),
              3);
}

TEST_F(CpuCompositorTest, BlendsWithTheCamerasPremultipliedAlpha) {
    const auto camera = solidBuffer(4, 4, bgra(50, 100, 0, 128));
    const auto screen = solidBuffer(8, 8, bgra(200, 200, 200, 255));
    const auto out = render(overlay(camera, {}, screen), 8, 8);
    // source + destination * (255 - 128) / 255
    EXPECT_LE(channelDistance(pixelAt(*out, 0, 7), bgra(150, 200, 100, 255)), 1);
    EXPECT_EQ(pixelAt(*out, 4, 7), bgra(200, 200, 200, 255));
    const auto clear = solidBuffer(4, 4, 0);
    EXPECT_EQ(pixelAt(*render(overlay(clear, {}, screen), 8, 8), 0, 7), bgra(200, 200, 200, 255));
}

TEST_F(CpuCompositorTest, ClipsAtEveryEdgeOfTheFrame) {
    const auto camera = solidBuffer(10, 5, kCamera);
    const auto screen = solidBuffer(30, 20, kScreen);
    struct Case {
        double tx, ty;
        int x0, x1, y0, y1;  // covered columns and rows (from the top), exclusive ends
    };
    // A 20x10 overlay (scale 2).
    for (const Case& c :
         {Case{-5, -3, 0, 15, 13, 20}, Case{20, 15, 20, 30, 0, 5}, Case{-25, 0, 0, 0, 0, 0},
          Case{5, 25, 0, 0, 0, 0}, Case{-100, -100, 0, 0, 0, 0}}) {
        const auto t =
            AffineTransform::scale(2, 2).concatenating(AffineTransform::translation(c.tx, c.ty));
        const auto out = render(overlay(camera, t, screen), 30, 20);
        for (int y = 0; y < 20; ++y) {
            for (int x = 0; x < 30; ++x) {
                const bool inside = x >= c.x0 && x < c.x1 && y >= c.y0 && y < c.y1;
                ASSERT_EQ(pixelAt(*out, x, y), inside ? kCamera : kScreen)
                    << c.tx << "," << c.ty << " at " << x << "," << y;
            }
        }
    }
}

TEST_F(CpuCompositorTest, LayeredAndGeneralRenderingAgree) {
    CpuImageCompositor general(CpuImageCompositor::Options{.layeredRendering = false});
    const auto generalContext = general.makeContext();
    const auto screen = exactBuffer(64, 48, 64 * 4 + 12);
    fill(*screen, [](int x, int y) { return bgra(x * 4, y * 5, 90); });
    const auto camera = exactBuffer(23, 17);
    fill(*camera, [](int x, int y) { return bgra(x * 11, 255 - y * 15, (x * y) & 0xFF); });
    const auto badge = solidBuffer(5, 5, bgra(0, 60, 0, 120));

    const auto build = [&](ImageCompositionBackend& b) {
        const auto t = AffineTransform::scale(1.37, 0.81)
                           .concatenating(AffineTransform::translation(20.3, 7.6));
        ImageRef scene = b.compositingOver(b.applyingTransform(b.imageFromPixelBuffer(camera), t),
                                           b.imageFromPixelBuffer(screen));
        scene = b.compositingOver(b.applyingTransform(b.imageFromPixelBuffer(badge),
                                                      AffineTransform::scale(3, 3).concatenating(
                                                          AffineTransform::translation(-4, 30))),
                                  scene);
        return b.applyingTransform(scene, AffineTransform::translation(0.5, -1.25));
    };
    const auto layered = render(build(backend), 64, 48);
    auto slow = exactBuffer(64, 48, 64 * 4, 0xAB);
    generalContext->render(build(general), *slow);
    for (int y = 0; y < 48; ++y) {
        for (int x = 0; x < 64; ++x) {
            ASSERT_LE(channelDistance(pixelAt(*layered, x, y), pixelAt(*slow, x, y)), 1)
                << x << "," << y;
        }
    }
}

TEST_F(CpuCompositorTest, DegenerateTransformsShowNothing) {
    const auto camera = solidBuffer(4, 4, kCamera);
    const auto screen = solidBuffer(16, 16, kScreen);
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (const AffineTransform& t :
         {AffineTransform::scale(inf, inf), AffineTransform::scale(0, 0),
          AffineTransform::scale(1, 0), AffineTransform::translation(nan, 0),
          AffineTransform{1, 1, 1, 1, 0, 0}}) {
        const auto out = render(overlay(camera, t, screen), 16, 16);
        for (int y = 0; y < 16; ++y) {
            for (int x = 0; x < 16; ++x) ASSERT_EQ(pixelAt(*out, x, y), kScreen);
        }
    }
    // An empty camera picture: its stretch to the overlay size is infinite.
    const auto empty = backend.imageFromPixelBuffer(exactBuffer(0, 0));
    EXPECT_EQ(empty->extent().width, 0);
    const auto out = render(
        backend.compositingOver(
            backend.applyingTransform(empty, AffineTransform::scale(320.0 / 0.0, 180.0 / 0.0)),
            backend.imageFromPixelBuffer(screen)),
        16, 16);
    EXPECT_EQ(pixelAt(*out, 0, 15), kScreen);
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
