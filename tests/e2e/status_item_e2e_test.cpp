// The tray as a StatusNotifierItem, with a watcher and host of our own (test_status_watcher) on a
// private session bus: guards against an item that never registers, a dbusmenu whose titles,
// order, separators, enabled states or check marks (radio buttons instead) are wrong, an icon and
// tooltip that do not follow the recording state, a left click (Activate) that opens nothing,
// a rebuilt menu that hosts are not told to fetch again (no LayoutUpdated), and dbusmenu
// choices that do not start and stop a recording.
#include <gtest/gtest.h>

#include <thread>

#include "e2e/e2e_support.h"

namespace gb::e2e {
namespace {
using namespace std::chrono_literals;

// The idle menu as the host reads it: depth|type|enabled|visible|toggle-type|toggle-state|label.
const std::vector<std::string> kIdleMenu{
    "0|standard|1|1||-1|⏺ Start Recording",
    "0|separator|1|1||-1|",
    "0|standard|1|1||-1|Video Quality",
    "1|standard|1|1|checkmark|0|Medium (720p)",
    "1|standard|1|1|checkmark|0|High (1080p)",
    "1|standard|1|1|checkmark|0|Ultra (1440p)",
    "1|standard|1|1|checkmark|1|Current Screen Resolution (1280x720)",
    "0|standard|1|1|checkmark|1|Camera Overlay",
    "0|standard|1|1||-1|Camera Size",
    "1|standard|1|1|checkmark|0|Small (240×135)",
    "1|standard|1|1|checkmark|1|Medium (320×180)",
    "1|standard|1|1|checkmark|0|Large (480×270)",
    "0|standard|1|1||-1|Camera Position",
    "1|standard|1|1|checkmark|0|Top Left",
    "1|standard|1|1|checkmark|0|Top Right",
    "1|standard|1|1|checkmark|0|Bottom Left",
    "1|standard|1|1|checkmark|1|Bottom Right",
    "0|separator|1|1||-1|",
    "0|standard|1|1|checkmark|0|VS Code Automation",
    "0|separator|1|1||-1|",
    "0|standard|0|1||-1|Saving to: Documents/Glimmerbox Recordings",
    "0|standard|1|1||-1|Choose Save Location...",
    "0|standard|1|1||-1|Open Recordings Folder",
    "0|separator|1|1||-1|",
    "0|standard|1|1||-1|About Glimmerbox",
    "0|standard|1|1||-1|Quit Glimmerbox",
};

TEST(StatusItemE2ETest, TheMenuOverDBusMenuShowsTheStateAndRecords) {
    Desktop desktop;
    ASSERT_TRUE(desktop.ok()) << "Xvfb, D-Bus, PulseAudio or dunst did not start";
    auto env = desktop.env();
    env["GLIMMERBOX_DEBUG_UI"] = "1";
    const auto host = [&](std::vector<std::string> args) {
        args.insert(args.begin(), toolPath("test_status_watcher"));
        return runCommand(args, env, 20s);
    };
    Process watcher({toolPath("test_status_watcher"), "serve"}, env);
    ASSERT_TRUE(watcher.waitForOutput("watching", 10s)) << watcher.stderrText();
    Process app({binaryPath()}, env);
    ASSERT_TRUE(watcher.waitForOutput("registered ", 20s)) << app.stdoutText() << app.stderrText();
    ASSERT_TRUE(eventually([&] { return linesOf(host({"menu"}).value_or("")) == kIdleMenu; }))
        << host({"menu"}).value_or("");
    // The idle and the recording icon: "IconPixmap WxH:<checksum> ...", then the tooltip.
    const std::vector<std::string> idle = linesOf(host({"item"}).value_or(""));
    ASSERT_EQ(idle.size(), 2U);
    EXPECT_TRUE(idle[0].starts_with("IconPixmap 22x22:")) << idle[0];
    EXPECT_EQ(idle[1], "ToolTip Glimmerbox");

    // A left click opens the menu at the pointer; Escape closes it again.
    ASSERT_TRUE(host({"activate", "20", "20"}));
    EXPECT_TRUE(app.waitForOutput("[menu] shown \"\"", 10s)) << app.stdoutText();
    desktop.run({"xdotool", "key", "Escape"});
    ASSERT_TRUE(app.waitForOutput("[menu] hidden \"\"", 10s)) << app.stdoutText();

    // Hosts refetch a rebuilt menu when it sends LayoutUpdated.
    Process monitor({"dbus-monitor", "--address", desktop.bus().address(),
                     "type='signal',interface='com.canonical.dbusmenu',member='LayoutUpdated'"});
    ASSERT_TRUE(monitor.waitForOutput("member=NameLost", 10s));
    ASSERT_TRUE(host({"click", "⏺ Start Recording"}));
    ASSERT_TRUE(app.waitForOutput("Recording start completed. Current state: true", 30s))
        << app.stdoutText();
    ASSERT_TRUE(eventually([&] {
        const auto menu = linesOf(host({"menu"}).value_or(""));
        return !menu.empty() && menu.front() == "0|standard|1|1||-1|⏹ Stop Recording";
    }));
    EXPECT_NE(monitor.stdoutText().find("member=LayoutUpdated"), std::string::npos);
    const std::vector<std::string> recording = linesOf(host({"item"}).value_or(""));
    ASSERT_EQ(recording.size(), 2U);
    EXPECT_NE(recording[0], idle[0]);
    EXPECT_EQ(recording[1], "ToolTip Recording...");

    std::this_thread::sleep_for(2s);
    ASSERT_TRUE(host({"click", "⏹ Stop Recording"}));
    ASSERT_TRUE(app.waitForOutput("Recording completed successfully", 30s)) << app.stdoutText();
    const auto movies = moviesIn(desktop.recordingsFolder());
    ASSERT_EQ(movies.size(), 1U);
    expectValidMovie(movies[0], {.seconds = 2.5, .tolerance = 1.0});
}

}  // namespace
}  // namespace gb::e2e
