// Guards against: session changes outside a transaction, outputs added before their delegate, wrong or missing capture errors, leftovers after cleanup.
#include "capture/capture_session_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

}  // namespace
}  // namespace gb
