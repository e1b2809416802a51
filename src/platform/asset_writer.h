// The movie writer and its inputs.
//
// Threads: a writer is created and started on the recorder's start thread; inputs are appended to
// on the recording queue; markAsFinished and finishWriting are called on the main thread. All
// methods are safe to call from any thread. append never blocks on encoding: when the writer
// cannot take more at once, isReadyForMoreMediaData is false and the caller drops the sample.
// Ownership: the writer holds its inputs; callers share both through shared_ptr. The
// finishWriting completion is called exactly once, on any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "platform/media.h"
#include "platform/result.h"

namespace gb {

enum class AssetWriterStatus : int { unknown = 0, writing = 1, completed = 2, failed = 3, cancelled = 4 };

enum class FileType { quickTimeMovie };

// Video output settings: H.264 at a size, with its compression properties.
struct VideoCompressionProperties {
    int64_t averageBitRate = 0;    // bits per second
    std::string profileLevel;      // e.g. "H264_Main_AutoLevel"
    std::string entropyMode;       // "CAVLC" or "CABAC"
    friend bool operator==(const VideoCompressionProperties&,
                           const VideoCompressionProperties&) = default;
};
struct VideoOutputSettingsForWriter {
    std::string codec;  // "avc1" (H.264)
    int width = 0;
    int height = 0;
    VideoCompressionProperties compression;
    friend bool operator==(const VideoOutputSettingsForWriter&,
                           const VideoOutputSettingsForWriter&) = default;
};

// Audio output settings.
struct AudioOutputSettingsForWriter {
    uint32_t formatID = 0;  // four-character code, "aac " = 0x61616320
    int numberOfChannels = 0;
    double sampleRate = 0;
    int64_t encoderBitRate = 0;
    friend bool operator==(const AudioOutputSettingsForWriter&,
                           const AudioOutputSettingsForWriter&) = default;
};

using WriterOutputSettings = std::variant<VideoOutputSettingsForWriter, AudioOutputSettingsForWriter>;

class AssetWriterInput {
public:
    virtual ~AssetWriterInput() = default;
    [[nodiscard]] virtual MediaType mediaType() const = 0;
    [[nodiscard]] virtual const WriterOutputSettings& outputSettings() const = 0;
    virtual void setExpectsMediaDataInRealTime(bool realTime) = 0;
    // Whether an append may be made now.
    [[nodiscard]] virtual bool isReadyForMoreMediaData() const = 0;
    // Appends a sample; false on failure. The input keeps what it needs of the sample (it may
    // hold the sample's buffers until they are encoded).
    [[nodiscard]] virtual bool append(const SampleBufferRef& sample) = 0;
    // No more data will come.
    virtual void markAsFinished() = 0;
};
using AssetWriterInputRef = std::shared_ptr<AssetWriterInput>;

class AssetWriter {
public:
    virtual ~AssetWriter() = default;
    [[nodiscard]] virtual AssetWriterStatus status() const = 0;
    // The writer's error, if it has one.
    [[nodiscard]] virtual std::optional<PlatformError> error() const = 0;
    [[nodiscard]] virtual bool canAddInput(const AssetWriterInputRef& input) const = 0;
    virtual void addInput(AssetWriterInputRef input) = 0;
    // Starts writing (status becomes writing); false with an error on failure.
    [[nodiscard]] virtual bool startWriting() = 0;
    // Starts the timeline at a source time: samples are placed relative to it.
    virtual void startSessionAtSourceTime(MediaTime time) = 0;
    // Finalises the file; the completion runs exactly once, on any thread, after which status()
    // is completed or failed.
    virtual void finishWriting(std::function<void()> completion) = 0;
};
using AssetWriterRef = std::shared_ptr<AssetWriter>;

// Creates writers and inputs. Any thread.
class AssetWriterFactory {
public:
    virtual ~AssetWriterFactory() = default;
    [[nodiscard]] virtual Result<AssetWriterRef> makeWriter(const std::string& path,
                                                             FileType fileType) = 0;
    [[nodiscard]] virtual AssetWriterInputRef makeInput(MediaType type,
                                                        const WriterOutputSettings& settings) = 0;
};

}  // namespace gb
