// The menu actions: recording options, the start and stop flows with the editor automation, the
// handling of the recorder's reports, notifications and alerts, About, folders and quitting.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>
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
    for (const bool on : {true, false}) {
        h.choose({"VS Code Automation"});
        EXPECT_EQ(h.defaults.boolForKey(AppDelegate::kVSCodeAutomationEnabledKey), on);
        EXPECT_EQ(render(h.menu())[7], on ? "\u2713 VS Code Automation" : "VS Code Automation");
    }
    EXPECT_EQ(
        h.log.lines(),
        (Lines{kMenuUpdate, "\U0001F4F7 Camera overlay preset changed to: Large (480\u00D7270)",
               kMenuUpdate, "\U0001F4CD Camera position changed to: Top Left", kMenuUpdate,
               "\U0001F4F7 Camera overlay toggled: true \u2192 false",
               "\u274C Camera overlay is now DISABLED", kMenuUpdate,
               "\U0001F4F7 Camera overlay toggled: false \u2192 true",
               "\u2705 Camera overlay is now ENABLED", kMenuUpdate,
               "\U0001F527 VS Code automation enabled", kMenuUpdate,
               "\U0001F527 VS Code automation disabled", kMenuUpdate}));
}

TEST(OptionActions, EntriesWithoutAValueOfTheirTypeDoNothing) {
    ShellHarness h;
    h.launch();
    h.log.clear();
    const auto before = h.item().events.size();
    const auto entry = [](std::any value) {
        MenuEntry e;
        e.value = std::move(value);
        return e;
    };
    const MenuEntry empty, text = entry(std::string("high"));
    for (const MenuEntry& e : {empty, text, entry(VideoQuality::medium)})
        h.delegate->setCameraPosition(e);
    for (const MenuEntry& e : {empty, text, entry(CameraPosition::topLeft)}) {
        h.delegate->setVideoQuality(e);
        h.delegate->setCameraOverlayPreset(e);
    }

    EXPECT_EQ(h.recorder().videoQuality(), VideoQuality::screenResolution);
    EXPECT_EQ(h.capture->cameraOverlayPreset(), CameraOverlayPreset::medium);
    EXPECT_EQ(h.composer->cameraOverlayPreset(), CameraOverlayPreset::medium);
    EXPECT_EQ(h.composer->cameraPosition(), CameraPosition::bottomRight);
    EXPECT_TRUE(h.log.lines().empty());
    EXPECT_EQ(h.item().events.size(), before);
}

TEST(StartStopFlow, WithAutomationOffLogInOrderAndCancelTheStartTaskAtTheStop) {
    ShellHarness h;
    h.launch();
    h.log.clear();
    h.calls.clear();
    h.delegate->stopRecording();  // before any start: still follows the setting
    EXPECT_FALSE(h.delegate->recordingTask().has_value());
    EXPECT_EQ(
        h.log.lines(),
        (Lines{"Stop recording button pressed", "Stop recording called but not currently recording",
               "\U0001F527 VS Code automation: Disabled - skipping screencast mode cleanup"}));
    EXPECT_TRUE(h.calls.calls().empty());  // the icon update is queued
    h.runAll();
    EXPECT_EQ(h.calls.calls(), kIdleIcon);

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
    const auto lines = h.log.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[0], "Stop recording button pressed");
    EXPECT_EQ(lines[1], "Stopping recording...");
    EXPECT_EQ(lines.back(),
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

    // Switched off during the next recording: the editor is left as it is.
    h.startThenRun();
    h.choose({"VS Code Automation"});
    h.choose({kStop});
    h.runAll();
    EXPECT_TRUE(h.log.contains(
        "\U0001F527 VS Code automation: Disabled - skipping screencast mode cleanup"));
    EXPECT_TRUE(h.vsCode.screencastModeEnabled());
}

TEST(StartFlow, WithTheEditorNotRunningTheQualityIsUntouched) {
    ShellHarness h;
    h.enableAutomation(false);
    h.launch();
    h.startThenRun();
    EXPECT_EQ(h.recorder().videoQuality(), VideoQuality::screenResolution);
    EXPECT_TRUE(h.log.contains("\U0001F527 VS Code automation: VS Code not running"));
    EXPECT_FALSE(h.log.contains("\U0001F527 VS Code automation: Enabled screencast mode"));
    EXPECT_TRUE(h.runner.scripts().empty());  // no terminal detection, no enable task
    EXPECT_TRUE(h.recorder().isRecording());
}

TEST(Failures, AFailedStartOrFinishEndsWithTheAlertAndKeepsTheMenu) {
    ShellHarness h;
    h.access.setAnswer(MediaType::audio, false);
    h.access.setAnswer(MediaType::video, false);
    h.launch();
    h.calls.clear();
    const size_t menusBefore = h.item().menus.size();
    h.startThenRun();
    EXPECT_EQ(h.calls.calls(), kIdleIcon + Lines{"alert Recording Failed"} + kIdleIcon);
    ASSERT_EQ(h.alerts.alerts.size(), 1u);
    const AlertDescription& alert = h.alerts.alerts[0];
    EXPECT_EQ(alert.informativeText, "Permission denied: Microphone And Camera access required");
    EXPECT_EQ(alert.style, AlertStyle::warning);
    EXPECT_EQ(alert.buttons, Lines{"OK"});
    EXPECT_TRUE(h.notifications.requests.empty());
    EXPECT_EQ(h.item().menus.size(), menusBefore);

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

TEST(Recording, IconMenuAndNotificationsFollowTheRecordersReportsForTwoRecordings) {
    ShellHarness h;
    h.launch();
    h.calls.clear();
    // Inputs and writers report their own calls; only the shell's effects matter here.
    auto shellCalls = [&h] {
        auto got = h.calls.calls();
        std::erase_if(got, [](const std::string& c) {
            return c.rfind("statusItem.", 0) != 0 && c.rfind("notification", 0) != 0 &&
                   c != "writer.finishWriting";
        });
        h.calls.clear();
        return got;
    };
    h.choose({kStart});
    EXPECT_TRUE(shellCalls().empty());  // the start action changes nothing by itself
    h.runAll();
    const Lines recordingIcon{"statusItem.image record.circle.fill", "statusItem.template true",
                              "statusItem.title "};
    EXPECT_EQ(shellCalls(),
              (recordingIcon + Lines{"statusItem.menu", "notification Recording Started"} +
               recordingIcon));
    h.choose({kStop});
    h.runAll();
    EXPECT_EQ(shellCalls(), (Lines{"writer.finishWriting"} + kIdleIcon + kIdleIcon +
                             Lines{"statusItem.menu", "notification Recording Saved"}));
    EXPECT_EQ(h.menu()[0].title, kStart);
    EXPECT_TRUE(h.notifications.requests[0].defaultSound);
    EXPECT_TRUE(h.alerts.alerts.empty());

    h.dates.setFormatted("2025-03-14_09-30-00");
    h.record();
    ASSERT_EQ(h.notifications.requests.size(), 4u);
    const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> ids;
    for (const auto& r : h.notifications.requests) {
        EXPECT_TRUE(std::regex_match(r.identifier, form)) << r.identifier;
        ids.insert(r.identifier);
    }
    EXPECT_EQ(ids.size(), 4u);
    EXPECT_EQ(h.notifications.requests[3].body,
              "Screencast saved to: glimmerbox-2025-03-14_09-30-00.mov");
}

class BrokenFinder final : public ApplicationFinder {
public:
    std::vector<RunningApplicationRef> runningApplications(const std::string&) override {
        throw std::runtime_error("no session bus");
    }
};

TEST(Automation, ScriptRunnerAndFinderErrorsNeitherThrowNorReachTheUser) {
    {
        ShellHarness h;
        h.runner.setResponder([](const std::string&) -> ScriptOutcome {
            throw std::runtime_error("System Events is gone");
        });
        h.enableAutomation();
        h.launch();
        ASSERT_NO_THROW(h.record());
        EXPECT_TRUE(h.alerts.alerts.empty());
        EXPECT_EQ(h.notifications.requests.size(), 2u);
        EXPECT_FALSE(h.vsCode.screencastModeEnabled());
    }
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

TEST(Settings, ValuesOfTheWrongTypeReadAsAbsent) {
    ShellHarness h;
    h.defaults.setRaw(AppDelegate::kVSCodeAutomationEnabledKey, std::string("yes"));
    h.defaults.setRaw(AppDelegate::kCustomSaveLocationKey, true);
    h.finder.launch(kVSCode);
    h.launch();
    EXPECT_EQ(render(h.menu())[7], "VS Code Automation");
    EXPECT_EQ(render(h.menu())[9], "Saving to: Documents/Glimmerbox Recordings (disabled)");
    h.delegate->openRecordingsFolder();
    EXPECT_EQ(h.workspace.opened, Lines{"/home/user/Documents/Glimmerbox Recordings"});
    h.startThenRun();
    EXPECT_TRUE(
        h.log.contains("\U0001F527 VS Code automation: Disabled - skipping screencast mode"));
    EXPECT_TRUE(h.runner.scripts().empty());
    h.choose({"VS Code Automation"});  // the unreadable value counts as false
    EXPECT_EQ(h.defaults.boolForKey(AppDelegate::kVSCodeAutomationEnabledKey), true);
}

TEST(Folders, TheDefaultFolderIsCreatedThenOpenedEvenOnFailureAChosenOneOpenedAsItIs) {
    ShellHarness h;
    h.files.setCreateDirectoryError(PlatformError{"NSCocoaErrorDomain", 513, "Permission denied."});
    h.launch();
    h.log.clear();
    h.choose({"Open Recordings Folder"});
    const auto creates = h.files.createDirectoryCalls();
    ASSERT_EQ(creates.size(), 1u);
    EXPECT_EQ(creates[0].path, "/home/user/Documents/Glimmerbox Recordings");
    EXPECT_TRUE(creates[0].intermediates);
    EXPECT_EQ(h.log.lines().size(), 1u);  // one diagnostic line, nothing for the user
    EXPECT_TRUE(h.alerts.alerts.empty());

    h.defaults.setURL("/media/usb/Casts", AppDelegate::kCustomSaveLocationKey);
    h.choose({"Open Recordings Folder"});
    EXPECT_EQ(h.files.createDirectoryCalls().size(), 1u);
    EXPECT_EQ(h.workspace.opened,
              (Lines{"/home/user/Documents/Glimmerbox Recordings", "/media/usb/Casts"}));
}

TEST(About, OneControllerServesEveryRequest) {
    ShellHarness h;
    h.launch();
    h.choose({"About Glimmerbox"});
    AboutWindowController* first = h.delegate->aboutWindow();
    ASSERT_NE(first, nullptr);
    h.windows.windows[0]->close();
    h.choose({"About Glimmerbox"});
    EXPECT_EQ(h.delegate->aboutWindow(), first);
    EXPECT_EQ(h.windows.makeWindowCount(), 1u);
    EXPECT_EQ(h.windows.windows[0]->showCount, 2);
    EXPECT_EQ(h.application.count("activateIgnoringOtherApps"), 2u);
}

TEST(Quit, WhileRecordingStopsTheRecorderThenTerminatesAndWhileIdleAtOnce) {
    ShellHarness h;
    h.enableAutomation();
    h.launch();
    h.calls.clear();
    h.choose({"Quit Glimmerbox"});
    EXPECT_EQ(h.calls.calls(), Lines{"application.terminate"});

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
    EXPECT_TRUE(h.vsCode.screencastModeEnabled());
}

}  // namespace
}  // namespace gb
