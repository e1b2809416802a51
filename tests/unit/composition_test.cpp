// Guards against: a wrongly scaled or placed overlay, bad timing on composed samples, and reads or writes outside any buffer on odd sizes, padding, unbacked or missing images (ASan).
#include <gtest/gtest.h>

#include <cmath>

#include "composition/video_composer.h"
#include "fakes/log_capture.h"
#include "fakes/pixel_buffers.h"
#include "portable/cpu_image_compositor.h"
#include "portable/standard_sample_maker.h"

namespace gb {
namespace {

using namespace gb::fakes;

const uint32_t kScreen = bgra(10, 20, 30);
const uint32_t kCamera = bgra(200, 150, 100);
const MediaTime kTime = MediaTime::make(12345, 600);

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

enum class Path { image, pixel };

// The pixel path is taken when the first buffer of a frame cannot be had.
class ComposedFrameTest : public ::testing::TestWithParam<Path> {
protected:
    ComposedFrameTest() {
        if (pixelPath()) buffers.fails = [](int call) { return call % 2 == 0; };
    }
    bool pixelPath() const { return GetParam() == Path::pixel; }
    CpuImageCompositor backend;
    ScriptedBufferFactory buffers;
    StandardSampleMaker maker;
    VideoComposer composer{backend, buffers, maker};
    fakes::LogCapture log;  // keeps the composer's lines out of the output
};

TEST_P(ComposedFrameTest, OverlayCoversItsCornerExactly) {
    const auto screen = solidBuffer(1920, 1080, kScreen);
    const auto sample = composer.composeFrame(screen, solidBuffer(1280, 720, kCamera), kTime);
    ASSERT_NE(sample, nullptr);
    const PixelBuffer& out = *sample->imageBuffer();
    ASSERT_NE(&out, screen.get());
    // Every sample lasts 1/30 s and has no decode time.
    EXPECT_EQ(sample->timing().duration, MediaTime::make(1, 30));
    EXPECT_EQ(sample->timing().presentationTimeStamp, kTime);
    EXPECT_FALSE(sample->timing().decodeTimeStamp.isValid());
    // Columns 1550-1869, rows 850-1029; the pixel path rounds the corners off.
    for (int y = 849; y <= 1030; ++y) {
        for (int x = 1549; x <= 1870; ++x) {
            const bool inside = x >= 1550 && x <= 1869 && y >= 850 && y <= 1029;
            const int i = x - 1550, j = y - 850;
            const bool cornerCut = pixelPath() && ((i < 20 || i >= 300) && (j < 20 || j >= 160));
            if (!inside || !cornerCut) {
                ASSERT_EQ(pixelAt(out, x, y), inside ? kCamera : kScreen) << x << "," << y;
            }
        }
    }
    // Radius 20 on the pixel path: (19,0) keeps the screen, (20,0) shows the camera.
    const struct {
        int i, j;
        bool cutOnPixelPath;
    } corners[] = {{19, 0, true}, {20, 0, false}, {319, 179, true}, {6, 6, false}, {5, 5, true}};
    for (const auto& c : corners) {
        EXPECT_EQ(pixelAt(out, 1550 + c.i, 850 + c.j),
                  pixelPath() && c.cutOnPixelPath ? kScreen : kCamera)
            << c.i << "," << c.j;
    }
}

// Bad input: composed without touching memory outside any buffer (AddressSanitizer watches).
TEST_P(ComposedFrameTest, BadInputStaysInsideEveryBuffer) {
    const struct {
        int screenWidth, screenHeight;
        size_t screenPadding;
        int cameraWidth, cameraHeight;
        size_t cameraPadding;
    } cases[] = {{1920, 1080, 0, 0, 0, 0},
                 {1920, 1080, 0, 1, 1, 0},
                 {100, 60, 0, 1280, 720, 0},
                 {1, 1, 0, 1280, 720, 0},
                 {1280, 720, 256, 641, 479, 36}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.screenWidth) + "/" + std::to_string(c.cameraWidth));
        const auto screen = solidBuffer(c.screenWidth, c.screenHeight, kScreen,
                                        c.screenWidth * 4 + c.screenPadding);
        const auto camera = c.cameraWidth == 0 ? exactBuffer(0, 0)
                                               : solidBuffer(c.cameraWidth, c.cameraHeight, kCamera,
                                                             c.cameraWidth * 4 + c.cameraPadding);
        const auto sample = composer.composeFrame(screen, camera, kTime);
        ASSERT_NE(sample, nullptr);
        const PixelBuffer& out = *sample->imageBuffer();
        ASSERT_EQ(out.width(), c.screenWidth);
        ASSERT_EQ(out.height(), c.screenHeight);
        if (c.cameraWidth == 0) {
            EXPECT_EQ(pixelAt(out, 1500, 900), kScreen);  // nothing laid over
        }
        if (c.cameraWidth == 1 && c.screenWidth == 1920) {
            EXPECT_EQ(pixelAt(out, 1700, 900), kCamera);  // one pixel fills the overlay
        }
        if (c.screenWidth == 100) {  // the overlay's visible part: columns 0-49, rows 0-9
            EXPECT_EQ(pixelAt(out, 40, 5), kCamera);
            if (!pixelPath()) {
                EXPECT_EQ(pixelAt(out, 50, 0), kScreen);
                EXPECT_EQ(pixelAt(out, 0, 10), kScreen);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(BothPaths, ComposedFrameTest, ::testing::Values(Path::image, Path::pixel),
                         [](const auto& info) {
                             return std::string(info.param == Path::image ? "Image" : "Pixel");
                         });
}  // namespace
}  // namespace gb
