// A composition back end that computes nothing and records the images made from buffers and the
// contexts made, so tests can check what work the composer asks for.
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "fakes/locked.h"
#include "platform/image_composition.h"

namespace gb::fakes {

class FakeImage final : public Image {
public:
    explicit FakeImage(Rect extent) : extent_(extent) {}
    [[nodiscard]] Rect extent() const override { return extent_; }

private:
    Rect extent_;
};

class FakeImageCompositionBackend final : public ImageCompositionBackend {
public:
    class Context final : public ImageContext {
    public:
        void render(const ImageRef&, PixelBuffer&) override {}
    };

    ImageRef imageFromPixelBuffer(const PixelBufferRef& buffer) override {
        auto image = std::make_shared<FakeImage>(
            Rect{0, 0, buffer ? static_cast<double>(buffer->width()) : 0,
                 buffer ? static_cast<double>(buffer->height()) : 0});
        std::lock_guard lock(mutex_);
        images_.push_back(image);
        return image;
    }
    ImageRef applyingTransform(const ImageRef& image, const AffineTransform&) override {
        return std::make_shared<FakeImage>(image ? image->extent() : Rect{});
    }
    ImageRef compositingOver(const ImageRef&, const ImageRef& bottom) override {
        return std::make_shared<FakeImage>(bottom ? bottom->extent() : Rect{});
    }
    std::shared_ptr<ImageContext> makeContext() override {
        std::lock_guard lock(mutex_);
        ++contextsMade_;
        return std::make_shared<Context>();
    }

    [[nodiscard]] std::vector<std::shared_ptr<FakeImage>> images() const {
        return lockedCopy(mutex_, images_);
    }
    [[nodiscard]] int contextsMade() const { return lockedCopy(mutex_, contextsMade_); }

private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<FakeImage>> images_;  // guarded by mutex_
    int contextsMade_ = 0;                            // guarded by mutex_
};

}  // namespace gb::fakes
