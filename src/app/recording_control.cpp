#include "app/recording_control.h"

#include <utility>

#include "app/uuid.h"
#include "recording/log.h"

namespace gb {
namespace {

ControlOutcome refused(std::string why) {
    return {ControlOutcome::Kind::refused, std::move(why)};
}

// Why a command does not apply in a state.
std::string busyText(RecordingState state) {
    switch (state) {
        case RecordingState::idle:
            return "Glimmerbox is not recording";
        case RecordingState::starting:
            return "Glimmerbox is starting a recording";
        case RecordingState::recording:
            return "Glimmerbox is already recording";
        case RecordingState::finishing:
            return "Glimmerbox is saving a recording";
    }
    return {};
}

}  // namespace

RecordingControl::RecordingControl(Flows flows) : flows_(std::move(flows)) {}

void RecordingControl::perform(ControlCommand command, Completion completion) {
    if (command == ControlCommand::toggle) {
        if (state_ == RecordingState::idle) {
            command = ControlCommand::start;
        } else if (state_ == RecordingState::recording) {
            command = ControlCommand::stop;
        }
    }
    const bool applies = (command == ControlCommand::start && state_ == RecordingState::idle) ||
                         (command == ControlCommand::stop && state_ == RecordingState::recording);
    if (!applies) {
        const std::string why = busyText(state_);
        logLine("Remote control: refused (" + why + ")");
        completion(refused(why));
        return;
    }
    // Waiting before the flow runs: a flow may report at once.
    if (command == ControlCommand::start) {
        waitingForStart_.push_back(std::move(completion));
        flows_.start();
    } else {
        waitingForSave_.push_back(std::move(completion));
        flows_.stop();
    }
}

void RecordingControl::startRequested(bool recorderBusy) {
    // A busy recorder refuses the start and reports nothing.
    if (state_ == RecordingState::idle && !recorderBusy) setState(RecordingState::starting);
}

void RecordingControl::stopRequested(bool wasRecording) {
    if (wasRecording) setState(RecordingState::finishing);
}

void RecordingControl::recordingStarted() {
    // A stop that came during the start has the recording already finishing.
    if (state_ != RecordingState::finishing) setState(RecordingState::recording);
    resolve(waitingForStart_, {});
}

void RecordingControl::recordingSaved(const std::string& outputURL) {
    lastSavedFile_ = outputURL;
    if (state_ != RecordingState::idle) {
        setState(RecordingState::idle);
    } else if (observer_) {
        observer_();  // only the file changed
    }
    resolve(waitingForSave_, {ControlOutcome::Kind::done, outputURL});
}

void RecordingControl::recordingFailed(const std::string& description, bool fileStillFinishing) {
    const ControlOutcome failed{ControlOutcome::Kind::failed, description};
    resolve(waitingForStart_, failed);
    // A start that failed after a stop took its recording over: the file's own report follows.
    if (fileStillFinishing) {
        setState(RecordingState::finishing);
        return;
    }
    setState(RecordingState::idle);
    resolve(waitingForSave_, failed);
}

void RecordingControl::setState(RecordingState state) {
    if (state_ == state) return;
    state_ = state;
    logLine(std::string("Recording state: ") + stateName(state));
    if (observer_) observer_();
}

void RecordingControl::resolve(std::vector<Completion>& waiting, const ControlOutcome& outcome) {
    // Completions may start new commands: take the list first.
    std::vector<Completion> now = std::exchange(waiting, {});
    for (Completion& completion : now) completion(outcome);
}

void explainControlWithoutTray(NotificationCenter& notifications,
                               const std::function<void(const std::string&)>& print) {
    print(std::string("Glimmerbox: ") + kNoTrayTitle + ". " + kNoTrayBody);
    NotificationRequest request;
    request.identifier = makeUUIDString();
    request.title = kNoTrayTitle;
    request.body = kNoTrayBody;
    request.defaultSound = false;
    notifications.add(request);
}

}  // namespace gb
