#include "linux/v4l2_camera.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <thread>

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

using fakes::Bgra;
using fakes::FakeFrameSize;
using fakes::FakePixelFormat;
using fakes::FakeV4l2;
using fakes::FakeV4l2Node;
using fakes::FrameCollector;
using fakes::LogCapture;
using fakes::sourceOf;

constexpr const char* kPath = "/dev/video0";

// ---- frames in camera formats -----------------------------------------------------------------

struct Rgb {
    int r, g, b;
};
constexpr Rgb kRed{255, 0, 0};
constexpr Rgb kBlue{0, 0, 255};
constexpr Rgb kGreen{0, 255, 0};
constexpr Rgb kMagenta{255, 0, 255};

// BT.601 video range, as webcams send raw YUV.
void toVideoRangeYuv(Rgb c, int& y, int& u, int& v) {
    y = static_cast<int>(std::lround(16 + 0.257 * c.r + 0.504 * c.g + 0.098 * c.b));
    u = static_cast<int>(std::lround(128 - 0.148 * c.r - 0.291 * c.g + 0.439 * c.b));
    v = static_cast<int>(std::lround(128 + 0.439 * c.r - 0.368 * c.g - 0.071 * c.b));
}

// BT.601 full range, as JPEG stores it.
void toFullRangeYuv(Rgb c, int& y, int& u, int& v) {
    const auto clamp = [](double x) {
        return static_cast<int>(std::lround(std::clamp(x, 0.0, 255.0)));
    };
    y = clamp(0.299 * c.r + 0.587 * c.g + 0.114 * c.b);
    u = clamp(128 - 0.168736 * c.r - 0.331264 * c.g + 0.5 * c.b);
    v = clamp(128 + 0.5 * c.r - 0.418688 * c.g - 0.081312 * c.b);
}

// Left half one colour, right half another; `stride` may exceed 2 * width.
std::vector<uint8_t> yuyvHalves(int width, int height, size_t stride, Rgb left, Rgb right) {
    std::vector<uint8_t> frame(stride * static_cast<size_t>(height), 0);
    for (int row = 0; row < height; ++row) {
        for (int x = 0; x < width; x += 2) {
            int y = 0, u = 0, v = 0;
            toVideoRangeYuv(x < width / 2 ? left : right, y, u, v);
            uint8_t* p =
                frame.data() + static_cast<size_t>(row) * stride + static_cast<size_t>(x) * 2;
            p[0] = static_cast<uint8_t>(y);
            p[1] = static_cast<uint8_t>(u);
            p[2] = static_cast<uint8_t>(y);
            p[3] = static_cast<uint8_t>(v);
        }
    }
    return frame;
}

struct CodecContextFree {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameFree {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};

// A Motion JPEG frame (4:2:2, as webcams send), left half one colour, right half another.
std::vector<uint8_t> jpegHalves(int width, int height, Rgb left, Rgb right) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    if (!codec) return {};
    std::unique_ptr<AVCodecContext, CodecContextFree> context(avcodec_alloc_context3(codec));
    context->width = width;
    context->height = height;
    context->pix_fmt = AV_PIX_FMT_YUVJ422P;
    context->time_base = {1, 30};
    context->flags |= AV_CODEC_FLAG_QSCALE;
    context->global_quality = FF_QP2LAMBDA * 2;  // near-lossless
    if (avcodec_open2(context.get(), codec, nullptr) < 0) return {};

    std::unique_ptr<AVFrame, FrameFree> frame(av_frame_alloc());
    frame->format = AV_PIX_FMT_YUVJ422P;
    frame->width = width;
    frame->height = height;
    if (av_frame_get_buffer(frame.get(), 0) < 0) return {};
    for (int row = 0; row < height; ++row) {
        for (int x = 0; x < width; ++x) {
            int y = 0, u = 0, v = 0;
            toFullRangeYuv(x < width / 2 ? left : right, y, u, v);
            frame->data[0][row * frame->linesize[0] + x] = static_cast<uint8_t>(y);
            if (x % 2 == 0) {
                frame->data[1][row * frame->linesize[1] + x / 2] = static_cast<uint8_t>(u);
                frame->data[2][row * frame->linesize[2] + x / 2] = static_cast<uint8_t>(v);
            }
        }
    }
    frame->pts = 0;
    frame->quality = context->global_quality;
    if (avcodec_send_frame(context.get(), frame.get()) < 0) return {};
    std::unique_ptr<AVPacket, PacketFree> packet(av_packet_alloc());
    if (avcodec_receive_packet(context.get(), packet.get()) < 0) return {};
    return std::vector<uint8_t>(packet->data, packet->data + packet->size);
}

void expectColour(const PixelBuffer& image, int x, int y, Rgb expected, int tolerance) {
    const Bgra p = fakes::channelsAt(image, x, y);
    EXPECT_NEAR(p.r, expected.r, tolerance) << "red at " << x << "," << y;
    EXPECT_NEAR(p.g, expected.g, tolerance) << "green at " << x << "," << y;
    EXPECT_NEAR(p.b, expected.b, tolerance) << "blue at " << x << "," << y;
    EXPECT_EQ(p.a, 255) << "alpha at " << x << "," << y;
}

// ---- the fake world ---------------------------------------------------------------------------

FakePixelFormat pixelFormat(uint32_t fourcc, std::vector<FakeFrameSize> sizes) {
    FakePixelFormat f;
    f.fourcc = fourcc;
    f.sizes = std::move(sizes);
    return f;
}

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
    node.currentFourcc = V4L2_PIX_FMT_YUYV;
    node.currentWidth = 1280;
    node.currentHeight = 720;
    return node;
}

// A small camera that streams one format, for the capture tests.
FakeV4l2Node smallCamera(uint32_t fourcc, uint32_t width, uint32_t height) {
    FakeV4l2Node node;
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
        return &sourceOf(input);
    }
    // Waits for a queued buffer, fills it and waits until `requeues` buffers came back.
    void push(const std::vector<uint8_t>& frame, size_t requeues, uint32_t flags = 0) {
        ASSERT_TRUE(fake.waitForQueuedBuffer(kPath));
        ASSERT_TRUE(fake.pushFrame(kPath, frame, flags));
        ASSERT_TRUE(fake.waitForRequeues(kPath, requeues));
    }

    LogCapture log;
    FakeV4l2 fake;
    std::shared_ptr<V4l2CameraDevice> camera;
    std::shared_ptr<CaptureInput> input;
};

// ---- discovery and description ----------------------------------------------------------------

TEST(V4l2CameraDiscovery, ListsCaptureNodesWithConvertibleSizesInDeviceOrder) {
    FakeV4l2 fake;
    fake.addNode(webcam());
    FakeV4l2Node metadata = webcam("/dev/video1");
    metadata.deviceCaps = V4L2_CAP_META_CAPTURE | V4L2_CAP_STREAMING;
    fake.addNode(metadata);
    FakeV4l2Node codec = webcam("/dev/video2");
    codec.deviceCaps =
        V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING;
    fake.addNode(codec);

    const auto cameras = discoverV4l2Cameras(fake);
    ASSERT_EQ(cameras.size(), 1U);
    EXPECT_EQ(cameras[0]->mediaType(), MediaType::video);
    const CameraDeviceInfo info = cameras[0]->info();
    EXPECT_EQ(info.localizedName, "HD Webcam");
    EXPECT_EQ(info.position, 0);
    EXPECT_TRUE(info.connected);
    EXPECT_FALSE(info.suspended);
    // H.264 is skipped; 1280x720 appears once although two formats offer it.
    EXPECT_EQ(info.formats, sizes({{640, 480}, {1280, 720}, {1920, 1080}, {320, 240}}));
    EXPECT_EQ(info.activeFormatIndex, 1);  // VIDIOC_G_FMT says 1280x720
    EXPECT_EQ(fake.openDescriptors(), 0U);
}

TEST(V4l2CameraDiscovery, RangesOfSizesOfferTheCommonSizesThatFit) {
    FakeV4l2 fake;
    FakeV4l2Node stepwise = smallCamera(V4L2_PIX_FMT_MJPEG, 640, 480);
    stepwise.formats[0].sizes = {FakeFrameSize::stepwise(160, 120, 1920, 1080, 16, 8)};
    fake.addNode(stepwise);
    FakeV4l2Node continuous = smallCamera(V4L2_PIX_FMT_YUYV, 640, 480);
    continuous.path = "/dev/video1";
    continuous.formats[0].sizes = {FakeFrameSize::continuous(100, 100, 800, 600)};
    fake.addNode(continuous);
    FakeV4l2Node tiny = smallCamera(V4L2_PIX_FMT_YUYV, 96, 96);
    tiny.path = "/dev/video2";
    tiny.formats[0].sizes = {FakeFrameSize::stepwise(32, 32, 96, 96, 2, 2)};
    fake.addNode(tiny);

    const auto cameras = discoverV4l2Cameras(fake);
    ASSERT_EQ(cameras.size(), 3U);
    // 960x540 is off the 8-line step from 120.
    EXPECT_EQ(cameras[0]->info().formats,
              sizes({{320, 240}, {640, 480}, {1280, 720}, {1920, 1080}}));
    EXPECT_EQ(cameras[0]->info().activeFormatIndex, 1);
    EXPECT_EQ(cameras[1]->info().formats, sizes({{320, 240}, {640, 480}}));
    // No common size fits: the largest the range allows.
    EXPECT_EQ(cameras[2]->info().formats, sizes({{96, 96}}));
}

TEST_F(V4l2CaptureTest, EachSizeUsesThePixelFormatThatReachesThirtyFramesCheapest) {
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
    const auto choose = [&](int index) {
        ASSERT_TRUE(camera->lockForConfiguration().ok());
        camera->setActiveFormat(index);
        camera->unlockForConfiguration();
    };

    choose(0);
    const V4l2Format hd = camera->chosenFormat();
    EXPECT_EQ(hd.pixelFormat, static_cast<uint32_t>(V4L2_PIX_FMT_MJPEG));  // YUYV makes only 10
    EXPECT_EQ(hd.intervalNumerator, 1U);
    EXPECT_EQ(hd.intervalDenominator, 30U);  // not 60: frames beyond the screen's rate are waste
    // Both reach 30 frames: the one that needs no decoding.
    choose(1);
    EXPECT_EQ(camera->chosenFormat().pixelFormat, static_cast<uint32_t>(V4L2_PIX_FMT_YUYV));

    // The capture asks the driver for what was chosen.
    choose(0);
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

TEST(V4l2CameraDiscovery, IdentifierIsTheByIdLinkElseBusAndCard) {
    FakeV4l2 fake;
    fake.addNode(webcam("/dev/video0"));
    FakeV4l2Node second = webcam("/dev/video2");
    second.card = "Desk Cam";
    second.busInfo = "usb-0000:00:14.0-3";
    fake.addNode(second);
    fake.addLink("usb-Acme_HD_Webcam_0001-video-index0", "/dev/video0");
    fake.addLink("usb-Acme_HD_Webcam_0001-video-index1", "/dev/video1");

    const auto cameras = discoverV4l2Cameras(fake);
    ASSERT_EQ(cameras.size(), 2U);
    EXPECT_EQ(cameras[0]->info().uniqueID, "usb-Acme_HD_Webcam_0001-video-index0");
    EXPECT_EQ(cameras[1]->info().uniqueID, "usb-0000:00:14.0-3/Desk Cam");
}

TEST(V4l2CameraDiscovery, UnopenableNodesAreSkippedWithOneLineEach) {
    LogCapture log;
    FakeV4l2 fake;
    FakeV4l2Node locked = webcam("/dev/video0");
    locked.openErrno = EACCES;
    fake.addNode(locked);
    fake.addNode(webcam("/dev/video2"));

    const auto cameras = discoverV4l2Cameras(fake);
    ASSERT_EQ(cameras.size(), 1U);
    EXPECT_EQ(log.count("📷 Skipping camera node /dev/video0: Permission denied"), 1U);
}

TEST(V4l2CameraDiscovery, CameraThatIsGoneIsNotConnected) {
    FakeV4l2 fake;
    fake.addNode(webcam());
    fake.addLink("usb-Acme_HD_Webcam_0001-video-index0", kPath);
    auto camera = onlyCamera(fake);
    ASSERT_TRUE(camera);
    ASSERT_TRUE(camera->info().connected);

    fake.disappear(kPath);
    const CameraDeviceInfo info = camera->info();
    EXPECT_FALSE(info.connected);
    EXPECT_EQ(info.localizedName, "HD Webcam");  // the last known description stays
    EXPECT_FALSE(camera->lockForConfiguration().ok());
    EXPECT_FALSE(camera->makeInput().ok());
}

TEST(V4l2SystemCalls, ListVideoNodesInNumberOrderAndRejectWhatIsNoCamera) {
    V4l2Calls& calls = systemV4l2Calls();
    long previous = -1;
    for (const std::string& path : calls.videoNodePaths()) {
        ASSERT_EQ(path.rfind("/dev/video", 0), 0U) << path;
        const long number = std::stol(path.substr(10));
        EXPECT_GT(number, previous);
        previous = number;
    }
    for (const auto& link : calls.deviceLinks()) EXPECT_EQ(link.targetPath.rfind("/dev/", 0), 0U);

    const int fd = calls.open("/dev/null", O_RDWR);
    ASSERT_GE(fd, 0);
    V4l2Fd owner(calls, fd);
    EXPECT_FALSE(describeV4l2Node(calls, fd, true).has_value());  // VIDIOC_QUERYCAP: ENOTTY
    EXPECT_EQ(errnoText(ENOTTY), "Inappropriate ioctl for device");
}

// ---- busy devices and configuration -----------------------------------------------------------

TEST_F(V4l2CaptureTest, DeviceHeldByAnotherProgramIsSuspendedAndRefusesTheLock) {
    FakeV4l2Node node = webcam();
    node.busy = true;
    CaptureSource* source = capture(node);
    ASSERT_NE(source, nullptr);

    CameraDeviceInfo info = camera->info();
    EXPECT_TRUE(info.connected);
    EXPECT_TRUE(info.suspended);
    const Result<void> lock = camera->lockForConfiguration();
    ASSERT_FALSE(lock.ok());
    EXPECT_EQ(lock.error().localizedDescription, "Camera HD Webcam is in use by another program");
    FrameCollector frames;
    const Result<void> started = source->start(frames.deliver());
    ASSERT_FALSE(started.ok());
    EXPECT_EQ(started.error().localizedDescription,
              "Camera HD Webcam is in use by another program");
    EXPECT_EQ(fake.openDescriptors(), 0U);

    fake.setBusy(kPath, false);
    EXPECT_FALSE(camera->info().suspended);
    EXPECT_TRUE(camera->lockForConfiguration().ok());
    camera->unlockForConfiguration();

    // Our own capture does not make the camera look busy.
    ASSERT_TRUE(source->start(frames.deliver()).ok());
    EXPECT_TRUE(camera->info().connected);
    EXPECT_FALSE(camera->info().suspended);
    EXPECT_TRUE(camera->lockForConfiguration().ok());
    camera->unlockForConfiguration();
    source->stop();
}

TEST(V4l2CameraBusy, NodeThatRefusesToOpenWhileBusyIsListedAsSuspended) {
    FakeV4l2 fake;
    FakeV4l2Node node = webcam();
    node.openErrno = EBUSY;
    fake.addNode(node);
    fake.addLink("usb-Acme_HD_Webcam_0001-video-index0", kPath);

    auto camera = onlyCamera(fake);
    ASSERT_TRUE(camera);
    const CameraDeviceInfo info = camera->info();
    EXPECT_TRUE(info.suspended);
    EXPECT_EQ(info.uniqueID, "usb-Acme_HD_Webcam_0001-video-index0");
    const Result<void> lock = camera->lockForConfiguration();
    ASSERT_FALSE(lock.ok());
    EXPECT_NE(lock.error().localizedDescription.find("is in use by another program"),
              std::string::npos);
}

TEST_F(V4l2CaptureTest, ActiveFormatChangesOnlyWhileLockedAndAppliesAtCaptureStart) {
    CaptureSource* source = capture(webcam());
    ASSERT_NE(source, nullptr);
    camera->setActiveFormat(0);  // not locked
    EXPECT_EQ(camera->info().activeFormatIndex, 1);
    EXPECT_EQ(log.countContaining("not locked for configuration"), 1U);

    ASSERT_TRUE(camera->lockForConfiguration().ok());
    camera->setActiveFormat(3);
    camera->setActiveFormat(99);  // ignored
    camera->unlockForConfiguration();
    EXPECT_EQ(camera->info().activeFormatIndex, 3);
    EXPECT_FALSE(fake.lastSetFormat(kPath).has_value());  // nothing applied yet

    FrameCollector frames;
    ASSERT_TRUE(source->start(frames.deliver()).ok());
    source->stop();
    const auto set = fake.lastSetFormat(kPath);
    ASSERT_TRUE(set.has_value());
    EXPECT_EQ(set->width, 320U);
    EXPECT_EQ(set->height, 240U);
    EXPECT_EQ(set->pixelformat, static_cast<uint32_t>(V4L2_PIX_FMT_MJPEG));
}

// ---- capture ----------------------------------------------------------------------------------

TEST_F(V4l2CaptureTest, YuyvFramesArriveAsBgraStampedWithTheMonotonicClock) {
    FakeV4l2Node node = smallCamera(V4L2_PIX_FMT_YUYV, 64, 32);
    node.bytesPerLinePadding = 32;  // rows wider than the picture
    CaptureSource* source = capture(node);
    ASSERT_NE(source, nullptr);
    EXPECT_EQ(source->mediaType(), MediaType::video);
    FrameCollector frames;
    ASSERT_TRUE(source->start(frames.deliver()).ok());
    EXPECT_TRUE(fake.streaming(kPath));

    const int64_t before = monotonicNanoseconds();
    push(yuyvHalves(64, 32, 64 * 2 + 32, kRed, kBlue), 1);
    ASSERT_TRUE(frames.waitForCount(1));
    const int64_t after = monotonicNanoseconds();

    const SampleBufferRef sample = frames.last();
    ASSERT_TRUE(sample && sample->imageBuffer());
    EXPECT_EQ(sample->mediaType(), MediaType::video);
    const PixelBuffer& image = *sample->imageBuffer();
    EXPECT_EQ(image.width(), 64);
    EXPECT_EQ(image.height(), 32);
    EXPECT_EQ(image.pixelFormat(), kPixelFormatBGRA);
    expectColour(image, 8, 8, kRed, 6);
    expectColour(image, 20, 30, kRed, 6);
    expectColour(image, 44, 4, kBlue, 6);
    expectColour(image, 60, 28, kBlue, 6);
    const int64_t stamp = sample->presentationTime().nanoseconds();
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, after);

    source->stop();
    EXPECT_FALSE(fake.streaming(kPath));
    EXPECT_EQ(fake.openDescriptors(), 0U);
    EXPECT_EQ(fake.activeMappings(), 0U);
    EXPECT_EQ(log.count("📷 Camera Small Cam: 1 frames delivered, 0 dropped (no free buffer), "
                        "0 unreadable"),
              1U);
}

TEST_F(V4l2CaptureTest, MjpegFramesAreDecodedToBgraAndCorruptOnesAreCounted) {
    const std::vector<uint8_t> jpeg = jpegHalves(64, 48, kGreen, kMagenta);
    ASSERT_FALSE(jpeg.empty());
    CaptureSource* source = capture(smallCamera(V4L2_PIX_FMT_MJPEG, 64, 48));
    ASSERT_NE(source, nullptr);
    FrameCollector frames;
    ASSERT_TRUE(source->start(frames.deliver()).ok());

    push(std::vector<uint8_t>(500, 0x5a), 1);  // not a JPEG
    push(jpeg, 2, V4L2_BUF_FLAG_ERROR);        // the driver flagged it
    push(jpeg, 3);
    ASSERT_TRUE(frames.waitForCount(1));

    const SampleBufferRef sample = frames.last();
    ASSERT_TRUE(sample && sample->imageBuffer());
    const PixelBuffer& image = *sample->imageBuffer();
    EXPECT_EQ(image.width(), 64);
    EXPECT_EQ(image.height(), 48);
    expectColour(image, 8, 8, kGreen, 12);
    expectColour(image, 24, 40, kGreen, 12);
    expectColour(image, 40, 8, kMagenta, 12);
    expectColour(image, 56, 40, kMagenta, 12);

    source->stop();
    EXPECT_EQ(frames.count(), 1U);
    EXPECT_EQ(log.count("📷 Camera Small Cam: 1 frames delivered, 0 dropped (no free buffer), "
                        "2 unreadable"),
              1U);
}

TEST_F(V4l2CaptureTest, FramesDropWhenEveryPoolSlotIsHeldDownstream) {
    CaptureSource* source = capture(smallCamera(V4L2_PIX_FMT_YUYV, 32, 16));
    ASSERT_NE(source, nullptr);
    FrameCollector slowConsumer(/*holdAll=*/true);
    ASSERT_TRUE(source->start(slowConsumer.deliver()).ok());

    const auto frame = yuyvHalves(32, 16, 64, kRed, kBlue);
    for (size_t i = 1; i <= 7; ++i) push(frame, i);
    source->stop();
    const auto held = slowConsumer.held();
    ASSERT_EQ(held.size(), 4U);  // the pool's slots
    EXPECT_EQ(slowConsumer.distinctAddresses(), 4U);
    EXPECT_EQ(log.count("📷 Camera Small Cam: 4 frames delivered, 3 dropped (no free buffer), "
                        "0 unreadable"),
              1U);
    // Frames held past the capture stay valid.
    expectColour(*held[0]->imageBuffer(), 4, 4, kRed, 6);
}

TEST_F(V4l2CaptureTest, SteadyStreamReusesThePoolAndTheSourceRestarts) {
    CaptureSource* source = capture(smallCamera(V4L2_PIX_FMT_YUYV, 32, 16));
    ASSERT_NE(source, nullptr);
    const auto frame = yuyvHalves(32, 16, 64, kBlue, kRed);
    for (int run = 0; run < 2; ++run) {
        FrameCollector frames;  // keeps only the newest frame, as the recorder does
        ASSERT_TRUE(source->start(frames.deliver()).ok());
        for (size_t i = 1; i <= 40; ++i) {
            ASSERT_TRUE(fake.waitForQueuedBuffer(kPath));
            ASSERT_TRUE(fake.pushFrame(kPath, frame));
            ASSERT_TRUE(frames.waitForCount(i));
        }
        EXPECT_LE(frames.distinctAddresses(), 4U);  // 40 frames through at most 4 slots
        const auto times = frames.timesNanoseconds();
        EXPECT_EQ(std::adjacent_find(times.begin(), times.end(), std::greater_equal<>()),
                  times.end());  // stamps only go up
        source->stop();
        frames.release();
    }
    EXPECT_EQ(fake.openDescriptors(), 0U);
    EXPECT_EQ(fake.activeMappings(), 0U);
}

TEST_F(V4l2CaptureTest, CameraThatVanishesEndsTheStreamWithOneLineAndStopsPromptly) {
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
    EXPECT_EQ(frames.count(), 2U);
    EXPECT_EQ(log.count("📷 Camera Small Cam stopped delivering frames (No such device) - the "
                        "recording goes on without new camera frames"),
              1U);
    EXPECT_EQ(log.countContaining("stopped delivering"), 1U);
    EXPECT_EQ(fake.openDescriptors(), 0U);
    EXPECT_EQ(fake.activeMappings(), 0U);
    source->stop();  // again: nothing happens
}

TEST_F(V4l2CaptureTest, StalledCameraStopsPromptly) {
    CaptureSource* source = capture(smallCamera(V4L2_PIX_FMT_MJPEG, 32, 16));
    ASSERT_NE(source, nullptr);
    FrameCollector frames;
    ASSERT_TRUE(source->start(frames.deliver()).ok());
    ASSERT_FALSE(source->start(frames.deliver()).ok());  // already running

    const auto begin = std::chrono::steady_clock::now();
    input.reset();  // dropping the input stops its source
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(1));
    EXPECT_EQ(frames.count(), 0U);
    EXPECT_EQ(fake.openDescriptors(), 0U);
}

// ---- conversion and pool, directly --------------------------------------------------------

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

TEST(CameraFramePool, HandsOutFixedSlotsAndTakesThemBackWhenReleased) {
    auto pool = std::make_unique<CameraFramePool>(8, 4, 3);
    std::vector<CameraFramePool::Lease> leases;
    for (int i = 0; i < 3; ++i) {
        auto lease = pool->acquire();
        ASSERT_TRUE(lease.has_value());
        leases.push_back(std::move(*lease));
    }
    EXPECT_FALSE(pool->acquire().has_value());

    // A published buffer holds its slot until its last reference goes.
    uint8_t* const firstSlot = leases[0].data();
    PixelBufferRef published = std::move(leases[0]).publish();
    EXPECT_EQ(published->baseAddress(), firstSlot);
    EXPECT_EQ(published->bytesPerRow(), 32U);
    EXPECT_FALSE(pool->acquire().has_value());
    published.reset();
    auto again = pool->acquire();
    ASSERT_TRUE(again.has_value());
    EXPECT_EQ(again->data(), firstSlot);

    // A lease dropped without publishing gives its slot back.
    leases.pop_back();
    EXPECT_TRUE(pool->acquire().has_value());

    // A buffer may outlive its pool.
    PixelBufferRef survivor = std::move(*again).publish();
    pool.reset();
    survivor->baseAddress()[0] = 7;
    EXPECT_EQ(survivor->baseAddress()[0], 7);
}

// ---- camera access --------------------------------------------------------------------------

TEST(CameraAccess, RefusedOnlyWhenEveryNodeRefusesThisUser) {
    {
        FakeV4l2 none;
        EXPECT_TRUE(cameraAccessGranted(none));
    }
    {
        FakeV4l2 refused;
        FakeV4l2Node a = webcam("/dev/video0");
        a.openErrno = EACCES;
        FakeV4l2Node b = webcam("/dev/video1");
        b.openErrno = EPERM;
        refused.addNode(a);
        refused.addNode(b);
        EXPECT_FALSE(cameraAccessGranted(refused));
        refused.setOpenErrno("/dev/video1", 0);
        EXPECT_TRUE(cameraAccessGranted(refused));
        EXPECT_EQ(refused.openDescriptors(), 0U);
    }
    {
        FakeV4l2 busy;
        FakeV4l2Node a = webcam("/dev/video0");
        a.openErrno = EACCES;
        FakeV4l2Node b = webcam("/dev/video1");
        b.openErrno = EBUSY;  // present and ours to use, just busy
        busy.addNode(a);
        busy.addNode(b);
        EXPECT_TRUE(cameraAccessGranted(busy));
    }
}

}  // namespace
}  // namespace gb::linuxp
