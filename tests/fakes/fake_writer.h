// A movie writer and inputs in memory: every appended sample and every timeline start is
// recorded; finishWriting completes at once or when the test releases it. The factory records the
// settings it was given and fails on demand. All thread-safe.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fakes/fake_files.h"
#include "fakes/locked.h"
#include "fakes/log_capture.h"
#include "platform/asset_writer.h"

namespace gb::fakes {

class FakeAssetWriterInput final : public AssetWriterInput {
public:
    FakeAssetWriterInput(MediaType type, WriterOutputSettings settings, CallLog* calls = nullptr)
        : type_(type), settings_(std::move(settings)), calls_(calls) {}

    [[nodiscard]] MediaType mediaType() const override { return type_; }
    [[nodiscard]] const WriterOutputSettings& outputSettings() const override { return settings_; }
    void setExpectsMediaDataInRealTime(bool) override {}
    [[nodiscard]] bool isReadyForMoreMediaData() const override { return true; }
    [[nodiscard]] bool append(const SampleBufferRef& sample) override {
        std::lock_guard lock(mutex_);
        if (finished_) ++appendsAfterFinish_;
        appended_.push_back(sample);
        return true;
    }
    void markAsFinished() override {
        {
            std::lock_guard lock(mutex_);
            finished_ = true;
        }
        if (calls_)
            calls_->add(std::string(type_ == MediaType::video ? "video" : "audio") +
                        "Input.markAsFinished");
    }

    [[nodiscard]] std::vector<SampleBufferRef> appended() const {
        return lockedCopy(mutex_, appended_);
    }
    [[nodiscard]] std::vector<MediaTime> appendedTimes() const {
        std::lock_guard lock(mutex_);
        std::vector<MediaTime> times;
        for (const auto& s : appended_) times.push_back(s->presentationTime());
        return times;
    }
    [[nodiscard]] size_t appendsAfterFinish() const {
        return lockedCopy(mutex_, appendsAfterFinish_);
    }

private:
    const MediaType type_;
    const WriterOutputSettings settings_;
    CallLog* const calls_;
    mutable std::mutex mutex_;
    bool finished_ = false;                  // guarded by mutex_
    size_t appendsAfterFinish_ = 0;          // guarded by mutex_
    std::vector<SampleBufferRef> appended_;  // guarded by mutex_
};

// How the factory sets up each writer it makes.
struct FakeWriterConfig {
    bool canAddVideoInput = true;
    bool canAddAudioInput = true;
    bool startWritingSucceeds = true;
    std::optional<PlatformError> startWritingError = std::nullopt;  // left by a failed start
    bool holdFinish = false;  // keep the finishWriting completion until releaseFinish()
    AssetWriterStatus finishStatus = AssetWriterStatus::completed;
    std::optional<PlatformError> finishError = std::nullopt;
};

class FakeAssetWriter final : public AssetWriter {
public:
    FakeAssetWriter(std::string path, FakeWriterConfig config, FakeFileSystem* files = nullptr,
                    CallLog* calls = nullptr)
        : path_(std::move(path)), config_(std::move(config)), files_(files), calls_(calls) {}

    [[nodiscard]] AssetWriterStatus status() const override {
        std::lock_guard lock(mutex_);
        return status_;
    }
    [[nodiscard]] std::optional<PlatformError> error() const override {
        std::lock_guard lock(mutex_);
        return error_;
    }
    [[nodiscard]] bool canAddInput(const AssetWriterInputRef& input) const override {
        std::lock_guard lock(mutex_);
        return input->mediaType() == MediaType::video ? config_.canAddVideoInput
                                                      : config_.canAddAudioInput;
    }
    void addInput(AssetWriterInputRef input) override {
        std::lock_guard lock(mutex_);
        inputs_.push_back(std::move(input));
    }
    [[nodiscard]] bool startWriting() override {
        {
            std::lock_guard lock(mutex_);
            if (!config_.startWritingSucceeds) {
                status_ = AssetWriterStatus::failed;
                error_ = config_.startWritingError;
                return false;
            }
            status_ = AssetWriterStatus::writing;
        }
        if (files_) files_->writeFile(path_, "written by writer " + path_);
        return true;
    }
    void startSessionAtSourceTime(MediaTime time) override {
        std::lock_guard lock(mutex_);
        sessionStarts_.push_back(time);
    }
    void finishWriting(std::function<void()> completion) override {
        bool hold = false;
        {
            std::lock_guard lock(mutex_);
            ++finishCalls_;
            hold = config_.holdFinish;
            if (hold) held_ = std::move(completion);
        }
        if (calls_) calls_->add("writer.finishWriting");
        if (!hold) complete(std::move(completion));
    }

    // Runs a held finishWriting completion, on the calling thread. False when none is held.
    bool releaseFinish() {
        std::function<void()> completion;
        {
            std::lock_guard lock(mutex_);
            completion = std::move(held_);
            held_ = nullptr;
        }
        if (!completion) return false;
        complete(std::move(completion));
        return true;
    }

    [[nodiscard]] std::vector<MediaTime> sessionStarts() const {
        return lockedCopy(mutex_, sessionStarts_);
    }
    [[nodiscard]] int finishCalls() const { return lockedCopy(mutex_, finishCalls_); }
    [[nodiscard]] bool isFinishHeld() const {
        std::lock_guard lock(mutex_);
        return static_cast<bool>(held_);
    }

private:
    void complete(std::function<void()> completion) {
        {
            std::lock_guard lock(mutex_);
            status_ = config_.finishStatus;
            if (config_.finishError) error_ = config_.finishError;
        }
        completion();
    }

    const std::string path_;
    const FakeWriterConfig config_;
    FakeFileSystem* const files_;
    CallLog* const calls_;
    mutable std::mutex mutex_;
    AssetWriterStatus status_ = AssetWriterStatus::unknown;  // guarded by mutex_
    std::optional<PlatformError> error_;                     // guarded by mutex_
    std::vector<AssetWriterInputRef> inputs_;                // guarded by mutex_
    std::vector<MediaTime> sessionStarts_;                   // guarded by mutex_
    int finishCalls_ = 0;                                    // guarded by mutex_
    std::function<void()> held_;                             // guarded by mutex_
};

class FakeAssetWriterFactory final : public AssetWriterFactory {
public:
    // With `files`, a writer can only be made in an existing folder, and a started writer
    // creates its file there.
    explicit FakeAssetWriterFactory(FakeFileSystem* files = nullptr, CallLog* calls = nullptr)
        : files_(files), calls_(calls) {}

    [[nodiscard]] Result<AssetWriterRef> makeWriter(const std::string& path, FileType) override {
        std::lock_guard lock(mutex_);
        if (makeWriterError_) return *makeWriterError_;
        if (files_ && !files_->directoryExists(parentPath(path))) {
            return PlatformError{
                "NSCocoaErrorDomain", 4,
                "The folder \u201C" + parentPath(path) + "\u201D doesn\u2019t exist."};
        }
        auto writer = std::make_shared<FakeAssetWriter>(path, config_, files_, calls_);
        writers_.push_back(writer);
        return AssetWriterRef(writer);
    }
    [[nodiscard]] AssetWriterInputRef makeInput(MediaType type,
                                                const WriterOutputSettings& settings) override {
        std::lock_guard lock(mutex_);
        inputSettings_.push_back(settings);
        auto input = std::make_shared<FakeAssetWriterInput>(type, settings, calls_);
        inputs_.push_back(input);
        return input;
    }

    void setConfig(FakeWriterConfig config) { lockedSet(mutex_, config_, std::move(config)); }
    // Every later makeWriter fails with this error; nullopt lets them succeed again.
    void setMakeWriterError(std::optional<PlatformError> error) {
        lockedSet(mutex_, makeWriterError_, std::move(error));
    }

    [[nodiscard]] std::vector<WriterOutputSettings> inputSettings() const {
        return lockedCopy(mutex_, inputSettings_);
    }
    [[nodiscard]] std::vector<std::shared_ptr<FakeAssetWriter>> writers() const {
        return lockedCopy(mutex_, writers_);
    }
    [[nodiscard]] std::shared_ptr<FakeAssetWriter> lastWriter() const {
        std::lock_guard lock(mutex_);
        return writers_.empty() ? nullptr : writers_.back();
    }
    [[nodiscard]] std::vector<std::shared_ptr<FakeAssetWriterInput>> inputs() const {
        return lockedCopy(mutex_, inputs_);
    }
    // The video and audio inputs made for the last writer.
    [[nodiscard]] std::shared_ptr<FakeAssetWriterInput> lastInput(MediaType type) const {
        std::lock_guard lock(mutex_);
        for (auto it = inputs_.rbegin(); it != inputs_.rend(); ++it) {
            if ((*it)->mediaType() == type) return *it;
        }
        return nullptr;
    }

private:
    FakeFileSystem* const files_;
    CallLog* const calls_;
    mutable std::mutex mutex_;
    FakeWriterConfig config_;                                    // guarded by mutex_
    std::optional<PlatformError> makeWriterError_;               // guarded by mutex_
    std::vector<WriterOutputSettings> inputSettings_;            // guarded by mutex_
    std::vector<std::shared_ptr<FakeAssetWriter>> writers_;      // guarded by mutex_
    std::vector<std::shared_ptr<FakeAssetWriterInput>> inputs_;  // guarded by mutex_
};

}  // namespace gb::fakes
