// What main() needs of the composition root: the two ways the program runs.
#pragma once

#include <string>
#include <vector>

namespace gb {

// Installs the display server's error handlers before any thread talks to it.
void installPlatformErrorHandlers();
// `glimmerbox record ...`: a headless recording; returns the process's exit code.
int runRecord(const std::vector<std::string>& args);
// The tray application; returns the process's exit code.
int runTray(int argc, char** argv);

}  // namespace gb
