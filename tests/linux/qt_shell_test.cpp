// The Qt shell's services on Qt's offscreen platform, for what the tray end-to-end test cannot
// see: menus replaced while open, symbol fallbacks, the About window's layout, the main queue,
// alert answers, a missing session bus and the instance lock's paths.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QAction>
#include <QApplication>
#include <QDBusConnection>
#include <QImage>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QSystemTrayIcon>
#include <QThread>
#include <QTimer>

#include <any>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>
#include <vector>

#include "app/about_window_controller.h"
#include "fakes/log_capture.h"
#include "fakes/test_environment.h"
#include "linux/dbus_notifications.h"
#include "linux/qt_about_window.h"
#include "linux/qt_dialogs.h"
#include "linux/qt_shell.h"
#include "linux/qt_status_item.h"

namespace gb::linuxp {
namespace {

using fakes::LogCapture;
using fakes::TempDirectory;

// One QApplication for the whole test program, on the offscreen platform.
QApplication& qtApp() {
    static QApplication* app = [] {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        static int argc = 1;
        static char name[] = "glimmerbox_linux_tests";
        static char* argv[] = {name, nullptr};
        initialiseQtResources();
        auto* created = new QApplication(argc, argv);
        QApplication::setWindowIcon(QIcon(QStringLiteral(":/icons/glimmerbox.svg")));
        QApplication::setQuitOnLastWindowClosed(false);
        return created;
    }();
    return *app;
}

bool processUntil(const std::function<bool()>& condition) {
    return fakes::eventually([&] {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        return condition();
    });
}

class QtShellTest : public ::testing::Test {
protected:
    void SetUp() override { qtApp(); }
};

// First: after a popped-up tray menu the offscreen application stays active and reports no new
// activation.
TEST_F(QtShellTest, ApplicationFindsOnlyInstalledResourcesReportsActivationAndTerminates) {
    QtApplication application;
    TempDirectory data;
    std::filesystem::create_directories(data / "glimmerbox");
    std::ofstream(data / "glimmerbox/AppIcon.icns") << "icon";
    fakes::ScopedEnvironment env;
    env.set("XDG_DATA_DIRS", data.path());
    EXPECT_EQ(application.resourcePath("AppIcon", "icns"), data / "glimmerbox/AppIcon.icns");
    EXPECT_FALSE(application.resourcePath("Nothing", "icns").has_value());
    EXPECT_FALSE(application.resourcePath("../glimmerbox/AppIcon", "icns").has_value());

    int activations = 0;
    application.observeDidBecomeActive([&] { ++activations; });
    QWidget window;
    window.show();
    window.activateWindow();
    ASSERT_TRUE(processUntil([&] { return activations > 0; }));
    window.close();
    QTimer::singleShot(0, [&] { application.terminate(); });
    EXPECT_EQ(QApplication::exec(), 0);
}

MenuEntry item(std::string title, MenuAction action = MenuAction::none, std::any value = {}) {
    MenuEntry e;
    e.title = std::move(title);
    e.action = action;
    e.value = std::move(value);
    return e;
}

std::vector<MenuEntry> sampleMenu(std::string first = "⏺ Start Recording") {
    MenuEntry quality = item("Quality");
    quality.submenu = {item("Medium", MenuAction::setVideoQuality, 720)};
    return {item(std::move(first), MenuAction::startRecording),
            MenuEntry::separator(),
            quality,
            item("About Glimmerbox", MenuAction::showAbout),
            item("VS Code Automation", MenuAction::toggleVSCodeAutomation),
            item("Save & Share")};
}

TEST_F(QtShellTest, StatusItemRunsTheHandlerAfterTheMenuClosesAndSwapsMenusOnlyWhenClosed) {
    QtStatusItem status;
    std::vector<MenuEntry> chosen;
    std::vector<MenuAction> handled;
    status.setActionHandler([&](const MenuEntry& e) {
        chosen.push_back(e);
        handled.push_back(e.action);
    });
    status.setMenu(sampleMenu());
    QPointer<QMenu> first = status.menu();
    EXPECT_EQ(first->actions()[5]->text(), "Save && Share");
    EXPECT_FALSE(first->actions()[0]->isCheckable());  // a command, not a switch
    EXPECT_TRUE(first->actions()[4]->isCheckable());   // a switch that is off
    first->actions()[2]->menu()->actions()[0]->trigger();
    EXPECT_TRUE(handled.empty()) << "the handler runs once the menu has closed";
    ASSERT_TRUE(processUntil([&] { return handled.size() == 1; }));
    EXPECT_EQ(handled[0], MenuAction::setVideoQuality);
    EXPECT_EQ(std::any_cast<int>(chosen[0].value), 720);
    handled.clear();

    status.setMenu(sampleMenu());
    EXPECT_TRUE(processUntil([&] { return first.isNull(); })) << "the old menu is deleted";
    QPointer<QMenu> open = status.menu();
    status.popUpMenu();
    ASSERT_TRUE(processUntil([&] { return open->isVisible(); }));
    status.setMenu(sampleMenu("⏹ Stop Recording"));
    status.setMenu(sampleMenu("⏹ Stop Recording"));  // replaces the waiting one
    EXPECT_EQ(status.menu(), open.data()) << "not while it is open";
    EXPECT_EQ(status.trayIcon().contextMenu(), open.data());

    open->actions()[0]->trigger();
    open->hide();
    ASSERT_TRUE(processUntil([&] { return open.isNull() && handled.size() == 1; }));
    EXPECT_EQ(handled, std::vector<MenuAction>{MenuAction::startRecording});
    ASSERT_NE(status.menu(), nullptr);
    EXPECT_EQ(status.menu()->actions()[0]->text(), "⏹ Stop Recording");
    EXPECT_EQ(status.trayIcon().contextMenu(), status.menu());
}

// The share of light (glyph-coloured) pixels in a square around the icon's centre.
double lightShareAtCentre(const QIcon& icon) {
    const QImage image = icon.pixmap(64, 64).toImage();
    int light = 0;
    for (int y = 28; y < 36; ++y)
        for (int x = 28; x < 36; ++x)
            if (qGray(image.pixel(x, y)) > 200 && qAlpha(image.pixel(x, y)) > 200) ++light;
    return light / 64.0;
}

TEST_F(QtShellTest, ShippedSymbolsLoadAndOthersFallBackToTheTitleDrawnAsIcon) {
    QtStatusItem status;
    const auto recording = status.lookupSymbol("record.circle.fill", "Recording...");
    ASSERT_TRUE(recording.has_value());
    EXPECT_TRUE(status.lookupSymbol("video.circle", "Glimmerbox").has_value());
    EXPECT_FALSE(status.lookupSymbol("../icons/video.circle", "x").has_value());
    status.setImage(recording);
    EXPECT_EQ(status.trayIcon().toolTip(), "Recording...");
    EXPECT_GT(lightShareAtCentre(status.trayIcon().icon()), 0.9);  // the dot fills the centre

    TempDirectory symbols;
    std::ofstream(symbols / "video.circle.svg") << "<svg this is not";
    QtStatusItem broken(QString::fromStdString(symbols.path()));
    EXPECT_FALSE(broken.lookupSymbol("video.circle", "Glimmerbox").has_value());
    broken.setTitle("⏹");
    broken.setImage(std::nullopt);
    EXPECT_EQ(broken.trayIcon().toolTip(), "⏹");
    // The glyphs are filled shapes: a font without them would leave the centre empty.
    EXPECT_GT(lightShareAtCentre(broken.trayIcon().icon()), 0.9);
    EXPECT_GT(lightShareAtCentre(iconForText(QStringLiteral("⏺"))), 0.9);
    EXPECT_LT(lightShareAtCentre(iconForText(QString())), 0.1);
}

QRect inWindow(const QtWindow& window, const std::string& id) {
    const QWidget* v = window.view(id);
    if (v == nullptr) return {};
    return QRect(v->mapTo(window.widget(), QPoint(0, 0)), v->size());
}

const QLabel& labelOf(const QtWindow& window, const std::string& id) {
    return *qobject_cast<const QLabel*>(window.view(id));
}

TEST_F(QtShellTest, AboutWindowIsFloatingAndLaidOutWithEveryLineShown) {
    QtApplication application;
    const WindowDescription description = makeAboutWindowDescription(application);
    QtWindowSystem system;
    const std::shared_ptr<Window> made = system.makeWindow(description);
    auto& window = dynamic_cast<QtWindow&>(*made);
    QWidget& w = *window.widget();
    EXPECT_TRUE(window.layoutProblems().empty()) << window.layoutProblems().front();
    EXPECT_FALSE(made->isVisible()) << "realised, not shown";
    made->setLevel(3);
    EXPECT_TRUE(w.windowFlags().testFlag(Qt::WindowStaysOnTopHint));

    // The solver is tested on its own; here Qt's label heights go in and everything fits.
    const QRect features = inWindow(window, "features");
    const QRect footer = inWindow(window, "footer");
    EXPECT_EQ(footer.top() + footer.height(), 280);
    EXPECT_LE(features.top() + features.height(), footer.top() - 12);
    EXPECT_GE(features.height(),
              5 * QFontMetrics(labelOf(window, "features").font()).lineSpacing() - 2)
        << "all five feature lines fit";
    EXPECT_TRUE(labelOf(window, "features").wordWrap());
}

TEST_F(QtShellTest, MainQueueRunsClosuresInOrderOnTheGuiThreadAndSurvivesAThrow) {
    LogCapture log;
    QtMainQueue queue;
    EXPECT_TRUE(queue.isCurrent());
    std::vector<int> order;
    std::vector<bool> onGuiThread;
    for (int i = 0; i < 3; ++i)
        queue.async([&, i] {
            order.push_back(i);
            onGuiThread.push_back(QThread::currentThread() == qtApp().thread());
        });
    queue.async([] { throw std::runtime_error("boom"); });
    std::atomic<bool> fromWorker{true};
    std::thread worker([&] {
        fromWorker = queue.isCurrent();
        for (int i = 3; i < 6; ++i) queue.async([&, i] { order.push_back(i); });
    });
    worker.join();
    EXPECT_TRUE(order.empty()) << "nothing runs before the event loop does";
    ASSERT_TRUE(processUntil([&] { return order.size() == 6; }));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(onGuiThread, (std::vector<bool>{true, true, true}));
    EXPECT_FALSE(fromWorker);
    EXPECT_EQ(log.countContaining("boom"), 1u);

    bool ran = false;
    {
        QtMainQueue gone;
        gone.async([&] { ran = true; });
    }
    QCoreApplication::processEvents();
    EXPECT_FALSE(ran) << "a destroyed queue drops what is pending";
}

// Calls `act` with the modal dialog of type T once it is up.
template <class T>
void whenModal(std::function<void(T&)> act) {
    auto* poll = new QTimer(&qtApp());
    QObject::connect(poll, &QTimer::timeout, [poll, act] {
        if (auto* dialog = qobject_cast<T*>(QApplication::activeModalWidget())) {
            poll->stop();
            poll->deleteLater();
            act(*dialog);
        }
    });
    poll->start(10);
}

TEST_F(QtShellTest, AlertShowsItsTextAsPlainTextAndReturnsThePressedButton) {
    QtAlertPresenter alerts;
    const AlertDescription alert{"Recording Failed",
                                 "Failed to finalize recording: <moov> missing",
                                 AlertStyle::warning,
                                 {"Keep", "Cancel", "Retry"}};
    whenModal<QMessageBox>([](QMessageBox& box) {
        const auto* message = box.findChild<QLabel*>("qt_msgbox_informativelabel");
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(message->textFormat(), Qt::PlainText) << "an error text is not markup";
        EXPECT_EQ(box.icon(), QMessageBox::Warning);
        for (QAbstractButton* b : box.buttons())
            if (b->text() == "Retry") b->click();
    });
    EXPECT_EQ(alerts.runModal(alert), 2);
    whenModal<QMessageBox>([](QMessageBox& box) {  // Escape presses "Cancel"
        QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
        QApplication::sendEvent(&box, &escape);
    });
    EXPECT_EQ(alerts.runModal(alert), 1);
}

TEST_F(QtShellTest, WithoutABusNotificationsAreDroppedAndAuthorizationIsRefused) {
    DBusNotificationCenter center(QDBusConnection(QStringLiteral("not-connected")));
    std::optional<bool> answered;
    center.requestAuthorization([&](bool a) { answered = a; });
    EXPECT_EQ(answered, false);
    center.add({"A", "t", "b", true});  // must not crash or block
}

TEST_F(QtShellTest, LockIsHeldByOneInstanceInTheRuntimeDirectory) {
    TempDirectory dir;
    const std::string path = dir / "glimmerbox.lock";
    EXPECT_EQ(InstanceLock(path).state(), InstanceLock::State::owned);
    const InstanceLock nowhere(dir / "missing/x.lock");
    EXPECT_EQ(nowhere.state(), InstanceLock::State::unavailable);
    EXPECT_NE(nowhere.failure().find("No such file"), std::string::npos);

    fakes::ScopedEnvironment env;
    env.set("XDG_RUNTIME_DIR", dir.path());
    EXPECT_EQ(InstanceLock::defaultPath(), path);
    env.unset("XDG_RUNTIME_DIR");
    EXPECT_EQ(InstanceLock::defaultPath(), "/tmp/glimmerbox-" + std::to_string(getuid()) + ".lock");
}

}  // namespace
}  // namespace gb::linuxp
