// Start-up, the status icon and the status menu.
#include <gtest/gtest.h>

#include <set>

#include "unit/shell_harness.h"

namespace gb {
namespace {

using testing::render;
using testing::ShellHarness;
using testing::submenu;
using Lines = std::vector<std::string>;

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

TEST(StatusMenu, LabelsShowTheDisplaySizeAndTheFolderName) {
    ShellHarness h;
    h.display.setSize(1512.5, 982.9);
    h.defaults.setURL("/mnt/media/Screen Casts/", AppDelegate::kCustomSaveLocationKey);
    h.launch();
    EXPECT_EQ(render(h.menu())[9], "Saving to: Screen Casts (disabled)");
    EXPECT_EQ(submenu(h.menu(), "Video Quality")[3].title, "Current Screen Resolution (1512x982)");

    h.display.setScreen(std::nullopt);
    h.application.fireDidBecomeActive();
    EXPECT_EQ(submenu(h.menu(), "Video Quality")[3].title, "Current Screen Resolution");
}

TEST(StatusIcon, SymbolsAreTemplateImagesAndMissingOnesFallBackToTheirCharacter) {
    struct Case {
        std::set<std::string> unavailable;
        std::string idleImage, idleTitle, recordingImage, recordingTitle;
    };
    for (const Case& c :
         std::vector<Case>{{{}, "video.circle", "", "record.circle.fill", ""},
                           {{"video.circle", "record.circle.fill"}, "", "\u23FA", "", "\u23F9"}}) {
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
    }
}

}  // namespace
}  // namespace gb
