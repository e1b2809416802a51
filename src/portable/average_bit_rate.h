// One-pass average bit-rate control for an encoder told the quantizer of each picture.
//
// x264's own ABR measures every picture's complexity on a half-size copy of it, which costs about
// as much as encoding a screen picture that barely changed. A screen recorder already knows how
// much of each picture changed, so that share stands in for the measure here; the rest follows
// x264's one-pass ABR: the quantizer that would have hit the wanted rate on the pictures so far,
// bent by the picture's complexity against the recent ones and by how far the bits spent are
// from the wanted total, moving at most a few steps from one picture to the next.
//
// Threads: one caller at a time (the encoder's thread). Plain value; owns nothing.
#pragma once
#include <cstdint>

namespace gb {

class AverageBitRate {
public:
    // `macroblocks` of the whole picture; `bitsPerSecond` the wanted average.
    AverageBitRate(int64_t bitsPerSecond, int macroblocks);

    // What one picture was given; handed back with its size once it is encoded, which may be
    // after later pictures were planned.
    struct Plan {
        int quantizer = 26;  // H.264's 0-51 scale
        double scale = 0;
        double complexityTerm = 1;
        double duration = 0;  // of the picture before it
        bool counted = false;
    };

    // The next picture: `changedMacroblocks` of it differ from the picture before, it starts
    // `seconds` after the first one, and is an intra picture when `keyFrame`.
    Plan plan(double seconds, int changedMacroblocks, bool keyFrame);
    void encoded(const Plan& plan, int64_t bits);

    // Finer than this spends the bits on what nobody sees (a camera corner at 0 cost a quarter
    // of a core) without sharper text.
    static constexpr int kLowest = 12;
    static constexpr int kHighest = 51;

private:
    double bitsPerSecond_;
    int macroblocks_;
    double complexitySum_ = 0;  // recent complexities, halved at every picture
    double complexityCount_ = 0;
    double weightedBits_;  // bits × quantizer scale / complexity term, over all pictures
    double wantedBits_;    // the wanted bits for the pictures coded so far
    int64_t spentBits_ = 0;
    double originSeconds_ = 0;  // moved on when a still screen left more than may be spent later
    double lastSeconds_ = 0;
    double lastDuration_ = 1.0 / 30;
    double lastScale_ = 0;  // of the last inter picture; 0 before the first
    double interQuantizerSum_ = 0;
    double interQuantizerCount_ = 0;
};

}  // namespace gb
