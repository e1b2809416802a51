#include "linux/pulse/pulse_access.h"

#include <pulse/def.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <exception>
#include <filesystem>
#include <system_error>
#include <vector>

#include "linux/pulse/pulse_connection.h"
#include "recording/log.h"

namespace gb::linuxp {
namespace {

bool isVideoNode(const std::string& name) {
    constexpr std::string_view prefix = "video";
    if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) return false;
    return std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                       [](unsigned char c) { return std::isdigit(c) != 0; });
}

}  // namespace

void PulseAccessRequester::requestAccess(MediaType type,
                                         std::function<void(bool granted)> completion) {
    bool granted = true;
    try {
        granted = type == MediaType::audio ? audioAccessGranted() : videoAccessGranted();
    } catch (const std::exception& error) {
        // Access is the system's to refuse; a failing check leaves it to the capture set-up.
        logLine(std::string("Access check failed: ") + error.what());
    }
    completion(granted);
}

bool PulseAccessRequester::audioAccessGranted() const {
    auto connection =
        PulseConnection::open("Glimmerbox", PulseConnection::Clock::now() + serverTimeout_);
    if (!connection && connection.error().code == PA_ERR_ACCESS) {
        logLine("❌ Microphone access refused by the sound server: " +
                connection.error().localizedDescription);
        return false;
    }
    return true;
}

bool PulseAccessRequester::videoAccessGranted() const {
    std::error_code error;
    std::filesystem::directory_iterator entries(deviceDirectory_, error);
    if (error) return true;  // no device folder: no camera to refuse
    std::vector<std::string> refused;
    for (const auto& entry : entries) {
        const std::string name = entry.path().filename().string();
        if (!isVideoNode(name)) continue;
        if (::access(entry.path().c_str(), R_OK | W_OK) == 0) return true;
        refused.push_back(entry.path().string());
    }
    if (refused.empty()) return true;
    std::sort(refused.begin(), refused.end());
    std::string list;
    for (const auto& path : refused) list += (list.empty() ? "" : ", ") + path;
    logLine("❌ Camera access refused: this user may not open " + list +
            " (is the user in the video group?)");
    return false;
}

}  // namespace gb::linuxp
