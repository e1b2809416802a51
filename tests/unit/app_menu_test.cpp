// Start-up, the status icon and the status menu.
#include <gtest/gtest.h>

#include "unit/shell_harness.h"

namespace gb {
namespace {

using testing::kStart;
using testing::kStop;
using testing::render;
using testing::ShellHarness;
using testing::submenu;

const std::vector<std::string> kIdleMenu{
    kStart,
    "---",
    "Video Quality >",
    "\u2713 Camera Overlay",
    "Camera Size >",
    "Camera Position >",
    "---",
    "VS Code Automation",
    "---",
    "Saving to: Documents/Glimmerbox Recordings (disabled)",
    "Choose Save Location...",
    "Open Recordings Folder",
    "---",
    "About Glimmerbox",
    "Quit Glimmerbox \u2318q",
};

TEST(AppStartup, RunsTheSequenceInOrderAndLogsAccessibilityOnlyWhenTrusted) {
    for (const bool trusted : {true, false}) {
        SCOPED_TRACE(trusted);
        ShellHarness h;
        h.application.accessibilityTrusted = trusted;
        h.launch();
        EXPECT_EQ(h.calls.calls(), (std::vector<std::string>{
                                       "application.setActivationPolicyAccessory",
                                       "application.closeAllWindows",
                                       "notifications.requestAuthorization",
                                       "recorder.create",
                                       "statusBar.makeStatusItem",
                                       "statusItem.image video.circle",
                                       "statusItem.template true",
                                       "statusItem.menu",
                                       "statusItem.image video.circle",
                                       "statusItem.template true",
                                       "statusItem.title ",
                                       "application.isAccessibilityTrusted",
                                       "application.observeDidBecomeActive",
                                   }));
        EXPECT_EQ(h.application.accessibilityPrompts, std::vector<bool>{true});
        std::vector<std::string> lines{"Menu update - Recording state: false"};
        if (trusted) lines.push_back("Accessibility access granted - global shortcuts available");
        EXPECT_EQ(h.log.lines(), lines);
        EXPECT_EQ(h.dispatch.main.pendingCount(), 0u);  // the launch is synchronous
        EXPECT_EQ(h.windows.makeWindowCount(), 0u);
        EXPECT_FALSE(h.delegate->applicationShouldHandleReopen(true));
        EXPECT_FALSE(h.delegate->applicationShouldTerminateAfterLastWindowClosed());

        // A refused notification permission changes nothing.
        h.notifications.answerAuthorization(false);
        h.record();
        EXPECT_EQ(h.notifications.requests.size(), 2u);
    }
}

TEST(StatusMenu, FirstLaunchShowsTheDefaultsAndSubmenuValues) {
    ShellHarness h;
    h.launch();
    const auto& menu = h.menu();
    EXPECT_EQ(render(menu), kIdleMenu);
    // Top-level actions are proven by choosing them in the flow tests.
    for (const auto& e : menu) {
        EXPECT_TRUE(e.targeted) << e.title;
        EXPECT_FALSE(e.value.has_value()) << e.title;
    }
    EXPECT_EQ(render(submenu(menu, "Video Quality")),
              (std::vector<std::string>{"Medium (720p)", "High (1080p)", "Ultra (1440p)",
                                        "\u2713 Current Screen Resolution (1920x1080)"}));
    EXPECT_EQ(render(submenu(menu, "Camera Size")),
              (std::vector<std::string>{"Small (240\u00D7135)", "\u2713 Medium (320\u00D7180)",
                                        "Large (480\u00D7270)"}));
    EXPECT_EQ(
        render(submenu(menu, "Camera Position")),
        (std::vector<std::string>{"Top Left", "Top Right", "Bottom Left", "\u2713 Bottom Right"}));

    // Each submenu entry carries its case, in order, with the submenu's action; one is checked.
    const auto expectCases = [&](const std::string& title, MenuAction action, auto... cases) {
        const auto& entries = submenu(menu, title);
        ASSERT_EQ(entries.size(), sizeof...(cases)) << title;
        size_t i = 0;
        int checked = 0;
        (
            [&] {
                EXPECT_EQ(std::any_cast<decltype(cases)>(entries[i].value), cases) << title;
                EXPECT_EQ(entries[i].action, action);
                EXPECT_FALSE(entries[i].targeted);
                checked += entries[i++].checked ? 1 : 0;
            }(),
            ...);
        EXPECT_EQ(checked, 1) << title;
    };
    expectCases("Video Quality", MenuAction::setVideoQuality, VideoQuality::medium,
                VideoQuality::high, VideoQuality::ultra, VideoQuality::screenResolution);
    expectCases("Camera Size", MenuAction::setCameraOverlayPreset, CameraOverlayPreset::small,
                CameraOverlayPreset::medium, CameraOverlayPreset::large);
    expectCases("Camera Position", MenuAction::setCameraPosition, CameraPosition::topLeft,
                CameraPosition::topRight, CameraPosition::bottomLeft, CameraPosition::bottomRight);
}

TEST(StatusMenu, ScreenQualityLabelFollowsTheCurrentDisplay) {
    ShellHarness h;
    h.display.setSize(1512.5, 982.9);
    h.launch();
    EXPECT_EQ(submenu(h.menu(), "Video Quality")[3].title, "Current Screen Resolution (1512x982)");
    h.display.setScreen(std::nullopt);
    h.application.fireDidBecomeActive();
    EXPECT_EQ(submenu(h.menu(), "Video Quality")[3].title, "Current Screen Resolution");
}

TEST(StatusMenu, SavingToShowsOnlyTheLastComponentFromTheNextRebuildOn) {
    ShellHarness h;
    h.defaults.setURL("/mnt/media/Screen Casts/", AppDelegate::kCustomSaveLocationKey);
    h.launch();
    EXPECT_EQ(render(h.menu())[9], "Saving to: Screen Casts (disabled)");

    h.picker.setResult({1, "/home/user/Casts"});
    const size_t menusBefore = h.item().menus.size();
    h.choose({"Choose Save Location..."});
    EXPECT_EQ(h.picker.shown().size(), 1u);
    EXPECT_EQ(h.defaults.urlForKey(AppDelegate::kCustomSaveLocationKey), "/home/user/Casts");
    EXPECT_EQ(h.item().menus.size(), menusBefore);  // not rebuilt here
    h.application.fireDidBecomeActive();
    EXPECT_EQ(render(h.menu())[9], "Saving to: Casts (disabled)");

    EXPECT_EQ(lastPathComponent("/home/user/Casts//"), "Casts");
    EXPECT_EQ(lastPathComponent("file:///tmp/glimmerbox-2025-03-14_09-26-53.mov"),
              "glimmerbox-2025-03-14_09-26-53.mov");
    EXPECT_EQ(lastPathComponent("name.mov"), "name.mov");
    EXPECT_EQ(lastPathComponent("/"), "/");
}

TEST(StatusMenu, WhileRecordingOnlyTheFirstEntryChanges) {
    ShellHarness h;
    h.launch();
    h.choose({kStart});
    h.runAll();
    ASSERT_TRUE(h.recorder().isRecording());
    EXPECT_TRUE(h.log.contains("Menu update - Recording state: true"));
    std::vector<std::string> expected = kIdleMenu;
    expected[0] = kStop;
    EXPECT_EQ(render(h.menu()), expected);
    EXPECT_EQ(h.menu()[0].action, MenuAction::stopRecording);
}

TEST(StatusIcon, SymbolsAreTemplateImagesAndMissingOnesFallBackToTheirCharacter) {
    struct Case {
        std::set<std::string> unavailable;
        std::string idleImage, idleTitle, recordingImage, recordingTitle;
    };
    const std::vector<Case> cases{
        {{}, "video.circle", "", "record.circle.fill", ""},
        {{"video.circle", "record.circle.fill"}, "", "\u23FA", "", "\u23F9"},
        {{"record.circle.fill"}, "video.circle", "", "", "\u23F9"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.idleImage + "/" + c.recordingImage);
        ShellHarness h;
        h.statusBar.unavailableSymbols = c.unavailable;
        h.launch();
        auto& item = h.item();
        const auto expectIcon = [&](const std::string& image, const std::string& title,
                                    const std::string& description) {
            EXPECT_EQ(item.title, title);
            if (image.empty()) {
                EXPECT_FALSE(item.image);
                return;
            }
            ASSERT_TRUE(item.image);
            EXPECT_EQ(item.image->name, image);
            EXPECT_EQ(item.image->accessibilityDescription, description);
            EXPECT_TRUE(item.imageIsTemplate);
        };
        expectIcon(c.idleImage, c.idleTitle, "Glimmerbox");
        h.choose({kStart});
        h.runAll();
        expectIcon(c.recordingImage, c.recordingTitle, "Recording...");
        h.choose({kStop});
        h.runAll();
        expectIcon(c.idleImage, c.idleTitle, "Glimmerbox");
    }
}

TEST(StatusIcon, AnItemWithoutButtonIsLeftAloneButStillGetsItsMenu) {
    ShellHarness h;
    h.statusBar.itemsHaveButton = false;
    h.launch();
    EXPECT_EQ(h.item().events, std::vector<std::string>{"menu"});
    h.record();
    EXPECT_TRUE(h.item().symbolLookups.empty());
    EXPECT_EQ(h.notifications.requests.size(), 2u);
}

}  // namespace
}  // namespace gb
