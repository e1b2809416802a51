// Owns everything that captures: the screen session (main display, microphone, screen and audio
// outputs), the camera session, their inputs and outputs, and the serial recording queue on which
// every sample arrives and is handed to the delegate unchanged.
//
// Threads: the set-ups run on the recorder's start (background executor), cleanup() on the
// start's thread or the main thread, the hand-off on the recording queue. The stored inputs,
// outputs and the delegate are guarded by fieldsMutex_ so that the recording queue can read them
// while cleanup() forgets them; the overlay options are atomics written on the main thread.
// Must be owned by a shared_ptr: the outputs hold it weakly as their sample delegate.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "capture/camera_manager.h"
#include "platform/capture.h"
#include "platform/dispatch.h"
#include "platform/display.h"
#include "recording/options.h"
#include "recording/service_contracts.h"

namespace gb {

class CaptureSessionManager final : public CaptureService,
                                    public CaptureOutputDelegate,
                                    public std::enable_shared_from_this<CaptureSessionManager> {
public:
    static constexpr const char* kRecordingQueueLabel = "glimmerbox.recording";

    CaptureSessionManager(CaptureFactory& factory, DisplayProvider& display, Dispatch& dispatch);
    CaptureSessionManager(const CaptureSessionManager&) = delete;
    CaptureSessionManager& operator=(const CaptureSessionManager&) = delete;
    ~CaptureSessionManager() override = default;

    void setDelegate(std::weak_ptr<CaptureSessionManagerDelegate> delegate) override;

    // Both throw CaptureSessionError. A failure rolls nothing back: what was attached stays
    // attached and stored until cleanup(). The configuration is committed on every path.
    void setupScreenCapture() override;
    // With the overlay off: returns at once. Finding no camera is not a failure.
    void setupCamera() override;
    void cleanup() override;

    [[nodiscard]] CaptureSession& screenCaptureSession() override { return *screenSession_; }
    [[nodiscard]] CaptureSession& cameraCaptureSession() override { return *cameraSession_; }
    [[nodiscard]] std::shared_ptr<CaptureOutput> videoOutput() const override;
    [[nodiscard]] std::shared_ptr<CaptureOutput> cameraOutput() const override;
    [[nodiscard]] std::shared_ptr<CaptureOutput> audioOutput() const override;
    [[nodiscard]] std::shared_ptr<ScreenInput> screenInput() const;
    [[nodiscard]] std::shared_ptr<CaptureInput> micInput() const;
    [[nodiscard]] std::shared_ptr<CaptureInput> cameraInput() const;

    [[nodiscard]] bool cameraOverlayEnabled() const override { return overlayEnabled_.load(); }
    void setCameraOverlayEnabled(bool enabled) override { overlayEnabled_.store(enabled); }
    [[nodiscard]] CameraOverlayPreset cameraOverlayPreset() const override {
        return overlayPreset_.load();
    }
    void setCameraOverlayPreset(CameraOverlayPreset preset) override {
        overlayPreset_.store(preset);
    }

    // Highest screen frame rate; the screen input's minimum frame duration is 1/frameRate s.
    [[nodiscard]] int32_t frameRate() const { return kFrameRate; }
    [[nodiscard]] const std::shared_ptr<SerialQueue>& recordingQueue() const {
        return recordingQueue_;
    }
    [[nodiscard]] CameraManager& cameraManager() { return cameraManager_; }

    // The hand-off, on the recording queue: one fetch of the delegate, one call.
    void captureOutput(CaptureOutput& output, const SampleBufferRef& sample) override;

private:
    static constexpr int32_t kFrameRate = 30;

    // Each adds its inputs (and output) and answers what went wrong, if anything.
    [[nodiscard]] std::optional<std::string> attachMicrophone(const CaptureDeviceRef& microphone);
    [[nodiscard]] std::optional<std::string> attachCamera(const CaptureDeviceRef& camera);
    [[nodiscard]] std::shared_ptr<VideoDataOutput> makeBGRAOutput();

    CaptureFactory& factory_;
    DisplayProvider& display_;

    const std::shared_ptr<CaptureSession> screenSession_;
    const std::shared_ptr<CaptureSession> cameraSession_;
    const std::shared_ptr<SerialQueue> recordingQueue_;
    CameraManager cameraManager_;

    std::atomic<bool> overlayEnabled_{true};
    std::atomic<CameraOverlayPreset> overlayPreset_{CameraOverlayPreset::medium};

    mutable std::mutex fieldsMutex_;
    std::weak_ptr<CaptureSessionManagerDelegate> delegate_;  // guarded by fieldsMutex_
    std::shared_ptr<ScreenInput> screenInput_;               // guarded by fieldsMutex_
    std::shared_ptr<CaptureInput> micInput_;                 // guarded by fieldsMutex_
    std::shared_ptr<CaptureInput> cameraInput_;              // guarded by fieldsMutex_
    std::shared_ptr<VideoDataOutput> videoOutput_;           // guarded by fieldsMutex_
    std::shared_ptr<AudioDataOutput> audioOutput_;           // guarded by fieldsMutex_
    std::shared_ptr<VideoDataOutput> cameraOutput_;          // guarded by fieldsMutex_
};

}  // namespace gb
