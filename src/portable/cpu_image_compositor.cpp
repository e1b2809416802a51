#include "portable/cpu_image_compositor.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <optional>
#include <vector>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#endif

namespace gb {
namespace {

static_assert(std::endian::native == std::endian::little,
              "BGRA pixels are handled as little-endian 32-bit words (alpha in the top byte)");

// ---- pixels ----------------------------------------------------------------------------------

uint32_t loadPixel(const uint8_t* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

void storePixel(uint8_t* p, uint32_t v) {
    std::memcpy(p, &v, 4);
}

// Bilinear weights: 6 bits across (0..64) and 7 bits down (0..127). The vector kernel multiplies
// a pixel pair by its two column weights in one signed-byte multiply-add, so each column weight
// must fit a signed byte; the row step uses a rounding 16-bit high multiply by weight << 8, which
// must fit a signed 16-bit lane. The scalar code below does exactly the same integer arithmetic.
constexpr int kColumnOne = 64;
constexpr int kRowOne = 128;

// (a * b + 2^14) >> 15: the rounding high multiply of 16-bit lanes.
int mulRound(int a, int b) {
    return (a * b + (1 << 14)) >> 15;
}

// Across first (first to second column by wx) in each row, then down (near to far row by wy).
uint32_t bilinear(uint32_t nearFirst, uint32_t nearSecond, uint32_t farFirst, uint32_t farSecond,
                  int wx, int wy) {
    uint32_t out = 0;
    for (int shift = 0; shift < 32; shift += 8) {
        const auto channel = [shift](uint32_t p) { return static_cast<int>((p >> shift) & 0xFFu); };
        const int nearMix = channel(nearFirst) * (kColumnOne - wx) + channel(nearSecond) * wx;
        const int farMix = channel(farFirst) * (kColumnOne - wx) + channel(farSecond) * wx;
        const int mixed = nearMix + mulRound(farMix - nearMix, wy << 8);
        out |= static_cast<uint32_t>(mulRound(mixed, 1 << 9)) << shift;  // (mixed + 32) >> 6
    }
    return out;
}

// Premultiplied source-over; channels saturate when the source is not truly premultiplied.
uint32_t over(uint32_t source, uint32_t destination) {
    const uint32_t alpha = source >> 24;
    if (alpha == 255) return source;
    if (source == 0) return destination;
    const uint32_t keep = 255 - alpha;
    uint32_t out = 0;
    for (int shift = 0; shift < 32; shift += 8) {
        const uint32_t x = ((destination >> shift) & 0xFFu) * keep + 128;
        const uint32_t c = ((source >> shift) & 0xFFu) + ((x + (x >> 8)) >> 8);
        out |= std::min(c, 255u) << shift;
    }
    return out;
}

// ---- geometry --------------------------------------------------------------------------------

bool isFinite(const AffineTransform& t) {
    return std::isfinite(t.a) && std::isfinite(t.b) && std::isfinite(t.c) && std::isfinite(t.d) &&
           std::isfinite(t.tx) && std::isfinite(t.ty);
}

bool isEmpty(const Rect& r) {
    return !(r.width > 0 && r.height > 0);
}

Rect boundsOf(const Rect& r, const AffineTransform& t) {
    if (isEmpty(r) || !isFinite(t)) return {};
    const std::array<Point, 4> corners = {t.apply({r.x, r.y}), t.apply({r.x + r.width, r.y}),
                                          t.apply({r.x, r.y + r.height}),
                                          t.apply({r.x + r.width, r.y + r.height})};
    double minX = corners[0].x, maxX = corners[0].x, minY = corners[0].y, maxY = corners[0].y;
    for (const Point& p : corners) {
        minX = std::min(minX, p.x);
        maxX = std::max(maxX, p.x);
        minY = std::min(minY, p.y);
        maxY = std::max(maxY, p.y);
    }
    const Rect out{minX, minY, maxX - minX, maxY - minY};
    if (!std::isfinite(out.width) || !std::isfinite(out.height)) return {};
    return out;
}

Rect unionOf(const Rect& a, const Rect& b) {
    if (isEmpty(a)) return b;
    if (isEmpty(b)) return a;
    const double x0 = std::min(a.x, b.x), y0 = std::min(a.y, b.y);
    const double x1 = std::max(a.x + a.width, b.x + b.width);
    const double y1 = std::max(a.y + a.height, b.y + b.height);
    return {x0, y0, x1 - x0, y1 - y0};
}

std::optional<AffineTransform> inverseOf(const AffineTransform& t) {
    const double det = t.a * t.d - t.b * t.c;
    if (!isFinite(t) || det == 0 || !std::isfinite(1.0 / det)) return std::nullopt;
    return AffineTransform{t.d / det,
                           -t.b / det,
                           -t.c / det,
                           t.a / det,
                           (t.c * t.ty - t.d * t.tx) / det,
                           (t.b * t.tx - t.a * t.ty) / det};
}

// A positive axis-aligned scale plus a translation: what the layered renderer handles.
bool isAxisAligned(const AffineTransform& t) {
    return isFinite(t) && t.b == 0 && t.c == 0 && t.a > 0 && t.d > 0;
}

// Whether the buffer can be read: rows hold their width and memory is there.
bool isReadable(const PixelBuffer& b) {
    return b.baseAddress() != nullptr && b.width() > 0 && b.height() > 0 &&
           b.bytesPerRow() >= static_cast<size_t>(b.width()) * 4;
}

// One axis of a bilinear sample: the two neighbouring source indexes, clamped to the edge, and
// the weight of the second.
struct Tap {
    int32_t first = 0;
    int32_t second = 0;
    int16_t weight = 0;
};

// Across: u in source pixels (pixel centres at k + 0.5 already subtracted). With two or more
// source pixels the pair is always adjacent (second = first + 1) and inside the row, so both can
// be read in one 8-byte load; the weight is 0..64.
Tap columnTap(double u, int size) {
    if (size <= 1) return {};
    u = std::clamp(u, -1.0, static_cast<double>(size));
    const double base = std::floor(u);
    auto k = static_cast<int64_t>(base);
    auto weight = static_cast<int>(std::lround((u - base) * kColumnOne));
    if (weight >= kColumnOne) {
        ++k;
        weight = 0;
    }
    if (k < 0) {
        k = 0;
        weight = 0;
    } else if (k >= size - 1) {
        k = size - 2;
        weight = kColumnOne;
    }
    return {static_cast<int32_t>(k), static_cast<int32_t>(k + 1), static_cast<int16_t>(weight)};
}

// Down: v in source pixels counted upward; the weight is 0..127 (a full step moves to the next
// row instead).
Tap rowTap(double v, int size) {
    if (size <= 1) return {};
    v = std::clamp(v, -1.0, static_cast<double>(size));
    const double base = std::floor(v);
    auto k = static_cast<int64_t>(base);
    auto weight = static_cast<int>(std::lround((v - base) * kRowOne));
    if (weight >= kRowOne) {
        ++k;
        weight = 0;
    }
    const int64_t last = size - 1;
    if (k < 0) return {0, 0, 0};
    if (k >= last) return {static_cast<int32_t>(last), static_cast<int32_t>(last), 0};
    return {static_cast<int32_t>(k), static_cast<int32_t>(k + 1), static_cast<int16_t>(weight)};
}

#if defined(__x86_64__) && defined(__GNUC__)
#define GB_AVX2_KERNEL 1

// The adjacent source pairs of four destination pixels, channels interleaved (first.b,
// second.b, first.g, second.g, ...) for the byte multiply-add.
__attribute__((target("avx2"), always_inline)) inline __m256i interleavedPairs(const uint8_t* row,
                                                                               const Tap* t,
                                                                               __m256i interleave) {
    const __m128i low =
        _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + t[0].first)),
                           _mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + t[1].first)));
    const __m128i high =
        _mm_unpacklo_epi64(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + t[2].first)),
                           _mm_loadl_epi64(reinterpret_cast<const __m128i*>(row + t[3].first)));
    return _mm256_shuffle_epi8(_mm256_inserti128_si256(_mm256_castsi128_si256(low), high, 1),
                               interleave);
}

// Fills destination pixels four at a time (AVX2); `weightBytes` holds, for each column, the byte
// pair (64 - w, w) four times. Returns how many pixels it wrote (a multiple of four); the caller
// finishes the rest. Needs adjacent column pairs (sources at least two pixels wide).
__attribute__((target("avx2"))) size_t drawRowAvx2(const uint8_t* near, const uint8_t* far,
                                                   const Tap* taps, const int8_t* weightBytes,
                                                   size_t count, int wy, uint8_t* out) {
    const __m256i interleave =
        _mm256_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15, 0, 4, 1, 5, 2, 6, 3,
                         7, 8, 12, 9, 13, 10, 14, 11, 15);
    const __m256i rowWeight = _mm256_set1_epi16(static_cast<int16_t>(wy << 8));
    const __m256i toBytes = _mm256_set1_epi16(1 << 9);
    const __m128i alpha = _mm_set1_epi32(static_cast<int>(0xFF000000u));
    size_t i = 0;
    for (; i + 4 <= count; i += 4, out += 16) {
        const Tap* t = taps + i;
        const __m256i weights =
            _mm256_loadu_si256(reinterpret_cast<const __m256i*>(weightBytes + i * 8));
        const __m256i nearMix =
            _mm256_maddubs_epi16(interleavedPairs(near, t, interleave), weights);
        const __m256i farMix = _mm256_maddubs_epi16(interleavedPairs(far, t, interleave), weights);
        const __m256i mixed = _mm256_add_epi16(
            nearMix, _mm256_mulhrs_epi16(_mm256_sub_epi16(farMix, nearMix), rowWeight));
        const __m256i channels = _mm256_mulhrs_epi16(mixed, toBytes);
        const __m128i four = _mm_packus_epi16(_mm256_castsi256_si128(channels),
                                              _mm256_extracti128_si256(channels, 1));
        if (_mm_movemask_epi8(_mm_cmpeq_epi32(_mm_and_si128(four, alpha), alpha)) == 0xFFFF) {
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out), four);
            continue;
        }
        alignas(16) uint32_t colours[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(colours), four);
        for (int k = 0; k < 4; ++k)
            storePixel(out + 4 * k, over(colours[k], loadPixel(out + 4 * k)));
    }
    return i;
}

bool hasAvx2() {
    static const bool supported = __builtin_cpu_supports("avx2");
    return supported;
}
#endif

// Destination indexes whose centres lie in [offset, offset + scale * sourceSize).
struct Span {
    int begin = 0;
    int end = 0;
};

Span coverage(double offset, double scale, int sourceSize, int destinationSize) {
    const double limit = static_cast<double>(destinationSize);
    const double lo = std::clamp(std::ceil(offset - 0.5), 0.0, limit);
    const double hi = std::clamp(std::ceil(offset + scale * sourceSize - 0.5), 0.0, limit);
    Span span{static_cast<int>(lo), static_cast<int>(hi)};
    if (span.end < span.begin) span.end = span.begin;
    return span;
}

// ---- images ----------------------------------------------------------------------------------

class CpuImage final : public Image {
public:
    enum class Kind { empty, buffer, transformed, composite };

    [[nodiscard]] Rect extent() const override { return extent_; }

    static std::shared_ptr<const CpuImage> makeEmpty() {
        return std::make_shared<const CpuImage>(Private{}, Kind::empty);
    }
    static std::shared_ptr<const CpuImage> makeBuffer(PixelBufferRef buffer) {
        auto image = std::make_shared<CpuImage>(Private{}, Kind::buffer);
        image->extent_ = {0, 0, static_cast<double>(std::max(buffer->width(), 0)),
                          static_cast<double>(std::max(buffer->height(), 0))};
        image->buffer_ = std::move(buffer);
        return image;
    }
    static std::shared_ptr<const CpuImage> makeTransformed(std::shared_ptr<const CpuImage> child,
                                                           const AffineTransform& transform) {
        auto image = std::make_shared<CpuImage>(Private{}, Kind::transformed);
        image->extent_ = boundsOf(child->extent(), transform);
        image->transform_ = transform;
        image->inverse_ = inverseOf(transform);
        image->first_ = std::move(child);
        return image;
    }
    static std::shared_ptr<const CpuImage> makeComposite(std::shared_ptr<const CpuImage> top,
                                                         std::shared_ptr<const CpuImage> bottom) {
        auto image = std::make_shared<CpuImage>(Private{}, Kind::composite);
        image->extent_ = unionOf(top->extent(), bottom->extent());
        image->first_ = std::move(top);
        image->second_ = std::move(bottom);
        return image;
    }

    struct Private {};
    CpuImage(Private, Kind kind) : kind_(kind) {}

    [[nodiscard]] Kind kind() const { return kind_; }
    [[nodiscard]] const PixelBuffer& buffer() const { return *buffer_; }
    [[nodiscard]] const AffineTransform& transform() const { return transform_; }
    [[nodiscard]] const std::optional<AffineTransform>& inverse() const { return inverse_; }
    // The transformed image, or the top of a composite.
    [[nodiscard]] const CpuImage& child() const { return *first_; }
    [[nodiscard]] const CpuImage& top() const { return *first_; }
    [[nodiscard]] const CpuImage& bottom() const { return *second_; }

private:
    Kind kind_;
    Rect extent_;
    PixelBufferRef buffer_;
    AffineTransform transform_;
    std::optional<AffineTransform> inverse_;
    std::shared_ptr<const CpuImage> first_;
    std::shared_ptr<const CpuImage> second_;
};

std::shared_ptr<const CpuImage> asCpuImage(const ImageRef& image) {
    auto cpu = std::dynamic_pointer_cast<const CpuImage>(image);
    return cpu ? cpu : CpuImage::makeEmpty();
}

// Premultiplied colour of the image at (x, y) in image space (origin bottom-left).
uint32_t sampleAt(const CpuImage& image, double x, double y) {
    switch (image.kind()) {
        case CpuImage::Kind::empty:
            return 0;
        case CpuImage::Kind::buffer: {
            const PixelBuffer& b = image.buffer();
            if (!isReadable(b)) return 0;
            if (!(x >= 0 && x < b.width() && y >= 0 && y < b.height())) return 0;
            const Tap column = columnTap(x - 0.5, b.width());
            const Tap row = rowTap(y - 0.5, b.height());
            const uint8_t* base = b.baseAddress();
            const size_t bpr = b.bytesPerRow();
            // Image rows count upward, buffer rows downward.
            const uint8_t* lower = base + static_cast<size_t>(b.height() - 1 - row.first) * bpr;
            const uint8_t* upper = base + static_cast<size_t>(b.height() - 1 - row.second) * bpr;
            const size_t c0 = static_cast<size_t>(column.first) * 4;
            const size_t c1 = static_cast<size_t>(column.second) * 4;
            return bilinear(loadPixel(lower + c0), loadPixel(lower + c1), loadPixel(upper + c0),
                            loadPixel(upper + c1), column.weight, row.weight);
        }
        case CpuImage::Kind::transformed: {
            if (!image.inverse()) return 0;
            const Point p = image.inverse()->apply({x, y});
            return sampleAt(image.child(), p.x, p.y);
        }
        case CpuImage::Kind::composite: {
            const uint32_t top = sampleAt(image.top(), x, y);
            if ((top >> 24) == 255) return top;
            return over(top, sampleAt(image.bottom(), x, y));
        }
    }
    return 0;
}

// ---- rendering -------------------------------------------------------------------------------

// Bilinear tables of one layer geometry: which destination pixels the layer covers and where
// each samples the source. Recomputed only when the geometry changes.
struct LayerPlan {
    bool valid = false;
    int sourceWidth = 0, sourceHeight = 0, width = 0, height = 0;
    AffineTransform transform;
    Span columns;                     // destination columns
    Span rows;                        // image-space rows (counted upward)
    std::vector<Tap> columnTaps;      // source columns, as byte offsets in a row
    std::vector<int8_t> weightBytes;  // per column (64 - w, w) four times (vector kernel)
    std::vector<Tap> rowTaps;         // source buffer rows (counted downward)

    [[nodiscard]] bool matches(int sw, int sh, int w, int h, const AffineTransform& t) const {
        return valid && sourceWidth == sw && sourceHeight == sh && width == w && height == h &&
               transform.a == t.a && transform.d == t.d && transform.tx == t.tx &&
               transform.ty == t.ty;
    }
};

class CpuImageContext final : public ImageContext {
public:
    explicit CpuImageContext(bool layeredRendering) : layeredRendering_(layeredRendering) {}

    void render(const ImageRef& image, PixelBuffer& destination) override {
        render(image, destination, PixelArea{0, 0, destination.width(), destination.height()});
    }

    void render(const ImageRef& image, PixelBuffer& destination, const PixelArea& area) override {
        const int width = destination.width();
        const int height = destination.height();
        // Rows narrower than the width could not hold the picture: leave such a buffer alone.
        if (!isReadable(destination)) return;
        const Clip clip{std::max(0, area.x), std::max(0, area.y),
                        std::min(width, area.x + area.width),
                        std::min(height, area.y + area.height)};
        if (clip.right <= clip.left || clip.bottom <= clip.top) return;
        const std::shared_ptr<const CpuImage> root = asCpuImage(image);
        layers_.clear();
        if (layeredRendering_ && flatten(*root, AffineTransform{})) {
            renderLayers(destination, width, height, clip);
        } else {
            // Rare trees: the whole picture, which holds the area's pixels too.
            renderGeneral(*root, destination, width, height);
        }
        layers_.clear();
    }

private:
    struct Layer {
        const PixelBuffer* buffer;
        AffineTransform transform;
    };
    // Destination pixels to paint: columns [left, right), rows [top, bottom) counted downward.
    struct Clip {
        int left, top, right, bottom;
    };

    // Paint order, bottom first. False when a transform is not a positive axis-aligned scale.
    bool flatten(const CpuImage& image, const AffineTransform& outer) {
        switch (image.kind()) {
            case CpuImage::Kind::empty:
                return true;
            case CpuImage::Kind::buffer:
                if (!isReadable(image.buffer())) return true;  // contributes nothing
                if (!isAxisAligned(outer)) return false;
                layers_.push_back({&image.buffer(), outer});
                return true;
            case CpuImage::Kind::transformed: {
                const AffineTransform combined = image.transform().concatenating(outer);
                // A degenerate transform shows nothing, whatever it applies to.
                if (!isFinite(combined) || !inverseOf(combined)) return true;
                return flatten(image.child(), combined);
            }
            case CpuImage::Kind::composite:
                return flatten(image.bottom(), outer) && flatten(image.top(), outer);
        }
        return false;
    }

    void renderLayers(PixelBuffer& destination, int width, int height, const Clip& clip) {
        uint8_t* base = destination.baseAddress();
        const size_t bpr = destination.bytesPerRow();
        size_t first = 0;
        const bool whole =
            clip.left == 0 && clip.top == 0 && clip.right == width && clip.bottom == height;
        if (!layers_.empty() && coversOneToOne(layers_.front(), width, height)) {
            if (whole) {
                copyRows(*layers_.front().buffer, destination, width, height);
            } else {
                copyArea(*layers_.front().buffer, destination, clip);
            }
            first = 1;
        } else if (whole) {
            std::memset(base, 0, bpr * static_cast<size_t>(height));
        } else {
            for (int row = clip.top; row < clip.bottom; ++row) {
                std::memset(
                    base + static_cast<size_t>(row) * bpr + static_cast<size_t>(clip.left) * 4, 0,
                    static_cast<size_t>(clip.right - clip.left) * 4);
            }
        }
        for (size_t i = first; i < layers_.size(); ++i) {
            drawLayer(layers_[i], destination, width, height, clip);
        }
    }

    static void copyArea(const PixelBuffer& source, PixelBuffer& destination, const Clip& clip) {
        const size_t bytes = static_cast<size_t>(clip.right - clip.left) * 4;
        const size_t offset = static_cast<size_t>(clip.left) * 4;
        for (int row = clip.top; row < clip.bottom; ++row) {
            std::memcpy(
                destination.baseAddress() + static_cast<size_t>(row) * destination.bytesPerRow() +
                    offset,
                source.baseAddress() + static_cast<size_t>(row) * source.bytesPerRow() + offset,
                bytes);
        }
    }

    static bool coversOneToOne(const Layer& layer, int width, int height) {
        const AffineTransform& t = layer.transform;
        return t.a == 1 && t.d == 1 && t.tx == 0 && t.ty == 0 && layer.buffer->width() == width &&
               layer.buffer->height() == height;
    }

    static void copyRows(const PixelBuffer& source, PixelBuffer& destination, int width,
                         int height) {
        const size_t sourceBpr = source.bytesPerRow();
        const size_t destinationBpr = destination.bytesPerRow();
        if (sourceBpr == destinationBpr) {
            std::memcpy(destination.baseAddress(), source.baseAddress(),
                        destinationBpr * static_cast<size_t>(height));
            return;
        }
        const size_t rowBytes = static_cast<size_t>(width) * 4;
        for (int row = 0; row < height; ++row) {
            std::memcpy(destination.baseAddress() + static_cast<size_t>(row) * destinationBpr,
                        source.baseAddress() + static_cast<size_t>(row) * sourceBpr, rowBytes);
        }
    }

    const LayerPlan& planFor(const Layer& layer, int width, int height) {
        const int sw = layer.buffer->width();
        const int sh = layer.buffer->height();
        const AffineTransform& t = layer.transform;
        for (const LayerPlan& plan : plans_) {
            if (plan.matches(sw, sh, width, height, t)) return plan;
        }
        LayerPlan& plan = plans_[nextPlan_];
        nextPlan_ = (nextPlan_ + 1) % plans_.size();
        plan.valid = true;
        plan.sourceWidth = sw;
        plan.sourceHeight = sh;
        plan.width = width;
        plan.height = height;
        plan.transform = t;
        plan.columns = coverage(t.tx, t.a, sw, width);
        plan.rows = coverage(t.ty, t.d, sh, height);
        plan.columnTaps.resize(static_cast<size_t>(plan.columns.end - plan.columns.begin));
        for (int x = plan.columns.begin; x < plan.columns.end; ++x) {
            Tap tap = columnTap((x + 0.5 - t.tx) / t.a - 0.5, sw);
            tap.first *= 4;
            tap.second *= 4;
            plan.columnTaps[static_cast<size_t>(x - plan.columns.begin)] = tap;
        }
        plan.weightBytes.resize(plan.columnTaps.size() * 8);
        for (size_t i = 0; i < plan.columnTaps.size(); ++i) {
            const auto w = static_cast<int8_t>(plan.columnTaps[i].weight);
            for (size_t c = 0; c < 4; ++c) {
                plan.weightBytes[i * 8 + c * 2] = static_cast<int8_t>(kColumnOne - w);
                plan.weightBytes[i * 8 + c * 2 + 1] = w;
            }
        }
        plan.rowTaps.resize(static_cast<size_t>(plan.rows.end - plan.rows.begin));
        for (int y = plan.rows.begin; y < plan.rows.end; ++y) {
            Tap tap = rowTap((y + 0.5 - t.ty) / t.d - 0.5, sh);
            // Image rows count upward, buffer rows downward.
            tap.first = sh - 1 - tap.first;
            tap.second = sh - 1 - tap.second;
            plan.rowTaps[static_cast<size_t>(y - plan.rows.begin)] = tap;
        }
        return plan;
    }

    void drawLayer(const Layer& layer, PixelBuffer& destination, int width, int height,
                   const Clip& clip) {
        const LayerPlan& plan = planFor(layer, width, height);
        const int firstColumn = std::max(plan.columns.begin, clip.left);
        const int endColumn = std::min(plan.columns.end, clip.right);
        if (firstColumn >= endColumn) return;
        const uint8_t* source = layer.buffer->baseAddress();
        const size_t sourceBpr = layer.buffer->bytesPerRow();
        uint8_t* target = destination.baseAddress();
        const size_t targetBpr = destination.bytesPerRow();
        const auto skipped = static_cast<size_t>(firstColumn - plan.columns.begin);
        const Tap* columnTaps = plan.columnTaps.data() + skipped;
        const auto count = static_cast<size_t>(endColumn - firstColumn);

        // One-pixel-wide sources have no adjacent pair to load at once.
        [[maybe_unused]] const bool pairs = layer.buffer->width() >= 2;

        // Image rows count upward: destination row r is image row height - 1 - r.
        const int firstRow = std::max(plan.rows.begin, height - clip.bottom);
        const int endRow = std::min(plan.rows.end, height - clip.top);
        for (int y = firstRow; y < endRow; ++y) {
            const Tap& down = plan.rowTaps[static_cast<size_t>(y - plan.rows.begin)];
            const uint8_t* near = source + static_cast<size_t>(down.first) * sourceBpr;
            const uint8_t* far = source + static_cast<size_t>(down.second) * sourceBpr;
            const int16_t rowWeight = down.weight;
            uint8_t* out = target + static_cast<size_t>(height - 1 - y) * targetBpr +
                           static_cast<size_t>(firstColumn) * 4;
            size_t i = 0;
#ifdef GB_AVX2_KERNEL
            if (pairs && hasAvx2()) {
                i = drawRowAvx2(near, far, columnTaps, plan.weightBytes.data() + skipped * 8, count,
                                rowWeight, out);
                out += i * 4;
            }
#endif
            for (; i < count; ++i, out += 4) {
                const Tap& tap = columnTaps[i];
                const uint32_t colour = bilinear(
                    loadPixel(near + tap.first), loadPixel(near + tap.second),
                    loadPixel(far + tap.first), loadPixel(far + tap.second), tap.weight, rowWeight);
                storePixel(out, (colour >> 24) == 255 ? colour : over(colour, loadPixel(out)));
            }
        }
    }

    static void renderGeneral(const CpuImage& root, PixelBuffer& destination, int width,
                              int height) {
        uint8_t* base = destination.baseAddress();
        const size_t bpr = destination.bytesPerRow();
        for (int row = 0; row < height; ++row) {
            const double y = height - row - 0.5;
            uint8_t* out = base + static_cast<size_t>(row) * bpr;
            for (int x = 0; x < width; ++x, out += 4) storePixel(out, sampleAt(root, x + 0.5, y));
        }
    }

    const bool layeredRendering_;
    std::vector<Layer> layers_;
    std::array<LayerPlan, 4> plans_;
    size_t nextPlan_ = 0;
};

}  // namespace

ImageRef CpuImageCompositor::imageFromPixelBuffer(const PixelBufferRef& buffer) {
    if (!buffer) return CpuImage::makeEmpty();
    return CpuImage::makeBuffer(buffer);
}

ImageRef CpuImageCompositor::applyingTransform(const ImageRef& image,
                                               const AffineTransform& transform) {
    return CpuImage::makeTransformed(asCpuImage(image), transform);
}

ImageRef CpuImageCompositor::compositingOver(const ImageRef& top, const ImageRef& bottom) {
    return CpuImage::makeComposite(asCpuImage(top), asCpuImage(bottom));
}

std::shared_ptr<ImageContext> CpuImageCompositor::makeContext() {
    return std::make_shared<CpuImageContext>(options_.layeredRendering);
}

}  // namespace gb
