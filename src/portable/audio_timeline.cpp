#include "portable/audio_timeline.h"

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
    if (!anchored_) {
        start = measuredNanoseconds;
    } else {
        const int64_t deviation = measuredNanoseconds - predicted;
        const int64_t step = std::max<int64_t>(durationNanoseconds(frames) / 40, 1);
        if (deviation < -kToleranceNanoseconds) {
            // Measurements are never early: the timeline is ahead.
            start += std::max(deviation, -step);
            forwardNanoseconds_ = 0;
        } else if (forwardNanoseconds_ > 0) {
            const int64_t forward = std::min(forwardNanoseconds_, step);
            start += forward;
            forwardNanoseconds_ -= forward;
        }
        windowEarliestDeviation_ = std::min(windowEarliestDeviation_, deviation);
        windowFrames_ += frames;
        if (durationNanoseconds(windowFrames_) >= kWindowNanoseconds) {
            const int64_t behind = windowEarliestDeviation_;
            if (behind > kJumpNanoseconds) {
                ++jumps_;
                start = predicted + behind;
                forwardNanoseconds_ = 0;
            } else if (behind > kToleranceNanoseconds) {
                forwardNanoseconds_ = behind - (start - predicted);
            }
            windowFrames_ = 0;
            windowEarliestDeviation_ = std::numeric_limits<int64_t>::max();
        }
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
