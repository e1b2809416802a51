// The Linux capture session and data outputs, driven by fake capture sources.
#include "linux/capture/linux_capture_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fakes/fake_dispatch.h"
#include "fakes/log_capture.h"
#include "portable/thread_dispatch.h"

namespace gb::linuxp {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;
using EventLog = fakes::CallLog;  // start and stop calls of every fake source, in order

// An input that is its own source and delivers whatever the test emits. Emitting holds the lock
// that stop() takes, so once stop() returned, nothing is delivered any more (as the contract asks
// of real sources).
class FakeInput final : public CaptureInput, public SourceBackedInput, public CaptureSource {
public:
    FakeInput(MediaType type, std::string name, EventLog& log)
        : type_(type), name_(std::move(name)), log_(log) {}

    [[nodiscard]] MediaType mediaType() const override { return type_; }
    [[nodiscard]] CaptureSource& captureSource() override { return *this; }
    Result<void> start(Deliver deliver) override {
        log_.add("start " + name_);
        if (failStart) return PlatformError{"test", 7, "device is busy"};
        std::lock_guard lock(mutex_);
        deliver_ = std::move(deliver);
        return {};
    }
    void stop() override {
        log_.add("stop " + name_);
        std::lock_guard lock(mutex_);
        deliver_ = nullptr;
    }
    // Delivers one sample as the source's thread would; false when not started.
    bool emit(const SampleBufferRef& sample) {
        std::lock_guard lock(mutex_);
        if (!deliver_) return false;
        deliver_(sample);
        return true;
    }

    bool failStart = false;

private:
    const MediaType type_;
    const std::string name_;
    EventLog& log_;
    std::mutex mutex_;
    Deliver deliver_;  // guarded by mutex_
};

struct Delivery {
    CaptureOutput* output;
    SampleBufferRef sample;
};

// Records what it receives; while blocked, holds the queue until unblocked.
class RecordingDelegate final : public CaptureOutputDelegate {
public:
    void captureOutput(CaptureOutput& output, const SampleBufferRef& sample) override {
        std::unique_lock lock(mutex_);
        deliveries_.push_back({&output, sample});
        changed_.notify_all();
        changed_.wait(lock, [&] { return !blocking_; });
    }
    void setBlocking(bool blocking) {
        {
            std::lock_guard lock(mutex_);
            blocking_ = blocking;
        }
        changed_.notify_all();
    }
    // Waits (at most 10 s, against a hang) until `count` samples arrived.
    bool waitFor(size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10),
                                 [&] { return deliveries_.size() >= count; });
    }
    [[nodiscard]] std::vector<Delivery> deliveries() const {
        std::lock_guard lock(mutex_);
        return deliveries_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Delivery> deliveries_;  // guarded by mutex_
    bool blocking_ = false;             // guarded by mutex_
};

SampleTiming at(int64_t ns) {
    return {MediaTime::invalid(), MediaTime::fromNanoseconds(ns), MediaTime::invalid()};
}
SampleBufferRef videoSample(int64_t ns) {
    return SampleBuffer::video(PixelBuffer::allocate(4, 4), at(ns));
}
SampleBufferRef audioSample(int64_t ns) {
    return SampleBuffer::audio(std::make_shared<AudioBuffer>(), at(ns));
}

class LinuxCaptureSessionTest : public ::testing::Test {
protected:
    std::shared_ptr<FakeInput> input(MediaType type, const std::string& name) {
        return std::make_shared<FakeInput>(type, name, events);
    }

    void add(std::vector<std::shared_ptr<CaptureInput>> inputs,
             std::vector<std::shared_ptr<CaptureOutput>> outputs) {
        for (auto& in : inputs) session.addInput(in);
        for (auto& out : outputs) session.addOutput(out);
    }
    // Wires the screen source to the video output, whose samples go to `receiving`, and starts.
    void startScreen(std::shared_ptr<SerialQueue> receiving) {
        videoOut->setSampleBufferDelegate(delegate, std::move(receiving));
        add({screen}, {videoOut});
        session.startRunning();
    }

    EventLog events;
    fakes::LogCapture log;
    LinuxCaptureSession session;
    std::shared_ptr<fakes::ManualQueue> queue = std::make_shared<fakes::ManualQueue>("rec");
    std::shared_ptr<FakeInput> screen = input(MediaType::video, "screen");
    std::shared_ptr<FakeInput> mic = input(MediaType::audio, "mic");
    std::shared_ptr<LinuxVideoDataOutput> videoOut = std::make_shared<LinuxVideoDataOutput>();
    std::shared_ptr<LinuxAudioDataOutput> audioOut = std::make_shared<LinuxAudioDataOutput>();
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
};

TEST_F(LinuxCaptureSessionTest, TakesEachObjectOnceAndStartsInAddingOrderAndStopsLastFirst) {
    add({screen, mic}, {videoOut, audioOut});
    EXPECT_FALSE(session.canAddInput(screen));
    EXPECT_FALSE(session.canAddOutput(videoOut));
    session.addOutput(videoOut);
    EXPECT_THAT(session.outputs(), ElementsAre(videoOut, audioOut));
    EXPECT_THAT(log.lines(),
                ElementsAre("⚠️ Capture session refused an output it cannot take"));
    EXPECT_THAT(events.calls(), IsEmpty());
    session.startRunning();
    session.startRunning();  // already running: nothing more
    EXPECT_TRUE(session.isRunning());
    session.stopRunning();
    session.stopRunning();
    EXPECT_FALSE(session.isRunning());
    EXPECT_THAT(events.calls(),
                ElementsAre("start screen", "start mic", "stop mic", "stop screen"));
    // An input without an output of its type stays idle; one that fails to start is logged and
    // the others run; destroying a running session stops its sources.
    events.clear();
    auto voice = input(MediaType::audio, "voice");
    auto broken = input(MediaType::audio, "broken");
    broken->failStart = true;
    {
        LinuxCaptureSession other;
        for (auto& in : {input(MediaType::video, "camera"), broken, voice}) other.addInput(in);
        other.addOutput(std::make_shared<LinuxAudioDataOutput>());
        other.startRunning();
    }
    EXPECT_THAT(events.calls(), ElementsAre("start broken", "start voice", "stop voice"));
    EXPECT_EQ(log.lines().back(), "❌ Audio capture source failed to start: device is busy");
    EXPECT_FALSE(voice->emit(audioSample(0)));
}

TEST_F(LinuxCaptureSessionTest, DeliversOnTheQueueWithTheFirstOutputOfItsTypeAndDropsWhenBusy) {
    auto secondVideo = std::make_shared<LinuxVideoDataOutput>();
    for (auto& out : std::vector<std::shared_ptr<CaptureOutput>>{videoOut, secondVideo, audioOut})
        out->setSampleBufferDelegate(delegate, queue);
    add({screen, mic}, {videoOut, secondVideo, audioOut});
    session.startRunning();
    const auto frame = videoSample(1);
    const auto audio = audioSample(2);
    ASSERT_TRUE(screen->emit(frame));
    ASSERT_TRUE(mic->emit(audio));
    EXPECT_THAT(delegate->deliveries(), IsEmpty());  // nothing runs on the capture thread
    EXPECT_EQ(queue->runPending(), 2);
    const auto got = delegate->deliveries();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_TRUE(got[0].output == videoOut.get() && got[0].sample == frame);
    EXPECT_TRUE(got[1].output == audioOut.get() && got[1].sample == audio);
    // Two frames may wait for the queue, and fifty audio buffers.
    for (int i = 0; i < 5; ++i) ASSERT_TRUE(screen->emit(videoSample(i)));
    for (int i = 0; i < 60; ++i) ASSERT_TRUE(mic->emit(audioSample(i)));
    EXPECT_EQ(queue->pendingCount(), 52u);
    EXPECT_EQ(videoOut->core().dropCount(), 3u);
    session.stopRunning();
    EXPECT_FALSE(screen->emit(frame) || mic->emit(audio));
    EXPECT_THAT(log.lines(),
                UnorderedElementsAre(
                    "⚠️ Video output dropped 3 frames: the receiving queue was busy",
                    "⚠️ Audio output dropped 10 audio buffers: the receiving queue was busy"));
}

TEST_F(LinuxCaptureSessionTest, StalledDelegateNeverBlocksTheCaptureThread) {
    auto realQueue = std::make_shared<ThreadSerialQueue>("glimmerbox.recording");
    delegate->setBlocking(true);
    startScreen(realQueue);
    // The first frame enters the (stuck) delegate, the second waits on the queue, the rest go.
    ASSERT_TRUE(screen->emit(videoSample(0)));
    ASSERT_TRUE(delegate->waitFor(1));
    auto capture = std::async(std::launch::async, [&] {
        for (int i = 1; i < 100; ++i) screen->emit(videoSample(i));
    });
    ASSERT_EQ(capture.wait_for(std::chrono::seconds(10)), std::future_status::ready)
        << "the capture thread blocked on a stalled delegate";
    EXPECT_EQ(videoOut->core().dropCount(), 98u);
    delegate->setBlocking(false);
    ASSERT_TRUE(delegate->waitFor(2));
    session.stopRunning();
    const auto got = delegate->deliveries();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].sample->presentationTime(), MediaTime::fromNanoseconds(1));
    EXPECT_THAT(log.lines(),
                ElementsAre("⚠️ Video output dropped 98 frames: the receiving queue was busy"));
}

TEST_F(LinuxCaptureSessionTest, WaitingSamplesOfAGoneDelegateQueueOrOutputAreDroppedSilently) {
    startScreen(queue);
    ASSERT_TRUE(screen->emit(videoSample(0)));
    delegate.reset();
    EXPECT_EQ(queue->runPending(), 1);
    EXPECT_EQ(videoOut->core().inFlight(), 0);
    // A queue that is replaced and dropped gives the places of its samples back.
    auto receiver = std::make_shared<RecordingDelegate>();
    videoOut->setSampleBufferDelegate(receiver, queue);
    ASSERT_TRUE(screen->emit(videoSample(1)));
    EXPECT_EQ(videoOut->core().inFlight(), 1);
    auto next = std::make_shared<fakes::ManualQueue>("next");
    videoOut->setSampleBufferDelegate(receiver, next);
    queue.reset();
    EXPECT_EQ(videoOut->core().inFlight(), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
}  // namespace gb::linuxp
