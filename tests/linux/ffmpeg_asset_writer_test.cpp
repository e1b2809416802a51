// The FFmpeg movie writer: synthetic BGRA frames and a tone go in, and the file that comes out is
// checked with ffprobe/ffmpeg and by walking its top-level atoms. Whole recordings through the
// binary are in tests/e2e; these are the writer's own faults.
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fakes/log_capture.h"
#include "fakes/pixel_buffers.h"
#include "fakes/test_environment.h"
#include "linux/ffmpeg_asset_writer.h"
#include "linux/ffmpeg_movie_remuxer.h"
#include "linux/monotonic_clock.h"

namespace gb::linuxp {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int64_t kFrameNs = 33'333'333;

struct CommandResult {
    int exitCode = -1;
    std::string output;
};

CommandResult run(const std::string& command) {
    CommandResult result;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return result;
    std::array<char, 4096> chunk{};
    size_t n = 0;
    while ((n = std::fread(chunk.data(), 1, chunk.size(), pipe)) > 0)
        result.output.append(chunk.data(), n);
    const int status = ::pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// Decodes the whole file: exit code 0 and no output when it plays cleanly.
CommandResult decode(const std::string& path) {
    return run("ffmpeg -v error -i '" + path + "' -f null -");
}

// key=value lines of ffprobe's default writer, per stream (by codec_type).
std::map<std::string, std::map<std::string, std::string>> probeStreams(const std::string& path) {
    const auto r = run("ffprobe -v error -show_streams '" + path + "'");
    std::map<std::string, std::map<std::string, std::string>> streams;
    std::map<std::string, std::string> current;
    std::istringstream lines(r.output);
    for (std::string line; std::getline(lines, line);) {
        if (line == "[/STREAM]") {
            streams[current["codec_type"]] = current;
            current.clear();
        } else if (const auto eq = line.find('='); eq != std::string::npos) {
            current[line.substr(0, eq)] = line.substr(eq + 1);
        }
    }
    return streams;
}

double number(const std::map<std::string, std::string>& stream, const std::string& key) {
    return std::atof(stream.at(key).c_str());
}

// The earliest packet time and the end (pts + duration) of the last packet, per stream "v"/"a".
struct PacketSpan {
    double first = 1e9;
    double end = 0;
};
std::map<std::string, PacketSpan> packetSpans(const std::string& path) {
    std::map<std::string, PacketSpan> spans;
    for (const std::string type : {"v", "a"}) {
        const auto r =
            run("ffprobe -v error -select_streams " + type +
                " -show_entries packet=pts_time,duration_time -of csv=p=0 '" + path + "'");
        std::istringstream lines(r.output);
        for (std::string line; std::getline(lines, line);) {
            double pts = 0, duration = 0;
            if (std::sscanf(line.c_str(), "%lf,%lf", &pts, &duration) < 1) continue;
            spans[type].first = std::min(spans[type].first, pts);
            spans[type].end = std::max(spans[type].end, pts + duration);
        }
    }
    return spans;
}

// Top-level atom types of a QuickTime file.
std::vector<std::string> topLevelAtoms(const std::string& path) {
    std::vector<std::string> atoms;
    std::ifstream in(path, std::ios::binary);
    const uint64_t size = fs::file_size(path);
    for (uint64_t offset = 0, atomSize = 0; offset + 8 <= size; offset += atomSize) {
        in.seekg(static_cast<std::streamoff>(offset));
        unsigned char h[16] = {};
        in.read(reinterpret_cast<char*>(h), 16);
        atoms.emplace_back(reinterpret_cast<char*>(h + 4), 4);
        const bool large = h[0] == 0 && h[1] == 0 && h[2] == 0 && h[3] == 1;
        atomSize = 0;
        for (int i = large ? 8 : 0; i < (large ? 16 : 4); ++i) atomSize = (atomSize << 8) | h[i];
        if (atomSize == 0) atomSize = size - offset;  // to the end of the file
        if (atomSize < 8) break;
    }
    return atoms;
}

bool contains(const std::vector<std::string>& v, const std::string& s) {
    return std::find(v.begin(), v.end(), s) != v.end();
}

// A colour gradient with a bright square that moves with the frame number.
PixelBufferRef makePicture(int width, int height, int frame) {
    auto picture = PixelBuffer::allocate(width, height);
    fakes::fill(*picture, [&](int x, int y) {
        if (std::abs(x - (frame * 8) % width) < 40 && std::abs(y - height / 2) < 40)
            return 0xffffffffu;
        return fakes::bgra(static_cast<uint8_t>(x * 255 / width),
                           static_cast<uint8_t>(y * 255 / height), 128);
    });
    return picture;
}

SampleTiming at(int64_t ns) {
    return {MediaTime::invalid(), MediaTime::fromNanoseconds(ns), MediaTime::invalid()};
}

bool waitUntilReady(const AssetWriterInput& input, std::chrono::milliseconds limit = 10s) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!input.isReadyForMoreMediaData()) {
        if (std::chrono::steady_clock::now() > until) return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

VideoOutputSettingsForWriter videoSettings(int width, int height) {
    return {"avc1", width, height, {2'000'000, "H264_Main_AutoLevel", "CAVLC"}};
}
AudioOutputSettingsForWriter audioSettings() {
    return {0x61616320, 2, 44100.0, 128'000};
}

// Waits for `writer`'s completion and gives how often it was called (a second call would show
// up within the short wait after the first).
int finishAndCountCompletions(AssetWriter& writer) {
    auto calls = std::make_shared<std::atomic<int>>(0);
    auto done = std::make_shared<std::promise<void>>();
    writer.finishWriting([calls, done] {
        if (calls->fetch_add(1) == 0) done->set_value();
    });
    EXPECT_EQ(done->get_future().wait_for(30s), std::future_status::ready);
    std::this_thread::sleep_for(30ms);
    return calls->load();
}

// One writer with its two inputs, fed with synthetic media.
struct Recording {
    AssetWriterRef writer;
    AssetWriterInputRef video;
    AssetWriterInputRef audio;
    int64_t startNs = 0;
    int64_t audioFramesFed = 0;
    int64_t gapAfterNs = -1;  // microphone audio from here on arrives `gapNs` late
    int64_t gapNs = 0;

    static Recording open(const std::string& path, int width, int height,
                          FfmpegWriterOptions options = {}) {
        FfmpegAssetWriterFactory factory(options);
        Recording r;
        auto made = factory.makeWriter(path, FileType::quickTimeMovie);
        EXPECT_TRUE(made.ok());
        if (!made.ok()) return r;
        r.writer = made.value();
        r.video = factory.makeInput(MediaType::video, videoSettings(width, height));
        r.audio = factory.makeInput(MediaType::audio, audioSettings());
        EXPECT_TRUE(r.writer->canAddInput(r.video));
        r.writer->addInput(r.video);
        r.writer->addInput(r.audio);
        EXPECT_TRUE(r.writer->startWriting());
        r.startNs = monotonicNanoseconds();
        r.writer->startSessionAtSourceTime(MediaTime::fromNanoseconds(r.startNs));
        return r;
    }

    // 10 ms buffers of a 440 Hz tone, s16 48 kHz stereo, up to `untilNs` after the start.
    void feedAudioUntil(int64_t untilNs) {
        constexpr int kRate = 48000, kChunk = 480;
        for (;;) {
            int64_t ns = audioFramesFed * 1'000'000'000 / kRate;
            if (gapAfterNs >= 0 && ns >= gapAfterNs) ns += gapNs;
            if (ns >= untilNs) return;
            auto chunk = std::make_shared<AudioBuffer>();
            *chunk = {kRate, 2, AudioSampleFormat::s16, kChunk, {}};
            chunk->data.resize(kChunk * 4);
            auto* samples = reinterpret_cast<int16_t*>(chunk->data.data());
            for (int i = 0; i < kChunk * 2; ++i) {
                const double t = static_cast<double>(audioFramesFed + i / 2) / kRate;
                samples[i] = static_cast<int16_t>(8000 * std::sin(2 * M_PI * 440 * t));
            }
            ASSERT_TRUE(waitUntilReady(*audio));
            ASSERT_TRUE(audio->append(SampleBuffer::audio(chunk, at(startNs + ns))));
            audioFramesFed += kChunk;
        }
    }

    // Frame `i` of a 30 fps stream, waiting for the input, with the audio up to its end first.
    void frame(int i, PixelBufferRef picture, bool withAudio = true) {
        const int64_t ns = i * kFrameNs;
        if (withAudio) feedAudioUntil(ns + kFrameNs);
        ASSERT_TRUE(waitUntilReady(*video));
        ASSERT_TRUE(video->append(SampleBuffer::video(std::move(picture), at(startNs + ns))));
    }
    void feed(int frames, int width, int height, bool withAudio = true) {
        for (int i = 0; i < frames; ++i) frame(i, makePicture(width, height, i), withAudio);
    }

    int finish() {
        video->markAsFinished();
        audio->markAsFinished();
        return finishAndCountCompletions(*writer);
    }
};

class FfmpegAssetWriterTest : public ::testing::Test {
protected:
    std::string path(const std::string& name = "movie.mov") const { return folder_ / name; }

    fakes::TempDirectory folder_;
    fakes::LogCapture log_;
};

// Codecs, profiles and CAVLC of whole recordings are checked end to end (tests/e2e).
TEST_F(FfmpegAssetWriterTest, CleanFinishIsAnIndexedPrivateMovieWhoseStreamsStartTogether) {
    const std::string file = path();
    Recording r = Recording::open(file, 1280, 720);
    r.feed(90, 1280, 720);  // 3 s
    EXPECT_EQ(r.finish(), 1);
    EXPECT_EQ(r.writer->status(), AssetWriterStatus::completed);
    EXPECT_FALSE(r.writer->error().has_value());
    EXPECT_TRUE(log_.contains("Writer: 0 video frames dropped (queue full)"));

    const auto streams = probeStreams(file);
    ASSERT_EQ(streams.count("video"), 1u);
    ASSERT_EQ(streams.count("audio"), 1u);
    const auto& v = streams.at("video");
    const auto& a = streams.at("audio");
    EXPECT_EQ(v.at("codec_name") + " " + v.at("width") + "x" + v.at("height"), "h264 1280x720");
    EXPECT_EQ(a.at("codec_name") + " " + a.at("sample_rate"), "aac 44100");
    EXPECT_NEAR(number(v, "duration"), 3.0, 0.1);
    EXPECT_NEAR(number(a, "duration"), 3.0, 0.1);
    // The encoder's priming is hidden by the edit list.
    EXPECT_NEAR(number(a, "start_time"), 0.0, 0.005);
    EXPECT_NEAR(number(v, "start_time"), 0.0, 0.005);

    // Indexed, no fragments or temporary file left, the user's only, and it plays cleanly.
    const auto atoms = topLevelAtoms(file);
    EXPECT_TRUE(contains(atoms, "moov"));
    EXPECT_TRUE(contains(atoms, "mdat"));
    EXPECT_FALSE(contains(atoms, "moof"));
    EXPECT_FALSE(fs::exists(rewriteTemporaryPath(file)));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    const auto decoded = decode(file);
    EXPECT_EQ(decoded.exitCode, 0);
    EXPECT_EQ(decoded.output, "");
}

TEST_F(FfmpegAssetWriterTest, LetterboxesFourByThreeWithPaddedRowsAndFollowsASizeChange) {
    const std::string file = path();
    Recording r = Recording::open(file, 1280, 720);
    // White 640x480 rows followed by 64 black bytes (read as picture, they would streak it),
    // then full-size frames.
    auto white = fakes::exactBuffer(640, 480, 640 * 4 + 64, 0);
    fakes::fill(*white, [](int, int) { return 0xffffffffu; });
    for (int i = 0; i < 30; ++i) r.frame(i, i < 15 ? white : makePicture(1280, 720, i));
    EXPECT_EQ(r.finish(), 1);
    ASSERT_EQ(r.writer->status(), AssetWriterStatus::completed);
    EXPECT_TRUE(log_.contains("Writer: letterboxing 640x480 frames into 1280x720"));
    const auto decoded = decode(file);
    EXPECT_EQ(decoded.exitCode, 0);
    EXPECT_EQ(decoded.output, "");
    EXPECT_EQ(std::atoi(run("ffprobe -v error -count_frames -select_streams v -show_entries "
                            "stream=nb_read_frames -of csv=p=0 '" +
                            file + "'")
                            .output.c_str()),
              30);

    // The picture spans x 160..1119 at full height; black bars left and right.
    const auto frame =
        run("ffmpeg -v error -i '" + file + "' -frames:v 1 -f rawvideo -pix_fmt gray -");
    ASSERT_EQ(frame.output.size(), 1280u * 720u);
    int wrong = 0;
    for (int y = 0; y < 720; ++y) {
        for (int x = 0; x < 1280; ++x) {
            const int luma = static_cast<unsigned char>(frame.output[y * 1280 + x]);
            if ((x <= 150 || x >= 1130) && luma >= 30) ++wrong;
            if (x >= 172 && x <= 1107 && luma <= 220) ++wrong;
        }
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(FfmpegAssetWriterTest, AudioTrackSpansTheVideoWhenTheMicrophoneSkipsOrNeverSpeaks) {
    for (const bool silent : {false, true}) {
        SCOPED_TRACE(silent ? "no audio" : "300 ms gap");
        const std::string file = path(silent ? "silent.mov" : "gap.mov");
        Recording r = Recording::open(file, 640, 360);
        r.gapAfterNs = 1'000'000'000;
        r.gapNs = 300'000'000;
        r.feed(60, 640, 360, !silent);
        EXPECT_EQ(r.finish(), 1);
        const auto streams = probeStreams(file);
        ASSERT_EQ(streams.count("audio"), 1u);
        EXPECT_NEAR(number(streams.at("audio"), "duration"), 2.0, 0.06);
        EXPECT_NEAR(number(streams.at("video"), "duration"), 2.0, 0.06);
    }
    EXPECT_EQ(log_.countPrefix("Writer: audio resynchronised: 300 ms of silence"), 1u);
}

TEST_F(FfmpegAssetWriterTest, StreamsKeepTheirPlaceOnTheTimelineWhenVideoStartsLate) {
    const std::string growing = path("growing.mov");
    const std::string finished = path("finished.mov");
    for (const auto& file : {growing, finished}) {
        Recording r = Recording::open(file, 640, 360);
        r.feedAudioUntil(1'000'000'000);  // one second of sound before the first frame
        for (int i = 30; i < 60; ++i) r.frame(i, makePicture(640, 360, i));
        if (file == finished) {
            EXPECT_EQ(r.finish(), 1);
        }
    }
    // Fragmented (as a crash leaves it): the AAC priming starts at zero and everything else is
    // shifted by it, so the sound still meets the pictures.
    const auto growingSpans = packetSpans(growing);
    EXPECT_NEAR(growingSpans.at("a").first, 0.0, 0.002);
    EXPECT_NEAR(growingSpans.at("v").first, 1.0 + 1024.0 / 44100.0, 0.002);
    // Finished: audio at zero (priming hidden by the edit list), video one second in.
    EXPECT_NEAR(packetSpans(finished).at("v").first, 1.0, 0.002);
    const auto streams = probeStreams(finished);
    EXPECT_NEAR(number(streams.at("video"), "start_time"), 1.0, 0.002);
    EXPECT_NEAR(number(streams.at("audio"), "start_time"), 0.0, 0.002);
}

TEST_F(FfmpegAssetWriterTest, StatusAppendsAndEachCompletionRunOnceOnTheWritersThread) {
    const std::string file = path();
    FfmpegAssetWriterFactory factory;
    auto writer = factory.makeWriter(file, FileType::quickTimeMovie).value();
    auto video = factory.makeInput(MediaType::video, videoSettings(320, 240));
    EXPECT_EQ(writer->status(), AssetWriterStatus::unknown);
    writer->addInput(video);
    EXPECT_FALSE(writer->canAddInput(video));  // already added
    EXPECT_FALSE(fs::exists(file));            // created by startWriting
    ASSERT_TRUE(writer->startWriting());
    EXPECT_EQ(writer->status(), AssetWriterStatus::writing);
    EXPECT_FALSE(writer->startWriting());
    EXPECT_FALSE(writer->canAddInput(factory.makeInput(MediaType::audio, audioSettings())));

    const int64_t start = monotonicNanoseconds();
    const auto frame = [&](int i) {
        return SampleBuffer::video(makePicture(320, 240, i), at(start + i * kFrameNs));
    };
    EXPECT_FALSE(video->append(frame(0)));  // before the session start
    writer->startSessionAtSourceTime(MediaTime::fromNanoseconds(start));
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(waitUntilReady(*video));
        ASSERT_TRUE(video->append(frame(i)));
    }
    EXPECT_FALSE(video->append(SampleBuffer::audio(std::make_shared<AudioBuffer>(), at(start))));
    video->markAsFinished();
    EXPECT_FALSE(video->isReadyForMoreMediaData());
    EXPECT_FALSE(video->append(frame(10)));

    std::promise<std::thread::id> thread;
    writer->finishWriting([&thread] { thread.set_value(std::this_thread::get_id()); });
    auto completedOn = thread.get_future();
    ASSERT_EQ(completedOn.wait_for(30s), std::future_status::ready);
    EXPECT_NE(completedOn.get(), std::this_thread::get_id());
    EXPECT_EQ(writer->status(), AssetWriterStatus::completed);
    struct stat before {};
    ASSERT_EQ(::stat(file.c_str(), &before), 0);
    // A second finish only gets its completion called, once; the file is not rewritten.
    EXPECT_EQ(finishAndCountCompletions(*writer), 1);
    struct stat after {};
    ASSERT_EQ(::stat(file.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_size, after.st_size);
    EXPECT_EQ(writer->status(), AssetWriterStatus::completed);
}

TEST_F(FfmpegAssetWriterTest, NotReadyWhileTheEncoderIsBehindAndAppendThenFails) {
    FfmpegWriterOptions options;
    options.videoQueueCapacity = 2;
    Recording r = Recording::open(path(), 1920, 1080, options);
    auto picture = makePicture(1920, 1080, 0);
    int refused = 0, notReady = 0;
    // Far faster than the encoder can go: the short queue fills at once.
    for (int i = 0; i < 20; ++i) {
        if (!r.video->isReadyForMoreMediaData()) ++notReady;
        if (!r.video->append(SampleBuffer::video(picture, at(r.startNs + i * kFrameNs)))) ++refused;
    }
    EXPECT_GT(notReady, 0);
    EXPECT_GT(refused, 0);
    EXPECT_EQ(r.finish(), 1);
    EXPECT_EQ(r.writer->status(), AssetWriterStatus::completed);
    EXPECT_TRUE(log_.contains("Writer: " + std::to_string(notReady) +
                              " video frames dropped (encoder busy)"));
    EXPECT_TRUE(
        log_.contains("Writer: " + std::to_string(refused) + " video frames dropped (queue full)"));
    EXPECT_EQ(picture.use_count(), 1);  // the queue released every picture it held
}

TEST_F(FfmpegAssetWriterTest, MisuseAndBadSettingsFailWithAnError) {
    FfmpegAssetWriterFactory factory;
    auto made = factory.makeWriter(folder_ / "nope/movie.mov", FileType::quickTimeMovie);
    ASSERT_FALSE(made.ok());
    EXPECT_EQ(made.error().localizedDescription,
              "The recording can't be saved because the folder “" + (folder_ / "nope") +
                  "” doesn't exist.");
    std::ofstream(folder_ / "plain").put('x');  // a file where the folder should be
    auto notFolder = factory.makeWriter(folder_ / "plain/movie.mov", FileType::quickTimeMovie);
    ASSERT_FALSE(notFolder.ok());
    EXPECT_NE(notFolder.error().localizedDescription.find("“" + (folder_ / "plain") + "”"),
              std::string::npos);

    auto unsupported = factory.makeWriter(path("zero.mov"), FileType::quickTimeMovie).value();
    unsupported->addInput(factory.makeInput(MediaType::video, videoSettings(0, 0)));
    EXPECT_FALSE(unsupported->startWriting());
    EXPECT_EQ(unsupported->status(), AssetWriterStatus::failed);
    ASSERT_TRUE(unsupported->error().has_value());
    EXPECT_NE(unsupported->error()->localizedDescription.find("unsupported"), std::string::npos);

    // Finished before it started: fails, and the completion still runs.
    auto unstarted = factory.makeWriter(path(), FileType::quickTimeMovie).value();
    EXPECT_EQ(finishAndCountCompletions(*unstarted), 1);
    EXPECT_EQ(unstarted->status(), AssetWriterStatus::failed);
    ASSERT_TRUE(unstarted->error().has_value());
    EXPECT_FALSE(unstarted->error()->localizedDescription.empty());
}

TEST_F(FfmpegAssetWriterTest, CompletionMayReleaseTheLastReferenceToTheWriter) {
    FfmpegAssetWriterFactory factory;
    auto writer = factory.makeWriter(path(), FileType::quickTimeMovie).value();
    auto video = factory.makeInput(MediaType::video, videoSettings(320, 240));
    writer->addInput(video);
    ASSERT_TRUE(writer->startWriting());
    std::promise<void> done;
    auto* raw = writer.get();
    raw->finishWriting([keep = writer, &done]() mutable { done.set_value(); });
    writer.reset();
    video.reset();
    ASSERT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
}

TEST_F(FfmpegAssetWriterTest, FullDiskFailsTheRecordingButKeepsWhatWasWritten) {
    const std::string file = path();
    // A child process whose files may not grow past 400 kB: writes fail like on a full disk.
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{400 * 1024, 400 * 1024};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        FfmpegWriterOptions options;
        options.commitInterval = 200ms;
        Recording r = Recording::open(file, 640, 360, options);
        for (int i = 0; r.writer->status() == AssetWriterStatus::writing && i < 3000; ++i) {
            r.feedAudioUntil((i + 1) * kFrameNs);
            if (waitUntilReady(*r.video, 2s)) {
                (void)r.video->append(
                    SampleBuffer::video(makePicture(640, 360, i), at(r.startNs + i * kFrameNs)));
            }
        }
        r.finish();
        const auto error = r.writer->error();
        std::_Exit(r.writer->status() == AssetWriterStatus::failed && error &&
                           error->localizedDescription.find("couldn't be written") !=
                               std::string::npos
                       ? 0
                       : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the writer did not report the write failure";
    // What was committed before the failure still plays.
    EXPECT_LE(fs::file_size(file), 400u * 1024);
    const auto decoded = decode(file);
    EXPECT_EQ(decoded.exitCode, 0) << decoded.output;
    EXPECT_GT(packetSpans(file).at("v").end, 0.5);
}

TEST_F(FfmpegAssetWriterTest, KilledRecordingStillPlaysUpToItsLastSeconds) {
    const std::string file = path();
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::close(ready[0]);
        std::vector<PixelBufferRef> pictures;
        for (int n = 0; n < 4; ++n) pictures.push_back(makePicture(1280, 720, n * 10));
        Recording r = Recording::open(file, 1280, 720);
        (void)!::write(ready[1], "x", 1);
        // Like a capture: 30 ticks a second stamped with the clock, audio up to now, and a frame
        // dropped whenever the writer is busy. Runs until killed.
        for (int i = 1;; ++i) {
            const int64_t wait = r.startNs + i * kFrameNs - monotonicNanoseconds();
            if (wait > 0) std::this_thread::sleep_for(std::chrono::nanoseconds(wait));
            const int64_t now = monotonicNanoseconds();
            r.feedAudioUntil(now - r.startNs);
            if (r.video->isReadyForMoreMediaData()) {
                (void)r.video->append(SampleBuffer::video(pictures[i % 4], at(now)));
            }
        }
    }
    ::close(ready[1]);
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    ::close(ready[0]);
    const auto began = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(6s);
    ::kill(child, SIGKILL);
    const double diedAt =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));

    const auto decoded = decode(file);
    EXPECT_EQ(decoded.exitCode, 0) << decoded.output;
    // Everything up to two seconds before the kill is there.
    const auto spans = packetSpans(file);
    EXPECT_GE(spans.at("v").end, diedAt - 2.0) << "killed after " << diedAt << " s";
    EXPECT_GE(spans.at("a").end, diedAt - 2.0) << "killed after " << diedAt << " s";
}

TEST_F(FfmpegAssetWriterTest, ReleasedUnfinishedWriterLeavesAPlayableFile) {
    const std::string file = path();
    {
        Recording r = Recording::open(file, 640, 360);
        r.feed(45, 640, 360);
    }  // writer and inputs released without finishWriting
    const auto decoded = decode(file);
    EXPECT_EQ(decoded.exitCode, 0) << decoded.output;
    EXPECT_GT(packetSpans(file).at("v").end, 1.0);
    EXPECT_TRUE(contains(topLevelAtoms(file), "moof"));
}

}  // namespace
}  // namespace gb::linuxp
