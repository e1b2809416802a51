// The fixed pool of BGRA frame buffers that the screen inputs (X11 and the portal's PipeWire
// stream) capture into: a frame that finds no free buffer is dropped, never waited for.
#pragma once

#include <sys/ipc.h>
#include <sys/shm.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include "platform/media.h"

namespace gb::linuxp {

// A System V shared-memory segment mapped into this process. Removal is requested as soon as the
// X server has attached it too, so the kernel frees it even if this process dies.
class SharedMemorySegment {
public:
    static std::unique_ptr<SharedMemorySegment> create(size_t bytes) {
        const int id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
        if (id < 0) return nullptr;
        void* address = shmat(id, nullptr, 0);
        if (address == reinterpret_cast<void*>(-1)) {
            shmctl(id, IPC_RMID, nullptr);
            return nullptr;
        }
        return std::unique_ptr<SharedMemorySegment>(
            new SharedMemorySegment(id, static_cast<uint8_t*>(address)));
    }
    ~SharedMemorySegment() {
        markForRemoval();
        shmdt(address_);
    }
    SharedMemorySegment(const SharedMemorySegment&) = delete;
    SharedMemorySegment& operator=(const SharedMemorySegment&) = delete;
    SharedMemorySegment(SharedMemorySegment&&) = delete;
    SharedMemorySegment& operator=(SharedMemorySegment&&) = delete;

    void markForRemoval() {
        if (!removed_) shmctl(id_, IPC_RMID, nullptr);
        removed_ = true;
    }
    [[nodiscard]] int id() const { return id_; }
    [[nodiscard]] uint8_t* address() const { return address_; }

private:
    SharedMemorySegment(int id, uint8_t* address) : id_(id), address_(address) {}
    int id_;
    uint8_t* address_;
    bool removed_ = false;
};

// The fixed set of frame buffers. A slot is busy from acquire() until the last reference to the
// pixel buffer made of it goes; the memory lives as long as any such buffer, even after the
// capture stopped.
class FramePool : public std::enable_shared_from_this<FramePool> {
public:
    struct Slot {
        std::unique_ptr<SharedMemorySegment> shared;
        std::unique_ptr<uint8_t[]> heap;
        uint8_t* data = nullptr;
        std::atomic<bool> busy{false};
    };

    // `count` slots of `bytes` each, in shared memory or on the heap; null when that fails.
    static std::shared_ptr<FramePool> create(int count, size_t bytes, bool sharedMemory) {
        auto pool = std::shared_ptr<FramePool>(new FramePool(count));
        for (int i = 0; i < count; ++i) {
            Slot& slot = pool->slots_[static_cast<size_t>(i)];
            if (sharedMemory) {
                slot.shared = SharedMemorySegment::create(bytes);
                if (!slot.shared) return nullptr;
                slot.data = slot.shared->address();
            } else {
                slot.heap = std::make_unique_for_overwrite<uint8_t[]>(bytes);
                slot.data = slot.heap.get();
            }
        }
        return pool;
    }

    [[nodiscard]] int size() const { return count_; }
    [[nodiscard]] Slot& slot(int index) { return slots_[static_cast<size_t>(index)]; }

    // A free slot, now busy; nothing when every slot is held. Never waits.
    [[nodiscard]] std::optional<int> acquire() {
        for (int i = 0; i < count_; ++i) {
            bool expected = false;
            if (slot(i).busy.compare_exchange_strong(expected, true, std::memory_order_acquire)) {
                return i;
            }
        }
        return std::nullopt;
    }
    void release(int index) { slot(index).busy.store(false, std::memory_order_release); }

    // The slot's memory as a pixel buffer; the slot is freed when the buffer's last reference goes.
    [[nodiscard]] PixelBufferRef wrap(int index, int width, int height, size_t bytesPerRow) {
        // An aliasing pointer: it points at the slot and keeps the whole pool alive.
        std::shared_ptr<Slot> held(shared_from_this(), &slot(index));
        return PixelBuffer::wrap(width, height, bytesPerRow, held->data,
                                 [held] { held->busy.store(false, std::memory_order_release); });
    }

private:
    explicit FramePool(int count) : count_(count), slots_(new Slot[static_cast<size_t>(count)]) {}
    const int count_;
    std::unique_ptr<Slot[]> slots_;
};

}  // namespace gb::linuxp
