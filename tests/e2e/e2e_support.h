// Support for end-to-end tests: a private virtual display (Xvfb), a private PulseAudio server with
// a null sink as the default microphone, child processes with captured output, and ffprobe
// queries. Every test starts what it needs and everything is stopped when the objects go.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fakes/processes.h"
#include "fakes/xvfb_server.h"

namespace gb::e2e {

using TempDir = fakes::TempDirectory;
using fakes::eventually;
using fakes::Process;
using fakes::readText;
using fakes::Run;
using fakes::runCommand;
using fakes::runToEnd;
using fakes::VirtualMicrophone;

// Xvfb on a free display number.
class VirtualDisplay {
public:
    explicit VirtualDisplay(int width = 1920, int height = 1080, int depth = 24)
        : server_(fakes::XvfbServer::start({width, height, depth})) {}
    [[nodiscard]] std::string name() const { return server_ ? server_->displayName() : ""; }
    [[nodiscard]] bool ok() const { return server_ != nullptr; }

private:
    std::unique_ptr<fakes::XvfbServer> server_;
};

// ffprobe: "key=value" fields of the streams and format of a file.
struct StreamInfo {
    std::map<std::string, std::string> fields;
    [[nodiscard]] std::string get(const std::string& key) const {
        auto it = fields.find(key);
        return it == fields.end() ? std::string() : it->second;
    }
};
struct MediaInfo {
    std::string formatName;
    double durationSeconds = 0;
    std::vector<StreamInfo> streams;
    [[nodiscard]] const StreamInfo* stream(const std::string& codecType) const;
};
std::optional<MediaInfo> probe(const std::string& file);
// The file's length in seconds; -1 when ffprobe cannot read it.
double durationOf(const std::string& file);
// A number ffprobe gives for a stream ("v:0") and entry ("duration"), counting first with `count`
// ("-count_packets") when asked; -1 when it fails.
double probeNumber(const std::string& file, const std::string& stream, const std::string& entry,
                   const std::string& count = "");
// Number of decodable video frames (ffprobe -count_frames).
int countVideoFrames(const std::string& file);
// Decodes frame `index` of the video as raw RGB24 (width*height*3 bytes).
std::optional<std::vector<uint8_t>> decodeFrameRGB(const std::string& file, double atSeconds,
                                                   int width, int height);
// Peak and RMS level of the audio track in dBFS (ffmpeg's volumedetect), from `from` seconds to
// `to` (negative: the end).
struct AudioLevels {
    double meanDb = -91;
    double maxDb = -91;
};
std::optional<AudioLevels> audioLevels(const std::string& file, double from = 0, double to = -1);

// The key lines fake_editor logs for the screencast toggle: the command palette, the command's
// text and Return.
std::vector<std::string> screencastToggleKeys();
// Whether `name` has an owner on the session bus of `env`.
bool busOwns(const std::map<std::string, std::string>& env, const std::string& name);
std::string binaryPath();    // the glimmerbox program under test
std::string toolPath(const std::string& name);  // a helper program from tests/tools

std::vector<std::string> linesOf(const std::string& text);
std::string lastLine(std::string text);
size_t countOf(const std::string& text, const std::string& what);
std::vector<std::string> moviesIn(const std::string& folder);  // the .mov files, sorted
std::string artifactsDir();  // where tests leave screenshots

// What a finished recording must be: a QuickTime movie named by its start time with H.264 video
// and AAC audio, about `seconds` long. With a size, also the encoder's settings (Main profile,
// CAVLC, AAC LC stereo at 44.1 kHz).
struct MovieCheck {
    double seconds = 0;
    double tolerance = 1.5;
    int width = 0;  // 0: size and settings unchecked
    int height = 0;
    bool allFrames = false;  // at least 95% of 30 frames a second
    bool audible = false;    // the microphone's tone is in it
};
void expectValidMovie(const std::string& file, const MovieCheck& check);

// Beeps (the first loud sample after half a second of quiet) and flashes (the first bright frame
// after a dark one) of a recording, in seconds on the file's timeline.
struct Onsets {
    std::vector<double> audio;
    std::vector<double> video;
};
Onsets findOnsets(const std::string& file);
// Expects each beep whose time `which` picks within a frame of its nearest flash; how many it
// checked.
int expectInSync(const Onsets& o, const std::function<bool(double)>& which);

// The environment of programs in a session whose home is `home`, on X11 with no test camera, and
// on `display` with `mic` when given.
std::map<std::string, std::string> sessionEnv(const std::string& home,
                                              const VirtualDisplay* display = nullptr,
                                              const VirtualMicrophone* mic = nullptr);
// A private D-Bus session bus that starts services from a folder of its own, as a desktop's bus
// starts installed programs when their name is called. Started services die with it.
class SessionBus {
public:
    SessionBus();
    ~SessionBus();
    [[nodiscard]] bool ok() const { return ok_; }
    [[nodiscard]] const std::string& address() const { return address_; }
    // A service file for `name` that runs `argv` with `env` (as Process takes it) and its
    // output appended to `logFile`.
    bool installService(const std::string& name, const std::vector<std::string>& argv,
                        const std::map<std::string, std::string>& env, const std::string& logFile);

private:
    TempDir dir_;
    std::optional<Process> daemon_;
    std::string address_;
    bool ok_ = false;
};
// A desktop session of its own: Xvfb, a session bus that starts services, a PulseAudio null sink
// as the microphone (or no sound server), and dunst for notifications, watched by dbus-monitor.
class Desktop {
public:
    explicit Desktop(bool microphone = true);
    [[nodiscard]] bool ok() const { return ok_; }
    [[nodiscard]] std::map<std::string, std::string> env() const;
    [[nodiscard]] const std::string& home() const { return home_.path(); }
    [[nodiscard]] std::string recordingsFolder() const;
    [[nodiscard]] SessionBus& bus() { return bus_; }
    // A program in this session to completion: its output, or nothing when it failed.
    std::optional<std::string> run(const std::vector<std::string>& argv) const;
    // The Notify calls that went over the bus, one each as dbus-monitor printed it.
    [[nodiscard]] std::vector<std::string> notifications() const;
    // Whether a notification with this summary and a body that begins so went over the bus.
    [[nodiscard]] bool notified(const std::string& summary, const std::string& body) const {
        return monitor_->stdoutText().find("string \"" + summary + "\"\n   string \"" + body) !=
               std::string::npos;
    }

private:
    VirtualDisplay display_{1280, 720};
    SessionBus bus_;
    std::optional<VirtualMicrophone> microphone_;
    TempDir home_;
    std::optional<Process> notifications_;
    std::optional<Process> monitor_;
    bool ok_ = false;
};

}  // namespace gb::e2e
