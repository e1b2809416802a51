// Guards against: a lost X display that hangs the capture, is not reported, or is used again for the next start.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <variant>

#include "fakes/frame_collector.h"
#include "fakes/log_capture.h"
#include "fakes/xvfb_server.h"
#include "linux/x11/x11_display.h"
#include "linux/x11/x11_screen_input.h"

namespace gb::linuxp {
namespace {

using fakes::FrameCollector;
using fakes::LogCapture;
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

}  // namespace
}  // namespace gb::linuxp
