// The screen input of a Wayland session: the PipeWire stream of the monitor that the ScreenCast
// portal granted. Its source connects on the portal's descriptor with a PipeWire thread loop,
// offers BGRx/BGRA (and RGBx/RGBA, converted) at most 30 frames a second in CPU-readable memory,
// and copies each frame (cropped as the VideoCrop metadata says, with the metadata cursor drawn
// in) into a fixed pool of BGRA buffers, stamped with the buffer's own CLOCK_MONOTONIC time.
// While the compositor sends nothing (an unchanged screen), the last image is repeated at 30 a
// second through samples without an image.
//
// Threads: the PipeWire thread runs the stream callbacks and delivers; it never waits on anything
// but the pool's atomics. start() and stop() take the thread loop's lock, so once stop() returns
// no delivery is running or will follow. The ended handler runs on the PipeWire thread or the
// portal's watcher thread, at most once.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "linux/capture/capture_source.h"
#include "linux/wayland/screencast_portal.h"
#include "platform/capture.h"

namespace gb::linuxp {

class PipeWireScreenSource final : public CaptureSource {
public:
    // Why the stream ended by itself (portal closed, stream error, PipeWire gone).
    using EndedHandler = std::function<void(const std::string& why)>;

    // Connects to the granted stream and waits until its format is agreed (a few seconds at
    // most). Fails with a text naming what went wrong; the portal session is closed then.
    [[nodiscard]] static Result<std::unique_ptr<PipeWireScreenSource>> connect(
        std::unique_ptr<ScreenCastSession> session, int poolSize, EndedHandler onEnded);
    ~PipeWireScreenSource() override;
    PipeWireScreenSource(const PipeWireScreenSource&) = delete;
    PipeWireScreenSource& operator=(const PipeWireScreenSource&) = delete;

    [[nodiscard]] MediaType mediaType() const override { return MediaType::video; }
    [[nodiscard]] Result<void> start(Deliver deliver) override;
    void stop() override;

    // The agreed frame size in pixels.
    [[nodiscard]] int width() const;
    [[nodiscard]] int height() const;

private:
    struct Stream;
    explicit PipeWireScreenSource(std::unique_ptr<Stream> stream);
    std::unique_ptr<Stream> stream_;
};

class PipeWireScreenInput final : public ScreenInput, public SourceBackedInput {
public:
    explicit PipeWireScreenInput(std::unique_ptr<PipeWireScreenSource> source)
        : source_(std::move(source)) {}
    // The stream's rate is agreed at connection (at most 30 a second); nothing to change.
    void setMinFrameDuration(MediaTime) override {}
    [[nodiscard]] CaptureSource& captureSource() override { return *source_; }
    [[nodiscard]] PipeWireScreenSource& screenSource() { return *source_; }

private:
    std::unique_ptr<PipeWireScreenSource> source_;
};

}  // namespace gb::linuxp
