#include "automation/vscode_integration.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <ostream>
#include <stdexcept>
#include <string>
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
using Lines = std::vector<std::string>;

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

// One thing that happened, at the fake clock's time: "activate" or a script text.
struct Event {
    std::string what;
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
            return failing == failures.end() ? ScriptOutcome{} : failing->second;
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

TEST(SystemEventsScriptsTest, TextsAreByteExactAndTypedTextIsInsertedUnchanged) {
    EXPECT_EQ(scripts::kCommandPalette, kPalette);
    EXPECT_EQ(scripts::typeTextScript("Toggle Screencast Mode"), kTyped);
    EXPECT_EQ(scripts::pressKeyScript(36), kReturn);
    EXPECT_EQ(
        scripts::typeTextScript("a \"quoted\" \\ text"),
        "tell application \"System Events\"\n    keystroke \"a \"quoted\" \\ text\"\nend tell");
    EXPECT_EQ(scripts::kTerminalDetection.size(), 530u);
    EXPECT_TRUE(scripts::kTerminalDetection.starts_with("tell application \"System Events\"\n"));
    EXPECT_TRUE(scripts::kTerminalDetection.ends_with("    return terminalApps\nend tell"));
    // The blank-looking lines hold four spaces each.
    EXPECT_NE(scripts::kTerminalDetection.find("{}\n    \n    -- Check"), std::string::npos);
}

TEST_F(VSCodeIntegrationTest, PrefersStableThenInsidersThenOssAndKeepsTheLastFound) {
    EXPECT_EQ(integration.findVSCode(), nullptr);
    EXPECT_EQ(finder.queries(), (Lines{kStable, kInsiders, kOss}));
    auto oss = launch(kOss);
    auto insiders = launch(kInsiders);
    EXPECT_EQ(integration.findVSCode(), insiders);
    auto stable = launch(kStable);
    launch(kStable);
    EXPECT_EQ(integration.findVSCode(), stable);  // the first in the platform's order
    finder.quit(kStable);
    finder.quit(kInsiders);
    EXPECT_EQ(integration.findVSCode(), oss);
    finder.quit(kOss);
    EXPECT_EQ(integration.findVSCode(), nullptr);
    EXPECT_EQ(integration.vsCodeApp(), oss);  // a failed search keeps the one found before
}

TEST_F(VSCodeIntegrationTest, EnableThenDisableSendsThreeScriptsEachWithTheirPauses) {
    auto editor = launch(kStable);
    ASSERT_TRUE(integration.enableScreencastMode());
    EXPECT_TRUE(integration.screencastModeEnabled());
    EXPECT_EQ(events,
              (std::vector<Event>{
                  {"activate", 0ms}, {kPalette, 500ms}, {kTyped, 800ms}, {kReturn, 1000ms}}));
    events.clear();
    ASSERT_TRUE(integration.disableScreencastMode());
    EXPECT_FALSE(integration.screencastModeEnabled());
    EXPECT_EQ(events,
              (std::vector<Event>{
                  {"activate", 1000ms}, {kPalette, 1500ms}, {kTyped, 1800ms}, {kReturn, 2000ms}}));
    EXPECT_EQ(editor->activations(), 2);
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
    EXPECT_TRUE(runner.scripts().empty());
    EXPECT_TRUE(sleeper.sleeps().empty());

    ASSERT_TRUE(integration.enableScreencastMode());
    finder.quit(kStable);
    EXPECT_FALSE(integration.disableScreencastMode());
    EXPECT_EQ(log.lines(), (Lines{"VS Code not found", "VS Code not found"}));
    EXPECT_TRUE(integration.screencastModeEnabled());
}

TEST(VSCodeIntegrationSteps, AFailedStepEndsTheSequenceAndKeepsTheFlag) {
    const ScriptOutcome failed{ScriptOutcome::Kind::failed,
                               "{ NSAppleScriptErrorNumber = -1743; }"};
    const std::vector<std::pair<std::string, Lines>> steps{
        {kPalette, {"AppleScript error: { NSAppleScriptErrorNumber = -1743; }"}},
        {kTyped, {}},
        {kReturn, {}}};
    for (size_t step = 0; step < steps.size(); ++step) {
        SCOPED_TRACE(step);
        LogCapture stepLog;
        FakeApplicationFinder stepFinder;
        RecordingScriptRunner stepRunner;
        FakeSleeper stepSleeper;
        VSCodeIntegration vsCode{stepFinder, stepRunner, stepSleeper};
        std::string failing = steps[step].first;
        stepRunner.setResponder([&](const std::string& source) {
            return source == failing ? failed : ScriptOutcome{};
        });
        stepFinder.launch(kStable);

        EXPECT_FALSE(vsCode.enableScreencastMode());
        EXPECT_FALSE(vsCode.screencastModeEnabled());
        EXPECT_EQ(stepRunner.scripts().size(), step + 1);
        EXPECT_EQ(stepSleeper.sleeps().size(), step + 1);  // no pause after the failed script
        EXPECT_EQ(stepLog.lines(), steps[step].second);

        // Switched on for real, then the switching off fails at the same step: still on.
        failing.clear();
        ASSERT_TRUE(vsCode.enableScreencastMode());
        failing = steps[step].first;
        EXPECT_FALSE(vsCode.disableScreencastMode());
        EXPECT_TRUE(vsCode.screencastModeEnabled());
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
    EXPECT_EQ(events,
              (std::vector<Event>{
                  {"activate", 0ms}, {kPalette, 500ms}, {kTyped, 500ms}, {kReturn, 500ms}}));
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(VSCodeIntegrationTest, RunnerFailuresAreLoggedOnlyForThePaletteAndNeverThrow) {
    struct Case {
        std::function<ScriptOutcome(const std::string&)> responder;
        Lines logged;
    };
    const std::vector<Case> cases{
        {[](const std::string&) {
             return ScriptOutcome{ScriptOutcome::Kind::failed, "not allowed"};
         },
         {"AppleScript error: not allowed"}},
        {[](const std::string&) {
             return ScriptOutcome{ScriptOutcome::Kind::notCreated, {}};
         },
         {}},
        {[](const std::string&) -> ScriptOutcome {
             throw std::runtime_error("connection to the display lost");
         },
         {"AppleScript error: connection to the display lost"}},
    };
    for (const Case& c : cases) {
        LogCapture caseLog;
        runner.setResponder(c.responder);
        EXPECT_FALSE(integration.openCommandPalette());
        EXPECT_FALSE(integration.typeText("Toggle Screencast Mode"));
        EXPECT_FALSE(integration.pressKey(Key::escapeKey));
        EXPECT_EQ(caseLog.lines(), c.logged);
        // Terminal detection runs its script and finds nothing, whatever the runner says.
        EXPECT_TRUE(integration.detectTerminalApps().empty());
        EXPECT_EQ(runner.scripts().back(), std::string(scripts::kTerminalDetection));
    }
}

TEST(VSCodeIntegrationSharedTest, UnconfiguredFindsNoEditorAndTypesNothing) {
    // A fresh process, so that no other test has configured the shared instance yet.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            LogCapture capture;
            VSCodeIntegration& shared = VSCodeIntegration::shared();
            const bool quiet = shared.findVSCode() == nullptr && !shared.enableScreencastMode() &&
                               !shared.openCommandPalette() && shared.disableScreencastMode();
            std::_Exit(quiet && capture.lines() == Lines{"VS Code not found"} ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(VSCodeIntegrationSharedTest, ConfiguredServicesAreUsedAndStateCarriesOver) {
    FakeApplicationFinder finder;
    RecordingScriptRunner runner;
    FakeSleeper sleeper;
    finder.launch(kStable);
    VSCodeIntegration::configureShared(finder, runner, sleeper);
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
