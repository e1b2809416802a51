#include "portable/constraint_layout.h"

#include <cmath>
#include <set>

namespace gb::linuxp {
namespace {

// Values closer than this are taken as equal (half a point: what rounding to pixels hides).
constexpr double kTolerance = 0.5;

// One axis of a view: its start and end edges, centre and size. Any two of them fix the others;
// derive() fills them in as soon as two are known, so an axis holds either at most one known
// value or all four.
struct Axis {
    std::optional<double> start;
    std::optional<double> end;
    std::optional<double> centre;
    std::optional<double> size;

    [[nodiscard]] bool complete() const { return start && end && centre && size; }

    void fill(double newStart, double newSize) {
        start = newStart;
        size = newSize;
        end = newStart + newSize;
        centre = newStart + newSize / 2;
    }

    void derive() {
        if (complete()) return;
        if (start && size) {
            fill(*start, *size);
        } else if (start && end) {
            fill(*start, *end - *start);
        } else if (start && centre) {
            fill(*start, 2 * (*centre - *start));
        } else if (end && size) {
            fill(*end - *size, *size);
        } else if (end && centre) {
            fill(2 * *centre - *end, 2 * (*end - *centre));
        } else if (centre && size) {
            fill(*centre - *size / 2, *size);
        }
    }
};

struct Placement {
    const ViewDescription* view = nullptr;  // null for the content view
    Axis horizontal;
    Axis vertical;
};

std::string anchorName(Anchor anchor) {
    switch (anchor) {
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

std::optional<double>& slot(Placement& p, Anchor anchor) {
    switch (anchor) {
        case Anchor::top:
            return p.vertical.start;
        case Anchor::bottom:
            return p.vertical.end;
        case Anchor::height:
            return p.vertical.size;
        case Anchor::leading:
            return p.horizontal.start;
        case Anchor::trailing:
            return p.horizontal.end;
        case Anchor::centerX:
            return p.horizontal.centre;
        case Anchor::width:
            return p.horizontal.size;
    }
    return p.vertical.start;
}

Axis& axisOf(Placement& p, Anchor anchor) {
    const bool vertical =
        anchor == Anchor::top || anchor == Anchor::bottom || anchor == Anchor::height;
    return vertical ? p.vertical : p.horizontal;
}

bool isSizeAnchor(Anchor anchor) {
    return anchor == Anchor::width || anchor == Anchor::height;
}

std::string describe(size_t index, const LayoutConstraint& c) {
    std::string text = "constraint " + std::to_string(index + 1) + " (" + c.firstView + "." +
                       anchorName(c.firstAnchor) + (c.relation == Relation::equal ? " = " : " <= ");
    if (c.secondView.empty()) {
        text += std::to_string(c.constant);
    } else {
        text +=
            c.secondView + "." + anchorName(c.secondAnchor) + " + " + std::to_string(c.constant);
    }
    return text + ")";
}

class Solver {
public:
    Solver(const WindowDescription& d, const IntrinsicHeight& intrinsicHeight)
        : description_(d), intrinsicHeight_(intrinsicHeight) {
        Placement& content = placements_[kContentViewId];
        content.horizontal.fill(0, d.attributes.contentWidth);
        content.vertical.fill(0, d.attributes.contentHeight);
        for (const ViewDescription& view : d.views) {
            if (placements_.contains(view.id)) {
                result_.problems.push_back("view \"" + view.id + "\" is described twice");
                continue;
            }
            placements_[view.id].view = &view;
            order_.push_back(view.id);
        }
        for (size_t i = 0; i < d.constraints.size(); ++i) {
            const LayoutConstraint& c = d.constraints[i];
            const bool known = placements_.contains(c.firstView) &&
                               (c.secondView.empty() || placements_.contains(c.secondView));
            if (!known) reportOnce(i, describe(i, c) + " names a view that does not exist");
        }
    }

    LayoutResult solve() {
        for (;;) {
            if (propagateEqualities()) continue;
            if (!applyOneIntrinsicHeight()) break;
        }
        applyUpperBounds();
        collectFrames();
        return std::move(result_);
    }

private:
    Placement* find(const std::string& id) {
        auto it = placements_.find(id);
        return it == placements_.end() ? nullptr : &it->second;
    }

    void reportOnce(size_t constraintIndex, std::string problem) {
        if (reported_.insert(constraintIndex).second)
            result_.problems.push_back(std::move(problem));
    }

    // Sets an anchor that is still open; false when it was known already.
    static bool set(Placement& p, Anchor anchor, double value) {
        std::optional<double>& s = slot(p, anchor);
        if (s) return false;
        s = value;
        axisOf(p, anchor).derive();
        return true;
    }

    // The views a constraint relates and their anchors' values so far; a constraint without a
    // second view relates its first one to 0. Nothing when a view is unknown.
    struct Operands {
        Placement* first;
        Placement* second;
        std::optional<double> firstValue;
        std::optional<double> secondValue;
    };
    std::optional<Operands> operandsOf(const LayoutConstraint& c) {
        Placement* first = find(c.firstView);
        Placement* second = c.secondView.empty() ? nullptr : find(c.secondView);
        if (first == nullptr || (!c.secondView.empty() && second == nullptr)) return std::nullopt;
        return Operands{first, second, slot(*first, c.firstAnchor),
                        second ? slot(*second, c.secondAnchor) : std::optional<double>(0.0)};
    }

    bool propagateEqualities() {
        bool progressed = false;
        const auto& constraints = description_.constraints;
        for (size_t i = 0; i < constraints.size(); ++i) {
            const LayoutConstraint& c = constraints[i];
            if (c.relation != Relation::equal) continue;
            const std::optional<Operands> o = operandsOf(c);
            if (!o) continue;
            const auto& [first, second, f, s] = *o;
            if (f && s) {
                if (std::abs(*f - (*s + c.constant)) > kTolerance) {
                    reportOnce(i, describe(i, c) + " contradicts the constraints before it");
                }
            } else if (s) {
                progressed = set(*first, c.firstAnchor, *s + c.constant) || progressed;
            } else if (f && second) {
                progressed = set(*second, c.secondAnchor, *f - c.constant) || progressed;
            }
        }
        return progressed;
    }

    // Gives the first view (in description order) whose height is open its intrinsic height.
    bool applyOneIntrinsicHeight() {
        if (!intrinsicHeight_) return false;
        for (const std::string& id : order_) {
            Placement& p = placements_[id];
            if (p.vertical.size) continue;
            const std::optional<double> height = intrinsicHeight_(*p.view, p.horizontal.size);
            if (height && set(p, Anchor::height, *height)) return true;
        }
        return false;
    }

    void applyUpperBounds() {
        const auto& constraints = description_.constraints;
        for (size_t i = 0; i < constraints.size(); ++i) {
            const LayoutConstraint& c = constraints[i];
            if (c.relation != Relation::lessThanOrEqual) continue;
            const std::optional<Operands> o = operandsOf(c);
            if (!o) continue;
            const auto& [first, second, f, s] = *o;
            if (!f || !s) {
                reportOnce(i, describe(i, c) + " bounds an edge that nothing places");
                continue;
            }
            const double excess = *f - (*s + c.constant);
            if (excess <= kTolerance) continue;
            // Only a far edge or a size can give way: the view shrinks from its start.
            const bool shrinkable = c.firstAnchor == Anchor::bottom ||
                                    c.firstAnchor == Anchor::trailing ||
                                    isSizeAnchor(c.firstAnchor);
            Axis& axis = axisOf(*first, c.firstAnchor);
            if (!shrinkable || !axis.complete() || *axis.size < excess) {
                reportOnce(i, describe(i, c) + " cannot be met");
                continue;
            }
            axis.fill(*axis.start, *axis.size - excess);
        }
    }

    void collectFrames() {
        result_.frames[kContentViewId] = frameOf(placements_[kContentViewId]);
        for (const std::string& id : order_) {
            const Placement& p = placements_[id];
            if (!p.horizontal.complete() || !p.vertical.complete()) {
                result_.problems.push_back("view \"" + id + "\" is not fully placed");
            }
            result_.frames[id] = frameOf(p);
        }
    }

    static LayoutFrame frameOf(const Placement& p) {
        return LayoutFrame{p.horizontal.start.value_or(0), p.vertical.start.value_or(0),
                           p.horizontal.size.value_or(0), p.vertical.size.value_or(0)};
    }

    const WindowDescription& description_;
    const IntrinsicHeight& intrinsicHeight_;
    std::map<std::string, Placement> placements_;
    std::vector<std::string> order_;
    std::set<size_t> reported_;
    LayoutResult result_;
};

}  // namespace

LayoutResult solveLayout(const WindowDescription& description,
                         const IntrinsicHeight& intrinsicHeight) {
    return Solver(description, intrinsicHeight).solve();
}

}  // namespace gb::linuxp
