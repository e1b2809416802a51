// Guards against: audio gaps left unfilled and a track running ahead of its timestamps.
#include <gtest/gtest.h>

#include <chrono>

#include "portable/audio_sync_corrector.h"

namespace gb::linuxp {
namespace {

using std::chrono::milliseconds;

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

}  // namespace
}  // namespace gb::linuxp
