#include "composition/video_composer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
#include <vector>

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

class FailingSampleMaker final : public SampleMaker {
public:
    SampleBufferRef makeVideoSample(const PixelBufferRef&, const SampleTiming&) override {
        return nullptr;
    }
};

// ---- placement -------------------------------------------------------------------------------

struct PlacementCase {
    int width, height;
    CameraOverlayPreset preset;
    CameraPosition position;
    double x, y;
};

class OverlayPlacementTest : public ::testing::TestWithParam<PlacementCase> {};

TEST_P(OverlayPlacementTest, KeepsFiftyPixelsFromItsCorner) {
    const PlacementCase& c = GetParam();
    const Point p = VideoComposer::overlayPosition(c.width, c.height, c.position, size(c.preset),
                                                   VideoComposer::kOverlayMargin);
    EXPECT_EQ(p.x, c.x);
    EXPECT_EQ(p.y, c.y);
}

using P = CameraPosition;
using S = CameraOverlayPreset;
INSTANTIATE_TEST_SUITE_P(
    EveryCornerAndPreset, OverlayPlacementTest,
    ::testing::Values(PlacementCase{1920, 1080, S::small, P::topLeft, 50, 50},
                      PlacementCase{1920, 1080, S::small, P::topRight, 1630, 50},
                      PlacementCase{1920, 1080, S::small, P::bottomLeft, 50, 895},
                      PlacementCase{1920, 1080, S::small, P::bottomRight, 1630, 895},
                      PlacementCase{1920, 1080, S::medium, P::topLeft, 50, 50},
                      PlacementCase{1920, 1080, S::medium, P::topRight, 1550, 50},
                      PlacementCase{1920, 1080, S::medium, P::bottomLeft, 50, 850},
                      PlacementCase{1920, 1080, S::medium, P::bottomRight, 1550, 850},
                      PlacementCase{1920, 1080, S::large, P::topLeft, 50, 50},
                      PlacementCase{1920, 1080, S::large, P::topRight, 1390, 50},
                      PlacementCase{1920, 1080, S::large, P::bottomLeft, 50, 760},
                      PlacementCase{1920, 1080, S::large, P::bottomRight, 1390, 760},
                      // Smaller than the overlay plus margins: the placement leaves the frame.
                      PlacementCase{200, 100, S::medium, P::topLeft, 50, 50},
                      PlacementCase{200, 100, S::medium, P::topRight, -170, 50},
                      PlacementCase{200, 100, S::medium, P::bottomLeft, 50, -130},
                      PlacementCase{200, 100, S::medium, P::bottomRight, -170, -130},
                      PlacementCase{200, 100, S::large, P::bottomRight, -330, -220}));

TEST(OverlayPlacementTest, SizesAndMarginAreTruncated) {
    const Point p = VideoComposer::overlayPosition(1000, 500, P::bottomRight, {100.9, 50.9}, 10.7);
    EXPECT_EQ(p.x, 1000 - 100 - 10);
    EXPECT_EQ(p.y, 500 - 50 - 10);
}

class VideoComposerImagePathTest : public ::testing::Test {
protected:
    FakeImageCompositionBackend backend;
    ScriptedBufferFactory buffers;
    StandardSampleMaker maker;
    VideoComposer composer{backend, buffers, maker};
    LogCapture log;
};

// ---- both paths on real pixels ----------------------------------------------------------------

enum class Path { image, pixel };

class ComposedFrameTest : public ::testing::TestWithParam<Path> {
protected:
    ComposedFrameTest() {
        // The pixel path is taken when the first buffer of a frame cannot be had.
        if (GetParam() == Path::pixel) buffers.fails = [](int call) { return call % 2 == 0; };
    }
    bool pixelPath() const { return GetParam() == Path::pixel; }

    CpuImageCompositor backend;
    ScriptedBufferFactory buffers;
    StandardSampleMaker maker;
    VideoComposer composer{backend, buffers, maker};
    LogCapture log;
};

TEST_P(ComposedFrameTest, OverlayCoversItsCornerExactly) {
    const auto screen = solidBuffer(1920, 1080, kScreen);
    const auto camera = solidBuffer(1280, 720, kCamera);
    const auto sample = composer.composeFrame(screen, camera, kTime);
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
            if (!inside) {
                ASSERT_EQ(pixelAt(out, x, y), kScreen) << x << "," << y;
            } else if (!cornerCut) {
                ASSERT_EQ(pixelAt(out, x, y), kCamera) << x << "," << y;
            }
        }
    }
    if (pixelPath()) {
        // Radius 20: (0,0) and (19,0) keep the screen, (20,0) and (tw-20,0) show the camera.
        EXPECT_EQ(pixelAt(out, 1550 + 0, 850), kScreen);
        EXPECT_EQ(pixelAt(out, 1550 + 19, 850), kScreen);
        EXPECT_EQ(pixelAt(out, 1550 + 20, 850), kCamera);
        EXPECT_EQ(pixelAt(out, 1550 + 300, 850), kCamera);
        EXPECT_EQ(pixelAt(out, 1550 + 319, 850), kScreen);
        EXPECT_EQ(pixelAt(out, 1550, 850 + 19), kScreen);
        EXPECT_EQ(pixelAt(out, 1550, 850 + 20), kCamera);
        EXPECT_EQ(pixelAt(out, 1550 + 319, 850 + 179), kScreen);
        EXPECT_EQ(pixelAt(out, 1550 + 6, 850 + 6), kCamera);  // inside the arc
        EXPECT_EQ(pixelAt(out, 1550 + 5, 850 + 5), kScreen);  // outside it
        EXPECT_THAT(log.lines(),
                    ElementsAre("🎬 Overlaying camera: target(320x180) actual(1280x720) onto "
                                "screen(1920x1080)",
                                "📍 Camera positioned at: Bottom Right -> (1550, 850)"));
    } else {
        EXPECT_EQ(pixelAt(out, 1550, 850), kCamera);  // square corners
        EXPECT_EQ(pixelAt(out, 1869, 1029), kCamera);
        EXPECT_THAT(log.lines(), IsEmpty());
    }
    // Far away, the screen is untouched.
    EXPECT_EQ(pixelAt(out, 0, 0), kScreen);
    EXPECT_EQ(pixelAt(out, 1919, 1079), kScreen);
}

// Bad input: composed without touching memory outside any buffer (AddressSanitizer watches).
struct BadInput {
    const char* name;
    int screenWidth, screenHeight;
    size_t screenPadding;
    int cameraWidth, cameraHeight;
    size_t cameraPadding;
};

TEST_P(ComposedFrameTest, BadInputStaysInsideEveryBuffer) {
    const std::vector<BadInput> cases = {
        {"camera0x0", 1920, 1080, 0, 0, 0, 0},
        {"camera1x1", 1920, 1080, 0, 1, 1, 0},
        {"camera1x1Padded", 640, 360, 12, 1, 1, 60},
        {"screenSmallerThanOverlay", 100, 60, 0, 1280, 720, 0},
        {"screenTiny", 1, 1, 0, 1280, 720, 0},
        {"paddedRows", 1280, 720, 256, 641, 479, 36},
        {"paddedNarrowCamera", 500, 300, 4, 3, 700, 4},
    };
    for (const BadInput& c : cases) {
        SCOPED_TRACE(c.name);
        buffers.bytesPerRowPadding = 0;
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
            EXPECT_EQ(pixelAt(out, 1500, 900), kScreen);  // nothing to lay over
        }
        if (c.cameraWidth == 1 && c.screenWidth == 1920) {
            EXPECT_EQ(pixelAt(out, 1700, 900), kCamera);  // one pixel fills the overlay
        }
        if (c.screenWidth == 100) {
            // The overlay's visible part: columns 0-49, rows 0-9.
            EXPECT_EQ(pixelAt(out, 0, 0), kCamera);
            EXPECT_EQ(pixelAt(out, 40, 5), kCamera);
            if (!pixelPath()) {
                EXPECT_EQ(pixelAt(out, 50, 0), kScreen);
                EXPECT_EQ(pixelAt(out, 0, 10), kScreen);
            }
        }
        if (c.screenPadding == 256) {
            EXPECT_EQ(pixelAt(out, 0, 0), kScreen);
            EXPECT_EQ(pixelAt(out, 1279, 719), kScreen);
            EXPECT_EQ(pixelAt(out, 1000, 550), kCamera);
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

// ---- pixel path specifics --------------------------------------------------------------------

// The pixel path is taken when the first buffer of a frame cannot be had.
class VideoComposerPixelPathTest : public ::testing::Test {
protected:
    VideoComposerPixelPathTest() {
        buffers.fails = [](int call) { return call == 0; };
    }

    CpuImageCompositor backend;
    ScriptedBufferFactory buffers;
    StandardSampleMaker maker;
    VideoComposer composer{backend, buffers, maker};
    LogCapture log;
};

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
    const auto expectSource = [&](int i, int j) {
        const int sx = i * 640 / 240, sy = j * 480 / 135;
        EXPECT_EQ(pixelAt(*out, 50 + i, 50 + j), pixelAt(*camera, sx, sy)) << i << "," << j;
    };
    expectSource(20, 0);
    expectSource(100, 67);
    expectSource(219, 134);
    expectSource(239, 60);
    expectSource(0, 100);
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
    EXPECT_EQ(log.lines().size(), 2u);

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

// ---- samples ---------------------------------------------------------------------------------

TEST_F(VideoComposerImagePathTest, PlainSampleAndAFrameWithoutCameraWrapTheBufferUnchanged) {
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

TEST(VideoComposerSampleTest, NoSampleWhenTheSampleCannotBeMade) {
    CpuImageCompositor backend;
    ScriptedBufferFactory buffers;
    FailingSampleMaker maker;
    VideoComposer composer(backend, buffers, maker);
    EXPECT_EQ(composer.createSampleBuffer(exactBuffer(4, 4), kTime), nullptr);
    EXPECT_EQ(
        composer.composeFrame(solidBuffer(64, 48, kScreen), solidBuffer(4, 4, kCamera), kTime),
        nullptr);
}

}  // namespace
}  // namespace gb
