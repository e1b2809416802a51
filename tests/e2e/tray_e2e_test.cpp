// Guards against: the tray program on the real binary in a desktop session of its own (Xvfb, openbox, trayer, dunst, D-Bus, PulseAudio, driven with xdotool) recording, notifying, alerting on a failed start, automating the editor, keeping the chosen folder across a restart, refusing a second launch and waiting for a tray host. Its log (GLIMMERBOX_DEBUG_UI) tells the menus and where their entries are; screenshots go to <build>/artifacts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <thread>

#include "e2e/e2e_support.h"

namespace gb::e2e {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::ContainsRegex;
using ::testing::HasSubstr;
using ::testing::Not;

struct Point {
    int x = 0;
    int y = 0;
};

// One entry of an installed menu as the program logged it: its title path ("Video Quality >
// High (1080p)"; "--" for a separator) and its state words ("enabled checked", ...).
struct LoggedEntry {
    std::string path;
    std::string flags;
    [[nodiscard]] bool has(const std::string& flag) const {
        return (" " + flags + " ").find(" " + flag + " ") != std::string::npos;
    }
};

// The shared desktop session with a window manager and, unless told otherwise, a tray host.
class TrayDesktop : public Desktop {
public:
    struct Options {
        bool microphone = true;
        bool tray = true;  // false: no tray host until startTray()
    };

    explicit TrayDesktop(Options options) : Desktop(options.microphone) {
        if (!Desktop::ok()) return;
        windowManager_.emplace(std::vector<std::string>{"openbox", "--sm-disable"}, env());
        ok_ = eventually(
                  [&] {
                      return run({"xprop", "-root", "_NET_SUPPORTING_WM_CHECK"})
                                 .value_or("")
                                 .find("window id") != std::string::npos;
                  },
                  10s) &&
              (!options.tray || startTray());
    }

    [[nodiscard]] bool ok() const { return ok_; }

    // Starts the tray host (trayer, an XEmbed tray); true once its window is there.
    bool startTray() {
        tray_.emplace(
            std::vector<std::string>{"trayer", "--edge", "top", "--align", "right", "--widthtype",
                                     "pixel", "--width", "120", "--height", "28", "--SetDockType",
                                     "true", "--transparent", "false", "--tint", "0xdddddd"},
            env());
        return eventually([&] { return hasWindowOfClass("trayer", false); }, 10s);
    }
    // Whether a window of this class exists (and is visible, when asked).
    [[nodiscard]] bool hasWindowOfClass(const std::string& name, bool visible) const {
        std::vector<std::string> argv{"xdotool", "search", "--class", name};
        if (visible) argv.insert(argv.begin() + 2, "--onlyvisible");
        return run(argv).has_value();
    }

    bool waitForNotifications(size_t count, std::chrono::milliseconds timeout) const {
        return eventually([&] { return notifications().size() >= count; }, timeout);
    }

    // The visible windows whose title is exactly `title`.
    [[nodiscard]] std::vector<std::string> windowsNamed(const std::string& title) const {
        return linesOf(
            run({"xdotool", "search", "--onlyvisible", "--name", "^" + title + "$"}).value_or(""));
    }
    bool waitForWindow(const std::string& title, std::chrono::milliseconds timeout) const {
        return eventually([&] { return !windowsNamed(title).empty(); }, timeout);
    }

    // (No --sync: it waits for a pointer motion that never comes when the pointer is there
    // already. XTest events are handled in order anyway.)
    void click(Point p) const {
        run({"xdotool", "mousemove", std::to_string(p.x), std::to_string(p.y), "click", "1"});
    }

    bool screenshot(const std::string& path) const {
        fs::create_directories(fs::path(path).parent_path());
        return run({"import", "-window", "root", path}).has_value();
    }

private:
    std::optional<Process> windowManager_;
    std::optional<Process> tray_;
    bool ok_ = false;
};

// The program under test in a desktop session.
class TrayApp {
public:
    explicit TrayApp(const TrayDesktop& desktop) : desktop_(desktop) {
        auto env = desktop.env();
        env["GLIMMERBOX_DEBUG_UI"] = "1";
        env["GLIMMERBOX_TEST_CAMERA"] = "1";  // the overlay is on by default
        process_.emplace(std::vector<std::string>{binaryPath()}, env);
    }

    [[nodiscard]] std::string log() const { return process_->stdoutText(); }
    [[nodiscard]] std::string errors() const { return process_->stderrText(); }
    [[nodiscard]] bool running() { return process_->running(); }
    std::optional<int> wait(std::chrono::milliseconds timeout) { return process_->wait(timeout); }

    bool waitForLog(const std::string& text, std::chrono::milliseconds timeout = 20s) {
        return process_->waitForOutput(text, timeout);
    }
    // Waits until the log holds `text` `count` times.
    bool waitForLogCount(const std::string& text, size_t count,
                         std::chrono::milliseconds timeout = 20s) {
        return eventually([&] { return countOf(log(), text) >= count; }, timeout);
    }

    // Ready once the first menu is installed and the tray icon is on screen.
    bool waitUntilReady() {
        return waitForLog("Menu update - Recording state: false") && waitForLog("[menu] end") &&
               eventually([&] { return trayIcon().has_value(); }, 20s);
    }

    // The centre of the tray icon: the program's small visible window that the tray host has
    // taken in. Tooltips are small too, but stay children of the root window.
    [[nodiscard]] std::optional<Point> trayIcon() const {
        for (const std::string& id :
             linesOf(desktop_.run({"xdotool", "search", "--onlyvisible", "--class", "Glimmerbox"})
                         .value_or(""))) {
            static const std::regex underRoot(
                R"(Parent window id: 0x[0-9a-f]+ \(the root window\))");
            const auto tree = desktop_.run({"xwininfo", "-tree", "-id", id});
            if (!tree || std::regex_search(*tree, underRoot)) continue;
            const auto g = desktop_.run({"xdotool", "getwindowgeometry", "--shell", id});
            if (!g) continue;
            std::map<std::string, int> v;
            for (const std::string& line : linesOf(*g)) {
                const auto eq = line.find('=');
                if (eq != std::string::npos)
                    v[line.substr(0, eq)] = std::atoi(line.c_str() + eq + 1);
            }
            if (v["WIDTH"] > 0 && v["WIDTH"] <= 64 && v["HEIGHT"] <= 64) {
                return Point{v["X"] + v["WIDTH"] / 2, v["Y"] + v["HEIGHT"] / 2};
            }
        }
        return std::nullopt;
    }

    // The last installed menu, entry by entry.
    [[nodiscard]] std::vector<LoggedEntry> installedMenu() const {
        std::vector<LoggedEntry> entries;
        for (const std::string& line : lastBlock("[menu] installed")) {
            if (line == "[menu] separator") entries.push_back({"--", ""});
            if (!line.starts_with("[menu] entry ")) continue;
            const auto bar = line.rfind(" | ");
            entries.push_back({line.substr(13, bar - 13), line.substr(bar + 3)});
        }
        return entries;
    }
    [[nodiscard]] std::vector<std::string> topLevelTitles() const {
        std::vector<std::string> titles;
        for (const LoggedEntry& e : installedMenu()) {
            if (e.path.find(" > ") == std::string::npos) titles.push_back(e.path);
        }
        return titles;
    }
    [[nodiscard]] std::optional<LoggedEntry> entry(const std::string& path) const {
        for (const LoggedEntry& e : installedMenu()) {
            if (e.path == path) return e;
        }
        return std::nullopt;
    }
    // Waits until the installed menu has the entry `path` in the state `flag`.
    bool waitForEntry(const std::string& path, const std::string& flag) const {
        return eventually([&] { return entry(path) && entry(path)->has(flag); }, 10s);
    }

    // Clicks the tray icon and waits for the menu; where its entries are, by title.
    // A click that the tray host lost (it happens under heavy load) is repeated once the menu
    // has had ample time to show.
    std::map<std::string, Point> openMenu() {
        const size_t shown = countOf(log(), "[menu] shown \"\"");
        const auto opened = [&] { return countOf(log(), "[menu] shown \"\"") > shown; };
        for (int attempt = 0; attempt < 3 && !opened(); ++attempt) {
            const std::optional<Point> icon = trayIcon();
            // A menu that has just closed may still hold the pointer: the click would go to it.
            if (!icon || !desktop_.run({toolPath("wait_pointer_free")})) continue;
            desktop_.click(*icon);
            eventually(opened, 5s);
        }
        if (!opened() || !eventually([&] { return openMenuEntries().size() > 0; }, 5s)) return {};
        return openMenuEntries();
    }

    // Closes the open menu with Escape and waits until it is gone.
    bool closeMenu() {
        const size_t hidden = countOf(log(), "[menu] hidden \"\"");
        desktop_.run({"xdotool", "key", "Escape"});
        return waitForLogCount("[menu] hidden \"\"", hidden + 1, 10s);
    }

    // Opens the menu and clicks the entry with this title; false when there is no such entry.
    // Returns once the menu has closed.
    bool choose(const std::string& title) {
        const auto entries = openMenu();
        const auto it = entries.find(title);
        if (it == entries.end()) {
            closeMenu();
            return false;
        }
        const size_t hidden = countOf(log(), "[menu] hidden \"\"");
        desktop_.click(it->second);
        return waitForLogCount("[menu] hidden \"\"", hidden + 1, 10s);
    }

private:
    // The lines after the last line that begins with `start` up to "[menu] end"; none while
    // that block is still being written.
    [[nodiscard]] std::vector<std::string> lastBlock(const std::string& start) const {
        const std::string text = log();
        const size_t begin = text.rfind("\n" + start), end = text.find("\n[menu] end\n", begin);
        if (begin == std::string::npos || end == std::string::npos) return {};
        const auto lines = linesOf(text.substr(begin + 1, end - begin));
        return {lines.begin() + 1, lines.end()};
    }
    // The entries of the top-level menu that opened last.
    [[nodiscard]] std::map<std::string, Point> openMenuEntries() const {
        std::map<std::string, Point> at;
        const std::regex placed(R"(^\[menu\] at (-?\d+),(-?\d+) (\d+)x(\d+) (.*)$)");
        std::smatch m;
        for (const std::string& line : lastBlock("[menu] shown \"\"")) {
            if (std::regex_match(line, m, placed))
                at[m[5]] = {std::stoi(m[1]) + std::stoi(m[3]) / 2,
                            std::stoi(m[2]) + std::stoi(m[4]) / 2};
        }
        return at;
    }

    const TrayDesktop& desktop_;
    std::optional<Process> process_;
};

#define ASSERT_DESKTOP(desktop)                                                                 \
    ASSERT_TRUE((desktop).ok()) << "the test's desktop session (Xvfb, openbox, trayer, dunst, " \
                                   "D-Bus, PulseAudio) did not start"

TEST(TrayE2ETest, RecordsFromTheTrayMenuAndNotifiesAtStartAndSave) {
    TrayDesktop desktop({});
    ASSERT_DESKTOP(desktop);
    TrayApp app(desktop);
    ASSERT_TRUE(app.waitUntilReady()) << app.log() << app.errors();

    // The idle menu's entries and states are checked through a D-Bus host (status item test);
    // the shortcut shows only here.
    ASSERT_TRUE(app.entry("Quit Glimmerbox"));
    EXPECT_TRUE(app.entry("Quit Glimmerbox")->has("shortcut=Ctrl+Q"));

    // Open it with the mouse, keep a picture of it, then start.
    const auto entries = app.openMenu();
    ASSERT_TRUE(entries.contains("⏺ Start Recording")) << app.log();
    ASSERT_TRUE(desktop.screenshot(artifactsDir() + "/tray-menu.png"));
    desktop.click(entries.at("⏺ Start Recording"));

    ASSERT_TRUE(app.waitForLog("Recording start completed. Current state: true", 30s)) << app.log();
    ASSERT_TRUE(desktop.waitForNotifications(1, 10s));
    std::this_thread::sleep_for(3s);  // the recording itself

    const auto recordingEntries = app.openMenu();
    ASSERT_TRUE(recordingEntries.contains("⏹ Stop Recording")) << app.log();
    ASSERT_TRUE(desktop.screenshot(artifactsDir() + "/tray-menu-recording.png"));
    desktop.click(recordingEntries.at("⏹ Stop Recording"));
    ASSERT_TRUE(desktop.waitForNotifications(2, 60s)) << app.log();

    const auto movies = moviesIn(desktop.recordingsFolder());
    ASSERT_EQ(movies.size(), 1U);
    expectValidMovie(movies[0], {.seconds = 3.0});

    const auto notes = desktop.notifications();
    ASSERT_EQ(notes.size(), 2U);
    // The application's name, summary and body, a sound, and no expiry.
    EXPECT_THAT(notes[0], HasSubstr("   string \"Glimmerbox\"\n"));
    EXPECT_THAT(notes[0], HasSubstr("string \"Recording Started\"\n"
                                    "   string \"Glimmerbox recording in progress\"\n"));
    EXPECT_THAT(notes[0], ContainsRegex("string \"sound-name\"[[:space:]]+variant[[:space:]]+"
                                        "string \"message-new-instant\""));
    EXPECT_THAT(notes[0], HasSubstr("   int32 -1\n"));
    EXPECT_THAT(notes[1],
                HasSubstr("string \"Recording Saved\"\n   string \"Screencast saved to: " +
                          fs::path(movies[0]).filename().string() + "\"\n"));

    // Back to idle, and the menu says so.
    EXPECT_TRUE(eventually(
        [&] {
            const auto titles = app.topLevelTitles();
            return !titles.empty() && titles.front() == "⏺ Start Recording";
        },
        10s))
        << app.log();

    // Quit from the menu ends the program normally.
    ASSERT_TRUE(app.choose("Quit Glimmerbox")) << app.log();
    EXPECT_EQ(app.wait(10s), 0) << app.errors();
}

TEST(TrayE2ETest, FailedStartShowsOneAlertAndLeavesTheProgramIdle) {
    TrayDesktop desktop({.microphone = false});
    ASSERT_DESKTOP(desktop);
    TrayApp app(desktop);
    ASSERT_TRUE(app.waitUntilReady()) << app.log() << app.errors();

    ASSERT_TRUE(app.choose("⏺ Start Recording")) << app.log();
    ASSERT_TRUE(desktop.waitForWindow("Recording Failed", 30s)) << app.log();
    ASSERT_TRUE(app.waitForLog("[alert] shown \"Recording Failed\"")) << app.log();
    EXPECT_TRUE(
        app.waitForLog("[alert] shown \"Recording Failed\" | Setup failed: No microphone "
                       "found | buttons: OK",
                       1s))
        << app.log();

    desktop.run({"xdotool", "key", "Return"});
    ASSERT_TRUE(app.waitForLog("[alert] closed with button 0", 10s)) << app.log();
    EXPECT_TRUE(eventually([&] { return desktop.windowsNamed("Recording Failed").empty(); }, 5s));
    EXPECT_TRUE(app.running());
    EXPECT_TRUE(app.waitForLog("Recording start completed. Current state: false"));

    // Still idle: the menu offers to start, and nothing was notified or written.
    const auto entries = app.openMenu();
    EXPECT_TRUE(entries.contains("⏺ Start Recording"));
    EXPECT_TRUE(app.closeMenu());
    EXPECT_TRUE(desktop.notifications().empty());
    EXPECT_TRUE(moviesIn(desktop.recordingsFolder()).empty());
    EXPECT_EQ(countOf(app.log(), "[alert] shown"), 1U);
}

TEST(TrayE2ETest, EditorAutomationTogglesScreencastModeAroundARecording) {
    TrayDesktop desktop({});
    ASSERT_DESKTOP(desktop);
    TempDir scratch;
    const std::string keyLog = scratch.path() + "/editor.log";
    auto editor = std::make_unique<Process>(
        std::vector<std::string>{toolPath("fake_editor"), "--class", "Code", "--log", keyLog},
        desktop.env());
    ASSERT_TRUE(eventually([&] { return desktop.hasWindowOfClass("^Code$", true); }, 10s));

    TrayApp app(desktop);
    ASSERT_TRUE(app.waitUntilReady()) << app.log() << app.errors();
    ASSERT_TRUE(app.choose("VS Code Automation")) << app.log();
    ASSERT_TRUE(app.waitForLog("🔧 VS Code automation enabled")) << app.log();
    ASSERT_TRUE(app.waitForEntry("VS Code Automation", "checked"));

    const auto toggle = screencastToggleKeys();
    ASSERT_TRUE(app.choose("⏺ Start Recording")) << app.log();
    ASSERT_TRUE(app.waitForLog("🔧 VS Code automation: Enabled screencast mode")) << app.log();
    ASSERT_TRUE(app.waitForLog("Recording start completed. Current state: true", 30s)) << app.log();
    ASSERT_TRUE(eventually([&] { return linesOf(readText(keyLog)).size() >= toggle.size(); }, 15s))
        << app.log();
    EXPECT_EQ(linesOf(readText(keyLog)), toggle);

    ASSERT_TRUE(app.choose("⏹ Stop Recording")) << app.log();
    ASSERT_TRUE(app.waitForLog("🔧 VS Code automation: Disabled screencast mode", 20s)) << app.log();
    ASSERT_TRUE(desktop.waitForNotifications(2, 60s)) << app.log();
    std::vector<std::string> twice = toggle;
    twice.insert(twice.end(), toggle.begin(), toggle.end());
    EXPECT_EQ(linesOf(readText(keyLog)), twice);
    ASSERT_EQ(moviesIn(desktop.recordingsFolder()).size(), 1U);

    // Without the editor the recording goes ahead all the same.
    editor.reset();
    ASSERT_TRUE(eventually([&] { return !desktop.hasWindowOfClass("^Code$", false); }, 10s));
    std::this_thread::sleep_for(1s);  // file names have one-second resolution
    ASSERT_TRUE(app.choose("⏺ Start Recording")) << app.log();
    ASSERT_TRUE(app.waitForLog("🔧 VS Code automation: VS Code not running")) << app.log();
    ASSERT_TRUE(app.waitForLogCount("Recording start completed. Current state: true", 2, 30s))
        << app.log();
    std::this_thread::sleep_for(1s);
    ASSERT_TRUE(app.choose("⏹ Stop Recording")) << app.log();
    ASSERT_TRUE(desktop.waitForNotifications(4, 60s)) << app.log();
    const auto movies = moviesIn(desktop.recordingsFolder());
    ASSERT_EQ(movies.size(), 2U);
    expectValidMovie(movies[1], {.seconds = 1.0});
}

TEST(TrayE2ETest, ChosenSaveFolderShowsInTheMenuAndSurvivesARestart) {
    TrayDesktop desktop({});
    ASSERT_DESKTOP(desktop);
    const std::string casts = desktop.home() + "/Screencasts/Casts";
    fs::create_directories(casts);
    {
        TrayApp app(desktop);
        ASSERT_TRUE(app.waitUntilReady()) << app.log() << app.errors();
        ASSERT_TRUE(app.choose("Choose Save Location...")) << app.log();
        ASSERT_TRUE(desktop.waitForWindow("Choose Save Location", 20s)) << app.log();
        desktop.run({"xdotool", "type", "--delay", "10", casts});
        desktop.run({"xdotool", "key", "Return"});
        ASSERT_TRUE(
            eventually([&] { return desktop.windowsNamed("Choose Save Location").empty(); }, 10s));

        // The menu shows the folder from its next rebuild on; switching the overlay off and on
        // again brings two.
        for (int i = 0; i < 2; ++i) {
            const size_t builds = countOf(app.log(), "Menu update - Recording state: false");
            ASSERT_TRUE(app.choose("Camera Overlay")) << app.log();
            ASSERT_TRUE(app.waitForLogCount("Menu update - Recording state: false", builds + 1))
                << app.log();
        }
        ASSERT_TRUE(app.waitForEntry("Saving to: Casts", "disabled")) << app.log();
        EXPECT_TRUE(app.entry("Camera Overlay")->has("checked"));
        EXPECT_FALSE(app.entry("Saving to: Documents/Glimmerbox Recordings"));
        EXPECT_TRUE(app.openMenu().contains("Saving to: Casts")) << app.log();
        ASSERT_TRUE(desktop.screenshot(artifactsDir() + "/tray-menu-save-folder.png"));
        ASSERT_TRUE(app.closeMenu());

        // The About window: 400 x 300; closing it hides it and the program goes on.
        ASSERT_TRUE(app.choose("About Glimmerbox")) << app.log();
        ASSERT_TRUE(desktop.waitForWindow("About Glimmerbox", 10s)) << app.log();
        const auto about = desktop.windowsNamed("About Glimmerbox");
        ASSERT_EQ(about.size(), 1U);
        const auto geometry =
            desktop.run({"xdotool", "getwindowgeometry", "--shell", about.front()}).value_or("");
        EXPECT_THAT(geometry, HasSubstr("WIDTH=400\nHEIGHT=300"));
        ASSERT_TRUE(desktop.screenshot(artifactsDir() + "/about-window.png"));
        desktop.run({"xdotool", "windowactivate", "--sync", about.front(), "key",
                     "--clearmodifiers", "alt+F4"});
        EXPECT_TRUE(
            eventually([&] { return desktop.windowsNamed("About Glimmerbox").empty(); }, 5s));
        EXPECT_TRUE(app.running());

        ASSERT_TRUE(app.choose("Quit Glimmerbox")) << app.log();
        EXPECT_EQ(app.wait(10s), 0);
    }
    TrayApp restarted(desktop);
    ASSERT_TRUE(restarted.waitUntilReady()) << restarted.log() << restarted.errors();
    EXPECT_TRUE(restarted.entry("Saving to: Casts")) << restarted.log();
    EXPECT_TRUE(restarted.entry("Saving to: Casts")->has("disabled"));
}

TEST(TrayE2ETest, SecondLaunchSaysSoAndExits) {
    TrayDesktop desktop({});
    ASSERT_DESKTOP(desktop);
    TrayApp first(desktop);
    ASSERT_TRUE(first.waitUntilReady()) << first.log() << first.errors();

    Process second({binaryPath()}, desktop.env());
    EXPECT_EQ(second.wait(15s), 0);
    EXPECT_THAT(second.stdoutText(), HasSubstr("Glimmerbox is already running"));
    EXPECT_THAT(second.stdoutText(), Not(HasSubstr("Menu update")));
    EXPECT_TRUE(first.running());
}

TEST(TrayE2ETest, WithoutATrayHostTheProgramWaitsForOne) {
    TrayDesktop desktop({.tray = false});
    ASSERT_DESKTOP(desktop);
    TrayApp app(desktop);
    ASSERT_TRUE(app.waitForLog("Glimmerbox: no system tray found; waiting for one to appear"))
        << app.log() << app.errors();
    ASSERT_TRUE(app.waitForLog("[menu] end"));
    EXPECT_FALSE(app.trayIcon());

    ASSERT_TRUE(desktop.startTray());
    ASSERT_TRUE(app.waitForLog("Glimmerbox: system tray found; showing the status icon", 10s));
    ASSERT_TRUE(eventually([&] { return app.trayIcon().has_value(); }, 10s));
    EXPECT_TRUE(app.openMenu().contains("⏺ Start Recording")) << app.log();
    EXPECT_TRUE(app.closeMenu());
    EXPECT_TRUE(app.running());
}

}  // namespace
}  // namespace gb::e2e
