#include "linux/desktop/dbus_notifications.h"

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

namespace gb::linuxp {
namespace {

// The server's default expiry.
constexpr int kServerDefaultTimeout = -1;

QDBusMessage methodCall(const char* method) {
    return QDBusMessage::createMethodCall(QString::fromLatin1(DBusNotificationCenter::kService),
                                          QString::fromLatin1(DBusNotificationCenter::kPath),
                                          QString::fromLatin1(DBusNotificationCenter::kInterface),
                                          QString::fromLatin1(method));
}

}  // namespace

DBusNotificationCenter::DBusNotificationCenter(QDBusConnection bus)
    : bus_(std::move(bus)), context_(std::make_unique<QObject>()) {}

DBusNotificationCenter::~DBusNotificationCenter() = default;

void DBusNotificationCenter::requestAuthorization(std::function<void(bool granted)> completion) {
    if (!bus_.isConnected()) {
        if (completion) completion(false);
        return;
    }
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(methodCall("GetServerInformation")),
                                                context_.get());
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, context_.get(),
                     [completion = std::move(completion)](QDBusPendingCallWatcher* call) {
                         call->deleteLater();
                         if (completion) completion(!call->isError());
                     });
}

QList<QVariant> DBusNotificationCenter::notifyArguments(const NotificationRequest& request) {
    QVariantMap hints;
    if (request.defaultSound)
        hints.insert(QStringLiteral("sound-name"), QString::fromLatin1(kDefaultSound));
    hints.insert(QStringLiteral("desktop-entry"),
                 QStringLiteral("io.github.glimmerbox.Glimmerbox"));
    return {
        QString::fromLatin1(kApplicationName),
        0U,  // replaces no earlier notification
        QStringLiteral("glimmerbox"),
        QString::fromStdString(request.title),
        QString::fromStdString(request.body),
        QStringList(),
        hints,
        kServerDefaultTimeout,
    };
}

void DBusNotificationCenter::add(const NotificationRequest& request) {
    if (!bus_.isConnected()) return;
    QDBusMessage call = methodCall("Notify");
    call.setArguments(notifyArguments(request));
    // Sent without waiting for the reply: the server shows the notification in its own time.
    bus_.send(call);
}

}  // namespace gb::linuxp
