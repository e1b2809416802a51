// The FFmpeg movie writer: synthetic BGRA frames and a tone go in, and the file that comes out is
// checked with ffprobe/ffmpeg and by walking its top-level atoms. Whole recordings through the
// binary are in tests/e2e; these are the writer's own faults.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

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

// Exit code and output (with errors) of a shell command.
std::pair<int, std::string> run(const std::string& command) {
    std::string output;
    FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return {-1, output};
    for (int c = 0; (c = std::fgetc(pipe)) != EOF;) output.push_back(static_cast<char>(c));
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

// Decodes the whole file; `quiet`: without a single complaint.
void expectPlays(const std::string& path, bool quiet = true) {
    const auto [exitCode, output] = run("ffmpeg -v error -i '" + path + "' -f null -");
    EXPECT_EQ(exitCode, 0) << output;
    EXPECT_TRUE(!quiet || output.empty()) << output;
}

// A value of the first stream of `type` ("v" or "a"), as ffprobe reports it.
double streamValue(const std::string& path, const std::string& type, const std::string& key) {
    return std::atof(run("ffprobe -v error -select_streams " + type +
                         " -show_entries stream=" + key + " -of csv=p=0 '" + path + "'")
                         .second.c_str());
}

// The earliest packet time and the end (pts + duration) of the last packet, per stream "v"/"a".
struct PacketSpan {
    double first = 1e9;
    double end = 0;
};
std::map<std::string, PacketSpan> packetSpans(const std::string& path) {
    std::map<std::string, PacketSpan> spans;
    for (const std::string type : {"v", "a"}) {
        std::istringstream lines(run("ffprobe -v error -select_streams " + type +
                                     " -show_entries packet=pts_time,duration_time -of csv=p=0 '" +
                                     path + "'")
                                     .second);
        for (std::string line; std::getline(lines, line);) {
            double pts = 0, duration = 0;
            if (std::sscanf(line.c_str(), "%lf,%lf", &pts, &duration) < 1) continue;
            spans[type].first = std::min(spans[type].first, pts);
            spans[type].end = std::max(spans[type].end, pts + duration);
        }
    }
    return spans;
}

// Whether the QuickTime file has a top-level atom of this type.
bool hasTopLevelAtom(const std::string& path, const std::string& type) {
    std::ifstream in(path, std::ios::binary);
    const uint64_t size = fs::file_size(path);
    for (uint64_t offset = 0, atomSize = 8; atomSize >= 8 && offset + 8 <= size;
         offset += atomSize) {
        unsigned char h[16] = {};
        in.seekg(static_cast<std::streamoff>(offset)).read(reinterpret_cast<char*>(h), 16);
        if (std::string(reinterpret_cast<char*>(h + 4), 4) == type) return true;
        const bool large = h[0] == 0 && h[1] == 0 && h[2] == 0 && h[3] == 1;
        atomSize = 0;
        for (int i = large ? 8 : 0; i < (large ? 16 : 4); ++i) atomSize = (atomSize << 8) | h[i];
        if (atomSize == 0) atomSize = size - offset;  // to the end of the file
    }
    return false;
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
    while (!input.isReadyForMoreMediaData() && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(1ms);
    return input.isReadyForMoreMediaData();
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
    expectPlays(file);
    EXPECT_NEAR(packetSpans(file).at("v").end, 1.0, 0.05);  // no frame lost at the size change
    // The picture spans x 160..1119 at full height; black bars left and right.
    const std::string frame =
        run("ffmpeg -v error -i '" + file + "' -frames:v 1 -f rawvideo -pix_fmt gray -").second;
    ASSERT_EQ(frame.size(), 1280u * 720u);
    int wrong = 0;
    for (size_t i = 0; i < frame.size(); ++i) {
        const size_t x = i % 1280;
        const int luma = static_cast<unsigned char>(frame[i]);
        wrong += ((x <= 150 || x >= 1130) && luma >= 30) || (x >= 172 && x <= 1107 && luma <= 220);
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
        for (int i = 0; i < 60; ++i) r.frame(i, makePicture(640, 360, i), !silent);
        EXPECT_EQ(r.finish(), 1);
        EXPECT_NEAR(streamValue(file, "a", "duration"), 2.0, 0.06);
        EXPECT_NEAR(streamValue(file, "v", "duration"), 2.0, 0.06);
    }
    EXPECT_EQ(log_.countPrefix("Writer: audio resynchronised: 300 ms of silence"), 1u);
}

// Codecs, sizes, durations, 0600, letterboxing of full frames and a killed recording are checked
// end to end (tests/e2e) through the binary.
TEST_F(FfmpegAssetWriterTest, StreamsKeepTheirPlaceWhenVideoStartsLateFinishedOrNot) {
    const std::string growing = path("growing.mov");
    const std::string finished = path("finished.mov");
    for (const auto& file : {growing, finished}) {
        Recording r = Recording::open(file, 640, 360);
        r.feedAudioUntil(1'000'000'000);  // one second of sound before the first frame
        for (int i = 30; i < 60; ++i) r.frame(i, makePicture(640, 360, i));
        if (file == finished) {
            EXPECT_EQ(r.finish(), 1);
            EXPECT_EQ(r.writer->status(), AssetWriterStatus::completed);
            EXPECT_FALSE(r.writer->error().has_value());
        }
    }  // the growing one is released unfinished: fragmented, as a crash leaves it
    EXPECT_TRUE(log_.contains("Writer: 0 video frames dropped (queue full)"));
    for (const auto& file : {growing, finished}) expectPlays(file);
    EXPECT_TRUE(hasTopLevelAtom(growing, "moof"));
    // The AAC priming starts at zero and everything else is shifted by it, so the sound still
    // meets the pictures.
    const auto growingSpans = packetSpans(growing);
    EXPECT_NEAR(growingSpans.at("a").first, 0.0, 0.002);
    EXPECT_NEAR(growingSpans.at("v").first, 1.0 + 1024.0 / 44100.0, 0.002);
    // Finished: indexed, not fragmented, no temporary file left, the user's only; audio at zero
    // (priming hidden by the edit list), video one second in.
    EXPECT_TRUE(hasTopLevelAtom(finished, "moov") && hasTopLevelAtom(finished, "mdat"));
    EXPECT_FALSE(hasTopLevelAtom(finished, "moof"));
    EXPECT_FALSE(fs::exists(rewriteTemporaryPath(finished)));
    EXPECT_EQ(fs::status(finished).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_NEAR(packetSpans(finished).at("v").first, 1.0, 0.002);
    EXPECT_NEAR(streamValue(finished, "v", "start_time"), 1.0, 0.002);
    EXPECT_NEAR(streamValue(finished, "a", "start_time"), 0.0, 0.002);
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
    const auto written = fs::last_write_time(file);
    // A second finish only gets its completion called, once; the file is not rewritten.
    EXPECT_EQ(finishAndCountCompletions(*writer), 1);
    EXPECT_EQ(fs::last_write_time(file), written);
}

TEST_F(FfmpegAssetWriterTest, NotReadyWhileTheEncoderIsBehindAndAppendThenFails) {
    Recording r = Recording::open(path(), 1920, 1080, {.videoQueueCapacity = 2});
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
    EXPECT_TRUE(unsupported->error() && unsupported->error()->localizedDescription.find(
                                            "unsupported") != std::string::npos);
    // Finished before it started: fails, and the completion still runs.
    auto unstarted = factory.makeWriter(path(), FileType::quickTimeMovie).value();
    EXPECT_EQ(finishAndCountCompletions(*unstarted), 1);
    EXPECT_EQ(unstarted->status(), AssetWriterStatus::failed);
    EXPECT_TRUE(unstarted->error() && !unstarted->error()->localizedDescription.empty());
    // The completion may drop the last reference to its writer.
    auto writer = factory.makeWriter(path("last.mov"), FileType::quickTimeMovie).value();
    writer->addInput(factory.makeInput(MediaType::video, videoSettings(320, 240)));
    ASSERT_TRUE(writer->startWriting());
    std::promise<void> done;
    writer->finishWriting([keep = writer, &done]() mutable { done.set_value(); });
    writer.reset();
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
        Recording r = Recording::open(file, 640, 360, {.commitInterval = 200ms});
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
    EXPECT_LE(fs::file_size(file), 400u * 1024);
    expectPlays(file, /*quiet=*/false);  // the cut-off end may be reported
    EXPECT_GT(packetSpans(file).at("v").end, 0.5);
}

}  // namespace
}  // namespace gb::linuxp
