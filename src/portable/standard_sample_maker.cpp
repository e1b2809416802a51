#include "portable/standard_sample_maker.h"

#include <memory>

namespace gb {

SampleBufferRef StandardSampleMaker::makeVideoSample(const PixelBufferRef& image,
                                                     const SampleTiming& timing) {
    if (!image) return nullptr;
    return SampleBuffer::video(image, timing);
}

PixelBufferRef PooledPixelBufferFactory::create(int width, int height) {
    if (width <= 0 || height <= 0) return nullptr;
    Slab* slab = nullptr;
    {
        std::lock_guard lock(mutex_);
        for (auto it = idle_.begin(); it != idle_.end(); ++it) {
            if ((*it)->width == width && (*it)->height == height) {
                slab = *it;
                idle_.erase(it);
                break;
            }
        }
        if (!slab) ++allocations_;
    }
    if (!slab) {
        slab = new Slab{width, height,
                        std::vector<uint8_t>(static_cast<size_t>(width) * 4 *
                                             static_cast<size_t>(height))};
    }
    // The buffer returns its memory to the pool; if the pool is gone, it frees it.
    std::weak_ptr<PooledPixelBufferFactory> pool = weak_from_this();
    return PixelBuffer::wrap(width, height, static_cast<size_t>(width) * 4, slab->bytes.data(),
                             [pool, slab] {
                                 if (auto p = pool.lock()) {
                                     p->recycle(slab);
                                 } else {
                                     delete slab;
                                 }
                             });
}

void PooledPixelBufferFactory::recycle(Slab* slab) {
    std::lock_guard lock(mutex_);
    if (idle_.size() < maxIdle_) {
        idle_.push_back(slab);
        return;
    }
    delete slab;
}

size_t PooledPixelBufferFactory::allocations() const {
    std::lock_guard lock(mutex_);
    return allocations_;
}

PooledPixelBufferFactory::~PooledPixelBufferFactory() {
    for (Slab* s : idle_) delete s;
}

}  // namespace gb
