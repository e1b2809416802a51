#include "app/about_window_controller.h"

#include <utility>
#include <vector>

namespace gb {
namespace {

constexpr const char* kContent = "content";
constexpr const char* kContainer = "container";
constexpr const char* kIcon = "icon";
constexpr const char* kTitle = "title";
constexpr const char* kVersion = "version";
constexpr const char* kTagline = "tagline";
constexpr const char* kFeatures = "features";
constexpr const char* kFooter = "footer";

// The third line keeps its two trailing blanks; there is no final line feed.
constexpr const char* kFeaturesText =
    "Features:\n"
    "\u2022 Screen recording with camera overlay\n"
    "\u2022 Multiple video quality options  \n"
    "\u2022 Customizable camera positioning\n"
    "\u2022 VS Code automation integration";

constexpr const char* kFooterText = "Made for developers who show their work";

ViewDescription label(std::string id, std::string text, double fontSize, FontWeight weight,
                      TextAlignment alignment, TextColor color) {
    ViewDescription v;
    v.id = std::move(id);
    v.kind = ViewKind::label;
    v.parent = kContainer;
    v.text = std::move(text);
    v.fontSize = fontSize;
    v.fontWeight = weight;
    v.alignment = alignment;
    v.color = color;
    return v;
}

LayoutConstraint pin(std::string first, Anchor firstAnchor, std::string second, Anchor secondAnchor,
                     double constant = 0, Relation relation = Relation::equal) {
    return LayoutConstraint{std::move(first),  firstAnchor,  relation,
                            std::move(second), secondAnchor, constant};
}

LayoutConstraint fixed(std::string view, Anchor anchor, double constant) {
    return LayoutConstraint{std::move(view), anchor, Relation::equal, {}, Anchor::top, constant};
}

}  // namespace

WindowDescription makeAboutWindowDescription(Application& application) {
    WindowDescription d;

    WindowAttributes& a = d.attributes;
    a.contentWidth = 400;
    a.contentHeight = 300;
    a.styleMask = 1 | 2;  // titled, closable: no resizing, no minimising
    a.backing = 2;
    a.deferred = false;
    a.title = "About Glimmerbox";
    a.centred = true;
    a.releasedWhenClosed = false;  // closing hides; the window is shown again later

    ViewDescription container;
    container.id = kContainer;
    container.kind = ViewKind::plain;
    container.parent = kContent;
    d.views.push_back(container);

    ViewDescription icon;
    icon.id = kIcon;
    icon.kind = ViewKind::image;
    icon.parent = kContainer;
    icon.imageScaling = 3;
    // An empty path stands for the running application's own icon.
    icon.imagePath = application.resourcePath("AppIcon", "icns").value_or("");
    d.views.push_back(icon);

    d.views.push_back(label(kTitle, "Glimmerbox", 24, FontWeight::bold, TextAlignment::center,
                            TextColor::standard));
    d.views.push_back(label(kVersion, "Version 1.0", 14, FontWeight::regular, TextAlignment::center,
                            TextColor::secondaryLabel));
    d.views.push_back(label(kTagline, "A powerful screen recording tool for developers", 12,
                            FontWeight::regular, TextAlignment::center, TextColor::secondaryLabel));
    ViewDescription features = label(kFeatures, kFeaturesText, 11, FontWeight::regular,
                                     TextAlignment::left, TextColor::label);
    features.maximumNumberOfLines = 0;
    features.lineBreak = LineBreak::byWord;
    d.views.push_back(features);
    d.views.push_back(label(kFooter, kFooterText, 10, FontWeight::regular, TextAlignment::center,
                            TextColor::tertiaryLabel));

    d.constraints = {
        pin(kContainer, Anchor::top, kContent, Anchor::top, 20),
        pin(kContainer, Anchor::leading, kContent, Anchor::leading, 20),
        pin(kContainer, Anchor::trailing, kContent, Anchor::trailing, -20),
        pin(kContainer, Anchor::bottom, kContent, Anchor::bottom, -20),
        pin(kIcon, Anchor::top, kContainer, Anchor::top),
        pin(kIcon, Anchor::centerX, kContainer, Anchor::centerX),
        fixed(kIcon, Anchor::width, 64),
        fixed(kIcon, Anchor::height, 64),
        pin(kTitle, Anchor::top, kIcon, Anchor::bottom, 12),
        pin(kTitle, Anchor::leading, kContainer, Anchor::leading),
        pin(kTitle, Anchor::trailing, kContainer, Anchor::trailing),
        pin(kVersion, Anchor::top, kTitle, Anchor::bottom, 4),
        pin(kVersion, Anchor::leading, kContainer, Anchor::leading),
        pin(kVersion, Anchor::trailing, kContainer, Anchor::trailing),
        pin(kTagline, Anchor::top, kVersion, Anchor::bottom, 8),
        pin(kTagline, Anchor::leading, kContainer, Anchor::leading),
        pin(kTagline, Anchor::trailing, kContainer, Anchor::trailing),
        pin(kFeatures, Anchor::top, kTagline, Anchor::bottom, 16),
        pin(kFeatures, Anchor::leading, kContainer, Anchor::leading),
        pin(kFeatures, Anchor::trailing, kContainer, Anchor::trailing),
        pin(kFooter, Anchor::bottom, kContainer, Anchor::bottom),
        pin(kFooter, Anchor::leading, kContainer, Anchor::leading),
        pin(kFooter, Anchor::trailing, kContainer, Anchor::trailing),
        pin(kFeatures, Anchor::bottom, kFooter, Anchor::top, -12, Relation::lessThanOrEqual),
    };
    return d;
}

AboutWindowController::AboutWindowController(WindowSystem& windowSystem, Application& application)
    : description_(makeAboutWindowDescription(application)),
      window_(windowSystem.makeWindow(description_)) {
    // The window is handed over already realised, so the load hook runs here.
    windowDidLoad();
}

void AboutWindowController::windowDidLoad() {
    if (window_) window_->setLevel(kFloatingWindowLevel);
}

void AboutWindowController::showWindow() {
    if (window_) window_->show();
}

}  // namespace gb
