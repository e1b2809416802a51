// Guards against: the wrong editor picked, keystrokes typed without their pauses or into no editor, and a failed step that still claims screencast mode is on.
#include "automation/vscode_integration.h"

#include <gtest/gtest.h>

#include "automation/system_events_scripts.h"
#include "fakes/fake_dispatch.h"
#include "fakes/fake_scripting.h"
#include "fakes/log_capture.h"

namespace gb {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr const char* kStable = "com.microsoft.VSCode";
constexpr const char* kInsiders = "com.microsoft.VSCodeInsiders";
constexpr const char* kOss = "com.visualstudio.code.oss";
const std::string kPalette(scripts::kCommandPalette);
const std::string kTyped = scripts::typeTextScript("Toggle Screencast Mode");
const std::string kReturn = scripts::pressKeyScript(36);

class VSCodeIntegrationTest : public testing::Test {
protected:
    VSCodeIntegrationTest() {
        runner.responder = [this](const std::string& source) {
            events.push_back(at(source));
            return source == failing ? ScriptOutcome{ScriptOutcome::Kind::failed, "{ -1743 }"}
                                     : ScriptOutcome{};
        };
    }
    // What happened, at the fake clock's time in ms.
    std::string at(const std::string& what) {
        return what + " @" + std::to_string(sleeper.now() / 1ms);
    }
    void launch(const std::string& id) {
        finder.launch(id, [this] { events.push_back(at("activate")); });
    }
    fakes::FakeApplicationFinder finder;
    fakes::RecordingScriptRunner runner;
    fakes::FakeSleeper sleeper;
    VSCodeIntegration integration{finder, runner, sleeper};
    fakes::LogCapture log;
    Lines events;
    std::string failing;  // the script that fails, by text
};

TEST_F(VSCodeIntegrationTest, PrefersStableThenInsidersThenOssAndKeepsTheLastFound) {
    EXPECT_EQ(integration.findVSCode(), nullptr);
    EXPECT_EQ(finder.queries, (Lines{kStable, kInsiders, kOss}));
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
    launch(kStable);  // disabling before a successful enable leaves the editor alone
    EXPECT_TRUE(integration.disableScreencastMode());
    EXPECT_TRUE(events.empty());
    ASSERT_TRUE(integration.enableScreencastMode());
    EXPECT_TRUE(integration.screencastModeEnabled());
    EXPECT_EQ(events, (Lines{"activate @0", kPalette + " @500", kTyped + " @800", kReturn + " @1000"}));
    finder.quit(kStable);
    EXPECT_FALSE(integration.disableScreencastMode());
    EXPECT_EQ(log.lines(), (Lines{"VS Code not found", "VS Code not found"}));
    EXPECT_TRUE(integration.screencastModeEnabled());
}

TEST_F(VSCodeIntegrationTest, AFailedStepEndsTheSequenceAndKeepsTheFlag) {
    launch(kStable);
    const std::string steps[] = {kPalette, kTyped, kReturn};
    for (size_t step = 0; step < 3; ++step) {
        events.clear();
        const size_t sleepsBefore = sleeper.sleeps().size();
        failing = steps[step];
        EXPECT_FALSE(integration.enableScreencastMode());
        EXPECT_FALSE(integration.screencastModeEnabled());
        EXPECT_EQ(events.size(), step + 2);  // the activation, then up to the failed script
        EXPECT_EQ(sleeper.sleeps().size() - sleepsBefore, step + 1);  // none after the failure
    }
    EXPECT_EQ(log.lines(), Lines{"AppleScript error: { -1743 }"});
    failing.clear();  // switched on for real, then a failed switching off leaves it on
    ASSERT_TRUE(integration.enableScreencastMode());
    failing = kReturn;
    EXPECT_FALSE(integration.disableScreencastMode());
    EXPECT_TRUE(integration.screencastModeEnabled());
}

}  // namespace
}  // namespace gb
