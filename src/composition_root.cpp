// The composition root: the one place that knows every concrete platform class. It builds the
// Linux services, hands them to the recorder and the application, and runs either the tray or a
// headless recording. Everything else sees only the interfaces in src/platform.
#include "composition_root.h"

#include <pthread.h>
#include <signal.h>

#include <QCoreApplication>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "app/app_delegate.h"
#include "app/record_command.h"
#include "app/recorder_assembly.h"
#include "app/recording_control.h"
#include "automation/vscode_integration.h"
#include "linux/ffmpeg/ffmpeg_asset_writer.h"
#include "linux/capture/linux_capture_factory.h"
#include "portable/cpu_image_compositor.h"
#include "portable/standard_sample_maker.h"
#include "portable/thread_dispatch.h"
#include "linux/pulse/pulse_access.h"
#include "linux/pulse/pulse_microphone.h"
#include "linux/desktop/dbus_application.h"
#include "linux/desktop/qt_shell.h"
#include "linux/desktop/qt_status_item.h"
#include "linux/desktop/tray_absence.h"
#include "linux/v4l2/v4l2_camera.h"
#include "linux/x11/x11_application_finder.h"
#include "linux/x11/x11_display.h"
#include "linux/files/xdg_files.h"
#include "linux/x11/xtest_script_runner.h"
#include "linux/wayland/portal_screen_capture.h"
#include "recording/log.h"


namespace {

using namespace gb;
using namespace gb::linuxp;

bool envFlag(const char* name) {
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0' && std::string(v) != "0";
}

bool envSet(const char* name) {
    const char* v = std::getenv(name);
    return v != nullptr && *v != '\0';
}

// Which back end captures the screen, and whether the user named it.
struct CaptureChoice {
    ScreenCaptureChoice backend = ScreenCaptureChoice::x11;
    bool explicitly = false;
};

// --capture, else GLIMMERBOX_CAPTURE, else the session: Wayland records through the portal
// (X11 would only see XWayland's windows), X11 through XShm.
CaptureChoice chooseScreenCapture(std::optional<ScreenCaptureChoice> fromCommand) {
    if (fromCommand) return {*fromCommand, true};
    if (const char* v = std::getenv("GLIMMERBOX_CAPTURE"); v != nullptr && *v != '\0') {
        const std::string value = v;
        if (value == "x11") return {ScreenCaptureChoice::x11, true};
        if (value == "portal") return {ScreenCaptureChoice::portal, true};
        logLine("⚠️ GLIMMERBOX_CAPTURE=" + value + " is neither x11 nor portal; ignoring it");
    }
    const char* session = std::getenv("XDG_SESSION_TYPE");
    const bool wayland =
        (session != nullptr && std::string(session) == "wayland") || envSet("WAYLAND_DISPLAY");
    return {wayland ? ScreenCaptureChoice::portal : ScreenCaptureChoice::x11, false};
}

// The services that both the tray and the headless command record with. Lives on main's stack
// for the whole run; the recorder and everything it makes hold references into it.
class LinuxPlatform {
public:
    LinuxPlatform(SerialQueue& mainQueue, bool testCamera, FolderPicker& folderPicker,
                  CaptureChoice screenCapture)
        : capture_(LinuxCaptureFactory::Parts{
              screenInputMaker(screenCapture),
              [] { return defaultPulseMicrophone(); },
              [testCamera] { return discoverCameras(testCamera); },
          }),
          writers_(writerOptions()),
          pixelBuffers_(std::make_shared<PooledPixelBufferFactory>(kComposedFramesKept)),
          folderPicker_(folderPicker),
          dispatch_(mainQueue) {
        if (screenCapture.backend == ScreenCaptureChoice::portal) {
            // The restore token is the user's, kept in their own settings.
            portal_.emplace(defaults_, &display_, kScreenFramesKept);
            portalDisplay_.emplace(*portal_);
        }
        VSCodeIntegration::configureShared(applicationFinder_, scriptRunner_, dispatch_.sleeper());
    }

    [[nodiscard]] RecorderPlatform recorderPlatform() {
        return RecorderPlatform{dispatch_,     access_,  capture_, display(),
                                writers_,      files_,   defaults(), dates_,
                                folderPicker_, compositor_, *pixelBuffers_, sampleMaker_};
    }

    // Prepares the main display's screen capture in the background, so that the first
    // recording starts without waiting for it.
    void prepareScreenCapture() {
        if (portal_) return;  // asking the portal ahead would show its dialog at launch
        dispatch_.backgroundExecutor().async([this] {
            const auto screen = display_.mainScreen();
            if (!screen) return;
            const auto it = screen->deviceDescription.find(kScreenNumberKey);
            if (it == screen->deviceDescription.end()) return;
            if (const auto* id = std::get_if<uint32_t>(&it->second)) {
                capture_.prepareScreenInput(*id);
            }
        });
    }

    // The portal's stream ending by itself stops the recording like the user's Stop; `stop`
    // runs on the main queue.
    void onScreenStreamEnded(std::function<void()> stop) {
        if (!portal_) return;
        portal_->setStreamEndedHandler([this, stop = std::move(stop)] {
            dispatch_.mainQueue().async(stop);
        });
    }
    // Ends a start that waits for the user's choice in the portal's dialog. Any thread.
    void cancelPendingScreenCapture() {
        if (portal_) portal_->cancelPendingStart();
    }

    Dispatch& dispatch() { return dispatch_; }
    DisplayProvider& display() {
        if (portalDisplay_) return *portalDisplay_;
        return display_;
    }
    FileSystem& files() { return files_; }
    // The store the recorder reads (by default the user's own).
    DefaultsStore& defaults() { return recordingDefaults_ ? *recordingDefaults_ : defaults_; }
    DefaultsStore& userDefaults() { return defaults_; }
    void setRecordingDefaults(DefaultsStore& store) { recordingDefaults_ = &store; }

private:
    // Memory: a 1080p frame is 8 MB. Four screen buffers cover the frame being composed, the
    // newest one and two on their way to the recording queue; two frames waiting for the encoder
    // keep it busy without holding more. A frame that finds no room is dropped, never waited for.
    static constexpr size_t kComposedFramesKept = 3;
    static constexpr int kScreenFramesKept = 4;
    static X11CaptureOptions screenCaptureOptions() {
        X11CaptureOptions options;
        options.poolSize = kScreenFramesKept;
        return options;
    }
    LinuxCaptureFactory::ScreenInputMaker screenInputMaker(CaptureChoice choice) {
        if (choice.backend == ScreenCaptureChoice::portal) {
            // portal_ is made in the constructor's body; the maker runs only at a recording.
            return [this](uint32_t) { return portal_->makeScreenInput(); };
        }
        return LinuxCaptureFactory::x11ScreenInputMaker(screenCaptureOptions(), !choice.explicitly);
    }
    static FfmpegWriterOptions writerOptions() {
        FfmpegWriterOptions options;
        options.videoQueueCapacity = 2;
        return options;
    }

    X11DisplayProvider display_;
    std::optional<PortalScreenCapture> portal_;
    std::optional<PortalDisplayProvider> portalDisplay_;
    LinuxCaptureFactory capture_;
    PulseAccessRequester access_;
    FfmpegAssetWriterFactory writers_;
    XdgFileSystem files_;
    QSettingsDefaultsStore defaults_;
    LocaleDateFormatter dates_;
    CpuImageCompositor compositor_;
    std::shared_ptr<PooledPixelBufferFactory> pixelBuffers_;
    StandardSampleMaker sampleMaker_;
    X11ApplicationFinder applicationFinder_;
    XTestScriptRunner scriptRunner_;
    FolderPicker& folderPicker_;
    DefaultsStore* recordingDefaults_ = nullptr;
    // Last, so it is destroyed first: its threads end before anything their work may use.
    ThreadDispatch dispatch_;
};

// The headless command has no folder picker: choosing a folder is the tray's business.
class NoFolderPicker final : public FolderPicker {
public:
    FolderPickerResult runModal(const FolderPickerOptions&) override { return {}; }
};

// Turns SIGINT/SIGTERM/SIGHUP (a closed terminal) into a stop request on the main queue. The
// signals are blocked in every thread (call block() before any thread starts) and taken here
// with sigwait.
class SignalStopper {
public:
    static void block() {
        sigset_t set = stopSignals();
        pthread_sigmask(SIG_BLOCK, &set, nullptr);
    }
    explicit SignalStopper(std::function<void(int)> onSignal)
        : thread_([this, onSignal = std::move(onSignal)] {
              const sigset_t set = stopSignals();
              for (;;) {
                  int sig = 0;
                  if (sigwait(&set, &sig) != 0) continue;
                  if (done_.load()) return;
                  onSignal(sig);
              }
          }) {}
    ~SignalStopper() {
        done_.store(true);
        pthread_kill(thread_.native_handle(), SIGUSR1);
        thread_.join();
    }

private:
    static sigset_t stopSignals() {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGINT);
        sigaddset(&set, SIGTERM);
        sigaddset(&set, SIGHUP);
        sigaddset(&set, SIGUSR1);  // wakes the thread to end it
        return set;
    }
    std::atomic<bool> done_{false};
    std::thread thread_;
};

}  // namespace

namespace gb {

int runRecord(const std::vector<std::string>& args) {
    const RecordCommandParse parsed = parseRecordCommand(args);
    if (!parsed.options) {
        std::fprintf(stderr, "glimmerbox record: %s\nTry 'glimmerbox record --help'.\n",
                     parsed.error.c_str());
        return 2;
    }
    const RecordCommandOptions& options = *parsed.options;
    if (options.help) {
        std::fputs(recordCommandUsage().c_str(), stdout);
        return 0;
    }
    if (options.outputDirectory) {
        // A folder named on the command line is made if needed (private: recordings hold
        // whatever was on screen).
        std::error_code ec;
        const std::filesystem::path dir = std::filesystem::absolute(*options.outputDirectory, ec);
        // Every folder made on the way is private too, whatever the umask.
        if (auto made = XdgFileSystem().createDirectory(dir.lexically_normal().string(), true);
            !made) {
            std::fprintf(stderr, "glimmerbox record: cannot create the folder %s: %s\n",
                         dir.c_str(), made.error().localizedDescription.c_str());
            return 1;
        }
    }

    SignalStopper::block();
    RunLoopQueue mainQueue;
    NoFolderPicker noPicker;
    LinuxPlatform services(mainQueue, options.testCamera || envFlag("GLIMMERBOX_TEST_CAMERA"),
                           noPicker, chooseScreenCapture(options.capture));
    std::optional<std::string> folder;
    if (options.outputDirectory) {
        folder = std::filesystem::absolute(*options.outputDirectory).lexically_normal().string();
        if (folder->size() > 1 && folder->back() == '/') folder->pop_back();
    }
    // --output holds for this run only; the tray's stored choice stays as it is.
    RunScopedDefaultsStore runDefaults(services.userDefaults(), folder);
    services.setRecordingDefaults(runDefaults);
    auto recorder = makeScreenRecorder(services.recorderPlatform());

    RecordAutomationHooks hooks;
    if (options.vscode) {
        hooks.beforeStart = [] {
            auto& vscode = VSCodeIntegration::shared();
            if (!vscode.findVSCode()) {
                logLine("🔧 VS Code automation: VS Code not running");
                return;
            }
            vscode.enableScreencastMode();
            logLine("🔧 VS Code automation: Enabled screencast mode");
        };
        hooks.afterStop = [] {
            VSCodeIntegration::shared().disableScreencastMode();
            logLine("🔧 VS Code automation: Disabled screencast mode");
        };
    }

    int exitCode = 1;
    auto recording = std::make_shared<HeadlessRecording>(
        recorder, services.dispatch(), options,
        HeadlessRecording::Output{[](const std::string& line) { logLine(line); },
                                  [](const std::string& line) {
                                      std::fprintf(stderr, "%s\n", line.c_str());
                                      std::fflush(stderr);
                                  }},
        hooks,
        [&](int code) {
            exitCode = code;
            mainQueue.quit();
        });
    services.onScreenStreamEnded([weak = std::weak_ptr<HeadlessRecording>(recording)] {
        if (auto r = weak.lock()) r->requestStop();
    });
    SignalStopper stopper([&mainQueue, &services,
                           weak = std::weak_ptr<HeadlessRecording>(recording)](int) {
        services.cancelPendingScreenCapture();
        mainQueue.async([weak] {
            if (auto r = weak.lock()) r->requestStop();
        });
    });
    mainQueue.async([recording] { recording->start(); });
    mainQueue.run();
    return exitCode;
}

int runTray(int argc, char** argv) {
    if (const auto problem = QtShell::displayProblem()) {
        std::fprintf(stderr, "glimmerbox: no display to show the tray on: %s\n", problem->c_str());
        return 1;
    }
    SignalStopper::block();
    auto shell = QtShell::launch(argc, argv);
    if (!shell) {
        // Another copy runs: bring it forward (its menu opens) instead of starting a second.
        (void)runControlRequest(ControlRequest::activate);
        return 0;
    }
    LinuxPlatform services(shell->mainQueue(), envFlag("GLIMMERBOX_TEST_CAMERA"),
                           shell->folderPicker(), chooseScreenCapture(std::nullopt));
    auto delegate = std::make_shared<AppDelegate>(
        AppDelegate::Platform{shell->application(), shell->statusBar(), shell->windowSystem(),
                              shell->alertPresenter(), shell->workspace(),
                              shell->notificationCenter(), services.defaults(), services.files(),
                              services.dispatch(), services.display()},
        [&services] { return makeScreenRecorder(services.recorderPlatform()); });
    // Launchers, keyboard shortcuts and scripts reach the recording through the session bus.
    const std::weak_ptr<AppDelegate> weakDelegate = delegate;
    auto control = std::make_shared<RecordingControl>(RecordingControl::Flows{
        [weakDelegate] {
            if (auto d = weakDelegate.lock()) d->startRecording();
        },
        [weakDelegate] {
            if (auto d = weakDelegate.lock()) d->stopRecording();
        }});
    delegate->setLifecycleObserver(control);
    DBusApplication onBus(*control, [weakDelegate] {
        const auto d = weakDelegate.lock();
        if (auto* item = d ? dynamic_cast<QtStatusItem*>(d->statusItem().get()) : nullptr) {
            item->popUpMenu();
        }
    });
    shell->mainQueue().async([delegate, &onBus] {
        delegate->applicationDidFinishLaunching();
        if (!onBus.publish()) {
            logLine("⚠️ Glimmerbox: " + onBus.failure() +
                    "; the launcher's actions and glimmerbox start|stop|toggle|status cannot "
                    "reach this copy");
        }
    });
    // Without a tray host, say once how to control the program instead.
    whenNoTrayHost(std::chrono::seconds(2), [&shell] {
        explainControlWithoutTray(shell->notificationCenter(),
                                  [](const std::string& line) { logLine(line); });
    });
    services.onScreenStreamEnded([weak = std::weak_ptr<AppDelegate>(delegate)] {
        if (auto d = weak.lock(); d && d->recorder() && d->recorder()->isRecording()) {
            d->stopRecording();
        }
    });
    services.prepareScreenCapture();
    // SIGINT/SIGTERM/SIGHUP quit like "Quit Glimmerbox": a running recording is stopped and finished.
    SignalStopper stopper([&shell, &services, weak = std::weak_ptr<AppDelegate>(delegate)](int) {
        services.cancelPendingScreenCapture();
        shell->mainQueue().async([weak] {
            if (auto d = weak.lock()) d->quitApp();
        });
    });
    const int status = shell->run();

    // Quitting while recording asks the recorder to stop and ends the event loop at once; the
    // file is still being finished. Keep serving the main queue until it is, so that quitting
    // never costs the recording its index.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (delegate->recorder() && delegate->recorder()->hasUnfinishedRecording() &&
           std::chrono::steady_clock::now() < deadline) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    // Every recording is finished and the settings are written as they change. Work still queued
    // between the event loop, the threads and the services could otherwise outlive what it
    // uses while they are torn down, so end here.
    std::fflush(nullptr);
    std::_Exit(status);
}

}  // namespace gb

std::optional<int> gb::runControl(const std::string& command) {
    if (command == "start") return runControlRequest(ControlRequest::start);
    if (command == "stop") return runControlRequest(ControlRequest::stop);
    if (command == "toggle") return runControlRequest(ControlRequest::toggle);
    if (command == "status") return runControlRequest(ControlRequest::status);
    return std::nullopt;
}

void gb::installPlatformErrorHandlers() { gb::linuxp::installXErrorHandlers(); }
