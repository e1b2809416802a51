#include "automation/vscode_integration.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "fakes/fake_dispatch.h"
#include "fakes/fake_scripting.h"
#include "fakes/log_capture.h"

namespace gb {
namespace {

using namespace std::chrono_literals;
using fakes::FakeApplicationFinder;
using fakes::FakeSleeper;
using fakes::LogCapture;
using fakes::RecordingScriptRunner;
using Lines = std::vector<std::string>;

constexpr const char* kStable = "com.microsoft.VSCode";
constexpr const char* kInsiders = "com.microsoft.VSCodeInsiders";
constexpr const char* kOss = "com.visualstudio.code.oss";

const std::string kPalette =
    "tell application \"System Events\"\n    keystroke \"p\" using {command down, shift down}\n"
    "end tell";
const std::string kTyped =
    "tell application \"System Events\"\n    keystroke \"Toggle Screencast Mode\"\nend tell";
const std::string kReturn = "tell application \"System Events\"\n    key code 36\nend tell";

// One thing that happened at the fake clock's time in ms: "activate" or a script text.
std::string at(const std::string& what, std::chrono::nanoseconds time) {
    return what + " @" + std::to_string(time / 1ms);
}

class VSCodeIntegrationTest : public testing::Test {
protected:
    VSCodeIntegrationTest() {
        runner.setResponder([this](const std::string& source) {
            events.push_back(at(source, sleeper.now()));
            return source == failing ? failed : ScriptOutcome{};
        });
    }

    void launch(const std::string& bundleIdentifier) {
        finder.launch(bundleIdentifier)->setOnActivate([this] {
            events.push_back(at("activate", sleeper.now()));
        });
    }

    const ScriptOutcome failed{ScriptOutcome::Kind::failed,
                               "{ NSAppleScriptErrorNumber = -1743; }"};
    FakeApplicationFinder finder;
    RecordingScriptRunner runner;
    FakeSleeper sleeper;
    VSCodeIntegration integration{finder, runner, sleeper};
    LogCapture log;
    Lines events;
    std::string failing;  // the script that fails, by text
};

TEST_F(VSCodeIntegrationTest, PrefersStableThenInsidersThenOssAndKeepsTheLastFound) {
    EXPECT_EQ(integration.findVSCode(), nullptr);
    EXPECT_EQ(finder.queries(), (Lines{kStable, kInsiders, kOss}));
    auto oss = finder.launch(kOss);
    auto insiders = finder.launch(kInsiders);
    EXPECT_EQ(integration.findVSCode(), insiders);
    auto stable = finder.launch(kStable);
    finder.launch(kStable);
    EXPECT_EQ(integration.findVSCode(), stable);  // the first in the platform's order
    finder.quit(kStable);
    finder.quit(kInsiders);
    EXPECT_EQ(integration.findVSCode(), oss);
    finder.quit(kOss);
    EXPECT_EQ(integration.findVSCode(), nullptr);
    EXPECT_EQ(integration.vsCodeApp(), oss);  // a failed search keeps the one found before
}

TEST_F(VSCodeIntegrationTest, EnableThenDisableSendsThreeScriptsEachWithTheirPauses) {
    launch(kStable);
    ASSERT_TRUE(integration.enableScreencastMode());
    EXPECT_TRUE(integration.screencastModeEnabled());
    EXPECT_EQ(events, (Lines{at("activate", 0ms), at(kPalette, 500ms), at(kTyped, 800ms),
                             at(kReturn, 1s)}));
    events.clear();
    ASSERT_TRUE(integration.disableScreencastMode());
    EXPECT_FALSE(integration.screencastModeEnabled());
    EXPECT_EQ(events, (Lines{at("activate", 1s), at(kPalette, 1500ms), at(kTyped, 1800ms),
                             at(kReturn, 2s)}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(VSCodeIntegrationTest, WithoutTheEditorEnableFailsAndDisableOnlyRunsAfterASuccess) {
    EXPECT_FALSE(integration.enableScreencastMode());
    EXPECT_EQ(log.lines(), Lines{"VS Code not found"});
    EXPECT_FALSE(integration.screencastModeEnabled());

    launch(kStable);  // even an editor that appeared meanwhile is left alone
    const size_t queriesBefore = finder.queries().size();
    EXPECT_TRUE(integration.disableScreencastMode());
    EXPECT_EQ(finder.queries().size(), queriesBefore);
    EXPECT_TRUE(events.empty());
    EXPECT_TRUE(sleeper.sleeps().empty());

    ASSERT_TRUE(integration.enableScreencastMode());
    finder.quit(kStable);
    EXPECT_FALSE(integration.disableScreencastMode());
    EXPECT_EQ(log.lines(), (Lines{"VS Code not found", "VS Code not found"}));
    EXPECT_TRUE(integration.screencastModeEnabled());
}

TEST_F(VSCodeIntegrationTest, AFailedStepEndsTheSequenceAndKeepsTheFlag) {
    launch(kStable);
    const std::vector<std::pair<std::string, Lines>> steps{
        {kPalette, {"AppleScript error: { NSAppleScriptErrorNumber = -1743; }"}},
        {kTyped, {}},
        {kReturn, {}}};
    for (size_t step = 0; step < steps.size(); ++step) {
        SCOPED_TRACE(step);
        events.clear();
        log.clear();
        const size_t sleepsBefore = sleeper.sleeps().size();
        failing = steps[step].first;
        EXPECT_FALSE(integration.enableScreencastMode());
        EXPECT_FALSE(integration.screencastModeEnabled());
        EXPECT_EQ(events.size(), step + 2);  // the activation, then up to the failed script
        EXPECT_EQ(sleeper.sleeps().size() - sleepsBefore, step + 1);  // none after the failure
        EXPECT_EQ(log.lines(), steps[step].second);

        // Switched on for real, then the switching off fails at the same step: still on.
        failing.clear();
        ASSERT_TRUE(integration.enableScreencastMode());
        failing = steps[step].first;
        EXPECT_FALSE(integration.disableScreencastMode());
        EXPECT_TRUE(integration.screencastModeEnabled());
        failing.clear();
        ASSERT_TRUE(integration.disableScreencastMode());
    }
}

TEST_F(VSCodeIntegrationTest, CancellingDuringAPauseEndsThePausesButTypesTheRest) {
    launch(kStable);
    CancellationToken token;
    sleeper.setOnSleep([&] {
        if (sleeper.sleeps().size() == 2) token.cancel();
    });
    ASSERT_TRUE(integration.enableScreencastMode(token));
    EXPECT_TRUE(integration.screencastModeEnabled());
    EXPECT_EQ(sleeper.sleeps().size(), 3u);
    EXPECT_EQ(events, (Lines{at("activate", 0ms), at(kPalette, 500ms), at(kTyped, 500ms),
                             at(kReturn, 500ms)}));
}

}  // namespace
}  // namespace gb
