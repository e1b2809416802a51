// Chooses the overlay's camera, checks it and gives it the capture format that suits the overlay.
//
// Stateless: every operation works on its arguments and on what the devices report (each
// operation reads a device's info() once). Runs on its caller's thread (the camera set-up on the
// background executor); shares nothing between calls.
#pragma once

#include <exception>
#include <string>
#include <vector>

#include "platform/capture.h"
#include "platform/result.h"
#include "recording/options.h"

namespace gb {

enum class CameraCategory { builtIn, external, virtualCamera };

struct CameraValidation {
    bool isValid = false;
    std::vector<std::string> warnings;  // in the order: virtual, suspended, not connected
};

// The device refused exclusive control while its format was being changed.
class CameraConfigurationError final : public std::exception {
public:
    explicit CameraConfigurationError(PlatformError error) : error_(std::move(error)) {}
    [[nodiscard]] const PlatformError& platformError() const { return error_; }
    // The platform error's localized description.
    [[nodiscard]] const char* what() const noexcept override {
        return error_.localizedDescription.c_str();
    }

private:
    PlatformError error_;
};

class CameraManager {
public:
    explicit CameraManager(CaptureFactory& factory) : factory_(factory) {}

    // Lists every camera in the log and returns the best usable one, or null.
    [[nodiscard]] CaptureDeviceRef findBestCamera();
    // Built-in before external before virtual; within a category the given order. Null when
    // no device is connected and unsuspended.
    [[nodiscard]] CaptureDeviceRef selectBestCamera(const std::vector<CaptureDeviceRef>& devices);
    // A missing device counts as a disconnected one.
    [[nodiscard]] CameraValidation validateCamera(const CaptureDeviceRef& device) const;
    // Makes the best format for the overlay size the active one. Throws CameraConfigurationError
    // when the device cannot be locked; the active format is then unchanged.
    void configureOptimalFormat(const CaptureDeviceRef& device, CameraOverlayPreset preset);

    // Name and identifier tests, no word boundaries: "obs" matches inside "lobster".
    [[nodiscard]] static bool isVirtual(const CameraDeviceInfo& info);
    [[nodiscard]] static CameraCategory category(const CameraDeviceInfo& info);

private:
    CaptureDeviceRef selectAmong(const std::vector<CaptureDeviceRef>& devices,
                                 const std::vector<CameraDeviceInfo>& infos);

    CaptureFactory& factory_;
};

}  // namespace gb
