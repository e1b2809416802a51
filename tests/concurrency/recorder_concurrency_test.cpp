// Guards against: data races and lost reports when start/stream/stop cycles meet samples from a capture thread and option changes from the menu, stops racing starts, and starts during the previous finish.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "fakes/fake_platform.h"
#include "fakes/pixel_buffers.h"
#include "portable/thread_dispatch.h"

namespace gb {
namespace {

const std::string kEndedByStop = "Recording start ended by a stop; the recording is being finished";

using namespace gb::fakes;
using namespace std::chrono_literals;

constexpr int kCycles = 300;

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
    RecorderWorld world;
    auto recorder = world.makeRecorder(dispatch);
    // Plays the capture hardware: every millisecond a screen frame (every third without an
    // image), a camera frame and an audio buffer through the newest outputs.
    std::atomic<int64_t> batches{0};
    std::jthread feeder([&](std::stop_token stop) {
        const auto screen = solidBuffer(64, 36, bgra(1, 2, 3)), camera = solidBuffer(16, 9, 0);
        for (int64_t t = 0; !stop.stop_requested(); t += 20, ++batches) {
            auto& f = world.factory;
            if (auto out = f.latest(f.videoOutputs, 1)) out->deliver(videoSample(t, t % 60 ? screen : nullptr));
            if (auto out = f.latest(f.videoOutputs)) out->deliver(videoSample(t + 1, camera));
            if (auto out = f.latest(f.audioOutputs)) out->deliver(audioSample(t + 2));
            std::this_thread::sleep_for(1ms);
        }
    });
    const auto start = [&](CancellationToken token = {}) {
        auto ended = std::make_shared<std::promise<void>>();
        recorder->startRecording(token, [ended] { ended->set_value(); });
        return ended->get_future();
    };
    const auto ends = [](std::future<void>& f) { return f.wait_for(5s) == std::future_status::ready; };
    for (int cycle = 0; cycle < kCycles; ++cycle) {
        // 0: start during the finish, 1: cancel and stop at once, 2: stop at once, 3: two starts.
        const int variant = cycle % 4;
        world.writers.setConfig({.holdFinish = variant == 0});
        std::vector<std::future<void>> starts;
        ASSERT_TRUE(runOn(main, [&] {
            // The menu changes the overlay while the recording queue composes with it.
            recorder->setCameraOverlayPreset(static_cast<CameraOverlayPreset>(cycle % 3));
            recorder->setCameraPosition(static_cast<CameraPosition>(cycle % 4));
            CancellationToken token;
            starts.push_back(start(token));
            if (variant == 1) token.cancel();
            if (variant == 1 || variant == 2) recorder->stopRecording();
            if (variant == 3) starts.push_back(start());
        }));
        for (auto& s : starts) ASSERT_TRUE(ends(s)) << "a start never ended, cycle " << cycle;
        if (recorder->isRecording()) {
            const int64_t seen = batches;
            while (batches < seen + 2) std::this_thread::sleep_for(1ms);
            ASSERT_TRUE(runOn(main, [&] { recorder->stopRecording(); }));
        }
        if (auto writer = world.writers.lastWriter(); writer && writer->isFinishHeld()) {
            auto during = start();  // waits for the finish, then records
            world.writers.setConfig({});
            std::jthread([writer] { writer->releaseFinish(); }).join();  // the writer's thread
            ASSERT_TRUE(ends(during));
            ASSERT_TRUE(runOn(main, [&] { recorder->stopRecording(); }));
        }
        // Every start reports once, unless a stop during its pause made the finish its outcome.
        const size_t expected = log.count("ScreenRecorder.startRecording() called") +
                                log.countPrefix("Finishing writing to: ") - log.count(kEndedByStop);
        ASSERT_TRUE(world.delegate->waitForCount(expected, 5s)) << "a report is missing, cycle " << cycle;
    }
    feeder = {};
    ASSERT_TRUE(runOn(*world.capture->recordingQueue(), [] {}));
    size_t finishes = 0;
    for (const auto& r : world.delegate->reports()) {
        finishes += r.kind.starts_with("stop ");
        EXPECT_NE(r.errorKind, ScreenRecorderError::Kind::recordingFailed);
    }
    EXPECT_EQ(finishes, log.countPrefix("Finishing writing to: "));
    EXPECT_GE(finishes, static_cast<size_t>(kCycles / 2));
    EXPECT_GE(log.count("startRecording called while the previous recording is finishing; it "
                        "starts once the file is finished"),
              static_cast<size_t>(kCycles / 8));
    // Nothing appended after an input was finished, sessions never driven from two threads at
    // once, and the streams really reached the writers.
    size_t frames = 0, audio = 0;
    for (const auto& input : world.writers.allInputs()) {
        EXPECT_EQ(input->appendsAfterFinish, 0);
        (input->mediaType() == MediaType::video ? frames : audio) += input->appended().size();
    }
    EXPECT_GT(frames, static_cast<size_t>(kCycles));
    EXPECT_GT(audio, static_cast<size_t>(kCycles));
    EXPECT_FALSE(world.session(0).overlappingCallSeen || world.session(1).overlappingCallSeen);
    EXPECT_FALSE(recorder->isRecording());
}

}  // namespace
}  // namespace gb
