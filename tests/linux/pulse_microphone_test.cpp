// Guards against: microphone audio with gaps or wrong stamps, a stop that hangs or delivers afterwards, and a dying PulseAudio server that hangs the capture or ends it without a word.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "fakes/frame_collector.h"
#include "fakes/log_capture.h"
#include "fakes/processes.h"
#include "linux/pulse/pulse_microphone.h"

namespace gb::linuxp {
namespace {

using namespace std::chrono_literals;

TEST(PulseMicrophoneTest, RecordsInTimeStopsPromptlyAndSurvivesTheServerDying) {
    if (std::system("command -v pulseaudio pactl >/dev/null") != 0)
        GTEST_SKIP() << "pulseaudio and pactl are not installed";
    fakes::VirtualMicrophone server;
    ASSERT_TRUE(server.ok()) << server.log();
    // This process's libpulse talks to the test's server and sees a temporary home.
    fakes::TempDirectory home;
    fakes::ScopedEnvironment env;
    for (const char* name : {"HOME", "XDG_RUNTIME_DIR", "PULSE_RUNTIME_PATH", "XDG_CONFIG_HOME"})
        env.set(name, home.path());
    env.set("PULSE_SERVER", server.server());
    env.unset("PULSE_COOKIE");
    env.unset("DISPLAY");
    const CaptureDeviceRef device = defaultPulseMicrophone();
    ASSERT_NE(device, nullptr) << server.log();
    EXPECT_EQ(device->info().uniqueID, "e2e.monitor");
    // The stream opens with the input, so a source the server refuses fails the set-up.
    EXPECT_FALSE(PulseMicrophoneDevice({"e2e.no-such-source", "Gone", 44100, 2}).makeInput().ok());
    auto made = dynamic_cast<InputMakingDevice&>(*device).makeInput();
    ASSERT_TRUE(made.ok());
    CaptureSource& source = fakes::sourceOf(made.value());
    fakes::LogCapture logs;
    // Start, duration and frame count of every buffer; the buffers go back to the pool at once.
    std::mutex mutex;
    std::vector<std::array<int64_t, 3>> got;  // guarded by mutex
    fakes::FrameCollector collector;
    const auto deliver = [&, counted = collector.deliver()](const SampleBufferRef& s) {
        {
            std::lock_guard lock(mutex);
            got.push_back({s->presentationTime().nanoseconds(), s->timing().duration.nanoseconds(),
                           s->audioBuffer()->frameCount});
        }
        counted(s);
    };
    ASSERT_TRUE(source.start(deliver).ok());
    EXPECT_FALSE(source.start(deliver).ok());  // one recording at a time
    ASSERT_TRUE(collector.waitForCount(60, 10s));
    const auto stop = [&] {
        const auto started = std::chrono::steady_clock::now();
        source.stop();
        EXPECT_LT(std::chrono::steady_clock::now() - started, 500ms);
    };
    stop();
    const size_t atStop = collector.count();
    std::this_thread::sleep_for(100ms);
    std::lock_guard lock(mutex);
    EXPECT_EQ(got.size(), atStop) << "delivered after stop() returned";
    for (size_t i = 1; i < got.size(); ++i) {  // end to end, within 3 ms
        EXPECT_LE(std::abs(got[i][0] - got[i - 1][0] - got[i - 1][1]), 3'000'000) << "gap at " << i;
        EXPECT_GT(got[i][2], 0);
    }
    // It records again after a stop; a server that dies then ends the stream with one line.
    fakes::FrameCollector again;
    ASSERT_TRUE(source.start(again.deliver()).ok());
    ASSERT_TRUE(again.waitForCount(10, 5s));
    server.kill();
    EXPECT_TRUE(logs.waitForContaining("⚠️ Microphone stream ended: ", 5s));
    stop();
    EXPECT_EQ(logs.countPrefix("⚠️ Microphone stream ended: Connection terminated"), 1u);
}

}  // namespace
}  // namespace gb::linuxp
