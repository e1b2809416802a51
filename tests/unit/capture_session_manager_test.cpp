#include "capture/capture_session_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fakes/fake_capture_platform.h"
#include "fakes/fake_dispatch.h"
#include "fakes/fake_display.h"
#include "fakes/log_capture.h"
#include "recording/errors.h"

namespace gb {
namespace {

using fakes::cameraInfo;
using fakes::FakeCaptureDevice;
using fakes::FakeCaptureFactory;
using fakes::FakeCaptureSession;
using fakes::FakeDispatch;
using fakes::FakeDisplayProvider;
using fakes::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using Kind = CaptureSessionError::Kind;

struct Delivery {
    CaptureService* manager;
    SampleBufferRef sample;
    CaptureOutput* output;
};

class RecordingDelegate final : public CaptureSessionManagerDelegate {
public:
    void captureSessionManager(CaptureService& manager, const SampleBufferRef& sample,
                               CaptureOutput& output) override {
        deliveries.push_back({&manager, sample, &output});
    }
    std::vector<Delivery> deliveries;
};

SampleBufferRef videoSample(int64_t value) {
    return SampleBuffer::video(PixelBuffer::allocate(2, 2),
                               {MediaTime::make(1, 30), MediaTime::make(value, 30), {}});
}

class CaptureSessionManagerTest : public ::testing::Test {
protected:
    CaptureSessionManagerTest() {
        factory.setCameras({usbCamera});
        manager = std::make_shared<CaptureSessionManager>(factory, display, dispatch);
    }

    FakeCaptureSession& screenSession() { return *factory.sessions().at(0); }
    FakeCaptureSession& cameraSession() { return *factory.sessions().at(1); }
    fakes::ManualQueue& recordingQueue() { return *dispatch.serialQueues().at(0); }

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

    LogCapture log;
    FakeCaptureFactory factory;
    FakeDisplayProvider display;
    FakeDispatch dispatch;
    std::shared_ptr<FakeCaptureDevice> usbCamera = std::make_shared<FakeCaptureDevice>(
        cameraInfo("USB Camera", "usb-1", {{1920, 1080}, {1280, 720}}));
    std::shared_ptr<CaptureSessionManager> manager;
};

// ---- screen set-up ---------------------------------------------------------------------------

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

    ASSERT_EQ(factory.screenInputs().size(), 1u);
    EXPECT_EQ(factory.screenInputs()[0]->displayID(), 7u);
    EXPECT_EQ(factory.screenInputs()[0]->minFrameDuration(), MediaTime::make(1, 30));
    EXPECT_EQ(factory.deviceInputs().at(0)->device(), factory.microphone());
    EXPECT_THAT(screenSession().inputs(), ElementsAre(manager->screenInput(), manager->micInput()));
    EXPECT_THAT(screenSession().outputs(),
                ElementsAre(manager->videoOutput(), manager->audioOutput()));
    EXPECT_EQ(factory.videoOutputs().at(0)->videoSettings()->pixelFormat, 1111970369u);
    EXPECT_THAT(cameraSession().journal(), IsEmpty());
}

// Each failure of the screen set-up gives its error; what was attached (and stored, in the order
// screen input, microphone input, video output, audio output) stays until cleanup().
enum class Fault {
    noScreen,
    noScreenPermission,
    noMicrophone,
    microphoneInputFails,
    refuseScreenInput,
    refuseMicrophoneInput,
    refuseVideoOutput,
    refuseAudioOutput
};
struct ScreenFailure {
    const char* name;
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
    if (c.fault == Fault::noScreenPermission) factory.setScreenCaptureAllowed(false);
    if (c.fault == Fault::noMicrophone) factory.setMicrophone(nullptr);
    if (c.fault == Fault::microphoneInputFails) {
        factory.setDeviceInputFailure(MediaType::audio,
                                      PlatformError{"CaptureErrorDomain", -11814, "Cannot Record"});
    }
    screenSession().setSwitches({.acceptVideoInput = c.fault != Fault::refuseScreenInput,
                                 .acceptAudioInput = c.fault != Fault::refuseMicrophoneInput,
                                 .acceptVideoOutput = c.fault != Fault::refuseVideoOutput,
                                 .acceptAudioOutput = c.fault != Fault::refuseAudioOutput});

    const CaptureSessionError error = errorFrom([&] { manager->setupScreenCapture(); });
    EXPECT_EQ(error.kind(), c.kind);
    EXPECT_EQ(error.errorDescription(), c.description);
    // Committed exactly once, on the failure path too.
    EXPECT_EQ(screenSession().beginCount(), 1);
    EXPECT_EQ(screenSession().commitCount(), 1);
    EXPECT_EQ(screenSession().journal().back(), "commit");
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(screenSession().inputs().size(), c.inputsAttached);
    EXPECT_EQ(screenSession().outputs().size(), c.outputsAttached);
    const std::array<bool, 4> stored{
        manager->screenInput() != nullptr, manager->micInput() != nullptr,
        manager->videoOutput() != nullptr, manager->audioOutput() != nullptr};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(stored[i], i < c.stored) << i;

    manager->cleanup();
    EXPECT_THAT(screenSession().inputs(), IsEmpty());
    EXPECT_THAT(screenSession().outputs(), IsEmpty());
    EXPECT_EQ(manager->screenInput(), nullptr);
    EXPECT_EQ(manager->micInput(), nullptr);
    EXPECT_EQ(manager->videoOutput(), nullptr);
    EXPECT_EQ(manager->audioOutput(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ScreenSetupFailureTest,
    ::testing::Values(
        ScreenFailure{"NoMainScreen", Fault::noScreen, Kind::noDisplay,
                      "No display found for screen recording", 0, 0, 0},
        ScreenFailure{"NoScreenRecordingPermission", Fault::noScreenPermission,
                      Kind::screenCaptureUnavailable,
                      "Screen capture is unavailable. Please grant screen recording permission.", 0,
                      0, 0},
        ScreenFailure{"SessionRefusesScreenInput", Fault::refuseScreenInput,
                      Kind::cannotAddScreenInput, "Cannot add screen input to capture session", 0,
                      0, 1},
        ScreenFailure{"NoMicrophone", Fault::noMicrophone, Kind::microphoneUnavailable,
                      "No microphone found", 1, 0, 1},
        ScreenFailure{"MicrophoneInputNotCreated", Fault::microphoneInputFails,
                      Kind::microphoneSetupFailed, "Microphone setup failed: Cannot Record", 1, 0,
                      1},
        ScreenFailure{"SessionRefusesMicrophoneInput", Fault::refuseMicrophoneInput,
                      Kind::microphoneSetupFailed,
                      "Microphone setup failed: Cannot add microphone input to capture session", 1,
                      0, 2},
        ScreenFailure{"SessionRefusesVideoOutput", Fault::refuseVideoOutput,
                      Kind::cannotAddVideoOutput, "Cannot add video output to capture session", 2,
                      0, 3},
        ScreenFailure{"SessionRefusesAudioOutput", Fault::refuseAudioOutput,
                      Kind::cannotAddAudioOutput, "Cannot add audio output to capture session", 2,
                      1, 4}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(CaptureSessionManagerTest, ScreenWithoutAnUnsignedScreenNumberIsNoDisplay) {
    const auto screenWith = [](std::map<std::string, DeviceDescriptionValue> description) {
        MainScreen screen;
        screen.widthPoints = 1920;
        screen.heightPoints = 1080;
        screen.deviceDescription = std::move(description);
        return screen;
    };
    for (const MainScreen& screen :
         {screenWith({}), screenWith({{"NSDeviceSize", std::string("1920x1080")}}),
          screenWith({{kScreenNumberKey, int64_t{1}}}), screenWith({{kScreenNumberKey, 1.0}}),
          screenWith({{kScreenNumberKey, std::string("1")}})}) {
        display.setScreen(screen);
        EXPECT_EQ(errorFrom([&] { manager->setupScreenCapture(); }).kind(), Kind::noDisplay);
        EXPECT_THAT(screenSession().inputs(), IsEmpty());
    }
    EXPECT_THAT(factory.screenInputs(), IsEmpty());
}

// ---- camera set-up ---------------------------------------------------------------------------

TEST_F(CaptureSessionManagerTest, CameraSetupLogsEveryStepAndAttachesTheCamera) {
    manager->setupCamera();
    // The device listing and the choice in between are the camera manager's (tested there).
    const auto lines = log.lines();
    ASSERT_EQ(lines.size(), 24u);
    EXPECT_EQ(lines[0], "📷 Camera overlay enabled - setting up camera");
    EXPECT_EQ(lines[1], "🔍 Available camera devices:");
    EXPECT_EQ(
        std::vector<std::string>(lines.begin() + 14, lines.end()),
        (std::vector<std::string>{
            "✅ Selected external camera: USB Camera", "📷 Selected camera: USB Camera - ID: usb-1",
            "📷 Camera validation: ✅ Valid", "🔧 Configuring optimal camera format for medium...",
            "✅ Found preferred format: 1280x720", "🎯 Setting camera to format: 1280x720",
            "✅ Camera format configured successfully", "✅ Camera input added successfully",
            "✅ Camera output added successfully",
            "📷 Camera setup complete - delegate set to self on queue: "
            "glimmerbox.recording"}));
    EXPECT_THAT(cameraSession().journal(),
                ElementsAre("begin", "canAddInput video", "addInput video", "canAddOutput video",
                            "addOutput video", "commit"));
    EXPECT_EQ(cameraSession().outputsAddedWithoutDelegate(), 0);
    EXPECT_THAT(usbCamera->activeFormatChanges(), ElementsAre(1));
    ASSERT_NE(manager->cameraInput(), nullptr);
    EXPECT_EQ(factory.deviceInputs().back()->device(), usbCamera);
    EXPECT_THAT(cameraSession().inputs(), ElementsAre(manager->cameraInput()));
    EXPECT_THAT(cameraSession().outputs(), ElementsAre(manager->cameraOutput()));
    EXPECT_THAT(screenSession().journal(), IsEmpty());
}

TEST_F(CaptureSessionManagerTest, OverlayOffOpensNoTransactionAndLogsNothing) {
    manager->setCameraOverlayEnabled(false);
    manager->setupCamera();
    EXPECT_THAT(cameraSession().journal(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(usbCamera->infoReads(), 0);
}

TEST_F(CaptureSessionManagerTest, NoCameraIsNotAFailure) {
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
    EXPECT_EQ(manager->cameraInput(), nullptr);
    EXPECT_EQ(manager->cameraOutput(), nullptr);
}

TEST_F(CaptureSessionManagerTest, SuspendedCameraIsLoggedAndAttachedAllTheSame) {
    // Chosen while usable, suspended by the time it is checked.
    usbCamera->setInfoAfterReads(
        1, cameraInfo("USB Camera", "usb-1", {{1920, 1080}, {1280, 720}}, true, true));
    manager->setupCamera();
    const auto lines = log.lines();
    const auto selected =
        std::find(lines.begin(), lines.end(), "📷 Selected camera: USB Camera - ID: usb-1");
    ASSERT_NE(selected, lines.end());
    EXPECT_EQ(*(selected + 1), "📷 Camera validation: ❌ Invalid");
    EXPECT_EQ(*(selected + 2), "⚠️ Camera warning: Camera is suspended");
    EXPECT_EQ(*(selected + 3), "🔧 Configuring optimal camera format for medium...");
    EXPECT_THAT(cameraSession().inputs(), ElementsAre(manager->cameraInput()));
    EXPECT_THAT(cameraSession().outputs(), ElementsAre(manager->cameraOutput()));
}

TEST_F(CaptureSessionManagerTest, FailedFormatConfigurationIsLoggedAndSetupGoesOn) {
    usbCamera->setLockFailure(PlatformError{"CaptureErrorDomain", -11852, "Cannot use USB Camera"});
    EXPECT_NO_THROW(manager->setupCamera());
    const auto lines = log.lines();
    const auto failed =
        std::find(lines.begin(), lines.end(),
                  "⚠️ Camera format configuration failed: Error Domain=CaptureErrorDomain "
                  "Code=-11852 \"Cannot use USB Camera\"");
    ASSERT_NE(failed, lines.end());
    EXPECT_EQ(*(failed - 1), "🎯 Setting camera to format: 1280x720");
    EXPECT_EQ(*(failed + 1), "✅ Camera input added successfully");
    EXPECT_THAT(usbCamera->activeFormatChanges(), IsEmpty());
    EXPECT_EQ(cameraSession().commitCount(), 1);
    EXPECT_EQ(cameraSession().inputs().size(), 1u);
}

// Attach failures become cameraSetupFailed; what was attached stays until cleanup().
TEST_F(CaptureSessionManagerTest, CameraAttachFailuresBecomeCameraSetupFailed) {
    const struct {
        bool inputNotCreated, refuseInput, refuseOutput;
        std::string description;
        size_t inputsAttached;
        bool inputStored, outputStored;
        std::string lastLine;
    } cases[] = {
        {true, false, false, "Camera setup failed: Device in use", 0, false, false,
         "✅ Camera format configured successfully"},
        {false, true, false, "Camera setup failed: Cannot add camera input to capture session", 0,
         true, false, "✅ Camera format configured successfully"},
        {false, false, true, "Camera setup failed: Cannot add camera output to capture session", 1,
         true, true, "✅ Camera input added successfully"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.description);
        factory.setDeviceInputFailure(
            MediaType::video,
            c.inputNotCreated
                ? std::optional(PlatformError{"CaptureErrorDomain", -11814, "Device in use"})
                : std::nullopt);
        cameraSession().setSwitches(
            {.acceptVideoInput = !c.refuseInput, .acceptVideoOutput = !c.refuseOutput});
        const int commits = cameraSession().commitCount();
        const CaptureSessionError error = errorFrom([&] { manager->setupCamera(); });
        EXPECT_EQ(error.kind(), Kind::cameraSetupFailed);
        EXPECT_EQ(error.errorDescription(), c.description);
        EXPECT_EQ(cameraSession().commitCount(), commits + 1);
        EXPECT_EQ(cameraSession().journal().back(), "commit");
        EXPECT_EQ(cameraSession().inputs().size(), c.inputsAttached);
        EXPECT_THAT(cameraSession().outputs(), IsEmpty());
        EXPECT_EQ(manager->cameraInput() != nullptr, c.inputStored);
        EXPECT_EQ(manager->cameraOutput() != nullptr, c.outputStored);
        EXPECT_EQ(log.lines().back(), c.lastLine);

        manager->cleanup();
        EXPECT_THAT(cameraSession().inputs(), IsEmpty());
        EXPECT_EQ(manager->cameraInput(), nullptr);
        EXPECT_EQ(manager->cameraOutput(), nullptr);
    }
}

// ---- cleanup ---------------------------------------------------------------------------------

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
    EXPECT_FALSE(cameraSession().isRunning());
    EXPECT_EQ(manager->screenInput(), nullptr);
    EXPECT_EQ(manager->micInput(), nullptr);
    EXPECT_EQ(manager->cameraInput(), nullptr);
    EXPECT_EQ(manager->videoOutput(), nullptr);
    EXPECT_EQ(manager->audioOutput(), nullptr);
    EXPECT_EQ(manager->cameraOutput(), nullptr);
    EXPECT_TRUE(manager->cameraOverlayEnabled());

    // A second clean-up only stops; the next recording sets up again.
    screenSession().clearJournal();
    manager->cleanup();
    EXPECT_THAT(screenSession().journal(), ElementsAre("stop"));
    manager->setupScreenCapture();
    EXPECT_EQ(screenSession().inputs().size(), 2u);
}

TEST_F(CaptureSessionManagerTest, CleanupWithOverlaySwitchedOffLeavesCameraRunningButEmpties) {
    manager->setupScreenCapture();
    manager->setupCamera();
    cameraSession().startRunning();
    manager->setCameraOverlayEnabled(false);
    cameraSession().clearJournal();

    manager->cleanup();
    EXPECT_THAT(cameraSession().journal(), ElementsAre("removeInput video", "removeOutput video"));
    EXPECT_TRUE(cameraSession().isRunning());
    EXPECT_EQ(manager->cameraOutput(), nullptr);
}

// ---- sample hand-off -------------------------------------------------------------------------

TEST_F(CaptureSessionManagerTest, EverySampleReachesTheDelegateOnTheRecordingQueueInOrder) {
    auto delegate = std::make_shared<RecordingDelegate>();
    manager->setDelegate(delegate);
    manager->setupScreenCapture();
    manager->setupCamera();
    const auto screen = factory.videoOutputs()[0];
    const auto camera = factory.videoOutputs()[1];
    const auto audio = factory.audioOutputs()[0];

    EXPECT_EQ(recordingQueue().label(), "glimmerbox.recording");
    EXPECT_THAT(dispatch.serialQueueQualities(), ElementsAre(QualityOfService::userInitiated));
    const auto s1 = videoSample(1);
    const auto c1 = videoSample(2);
    const auto a1 = SampleBuffer::audio(std::make_shared<AudioBuffer>(), {});
    screen->deliver(s1);
    camera->deliver(c1);
    audio->deliver(a1);
    EXPECT_TRUE(delegate->deliveries.empty());  // nothing outside the queue

    EXPECT_EQ(recordingQueue().runPending(), 3);
    ASSERT_EQ(delegate->deliveries.size(), 3u);
    EXPECT_EQ(delegate->deliveries[0].manager, manager.get());
    EXPECT_EQ(delegate->deliveries[0].sample, s1);  // the very sample, not a copy
    EXPECT_EQ(delegate->deliveries[0].output, manager->videoOutput().get());
    EXPECT_EQ(delegate->deliveries[1].sample, c1);
    EXPECT_EQ(delegate->deliveries[1].output, manager->cameraOutput().get());
    EXPECT_EQ(delegate->deliveries[2].sample, a1);
    EXPECT_EQ(delegate->deliveries[2].output, manager->audioOutput().get());
    EXPECT_THAT(log.lines(), ::testing::Not(::testing::Contains(::testing::HasSubstr("📺"))));
}

TEST_F(CaptureSessionManagerTest, SamplesAfterTheDelegateWentAreDroppedSilently) {
    auto delegate = std::make_shared<RecordingDelegate>();
    manager->setDelegate(delegate);
    manager->setupScreenCapture();
    log.clear();
    const auto screen = factory.videoOutputs()[0];
    screen->deliver(videoSample(1));
    delegate.reset();
    EXPECT_EQ(recordingQueue().runPending(), 1);
    EXPECT_THAT(log.lines(), IsEmpty());

    // Or even the manager itself: the output holds it weakly.
    screen->deliver(videoSample(2));
    manager.reset();
    EXPECT_EQ(recordingQueue().runPending(), 1);
}

}  // namespace
}  // namespace gb
