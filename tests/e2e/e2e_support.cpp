#include "e2e/e2e_support.h"

#include <signal.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>

namespace gb::e2e {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

std::string lastLine(std::string text) {
    while (!text.empty() && text.back() == '\n') text.pop_back();
    const auto nl = text.rfind('\n');
    return nl == std::string::npos ? text : text.substr(nl + 1);
}

size_t countOf(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

std::vector<std::string> moviesIn(const std::string& folder) {
    std::vector<std::string> movies;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(folder, ec)) {
        if (e.path().extension() == ".mov") movies.push_back(e.path().string());
    }
    std::sort(movies.begin(), movies.end());
    return movies;
}

std::string artifactsDir() { return std::string(GLIMMERBOX_BUILD_DIR) + "/artifacts"; }

void expectValidMovie(const std::string& file, const MovieCheck& check) {
    const auto info = probe(file);
    ASSERT_TRUE(info) << file;
    EXPECT_TRUE(std::regex_match(fs::path(file).filename().string(),
                                 std::regex(R"(glimmerbox-\d{4}-\d\d-\d\d_\d\d-\d\d-\d\d\.mov)")))
        << file;
    EXPECT_NE(info->formatName.find("mov"), std::string::npos) << info->formatName;
    ASSERT_EQ(info->streams.size(), 2u) << file;
    const StreamInfo* v = info->stream("video");
    const StreamInfo* a = info->stream("audio");
    ASSERT_TRUE(v && a) << file;
    EXPECT_EQ(v->get("codec_name"), "h264");
    EXPECT_EQ(a->get("codec_name"), "aac");
    EXPECT_NEAR(info->durationSeconds, check.seconds, check.tolerance);
    if (check.allFrames) {
        EXPECT_GE(countVideoFrames(file), static_cast<int>(std::ceil(check.seconds * 30 * 0.95)));
    }
    if (check.audible) {
        const auto levels = audioLevels(file);
        ASSERT_TRUE(levels);
        EXPECT_GT(levels->meanDb, -40.0) << "the audio is silent";
    }
    if (check.width == 0) return;
    const std::map<std::string, std::string> expected{
        {"v:profile", "Main"}, {"v:width", std::to_string(check.width)},
        {"v:height", std::to_string(check.height)}, {"a:profile", "LC"},
        {"a:channels", "2"}, {"a:sample_rate", "44100"}};
    for (const auto& [key, value] : expected) {
        EXPECT_EQ((key[0] == 'v' ? v : a)->get(key.substr(2)), value) << key;
    }
    // CAVLC: every picture parameter set says entropy_coding_mode_flag 0.
    Process trace({"ffmpeg", "-v", "trace", "-i", file, "-map", "0:v", "-c", "copy", "-bsf:v",
                   "trace_headers", "-f", "null", "-"});
    ASSERT_EQ(trace.wait(60s), 0);
    const std::string log = trace.stderrText();
    const std::regex flag(R"(entropy_coding_mode_flag\s+(\d+) = (\d+))");
    int pps = 0;
    for (std::sregex_iterator it(log.begin(), log.end(), flag), end; it != end; ++it) {
        ++pps;
        EXPECT_EQ((*it)[2], "0") << "CABAC found";
    }
    EXPECT_GT(pps, 0) << "no picture parameter set traced";
}

double probeNumber(const std::string& file, const std::string& stream, const std::string& entry,
                   const std::string& count) {
    std::vector<std::string> argv{"ffprobe", "-v", "error", "-select_streams", stream};
    if (!count.empty()) argv.push_back(count);
    argv.insert(argv.end(), {"-show_entries", "stream=" + entry, "-of",
                             "default=nokey=1:noprint_wrappers=1", file});
    const auto out = runCommand(argv);
    return out ? std::atof(out->c_str()) : -1;
}

Onsets findOnsets(const std::string& file) {
    Onsets o;
    TempDir tmp;
    // Audio: first loud sample after at least 0.5 s of quiet.
    const std::string pcm = tmp.path() + "/a.raw";
    runCommand({"ffmpeg", "-v", "error", "-y", "-i", file, "-map", "0:a", "-ac", "1", "-ar",
                "44100", "-f", "s16le", pcm},
               {}, 600s);
    const std::string bytes = readText(pcm);
    const double a0 = probeNumber(file, "a:0", "start_time");
    long quiet = 0;
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        int16_t v;
        std::memcpy(&v, &bytes[i], 2);
        if (std::abs(v) > 3000) {
            if (quiet >= 22050) o.audio.push_back(a0 + static_cast<double>(i / 2) / 44100.0);
            quiet = 0;
        } else {
            ++quiet;
        }
    }
    // Video: first bright frame after a dark one, at its presentation time.
    auto times = runCommand({"ffprobe", "-v", "error", "-select_streams", "v:0", "-show_entries",
                             "frame=pts_time", "-of", "default=nokey=1:noprint_wrappers=1", file},
                            {}, 600s);
    const std::string gray = tmp.path() + "/v.gray";
    runCommand({"ffmpeg", "-v", "error", "-y", "-i", file, "-map", "0:v", "-vf",
                "scale=16:9,format=gray", "-fps_mode", "passthrough", "-f", "rawvideo", gray},
               {}, 600s);
    const std::string frames = readText(gray);
    std::istringstream ts(times.value_or(""));
    std::string line;
    bool dark = false;
    for (size_t f = 0; std::getline(ts, line) && (f + 1) * 144 <= frames.size(); ++f) {
        long sum = 0;
        for (int i = 0; i < 144; ++i) sum += static_cast<unsigned char>(frames[f * 144 + i]);
        const bool bright = sum / 144 > 128;
        if (bright && dark) o.video.push_back(std::atof(line.c_str()));
        dark = !bright;
    }
    return o;
}

int expectInSync(const Onsets& o, const std::function<bool(double)>& which) {
    int checked = 0;
    for (double t : o.audio) {
        if (!which(t)) continue;
        double d = 1e9;
        for (double v : o.video) d = std::abs(v - t) < std::abs(d) ? v - t : d;
        std::cout << "beep at " << t << " s: flash " << d * 1000 << " ms from it\n";
        EXPECT_LE(std::abs(d), 1.0 / 30 + 0.005)
            << "beep at " << t << " s, flash " << d << " s off";
        ++checked;
    }
    return checked;
}

std::map<std::string, std::string> sessionEnv(const std::string& home,
                                              const VirtualDisplay* display,
                                              const VirtualMicrophone* mic) {
    std::map<std::string, std::string> env{{"HOME", home},
                                           {"XDG_CONFIG_HOME", home + "/.config"},
                                           {"XDG_DOCUMENTS_DIR", ""},
                                           {"XDG_SESSION_TYPE", "x11"},
                                           {"WAYLAND_DISPLAY", ""},
                                           {"QT_QPA_PLATFORM", ""},
                                           {"GLIMMERBOX_TEST_CAMERA", ""}};
    if (display) env["DISPLAY"] = display->name();
    if (mic) env["PULSE_SERVER"] = mic->server();
    return env;
}

const StreamInfo* MediaInfo::stream(const std::string& codecType) const {
    for (auto& s : streams) {
        if (s.get("codec_type") == codecType) return &s;
    }
    return nullptr;
}

std::optional<MediaInfo> probe(const std::string& file) {
    const auto out = runCommand(
        {"ffprobe", "-v", "error", "-show_format", "-show_streams", "-of", "flat", file});
    if (!out) return std::nullopt;
    MediaInfo info;
    // streams.stream.0.codec_name="h264", format.duration="5.000000"; nested fields are left out.
    const std::regex field(R"re((?:streams\.stream\.(\d+)|format)\.(\w+)="?([^"]*)"?)re");
    std::smatch m;
    for (const std::string& line : linesOf(*out)) {
        if (!std::regex_match(line, m, field)) continue;
        if (m[1].matched) {
            const size_t index = std::stoul(m[1].str());
            info.streams.resize(std::max(info.streams.size(), index + 1));
            info.streams[index].fields[m[2].str()] = m[3].str();
        }
        if (!m[1].matched && m[2] == "format_name") info.formatName = m[3].str();
        if (!m[1].matched && m[2] == "duration")
            info.durationSeconds = std::atof(m[3].str().c_str());
    }
    return info;
}

double durationOf(const std::string& file) {
    const auto info = probe(file);
    return info ? info->durationSeconds : -1;
}

int countVideoFrames(const std::string& file) {
    return static_cast<int>(probeNumber(file, "v:0", "nb_read_frames", "-count_frames"));
}

std::optional<std::vector<uint8_t>> decodeFrameRGB(const std::string& file, double atSeconds,
                                                   int width, int height) {
    const auto bytes =
        runCommand({"ffmpeg", "-v", "error", "-ss", std::to_string(atSeconds), "-i", file,
                    "-frames:v", "1", "-f", "rawvideo", "-pix_fmt", "rgb24", "-"});
    if (!bytes || bytes->size() != static_cast<size_t>(width) * height * 3) return std::nullopt;
    return std::vector<uint8_t>(bytes->begin(), bytes->end());
}

std::optional<AudioLevels> audioLevels(const std::string& file, double from, double to) {
    Process p({"ffmpeg", "-v", "info", "-ss", std::to_string(from), "-to",
               std::to_string(to < 0 ? 1e6 : to), "-i", file, "-map", "0:a:0", "-af",
               "volumedetect", "-f", "null", "-"});
    const bool ran = p.wait(120s) == 0;
    const std::string log = p.stderrText();
    const auto mean = log.find("mean_volume: "), max = log.find("max_volume: ");
    if (!ran || mean == std::string::npos || max == std::string::npos) return std::nullopt;
    return AudioLevels{std::atof(log.c_str() + mean + 13), std::atof(log.c_str() + max + 12)};
}

std::vector<std::string> screencastToggleKeys() {
    std::vector<std::string> keys{"key ctrl+shift+p"};
    for (const char c : std::string("Toggle Screencast Mode"))
        keys.push_back(c == ' ' ? "key space" : std::string("key ") + c);
    keys.push_back("key Return");
    return keys;
}

bool busOwns(const std::map<std::string, std::string>& env, const std::string& name) {
    return runCommand({"dbus-send", "--session", "--print-reply", "--dest=org.freedesktop.DBus",
                       "/", "org.freedesktop.DBus.GetNameOwner", "string:" + name},
                      env, 5s)
        .has_value();
}

std::string binaryPath() { return GLIMMERBOX_BINARY; }
std::string toolPath(const std::string& name) {
    return std::string(GLIMMERBOX_BUILD_DIR) + "/" + name;
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

Desktop::Desktop(bool microphone) {
    if (!display_.ok() || !bus_.ok()) return;
    if (microphone) {
        microphone_.emplace();
        if (!microphone_->ok()) return;
    }
    fs::create_directories(home() + "/.run");
    chmod((home() + "/.run").c_str(), 0700);
    notifications_.emplace(std::vector<std::string>{"dunst"}, env());
    monitor_.emplace(std::vector<std::string>{"dbus-monitor", "--address", bus_.address(),
                                              "type='method_call',"
                                              "interface='org.freedesktop.Notifications',"
                                              "member='Notify'"});
    // The notification server is up once it owns its name.
    ok_ = monitor_->waitForOutput("member=NameLost", 10s) &&
          eventually([&] { return busOwns(env(), "org.freedesktop.Notifications"); }, 10s);
}

std::map<std::string, std::string> Desktop::env() const {
    auto env = sessionEnv(home());
    env["DISPLAY"] = display_.name();
    env["DBUS_SESSION_BUS_ADDRESS"] = bus_.address();
    env["XDG_RUNTIME_DIR"] = home() + "/.run";
    env["PULSE_SERVER"] =
        microphone_ ? microphone_->server() : "unix:" + home() + "/.run/no-such-socket";
    return env;
}

std::vector<std::string> Desktop::notifications() const {
    const std::string log = monitor_->stdoutText();
    std::vector<std::string> calls;
    for (size_t at = log.find("member=Notify"); at != std::string::npos;) {
        const size_t next = log.find("member=Notify", at + 1);
        calls.push_back(log.substr(at, next - at));
        at = next;
    }
    return calls;
}

std::string Desktop::recordingsFolder() const {
    return home() + "/Documents/Glimmerbox Recordings";
}

std::optional<std::string> Desktop::run(const std::vector<std::string>& argv) const {
    return runCommand(argv, env(), 20s);
}

}  // namespace gb::e2e
