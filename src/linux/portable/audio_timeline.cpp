#include "linux/portable/audio_timeline.h"

#include <algorithm>

namespace gb {

int64_t AudioTimeline::durationNanoseconds(int64_t frames) const {
    // Split so that hours of frames do not overflow.
    const int64_t whole = frames / sampleRate_;
    const int64_t rest = frames % sampleRate_;
    return whole * 1'000'000'000 + rest * 1'000'000'000 / sampleRate_;
}

int64_t AudioTimeline::predictedNanoseconds() const {
    return anchorNanoseconds_ + durationNanoseconds(framesSinceAnchor_);
}

int64_t AudioTimeline::place(int64_t measuredNanoseconds, int64_t frames) {
    const int64_t predicted = predictedNanoseconds();
    int64_t start = predicted;
    const int64_t deviation = measuredNanoseconds - predicted;
    if (!anchored_ || deviation > kJumpNanoseconds) {
        if (anchored_) ++jumps_;
        start = measuredNanoseconds;
    } else if (deviation > kToleranceNanoseconds || deviation < -kToleranceNanoseconds) {
        const int64_t step = std::max<int64_t>(durationNanoseconds(frames) / 40, 1);
        start += std::clamp(deviation, -step, step);
    }
    if (anchored_ && start <= lastStartNanoseconds_) start = lastStartNanoseconds_ + 1;
    if (!anchored_ || start != predicted) {
        // Re-anchor only on a correction, so that an undisturbed stream stays sample exact.
        anchorNanoseconds_ = start;
        framesSinceAnchor_ = 0;
    }
    anchored_ = true;
    framesSinceAnchor_ += frames;
    lastStartNanoseconds_ = start;
    return start;
}

}  // namespace gb
