// Asks the system for the microphone and camera permissions that a recording needs. Holds no
// state: every call asks anew (a decision already taken comes back without a prompt).
//
// Threads: any thread but the one that delivers the access answers; each call blocks its caller
// until the answer has arrived. Requests are made one after the other, never in parallel.
#pragma once

#include <string>
#include <vector>

#include "platform/access.h"
#include "recording/service_contracts.h"

namespace gb {

class PermissionManager final : public PermissionService {
public:
    explicit PermissionManager(AccessRequester& requester) : requester_(requester) {}

    [[nodiscard]] bool requestMicrophonePermission();
    [[nodiscard]] bool requestCameraPermission();

    bool checkAllPermissions(bool includeCamera) override;
    std::vector<std::string> missingPermissions(bool includeCamera) override;

private:
    [[nodiscard]] bool requestAccess(MediaType type);

    AccessRequester& requester_;
};

}  // namespace gb
