// Screen capture of a Wayland session through the ScreenCast portal: makes the screen inputs
// (one portal session each) and answers for the main display, which on Wayland is the monitor
// the portal granted.
//
// The frame size must be known before the recorder creates its writer, which comes after the
// screen input is made: so making the input negotiates the whole portal session and waits for
// the stream's agreed format, and from then on the display reports the monitor's size: in logical
// points as Start's results give it, else the agreed format's pixels. Before any grant
// the display reports the fallback display's size (XWayland's root window, which matches the
// monitor in logical points) or 0x0 without one.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "linux/wayland/screencast_portal.h"
#include "platform/capture.h"
#include "platform/display.h"
#include "platform/files.h"

namespace gb::linuxp {

// The settings key of the restore token of the last granted session.
inline constexpr const char* kScreenCastRestoreTokenKey = "screenCastRestoreToken";

class PortalScreenCapture {
public:
    // `settings` keeps the restore token; `fallback` (may be null) sizes the display before the
    // first grant. Both outlive this object.
    PortalScreenCapture(DefaultsStore& settings, const DisplayProvider* fallback, int poolSize);

    // Called (once per recording, at most) when the stream ends by itself, on a capture or
    // portal thread; it must not block. Set before the first recording.
    void setStreamEndedHandler(std::function<void()> handler);

    // Asks the portal for the monitor and connects to its stream. Blocks until the user chose
    // (no time limit) or cancelPendingStart(). Null, with one log line saying why, when the
    // portal is missing, the user cancelled, or the stream cannot be read.
    [[nodiscard]] std::shared_ptr<ScreenInput> makeScreenInput();
    // Ends a makeScreenInput() that waits for the user; the portal session is closed. Any thread.
    void cancelPendingStart();

    [[nodiscard]] std::optional<MainScreen> mainScreen() const;

private:
    DefaultsStore& settings_;
    const DisplayProvider* fallback_;
    const int poolSize_;
    std::function<void()> onEnded_;  // fixed before the first recording
    mutable std::mutex mutex_;
    std::shared_ptr<WakeFd> pending_;   // guarded by mutex_; the waiting start's cancel
    int width_ = 0;                     // guarded by mutex_; the last granted monitor
    int height_ = 0;                    // guarded by mutex_
};

class PortalDisplayProvider final : public DisplayProvider {
public:
    explicit PortalDisplayProvider(const PortalScreenCapture& capture) : capture_(capture) {}
    [[nodiscard]] std::optional<MainScreen> mainScreen() const override {
        return capture_.mainScreen();
    }

private:
    const PortalScreenCapture& capture_;
};

}  // namespace gb::linuxp
