// A busy, moving scene for demos, end-to-end tests and benchmarks: a full-screen window with
// scrolling colour bars, a bouncing box and a frame counter, redrawn 50 times a second (faster
// than capture's 30, so that every capture tick finds the screen changed).
// Usage: demo_scene [--flat RRGGBB | --typing | --scroll [--frame N]]
//   --flat paints one flat colour once and then idles; --typing types ten characters a second
//   into a white page; --scroll scrolls code 4 pixels a frame, with the frame number as 16 black
//   or white squares at the top left (--frame N draws only frame N and idles).
#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace {
volatile std::sig_atomic_t gStop = 0;
void onSignal(int) { gStop = 1; }

unsigned long rgb(int r, int g, int b) {
    return (static_cast<unsigned long>(r & 255) << 16) | (static_cast<unsigned long>(g & 255) << 8) |
           static_cast<unsigned long>(b & 255);
}

std::string codeLine(long i) {
    return std::string(static_cast<size_t>((i * 7 % 5) * 4), ' ') + "auto value_" +
           std::to_string(i) + " = compute(frame, " + std::to_string(i * 31 % 97) + ");  // " +
           std::string(static_cast<size_t>(i * 13 % 40), '=');
}

void drawScrollFrame(Display* dpy, Drawable d, GC gc, int w, int h, long frame) {
    XSetForeground(dpy, gc, rgb(30, 30, 36));
    XFillRectangle(dpy, d, gc, 0, 0, w, h);
    const long offset = frame * 4;
    for (long y = -(offset % 18), line = offset / 18; y < h; y += 18, ++line) {
        const std::string text = codeLine(line);
        XSetForeground(dpy, gc, rgb(120 + line * 37 % 135, 200, 255 - line * 53 % 120));
        XDrawString(dpy, d, gc, 20, static_cast<int>(y) + 14, text.c_str(), static_cast<int>(text.size()));
    }
    for (int bit = 0; bit < 16; ++bit) {
        XSetForeground(dpy, gc, (frame >> bit) & 1 ? rgb(255, 255, 255) : 0);
        XFillRectangle(dpy, d, gc, bit * 16, 0, 16, 16);
    }
}
}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    long flat = -1;
    long only = -1;
    bool typing = false;
    bool scroll = false;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--flat") == 0 && i + 1 < argc) {
            flat = std::strtol(argv[++i], nullptr, 16);
        } else if (std::strcmp(argv[i], "--frame") == 0 && i + 1 < argc) {
            only = std::strtol(argv[++i], nullptr, 10);
        }
        typing = typing || std::strcmp(argv[i], "--typing") == 0;
        scroll = scroll || std::strcmp(argv[i], "--scroll") == 0;
    }
    Display* dpy = XOpenDisplay(nullptr);
    if (!dpy) {
        std::fprintf(stderr, "demo_scene: cannot open display\n");
        return 1;
    }
    const int screen = DefaultScreen(dpy);
    const int w = DisplayWidth(dpy, screen);
    const int h = DisplayHeight(dpy, screen);
    XSetWindowAttributes attrs{};
    attrs.override_redirect = True;
    attrs.background_pixel = flat >= 0 ? static_cast<unsigned long>(flat) : typing ? 0xffffff : 0;
    Window win = XCreateWindow(dpy, RootWindow(dpy, screen), 0, 0, w, h, 0, CopyFromParent,
                               InputOutput, CopyFromParent, CWOverrideRedirect | CWBackPixel,
                               &attrs);
    XMapRaised(dpy, win);
    GC gc = XCreateGC(dpy, win, 0, nullptr);
    XSync(dpy, False);

    Pixmap back = XCreatePixmap(dpy, win, w, h, DefaultDepth(dpy, screen));
    XClearWindow(dpy, win);
    auto next = std::chrono::steady_clock::now();
    int bx = 100, by = 100, dx = 9, dy = 7;
    const int bars = 16;
    for (long frame = 0; !gStop; ++frame) {
        if (flat >= 0 || (only >= 0 && frame > 0)) {  // a still picture
            XSync(dpy, False);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            continue;
        }
        if (typing) {
            const std::string text = codeLine(frame / 60);
            const char c = static_cast<size_t>(frame % 60) < text.size() ? text[frame % 60] : '.';
            XDrawString(dpy, win, gc, 20 + static_cast<int>(frame % 60) * 6,
                        30 + static_cast<int>(frame / 60 % 50) * 18, &c, 1);
        } else if (scroll) {
            drawScrollFrame(dpy, back, gc, w, h, only >= 0 ? only : frame);
            XCopyArea(dpy, back, win, gc, 0, 0, w, h, 0, 0);
        } else {
            const int barW = w / bars + 1;
            for (int i = 0; i < bars; ++i) {
                const int hue = static_cast<int>((i * 16 + frame * 3) % 256);
                XSetForeground(dpy, gc, rgb(hue, 255 - hue, (hue * 7) % 256));
                XFillRectangle(dpy, back, gc,
                               static_cast<int>((i * barW + frame * 4) % (w + barW)) - barW, 0,
                               barW, h);
            }
            bx += dx;
            by += dy;
            if (bx < 0 || bx > w - 200) dx = -dx;
            if (by < 0 || by > h - 200) dy = -dy;
            XSetForeground(dpy, gc, rgb(255, 255, 255));
            XFillRectangle(dpy, back, gc, bx, by, 200, 200);
            XSetForeground(dpy, gc, rgb(0, 0, 0));
            const std::string label = "Glimmerbox demo frame " + std::to_string(frame);
            XDrawString(dpy, back, gc, bx + 10, by + 100, label.c_str(),
                        static_cast<int>(label.size()));
            XCopyArea(dpy, back, win, gc, 0, 0, w, h, 0, 0);
        }
        XSync(dpy, False);
        next += std::chrono::milliseconds(typing ? 100 : scroll ? 33 : 20);
        std::this_thread::sleep_until(next);
    }
    XFreePixmap(dpy, back);
    XFreeGC(dpy, gc);
    XCloseDisplay(dpy);
    return 0;
}
