// The main display query.
//
// Threads: any thread. Each call asks anew, so answers follow the current display setup.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <variant>

namespace gb {

// The key of the display identifier in a screen's device description.
inline constexpr const char* kScreenNumberKey = "NSScreenNumber";

using DeviceDescriptionValue = std::variant<uint32_t, int64_t, double, std::string>;

struct MainScreen {
    double widthPoints = 0;   // frame size in points (pixels divided by the desktop scale)
    double heightPoints = 0;
    // Entries describing the screen; kScreenNumberKey holds the display identifier as a
    // uint32_t (on X11: the RandR output, or the root window when RandR names none).
    std::map<std::string, DeviceDescriptionValue> deviceDescription;
};

class DisplayProvider {
public:
    virtual ~DisplayProvider() = default;
    // The main display, or nothing when there is none (no reachable display server).
    [[nodiscard]] virtual std::optional<MainScreen> mainScreen() const = 0;
};

}  // namespace gb
