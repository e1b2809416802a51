// The About window: a small fixed window with the icon, name, version, tagline and features.
// Built once, in code, as a description that the window system realises; closing it only hides
// it, so the application keeps one controller and shows the same window again.
//
// Threads: main thread only.
#pragma once

#include <memory>
#include <string>

#include "platform/user_interface.h"

namespace gb {

class AboutWindowController {
public:
    // Builds the description and has the window system realise it (not shown yet).
    AboutWindowController(WindowSystem& windowSystem, Application& application);

    AboutWindowController(const AboutWindowController&) = delete;
    AboutWindowController& operator=(const AboutWindowController&) = delete;
    AboutWindowController(AboutWindowController&&) = delete;
    AboutWindowController& operator=(AboutWindowController&&) = delete;
    ~AboutWindowController() = default;

    // Makes the window float above ordinary windows.
    void windowDidLoad();
    // Shows the window (again) and orders it front.
    void showWindow();

    [[nodiscard]] const WindowDescription& description() const { return description_; }
    [[nodiscard]] const std::shared_ptr<Window>& window() const { return window_; }

    static constexpr int kFloatingWindowLevel = 3;

private:
    WindowDescription description_;
    std::shared_ptr<Window> window_;
};

// The window as described, with the application icon found through `application`.
[[nodiscard]] WindowDescription makeAboutWindowDescription(Application& application);

}  // namespace gb
