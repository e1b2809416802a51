// Start-up, the status icon and the status menu.
#include <gtest/gtest.h>

#include <sstream>

#include "unit/shell_harness.h"

namespace gb {
namespace {

using testing::kStop;
using testing::render;
using testing::ShellHarness;
using testing::submenu;
using Lines = std::vector<std::string>;

// The idle menu as rendered, entries separated by "|".
Lines idleMenu() {
    Lines out;
    std::stringstream in(
        "\u23FA Start Recording|---|Video Quality >|\u2713 Camera Overlay|Camera Size >|Camera "
        "Position >|---|VS Code Automation|---|Saving to: Documents/Glimmerbox Recordings "
        "(disabled)|Choose Save Location...|Open Recordings Folder|---|About Glimmerbox|Quit "
        "Glimmerbox \u2318q");
    for (std::string entry; std::getline(in, entry, '|');) out.push_back(entry);
    return out;
}

TEST(AppStartup, RunsTheSequenceInOrderAndLogsAccessibilityOnlyWhenTrusted) {
    for (const bool trusted : {true, false}) {
        SCOPED_TRACE(trusted);
        ShellHarness h;
        h.application.accessibilityTrusted = trusted;
        h.launch();
        EXPECT_EQ(
            h.calls.calls(),
            (Lines{"application.setActivationPolicyAccessory", "application.closeAllWindows",
                   "notifications.requestAuthorization", "recorder.create",
                   "statusBar.makeStatusItem", "statusItem.image video.circle",
                   "statusItem.template true", "statusItem.menu", "statusItem.image video.circle",
                   "statusItem.template true", "statusItem.title ",
                   "application.isAccessibilityTrusted", "application.observeDidBecomeActive"}));
        EXPECT_EQ(h.application.accessibilityPrompts, std::vector<bool>{true});
        Lines lines{"Menu update - Recording state: false"};
        if (trusted) lines.push_back("Accessibility access granted - global shortcuts available");
        EXPECT_EQ(h.log.lines(), lines);
        EXPECT_EQ(h.dispatch.main.pendingCount(), 0u);  // the launch is synchronous

        // A refused notification permission changes nothing.
        h.notifications.answerAuthorization(false);
        h.record();
        EXPECT_EQ(h.notifications.requests.size(), 2u);
    }
}

TEST(StatusMenu, FirstLaunchShowsTheDefaultsThenTheStopEntryWhileRecording) {
    ShellHarness h;
    h.launch();
    const auto& menu = h.menu();
    EXPECT_EQ(render(menu), idleMenu());
    for (const auto& e : menu) {
        EXPECT_TRUE(e.targeted) << e.title;
        EXPECT_FALSE(e.value.has_value()) << e.title;
    }
    EXPECT_EQ(render(submenu(menu, "Video Quality")),
              (Lines{"Medium (720p)", "High (1080p)", "Ultra (1440p)",
                     "\u2713 Current Screen Resolution (1920x1080)"}));
    EXPECT_EQ(
        render(submenu(menu, "Camera Size")),
        (Lines{"Small (240\u00D7135)", "\u2713 Medium (320\u00D7180)", "Large (480\u00D7270)"}));
    EXPECT_EQ(render(submenu(menu, "Camera Position")),
              (Lines{"Top Left", "Top Right", "Bottom Left", "\u2713 Bottom Right"}));

    // Each submenu entry carries its case, in order, with the submenu's action.
    const auto expectCases = [&](const std::string& title, MenuAction action, auto... cases) {
        const auto& entries = submenu(menu, title);
        ASSERT_EQ(entries.size(), sizeof...(cases)) << title;
        size_t i = 0;
        (
            [&] {
                EXPECT_EQ(std::any_cast<decltype(cases)>(entries[i].value), cases) << title;
                EXPECT_EQ(entries[i].action, action);
                EXPECT_FALSE(entries[i++].targeted);
            }(),
            ...);
    };
    expectCases("Video Quality", MenuAction::setVideoQuality, VideoQuality::medium,
                VideoQuality::high, VideoQuality::ultra, VideoQuality::screenResolution);
    expectCases("Camera Size", MenuAction::setCameraOverlayPreset, CameraOverlayPreset::small,
                CameraOverlayPreset::medium, CameraOverlayPreset::large);
    expectCases("Camera Position", MenuAction::setCameraPosition, CameraPosition::topLeft,
                CameraPosition::topRight, CameraPosition::bottomLeft, CameraPosition::bottomRight);

    h.startThenRun();
    ASSERT_TRUE(h.recorder().isRecording());
    EXPECT_TRUE(h.log.contains("Menu update - Recording state: true"));
    Lines expected = idleMenu();
    expected[0] = kStop;
    EXPECT_EQ(render(h.menu()), expected);
    EXPECT_EQ(h.menu()[0].action, MenuAction::stopRecording);
}

TEST(StatusMenu, LabelsShowTheDisplayAndTheFolderLastComponentFromTheNextRebuildOn) {
    ShellHarness h;
    h.display.setSize(1512.5, 982.9);
    h.defaults.setURL("/mnt/media/Screen Casts/", AppDelegate::kCustomSaveLocationKey);
    h.launch();
    EXPECT_EQ(render(h.menu())[9], "Saving to: Screen Casts (disabled)");
    EXPECT_EQ(submenu(h.menu(), "Video Quality")[3].title, "Current Screen Resolution (1512x982)");

    h.picker.setResult({1, "/home/user/Casts"});
    const size_t menusBefore = h.item().menus.size();
    h.choose({"Choose Save Location..."});
    EXPECT_EQ(h.picker.shown().size(), 1u);
    EXPECT_EQ(h.defaults.urlForKey(AppDelegate::kCustomSaveLocationKey), "/home/user/Casts");
    EXPECT_EQ(h.item().menus.size(), menusBefore);  // not rebuilt here
    h.display.setScreen(std::nullopt);
    h.application.fireDidBecomeActive();
    EXPECT_EQ(render(h.menu())[9], "Saving to: Casts (disabled)");
    EXPECT_EQ(submenu(h.menu(), "Video Quality")[3].title, "Current Screen Resolution");
    EXPECT_EQ(lastPathComponent("/home/user/Casts//"), "Casts");
    EXPECT_EQ(lastPathComponent("/"), "/");
}

TEST(StatusIcon, SymbolsAreTemplateImagesAndMissingOnesFallBackToTheirCharacter) {
    struct Case {
        std::set<std::string> unavailable;
        std::string idleImage, idleTitle, recordingImage, recordingTitle;
    };
    for (const Case& c :
         std::vector<Case>{{{}, "video.circle", "", "record.circle.fill", ""},
                           {{"video.circle", "record.circle.fill"}, "", "\u23FA", "", "\u23F9"},
                           {{"record.circle.fill"}, "video.circle", "", "", "\u23F9"}}) {
        SCOPED_TRACE(c.idleImage + "/" + c.recordingImage);
        ShellHarness h;
        h.statusBar.unavailableSymbols = c.unavailable;
        h.launch();
        auto& item = h.item();
        const auto expectIcon = [&](const std::string& image, const std::string& title,
                                    const std::string& description) {
            EXPECT_EQ(item.title, title);
            ASSERT_EQ(item.image.has_value(), !image.empty());
            if (image.empty()) return;
            EXPECT_EQ(item.image->name, image);
            EXPECT_EQ(item.image->accessibilityDescription, description);
            EXPECT_TRUE(item.imageIsTemplate);
        };
        expectIcon(c.idleImage, c.idleTitle, "Glimmerbox");
        h.startThenRun();
        expectIcon(c.recordingImage, c.recordingTitle, "Recording...");
        h.choose({kStop});
        h.runAll();
        expectIcon(c.idleImage, c.idleTitle, "Glimmerbox");
    }
}

}  // namespace
}  // namespace gb
