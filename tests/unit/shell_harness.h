// The application shell over fakes, driven by FakeDispatch: nothing runs until the test drains
// the queues.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "automation/vscode_integration.h"
#include "fakes/fake_dispatch.h"
#include "fakes/fake_shell_platform.h"
#include "fakes/log_capture.h"

namespace gb::testing {

inline constexpr const char* kVSCode = "com.microsoft.VSCode";
inline constexpr const char* kStart = "\u23FA Start Recording";
inline constexpr const char* kStop = "\u23F9 Stop Recording";

struct ShellHarness : fakes::FakeShellPlatform {
    ~ShellHarness() { dispatch.runAll(); }  // queued work holds the delegate

    std::shared_ptr<ScreenRecorder> makeRecorder() {
        calls.add("recorder.create");
        return FakeEngine::makeRecorder(dispatch);
    }
    void launch(VSCodeIntegration* integration = nullptr) {
        delegate = std::make_shared<AppDelegate>(
            platform(dispatch), [this] { return makeRecorder(); },
            integration ? *integration : vsCode);
        delegate->applicationDidFinishLaunching();
    }

    [[nodiscard]] fakes::FakeStatusItem& item() { return *statusBar.item(); }
    [[nodiscard]] ScreenRecorder& recorder() { return *delegate->recorder(); }
    [[nodiscard]] const std::vector<MenuEntry>& menu() { return item().menu(); }
    void choose(const std::vector<std::string>& titlePath) {
        ASSERT_TRUE(item().choose(titlePath)) << "no menu entry " << titlePath.back();
    }
    void runAll() { dispatch.runAll(); }
    void startThenRun() {
        choose({kStart});
        runAll();
    }
    void record() {
        startThenRun();
        choose({kStop});
        runAll();
    }
    // The automation on, and the editor running unless told otherwise.
    void enableAutomation(bool editorRunning = true) {
        defaults.setBool(true, AppDelegate::kVSCodeAutomationEnabledKey);
        if (editorRunning) finder.launch(kVSCode);
    }
    [[nodiscard]] std::string checked(const std::string& submenuTitle);

    fakes::LogCapture log;
    fakes::FakeDispatch dispatch;
    VSCodeIntegration vsCode{finder, runner, dispatch.sleeperImpl};

    std::shared_ptr<AppDelegate> delegate;
};

// The menu in a compact form: "---", "✓ title", "title >", "title (disabled)".
inline std::vector<std::string> render(const std::vector<MenuEntry>& entries) {
    std::vector<std::string> out;
    for (const auto& e : entries) {
        if (e.kind == MenuEntry::Kind::separator) {
            out.emplace_back("---");
            continue;
        }
        std::string s = (e.checked ? "\u2713 " : "") + e.title;
        if (e.submenu) s += " >";
        if (!e.enabled) s += " (disabled)";
        out.push_back(s);
    }
    return out;
}

inline const std::vector<MenuEntry>& submenu(const std::vector<MenuEntry>& menu,
                                             const std::string& title) {
    for (const auto& e : menu)
        if (e.title == title && e.submenu) return *e.submenu;
    throw std::runtime_error("no submenu " + title);
}

// The title of the checked entry of a submenu ("" when none is).
inline std::string ShellHarness::checked(const std::string& submenuTitle) {
    for (const auto& e : submenu(menu(), submenuTitle))
        if (e.checked) return e.title;
    return {};
}

}  // namespace gb::testing
