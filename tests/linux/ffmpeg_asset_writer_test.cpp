// The FFmpeg movie writer end to end: synthetic BGRA frames and a tone go in, and the file that
// comes out is checked with ffprobe/ffmpeg and by walking its top-level atoms.
#include <fcntl.h>
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
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "linux/ffmpeg_asset_writer.h"
#include "linux/ffmpeg_movie_remuxer.h"
#include "linux/monotonic_clock.h"
#include "recording/log.h"

namespace gb::linuxp {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr int64_t kFrameNs = 33'333'333;

// ---- helpers -----------------------------------------------------------------------------------

struct CommandResult {
    int exitCode = -1;
    std::string output;
};

CommandResult runCommand(const std::string& command) {
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

std::string quoted(const std::string& path) {
    return "'" + path + "'";
}

// key=value lines of ffprobe's default writer, per stream (by codec_type).
std::map<std::string, std::map<std::string, std::string>> probeStreams(const std::string& path) {
    const auto r = runCommand("ffprobe -v error -show_streams " + quoted(path));
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

// The end time (last pts + duration) of each stream's packets, by codec type.
std::map<std::string, double> packetEndTimes(const std::string& path) {
    std::map<std::string, double> ends;
    for (const char* type : {"v", "a"}) {
        const auto r =
            runCommand("ffprobe -v error -select_streams " + std::string(type) +
                       " -show_entries packet=pts_time,duration_time -of csv=p=0 " + quoted(path));
        double end = 0;
        std::istringstream lines(r.output);
        for (std::string line; std::getline(lines, line);) {
            double pts = 0, duration = 0;
            if (std::sscanf(line.c_str(), "%lf,%lf", &pts, &duration) >= 1) {
                end = std::max(end, pts + duration);
            }
        }
        ends[type] = end;
    }
    return ends;
}

// Top-level atom types of a QuickTime file.
std::vector<std::string> topLevelAtoms(const std::string& path) {
    std::vector<std::string> atoms;
    std::ifstream in(path, std::ios::binary);
    in.seekg(0, std::ios::end);
    const uint64_t size = static_cast<uint64_t>(in.tellg());
    uint64_t offset = 0;
    while (offset + 8 <= size) {
        in.seekg(static_cast<std::streamoff>(offset));
        unsigned char header[16] = {};
        in.read(reinterpret_cast<char*>(header), 16);
        uint64_t atomSize = (uint64_t{header[0]} << 24) | (uint64_t{header[1]} << 16) |
                            (uint64_t{header[2]} << 8) | header[3];
        atoms.emplace_back(reinterpret_cast<char*>(header + 4), 4);
        if (atomSize == 1) {
            atomSize = 0;
            for (int i = 8; i < 16; ++i) atomSize = (atomSize << 8) | header[i];
        } else if (atomSize == 0) {
            atomSize = size - offset;
        }
        if (atomSize < 8) break;
        offset += atomSize;
    }
    return atoms;
}

bool contains(const std::vector<std::string>& v, const std::string& s) {
    return std::find(v.begin(), v.end(), s) != v.end();
}

// A BGRA picture: a colour gradient with a bright square that moves with the frame number.
PixelBufferRef makePicture(int width, int height, int frame, size_t extraRowBytes = 0) {
    const size_t bytesPerRow = static_cast<size_t>(width) * 4 + extraRowBytes;
    auto storage = std::make_shared<std::vector<uint8_t>>(bytesPerRow * height);
    for (int y = 0; y < height; ++y) {
        uint8_t* row = storage->data() + y * bytesPerRow;
        for (int x = 0; x < width; ++x) {
            const bool square =
                std::abs(x - (frame * 8) % width) < 40 && std::abs(y - height / 2) < 40;
            row[4 * x + 0] = square ? 255 : static_cast<uint8_t>(x * 255 / width);
            row[4 * x + 1] = square ? 255 : static_cast<uint8_t>(y * 255 / height);
            row[4 * x + 2] = square ? 255 : 128;
            row[4 * x + 3] = 255;
        }
    }
    return PixelBuffer::wrap(width, height, bytesPerRow, storage->data(), [storage] {});
}

PixelBufferRef makeSolidPicture(int width, int height, uint8_t b, uint8_t g, uint8_t r) {
    auto picture = PixelBuffer::allocate(width, height);
    for (int i = 0; i < width * height; ++i) {
        uint8_t* p = picture->baseAddress() + 4 * i;
        p[0] = b;
        p[1] = g;
        p[2] = r;
        p[3] = 255;
    }
    return picture;
}

SampleBufferRef videoSample(PixelBufferRef picture, int64_t ns) {
    return SampleBuffer::video(
        std::move(picture),
        SampleTiming{MediaTime::invalid(), MediaTime::fromNanoseconds(ns), MediaTime::invalid()});
}

// A 440 Hz tone, interleaved s16, starting at `firstFrame` of the tone.
SampleBufferRef toneSample(int rate, int channels, int frames, int64_t firstFrame, int64_t ns) {
    auto audio = std::make_shared<AudioBuffer>();
    audio->sampleRate = rate;
    audio->channels = channels;
    audio->format = AudioSampleFormat::s16;
    audio->frameCount = frames;
    audio->data.resize(static_cast<size_t>(frames) * channels * 2);
    auto* samples = reinterpret_cast<int16_t*>(audio->data.data());
    for (int i = 0; i < frames; ++i) {
        const double t = static_cast<double>(firstFrame + i) / rate;
        const auto value = static_cast<int16_t>(8000 * std::sin(2 * M_PI * 440 * t));
        for (int c = 0; c < channels; ++c) samples[i * channels + c] = value;
    }
    return SampleBuffer::audio(
        audio,
        SampleTiming{MediaTime::invalid(), MediaTime::fromNanoseconds(ns), MediaTime::invalid()});
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
        r.audio = factory.makeInput(MediaType::audio, audioSettings());
        EXPECT_TRUE(r.writer->canAddInput(r.video));
        r.writer->addInput(r.video);
        r.writer->addInput(r.audio);
        EXPECT_TRUE(r.writer->startWriting());
        r.startNs = monotonicNanoseconds();
        r.writer->startSessionAtSourceTime(MediaTime::fromNanoseconds(r.startNs));
        return r;
    }

    // Audio buffers of 10 ms at 48 kHz stereo up to (and excluding) `untilNs` after the start.
    void feedAudioUntil(int64_t untilNs, int64_t gapAfterNs = -1, int64_t gapNs = 0) {
        constexpr int kRate = 48000, kChunk = 480;
        for (;;) {
            int64_t at = audioFramesFed * 1'000'000'000 / kRate;
            if (gapAfterNs >= 0 && at >= gapAfterNs) at += gapNs;
            if (at >= untilNs) return;
            ASSERT_TRUE(waitUntilReady(*audio));
            ASSERT_TRUE(audio->append(toneSample(kRate, 2, kChunk, audioFramesFed, startNs + at)));
            audioFramesFed += kChunk;
        }
    }

    // `frames` video frames at 30 fps (each waits for the input), with audio alongside.
    void feed(int frames, int sourceWidth, int sourceHeight, bool withAudio = true) {
        for (int i = 0; i < frames; ++i) {
            const int64_t at = static_cast<int64_t>(i) * kFrameNs;
            if (withAudio) feedAudioUntil(at + kFrameNs);
            ASSERT_TRUE(waitUntilReady(*video));
            ASSERT_TRUE(video->append(
                videoSample(makePicture(sourceWidth, sourceHeight, i), startNs + at)));
        }
    }

    // Marks both inputs finished, finishes and waits; the completion's call count.
    int finish() {
        video->markAsFinished();
        audio->markAsFinished();
        std::promise<void> done;
        auto calls = std::make_shared<std::atomic<int>>(0);
        writer->finishWriting([&done, calls] {
            if (calls->fetch_add(1) == 0) done.set_value();
        });
        EXPECT_EQ(done.get_future().wait_for(30s), std::future_status::ready);
        std::this_thread::sleep_for(20ms);  // a second call would show up here
        return calls->load();
    }
};

class FfmpegAssetWriterTest : public ::testing::Test {
protected:
    void SetUp() override {
        folder_ = fs::temp_directory_path() /
                  ("gb_writer_test_" + std::to_string(::getpid()) + "_" +
                   ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(folder_);
        fs::create_directories(folder_);
        previousSink_ = setLogSink([this](std::string_view line) {
            std::lock_guard lock(logMutex_);
            log_.emplace_back(line);
        });
    }
    void TearDown() override {
        setLogSink(previousSink_);
        fs::remove_all(folder_);
    }
    std::string path(const std::string& name = "movie.mov") const {
        return (folder_ / name).string();
    }
    std::vector<std::string> log() {
        std::lock_guard lock(logMutex_);
        return log_;
    }
    bool logged(const std::string& line) {
        const auto lines = log();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    fs::path folder_;
    LogSink previousSink_;
    std::mutex logMutex_;
    std::vector<std::string> log_;
};

// ---- the file ----------------------------------------------------------------------------------

TEST_F(FfmpegAssetWriterTest, WritesAnIndexedQuickTimeMovieWithMainProfileCavlcH264AndStereoAac) {
    const std::string file = path();
    Recording r = Recording::open(file, 1280, 720);
    r.feed(90, 1280, 720);  // 3 s
    EXPECT_EQ(r.finish(), 1);
    EXPECT_EQ(r.writer->status(), AssetWriterStatus::completed);
    EXPECT_FALSE(r.writer->error().has_value());

    const auto streams = probeStreams(file);
    ASSERT_EQ(streams.count("video"), 1u);
    ASSERT_EQ(streams.count("audio"), 1u);
    const auto& v = streams.at("video");
    EXPECT_EQ(v.at("codec_name"), "h264");
    EXPECT_EQ(v.at("profile"), "Main");
    EXPECT_EQ(v.at("width"), "1280");
    EXPECT_EQ(v.at("height"), "720");
    EXPECT_EQ(v.at("pix_fmt"), "yuv420p");
    EXPECT_NEAR(std::atof(v.at("duration").c_str()), 3.0, 0.1);
    const auto& a = streams.at("audio");
    EXPECT_EQ(a.at("codec_name"), "aac");
    EXPECT_EQ(a.at("profile"), "LC");
    EXPECT_EQ(a.at("channels"), "2");
    EXPECT_EQ(a.at("sample_rate"), "44100");
    EXPECT_NEAR(std::atof(a.at("duration").c_str()), 3.0, 0.1);
    // The audio starts with the video: the encoder's priming is hidden by the edit list.
    EXPECT_NEAR(std::atof(a.at("start_time").c_str()), 0.0, 0.005);
    EXPECT_NEAR(std::atof(v.at("start_time").c_str()), 0.0, 0.005);
    const int64_t bitRate = std::atoll(v.at("bit_rate").c_str());
    EXPECT_GT(bitRate, 200'000);
    EXPECT_LT(bitRate, 4'000'000);

    const auto brand = runCommand(
        "ffprobe -v error -show_entries format=format_name:format_tags="
        "major_brand -of default=nw=1 " +
        quoted(file));
    EXPECT_NE(brand.output.find("mov,mp4"), std::string::npos);
    EXPECT_NE(brand.output.find("major_brand=qt"), std::string::npos) << brand.output;

    // CAVLC: the picture parameter sets say entropy_coding_mode_flag 0.
    const auto trace = runCommand("ffmpeg -v trace -i " + quoted(file) +
                                  " -map 0:v -c copy -bsf:v trace_headers -f null - 2>&1 | "
                                  "grep entropy_coding_mode_flag");
    EXPECT_NE(trace.output.find("entropy_coding_mode_flag"), std::string::npos);
    EXPECT_NE(trace.output.find("= 0"), std::string::npos) << trace.output;
    EXPECT_EQ(trace.output.find("= 1"), std::string::npos) << trace.output;

    // An ordinary movie: the index is there and there are no fragments.
    const auto atoms = topLevelAtoms(file);
    EXPECT_TRUE(contains(atoms, "moov"));
    EXPECT_TRUE(contains(atoms, "mdat"));
    EXPECT_FALSE(contains(atoms, "moof"));
    EXPECT_FALSE(fs::exists(rewriteTemporaryPath(file)));

    struct stat st {};
    ASSERT_EQ(::stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);

    // Decodes cleanly from start to end.
    const auto decode = runCommand("ffmpeg -v error -i " + quoted(file) + " -f null -");
    EXPECT_EQ(decode.exitCode, 0);
    EXPECT_EQ(decode.output, "");

    EXPECT_TRUE(logged("Writer: 0 video frames dropped (queue full)"));
}

TEST_F(FfmpegAssetWriterTest, LetterboxesAFourByThreePictureIntoSixteenByNine) {
    const std::string file = path();
    FfmpegAssetWriterFactory factory;
    auto writer = factory.makeWriter(file, FileType::quickTimeMovie).value();
    auto video = factory.makeInput(MediaType::video, videoSettings(1280, 720));
    writer->addInput(video);
    ASSERT_TRUE(writer->startWriting());
    const int64_t start = monotonicNanoseconds();
    writer->startSessionAtSourceTime(MediaTime::fromNanoseconds(start));
    for (int i = 0; i < 15; ++i) {
        ASSERT_TRUE(waitUntilReady(*video));
        auto white = makeSolidPicture(640, 480, 255, 255, 255);
        ASSERT_TRUE(video->append(videoSample(white, start + i * kFrameNs)));
    }
    std::promise<void> done;
    writer->finishWriting([&done] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(30s), std::future_status::ready);
    ASSERT_EQ(writer->status(), AssetWriterStatus::completed);

    const auto frame = runCommand("ffmpeg -v error -i " + quoted(file) +
                                  " -frames:v 1 -f rawvideo -pix_fmt gray -");
    ASSERT_EQ(frame.output.size(), 1280u * 720u);
    const auto luma = [&](int x, int y) {
        return static_cast<unsigned char>(frame.output[static_cast<size_t>(y) * 1280 + x]);
    };
    // Picture from x 160 to 1119, full height; black bars left and right.
    for (int y : {5, 360, 714}) {
        EXPECT_LT(luma(10, y), 30) << y;
        EXPECT_LT(luma(150, y), 30) << y;
        EXPECT_GT(luma(172, y), 220) << y;
        EXPECT_GT(luma(640, y), 220) << y;
        EXPECT_GT(luma(1107, y), 220) << y;
        EXPECT_LT(luma(1130, y), 30) << y;
        EXPECT_LT(luma(1270, y), 30) << y;
    }
    EXPECT_TRUE(logged("Writer: letterboxing 640x480 frames into 1280x720"));
}

TEST_F(FfmpegAssetWriterTest, PaddedRowsAndOtherSizesAreScaled) {
    const std::string file = path();
    Recording r = Recording::open(file, 1280, 720);
    // Half size with 64 bytes of padding at the end of each row, then the full size.
    for (int i = 0; i < 30; ++i) {
        r.feedAudioUntil((i + 1) * kFrameNs);
        ASSERT_TRUE(waitUntilReady(*r.video));
        const bool small = i < 15;
        auto picture = small ? makePicture(640, 360, i, 64) : makePicture(1280, 720, i);
        ASSERT_TRUE(r.video->append(videoSample(picture, r.startNs + i * kFrameNs)));
    }
    EXPECT_EQ(r.finish(), 1);
    ASSERT_EQ(r.writer->status(), AssetWriterStatus::completed);
    const auto decode = runCommand("ffmpeg -v error -i " + quoted(file) + " -f null -");
    EXPECT_EQ(decode.exitCode, 0);
    EXPECT_EQ(decode.output, "");
    const auto count = runCommand(
        "ffprobe -v error -count_frames -select_streams v "
        "-show_entries stream=nb_read_frames -of csv=p=0 " +
        quoted(file));
    EXPECT_EQ(std::atoi(count.output.c_str()), 30);
}

TEST_F(FfmpegAssetWriterTest, AudioStaysInSyncAcrossAGapInTheMicrophoneTimestamps) {
    const std::string file = path();
    Recording r = Recording::open(file, 640, 360);
    // Audio is 48 kHz; 300 ms of it never arrive at 1 s. The track is padded, so it still
    // ends with the video instead of 300 ms early.
    for (int i = 0; i < 90; ++i) {
        const int64_t at = static_cast<int64_t>(i) * kFrameNs;
        r.feedAudioUntil(at + kFrameNs, 1'000'000'000, 300'000'000);
        ASSERT_TRUE(waitUntilReady(*r.video));
        ASSERT_TRUE(r.video->append(videoSample(makePicture(640, 360, i), r.startNs + at)));
    }
    EXPECT_EQ(r.finish(), 1);
    const auto streams = probeStreams(file);
    const double video = std::atof(streams.at("video").at("duration").c_str());
    const double audio = std::atof(streams.at("audio").at("duration").c_str());
    EXPECT_NEAR(audio, video, 0.06);
    const auto lines = log();
    EXPECT_NE(std::find_if(lines.begin(), lines.end(),
                           [](const std::string& l) {
                               return l.rfind("Writer: audio resynchronised: 300 ms of silence",
                                              0) == 0;
                           }),
              lines.end());
}

// First packet time of each stream, by codec type.
std::map<std::string, double> firstPacketTimes(const std::string& path) {
    std::map<std::string, double> firsts;
    for (const char* type : {"v", "a"}) {
        const auto r = runCommand(
            "ffprobe -v error -select_streams " + std::string(type) +
            " -read_intervals %+#1 -show_entries packet=pts_time -of csv=p=0 " + quoted(path));
        firsts[type] = std::atof(r.output.c_str());
    }
    return firsts;
}

TEST_F(FfmpegAssetWriterTest, StreamsKeepTheirPlaceOnTheTimelineWhenVideoStartsLate) {
    const std::string growing = path("growing.mov");
    const std::string finished = path("finished.mov");
    for (const auto& file : {growing, finished}) {
        Recording r = Recording::open(file, 640, 360);
        r.feedAudioUntil(1'000'000'000);  // one second of sound before the first frame
        for (int i = 30; i < 60; ++i) {
            const int64_t at = static_cast<int64_t>(i) * kFrameNs;
            r.feedAudioUntil(at + kFrameNs);
            ASSERT_TRUE(waitUntilReady(*r.video));
            ASSERT_TRUE(r.video->append(videoSample(makePicture(640, 360, i), r.startNs + at)));
        }
        if (file == finished) {
            EXPECT_EQ(r.finish(), 1);
        }
    }
    // Fragmented (as a crash leaves it): the AAC priming starts at zero and everything else is
    // shifted by it, so the sound still meets the pictures.
    auto growingFirst = firstPacketTimes(growing);
    EXPECT_NEAR(growingFirst.at("a"), 0.0, 0.002);
    EXPECT_NEAR(growingFirst.at("v"), 1.0 + 1024.0 / 44100.0, 0.002);
    // Finished: audio at zero (priming hidden by the edit list), video one second in.
    auto finishedFirst = firstPacketTimes(finished);
    EXPECT_NEAR(finishedFirst.at("v"), 1.0, 0.002);
    const auto streams = probeStreams(finished);
    EXPECT_NEAR(std::atof(streams.at("video").at("start_time").c_str()), 1.0, 0.002);
    EXPECT_NEAR(std::atof(streams.at("audio").at("start_time").c_str()), 0.0, 0.002);
}

TEST_F(FfmpegAssetWriterTest, SilentTrackSpansTheVideoWhenNoMicrophoneAudioCame) {
    const std::string file = path();
    Recording r = Recording::open(file, 640, 360);
    r.feed(60, 640, 360, /*withAudio=*/false);
    EXPECT_EQ(r.finish(), 1);
    const auto streams = probeStreams(file);
    ASSERT_EQ(streams.count("audio"), 1u);
    EXPECT_NEAR(std::atof(streams.at("audio").at("duration").c_str()), 2.0, 0.06);
}

// ---- status, appends and completion ------------------------------------------------------------

TEST_F(FfmpegAssetWriterTest, StatusGoesUnknownWritingCompletedAndEachCompletionRunsOnce) {
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
    // Appends before the session start are refused.
    EXPECT_FALSE(video->append(videoSample(makePicture(320, 240, 0), start)));
    writer->startSessionAtSourceTime(MediaTime::fromNanoseconds(start));
    for (int i = 0; i < 10; ++i) {
        ASSERT_TRUE(waitUntilReady(*video));
        ASSERT_TRUE(video->append(videoSample(makePicture(320, 240, i), start + i * kFrameNs)));
    }
    // The wrong kind of sample is refused.
    EXPECT_FALSE(video->append(toneSample(48000, 2, 480, 0, start)));
    video->markAsFinished();
    EXPECT_FALSE(video->isReadyForMoreMediaData());
    EXPECT_FALSE(video->append(videoSample(makePicture(320, 240, 10), start + 10 * kFrameNs)));

    // Each finish calls its completion exactly once; the first on a thread of the writer's.
    const auto finish = [&] {
        auto calls = std::make_shared<std::atomic<int>>(0);
        auto done = std::make_shared<std::promise<std::thread::id>>();
        writer->finishWriting([calls, done] {
            if (calls->fetch_add(1) == 0) done->set_value(std::this_thread::get_id());
        });
        auto thread = done->get_future();
        EXPECT_EQ(thread.wait_for(30s), std::future_status::ready);
        std::this_thread::sleep_for(50ms);  // a second call would show up here
        EXPECT_EQ(calls->load(), 1);
        return thread.get();
    };
    EXPECT_NE(finish(), std::this_thread::get_id());
    EXPECT_EQ(writer->status(), AssetWriterStatus::completed);
    struct stat before {};
    ASSERT_EQ(::stat(file.c_str(), &before), 0);
    // A second finish only gets its completion called; the file is not rewritten again.
    (void)finish();
    struct stat after {};
    ASSERT_EQ(::stat(file.c_str(), &after), 0);
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_EQ(before.st_size, after.st_size);
    EXPECT_EQ(writer->status(), AssetWriterStatus::completed);
}

TEST_F(FfmpegAssetWriterTest, NotReadyWhileTheEncoderIsBehindAndAppendThenFails) {
    const std::string file = path();
    FfmpegWriterOptions options;
    options.videoQueueCapacity = 2;
    Recording r = Recording::open(file, 1920, 1080, options);
    auto picture = makePicture(1920, 1080, 0);
    int refused = 0, notReady = 0;
    // Far faster than the encoder can go: the short queue fills at once.
    for (int i = 0; i < 20; ++i) {
        if (!r.video->isReadyForMoreMediaData()) ++notReady;
        if (!r.video->append(videoSample(picture, r.startNs + i * kFrameNs))) ++refused;
    }
    EXPECT_GT(notReady, 0);
    EXPECT_GT(refused, 0);
    EXPECT_EQ(r.finish(), 1);
    EXPECT_EQ(r.writer->status(), AssetWriterStatus::completed);
    EXPECT_TRUE(
        logged("Writer: " + std::to_string(notReady) + " video frames dropped (encoder busy)"));
    EXPECT_TRUE(
        logged("Writer: " + std::to_string(refused) + " video frames dropped (queue full)"));
    // The queue released every picture it held.
    EXPECT_EQ(picture.use_count(), 1);
}

TEST_F(FfmpegAssetWriterTest, FinishBeforeStartFailsAndStillCallsTheCompletion) {
    FfmpegAssetWriterFactory factory;
    auto writer = factory.makeWriter(path(), FileType::quickTimeMovie).value();
    std::promise<void> done;
    writer->finishWriting([&done] { done.set_value(); });
    ASSERT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
    EXPECT_EQ(writer->status(), AssetWriterStatus::failed);
    ASSERT_TRUE(writer->error().has_value());
    EXPECT_FALSE(writer->error()->localizedDescription.empty());
}

TEST_F(FfmpegAssetWriterTest, CompletionMayReleaseTheLastReferenceToTheWriter) {
    FfmpegAssetWriterFactory factory;
    auto writer = factory.makeWriter(path(), FileType::quickTimeMovie).value();
    auto video = factory.makeInput(MediaType::video, videoSettings(320, 240));
    writer->addInput(video);
    ASSERT_TRUE(writer->startWriting());
    std::promise<void> done;
    auto* raw = writer.get();
    // The completion holds the writer; dropping our references leaves it the only owner.
    raw->finishWriting([keep = writer, &done]() mutable { done.set_value(); });
    writer.reset();
    video.reset();
    ASSERT_EQ(done.get_future().wait_for(10s), std::future_status::ready);
}

// ---- bad input ---------------------------------------------------------------------------------

TEST_F(FfmpegAssetWriterTest, MissingFolderIsReportedWithAClearSentence) {
    FfmpegAssetWriterFactory factory;
    const std::string missing = (folder_ / "nope" / "movie.mov").string();
    auto made = factory.makeWriter(missing, FileType::quickTimeMovie);
    ASSERT_FALSE(made.ok());
    EXPECT_EQ(made.error().localizedDescription,
              "The recording can't be saved because the folder “" + (folder_ / "nope").string() +
                  "” doesn't exist.");

    // A file where the folder should be.
    std::ofstream(folder_ / "plain").put('x');
    auto notFolder =
        factory.makeWriter((folder_ / "plain" / "movie.mov").string(), FileType::quickTimeMovie);
    ASSERT_FALSE(notFolder.ok());
    EXPECT_NE(notFolder.error().localizedDescription.find("“" + (folder_ / "plain").string() + "”"),
              std::string::npos);
}

TEST_F(FfmpegAssetWriterTest, UnsupportedSettingsFailStartWritingWithAnError) {
    FfmpegAssetWriterFactory factory;
    auto writer = factory.makeWriter(path(), FileType::quickTimeMovie).value();
    writer->addInput(factory.makeInput(MediaType::video, videoSettings(0, 0)));
    EXPECT_FALSE(writer->startWriting());
    EXPECT_EQ(writer->status(), AssetWriterStatus::failed);
    ASSERT_TRUE(writer->error().has_value());
    EXPECT_NE(writer->error()->localizedDescription.find("unsupported"), std::string::npos);
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
        int i = 0;
        while (r.writer->status() == AssetWriterStatus::writing && i < 3000) {
            r.feedAudioUntil((i + 1) * kFrameNs);
            if (waitUntilReady(*r.video, 2s)) {
                (void)r.video->append(
                    videoSample(makePicture(640, 360, i), r.startNs + i * kFrameNs));
            }
            ++i;
        }
        r.finish();
        const auto error = r.writer->error();
        const bool ok =
            r.writer->status() == AssetWriterStatus::failed && error &&
            error->localizedDescription.find("couldn't be written") != std::string::npos;
        std::_Exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the writer did not report the write failure";
    // What was committed before the failure still plays.
    EXPECT_LE(fs::file_size(file), 400u * 1024);
    const auto decode = runCommand("ffmpeg -v error -i " + quoted(file) + " -f null -");
    EXPECT_EQ(decode.exitCode, 0) << decode.output;
    const auto ends = packetEndTimes(file);
    EXPECT_GT(ends.at("v"), 0.5);
}

// ---- never lose a recording --------------------------------------------------------------------

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
                (void)r.video->append(videoSample(pictures[static_cast<size_t>(i) % 4], now));
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

    const auto decode = runCommand("ffmpeg -v error -i " + quoted(file) + " -f null -");
    EXPECT_EQ(decode.exitCode, 0) << decode.output;
    // Everything up to two seconds before the kill is there.
    const auto ends = packetEndTimes(file);
    EXPECT_GE(ends.at("v"), diedAt - 2.0) << "killed after " << diedAt << " s";
    EXPECT_GE(ends.at("a"), diedAt - 2.0) << "killed after " << diedAt << " s";
    const auto streams = probeStreams(file);
    ASSERT_EQ(streams.count("video"), 1u);
    EXPECT_EQ(streams.at("video").at("profile"), "Main");
    EXPECT_EQ(streams.at("audio").at("sample_rate"), "44100");
}

TEST_F(FfmpegAssetWriterTest, ReleasedUnfinishedWriterLeavesAPlayableFile) {
    const std::string file = path();
    {
        Recording r = Recording::open(file, 640, 360);
        r.feed(45, 640, 360);
    }  // writer and inputs released without finishWriting
    const auto decode = runCommand("ffmpeg -v error -i " + quoted(file) + " -f null -");
    EXPECT_EQ(decode.exitCode, 0) << decode.output;
    const auto ends = packetEndTimes(file);
    EXPECT_GT(ends.at("v"), 1.0);
    EXPECT_TRUE(contains(topLevelAtoms(file), "moof"));
}

}  // namespace
}  // namespace gb::linuxp
