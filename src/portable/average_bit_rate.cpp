#include "portable/average_bit_rate.h"

#include <algorithm>
#include <cmath>

namespace gb {
namespace {

constexpr double kComplexityWeight = 0.4;  // x264's 1 - qcompress
constexpr double kIntraFactor = 1.4;       // intra pictures get a scale this much finer
constexpr double kStartQuantizer = 20;     // for a wholly new picture before anything is known
const double kStep = std::exp2(4.0 / 6);   // at most 4 quantizer steps between inter pictures
constexpr double kSavedSeconds = 2;        // of the rate, that a still screen may leave for later
constexpr double kMemorySeconds = 10;

double scaleOf(double quantizer) {
    return 0.85 * std::exp2((quantizer - 12) / 6);
}
double quantizerOf(double scale) {
    return 12 + 6 * std::log2(scale / 0.85);
}
// A picture's time on screen, as x264 bounds it.
double clippedDuration(double seconds) {
    return std::clamp(seconds, 0.01, 1.0);
}

}  // namespace

AverageBitRate::AverageBitRate(int64_t bitsPerSecond, int macroblocks)
    : bitsPerSecond_(static_cast<double>(std::max<int64_t>(bitsPerSecond, 1))),
      macroblocks_(std::max(macroblocks, 1)) {
    // Seeded so that a wholly new picture at 30 a second starts at kStartQuantizer.
    wantedBits_ = bitsPerSecond_ / 30;
    const double wholePicture = std::pow(macroblocks_ / (1.0 / 30 / 0.04), kComplexityWeight);
    weightedBits_ = scaleOf(kStartQuantizer) * wantedBits_ / wholePicture;
}

AverageBitRate::Plan AverageBitRate::plan(double seconds, int changedMacroblocks, bool keyFrame) {
    const double duration = clippedDuration(seconds - lastSeconds_);
    if (seconds > lastSeconds_) lastDuration_ = duration;
    lastSeconds_ = std::max(lastSeconds_, seconds);

    const int changed = keyFrame ? macroblocks_ : std::clamp(changedMacroblocks, 0, macroblocks_);
    Plan planned;
    planned.duration = lastDuration_;
    planned.counted = changed > 0;
    if (!planned.counted) {
        // Nothing new: every macroblock is skipped and the quantizer hardly matters.
        const double scale = lastScale_ > 0 ? lastScale_ : scaleOf(kStartQuantizer);
        planned.quantizer = static_cast<int>(
            std::lround(std::clamp(quantizerOf(scale), double{kLowest}, double{kHighest})));
        return planned;
    }

    // Longer-lived pictures count as simpler, so they get more of the bits.
    complexitySum_ = complexitySum_ * 0.5 + changed / (lastDuration_ / 0.04);
    complexityCount_ = complexityCount_ * 0.5 + 1;
    planned.complexityTerm = std::pow(complexitySum_ / complexityCount_, kComplexityWeight);
    double scale = planned.complexityTerm * weightedBits_ / wantedBits_;

    // A still screen spends little; only a few seconds' worth of what it left may be spent later,
    // or the first busy minute after a quiet one would take several times the rate.
    double wanted = (seconds - originSeconds_) * bitsPerSecond_;
    const double spent = static_cast<double>(spentBits_);
    if (wanted - spent > kSavedSeconds * bitsPerSecond_) {
        wanted = spent + kSavedSeconds * bitsPerSecond_;
        originSeconds_ = seconds - wanted / bitsPerSecond_;
    }
    double overflow = 1;
    if (wanted > 0) {
        const double buffer = 2 * bitsPerSecond_ * std::max(1.0, std::sqrt(seconds));
        overflow = std::clamp(1 + (spent - wanted) / buffer, 0.5, 2.0);
        scale *= overflow;
    }

    if (keyFrame && interQuantizerCount_ > 0) {
        scale = scaleOf(interQuantizerSum_ / interQuantizerCount_) / kIntraFactor;
    } else if (!keyFrame && lastScale_ > 0) {
        // Wider downwards while over budget, wider upwards while under it.
        double lowest = lastScale_ / kStep;
        double highest = lastScale_ * kStep;
        if (overflow > 1.1) highest *= kStep;
        if (overflow < 0.9) lowest /= kStep;
        scale = std::clamp(scale, lowest, highest);
    }
    const double quantizer = std::clamp(quantizerOf(scale), double{kLowest}, double{kHighest});
    planned.quantizer = static_cast<int>(std::lround(quantizer));
    planned.scale = scaleOf(planned.quantizer);
    if (!keyFrame) {
        lastScale_ = scaleOf(quantizer);
        interQuantizerSum_ = interQuantizerSum_ * 0.95 + quantizer;
        interQuantizerCount_ = interQuantizerCount_ * 0.95 + 1;
    } else if (lastScale_ == 0) {
        lastScale_ = scaleOf(quantizer) * kIntraFactor;
    }
    return planned;
}

void AverageBitRate::encoded(const Plan& plan, int64_t bits) {
    spentBits_ += std::max<int64_t>(bits, 0);
    // The rate factor follows the last few seconds, not the whole recording.
    const double keep = std::exp(-plan.duration / kMemorySeconds);
    wantedBits_ = wantedBits_ * keep + plan.duration * bitsPerSecond_;
    weightedBits_ *= keep;
    if (plan.counted) weightedBits_ += static_cast<double>(bits) * plan.scale / plan.complexityTerm;
}

}  // namespace gb
