#include "linux/pulse/pulse_microphone.h"

#include <pulse/error.h>
#include <pulse/introspect.h>
#include <pulse/sample.h>
#include <pulse/stream.h>

#include <algorithm>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "linux/capture/monotonic_clock.h"
#include "linux/pulse/pulse_connection.h"
#include "portable/audio_buffer_pool.h"
#include "portable/audio_timeline.h"
#include "recording/log.h"

namespace gb::linuxp {
namespace {

using Clock = PulseConnection::Clock;

constexpr const char* kClientName = "Glimmerbox";
// Opening the recording stream: connecting, then the server setting the stream up.
constexpr std::chrono::milliseconds kStartTimeout{2000};
// What the server is asked to hand over at a time: each chunk wakes three threads, which on a
// still screen is most of what a recording costs. Also bounds how late a chunk is.
constexpr pa_usec_t kFragmentMicroseconds = 40'000;
// Audio captured longer ago than this is a backlog (the process was stopped or starved).
constexpr int64_t kBacklogNanoseconds = 200'000'000;
// A delivered buffer holds at most this much; larger reads are split.
constexpr int kMaxChunkMilliseconds = 100;
// About three seconds of 40 ms chunks may be in the hands of the consumers at once.
constexpr size_t kPoolBuffers = 72;

// Anything beyond this is not a believable capture latency.
constexpr int64_t kMaxSourceLatencyMicroseconds = 500'000;

constexpr size_t kBytesPerSample = sizeof(float);

// The server's timing reports come at least every few seconds while the stream runs; an older
// one (or one from the future) means the wall clock it is stamped with was set meanwhile.
constexpr int64_t kMaxReportAgeNanoseconds = 600'000'000'000;

struct SourceLookup {
    bool serverAnswered = false;
    std::string defaultSource;
    bool sourceAnswered = false;
    bool found = false;
    PulseSourceDescription description;
};

void onServerInfo(pa_context*, const pa_server_info* info, void* userdata) {
    auto& lookup = *static_cast<SourceLookup*>(userdata);
    if (info != nullptr && info->default_source_name != nullptr) {
        lookup.defaultSource = info->default_source_name;
    }
    lookup.serverAnswered = true;
}

void onSourceInfo(pa_context*, const pa_source_info* info, int eol, void* userdata) {
    auto& lookup = *static_cast<SourceLookup*>(userdata);
    if (eol != 0 || info == nullptr) {
        lookup.sourceAnswered = true;
        return;
    }
    lookup.found = true;
    lookup.description.name = info->name != nullptr ? info->name : "";
    lookup.description.description =
        info->description != nullptr ? info->description : lookup.description.name;
    lookup.description.sampleRate = static_cast<int>(info->sample_spec.rate);
    lookup.description.channels = info->sample_spec.channels >= 2 ? 2 : 1;
}

// One recording from a source: the server connection, the stream and the thread that runs the
// loop. Everything but the thread handle is touched only by the thread that drives the loop: the
// starter until the capture thread exists, then the capture thread, then the stopper after it
// joined.
class PulseRecording {
public:
    using Deliver = CaptureSource::Deliver;

    using Interrupted = CaptureSource::Interrupted;

    [[nodiscard]] static Result<std::unique_ptr<PulseRecording>> open(
        const PulseSourceDescription& source, Deliver deliver, Interrupted interrupted);

    ~PulseRecording() { stop(); }
    PulseRecording(const PulseRecording&) = delete;
    PulseRecording& operator=(const PulseRecording&) = delete;
    PulseRecording(PulseRecording&&) = delete;
    PulseRecording& operator=(PulseRecording&&) = delete;

    // Ends the capture thread; returns once nothing will be delivered any more.
    void stop();

private:
    PulseRecording(const PulseSourceDescription& source, Deliver deliver);

    [[nodiscard]] Result<void> connectStream();
    void run(std::stop_token stop);
    void drain();
    [[nodiscard]] int64_t firstFrameNanoseconds(int64_t frames) const;
    [[nodiscard]] std::optional<int64_t> serverFirstFrameNanoseconds() const;
    [[nodiscard]] std::shared_ptr<AudioBuffer> freshBuffer();
    void append(const uint8_t* bytes, int64_t frames, int64_t measuredNanoseconds);
    void deliverPending();
    void end(const std::string& reason);

    static void onStreamState(pa_stream* stream, void* userdata);
    static void onContextState(pa_context* context, void* userdata);
    static void onReadable(pa_stream* stream, size_t length, void* userdata);

    const PulseSourceDescription source_;
    const Deliver deliver_;
    const pa_sample_spec spec_;
    const size_t frameBytes_;
    const int64_t maxChunkFrames_;
    const int64_t fragmentFrames_;

    Interrupted interrupted_;
    std::unique_ptr<PulseConnection> connection_;
    PulseStreamPtr stream_;
    AudioTimeline timeline_;
    std::shared_ptr<AudioBufferPool> pool_;
    bool streamReady_ = false;
    bool capturing_ = false;  // on the capture thread, from its start
    bool ended_ = false;
    uint64_t delivered_ = 0;
    uint64_t dropped_ = 0;
    // The stream position, in bytes, of the next byte to be read.
    int64_t readIndex_ = 0;
    // Frames read but not yet delivered, and when the first of them was captured.
    std::shared_ptr<AudioBuffer> pending_;
    int64_t pendingNanoseconds_ = 0;

    std::jthread thread_;  // last: destroyed (joined) before the stream and the connection
};

PulseRecording::PulseRecording(const PulseSourceDescription& source, Deliver deliver)
    : source_(source),
      deliver_(std::move(deliver)),
      spec_{PA_SAMPLE_FLOAT32NE, static_cast<uint32_t>(source.sampleRate),
            static_cast<uint8_t>(source.channels)},
      frameBytes_(kBytesPerSample * static_cast<size_t>(source.channels)),
      maxChunkFrames_(std::max(1, source.sampleRate * kMaxChunkMilliseconds / 1000)),
      fragmentFrames_(
          static_cast<int64_t>(pa_usec_to_bytes(kFragmentMicroseconds, &spec_) / frameBytes_)),
      timeline_(source.sampleRate),
      pool_(AudioBufferPool::make(kPoolBuffers,
                                  static_cast<size_t>(maxChunkFrames_) * frameBytes_)) {}

Result<std::unique_ptr<PulseRecording>> PulseRecording::open(const PulseSourceDescription& source,
                                                             Deliver deliver,
                                                             Interrupted interrupted) {
    if (source.sampleRate <= 0 || source.channels < 1 || source.channels > 2) {
        return pulseError(PA_ERR_INVALID);
    }
    std::unique_ptr<PulseRecording> recording(new PulseRecording(source, std::move(deliver)));
    recording->interrupted_ = std::move(interrupted);
    const auto deadline = Clock::now() + kStartTimeout;
    auto connection = PulseConnection::open(kClientName, deadline);
    if (!connection) return connection.error();
    recording->connection_ = std::move(connection.value());
    pa_context_set_state_callback(recording->connection_->context(), &onContextState,
                                  recording.get());

    if (auto connected = recording->connectStream(); !connected) return connected.error();
    const auto settled = [&r = *recording] {
        return r.streamReady_ || !PA_STREAM_IS_GOOD(pa_stream_get_state(r.stream_.get()));
    };
    switch (recording->connection_->runUntil(settled, deadline)) {
        case PulseConnection::Wait::timedOut:
            return pulseError(PA_ERR_TIMEOUT);
        case PulseConnection::Wait::failed:
            return recording->connection_->lastError();
        case PulseConnection::Wait::done:
            if (!recording->streamReady_) return recording->connection_->lastError();
            break;
    }
    recording->thread_ =
        std::jthread([r = recording.get()](std::stop_token stop) { r->run(stop); });
    return recording;
}

Result<void> PulseRecording::connectStream() {
    pa_channel_map map;
    pa_channel_map_init_auto(&map, spec_.channels, PA_CHANNEL_MAP_DEFAULT);
    stream_.reset(pa_stream_new(connection_->context(), "Microphone", &spec_, &map));
    if (!stream_) return connection_->lastError();
    pa_stream_set_state_callback(stream_.get(), &onStreamState, this);

    pa_buffer_attr attributes{};
    attributes.maxlength = static_cast<uint32_t>(-1);
    attributes.tlength = static_cast<uint32_t>(-1);
    attributes.prebuf = static_cast<uint32_t>(-1);
    attributes.minreq = static_cast<uint32_t>(-1);
    attributes.fragsize = static_cast<uint32_t>(pa_usec_to_bytes(kFragmentMicroseconds, &spec_));
    // Timing updates keep the source's latency, and with it every time stamp, current.
    const auto flags =
        static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_AUTO_TIMING_UPDATE);
    if (pa_stream_connect_record(stream_.get(), source_.name.c_str(), &attributes, flags) < 0) {
        return connection_->lastError();
    }
    return {};
}

void PulseRecording::run(std::stop_token stop) {
    // A stop request interrupts the wait for the next chunk.
    std::stop_callback wake(stop, [this] { connection_->wakeup(); });
    capturing_ = true;
    try {
        // Reading starts here so that every delivery comes from this thread.
        pa_stream_set_read_callback(stream_.get(), &onReadable, this);
        drain();
        while (!stop.stop_requested() && !ended_) {
            if (!connection_->iterate()) end("the main loop failed");
        }
        deliverPending();
    } catch (const std::exception& error) {
        end(std::string("capture failed: ") + error.what());
    }
}

void PulseRecording::stop() {
    if (!thread_.joinable()) return;
    thread_.request_stop();
    thread_.join();
    logLine("Microphone capture stopped: " + std::to_string(delivered_) + " buffers delivered, " +
            std::to_string(dropped_) + " dropped");
}

void PulseRecording::end(const std::string& reason) {
    if (ended_) return;
    ended_ = true;
    logLine("⚠️ Microphone stream ended: " + reason);
    // Only the running stream reports: a failure while opening is open()'s to return.
    if (capturing_ && interrupted_) interrupted_("The microphone stopped: " + reason);
}

void PulseRecording::onStreamState(pa_stream* stream, void* userdata) {
    auto& self = *static_cast<PulseRecording*>(userdata);
    switch (pa_stream_get_state(stream)) {
        case PA_STREAM_READY:
            self.streamReady_ = true;
            break;
        case PA_STREAM_FAILED:
        case PA_STREAM_TERMINATED:
            // Before the stream was ready, open() reports the failure itself.
            if (self.streamReady_) self.end(self.connection_->lastError().localizedDescription);
            break;
        default:
            break;
    }
}

void PulseRecording::onContextState(pa_context* context, void* userdata) {
    auto& self = *static_cast<PulseRecording*>(userdata);
    if (self.streamReady_ && !PA_CONTEXT_IS_GOOD(pa_context_get_state(context))) {
        self.end(self.connection_->lastError().localizedDescription);
    }
}

void PulseRecording::onReadable(pa_stream*, size_t, void* userdata) {
    auto& self = *static_cast<PulseRecording*>(userdata);
    // Nothing may unwind through the server library.
    try {
        self.drain();
    } catch (const std::exception& error) {
        self.end(std::string("capture failed: ") + error.what());
    }
}

void PulseRecording::drain() {
    while (!ended_) {
        if (!pending_ && !(pending_ = freshBuffer())) {
            // Every buffer is still with the consumers. The rest waits in the stream (the server
            // holds seconds of it) and is read when the next chunk arrives.
            break;
        }
        const void* data = nullptr;
        size_t length = 0;
        if (pa_stream_peek(stream_.get(), &data, &length) < 0) {
            end(connection_->lastError().localizedDescription);
            return;
        }
        if (length == 0) break;
        const auto frames = static_cast<int64_t>(length / frameBytes_);
        if (data == nullptr) {
            deliverPending();
            timeline_.skip(frames);  // the server lost these frames
        } else if (frames > 0) {
            // Both measurements can only err late (a stale report may miss a skip of the
            // server's clock; a reader held up cannot see what still waits in the server).
            const int64_t local = firstFrameNanoseconds(frames);
            const int64_t measured = std::min(local, serverFirstFrameNanoseconds().value_or(local));
            append(static_cast<const uint8_t*>(data), frames, measured);
        }
        readIndex_ += static_cast<int64_t>(length);
        pa_stream_drop(stream_.get());
    }
    // Some sources hand over a few milliseconds at a time; they are gathered into buffers of a
    // fragment at least. A backlog (after a stall) fills whole buffers.
    if (pending_ && pending_->frameCount >= fragmentFrames_ &&
        monotonicNanoseconds() - pendingNanoseconds_ < kBacklogNanoseconds) {
        deliverPending();
    }
}

std::optional<int64_t> PulseRecording::serverFirstFrameNanoseconds() const {
    // The server's last timing report says how far its capture had got (its write index) and
    // when. The source records at its own steady rate, so the byte at our read index was
    // captured the difference between the two earlier (or later) than that. This stays true
    // however long we were kept from reading (stopped, starved, suspended): what the server
    // queued meanwhile is placed when it was captured, not when it was read. The report need not
    // be fresh; a report from before a stall still names one consistent moment.
    const pa_timing_info* timing = pa_stream_get_timing_info(stream_.get());
    // A report from before the source delivered anything does not pin the clock: the source may
    // have taken a while to start.
    if (timing == nullptr || timing->write_index_corrupt != 0 || timing->write_index <= 0) {
        return std::nullopt;
    }
    timespec realNow{};
    clock_gettime(CLOCK_REALTIME, &realNow);
    const int64_t monotonicNow = monotonicNanoseconds();
    const int64_t reportAge =
        (static_cast<int64_t>(realNow.tv_sec) - timing->timestamp.tv_sec) * 1'000'000'000 +
        (static_cast<int64_t>(realNow.tv_nsec) - timing->timestamp.tv_usec * 1000);
    // A report from the future or from long ago means the wall clock was set meanwhile.
    if (reportAge < 0 || reportAge > kMaxReportAgeNanoseconds) return std::nullopt;
    const int64_t ahead = (timing->write_index - readIndex_) / static_cast<int64_t>(frameBytes_);
    const int64_t ageOfNewest = std::clamp<int64_t>(static_cast<int64_t>(timing->source_usec), 0,
                                                    kMaxSourceLatencyMicroseconds) *
                                1000;
    const int64_t aheadNanoseconds =
        ahead >= 0 ? timeline_.durationNanoseconds(ahead) : -timeline_.durationNanoseconds(-ahead);
    return monotonicNow - reportAge - ageOfNewest - aheadNanoseconds;
}

int64_t PulseRecording::firstFrameNanoseconds(int64_t frames) const {
    // The frames waiting here (this chunk first) are the newest the server sent; the last of
    // them left the source its latency ago. The stream's own latency estimate is not used: for
    // some sources (a sink's monitor) it runs on stale timing and is off by hundreds of ms.
    const int64_t now = monotonicNanoseconds();
    const size_t readable = pa_stream_readable_size(stream_.get());
    const int64_t buffered = readable == static_cast<size_t>(-1)
                                 ? frames
                                 : std::max(frames, static_cast<int64_t>(readable / frameBytes_));
    int64_t sourceLatency = 0;
    if (const pa_timing_info* timing = pa_stream_get_timing_info(stream_.get())) {
        // A monitor's latency can be negative, which arrives as a huge unsigned value.
        const auto believable = [](pa_usec_t microseconds) {
            return std::clamp<int64_t>(static_cast<int64_t>(microseconds), 0,
                                       kMaxSourceLatencyMicroseconds);
        };
        sourceLatency =
            std::min(believable(timing->source_usec) + believable(timing->transport_usec),
                     kMaxSourceLatencyMicroseconds) *
            1000;
    }
    return now - sourceLatency - timeline_.durationNanoseconds(buffered);
}

std::shared_ptr<AudioBuffer> PulseRecording::freshBuffer() {
    auto buffer = pool_->acquire();
    if (!buffer) return nullptr;
    buffer->sampleRate = source_.sampleRate;
    buffer->channels = source_.channels;
    buffer->format = AudioSampleFormat::f32;
    buffer->frameCount = 0;
    buffer->data.clear();
    return buffer;
}

void PulseRecording::append(const uint8_t* bytes, int64_t frames, int64_t measuredNanoseconds) {
    // Chunks read in one go (the backlog after a stall) fill whole buffers, so that catching up
    // does not flood the recording queue with small ones.
    for (int64_t offset = 0; offset < frames;) {
        if (!pending_ && !(pending_ = freshBuffer())) {
            ++dropped_;
            timeline_.skip(frames - offset);
            return;
        }
        if (pending_->frameCount == 0) {
            pendingNanoseconds_ = measuredNanoseconds + timeline_.durationNanoseconds(offset);
        }
        const int64_t count = std::min(maxChunkFrames_ - pending_->frameCount, frames - offset);
        const uint8_t* first = bytes + static_cast<size_t>(offset) * frameBytes_;
        pending_->data.insert(pending_->data.end(), first,
                              first + static_cast<size_t>(count) * frameBytes_);
        pending_->frameCount += static_cast<int>(count);
        offset += count;
        if (pending_->frameCount >= maxChunkFrames_) deliverPending();
    }
}

void PulseRecording::deliverPending() {
    if (!pending_ || pending_->frameCount == 0) return;
    std::shared_ptr<AudioBuffer> buffer = std::move(pending_);
    const int64_t count = buffer->frameCount;
    const int64_t start = timeline_.place(pendingNanoseconds_, count);
    SampleTiming timing{MediaTime::make(count, source_.sampleRate),
                        MediaTime::fromNanoseconds(start), MediaTime::invalid()};
    deliver_(SampleBuffer::audio(std::move(buffer), timing));
    ++delivered_;
}

}  // namespace

// The recording of an input's source; one at a time.
class PulseMicrophoneSource final : public CaptureSource {
public:
    explicit PulseMicrophoneSource(PulseSourceDescription source) : source_(std::move(source)) {}
    ~PulseMicrophoneSource() override { stop(); }
    PulseMicrophoneSource(const PulseMicrophoneSource&) = delete;
    PulseMicrophoneSource& operator=(const PulseMicrophoneSource&) = delete;
    PulseMicrophoneSource(PulseMicrophoneSource&&) = delete;
    PulseMicrophoneSource& operator=(PulseMicrophoneSource&&) = delete;

    [[nodiscard]] MediaType mediaType() const override { return MediaType::audio; }

    // Opens the stream now, so that a server or source that refuses it fails the set-up rather
    // than leaving the recording without sound. What it captures before start() is not kept.
    Result<void> prepare() {
        std::lock_guard lock(mutex_);
        return prepareLocked();
    }

    Result<void> start(Deliver deliver) override {
        std::lock_guard lock(mutex_);
        if (started_) return pulseError(PA_ERR_BADSTATE);
        if (auto prepared = prepareLocked(); !prepared) return prepared.error();
        {
            std::lock_guard targets(targetMutex_);
            deliver_ = std::move(deliver);
        }
        started_ = true;
        return {};
    }

    void setInterruptedHandler(Interrupted handler) override {
        std::lock_guard targets(targetMutex_);
        interrupted_ = std::move(handler);
    }

    void stop() override {
        std::unique_ptr<PulseRecording> recording;
        {
            std::lock_guard lock(mutex_);
            recording = std::move(recording_);
            started_ = false;
        }
        {
            // Waits for a delivery in progress; none follows.
            std::lock_guard targets(targetMutex_);
            deliver_ = nullptr;
        }
        recording.reset();  // joins the capture thread
    }

private:
    Result<void> prepareLocked() {
        if (recording_) return {};
        auto recording = PulseRecording::open(
            source_,
            [this](const SampleBufferRef& sample) {
                std::lock_guard targets(targetMutex_);
                if (deliver_) deliver_(sample);
            },
            [this](const std::string& reason) {
                Interrupted handler;
                {
                    std::lock_guard targets(targetMutex_);
                    if (!deliver_) return;  // not recording: nobody to tell
                    handler = interrupted_;
                }
                if (handler) handler(reason);
            });
        if (!recording) return recording.error();
        recording_ = std::move(recording.value());
        return {};
    }

    const PulseSourceDescription source_;
    std::mutex mutex_;
    std::unique_ptr<PulseRecording> recording_;  // guarded by mutex_
    bool started_ = false;                       // guarded by mutex_
    std::mutex targetMutex_;                     // taken by the capture thread per delivery
    Deliver deliver_;                            // guarded by targetMutex_
    Interrupted interrupted_;                    // guarded by targetMutex_
};

PulseMicrophoneInput::PulseMicrophoneInput(PulseSourceDescription source)
    : source_(std::make_unique<PulseMicrophoneSource>(std::move(source))) {}

PulseMicrophoneInput::~PulseMicrophoneInput() = default;

CaptureSource& PulseMicrophoneInput::captureSource() {
    return *source_;
}

Result<void> PulseMicrophoneInput::prepare() {
    return source_->prepare();
}

CameraDeviceInfo PulseMicrophoneDevice::info() const {
    CameraDeviceInfo info;
    info.localizedName = source_.description;
    info.uniqueID = source_.name;
    info.connected = true;
    return info;
}

Result<std::shared_ptr<CaptureInput>> PulseMicrophoneDevice::makeInput() {
    auto input = std::make_shared<PulseMicrophoneInput>(source_);
    if (auto prepared = input->prepare(); !prepared) return prepared.error();
    return std::shared_ptr<CaptureInput>(std::move(input));
}

CaptureDeviceRef defaultPulseMicrophone(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    auto connection = PulseConnection::open(kClientName, deadline);
    if (!connection) {
        logLine("No microphone: the sound server is not available (" +
                connection.error().localizedDescription + ")");
        return nullptr;
    }
    PulseConnection& server = *connection.value();
    SourceLookup lookup;

    const auto ask = [&](pa_operation* operation, const bool& answered) {
        const PulseOperationPtr pending(operation);
        if (!pending) return false;
        return server.runUntil([&] { return answered; }, deadline) == PulseConnection::Wait::done;
    };
    if (!ask(pa_context_get_server_info(server.context(), &onServerInfo, &lookup),
             lookup.serverAnswered)) {
        logLine("No microphone: the sound server did not answer");
        return nullptr;
    }
    if (lookup.defaultSource.empty()) {
        logLine("No microphone: the sound server has no default input");
        return nullptr;
    }
    if (!ask(pa_context_get_source_info_by_name(server.context(), lookup.defaultSource.c_str(),
                                                &onSourceInfo, &lookup),
             lookup.sourceAnswered) ||
        !lookup.found) {
        logLine("No microphone: the default input " + lookup.defaultSource + " is not available");
        return nullptr;
    }
    return std::make_shared<PulseMicrophoneDevice>(std::move(lookup.description));
}

}  // namespace gb::linuxp
