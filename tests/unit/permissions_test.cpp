// The permission manager: which permissions are asked, in which order, and what is missing.
#include <gtest/gtest.h>

#include "fakes/fake_access.h"
#include "fakes/log_capture.h"
#include "recording/permission_manager.h"

namespace gb {
namespace {

using fakes::FakeAccessRequester;
using Strings = std::vector<std::string>;

class PermissionManagerTest : public ::testing::Test {
protected:
    fakes::LogCapture log;
    FakeAccessRequester access;
    PermissionManager manager{access};
};

TEST_F(PermissionManagerTest, MissingPermissionsMicrophoneFirstAndCameraOnlyWhenIncluded) {
    const struct {
        bool microphone, camera, includeCamera;
        Strings missing;
        size_t cameraRequests;                            // by the check and the listing together
    } cases[] = {{false, true, true, {"microphone"}, 2},  // the camera is asked all the same
                 {false, false, true, {"microphone", "camera"}, 2},
                 {true, false, false, {}, 0}};
    for (const auto& c : cases) {
        FakeAccessRequester requester;
        requester.setAnswer(MediaType::audio, c.microphone);
        requester.setAnswer(MediaType::video, c.camera);
        PermissionManager permissions(requester);
        EXPECT_EQ(permissions.checkAllPermissions(c.includeCamera), c.missing.empty());
        EXPECT_EQ(permissions.missingPermissions(c.includeCamera), c.missing);
        EXPECT_EQ(requester.requestCount(MediaType::video), c.cameraRequests);
        EXPECT_EQ(requester.requestCount(MediaType::audio), 2u);
    }
    EXPECT_TRUE(log.lines().empty());
}

TEST_F(PermissionManagerTest, AnswersFromAnotherThreadAreAwaitedOneAtATime) {
    access.setDelivery(FakeAccessRequester::Delivery::otherThread);
    access.setAnswer(MediaType::audio, true);
    access.setAnswer(MediaType::video, false);
    for (int i = 0; i < 20; ++i) {
        EXPECT_FALSE(manager.checkAllPermissions(true));
        EXPECT_EQ(manager.missingPermissions(true), Strings{"camera"});
    }
    // The camera request never began before the microphone answer had arrived.
    EXPECT_EQ(access.maxUnanswered(), 1);
    EXPECT_EQ(access.requests().size(), 80u);
}

TEST_F(PermissionManagerTest, ACompletionDroppedUnansweredCountsAsRefused) {
    access.grantAll();
    access.setDelivery(FakeAccessRequester::Delivery::never);
    EXPECT_FALSE(manager.requestMicrophonePermission());
    EXPECT_FALSE(manager.requestCameraPermission());
    EXPECT_EQ(log.lines(),
              (Strings{"Access request for the microphone ended without an answer; treating it "
                       "as refused",
                       "Access request for the camera ended without an answer; treating it as "
                       "refused"}));
}

}  // namespace
}  // namespace gb
