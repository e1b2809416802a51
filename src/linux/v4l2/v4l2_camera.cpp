#include "linux/v4l2/v4l2_camera.h"

#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <thread>
#include <utility>

#include "linux/v4l2/camera_common.h"
#include "linux/v4l2/camera_frame_converter.h"
#include "linux/capture/monotonic_clock.h"
#include "linux/v4l2/test_camera.h"
#include "recording/log.h"

namespace gb::linuxp {
namespace {

constexpr int kOpenFlags = O_RDWR | O_NONBLOCK;
constexpr uint32_t kDriverBuffers = 4;
// Frames held downstream at once: the newest camera image, one or two on the recording queue,
// and the one being converted.
constexpr size_t kPoolSlots = 4;
// Frames are wanted at the screen's rate; faster cameras only cost conversions.
constexpr double kWantedFramesPerSecond = 30.0;
// Guards against drivers whose enumerations never end.
constexpr uint32_t kMaxEnumeration = 256;

// Sizes offered for cameras that describe a range of sizes instead of a list.
constexpr std::array<std::pair<int32_t, int32_t>, 5> kRangeSizes = {
    {{320, 240}, {640, 480}, {960, 540}, {1280, 720}, {1920, 1080}}};

std::string fixedText(const __u8* bytes, size_t capacity) {
    const auto* chars = reinterpret_cast<const char*>(bytes);
    return std::string(chars, ::strnlen(chars, capacity));
}

std::string fourccText(uint32_t fourcc) {
    std::string text;
    for (int i = 0; i < 4; ++i) {
        const char c = static_cast<char>((fourcc >> (8 * i)) & 0xff);
        if (c != ' ' && c != '\0') text.push_back(c);
    }
    return text;
}

PlatformError v4l2Error(int code, std::string text) {
    return PlatformError{"V4L2", code, text};
}

PlatformError inUseError(const std::string& name) {
    return v4l2Error(EBUSY, "Camera " + name + " is in use by another program");
}

// Frames per second of an interval, 0 when unknown.
double framesPerSecond(uint32_t numerator, uint32_t denominator) {
    return numerator > 0 ? static_cast<double>(denominator) / numerator : 0.0;
}

// The interval to ask for at one size: the fastest at or below the wanted rate, else the
// slowest offered. 0/0 when the driver does not enumerate intervals.
std::pair<uint32_t, uint32_t> chooseInterval(V4l2Calls& calls, int fd, uint32_t pixelFormat,
                                             int32_t width, int32_t height) {
    std::pair<uint32_t, uint32_t> best{0, 0};
    std::pair<uint32_t, uint32_t> slowest{0, 0};
    for (uint32_t index = 0; index < kMaxEnumeration; ++index) {
        v4l2_frmivalenum interval{};
        interval.index = index;
        interval.pixel_format = pixelFormat;
        interval.width = static_cast<uint32_t>(width);
        interval.height = static_cast<uint32_t>(height);
        if (calls.ioctl(fd, VIDIOC_ENUM_FRAMEINTERVALS, &interval) < 0) break;
        if (interval.type != V4L2_FRMIVAL_TYPE_DISCRETE) {
            // A range: the wanted rate when the range reaches it, else its slowest end.
            const v4l2_fract fastest = interval.stepwise.min;
            if (framesPerSecond(fastest.numerator, fastest.denominator) >= kWantedFramesPerSecond) {
                return {1, static_cast<uint32_t>(kWantedFramesPerSecond)};
            }
            return {fastest.numerator, fastest.denominator};
        }
        const v4l2_fract f = interval.discrete;
        const double fps = framesPerSecond(f.numerator, f.denominator);
        if (fps <= 0) continue;
        if (fps <= kWantedFramesPerSecond + 0.01 &&
            fps > framesPerSecond(best.first, best.second)) {
            best = {f.numerator, f.denominator};
        }
        if (slowest.first == 0 || fps < framesPerSecond(slowest.first, slowest.second)) {
            slowest = {f.numerator, f.denominator};
        }
    }
    return best.first > 0 ? best : slowest;
}

// The sizes of one pixel format, in the driver's order.
std::vector<std::pair<int32_t, int32_t>> frameSizes(V4l2Calls& calls, int fd,
                                                    uint32_t pixelFormat) {
    std::vector<std::pair<int32_t, int32_t>> sizes;
    for (uint32_t index = 0; index < kMaxEnumeration; ++index) {
        v4l2_frmsizeenum size{};
        size.index = index;
        size.pixel_format = pixelFormat;
        if (calls.ioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size) < 0) break;
        if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            sizes.emplace_back(static_cast<int32_t>(size.discrete.width),
                               static_cast<int32_t>(size.discrete.height));
            continue;
        }
        // A continuous or stepwise range: the common sizes that it contains, else its largest.
        const v4l2_frmsize_stepwise& range = size.stepwise;
        const auto fits = [](uint32_t value, uint32_t min, uint32_t max, uint32_t step) {
            if (value < min || value > max) return false;
            return step <= 1 || (value - min) % step == 0;
        };
        for (const auto& [w, h] : kRangeSizes) {
            if (fits(static_cast<uint32_t>(w), range.min_width, range.max_width,
                     range.step_width) &&
                fits(static_cast<uint32_t>(h), range.min_height, range.max_height,
                     range.step_height)) {
                sizes.emplace_back(w, h);
            }
        }
        if (sizes.empty() && range.max_width > 0 && range.max_height > 0) {
            sizes.emplace_back(static_cast<int32_t>(range.max_width),
                               static_cast<int32_t>(range.max_height));
        }
        break;  // a range is the only entry
    }
    return sizes;
}

// Distinct sizes of the formats we can convert, in enumeration order. Where several pixel
// formats offer one size, the one reaching the higher frame rate (up to the wanted one) wins,
// and on a tie the uncompressed one, which costs no decoding.
std::vector<V4l2Format> enumerateFormats(V4l2Calls& calls, int fd) {
    std::vector<V4l2Format> formats;
    for (uint32_t index = 0; index < kMaxEnumeration; ++index) {
        v4l2_fmtdesc description{};
        description.index = index;
        description.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (calls.ioctl(fd, VIDIOC_ENUM_FMT, &description) < 0) break;
        if (!CameraFrameConverter::canConvert(description.pixelformat)) continue;
        for (const auto& [width, height] : frameSizes(calls, fd, description.pixelformat)) {
            if (width <= 0 || height <= 0) continue;
            const auto [numerator, denominator] =
                chooseInterval(calls, fd, description.pixelformat, width, height);
            const V4l2Format candidate{description.pixelformat, width, height, numerator,
                                       denominator};
            auto same = std::find_if(formats.begin(), formats.end(), [&](const V4l2Format& f) {
                return f.width == candidate.width && f.height == candidate.height;
            });
            if (same == formats.end()) {
                formats.push_back(candidate);
                continue;
            }
            const auto rate = [](const V4l2Format& f) {
                return std::min(framesPerSecond(f.intervalNumerator, f.intervalDenominator),
                                kWantedFramesPerSecond);
            };
            const bool faster = rate(candidate) > rate(*same) + 0.01;
            const bool asFastButCheaper =
                rate(candidate) > rate(*same) - 0.01 &&
                CameraFrameConverter::isCompressed(same->pixelFormat) &&
                !CameraFrameConverter::isCompressed(candidate.pixelFormat);
            if (faster || asFastButCheaper) *same = candidate;
        }
    }
    return formats;
}

// An eventfd that wakes the capture thread's poll when the capture stops.
class StopEvent {
public:
    StopEvent() : fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}
    StopEvent(const StopEvent&) = delete;
    StopEvent& operator=(const StopEvent&) = delete;
    ~StopEvent() {
        if (fd_ >= 0) ::close(fd_);
    }
    [[nodiscard]] int fd() const { return fd_; }
    void signal() const {
        const uint64_t one = 1;
        // Cannot fail short of a counter overflow, and one wake-up is all it takes.
        [[maybe_unused]] const ssize_t written = ::write(fd_, &one, sizeof one);
    }

private:
    int fd_;
};

}  // namespace

std::optional<V4l2Description> describeV4l2Node(V4l2Calls& calls, int fd, bool probeBusy) {
    v4l2_capability capability{};
    if (calls.ioctl(fd, VIDIOC_QUERYCAP, &capability) < 0) return std::nullopt;
    const uint32_t caps = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0
                              ? capability.device_caps
                              : capability.capabilities;
    V4l2Description description;
    description.card = fixedText(capability.card, sizeof capability.card);
    description.busInfo = fixedText(capability.bus_info, sizeof capability.bus_info);
    const std::string driver = fixedText(capability.driver, sizeof capability.driver);
    for (const char* software : {"v4l2 loopback", "v4l2loopback", "vivid", "akvcam"}) {
        if (driver == software ||
            description.busInfo.rfind(std::string("platform:") + software, 0) == 0) {
            description.software = true;
        }
    }
    // Metadata nodes lack VIDEO_CAPTURE; codecs also write frames. A loopback device offers
    // both ends on one node: it is listed, as a software camera.
    const uint32_t notACamera =
        V4L2_CAP_VIDEO_M2M | V4L2_CAP_VIDEO_M2M_MPLANE |
        (description.software ? 0 : V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_OUTPUT_MPLANE);
    if ((caps & V4L2_CAP_VIDEO_CAPTURE) == 0 || (caps & V4L2_CAP_STREAMING) == 0 ||
        (caps & notACamera) != 0) {
        return std::nullopt;
    }
    description.formats = enumerateFormats(calls, fd);

    v4l2_format current{};
    current.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if (calls.ioctl(fd, VIDIOC_G_FMT, &current) == 0) {
        for (size_t i = 0; i < description.formats.size(); ++i) {
            if (description.formats[i].width == static_cast<int32_t>(current.fmt.pix.width) &&
                description.formats[i].height == static_cast<int32_t>(current.fmt.pix.height)) {
                description.activeFormatIndex = static_cast<int>(i);
                break;
            }
        }
    }

    if (probeBusy) {
        // Releasing no buffers changes nothing, but the driver refuses it with EBUSY when
        // another file owns the capture queue.
        v4l2_requestbuffers none{};
        none.count = 0;
        none.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        none.memory = V4L2_MEMORY_MMAP;
        description.busy = calls.ioctl(fd, VIDIOC_REQBUFS, &none) < 0 && errno == EBUSY;
    }
    return description;
}

// ---- device state shared by the device and its inputs ------------------------------------------

struct V4l2CameraDevice::State {
    State(V4l2Calls& calls, std::string path, std::optional<std::string> linkName,
          std::string uniqueID)
        : calls(calls),
          discoveredPath(std::move(path)),
          linkName(std::move(linkName)),
          uniqueID(std::move(uniqueID)) {}

    V4l2Calls& calls;
    const std::string discoveredPath;
    const std::optional<std::string> linkName;
    const std::string uniqueID;
    // Captures of ours that hold the device's queue; the device is not "in use by another
    // program" while one runs.
    std::atomic<int> ownCaptures{0};
    CameraAttachment attachment = CameraAttachment::unknown;  // set at construction

    mutable std::mutex mutex;
    std::string name;                  // guarded by mutex
    std::vector<V4l2Format> formats;   // guarded by mutex; the latest reading
    int reportedFormatIndex = -1;      // guarded by mutex; what VIDIOC_G_FMT said
    std::optional<V4l2Format> chosen;  // guarded by mutex; set by setActiveFormat
    bool locked = false;               // guarded by mutex

    // The node now: the by-id link follows the camera when it is re-plugged elsewhere; no link
    // left means the camera is gone.
    [[nodiscard]] std::optional<std::string> currentPath() const {
        if (!linkName) return discoveredPath;
        for (const auto& link : calls.deviceLinks()) {
            if (link.name == *linkName) return link.targetPath;
        }
        return std::nullopt;
    }

    [[nodiscard]] std::string currentName() const {
        std::lock_guard lock(mutex);
        return name;
    }

    void remember(const V4l2Description& description) {
        std::lock_guard lock(mutex);
        if (!description.card.empty()) name = description.card;
        formats = description.formats;
        reportedFormatIndex = description.activeFormatIndex;
        if (chosen && std::find(formats.begin(), formats.end(), *chosen) == formats.end()) {
            chosen.reset();  // a different camera answers at this node now
        }
    }

    [[nodiscard]] V4l2Format formatToCapture() const {
        std::lock_guard lock(mutex);
        if (chosen) return *chosen;
        if (reportedFormatIndex >= 0 && reportedFormatIndex < static_cast<int>(formats.size())) {
            return formats[static_cast<size_t>(reportedFormatIndex)];
        }
        return formats.empty() ? V4l2Format{} : formats.front();
    }
};

namespace {

// Marks the device as held by one of our captures for as long as it lives.
class OwnCaptureClaim {
public:
    explicit OwnCaptureClaim(std::atomic<int>& count) : count_(count) { ++count_; }
    OwnCaptureClaim(const OwnCaptureClaim&) = delete;
    OwnCaptureClaim& operator=(const OwnCaptureClaim&) = delete;
    ~OwnCaptureClaim() { --count_; }

private:
    std::atomic<int>& count_;
};

// Everything that lives from a successful start to the end of stop. Members are destroyed in
// reverse order: the mappings go before the descriptor, the claim last.
struct Stream {
    Stream(V4l2Calls& calls, std::atomic<int>& ownCaptures, std::string name)
        : calls(calls), claim(ownCaptures), name(std::move(name)) {}
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;
    ~Stream() {
        if (streaming) {
            int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            // A camera that vanished refuses this too; that was logged when it happened.
            [[maybe_unused]] const int ignored = calls.ioctl(fd.get(), VIDIOC_STREAMOFF, &type);
        }
    }

    V4l2Calls& calls;
    OwnCaptureClaim claim;
    const std::string name;
    V4l2Fd fd;
    std::vector<V4l2Mapping> buffers;  // indexed by the driver's buffer index
    std::unique_ptr<CameraFrameConverter> converter;
    std::unique_ptr<CameraFramePool> pool;
    StopEvent stopEvent;
    MediaTime frameDuration = MediaTime::invalid();
    bool streaming = false;
    // Written only by the capture thread while it runs; read after it has been joined.
    CameraFrameTotals totals;
};

class V4l2CaptureSource final : public CaptureSource {
public:
    explicit V4l2CaptureSource(std::shared_ptr<V4l2CameraDevice::State> device)
        : device_(std::move(device)) {}
    ~V4l2CaptureSource() override { stop(); }
    V4l2CaptureSource(const V4l2CaptureSource&) = delete;
    V4l2CaptureSource& operator=(const V4l2CaptureSource&) = delete;

    [[nodiscard]] MediaType mediaType() const override { return MediaType::video; }

    // Opens the device and starts its stream now, so that a camera that cannot stream fails the
    // set-up; frames are taken from start() on.
    Result<void> prepare() {
        std::lock_guard lock(controlMutex_);
        return prepareLocked();
    }

    Result<void> start(Deliver deliver) override {
        std::lock_guard lock(controlMutex_);
        if (thread_.joinable()) return v4l2Error(EALREADY, "Camera capture is already running");
        if (auto prepared = prepareLocked(); !prepared) return prepared.error();
        Stream& s = *stream_;
        thread_ = std::jthread(
            [&s, deliver = std::move(deliver)](std::stop_token stop) { run(stop, s, deliver); });
        return {};
    }

    void stop() override {
        std::lock_guard lock(controlMutex_);
        if (!stream_) return;
        if (thread_.joinable()) {
            thread_.request_stop();
            stream_->stopEvent.signal();
            thread_.join();
        }
        logLine(cameraTotalsLine(stream_->name, stream_->totals));
        stream_.reset();  // stream off, unmap, close
    }

private:
    Result<void> prepareLocked() {
        if (stream_) return {};
        auto stream = openStream();
        if (!stream) return stream.error();
        stream_ = std::move(stream.value());
        return {};
    }

    Result<std::unique_ptr<Stream>> openStream() {
        V4l2Calls& calls = device_->calls;
        const std::string name = device_->currentName();
        auto stream = std::make_unique<Stream>(calls, device_->ownCaptures, name);
        if (stream->stopEvent.fd() < 0) {
            return v4l2Error(errno, "Camera " + name + " cannot be started: " + errnoText(errno));
        }

        const auto path = device_->currentPath();
        if (!path) return v4l2Error(ENODEV, "Camera " + name + " is not connected");
        const int fd = calls.open(*path, kOpenFlags);
        if (fd < 0) {
            const int error = errno;
            if (error == EBUSY) return inUseError(name);
            return v4l2Error(error, "Camera " + name + " cannot be opened: " + errnoText(error));
        }
        stream->fd = V4l2Fd(calls, fd);

        const V4l2Format wanted = device_->formatToCapture();
        v4l2_format format{};
        format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        format.fmt.pix.width = static_cast<uint32_t>(wanted.width);
        format.fmt.pix.height = static_cast<uint32_t>(wanted.height);
        format.fmt.pix.pixelformat = wanted.pixelFormat;
        format.fmt.pix.field = V4L2_FIELD_ANY;
        if (calls.ioctl(fd, VIDIOC_S_FMT, &format) < 0) {
            const int error = errno;
            if (error == EBUSY) return inUseError(name);
            return v4l2Error(error, "Camera " + name + " refused the format " +
                                        std::to_string(wanted.width) + "x" +
                                        std::to_string(wanted.height) + ": " + errnoText(error));
        }
        // The driver may have adjusted the request: use what it actually set.
        const v4l2_pix_format pix = format.fmt.pix;
        const int width = static_cast<int>(pix.width);
        const int height = static_cast<int>(pix.height);
        if (!CameraFrameConverter::canConvert(pix.pixelformat) || width <= 0 || height <= 0) {
            return v4l2Error(EINVAL, "Camera " + name + " delivers frames of format " +
                                         fourccText(pix.pixelformat) + ", which cannot be read");
        }

        if (wanted.intervalNumerator > 0 && wanted.pixelFormat == pix.pixelformat &&
            wanted.width == width && wanted.height == height) {
            v4l2_streamparm parameters{};
            parameters.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            parameters.parm.capture.timeperframe = {wanted.intervalNumerator,
                                                    wanted.intervalDenominator};
            if (calls.ioctl(fd, VIDIOC_S_PARM, &parameters) == 0) {
                const v4l2_fract actual = parameters.parm.capture.timeperframe;
                if (actual.numerator > 0 && actual.denominator > 0) {
                    stream->frameDuration =
                        MediaTime::make(actual.numerator, static_cast<int32_t>(actual.denominator));
                }
            } else {
                logLine("📷 Camera " + name + " keeps its own frame rate: " + errnoText(errno));
            }
        }

        v4l2_requestbuffers request{};
        request.count = kDriverBuffers;
        request.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        request.memory = V4L2_MEMORY_MMAP;
        if (calls.ioctl(fd, VIDIOC_REQBUFS, &request) < 0) {
            const int error = errno;
            if (error == EBUSY) return inUseError(name);
            return v4l2Error(error,
                             "Camera " + name + " has no capture buffers: " + errnoText(error));
        }
        if (request.count < 2) {
            return v4l2Error(ENOMEM, "Camera " + name + " has too few capture buffers");
        }
        size_t largestBuffer = 0;
        for (uint32_t index = 0; index < request.count; ++index) {
            v4l2_buffer buffer{};
            buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
            buffer.memory = V4L2_MEMORY_MMAP;
            buffer.index = index;
            if (calls.ioctl(fd, VIDIOC_QUERYBUF, &buffer) < 0) {
                return v4l2Error(errno, "Camera " + name + " capture buffer " +
                                            std::to_string(index) +
                                            " is unavailable: " + errnoText(errno));
            }
            void* address = calls.mmap(buffer.length, PROT_READ | PROT_WRITE, MAP_SHARED, fd,
                                       static_cast<off_t>(buffer.m.offset));
            if (address == MAP_FAILED) {
                return v4l2Error(errno, "Camera " + name + " capture buffer cannot be mapped: " +
                                            errnoText(errno));
            }
            stream->buffers.emplace_back(calls, address, buffer.length);
            largestBuffer = std::max<size_t>(largestBuffer, buffer.length);
            if (calls.ioctl(fd, VIDIOC_QBUF, &buffer) < 0) {
                return v4l2Error(errno, "Camera " + name + " capture buffer cannot be queued: " +
                                            errnoText(errno));
            }
        }

        auto converter = CameraFrameConverter::make(pix.pixelformat, width, height,
                                                    pix.bytesperline, largestBuffer);
        if (!converter) {
            return v4l2Error(0, "Camera " + name + " frames cannot be converted: " +
                                    converter.error().localizedDescription);
        }
        stream->converter = std::move(converter.value());
        stream->pool = std::make_unique<CameraFramePool>(width, height, kPoolSlots);

        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
        if (calls.ioctl(fd, VIDIOC_STREAMON, &type) < 0) {
            const int error = errno;
            if (error == EBUSY) return inUseError(name);
            return v4l2Error(error,
                             "Camera " + name + " cannot start streaming: " + errnoText(error));
        }
        stream->streaming = true;
        logLine("📷 Camera " + name + " streaming " + std::to_string(width) + "x" +
                std::to_string(height) + " " + fourccText(pix.pixelformat));
        return stream;
    }

    static void endCapture(const Stream& s, const std::string& reason) {
        logLine("📷 Camera " + s.name + " stopped delivering frames (" + reason +
                ") - the recording goes on without new camera frames");
    }

    // Converts a dequeued frame into a pool slot; null when the frame is dropped.
    static SampleBufferRef takeFrame(Stream& s, const v4l2_buffer& buffer, MediaTime stamp) {
        if (buffer.index >= s.buffers.size() || (buffer.flags & V4L2_BUF_FLAG_ERROR) != 0 ||
            buffer.bytesused == 0) {
            ++s.totals.unreadable;
            return nullptr;
        }
        auto lease = s.pool->acquire();
        if (!lease) {
            ++s.totals.droppedNoBuffer;
            return nullptr;
        }
        const V4l2Mapping& mapping = s.buffers[buffer.index];
        const size_t size = std::min<size_t>(buffer.bytesused, mapping.length());
        if (!s.converter->convert(mapping.data(), size, lease->data(), lease->width(),
                                  lease->height(), lease->bytesPerRow())) {
            ++s.totals.unreadable;
            return nullptr;
        }
        ++s.totals.delivered;
        return SampleBuffer::video(std::move(*lease).publish(),
                                   SampleTiming{s.frameDuration, stamp, MediaTime::invalid()});
    }

    static void run(const std::stop_token& stop, Stream& s, const Deliver& deliver) {
        try {
            pollfd fds[2] = {{s.fd.get(), POLLIN, 0}, {s.stopEvent.fd(), POLLIN, 0}};
            while (!stop.stop_requested()) {
                fds[0].revents = 0;
                fds[1].revents = 0;
                // No timeout: the stop event wakes us, and a stalled camera just waits.
                if (s.calls.poll(fds, 2, -1) < 0) {
                    if (errno == EINTR) continue;
                    endCapture(s, errnoText(errno));
                    return;
                }
                if (fds[1].revents != 0) return;
                if (fds[0].revents == 0) continue;

                v4l2_buffer buffer{};
                buffer.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
                buffer.memory = V4L2_MEMORY_MMAP;
                if (s.calls.ioctl(s.fd.get(), VIDIOC_DQBUF, &buffer) < 0) {
                    const int error = errno;
                    if (error == EAGAIN && (fds[0].revents & (POLLERR | POLLHUP | POLLNVAL)) == 0) {
                        continue;
                    }
                    endCapture(s, error == EAGAIN ? "device error" : errnoText(error));
                    return;
                }
                // Stamped now: driver timestamps use differing clocks and are not always sane.
                const MediaTime stamp = monotonicNow();
                SampleBufferRef sample = takeFrame(s, buffer, stamp);
                const bool requeued = s.calls.ioctl(s.fd.get(), VIDIOC_QBUF, &buffer) == 0;
                const int requeueError = errno;
                if (sample) deliver(sample);
                if (!requeued) {
                    endCapture(s, errnoText(requeueError));
                    return;
                }
            }
        } catch (const std::exception& e) {
            logLine("❌ Camera " + s.name + " capture ended: " + e.what());
        }
    }

    const std::shared_ptr<V4l2CameraDevice::State> device_;
    std::mutex controlMutex_;         // serialises start and stop
    std::unique_ptr<Stream> stream_;  // guarded by controlMutex_; used by thread_ while it runs
    std::jthread thread_;             // guarded by controlMutex_
};

}  // namespace

// ---- the device -------------------------------------------------------------------------------

V4l2CameraDevice::V4l2CameraDevice(V4l2Calls& calls, std::string path,
                                   std::optional<std::string> linkName,
                                   V4l2Description description) {
    // The by-id name survives reboots and re-plugging; bus position and model come next.
    std::string uniqueID = linkName ? *linkName
                           : description.busInfo.empty()
                               ? path
                               : description.busInfo + "/" + description.card;
    state_ =
        std::make_shared<State>(calls, std::move(path), std::move(linkName), std::move(uniqueID));
    state_->name = description.card;
    state_->attachment = v4l2Attachment(calls, state_->discoveredPath, description);
    state_->remember(description);
}

V4l2CameraDevice::~V4l2CameraDevice() = default;

CameraDeviceInfo V4l2CameraDevice::info() const {
    CameraDeviceInfo info;
    info.uniqueID = state_->uniqueID;
    info.position = 0;
    info.attachment = state_->attachment;

    const auto path = state_->currentPath();
    int openError = ENODEV;
    std::optional<V4l2Description> description;
    if (path) {
        const int fd = state_->calls.open(*path, kOpenFlags);
        if (fd >= 0) {
            V4l2Fd owner(state_->calls, fd);
            description = describeV4l2Node(state_->calls, fd, state_->ownCaptures.load() == 0);
        } else {
            openError = errno;
        }
    }
    if (description) {
        state_->remember(*description);
        info.connected = true;
        info.suspended = description->busy;
    } else {
        // Busy at open: present but held by someone else. Anything else: not usable now.
        info.connected = openError == EBUSY;
        info.suspended = openError == EBUSY;
    }

    std::lock_guard lock(state_->mutex);
    info.localizedName = state_->name;
    for (const auto& format : state_->formats) {
        info.formats.push_back(CameraFormat{format.width, format.height});
    }
    info.activeFormatIndex = state_->reportedFormatIndex;
    if (state_->chosen) {
        for (size_t i = 0; i < state_->formats.size(); ++i) {
            if (state_->formats[i] == *state_->chosen) info.activeFormatIndex = static_cast<int>(i);
        }
    }
    return info;
}

Result<void> V4l2CameraDevice::lockForConfiguration() {
    const std::string name = state_->currentName();
    if (state_->ownCaptures.load() == 0) {
        const auto path = state_->currentPath();
        if (!path) return v4l2Error(ENODEV, "Camera " + name + " is not connected");
        const int fd = state_->calls.open(*path, kOpenFlags);
        if (fd < 0) {
            const int error = errno;
            if (error == EBUSY) return inUseError(name);
            return v4l2Error(error, "Camera " + name + " is not available: " + errnoText(error));
        }
        V4l2Fd owner(state_->calls, fd);
        const auto description = describeV4l2Node(state_->calls, fd, true);
        if (!description) {
            return v4l2Error(ENODEV, "Camera " + name + " is not available: not a camera");
        }
        if (description->busy) return inUseError(name);
        state_->remember(*description);
    }
    std::lock_guard lock(state_->mutex);
    state_->locked = true;
    return {};
}

void V4l2CameraDevice::setActiveFormat(int formatIndex) {
    std::unique_lock lock(state_->mutex);
    if (!state_->locked || formatIndex < 0 ||
        formatIndex >= static_cast<int>(state_->formats.size())) {
        const std::string name = state_->name;
        const bool locked = state_->locked;
        lock.unlock();
        logLine("⚠️ Camera " + name + " format " + std::to_string(formatIndex) + " not set: " +
                (locked ? "no such format" : "the device is not locked for configuration"));
        return;
    }
    state_->chosen = state_->formats[static_cast<size_t>(formatIndex)];
}

void V4l2CameraDevice::unlockForConfiguration() {
    std::lock_guard lock(state_->mutex);
    state_->locked = false;
}

Result<std::shared_ptr<CaptureInput>> V4l2CameraDevice::makeInput() {
    if (!state_->currentPath()) {
        return v4l2Error(ENODEV, "Camera " + state_->currentName() + " is not connected");
    }
    auto source = std::make_unique<V4l2CaptureSource>(state_);
    if (auto prepared = source->prepare(); !prepared) return prepared.error();
    return std::shared_ptr<CaptureInput>(std::make_shared<CameraInput>(std::move(source)));
}

V4l2Format V4l2CameraDevice::chosenFormat() const {
    return state_->formatToCapture();
}

// ---- discovery --------------------------------------------------------------------------------

std::vector<CaptureDeviceRef> discoverV4l2Cameras(V4l2Calls& calls) {
    std::vector<CaptureDeviceRef> cameras;
    const std::vector<V4l2DeviceLink> links = calls.deviceLinks();
    for (const std::string& path : calls.videoNodePaths()) {
        std::optional<std::string> linkName;
        for (const auto& link : links) {
            if (link.targetPath == path) {
                linkName = link.name;
                break;
            }
        }
        const int fd = calls.open(path, kOpenFlags);
        if (fd < 0) {
            const int error = errno;
            if (error == EBUSY) {
                // Held exclusively by another program: list it, suspended, under what we know.
                V4l2Description held;
                held.card = linkName.value_or(path);
                held.busy = true;
                cameras.push_back(std::make_shared<V4l2CameraDevice>(calls, path, linkName, held));
            } else {
                logLine("📷 Skipping camera node " + path + ": " + errnoText(error));
            }
            continue;
        }
        V4l2Fd owner(calls, fd);
        auto description = describeV4l2Node(calls, fd, true);
        if (!description) continue;  // metadata, output or codec node
        cameras.push_back(
            std::make_shared<V4l2CameraDevice>(calls, path, linkName, std::move(*description)));
    }
    return cameras;
}

CameraAttachment v4l2Attachment(V4l2Calls& calls, const std::string& path,
                                const V4l2Description& description) {
    namespace fs = std::filesystem;
    if (description.software) return CameraAttachment::software;
    std::error_code ec;
    const fs::path devices = fs::path(calls.sysfsRoot()) / "devices";
    const fs::path node = fs::path(calls.sysfsRoot()) / "class" / "video4linux" /
                          fs::path(path).filename();
    if (!fs::exists(node, ec)) return CameraAttachment::unknown;
    const fs::path device = fs::canonical(node / "device", ec);
    if (ec) return CameraAttachment::software;  // a node without hardware behind it
    const std::string where = device.string();
    if (where.find("/virtual/") != std::string::npos) return CameraAttachment::software;
    if (where.find("/usb") == std::string::npos) return CameraAttachment::fixed;
    // The USB device (above the interface the node belongs to) says whether its port is fixed.
    for (fs::path dir = device; dir.has_relative_path() && dir != devices;
         dir = dir.parent_path()) {
        std::ifstream attribute(dir / "removable");
        std::string value;
        if (attribute >> value && value != "unknown") {
            return value == "fixed" ? CameraAttachment::fixed : CameraAttachment::removable;
        }
    }
    return CameraAttachment::removable;
}

std::vector<CaptureDeviceRef> discoverCameras(bool includeTestCamera) {
    std::vector<CaptureDeviceRef> cameras = discoverV4l2Cameras(systemV4l2Calls());
    if (includeTestCamera) cameras.push_back(makeTestCamera());
    return cameras;
}

}  // namespace gb::linuxp
