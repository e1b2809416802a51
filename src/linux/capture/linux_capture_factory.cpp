#include "linux/capture/linux_capture_factory.h"

#include <map>
#include <mutex>
#include <utility>

#include "linux/capture/capture_source.h"
#include "linux/capture/linux_capture_session.h"
#include "recording/log.h"

namespace gb::linuxp {

LinuxCaptureFactory::LinuxCaptureFactory(Parts parts) : parts_(std::move(parts)) {
    if (!parts_.screenInputMaker) parts_.screenInputMaker = x11ScreenInputMaker();
}

namespace {

// Prepared screen inputs by display, kept between recordings.
struct ScreenInputCache {
    std::mutex mutex;
    std::map<uint32_t, std::shared_ptr<X11ScreenInput>> inputs;  // guarded by mutex
};

}  // namespace

LinuxCaptureFactory::ScreenInputMaker LinuxCaptureFactory::x11ScreenInputMaker(
    X11CaptureOptions options, bool refuseInWayland) {
    return [options = std::move(options), cache = std::make_shared<ScreenInputCache>(),
            refuseInWayland](uint32_t displayID) -> std::shared_ptr<ScreenInput> {
        if (refuseInWayland && isWaylandSessionFromEnvironment()) {
            logLine("❌ Screen capture through X11 cannot see a Wayland session's windows");
            return nullptr;
        }
        // Preparing an input costs about half a second (first-touch page faults of its shared
        // frame buffers on both sides). An input that no session holds any more serves the next
        // recording as it is; creation holds the lock, so a concurrent request waits for it.
        std::lock_guard lock(cache->mutex);
        auto& cached = cache->inputs[displayID];
        if (cached && cached.use_count() == 1 && cached->screenSource().prepare().ok()) {
            return cached;
        }
        cached = X11ScreenInput::create(displayID, options);
        return cached;
    };
}

void LinuxCaptureFactory::prepareScreenInput(uint32_t displayID) {
    // Made and dropped: the maker's cache keeps it for the first recording. The lock is held
    // until this reference is gone, or a recording asking meanwhile would find the input in
    // use and prepare a second one.
    std::lock_guard lock(preparing_);
    (void)parts_.screenInputMaker(displayID);
}

std::shared_ptr<CaptureSession> LinuxCaptureFactory::makeSession() {
    return std::make_shared<LinuxCaptureSession>();
}

std::shared_ptr<ScreenInput> LinuxCaptureFactory::makeScreenInput(uint32_t displayID) {
    { std::lock_guard wait(preparing_); }
    return parts_.screenInputMaker(displayID);
}

CaptureDeviceRef LinuxCaptureFactory::defaultAudioDevice() {
    return parts_.defaultMicrophone ? parts_.defaultMicrophone() : nullptr;
}

std::vector<CaptureDeviceRef> LinuxCaptureFactory::discoverVideoDevices() {
    return parts_.cameras ? parts_.cameras() : std::vector<CaptureDeviceRef>{};
}

Result<std::shared_ptr<CaptureInput>> LinuxCaptureFactory::makeDeviceInput(
    const CaptureDeviceRef& device) {
    auto* maker = dynamic_cast<InputMakingDevice*>(device.get());
    if (maker == nullptr) {
        return PlatformError{"glimmerbox.capture", 1,
                             "This device cannot be opened as a capture input"};
    }
    return maker->makeInput();
}

std::shared_ptr<VideoDataOutput> LinuxCaptureFactory::makeVideoDataOutput() {
    return std::make_shared<LinuxVideoDataOutput>();
}

std::shared_ptr<AudioDataOutput> LinuxCaptureFactory::makeAudioDataOutput() {
    return std::make_shared<LinuxAudioDataOutput>();
}

}  // namespace gb::linuxp
