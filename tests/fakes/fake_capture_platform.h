// Fakes of the capture platform: sessions that record every call and answer the can-add
// questions from switches, inputs, outputs that deliver through their queue like the platform,
// devices that record their configuration, and a factory whose creations can fail on demand.
// Thread-safe enough for a recording queue to deliver while a test thread configures.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "fakes/locked.h"
#include "fakes/log_capture.h"
#include "platform/capture.h"

namespace gb::fakes {

class FakeScreenInput final : public ScreenInput {
public:
    void setMinFrameDuration(MediaTime) override {}
};

// The input made for a device (microphone or camera).
class FakeDeviceInput final : public CaptureInput {
public:
    explicit FakeDeviceInput(MediaType type) : type_(type) {}
    [[nodiscard]] MediaType mediaType() const override { return type_; }

private:
    const MediaType type_;
};

// Remembers its delegate and queue; deliver() posts the sample to the queue like the platform,
// keeping the output alive while the delivery is pending.
template <class Base>
class FakeDataOutput : public Base, public std::enable_shared_from_this<FakeDataOutput<Base>> {
public:
    void setSampleBufferDelegate(std::weak_ptr<CaptureOutputDelegate> delegate,
                                 std::shared_ptr<SerialQueue> queue) override {
        std::lock_guard lock(mutex_);
        delegate_ = std::move(delegate);
        queue_ = std::move(queue);
        delegateSet_ = true;
    }
    [[nodiscard]] bool hasDelegate() const { return lockedCopy(mutex_, delegateSet_); }
    void deliver(const SampleBufferRef& sample) {
        const auto queue = lockedCopy(mutex_, queue_);
        if (!queue) return;
        queue->async(
            [delegate = lockedCopy(mutex_, delegate_), self = this->shared_from_this(), sample] {
                if (auto d = delegate.lock()) d->captureOutput(*self, sample);
            });
    }

protected:
    mutable std::mutex mutex_;

private:
    std::weak_ptr<CaptureOutputDelegate> delegate_;  // guarded by mutex_
    std::shared_ptr<SerialQueue> queue_;             // guarded by mutex_
    bool delegateSet_ = false;                       // guarded by mutex_
};

using FakeAudioDataOutput = FakeDataOutput<AudioDataOutput>;

class FakeVideoDataOutput final : public FakeDataOutput<VideoDataOutput> {
public:
    void setVideoSettings(const VideoOutputSettings& settings) override {
        lockedSet(mutex_, settings_, settings);
    }
    [[nodiscard]] std::optional<VideoOutputSettings> videoSettings() const {
        return lockedCopy(mutex_, settings_);
    }

private:
    std::optional<VideoOutputSettings> settings_;  // guarded by mutex_
};

// Records every call as a journal line ("begin", "commit", "addInput video", "removeOutput
// audio", "start", "stop", ...) plus counters, and starts and stops also as "<name>.startRunning"
// in a shared CallLog when given one; the can-add answers come from switches per media type.
// Tracks whether changes happen inside a configuration transaction, and flags calls that overlap
// in time, which the capture contract forbids for one session.
class FakeCaptureSession final : public CaptureSession {
public:
    explicit FakeCaptureSession(std::string name = {}, CallLog* calls = nullptr)
        : name_(std::move(name)), calls_(calls) {}

    struct Switches {
        bool acceptVideoInput = true;
        bool acceptAudioInput = true;
        bool acceptVideoOutput = true;
        bool acceptAudioOutput = true;
    };

    void beginConfiguration() override;
    void commitConfiguration() override;
    [[nodiscard]] bool canAddInput(const std::shared_ptr<CaptureInput>& input) override;
    void addInput(std::shared_ptr<CaptureInput> input) override;
    [[nodiscard]] bool canAddOutput(const std::shared_ptr<CaptureOutput>& output) override;
    void addOutput(std::shared_ptr<CaptureOutput> output) override;
    [[nodiscard]] std::vector<std::shared_ptr<CaptureInput>> inputs() const override {
        return lockedCopy(mutex_, inputs_);
    }
    [[nodiscard]] std::vector<std::shared_ptr<CaptureOutput>> outputs() const override {
        return lockedCopy(mutex_, outputs_);
    }
    void removeInput(const std::shared_ptr<CaptureInput>& input) override;
    void removeOutput(const std::shared_ptr<CaptureOutput>& output) override;
    void startRunning() override;
    void stopRunning() override;
    [[nodiscard]] bool isRunning() const override { return lockedCopy(mutex_, running_); }

    void setSwitches(Switches switches) { lockedSet(mutex_, switches_, switches); }
    [[nodiscard]] int startCount() const { return lockedCopy(mutex_, starts_); }
    [[nodiscard]] bool overlappingCallSeen() const { return overlapping_.load(); }
    [[nodiscard]] std::vector<std::string> journal() const { return lockedCopy(mutex_, journal_); }
    void clearJournal() { lockedSet(mutex_, journal_, std::vector<std::string>{}); }
    // Changes made while no transaction was open (should stay 0 for set-ups).
    [[nodiscard]] int changesOutsideTransaction() const {
        return lockedCopy(mutex_, changesOutside_);
    }
    // Outputs added before their delegate was set (should stay 0).
    [[nodiscard]] int outputsAddedWithoutDelegate() const {
        return lockedCopy(mutex_, outputsWithoutDelegate_);
    }

private:
    struct CallScope;
    void note(std::string entry, bool isChange);

    const std::string name_;
    CallLog* const calls_;
    std::atomic<int> inCall_{0};
    std::atomic<bool> overlapping_{false};
    mutable std::mutex mutex_;
    Switches switches_;                                    // guarded by mutex_
    int starts_ = 0;                                       // guarded by mutex_
    std::vector<std::shared_ptr<CaptureInput>> inputs_;    // guarded by mutex_
    std::vector<std::shared_ptr<CaptureOutput>> outputs_;  // guarded by mutex_
    std::vector<std::string> journal_;                     // guarded by mutex_
    int openTransactions_ = 0;                             // guarded by mutex_
    int changesOutside_ = 0;                               // guarded by mutex_
    int outputsWithoutDelegate_ = 0;                       // guarded by mutex_
    bool running_ = false;                                 // guarded by mutex_
};

// A camera or microphone; records its configuration calls.
class FakeCaptureDevice final : public CaptureDevice {
public:
    explicit FakeCaptureDevice(CameraDeviceInfo info, MediaType type = MediaType::video)
        : type_(type), info_(std::move(info)) {}

    [[nodiscard]] MediaType mediaType() const override { return type_; }
    [[nodiscard]] CameraDeviceInfo info() const override;
    [[nodiscard]] Result<void> lockForConfiguration() override;
    void setActiveFormat(int formatIndex) override;
    void unlockForConfiguration() override;

    [[nodiscard]] std::vector<int> activeFormatChanges() const {
        return lockedCopy(mutex_, activeFormatChanges_);
    }
    [[nodiscard]] int lockCount() const { return lockedCopy(mutex_, locks_); }
    [[nodiscard]] int unlockCount() const { return lockedCopy(mutex_, unlocks_); }
    // setActiveFormat calls made while not locked.
    [[nodiscard]] int unlockedChanges() const { return lockedCopy(mutex_, unlockedChanges_); }

private:
    const MediaType type_;
    mutable std::mutex mutex_;
    CameraDeviceInfo info_;                 // guarded by mutex_
    std::vector<int> activeFormatChanges_;  // guarded by mutex_
    int locks_ = 0;                         // guarded by mutex_
    int unlocks_ = 0;                       // guarded by mutex_
    int unlockedChanges_ = 0;               // guarded by mutex_
    bool locked_ = false;                   // guarded by mutex_
};

// Hands out fake sessions, inputs and outputs and remembers them; every creation that the
// platform may refuse can be made to fail.
class FakeCaptureFactory final : public CaptureFactory {
public:
    FakeCaptureFactory();

    std::shared_ptr<CaptureSession> makeSession() override;
    std::shared_ptr<ScreenInput> makeScreenInput(uint32_t displayID) override;
    CaptureDeviceRef defaultAudioDevice() override { return lockedCopy(mutex_, microphone_); }
    std::vector<CaptureDeviceRef> discoverVideoDevices() override;
    Result<std::shared_ptr<CaptureInput>> makeDeviceInput(const CaptureDeviceRef& device) override;
    std::shared_ptr<VideoDataOutput> makeVideoDataOutput() override;
    std::shared_ptr<AudioDataOutput> makeAudioDataOutput() override;

    void setScreenCaptureAllowed(bool allowed) {
        lockedSet(mutex_, screenCaptureAllowed_, allowed);
    }
    // Null: no microphone.
    void setMicrophone(std::shared_ptr<FakeCaptureDevice> microphone) {
        lockedSet(mutex_, microphone_, std::move(microphone));
    }
    void setCameras(std::vector<std::shared_ptr<FakeCaptureDevice>> cameras) {
        lockedSet(mutex_, cameras_, std::move(cameras));
    }
    // Device inputs of that media type fail with the error (nothing: they succeed).
    void setDeviceInputFailure(MediaType type, std::optional<PlatformError> error);

    [[nodiscard]] std::vector<std::shared_ptr<FakeCaptureSession>> sessions() const {
        return lockedCopy(mutex_, sessions_);
    }
    [[nodiscard]] std::vector<std::shared_ptr<FakeVideoDataOutput>> videoOutputs() const {
        return lockedCopy(mutex_, videoOutputs_);
    }
    [[nodiscard]] std::vector<std::shared_ptr<FakeAudioDataOutput>> audioOutputs() const {
        return lockedCopy(mutex_, audioOutputs_);
    }
    [[nodiscard]] std::shared_ptr<FakeCaptureDevice> microphone() const {
        return lockedCopy(mutex_, microphone_);
    }

private:
    mutable std::mutex mutex_;
    bool screenCaptureAllowed_ = true;                                // guarded by mutex_
    std::shared_ptr<FakeCaptureDevice> microphone_;                   // guarded by mutex_
    std::vector<std::shared_ptr<FakeCaptureDevice>> cameras_;         // guarded by mutex_
    std::map<MediaType, PlatformError> inputFailures_;                // guarded by mutex_
    std::vector<std::shared_ptr<FakeCaptureSession>> sessions_;       // guarded by mutex_
    std::vector<std::shared_ptr<FakeVideoDataOutput>> videoOutputs_;  // guarded by mutex_
    std::vector<std::shared_ptr<FakeAudioDataOutput>> audioOutputs_;  // guarded by mutex_
};

// A camera description with the given formats; the active one is the first unless stated.
CameraDeviceInfo cameraInfo(std::string name, std::string uniqueID,
                            std::vector<CameraFormat> formats = {{1280, 720}},
                            bool connected = true, bool suspended = false,
                            int activeFormatIndex = 0);

}  // namespace gb::fakes
