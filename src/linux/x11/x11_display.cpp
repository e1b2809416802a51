#include "linux/x11/x11_display.h"

#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "recording/log.h"

namespace gb::linuxp {
namespace {

thread_local XErrorTrap* tActiveTrap = nullptr;

int onXError(Display*, XErrorEvent* event) {
    if (tActiveTrap != nullptr) {
        tActiveTrap->record(event->error_code);
        return 0;
    }
    logLine("⚠️ X11 error " + std::to_string(event->error_code) + " from request " +
            std::to_string(event->request_code) + "." + std::to_string(event->minor_code));
    return 0;
}

int onXIOError(Display*) {
    logLine("❌ Lost the connection to the X display");
    return 0;
}

// Returning (instead of exiting) leaves the connection dead; its owner notices and closes it.
void onXIOErrorExit(Display*, void* connectionLost) {
    if (connectionLost != nullptr) static_cast<std::atomic<bool>*>(connectionLost)->store(true);
}

}  // namespace

void installXErrorHandlers() {
    static std::once_flag once;
    std::call_once(once, [] {
        // Capture, the display query and the automation use their own connections from several
        // threads; this must come before any other Xlib call.
        XInitThreads();
        XSetErrorHandler(onXError);
        XSetIOErrorHandler(onXIOError);
    });
}

namespace {

struct ScreenResourcesFree {
    void operator()(XRRScreenResources* r) const { XRRFreeScreenResources(r); }
};
struct OutputInfoFree {
    void operator()(XRROutputInfo* o) const { XRRFreeOutputInfo(o); }
};
struct CrtcInfoFree {
    void operator()(XRRCrtcInfo* c) const { XRRFreeCrtcInfo(c); }
};

// RandR 1.3 or later (primary output, current screen resources), or nothing usable.
bool hasRandr13(Display* display) {
    int eventBase = 0;
    int errorBase = 0;
    if (!XRRQueryExtension(display, &eventBase, &errorBase)) return false;
    int major = 0;
    int minor = 0;
    if (!XRRQueryVersion(display, &major, &minor)) return false;
    return major > 1 || (major == 1 && minor >= 3);
}

PixelRect rootRectangle(Display* display) {
    const int screen = DefaultScreen(display);
    return {0, 0, DisplayWidth(display, screen), DisplayHeight(display, screen)};
}

std::optional<PixelRect> outputRectangle(Display* display, RROutput output) {
    const Window root = DefaultRootWindow(display);
    std::unique_ptr<XRRScreenResources, ScreenResourcesFree> resources(
        XRRGetScreenResourcesCurrent(display, root));
    if (!resources) return std::nullopt;
    bool known = false;
    for (int i = 0; i < resources->noutput; ++i) known = known || resources->outputs[i] == output;
    if (!known) return std::nullopt;
    std::unique_ptr<XRROutputInfo, OutputInfoFree> info(
        XRRGetOutputInfo(display, resources.get(), output));
    if (!info || info->crtc == None) return std::nullopt;
    std::unique_ptr<XRRCrtcInfo, CrtcInfoFree> crtc(
        XRRGetCrtcInfo(display, resources.get(), info->crtc));
    if (!crtc || crtc->width == 0 || crtc->height == 0) return std::nullopt;
    return PixelRect{crtc->x, crtc->y, static_cast<int>(crtc->width),
                     static_cast<int>(crtc->height)};
}

template <class T>
std::optional<T> parseWhole(const char* text) {
    if (text == nullptr || *text == '\0') return std::nullopt;
    T value{};
    const char* end = text + std::strlen(text);
    auto [ptr, ec] = std::from_chars(text, end, value);
    if (ec != std::errc() || ptr != end) return std::nullopt;
    return value;
}

}  // namespace

void XDisplayCloser::operator()(_XDisplay* display) const {
    XCloseDisplay(display);
}

XDisplayPtr openXDisplay(const std::string& displayName, std::atomic<bool>* connectionLost) {
    installXErrorHandlers();
    XDisplayPtr display(XOpenDisplay(displayName.empty() ? nullptr : displayName.c_str()));
    if (display) XSetIOErrorExitHandler(display.get(), onXIOErrorExit, connectionLost);
    return display;
}

XErrorTrap::XErrorTrap() : previous_(tActiveTrap) {
    tActiveTrap = this;
}
XErrorTrap::~XErrorTrap() {
    tActiveTrap = previous_;
}

std::optional<X11MainDisplay> findMainDisplay(_XDisplay* display) {
    if (display == nullptr) return std::nullopt;
    const Window root = DefaultRootWindow(display);
    if (hasRandr13(display)) {
        const RROutput primary = XRRGetOutputPrimary(display, root);
        if (primary != None) {
            if (auto rect = outputRectangle(display, primary)) {
                return X11MainDisplay{static_cast<uint32_t>(primary), *rect};
            }
        }
    }
    return X11MainDisplay{static_cast<uint32_t>(root), rootRectangle(display)};
}

std::optional<PixelRect> findDisplayRectangle(_XDisplay* display, uint32_t displayID) {
    if (display == nullptr) return std::nullopt;
    if (displayID == static_cast<uint32_t>(DefaultRootWindow(display))) {
        return rootRectangle(display);
    }
    if (displayID == 0 || !hasRandr13(display)) return std::nullopt;
    return outputRectangle(display, displayID);
}

double desktopScaleFactor(const char* gdkScale, const char* qtScaleFactor) {
    if (auto gdk = parseWhole<int>(gdkScale); gdk && *gdk > 0) return *gdk;
    if (auto qt = parseWhole<double>(qtScaleFactor); qt && std::isfinite(*qt) && *qt > 0) {
        return *qt;
    }
    return 1.0;
}

double desktopScaleFactorFromEnvironment() {
    return desktopScaleFactor(std::getenv("GDK_SCALE"), std::getenv("QT_SCALE_FACTOR"));
}

X11DisplayProvider::X11DisplayProvider(std::string displayName)
    : displayName_(std::move(displayName)) {}

std::optional<MainScreen> X11DisplayProvider::mainScreen() const {
    XDisplayPtr display = openXDisplay(displayName_);
    if (!display) return std::nullopt;
    const auto main = findMainDisplay(display.get());
    if (!main) return std::nullopt;
    const double scale = desktopScaleFactorFromEnvironment();
    MainScreen screen;
    screen.widthPoints = main->rect.width / scale;
    screen.heightPoints = main->rect.height / scale;
    screen.deviceDescription[kScreenNumberKey] = main->displayID;
    return screen;
}

std::optional<PixelRect> X11DisplayProvider::displayRectangle(uint32_t displayID) const {
    XDisplayPtr display = openXDisplay(displayName_);
    if (!display) return std::nullopt;
    return findDisplayRectangle(display.get(), displayID);
}

}  // namespace gb::linuxp
