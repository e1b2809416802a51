#include "linux/x11/x11_accessibility.h"

#include <X11/extensions/XTest.h>

#include <cstdlib>
#include <string_view>

#include "linux/x11/x11_client_connection.h"
#include "linux/x11/x11_screen_input.h"

namespace gb::linuxp {

bool isAccessibilityTrustedX11() {
    return isAccessibilityTrustedX11({});
}

bool isAccessibilityTrustedX11(const std::string& displayName) {
    // Under XWayland the display answers, but native Wayland windows never see XTest's keys.
    if (isWaylandSession(std::getenv("WAYLAND_DISPLAY"), std::getenv("XDG_SESSION_TYPE"))) {
        return false;
    }
    auto connection = X11ClientConnection::open(displayName);
    if (!connection) return false;
    int eventBase = 0;
    int errorBase = 0;
    int major = 0;
    int minor = 0;
    return XTestQueryExtension(connection.value()->display(), &eventBase, &errorBase, &major,
                               &minor) != False;
}

}  // namespace gb::linuxp
