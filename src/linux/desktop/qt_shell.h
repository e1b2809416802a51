// The desktop shell on Linux: one Qt Widgets application on the main thread that gives the logic
// its application object, main queue, tray item, windows, dialogs, workspace and notifications.
//
// Threads: QtShell and every service it hands out are created, used and destroyed on the main
// thread, except QtMainQueue::async/isCurrent, which any thread may call.
// Ownership: QtShell owns the QApplication and the services. Objects that its factories return
// (status items, windows) must be released before the shell goes.
#pragma once

#include <QObject>

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/dispatch.h"
#include "platform/notifications.h"
#include "platform/user_interface.h"

class QApplication;

namespace gb::linuxp {

class DBusNotificationCenter;
class QtAlertPresenter;
class QtFolderPicker;
class QtStatusBar;
class QtWindowSystem;

// Keeps a second tray application from starting in the same session: an advisory lock (flock)
// on a file in $XDG_RUNTIME_DIR (else /tmp/glimmerbox-<uid>.lock), held while the process lives
// and released by the kernel when it ends, however it ends.
class InstanceLock {
public:
    enum class State {
        owned,          // this process holds the lock
        heldByAnother,  // another process holds it
        unavailable,    // the lock file cannot be opened; nothing guards against a second copy
    };

    explicit InstanceLock(const std::string& path);
    ~InstanceLock();
    InstanceLock(InstanceLock&& other) noexcept;
    InstanceLock& operator=(InstanceLock&& other) noexcept;
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    [[nodiscard]] static std::string defaultPath();
    [[nodiscard]] State state() const { return state_; }
    // Why the lock is unavailable (the system's message), when it is.
    [[nodiscard]] const std::string& failure() const { return failure_; }

private:
    int fd_ = -1;
    State state_ = State::unavailable;
    std::string failure_;
};

// The main queue on the Qt event loop: closures are posted to the GUI thread and run there in
// submission order. Closures still queued when the queue is destroyed are dropped unrun.
class QtMainQueue final : public SerialQueue {
public:
    // Create on the GUI thread, after the QApplication.
    QtMainQueue();
    ~QtMainQueue() override;
    QtMainQueue(const QtMainQueue&) = delete;
    QtMainQueue& operator=(const QtMainQueue&) = delete;

    void async(std::function<void()> work) override;
    [[nodiscard]] std::string label() const override { return "main"; }
    // True on the GUI thread.
    [[nodiscard]] bool isCurrent() const override;

private:
    std::unique_ptr<QObject> context_;  // posted closures die with it
};

// The application object: the event loop, activation, accessibility and installed resources.
class QtApplication final : public Application {
public:
    // Create on the GUI thread, after the QApplication.
    QtApplication();
    ~QtApplication() override;
    QtApplication(const QtApplication&) = delete;
    QtApplication& operator=(const QtApplication&) = delete;

    // A tray application has no main window and no taskbar entry to begin with: nothing to do.
    void setActivationPolicyAccessory() override {}
    void closeAllWindows() override;
    // Ends the event loop; QtShell::run() then returns.
    void terminate() override;
    void activateIgnoringOtherApps() override;
    void observeDidBecomeActive(std::function<void()> observer) override;
    // Whether keystrokes can be sent to other programs (an X11 session with XTest). Nothing asks
    // the user on Linux, so `prompt` changes nothing.
    bool isAccessibilityTrusted(bool prompt) override;
    // A file installed with the program: <data dir>/glimmerbox/<name>.<type> in the XDG data
    // folders or in ../share/glimmerbox next to the binary. The standard installation ships no
    // such file (the About window then shows the program's own icon).
    [[nodiscard]] std::optional<std::string> resourcePath(const std::string& name,
                                                          const std::string& type) override;

private:
    std::unique_ptr<QObject> context_;  // owns the activation connections
};

class QtWorkspace final : public Workspace {
public:
    // Opens the folder with the desktop's file manager (xdg-open and friends).
    bool openURL(const std::string& path) override;
};

class QtShell {
public:
    // Takes the single-instance lock first. When another instance holds it, says so on standard
    // output and returns nothing (the caller exits with status 0); no window-system connection
    // is made then. Otherwise creates the QApplication and the services.
    [[nodiscard]] static std::unique_ptr<QtShell> launch(int& argc, char** argv);
    // The same with a given lock (tests).
    [[nodiscard]] static std::unique_ptr<QtShell> launch(int& argc, char** argv, InstanceLock lock);
    // Why Qt could not open its window system here (it would abort the process), or nothing.
    [[nodiscard]] static std::optional<std::string> displayProblem();
    ~QtShell();
    QtShell(const QtShell&) = delete;
    QtShell& operator=(const QtShell&) = delete;

    // Runs the event loop until terminate(); the process's exit status.
    int run();

    QApplication& qApplication() { return *app_; }
    QtApplication& application() { return *application_; }
    QtMainQueue& mainQueue() { return *mainQueue_; }
    StatusBar& statusBar();
    WindowSystem& windowSystem();
    AlertPresenter& alertPresenter();
    FolderPicker& folderPicker();
    Workspace& workspace() { return *workspace_; }
    NotificationCenter& notificationCenter();

    // Logged when a second copy starts while one runs.
    static constexpr const char* kAlreadyRunning =
        "Glimmerbox is already running; this copy exits.";

private:
    QtShell(int& argc, char** argv, InstanceLock lock);

    InstanceLock lock_;
    std::unique_ptr<QApplication> app_;
    std::unique_ptr<QtApplication> application_;
    std::unique_ptr<QtMainQueue> mainQueue_;
    std::unique_ptr<QtStatusBar> statusBar_;
    std::unique_ptr<QtWindowSystem> windowSystem_;
    std::unique_ptr<QtAlertPresenter> alertPresenter_;
    std::unique_ptr<QtFolderPicker> folderPicker_;
    std::unique_ptr<QtWorkspace> workspace_;
    std::unique_ptr<DBusNotificationCenter> notificationCenter_;
};

// With GLIMMERBOX_DEBUG_UI set in the environment, the shell logs what it shows ("[menu] ..."
// and "[alert] ..." lines): the installed menus entry by entry, where an opened menu's entries are
// on screen, and each alert with its texts and the button pressed. End-to-end tests read the
// user interface through these lines instead of from pixels.
[[nodiscard]] bool uiDebugLogging();

// Registers the compiled-in icons: the library is static, so nothing would pull its resources in.
// QtShell does this; tests that build their own QApplication call it once.
void initialiseQtResources();

}  // namespace gb::linuxp
