// Tells when the desktop shows no tray icons: no StatusNotifierWatcher and no XEmbed system tray
// (stock GNOME, for one). The status item still appears as soon as a tray host does.
//
// Threads: main thread, after the QApplication exists.
#pragma once

#include <chrono>
#include <functional>

namespace gb::linuxp {

// Runs `then` once on the main thread if, after `grace` (a tray host that starts with the
// session may come up after the program), there is still no tray host. Nothing otherwise.
void whenNoTrayHost(std::chrono::milliseconds grace, std::function<void()> then);

}  // namespace gb::linuxp
