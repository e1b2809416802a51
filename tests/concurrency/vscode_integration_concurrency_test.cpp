// Guards against: data races and torn state when the start and stop sequences of the editor automation overlap with the search for the editor.
#include <gtest/gtest.h>

#include <thread>

#include "automation/vscode_integration.h"
#include "fakes/fake_dispatch.h"
#include "fakes/fake_scripting.h"

namespace gb {
namespace {

TEST(VSCodeIntegrationConcurrencyTest, OverlappingSequencesKeepWholeState) {
    fakes::FakeApplicationFinder finder;
    fakes::RecordingScriptRunner runner;
    fakes::FakeSleeper sleeper;
    auto stable = finder.launch("com.microsoft.VSCode");
    VSCodeIntegration integration(finder, runner, sleeper);
    constexpr int kRounds = 200;
    int enabled = 0;
    {
        std::jthread enabling([&] {
            for (int i = 0; i < kRounds; ++i) enabled += integration.enableScreencastMode();
        });
        std::jthread disabling([&] {
            for (int i = 0; i < kRounds; ++i) EXPECT_TRUE(integration.disableScreencastMode());
        });
        std::jthread looking([&] {
            for (int i = 0; i < kRounds; ++i) {
                EXPECT_EQ(integration.findVSCode(), stable);
                (void)integration.screencastModeEnabled();
                EXPECT_EQ(integration.vsCodeApp(), stable);
            }
        });
    }
    EXPECT_EQ(enabled, kRounds);
    // Every sequence that ran sent its three scripts whole.
    EXPECT_GE(runner.scripts().size(), 3u * kRounds);
    EXPECT_EQ(stable->activations * 3, static_cast<int>(runner.scripts().size()));
}

}  // namespace
}  // namespace gb
