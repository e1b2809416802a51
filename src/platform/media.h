// Media values shared by capture, composition and writing: media times, 32-bit BGRA pixel
// buffers, PCM audio buffers and sample buffers. Standard library only.
//
// Ownership: pixel and audio buffers are reference counted (shared_ptr). A pixel buffer may wrap
// memory owned by a capture device or a pool without copying; the owner's release callback runs
// when the last reference goes, on whichever thread drops it. Buffers are immutable once handed
// to a sample, except through the composer's freshly created output buffers.
// Threads: every type here is a plain value or an immutable shared object; any thread may read.
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace gb {

enum class MediaType { video, audio };

// A rational time: value / timescale seconds, with validity flags and an epoch.
struct MediaTime {
    static constexpr uint32_t kValid = 1;

    int64_t value = 0;
    int32_t timescale = 0;
    uint32_t flags = 0;
    int64_t epoch = 0;

    static constexpr MediaTime make(int64_t value, int32_t timescale) {
        return MediaTime{value, timescale, kValid, 0};
    }
    static constexpr MediaTime invalid() { return MediaTime{}; }
    static constexpr MediaTime fromNanoseconds(int64_t ns) { return make(ns, 1'000'000'000); }

    [[nodiscard]] constexpr bool isValid() const { return (flags & kValid) != 0 && timescale > 0; }
    [[nodiscard]] double seconds() const {
        return isValid() ? static_cast<double>(value) / static_cast<double>(timescale) : 0.0;
    }
    [[nodiscard]] int64_t nanoseconds() const {
        if (!isValid()) return 0;
        // value * 1e9 / timescale without overflow for realistic values
        const int64_t whole = value / timescale;
        const int64_t rest = value % timescale;
        return whole * 1'000'000'000 + rest * 1'000'000'000 / timescale;
    }
    friend constexpr bool operator==(const MediaTime&, const MediaTime&) = default;
};

// The four-character code of 32-bit BGRA ("BGRA").
inline constexpr uint32_t kPixelFormatBGRA = 0x42475241;  // 1111970369

// A rectangle of pixels, from the top-left corner, y downward.
struct PixelArea {
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    friend bool operator==(const PixelArea&, const PixelArea&) = default;
};

// What changed in a picture since an earlier picture, so that a consumer that kept its work on
// the earlier one redoes only the changed areas. Pictures are numbered from one counter for the
// whole process, so numbers of different producers never meet.
struct PictureChanges {
    uint64_t picture = 0;          // this picture's number; 0: not numbered, treat as wholly new
    uint64_t since = 0;            // the picture the areas are relative to; 0: wholly new
    std::vector<PixelArea> areas;  // may overlap; empty with `since` set: nothing changed

    [[nodiscard]] static uint64_t nextPictureNumber() {
        static std::atomic<uint64_t> counter{0};
        return counter.fetch_add(1, std::memory_order_relaxed) + 1;
    }
    // True when a consumer whose last picture was `previous` may update only `areas`.
    [[nodiscard]] bool relativeTo(uint64_t previous) const {
        return since != 0 && since == previous;
    }
};

// A 32-bit BGRA image: four bytes a pixel in the order blue, green, red, alpha. Row 0 is the
// top row. bytesPerRow may exceed 4 * width.
class PixelBuffer {
public:
    using Release = std::function<void()>;

    // Wraps memory that someone else owns; `release` runs when the last reference goes.
    static std::shared_ptr<PixelBuffer> wrap(int width, int height, size_t bytesPerRow,
                                             uint8_t* data, Release release) {
        return std::shared_ptr<PixelBuffer>(
            new PixelBuffer(width, height, bytesPerRow, data, std::move(release)));
    }
    // Allocates a zeroed buffer with tightly packed rows. Returns null for a negative size.
    static std::shared_ptr<PixelBuffer> allocate(int width, int height) {
        if (width < 0 || height < 0) return nullptr;
        const size_t bpr = static_cast<size_t>(width) * 4;
        auto storage = std::make_shared<std::vector<uint8_t>>(bpr * static_cast<size_t>(height));
        uint8_t* data = storage->empty() ? nullptr : storage->data();
        return wrap(width, height, bpr, data, [storage] {});
    }

    PixelBuffer(const PixelBuffer&) = delete;
    PixelBuffer& operator=(const PixelBuffer&) = delete;
    ~PixelBuffer() {
        if (release_) release_();
    }

    [[nodiscard]] int width() const { return width_; }
    [[nodiscard]] int height() const { return height_; }
    [[nodiscard]] size_t bytesPerRow() const { return bytesPerRow_; }
    [[nodiscard]] uint32_t pixelFormat() const { return kPixelFormatBGRA; }
    // Address of the first byte of row 0, or null.
    [[nodiscard]] uint8_t* baseAddress() const { return data_; }
    // Size of the whole buffer in bytes (bytesPerRow * height).
    [[nodiscard]] size_t dataSize() const { return bytesPerRow_ * static_cast<size_t>(height_); }
    // Set by the producer before it hands the buffer on; read-only afterwards.
    void setChanges(PictureChanges changes) { changes_ = std::move(changes); }
    [[nodiscard]] const PictureChanges& changes() const { return changes_; }

private:
    PixelBuffer(int width, int height, size_t bytesPerRow, uint8_t* data, Release release)
        : width_(width), height_(height), bytesPerRow_(bytesPerRow), data_(data),
          release_(std::move(release)) {}

    int width_;
    int height_;
    size_t bytesPerRow_;
    uint8_t* data_;
    Release release_;
    PictureChanges changes_;
};
using PixelBufferRef = std::shared_ptr<PixelBuffer>;

enum class AudioSampleFormat { s16, f32 };

// Interleaved PCM audio as the microphone delivered it.
struct AudioBuffer {
    int sampleRate = 0;
    int channels = 0;
    AudioSampleFormat format = AudioSampleFormat::s16;
    int frameCount = 0;
    std::vector<uint8_t> data;  // frameCount * channels * bytes per sample
};
using AudioBufferRef = std::shared_ptr<const AudioBuffer>;

// The timing entry of a sample.
struct SampleTiming {
    MediaTime duration;
    MediaTime presentationTimeStamp;
    MediaTime decodeTimeStamp;
};

// One captured or composed sample: a video image (which may be absent, as for a screen sample
// that repeats the previous picture) or audio, with its timing.
class SampleBuffer {
public:
    static std::shared_ptr<const SampleBuffer> video(PixelBufferRef image, SampleTiming timing) {
        return std::shared_ptr<const SampleBuffer>(
            new SampleBuffer(MediaType::video, std::move(image), nullptr, timing));
    }
    static std::shared_ptr<const SampleBuffer> audio(AudioBufferRef audio, SampleTiming timing) {
        return std::shared_ptr<const SampleBuffer>(
            new SampleBuffer(MediaType::audio, nullptr, std::move(audio), timing));
    }

    [[nodiscard]] MediaType mediaType() const { return mediaType_; }
    [[nodiscard]] const SampleTiming& timing() const { return timing_; }
    [[nodiscard]] MediaTime presentationTime() const { return timing_.presentationTimeStamp; }
    // The sample's pixel buffer, or null (audio samples, or a video sample without an image).
    [[nodiscard]] const PixelBufferRef& imageBuffer() const { return image_; }
    // The sample's audio, or null.
    [[nodiscard]] const AudioBufferRef& audioBuffer() const { return audio_; }

private:
    SampleBuffer(MediaType type, PixelBufferRef image, AudioBufferRef audio, SampleTiming timing)
        : mediaType_(type), image_(std::move(image)), audio_(std::move(audio)), timing_(timing) {}

    MediaType mediaType_;
    PixelBufferRef image_;
    AudioBufferRef audio_;
    SampleTiming timing_;
};
using SampleBufferRef = std::shared_ptr<const SampleBuffer>;

// Creates new pixel buffers for composed frames. Creation may fail (null); implementations may
// recycle released buffers so that steady state allocates nothing. Any thread.
class PixelBufferFactory {
public:
    virtual ~PixelBufferFactory() = default;
    [[nodiscard]] virtual PixelBufferRef create(int width, int height) = 0;
};

// Wraps a pixel buffer and one timing entry as a ready video sample; null when that fails.
// Any thread.
class SampleMaker {
public:
    virtual ~SampleMaker() = default;
    [[nodiscard]] virtual SampleBufferRef makeVideoSample(const PixelBufferRef& image,
                                                          const SampleTiming& timing) = 0;
};

}  // namespace gb
