// Cost of composing one frame (1280x720 camera, medium overlay) against a plain copy of one
// screen frame, on both composition paths. The summary at the end prints each path's time as a
// multiple of the copy of the same size.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "composition/video_composer.h"
#include "portable/cpu_image_compositor.h"
#include "portable/standard_sample_maker.h"
#include "recording/log.h"

namespace {

using namespace gb;

constexpr std::pair<int, int> kScreens[] = {{1920, 1080}, {2560, 1440}, {3840, 2160}};

PixelBufferRef patterned(int width, int height) {
    auto buffer = PixelBuffer::allocate(width, height);
    uint8_t* p = buffer->baseAddress();
    for (size_t i = 0; i < buffer->dataSize(); i += 4) {
        p[i] = static_cast<uint8_t>(i >> 2);
        p[i + 1] = static_cast<uint8_t>(i >> 10);
        p[i + 2] = static_cast<uint8_t>(i >> 14);
        p[i + 3] = 255;
    }
    return buffer;
}

// Fails the first buffer of every frame, so the composer takes the pixel path.
class FirstOfEachFrameFails final : public PixelBufferFactory {
public:
    explicit FirstOfEachFrameFails(std::shared_ptr<PixelBufferFactory> inner)
        : inner_(std::move(inner)) {}
    PixelBufferRef create(int width, int height) override {
        failNext_ = !failNext_;
        return failNext_ ? inner_->create(width, height) : nullptr;
    }

private:
    std::shared_ptr<PixelBufferFactory> inner_;
    bool failNext_ = false;
};

void BM_Memcpy(benchmark::State& state) {
    const auto [w, h] = kScreens[state.range(0)];
    const auto source = patterned(w, h);
    const auto destination = PixelBuffer::allocate(w, h);
    for (auto _ : state) {
        std::memcpy(destination->baseAddress(), source->baseAddress(), source->dataSize());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(source->dataSize()));
}

void compose(benchmark::State& state, bool pixelPath) {
    const auto [w, h] = kScreens[state.range(0)];
    // The pixel path logs two lines a frame; measure the work, not the terminal.
    const LogSink previous = setLogSink([](std::string_view) {});
    CpuImageCompositor backend;
    auto pool = std::make_shared<PooledPixelBufferFactory>();
    FirstOfEachFrameFails failing(pool);
    PixelBufferFactory& buffers = pixelPath ? static_cast<PixelBufferFactory&>(failing) : *pool;
    StandardSampleMaker maker;
    VideoComposer composer(backend, buffers, maker);
    const auto screen = patterned(w, h);
    const auto camera = patterned(1280, 720);
    int64_t frame = 0;
    for (auto _ : state) {
        SampleBufferRef sample =
            composer.composeFrame(screen, camera, MediaTime::make(frame++, 30));
        benchmark::DoNotOptimize(sample.get());
        if (!sample) state.SkipWithError("no sample");
    }
    setLogSink(previous);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(screen->dataSize()));
    state.counters["buffers_allocated"] = static_cast<double>(pool->allocations());
}

void BM_ComposeImagePath(benchmark::State& state) {
    compose(state, false);
}
void BM_ComposePixelPath(benchmark::State& state) {
    compose(state, true);
}

BENCHMARK(BM_Memcpy)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ComposeImagePath)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ComposePixelPath)->DenseRange(0, 2)->Unit(benchmark::kMicrosecond);

// The console report, followed by each path's time relative to the copy of its size, by wall
// clock and by processor time (the latter is steadier on a loaded machine).
class RatioReporter final : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        // With repetitions, the median stands for the benchmark.
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const Times times{run.GetAdjustedRealTime(), run.GetAdjustedCPUTime()};
            if (run.run_type == Run::RT_Aggregate) {
                if (run.aggregate_name == "median") medians_[run.run_name.str()] = times;
            } else {
                last_[run.run_name.str()] = times;
            }
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        for (const auto& [name, times] : medians_) last_[name] = times;
        std::printf("\n%-10s %10s %10s %7s %10s %7s   %9s %7s %7s\n", "screen", "memcpy us",
                    "image us", "image x", "pixel us", "pixel x", "cpu: copy", "image x",
                    "pixel x");
        for (int i = 0; i < 3; ++i) {
            // Appended, not `"/" + std::to_string(i)`: GCC 12 at -O3 warns falsely (-Wrestrict)
            // about the insert at the front that operator+ does there.
            const auto result = [&](std::string name) {
                name += '/';
                name += std::to_string(i);
                return last_.find(name);
            };
            const auto copy = result("BM_Memcpy");
            const auto image = result("BM_ComposeImagePath");
            const auto pixel = result("BM_ComposePixelPath");
            if (copy == last_.end() || image == last_.end() || pixel == last_.end()) continue;
            const std::string size =
                std::to_string(kScreens[i].first) + "x" + std::to_string(kScreens[i].second);
            const Times& c = copy->second;
            const Times& m = image->second;
            const Times& p = pixel->second;
            std::printf("%-10s %10.1f %10.1f %7.2f %10.1f %7.2f   %9.1f %7.2f %7.2f\n",
                        size.c_str(), c.real, m.real, m.real / c.real, p.real, p.real / c.real,
                        c.cpu, m.cpu / c.cpu, p.cpu / c.cpu);
        }
    }

private:
    struct Times {
        double real = 0;
        double cpu = 0;
    };
    std::map<std::string, Times> last_;
    std::map<std::string, Times> medians_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
