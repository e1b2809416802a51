#include "capture/capture_session_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "fakes/fake_capture_platform.h"
#include "fakes/fake_dispatch.h"
#include "fakes/fake_display.h"
#include "fakes/log_capture.h"
#include "recording/errors.h"

namespace gb {
namespace {

using fakes::cameraInfo;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Kind = CaptureSessionError::Kind;
using Strings = std::vector<std::string>;

using Delivery = std::tuple<CaptureService*, SampleBufferRef, CaptureOutput*>;

class RecordingDelegate final : public CaptureSessionManagerDelegate {
public:
    void captureSessionManager(CaptureService& manager, const SampleBufferRef& sample,
                               CaptureOutput& output) override {
        deliveries.push_back({&manager, sample, &output});
    }
    std::vector<Delivery> deliveries;
};

SampleBufferRef videoSample() {
    return SampleBuffer::video(PixelBuffer::allocate(2, 2), {});
}

class CaptureSessionManagerTest : public ::testing::Test {
protected:
    CaptureSessionManagerTest() {
        factory.setCameras({usbCamera});
        manager = std::make_shared<CaptureSessionManager>(factory, display, dispatch);
    }
    fakes::FakeCaptureSession& screenSession() { return *factory.sessions().at(0); }
    fakes::FakeCaptureSession& cameraSession() { return *factory.sessions().at(1); }
    fakes::ManualQueue& recordingQueue() { return *dispatch.serialQueues().at(0); }
    // What the manager holds: screen input, microphone input, camera input, and the outputs.
    std::vector<bool> stored() const {
        return {manager->screenInput() != nullptr, manager->micInput() != nullptr,
                manager->videoOutput() != nullptr, manager->audioOutput() != nullptr,
                manager->cameraInput() != nullptr, manager->cameraOutput() != nullptr};
    }
    // Runs the call and returns the CaptureSessionError it threw.
    static CaptureSessionError errorFrom(const std::function<void()>& call) {
        try {
            call();
        } catch (const CaptureSessionError& e) {
            return e;
        }
        ADD_FAILURE() << "no CaptureSessionError thrown";
        return CaptureSessionError::noDisplay();
    }
    // The camera set-up's lines after the device listing and the choice.
    Strings linesFromSelection() const {
        const auto lines = log.lines();
        auto from = std::find_if(lines.begin(), lines.end(),
                                 [](const auto& l) { return l.starts_with("📷 Selected camera"); });
        return {from, lines.end()};
    }
    fakes::LogCapture log;
    fakes::FakeCaptureFactory factory;
    fakes::FakeDisplayProvider display;
    fakes::FakeDispatch dispatch;
    std::shared_ptr<fakes::FakeCaptureDevice> usbCamera =
        std::make_shared<fakes::FakeCaptureDevice>(
            cameraInfo("USB Camera", "usb-1", {{1920, 1080}, {1280, 720}}));
    std::shared_ptr<CaptureSessionManager> manager;
};

const std::vector<bool> kNothing(6, false);

TEST_F(CaptureSessionManagerTest, ScreenSetupAttachesEverythingInOneTransaction) {
    display.setSize(2560, 1440, /*displayID=*/7);
    manager->setupScreenCapture();
    EXPECT_THAT(screenSession().journal(),
                ElementsAre("begin", "canAddInput video", "addInput video", "canAddInput audio",
                            "addInput audio", "canAddOutput video", "addOutput video",
                            "canAddOutput audio", "addOutput audio", "commit"));
    EXPECT_EQ(screenSession().changesOutsideTransaction(), 0);
    EXPECT_EQ(screenSession().outputsAddedWithoutDelegate(), 0);
    EXPECT_THAT(log.lines(), ElementsAre("✅ Screen capture session configured successfully"));
    EXPECT_EQ(factory.screenInputs().at(0)->displayID(), 7u);
    EXPECT_EQ(factory.screenInputs()[0]->minFrameDuration(), MediaTime::make(1, 30));
    EXPECT_EQ(factory.deviceInputs().at(0)->device(), factory.microphone());
    EXPECT_THAT(screenSession().inputs(), ElementsAre(manager->screenInput(), manager->micInput()));
    EXPECT_THAT(screenSession().outputs(),
                ElementsAre(manager->videoOutput(), manager->audioOutput()));
    EXPECT_EQ(factory.videoOutputs().at(0)->videoSettings()->pixelFormat, 1111970369u);
    EXPECT_THAT(cameraSession().journal(), IsEmpty());
}

// Each failure gives its error; what was attached (and stored, in the order screen input,
// microphone input, video output, audio output) stays until cleanup().
enum class Fault { noScreen, noAccess, noMic, micFails, screenIn, micIn, videoOut, audioOut };

struct ScreenFailure {
    Fault fault;
    Kind kind;
    std::string description;
    size_t inputsAttached, outputsAttached;
    int stored;
};

class ScreenSetupFailureTest : public CaptureSessionManagerTest,
                               public ::testing::WithParamInterface<ScreenFailure> {};
TEST_P(ScreenSetupFailureTest, FailsWithItsErrorAndKeepsWhatWasAttached) {
    const ScreenFailure& c = GetParam();
    if (c.fault == Fault::noScreen) display.setScreen({});
    if (c.fault == Fault::noAccess) factory.setScreenCaptureAllowed(false);
    if (c.fault == Fault::noMic) factory.setMicrophone(nullptr);
    if (c.fault == Fault::micFails) {
        factory.setDeviceInputFailure(MediaType::audio,
                                      PlatformError{"CaptureErrorDomain", -11814, "Cannot Record"});
    }
    screenSession().setSwitches({.acceptVideoInput = c.fault != Fault::screenIn,
                                 .acceptAudioInput = c.fault != Fault::micIn,
                                 .acceptVideoOutput = c.fault != Fault::videoOut,
                                 .acceptAudioOutput = c.fault != Fault::audioOut});
    const CaptureSessionError error = errorFrom([&] { manager->setupScreenCapture(); });
    EXPECT_EQ(error.kind(), c.kind);
    EXPECT_EQ(error.errorDescription(), c.description);
    EXPECT_EQ(screenSession().beginCount(), 1);  // one transaction, committed on failure too
    EXPECT_EQ(screenSession().journal().back(), "commit");
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(screenSession().inputs().size(), c.inputsAttached);
    EXPECT_EQ(screenSession().outputs().size(), c.outputsAttached);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(stored()[i], i < c.stored) << i;
    manager->cleanup();
    EXPECT_THAT(screenSession().inputs(), IsEmpty());
    EXPECT_THAT(screenSession().outputs(), IsEmpty());
    EXPECT_EQ(stored(), kNothing);
}

using SF = ScreenFailure;

INSTANTIATE_TEST_SUITE_P(
    Table, ScreenSetupFailureTest,
    ::testing::Values(
        SF{Fault::noScreen, Kind::noDisplay, "No display found for screen recording", 0, 0, 0},
        SF{Fault::noAccess, Kind::screenCaptureUnavailable,
           "Screen capture is unavailable. Please grant screen recording permission.", 0, 0, 0},
        SF{Fault::screenIn, Kind::cannotAddScreenInput,
           "Cannot add screen input to capture session", 0, 0, 1},
        SF{Fault::noMic, Kind::microphoneUnavailable, "No microphone found", 1, 0, 1},
        SF{Fault::micFails, Kind::microphoneSetupFailed, "Microphone setup failed: Cannot Record",
           1, 0, 1},
        SF{Fault::micIn, Kind::microphoneSetupFailed,
           "Microphone setup failed: Cannot add microphone input to capture session", 1, 0, 2},
        SF{Fault::videoOut, Kind::cannotAddVideoOutput,
           "Cannot add video output to capture session", 2, 0, 3},
        SF{Fault::audioOut, Kind::cannotAddAudioOutput,
           "Cannot add audio output to capture session", 2, 1, 4}));
TEST_F(CaptureSessionManagerTest, CameraSetupLogsEveryStepAndAttachesTheCamera) {
    manager->setupCamera();
    // The device listing and the choice in between are the camera manager's (tested there).
    EXPECT_EQ(log.lines().front(), "📷 Camera overlay enabled - setting up camera");
    EXPECT_EQ(log.lines()[1], "🔍 Available camera devices:");
    EXPECT_EQ(linesFromSelection(),
              (Strings{"📷 Selected camera: USB Camera - ID: usb-1", "📷 Camera validation: ✅ Valid",
                       "🔧 Configuring optimal camera format for medium...",
                       "✅ Found preferred format: 1280x720", "🎯 Setting camera to format: 1280x720",
                       "✅ Camera format configured successfully",
                       "✅ Camera input added successfully", "✅ Camera output added successfully",
                       "📷 Camera setup complete - delegate set to self on queue: "
                       "glimmerbox.recording"}));
    EXPECT_THAT(cameraSession().journal(),
                ElementsAre("begin", "canAddInput video", "addInput video", "canAddOutput video",
                            "addOutput video", "commit"));
    EXPECT_EQ(cameraSession().outputsAddedWithoutDelegate(), 0);
    EXPECT_THAT(usbCamera->activeFormatChanges(), ElementsAre(1));
    EXPECT_EQ(factory.deviceInputs().back()->device(), usbCamera);
    EXPECT_THAT(cameraSession().inputs(), ElementsAre(manager->cameraInput()));
    EXPECT_THAT(cameraSession().outputs(), ElementsAre(manager->cameraOutput()));
    EXPECT_THAT(screenSession().journal(), IsEmpty());
}

TEST_F(CaptureSessionManagerTest, OverlayOffDoesNothingAndNoCameraIsNotAFailure) {
    manager->setCameraOverlayEnabled(false);
    manager->setupCamera();
    EXPECT_THAT(cameraSession().journal(), IsEmpty());  // no transaction
    EXPECT_THAT(log.lines(), IsEmpty());
    manager->setCameraOverlayEnabled(true);
    factory.setCameras({});
    EXPECT_NO_THROW(manager->setupCamera());
    EXPECT_THAT(
        log.lines(),
        ElementsAre("📷 Camera overlay enabled - setting up camera", "🔍 Available camera devices:",
                    "🎯 Selecting best camera from 0 available devices...",
                    "📊 Camera categorization:", "   Built-in cameras: 0", "   External cameras: 0",
                    "   Virtual cameras: 0", "❌ No suitable camera found",
                    "❌ No camera available for overlay"));
    EXPECT_THAT(cameraSession().journal(), ElementsAre("begin", "commit"));
    EXPECT_EQ(stored(), kNothing);
}

// Chosen while usable, suspended by the time it is checked, and its format cannot be set: both
// are logged and the camera is attached all the same.
TEST_F(CaptureSessionManagerTest, SuspendedCameraAndFailedFormatAreLoggedAndSetupGoesOn) {
    usbCamera->setInfoAfterReads(
        1, cameraInfo("USB Camera", "usb-1", {{1920, 1080}, {1280, 720}}, true, true));
    usbCamera->setLockFailure(PlatformError{"CaptureErrorDomain", -11852, "Cannot use USB Camera"});
    EXPECT_NO_THROW(manager->setupCamera());
    const Strings lines = linesFromSelection();
    ASSERT_GE(lines.size(), 8u);
    EXPECT_EQ(
        Strings(lines.begin() + 1, lines.begin() + 8),
        (Strings{"📷 Camera validation: ❌ Invalid", "⚠️ Camera warning: Camera is suspended",
                 "🔧 Configuring optimal camera format for medium...",
                 "✅ Found preferred format: 1280x720", "🎯 Setting camera to format: 1280x720",
                 "⚠️ Camera format configuration failed: Error Domain=CaptureErrorDomain "
                 "Code=-11852 \"Cannot use USB Camera\"",
                 "✅ Camera input added successfully"}));
    EXPECT_THAT(usbCamera->activeFormatChanges(), IsEmpty());
    EXPECT_THAT(cameraSession().inputs(), ElementsAre(manager->cameraInput()));
    EXPECT_THAT(cameraSession().outputs(), ElementsAre(manager->cameraOutput()));
}

// Attach failures become cameraSetupFailed; what was attached stays until cleanup().
TEST_F(CaptureSessionManagerTest, CameraAttachFailuresBecomeCameraSetupFailed) {
    const struct {
        int failAt;  // 0: the input is not made, 1: the input is refused, 2: the output is refused
        std::string payload;
    } cases[] = {{0, "Device in use"},
                 {1, "Cannot add camera input to capture session"},
                 {2, "Cannot add camera output to capture session"}};
    const PlatformError inUse{"CaptureErrorDomain", -11814, "Device in use"};
    for (const auto& c : cases) {
        factory.setDeviceInputFailure(MediaType::video,
                                      c.failAt == 0 ? std::optional(inUse) : std::nullopt);
        cameraSession().setSwitches(
            {.acceptVideoInput = c.failAt != 1, .acceptVideoOutput = c.failAt != 2});
        const CaptureSessionError error = errorFrom([&] { manager->setupCamera(); });
        EXPECT_EQ(error.kind(), Kind::cameraSetupFailed);
        EXPECT_EQ(error.payload(), c.payload);
        EXPECT_EQ(cameraSession().journal().back(), "commit");
        EXPECT_EQ(cameraSession().inputs().size(), c.failAt == 2 ? 1u : 0u);
        EXPECT_THAT(cameraSession().outputs(), IsEmpty());
        EXPECT_EQ(manager->cameraInput() != nullptr, c.failAt > 0);
        EXPECT_EQ(manager->cameraOutput() != nullptr, c.failAt > 1);
        manager->cleanup();
        EXPECT_THAT(cameraSession().inputs(), IsEmpty());
        EXPECT_EQ(stored(), kNothing);
    }
}

TEST_F(CaptureSessionManagerTest, CleanupStopsRemovesInSessionOrderAndForgets) {
    manager->setupScreenCapture();
    manager->setupCamera();
    screenSession().startRunning();
    cameraSession().startRunning();
    screenSession().clearJournal();
    cameraSession().clearJournal();
    manager->cleanup();
    EXPECT_THAT(screenSession().journal(),
                ElementsAre("stop", "removeInput video", "removeInput audio", "removeOutput video",
                            "removeOutput audio"));
    EXPECT_THAT(cameraSession().journal(),
                ElementsAre("stop", "removeInput video", "removeOutput video"));
    EXPECT_FALSE(screenSession().isRunning());
    EXPECT_EQ(stored(), kNothing);
    // With the overlay off the camera session is not stopped.
    manager->setupScreenCapture();
    manager->setupCamera();
    cameraSession().startRunning();
    manager->setCameraOverlayEnabled(false);
    cameraSession().clearJournal();
    manager->cleanup();
    EXPECT_THAT(cameraSession().journal(), ElementsAre("removeInput video", "removeOutput video"));
    EXPECT_TRUE(cameraSession().isRunning());
}

TEST_F(CaptureSessionManagerTest, EverySampleReachesTheDelegateOnTheRecordingQueueInOrder) {
    auto delegate = std::make_shared<RecordingDelegate>();
    manager->setDelegate(delegate);
    manager->setupScreenCapture();
    manager->setupCamera();
    EXPECT_EQ(recordingQueue().label(), "glimmerbox.recording");
    EXPECT_THAT(dispatch.serialQueueQualities(), ElementsAre(QualityOfService::userInitiated));
    const SampleBufferRef samples[] = {videoSample(), videoSample(),
                                       SampleBuffer::audio(std::make_shared<AudioBuffer>(), {})};
    factory.videoOutputs()[0]->deliver(samples[0]);
    factory.videoOutputs()[1]->deliver(samples[1]);
    factory.audioOutputs()[0]->deliver(samples[2]);
    EXPECT_TRUE(delegate->deliveries.empty());  // nothing outside the queue
    EXPECT_EQ(recordingQueue().runPending(), 3);
    CaptureOutput* outputs[] = {manager->videoOutput().get(), manager->cameraOutput().get(),
                                manager->audioOutput().get()};
    // The very samples, not copies, each through its output.
    EXPECT_EQ(delegate->deliveries,
              (std::vector<Delivery>{{manager.get(), samples[0], outputs[0]},
                                     {manager.get(), samples[1], outputs[1]},
                                     {manager.get(), samples[2], outputs[2]}}));
    // After the manager went: dropped silently (it is held weakly).
    factory.videoOutputs()[0]->deliver(videoSample());
    manager.reset();
    EXPECT_EQ(recordingQueue().runPending(), 1);
    EXPECT_EQ(delegate->deliveries.size(), 3u);
}

}  // namespace
}  // namespace gb
