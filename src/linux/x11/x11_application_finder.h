// Running editors found as X11 windows: a bundle identifier stands for the WM_CLASS class names of
// that editor's windows, and the windows of one process make one running application.
//
// Threads: any thread. The finder and the applications it returns share one connection (opened
// at first use) behind one mutex, so an application may be activated on the background executor
// while the finder searches on the main thread.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "linux/x11/x11_client_connection.h"
#include "platform/scripting.h"

namespace gb::linuxp {

// The connection that a finder and its applications share.
struct SharedX11Connection {
    explicit SharedX11Connection(std::string displayName) : displayName(std::move(displayName)) {}

    const std::string displayName;
    std::mutex mutex;
    std::unique_ptr<X11ClientConnection> connection;  // guarded by mutex; opened on first use
    // Why the last attempt to open it failed (guarded by mutex): one search asks for three
    // editors, and a session without X (Wayland without XWayland) says so once, not each time.
    std::string openFailure;
};

class X11ApplicationFinder final : public ApplicationFinder {
public:
    // `displayName` empty: $DISPLAY.
    explicit X11ApplicationFinder(std::string displayName = {});

    // Topmost first: the process owning the topmost matching window comes first.
    [[nodiscard]] std::vector<RunningApplicationRef> runningApplications(
        const std::string& bundleIdentifier) override;

    // The WM_CLASS class names of an editor's windows; none for an unknown identifier.
    [[nodiscard]] static std::vector<std::string> windowClassesFor(
        const std::string& bundleIdentifier);

private:
    std::shared_ptr<SharedX11Connection> shared_;
};

}  // namespace gb::linuxp
