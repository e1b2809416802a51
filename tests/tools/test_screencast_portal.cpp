// A ScreenCast portal back end for tests (org.freedesktop.impl.portal.ScreenCast, named
// org.freedesktop.impl.portal.desktop.glimmerboxtest) that grants its own PipeWire video source:
// BGRx frames at 30 a second with a moving square, stamped with CLOCK_MONOTONIC, and the cursor
// as metadata when asked, and damage metadata (the square's old and new places). Every request's options are logged to --log FILE, one line each.
// Knobs: --size WxH, --respond N (Start's response code; -1: never answers), --close-after SECONDS (the session's
// Closed signal), --no-metadata-cursor, --sparse (a frame
// every half second, as a compositor sends them for a quiet screen), --beacon (screen black, white for 300 ms every 2 s at the
// very instant a beep reaches the default PulseAudio sink), --mirror-x11 (frames are copies of
// $DISPLAY's root window, so a benchmark can show the same scene to both capture paths).
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <dbus/dbus.h>
#include <pipewire/pipewire.h>
#include <spa/buffer/meta.h>
#include <spa/param/video/format-utils.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

#include "beeps.h"

namespace {
using Clock = std::chrono::steady_clock;  // CLOCK_MONOTONIC, the clock of the stream's stamps
std::atomic<bool> gStop{false};
int gWidth = 1280, gHeight = 800, gRespond = 0, gStarts = 0;
double gCloseAfter = 0;
bool gMetadataCursor = true, gBeacon = false, gSparse = false;
FILE* gLog = stderr;
Display* gMirror = nullptr;
pw_thread_loop* gLoop;
pw_stream* gStream;
uint32_t gNode = 0;
uint64_t gFrame = 0;
std::atomic<int64_t> gFlashUntilNs{0};  // the beacon's screen is white until then

int64_t nowNs() { return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count(); }

void onParamChanged(void*, uint32_t id, const spa_pod* param) {
    if (param == nullptr || id != SPA_PARAM_Format) return;
    uint8_t buf[1024];
    spa_pod_builder b{};
    spa_pod_builder_init(&b, buf, sizeof buf);
    const int cursorBytes = sizeof(spa_meta_cursor) + sizeof(spa_meta_bitmap) + 16 * 16 * 4;
    const spa_pod* params[5] = {
        static_cast<spa_pod*>(spa_pod_builder_add_object(&b, SPA_TYPE_OBJECT_ParamBuffers, SPA_PARAM_Buffers,
            SPA_PARAM_BUFFERS_buffers, SPA_POD_CHOICE_RANGE_Int(4, 2, 8), SPA_PARAM_BUFFERS_blocks, SPA_POD_Int(1),
            SPA_PARAM_BUFFERS_size, SPA_POD_Int(gWidth * gHeight * 4), SPA_PARAM_BUFFERS_stride, SPA_POD_Int(gWidth * 4),
            SPA_PARAM_BUFFERS_dataType, SPA_POD_CHOICE_FLAGS_Int(1 << SPA_DATA_MemFd))),
        static_cast<spa_pod*>(spa_pod_builder_add_object(&b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
            SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Header), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_header)))),
        static_cast<spa_pod*>(spa_pod_builder_add_object(&b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
            SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoCrop), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_region)))),
        static_cast<spa_pod*>(spa_pod_builder_add_object(&b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
            SPA_PARAM_META_type, SPA_POD_Id(SPA_META_VideoDamage), SPA_PARAM_META_size, SPA_POD_Int(sizeof(spa_meta_region) * 4))),
        static_cast<spa_pod*>(spa_pod_builder_add_object(&b, SPA_TYPE_OBJECT_ParamMeta, SPA_PARAM_Meta,
            SPA_PARAM_META_type, SPA_POD_Id(SPA_META_Cursor), SPA_PARAM_META_size, SPA_POD_Int(cursorBytes)))};
    pw_stream_update_params(gStream, params, gMetadataCursor ? 5 : 4);
}

void onProcess(void*) {
    pw_buffer* pb = pw_stream_dequeue_buffer(gStream);
    if (pb == nullptr) return;
    spa_buffer* buf = pb->buffer;
    auto* px = static_cast<uint32_t*>(buf->datas[0].data);
    if (px == nullptr) return;
    const int64_t now = nowNs();
    if (gMirror != nullptr) {
        if (XImage* image = XGetImage(gMirror, DefaultRootWindow(gMirror), 0, 0, gWidth, gHeight, AllPlanes, ZPixmap)) {
            for (int y = 0; y < gHeight; ++y) std::memcpy(px + y * gWidth, image->data + y * image->bytes_per_line, gWidth * 4);
            XDestroyImage(image);
        }
    } else if (gBeacon) {
        const int64_t until = gFlashUntilNs.load();
        std::fill(px, px + gWidth * gHeight, now >= until - 300'000'000 && now < until ? 0xffffffffu : 0xff000000u);
    }
    // Damage: the whole frame, but for the square's old and new places after the first frame.
    auto* damage = static_cast<spa_meta_region*>(spa_buffer_find_meta_data(buf, SPA_META_VideoDamage, sizeof(spa_meta_region) * 4));
    if (damage != nullptr) std::fill_n(damage, 4, spa_meta_region{});
    if (damage != nullptr) damage[0].region = {{0, 0}, {static_cast<uint32_t>(gWidth), static_cast<uint32_t>(gHeight)}};
    // Dark grey with a bright square that crosses the screen every two seconds, at the top and the
    // bottom by turns, so that its old place is never in the rows of its new one.
    if (gMirror == nullptr && !gBeacon) {
        std::fill(px, px + gWidth * gHeight, 0xff303030u);
        auto left = [](uint64_t frame) { return static_cast<int>(frame % 60 * (gWidth - 200) / 60); };
        auto top = [](uint64_t frame) { return frame % 2 == 0 ? 0 : gHeight - 200; };
        for (int y = top(gFrame); y < top(gFrame) + 200; ++y)
            std::fill(px + y * gWidth + left(gFrame), px + y * gWidth + left(gFrame) + 200, 0xffe0c040u);
        for (int i = 0; damage != nullptr && gFrame > 0 && i < 2; ++i)
            damage[i].region = {{left(gFrame - i), top(gFrame - i)}, {200, 200}};
    }
    if (auto* h = static_cast<spa_meta_header*>(spa_buffer_find_meta_data(buf, SPA_META_Header, sizeof(spa_meta_header)))) {
        *h = {};
        h->pts = now;
        h->seq = gFrame;
    }
    if (auto* c = static_cast<spa_meta_cursor*>(spa_buffer_find_meta_data(buf, SPA_META_Cursor, sizeof(spa_meta_cursor)))) {
        c->id = 1;
        c->position = {static_cast<int32_t>(gFrame % 100 * 4), 40};
        c->hotspot = {0, 0};
        c->bitmap_offset = sizeof(spa_meta_cursor);
        auto* bm = SPA_PTROFF(c, c->bitmap_offset, spa_meta_bitmap);
        *bm = {SPA_VIDEO_FORMAT_BGRA, {16, 16}, 64, sizeof(spa_meta_bitmap)};
        std::fill_n(SPA_PTROFF(bm, bm->offset, uint32_t), 256, 0xffffffffu);
    }
    buf->datas[0].chunk->offset = 0;
    buf->datas[0].chunk->size = gWidth * gHeight * 4;
    buf->datas[0].chunk->stride = gWidth * 4;
    ++gFrame;
    pw_stream_queue_buffer(gStream, pb);
}

void startVideoSource() {
    pw_init(nullptr, nullptr);
    gLoop = pw_thread_loop_new("source", nullptr);
    pw_context* ctx = pw_context_new(pw_thread_loop_get_loop(gLoop), nullptr, 0);
    pw_thread_loop_start(gLoop);
    pw_thread_loop_lock(gLoop);
    pw_core* core = pw_context_connect(ctx, nullptr, 0);
    if (core == nullptr) { std::fprintf(stderr, "no PipeWire\n"); std::exit(1); }
    gStream = pw_stream_new(core, "glimmerbox-test-screen", pw_properties_new(PW_KEY_MEDIA_CLASS, "Video/Source", nullptr));
    static pw_stream_events events{};
    events.version = PW_VERSION_STREAM_EVENTS;
    events.param_changed = onParamChanged;
    events.process = onProcess;
    static spa_hook listener;
    pw_stream_add_listener(gStream, &listener, &events, nullptr);
    uint8_t buf[512];
    spa_pod_builder b{};
    spa_pod_builder_init(&b, buf, sizeof buf);
    spa_rectangle size{static_cast<uint32_t>(gWidth), static_cast<uint32_t>(gHeight)};
    spa_fraction rate{30, 1};
    const spa_pod* format = static_cast<spa_pod*>(spa_pod_builder_add_object(&b, SPA_TYPE_OBJECT_Format, SPA_PARAM_EnumFormat,
        SPA_FORMAT_mediaType, SPA_POD_Id(SPA_MEDIA_TYPE_video), SPA_FORMAT_mediaSubtype, SPA_POD_Id(SPA_MEDIA_SUBTYPE_raw),
        SPA_FORMAT_VIDEO_format, SPA_POD_Id(SPA_VIDEO_FORMAT_BGRx), SPA_FORMAT_VIDEO_size, SPA_POD_Rectangle(&size),
        SPA_FORMAT_VIDEO_framerate, SPA_POD_Fraction(&rate)));
    pw_stream_connect(gStream, PW_DIRECTION_OUTPUT, PW_ID_ANY,
                      static_cast<pw_stream_flags>(PW_STREAM_FLAG_DRIVER | PW_STREAM_FLAG_MAP_BUFFERS), &format, 1);
    while ((gNode = pw_stream_get_node_id(gStream)) == SPA_ID_INVALID || gNode == 0) pw_thread_loop_timed_wait(gLoop, 1);
    pw_thread_loop_unlock(gLoop);
}

// Frames on a 30 a second grid, from a timer on the stream's own loop as a compositor's frame
// clock would; a beacon flash moves the grid to its very instant.
spa_source* gTimer = nullptr;
Clock::time_point gNext;
long gTick = 0;

void arm() {
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(gNext.time_since_epoch()).count();
    timespec at{static_cast<time_t>(ns / 1'000'000'000), static_cast<long>(ns % 1'000'000'000)};
    pw_loop_update_timer(pw_thread_loop_get_loop(gLoop), gTimer, &at, nullptr, true);
}

void onTick(void*, uint64_t) {
    if (!gSparse || gTick % 15 == 0) pw_stream_trigger_process(gStream);
    ++gTick;
    gNext += std::chrono::nanoseconds(1'000'000'000 / 30);
    const auto flash = Clock::time_point(std::chrono::nanoseconds(gFlashUntilNs.load() - 300'000'000));
    if (flash > Clock::now() && flash < gNext) gNext = flash;
    arm();
}

void pace() {
    pw_thread_loop_lock(gLoop);
    gTimer = pw_loop_add_timer(pw_thread_loop_get_loop(gLoop), onTick, nullptr);
    gNext = Clock::now();
    arm();
    pw_thread_loop_unlock(gLoop);
}

// The beep: its first sample's playing time, known from the sink's latency, is the flash's.
void beacon() {
    playBeeps(gStop, 1e9, [](Clock::time_point flash) {
        gFlashUntilNs = std::chrono::nanoseconds(flash.time_since_epoch()).count() + 300'000'000;
        pw_thread_loop_lock(gLoop);
        if (flash > Clock::now() && flash < gNext) {
            gNext = flash;
            arm();
        }
        pw_thread_loop_unlock(gLoop);
    });
}

// ---- D-Bus -----------------------------------------------------------------------------------

std::string describe(DBusMessageIter* v) {  // a variant's value as text
    const int t = dbus_message_iter_get_arg_type(v);
    if (t == DBUS_TYPE_VARIANT || t == DBUS_TYPE_STRUCT) {
        DBusMessageIter in;
        dbus_message_iter_recurse(v, &in);
        std::string s;
        do (s.empty() ? s : s += ',') += describe(&in); while (dbus_message_iter_next(&in));
        return s;
    }
    if (t == DBUS_TYPE_STRING || t == DBUS_TYPE_OBJECT_PATH) { const char* s; dbus_message_iter_get_basic(v, &s); return s; }
    if (t == DBUS_TYPE_BOOLEAN) { dbus_bool_t b; dbus_message_iter_get_basic(v, &b); return b ? "true" : "false"; }
    if (t == DBUS_TYPE_UINT32) { uint32_t u; dbus_message_iter_get_basic(v, &u); return std::to_string(u); }
    return "?";
}

void logCall(DBusMessage* m) {  // "Method key=value ..." of the a{sv} argument
    std::string line = dbus_message_get_member(m);
    DBusMessageIter it, array, entry, value;
    dbus_message_iter_init(m, &it);
    while (dbus_message_iter_get_arg_type(&it) != DBUS_TYPE_ARRAY && dbus_message_iter_next(&it)) {}
    if (dbus_message_iter_get_arg_type(&it) == DBUS_TYPE_ARRAY) {
        for (dbus_message_iter_recurse(&it, &array); dbus_message_iter_get_arg_type(&array) == DBUS_TYPE_DICT_ENTRY; dbus_message_iter_next(&array)) {
            dbus_message_iter_recurse(&array, &entry);
            const char* key;
            dbus_message_iter_get_basic(&entry, &key);
            dbus_message_iter_next(&entry);
            dbus_message_iter_recurse(&entry, &value);
            line += std::string(" ") + key + "=" + describe(&value);
        }
    }
    std::fprintf(gLog, "%s\n", line.c_str());
    std::fflush(gLog);
}

struct Dict {  // a{sv} writer
    DBusMessageIter array;
    DBusMessageIter* parent;
    explicit Dict(DBusMessageIter* p) : parent(p) { dbus_message_iter_open_container(p, DBUS_TYPE_ARRAY, "{sv}", &array); }
    ~Dict() { dbus_message_iter_close_container(parent, &array); }
    template <class F> void entry(const char* key, const char* sig, F&& write) {
        DBusMessageIter e, v;
        dbus_message_iter_open_container(&array, DBUS_TYPE_DICT_ENTRY, nullptr, &e);
        dbus_message_iter_append_basic(&e, DBUS_TYPE_STRING, &key);
        dbus_message_iter_open_container(&e, DBUS_TYPE_VARIANT, sig, &v);
        write(&v);
        dbus_message_iter_close_container(&e, &v);
        dbus_message_iter_close_container(&array, &e);
    }
    void u(const char* key, uint32_t value) { entry(key, "u", [&](DBusMessageIter* v) { dbus_message_iter_append_basic(v, DBUS_TYPE_UINT32, &value); }); }
};

void properties(DBusMessageIter* it) {
    Dict d(it);
    d.u("version", 4);
    d.u("AvailableSourceTypes", 1 | 2);
    d.u("AvailableCursorModes", gMetadataCursor ? 1 | 2 | 4 : 1 | 2);
}

void startResults(DBusMessageIter* it) {
    Dict d(it);
    d.entry("streams", "a(ua{sv})", [](DBusMessageIter* v) {
        DBusMessageIter a, s;
        dbus_message_iter_open_container(v, DBUS_TYPE_ARRAY, "(ua{sv})", &a);
        dbus_message_iter_open_container(&a, DBUS_TYPE_STRUCT, nullptr, &s);
        dbus_message_iter_append_basic(&s, DBUS_TYPE_UINT32, &gNode);
        {
            Dict props(&s);
            props.u("source_type", 1);
            props.entry("size", "(ii)", [](DBusMessageIter* pv) {
                DBusMessageIter p;
                dbus_message_iter_open_container(pv, DBUS_TYPE_STRUCT, nullptr, &p);
                dbus_message_iter_append_basic(&p, DBUS_TYPE_INT32, &gWidth);
                dbus_message_iter_append_basic(&p, DBUS_TYPE_INT32, &gHeight);
                dbus_message_iter_close_container(pv, &p);
            });
        }
        dbus_message_iter_close_container(&a, &s);
        dbus_message_iter_close_container(v, &a);
    });
    d.u("persist_mode", 2);
    d.entry("restore_data", "(suv)", [](DBusMessageIter* v) {  // which grant this was
        DBusMessageIter s, inner;
        const char* vendor = "glimmerboxtest";
        const uint32_t version = 1;
        const std::string grant = "grant-" + std::to_string(gStarts);
        const char* g = grant.c_str();
        dbus_message_iter_open_container(v, DBUS_TYPE_STRUCT, nullptr, &s);
        dbus_message_iter_append_basic(&s, DBUS_TYPE_STRING, &vendor);
        dbus_message_iter_append_basic(&s, DBUS_TYPE_UINT32, &version);
        dbus_message_iter_open_container(&s, DBUS_TYPE_VARIANT, "s", &inner);
        dbus_message_iter_append_basic(&inner, DBUS_TYPE_STRING, &g);
        dbus_message_iter_close_container(&s, &inner);
        dbus_message_iter_close_container(v, &s);
    });
}

DBusHandlerResult onMessage(DBusConnection* c, DBusMessage* m, void*) {
    if (dbus_message_get_type(m) != DBUS_MESSAGE_TYPE_METHOD_CALL) return DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
    const std::string member = dbus_message_get_member(m);
    DBusMessage* reply = dbus_message_new_method_return(m);
    DBusMessageIter it;
    dbus_message_iter_init_append(reply, &it);
    uint32_t response = 0;
    if (member == "Get") {
        const char *iface, *name;
        dbus_message_get_args(m, nullptr, DBUS_TYPE_STRING, &iface, DBUS_TYPE_STRING, &name, DBUS_TYPE_INVALID);
        const uint32_t value = std::string(name) == "version" ? 4 : std::string(name) == "AvailableSourceTypes" ? 3 : gMetadataCursor ? 7 : 3;
        DBusMessageIter v;
        dbus_message_iter_open_container(&it, DBUS_TYPE_VARIANT, "u", &v);
        dbus_message_iter_append_basic(&v, DBUS_TYPE_UINT32, &value);
        dbus_message_iter_close_container(&it, &v);
    } else if (member == "GetAll") {
        properties(&it);
    } else if (member == "CreateSession" || member == "SelectSources" || member == "Start") {
        logCall(m);
        if (member == "Start") response = static_cast<uint32_t>(gRespond);
        dbus_message_iter_append_basic(&it, DBUS_TYPE_UINT32, &response);
        if (member == "Start" && response == 0) {
            ++gStarts;
            startResults(&it);
            std::string session = [&] { DBusMessageIter a; dbus_message_iter_init(m, &a); dbus_message_iter_next(&a); return describe(&a); }();
            if (gCloseAfter > 0) {
                std::thread([c, session] {
                    std::this_thread::sleep_for(std::chrono::duration<double>(gCloseAfter));
                    DBusMessage* s = dbus_message_new_signal(session.c_str(), "org.freedesktop.impl.portal.Session", "Closed");
                    dbus_connection_send(c, s, nullptr);
                    dbus_connection_flush(c);
                    dbus_message_unref(s);
                    std::fprintf(gLog, "Closed\n");
                    std::fflush(gLog);
                }).detach();
            }
        } else {
            Dict none(&it);
        }
    } else {  // Close of a session or a request
        logCall(m);
    }
    if (member != "Start" || gRespond >= 0) dbus_connection_send(c, reply, nullptr);
    dbus_message_unref(reply);
    return DBUS_HANDLER_RESULT_HANDLED;
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--log" && i + 1 < argc) gLog = std::fopen(argv[++i], "a");
        if (a == "--size" && i + 1 < argc) std::sscanf(argv[++i], "%dx%d", &gWidth, &gHeight);
        if (a == "--respond" && i + 1 < argc) gRespond = std::atoi(argv[++i]);
        if (a == "--close-after" && i + 1 < argc) gCloseAfter = std::atof(argv[++i]);
        if (a == "--no-metadata-cursor") gMetadataCursor = false;
        if (a == "--beacon") gBeacon = true;
        if (a == "--sparse") gSparse = true;
        if (a == "--mirror-x11") gMirror = XOpenDisplay(nullptr);
    }
    std::signal(SIGTERM, [](int) { gStop = true; });
    startVideoSource();
    pace();
    std::thread audio;
    if (gBeacon) audio = std::thread(beacon);
    dbus_threads_init_default();
    DBusConnection* c = dbus_bus_get(DBUS_BUS_SESSION, nullptr);
    if (c == nullptr) return 1;
    dbus_connection_add_filter(c, onMessage, nullptr, nullptr);
    if (dbus_bus_request_name(c, "org.freedesktop.impl.portal.desktop.glimmerboxtest", DBUS_NAME_FLAG_DO_NOT_QUEUE, nullptr) !=
        DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) return 1;
    std::printf("node %u\n", gNode);
    std::fflush(stdout);
    while (!gStop && dbus_connection_read_write_dispatch(c, 50)) {}
    gStop = true;
    if (audio.joinable()) audio.join();
    return 0;
}
