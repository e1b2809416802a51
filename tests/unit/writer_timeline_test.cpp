// Placement of microphone audio on the movie's timeline.
#include <gtest/gtest.h>

#include <chrono>

#include "linux/portable/audio_sync_corrector.h"

namespace gb::linuxp {
namespace {

using std::chrono::milliseconds;

TEST(AudioSyncCorrector, FirstBufferIsPlacedExactlyAfterTheSessionStart) {
    // 10 ms late: well inside the tolerance, but the first buffer still gets its exact place.
    const auto late = AudioSyncCorrector(44100).place(milliseconds(10), 0, 480, 48000);
    EXPECT_EQ(late.silenceFrames, 441);
    EXPECT_EQ(late.droppedInputFrames, 0);
    EXPECT_FALSE(late.corrected);
    // 5 ms early: 240 of its 48 kHz frames come before time zero.
    const auto early = AudioSyncCorrector(44100).place(milliseconds(-5), 0, 480, 48000);
    EXPECT_EQ(early.silenceFrames, 0);
    EXPECT_EQ(early.droppedInputFrames, 240);
    // A buffer wholly before the start is dropped and the next one is still placed exactly.
    AudioSyncCorrector sync(44100);
    EXPECT_EQ(sync.place(milliseconds(-20), 0, 480, 48000).droppedInputFrames, 480);
    EXPECT_EQ(sync.place(milliseconds(2), 0, 480, 48000).silenceFrames, 88);
}

TEST(AudioSyncCorrector, JitterWithinToleranceIsLeftAlone) {
    AudioSyncCorrector sync(44100);
    (void)sync.place(milliseconds(0), 0, 441, 44100);
    // The track has 441 frames; timestamps say 10 ms +- 30 ms.
    for (int jitterMs : {-30, -10, 0, 25, 39}) {
        const auto p = sync.place(milliseconds(10 + jitterMs), 441, 441, 44100);
        EXPECT_EQ(p.silenceFrames, 0) << jitterMs;
        EXPECT_EQ(p.droppedInputFrames, 0) << jitterMs;
    }
    EXPECT_EQ(sync.corrections(), 0);
}

TEST(AudioSyncCorrector, GapIsFilledWithSilenceAndTrackAheadIsTrimmed) {
    AudioSyncCorrector sync(44100);
    (void)sync.place(milliseconds(0), 0, 4410, 44100);
    // 100 ms of capture went missing: the next buffer is stamped 200 ms but the track is at 100.
    auto p = sync.place(milliseconds(200), 4410, 4410, 44100);
    EXPECT_TRUE(p.corrected);
    EXPECT_EQ(p.silenceFrames, 4410);
    EXPECT_EQ(p.driftFrames, 4410);
    // The microphone's clock ran fast: the track is 60 ms ahead of the next timestamp.
    p = sync.place(milliseconds(300), 13230 + 2646, 4800, 48000);
    EXPECT_EQ(p.silenceFrames, 0);
    EXPECT_EQ(p.droppedInputFrames, 2880);  // 60 ms at 48 kHz
    EXPECT_EQ(sync.corrections(), 2);
    EXPECT_EQ(sync.silenceFramesInserted(), 4410);
    EXPECT_EQ(sync.inputFramesDropped(), 2880);
}

TEST(AudioSyncCorrector, CorrectionsAreBoundedByTheLimitAndTheBuffer) {
    AudioSyncCorrector sync(44100, milliseconds(40), std::chrono::seconds(60));
    (void)sync.place(milliseconds(0), 0, 441, 44100);
    // Stamped ten hours later: one minute of silence, not ten hours of it.
    EXPECT_EQ(sync.place(std::chrono::hours(10), 441, 441, 44100).silenceFrames, 60 * 44100);
    AudioSyncCorrector ahead(44100);
    (void)ahead.place(milliseconds(0), 0, 441, 44100);
    EXPECT_EQ(ahead.place(milliseconds(0), 44100, 480, 48000).droppedInputFrames, 480);
}

}  // namespace
}  // namespace gb::linuxp
