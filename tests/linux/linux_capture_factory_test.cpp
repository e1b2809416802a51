// The Linux capture factory's session-type and scale-factor rules.
#include "linux/capture/linux_capture_factory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/log_capture.h"
#include "fakes/test_environment.h"
#include "linux/x11/x11_display.h"

namespace gb::linuxp {
namespace {

using ::testing::ElementsAre;

TEST(LinuxCaptureFactoryTest, WaylandSessionGetsNoX11ScreenInput) {
    EXPECT_TRUE(isWaylandSession("wayland-0", "wayland"));
    EXPECT_FALSE(isWaylandSession("wayland-0", "x11"));  // X session that runs a nested compositor
    EXPECT_FALSE(isWaylandSession("", "wayland"));
    fakes::ScopedEnvironment environment;
    environment.set("WAYLAND_DISPLAY", "wayland-0");
    environment.set("XDG_SESSION_TYPE", "wayland");
    fakes::LogCapture log;
    EXPECT_EQ(LinuxCaptureFactory::x11ScreenInputMaker()(1), nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre("❌ Screen capture through X11 cannot see a Wayland session's windows"));
}

TEST(DesktopScaleFactorTest, GdkScaleWinsWhenAPositiveIntegerElseQtScaleMayBeReal) {
    EXPECT_EQ(desktopScaleFactor("2", "1.5"), 2.0);
    EXPECT_EQ(desktopScaleFactor("0", "1.5"), 1.5);
    EXPECT_EQ(desktopScaleFactor("1.5", "1.25"), 1.25);  // GTK takes integers only
    EXPECT_EQ(desktopScaleFactor("abc", nullptr), 1.0);
    EXPECT_EQ(desktopScaleFactor(nullptr, "-2"), 1.0);
    EXPECT_EQ(desktopScaleFactor(nullptr, "1.5x"), 1.0);
}

}  // namespace
}  // namespace gb::linuxp
