#include "e2e/e2e_support.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>

namespace gb::e2e {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "glimmerbox-e2e.XXXXXX").string();
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data())) path_ = buf.data();
}

TempDir::~TempDir() {
    std::error_code ec;
    if (!path_.empty()) fs::remove_all(path_, ec);
}

Process::Process(std::vector<std::string> argv, std::map<std::string, std::string> env) {
    out_ = dir_.path() + "/stdout";
    err_ = dir_.path() + "/stderr";
    pid_ = fork();
    if (pid_ == 0) {
        setpgid(0, 0);
        for (auto& [k, v] : env) {
            if (v.empty()) {
                unsetenv(k.c_str());
            } else {
                setenv(k.c_str(), v.c_str(), 1);
            }
        }
        int o = open(out_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int e = open(err_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int n = open("/dev/null", O_RDONLY);
        dup2(n, 0);
        dup2(o, 1);
        dup2(e, 2);
        std::vector<char*> args;
        for (auto& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        execvp(args[0], args.data());
        _exit(127);
    }
}

Process::~Process() {
    if (pid_ > 0 && !exitCode_) {
        kill(-pid_, SIGKILL);
        kill(pid_, SIGKILL);
        int status = 0;
        waitpid(pid_, &status, 0);
    }
}

std::optional<int> Process::wait(std::chrono::milliseconds timeout) {
    if (exitCode_) return exitCode_;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        int status = 0;
        pid_t r = waitpid(pid_, &status, WNOHANG);
        if (r == pid_) {
            exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return exitCode_;
        }
        if (std::chrono::steady_clock::now() >= deadline) return std::nullopt;
        std::this_thread::sleep_for(20ms);
    }
}

bool Process::running() { return !wait(0ms).has_value(); }

void Process::signal(int sig) {
    if (pid_ > 0 && !exitCode_) kill(pid_, sig);
}

std::string Process::stdoutText() const { return readFile(out_); }
std::string Process::stderrText() const { return readFile(err_); }

bool Process::waitForOutput(const std::string& text, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (stdoutText().find(text) != std::string::npos) return true;
        if (!running()) return stdoutText().find(text) != std::string::npos;
        std::this_thread::sleep_for(20ms);
    }
    return false;
}

std::optional<std::string> runCommand(const std::vector<std::string>& argv,
                                      const std::map<std::string, std::string>& env,
                                      std::chrono::milliseconds timeout) {
    Process p(argv, env);
    auto code = p.wait(timeout);
    if (!code || *code != 0) return std::nullopt;
    return p.stdoutText();
}

VirtualDisplay::VirtualDisplay(int width, int height, int depth) {
    // -displayfd makes Xvfb choose a free display and tell us its number.
    int fds[2];
    if (pipe(fds) != 0) return;
    const std::string geometry =
        std::to_string(width) + "x" + std::to_string(height) + "x" + std::to_string(depth);
    xvfb_.emplace(std::vector<std::string>{"Xvfb", "-displayfd", std::to_string(fds[1]), "-screen",
                                           "0", geometry, "-nolisten", "tcp", "+extension",
                                           "RANDR"});
    close(fds[1]);
    std::string number;
    char c;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    fcntl(fds[0], F_SETFL, O_NONBLOCK);
    while (std::chrono::steady_clock::now() < deadline) {
        ssize_t n = read(fds[0], &c, 1);
        if (n == 1) {
            if (c == '\n') break;
            number.push_back(c);
        } else if (n == 0) {
            break;
        } else {
            std::this_thread::sleep_for(10ms);
        }
    }
    close(fds[0]);
    if (number.empty()) return;
    name_ = ":" + number;
    ok_ = true;
}

VirtualDisplay::~VirtualDisplay() = default;

VirtualMicrophone::VirtualMicrophone() {
    const std::string d = dir_.path();
    fs::create_directories(d + "/runtime");
    chmod((d + "/runtime").c_str(), 0700);
    daemon_.emplace(std::vector<std::string>{
                        "pulseaudio", "-n", "--daemonize=no", "--exit-idle-time=-1",
                        "--disallow-exit", "--use-pid-file=no", "--disable-shm=yes",
                        "-L", "module-native-protocol-unix socket=" + d + "/native auth-anonymous=1",
                        "-L", "module-null-sink sink_name=e2e rate=44100 channels=2",
                        "-L", "module-always-sink"},
                    std::map<std::string, std::string>{{"HOME", d},
                                                       {"XDG_RUNTIME_DIR", d + "/runtime"},
                                                       {"XDG_CONFIG_HOME", d + "/config"}});
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (std::chrono::steady_clock::now() < deadline) {
        if (runCommand({"pactl", "info"}, env(), 2s)) {
            ok_ = runCommand({"pactl", "set-default-source", "e2e.monitor"}, env()).has_value() &&
                  runCommand({"pactl", "set-default-sink", "e2e"}, env()).has_value();
            return;
        }
        std::this_thread::sleep_for(50ms);
    }
}

VirtualMicrophone::~VirtualMicrophone() = default;

std::map<std::string, std::string> VirtualMicrophone::env() const {
    return {{"PULSE_SERVER", server()}};
}

std::unique_ptr<Process> VirtualMicrophone::playTone(double seconds, int frequencyHz) const {
    const std::string cmd = "sox -q -n -t raw -r 44100 -e signed -b 16 -c 2 - synth " +
                            std::to_string(seconds) + " sine " + std::to_string(frequencyHz) +
                            " vol 0.5 | pacat --raw --rate=44100 --channels=2 --format=s16le "
                            "--device=e2e --latency-msec=20";
    return std::make_unique<Process>(std::vector<std::string>{"sh", "-c", cmd}, env());
}

const StreamInfo* MediaInfo::stream(const std::string& codecType) const {
    for (auto& s : streams) {
        if (s.get("codec_type") == codecType) return &s;
    }
    return nullptr;
}

std::optional<MediaInfo> probe(const std::string& file) {
    auto out = runCommand({"ffprobe", "-v", "error", "-show_format", "-show_streams", "-of",
                           "default=noprint_wrappers=0", file});
    if (!out) return std::nullopt;
    MediaInfo info;
    std::istringstream in(*out);
    std::string line;
    enum { none, stream, format } section = none;
    while (std::getline(in, line)) {
        if (line == "[STREAM]") {
            section = stream;
            info.streams.emplace_back();
        } else if (line == "[FORMAT]") {
            section = format;
        } else if (line.rfind("[/", 0) == 0) {
            section = none;
        } else if (auto eq = line.find('='); eq != std::string::npos) {
            const std::string key = line.substr(0, eq), value = line.substr(eq + 1);
            if (section == stream) {
                info.streams.back().fields[key] = value;
            } else if (section == format) {
                if (key == "format_name") info.formatName = value;
                if (key == "duration") info.durationSeconds = std::atof(value.c_str());
            }
        }
    }
    return info;
}

int countVideoFrames(const std::string& file) {
    auto out = runCommand({"ffprobe", "-v", "error", "-select_streams", "v:0", "-count_frames",
                           "-show_entries", "stream=nb_read_frames", "-of",
                           "default=nokey=1:noprint_wrappers=1", file});
    return out ? std::atoi(out->c_str()) : -1;
}

std::optional<std::vector<uint8_t>> decodeFrameRGB(const std::string& file, double atSeconds,
                                                   int width, int height) {
    TempDir tmp;
    const std::string raw = tmp.path() + "/frame.rgb";
    if (!runCommand({"ffmpeg", "-v", "error", "-y", "-ss", std::to_string(atSeconds), "-i", file,
                     "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "rgb24", raw})) {
        return std::nullopt;
    }
    std::string bytes = readFile(raw);
    if (bytes.size() != static_cast<size_t>(width) * height * 3) return std::nullopt;
    return std::vector<uint8_t>(bytes.begin(), bytes.end());
}

std::optional<AudioLevels> audioLevels(const std::string& file) {
    Process p({"ffmpeg", "-v", "info", "-i", file, "-map", "0:a:0", "-af", "volumedetect", "-f",
               "null", "-"});
    if (p.wait(120s) != 0) return std::nullopt;
    const std::string log = p.stderrText();
    AudioLevels levels;
    auto grab = [&](const std::string& key, double& into) {
        auto at = log.find(key);
        if (at == std::string::npos) return false;
        into = std::atof(log.c_str() + at + key.size());
        return true;
    };
    if (!grab("mean_volume: ", levels.meanDb) || !grab("max_volume: ", levels.maxDb)) {
        return std::nullopt;
    }
    return levels;
}

std::string binaryPath() { return GLIMMERBOX_BINARY; }
std::string toolPath(const std::string& name) { return std::string(GLIMMERBOX_BUILD_DIR) + "/" + name; }
std::string sourceDir() { return GLIMMERBOX_SOURCE_DIR; }

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    for (const auto end = std::chrono::steady_clock::now() + timeout; !condition();) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(100ms);
    }
    return true;
}

SessionBus::SessionBus() {
    const std::string d = dir_.path();
    fs::create_directories(d + "/services");
    std::ofstream(d + "/bus.conf")
        << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
           "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
           "<busconfig><type>session</type><listen>unix:dir=" << d << "</listen>"
        << "<servicedir>" << d << "/services</servicedir><policy context=\"default\">"
        << "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
        << "<allow own=\"*\"/></policy></busconfig>\n";
    daemon_.emplace(std::vector<std::string>{"dbus-daemon", "--nofork", "--print-address=1",
                                             "--config-file=" + d + "/bus.conf"});
    if (!daemon_->waitForOutput("\n", 10s)) return;
    address_ = daemon_->stdoutText();
    address_.erase(address_.find('\n'));
    ok_ = true;
}

SessionBus::~SessionBus() {
    std::ifstream pids(dir_.path() + "/pids");
    for (pid_t pid = 0; pids >> pid;) kill(pid, SIGKILL);
}

bool SessionBus::installService(const std::string& name, const std::vector<std::string>& argv,
                                const std::map<std::string, std::string>& env,
                                const std::string& logFile) {
    const auto quoted = [](const std::string& s) { return "'" + s + "'"; };
    const std::string script = dir_.path() + "/" + name + ".sh";
    {
        std::ofstream out(script);
        out << "#!/bin/sh\necho $$ >> " << quoted(dir_.path() + "/pids") << "\n";
        for (const auto& [k, v] : env) {
            out << (v.empty() ? "unset " + k : "export " + k + "=" + quoted(v)) << "\n";
        }
        out << "exec";
        for (const std::string& a : argv) out << " " << quoted(a);
        out << " >> " << quoted(logFile) << " 2>&1\n";
    }
    chmod(script.c_str(), 0700);
    std::ofstream service(dir_.path() + "/services/" + name + ".service");
    service << "[D-BUS Service]\nName=" << name << "\nExec=" << script << "\n";
    return service.good();
}

std::optional<AudioLevels> audioLevelsBetween(const std::string& file, double fromSeconds,
                                              double toSeconds) {
    Process p({"ffmpeg", "-v", "info", "-ss", std::to_string(fromSeconds), "-to",
               std::to_string(toSeconds), "-i", file, "-map", "0:a:0", "-af", "volumedetect", "-f",
               "null", "-"});
    if (p.wait(120s) != 0) return std::nullopt;
    const std::string log = p.stderrText();
    const auto mean = log.find("mean_volume: ");
    const auto max = log.find("max_volume: ");
    if (mean == std::string::npos || max == std::string::npos) return std::nullopt;
    return AudioLevels{std::atof(log.c_str() + mean + 13), std::atof(log.c_str() + max + 12)};
}

}  // namespace gb::e2e

namespace gb::e2e {
pid_t childWithArgument(const std::string& text) {
    for (const auto& entry : fs::directory_iterator("/proc")) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos) continue;
        std::istringstream stat(readFile(entry.path() / "stat"));
        std::string pid, comm, state;
        pid_t parent = 0;
        stat >> pid >> comm >> state >> parent;
        std::string cmdline = readFile(entry.path() / "cmdline");
        if (parent == getpid() && cmdline.find(text) != std::string::npos) return std::stoi(name);
    }
    return -1;
}
}  // namespace gb::e2e
