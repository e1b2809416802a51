// The engine's three error kinds. Each case has a fixed description (errorDescription, which is
// also its localized description and what()) and a debugging form, caseDescription(), that names
// the case with its payload, e.g. microphoneSetupFailed("x").
#pragma once

#include <exception>
#include <string>

namespace gb {

class EngineError : public std::exception {
public:
    [[nodiscard]] const std::string& errorDescription() const { return description_; }
    [[nodiscard]] const std::string& localizedDescription() const { return description_; }
    [[nodiscard]] virtual std::string caseDescription() const = 0;
    [[nodiscard]] const char* what() const noexcept override { return description_.c_str(); }

protected:
    explicit EngineError(std::string description) : description_(std::move(description)) {}

private:
    std::string description_;
};

class ScreenRecorderError final : public EngineError {
public:
    enum class Kind { permissionDenied, setupFailed, recordingFailed, noDisplay, writerCreationFailed };

    static ScreenRecorderError permissionDenied(std::string text);
    static ScreenRecorderError setupFailed(std::string text);
    static ScreenRecorderError recordingFailed(std::string text);
    static ScreenRecorderError noDisplay();
    // The case has no payload; `reason` (the writer's own text) is kept beside it for the log
    // and the terminal, never shown in its description.
    static ScreenRecorderError writerCreationFailed(std::string reason = {});

    [[nodiscard]] Kind kind() const { return kind_; }
    [[nodiscard]] const std::string& payload() const { return payload_; }
    [[nodiscard]] const std::string& reason() const { return reason_; }
    [[nodiscard]] std::string caseDescription() const override;

private:
    ScreenRecorderError(Kind kind, std::string payload);
    Kind kind_;
    std::string payload_;
    std::string reason_;
};

class RecordingFileManagerError final : public EngineError {
public:
    enum class Kind { writerCreationFailed, startWritingFailed, urlCreationFailed, cannotAddVideoInput, cannotAddAudioInput };

    static RecordingFileManagerError writerCreationFailed(std::string text);
    static RecordingFileManagerError startWritingFailed(std::string text);
    static RecordingFileManagerError urlCreationFailed();
    static RecordingFileManagerError cannotAddVideoInput();
    static RecordingFileManagerError cannotAddAudioInput();

    [[nodiscard]] Kind kind() const { return kind_; }
    [[nodiscard]] const std::string& payload() const { return payload_; }
    [[nodiscard]] std::string caseDescription() const override;

private:
    RecordingFileManagerError(Kind kind, std::string payload);
    Kind kind_;
    std::string payload_;
};

class CaptureSessionError final : public EngineError {
public:
    enum class Kind {
        microphoneSetupFailed, cameraSetupFailed, noDisplay, screenCaptureUnavailable,
        cannotAddScreenInput, microphoneUnavailable, cannotAddMicrophoneInput,
        cannotAddVideoOutput, cannotAddAudioOutput, cannotAddCameraInput, cannotAddCameraOutput
    };

    static CaptureSessionError microphoneSetupFailed(std::string text);
    static CaptureSessionError cameraSetupFailed(std::string text);
    static CaptureSessionError noDisplay();
    static CaptureSessionError screenCaptureUnavailable();
    static CaptureSessionError cannotAddScreenInput();
    static CaptureSessionError microphoneUnavailable();
    static CaptureSessionError cannotAddMicrophoneInput();
    static CaptureSessionError cannotAddVideoOutput();
    static CaptureSessionError cannotAddAudioOutput();
    static CaptureSessionError cannotAddCameraInput();
    static CaptureSessionError cannotAddCameraOutput();

    [[nodiscard]] Kind kind() const { return kind_; }
    [[nodiscard]] const std::string& payload() const { return payload_; }
    [[nodiscard]] std::string caseDescription() const override;

private:
    CaptureSessionError(Kind kind, std::string payload);
    Kind kind_;
    std::string payload_;
};

// Thrown when a start's sleep ends because its task was cancelled.
class CancellationError final : public std::exception {
public:
    [[nodiscard]] const char* what() const noexcept override { return "The operation was cancelled."; }
};

}  // namespace gb
