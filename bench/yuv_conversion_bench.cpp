// The writer's colour conversion (full-range BGRA to BT.709 4:2:0) per pixel: a whole 1080p
// screen, and the overlay's corner that a still screen with the camera on converts each frame.
// For comparison, FFmpeg's scaler at the same size took 2.8 ns a pixel on the machine these
// numbers were first taken on (its general path: nothing to scale, no special case for BGRA).
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "portable/bgra_to_i420.h"

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

void convert(benchmark::State& state, int left, int top, int width, int height) {
    std::vector<uint8_t> bgra(static_cast<size_t>(kWidth) * kHeight * 4);
    for (size_t i = 0; i < bgra.size(); ++i) bgra[i] = static_cast<uint8_t>(i * 7 + i / 4099);
    std::vector<uint8_t> y(static_cast<size_t>(kWidth) * kHeight);
    std::vector<uint8_t> u(y.size() / 4);
    std::vector<uint8_t> v(y.size() / 4);
    const gb::I420Planes planes{y.data() + static_cast<size_t>(top) * kWidth + left,
                                kWidth,
                                u.data() + static_cast<size_t>(top / 2) * kWidth / 2 + left / 2,
                                kWidth / 2,
                                v.data() + static_cast<size_t>(top / 2) * kWidth / 2 + left / 2,
                                kWidth / 2};
    const uint8_t* source = bgra.data() + (static_cast<size_t>(top) * kWidth + left) * 4;
    for (auto _ : state) {
        gb::convertBgraToI420(source, kWidth * 4, width, height, planes);
        benchmark::ClobberMemory();
    }
    const double pixels = static_cast<double>(width) * height;
    // Inverted rate: seconds per count, so count pixels in billions to read nanoseconds.
    state.counters["ns_per_pixel"] =
        benchmark::Counter(pixels * 1e-9 * static_cast<double>(state.iterations()),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_WholeScreen(benchmark::State& state) {
    convert(state, 0, 0, kWidth, kHeight);
}
void BM_OverlayCorner(benchmark::State& state) {
    convert(state, 1536, 848, 384, 192);
}

BENCHMARK(BM_WholeScreen)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_OverlayCorner)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
