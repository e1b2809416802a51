#include "composition/video_composer.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>

#include "recording/log.h"

namespace gb {

VideoComposer::VideoComposer(ImageCompositionBackend& backend, PixelBufferFactory& bufferFactory,
                             SampleMaker& sampleMaker)
    : backend_(backend), bufferFactory_(bufferFactory), sampleMaker_(sampleMaker) {}

ImageContext& VideoComposer::context() {
    if (!ciContext_) ciContext_ = backend_.makeContext();
    return *ciContext_;
}

Point VideoComposer::overlayPosition(int screenWidth, int screenHeight, CameraPosition position,
                                     OverlaySize overlaySize, double margin) {
    const int64_t w = screenWidth;
    const int64_t h = screenHeight;
    const auto ow = static_cast<int64_t>(overlaySize.width);
    const auto oh = static_cast<int64_t>(overlaySize.height);
    const auto m = static_cast<int64_t>(margin);
    int64_t x = m;
    int64_t y = m;
    switch (position) {
        case CameraPosition::topLeft:
            break;
        case CameraPosition::topRight:
            x = w - ow - m;
            break;
        case CameraPosition::bottomLeft:
            y = h - oh - m;
            break;
        case CameraPosition::bottomRight:
            x = w - ow - m;
            y = h - oh - m;
            break;
    }
    return {static_cast<double>(x), static_cast<double>(y)};
}

SampleBufferRef VideoComposer::createSampleBuffer(const PixelBufferRef& buffer,
                                                  MediaTime presentationTime) {
    if (!buffer) return nullptr;
    // Every frame lasts 1/30 s whatever the capture rate; the writer orders by presentation time.
    return sampleMaker_.makeVideoSample(
        buffer, SampleTiming{kSampleDuration, presentationTime, MediaTime::invalid()});
}

SampleBufferRef VideoComposer::composeFrame(const PixelBufferRef& screenBuffer,
                                            const PixelBufferRef& cameraBuffer,
                                            MediaTime presentationTime) {
    if (!screenBuffer) return nullptr;
    if (!cameraBuffer) return createSampleBuffer(screenBuffer, presentationTime);
    // One reading of the options per frame, so both paths agree even if the menu changes them.
    const CameraOverlayPreset preset = overlayPreset_.load();
    const CameraPosition position = position_.load();

    const ImageRef screenImage = backend_.imageFromPixelBuffer(screenBuffer);
    const ImageRef cameraImage = backend_.imageFromPixelBuffer(cameraBuffer);
    const OverlaySize overlay = size(preset);
    const int width = screenBuffer->width();
    const int height = screenBuffer->height();
    const Point origin = overlayPosition(width, height, position, overlay, kOverlayMargin);

    // The whole camera picture is stretched to the overlay size; the image space grows upward.
    const Rect extent = cameraImage ? cameraImage->extent() : Rect{};
    const AffineTransform placement =
        AffineTransform::scale(overlay.width / extent.width, overlay.height / extent.height)
            .concatenating(AffineTransform::translation(
                origin.x, static_cast<double>(height) - origin.y - overlay.height));
    const ImageRef composite =
        backend_.compositingOver(backend_.applyingTransform(cameraImage, placement), screenImage);

    // The overlay's pixels, with a pixel's margin for the bilinear edge.
    const PixelArea overlayArea{static_cast<int>(std::floor(origin.x)) - 1,
                                static_cast<int>(std::floor(origin.y)) - 1,
                                static_cast<int>(std::ceil(overlay.width)) + 2,
                                static_cast<int>(std::ceil(overlay.height)) + 2};
    const PictureChanges& screenChanges = screenBuffer->changes();
    rememberScreenChanges(*screenBuffer);
    bool noBuffer = false;
    if (Output* kept = freeOutput(width, height, noBuffer)) {
        std::optional<std::vector<PixelArea>> stale =
            kept->screenPicture != 0 ? screenChangesSince(kept->screenPicture, *screenBuffer)
                                     : std::nullopt;
        if (stale) {
            stale->push_back(kept->overlay);
            stale->push_back(overlayArea);
            for (const PixelArea& area : *stale) context().render(composite, *kept->buffer, area);
        } else {
            context().render(composite, *kept->buffer);
        }
        kept->screenPicture = screenChanges.picture;
        kept->overlay = overlayArea;

        // What differs from the previous output: the screen's changes and both overlay places.
        PictureChanges changes;
        changes.picture = PictureChanges::nextPictureNumber();
        if (lastOutputPicture_ != 0 && screenChanges.picture != 0) {
            if (auto areas = screenChangesSince(lastScreenPicture_, *screenBuffer)) {
                changes.since = lastOutputPicture_;
                changes.areas = std::move(*areas);
                changes.areas.push_back(lastOverlay_);
                changes.areas.push_back(overlayArea);
            }
        }
        lastOutputPicture_ = changes.picture;
        lastScreenPicture_ = screenChanges.picture;
        lastOverlay_ = overlayArea;
        // Handed out as a buffer of its own whose end frees the kept one.
        auto busy = kept->busy;
        PixelBufferRef held = kept->buffer;
        PixelBufferRef output =
            PixelBuffer::wrap(width, height, held->bytesPerRow(), held->baseAddress(),
                              [busy, held] { busy->store(false, std::memory_order_release); });
        output->setChanges(std::move(changes));
        return createSampleBuffer(output, presentationTime);
    }
    lastOutputPicture_ = 0;
    if (noBuffer) {
        return composeWithPixels(screenBuffer, *cameraBuffer, presentationTime, preset, position);
    }
    if (PixelBufferRef output = bufferFactory_.create(width, height)) {
        context().render(composite, *output);
        return createSampleBuffer(output, presentationTime);
    }
    return composeWithPixels(screenBuffer, *cameraBuffer, presentationTime, preset, position);
}

VideoComposer::Output* VideoComposer::freeOutput(int width, int height, bool& noBuffer) {
    for (Output& output : outputs_) {
        if (!output.buffer || output.buffer->width() != width ||
            output.buffer->height() != height) {
            continue;
        }
        bool expected = false;
        if (output.busy->compare_exchange_strong(expected, true, std::memory_order_acquire)) {
            return &output;
        }
    }
    for (Output& output : outputs_) {
        if (output.buffer && output.busy->load(std::memory_order_acquire)) continue;
        output.buffer = bufferFactory_.create(width, height);
        noBuffer = !output.buffer;
        if (noBuffer) return nullptr;
        output.busy = std::make_shared<std::atomic<bool>>(true);
        output.screenPicture = 0;
        return &output;
    }
    return nullptr;
}

void VideoComposer::rememberScreenChanges(const PixelBuffer& screen) {
    const PictureChanges& changes = screen.changes();
    if (changes.picture == 0) return;
    for (const PictureChanges& known : screenHistory_) {
        if (known.picture == changes.picture) return;
    }
    screenHistory_[screenHistoryNext_++ % screenHistory_.size()] = changes;
}

std::optional<std::vector<PixelArea>> VideoComposer::screenChangesSince(
    uint64_t from, const PixelBuffer& screen) const {
    std::vector<PixelArea> areas;
    uint64_t at = screen.changes().picture;
    if (from == 0 || at == 0) return std::nullopt;
    // Walks back from the screen's picture along the pictures each one is relative to.
    for (size_t steps = 0; at != from; ++steps) {
        const PictureChanges* link = nullptr;
        for (const PictureChanges& known : screenHistory_) {
            if (known.picture == at) link = &known;
        }
        if (link == nullptr || link->since == 0 || steps == screenHistory_.size()) {
            return std::nullopt;
        }
        areas.insert(areas.end(), link->areas.begin(), link->areas.end());
        at = link->since;
    }
    return areas;
}

SampleBufferRef VideoComposer::composeWithPixels(const PixelBufferRef& screenBuffer,
                                                 const PixelBuffer& cameraBuffer,
                                                 MediaTime presentationTime,
                                                 CameraOverlayPreset preset,
                                                 CameraPosition position) {
    const int width = screenBuffer->width();
    const int height = screenBuffer->height();
    const PixelBufferRef output = bufferFactory_.create(width, height);
    if (!output) return createSampleBuffer(screenBuffer, presentationTime);

    const uint8_t* source = screenBuffer->baseAddress();
    uint8_t* destination = output->baseAddress();
    if (source && destination) {
        if (screenBuffer->bytesPerRow() == output->bytesPerRow()) {
            std::memcpy(destination, source,
                        std::min(screenBuffer->dataSize(), output->dataSize()));
        } else {
            // Different row padding: copy what both rows hold, row by row.
            const size_t rowBytes = std::min(screenBuffer->bytesPerRow(), output->bytesPerRow());
            const int rows = std::max(0, std::min(height, output->height()));
            for (int row = 0; row < rows; ++row) {
                std::memcpy(destination + static_cast<size_t>(row) * output->bytesPerRow(),
                            source + static_cast<size_t>(row) * screenBuffer->bytesPerRow(),
                            rowBytes);
            }
        }
    }
    drawCameraPixels(cameraBuffer, *output, width, height, preset, position);
    return createSampleBuffer(output, presentationTime);
}

void VideoComposer::overlayCameraPixels(const PixelBuffer& cameraBuffer, PixelBuffer& outputBuffer,
                                        int screenWidth, int screenHeight) {
    drawCameraPixels(cameraBuffer, outputBuffer, screenWidth, screenHeight, overlayPreset_.load(),
                     position_.load());
}

void VideoComposer::drawCameraPixels(const PixelBuffer& cameraBuffer, PixelBuffer& outputBuffer,
                                     int screenWidth, int screenHeight, CameraOverlayPreset preset,
                                     CameraPosition position) {
    const OverlaySize overlay = size(preset);
    const auto tw = static_cast<int64_t>(overlay.width);
    const auto th = static_cast<int64_t>(overlay.height);
    const int64_t cw = cameraBuffer.width();
    const int64_t ch = cameraBuffer.height();
    logLine("🎬 Overlaying camera: target(" + std::to_string(tw) + "x" + std::to_string(th) +
            ") actual(" + std::to_string(cw) + "x" + std::to_string(ch) + ") onto screen(" +
            std::to_string(screenWidth) + "x" + std::to_string(screenHeight) + ")");
    const Point origin =
        overlayPosition(screenWidth, screenHeight, position, overlay, kOverlayMargin);
    const auto px = static_cast<int64_t>(origin.x);
    const auto py = static_cast<int64_t>(origin.y);
    logLine("📍 Camera positioned at: " + displayName(position) + " -> (" + std::to_string(px) +
            ", " + std::to_string(py) + ")");

    const uint8_t* source = cameraBuffer.baseAddress();
    uint8_t* destination = outputBuffer.baseAddress();
    if (!source || !destination) return;
    // Empty pictures: every pixel would fall outside a buffer.
    if (cw <= 0 || ch <= 0 || screenHeight <= 0 || tw <= 0 || th <= 0) return;

    const auto r = static_cast<int64_t>(kCornerRadius);
    const auto cbpr = static_cast<int64_t>(cameraBuffer.bytesPerRow());
    const auto obpr = static_cast<int64_t>(outputBuffer.bytesPerRow());
    const int64_t cameraBytes =
        std::min<int64_t>(cbpr * ch, static_cast<int64_t>(cameraBuffer.dataSize()));
    const int64_t outputBytes =
        std::min<int64_t>(obpr * screenHeight, static_cast<int64_t>(outputBuffer.dataSize()));
    // sx = i * cw / tw, advanced without a division per pixel.
    const int64_t sxStep = cw / tw;
    const int64_t sxCarry = cw % tw;

    for (int64_t j = 0; j < th; ++j) {
        const bool cornerRow = j < r || j >= th - r;
        const int64_t dy = j - (j < r ? r : th - r);
        const int64_t sourceRow = (j * ch / th) * cbpr;
        const int64_t destinationRow = (py + j) * obpr;
        int64_t sx = 0;
        int64_t remainder = 0;
        for (int64_t i = 0; i < tw; ++i) {
            bool draw = true;
            if (r >= 1 && cornerRow && (i < r || i >= tw - r)) {
                const int64_t dx = i - (i < r ? r : tw - r);
                draw = !(std::sqrt(static_cast<float>(dx * dx + dy * dy)) > static_cast<float>(r));
            }
            if (draw) {
                const int64_t from = sourceRow + sx * 4;
                const int64_t to = destinationRow + (px + i) * 4;
                if (from >= 0 && from + 4 <= cameraBytes && to >= 0 && to + 4 <= outputBytes) {
                    std::memcpy(destination + to, source + from, 4);
                }
            }
            sx += sxStep;
            remainder += sxCarry;
            if (remainder >= tw) {
                remainder -= tw;
                ++sx;
            }
        }
    }
}

}  // namespace gb
