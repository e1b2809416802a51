// Capture access requests (microphone and camera).
//
// Threads: requestAccess may be called from any thread; the completion runs exactly once, on a
// thread of the implementation's choosing, possibly before requestAccess returns.
#pragma once

#include <functional>

#include "platform/media.h"

namespace gb {

class AccessRequester {
public:
    virtual ~AccessRequester() = default;
    // Asks for access to capture the given kind of media (audio: the microphone; video: the
    // camera). Where the user already decided, the stored decision comes back without a prompt.
    virtual void requestAccess(MediaType type, std::function<void(bool granted)> completion) = 0;
};

}  // namespace gb
