// Whether this user may use the cameras at all. Linux has no consent prompt for cameras: access
// is the permission to open the /dev/video* nodes (usually membership of the "video" group).
#pragma once

#include "linux/v4l2_device_calls.h"

namespace gb::linuxp {

// Refused only when camera nodes exist and every one of them refuses this user (EACCES or EPERM);
// granted when there are none (a recording then simply has no camera) or when any node opens or
// fails for another reason (busy, vanished). Any thread; opens and closes each node once at most.
[[nodiscard]] bool cameraAccessGranted(V4l2Calls& calls);

}  // namespace gb::linuxp
