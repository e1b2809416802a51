#include "linux/wayland/portal_screen_capture.h"

#include <utility>

#include "linux/wayland/pipewire_screen_input.h"
#include "recording/log.h"

namespace gb::linuxp {

// The display identifier the portal's monitor goes by; there is only the granted one.
constexpr uint32_t kPortalDisplayID = 1;

PortalScreenCapture::PortalScreenCapture(DefaultsStore& settings, const DisplayProvider* fallback,
                                         int poolSize)
    : settings_(settings), fallback_(fallback), poolSize_(poolSize) {}

void PortalScreenCapture::setStreamEndedHandler(std::function<void()> handler) {
    onEnded_ = std::move(handler);
}

std::shared_ptr<ScreenInput> PortalScreenCapture::makeScreenInput() {
    auto cancel = std::make_shared<WakeFd>();
    {
        std::lock_guard lock(mutex_);
        pending_ = cancel;
    }
    ScreenCastRequestOptions options;
    options.restoreToken = settings_.stringForKey(kScreenCastRestoreTokenKey);
    auto session = ScreenCastSession::open(options, *cancel);
    {
        std::lock_guard lock(mutex_);
        pending_.reset();
    }
    if (!session.ok()) {
        logLine("❌ Screen capture through the portal is unavailable: " +
                session.error().localizedDescription);
        return nullptr;
    }
    // Each token works once: the new one replaces it, or none is left.
    settings_.setString(session.value()->grant().restoreToken, kScreenCastRestoreTokenKey);
    const int grantedWidth = session.value()->grant().width;
    const int grantedHeight = session.value()->grant().height;
    if (grantedWidth > 0 && grantedHeight > 0) {
        std::lock_guard lock(mutex_);
        width_ = grantedWidth;
        height_ = grantedHeight;
    }
    auto onEnded = onEnded_;
    auto source = PipeWireScreenSource::connect(std::move(session.value()), poolSize_,
                                                [onEnded](const std::string&) {
                                                    if (onEnded) onEnded();
                                                });
    if (!source.ok()) {
        logLine("❌ Screen capture through the portal is unavailable: " +
                source.error().localizedDescription);
        return nullptr;
    }
    if (grantedWidth <= 0 || grantedHeight <= 0) {
        // No logical size from the portal: the stream's pixels it is.
        std::lock_guard lock(mutex_);
        width_ = source.value()->width();
        height_ = source.value()->height();
    }
    return std::make_shared<PipeWireScreenInput>(std::move(source.value()));
}

void PortalScreenCapture::cancelPendingStart() {
    std::lock_guard lock(mutex_);
    if (pending_) pending_->signal();
}

std::optional<MainScreen> PortalScreenCapture::mainScreen() const {
    MainScreen screen;
    {
        std::lock_guard lock(mutex_);
        screen.widthPoints = width_;
        screen.heightPoints = height_;
    }
    if (screen.widthPoints <= 0 && fallback_ != nullptr) {
        if (auto other = fallback_->mainScreen()) {
            screen.widthPoints = other->widthPoints;
            screen.heightPoints = other->heightPoints;
        }
    }
    screen.deviceDescription[kScreenNumberKey] = kPortalDisplayID;
    return screen;
}

}  // namespace gb::linuxp
