#include "linux/x11/x11_screen_input.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>
#include <X11/extensions/Xdamage.h>
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

#include "linux/capture/cursor_image.h"
#include "linux/capture/frame_pool.h"
#include "linux/capture/monotonic_clock.h"
#include "linux/x11/x11_display.h"
#include "recording/log.h"

namespace gb::linuxp {
namespace {

constexpr const char* kErrorDomain = "glimmerbox.x11capture";
constexpr int64_t kDefaultFrameNanoseconds = 1'000'000'000 / 30;
constexpr int64_t kDefaultMaxFrameNanoseconds = 1'000'000'000;
// Damage is tracked per band of rows: a band is fetched whole, and consumers convert whole bands.
constexpr int kBandRows = 16;
// One XShmGetImage per run of stale bands costs about 20 us of round trip plus the rows; a whole
// 1920x1080 grab about 500-900 us (measured on Xvfb). So the whole frame is grabbed at once when
// the runs are more than a third of the bands, or nearly every band is stale anyway.
constexpr int kFullGrabRunsPerBand = 3;
constexpr int kFullGrabPercent = 90;
// More damage rectangles than this between two frames are merged into the last one.
constexpr size_t kMaxAreas = 32;

// The part of `area` inside a frame of the given size, or nothing.
std::optional<PixelArea> clipped(const PixelArea& area, int width, int height) {
    const int left = std::max(0, area.x);
    const int top = std::max(0, area.y);
    const int right = std::min(width, area.x + area.width);
    const int bottom = std::min(height, area.y + area.height);
    if (right <= left || bottom <= top) return std::nullopt;
    return PixelArea{left, top, right - left, bottom - top};
}

PixelArea united(const PixelArea& a, const PixelArea& b) {
    const int left = std::min(a.x, b.x);
    const int top = std::min(a.y, b.y);
    const int right = std::max(a.x + a.width, b.x + b.width);
    const int bottom = std::max(a.y + a.height, b.y + b.height);
    return PixelArea{left, top, right - left, bottom - top};
}

PlatformError captureError(int code, std::string description) {
    return PlatformError{kErrorDomain, code, std::move(description)};
}

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

    // Takes the event if it is the cursor's: a changed cursor makes the next frame fetch the
    // image again.
    bool takeEvent(const XEvent& event) {
        if (!available_ || event.type != eventBase_ + XFixesCursorNotify) return false;
        stale_ = true;
        return true;
    }

    // Finds the cursor for a frame that shows `area` of the root window: its rectangle in the
    // frame's coordinates (unclipped), or nothing when there is none to draw. `imageChanged` tells
    // whether a new image was fetched.
    std::optional<PixelArea> locate(Display* display, const PixelRect& area, bool& imageChanged) {
        imageChanged = false;
        located_.reset();
        if (!available_) return std::nullopt;
        int x = 0;
        int y = 0;
        if (stale_) {
            if (!fetchImage(display, x, y)) return std::nullopt;
            imageChanged = true;
        } else if (!queryPointer(display, x, y)) {
            return std::nullopt;
        }
        located_ = PixelArea{x - image_.hotX - area.x, y - image_.hotY - area.y, image_.width,
                             image_.height};
        return located_;
    }

    // Draws the cursor where locate() last found it.
    void draw(uint8_t* frame, size_t bytesPerRow, int frameWidth, int frameHeight) const {
        if (located_) {
            image_.drawInto(frame, bytesPerRow, frameWidth, frameHeight, located_->x, located_->y);
        }
    }

private:
    bool fetchImage(Display* display, int& x, int& y) {
        std::unique_ptr<XFixesCursorImage, decltype(&freeImage)> image(
            XFixesGetCursorImage(display), &freeImage);
        if (!image) return false;
        image_.width = image->width;
        image_.height = image->height;
        image_.hotX = image->xhot;
        image_.hotY = image->yhot;
        image_.pixels.resize(static_cast<size_t>(image_.width) * image_.height);
        // Xlib hands out 32-bit pixels in longs; ARGB in a little-endian word is BGRA in memory.
        for (size_t i = 0; i < image_.pixels.size(); ++i) {
            image_.pixels[i] = static_cast<uint32_t>(image->pixels[i]);
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

    bool available_ = false;
    int eventBase_ = 0;
    bool stale_ = true;
    std::optional<PixelArea> located_;
    CursorImage image_;
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
        if (options.followsDamage) grabber->watchDamage();
        const auto bands = static_cast<size_t>((rect->height + kBandRows - 1) / kBandRows);
        grabber->slotStates_.resize(static_cast<size_t>(grabber->pool_->size()));
        for (auto& state : grabber->slotStates_) state.stale.assign(bands, true);
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
        if (!connectionLost_.load() || !display_) {
            if (damage_ != 0 && display_) XDamageDestroy(display_.get(), damage_);
            return;
        }
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

    // Reads the queued events. Damage marks its rows stale in every buffer and is kept for the
    // next frame's list of changes; a cursor change makes the cursor fetch its image again.
    void takeEvents() {
        Display* display = display_.get();
        // A round trip first: the damage of everything the server drew before now is then queued,
        // so a change made just before this frame time is not left for the next one.
        if (damage_ != 0) XSync(display, False);
        while (XPending(display) > 0) {
            XEvent event;
            XNextEvent(display, &event);
            if (cursor_->takeEvent(event)) continue;
            if (damage_ != 0 && event.type == damageEventBase_ + XDamageNotify) {
                const auto& notify = reinterpret_cast<const XDamageNotifyEvent&>(event);
                addDamage(PixelArea{notify.area.x - rect_.x, notify.area.y - rect_.y,
                                    notify.area.width, notify.area.height});
            }
        }
        // Without damage reports every frame is new, in every buffer.
        if (damage_ == 0) {
            wholeFrame_ = true;
            for (auto& state : slotStates_) std::fill(state.stale.begin(), state.stale.end(), true);
        }
    }

    // Everything is stale at the start of a run: the screen changed unseen since the last one.
    void beginRun() {
        for (auto& state : slotStates_) std::fill(state.stale.begin(), state.stale.end(), true);
        pendingAreas_.clear();
        deliveredCursor_.reset();
        wholeFrame_ = true;
    }

    // Finds the cursor for this frame time; true when the screen or the cursor changed since the
    // last delivered frame.
    [[nodiscard]] bool changedSinceDelivery() {
        bool imageChanged = false;
        cursorArea_ = cursor_->locate(display_.get(), rect_, imageChanged);
        return wholeFrame_ || !pendingAreas_.empty() || imageChanged ||
               cursorArea_ != deliveredCursor_;
    }

    // Fetches the slot's stale rows (all of them above a share of the frame), draws the cursor
    // and stamps the frame. On failure the X error code, or -1.
    [[nodiscard]] int grab(int slot, int64_t& stampNanoseconds) {
        SlotState& state = slotStates_[static_cast<size_t>(slot)];
        // The cursor drawn into this buffer last time hides screen pixels.
        if (state.cursor) markStale(state, *state.cursor);
        const auto bands = static_cast<int>(state.stale.size());
        int staleBands = 0;
        int runs = 0;
        for (int band = 0; band < bands; ++band) {
            if (!state.stale[static_cast<size_t>(band)]) continue;
            ++staleBands;
            if (band == 0 || !state.stale[static_cast<size_t>(band - 1)]) ++runs;
        }
        uint8_t* data = pool_->slot(slot).data;
        stampNanoseconds = monotonicNanoseconds();
        int error = 0;
        if (runs * kFullGrabRunsPerBand > bands || staleBands * 100 >= bands * kFullGrabPercent) {
            error = fetchRows(slot, 0, rect_.height);
        } else {
            for (int band = 0; band < bands && error == 0;) {
                if (!state.stale[static_cast<size_t>(band)]) {
                    ++band;
                    continue;
                }
                int end = band;
                while (end < bands && state.stale[static_cast<size_t>(end)]) ++end;
                const int top = band * kBandRows;
                error = fetchRows(slot, top, std::min(rect_.height, end * kBandRows) - top);
                band = end;
            }
        }
        if (error != 0) {
            std::fill(state.stale.begin(), state.stale.end(), true);
            state.cursor.reset();
            return error;
        }
        std::fill(state.stale.begin(), state.stale.end(), false);
        cursor_->draw(data, bytesPerRow_, rect_.width, rect_.height);
        state.cursor =
            cursorArea_ ? clipped(*cursorArea_, rect_.width, rect_.height) : std::nullopt;
        return 0;
    }

    // What changed since the picture `previous` (0: none), for the frame just grabbed; starts
    // collecting anew.
    [[nodiscard]] PictureChanges takeChanges(uint64_t previous) {
        PictureChanges changes;
        changes.picture = PictureChanges::nextPictureNumber();
        if (!wholeFrame_ && previous != 0) {
            changes.since = previous;
            changes.areas = std::move(pendingAreas_);
            for (const auto& cursor : {deliveredCursor_, cursorArea_}) {
                if (!cursor) continue;
                if (auto area = clipped(*cursor, rect_.width, rect_.height))
                    changes.areas.push_back(*area);
            }
        }
        pendingAreas_.clear();
        wholeFrame_ = false;
        deliveredCursor_ = cursorArea_;
        return changes;
    }

    [[nodiscard]] PixelBufferRef wrap(int slot) {
        return pool_->wrap(slot, rect_.width, rect_.height, bytesPerRow_);
    }

private:
    Grabber() = default;

    struct SlotState {
        std::vector<bool> stale;          // per band of rows: differs from the screen
        std::optional<PixelArea> cursor;  // where the cursor was drawn into it
    };

    // One grab before the recording starts proves the screen can be read and touches the buffer
    // the first frame goes into. The other buffers are touched when first used: a still screen
    // never needs most of them.
    int warmUp() {
        int64_t stamp = 0;
        return grab(0, stamp);
    }

    // Asks the server for damage reports on the root window, one event per drawn rectangle. Without
    // the extension every frame is grabbed whole.
    void watchDamage() {
        Display* display = display_.get();
        int errorBase = 0;
        if (!XDamageQueryExtension(display, &damageEventBase_, &errorBase)) {
            logLine("⚠️ The X display has no DAMAGE extension: every frame is grabbed whole");
            return;
        }
        damage_ = XDamageCreate(display, root_, XDamageReportRawRectangles);
    }

    void addDamage(const PixelArea& reported) {
        const auto area = clipped(reported, rect_.width, rect_.height);
        if (!area) return;
        for (auto& state : slotStates_) markStale(state, *area);
        if (pendingAreas_.size() < kMaxAreas) {
            pendingAreas_.push_back(*area);
        } else {
            pendingAreas_.back() = united(pendingAreas_.back(), *area);
        }
    }

    static void markStale(SlotState& state, const PixelArea& area) {
        const auto first = static_cast<size_t>(area.y / kBandRows);
        const auto last = std::min(state.stale.size(),
                                   static_cast<size_t>((area.y + area.height - 1) / kBandRows) + 1);
        for (size_t band = first; band < last; ++band) state.stale[band] = true;
    }

    // Rows [top, top + rows) of the rectangle into the same rows of the slot, made opaque.
    int fetchRows(int slot, int top, int rows) {
        uint8_t* data = pool_->slot(slot).data;
        XErrorTrap trap;
        if (usingXShm()) {
            // The request carries the image's offset into the segment and its size: point the
            // header at the band for this one request.
            XImage* image = attachments_[static_cast<size_t>(slot)]->image();
            char* const whole = image->data;
            const int height = image->height;
            image->data = whole + static_cast<size_t>(top) * bytesPerRow_;
            image->height = rows;
            const bool ok =
                XShmGetImage(display_.get(), root_, image, rect_.x, rect_.y + top, AllPlanes) != 0;
            image->data = whole;
            image->height = height;
            if (!ok) return trap.errorCode() != 0 ? trap.errorCode() : -1;
        } else if (int error = copyWithXGetImage(data, top, rows); error != 0) {
            return error;
        }
        makeOpaque(data + static_cast<size_t>(top) * bytesPerRow_, bytesPerRow_, rect_.width, rows);
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
    int copyWithXGetImage(uint8_t* data, int top, int rows) {
        XErrorTrap trap;
        std::unique_ptr<XImage, XImageFree> image(XGetImage(
            display_.get(), root_, rect_.x, rect_.y + top, static_cast<unsigned>(rect_.width),
            static_cast<unsigned>(rows), AllPlanes, ZPixmap));
        if (!image) return trap.errorCode() != 0 ? trap.errorCode() : -1;
        if (image->bits_per_pixel != 32 || image->width != rect_.width || image->height != rows) {
            return -1;
        }
        const auto sourceBytesPerRow = static_cast<size_t>(image->bytes_per_line);
        for (int y = 0; y < rows; ++y) {
            std::memcpy(data + static_cast<size_t>(top + y) * bytesPerRow_,
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
    Damage damage_ = 0;  // none without the extension
    int damageEventBase_ = 0;
    std::vector<SlotState> slotStates_;
    std::vector<PixelArea> pendingAreas_;       // damage since the last delivered frame
    bool wholeFrame_ = true;                    // the next frame is new as a whole
    std::optional<PixelArea> cursorArea_;       // the cursor at this frame time
    std::optional<PixelArea> deliveredCursor_;  // the cursor in the last delivered frame
};

X11ScreenSource::X11ScreenSource(uint32_t displayID, X11CaptureOptions options)
    : displayID_(displayID),
      options_(std::move(options)),
      minFrameNanoseconds_(kDefaultFrameNanoseconds),
      maxFrameNanoseconds_(kDefaultMaxFrameNanoseconds) {}

X11ScreenSource::~X11ScreenSource() {
    stop();
}

void X11ScreenSource::setMinFrameDuration(MediaTime duration) {
    const int64_t ns = duration.nanoseconds();
    minFrameNanoseconds_.store(ns > 0 ? ns : kDefaultFrameNanoseconds);
}

void X11ScreenSource::setMaxFrameDuration(MediaTime duration) {
    const int64_t ns = duration.nanoseconds();
    maxFrameNanoseconds_.store(ns > 0 ? ns : kDefaultMaxFrameNanoseconds);
}

X11CaptureStats X11ScreenSource::stats() const {
    return {framesDelivered_.load(), framesDroppedNoBuffer_.load(), frameTimesSkipped_.load(),
            framesUnchanged_.load(), grabFailures_.load(),          bufferAllocations_.load(),
            usingXShm_.load()};
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
    const char* noDamage = std::getenv("GLIMMERBOX_X11_NO_DAMAGE");
    if (noDamage != nullptr && std::strcmp(noDamage, "1") == 0) options.followsDamage = false;
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
    framesUnchanged_ = 0;
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
    grabber.beginRun();
    // The newest delivered picture, delivered again while the screen stays still.
    PixelBufferRef last;
    int64_t lastDeliveryNs = 0;

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
        const bool changed = grabber.changedSinceDelivery();
        if (grabber.connectionLost()) {
            grabFailures_.fetch_add(1);
            return "the X display went away";
        }

        if (last && !changed) {
            // Nothing to grab; the same picture goes out again only when the time since the last
            // frame would otherwise grow past the longest allowed (half a period early, as the
            // frame times fall on the period's grid).
            framesUnchanged_.fetch_add(1);
            const int64_t nowNs = monotonicNanoseconds();
            if (nowNs - lastDeliveryNs >= maxFrameNanoseconds_.load() - periodNs / 2) {
                SampleTiming timing{MediaTime::fromNanoseconds(periodNs),
                                    MediaTime::fromNanoseconds(nowNs), MediaTime::invalid()};
                deliver(SampleBuffer::video(last, timing));
                lastDeliveryNs = nowNs;
                framesDelivered_.fetch_add(1);
            }
        } else if (std::optional<int> slot = grabber.acquire()) {
            int64_t stampNs = 0;
            const int error = grabber.grab(*slot, stampNs);
            if (error == 0) {
                SampleTiming timing{MediaTime::fromNanoseconds(periodNs),
                                    MediaTime::fromNanoseconds(stampNs), MediaTime::invalid()};
                // The buffer frees the slot when its last reference goes.
                PixelBufferRef picture = grabber.wrap(*slot);
                picture->setChanges(grabber.takeChanges(last ? last->changes().picture : 0));
                last = picture;
                deliver(SampleBuffer::video(std::move(picture), timing));
                lastDeliveryNs = stampNs;
                framesDelivered_.fetch_add(1);
            } else {
                grabber.release(*slot);
                grabFailures_.fetch_add(1);
                if (grabber.connectionLost()) return "the X display went away";
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
    if (const uint64_t n = framesUnchanged_.load(); n > 0) {
        logLine("Screen capture skipped " + std::to_string(n) +
                " unchanged frames: nothing on the screen had changed");
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
