// The Qt shell's services on Qt's offscreen platform, for what the tray end-to-end test cannot
// see: menus replaced while open, the main queue, alert texts and a missing session bus.
#include <gtest/gtest.h>

#include <QAbstractButton>
#include <QAction>
#include <QApplication>
#include <QDBusConnection>
#include <QLabel>
#include <QMenu>
#include <QMessageBox>
#include <QPointer>
#include <QSystemTrayIcon>
#include <QTimer>

#include <any>
#include <atomic>
#include <thread>
#include <vector>

#include "fakes/log_capture.h"
#include "fakes/test_environment.h"
#include "linux/desktop/dbus_notifications.h"
#include "linux/desktop/qt_dialogs.h"
#include "linux/desktop/qt_shell.h"
#include "linux/desktop/qt_status_item.h"

namespace gb::linuxp {
namespace {

using fakes::LogCapture;

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
    return {item(std::move(first), MenuAction::startRecording), MenuEntry::separator(), quality,
            item("VS Code Automation", MenuAction::toggleVSCodeAutomation), item("Save & Share")};
}

TEST_F(QtShellTest, StatusItemRunsTheHandlerAfterTheMenuClosesAndSwapsMenusOnlyWhenClosed) {
    QtStatusItem status;
    std::vector<MenuEntry> handled;
    status.setActionHandler([&](const MenuEntry& e) { handled.push_back(e); });
    status.setMenu(sampleMenu());
    QPointer<QMenu> first = status.menu();
    EXPECT_EQ(first->actions()[4]->text(), "Save && Share");
    EXPECT_FALSE(first->actions()[0]->isCheckable());  // a command, not a switch
    EXPECT_TRUE(first->actions()[3]->isCheckable());   // a switch that is off
    first->actions()[2]->menu()->actions()[0]->trigger();
    EXPECT_TRUE(handled.empty()) << "the handler runs once the menu has closed";
    ASSERT_TRUE(processUntil([&] { return handled.size() == 1; }));
    EXPECT_EQ(std::any_cast<int>(handled[0].value), 720);
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
    EXPECT_EQ(handled[0].action, MenuAction::startRecording);
    ASSERT_NE(status.menu(), nullptr);
    EXPECT_EQ(status.menu()->actions()[0]->text(), "⏹ Stop Recording");
    EXPECT_EQ(status.trayIcon().contextMenu(), status.menu());
}

TEST_F(QtShellTest, MainQueueRunsClosuresInOrderAndSurvivesAThrow) {
    LogCapture log;
    QtMainQueue queue;
    EXPECT_TRUE(queue.isCurrent());
    std::vector<int> order;
    for (int i = 0; i < 3; ++i) queue.async([&, i] { order.push_back(i); });
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
}

TEST_F(QtShellTest, WithoutABusNotificationsAreDroppedAndAuthorizationIsRefused) {
    DBusNotificationCenter center(QDBusConnection(QStringLiteral("not-connected")));
    std::optional<bool> answered;
    center.requestAuthorization([&](bool a) { answered = a; });
    EXPECT_EQ(answered, false);
    center.add({"A", "t", "b", true});  // must not crash or block
}

}  // namespace
}  // namespace gb::linuxp
