// Remote control of the recording: follows the recording's life through the application
// delegate's reports and carries out start, stop and toggle commands by running the menu's own
// start and stop flows, so that a command does exactly what the menu does (editor automation
// included).
//
// Threads: main thread only.
// Ownership: held by a shared_ptr; the delegate holds it weakly as its lifecycle observer, and it
// reaches the flows through the functions it is given (which hold the delegate weakly).
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "app/app_delegate.h"
#include "platform/notifications.h"
#include "platform/remote_control.h"

namespace gb {

class RecordingControl final : public RecordingRemote, public RecordingLifecycleObserver {
public:
    struct Flows {
        std::function<void()> start;  // the menu's "Start Recording"
        std::function<void()> stop;   // the menu's "Stop Recording"
    };

    explicit RecordingControl(Flows flows);

    // ---- RecordingRemote -----------------------------------------------------------------------
    // A start is carried out only when idle, a stop only while recording; a toggle is whichever
    // of the two applies, and is refused while a recording starts or finishes.
    void perform(ControlCommand command,
                 std::function<void(const ControlOutcome&)> completion) override;
    [[nodiscard]] RecordingState state() const override { return state_; }
    [[nodiscard]] std::optional<std::string> lastSavedFile() const override {
        return lastSavedFile_;
    }
    void setObserver(std::function<void()> observer) override { observer_ = std::move(observer); }

    // ---- RecordingLifecycleObserver ------------------------------------------------------------
    void startRequested(bool recorderBusy) override;
    void stopRequested(bool wasRecording) override;
    void recordingStarted() override;
    void recordingSaved(const std::string& outputURL) override;
    void recordingFailed(const std::string& description, bool fileStillFinishing) override;

private:
    using Completion = std::function<void(const ControlOutcome&)>;
    void setState(RecordingState state);
    static void resolve(std::vector<Completion>& waiting, const ControlOutcome& outcome);

    Flows flows_;
    RecordingState state_ = RecordingState::idle;
    std::optional<std::string> lastSavedFile_;
    std::vector<Completion> waitingForStart_;
    std::vector<Completion> waitingForSave_;
    std::function<void()> observer_;
};

// How to control the program when the desktop shows no tray icons: the commands and the
// launcher's actions.
inline constexpr const char* kNoTrayTitle = "Glimmerbox is running without a tray icon";
inline constexpr const char* kNoTrayBody =
    "Start and stop recordings with the commands \"glimmerbox toggle\", \"glimmerbox start\", "
    "\"glimmerbox stop\" and \"glimmerbox status\" (bind one to a keyboard shortcut), or with the "
    "Start Recording and Stop Recording actions of Glimmerbox in the application launcher.";

// Says so once, as a notification and through `print` (standard output).
void explainControlWithoutTray(NotificationCenter& notifications,
                               const std::function<void(const std::string&)>& print);

}  // namespace gb
