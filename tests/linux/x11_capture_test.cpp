// Guards against: a lost X display that hangs the capture, is not reported, or is used again for
// the next start; a still screen grabbed again, or a change that is missed or misplaced.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <X11/Xlib.h>

#include <thread>
#include <variant>

#include "fakes/frame_collector.h"
#include "fakes/log_capture.h"
#include "fakes/pixel_buffers.h"
#include "fakes/xvfb_server.h"
#include "linux/x11/x11_display.h"
#include "linux/x11/x11_screen_input.h"

namespace gb::linuxp {
namespace {

using fakes::FrameCollector;
using fakes::LogCapture;
using fakes::pixelAt;
using ::testing::Contains;

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

TEST(X11CaptureServerTest, StillScreenIsNotGrabbedAgainAndAPaintedAreaComesAsItsChange) {
    auto server = fakes::XvfbServer::start({640, 480, 24});
    ASSERT_NE(server, nullptr);
    std::unique_ptr<Display, int (*)(Display*)> client(XOpenDisplay(server->displayName().c_str()),
                                                       XCloseDisplay);
    ASSERT_NE(client, nullptr);
    const Window root = DefaultRootWindow(client.get());
    XSetWindowBackground(client.get(), root, 0x3366cc);
    XClearWindow(client.get(), root);
    XSync(client.get(), False);
    X11ScreenSource source(static_cast<uint32_t>(root),
                           {.displayName = server->displayName(), .capturesCursor = false});
    source.setMaxFrameDuration(MediaTime::make(1, 2));
    FrameCollector frames;
    ASSERT_TRUE(source.start(frames.deliver()).ok());
    ASSERT_TRUE(frames.waitForCount(1));
    const SampleBufferRef first = frames.last();
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    // The first picture, then the same one again after the longest frame duration.
    ASSERT_EQ(frames.count(), 2u);
    EXPECT_EQ(frames.last()->imageBuffer(), first->imageBuffer());
    EXPECT_GE(source.stats().framesUnchanged, 10u);
    source.setMaxFrameDuration(MediaTime::make(10, 1));
    GC gc = XCreateGC(client.get(), root, 0, nullptr);
    XSetForeground(client.get(), gc, 0xffffff);
    XFillRectangle(client.get(), root, gc, 100, 200, 50, 40);
    XFreeGC(client.get(), gc);
    XSync(client.get(), False);
    ASSERT_TRUE(frames.waitForCount(3));
    source.stop();
    const PixelBuffer& image = *frames.last()->imageBuffer();
    EXPECT_EQ(pixelAt(image, 149, 239), 0xffffffffu);
    EXPECT_EQ(pixelAt(image, 150, 240), 0xff3366ccu);
    EXPECT_EQ(image.changes().since, first->imageBuffer()->changes().picture);
    EXPECT_THAT(image.changes().areas, Contains(PixelArea{100, 200, 50, 40}));
}

}  // namespace
}  // namespace gb::linuxp
