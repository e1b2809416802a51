// Screen capture on a private Xvfb at 1920x1080: the time from startRunning to the first frame on
// the recording queue, and the cost of one grabbed frame (this process's CPU, the X server's CPU
// and the wall time per frame when grabbing as fast as possible).
#include <benchmark/benchmark.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>

#include "fakes/xvfb_server.h"
#include "linux/capture/linux_capture_factory.h"
#include "linux/capture/linux_capture_session.h"
#include "portable/thread_dispatch.h"
#include "linux/x11/x11_display.h"
#include "linux/x11/x11_screen_input.h"
#include "recording/log.h"

namespace {

using namespace gb;
using namespace gb::linuxp;

std::unique_ptr<fakes::XvfbServer> gServer;
uint32_t gRootID = 0;

X11CaptureOptions captureOptions() {
    X11CaptureOptions o;
    o.displayName = gServer->displayName();
    return o;
}

// CPU seconds that a process has used (utime + stime from /proc).
double processCpuSeconds(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string content((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    const auto close = content.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream fields(content.substr(close + 2));
    std::string skip;
    for (int i = 0; i < 11; ++i) fields >> skip;  // state .. cmajflt
    long utime = 0;
    long stime = 0;
    fields >> utime >> stime;
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

double ownCpuSeconds() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

class FirstFrameDelegate final : public CaptureOutputDelegate {
public:
    void captureOutput(CaptureOutput&, const SampleBufferRef&) override {
        {
            std::lock_guard lock(mutex_);
            if (!arrived_) arrivedAt_ = std::chrono::steady_clock::now();
            arrived_ = true;
        }
        changed_.notify_all();
    }
    std::chrono::steady_clock::time_point waitForFirst() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return arrived_; });
        return arrivedAt_;
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool arrived_ = false;                             // guarded by mutex_
    std::chrono::steady_clock::time_point arrivedAt_;  // guarded by mutex_
};

void BM_StartToFirstFrame(benchmark::State& state) {
    LinuxCaptureFactory::Parts parts;
    parts.screenInputMaker = LinuxCaptureFactory::x11ScreenInputMaker(captureOptions());
    LinuxCaptureFactory factory(parts);
    auto queue = std::make_shared<ThreadSerialQueue>("glimmerbox.recording");
    for (auto _ : state) {
        auto session = factory.makeSession();
        auto input = factory.makeScreenInput(gRootID);
        if (!input) {
            state.SkipWithError("no screen input");
            return;
        }
        input->setMinFrameDuration(MediaTime::make(1, 30));
        auto output = factory.makeVideoDataOutput();
        auto delegate = std::make_shared<FirstFrameDelegate>();
        output->setSampleBufferDelegate(delegate, queue);
        session->addInput(input);
        session->addOutput(output);

        const auto started = std::chrono::steady_clock::now();
        session->startRunning();
        const auto arrived = delegate->waitForFirst();
        state.SetIterationTime(std::chrono::duration<double>(arrived - started).count());
        session->stopRunning();
    }
}
BENCHMARK(BM_StartToFirstFrame)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(20);

// Grabs back to back (no pacing) and reports the cost of each frame.
void BM_GrabFrame1080p(benchmark::State& state) {
    auto o = captureOptions();
    o.forceXGetImage = state.range(0) == 1;
    o.capturesCursor = state.range(1) == 1;
    X11ScreenSource source(gRootID, o);
    source.setMinFrameDuration(MediaTime::make(1, 1'000'000));
    // Back to back, every frame time is "missed"; that count is no news here.
    LogSink previous = setLogSink([](std::string_view line) {
        if (line.find("frame times: grabbing fell behind") == std::string_view::npos) {
            std::fwrite(line.data(), 1, line.size(), stdout);
            std::fputc('\n', stdout);
        }
    });

    std::mutex mutex;
    std::condition_variable changed;
    uint64_t frames = 0;  // guarded by mutex
    if (!source
             .start([&](const SampleBufferRef&) {
                 {
                     std::lock_guard lock(mutex);
                     ++frames;
                 }
                 changed.notify_all();
             })
             .ok()) {
        state.SkipWithError("capture did not start");
        return;
    }
    {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return frames >= 3; });  // past the start-up
    }
    uint64_t first = 0;
    {
        std::lock_guard lock(mutex);
        first = frames;
    }
    const double ownBefore = ownCpuSeconds();
    const double serverBefore = processCpuSeconds(gServer->pid());
    uint64_t seen = first;
    for (auto _ : state) {
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return frames > seen; });
        seen = frames;
    }
    const double ownCpu = ownCpuSeconds() - ownBefore;
    const double serverCpu = processCpuSeconds(gServer->pid()) - serverBefore;
    source.stop();
    setLogSink(std::move(previous));
    const auto grabbed = static_cast<double>(seen - first);
    state.counters["client_cpu_ms_per_frame"] = ownCpu * 1e3 / grabbed;
    state.counters["server_cpu_ms_per_frame"] = serverCpu * 1e3 / grabbed;
    state.counters["frames"] = grabbed;
    state.SetLabel(std::string(o.forceXGetImage ? "XGetImage" : "XShm") +
                   (o.capturesCursor ? " + cursor" : ""));
}
BENCHMARK(BM_GrabFrame1080p)
    ->Args({0, 1})
    ->Args({0, 0})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond)
    ->Iterations(150)
    ->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    gServer = fakes::XvfbServer::start();
    if (!gServer) return 1;
    {
        auto display = openXDisplay(gServer->displayName());
        auto main = findMainDisplay(display.get());
        if (!main) return 1;
        gRootID = main->displayID;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    gServer.reset();
    return 0;
}
