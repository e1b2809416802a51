// How the Linux capture pieces fit together: a device (microphone, camera) makes inputs; an input
// owns a capture source; a running session connects each input's source to its output of the same
// media type. Sources run their own threads and hand every sample to `deliver` without waiting.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "platform/capture.h"
#include "platform/result.h"

namespace gb::linuxp {

class CaptureSource {
public:
    // Called on the source's own thread; must not block (outputs drop what they cannot queue).
    using Deliver = std::function<void(const SampleBufferRef& sample)>;

    virtual ~CaptureSource() = default;
    [[nodiscard]] virtual MediaType mediaType() const = 0;
    // Starts producing samples. A failure is logged by the caller; the session runs without it.
    [[nodiscard]] virtual Result<void> start(Deliver deliver) = 0;
    // Returns once `deliver` will not be called again. Safe to call when not started.
    virtual void stop() = 0;

    // Set before start. A source whose device, server or stream goes away for good while
    // started calls it once, on its own thread, with the reason; it must not block there.
    using Interrupted = std::function<void(const std::string& reason)>;
    virtual void setInterruptedHandler(Interrupted handler) { (void)handler; }
};

// Implemented by every Linux CaptureInput: the source behind it.
class SourceBackedInput {
public:
    virtual ~SourceBackedInput() = default;
    [[nodiscard]] virtual CaptureSource& captureSource() = 0;
};

// Implemented by every Linux CaptureDevice: makes the device's input.
class InputMakingDevice {
public:
    virtual ~InputMakingDevice() = default;
    [[nodiscard]] virtual Result<std::shared_ptr<CaptureInput>> makeInput() = 0;
};

}  // namespace gb::linuxp
