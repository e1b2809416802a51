// The screen recorder on fakes: starts and their failures, sample routing, stop and finish.
#include <gtest/gtest.h>

#include <stdexcept>

#include "fakes/fake_dispatch.h"
#include "fakes/fake_engine.h"

namespace gb {
namespace {

using namespace gb::fakes;
using namespace std::chrono_literals;
using Strings = std::vector<std::string>;
using Times = std::vector<MediaTime>;
using Report = FakeRecorderDelegate::Report;

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

SampleBufferRef screenAt(int64_t t) {
    return makeVideoSample(mediaTime(t), ImageSize{32, 18});
}
SampleBufferRef imagelessAt(int64_t t) {
    return makeVideoSample(mediaTime(t), std::nullopt);
}
SampleBufferRef cameraAt(int64_t t) {
    return makeVideoSample(mediaTime(t), ImageSize{16, 9});
}
SampleBufferRef audioAt(int64_t t) {
    return makeAudioSample(mediaTime(t));
}

// Breaks its promise never to fail.
class ThrowingPermissions final : public PermissionService {
public:
    bool checkAllPermissions(bool) override { throw std::runtime_error("access service gone"); }
    std::vector<std::string> missingPermissions(bool) override { return {}; }
};

class RecorderTest : public ::testing::Test, protected FakeEngine {
protected:
    RecorderTest() : FakeEngine(&calls) { recorder = recorderWith({}); }

    std::shared_ptr<ScreenRecorder> recorderWith(std::shared_ptr<PermissionService> permissions) {
        auto r = makeRecorder(dispatch, std::move(permissions));
        r->setDelegate(delegate);
        return r;
    }
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
    void holdFinish() {
        FakeWriterConfig config;
        config.holdFinish = true;
        factory.setConfig(config);
    }

    std::shared_ptr<FakeAssetWriter> writer() const { return factory.lastWriter(); }
    std::shared_ptr<FakeAssetWriterInput> videoInput() const {
        return factory.lastInput(MediaType::video);
    }
    std::shared_ptr<FakeAssetWriterInput> audioInput() const {
        return factory.lastInput(MediaType::audio);
    }
    std::vector<Report> reports() const { return delegate->reports(); }
    void expectOneFailure(const std::string& description, ScreenRecorderError::Kind kind) {
        const auto r = reports();
        ASSERT_EQ(r.size(), 1u);
        EXPECT_EQ(r[0].kind, Report::Kind::didFail);
        EXPECT_EQ(r[0].description, description);
        EXPECT_EQ(r[0].errorKind, kind);
    }

    LogCapture log;
    CallLog calls;
    FakeDispatch dispatch;
    std::shared_ptr<FakeRecorderDelegate> delegate = std::make_shared<FakeRecorderDelegate>();
    std::shared_ptr<ScreenRecorder> recorder;
};

// ---- whole recordings ----

TEST_F(RecorderTest, WholeRecordingWithOverlayThenASecondFromAFreshState) {
    size_t reportsAtCompletion = 99;
    recorder->startRecording({}, [&] { reportsAtCompletion = delegate->count(); });
    dispatch.background.runPending();
    EXPECT_EQ(reportsAtCompletion, 1u);  // the completion runs after the outcome was reported
    EXPECT_TRUE(recorder->isRecording());
    EXPECT_EQ(log.lines(), kStartLines);
    ASSERT_EQ(reports().size(), 1u);
    EXPECT_EQ(reports()[0].kind, Report::Kind::didStart);
    EXPECT_EQ(dispatch.sleeperImpl.sleeps(), std::vector<std::chrono::nanoseconds>{100ms});
    EXPECT_EQ(calls.calls(), (Strings{"setupScreenCapture", "setupCamera",
                                      "screenSession.startRunning", "cameraSession.startRunning"}));
    EXPECT_EQ(access.requests(), (std::vector<MediaType>{MediaType::audio, MediaType::video}));
    log.clear();
    calls.clear();

    // Audio first: it fixes the timeline. Then the stream as it comes.
    capture->deliverAudio(audioAt(100));
    capture->deliverScreen(screenAt(110));  // no camera image yet: plain frame
    capture->deliverCamera(cameraAt(115));
    capture->deliverScreen(screenAt(120));  // composed with camera #1
    capture->deliverAudio(audioAt(125));
    capture->deliverScreen(imagelessAt(130));  // previous screen image again, composed
    capture->deliverCamera(cameraAt(135));
    capture->deliverScreen(screenAt(140));  // composed with camera #2

    EXPECT_EQ(writer()->sessionStarts(), Times{mediaTime(100)});
    EXPECT_EQ(audioInput()->appendedTimes(), (Times{mediaTime(100), mediaTime(125)}));
    EXPECT_EQ(videoInput()->appendedTimes(),
              (Times{mediaTime(110), mediaTime(120), mediaTime(130), mediaTime(140)}));
    ASSERT_EQ(composer->plainCalls().size(), 1u);
    const auto composed = composer->composeCalls();
    ASSERT_EQ(composed.size(), 3u);
    EXPECT_EQ(composed[0].screen, composed[1].screen);  // the image-less sample reused it
    EXPECT_EQ(composed[1].time, mediaTime(130));        // with its own time
    EXPECT_EQ(composed[0].camera, composed[1].camera);  // camera image reused until a newer one
    EXPECT_NE(composed[2].camera, composed[1].camera);
    EXPECT_EQ(log.lines(), (Strings{"📺 Screen sample #1", "📷 Camera sample #1: 16x9"}));

    recorder->stopRecording();
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(calls.calls(), (Strings{"screenSession.stopRunning", "cameraSession.stopRunning",
                                      "videoInput.markAsFinished", "audioInput.markAsFinished",
                                      "writer.finishWriting"}));
    EXPECT_EQ(reports().size(), 1u);  // the outcome comes through the main queue
    runMain();
    EXPECT_EQ(log.lines(),
              (Strings{"📺 Screen sample #1", "📷 Camera sample #1: 16x9", "Stopping recording...",
                       "Finishing writing to: " + kPath, "Recording completed successfully"}));
    ASSERT_EQ(reports().size(), 2u);
    EXPECT_EQ(reports()[1].kind, Report::Kind::didStop);
    EXPECT_EQ(reports()[1].outputURL, kPath);
    EXPECT_EQ(capture->cleanupCount(), 1);
    EXPECT_EQ(fileManager->currentOutputURL(), std::nullopt);
    EXPECT_EQ(videoInput()->appendsAfterFinish(), 0u);
    EXPECT_TRUE(files.fileContents(kPath).has_value());

    // Counters, images and the timeline start afresh; a camera sample may fix the timeline.
    dates.setFormatted("2025-03-14_09-30-00");
    start();
    capture->deliverCamera(cameraAt(500));
    capture->deliverScreen(screenAt(510));
    EXPECT_EQ(writer()->sessionStarts(), Times{mediaTime(500)});
    EXPECT_EQ(log.count("📺 Screen sample #1"), 2u);
    EXPECT_EQ(log.count("📷 Camera sample #1: 16x9"), 2u);
    EXPECT_EQ(composer->composeCalls().size(), 4u);
    EXPECT_EQ(fileManager->currentOutputURL(), kFolder + "/glimmerbox-2025-03-14_09-30-00.mov");
}

TEST_F(RecorderTest, OverlayOffAsksNoCameraAndComposesOnlyOnceSwitchedOn) {
    recorder->setCameraOverlayEnabled(false);
    capture->setCameraOverlayEnabled(false);
    access.setAnswer(MediaType::video, false);
    start();
    EXPECT_EQ(reports().at(0).kind, Report::Kind::didStart);
    EXPECT_EQ(access.requestCount(MediaType::video), 0u);
    EXPECT_EQ(calls.calls(), (Strings{"setupScreenCapture", "screenSession.startRunning"}));
    calls.clear();
    recorder->stopRecording();
    EXPECT_EQ(calls.calls(), (Strings{"screenSession.stopRunning", "videoInput.markAsFinished",
                                      "audioInput.markAsFinished", "writer.finishWriting"}));
    runMain();

    // Camera frames still arrive when only the recorder's overlay is off: kept, not composed.
    capture->setCameraOverlayEnabled(true);
    startAndClearLog();
    capture->deliverCamera(cameraAt(5));
    capture->deliverScreen(screenAt(10));
    EXPECT_TRUE(composer->composeCalls().empty());
    EXPECT_EQ(log.lines().front(), "📷 Camera sample #1: 16x9");
    // Switched on mid-recording: the stored camera image is used at once.
    recorder->setCameraOverlayEnabled(true);
    capture->deliverScreen(screenAt(20));
    EXPECT_EQ(composer->composeCalls().size(), 1u);
}

TEST_F(RecorderTest, ReleasedRecorderIsNotKeptAliveByCaptureOrWriter) {
    holdFinish();
    startAndClearLog();
    capture->deliverAudio(audioAt(1));
    EXPECT_EQ(audioInput()->appended().size(), 1u);
    recorder->stopRecording();
    auto w = writer();
    std::weak_ptr<ScreenRecorder> weak = recorder;
    recorder.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_NO_THROW(capture->deliverAudio(audioAt(2)));
    w->releaseFinish();
    runMain();
    EXPECT_EQ(log.lines().back(), "Recording completed successfully");
    EXPECT_EQ(reports().size(), 1u);
    EXPECT_EQ(capture->cleanupCount(), 0);
}

TEST_F(RecorderTest, AMissingDelegateSilencesReportsAndChangesNothingElse) {
    delegate.reset();
    start();
    EXPECT_TRUE(recorder->isRecording());
    capture->deliverScreen(screenAt(1));
    recorder->stopRecording();
    runMain();
    EXPECT_EQ(log.lines().back(), "Recording completed successfully");
    EXPECT_EQ(capture->cleanupCount(), 1);
}

// ---- start failures ----

struct RefusalCase {
    bool microphone;
    bool camera;
    std::string userText;
};
class PermissionRefusalTest : public RecorderTest,
                              public ::testing::WithParamInterface<RefusalCase> {};

// A refusal ends the start before anything is set up; the next start may succeed.
TEST_P(PermissionRefusalTest, EndsTheStartWithItsText) {
    access.setAnswer(MediaType::audio, GetParam().microphone);
    access.setAnswer(MediaType::video, GetParam().camera);
    start();
    expectOneFailure(GetParam().userText, ScreenRecorderError::Kind::permissionDenied);
    EXPECT_EQ(log.lines(), Strings{"ScreenRecorder.startRecording() called"});
    EXPECT_TRUE(calls.calls().empty());
    EXPECT_EQ(capture->cleanupCount(), 0);
    EXPECT_EQ(access.requestCount(MediaType::audio), 2u);
    EXPECT_EQ(access.requestCount(MediaType::video), 2u);
    EXPECT_FALSE(recorder->isRecording());

    access.grantAll();
    start();
    ASSERT_EQ(reports().size(), 2u);
    EXPECT_EQ(reports()[1].kind, Report::Kind::didStart);
}

INSTANTIATE_TEST_SUITE_P(
    MicrophoneCameraOrBoth, PermissionRefusalTest,
    ::testing::Values(RefusalCase{false, true, "Permission denied: Microphone access required"},
                      RefusalCase{true, false, "Permission denied: Camera access required"},
                      RefusalCase{false, false,
                                  "Permission denied: Microphone And Camera access required"}));

// A throwing permission service ends the start through the common failure path.
TEST_F(RecorderTest, APermissionServiceThatThrows) {
    recorder = recorderWith(std::make_shared<ThrowingPermissions>());
    start();
    EXPECT_EQ(log.lines().back(), "Recording setup failed: access service gone");
    expectOneFailure("Setup failed: access service gone", ScreenRecorderError::Kind::setupFailed);
    EXPECT_TRUE(factory.requests().empty());
    start();  // the failed start left nothing behind
    EXPECT_EQ(reports().size(), 2u);
}

// Each capture error ends the start with its own text for the user and its case in the log.
struct CaptureErrorCase {
    bool inCameraSetup;
    CaptureSessionError error;
    std::string userText;  // after "Setup failed: "
    std::string logged;    // after "Recording setup failed: "
};
class CaptureErrorTest : public RecorderTest,
                         public ::testing::WithParamInterface<CaptureErrorCase> {};

TEST_P(CaptureErrorTest, EndsTheStartWithSetupFailed) {
    const CaptureErrorCase& c = GetParam();
    if (c.inCameraSetup) {
        capture->setCameraSetupError(c.error);
    } else {
        capture->setScreenSetupError(c.error);
    }
    start();
    EXPECT_EQ(log.lines(), (Strings{"ScreenRecorder.startRecording() called",
                                    "Recording setup failed: " + c.logged}));
    expectOneFailure("Setup failed: " + c.userText, ScreenRecorderError::Kind::setupFailed);
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(capture->cleanupCount(), 1);
    EXPECT_TRUE(factory.requests().empty());
    EXPECT_EQ(capture->screenSessionFake().startCount(), 0);
}

using CE = CaptureSessionError;
INSTANTIATE_TEST_SUITE_P(
    EveryCaptureError, CaptureErrorTest,
    ::testing::Values(
        CaptureErrorCase{false, CE::microphoneSetupFailed("busy"), "Microphone setup failed: busy",
                         "microphoneSetupFailed(\"busy\")"},
        CaptureErrorCase{true, CE::cameraSetupFailed("in use"), "Camera setup failed: in use",
                         "cameraSetupFailed(\"in use\")"},
        CaptureErrorCase{false, CE::noDisplay(), "No display found for screen recording",
                         "noDisplay"},
        CaptureErrorCase{false, CE::screenCaptureUnavailable(),
                         "Screen capture is unavailable. Please grant screen recording permission.",
                         "screenCaptureUnavailable"},
        CaptureErrorCase{false, CE::cannotAddScreenInput(),
                         "Cannot add screen input to capture session", "cannotAddScreenInput"},
        CaptureErrorCase{false, CE::microphoneUnavailable(), "No microphone found",
                         "microphoneUnavailable"},
        CaptureErrorCase{false, CE::cannotAddMicrophoneInput(),
                         "Cannot add microphone input to capture session",
                         "cannotAddMicrophoneInput"},
        CaptureErrorCase{false, CE::cannotAddVideoOutput(),
                         "Cannot add video output to capture session", "cannotAddVideoOutput"},
        CaptureErrorCase{false, CE::cannotAddAudioOutput(),
                         "Cannot add audio output to capture session", "cannotAddAudioOutput"},
        CaptureErrorCase{true, CE::cannotAddCameraInput(),
                         "Cannot add camera input to capture session", "cannotAddCameraInput"},
        CaptureErrorCase{true, CE::cannotAddCameraOutput(),
                         "Cannot add camera output to capture session", "cannotAddCameraOutput"}));

// Whatever fails in the file manager, the user reads the same sentence.
struct FileErrorCase {
    std::string name;
    FakeWriterConfig writer;
    std::optional<PlatformError> makeWriterError;
    bool noDocumentsFolder;
    std::string logged;  // after "Recording setup failed: "
};
class FileManagerErrorTest : public RecorderTest,
                             public ::testing::WithParamInterface<FileErrorCase> {};

TEST_P(FileManagerErrorTest, BecomesWriterCreationFailed) {
    const FileErrorCase& c = GetParam();
    factory.setConfig(c.writer);
    factory.setMakeWriterError(c.makeWriterError);
    if (c.noDocumentsFolder) files.setDocumentsDirectory(std::nullopt);
    start();
    expectOneFailure("Failed to create video writer",
                     ScreenRecorderError::Kind::writerCreationFailed);
    EXPECT_EQ(log.lines().back(), "Recording setup failed: " + c.logged);
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(capture->cleanupCount(), 1);
    EXPECT_EQ(fileManager->currentOutputURL(), std::nullopt);  // cleared by the clean-up
    EXPECT_EQ(capture->screenSessionFake().startCount(), 0);
    EXPECT_FALSE(capture->deliverScreen(screenAt(1)));
}

INSTANTIATE_TEST_SUITE_P(
    EveryFileManagerError, FileManagerErrorTest,
    ::testing::Values(
        FileErrorCase{"writerNotCreated",
                      {},
                      PlatformError{"AVFoundationErrorDomain", -11800, "No room"},
                      false,
                      "writerCreationFailed(\"No room\")"},
        FileErrorCase{
            "videoInputRefused", {.canAddVideoInput = false}, {}, false, "cannotAddVideoInput"},
        FileErrorCase{
            "audioInputRefused", {.canAddAudioInput = false}, {}, false, "cannotAddAudioInput"},
        FileErrorCase{"writerDoesNotStart",
                      {.startWritingSucceeds = false,
                       .startWritingError = PlatformError{"D", 1, "Cannot Save"}},
                      {},
                      false,
                      "startWritingFailed(\"Cannot Save\")"},
        FileErrorCase{"noDocumentsFolder", {}, {}, true, "urlCreationFailed"}),
    [](const auto& info) { return info.param.name; });

TEST_F(RecorderTest, RecordingsFolderThatCannotBeCreatedEndsTheStart) {
    files.writeFile("/home/user/Documents/notes.txt", "earlier work");
    files.setCreateDirectoryError(PlatformError{"NSCocoaErrorDomain", 640, "Disk full."});
    start();
    const std::string missing = "The folder \u201C" + kFolder + "\u201D doesn\u2019t exist.";
    EXPECT_EQ(log.lines(),
              (Strings{"ScreenRecorder.startRecording() called",
                       "Failed to create directory: Error Domain=NSCocoaErrorDomain Code=640 "
                       "\"Disk full.\"",
                       "Failed to create AVAssetWriter: Error Domain=NSCocoaErrorDomain Code=4 \"" +
                           missing + "\"",
                       "Recording setup failed: writerCreationFailed(\"" + missing + "\")"}));
    expectOneFailure("Failed to create video writer",
                     ScreenRecorderError::Kind::writerCreationFailed);
    EXPECT_EQ(files.fileContents("/home/user/Documents/notes.txt"), "earlier work");
}

TEST_F(RecorderTest, CancelledPauseEndsTheStartThroughTheCommonFailurePath) {
    CancellationToken token;
    token.cancel();
    start(token);
    EXPECT_EQ(log.lines().back(), "Recording setup failed: CancellationError()");
    expectOneFailure("Setup failed: The operation was cancelled.",
                     ScreenRecorderError::Kind::setupFailed);
    EXPECT_FALSE(recorder->isRecording());
    // The sessions had been started; the clean-up stopped them and forgot the writer.
    EXPECT_EQ(capture->screenSessionFake().startCount(), 1);
    EXPECT_EQ(capture->cleanupCount(), 1);
    EXPECT_FALSE(capture->screenSessionFake().isRunning());
    EXPECT_EQ(fileManager->currentOutputURL(), std::nullopt);
    EXPECT_EQ(writer()->finishCalls(), 0);
}

// ---- starts and stops that meet another recording ----

TEST_F(RecorderTest, RepeatedStartsAndStopsAreRefusedWithALine) {
    recorder->stopRecording();
    EXPECT_EQ(log.lines(), Strings{"Stop recording called but not currently recording"});
    startAndClearLog();
    start();
    recorder->stopRecording();
    recorder->stopRecording();
    EXPECT_EQ(log.lines(), (Strings{"startRecording called but already recording",
                                    "Stopping recording...", "Finishing writing to: " + kPath,
                                    "Stop recording called but not currently recording"}));
    EXPECT_EQ(reports().size(), 1u);
    EXPECT_EQ(factory.writers().size(), 1u);
    EXPECT_EQ(writer()->finishCalls(), 1);
}

TEST_F(RecorderTest, StartDuringTheFinishIsRefusedAndLeavesThatRecordingAlone) {
    holdFinish();
    startAndClearLog();
    capture->deliverScreen(screenAt(1));
    recorder->stopRecording();
    ASSERT_TRUE(writer()->isFinishHeld());

    start();
    EXPECT_EQ(log.lines().back(),
              "startRecording called but a previous recording is still starting or finishing");
    EXPECT_EQ(factory.writers().size(), 1u);
    EXPECT_EQ(fileManager->currentOutputURL(), kPath);
    EXPECT_EQ(capture->cleanupCount(), 0);
    EXPECT_EQ(reports().size(), 1u);

    // The completion comes from the writer's own thread and is handed to the main queue.
    std::thread([w = writer()] { w->releaseFinish(); }).join();
    EXPECT_EQ(reports().size(), 1u);
    EXPECT_EQ(dispatch.main.pendingCount(), 1u);
    runMain();
    ASSERT_EQ(reports().size(), 2u);
    EXPECT_EQ(reports()[1].kind, Report::Kind::didStop);
    EXPECT_EQ(reports()[1].outputURL, kPath);

    start();  // after the finish step a start goes through again
    ASSERT_EQ(reports().size(), 3u);
    EXPECT_EQ(reports()[2].kind, Report::Kind::didStart);
}

TEST_F(RecorderTest, SamplesAreIgnoredOnceTheStopClearedTheFlag) {
    startAndClearLog();
    // The flag is already clear when the sessions stop, so a late delivery is ignored.
    capture->screenSessionFake().setOnStopRunning([&] {
        EXPECT_FALSE(recorder->isRecording());
        capture->deliverScreen(screenAt(99));
        capture->deliverAudio(audioAt(99));
    });
    recorder->stopRecording();
    EXPECT_TRUE(videoInput()->appended().empty());
    EXPECT_TRUE(audioInput()->appended().empty());
    EXPECT_TRUE(writer()->sessionStarts().empty());
}

// A stop and a second start whose body runs while the first start is in its set-up.
TEST_F(RecorderTest, StopOrStartDuringTheStartsSetUpIsRefusedAndTheStartGoesOn) {
    capture->setOnSetupScreenCapture([&] {
        capture->setOnSetupScreenCapture({});
        recorder->stopRecording();
        recorder->startRecording();
        dispatch.background.runOne();
    });
    start();
    const auto lines = log.lines();
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines[1], "Stop recording called but not currently recording");
    EXPECT_EQ(lines[2],
              "startRecording called but a previous recording is still starting or finishing");
    EXPECT_EQ(lines.back(), "Recording started successfully");
    EXPECT_TRUE(recorder->isRecording());
    ASSERT_EQ(reports().size(), 1u);
    EXPECT_EQ(reports()[0].kind, Report::Kind::didStart);
    EXPECT_EQ(factory.writers().size(), 1u);
}

TEST_F(RecorderTest, StopDuringThePauseFinalisesAndTheStartStillReportsStarted) {
    dispatch.sleeperImpl.setOnSleep([&] { recorder->stopRecording(); });
    start();
    Strings expected = kStartLines;
    expected.insert(expected.end() - 1,
                    {"Stopping recording...", "Finishing writing to: " + kPath});
    EXPECT_EQ(log.lines(), expected);
    runMain();
    const auto r = reports();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].kind, Report::Kind::didStart);
    EXPECT_EQ(r[1].kind, Report::Kind::didStop);
    EXPECT_EQ(capture->cleanupCount(), 1);
}

// The application cancels the start's task and stops: the stop takes the recording over, so the
// start's failure leaves the writer and the URL to the finish step.
TEST_F(RecorderTest, StopThenCancelledPauseKeepsTheRecordingBeingFinalised) {
    CancellationToken token;
    dispatch.sleeperImpl.setOnSleep([&] {
        token.cancel();
        recorder->stopRecording();
    });
    holdFinish();
    start(token);
    EXPECT_EQ(log.lines().back(), "Recording setup failed: CancellationError()");
    EXPECT_EQ(capture->cleanupCount(), 0);
    EXPECT_EQ(fileManager->currentOutputURL(), kPath);
    writer()->releaseFinish();
    runMain();
    const auto r = reports();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].description, "Setup failed: The operation was cancelled.");
    EXPECT_EQ(r[1].kind, Report::Kind::didStop);
    EXPECT_EQ(r[1].outputURL, kPath);
    EXPECT_EQ(capture->cleanupCount(), 1);
    EXPECT_EQ(log.lines().back(), "Recording completed successfully");
}

TEST_F(RecorderTest, StopWithoutURLCleansUpWithoutReport) {
    startAndClearLog();
    fileManager->clearCurrentOutputURL();
    recorder->stopRecording();
    EXPECT_EQ(log.lines(), (Strings{"Stopping recording...", "No writer or URL available"}));
    EXPECT_EQ(capture->cleanupCount(), 1);
    EXPECT_EQ(writer()->finishCalls(), 0);
    runMain();
    EXPECT_EQ(reports().size(), 1u);
    start();  // nothing is left pending
    EXPECT_EQ(reports().back().kind, Report::Kind::didStart);
}

TEST_F(RecorderTest, FinalisationFailureIsReportedWithTheWritersError) {
    const struct {
        AssetWriterStatus status;
        std::optional<PlatformError> error;
        std::string text;
    } cases[] = {
        {AssetWriterStatus::failed, PlatformError{"AVFoundationErrorDomain", -11807, "Disk full"},
         "Disk full"},
        {AssetWriterStatus::cancelled, std::nullopt, "Unknown error"},
    };
    for (const auto& c : cases) {
        FakeWriterConfig config;
        config.finishStatus = c.status;
        config.finishError = c.error;
        factory.setConfig(config);
        delegate = std::make_shared<FakeRecorderDelegate>();
        recorder->setDelegate(delegate);
        startAndClearLog();
        recorder->stopRecording();
        runMain();
        EXPECT_EQ(log.lines().back(), "Recording failed: " + c.text);
        ASSERT_EQ(reports().size(), 2u);
        EXPECT_EQ(reports()[1].description,
                  "Recording failed: Failed to finalize recording: " + c.text);
        EXPECT_EQ(reports()[1].errorKind, ScreenRecorderError::Kind::recordingFailed);
    }
    EXPECT_EQ(capture->cleanupCount(), 2);
}

// ---- sample routing ----

TEST_F(RecorderTest, StartTimeIsFixedEvenWhenTheWriterIsNotWriting) {
    startAndClearLog();
    writer()->setStatus(AssetWriterStatus::unknown);
    capture->deliverScreen(screenAt(10));
    EXPECT_EQ(log.lines(), Strings{"⚠️ AssetWriter not in writing state: 0"});
    writer()->setStatus(AssetWriterStatus::writing);
    capture->deliverScreen(screenAt(20));
    // The origin was taken by the dropped sample, so the timeline is never started.
    EXPECT_TRUE(writer()->sessionStarts().empty());
    EXPECT_EQ(videoInput()->appendedTimes(), Times{mediaTime(20)});
    writer()->setStatus(AssetWriterStatus::failed);
    capture->deliverAudio(audioAt(30));
    EXPECT_EQ(log.lines().back(), "⚠️ AssetWriter not in writing state: 3");
    EXPECT_TRUE(audioInput()->appended().empty());
}

TEST_F(RecorderTest, PerSampleLogsAreThinnedTo1_31_61) {
    startAndClearLog();
    for (int i = 1; i <= 61; ++i) capture->deliverScreen(screenAt(i));
    for (int i = 1; i <= 61; ++i) capture->deliverCamera(cameraAt(i));
    EXPECT_EQ(log.lines(), (Strings{"📺 Screen sample #1", "📺 Screen sample #31",
                                    "📺 Screen sample #61", "📷 Camera sample #1: 16x9",
                                    "📷 Camera sample #31: 16x9", "📷 Camera sample #61: 16x9"}));
}

TEST_F(RecorderTest, NoFrameBeforeTheFirstScreenImageAndForeignSamplesChangeNothing) {
    startAndClearLog();
    StubCaptureOutput foreign(MediaType::video);
    capture->deliver(screenAt(10), foreign);  // dropped, yet the first accepted sample
    capture->deliverScreen(imagelessAt(11));
    capture->deliverCamera(imagelessAt(12));  // camera #1: no image, not logged
    EXPECT_TRUE(videoInput()->appended().empty());
    EXPECT_TRUE(composer->plainCalls().empty());
    capture->deliverScreen(screenAt(13));
    capture->deliverCamera(cameraAt(14));  // camera #2, not logged
    EXPECT_EQ(videoInput()->appendedTimes(), Times{mediaTime(13)});
    EXPECT_TRUE(composer->composeCalls().empty());
    EXPECT_EQ(log.lines(), Strings{"📺 Screen sample #1"});
    EXPECT_EQ(writer()->sessionStarts(), Times{mediaTime(10)});
}

TEST_F(RecorderTest, AppendsThatCannotHappenAreDroppedOrLoggedAndTheRecordingGoesOn) {
    startAndClearLog();
    videoInput()->setReady(false);
    capture->deliverScreen(screenAt(10));
    EXPECT_TRUE(composer->plainCalls().empty());  // dropped before any composition
    videoInput()->setReady(true);
    composer->setReturnsNull(true);
    capture->deliverScreen(screenAt(20));
    EXPECT_EQ(videoInput()->appendAttempts(), 0u);
    composer->setReturnsNull(false);
    videoInput()->setAppendResult(false);
    capture->deliverScreen(screenAt(30));
    videoInput()->setAppendResult(true);
    capture->deliverScreen(screenAt(40));
    EXPECT_EQ(videoInput()->appendedTimes(), Times{mediaTime(40)});

    audioInput()->setReady(false);
    capture->deliverAudio(audioAt(1));
    audioInput()->setReady(true);
    audioInput()->setAppendResult(false);
    capture->deliverAudio(audioAt(2));
    writer()->setError(PlatformError{"AVFoundationErrorDomain", -11800, "Encoder stalled"});
    capture->deliverAudio(audioAt(3));
    EXPECT_EQ(log.lines(), (Strings{"📺 Screen sample #1", "Failed to append composed video sample",
                                    "⏳ Audio input not ready for more data",
                                    "❌ Failed to append audio sample - unknown error",
                                    "❌ Failed to append audio sample: Encoder stalled"}));
    audioInput()->setAppendResult(true);
    auto sample = audioAt(4);
    capture->deliverAudio(sample);
    ASSERT_EQ(audioInput()->appended().size(), 1u);
    EXPECT_EQ(audioInput()->appended()[0], sample);  // appended unchanged
}

}  // namespace
}  // namespace gb
