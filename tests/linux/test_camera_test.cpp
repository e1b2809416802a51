#include "linux/test_camera.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
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

TEST(TestCamera, IsOfferedLastWhenAskedForAndDeliversThirtyPooledFramesASecond) {
    const auto without = discoverCameras(false);
    const auto with = discoverCameras(true);
    ASSERT_EQ(with.size(), without.size() + 1);
    const CaptureDeviceRef camera = with.back();
    const CameraDeviceInfo info = camera->info();
    // "Virtual" in the name: a real camera is always preferred to it.
    EXPECT_EQ(info.localizedName, "Glimmerbox Virtual Test Camera");
    EXPECT_EQ(info.uniqueID, "glimmerbox-test-camera");
    EXPECT_TRUE(info.connected);
    for (const auto& real : without) EXPECT_NE(real->info().uniqueID, info.uniqueID);
    ASSERT_GE(info.activeFormatIndex, 0);
    EXPECT_EQ(info.formats[static_cast<size_t>(info.activeFormatIndex)], (CameraFormat{1280, 720}));
    const auto small = std::find(info.formats.begin(), info.formats.end(), CameraFormat{640, 480});
    ASSERT_TRUE(small != info.formats.end() && camera->lockForConfiguration().ok());
    camera->setActiveFormat(static_cast<int>(small - info.formats.begin()));
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
    EXPECT_TRUE(std::is_sorted(times.begin(), times.end(), std::less_equal<>()));
    EXPECT_EQ(frames.last()->timing().duration, MediaTime::make(1, 30));
    EXPECT_EQ(frames.last()->imageBuffer()->width(), 640);
    EXPECT_EQ(frames.last()->imageBuffer()->height(), 480);
    EXPECT_LE(frames.distinctAddresses(), 4U);  // pooled
}

TEST(TestCamera, PatternIsOpaqueSaturatedSurvivesChromaSubsamplingAndMoves) {
    const int width = 640, height = 480;
    std::vector<uint8_t> a(width * height * 4), b(width * height * 4);
    drawTestCameraFrame(a.data(), width, height, width * 4, 0);
    drawTestCameraFrame(b.data(), width, height, width * 4, 45);  // 1.5 s later
    const auto frameB = PixelBuffer::wrap(width, height, width * 4, b.data(), {});
    // Every 2x2 block is one colour, so 4:2:0 chroma loses nothing; every pixel is opaque and
    // strongly coloured, so the overlay stands out.
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const Bgra p = fakes::channelsAt(*frameB, x, y);
            ASSERT_TRUE(p.a == 255 && saturation(p) >= 150) << x << "," << y;
            ASSERT_EQ(fakes::pixelAt(*frameB, x, y), fakes::pixelAt(*frameB, x & ~1, y & ~1));
        }
    }
    // The bottom band changes between the two moments; the bars do not.
    EXPECT_EQ(std::memcmp(a.data(), b.data(), static_cast<size_t>(width) * 4 * height / 2), 0);
    EXPECT_NE(std::memcmp(a.data(), b.data(), a.size()), 0);
}

}  // namespace
}  // namespace gb::linuxp
