#include "capture/camera_manager.h"

#include <array>
#include <cctype>
#include <cstdint>
#include <optional>
#include <string>

#include "recording/log.h"

namespace gb {
namespace {

// Devices list at most this many formats in the log.
constexpr size_t kListedFormats = 6;

std::string lowercased(const std::string& text) {
    std::string out = text;
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

bool contains(const std::string& text, const char* part) {
    return text.find(part) != std::string::npos;
}

std::string dimensions(const CameraFormat& format) {
    return std::to_string(format.width) + "x" + std::to_string(format.height);
}

bool isUsable(const CameraDeviceInfo& info) {
    return info.connected && !info.suspended;
}

CameraFormat presetCaptureSize(CameraOverlayPreset preset) {
    switch (preset) {
        case CameraOverlayPreset::small:
            return {640, 480};
        case CameraOverlayPreset::medium:
            return {1280, 720};
        case CameraOverlayPreset::large:
            return {1920, 1080};
    }
    return {1280, 720};
}

void logDevice(size_t index, const CameraDeviceInfo& info) {
    logLine("  " + std::to_string(index) + ": " + info.localizedName + " - ID: " + info.uniqueID);
    logLine("     Position: " + std::to_string(info.position) +
            ", Connected: " + boolText(info.connected));
    logLine(std::string("     Suspended: ") + boolText(info.suspended));
    const bool hasActive = info.activeFormatIndex >= 0 &&
                           static_cast<size_t>(info.activeFormatIndex) < info.formats.size();
    logLine("     Active format: " +
            (hasActive ? dimensions(info.formats[static_cast<size_t>(info.activeFormatIndex)])
                       : std::string("none")));
    logLine("     Available formats:");
    for (size_t j = 0; j < info.formats.size(); ++j) {
        std::string line = "       [" + std::to_string(j) + "]: " + dimensions(info.formats[j]);
        if (static_cast<int64_t>(j) == info.activeFormatIndex) line += " (ACTIVE)";
        logLine(line);
        if (j + 1 == kListedFormats) {
            logLine("       ... and " + std::to_string(info.formats.size() - kListedFormats) +
                    " more formats");
            break;
        }
    }
}

// Index of the format to use, or nothing when no format suits.
std::optional<size_t> chooseFormat(const std::vector<CameraFormat>& formats,
                                   CameraOverlayPreset preset) {
    const std::array<CameraFormat, 6> preferred = {
        presetCaptureSize(preset), CameraFormat{1920, 1080}, CameraFormat{1280, 720},
        CameraFormat{960, 540},    CameraFormat{640, 480},   CameraFormat{320, 240}};
    for (const CameraFormat& wanted : preferred) {
        for (size_t i = 0; i < formats.size(); ++i) {
            if (formats[i] == wanted) {
                logLine("✅ Found preferred format: " + dimensions(formats[i]));
                return i;
            }
        }
    }
    // The lowest resolution below 2560x1600; the earlier format wins a tie.
    std::optional<size_t> best;
    int64_t bestPixels = 0;
    for (size_t i = 0; i < formats.size(); ++i) {
        const CameraFormat& f = formats[i];
        if (f.width >= 2560 || f.height >= 1600) continue;
        const int64_t pixels = static_cast<int64_t>(f.width) * static_cast<int64_t>(f.height);
        if (!best || pixels < bestPixels) {
            best = i;
            bestPixels = pixels;
        }
    }
    return best;
}

}  // namespace

bool CameraManager::isVirtual(const CameraDeviceInfo& info) {
    // What the device says of itself outweighs what its name suggests.
    if (info.attachment != CameraAttachment::unknown) {
        return info.attachment == CameraAttachment::software;
    }
    const std::string name = lowercased(info.localizedName);
    return contains(name, "virtual") || contains(name, "obs") || contains(name, "mmhmm") ||
           contains(name, "screen") || contains(info.uniqueID, "CMIO");
}

CameraCategory CameraManager::category(const CameraDeviceInfo& info) {
    if (isVirtual(info)) return CameraCategory::virtualCamera;
    if (info.attachment == CameraAttachment::fixed) return CameraCategory::builtIn;
    if (info.attachment == CameraAttachment::removable) return CameraCategory::external;
    const std::string name = lowercased(info.localizedName);
    if (contains(name, "facetime") || contains(name, "built-in")) return CameraCategory::builtIn;
    return CameraCategory::external;
}

CaptureDeviceRef CameraManager::findBestCamera() {
    const std::vector<CaptureDeviceRef> devices = factory_.discoverVideoDevices();
    std::vector<CameraDeviceInfo> infos;
    infos.reserve(devices.size());
    logLine("🔍 Available camera devices:");
    for (size_t i = 0; i < devices.size(); ++i) {
        infos.push_back(devices[i] ? devices[i]->info() : CameraDeviceInfo{});
        logDevice(i, infos.back());
    }
    return selectAmong(devices, infos);
}

CaptureDeviceRef CameraManager::selectBestCamera(const std::vector<CaptureDeviceRef>& devices) {
    std::vector<CameraDeviceInfo> infos;
    infos.reserve(devices.size());
    for (const CaptureDeviceRef& d : devices) infos.push_back(d ? d->info() : CameraDeviceInfo{});
    return selectAmong(devices, infos);
}

CaptureDeviceRef CameraManager::selectAmong(const std::vector<CaptureDeviceRef>& devices,
                                            const std::vector<CameraDeviceInfo>& infos) {
    logLine("🎯 Selecting best camera from " + std::to_string(devices.size()) +
            " available devices...");
    std::vector<size_t> builtIn;
    std::vector<size_t> external;
    std::vector<size_t> virtualCameras;
    for (size_t i = 0; i < devices.size(); ++i) {
        switch (category(infos[i])) {
            case CameraCategory::builtIn:
                builtIn.push_back(i);
                break;
            case CameraCategory::external:
                external.push_back(i);
                break;
            case CameraCategory::virtualCamera:
                virtualCameras.push_back(i);
                break;
        }
    }
    logLine("📊 Camera categorization:");
    logLine("   Built-in cameras: " + std::to_string(builtIn.size()));
    logLine("   External cameras: " + std::to_string(external.size()));
    logLine("   Virtual cameras: " + std::to_string(virtualCameras.size()));

    // A missing device (null) is never usable: its info is the default, disconnected one.
    const auto firstUsable = [&](const std::vector<size_t>& list) -> std::optional<size_t> {
        for (size_t i : list) {
            if (devices[i] && isUsable(infos[i])) return i;
        }
        return std::nullopt;
    };
    if (const auto i = firstUsable(builtIn)) {
        logLine("✅ Selected built-in camera: " + infos[*i].localizedName);
        return devices[*i];
    }
    if (const auto i = firstUsable(external)) {
        logLine("✅ Selected external camera: " + infos[*i].localizedName);
        return devices[*i];
    }
    if (const auto i = firstUsable(virtualCameras)) {
        logLine("⚠️ Selected virtual camera: " + infos[*i].localizedName +
                " (may contain screen content)");
        return devices[*i];
    }
    logLine("❌ No suitable camera found");
    return nullptr;
}

CameraValidation CameraManager::validateCamera(const CaptureDeviceRef& device) const {
    const CameraDeviceInfo info = device ? device->info() : CameraDeviceInfo{};
    CameraValidation result;
    if (isVirtual(info)) {
        result.warnings.emplace_back("Camera appears to be virtual - may contain screen content");
    }
    if (info.suspended) result.warnings.emplace_back("Camera is suspended");
    if (!info.connected) result.warnings.emplace_back("Camera is not connected");
    result.isValid = isUsable(info);
    return result;
}

void CameraManager::configureOptimalFormat(const CaptureDeviceRef& device,
                                           CameraOverlayPreset preset) {
    logLine("🔧 Configuring optimal camera format for " + caseName(preset) + "...");
    const CameraDeviceInfo info = device ? device->info() : CameraDeviceInfo{};
    const std::optional<size_t> chosen = chooseFormat(info.formats, preset);
    if (!chosen) {
        logLine("⚠️ No suitable camera format found, using default");
        return;
    }
    logLine("🎯 Setting camera to format: " + dimensions(info.formats[*chosen]));
    if (Result<void> locked = device->lockForConfiguration(); !locked) {
        throw CameraConfigurationError(locked.error());
    }
    device->setActiveFormat(static_cast<int>(*chosen));
    device->unlockForConfiguration();
    logLine("✅ Camera format configured successfully");
}

}  // namespace gb
