#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <stdexcept>

#include "app/about_window_controller.h"
#include "app/uuid.h"
#include "fakes/fake_user_interface.h"

namespace gb {
namespace {

const ViewDescription& view(const WindowDescription& d, const std::string& id) {
    auto it = std::find_if(d.views.begin(), d.views.end(),
                           [&](const ViewDescription& v) { return v.id == id; });
    if (it == d.views.end()) throw std::runtime_error("no view " + id);
    return *it;
}

TEST(AboutWindow, FixedFloatingWindowWithItsViewsAndTheBundledIconIfAny) {
    fakes::FakeApplication app;
    fakes::FakeWindowSystem windows;
    AboutWindowController controller(windows, app);
    ASSERT_EQ(windows.makeWindowCount(), 1u);
    const WindowAttributes& a = windows.descriptions[0].attributes;
    EXPECT_EQ(a.title, "About Glimmerbox");
    EXPECT_EQ(a.styleMask, 3u);  // titled | closable, nothing resizable or miniaturizable
    EXPECT_EQ(windows.windows[0]->level, 3);

    const WindowDescription& d = controller.description();
    EXPECT_EQ(view(d, "title").text, "Glimmerbox");
    EXPECT_EQ(view(d, "version").text, "Version 1.0");
    EXPECT_EQ(view(d, "tagline").text, "A powerful screen recording tool for developers");
    EXPECT_EQ(view(d, "features").text,
              "Features:\n\u2022 Screen recording with camera overlay\n"
              "\u2022 Multiple video quality options  \n\u2022 Customizable camera positioning\n"
              "\u2022 VS Code automation integration");
    EXPECT_EQ(view(d, "features").maximumNumberOfLines, 0);  // wraps, never cut off
    EXPECT_EQ(view(d, "icon").imagePath, "");  // no bundled icon: the application's own
    EXPECT_EQ(app.calls, (std::vector<std::string>{"resourcePath AppIcon.icns"}));

    app.addResource("AppIcon", "icns", "/usr/share/glimmerbox/AppIcon.icns");
    AboutWindowController bundled(windows, app);
    EXPECT_EQ(view(bundled.description(), "icon").imagePath, "/usr/share/glimmerbox/AppIcon.icns");
}

TEST(UUIDString, StampsVersionFourAndTheVariantInUpperCaseHex) {
    std::array<uint8_t, 16> bytes{};
    bytes.fill(0xFF);
    EXPECT_EQ(uuidString(bytes), "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(0xA0 + i);
    EXPECT_EQ(uuidString(bytes), "A0A1A2A3-A4A5-46A7-A8A9-AAABACADAEAF");
}

}  // namespace
}  // namespace gb
