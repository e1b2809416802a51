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
using Report = FakeRecorderDelegate::Report;

const std::string kFolder = "/home/user/Documents/Glimmerbox Recordings";
const std::string kPath = kFolder + "/glimmerbox-2025-03-14_09-26-53.mov";
const std::string kSettings1080 =
    "Video settings: [\"AVVideoCodecKey\": avc1, \"AVVideoWidthKey\": 1920, "
    "\"AVVideoHeightKey\": 1080, \"AVVideoCompressionPropertiesKey\": [\"AverageBitRate\": "
    "2000000, \"ProfileLevel\": H264_Main_AutoLevel, \"H264EntropyMode\": CAVLC]]";
const Strings kStartLines = {
    "ScreenRecorder.startRecording() called", "Created directory: " + kFolder,
    "Created AVAssetWriter for: " + kPath,    kSettings1080,
    "AVAssetWriter started successfully",     "Recording started successfully"};

SampleBufferRef screenAt(int64_t t, ImageSize size = {32, 18}) {
    return makeVideoSample(mediaTime(t), size);
}
SampleBufferRef imagelessAt(int64_t t) {
    return makeVideoSample(mediaTime(t), std::nullopt);
}
SampleBufferRef cameraAt(int64_t t, ImageSize size = {16, 9}) {
    return makeVideoSample(mediaTime(t), size);
}
SampleBufferRef audioAt(int64_t t) {
    return makeAudioSample(mediaTime(t));
}

// A permission service whose two answers disagree: the check refuses, the list is empty.
class InconsistentPermissions final : public PermissionService {
public:
    bool checkAllPermissions(bool) override { return false; }
    std::vector<std::string> missingPermissions(bool) override { return {}; }
};

// A permission service that breaks its promise never to fail.
class ThrowingPermissions final : public PermissionService {
public:
    bool checkAllPermissions(bool) override { throw std::runtime_error("access service gone"); }
    std::vector<std::string> missingPermissions(bool) override { return {}; }
};

class RecorderTest : public ::testing::Test, protected FakeEngine {
protected:
    RecorderTest() : FakeEngine(&calls) { recorder = recorderWith({}); }

    // A recorder (replacing the services) that reports to `delegate`.
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
    // Runs the finish step (the main queue).
    void runMain() { dispatch.main.runPending(); }

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

// ---- construction and options ------------------------------------------------------------------

TEST_F(RecorderTest, IsTheCaptureServicesDelegateWithoutBeingOwnedByIt) {
    start();
    capture->deliverAudio(audioAt(1));
    EXPECT_EQ(audioInput()->appended().size(), 1u);  // delivery reached the recorder

    std::weak_ptr<ScreenRecorder> weak = recorder;
    recorder.reset();
    EXPECT_TRUE(weak.expired());
    EXPECT_NO_THROW(capture->deliverAudio(audioAt(2)));
}

// ---- a whole recording -------------------------------------------------------------------------

TEST_F(RecorderTest, WholeRecordingWithOverlay) {
    start();
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

    EXPECT_EQ(writer()->sessionStarts(), std::vector<MediaTime>{mediaTime(100)});
    EXPECT_EQ(audioInput()->appendedTimes(),
              (std::vector<MediaTime>{mediaTime(100), mediaTime(125)}));
    EXPECT_EQ(
        videoInput()->appendedTimes(),
        (std::vector<MediaTime>{mediaTime(110), mediaTime(120), mediaTime(130), mediaTime(140)}));
    ASSERT_EQ(composer->plainCalls().size(), 1u);
    const auto composed = composer->composeCalls();
    ASSERT_EQ(composed.size(), 3u);
    EXPECT_EQ(composed[0].screen, composed[1].screen);  // the image-less sample reused it
    EXPECT_EQ(composed[0].camera, composed[1].camera);  // camera image reused until a newer one
    EXPECT_NE(composed[2].camera, composed[1].camera);
    EXPECT_EQ(composed[2].time, mediaTime(140));
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
    const auto r = reports();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[1].kind, Report::Kind::didStop);
    EXPECT_EQ(r[1].outputURL, kPath);
    // Clean-up: capture reset, URL forgotten, samples ignored again.
    EXPECT_EQ(capture->cleanupCount(), 1);
    EXPECT_EQ(fileManager->currentOutputURL(), std::nullopt);
    EXPECT_EQ(videoInput()->appendsAfterFinish(), 0u);
    EXPECT_TRUE(files.fileContents(kPath).has_value());
}

TEST_F(RecorderTest, SecondRecordingStartsFromAFreshState) {
    startAndClearLog();
    capture->deliverScreen(screenAt(10));
    recorder->stopRecording();
    runMain();
    dates.setFormatted("2025-03-14_09-30-00");
    start();
    capture->deliverCamera(cameraAt(500));
    capture->deliverScreen(screenAt(510));
    EXPECT_EQ(writer()->sessionStarts(), std::vector<MediaTime>{mediaTime(500)});
    // Counters and images were reset: sample #1 again, and a composed first frame.
    EXPECT_EQ(log.count("📺 Screen sample #1"), 2u);
    EXPECT_EQ(log.count("📷 Camera sample #1: 16x9"), 1u);
    EXPECT_EQ(composer->composeCalls().size(), 1u);
    EXPECT_EQ(fileManager->currentOutputURL(), kFolder + "/glimmerbox-2025-03-14_09-30-00.mov");
}

TEST_F(RecorderTest, OverlayOffStartsNoCameraAndAsksNoCameraPermission) {
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
}

// ---- start failures ----------------------------------------------------------------------------

// A refused permission ends the start before anything is set up; the next start may succeed.
struct RefusalCase {
    bool microphone;
    bool camera;
    std::string userText;
};
class PermissionRefusalTest : public RecorderTest,
                              public ::testing::WithParamInterface<RefusalCase> {};

TEST_P(PermissionRefusalTest, EndsTheStartWithItsText) {
    access.setAnswer(MediaType::audio, GetParam().microphone);
    access.setAnswer(MediaType::video, GetParam().camera);
    start();
    expectOneFailure(GetParam().userText, ScreenRecorderError::Kind::permissionDenied);
    // Nothing logged beyond the start line, nothing set up, no clean-up; each asked twice.
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

TEST_F(RecorderTest, RefusalWithNothingMissingOnTheSecondQuery) {
    recorder = recorderWith(std::make_shared<InconsistentPermissions>());
    start();
    expectOneFailure("Permission denied:  access required",
                     ScreenRecorderError::Kind::permissionDenied);
}

TEST_F(RecorderTest, APermissionServiceThatThrowsEndsTheStartThroughTheCommonPath) {
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
void PrintTo(const CaptureErrorCase& c, std::ostream* os) {
    *os << c.logged;
}

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

TEST_F(RecorderTest, CameraIsSetUpOnlyWhenTheCaptureServiceHasTheOverlayOn) {
    capture->setCameraOverlayEnabled(false);  // the recorder's own flag stays on
    capture->setCameraSetupError(CaptureSessionError::cameraSetupFailed("never asked"));
    start();
    EXPECT_EQ(reports().at(0).kind, Report::Kind::didStart);
    EXPECT_EQ(capture->setupCameraCount(), 0);
    EXPECT_EQ(capture->cameraSessionFake().startCount(), 0);
}

TEST_F(RecorderTest, NoCameraFoundIsNotAFailureAndNoCameraSamplesArrive) {
    capture->setCameraAvailable(false);
    start();
    EXPECT_EQ(reports().at(0).kind, Report::Kind::didStart);
    EXPECT_EQ(capture->cameraOutput(), nullptr);
    EXPECT_FALSE(capture->deliverCamera(cameraAt(1)));
    capture->deliverScreen(screenAt(2));
    EXPECT_EQ(composer->plainCalls().size(), 1u);
}

// Whatever fails in the file manager, the user reads the same sentence.
struct FileErrorCase {
    std::string name;
    FakeWriterConfig writer;
    std::optional<PlatformError> makeWriterError;
    bool noDocumentsFolder;
    std::string logged;  // after "Recording setup failed: "
};
void PrintTo(const FileErrorCase& c, std::ostream* os) {
    *os << c.name;
}

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
    // Samples after the failed start are ignored.
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

TEST_F(RecorderTest, MissingDocumentsFolderEndsTheStartAndLeavesEarlierRecordingsAlone) {
    startAndClearLog();
    recorder->stopRecording();
    runMain();
    files.writeFile(kPath, "earlier recording");

    files.setDocumentsDirectory(std::nullopt);
    log.clear();
    start();
    EXPECT_EQ(log.lines(), (Strings{"ScreenRecorder.startRecording() called",
                                    "No Documents folder found for recordings",
                                    "Recording setup failed: urlCreationFailed"}));
    ASSERT_EQ(reports().size(), 3u);
    EXPECT_EQ(reports()[2].description, "Failed to create video writer");
    EXPECT_EQ(files.fileContents(kPath), "earlier recording");
    EXPECT_TRUE(files.removeCalls().empty());
    EXPECT_EQ(factory.writers().size(), 1u);
}

TEST_F(RecorderTest, RecordingsFolderThatCannotBeCreatedEndsTheStart) {
    files.writeFile("/home/user/Documents/notes.txt", "earlier work");
    files.setCreateDirectoryError(PlatformError{"NSCocoaErrorDomain", 640, "Disk full."});
    start();
    EXPECT_EQ(log.lines(),
              (Strings{"ScreenRecorder.startRecording() called",
                       "Failed to create directory: Error Domain=NSCocoaErrorDomain Code=640 "
                       "\"Disk full.\"",
                       "Failed to create AVAssetWriter: Error Domain=NSCocoaErrorDomain Code=4 "
                       "\"The folder \u201C" +
                           kFolder + "\u201D doesn\u2019t exist.\"",
                       "Recording setup failed: writerCreationFailed(\"The folder \u201C" +
                           kFolder + "\u201D doesn\u2019t exist.\")"}));
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
    recorder->stopRecording();
    EXPECT_EQ(log.lines().back(), "Stop recording called but not currently recording");
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

TEST_F(RecorderTest, CompletionRunsAfterTheOutcomeWasReported) {
    size_t reportsAtCompletion = 99;
    recorder->startRecording({}, [&] { reportsAtCompletion = delegate->count(); });
    dispatch.background.runPending();
    EXPECT_EQ(reportsAtCompletion, 1u);
}

// ---- starts that meet another recording ---------------------------------------------------------

TEST_F(RecorderTest, StartWhileRecordingIsIgnored) {
    startAndClearLog();
    start();
    EXPECT_EQ(log.lines(), Strings{"startRecording called but already recording"});
    EXPECT_EQ(reports().size(), 1u);
    EXPECT_EQ(factory.writers().size(), 1u);
}

TEST_F(RecorderTest, StartDuringTheFinishIsRefusedAndLeavesThatRecordingAlone) {
    FakeWriterConfig config;
    config.holdFinish = true;
    factory.setConfig(config);
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

    writer()->releaseFinish();
    runMain();
    ASSERT_EQ(reports().size(), 2u);
    EXPECT_EQ(reports()[1].kind, Report::Kind::didStop);
    EXPECT_EQ(reports()[1].outputURL, kPath);

    start();  // after the finish step a start goes through again
    EXPECT_EQ(reports().size(), 3u);
    EXPECT_EQ(reports()[2].kind, Report::Kind::didStart);
}

TEST_F(RecorderTest, StartWhileAnotherIsStartingIsRefused) {
    // The second start's body runs while the first one is in its set-up.
    capture->setOnSetupScreenCapture([&] {
        capture->setOnSetupScreenCapture({});
        recorder->startRecording();
        dispatch.background.runOne();
    });
    recorder->startRecording();
    dispatch.background.runOne();
    EXPECT_EQ(log.lines()[1],
              "startRecording called but a previous recording is still starting or finishing");
    ASSERT_EQ(reports().size(), 1u);
    EXPECT_EQ(reports()[0].kind, Report::Kind::didStart);
    EXPECT_EQ(factory.writers().size(), 1u);
}

// ---- stop --------------------------------------------------------------------------------------

TEST_F(RecorderTest, StopWhileIdleAndStopTwice) {
    recorder->stopRecording();
    EXPECT_EQ(log.lines(), Strings{"Stop recording called but not currently recording"});
    startAndClearLog();
    recorder->stopRecording();
    recorder->stopRecording();
    EXPECT_EQ(log.lines(), (Strings{"Stopping recording...", "Finishing writing to: " + kPath,
                                    "Stop recording called but not currently recording"}));
    EXPECT_EQ(writer()->finishCalls(), 1);
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

TEST_F(RecorderTest, StopDuringTheStartsSetUpDoesNothingAndTheStartGoesOn) {
    capture->setOnSetupScreenCapture([&] { recorder->stopRecording(); });
    start();
    EXPECT_EQ(log.lines()[1], "Stop recording called but not currently recording");
    EXPECT_EQ(log.lines().back(), "Recording started successfully");
    EXPECT_TRUE(recorder->isRecording());
    EXPECT_EQ(reports().at(0).kind, Report::Kind::didStart);
}

TEST_F(RecorderTest, StopDuringThePauseFinalisesAndTheStartStillReportsStarted) {
    dispatch.sleeperImpl.setOnSleep([&] { recorder->stopRecording(); });
    start();
    EXPECT_EQ(log.lines(),
              (Strings{"ScreenRecorder.startRecording() called", "Created directory: " + kFolder,
                       "Created AVAssetWriter for: " + kPath, kSettings1080,
                       "AVAssetWriter started successfully", "Stopping recording...",
                       "Finishing writing to: " + kPath, "Recording started successfully"}));
    runMain();
    const auto r = reports();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].kind, Report::Kind::didStart);
    EXPECT_EQ(r[1].kind, Report::Kind::didStop);
    EXPECT_EQ(capture->cleanupCount(), 1);
}

TEST_F(RecorderTest, StopThenCancelledPauseKeepsTheRecordingBeingFinalised) {
    // The application cancels the start's task and stops: the stop takes the recording over,
    // so the start's failure leaves the writer and the URL to the finish step.
    CancellationToken token;
    dispatch.sleeperImpl.setOnSleep([&] {
        token.cancel();
        recorder->stopRecording();
    });
    FakeWriterConfig config;
    config.holdFinish = true;
    factory.setConfig(config);
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
    FakeWriterConfig config;
    config.finishStatus = AssetWriterStatus::failed;
    config.finishError = PlatformError{"AVFoundationErrorDomain", -11807, "Disk full"};
    factory.setConfig(config);
    startAndClearLog();
    recorder->stopRecording();
    runMain();
    EXPECT_EQ(log.lines().back(), "Recording failed: Disk full");
    ASSERT_EQ(reports().size(), 2u);
    EXPECT_EQ(reports()[1].description,
              "Recording failed: Failed to finalize recording: Disk full");
    EXPECT_EQ(reports()[1].errorKind, ScreenRecorderError::Kind::recordingFailed);
    EXPECT_EQ(capture->cleanupCount(), 1);
}

TEST_F(RecorderTest, FinalisationFailureWithoutErrorSaysUnknownError) {
    FakeWriterConfig config;
    config.finishStatus = AssetWriterStatus::cancelled;
    factory.setConfig(config);
    startAndClearLog();
    recorder->stopRecording();
    runMain();
    EXPECT_EQ(log.lines().back(), "Recording failed: Unknown error");
    EXPECT_EQ(reports().at(1).description,
              "Recording failed: Failed to finalize recording: Unknown error");
}

TEST_F(RecorderTest, FinishCompletionFromAnotherThreadIsHandedToTheMainQueue) {
    FakeWriterConfig config;
    config.holdFinish = true;
    factory.setConfig(config);
    startAndClearLog();
    recorder->stopRecording();
    std::thread([w = writer()] { w->releaseFinish(); }).join();
    EXPECT_EQ(reports().size(), 1u);
    EXPECT_EQ(dispatch.main.pendingCount(), 1u);
    runMain();
    EXPECT_EQ(reports().at(1).kind, Report::Kind::didStop);
}

TEST_F(RecorderTest, RecorderReleasedBeforeTheWriterFinishedStillLogsButReportsNothing) {
    FakeWriterConfig config;
    config.holdFinish = true;
    factory.setConfig(config);
    startAndClearLog();
    recorder->stopRecording();
    auto w = writer();
    recorder.reset();
    w->releaseFinish();
    runMain();
    EXPECT_EQ(log.lines().back(), "Recording completed successfully");
    EXPECT_EQ(reports().size(), 1u);
    EXPECT_EQ(capture->cleanupCount(), 0);
    EXPECT_EQ(fileManager->currentOutputURL(), kPath);
}

// ---- sample routing ----------------------------------------------------------------------------

TEST_F(RecorderTest, SamplesOutsideARecordingAreIgnored) {
    capture->setupScreenCapture();  // outputs exist, but no recording
    capture->deliverScreen(screenAt(1));
    capture->deliverAudio(audioAt(1));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_TRUE(composer->plainCalls().empty());
}

TEST_F(RecorderTest, TimelineStartsAtTheFirstSampleOfAnyKind) {
    startAndClearLog();
    capture->deliverCamera(cameraAt(50));
    capture->deliverAudio(audioAt(60));
    capture->deliverScreen(screenAt(70));
    EXPECT_EQ(writer()->sessionStarts(), std::vector<MediaTime>{mediaTime(50)});
}

TEST_F(RecorderTest, StartTimeIsFixedEvenWhenTheWriterIsNotWriting) {
    startAndClearLog();
    writer()->setStatus(AssetWriterStatus::unknown);
    capture->deliverScreen(screenAt(10));
    EXPECT_EQ(log.lines(), Strings{"⚠️ AssetWriter not in writing state: 0"});
    writer()->setStatus(AssetWriterStatus::writing);
    capture->deliverScreen(screenAt(20));
    // The origin was taken by the dropped sample, so the timeline is never started.
    EXPECT_TRUE(writer()->sessionStarts().empty());
    EXPECT_EQ(videoInput()->appendedTimes(), std::vector<MediaTime>{mediaTime(20)});
    writer()->setStatus(AssetWriterStatus::failed);
    capture->deliverAudio(audioAt(30));
    EXPECT_EQ(log.lines().back(), "⚠️ AssetWriter not in writing state: 3");
    EXPECT_TRUE(audioInput()->appended().empty());
}

TEST_F(RecorderTest, NoFramesBeforeTheFirstScreenImage) {
    startAndClearLog();
    capture->deliverScreen(imagelessAt(10));
    capture->deliverScreen(imagelessAt(20));
    EXPECT_TRUE(videoInput()->appended().empty());
    EXPECT_TRUE(composer->plainCalls().empty());
    capture->deliverScreen(screenAt(30));
    EXPECT_EQ(videoInput()->appendedTimes(), std::vector<MediaTime>{mediaTime(30)});
    EXPECT_EQ(writer()->sessionStarts(), std::vector<MediaTime>{mediaTime(10)});
}

TEST_F(RecorderTest, ImagelessScreenSampleReappendsThePreviousImageWithItsOwnTime) {
    recorder->setCameraOverlayEnabled(false);
    startAndClearLog();
    auto first = screenAt(10);
    capture->deliverScreen(first);
    capture->deliverScreen(imagelessAt(20));
    const auto plain = composer->plainCalls();
    ASSERT_EQ(plain.size(), 2u);
    EXPECT_EQ(plain[1].screen, first->imageBuffer());
    EXPECT_EQ(plain[1].time, mediaTime(20));
    EXPECT_EQ(videoInput()->appendedTimes(),
              (std::vector<MediaTime>{mediaTime(10), mediaTime(20)}));
}

TEST_F(RecorderTest, OverlayOffNeverComposesButKeepsCameraImages) {
    recorder->setCameraOverlayEnabled(false);
    startAndClearLog();
    capture->deliverCamera(cameraAt(5, {1280, 720}));
    capture->deliverScreen(screenAt(10));
    EXPECT_TRUE(composer->composeCalls().empty());
    EXPECT_EQ(composer->plainCalls().size(), 1u);
    EXPECT_EQ(log.lines().front(), "📷 Camera sample #1: 1280x720");
    // Switched on mid-recording: the stored camera image is used at once.
    recorder->setCameraOverlayEnabled(true);
    capture->deliverScreen(screenAt(20));
    EXPECT_EQ(composer->composeCalls().size(), 1u);
}

TEST_F(RecorderTest, PerSampleLogsAreThinnedTo1_31_61) {
    startAndClearLog();
    for (int i = 1; i <= 61; ++i) capture->deliverScreen(screenAt(i));
    for (int i = 1; i <= 61; ++i) capture->deliverCamera(cameraAt(i));
    EXPECT_EQ(log.lines(), (Strings{"📺 Screen sample #1", "📺 Screen sample #31",
                                    "📺 Screen sample #61", "📷 Camera sample #1: 16x9",
                                    "📷 Camera sample #31: 16x9", "📷 Camera sample #61: 16x9"}));
}

TEST_F(RecorderTest, CameraSampleWithoutImageCountsButChangesNothing) {
    startAndClearLog();
    capture->deliverCamera(imagelessAt(1));  // #1, not logged, no image
    capture->deliverScreen(screenAt(2));
    capture->deliverCamera(cameraAt(3));  // #2, not logged
    EXPECT_EQ(log.lines(), Strings{"📺 Screen sample #1"});
    EXPECT_TRUE(composer->composeCalls().empty());
}

TEST_F(RecorderTest, VideoFramesTheWriterCannotTakeAreDroppedSilently) {
    startAndClearLog();
    videoInput()->setReady(false);
    capture->deliverScreen(screenAt(10));
    EXPECT_TRUE(composer->plainCalls().empty());  // dropped before any composition
    videoInput()->setReady(true);
    composer->setReturnsNull(true);
    capture->deliverScreen(screenAt(20));
    EXPECT_EQ(composer->plainCalls().size(), 1u);
    EXPECT_EQ(videoInput()->appendAttempts(), 0u);
    EXPECT_EQ(log.lines(), Strings{"📺 Screen sample #1"});
}

TEST_F(RecorderTest, FailedVideoAppendIsLoggedAndTheRecordingGoesOn) {
    startAndClearLog();
    videoInput()->setAppendResult(false);
    capture->deliverScreen(screenAt(10));
    videoInput()->setAppendResult(true);
    capture->deliverScreen(screenAt(20));
    EXPECT_EQ(log.lines(),
              (Strings{"📺 Screen sample #1", "Failed to append composed video sample"}));
    EXPECT_EQ(videoInput()->appendedTimes(), std::vector<MediaTime>{mediaTime(20)});
}

TEST_F(RecorderTest, AudioThatCannotBeAppended) {
    startAndClearLog();
    audioInput()->setReady(false);
    capture->deliverAudio(audioAt(1));
    audioInput()->setReady(true);
    audioInput()->setAppendResult(false);
    capture->deliverAudio(audioAt(2));
    writer()->setError(PlatformError{"AVFoundationErrorDomain", -11800, "Encoder stalled"});
    capture->deliverAudio(audioAt(3));
    EXPECT_EQ(log.lines(), (Strings{"⏳ Audio input not ready for more data",
                                    "❌ Failed to append audio sample - unknown error",
                                    "❌ Failed to append audio sample: Encoder stalled"}));
    audioInput()->setAppendResult(true);
    auto sample = audioAt(4);
    capture->deliverAudio(sample);
    ASSERT_EQ(audioInput()->appended().size(), 1u);
    EXPECT_EQ(audioInput()->appended()[0], sample);  // appended unchanged
}

TEST_F(RecorderTest, SampleFromAForeignOutputIsDropped) {
    startAndClearLog();
    StubCaptureOutput foreign(MediaType::video);
    capture->deliver(screenAt(10), foreign);
    EXPECT_TRUE(composer->plainCalls().empty());
    EXPECT_TRUE(audioInput()->appended().empty());
    EXPECT_TRUE(log.lines().empty());
    // It still was the first accepted sample.
    EXPECT_EQ(writer()->sessionStarts(), std::vector<MediaTime>{mediaTime(10)});
}

}  // namespace
}  // namespace gb
