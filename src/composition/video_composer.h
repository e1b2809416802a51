// Lays the camera picture over one corner of a screen frame and wraps the result as a video
// sample. The image path hands scaling and blending to the image-composition back end; the pixel
// path (only when the back end's output buffer cannot be had) copies the screen and writes the
// camera pixels itself, nearest neighbour, with rounded corners.
//
// Composed frames go into a few output buffers that the composer keeps. Each remembers which
// screen picture it was composed from, so when that buffer is free again only the screen's
// changes since (PixelBuffer::changes) and the overlay's rectangle are rendered again. The output
// in turn lists the areas that differ from the previous output, for the encoder.
//
// Threads: composeFrame, createSampleBuffer and overlayCameraPixels run on the recording queue
// only (the rendering context is created and used there). The option fields are atomics written
// by the application on the main thread and read once per frame.
#pragma once

#include <array>
#include <atomic>
#include <memory>
#include <optional>
#include <vector>

#include "platform/image_composition.h"
#include "platform/media.h"
#include "recording/options.h"
#include "recording/service_contracts.h"

namespace gb {

class VideoComposer final : public CompositionService {
public:
    static constexpr double kOverlayMargin = 50.0;
    static constexpr MediaTime kSampleDuration = MediaTime::make(1, 30);

    VideoComposer(ImageCompositionBackend& backend, PixelBufferFactory& bufferFactory,
                  SampleMaker& sampleMaker);

    // The screen frame with the camera picture over it, stamped with the time; null when no
    // sample can be made. Without a camera frame, the screen frame unchanged.
    [[nodiscard]] SampleBufferRef composeFrame(const PixelBufferRef& screenBuffer,
                                               const PixelBufferRef& cameraBuffer,
                                               MediaTime presentationTime) override;
    // The buffer unchanged as a sample lasting 1/30 s with an invalid decode time.
    [[nodiscard]] SampleBufferRef createSampleBuffer(const PixelBufferRef& buffer,
                                                     MediaTime presentationTime) override;

    // Left and top edges of the overlay, from the frame's top-left corner, y downward. Sizes and
    // margin are truncated to integers first; the result may be negative on a small frame.
    [[nodiscard]] static Point overlayPosition(int screenWidth, int screenHeight,
                                               CameraPosition position, OverlaySize overlaySize,
                                               double margin);
    // Pixel path drawing: nearest-neighbour copy of the camera into its corner of `outputBuffer`
    // with rounded corners; pixels outside either buffer are skipped.
    void overlayCameraPixels(const PixelBuffer& cameraBuffer, PixelBuffer& outputBuffer,
                             int screenWidth, int screenHeight);

    [[nodiscard]] bool cameraOverlayEnabled() const override { return overlayEnabled_.load(); }
    void setCameraOverlayEnabled(bool enabled) override { overlayEnabled_.store(enabled); }
    [[nodiscard]] CameraOverlayPreset cameraOverlayPreset() const override {
        return overlayPreset_.load();
    }
    void setCameraOverlayPreset(CameraOverlayPreset preset) override {
        overlayPreset_.store(preset);
    }
    [[nodiscard]] CameraPosition cameraPosition() const override { return position_.load(); }
    void setCameraPosition(CameraPosition position) override { position_.store(position); }
    [[nodiscard]] double cameraOverlayCornerRadius() const { return kCornerRadius; }
    // Always true: the image path is always tried first.
    [[nodiscard]] bool useGPUComposition() const { return kUseGPUComposition; }

private:
    static constexpr double kCornerRadius = 20.0;
    static constexpr bool kUseGPUComposition = true;

    // The one rendering context, created on first use (recording queue only).
    ImageContext& context();
    // A composed frame kept for reuse; `busy` while a handed-out buffer over it lives.
    struct Output {
        PixelBufferRef buffer;
        std::shared_ptr<std::atomic<bool>> busy;
        uint64_t screenPicture = 0;  // the screen picture it shows; 0: nothing usable
        PixelArea overlay;           // where the camera was drawn into it
    };
    // A free kept output of the size, made when there is room; null when none is free (with
    // `noBuffer` set when the factory had none to give).
    Output* freeOutput(int width, int height, bool& noBuffer);
    // The areas that changed from screen picture `from` to `screen`, or nothing when the
    // remembered changes do not link them.
    [[nodiscard]] std::optional<std::vector<PixelArea>> screenChangesSince(
        uint64_t from, const PixelBuffer& screen) const;
    void rememberScreenChanges(const PixelBuffer& screen);
    SampleBufferRef composeWithPixels(const PixelBufferRef& screenBuffer,
                                      const PixelBuffer& cameraBuffer, MediaTime presentationTime,
                                      CameraOverlayPreset preset, CameraPosition position);
    void drawCameraPixels(const PixelBuffer& cameraBuffer, PixelBuffer& outputBuffer,
                          int screenWidth, int screenHeight, CameraOverlayPreset preset,
                          CameraPosition position);

    ImageCompositionBackend& backend_;
    PixelBufferFactory& bufferFactory_;
    SampleMaker& sampleMaker_;

    std::atomic<bool> overlayEnabled_{true};
    std::atomic<CameraOverlayPreset> overlayPreset_{CameraOverlayPreset::medium};
    std::atomic<CameraPosition> position_{CameraPosition::bottomRight};
    std::shared_ptr<ImageContext> ciContext_;  // recording queue only

    // Recording queue only.
    std::array<Output, 3> outputs_;
    std::array<PictureChanges, 8> screenHistory_;  // the latest screen pictures' changes
    size_t screenHistoryNext_ = 0;
    uint64_t lastOutputPicture_ = 0;
    uint64_t lastScreenPicture_ = 0;
    PixelArea lastOverlay_;
};

}  // namespace gb
