// How quickly a recording starts and ends on the real Linux platform (X11 screen, PulseAudio
// microphone, FFmpeg writer), wired as the program wires it. For each recording:
//   start->first frame   startRecording() to the first screen frame reaching the recorder
//                        (its "📺 Screen sample #1" line)
//   start->did start     startRecording() to recorderDidStart
//   stop->finished       stopRecording() on the main queue to recorderDidStop (file complete)
// Reported as min/median/max counters over the iterations, with the recorded length (first frame
// to stop). Every log line is timestamped; the milestones of each recording go to stderr, all
// lines with GB_LATENCY_LOG=1. GB_LATENCY_TRACE=1 also puts timing wrappers around the platform
// services (access, display, capture factory and sessions, writer) that log each call's duration
// as "⏱ ..." lines, to show where a start or a stop spends its time.
//
// Needs $DISPLAY and a PulseAudio server: run it through bench/recording-latency.
// GB_LATENCY_RUNS (default 5) recordings of GB_LATENCY_SECONDS (default 3) each.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "app/record_command.h"
#include "app/recorder_assembly.h"
#include "linux/ffmpeg/ffmpeg_asset_writer.h"
#include "linux/capture/linux_capture_factory.h"
#include "portable/cpu_image_compositor.h"
#include "portable/standard_sample_maker.h"
#include "portable/thread_dispatch.h"
#include "linux/pulse/pulse_access.h"
#include "linux/pulse/pulse_microphone.h"
#include "linux/v4l2/v4l2_camera.h"
#include "linux/x11/x11_display.h"
#include "linux/x11/x11_screen_input.h"
#include "linux/files/xdg_files.h"
#include "recording/log.h"
#include "recording/screen_recorder.h"

namespace {

using namespace gb;
using namespace gb::linuxp;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

constexpr std::string_view kFirstScreenSampleLine = "📺 Screen sample #1";
constexpr auto kFirstFrameTimeout = std::chrono::seconds(10);
constexpr auto kFinishTimeout = std::chrono::seconds(60);

int envInt(const char* name, int fallback) {
    const char* v = std::getenv(name);
    if (v == nullptr || *v == '\0') return fallback;
    const int n = std::atoi(v);
    return n > 0 ? n : fallback;
}

double msBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

class NoFolderPicker final : public FolderPicker {
public:
    FolderPickerResult runModal(const FolderPickerOptions&) override { return {}; }
};

// Logs "⏱ what: N ms" when it goes out of scope.
class CallTimer {
public:
    explicit CallTimer(std::string what) : what_(std::move(what)), start_(Clock::now()) {}
    ~CallTimer() {
        char ms[32];
        std::snprintf(ms, sizeof ms, "%.1f", msBetween(start_, Clock::now()));
        logLine("⏱ " + what_ + ": " + ms + " ms");
    }
    CallTimer(const CallTimer&) = delete;
    CallTimer& operator=(const CallTimer&) = delete;

private:
    const std::string what_;
    const Clock::time_point start_;
};

class TimedAccessRequester final : public AccessRequester {
public:
    explicit TimedAccessRequester(AccessRequester& inner) : inner_(inner) {}
    void requestAccess(MediaType type, std::function<void(bool granted)> completion) override {
        CallTimer timer(std::string("requestAccess(") +
                        (type == MediaType::audio ? "audio" : "video") + ")");
        inner_.requestAccess(type, std::move(completion));
    }

private:
    AccessRequester& inner_;
};

class TimedDisplayProvider final : public DisplayProvider {
public:
    explicit TimedDisplayProvider(DisplayProvider& inner) : inner_(inner) {}
    [[nodiscard]] std::optional<MainScreen> mainScreen() const override {
        CallTimer timer("mainScreen");
        return inner_.mainScreen();
    }

private:
    DisplayProvider& inner_;
};

// Inputs and outputs pass through untouched: the real session needs its own kinds.
class TimedCaptureSession final : public CaptureSession {
public:
    TimedCaptureSession(std::shared_ptr<CaptureSession> inner, std::string name)
        : inner_(std::move(inner)), name_(std::move(name)) {}
    void beginConfiguration() override { inner_->beginConfiguration(); }
    void commitConfiguration() override {
        CallTimer timer(name_ + ".commitConfiguration");
        inner_->commitConfiguration();
    }
    [[nodiscard]] bool canAddInput(const std::shared_ptr<CaptureInput>& input) override {
        return inner_->canAddInput(input);
    }
    void addInput(std::shared_ptr<CaptureInput> input) override {
        CallTimer timer(name_ + ".addInput");
        inner_->addInput(std::move(input));
    }
    [[nodiscard]] bool canAddOutput(const std::shared_ptr<CaptureOutput>& output) override {
        return inner_->canAddOutput(output);
    }
    void addOutput(std::shared_ptr<CaptureOutput> output) override {
        CallTimer timer(name_ + ".addOutput");
        inner_->addOutput(std::move(output));
    }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureInput>> inputs() const override {
        return inner_->inputs();
    }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureOutput>> outputs() const override {
        return inner_->outputs();
    }
    void removeInput(const std::shared_ptr<CaptureInput>& input) override {
        CallTimer timer(name_ + ".removeInput");
        inner_->removeInput(input);
    }
    void removeOutput(const std::shared_ptr<CaptureOutput>& output) override {
        CallTimer timer(name_ + ".removeOutput");
        inner_->removeOutput(output);
    }
    void startRunning() override {
        CallTimer timer(name_ + ".startRunning");
        inner_->startRunning();
    }
    void stopRunning() override {
        CallTimer timer(name_ + ".stopRunning");
        inner_->stopRunning();
    }
    [[nodiscard]] bool isRunning() const override { return inner_->isRunning(); }

private:
    const std::shared_ptr<CaptureSession> inner_;
    const std::string name_;
};

class TimedCaptureFactory final : public CaptureFactory {
public:
    explicit TimedCaptureFactory(CaptureFactory& inner) : inner_(inner) {}
    [[nodiscard]] std::shared_ptr<CaptureSession> makeSession() override {
        // The capture service makes its screen session first, then the camera's.
        return std::make_shared<TimedCaptureSession>(
            inner_.makeSession(), ++sessions_ == 1 ? "screenSession" : "cameraSession");
    }
    [[nodiscard]] std::shared_ptr<ScreenInput> makeScreenInput(uint32_t displayID) override {
        CallTimer timer("makeScreenInput");
        return inner_.makeScreenInput(displayID);
    }
    [[nodiscard]] CaptureDeviceRef defaultAudioDevice() override {
        CallTimer timer("defaultAudioDevice");
        return inner_.defaultAudioDevice();
    }
    [[nodiscard]] std::vector<CaptureDeviceRef> discoverVideoDevices() override {
        CallTimer timer("discoverVideoDevices");
        return inner_.discoverVideoDevices();
    }
    [[nodiscard]] Result<std::shared_ptr<CaptureInput>> makeDeviceInput(
        const CaptureDeviceRef& device) override {
        CallTimer timer("makeDeviceInput");
        return inner_.makeDeviceInput(device);
    }
    [[nodiscard]] std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override {
        return inner_.makeVideoDataOutput();
    }
    [[nodiscard]] std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override {
        return inner_.makeAudioDataOutput();
    }

private:
    CaptureFactory& inner_;
    int sessions_ = 0;  // the capture service makes its sessions on one thread, once
};

class TimedAssetWriter final : public AssetWriter {
public:
    explicit TimedAssetWriter(AssetWriterRef inner) : inner_(std::move(inner)) {}
    [[nodiscard]] AssetWriterStatus status() const override { return inner_->status(); }
    [[nodiscard]] std::optional<PlatformError> error() const override { return inner_->error(); }
    [[nodiscard]] bool canAddInput(const AssetWriterInputRef& input) const override {
        return inner_->canAddInput(input);
    }
    void addInput(AssetWriterInputRef input) override { inner_->addInput(std::move(input)); }
    [[nodiscard]] bool startWriting() override {
        CallTimer timer("writer.startWriting");
        return inner_->startWriting();
    }
    void startSessionAtSourceTime(MediaTime time) override {
        inner_->startSessionAtSourceTime(time);
    }
    void finishWriting(std::function<void()> completion) override {
        auto timer = std::make_shared<CallTimer>("writer.finishWriting to its completion");
        CallTimer call("writer.finishWriting call");
        inner_->finishWriting(
            [timer = std::move(timer), completion = std::move(completion)]() mutable {
                timer.reset();
                completion();
            });
    }

private:
    const AssetWriterRef inner_;
};

class TimedAssetWriterFactory final : public AssetWriterFactory {
public:
    explicit TimedAssetWriterFactory(AssetWriterFactory& inner) : inner_(inner) {}
    [[nodiscard]] Result<AssetWriterRef> makeWriter(const std::string& path,
                                                    FileType fileType) override {
        CallTimer timer("makeWriter");
        auto made = inner_.makeWriter(path, fileType);
        if (!made) return made;
        return AssetWriterRef(std::make_shared<TimedAssetWriter>(std::move(made.value())));
    }
    [[nodiscard]] AssetWriterInputRef makeInput(MediaType type,
                                                const WriterOutputSettings& settings) override {
        CallTimer timer(std::string("makeInput(") + (type == MediaType::audio ? "audio" : "video") +
                        ")");
        return inner_.makeInput(type, settings);
    }

private:
    AssetWriterFactory& inner_;
};

// The program's recording services (see main.cpp), without the editor automation.
class BenchPlatform {
public:
    BenchPlatform(SerialQueue& mainQueue, const std::string& folder, bool timed)
        : timed_(timed),
          dispatch_(mainQueue),
          capture_(LinuxCaptureFactory::Parts{
              LinuxCaptureFactory::x11ScreenInputMaker(),
              [] { return defaultPulseMicrophone(); },
              [] { return discoverCameras(false); },
          }),
          pixelBuffers_(std::make_shared<PooledPixelBufferFactory>()),
          runDefaults_(userDefaults_, folder) {}

    [[nodiscard]] RecorderPlatform recorderPlatform() {
        if (timed_) {
            return RecorderPlatform{dispatch_,     timedAccess_, timedCapture_,  timedDisplay_,
                                    timedWriters_, files_,       runDefaults_,   dates_,
                                    folderPicker_, compositor_,  *pixelBuffers_, sampleMaker_};
        }
        return RecorderPlatform{dispatch_,     access_,     capture_,       display_,
                                writers_,      files_,      runDefaults_,   dates_,
                                folderPicker_, compositor_, *pixelBuffers_, sampleMaker_};
    }
    Dispatch& dispatch() { return dispatch_; }

private:
    const bool timed_;
    ThreadDispatch dispatch_;
    X11DisplayProvider display_;
    LinuxCaptureFactory capture_;
    PulseAccessRequester access_;
    FfmpegAssetWriterFactory writers_;
    XdgFileSystem files_;
    QSettingsDefaultsStore userDefaults_;
    LocaleDateFormatter dates_;
    CpuImageCompositor compositor_;
    std::shared_ptr<PooledPixelBufferFactory> pixelBuffers_;
    StandardSampleMaker sampleMaker_;
    NoFolderPicker folderPicker_;
    RunScopedDefaultsStore runDefaults_;
    TimedAccessRequester timedAccess_{access_};
    TimedDisplayProvider timedDisplay_{display_};
    TimedCaptureFactory timedCapture_{capture_};
    TimedAssetWriterFactory timedWriters_{writers_};
};

// The events of one recording, from the log sink (logging threads), the delegate (background
// executor and main queue) and the benchmark thread. Lock order: the logging lock, then mutex_;
// nothing here logs while holding mutex_.
class RecordingEvents final : public ScreenRecorderDelegate {
public:
    struct Line {
        Clock::time_point at;
        std::string text;
    };

    explicit RecordingEvents(RunLoopQueue& mainQueue) : mainQueue_(mainQueue) {}

    void reset() {
        std::lock_guard lock(mutex_);
        lines_.clear();
        startCalled_ = stopCalled_ = firstFrame_ = didStart_ = didStop_ = std::nullopt;
        failure_.reset();
        outputURL_.clear();
    }

    // The log sink.
    void onLine(std::string_view text) {
        const auto now = Clock::now();
        {
            std::lock_guard lock(mutex_);
            lines_.push_back({now, std::string(text)});
            if (text == kFirstScreenSampleLine && !firstFrame_) firstFrame_ = now;
        }
        changed_.notify_all();
    }

    void markStartCalled(Clock::time_point at) { set(startCalled_, at); }
    void markStopCalled(Clock::time_point at) { set(stopCalled_, at); }

    void recorderDidStart() override { set(didStart_, Clock::now()); }
    void recorderDidStop(const std::string& outputURL) override {
        const auto now = Clock::now();
        {
            std::lock_guard lock(mutex_);
            didStop_ = now;
            outputURL_ = outputURL;
        }
        changed_.notify_all();
        mainQueue_.quit();
    }
    void recorderDidFail(const ScreenRecorderError& error) override {
        fail(error.errorDescription());
    }

    void fail(const std::string& why) {
        {
            std::lock_guard lock(mutex_);
            if (!failure_) failure_ = why;
        }
        changed_.notify_all();
        mainQueue_.quit();
    }

    // The first frame's time, once it came (or nothing on failure or after `timeout`).
    std::optional<Clock::time_point> waitForFirstFrame(std::chrono::nanoseconds timeout) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, timeout, [&] { return firstFrame_ || failure_; });
        return failure_ ? std::nullopt : firstFrame_;
    }
    // False when the recording failed or finished meanwhile.
    bool waitUntilOrEnd(Clock::time_point deadline) {
        std::unique_lock lock(mutex_);
        return !changed_.wait_until(lock, deadline, [&] { return failure_ || didStop_; });
    }
    bool waitForStop(std::chrono::nanoseconds timeout) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return failure_ || didStop_; });
    }

    struct Snapshot {
        std::optional<Clock::time_point> startCalled, stopCalled, firstFrame, didStart, didStop;
        std::optional<std::string> failure;
        std::string outputURL;
        std::vector<Line> lines;
    };
    Snapshot snapshot() {
        std::lock_guard lock(mutex_);
        return {startCalled_, stopCalled_, firstFrame_, didStart_,
                didStop_,     failure_,    outputURL_,  lines_};
    }

private:
    void set(std::optional<Clock::time_point>& field, Clock::time_point at) {
        {
            std::lock_guard lock(mutex_);
            field = at;
        }
        changed_.notify_all();
    }

    RunLoopQueue& mainQueue_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Line> lines_;                       // guarded by mutex_
    std::optional<Clock::time_point> startCalled_;  // guarded by mutex_
    std::optional<Clock::time_point> stopCalled_;   // guarded by mutex_
    std::optional<Clock::time_point> firstFrame_;   // guarded by mutex_
    std::optional<Clock::time_point> didStart_;     // guarded by mutex_
    std::optional<Clock::time_point> didStop_;      // guarded by mutex_
    std::optional<std::string> failure_;            // guarded by mutex_
    std::string outputURL_;                         // guarded by mutex_
};

// Lines worth a timestamp in the per-recording timeline (prefixes).
const std::vector<std::string_view>& milestonePrefixes() {
    static const std::vector<std::string_view> prefixes{
        "ScreenRecorder.startRecording() called",
        "✅ Screen capture session configured successfully",
        "Created AVAssetWriter for:",
        "AVAssetWriter started successfully",
        "📺 Screen sample #1",
        "Recording started successfully",
        "Stopping recording...",
        "Finishing writing to:",
        "Writer: index written",
        "Writer: finished in",
        "Recording completed successfully",
    };
    return prefixes;
}

bool isMilestone(const std::string& text) {
    if (text.starts_with("⏱ ")) return true;
    for (auto prefix : milestonePrefixes()) {
        if (text.starts_with(prefix)) {
            // "📺 Screen sample #1" but not #31, #61, ...
            return prefix != kFirstScreenSampleLine || text == kFirstScreenSampleLine;
        }
    }
    return false;
}

// Offsets of the lines from startRecording() until stopRecording(), then from stopRecording().
void printTimeline(int iteration, const RecordingEvents::Snapshot& s, bool everyLine) {
    std::fprintf(stderr, "--- recording %d (ms after startRecording, then after stopRecording)\n",
                 iteration);
    for (const auto& line : s.lines) {
        if (!everyLine && !isMilestone(line.text)) continue;
        if (everyLine && line.text.starts_with("📺 Screen sample #") &&
            line.text != kFirstScreenSampleLine) {
            continue;
        }
        const bool afterStop = s.stopCalled && line.at >= *s.stopCalled;
        const auto origin = afterStop ? *s.stopCalled : *s.startCalled;
        std::fprintf(stderr, "  %s %8.1f  %s\n", afterStop ? "stop +" : "start+",
                     msBetween(origin, line.at), line.text.c_str());
    }
    if (s.didStart) {
        std::fprintf(stderr, "  start+ %8.1f  [recorderDidStart]\n",
                     msBetween(*s.startCalled, *s.didStart));
    }
    if (s.didStop) {
        std::fprintf(stderr, "  stop + %8.1f  [recorderDidStop]\n",
                     msBetween(*s.stopCalled, *s.didStop));
    }
}

struct Spread {
    double min = 0, median = 0, max = 0;
};

Spread spreadOf(std::vector<double> values) {
    if (values.empty()) return {};
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    const double median = n % 2 == 1 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
    return {values.front(), median, values.back()};
}

void reportSpread(benchmark::State& state, const std::string& name,
                  const std::vector<double>& values) {
    const Spread s = spreadOf(values);
    state.counters[name + "_min"] = s.min;
    state.counters[name + "_med"] = s.median;
    state.counters[name + "_max"] = s.max;
}

void BM_RecordingStartStopLatency(benchmark::State& state) {
    const auto recordFor = std::chrono::seconds(envInt("GB_LATENCY_SECONDS", 3));
    const bool everyLine = envInt("GB_LATENCY_LOG", 0) == 1;
    const bool timed = envInt("GB_LATENCY_TRACE", 0) == 1;

    std::string pattern = (fs::temp_directory_path() / "glimmerbox-latency.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        state.SkipWithError("cannot make a temporary folder");
        return;
    }
    const std::string folder = pattern;

    RunLoopQueue mainQueue;
    std::vector<double> firstFrameMs, didStartMs, finishMs, recordedS, fileMB;
    {
        BenchPlatform platform(mainQueue, folder, timed);
        auto recorder = makeScreenRecorder(platform.recorderPlatform());
        // The tray's option writes for a 1080p recording without the camera.
        recorder->setVideoQuality(VideoQuality::high);
        recorder->setCameraOverlayEnabled(false);
        recorder->captureSessionManager().setCameraOverlayEnabled(false);
        recorder->videoComposer().setCameraOverlayEnabled(false);
        auto events = std::make_shared<RecordingEvents>(mainQueue);
        recorder->setDelegate(events);
        LogSink previousSink =
            setLogSink([events](std::string_view line) { events->onLine(line); });

        int iteration = 0;
        for (auto _ : state) {
            ++iteration;
            events->reset();

            // Stops the recording `recordFor` after its first frame, from the main queue.
            std::jthread stopper([&] {
                const auto first = events->waitForFirstFrame(kFirstFrameTimeout);
                if (!first) {
                    events->fail("no screen frame within " +
                                 std::to_string(kFirstFrameTimeout.count()) + " s");
                    return;
                }
                if (!events->waitUntilOrEnd(*first + recordFor)) return;
                mainQueue.async([&] {
                    const auto at = Clock::now();
                    events->markStopCalled(at);
                    recorder->stopRecording();
                });
                if (!events->waitForStop(kFinishTimeout)) events->fail("the file never finished");
            });
            mainQueue.async([&] {
                const auto at = Clock::now();
                events->markStartCalled(at);
                recorder->startRecording();
            });
            mainQueue.run();  // until recorderDidStop or a failure
            stopper.join();

            const auto s = events->snapshot();
            printTimeline(iteration, s, everyLine);
            if (s.failure) {
                state.SkipWithError(s.failure->c_str());
                break;
            }
            std::error_code ec;
            const auto bytes = fs::file_size(s.outputURL, ec);
            if (ec || bytes == 0) {
                state.SkipWithError("the recording left no file");
                break;
            }
            firstFrameMs.push_back(msBetween(*s.startCalled, *s.firstFrame));
            if (s.didStart) didStartMs.push_back(msBetween(*s.startCalled, *s.didStart));
            finishMs.push_back(msBetween(*s.stopCalled, *s.didStop));
            recordedS.push_back(msBetween(*s.firstFrame, *s.stopCalled) / 1000.0);
            fileMB.push_back(static_cast<double>(bytes) / 1e6);
            fs::remove(s.outputURL, ec);
        }
        if (recorder->hasUnfinishedRecording()) {
            // A failed recording may still run: stop it and let its file finish before the
            // platform goes.
            events->reset();
            mainQueue.async([&] { recorder->stopRecording(); });
            std::jthread watchdog([&] {
                if (!events->waitForStop(kFinishTimeout)) mainQueue.quit();
            });
            mainQueue.run();
        }
        // Work left on the main queue (a stop posted as a recording failed) runs while the
        // recorder is still there.
        mainQueue.quit();
        mainQueue.run();
        // The recorder may still hand lines over while it is destroyed; they go to stdout.
        setLogSink(std::move(previousSink));
        recorder.reset();
    }

    std::error_code ec;
    fs::remove_all(folder, ec);

    reportSpread(state, "start_to_first_frame_ms", firstFrameMs);
    reportSpread(state, "start_to_did_start_ms", didStartMs);
    reportSpread(state, "stop_to_finished_ms", finishMs);
    state.counters["recorded_s_med"] = spreadOf(recordedS).median;
    state.counters["file_MB_med"] = spreadOf(fileMB).median;
    if (!firstFrameMs.empty()) state.counters["first_recording_first_frame_ms"] = firstFrameMs[0];
}

// What a start pays for its screen input (makeScreenInput): the X connection, the shared-memory
// frame pool and one warm-up grab into each buffer, by pool size (the program uses 5) and with
// XShm or XGetImage.
void BM_ScreenSourcePrepare(benchmark::State& state) {
    const auto main = [] {
        auto display = openXDisplay({});
        return display ? findMainDisplay(display.get()) : std::nullopt;
    }();
    if (!main) {
        state.SkipWithError("no X display");
        return;
    }
    X11CaptureOptions options;
    options.poolSize = static_cast<int>(state.range(0));
    options.forceXGetImage = state.range(1) == 1;
    for (auto _ : state) {
        X11ScreenSource source(main->displayID, options);
        const auto started = Clock::now();
        const Result<void> prepared = source.prepare();
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - started).count());
        if (!prepared.ok()) {
            state.SkipWithError(prepared.error().localizedDescription.c_str());
            return;
        }
    }
}

// The X connection alone (with the display lookup the input makes).
void BM_OpenXDisplay(benchmark::State& state) {
    for (auto _ : state) {
        auto display = openXDisplay({});
        if (!display || !findMainDisplay(display.get())) {
            state.SkipWithError("no X display");
            return;
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (std::getenv("DISPLAY") == nullptr) {
        std::fputs("recording_latency_bench: needs $DISPLAY (run bench/recording-latency)\n",
                   stderr);
        return 1;
    }
    installXErrorHandlers();
    benchmark::RegisterBenchmark("BM_RecordingStartStopLatency", BM_RecordingStartStopLatency)
        ->Iterations(envInt("GB_LATENCY_RUNS", 5))
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark("BM_ScreenSourcePrepare", BM_ScreenSourcePrepare)
        ->ArgNames({"pool", "xgetimage"})
        ->Args({5, 0})
        ->Args({2, 0})
        ->Args({5, 1})
        ->Iterations(10)
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime();
    benchmark::RegisterBenchmark("BM_OpenXDisplay", BM_OpenXDisplay)
        ->Iterations(10)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
