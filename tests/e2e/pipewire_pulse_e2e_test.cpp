// The microphone on a PipeWire desktop, served by pipewire-pulse: guards against a PulseAudio
// client that only works against PulseAudio itself (a default source it cannot open, a stream
// that never starts or records silence), on real pipewire, wireplumber and pipewire-pulse
// daemons of the test's own.
#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

#include "e2e/e2e_support.h"

namespace gb::e2e {
namespace {
using namespace std::chrono_literals;

TEST(PipeWirePulseE2ETest, ARecordingHearsTheMicrophoneThroughPipeWirePulse) {
    TempDir dir;
    const std::string run = dir.path();  // a runtime folder: mkdtemp made it 0700
    VirtualDisplay display(1280, 720);
    ASSERT_TRUE(display.ok());
    std::map<std::string, std::string> env{
        {"DISPLAY", display.name()},
        {"XDG_RUNTIME_DIR", run},
        {"HOME", dir.path()},
        {"XDG_SESSION_TYPE", "x11"},
        {"WAYLAND_DISPLAY", ""},
        {"PULSE_SERVER", "unix:" + run + "/pulse/native"},
        {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + run + "/bus"}};
    // wireplumber gives up without a session bus, and without it nothing links the streams.
    Process bus(
        {"dbus-daemon", "--session", "--nofork", "--address=" + env["DBUS_SESSION_BUS_ADDRESS"]});
    Process pipewire({"pipewire"}, env);
    ASSERT_TRUE(eventually([&] { return std::filesystem::exists(run + "/pipewire-0"); }));
    Process wireplumber({"wireplumber"}, env);
    Process pulse({"pipewire-pulse"}, env);
    ASSERT_TRUE(eventually([&] {
        return runCommand({"pactl", "info"}, env, 2s).value_or("").find("on PipeWire") !=
               std::string::npos;
    }));
    ASSERT_TRUE(runCommand(
        {"pactl", "load-module", "module-null-sink", "sink_name=e2e", "rate=44100", "channels=2"},
        env));
    // The defaults take once wireplumber has its metadata up.
    ASSERT_TRUE(eventually([&] {
        return runCommand({"pactl", "set-default-source", "e2e.monitor"}, env, 2s) &&
               runCommand({"pactl", "set-default-sink", "e2e"}, env, 2s);
    }));

    Process scene({toolPath("demo_scene")}, env);  // also keeps the X server from resetting
    Process tone({"sh", "-c",
                  "sox -q -n -t raw -r 44100 -e signed -b 16 -c 2 - synth 10 sine 440 vol 0.5 | "
                  "pacat --raw --rate=44100 --channels=2 --format=s16le --device=e2e"},
                 env);
    std::this_thread::sleep_for(500ms);
    Process record(
        {binaryPath(), "record", "--duration", "3", "--quality", "medium", "--no-camera"}, env);
    ASSERT_EQ(record.wait(60s), 0) << record.stdoutText() << record.stderrText();
    const std::string file = lastLine(record.stdoutText());
    const auto levels = audioLevels(file);
    ASSERT_TRUE(levels) << file;
    EXPECT_GT(levels->meanDb, -30.0) << "the microphone recorded silence";
}

}  // namespace
}  // namespace gb::e2e
