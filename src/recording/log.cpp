#include "recording/log.h"

#include <cerrno>
#include <cstdio>
#include <mutex>
#include <string>

namespace gb {
namespace {

std::mutex& logMutex() {
    static std::mutex m;
    return m;
}

LogSink& currentSink() {
    static LogSink sink;  // guarded by logMutex()
    return sink;
}

// Set once standard output's reader has gone (a closed pipe): the log ends there, the work goes
// on. Guarded by logMutex().
bool& outputGone() {
    static bool gone = false;
    return gone;
}

}  // namespace

void logLine(std::string_view line) {
    std::lock_guard lock(logMutex());
    if (auto& sink = currentSink()) {
        sink(line);
        return;
    }
    // One buffer, one write: a line is never split by another thread's line.
    std::string whole;
    whole.reserve(line.size() + 1);
    whole.append(line);
    whole.push_back('\n');
    if (outputGone()) return;
    std::fwrite(whole.data(), 1, whole.size(), stdout);
    if (std::fflush(stdout) != 0) {
        if (errno == EPIPE) outputGone() = true;
        std::clearerr(stdout);
    }
}

LogSink setLogSink(LogSink sink) {
    std::lock_guard lock(logMutex());
    LogSink previous = std::move(currentSink());
    currentSink() = std::move(sink);
    return previous;
}

}  // namespace gb
