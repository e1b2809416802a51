// The menu actions: recording options, the start and stop flows with the editor automation, the
// handling of the recorder's reports, notifications and alerts, About, folders and quitting.
#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

#include "automation/system_events_scripts.h"
#include "unit/shell_harness.h"

namespace gb {
namespace {

using testing::kStart;
using testing::kStop;
using testing::kVSCode;
using testing::render;
using testing::ShellHarness;

using Lines = std::vector<std::string>;

const Lines kIdleIcon{"statusItem.image video.circle", "statusItem.template true",
                      "statusItem.title "};
Lines operator+(Lines a, const Lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
constexpr const char* kMenuUpdate = "Menu update - Recording state: false";

TEST(OptionActions, EachChoiceWritesEveryPlaceLogsAndRebuildsTheMenu) {
    ShellHarness h;
    h.launch();
    h.log.clear();
    h.choose({"Video Quality", "Ultra (1440p)"});  // the recorder only, and silently
    EXPECT_EQ(h.recorder().videoQuality(), VideoQuality::ultra);
    h.choose({"Camera Size", "Large (480\u00D7270)"});
    EXPECT_EQ(h.recorder().cameraOverlayPreset(), CameraOverlayPreset::large);
    EXPECT_EQ(h.capture->cameraOverlayPreset(), CameraOverlayPreset::large);
    EXPECT_EQ(h.composer->cameraOverlayPreset(), CameraOverlayPreset::large);
    h.choose({"Camera Position", "Top Left"});
    EXPECT_EQ(h.recorder().cameraPosition(), CameraPosition::topLeft);
    EXPECT_EQ(h.composer->cameraPosition(), CameraPosition::topLeft);
    EXPECT_EQ(h.item().menus.size(), 4u);
    EXPECT_EQ(h.checked("Video Quality"), "Ultra (1440p)");
    EXPECT_EQ(h.checked("Camera Size"), "Large (480\u00D7270)");
    EXPECT_EQ(h.checked("Camera Position"), "Top Left");

    for (const bool on : {false, true}) {
        h.choose({"Camera Overlay"});
        EXPECT_EQ(h.recorder().cameraOverlayEnabled(), on);
        EXPECT_EQ(h.capture->cameraOverlayEnabled(), on);
        EXPECT_EQ(h.composer->cameraOverlayEnabled(), on);
        EXPECT_EQ(render(h.menu())[3], on ? "\u2713 Camera Overlay" : "Camera Overlay");
    }
    EXPECT_EQ(
        h.log.lines(),
        (Lines{kMenuUpdate, "\U0001F4F7 Camera overlay preset changed to: Large (480\u00D7270)",
               kMenuUpdate, "\U0001F4CD Camera position changed to: Top Left", kMenuUpdate,
               "\U0001F4F7 Camera overlay toggled: true \u2192 false",
               "\u274C Camera overlay is now DISABLED", kMenuUpdate,
               "\U0001F4F7 Camera overlay toggled: false \u2192 true",
               "\u2705 Camera overlay is now ENABLED", kMenuUpdate}));
}

TEST(StartStopFlow, WithAutomationOffLogInOrderAndCancelTheStartTaskAtTheStop) {
    ShellHarness h;
    h.launch();
    h.log.clear();
    h.choose({kStart});
    EXPECT_EQ(h.log.lines(), Lines{"Start recording button pressed"});
    ASSERT_TRUE(h.delegate->recordingTask().has_value());
    h.runAll();
    EXPECT_EQ(h.log.linesStartingWith({"Start recording", "About to start", "\U0001F527",
                                       "ScreenRecorder.startRecording()",
                                       "Recording start completed", "AppDelegate."}),
              (Lines{"Start recording button pressed", "About to start recording...",
                     "\U0001F527 VS Code automation: Disabled - skipping screencast mode",
                     "ScreenRecorder.startRecording() called",
                     "AppDelegate.recorderDidStart() called - Recording state: true",
                     "Recording start completed. Current state: true"}));
    EXPECT_TRUE(h.runner.scripts().empty());
    EXPECT_TRUE(h.finder.queries().empty());

    const CancellationToken task = *h.delegate->recordingTask();
    h.log.clear();
    h.choose({kStop});
    EXPECT_TRUE(task.isCancelled());
    EXPECT_FALSE(h.recorder().isRecording());
    EXPECT_EQ(h.log.lines().back(),
              "\U0001F527 VS Code automation: Disabled - skipping screencast mode cleanup");
}

TEST(AutomationFlow, TheEditorIsSwitchedOnWithoutWaitingAndOffInTheBackground) {
    ShellHarness h;
    h.enableAutomation();
    h.launch();
    h.choose({"Video Quality", "Medium (720p)"});
    h.log.clear();

    h.choose({kStart});
    ASSERT_TRUE(h.dispatch.main.runOne());  // the start task up to its await
    EXPECT_EQ(h.recorder().videoQuality(), VideoQuality::high);
    EXPECT_EQ(h.log.lines(), (Lines{"Start recording button pressed", "About to start recording...",
                                    "\U0001F527 VS Code automation: Enabled screencast mode"}));
    // Only the terminal detection has run; the enable task waits on the background executor
    // beside the recorder's start.
    EXPECT_EQ(h.runner.scripts(), Lines{std::string(scripts::kTerminalDetection)});
    EXPECT_EQ(h.dispatch.background.pendingCount(), 2u);
    EXPECT_FALSE(h.vsCode.screencastModeEnabled());

    h.runAll();
    EXPECT_TRUE(h.vsCode.screencastModeEnabled());
    ASSERT_EQ(h.runner.scripts().size(), 4u);
    EXPECT_EQ(h.runner.scripts()[1], std::string(scripts::kCommandPalette));
    EXPECT_TRUE(h.recorder().isRecording());
    EXPECT_EQ(h.checked("Video Quality"), "High (1080p)");
    EXPECT_EQ(h.finder.queries(), (Lines{kVSCode, kVSCode, kVSCode}));

    h.log.clear();
    h.choose({kStop});
    EXPECT_FALSE(h.log.contains("\U0001F527 VS Code automation: Disabled screencast mode"));
    h.runAll();
    EXPECT_FALSE(h.vsCode.screencastModeEnabled());
    EXPECT_EQ(h.log.count("\U0001F527 VS Code automation: Disabled screencast mode"), 1u);
    EXPECT_EQ(h.runner.scripts().size(), 7u);  // detection, then two toggles of three scripts
    // The disable's pauses were not cut short by the cancelled start task.
    const auto sleeps = h.dispatch.sleeperImpl.sleeps();
    EXPECT_EQ(std::count(sleeps.begin(), sleeps.end(), std::chrono::milliseconds(500)), 2);
}

TEST(Failures, AFailedStartOrFinishEndsWithTheAlertAndKeepsTheMenu) {
    ShellHarness h;
    h.access.setAnswer(MediaType::audio, false);
    h.access.setAnswer(MediaType::video, false);
    h.launch();
    h.calls.clear();
    h.startThenRun();
    EXPECT_EQ(h.calls.calls(), kIdleIcon + Lines{"alert Recording Failed"} + kIdleIcon);
    ASSERT_EQ(h.alerts.alerts.size(), 1u);
    const AlertDescription& alert = h.alerts.alerts[0];
    EXPECT_EQ(alert.informativeText, "Permission denied: Microphone And Camera access required");
    EXPECT_EQ(alert.style, AlertStyle::warning);
    EXPECT_TRUE(h.notifications.requests.empty());

    fakes::FakeWriterConfig config;
    config.finishStatus = AssetWriterStatus::failed;
    config.finishError = PlatformError{"AVFoundationErrorDomain", -11800, "The disk is full."};
    h.factory.setConfig(config);
    h.access.setAnswer(MediaType::audio, true);
    h.access.setAnswer(MediaType::video, true);
    h.record();
    ASSERT_EQ(h.alerts.alerts.size(), 2u);
    EXPECT_EQ(h.alerts.alerts[1].messageText, "Recording Failed");
    EXPECT_EQ(h.alerts.alerts[1].informativeText,
              "Recording failed: Failed to finalize recording: The disk is full.");
    ASSERT_EQ(h.notifications.requests.size(), 1u);  // only "Recording Started"
    // The menu is not rebuilt for a failure; the icon shows the recorder's state.
    EXPECT_EQ(h.menu()[0].title, kStop);
    ASSERT_TRUE(h.item().image);
    EXPECT_EQ(h.item().image->name, "video.circle");
}

class BrokenFinder final : public ApplicationFinder {
public:
    std::vector<RunningApplicationRef> runningApplications(const std::string&) override {
        throw std::runtime_error("no session bus");
    }
};

TEST(Automation, FinderErrorsNeitherThrowNorReachTheUser) {
    ShellHarness h;
    BrokenFinder broken;
    VSCodeIntegration vsCode(broken, h.runner, h.dispatch.sleeperImpl);
    h.enableAutomation();
    h.launch(&vsCode);
    ASSERT_NO_THROW(h.record());
    EXPECT_TRUE(h.log.contains("\U0001F527 VS Code automation: start failed: no session bus"));
    EXPECT_TRUE(h.alerts.alerts.empty());
    EXPECT_EQ(h.notifications.requests.size(), 2u);
    h.delegate.reset();
}

TEST(Folders, TheDefaultFolderIsCreatedThenOpenedEvenOnFailureAChosenOneOpenedAsItIs) {
    ShellHarness h;
    h.files.setCreateDirectoryError(PlatformError{"NSCocoaErrorDomain", 513, "Permission denied."});
    h.launch();
    h.log.clear();
    h.choose({"Open Recordings Folder"});
    ASSERT_EQ(h.files.createDirectoryCalls().size(), 1u);
    EXPECT_TRUE(h.files.createDirectoryCalls()[0].intermediates);
    EXPECT_EQ(h.log.lines().size(), 1u);  // one diagnostic line, nothing for the user
    EXPECT_TRUE(h.alerts.alerts.empty());

    h.defaults.setURL("/media/usb/Casts", AppDelegate::kCustomSaveLocationKey);
    h.choose({"Open Recordings Folder"});
    EXPECT_EQ(h.files.createDirectoryCalls().size(), 1u);
    EXPECT_EQ(h.workspace.opened,
              (Lines{"/home/user/Documents/Glimmerbox Recordings", "/media/usb/Casts"}));
}

TEST(Quit, WhileRecordingFinishesTheFileThenTerminates) {
    ShellHarness h;
    h.enableAutomation();
    h.launch();
    h.startThenRun();
    const size_t scriptsBefore = h.runner.scripts().size();
    h.calls.clear();
    h.choose({"Quit Glimmerbox"});
    auto calls = h.calls.calls();
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.back(), "application.terminate");
    EXPECT_NE(std::find(calls.begin(), calls.end(), "writer.finishWriting"), calls.end());
    // Quitting neither cancels the start task nor switches the editor back.
    EXPECT_FALSE(h.delegate->recordingTask()->isCancelled());
    h.runAll();
    EXPECT_EQ(h.runner.scripts().size(), scriptsBefore);
}

}  // namespace
}  // namespace gb
