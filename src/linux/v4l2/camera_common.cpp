#include "linux/v4l2/camera_common.h"

#include <utility>

namespace gb::linuxp {

struct CameraFramePool::Slot {
    explicit Slot(size_t size) : bytes(size) {}
    std::vector<uint8_t> bytes;
    // Set by acquire() (acquire ordering: the previous holder's reads are done), cleared when the
    // lease is dropped or the published buffer's last reference goes (release ordering).
    std::atomic<bool> held{false};
};

CameraFramePool::CameraFramePool(int width, int height, size_t slotCount)
    : width_(width > 0 ? width : 0), height_(height > 0 ? height : 0) {
    const size_t size = static_cast<size_t>(width_) * 4 * static_cast<size_t>(height_);
    slots_.reserve(slotCount);
    for (size_t i = 0; i < slotCount; ++i) slots_.push_back(std::make_shared<Slot>(size));
}

std::optional<CameraFramePool::Lease> CameraFramePool::acquire() {
    if (width_ == 0 || height_ == 0) return std::nullopt;
    for (const auto& slot : slots_) {
        bool expected = false;
        if (slot->held.compare_exchange_strong(expected, true, std::memory_order_acquire,
                                               std::memory_order_relaxed)) {
            return Lease(slot, width_, height_);
        }
    }
    return std::nullopt;
}

CameraFramePool::Lease::Lease(std::shared_ptr<Slot> slot, int width, int height)
    : slot_(std::move(slot)),
      width_(width),
      height_(height),
      bytesPerRow_(static_cast<size_t>(width) * 4) {}

CameraFramePool::Lease::~Lease() {
    if (slot_) slot_->held.store(false, std::memory_order_release);
}

uint8_t* CameraFramePool::Lease::data() const {
    return slot_ ? slot_->bytes.data() : nullptr;
}

PixelBufferRef CameraFramePool::Lease::publish() && {
    uint8_t* bytes = data();
    // The release callback keeps the slot alive, so a buffer may outlive the pool.
    return PixelBuffer::wrap(width_, height_, bytesPerRow_, bytes, [slot = std::move(slot_)] {
        slot->held.store(false, std::memory_order_release);
    });
}

std::string cameraTotalsLine(const std::string& cameraName, const CameraFrameTotals& totals) {
    return "📷 Camera " + cameraName + ": " + std::to_string(totals.delivered) +
           " frames delivered, " + std::to_string(totals.droppedNoBuffer) +
           " dropped (no free buffer), " + std::to_string(totals.unreadable) + " unreadable";
}

}  // namespace gb::linuxp
