#include "app/record_command.h"

#include <charconv>
#include <chrono>
#include <cmath>

#include "recording/log.h"

namespace gb {
namespace {

const char* const kCustomSaveLocationKey = "customSaveLocation";

std::optional<VideoQuality> parseQuality(const std::string& s) {
    if (s == "medium") return VideoQuality::medium;
    if (s == "high") return VideoQuality::high;
    if (s == "ultra") return VideoQuality::ultra;
    if (s == "screen") return VideoQuality::screenResolution;
    return std::nullopt;
}

std::optional<CameraOverlayPreset> parseSize(const std::string& s) {
    if (s == "small") return CameraOverlayPreset::small;
    if (s == "medium") return CameraOverlayPreset::medium;
    if (s == "large") return CameraOverlayPreset::large;
    return std::nullopt;
}

std::optional<CameraPosition> parsePosition(const std::string& s) {
    if (s == "top-left") return CameraPosition::topLeft;
    if (s == "top-right") return CameraPosition::topRight;
    if (s == "bottom-left") return CameraPosition::bottomLeft;
    if (s == "bottom-right") return CameraPosition::bottomRight;
    return std::nullopt;
}

std::optional<double> parseSeconds(const std::string& s) {
    double value = 0;
    const char* end = s.data() + s.size();
    auto [ptr, ec] = std::from_chars(s.data(), end, value);
    if (ec != std::errc() || ptr != end || !std::isfinite(value) || value <= 0 ||
        value > 24 * 3600) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::string recordCommandUsage() {
    return "Usage: glimmerbox record [options]\n"
           "\n"
           "Records the main display and the default microphone into a QuickTime movie\n"
           "(H.264 + AAC) and prints the saved file's path as the last line.\n"
           "Stops after --duration, or on Ctrl-C (SIGINT) or SIGTERM, always finishing the file.\n"
           "\n"
           "Options:\n"
           "  --duration SECONDS        stop after this many seconds (default: until stopped)\n"
           "  --quality medium|high|ultra|screen\n"
           "                            720p, 1080p, 1440p or the screen's own size (default)\n"
           "  --no-camera               record without the camera overlay\n"
           "  --camera-size small|medium|large\n"
           "                            overlay size 240x135, 320x180 (default) or 480x270\n"
           "  --camera-position top-left|top-right|bottom-left|bottom-right\n"
           "                            overlay corner (default: bottom-right)\n"
           "  --output DIR              save into DIR for this run (default: the tray's\n"
           "                            choice, else Documents/Glimmerbox Recordings)\n"
           "  --capture x11|portal      screen capture through X11 or the desktop's ScreenCast\n"
           "                            portal (default: the portal in a Wayland session)\n"
           "  --test-camera             add a synthetic test camera (for demos and tests)\n"
           "  --vscode                  switch VS Code's screencast mode on and off around\n"
           "                            the recording\n"
           "  -h, --help                show this help\n"
           "\n"
           "Exit status: 0 when the file was saved, 1 when recording failed, 2 for bad options.\n";
}

RecordCommandParse parseRecordCommand(const std::vector<std::string>& args) {
    RecordCommandOptions o;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        std::string name = arg;
        std::optional<std::string> value;
        if (const auto eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
        }
        auto needValue = [&]() -> std::optional<std::string> {
            if (value) return value;
            if (i + 1 < args.size()) return args[++i];
            return std::nullopt;
        };
        auto fail = [&](const std::string& why) { return RecordCommandParse{std::nullopt, why}; };

        if (name == "-h" || name == "--help") {
            o.help = true;
        } else if (name == "--no-camera") {
            o.cameraOverlay = false;
        } else if (name == "--test-camera") {
            o.testCamera = true;
        } else if (name == "--vscode") {
            o.vscode = true;
        } else if (name == "--duration") {
            auto v = needValue();
            if (!v) return fail("--duration needs a number of seconds");
            auto seconds = parseSeconds(*v);
            if (!seconds) return fail("--duration: '" + *v + "' is not a positive number of seconds");
            o.durationSeconds = seconds;
        } else if (name == "--quality") {
            auto v = needValue();
            if (!v) return fail("--quality needs one of medium, high, ultra, screen");
            o.quality = parseQuality(*v);
            if (!o.quality) return fail("--quality: '" + *v + "' is not one of medium, high, ultra, screen");
        } else if (name == "--camera-size") {
            auto v = needValue();
            if (!v) return fail("--camera-size needs one of small, medium, large");
            o.cameraSize = parseSize(*v);
            if (!o.cameraSize) return fail("--camera-size: '" + *v + "' is not one of small, medium, large");
        } else if (name == "--camera-position") {
            auto v = needValue();
            if (!v) return fail("--camera-position needs one of top-left, top-right, bottom-left, bottom-right");
            o.cameraPosition = parsePosition(*v);
            if (!o.cameraPosition) {
                return fail("--camera-position: '" + *v +
                            "' is not one of top-left, top-right, bottom-left, bottom-right");
            }
        } else if (name == "--capture") {
            auto v = needValue();
            if (v && *v == "x11") {
                o.capture = ScreenCaptureChoice::x11;
            } else if (v && *v == "portal") {
                o.capture = ScreenCaptureChoice::portal;
            } else {
                return fail("--capture needs one of x11, portal");
            }
        } else if (name == "--output") {
            auto v = needValue();
            if (!v || v->empty()) return fail("--output needs a folder");
            o.outputDirectory = *v;
        } else {
            return fail("unknown option '" + arg + "'");
        }
    }
    return RecordCommandParse{o, {}};
}

std::optional<std::string> RunScopedDefaultsStore::urlForKey(const std::string& key) const {
    if (key == kCustomSaveLocationKey && saveFolder_) return saveFolder_;
    return base_.urlForKey(key);
}

HeadlessRecording::HeadlessRecording(std::shared_ptr<ScreenRecorder> recorder, Dispatch& dispatch,
                                     RecordCommandOptions options, Output output,
                                     RecordAutomationHooks hooks,
                                     std::function<void(int exitCode)> finished)
    : recorder_(std::move(recorder)),
      dispatch_(dispatch),
      options_(std::move(options)),
      output_(std::move(output)),
      hooks_(std::move(hooks)),
      finished_(std::move(finished)) {}

void HeadlessRecording::start() {
    // The same option writes as the tray's menu actions.
    if (options_.quality) recorder_->setVideoQuality(*options_.quality);
    recorder_->setCameraOverlayEnabled(options_.cameraOverlay);
    recorder_->captureSessionManager().setCameraOverlayEnabled(options_.cameraOverlay);
    recorder_->videoComposer().setCameraOverlayEnabled(options_.cameraOverlay);
    if (options_.cameraSize) {
        recorder_->setCameraOverlayPreset(*options_.cameraSize);
        recorder_->captureSessionManager().setCameraOverlayPreset(*options_.cameraSize);
        recorder_->videoComposer().setCameraOverlayPreset(*options_.cameraSize);
    }
    if (options_.cameraPosition) {
        recorder_->setCameraPosition(*options_.cameraPosition);
        recorder_->videoComposer().setCameraPosition(*options_.cameraPosition);
    }
    recorder_->setDelegate(weak_from_this());
    phase_ = Phase::starting;
    if (hooks_.beforeStart) {
        // Like the tray, the editor is switched without holding up the recording's start.
        dispatch_.backgroundExecutor().async(hooks_.beforeStart);
    }
    recorder_->startRecording();
}

void HeadlessRecording::requestStop() {
    switch (phase_) {
        case Phase::idle:
        case Phase::starting:
            // Stopping before the recording runs would be ignored by the recorder; remember it.
            stopRequested_ = true;
            return;
        case Phase::recording:
            stopNow();
            return;
        case Phase::stopping:
        case Phase::done:
            return;
    }
}

void HeadlessRecording::stopNow() {
    phase_ = Phase::stopping;
    timer_.cancel();
    recorder_->stopRecording();
    if (hooks_.afterStop) {
        // The program exits once the file is saved; wait for the editor to be switched back.
        automationPending_ = true;
        std::weak_ptr<HeadlessRecording> weak = weak_from_this();
        auto hook = hooks_.afterStop;
        Dispatch& d = dispatch_;
        d.backgroundExecutor().async([weak, hook, &d] {
            hook();
            d.mainQueue().async([weak] {
                auto s = weak.lock();
                if (!s) return;
                s->automationPending_ = false;
                if (s->exitCode_) s->finish(*s->exitCode_);
            });
        });
    }
}

void HeadlessRecording::recorderDidStart() {
    auto self = shared_from_this();
    dispatch_.mainQueue().async([self] {
        if (self->phase_ != Phase::starting) return;
        self->phase_ = Phase::recording;
        if (self->stopRequested_) {
            self->stopNow();
            return;
        }
        if (!self->options_.durationSeconds) return;
        // The recorder reports its start 0.1 s after capture began; the file's timeline starts
        // with the first sample, so the pause counts toward the duration.
        const auto total = std::chrono::duration<double>(*self->options_.durationSeconds);
        const auto remaining = std::chrono::duration_cast<std::chrono::nanoseconds>(
            total - std::chrono::milliseconds(100));
        CancellationToken timer = self->timer_;
        std::weak_ptr<HeadlessRecording> weak = self;
        self->dispatch_.backgroundExecutor().async([weak, timer, remaining, &d = self->dispatch_] {
            if (!d.sleeper().sleep(std::max(remaining, std::chrono::nanoseconds(0)), timer)) return;
            d.mainQueue().async([weak] {
                if (auto s = weak.lock()) s->requestStop();
            });
        });
    });
}

void HeadlessRecording::recorderDidStop(const std::string& outputURL) {
    auto self = shared_from_this();
    dispatch_.mainQueue().async([self, outputURL] {
        self->output_.line(outputURL);
        // The file holds what was captured, but the recording did not run as asked.
        if (self->interruption_) {
            self->output_.error("Recording stopped early: " + *self->interruption_);
        }
        self->finish(self->interruption_ ? 1 : 0);
    });
}

void HeadlessRecording::recorderWasInterrupted(const std::string& reason) {
    interruption_ = reason;
}

void HeadlessRecording::recorderDidFail(const ScreenRecorderError& error) {
    auto self = shared_from_this();
    std::string text = error.errorDescription();
    const std::string reason = error.reason();
    dispatch_.mainQueue().async([self, text, reason] {
        self->output_.error(text);
        if (!reason.empty()) self->output_.error(reason);
        self->finish(1);
    });
}

void HeadlessRecording::finish(int exitCode) {
    if (phase_ == Phase::done) return;
    exitCode_ = exitCode;
    if (automationPending_) return;
    phase_ = Phase::done;
    timer_.cancel();
    if (finished_) finished_(exitCode);
}

}  // namespace gb
