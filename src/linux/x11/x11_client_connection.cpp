#include "linux/x11/x11_client_connection.h"

#include <mutex>

#include "linux/x11/x11_display.h"

namespace gb::linuxp {
namespace {

thread_local X11ErrorTrap* activeTrap = nullptr;
XErrorHandler handlerBefore = nullptr;  // written once, under installOnce

std::once_flag installOnce;

void prepareXlib();

}  // namespace

int trapErrors(Display* display, XErrorEvent* event) {
    for (X11ErrorTrap* trap = activeTrap; trap != nullptr; trap = trap->outer_) {
        if (trap->display_ != display) continue;
        if (!trap->firstError_) trap->firstError_ = *event;
        return 0;
    }
    return handlerBefore != nullptr ? handlerBefore(display, event) : 0;
}

namespace {

void prepareXlib() {
    std::call_once(installOnce, [] {
        // The process-wide handlers (thread safety, logging) first, so that errors outside a
        // trap go to them and never to Xlib's default handler, which exits.
        installXErrorHandlers();
        handlerBefore = XSetErrorHandler(trapErrors);
    });
}

}  // namespace

Result<std::unique_ptr<X11ClientConnection>> X11ClientConnection::open(
    const std::string& displayName) {
    prepareXlib();
    const char* name = displayName.empty() ? nullptr : displayName.c_str();
    Display* display = XOpenDisplay(name);
    if (display == nullptr) {
        return PlatformError{"gb.X11", 0,
                             std::string("Cannot open X display \"") + XDisplayName(name) + "\""};
    }
    return std::make_unique<X11ClientConnection>(OpenedKey{}, display);
}

X11ClientConnection::~X11ClientConnection() {
    XCloseDisplay(display_);
}

Atom X11ClientConnection::atom(const char* name) const {
    return XInternAtom(display_, name, False);
}

X11ErrorTrap::X11ErrorTrap(Display* display) : display_(display), outer_(activeTrap) {
    prepareXlib();
    XSync(display_, False);  // errors of earlier requests are not this trap's
    firstError_.reset();
    activeTrap = this;
}

X11ErrorTrap::~X11ErrorTrap() {
    XSync(display_, False);
    activeTrap = outer_;
}

std::optional<std::string> X11ErrorTrap::sync() {
    XSync(display_, False);
    if (!firstError_) return std::nullopt;
    char text[256] = {};
    XGetErrorText(display_, firstError_->error_code, text, sizeof text);
    return std::string(text) + " (request " + std::to_string(firstError_->request_code) + "." +
           std::to_string(firstError_->minor_code) + ")";
}

}  // namespace gb::linuxp
