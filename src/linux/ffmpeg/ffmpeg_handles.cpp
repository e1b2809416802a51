#include "linux/ffmpeg/ffmpeg_handles.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <optional>

extern "C" {
#include <libavutil/log.h>
}

#include "recording/log.h"

namespace gb::linuxp {

namespace {

void forwardFfmpegLog(void* context, int level, const char* format, va_list arguments) {
    if (level > AV_LOG_WARNING) return;
    char line[1024];
    int printPrefix = 1;
    av_log_format_line2(context, level, format, arguments, line, sizeof line, &printPrefix);
    std::string_view text(line);
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    if (!text.empty()) logLine("FFmpeg: " + std::string(text));
}

}  // namespace

void routeFfmpegLogging() {
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_callback(&forwardFfmpegLog); });
}

std::string avErrorText(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof text);
    return text;
}

std::string errnoReason(int err) {
    if (err == ENOSPC || err == EDQUOT) return "the disk is full";
    if (err == EFBIG) return "the file has grown larger than this system allows";
    std::string text = std::strerror(err);
    if (!text.empty())
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

namespace {

constexpr int kIoBufferBytes = 256 * 1024;

// An unnamed file in the folder, locked, then given its name: linkat never replaces what is
// there, so the name appears locked or not at all. Nothing when the file system cannot do it.
std::optional<UniqueFd> createLockedAtomically(const std::string& path, int& error) {
    UniqueFd fd(::open(directoryOf(path).c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (!fd.valid()) return std::nullopt;
    (void)::flock(fd.get(), LOCK_EX | LOCK_NB);
    const std::string self = "/proc/self/fd/" + std::to_string(fd.get());
    if (::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, path.c_str(), AT_SYMLINK_FOLLOW) != 0) {
        error = errno;
        if (error == ENOENT && ::access("/proc/self/fd", F_OK) != 0) return std::nullopt;
        return UniqueFd();
    }
    return fd;
}

std::string creationReason(const std::string& path, int err) {
    if (err == EEXIST) {
        return isBeingWritten(path) ? "another recording is being written to that file"
                                    : "something of that name is already there";
    }
    if (err == ELOOP) return "a link of that name is in the way";
    return errnoReason(err);
}

}  // namespace

std::string directoryOf(const std::string& path) {
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

bool isBeingWritten(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return false;
    UniqueFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    return fd.valid() && ::flock(fd.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

FileIdentity identityAt(int fd, const std::string& path) {
    struct stat own {};
    struct stat there {};
    if (::lstat(path.c_str(), &there) != 0) return FileIdentity::missing;
    if (::fstat(fd, &own) != 0) return FileIdentity::other;
    return own.st_dev == there.st_dev && own.st_ino == there.st_ino ? FileIdentity::same
                                                                    : FileIdentity::other;
}

void syncDirectoryOf(const std::string& path) {
    UniqueFd dir(::open(directoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.valid()) (void)::fsync(dir.get());
}

Result<std::unique_ptr<FileOutput>> FileOutput::create(const std::string& path) {
    int err = 0;
    UniqueFd fd;
    if (auto atomic = createLockedAtomically(path, err)) {
        fd = std::move(*atomic);
    } else {
        fd.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
        err = errno;
        if (fd.valid()) (void)::flock(fd.get(), LOCK_EX | LOCK_NB);
    }
    if (!fd.valid()) {
        return writerError(
            WriterErrorCode::cannotCreateFile,
            "The recording file “" + path + "” couldn't be created: " + creationReason(path, err) +
                ".");
    }
    // Whatever the umask.
    (void)::fchmod(fd.get(), 0600);
    std::unique_ptr<FileOutput> out(new FileOutput(path, std::move(fd)));
    auto* buffer = static_cast<unsigned char*>(av_malloc(kIoBufferBytes));
    if (buffer == nullptr) {
        return writerError(WriterErrorCode::cannotCreateFile,
                           "The recording file “" + path + "” couldn't be created: out of memory.");
    }
    out->io_.reset(avio_alloc_context(buffer, kIoBufferBytes, 1, out.get(), nullptr,
                                      &FileOutput::writePacket, &FileOutput::seek));
    if (!out->io_) {
        av_free(buffer);
        return writerError(WriterErrorCode::cannotCreateFile,
                           "The recording file “" + path + "” couldn't be created: out of memory.");
    }
    syncDirectoryOf(path);
    return out;
}

FileOutput::FileOutput(std::string path, UniqueFd fd)
    : path_(std::move(path)), fd_(std::move(fd)) {}

int FileOutput::writePacket(void* opaque, uint8_t* data, int size) {
    auto* self = static_cast<FileOutput*>(opaque);
    int done = 0;
    while (done < size) {
        const ssize_t n = ::pwrite(self->fd_.get(), data + done, static_cast<size_t>(size - done),
                                   self->position_);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            self->lastErrno_ = n < 0 ? errno : ENOSPC;
            return AVERROR(self->lastErrno_);
        }
        done += static_cast<int>(n);
        self->position_ += n;
    }
    return size;
}

int64_t FileOutput::seek(void* opaque, int64_t offset, int whence) {
    auto* self = static_cast<FileOutput*>(opaque);
    struct stat st {};
    switch (whence & ~AVSEEK_FORCE) {
        case AVSEEK_SIZE:
            if (::fstat(self->fd_.get(), &st) != 0) return AVERROR(errno);
            return std::max<int64_t>(st.st_size, self->position_);
        case SEEK_SET:
            self->position_ = offset;
            return offset;
        case SEEK_CUR:
            self->position_ += offset;
            return self->position_;
        case SEEK_END:
            if (::fstat(self->fd_.get(), &st) != 0) return AVERROR(errno);
            self->position_ = st.st_size + offset;
            return self->position_;
        default:
            return AVERROR(EINVAL);
    }
}

Result<void> FileOutput::flush(bool durable) {
    avio_flush(io_.get());
    if (io_->error < 0 || lastErrno_ != 0) return writeError();
    if (durable && ::fdatasync(fd_.get()) != 0) {
        lastErrno_ = errno;
        return writeError();
    }
    return {};
}

void FileOutput::truncate(int64_t size) {
    if (fd_.valid() && ::ftruncate(fd_.get(), size) == 0) (void)::fdatasync(fd_.get());
}

Result<void> FileOutput::close() {
    if (fd_.valid() && fd_.close() != 0) {
        lastErrno_ = errno;
        return writeError();
    }
    return {};
}

void FileOutput::discard() {
    if (fd_.valid() && identityAt(fd_.get(), path_) == FileIdentity::same) {
        ::unlink(path_.c_str());
        syncDirectoryOf(path_);
    }
    fd_.reset();
}

PlatformError FileOutput::writeError() const {
    const int err = lastErrno_ != 0 ? lastErrno_ : EIO;
    return writerError(
        WriterErrorCode::writeFailed,
        "The recording “" + path_ + "” couldn't be written: " + errnoReason(err) + ".");
}

}  // namespace gb::linuxp
