// The image-composition back end: images of pixel buffers, affine transforms, source-over
// composition and rendering into a pixel buffer.
//
// Images are lazy, immutable descriptions; nothing is computed until a context renders one.
// The image space has its origin at the bottom-left: an image of a W x H buffer has the extent
// (0, 0, W, H) with the buffer's top row at the top of the extent.
// Threads: images may be built on any thread; a context is used by one thread at a time (the
// recording queue). Ownership: an image keeps the buffers it was made from alive.
#pragma once

#include <memory>

#include "platform/media.h"

namespace gb {

struct Point {
    double x = 0;
    double y = 0;
};

struct Rect {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
};

// x' = a*x + c*y + tx, y' = b*x + d*y + ty
struct AffineTransform {
    double a = 1, b = 0, c = 0, d = 1, tx = 0, ty = 0;

    static AffineTransform scale(double sx, double sy) { return {sx, 0, 0, sy, 0, 0}; }
    static AffineTransform translation(double x, double y) { return {1, 0, 0, 1, x, y}; }
    // This transform first, then `then`.
    [[nodiscard]] AffineTransform concatenating(const AffineTransform& then) const {
        return {a * then.a + b * then.c,
                a * then.b + b * then.d,
                c * then.a + d * then.c,
                c * then.b + d * then.d,
                tx * then.a + ty * then.c + then.tx,
                tx * then.b + ty * then.d + then.ty};
    }
    [[nodiscard]] Point apply(Point p) const {
        return {a * p.x + c * p.y + tx, b * p.x + d * p.y + ty};
    }
};

class Image {
public:
    virtual ~Image() = default;
    [[nodiscard]] virtual Rect extent() const = 0;
};
using ImageRef = std::shared_ptr<const Image>;

// A rendering context.
class ImageContext {
public:
    virtual ~ImageContext() = default;
    // Renders the image's region from (0, 0) with the buffer's width and height into the whole
    // buffer, the top of the image into row 0. Areas that the image does not cover become
    // transparent black.
    virtual void render(const ImageRef& image, PixelBuffer& destination) = 0;
    // The same pixels as render(), but only inside `area` (buffer coordinates, top-left origin);
    // the rest of the buffer keeps what it held.
    virtual void render(const ImageRef& image, PixelBuffer& destination, const PixelArea& area) = 0;
};

class ImageCompositionBackend {
public:
    virtual ~ImageCompositionBackend() = default;
    [[nodiscard]] virtual ImageRef imageFromPixelBuffer(const PixelBufferRef& buffer) = 0;
    [[nodiscard]] virtual ImageRef applyingTransform(const ImageRef& image,
                                                     const AffineTransform& transform) = 0;
    // `top` laid over `bottom` (source-over, using top's alpha).
    [[nodiscard]] virtual ImageRef compositingOver(const ImageRef& top, const ImageRef& bottom) = 0;
    // A rendering context, on the GPU where the back end has one.
    [[nodiscard]] virtual std::shared_ptr<ImageContext> makeContext() = 0;
};

}  // namespace gb
