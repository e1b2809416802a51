// The application delegate: runs the start-up sequence, owns the one recorder for the life of the
// process, keeps the status item's icon and menu in step with the recorder, carries out the menu's
// actions (the start and stop flows among them) and turns the recorder's reports into the icon,
// the menu, notifications and the failure alert.
//
// Threads: everything runs on the main thread except the first half of the recorder's reports,
// which runs on whatever thread reports; their second half, and every effect on the user
// interface, is posted to the main queue. The delegate's fields are touched on the main thread
// only (the recorder pointer is set once at start-up and only read afterwards).
// Ownership: held by a shared_ptr (reports post work holding a strong reference); owns the status
// item, the recorder, the last start task's token and the About window's controller. The
// recorder, the status item and the application hold it weakly.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "app/about_window_controller.h"
#include "automation/vscode_integration.h"
#include "platform/dispatch.h"
#include "platform/display.h"
#include "platform/files.h"
#include "platform/notifications.h"
#include "platform/user_interface.h"
#include "recording/recording_file_manager.h"
#include "recording/screen_recorder.h"

namespace gb {

// Told of each step of a recording's life, whoever asked for it (the menu or a remote command).
// Main thread only.
class RecordingLifecycleObserver {
public:
    virtual ~RecordingLifecycleObserver() = default;
    // The start flow begins; `recorderBusy`: the recorder still has a recording under way and
    // will refuse the start.
    virtual void startRequested(bool recorderBusy) = 0;
    // The stop flow begins; `wasRecording`: the recorder had a recording to stop.
    virtual void stopRequested(bool wasRecording) = 0;
    virtual void recordingStarted() = 0;
    virtual void recordingSaved(const std::string& outputURL) = 0;
    // `fileStillFinishing`: a stopped recording's file is still being finished (its own report
    // follows).
    virtual void recordingFailed(const std::string& description, bool fileStillFinishing) = 0;
};

class AppDelegate final : public ScreenRecorderDelegate,
                          public std::enable_shared_from_this<AppDelegate> {
public:
    // The platform services the shell uses; all outlive the delegate.
    struct Platform {
        Application& application;
        StatusBar& statusBar;
        WindowSystem& windowSystem;
        AlertPresenter& alertPresenter;
        Workspace& workspace;
        NotificationCenter& notificationCenter;
        DefaultsStore& defaults;
        FileSystem& fileSystem;
        Dispatch& dispatch;
        const DisplayProvider& display;  // for the current-screen quality's label
    };
    using RecorderFactory = std::function<std::shared_ptr<ScreenRecorder>()>;

    // The two persisted settings.
    static constexpr const char* kVSCodeAutomationEnabledKey = "vsCodeAutomationEnabled";
    static constexpr const char* kCustomSaveLocationKey = gb::kCustomSaveLocationKey;

    AppDelegate(Platform platform, RecorderFactory makeRecorder,
                VSCodeIntegration& vsCode = VSCodeIntegration::shared());

    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;
    AppDelegate(AppDelegate&&) = delete;
    AppDelegate& operator=(AppDelegate&&) = delete;
    ~AppDelegate() override = default;

    // ---- application life cycle (called by the platform) ---------------------------------------
    void applicationDidFinishLaunching();
    void applicationDidBecomeActive();
    // Re-opening the running application does nothing.
    [[nodiscard]] bool applicationShouldHandleReopen(bool hasVisibleWindows) const;
    // Closing the About window (or any window) never ends the process.
    [[nodiscard]] bool applicationShouldTerminateAfterLastWindowClosed() const;

    // ---- menu actions --------------------------------------------------------------------------
    void startRecording();
    void stopRecording();
    void setVideoQuality(const MenuEntry& chosen);
    void toggleCameraOverlay();
    void setCameraOverlayPreset(const MenuEntry& chosen);
    void setCameraPosition(const MenuEntry& chosen);
    void toggleVSCodeAutomation();
    void showAbout();
    void chooseSaveLocation();
    void openRecordingsFolder();
    void quitApp();
    // Routes a chosen menu entry to its action.
    void perform(const MenuEntry& chosen);

    // ---- status item and menu ------------------------------------------------------------------
    void setupStatusItem();
    void updateStatusIcon();
    void checkAccessibilityPermissions();
    // The whole status menu, built afresh from the current state.
    [[nodiscard]] std::vector<MenuEntry> buildMenu();

    // ---- notifications and alerts --------------------------------------------------------------
    void showNotification(const std::string& title, const std::string& body);
    // Returns once the user has dismissed the alert.
    void showAlert(const std::string& title, const std::string& message);

    // ---- ScreenRecorderDelegate ----------------------------------------------------------------
    void recorderDidStart() override;
    void recorderDidStop(const std::string& outputURL) override;
    void recorderDidFail(const ScreenRecorderError& error) override;

    // ---- fields --------------------------------------------------------------------------------
    [[nodiscard]] const std::shared_ptr<StatusItem>& statusItem() const { return statusItem_; }
    [[nodiscard]] const std::shared_ptr<ScreenRecorder>& recorder() const { return recorder_; }
    // The most recent start task's cancellation; replaced at each start, never cleared.
    [[nodiscard]] const std::optional<CancellationToken>& recordingTask() const {
        return recordingTask_;
    }
    [[nodiscard]] AboutWindowController* aboutWindow() const { return aboutWindow_.get(); }

    // Held weakly; main thread.
    void setLifecycleObserver(std::weak_ptr<RecordingLifecycleObserver> observer) {
        lifecycle_ = std::move(observer);
    }

private:
    void rebuildMenu();
    // The start task's steps: before and after awaiting the recorder's start.
    void runStartTask(const CancellationToken& token);
    void finishStartTask();
    void startScreencastMode();
    [[nodiscard]] bool vsCodeAutomationEnabled() const;
    SerialQueue& mainQueue() { return platform_.dispatch.mainQueue(); }

    Platform platform_;
    RecorderFactory makeRecorder_;
    VSCodeIntegration& vsCode_;

    std::shared_ptr<StatusItem> statusItem_;
    std::shared_ptr<ScreenRecorder> recorder_;
    std::optional<CancellationToken> recordingTask_;
    std::unique_ptr<AboutWindowController> aboutWindow_;
    std::weak_ptr<RecordingLifecycleObserver> lifecycle_;
};

// The last component of a path or file URL, ignoring trailing slashes ("/a/Casts/" -> "Casts").
[[nodiscard]] std::string lastPathComponent(const std::string& pathOrURL);

}  // namespace gb
