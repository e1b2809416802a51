// A composition back end that computes nothing and records every call, so tests can check the
// images, transforms and renders that the composer asks for.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "fakes/locked.h"
#include "platform/image_composition.h"

namespace gb::fakes {

// A recorded image: what it was made from.
class FakeImage final : public Image {
public:
    enum class Kind { buffer, transformed, composite };

    FakeImage(Kind kind, Rect extent) : kind(kind), extentRect(extent) {}
    [[nodiscard]] Rect extent() const override { return extentRect; }

    Kind kind;
    Rect extentRect;
    PixelBufferRef buffer;      // buffer
    AffineTransform transform;  // transformed
    ImageRef source;            // transformed: the child; composite: the top
    ImageRef bottom;            // composite
};

struct FakeRender {
    ImageRef image;
    PixelBuffer* destination = nullptr;
    int destinationWidth = 0;
    int destinationHeight = 0;
};

class FakeImageCompositionBackend final : public ImageCompositionBackend {
public:
    class Context final : public ImageContext {
    public:
        explicit Context(FakeImageCompositionBackend& owner) : owner_(owner) {}
        void render(const ImageRef& image, PixelBuffer& destination) override {
            std::lock_guard lock(owner_.mutex_);
            owner_.renders_.push_back(
                {image, &destination, destination.width(), destination.height()});
        }

    private:
        FakeImageCompositionBackend& owner_;
    };

    ImageRef imageFromPixelBuffer(const PixelBufferRef& buffer) override {
        auto image = std::make_shared<FakeImage>(
            FakeImage::Kind::buffer, Rect{0, 0, buffer ? static_cast<double>(buffer->width()) : 0,
                                          buffer ? static_cast<double>(buffer->height()) : 0});
        image->buffer = buffer;
        std::lock_guard lock(mutex_);
        images_.push_back(image);
        return image;
    }
    ImageRef applyingTransform(const ImageRef& image, const AffineTransform& transform) override {
        auto out = std::make_shared<FakeImage>(FakeImage::Kind::transformed,
                                               image ? image->extent() : Rect{});
        out->transform = transform;
        out->source = image;
        std::lock_guard lock(mutex_);
        transforms_.push_back(transform);
        return out;
    }
    ImageRef compositingOver(const ImageRef& top, const ImageRef& bottom) override {
        auto out = std::make_shared<FakeImage>(FakeImage::Kind::composite,
                                               bottom ? bottom->extent() : Rect{});
        out->source = top;
        out->bottom = bottom;
        return out;
    }
    std::shared_ptr<ImageContext> makeContext() override {
        std::lock_guard lock(mutex_);
        ++contextsMade_;
        return std::make_shared<Context>(*this);
    }

    [[nodiscard]] std::vector<std::shared_ptr<FakeImage>> images() const {
        return lockedCopy(mutex_, images_);
    }
    [[nodiscard]] std::vector<AffineTransform> transforms() const {
        return lockedCopy(mutex_, transforms_);
    }
    [[nodiscard]] int contextsMade() const { return lockedCopy(mutex_, contextsMade_); }
    [[nodiscard]] std::vector<FakeRender> renders() const { return lockedCopy(mutex_, renders_); }

private:
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<FakeImage>> images_;  // guarded by mutex_
    std::vector<AffineTransform> transforms_;         // guarded by mutex_
    int contextsMade_ = 0;                            // guarded by mutex_
    std::vector<FakeRender> renders_;                 // guarded by mutex_
};

}  // namespace gb::fakes
