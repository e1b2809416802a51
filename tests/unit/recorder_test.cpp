// The screen recorder on fakes: starts and their failures, sample routing, stop and finish.
#include <gtest/gtest.h>

#include <thread>

#include "fakes/fake_dispatch.h"
#include "fakes/fake_engine.h"

namespace gb {
namespace {

using namespace gb::fakes;
using Strings = std::vector<std::string>;
using Times = std::vector<MediaTime>;
using Report = FakeRecorderDelegate::Report;
using RK = Report::Kind;
using EK = ScreenRecorderError::Kind;
using Stream = FakeCaptureService::Stream;

const std::string kFolder = "/home/user/Documents/Glimmerbox Recordings";
const std::string kPath = kFolder + "/glimmerbox-2025-03-14_09-26-53.mov";
const Strings kStartLines = {
    "ScreenRecorder.startRecording() called",
    "Created directory: " + kFolder,
    "Created AVAssetWriter for: " + kPath,
    "Video settings: [\"AVVideoCodecKey\": avc1, \"AVVideoWidthKey\": 1920, "
    "\"AVVideoHeightKey\": 1080, \"AVVideoCompressionPropertiesKey\": [\"AverageBitRate\": "
    "2000000, \"ProfileLevel\": H264_Main_AutoLevel, \"H264EntropyMode\": CAVLC]]",
    "AVAssetWriter started successfully",
    "Recording started successfully"};
const std::string kWaits =
    "startRecording called while the previous recording is finishing; it starts once the file is "
    "finished";
const auto screenAt = [](int64_t t) { return makeVideoSample(mediaTime(t), ImageSize{32, 18}); };
const auto imagelessAt = [](int64_t t) { return makeVideoSample(mediaTime(t), std::nullopt); };
const auto cameraAt = [](int64_t t) { return makeVideoSample(mediaTime(t), ImageSize{16, 9}); };
const auto audioAt = [](int64_t t) { return makeAudioSample(mediaTime(t)); };

class RecorderTest : public ::testing::Test, protected FakeEngine {
protected:
    RecorderTest() : FakeEngine(&calls) { fresh(); }
    // Runs the start's body (the background executor) to its end.
    void start(const CancellationToken& token = {}) {
        recorder->startRecording(token);
        dispatch.background.runPending();
    }
    void startAndClearLog() {
        start();
        ASSERT_TRUE(recorder->isRecording());
        log.clear();
        calls.clear();
    }
    void runMain() { dispatch.main.runPending(); }
    // A new recorder on new capture and composition services, a new delegate and an empty log.
    void fresh() {
        delegate = std::make_shared<FakeRecorderDelegate>();
        recorder = makeRecorder(dispatch);
        recorder->setDelegate(delegate);
        log.clear();
    }
    void setWriter(FakeWriterConfig config) { factory.setConfig(config); }
    std::shared_ptr<FakeAssetWriter> writer() const { return factory.lastWriter(); }
    std::vector<RK> kinds() const {
        std::vector<RK> k;
        for (const auto& r : delegate->reports()) k.push_back(r.kind);
        return k;
    }
    Report last() const { return delegate->reports().back(); }
    void expectOneFailure(const std::string& description, EK kind) {
        ASSERT_EQ(kinds(), std::vector<RK>{RK::didFail});
        EXPECT_EQ(last().description, description);
        EXPECT_EQ(last().errorKind, kind);
        EXPECT_FALSE(recorder->isRecording());
    }
    LogCapture log;
    CallLog calls;
    FakeDispatch dispatch;
    std::shared_ptr<FakeRecorderDelegate> delegate = std::make_shared<FakeRecorderDelegate>();
    std::shared_ptr<ScreenRecorder> recorder;
};

TEST_F(RecorderTest, WholeRecordingWithOverlay) {
    size_t reportsAtCompletion = 99;
    recorder->startRecording({}, [&] { reportsAtCompletion = delegate->count(); });
    dispatch.background.runPending();
    EXPECT_EQ(reportsAtCompletion, 1u);  // the completion runs after the outcome was reported
    EXPECT_EQ(log.lines(), kStartLines);
    EXPECT_EQ(kinds(), std::vector<RK>{RK::didStart});
    EXPECT_EQ(calls.calls(), (Strings{"setupScreenCapture", "setupCamera",
                                      "screenSession.startRunning", "cameraSession.startRunning"}));
    EXPECT_EQ(access.requests(), (std::vector<MediaType>{MediaType::audio, MediaType::video}));
    log.clear();
    calls.clear();
    // Audio first: it fixes the timeline. Then the stream as it comes.
    capture->deliver(Stream::audio, audioAt(100));
    capture->deliver(Stream::screen, screenAt(110));  // no camera image yet: plain frame
    capture->deliver(Stream::camera, cameraAt(115));
    capture->deliver(Stream::screen, screenAt(120));  // composed with camera #1
    capture->deliver(Stream::audio, audioAt(125));
    capture->deliver(Stream::screen, imagelessAt(130));  // previous screen image again, composed
    capture->deliver(Stream::camera, cameraAt(135));
    capture->deliver(Stream::screen, screenAt(140));  // composed with camera #2
    EXPECT_EQ(writer()->sessionStarts(), Times{mediaTime(100)});
    EXPECT_EQ(factory.lastInput(MediaType::audio)->appendedTimes(),
              (Times{mediaTime(100), mediaTime(125)}));
    EXPECT_EQ(factory.lastInput(MediaType::video)->appendedTimes(),
              (Times{mediaTime(110), mediaTime(120), mediaTime(130), mediaTime(140)}));
    ASSERT_EQ(composer->plainCalls().size(), 1u);
    const auto composed = composer->composeCalls();
    ASSERT_EQ(composed.size(), 3u);
    EXPECT_EQ(composed[0].screen, composed[1].screen);  // the image-less sample reused it
    EXPECT_EQ(composed[1].time, mediaTime(130));        // with its own time
    EXPECT_EQ(composed[0].camera, composed[1].camera);  // camera image reused until a newer one
    EXPECT_NE(composed[2].camera, composed[1].camera);
    recorder->stopRecording();
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(calls.calls(), (Strings{"screenSession.stopRunning", "cameraSession.stopRunning",
                                      "videoInput.markAsFinished", "audioInput.markAsFinished",
                                      "writer.finishWriting"}));
    EXPECT_EQ(delegate->count(), 1u);  // the outcome comes through the main queue
    runMain();
    EXPECT_EQ(log.lines(),
              (Strings{"📺 Screen sample #1", "📷 Camera sample #1: 16x9", "Stopping recording...",
                       "Finishing writing to: " + kPath, "Recording completed successfully"}));
    EXPECT_EQ(kinds(), (std::vector<RK>{RK::didStart, RK::didStop}));
    EXPECT_EQ(last().outputURL, kPath);
    EXPECT_EQ(capture->cleanupCount(), 1);
}

TEST_F(RecorderTest, PermissionRefusalsEndTheStartBeforeAnythingIsSetUp) {
    const struct {
        bool microphone, camera;
        std::string text;
    } cases[] = {{false, true, "Permission denied: Microphone access required"},
                 {true, false, "Permission denied: Camera access required"},
                 {false, false, "Permission denied: Microphone And Camera access required"}};
    for (const auto& c : cases) {
        fresh();
        access.setAnswer(MediaType::audio, c.microphone);
        access.setAnswer(MediaType::video, c.camera);
        start();
        expectOneFailure(c.text, EK::permissionDenied);
        EXPECT_EQ(log.lines(), Strings{"ScreenRecorder.startRecording() called"});
        EXPECT_TRUE(calls.calls().empty());
        EXPECT_EQ(capture->cleanupCount(), 0);
    }
    access.grantAll();
    start();
    EXPECT_EQ(kinds(), (std::vector<RK>{RK::didFail, RK::didStart}));
}

// A capture error ends the start with its own text for the user and its case in the log. The
// screen set-up's other errors and their texts are in the capture session manager's table.
TEST_F(RecorderTest, EveryCaptureErrorEndsTheStartWithSetupFailed) {
    using CE = CaptureSessionError;
    const struct {
        bool inCameraSetup;
        CaptureSessionError error;
        std::string userText;  // after "Setup failed: "
        std::string logged;    // after "Recording setup failed: "
    } cases[] = {{0, CE::microphoneSetupFailed("busy"), "Microphone setup failed: busy",
                  "microphoneSetupFailed(\"busy\")"},
                 {1, CE::cameraSetupFailed("in use"), "Camera setup failed: in use",
                  "cameraSetupFailed(\"in use\")"},
                 {0, CE::noDisplay(), "No display found for screen recording", "noDisplay"}};
    for (const auto& c : cases) {
        fresh();
        if (c.inCameraSetup) {
            capture->setCameraSetupError(c.error);
        } else {
            capture->setScreenSetupError(c.error);
        }
        start();
        EXPECT_EQ(log.lines(), (Strings{"ScreenRecorder.startRecording() called",
                                        "Recording setup failed: " + c.logged}));
        expectOneFailure("Setup failed: " + c.userText, EK::setupFailed);
        EXPECT_EQ(capture->cleanupCount(), 1);
        EXPECT_EQ(capture->screenSessionFake().startCount(), 0);
    }
    EXPECT_TRUE(factory.writers().empty());
}

// Whatever fails in the file manager, the user reads the same sentence.
TEST_F(RecorderTest, EveryFileManagerErrorBecomesFailedToCreateVideoWriter) {
    const PlatformError noRoom{"AVFoundationErrorDomain", -11800, "No room"};
    const struct {
        FakeWriterConfig writer;
        bool makeWriterFails, noDocuments;
        std::string logged;  // after "Recording setup failed: "
    } cases[] = {
        {{}, true, false, "writerCreationFailed(\"No room\")"},
        {{.canAddVideoInput = false}, false, false, "cannotAddVideoInput"},
        {{.canAddAudioInput = false}, false, false, "cannotAddAudioInput"},
        {{.startWritingSucceeds = false, .startWritingError = PlatformError{"D", 1, "Cannot Save"}},
         false,
         false,
         "startWritingFailed(\"Cannot Save\")"},
        {{}, false, true, "urlCreationFailed"}};
    for (const auto& c : cases) {
        fresh();
        setWriter(c.writer);
        factory.setMakeWriterError(c.makeWriterFails ? std::optional(noRoom) : std::nullopt);
        if (c.noDocuments) files.setDocumentsDirectory(std::nullopt);
        start();
        expectOneFailure("Failed to create video writer", EK::writerCreationFailed);
        EXPECT_FALSE(last().reason.empty()) << c.logged;  // for the log and the terminal
        EXPECT_EQ(log.lines().back(), "Recording setup failed: " + c.logged);
        EXPECT_EQ(capture->cleanupCount(), 1);
        EXPECT_EQ(fileManager->currentOutputURL(), std::nullopt);  // cleared by the clean-up
        EXPECT_EQ(capture->screenSessionFake().startCount(), 0);
        EXPECT_FALSE(capture->deliver(Stream::screen, screenAt(1)));
    }
}

TEST_F(RecorderTest, StartsAndStopsThatMeetAnotherRecordingAreRefusedOrWaitWithALine) {
    recorder->stopRecording();
    EXPECT_EQ(log.lines(), Strings{"Stop recording called but not currently recording"});
    setWriter({.holdFinish = true});
    startAndClearLog();
    start();
    recorder->stopRecording();
    recorder->stopRecording();
    start();
    EXPECT_EQ(log.lines(), (Strings{"startRecording called but already recording",
                                    "Stopping recording...", "Finishing writing to: " + kPath,
                                    "Stop recording called but not currently recording", kWaits}));
    EXPECT_EQ(factory.writers().size(), 1u);
    EXPECT_EQ(writer()->finishCalls(), 1);
    EXPECT_EQ(fileManager->currentOutputURL(), kPath);  // the finishing recording is left alone
    EXPECT_EQ(capture->cleanupCount(), 0);
    // The completion comes from the writer's own thread and is handed to the main queue.
    std::thread([w = writer()] { w->releaseFinish(); }).join();
    EXPECT_EQ(delegate->count(), 1u);
    runMain();
    EXPECT_EQ(kinds(), (std::vector<RK>{RK::didStart, RK::didStop}));
    EXPECT_EQ(last().outputURL, kPath);
    dispatch.background.runPending();  // the start that waited for the finish
    EXPECT_EQ(last().kind, RK::didStart);
    EXPECT_EQ(factory.writers().size(), 2u);
}

TEST_F(RecorderTest, StopDuringTheStartsPauseFinishesTheFileAsTheOnlyOutcome) {
    for (const bool cancelled : {false, true}) {
        fresh();
        CancellationToken token;
        dispatch.sleeperImpl.setOnSleep([&] {
            if (cancelled) token.cancel();  // as the menu's stop cancels the start's task
            recorder->stopRecording();
        });
        start(token);
        dispatch.sleeperImpl.setOnSleep(nullptr);
        runMain();
        EXPECT_EQ(kinds(), (std::vector<RK>{RK::didStop})) << cancelled;
        EXPECT_EQ(writer()->finishCalls(), 1);
        EXPECT_FALSE(recorder->hasUnfinishedRecording());
    }
}

TEST_F(RecorderTest, FinalisationFailureIsReportedWithTheWritersError) {
    setWriter({.finishStatus = AssetWriterStatus::failed,
               .finishError = PlatformError{"AVFoundationErrorDomain", -11807, "Disk full"}});
    startAndClearLog();
    recorder->stopRecording();
    runMain();
    EXPECT_EQ(log.lines().back(), "Recording failed: Disk full");
    EXPECT_EQ(last().description, "Recording failed: Failed to finalize recording: Disk full");
    EXPECT_EQ(last().errorKind, EK::recordingFailed);
    EXPECT_EQ(capture->cleanupCount(), 1);
}

}  // namespace
}  // namespace gb
