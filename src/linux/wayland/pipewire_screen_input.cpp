#include "linux/wayland/pipewire_screen_input.h"

#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>
#include <spa/pod/builder.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

#include "linux/capture/cursor_image.h"
#include "linux/capture/frame_pool.h"
#include "linux/capture/monotonic_clock.h"
#include "recording/log.h"

namespace gb::linuxp {
namespace {

constexpr int kCursorMax = 256;  // largest cursor bitmap asked for, in pixels a side
constexpr int kDamageRegions = 16;  // damage rectangles asked for a frame; more: the whole frame
constexpr int64_t kFrameNs = 1'000'000'000 / 30;
// Compositors send frames only when the screen changes. Gaps are filled by repeating the last
// image at 30 a second (a sample without an image repeats it), as X11 capture does, so the
// camera overlay keeps moving and the video lasts to the end of the recording. Repeats trail
// real time by this much, so a frame merely delayed on a busy machine is not overtaken by one.
constexpr int64_t kRepeatLagNs = 100'000'000;

PlatformError streamError(int code, std::string text) {
    return PlatformError{"glimmerbox.pipewire", code, std::move(text)};
}

void ensurePipeWireInitialised() {
    static std::once_flag once;
    std::call_once(once, [] { pw_init(nullptr, nullptr); });
}

// One pixel from the stream's format to opaque BGRA.
inline uint32_t toBGRA(uint32_t p, bool swapRedBlue) {
    if (swapRedBlue) p = (p & 0xff00ff00u) | ((p & 0xffu) << 16) | ((p >> 16) & 0xffu);
    return p | 0xff000000u;
}

// Cursor bitmaps come with straight alpha; they are drawn premultiplied.
uint32_t premultiplied(uint32_t p) {
    const uint32_t a = p >> 24;
    uint32_t out = p & 0xff000000u;
    for (int shift = 0; shift <= 16; shift += 8) {
        out |= (((p >> shift) & 0xff) * a + 127) / 255 << shift;
    }
    return out;
}

}  // namespace

// Everything PipeWire: the loop, the connection, the stream and the frame pool. The callbacks run
// on the loop's thread with the loop's lock held; start() and stop() take that lock.
struct PipeWireScreenSource::Stream {
    std::unique_ptr<ScreenCastSession> session;
    int poolSize = 4;
    EndedHandler onEnded;
    std::atomic<bool> ended{false};
    // Between start() and stop(): only then does an end of the stream stop a recording.
    std::atomic<bool> running{false};

    pw_thread_loop* loop = nullptr;
    pw_context* context = nullptr;
    pw_core* core = nullptr;
    pw_stream* stream = nullptr;
    spa_hook coreListener{};
    spa_hook streamListener{};
    pw_core_events coreEvents{};
    pw_stream_events streamEvents{};

    // Loop thread (or the holder of the loop's lock).
    spa_video_info_raw format{};
    bool formatKnown = false;
    std::string failure;
    Deliver deliver;
    std::shared_ptr<FramePool> pool;
    size_t poolBytes = 0;
    CursorImage cursor;
    std::atomic<int> width{0};
    std::atomic<int> height{0};
    uint64_t delivered = 0;
    uint64_t droppedNoBuffer = 0;
    spa_source* repeater = nullptr;  // the loop's timer for repeated frames
    int64_t lastStampNs = 0;         // of the last frame or repeat delivered; 0 before the first
    // The picture number of the last frame taken from the stream, 0 when the next one cannot be
    // described by its damage alone (none yet, one skipped, a new crop); and its cursor's place.
    uint64_t lastPicture = 0;
    PixelArea lastCrop;
    std::optional<PixelArea> lastCursor;
    // The newest frame that came before start(): a quiet screen may send no other for a while.
    PixelBufferRef waiting;

    ~Stream() {
        if (loop != nullptr) pw_thread_loop_stop(loop);
        if (stream != nullptr) pw_stream_destroy(stream);
        if (core != nullptr) pw_core_disconnect(core);
        if (context != nullptr) pw_context_destroy(context);
        if (loop != nullptr) pw_thread_loop_destroy(loop);
        if (session) session->close();
    }

    // Why the stream ended while no recording ran; the next start ends at once. end() runs on
    // the loop's thread or the portal's watcher.
    std::mutex endedEarlyMutex;
    std::string endedEarly;  // guarded by endedEarlyMutex

    void end(const std::string& why) {
        if (!running.load()) {
            std::lock_guard lock(endedEarlyMutex);
            if (endedEarly.empty()) endedEarly = why;
            return;
        }
        if (ended.exchange(true)) return;
        logLine("⚠️ Screen capture ended: " + why + "; stopping the recording");
        if (onEnded) onEnded(why);
    }

    void fail(const std::string& why) {
        if (failure.empty()) failure = why;
        pw_thread_loop_signal(loop, false);
    }

    static void onCoreError(void* data, uint32_t id, int, int res, const char* message) {
        auto* self = static_cast<Stream*>(data);
        if (id != PW_ID_CORE) return;
        const std::string why = res == -EPIPE ? std::string("PipeWire went away")
                                              : std::string("PipeWire failed: ") +
                                                    (message ? message : "unknown error");
        if (self->formatKnown) {
            self->end(why);
        } else {
            self->fail(why);
        }
    }

    static void onStateChanged(void* data, pw_stream_state, pw_stream_state state,
                               const char* error) {
        auto* self = static_cast<Stream*>(data);
        if (state != PW_STREAM_STATE_ERROR && state != PW_STREAM_STATE_UNCONNECTED) return;
        const std::string why = state == PW_STREAM_STATE_ERROR
                                    ? std::string("the screen stream failed: ") +
                                          (error ? error : "unknown error")
                                    : std::string("the screen stream was disconnected");
        if (self->formatKnown) {
            self->end(why);
        } else {
            self->fail(why);
        }
    }

    static void onParamChanged(void* data, uint32_t id, const spa_pod* param) {
        auto* self = static_cast<Stream*>(data);
        if (param == nullptr || id != SPA_PARAM_Format) return;
        spa_video_info_raw info{};
        if (spa_format_video_raw_parse(param, &info) < 0) return;
        self->format = info;
        self->width.store(static_cast<int>(info.size.width));
        self->height.store(static_cast<int>(info.size.height));

        // Memory the CPU reads (no DMA-BUF), with the header, crop and cursor metadata.
        uint8_t buffer[1024];
        spa_pod_builder b{};
        spa_pod_builder_init(&b, buffer, sizeof buffer);
        const spa_pod* params[5];
        params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &b, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers, SPA_PARAM_BUFFERS_dataType,
            SPA_POD_CHOICE_FLAGS_Int((1 << SPA_DATA_MemPtr) | (1 << SPA_DATA_MemFd))));
        params[1] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
            SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size,
            SPA_POD_Int(sizeof(spa_meta_header))));
        params[2] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
            SPA_POD_Id(SPA_META_VideoCrop), SPA_PARAM_META_size,
            SPA_POD_Int(sizeof(spa_meta_region))));
        const int cursorBytes = static_cast<int>(sizeof(spa_meta_cursor) + sizeof(spa_meta_bitmap)) +
                                kCursorMax * kCursorMax * 4;
        params[3] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
            SPA_POD_Id(SPA_META_Cursor), SPA_PARAM_META_size,
            SPA_POD_CHOICE_RANGE_Int(cursorBytes, static_cast<int>(sizeof(spa_meta_cursor)),
                                     cursorBytes)));
        // Where the compositor redrew since the last frame, when it says so.
        params[4] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
            &b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta, SPA_PARAM_META_type,
            SPA_POD_Id(SPA_META_VideoDamage), SPA_PARAM_META_size,
            SPA_POD_CHOICE_RANGE_Int(static_cast<int>(sizeof(spa_meta_region)) * kDamageRegions,
                                     static_cast<int>(sizeof(spa_meta_region)),
                                     static_cast<int>(sizeof(spa_meta_region)) * kDamageRegions)));
        pw_stream_update_params(self->stream, params, 5);

        const size_t bytes = static_cast<size_t>(info.size.width) * info.size.height * 4;
        if (!self->pool || bytes > self->poolBytes) {
            // Buffers still held downstream keep the old pool alive until they are done.
            self->pool = FramePool::create(self->poolSize, bytes, false);
            self->poolBytes = bytes;
        }
        self->formatKnown = true;
        pw_thread_loop_signal(self->loop, false);
    }

    static void onRepeat(void* data, uint64_t) {
        auto* self = static_cast<Stream*>(data);
        const int64_t horizon = monotonicNanoseconds() - kRepeatLagNs;
        if (!self->deliver || self->lastStampNs == 0) return;
        // On the frame grid; a late timer catches up by one extra repeat at most.
        for (int i = 0; i < 2 && horizon - self->lastStampNs >= kFrameNs * 3 / 4; ++i) {
            self->lastStampNs = std::min(horizon, self->lastStampNs + kFrameNs);
            self->deliver(SampleBuffer::video(
                nullptr, SampleTiming{MediaTime::fromNanoseconds(kFrameNs),
                                      MediaTime::fromNanoseconds(self->lastStampNs),
                                      MediaTime::invalid()}));
        }
    }

    void armRepeater(bool on) {
        timespec value{0, on ? kFrameNs : 0};
        timespec interval{0, on ? kFrameNs : 0};
        pw_loop_update_timer(pw_thread_loop_get_loop(loop), repeater, &value, &interval, false);
    }

    static void onProcess(void* data) {
        auto* self = static_cast<Stream*>(data);
        // Every frame waiting counts, in order: each has its own time.
        while (pw_buffer* b = pw_stream_dequeue_buffer(self->stream)) {
            self->takeFrame(*b->buffer);
            pw_stream_queue_buffer(self->stream, b);
        }
    }

    void readCursor(const spa_buffer& buffer, std::optional<spa_point>& position) {
        auto* meta = static_cast<spa_meta_cursor*>(
            spa_buffer_find_meta_data(&buffer, SPA_META_Cursor, sizeof(spa_meta_cursor)));
        if (meta == nullptr || !spa_meta_cursor_is_valid(meta)) return;
        if (meta->bitmap_offset >= sizeof(spa_meta_cursor)) {
            const auto* bitmap = SPA_PTROFF(meta, meta->bitmap_offset, spa_meta_bitmap);
            const int w = static_cast<int>(bitmap->size.width);
            const int h = static_cast<int>(bitmap->size.height);
            const bool rgba = bitmap->format == SPA_VIDEO_FORMAT_RGBA;
            if (w > 0 && h > 0 && w <= kCursorMax && h <= kCursorMax &&
                (rgba || bitmap->format == SPA_VIDEO_FORMAT_BGRA)) {
                cursor.width = w;
                cursor.height = h;
                cursor.pixels.resize(static_cast<size_t>(w) * h);
                const auto* rows = SPA_PTROFF(bitmap, bitmap->offset, uint8_t);
                for (int y = 0; y < h; ++y) {
                    const auto* row = reinterpret_cast<const uint32_t*>(
                        rows + static_cast<size_t>(y) * bitmap->stride);
                    for (int x = 0; x < w; ++x) {
                        uint32_t p = row[x];
                        if (rgba) p = (p & 0xff00ff00u) | ((p & 0xffu) << 16) | ((p >> 16) & 0xffu);
                        cursor.pixels[static_cast<size_t>(y) * w + x] = premultiplied(p);
                    }
                }
            }
        }
        cursor.hotX = meta->hotspot.x;
        cursor.hotY = meta->hotspot.y;
        position = meta->position;
    }

    // Adds `area`, clipped to the cropped frame, unless nothing of it is left.
    static void add(PictureChanges& changes, const PixelArea& crop, PixelArea area) {
        const int right = std::min(area.x + area.width, crop.width);
        const int bottom = std::min(area.y + area.height, crop.height);
        area.x = std::max(area.x, 0);
        area.y = std::max(area.y, 0);
        area.width = right - area.x;
        area.height = bottom - area.y;
        if (area.width > 0 && area.height > 0) changes.areas.push_back(area);
    }

    // What changed since the last frame taken, from the compositor's damage (in stream
    // coordinates) and the cursor drawn in. Without damage metadata every frame is new.
    PictureChanges changesSinceLast(const spa_buffer& buffer, PixelArea crop,
                                    std::optional<PixelArea> cursorArea) {
        PictureChanges changes;
        changes.picture = PictureChanges::nextPictureNumber();
        const uint64_t previous = std::exchange(lastPicture, changes.picture);
        const std::optional<PixelArea> previousCursor = std::exchange(lastCursor, cursorArea);
        const PixelArea previousCrop = std::exchange(lastCrop, crop);
        auto* damage = static_cast<spa_meta_region*>(
            spa_buffer_find_meta_data(&buffer, SPA_META_VideoDamage, sizeof(spa_meta_region)));
        if (previous == 0 || damage == nullptr || !(previousCrop == crop)) return changes;
        const spa_meta* meta = spa_buffer_find_meta(&buffer, SPA_META_VideoDamage);
        const size_t count = meta->size / sizeof(spa_meta_region);
        for (size_t i = 0; i < count && spa_meta_region_is_valid(&damage[i]); ++i) {
            const spa_region& r = damage[i].region;
            // A full list may have left some out: then take the whole frame.
            if (i + 1 == count) return changes;
            add(changes, crop, {r.position.x - crop.x, r.position.y - crop.y,
                                static_cast<int>(r.size.width), static_cast<int>(r.size.height)});
        }
        for (const auto& area : {previousCursor, cursorArea}) {
            if (area) add(changes, crop, *area);
        }
        changes.since = previous;
        return changes;
    }

    void takeFrame(const spa_buffer& buffer) {
        if (!pool || buffer.n_datas < 1) return;
        const spa_data& plane = buffer.datas[0];
        if (plane.data == nullptr || plane.chunk == nullptr || plane.chunk->size == 0 ||
            (plane.chunk->flags & SPA_CHUNK_FLAG_CORRUPTED) != 0) {
            return;
        }
        int64_t stamp = 0;
        if (const auto* header = static_cast<const spa_meta_header*>(
                spa_buffer_find_meta_data(&buffer, SPA_META_Header, sizeof(spa_meta_header)))) {
            if ((header->flags & SPA_META_HEADER_FLAG_CORRUPTED) != 0) return;
            stamp = header->pts;
        }
        if (stamp <= 0) stamp = monotonicNanoseconds();
        // A repeat may have been stamped after this frame was made: keep the times in order.
        stamp = std::max(stamp, lastStampNs + 1'000'000);

        const int fullWidth = static_cast<int>(format.size.width);
        const int fullHeight = static_cast<int>(format.size.height);
        int left = 0;
        int top = 0;
        int width = fullWidth;
        int height = fullHeight;
        if (const auto* crop = static_cast<const spa_meta_region*>(
                spa_buffer_find_meta_data(&buffer, SPA_META_VideoCrop, sizeof(spa_meta_region)))) {
            const spa_region& r = crop->region;
            if (r.size.width > 0 && r.size.height > 0 && r.position.x >= 0 && r.position.y >= 0 &&
                r.position.x + static_cast<int64_t>(r.size.width) <= fullWidth &&
                r.position.y + static_cast<int64_t>(r.size.height) <= fullHeight) {
                left = r.position.x;
                top = r.position.y;
                width = static_cast<int>(r.size.width);
                height = static_cast<int>(r.size.height);
            }
        }
        std::optional<spa_point> cursorAt;
        readCursor(buffer, cursorAt);

        const std::optional<int> slot = pool->acquire();
        if (!slot) {
            ++droppedNoBuffer;
            lastPicture = 0;
            return;
        }
        const int32_t stride = plane.chunk->stride > 0 ? plane.chunk->stride : fullWidth * 4;
        const auto* source = static_cast<const uint8_t*>(plane.data) + plane.chunk->offset;
        const size_t needed = static_cast<size_t>(stride) * (top + height);
        if (plane.chunk->offset + needed > plane.maxsize) {
            pool->release(*slot);
            lastPicture = 0;
            return;
        }
        const bool swap = format.format == SPA_VIDEO_FORMAT_RGBx ||
                          format.format == SPA_VIDEO_FORMAT_RGBA;
        const size_t bytesPerRow = static_cast<size_t>(width) * 4;
        uint8_t* out = pool->slot(*slot).data;
        for (int y = 0; y < height; ++y) {
            const auto* src = reinterpret_cast<const uint32_t*>(
                source + static_cast<size_t>(top + y) * stride + static_cast<size_t>(left) * 4);
            auto* dst = reinterpret_cast<uint32_t*>(out + static_cast<size_t>(y) * bytesPerRow);
            for (int x = 0; x < width; ++x) dst[x] = toBGRA(src[x], swap);
        }
        if (cursorAt && !cursor.pixels.empty()) {
            cursor.drawInto(out, bytesPerRow, width, height, cursorAt->x - cursor.hotX - left,
                            cursorAt->y - cursor.hotY - top);
        }
        SampleTiming timing{MediaTime::fromNanoseconds(kFrameNs), MediaTime::fromNanoseconds(stamp),
                            MediaTime::invalid()};
        PixelBufferRef image = pool->wrap(*slot, width, height, bytesPerRow);
        std::optional<PixelArea> cursorArea;
        if (cursorAt && !cursor.pixels.empty()) {
            cursorArea = PixelArea{cursorAt->x - cursor.hotX - left, cursorAt->y - cursor.hotY - top,
                                   cursor.width, cursor.height};
        }
        image->setChanges(changesSinceLast(buffer, PixelArea{left, top, width, height}, cursorArea));
        if (!deliver) {
            waiting = std::move(image);
            return;
        }
        lastStampNs = stamp;
        deliver(SampleBuffer::video(std::move(image), timing));
        ++delivered;
    }
};

Result<std::unique_ptr<PipeWireScreenSource>> PipeWireScreenSource::connect(
    std::unique_ptr<ScreenCastSession> session, int poolSize, EndedHandler onEnded) {
    ensurePipeWireInitialised();
    auto s = std::make_unique<Stream>();
    s->poolSize = std::max(2, poolSize);
    s->onEnded = std::move(onEnded);
    const uint32_t node = session->grant().nodeId;
    const int fd = session->takePipeWireFd();
    s->session = std::move(session);

    s->loop = pw_thread_loop_new("glimmerbox-pipewire", nullptr);
    if (s->loop == nullptr) {
        ::close(fd);
        return streamError(1, "cannot make a PipeWire loop");
    }
    s->context = pw_context_new(pw_thread_loop_get_loop(s->loop), nullptr, 0);
    if (s->context == nullptr || pw_thread_loop_start(s->loop) < 0) {
        ::close(fd);
        return streamError(2, "cannot start a PipeWire loop");
    }
    pw_thread_loop_lock(s->loop);
    s->core = pw_context_connect_fd(s->context, fd, nullptr, 0);  // takes the descriptor
    if (s->core == nullptr) {
        pw_thread_loop_unlock(s->loop);
        return streamError(3, "cannot connect to PipeWire through the portal");
    }
    s->coreEvents.version = PW_VERSION_CORE_EVENTS;
    s->coreEvents.error = &Stream::onCoreError;
    pw_core_add_listener(s->core, &s->coreListener, &s->coreEvents, s.get());
    s->stream = pw_stream_new(s->core, "glimmerbox-screen",
                              pw_properties_new(PW_KEY_MEDIA_TYPE, "Video", PW_KEY_MEDIA_CATEGORY,
                                                "Capture", PW_KEY_MEDIA_ROLE, "Screen", nullptr));
    s->streamEvents.version = PW_VERSION_STREAM_EVENTS;
    s->streamEvents.state_changed = &Stream::onStateChanged;
    s->streamEvents.param_changed = &Stream::onParamChanged;
    s->streamEvents.process = &Stream::onProcess;
    pw_stream_add_listener(s->stream, &s->streamListener, &s->streamEvents, s.get());
    s->repeater = pw_loop_add_timer(pw_thread_loop_get_loop(s->loop), &Stream::onRepeat, s.get());

    // The formats this side reads, at most 30 frames a second, without DMA-BUF modifiers.
    uint8_t buffer[1024];
    spa_pod_builder b{};
    spa_pod_builder_init(&b, buffer, sizeof buffer);
    spa_rectangle sizeDefault{1920, 1080};
    spa_rectangle sizeMin{1, 1};
    spa_rectangle sizeMax{16384, 16384};
    spa_fraction rateDefault{30, 1};
    spa_fraction rateMin{0, 1};
    spa_fraction rateMax{30, 1};
    const spa_pod* params[1];
    params[0] = static_cast<const spa_pod*>(spa_pod_builder_add_object(
        &b, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat, SPA_FORMAT_mediaType,
        SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
        SPA_FORMAT_VIDEO_format,
        SPA_POD_CHOICE_ENUM_Id(5, SPA_VIDEO_FORMAT_BGRx, SPA_VIDEO_FORMAT_BGRx,
                               SPA_VIDEO_FORMAT_BGRA, SPA_VIDEO_FORMAT_RGBx, SPA_VIDEO_FORMAT_RGBA),
        SPA_FORMAT_VIDEO_size, SPA_POD_CHOICE_RANGE_Rectangle(&sizeDefault, &sizeMin, &sizeMax),
        SPA_FORMAT_VIDEO_framerate, SPA_POD_CHOICE_RANGE_Fraction(&rateDefault, &rateMin, &rateMax),
        SPA_FORMAT_VIDEO_maxFramerate,
        SPA_POD_CHOICE_RANGE_Fraction(&rateMax, &rateMin, &rateMax)));
    const int rc = pw_stream_connect(
        s->stream, PW_DIRECTION_INPUT, node,
        static_cast<pw_stream_flags>(PW_STREAM_FLAG_AUTOCONNECT | PW_STREAM_FLAG_MAP_BUFFERS),
        params, 1);
    if (rc < 0) {
        pw_thread_loop_unlock(s->loop);
        return streamError(4, std::string("cannot connect the screen stream: ") + std::strerror(-rc));
    }
    // The writer needs the frame size before the first frame: wait for the agreed format.
    while (!s->formatKnown && s->failure.empty()) {
        if (pw_thread_loop_timed_wait(s->loop, 10) != 0) {
            s->failure = "the screen stream agreed on no format within 10 seconds";
        }
    }
    const std::string failure = s->failure;
    pw_thread_loop_unlock(s->loop);
    if (!s->formatKnown) return streamError(5, failure);
    return std::unique_ptr<PipeWireScreenSource>(new PipeWireScreenSource(std::move(s)));
}

PipeWireScreenSource::PipeWireScreenSource(std::unique_ptr<Stream> stream)
    : stream_(std::move(stream)) {
    // The portal closing the session ends the recording like the stream's own end.
    Stream* s = stream_.get();
    s->session->watch([s](const std::string& why) { s->end(why); });
}

PipeWireScreenSource::~PipeWireScreenSource() {
    stop();
    // The portal session first: its watcher may still report through the stream.
    if (stream_->session) stream_->session->close();
}

Result<void> PipeWireScreenSource::start(Deliver deliver) {
    pw_thread_loop_lock(stream_->loop);
    stream_->deliver = std::move(deliver);
    stream_->delivered = 0;
    stream_->droppedNoBuffer = 0;
    stream_->lastStampNs = 0;
    if (PixelBufferRef first = std::exchange(stream_->waiting, nullptr)) {
        // The screen as it is now, until the compositor sends a change.
        const int64_t now = monotonicNanoseconds();
        stream_->lastStampNs = now;
        stream_->deliver(SampleBuffer::video(
            std::move(first), SampleTiming{MediaTime::fromNanoseconds(kFrameNs),
                                           MediaTime::fromNanoseconds(now), MediaTime::invalid()}));
    }
    stream_->armRepeater(true);
    stream_->running.store(true);
    pw_thread_loop_unlock(stream_->loop);
    std::string endedEarly;
    {
        std::lock_guard lock(stream_->endedEarlyMutex);
        endedEarly = stream_->endedEarly;
    }
    if (!endedEarly.empty()) stream_->end(endedEarly);
    return {};
}

void PipeWireScreenSource::stop() {
    pw_thread_loop_lock(stream_->loop);
    const bool wasRunning = stream_->running.exchange(false);
    stream_->deliver = nullptr;
    stream_->armRepeater(false);
    const uint64_t dropped = stream_->droppedNoBuffer;
    pw_thread_loop_unlock(stream_->loop);
    if (wasRunning && dropped > 0) {
        logLine("⚠️ Screen capture dropped " + std::to_string(dropped) +
                " frames: every frame buffer was still in use");
    }
}

int PipeWireScreenSource::width() const { return stream_->width.load(); }
int PipeWireScreenSource::height() const { return stream_->height.load(); }

}  // namespace gb::linuxp
