// User notifications.
//
// Threads: called on the main thread. Completions may run on any thread.
#pragma once

#include <functional>
#include <string>

namespace gb {

struct NotificationRequest {
    std::string identifier;  // upper-case UUID text
    std::string title;
    std::string body;
    bool defaultSound = true;  // the desktop's default message sound
};

class NotificationCenter {
public:
    virtual ~NotificationCenter() = default;
    // Asks once for permission to show alerts and play sounds. The completion may never run.
    virtual void requestAuthorization(std::function<void(bool granted)> completion) = 0;
    // Hands an immediate notification to the system; the outcome is not reported.
    virtual void add(const NotificationRequest& request) = 0;
};

}  // namespace gb
