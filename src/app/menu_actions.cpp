// The menu's actions, the start and stop flows of a recording, and the handling of the
// recorder's reports.
#include <any>
#include <exception>
#include <string>
#include <utility>

#include "app/app_delegate.h"
#include "recording/log.h"

namespace gb {
namespace {

// The editor automation is best effort: whatever goes wrong in it is logged and never reaches
// the recording or the user, and never escapes the thread that runs it.
template <class Work>
void runAutomation(const char* what, Work&& work) noexcept {
    try {
        std::forward<Work>(work)();
    } catch (const std::exception& e) {
        logLine(std::string("\U0001F527 VS Code automation: ") + what + " failed: " + e.what());
    } catch (...) {
        logLine(std::string("\U0001F527 VS Code automation: ") + what + " failed");
    }
}

}  // namespace

void AppDelegate::perform(const MenuEntry& chosen) {
    switch (chosen.action) {
        case MenuAction::none:
            return;
        case MenuAction::startRecording:
            return startRecording();
        case MenuAction::stopRecording:
            return stopRecording();
        case MenuAction::setVideoQuality:
            return setVideoQuality(chosen);
        case MenuAction::toggleCameraOverlay:
            return toggleCameraOverlay();
        case MenuAction::setCameraOverlayPreset:
            return setCameraOverlayPreset(chosen);
        case MenuAction::setCameraPosition:
            return setCameraPosition(chosen);
        case MenuAction::toggleVSCodeAutomation:
            return toggleVSCodeAutomation();
        case MenuAction::showAbout:
            return showAbout();
        case MenuAction::chooseSaveLocation:
            return chooseSaveLocation();
        case MenuAction::openRecordingsFolder:
            return openRecordingsFolder();
        case MenuAction::quitApp:
            return quitApp();
    }
}

// ---- start flow ---------------------------------------------------------------------------------

void AppDelegate::startRecording() {
    logLine("Start recording button pressed");
    if (auto lifecycle = lifecycle_.lock()) {
        lifecycle->startRequested(recorder_->hasUnfinishedRecording());
    }
    // A task bound to the main thread; an earlier start task is replaced, not cancelled.
    CancellationToken task;
    recordingTask_ = task;
    mainQueue().async([self = shared_from_this(), task] { self->runStartTask(task); });
}

void AppDelegate::runStartTask(const CancellationToken& task) {
    logLine("About to start recording...");
    if (vsCodeAutomationEnabled()) {
        runAutomation("start", [this] { startScreencastMode(); });
    } else {
        logLine("\U0001F527 VS Code automation: Disabled - skipping screencast mode");
    }

    // The task resumes on the main queue once the recorder's start has reported its outcome.
    recorder_->startRecording(task, [self = shared_from_this()] {
        self->mainQueue().async([self] { self->finishStartTask(); });
    });
}

void AppDelegate::startScreencastMode() {
    if (!vsCode_.findVSCode()) {
        logLine("\U0001F527 VS Code automation: VS Code not running");
        return;
    }
    (void)vsCode_.findVSCode();
    (void)vsCode_.detectTerminalApps();
    recorder_->setVideoQuality(VideoQuality::high);
    // Not awaited: the editor's key presses overlap the recorder's start. A task of its own, so
    // stopping the recording does not cut its pauses short.
    platform_.dispatch.backgroundExecutor().async([&vsCode = vsCode_] {
        runAutomation("enabling screencast mode",
                      [&vsCode] { (void)vsCode.enableScreencastMode(CancellationToken{}); });
    });
    logLine("\U0001F527 VS Code automation: Enabled screencast mode");
}

void AppDelegate::finishStartTask() {
    logLine(std::string("Recording start completed. Current state: ") +
            boolText(recorder_->isRecording()));
    mainQueue().async([self = shared_from_this()] { self->updateStatusIcon(); });
}

// ---- stop flow ----------------------------------------------------------------------------------

void AppDelegate::stopRecording() {
    logLine("Stop recording button pressed");
    if (auto lifecycle = lifecycle_.lock()) lifecycle->stopRequested(recorder_->isRecording());
    if (recordingTask_) recordingTask_->cancel();  // the handle is kept
    recorder_->stopRecording();

    if (vsCodeAutomationEnabled()) {
        platform_.dispatch.backgroundExecutor().async([&vsCode = vsCode_] {
            runAutomation("disabling screencast mode",
                          [&vsCode] { (void)vsCode.disableScreencastMode(CancellationToken{}); });
            logLine("\U0001F527 VS Code automation: Disabled screencast mode");
        });
    } else {
        logLine("\U0001F527 VS Code automation: Disabled - skipping screencast mode cleanup");
    }

    mainQueue().async([self = shared_from_this()] { self->updateStatusIcon(); });
}

// ---- recording options --------------------------------------------------------------------------
// The recorder, its capture session manager and its composer each keep their own copy of an
// option; every write goes to all the places that read it.

void AppDelegate::setVideoQuality(const MenuEntry& chosen) {
    const auto* quality = std::any_cast<VideoQuality>(&chosen.value);
    if (!quality) return;
    recorder_->setVideoQuality(*quality);
    rebuildMenu();
}

void AppDelegate::toggleCameraOverlay() {
    const bool was = recorder_->cameraOverlayEnabled();
    const bool now = !was;
    recorder_->setCameraOverlayEnabled(now);
    recorder_->captureSessionManager().setCameraOverlayEnabled(now);
    recorder_->videoComposer().setCameraOverlayEnabled(now);
    logLine(std::string("\U0001F4F7 Camera overlay toggled: ") + boolText(was) + " \u2192 " +
            boolText(now));
    logLine(now ? "\u2705 Camera overlay is now ENABLED" : "\u274C Camera overlay is now DISABLED");
    rebuildMenu();
}

void AppDelegate::setCameraOverlayPreset(const MenuEntry& chosen) {
    const auto* preset = std::any_cast<CameraOverlayPreset>(&chosen.value);
    if (!preset) return;
    recorder_->setCameraOverlayPreset(*preset);
    recorder_->captureSessionManager().setCameraOverlayPreset(*preset);
    recorder_->videoComposer().setCameraOverlayPreset(*preset);
    logLine("\U0001F4F7 Camera overlay preset changed to: " + displayName(*preset));
    rebuildMenu();
}

void AppDelegate::setCameraPosition(const MenuEntry& chosen) {
    const auto* position = std::any_cast<CameraPosition>(&chosen.value);
    if (!position) return;
    recorder_->setCameraPosition(*position);
    recorder_->videoComposer().setCameraPosition(*position);
    logLine("\U0001F4CD Camera position changed to: " + displayName(*position));
    rebuildMenu();
}

void AppDelegate::toggleVSCodeAutomation() {
    platform_.defaults.setBool(!vsCodeAutomationEnabled(), kVSCodeAutomationEnabledKey);
    logLine(std::string("\U0001F527 VS Code automation ") +
            (vsCodeAutomationEnabled() ? "enabled" : "disabled"));
    rebuildMenu();
}

// ---- window, folders, quit ----------------------------------------------------------------------

void AppDelegate::showAbout() {
    if (!aboutWindow_) {
        aboutWindow_ =
            std::make_unique<AboutWindowController>(platform_.windowSystem, platform_.application);
    }
    aboutWindow_->showWindow();
    // Without a taskbar entry the application is not in front by itself.
    platform_.application.activateIgnoringOtherApps();
}

void AppDelegate::chooseSaveLocation() {
    // The "Saving to:" entry shows the new folder from the next rebuild on.
    recorder_->fileManager().chooseSaveLocation();
}

void AppDelegate::openRecordingsFolder() {
    std::string folder;
    if (auto custom = platform_.defaults.urlForKey(kCustomSaveLocationKey)) {
        folder = *custom;  // the user's choice is opened as it is
    } else {
        auto documents = platform_.fileSystem.documentsDirectory();
        if (!documents) {
            logLine("Cannot open the recordings folder: no Documents folder");
            return;
        }
        folder = *documents + "/" + kRecordingsFolderName;
        if (auto created = platform_.fileSystem.createDirectory(folder, /*intermediates=*/true);
            !created) {
            // The file browser is asked to open it all the same.
            logLine("Could not create " + folder + ": " + created.error().localizedDescription);
        }
    }
    (void)platform_.workspace.openURL(folder);
}

void AppDelegate::quitApp() {
    // The file is finished asynchronously; termination does not wait for it.
    if (recorder_->isRecording()) recorder_->stopRecording();
    platform_.application.terminate();
}

// ---- recorder reports ---------------------------------------------------------------------------
// Each arrives on the recorder's thread; everything that touches the user interface is posted
// to the main queue, holding the delegate alive until it has run.

void AppDelegate::recorderDidStart() {
    logLine(std::string("AppDelegate.recorderDidStart() called - Recording state: ") +
            boolText(recorder_->isRecording()));
    mainQueue().async([self = shared_from_this()] {
        self->updateStatusIcon();
        self->rebuildMenu();
        self->showNotification("Recording Started", "Glimmerbox recording in progress");
        if (auto lifecycle = self->lifecycle_.lock()) lifecycle->recordingStarted();
    });
}

void AppDelegate::recorderDidStop(const std::string& outputURL) {
    mainQueue().async([self = shared_from_this(), outputURL] {
        self->updateStatusIcon();
        self->rebuildMenu();
        self->showNotification("Recording Saved",
                               "Screencast saved to: " + lastPathComponent(outputURL));
        if (auto lifecycle = self->lifecycle_.lock()) lifecycle->recordingSaved(outputURL);
    });
}

void AppDelegate::recorderDidFail(const ScreenRecorderError& error) {
    mainQueue().async([self = shared_from_this(), error] {
        self->updateStatusIcon();
        // Before the alert, which waits for the user: remote commands learn the outcome at once.
        if (auto lifecycle = self->lifecycle_.lock()) {
            lifecycle->recordingFailed(error.localizedDescription(),
                                       self->recorder_->hasUnfinishedRecording());
        }
        // The menu keeps its entries until its next rebuild.
        self->showAlert("Recording Failed", error.localizedDescription());
    });
}

}  // namespace gb
