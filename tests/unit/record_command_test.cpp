// Guards against: bad option values accepted or refused without the reason, and overflowing or undefined screen-size conversions.
#include "app/record_command.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "fakes/fake_platform.h"
#include "recording/options.h"

namespace gb {
namespace {

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
        const auto r = parseRecordCommand(args);
        EXPECT_FALSE(r.options.has_value()) << error;
        EXPECT_EQ(r.error, error);
    }
}

TEST(VideoQualityTest, ScreenResolutionTruncatesAndStaysDefinedOnNonsense) {
    fakes::FakeDisplayProvider display;
    const auto size = [&](double w, double h) {
        display.setScreen(MainScreen{w, h, {{kScreenNumberKey, uint32_t{1}}}});
        return resolution(VideoQuality::screenResolution, display);
    };
    EXPECT_EQ(size(10240.9, 4320.2), (Resolution{10240, 4320}));
    EXPECT_EQ(displayName(VideoQuality::screenResolution, display),
              "Current Screen Resolution (10240x4320)");  // no digit grouping
    constexpr auto kMax = std::numeric_limits<int32_t>::max();
    EXPECT_EQ(size(1e12, -1e12), (Resolution{kMax, std::numeric_limits<int32_t>::min()}));
    EXPECT_EQ(size(std::nan(""), 720.7), (Resolution{0, 720}));
}

}  // namespace
}  // namespace gb
