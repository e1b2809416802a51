#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <set>

#include "app/about_window_controller.h"
#include "app/uuid.h"
#include "fakes/fake_user_interface.h"

namespace gb {
namespace {

using fakes::FakeApplication;
using fakes::FakeWindowSystem;

const ViewDescription& view(const WindowDescription& d, const std::string& id) {
    auto it = std::find_if(d.views.begin(), d.views.end(),
                           [&](const ViewDescription& v) { return v.id == id; });
    if (it == d.views.end()) throw std::runtime_error("no view " + id);
    return *it;
}

TEST(AboutWindow, IsAFixedNonResizableWindowThatHidesWhenClosed) {
    FakeApplication app;
    FakeWindowSystem windows;
    AboutWindowController controller(windows, app);

    ASSERT_EQ(windows.makeWindowCount(), 1u);
    const WindowAttributes& a = windows.descriptions[0].attributes;
    EXPECT_EQ(a.contentWidth, 400);
    EXPECT_EQ(a.contentHeight, 300);
    EXPECT_EQ(a.styleMask, 3u);  // titled | closable, nothing resizable or miniaturizable
    EXPECT_EQ(a.backing, 2);
    EXPECT_FALSE(a.deferred);
    EXPECT_EQ(a.title, "About Glimmerbox");
    EXPECT_TRUE(a.centred);
    EXPECT_FALSE(a.releasedWhenClosed);
    // Floating once loaded; realised but not shown until asked.
    EXPECT_EQ(windows.windows[0]->level, 3);
    EXPECT_EQ(windows.windows[0]->showCount, 0);
}

TEST(AboutWindow, ViewsInOrderWithTextsFontsAndColours) {
    FakeApplication app;
    FakeWindowSystem windows;
    AboutWindowController controller(windows, app);
    const WindowDescription& d = controller.description();

    std::vector<std::string> ids;
    for (const auto& v : d.views) ids.push_back(v.id);
    EXPECT_EQ(ids, (std::vector<std::string>{"container", "icon", "title", "version", "tagline",
                                             "features", "footer"}));
    for (const auto& v : d.views) {
        EXPECT_FALSE(v.translatesAutoresizingMask) << v.id;
        EXPECT_EQ(v.parent, v.id == "container" ? "content" : "container") << v.id;
    }

    EXPECT_EQ(view(d, "icon").kind, ViewKind::image);
    EXPECT_EQ(view(d, "icon").imageScaling, 3);

    const auto& title = view(d, "title");
    EXPECT_EQ(title.text, "Glimmerbox");
    EXPECT_EQ(title.fontSize, 24);
    EXPECT_EQ(title.fontWeight, FontWeight::bold);
    EXPECT_EQ(title.alignment, TextAlignment::center);
    EXPECT_EQ(title.color, TextColor::standard);

    const auto& version = view(d, "version");
    EXPECT_EQ(version.text, "Version 1.0");
    EXPECT_EQ(version.fontSize, 14);
    EXPECT_EQ(version.fontWeight, FontWeight::regular);
    EXPECT_EQ(version.color, TextColor::secondaryLabel);

    const auto& tagline = view(d, "tagline");
    EXPECT_EQ(tagline.text, "A powerful screen recording tool for developers");
    EXPECT_EQ(tagline.fontSize, 12);
    EXPECT_EQ(tagline.alignment, TextAlignment::center);
    EXPECT_EQ(tagline.color, TextColor::secondaryLabel);

    const auto& features = view(d, "features");
    EXPECT_EQ(features.text,
              "Features:\n\u2022 Screen recording with camera overlay\n"
              "\u2022 Multiple video quality options  \n\u2022 Customizable camera positioning\n"
              "\u2022 VS Code automation integration");
    EXPECT_NE(features.text.back(), '\n');
    EXPECT_EQ(features.fontSize, 11);
    EXPECT_EQ(features.alignment, TextAlignment::left);
    EXPECT_EQ(features.color, TextColor::label);
    EXPECT_EQ(features.maximumNumberOfLines, 0);
    EXPECT_EQ(features.lineBreak, LineBreak::byWord);

    const auto& footer = view(d, "footer");
    EXPECT_FALSE(footer.text.empty());
    EXPECT_EQ(footer.text.find('\n'), std::string::npos);
    EXPECT_EQ(footer.fontSize, 10);
    EXPECT_EQ(footer.alignment, TextAlignment::center);
    EXPECT_EQ(footer.color, TextColor::tertiaryLabel);
}

std::string anchorName(Anchor a) {
    switch (a) {
        case Anchor::top:
            return "top";
        case Anchor::bottom:
            return "bottom";
        case Anchor::leading:
            return "leading";
        case Anchor::trailing:
            return "trailing";
        case Anchor::centerX:
            return "centerX";
        case Anchor::width:
            return "width";
        case Anchor::height:
            return "height";
    }
    return "?";
}

std::string text(const LayoutConstraint& c) {
    std::string s = c.firstView + "." + anchorName(c.firstAnchor) +
                    (c.relation == Relation::equal ? " = " : " <= ");
    if (!c.secondView.empty()) s += c.secondView + "." + anchorName(c.secondAnchor) + " + ";
    return s + std::to_string(static_cast<int>(c.constant));
}

TEST(AboutWindow, TwentyFourConstraintsInOrder) {
    FakeApplication app;
    FakeWindowSystem windows;
    AboutWindowController controller(windows, app);

    std::vector<std::string> got;
    for (const auto& c : controller.description().constraints) got.push_back(text(c));
    const std::vector<std::string> expected{
        "container.top = content.top + 20",
        "container.leading = content.leading + 20",
        "container.trailing = content.trailing + -20",
        "container.bottom = content.bottom + -20",
        "icon.top = container.top + 0",
        "icon.centerX = container.centerX + 0",
        "icon.width = 64",
        "icon.height = 64",
        "title.top = icon.bottom + 12",
        "title.leading = container.leading + 0",
        "title.trailing = container.trailing + 0",
        "version.top = title.bottom + 4",
        "version.leading = container.leading + 0",
        "version.trailing = container.trailing + 0",
        "tagline.top = version.bottom + 8",
        "tagline.leading = container.leading + 0",
        "tagline.trailing = container.trailing + 0",
        "features.top = tagline.bottom + 16",
        "features.leading = container.leading + 0",
        "features.trailing = container.trailing + 0",
        "footer.bottom = container.bottom + 0",
        "footer.leading = container.leading + 0",
        "footer.trailing = container.trailing + 0",
        "features.bottom <= footer.top + -12",
    };
    EXPECT_EQ(got, expected);
}

TEST(AboutWindow, IconFromTheBundledResourceElseTheApplicationsOwn) {
    FakeWindowSystem windows;
    {
        FakeApplication app;
        AboutWindowController controller(windows, app);
        EXPECT_EQ(view(controller.description(), "icon").imagePath, "");
        EXPECT_EQ(app.calls, (std::vector<std::string>{"resourcePath AppIcon.icns"}));
    }
    FakeApplication app;
    app.addResource("AppIcon", "icns", "/usr/share/glimmerbox/AppIcon.icns");
    AboutWindowController controller(windows, app);
    EXPECT_EQ(view(controller.description(), "icon").imagePath,
              "/usr/share/glimmerbox/AppIcon.icns");
}

TEST(AboutWindow, ShowWindowShowsTheSameWindowAgainAfterClosing) {
    FakeApplication app;
    FakeWindowSystem windows;
    AboutWindowController controller(windows, app);
    controller.showWindow();
    windows.windows[0]->close();
    controller.showWindow();
    EXPECT_EQ(windows.makeWindowCount(), 1u);
    EXPECT_EQ(windows.windows[0]->showCount, 2);
    EXPECT_TRUE(windows.windows[0]->isVisible());
}

// ---- notification identifiers
// --------------------------------------------------------------------

TEST(UUIDString, StampsVersionFourAndTheVariantInUpperCaseHex) {
    std::array<uint8_t, 16> bytes{};
    bytes.fill(0xFF);
    EXPECT_EQ(uuidString(bytes), "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
    bytes.fill(0x00);
    EXPECT_EQ(uuidString(bytes), "00000000-0000-4000-8000-000000000000");
    std::array<uint8_t, 16> counting{};
    for (size_t i = 0; i < counting.size(); ++i) counting[i] = static_cast<uint8_t>(0xA0 + i);
    EXPECT_EQ(uuidString(counting), "A0A1A2A3-A4A5-46A7-A8A9-AAABACADAEAF");
}

TEST(UUIDString, NewIdentifiersAreWellFormedAndDistinct) {
    const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    std::set<std::string> seen;
    for (int i = 0; i < 1000; ++i) {
        std::string id = makeUUIDString();
        ASSERT_TRUE(std::regex_match(id, form)) << id;
        seen.insert(id);
    }
    EXPECT_EQ(seen.size(), 1000u);
}

}  // namespace
}  // namespace gb
