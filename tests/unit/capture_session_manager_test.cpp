// Guards against: session changes outside a transaction, outputs added before their delegate, and leftovers after cleanup (the set-up errors are in the recorder's table).
#include "capture/capture_session_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fakes/fake_dispatch.h"
#include "fakes/fake_platform.h"

namespace gb {
namespace {

using ::testing::ElementsAre;

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

}  // namespace
}  // namespace gb
