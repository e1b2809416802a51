// Image composition on the CPU. Images are small lazy expression trees (a pixel buffer, a
// transformed image, one image over another); nothing is computed until a context renders.
//
// Pixels are 32-bit BGRA with premultiplied alpha, as captured frames are. Sampling is bilinear
// with clamp-to-edge, on pixel centres; an image covers exactly the destination pixels whose
// centres fall inside its transformed extent, so edges are hard and a whole-pixel placement lands
// on whole pixels. Source-over uses the top image's alpha.
//
// Rendering: a tree whose transforms are all positive axis-aligned scales plus translations (what
// the composer builds) is painted layer by layer: the bottom buffer is copied row by row when it
// covers the destination one to one, and every other layer touches only its own rectangle, with
// bilinear tables computed once per geometry, integer arithmetic (four pixels at a time with AVX2
// where the processor has it) and an opaque fast path. Any other tree (rotation, mirroring, ...)
// is evaluated pixel by pixel: correct, slow. Both give the same pixels for the same tree.
//
// Threads: the back end may be used from any thread; a context by one thread at a time.
#pragma once

#include <memory>

#include "platform/image_composition.h"

namespace gb {

class CpuImageCompositor final : public ImageCompositionBackend {
public:
    struct Options {
        // Off: every tree takes the general pixel-by-pixel route (tests compare the two).
        bool layeredRendering = true;
    };

    CpuImageCompositor() = default;
    explicit CpuImageCompositor(Options options) : options_(options) {}

    [[nodiscard]] ImageRef imageFromPixelBuffer(const PixelBufferRef& buffer) override;
    [[nodiscard]] ImageRef applyingTransform(const ImageRef& image,
                                             const AffineTransform& transform) override;
    [[nodiscard]] ImageRef compositingOver(const ImageRef& top, const ImageRef& bottom) override;
    [[nodiscard]] std::shared_ptr<ImageContext> makeContext() override;

private:
    Options options_;
};

}  // namespace gb
