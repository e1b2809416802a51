// The beeps of the sync beacons: 100 ms of a 1 kHz tone every two seconds (none at the very start)
// played into the default PulseAudio sink, and the instant each beep's first sample plays.
#pragma once

#include <pulse/simple.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <vector>

// Plays until `stop` or for `seconds`, then drains; `onBeep` gets each beep's instant on
// CLOCK_MONOTONIC as its first sample is queued. False when the sink cannot be opened.
inline bool playBeeps(const std::atomic<bool>& stop, double seconds,
                      const std::function<void(std::chrono::steady_clock::time_point)>& onBeep) {
    constexpr long kRate = 44100, kChunk = kRate / 200, kInterval = 2 * kRate, kBeep = kRate / 10;
    pa_sample_spec format{PA_SAMPLE_S16LE, kRate, 2};
    const auto any = static_cast<uint32_t>(-1);
    const pa_buffer_attr attr{any, kRate * 2 * 2 / 50, any, any, any};  // 20 ms queued
    int err = 0;
    pa_simple* pa = pa_simple_new(nullptr, "beacon", PA_STREAM_PLAYBACK, nullptr, "beacon",
                                  &format, nullptr, &attr, &err);
    if (pa == nullptr) return false;
    std::vector<int16_t> chunk(kChunk * 2);
    for (long frame = 0; !stop && frame < seconds * kRate; frame += kChunk) {
        // The first sample of the next beep, and whether it falls in this chunk.
        const long nextBeep = (frame + kInterval - 1) / kInterval * kInterval;
        for (long i = 0; i < kChunk; ++i) {
            const long p = (frame + i) % kInterval;
            const bool loud = frame + i >= kInterval && p < kBeep;
            chunk[i * 2] = chunk[i * 2 + 1] =
                loud ? static_cast<int16_t>(12000 * std::sin(2 * M_PI * 1000.0 * p / kRate)) : 0;
        }
        if (pa_simple_write(pa, chunk.data(), chunk.size() * 2, &err) < 0) break;
        if (nextBeep >= kInterval && nextBeep < frame + kChunk) {
            // The latency is how long until the chunk's last sample plays; the beep's first
            // sample plays that much earlier than the chunk's end.
            const auto latency = std::chrono::microseconds(pa_simple_get_latency(pa, &err));
            const auto queuedAfterStart =
                std::chrono::nanoseconds(1'000'000'000LL * (frame + kChunk - nextBeep) / kRate);
            onBeep(std::chrono::steady_clock::now() + latency - queuedAfterStart);
        }
    }
    pa_simple_drain(pa, &err);
    pa_simple_free(pa);
    return true;
}
