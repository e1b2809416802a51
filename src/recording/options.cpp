#include "recording/options.h"

#include <cmath>
#include <limits>
#include <optional>

#include "platform/display.h"

namespace gb {
namespace {

// Truncation toward zero, kept inside the int32 range so that a nonsensical display size
// cannot make the conversion undefined.
int32_t truncatedPoints(double points) {
    if (!std::isfinite(points)) return 0;
    const double t = std::trunc(points);
    if (t >= static_cast<double>(std::numeric_limits<int32_t>::max())) {
        return std::numeric_limits<int32_t>::max();
    }
    if (t <= static_cast<double>(std::numeric_limits<int32_t>::min())) {
        return std::numeric_limits<int32_t>::min();
    }
    return static_cast<int32_t>(t);
}

std::optional<Resolution> mainDisplaySize(const DisplayProvider& display) {
    const auto screen = display.mainScreen();
    if (!screen) return std::nullopt;
    return Resolution{truncatedPoints(screen->widthPoints), truncatedPoints(screen->heightPoints)};
}

}  // namespace

std::string displayName(VideoQuality quality, const DisplayProvider& display) {
    switch (quality) {
        case VideoQuality::medium:
            return "Medium (720p)";
        case VideoQuality::high:
            return "High (1080p)";
        case VideoQuality::ultra:
            return "Ultra (1440p)";
        case VideoQuality::screenResolution:
            break;
    }
    const auto size = mainDisplaySize(display);
    if (!size) return "Current Screen Resolution";
    return "Current Screen Resolution (" + std::to_string(size->width) + "x" +
           std::to_string(size->height) + ")";
}

Resolution resolution(VideoQuality quality, const DisplayProvider& display) {
    switch (quality) {
        case VideoQuality::medium:
            return {1280, 720};
        case VideoQuality::high:
            return {1920, 1080};
        case VideoQuality::ultra:
            return {2560, 1440};
        case VideoQuality::screenResolution:
            break;
    }
    return mainDisplaySize(display).value_or(Resolution{1920, 1080});
}

std::string displayName(CameraOverlayPreset preset) {
    switch (preset) {
        case CameraOverlayPreset::small:
            return "Small (240\u00D7135)";
        case CameraOverlayPreset::medium:
            return "Medium (320\u00D7180)";
        case CameraOverlayPreset::large:
            return "Large (480\u00D7270)";
    }
    return {};
}

OverlaySize size(CameraOverlayPreset preset) {
    switch (preset) {
        case CameraOverlayPreset::small:
            return {240, 135};
        case CameraOverlayPreset::medium:
            return {320, 180};
        case CameraOverlayPreset::large:
            return {480, 270};
    }
    return {};
}

std::string caseName(CameraOverlayPreset preset) {
    switch (preset) {
        case CameraOverlayPreset::small:
            return "small";
        case CameraOverlayPreset::medium:
            return "medium";
        case CameraOverlayPreset::large:
            return "large";
    }
    return {};
}

std::string displayName(CameraPosition position) {
    switch (position) {
        case CameraPosition::topLeft:
            return "Top Left";
        case CameraPosition::topRight:
            return "Top Right";
        case CameraPosition::bottomLeft:
            return "Bottom Left";
        case CameraPosition::bottomRight:
            return "Bottom Right";
    }
    return {};
}

}  // namespace gb
