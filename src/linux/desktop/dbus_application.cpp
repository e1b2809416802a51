#include "linux/desktop/dbus_application.h"

#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusConnectionInterface>
#include <QDBusContext>
#include <QDBusMessage>
#include <QDBusReply>
#include <QStringList>
#include <QVariantMap>

#include <cstdio>
#include <optional>
#include <utility>

#include "recording/log.h"

namespace gb::linuxp {
namespace {

constexpr const char* kPropertiesInterface = "org.freedesktop.DBus.Properties";
// Starting may include the bus launching the program; saving may take a while for a long
// recording.
constexpr int kCommandTimeoutMs = 120'000;
constexpr int kQueryTimeoutMs = 25'000;

std::optional<ControlCommand> commandForAction(const QString& action) {
    if (action == QLatin1String("start-recording")) return ControlCommand::start;
    if (action == QLatin1String("stop-recording")) return ControlCommand::stop;
    if (action == QLatin1String("toggle-recording")) return ControlCommand::toggle;
    return std::nullopt;
}

}  // namespace

// The object at kApplicationPath; its two interfaces are the adaptors below. It carries the
// D-Bus context (the call being answered) for them.
class ApplicationObject final : public QObject, protected QDBusContext {
    Q_OBJECT
public:
    ApplicationObject(RecordingRemote& remote, std::function<void()> activate)
        : remote_(remote), activate_(std::move(activate)) {}

    void activate() {
        logLine("Glimmerbox: activated");
        if (activate_) activate_();
    }

    void activateAction(const QString& name) {
        const auto command = commandForAction(name);
        if (!command) {
            sendErrorReply(QDBusError::InvalidArgs, QStringLiteral("No such action: ") + name);
            return;
        }
        logLine("Glimmerbox: action " + name.toStdString());
        // Launchers expect no answer beyond the call's return; the outcome is only logged.
        remote_.perform(*command, [name = name.toStdString()](const ControlOutcome& outcome) {
            if (outcome.kind != ControlOutcome::Kind::done) {
                logLine("Glimmerbox: action " + name + " not carried out: " + outcome.message);
            }
        });
    }

    // Answered once the command's outcome is known.
    void command(ControlCommand command) {
        setDelayedReply(true);
        remote_.perform(command, [this, call = message(),
                                  bus = connection()](const ControlOutcome& outcome) mutable {
            switch (outcome.kind) {
                case ControlOutcome::Kind::done:
                    bus.send(call.createReply(QVariantList{state(), lastSavedFile()}));
                    return;
                case ControlOutcome::Kind::refused:
                    bus.send(call.createErrorReply(QString::fromLatin1(kRefusedError),
                                                   QString::fromStdString(outcome.message)));
                    return;
                case ControlOutcome::Kind::failed:
                    bus.send(call.createErrorReply(QString::fromLatin1(kFailedError),
                                                   QString::fromStdString(outcome.message)));
                    return;
            }
        });
    }

    [[nodiscard]] QString state() const { return QString::fromLatin1(stateName(remote_.state())); }
    [[nodiscard]] QString lastSavedFile() const {
        return QString::fromStdString(remote_.lastSavedFile().value_or(std::string()));
    }

private:
    RecordingRemote& remote_;
    std::function<void()> activate_;
};

class FreedesktopApplicationAdaptor final : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Application")
public:
    explicit FreedesktopApplicationAdaptor(ApplicationObject* object)
        : QDBusAbstractAdaptor(object), object_(object) {}

public Q_SLOTS:
    void Activate(const QVariantMap& /*platformData*/) { object_->activate(); }
    // There are no documents to open: opening brings the program forward, as activating does.
    void Open(const QStringList& uris, const QVariantMap& /*platformData*/) {
        logLine("Glimmerbox: asked to open " + uris.join(QLatin1Char(' ')).toStdString() +
                "; it opens no files");
        object_->activate();
    }
    void ActivateAction(const QString& name, const QVariantList& /*parameter*/,
                        const QVariantMap& /*platformData*/) {
        object_->activateAction(name);
    }

private:
    ApplicationObject* object_;
};

class RecordingAdaptor final : public QDBusAbstractAdaptor {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "io.github.glimmerbox.Glimmerbox.Recording")
    Q_PROPERTY(QString State READ state)
    Q_PROPERTY(QString LastSavedFile READ lastSavedFile)
public:
    explicit RecordingAdaptor(ApplicationObject* object)
        : QDBusAbstractAdaptor(object), object_(object) {}

    [[nodiscard]] QString state() const { return object_->state(); }
    [[nodiscard]] QString lastSavedFile() const { return object_->lastSavedFile(); }

public Q_SLOTS:
    // Each answers (state, last saved file); the values returned here are not sent.
    QString Start(QString& lastSavedFile) { return run(ControlCommand::start, lastSavedFile); }
    QString Stop(QString& lastSavedFile) { return run(ControlCommand::stop, lastSavedFile); }
    QString Toggle(QString& lastSavedFile) { return run(ControlCommand::toggle, lastSavedFile); }

private:
    QString run(ControlCommand command, QString& /*lastSavedFile*/) {
        object_->command(command);
        return {};
    }
    ApplicationObject* object_;
};

// ---- DBusApplication ----------------------------------------------------------------------------

DBusApplication::DBusApplication(RecordingRemote& remote, std::function<void()> activate,
                                 QDBusConnection bus)
    : bus_(std::move(bus)),
      object_(std::make_unique<ApplicationObject>(remote, std::move(activate))) {
    new FreedesktopApplicationAdaptor(object_.get());
    new RecordingAdaptor(object_.get());
    remote.setObserver([this] {
        QDBusMessage changed = QDBusMessage::createSignal(QString::fromLatin1(kApplicationPath),
                                                          QString::fromLatin1(kPropertiesInterface),
                                                          QStringLiteral("PropertiesChanged"));
        changed << QString::fromLatin1(kRecordingInterface)
                << QVariantMap{{QStringLiteral("State"), object_->state()},
                               {QStringLiteral("LastSavedFile"), object_->lastSavedFile()}}
                << QStringList();
        bus_.send(changed);
    });
}

DBusApplication::~DBusApplication() {
    if (bus_.isConnected()) bus_.unregisterObject(QString::fromLatin1(kApplicationPath));
}

bool DBusApplication::publish() {
    if (!bus_.isConnected()) {
        failure_ = "no D-Bus session bus (" + bus_.lastError().message().toStdString() + ")";
        return false;
    }
    // The object first: a call that started the program is delivered as soon as it owns the name.
    if (!bus_.registerObject(QString::fromLatin1(kApplicationPath), object_.get(),
                             QDBusConnection::ExportAdaptors)) {
        failure_ = std::string("cannot serve ") + kApplicationPath + " on the session bus";
        return false;
    }
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
        bus_.interface()->registerService(QString::fromLatin1(kApplicationId),
                                          QDBusConnectionInterface::DontQueueService,
                                          QDBusConnectionInterface::DontAllowReplacement);
    if (!reply.isValid()) {
        failure_ = std::string("cannot own ") + kApplicationId + " on the session bus (" +
                   reply.error().message().toStdString() + ")";
        return false;
    }
    if (reply.value() != QDBusConnectionInterface::ServiceRegistered) {
        failure_ = std::string("another process owns ") + kApplicationId + " on the session bus";
        return false;
    }
    return true;
}

// ---- the commands ---------------------------------------------------------------------------

namespace {

void printStatus(const QString& state, const QString& lastSavedFile) {
    std::printf("%s\n", state.toLocal8Bit().constData());
    if (state == QLatin1String("idle") && !lastSavedFile.isEmpty()) {
        std::printf("%s\n", lastSavedFile.toLocal8Bit().constData());
    }
}

void printError(const QString& text) {
    std::fprintf(stderr, "glimmerbox: %s\n", text.toLocal8Bit().constData());
}

bool isNotRunning(const QDBusError& error) {
    return error.type() == QDBusError::ServiceUnknown ||
           error.name() == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner");
}

// The exit status for an error answer, said on standard error.
int reportError(const QDBusMessage& reply, bool autoStarted) {
    const QString name = reply.errorName();
    if (name == QLatin1String(kRefusedError)) {
        printError(reply.errorMessage());
        return kControlRefused;
    }
    if (name == QLatin1String(kFailedError)) {
        printError(QStringLiteral("Recording Failed: ") + reply.errorMessage());
        return kControlFailed;
    }
    if (isNotRunning(QDBusError(reply))) {
        printError(autoStarted ? QStringLiteral("Glimmerbox is not running, and the session bus "
                                                "cannot start it (%1 is not installed as a D-Bus "
                                                "service)")
                                     .arg(QLatin1String(kApplicationId))
                               : QStringLiteral("Glimmerbox is not running"));
        return kControlUnreachable;
    }
    printError(QStringLiteral("cannot reach Glimmerbox: ") + reply.errorMessage());
    return kControlUnreachable;
}

QDBusMessage call(const QDBusConnection& bus, const char* interface, const QString& method,
                  const QVariantList& arguments, bool autoStart, int timeoutMs) {
    QDBusMessage message = QDBusMessage::createMethodCall(QString::fromLatin1(kApplicationId),
                                                          QString::fromLatin1(kApplicationPath),
                                                          QString::fromLatin1(interface), method);
    message.setArguments(arguments);
    message.setAutoStartService(autoStart);
    return bus.call(message, QDBus::Block, timeoutMs);
}

}  // namespace

int runControlRequest(ControlRequest request) {
    // QtDBus wants an application object; no window system is needed.
    static int argc = 1;
    static char name[] = "glimmerbox";
    static char* argv[] = {name, nullptr};
    std::optional<QCoreApplication> app;
    if (QCoreApplication::instance() == nullptr) app.emplace(argc, argv);

    const QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        printError(QStringLiteral("no D-Bus session bus: ") + bus.lastError().message());
        return kControlUnreachable;
    }

    switch (request) {
        case ControlRequest::status: {
            const QDBusMessage reply =
                call(bus, kPropertiesInterface, QStringLiteral("GetAll"),
                     {QString::fromLatin1(kRecordingInterface)}, false, kQueryTimeoutMs);
            if (reply.type() == QDBusMessage::ErrorMessage) {
                if (isNotRunning(QDBusError(reply))) {
                    std::printf("not running\n");
                    return kControlUnreachable;
                }
                return reportError(reply, false);
            }
            const QVariantMap properties = qdbus_cast<QVariantMap>(reply.arguments().value(0));
            printStatus(properties.value(QStringLiteral("State")).toString(),
                        properties.value(QStringLiteral("LastSavedFile")).toString());
            return kControlDone;
        }
        case ControlRequest::activate: {
            const QDBusMessage reply =
                call(bus, "org.freedesktop.Application", QStringLiteral("Activate"),
                     {QVariantMap()}, false, kQueryTimeoutMs);
            if (reply.type() == QDBusMessage::ErrorMessage) return reportError(reply, false);
            logLine("Glimmerbox: the running copy was asked to show its menu");
            return kControlDone;
        }
        case ControlRequest::start:
        case ControlRequest::stop:
        case ControlRequest::toggle: {
            const bool autoStart = request != ControlRequest::stop;
            const QString method = request == ControlRequest::start  ? QStringLiteral("Start")
                                   : request == ControlRequest::stop ? QStringLiteral("Stop")
                                                                     : QStringLiteral("Toggle");
            const QDBusMessage reply =
                call(bus, kRecordingInterface, method, {}, autoStart, kCommandTimeoutMs);
            if (reply.type() == QDBusMessage::ErrorMessage) return reportError(reply, autoStart);
            printStatus(reply.arguments().value(0).toString(),
                        reply.arguments().value(1).toString());
            return kControlDone;
        }
    }
    return kControlUnreachable;
}

}  // namespace gb::linuxp

#include "dbus_application.moc"
