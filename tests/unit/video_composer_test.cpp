// Guards against: an overlay off its corner, bad timing on composed samples, and out-of-bounds memory access on odd sizes, padding or missing images (ASan).
#include "composition/video_composer.h"

#include <gtest/gtest.h>

#include "fakes/log_capture.h"
#include "fakes/pixel_buffers.h"
#include "portable/cpu_image_compositor.h"
#include "portable/standard_sample_maker.h"

namespace gb {
namespace {

using fakes::bgra;
using fakes::exactBuffer;
using fakes::pixelAt;
using fakes::ScriptedBufferFactory;
using fakes::solidBuffer;

const uint32_t kScreen = bgra(10, 20, 30);
const uint32_t kCamera = bgra(200, 150, 100);
const MediaTime kTime = MediaTime::make(12345, 600);

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
