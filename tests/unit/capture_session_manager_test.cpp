#include "capture/capture_session_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

TEST_F(CaptureSessionManagerTest, SetupsAttachEverythingInOneTransactionEach) {
    manager->setupScreenCapture();
    EXPECT_THAT(screenSession().journal(),
                ElementsAre("begin", "canAddInput video", "addInput video", "canAddInput audio",
                            "addInput audio", "canAddOutput video", "addOutput video",
                            "canAddOutput audio", "addOutput audio", "commit"));
    EXPECT_EQ(screenSession().changesOutsideTransaction(), 0);
    EXPECT_EQ(screenSession().outputsAddedWithoutDelegate(), 0);
    EXPECT_EQ(log.lines(), Strings{"✅ Screen capture session configured successfully"});
    EXPECT_THAT(screenSession().inputs(), ElementsAre(manager->screenInput(), manager->micInput()));
    EXPECT_THAT(screenSession().outputs(),
                ElementsAre(manager->videoOutput(), manager->audioOutput()));
    EXPECT_EQ(factory.videoOutputs().at(0)->videoSettings()->pixelFormat, 1111970369u);
    EXPECT_THAT(cameraSession().journal(), IsEmpty());
    manager->setupCamera();
    EXPECT_EQ(log.lines().back(),
              "📷 Camera setup complete - delegate set to self on queue: glimmerbox.recording");
    EXPECT_THAT(cameraSession().journal(),
                ElementsAre("begin", "canAddInput video", "addInput video", "canAddOutput video",
                            "addOutput video", "commit"));
    EXPECT_EQ(cameraSession().outputsAddedWithoutDelegate(), 0);
    EXPECT_THAT(usbCamera->activeFormatChanges(), ElementsAre(1));
    EXPECT_THAT(cameraSession().inputs(), ElementsAre(manager->cameraInput()));
    EXPECT_THAT(cameraSession().outputs(), ElementsAre(manager->cameraOutput()));
}

// Each failure gives its error; what was attached (and stored, in the order screen input,
// microphone input, video output, audio output) stays until cleanup().
TEST_F(CaptureSessionManagerTest, ScreenSetupFailuresKeepWhatWasAttachedUntilCleanup) {
    enum class Fault { noScreen, noAccess, noMic, micFails, screenIn, videoOut, audioOut };
    const struct {
        Fault fault;
        Kind kind;
        std::string description;
        size_t inputsAttached, outputsAttached;
        int stored;
    } cases[] = {
        {Fault::noScreen, Kind::noDisplay, "No display found for screen recording", 0, 0, 0},
        {Fault::noAccess, Kind::screenCaptureUnavailable,
         "Screen capture is unavailable. Please grant screen recording permission.", 0, 0, 0},
        {Fault::screenIn, Kind::cannotAddScreenInput, "Cannot add screen input to capture session",
         0, 0, 1},
        {Fault::noMic, Kind::microphoneUnavailable, "No microphone found", 1, 0, 1},
        {Fault::micFails, Kind::microphoneSetupFailed, "Microphone setup failed: Cannot Record", 1,
         0, 1},
        {Fault::videoOut, Kind::cannotAddVideoOutput, "Cannot add video output to capture session",
         2, 0, 3},
        {Fault::audioOut, Kind::cannotAddAudioOutput, "Cannot add audio output to capture session",
         2, 1, 4}};
    const auto microphone = factory.microphone();
    for (const auto& c : cases) {
        display.setSize(1920, 1080);
        if (c.fault == Fault::noScreen) display.setScreen({});
        factory.setScreenCaptureAllowed(c.fault != Fault::noAccess);
        factory.setMicrophone(c.fault == Fault::noMic ? nullptr : microphone);
        factory.setDeviceInputFailure(
            MediaType::audio, c.fault == Fault::micFails
                                  ? std::optional(PlatformError{"Capture", -11814, "Cannot Record"})
                                  : std::nullopt);
        screenSession().setSwitches({.acceptVideoInput = c.fault != Fault::screenIn,
                                     .acceptVideoOutput = c.fault != Fault::videoOut,
                                     .acceptAudioOutput = c.fault != Fault::audioOut});
        screenSession().clearJournal();
        const CaptureSessionError error = errorFrom([&] { manager->setupScreenCapture(); });
        EXPECT_EQ(error.kind(), c.kind);
        EXPECT_EQ(error.errorDescription(), c.description);
        EXPECT_EQ(screenSession().journal().front(), "begin");  // one transaction, committed too
        EXPECT_EQ(screenSession().journal().back(), "commit");
        EXPECT_EQ(screenSession().inputs().size(), c.inputsAttached);
        EXPECT_EQ(screenSession().outputs().size(), c.outputsAttached);
        for (int i = 0; i < 4; ++i) EXPECT_EQ(stored()[i], i < c.stored) << c.description;
        manager->cleanup();
        EXPECT_THAT(screenSession().inputs(), IsEmpty());
        EXPECT_THAT(screenSession().outputs(), IsEmpty());
        EXPECT_EQ(stored(), kNothing);
    }
    EXPECT_THAT(log.lines(), IsEmpty());
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
}

TEST_F(CaptureSessionManagerTest, EverySampleReachesTheDelegateOnTheRecordingQueueInOrder) {
    auto delegate = std::make_shared<RecordingDelegate>();
    manager->setDelegate(delegate);
    manager->setupScreenCapture();
    manager->setupCamera();
    EXPECT_EQ(recordingQueue().label(), "glimmerbox.recording");
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
