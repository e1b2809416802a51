#include "portable/audio_buffer_pool.h"

namespace gb {

std::shared_ptr<AudioBufferPool> AudioBufferPool::make(size_t capacity, size_t bytesPerBuffer) {
    auto pool = std::shared_ptr<AudioBufferPool>(new AudioBufferPool(capacity, bytesPerBuffer));
    std::lock_guard lock(pool->mutex_);
    pool->idle_.reserve(capacity);
    return pool;
}

std::shared_ptr<AudioBuffer> AudioBufferPool::acquire() {
    std::unique_ptr<AudioBuffer> buffer;
    {
        std::lock_guard lock(mutex_);
        if (!idle_.empty()) {
            buffer = std::move(idle_.back());
            idle_.pop_back();
        } else if (allocations_ < capacity_) {
            ++allocations_;
        } else {
            return nullptr;
        }
    }
    if (!buffer) {
        buffer = std::make_unique<AudioBuffer>();
        buffer->data.reserve(bytesPerBuffer_);
    }
    buffer->data.clear();
    buffer->frameCount = 0;
    // The deleter keeps the pool alive until the buffer is back.
    return std::shared_ptr<AudioBuffer>(
        buffer.release(),
        [pool = shared_from_this()](AudioBuffer* released) { pool->recycle(released); });
}

void AudioBufferPool::recycle(AudioBuffer* buffer) {
    std::unique_ptr<AudioBuffer> owned(buffer);
    std::lock_guard lock(mutex_);
    idle_.push_back(std::move(owned));  // cannot allocate: reserved for the capacity
}

size_t AudioBufferPool::allocations() const {
    std::lock_guard lock(mutex_);
    return allocations_;
}

}  // namespace gb
