#include "linux/ffmpeg/x264_encoder.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

extern "C" {
#include <x264.h>
}

namespace gb::linuxp {

std::unique_ptr<X264Encoder> X264Encoder::open(const Settings& s) {
    x264_param_t p;
    if (x264_param_default_preset(&p, s.preset.c_str(), "zerolatency") < 0) return nullptr;
    p.i_log_level = X264_LOG_ERROR;
    p.i_width = s.width;
    p.i_height = s.height;
    p.i_csp = X264_CSP_I420;
    // One thread and no lookahead: little memory, and each picture is out before the next.
    p.i_threads = 1;
    p.b_sliced_threads = 0;
    p.rc.i_lookahead = 0;
    p.i_sync_lookahead = 0;
    p.i_fps_num = static_cast<uint32_t>(s.frameRate.num);
    p.i_fps_den = static_cast<uint32_t>(s.frameRate.den);
    // Frames come when the screen changes: rate control follows their real times.
    p.b_vfr_input = 1;
    p.i_timebase_num = static_cast<uint32_t>(s.timeBase.num);
    p.i_timebase_den = static_cast<uint32_t>(s.timeBase.den);
    // The quantizer of each picture comes from our own average bit-rate control: x264's would
    // first measure every picture on a half-size copy, the larger part of the cost of a picture
    // that barely changed.
    p.rc.i_rc_method = X264_RC_CQP;
    // x264 holds a given quantizer within the span of its own constant ones for I, P and B
    // pictures, which these factors (its extremes) stretch beyond 0-51.
    p.rc.i_qp_constant = 26;
    p.rc.f_ip_factor = 0.01F;
    p.rc.f_pb_factor = 0.01F;
    p.b_cabac = s.cabac ? 1 : 0;
    // Weighted prediction would stop x264 from skipping unchanged macroblocks unanalysed.
    p.analyse.i_weighted_pred = X264_WEIGHTP_NONE;
    p.analyse.b_mb_info = 1;
    // x264 names a stream by the tools it used: High needs one of its own.
    if (s.profile == "high") p.analyse.b_transform_8x8 = 1;
    p.vui.b_fullrange = 0;
    p.vui.i_colorprim = 1;  // BT.709
    p.vui.i_transfer = 1;
    p.vui.i_colmatrix = 1;
    p.b_repeat_headers = 0;  // the container holds them
    p.b_annexb = 1;
    if (x264_param_apply_profile(&p, s.profile.c_str()) < 0) return nullptr;

    std::unique_ptr<X264Encoder> e(new X264Encoder());
    e->encoder_ = x264_encoder_open(&p);
    e->packet_ = av_packet_alloc();
    if (e->encoder_ == nullptr || e->packet_ == nullptr) return nullptr;
    e->width_ = s.width;
    e->height_ = s.height;
    e->timeBase_ = s.timeBase;
    e->rate_.emplace(s.bitRate, e->macroblocksAcross() * e->macroblocksDown());
    x264_nal_t* nals = nullptr;
    int count = 0;
    if (x264_encoder_headers(e->encoder_, &nals, &count) < 0) return nullptr;
    for (int i = 0; i < count; ++i) {
        auto& into = nals[i].i_type == NAL_SEI ? e->sei_ : e->headers_;
        into.insert(into.end(), nals[i].p_payload, nals[i].p_payload + nals[i].i_payload);
    }
    return e;
}

X264Encoder::~X264Encoder() {
    if (encoder_ != nullptr) x264_encoder_close(encoder_);
    av_packet_free(&packet_);
}

int X264Encoder::encode(const AVFrame* frame, bool keyFrame, const std::vector<uint8_t>& unchanged,
                        const Output& output) {
    x264_nal_t* nals = nullptr;
    int count = 0;
    x264_picture_t out;
    x264_picture_init(&out);
    if (frame == nullptr) {
        while (x264_encoder_delayed_frames(encoder_) > 0) {
            const int bytes = x264_encoder_encode(encoder_, &nals, &count, nullptr, &out);
            if (bytes < 0) return bytes;
            if (const int rc = emit(bytes, nals, count, &out, output); rc < 0) return rc;
        }
        return 0;
    }
    x264_picture_t in;
    x264_picture_init(&in);
    in.img.i_csp = X264_CSP_I420;
    in.img.i_plane = 3;
    for (int plane = 0; plane < 3; ++plane) {
        in.img.plane[plane] = frame->data[plane];
        in.img.i_stride[plane] = frame->linesize[plane];
    }
    in.i_pts = frame->pts;
    in.i_type = keyFrame ? X264_TYPE_IDR : X264_TYPE_AUTO;
    const size_t macroblocks = static_cast<size_t>(macroblocksAcross()) * macroblocksDown();
    const bool marked = unchanged.size() == macroblocks;
    const auto changed = marked ? std::count(unchanged.begin(), unchanged.end(), uint8_t{0})
                                : static_cast<std::ptrdiff_t>(macroblocks);
    if (firstPts_ == AV_NOPTS_VALUE) firstPts_ = frame->pts;
    const double seconds = static_cast<double>(frame->pts - firstPts_) * av_q2d(timeBase_);
    pending_.push_back(rate_->plan(seconds, static_cast<int>(changed), keyFrame));
    in.i_qpplus1 = pending_.back().quantizer + 1;
    if (marked) {
        // x264 may keep it past this call; it frees its own copy.
        auto* info = static_cast<uint8_t*>(std::malloc(macroblocks));
        if (info != nullptr) {
            for (size_t i = 0; i < macroblocks; ++i)
                info[i] = unchanged[i] != 0 ? X264_MBINFO_CONSTANT : 0;
            in.prop.mb_info = info;
            in.prop.mb_info_free = std::free;
        }
    }
    const int bytes = x264_encoder_encode(encoder_, &nals, &count, &in, &out);
    if (bytes < 0) return bytes;
    return emit(bytes, nals, count, &out, output);
}

int X264Encoder::emit(int bytes, void* nalList, int count, const void* picture,
                      const Output& output) {
    if (bytes == 0) return 0;
    // Pictures come out in the order they went in, one call late (x264 waits for the next one's
    // time to know how long each lasts).
    if (!pending_.empty()) {
        rate_->encoded(pending_.front(), int64_t{bytes} * 8);
        pending_.pop_front();
    }
    const auto* nals = static_cast<const x264_nal_t*>(nalList);
    const auto* pic = static_cast<const x264_picture_t*>(picture);
    const int extra = static_cast<int>(sei_.size());
    if (const int rc = av_new_packet(packet_, bytes + extra); rc < 0) return rc;
    uint8_t* at = packet_->data;
    if (extra > 0) {
        std::memcpy(at, sei_.data(), sei_.size());
        at += extra;
        sei_.clear();
    }
    for (int i = 0; i < count; ++i) {
        std::memcpy(at, nals[i].p_payload, static_cast<size_t>(nals[i].i_payload));
        at += nals[i].i_payload;
    }
    packet_->pts = pic->i_pts;
    packet_->dts = pic->i_dts;
    if (pic->b_keyframe) packet_->flags |= AV_PKT_FLAG_KEY;
    const int rc = output(packet_);
    av_packet_unref(packet_);
    return rc;
}

}  // namespace gb::linuxp
