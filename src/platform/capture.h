// Capture: sessions, their inputs (screen, microphone, camera) and data outputs, and the capture
// devices with their formats.
//
// Threads: sessions, inputs, outputs and devices are configured from the recorder's start (the
// background executor) and stopped from the main thread or the start; a session's methods may be
// called from any thread but not concurrently with each other for the same session. Samples are
// delivered by each output to its delegate on the queue given to setSampleBufferDelegate, one at a
// time. A capture thread never waits for the delegate: a sample that cannot be handed over at
// once is dropped (and counted) by the implementation.
// Ownership: a session holds shared references to what was added to it until removed. Outputs
// hold their delegate weakly and their queue strongly.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/dispatch.h"
#include "platform/media.h"
#include "platform/result.h"

namespace gb {

class CaptureOutput;

// Receives the samples of a data output.
class CaptureOutputDelegate {
public:
    virtual ~CaptureOutputDelegate() = default;
    // Called on the output's delivery queue, once per sample, in delivery order.
    virtual void captureOutput(CaptureOutput& output, const SampleBufferRef& sample) = 0;
};

// Something a session can take as an input. Identity is the object itself.
class CaptureInput {
public:
    virtual ~CaptureInput() = default;
    [[nodiscard]] virtual MediaType mediaType() const = 0;
};

// A data output; compared with the output argument of a delivery by object identity.
class CaptureOutput {
public:
    virtual ~CaptureOutput() = default;
    [[nodiscard]] virtual MediaType mediaType() const = 0;
    // Samples will be delivered to `delegate` (held weakly) on `queue`.
    virtual void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                         std::shared_ptr<SerialQueue> queue) = 0;
};

struct VideoOutputSettings {
    uint32_t pixelFormat = kPixelFormatBGRA;  // the only format implementations must support
};

class VideoDataOutput : public CaptureOutput {
public:
    [[nodiscard]] MediaType mediaType() const override { return MediaType::video; }
    virtual void setVideoSettings(const VideoOutputSettings& settings) = 0;
};

class AudioDataOutput : public CaptureOutput {
public:
    [[nodiscard]] MediaType mediaType() const override { return MediaType::audio; }
};

// The screen capture input for one display.
class ScreenInput : public CaptureInput {
public:
    [[nodiscard]] MediaType mediaType() const override { return MediaType::video; }
    // The shortest time between two delivered frames (value 1, timescale 30 = at most 30 fps).
    virtual void setMinFrameDuration(MediaTime duration) = 0;
    // The longest time between two delivered frames while the screen does not change; an input
    // that delivers only changed frames then delivers the previous picture again. Inputs that
    // deliver every frame ignore it.
    virtual void setMaxFrameDuration(MediaTime duration) { (void)duration; }
};

// A capture session: connects its inputs to its outputs of the same media type while running.
class CaptureSession {
public:
    virtual ~CaptureSession() = default;
    virtual void beginConfiguration() = 0;
    virtual void commitConfiguration() = 0;
    [[nodiscard]] virtual bool canAddInput(const std::shared_ptr<CaptureInput>& input) = 0;
    virtual void addInput(std::shared_ptr<CaptureInput> input) = 0;
    [[nodiscard]] virtual bool canAddOutput(const std::shared_ptr<CaptureOutput>& output) = 0;
    virtual void addOutput(std::shared_ptr<CaptureOutput> output) = 0;
    // In the session's own order (the order of adding).
    [[nodiscard]] virtual std::vector<std::shared_ptr<CaptureInput>> inputs() const = 0;
    [[nodiscard]] virtual std::vector<std::shared_ptr<CaptureOutput>> outputs() const = 0;
    virtual void removeInput(const std::shared_ptr<CaptureInput>& input) = 0;
    virtual void removeOutput(const std::shared_ptr<CaptureOutput>& output) = 0;
    // Start and stop delivery. Stopping a stopped session does nothing. stopRunning returns once
    // no capture thread of this session will deliver again.
    virtual void startRunning() = 0;
    virtual void stopRunning() = 0;
    [[nodiscard]] virtual bool isRunning() const = 0;

    // Called, on any thread, when an input of the running session stopped for good (its device
    // or server went away, the system ended its stream), with a reason for the log and the user.
    // Called at most once per run; the handler must not call back into the session.
    using InterruptionHandler = std::function<void(const std::string& reason)>;
    virtual void setInterruptionHandler(InterruptionHandler handler) { (void)handler; }
};

// Pixel dimensions of one capture format.
struct CameraFormat {
    int32_t width = 0;
    int32_t height = 0;
    friend bool operator==(const CameraFormat&, const CameraFormat&) = default;
};

// What the logic reads of a capture device.
// How a camera is attached, when the platform can tell: part of the machine (a fixed bus or a
// USB port marked fixed), plugged in (removable USB), or made by software (a loopback device).
enum class CameraAttachment { unknown, fixed, removable, software };

struct CameraDeviceInfo {
    std::string localizedName;
    std::string uniqueID;
    int position = 0;  // 0 unspecified, 1 back, 2 front
    bool connected = false;
    bool suspended = false;
    std::vector<CameraFormat> formats;  // in the device's own order
    int activeFormatIndex = -1;         // index into formats, -1 when there is none
    CameraAttachment attachment = CameraAttachment::unknown;
};

// A capture device (a camera or a microphone).
class CaptureDevice {
public:
    virtual ~CaptureDevice() = default;
    [[nodiscard]] virtual MediaType mediaType() const = 0;
    // A fresh reading of the device's description.
    [[nodiscard]] virtual CameraDeviceInfo info() const = 0;
    // Exclusive control of the device's settings; fails when another program holds the device.
    [[nodiscard]] virtual Result<void> lockForConfiguration() = 0;
    // Makes formats[index] of info() the active format. Only while locked.
    virtual void setActiveFormat(int formatIndex) = 0;
    virtual void unlockForConfiguration() = 0;
};
using CaptureDeviceRef = std::shared_ptr<CaptureDevice>;

// Creates sessions, inputs and outputs and finds devices. Any thread.
class CaptureFactory {
public:
    virtual ~CaptureFactory() = default;
    [[nodiscard]] virtual std::shared_ptr<CaptureSession> makeSession() = 0;
    // An input for the display, or null when screen capture is not possible (no permission, or
    // a session type that cannot be captured).
    [[nodiscard]] virtual std::shared_ptr<ScreenInput> makeScreenInput(uint32_t displayID) = 0;
    // The default microphone, or null.
    [[nodiscard]] virtual CaptureDeviceRef defaultAudioDevice() = 0;
    // Every camera, in the platform's discovery order.
    [[nodiscard]] virtual std::vector<CaptureDeviceRef> discoverVideoDevices() = 0;
    [[nodiscard]] virtual Result<std::shared_ptr<CaptureInput>> makeDeviceInput(
        const CaptureDeviceRef& device) = 0;
    [[nodiscard]] virtual std::shared_ptr<VideoDataOutput> makeVideoDataOutput() = 0;
    [[nodiscard]] virtual std::shared_ptr<AudioDataOutput> makeAudioDataOutput() = 0;
};

}  // namespace gb
