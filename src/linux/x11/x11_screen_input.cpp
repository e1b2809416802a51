#include "linux/x11/x11_screen_input.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <X11/extensions/Xfixes.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "linux/capture/monotonic_clock.h"
#include "linux/x11/x11_display.h"
#include "recording/log.h"

namespace gb::linuxp {
namespace {

constexpr const char* kErrorDomain = "glimmerbox.x11capture";
constexpr int64_t kDefaultFrameNanoseconds = 1'000'000'000 / 30;

PlatformError captureError(int code, std::string description) {
    return PlatformError{kErrorDomain, code, std::move(description)};
}

// A System V shared-memory segment mapped into this process. Removal is requested as soon as the
// X server has attached it too, so the kernel frees it even if this process dies.
class SharedMemorySegment {
public:
    static std::unique_ptr<SharedMemorySegment> create(size_t bytes) {
        const int id = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
        if (id < 0) return nullptr;
        void* address = shmat(id, nullptr, 0);
        if (address == reinterpret_cast<void*>(-1)) {
            shmctl(id, IPC_RMID, nullptr);
            return nullptr;
        }
        return std::unique_ptr<SharedMemorySegment>(
            new SharedMemorySegment(id, static_cast<uint8_t*>(address)));
    }
    ~SharedMemorySegment() {
        markForRemoval();
        shmdt(address_);
    }
    SharedMemorySegment(const SharedMemorySegment&) = delete;
    SharedMemorySegment& operator=(const SharedMemorySegment&) = delete;
    SharedMemorySegment(SharedMemorySegment&&) = delete;
    SharedMemorySegment& operator=(SharedMemorySegment&&) = delete;

    void markForRemoval() {
        if (!removed_) shmctl(id_, IPC_RMID, nullptr);
        removed_ = true;
    }
    [[nodiscard]] int id() const { return id_; }
    [[nodiscard]] uint8_t* address() const { return address_; }

private:
    SharedMemorySegment(int id, uint8_t* address) : id_(id), address_(address) {}
    int id_;
    uint8_t* address_;
    bool removed_ = false;
};

// The fixed set of frame buffers. A slot is busy from acquire() until the last reference to the
// pixel buffer made of it goes; the memory lives as long as any such buffer, even after the
// capture stopped.
class FramePool : public std::enable_shared_from_this<FramePool> {
public:
    struct Slot {
        std::unique_ptr<SharedMemorySegment> shared;
        std::unique_ptr<uint8_t[]> heap;
        uint8_t* data = nullptr;
        std::atomic<bool> busy{false};
    };

    // `count` slots of `bytes` each, in shared memory or on the heap; null when that fails.
    static std::shared_ptr<FramePool> create(int count, size_t bytes, bool sharedMemory) {
        auto pool = std::shared_ptr<FramePool>(new FramePool(count));
        for (int i = 0; i < count; ++i) {
            Slot& slot = pool->slots_[static_cast<size_t>(i)];
            if (sharedMemory) {
                slot.shared = SharedMemorySegment::create(bytes);
                if (!slot.shared) return nullptr;
                slot.data = slot.shared->address();
            } else {
                slot.heap = std::make_unique_for_overwrite<uint8_t[]>(bytes);
                slot.data = slot.heap.get();
            }
        }
        return pool;
    }

    [[nodiscard]] int size() const { return count_; }
    [[nodiscard]] Slot& slot(int index) { return slots_[static_cast<size_t>(index)]; }

    // A free slot, now busy; nothing when every slot is held. Never waits.
    [[nodiscard]] std::optional<int> acquire() {
        for (int i = 0; i < count_; ++i) {
            bool expected = false;
            if (slot(i).busy.compare_exchange_strong(expected, true, std::memory_order_acquire)) {
                return i;
            }
        }
        return std::nullopt;
    }
    void release(int index) { slot(index).busy.store(false, std::memory_order_release); }

    // The slot's memory as a pixel buffer; the slot is freed when the buffer's last reference goes.
    [[nodiscard]] PixelBufferRef wrap(int index, int width, int height, size_t bytesPerRow) {
        // An aliasing pointer: it points at the slot and keeps the whole pool alive.
        std::shared_ptr<Slot> held(shared_from_this(), &slot(index));
        return PixelBuffer::wrap(width, height, bytesPerRow, held->data,
                                 [held] { held->busy.store(false, std::memory_order_release); });
    }

private:
    explicit FramePool(int count) : count_(count), slots_(new Slot[static_cast<size_t>(count)]) {}
    const int count_;
    std::unique_ptr<Slot[]> slots_;
};

// An XImage header over memory that someone else owns.
struct ForeignImageFree {
    void operator()(XImage* image) const {
        image->data = nullptr;    // not Xlib's to free
        image->obdata = nullptr;  // points at our XShmSegmentInfo
        XDestroyImage(image);
    }
};
using ForeignImage = std::unique_ptr<XImage, ForeignImageFree>;

struct XImageFree {
    void operator()(XImage* image) const { XDestroyImage(image); }
};

// A pool slot known to the X server: its segment attached and an image header over it.
class ShmAttachment {
public:
    ShmAttachment(Display* display, Visual* visual, int depth, FramePool::Slot& slot, int width,
                  int height)
        : display_(display) {
        info_.shmid = slot.shared->id();
        info_.shmaddr = reinterpret_cast<char*>(slot.data);
        info_.readOnly = False;
        image_.reset(XShmCreateImage(display, visual, static_cast<unsigned>(depth), ZPixmap,
                                     info_.shmaddr, &info_, static_cast<unsigned>(width),
                                     static_cast<unsigned>(height)));
        if (image_) attached_ = XShmAttach(display, &info_) != 0;
    }
    ~ShmAttachment() {
        if (attached_) XShmDetach(display_, &info_);
    }
    // For a dead connection, which must not be used again: forget the server's side.
    void abandon() { attached_ = false; }
    ShmAttachment(const ShmAttachment&) = delete;
    ShmAttachment& operator=(const ShmAttachment&) = delete;
    ShmAttachment(ShmAttachment&&) = delete;
    ShmAttachment& operator=(ShmAttachment&&) = delete;

    [[nodiscard]] bool attached() const { return attached_; }
    [[nodiscard]] XImage* image() const { return image_.get(); }

private:
    Display* display_;
    XShmSegmentInfo info_{};
    ForeignImage image_;
    bool attached_ = false;
};

// Why the display's pixels cannot be captured as BGRA, or nothing when they can.
std::optional<std::string> unsupportedPixelsReason(Display* display) {
    const int screen = DefaultScreen(display);
    const Visual* visual = DefaultVisual(display, screen);
    const int depth = DefaultDepth(display, screen);
    if (visual->c_class != TrueColor) return "its visual is not TrueColor";
    if (depth != 24 && depth != 32) return "it has depth " + std::to_string(depth);
    if (visual->red_mask != 0xff0000 || visual->green_mask != 0x00ff00 ||
        visual->blue_mask != 0x0000ff) {
        return "its colour channels are not in RGB order";
    }
    int count = 0;
    int bitsPerPixel = 0;
    if (XPixmapFormatValues* formats = XListPixmapFormats(display, &count)) {
        for (int i = 0; i < count; ++i) {
            if (formats[i].depth == depth) bitsPerPixel = formats[i].bits_per_pixel;
        }
        XFree(formats);
    }
    if (bitsPerPixel != 32) return "it stores " + std::to_string(bitsPerPixel) + " bits a pixel";
    if (ImageByteOrder(display) != LSBFirst || std::endian::native != std::endian::little) {
        return "its byte order is not BGRA";
    }
    return std::nullopt;
}

// Screen pixels carry no meaningful alpha (depth 24 leaves the byte undefined): make them opaque.
void makeOpaque(uint8_t* data, size_t bytesPerRow, int width, int height) {
    for (int y = 0; y < height; ++y) {
        auto* row = reinterpret_cast<uint32_t*>(data + static_cast<size_t>(y) * bytesPerRow);
        for (int x = 0; x < width; ++x) row[x] |= 0xff000000u;
    }
}

// The mouse cursor, read through XFixes: the image is fetched again only when the server reports
// that the cursor changed; the position is asked at every frame.
class CursorOverlay {
public:
    CursorOverlay(Display* display, bool wanted) {
        if (!wanted) return;
        int errorBase = 0;
        int major = 0;
        int minor = 0;
        if (!XFixesQueryExtension(display, &eventBase_, &errorBase) ||
            !XFixesQueryVersion(display, &major, &minor)) {
            logLine("⚠️ The X display has no XFixes extension: the cursor is not captured");
            return;
        }
        XFixesSelectCursorInput(display, DefaultRootWindow(display), XFixesDisplayCursorNotifyMask);
        available_ = true;
    }

    // Reads queued events; a cursor change makes the next frame fetch the image again.
    void takeEvents(Display* display) {
        while (XPending(display) > 0) {
            XEvent event;
            XNextEvent(display, &event);
            if (available_ && event.type == eventBase_ + XFixesCursorNotify) stale_ = true;
        }
    }

    // Draws the cursor into a frame that shows `area` of the root window.
    void draw(Display* display, const PixelRect& area, uint8_t* frame, size_t bytesPerRow) {
        if (!available_) return;
        int x = 0;
        int y = 0;
        if (stale_) {
            if (!fetchImage(display, x, y)) return;
        } else if (!queryPointer(display, x, y)) {
            return;
        }
        blend(frame, bytesPerRow, area.width, area.height, x - xhot_ - area.x, y - yhot_ - area.y);
    }

private:
    bool fetchImage(Display* display, int& x, int& y) {
        std::unique_ptr<XFixesCursorImage, decltype(&freeImage)> image(
            XFixesGetCursorImage(display), &freeImage);
        if (!image) return false;
        width_ = image->width;
        height_ = image->height;
        xhot_ = image->xhot;
        yhot_ = image->yhot;
        pixels_.resize(static_cast<size_t>(width_) * height_);
        // Xlib hands out 32-bit pixels in longs; ARGB in a little-endian word is BGRA in memory.
        for (size_t i = 0; i < pixels_.size(); ++i) {
            pixels_[i] = static_cast<uint32_t>(image->pixels[i]);
        }
        x = image->x;
        y = image->y;
        stale_ = false;
        return true;
    }

    static bool queryPointer(Display* display, int& x, int& y) {
        Window root = 0;
        Window child = 0;
        int windowX = 0;
        int windowY = 0;
        unsigned mask = 0;
        return XQueryPointer(display, DefaultRootWindow(display), &root, &child, &x, &y, &windowX,
                             &windowY, &mask) != 0;
    }

    static int freeImage(XFixesCursorImage* image) { return XFree(image); }

    // Premultiplied source-over; the frame stays opaque.
    void blend(uint8_t* frame, size_t bytesPerRow, int frameWidth, int frameHeight, int left,
               int top) const {
        const int firstRow = std::max(0, -top);
        const int lastRow = std::min(height_, frameHeight - top);
        const int firstCol = std::max(0, -left);
        const int lastCol = std::min(width_, frameWidth - left);
        for (int row = firstRow; row < lastRow; ++row) {
            auto* dst =
                reinterpret_cast<uint32_t*>(frame + static_cast<size_t>(top + row) * bytesPerRow) +
                left;
            const uint32_t* src = pixels_.data() + static_cast<size_t>(row) * width_;
            for (int col = firstCol; col < lastCol; ++col) {
                const uint32_t s = src[col];
                const uint32_t alpha = s >> 24;
                if (alpha == 0) continue;
                if (alpha == 255) {
                    dst[col] = s;
                    continue;
                }
                const uint32_t d = dst[col];
                const uint32_t keep = 255 - alpha;
                uint32_t out = 0xff000000u;
                for (int shift = 0; shift <= 16; shift += 8) {
                    const uint32_t channel =
                        ((s >> shift) & 0xff) + (((d >> shift) & 0xff) * keep + 127) / 255;
                    out |= std::min<uint32_t>(channel, 255) << shift;
                }
                dst[col] = out;
            }
        }
    }

    bool available_ = false;
    int eventBase_ = 0;
    bool stale_ = true;
    int width_ = 0;
    int height_ = 0;
    int xhot_ = 0;
    int yhot_ = 0;
    std::vector<uint32_t> pixels_;
};

}  // namespace

bool isWaylandSession(const char* waylandDisplay, const char* sessionType) {
    return waylandDisplay != nullptr && *waylandDisplay != '\0' && sessionType != nullptr &&
           std::strcmp(sessionType, "wayland") == 0;
}

bool isWaylandSessionFromEnvironment() {
    return isWaylandSession(std::getenv("WAYLAND_DISPLAY"), std::getenv("XDG_SESSION_TYPE"));
}

// The X connection, the frame buffers and the cursor: everything a grab needs. Made by prepare()
// and kept between runs; used by the grabbing thread while it runs, otherwise only under the
// source's mutex. Members are destroyed in reverse order: the server's attachments go before the
// connection closes.
class X11ScreenSource::Grabber {
public:
    static Result<std::unique_ptr<Grabber>> open(const X11CaptureOptions& options,
                                                 uint32_t displayID) {
        auto grabber = std::unique_ptr<Grabber>(new Grabber());
        grabber->display_ = openXDisplay(options.displayName, &grabber->connectionLost_);
        Display* display = grabber->display_.get();
        if (display == nullptr)
            return captureError(1, "Cannot open the X display for screen capture");
        if (auto reason = unsupportedPixelsReason(display)) {
            return captureError(
                2, "Screen capture needs a 24- or 32-bit TrueColor X display, but " + *reason);
        }
        auto rect = findDisplayRectangle(display, displayID);
        if (!rect)
            return captureError(3, "No lit display with identifier " + std::to_string(displayID));
        grabber->rect_ = *rect;
        grabber->root_ = DefaultRootWindow(display);
        grabber->bytesPerRow_ = static_cast<size_t>(rect->width) * 4;

        const int poolSize = std::max(2, options.poolSize);
        const size_t bytes = grabber->bytesPerRow_ * static_cast<size_t>(rect->height);
        if (!options.forceXGetImage && XShmQueryExtension(display)) {
            grabber->attachSharedPool(poolSize, bytes);
        }
        if (!grabber->pool_) {
            grabber->pool_ = FramePool::create(poolSize, bytes, false);
            if (!grabber->pool_) return captureError(4, "Out of memory for frame buffers");
        }
        grabber->cursor_.emplace(display, options.capturesCursor);
        if (int error = grabber->warmUp(); error != 0) {
            return captureError(6,
                                "Cannot read the screen (X error " + std::to_string(error) + ")");
        }
        return grabber;
    }

    Grabber(const Grabber&) = delete;
    Grabber& operator=(const Grabber&) = delete;
    Grabber(Grabber&&) = delete;
    Grabber& operator=(Grabber&&) = delete;

    // After Xlib reported the connection lost, any further call on it may wait forever on the
    // connection's lock. Then only the socket is closed; Xlib's small record of it is left.
    ~Grabber() {
        if (!connectionLost_.load() || !display_) return;
        for (auto& attachment : attachments_) attachment->abandon();
        close(ConnectionNumber(display_.release()));
    }

    [[nodiscard]] bool usingXShm() const { return !attachments_.empty(); }
    [[nodiscard]] int poolSize() const { return pool_->size(); }
    [[nodiscard]] bool connectionLost() const { return connectionLost_.load(); }
    // One round trip, which finds out whether the server is still there.
    [[nodiscard]] bool alive() {
        if (!connectionLost()) XSync(display_.get(), False);
        return !connectionLost();
    }
    [[nodiscard]] std::optional<int> acquire() { return pool_->acquire(); }
    void release(int slot) { pool_->release(slot); }
    void takeEvents() { cursor_->takeEvents(display_.get()); }

    // Grabs the rectangle into the slot and stamps it. On failure the X error code, or -1.
    [[nodiscard]] int grab(int slot, int64_t& stampNanoseconds) {
        Display* display = display_.get();
        uint8_t* data = pool_->slot(slot).data;
        XErrorTrap trap;
        stampNanoseconds = monotonicNanoseconds();
        if (usingXShm()) {
            if (!XShmGetImage(display, root_, attachments_[static_cast<size_t>(slot)]->image(),
                              rect_.x, rect_.y, AllPlanes)) {
                return trap.errorCode() != 0 ? trap.errorCode() : -1;
            }
        } else if (int error = copyWithXGetImage(data); error != 0) {
            return error;
        }
        makeOpaque(data, bytesPerRow_, rect_.width, rect_.height);
        cursor_->draw(display, rect_, data, bytesPerRow_);
        return 0;
    }

    [[nodiscard]] PixelBufferRef wrap(int slot) {
        return pool_->wrap(slot, rect_.width, rect_.height, bytesPerRow_);
    }

private:
    Grabber() = default;

    // One grab into each buffer: the first touch of a page is slow on both sides.
    int warmUp() {
        for (int i = 0; i < pool_->size(); ++i) {
            int64_t stamp = 0;
            if (int error = grab(i, stamp); error != 0) return error;
        }
        return 0;
    }

    // One shared segment per slot, so the server writes each frame straight into the buffer that
    // is handed on. Leaves pool_ null when the server cannot attach them (a remote display).
    void attachSharedPool(int poolSize, size_t bytes) {
        Display* display = display_.get();
        auto pool = FramePool::create(poolSize, bytes, true);
        if (!pool) {
            logLine("⚠️ No shared memory for screen frames (" +
                    std::string(std::strerror(errno)) + "); using XGetImage");
            return;
        }
        const int screen = DefaultScreen(display);
        // Errors of a server that cannot attach (or detach) the segments are expected here.
        XErrorTrap trap;
        std::vector<std::unique_ptr<ShmAttachment>> attachments;
        bool ok = true;
        for (int i = 0; i < poolSize && ok; ++i) {
            attachments.push_back(std::make_unique<ShmAttachment>(
                display, DefaultVisual(display, screen), DefaultDepth(display, screen),
                pool->slot(i), rect_.width, rect_.height));
            const XImage* image = attachments.back()->image();
            ok = attachments.back()->attached() &&
                 image->bytes_per_line == static_cast<int>(bytesPerRow_);
        }
        XSync(display, False);
        ok = ok && trap.errorCode() == 0;
        for (int i = 0; i < poolSize; ++i) pool->slot(i).shared->markForRemoval();
        if (!ok) {
            logLine("⚠️ The X server cannot share memory with this program; using XGetImage");
            attachments.clear();
            XSync(display, False);
            return;
        }
        pool_ = std::move(pool);
        attachments_ = std::move(attachments);
    }

    // The slower path without XShm: Xlib receives the image into its own memory, which is copied
    // into the slot.
    int copyWithXGetImage(uint8_t* data) {
        XErrorTrap trap;
        std::unique_ptr<XImage, XImageFree> image(
            XGetImage(display_.get(), root_, rect_.x, rect_.y, static_cast<unsigned>(rect_.width),
                      static_cast<unsigned>(rect_.height), AllPlanes, ZPixmap));
        if (!image) return trap.errorCode() != 0 ? trap.errorCode() : -1;
        if (image->bits_per_pixel != 32 || image->width != rect_.width ||
            image->height != rect_.height) {
            return -1;
        }
        const auto sourceBytesPerRow = static_cast<size_t>(image->bytes_per_line);
        for (int y = 0; y < rect_.height; ++y) {
            std::memcpy(data + static_cast<size_t>(y) * bytesPerRow_,
                        image->data + static_cast<size_t>(y) * sourceBytesPerRow, bytesPerRow_);
        }
        return 0;
    }

    std::atomic<bool> connectionLost_{false};  // set by Xlib's handler; outlives display_
    XDisplayPtr display_;
    Window root_ = 0;
    PixelRect rect_;
    size_t bytesPerRow_ = 0;
    std::shared_ptr<FramePool> pool_;
    std::vector<std::unique_ptr<ShmAttachment>> attachments_;
    std::optional<CursorOverlay> cursor_;
};

X11ScreenSource::X11ScreenSource(uint32_t displayID, X11CaptureOptions options)
    : displayID_(displayID),
      options_(std::move(options)),
      minFrameNanoseconds_(kDefaultFrameNanoseconds) {}

X11ScreenSource::~X11ScreenSource() {
    stop();
}

void X11ScreenSource::setMinFrameDuration(MediaTime duration) {
    const int64_t ns = duration.nanoseconds();
    minFrameNanoseconds_.store(ns > 0 ? ns : kDefaultFrameNanoseconds);
}

X11CaptureStats X11ScreenSource::stats() const {
    return {framesDelivered_.load(), framesDroppedNoBuffer_.load(), frameTimesSkipped_.load(),
            grabFailures_.load(),    bufferAllocations_.load(),     usingXShm_.load()};
}

Result<void> X11ScreenSource::prepare() {
    std::lock_guard lock(mutex_);
    if (thread_.joinable()) return captureError(5, "Screen capture is already running");
    return prepareLocked();
}

Result<void> X11ScreenSource::prepareLocked() {
    if (grabber_ && grabber_->alive()) return {};
    grabber_.reset();
    X11CaptureOptions options = options_;
    const char* noShm = std::getenv("GLIMMERBOX_X11_NO_SHM");
    if (noShm != nullptr && std::strcmp(noShm, "1") == 0) options.forceXGetImage = true;
    auto opened = Grabber::open(options, displayID_);
    if (!opened.ok()) return opened.error();
    grabber_ = std::move(opened.value());
    bufferAllocations_.fetch_add(static_cast<uint64_t>(grabber_->poolSize()));
    return {};
}

Result<void> X11ScreenSource::start(Deliver deliver) {
    std::lock_guard lock(mutex_);
    if (thread_.joinable()) return captureError(5, "Screen capture is already running");
    if (Result<void> prepared = prepareLocked(); !prepared.ok()) return prepared;

    framesDelivered_ = 0;
    framesDroppedNoBuffer_ = 0;
    frameTimesSkipped_ = 0;
    grabFailures_ = 0;
    usingXShm_ = grabber_->usingXShm();
    thread_ = std::jthread([this, grabber = grabber_.get(), deliver = std::move(deliver),
                            interrupted = interrupted_](std::stop_token stop) {
        std::string reason;
        try {
            reason = run(stop, *grabber, deliver);
        } catch (const std::exception& e) {
            reason = std::string("Screen capture failed: ") + e.what();
        } catch (...) {
            reason = "Screen capture failed after an unknown error";
        }
        if (reason.empty()) return;
        logLine("❌ Screen capture stopped: " + reason);
        if (interrupted) interrupted(reason);
    });
    return {};
}

void X11ScreenSource::stop() {
    std::lock_guard lock(mutex_);
    if (!thread_.joinable()) return;
    thread_.request_stop();
    thread_.join();
    thread_ = std::jthread();
    logRunTotals();
}

void X11ScreenSource::setInterruptedHandler(Interrupted handler) {
    std::lock_guard lock(mutex_);
    interrupted_ = std::move(handler);
}

std::string X11ScreenSource::run(std::stop_token stop, Grabber& grabber, const Deliver& deliver) {
    using Clock = std::chrono::steady_clock;
    // Only the stop request wakes the wait early; nothing else is waited for.
    std::mutex waitMutex;
    std::condition_variable_any wake;
    auto deadline = Clock::now();
    bool failureLogged = false;

    while (!stop.stop_requested()) {
        {
            std::unique_lock waitLock(waitMutex);
            if (wake.wait_until(waitLock, stop, deadline, [] { return false; }) ||
                stop.stop_requested()) {
                break;
            }
        }
        const int64_t periodNs = minFrameNanoseconds_.load();
        grabber.takeEvents();

        if (std::optional<int> slot = grabber.acquire()) {
            int64_t stampNs = 0;
            const int error = grabber.grab(*slot, stampNs);
            if (error == 0) {
                SampleTiming timing{MediaTime::fromNanoseconds(periodNs),
                                    MediaTime::fromNanoseconds(stampNs), MediaTime::invalid()};
                // The buffer frees the slot when its last reference goes.
                deliver(SampleBuffer::video(grabber.wrap(*slot), timing));
                framesDelivered_.fetch_add(1);
            } else {
                grabber.release(*slot);
                grabFailures_.fetch_add(1);
                if (grabber.connectionLost()) return "The X display went away";
                if (!failureLogged) {
                    logLine("⚠️ Screen grab failed (X error " + std::to_string(error) + ")");
                    failureLogged = true;
                }
            }
        } else {
            framesDroppedNoBuffer_.fetch_add(1);
        }

        // Deadlines stay on the grid of the start time; a late grab skips the times it missed
        // instead of catching up with a burst.
        const auto period = std::chrono::nanoseconds(periodNs);
        deadline += period;
        const auto now = Clock::now();
        if (deadline < now) {
            const auto missed = (now - deadline) / period + 1;
            deadline += missed * period;
            frameTimesSkipped_.fetch_add(static_cast<uint64_t>(missed));
        }
    }
    return {};
}

void X11ScreenSource::logRunTotals() {
    if (const uint64_t n = framesDroppedNoBuffer_.load(); n > 0) {
        logLine("⚠️ Screen capture dropped " + std::to_string(n) +
                " frames: every frame buffer was still in use");
    }
    if (const uint64_t n = frameTimesSkipped_.load(); n > 0) {
        logLine("⚠️ Screen capture skipped " + std::to_string(n) +
                " frame times: grabbing fell behind");
    }
    if (const uint64_t n = grabFailures_.load(); n > 0) {
        logLine("⚠️ Screen capture failed to grab " + std::to_string(n) + " frames");
    }
}

X11ScreenInput::X11ScreenInput(uint32_t displayID, X11CaptureOptions options)
    : displayID_(displayID), source_(displayID, std::move(options)) {}

std::shared_ptr<X11ScreenInput> X11ScreenInput::create(uint32_t displayID,
                                                       X11CaptureOptions options) {
    auto input = std::make_shared<X11ScreenInput>(displayID, std::move(options));
    if (Result<void> prepared = input->source_.prepare(); !prepared.ok()) {
        logLine("❌ " + prepared.error().localizedDescription);
        return nullptr;
    }
    return input;
}

}  // namespace gb::linuxp
