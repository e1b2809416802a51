// The option tables and the texts of the engine's errors.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <type_traits>
#include <unordered_set>

#include "fakes/fake_display.h"
#include "recording/errors.h"
#include "recording/options.h"

namespace gb {
namespace {

using fakes::FakeDisplayProvider;

TEST(VideoQualityTest, FixedQualitiesHaveTheirLabelsAndSizes) {
    FakeDisplayProvider display;
    display.setScreen(std::nullopt);  // fixed qualities never consult the display
    EXPECT_EQ(displayName(VideoQuality::medium, display), "Medium (720p)");
    EXPECT_EQ(displayName(VideoQuality::high, display), "High (1080p)");
    EXPECT_EQ(displayName(VideoQuality::ultra, display), "Ultra (1440p)");
    EXPECT_EQ(resolution(VideoQuality::medium, display), (Resolution{1280, 720}));
    EXPECT_EQ(resolution(VideoQuality::high, display), (Resolution{1920, 1080}));
    EXPECT_EQ(resolution(VideoQuality::ultra, display), (Resolution{2560, 1440}));
}

TEST(VideoQualityTest, ScreenResolutionFollowsTheMainDisplayInTruncatedPoints) {
    FakeDisplayProvider display;
    display.setSize(1470.0, 956.0);
    EXPECT_EQ(resolution(VideoQuality::screenResolution, display), (Resolution{1470, 956}));
    EXPECT_EQ(displayName(VideoQuality::screenResolution, display),
              "Current Screen Resolution (1470x956)");

    display.setSize(1512.5, 982.9);  // asked anew at each use
    EXPECT_EQ(resolution(VideoQuality::screenResolution, display), (Resolution{1512, 982}));
    EXPECT_EQ(displayName(VideoQuality::screenResolution, display),
              "Current Screen Resolution (1512x982)");

    display.setSize(10240, 4320);  // no digit grouping
    EXPECT_EQ(displayName(VideoQuality::screenResolution, display),
              "Current Screen Resolution (10240x4320)");
}

TEST(VideoQualityTest, ScreenResolutionWithoutDisplayFallsBackTo1080p) {
    FakeDisplayProvider display;
    display.setScreen(std::nullopt);
    EXPECT_EQ(resolution(VideoQuality::screenResolution, display), (Resolution{1920, 1080}));
    EXPECT_EQ(displayName(VideoQuality::screenResolution, display), "Current Screen Resolution");
}

TEST(VideoQualityTest, ANonsensicalDisplaySizeStaysDefined) {
    FakeDisplayProvider display;
    display.setSize(1e12, -1e12);
    const auto r = resolution(VideoQuality::screenResolution, display);
    EXPECT_EQ(r.width, std::numeric_limits<int32_t>::max());
    EXPECT_EQ(r.height, std::numeric_limits<int32_t>::min());
    display.setSize(std::nan(""), 720.7);
    EXPECT_EQ(resolution(VideoQuality::screenResolution, display), (Resolution{0, 720}));
}

TEST(OptionTypesTest, AreOneByteCaseIndicesInDeclarationOrder) {
    static_assert(sizeof(VideoQuality) == 1 && sizeof(CameraOverlayPreset) == 1 &&
                  sizeof(CameraPosition) == 1);
    EXPECT_EQ(static_cast<int>(VideoQuality::medium), 0);
    EXPECT_EQ(static_cast<int>(VideoQuality::screenResolution), 3);
    EXPECT_EQ(static_cast<int>(CameraOverlayPreset::small), 0);
    EXPECT_EQ(static_cast<int>(CameraOverlayPreset::large), 2);
    EXPECT_EQ(static_cast<int>(CameraPosition::topLeft), 0);
    EXPECT_EQ(static_cast<int>(CameraPosition::bottomRight), 3);
    // Equality and hashing by case.
    std::unordered_set<CameraPosition> corners{CameraPosition::topLeft, CameraPosition::topLeft,
                                               CameraPosition::bottomRight};
    EXPECT_EQ(corners.size(), 2u);
    EXPECT_NE(VideoQuality::medium, VideoQuality::high);
}

TEST(CameraOverlayPresetTest, LabelsUseTheMultiplicationSignAndSizesAre16To9) {
    EXPECT_EQ(displayName(CameraOverlayPreset::small),
              "Small (240\xC3\x97"
              "135)");
    EXPECT_EQ(displayName(CameraOverlayPreset::medium),
              "Medium (320\xC3\x97"
              "180)");
    EXPECT_EQ(displayName(CameraOverlayPreset::large),
              "Large (480\xC3\x97"
              "270)");
    EXPECT_EQ(displayName(CameraOverlayPreset::medium).find('x'), std::string::npos);
    EXPECT_EQ(size(CameraOverlayPreset::small), (OverlaySize{240, 135}));
    EXPECT_EQ(size(CameraOverlayPreset::medium), (OverlaySize{320, 180}));
    EXPECT_EQ(size(CameraOverlayPreset::large), (OverlaySize{480, 270}));
    for (auto p :
         {CameraOverlayPreset::small, CameraOverlayPreset::medium, CameraOverlayPreset::large}) {
        EXPECT_DOUBLE_EQ(size(p).width * 9, size(p).height * 16);
    }
    EXPECT_EQ(caseName(CameraOverlayPreset::small), "small");
    EXPECT_EQ(caseName(CameraOverlayPreset::medium), "medium");
    EXPECT_EQ(caseName(CameraOverlayPreset::large), "large");
}

TEST(CameraPositionTest, Labels) {
    EXPECT_EQ(displayName(CameraPosition::topLeft), "Top Left");
    EXPECT_EQ(displayName(CameraPosition::topRight), "Top Right");
    EXPECT_EQ(displayName(CameraPosition::bottomLeft), "Bottom Left");
    EXPECT_EQ(displayName(CameraPosition::bottomRight), "Bottom Right");
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

TEST(ErrorTextTest, CaptureSessionErrors) {
    using E = CaptureSessionError;
    expectError(E::microphoneSetupFailed("x"),
                {"Microphone setup failed: x", "microphoneSetupFailed(\"x\")"});
    expectError(E::cameraSetupFailed("busy"),
                {"Camera setup failed: busy", "cameraSetupFailed(\"busy\")"});
    expectError(E::noDisplay(), {"No display found for screen recording", "noDisplay"});
    expectError(E::screenCaptureUnavailable(),
                {"Screen capture is unavailable. Please grant screen recording permission.",
                 "screenCaptureUnavailable"});
    expectError(E::cannotAddScreenInput(),
                {"Cannot add screen input to capture session", "cannotAddScreenInput"});
    expectError(E::microphoneUnavailable(), {"No microphone found", "microphoneUnavailable"});
    expectError(E::cannotAddMicrophoneInput(),
                {"Cannot add microphone input to capture session", "cannotAddMicrophoneInput"});
    expectError(E::cannotAddVideoOutput(),
                {"Cannot add video output to capture session", "cannotAddVideoOutput"});
    expectError(E::cannotAddAudioOutput(),
                {"Cannot add audio output to capture session", "cannotAddAudioOutput"});
    expectError(E::cannotAddCameraInput(),
                {"Cannot add camera input to capture session", "cannotAddCameraInput"});
    expectError(E::cannotAddCameraOutput(),
                {"Cannot add camera output to capture session", "cannotAddCameraOutput"});
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

TEST(ErrorTextTest, CancellationHasItsOwnDescription) {
    EXPECT_STREQ(CancellationError().what(), "The operation was cancelled.");
}

}  // namespace
}  // namespace gb
