// Guards against: a recording far off its 2 Mbit/s on content cheap or dear to code, or after a
// still screen; quantizers outside H.264's range.
#include <gtest/gtest.h>

#include <cmath>
#include <deque>

#include "portable/average_bit_rate.h"

namespace gb {
namespace {

constexpr int kMacroblocks = 120 * 68;  // 1920x1080
constexpr double kWanted = 2'000'000;

// Encodes `seconds` of pictures at `rate` a second, each changing `changed` macroblocks that cost
// `bitsAtTwentySix` bits apiece at quantizer 26 (and half as many six steps up). Sizes come back
// one picture late, as from x264. Returns the bits per second of the run.
double encode(AverageBitRate& control, double& clock, double seconds, double rate, int changed,
              double bitsAtTwentySix) {
    std::deque<std::pair<AverageBitRate::Plan, double>> inFlight;
    double spent = 0;
    const int pictures = static_cast<int>(seconds * rate);
    for (int i = 0; i < pictures; ++i, clock += 1 / rate) {
        const bool key = clock == 0;
        const auto plan = control.plan(clock, changed, key);
        EXPECT_GE(plan.quantizer, AverageBitRate::kLowest);
        EXPECT_LE(plan.quantizer, AverageBitRate::kHighest);
        const int coded = key ? kMacroblocks : changed;
        const double bits = 200 + coded * bitsAtTwentySix * std::exp2(-(plan.quantizer - 26) / 6.0);
        inFlight.emplace_back(plan, bits);
        if (inFlight.size() > 1) {
            control.encoded(inFlight.front().first, static_cast<int64_t>(inFlight.front().second));
            inFlight.pop_front();
        }
        spent += bits;
    }
    return spent / seconds;
}

TEST(AverageBitRateTest, SettlesOnTheWantedRateWhateverTheContentCosts) {
    for (const double perMacroblock : {10.0, 30.0, 100.0}) {
        AverageBitRate control(static_cast<int64_t>(kWanted), kMacroblocks);
        double clock = 0;
        encode(control, clock, 10, 30, kMacroblocks, perMacroblock);
        EXPECT_NEAR(encode(control, clock, 20, 30, kMacroblocks, perMacroblock), kWanted,
                    kWanted * 0.15)
            << perMacroblock << " bits a macroblock";
    }
}

TEST(AverageBitRateTest, AStillScreenLeavesOnlyALittleToSpendLater) {
    AverageBitRate control(static_cast<int64_t>(kWanted), kMacroblocks);
    double clock = 0;
    // A still screen leaves most of its budget, then scrolling that is dear to code.
    const double still = encode(control, clock, 20, 1, 40, 100);
    const double first = encode(control, clock, 20, 30, kMacroblocks, 100);
    const double then = encode(control, clock, 20, 30, kMacroblocks, 100);
    EXPECT_LT(still, kWanted / 4);
    // What was left is spent, but only a little of it: the minute stays within its budget.
    EXPECT_LT(first, 2 * kWanted);
    EXPECT_GT(then, 0.6 * kWanted);
    EXPECT_LT((still + first + then) / 3, 1.1 * kWanted);
}

TEST(AverageBitRateTest, ARepeatedPictureKeepsTheLastQuantizer) {
    AverageBitRate control(static_cast<int64_t>(kWanted), kMacroblocks);
    double clock = 0;
    encode(control, clock, 3, 30, kMacroblocks, 300);
    const auto changing = control.plan(clock, kMacroblocks, false);
    control.encoded(changing, 60'000);
    const auto repeated = control.plan(clock + 1, 0, false);
    EXPECT_FALSE(repeated.counted);
    EXPECT_NEAR(repeated.quantizer, changing.quantizer, 1);
}

}  // namespace
}  // namespace gb
