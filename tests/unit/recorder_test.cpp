// Guards against: lost or misplaced samples, capture sessions changed outside a transaction or left set up, a start that fails without its error or leaves things set up, overlapping recordings, a finish failure that goes unreported, and bad output files and writer settings.
#include <gtest/gtest.h>

#include <thread>

#include "fakes/fake_dispatch.h"
#include "fakes/fake_platform.h"
#include "fakes/pixel_buffers.h"

namespace gb {
namespace {

using namespace gb::fakes;
using Strings = std::vector<std::string>;
using EK = ScreenRecorderError::Kind;

const uint32_t kScreen = bgra(10, 20, 30);
const uint32_t kCamera = bgra(200, 150, 100);
const std::string kFile = "glimmerbox-2025-03-14_09-26-53.mov";

class RecorderTest : public ::testing::Test, protected RecorderWorld {
protected:
    RecorderTest() { fresh(); }
    // A new recorder (and capture session manager) with a new delegate.
    void fresh() {
        delegate = std::make_shared<FakeRecorderDelegate>();
        dispatch = std::make_unique<FakeDispatch>();
        recorder = makeRecorder(*dispatch);
        log.clear();
    }
    // Runs the start's body (the background executor) to its end.
    void start(CancellationToken token = {}) {
        recorder->startRecording(token);
        dispatch->background.runPending();
    }
    void stopAndFinish() {
        recorder->stopRecording();
        dispatch->runAll();
    }
    std::string folder() const { return *fs.documents + "/Glimmerbox Recordings"; }
    LogCapture log;
    std::unique_ptr<FakeDispatch> dispatch;
    std::shared_ptr<ScreenRecorder> recorder;
};

TEST_F(RecorderTest, WholeRecordingComposesTheCameraOverTheScreen) {
    start();
    ASSERT_EQ(delegate->kinds(), Strings{"start"});
    EXPECT_EQ(access.requests, (std::vector<MediaType>{MediaType::audio, MediaType::video}));
    for (size_t i : {0, 1}) {  // each set up in one transaction, delegates before outputs
        EXPECT_EQ(session(i).starts, 1);
        EXPECT_EQ(session(i).changesOutsideTransaction + session(i).outputsWithoutDelegate, 0);
    }
    auto screenOut = factory.videoOutputs.at(0), cameraOut = factory.videoOutputs.at(1);
    auto audioOut = factory.audioOutputs.at(0);  // made by the first recorder
    // Audio first: it fixes the timeline. A frame without an image repeats the last screen image.
    audioOut->deliver(audioSample(100));
    screenOut->deliver(videoSample(110, solidBuffer(1280, 720, kScreen)));  // no camera yet
    cameraOut->deliver(videoSample(115, solidBuffer(640, 360, kCamera)));
    screenOut->deliver(videoSample(120, nullptr));
    audioOut->deliver(audioSample(125));
    EXPECT_TRUE(writers.lastInput(MediaType::video)->appended().empty());  // only on the queue
    dispatch->runAll();
    const auto writer = writers.lastWriter();
    EXPECT_EQ(writer->sessionStarts, std::vector<MediaTime>{MediaTime::make(100, 600)});
    EXPECT_EQ(writers.lastInput(MediaType::audio)->appended().size(), 2u);
    const auto frames = writers.lastInput(MediaType::video)->appended();
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(pixelAt(*frames[0]->imageBuffer(), 1100, 600), kScreen);
    EXPECT_EQ(frames[1]->presentationTime(), MediaTime::make(120, 600));
    EXPECT_EQ(pixelAt(*frames[1]->imageBuffer(), 1100, 600), kCamera);  // bottom-right overlay
    EXPECT_EQ(pixelAt(*frames[1]->imageBuffer(), 100, 100), kScreen);

    stopAndFinish();
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(delegate->kinds(), (Strings{"start", "stop " + folder() + "/" + kFile}));
    EXPECT_TRUE(std::filesystem::exists(folder() + "/" + kFile));
    for (size_t i : {0, 1})
        EXPECT_TRUE(!session(i).isRunning() && session(i).inputs().empty() && session(i).outputs().empty());
    EXPECT_EQ(writers.lastInput(MediaType::video)->appendsAfterFinish, 0);
}

// Whatever fails while setting up, the user reads the error's text and nothing stays set up.
// (Each permission and capture error text is here once.)
TEST(RecorderSetupTest, FailuresReportTheirTextAndCleanUp) {
    const PlatformError noRoom{"Files", 28, "No room"};
    const auto refuse = [](size_t session, std::string what) {
        return [=](RecorderWorld& w) { w.session(session).refuse = {what}; };
    };
    const auto deny = [](bool microphone, bool camera) {
        return [=](RecorderWorld& w) {
            w.access.answers = {{MediaType::audio, microphone}, {MediaType::video, camera}};
        };
    };
    const std::string both = "Permission denied: Microphone And Camera access required";
    const struct {
        std::function<void(RecorderWorld&)> fault;
        std::string text;  // without "Setup failed: " (not a refusal); empty: the writer failed
    } cases[] = {
        {deny(false, true), "Permission denied: Microphone access required"},
        {deny(true, false), "Permission denied: Camera access required"},
        {deny(false, false), both},
        // A request that is never answered counts as refused.
        {[](RecorderWorld& w) { w.access.dropAnswers = true; }, both},
        {[](RecorderWorld& w) { w.display.setScreen({}); },
         "No display found for screen recording"},
        {[](RecorderWorld& w) { w.factory.screenCaptureAllowed = false; },
         "Screen capture is unavailable. Please grant screen recording permission."},
        {refuse(0, "input video"), "Cannot add screen input to capture session"},
        {[](RecorderWorld& w) { w.factory.microphone = nullptr; }, "No microphone found"},
        {[](RecorderWorld& w) {
             w.factory.microphoneError = PlatformError{"C", 1, "Cannot Record"};
         },
         "Microphone setup failed: Cannot Record"},
        {refuse(0, "output video"), "Cannot add video output to capture session"},
        {refuse(0, "output audio"), "Cannot add audio output to capture session"},
        {refuse(1, "input video"),
         "Camera setup failed: Cannot add camera input to capture session"},
        {[&](RecorderWorld& w) { w.writers.makeWriterError = noRoom; }, ""},
        {[](RecorderWorld& w) { w.writers.setConfig({.canAddAudioInput = false}); }, ""},
        {[&](RecorderWorld& w) { w.writers.setConfig({.startError = noRoom}); }, ""},
        {[](RecorderWorld& w) { w.fs.documents.reset(); }, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        LogCapture log;
        RecorderWorld w;
        FakeDispatch dispatch;
        auto recorder = w.makeRecorder(dispatch);
        c.fault(w);
        recorder->startRecording({});
        dispatch.background.runPending();
        const auto reports = w.delegate->reports();
        ASSERT_EQ(reports.size(), 1u);
        const bool denied = c.text.starts_with("Permission denied");
        EXPECT_EQ(reports[0].description, c.text.empty() ? "Failed to create video writer"
                                          : denied       ? c.text
                                                         : "Setup failed: " + c.text);
        EXPECT_EQ(reports[0].errorKind, c.text.empty() ? EK::writerCreationFailed
                                        : denied       ? EK::permissionDenied
                                                       : EK::setupFailed);
        EXPECT_FALSE(recorder->isRecording());
        EXPECT_EQ(w.session(0).starts, 0);
        EXPECT_TRUE(w.session(0).inputs().empty() && w.session(0).outputs().empty());  // cleaned up
        EXPECT_EQ(w.files->currentOutputURL(), std::nullopt);
    }
}

TEST_F(RecorderTest, StartsAndStopsThatMeetAnotherRecordingAreRefusedOrWait) {
    recorder->stopRecording();
    EXPECT_EQ(log.lines(), Strings{"Stop recording called but not currently recording"});
    writers.setConfig({.holdFinish = true});
    start();
    start();  // already recording
    recorder->stopRecording();
    recorder->stopRecording();
    start();  // while the first one finishes
    EXPECT_EQ(log.count("startRecording called but already recording"), 1u);
    EXPECT_EQ(log.count("startRecording called while the previous recording is finishing; it "
                        "starts once the file is finished"),
              1u);
    const auto writer = writers.lastWriter();
    EXPECT_EQ(writer->finishCalls, 1);
    // The completion comes from the writer's own thread and is handed to the main queue.
    std::thread([writer] { writer->releaseFinish(); }).join();
    EXPECT_EQ(delegate->kinds().size(), 1u);
    dispatch->runAll();  // the finish, then the start that waited for it
    EXPECT_EQ(delegate->kinds(), (Strings{"start", "stop " + folder() + "/" + kFile, "start"}));
}

TEST_F(RecorderTest, StopDuringTheStartsPauseFinishesTheFileAsTheOnlyOutcome) {
    for (const bool cancelled : {false, true}) {
        fresh();
        CancellationToken token;
        dispatch->fakeSleeper.onSleep = [&] {
            if (cancelled) token.cancel();  // as the menu's stop cancels the start's task
            recorder->stopRecording();
        };
        start(token);
        dispatch->fakeSleeper.onSleep = nullptr;
        dispatch->runAll();
        EXPECT_EQ(delegate->kinds(), Strings{"stop " + folder() + "/" + kFile}) << cancelled;
        EXPECT_FALSE(recorder->hasUnfinishedRecording());
    }
}

TEST_F(RecorderTest, FinalisationFailureIsReportedWithTheWritersError) {
    writers.setConfig({.finishError = PlatformError{"Files", 28, "The disk is full."}});
    start();
    stopAndFinish();
    const auto last = delegate->reports().back();
    EXPECT_EQ(last.description, "Recording failed: Failed to finalize recording: The disk is full.");
    EXPECT_EQ(last.errorKind, EK::recordingFailed);
    EXPECT_TRUE(session(0).inputs().empty());
}

// The file manager: named by the start second in the default folder (made when missing) or the
// chosen one; a file of the same name is replaced; the writer's settings follow the quality.
TEST_F(RecorderTest, OutputFileAndWriterSettings) {
    EXPECT_EQ(files->generateOutputURL(), folder() + "/" + kFile);
    EXPECT_TRUE(std::filesystem::is_directory(folder()));
    std::ofstream(folder() + "/" + kFile) << "an older recording";
    (void)files->createAssetWriter(VideoQuality::medium);
    std::ifstream replaced(folder() + "/" + kFile);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(replaced), {}).find("older"), std::string::npos);

    defaults.setURL(fs.root / "gone", "customSaveLocation");
    try {
        (void)files->createAssetWriter(VideoQuality::medium);
        ADD_FAILURE() << "no error for a missing folder";
    } catch (const RecordingFileManagerError& e) {
        EXPECT_EQ(e.errorDescription(), "Failed to create video writer: The folder \u201C" +
                                            (fs.root / "gone") + "\u201D doesn\u2019t exist.");
    }
    EXPECT_FALSE(std::filesystem::exists(fs.root / "gone"));

    defaults.setURL(fs.root.path(), "customSaveLocation");
    (void)files->createAssetWriter(VideoQuality::high);
    EXPECT_EQ(std::get<VideoOutputSettingsForWriter>(writers.lastInput(MediaType::video)->outputSettings()),
              (VideoOutputSettingsForWriter{"avc1", 1920, 1080, {2000000, "H264_Main_AutoLevel", "CAVLC"}}));
    EXPECT_EQ(std::get<AudioOutputSettingsForWriter>(writers.lastInput(MediaType::audio)->outputSettings()),
              (AudioOutputSettingsForWriter{0x61616320, 2, 44100.0, 128000}));
}

}  // namespace
}  // namespace gb
