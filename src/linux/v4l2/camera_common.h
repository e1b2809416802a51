// Pieces that every Linux camera shares: the fixed pool its frames are drawn or converted into,
// the input that owns a camera's capture source, and the frame totals logged at stop.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "linux/capture/capture_source.h"
#include "platform/capture.h"
#include "platform/media.h"

namespace gb::linuxp {

// A fixed number of BGRA frame slots of one size, all allocated up front. A slot is held from
// acquire() until the last reference to the pixel buffer published from it goes (on whichever
// thread drops it). When every slot is held, acquire() gives nothing: the caller drops the frame
// instead of waiting or allocating.
// Threads: acquire() from one producer thread at a time; buffers may be released anywhere.
class CameraFramePool {
public:
    struct Slot;

    // Write access to one slot until it is published or dropped.
    class Lease {
    public:
        Lease(Lease&&) noexcept = default;
        Lease& operator=(Lease&&) = delete;
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        ~Lease();

        [[nodiscard]] uint8_t* data() const;
        [[nodiscard]] size_t bytesPerRow() const { return bytesPerRow_; }
        [[nodiscard]] int width() const { return width_; }
        [[nodiscard]] int height() const { return height_; }
        // Hands the slot's picture out as an immutable pixel buffer; the slot comes back when
        // the buffer's last reference goes.
        [[nodiscard]] PixelBufferRef publish() &&;

    private:
        friend class CameraFramePool;
        Lease(std::shared_ptr<Slot> slot, int width, int height);
        std::shared_ptr<Slot> slot_;
        int width_;
        int height_;
        size_t bytesPerRow_;
    };

    CameraFramePool(int width, int height, size_t slotCount);
    CameraFramePool(const CameraFramePool&) = delete;
    CameraFramePool& operator=(const CameraFramePool&) = delete;
    ~CameraFramePool() = default;

    // A free slot, or nothing when all are held.
    [[nodiscard]] std::optional<Lease> acquire();
    [[nodiscard]] int width() const { return width_; }
    [[nodiscard]] int height() const { return height_; }
    [[nodiscard]] size_t slotCount() const { return slots_.size(); }

private:
    const int width_;
    const int height_;
    // Fixed at construction. Slots are shared with the pixel buffers published from them, so a
    // buffer that outlives the pool keeps its memory.
    std::vector<std::shared_ptr<Slot>> slots_;
};

// What happened to a camera's frames during one capture; logged as one line at stop.
struct CameraFrameTotals {
    uint64_t delivered = 0;
    uint64_t droppedNoBuffer = 0;  // every slot was still held downstream
    uint64_t unreadable = 0;       // corrupt or truncated frames from the device
};

// "📷 Camera <name>: 812 frames delivered, 3 dropped (no free buffer), 0 unreadable"
[[nodiscard]] std::string cameraTotalsLine(const std::string& cameraName,
                                           const CameraFrameTotals& totals);

// The input a camera device makes: it owns the capture source that the session starts.
class CameraInput final : public CaptureInput, public SourceBackedInput {
public:
    explicit CameraInput(std::unique_ptr<CaptureSource> source) : source_(std::move(source)) {}
    [[nodiscard]] MediaType mediaType() const override { return MediaType::video; }
    [[nodiscard]] CaptureSource& captureSource() override { return *source_; }

private:
    std::unique_ptr<CaptureSource> source_;
};

}  // namespace gb::linuxp
