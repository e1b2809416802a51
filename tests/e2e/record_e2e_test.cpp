// Guards against: `glimmerbox record` on the real binary (private Xvfb and PulseAudio) producing wrong codecs, sizes, durations, permissions, letterboxing or silence, an unplayable killed recording, missing texts for a missing microphone or display or a bad option, and audio drifting from video over ten minutes.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <cmath>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <regex>
#include <sstream>

#include "e2e/e2e_support.h"

namespace gb::e2e {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

class RecordE2ETest : public ::testing::Test {
protected:
    std::map<std::string, std::string> baseEnv() const {
        auto e = sessionEnv(home_.path());
        e["GLIMMERBOX_TEST_CAMERA"] = "";
        return e;
    }
    std::map<std::string, std::string> env(const VirtualDisplay& display,
                                           const VirtualMicrophone& mic) const {
        auto e = baseEnv();
        e["DISPLAY"] = display.name();
        for (auto& [k, v] : mic.env()) e[k] = v;
        return e;
    }
    e2e::Run record(std::vector<std::string> args, const std::map<std::string, std::string>& env,
                    std::chrono::seconds timeout = 60s) {
        args.insert(args.begin(), {binaryPath(), "record"});
        return runToEnd(args, env, timeout);
    }
    // Runs a moving scene on the display until the test ends.
    void startScene(const VirtualDisplay& display) {
        scene_ = std::make_unique<Process>(std::vector<std::string>{toolPath("demo_scene")},
                                           std::map<std::string, std::string>{{"DISPLAY", display.name()}});
        std::this_thread::sleep_for(300ms);
    }

    TempDir home_;
    std::unique_ptr<Process> scene_;
};

TEST_F(RecordE2ETest, HighQualityRecordingOfTheScreenAndTheMicrophone) {
    VirtualDisplay display(1920, 1080);
    VirtualMicrophone mic;
    ASSERT_TRUE(display.ok() && mic.ok());
    startScene(display);
    auto tone = mic.playTone(30);

    auto run = record({"--duration", "5", "--quality", "high", "--no-camera"}, env(display, mic));
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const std::string path = lastLine(run.out);

    // Named by its start time, in the default folder, readable by the user only.
    const fs::path file(path);
    EXPECT_EQ(file.parent_path(), fs::path(home_.path()) / "Documents" / "Glimmerbox Recordings");
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    ASSERT_EQ(stat(file.parent_path().c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    EXPECT_NE(run.out.find("Recording completed successfully"), std::string::npos);

    expectValidMovie(path, {.seconds = 5.0, .tolerance = 0.3, .width = 1920, .height = 1080,
                            .allFrames = true, .audible = true});
}

TEST_F(RecordE2ETest, MediumQualityLetterboxesAnotherAspectRatio) {
    VirtualDisplay display(1920, 1200);  // 16:10 into 16:9: bars left and right
    VirtualMicrophone mic;
    ASSERT_TRUE(display.ok() && mic.ok());
    startScene(display);
    auto tone = mic.playTone(30);
    TempDir out;

    auto run = record({"--duration", "5", "--quality", "medium", "--no-camera", "--output",
                       out.path()},
                      env(display, mic));
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const std::string path = lastLine(run.out);
    EXPECT_EQ(fs::path(path).parent_path(), fs::path(out.path()));
    expectValidMovie(path, {.seconds = 5.0, .tolerance = 0.3, .width = 1280, .height = 720,
                            .allFrames = true, .audible = true});

    // 1920x1200 scaled by 0.6 is 1152x720, centred: 64 black columns on each side.
    auto rgb = decodeFrameRGB(path, 2.0, 1280, 720);
    ASSERT_TRUE(rgb);
    auto luma = [&](int x, int y) {
        const uint8_t* p = rgb->data() + (static_cast<size_t>(y) * 1280 + x) * 3;
        return (p[0] + p[1] + p[2]) / 3;
    };
    for (int y : {10, 360, 710}) {
        EXPECT_LT(luma(20, y), 24) << "left bar at row " << y;
        EXPECT_LT(luma(1259, y), 24) << "right bar at row " << y;
    }
    int lit = 0;
    for (int x = 80; x < 1200; x += 40) lit += luma(x, 360) > 40 ? 1 : 0;
    EXPECT_GT(lit, 10) << "the picture itself is missing";
}

TEST_F(RecordE2ETest, KilledRecordingStaysPlayable) {
    VirtualDisplay display(1280, 720);
    VirtualMicrophone mic;
    ASSERT_TRUE(display.ok() && mic.ok());
    startScene(display);
    auto tone = mic.playTone(60);
    TempDir out;

    Process p({binaryPath(), "record", "--no-camera", "--output", out.path()}, env(display, mic));
    ASSERT_TRUE(p.waitForOutput("Recording started successfully", 20s)) << p.stdoutText();
    std::this_thread::sleep_for(6s);
    p.signal(SIGKILL);
    ASSERT_TRUE(p.wait(5s));

    std::vector<fs::path> files;
    for (auto& e : fs::directory_iterator(out.path())) files.push_back(e.path());
    ASSERT_EQ(files.size(), 1u);
    const std::string path = files[0].string();

    // Decodes to the end without errors.
    Process decode({"ffmpeg", "-v", "error", "-xerror", "-i", path, "-f", "null", "-"});
    ASSERT_EQ(decode.wait(120s), 0) << decode.stderrText();
    EXPECT_GE(countVideoFrames(path), 4 * 30);
    auto packets = runCommand({"ffprobe", "-v", "error", "-select_streams", "a:0",
                               "-count_packets", "-show_entries", "stream=nb_read_packets", "-of",
                               "default=nokey=1:noprint_wrappers=1", path});
    ASSERT_TRUE(packets);
    EXPECT_GE(std::atoi(packets->c_str()) * 1024.0 / 44100.0, 4.0);
}

TEST_F(RecordE2ETest, MissingMicrophoneOrDisplayFailsWithTheirTexts) {
    VirtualDisplay display(640, 480);
    ASSERT_TRUE(display.ok());
    TempDir nowhere;
    auto e = baseEnv();
    e["DISPLAY"] = display.name();
    e["PULSE_SERVER"] = "unix:" + nowhere.path() + "/no-such-socket";
    auto noMic = record({"--duration", "2", "--no-camera"}, e);
    ASSERT_TRUE(noMic.exitCode);
    EXPECT_NE(*noMic.exitCode, 0);
    EXPECT_EQ(lastLine(noMic.err), "Setup failed: No microphone found") << noMic.err;

    VirtualMicrophone mic;
    ASSERT_TRUE(mic.ok());
    auto e2 = env(display, mic);
    e2["DISPLAY"] = "";
    auto noDisplay = record({"--duration", "2", "--no-camera"}, e2);
    ASSERT_TRUE(noDisplay.exitCode);
    EXPECT_NE(*noDisplay.exitCode, 0);
    EXPECT_EQ(lastLine(noDisplay.err), "Setup failed: No display found for screen recording")
        << noDisplay.err;
}

TEST_F(RecordE2ETest, BadOptionIsRefusedBeforeAnythingStarts) {
    auto run = record({"--quality", "8k"}, baseEnv());
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("'8k' is not one of medium, high, ultra, screen"), std::string::npos);
    EXPECT_EQ(run.out.find("ScreenRecorder.startRecording() called"), std::string::npos);
}

// A still screen gives few frames, yet the movie plays its whole length with sound, and a seek
// into the middle finds the screen's picture.
TEST_F(RecordE2ETest, StillScreenPlaysThroughWithSoundAndSeeksToThePicture) {
    VirtualDisplay display(640, 360);
    VirtualMicrophone mic;
    ASSERT_TRUE(display.ok() && mic.ok());
    Process scene({toolPath("demo_scene"), "--flat", "3070c0"}, {{"DISPLAY", display.name()}});
    std::this_thread::sleep_for(300ms);
    auto tone = mic.playTone(30);

    auto run = record({"--duration", "10", "--quality", "screen", "--no-camera"}, env(display, mic));
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_NE(run.out.find("unchanged frames"), std::string::npos) << run.out;
    const std::string path = lastLine(run.out);
    auto info = probe(path);
    ASSERT_TRUE(info && info->stream("video") && info->stream("audio"));
    EXPECT_NEAR(std::atof(info->stream("video")->get("duration").c_str()), 10.0, 0.3);
    EXPECT_NEAR(std::atof(info->stream("audio")->get("duration").c_str()), 10.0, 0.3);
    // At least one frame a second for seeking, far fewer than one per frame time.
    const int frames = countVideoFrames(path);
    EXPECT_GE(frames, 10);
    EXPECT_LE(frames, 60);
    for (double from = 0; from < 10; from += 2) {
        auto levels = audioLevelsBetween(path, from, from + 2);
        ASSERT_TRUE(levels);
        EXPECT_GT(levels->meanDb, -40.0) << "silent from " << from << " s";
    }
    auto rgb = decodeFrameRGB(path, 5.0, 640, 360);
    ASSERT_TRUE(rgb);
    const size_t at = (100 * 640 + 100) * 3;  // away from the pointer in the middle
    EXPECT_NEAR((*rgb)[at], 0x30, 12);
    EXPECT_NEAR((*rgb)[at + 1], 0x70, 12);
    EXPECT_NEAR((*rgb)[at + 2], 0xc0, 12);
}

// ---- audio/video sync ----------------------------------------------------------------------

struct Onsets {
    std::vector<double> audio;  // seconds on the file's timeline
    std::vector<double> video;
};

double streamStart(const std::string& file, const std::string& stream) {
    auto out = runCommand({"ffprobe", "-v", "error", "-select_streams", stream, "-show_entries",
                           "stream=start_time", "-of", "default=nokey=1:noprint_wrappers=1", file});
    return out ? std::atof(out->c_str()) : 0.0;
}

Onsets findOnsets(const std::string& file) {
    Onsets o;
    TempDir tmp;
    // Audio: first loud sample after at least 0.5 s of quiet.
    const std::string pcm = tmp.path() + "/a.raw";
    runCommand({"ffmpeg", "-v", "error", "-y", "-i", file, "-map", "0:a", "-ac", "1", "-ar",
                "44100", "-f", "s16le", pcm},
               {}, 600s);
    std::ifstream in(pcm, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const double a0 = streamStart(file, "a:0");
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
    std::ifstream vin(gray, std::ios::binary);
    std::vector<char> frames((std::istreambuf_iterator<char>(vin)), std::istreambuf_iterator<char>());
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

TEST_F(RecordE2ETest, AudioAndVideoStayInSyncAtTheStartAndAfterTenMinutes) {
    const double minutes = std::getenv("GLIMMERBOX_SYNC_MINUTES")
                               ? std::atof(std::getenv("GLIMMERBOX_SYNC_MINUTES"))
                               : 10.0;
    VirtualDisplay display(640, 360);
    VirtualMicrophone mic;
    ASSERT_TRUE(display.ok() && mic.ok());
    const double seconds = minutes * 60 + 8;
    auto m = mic.env();
    m["DISPLAY"] = display.name();
    Process beacon({toolPath("sync_beacon"), "--seconds", std::to_string(seconds + 10)}, m);
    ASSERT_TRUE(beacon.waitForOutput("flash 1", 10s));
    TempDir out;

    auto run = record({"--duration", std::to_string(seconds), "--quality", "screen", "--no-camera",
                       "--output", out.path()},
                      env(display, mic), std::chrono::seconds(static_cast<long>(seconds) + 120));
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const std::string path = lastLine(run.out);

    Onsets o = findOnsets(path);
    ASSERT_GE(o.audio.size(), 3u);
    ASSERT_GE(o.video.size(), 3u);
    auto nearestVideo = [&](double t) {
        double best = 1e9;
        for (double v : o.video) best = std::abs(v - t) < std::abs(best - t) ? v : best;
        return best;
    };
    const double frame = 1.0 / 30.0;
    // Early flashes and the flashes after the ten minutes.
    int checkedLate = 0;
    for (double t : o.audio) {
        const bool early = t < 10.0;
        const bool late = t > minutes * 60 - 1;
        if (!early && !late) continue;
        const double d = nearestVideo(t) - t;
        std::cout << "beep at " << t << " s: flash " << d * 1000 << " ms from it\n";
        EXPECT_LE(std::abs(d), frame + 0.005) << "beep at " << t << " s, flash " << d << " s off";
        checkedLate += late ? 1 : 0;
    }
    EXPECT_GE(checkedLate, 1);
}

TEST_F(RecordE2ETest, AudioAndVideoStayInSyncAfterTheProcessWasStopped) {
    VirtualDisplay display(640, 360);
    VirtualMicrophone mic;
    ASSERT_TRUE(display.ok() && mic.ok());
    auto m = mic.env();
    m["DISPLAY"] = display.name();
    Process beacon({toolPath("sync_beacon"), "--seconds", "40"}, m);
    ASSERT_TRUE(beacon.waitForOutput("flash 1", 10s));
    TempDir out;

    Process p({binaryPath(), "record", "--duration", "16", "--quality", "screen", "--no-camera",
               "--output", out.path()},
              env(display, mic));
    ASSERT_TRUE(p.waitForOutput("Recording started successfully", 20s));
    std::this_thread::sleep_for(3s);
    p.signal(SIGSTOP);  // a suspend or a starved CPU does the same
    std::this_thread::sleep_for(5s);
    p.signal(SIGCONT);
    ASSERT_EQ(p.wait(60s), 0) << p.stdoutText() << p.stderrText();

    const Onsets o = findOnsets(lastLine(p.stdoutText()));
    int checked = 0;
    for (double t : o.audio) {
        // The picture stands still while the process is stopped (from 3 s to about 8.5 s).
        if (t > 2.5 && t < 9.0) continue;
        double d = 1e9;
        for (double v : o.video) d = std::abs(v - t) < std::abs(d) ? v - t : d;
        EXPECT_LE(std::abs(d), 1.0 / 30 + 0.005) << "beep at " << t << " s, flash " << d << " s off";
        checked += t > 9.0 ? 1 : 0;
    }
    EXPECT_GE(checked, 2) << "too few beeps after the stop";
}

// ---- standard streams, signals and the command line ---------------------------------------

TEST_F(RecordE2ETest, ClosedOrBrokenStandardStreamsAndHangupStillFinishTheFile) {
    VirtualDisplay display(640, 360);
    VirtualMicrophone mic;
    ASSERT_TRUE(display.ok() && mic.ok());
    struct Case {
        std::string shell;  // how the command runs; $0 is the program
        int signal;         // sent 5 s in, or 0 to let --duration end it
    };
    const Case cases[] = {{"exec \"$0\" record --duration 3 \"$@\" >&- 2>&-", 0},
                          {"exec \"$0\" record \"$@\" >&- 2>&-", SIGTERM},
                          {"\"$0\" record --duration 3 \"$@\" | head -1", 0},
                          {"exec \"$0\" record \"$@\"", SIGHUP}};
    for (const Case& c : cases) {
        TempDir out;
        Process p({"sh", "-c", c.shell, binaryPath(), "--no-camera", "--output", out.path()},
                  env(display, mic));
        if (c.signal != 0) {
            std::this_thread::sleep_for(5s);
            p.signal(c.signal);
        }
        ASSERT_EQ(p.wait(30s), 0) << c.shell << p.stderrText();
        std::vector<fs::path> files;
        for (auto& e : fs::directory_iterator(out.path())) files.push_back(e.path());
        ASSERT_EQ(files.size(), 1u) << c.shell;
        const auto info = probe(files[0].string());
        ASSERT_TRUE(info) << c.shell;
        EXPECT_GT(info->durationSeconds, 2.0) << c.shell;
    }
}

TEST_F(RecordE2ETest, UnknownArgumentsAndAMissingDisplayAreRefused) {
    Process bogus({binaryPath(), "--bogus"}, baseEnv());
    EXPECT_EQ(bogus.wait(10s), 2);
    EXPECT_NE(bogus.stderrText().find("Usage: glimmerbox"), std::string::npos);
    Process version({binaryPath(), "--version"}, baseEnv());
    EXPECT_EQ(version.wait(10s), 0);
    EXPECT_EQ(version.stdoutText().rfind("Glimmerbox ", 0), 0u) << version.stdoutText();
    auto e = baseEnv();
    e["DISPLAY"] = "";
    e["QT_QPA_PLATFORM"] = "";
    Process tray({binaryPath()}, e);
    EXPECT_EQ(tray.wait(20s), 1);  // not a crash (128 + SIGABRT)
    EXPECT_NE(tray.stderrText().find("no display"), std::string::npos) << tray.stderrText();
}

TEST_F(RecordE2ETest, SoundServerDyingEndsTheRecordingWithWhatWasCaptured) {
    VirtualDisplay display(640, 360);
    VirtualMicrophone mic;
    ASSERT_TRUE(display.ok() && mic.ok());
    TempDir out;
    Process p({binaryPath(), "record", "--no-camera", "--output", out.path()}, env(display, mic));
    ASSERT_TRUE(p.waitForOutput("Recording started successfully", 20s)) << p.stdoutText();
    std::this_thread::sleep_for(3s);
    const pid_t server = childWithArgument(mic.server().substr(5));
    ASSERT_GT(server, 0);
    kill(server, SIGKILL);
    const auto code = p.wait(20s);
    ASSERT_TRUE(code) << "still recording after the sound server died";
    EXPECT_NE(*code, 0);
    EXPECT_NE(p.stderrText().find("Recording stopped early: The microphone stopped"),
              std::string::npos)
        << p.stderrText();
    const std::string path = lastLine(p.stdoutText());
    Process decode({"ffmpeg", "-v", "error", "-xerror", "-i", path, "-f", "null", "-"});
    ASSERT_EQ(decode.wait(60s), 0) << decode.stderrText();
    // A still screen: frames come at least once a second, and the file lasts what was captured.
    const auto info = probe(path);
    ASSERT_TRUE(info);
    EXPECT_GE(info->durationSeconds, 2.0);
    EXPECT_GE(countVideoFrames(path), 2);
}

}  // namespace
}  // namespace gb::e2e
