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

std::vector<MenuAction> actions(const std::vector<MenuEntry>& entries) {
    std::vector<MenuAction> out;
    for (const auto& e : entries) out.push_back(e.action);
    return out;
}

TEST(AppStartup, RunsTheSequenceInOrder) {
    ShellHarness h;
    h.application.accessibilityTrusted = true;
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
    EXPECT_EQ(h.log.lines(), (std::vector<std::string>{
                                 "Menu update - Recording state: false",
                                 "Accessibility access granted - global shortcuts available",
                             }));
    ASSERT_NE(h.delegate->statusItem(), nullptr);
    ASSERT_NE(h.delegate->recorder(), nullptr);
    EXPECT_FALSE(h.delegate->recordingTask().has_value());
    EXPECT_EQ(h.delegate->aboutWindow(), nullptr);
    EXPECT_EQ(h.windows.makeWindowCount(), 0u);
    // Nothing was queued: the launch is synchronous.
    EXPECT_EQ(h.dispatch.main.pendingCount(), 0u);
}

TEST(AppStartup, AnUntrustedProcessOnlyLeavesTheAccessibilityLineOut) {
    ShellHarness h;
    h.launch();
    EXPECT_EQ(h.log.lines(), std::vector<std::string>{"Menu update - Recording state: false"});
    EXPECT_EQ(h.application.accessibilityPrompts, std::vector<bool>{true});
}

TEST(AppStartup, NeverEndsOrReopensThroughWindows) {
    ShellHarness h;
    h.launch();
    EXPECT_FALSE(h.delegate->applicationShouldHandleReopen(false));
    EXPECT_FALSE(h.delegate->applicationShouldHandleReopen(true));
    EXPECT_FALSE(h.delegate->applicationShouldTerminateAfterLastWindowClosed());
    EXPECT_EQ(h.windows.makeWindowCount(), 0u);
}

TEST(AppStartup, NotificationPermissionIsAskedOnceAndItsAnswerChangesNothing) {
    ShellHarness h;
    h.launch();
    EXPECT_EQ(h.notifications.authorizationRequests, 1);
    const size_t linesBefore = h.log.lines().size();
    h.notifications.answerAuthorization(false);
    EXPECT_EQ(h.log.lines().size(), linesBefore);
    h.record();
    EXPECT_EQ(h.notifications.requests.size(), 2u);
}

TEST(StatusMenu, FirstLaunchShowsTheDefaults) {
    ShellHarness h;
    h.launch();
    const auto& menu = h.menu();
    ASSERT_EQ(menu.size(), 15u);
    EXPECT_EQ(render(menu), kIdleMenu);
    EXPECT_EQ(
        actions(menu),
        (std::vector<MenuAction>{
            MenuAction::startRecording, MenuAction::none, MenuAction::none,
            MenuAction::toggleCameraOverlay, MenuAction::none, MenuAction::none, MenuAction::none,
            MenuAction::toggleVSCodeAutomation, MenuAction::none, MenuAction::none,
            MenuAction::chooseSaveLocation, MenuAction::openRecordingsFolder, MenuAction::none,
            MenuAction::showAbout, MenuAction::quitApp}));
    for (const auto& e : menu) {
        EXPECT_TRUE(e.targeted) << e.title;
        EXPECT_FALSE(e.value.has_value()) << e.title;
        EXPECT_EQ(e.keyEquivalent, e.title == "Quit Glimmerbox" ? "q" : "") << e.title;
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
}

TEST(StatusMenu, SubmenuEntriesCarryTheirCaseAndReachTheDelegateByRouting) {
    ShellHarness h;
    h.launch();
    // Each entry's value is its case, in declaration order, with the submenu's action.
    const auto expectCases = [&](const std::string& title, MenuAction action, auto... cases) {
        const auto& entries = submenu(h.menu(), title);
        ASSERT_EQ(entries.size(), sizeof...(cases)) << title;
        size_t i = 0;
        int checked = 0;
        (
            [&] {
                EXPECT_EQ(std::any_cast<decltype(cases)>(entries[i].value), cases) << title;
                EXPECT_EQ(entries[i].action, action);
                EXPECT_FALSE(entries[i].targeted);
                EXPECT_TRUE(entries[i].keyEquivalent.empty());
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

TEST(StatusMenu, SavingToShowsOnlyTheChosenFoldersName) {
    ShellHarness h;
    h.defaults.setURL("/home/user/Videos/Casts", AppDelegate::kCustomSaveLocationKey);
    h.launch();
    EXPECT_EQ(render(h.menu())[9], "Saving to: Casts (disabled)");

    h.defaults.setURL("/mnt/media/Screen Casts/", AppDelegate::kCustomSaveLocationKey);
    h.application.fireDidBecomeActive();
    EXPECT_EQ(render(h.menu())[9], "Saving to: Screen Casts (disabled)");
}

TEST(StatusMenu, ChoosingASaveLocationShowsFromTheNextRebuildOn) {
    ShellHarness h;
    h.launch();
    h.picker.setResult({1, "/home/user/Casts"});
    const size_t menusBefore = h.item().menus.size();
    h.choose({"Choose Save Location..."});
    EXPECT_EQ(h.picker.shown().size(), 1u);
    EXPECT_EQ(h.defaults.urlForKey(AppDelegate::kCustomSaveLocationKey), "/home/user/Casts");
    EXPECT_EQ(h.item().menus.size(), menusBefore);  // not rebuilt here
    EXPECT_EQ(render(h.menu())[9], "Saving to: Documents/Glimmerbox Recordings (disabled)");

    h.application.fireDidBecomeActive();
    EXPECT_EQ(render(h.menu())[9], "Saving to: Casts (disabled)");
}

TEST(StatusMenu, EachBuildLogsTheRecordingStateOnce) {
    ShellHarness h;
    h.launch();
    h.log.clear();
    h.application.fireDidBecomeActive();
    h.application.fireDidBecomeActive();
    EXPECT_EQ(h.log.lines(), (std::vector<std::string>{"Menu update - Recording state: false",
                                                       "Menu update - Recording state: false"}));
    EXPECT_EQ(h.item().menus.size(), 3u);
    // A build on its own does not install anything.
    (void)h.delegate->buildMenu();
    EXPECT_EQ(h.item().menus.size(), 3u);
    EXPECT_EQ(h.log.count("Menu update - Recording state: false"), 3u);
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
    for (const auto& e : h.menu()) EXPECT_EQ(e.enabled, e.title.rfind("Saving to", 0) != 0);
}

TEST(StatusIcon, IdleAndRecordingSymbolsAreTemplateImagesWithoutTitle) {
    ShellHarness h;
    h.launch();
    auto& item = h.item();
    ASSERT_TRUE(item.image);
    EXPECT_EQ(item.image->name, "video.circle");
    EXPECT_EQ(item.image->accessibilityDescription, "Glimmerbox");
    EXPECT_TRUE(item.imageIsTemplate);
    EXPECT_EQ(item.title, "");

    h.choose({kStart});
    h.runAll();
    ASSERT_TRUE(item.image);
    EXPECT_EQ(item.image->name, "record.circle.fill");
    EXPECT_EQ(item.image->accessibilityDescription, "Recording...");
    EXPECT_TRUE(item.imageIsTemplate);
    EXPECT_EQ(item.title, "");
}

TEST(StatusIcon, UnavailableSymbolsFallBackToTheirCharacterWithoutImage) {
    ShellHarness h;
    h.statusBar.unavailableSymbols = {"video.circle", "record.circle.fill"};
    h.launch();
    auto& item = h.item();
    EXPECT_EQ(item.events,
              (std::vector<std::string>{"title \u23FA", "menu", "title \u23FA", "image none"}));
    EXPECT_FALSE(item.image);

    h.choose({kStart});
    h.runAll();
    EXPECT_EQ(item.title, "\u23F9");
    EXPECT_FALSE(item.image);
}

TEST(StatusIcon, OnlyTheRecordingSymbolMissing) {
    ShellHarness h;
    h.statusBar.unavailableSymbols = {"record.circle.fill"};
    h.launch();
    auto& item = h.item();
    h.choose({kStart});
    h.runAll();
    EXPECT_EQ(item.title, "\u23F9");
    EXPECT_FALSE(item.image);
    h.choose({kStop});
    h.runAll();
    ASSERT_TRUE(item.image);
    EXPECT_EQ(item.image->name, "video.circle");
    EXPECT_EQ(item.title, "");
}

TEST(StatusIcon, AnItemWithoutButtonIsLeftAloneButStillGetsItsMenu) {
    ShellHarness h;
    h.statusBar.itemsHaveButton = false;
    h.launch();
    EXPECT_EQ(h.item().events, std::vector<std::string>{"menu"});
    EXPECT_TRUE(h.item().symbolLookups.empty());
    h.record();
    EXPECT_TRUE(h.item().symbolLookups.empty());
    EXPECT_EQ(h.notifications.requests.size(), 2u);
}

TEST(PathComponents, LastComponentIgnoresTrailingSlashesAndSchemes) {
    EXPECT_EQ(lastPathComponent("/home/user/Casts"), "Casts");
    EXPECT_EQ(lastPathComponent("/home/user/Casts//"), "Casts");
    EXPECT_EQ(lastPathComponent("file:///tmp/glimmerbox-2025-03-14_09-26-53.mov"),
              "glimmerbox-2025-03-14_09-26-53.mov");
    EXPECT_EQ(lastPathComponent("name.mov"), "name.mov");
    EXPECT_EQ(lastPathComponent("/"), "/");
}

}  // namespace
}  // namespace gb
