#include "automation/vscode_integration.h"

#include <gtest/gtest.h>

#include <chrono>
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
using fakes::FakeSleeper;
using fakes::LogCapture;
using fakes::RecordingScriptRunner;
using Lines = std::vector<std::string>;

constexpr const char* kStable = "com.microsoft.VSCode";
constexpr const char* kInsiders = "com.microsoft.VSCodeInsiders";
constexpr const char* kOss = "com.visualstudio.code.oss";

const std::string kPalette(scripts::kCommandPalette);
const std::string kTyped = scripts::typeTextScript("Toggle Screencast Mode");
const std::string kReturn = scripts::pressKeyScript(36);

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
    EXPECT_EQ(integration.findVSCode(), stable);
    finder.quit(kStable);
    finder.quit(kInsiders);
    EXPECT_EQ(integration.findVSCode(), oss);
    finder.quit(kOss);
    EXPECT_EQ(integration.findVSCode(), nullptr);
    EXPECT_EQ(integration.vsCodeApp(), oss);  // a failed search keeps the one found before
}

TEST_F(VSCodeIntegrationTest, EnableTypesThreeScriptsWithTheirPausesOnlyWhenTheEditorRuns) {
    EXPECT_FALSE(integration.enableScreencastMode());
    EXPECT_EQ(log.lines(), Lines{"VS Code not found"});
    launch(kStable);  // disabling before a successful enable leaves the editor alone
    EXPECT_TRUE(integration.disableScreencastMode());
    EXPECT_TRUE(events.empty());

    ASSERT_TRUE(integration.enableScreencastMode());
    EXPECT_TRUE(integration.screencastModeEnabled());
    EXPECT_EQ(events, (Lines{at("activate", 0ms), at(kPalette, 500ms), at(kTyped, 800ms),
                             at(kReturn, 1s)}));
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
    }
    failing.clear();  // switched on for real, then a failed switching off leaves it on
    ASSERT_TRUE(integration.enableScreencastMode());
    failing = kReturn;
    EXPECT_FALSE(integration.disableScreencastMode());
    EXPECT_TRUE(integration.screencastModeEnabled());
}

}  // namespace
}  // namespace gb
