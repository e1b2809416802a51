// The Qt shell's services on Qt's offscreen platform, for what the tray end-to-end test cannot
// see: menus replaced while open, symbol fallbacks, the About window's layout, the main queue,
// alert and dialog answers, a missing session bus and the instance lock's paths.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDBusConnection>
#include <QElapsedTimer>
#include <QFileDialog>
#include <QImage>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QPushButton>
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

bool processUntil(const std::function<bool()>& condition, int timeoutMs = 5000) {
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() > timeoutMs) return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

std::filesystem::path pathOf(const TempDirectory& dir) {
    return dir.path();
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
    std::filesystem::create_directories(pathOf(data) / "glimmerbox");
    std::ofstream(pathOf(data) / "glimmerbox" / "AppIcon.icns") << "icon";
    const QByteArray previous = qgetenv("XDG_DATA_DIRS");
    qputenv("XDG_DATA_DIRS", QByteArray::fromStdString(pathOf(data).string()));
    const auto found = application.resourcePath("AppIcon", "icns");
    const auto missing = application.resourcePath("Nothing", "icns");
    const auto escaping = application.resourcePath("../glimmerbox/AppIcon", "icns");
    qputenv("XDG_DATA_DIRS", previous);
    EXPECT_EQ(found, (pathOf(data) / "glimmerbox" / "AppIcon.icns").string());
    EXPECT_FALSE(missing.has_value());
    EXPECT_FALSE(escaping.has_value());

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

// ---- menus --------------------------------------------------------------------------------------

enum class Speed { slow, fast };

MenuEntry item(std::string title, MenuAction action = MenuAction::none) {
    MenuEntry e;
    e.title = std::move(title);
    e.action = action;
    return e;
}

std::vector<MenuEntry> sampleMenu(std::string first = "⏺ Start Recording") {
    MenuEntry speed = item("Speed");
    speed.submenu = std::vector<MenuEntry>{};
    for (const Speed value : {Speed::slow, Speed::fast}) {
        MenuEntry e = item(value == Speed::slow ? "Slow" : "Fast", MenuAction::setVideoQuality);
        e.value = value;
        speed.submenu->push_back(e);
    }
    return {item(std::move(first), MenuAction::startRecording),
            MenuEntry::separator(),
            speed,
            item("About Glimmerbox", MenuAction::showAbout),
            item("VS Code Automation", MenuAction::toggleVSCodeAutomation),
            item("Save & Share")};
}

TEST_F(QtShellTest, MenuKeepsAmpersandsAsTextAndHandsBackTheChosenEntryWithItsValue) {
    std::vector<MenuEntry> chosen;
    const std::unique_ptr<QMenu> menu =
        buildMenu(sampleMenu(), [&](const MenuEntry& e) { chosen.push_back(e); });
    EXPECT_EQ(menu->actions()[5]->text(), "Save && Share");
    EXPECT_FALSE(menu->actions()[0]->isCheckable());  // a command, not a switch
    EXPECT_TRUE(menu->actions()[4]->isCheckable());   // a switch that is off
    menu->actions()[2]->menu()->actions()[0]->trigger();
    ASSERT_EQ(chosen.size(), 1U);
    EXPECT_EQ(chosen[0].action, MenuAction::setVideoQuality);
    ASSERT_EQ(chosen[0].value.type(), typeid(Speed));
    EXPECT_EQ(std::any_cast<Speed>(chosen[0].value), Speed::slow);
}

TEST_F(QtShellTest, StatusItemRunsTheHandlerAfterTheMenuClosesAndSwapsMenusOnlyWhenClosed) {
    QtStatusItem status;
    std::vector<MenuAction> handled;
    status.setActionHandler([&](const MenuEntry& e) { handled.push_back(e.action); });
    status.setMenu(sampleMenu());
    QPointer<QMenu> first = status.menu();
    first->actions()[0]->trigger();
    EXPECT_TRUE(handled.empty()) << "the handler runs once the menu has closed";
    ASSERT_TRUE(processUntil([&] { return handled.size() == 1; }));

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
    ASSERT_TRUE(processUntil([&] { return open.isNull() && handled.size() == 2; }));
    EXPECT_EQ(handled, std::vector<MenuAction>(2, MenuAction::startRecording));
    ASSERT_NE(status.menu(), nullptr);
    EXPECT_EQ(status.menu()->actions()[0]->text(), "⏹ Stop Recording");
    EXPECT_EQ(status.trayIcon().contextMenu(), status.menu());
}

// ---- status symbols -----------------------------------------------------------------------------

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
    EXPECT_FALSE(status.lookupSymbol("no.such.symbol", "x").has_value());
    EXPECT_FALSE(status.lookupSymbol("../icons/video.circle", "x").has_value());
    status.setImage(recording);
    EXPECT_EQ(status.trayIcon().toolTip(), "Recording...");
    EXPECT_GT(lightShareAtCentre(status.trayIcon().icon()), 0.9);  // the dot fills the centre

    TempDirectory symbols;
    std::ofstream(pathOf(symbols) / "video.circle.svg") << "<svg this is not";
    QtStatusItem broken(QString::fromStdString(pathOf(symbols).string()));
    EXPECT_FALSE(broken.lookupSymbol("video.circle", "Glimmerbox").has_value());
    broken.setTitle("⏹");
    broken.setImage(std::nullopt);
    EXPECT_EQ(broken.trayIcon().toolTip(), "⏹");
    // The glyphs are filled shapes: a font without them would leave the centre empty.
    EXPECT_GT(lightShareAtCentre(broken.trayIcon().icon()), 0.9);
    EXPECT_GT(lightShareAtCentre(iconForText(QStringLiteral("⏺"))), 0.9);
    EXPECT_LT(lightShareAtCentre(iconForText(QString())), 0.1);
}

// ---- About window -------------------------------------------------------------------------------

QRect inWindow(const QtWindow& window, const std::string& id) {
    const QWidget* v = window.view(id);
    if (v == nullptr) return {};
    return QRect(v->mapTo(window.widget(), QPoint(0, 0)), v->size());
}

const QLabel& labelOf(const QtWindow& window, const std::string& id) {
    return *qobject_cast<const QLabel*>(window.view(id));
}

TEST_F(QtShellTest, AboutWindowIsFixedFloatingLaidOutAndHiddenWhenClosed) {
    QtApplication application;
    WindowDescription description = makeAboutWindowDescription(application);
    for (ViewDescription& v : description.views)
        if (v.id == "icon") v.imagePath = "/nonexistent/AppIcon.icns";
    QtWindowSystem system;
    const std::shared_ptr<Window> made = system.makeWindow(description);
    auto& window = dynamic_cast<QtWindow&>(*made);
    QWidget& w = *window.widget();
    EXPECT_TRUE(window.layoutProblems().empty()) << window.layoutProblems().front();
    EXPECT_EQ(w.minimumSize(), QSize(400, 300));
    EXPECT_EQ(w.maximumSize(), QSize(400, 300));
    EXPECT_FALSE(w.windowFlags().testFlag(Qt::WindowMinimizeButtonHint));
    EXPECT_FALSE(w.windowFlags().testFlag(Qt::WindowMaximizeButtonHint));
    EXPECT_FALSE(made->isVisible()) << "realised, not shown";
    made->setLevel(3);
    EXPECT_TRUE(w.windowFlags().testFlag(Qt::WindowStaysOnTopHint));

    // The solver is tested on its own; here Qt's label heights go in and everything fits.
    const QRect features = inWindow(window, "features");
    const QRect footer = inWindow(window, "footer");
    EXPECT_EQ(inWindow(window, "icon"), QRect(168, 20, 64, 64));
    EXPECT_EQ(footer.top() + footer.height(), 280);
    EXPECT_LE(features.top() + features.height(), footer.top() - 12);
    EXPECT_GE(features.height(),
              5 * QFontMetrics(labelOf(window, "features").font()).lineSpacing() - 2)
        << "all five feature lines fit";
    EXPECT_TRUE(labelOf(window, "features").wordWrap());

    // A missing icon file shows the program's own icon.
    const auto* icon = dynamic_cast<const ImageView*>(window.view("icon"));
    ASSERT_NE(icon, nullptr);
    EXPECT_EQ(icon->icon().pixmap(32, 32).toImage(),
              QApplication::windowIcon().pixmap(32, 32).toImage());

    window.show();
    QPointer<QWidget> widget = window.widget();
    widget->close();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    ASSERT_FALSE(widget.isNull()) << "hidden, not deleted";
    EXPECT_FALSE(window.isVisible());
    window.show();
    EXPECT_TRUE(window.isVisible());
}

// ---- main queue ----------------------------------------------------------------

TEST_F(QtShellTest, MainQueueRunsClosuresInOrderOnTheGuiThreadAndSurvivesAThrow) {
    LogCapture log;
    QtMainQueue queue;
    EXPECT_TRUE(queue.isCurrent());
    std::vector<int> order;
    std::vector<bool> onGuiThread;
    for (int i = 0; i < 3; ++i) {
        queue.async([&, i] {
            order.push_back(i);
            onGuiThread.push_back(QThread::currentThread() == qtApp().thread());
        });
    }
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

// ---- dialogs ------------------------------------------------------------------------------------

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

TEST_F(QtShellTest, CancelledFolderDialogChoosesNothing) {
    const FolderPickerOptions options{false, true, false, "Choose Save Location"};
    EXPECT_TRUE(makeFolderDialog(options)->testOption(QFileDialog::ShowDirsOnly));
    QtFolderPicker picker;
    whenModal<QFileDialog>([](QFileDialog& d) { d.reject(); });
    const FolderPickerResult cancelled = picker.runModal(options);
    EXPECT_EQ(cancelled.response, 0);
    EXPECT_FALSE(cancelled.url.has_value());
}

// ---- notifications and the instance lock --------------------------------------------------------

TEST_F(QtShellTest, WithoutABusNotificationsAreDroppedAndAuthorizationIsRefused) {
    DBusNotificationCenter center(QDBusConnection(QStringLiteral("not-connected")));
    std::optional<bool> answered;
    center.requestAuthorization([&](bool a) { answered = a; });
    EXPECT_EQ(answered, false);
    center.add({"A", "t", "b", true});  // must not crash or block
}

TEST_F(QtShellTest, LockIsHeldByOneInstanceInTheRuntimeDirectory) {
    TempDirectory dir;
    const std::string path = (pathOf(dir) / "glimmerbox.lock").string();
    std::optional<InstanceLock> first(std::in_place, path);
    EXPECT_EQ(first->state(), InstanceLock::State::owned);
    EXPECT_EQ(InstanceLock(path).state(), InstanceLock::State::heldByAnother);
    first.reset();
    EXPECT_EQ(InstanceLock(path).state(), InstanceLock::State::owned);
    const InstanceLock nowhere((pathOf(dir) / "missing" / "x.lock").string());
    EXPECT_EQ(nowhere.state(), InstanceLock::State::unavailable);
    EXPECT_NE(nowhere.failure().find("No such file"), std::string::npos);

    const QByteArray previous = qgetenv("XDG_RUNTIME_DIR");
    qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(pathOf(dir).string()));
    const std::string inRuntime = InstanceLock::defaultPath();
    qunsetenv("XDG_RUNTIME_DIR");
    const std::string withoutRuntime = InstanceLock::defaultPath();
    if (!previous.isNull()) qputenv("XDG_RUNTIME_DIR", previous);
    EXPECT_EQ(inRuntime, (pathOf(dir) / "glimmerbox.lock").string());
    EXPECT_EQ(withoutRuntime, "/tmp/glimmerbox-" + std::to_string(getuid()) + ".lock");
}

}  // namespace
}  // namespace gb::linuxp
