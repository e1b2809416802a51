// Guards against: session changes outside a transaction, outputs added before their delegate, wrong or missing capture errors, leftovers after cleanup, samples delivered off the recording queue, and a bad camera or format choice.
#include "capture/capture_session_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "capture/camera_manager.h"
#include "fakes/fake_dispatch.h"
#include "fakes/fake_platform.h"

namespace gb {
namespace {

using ::testing::ElementsAre;
using Kind = CaptureSessionError::Kind;

class CaptureSessionManagerTest : public ::testing::Test {
protected:
    fakes::FakeCaptureSession& screen() { return *factory.sessions.at(0); }
    fakes::FakeCaptureSession& camera() { return *factory.sessions.at(1); }
    bool holdsNothing() const {
        return !manager->screenInput() && !manager->micInput() && !manager->videoOutput() &&
               !manager->audioOutput() && !manager->cameraInput() && !manager->cameraOutput();
    }
    fakes::LogCapture log;
    fakes::FakeCaptureFactory factory;
    fakes::FakeDisplayProvider display;
    fakes::FakeDispatch dispatch;
    std::shared_ptr<CaptureSessionManager> manager =
        std::make_shared<CaptureSessionManager>(factory, display, dispatch);
};

TEST_F(CaptureSessionManagerTest, SetupsAttachEverythingInOneTransactionAndCleanupRemovesIt) {
    manager->setupScreenCapture();
    manager->setupCamera();
    EXPECT_THAT(screen().journal(),
                ElementsAre("begin", "canAddinput video", "addInput video", "canAddinput audio",
                            "addInput audio", "canAddoutput video", "addOutput video",
                            "canAddoutput audio", "addOutput audio", "commit"));
    EXPECT_THAT(camera().journal(), ElementsAre("begin", "canAddinput video", "addInput video",
                                                "canAddoutput video", "addOutput video", "commit"));
    for (auto* s : {&screen(), &camera()}) {
        EXPECT_EQ(s->changesOutsideTransaction, 0);
        EXPECT_EQ(s->outputsWithoutDelegate, 0);
        s->startRunning();
        s->clearJournal();
    }
    manager->cleanup();
    EXPECT_THAT(screen().journal(),
                ElementsAre("stop", "removeInput video", "removeInput audio", "removeOutput video",
                            "removeOutput audio"));
    EXPECT_THAT(camera().journal(), ElementsAre("stop", "removeInput video", "removeOutput video"));
    EXPECT_TRUE(holdsNothing());
}

// Each failure gives its error; what was attached stays until cleanup().
TEST_F(CaptureSessionManagerTest, ScreenSetupFailuresKeepWhatWasAttachedUntilCleanup) {
    enum class Fault { noScreen, noAccess, noMic, micFails, screenIn, videoOut, audioOut };
    const struct {
        Fault fault;
        Kind kind;
        std::string description;
        size_t inputsAttached, outputsAttached;
    } cases[] = {
        {Fault::noScreen, Kind::noDisplay, "No display found for screen recording", 0, 0},
        {Fault::noAccess, Kind::screenCaptureUnavailable,
         "Screen capture is unavailable. Please grant screen recording permission.", 0, 0},
        {Fault::screenIn, Kind::cannotAddScreenInput, "Cannot add screen input to capture session",
         0, 0},
        {Fault::noMic, Kind::microphoneUnavailable, "No microphone found", 1, 0},
        {Fault::micFails, Kind::microphoneSetupFailed, "Microphone setup failed: Cannot Record", 1,
         0},
        {Fault::videoOut, Kind::cannotAddVideoOutput, "Cannot add video output to capture session",
         2, 0},
        {Fault::audioOut, Kind::cannotAddAudioOutput, "Cannot add audio output to capture session",
         2, 1}};
    const auto microphone = factory.microphone;
    for (const auto& c : cases) {
        display.setSize(1920, 1080);
        if (c.fault == Fault::noScreen) display.setScreen({});
        factory.screenCaptureAllowed = c.fault != Fault::noAccess;
        factory.microphone = c.fault == Fault::noMic ? nullptr : microphone;
        factory.microphoneError.reset();
        if (c.fault == Fault::micFails) factory.microphoneError = PlatformError{"C", 1, "Cannot Record"};
        screen().refuse = {c.fault == Fault::screenIn   ? "input video"
                           : c.fault == Fault::videoOut ? "output video"
                           : c.fault == Fault::audioOut ? "output audio"
                                                        : ""};
        screen().clearJournal();
        try {
            manager->setupScreenCapture();
            ADD_FAILURE() << "no error for " << c.description;
        } catch (const CaptureSessionError& e) {
            EXPECT_EQ(e.kind(), c.kind);
            EXPECT_EQ(e.errorDescription(), c.description);
        }
        EXPECT_EQ(screen().journal().back(), "commit");  // the transaction ends on every way out
        EXPECT_EQ(screen().inputs().size(), c.inputsAttached);
        EXPECT_EQ(screen().outputs().size(), c.outputsAttached);
        manager->cleanup();
        EXPECT_TRUE(screen().inputs().empty() && screen().outputs().empty());
        EXPECT_TRUE(holdsNothing());
    }
}

class RecordingDelegate final : public CaptureSessionManagerDelegate {
public:
    void captureSessionManager(CaptureService&, const SampleBufferRef& sample,
                               CaptureOutput& output) override {
        deliveries.emplace_back(sample, &output);
    }
    std::vector<std::pair<SampleBufferRef, CaptureOutput*>> deliveries;
};

TEST_F(CaptureSessionManagerTest, EverySampleReachesTheDelegateOnTheRecordingQueueInOrder) {
    auto delegate = std::make_shared<RecordingDelegate>();
    manager->setDelegate(delegate);
    manager->setupScreenCapture();
    manager->setupCamera();
    auto& queue = *dispatch.serialQueues().at(0);
    EXPECT_EQ(queue.label(), "glimmerbox.recording");
    const auto a = fakes::videoSample(1, nullptr), b = fakes::videoSample(2, nullptr),
               c = fakes::audioSample(3);
    factory.videoOutputs[0]->deliver(a);
    factory.videoOutputs[1]->deliver(b);
    factory.audioOutputs[0]->deliver(c);
    EXPECT_TRUE(delegate->deliveries.empty());  // nothing outside the queue
    EXPECT_EQ(queue.runPending(), 3);
    using D = std::pair<SampleBufferRef, CaptureOutput*>;
    EXPECT_THAT(delegate->deliveries,
                ElementsAre(D{a, manager->videoOutput().get()}, D{b, manager->cameraOutput().get()},
                            D{c, manager->audioOutput().get()}));
    // After the manager went: dropped silently (it is held weakly).
    factory.videoOutputs[0]->deliver(a);
    manager.reset();
    EXPECT_EQ(queue.runPending(), 1);
    EXPECT_EQ(delegate->deliveries.size(), 3u);
}

// Usable first, then built-in, external, virtual; within a category the discovery order.
TEST(CameraManagerTest, SelectionByUsabilityCategoryAndDiscoveryOrder) {
    fakes::LogCapture log;
    fakes::FakeCaptureFactory factory;
    CameraManager manager{factory};
    const auto camera = [](std::string name, bool connected = true, bool suspended = false) {
        return std::make_shared<fakes::FakeCaptureDevice>(name, name, std::vector<CameraFormat>{{1280, 720}},
                                                          connected, suspended);
    };
    auto suspendedBuiltIn = camera("FaceTime HD Camera", true, true), usbA = camera("USB Camera A");
    auto virtualCam = camera("Lobster Cam"), offBuiltIn = camera("FaceTime HD Camera", false);
    auto builtIn = camera("Built-in Camera");
    EXPECT_EQ(manager.selectBestCamera({suspendedBuiltIn, usbA}), usbA);
    EXPECT_EQ(manager.selectBestCamera({virtualCam, usbA, offBuiltIn, builtIn, camera("USB B")}),
              builtIn);
    EXPECT_EQ(manager.selectBestCamera({suspendedBuiltIn, virtualCam}), virtualCam);
    EXPECT_EQ(manager.selectBestCamera({offBuiltIn, camera("OBS", true, true)}), nullptr);
}

TEST(CameraManagerTest, FormatChoiceChangesTheFormatOnlyWhileLocked) {
    using P = CameraOverlayPreset;
    const struct {
        P preset;
        std::vector<CameraFormat> formats;
        int chosen;  // -1: unchanged
    } cases[] = {
        {P::small, {{1280, 720}, {640, 480}}, 1},                  // the preset's size first
        {P::large, {{320, 240}, {960, 540}, {1280, 720}}, 2},      // then the preference list
        {P::medium, {{3840, 2160}, {1024, 768}, {800, 600}}, 2},  // then the smallest in limits
        {P::medium, {{3840, 2160}}, -1},
        {P::small, {}, -1},
    };
    fakes::LogCapture log;
    fakes::FakeCaptureFactory factory;
    CameraManager manager{factory};
    for (const auto& c : cases) {
        auto device = std::make_shared<fakes::FakeCaptureDevice>("USB", "e", c.formats);
        manager.configureOptimalFormat(device, c.preset);
        EXPECT_EQ(device->formatChanges, c.chosen < 0 ? std::vector<int>{} : std::vector{c.chosen});
    }
}

}  // namespace
}  // namespace gb
