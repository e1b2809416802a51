#include "linux/ffmpeg/ffmpeg_asset_writer.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "linux/ffmpeg/ffmpeg_handles.h"
#include "linux/ffmpeg/ffmpeg_movie_encoder.h"
#include "linux/ffmpeg/ffmpeg_movie_remuxer.h"
#include "recording/log.h"

namespace gb::linuxp {

// The writer's state, shared by the writer, its inputs and its thread. The thread owns the
// encoder; everything else lives behind mutex_.
class WriterCore {
public:
    static std::shared_ptr<WriterCore> make(std::string path, FfmpegWriterOptions options) {
        auto core = std::shared_ptr<WriterCore>(new WriterCore(std::move(path), options));
        // The thread holds the core until it returns, so it never runs on a freed object.
        core->thread_ = std::jthread([core](std::stop_token stop) { core->run(stop); });
        return core;
    }

    WriterCore(const WriterCore&) = delete;
    WriterCore& operator=(const WriterCore&) = delete;
    WriterCore(WriterCore&&) = delete;
    WriterCore& operator=(WriterCore&&) = delete;
    ~WriterCore() {
        // The last reference may go on the thread itself (a completion that held the writer);
        // it is returning and touches nothing of this object any more.
        if (thread_.joinable() && thread_.get_id() == std::this_thread::get_id()) thread_.detach();
    }

    // The writer is going away: the thread finishes a finalisation under way, otherwise closes
    // the growing file as it is. Waits for that unless called on the thread itself.
    void shutdown() {
        thread_.request_stop();
        if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id()) thread_.join();
    }

    AssetWriterStatus status() const {
        std::lock_guard lock(mutex_);
        return status_;
    }
    std::optional<PlatformError> error() const {
        std::lock_guard lock(mutex_);
        return error_;
    }

    bool canAdd(MediaType type) const {
        std::lock_guard lock(mutex_);
        return status_ == AssetWriterStatus::unknown && !starting_ && !track(type).settings;
    }
    void add(MediaType type, const WriterOutputSettings& settings) {
        std::lock_guard lock(mutex_);
        track(type).settings = settings;
    }

    bool startWriting();
    void startSession(MediaTime time);
    void finishWriting(std::function<void()> completion);

    bool isReady(MediaType type) const;
    bool append(MediaType type, const SampleBufferRef& sample);
    void markFinished(MediaType type) {
        std::lock_guard lock(mutex_);
        track(type).finished = true;
    }

private:
    struct Track {
        std::optional<WriterOutputSettings> settings;
        std::deque<SampleBufferRef> queue;
        size_t capacity = 0;
        bool finished = false;     // markAsFinished was called
        mutable int64_t busy = 0;  // "not ready" answers while writing
        int64_t overflow = 0;      // appends refused because the queue was full
    };
    // What the thread does next, taken under the lock and done outside it.
    struct Job {
        SampleBufferRef video;
        SampleBufferRef audio;
        bool finish = false;
        std::vector<std::function<void()>> completions;
    };

    WriterCore(std::string path, FfmpegWriterOptions options)
        : path_(std::move(path)), options_(options) {
        video_.capacity = options.videoQueueCapacity;
        audio_.capacity = options.audioQueueCapacity;
    }

    Track& track(MediaType type) { return type == MediaType::video ? video_ : audio_; }
    const Track& track(MediaType type) const { return type == MediaType::video ? video_ : audio_; }
    bool hasWork() const {
        return handover_ || !video_.queue.empty() || !audio_.queue.empty() ||
               (finishRequested_ && !finished_) || (finished_ && !completions_.empty());
    }

    void run(std::stop_token stop);
    void fail(const PlatformError& error, std::unique_ptr<MovieEncoder>& encoder);
    // Finalises the file; the status it ends in.
    AssetWriterStatus finish(std::unique_ptr<MovieEncoder>& encoder);
    void logTotals(const MovieEncoder* encoder) const;

    const std::string path_;
    const FfmpegWriterOptions options_;

    mutable std::mutex mutex_;
    std::condition_variable_any wake_;
    AssetWriterStatus status_ = AssetWriterStatus::unknown;  // guarded by mutex_
    std::optional<PlatformError> error_;                     // guarded by mutex_
    bool starting_ = false;                                  // guarded by mutex_
    std::optional<MediaTime> sessionStart_;                  // guarded by mutex_
    bool warnedNoSession_ = false;                           // guarded by mutex_
    Track video_;                                            // guarded by mutex_
    Track audio_;                                            // guarded by mutex_
    std::unique_ptr<MovieEncoder> handover_;  // guarded by mutex_; startWriting -> thread
    bool finishRequested_ = false;            // guarded by mutex_
    bool finished_ = false;                   // guarded by mutex_
    std::chrono::steady_clock::time_point finishCalledAt_;  // guarded by mutex_
    std::vector<std::function<void()>> completions_;        // guarded by mutex_
    // A duplicate of the growing file's descriptor: keeps the file locked, and identifies it,
    // until the finished movie has taken its name.
    UniqueFd ownFile_;  // guarded by mutex_
    std::jthread thread_;  // set once by make(); last, so it starts after the fields above
};

bool WriterCore::startWriting() {
    MovieEncoder::Config config;
    {
        std::lock_guard lock(mutex_);
        if (status_ != AssetWriterStatus::unknown || starting_) {
            logLine("Writer: startWriting called twice; ignored");
            return false;
        }
        if (!video_.settings && !audio_.settings) {
            status_ = AssetWriterStatus::failed;
            error_ = writerError(WriterErrorCode::invalidSettings,
                                 "The recording has neither a video nor an audio input.");
            return false;
        }
        starting_ = true;
        config.path = path_;
        if (video_.settings)
            config.video = std::get<VideoOutputSettingsForWriter>(*video_.settings);
        if (audio_.settings)
            config.audio = std::get<AudioOutputSettingsForWriter>(*audio_.settings);
        config.commitInterval = options_.commitInterval;
        config.x264Preset = options_.x264Preset;
    }
    // Opening the encoders and creating the file take a moment; no lock is held meanwhile.
    auto created = MovieEncoder::create(config);
    {
        std::lock_guard lock(mutex_);
        starting_ = false;
        if (!created) {
            status_ = AssetWriterStatus::failed;
            error_ = created.error();
            logLine("Writer: " + created.error().localizedDescription);
            return false;
        }
        ownFile_.reset(::fcntl(created.value()->fileDescriptor(), F_DUPFD_CLOEXEC, 0));
        handover_ = std::move(created.value());
        status_ = AssetWriterStatus::writing;
    }
    wake_.notify_one();
    return true;
}

void WriterCore::startSession(MediaTime time) {
    std::lock_guard lock(mutex_);
    if (status_ != AssetWriterStatus::writing || !time.isValid()) {
        logLine("Writer: startSessionAtSourceTime ignored (not writing or invalid time)");
        return;
    }
    if (sessionStart_) {
        logLine("Writer: startSessionAtSourceTime called twice; the first time stays");
        return;
    }
    sessionStart_ = time;
}

void WriterCore::finishWriting(std::function<void()> completion) {
    {
        std::lock_guard lock(mutex_);
        if (completion) completions_.push_back(std::move(completion));
        if (!finishRequested_) {
            finishRequested_ = true;
            finishCalledAt_ = std::chrono::steady_clock::now();
        }
    }
    wake_.notify_one();
}

bool WriterCore::isReady(MediaType type) const {
    std::lock_guard lock(mutex_);
    const Track& t = track(type);
    const bool accepting =
        status_ == AssetWriterStatus::writing && !t.finished && !finishRequested_;
    const bool ready = accepting && t.queue.size() < t.capacity;
    if (accepting && !ready) ++t.busy;
    return ready;
}

bool WriterCore::append(MediaType type, const SampleBufferRef& sample) {
    if (!sample || sample->mediaType() != type ||
        (type == MediaType::video && !sample->imageBuffer()) ||
        (type == MediaType::audio && !sample->audioBuffer())) {
        return false;
    }
    {
        std::lock_guard lock(mutex_);
        Track& t = track(type);
        if (status_ != AssetWriterStatus::writing || t.finished || finishRequested_) return false;
        if (!sessionStart_) {
            if (!warnedNoSession_) logLine("Writer: sample appended before the session started");
            warnedNoSession_ = true;
            return false;
        }
        if (t.queue.size() >= t.capacity) {
            ++t.overflow;
            return false;
        }
        t.queue.push_back(sample);
    }
    wake_.notify_one();
    return true;
}

void WriterCore::run(std::stop_token stop) {
    std::unique_ptr<MovieEncoder> encoder;  // owned by this thread once handed over
    std::deque<SampleBufferRef> abandonedVideo;
    std::deque<SampleBufferRef> abandonedAudio;
    for (;;) {
        Job job;
        MediaTime sessionStart;
        {
            std::unique_lock lock(mutex_);
            const auto deadline = encoder ? encoder->commitDeadline() : std::nullopt;
            if (deadline) {
                wake_.wait_until(lock, stop, *deadline, [&] { return hasWork(); });
            } else {
                wake_.wait(lock, stop, [&] { return hasWork(); });
            }
            const bool finishing = finishRequested_ && !finished_;
            if (stop.stop_requested() && !finishing) {
                // Queued pictures go back to the capture pool now (outside the lock), not when
                // the inputs go.
                abandonedVideo.swap(video_.queue);
                abandonedAudio.swap(audio_.queue);
                break;
            }
            if (handover_) encoder = std::move(handover_);
            if (!audio_.queue.empty()) {
                job.audio = std::move(audio_.queue.front());
                audio_.queue.pop_front();
            } else if (!video_.queue.empty()) {
                job.video = std::move(video_.queue.front());
                video_.queue.pop_front();
            } else if (finishing) {
                job.finish = true;
            } else if (finished_) {
                job.completions.swap(completions_);
            }
            if (sessionStart_) sessionStart = *sessionStart_;
        }

        if (job.finish) {
            const AssetWriterStatus ended = finish(encoder);
            std::chrono::steady_clock::time_point calledAt;
            {
                std::lock_guard lock(mutex_);
                status_ = ended;
                finished_ = true;
                calledAt = finishCalledAt_;
                job.completions.swap(completions_);
            }
            const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::steady_clock::now() - calledAt);
            logLine("Writer: finished in " + std::to_string(took.count()) + " ms");
        }
        if (!job.completions.empty()) {
            for (auto& completion : job.completions) completion();
            // Dropping a completion may release the last reference to the writer (never to
            // this core, which the thread's own reference keeps alive).
            job.completions.clear();
            continue;
        }

        if (encoder) {
            Result<void> done;
            if (job.audio) done = encoder->encodeAudio(std::move(job.audio), sessionStart);
            if (job.video && done) done = encoder->encodeVideo(std::move(job.video), sessionStart);
            if (done) done = encoder->commitIfDue(std::chrono::steady_clock::now());
            if (!done) fail(done.error(), encoder);
        }
    }

    abandonedVideo.clear();
    abandonedAudio.clear();
    if (encoder) {
        // Released while recording: keep what was written, as a fragmented movie.
        if (auto committed = encoder->commitIfDue(std::chrono::steady_clock::time_point::max());
            !committed) {
            logLine("Writer: " + committed.error().localizedDescription);
        }
        encoder->closeAtLastCommit();
        logLine("Writer: released before finishing; “" + path_ + "” keeps what was written");
    }
}

void WriterCore::fail(const PlatformError& error, std::unique_ptr<MovieEncoder>& encoder) {
    std::deque<SampleBufferRef> droppedVideo;
    std::deque<SampleBufferRef> droppedAudio;
    // The file stays playable up to its last committed fragment.
    encoder->closeAtLastCommit();
    PlatformError reported = error;
    {
        std::lock_guard lock(mutex_);
        if (encoder->stats().commits > 0 && ownFile_.valid() &&
            identityAt(ownFile_.get(), path_) == FileIdentity::same) {
            reported.localizedDescription += " What was recorded until then is kept in the file.";
        }
        if (status_ == AssetWriterStatus::writing) {
            status_ = AssetWriterStatus::failed;
            error_ = reported;
        }
        droppedVideo.swap(video_.queue);
        droppedAudio.swap(audio_.queue);
    }
    logLine("Writer: recording failed: " + reported.localizedDescription);
    logTotals(encoder.get());
    encoder.reset();
}

AssetWriterStatus WriterCore::finish(std::unique_ptr<MovieEncoder>& encoder) {
    AssetWriterStatus current;
    {
        std::lock_guard lock(mutex_);
        current = status_;
        if (current == AssetWriterStatus::unknown) {
            error_ = writerError(WriterErrorCode::notStarted,
                                 "The recording was finished before it was started.");
        }
    }
    if (current != AssetWriterStatus::writing || !encoder) {
        // Never started, or failed already (the file was closed then).
        return AssetWriterStatus::failed;
    }
    if (auto finished = encoder->finish(); !finished) {
        fail(finished.error(), encoder);
        return AssetWriterStatus::failed;
    }
    logTotals(encoder.get());
    const int64_t shift = encoder->timelineShiftMicroseconds();
    encoder.reset();
    UniqueFd ownFile;
    {
        std::lock_guard lock(mutex_);
        ownFile = std::move(ownFile_);
    }
    const auto rewriteBegan = std::chrono::steady_clock::now();
    auto rewritten = rewriteAsIndexedMovie(path_, shift, ownFile.get());
    const auto rewriteTook = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::steady_clock::now() - rewriteBegan);
    logLine("Writer: index written in " + std::to_string(rewriteTook.count()) + " ms");
    if (!rewritten) {
        if (ownFile.valid() && identityAt(ownFile.get(), path_) != FileIdentity::same) {
            // Nothing of this recording is where the user will look for it.
            std::lock_guard lock(mutex_);
            error_ = rewritten.error();
            logLine("Writer: recording failed: " + rewritten.error().localizedDescription);
            return AssetWriterStatus::failed;
        }
        // The fragmented movie is complete and plays as it is; nothing is lost.
        logLine("Writer: " + rewritten.error().localizedDescription +
                " The recording is kept as a fragmented movie.");
    }
    return AssetWriterStatus::completed;
}

void WriterCore::logTotals(const MovieEncoder* encoder) const {
    int64_t videoBusy = 0, videoOverflow = 0, audioBusy = 0, audioOverflow = 0;
    bool hasVideo = false, hasAudio = false;
    {
        std::lock_guard lock(mutex_);
        hasVideo = video_.settings.has_value();
        hasAudio = audio_.settings.has_value();
        videoBusy = video_.busy;
        videoOverflow = video_.overflow;
        audioBusy = audio_.busy;
        audioOverflow = audio_.overflow;
    }
    if (hasVideo) {
        logLine("Writer: " + std::to_string(videoBusy) + " video frames dropped (encoder busy)");
        logLine("Writer: " + std::to_string(videoOverflow) + " video frames dropped (queue full)");
    }
    if (hasAudio) {
        logLine("Writer: " + std::to_string(audioBusy) + " audio buffers dropped (encoder busy)");
        logLine("Writer: " + std::to_string(audioOverflow) + " audio buffers dropped (queue full)");
    }
    if (encoder == nullptr) return;
    const auto& stats = encoder->stats();
    if (stats.videoFramesBeforeStart > 0 || stats.videoFramesOutOfOrder > 0) {
        logLine("Writer: " + std::to_string(stats.videoFramesBeforeStart) +
                " video frames before the session start and " +
                std::to_string(stats.videoFramesOutOfOrder) + " out of order were left out");
    }
    if (const AudioSyncCorrector* sync = encoder->audioSync(); sync && sync->corrections() > 0) {
        logLine("Writer: audio resynchronised " + std::to_string(sync->corrections()) + " times (" +
                std::to_string(sync->silenceFramesInserted() * 1000 / sync->outputRate()) +
                " ms of silence inserted, " + std::to_string(sync->inputFramesDropped()) +
                " microphone frames dropped)");
    }
}

// ---- input ---------------------------------------------------------------------------------

FfmpegAssetWriterInput::FfmpegAssetWriterInput(MediaType type, WriterOutputSettings settings)
    : type_(type), settings_(std::move(settings)) {}

std::shared_ptr<WriterCore> FfmpegAssetWriterInput::core() const {
    std::lock_guard lock(mutex_);
    return core_;
}

bool FfmpegAssetWriterInput::attach(std::shared_ptr<WriterCore> core) {
    std::lock_guard lock(mutex_);
    if (core_) return false;
    core_ = std::move(core);
    return true;
}

bool FfmpegAssetWriterInput::attached() const {
    return core() != nullptr;
}

bool FfmpegAssetWriterInput::isReadyForMoreMediaData() const {
    const auto c = core();
    return c && c->isReady(type_);
}

bool FfmpegAssetWriterInput::append(const SampleBufferRef& sample) {
    const auto c = core();
    return c && c->append(type_, sample);
}

void FfmpegAssetWriterInput::markAsFinished() {
    if (const auto c = core()) c->markFinished(type_);
}

// ---- writer --------------------------------------------------------------------------------

FfmpegAssetWriter::FfmpegAssetWriter(std::string path, FfmpegWriterOptions options)
    : path_(std::move(path)), core_(WriterCore::make(path_, options)) {}

FfmpegAssetWriter::~FfmpegAssetWriter() {
    core_->shutdown();
}

AssetWriterStatus FfmpegAssetWriter::status() const {
    return core_->status();
}

std::optional<PlatformError> FfmpegAssetWriter::error() const {
    return core_->error();
}

bool FfmpegAssetWriter::canAddInput(const AssetWriterInputRef& input) const {
    const auto* ours = dynamic_cast<const FfmpegAssetWriterInput*>(input.get());
    if (ours == nullptr || ours->attached()) return false;
    const bool settingsMatch =
        ours->mediaType() == MediaType::video
            ? std::holds_alternative<VideoOutputSettingsForWriter>(ours->outputSettings())
            : std::holds_alternative<AudioOutputSettingsForWriter>(ours->outputSettings());
    return settingsMatch && core_->canAdd(ours->mediaType());
}

void FfmpegAssetWriter::addInput(AssetWriterInputRef input) {
    auto* ours = dynamic_cast<FfmpegAssetWriterInput*>(input.get());
    if (!canAddInput(input) || !ours->attach(core_)) {
        logLine("Writer: input refused (already added, wrong kind, or writing has started)");
        return;
    }
    core_->add(ours->mediaType(), ours->outputSettings());
}

bool FfmpegAssetWriter::startWriting() {
    return core_->startWriting();
}

void FfmpegAssetWriter::startSessionAtSourceTime(MediaTime time) {
    core_->startSession(time);
}

void FfmpegAssetWriter::finishWriting(std::function<void()> completion) {
    core_->finishWriting(std::move(completion));
}

// ---- factory -------------------------------------------------------------------------------

namespace {

// Why nothing can be created at `path`, or nothing when the name is free.
std::optional<std::string> nameTaken(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) return std::nullopt;
    if (S_ISDIR(st.st_mode)) return "a folder of that name is in the way";
    if (!S_ISREG(st.st_mode) && !S_ISLNK(st.st_mode)) {
        return "something that is not a file is in the way";
    }
    if (isBeingWritten(path)) return "another recording is being written to that file";
    return "a file of that name is in the way and can't be removed";
}

// The hidden temporaries of finishes that a killed run left behind. Each one's recording is the
// fragmented movie beside it, complete and playable, so the temporary goes; one whose movie is
// gone is left alone, and one still locked belongs to a finish under way.
void removeStaleTemporaries(const std::string& folder) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), &::closedir);
    if (!dir) return;
    constexpr std::string_view suffix = ".mov.finishing";
    while (const dirent* entry = ::readdir(dir.get())) {
        const std::string_view name(entry->d_name);
        if (name.size() <= suffix.size() + 1 || name.front() != '.' || !name.ends_with(suffix)) {
            continue;
        }
        const std::string temporary = folder + "/" + std::string(name);
        const std::string movie =
            folder + "/" + std::string(name.substr(1, name.size() - 1 - std::strlen(".finishing")));
        struct stat st {};
        if (::lstat(temporary.c_str(), &st) != 0 || !S_ISREG(st.st_mode) ||
            ::lstat(movie.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            continue;
        }
        UniqueFd fd(::open(temporary.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!fd.valid() || ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0) continue;
        if (::unlink(temporary.c_str()) == 0) {
            logLine("Writer: removed “" + temporary + "”, left by a run that stopped while "
                    "finishing; its recording is “" + movie + "”");
        }
    }
}

}  // namespace

FfmpegAssetWriterFactory::FfmpegAssetWriterFactory(FfmpegWriterOptions options)
    : options_(options) {
    routeFfmpegLogging();
}

Result<AssetWriterRef> FfmpegAssetWriterFactory::makeWriter(const std::string& path,
                                                            FileType /*fileType*/) {
    const auto slash = path.rfind('/');
    const std::string folder =
        slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.empty()) {
        return writerError(WriterErrorCode::invalidSettings,
                           "The recording can't be saved as “" + path + "”: the name is empty.");
    }
    struct stat st {};
    if (::stat(folder.c_str(), &st) != 0) {
        const int err = errno;
        if (err == ENOENT || err == ENOTDIR) {
            return writerError(
                WriterErrorCode::folderMissing,
                "The recording can't be saved because the folder “" + folder + "” doesn't exist.");
        }
        return writerError(WriterErrorCode::folderNotWritable,
                           "The recording can't be saved in the folder “" + folder +
                               "”: " + errnoReason(err) + ".");
    }
    if (!S_ISDIR(st.st_mode)) {
        return writerError(
            WriterErrorCode::folderMissing,
            "The recording can't be saved because “" + folder + "” is not a folder.");
    }
    if (::access(folder.c_str(), W_OK | X_OK) != 0) {
        return writerError(WriterErrorCode::folderNotWritable,
                           "The recording can't be saved because you don't have permission to "
                           "write to the folder “" +
                               folder + "”.");
    }
    if (const auto taken = nameTaken(path)) {
        return writerError(WriterErrorCode::cannotCreateFile,
                           "The recording can't be saved as “" + path + "”: " + *taken + ".");
    }
    removeStaleTemporaries(folder);
    return AssetWriterRef(std::make_shared<FfmpegAssetWriter>(path, options_));
}

AssetWriterInputRef FfmpegAssetWriterFactory::makeInput(MediaType type,
                                                        const WriterOutputSettings& settings) {
    return std::make_shared<FfmpegAssetWriterInput>(type, settings);
}

}  // namespace gb::linuxp
