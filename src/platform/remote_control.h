// Control of the recording from outside the status menu: the desktop's launcher actions, the
// `glimmerbox start|stop|toggle|status` commands and anything else on the session bus. The
// application implements RecordingRemote; the platform publishes it.
//
// Threads: main thread only; completions and the state observer are called there too.
// Ownership: the publisher holds the remote by reference; the application keeps it alive for as
// long as it is published.
#pragma once

#include <functional>
#include <optional>
#include <string>

namespace gb {

enum class RecordingState { idle, starting, recording, finishing };

// "idle", "starting", "recording", "finishing": the words the commands print.
[[nodiscard]] constexpr const char* stateName(RecordingState state) {
    switch (state) {
        case RecordingState::idle:
            return "idle";
        case RecordingState::starting:
            return "starting";
        case RecordingState::recording:
            return "recording";
        case RecordingState::finishing:
            return "finishing";
    }
    return "idle";
}

enum class ControlCommand { start, stop, toggle };

struct ControlOutcome {
    enum class Kind {
        done,     // started, or stopped and saved
        refused,  // the state does not allow it (already recording, nothing to stop, busy)
        failed,   // the recording failed; `message` is the error's description
    };
    Kind kind = Kind::done;
    // Why it was refused or failed; for a finished stop, the saved file.
    std::string message;
};

class RecordingRemote {
public:
    virtual ~RecordingRemote() = default;
    // Runs the command. `completion` is called once, with what came of it: at once when it is
    // refused, otherwise once the recording has started (start) or its file is saved (stop), or
    // when either fails.
    virtual void perform(ControlCommand command,
                         std::function<void(const ControlOutcome&)> completion) = 0;
    [[nodiscard]] virtual RecordingState state() const = 0;
    // The file of the last recording saved since launch.
    [[nodiscard]] virtual std::optional<std::string> lastSavedFile() const = 0;
    // `observer` runs after every change of state() or lastSavedFile().
    virtual void setObserver(std::function<void()> observer) = 0;
};

}  // namespace gb
