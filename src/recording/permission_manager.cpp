#include "recording/permission_manager.h"

#include <atomic>
#include <future>
#include <memory>

#include "recording/log.h"

namespace gb {

bool PermissionManager::requestAccess(MediaType type) {
    // The completion may run on any thread, or before requestAccess returns; the promise hands
    // its answer to this thread either way. The flag keeps a second call from throwing. Only
    // the completion owns the promise, so a completion dropped unanswered breaks it.
    struct Answer {
        std::promise<bool> promise;
        std::atomic<bool> answered{false};
    };
    auto answer = std::make_shared<Answer>();
    std::future<bool> granted = answer->promise.get_future();
    requester_.requestAccess(type, [answer = std::move(answer)](bool ok) {
        if (!answer->answered.exchange(true)) answer->promise.set_value(ok);
    });
    try {
        return granted.get();
    } catch (const std::future_error&) {
        // The platform dropped the completion without answering: nothing was granted.
        logLine(std::string("Access request for the ") +
                (type == MediaType::audio ? "microphone" : "camera") +
                " ended without an answer; treating it as refused");
        return false;
    }
}

bool PermissionManager::requestMicrophonePermission() {
    return requestAccess(MediaType::audio);
}

bool PermissionManager::requestCameraPermission() {
    return requestAccess(MediaType::video);
}

bool PermissionManager::checkAllPermissions(bool includeCamera) {
    const bool mic = requestMicrophonePermission();
    if (!includeCamera) return mic;
    // Asked even when the microphone was refused, after its answer, so that at most one system
    // prompt shows at a time.
    const bool cam = requestCameraPermission();
    return mic && cam;
}

std::vector<std::string> PermissionManager::missingPermissions(bool includeCamera) {
    std::vector<std::string> missing;
    if (!requestMicrophonePermission()) missing.emplace_back("microphone");
    if (includeCamera && !requestCameraPermission()) missing.emplace_back("camera");
    return missing;
}

}  // namespace gb
