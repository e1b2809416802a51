// Support for end-to-end tests: a private virtual display (Xvfb), a private PulseAudio server with
// a null sink as the default microphone, child processes with captured output, and ffprobe
// queries. Every test starts what it needs and everything is stopped when the objects go.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace gb::e2e {

// A temporary folder removed at destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    [[nodiscard]] const std::string& path() const { return path_; }

private:
    std::string path_;
};

// A child process; killed (SIGKILL) at destruction if still running.
class Process {
public:
    // Runs argv with the current environment plus `env` (NAME=VALUE entries override; an empty
    // value removes the variable).
    // Standard output and error go to files (see stdoutText()).
    Process(std::vector<std::string> argv, std::map<std::string, std::string> env = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    // Waits for exit; the exit code, or nothing on timeout. A signal death gives 128 + signal.
    std::optional<int> wait(std::chrono::milliseconds timeout);
    [[nodiscard]] bool running();
    void signal(int sig);
    [[nodiscard]] std::string stdoutText() const;
    [[nodiscard]] std::string stderrText() const;
    // Waits until standard output contains `text`.
    bool waitForOutput(const std::string& text, std::chrono::milliseconds timeout);

private:
    pid_t pid_ = -1;
    std::optional<int> exitCode_;
    TempDir dir_;
    std::string out_;
    std::string err_;
};

// Runs a command to completion; its standard output, or nothing when it failed.
std::optional<std::string> runCommand(const std::vector<std::string>& argv,
                                      const std::map<std::string, std::string>& env = {},
                                      std::chrono::milliseconds timeout = std::chrono::seconds(60));

// Xvfb on a free display number.
class VirtualDisplay {
public:
    explicit VirtualDisplay(int width = 1920, int height = 1080, int depth = 24);
    ~VirtualDisplay();
    [[nodiscard]] const std::string& name() const { return name_; }  // ":N"
    [[nodiscard]] bool ok() const { return ok_; }

private:
    std::optional<Process> xvfb_;
    std::string name_;
    bool ok_ = false;
};

// A private PulseAudio server whose default source is the monitor of a null sink.
class VirtualMicrophone {
public:
    VirtualMicrophone();
    ~VirtualMicrophone();
    [[nodiscard]] bool ok() const { return ok_; }
    [[nodiscard]] std::string server() const { return "unix:" + dir_.path() + "/native"; }
    // Environment that points clients at this server.
    [[nodiscard]] std::map<std::string, std::string> env() const;
    // Plays a sine tone into the sink until the returned process ends (`seconds` long).
    [[nodiscard]] std::unique_ptr<Process> playTone(double seconds, int frequencyHz = 440) const;

private:
    TempDir dir_;
    std::optional<Process> daemon_;
    bool ok_ = false;
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
// Number of decodable video frames (ffprobe -count_frames).
int countVideoFrames(const std::string& file);
// Decodes frame `index` of the video as raw RGB24 (width*height*3 bytes).
std::optional<std::vector<uint8_t>> decodeFrameRGB(const std::string& file, double atSeconds,
                                                   int width, int height);
// Peak and RMS level of the audio track in dBFS (ffmpeg's volumedetect).
struct AudioLevels {
    double meanDb = -91;
    double maxDb = -91;
};
std::optional<AudioLevels> audioLevels(const std::string& file);

std::string binaryPath();    // the glimmerbox program under test
std::string toolPath(const std::string& name);  // a helper program from tests/tools
std::string sourceDir();

// Checks `condition` every 100 ms until it holds (true) or `timeout` has passed (false).
bool eventually(const std::function<bool()>& condition,
                std::chrono::milliseconds timeout = std::chrono::seconds(30));
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
// Levels of the audio between two times of the file (as audioLevels()).
std::optional<AudioLevels> audioLevelsBetween(const std::string& file, double fromSeconds,
                                              double toSeconds);

}  // namespace gb::e2e

namespace gb::e2e {
// A child of this test process whose command line contains `text` (for instance a server's
// private socket path), or -1.
pid_t childWithArgument(const std::string& text);
}  // namespace gb::e2e
