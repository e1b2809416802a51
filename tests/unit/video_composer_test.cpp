#include "composition/video_composer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_image_composition.h"
#include "fakes/log_capture.h"
#include "fakes/pixel_buffers.h"
#include "linux/portable/cpu_image_compositor.h"
#include "linux/portable/standard_sample_maker.h"

namespace gb {
namespace {

using fakes::bgra;
using fakes::exactBuffer;
using fakes::FakeImageCompositionBackend;
using fakes::LogCapture;
using fakes::pixelAt;
using fakes::ScriptedBufferFactory;
using fakes::solidBuffer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const uint32_t kScreen = bgra(10, 20, 30);
const uint32_t kCamera = bgra(200, 150, 100);
const MediaTime kTime = MediaTime::make(12345, 600);

using P = CameraPosition;
using S = CameraOverlayPreset;

// 50 pixels from its corner; on a frame smaller than the overlay plus margins it leaves the frame.
TEST(OverlayPlacementTest, EveryCornerAndPreset) {
    const struct {
        int width, height;
        S preset;
        double right, bottom;  // x on the right, y at the bottom; the other sides are at 50
    } cases[] = {{1920, 1080, S::small, 1630, 895},
                 {1920, 1080, S::medium, 1550, 850},
                 {1920, 1080, S::large, 1390, 760},
                 {200, 100, S::medium, -170, -130},
                 {200, 100, S::large, -330, -220}};
    for (const auto& c : cases) {
        for (const P corner : {P::topLeft, P::topRight, P::bottomLeft, P::bottomRight}) {
            const bool right = corner == P::topRight || corner == P::bottomRight;
            const bool bottom = corner == P::bottomLeft || corner == P::bottomRight;
            const Point p = VideoComposer::overlayPosition(
                c.width, c.height, corner, size(c.preset), VideoComposer::kOverlayMargin);
            EXPECT_EQ(p.x, right ? c.right : 50) << c.width << " " << static_cast<int>(corner);
            EXPECT_EQ(p.y, bottom ? c.bottom : 50) << c.width << " " << static_cast<int>(corner);
        }
    }
    // Sizes and margin are truncated.
    const Point p = VideoComposer::overlayPosition(1000, 500, P::bottomRight, {100.9, 50.9}, 10.7);
    EXPECT_EQ(p.x, 1000 - 100 - 10);
    EXPECT_EQ(p.y, 500 - 50 - 10);
}

enum class Path { image, pixel };

struct ComposerParts {
    CpuImageCompositor backend;
    ScriptedBufferFactory buffers;
    StandardSampleMaker maker;
    VideoComposer composer{backend, buffers, maker};
    LogCapture log;
};

// The pixel path is taken when the first buffer of a frame cannot be had.
class ComposedFrameTest : public ::testing::TestWithParam<Path>, protected ComposerParts {
protected:
    ComposedFrameTest() {
        if (pixelPath()) buffers.fails = [](int call) { return call % 2 == 0; };
    }
    bool pixelPath() const { return GetParam() == Path::pixel; }
};

class VideoComposerPixelPathTest : public ::testing::Test, protected ComposerParts {
protected:
    VideoComposerPixelPathTest() {
        buffers.fails = [](int call) { return call == 0; };
    }
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
    } corners[] = {{0, 0, true},  {19, 0, true},  {20, 0, false},   {300, 0, false}, {319, 0, true},
                   {0, 19, true}, {0, 20, false}, {319, 179, true}, {6, 6, false},   {5, 5, true}};
    for (const auto& c : corners) {
        EXPECT_EQ(pixelAt(out, 1550 + c.i, 850 + c.j),
                  pixelPath() && c.cutOnPixelPath ? kScreen : kCamera)
            << c.i << "," << c.j;
    }
    const std::vector<std::string> logged = {
        "🎬 Overlaying camera: target(320x180) actual(1280x720) onto screen(1920x1080)",
        "📍 Camera positioned at: Bottom Right -> (1550, 850)"};
    EXPECT_EQ(log.lines(), pixelPath() ? logged : std::vector<std::string>{});
}

// Bad input: composed without touching memory outside any buffer (AddressSanitizer watches).
TEST_P(ComposedFrameTest, BadInputStaysInsideEveryBuffer) {
    const struct {
        int screenWidth, screenHeight;
        size_t screenPadding;
        int cameraWidth, cameraHeight;
        size_t cameraPadding;
    } cases[] = {{1920, 1080, 0, 0, 0, 0}, {1920, 1080, 0, 1, 1, 0},
                 {640, 360, 12, 1, 1, 60}, {100, 60, 0, 1280, 720, 0},
                 {1, 1, 0, 1280, 720, 0},  {1280, 720, 256, 641, 479, 36},
                 {500, 300, 4, 3, 700, 4}};
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

TEST_P(ComposedFrameTest, OutputRowsWiderThanTheScreensAreCopiedRowByRow) {
    buffers.bytesPerRowPadding = 32;
    const auto screen = exactBuffer(800, 600);
    fakes::fill(*screen, [](int x, int y) { return bgra(x & 0xFF, y & 0xFF, 7); });
    const auto out =
        composer.composeFrame(screen, solidBuffer(8, 8, kCamera), kTime)->imageBuffer();
    ASSERT_EQ(out->bytesPerRow(), 800u * 4 + 32);
    for (int y : {0, 1, 300, 599}) {
        for (int x : {0, 1, 400, 799}) {
            ASSERT_EQ(pixelAt(*out, x, y), bgra(x & 0xFF, y & 0xFF, 7)) << x << "," << y;
        }
    }
    EXPECT_EQ(pixelAt(*out, 600, 450), kCamera);
}

INSTANTIATE_TEST_SUITE_P(BothPaths, ComposedFrameTest, ::testing::Values(Path::image, Path::pixel),
                         [](const auto& info) {
                             return std::string(info.param == Path::image ? "Image" : "Pixel");
                         });
// Nearest neighbour, alpha copied rather than blended.
TEST_F(VideoComposerPixelPathTest, SamplesTheCameraByNearestNeighbour) {
    composer.setCameraOverlayPreset(S::small);
    composer.setCameraPosition(P::topLeft);
    const auto camera = exactBuffer(640, 480);
    fakes::fill(*camera, [](int x, int y) {
        return bgra(x & 0xFF, y & 0xFF, (x >> 8) | (y >> 8) << 4, 128);
    });
    const auto out =
        composer.composeFrame(solidBuffer(800, 600, kScreen), camera, kTime)->imageBuffer();
    for (const auto& [i, j] : {std::pair{20, 0}, {100, 67}, {219, 134}, {239, 60}, {0, 100}}) {
        EXPECT_EQ(pixelAt(*out, 50 + i, 50 + j), pixelAt(*camera, i * 640 / 240, j * 480 / 135))
            << i << "," << j;
    }
    EXPECT_THAT(log.lines(),
                ElementsAre("🎬 Overlaying camera: target(240x135) actual(640x480) onto "
                            "screen(800x600)",
                            "📍 Camera positioned at: Top Left -> (50, 50)"));
}

TEST_F(VideoComposerPixelPathTest, WithoutBuffersOrCameraPixelsTheScreenIsKept) {
    const auto camera = PixelBuffer::wrap(320, 180, 1280, nullptr, {});  // no pixels
    auto sample = composer.composeFrame(solidBuffer(1920, 1080, kScreen), camera, kTime);
    ASSERT_NE(sample, nullptr);
    EXPECT_EQ(pixelAt(*sample->imageBuffer(), 1700, 900), kScreen);
    buffers.fails = [](int) { return true; };
    buffers.calls = 0;
    const auto screen = solidBuffer(64, 48, kScreen);
    sample = composer.composeFrame(screen, solidBuffer(4, 4, kCamera), kTime);
    ASSERT_NE(sample, nullptr);
    EXPECT_EQ(sample->imageBuffer(), screen);  // wrapped as it is
    EXPECT_EQ(sample->timing().duration, MediaTime::make(1, 30));
    EXPECT_EQ(buffers.calls, 2);
    EXPECT_EQ(log.lines().size(), 2u);
}

TEST(VideoComposerSampleTest, PlainSampleAndAFrameWithoutCameraWrapTheBufferUnchanged) {
    FakeImageCompositionBackend backend;
    ScriptedBufferFactory buffers;
    StandardSampleMaker maker;
    VideoComposer composer{backend, buffers, maker};
    const auto frame = exactBuffer(16, 16);
    for (const MediaTime t : {MediaTime::make(0, 30), MediaTime::make(7, 60), kTime}) {
        const auto sample = composer.createSampleBuffer(frame, t);
        ASSERT_NE(sample, nullptr);
        EXPECT_EQ(sample->imageBuffer(), frame);
        EXPECT_EQ(sample->timing().duration, MediaTime::make(1, 30));
        EXPECT_EQ(sample->timing().presentationTimeStamp, t);
        EXPECT_EQ(sample->timing().decodeTimeStamp, MediaTime::invalid());
    }
    EXPECT_EQ(composer.createSampleBuffer(nullptr, kTime), nullptr);
    EXPECT_EQ(composer.composeFrame(frame, nullptr, kTime)->imageBuffer(), frame);
    EXPECT_EQ(composer.composeFrame(nullptr, frame, kTime), nullptr);
    EXPECT_TRUE(backend.images().empty());
    ASSERT_NE(composer.composeFrame(frame, exactBuffer(8, 8), kTime), nullptr);
    ASSERT_NE(composer.composeFrame(frame, exactBuffer(8, 8), kTime), nullptr);
    EXPECT_EQ(backend.contextsMade(), 1);  // one context for the composer's life
}

}  // namespace
}  // namespace gb
