// Guards against: microphone chunks placed off the timeline under jitter, missed audio losses, a buffer pool that allocates, overflows or dies too early, audio gaps left unfilled and a track running ahead of its timestamps.
#include <gtest/gtest.h>

#include <chrono>

#include "portable/audio_buffer_pool.h"
#include "portable/audio_sync_corrector.h"
#include "portable/audio_timeline.h"

namespace gb {
namespace {

using linuxp::AudioSyncCorrector;

constexpr int kRate = 48'000;
constexpr int64_t kChunkFrames = 960;  // 20 ms
constexpr int64_t kChunkNs = 20'000'000;
constexpr int64_t kMs = 1'000'000;

// Jitter within the tolerance changes nothing: the chunks follow each other sample-exactly.
TEST(AudioTimelineTest, LaysChunksEndToEndFromTheFirstMeasurement) {
    AudioTimeline timeline(kRate);
    const int64_t jitter[] = {0, 1 * kMs, -1 * kMs, 2 * kMs, -2 * kMs, 500'000};
    for (int64_t i = 0; i < 200; ++i) {
        const int64_t exact = 5'000 * kMs + i * kChunkNs;
        EXPECT_EQ(timeline.place(exact + jitter[i % 6], kChunkFrames), exact) << i;
    }
    EXPECT_EQ(timeline.jumps(), 0);
}

TEST(AudioTimelineTest, JumpsForwardOnceAQuarterSecondShowsAudioWasLost) {
    AudioTimeline timeline(kRate);
    EXPECT_EQ(timeline.place(0, kChunkFrames), 0);
    EXPECT_EQ(timeline.place(kChunkNs, kChunkFrames), kChunkNs);
    // The server dropped half a second: from chunk 2 on, every measurement is 500 ms ahead.
    int jumpedAt = -1;
    for (int i = 2; i < 60; ++i) {
        const int64_t measured = i * kChunkNs + 500 * kMs;
        const int64_t start = timeline.place(measured, kChunkFrames);
        if (jumpedAt < 0 && start != i * kChunkNs) jumpedAt = i;
        if (jumpedAt >= 0) {
            EXPECT_EQ(start, measured) << i;
        }
    }
    EXPECT_GT(jumpedAt, 2);
    EXPECT_LE(jumpedAt, 2 + 2 * 13);  // within two windows of 13 chunks
    EXPECT_EQ(timeline.jumps(), 1);
}

TEST(AudioBufferPoolTest, ReusesReleasedBuffersRefusesBeyondItsCapacityAndOutlivesItsHandle) {
    auto pool = AudioBufferPool::make(2, 1024);
    auto first = pool->acquire();
    auto second = pool->acquire();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(pool->acquire(), nullptr);  // all in use: the caller drops the chunk
    first->data.assign(100, 7);
    first->frameCount = 25;
    const AudioBuffer* address = first.get();
    const uint8_t* storage = first->data.data();
    first.reset();
    auto again = pool->acquire();
    ASSERT_EQ(again.get(), address);
    EXPECT_TRUE(again->data.empty());
    EXPECT_EQ(again->frameCount, 0);
    again->data.assign(1024, 1);
    EXPECT_EQ(again->data.data(), storage);  // no new sample memory
    EXPECT_EQ(pool->allocations(), 2u);
    std::weak_ptr<AudioBufferPool> watch = pool;
    pool.reset();
    second.reset();
    EXPECT_FALSE(watch.expired());  // kept by the buffer still out
    again.reset();
    EXPECT_TRUE(watch.expired());
}

TEST(AudioSyncCorrector, GapIsFilledWithSilenceAndTrackAheadIsTrimmed) {
    AudioSyncCorrector sync(44100);
    (void)sync.place(std::chrono::milliseconds(0), 0, 4410, 44100);
    // 100 ms of capture went missing: the next buffer is stamped 200 ms but the track is at 100.
    auto p = sync.place(std::chrono::milliseconds(200), 4410, 4410, 44100);
    EXPECT_TRUE(p.corrected);
    EXPECT_EQ(p.silenceFrames, 4410);
    EXPECT_EQ(p.driftFrames, 4410);
    // The microphone's clock ran fast: the track is 60 ms ahead of the next timestamp.
    p = sync.place(std::chrono::milliseconds(300), 13230 + 2646, 4800, 48000);
    EXPECT_EQ(p.silenceFrames, 0);
    EXPECT_EQ(p.droppedInputFrames, 2880);  // 60 ms at 48 kHz
    EXPECT_EQ(sync.corrections(), 2);
    EXPECT_EQ(sync.silenceFramesInserted(), 4410);
    EXPECT_EQ(sync.inputFramesDropped(), 2880);
}

}  // namespace
}  // namespace gb
