// The screen-sized quality on nonsense display sizes and the texts of the engine's errors that
// the recorder tests do not already show.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "fakes/fake_display.h"
#include "recording/errors.h"
#include "recording/options.h"

namespace gb {
namespace {

TEST(VideoQualityTest, ScreenResolutionTruncatesAndStaysDefinedOnNonsense) {
    fakes::FakeDisplayProvider display;
    display.setSize(10240.9, 4320.2);
    EXPECT_EQ(resolution(VideoQuality::screenResolution, display), (Resolution{10240, 4320}));
    EXPECT_EQ(displayName(VideoQuality::screenResolution, display),
              "Current Screen Resolution (10240x4320)");  // no digit grouping
    display.setSize(1e12, -1e12);                         // no overflowing conversion
    EXPECT_EQ(
        resolution(VideoQuality::screenResolution, display),
        (Resolution{std::numeric_limits<int32_t>::max(), std::numeric_limits<int32_t>::min()}));
    display.setSize(std::nan(""), 720.7);
    EXPECT_EQ(resolution(VideoQuality::screenResolution, display), (Resolution{0, 720}));
}

void expectError(const EngineError& error, const std::string& description,
                 const std::string& caseText) {
    EXPECT_EQ(error.localizedDescription(), description);
    EXPECT_STREQ(error.what(), description.c_str());
    EXPECT_EQ(error.caseDescription(), caseText);
}

TEST(ErrorTextTest, DescriptionsAndCaseForms) {
    expectError(ScreenRecorderError::noDisplay(), "No display found", "noDisplay");
    expectError(RecordingFileManagerError::urlCreationFailed(), "Failed to create output URL",
                "urlCreationFailed");
    expectError(RecordingFileManagerError::cannotAddVideoInput(),
                "Cannot add video input to writer", "cannotAddVideoInput");
    // The payload is appended unchanged (an empty one keeps the blank) and quoted in the case.
    expectError(ScreenRecorderError::setupFailed(""), "Setup failed: ", "setupFailed(\"\")");
    expectError(CaptureSessionError::microphoneSetupFailed("  a \"b\"\\\n"),
                "Microphone setup failed:   a \"b\"\\\n",
                "microphoneSetupFailed(\"  a \\\"b\\\"\\\\\\n\")");
}

}  // namespace
}  // namespace gb
