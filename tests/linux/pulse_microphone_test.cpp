// The microphone against a PulseAudio server the test starts for itself in a temporary folder (a
// null sink whose monitor is the default source), and the camera access check. What the
// microphone hears, its sync with the picture and a missing microphone are checked end to end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <condition_variable>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>
#include <vector>

#include "fakes/frame_collector.h"
#include "fakes/log_capture.h"
#include "fakes/test_environment.h"
#include "linux/capture/monotonic_clock.h"
#include "linux/pulse/pulse_access.h"
#include "linux/pulse/pulse_microphone.h"

namespace gb::linuxp {
namespace {

using namespace std::chrono_literals;
using fakes::ChildProcess;
using fakes::LogCapture;
using fakes::ScopedEnvironment;
using fakes::TempDirectory;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

constexpr int kRate = 44'100;

// A PulseAudio server of the test's own. While it lives, this process's libpulse talks to it and
// sees a temporary home, never the user's.
class PrivatePulseServer {
public:
    PrivatePulseServer() {
        const std::string socket = dir_ / "native";
        address_ = "unix:" + socket;
        env_ = {{"HOME", dir_.path()},
                {"XDG_RUNTIME_DIR", dir_.path()},
                {"PULSE_RUNTIME_PATH", dir_.path()},
                {"XDG_CONFIG_HOME", dir_ / ".config"}};
        for (const auto& [name, value] : env_) environment_.set(name, value);
        environment_.set("PULSE_SERVER", address_);
        environment_.unset("PULSE_COOKIE");
        environment_.unset("DISPLAY");
        env_.insert(env_.end(), {{"PATH", std::getenv("PATH")}, {"LANG", "C"}});

        std::istringstream flags(
            "pulseaudio -n --daemonize=no --exit-idle-time=-1 --disallow-exit --use-pid-file=no "
            "--system=no --realtime=no --high-priority=no --log-target=stderr");
        std::vector<std::string> arguments(std::istream_iterator<std::string>(flags), {});
        arguments.insert(
            arguments.end(),
            {"-L", "module-native-protocol-unix socket=" + socket + " auth-anonymous=1", "-L",
             "module-null-sink sink_name=gbtest"});
        server_ = std::make_unique<ChildProcess>(arguments, childOptions("pulseaudio.log"));
        ready_ = fakes::eventually([&] { return pactl({"info"}) == 0; }, 10s);
        if (ready_) ready_ = pactl({"set-default-source", "gbtest.monitor"}) == 0;
    }

    [[nodiscard]] bool ready() const { return ready_; }
    [[nodiscard]] std::string log() const {
        std::ifstream in(dir_ / "pulseaudio.log");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    int pactl(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), "pactl");
        return ChildProcess(arguments, childOptions("clients.log", address_)).wait(5s);
    }

    void kill(int signal) { server_->stop(signal); }

private:
    // The private environment only, with the server's address for a client, and output to a log.
    ChildProcess::Options childOptions(const std::string& log, const std::string& server = {}) {
        ChildProcess::Options options{env_, false, dir_ / log};
        if (!server.empty()) options.environment.emplace_back("PULSE_SERVER", server);
        return options;
    }

    TempDirectory dir_;
    std::string address_;
    std::vector<std::pair<std::string, std::string>> env_;
    std::unique_ptr<ChildProcess> server_;  // killed before the folder goes
    ScopedEnvironment environment_;
    bool ready_ = false;
};

// What a source delivered, with the monotonic time of each arrival. The samples themselves go
// back to the source's pool at once, as they would from a well-behaved consumer.
struct Delivery {
    int frames = -1;  // -1 unless f32 stereo 44.1 kHz audio with bytes matching its frames
    MediaTime duration;
    int64_t startNanoseconds = 0;
    int64_t arrivalNanoseconds = monotonicNanoseconds();
};
class Collector {
public:
    CaptureSource::Deliver deliver() {
        return [this](const SampleBufferRef& sample) {
            Delivery d{.duration = sample->timing().duration,
                       .startNanoseconds = sample->presentationTime().nanoseconds()};
            if (const AudioBufferRef& a = sample->audioBuffer();
                a && a->format == AudioSampleFormat::f32 && a->channels == 2 &&
                a->sampleRate == kRate && a->data.size() == size_t(a->frameCount) * 8) {
                d.frames = a->frameCount;
            }
            std::lock_guard lock(mutex_);
            deliveries_.push_back(d);
            seconds_ += d.duration.seconds();
            arrived_.notify_all();
        };
    }
    bool waitForSeconds(double seconds, std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return arrived_.wait_for(lock, timeout, [&] { return seconds_ >= seconds; });
    }
    std::vector<Delivery> deliveries() const {
        std::lock_guard lock(mutex_);
        return deliveries_;
    }

private:
    mutable std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<Delivery> deliveries_;  // guarded by mutex_
    double seconds_ = 0;                // guarded by mutex_
};

std::shared_ptr<CaptureInput> inputOf(const CaptureDeviceRef& device) {
    auto made = dynamic_cast<InputMakingDevice&>(*device).makeInput();
    return made.ok() ? made.value() : nullptr;
}

class PulseMicrophoneTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (std::system("command -v pulseaudio pactl >/dev/null") != 0)
            GTEST_SKIP() << "pulseaudio and pactl are not installed";
    }
};

TEST_F(PulseMicrophoneTest, RecordsTheDefaultSourceInTimeAndStopsPromptly) {
    PrivatePulseServer server;
    ASSERT_TRUE(server.ready()) << server.log();
    const CaptureDeviceRef device = defaultPulseMicrophone();
    ASSERT_NE(device, nullptr) << server.log();
    EXPECT_EQ(device->info().uniqueID, "gbtest.monitor");
    const auto input = inputOf(device);
    ASSERT_NE(input, nullptr);
    CaptureSource& source = fakes::sourceOf(input);
    LogCapture logs;
    Collector collector;
    ASSERT_TRUE(source.start(collector.deliver()).ok());
    EXPECT_FALSE(source.start(collector.deliver()).ok());  // one recording at a time
    ASSERT_TRUE(collector.waitForSeconds(1.5, 10s));
    const auto stop = [&] {
        const auto started = std::chrono::steady_clock::now();
        source.stop();
        EXPECT_LT(std::chrono::steady_clock::now() - started, 500ms);
    };
    stop();
    const size_t deliveredAtStop = collector.deliveries().size();
    std::this_thread::sleep_for(100ms);
    const auto deliveries = collector.deliveries();
    EXPECT_EQ(deliveries.size(), deliveredAtStop) << "delivered after stop() returned";
    ASSERT_GT(deliveries.size(), 20u);
    EXPECT_TRUE(logs.contains("Microphone capture stopped: " + std::to_string(deliveries.size()) +
                              " buffers delivered, 0 dropped"));
    for (size_t i = 0; i < deliveries.size(); ++i) {
        const Delivery& d = deliveries[i];
        ASSERT_GT(d.frames, 0) << i;
        EXPECT_EQ(d.duration, MediaTime::make(d.frames, kRate));
        if (i > 0) {
            const Delivery& p = deliveries[i - 1];
            const int64_t gap = d.startNanoseconds - p.startNanoseconds - p.duration.nanoseconds();
            EXPECT_LE(std::abs(gap), 3'000'000) << "gap at " << i;
        }
        // Recorded before it arrived (give or take the timeline's smoothing).
        EXPECT_LE(d.startNanoseconds + d.duration.nanoseconds(), d.arrivalNanoseconds + 20'000'000)
            << i;
    }
    // It records again after a stop; a server that dies then ends the stream with one line.
    Collector again;
    ASSERT_TRUE(source.start(again.deliver()).ok());
    ASSERT_TRUE(again.waitForSeconds(0.2, 5s));
    server.kill(SIGKILL);
    EXPECT_TRUE(logs.waitForContaining("⚠️ Microphone stream ended: ", 5s));
    stop();
    EXPECT_THAT(logs.linesStartingWith({"⚠️ Microphone stream ended: "}),
                ElementsAre(HasSubstr("Connection terminated")));
}

TEST_F(PulseMicrophoneTest, AStreamTheServerRefusesFailsWhenTheInputIsMade) {
    PrivatePulseServer server;
    ASSERT_TRUE(server.ready()) << server.log();
    PulseMicrophoneDevice gone({"gbtest.no-such-source", "Gone", kRate, 2});
    EXPECT_FALSE(gone.makeInput().ok());
}

TEST(PulseAccessTest, CameraIsRefusedOnlyWhenNoVideoNodeCanBeOpened) {
    TempDirectory devices;
    ::chmod(devices.path().c_str(), 0755);  // searchable by the unprivileged user
    const auto granted = [&] {
        const int answer = fakes::runUnprivileged(
            [&] { return PulseAccessRequester(devices.path()).videoAccessGranted() ? 1 : 0; });
        EXPECT_GE(answer, 0) << "the check did not run";
        return answer == 1;
    };
    EXPECT_TRUE(granted());  // no camera: nothing to refuse
    for (const char* name : {"video0", "video1"}) {
        std::ofstream(devices / name) << "";
        ::chmod((devices / name).c_str(), 0600);
    }
    std::ofstream(devices / "videonot") << "";  // not a video node: never considered
    ::chmod((devices / "videonot").c_str(), 0666);
    EXPECT_FALSE(granted());
    ::chmod((devices / "video1").c_str(), 0666);
    EXPECT_TRUE(granted());
}

}  // namespace
}  // namespace gb::linuxp
