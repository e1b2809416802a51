// Desktop notifications through the freedesktop notification service on the session bus
// (org.freedesktop.Notifications): every call is asynchronous, so a slow or absent notification
// server never holds up the event loop.
//
// Threads: main thread (the thread of the QApplication); completions run there too.
#pragma once

#include <QDBusConnection>
#include <QVariant>

#include <functional>
#include <memory>

#include "platform/notifications.h"

class QObject;

namespace gb::linuxp {

class DBusNotificationCenter final : public NotificationCenter {
public:
    static constexpr const char* kService = "org.freedesktop.Notifications";
    static constexpr const char* kPath = "/org/freedesktop/Notifications";
    static constexpr const char* kInterface = "org.freedesktop.Notifications";
    static constexpr const char* kApplicationName = "Glimmerbox";
    static constexpr const char* kDefaultSound = "message-new-instant";

    explicit DBusNotificationCenter(QDBusConnection bus = QDBusConnection::sessionBus());
    ~DBusNotificationCenter() override;
    DBusNotificationCenter(const DBusNotificationCenter&) = delete;
    DBusNotificationCenter& operator=(const DBusNotificationCenter&) = delete;

    // Nothing to grant on Linux: asks whether a notification server answers
    // (GetServerInformation) and passes that on. Without a session bus the answer is false.
    void requestAuthorization(std::function<void(bool granted)> completion) override;
    // Notify, with no reply awaited: shown at once, until the server's own timeout, with the
    // desktop's message sound when asked for. Failures are not reported (a refused or missing
    // notification changes nothing else).
    void add(const NotificationRequest& request) override;

    // The Notify call's arguments for a request.
    [[nodiscard]] static QList<QVariant> notifyArguments(const NotificationRequest& request);

private:
    QDBusConnection bus_;
    std::unique_ptr<QObject> context_;  // parent of pending-call watchers
};

}  // namespace gb::linuxp
