#include "linux/desktop/qt_shell.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QIcon>
#include <QStandardPaths>
#include <QThread>
#include <QUrl>
#include <QWidget>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "linux/desktop/dbus_notifications.h"
#include "linux/desktop/qt_about_window.h"
#include "linux/desktop/qt_dialogs.h"
#include "linux/desktop/qt_status_item.h"
#include "linux/x11/x11_accessibility.h"
#include "linux/x11/x11_client_connection.h"
#include "recording/log.h"

// Outside any namespace, as the resource macro wants.
static void registerGlimmerboxResources() {
    Q_INIT_RESOURCE(glimmerbox);
}

namespace gb::linuxp {
namespace {

constexpr const char* kApplicationIcon = ":/icons/glimmerbox.svg";

}  // namespace

void initialiseQtResources() {
    registerGlimmerboxResources();
}

bool uiDebugLogging() {
    static const bool enabled = std::getenv("GLIMMERBOX_DEBUG_UI") != nullptr;
    return enabled;
}

// ---- InstanceLock ---------------------------------------------------------------------------

InstanceLock::InstanceLock(const std::string& path) {
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd_ < 0) {
        failure_ = path + ": " + std::strerror(errno);
        return;
    }
    if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) {
        state_ = State::owned;
        return;
    }
    const int error = errno;
    if (error == EWOULDBLOCK) {
        state_ = State::heldByAnother;
    } else {
        failure_ = path + ": " + std::strerror(error);
    }
    ::close(fd_);
    fd_ = -1;
}

InstanceLock::~InstanceLock() {
    if (fd_ >= 0) ::close(fd_);
}

InstanceLock::InstanceLock(InstanceLock&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      state_(std::exchange(other.state_, State::unavailable)),
      failure_(std::move(other.failure_)) {}

InstanceLock& InstanceLock::operator=(InstanceLock&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
        state_ = std::exchange(other.state_, State::unavailable);
        failure_ = std::move(other.failure_);
    }
    return *this;
}

std::string InstanceLock::defaultPath() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime != nullptr && *runtime != '\0' &&
        QFileInfo(QString::fromLocal8Bit(runtime)).isDir()) {
        return std::string(runtime) + "/glimmerbox.lock";
    }
    return "/tmp/glimmerbox-" + std::to_string(::getuid()) + ".lock";
}

// ---- QtMainQueue ----------------------------------------------------------------------------

QtMainQueue::QtMainQueue() : context_(std::make_unique<QObject>()) {}

QtMainQueue::~QtMainQueue() = default;

void QtMainQueue::async(std::function<void()> work) {
    QMetaObject::invokeMethod(
        context_.get(),
        [work = std::move(work)] {
            // An exception must not unwind through the event loop.
            try {
                work();
            } catch (const std::exception& e) {
                logLine(std::string("❌ Main queue: a task failed: ") + e.what());
            } catch (...) {
                logLine("❌ Main queue: a task failed");
            }
        },
        Qt::QueuedConnection);
}

bool QtMainQueue::isCurrent() const {
    return QThread::currentThread() == context_->thread();
}

// ---- QtApplication --------------------------------------------------------------------------

QtApplication::QtApplication() : context_(std::make_unique<QObject>()) {}

QtApplication::~QtApplication() = default;

void QtApplication::closeAllWindows() {
    QApplication::closeAllWindows();
}

void QtApplication::terminate() {
    QCoreApplication::exit(0);
}

void QtApplication::activateIgnoringOtherApps() {
    for (QWidget* window : QApplication::topLevelWidgets()) {
        if (!window->isVisible() || window->windowType() == Qt::Popup) continue;
        window->raise();
        window->activateWindow();
    }
}

void QtApplication::observeDidBecomeActive(std::function<void()> observer) {
    QObject::connect(qApp, &QGuiApplication::applicationStateChanged, context_.get(),
                     [observer = std::move(observer)](Qt::ApplicationState state) {
                         if (state == Qt::ApplicationActive) observer();
                     });
}

bool QtApplication::isAccessibilityTrusted(bool /*prompt*/) {
    return isAccessibilityTrustedX11();
}

std::optional<std::string> QtApplication::resourcePath(const std::string& name,
                                                       const std::string& type) {
    const QString file = QString::fromStdString(name + "." + type);
    if (file.contains(QLatin1Char('/'))) return std::nullopt;
    QString found = QStandardPaths::locate(QStandardPaths::GenericDataLocation,
                                           QStringLiteral("glimmerbox/") + file);
    if (found.isEmpty()) {
        const QString besideBinary =
            QCoreApplication::applicationDirPath() + QStringLiteral("/../share/glimmerbox/") + file;
        if (QFileInfo(besideBinary).isFile()) found = QDir::cleanPath(besideBinary);
    }
    if (found.isEmpty()) return std::nullopt;
    return found.toStdString();
}

// ---- QtWorkspace ----------------------------------------------------------------------------

bool QtWorkspace::openURL(const std::string& path) {
    return QDesktopServices::openUrl(QUrl::fromLocalFile(QString::fromStdString(path)));
}

// ---- QtShell --------------------------------------------------------------------------------

std::optional<std::string> QtShell::displayProblem() {
    const QByteArray platform = qgetenv("QT_QPA_PLATFORM");
    // Another platform named outright, or a Wayland session: Qt's own choice, with its fallbacks.
    if (!platform.isEmpty() && !platform.startsWith("xcb")) return std::nullopt;
    if (platform.isEmpty() && !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY")) return std::nullopt;
    auto connection = X11ClientConnection::open({});
    if (!connection) return connection.error().localizedDescription;
    return std::nullopt;
}

std::unique_ptr<QtShell> QtShell::launch(int& argc, char** argv) {
    return launch(argc, argv, InstanceLock(InstanceLock::defaultPath()));
}

std::unique_ptr<QtShell> QtShell::launch(int& argc, char** argv, InstanceLock lock) {
    switch (lock.state()) {
        case InstanceLock::State::owned:
            break;
        case InstanceLock::State::heldByAnother:
            logLine(kAlreadyRunning);
            return nullptr;
        case InstanceLock::State::unavailable:
            logLine("⚠️ Glimmerbox: no single-instance lock (" + lock.failure() +
                    "); a second copy would not be noticed");
            break;
    }
    return std::unique_ptr<QtShell>(new QtShell(argc, argv, std::move(lock)));
}

QtShell::QtShell(int& argc, char** argv, InstanceLock lock) : lock_(std::move(lock)) {
    initialiseQtResources();
    QApplication::setApplicationName(QStringLiteral("Glimmerbox"));
    QApplication::setDesktopFileName(QStringLiteral("io.github.glimmerbox.Glimmerbox"));
    app_ = std::make_unique<QApplication>(argc, argv);
    QApplication::setWindowIcon(QIcon(QString::fromLatin1(kApplicationIcon)));
    // A tray application lives on after its last window closes.
    QApplication::setQuitOnLastWindowClosed(false);

    application_ = std::make_unique<QtApplication>();
    mainQueue_ = std::make_unique<QtMainQueue>();
    statusBar_ = std::make_unique<QtStatusBar>();
    windowSystem_ = std::make_unique<QtWindowSystem>();
    alertPresenter_ = std::make_unique<QtAlertPresenter>();
    folderPicker_ = std::make_unique<QtFolderPicker>();
    workspace_ = std::make_unique<QtWorkspace>();
    notificationCenter_ = std::make_unique<DBusNotificationCenter>();
}

QtShell::~QtShell() = default;

int QtShell::run() {
    return QApplication::exec();
}

StatusBar& QtShell::statusBar() {
    return *statusBar_;
}
WindowSystem& QtShell::windowSystem() {
    return *windowSystem_;
}
AlertPresenter& QtShell::alertPresenter() {
    return *alertPresenter_;
}
FolderPicker& QtShell::folderPicker() {
    return *folderPicker_;
}
NotificationCenter& QtShell::notificationCenter() {
    return *notificationCenter_;
}

}  // namespace gb::linuxp
