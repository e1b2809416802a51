#include "linux/x11/x11_application_finder.h"

#include <X11/Xatom.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "recording/log.h"

namespace gb::linuxp {
namespace {

// A top-level window: `client` carries WM_CLASS and takes the focus, `frame` is what the window
// manager (if any) put around it, directly under the root.
struct ClientWindow {
    ::Window client = None;
    ::Window frame = None;
};

// Frees what Xlib allocated.
struct XFreeDeleter {
    void operator()(void* data) const {
        if (data != nullptr) XFree(data);
    }
};
template <class T>
using XPointer = std::unique_ptr<T, XFreeDeleter>;

// A property of 32-bit items (windows, atoms, cardinals); nothing when the window lacks it.
std::optional<std::vector<unsigned long>> longsProperty(Display* display, ::Window window,
                                                        Atom property, Atom type) {
    Atom actualType = None;
    int actualFormat = 0;
    unsigned long count = 0;
    unsigned long remaining = 0;
    unsigned char* raw = nullptr;
    const int status = XGetWindowProperty(display, window, property, 0, 1L << 16, False, type,
                                          &actualType, &actualFormat, &count, &remaining, &raw);
    XPointer<unsigned char> data(raw);
    if (status != Success || actualType != type || actualFormat != 32) return std::nullopt;
    // Xlib hands 32-bit items back as longs.
    const auto* items = reinterpret_cast<const unsigned long*>(data.get());
    return std::vector<unsigned long>(items, items + count);
}

std::optional<std::string> windowClass(Display* display, ::Window window) {
    XClassHint hint{};
    if (XGetClassHint(display, window, &hint) == 0) return std::nullopt;
    XPointer<char> name(hint.res_name);
    XPointer<char> windowClass(hint.res_class);
    if (!windowClass) return std::nullopt;
    return std::string(windowClass.get());
}

// The root's children, topmost first, each with the window inside that carries WM_CLASS (the
// child itself, or one level down under a frame). Only viewable ones: without a window manager an
// unmapped window is one the application has withdrawn.
std::vector<ClientWindow> treeWindowsTopmostFirst(Display* display, ::Window root) {
    ::Window rootReturn = None;
    ::Window parent = None;
    ::Window* rawChildren = nullptr;
    unsigned int count = 0;
    if (XQueryTree(display, root, &rootReturn, &parent, &rawChildren, &count) == 0) return {};
    XPointer<::Window> children(rawChildren);
    std::vector<ClientWindow> windows;
    for (unsigned int i = count; i-- > 0;) {
        const ::Window frame = children.get()[i];
        XWindowAttributes attributes{};
        if (XGetWindowAttributes(display, frame, &attributes) == 0 ||
            attributes.map_state != IsViewable) {
            continue;
        }
        if (windowClass(display, frame)) {
            windows.push_back({frame, frame});
            continue;
        }
        ::Window* rawInner = nullptr;
        unsigned int innerCount = 0;
        if (XQueryTree(display, frame, &rootReturn, &parent, &rawInner, &innerCount) == 0) {
            continue;
        }
        XPointer<::Window> inner(rawInner);
        for (unsigned int j = innerCount; j-- > 0;) {
            if (windowClass(display, inner.get()[j])) {
                windows.push_back({inner.get()[j], frame});
                break;
            }
        }
    }
    return windows;
}

// The managed windows, topmost first, from the window manager's lists.
std::optional<std::vector<ClientWindow>> managedWindowsTopmostFirst(
    const X11ClientConnection& connection) {
    Display* display = connection.display();
    const auto clients =
        longsProperty(display, connection.root(), connection.atom("_NET_CLIENT_LIST"), XA_WINDOW);
    if (!clients) return std::nullopt;
    const auto stacking = longsProperty(display, connection.root(),
                                        connection.atom("_NET_CLIENT_LIST_STACKING"), XA_WINDOW);
    // Stacking order is bottom to top; the plain list is in mapping order.
    std::vector<unsigned long> ordered =
        stacking && stacking->size() == clients->size() ? *stacking : *clients;
    std::reverse(ordered.begin(), ordered.end());
    std::vector<ClientWindow> windows;
    for (unsigned long window : ordered) windows.push_back({window, window});
    return windows;
}

bool windowManagerSupportsActiveWindow(const X11ClientConnection& connection) {
    Display* display = connection.display();
    const Atom check = connection.atom("_NET_SUPPORTING_WM_CHECK");
    const auto wmWindow = longsProperty(display, connection.root(), check, XA_WINDOW);
    if (!wmWindow || wmWindow->size() != 1) return false;
    // A window manager that died leaves the root's property behind but not its own window's.
    const auto confirmed = longsProperty(display, wmWindow->front(), check, XA_WINDOW);
    if (!confirmed || *confirmed != *wmWindow) return false;
    const auto supported =
        longsProperty(display, connection.root(), connection.atom("_NET_SUPPORTED"), XA_ATOM);
    const Atom activeWindow = connection.atom("_NET_ACTIVE_WINDOW");
    return supported &&
           std::find(supported->begin(), supported->end(), activeWindow) != supported->end();
}

// One process's windows with the editor's class, topmost first.
class X11RunningApplication final : public RunningApplication {
public:
    X11RunningApplication(std::string bundleIdentifier, std::vector<ClientWindow> windows,
                          std::shared_ptr<SharedX11Connection> shared)
        : bundleIdentifier_(std::move(bundleIdentifier)),
          windows_(std::move(windows)),
          shared_(std::move(shared)) {}

    [[nodiscard]] std::string bundleIdentifier() const override { return bundleIdentifier_; }

    // Asks the window manager to activate the topmost window; without one, raises it and gives it
    // the keyboard focus directly.
    bool activate() override {
        std::lock_guard lock(shared_->mutex);
        if (!shared_->connection) return false;
        const X11ClientConnection& connection = *shared_->connection;
        Display* display = connection.display();
        X11ErrorTrap trap(display);
        const ClientWindow& target = windows_.front();
        if (windowManagerSupportsActiveWindow(connection)) {
            XEvent event{};
            event.xclient.type = ClientMessage;
            event.xclient.window = target.client;
            event.xclient.message_type = connection.atom("_NET_ACTIVE_WINDOW");
            event.xclient.format = 32;
            event.xclient.data.l[0] = 2;  // source: a pager, which window managers obey
            event.xclient.data.l[1] = CurrentTime;
            XSendEvent(display, connection.root(), False,
                       SubstructureRedirectMask | SubstructureNotifyMask, &event);
        } else {
            XRaiseWindow(display, target.frame);
            XSetInputFocus(display, target.client, RevertToPointerRoot, CurrentTime);
        }
        if (auto error = trap.sync()) {
            logLine("🔧 Could not activate the editor's window: " + *error);
            return false;
        }
        return true;
    }

private:
    const std::string bundleIdentifier_;
    const std::vector<ClientWindow> windows_;  // never empty
    const std::shared_ptr<SharedX11Connection> shared_;
};

}  // namespace

X11ApplicationFinder::X11ApplicationFinder(std::string displayName)
    : shared_(std::make_shared<SharedX11Connection>(std::move(displayName))) {}

std::vector<std::string> X11ApplicationFinder::windowClassesFor(
    const std::string& bundleIdentifier) {
    if (bundleIdentifier == "com.microsoft.VSCode") return {"Code"};
    if (bundleIdentifier == "com.microsoft.VSCodeInsiders") return {"Code - Insiders"};
    if (bundleIdentifier == "com.visualstudio.code.oss") return {"Code - OSS", "VSCodium"};
    return {};
}

std::vector<RunningApplicationRef> X11ApplicationFinder::runningApplications(
    const std::string& bundleIdentifier) {
    const std::vector<std::string> classes = windowClassesFor(bundleIdentifier);
    if (classes.empty()) return {};

    std::lock_guard lock(shared_->mutex);
    if (!shared_->connection) {
        auto opened = X11ClientConnection::open(shared_->displayName);
        if (!opened) {
            const std::string why = opened.error().localizedDescription;
            if (why != shared_->openFailure) logLine("🔧 Cannot look for the editor: " + why);
            shared_->openFailure = why;
            return {};
        }
        shared_->openFailure.clear();
        shared_->connection = std::move(opened.value());
    }
    const X11ClientConnection& connection = *shared_->connection;
    Display* display = connection.display();
    X11ErrorTrap trap(display);  // windows may vanish while we look at them

    std::optional<std::vector<ClientWindow>> managed = managedWindowsTopmostFirst(connection);
    const std::vector<ClientWindow> windows =
        managed ? std::move(*managed) : treeWindowsTopmostFirst(display, connection.root());

    // Group by process, keeping the order of each process's topmost window.
    const Atom pidAtom = connection.atom("_NET_WM_PID");
    std::vector<std::vector<ClientWindow>> groups;
    std::map<unsigned long, size_t> groupOfPid;
    for (const ClientWindow& window : windows) {
        const auto found = windowClass(display, window.client);
        if (!found || std::find(classes.begin(), classes.end(), *found) == classes.end()) {
            continue;
        }
        const auto pid = longsProperty(display, window.client, pidAtom, XA_CARDINAL);
        if (pid && pid->size() == 1) {
            auto [entry, added] = groupOfPid.try_emplace(pid->front(), groups.size());
            if (!added) {
                groups[entry->second].push_back(window);
                continue;
            }
        }
        groups.push_back({window});
    }
    (void)trap.sync();  // a window that vanished meanwhile is simply not found

    std::vector<RunningApplicationRef> applications;
    for (auto& group : groups) {
        applications.push_back(
            std::make_shared<X11RunningApplication>(bundleIdentifier, std::move(group), shared_));
    }
    return applications;
}

}  // namespace gb::linuxp
