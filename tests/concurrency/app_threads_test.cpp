// The shell over real threads (the test's thread drains the main queue): reports reach the user
// interface on the main thread only, and nothing races under ThreadSanitizer.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "automation/vscode_integration.h"
#include "fakes/fake_dispatch.h"
#include "fakes/fake_shell_platform.h"
#include "fakes/log_capture.h"
#include "portable/thread_dispatch.h"

namespace gb {
namespace {

using Stream = fakes::FakeCaptureService::Stream;
constexpr const char* kStart = "\u23FA Start Recording";
constexpr const char* kStop = "\u23F9 Stop Recording";
constexpr const char* kDisabledLine = "\U0001F527 VS Code automation: Disabled screencast mode";

struct ThreadedShell : fakes::FakeShellPlatform {
    ThreadedShell() {
        defaults.setBool(true, AppDelegate::kVSCodeAutomationEnabledKey);
        finder.launch("com.microsoft.VSCode");
        recordingQueue =
            dispatch.makeSerialQueue("glimmerbox.recording", QualityOfService::userInitiated);
    }
    ~ThreadedShell() {
        delegate.reset();
        recorder.reset();
        // Let the recording queue finish the samples it holds while the capture fake exists.
        std::promise<void> drained;
        recordingQueue->async([&drained] { drained.set_value(); });
        drained.get_future().wait();
    }
    void launch() {
        delegate = std::make_shared<AppDelegate>(
            platform(dispatch),
            [this] {
                recorder = makeRecorder(dispatch);
                capture->setRecordingQueue(recordingQueue);
                return recorder;
            },
            vsCode);
        delegate->applicationDidFinishLaunching();
    }
    // Runs the main queue on this thread until `quit()`, failing the test after a timeout.
    void runMainLoop() {
        std::atomic<bool> done{false};
        std::jthread watchdog([&](std::stop_token stop) {
            CancellationToken wake;
            std::stop_callback onStop(stop, [&] { wake.cancel(); });
            if (wake.waitFor(std::chrono::seconds(20)) && !done) {
                ADD_FAILURE() << "main loop timed out";
                main.quit();
            }
        });
        main.run();
        done = true;
    }
    [[nodiscard]] bool onMainThread() const { return std::this_thread::get_id() == mainThread; }
    fakes::LogCapture log;
    const std::thread::id mainThread = std::this_thread::get_id();
    RunLoopQueue main;
    ThreadDispatch dispatch{main, 3};
    std::shared_ptr<SerialQueue> recordingQueue;
    std::shared_ptr<ScreenRecorder> recorder;
    fakes::FakeSleeper editorPauses;  // the editor's pauses pass at once
    VSCodeIntegration vsCode{finder, runner, editorPauses};
    std::shared_ptr<AppDelegate> delegate;
};

TEST(ShellThreads, ARecordingWithAutomationTouchesTheInterfaceOnTheMainThreadOnly) {
    ThreadedShell s;
    s.launch();
    std::atomic<int> offMainEffects{0};
    std::vector<std::string> titles;  // main thread only
    s.notifications.onAdd = [&](const NotificationRequest& r) {
        if (!s.onMainThread()) ++offMainEffects;
        titles.push_back(r.title);
        if (r.title == "Recording Started") {
            for (int i = 0; i < 30; ++i) {
                (void)s.capture->post(
                    Stream::screen,
                    fakes::makeVideoSample(fakes::mediaTime(20 * i), fakes::ImageSize{64, 36}));
                (void)s.capture->post(Stream::audio,
                                      fakes::makeAudioSample(fakes::mediaTime(20 * i)));
            }
            // Options change on the main thread while samples are being handled.
            ASSERT_TRUE(s.statusBar.item()->choose({"Camera Overlay"}));
            ASSERT_TRUE(s.statusBar.item()->choose({"Camera Position", "Top Left"}));
            ASSERT_TRUE(s.statusBar.item()->choose({kStop}));
        } else if (r.title == "Recording Saved") {
            s.main.quit();
        }
    };
    s.main.async([&] { ASSERT_TRUE(s.statusBar.item()->choose({kStart})); });
    s.runMainLoop();
    EXPECT_EQ(offMainEffects.load(), 0);
    EXPECT_EQ(titles, (std::vector<std::string>{"Recording Started", "Recording Saved"}));
    EXPECT_TRUE(s.alerts.alerts.empty());
    EXPECT_TRUE(s.log.waitFor(kDisabledLine, 1, std::chrono::seconds(10)));
    // The stop was chosen while the start task's tail was still queued behind the report.
    EXPECT_EQ(s.log.countPrefix("Recording start completed. Current state: "), 1u);
}

}  // namespace
}  // namespace gb
