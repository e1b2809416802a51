#include "fakes/fake_recording_services.h"

#include <algorithm>

namespace gb::fakes {

// ---- samples -----------------------------------------------------------------------------------

SampleBufferRef makeVideoSample(MediaTime time, std::optional<ImageSize> image) {
    PixelBufferRef pixels;
    if (image) pixels = PixelBuffer::allocate(image->width, image->height);
    return SampleBuffer::video(std::move(pixels),
                               SampleTiming{MediaTime::make(1, 30), time, MediaTime::invalid()});
}

SampleBufferRef makeAudioSample(MediaTime time) {
    auto audio = std::make_shared<AudioBuffer>();
    audio->sampleRate = 44100;
    audio->channels = 2;
    audio->format = AudioSampleFormat::s16;
    audio->frameCount = 441;
    audio->data.assign(static_cast<size_t>(audio->frameCount) * 2 * 2, 0);
    return SampleBuffer::audio(
        std::move(audio), SampleTiming{MediaTime::make(441, 44100), time, MediaTime::invalid()});
}

// ---- FakeCaptureService ------------------------------------------------------------------------

FakeCaptureService::FakeCaptureService(CallLog* calls)
    : calls_(calls),
      screenSession_("screenSession", calls),
      cameraSession_("cameraSession", calls) {}

void FakeCaptureService::setupScreenCapture() {
    const auto error = lockedCopy(mutex_, screenError_);
    if (calls_) calls_->add("setupScreenCapture");
    if (error) throw *error;
    std::lock_guard lock(mutex_);
    videoOutput_ = std::make_shared<StubCaptureOutput>(MediaType::video);
    audioOutput_ = std::make_shared<StubCaptureOutput>(MediaType::audio);
}

void FakeCaptureService::setupCamera() {
    const auto error = lockedCopy(mutex_, cameraError_);
    if (calls_) calls_->add("setupCamera");
    if (error) throw *error;
    std::lock_guard lock(mutex_);
    if (overlay_.load()) cameraOutput_ = std::make_shared<StubCaptureOutput>(MediaType::video);
}

void FakeCaptureService::cleanup() {
    if (calls_) calls_->add("captureCleanup");
    screenSession_.stopRunning();
    cameraSession_.stopRunning();
    std::lock_guard lock(mutex_);
    ++cleanups_;
    videoOutput_.reset();
    cameraOutput_.reset();
    audioOutput_.reset();
}

void FakeCaptureService::deliver(const SampleBufferRef& sample, CaptureOutput& output) {
    std::shared_ptr<CaptureSessionManagerDelegate> delegate;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_.lock();
    }
    if (delegate) delegate->captureSessionManager(*this, sample, output);
}

bool FakeCaptureService::deliverScreen(const SampleBufferRef& sample) {
    auto output = videoOutput();
    if (!output) return false;
    deliver(sample, *output);
    return true;
}

bool FakeCaptureService::deliverCamera(const SampleBufferRef& sample) {
    auto output = cameraOutput();
    if (!output) return false;
    deliver(sample, *output);
    return true;
}

bool FakeCaptureService::deliverAudio(const SampleBufferRef& sample) {
    auto output = audioOutput();
    if (!output) return false;
    deliver(sample, *output);
    return true;
}

bool FakeCaptureService::post(const std::shared_ptr<CaptureOutput>& output,
                              SampleBufferRef sample) {
    std::shared_ptr<SerialQueue> queue;
    {
        std::lock_guard lock(mutex_);
        queue = queue_;
    }
    if (!output || !queue) return false;
    // The output travels with the sample, as a real output delivers itself.
    queue->async([this, output, sample = std::move(sample)] { deliver(sample, *output); });
    return true;
}

bool FakeCaptureService::postScreen(SampleBufferRef sample) {
    return post(videoOutput(), std::move(sample));
}
bool FakeCaptureService::postCamera(SampleBufferRef sample) {
    return post(cameraOutput(), std::move(sample));
}
bool FakeCaptureService::postAudio(SampleBufferRef sample) {
    return post(audioOutput(), std::move(sample));
}

// ---- FakeCompositionService --------------------------------------------------------------------

SampleBufferRef FakeCompositionService::composeFrame(const PixelBufferRef& screenBuffer,
                                                     const PixelBufferRef& cameraBuffer,
                                                     MediaTime presentationTime) {
    {
        std::lock_guard lock(mutex_);
        composeCalls_.push_back({screenBuffer, cameraBuffer, presentationTime});
    }
    if (returnsNull_.load()) return nullptr;
    return SampleBuffer::video(
        screenBuffer, SampleTiming{MediaTime::invalid(), presentationTime, MediaTime::invalid()});
}

SampleBufferRef FakeCompositionService::createSampleBuffer(const PixelBufferRef& buffer,
                                                           MediaTime presentationTime) {
    {
        std::lock_guard lock(mutex_);
        plainCalls_.push_back({buffer, nullptr, presentationTime});
    }
    if (returnsNull_.load()) return nullptr;
    return SampleBuffer::video(
        buffer, SampleTiming{MediaTime::invalid(), presentationTime, MediaTime::invalid()});
}

// ---- FakeRecorderDelegate ----------------------------------------------------------------------

void FakeRecorderDelegate::recorderDidStart() {
    add({Report::Kind::didStart, {}, {}, std::nullopt});
}

void FakeRecorderDelegate::recorderDidStop(const std::string& outputURL) {
    add({Report::Kind::didStop, outputURL, {}, std::nullopt});
}

void FakeRecorderDelegate::recorderDidFail(const ScreenRecorderError& error) {
    add({Report::Kind::didFail, {}, error.localizedDescription(), error.kind()});
}

size_t FakeRecorderDelegate::count() const {
    std::lock_guard lock(mutex_);
    return reports_.size();
}

bool FakeRecorderDelegate::waitForCount(size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] { return reports_.size() >= n; });
}

void FakeRecorderDelegate::add(Report report) {
    {
        std::lock_guard lock(mutex_);
        reports_.push_back(std::move(report));
    }
    changed_.notify_all();
}

}  // namespace gb::fakes
