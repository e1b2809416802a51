// The recorder on real threads: hundreds of start / stream / stop cycles with samples from a
// capture thread, stops racing the starts and starts during the previous finish. No race under
// ThreadSanitizer; every start and every finish reported once; a start during a finish records.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "fakes/fake_engine.h"
#include "portable/thread_dispatch.h"

namespace gb {
namespace {

using namespace gb::fakes;
using namespace std::chrono_literals;
using Stream = FakeCaptureService::Stream;

constexpr int kCycles = 400;

const std::string kWaits =
    "startRecording called while the previous recording is finishing; it starts once the file is "
    "finished";
const std::string kEndedByStop = "Recording start ended by a stop; the recording is being finished";

// Threaded dispatch whose sleeps are 50 times shorter, so the start's pause costs 2 ms.
class QuickDispatch final : public Dispatch {
public:
    explicit QuickDispatch(SerialQueue& main) : inner_(main, 2) {}
    SerialQueue& mainQueue() override { return inner_.mainQueue(); }
    Executor& backgroundExecutor() override { return inner_.backgroundExecutor(); }
    std::shared_ptr<SerialQueue> makeSerialQueue(const std::string& label,
                                                 QualityOfService qos) override {
        return inner_.makeSerialQueue(label, qos);
    }
    Sleeper& sleeper() override { return sleeper_; }

private:
    class QuickSleeper final : public Sleeper {
    public:
        bool sleep(std::chrono::nanoseconds duration, const CancellationToken& token) override {
            return token.waitFor(duration / 50);
        }
    };
    ThreadDispatch inner_;
    QuickSleeper sleeper_;
};

// Plays the capture hardware: every millisecond a screen frame (every third without an image),
// a camera frame and an audio buffer go to the recording queue, then a marker counting the batch.
class Feeder {
public:
    Feeder(FakeCaptureService& capture, std::shared_ptr<SerialQueue> queue)
        : capture_(capture), queue_(std::move(queue)), thread_([this](std::stop_token st) {
              for (int64_t t = 0; !st.stop_requested(); t += 20) feed(t, st);
          }) {}
    ~Feeder() { stop(); }
    // Blocks until `batches` more batches have been delivered; false on timeout.
    bool waitForBatches(int batches) {
        std::unique_lock lock(mutex_);
        const int64_t target = delivered_ + batches;
        return changed_.wait_for(lock, 5s, [&] { return delivered_ >= target; });
    }
    void stop() {
        thread_.request_stop();
        if (thread_.joinable()) thread_.join();
        queue_.reset();
    }

private:
    void feed(int64_t t, std::stop_token stop) {
        capture_.post(
            Stream::screen,
            makeVideoSample(mediaTime(t),
                            t % 60 == 0 ? std::nullopt : std::optional<ImageSize>{{8, 8}}));
        capture_.post(Stream::camera, makeVideoSample(mediaTime(t + 1), ImageSize{4, 4}));
        capture_.post(Stream::audio, makeAudioSample(mediaTime(t + 2)));
        queue_->async([this] {
            std::lock_guard lock(mutex_);
            ++delivered_;
            changed_.notify_all();
        });
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, stop, 1ms, [] { return false; });
    }
    FakeCaptureService& capture_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    int64_t delivered_ = 0;  // guarded by mutex_
    std::shared_ptr<SerialQueue> queue_;
    std::jthread thread_;  // last: starts after the fields above exist
};

// Runs `work` on `queue` and waits for it; false on timeout.
bool runOn(SerialQueue& queue, std::function<void()> work) {
    auto done = std::make_shared<std::promise<void>>();
    queue.async([work = std::move(work), done] {
        work();
        done->set_value();
    });
    return done->get_future().wait_for(5s) == std::future_status::ready;
}

TEST(RecorderConcurrencyTest, CyclesWithSamplesFromAnotherThreadLoseNoReport) {
    LogCapture log;
    ThreadSerialQueue main("main");
    QuickDispatch dispatch(main);
    FakeEngine engine;
    auto recorder = engine.makeRecorder(dispatch);
    auto delegate = std::make_shared<FakeRecorderDelegate>();
    recorder->setDelegate(delegate);
    auto recordingQueue =
        dispatch.makeSerialQueue("glimmerbox.recording", QualityOfService::userInitiated);
    engine.capture->setRecordingQueue(recordingQueue);
    Feeder feeder(*engine.capture, recordingQueue);
    // A start whose end is awaited through the returned future.
    const auto start = [&](CancellationToken token = {}) {
        auto ended = std::make_shared<std::promise<void>>();
        recorder->startRecording(token, [ended] { ended->set_value(); });
        return ended->get_future();
    };
    const auto ends = [](std::future<void>& f) {
        return f.wait_for(5s) == std::future_status::ready;
    };
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        // 0: start during the finish, 1: cancel and stop at once, 2: stop at once, 3: two starts.
        const int variant = cycle % 4;
        engine.factory.setConfig({.holdFinish = variant == 0});
        std::vector<std::future<void>> starts;
        ASSERT_TRUE(runOn(main, [&] {
            CancellationToken token;
            starts.push_back(start(token));
            if (variant == 1) token.cancel();
            if (variant == 1 || variant == 2) recorder->stopRecording();
            if (variant == 3) starts.push_back(start());
        }));
        for (auto& s : starts) ASSERT_TRUE(ends(s)) << "a start never ended, cycle " << cycle;
        if (recorder->isRecording()) {
            ASSERT_TRUE(feeder.waitForBatches(2)) << "no samples reached the recording queue";
            ASSERT_TRUE(runOn(main, [&] { recorder->stopRecording(); }));
        }
        if (auto writer = engine.factory.lastWriter(); writer && writer->isFinishHeld()) {
            auto during = start();  // waits for the finish, then records
            engine.factory.setConfig({});
            std::jthread([writer] { writer->releaseFinish(); }).join();  // the writer's thread
            ASSERT_TRUE(ends(during));
            ASSERT_TRUE(runOn(main, [&] { recorder->stopRecording(); }));
        }
        const size_t expected = log.count("ScreenRecorder.startRecording() called") +
                                log.countPrefix("Finishing writing to: ") - log.count(kEndedByStop);
        ASSERT_TRUE(delegate->waitForCount(expected, 5s)) << "a report is missing, cycle " << cycle;
    }
    feeder.stop();
    ASSERT_TRUE(runOn(*recordingQueue, [] {}));  // drained while the capture service exists
    engine.capture->setRecordingQueue(nullptr);
    recordingQueue.reset();
    size_t finishes = 0;
    for (const auto& r : delegate->reports()) {
        finishes += r.kind == FakeRecorderDelegate::Report::Kind::didStop;
        EXPECT_NE(r.errorKind, ScreenRecorderError::Kind::recordingFailed);
    }
    // Every start reports once, unless a stop during its pause made the finish its one outcome.
    EXPECT_EQ(delegate->count(), log.count("ScreenRecorder.startRecording() called") + finishes -
                                     log.count(kEndedByStop));
    EXPECT_EQ(finishes, log.countPrefix("Finishing writing to: "));
    EXPECT_EQ(finishes, log.count("Recording completed successfully"));
    EXPECT_GE(finishes, static_cast<size_t>(kCycles / 2));
    EXPECT_GE(log.count(kWaits), static_cast<size_t>(kCycles / 8));
    // Nothing appended after an input was finished, sessions never driven from two threads at
    // once, and the streams really reached the writers.
    size_t frames = 0, audio = 0;
    for (const auto& input : engine.factory.inputs()) {
        EXPECT_EQ(input->appendsAfterFinish(), 0u);
        (input->mediaType() == MediaType::video ? frames : audio) += input->appended().size();
    }
    EXPECT_GT(frames, static_cast<size_t>(kCycles));
    EXPECT_GT(audio, static_cast<size_t>(kCycles));
    EXPECT_FALSE(engine.capture->screenSessionFake().overlappingCallSeen());
    EXPECT_FALSE(engine.capture->cameraSessionFake().overlappingCallSeen());
    EXPECT_FALSE(recorder->isRecording());
}

}  // namespace
}  // namespace gb
