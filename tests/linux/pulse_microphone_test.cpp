// The microphone and access checks against a PulseAudio server that each test starts for itself
// in a temporary folder (a null sink whose monitor is the default source). What the microphone
// hears, and its sync with the picture, is checked end to end (tests/e2e).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <condition_variable>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <vector>

#include "fakes/frame_collector.h"
#include "fakes/log_capture.h"
#include "fakes/test_environment.h"
#include "linux/monotonic_clock.h"
#include "linux/pulse_access.h"
#include "linux/pulse_microphone.h"

namespace gb::linuxp {
namespace {

using namespace std::chrono_literals;
using fakes::ChildProcess;
using fakes::LogCapture;
using fakes::ScopedEnvironment;
using fakes::TempDirectory;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int kRate = 44'100;

int64_t millisecondsSince(int64_t startNanoseconds) {
    return (monotonicNanoseconds() - startNanoseconds) / 1'000'000;
}

// A free TCP port on the loopback interface (free when asked; the server takes it right after).
int freeLoopbackPort() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address));
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    ::close(fd);
    return ntohs(address.sin_port);
}

// A PulseAudio server of the test's own. While it lives, this process's libpulse talks to it and
// sees a temporary home, never the user's.
class PrivatePulseServer {
public:
    // With `cookieTcpPort`, it also listens on TCP, for clients with the cookie only.
    explicit PrivatePulseServer(bool nullSink = true, std::optional<int> cookieTcpPort = {}) {
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
        arguments.insert(arguments.end(), {"-L", "module-native-protocol-unix socket=" + socket +
                                                     " auth-anonymous=1"});
        if (nullSink) {
            arguments.insert(arguments.end(), {"-L", "module-null-sink sink_name=gbtest", "-L",
                                               "module-always-sink"});
        }
        if (cookieTcpPort) {
            std::ofstream(dir_ / "server-cookie") << std::string(256, 'k');
            arguments.insert(
                arguments.end(),
                {"-L", "module-native-protocol-tcp listen=127.0.0.1 port=" +
                           std::to_string(*cookieTcpPort) + " auth-anonymous=0 auth-cookie=" +
                           (dir_ / "server-cookie") + " auth-cookie-enabled=1"});
        }
        server_ = std::make_unique<ChildProcess>(arguments, childOptions("pulseaudio.log"));
        ready_ = fakes::eventually([&] { return pactl({"info"}) == 0; }, 10s);
        if (ready_ && nullSink) ready_ = pactl({"set-default-source", "gbtest.monitor"}) == 0;
    }

    [[nodiscard]] bool ready() const { return ready_; }
    [[nodiscard]] const TempDirectory& dir() const { return dir_; }
    [[nodiscard]] std::string log() const {
        std::ifstream in(dir_ / "pulseaudio.log");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    void pointClientsAt(const std::string& address) { environment_.set("PULSE_SERVER", address); }

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

// The requester's answer; the completion must run exactly once, before requestAccess returns.
bool ask(PulseAccessRequester requester, MediaType type) {
    int answers = 0;
    bool granted = false;
    requester.requestAccess(type, [&](bool value) {
        ++answers;
        granted = value;
    });
    EXPECT_EQ(answers, 1);
    return granted;
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
    EXPECT_THAT(device->info().localizedName, StartsWith("Monitor of"));
    const auto input = inputOf(device);
    ASSERT_NE(input, nullptr);
    CaptureSource& source = fakes::sourceOf(input);
    source.stop();  // not started: nothing to do
    LogCapture logs;
    Collector collector;
    ASSERT_TRUE(source.start(collector.deliver()).ok());
    EXPECT_FALSE(source.start(collector.deliver()).ok());  // one recording at a time
    ASSERT_TRUE(collector.waitForSeconds(1.5, 10s));
    const int64_t stopStarted = monotonicNanoseconds();
    source.stop();
    EXPECT_LT(millisecondsSince(stopStarted), 500);
    const size_t deliveredAtStop = collector.deliveries().size();
    std::this_thread::sleep_for(100ms);
    const auto deliveries = collector.deliveries();
    EXPECT_EQ(deliveries.size(), deliveredAtStop) << "delivered after stop() returned";
    ASSERT_GT(deliveries.size(), 20u);
    EXPECT_THAT(logs.linesStartingWith({"Microphone capture stopped: "}),
                ElementsAre("Microphone capture stopped: " + std::to_string(deliveries.size()) +
                            " buffers delivered, 0 dropped"));
    for (size_t i = 0; i < deliveries.size(); ++i) {
        const Delivery& d = deliveries[i];
        ASSERT_GT(d.frames, 0) << i;
        EXPECT_EQ(d.duration, MediaTime::make(d.frames, kRate));
        const int64_t end = d.startNanoseconds + d.duration.nanoseconds();
        if (i > 0) {
            const Delivery& p = deliveries[i - 1];
            const int64_t gap = d.startNanoseconds - p.startNanoseconds - p.duration.nanoseconds();
            EXPECT_LE(std::abs(gap), 3'000'000) << "gap at " << i;
        }
        // Recorded before it arrived. A little after is the timeline's smoothing, or a first
        // measurement taken late on a busy machine, being worked off.
        EXPECT_LE(end, d.arrivalNanoseconds + 20'000'000) << i;
    }
    // It records again after a stop; a server that dies then ends the stream with one line.
    Collector again;
    ASSERT_TRUE(source.start(again.deliver()).ok());
    ASSERT_TRUE(again.waitForSeconds(0.2, 5s));
    server.kill(SIGKILL);
    EXPECT_TRUE(logs.waitForContaining("⚠️ Microphone stream ended: ", 5s));
    const size_t deliveredAfterDeath = again.deliveries().size();
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(again.deliveries().size(), deliveredAfterDeath);
    const int64_t secondStop = monotonicNanoseconds();
    source.stop();
    source.stop();
    EXPECT_LT(millisecondsSince(secondStop), 500);
    EXPECT_THAT(logs.linesStartingWith({"⚠️ Microphone stream ended: "}),
                ElementsAre(HasSubstr("Connection terminated")));
}

TEST_F(PulseMicrophoneTest, ServerThatNeverAnswersMeansNoMicrophoneWithinTwoSeconds) {
    TempDirectory dir;
    ScopedEnvironment environment;
    for (const char* name : {"HOME", "XDG_RUNTIME_DIR", "PULSE_RUNTIME_PATH"})
        environment.set(name, dir.path());
    environment.unset("DISPLAY");
    // A socket that takes the connection and never answers.
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    const std::string path = dir / "silent";
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener, 4), 0);
    environment.set("PULSE_SERVER", "unix:" + path);
    const int64_t started = monotonicNanoseconds();
    EXPECT_EQ(defaultPulseMicrophone(), nullptr);
    EXPECT_LT(millisecondsSince(started), 2000);
    // Without an answer the microphone is not refused: set-up reports it missing instead.
    EXPECT_TRUE(ask(PulseAccessRequester(dir.path(), 300ms), MediaType::audio));
    ::close(listener);
}

TEST_F(PulseMicrophoneTest, AServerWithoutSourcesOrThatRefusesUsHasNoMicrophone) {
    const int port = freeLoopbackPort();
    PrivatePulseServer server(/*nullSink=*/false, port);
    ASSERT_TRUE(server.ready()) << server.log();
    LogCapture logs;
    EXPECT_EQ(defaultPulseMicrophone(), nullptr);
    EXPECT_EQ(logs.countPrefix("No microphone: the sound server has no default input"), 1u);
    const PulseAccessRequester requester(server.dir().path());
    EXPECT_TRUE(ask(requester, MediaType::audio));  // the private socket lets anyone in
    // Over TCP the server wants its cookie, which this client does not have.
    server.pointClientsAt("tcp:127.0.0.1:" + std::to_string(port));
    EXPECT_FALSE(ask(requester, MediaType::audio));
    EXPECT_EQ(logs.countPrefix("❌ Microphone access refused by the sound server: "), 1u);
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
    EXPECT_TRUE(ask(PulseAccessRequester(devices.path()), MediaType::video));
}

}  // namespace
}  // namespace gb::linuxp
