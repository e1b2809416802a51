// The movie writer over FFmpeg: H.264 (libx264, Main profile, CAVLC) and AAC-LC in a QuickTime
// movie.
//
// Appends only queue the sample; a writer thread of its own converts and encodes. The video
// queue is short (a few frames), so a busy encoder shows as isReadyForMoreMediaData() == false
// and the recorder drops frames instead of piling them up; the queued samples keep their pixel
// buffers only until they are converted.
//
// A recording is never lost: while it runs the file is a fragmented movie whose fragments are
// made durable about once a second, so a killed process or a power cut leaves a file that plays
// up to then. finishWriting() rewrites it, without re-encoding, into an ordinary movie with its
// index, and renames that over the original in one step, but only while the name still refers to
// the file this writer made.
//
// The file is created new (never over anything, never through a link) and stays locked (flock)
// until the finished movie has its name, so other recorders leave it alone.
//
// At finish the writer logs what it refused, one line each: "(encoder busy)" counts "not ready"
// answers while writing (the recorder drops the frame it asked about), "(queue full)" counts
// appends refused because the queue was full.
//
// Threads: every method of the writer and its inputs may be called from any thread. The
// finishWriting completion runs on the writer's thread, exactly once per call.
// Ownership: the writer and its inputs share one internal state; the writer's thread keeps it
// alive while it works. Releasing the writer without finishing leaves the fragmented file as far
// as it was written.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "platform/asset_writer.h"

namespace gb::linuxp {

class WriterCore;

struct FfmpegWriterOptions {
    size_t videoQueueCapacity = 3;                   // frames waiting for the encoder
    size_t audioQueueCapacity = 128;                 // microphone buffers waiting for the encoder
    std::chrono::milliseconds commitInterval{1000};  // how often the growing file is made durable
    // libx264's speed preset: ultrafast encodes 1080p30 in real time in under half a core and,
    // unlike superfast, keeps the whole program under 150 MB at 1080p (bench/record-vs-ffmpeg).
    std::string x264Preset = "ultrafast";
};

class FfmpegAssetWriterInput final : public AssetWriterInput {
public:
    FfmpegAssetWriterInput(MediaType type, WriterOutputSettings settings);

    [[nodiscard]] MediaType mediaType() const override { return type_; }
    [[nodiscard]] const WriterOutputSettings& outputSettings() const override { return settings_; }
    void setExpectsMediaDataInRealTime(bool realTime) override { realTime_ = realTime; }
    [[nodiscard]] bool expectsMediaDataInRealTime() const { return realTime_; }
    [[nodiscard]] bool isReadyForMoreMediaData() const override;
    [[nodiscard]] bool append(const SampleBufferRef& sample) override;
    void markAsFinished() override;

    // Joins a writer; false when the input belongs to one already.
    [[nodiscard]] bool attach(std::shared_ptr<WriterCore> core);
    [[nodiscard]] bool attached() const;

private:
    [[nodiscard]] std::shared_ptr<WriterCore> core() const;

    const MediaType type_;
    const WriterOutputSettings settings_;
    std::atomic<bool> realTime_{false};
    mutable std::mutex mutex_;
    std::shared_ptr<WriterCore> core_;  // guarded by mutex_; set once, when added to a writer
};

class FfmpegAssetWriter final : public AssetWriter {
public:
    FfmpegAssetWriter(std::string path, FfmpegWriterOptions options);
    ~FfmpegAssetWriter() override;
    FfmpegAssetWriter(const FfmpegAssetWriter&) = delete;
    FfmpegAssetWriter& operator=(const FfmpegAssetWriter&) = delete;
    FfmpegAssetWriter(FfmpegAssetWriter&&) = delete;
    FfmpegAssetWriter& operator=(FfmpegAssetWriter&&) = delete;

    [[nodiscard]] AssetWriterStatus status() const override;
    [[nodiscard]] std::optional<PlatformError> error() const override;
    [[nodiscard]] bool canAddInput(const AssetWriterInputRef& input) const override;
    void addInput(AssetWriterInputRef input) override;
    [[nodiscard]] bool startWriting() override;
    void startSessionAtSourceTime(MediaTime time) override;
    void finishWriting(std::function<void()> completion) override;

    [[nodiscard]] const std::string& path() const { return path_; }

private:
    const std::string path_;
    std::shared_ptr<WriterCore> core_;
};

class FfmpegAssetWriterFactory final : public AssetWriterFactory {
public:
    // Routes FFmpeg's diagnostics through the log (process-wide).
    explicit FfmpegAssetWriterFactory(FfmpegWriterOptions options = {});

    // Checks that the folder exists and can be written to; the file itself is created by
    // startWriting().
    [[nodiscard]] Result<AssetWriterRef> makeWriter(const std::string& path,
                                                    FileType fileType) override;
    [[nodiscard]] AssetWriterInputRef makeInput(MediaType type,
                                                const WriterOutputSettings& settings) override;

private:
    FfmpegWriterOptions options_;
};

}  // namespace gb::linuxp
