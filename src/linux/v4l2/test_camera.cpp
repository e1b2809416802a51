#include "linux/v4l2/test_camera.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <exception>
#include <optional>
#include <thread>
#include <vector>

#include "linux/capture/monotonic_clock.h"
#include "linux/v4l2/camera_common.h"
#include "recording/log.h"

namespace gb::linuxp {
namespace {

constexpr std::array<CameraFormat, 3> kFormats = {{{1280, 720}, {640, 480}, {1920, 1080}}};
constexpr size_t kPoolSlots = 4;
constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

struct Colour {
    uint8_t r, g, b;
};

// Fully saturated colours only: none of them can be mistaken for grey screen content.
constexpr Colour kBorder{255, 128, 0};  // orange
constexpr std::array<Colour, 6> kBars = {{
    {255, 255, 0},  // yellow
    {0, 255, 255},  // cyan
    {0, 255, 0},    // green
    {255, 0, 255},  // magenta
    {255, 0, 0},    // red
    {0, 0, 255},    // blue
}};
constexpr Colour kBand{90, 0, 200};       // violet
constexpr Colour kSweeper{255, 255, 0};   // yellow
constexpr Colour kCounterOn{0, 255, 0};   // green
constexpr Colour kCounterOff{255, 0, 0};  // red
constexpr int kCounterCells = 8;
constexpr uint64_t kFramesPerCounterStep = 15;  // the counter counts half seconds
constexpr uint64_t kFramesPerSweep = 60;        // the block crosses the band in two seconds

int even(int value) {
    return value & ~1;
}

// The regions of the pattern at one frame size; every edge is even.
struct Layout {
    explicit Layout(int width, int height)
        : border(std::max(2, even(height / 30))),
          innerLeft(border),
          innerTop(border),
          innerRight(even(width - border)),
          innerBottom(even(height - border)),
          barsBottom(even(innerTop + (innerBottom - innerTop) * 2 / 3)),
          margin(std::max(2, even((innerBottom - barsBottom) / 10))),
          sweepTop(barsBottom + margin),
          sweepBottom(even(barsBottom + (innerBottom - barsBottom) / 2)) {}

    int border;
    int innerLeft, innerTop, innerRight, innerBottom;
    int barsBottom;             // the colour bars above, the band with the moving parts below
    int margin;                 // around the moving parts
    int sweepTop, sweepBottom;  // the rows the sweeping block moves in
};

void fill(uint8_t* pixels, size_t bytesPerRow, int left, int top, int right, int bottom,
          Colour colour) {
    if (right <= left || bottom <= top) return;
    const size_t rowBytes = static_cast<size_t>(right - left) * 4;
    uint8_t* first =
        pixels + static_cast<size_t>(top) * bytesPerRow + static_cast<size_t>(left) * 4;
    for (int x = 0; x < right - left; ++x) {
        first[x * 4 + 0] = colour.b;
        first[x * 4 + 1] = colour.g;
        first[x * 4 + 2] = colour.r;
        first[x * 4 + 3] = 255;
    }
    for (int y = top + 1; y < bottom; ++y) {
        std::memcpy(pixels + static_cast<size_t>(y) * bytesPerRow + static_cast<size_t>(left) * 4,
                    first, rowBytes);
    }
}

void drawBackground(uint8_t* pixels, int width, int height, size_t bytesPerRow) {
    const Layout l(width, height);
    fill(pixels, bytesPerRow, 0, 0, width, height, kBorder);
    const int innerWidth = l.innerRight - l.innerLeft;
    for (size_t i = 0; i < kBars.size(); ++i) {
        const int left = l.innerLeft + even(innerWidth * static_cast<int>(i) / 6);
        const int right = l.innerLeft + even(innerWidth * static_cast<int>(i + 1) / 6);
        fill(pixels, bytesPerRow, left, l.innerTop, right, l.barsBottom, kBars[i]);
    }
    fill(pixels, bytesPerRow, l.innerLeft, l.barsBottom, l.innerRight, l.innerBottom, kBand);
}

void drawMovingParts(uint8_t* pixels, int width, int height, size_t bytesPerRow,
                     uint64_t frameNumber) {
    const Layout l(width, height);
    const int margin = l.margin;
    const int innerWidth = l.innerRight - l.innerLeft;

    // Upper half of the band: a block sweeping left to right.
    const int sweepTop = l.sweepTop;
    const int sweepBottom = l.sweepBottom;
    const int blockWidth = even(innerWidth / 8);
    const int travel = innerWidth - blockWidth;
    const int x =
        l.innerLeft + even(static_cast<int>(static_cast<int64_t>(travel) *
                                            static_cast<int64_t>(frameNumber % kFramesPerSweep) /
                                            static_cast<int64_t>(kFramesPerSweep)));
    fill(pixels, bytesPerRow, x, sweepTop, x + blockWidth, sweepBottom, kSweeper);

    // Lower half: the half seconds since the capture began, in binary, lowest bit on the right.
    const uint64_t count = frameNumber / kFramesPerCounterStep;
    const int cellsTop = sweepBottom + margin;
    const int cellsBottom = even(l.innerBottom - margin);
    const int cellWidth = even(innerWidth / kCounterCells);
    for (int cell = 0; cell < kCounterCells; ++cell) {
        const bool on = ((count >> (kCounterCells - 1 - cell)) & 1U) != 0;
        const int left = l.innerLeft + cell * cellWidth;
        fill(pixels, bytesPerRow, left + margin, cellsTop, left + cellWidth - margin, cellsBottom,
             on ? kCounterOn : kCounterOff);
    }
}

class TestCameraSource final : public CaptureSource {
public:
    explicit TestCameraSource(std::shared_ptr<TestCameraDevice::State> device)
        : device_(std::move(device)) {}
    ~TestCameraSource() override { stop(); }
    TestCameraSource(const TestCameraSource&) = delete;
    TestCameraSource& operator=(const TestCameraSource&) = delete;

    [[nodiscard]] MediaType mediaType() const override { return MediaType::video; }

    Result<void> start(Deliver deliver) override {
        std::lock_guard lock(controlMutex_);
        if (capture_) {
            return PlatformError{"Glimmerbox", 1, "Camera capture is already running"};
        }
        CameraFormat size;
        {
            std::lock_guard deviceLock(device_->mutex);
            size = kFormats[static_cast<size_t>(device_->activeFormatIndex)];
        }
        capture_ = std::make_unique<Capture>(size.width, size.height);
        Capture& c = *capture_;
        thread_ = std::jthread(
            [&c, deliver = std::move(deliver)](std::stop_token stop) { run(stop, c, deliver); });
        logLine(std::string("📷 Camera ") + kTestCameraName + " streaming " +
                std::to_string(size.width) + "x" + std::to_string(size.height) + " BGRA");
        return {};
    }

    void stop() override {
        std::lock_guard lock(controlMutex_);
        if (!capture_) return;
        thread_.request_stop();  // wakes the pacing wait
        if (thread_.joinable()) thread_.join();
        logLine(cameraTotalsLine(kTestCameraName, capture_->totals));
        capture_.reset();
    }

private:
    // What one capture draws with; made at start, so frames allocate nothing.
    struct Capture {
        Capture(int width, int height)
            : width(width),
              height(height),
              pool(width, height, kPoolSlots),
              background(static_cast<size_t>(width) * 4 * static_cast<size_t>(height)) {
            drawBackground(background.data(), width, height, static_cast<size_t>(width) * 4);
        }
        const int width;
        const int height;
        CameraFramePool pool;
        std::vector<uint8_t> background;
        std::vector<const uint8_t*> drawn;  // slots already holding a whole picture
        // Written only by the capture thread while it runs; read after it has been joined.
        CameraFrameTotals totals;
    };

    static void run(const std::stop_token& stop, Capture& c, const Deliver& deliver) {
        try {
            std::mutex mutex;  // only for the wait; nothing is shared through it
            std::condition_variable_any wake;
            const int64_t begin = monotonicNanoseconds();
            const MediaTime duration = MediaTime::make(1, kTestCameraFramesPerSecond);
            uint64_t frame = 0;
            while (!stop.stop_requested()) {
                // Absolute deadlines: frame n is due n/30 s after the start, so waits that
                // run long never add up to drift.
                const int64_t due = begin + static_cast<int64_t>(frame) * kNanosecondsPerSecond /
                                                kTestCameraFramesPerSecond;
                {
                    std::unique_lock lock(mutex);
                    const std::chrono::steady_clock::time_point deadline{
                        std::chrono::nanoseconds(due)};
                    wake.wait_until(lock, stop, deadline, [] { return false; });
                }
                if (stop.stop_requested()) break;
                const MediaTime stamp = monotonicNow();
                if (auto lease = c.pool.acquire()) {
                    // A slot keeps its picture: once drawn whole, only the rows the block
                    // sweeps need the background again (the counter's cells are all redrawn).
                    int top = 0;
                    int bottom = c.height;
                    if (std::find(c.drawn.begin(), c.drawn.end(), lease->data()) == c.drawn.end()) {
                        c.drawn.push_back(lease->data());
                    } else {
                        const Layout l(c.width, c.height);
                        top = l.sweepTop;
                        bottom = l.sweepBottom;
                    }
                    const size_t rowBytes = static_cast<size_t>(c.width) * 4;
                    for (int y = top; y < bottom; ++y) {
                        std::memcpy(lease->data() + static_cast<size_t>(y) * lease->bytesPerRow(),
                                    c.background.data() + static_cast<size_t>(y) * rowBytes,
                                    rowBytes);
                    }
                    drawMovingParts(lease->data(), c.width, c.height, lease->bytesPerRow(), frame);
                    ++c.totals.delivered;
                    deliver(
                        SampleBuffer::video(std::move(*lease).publish(),
                                            SampleTiming{duration, stamp, MediaTime::invalid()}));
                } else {
                    ++c.totals.droppedNoBuffer;
                }
                // Deadlines already missed are skipped, not caught up in a burst.
                const int64_t elapsed = monotonicNanoseconds() - begin;
                const auto next = static_cast<uint64_t>(elapsed * kTestCameraFramesPerSecond /
                                                        kNanosecondsPerSecond) +
                                  1;
                frame = std::max(frame + 1, next);
            }
        } catch (const std::exception& e) {
            logLine(std::string("❌ Camera ") + kTestCameraName + " capture ended: " + e.what());
        }
    }

    const std::shared_ptr<TestCameraDevice::State> device_;
    std::mutex controlMutex_;           // serialises start and stop
    std::unique_ptr<Capture> capture_;  // guarded by controlMutex_; used by thread_ while it runs
    std::jthread thread_;               // guarded by controlMutex_
};

}  // namespace

CameraDeviceInfo TestCameraDevice::info() const {
    CameraDeviceInfo info;
    info.localizedName = kTestCameraName;
    info.uniqueID = kTestCameraUniqueID;
    info.position = 0;
    info.connected = true;
    info.suspended = false;
    info.formats.assign(kFormats.begin(), kFormats.end());
    std::lock_guard lock(state_->mutex);
    info.activeFormatIndex = state_->activeFormatIndex;
    return info;
}

void TestCameraDevice::setActiveFormat(int formatIndex) {
    if (formatIndex < 0 || formatIndex >= static_cast<int>(kFormats.size())) {
        logLine(std::string("⚠️ Camera ") + kTestCameraName + " format " +
                std::to_string(formatIndex) + " not set: no such format");
        return;
    }
    std::lock_guard lock(state_->mutex);
    state_->activeFormatIndex = formatIndex;
}

Result<std::shared_ptr<CaptureInput>> TestCameraDevice::makeInput() {
    return std::shared_ptr<CaptureInput>(
        std::make_shared<CameraInput>(std::make_unique<TestCameraSource>(state_)));
}

CaptureDeviceRef makeTestCamera() {
    return std::make_shared<TestCameraDevice>();
}

void drawTestCameraFrame(uint8_t* pixels, int width, int height, size_t bytesPerRow,
                         uint64_t frameNumber) {
    if (!pixels || width <= 0 || height <= 0) return;
    drawBackground(pixels, width, height, bytesPerRow);
    drawMovingParts(pixels, width, height, bytesPerRow, frameNumber);
}

}  // namespace gb::linuxp
