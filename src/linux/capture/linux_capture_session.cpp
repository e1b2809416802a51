#include "linux/capture/linux_capture_session.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <utility>

#include "recording/log.h"

namespace gb::linuxp {

class DataOutputCore::InFlightTicket {
public:
    // Takes a place among the samples in flight, if one is left (check held()).
    InFlightTicket(std::shared_ptr<std::atomic<int>> counter, int max)
        : counter_(std::move(counter)) {
        if (counter_->fetch_add(1) >= max) release();
    }
    InFlightTicket(const InFlightTicket& other) : counter_(other.counter_) {
        if (counter_) counter_->fetch_add(1);
    }
    InFlightTicket(InFlightTicket&& other) noexcept : counter_(std::move(other.counter_)) {}
    InFlightTicket& operator=(const InFlightTicket&) = delete;
    InFlightTicket& operator=(InFlightTicket&&) = delete;
    ~InFlightTicket() { release(); }

    [[nodiscard]] bool held() const { return counter_ != nullptr; }

private:
    void release() {
        if (counter_) std::exchange(counter_, nullptr)->fetch_sub(1);
    }

    std::shared_ptr<std::atomic<int>> counter_;
};

DataOutputCore::DataOutputCore(int maxInFlight)
    : maxInFlight_(std::max(1, maxInFlight)), inFlight_(std::make_shared<std::atomic<int>>(0)) {}

void DataOutputCore::setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                             std::shared_ptr<SerialQueue> queue) {
    std::lock_guard lock(mutex_);
    delegate_ = std::move(delegate);
    queue_ = std::move(queue);
}

void DataOutputCore::deliver(const SampleBufferRef& sample, std::weak_ptr<CaptureOutput> output) {
    std::weak_ptr<CaptureOutputDelegate> delegate;
    std::shared_ptr<SerialQueue> queue;
    {
        std::lock_guard lock(mutex_);
        delegate = delegate_;
        queue = queue_;
    }
    if (!queue) return;
    InFlightTicket ticket(inFlight_, maxInFlight_);
    if (!ticket.held()) {
        dropped_.fetch_add(1);
        return;
    }
    // The closure holds the output weakly: an output owns its queue, and a queue must not end
    // up releasing itself from its own thread.
    queue->async([ticket = std::move(ticket), output = std::move(output),
                  delegate = std::move(delegate), sample] {
        auto from = output.lock();
        auto receiver = delegate.lock();
        if (from && receiver) receiver->captureOutput(*from, sample);
    });
}

LinuxVideoDataOutput::LinuxVideoDataOutput(int maxInFlight) : core_(maxInFlight) {}

void LinuxVideoDataOutput::setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                                   std::shared_ptr<SerialQueue> queue) {
    core_.setSampleBufferDelegate(std::move(delegate), std::move(queue));
}

void LinuxVideoDataOutput::setVideoSettings(const VideoOutputSettings& settings) {
    if (settings.pixelFormat != kPixelFormatBGRA) {
        logLine("⚠️ Video output supports only 32-bit BGRA frames; keeping BGRA");
    }
}

void LinuxVideoDataOutput::deliver(const SampleBufferRef& sample) {
    core_.deliver(sample, weak_from_this());
}

LinuxAudioDataOutput::LinuxAudioDataOutput(int maxInFlight) : core_(maxInFlight) {}

void LinuxAudioDataOutput::setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                                   std::shared_ptr<SerialQueue> queue) {
    core_.setSampleBufferDelegate(std::move(delegate), std::move(queue));
}

void LinuxAudioDataOutput::deliver(const SampleBufferRef& sample) {
    core_.deliver(sample, weak_from_this());
}

namespace {

SampleReceivingOutput* receiverOf(const std::shared_ptr<CaptureOutput>& output) {
    return dynamic_cast<SampleReceivingOutput*>(output.get());
}

CaptureSource* sourceOf(const std::shared_ptr<CaptureInput>& input) {
    auto* backed = dynamic_cast<SourceBackedInput*>(input.get());
    return backed != nullptr ? &backed->captureSource() : nullptr;
}

const char* kindName(MediaType type) {
    return type == MediaType::video ? "Video" : "Audio";
}

template <class T>
bool contains(const std::vector<std::shared_ptr<T>>& list, const std::shared_ptr<T>& item) {
    return std::find(list.begin(), list.end(), item) != list.end();
}

}  // namespace

LinuxCaptureSession::~LinuxCaptureSession() {
    stopRunning();
}

void LinuxCaptureSession::beginConfiguration() {
    std::lock_guard lock(mutex_);
    ++configurationDepth_;
}

void LinuxCaptureSession::commitConfiguration() {
    std::lock_guard lock(mutex_);
    if (configurationDepth_ > 0) --configurationDepth_;
    reconcileLocked();
}

bool LinuxCaptureSession::canAddInput(const std::shared_ptr<CaptureInput>& input) {
    std::lock_guard lock(mutex_);
    return input && sourceOf(input) != nullptr && !contains(inputs_, input);
}

void LinuxCaptureSession::addInput(std::shared_ptr<CaptureInput> input) {
    if (!canAddInput(input)) {
        logLine("⚠️ Capture session refused an input it cannot take");
        return;
    }
    std::lock_guard lock(mutex_);
    inputs_.push_back(std::move(input));
    reconcileLocked();
}

bool LinuxCaptureSession::canAddOutput(const std::shared_ptr<CaptureOutput>& output) {
    std::lock_guard lock(mutex_);
    return output && receiverOf(output) != nullptr && !contains(outputs_, output);
}

void LinuxCaptureSession::addOutput(std::shared_ptr<CaptureOutput> output) {
    if (!canAddOutput(output)) {
        logLine("⚠️ Capture session refused an output it cannot take");
        return;
    }
    std::lock_guard lock(mutex_);
    outputs_.push_back(std::move(output));
    reconcileLocked();
}

std::vector<std::shared_ptr<CaptureInput>> LinuxCaptureSession::inputs() const {
    std::lock_guard lock(mutex_);
    return inputs_;
}

std::vector<std::shared_ptr<CaptureOutput>> LinuxCaptureSession::outputs() const {
    std::lock_guard lock(mutex_);
    return outputs_;
}

void LinuxCaptureSession::removeInput(const std::shared_ptr<CaptureInput>& input) {
    std::lock_guard lock(mutex_);
    std::erase(inputs_, input);
    reconcileLocked();
}

void LinuxCaptureSession::removeOutput(const std::shared_ptr<CaptureOutput>& output) {
    std::lock_guard lock(mutex_);
    std::erase(outputs_, output);
    reconcileLocked();
}

void LinuxCaptureSession::setInterruptionHandler(InterruptionHandler handler) {
    std::lock_guard lock(interruption_->mutex);
    interruption_->handler = std::move(handler);
}

void LinuxCaptureSession::startRunning() {
    std::lock_guard lock(mutex_);
    if (running_) return;
    running_ = true;
    {
        std::lock_guard interruptionLock(interruption_->mutex);
        ++interruption_->run;
    }
    reconcileLocked();
}

void LinuxCaptureSession::stopRunning() {
    std::lock_guard lock(mutex_);
    if (!running_) return;
    running_ = false;
    for (auto it = connections_.rbegin(); it != connections_.rend(); ++it) {
        if (it->output) sourceOf(it->input)->stop();
    }
    connections_.clear();
    logDropsLocked();
}

bool LinuxCaptureSession::isRunning() const {
    std::lock_guard lock(mutex_);
    return running_;
}

std::shared_ptr<CaptureOutput> LinuxCaptureSession::firstOutputLocked(MediaType type) const {
    for (const auto& output : outputs_) {
        if (output->mediaType() == type) return output;
    }
    return nullptr;
}

void LinuxCaptureSession::reconcileLocked() {
    if (!running_ || configurationDepth_ > 0) return;

    // Stop what no longer belongs: a removed input, or an output that is gone or no longer the
    // first of its type. A connection without output is a source that failed to start; it stays
    // until the next stop so that it is not retried (and logged) on every change.
    for (size_t i = connections_.size(); i-- > 0;) {
        const Connection& c = connections_[i];
        const bool inputGone = !contains(inputs_, c.input);
        const bool outputStale = c.output && c.output != firstOutputLocked(c.input->mediaType());
        if (!inputGone && !outputStale) continue;
        if (c.output) sourceOf(c.input)->stop();
        connections_.erase(connections_.begin() + static_cast<std::ptrdiff_t>(i));
    }

    for (const auto& input : inputs_) {
        const bool connected = std::any_of(connections_.begin(), connections_.end(),
                                           [&](const Connection& c) { return c.input == input; });
        if (connected) continue;
        auto output = firstOutputLocked(input->mediaType());
        if (!output) continue;  // nothing to deliver to; starts once an output is added
        std::shared_ptr<SampleReceivingOutput> receiver(output, receiverOf(output));
        sourceOf(input)->setInterruptedHandler(
            [weak = std::weak_ptr<Interruption>(interruption_)](const std::string& reason) {
                const auto shared = weak.lock();
                if (!shared) return;
                InterruptionHandler handler;
                {
                    std::lock_guard lock(shared->mutex);
                    if (shared->reportedRun == shared->run) return;  // once per run
                    shared->reportedRun = shared->run;
                    handler = shared->handler;
                }
                if (handler) handler(reason);
            });
        Result<void> started = sourceOf(input)->start(
            [receiver](const SampleBufferRef& sample) { receiver->deliver(sample); });
        if (started.ok()) {
            connections_.push_back({input, std::move(output)});
        } else {
            logLine(std::string("❌ ") + kindName(input->mediaType()) +
                    " capture source failed to start: " + started.error().localizedDescription);
            connections_.push_back({input, nullptr});
        }
    }
}

void LinuxCaptureSession::logDropsLocked() {
    for (const auto& output : outputs_) {
        const uint64_t drops = receiverOf(output)->core().takeDropCount();
        if (drops == 0) continue;
        const bool video = output->mediaType() == MediaType::video;
        logLine(std::string("⚠️ ") + kindName(output->mediaType()) + " output dropped " +
                std::to_string(drops) + (video ? " frames" : " audio buffers") +
                ": the receiving queue was busy");
    }
}

}  // namespace gb::linuxp
