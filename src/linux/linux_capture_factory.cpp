#include "linux/linux_capture_factory.h"

#include <utility>

#include "linux/capture_source.h"
#include "linux/linux_capture_session.h"
#include "recording/log.h"

namespace gb::linuxp {

LinuxCaptureFactory::LinuxCaptureFactory(Parts parts) : parts_(std::move(parts)) {}

LinuxCaptureFactory::ScreenInputMaker LinuxCaptureFactory::x11ScreenInputMaker(
    X11CaptureOptions options) {
    return [options = std::move(options)](uint32_t displayID) -> std::shared_ptr<ScreenInput> {
        if (isWaylandSessionFromEnvironment()) {
            logLine("❌ Screen capture through X11 cannot see a Wayland session's windows");
            return nullptr;
        }
        return X11ScreenInput::create(displayID, options);
    };
}

std::shared_ptr<CaptureSession> LinuxCaptureFactory::makeSession() {
    return std::make_shared<LinuxCaptureSession>();
}

std::shared_ptr<ScreenInput> LinuxCaptureFactory::makeScreenInput(uint32_t displayID) {
    if (parts_.screenInputMaker) return parts_.screenInputMaker(displayID);
    return x11ScreenInputMaker()(displayID);
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
