// The screen-sized quality and the texts of the engine's errors. (The other option labels and
// sizes show in the menu, placement and writer-settings tests.)
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "fakes/fake_display.h"
#include "recording/errors.h"
#include "recording/options.h"

namespace gb {
namespace {

using fakes::FakeDisplayProvider;

TEST(VideoQualityTest, ScreenResolutionFollowsTheMainDisplayInTruncatedPoints) {
    FakeDisplayProvider display;
    display.setSize(1470.0, 956.0);
    EXPECT_EQ(resolution(VideoQuality::screenResolution, display), (Resolution{1470, 956}));
    EXPECT_EQ(displayName(VideoQuality::screenResolution, display),
              "Current Screen Resolution (1470x956)");
    display.setSize(10240, 4320);  // no digit grouping
    EXPECT_EQ(displayName(VideoQuality::screenResolution, display),
              "Current Screen Resolution (10240x4320)");

    // Nonsense from the display stays defined (no overflowing conversion).
    display.setSize(1e12, -1e12);
    const auto r = resolution(VideoQuality::screenResolution, display);
    EXPECT_EQ(r.width, std::numeric_limits<int32_t>::max());
    EXPECT_EQ(r.height, std::numeric_limits<int32_t>::min());
    display.setSize(std::nan(""), 720.7);
    EXPECT_EQ(resolution(VideoQuality::screenResolution, display), (Resolution{0, 720}));
}

// ---- errors ------------------------------------------------------------------------------------

struct ErrorCase {
    std::string description;
    std::string caseText;
};

void expectError(const EngineError& error, const ErrorCase& expected) {
    EXPECT_EQ(error.errorDescription(), expected.description);
    EXPECT_EQ(error.localizedDescription(), expected.description);
    EXPECT_STREQ(error.what(), expected.description.c_str());
    EXPECT_EQ(error.caseDescription(), expected.caseText);
}

TEST(ErrorTextTest, ScreenRecorderErrors) {
    using E = ScreenRecorderError;
    expectError(E::permissionDenied("Microphone And Camera access required"),
                {"Permission denied: Microphone And Camera access required",
                 "permissionDenied(\"Microphone And Camera access required\")"});
    expectError(E::setupFailed("x"), {"Setup failed: x", "setupFailed(\"x\")"});
    expectError(E::recordingFailed("Failed to finalize recording: x"),
                {"Recording failed: Failed to finalize recording: x",
                 "recordingFailed(\"Failed to finalize recording: x\")"});
    expectError(E::noDisplay(), {"No display found", "noDisplay"});
    expectError(E::writerCreationFailed(),
                {"Failed to create video writer", "writerCreationFailed"});
    EXPECT_EQ(E::setupFailed("x").kind(), E::Kind::setupFailed);
    EXPECT_EQ(E::setupFailed("x").payload(), "x");
    EXPECT_STREQ(CancellationError().what(), "The operation was cancelled.");
}

TEST(ErrorTextTest, RecordingFileManagerErrors) {
    using E = RecordingFileManagerError;
    expectError(E::writerCreationFailed("no room"),
                {"Failed to create video writer: no room", "writerCreationFailed(\"no room\")"});
    expectError(E::startWritingFailed("Unknown error"), {"Failed to start writing: Unknown error",
                                                         "startWritingFailed(\"Unknown error\")"});
    expectError(E::urlCreationFailed(), {"Failed to create output URL", "urlCreationFailed"});
    expectError(E::cannotAddVideoInput(),
                {"Cannot add video input to writer", "cannotAddVideoInput"});
    expectError(E::cannotAddAudioInput(),
                {"Cannot add audio input to writer", "cannotAddAudioInput"});
}

TEST(ErrorTextTest, PayloadIsAppendedUnchangedAndQuotedInTheCaseForm) {
    // An empty payload keeps the prefix's trailing blank; nothing is trimmed.
    EXPECT_EQ(ScreenRecorderError::setupFailed("").errorDescription(), "Setup failed: ");
    EXPECT_EQ(CaptureSessionError::microphoneSetupFailed("  a \"b\"\n").errorDescription(),
              "Microphone setup failed:   a \"b\"\n");
    EXPECT_EQ(CaptureSessionError::microphoneSetupFailed("  a \"b\"\\\n").caseDescription(),
              "microphoneSetupFailed(\"  a \\\"b\\\"\\\\\\n\")");
    EXPECT_EQ(ScreenRecorderError::setupFailed("").caseDescription(), "setupFailed(\"\")");
}

}  // namespace
}  // namespace gb
