// Guards against: `glimmerbox record` on the real binary (private Xvfb and PulseAudio) producing wrong codecs, sizes, durations, permissions, letterboxing or silence, an unplayable killed recording, missing texts for a missing microphone or display or a bad option, and audio drifting from video over ten minutes.
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "e2e/e2e_support.h"

namespace gb::e2e {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Ne;
using ::testing::Not;
using ::testing::Optional;

// The whole file decodes without an error.
void expectDecodesToTheEnd(const std::string& path, std::chrono::seconds timeout) {
    Process decode({"ffmpeg", "-v", "error", "-xerror", "-i", path, "-f", "null", "-"});
    ASSERT_EQ(decode.wait(timeout), 0) << decode.stderrText();
}

class RecordE2ETest : public ::testing::Test {
protected:
    std::map<std::string, std::string> baseEnv() const { return sessionEnv(home_.path()); }
    e2e::Run record(std::vector<std::string> args, const std::map<std::string, std::string>& env,
                    std::chrono::seconds timeout = 60s) {
        args.insert(args.begin(), {binaryPath(), "record"});
        return runToEnd(args, env, timeout);
    }
    std::map<std::string, std::string> env() const {
        return sessionEnv(home_.path(), &*display_, &*mic_);
    }
    // A display of this size and a microphone for the test.
    void startSession(int width, int height) {
        display_.emplace(width, height);
        mic_.emplace();
        ASSERT_TRUE(display_->ok() && mic_->ok());
    }
    // Runs a scene (moving unless told otherwise) on the display until the test ends.
    void startScene(std::vector<std::string> args = {}) {
        args.insert(args.begin(), toolPath("demo_scene"));
        scene_ = std::make_unique<Process>(args, env());
        std::this_thread::sleep_for(300ms);
    }
    // Runs until killed; its output file is the last line it printed.
    std::unique_ptr<Process> startRecording(std::vector<std::string> args) const {
        args.insert(args.begin(), {binaryPath(), "record", "--no-camera"});
        return std::make_unique<Process>(args, env());
    }
    // The sync beacon, flashing and beeping for `seconds`; null when it did not start.
    std::unique_ptr<Process> startBeacon(double seconds) const {
        auto beacon = std::make_unique<Process>(
            std::vector<std::string>{toolPath("sync_beacon"), "--seconds", std::to_string(seconds)},
            env());
        return beacon->waitForOutput("flash 1", 10s) ? std::move(beacon) : nullptr;
    }

    TempDir home_;
    std::optional<VirtualDisplay> display_;
    std::optional<VirtualMicrophone> mic_;
    std::unique_ptr<Process> scene_;
};

TEST_F(RecordE2ETest, HighQualityRecordingOfTheScreenAndTheMicrophone) {
    ASSERT_NO_FATAL_FAILURE(startSession(1920, 1080));
    startScene();
    auto tone = mic_->playTone(30);

    auto run = record({"--duration", "5", "--quality", "high", "--no-camera"}, env());
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
    EXPECT_THAT(run.out, HasSubstr("Recording completed successfully"));

    expectValidMovie(path, {.seconds = 5.0, .tolerance = 0.3, .width = 1920, .height = 1080,
                            .allFrames = true, .audible = true});
}

TEST_F(RecordE2ETest, MediumQualityLetterboxesAnotherAspectRatio) {
    ASSERT_NO_FATAL_FAILURE(startSession(1920, 1200));  // 16:10 into 16:9: bars left and right
    startScene();
    auto tone = mic_->playTone(30);
    TempDir out;

    auto run = record(
        {"--duration", "5", "--quality", "medium", "--no-camera", "--output", out.path()}, env());
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
    ASSERT_NO_FATAL_FAILURE(startSession(1280, 720));
    startScene();
    auto tone = mic_->playTone(60);
    TempDir out;

    auto p = startRecording({"--output", out.path()});
    ASSERT_TRUE(p->waitForOutput("Recording started successfully", 20s)) << p->stdoutText();
    std::this_thread::sleep_for(6s);
    p->signal(SIGKILL);
    ASSERT_TRUE(p->wait(5s));

    const auto files = moviesIn(out.path());
    ASSERT_EQ(files.size(), 1u);
    const std::string path = files[0];

    // Decodes to the end without errors.
    ASSERT_NO_FATAL_FAILURE(expectDecodesToTheEnd(path, 120s));
    EXPECT_GE(countVideoFrames(path), 4 * 30);
    const double packets = probeNumber(path, "a:0", "nb_read_packets", "-count_packets");
    EXPECT_GE(packets * 1024.0 / 44100.0, 4.0);
}

TEST_F(RecordE2ETest, MissingMicrophoneOrDisplayFailsWithTheirTexts) {
    VirtualDisplay display(640, 480);
    ASSERT_TRUE(display.ok());
    TempDir nowhere;
    auto e = sessionEnv(home_.path(), &display);
    e["PULSE_SERVER"] = "unix:" + nowhere.path() + "/no-such-socket";
    auto noMic = record({"--duration", "2", "--no-camera"}, e);
    EXPECT_THAT(noMic.exitCode, Optional(Ne(0)));
    EXPECT_EQ(lastLine(noMic.err), "Setup failed: No microphone found") << noMic.err;

    VirtualMicrophone mic;
    ASSERT_TRUE(mic.ok());
    auto e2 = sessionEnv(home_.path(), &display, &mic);
    e2["DISPLAY"] = "";
    auto noDisplay = record({"--duration", "2", "--no-camera"}, e2);
    EXPECT_THAT(noDisplay.exitCode, Optional(Ne(0)));
    EXPECT_EQ(lastLine(noDisplay.err), "Setup failed: No display found for screen recording")
        << noDisplay.err;
}

TEST_F(RecordE2ETest, BadOptionIsRefusedBeforeAnythingStarts) {
    auto run = record({"--quality", "8k"}, baseEnv());
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_THAT(run.err, HasSubstr("'8k' is not one of medium, high, ultra, screen"));
    EXPECT_THAT(run.out, Not(HasSubstr("ScreenRecorder.startRecording() called")));
}

// A still screen gives few frames, yet the movie plays its whole length with sound, and a seek
// into the middle finds the screen's picture.
TEST_F(RecordE2ETest, StillScreenPlaysThroughWithSoundAndSeeksToThePicture) {
    ASSERT_NO_FATAL_FAILURE(startSession(640, 360));
    startScene({"--flat", "3070c0"});
    auto tone = mic_->playTone(30);

    auto run = record({"--duration", "10", "--quality", "screen", "--no-camera"}, env());
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    EXPECT_THAT(run.out, HasSubstr("unchanged frames"));
    const std::string path = lastLine(run.out);
    for (const char* stream : {"v:0", "a:0"})
        EXPECT_NEAR(probeNumber(path, stream, "duration"), 10.0, 0.3) << stream;
    // At least one frame a second for seeking, far fewer than one per frame time.
    const int frames = countVideoFrames(path);
    EXPECT_GE(frames, 10);
    EXPECT_LE(frames, 60);
    for (double from = 0; from < 10; from += 2) {
        auto levels = audioLevels(path, from, from + 2);
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

TEST_F(RecordE2ETest, AudioAndVideoStayInSyncAtTheStartAndAfterTenMinutes) {
    const double minutes = std::getenv("GLIMMERBOX_SYNC_MINUTES")
                               ? std::atof(std::getenv("GLIMMERBOX_SYNC_MINUTES"))
                               : 10.0;
    ASSERT_NO_FATAL_FAILURE(startSession(640, 360));
    const double seconds = minutes * 60 + 8;
    const auto beacon = startBeacon(seconds + 10);
    ASSERT_TRUE(beacon);
    TempDir out;

    auto run = record({"--duration", std::to_string(seconds), "--quality", "screen", "--no-camera",
                       "--output", out.path()},
                      env(), std::chrono::seconds(static_cast<long>(seconds) + 120));
    ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
    const std::string path = lastLine(run.out);

    Onsets o = findOnsets(path);
    ASSERT_GE(o.audio.size(), 3u);
    ASSERT_GE(o.video.size(), 3u);
    // Early flashes and the flashes after the ten minutes; a beep in the last second may have
    // no frame of its flash left in the file.
    expectInSync(o, [](double t) { return t < 10.0; });
    EXPECT_GE(expectInSync(o, [&](double t) { return t > minutes * 60 - 1 && t < seconds - 1; }),
              1);
}

TEST_F(RecordE2ETest, AudioAndVideoStayInSyncAfterTheProcessWasStopped) {
    ASSERT_NO_FATAL_FAILURE(startSession(640, 360));
    const auto beacon = startBeacon(40);
    ASSERT_TRUE(beacon);
    TempDir out;

    auto p = startRecording({"--duration", "16", "--quality", "screen", "--output", out.path()});
    ASSERT_TRUE(p->waitForOutput("Recording started successfully", 20s));
    std::this_thread::sleep_for(3s);
    p->signal(SIGSTOP);  // a suspend or a starved CPU does the same
    std::this_thread::sleep_for(5s);
    p->signal(SIGCONT);
    ASSERT_EQ(p->wait(60s), 0) << p->stdoutText() << p->stderrText();

    const Onsets o = findOnsets(lastLine(p->stdoutText()));
    // The picture stands still while the process is stopped (from 3 s to about 8.5 s).
    expectInSync(o, [](double t) { return t <= 2.5; });
    EXPECT_GE(expectInSync(o, [](double t) { return t >= 9.0 && t < 15.0; }), 2)
        << "too few beeps after the stop";
}

// ---- standard streams, signals and the command line ---------------------------------------

TEST_F(RecordE2ETest, ClosedOrBrokenStandardStreamsAndHangupStillFinishTheFile) {
    ASSERT_NO_FATAL_FAILURE(startSession(640, 360));
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
                  env());
        if (c.signal != 0) {
            std::this_thread::sleep_for(5s);
            p.signal(c.signal);
        }
        ASSERT_EQ(p.wait(30s), 0) << c.shell << p.stderrText();
        const auto files = moviesIn(out.path());
        ASSERT_EQ(files.size(), 1u) << c.shell;
        EXPECT_GT(durationOf(files[0]), 2.0) << c.shell;
    }
}

TEST_F(RecordE2ETest, UnknownArgumentsAndAMissingDisplayAreRefused) {
    Process bogus({binaryPath(), "--bogus"}, baseEnv());
    EXPECT_EQ(bogus.wait(10s), 2);
    EXPECT_THAT(bogus.stderrText(), HasSubstr("Usage: glimmerbox"));
    Process version({binaryPath(), "--version"}, baseEnv());
    EXPECT_EQ(version.wait(10s), 0);
    EXPECT_EQ(version.stdoutText().rfind("Glimmerbox ", 0), 0u) << version.stdoutText();
    auto e = baseEnv();
    e["DISPLAY"] = "";
    e["QT_QPA_PLATFORM"] = "";
    Process tray({binaryPath()}, e);
    EXPECT_EQ(tray.wait(20s), 1);  // not a crash (128 + SIGABRT)
    EXPECT_THAT(tray.stderrText(), HasSubstr("no display"));
}

TEST_F(RecordE2ETest, SoundServerDyingEndsTheRecordingWithWhatWasCaptured) {
    ASSERT_NO_FATAL_FAILURE(startSession(640, 360));
    TempDir out;
    auto p = startRecording({"--output", out.path()});
    ASSERT_TRUE(p->waitForOutput("Recording started successfully", 20s)) << p->stdoutText();
    std::this_thread::sleep_for(3s);
    mic_->kill();
    EXPECT_THAT(p->wait(20s), Optional(Ne(0))) << "still recording after the sound server died";
    EXPECT_THAT(p->stderrText(), HasSubstr("Recording stopped early: The microphone stopped"));
    const std::string path = lastLine(p->stdoutText());
    ASSERT_NO_FATAL_FAILURE(expectDecodesToTheEnd(path, 60s));
    // A still screen: frames come at least once a second, and the file lasts what was captured.
    EXPECT_GE(durationOf(path), 2.0);
    EXPECT_GE(countVideoFrames(path), 2);
}

}  // namespace
}  // namespace gb::e2e
