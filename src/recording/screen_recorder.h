// The recorder: drives one recording at a time from start to finished file and reports every
// outcome through ScreenRecorderDelegate.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
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
    // A capture input went away for good; the recording is being stopped and finished (its
    // outcome follows as recorderDidStop or recorderDidFail). Main thread.
    virtual void recorderWasInterrupted(const std::string& reason) { (void)reason; }
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
    // A start while a recording runs, or while another start or a finish is still under way, is
    // refused with a log line and reports nothing.
    void startRecording(CancellationToken cancellation = {}, std::function<void()> completion = {});
    // Main thread. The outcome is reported later.
    void stopRecording();

    [[nodiscard]] bool isRecording() const;
    // True while a recording is starting, running or having its file finished: the program
    // must not exit yet if it wants the file finished.
    [[nodiscard]] bool hasUnfinishedRecording() const;

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

    // Any thread. Ends the running recording as if Stop had been chosen, after one log line.
    void captureSessionManagerWasInterrupted(CaptureService& manager,
                                             const std::string& reason) override;
    void captureSessionManager(CaptureService& manager, const SampleBufferRef& sample,
                               CaptureOutput& output) override;

private:
    struct ConstructionKey {
        explicit ConstructionKey() = default;
    };

public:
    // Use create(), which also installs the recorder as the capture service's delegate.
    ScreenRecorder(ConstructionKey, Services services, Dispatch& dispatch);

private:
    void runStart(const CancellationToken& cancellation);
    // The start's set-up, writer creation, session start and pause; throws on failure.
    void startSteps(uint64_t generation, const CancellationToken& cancellation);
    // The common end of a start whose set-up, writer creation or pause threw.
    void failStart(uint64_t generation, const std::string& errorText, ScreenRecorderError error);
    static void finishStep(const std::weak_ptr<ScreenRecorder>& weakSelf,
                           const AssetWriterRef& writer, const std::string& outputURL,
                           uint64_t generation);
    // Resets every per-recording field and the capture service. Callers clear isRecording first.
    void cleanup();
    [[nodiscard]] bool isRecordingGeneration(uint64_t generation) const;
    [[nodiscard]] std::shared_ptr<ScreenRecorderDelegate> currentDelegate() const;

    void handleScreenSample(std::unique_lock<std::mutex>& lock, const SampleBuffer& sample,
                            MediaTime time);
    void handleCameraSample(std::unique_lock<std::mutex>& lock, const SampleBuffer& sample);
    void handleAudioSample(std::unique_lock<std::mutex>& lock, const SampleBufferRef& sample);

    const Services services_;
    Dispatch& dispatch_;

    // Options: written on the main thread, read on the start's thread and the recording queue.
    std::atomic<bool> cameraOverlayEnabled_{true};
    std::atomic<CameraOverlayPreset> cameraOverlayPreset_{CameraOverlayPreset::medium};
    std::atomic<CameraPosition> cameraPosition_{CameraPosition::bottomRight};
    std::atomic<double> cameraOverlayCornerRadius_{20.0};
    std::atomic<VideoQuality> videoQuality_{VideoQuality::screenResolution};
    std::atomic<int32_t> frameRate_{30};

    // mutex_ guards the per-recording fields shared by the start (background executor), the
    // sample steps (recording queue) and the stop, finish and clean-up steps (main thread). It is
    // held only for field updates and the writer's non-blocking calls (status, session start,
    // append, readiness); never while sessions start or stop, while the writer finishes, while
    // the composer works or while a delegate is called, so a session's stopRunning can wait for
    // a delivery that needs mutex_. Appends happen under it, so none follows the stop's
    // markAsFinished.
    mutable std::mutex mutex_;
    std::weak_ptr<ScreenRecorderDelegate> delegate_;  // guarded by mutex_
    bool isRecording_ = false;                        // guarded by mutex_
    // Which start the per-recording fields belong to; bumped by each accepted start.
    uint64_t generation_ = 0;  // guarded by mutex_
    // A start runs between its first log line and its report; a new start is refused meanwhile.
    bool starting_ = false;  // guarded by mutex_
    // The writer was asked to finish and the finish step has not run yet; a new start is refused
    // meanwhile, so the finish step's clean-up never meets a newer recording.
    bool finishing_ = false;  // guarded by mutex_
    // A start that came during the finish; runs when the finish step is done. Guarded by mutex_.
    std::function<void()> startAfterFinish_;
    // The stop took the current recording over while its start was still running; the start's
    // failure path then leaves its clean-up to the stop and finish steps.
    bool stopTookOver_ = false;           // guarded by mutex_
    std::optional<MediaTime> startTime_;  // guarded by mutex_
    PixelBufferRef latestCameraBuffer_;   // guarded by mutex_
    PixelBufferRef latestScreenBuffer_;   // guarded by mutex_
    int64_t cameraSampleCount_ = 0;       // guarded by mutex_
    int64_t screenSampleCount_ = 0;       // guarded by mutex_
    AssetWriterRef assetWriter_;          // guarded by mutex_
    AssetWriterInputRef videoInput_;      // guarded by mutex_
    AssetWriterInputRef audioInput_;      // guarded by mutex_
    // Samples dropped because the writer was not writing: the first is logged, the rest counted
    // and told at stop. A failed writer ends the recording once.
    int64_t notWritingRepeats_ = -1;  // guarded by mutex_; -1 before the first
    bool stoppingForWriterFailure_ = false;  // guarded by mutex_

    // Orders the start's session start against the stop's session stop, so a recording stopped
    // during its start never has its sessions started afterwards. Taken before mutex_, never
    // while holding it.
    std::mutex sessionsMutex_;
};

}  // namespace gb
