// Guards against: microphone audio with gaps or wrong stamps, a stop that hangs or delivers afterwards, and a dying PulseAudio server that hangs the capture or ends it without a word.
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>

#include "fakes/frame_collector.h"
#include "fakes/log_capture.h"
#include "fakes/test_environment.h"
#include "linux/pulse/pulse_microphone.h"

namespace gb::linuxp {
namespace {

using namespace std::chrono_literals;
using fakes::ChildProcess;

// A PulseAudio server of the test's own (a null sink whose monitor is the default source). While
// it lives, this process's libpulse talks to it and sees a temporary home, never the user's.
class PrivatePulseServer {
public:
    PrivatePulseServer() {
        const std::string socket = dir_ / "native";
        env_ = {{"HOME", dir_.path()},
                {"XDG_RUNTIME_DIR", dir_.path()},
                {"PULSE_RUNTIME_PATH", dir_.path()},
                {"XDG_CONFIG_HOME", dir_ / ".config"},
                {"PULSE_SERVER", "unix:" + socket}};
        for (const auto& [name, value] : env_) environment_.set(name, value);
        environment_.unset("PULSE_COOKIE");
        environment_.unset("DISPLAY");
        env_.insert(env_.end(), {{"PATH", std::getenv("PATH")}, {"LANG", "C"}});
        server_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{
                "pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1", "--disallow-exit", "--use-pid-file=no",
                "--system=no", "--realtime=no", "--log-target=stderr", "-L",
                "module-native-protocol-unix socket=" + socket + " auth-anonymous=1", "-L",
                "module-null-sink sink_name=gbtest"},
            ChildProcess::Options{env_, false, dir_ / "pulseaudio.log"});
        ready_ = fakes::eventually([&] { return pactl({"info"}) == 0; }, 10s) &&
                 pactl({"set-default-source", "gbtest.monitor"}) == 0;
    }
    [[nodiscard]] bool ready() const { return ready_; }
    [[nodiscard]] std::string log() const {
        std::ifstream in(dir_ / "pulseaudio.log");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    int pactl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "pactl");
        return ChildProcess(arguments, {env_, false, dir_ / "clients.log"}).wait(5s);
    }
    void kill(int signal) { server_->stop(signal); }

private:
    fakes::TempDirectory dir_;
    std::vector<std::pair<std::string, std::string>> env_;
    std::unique_ptr<ChildProcess> server_;  // killed before the folder goes
    fakes::ScopedEnvironment environment_;
    bool ready_ = false;
};

TEST(PulseMicrophoneTest, RecordsInTimeStopsPromptlyAndSurvivesTheServerDying) {
    if (std::system("command -v pulseaudio pactl >/dev/null") != 0)
        GTEST_SKIP() << "pulseaudio and pactl are not installed";
    PrivatePulseServer server;
    ASSERT_TRUE(server.ready()) << server.log();
    const CaptureDeviceRef device = defaultPulseMicrophone();
    ASSERT_NE(device, nullptr) << server.log();
    EXPECT_EQ(device->info().uniqueID, "gbtest.monitor");
    // The stream opens with the input, so a source the server refuses fails the set-up.
    EXPECT_FALSE(PulseMicrophoneDevice({"gbtest.no-such-source", "Gone", 44100, 2}).makeInput().ok());
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
    server.kill(SIGKILL);
    EXPECT_TRUE(logs.waitForContaining("⚠️ Microphone stream ended: ", 5s));
    stop();
    EXPECT_EQ(logs.countPrefix("⚠️ Microphone stream ended: Connection terminated"), 1u);
}

}  // namespace
}  // namespace gb::linuxp
