// Guards against: About-window views placed wrongly by the layout solver.
#include <gtest/gtest.h>

#include <algorithm>

#include "portable/constraint_layout.h"

namespace gb::linuxp {
namespace {

ViewDescription view(std::string id, ViewKind kind, std::string parent) {
    ViewDescription v;
    v.id = std::move(id);
    v.kind = kind;
    v.parent = std::move(parent);
    return v;
}

LayoutConstraint pin(std::string first, Anchor a, std::string second, Anchor b, double c = 0,
                     Relation r = Relation::equal) {
    return LayoutConstraint{std::move(first), a, r, std::move(second), b, c};
}

LayoutConstraint fixed(std::string first, Anchor a, double c) {
    return LayoutConstraint{std::move(first), a, Relation::equal, {}, Anchor::top, c};
}

// A box 400 x 300 with a container inset by 20, an icon hanging from its top, a label under
// the icon and a label on its bottom edge.
WindowDescription columnWindow() {
    WindowDescription d;
    d.attributes.contentWidth = 400;
    d.attributes.contentHeight = 300;
    d.views = {
        view("container", ViewKind::plain, "content"), view("icon", ViewKind::image, "container"),
        view("text", ViewKind::label, "container"), view("footer", ViewKind::label, "container")};
    d.constraints = {
        pin("container", Anchor::top, "content", Anchor::top, 20),
        pin("container", Anchor::leading, "content", Anchor::leading, 20),
        pin("container", Anchor::trailing, "content", Anchor::trailing, -20),
        pin("container", Anchor::bottom, "content", Anchor::bottom, -20),
        pin("icon", Anchor::top, "container", Anchor::top),
        pin("icon", Anchor::centerX, "container", Anchor::centerX),
        fixed("icon", Anchor::width, 64),
        fixed("icon", Anchor::height, 64),
        pin("text", Anchor::top, "icon", Anchor::bottom, 12),
        pin("text", Anchor::leading, "container", Anchor::leading),
        pin("text", Anchor::trailing, "container", Anchor::trailing),
        pin("footer", Anchor::bottom, "container", Anchor::bottom),
        pin("footer", Anchor::leading, "container", Anchor::leading),
        pin("footer", Anchor::trailing, "container", Anchor::trailing),
        pin("text", Anchor::bottom, "footer", Anchor::top, -12, Relation::lessThanOrEqual),
    };
    return d;
}

IntrinsicHeight heights(double text, double footer) {
    return [=](const ViewDescription& v, std::optional<double>) -> std::optional<double> {
        if (v.id == "text") return text;
        if (v.id == "footer") return footer;
        return std::nullopt;
    };
}

void expectFrame(const LayoutFrame& f, double x, double y, double w, double h) {
    EXPECT_DOUBLE_EQ(f.x, x);
    EXPECT_DOUBLE_EQ(f.y, y);
    EXPECT_DOUBLE_EQ(f.width, w);
    EXPECT_DOUBLE_EQ(f.height, h);
}

TEST(ConstraintLayout, PlacesAColumnFromTheTopAFooterOnTheBottomAndCompressesInBetween) {
    std::optional<double> widthSeen;
    const IntrinsicHeight measure = [&](const ViewDescription& v, std::optional<double> width) {
        if (v.id == "text") widthSeen = width;  // asked at the view's width
        return heights(40, 14)(v, width);
    };
    const LayoutResult r = solveLayout(columnWindow(), measure);
    EXPECT_TRUE(r.problems.empty()) << r.problems.front();
    expectFrame(r.frames.at("content"), 0, 0, 400, 300);
    expectFrame(r.frames.at("container"), 20, 20, 360, 260);
    expectFrame(r.frames.at("icon"), 168, 20, 64, 64);  // centred in the container
    expectFrame(r.frames.at("text"), 20, 96, 360, 40);
    expectFrame(r.frames.at("footer"), 20, 266, 360, 14);
    EXPECT_EQ(widthSeen, 360.0);
}

}  // namespace
}  // namespace gb::linuxp
