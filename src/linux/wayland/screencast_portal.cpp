#include "linux/wayland/screencast_portal.h"

#include <dbus/dbus.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstring>
#include <utility>
#include <vector>

#include "recording/log.h"

namespace gb::linuxp {
namespace {

constexpr const char* kPortalService = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kScreenCast = "org.freedesktop.portal.ScreenCast";
constexpr const char* kRequest = "org.freedesktop.portal.Request";
constexpr const char* kSession = "org.freedesktop.portal.Session";
constexpr uint32_t kSourceMonitor = 1;
constexpr uint32_t kCursorEmbedded = 2;
constexpr uint32_t kCursorMetadata = 4;
constexpr uint32_t kPersistUntilRevoked = 2;

PlatformError portalError(int code, std::string text) {
    return PlatformError{"glimmerbox.portal", code, std::move(text)};
}

struct MessageUnref {
    void operator()(DBusMessage* m) const { dbus_message_unref(m); }
};
using Message = std::unique_ptr<DBusMessage, MessageUnref>;

// A DBusError that frees itself.
struct BusError {
    BusError() { dbus_error_init(&error); }
    ~BusError() { dbus_error_free(&error); }
    BusError(const BusError&) = delete;
    BusError& operator=(const BusError&) = delete;
    [[nodiscard]] bool set() const { return dbus_error_is_set(&error) != 0; }
    [[nodiscard]] std::string text() const { return set() ? error.message : "no reply"; }
    DBusError error;
};

void closeConnection(DBusConnection* c) {
    dbus_connection_close(c);
    dbus_connection_unref(c);
}

// Writes a{sv} entries with basic values.
class OptionsWriter {
public:
    explicit OptionsWriter(DBusMessageIter* parent) : parent_(parent) {
        dbus_message_iter_open_container(parent, DBUS_TYPE_ARRAY, "{sv}", &array_);
    }
    ~OptionsWriter() { dbus_message_iter_close_container(parent_, &array_); }
    OptionsWriter(const OptionsWriter&) = delete;
    OptionsWriter& operator=(const OptionsWriter&) = delete;

    void add(const char* key, const std::string& value) {
        const char* v = value.c_str();
        entry(key, DBUS_TYPE_STRING, "s", &v);
    }
    void add(const char* key, uint32_t value) { entry(key, DBUS_TYPE_UINT32, "u", &value); }
    void add(const char* key, bool value) {
        dbus_bool_t b = value ? TRUE : FALSE;
        entry(key, DBUS_TYPE_BOOLEAN, "b", &b);
    }

private:
    void entry(const char* key, int type, const char* signature, const void* value) {
        DBusMessageIter dict;
        DBusMessageIter variant;
        dbus_message_iter_open_container(&array_, DBUS_TYPE_DICT_ENTRY, nullptr, &dict);
        dbus_message_iter_append_basic(&dict, DBUS_TYPE_STRING, &key);
        dbus_message_iter_open_container(&dict, DBUS_TYPE_VARIANT, signature, &variant);
        dbus_message_iter_append_basic(&variant, type, value);
        dbus_message_iter_close_container(&dict, &variant);
        dbus_message_iter_close_container(&array_, &dict);
    }
    DBusMessageIter* parent_;
    DBusMessageIter array_;
};

std::string stringOf(DBusMessageIter* it) {
    const int type = dbus_message_iter_get_arg_type(it);
    if (type != DBUS_TYPE_STRING && type != DBUS_TYPE_OBJECT_PATH) return {};
    const char* s = nullptr;
    dbus_message_iter_get_basic(it, &s);
    return s != nullptr ? s : "";
}

uint32_t uintOf(DBusMessageIter* it) {
    if (dbus_message_iter_get_arg_type(it) != DBUS_TYPE_UINT32) return 0;
    uint32_t v = 0;
    dbus_message_iter_get_basic(it, &v);
    return v;
}

// Calls `onEntry(key, valueIter)` for each entry of an a{sv} at `it`.
template <class F>
void forEachOption(DBusMessageIter* it, F&& onEntry) {
    if (dbus_message_iter_get_arg_type(it) != DBUS_TYPE_ARRAY) return;
    DBusMessageIter array;
    dbus_message_iter_recurse(it, &array);
    while (dbus_message_iter_get_arg_type(&array) == DBUS_TYPE_DICT_ENTRY) {
        DBusMessageIter entry;
        DBusMessageIter variant;
        dbus_message_iter_recurse(&array, &entry);
        const std::string key = stringOf(&entry);
        dbus_message_iter_next(&entry);
        dbus_message_iter_recurse(&entry, &variant);
        onEntry(key, &variant);
        dbus_message_iter_next(&array);
    }
}

// The granted stream: node id and size of the first entry of a(ua{sv}).
void readStreams(DBusMessageIter* it, ScreenCastGrant& grant, bool& found) {
    if (dbus_message_iter_get_arg_type(it) != DBUS_TYPE_ARRAY) return;
    DBusMessageIter array;
    DBusMessageIter stream;
    dbus_message_iter_recurse(it, &array);
    if (dbus_message_iter_get_arg_type(&array) != DBUS_TYPE_STRUCT) return;
    dbus_message_iter_recurse(&array, &stream);
    grant.nodeId = uintOf(&stream);
    found = true;
    dbus_message_iter_next(&stream);
    forEachOption(&stream, [&](const std::string& key, DBusMessageIter* value) {
        if (key != "size" || dbus_message_iter_get_arg_type(value) != DBUS_TYPE_STRUCT) return;
        DBusMessageIter pair;
        dbus_message_iter_recurse(value, &pair);
        int32_t w = 0;
        int32_t h = 0;
        if (dbus_message_iter_get_arg_type(&pair) == DBUS_TYPE_INT32) {
            dbus_message_iter_get_basic(&pair, &w);
            dbus_message_iter_next(&pair);
        }
        if (dbus_message_iter_get_arg_type(&pair) == DBUS_TYPE_INT32) {
            dbus_message_iter_get_basic(&pair, &h);
        }
        grant.width = w;
        grant.height = h;
    });
}

// One negotiation on one private connection.
class Negotiation {
public:
    Negotiation(DBusConnection* c, WakeFd& cancel) : c_(c), cancel_(cancel) {
        std::string sender = dbus_bus_get_unique_name(c);
        if (!sender.empty() && sender[0] == ':') sender.erase(0, 1);
        for (char& ch : sender) ch = ch == '.' ? '_' : ch;
        sender_ = sender;
    }

    // A property of the ScreenCast interface, or an error text.
    Result<uint32_t> property(const char* name) {
        Message call(dbus_message_new_method_call(kPortalService, kPortalPath,
                                                  "org.freedesktop.DBus.Properties", "Get"));
        const char* interface = kScreenCast;
        dbus_message_append_args(call.get(), DBUS_TYPE_STRING, &interface, DBUS_TYPE_STRING, &name,
                                 DBUS_TYPE_INVALID);
        BusError error;
        Message reply(dbus_connection_send_with_reply_and_block(c_, call.get(), 10'000,
                                                                &error.error));
        if (!reply) {
            return portalError(1, std::string("the session bus has no ") + kScreenCast +
                                      " portal (" + error.text() + ")");
        }
        DBusMessageIter it;
        DBusMessageIter variant;
        dbus_message_iter_init(reply.get(), &it);
        dbus_message_iter_recurse(&it, &variant);
        return uintOf(&variant);
    }

    // Calls a ScreenCast method whose answer comes as the Response of a Request object. The
    // first arguments (object paths and strings) are given; the options a{sv} are written by
    // `writeOptions` after the handle token. The response's results go to `onResult`.
    template <class Options, class OnResult>
    Result<void> request(const char* method, const std::vector<std::pair<int, std::string>>& args,
                         Options&& writeOptions, OnResult&& onResult) {
        const std::string token = "glimmerbox" + std::to_string(++counter_);
        const std::string path =
            std::string(kPortalPath) + "/request/" + sender_ + "/" + token;
        // Subscribe before calling: the Response may come before the call's reply.
        const std::string rule = std::string("type='signal',interface='") + kRequest +
                                 "',member='Response',path='" + path + "'";
        BusError matchError;
        dbus_bus_add_match(c_, rule.c_str(), &matchError.error);
        if (matchError.set()) return portalError(2, "cannot listen on the session bus");

        Message call(dbus_message_new_method_call(kPortalService, kPortalPath, kScreenCast, method));
        DBusMessageIter it;
        dbus_message_iter_init_append(call.get(), &it);
        for (const auto& [type, value] : args) {
            const char* v = value.c_str();
            dbus_message_iter_append_basic(&it, type, &v);
        }
        {
            OptionsWriter options(&it);
            options.add("handle_token", token);
            writeOptions(options);
        }
        BusError error;
        Message reply(dbus_connection_send_with_reply_and_block(c_, call.get(), DBUS_TIMEOUT_INFINITE,
                                                                &error.error));
        if (!reply) {
            dbus_bus_remove_match(c_, rule.c_str(), nullptr);
            return portalError(3, std::string("the portal refused ") + method + " (" +
                                      error.text() + ")");
        }
        // A portal older than the handle-token convention answers on a path of its own.
        const char* handle = nullptr;
        std::string answered = path;
        std::string otherRule;
        if (dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_OBJECT_PATH, &handle,
                                  DBUS_TYPE_INVALID) &&
            path != handle) {
            answered = handle;
            otherRule = std::string("type='signal',interface='") + kRequest +
                        "',member='Response',path='" + answered + "'";
            dbus_bus_add_match(c_, otherRule.c_str(), nullptr);
        }
        auto response = waitForResponse(answered);
        dbus_bus_remove_match(c_, rule.c_str(), nullptr);
        if (!otherRule.empty()) dbus_bus_remove_match(c_, otherRule.c_str(), nullptr);
        if (!response.ok()) return response.error();
        DBusMessageIter r;
        dbus_message_iter_init(response.value().get(), &r);
        const uint32_t code = uintOf(&r);
        if (code == 1) return portalError(4, std::string("the user cancelled ") + method);
        if (code != 0) return portalError(5, std::string("the portal failed ") + method);
        dbus_message_iter_next(&r);
        forEachOption(&r, onResult);
        return {};
    }

    // Reads the bus until the Response signal of `path` arrives. No time limit: the user may
    // take as long as they like; a signalled cancel or a lost bus ends it.
    Result<Message> waitForResponse(const std::string& path) {
        int fd = -1;
        dbus_connection_get_unix_fd(c_, &fd);
        for (;;) {
            while (DBusMessage* raw = dbus_connection_pop_message(c_)) {
                Message m(raw);
                if (dbus_message_is_signal(raw, kRequest, "Response") &&
                    path == (dbus_message_get_path(raw) ? dbus_message_get_path(raw) : "")) {
                    return m;
                }
            }
            if (!dbus_connection_get_is_connected(c_)) {
                return portalError(6, "the session bus went away");
            }
            if (cancel_.signalled()) return portalError(7, "the recording was stopped");
            pollfd fds[2] = {{fd, POLLIN, 0}, {cancel_.fd(), POLLIN, 0}};
            if (poll(fds, 2, -1) < 0 && errno != EINTR) {
                return portalError(8, std::string("waiting failed: ") + std::strerror(errno));
            }
            if ((fds[1].revents & POLLIN) != 0) return portalError(7, "the recording was stopped");
            dbus_connection_read_write(c_, 0);
        }
    }

    Result<int> openPipeWireRemote(const std::string& session) {
        Message call(dbus_message_new_method_call(kPortalService, kPortalPath, kScreenCast,
                                                  "OpenPipeWireRemote"));
        DBusMessageIter it;
        dbus_message_iter_init_append(call.get(), &it);
        const char* handle = session.c_str();
        dbus_message_iter_append_basic(&it, DBUS_TYPE_OBJECT_PATH, &handle);
        { OptionsWriter none(&it); }
        BusError error;
        Message reply(dbus_connection_send_with_reply_and_block(c_, call.get(), 10'000,
                                                                &error.error));
        int fd = -1;
        if (!reply || !dbus_message_get_args(reply.get(), &error.error, DBUS_TYPE_UNIX_FD, &fd,
                                             DBUS_TYPE_INVALID)) {
            return portalError(9, "the portal gave no PipeWire connection (" + error.text() + ")");
        }
        return fd;
    }

private:
    DBusConnection* c_;
    WakeFd& cancel_;
    std::string sender_;
    int counter_ = 0;
};

}  // namespace

WakeFd::WakeFd() : fd_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

WakeFd::~WakeFd() {
    if (fd_ >= 0) ::close(fd_);
}

void WakeFd::signal() {
    signalled_.store(true);
    const uint64_t one = 1;
    if (fd_ >= 0) (void)!::write(fd_, &one, sizeof one);
}

Result<std::unique_ptr<ScreenCastSession>> ScreenCastSession::open(
    const ScreenCastRequestOptions& options, WakeFd& cancel) {
    dbus_threads_init_default();
    BusError error;
    DBusConnection* c = dbus_bus_get_private(DBUS_BUS_SESSION, &error.error);
    if (c == nullptr) return portalError(10, "there is no session bus (" + error.text() + ")");
    dbus_connection_set_exit_on_disconnect(c, FALSE);
    std::unique_ptr<DBusConnection, void (*)(DBusConnection*)> connection(c, closeConnection);

    Negotiation n(c, cancel);
    auto version = n.property("version");
    if (!version.ok()) return version.error();
    auto sourceTypes = n.property("AvailableSourceTypes");
    if (!sourceTypes.ok()) return sourceTypes.error();
    if ((sourceTypes.value() & kSourceMonitor) == 0) {
        return portalError(11, "the ScreenCast portal offers no monitor to record");
    }
    auto cursorModes = n.property("AvailableCursorModes");
    const uint32_t modes = cursorModes.ok() ? cursorModes.value() : 0;

    std::string session;
    auto created = n.request(
        "CreateSession", {},
        [](OptionsWriter& o) { o.add("session_handle_token", std::string("glimmerbox")); },
        [&](const std::string& key, DBusMessageIter* v) {
            if (key == "session_handle") session = stringOf(v);
        });
    if (!created.ok()) return created.error();
    if (session.empty()) return portalError(12, "the portal created no session");

    ScreenCastGrant grant;
    grant.metadataCursor = (modes & kCursorMetadata) != 0;
    auto closeSession = [&] {
        Message call(dbus_message_new_method_call(kPortalService, session.c_str(), kSession, "Close"));
        dbus_connection_send(c, call.get(), nullptr);
        dbus_connection_flush(c);
    };
    auto selected = n.request(
        "SelectSources", {{DBUS_TYPE_OBJECT_PATH, session}},
        [&](OptionsWriter& o) {
            o.add("types", kSourceMonitor);
            o.add("multiple", false);
            if (version.value() >= 2 && modes != 0) {
                o.add("cursor_mode", grant.metadataCursor ? kCursorMetadata : kCursorEmbedded);
            }
            if (version.value() >= 4) {
                o.add("persist_mode", kPersistUntilRevoked);
                if (options.restoreToken && !options.restoreToken->empty()) {
                    o.add("restore_token", *options.restoreToken);
                }
            }
        },
        [](const std::string&, DBusMessageIter*) {});
    if (!selected.ok()) {
        closeSession();
        return selected.error();
    }
    bool streamFound = false;
    auto started = n.request(
        "Start", {{DBUS_TYPE_OBJECT_PATH, session}, {DBUS_TYPE_STRING, std::string()}},
        [](OptionsWriter&) {},
        [&](const std::string& key, DBusMessageIter* v) {
            if (key == "streams") readStreams(v, grant, streamFound);
            if (key == "restore_token") grant.restoreToken = stringOf(v);
        });
    if (started.ok() && !streamFound) started = portalError(13, "the portal granted no stream");
    if (!started.ok()) {
        closeSession();
        return started.error();
    }
    auto fd = n.openPipeWireRemote(session);
    if (!fd.ok()) {
        closeSession();
        return fd.error();
    }
    grant.pipewireFd = fd.value();
    return std::unique_ptr<ScreenCastSession>(
        new ScreenCastSession(connection.release(), session, grant));
}

ScreenCastSession::ScreenCastSession(DBusConnection* connection, std::string sessionHandle,
                                     ScreenCastGrant grant)
    : connection_(connection), sessionHandle_(std::move(sessionHandle)), grant_(std::move(grant)) {}

ScreenCastSession::~ScreenCastSession() {
    close();
    if (grant_.pipewireFd >= 0) ::close(grant_.pipewireFd);
    closeConnection(connection_);
}

int ScreenCastSession::takePipeWireFd() { return std::exchange(grant_.pipewireFd, -1); }

void ScreenCastSession::watch(ClosedHandler handler) {
    const std::string rule = std::string("type='signal',interface='") + kSession +
                             "',member='Closed',path='" + sessionHandle_ + "'";
    dbus_bus_add_match(connection_, rule.c_str(), nullptr);
    watcher_ = std::jthread([this, handler = std::move(handler)](std::stop_token stop) {
        watchLoop(stop, handler);
    });
}

void ScreenCastSession::watchLoop(const std::stop_token& stop, const ClosedHandler& handler) {
    int fd = -1;
    dbus_connection_get_unix_fd(connection_, &fd);
    while (!stop.stop_requested()) {
        while (DBusMessage* raw = dbus_connection_pop_message(connection_)) {
            Message m(raw);
            if (dbus_message_is_signal(raw, kSession, "Closed")) {
                handler("the screen-cast portal closed the session");
                return;
            }
        }
        if (!dbus_connection_get_is_connected(connection_)) {
            handler("the session bus went away");
            return;
        }
        pollfd fds[2] = {{fd, POLLIN, 0}, {stopWatching_.fd(), POLLIN, 0}};
        if (poll(fds, 2, -1) < 0 && errno != EINTR) return;
        if ((fds[1].revents & POLLIN) != 0) return;
        dbus_connection_read_write(connection_, 0);
    }
}

void ScreenCastSession::close() {
    std::lock_guard lock(closeMutex_);
    if (closed_) return;
    closed_ = true;
    if (watcher_.joinable()) {
        watcher_.request_stop();
        stopWatching_.signal();
        watcher_.join();
    }
    if (dbus_connection_get_is_connected(connection_)) {
        Message call(dbus_message_new_method_call(kPortalService, sessionHandle_.c_str(), kSession,
                                                  "Close"));
        dbus_connection_send(connection_, call.get(), nullptr);
        dbus_connection_flush(connection_);
    }
}

}  // namespace gb::linuxp
