// What the screen recorder needs of its four services (permissions, capture, the output file and
// writer, composition), and the protocol through which captured samples reach it.
//
// Threads: the permission, capture set-up and writer operations are called one after the other
// from the recorder's start on the background executor; the sample hand-off and both composition
// operations run on the recording queue; cleanup() and the sessions' stop run on the start's
// thread (after a failure) or the main thread. Option fields are written on the main thread and
// read on other threads; implementations keep each one a single atomic value.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/asset_writer.h"
#include "platform/capture.h"
#include "platform/media.h"
#include "recording/options.h"

namespace gb {

class CaptureService;

// Receives every captured sample, on the recording queue, in delivery order.
class CaptureSessionManagerDelegate {
public:
    virtual ~CaptureSessionManagerDelegate() = default;
    virtual void captureSessionManager(CaptureService& manager, const SampleBufferRef& sample,
                                       CaptureOutput& output) = 0;
    // A running session lost an input for good; any thread. The recording cannot go on as it was.
    virtual void captureSessionManagerWasInterrupted(CaptureService& manager,
                                                     const std::string& reason) {
        (void)manager;
        (void)reason;
    }
};

class PermissionService {
public:
    virtual ~PermissionService() = default;
    // Blocks until the system answered. Never fails.
    virtual bool checkAllPermissions(bool includeCamera) = 0;
    // "microphone" and "camera", in that order, of what is not granted.
    virtual std::vector<std::string> missingPermissions(bool includeCamera) = 0;
};

class CaptureService {
public:
    virtual ~CaptureService() = default;
    // Held weakly.
    virtual void setDelegate(std::weak_ptr<CaptureSessionManagerDelegate> delegate) = 0;
    // Throw CaptureSessionError.
    virtual void setupScreenCapture() = 0;
    virtual void setupCamera() = 0;
    // Stops the sessions, removes every input and output and forgets them. Never fails.
    virtual void cleanup() = 0;
    [[nodiscard]] virtual CaptureSession& screenCaptureSession() = 0;
    [[nodiscard]] virtual CaptureSession& cameraCaptureSession() = 0;
    [[nodiscard]] virtual std::shared_ptr<CaptureOutput> videoOutput() const = 0;
    [[nodiscard]] virtual std::shared_ptr<CaptureOutput> cameraOutput() const = 0;
    [[nodiscard]] virtual std::shared_ptr<CaptureOutput> audioOutput() const = 0;
    [[nodiscard]] virtual bool cameraOverlayEnabled() const = 0;
    virtual void setCameraOverlayEnabled(bool enabled) = 0;
    [[nodiscard]] virtual CameraOverlayPreset cameraOverlayPreset() const = 0;
    virtual void setCameraOverlayPreset(CameraOverlayPreset preset) = 0;
};

struct WriterBundle {
    AssetWriterRef writer;
    AssetWriterInputRef videoInput;
    AssetWriterInputRef audioInput;
};

class WriterService {
public:
    virtual ~WriterService() = default;
    // The started writer and its two inputs; throws RecordingFileManagerError.
    virtual WriterBundle createAssetWriter(VideoQuality quality) = 0;
    [[nodiscard]] virtual std::optional<std::string> currentOutputURL() const = 0;
    virtual void clearCurrentOutputURL() = 0;
    // Shows the folder picker and stores the choice (main thread).
    virtual void chooseSaveLocation() = 0;
};

class CompositionService {
public:
    virtual ~CompositionService() = default;
    // Null when no sample can be made.
    [[nodiscard]] virtual SampleBufferRef composeFrame(const PixelBufferRef& screenBuffer,
                                                       const PixelBufferRef& cameraBuffer,
                                                       MediaTime presentationTime) = 0;
    [[nodiscard]] virtual SampleBufferRef createSampleBuffer(const PixelBufferRef& buffer,
                                                             MediaTime presentationTime) = 0;
    [[nodiscard]] virtual bool cameraOverlayEnabled() const = 0;
    virtual void setCameraOverlayEnabled(bool enabled) = 0;
    [[nodiscard]] virtual CameraOverlayPreset cameraOverlayPreset() const = 0;
    virtual void setCameraOverlayPreset(CameraOverlayPreset preset) = 0;
    [[nodiscard]] virtual CameraPosition cameraPosition() const = 0;
    virtual void setCameraPosition(CameraPosition position) = 0;
};

}  // namespace gb
