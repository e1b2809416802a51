// Guards remote commands that run a flow in the wrong state (a second start, a stop with nothing
// to stop), answer before the outcome or never, or lose a file whose start failed after a stop.
#include <gtest/gtest.h>

#include "app/recording_control.h"

namespace gb {
namespace {

using Kind = ControlOutcome::Kind;

TEST(RecordingControlTest, CommandsRunTheFlowsOnlyWhereTheyApplyAndAnswerWithTheOutcome) {
    std::vector<std::string> flows;
    std::vector<std::pair<Kind, std::string>> answers;
    RecordingControl* self = nullptr;
    RecordingControl control({[&] { flows.push_back("start"), self->startRequested(false); },
                              [&] { flows.push_back("stop"), self->stopRequested(true); }});
    self = &control;
    const auto send = [&](ControlCommand c) {
        control.perform(c,
                        [&](const ControlOutcome& o) { answers.emplace_back(o.kind, o.message); });
    };

    send(ControlCommand::stop);    // idle: refused
    send(ControlCommand::toggle);  // starts; answered once started
    send(ControlCommand::toggle);  // refused while starting
    EXPECT_EQ(answers.size(), 2U);
    control.recordingStarted();
    send(ControlCommand::start);   // refused while recording
    send(ControlCommand::toggle);  // stops
    // A start that failed after the stop took its recording over: the file still comes.
    control.recordingFailed("late start failure", /*fileStillFinishing=*/true);
    EXPECT_EQ(control.state(), RecordingState::finishing);
    control.recordingSaved("/r/a.mov");
    send(ControlCommand::start);
    control.recordingFailed("Setup failed: No microphone found", false);

    EXPECT_EQ(flows, (std::vector<std::string>{"start", "stop", "start"}));
    EXPECT_EQ(answers, (std::vector<std::pair<Kind, std::string>>{
                           {Kind::refused, "Glimmerbox is not recording"},
                           {Kind::refused, "Glimmerbox is starting a recording"},
                           {Kind::done, ""},
                           {Kind::refused, "Glimmerbox is already recording"},
                           {Kind::done, "/r/a.mov"},
                           {Kind::failed, "Setup failed: No microphone found"}}));
    EXPECT_EQ(control.state(), RecordingState::idle);
    EXPECT_EQ(control.lastSavedFile(), "/r/a.mov");
}

}  // namespace
}  // namespace gb
