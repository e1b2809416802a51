// Fakes of the recorder's service contracts and of its application-side delegate, plus sample
// buffers for tests: stub capture outputs, a capture service (over two fake sessions) whose set-ups
// fail on demand and through whose outputs tests deliver samples (at once, or on a recording
// queue), a composition service that records its calls, and a delegate that records every report.
// All thread-safe.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fakes/fake_capture_platform.h"
#include "fakes/locked.h"
#include "fakes/log_capture.h"
#include "platform/capture.h"
#include "platform/dispatch.h"
#include "platform/media.h"
#include "recording/errors.h"
#include "recording/screen_recorder.h"
#include "recording/service_contracts.h"

namespace gb::fakes {

struct ImageSize {
    int width = 0;
    int height = 0;
};

// A video sample at `time`, with a fresh image of `image` size, or without an image.
[[nodiscard]] SampleBufferRef makeVideoSample(MediaTime time, std::optional<ImageSize> image);
// An audio sample at `time` (10 ms of silent 44.1 kHz stereo).
[[nodiscard]] SampleBufferRef makeAudioSample(MediaTime time);
// value / 600 s, the usual video timescale.
[[nodiscard]] constexpr MediaTime mediaTime(int64_t value) {
    return MediaTime::make(value, 600);
}

class StubCaptureOutput final : public CaptureOutput {
public:
    explicit StubCaptureOutput(MediaType type) : type_(type) {}
    [[nodiscard]] MediaType mediaType() const override { return type_; }
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate>,
                                 std::shared_ptr<SerialQueue>) override {}

private:
    const MediaType type_;
};

class FakeCaptureService final : public CaptureService {
public:
    explicit FakeCaptureService(CallLog* calls = nullptr);

    void setDelegate(std::weak_ptr<CaptureSessionManagerDelegate> delegate) override {
        lockedSet(mutex_, delegate_, std::move(delegate));
    }
    void setupScreenCapture() override;
    void setupCamera() override;
    void cleanup() override;
    [[nodiscard]] CaptureSession& screenCaptureSession() override { return screenSession_; }
    [[nodiscard]] CaptureSession& cameraCaptureSession() override { return cameraSession_; }
    [[nodiscard]] std::shared_ptr<CaptureOutput> videoOutput() const override {
        return lockedCopy(mutex_, videoOutput_);
    }
    [[nodiscard]] std::shared_ptr<CaptureOutput> cameraOutput() const override {
        return lockedCopy(mutex_, cameraOutput_);
    }
    [[nodiscard]] std::shared_ptr<CaptureOutput> audioOutput() const override {
        return lockedCopy(mutex_, audioOutput_);
    }
    [[nodiscard]] bool cameraOverlayEnabled() const override { return overlay_.load(); }
    void setCameraOverlayEnabled(bool enabled) override { overlay_.store(enabled); }
    [[nodiscard]] CameraOverlayPreset cameraOverlayPreset() const override {
        return preset_.load();
    }
    void setCameraOverlayPreset(CameraOverlayPreset preset) override { preset_.store(preset); }

    void setScreenSetupError(std::optional<CaptureSessionError> error) {
        lockedSet(mutex_, screenError_, std::move(error));
    }
    void setCameraSetupError(std::optional<CaptureSessionError> error) {
        lockedSet(mutex_, cameraError_, std::move(error));
    }
    // Where post*() delivers: the recording queue.
    void setRecordingQueue(std::shared_ptr<SerialQueue> queue) {
        lockedSet(mutex_, queue_, std::move(queue));
    }

    enum class Stream { screen, camera, audio };
    // At once, on the calling thread, through the stream's current output; false when it is absent.
    bool deliver(Stream stream, const SampleBufferRef& sample);
    // The same, later, on the recording queue. The service must outlive the queue's work.
    bool post(Stream stream, SampleBufferRef sample);

    [[nodiscard]] FakeCaptureSession& screenSessionFake() { return screenSession_; }
    [[nodiscard]] FakeCaptureSession& cameraSessionFake() { return cameraSession_; }
    [[nodiscard]] int cleanupCount() const { return lockedCopy(mutex_, cleanups_); }

private:
    [[nodiscard]] std::shared_ptr<CaptureOutput> output(Stream stream) const;
    void handOver(const SampleBufferRef& sample, CaptureOutput& output);

    CallLog* const calls_;
    FakeCaptureSession screenSession_;
    FakeCaptureSession cameraSession_;
    std::atomic<bool> overlay_{true};
    std::atomic<CameraOverlayPreset> preset_{CameraOverlayPreset::medium};
    mutable std::mutex mutex_;
    std::weak_ptr<CaptureSessionManagerDelegate> delegate_;  // guarded by mutex_
    std::shared_ptr<CaptureOutput> videoOutput_;             // guarded by mutex_
    std::shared_ptr<CaptureOutput> cameraOutput_;            // guarded by mutex_
    std::shared_ptr<CaptureOutput> audioOutput_;             // guarded by mutex_
    std::optional<CaptureSessionError> screenError_;         // guarded by mutex_
    std::optional<CaptureSessionError> cameraError_;         // guarded by mutex_
    std::shared_ptr<SerialQueue> queue_;                     // guarded by mutex_
    int cleanups_ = 0;                                       // guarded by mutex_
};

class FakeCompositionService final : public CompositionService {
public:
    struct Call {
        PixelBufferRef screen;
        PixelBufferRef camera;  // null for createSampleBuffer
        MediaTime time;
    };

    [[nodiscard]] SampleBufferRef composeFrame(const PixelBufferRef& screenBuffer,
                                               const PixelBufferRef& cameraBuffer,
                                               MediaTime presentationTime) override;
    [[nodiscard]] SampleBufferRef createSampleBuffer(const PixelBufferRef& buffer,
                                                     MediaTime presentationTime) override;
    [[nodiscard]] bool cameraOverlayEnabled() const override { return overlay_.load(); }
    void setCameraOverlayEnabled(bool enabled) override { overlay_.store(enabled); }
    [[nodiscard]] CameraOverlayPreset cameraOverlayPreset() const override {
        return preset_.load();
    }
    void setCameraOverlayPreset(CameraOverlayPreset preset) override { preset_.store(preset); }
    [[nodiscard]] CameraPosition cameraPosition() const override { return position_.load(); }
    void setCameraPosition(CameraPosition position) override { position_.store(position); }

    [[nodiscard]] std::vector<Call> composeCalls() const {
        return lockedCopy(mutex_, composeCalls_);
    }
    [[nodiscard]] std::vector<Call> plainCalls() const { return lockedCopy(mutex_, plainCalls_); }

private:
    std::atomic<bool> overlay_{true};
    std::atomic<CameraOverlayPreset> preset_{CameraOverlayPreset::medium};
    std::atomic<CameraPosition> position_{CameraPosition::bottomRight};
    mutable std::mutex mutex_;
    std::vector<Call> composeCalls_;  // guarded by mutex_
    std::vector<Call> plainCalls_;    // guarded by mutex_
};

// Records every report of the recorder.
class FakeRecorderDelegate final : public ScreenRecorderDelegate {
public:
    struct Report {
        enum class Kind { didStart, didStop, didFail };
        Kind kind;
        std::string outputURL;    // didStop
        std::string description;  // didFail: the error's description
        std::optional<ScreenRecorderError::Kind> errorKind;
        std::string reason = {};  // didFail: the reason kept beside a payload-less case
    };

    void recorderDidStart() override { add({Report::Kind::didStart, {}, {}, std::nullopt}); }
    void recorderDidStop(const std::string& outputURL) override {
        add({Report::Kind::didStop, outputURL, {}, std::nullopt});
    }
    void recorderDidFail(const ScreenRecorderError& error) override {
        add({Report::Kind::didFail, {}, error.localizedDescription(), error.kind(), error.reason()});
    }

    [[nodiscard]] std::vector<Report> reports() const { return lockedCopy(mutex_, reports_); }
    [[nodiscard]] size_t count() const { return reports().size(); }
    // Blocks until there are at least `n` reports or the timeout passed.
    bool waitForCount(size_t n, std::chrono::milliseconds timeout) const;

private:
    void add(Report report);
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    std::vector<Report> reports_;  // guarded by mutex_
};

}  // namespace gb::fakes
