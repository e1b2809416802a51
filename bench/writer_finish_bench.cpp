// The movie writer's cost: encoder CPU per recorded second at 1080p30 for each libx264 preset,
// and the time from finishWriting() to its completion (flush, index rewrite, rename) after
// recordings of 5 s and 60 s. Peak RSS is reported with each run (the process's high-water
// mark, so run one benchmark per process for a clean figure: --benchmark_filter=...), and the
// part of it that the writer adds (writer_rss_MB).
//
// Frames are screen-like (flat panels, text-like strokes) with a noisy region that changes every
// frame, so the encoder spends its whole bit budget as on a busy desktop.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <time.h>

#include <chrono>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "linux/ffmpeg/ffmpeg_asset_writer.h"
#include "linux/capture/monotonic_clock.h"
#include "recording/log.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using gb::AssetWriterInputRef;
using gb::AssetWriterRef;
using gb::MediaTime;
using gb::PixelBuffer;
using gb::PixelBufferRef;
using gb::SampleBuffer;
using gb::SampleTiming;

constexpr int64_t kFrameNs = 33'333'333;
constexpr int kFramesPerSecond = 30;

double processCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double peakRssMegabytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

// Resident set size now.
double rssMegabytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) return std::atof(line.c_str() + 6) / 1024.0;
    }
    return 0;
}

// A few distinct desktop-like pictures, reused round-robin (the capture pool does the same).
std::vector<PixelBufferRef> makePictures(int width, int height, int count) {
    std::vector<PixelBufferRef> pictures;
    std::mt19937 random(7);
    for (int n = 0; n < count; ++n) {
        auto picture = PixelBuffer::allocate(width, height);
        uint8_t* base = picture->baseAddress();
        for (int y = 0; y < height; ++y) {
            uint8_t* row = base + y * picture->bytesPerRow();
            for (int x = 0; x < width; ++x) {
                uint8_t value = 235;     // light window background
                if (y < 40) value = 60;  // title bar
                // "text": short strokes on a line grid, shifted per picture like scrolling
                const int line = (y + n * 6) / 18;
                const bool stroke = ((y + n * 6) % 18) < 11 && ((x / 7 + line * 3) % 11) < 6 &&
                                    x > 80 && x < width * 2 / 3;
                if (stroke) value = 30;
                uint8_t noise = 0;
                if (x > width * 2 / 3 && y > height / 3) noise = static_cast<uint8_t>(random());
                row[4 * x + 0] = noise ? noise : value;
                row[4 * x + 1] = noise ? static_cast<uint8_t>(noise * 3) : value;
                row[4 * x + 2] = noise ? static_cast<uint8_t>(noise * 7) : value;
                row[4 * x + 3] = 255;
            }
        }
        pictures.push_back(std::move(picture));
    }
    return pictures;
}

std::shared_ptr<const gb::AudioBuffer> makeTone(int frames) {
    auto audio = std::make_shared<gb::AudioBuffer>();
    audio->sampleRate = 48000;
    audio->channels = 2;
    audio->format = gb::AudioSampleFormat::s16;
    audio->frameCount = frames;
    audio->data.resize(static_cast<size_t>(frames) * 4);
    auto* s = reinterpret_cast<int16_t*>(audio->data.data());
    for (int i = 0; i < frames; ++i) {
        s[2 * i] = s[2 * i + 1] = static_cast<int16_t>(6000 * std::sin(i * 2 * M_PI * 440 / 48000));
    }
    return audio;
}

struct Writer {
    AssetWriterRef writer;
    AssetWriterInputRef video;
    AssetWriterInputRef audio;
    int64_t start = 0;
};

Writer openWriter(const std::string& path, int width, int height, const std::string& preset) {
    gb::linuxp::FfmpegWriterOptions options;
    options.x264Preset = preset;
    gb::linuxp::FfmpegAssetWriterFactory factory(options);
    Writer w;
    w.writer = factory.makeWriter(path, gb::FileType::quickTimeMovie).value();
    w.video =
        factory.makeInput(gb::MediaType::video,
                          gb::VideoOutputSettingsForWriter{
                              "avc1", width, height, {2'000'000, "H264_Main_AutoLevel", "CAVLC"}});
    w.audio = factory.makeInput(gb::MediaType::audio,
                                gb::AudioOutputSettingsForWriter{0x61616320, 2, 44100.0, 128'000});
    w.writer->addInput(w.video);
    w.writer->addInput(w.audio);
    if (!w.writer->startWriting()) throw std::runtime_error("startWriting failed");
    w.start = gb::linuxp::monotonicNanoseconds();
    w.writer->startSessionAtSourceTime(MediaTime::fromNanoseconds(w.start));
    return w;
}

void waitReady(const gb::AssetWriterInput& input) {
    while (!input.isReadyForMoreMediaData()) std::this_thread::sleep_for(200us);
}

// Feeds `seconds` of 30 fps video and 48 kHz audio as fast as the encoder takes them.
void feed(Writer& w, const std::vector<PixelBufferRef>& pictures, int seconds) {
    const auto tone = makeTone(480);
    int64_t audioNs = 0;
    for (int i = 0; i < seconds * kFramesPerSecond; ++i) {
        const int64_t at = static_cast<int64_t>(i) * kFrameNs;
        for (; audioNs < at + kFrameNs; audioNs += 10'000'000) {
            waitReady(*w.audio);
            (void)w.audio->append(SampleBuffer::audio(
                tone,
                SampleTiming{MediaTime::invalid(), MediaTime::fromNanoseconds(w.start + audioNs),
                             MediaTime::invalid()}));
        }
        waitReady(*w.video);
        (void)w.video->append(SampleBuffer::video(
            pictures[static_cast<size_t>(i) % pictures.size()],
            SampleTiming{MediaTime::invalid(), MediaTime::fromNanoseconds(w.start + at),
                         MediaTime::invalid()}));
    }
}

// Calls finishWriting and waits for the completion; the seconds it took.
double finish(Writer& w) {
    w.video->markAsFinished();
    w.audio->markAsFinished();
    std::mutex m;
    std::condition_variable cv;
    bool done = false;
    const auto began = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point ended;
    w.writer->finishWriting([&] {
        std::lock_guard lock(m);
        ended = std::chrono::steady_clock::now();
        done = true;
        cv.notify_all();
    });
    std::unique_lock lock(m);
    cv.wait(lock, [&] { return done; });
    return std::chrono::duration<double>(ended - began).count();
}

std::string benchPath(const std::string& name) {
    const fs::path folder = fs::temp_directory_path() / "gb_writer_bench";
    fs::create_directories(folder);
    return (folder / name).string();
}

void silenceLog() {
    gb::setLogSink([](std::string_view) {});
}

// Encoder CPU (whole process) per recorded second, and how fast 1080p30 goes at full speed.
void BM_Encode1080p30(benchmark::State& state, const std::string& preset) {
    silenceLog();
    const auto pictures = makePictures(1920, 1080, 8);
    const int seconds = 10;
    for (auto _ : state) {
        const std::string path = benchPath("encode_" + preset + ".mov");
        const double rssBefore = rssMegabytes();
        Writer w = openWriter(path, 1920, 1080, preset);
        const double cpuBefore = processCpuSeconds();
        const auto wallBefore = std::chrono::steady_clock::now();
        feed(w, pictures, seconds);
        (void)finish(w);
        const double wall =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - wallBefore).count();
        const double cpu = processCpuSeconds() - cpuBefore;
        state.SetIterationTime(wall);
        state.counters["cpu_s_per_recorded_s"] = cpu / seconds;
        state.counters["encode_fps"] = seconds * kFramesPerSecond / wall;
        state.counters["file_MB"] = static_cast<double>(fs::file_size(path)) / 1e6;
        state.counters["peak_rss_MB"] = peakRssMegabytes();
        // What the writer adds at its peak (valid when this is the process's first run).
        state.counters["writer_rss_MB"] = peakRssMegabytes() - rssBefore;
        fs::remove(path);
    }
}
BENCHMARK_CAPTURE(BM_Encode1080p30, ultrafast, std::string("ultrafast"))
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode1080p30, superfast, std::string("superfast"))
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Encode1080p30, veryfast, std::string("veryfast"))
    ->UseManualTime()
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

// Stop-to-finished: from finishWriting() until its completion ran, after a recording of
// state.range(0) seconds at 1080p30.
void BM_FinishAfterRecording(benchmark::State& state) {
    silenceLog();
    const auto pictures = makePictures(1920, 1080, 8);
    const int seconds = static_cast<int>(state.range(0));
    for (auto _ : state) {
        const std::string path = benchPath("finish_" + std::to_string(seconds) + ".mov");
        Writer w = openWriter(path, 1920, 1080, "superfast");
        feed(w, pictures, seconds);
        const double took = finish(w);
        state.SetIterationTime(took);
        state.counters["file_MB"] = static_cast<double>(fs::file_size(path)) / 1e6;
        state.counters["peak_rss_MB"] = peakRssMegabytes();
        fs::remove(path);
    }
}
BENCHMARK(BM_FinishAfterRecording)
    ->Arg(5)
    ->Arg(60)
    ->UseManualTime()
    ->Iterations(3)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
