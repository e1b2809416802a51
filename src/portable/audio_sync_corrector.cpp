#include "portable/audio_sync_corrector.h"

#include <algorithm>

namespace gb::linuxp {
namespace {

// Frames at `rate` in `ns` nanoseconds, rounded to nearest.
int64_t framesIn(int64_t ns, int rate) {
    const __int128 scaled = static_cast<__int128>(ns) * rate;
    const __int128 half = scaled >= 0 ? 500'000'000 : -500'000'000;
    return static_cast<int64_t>((scaled + half) / 1'000'000'000);
}

// Nanoseconds spanned by `frames` at `rate`.
int64_t nanosecondsOf(int64_t frames, int rate) {
    return static_cast<int64_t>(static_cast<__int128>(frames) * 1'000'000'000 / rate);
}

}  // namespace

AudioSyncCorrector::AudioSyncCorrector(int outputRate, std::chrono::nanoseconds tolerance,
                                       std::chrono::nanoseconds maxSilence)
    : outputRate_(outputRate),
      toleranceFrames_(framesIn(tolerance.count(), outputRate)),
      maxSilenceFrames_(framesIn(maxSilence.count(), outputRate)) {}

AudioSyncCorrector::Placement AudioSyncCorrector::place(std::chrono::nanoseconds offset,
                                                        int64_t placedFrames, int inputFrames,
                                                        int inputRate) {
    Placement p;
    if (inputFrames <= 0 || inputRate <= 0) return p;
    const int64_t expected = framesIn(offset.count(), outputRate_);
    p.driftFrames = expected - placedFrames;

    const bool correct =
        !started_ || p.driftFrames > toleranceFrames_ || p.driftFrames < -toleranceFrames_;
    if (correct && p.driftFrames > 0) {
        p.silenceFrames = std::min(p.driftFrames, maxSilenceFrames_);
    } else if (correct && p.driftFrames < 0) {
        // Measured in time rather than output frames, so no rounding creeps in twice.
        const int64_t aheadNs = nanosecondsOf(placedFrames, outputRate_) - offset.count();
        p.droppedInputFrames = std::clamp<int64_t>(framesIn(aheadNs, inputRate), 0, inputFrames);
    }
    p.corrected = started_ && (p.silenceFrames > 0 || p.droppedInputFrames > 0);
    if (p.corrected) ++corrections_;
    silenceFramesInserted_ += p.silenceFrames;
    inputFramesDropped_ += p.droppedInputFrames;
    // The track has started once some of this buffer survives.
    if (p.droppedInputFrames < inputFrames) started_ = true;
    return p;
}

}  // namespace gb::linuxp
