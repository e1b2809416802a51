// Capture access on Linux. There is no consent prompt: the microphone is refused when the sound
// server refuses this client (an access error), the camera when video device nodes exist and this
// user may open none of them (typically not in the "video" group). Everything else is granted:
// a missing server or camera is reported by the capture set-up, not as a refusal.
//
// Threads: any thread; the completion runs exactly once, on the calling thread, before
// requestAccess returns (the audio answer may take up to the server timeout).
#pragma once

#include <chrono>
#include <string>

#include "linux/pulse/pulse_microphone.h"
#include "platform/access.h"

namespace gb::linuxp {

class PulseAccessRequester final : public AccessRequester {
public:
    // `deviceDirectory` is where the video device nodes (video0, video1, ...) live.
    explicit PulseAccessRequester(std::string deviceDirectory = "/dev",
                                  std::chrono::milliseconds serverTimeout = kPulseProbeTimeout)
        : deviceDirectory_(std::move(deviceDirectory)), serverTimeout_(serverTimeout) {}

    void requestAccess(MediaType type, std::function<void(bool granted)> completion) override;

    [[nodiscard]] bool audioAccessGranted() const;
    [[nodiscard]] bool videoAccessGranted() const;

private:
    const std::string deviceDirectory_;
    const std::chrono::milliseconds serverTimeout_;
};

}  // namespace gb::linuxp
