// Guards against: letterboxed frames streaked by padded rows or lost at a size change, a missing folder or misuse without an error, and a full disk that fails silently or leaves an unplayable file.
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
#include <future>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fakes/log_capture.h"
#include "fakes/pixel_buffers.h"
#include "fakes/processes.h"
#include "linux/capture/monotonic_clock.h"
#include "linux/ffmpeg/ffmpeg_asset_writer.h"
#include "linux/ffmpeg/ffmpeg_movie_remuxer.h"

namespace gb::linuxp {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int64_t kFrameNs = 33'333'333;

// Decodes the whole file; `quiet`: without a single complaint.
void expectPlays(const std::string& path, bool quiet = true) {
    const auto run =
        fakes::runToEnd({"ffmpeg", "-v", "error", "-i", path, "-f", "null", "-"}, {}, 60s);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(!quiet || run.err.empty()) << run.err;
}

// The end (pts + duration) of the last video packet, in seconds.
double videoEnd(const std::string& path) {
    std::istringstream lines(
        fakes::runCommand({"ffprobe", "-v", "error", "-select_streams", "v", "-show_entries",
                           "packet=pts_time,duration_time", "-of", "csv=p=0", path})
            .value_or(""));
    double end = 0;
    for (std::string line; std::getline(lines, line);) {
        double pts = 0, duration = 0;
        if (std::sscanf(line.c_str(), "%lf,%lf", &pts, &duration) >= 1)
            end = std::max(end, pts + duration);
    }
    return end;
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

    static Recording open(const std::string& path, int width, int height,
                          FfmpegWriterOptions options = {}) {
        FfmpegAssetWriterFactory factory(options);
        Recording r;
        auto made = factory.makeWriter(path, FileType::quickTimeMovie);
        EXPECT_TRUE(made.ok());
        if (!made.ok()) return r;
        r.writer = made.value();
        r.video = factory.makeInput(MediaType::video, videoSettings(width, height));
        r.audio = factory.makeInput(MediaType::audio,
                                    AudioOutputSettingsForWriter{0x61616320, 2, 44100.0, 128'000});
        r.writer->addInput(r.video);
        r.writer->addInput(r.audio);
        EXPECT_TRUE(r.writer->startWriting());
        r.startNs = monotonicNanoseconds();
        r.writer->startSessionAtSourceTime(MediaTime::fromNanoseconds(r.startNs));
        return r;
    }

    // 10 ms buffers of silence, s16 48 kHz stereo, up to `untilNs` after the start.
    void feedAudioUntil(int64_t untilNs) {
        constexpr int kRate = 48000, kChunk = 480;
        for (;;) {
            const int64_t ns = audioFramesFed * 1'000'000'000 / kRate;
            if (ns >= untilNs) return;
            auto chunk = std::make_shared<AudioBuffer>(AudioBuffer{
                kRate, 2, AudioSampleFormat::s16, kChunk, std::vector<uint8_t>(kChunk * 4)});
            ASSERT_TRUE(waitUntilReady(*audio));
            ASSERT_TRUE(audio->append(SampleBuffer::audio(chunk, at(startNs + ns))));
            audioFramesFed += kChunk;
        }
    }

    // Frame `i` of a 30 fps stream, waiting for the input, with the audio up to its end first.
    void frame(int i, PixelBufferRef picture) {
        const int64_t ns = i * kFrameNs;
        feedAudioUntil(ns + kFrameNs);
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
    EXPECT_NEAR(videoEnd(file), 1.0, 0.05);  // no frame lost at the size change
    // The picture spans x 160..1119 at full height; black bars left and right.
    const std::string frame = fakes::runCommand({"ffmpeg", "-v", "error", "-i", file, "-frames:v",
                                                 "1", "-f", "rawvideo", "-pix_fmt", "gray", "-"})
                                  .value_or("");
    ASSERT_EQ(frame.size(), 1280u * 720u);
    int wrong = 0;
    for (size_t i = 0; i < frame.size(); ++i) {
        const size_t x = i % 1280;
        const int luma = static_cast<unsigned char>(frame[i]);
        wrong += ((x <= 150 || x >= 1130) && luma >= 30) || (x >= 172 && x <= 1107 && luma <= 220);
    }
    EXPECT_EQ(wrong, 0);
}

TEST_F(FfmpegAssetWriterTest, MisuseAndBadSettingsFailWithAnError) {
    FfmpegAssetWriterFactory factory;
    auto made = factory.makeWriter(folder_ / "nope/movie.mov", FileType::quickTimeMovie);
    ASSERT_FALSE(made.ok());
    EXPECT_EQ(made.error().localizedDescription,
              "The recording can't be saved because the folder “" + (folder_ / "nope") +
                  "” doesn't exist.");
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
    EXPECT_GT(videoEnd(file), 0.5);
}

}  // namespace
}  // namespace gb::linuxp
