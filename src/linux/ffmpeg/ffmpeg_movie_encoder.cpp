#include "linux/ffmpeg/ffmpeg_movie_encoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include "recording/log.h"

namespace gb::linuxp {
namespace {

constexpr AVRational kVideoTimeBase{1, 90'000};
constexpr uint32_t kAacFormatID = 0x61616320;  // "aac "
constexpr std::chrono::seconds kCorrectionLogSpacing{60};
// A key frame at least this often on the timeline, however sparse the frames: players seek to them.
constexpr int64_t kKeyFrameTicks = 10 * 90'000;
// Changed pictures are converted in bands of rows; a whole number of chroma rows.
constexpr int kBandRows = 16;

int64_t ticksFromNanoseconds(int64_t ns, AVRational timeBase) {
    return av_rescale_q_rnd(ns, AVRational{1, 1'000'000'000}, timeBase,
                            static_cast<AVRounding>(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
}

const char* x264Profile(const std::string& profileLevel) {
    if (profileLevel.find("Baseline") != std::string::npos) return "baseline";
    if (profileLevel.find("High") != std::string::npos) return "high";
    return "main";
}

// x264 labels a stream by the tools it used: CAVLC without B-frames is Baseline. Such a stream
// keeps to constrained Baseline, which every Main decoder plays, so it may say Main as asked
// rather than buy the label with weighted prediction (a quarter of the time of a still frame).
void labelMain(uint8_t* headers, int size) {
    for (int i = 0; i + 4 < size; ++i) {
        const bool spsStart = headers[i] == 0 && headers[i + 1] == 0 && headers[i + 2] == 1 &&
                              (headers[i + 3] & 0x1f) == 7;
        if (spsStart && headers[i + 4] == 66) headers[i + 4] = 77;
    }
}

int bytesPerSample(AudioSampleFormat format) {
    return format == AudioSampleFormat::s16 ? 2 : 4;
}

int64_t millisecondsOf(int64_t frames, int rate) {
    return rate > 0 ? frames * 1000 / rate : 0;
}

}  // namespace

MovieEncoder::MovieEncoder(std::string path, std::chrono::milliseconds commitInterval,
                           std::string preset)
    : path_(std::move(path)), commitInterval_(commitInterval), x264Preset_(std::move(preset)) {}

MovieEncoder::~MovieEncoder() = default;

Result<std::unique_ptr<MovieEncoder>> MovieEncoder::create(const Config& config) {
    std::unique_ptr<MovieEncoder> encoder(
        new MovieEncoder(config.path, config.commitInterval, config.x264Preset));
    encoder->packet_.reset(av_packet_alloc());
    AVFormatContext* muxer = nullptr;
    if (avformat_alloc_output_context2(&muxer, nullptr, "mov", nullptr) < 0 || !muxer ||
        !encoder->packet_) {
        return writerError(WriterErrorCode::encoderUnavailable,
                           "This system's FFmpeg cannot write QuickTime movies.");
    }
    encoder->muxer_.reset(muxer);
    // Audio first: its priming decides the shift that the video timestamps carry as well.
    if (config.audio) {
        if (auto opened = encoder->openAudio(*config.audio); !opened) return opened.error();
    }
    if (config.video) {
        if (auto opened = encoder->openVideo(*config.video); !opened) return opened.error();
    }
    if (auto opened = encoder->openFile(); !opened) {
        // A disk full at the start leaves no empty file behind.
        if (encoder->file_) encoder->file_->discard();
        return opened.error();
    }
    return encoder;
}

Result<void> MovieEncoder::openVideo(const VideoOutputSettingsForWriter& settings) {
    // 4:2:0 needs even sizes; an odd size loses its last row or column.
    const int width = settings.width & ~1;
    const int height = settings.height & ~1;
    if (width < 2 || height < 2 || (!settings.codec.empty() && settings.codec != "avc1")) {
        return writerError(WriterErrorCode::invalidSettings,
                           "The video settings ask for an unsupported format (" + settings.codec +
                               ", " + std::to_string(settings.width) + "x" +
                               std::to_string(settings.height) + ").");
    }
    const char* profile = x264Profile(settings.compression.profileLevel);
    X264Encoder::Settings x264;
    x264.width = width;
    x264.height = height;
    x264.bitRate =
        settings.compression.averageBitRate > 0 ? settings.compression.averageBitRate : 2'000'000;
    x264.timeBase = kVideoTimeBase;
    x264.preset = x264Preset_;
    x264.profile = profile;
    x264.cabac =
        settings.compression.entropyMode == "CABAC" && std::strcmp(profile, "baseline") != 0;
    video_ = X264Encoder::open(x264);
    if (!video_) {
        return writerError(WriterErrorCode::encoderUnavailable,
                           "The H.264 encoder couldn't be started (libx264 refused " +
                               std::to_string(width) + "x" + std::to_string(height) + ").");
    }
    videoHeaders_ = video_->headers();
    if (std::strcmp(profile, "main") == 0) {
        labelMain(videoHeaders_.data(), static_cast<int>(videoHeaders_.size()));
    }

    videoStream_ = avformat_new_stream(muxer_.get(), nullptr);
    if (videoStream_ == nullptr) {
        return fileOrCodecError(AVERROR(ENOMEM), "The video track couldn't be created");
    }
    videoStream_->time_base = kVideoTimeBase;
    AVCodecParameters* par = videoStream_->codecpar;
    par->codec_type = AVMEDIA_TYPE_VIDEO;
    par->codec_id = AV_CODEC_ID_H264;
    par->format = AV_PIX_FMT_YUV420P;
    par->width = width;
    par->height = height;
    par->bit_rate = x264.bitRate;
    par->color_range = AVCOL_RANGE_MPEG;
    par->color_space = AVCOL_SPC_BT709;
    par->color_primaries = AVCOL_PRI_BT709;
    par->color_trc = AVCOL_TRC_BT709;
    par->extradata =
        static_cast<uint8_t*>(av_mallocz(videoHeaders_.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (par->extradata == nullptr) {
        return fileOrCodecError(AVERROR(ENOMEM), "The video track couldn't be created");
    }
    std::memcpy(par->extradata, videoHeaders_.data(), videoHeaders_.size());
    par->extradata_size = static_cast<int>(videoHeaders_.size());

    videoFrame_.reset(av_frame_alloc());
    if (!videoFrame_) return fileOrCodecError(AVERROR(ENOMEM), "The video frame couldn't be made");
    videoFrame_->format = AV_PIX_FMT_YUV420P;
    videoFrame_->width = width;
    videoFrame_->height = height;
    if (const int got = av_frame_get_buffer(videoFrame_.get(), 0); got < 0) {
        return fileOrCodecError(got, "The video frame couldn't be made");
    }
    videoShiftTicks_ = av_rescale_q(shiftMicroseconds_, AV_TIME_BASE_Q, kVideoTimeBase);
    return {};
}

Result<void> MovieEncoder::openAudio(const AudioOutputSettingsForWriter& settings) {
    const int channels = settings.numberOfChannels > 0 ? settings.numberOfChannels : 2;
    const int rate =
        settings.sampleRate > 0 ? static_cast<int>(std::lround(settings.sampleRate)) : 44'100;
    if ((settings.formatID != 0 && settings.formatID != kAacFormatID) || channels > 2) {
        return writerError(WriterErrorCode::invalidSettings,
                           "The audio settings ask for an unsupported format (" +
                               std::to_string(channels) + " channels at " + std::to_string(rate) +
                               " Hz).");
    }
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
    if (codec == nullptr) {
        return writerError(WriterErrorCode::encoderUnavailable,
                           "This system's FFmpeg has no AAC encoder.");
    }
    audio_.reset(avcodec_alloc_context3(codec));
    if (!audio_) return fileOrCodecError(AVERROR(ENOMEM), "The AAC encoder couldn't be started");
    AVCodecContext* c = audio_.get();
    c->sample_fmt = AV_SAMPLE_FMT_FLTP;
    c->sample_rate = rate;
    av_channel_layout_default(&c->ch_layout, channels);
    c->bit_rate = settings.encoderBitRate > 0 ? settings.encoderBitRate : 128'000;
    c->profile = FF_PROFILE_AAC_LOW;
    c->time_base = AVRational{1, rate};
    c->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    // FFmpeg's default AAC search costs a still screen's recording half its CPU; its fast coder
    // takes half that, and FFmpeg documents it as worse only below 64 kbit/s. Noise substitution
    // and intensity stereo are for lower rates.
    AVDictionary* aacOptions = nullptr;
    av_dict_set(&aacOptions, "aac_coder", "fast", 0);
    av_dict_set(&aacOptions, "aac_pns", "0", 0);
    av_dict_set(&aacOptions, "aac_is", "0", 0);
    const int opened = avcodec_open2(c, codec, &aacOptions);
    av_dict_free(&aacOptions);
    if (opened < 0) return fileOrCodecError(opened, "The AAC encoder couldn't be started");
    audioStream_ = avformat_new_stream(muxer_.get(), nullptr);
    if (audioStream_ == nullptr) {
        return fileOrCodecError(AVERROR(ENOMEM), "The audio track couldn't be created");
    }
    audioStream_->time_base = c->time_base;
    avcodec_parameters_from_context(audioStream_->codecpar, c);

    audioFrame_.reset(av_frame_alloc());
    fifo_.reset(av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, channels, 4 * c->frame_size));
    if (!audioFrame_ || !fifo_) {
        return fileOrCodecError(AVERROR(ENOMEM), "The audio buffers couldn't be made");
    }
    audioShiftTicks_ = c->initial_padding;
    shiftMicroseconds_ = av_rescale_q(audioShiftTicks_, c->time_base, AV_TIME_BASE_Q);
    corrector_.emplace(rate);
    return {};
}

Result<void> MovieEncoder::openFile() {
    auto created = FileOutput::create(path_);
    if (!created) return created.error();
    file_ = std::move(created.value());
    AVFormatContext* m = muxer_.get();
    m->pb = file_->io();
    m->flags |= AVFMT_FLAG_CUSTOM_IO;
    // Times are already non-negative (see the shift); never let the muxer move them.
    m->avoid_negative_ts = AVFMT_AVOID_NEG_TS_DISABLED;
    AVDictionary* options = nullptr;
    // An empty index up front, then self-contained fragments that we seal ourselves.
    av_dict_set(&options, "movflags", "empty_moov+default_base_moof+frag_custom+frag_discont", 0);
    av_dict_set(&options, "use_editlist", "0", 0);
    const int rc = avformat_write_header(m, &options);
    av_dict_free(&options);
    if (rc < 0) return fileOrCodecError(rc, "The movie header couldn't be written");
    if (auto flushed = file_->flush(/*durable=*/true); !flushed) return flushed.error();
    committedBytes_ = file_->position();
    lastCommit_ = std::chrono::steady_clock::now();
    return {};
}

PlatformError MovieEncoder::fileOrCodecError(int averror, const char* what) const {
    if (file_ && (file_->io()->error < 0 || averror == AVERROR(EIO) || averror == AVERROR(ENOSPC) ||
                  averror == AVERROR(EFBIG) || averror == AVERROR(EDQUOT))) {
        return file_->writeError();
    }
    return writerError(WriterErrorCode::encodeFailed,
                       std::string(what) + ": " + avErrorText(averror) + ".");
}

// ---- video ---------------------------------------------------------------------------------

Result<void> MovieEncoder::convertPicture(const PixelBuffer& picture) {
    AVFrame* frame = videoFrame_.get();
    if (picture.width() != sourceWidth_ || picture.height() != sourceHeight_) {
        sourceWidth_ = picture.width();
        sourceHeight_ = picture.height();
        picture_ = letterboxRect(sourceWidth_, sourceHeight_, frame->width, frame->height);
        unscaled_ = picture_.width == sourceWidth_ && picture_.height == sourceHeight_ &&
                    picture_.width == frame->width && picture_.height == frame->height;
        scaler_.reset();
        if (!unscaled_) {
            scaler_.reset(sws_getContext(sourceWidth_, sourceHeight_, AV_PIX_FMT_BGRA,
                                         picture_.width, picture_.height, AV_PIX_FMT_YUV420P,
                                         SWS_BILINEAR, nullptr, nullptr, nullptr));
            if (!scaler_) {
                sourceWidth_ = sourceHeight_ = 0;  // the next picture tries again, never unscaled
                return writerError(WriterErrorCode::encodeFailed,
                                   "Frames of " + std::to_string(sourceWidth_) + "x" +
                                       std::to_string(sourceHeight_) + " can't be converted.");
            }
            // Full-range RGB in, BT.709 limited-range video out (as the stream is tagged).
            const int* rgb = sws_getCoefficients(SWS_CS_DEFAULT);
            const int* bt709 = sws_getCoefficients(SWS_CS_ITU709);
            sws_setColorspaceDetails(scaler_.get(), rgb, 1, bt709, 0, 0, 1 << 16, 1 << 16);
        }
        convertedPicture_ = 0;
        if (picture_.width != frame->width || picture_.height != frame->height) {
            logLine("Writer: letterboxing " + std::to_string(sourceWidth_) + "x" +
                    std::to_string(sourceHeight_) + " frames into " + std::to_string(frame->width) +
                    "x" + std::to_string(frame->height));
        }
    }
    if (const int rc = av_frame_make_writable(frame); rc < 0) {
        return fileOrCodecError(rc, "The video frame couldn't be made");
    }
    // The frame still holds the last picture converted: redo only what changed since.
    const PictureChanges& changes = picture.changes();
    if (unscaled_ && convertedPicture_ != 0 &&
        (changes.picture == convertedPicture_ || changes.relativeTo(convertedPicture_))) {
        const bool same = changes.picture == convertedPicture_;
        if (!same) convertChanges(picture);
        convertedPicture_ = changes.picture;
        // x264 skips the macroblocks that no change touched without looking at them.
        const int across = video_->macroblocksAcross();
        const int down = video_->macroblocksDown();
        unchangedMacroblocks_.assign(static_cast<size_t>(across) * down, 1);
        for (const PixelArea& area : same ? std::vector<PixelArea>{} : changes.areas) {
            const int x0 = std::clamp(area.x / 16, 0, across);
            const int x1 = std::clamp((area.x + area.width + 15) / 16, 0, across);
            const int y0 = std::clamp(area.y / 16, 0, down);
            const int y1 = std::clamp((area.y + area.height + 15) / 16, 0, down);
            for (int y = y0; y < y1; ++y) {
                std::fill_n(unchangedMacroblocks_.begin() + static_cast<ptrdiff_t>(y) * across + x0,
                            std::max(0, x1 - x0), 0);
            }
        }
        return {};
    }
    unchangedMacroblocks_.clear();
    convertedPicture_ = changes.picture;
    if (unscaled_) {
        convertBgraToI420(picture.baseAddress(), picture.bytesPerRow(), sourceWidth_, sourceHeight_,
                          planesAt(0, 0));
        return {};
    }
    if (picture_.width != frame->width || picture_.height != frame->height) {
        for (int plane = 0; plane < 3; ++plane) {
            const int rows = plane == 0 ? frame->height : (frame->height + 1) / 2;
            std::memset(frame->data[plane], plane == 0 ? 16 : 128,
                        static_cast<size_t>(frame->linesize[plane]) * rows);
        }
    }
    const I420Planes at = planesAt(picture_.x, picture_.y);
    uint8_t* destination[4] = {at.y, at.u, at.v, nullptr};
    const uint8_t* source[4] = {picture.baseAddress(), nullptr, nullptr, nullptr};
    const int sourceStride[4] = {static_cast<int>(picture.bytesPerRow()), 0, 0, 0};
    sws_scale(scaler_.get(), source, sourceStride, 0, sourceHeight_, destination, frame->linesize);
    return {};
}

I420Planes MovieEncoder::planesAt(int x, int y) const {
    const AVFrame* frame = videoFrame_.get();
    const auto stride = [frame](int plane) { return static_cast<size_t>(frame->linesize[plane]); };
    return {frame->data[0] + static_cast<size_t>(y) * stride(0) + x,         stride(0),
            frame->data[1] + static_cast<size_t>(y / 2) * stride(1) + x / 2, stride(1),
            frame->data[2] + static_cast<size_t>(y / 2) * stride(2) + x / 2, stride(2)};
}

void MovieEncoder::convertChanges(const PixelBuffer& picture) {
    const int bands = (sourceHeight_ + kBandRows - 1) / kBandRows;
    // Per band of rows, the columns that changed: [left, right), empty when left >= right.
    changedBands_.assign(static_cast<size_t>(bands), {sourceWidth_, 0});
    for (const PixelArea& area : picture.changes().areas) {
        const int first = std::clamp(area.y / kBandRows, 0, bands);
        const int last = std::clamp((area.y + area.height + kBandRows - 1) / kBandRows, 0, bands);
        // Even columns, so that chroma covers the same pixel pairs as a whole conversion.
        const int left = std::clamp(area.x / 2 * 2, 0, sourceWidth_);
        const int right = std::clamp((area.x + area.width + 1) / 2 * 2, 0, sourceWidth_);
        for (int band = first; band < last; ++band) {
            auto& [from, to] = changedBands_[static_cast<size_t>(band)];
            from = std::min(from, left);
            to = std::max(to, right);
        }
    }
    for (int band = 0; band < bands; ++band) {
        const auto [left, right] = changedBands_[static_cast<size_t>(band)];
        if (left >= right) continue;
        const int top = band * kBandRows;
        convertBgraToI420(picture.baseAddress() + static_cast<size_t>(top) * picture.bytesPerRow() +
                              static_cast<size_t>(left) * 4,
                          picture.bytesPerRow(), right - left,
                          std::min(kBandRows, sourceHeight_ - top), planesAt(left, top));
    }
}

Result<void> MovieEncoder::encodeVideo(SampleBufferRef sample, MediaTime sessionStart) {
    if (!video_ || !sample || !sample->imageBuffer()) return {};
    const PixelBuffer& picture = *sample->imageBuffer();
    if (picture.baseAddress() == nullptr || picture.width() <= 0 || picture.height() <= 0)
        return {};
    const int64_t offsetNs = sample->presentationTime().nanoseconds() - sessionStart.nanoseconds();
    if (offsetNs < 0) {
        ++stats_.videoFramesBeforeStart;
        return {};
    }
    const int64_t pts = ticksFromNanoseconds(offsetNs, kVideoTimeBase) + videoShiftTicks_;
    if (pts <= lastVideoPts_) {
        ++stats_.videoFramesOutOfOrder;
        return {};
    }
    // How long this frame shows. Only the last frame of a fragment needs it (the others end where
    // the next one starts), and it must not reach into the next fragment's first frame, which
    // capture jitter can bring a little early: half the last interval, or half the nominal one.
    int64_t nominal = 3000;
    if (const MediaTime d = sample->timing().duration; d.isValid() && d.value > 0) {
        nominal = ticksFromNanoseconds(d.nanoseconds(), kVideoTimeBase);
    }
    const int64_t interval = lastVideoPts_ >= 0 ? pts - lastVideoPts_ : nominal;
    const int64_t duration = std::clamp<int64_t>(std::min(interval, nominal) / 2, 1, 4500);
    lastVideoPts_ = pts;
    videoEndNs_ = offsetNs + av_rescale_q(duration, kVideoTimeBase, AVRational{1, 1'000'000'000});

    if (auto converted = convertPicture(picture); !converted) return converted;
    sample.reset();  // the capture buffer goes back to its pool before the slow part

    videoFrame_->pts = pts;
    const bool keyFrameDue = lastKeyPts_ < 0 || pts - lastKeyPts_ >= kKeyFrameTicks;
    if (keyFrameDue) lastKeyPts_ = pts;
    videoDurations_[videoDurationNext_++ % videoDurations_.size()] = {pts, duration};
    ++stats_.videoFramesEncoded;
    return sendVideo(videoFrame_.get(), keyFrameDue);
}

// ---- audio ---------------------------------------------------------------------------------

Result<void> MovieEncoder::ensureResampler(const AudioBuffer& audio) {
    if (resampler_ && audio.sampleRate == resamplerRate_ && audio.channels == resamplerChannels_ &&
        audio.format == resamplerFormat_) {
        return {};
    }
    if (resampler_) {
        logLine("Writer: microphone format changed to " + std::to_string(audio.channels) +
                " channels at " + std::to_string(audio.sampleRate) + " Hz");
    }
    AVChannelLayout in{};
    av_channel_layout_default(&in, audio.channels);
    SwrContext* raw = nullptr;
    int rc = swr_alloc_set_opts2(
        &raw, &audio_->ch_layout, AV_SAMPLE_FMT_FLTP, audio_->sample_rate, &in,
        audio.format == AudioSampleFormat::s16 ? AV_SAMPLE_FMT_S16 : AV_SAMPLE_FMT_FLT,
        audio.sampleRate, 0, nullptr);
    av_channel_layout_uninit(&in);
    SwrPtr swr(raw);
    if (rc >= 0 && audio.channels == 1 && audio_->ch_layout.nb_channels == 2) {
        // A mono microphone plays at full level on both sides (the default mix halves power).
        const double both[2] = {1.0, 1.0};
        rc = swr_set_matrix(swr.get(), both, 1);
    }
    if (rc >= 0) rc = swr_init(swr.get());
    if (rc < 0) {
        return writerError(WriterErrorCode::encodeFailed,
                           "Microphone audio of " + std::to_string(audio.channels) +
                               " channels at " + std::to_string(audio.sampleRate) +
                               " Hz can't be converted: " + avErrorText(rc) + ".");
    }
    resampler_ = std::move(swr);
    resamplerRate_ = audio.sampleRate;
    resamplerChannels_ = audio.channels;
    resamplerFormat_ = audio.format;
    return {};
}

int64_t MovieEncoder::audioFramesPlaced() const {
    int64_t placed = audioFramesSent_ + av_audio_fifo_size(fifo_.get());
    if (resampler_) placed += swr_get_delay(resampler_.get(), audio_->sample_rate);
    return placed;
}

Result<void> MovieEncoder::writeSilence(int64_t frames) {
    for (auto& plane : staging_) {
        if (plane.size() < 4096) plane.resize(4096);
        std::fill(plane.begin(), plane.end(), 0.0f);
    }
    while (frames > 0) {
        const int chunk = static_cast<int>(std::min<int64_t>(frames, 4096));
        void* planes[2] = {staging_[0].data(), staging_[1].data()};
        if (av_audio_fifo_write(fifo_.get(), planes, chunk) < chunk) {
            return fileOrCodecError(AVERROR(ENOMEM), "The audio couldn't be buffered");
        }
        frames -= chunk;
        if (auto encoded = encodeQueuedAudio(false); !encoded) return encoded;
    }
    return {};
}

Result<void> MovieEncoder::pushAudio(const uint8_t* data, int frames) {
    const int capacity = swr_get_out_samples(resampler_.get(), frames);
    if (capacity < 0) return fileOrCodecError(capacity, "The audio couldn't be converted");
    for (auto& plane : staging_) {
        if (plane.size() < static_cast<size_t>(capacity))
            plane.resize(static_cast<size_t>(capacity));
    }
    uint8_t* out[2] = {reinterpret_cast<uint8_t*>(staging_[0].data()),
                       reinterpret_cast<uint8_t*>(staging_[1].data())};
    const uint8_t* in[1] = {data};
    const int converted = swr_convert(resampler_.get(), out, capacity, data ? in : nullptr, frames);
    if (converted < 0) return fileOrCodecError(converted, "The audio couldn't be converted");
    void* planes[2] = {staging_[0].data(), staging_[1].data()};
    if (converted > 0 && av_audio_fifo_write(fifo_.get(), planes, converted) < converted) {
        return fileOrCodecError(AVERROR(ENOMEM), "The audio couldn't be buffered");
    }
    return encodeQueuedAudio(false);
}

Result<void> MovieEncoder::encodeAudio(SampleBufferRef sample, MediaTime sessionStart) {
    if (!audio_ || !sample || !sample->audioBuffer()) return {};
    const AudioBuffer& audio = *sample->audioBuffer();
    const int frameBytes = audio.channels * bytesPerSample(audio.format);
    if (audio.sampleRate <= 0 || audio.channels <= 0 || audio.frameCount <= 0 ||
        audio.data.size() < static_cast<size_t>(audio.frameCount) * frameBytes) {
        return {};
    }
    if (auto ready = ensureResampler(audio); !ready) return ready;

    const int64_t offsetNs = sample->presentationTime().nanoseconds() - sessionStart.nanoseconds();
    const auto placement =
        corrector_->place(std::chrono::nanoseconds(offsetNs), audioFramesPlaced(), audio.frameCount,
                          audio.sampleRate);
    if (placement.droppedInputFrames >= audio.frameCount && offsetNs < 0) {
        ++stats_.audioBuffersBeforeStart;
        return {};
    }
    if (placement.corrected && audioFramesSent_ >= nextCorrectionLogFrames_) {
        const int rate = audio_->sample_rate;
        logLine(placement.silenceFrames > 0
                    ? "Writer: audio resynchronised: " +
                          std::to_string(millisecondsOf(placement.silenceFrames, rate)) +
                          " ms of silence inserted (gap in the microphone's timestamps)"
                    : "Writer: audio resynchronised: " +
                          std::to_string(
                              millisecondsOf(placement.droppedInputFrames, audio.sampleRate)) +
                          " ms dropped (microphone ahead of its timestamps)");
        nextCorrectionLogFrames_ = audioFramesSent_ + kCorrectionLogSpacing.count() * rate;
    }
    if (placement.silenceFrames > 0) {
        if (auto padded = writeSilence(placement.silenceFrames); !padded) return padded;
    }
    const int kept = audio.frameCount - static_cast<int>(placement.droppedInputFrames);
    if (kept <= 0) return {};
    const uint8_t* first = audio.data.data() + placement.droppedInputFrames * frameBytes;
    return pushAudio(first, kept);
}

Result<void> MovieEncoder::sendAudioFrame(int frames) {
    AVFrame* frame = audioFrame_.get();
    if (frame->nb_samples != frames || frame->data[0] == nullptr) {
        av_frame_unref(frame);
        frame->format = audio_->sample_fmt;
        frame->sample_rate = audio_->sample_rate;
        av_channel_layout_copy(&frame->ch_layout, &audio_->ch_layout);
        frame->nb_samples = frames;
        if (const int rc = av_frame_get_buffer(frame, 0); rc < 0) {
            return fileOrCodecError(rc, "The audio frame couldn't be made");
        }
    }
    if (const int rc = av_frame_make_writable(frame); rc < 0) {
        return fileOrCodecError(rc, "The audio frame couldn't be made");
    }
    if (av_audio_fifo_read(fifo_.get(), reinterpret_cast<void**>(frame->data), frames) < frames) {
        return fileOrCodecError(AVERROR_BUG, "The audio couldn't be buffered");
    }
    frame->pts = audioFramesSent_;
    audioFramesSent_ += frames;
    stats_.audioFramesEncoded += frames;
    return sendAndMux(audio_.get(), frame, audioStream_, audioShiftTicks_);
}

Result<void> MovieEncoder::encodeQueuedAudio(bool drain) {
    const int frameSize = audio_->frame_size;
    while (av_audio_fifo_size(fifo_.get()) >= frameSize) {
        if (auto sent = sendAudioFrame(frameSize); !sent) return sent;
    }
    // The last frame of a recording may be short.
    if (drain && av_audio_fifo_size(fifo_.get()) > 0) {
        return sendAudioFrame(av_audio_fifo_size(fifo_.get()));
    }
    return {};
}

// ---- muxing and commits --------------------------------------------------------------------

Result<void> MovieEncoder::sendAndMux(AVCodecContext* codec, const AVFrame* frame, AVStream* stream,
                                      int64_t shiftTicks) {
    int rc = avcodec_send_frame(codec, frame);
    if (rc < 0) return fileOrCodecError(rc, "The encoder refused a frame");
    AVPacket* packet = packet_.get();
    for (;;) {
        rc = avcodec_receive_packet(codec, packet);
        if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return {};
        if (rc < 0) return fileOrCodecError(rc, "A frame couldn't be encoded");
        packet->pts += shiftTicks;
        packet->dts += shiftTicks;
        av_packet_rescale_ts(packet, codec->time_base, stream->time_base);
        if (auto muxed = mux(packet, stream); !muxed) return muxed;
    }
}

Result<void> MovieEncoder::sendVideo(const AVFrame* frame, bool keyFrame) {
    std::optional<Result<void>> failed;
    const int rc = video_->encode(frame, keyFrame, unchangedMacroblocks_, [&](AVPacket* packet) {
        if ((packet->flags & AV_PKT_FLAG_KEY) != 0) lastKeyPts_ = packet->pts;
        for (const auto& [pts, duration] : videoDurations_) {
            if (duration > 0 && pts == packet->pts) packet->duration = duration;
        }
        av_packet_rescale_ts(packet, kVideoTimeBase, videoStream_->time_base);
        if (auto muxed = mux(packet, videoStream_); !muxed) {
            failed = std::move(muxed);
            return -1;
        }
        return 0;
    });
    if (failed) return *failed;
    if (rc < 0) return writerError(WriterErrorCode::encodeFailed, "A frame couldn't be encoded.");
    return {};
}

Result<void> MovieEncoder::mux(AVPacket* packet, AVStream* stream) {
    packet->stream_index = stream->index;
    const int rc = av_write_frame(muxer_.get(), packet);
    av_packet_unref(packet);
    if (rc < 0) return fileOrCodecError(rc, "The movie couldn't be written");
    uncommitted_ = true;
    return {};
}

std::optional<std::chrono::steady_clock::time_point> MovieEncoder::commitDeadline() const {
    if (!uncommitted_) return std::nullopt;
    return lastCommit_ + commitInterval_;
}

Result<void> MovieEncoder::commitIfDue(std::chrono::steady_clock::time_point now) {
    if (!uncommitted_ || now < lastCommit_ + commitInterval_) return {};
    return commit();
}

Result<void> MovieEncoder::commit() {
    // The next fragment starts at its own first timestamps: frames come only when the screen
    // changes, so the time from this fragment's last frame to the next one is not known here.
    av_opt_set(muxer_->priv_data, "movflags", "+frag_discont", 0);
    // A null packet seals the fragment (frag_custom).
    if (const int rc = av_write_frame(muxer_.get(), nullptr); rc < 0) {
        return fileOrCodecError(rc, "The movie couldn't be written");
    }
    if (auto flushed = file_->flush(/*durable=*/true); !flushed) return flushed.error();
    committedBytes_ = file_->position();
    uncommitted_ = false;
    lastCommit_ = std::chrono::steady_clock::now();
    ++stats_.commits;
    return {};
}

Result<void> MovieEncoder::finish() {
    if (audio_) {
        // Without any microphone audio the track still spans the video, as silence.
        if (audioFramesPlaced() == 0 && videoEndNs_ > 0) {
            if (auto padded = writeSilence(ticksFromNanoseconds(videoEndNs_, audio_->time_base));
                !padded) {
                return padded;
            }
        }
        if (resampler_) {
            if (auto flushed = pushAudio(nullptr, 0); !flushed) return flushed;
        }
        if (auto drained = encodeQueuedAudio(true); !drained) return drained;
        if (auto drained = sendAndMux(audio_.get(), nullptr, audioStream_, audioShiftTicks_);
            !drained) {
            return drained;
        }
    }
    if (video_) {
        if (auto extended = showLastPictureUntilAudioEnds(); !extended) return extended;
        if (auto drained = sendVideo(nullptr, false); !drained) return drained;
    }
    if (const int rc = av_write_trailer(muxer_.get()); rc < 0) {
        return fileOrCodecError(rc, "The movie couldn't be finished");
    }
    if (auto flushed = file_->flush(/*durable=*/true); !flushed) return flushed.error();
    committedBytes_ = file_->position();
    uncommitted_ = false;
    return file_->close();
}

Result<void> MovieEncoder::showLastPictureUntilAudioEnds() {
    // Frames come only when the screen changes, so the last one may be long before the end: the
    // last picture is shown again one frame before the audio ends.
    if (!audio_ || lastVideoPts_ < 0) return {};
    const int64_t audioEndNs = av_rescale_q(audioFramesPlaced(), AVRational{1, audio_->sample_rate},
                                            AVRational{1, 1'000'000'000});
    const int64_t frameTicks = 3000;
    const int64_t pts =
        ticksFromNanoseconds(audioEndNs, kVideoTimeBase) + videoShiftTicks_ - frameTicks;
    if (pts <= lastVideoPts_ + frameTicks) return {};
    if (const int rc = av_frame_make_writable(videoFrame_.get()); rc < 0) {
        return fileOrCodecError(rc, "The video frame couldn't be made");
    }
    lastVideoPts_ = pts;
    videoEndNs_ = audioEndNs;
    videoFrame_->pts = pts;
    videoDurations_[videoDurationNext_++ % videoDurations_.size()] = {pts, frameTicks};
    ++stats_.videoFramesEncoded;
    unchangedMacroblocks_.assign(unchangedMacroblocks_.size(), 1);
    return sendVideo(videoFrame_.get(), false);
}

void MovieEncoder::closeAtLastCommit() {
    if (!file_) return;
    file_->truncate(committedBytes_);
    (void)file_->close();
}

}  // namespace gb::linuxp
