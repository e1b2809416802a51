// The recorder on real threads: hundreds of start / stream / stop cycles with samples from a
// capture thread, stops racing the starts and starts during the previous finish. No race under
// ThreadSanitizer; every start and every finish reported.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>
#include <thread>

#include "fakes/fake_engine.h"
#include "linux/portable/thread_dispatch.h"

namespace gb {
namespace {

using namespace gb::fakes;
using namespace std::chrono_literals;

constexpr int kCycles = 400;
constexpr auto kTimeout = 60s;

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

// Plays the capture hardware: every millisecond a screen frame, a camera frame and an audio
// buffer go to the recording queue, followed by a marker that counts the batch as delivered.
class Feeder {
public:
    Feeder(FakeCaptureService& capture, std::shared_ptr<SerialQueue> queue)
        : capture_(capture),
          queue_(std::move(queue)),
          thread_([this](std::stop_token st) { run(st); }) {}

    // Blocks until `batches` more batches have been delivered; false on timeout.
    bool waitForBatches(int batches) {
        std::unique_lock lock(mutex_);
        const int64_t target = delivered_ + batches;
        return changed_.wait_for(lock, 5s, [&] { return delivered_ >= target; });
    }
    // Stops feeding and lets go of the queue.
    void stop() {
        thread_.request_stop();
        changed_.notify_all();
        if (thread_.joinable()) thread_.join();
        queue_.reset();
    }
    ~Feeder() { stop(); }
    Feeder(const Feeder&) = delete;
    Feeder& operator=(const Feeder&) = delete;

private:
    void run(std::stop_token stop) {
        for (int64_t t = 0; !stop.stop_requested(); t += 20) {
            capture_.postScreen(makeVideoSample(
                mediaTime(t), t % 60 == 0 ? std::nullopt : std::optional<ImageSize>{{8, 8}}));
            capture_.postCamera(makeVideoSample(mediaTime(t + 1), ImageSize{4, 4}));
            capture_.postAudio(makeAudioSample(mediaTime(t + 2)));
            queue_->async([this] {
                {
                    std::lock_guard lock(mutex_);
                    ++delivered_;
                }
                changed_.notify_all();
            });
            std::unique_lock lock(mutex_);
            changed_.wait_for(lock, stop, 1ms, [] { return false; });
        }
    }

    FakeCaptureService& capture_;
    std::mutex mutex_;
    std::condition_variable_any changed_;
    int64_t delivered_ = 0;  // guarded by mutex_
    // Released before the fields above: its markers use them.
    std::shared_ptr<SerialQueue> queue_;
    std::jthread thread_;  // last: starts after the fields above exist
};

// Drives the cycles from the main run loop, the way the application does: start, stream, stop,
// with the variants below chosen by the cycle number.
class Driver {
public:
    enum class Variant {
        plain,                // start, stream, stop; the finish completes on another thread
        startDuringFinish,    // as plain, and a start is attempted while the writer finishes
        cancelAndStopAtOnce,  // the application's stop right after its start: cancel + stop
        stopAtOnce,           // stop right after the start, without cancelling it
        doubleStart,          // a second start while the first is still starting
    };

    Driver(RunLoopQueue& main, ScreenRecorder& recorder, FakeAssetWriterFactory& factory,
           LogCapture& log, Feeder& feeder)
        : main_(main), recorder_(recorder), factory_(factory), log_(log), feeder_(feeder) {}

    // Main thread: runs the cycles until the last one ended (or the watchdog quit the loop).
    void run() {
        main_.async([this] { beginCycle(); });
        main_.run();
    }
    // Any thread: a finish was reported (the report itself runs inside the finish step).
    void onFinishReported() {
        main_.async([this] {
            --pendingFinishes_;
            advance();
        });
    }

    // Read after run() returned.
    int cyclesDone = 0;
    int refusalsExpected = 0;  // starts refused while starting or finishing, or while recording
    int refusalsDuringFinish = 0;
    bool failed = false;
    std::string failure;

private:
    void fail(std::string what) {
        failed = true;
        failure = std::move(what);
        main_.quit();
    }

    void beginCycle() {
        if (cyclesDone == kCycles) {
            main_.quit();
            return;
        }
        variant_ = static_cast<Variant>(cyclesDone % 5);
        FakeWriterConfig config;
        config.holdFinish = variant_ == Variant::plain || variant_ == Variant::startDuringFinish;
        factory_.setConfig(config);

        token_ = CancellationToken();
        start(token_);
        switch (variant_) {
            case Variant::cancelAndStopAtOnce:
                token_.cancel();
                stop();
                break;
            case Variant::stopAtOnce:
                stop();
                break;
            case Variant::doubleStart:
                ++refusalsExpected;
                start({});
                break;
            default:
                break;
        }
    }

    void start(const CancellationToken& token) {
        ++startsUnderWay_;
        recorder_.startRecording(token, [this] {
            main_.async([this] {
                --startsUnderWay_;
                advance();
            });
        });
    }

    // Ends the cycle once its starts are over and nothing is left finishing; stops a recording
    // that is still running first.
    void advance() {
        if (startsUnderWay_ > 0 || pendingFinishes_ > 0) return;
        if (recorder_.isRecording()) {
            if (!feeder_.waitForBatches(2)) return fail("no samples reached the recording queue");
            stop();
            if (pendingFinishes_ > 0) return;
        }
        ++cyclesDone;
        beginCycle();
    }

    void stop() {
        const size_t stopsBefore = log_.count("Stopping recording...");
        recorder_.stopRecording();
        if (log_.count("Stopping recording...") == stopsBefore) return;
        ++pendingFinishes_;
        auto writer = factory_.lastWriter();
        if (!writer->isFinishHeld()) return;  // completed at once; the finish step is queued

        if (variant_ == Variant::startDuringFinish) {
            // The start runs to its end while the writer is still finishing.
            ++refusalsExpected;
            ++refusalsDuringFinish;
            auto done = std::make_shared<std::promise<void>>();
            recorder_.startRecording({}, [done] { done->set_value(); });
            if (done->get_future().wait_for(5s) != std::future_status::ready) {
                return fail("a start during the finish never ended");
            }
        }
        // The writer's completion arrives on a thread of its own.
        releaser_ = std::jthread([writer] { writer->releaseFinish(); });
    }

    RunLoopQueue& main_;
    ScreenRecorder& recorder_;
    FakeAssetWriterFactory& factory_;
    LogCapture& log_;
    Feeder& feeder_;
    // Main thread only:
    Variant variant_ = Variant::plain;
    CancellationToken token_;
    int startsUnderWay_ = 0;
    int pendingFinishes_ = 0;
    std::jthread releaser_;
};

TEST(RecorderConcurrencyTest, CyclesWithSamplesFromAnotherThreadLoseNoReport) {
    LogCapture log;
    RunLoopQueue mainQueue;
    QuickDispatch dispatch(mainQueue);
    FakeEngine engine;
    auto& factory = engine.factory;
    auto recorder = engine.makeRecorder(dispatch);
    const auto capture = engine.capture;
    auto delegate = std::make_shared<FakeRecorderDelegate>();
    recorder->setDelegate(delegate);
    auto recordingQueue =
        dispatch.makeSerialQueue("glimmerbox.recording", QualityOfService::userInitiated);
    capture->setRecordingQueue(recordingQueue);

    Feeder feeder(*capture, recordingQueue);
    Driver driver(mainQueue, *recorder, factory, log, feeder);
    delegate->setOnReport([&](const FakeRecorderDelegate::Report& report) {
        if (report.kind == FakeRecorderDelegate::Report::Kind::didStop ||
            (report.kind == FakeRecorderDelegate::Report::Kind::didFail &&
             report.errorKind == ScreenRecorderError::Kind::recordingFailed)) {
            driver.onFinishReported();
        }
    });

    // The watchdog ends the run loop if a report never comes.
    std::promise<void> finished;
    std::atomic<bool> timedOut{false};
    std::jthread watchdog([&, done = finished.get_future()]() mutable {
        if (done.wait_for(kTimeout) != std::future_status::ready) {
            timedOut = true;
            mainQueue.quit();
        }
    });
    driver.run();
    finished.set_value();
    watchdog.join();

    feeder.stop();
    capture->setRecordingQueue(nullptr);
    recordingQueue.reset();  // joins the recording queue while the capture service still exists
    ASSERT_FALSE(timedOut) << "stuck after " << driver.cyclesDone << " cycles";
    ASSERT_FALSE(driver.failed) << driver.failure;
    EXPECT_EQ(driver.cyclesDone, kCycles);

    // Every accepted start reported exactly once; every finish reported exactly once.
    const auto reports = delegate->reports();
    size_t startOutcomes = 0;
    size_t finishOutcomes = 0;
    for (const auto& r : reports) {
        const bool finalisation = r.kind == FakeRecorderDelegate::Report::Kind::didStop ||
                                  (r.kind == FakeRecorderDelegate::Report::Kind::didFail &&
                                   r.errorKind == ScreenRecorderError::Kind::recordingFailed);
        (finalisation ? finishOutcomes : startOutcomes) += 1;
    }
    EXPECT_EQ(startOutcomes, log.count("ScreenRecorder.startRecording() called"));
    EXPECT_EQ(finishOutcomes, log.count("Finishing writing to: /home/user/Documents/Glimmerbox "
                                        "Recordings/glimmerbox-2025-03-14_09-26-53.mov"));
    EXPECT_EQ(finishOutcomes, log.count("Recording completed successfully"));
    EXPECT_EQ(static_cast<size_t>(driver.refusalsExpected),
              log.count("startRecording called but a previous recording is still starting or "
                        "finishing") +
                  log.count("startRecording called but already recording"));
    EXPECT_GE(log.count("startRecording called but a previous recording is still starting or "
                        "finishing"),
              static_cast<size_t>(driver.refusalsDuringFinish));
    EXPECT_EQ(log.countPrefix("Recording setup failed: "),
              log.count("Recording setup failed: CancellationError()"));
    EXPECT_EQ(log.count("No writer or URL available"), 0u);

    // Nothing was appended after an input was marked finished, sessions were never driven from
    // two threads at once, and the streams really reached the writers.
    size_t videoFrames = 0;
    size_t audioSamples = 0;
    for (const auto& input : factory.inputs()) {
        EXPECT_EQ(input->appendsAfterFinish(), 0u);
        (input->mediaType() == MediaType::video ? videoFrames : audioSamples) +=
            input->appended().size();
    }
    EXPECT_GT(videoFrames, static_cast<size_t>(kCycles));
    EXPECT_GT(audioSamples, static_cast<size_t>(kCycles));
    EXPECT_GT(engine.composer->composeCalls().size(), 0u);
    EXPECT_FALSE(capture->screenSessionFake().overlappingCallSeen());
    EXPECT_FALSE(capture->cameraSessionFake().overlappingCallSeen());
    EXPECT_FALSE(capture->screenSessionFake().isRunning());
    EXPECT_FALSE(recorder->isRecording());
    EXPECT_EQ(engine.fileManager->currentOutputURL(), std::nullopt);
}

}  // namespace
}  // namespace gb
