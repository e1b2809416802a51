// Guards against: cameras of the wrong kind (built-in, external, virtual); a busy camera that is not reported as in use, corrupt MJPEG frames that stall or crash the capture, and a camera that vanishes mid-recording hanging the stream or leaking handles.
#include "linux/v4l2/v4l2_camera.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <vector>

#include "fakes/fake_v4l2.h"
#include "fakes/frame_collector.h"
#include "fakes/log_capture.h"
#include "fakes/pixel_buffers.h"
#include "fakes/processes.h"
#include "linux/capture/monotonic_clock.h"
#include "linux/v4l2/camera_common.h"

namespace gb::linuxp {
namespace {

using fakes::FakePixelFormat;
using fakes::FakeV4l2;
using fakes::FakeV4l2Node;
using fakes::FrameCollector;
using fakes::LogCapture;

constexpr const char* kPath = "/dev/video0";

struct Rgb {
    int r, g, b;
};
constexpr Rgb kGreen{0, 255, 0};
constexpr Rgb kMagenta{255, 0, 255};

// A 64x48 Motion JPEG frame (4:2:2, as webcams send), left half green, right half magenta.
std::vector<uint8_t> greenMagentaJpeg() {
    const std::string jpeg =
        fakes::runCommand({"ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                           "color=0x00ff00:s=32x48[l];color=0xff00ff:s=32x48[r];[l][r]hstack[out0]",
                           "-frames:v", "1", "-pix_fmt", "yuvj422p", "-q:v", "2", "-f", "mjpeg",
                           "-"})
            .value_or("");
    return {jpeg.begin(), jpeg.end()};
}

// The left half of `image` is `left` and the right half `right`, give or take `tolerance`.
void expectHalves(const PixelBuffer& image, Rgb left, Rgb right, int tolerance) {
    const int w = image.width(), h = image.height();
    for (auto [x, y] : {std::pair{w / 8, h / 4},
                        {3 * w / 8, 3 * h / 4},
                        {5 * w / 8, h / 8},
                        {7 * w / 8, 7 * h / 8}}) {
        const Rgb c = x < w / 2 ? left : right;
        const fakes::Bgra p = fakes::channelsAt(image, x, y);
        const int error = std::max({std::abs(p.r - c.r), std::abs(p.g - c.g), std::abs(p.b - c.b)});
        EXPECT_TRUE(error <= tolerance && p.a == 255) << x << "," << y << ": " << error;
    }
}

// A camera that streams one format at one size.
FakeV4l2Node smallCamera(uint32_t fourcc, uint32_t width, uint32_t height,
                         std::string path = kPath) {
    FakeV4l2Node node;
    node.path = std::move(path);
    node.card = "Small Cam";
    node.formats = {{fourcc, {{width, height}}}};
    node.currentFourcc = fourcc;
    node.currentWidth = width;
    node.currentHeight = height;
    return node;
}

// One camera node in a fake device world, and the capture source of its input.
class V4l2CaptureTest : public ::testing::Test {
protected:
    // Adds the node and makes the input of its camera; null when that fails.
    CaptureSource* capture(FakeV4l2Node node) {
        fake.addNode(std::move(node));
        const auto cameras = discoverV4l2Cameras(fake);
        if (cameras.size() != 1) return nullptr;
        camera = std::dynamic_pointer_cast<V4l2CameraDevice>(cameras.front());
        auto made = camera->makeInput();
        if (!made.ok()) return nullptr;
        input = made.value();
        return &fakes::sourceOf(input);
    }
    void push(const std::vector<uint8_t>& frame, uint32_t flags = 0) {
        ASSERT_TRUE(fake.pushFrame(kPath, frame, flags));
    }

    LogCapture log;
    FakeV4l2 fake;
    std::shared_ptr<V4l2CameraDevice> camera;
    std::shared_ptr<CaptureInput> input;
};

TEST_F(V4l2CaptureTest, DeviceHeldByAnotherProgramIsSuspendedAndRefusesTheLockAndTheInput) {
    FakeV4l2Node node = smallCamera(V4L2_PIX_FMT_MJPEG, 64, 48);
    node.card = "HD Webcam";
    node.busy = true;
    EXPECT_EQ(capture(node), nullptr);  // the stream opens with the input: the set-up fails
    EXPECT_TRUE(camera->info().connected);
    EXPECT_TRUE(camera->info().suspended);
    for (const Result<void>& refused :
         {camera->lockForConfiguration(), Result<void>(camera->makeInput().error())}) {
        ASSERT_FALSE(refused.ok());
        EXPECT_EQ(refused.error().localizedDescription,
                  "Camera HD Webcam is in use by another program");
    }
    EXPECT_EQ(fake.openHandles(), 0U);
    // Free again; and our own capture does not make it look busy.
    fake.setBusy(kPath, false);
    EXPECT_FALSE(camera->info().suspended);
    input = camera->makeInput().value();
    CaptureSource* source = &fakes::sourceOf(input);
    FrameCollector frames;
    ASSERT_TRUE(source->start(frames.deliver()).ok());
    EXPECT_FALSE(camera->info().suspended);
    EXPECT_TRUE(camera->lockForConfiguration().ok());
    camera->unlockForConfiguration();
    source->stop();
}

TEST_F(V4l2CaptureTest, MjpegIsDecodedCorruptFramesCountedAndAVanishedCameraEndsTheStream) {
    const std::vector<uint8_t> jpeg = greenMagentaJpeg();
    ASSERT_FALSE(jpeg.empty());
    fake.addLink("usb-Small_Cam-video-index0", kPath);
    CaptureSource* source = capture(smallCamera(V4L2_PIX_FMT_MJPEG, 64, 48));
    ASSERT_NE(source, nullptr);
    FrameCollector frames;
    ASSERT_TRUE(source->start(frames.deliver()).ok());
    ASSERT_FALSE(source->start(frames.deliver()).ok());  // already running
    // More unreadable frames than the pool has slots: none may keep its slot.
    for (int i = 0; i < 5; ++i) push(std::vector<uint8_t>(500, 0x5a));  // not a JPEG
    push(jpeg, V4L2_BUF_FLAG_ERROR);                                    // the driver flagged it
    push(jpeg);
    ASSERT_TRUE(frames.waitForCount(1));
    const PixelBuffer& image = *frames.last()->imageBuffer();
    EXPECT_TRUE(image.width() == 64 && image.height() == 48);
    expectHalves(image, kGreen, kMagenta, 12);

    fake.disappear(kPath);
    ASSERT_TRUE(log.waitForContaining("stopped delivering frames"));
    const auto begin = std::chrono::steady_clock::now();
    source->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_EQ(frames.count(), 1U);
    EXPECT_EQ(log.count("📷 Camera Small Cam stopped delivering frames (No such device) - the "
                        "recording goes on without new camera frames"),
              1U);
    EXPECT_EQ(log.count("📷 Camera Small Cam: 1 frames delivered, 0 dropped (no free buffer), "
                        "6 unreadable"),
              1U);
    EXPECT_EQ(fake.openHandles(), 0U);
    const CameraDeviceInfo info = camera->info();
    EXPECT_FALSE(info.connected);
    EXPECT_EQ(info.localizedName, "Small Cam");  // the last known description stays
    EXPECT_FALSE(camera->lockForConfiguration().ok());
    EXPECT_FALSE(camera->makeInput().ok());
}

TEST(V4l2CameraDiscovery, AttachmentComesFromTheDeviceTreeAndLoopbackDevicesAreListed) {
    namespace fs = std::filesystem;
    LogCapture log;
    fakes::TempDirectory sys;
    FakeV4l2 fake;
    fake.sysfs = sys.path();
    const std::string usb = sys / "devices/pci0000:00/0000:00:14.0/usb1/";
    const std::map<std::string, std::string> parents = {
        {"video0", usb + "1-5/1-5:1.0"}, {"video2", usb + "1-2/1-2:1.0"},
        {"video6", sys / "devices/platform/soc/camera0"}, {"video8", ""}};
    for (const auto& [node, parent] : parents) {
        fs::create_directories(sys / ("class/video4linux/" + node));
        if (parent.empty()) continue;
        fs::create_directories(parent);
        fs::create_directory_symlink(parent, sys / ("class/video4linux/" + node + "/device"));
        fake.addNode(smallCamera(V4L2_PIX_FMT_YUYV, 64, 48, "/dev/" + node));
    }
    std::ofstream(usb + "1-5/removable") << "fixed\n";
    std::ofstream(usb + "1-2/removable") << "removable\n";
    FakeV4l2Node loopback = smallCamera(V4L2_PIX_FMT_YUYV, 64, 48, "/dev/video4");
    loopback.deviceCaps = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING;
    loopback.busInfo = "platform:v4l2loopback-000";
    fake.addNode(loopback);
    fake.addNode(smallCamera(V4L2_PIX_FMT_YUYV, 64, 48, "/dev/video8"));  // in the tree, with no hardware behind it
    const auto cameras = discoverV4l2Cameras(fake);
    std::vector<CameraAttachment> kinds;
    for (const auto& camera : cameras) kinds.push_back(camera->info().attachment);
    using enum CameraAttachment;
    EXPECT_EQ(kinds, (std::vector{fixed, removable, fixed, software, software}));
}

}  // namespace
}  // namespace gb::linuxp
