// The recorder: drives one recording at a time from start to finished file and reports every
// outcome through ScreenRecorderDelegate.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "platform/dispatch.h"
#include "recording/errors.h"
#include "recording/options.h"
#include "recording/service_contracts.h"

namespace gb {

// Threads: recorderDidStart and a failed start's recorderDidFail arrive on the background
// executor; recorderDidStop and a failed finalisation's recorderDidFail on the main thread.
class ScreenRecorderDelegate {
public:
    virtual ~ScreenRecorderDelegate() = default;
    virtual void recorderDidStart() = 0;
    virtual void recorderDidStop(const std::string& outputURL) = 0;
    virtual void recorderDidFail(const ScreenRecorderError& error) = 0;
};

class ScreenRecorder : public CaptureSessionManagerDelegate,
                       public std::enable_shared_from_this<ScreenRecorder> {
public:
    struct Services {
        std::shared_ptr<PermissionService> permissionManager;
        std::shared_ptr<CaptureService> captureSessionManager;
        std::shared_ptr<CompositionService> videoComposer;
        std::shared_ptr<WriterService> fileManager;
    };

    // Builds the recorder and makes it the capture service's delegate.
    static std::shared_ptr<ScreenRecorder> create(Services services, Dispatch& dispatch);

    // Held weakly.
    void setDelegate(std::weak_ptr<ScreenRecorderDelegate> delegate);

    // Runs the start on the background executor and returns at once. `cancellation` is the
    // starting task's token (it cuts the start's pause short); `completion`, if given, runs on
    // the background executor once the start has reported its outcome.
    void startRecording(CancellationToken cancellation = {}, std::function<void()> completion = {});
    // Main thread. The outcome is reported later.
    void stopRecording();

    [[nodiscard]] bool isRecording() const;

    // Options; written on the main thread, read anywhere.
    [[nodiscard]] bool cameraOverlayEnabled() const;
    void setCameraOverlayEnabled(bool enabled);
    [[nodiscard]] CameraOverlayPreset cameraOverlayPreset() const;
    void setCameraOverlayPreset(CameraOverlayPreset preset);
    [[nodiscard]] CameraPosition cameraPosition() const;
    void setCameraPosition(CameraPosition position);
    [[nodiscard]] double cameraOverlayCornerRadius() const;
    [[nodiscard]] VideoQuality videoQuality() const;
    void setVideoQuality(VideoQuality quality);
    [[nodiscard]] int32_t frameRate() const;

    // The owned services, for the application's option writes and the folder picker.
    [[nodiscard]] CaptureService& captureSessionManager();
    [[nodiscard]] CompositionService& videoComposer();
    [[nodiscard]] WriterService& fileManager();

    void captureSessionManager(CaptureService& manager, const SampleBufferRef& sample,
                               CaptureOutput& output) override;

    // (private state added by the implementation)
};

}  // namespace gb
