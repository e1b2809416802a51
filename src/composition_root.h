// What main() needs of the composition root: the two ways the program runs.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace gb {

// Installs the display server's error handlers before any thread talks to it.
void installPlatformErrorHandlers();
// `glimmerbox record ...`: a headless recording; returns the process's exit code.
int runRecord(const std::vector<std::string>& args);
// The tray application; returns the process's exit code.
int runTray(int argc, char** argv);
// `glimmerbox start|stop|toggle|status`: asks the running tray application (starting it for start
// and toggle); returns the exit code, or nothing when `command` is none of these.
[[nodiscard]] std::optional<int> runControl(const std::string& command);

}  // namespace gb
