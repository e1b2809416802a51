#include "linux/test_camera.h"

#include <gtest/gtest.h>

#include <algorithm>
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

int saturation(const Bgra& p) {
    return std::max({p.r, p.g, p.b}) - std::min({p.r, p.g, p.b});
}

TEST(TestCamera, IsAVirtualCameraOfferedLastAndOnlyWhenAskedFor) {
    const CameraDeviceInfo info = makeTestCamera()->info();
    // "Virtual" in the name: a real camera is always preferred to it.
    EXPECT_EQ(info.localizedName, "Glimmerbox Virtual Test Camera");
    EXPECT_EQ(info.uniqueID, "glimmerbox-test-camera");
    EXPECT_TRUE(info.connected);
    ASSERT_GE(info.activeFormatIndex, 0);
    EXPECT_EQ(info.formats[static_cast<size_t>(info.activeFormatIndex)], (CameraFormat{1280, 720}));

    const auto without = discoverCameras(false);
    for (const auto& camera : without) EXPECT_NE(camera->info().uniqueID, info.uniqueID);
    const auto with = discoverCameras(true);
    ASSERT_EQ(with.size(), without.size() + 1);
    EXPECT_EQ(with.back()->info().uniqueID, info.uniqueID);
}

TEST(TestCamera, DeliversThirtyFramesASecondAtTheChosenSizeAndDropsWhileAllAreHeld) {
    fakes::LogCapture log;
    const CaptureDeviceRef camera = makeTestCamera();
    const auto formats = camera->info().formats;
    const auto small = std::find(formats.begin(), formats.end(), CameraFormat{640, 480});
    ASSERT_NE(small, formats.end());
    ASSERT_TRUE(camera->lockForConfiguration().ok());
    camera->setActiveFormat(static_cast<int>(small - formats.begin()));
    camera->unlockForConfiguration();
    auto input = dynamic_cast<InputMakingDevice&>(*camera).makeInput();
    ASSERT_TRUE(input.ok());
    CaptureSource& source = fakes::sourceOf(input.value());

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
    EXPECT_EQ(frames.last()->timing().duration, MediaTime::make(1, 30));
    EXPECT_EQ(frames.last()->imageBuffer()->width(), 640);
    EXPECT_EQ(frames.last()->imageBuffer()->height(), 480);
    EXPECT_LE(frames.distinctAddresses(), 4U);  // pooled

    FrameCollector slowConsumer(/*holdAll=*/true);
    ASSERT_TRUE(source.start(slowConsumer.deliver()).ok());
    ASSERT_TRUE(slowConsumer.waitForCount(4));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // ~9 more frames fall due
    source.stop();
    EXPECT_EQ(slowConsumer.held().size(), 4U);  // the pool's slots
    const auto totals =
        log.linesStartingWith({"📷 Camera Glimmerbox Virtual Test Camera: 4 frames delivered, "});
    ASSERT_EQ(totals.size(), 1U);
    EXPECT_EQ(totals[0].find(", 0 dropped"), std::string::npos) << totals[0];
}

TEST(TestCamera, PatternIsOpaqueSaturatedSurvivesChromaSubsamplingAndMoves) {
    const int width = 640;
    const int height = 480;
    std::vector<uint8_t> a(width * height * 4);
    std::vector<uint8_t> b(width * height * 4);
    drawTestCameraFrame(a.data(), width, height, width * 4, 0);
    drawTestCameraFrame(b.data(), width, height, width * 4, 45);  // 1.5 s later
    const auto frameA = PixelBuffer::wrap(width, height, width * 4, a.data(), {});
    const auto frameB = PixelBuffer::wrap(width, height, width * 4, b.data(), {});
    // Every 2x2 block is one colour, so 4:2:0 chroma loses nothing; every pixel is opaque and
    // strongly coloured, so the overlay stands out.
    for (int y = 0; y < height; y += 2) {
        for (int x = 0; x < width; x += 2) {
            const Bgra p = fakes::channelsAt(*frameB, x, y);
            ASSERT_EQ(p.a, 255) << x << "," << y;
            ASSERT_GE(saturation(p), 150) << x << "," << y;
            for (auto [dx, dy] : {std::pair{1, 0}, std::pair{0, 1}, std::pair{1, 1}}) {
                const Bgra q = fakes::channelsAt(*frameB, x + dx, y + dy);
                ASSERT_TRUE(p.r == q.r && p.g == q.g && p.b == q.b && p.a == q.a) << x << "," << y;
            }
        }
    }
    // The bottom band changes between the two moments; the bars do not.
    EXPECT_EQ(std::memcmp(a.data(), b.data(), static_cast<size_t>(width) * 4 * height / 2), 0);
    EXPECT_NE(std::memcmp(a.data(), b.data(), a.size()), 0);
}

}  // namespace
}  // namespace gb::linuxp
