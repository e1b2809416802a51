// The Linux capture session and its data outputs. A running session connects the capture source
// of each input to the session's first output of the same media type. Outputs hand every sample
// to their delegate on their queue, and drop (and count) what would pile up there: a capture
// thread never waits for the receiver.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "linux/capture/capture_source.h"
#include "platform/capture.h"

namespace gb::linuxp {

// What LinuxVideoDataOutput and LinuxAudioDataOutput share: the delegate, the queue and the
// bounded hand-off.
class DataOutputCore {
public:
    explicit DataOutputCore(int maxInFlight);
    DataOutputCore(const DataOutputCore&) = delete;
    DataOutputCore& operator=(const DataOutputCore&) = delete;

    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                 std::shared_ptr<SerialQueue> queue);
    // Capture thread. Posts to the queue a closure that hands the sample, with `output`, to the
    // delegate if both still exist. Drops and counts the sample when `maxInFlight` samples are
    // already queued or being handled there; drops it silently when no queue was given. Never
    // waits: the only lock is a short one around reading the delegate and queue.
    void deliver(const SampleBufferRef& sample, std::weak_ptr<CaptureOutput> output);

    [[nodiscard]] int maxInFlight() const { return maxInFlight_; }
    // Samples queued or being handled right now.
    [[nodiscard]] int inFlight() const { return inFlight_->load(); }
    // Drops since the last call (and resets the count).
    [[nodiscard]] uint64_t takeDropCount() { return dropped_.exchange(0); }
    [[nodiscard]] uint64_t dropCount() const { return dropped_.load(); }

private:
    // Counts one sample in flight for as long as any copy of it lives (the closure that carries
    // it may be copied; it is destroyed when run or when its queue is dropped unrun).
    class InFlightTicket;

    const int maxInFlight_;
    // Shared with the tickets of queued samples, which may outlive the output.
    const std::shared_ptr<std::atomic<int>> inFlight_;
    std::atomic<uint64_t> dropped_{0};
    mutable std::mutex mutex_;
    std::weak_ptr<CaptureOutputDelegate> delegate_;  // guarded by mutex_
    std::shared_ptr<SerialQueue> queue_;             // guarded by mutex_
};

// Samples that the session hands to an output. Implemented by both Linux data outputs.
class SampleReceivingOutput {
public:
    virtual ~SampleReceivingOutput() = default;
    // Capture thread; never blocks.
    virtual void deliver(const SampleBufferRef& sample) = 0;
    [[nodiscard]] virtual DataOutputCore& core() = 0;
};

class LinuxVideoDataOutput final : public VideoDataOutput,
                                   public SampleReceivingOutput,
                                   public std::enable_shared_from_this<LinuxVideoDataOutput> {
public:
    // More than this many frames waiting on the queue means the receiver is behind: newer frames
    // are dropped instead of queued.
    static constexpr int kDefaultMaxInFlight = 2;

    explicit LinuxVideoDataOutput(int maxInFlight = kDefaultMaxInFlight);
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                 std::shared_ptr<SerialQueue> queue) override;
    // Only BGRA exists on Linux; other formats are refused with a log line.
    void setVideoSettings(const VideoOutputSettings& settings) override;
    void deliver(const SampleBufferRef& sample) override;
    [[nodiscard]] DataOutputCore& core() override { return core_; }

private:
    DataOutputCore core_;
};

class LinuxAudioDataOutput final : public AudioDataOutput,
                                   public SampleReceivingOutput,
                                   public std::enable_shared_from_this<LinuxAudioDataOutput> {
public:
    // Audio comes in small chunks, so more may wait (about a second of 20 ms chunks).
    static constexpr int kDefaultMaxInFlight = 50;

    explicit LinuxAudioDataOutput(int maxInFlight = kDefaultMaxInFlight);
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                 std::shared_ptr<SerialQueue> queue) override;
    void deliver(const SampleBufferRef& sample) override;
    [[nodiscard]] DataOutputCore& core() override { return core_; }

private:
    DataOutputCore core_;
};

// Inputs and outputs in adding order. Accepts inputs that are SourceBackedInput and outputs made
// by this platform (SampleReceivingOutput), each once.
// Threads: any thread, one call at a time per session (as every capture session). All state is
// guarded by mutex_; sources are started and stopped under it, which is safe because sources
// deliver straight to outputs and never call back into the session.
class LinuxCaptureSession final : public CaptureSession {
public:
    LinuxCaptureSession() = default;
    ~LinuxCaptureSession() override;
    LinuxCaptureSession(const LinuxCaptureSession&) = delete;
    LinuxCaptureSession& operator=(const LinuxCaptureSession&) = delete;

    void beginConfiguration() override;
    // Changes made while running take effect here: sources of new inputs start, sources of
    // removed inputs (or inputs whose output was removed) stop.
    void commitConfiguration() override;
    [[nodiscard]] bool canAddInput(const std::shared_ptr<CaptureInput>& input) override;
    void addInput(std::shared_ptr<CaptureInput> input) override;
    [[nodiscard]] bool canAddOutput(const std::shared_ptr<CaptureOutput>& output) override;
    void addOutput(std::shared_ptr<CaptureOutput> output) override;
    [[nodiscard]] std::vector<std::shared_ptr<CaptureInput>> inputs() const override;
    [[nodiscard]] std::vector<std::shared_ptr<CaptureOutput>> outputs() const override;
    void removeInput(const std::shared_ptr<CaptureInput>& input) override;
    void removeOutput(const std::shared_ptr<CaptureOutput>& output) override;
    // Starts each input's source, in adding order. A source that fails to start is logged and
    // the others run.
    void startRunning() override;
    // Stops the running sources (last started first) and logs each output's drops, if any.
    void stopRunning() override;
    [[nodiscard]] bool isRunning() const override;
    void setInterruptionHandler(InterruptionHandler handler) override;

private:
    // An input whose source is delivering into an output.
    struct Connection {
        std::shared_ptr<CaptureInput> input;
        std::shared_ptr<CaptureOutput> output;
    };

    // Brings the running connections in line with the inputs and outputs. Needs mutex_.
    void reconcileLocked();
    [[nodiscard]] std::shared_ptr<CaptureOutput> firstOutputLocked(MediaType type) const;
    void logDropsLocked();

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<CaptureInput>> inputs_;    // guarded by mutex_
    std::vector<std::shared_ptr<CaptureOutput>> outputs_;  // guarded by mutex_
    std::vector<Connection> connections_;                  // guarded by mutex_; start order
    int configurationDepth_ = 0;                           // guarded by mutex_
    bool running_ = false;                                 // guarded by mutex_
    // Shared with the sources' handlers, which may run after the session changed or went away.
    struct Interruption {
        std::mutex mutex;
        InterruptionHandler handler;  // guarded by mutex
        uint64_t run = 0;             // guarded by mutex; the run whose handler already fired
        uint64_t reportedRun = 0;     // guarded by mutex
    };
    const std::shared_ptr<Interruption> interruption_ = std::make_shared<Interruption>();
};

}  // namespace gb::linuxp
