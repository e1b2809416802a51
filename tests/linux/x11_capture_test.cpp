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
#include "fakes/xvfb_server.h"
#include "linux/capture/monotonic_clock.h"
#include "linux/x11/x11_display.h"
#include "linux/x11/x11_screen_input.h"

// Last: Xlib's macros (None, Bool, Status) clash with names in the headers above.
#include <X11/Xlib.h>
#include <X11/cursorfont.h>

namespace gb::linuxp {
namespace {

using fakes::FrameCollector;
using fakes::LogCapture;
using fakes::pixelAt;
using ::testing::Contains;
using ::testing::HasSubstr;

constexpr unsigned long kBackground = 0x3366cc;                  // R 0x33, G 0x66, B 0xcc
constexpr uint32_t kBackgroundBgra = 0xff000000u | kBackground;  // as a little-endian BGRA word

// The test's own connection, for painting the screen and moving the pointer.
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
        o.followsDamage = false;  // every frame time grabs
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
        FrameCollector frames;
        ASSERT_TRUE(source.start(frames.deliver()).ok());
        std::this_thread::sleep_for(std::chrono::seconds(1));
        source.stop();
        EXPECT_TRUE(frames.count() >= 20u && frames.count() <= 35u) << frames.count();
        const auto stamps = frames.timesNanoseconds();
        EXPECT_TRUE(std::is_sorted(stamps.begin(), stamps.end(), std::less_equal<>()));
        EXPECT_LE(frames.distinctAddresses(), 4u);
        EXPECT_EQ(source.stats().bufferAllocations, 4u);
        EXPECT_EQ(source.stats().framesDroppedNoBuffer, 0u);
    }
    // The input, its thread and its X connection are gone; the memory of a held frame is not.
    EXPECT_EQ(pixelAt(*kept->imageBuffer(), 1500, 900), kBackgroundBgra);
}

TEST_F(X11CaptureTest, StillScreenIsNotGrabbedAgainAndAPaintedAreaComesAsItsChange) {
    X11ScreenSource source(rootID(), options(false));
    source.setMaxFrameDuration(MediaTime::make(1, 2));
    FrameCollector frames(/*holdAll=*/true);
    ASSERT_TRUE(source.start(frames.deliver()).ok());
    ASSERT_TRUE(frames.waitForCount(1));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    // The first picture, then the same one again after the longest frame duration.
    ASSERT_EQ(frames.count(), 2u);
    EXPECT_EQ(frames.last()->imageBuffer(), frames.held().front()->imageBuffer());
    EXPECT_GE(source.stats().framesUnchanged, 10u);
    source.setMaxFrameDuration(MediaTime::make(10, 1));
    GC gc = XCreateGC(client_->get(), client_->root(), 0, nullptr);
    XSetForeground(client_->get(), gc, 0xffffff);
    XFillRectangle(client_->get(), client_->root(), gc, 100, 200, 50, 40);
    XFreeGC(client_->get(), gc);
    XSync(client_->get(), False);
    ASSERT_TRUE(frames.waitForCount(3));
    source.stop();
    const PixelBuffer& image = *frames.last()->imageBuffer();
    EXPECT_EQ(pixelAt(image, 149, 239), 0xffffffffu);
    EXPECT_EQ(pixelAt(image, 150, 240), kBackgroundBgra);
    EXPECT_EQ(image.changes().since, frames.held().front()->imageBuffer()->changes().picture);
    EXPECT_THAT(image.changes().areas, Contains(PixelArea{100, 200, 50, 40}));
    client_->paintRoot(kBackground);
}

TEST_F(X11CaptureTest, DrawsTheCursorWhereThePointerIsClippedAtTheScreenEdge) {
    XDefineCursor(client_->get(), client_->root(), XCreateFontCursor(client_->get(), XC_crosshair));
    // Around the pointer, and at the corners only the part of the cursor that is on the screen.
    for (auto [x, y, nearX, nearY] :
         {std::array{600, 400, 600, 400}, {1919, 1079, 1912, 1072}, {0, 0, 7, 7}}) {
        XWarpPointer(client_->get(), None, client_->root(), 0, 0, 0, 0, x, y);
        XSync(client_->get(), False);
        auto frame = grabOne(options());
        ASSERT_NE(frame, nullptr);
        EXPECT_GT(changedPixelsAround(*frame->imageBuffer(), nearX, nearY, 7), 0) << x << "," << y;
        EXPECT_EQ(pixelAt(*frame->imageBuffer(), nearX, nearY) >> 24, 0xffu);  // still opaque
    }
    auto withoutCursor = grabOne(options(false));
    ASSERT_NE(withoutCursor, nullptr);
    EXPECT_EQ(changedPixelsAround(*withoutCursor->imageBuffer(), 7, 7, 7), 0);
}

// The screen input of the server's main screen (null when the display is refused).
std::shared_ptr<X11ScreenInput> mainScreenInput(const fakes::XvfbServer& server) {
    auto screen = X11DisplayProvider(server.displayName()).mainScreen();
    if (!screen) return nullptr;
    return X11ScreenInput::create(
        std::get<uint32_t>(screen->deviceDescription.at(kScreenNumberKey)),
        {.displayName = server.displayName()});
}

TEST(X11CaptureServerTest, LosingTheDisplayEndsARunningCaptureAndFailsTheNextStart) {
    LogCapture log;
    auto server = fakes::XvfbServer::start({640, 480, 24});  // its own: the test ends it
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
    EXPECT_THAT(log.lines(), Contains("⚠️ Screen capture failed to grab 1 frames"));
    // The stale connection is noticed before a thread starts on it, and no new one is made.
    auto started = prepared->captureSource().start(frames.deliver());
    EXPECT_THAT(log.lines(), Contains("❌ Lost the connection to the X display"));
    ASSERT_FALSE(started.ok());
    EXPECT_EQ(started.error().localizedDescription, "Cannot open the X display for screen capture");
}

}  // namespace
}  // namespace gb::linuxp
