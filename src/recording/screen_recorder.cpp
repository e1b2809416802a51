#include "recording/screen_recorder.h"

#include <cctype>
#include <chrono>
#include <utility>

#include "recording/log.h"

namespace gb {
namespace {

constexpr std::chrono::nanoseconds kStartPause{100'000'000};

// "microphone and camera" -> "Microphone And Camera".
std::string capitalizedWords(const std::string& text) {
    std::string out = text;
    bool wordStart = true;
    for (char& c : out) {
        const auto u = static_cast<unsigned char>(c);
        if (std::isspace(u)) {
            wordStart = true;
            continue;
        }
        c = static_cast<char>(wordStart ? std::toupper(u) : std::tolower(u));
        wordStart = false;
    }
    return out;
}

std::string joined(const std::vector<std::string>& names, const std::string& separator) {
    std::string out;
    for (size_t i = 0; i < names.size(); ++i) {
        if (i > 0) out += separator;
        out += names[i];
    }
    return out;
}

}  // namespace

std::shared_ptr<ScreenRecorder> ScreenRecorder::create(Services services, Dispatch& dispatch) {
    auto recorder =
        std::make_shared<ScreenRecorder>(ConstructionKey{}, std::move(services), dispatch);
    recorder->services_.captureSessionManager->setDelegate(
        std::weak_ptr<CaptureSessionManagerDelegate>(recorder));
    return recorder;
}

ScreenRecorder::ScreenRecorder(ConstructionKey, Services services, Dispatch& dispatch)
    : services_(std::move(services)), dispatch_(dispatch) {}

void ScreenRecorder::setDelegate(std::weak_ptr<ScreenRecorderDelegate> delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
}

std::shared_ptr<ScreenRecorderDelegate> ScreenRecorder::currentDelegate() const {
    std::lock_guard lock(mutex_);
    return delegate_.lock();
}

bool ScreenRecorder::isRecording() const {
    std::lock_guard lock(mutex_);
    return isRecording_;
}

bool ScreenRecorder::hasUnfinishedRecording() const {
    std::lock_guard lock(mutex_);
    return isRecording_ || starting_ || finishing_;
}

bool ScreenRecorder::isRecordingGeneration(uint64_t generation) const {
    std::lock_guard lock(mutex_);
    return isRecording_ && generation_ == generation;
}

// ---- options -----------------------------------------------------------------------------------

bool ScreenRecorder::cameraOverlayEnabled() const {
    return cameraOverlayEnabled_.load();
}
void ScreenRecorder::setCameraOverlayEnabled(bool enabled) {
    cameraOverlayEnabled_.store(enabled);
}
CameraOverlayPreset ScreenRecorder::cameraOverlayPreset() const {
    return cameraOverlayPreset_.load();
}
void ScreenRecorder::setCameraOverlayPreset(CameraOverlayPreset preset) {
    cameraOverlayPreset_.store(preset);
}
CameraPosition ScreenRecorder::cameraPosition() const {
    return cameraPosition_.load();
}
void ScreenRecorder::setCameraPosition(CameraPosition position) {
    cameraPosition_.store(position);
}
double ScreenRecorder::cameraOverlayCornerRadius() const {
    return cameraOverlayCornerRadius_.load();
}
VideoQuality ScreenRecorder::videoQuality() const {
    return videoQuality_.load();
}
void ScreenRecorder::setVideoQuality(VideoQuality quality) {
    videoQuality_.store(quality);
}
int32_t ScreenRecorder::frameRate() const {
    return frameRate_.load();
}

CaptureService& ScreenRecorder::captureSessionManager() {
    return *services_.captureSessionManager;
}
CompositionService& ScreenRecorder::videoComposer() {
    return *services_.videoComposer;
}
WriterService& ScreenRecorder::fileManager() {
    return *services_.fileManager;
}

// ---- start -------------------------------------------------------------------------------------

void ScreenRecorder::startRecording(CancellationToken cancellation,
                                    std::function<void()> completion) {
    dispatch_.backgroundExecutor().async(
        [self = shared_from_this(), cancellation, completion = std::move(completion)] {
            auto run = [self, cancellation, completion] {
                self->runStart(cancellation);
                if (completion) completion();
            };
            {
                std::lock_guard lock(self->mutex_);
                // Started again while the last file is being finished: this start runs once the
                // finish is done (the finish step hands it to the executor).
                if (self->finishing_ && !self->starting_ && !self->startAfterFinish_) {
                    logLine("startRecording called while the previous recording is finishing; "
                            "it starts once the file is finished");
                    self->startAfterFinish_ = std::move(run);
                    return;
                }
            }
            run();
        });
}

void ScreenRecorder::runStart(const CancellationToken& cancellation) {
    uint64_t generation = 0;
    {
        std::lock_guard lock(mutex_);
        if (isRecording_) {
            logLine("startRecording called but already recording");
            return;
        }
        // isRecording is still false while a start is under way or a stopped recording is being
        // finalised; a second start then would share (and its clean-up destroy) that recording.
        if (starting_ || finishing_) {
            logLine(
                "startRecording called but a previous recording is still starting or finishing");
            return;
        }
        starting_ = true;
        stopTookOver_ = false;
        generation = ++generation_;
    }
    logLine("ScreenRecorder.startRecording() called");

    std::optional<std::string> refusal;  // the permission text, when access is missing
    try {
        const bool includeCamera = cameraOverlayEnabled_.load();
        if (!services_.permissionManager->checkAllPermissions(includeCamera)) {
            const auto missing = services_.permissionManager->missingPermissions(includeCamera);
            refusal = capitalizedWords(joined(missing, " and ")) + " access required";
        } else {
            startSteps(generation, cancellation);
        }
    } catch (const CaptureSessionError& error) {
        failStart(generation, error.caseDescription(),
                  ScreenRecorderError::setupFailed(error.errorDescription()));
        return;
    } catch (const RecordingFileManagerError& error) {
        failStart(generation, error.caseDescription(),
                  ScreenRecorderError::writerCreationFailed(error.localizedDescription()));
        return;
    } catch (const CancellationError& error) {
        failStart(generation, "CancellationError()",
                  ScreenRecorderError::setupFailed(error.what()));
        return;
    } catch (const EngineError& error) {
        failStart(generation, error.caseDescription(),
                  ScreenRecorderError::setupFailed(error.localizedDescription()));
        return;
    } catch (const std::exception& error) {
        failStart(generation, error.what(), ScreenRecorderError::setupFailed(error.what()));
        return;
    } catch (...) {
        failStart(generation, "unknown error", ScreenRecorderError::setupFailed("Unknown error"));
        return;
    }

    if (refusal) {
        // Nothing was set up, so there is nothing to clean up.
        {
            std::lock_guard lock(mutex_);
            starting_ = false;
        }
        if (auto delegate = currentDelegate()) {
            delegate->recorderDidFail(ScreenRecorderError::permissionDenied(*refusal));
        }
        return;
    }

    bool stopped = false;
    {
        std::lock_guard lock(mutex_);
        starting_ = false;
        stopped = stopTookOver_;
    }
    if (stopped) {
        // Stopped during the pause: the finished file is the one outcome.
        logLine("Recording start ended by a stop; the recording is being finished");
        return;
    }
    logLine("Recording started successfully");
    if (auto delegate = currentDelegate()) delegate->recorderDidStart();
}

void ScreenRecorder::startSteps(uint64_t generation, const CancellationToken& cancellation) {
    CaptureService& capture = *services_.captureSessionManager;
    capture.setupScreenCapture();
    if (capture.cameraOverlayEnabled()) capture.setupCamera();

    WriterBundle bundle = services_.fileManager->createAssetWriter(videoQuality_.load());
    {
        // The writer is in place before isRecording lets samples in.
        std::lock_guard lock(mutex_);
        assetWriter_ = std::move(bundle.writer);
        videoInput_ = std::move(bundle.videoInput);
        audioInput_ = std::move(bundle.audioInput);
        isRecording_ = true;
    }
    {
        // A stop that came in since isRecording was set has already stopped the sessions;
        // starting them now would leave them running for a finished recording.
        std::lock_guard sessions(sessionsMutex_);
        if (isRecordingGeneration(generation)) {
            capture.screenCaptureSession().startRunning();
            if (capture.cameraOverlayEnabled()) capture.cameraCaptureSession().startRunning();
        }
    }
    if (!dispatch_.sleeper().sleep(kStartPause, cancellation)) throw CancellationError();
}

void ScreenRecorder::failStart(uint64_t generation, const std::string& errorText,
                               ScreenRecorderError error) {
    bool ownsRecording = false;
    {
        std::lock_guard lock(mutex_);
        // Only the pause can throw after isRecording was set. If the stop got there first, the
        // recording is being finalised and its finish step cleans up; resetting it here would
        // lose the file.
        ownsRecording = generation_ == generation && !stopTookOver_;
        if (ownsRecording) isRecording_ = false;
        // A stop during the pause ends the start too: the finished file (or its failure) is
        // the one outcome, with no failed start reported next to it.
        if (!ownsRecording) starting_ = false;
    }
    if (!ownsRecording) {
        logLine("Recording start ended by a stop; the recording is being finished");
        return;
    }
    logLine("Recording setup failed: " + errorText);
    cleanup();
    {
        std::lock_guard lock(mutex_);
        starting_ = false;
    }
    if (auto delegate = currentDelegate()) delegate->recorderDidFail(error);
}

// ---- stop and finish ---------------------------------------------------------------------------

void ScreenRecorder::stopRecording() {
    AssetWriterRef writer;
    AssetWriterInputRef videoInput;
    AssetWriterInputRef audioInput;
    uint64_t generation = 0;
    int64_t repeats = 0;
    {
        std::unique_lock lock(mutex_);
        if (!isRecording_) {
            lock.unlock();
            logLine("Stop recording called but not currently recording");
            return;
        }
        logLine("Stopping recording...");
        // From here on every arriving sample is ignored.
        isRecording_ = false;
        if (starting_) stopTookOver_ = true;
        writer = assetWriter_;
        videoInput = videoInput_;
        audioInput = audioInput_;
        generation = generation_;
        repeats = std::exchange(notWritingRepeats_, -1);
    }
    if (repeats > 0) {
        logLine("⚠️ AssetWriter not in writing state: repeated for " + std::to_string(repeats) +
                " more samples");
    }

    CaptureService& capture = *services_.captureSessionManager;
    {
        std::lock_guard sessions(sessionsMutex_);
        capture.screenCaptureSession().stopRunning();
        if (capture.cameraOverlayEnabled()) capture.cameraCaptureSession().stopRunning();
    }
    // Appends are made under mutex_ after checking isRecording, so none can follow these.
    if (videoInput) videoInput->markAsFinished();
    if (audioInput) audioInput->markAsFinished();

    const auto outputURL = services_.fileManager->currentOutputURL();
    if (writer && outputURL) {
        logLine("Finishing writing to: " + *outputURL);
        {
            std::lock_guard lock(mutex_);
            finishing_ = true;
        }
        SerialQueue* mainQueue = &dispatch_.mainQueue();
        std::weak_ptr<ScreenRecorder> weakSelf = weak_from_this();
        writer->finishWriting([writer, url = *outputURL, weakSelf, mainQueue, generation] {
            mainQueue->async([writer, url, weakSelf, generation] {
                finishStep(weakSelf, writer, url, generation);
            });
        });
        return;
    }
    logLine("No writer or URL available");
    cleanup();
}

void ScreenRecorder::captureSessionManagerWasInterrupted(CaptureService&,
                                                        const std::string& reason) {
    uint64_t generation = 0;
    {
        std::lock_guard lock(mutex_);
        if (!isRecording_) return;
        generation = generation_;
    }
    // Stopping stops the sessions, which waits for their threads: never on the caller's thread.
    dispatch_.mainQueue().async([weakSelf = weak_from_this(), reason, generation] {
        const auto self = weakSelf.lock();
        if (!self || !self->isRecordingGeneration(generation)) return;
        logLine("⚠️ Recording stopped: " + reason);
        if (auto delegate = self->currentDelegate()) delegate->recorderWasInterrupted(reason);
        self->stopRecording();
    });
}

void ScreenRecorder::finishStep(const std::weak_ptr<ScreenRecorder>& weakSelf,
                                const AssetWriterRef& writer, const std::string& outputURL,
                                uint64_t generation) {
    const auto self = weakSelf.lock();
    if (writer->status() == AssetWriterStatus::completed) {
        logLine("Recording completed successfully");
        if (self) {
            if (auto delegate = self->currentDelegate()) delegate->recorderDidStop(outputURL);
        }
    } else {
        const auto error = writer->error();
        const std::string text = error ? error->localizedDescription : "Unknown error";
        logLine("Recording failed: " + text);
        if (self) {
            if (auto delegate = self->currentDelegate()) {
                delegate->recorderDidFail(
                    ScreenRecorderError::recordingFailed("Failed to finalize recording: " + text));
            }
        }
    }
    if (!self) return;
    bool ownRecording = false;
    {
        std::lock_guard lock(self->mutex_);
        // Starts are refused while finishing, so this is always the recording that was
        // finished; the check keeps a newer one safe should that ever change.
        ownRecording = self->generation_ == generation && !self->isRecording_;
    }
    if (ownRecording) self->cleanup();
    std::function<void()> nextStart;
    {
        std::lock_guard lock(self->mutex_);
        self->finishing_ = false;
        nextStart = std::exchange(self->startAfterFinish_, nullptr);
    }
    if (nextStart) self->dispatch_.backgroundExecutor().async(std::move(nextStart));
}

void ScreenRecorder::cleanup() {
    // Outside mutex_: the capture service's clean-up stops the sessions and waits for deliveries
    // in flight, which may be waiting for mutex_.
    services_.captureSessionManager->cleanup();
    services_.fileManager->clearCurrentOutputURL();

    // Released after unlocking, so the buffers' owners get them back without mutex_ held.
    AssetWriterRef writer;
    AssetWriterInputRef videoInput;
    AssetWriterInputRef audioInput;
    PixelBufferRef cameraBuffer;
    PixelBufferRef screenBuffer;
    std::lock_guard lock(mutex_);
    writer = std::exchange(assetWriter_, nullptr);
    videoInput = std::exchange(videoInput_, nullptr);
    audioInput = std::exchange(audioInput_, nullptr);
    startTime_.reset();
    cameraBuffer = std::exchange(latestCameraBuffer_, nullptr);
    screenBuffer = std::exchange(latestScreenBuffer_, nullptr);
    cameraSampleCount_ = 0;
    screenSampleCount_ = 0;
    notWritingRepeats_ = -1;
    stoppingForWriterFailure_ = false;
}

// ---- samples (recording queue) -----------------------------------------------------------------

void ScreenRecorder::captureSessionManager(CaptureService& manager, const SampleBufferRef& sample,
                                           CaptureOutput& output) {
    if (!sample) return;
    // Asked before taking mutex_, so the capture service's own locking never nests inside it.
    const auto videoOutput = manager.videoOutput();
    const auto cameraOutput = manager.cameraOutput();
    const auto audioOutput = manager.audioOutput();

    std::unique_lock lock(mutex_);
    if (!isRecording_ || !assetWriter_) return;
    const MediaTime time = sample->presentationTime();
    if (!startTime_) {
        startTime_ = time;
        if (assetWriter_->status() == AssetWriterStatus::writing) {
            assetWriter_->startSessionAtSourceTime(time);
        }
    }
    const AssetWriterStatus status = assetWriter_->status();
    if (status != AssetWriterStatus::writing) {
        // Every sample after a writer failure fails alike: one line now, a count at stop.
        const bool first = ++notWritingRepeats_ == 0;
        // The file cannot grow any more: the recording ends as if Stop had been chosen, and the
        // finish reports the writer's error.
        const bool endNow = status == AssetWriterStatus::failed && !stoppingForWriterFailure_;
        std::optional<PlatformError> error;
        if (endNow) {
            stoppingForWriterFailure_ = true;
            error = assetWriter_->error();
        }
        lock.unlock();
        if (first) {
            logLine("⚠️ AssetWriter not in writing state: " +
                    std::to_string(static_cast<int>(status)));
        }
        if (endNow) {
            captureSessionManagerWasInterrupted(
                manager, error ? error->localizedDescription : "the movie writer failed");
        }
        return;
    }
    if (videoOutput && &output == videoOutput.get()) {
        handleScreenSample(lock, *sample, time);
    } else if (cameraOutput && &output == cameraOutput.get()) {
        handleCameraSample(lock, *sample);
    } else if (audioOutput && &output == audioOutput.get()) {
        handleAudioSample(lock, sample);
    }
}

void ScreenRecorder::handleScreenSample(std::unique_lock<std::mutex>& lock,
                                        const SampleBuffer& sample, MediaTime time) {
    const int64_t count = ++screenSampleCount_;
    PixelBufferRef replaced;
    if (sample.imageBuffer()) replaced = std::exchange(latestScreenBuffer_, sample.imageBuffer());

    // appendVideoFrame: take what the frame needs, compose without the lock, then append under
    // it if the recording is still the same one.
    const uint64_t generation = generation_;
    const AssetWriterInputRef videoInput = videoInput_;
    PixelBufferRef screen;
    PixelBufferRef camera;
    if (videoInput && videoInput->isReadyForMoreMediaData() && latestScreenBuffer_) {
        screen = latestScreenBuffer_;
        if (cameraOverlayEnabled_.load() && latestCameraBuffer_) camera = latestCameraBuffer_;
    }
    lock.unlock();
    replaced.reset();

    if (count % 30 == 1) logLine("📺 Screen sample #" + std::to_string(count));
    if (!screen) return;  // no input, input not ready, or no screen image yet: dropped

    CompositionService& composer = *services_.videoComposer;
    SampleBufferRef frame = camera ? composer.composeFrame(screen, camera, time)
                                   : composer.createSampleBuffer(screen, time);
    if (!frame) return;

    lock.lock();
    // A stop in the meantime has marked the input finished: the frame is dropped.
    if (!isRecording_ || generation_ != generation) return;
    const bool appended = videoInput->append(frame);
    lock.unlock();
    if (!appended) logLine("Failed to append composed video sample");
}

void ScreenRecorder::handleCameraSample(std::unique_lock<std::mutex>& lock,
                                        const SampleBuffer& sample) {
    const int64_t count = ++cameraSampleCount_;
    const PixelBufferRef& image = sample.imageBuffer();
    if (!image) return;
    PixelBufferRef replaced = std::exchange(latestCameraBuffer_, image);
    lock.unlock();
    replaced.reset();
    if (count % 30 == 1) {
        logLine("📷 Camera sample #" + std::to_string(count) + ": " +
                std::to_string(image->width()) + "x" + std::to_string(image->height()));
    }
}

void ScreenRecorder::handleAudioSample(std::unique_lock<std::mutex>& lock,
                                       const SampleBufferRef& sample) {
    if (!audioInput_) {
        lock.unlock();
        logLine("❌ No audio input available");
        return;
    }
    if (!audioInput_->isReadyForMoreMediaData()) {
        lock.unlock();
        logLine("⏳ Audio input not ready for more data");
        return;
    }
    const bool appended = audioInput_->append(sample);
    const AssetWriterRef writer = assetWriter_;
    lock.unlock();
    if (appended) return;
    if (const auto error = writer->error()) {
        logLine("❌ Failed to append audio sample: " + error->localizedDescription);
    } else {
        logLine("❌ Failed to append audio sample - unknown error");
    }
}

}  // namespace gb
