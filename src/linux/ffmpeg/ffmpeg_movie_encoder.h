// The encoding half of the movie writer: BGRA frames through libswscale and libx264, microphone
// PCM through libswresample and FFmpeg's AAC encoder, muxed into a fragmented QuickTime file.
//
// The growing file is a sequence of self-contained fragments, each one made durable (fdatasync)
// about once a second, so that a killed process or a power cut leaves a movie that plays up to
// the last committed fragment. finish() drains the encoders and closes the file;
// MovieRemuxer (ffmpeg_movie_remuxer.h) then turns it into an ordinary indexed movie.
//
// Timeline: every stream is placed relative to the session start. AAC starts with priming
// samples that sit before time zero; fragments cannot hold negative times, so every stream of
// the growing file is shifted later by the priming duration (timelineShiftMicroseconds()), which
// the remuxer takes off again.
//
// Threads: created on any thread, then used by one thread at a time (the writer's thread).
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "linux/ffmpeg/ffmpeg_handles.h"
#include "linux/ffmpeg/x264_encoder.h"
#include "platform/asset_writer.h"
#include "platform/media.h"
#include "platform/result.h"
#include "portable/audio_sync_corrector.h"
#include "portable/bgra_to_i420.h"
#include "portable/letterbox.h"

namespace gb::linuxp {

class MovieEncoder {
public:
    struct Config {
        std::string path;
        std::optional<VideoOutputSettingsForWriter> video;
        std::optional<AudioOutputSettingsForWriter> audio;
        // How often the growing file is sealed and made durable.
        std::chrono::milliseconds commitInterval{1000};
        std::string x264Preset = "ultrafast";
    };

    struct Stats {
        int64_t videoFramesEncoded = 0;
        int64_t videoFramesBeforeStart = 0;  // earlier than the session start
        int64_t videoFramesOutOfOrder = 0;   // not later than the frame before
        int64_t audioFramesEncoded = 0;      // output samples per channel
        int64_t audioBuffersBeforeStart = 0;
        int64_t commits = 0;
    };

    // Opens the encoders, creates the file (mode 0600) and writes its header.
    [[nodiscard]] static Result<std::unique_ptr<MovieEncoder>> create(const Config& config);

    MovieEncoder(const MovieEncoder&) = delete;
    MovieEncoder& operator=(const MovieEncoder&) = delete;
    MovieEncoder(MovieEncoder&&) = delete;
    MovieEncoder& operator=(MovieEncoder&&) = delete;
    ~MovieEncoder();

    // Converts the sample's picture (releasing the sample as soon as its pixels are read) and
    // encodes it at its time relative to `sessionStart`.
    [[nodiscard]] Result<void> encodeVideo(SampleBufferRef sample, MediaTime sessionStart);
    // Resamples and encodes a microphone buffer, placed by its capture time.
    [[nodiscard]] Result<void> encodeAudio(SampleBufferRef sample, MediaTime sessionStart);

    // When the data written since the last commit must be committed; none when there is none.
    [[nodiscard]] std::optional<std::chrono::steady_clock::time_point> commitDeadline() const;
    // Seals the current fragment and makes the file durable, when the deadline has passed.
    [[nodiscard]] Result<void> commitIfDue(std::chrono::steady_clock::time_point now);

    // Drains both encoders, writes the last fragment and closes the file.
    [[nodiscard]] Result<void> finish();
    // After a failure, or when the writer is released unfinished: cuts the file back to its last
    // committed fragment and closes it, so that it plays up to there.
    void closeAtLastCommit();

    [[nodiscard]] int64_t timelineShiftMicroseconds() const { return shiftMicroseconds_; }
    [[nodiscard]] const Stats& stats() const { return stats_; }
    [[nodiscard]] const AudioSyncCorrector* audioSync() const {
        return corrector_ ? &*corrector_ : nullptr;
    }
    [[nodiscard]] const std::string& path() const { return path_; }
    // The growing file's descriptor (-1 once closed); a duplicate keeps the file's lock.
    [[nodiscard]] int fileDescriptor() const { return file_ ? file_->descriptor() : -1; }

private:
    MovieEncoder(std::string path, std::chrono::milliseconds commitInterval, std::string preset);

    Result<void> openVideo(const VideoOutputSettingsForWriter& settings);
    Result<void> openAudio(const AudioOutputSettingsForWriter& settings);
    Result<void> openFile();
    Result<void> commit();

    Result<void> convertPicture(const PixelBuffer& picture);
    // Converts the bands of rows that the picture's changes touch into the frame.
    void convertChanges(const PixelBuffer& picture);
    // The frame's planes from pixel (x, y) on; x and y even.
    [[nodiscard]] I420Planes planesAt(int x, int y) const;
    Result<void> showLastPictureUntilAudioEnds();
    Result<void> ensureResampler(const AudioBuffer& audio);
    Result<void> writeSilence(int64_t frames);
    Result<void> pushAudio(const uint8_t* data, int frames);
    Result<void> encodeQueuedAudio(bool drain);
    Result<void> sendAudioFrame(int frames);
    Result<void> sendAndMux(AVCodecContext* codec, const AVFrame* frame, AVStream* stream,
                            int64_t shiftTicks);
    Result<void> sendVideo(const AVFrame* frame, bool keyFrame);  // null: drain
    Result<void> mux(AVPacket* packet, AVStream* stream);
    [[nodiscard]] int64_t audioFramesPlaced() const;
    [[nodiscard]] PlatformError fileOrCodecError(int averror, const char* what) const;

    std::string path_;
    std::chrono::milliseconds commitInterval_;
    std::string x264Preset_;
    std::unique_ptr<FileOutput> file_;
    OutputFormatPtr muxer_;
    PacketPtr packet_;
    int64_t shiftMicroseconds_ = 0;
    Stats stats_;

    // Committed state of the growing file.
    int64_t committedBytes_ = 0;
    bool uncommitted_ = false;
    std::chrono::steady_clock::time_point lastCommit_{};

    // Video.
    std::unique_ptr<X264Encoder> video_;
    std::vector<uint8_t> videoHeaders_;
    // Per macroblock, non-zero where the frame to encode equals the one before; empty: unknown.
    std::vector<uint8_t> unchangedMacroblocks_;
    AVStream* videoStream_ = nullptr;
    FramePtr videoFrame_;
    SwsPtr scaler_;          // only for pictures of another size than the movie's
    bool unscaled_ = false;  // pictures of the movie's size: converted by our own loop
    int sourceWidth_ = 0;
    int sourceHeight_ = 0;
    LetterboxRect picture_;
    int64_t videoShiftTicks_ = 0;
    int64_t lastVideoPts_ = -1;
    int64_t lastKeyPts_ = -1;
    // The number of the picture the frame holds (0: none known), for converting only changes.
    uint64_t convertedPicture_ = 0;
    std::vector<std::pair<int, int>> changedBands_;  // columns [first, second) per band
    // (pts, duration) of the frames in flight: the encoder hands packets back without durations.
    std::array<std::pair<int64_t, int64_t>, 8> videoDurations_{};
    size_t videoDurationNext_ = 0;
    int64_t videoEndNs_ = 0;  // end of the last frame, relative to the session start

    // Audio.
    CodecContextPtr audio_;
    AVStream* audioStream_ = nullptr;
    FramePtr audioFrame_;
    SwrPtr resampler_;
    int resamplerRate_ = 0;
    int resamplerChannels_ = 0;
    AudioSampleFormat resamplerFormat_ = AudioSampleFormat::s16;
    AudioFifoPtr fifo_;
    std::vector<float> staging_[2];  // planar resampler output, reused
    std::optional<AudioSyncCorrector> corrector_;
    int64_t audioShiftTicks_ = 0;
    int64_t audioFramesSent_ = 0;  // output samples handed to the encoder
    int64_t nextCorrectionLogFrames_ = 0;
};

}  // namespace gb::linuxp
