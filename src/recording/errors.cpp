#include "recording/errors.h"

#include <cstdio>
#include <utility>

namespace gb {
namespace {

// A string literal as the debugging form writes it: quoted, with quotes, backslashes and
// control characters escaped.
std::string quoted(const std::string& text) {
    std::string out;
    out.reserve(text.size() + 2);
    out.push_back('"');
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
            case '\0':
                out += "\\0";
                break;
            default:
                if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
                    char buf[16];
                    std::snprintf(buf, sizeof buf, "\\u{%02X}", static_cast<unsigned char>(c));
                    out += buf;
                } else {
                    out.push_back(c);
                }
        }
    }
    out.push_back('"');
    return out;
}

std::string withPayload(const char* name, const std::string& payload) {
    return std::string(name) + "(" + quoted(payload) + ")";
}

}  // namespace

// ---- ScreenRecorderError -----------------------------------------------------------------------

ScreenRecorderError::ScreenRecorderError(Kind kind, std::string payload)
    : EngineError([&] {
          switch (kind) {
              case Kind::permissionDenied:
                  return "Permission denied: " + payload;
              case Kind::setupFailed:
                  return "Setup failed: " + payload;
              case Kind::recordingFailed:
                  return "Recording failed: " + payload;
              case Kind::noDisplay:
                  return std::string("No display found");
              case Kind::writerCreationFailed:
                  return std::string("Failed to create video writer");
          }
          return std::string();
      }()),
      kind_(kind),
      payload_(std::move(payload)) {}

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
ScreenRecorderError ScreenRecorderError::writerCreationFailed(std::string reason) {
    ScreenRecorderError error{Kind::writerCreationFailed, {}};
    error.reason_ = std::move(reason);
    return error;
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

// ---- RecordingFileManagerError -----------------------------------------------------------------

RecordingFileManagerError::RecordingFileManagerError(Kind kind, std::string payload)
    : EngineError([&] {
          switch (kind) {
              case Kind::writerCreationFailed:
                  return "Failed to create video writer: " + payload;
              case Kind::startWritingFailed:
                  return "Failed to start writing: " + payload;
              case Kind::urlCreationFailed:
                  return std::string("Failed to create output URL");
              case Kind::cannotAddVideoInput:
                  return std::string("Cannot add video input to writer");
              case Kind::cannotAddAudioInput:
                  return std::string("Cannot add audio input to writer");
          }
          return std::string();
      }()),
      kind_(kind),
      payload_(std::move(payload)) {}

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

// ---- CaptureSessionError -----------------------------------------------------------------------

CaptureSessionError::CaptureSessionError(Kind kind, std::string payload)
    : EngineError([&] {
          switch (kind) {
              case Kind::microphoneSetupFailed:
                  return "Microphone setup failed: " + payload;
              case Kind::cameraSetupFailed:
                  return "Camera setup failed: " + payload;
              case Kind::noDisplay:
                  return std::string("No display found for screen recording");
              case Kind::screenCaptureUnavailable:
                  return std::string(
                      "Screen capture is unavailable. Please grant screen recording permission.");
              case Kind::cannotAddScreenInput:
                  return std::string("Cannot add screen input to capture session");
              case Kind::microphoneUnavailable:
                  return std::string("No microphone found");
              case Kind::cannotAddMicrophoneInput:
                  return std::string("Cannot add microphone input to capture session");
              case Kind::cannotAddVideoOutput:
                  return std::string("Cannot add video output to capture session");
              case Kind::cannotAddAudioOutput:
                  return std::string("Cannot add audio output to capture session");
              case Kind::cannotAddCameraInput:
                  return std::string("Cannot add camera input to capture session");
              case Kind::cannotAddCameraOutput:
                  return std::string("Cannot add camera output to capture session");
          }
          return std::string();
      }()),
      kind_(kind),
      payload_(std::move(payload)) {}

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
