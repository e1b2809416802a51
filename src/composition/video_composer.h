// Lays the camera picture over one corner of a screen frame and wraps the result as a video
// sample. The image path hands scaling and blending to the image-composition back end; the pixel
// path (only when the back end's output buffer cannot be had) copies the screen and writes the
// camera pixels itself, nearest neighbour, with rounded corners.
//
// Threads: composeFrame, createSampleBuffer and overlayCameraPixels run on the recording queue
// only (the rendering context is created and used there). The option fields are atomics written
// by the application on the main thread and read once per frame.
#pragma once

#include <atomic>
#include <memory>

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
};

}  // namespace gb
