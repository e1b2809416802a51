// An audio/video sync beacon: a full-screen window that turns white at the very moment a beep
// reaches the default PulseAudio sink, every --interval-ms (default 2000), for --seconds (default
// until SIGTERM). The screen is black and the audio silent in between. Each flash is logged as
// "flash N" on standard output.
#include <X11/Xlib.h>
#include <pulse/error.h>
#include <pulse/simple.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace {
using Clock = std::chrono::steady_clock;
std::atomic<bool> gStop{false};
void onSignal(int) { gStop = true; }

constexpr int kRate = 44100;
constexpr int kChannels = 2;
constexpr int kChunkFrames = kRate / 200;  // 5 ms
}  // namespace

int main(int argc, char** argv) {
    std::signal(SIGTERM, onSignal);
    std::signal(SIGINT, onSignal);
    int intervalMs = 2000;
    double seconds = 1e9;
    for (int i = 1; i + 1 < argc; ++i) {
        if (!std::strcmp(argv[i], "--interval-ms")) intervalMs = std::atoi(argv[++i]);
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

    pa_sample_spec format{PA_SAMPLE_S16LE, kRate, kChannels};
    pa_buffer_attr attr{};
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.tlength = kRate * kChannels * 2 * 20 / 1000;  // 20 ms
    attr.prebuf = static_cast<uint32_t>(-1);
    attr.minreq = static_cast<uint32_t>(-1);
    attr.fragsize = static_cast<uint32_t>(-1);
    int err = 0;
    pa_simple* pa = pa_simple_new(nullptr, "sync_beacon", PA_STREAM_PLAYBACK, nullptr, "beacon",
                                  &format, nullptr, &attr, &err);
    if (!pa) {
        std::fprintf(stderr, "sync_beacon: %s\n", pa_strerror(err));
        return 1;
    }

    // The audio thread decides when each flash must be shown; the X thread shows it.
    std::mutex m;
    std::condition_variable cv;
    std::optional<Clock::time_point> flashAt;  // guarded by m

    std::thread audio([&] {
        std::vector<int16_t> chunk(kChunkFrames * kChannels);
        const long intervalFrames = static_cast<long>(intervalMs) * kRate / 1000;
        const long beepFrames = kRate / 10;
        const long totalFrames = static_cast<long>(seconds * kRate);
        for (long frame = 0; !gStop && frame < totalFrames; frame += kChunkFrames) {
            // The first sample of the next beep, and whether it falls in this chunk.
            const long nextBeep = ((frame + intervalFrames - 1) / intervalFrames) * intervalFrames;
            const bool beepStarts = nextBeep >= intervalFrames && nextBeep < frame + kChunkFrames;
            for (int i = 0; i < kChunkFrames; ++i) {
                const long p = (frame + i) % intervalFrames;
                int16_t v = 0;
                if (frame + i >= intervalFrames && p < beepFrames) {
                    v = static_cast<int16_t>(12000 * std::sin(2 * M_PI * 1000.0 * p / kRate));
                }
                chunk[i * 2] = chunk[i * 2 + 1] = v;
            }
            if (pa_simple_write(pa, chunk.data(), chunk.size() * 2, &err) < 0) break;
            if (beepStarts) {
                // The latency is how long until the chunk's last sample plays; the beep's first
                // sample plays that much earlier than the chunk's end.
                const pa_usec_t latency = pa_simple_get_latency(pa, &err);
                const auto queuedAfterStart = std::chrono::microseconds(
                    1'000'000LL * (frame + kChunkFrames - nextBeep) / kRate);
                std::lock_guard lock(m);
                flashAt = Clock::now() + std::chrono::microseconds(latency) - queuedAfterStart;
                cv.notify_one();
            }
        }
        pa_simple_drain(pa, &err);
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
    pa_simple_free(pa);
    XFreeGC(dpy, gc);
    XCloseDisplay(dpy);
    return 0;
}
