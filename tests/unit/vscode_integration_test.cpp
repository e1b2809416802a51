#include "automation/vscode_integration.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "automation/system_events_scripts.h"
#include "fakes/fake_dispatch.h"
#include "fakes/fake_scripting.h"
#include "fakes/log_capture.h"

namespace gb {
namespace {

using namespace std::chrono_literals;
using fakes::FakeApplicationFinder;
using fakes::FakeRunningApplication;
using fakes::FakeSleeper;
using fakes::LogCapture;
using fakes::RecordingScriptRunner;
using Key = VSCodeIntegration::Key;

constexpr const char* kStable = "com.microsoft.VSCode";
constexpr const char* kInsiders = "com.microsoft.VSCodeInsiders";
constexpr const char* kOss = "com.visualstudio.code.oss";

const std::string kPalette =
    "tell application \"System Events\"\n"
    "    keystroke \"p\" using {command down, shift down}\n"
    "end tell";
const std::string kTyped =
    "tell application \"System Events\"\n"
    "    keystroke \"Toggle Screencast Mode\"\n"
    "end tell";
const std::string kReturn =
    "tell application \"System Events\"\n"
    "    key code 36\n"
    "end tell";

// One thing that happened, at the fake clock's time.
struct Event {
    std::string what;  // "activate" or a script text
    std::chrono::nanoseconds at;
    bool operator==(const Event&) const = default;
};

void PrintTo(const Event& event, std::ostream* os) {
    *os << "{" << event.what << " @" << event.at.count() << "ns}";
}

class VSCodeIntegrationTest : public testing::Test {
protected:
    VSCodeIntegrationTest() {
        runner.setResponder([this](const std::string& source) {
            events.push_back({source, sleeper.now()});
            auto failing = failures.find(source);
            if (failing == failures.end()) return ScriptOutcome{};
            return failing->second;
        });
    }

    std::shared_ptr<FakeRunningApplication> launch(const std::string& bundleIdentifier) {
        auto app = finder.launch(bundleIdentifier);
        app->setOnActivate([this] { events.push_back({"activate", sleeper.now()}); });
        return app;
    }

    FakeApplicationFinder finder;
    RecordingScriptRunner runner;
    FakeSleeper sleeper;
    VSCodeIntegration integration{finder, runner, sleeper};
    LogCapture log;
    std::vector<Event> events;
    std::map<std::string, ScriptOutcome> failures;  // scripts that fail, by text
};

// ---- script texts ------------------------------------------------------------------------------

TEST(SystemEventsScriptsTest, TextsAreByteExact) {
    EXPECT_EQ(scripts::kCommandPalette, kPalette);
    EXPECT_EQ(scripts::kCommandPalette.size(), 92u);
    EXPECT_EQ(scripts::typeTextScript("Toggle Screencast Mode"), kTyped);
    EXPECT_EQ(kTyped.size(), 80u);
    EXPECT_EQ(scripts::pressKeyScript(36), kReturn);
    EXPECT_EQ(kReturn.size(), 57u);
    EXPECT_EQ(scripts::kTerminalDetection.size(), 530u);
    EXPECT_EQ(scripts::kTerminalDetection.substr(0, 33), "tell application \"System Events\"\n");
    EXPECT_TRUE(scripts::kTerminalDetection.ends_with("    return terminalApps\nend tell"));
    // The blank-looking lines hold four spaces each.
    EXPECT_NE(scripts::kTerminalDetection.find("{}\n    \n    -- Check"), std::string::npos);
}

TEST(SystemEventsScriptsTest, TypedTextIsInsertedUnchangedAfterAFixedPrefix) {
    const std::string script = scripts::typeTextScript("a \"quoted\" \\ text");
    EXPECT_EQ(script.substr(0, 48), "tell application \"System Events\"\n    keystroke \"");
    EXPECT_EQ(script.substr(48), "a \"quoted\" \\ text\"\nend tell");
    EXPECT_EQ(scripts::pressKeyScript(5).substr(0, 46),
              "tell application \"System Events\"\n    key code ");
}

TEST_F(VSCodeIntegrationTest, EachKeyIsPressedWithItsVirtualKeyCode) {
    const std::vector<std::pair<Key, int>> table{{Key::returnKey, 36},
                                                 {Key::escapeKey, 53},
                                                 {Key::spaceKey, 49},
                                                 {Key::tabKey, 48},
                                                 {Key::deleteKey, 51}};
    for (const auto& [key, code] : table) {
        EXPECT_EQ(VSCodeIntegration::keyCode(key), code);
        EXPECT_TRUE(integration.pressKey(key));
        EXPECT_EQ(runner.scripts().back(), scripts::pressKeyScript(code));
    }
    EXPECT_TRUE(log.lines().empty());
}

// ---- finding the editor ------------------------------------------------------------------------

TEST_F(VSCodeIntegrationTest, FindsNothingWhenNoEditorRuns) {
    EXPECT_EQ(integration.findVSCode(), nullptr);
    EXPECT_EQ(finder.queries(), (std::vector<std::string>{kStable, kInsiders, kOss}));
    EXPECT_EQ(integration.vsCodeApp(), nullptr);
}

TEST_F(VSCodeIntegrationTest, PrefersTheStableEditorOverInsidersAndOss) {
    auto oss = launch(kOss);
    auto insiders = launch(kInsiders);
    EXPECT_EQ(integration.findVSCode(), insiders);
    auto stable = launch(kStable);
    auto secondStable = launch(kStable);
    EXPECT_EQ(integration.findVSCode(), stable);  // the first in the platform's order
    EXPECT_EQ(integration.vsCodeApp(), stable);
    EXPECT_EQ(finder.queries().back(), kStable);
    finder.quit(kStable);
    finder.quit(kInsiders);
    EXPECT_EQ(integration.findVSCode(), oss);
}

TEST_F(VSCodeIntegrationTest, AFailedSearchKeepsTheEditorFoundBefore) {
    auto stable = launch(kStable);
    ASSERT_EQ(integration.findVSCode(), stable);
    finder.quit(kStable);
    EXPECT_EQ(integration.findVSCode(), nullptr);
    EXPECT_EQ(integration.vsCodeApp(), stable);
}

// ---- the sequences -----------------------------------------------------------------------------

TEST_F(VSCodeIntegrationTest, EnableThenDisableSendsThreeScriptsEachWithTheirPauses) {
    auto editor = launch(kStable);

    ASSERT_TRUE(integration.enableScreencastMode());
    EXPECT_TRUE(integration.screencastModeEnabled());
    const std::vector<Event> enabling{
        {"activate", 0ms}, {kPalette, 500ms}, {kTyped, 800ms}, {kReturn, 1000ms}};
    EXPECT_EQ(events, enabling);

    events.clear();
    ASSERT_TRUE(integration.disableScreencastMode());
    EXPECT_FALSE(integration.screencastModeEnabled());
    const std::vector<Event> disabling{
        {"activate", 1000ms}, {kPalette, 1500ms}, {kTyped, 1800ms}, {kReturn, 2000ms}};
    EXPECT_EQ(events, disabling);

    EXPECT_EQ(editor->activations(), 2);
    EXPECT_EQ(sleeper.sleeps(),
              (std::vector<std::chrono::nanoseconds>{500ms, 300ms, 200ms, 500ms, 300ms, 200ms}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(VSCodeIntegrationTest, EnableWithoutEditorFailsAndALaterDisableDoesNothing) {
    EXPECT_FALSE(integration.enableScreencastMode());
    EXPECT_EQ(log.lines(), std::vector<std::string>{"VS Code not found"});
    EXPECT_FALSE(integration.screencastModeEnabled());

    launch(kStable);  // even an editor that appeared meanwhile is left alone
    const size_t queriesBefore = finder.queries().size();
    EXPECT_TRUE(integration.disableScreencastMode());
    EXPECT_EQ(finder.queries().size(), queriesBefore);
    EXPECT_TRUE(runner.scripts().empty());
    EXPECT_TRUE(sleeper.sleeps().empty());
    EXPECT_EQ(log.lines().size(), 1u);
}

TEST_F(VSCodeIntegrationTest, EnablingAgainTogglesAgain) {
    launch(kStable);
    ASSERT_TRUE(integration.enableScreencastMode());
    ASSERT_TRUE(integration.enableScreencastMode());
    EXPECT_EQ(runner.scripts(),
              (std::vector<std::string>{kPalette, kTyped, kReturn, kPalette, kTyped, kReturn}));
    EXPECT_TRUE(integration.screencastModeEnabled());
}

// Which step fails, what the sequence then logged, and how far it got.
struct FailingStep {
    std::string script;
    std::vector<std::string> logged;
    size_t scriptsRun;
};

void PrintTo(const FailingStep& step, std::ostream* os) {
    *os << "step " << step.scriptsRun;
}

class FailingStepTest : public VSCodeIntegrationTest,
                        public testing::WithParamInterface<FailingStep> {};

TEST_P(FailingStepTest, AFailedStepEndsTheSequenceAndKeepsTheFlag) {
    const FailingStep& step = GetParam();
    launch(kStable);
    failures[step.script] = {ScriptOutcome::Kind::failed, "{ NSAppleScriptErrorNumber = -1743; }"};

    EXPECT_FALSE(integration.enableScreencastMode());
    EXPECT_FALSE(integration.screencastModeEnabled());
    EXPECT_EQ(runner.scripts().size(), step.scriptsRun);
    EXPECT_EQ(runner.scripts().back(), step.script);
    EXPECT_EQ(sleeper.sleeps().size(), step.scriptsRun);  // no pause after the failed script
    EXPECT_EQ(log.lines(), step.logged);

    // Switched on for real, then the switching off fails at the same step: still on.
    failures.clear();
    ASSERT_TRUE(integration.enableScreencastMode());
    failures[step.script] = {ScriptOutcome::Kind::failed, "{ NSAppleScriptErrorNumber = -1743; }"};
    EXPECT_FALSE(integration.disableScreencastMode());
    EXPECT_TRUE(integration.screencastModeEnabled());
}

INSTANTIATE_TEST_SUITE_P(
    VSCodeIntegration, FailingStepTest,
    testing::Values(
        FailingStep{kPalette, {"AppleScript error: { NSAppleScriptErrorNumber = -1743; }"}, 1},
        FailingStep{kTyped, {}, 2}, FailingStep{kReturn, {}, 3}));

TEST_F(VSCodeIntegrationTest, DisableWithoutEditorFailsAndStaysOn) {
    launch(kStable);
    ASSERT_TRUE(integration.enableScreencastMode());
    finder.quit(kStable);
    EXPECT_FALSE(integration.disableScreencastMode());
    EXPECT_EQ(log.lines(), std::vector<std::string>{"VS Code not found"});
    EXPECT_TRUE(integration.screencastModeEnabled());
}

TEST_F(VSCodeIntegrationTest, ACancelledPauseEndsEarlyAndTheSequenceGoesOn) {
    launch(kStable);
    CancellationToken token;
    token.cancel();
    ASSERT_TRUE(integration.enableScreencastMode(token));
    EXPECT_TRUE(integration.screencastModeEnabled());
    // Every pause was asked for but none took time.
    EXPECT_EQ(sleeper.sleeps().size(), 3u);
    const std::vector<Event> immediate{
        {"activate", 0ms}, {kPalette, 0ms}, {kTyped, 0ms}, {kReturn, 0ms}};
    EXPECT_EQ(events, immediate);
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(VSCodeIntegrationTest, CancellingDuringTheSecondPauseStillTypesTheRest) {
    launch(kStable);
    CancellationToken token;
    sleeper.setOnSleep([&] {
        if (sleeper.sleeps().size() == 2) token.cancel();
    });
    ASSERT_TRUE(integration.enableScreencastMode(token));
    const std::vector<Event> expected{
        {"activate", 0ms}, {kPalette, 500ms}, {kTyped, 500ms}, {kReturn, 500ms}};
    EXPECT_EQ(events, expected);
}

// ---- script runner failures --------------------------------------------------------------------

TEST_F(VSCodeIntegrationTest, OnlyTheFailingPaletteIsLogged) {
    runner.setResponder([](const std::string&) {
        return ScriptOutcome{ScriptOutcome::Kind::failed, "not allowed"};
    });
    EXPECT_FALSE(integration.openCommandPalette());
    EXPECT_FALSE(integration.typeText("Toggle Screencast Mode"));
    EXPECT_FALSE(integration.pressKey(Key::escapeKey));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"AppleScript error: not allowed"});
}

TEST_F(VSCodeIntegrationTest, AScriptThatCannotBeCreatedFailsSilently) {
    runner.setResponder([](const std::string&) {
        return ScriptOutcome{ScriptOutcome::Kind::notCreated, {}};
    });
    EXPECT_FALSE(integration.openCommandPalette());
    EXPECT_FALSE(integration.typeText("x"));
    EXPECT_FALSE(integration.pressKey(Key::returnKey));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(VSCodeIntegrationTest, AThrowingRunnerIsAFailedRun) {
    launch(kStable);
    runner.setResponder([](const std::string&) -> ScriptOutcome {
        throw std::runtime_error("connection to the display lost");
    });
    EXPECT_FALSE(integration.enableScreencastMode());
    EXPECT_FALSE(integration.typeText("x"));
    EXPECT_EQ(log.lines(),
              std::vector<std::string>{"AppleScript error: connection to the display lost"});
    EXPECT_FALSE(integration.screencastModeEnabled());
}

TEST_F(VSCodeIntegrationTest, TerminalDetectionRunsItsScriptAndFindsNothing) {
    EXPECT_TRUE(integration.detectTerminalApps().empty());
    runner.setResponder([](const std::string&) {
        return ScriptOutcome{ScriptOutcome::Kind::failed, "System Events is not running"};
    });
    EXPECT_TRUE(integration.detectTerminalApps().empty());
    EXPECT_EQ(runner.scripts(),
              std::vector<std::string>(2, std::string(scripts::kTerminalDetection)));
    EXPECT_TRUE(log.lines().empty());
}

// ---- the shared instance -----------------------------------------------------------------------

TEST(VSCodeIntegrationSharedTest, UnconfiguredFindsNoEditorAndTypesNothing) {
    // A fresh process, so that no other test has configured the shared instance yet.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            LogCapture capture;
            VSCodeIntegration& shared = VSCodeIntegration::shared();
            const bool quiet = shared.findVSCode() == nullptr && !shared.enableScreencastMode() &&
                               !shared.openCommandPalette() && shared.disableScreencastMode();
            const bool logged = capture.lines() == std::vector<std::string>{"VS Code not found"};
            std::_Exit(quiet && logged ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(VSCodeIntegrationSharedTest, ConfiguredServicesAreUsedAndStateCarriesOver) {
    FakeApplicationFinder finder;
    RecordingScriptRunner runner;
    FakeSleeper sleeper;
    finder.launch(kStable);
    VSCodeIntegration::configureShared(finder, runner, sleeper);
    ASSERT_EQ(&VSCodeIntegration::shared(), &VSCodeIntegration::shared());
    ASSERT_TRUE(VSCodeIntegration::shared().enableScreencastMode());

    // The stop of a recording may come with services of its own; the flag is still on.
    RecordingScriptRunner stopRunner;
    VSCodeIntegration::configureShared(finder, stopRunner, sleeper);
    EXPECT_TRUE(VSCodeIntegration::shared().screencastModeEnabled());
    EXPECT_TRUE(VSCodeIntegration::shared().disableScreencastMode());
    EXPECT_EQ(runner.scripts().size(), 3u);
    EXPECT_EQ(stopRunner.scripts().size(), 3u);

    // Leave the shared instance on services that outlive this test.
    static FakeApplicationFinder noEditors;
    static RecordingScriptRunner unusedRunner;
    static FakeSleeper unusedSleeper;
    VSCodeIntegration::configureShared(noEditors, unusedRunner, unusedSleeper);
}

}  // namespace
}  // namespace gb
