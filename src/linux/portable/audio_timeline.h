// Places captured audio chunks on the monotonic timeline. Each chunk comes with a measurement of
// when its first frame was recorded (the clock at arrival minus the server's latency); that
// measurement jitters by a millisecond or two and the sound card's clock drifts against the
// monotonic clock, so the chunks are laid end to end instead, and the timeline is steered towards
// the measurements: small deviations are ignored, larger ones are worked off by at most 1/40 of a
// chunk's duration per chunk, and audio that was lost (a measurement far ahead of the timeline)
// makes it jump forward. Start times only ever increase.
//
// Threads: not synchronized; the capture thread owns it.
#pragma once

#include <cstdint>

namespace gb {

class AudioTimeline {
public:
    // Deviations up to this are measurement jitter.
    static constexpr int64_t kToleranceNanoseconds = 2'000'000;
    // A measurement this far ahead means frames were lost: jump.
    static constexpr int64_t kJumpNanoseconds = 100'000'000;

    explicit AudioTimeline(int sampleRate) : sampleRate_(sampleRate) {}

    // The start time, in monotonic nanoseconds, of a chunk of `frames` frames whose first frame
    // was measured at `measuredNanoseconds`; the timeline moves past the chunk.
    [[nodiscard]] int64_t place(int64_t measuredNanoseconds, int64_t frames);
    // Frames that the server reported missing (a hole): the next chunk starts after them.
    void skip(int64_t frames) { framesSinceAnchor_ += frames; }
    // The time at which the next chunk would start, without a measurement.
    [[nodiscard]] int64_t predictedNanoseconds() const;
    [[nodiscard]] int64_t durationNanoseconds(int64_t frames) const;
    // How often the timeline jumped after its start (lost audio).
    [[nodiscard]] int64_t jumps() const { return jumps_; }

private:
    const int sampleRate_;
    bool anchored_ = false;
    int64_t anchorNanoseconds_ = 0;
    int64_t framesSinceAnchor_ = 0;
    int64_t lastStartNanoseconds_ = 0;
    int64_t jumps_ = 0;
};

}  // namespace gb
