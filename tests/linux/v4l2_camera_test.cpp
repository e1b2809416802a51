// V4L2 cameras through a fake device world (tests/fakes/fake_v4l2.h).
#include "linux/v4l2_camera.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include "fakes/fake_v4l2.h"
#include "fakes/frame_collector.h"
#include "fakes/log_capture.h"
#include "fakes/pixel_buffers.h"
#include "linux/camera_access.h"
#include "linux/camera_common.h"
#include "linux/camera_frame_converter.h"
#include "linux/monotonic_clock.h"

namespace gb::linuxp {
namespace {

using fakes::FakeFrameSize;
using fakes::FakePixelFormat;
using fakes::FakeV4l2;
using fakes::FakeV4l2Node;
using fakes::FrameCollector;
using fakes::LogCapture;

constexpr const char* kPath = "/dev/video0";

struct Rgb {
    int r, g, b;
};
constexpr Rgb kRed{255, 0, 0};
constexpr Rgb kBlue{0, 0, 255};
constexpr Rgb kGreen{0, 255, 0};
constexpr Rgb kMagenta{255, 0, 255};

// BT.601 Y, U, V: video range as webcams send raw YUV, full range as JPEG stores it.
std::array<int, 3> yuv(Rgb c, bool fullRange) {
    const auto v = [](double x) {
        return static_cast<int>(std::lround(std::clamp(x, 0.0, 255.0)));
    };
    if (fullRange) {
        return {v(0.299 * c.r + 0.587 * c.g + 0.114 * c.b),
                v(128 - 0.168736 * c.r - 0.331264 * c.g + 0.5 * c.b),
                v(128 + 0.5 * c.r - 0.418688 * c.g - 0.081312 * c.b)};
    }
    return {v(16 + 0.257 * c.r + 0.504 * c.g + 0.098 * c.b),
            v(128 - 0.148 * c.r - 0.291 * c.g + 0.439 * c.b),
            v(128 + 0.439 * c.r - 0.368 * c.g - 0.071 * c.b)};
}

// Left half one colour, right half another; `stride` may exceed 2 * width.
std::vector<uint8_t> yuyvHalves(int width, int height, size_t stride, Rgb left, Rgb right) {
    std::vector<uint8_t> frame(stride * static_cast<size_t>(height), 0);
    for (int row = 0; row < height; ++row) {
        for (int x = 0; x < width; x += 2) {
            const auto [y, u, v] = yuv(x < width / 2 ? left : right, false);
            uint8_t* p = frame.data() + row * stride + static_cast<size_t>(x) * 2;
            p[0] = p[2] = static_cast<uint8_t>(y);
            p[1] = static_cast<uint8_t>(u);
            p[3] = static_cast<uint8_t>(v);
        }
    }
    return frame;
}

// A Motion JPEG frame (4:2:2, as webcams send), left half one colour, right half another.
std::vector<uint8_t> jpegHalves(int width, int height, Rgb left, Rgb right) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    if (!codec) return {};
    std::unique_ptr<AVCodecContext, void (*)(AVCodecContext*)> context(
        avcodec_alloc_context3(codec), [](AVCodecContext* c) { avcodec_free_context(&c); });
    context->width = width;
    context->height = height;
    context->pix_fmt = AV_PIX_FMT_YUVJ422P;
    context->time_base = {1, 30};
    context->flags |= AV_CODEC_FLAG_QSCALE;
    context->global_quality = FF_QP2LAMBDA * 2;  // near-lossless
    if (avcodec_open2(context.get(), codec, nullptr) < 0) return {};

    std::unique_ptr<AVFrame, void (*)(AVFrame*)> frame(av_frame_alloc(),
                                                       [](AVFrame* f) { av_frame_free(&f); });
    frame->format = AV_PIX_FMT_YUVJ422P;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 0) < 0) return {};
    for (int row = 0; row < height; ++row) {
        for (int x = 0; x < width; ++x) {
            const auto [y, u, v] = yuv(x < width / 2 ? left : right, true);
            frame->data[0][row * frame->linesize[0] + x] = static_cast<uint8_t>(y);
            frame->data[1][row * frame->linesize[1] + x / 2] = static_cast<uint8_t>(u);
            frame->data[2][row * frame->linesize[2] + x / 2] = static_cast<uint8_t>(v);
        }
    }
    frame->pts = 0;
    frame->quality = context->global_quality;
    if (avcodec_send_frame(context.get(), frame.get()) < 0) return {};
    std::unique_ptr<AVPacket, void (*)(AVPacket*)> packet(av_packet_alloc(),
                                                          [](AVPacket* p) { av_packet_free(&p); });
    if (avcodec_receive_packet(context.get(), packet.get()) < 0) return {};
    return std::vector<uint8_t>(packet->data, packet->data + packet->size);
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
        EXPECT_LE(std::max({std::abs(p.r - c.r), std::abs(p.g - c.g), std::abs(p.b - c.b)}),
                  tolerance)
            << x << "," << y;
        EXPECT_EQ(p.a, 255) << x << "," << y;
    }
}

FakePixelFormat pixelFormat(uint32_t fourcc, std::vector<FakeFrameSize> sizes) {
    FakePixelFormat f;
    f.fourcc = fourcc;
    f.sizes = std::move(sizes);
    return f;
}

// YUYV at 640x480 and 1280x720, H.264 at 1080p, MJPEG at 720p, 1080p and 320x240; set to 720p.
FakeV4l2Node webcam(std::string path = kPath) {
    FakeV4l2Node node;
    node.path = std::move(path);
    node.formats = {
        pixelFormat(V4L2_PIX_FMT_YUYV,
                    {FakeFrameSize::discrete(640, 480), FakeFrameSize::discrete(1280, 720)}),
        pixelFormat(V4L2_PIX_FMT_H264, {FakeFrameSize::discrete(1920, 1080)}),
        pixelFormat(V4L2_PIX_FMT_MJPEG,
                    {FakeFrameSize::discrete(1280, 720), FakeFrameSize::discrete(1920, 1080),
                     FakeFrameSize::discrete(320, 240)}),
    };
    node.currentWidth = 1280;
    node.currentHeight = 720;
    return node;
}

// A camera that streams one format at one size.
FakeV4l2Node smallCamera(uint32_t fourcc, uint32_t width, uint32_t height,
                         std::string path = kPath) {
    FakeV4l2Node node;
    node.path = std::move(path);
    node.card = "Small Cam";
    node.formats = {pixelFormat(fourcc, {FakeFrameSize::discrete(width, height)})};
    node.currentFourcc = fourcc;
    node.currentWidth = width;
    node.currentHeight = height;
    return node;
}

std::vector<CameraFormat> sizes(std::initializer_list<std::pair<int, int>> list) {
    std::vector<CameraFormat> formats;
    for (auto [w, h] : list) formats.push_back(CameraFormat{w, h});
    return formats;
}

std::shared_ptr<V4l2CameraDevice> onlyCamera(FakeV4l2& fake) {
    auto cameras = discoverV4l2Cameras(fake);
    if (cameras.size() != 1) return nullptr;
    return std::dynamic_pointer_cast<V4l2CameraDevice>(cameras.front());
}

// One camera node in a fake device world, and the capture source of its input.
class V4l2CaptureTest : public ::testing::Test {
protected:
    // Adds the node and makes the input of its camera; null when that fails.
    CaptureSource* capture(FakeV4l2Node node) {
        fake.addNode(std::move(node));
        camera = onlyCamera(fake);
        if (!camera) return nullptr;
        auto made = camera->makeInput();
        if (!made.ok()) return nullptr;
        input = made.value();
        return &fakes::sourceOf(input);
    }
    // Waits for a queued buffer, fills it and waits until `requeues` buffers came back.
    void push(const std::vector<uint8_t>& frame, size_t requeues, uint32_t flags = 0) {
        ASSERT_TRUE(fake.waitForQueuedBuffer(kPath));
        ASSERT_TRUE(fake.pushFrame(kPath, frame, flags));
        ASSERT_TRUE(fake.waitForRequeues(kPath, requeues));
    }
    void choose(int formatIndex) {
        ASSERT_TRUE(camera->lockForConfiguration().ok());
        camera->setActiveFormat(formatIndex);
        camera->unlockForConfiguration();
    }
    void expectReleased() {
        EXPECT_EQ(fake.openDescriptors(), 0U);
        EXPECT_EQ(fake.activeMappings(), 0U);
    }

    LogCapture log;
    FakeV4l2 fake;
    std::shared_ptr<V4l2CameraDevice> camera;
    std::shared_ptr<CaptureInput> input;
};

TEST(V4l2CameraDiscovery, ListsCaptureNodesInDeviceOrderWithTheirConvertibleSizesAndIdentifiers) {
    LogCapture log;
    FakeV4l2 fake;
    fake.addNode(webcam());
    FakeV4l2Node metadata = webcam("/dev/video1");
    metadata.deviceCaps = V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING;
    fake.addNode(metadata);
    FakeV4l2Node codec = webcam("/dev/video2");
    codec.deviceCaps =
        V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING;
    fake.addNode(codec);
    FakeV4l2Node locked = webcam("/dev/video3");
    locked.openErrno = EACCES;
    fake.addNode(locked);
    FakeV4l2Node stepwise = smallCamera(V4L2_PIX_FMT_MJPEG, 640, 480, "/dev/video4");
    stepwise.formats[0].sizes = {FakeFrameSize::stepwise(160, 120, 1920, 1080, 16, 8)};
    stepwise.card = "Desk Cam";
    stepwise.busInfo = "usb-0000:00:14.0-3";
    fake.addNode(stepwise);
    FakeV4l2Node continuous = smallCamera(V4L2_PIX_FMT_YUYV, 640, 480, "/dev/video5");
    continuous.formats[0].sizes = {FakeFrameSize::continuous(100, 100, 800, 600)};
    fake.addNode(continuous);
    FakeV4l2Node tiny = smallCamera(V4L2_PIX_FMT_YUYV, 96, 96, "/dev/video6");
    tiny.formats[0].sizes = {FakeFrameSize::stepwise(32, 32, 96, 96, 2, 2)};
    fake.addNode(tiny);
    fake.addLink("usb-Acme_HD_Webcam_0001-video-index0", "/dev/video0");
    fake.addLink("usb-Acme_HD_Webcam_0001-video-index1", "/dev/video1");

    const auto cameras = discoverV4l2Cameras(fake);
    ASSERT_EQ(cameras.size(), 4U);
    const CameraDeviceInfo info = cameras[0]->info();
    EXPECT_EQ(cameras[0]->mediaType(), MediaType::video);
    EXPECT_EQ(info.localizedName, "HD Webcam");
    EXPECT_EQ(info.uniqueID, "usb-Acme_HD_Webcam_0001-video-index0");
    EXPECT_TRUE(info.connected);
    EXPECT_FALSE(info.suspended);
    // H.264 is skipped; 1280x720 appears once although two formats offer it.
    EXPECT_EQ(info.formats, sizes({{640, 480}, {1280, 720}, {1920, 1080}, {320, 240}}));
    EXPECT_EQ(info.activeFormatIndex, 1);  // VIDIOC_G_FMT says 1280x720
    EXPECT_EQ(log.count("📷 Skipping camera node /dev/video3: Permission denied"), 1U);

    // Without a by-id link: bus and card. Ranges offer the common sizes that fit (960x540 is
    // off the 8-line step from 120), or else the largest the range allows.
    EXPECT_EQ(cameras[1]->info().uniqueID, "usb-0000:00:14.0-3/Desk Cam");
    EXPECT_EQ(cameras[1]->info().formats,
              sizes({{320, 240}, {640, 480}, {1280, 720}, {1920, 1080}}));
    EXPECT_EQ(cameras[1]->info().activeFormatIndex, 1);
    EXPECT_EQ(cameras[2]->info().formats, sizes({{320, 240}, {640, 480}}));
    EXPECT_EQ(cameras[3]->info().formats, sizes({{96, 96}}));
    EXPECT_EQ(fake.openDescriptors(), 0U);
}

TEST_F(V4l2CaptureTest, EachSizeUsesThePixelFormatThatReachesThirtyFramesCheapestAtStart) {
    FakeV4l2Node node = webcam();
    node.formats = {
        pixelFormat(V4L2_PIX_FMT_MJPEG,
                    {FakeFrameSize::discrete(1280, 720), FakeFrameSize::discrete(640, 480)}),
        pixelFormat(V4L2_PIX_FMT_YUYV,
                    {FakeFrameSize::discrete(640, 480), FakeFrameSize::discrete(1280, 720)}),
    };
    node.formats[0].intervals[{1280, 720}] = {{1, 60}, {1, 30}, {1, 15}};
    node.formats[0].intervals[{640, 480}] = {{1, 30}};
    node.formats[1].intervals[{640, 480}] = {{1, 30}, {1, 15}};
    node.formats[1].intervals[{1280, 720}] = {{1, 10}, {1, 5}};  // USB 2 bandwidth
    CaptureSource* source = capture(node);
    ASSERT_NE(source, nullptr);
    ASSERT_EQ(camera->info().formats, sizes({{1280, 720}, {640, 480}}));
    ASSERT_EQ(camera->info().activeFormatIndex, 0);

    camera->setActiveFormat(1);  // not locked
    EXPECT_EQ(camera->info().activeFormatIndex, 0);
    EXPECT_EQ(log.countContaining("not locked for configuration"), 1U);
    // Both reach 30 frames at 640x480: the one that needs no decoding.
    choose(1);
    choose(99);  // ignored
    EXPECT_EQ(camera->info().activeFormatIndex, 1);
    EXPECT_EQ(camera->chosenFormat().pixelFormat, static_cast<uint32_t>(V4L2_PIX_FMT_YUYV));
    choose(0);
    const V4l2Format hd = camera->chosenFormat();
    EXPECT_EQ(hd.pixelFormat, static_cast<uint32_t>(V4L2_PIX_FMT_MJPEG));  // YUYV makes only 10
    EXPECT_EQ(hd.intervalNumerator, 1U);
    EXPECT_EQ(hd.intervalDenominator, 30U);  // not 60: frames beyond the screen's rate are waste
    EXPECT_FALSE(fake.lastSetFormat(kPath).has_value());  // nothing applied before the capture

    FrameCollector frames;
    ASSERT_TRUE(source->start(frames.deliver()).ok());
    source->stop();
    const auto set = fake.lastSetFormat(kPath);
    ASSERT_TRUE(set.has_value());
    EXPECT_EQ(set->pixelformat, static_cast<uint32_t>(V4L2_PIX_FMT_MJPEG));
    EXPECT_EQ(set->width, 1280U);
    EXPECT_EQ(set->height, 720U);
    const auto interval = fake.lastTimePerFrame(kPath);
    ASSERT_TRUE(interval.has_value());
    EXPECT_EQ(interval->denominator, 30U);
}

TEST_F(V4l2CaptureTest, DeviceHeldByAnotherProgramIsSuspendedAndRefusesTheLockAndTheStart) {
    FakeV4l2Node node = webcam();
    node.busy = true;
    CaptureSource* source = capture(node);
    ASSERT_NE(source, nullptr);
    EXPECT_TRUE(camera->info().connected);
    EXPECT_TRUE(camera->info().suspended);
    const Result<void> lock = camera->lockForConfiguration();
    ASSERT_FALSE(lock.ok());
    EXPECT_EQ(lock.error().localizedDescription, "Camera HD Webcam is in use by another program");
    FrameCollector frames;
    const Result<void> started = source->start(frames.deliver());
    ASSERT_FALSE(started.ok());
    EXPECT_EQ(started.error().localizedDescription,
              "Camera HD Webcam is in use by another program");
    EXPECT_EQ(fake.openDescriptors(), 0U);

    // Free again; and our own capture does not make it look busy.
    fake.setBusy(kPath, false);
    EXPECT_FALSE(camera->info().suspended);
    ASSERT_TRUE(source->start(frames.deliver()).ok());
    EXPECT_FALSE(camera->info().suspended);
    EXPECT_TRUE(camera->lockForConfiguration().ok());
    camera->unlockForConfiguration();
    source->stop();

    // A driver that refuses even to open a busy node.
    FakeV4l2 other;
    FakeV4l2Node refusing = webcam();
    refusing.openErrno = EBUSY;
    other.addNode(refusing);
    other.addLink("usb-Acme_HD_Webcam_0001-video-index0", kPath);
    auto busy = onlyCamera(other);
    ASSERT_TRUE(busy);
    EXPECT_TRUE(busy->info().suspended);
    EXPECT_EQ(busy->info().uniqueID, "usb-Acme_HD_Webcam_0001-video-index0");
    const Result<void> busyLock = busy->lockForConfiguration();
    ASSERT_FALSE(busyLock.ok());
    EXPECT_NE(busyLock.error().localizedDescription.find("is in use by another program"),
              std::string::npos);
}

TEST_F(V4l2CaptureTest, YuyvFramesArriveAsStampedBgraAndDropWhileEveryPoolSlotIsHeld) {
    FakeV4l2Node node = smallCamera(V4L2_PIX_FMT_YUYV, 64, 32);
    node.bytesPerLinePadding = 32;  // rows wider than the picture
    CaptureSource* source = capture(node);
    ASSERT_NE(source, nullptr);
    const auto frame = yuyvHalves(64, 32, 64 * 2 + 32, kRed, kBlue);
    FrameCollector slowConsumer(/*holdAll=*/true);
    ASSERT_TRUE(source->start(slowConsumer.deliver()).ok());
    EXPECT_TRUE(fake.streaming(kPath));
    const int64_t before = monotonicNanoseconds();
    push(frame, 1);
    ASSERT_TRUE(slowConsumer.waitForCount(1));
    const int64_t after = monotonicNanoseconds();
    for (size_t i = 2; i <= 7; ++i) push(frame, i);
    source->stop();
    EXPECT_FALSE(fake.streaming(kPath));
    EXPECT_EQ(log.count("📷 Camera Small Cam: 4 frames delivered, 3 dropped (no free buffer), "
                        "0 unreadable"),
              1U);
    const auto held = slowConsumer.held();
    ASSERT_EQ(held.size(), 4U);  // the pool's slots
    EXPECT_EQ(slowConsumer.distinctAddresses(), 4U);
    EXPECT_GE(held[0]->presentationTime().nanoseconds(), before);
    EXPECT_LE(held[0]->presentationTime().nanoseconds(), after);
    const PixelBuffer& image = *held[0]->imageBuffer();  // still valid after the capture
    EXPECT_EQ(image.width(), 64);
    EXPECT_EQ(image.height(), 32);
    EXPECT_EQ(image.pixelFormat(), kPixelFormatBGRA);
    expectHalves(image, kRed, kBlue, 6);
    slowConsumer.release();

    // Restarted, with a consumer that keeps only the newest frame (as the recorder does).
    FrameCollector frames;
    ASSERT_TRUE(source->start(frames.deliver()).ok());
    for (size_t i = 1; i <= 40; ++i) {
        ASSERT_TRUE(fake.waitForQueuedBuffer(kPath));
        ASSERT_TRUE(fake.pushFrame(kPath, frame));
        ASSERT_TRUE(frames.waitForCount(i));
    }
    source->stop();
    EXPECT_LE(frames.distinctAddresses(), 4U);
    const auto times = frames.timesNanoseconds();
    EXPECT_EQ(std::adjacent_find(times.begin(), times.end(), std::greater_equal<>()), times.end());
    expectReleased();
}

TEST_F(V4l2CaptureTest, MjpegFramesAreDecodedCorruptOnesCountedAndDroppingTheInputStopsIt) {
    const std::vector<uint8_t> jpeg = jpegHalves(64, 48, kGreen, kMagenta);
    ASSERT_FALSE(jpeg.empty());
    CaptureSource* source = capture(smallCamera(V4L2_PIX_FMT_MJPEG, 64, 48));
    ASSERT_NE(source, nullptr);
    FrameCollector frames;
    ASSERT_TRUE(source->start(frames.deliver()).ok());
    ASSERT_FALSE(source->start(frames.deliver()).ok());  // already running

    // More unreadable frames than the pool has slots: none may keep its slot.
    for (size_t i = 1; i <= 5; ++i) push(std::vector<uint8_t>(500, 0x5a), i);  // not a JPEG
    push(jpeg, 6, V4L2_BUF_FLAG_ERROR);  // the driver flagged it
    push(jpeg, 7);
    ASSERT_TRUE(frames.waitForCount(1));

    // The capture thread waits on an idle camera; dropping the input stops it at once.
    const auto begin = std::chrono::steady_clock::now();
    input.reset();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_EQ(frames.count(), 1U);
    expectReleased();
    EXPECT_EQ(log.count("📷 Camera Small Cam: 1 frames delivered, 0 dropped (no free buffer), "
                        "6 unreadable"),
              1U);
    // The frame outlives its source and the source's pool.
    const PixelBuffer& image = *frames.last()->imageBuffer();
    EXPECT_EQ(image.width(), 64);
    EXPECT_EQ(image.height(), 48);
    expectHalves(image, kGreen, kMagenta, 12);
}

TEST_F(V4l2CaptureTest, CameraThatVanishesEndsTheStreamWithOneLineAndIsNoLongerConnected) {
    fake.addLink("usb-Small_Cam-video-index0", kPath);
    CaptureSource* source = capture(smallCamera(V4L2_PIX_FMT_YUYV, 32, 16));
    ASSERT_NE(source, nullptr);
    FrameCollector frames;
    ASSERT_TRUE(source->start(frames.deliver()).ok());
    const auto frame = yuyvHalves(32, 16, 64, kRed, kBlue);
    for (size_t i = 1; i <= 2; ++i) push(frame, i);
    ASSERT_TRUE(frames.waitForCount(2));
    fake.disappear(kPath);
    ASSERT_TRUE(log.waitForContaining("stopped delivering frames"));
    EXPECT_FALSE(fake.pushFrame(kPath, frame));

    const auto begin = std::chrono::steady_clock::now();
    source->stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    source->stop();  // again: nothing happens
    EXPECT_EQ(frames.count(), 2U);
    EXPECT_EQ(log.count("📷 Camera Small Cam stopped delivering frames (No such device) - the "
                        "recording goes on without new camera frames"),
              1U);
    EXPECT_EQ(log.countContaining("stopped delivering"), 1U);
    expectReleased();

    const CameraDeviceInfo info = camera->info();
    EXPECT_FALSE(info.connected);
    EXPECT_EQ(info.localizedName, "Small Cam");  // the last known description stays
    EXPECT_FALSE(camera->lockForConfiguration().ok());
    EXPECT_FALSE(camera->makeInput().ok());
}

TEST(CameraFrameConverter, RejectsFormatsItCannotReadAndTruncatedFrames) {
    EXPECT_TRUE(CameraFrameConverter::canConvert(V4L2_PIX_FMT_YUYV));
    EXPECT_TRUE(CameraFrameConverter::canConvert(V4L2_PIX_FMT_MJPEG));
    EXPECT_FALSE(CameraFrameConverter::canConvert(V4L2_PIX_FMT_H264));
    EXPECT_FALSE(CameraFrameConverter::make(V4L2_PIX_FMT_H264, 32, 16, 64, 0).ok());

    auto converter = CameraFrameConverter::make(V4L2_PIX_FMT_YUYV, 32, 16, 64, 0);
    ASSERT_TRUE(converter.ok());
    std::vector<uint8_t> out(32 * 16 * 4);
    const auto frame = yuyvHalves(32, 16, 64, kRed, kBlue);
    EXPECT_FALSE(
        converter.value()->convert(frame.data(), frame.size() / 2, out.data(), 32, 16, 32 * 4));
    EXPECT_TRUE(converter.value()->convert(frame.data(), frame.size(), out.data(), 32, 16, 32 * 4));
}

TEST(CameraAccess, RefusedOnlyWhenEveryNodeRefusesThisUser) {
    FakeV4l2 none;
    EXPECT_TRUE(cameraAccessGranted(none));

    const auto world = [](FakeV4l2& fake, int secondErrno) {
        FakeV4l2Node a = webcam("/dev/video0");
        a.openErrno = EACCES;
        FakeV4l2Node b = webcam("/dev/video1");
        b.openErrno = secondErrno;
        fake.addNode(a);
        fake.addNode(b);
    };
    FakeV4l2 refused;
    world(refused, EPERM);
    EXPECT_FALSE(cameraAccessGranted(refused));
    refused.setOpenErrno("/dev/video1", 0);
    EXPECT_TRUE(cameraAccessGranted(refused));
    EXPECT_EQ(refused.openDescriptors(), 0U);

    FakeV4l2 busy;
    world(busy, EBUSY);  // present and ours to use, just busy
    EXPECT_TRUE(cameraAccessGranted(busy));
}

}  // namespace
}  // namespace gb::linuxp
