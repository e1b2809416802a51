// Runs the automation's System Events scripts on X11: each script is understood strictly (see
// portable/system_events_script.h) and its keystrokes are sent as XTest key events to
// whichever window has the keyboard focus. Nothing is handed to a shell.
//
// Keys are found in the server's current keyboard map (in the active layout group); a character
// that no key produces is typed by lending it, for that one key press, a keycode that has no
// symbols and taking it back afterwards. "command down" presses Control: on Linux the editor's
// command palette is Ctrl+Shift+P.
//
// Threads: run() may be called from any thread; runs are serialised on the runner's own
// connection, opened at the first script that has keys to send.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "portable/system_events_script.h"
#include "linux/x11/x11_client_connection.h"
#include "platform/scripting.h"

namespace gb::linuxp {

class XTestScriptRunner final : public ScriptRunner {
public:
    // `displayName` empty: $DISPLAY. `keyGap` separates key presses so that slow clients keep up.
    explicit XTestScriptRunner(std::string displayName = {},
                               std::chrono::milliseconds keyGap = std::chrono::milliseconds(8));

    // Succeeds once every key was sent; fails, sending nothing, for a script it does not
    // understand or keys it cannot produce.
    ScriptOutcome run(const std::string& source) override;

private:
    ScriptOutcome perform(const std::vector<ScriptAction>& actions);  // holding mutex_

    const std::string displayName_;
    const std::chrono::milliseconds keyGap_;
    std::mutex mutex_;
    std::unique_ptr<X11ClientConnection> connection_;  // guarded by mutex_
};

}  // namespace gb::linuxp
