// Owners for the FFmpeg objects and file descriptors the movie writer uses, and the writer's
// error values. One unique_ptr alias per FFmpeg type; every owner frees with FFmpeg's own call.
#pragma once

#include <unistd.h>

#include <memory>
#include <string>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libswresample/swresample.h>
#include <libswscale/swscale.h>
}

#include "platform/result.h"

namespace gb::linuxp {

struct CodecContextDeleter {
    void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameDeleter {
    void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketDeleter {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct SwsDeleter {
    void operator()(SwsContext* s) const { sws_freeContext(s); }
};
struct SwrDeleter {
    void operator()(SwrContext* s) const { swr_free(&s); }
};
struct AudioFifoDeleter {
    void operator()(AVAudioFifo* f) const { av_audio_fifo_free(f); }
};
// A custom AVIOContext and the buffer it currently owns (FFmpeg may replace the buffer).
struct IoContextDeleter {
    void operator()(AVIOContext* io) const {
        av_freep(&io->buffer);
        avio_context_free(&io);
    }
};
// An output context whose I/O is owned elsewhere (custom I/O).
struct OutputFormatDeleter {
    void operator()(AVFormatContext* f) const { avformat_free_context(f); }
};
struct InputFormatDeleter {
    void operator()(AVFormatContext* f) const { avformat_close_input(&f); }
};

using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using SwsPtr = std::unique_ptr<SwsContext, SwsDeleter>;
using SwrPtr = std::unique_ptr<SwrContext, SwrDeleter>;
using AudioFifoPtr = std::unique_ptr<AVAudioFifo, AudioFifoDeleter>;
using IoContextPtr = std::unique_ptr<AVIOContext, IoContextDeleter>;
using OutputFormatPtr = std::unique_ptr<AVFormatContext, OutputFormatDeleter>;
using InputFormatPtr = std::unique_ptr<AVFormatContext, InputFormatDeleter>;

// A file descriptor, closed when the owner goes.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) reset(std::exchange(other.fd_, -1));
        return *this;
    }
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool valid() const { return fd_ >= 0; }
    // Closes now; the result of close() (a late write error shows up here on some filesystems).
    int close() {
        const int rc = fd_ >= 0 ? ::close(fd_) : 0;
        fd_ = -1;
        return rc;
    }
    void reset(int fd = -1) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// A file written by an FFmpeg muxer through our own descriptor, so that the writer can make what
// was written durable (fdatasync), learn the exact errno of a failed write, and cut the file
// back after a failure. Created with mode 0600: recordings hold whatever was on the screen.
//
// The file is locked (an exclusive flock) from its creation on, for as long as its descriptor or
// a duplicate of it is open: other recorders leave a locked file alone (isBeingWritten()).
// Not thread-safe; one thread at a time.
class FileOutput {
public:
    // Creates `path`, which must not exist yet (a link of that name is not followed), and makes
    // its directory entry durable. The name appears already locked where the file system allows
    // it (O_TMPFILE), so no other recorder ever sees it unlocked.
    [[nodiscard]] static Result<std::unique_ptr<FileOutput>> create(const std::string& path);
    FileOutput(const FileOutput&) = delete;
    FileOutput& operator=(const FileOutput&) = delete;
    FileOutput(FileOutput&&) = delete;
    FileOutput& operator=(FileOutput&&) = delete;
    ~FileOutput() = default;

    [[nodiscard]] AVIOContext* io() const { return io_.get(); }
    [[nodiscard]] const std::string& path() const { return path_; }
    [[nodiscard]] int descriptor() const { return fd_.get(); }
    // Hands the muxer's buffered bytes to the file, then (with `durable`) to the disk.
    [[nodiscard]] Result<void> flush(bool durable);
    // Bytes written so far (after flush()).
    [[nodiscard]] int64_t position() const { return position_; }
    // Cuts the file back to `size` bytes (after a failed write), best effort.
    void truncate(int64_t size);
    // Closes the descriptor; an error when the last bytes could not be written.
    [[nodiscard]] Result<void> close();
    // Removes the file (when its name still refers to it) and closes it: for a file that got
    // nothing worth keeping.
    void discard();
    // A clear sentence about the last failure, e.g. "… couldn't be written: the disk is full."
    [[nodiscard]] PlatformError writeError() const;

private:
    FileOutput(std::string path, UniqueFd fd);
    static int writePacket(void* opaque, uint8_t* data, int size);
    static int64_t seek(void* opaque, int64_t offset, int whence);

    std::string path_;
    UniqueFd fd_;
    IoContextPtr io_;
    int64_t position_ = 0;  // file offset of the next byte written
    int lastErrno_ = 0;     // errno of the last failed write or sync, 0 when none
};

// Whether `path` is a regular file that a recorder holds locked (see FileOutput).
[[nodiscard]] bool isBeingWritten(const std::string& path);

// What `path` names, compared with the file open as `fd`.
enum class FileIdentity { same, missing, other };
[[nodiscard]] FileIdentity identityAt(int fd, const std::string& path);

// The folder part of a path ("." for a bare name).
[[nodiscard]] std::string directoryOf(const std::string& path);

// Makes a directory's entries (a new or renamed file) durable. Best effort.
void syncDirectoryOf(const std::string& path);

// Routes FFmpeg's own diagnostics through logLine: warnings and errors only, prefixed "FFmpeg: ".
// Process-wide; idempotent.
void routeFfmpegLogging();

// FFmpeg's text for an AVERROR code.
std::string avErrorText(int code);

// The writer's errors. Domain "GlimmerboxWriter"; the descriptions are whole sentences.
enum class WriterErrorCode : int {
    folderMissing = 1,
    folderNotWritable = 2,
    invalidSettings = 3,
    cannotCreateFile = 4,
    encoderUnavailable = 5,
    writeFailed = 6,
    encodeFailed = 7,
    notStarted = 8,
    fileGone = 9,  // the file or its folder was removed or replaced while recording
};
inline constexpr const char* kWriterErrorDomain = "GlimmerboxWriter";

inline PlatformError writerError(WriterErrorCode code, std::string description) {
    return PlatformError{kWriterErrorDomain, static_cast<int>(code), std::move(description)};
}

// "the disk is full" for ENOSPC/EDQUOT, otherwise strerror's text in lower case first letter.
std::string errnoReason(int err);

}  // namespace gb::linuxp
