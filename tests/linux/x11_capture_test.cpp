// X11 display and screen capture against private Xvfb servers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "fakes/frame_collector.h"
#include "fakes/log_capture.h"
#include "fakes/pixel_buffers.h"
#include "fakes/test_environment.h"
#include "fakes/xvfb_server.h"
#include "linux/monotonic_clock.h"
#include "linux/x11_display.h"
#include "linux/x11_screen_input.h"

// Last: Xlib's macros (None, Bool, Status) clash with names in the headers above.
#include <X11/Xlib.h>
#include <X11/cursorfont.h>
#include <X11/extensions/Xrandr.h>

namespace gb::linuxp {
namespace {

using fakes::FrameCollector;
using fakes::LogCapture;
using fakes::pixelAt;
using ::testing::Contains;
using ::testing::HasSubstr;

constexpr unsigned long kBackground = 0x3366cc;                  // R 0x33, G 0x66, B 0xcc
constexpr uint32_t kBackgroundBgra = 0xff000000u | kBackground;  // as a little-endian BGRA word

// The test's own connection, for painting and moving the pointer.
class TestClient {
public:
    explicit TestClient(const std::string& name)
        : display_(XOpenDisplay(name.c_str()), XCloseDisplay) {}
    [[nodiscard]] Display* get() const { return display_.get(); }
    [[nodiscard]] Window root() const { return DefaultRootWindow(display_.get()); }

    void paintRoot(unsigned long rgb) {
        XSetWindowBackground(get(), root(), rgb);
        XClearWindow(get(), root());
        XSync(get(), False);
    }
    void movePointer(int x, int y) {
        XWarpPointer(get(), None, root(), 0, 0, 0, 0, x, y);
        XSync(get(), False);
    }

private:
    std::unique_ptr<Display, int (*)(Display*)> display_;
};

// Pixels in the square of radius `r` around (x, y) that are not the background.
int changedPixelsAround(const PixelBuffer& buffer, int x, int y, int r) {
    int changed = 0;
    for (int dy = -r; dy <= r; ++dy) {
        for (int dx = -r; dx <= r; ++dx) {
            if (pixelAt(buffer, x + dx, y + dy) != kBackgroundBgra) ++changed;
        }
    }
    return changed;
}

// Runs a source for about `window` and returns what it delivered.
struct RunResult {
    size_t frames, distinctBuffers;
    std::vector<int64_t> stamps;
    X11CaptureStats stats;
};
RunResult runFor(X11ScreenSource& source, std::chrono::milliseconds window) {
    FrameCollector frames;
    if (!source.start(frames.deliver()).ok()) return {};
    std::this_thread::sleep_for(window);
    source.stop();
    return {frames.count(), frames.distinctAddresses(), frames.timesNanoseconds(), source.stats()};
}

class X11CaptureTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        server_ = fakes::XvfbServer::start();
        if (server_) {
            client_ = std::make_unique<TestClient>(server_->displayName());
            client_->paintRoot(kBackground);
        }
    }
    static void TearDownTestSuite() {
        client_.reset();
        server_.reset();  // kills Xvfb, also after failed tests
    }
    void SetUp() override {
        ASSERT_NE(server_, nullptr) << "Xvfb did not start";
        ASSERT_NE(client_->get(), nullptr);
    }

    static X11CaptureOptions options(bool cursor = true) {
        return {.displayName = server_->displayName(), .capturesCursor = cursor};
    }
    static uint32_t rootID() { return static_cast<uint32_t>(client_->root()); }

    // One frame of the whole screen.
    static SampleBufferRef grabOne(X11CaptureOptions o) {
        X11ScreenSource source(rootID(), std::move(o));
        FrameCollector frames;
        if (!source.start(frames.deliver()).ok() || !frames.waitForCount(1)) return nullptr;
        source.stop();
        return frames.last();
    }

    static std::unique_ptr<fakes::XvfbServer> server_;
    static std::unique_ptr<TestClient> client_;
    LogCapture log_;
};

std::unique_ptr<fakes::XvfbServer> X11CaptureTest::server_;
std::unique_ptr<TestClient> X11CaptureTest::client_;

TEST_F(X11CaptureTest, MainScreenIsTheRootWindowInPointsAndOtherDisplaysGiveNothing) {
    X11DisplayProvider provider(server_->displayName());
    auto screen = provider.mainScreen();
    ASSERT_TRUE(screen.has_value());
    EXPECT_TRUE(screen->widthPoints == 1920 && screen->heightPoints == 1080);
    EXPECT_EQ(std::get<uint32_t>(screen->deviceDescription.at(kScreenNumberKey)), rootID());
    EXPECT_EQ(provider.displayRectangle(rootID()), (PixelRect{0, 0, 1920, 1080}));
    EXPECT_EQ(provider.displayRectangle(rootID() + 12345), std::nullopt);
    EXPECT_EQ(X11ScreenInput::create(rootID() + 12345, options()), nullptr);
    fakes::ScopedEnvironment environment;
    environment.set("GDK_SCALE", "2");
    auto scaled = X11DisplayProvider(server_->displayName()).mainScreen();
    EXPECT_TRUE(scaled && scaled->widthPoints == 960 && scaled->heightPoints == 540);
    EXPECT_EQ(X11DisplayProvider(":65000").mainScreen(), std::nullopt);
    EXPECT_EQ(X11ScreenInput::create(1, {.displayName = ":65000"}), nullptr);
    EXPECT_THAT(log_.lines(), Contains("❌ Cannot open the X display for screen capture"));
}

TEST_F(X11CaptureTest, GrabsWhatIsOnScreenNowAsOpaqueBgraThroughXShmOrXGetImage) {
    for (const bool forceXGetImage : {false, true}) {
        SCOPED_TRACE(forceXGetImage ? "XGetImage" : "XShm");
        const uint32_t colour = forceXGetImage ? 0x10e020 : kBackground;
        client_->paintRoot(colour);
        auto o = options(false);
        o.forceXGetImage = forceXGetImage;
        X11ScreenSource source(rootID(), o);
        FrameCollector frames;
        const int64_t before = monotonicNanoseconds();
        ASSERT_TRUE(source.start(frames.deliver()).ok());
        ASSERT_TRUE(frames.waitForCount(1));
        const int64_t after = monotonicNanoseconds();
        EXPECT_EQ(source.stats().usingXShm, !forceXGetImage);
        source.stop();
        const auto frame = frames.last();
        const auto& image = *frame->imageBuffer();
        EXPECT_TRUE(image.width() == 1920 && image.height() == 1080);
        EXPECT_EQ(image.bytesPerRow(), 1920u * 4);
        for (auto [x, y] : {std::pair{0, 0}, {1919, 0}, {960, 540}, {0, 1079}, {1919, 1079}}) {
            EXPECT_EQ(pixelAt(image, x, y), 0xff000000u | colour) << x << "," << y;
        }
        // Stamped from the shared monotonic clock at the grab.
        const int64_t stamp = frame->presentationTime().nanoseconds();
        EXPECT_TRUE(stamp >= before && stamp <= after);
        EXPECT_EQ(frame->timing().duration, MediaTime::fromNanoseconds(1'000'000'000 / 30));
    }
    client_->paintRoot(kBackground);
}

TEST_F(X11CaptureTest, DropsFramesWhileEveryBufferIsHeldElseReusesItsPoolAtTheFrameRate) {
    SampleBufferRef kept;
    {
        auto o = options(false);
        o.poolSize = 4;
        auto input = X11ScreenInput::create(rootID(), o);
        ASSERT_NE(input, nullptr);
        X11ScreenSource& source = input->screenSource();
        source.setMinFrameDuration(MediaTime::make(1, 100));
        FrameCollector held(/*holdAll=*/true);  // the pool runs dry
        ASSERT_TRUE(source.start(held.deliver()).ok());
        ASSERT_TRUE(held.waitForCount(4));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        source.stop();  // returns although no buffer came back
        EXPECT_EQ(source.stats().framesDelivered, 4u);
        EXPECT_EQ(held.count(), 4u);
        EXPECT_GE(source.stats().framesDroppedNoBuffer, 10u);
        EXPECT_THAT(log_.lines(), Contains(HasSubstr("⚠️ Screen capture dropped ")));
        EXPECT_THAT(log_.lines(),
                    Contains(HasSubstr(" frames: every frame buffer was still in use")));
        // Released buffers are used again; none is allocated after the start. Frames come at
        // the minimum frame duration, not as fast as they can be grabbed.
        kept = held.last();
        held.release();
        source.setMinFrameDuration(MediaTime::make(1, 30));
        const auto run = runFor(source, std::chrono::seconds(1));
        EXPECT_GE(run.frames, 20u);
        EXPECT_LE(run.frames, 35u);
        EXPECT_TRUE(std::is_sorted(run.stamps.begin(), run.stamps.end(), std::less_equal<>()));
        EXPECT_LE(run.distinctBuffers, 4u);
        EXPECT_EQ(run.stats.bufferAllocations, 4u);
        EXPECT_EQ(run.stats.framesDroppedNoBuffer, 0u);
    }
    // The input, its thread and its X connection are gone; the memory of a held frame is not.
    EXPECT_EQ(pixelAt(*kept->imageBuffer(), 1500, 900), kBackgroundBgra);
}

TEST_F(X11CaptureTest, DrawsTheCursorWhereThePointerIsClippedAtTheScreenEdge) {
    XDefineCursor(client_->get(), client_->root(), XCreateFontCursor(client_->get(), XC_crosshair));
    client_->movePointer(600, 400);
    auto withCursor = grabOne(options());
    auto withoutCursor = grabOne(options(false));
    client_->movePointer(1200, 800);
    auto moved = grabOne(options());
    ASSERT_TRUE(withCursor && withoutCursor && moved);
    EXPECT_GT(changedPixelsAround(*withCursor->imageBuffer(), 600, 400, 12), 10);
    EXPECT_EQ(changedPixelsAround(*withoutCursor->imageBuffer(), 600, 400, 12), 0);
    EXPECT_EQ(changedPixelsAround(*moved->imageBuffer(), 600, 400, 12), 0);
    EXPECT_GT(changedPixelsAround(*moved->imageBuffer(), 1200, 800, 12), 10);
    EXPECT_EQ(pixelAt(*moved->imageBuffer(), 1200, 800) >> 24, 0xffu);  // still opaque
    // At the corners: the part of the cursor that is on the screen.
    for (auto [x, y, nearX, nearY] : {std::array{1919, 1079, 1912, 1072}, {0, 0, 7, 7}}) {
        client_->movePointer(x, y);
        auto frame = grabOne(options());
        ASSERT_NE(frame, nullptr);
        EXPECT_GT(changedPixelsAround(*frame->imageBuffer(), nearX, nearY, 7), 0) << x << "," << y;
    }
}

// A server of its own for each test below: they change or end it.
std::unique_ptr<fakes::XvfbServer> startServer(int width, int height, int depth,
                                               std::vector<std::string> extra = {}) {
    return fakes::XvfbServer::start({width, height, depth, std::move(extra)});
}

// The screen input of the server's main screen (null when the display is refused).
std::shared_ptr<X11ScreenInput> mainScreenInput(const fakes::XvfbServer& server) {
    auto screen = X11DisplayProvider(server.displayName()).mainScreen();
    if (!screen) return nullptr;
    return X11ScreenInput::create(
        std::get<uint32_t>(screen->deviceDescription.at(kScreenNumberKey)),
        {.displayName = server.displayName()});
}

TEST(X11CaptureServerTest, PrimaryRandrOutputIsTheMainScreen) {
    auto server = startServer(1920, 1080, 24, {"+extension", "RANDR"});
    ASSERT_NE(server, nullptr);
    TestClient client(server->displayName());
    ASSERT_NE(client.get(), nullptr);
    std::unique_ptr<XRRScreenResources, decltype(&XRRFreeScreenResources)> resources(
        XRRGetScreenResourcesCurrent(client.get(), client.root()), &XRRFreeScreenResources);
    ASSERT_TRUE(resources && resources->noutput > 0);
    const RROutput output = resources->outputs[0];
    XRRSetOutputPrimary(client.get(), client.root(), output);
    XSync(client.get(), False);
    X11DisplayProvider provider(server->displayName());
    auto screen = provider.mainScreen();
    ASSERT_TRUE(screen.has_value());
    EXPECT_EQ(std::get<uint32_t>(screen->deviceDescription.at(kScreenNumberKey)),
              static_cast<uint32_t>(output));
    EXPECT_EQ(provider.displayRectangle(static_cast<uint32_t>(output)),
              (PixelRect{0, 0, 1920, 1080}));
    auto input = mainScreenInput(*server);
    ASSERT_NE(input, nullptr);
    FrameCollector frames;
    ASSERT_TRUE(input->captureSource().start(frames.deliver()).ok());
    ASSERT_TRUE(frames.waitForCount(1));
    input->captureSource().stop();
    EXPECT_EQ(frames.last()->imageBuffer()->width(), 1920);
    EXPECT_EQ(frames.last()->imageBuffer()->height(), 1080);
}

TEST(X11CaptureServerTest, RefusesADisplayThatIsNotTrueColor32) {
    LogCapture log;
    auto server = startServer(640, 480, 16);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(mainScreenInput(*server), nullptr);
    EXPECT_THAT(log.lines(), Contains("❌ Screen capture needs a 24- or 32-bit TrueColor X "
                                      "display, but it has depth 16"));
}

TEST(X11CaptureServerTest, LosingTheDisplayEndsARunningCaptureAndFailsTheNextStart) {
    LogCapture log;
    auto server = startServer(640, 480, 24);
    ASSERT_NE(server, nullptr);
    auto running = mainScreenInput(*server);
    auto prepared = mainScreenInput(*server);  // connection and buffers ready, not started
    ASSERT_TRUE(running && prepared);
    FrameCollector frames;
    ASSERT_TRUE(running->captureSource().start(frames.deliver()).ok());
    ASSERT_TRUE(frames.waitForCount(1));
    ASSERT_TRUE(server->killKeepingTheDisplayNumber());
    EXPECT_TRUE(log.waitForContaining("❌ Screen capture stopped: the X display went away"));
    running->captureSource().stop();  // returns: the thread has ended by itself
    EXPECT_EQ(running->screenSource().stats().grabFailures, 1u);
    EXPECT_EQ(running->screenSource().stats().framesDelivered, frames.count());
    EXPECT_THAT(log.lines(), Contains("⚠️ Screen capture failed to grab 1 frames"));
    // The stale connection is noticed before a thread starts on it, and no new one is made.
    auto started = prepared->captureSource().start(frames.deliver());
    EXPECT_THAT(log.lines(), Contains("❌ Lost the connection to the X display"));
    ASSERT_FALSE(started.ok());
    EXPECT_EQ(started.error().localizedDescription, "Cannot open the X display for screen capture");
}

}  // namespace
}  // namespace gb::linuxp
