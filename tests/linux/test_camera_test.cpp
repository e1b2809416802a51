#include "linux/test_camera.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstring>
#include <thread>

#include "fakes/frame_collector.h"
#include "fakes/log_capture.h"
#include "fakes/pixel_buffers.h"
#include "linux/v4l2_camera.h"

namespace gb::linuxp {
namespace {

using fakes::Bgra;
using fakes::FrameCollector;
using fakes::LogCapture;
using fakes::sourceOf;

Bgra pixelAt(const PixelBuffer& image, int x, int y) {
    return fakes::channelsAt(image, x, y);
}

std::shared_ptr<CaptureInput> inputOf(const CaptureDeviceRef& camera) {
    auto input = dynamic_cast<InputMakingDevice&>(*camera).makeInput();
    return input.ok() ? input.value() : nullptr;
}

int saturation(const Bgra& p) {
    return std::max({p.r, p.g, p.b}) - std::min({p.r, p.g, p.b});
}

TEST(TestCamera, DescribesItselfAsAConnectedVirtualCamera) {
    const CaptureDeviceRef camera = makeTestCamera();
    const CameraDeviceInfo info = camera->info();
    EXPECT_EQ(camera->mediaType(), MediaType::video);
    EXPECT_EQ(info.localizedName, "Glimmerbox Virtual Test Camera");
    EXPECT_EQ(info.uniqueID, "glimmerbox-test-camera");
    EXPECT_EQ(info.position, 0);
    EXPECT_TRUE(info.connected);
    EXPECT_FALSE(info.suspended);
    ASSERT_GE(info.activeFormatIndex, 0);
    EXPECT_EQ(info.formats[static_cast<size_t>(info.activeFormatIndex)], (CameraFormat{1280, 720}));
    EXPECT_NE(std::find(info.formats.begin(), info.formats.end(), CameraFormat{640, 480}),
              info.formats.end());

    std::string lower = info.localizedName;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    EXPECT_NE(lower.find("virtual"), std::string::npos);  // a real camera always wins
}

TEST(TestCamera, OnlyOfferedWhenAskedFor) {
    const auto without = discoverCameras(false);
    for (const auto& camera : without) {
        EXPECT_NE(camera->info().uniqueID, "glimmerbox-test-camera");
    }
    const auto with = discoverCameras(true);
    ASSERT_EQ(with.size(), without.size() + 1);
    EXPECT_EQ(with.back()->info().uniqueID, "glimmerbox-test-camera");
}

TEST(TestCamera, DeliversAboutThirtyFramesASecondOnTheMonotonicClock) {
    const CaptureDeviceRef camera = makeTestCamera();
    auto input = inputOf(camera);
    ASSERT_TRUE(input);
    CaptureSource& source = sourceOf(input);
    FrameCollector frames;
    ASSERT_TRUE(source.start(frames.deliver()).ok());
    std::this_thread::sleep_for(std::chrono::seconds(1));
    source.stop();
    const size_t delivered = frames.count();
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(frames.count(), delivered);  // nothing after stop

    // Loose bounds: a shared machine may be slow, but never double the rate.
    EXPECT_GE(delivered, 20U);
    EXPECT_LE(delivered, 34U);
    const auto times = frames.timesNanoseconds();
    ASSERT_GE(times.size(), 2U);
    for (size_t i = 1; i < times.size(); ++i) EXPECT_GT(times[i], times[i - 1]);
    const double meanMs = static_cast<double>(times.back() - times.front()) / 1e6 /
                          static_cast<double>(times.size() - 1);
    EXPECT_GT(meanMs, 30.0);
    EXPECT_LT(meanMs, 50.0);
    const SampleBufferRef last = frames.last();
    ASSERT_TRUE(last);
    EXPECT_EQ(last->timing().duration, MediaTime::make(1, 30));
    EXPECT_LE(frames.distinctAddresses(), 4U);  // pooled
}

TEST(TestCamera, FramesAreOpaqueColourfulAndMove) {
    const CaptureDeviceRef camera = makeTestCamera();
    auto input = inputOf(camera);
    ASSERT_TRUE(input);
    CaptureSource& source = sourceOf(input);
    FrameCollector frames(/*holdAll=*/true);
    ASSERT_TRUE(source.start(frames.deliver()).ok());
    ASSERT_TRUE(frames.waitForCount(4));  // the pool's four slots, all held here
    source.stop();
    const auto held = frames.held();
    ASSERT_GE(held.size(), 4U);

    const PixelBuffer& first = *held.front()->imageBuffer();
    ASSERT_EQ(first.width(), 1280);
    ASSERT_EQ(first.height(), 720);
    size_t strong = 0;
    for (int y = 0; y < first.height(); ++y) {
        for (int x = 0; x < first.width(); ++x) {
            const Bgra p = pixelAt(first, x, y);
            ASSERT_EQ(p.a, 255) << x << "," << y;
            if (saturation(p) >= 150) ++strong;
        }
    }
    EXPECT_EQ(strong, static_cast<size_t>(first.width()) * static_cast<size_t>(first.height()));

    // Different frames differ (the sweeping block moves every frame).
    const PixelBuffer& fourth = *held[3]->imageBuffer();
    EXPECT_NE(std::memcmp(first.baseAddress(), fourth.baseAddress(), first.dataSize()), 0);
}

TEST(TestCamera, PatternSurvivesChromaSubsamplingAndCountsOverTime) {
    const int width = 640;
    const int height = 480;
    std::vector<uint8_t> a(width * height * 4);
    std::vector<uint8_t> b(width * height * 4);
    drawTestCameraFrame(a.data(), width, height, width * 4, 0);
    drawTestCameraFrame(b.data(), width, height, width * 4, 45);  // 1.5 s later
    const auto image = [&](std::vector<uint8_t>& bytes) {
        return PixelBuffer::wrap(width, height, width * 4, bytes.data(), {});
    };
    const auto frameA = image(a);
    const auto frameB = image(b);
    // Every 2x2 block is one colour, so 4:2:0 chroma loses nothing.
    for (int y = 0; y < height; y += 2) {
        for (int x = 0; x < width; x += 2) {
            const Bgra p = pixelAt(*frameB, x, y);
            for (auto [dx, dy] : {std::pair{1, 0}, std::pair{0, 1}, std::pair{1, 1}}) {
                const Bgra q = pixelAt(*frameB, x + dx, y + dy);
                ASSERT_TRUE(p.r == q.r && p.g == q.g && p.b == q.b) << x << "," << y;
            }
        }
    }
    // The border is the same bright colour all round; the top bars start with yellow.
    const Bgra corner = pixelAt(*frameA, 0, 0);
    const Bgra opposite = pixelAt(*frameA, width - 1, height - 1);
    EXPECT_EQ(corner.r, opposite.r);
    EXPECT_EQ(corner.g, opposite.g);
    EXPECT_EQ(corner.b, opposite.b);
    EXPECT_GE(saturation(corner), 200);
    const Bgra firstBar = pixelAt(*frameA, width / 12, height / 4);
    EXPECT_EQ(firstBar.r, 255);
    EXPECT_EQ(firstBar.g, 255);
    EXPECT_EQ(firstBar.b, 0);
    // The bottom band changes between the two moments; the bars do not.
    EXPECT_EQ(std::memcmp(a.data(), b.data(), static_cast<size_t>(width) * 4 * height / 2), 0);
    EXPECT_NE(std::memcmp(a.data(), b.data(), a.size()), 0);
}

TEST(TestCamera, ChosenSizeIsUsedAndHeldFramesAreDroppedAndCounted) {
    LogCapture log;
    const CaptureDeviceRef camera = makeTestCamera();
    ASSERT_TRUE(camera->lockForConfiguration().ok());
    const auto formats = camera->info().formats;
    const auto small = std::find(formats.begin(), formats.end(), CameraFormat{640, 480});
    ASSERT_NE(small, formats.end());
    camera->setActiveFormat(static_cast<int>(small - formats.begin()));
    camera->unlockForConfiguration();
    EXPECT_EQ(camera->info().formats[static_cast<size_t>(camera->info().activeFormatIndex)],
              (CameraFormat{640, 480}));

    auto input = inputOf(camera);
    ASSERT_TRUE(input);
    CaptureSource& source = sourceOf(input);
    FrameCollector slowConsumer(/*holdAll=*/true);
    ASSERT_TRUE(source.start(slowConsumer.deliver()).ok());
    ASSERT_TRUE(slowConsumer.waitForCount(4));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // ~9 more frames fall due
    source.stop();

    const auto held = slowConsumer.held();
    ASSERT_EQ(held.size(), 4U);
    EXPECT_EQ(held[0]->imageBuffer()->width(), 640);
    EXPECT_EQ(held[0]->imageBuffer()->height(), 480);
    const auto lines = log.lines();
    const auto totals = std::find_if(lines.begin(), lines.end(), [](const std::string& line) {
        return line.rfind("📷 Camera Glimmerbox Virtual Test Camera: 4 frames delivered, ", 0) == 0;
    });
    ASSERT_NE(totals, lines.end());
    EXPECT_EQ(totals->find(", 0 dropped"), std::string::npos) << *totals;
}

}  // namespace
}  // namespace gb::linuxp
