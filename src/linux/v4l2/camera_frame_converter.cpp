#include "linux/v4l2/camera_frame_converter.h"

#include <linux/videodev2.h>

#include <cstring>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace gb::linuxp {
namespace {

struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct BufferDeleter {
    void operator()(AVBufferRef* buffer) const { av_buffer_unref(&buffer); }
};
struct ScalerDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};

using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using BufferPtr = std::unique_ptr<AVBufferRef, BufferDeleter>;
using ScalerPtr = std::unique_ptr<SwsContext, ScalerDeleter>;

PlatformError converterError(const std::string& what, int code = 0) {
    return PlatformError{"FFmpeg", code, what};
}

// Packed raw formats and the swscale format that reads them.
AVPixelFormat packedFormat(uint32_t v4l2PixelFormat) {
    switch (v4l2PixelFormat) {
        case V4L2_PIX_FMT_YUYV:
            return AV_PIX_FMT_YUYV422;
        case V4L2_PIX_FMT_UYVY:
            return AV_PIX_FMT_UYVY422;
        default:
            return AV_PIX_FMT_NONE;
    }
}

// The JPEG ("J") pixel formats are deprecated in swscale: read them as their plain twins and say
// that the range is full instead.
AVPixelFormat withoutJpegRange(AVPixelFormat format, bool& fullRange) {
    switch (format) {
        case AV_PIX_FMT_YUVJ420P:
            fullRange = true;
            return AV_PIX_FMT_YUV420P;
        case AV_PIX_FMT_YUVJ422P:
            fullRange = true;
            return AV_PIX_FMT_YUV422P;
        case AV_PIX_FMT_YUVJ444P:
            fullRange = true;
            return AV_PIX_FMT_YUV444P;
        case AV_PIX_FMT_YUVJ440P:
            fullRange = true;
            return AV_PIX_FMT_YUV440P;
        case AV_PIX_FMT_YUVJ411P:
            fullRange = true;
            return AV_PIX_FMT_YUV411P;
        default:
            return format;
    }
}

}  // namespace

struct CameraFrameConverter::Impl {
    uint32_t pixelFormat = 0;
    int width = 0;
    int height = 0;
    size_t bytesPerLine = 0;

    ScalerPtr scaler;
    // Parameters the scaler was made for; a frame that differs gets a new one.
    AVPixelFormat scalerSource = AV_PIX_FMT_NONE;
    int scalerSourceWidth = 0;
    int scalerSourceHeight = 0;
    int scalerDestinationWidth = 0;
    int scalerDestinationHeight = 0;
    bool scalerFullRange = false;

    // Motion JPEG only.
    CodecContextPtr decoder;
    FramePtr decoded;
    PacketPtr packet;
    BufferPtr packetBytes;  // capacity + zeroed padding, reused for every frame
    size_t packetCapacity = 0;

    bool prepareScaler(AVPixelFormat source, int sourceWidth, int sourceHeight,
                       int destinationWidth, int destinationHeight, bool fullRange) {
        if (scaler && source == scalerSource && sourceWidth == scalerSourceWidth &&
            sourceHeight == scalerSourceHeight && destinationWidth == scalerDestinationWidth &&
            destinationHeight == scalerDestinationHeight && fullRange == scalerFullRange) {
            return true;
        }
        scaler.reset(sws_getContext(sourceWidth, sourceHeight, source, destinationWidth,
                                    destinationHeight, AV_PIX_FMT_BGRA, SWS_BILINEAR, nullptr,
                                    nullptr, nullptr));
        if (!scaler) return false;
        // Cameras use BT.601; JPEG spans the full range, raw YUV the video range.
        const int* coefficients = sws_getCoefficients(SWS_CS_ITU601);
        sws_setColorspaceDetails(scaler.get(), coefficients, fullRange ? 1 : 0, coefficients, 1, 0,
                                 1 << 16, 1 << 16);
        scalerSource = source;
        scalerSourceWidth = sourceWidth;
        scalerSourceHeight = sourceHeight;
        scalerDestinationWidth = destinationWidth;
        scalerDestinationHeight = destinationHeight;
        scalerFullRange = fullRange;
        return true;
    }

    bool convertPacked(const uint8_t* frame, size_t size, uint8_t* destination,
                       int destinationWidth, int destinationHeight, size_t destinationBytesPerRow) {
        if (size < bytesPerLine * static_cast<size_t>(height)) return false;  // truncated
        if (!prepareScaler(packedFormat(pixelFormat), width, height, destinationWidth,
                           destinationHeight, false)) {
            return false;
        }
        const uint8_t* sourcePlanes[4] = {frame, nullptr, nullptr, nullptr};
        const int sourceStrides[4] = {static_cast<int>(bytesPerLine), 0, 0, 0};
        uint8_t* destinationPlanes[4] = {destination, nullptr, nullptr, nullptr};
        const int destinationStrides[4] = {static_cast<int>(destinationBytesPerRow), 0, 0, 0};
        return sws_scale(scaler.get(), sourcePlanes, sourceStrides, 0, height, destinationPlanes,
                         destinationStrides) == destinationHeight;
    }

    bool convertJpeg(const uint8_t* frame, size_t size, uint8_t* destination, int destinationWidth,
                     int destinationHeight, size_t destinationBytesPerRow) {
        if (size == 0 || size > packetCapacity) return false;
        // The decoder reads a little past the end: copy into the padded buffer.
        std::memcpy(packetBytes->data, frame, size);
        std::memset(packetBytes->data + size, 0, AV_INPUT_BUFFER_PADDING_SIZE);
        packet->buf = av_buffer_ref(packetBytes.get());
        if (!packet->buf) return false;
        packet->data = packetBytes->data;
        packet->size = static_cast<int>(size);
        const int sent = avcodec_send_packet(decoder.get(), packet.get());
        av_packet_unref(packet.get());
        if (sent < 0) return false;
        if (avcodec_receive_frame(decoder.get(), decoded.get()) < 0) return false;

        bool fullRange = decoded->color_range == AVCOL_RANGE_JPEG;
        const AVPixelFormat source =
            withoutJpegRange(static_cast<AVPixelFormat>(decoded->format), fullRange);
        bool ok = prepareScaler(source, decoded->width, decoded->height, destinationWidth,
                                destinationHeight, fullRange);
        if (ok) {
            uint8_t* destinationPlanes[4] = {destination, nullptr, nullptr, nullptr};
            const int destinationStrides[4] = {static_cast<int>(destinationBytesPerRow), 0, 0, 0};
            ok = sws_scale(scaler.get(), decoded->data, decoded->linesize, 0, decoded->height,
                           destinationPlanes, destinationStrides) == destinationHeight;
        }
        av_frame_unref(decoded.get());
        return ok;
    }
};

bool CameraFrameConverter::canConvert(uint32_t v4l2PixelFormat) {
    return packedFormat(v4l2PixelFormat) != AV_PIX_FMT_NONE || isCompressed(v4l2PixelFormat);
}

bool CameraFrameConverter::isCompressed(uint32_t v4l2PixelFormat) {
    return v4l2PixelFormat == V4L2_PIX_FMT_MJPEG || v4l2PixelFormat == V4L2_PIX_FMT_JPEG;
}

Result<std::unique_ptr<CameraFrameConverter>> CameraFrameConverter::make(uint32_t v4l2PixelFormat,
                                                                         int width, int height,
                                                                         size_t bytesPerLine,
                                                                         size_t maxFrameBytes) {
    if (!canConvert(v4l2PixelFormat)) {
        return converterError("Unsupported camera pixel format");
    }
    if (width <= 0 || height <= 0) return converterError("Invalid camera frame size");
    auto impl = std::make_unique<Impl>();
    impl->pixelFormat = v4l2PixelFormat;
    impl->width = width;
    impl->height = height;
    impl->bytesPerLine =
        bytesPerLine > 0 ? bytesPerLine : static_cast<size_t>(width) * 2;  // 2 bytes a pixel

    if (isCompressed(v4l2PixelFormat)) {
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_MJPEG);
        if (!codec) return converterError("No Motion JPEG decoder available");
        impl->decoder.reset(avcodec_alloc_context3(codec));
        impl->decoded.reset(av_frame_alloc());
        impl->packet.reset(av_packet_alloc());
        if (!impl->decoder || !impl->decoded || !impl->packet) {
            return converterError("Out of memory for the Motion JPEG decoder");
        }
        impl->decoder->thread_count = 1;  // one frame in, one frame out, no extra latency
        // A corrupt frame is counted and shown in the totals at stop; the decoder's own complaint
        // about every such frame would only flood standard error.
        impl->decoder->log_level_offset = AV_LOG_DEBUG - AV_LOG_ERROR;
        if (const int opened = avcodec_open2(impl->decoder.get(), codec, nullptr); opened < 0) {
            return converterError("Cannot open the Motion JPEG decoder", opened);
        }
        impl->packetCapacity = maxFrameBytes > 0
                                   ? maxFrameBytes
                                   : static_cast<size_t>(width) * static_cast<size_t>(height) * 2;
        impl->packetBytes.reset(
            av_buffer_alloc(impl->packetCapacity + AV_INPUT_BUFFER_PADDING_SIZE));
        if (!impl->packetBytes) return converterError("Out of memory for camera frames");
    }
    return std::unique_ptr<CameraFrameConverter>(new CameraFrameConverter(std::move(impl)));
}

CameraFrameConverter::CameraFrameConverter(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
CameraFrameConverter::~CameraFrameConverter() = default;

bool CameraFrameConverter::convert(const uint8_t* frame, size_t size, uint8_t* destination,
                                   int destinationWidth, int destinationHeight,
                                   size_t destinationBytesPerRow) {
    if (!frame || !destination || destinationWidth <= 0 || destinationHeight <= 0) return false;
    if (isCompressed(impl_->pixelFormat)) {
        return impl_->convertJpeg(frame, size, destination, destinationWidth, destinationHeight,
                                  destinationBytesPerRow);
    }
    return impl_->convertPacked(frame, size, destination, destinationWidth, destinationHeight,
                                destinationBytesPerRow);
}

}  // namespace gb::linuxp
