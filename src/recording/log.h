// The one logging function: every diagnostic line goes through logLine, which writes it whole
// (with its line feed, in one write) to standard output, also when several threads log at once.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace gb {

void logLine(std::string_view line);

// Replaces where lines go (tests capture them); returns the previous sink. An empty sink
// restores standard output. The sink is called under the logging lock, one line at a time.
using LogSink = std::function<void(std::string_view line)>;
LogSink setLogSink(LogSink sink);

// "true" or "false".
inline const char* boolText(bool value) { return value ? "true" : "false"; }

}  // namespace gb
