// The microphone and access checks against a PulseAudio server that each test starts for itself
// in a temporary folder (a null sink whose monitor is the default source; a tone played into the
// sink is what the microphone hears).
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cmath>
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
using fakes::sourceOf;
using fakes::TempDirectory;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int kToneRate = 44'100;

bool havePulseAudio() {
    return std::system("command -v pulseaudio pactl pacat >/dev/null") == 0;
}

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
    struct Config {
        bool nullSink = true;
        std::optional<int> cookieTcpPort;  // also listen on TCP, for clients with the cookie only
    };

    explicit PrivatePulseServer(Config config) {
        const std::string socket = dir_ / "native";
        address_ = "unix:" + socket;
        env_ = {{"HOME", dir_.path()},
                {"XDG_RUNTIME_DIR", dir_.path()},
                {"PULSE_RUNTIME_PATH", dir_.path()},
                {"XDG_CONFIG_HOME", dir_ / ".config"},
                {"PATH", std::getenv("PATH")},
                {"LANG", "C"}};
        std::vector<std::string> arguments = {
            "pulseaudio",
            "-n",
            "--daemonize=no",
            "--exit-idle-time=-1",
            "--disallow-exit",
            "--use-pid-file=no",
            "--system=no",
            "--realtime=no",
            "--high-priority=no",
            "--log-target=stderr",
            "-L",
            "module-native-protocol-unix socket=" + socket + " auth-anonymous=1"};
        if (config.nullSink) {
            arguments.insert(arguments.end(), {"-L", "module-null-sink sink_name=gbtest", "-L",
                                               "module-always-sink"});
        }
        if (config.cookieTcpPort) {
            std::ofstream(dir_ / "server-cookie") << std::string(256, 'k');
            arguments.insert(arguments.end(),
                             {"-L", "module-native-protocol-tcp listen=127.0.0.1 port=" +
                                        std::to_string(*config.cookieTcpPort) +
                                        " auth-anonymous=0 auth-cookie=" +
                                        (dir_ / "server-cookie") + " auth-cookie-enabled=1"});
        }
        server_ = std::make_unique<ChildProcess>(arguments, childOptions("pulseaudio.log"));
        ready_ = waitUntilAnswering();
        if (ready_ && config.nullSink)
            ready_ = pactl({"set-default-source", "gbtest.monitor"}) == 0;

        environment_.set("HOME", dir_.path());
        environment_.set("XDG_RUNTIME_DIR", dir_.path());
        environment_.set("PULSE_RUNTIME_PATH", dir_.path());
        environment_.set("XDG_CONFIG_HOME", dir_ / ".config");
        environment_.set("PULSE_SERVER", address_);
        environment_.unset("PULSE_COOKIE");
        environment_.unset("DISPLAY");
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
        ChildProcess client(arguments, childOptions("clients.log", address_));
        return client.wait(5s);
    }

    // Plays a raw s16 stereo file into the null sink.
    [[nodiscard]] std::unique_ptr<ChildProcess> play(const std::string& rawFile) {
        return std::make_unique<ChildProcess>(
            std::vector<std::string>{"pacat", "--playback", "--raw", "--format=s16le",
                                     "--rate=" + std::to_string(kToneRate), "--channels=2",
                                     "--device=gbtest", "--latency-msec=20", rawFile},
            childOptions("clients.log", address_));
    }

    void kill(int signal) { server_->stop(signal); }

private:
    // The private environment only, with the server's address for a client, and output to a log.
    ChildProcess::Options childOptions(const std::string& log, const std::string& server = {}) {
        ChildProcess::Options options{env_, false, dir_ / log};
        if (!server.empty()) options.environment.emplace_back("PULSE_SERVER", server);
        return options;
    }

    bool waitUntilAnswering() {
        const auto deadline = std::chrono::steady_clock::now() + 10s;
        while (std::chrono::steady_clock::now() < deadline) {
            if (pactl({"info"}) == 0) return true;
            std::this_thread::sleep_for(50ms);
        }
        return false;
    }

    TempDirectory dir_;
    std::string address_;
    std::vector<std::pair<std::string, std::string>> env_;
    std::unique_ptr<ChildProcess> server_;  // killed before the folder goes
    ScopedEnvironment environment_;
    bool ready_ = false;
};

// Writes `seconds` of a 440 Hz tone at half scale, s16 stereo.
std::string writeTone(const TempDirectory& dir, double seconds) {
    const std::string file = dir / "tone.raw";
    std::ofstream out(file, std::ios::binary);
    const int frames = static_cast<int>(seconds * kToneRate);
    for (int i = 0; i < frames; ++i) {
        const auto value =
            static_cast<int16_t>(16'000 * std::sin(2 * M_PI * 440.0 * i / kToneRate));
        out.write(reinterpret_cast<const char*>(&value), 2);
        out.write(reinterpret_cast<const char*>(&value), 2);
    }
    return file;
}

// What the test keeps of one delivered sample (the sample itself goes back to the source's pool
// at once, as it would from a well-behaved consumer).
struct Delivery {
    MediaType mediaType = MediaType::video;
    bool hasAudio = false;
    AudioBuffer format;  // without data
    size_t bytes = 0;
    MediaTime duration;
    int64_t startNanoseconds = 0;
    int64_t arrivalNanoseconds = 0;
    float peak = 0;
    int firstLoudFrame = -1;  // the first frame of the left channel above kLoud
};

constexpr float kLoud = 0.05f;

Delivery summarize(const SampleBufferRef& sample, int64_t arrival) {
    Delivery delivery;
    delivery.mediaType = sample->mediaType();
    delivery.duration = sample->timing().duration;
    delivery.startNanoseconds = sample->presentationTime().nanoseconds();
    delivery.arrivalNanoseconds = arrival;
    const AudioBufferRef& audio = sample->audioBuffer();
    if (!audio) return delivery;
    delivery.hasAudio = true;
    delivery.format.sampleRate = audio->sampleRate;
    delivery.format.channels = audio->channels;
    delivery.format.format = audio->format;
    delivery.format.frameCount = audio->frameCount;
    delivery.bytes = audio->data.size();
    if (audio->format != AudioSampleFormat::f32 || audio->channels < 1) return delivery;
    const auto* samples = reinterpret_cast<const float*>(audio->data.data());
    const size_t count = audio->data.size() / sizeof(float);
    for (size_t i = 0; i < count; ++i) {
        const float level = std::fabs(samples[i]);
        delivery.peak = std::max(delivery.peak, level);
        if (delivery.firstLoudFrame < 0 && i % static_cast<size_t>(audio->channels) == 0 &&
            level > kLoud) {
            delivery.firstLoudFrame = static_cast<int>(i / static_cast<size_t>(audio->channels));
        }
    }
    return delivery;
}

// What a source delivered, with the monotonic time of each arrival.
class Collector {
public:
    CaptureSource::Deliver deliver() {
        return [this](const SampleBufferRef& sample) {
            const Delivery delivery = summarize(sample, monotonicNanoseconds());
            std::lock_guard lock(mutex_);
            deliveries_.push_back(delivery);
            seconds_ += delivery.duration.seconds();
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

// The monotonic time of the first loud frame, or nothing.
std::optional<int64_t> onsetNanoseconds(const std::vector<Delivery>& deliveries) {
    for (const auto& delivery : deliveries) {
        if (delivery.firstLoudFrame >= 0) {
            return delivery.startNanoseconds +
                   int64_t{delivery.firstLoudFrame} * 1'000'000'000 / delivery.format.sampleRate;
        }
    }
    return std::nullopt;
}

class PulseMicrophoneTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!havePulseAudio()) GTEST_SKIP() << "pulseaudio, pactl and pacat are not installed";
    }
};

TEST_F(PulseMicrophoneTest, RecordsTheDefaultSourceInTimeAndStopsPromptly) {
    PrivatePulseServer server({});
    ASSERT_TRUE(server.ready()) << server.log();

    const CaptureDeviceRef device = defaultPulseMicrophone();
    ASSERT_NE(device, nullptr) << server.log();
    EXPECT_EQ(device->mediaType(), MediaType::audio);
    const CameraDeviceInfo info = device->info();
    EXPECT_EQ(info.uniqueID, "gbtest.monitor");
    EXPECT_THAT(info.localizedName, StartsWith("Monitor of"));
    EXPECT_TRUE(info.connected);

    auto made = dynamic_cast<InputMakingDevice&>(*device).makeInput();
    ASSERT_TRUE(made.ok());
    const std::shared_ptr<CaptureInput> input = made.value();
    EXPECT_EQ(input->mediaType(), MediaType::audio);
    CaptureSource& source = sourceOf(input);
    EXPECT_EQ(source.mediaType(), MediaType::audio);
    source.stop();  // not started: nothing to do

    LogCapture logs;
    Collector collector;
    ASSERT_TRUE(source.start(collector.deliver()).ok());
    EXPECT_FALSE(source.start(collector.deliver()).ok());  // one recording at a time

    // Some silence first, then the tone: its onset shows where the time stamps put it.
    ASSERT_TRUE(collector.waitForSeconds(0.3, 5s));
    const std::string tone = writeTone(server.dir(), 3.0);
    const int64_t playStarted = monotonicNanoseconds();
    const auto player = server.play(tone);
    ASSERT_TRUE(collector.waitForSeconds(1.5, 10s));

    const int64_t stopStarted = monotonicNanoseconds();
    source.stop();
    EXPECT_LT(millisecondsSince(stopStarted), 500);
    const size_t deliveredAtStop = collector.deliveries().size();
    std::this_thread::sleep_for(100ms);
    const auto deliveries = collector.deliveries();
    EXPECT_EQ(deliveries.size(), deliveredAtStop) << "delivered after stop() returned";
    EXPECT_EQ(logs.countPrefix("Microphone capture stopped: "), 1u);

    ASSERT_GT(deliveries.size(), 20u);
    EXPECT_EQ(logs.linesStartingWith({"Microphone capture stopped: "})[0],
              "Microphone capture stopped: " + std::to_string(deliveries.size()) +
                  " buffers delivered, 0 dropped");
    int64_t previousEnd = 0;
    float loudest = 0;
    std::vector<int64_t> lags;
    for (size_t i = 0; i < deliveries.size(); ++i) {
        const Delivery& delivery = deliveries[i];
        ASSERT_EQ(delivery.mediaType, MediaType::audio);
        ASSERT_TRUE(delivery.hasAudio);
        EXPECT_EQ(delivery.format.format, AudioSampleFormat::f32);
        EXPECT_EQ(delivery.format.sampleRate, 44'100);
        EXPECT_EQ(delivery.format.channels, 2);
        EXPECT_GT(delivery.format.frameCount, 0);
        EXPECT_EQ(delivery.bytes,
                  static_cast<size_t>(delivery.format.frameCount) * 2 * sizeof(float));
        EXPECT_EQ(delivery.duration, MediaTime::make(delivery.format.frameCount, 44'100));
        loudest = std::max(loudest, delivery.peak);

        const int64_t start = delivery.startNanoseconds;
        const int64_t end = start + delivery.duration.nanoseconds();
        if (i > 0) {
            EXPECT_GT(start, deliveries[i - 1].startNanoseconds) << i;
            EXPECT_NEAR(static_cast<double>(start - previousEnd), 0.0, 3e6) << "gap at " << i;
        }
        // Recorded before it arrived. A little after is the timeline's smoothing, or a first
        // measurement taken late on a busy machine, being worked off.
        EXPECT_LE(end, delivery.arrivalNanoseconds + 20'000'000) << i;
        lags.push_back(delivery.arrivalNanoseconds - end);
        previousEnd = end;
    }
    // ... and typically arrived soon after it was recorded (a busy machine may hold the capture
    // thread up now and then, which delays a chunk but does not change its time stamp).
    std::sort(lags.begin(), lags.end());
    EXPECT_LT(lags[lags.size() / 2], 100'000'000);
    EXPECT_GT(loudest, 0.3f);  // the tone, at about half scale

    const auto onset = onsetNanoseconds(deliveries);
    ASSERT_TRUE(onset.has_value());
    EXPECT_GE(*onset, playStarted);
    // The bound allows for starting the player on a busy machine.
    EXPECT_LT(*onset - playStarted, 1'000'000'000) << "tone heard late: player start-up or stamps";

    // It records again after a stop; a second stop does nothing.
    source.stop();
    Collector again;
    ASSERT_TRUE(source.start(again.deliver()).ok());
    EXPECT_TRUE(again.waitForSeconds(0.2, 5s));
    source.stop();
    source.stop();
}

TEST_F(PulseMicrophoneTest, AServerThatDiesEndsTheStreamWithOneLine) {
    PrivatePulseServer server({});
    ASSERT_TRUE(server.ready()) << server.log();
    const auto device = defaultPulseMicrophone();
    ASSERT_NE(device, nullptr);
    auto input = dynamic_cast<InputMakingDevice&>(*device).makeInput();
    ASSERT_TRUE(input.ok());
    CaptureSource& source = sourceOf(input.value());

    LogCapture logs;
    Collector collector;
    ASSERT_TRUE(source.start(collector.deliver()).ok());
    ASSERT_TRUE(collector.waitForSeconds(0.2, 5s));
    server.kill(SIGKILL);

    EXPECT_TRUE(logs.waitForContaining("⚠️ Microphone stream ended: ", 5s));
    const size_t deliveredAfterDeath = collector.deliveries().size();
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(collector.deliveries().size(), deliveredAfterDeath);

    const int64_t stopStarted = monotonicNanoseconds();
    source.stop();
    EXPECT_LT(millisecondsSince(stopStarted), 500);
    const auto ended = logs.linesStartingWith({"⚠️ Microphone stream ended: "});
    ASSERT_EQ(ended.size(), 1u);
    EXPECT_THAT(ended[0], HasSubstr("Connection terminated"));
}

TEST_F(PulseMicrophoneTest, NoReachableServerMeansNoMicrophoneWithinTwoSeconds) {
    TempDirectory dir;
    ScopedEnvironment environment;
    environment.set("HOME", dir.path());
    environment.set("XDG_RUNTIME_DIR", dir.path());
    environment.set("PULSE_RUNTIME_PATH", dir.path());
    environment.unset("DISPLAY");

    // A socket path where nothing listens.
    environment.set("PULSE_SERVER", "unix:" + (dir / "nothing-here"));
    int64_t started = monotonicNanoseconds();
    EXPECT_EQ(defaultPulseMicrophone(), nullptr);
    EXPECT_LT(millisecondsSince(started), 2000);

    // A socket that takes the connection and never answers.
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = dir / "silent";
    std::strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(listener, 4), 0);
    environment.set("PULSE_SERVER", "unix:" + path);
    started = monotonicNanoseconds();
    EXPECT_EQ(defaultPulseMicrophone(), nullptr);
    EXPECT_LT(millisecondsSince(started), 2000);

    // Without an answer the microphone is not refused: set-up reports it missing instead.
    int answers = 0;
    bool granted = false;
    PulseAccessRequester requester(dir.path(), 300ms);
    requester.requestAccess(MediaType::audio, [&](bool value) {
        ++answers;
        granted = value;
    });
    EXPECT_EQ(answers, 1);
    EXPECT_TRUE(granted);
    ::close(listener);
}

TEST_F(PulseMicrophoneTest, AServerWithoutSourcesHasNoMicrophone) {
    PrivatePulseServer server({.nullSink = false, .cookieTcpPort = std::nullopt});
    ASSERT_TRUE(server.ready()) << server.log();
    LogCapture logs;
    EXPECT_EQ(defaultPulseMicrophone(), nullptr);
    EXPECT_EQ(logs.countPrefix("No microphone: the sound server has no default input"), 1u);
}

TEST_F(PulseMicrophoneTest, MicrophoneAccessIsRefusedOnlyByTheServer) {
    const int port = freeLoopbackPort();
    PrivatePulseServer server({.nullSink = true, .cookieTcpPort = port});
    ASSERT_TRUE(server.ready()) << server.log();
    PulseAccessRequester requester(server.dir().path());
    const auto ask = [&] {
        int answers = 0;
        bool granted = false;
        requester.requestAccess(MediaType::audio, [&](bool value) {
            ++answers;
            granted = value;
        });
        EXPECT_EQ(answers, 1);
        return granted;
    };

    EXPECT_TRUE(ask());  // the private socket lets anyone in

    // Over TCP the server wants its cookie, which this client does not have.
    server.pointClientsAt("tcp:127.0.0.1:" + std::to_string(port));
    LogCapture logs;
    EXPECT_FALSE(ask());
    EXPECT_EQ(logs.countPrefix("❌ Microphone access refused by the sound server: "), 1u);
    EXPECT_EQ(defaultPulseMicrophone(), nullptr);
}

bool videoAccessAsUser(const std::string& deviceDirectory) {
    const int answer = fakes::runUnprivileged(
        [&] { return PulseAccessRequester(deviceDirectory).videoAccessGranted() ? 1 : 0; });
    EXPECT_GE(answer, 0) << "the check did not run";
    return answer == 1;
}

TEST(PulseAccessTest, CameraIsRefusedOnlyWhenNoVideoNodeCanBeOpened) {
    TempDirectory devices;
    // The folder must be searchable by the unprivileged user.
    ::chmod(devices.path().c_str(), 0755);
    EXPECT_TRUE(videoAccessAsUser(devices.path()));  // no camera: nothing to refuse

    for (const char* name : {"video0", "video1"}) {
        std::ofstream(devices / name) << "";
        ::chmod((devices / name).c_str(), 0600);
    }
    std::ofstream(devices / "videonot") << "";  // not a video node: never considered
    ::chmod((devices / "videonot").c_str(), 0666);
    EXPECT_FALSE(videoAccessAsUser(devices.path()));

    ::chmod((devices / "video1").c_str(), 0666);
    EXPECT_TRUE(videoAccessAsUser(devices.path()));

    int answers = 0;
    PulseAccessRequester(devices.path()).requestAccess(MediaType::video, [&](bool granted) {
        ++answers;
        EXPECT_TRUE(granted);
    });
    EXPECT_EQ(answers, 1);
}

}  // namespace
}  // namespace gb::linuxp
