// The application shell's platform on fakes: the user-interface fakes, which journal their calls
// in `calls` ("application.terminate", "statusItem.menu", "alert <title>", ...), beside the
// engine's fakes, and an editor finder and script runner for the automation.
#pragma once

#include "app/app_delegate.h"
#include "fakes/fake_engine.h"
#include "fakes/fake_scripting.h"
#include "fakes/fake_user_interface.h"

namespace gb::fakes {

struct FakeShellPlatform : FakeEngine {
    FakeShellPlatform() : FakeEngine(&calls) {
        application.journal = &calls;
        statusBar.journal = &calls;
        alerts.journal = &calls;
        notifications.journal = &calls;
    }
    FakeShellPlatform(const FakeShellPlatform&) = delete;
    FakeShellPlatform& operator=(const FakeShellPlatform&) = delete;

    AppDelegate::Platform platform(Dispatch& dispatch) {
        return {application,   statusBar, windows, alerts,   workspace,
                notifications, defaults,  files,   dispatch, display};
    }

    CallLog calls;
    FakeApplication application;
    FakeStatusBar statusBar;
    FakeWindowSystem windows;
    FakeAlertPresenter alerts;
    FakeWorkspace workspace;
    FakeNotificationCenter notifications;
    FakeApplicationFinder finder;
    RecordingScriptRunner runner;
};

}  // namespace gb::fakes
