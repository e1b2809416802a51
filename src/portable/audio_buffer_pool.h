// A fixed number of reusable audio buffers for a capture stream, so that steady capture allocates
// no sample memory. A buffer goes back to the pool when its last reference is dropped, on
// whichever thread that happens; the pool lives as long as any of its buffers. When every buffer
// is in use, acquire() gives null and the capture drops (and counts) the chunk rather than wait.
//
// Threads: any thread; one mutex guards the idle list.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <vector>

#include "platform/media.h"

namespace gb {

class AudioBufferPool final : public std::enable_shared_from_this<AudioBufferPool> {
public:
    // Up to `capacity` buffers, each with room for `bytesPerBuffer` bytes of samples.
    [[nodiscard]] static std::shared_ptr<AudioBufferPool> make(size_t capacity,
                                                               size_t bytesPerBuffer);
    ~AudioBufferPool() = default;
    AudioBufferPool(const AudioBufferPool&) = delete;
    AudioBufferPool& operator=(const AudioBufferPool&) = delete;
    AudioBufferPool(AudioBufferPool&&) = delete;
    AudioBufferPool& operator=(AudioBufferPool&&) = delete;

    // A buffer to fill (its data empty, with the room reserved), or null when all are in use.
    [[nodiscard]] std::shared_ptr<AudioBuffer> acquire();
    // Buffers created so far; never more than the capacity.
    [[nodiscard]] size_t allocations() const;

private:
    AudioBufferPool(size_t capacity, size_t bytesPerBuffer)
        : capacity_(capacity), bytesPerBuffer_(bytesPerBuffer) {}
    void recycle(AudioBuffer* buffer);

    const size_t capacity_;
    const size_t bytesPerBuffer_;
    mutable std::mutex mutex_;
    std::vector<std::unique_ptr<AudioBuffer>> idle_;  // guarded by mutex_
    size_t allocations_ = 0;                          // guarded by mutex_
};

}  // namespace gb
