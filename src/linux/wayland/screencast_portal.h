// The xdg-desktop-portal ScreenCast conversation on the session bus: one portal session that
// grants one monitor and hands over a PipeWire descriptor for its stream.
//
// D-Bus is spoken through libdbus-1 on a private connection rather than QtDBus: the headless
// `record` command has no QCoreApplication, and QtDBus needs one (and its event loop) to deliver
// the Request objects' Response signals. Here the negotiation runs on the calling thread (the
// recorder's start, on the background executor) and blocks in poll() on the bus socket and a
// wake descriptor, so a stop can end a start that waits for the user's choice. Once granted, one
// thread of the session watches the bus for the session's Closed signal. The connection is used
// by one thread at a time: the negotiating caller, then the watcher, then close().
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "platform/result.h"

struct DBusConnection;

namespace gb::linuxp {

// An eventfd that wakes a waiting poll(); any thread may signal it.
class WakeFd {
public:
    WakeFd();
    ~WakeFd();
    WakeFd(const WakeFd&) = delete;
    WakeFd& operator=(const WakeFd&) = delete;
    void signal();
    [[nodiscard]] bool signalled() const { return signalled_.load(); }
    [[nodiscard]] int fd() const { return fd_; }

private:
    int fd_ = -1;
    std::atomic<bool> signalled_{false};
};

struct ScreenCastRequestOptions {
    std::optional<std::string> restoreToken;  // from the last granted session, used once
};

// What the portal granted.
struct ScreenCastGrant {
    int pipewireFd = -1;  // owned by the session until taken
    uint32_t nodeId = 0;
    int width = 0;  // the monitor's size from Start's results, in logical points; 0 if not given
    int height = 0;
    std::string restoreToken;  // empty when the portal gave none
    bool metadataCursor = false;  // the cursor comes as stream metadata, not drawn in
};

class ScreenCastSession {
public:
    // Why the portal session ended by itself (the portal's Closed signal, or the bus went away);
    // called once, on the watcher thread.
    using ClosedHandler = std::function<void(const std::string& why)>;

    // Runs CreateSession, SelectSources, Start and OpenPipeWireRemote. Blocks until the user
    // chose (no time limit) or `cancel` is signalled. Fails with a text that names what is
    // missing or what happened (no portal, cancelled, refused); the caller logs it.
    [[nodiscard]] static Result<std::unique_ptr<ScreenCastSession>> open(
        const ScreenCastRequestOptions& options, WakeFd& cancel);

    ~ScreenCastSession();
    ScreenCastSession(const ScreenCastSession&) = delete;
    ScreenCastSession& operator=(const ScreenCastSession&) = delete;

    [[nodiscard]] const ScreenCastGrant& grant() const { return grant_; }
    // The PipeWire descriptor, now the caller's to close.
    [[nodiscard]] int takePipeWireFd();
    // Starts watching for the session's end; `handler` runs at most once.
    void watch(ClosedHandler handler);
    // Closes the portal session (the portal stops the stream). Idempotent.
    void close();

private:
    ScreenCastSession(DBusConnection* connection, std::string sessionHandle, ScreenCastGrant grant);
    void watchLoop(const std::stop_token& stop, const ClosedHandler& handler);

    DBusConnection* connection_;  // private connection, owned
    const std::string sessionHandle_;
    ScreenCastGrant grant_;
    WakeFd stopWatching_;
    std::mutex closeMutex_;
    bool closed_ = false;  // guarded by closeMutex_
    std::jthread watcher_;
};

}  // namespace gb::linuxp
