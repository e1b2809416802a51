// Whether this process may send keystrokes to other programs: on X11 that takes a reachable
// display with the XTest extension; a Wayland session does not let a client type into others.
//
// Threads: any thread; each call opens and closes its own connection.
#pragma once

#include <string>

namespace gb::linuxp {

// True when $DISPLAY is reachable, has XTest, and the session is not a Wayland one.
[[nodiscard]] bool isAccessibilityTrustedX11();

// The same for the display `displayName` (empty: $DISPLAY).
[[nodiscard]] bool isAccessibilityTrustedX11(const std::string& displayName);

}  // namespace gb::linuxp
