// Places captured audio chunks on the monotonic timeline. Each chunk comes with a measurement of
// when its first frame was recorded (the clock when it was read, minus what was buffered before
// it). A measurement can only be late, never early: a reader that was held up a while finds
// more data waiting than it can see, and takes old audio for new. The sound card's clock also
// drifts against the monotonic clock. So the chunks are laid end to end, and the timeline is
// steered towards the measurements:
// - a measurement earlier than the timeline proves it ahead: it steps back at once, by at most
//   1/40 of a chunk's duration per chunk (start times only ever increase);
// - a timeline behind the measurements is trusted only when the earliest measurement of a
//   quarter of a second of audio says so: then it moves forward by the same steps, or, when
//   audio was lost (more than 100 ms behind), jumps.
// Deviations up to 2 ms are jitter and change nothing.
//
// Threads: not synchronized; the capture thread owns it.
#pragma once

#include <cstdint>
#include <limits>

namespace gb {

class AudioTimeline {
public:
    // Deviations up to this are measurement jitter.
    static constexpr int64_t kToleranceNanoseconds = 2'000'000;
    // A timeline this far behind the earliest measurement of a window means frames were lost.
    static constexpr int64_t kJumpNanoseconds = 100'000'000;
    // How much audio the timeline looks at before it believes that it is behind.
    static constexpr int64_t kWindowNanoseconds = 250'000'000;

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
    // The window of measurements that may move the timeline forward.
    int64_t windowFrames_ = 0;
    int64_t windowEarliestDeviation_ = std::numeric_limits<int64_t>::max();
    // How far the timeline still has to move forward, a step per chunk.
    int64_t forwardNanoseconds_ = 0;
};

}  // namespace gb
