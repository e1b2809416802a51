// Screen capture on X11: an input for one display identifier (a RandR output or the root window)
// whose source grabs that rectangle of the root window on its own thread, at most once per
// minimum frame duration, into a fixed pool of BGRA buffers, with the mouse cursor drawn in.
// The X server's damage reports say what changed: a frame time with no damage and no cursor
// change grabs nothing (the previous picture goes out again only after the maximum frame
// duration), and a grab fetches only the rows that changed since that buffer was last filled.
// Each picture lists the areas that changed since the previous one (PixelBuffer::changes).
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "linux/capture/capture_source.h"
#include "platform/capture.h"

namespace gb::linuxp {

struct X11CaptureOptions {
    std::string displayName;      // empty: $DISPLAY
    bool capturesCursor = true;   // draw the mouse cursor into the frames
    bool forceXGetImage = false;  // skip XShm (also set by GLIMMERBOX_X11_NO_SHM=1)
    // Grab only what the server reports as changed; off (or GLIMMERBOX_X11_NO_DAMAGE=1): every
    // frame time grabs the whole screen.
    bool followsDamage = true;
    int poolSize = 5;             // frame buffers; a frame with none free is dropped
};

// Counters of the last capture run (reset at each start), and the buffers made over the
// source's life. Any thread.
struct X11CaptureStats {
    uint64_t framesDelivered = 0;
    uint64_t framesDroppedNoBuffer = 0;  // every pool buffer still held downstream
    uint64_t frameTimesSkipped = 0;      // deadlines missed because a grab ran late
    uint64_t framesUnchanged = 0;        // frame times with nothing changed: nothing grabbed
    uint64_t grabFailures = 0;
    uint64_t bufferAllocations = 0;  // frame buffers made since construction
    bool usingXShm = false;
};

// True for a Wayland session, where X11 sees only X clients and a grab would record black.
[[nodiscard]] bool isWaylandSession(const char* waylandDisplay, const char* sessionType);
[[nodiscard]] bool isWaylandSessionFromEnvironment();

// The capture source. Owns its X connection and frame buffers from prepare() until destroyed,
// and the grabbing thread while started.
class X11ScreenSource final : public CaptureSource {
public:
    X11ScreenSource(uint32_t displayID, X11CaptureOptions options);
    ~X11ScreenSource() override;
    X11ScreenSource(const X11ScreenSource&) = delete;
    X11ScreenSource& operator=(const X11ScreenSource&) = delete;

    // Opens the X connection, sets up the buffers and grabs once into each of them, so that the
    // costs of first use (page faults on both sides of the shared memory) are paid before the
    // recording starts. Fails when the display cannot be reached or grabbed. Not while started.
    [[nodiscard]] Result<void> prepare();

    [[nodiscard]] MediaType mediaType() const override { return MediaType::video; }
    // Prepares if that was not done (or the connection was lost since) and starts the thread,
    // which grabs the first frame at once.
    [[nodiscard]] Result<void> start(Deliver deliver) override;
    // Returns once the thread has ended; logs the drops of the run, if any.
    void stop() override;
    void setInterruptedHandler(Interrupted handler) override;

    // Read at each frame, so a change applies from the next frame on. Invalid: 1/30 s.
    void setMinFrameDuration(MediaTime duration);
    // The longest time without a delivered frame while the screen is still. Invalid: 1 s.
    void setMaxFrameDuration(MediaTime duration);
    [[nodiscard]] X11CaptureStats stats() const;

private:
    class Grabber;

    [[nodiscard]] Result<void> prepareLocked();
    // Captures until stopped; the reason when the capture ended for good on its own.
    [[nodiscard]] std::string run(std::stop_token stop, Grabber& grabber, const Deliver& deliver);
    void logRunTotals();

    const uint32_t displayID_;
    const X11CaptureOptions options_;
    std::atomic<int64_t> minFrameNanoseconds_;
    std::atomic<int64_t> maxFrameNanoseconds_;
    // Written by the grabbing thread, read by stats() and after the thread ended.
    std::atomic<uint64_t> framesDelivered_{0};
    std::atomic<uint64_t> framesDroppedNoBuffer_{0};
    std::atomic<uint64_t> frameTimesSkipped_{0};
    std::atomic<uint64_t> framesUnchanged_{0};
    std::atomic<uint64_t> grabFailures_{0};
    std::atomic<uint64_t> bufferAllocations_{0};
    std::atomic<bool> usingXShm_{false};
    std::mutex mutex_;  // serializes prepare, start and stop
    // Used by the grabbing thread while it runs, else by the holder of mutex_.
    std::unique_ptr<Grabber> grabber_;  // guarded by mutex_
    Interrupted interrupted_;           // guarded by mutex_; copied into each run
    std::jthread thread_;               // guarded by mutex_
};

class X11ScreenInput final : public ScreenInput, public SourceBackedInput {
public:
    // A prepared input for the display identifier, or null (with a log line) when the display
    // cannot be reached or grabbed: no X connection, an identifier that names no lit display, or
    // pixels that are not 24/32-bit TrueColor.
    [[nodiscard]] static std::shared_ptr<X11ScreenInput> create(uint32_t displayID,
                                                                X11CaptureOptions options = {});

    X11ScreenInput(uint32_t displayID, X11CaptureOptions options);

    void setMinFrameDuration(MediaTime duration) override { source_.setMinFrameDuration(duration); }
    void setMaxFrameDuration(MediaTime duration) override { source_.setMaxFrameDuration(duration); }
    [[nodiscard]] CaptureSource& captureSource() override { return source_; }
    [[nodiscard]] X11ScreenSource& screenSource() { return source_; }
    [[nodiscard]] uint32_t displayID() const { return displayID_; }

private:
    const uint32_t displayID_;
    X11ScreenSource source_;
};

}  // namespace gb::linuxp
