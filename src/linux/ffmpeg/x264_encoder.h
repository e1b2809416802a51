// H.264 through libx264 itself, for what FFmpeg's wrapper cannot pass on: which macroblocks are
// the same as in the frame before, so that x264 skips them without analysis, and the quantizer
// of each picture from our own average bit-rate control, which needs no half-size analysis.
//
// Threads: one caller at a time (the writer's encoding thread). Owns its x264 encoder; the
// pictures passed in stay the caller's.
#pragma once
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/packet.h>
#include <libavutil/frame.h>
#include <libavutil/rational.h>
}

#include "portable/average_bit_rate.h"

struct x264_t;

namespace gb::linuxp {

class X264Encoder {
public:
    struct Settings {
        int width = 0;
        int height = 0;
        int64_t bitRate = 2'000'000;
        AVRational timeBase{1, 90000};
        AVRational frameRate{30, 1};
        std::string preset = "ultrafast";
        std::string profile = "main";  // baseline, main or high
        bool cabac = false;
    };
    // A packet of one encoded picture, its timestamps in the settings' time base.
    using Output = std::function<int(AVPacket*)>;

    // Null when x264 refuses the settings.
    [[nodiscard]] static std::unique_ptr<X264Encoder> open(const Settings& settings);
    X264Encoder(const X264Encoder&) = delete;
    X264Encoder& operator=(const X264Encoder&) = delete;
    ~X264Encoder();

    // The sequence and picture parameter sets, Annex B, for the container's header.
    [[nodiscard]] const std::vector<uint8_t>& headers() const { return headers_; }
    // Macroblocks across and down; `unchanged` below holds one byte per macroblock, row by row.
    [[nodiscard]] int macroblocksAcross() const { return (width_ + 15) / 16; }
    [[nodiscard]] int macroblocksDown() const { return (height_ + 15) / 16; }

    // Encodes a YUV 4:2:0 `frame` (its pts in the time base), or drains with null. `unchanged`,
    // if not empty, marks the macroblocks (non-zero) that are the same as in the frame before.
    // Returns 0, or the first negative value from x264 or `output`.
    int encode(const AVFrame* frame, bool keyFrame, const std::vector<uint8_t>& unchanged,
               const Output& output);

private:
    X264Encoder() = default;
    int emit(int bytes, void* nals, int count, const void* picture, const Output& output);

    x264_t* encoder_ = nullptr;
    int width_ = 0;
    int height_ = 0;
    std::vector<uint8_t> headers_;
    std::vector<uint8_t> sei_;  // x264's own SEI, sent with the first picture
    AVPacket* packet_ = nullptr;
    AVRational timeBase_{1, 90000};
    int64_t firstPts_ = AV_NOPTS_VALUE;
    std::optional<AverageBitRate> rate_;
    std::deque<AverageBitRate::Plan> pending_;  // pictures in x264, oldest first
};

}  // namespace gb::linuxp
