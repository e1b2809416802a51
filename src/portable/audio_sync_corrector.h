// Keeps recorded audio on the same timeline as the video over long recordings. Microphone
// buffers carry the capture time of their first frame; the movie's audio track is a plain run of
// samples. The corrector compares where a buffer should start (its timestamp relative to the
// session start) with where the run of samples has got to, and when the two drift apart by more
// than a tolerance (a gap in the capture, or a microphone clock that runs fast) it tells the
// writer to pad with silence or to drop the buffer's leading frames. Small jitter is left alone,
// so ordinary timestamp noise never cuts the sound.
//
// Plain value type; one writer thread uses it.
#pragma once

#include <chrono>
#include <cstdint>

namespace gb::linuxp {

class AudioSyncCorrector {
public:
    struct Placement {
        int64_t silenceFrames = 0;       // output-rate frames of silence to write before the buffer
        int64_t droppedInputFrames = 0;  // leading frames of the buffer to discard (input rate)
        // True when this placement corrects drift (not the first buffer's placement).
        bool corrected = false;
        // Where the buffer should start minus where the track has got to, in output frames
        // (positive: a gap; negative: the track is ahead).
        int64_t driftFrames = 0;
    };

    // Gaps longer than `maxSilence` are filled only that far: a timestamp that far off is more
    // likely wrong than a microphone that was silent for so long.
    explicit AudioSyncCorrector(int outputRate,
                                std::chrono::nanoseconds tolerance = std::chrono::milliseconds(40),
                                std::chrono::nanoseconds maxSilence = std::chrono::seconds(60));

    // Places a buffer of `inputFrames` frames at `inputRate` whose first frame was captured
    // `offset` after the session start, when `placedFrames` output frames have been laid down
    // so far. The first buffer is placed exactly (leading silence, or its frames before the
    // session start cut off); later ones only when the drift exceeds the tolerance.
    [[nodiscard]] Placement place(std::chrono::nanoseconds offset, int64_t placedFrames,
                                  int inputFrames, int inputRate);

    [[nodiscard]] int64_t corrections() const { return corrections_; }
    [[nodiscard]] int64_t silenceFramesInserted() const { return silenceFramesInserted_; }
    [[nodiscard]] int64_t inputFramesDropped() const { return inputFramesDropped_; }
    [[nodiscard]] int outputRate() const { return outputRate_; }

private:
    int outputRate_;
    int64_t toleranceFrames_;
    int64_t maxSilenceFrames_;
    bool started_ = false;
    int64_t corrections_ = 0;
    int64_t silenceFramesInserted_ = 0;
    int64_t inputFramesDropped_ = 0;
};

}  // namespace gb::linuxp
