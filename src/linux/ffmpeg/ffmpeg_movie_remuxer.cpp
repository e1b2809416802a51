#include "linux/ffmpeg/ffmpeg_movie_remuxer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <vector>

#include "linux/ffmpeg/ffmpeg_handles.h"

namespace gb::linuxp {
namespace {

PlatformError finishError(const std::string& path, const std::string& reason) {
    return writerError(WriterErrorCode::writeFailed,
                       "The recording “" + path + "” couldn't be finished: " + reason + ".");
}

PlatformError goneError(std::string description) {
    return writerError(WriterErrorCode::fileGone, std::move(description));
}

Result<std::unique_ptr<FileOutput>> createTemporary(const std::string& path) {
    if (isBeingWritten(path)) {
        return writerError(WriterErrorCode::cannotCreateFile,
                           "The temporary file “" + path + "” is in use by another recording.");
    }
    // One left behind by a run that died while finishing is stale: its recording is still the
    // fragmented original.
    ::unlink(path.c_str());
    return FileOutput::create(path);
}

Result<void> copyPackets(AVFormatContext* input, AVFormatContext* output, FileOutput& file,
                         int64_t shiftMicroseconds) {
    std::vector<int> streamMap(input->nb_streams, -1);
    for (unsigned i = 0; i < input->nb_streams; ++i) {
        const AVStream* in = input->streams[i];
        const AVMediaType type = in->codecpar->codec_type;
        if (type != AVMEDIA_TYPE_VIDEO && type != AVMEDIA_TYPE_AUDIO) continue;
        AVStream* out = avformat_new_stream(output, nullptr);
        if (out == nullptr) return finishError(file.path(), "out of memory");
        if (const int rc = avcodec_parameters_copy(out->codecpar, in->codecpar); rc < 0) {
            return finishError(file.path(), avErrorText(rc));
        }
        out->codecpar->codec_tag = 0;
        // The index does not record it; AAC frames are 1024 samples.
        if (out->codecpar->codec_id == AV_CODEC_ID_AAC && out->codecpar->frame_size == 0) {
            out->codecpar->frame_size = 1024;
        }
        out->time_base = in->time_base;
        streamMap[i] = out->index;
    }
    if (const int rc = avformat_write_header(output, nullptr); rc < 0) {
        if (file.io()->error < 0) return file.writeError();
        return finishError(file.path(), avErrorText(rc));
    }
    PacketPtr packet(av_packet_alloc());
    if (!packet) return finishError(file.path(), "out of memory");
    for (;;) {
        int rc = av_read_frame(input, packet.get());
        if (rc == AVERROR_EOF) break;
        if (rc < 0)
            return finishError(file.path(), "the recording can't be read back: " + avErrorText(rc));
        const unsigned index = static_cast<unsigned>(packet->stream_index);
        if (index >= streamMap.size() || streamMap[index] < 0) {
            av_packet_unref(packet.get());
            continue;
        }
        const AVStream* in = input->streams[index];
        AVStream* out = output->streams[streamMap[index]];
        const int64_t shift = av_rescale_q(shiftMicroseconds, AV_TIME_BASE_Q, in->time_base);
        if (packet->pts != AV_NOPTS_VALUE) packet->pts -= shift;
        if (packet->dts != AV_NOPTS_VALUE) packet->dts -= shift;
        av_packet_rescale_ts(packet.get(), in->time_base, out->time_base);
        packet->stream_index = out->index;
        packet->pos = -1;
        rc = av_interleaved_write_frame(output, packet.get());
        if (rc < 0) {
            if (file.io()->error < 0) return file.writeError();
            return finishError(file.path(), avErrorText(rc));
        }
    }
    if (const int rc = av_write_trailer(output); rc < 0) {
        if (file.io()->error < 0) return file.writeError();
        return finishError(file.path(), avErrorText(rc));
    }
    return {};
}

}  // namespace

std::string rewriteTemporaryPath(const std::string& path) {
    const auto slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    return folder + "." + name + ".finishing";
}

Result<void> rewriteAsIndexedMovie(const std::string& path, int64_t timelineShiftMicroseconds,
                                   int ownFd) {
    const bool checked = ownFd >= 0;
    const FileIdentity before = checked ? identityAt(ownFd, path) : FileIdentity::same;
    if (before != FileIdentity::same) {
        const std::string folder = directoryOf(path);
        struct stat st {};
        if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            return goneError("The recording couldn't be saved because its folder “" + folder +
                             "” was removed while recording.");
        }
    }
    // What this recording wrote, wherever its name went since.
    const std::string source =
        before == FileIdentity::same ? path : "/proc/self/fd/" + std::to_string(ownFd);
    AVFormatContext* rawInput = nullptr;
    if (const int rc = avformat_open_input(&rawInput, source.c_str(), nullptr, nullptr); rc < 0) {
        return finishError(path, "it can't be read back: " + avErrorText(rc));
    }
    InputFormatPtr input(rawInput);

    const std::string temporary = rewriteTemporaryPath(path);
    auto created = createTemporary(temporary);
    if (!created) return created.error();
    std::unique_ptr<FileOutput> file = std::move(created.value());

    AVFormatContext* rawOutput = nullptr;
    if (avformat_alloc_output_context2(&rawOutput, nullptr, "mov", nullptr) < 0 || !rawOutput) {
        ::unlink(temporary.c_str());
        return finishError(path, "this system's FFmpeg cannot write QuickTime movies");
    }
    OutputFormatPtr output(rawOutput);
    output->pb = file->io();
    output->flags |= AVFMT_FLAG_CUSTOM_IO;

    Result<void> copied = copyPackets(input.get(), output.get(), *file, timelineShiftMicroseconds);
    if (copied) copied = file->flush(/*durable=*/true);
    if (copied) copied = file->close();
    output.reset();
    file.reset();
    if (!copied) {
        ::unlink(temporary.c_str());
        return copied;
    }
    // Only a name that still refers to this recording is replaced.
    const bool ours = !checked || identityAt(ownFd, path) == FileIdentity::same;
    const int renamed =
        ours ? ::rename(temporary.c_str(), path.c_str())
             : ::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE);
    if (renamed != 0) {
        const int err = errno;
        ::unlink(temporary.c_str());
        if (!ours) {
            return goneError("The recording couldn't be saved as “" + path +
                             "”: another file took its place while recording.");
        }
        return finishError(path, errnoReason(err));
    }
    syncDirectoryOf(path);
    return {};
}

}  // namespace gb::linuxp
