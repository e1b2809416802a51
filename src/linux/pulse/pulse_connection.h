// A connection to the sound server (PulseAudio, or PipeWire's pulse server) on a plain libpulse
// main loop that its owner drives itself: set-up code runs it with a deadline on the calling
// thread, the microphone then hands it to its capture thread. Never spawns a server.
//
// Threads: one thread at a time drives the loop (and calls everything else here); wakeup() may
// be called from any thread.
#pragma once

#include <pulse/context.h>
#include <pulse/mainloop.h>
#include <pulse/operation.h>
#include <pulse/stream.h>

#include <chrono>
#include <functional>
#include <memory>

#include "platform/result.h"

namespace gb::linuxp {

struct PulseMainloopDeleter {
    void operator()(pa_mainloop* loop) const { pa_mainloop_free(loop); }
};
struct PulseContextDeleter {
    void operator()(pa_context* context) const {
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(context);
    }
};
struct PulseStreamDeleter {
    void operator()(pa_stream* stream) const {
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        pa_stream_set_read_callback(stream, nullptr, nullptr);
        pa_stream_disconnect(stream);
        pa_stream_unref(stream);
    }
};
struct PulseOperationDeleter {
    void operator()(pa_operation* operation) const { pa_operation_unref(operation); }
};
using PulseStreamPtr = std::unique_ptr<pa_stream, PulseStreamDeleter>;
using PulseOperationPtr = std::unique_ptr<pa_operation, PulseOperationDeleter>;

// Errors of the sound server carry this domain and a PA_ERR_* code.
inline constexpr const char* kPulseErrorDomain = "PulseAudio";
[[nodiscard]] PlatformError pulseError(int code);

class PulseConnection {
public:
    using Clock = std::chrono::steady_clock;
    enum class Wait { done, failed, timedOut };

    // Connects to the default server. Fails with the server's error code: PA_ERR_ACCESS when it
    // refuses this client, PA_ERR_CONNECTIONREFUSED when there is none, PA_ERR_TIMEOUT when it
    // does not answer before the deadline.
    [[nodiscard]] static Result<std::unique_ptr<PulseConnection>> open(const char* clientName,
                                                                       Clock::time_point deadline);

    ~PulseConnection() = default;
    PulseConnection(const PulseConnection&) = delete;
    PulseConnection& operator=(const PulseConnection&) = delete;
    PulseConnection(PulseConnection&&) = delete;
    PulseConnection& operator=(PulseConnection&&) = delete;

    [[nodiscard]] pa_context* context() const { return context_.get(); }
    [[nodiscard]] bool contextGood() const;
    // The context's last error.
    [[nodiscard]] PlatformError lastError() const;

    // Runs the loop until `done()` holds (checked after every dispatch), the context fails or
    // the deadline passes.
    [[nodiscard]] Wait runUntil(const std::function<bool()>& done, Clock::time_point deadline);
    // Waits for one batch of events (or a wakeup) and dispatches it. False when the loop broke.
    [[nodiscard]] bool iterate();
    // Makes a blocked iterate() return. Any thread.
    void wakeup() { pa_mainloop_wakeup(mainloop_.get()); }

private:
    PulseConnection() = default;

    // The context is declared after the loop so that it goes first.
    std::unique_ptr<pa_mainloop, PulseMainloopDeleter> mainloop_;
    std::unique_ptr<pa_context, PulseContextDeleter> context_;
};

}  // namespace gb::linuxp
