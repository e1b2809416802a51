// An audio/video sync beacon: a full-screen window that turns white at the very moment a beep
// reaches the default PulseAudio sink, every two seconds, for --seconds (default until SIGTERM).
// The screen is black and the audio silent in between. Each flash is logged as "flash N" on
// standard output.
#include <X11/Xlib.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>

#include "beeps.h"

namespace {
using Clock = std::chrono::steady_clock;
std::atomic<bool> gStop{false};
void onSignal(int) { gStop = true; }
}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    double seconds = 1e9;
    for (int i = 1; i + 1 < argc; ++i) {
        if (!std::strcmp(argv[i], "--seconds")) seconds = std::atof(argv[++i]);
    }
    Display* dpy = XOpenDisplay(nullptr);
    if (!dpy) {
        std::fprintf(stderr, "sync_beacon: cannot open display\n");
        return 1;
    }
    const int screen = DefaultScreen(dpy);
    XSetWindowAttributes attrs{};
    attrs.override_redirect = True;
    attrs.background_pixel = BlackPixel(dpy, screen);
    Window win = XCreateWindow(dpy, RootWindow(dpy, screen), 0, 0, DisplayWidth(dpy, screen),
                               DisplayHeight(dpy, screen), 0, CopyFromParent, InputOutput,
                               CopyFromParent, CWOverrideRedirect | CWBackPixel, &attrs);
    XMapRaised(dpy, win);
    XSync(dpy, False);

    // The audio thread decides when each flash must be shown; the X thread shows it.
    std::mutex m;
    std::condition_variable cv;
    std::optional<Clock::time_point> flashAt;  // guarded by m

    bool played = true;
    std::thread audio([&] {
        played = playBeeps(gStop, seconds, [&](Clock::time_point at) {
            std::lock_guard lock(m);
            flashAt = at;
            cv.notify_one();
        });
        gStop = true;
        cv.notify_one();
    });

    GC gc = XCreateGC(dpy, win, 0, nullptr);
    int n = 0;
    while (!gStop) {
        Clock::time_point at;
        {
            std::unique_lock lock(m);
            cv.wait_for(lock, std::chrono::milliseconds(100), [&] { return flashAt || gStop; });
            if (!flashAt) continue;
            at = *flashAt;
            flashAt.reset();
        }
        std::this_thread::sleep_until(at);
        XSetForeground(dpy, gc, WhitePixel(dpy, screen));
        XFillRectangle(dpy, win, gc, 0, 0, DisplayWidth(dpy, screen), DisplayHeight(dpy, screen));
        XSync(dpy, False);
        std::printf("flash %d\n", ++n);
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        XSetForeground(dpy, gc, BlackPixel(dpy, screen));
        XFillRectangle(dpy, win, gc, 0, 0, DisplayWidth(dpy, screen), DisplayHeight(dpy, screen));
        XSync(dpy, False);
    }
    gStop = true;
    audio.join();
    XFreeGC(dpy, gc);
    XCloseDisplay(dpy);
    if (!played) std::fprintf(stderr, "sync_beacon: cannot play into the default sink\n");
    return played ? 0 : 1;
}
