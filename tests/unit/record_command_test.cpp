#include "app/record_command.h"

#include <gtest/gtest.h>

namespace gb {
namespace {

RecordCommandOptions parsed(std::vector<std::string> args) {
    auto r = parseRecordCommand(args);
    EXPECT_TRUE(r.options.has_value()) << r.error;
    return r.options.value_or(RecordCommandOptions{});
}

TEST(RecordCommandTest, EveryOptionInBothSpellings) {
    auto o =
        parsed({"--duration", "2.5", "--quality=screen", "--no-camera", "--camera-size", "large",
                "--camera-position=top-left", "--output", "/tmp/x", "--test-camera", "--vscode"});
    EXPECT_DOUBLE_EQ(*o.durationSeconds, 2.5);
    EXPECT_EQ(*o.quality, VideoQuality::screenResolution);
    EXPECT_FALSE(o.cameraOverlay);
    EXPECT_EQ(*o.cameraSize, CameraOverlayPreset::large);
    EXPECT_EQ(*o.cameraPosition, CameraPosition::topLeft);
    EXPECT_EQ(*o.outputDirectory, "/tmp/x");
    EXPECT_TRUE(o.testCamera);
    EXPECT_TRUE(o.vscode);
    EXPECT_TRUE(parsed({"-h"}).help);
    EXPECT_FALSE(parsed({}).quality);  // nothing given: the recorder's own settings stay
}

TEST(RecordCommandTest, BadValuesAreRefusedWithTheReason) {
    const std::vector<std::pair<std::vector<std::string>, std::string>> cases{
        {{"--duration", "-1"}, "--duration: '-1' is not a positive number of seconds"},
        {{"--duration", "5s"}, "--duration: '5s' is not a positive number of seconds"},
        {{"--duration"}, "--duration needs a number of seconds"},
        {{"--camera-size", "huge"}, "--camera-size: 'huge' is not one of small, medium, large"},
        {{"--frobnicate"}, "unknown option '--frobnicate'"},
        {{"--output="}, "--output needs a folder"},
    };
    for (const auto& [args, error] : cases) {
        auto r = parseRecordCommand(args);
        EXPECT_FALSE(r.options.has_value()) << error;
        EXPECT_EQ(r.error, error);
    }
}

}  // namespace
}  // namespace gb
