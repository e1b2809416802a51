// X11 display and screen capture against private Xvfb servers.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "fakes/frame_collector.h"
#include "fakes/log_capture.h"
#include "fakes/pixel_buffers.h"
#include "fakes/test_environment.h"
#include "fakes/xvfb_server.h"
#include "linux/linux_capture_factory.h"
#include "linux/linux_capture_session.h"
#include "linux/monotonic_clock.h"
#include "linux/portable/thread_dispatch.h"
#include "linux/x11_display.h"
#include "linux/x11_screen_input.h"

// Last: Xlib's macros (None, Bool, Status) clash with names in the headers above.
#include <X11/Xlib.h>
#include <X11/cursorfont.h>
#include <X11/extensions/Xrandr.h>

#if defined(__SANITIZE_THREAD__)
// libX11 unlocks a display's lock twice when it finds the connection broken and the IO-error exit
// handler returns (which is how capture outlives a vanished X server). Not a race of ours.
extern "C" const char* __tsan_default_suppressions() {
    return "mutex:libX11.so.6\n";
}
#endif

namespace gb::linuxp {
namespace {

// Sanitizers slow grabbing down so much that frame counts say nothing; there the rate checks
// only ask for some frames.
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
constexpr size_t atLeast(size_t frames) {
    return kSanitized ? 1 : frames;
}

using fakes::FrameCollector;
using fakes::LogCapture;
using fakes::pixelAt;
using ::testing::Contains;
using ::testing::HasSubstr;

constexpr unsigned long kBackground = 0x3366cc;  // R 0x33, G 0x66, B 0xcc

struct DisplayCloser {
    void operator()(Display* d) const { XCloseDisplay(d); }
};

// The test's own connection, for painting and moving the pointer.
class TestClient {
public:
    explicit TestClient(const std::string& name) : display_(XOpenDisplay(name.c_str())) {}
    [[nodiscard]] Display* get() const { return display_.get(); }
    [[nodiscard]] Window root() const { return DefaultRootWindow(display_.get()); }

    void paintRoot(unsigned long rgb) {
        XSetWindowBackground(get(), root(), rgb);
        XClearWindow(get(), root());
        XSync(get(), False);
    }
    void useCrosshairCursor() {
        XDefineCursor(get(), root(), XCreateFontCursor(get(), XC_crosshair));
        XSync(get(), False);
    }
    void movePointer(int x, int y) {
        XWarpPointer(get(), None, root(), 0, 0, 0, 0, x, y);
        XSync(get(), False);
    }

private:
    std::unique_ptr<Display, DisplayCloser> display_;
};

// BGRA bytes of the opaque background, read as a little-endian word.
constexpr uint32_t kBackgroundBgra = 0xff000000u | kBackground;

// Pixels in the square of radius `r` around (x, y) that are not the background.
int changedPixelsAround(const PixelBuffer& buffer, int x, int y, int r) {
    int changed = 0;
    for (int dy = -r; dy <= r; ++dy) {
        for (int dx = -r; dx <= r; ++dx) {
            if (pixelAt(buffer, x + dx, y + dy) != kBackgroundBgra) ++changed;
        }
    }
    return changed;
}

class X11CaptureTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        server_ = fakes::XvfbServer::start();
        if (server_) {
            client_ = std::make_unique<TestClient>(server_->displayName());
            client_->paintRoot(kBackground);
        }
    }
    static void TearDownTestSuite() {
        client_.reset();
        server_.reset();  // kills Xvfb, also after failed tests
    }
    void SetUp() override {
        ASSERT_NE(server_, nullptr) << "Xvfb did not start";
        ASSERT_NE(client_->get(), nullptr);
    }

    static X11CaptureOptions options() {
        X11CaptureOptions o;
        o.displayName = server_->displayName();
        return o;
    }
    static uint32_t rootID() { return static_cast<uint32_t>(client_->root()); }

    // One frame of the whole screen.
    static SampleBufferRef grabOne(X11CaptureOptions o) {
        X11ScreenSource source(rootID(), std::move(o));
        FrameCollector frames;
        if (!source.start(frames.deliver()).ok() || !frames.waitForCount(1)) return nullptr;
        source.stop();
        return frames.last();
    }

    static std::unique_ptr<fakes::XvfbServer> server_;
    static std::unique_ptr<TestClient> client_;
    LogCapture log_;
};

std::unique_ptr<fakes::XvfbServer> X11CaptureTest::server_;
std::unique_ptr<TestClient> X11CaptureTest::client_;

TEST_F(X11CaptureTest, MainScreenIsTheRootWindowWhenRandrNamesNoPrimary) {
    X11DisplayProvider provider(server_->displayName());
    auto screen = provider.mainScreen();
    ASSERT_TRUE(screen.has_value());
    EXPECT_EQ(screen->widthPoints, 1920);
    EXPECT_EQ(screen->heightPoints, 1080);
    const auto& id = screen->deviceDescription.at(kScreenNumberKey);
    ASSERT_TRUE(std::holds_alternative<uint32_t>(id));
    EXPECT_EQ(std::get<uint32_t>(id), rootID());
    EXPECT_EQ(provider.displayRectangle(rootID()), (PixelRect{0, 0, 1920, 1080}));
    EXPECT_EQ(provider.displayRectangle(rootID() + 12345), std::nullopt);
}

TEST_F(X11CaptureTest, PointsArePixelsDividedByTheDesktopScale) {
    fakes::ScopedEnvironment environment;
    environment.set("GDK_SCALE", "2");
    auto screen = X11DisplayProvider(server_->displayName()).mainScreen();
    ASSERT_TRUE(screen.has_value());
    EXPECT_EQ(screen->widthPoints, 960);
    EXPECT_EQ(screen->heightPoints, 540);
}

TEST_F(X11CaptureTest, UnreachableDisplayHasNoMainScreenAndNoInput) {
    X11DisplayProvider provider(":65000");
    EXPECT_EQ(provider.mainScreen(), std::nullopt);
    X11CaptureOptions o;
    o.displayName = ":65000";
    EXPECT_EQ(X11ScreenInput::create(1, o), nullptr);
    EXPECT_THAT(log_.lines(), Contains("❌ Cannot open the X display for screen capture"));
}

TEST_F(X11CaptureTest, UnknownDisplayIdentifierGivesNoInput) {
    EXPECT_EQ(X11ScreenInput::create(rootID() + 12345, options()), nullptr);
    EXPECT_NE(X11ScreenInput::create(rootID(), options()), nullptr);
}

TEST_F(X11CaptureTest, GrabsTheScreenAsOpaqueBgraThroughXShmOrXGetImage) {
    for (const bool forceXGetImage : {false, true}) {
        SCOPED_TRACE(forceXGetImage ? "XGetImage" : "XShm");
        auto o = options();
        o.capturesCursor = false;
        o.forceXGetImage = forceXGetImage;
        X11ScreenSource source(rootID(), o);
        FrameCollector frames(/*holdAll=*/true);
        const int64_t before = monotonicNanoseconds();
        ASSERT_TRUE(source.start(frames.deliver()).ok());
        ASSERT_TRUE(frames.waitForCount(1));
        const int64_t after = monotonicNanoseconds();
        EXPECT_EQ(source.stats().usingXShm, !forceXGetImage);
        source.stop();

        const auto frame = frames.held().front();
        const auto& image = *frame->imageBuffer();
        EXPECT_EQ(image.width(), 1920);
        EXPECT_EQ(image.height(), 1080);
        EXPECT_EQ(image.bytesPerRow(), 1920u * 4);
        const uint8_t* p = image.baseAddress();
        EXPECT_EQ(p[0], 0xcc);  // blue
        EXPECT_EQ(p[1], 0x66);  // green
        EXPECT_EQ(p[2], 0x33);  // red
        EXPECT_EQ(p[3], 0xff);  // alpha
        for (auto [x, y] : {std::pair{1919, 0}, {960, 540}, {777, 333}, {0, 1079}, {1919, 1079}}) {
            EXPECT_EQ(pixelAt(image, x, y), kBackgroundBgra) << x << "," << y;
        }
        // Stamped from the shared monotonic clock at the grab.
        const int64_t stamp = frame->presentationTime().nanoseconds();
        EXPECT_GE(stamp, before);
        EXPECT_LE(stamp, after);
        EXPECT_EQ(frame->timing().duration, MediaTime::fromNanoseconds(1'000'000'000 / 30));
    }
}

TEST_F(X11CaptureTest, ShowsWhatIsOnScreenNow) {
    auto o = options();
    o.capturesCursor = false;
    client_->paintRoot(0x10e020);
    auto green = grabOne(o);
    client_->paintRoot(kBackground);
    auto blue = grabOne(o);
    ASSERT_TRUE(green && blue);
    EXPECT_EQ(pixelAt(*green->imageBuffer(), 100, 100), 0xff10e020u);
    EXPECT_EQ(pixelAt(*blue->imageBuffer(), 100, 100), kBackgroundBgra);
}

// Runs a source for about `window` and returns what it delivered.
struct RunResult {
    size_t frames;
    std::vector<int64_t> stamps;
    size_t distinctBuffers;
    X11CaptureStats stats;
};
RunResult runFor(X11ScreenSource& source, std::chrono::milliseconds window) {
    FrameCollector frames;
    if (!source.start(frames.deliver()).ok()) return {};
    std::this_thread::sleep_for(window);  // the measuring window itself
    source.stop();
    return {frames.count(), frames.timesNanoseconds(), frames.distinctAddresses(), source.stats()};
}

TEST_F(X11CaptureTest, PacesFramesByTheMinimumFrameDuration) {
    X11ScreenSource source(rootID(), options());
    const auto at30 = runFor(source, std::chrono::seconds(1));
    EXPECT_GE(at30.frames, atLeast(20));
    EXPECT_LE(at30.frames, 35u);

    source.setMinFrameDuration(MediaTime::make(1, 10));
    const auto at10 = runFor(source, std::chrono::seconds(1));
    EXPECT_GE(at10.frames, atLeast(6));
    EXPECT_LE(at10.frames, 12u);

    // Grabs stay on the grid: on average never closer than the frame duration.
    for (const auto* run : {&at30, &at10}) {
        if (kSanitized && run->stamps.size() < 2) continue;
        ASSERT_GE(run->stamps.size(), 2u);
        for (size_t i = 1; i < run->stamps.size(); ++i) {
            EXPECT_GT(run->stamps[i], run->stamps[i - 1]);
        }
    }
    if (at10.stamps.size() >= 2) {
        const double meanGap = static_cast<double>(at10.stamps.back() - at10.stamps.front()) /
                               static_cast<double>(at10.stamps.size() - 1);
        EXPECT_GE(meanGap, 0.09e9);
    }
}

TEST_F(X11CaptureTest, ReusesItsFixedPoolOfBuffers) {
    auto o = options();
    o.poolSize = 4;
    X11ScreenSource source(rootID(), o);
    source.setMinFrameDuration(MediaTime::make(1, 100));
    const auto run = runFor(source, std::chrono::milliseconds(700));
    EXPECT_GE(run.frames, atLeast(20));
    // Every frame was one of the four buffers made at the start; none was allocated later.
    EXPECT_LE(run.distinctBuffers, 4u);
    EXPECT_EQ(run.stats.bufferAllocations, 4u);
    EXPECT_EQ(run.stats.framesDroppedNoBuffer, 0u);
    // A second run keeps the buffers (and the connection) of the first.
    const auto again = runFor(source, std::chrono::milliseconds(200));
    EXPECT_GE(again.frames, atLeast(5));
    EXPECT_EQ(again.stats.bufferAllocations, 4u);
}

TEST_F(X11CaptureTest, DropsFramesWhileEveryBufferIsHeldAndNeverWaits) {
    auto o = options();
    o.poolSize = 3;
    X11ScreenSource source(rootID(), o);
    source.setMinFrameDuration(MediaTime::make(1, 100));
    FrameCollector frames(/*holdAll=*/true);  // the pool runs dry
    ASSERT_TRUE(source.start(frames.deliver()).ok());
    ASSERT_TRUE(frames.waitForCount(3));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    source.stop();  // returns although no buffer came back
    const auto stats = source.stats();
    EXPECT_EQ(stats.framesDelivered, 3u);
    EXPECT_EQ(frames.count(), 3u);
    EXPECT_GE(stats.framesDroppedNoBuffer, atLeast(10));
    EXPECT_THAT(log_.lines(), Contains(HasSubstr("⚠️ Screen capture dropped ")));
    EXPECT_THAT(log_.lines(), Contains(HasSubstr(" frames: every frame buffer was still in use")));

    // Released buffers are used again by the next run.
    frames.release();
    const auto again = runFor(source, std::chrono::milliseconds(300));
    EXPECT_GE(again.frames, atLeast(5));
}

TEST_F(X11CaptureTest, FramesStayValidAfterTheCaptureEnds) {
    SampleBufferRef kept;
    {
        auto o = options();
        o.capturesCursor = false;
        auto input = X11ScreenInput::create(rootID(), o);
        ASSERT_NE(input, nullptr);
        FrameCollector frames;
        ASSERT_TRUE(input->captureSource().start(frames.deliver()).ok());
        ASSERT_TRUE(frames.waitForCount(1));
        input->captureSource().stop();
        kept = frames.last();
    }
    // The input, its thread and its X connection are gone; the memory is not.
    EXPECT_EQ(pixelAt(*kept->imageBuffer(), 1500, 900), kBackgroundBgra);
}

TEST_F(X11CaptureTest, DrawsTheCursorWhereThePointerIs) {
    client_->useCrosshairCursor();
    client_->movePointer(600, 400);
    auto withCursor = grabOne(options());
    auto o = options();
    o.capturesCursor = false;
    auto withoutCursor = grabOne(o);
    client_->movePointer(1200, 800);
    auto moved = grabOne(options());
    ASSERT_TRUE(withCursor && withoutCursor && moved);

    EXPECT_GT(changedPixelsAround(*withCursor->imageBuffer(), 600, 400, 12), 10);
    EXPECT_EQ(changedPixelsAround(*withoutCursor->imageBuffer(), 600, 400, 12), 0);
    EXPECT_EQ(changedPixelsAround(*moved->imageBuffer(), 600, 400, 12), 0);
    EXPECT_GT(changedPixelsAround(*moved->imageBuffer(), 1200, 800, 12), 10);
    // The frame stays opaque under the cursor.
    EXPECT_EQ(pixelAt(*moved->imageBuffer(), 1200, 800) >> 24, 0xffu);
}

TEST_F(X11CaptureTest, CursorAtTheScreenEdgeIsClipped) {
    client_->useCrosshairCursor();
    client_->movePointer(1919, 1079);
    auto frame = grabOne(options());
    ASSERT_NE(frame, nullptr);
    EXPECT_GT(changedPixelsAround(*frame->imageBuffer(), 1912, 1072, 7), 0);
    client_->movePointer(0, 0);
    frame = grabOne(options());
    ASSERT_NE(frame, nullptr);
    EXPECT_GT(changedPixelsAround(*frame->imageBuffer(), 7, 7, 7), 0);
}

TEST_F(X11CaptureTest, SessionHandsScreenFramesToTheDelegateOnItsQueue) {
    class Delegate final : public CaptureOutputDelegate {
    public:
        explicit Delegate(const SerialQueue& queue) : queue_(queue) {}
        void captureOutput(CaptureOutput& output, const SampleBufferRef& sample) override {
            {
                std::lock_guard lock(mutex);
                outputs.push_back(&output);
                onQueue = onQueue && queue_.isCurrent();
                width = sample->imageBuffer()->width();
            }
            changed.notify_all();
        }
        const SerialQueue& queue_;
        std::mutex mutex;
        std::condition_variable changed;
        std::vector<CaptureOutput*> outputs;  // guarded by mutex
        bool onQueue = true;                  // guarded by mutex
        int width = 0;                        // guarded by mutex
    };

    LinuxCaptureFactory::Parts parts;
    parts.screenInputMaker = LinuxCaptureFactory::x11ScreenInputMaker(options());
    LinuxCaptureFactory factory(parts);
    auto queue = std::make_shared<ThreadSerialQueue>("glimmerbox.recording");
    auto delegate = std::make_shared<Delegate>(*queue);
    auto session = factory.makeSession();
    auto input = factory.makeScreenInput(rootID());
    ASSERT_NE(input, nullptr);
    input->setMinFrameDuration(MediaTime::make(1, 30));
    auto output = factory.makeVideoDataOutput();
    output->setSampleBufferDelegate(delegate, queue);
    session->beginConfiguration();
    ASSERT_TRUE(session->canAddInput(input));
    session->addInput(input);
    ASSERT_TRUE(session->canAddOutput(output));
    session->addOutput(output);
    session->commitConfiguration();

    session->startRunning();
    {
        std::unique_lock lock(delegate->mutex);
        ASSERT_TRUE(delegate->changed.wait_for(lock, std::chrono::seconds(10),
                                               [&] { return delegate->outputs.size() >= 3; }));
    }
    session->stopRunning();
    std::lock_guard lock(delegate->mutex);
    EXPECT_TRUE(delegate->onQueue);
    EXPECT_EQ(delegate->width, 1920);
    for (auto* o : delegate->outputs) EXPECT_EQ(o, output.get());
}

// A server of its own for each test below: they change or end it.
std::unique_ptr<fakes::XvfbServer> startServer(int width, int height, int depth,
                                               std::vector<std::string> extra = {}) {
    return fakes::XvfbServer::start({width, height, depth, std::move(extra)});
}

// The screen input of the server's main screen (null when the display is refused).
std::shared_ptr<X11ScreenInput> mainScreenInput(const fakes::XvfbServer& server) {
    auto screen = X11DisplayProvider(server.displayName()).mainScreen();
    if (!screen) return nullptr;
    X11CaptureOptions o;
    o.displayName = server.displayName();
    return X11ScreenInput::create(
        std::get<uint32_t>(screen->deviceDescription.at(kScreenNumberKey)), o);
}

TEST(X11CaptureServerTest, PrimaryRandrOutputIsTheMainScreen) {
    auto server = startServer(1920, 1080, 24, {"+extension", "RANDR"});
    ASSERT_NE(server, nullptr);
    TestClient client(server->displayName());
    ASSERT_NE(client.get(), nullptr);
    std::unique_ptr<XRRScreenResources, decltype(&XRRFreeScreenResources)> resources(
        XRRGetScreenResourcesCurrent(client.get(), client.root()), &XRRFreeScreenResources);
    ASSERT_TRUE(resources && resources->noutput > 0);
    const RROutput output = resources->outputs[0];
    XRRSetOutputPrimary(client.get(), client.root(), output);
    XSync(client.get(), False);

    X11DisplayProvider provider(server->displayName());
    auto screen = provider.mainScreen();
    ASSERT_TRUE(screen.has_value());
    EXPECT_EQ(std::get<uint32_t>(screen->deviceDescription.at(kScreenNumberKey)),
              static_cast<uint32_t>(output));
    EXPECT_EQ(screen->widthPoints, 1920);
    EXPECT_EQ(screen->heightPoints, 1080);
    EXPECT_EQ(provider.displayRectangle(static_cast<uint32_t>(output)),
              (PixelRect{0, 0, 1920, 1080}));

    auto input = mainScreenInput(*server);
    ASSERT_NE(input, nullptr);
    FrameCollector frames;
    ASSERT_TRUE(input->captureSource().start(frames.deliver()).ok());
    ASSERT_TRUE(frames.waitForCount(1));
    input->captureSource().stop();
    EXPECT_EQ(frames.last()->imageBuffer()->width(), 1920);
    EXPECT_EQ(frames.last()->imageBuffer()->height(), 1080);
}

TEST(X11CaptureServerTest, RefusesADisplayThatIsNotTrueColor32) {
    LogCapture log;
    auto server = startServer(640, 480, 16);
    ASSERT_NE(server, nullptr);
    EXPECT_EQ(mainScreenInput(*server), nullptr);
    EXPECT_THAT(log.lines(), Contains("❌ Screen capture needs a 24- or 32-bit TrueColor X "
                                      "display, but it has depth 16"));
}

TEST(X11CaptureServerTest, LosingTheDisplayEndsTheCaptureNotTheProgram) {
    LogCapture log;
    auto server = startServer(640, 480, 24);
    ASSERT_NE(server, nullptr);
    auto input = mainScreenInput(*server);
    ASSERT_NE(input, nullptr);
    FrameCollector frames;
    ASSERT_TRUE(input->captureSource().start(frames.deliver()).ok());
    ASSERT_TRUE(frames.waitForCount(1));

    server->kill();
    EXPECT_TRUE(log.waitForContaining("❌ Screen capture stopped: the X display went away"));
    input->captureSource().stop();  // returns: the thread has ended by itself
    EXPECT_EQ(input->screenSource().stats().grabFailures, 1u);
    EXPECT_EQ(input->screenSource().stats().framesDelivered, frames.count());
    EXPECT_THAT(log.lines(), Contains("⚠️ Screen capture failed to grab 1 frames"));
}

TEST(X11CaptureServerTest, StartNoticesThatTheDisplayWentAwayBetweenRuns) {
    LogCapture log;
    auto server = startServer(640, 480, 24);
    ASSERT_NE(server, nullptr);
    auto input = mainScreenInput(*server);
    ASSERT_NE(input, nullptr);  // prepared: connection and buffers ready

    server->kill();
    FrameCollector frames;
    auto started = input->captureSource().start(frames.deliver());
    // The stale connection is noticed before a thread starts on it.
    EXPECT_THAT(log.lines(), Contains("❌ Lost the connection to the X display"));
    if (started.ok()) {
        // Tests running in parallel may have started a server under the freed display number;
        // then the start rightly opened a new connection to it.
        EXPECT_TRUE(frames.waitForCount(1));
        input->captureSource().stop();
    } else {
        EXPECT_EQ(started.error().localizedDescription,
                  "Cannot open the X display for screen capture");
    }
}

}  // namespace
}  // namespace gb::linuxp
