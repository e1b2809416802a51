// The screen-sized quality on nonsense display sizes.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "fakes/fake_display.h"
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

}  // namespace
}  // namespace gb
