#include "automation/vscode_integration.h"

#include <chrono>
#include <exception>
#include <memory>

#include "automation/system_events_scripts.h"
#include "recording/log.h"

namespace gb {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::nanoseconds kAfterActivation = 500ms;
constexpr std::chrono::nanoseconds kAfterPalette = 300ms;
constexpr std::chrono::nanoseconds kAfterTyping = 200ms;

constexpr const char* kCommandName = "Toggle Screencast Mode";

// The shared instance's services until the wiring supplies real ones.
class NoApplicationFinder final : public ApplicationFinder {
public:
    std::vector<RunningApplicationRef> runningApplications(const std::string&) override {
        return {};
    }
};

class NoScriptRunner final : public ScriptRunner {
public:
    ScriptOutcome run(const std::string&) override { return {ScriptOutcome::Kind::notCreated, {}}; }
};

class TokenWaitSleeper final : public Sleeper {
public:
    bool sleep(std::chrono::nanoseconds duration, const CancellationToken& token) override {
        return token.waitFor(duration);
    }
};

struct UnconfiguredServices {
    NoApplicationFinder finder;
    NoScriptRunner runner;
    TokenWaitSleeper sleeper;
};

UnconfiguredServices& unconfiguredServices() {
    static UnconfiguredServices services;
    return services;
}

}  // namespace

int VSCodeIntegration::keyCode(Key key) {
    switch (key) {
        case Key::returnKey:
            return 36;
        case Key::escapeKey:
            return 53;
        case Key::spaceKey:
            return 49;
        case Key::tabKey:
            return 48;
        case Key::deleteKey:
            return 51;
    }
    return 36;  // unreachable: every key is listed above
}

const std::vector<std::string>& VSCodeIntegration::bundleIdentifiers() {
    static const std::vector<std::string> identifiers{
        "com.microsoft.VSCode", "com.microsoft.VSCodeInsiders", "com.visualstudio.code.oss"};
    return identifiers;
}

VSCodeIntegration::VSCodeIntegration(ApplicationFinder& finder, ScriptRunner& runner,
                                     Sleeper& sleeper)
    : services_{&finder, &runner, &sleeper} {}

VSCodeIntegration& VSCodeIntegration::shared() {
    static VSCodeIntegration instance(unconfiguredServices().finder, unconfiguredServices().runner,
                                      unconfiguredServices().sleeper);
    return instance;
}

void VSCodeIntegration::configureShared(ApplicationFinder& finder, ScriptRunner& runner,
                                        Sleeper& sleeper) {
    shared().setServices({&finder, &runner, &sleeper});
}

VSCodeIntegration::Services VSCodeIntegration::services() const {
    std::lock_guard lock(mutex_);
    return services_;
}

void VSCodeIntegration::setServices(const Services& services) {
    std::lock_guard lock(mutex_);
    services_ = services;
}

RunningApplicationRef VSCodeIntegration::findVSCode() {
    ApplicationFinder& finder = *services().finder;
    for (const std::string& identifier : bundleIdentifiers()) {
        std::vector<RunningApplicationRef> running = finder.runningApplications(identifier);
        if (running.empty() || !running.front()) continue;
        std::lock_guard lock(mutex_);
        vsCodeApp_ = running.front();
        return vsCodeApp_;
    }
    return nullptr;
}

bool VSCodeIntegration::enableScreencastMode(const CancellationToken& token) {
    return toggleInto(true, token);
}

bool VSCodeIntegration::disableScreencastMode(const CancellationToken& token) {
    if (!screencastModeEnabled()) return true;
    return toggleInto(false, token);
}

bool VSCodeIntegration::toggleInto(bool enabled, const CancellationToken& token) {
    RunningApplicationRef editor = findVSCode();
    if (!editor) {
        logLine("VS Code not found");
        return false;
    }
    if (!toggleSequence(editor, token)) return false;
    std::lock_guard lock(mutex_);
    screencastModeEnabled_ = enabled;
    return true;
}

bool VSCodeIntegration::toggleSequence(const RunningApplicationRef& editor,
                                       const CancellationToken& token) {
    editor->activate();  // advisory: the keystrokes follow whether or not it came to the front
    pause(kAfterActivation, token);
    if (!openCommandPalette()) return false;
    pause(kAfterPalette, token);
    if (!typeText(kCommandName)) return false;
    pause(kAfterTyping, token);
    return pressKey(Key::returnKey);
}

void VSCodeIntegration::pause(std::chrono::nanoseconds duration, const CancellationToken& token) {
    // A cancelled pause only ends early; the keystrokes still follow.
    (void)services().sleeper->sleep(duration, token);
}

ScriptOutcome VSCodeIntegration::runScript(const std::string& source) {
    ScriptRunner& runner = *services().runner;
    try {
        return runner.run(source);
    } catch (const std::exception& error) {
        return {ScriptOutcome::Kind::failed, error.what()};
    } catch (...) {
        return {ScriptOutcome::Kind::failed, "unknown script runner failure"};
    }
}

bool VSCodeIntegration::openCommandPalette() {
    ScriptOutcome outcome = runScript(std::string(scripts::kCommandPalette));
    if (outcome.kind == ScriptOutcome::Kind::failed) {
        logLine("AppleScript error: " + outcome.errorDescription);
    }
    return outcome.kind == ScriptOutcome::Kind::succeeded;
}

bool VSCodeIntegration::typeText(const std::string& text) {
    return runScript(scripts::typeTextScript(text)).kind == ScriptOutcome::Kind::succeeded;
}

bool VSCodeIntegration::pressKey(Key key) {
    return runScript(scripts::pressKeyScript(keyCode(key))).kind == ScriptOutcome::Kind::succeeded;
}

std::vector<std::string> VSCodeIntegration::detectTerminalApps() {
    // The answer is not read: the caller only needs the script to have been run.
    (void)runScript(std::string(scripts::kTerminalDetection));
    return {};
}

RunningApplicationRef VSCodeIntegration::vsCodeApp() const {
    std::lock_guard lock(mutex_);
    return vsCodeApp_;
}

bool VSCodeIntegration::screencastModeEnabled() const {
    std::lock_guard lock(mutex_);
    return screencastModeEnabled_;
}

}  // namespace gb
