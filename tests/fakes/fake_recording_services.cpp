#include "fakes/fake_recording_services.h"

#include <algorithm>

namespace gb::fakes {

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

std::shared_ptr<CaptureOutput> FakeCaptureService::output(Stream stream) const {
    return stream == Stream::screen   ? videoOutput()
           : stream == Stream::camera ? cameraOutput()
                                      : audioOutput();
}

void FakeCaptureService::handOver(const SampleBufferRef& sample, CaptureOutput& output) {
    if (auto delegate = lockedCopy(mutex_, delegate_).lock()) {
        delegate->captureSessionManager(*this, sample, output);
    }
}

bool FakeCaptureService::deliver(Stream stream, const SampleBufferRef& sample) {
    const auto through = output(stream);
    if (through) handOver(sample, *through);
    return through != nullptr;
}

bool FakeCaptureService::post(Stream stream, SampleBufferRef sample) {
    const auto through = output(stream);
    const auto queue = lockedCopy(mutex_, queue_);
    if (!through || !queue) return false;
    // The output travels with the sample, as a real output delivers itself.
    queue->async([this, through, sample = std::move(sample)] { handOver(sample, *through); });
    return true;
}

SampleBufferRef FakeCompositionService::composeFrame(const PixelBufferRef& screenBuffer,
                                                     const PixelBufferRef& cameraBuffer,
                                                     MediaTime presentationTime) {
    {
        std::lock_guard lock(mutex_);
        composeCalls_.push_back({screenBuffer, cameraBuffer, presentationTime});
    }
    return SampleBuffer::video(
        screenBuffer, SampleTiming{MediaTime::invalid(), presentationTime, MediaTime::invalid()});
}

SampleBufferRef FakeCompositionService::createSampleBuffer(const PixelBufferRef& buffer,
                                                           MediaTime presentationTime) {
    {
        std::lock_guard lock(mutex_);
        plainCalls_.push_back({buffer, nullptr, presentationTime});
    }
    return SampleBuffer::video(
        buffer, SampleTiming{MediaTime::invalid(), presentationTime, MediaTime::invalid()});
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
