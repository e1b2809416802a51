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

TEST_F(PermissionManagerTest, CameraRefusedWhenIncludedIsMissing) {
    access.setAnswer(MediaType::audio, true);
    access.setAnswer(MediaType::video, false);
    EXPECT_FALSE(manager.checkAllPermissions(true));
    EXPECT_EQ(manager.missingPermissions(true), Strings{"camera"});
    EXPECT_EQ(access.requests(), (std::vector<MediaType>{MediaType::audio, MediaType::video,
                                                         MediaType::audio, MediaType::video}));
}

TEST_F(PermissionManagerTest, CameraIsAskedEvenAfterTheMicrophoneWasRefused) {
    access.setAnswer(MediaType::audio, false);
    access.setAnswer(MediaType::video, true);
    EXPECT_FALSE(manager.checkAllPermissions(true));
    EXPECT_EQ(manager.missingPermissions(true), Strings{"microphone"});
    EXPECT_EQ(access.requestCount(MediaType::video), 2u);
}

TEST_F(PermissionManagerTest, BothRefusedAreListedMicrophoneFirst) {
    EXPECT_FALSE(manager.checkAllPermissions(true));
    EXPECT_EQ(manager.missingPermissions(true), (Strings{"microphone", "camera"}));
}

TEST_F(PermissionManagerTest, CameraIsNotAskedWhenNotIncluded) {
    access.setAnswer(MediaType::audio, true);
    access.setAnswer(MediaType::video, false);
    EXPECT_TRUE(manager.checkAllPermissions(false));
    EXPECT_EQ(manager.missingPermissions(false), Strings{});
    EXPECT_EQ(access.requestCount(MediaType::video), 0u);
}

TEST_F(PermissionManagerTest, EverythingGrantedMissesNothing) {
    access.grantAll();
    EXPECT_TRUE(manager.checkAllPermissions(true));
    EXPECT_EQ(manager.missingPermissions(true), Strings{});
    EXPECT_TRUE(manager.requestMicrophonePermission());
    EXPECT_TRUE(manager.requestCameraPermission());
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
