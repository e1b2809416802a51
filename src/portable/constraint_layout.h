// Places the views of a described window from its constraint list: a small solver for the
// anchors that window descriptions use (top, bottom, leading, trailing, centre x, width,
// height), with constants, equalities and upper bounds.
//
// Equalities are propagated until nothing more follows from them; a view whose height is still
// open then takes its intrinsic height (a label's text height at its width) and propagation goes
// on. Upper bounds are applied last: a view whose trailing or bottom edge lies past its bound is
// compressed, as a text field gives way to a required constraint.
//
// Threads: any; plain functions without shared state.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/user_interface.h"

namespace gb::linuxp {

// The window's content view, parent of the top-level views.
inline constexpr const char* kContentViewId = "content";

// A view's rectangle in the content view's coordinates (origin top left, y growing downwards).
struct LayoutFrame {
    double x = 0;
    double y = 0;
    double width = 0;
    double height = 0;
};

struct LayoutResult {
    std::map<std::string, LayoutFrame> frames;  // every described view, and the content view
    // Views left partly unplaced, constraints that contradict others or name unknown views:
    // one readable line each. Empty for a well-formed description.
    std::vector<std::string> problems;
};

// The height a view takes by itself at the given width (unknown: nothing), or nothing when the
// view has no intrinsic height.
using IntrinsicHeight =
    std::function<std::optional<double>(const ViewDescription& view, std::optional<double> width)>;

[[nodiscard]] LayoutResult solveLayout(const WindowDescription& description,
                                       const IntrinsicHeight& intrinsicHeight);

}  // namespace gb::linuxp
