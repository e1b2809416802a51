#include <gtest/gtest.h>

#include "app/record_command.h"
#include "fakes/fake_dispatch.h"
#include "fakes/fake_engine.h"

namespace gb {
namespace {

using namespace gb::fakes;
using namespace std::chrono_literals;

class HeadlessRecordingTest : public ::testing::Test, protected FakeEngine {
protected:
    std::shared_ptr<HeadlessRecording> start(RecordCommandOptions options,
                                             RecordAutomationHooks hooks = {}) {
        auto run = std::make_shared<HeadlessRecording>(
            recorder, dispatch, options,
            HeadlessRecording::Output{[this](const std::string& l) { out.push_back(l); },
                                      [this](const std::string& l) { err.push_back(l); }},
            std::move(hooks), [this](int code) { exitCode = code; });
        run->start();
        return run;
    }

    LogCapture log;
    FakeDispatch dispatch;
    std::shared_ptr<ScreenRecorder> recorder = makeRecorder(dispatch);
    std::vector<std::string> out;
    std::vector<std::string> err;
    std::optional<int> exitCode;
};

TEST_F(HeadlessRecordingTest, RecordsForTheDurationWithTheOptionsAndPrintsThePath) {
    RecordCommandOptions o;
    o.durationSeconds = 5;
    o.quality = VideoQuality::medium;
    o.cameraOverlay = false;
    o.cameraPosition = CameraPosition::topLeft;
    auto run = start(o);
    dispatch.runAll();

    EXPECT_EQ(recorder->videoQuality(), VideoQuality::medium);
    EXPECT_FALSE(capture->cameraOverlayEnabled());
    EXPECT_EQ(composer->cameraPosition(), CameraPosition::topLeft);

    // The recorder's own 0.1 s pause counts toward the five seconds.
    EXPECT_EQ(dispatch.sleeperImpl.sleeps(),
              (std::vector<std::chrono::nanoseconds>{100ms, 4900ms}));
    EXPECT_EQ(exitCode, 0);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_NE(out[0].find("/Glimmerbox Recordings/glimmerbox-"), std::string::npos);
    EXPECT_TRUE(err.empty());
}

TEST_F(HeadlessRecordingTest, AStopDuringTheStartTakesEffectOnceRecording) {
    auto run = start({});  // no duration: runs until stopped
    run->requestStop();    // e.g. Ctrl-C while the recorder is still setting up
    EXPECT_FALSE(exitCode);
    dispatch.runAll();
    EXPECT_EQ(exitCode, 0);
    EXPECT_EQ(out.size(), 1u);
    EXPECT_FALSE(log.contains("Stop recording called but not currently recording"));
}

TEST_F(HeadlessRecordingTest, ExitWaitsForTheEditorToBeSwitchedBack) {
    bool before = false;
    bool after = false;
    auto run = start({}, RecordAutomationHooks{[&] { before = true; }, [&] { after = true; }});
    dispatch.background.runPending();  // start body and the enabling hook
    dispatch.main.runPending();        // recorderDidStart handled
    EXPECT_TRUE(before);
    run->requestStop();
    dispatch.main.runPending();  // finish step: the file is saved
    EXPECT_FALSE(exitCode) << "exited before the editor was switched back";
    dispatch.runAll();
    EXPECT_TRUE(after);
    EXPECT_EQ(exitCode, 0);
}

}  // namespace
}  // namespace gb
