// Turns the frames a V4L2 camera delivers (packed YUV 4:2:2 or Motion JPEG) into 32-bit BGRA,
// using libswscale and libavcodec's Motion JPEG decoder.
//
// Threads: one converter is used by one thread at a time (the camera's capture thread).
// Steady state allocates no frame-sized memory: the decoder's frames come from its own pool and
// compressed frames are copied into one padded buffer made at construction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/result.h"

namespace gb::linuxp {

class CameraFrameConverter {
public:
    // Whether frames of this V4L2 pixel format (a fourcc such as V4L2_PIX_FMT_YUYV) convert.
    [[nodiscard]] static bool canConvert(uint32_t v4l2PixelFormat);
    // Whether the format is compressed (costs a decode per frame).
    [[nodiscard]] static bool isCompressed(uint32_t v4l2PixelFormat);

    // A converter for frames of `width` x `height` whose rows are `bytesPerLine` apart (packed
    // formats) and that are at most `maxFrameBytes` long (compressed formats).
    [[nodiscard]] static Result<std::unique_ptr<CameraFrameConverter>> make(
        uint32_t v4l2PixelFormat, int width, int height, size_t bytesPerLine, size_t maxFrameBytes);

    ~CameraFrameConverter();
    CameraFrameConverter(const CameraFrameConverter&) = delete;
    CameraFrameConverter& operator=(const CameraFrameConverter&) = delete;

    // Converts one captured frame of `size` bytes into a BGRA image of the destination's size
    // (scaled if the frame turns out to have another size). False when the frame cannot be read
    // (truncated or corrupt); the destination is then undefined.
    [[nodiscard]] bool convert(const uint8_t* frame, size_t size, uint8_t* destination,
                               int destinationWidth, int destinationHeight,
                               size_t destinationBytesPerRow);

private:
    struct Impl;
    explicit CameraFrameConverter(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace gb::linuxp
