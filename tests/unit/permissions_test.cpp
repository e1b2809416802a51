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
