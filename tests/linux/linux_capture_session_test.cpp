// Guards against: samples delivered after stop, and a stalled consumer that blocks the capture thread instead of frames being dropped and counted.
#include "linux/capture/linux_capture_session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <future>
#include <mutex>

#include "fakes/log_capture.h"
#include "portable/thread_dispatch.h"

namespace gb::linuxp {
namespace {

using ::testing::ElementsAre;

// An input that is its own source and delivers whatever the test emits. Emitting holds the lock
// that stop() takes, so once stop() returned nothing is delivered any more, as the contract asks.
class FakeInput final : public CaptureInput, public SourceBackedInput, public CaptureSource {
public:
    [[nodiscard]] MediaType mediaType() const override { return MediaType::video; }
    [[nodiscard]] CaptureSource& captureSource() override { return *this; }
    Result<void> start(Deliver deliver) override {
        std::lock_guard lock(mutex_);
        deliver_ = std::move(deliver);
        return {};
    }
    void stop() override {
        std::lock_guard lock(mutex_);
        deliver_ = nullptr;
    }
    bool emit(int64_t ns) {  // as the source's thread would; false when not started
        std::lock_guard lock(mutex_);
        if (deliver_)
            deliver_(SampleBuffer::video(PixelBuffer::allocate(4, 4),
                                         {{}, MediaTime::fromNanoseconds(ns), {}}));
        return static_cast<bool>(deliver_);
    }

private:
    std::mutex mutex_;
    Deliver deliver_;  // guarded by mutex_
};

// Counts what it receives and holds the queue until released.
class StuckDelegate final : public CaptureOutputDelegate {
public:
    void captureOutput(CaptureOutput&, const SampleBufferRef& sample) override {
        std::unique_lock lock(mutex_);
        stamps.push_back(sample->presentationTime().nanoseconds());
        changed_.notify_all();
        changed_.wait(lock, [&] { return released_; });
    }
    void release() {
        std::lock_guard lock(mutex_);
        released_ = true;
        changed_.notify_all();
    }
    bool waitFor(size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(10), [&] { return stamps.size() >= count; });
    }
    std::vector<int64_t> stamps;  // guarded by mutex_

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool released_ = false;  // guarded by mutex_
};

TEST(LinuxCaptureSessionTest, StalledDelegateNeverBlocksTheCaptureThread) {
    fakes::LogCapture log;
    auto screen = std::make_shared<FakeInput>();
    auto output = std::make_shared<LinuxVideoDataOutput>();
    auto delegate = std::make_shared<StuckDelegate>();
    output->setSampleBufferDelegate(delegate, std::make_shared<ThreadSerialQueue>("glimmerbox.recording"));
    LinuxCaptureSession session;
    session.addInput(screen);
    session.addOutput(output);
    session.startRunning();
    // The first frame enters the (stuck) delegate, the second waits on the queue, the rest go.
    ASSERT_TRUE(screen->emit(0));
    ASSERT_TRUE(delegate->waitFor(1));
    auto capture = std::async(std::launch::async, [&] {
        for (int i = 1; i < 100; ++i) screen->emit(i);
    });
    ASSERT_EQ(capture.wait_for(std::chrono::seconds(10)), std::future_status::ready)
        << "the capture thread blocked on a stalled delegate";
    EXPECT_EQ(output->core().dropCount(), 98u);
    delegate->release();
    ASSERT_TRUE(delegate->waitFor(2));
    session.stopRunning();
    EXPECT_FALSE(screen->emit(200));
    EXPECT_EQ(delegate->stamps, (std::vector<int64_t>{0, 1}));
    EXPECT_THAT(log.lines(),
                ElementsAre("⚠️ Video output dropped 98 frames: the receiving queue was busy"));
}

}  // namespace
}  // namespace gb::linuxp
