// The sample maker and the pooled pixel-buffer factory: plain C++, no system library.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include "platform/media.h"

namespace gb {

class StandardSampleMaker final : public SampleMaker {
public:
    SampleBufferRef makeVideoSample(const PixelBufferRef& image, const SampleTiming& timing) override;
};

// Hands out BGRA buffers, recycling released ones of the same size so that a steady stream of
// frames allocates nothing. At most `maxIdle` released buffers are kept. Any thread.
class PooledPixelBufferFactory final : public PixelBufferFactory,
                                       public std::enable_shared_from_this<PooledPixelBufferFactory> {
public:
    explicit PooledPixelBufferFactory(size_t maxIdle = 8) : maxIdle_(maxIdle) {}
    PixelBufferRef create(int width, int height) override;
    // Buffers allocated so far (not counting reuse); for tests and benchmarks.
    [[nodiscard]] size_t allocations() const;

private:
    struct Slab {
        int width;
        int height;
        std::vector<uint8_t> bytes;
    };
    void recycle(Slab* slab);

    const size_t maxIdle_;
    mutable std::mutex mutex_;
    std::vector<Slab*> idle_;  // guarded by mutex_; owned
    size_t allocations_ = 0;   // guarded by mutex_

public:
    ~PooledPixelBufferFactory() override;
};

}  // namespace gb
