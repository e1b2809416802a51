// The Linux capture factory: sessions and data outputs of this platform, the X11 screen input,
// and the microphone and cameras that the audio and camera code provide when the program is
// wired together.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "linux/x11/x11_screen_input.h"
#include "platform/capture.h"

namespace gb::linuxp {

class LinuxCaptureFactory final : public CaptureFactory {
public:
    using ScreenInputMaker = std::function<std::shared_ptr<ScreenInput>(uint32_t displayID)>;
    using MicrophoneProvider = std::function<CaptureDeviceRef()>;
    using CameraProvider = std::function<std::vector<CaptureDeviceRef>()>;

    struct Parts {
        ScreenInputMaker screenInputMaker;     // empty: X11 with default options
        MicrophoneProvider defaultMicrophone;  // empty: there is no microphone
        CameraProvider cameras;                // empty: there are no cameras
    };

    explicit LinuxCaptureFactory(Parts parts = {});

    // X11 screen inputs; in a Wayland session none (with a log line), since X11 would record
    // black frames there, unless the user asked for X11 anyway (`refuseInWayland` false).
    [[nodiscard]] static ScreenInputMaker x11ScreenInputMaker(X11CaptureOptions options = {},
                                                              bool refuseInWayland = true);

    // Prepares the display's screen input ahead of the first recording, so that its start does
    // not pay for it. Blocks for as long as that takes; call it off the main thread.
    void prepareScreenInput(uint32_t displayID);

    [[nodiscard]] std::shared_ptr<CaptureSession> makeSession() override;
    [[nodiscard]] std::shared_ptr<ScreenInput> makeScreenInput(uint32_t displayID) override;
    [[nodiscard]] CaptureDeviceRef defaultAudioDevice() override;
    [[nodiscard]] std::vector<CaptureDeviceRef> discoverVideoDevices() override;
    // The device's own input (InputMakingDevice); a PlatformError for any other device.
    [[nodiscard]] Result<std::shared_ptr<CaptureInput>> makeDeviceInput(
        const CaptureDeviceRef& device) override;
    [[nodiscard]] std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override;
    [[nodiscard]] std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override;

private:
    Parts parts_;           // fixed after construction
    std::mutex preparing_;  // held while prepareScreenInput() runs
};

}  // namespace gb::linuxp
