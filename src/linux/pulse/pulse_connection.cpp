#include "linux/pulse/pulse_connection.h"

#include <pulse/error.h>

#include <algorithm>
#include <limits>

namespace gb::linuxp {

PlatformError pulseError(int code) {
    return PlatformError{kPulseErrorDomain, code, pa_strerror(code)};
}

Result<std::unique_ptr<PulseConnection>> PulseConnection::open(const char* clientName,
                                                               Clock::time_point deadline) {
    std::unique_ptr<PulseConnection> connection(new PulseConnection);
    connection->mainloop_.reset(pa_mainloop_new());
    if (!connection->mainloop_) return pulseError(PA_ERR_INTERNAL);
    connection->context_.reset(
        pa_context_new(pa_mainloop_get_api(connection->mainloop_.get()), clientName));
    if (!connection->context_) return pulseError(PA_ERR_INTERNAL);

    // No autospawn: starting a sound server is the session's business, not a recorder's.
    if (pa_context_connect(connection->context(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        return connection->lastError();
    }
    const auto ready = [&] {
        return pa_context_get_state(connection->context()) == PA_CONTEXT_READY;
    };
    switch (connection->runUntil(ready, deadline)) {
        case Wait::done:
            return connection;
        case Wait::timedOut:
            return pulseError(PA_ERR_TIMEOUT);
        case Wait::failed:
            break;
    }
    return connection->lastError();
}

bool PulseConnection::contextGood() const {
    return PA_CONTEXT_IS_GOOD(pa_context_get_state(context_.get()));
}

PlatformError PulseConnection::lastError() const {
    const int code = pa_context_errno(context_.get());
    return pulseError(code == PA_OK ? PA_ERR_UNKNOWN : code);
}

PulseConnection::Wait PulseConnection::runUntil(const std::function<bool()>& done,
                                                Clock::time_point deadline) {
    pa_mainloop* loop = mainloop_.get();
    while (!done()) {
        if (!contextGood()) return Wait::failed;
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
        if (left.count() <= 0) return Wait::timedOut;
        const auto timeout =
            static_cast<int>(std::min<int64_t>(left.count(), std::numeric_limits<int>::max()));
        if (pa_mainloop_prepare(loop, timeout) < 0 || pa_mainloop_poll(loop) < 0 ||
            pa_mainloop_dispatch(loop) < 0) {
            return Wait::failed;
        }
    }
    return Wait::done;
}

bool PulseConnection::iterate() {
    return pa_mainloop_iterate(mainloop_.get(), 1, nullptr) >= 0;
}

}  // namespace gb::linuxp
