// A private connection to the X server for one object, and a trap that turns the X errors caused
// on it into values instead of Xlib's default of ending the process.
//
// Threads: a connection is used by one thread at a time (its owner guards it with a mutex).
// Error traps are per thread and per connection; the process-wide Xlib error handler they need is
// installed once and hands errors on other connections to the handler that was there before.
#pragma once

#include <X11/Xlib.h>

#include <memory>
#include <optional>
#include <string>

#include "platform/result.h"

namespace gb::linuxp {

class X11ClientConnection {
public:
    // Opens `displayName`, or $DISPLAY when it is empty.
    [[nodiscard]] static Result<std::unique_ptr<X11ClientConnection>> open(
        const std::string& displayName);

    ~X11ClientConnection();
    X11ClientConnection(const X11ClientConnection&) = delete;
    X11ClientConnection& operator=(const X11ClientConnection&) = delete;
    X11ClientConnection(X11ClientConnection&&) = delete;
    X11ClientConnection& operator=(X11ClientConnection&&) = delete;

    [[nodiscard]] Display* display() const { return display_; }
    [[nodiscard]] ::Window root() const { return DefaultRootWindow(display_); }
    // The atom of `name`, created when missing.
    [[nodiscard]] Atom atom(const char* name) const;

private:
    struct OpenedKey {
        explicit OpenedKey() = default;
    };

public:
    X11ClientConnection(OpenedKey, Display* display) : display_(display) {}

private:
    Display* const display_;
};

// While alive, X errors on `display` caused by this thread are recorded rather than fatal.
class X11ErrorTrap {
public:
    explicit X11ErrorTrap(Display* display);
    ~X11ErrorTrap();
    X11ErrorTrap(const X11ErrorTrap&) = delete;
    X11ErrorTrap& operator=(const X11ErrorTrap&) = delete;
    X11ErrorTrap(X11ErrorTrap&&) = delete;
    X11ErrorTrap& operator=(X11ErrorTrap&&) = delete;

    // Waits until the server has handled every request so far; the first error since the trap was
    // set, described, or nothing.
    [[nodiscard]] std::optional<std::string> sync();

private:
    friend int trapErrors(Display* display, XErrorEvent* event);

    Display* const display_;
    X11ErrorTrap* const outer_;  // the trap this one hides, restored at destruction
    std::optional<XErrorEvent> firstError_;
};

}  // namespace gb::linuxp
