// The main display on X11 (the primary RandR output, or the whole root window), the Xlib
// connection owner shared by the X11 capture code, and the error handling that keeps Xlib from
// ending the process.
//
// Threads: an Xlib connection is used by one thread at a time; every query here opens its own.
// Xlib reports protocol errors and lost connections through process-wide handlers; the first
// connection opened here installs handlers that log and return instead of exiting, so a vanished
// X server ends a capture instead of the program (and with it the recording).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/display.h"

struct _XDisplay;  // Xlib's Display, kept out of this header so its macros stay out of includers

namespace gb::linuxp {

struct XDisplayCloser {
    void operator()(_XDisplay* display) const;
};
// An open Xlib connection; closing it frees every server resource it created.
using XDisplayPtr = std::unique_ptr<_XDisplay, XDisplayCloser>;

// Makes Xlib thread-safe and installs the process's X error handlers, which log instead of ending
// the program. Idempotent; every module that talks to X calls it before its first Xlib call.
void installXErrorHandlers();

// Opens the named display (empty: $DISPLAY), or null when it cannot be reached. When the
// connection breaks, `connectionLost` (if given) becomes true and Xlib calls on it fail quietly;
// it must outlive the connection.
[[nodiscard]] XDisplayPtr openXDisplay(const std::string& displayName,
                                       std::atomic<bool>* connectionLost = nullptr);

// While alive, protocol errors caused by this thread's requests are collected here instead of
// being logged. Call XSync (or make a request with a reply) before reading errorCode().
class XErrorTrap {
public:
    XErrorTrap();
    ~XErrorTrap();
    XErrorTrap(const XErrorTrap&) = delete;
    XErrorTrap& operator=(const XErrorTrap&) = delete;
    XErrorTrap(XErrorTrap&&) = delete;
    XErrorTrap& operator=(XErrorTrap&&) = delete;

    // The first error code seen, 0 when none.
    [[nodiscard]] int errorCode() const { return errorCode_; }
    void record(int code) {
        if (errorCode_ == 0) errorCode_ = code;
    }

private:
    XErrorTrap* previous_;
    int errorCode_ = 0;
};

// A rectangle of the root window, in pixels.
struct PixelRect {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    friend bool operator==(const PixelRect&, const PixelRect&) = default;
};

// The display identifier and rectangle of the main display: the primary RandR output when RandR
// names one that is lit, otherwise the root window.
struct X11MainDisplay {
    uint32_t displayID = 0;
    PixelRect rect;
};
[[nodiscard]] std::optional<X11MainDisplay> findMainDisplay(_XDisplay* display);

// The rectangle of a display identifier: the root window's id gives the whole root window, a
// RandR output's id the area of its CRTC. Nothing for an unknown identifier or an unlit output.
[[nodiscard]] std::optional<PixelRect> findDisplayRectangle(_XDisplay* display, uint32_t displayID);

// The desktop scale factor: GDK_SCALE when it is a positive integer (GTK reads it as one),
// otherwise QT_SCALE_FACTOR when it is a positive real number, otherwise 1. Either variable
// missing or unreadable is skipped. Points are pixels divided by this factor.
[[nodiscard]] double desktopScaleFactor(const char* gdkScale, const char* qtScaleFactor);
[[nodiscard]] double desktopScaleFactorFromEnvironment();

class X11DisplayProvider final : public DisplayProvider {
public:
    // `displayName` empty: $DISPLAY.
    explicit X11DisplayProvider(std::string displayName = {});

    [[nodiscard]] std::optional<MainScreen> mainScreen() const override;
    // The pixel rectangle of a display identifier (see findDisplayRectangle).
    [[nodiscard]] std::optional<PixelRect> displayRectangle(uint32_t displayID) const;

private:
    const std::string displayName_;
};

}  // namespace gb::linuxp
