// `glimmerbox record`: the headless recording command. It parses its options, then drives the
// same ScreenRecorder as the tray application: start, stop at the duration or on request, and
// one line with the saved file's path (or the error's text on standard error).
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/dispatch.h"
#include "platform/files.h"
#include "recording/options.h"
#include "recording/screen_recorder.h"

namespace gb {

// Which screen capture back end records (--capture); none: chosen by the session type.
enum class ScreenCaptureChoice { x11, portal };

struct RecordCommandOptions {
    std::optional<double> durationSeconds;  // none: until stopped
    std::optional<VideoQuality> quality;    // none: the recorder's default
    bool cameraOverlay = true;
    std::optional<CameraOverlayPreset> cameraSize;
    std::optional<CameraPosition> cameraPosition;
    std::optional<std::string> outputDirectory;  // this run only
    bool testCamera = false;
    std::optional<ScreenCaptureChoice> capture;
    bool vscode = false;
    bool help = false;
};

struct RecordCommandParse {
    std::optional<RecordCommandOptions> options;  // set when the arguments are valid
    std::string error;                            // otherwise, what is wrong
};

// `args` are the words after "record".
[[nodiscard]] RecordCommandParse parseRecordCommand(const std::vector<std::string>& args);
[[nodiscard]] std::string recordCommandUsage();

// The user's defaults with the save folder replaced for one run; writes go to the real store.
class RunScopedDefaultsStore final : public DefaultsStore {
public:
    RunScopedDefaultsStore(DefaultsStore& base, std::optional<std::string> saveFolder)
        : base_(base), saveFolder_(std::move(saveFolder)) {}
    [[nodiscard]] std::optional<bool> boolForKey(const std::string& key) const override {
        return base_.boolForKey(key);
    }
    void setBool(bool value, const std::string& key) override { base_.setBool(value, key); }
    [[nodiscard]] std::optional<std::string> urlForKey(const std::string& key) const override;
    void setURL(const std::string& path, const std::string& key) override {
        base_.setURL(path, key);
    }
    [[nodiscard]] std::optional<std::string> stringForKey(const std::string& key) const override {
        return base_.stringForKey(key);
    }
    void setString(const std::string& value, const std::string& key) override {
        base_.setString(value, key);
    }

private:
    DefaultsStore& base_;
    const std::optional<std::string> saveFolder_;
};

// Hooks around the recording for the editor automation (--vscode); both run on the background
// executor and may block.
struct RecordAutomationHooks {
    std::function<void()> beforeStart;
    std::function<void()> afterStop;
};

// One headless recording. All methods run on the main queue, except the delegate reports, which
// the recorder makes on its own threads and this class moves to the main queue.
class HeadlessRecording final : public ScreenRecorderDelegate,
                                public std::enable_shared_from_this<HeadlessRecording> {
public:
    struct Output {
        std::function<void(const std::string&)> line;   // standard output
        std::function<void(const std::string&)> error;  // standard error
    };

    HeadlessRecording(std::shared_ptr<ScreenRecorder> recorder, Dispatch& dispatch,
                      RecordCommandOptions options, Output output, RecordAutomationHooks hooks,
                      std::function<void(int exitCode)> finished);

    // Applies the options and starts the recording.
    void start();
    // Stops the recording (now, or as soon as it has started).
    void requestStop();

    void recorderDidStart() override;
    void recorderDidStop(const std::string& outputURL) override;
    void recorderDidFail(const ScreenRecorderError& error) override;
    void recorderWasInterrupted(const std::string& reason) override;

private:
    enum class Phase { idle, starting, recording, stopping, done };
    void stopNow();
    void finish(int exitCode);

    // Main queue only.
    std::shared_ptr<ScreenRecorder> recorder_;
    Dispatch& dispatch_;
    const RecordCommandOptions options_;
    const Output output_;
    const RecordAutomationHooks hooks_;
    std::function<void(int)> finished_;
    Phase phase_ = Phase::idle;
    bool stopRequested_ = false;
    std::optional<std::string> interruption_;  // why capture ended before it was asked to
    CancellationToken timer_;
    bool automationPending_ = false;
    std::optional<int> exitCode_;
};

}  // namespace gb
