// Guards control without the tray: commands or launcher actions that do not reach the running
// program, do not run the menu's flows (no editor keystrokes, no notifications), exit codes or
// status that lie about the state, a bus that cannot start the program, no word to the user
// when no tray host is there, and a second launch that does not activate the first.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <thread>

#include "e2e/e2e_support.h"

namespace gb::e2e {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kAppId = "io.github.glimmerbox.Glimmerbox";

// The shared desktop session, whose bus can start the program. No tray host.
class ControlSession : public Desktop {
public:
    ControlSession() {
        ok_ = Desktop::ok() && bus().installService(kAppId, {binaryPath()}, env(), activatedLog());
    }

    [[nodiscard]] bool ok() const { return ok_; }
    // `glimmerbox <args>` to completion.
    Run glimmerbox(std::vector<std::string> args) const {
        args.insert(args.begin(), binaryPath());
        return runToEnd(args, env(), 150s);
    }
    // Calls ActivateAction on the running program, as a launcher does.
    bool activateAction(const std::string& action) const {
        return run({"gdbus", "call", "--session", "--dest", kAppId, "--object-path",
                    "/io/github/glimmerbox/Glimmerbox", "--method",
                    "org.freedesktop.Application.ActivateAction", action, "[]", "{}"})
            .has_value();
    }
    [[nodiscard]] std::string activatedLog() const { return home() + "/activated.log"; }
    [[nodiscard]] std::string configDir() const { return home() + "/.config/Glimmerbox"; }
    // The file that a stop's or status's output names, checked to be in the recordings folder.
    [[nodiscard]] std::string savedFile(const std::string& output) const {
        const std::string folder = recordingsFolder() + "/";
        const bool named = output.starts_with("idle\n" + folder) && output.ends_with(".mov\n");
        return named ? output.substr(5, output.size() - 6) : std::string();
    }

private:
    bool ok_ = false;
};

TEST(ControlE2ETest, WithoutATrayTheCommandsRecordAndTellTheState) {
    ControlSession session;
    ASSERT_TRUE(session.ok()) << "Xvfb, D-Bus, PulseAudio or dunst did not start";
    Process app({binaryPath()}, session.env());
    // Said once, on standard output and as a notification, when no tray host has shown up.
    ASSERT_TRUE(app.waitForOutput("Glimmerbox: Glimmerbox is running without a tray icon.", 20s))
        << app.stdoutText() << app.stderrText();
    ASSERT_TRUE(eventually([&] { return busOwns(session.env(), kAppId); }, 10s));
    EXPECT_EQ(session.glimmerbox({"status"}).out, "idle\n");
    EXPECT_EQ(session.glimmerbox({"stop"}).exitCode, 1);

    const auto started = session.glimmerbox({"toggle"});
    EXPECT_EQ(started.exitCode, 0) << started.err << app.stdoutText();
    EXPECT_EQ(started.out, "recording\n");
    const auto recordingSince = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(3s);
    EXPECT_EQ(session.glimmerbox({"status"}).out, "recording\n");
    EXPECT_EQ(session.glimmerbox({"start"}).exitCode, 1);
    const std::chrono::duration<double> recorded =
        std::chrono::steady_clock::now() - recordingSince;
    const auto stopped = session.glimmerbox({"toggle"});
    EXPECT_EQ(stopped.exitCode, 0) << stopped.err << app.stdoutText();

    const std::string movie = session.savedFile(stopped.out);
    ASSERT_FALSE(movie.empty()) << stopped.out;
    expectValidMovie(movie, {.seconds = recorded.count()});
    EXPECT_EQ(session.glimmerbox({"status"}).out, stopped.out);

    EXPECT_TRUE(eventually(
        [&] {
            return session.notified(
                "Recording Saved",
                "Screencast saved to: " + fs::path(movie).filename().string() + "\"");
        },
        10s));
    EXPECT_TRUE(session.notified("Recording Started", "Glimmerbox recording in progress\""));
    EXPECT_TRUE(session.notified("Glimmerbox is running without a tray icon",
                                 "Start and stop recordings with the commands \"glimmerbox "
                                 "toggle\""));
    const std::string log = app.stdoutText();
    EXPECT_EQ(log.find("without a tray icon"), log.rfind("without a tray icon"));

    // A second launch activates the first and leaves.
    EXPECT_EQ(session.glimmerbox({}).exitCode, 0);
    EXPECT_TRUE(app.waitForOutput("Glimmerbox: activated", 10s));
    EXPECT_TRUE(app.running());
}

TEST(ControlE2ETest, LauncherActionsRunTheMenuFlowsWithEditorAutomation) {
    ControlSession session;
    ASSERT_TRUE(session.ok()) << "Xvfb, D-Bus, PulseAudio or dunst did not start";
    fs::create_directories(session.configDir());
    std::ofstream(session.configDir() + "/Glimmerbox.conf")
        << "[General]\nvsCodeAutomationEnabled=true\n";
    TempDir scratch;
    const std::string keyLog = scratch.path() + "/editor.log";
    Process editor({toolPath("fake_editor"), "--class", "Code", "--log", keyLog}, session.env());
    ASSERT_TRUE(eventually(
        [&] {
            return session.run({"xdotool", "search", "--onlyvisible", "--class", "^Code$"})
                .has_value();
        },
        10s));
    Process app({binaryPath()}, session.env());
    ASSERT_TRUE(eventually([&] { return busOwns(session.env(), kAppId); }, 20s))
        << app.stdoutText();

    const auto keys = [&] { return linesOf(readText(keyLog)); };
    const auto toggle = screencastToggleKeys();
    ASSERT_TRUE(session.activateAction("start-recording"));
    ASSERT_TRUE(app.waitForOutput("Recording start completed. Current state: true", 30s))
        << app.stdoutText();
    ASSERT_TRUE(eventually([&] { return keys().size() >= toggle.size(); }, 15s))
        << app.stdoutText();
    EXPECT_EQ(keys(), toggle);

    ASSERT_TRUE(session.activateAction("stop-recording"));
    ASSERT_TRUE(app.waitForOutput("🔧 VS Code automation: Disabled screencast mode", 20s));
    std::string status;
    ASSERT_TRUE(eventually(
        [&] { return !session.savedFile(status = session.glimmerbox({"status"}).out).empty(); },
        30s))
        << status;
    EXPECT_EQ(keys().size(), 2 * toggle.size());
    expectValidMovie(session.savedFile(status), {.seconds = 1.0});
    EXPECT_FALSE(session.activateAction("no-such-action"));
}

TEST(ControlE2ETest, StartLaunchesTheProgramThroughTheBus) {
    ControlSession session;
    ASSERT_TRUE(session.ok()) << "Xvfb, D-Bus, PulseAudio or dunst did not start";
    // Neither status nor stop starts the program.
    const auto status = session.glimmerbox({"status"});
    EXPECT_EQ(status.exitCode, 3);
    EXPECT_EQ(status.out, "not running\n");
    EXPECT_EQ(session.glimmerbox({"stop"}).exitCode, 3);

    const auto started = session.glimmerbox({"start"});
    ASSERT_EQ(started.exitCode, 0) << started.err << readText(session.activatedLog());
    EXPECT_EQ(started.out, "recording\n");
    EXPECT_NE(readText(session.activatedLog()).find("Start recording button pressed"),
              std::string::npos);
    std::this_thread::sleep_for(2s);
    const auto stopped = session.glimmerbox({"stop"});
    ASSERT_EQ(stopped.exitCode, 0) << stopped.err;
    expectValidMovie(session.savedFile(stopped.out), {.seconds = 2.0});
}

}  // namespace
}  // namespace gb::e2e
