// The recorder's platform in memory, around the real engine: capture sessions that count their
// calls and flag overlapping ones, devices, outputs that deliver through their queue like the
// platform, a writer that records what it was given and can hold or fail its finish, access
// answers, settings, a fixed date, and real folders in a temporary directory. RecorderWorld wires
// the real permission manager, capture session manager, composer (CPU compositor) and file
// manager over them. All thread-safe.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "capture/capture_session_manager.h"
#include "composition/video_composer.h"
#include "fakes/log_capture.h"
#include "fakes/test_environment.h"
#include "platform/access.h"
#include "platform/asset_writer.h"
#include "platform/capture.h"
#include "platform/display.h"
#include "platform/files.h"
#include "platform/user_interface.h"
#include "portable/cpu_image_compositor.h"
#include "portable/standard_sample_maker.h"
#include "recording/errors.h"
#include "recording/permission_manager.h"
#include "recording/recording_file_manager.h"
#include "recording/screen_recorder.h"

namespace gb::fakes {

// A main display of the given size in points (display identifier 1), or none.
class FakeDisplayProvider final : public DisplayProvider {
public:
    [[nodiscard]] std::optional<MainScreen> mainScreen() const override {
        std::lock_guard lock(mutex_);
        return screen_;
    }
    void setScreen(std::optional<MainScreen> screen) {
        std::lock_guard lock(mutex_);
        screen_ = std::move(screen);
    }

private:
    mutable std::mutex mutex_;
    std::optional<MainScreen> screen_ = MainScreen{1920, 1080, {{kScreenNumberKey, uint32_t{1}}}};
};

// Answers per media type (refused unless granted); `dropAnswers` drops the completion unanswered.
class FakeAccessRequester final : public AccessRequester {
public:
    void requestAccess(MediaType type, std::function<void(bool)> completion) override {
        std::unique_lock lock(mutex_);
        requests.push_back(type);
        const bool granted = answers[type], drop = dropAnswers;
        lock.unlock();
        if (!drop) completion(granted);
    }
    // Set before use.
    std::map<MediaType, bool> answers{{MediaType::audio, true}, {MediaType::video, true}};
    bool dropAnswers = false;
    std::vector<MediaType> requests;

private:
    std::mutex mutex_;
};

class FakeDeviceInput final : public ScreenInput {
public:
    explicit FakeDeviceInput(MediaType type) : type_(type) {}
    [[nodiscard]] MediaType mediaType() const override { return type_; }
    void setMinFrameDuration(MediaTime) override {}

private:
    const MediaType type_;
};

// Remembers its delegate and queue; deliver() posts the sample to the queue like the platform.
template <class Base>
class FakeDataOutput : public Base, public std::enable_shared_from_this<FakeDataOutput<Base>> {
public:
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                 std::shared_ptr<SerialQueue> queue) override {
        std::lock_guard lock(mutex_);
        delegate_ = std::move(delegate);
        queue_ = std::move(queue);
    }
    void storeSettings(const VideoOutputSettings& settings) {
        std::lock_guard lock(mutex_);
        settings_ = settings;
    }
    // Delegate set (and, for video, the settings) before it was added to a session.
    [[nodiscard]] bool ready() const {
        std::lock_guard lock(mutex_);
        return queue_ && (this->mediaType() == MediaType::audio || settings_);
    }
    void deliver(const SampleBufferRef& sample) {
        std::lock_guard lock(mutex_);
        if (!queue_) return;
        queue_->async([delegate = delegate_, self = this->shared_from_this(), sample] {
            if (auto d = delegate.lock()) d->captureOutput(*self, sample);
        });
    }

private:
    mutable std::mutex mutex_;
    std::weak_ptr<CaptureOutputDelegate> delegate_;  // guarded by mutex_
    std::shared_ptr<SerialQueue> queue_;             // guarded by mutex_
    std::optional<VideoOutputSettings> settings_;    // guarded by mutex_
};

class FakeVideoDataOutput final : public FakeDataOutput<VideoDataOutput> {
public:
    void setVideoSettings(const VideoOutputSettings& s) override { storeSettings(s); }
};
using FakeAudioDataOutput = FakeDataOutput<AudioDataOutput>;

// The can-add answers come from `refuse` ("input video", "output audio", ...). Counts changes
// outside a transaction, outputs added before their delegate, and calls that overlap in time (the
// capture contract forbids them).
class FakeCaptureSession final : public CaptureSession {
public:
    void beginConfiguration() override { ++open_; }
    void commitConfiguration() override { --open_; }
    bool canAddInput(const std::shared_ptr<CaptureInput>& in) override {
        return canAdd("input ", in->mediaType());
    }
    bool canAddOutput(const std::shared_ptr<CaptureOutput>& out) override {
        return canAdd("output ", out->mediaType());
    }
    void addInput(std::shared_ptr<CaptureInput> in) override { change(inputs_, in, true); }
    void addOutput(std::shared_ptr<CaptureOutput> out) override {
        const auto* v = dynamic_cast<FakeVideoDataOutput*>(out.get());
        const auto* a = dynamic_cast<FakeAudioDataOutput*>(out.get());
        if (!(v ? v->ready() : a && a->ready())) ++outputsWithoutDelegate;
        change(outputs_, out, true);
    }
    void removeInput(const std::shared_ptr<CaptureInput>& in) override { change(inputs_, in, false); }
    void removeOutput(const std::shared_ptr<CaptureOutput>& out) override {
        change(outputs_, out, false);
    }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureInput>> inputs() const override {
        std::lock_guard lock(mutex_);
        return inputs_;
    }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureOutput>> outputs() const override {
        std::lock_guard lock(mutex_);
        return outputs_;
    }
    void startRunning() override { run(true); }
    void stopRunning() override { run(false); }
    [[nodiscard]] bool isRunning() const override { return running_; }

    std::vector<std::string> refuse;  // set before use
    std::atomic<int> starts{0}, changesOutsideTransaction{0}, outputsWithoutDelegate{0};
    std::atomic<bool> overlappingCallSeen{false};

private:
    struct Scope {
        explicit Scope(std::atomic<int>& n) : n_(n) { overlap = n_.fetch_add(1) != 0; }
        ~Scope() { n_.fetch_sub(1); }
        std::atomic<int>& n_;
        bool overlap;
    };
    bool canAdd(const std::string& what, MediaType type) {
        const std::string name = what + (type == MediaType::video ? "video" : "audio");
        return std::find(refuse.begin(), refuse.end(), name) == refuse.end();
    }
    template <class T>
    void change(std::vector<std::shared_ptr<T>>& list, const std::shared_ptr<T>& item, bool add) {
        Scope scope(inCall_);
        if (scope.overlap) overlappingCallSeen = true;
        std::lock_guard lock(mutex_);
        if (add) {
            if (open_ == 0) ++changesOutsideTransaction;
            list.push_back(item);
        } else {
            std::erase(list, item);
        }
    }
    void run(bool start) {
        Scope scope(inCall_);
        if (scope.overlap) overlappingCallSeen = true;
        running_ = start;
        starts += start;
    }
    std::atomic<int> inCall_{0}, open_{0};
    std::atomic<bool> running_{false};
    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<CaptureInput>> inputs_;    // guarded by mutex_
    std::vector<std::shared_ptr<CaptureOutput>> outputs_;  // guarded by mutex_
};

// A 720p camera or a microphone; keeps the format it was set to.
class FakeCaptureDevice final : public CaptureDevice {
public:
    explicit FakeCaptureDevice(MediaType type) : type_(type) {
        if (type == MediaType::video)
            info_ = {"USB Camera", "usb-1", 0, true, false, {{1280, 720}}, 0};
    }
    [[nodiscard]] MediaType mediaType() const override { return type_; }
    [[nodiscard]] CameraDeviceInfo info() const override {
        std::lock_guard lock(mutex_);
        return info_;
    }
    Result<void> lockForConfiguration() override { return {}; }
    void setActiveFormat(int index) override {
        std::lock_guard lock(mutex_);
        info_.activeFormatIndex = index;
    }
    void unlockForConfiguration() override {}

private:
    const MediaType type_;
    mutable std::mutex mutex_;
    CameraDeviceInfo info_;  // guarded by mutex_
};

// Hands out fake sessions, inputs and outputs and remembers them. Set the switches before use.
class FakeCaptureFactory final : public CaptureFactory {
public:
    std::shared_ptr<CaptureSession> makeSession() override {
        return remember(sessions, std::make_shared<FakeCaptureSession>());
    }
    std::shared_ptr<ScreenInput> makeScreenInput(uint32_t) override {
        return screenCaptureAllowed ? std::make_shared<FakeDeviceInput>(MediaType::video) : nullptr;
    }
    CaptureDeviceRef defaultAudioDevice() override { return microphone; }
    std::vector<CaptureDeviceRef> discoverVideoDevices() override {
        return {cameras.begin(), cameras.end()};
    }
    Result<std::shared_ptr<CaptureInput>> makeDeviceInput(const CaptureDeviceRef& device) override {
        if (device->mediaType() == MediaType::audio && microphoneError) return *microphoneError;
        return std::shared_ptr<CaptureInput>(std::make_shared<FakeDeviceInput>(device->mediaType()));
    }
    std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override {
        return remember(videoOutputs, std::make_shared<FakeVideoDataOutput>());
    }
    std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override {
        return remember(audioOutputs, std::make_shared<FakeAudioDataOutput>());
    }
    // The newest output of the kind: 0 the last made, 1 the one before.
    template <class T>
    std::shared_ptr<T> latest(const std::vector<std::shared_ptr<T>>& list, size_t back = 0) {
        std::lock_guard lock(mutex_);
        return list.size() > back ? list[list.size() - 1 - back] : nullptr;
    }

    bool screenCaptureAllowed = true;
    std::shared_ptr<FakeCaptureDevice> microphone =
        std::make_shared<FakeCaptureDevice>(MediaType::audio);
    std::optional<PlatformError> microphoneError;
    std::vector<std::shared_ptr<FakeCaptureDevice>> cameras{
        std::make_shared<FakeCaptureDevice>(MediaType::video)};
    // Made so far (read them after the calls that make them, or through latest()).
    std::vector<std::shared_ptr<FakeCaptureSession>> sessions;
    std::vector<std::shared_ptr<FakeVideoDataOutput>> videoOutputs;
    std::vector<std::shared_ptr<FakeAudioDataOutput>> audioOutputs;

private:
    template <class T>
    std::shared_ptr<T> remember(std::vector<std::shared_ptr<T>>& list, std::shared_ptr<T> item) {
        std::lock_guard lock(mutex_);
        list.push_back(item);
        return item;
    }
    std::mutex mutex_;
};

class FakeAssetWriterInput final : public AssetWriterInput {
public:
    FakeAssetWriterInput(MediaType type, WriterOutputSettings settings)
        : type_(type), settings_(std::move(settings)) {}
    [[nodiscard]] MediaType mediaType() const override { return type_; }
    [[nodiscard]] const WriterOutputSettings& outputSettings() const override { return settings_; }
    void setExpectsMediaDataInRealTime(bool) override {}
    [[nodiscard]] bool isReadyForMoreMediaData() const override { return true; }
    bool append(const SampleBufferRef& sample) override {
        std::lock_guard lock(mutex_);
        appendsAfterFinish += finished_;
        appended_.push_back(sample);
        return true;
    }
    void markAsFinished() override {
        std::lock_guard lock(mutex_);
        finished_ = true;
    }
    [[nodiscard]] std::vector<SampleBufferRef> appended() const {
        std::lock_guard lock(mutex_);
        return appended_;
    }
    std::atomic<int> appendsAfterFinish{0};

private:
    const MediaType type_;
    const WriterOutputSettings settings_;
    mutable std::mutex mutex_;
    bool finished_ = false;                  // guarded by mutex_
    std::vector<SampleBufferRef> appended_;  // guarded by mutex_
};

// How the factory sets up each writer it makes.
struct FakeWriterConfig {
    bool canAddAudioInput = true;
    std::optional<PlatformError> startError = std::nullopt;  // startWriting fails with it
    bool holdFinish = false;  // keep the finishWriting completion until releaseFinish()
    std::optional<PlatformError> finishError = std::nullopt;  // the finish fails with it
};

// Writes its file on start (so name collisions are real).
class FakeAssetWriter final : public AssetWriter {
public:
    FakeAssetWriter(std::string path, FakeWriterConfig config)
        : path_(std::move(path)), config_(std::move(config)) {}
    [[nodiscard]] AssetWriterStatus status() const override { return status_; }
    [[nodiscard]] std::optional<PlatformError> error() const override {
        std::lock_guard lock(mutex_);
        return error_;
    }
    [[nodiscard]] bool canAddInput(const AssetWriterInputRef& input) const override {
        return input->mediaType() == MediaType::video || config_.canAddAudioInput;
    }
    void addInput(AssetWriterInputRef) override {}
    bool startWriting() override {
        std::lock_guard lock(mutex_);
        error_ = config_.startError;
        status_ = error_ ? AssetWriterStatus::failed : AssetWriterStatus::writing;
        if (!error_) std::ofstream(path_) << "written by writer " << this;
        return !error_;
    }
    void startSessionAtSourceTime(MediaTime time) override {
        std::lock_guard lock(mutex_);
        sessionStarts.push_back(time);
    }
    void finishWriting(std::function<void()> completion) override {
        ++finishCalls;
        {
            std::lock_guard lock(mutex_);
            held_ = std::move(completion);
        }
        if (!config_.holdFinish) releaseFinish();
    }
    // Runs a held finishWriting completion on the calling thread; false when none is held.
    bool releaseFinish() {
        std::function<void()> completion;
        {
            std::lock_guard lock(mutex_);
            completion = std::exchange(held_, nullptr);
            error_ = config_.finishError;
        }
        if (!completion) return false;
        status_ = config_.finishError ? AssetWriterStatus::failed : AssetWriterStatus::completed;
        completion();
        return true;
    }
    [[nodiscard]] bool isFinishHeld() const {
        std::lock_guard lock(mutex_);
        return static_cast<bool>(held_);
    }
    std::vector<MediaTime> sessionStarts;  // guarded by mutex_
    std::atomic<int> finishCalls{0};

private:
    const std::string path_;
    const FakeWriterConfig config_;
    std::atomic<AssetWriterStatus> status_{AssetWriterStatus::unknown};
    mutable std::mutex mutex_;
    std::optional<PlatformError> error_;  // guarded by mutex_
    std::function<void()> held_;          // guarded by mutex_
};

// A writer can only be made in an existing folder.
class FakeAssetWriterFactory final : public AssetWriterFactory {
public:
    Result<AssetWriterRef> makeWriter(const std::string& path, FileType) override {
        std::lock_guard lock(mutex_);
        if (makeWriterError) return *makeWriterError;
        const auto folder = std::filesystem::path(path).parent_path().string();
        if (!std::filesystem::is_directory(folder))
            return PlatformError{"Files", 4, "The folder \u201C" + folder + "\u201D doesn\u2019t exist."};
        writers.push_back(std::make_shared<FakeAssetWriter>(path, config));
        return AssetWriterRef(writers.back());
    }
    AssetWriterInputRef makeInput(MediaType type, const WriterOutputSettings& settings) override {
        std::lock_guard lock(mutex_);
        inputs.push_back(std::make_shared<FakeAssetWriterInput>(type, settings));
        return inputs.back();
    }
    std::shared_ptr<FakeAssetWriter> lastWriter() {
        std::lock_guard lock(mutex_);
        return writers.empty() ? nullptr : writers.back();
    }
    // The input of that type made last.
    std::shared_ptr<FakeAssetWriterInput> lastInput(MediaType type) {
        std::lock_guard lock(mutex_);
        for (auto it = inputs.rbegin(); it != inputs.rend(); ++it)
            if ((*it)->mediaType() == type) return *it;
        return nullptr;
    }
    std::vector<std::shared_ptr<FakeAssetWriterInput>> allInputs() {
        std::lock_guard lock(mutex_);
        return inputs;
    }
    void setConfig(FakeWriterConfig c) {
        std::lock_guard lock(mutex_);
        config = std::move(c);
    }
    std::optional<PlatformError> makeWriterError;  // set before use

private:
    std::mutex mutex_;
    FakeWriterConfig config;                                     // guarded by mutex_
    std::vector<std::shared_ptr<FakeAssetWriter>> writers;       // guarded by mutex_
    std::vector<std::shared_ptr<FakeAssetWriterInput>> inputs;  // guarded by mutex_
};

// Real folders under a temporary directory; Documents is <temp>/Documents unless changed.
class TempFileSystem final : public FileSystem {
public:
    [[nodiscard]] std::optional<std::string> documentsDirectory() const override { return documents; }
    Result<void> createDirectory(const std::string& path, bool intermediates) override {
        std::error_code e;
        intermediates ? std::filesystem::create_directories(path, e)
                      : std::filesystem::create_directory(path, e);
        if (e) return PlatformError{"Files", e.value(), e.message()};
        return {};
    }
    [[nodiscard]] bool fileExists(const std::string& path) const override {
        return std::filesystem::exists(path);
    }
    Result<void> removeItem(const std::string& path) override {
        std::error_code e;
        if (!std::filesystem::remove(path, e)) return PlatformError{"Files", e.value(), "not removed"};
        return {};
    }
    TempDirectory root;
    std::optional<std::string> documents = root / "Documents";
};

// Settings in memory; a value stored under a key with another type reads as absent. Texts and
// folder URLs are both strings.
class FakeDefaultsStore final : public DefaultsStore {
public:
    std::optional<bool> boolForKey(const std::string& key) const override { return get<bool>(key); }
    void setBool(bool value, const std::string& key) override { set(key, value); }
    std::optional<std::string> urlForKey(const std::string& key) const override {
        return get<std::string>(key);
    }
    void setURL(const std::string& path, const std::string& key) override { set(key, path); }
    std::optional<std::string> stringForKey(const std::string& key) const override {
        return get<std::string>(key);
    }
    void setString(const std::string& value, const std::string& key) override { set(key, value); }

private:
    template <class T>
    std::optional<T> get(const std::string& key) const {
        std::lock_guard lock(mutex_);
        const auto it = values_.find(key);
        if (it == values_.end() || !std::holds_alternative<T>(it->second)) return std::nullopt;
        return std::get<T>(it->second);
    }
    void set(const std::string& key, std::variant<bool, std::string> value) {
        std::lock_guard lock(mutex_);
        values_[key] = std::move(value);
    }
    mutable std::mutex mutex_;
    std::map<std::string, std::variant<bool, std::string>> values_;  // guarded by mutex_
};

// now() is a fixed date that format() turns into a fixed text.
class FakeDateFormatter final : public DateFormatter {
public:
    std::chrono::system_clock::time_point now() const override { return kNow; }
    static constexpr std::chrono::system_clock::time_point kNow{std::chrono::seconds(1741944413)};
    std::string format(const std::string& pattern,
                       std::chrono::system_clock::time_point date) const override {
        return pattern == "yyyy-MM-dd_HH-mm-ss" && date == kNow ? "2025-03-14_09-26-53" : "?";
    }
};

class FakeFolderPicker final : public FolderPicker {
public:
    FolderPickerResult runModal(const FolderPickerOptions&) override { return result; }
    FolderPickerResult result{0, std::nullopt};
};

// Records every report of the recorder.
class FakeRecorderDelegate final : public ScreenRecorderDelegate {
public:
    struct Report {
        std::string kind;  // "start", "stop <path>" or "fail"
        std::string description;
        std::optional<ScreenRecorderError::Kind> errorKind;
    };
    void recorderDidStart() override { add({"start", {}, {}}); }
    void recorderDidStop(const std::string& url) override { add({"stop " + url, {}, {}}); }
    void recorderDidFail(const ScreenRecorderError& e) override {
        add({"fail", e.localizedDescription(), e.kind()});
    }
    std::vector<Report> reports() const {
        std::lock_guard lock(mutex_);
        return reports_;
    }
    std::vector<std::string> kinds() const {
        std::vector<std::string> k;
        for (const auto& r : reports()) k.push_back(r.kind);
        return k;
    }
    // Blocks until there are at least `n` reports or the timeout passed.
    bool waitForCount(size_t n, std::chrono::milliseconds timeout) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, timeout, [&] { return reports_.size() >= n; });
    }

private:
    void add(Report r) {
        std::lock_guard lock(mutex_);
        reports_.push_back(std::move(r));
        changed_.notify_all();
    }
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Report> reports_;  // guarded by mutex_
};

// Samples at value / 600 s: a video frame (null image: a frame without one) and 10 ms of silence.
inline SampleBufferRef videoSample(int64_t t, PixelBufferRef image) {
    return SampleBuffer::video(std::move(image),
                               {MediaTime::make(1, 30), MediaTime::make(t, 600), MediaTime::invalid()});
}
inline SampleBufferRef audioSample(int64_t t) {
    auto audio = std::make_shared<AudioBuffer>(
        AudioBuffer{44100, 2, AudioSampleFormat::s16, 441, std::vector<uint8_t>(441 * 4)});
    return SampleBuffer::audio(std::move(audio), {MediaTime::make(441, 44100),
                                                  MediaTime::make(t, 600), MediaTime::invalid()});
}

// The real engine over the fakes above, the way the program wires it.
struct RecorderWorld {
    std::shared_ptr<ScreenRecorder> makeRecorder(Dispatch& dispatch) {
        capture = std::make_shared<CaptureSessionManager>(factory, display, dispatch);
        files = std::make_shared<RecordingFileManager>(fs, defaults, dates, writers, display, picker);
        auto r = ScreenRecorder::create(
            {std::make_shared<PermissionManager>(access), capture,
             std::make_shared<VideoComposer>(compositor, *pixelBuffers, sampleMaker), files},
            dispatch);
        r->setDelegate(delegate);
        return r;
    }
    // The last recorder's screen (0) and camera (1) session.
    FakeCaptureSession& session(size_t i) {
        return *factory.sessions.at(factory.sessions.size() - 2 + i);
    }

    FakeAccessRequester access;
    FakeCaptureFactory factory;
    FakeDisplayProvider display;
    FakeAssetWriterFactory writers;
    TempFileSystem fs;
    FakeDefaultsStore defaults;
    FakeDateFormatter dates;
    FakeFolderPicker picker;
    CpuImageCompositor compositor;
    std::shared_ptr<PooledPixelBufferFactory> pixelBuffers =
        std::make_shared<PooledPixelBufferFactory>();
    StandardSampleMaker sampleMaker;
    std::shared_ptr<FakeRecorderDelegate> delegate = std::make_shared<FakeRecorderDelegate>();
    std::shared_ptr<CaptureSessionManager> capture;
    std::shared_ptr<RecordingFileManager> files;
};

}  // namespace gb::fakes
