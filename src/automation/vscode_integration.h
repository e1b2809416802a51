// Switches the VS Code editor's screencast mode on and off from outside the editor: it brings the
// running editor to the front and types the command-palette shortcut, "Toggle Screencast Mode"
// and Return through the script runner.
//
// Threads: every operation may be called from any thread. enableScreencastMode() and
// disableScreencastMode() block (script runs and sleeps) and are meant for the background
// executor; the others are quick apart from the script they run. The two state fields are read
// and written whole under one mutex, never held across a call into the platform, so overlapping
// sequences interleave their keystrokes but never tear the state.
// Ownership: the finder, runner and sleeper are borrowed and must outlive every operation that
// uses them.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/dispatch.h"
#include "platform/scripting.h"

namespace gb {

class VSCodeIntegration {
public:
    // Keys that pressKey() can press.
    enum class Key { returnKey, escapeKey, spaceKey, tabKey, deleteKey };

    // The platform's virtual key code of `key`.
    [[nodiscard]] static int keyCode(Key key);

    // The editors looked for, by bundle identifier, in order of preference.
    static const std::vector<std::string>& bundleIdentifiers();

    VSCodeIntegration(ApplicationFinder& finder, ScriptRunner& runner, Sleeper& sleeper);
    VSCodeIntegration(const VSCodeIntegration&) = delete;
    VSCodeIntegration& operator=(const VSCodeIntegration&) = delete;

    // The process-wide instance; the start and the stop of a recording share its state.
    // Until configureShared() has been called it runs on services that find no editor and
    // create no script, so every sequence ends with "VS Code not found" and nothing is typed.
    static VSCodeIntegration& shared();
    // Gives the shared instance its services; the program's wiring calls it once, before first
    // use. A later call replaces the services for the operations that start after it and keeps
    // the instance's state.
    static void configureShared(ApplicationFinder& finder, ScriptRunner& runner, Sleeper& sleeper);

    // The first running editor in order of preference; remembered in vsCodeApp() when found,
    // vsCodeApp() left as it was when none runs.
    RunningApplicationRef findVSCode();

    // Activates the editor and toggles its screencast mode. Blocks about a second. Cancelling
    // `token` cuts the pauses short but the sequence goes on. True when every script ran;
    // screencastModeEnabled() turns true only then.
    bool enableScreencastMode(const CancellationToken& token = {});
    // Toggles the mode back when this program switched it on; true at once when it did not.
    // screencastModeEnabled() turns false only after a sequence in which every script ran.
    bool disableScreencastMode(const CancellationToken& token = {});

    // Each runs one script; true when it ran without error. Only a failing palette script is
    // logged.
    bool openCommandPalette();
    bool typeText(const std::string& text);
    bool pressKey(Key key);

    // Runs the terminal-detection script and ignores its outcome: always the empty list.
    std::vector<std::string> detectTerminalApps();

    // The editor found by the last successful findVSCode(), or null.
    [[nodiscard]] RunningApplicationRef vsCodeApp() const;
    // True after this program switched the editor's screencast mode on.
    [[nodiscard]] bool screencastModeEnabled() const;

private:
    struct Services {
        ApplicationFinder* finder;
        ScriptRunner* runner;
        Sleeper* sleeper;
    };

    [[nodiscard]] Services services() const;
    void setServices(const Services& services);
    // Toggles the mode in the running editor; the flag only follows a complete sequence.
    bool toggleInto(bool enabled, const CancellationToken& token);
    // Activation, pauses, palette, typed command and Return; true when every script ran.
    bool toggleSequence(const RunningApplicationRef& editor, const CancellationToken& token);
    void pause(std::chrono::nanoseconds duration, const CancellationToken& token);
    // Runs a script; a runner that throws counts as a failed run.
    ScriptOutcome runScript(const std::string& source);

    mutable std::mutex mutex_;
    Services services_;                   // guarded by mutex_
    RunningApplicationRef vsCodeApp_;     // guarded by mutex_
    bool screencastModeEnabled_ = false;  // guarded by mutex_
};

}  // namespace gb
