// Waits until no client holds the pointer or the keyboard grabbed on $DISPLAY, then exits 0;
// exits 1 when that has not happened within five seconds, 2 without a display.
//
// A popup menu grabs both while it is open and lets go a moment after it closes; a click sent
// in between goes to the closed menu. Tests run this before clicking again.
#include <X11/Xlib.h>

#include <chrono>
#include <memory>
#include <thread>

namespace {

struct DisplayCloser {
    void operator()(Display* display) const { XCloseDisplay(display); }
};

// Whether both can be grabbed now; whatever was grabbed is released at once.
bool nothingGrabbed(Display* display) {
    const Window root = DefaultRootWindow(display);
    const int pointer = XGrabPointer(display, root, False, ButtonPressMask, GrabModeAsync,
                                     GrabModeAsync, None, None, CurrentTime);
    if (pointer == GrabSuccess) XUngrabPointer(display, CurrentTime);
    const int keyboard =
        XGrabKeyboard(display, root, False, GrabModeAsync, GrabModeAsync, CurrentTime);
    if (keyboard == GrabSuccess) XUngrabKeyboard(display, CurrentTime);
    XSync(display, False);
    return pointer == GrabSuccess && keyboard == GrabSuccess;
}

}  // namespace

int main() {
    const std::unique_ptr<Display, DisplayCloser> display(XOpenDisplay(nullptr));
    if (!display) return 2;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!nothingGrabbed(display.get())) {
        if (std::chrono::steady_clock::now() >= deadline) return 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return 0;
}
