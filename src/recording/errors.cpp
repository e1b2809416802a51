#include "recording/errors.h"

#include <string>
#include <utility>

namespace gb {
namespace {

// A payload as a debugger shows a string literal: quoted, with quotes and control characters
// escaped.
std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                out += c;
        }
    }
    out += '"';
    return out;
}

std::string withPayload(const char* name, const std::string& payload) {
    return std::string(name) + "(" + quoted(payload) + ")";
}

}  // namespace

// ---- ScreenRecorderError -------------------------------------------------------------------

namespace {
std::string describe(ScreenRecorderError::Kind kind, const std::string& payload) {
    using K = ScreenRecorderError::Kind;
    switch (kind) {
        case K::permissionDenied:
            return "Permission denied: " + payload;
        case K::setupFailed:
            return "Setup failed: " + payload;
        case K::recordingFailed:
            return "Recording failed: " + payload;
        case K::noDisplay:
            return "No display found";
        case K::writerCreationFailed:
            return "Failed to create video writer";
    }
    return {};
}
}  // namespace

ScreenRecorderError::ScreenRecorderError(Kind kind, std::string payload)
    : EngineError(describe(kind, payload)), kind_(kind), payload_(std::move(payload)) {}

ScreenRecorderError ScreenRecorderError::permissionDenied(std::string text) {
    return {Kind::permissionDenied, std::move(text)};
}
ScreenRecorderError ScreenRecorderError::setupFailed(std::string text) {
    return {Kind::setupFailed, std::move(text)};
}
ScreenRecorderError ScreenRecorderError::recordingFailed(std::string text) {
    return {Kind::recordingFailed, std::move(text)};
}
ScreenRecorderError ScreenRecorderError::noDisplay() {
    return {Kind::noDisplay, {}};
}
ScreenRecorderError ScreenRecorderError::writerCreationFailed() {
    return {Kind::writerCreationFailed, {}};
}

std::string ScreenRecorderError::caseDescription() const {
    switch (kind_) {
        case Kind::permissionDenied:
            return withPayload("permissionDenied", payload_);
        case Kind::setupFailed:
            return withPayload("setupFailed", payload_);
        case Kind::recordingFailed:
            return withPayload("recordingFailed", payload_);
        case Kind::noDisplay:
            return "noDisplay";
        case Kind::writerCreationFailed:
            return "writerCreationFailed";
    }
    return {};
}

// ---- RecordingFileManagerError -------------------------------------------------------------

namespace {
std::string describe(RecordingFileManagerError::Kind kind, const std::string& payload) {
    using K = RecordingFileManagerError::Kind;
    switch (kind) {
        case K::writerCreationFailed:
            return "Failed to create video writer: " + payload;
        case K::startWritingFailed:
            return "Failed to start writing: " + payload;
        case K::urlCreationFailed:
            return "Failed to create output URL";
        case K::cannotAddVideoInput:
            return "Cannot add video input to writer";
        case K::cannotAddAudioInput:
            return "Cannot add audio input to writer";
    }
    return {};
}
}  // namespace

RecordingFileManagerError::RecordingFileManagerError(Kind kind, std::string payload)
    : EngineError(describe(kind, payload)), kind_(kind), payload_(std::move(payload)) {}

RecordingFileManagerError RecordingFileManagerError::writerCreationFailed(std::string text) {
    return {Kind::writerCreationFailed, std::move(text)};
}
RecordingFileManagerError RecordingFileManagerError::startWritingFailed(std::string text) {
    return {Kind::startWritingFailed, std::move(text)};
}
RecordingFileManagerError RecordingFileManagerError::urlCreationFailed() {
    return {Kind::urlCreationFailed, {}};
}
RecordingFileManagerError RecordingFileManagerError::cannotAddVideoInput() {
    return {Kind::cannotAddVideoInput, {}};
}
RecordingFileManagerError RecordingFileManagerError::cannotAddAudioInput() {
    return {Kind::cannotAddAudioInput, {}};
}

std::string RecordingFileManagerError::caseDescription() const {
    switch (kind_) {
        case Kind::writerCreationFailed:
            return withPayload("writerCreationFailed", payload_);
        case Kind::startWritingFailed:
            return withPayload("startWritingFailed", payload_);
        case Kind::urlCreationFailed:
            return "urlCreationFailed";
        case Kind::cannotAddVideoInput:
            return "cannotAddVideoInput";
        case Kind::cannotAddAudioInput:
            return "cannotAddAudioInput";
    }
    return {};
}

// ---- CaptureSessionError -------------------------------------------------------------------

namespace {
std::string describe(CaptureSessionError::Kind kind, const std::string& payload) {
    using K = CaptureSessionError::Kind;
    switch (kind) {
        case K::microphoneSetupFailed:
            return "Microphone setup failed: " + payload;
        case K::cameraSetupFailed:
            return "Camera setup failed: " + payload;
        case K::noDisplay:
            return "No display found for screen recording";
        case K::screenCaptureUnavailable:
            return "Screen capture is unavailable. Please grant screen recording permission.";
        case K::cannotAddScreenInput:
            return "Cannot add screen input to capture session";
        case K::microphoneUnavailable:
            return "No microphone found";
        case K::cannotAddMicrophoneInput:
            return "Cannot add microphone input to capture session";
        case K::cannotAddVideoOutput:
            return "Cannot add video output to capture session";
        case K::cannotAddAudioOutput:
            return "Cannot add audio output to capture session";
        case K::cannotAddCameraInput:
            return "Cannot add camera input to capture session";
        case K::cannotAddCameraOutput:
            return "Cannot add camera output to capture session";
    }
    return {};
}
}  // namespace

CaptureSessionError::CaptureSessionError(Kind kind, std::string payload)
    : EngineError(describe(kind, payload)), kind_(kind), payload_(std::move(payload)) {}

CaptureSessionError CaptureSessionError::microphoneSetupFailed(std::string text) {
    return {Kind::microphoneSetupFailed, std::move(text)};
}
CaptureSessionError CaptureSessionError::cameraSetupFailed(std::string text) {
    return {Kind::cameraSetupFailed, std::move(text)};
}
CaptureSessionError CaptureSessionError::noDisplay() {
    return {Kind::noDisplay, {}};
}
CaptureSessionError CaptureSessionError::screenCaptureUnavailable() {
    return {Kind::screenCaptureUnavailable, {}};
}
CaptureSessionError CaptureSessionError::cannotAddScreenInput() {
    return {Kind::cannotAddScreenInput, {}};
}
CaptureSessionError CaptureSessionError::microphoneUnavailable() {
    return {Kind::microphoneUnavailable, {}};
}
CaptureSessionError CaptureSessionError::cannotAddMicrophoneInput() {
    return {Kind::cannotAddMicrophoneInput, {}};
}
CaptureSessionError CaptureSessionError::cannotAddVideoOutput() {
    return {Kind::cannotAddVideoOutput, {}};
}
CaptureSessionError CaptureSessionError::cannotAddAudioOutput() {
    return {Kind::cannotAddAudioOutput, {}};
}
CaptureSessionError CaptureSessionError::cannotAddCameraInput() {
    return {Kind::cannotAddCameraInput, {}};
}
CaptureSessionError CaptureSessionError::cannotAddCameraOutput() {
    return {Kind::cannotAddCameraOutput, {}};
}

std::string CaptureSessionError::caseDescription() const {
    switch (kind_) {
        case Kind::microphoneSetupFailed:
            return withPayload("microphoneSetupFailed", payload_);
        case Kind::cameraSetupFailed:
            return withPayload("cameraSetupFailed", payload_);
        case Kind::noDisplay:
            return "noDisplay";
        case Kind::screenCaptureUnavailable:
            return "screenCaptureUnavailable";
        case Kind::cannotAddScreenInput:
            return "cannotAddScreenInput";
        case Kind::microphoneUnavailable:
            return "microphoneUnavailable";
        case Kind::cannotAddMicrophoneInput:
            return "cannotAddMicrophoneInput";
        case Kind::cannotAddVideoOutput:
            return "cannotAddVideoOutput";
        case Kind::cannotAddAudioOutput:
            return "cannotAddAudioOutput";
        case Kind::cannotAddCameraInput:
            return "cannotAddCameraInput";
        case Kind::cannotAddCameraOutput:
            return "cannotAddCameraOutput";
    }
    return {};
}

}  // namespace gb
