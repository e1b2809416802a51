// The user's recording options and their fixed tables of sizes and labels.
#pragma once

#include <cstdint>
#include <string>

namespace gb {

class DisplayProvider;

enum class VideoQuality : uint8_t { medium, high, ultra, screenResolution };
enum class CameraOverlayPreset : uint8_t { small, medium, large };
enum class CameraPosition : uint8_t { topLeft, topRight, bottomLeft, bottomRight };

struct Resolution {
    int32_t width = 0;
    int32_t height = 0;
    friend bool operator==(const Resolution&, const Resolution&) = default;
};

struct OverlaySize {
    double width = 0;
    double height = 0;
    friend bool operator==(const OverlaySize&, const OverlaySize&) = default;
};

// screenResolution consults the main display anew at each call.
[[nodiscard]] std::string displayName(VideoQuality quality, const DisplayProvider& display);
[[nodiscard]] Resolution resolution(VideoQuality quality, const DisplayProvider& display);

[[nodiscard]] std::string displayName(CameraOverlayPreset preset);
[[nodiscard]] OverlaySize size(CameraOverlayPreset preset);
// "small", "medium" or "large".
[[nodiscard]] std::string caseName(CameraOverlayPreset preset);

[[nodiscard]] std::string displayName(CameraPosition position);

}  // namespace gb
