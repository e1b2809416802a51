// Guards against: data races between the recording queue reading the outputs, cleanup() on another thread and option writes from the menu, and samples lost meanwhile.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "capture/capture_session_manager.h"
#include "fakes/fake_platform.h"
#include "portable/thread_dispatch.h"
#include "recording/log.h"

namespace gb {
namespace {
// Tells the streams apart the way the recorder does: by comparing with the manager's outputs.
class ClassifyingDelegate final : public CaptureSessionManagerDelegate {
public:
    void captureSessionManager(CaptureService& manager, const SampleBufferRef&,
                               CaptureOutput& output) override {
        const bool known = &output == manager.videoOutput().get() ||
                           &output == manager.cameraOutput().get() ||
                           &output == manager.audioOutput().get();
        ++(known ? this->known : unknown);  // unknown: delivered after cleanup(), then dropped
    }
    std::atomic<int> known{0};
    std::atomic<int> unknown{0};
};

TEST(CaptureSessionManagerConcurrencyTest, SamplesFlowWhileCleanupAndOptionWritesRun) {
    const LogSink previous = setLogSink([](std::string_view) {});
    RunLoopQueue main;
    ThreadDispatch dispatch(main, 1);
    fakes::FakeCaptureFactory factory;
    fakes::FakeDisplayProvider display;
    auto manager = std::make_shared<CaptureSessionManager>(factory, display, dispatch);
    auto delegate = std::make_shared<ClassifyingDelegate>();
    manager->setDelegate(delegate);
    // The menu, on its own thread.
    std::jthread menu([&manager](std::stop_token stop) {
        for (int i = 0; i < 2000 && !stop.stop_requested(); ++i) {
            manager->setCameraOverlayEnabled(i % 3 != 0);
            manager->setCameraOverlayPreset(static_cast<CameraOverlayPreset>(i % 3));
        }
    });
    const auto sample = SampleBuffer::video(PixelBuffer::allocate(4, 4), {});
    int delivered = 0;
    for (int round = 0; round < 150; ++round) {
        manager->setupScreenCapture();
        manager->setupCamera();
        for (int k = 0; k < 4; ++k) {
            factory.latest(factory.videoOutputs)->deliver(sample);
            factory.latest(factory.audioOutputs)->deliver(sample);
            delivered += 2;
        }
        manager->cleanup();  // while the queue still hands samples over
    }
    menu.request_stop();
    std::promise<void> drained;
    manager->recordingQueue()->async([&drained] { drained.set_value(); });
    drained.get_future().wait();
    EXPECT_EQ(delegate->known + delegate->unknown, delivered);
    EXPECT_EQ(manager->videoOutput(), nullptr);
    setLogSink(previous);
}

}  // namespace
}  // namespace gb
