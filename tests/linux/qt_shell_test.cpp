// The Qt desktop shell's services on Qt's offscreen platform: the tray menu built from entries,
// the status symbols and their text fallback, the About window realised from its description,
// the main queue, the dialogs, notifications over a private D-Bus, and the single-instance lock.
#include <gtest/gtest.h>

#include <QAction>
#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
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
#include <mutex>
#include <thread>
#include <vector>

#include "linux/dbus_notifications.h"
#include "linux/qt_about_window.h"
#include "linux/qt_dialogs.h"
#include "linux/qt_shell.h"
#include "linux/qt_status_item.h"
#include "recording/log.h"
#include "fakes/test_environment.h"

namespace gb::linuxp {
namespace {

using gb::fakes::ChildProcess;
// A temporary folder, addressed as a filesystem path.
struct ScratchDirectory {
    gb::fakes::TempDirectory dir;
    [[nodiscard]] std::filesystem::path path() const { return dir.path(); }
};

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

// Runs the event loop until `condition` holds or `timeout` passes.
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

// Collects log lines for the life of the object.
class LogCapture {
public:
    LogCapture() {
        previous_ = setLogSink([this](std::string_view line) { lines_.emplace_back(line); });
    }
    ~LogCapture() { setLogSink(previous_); }
    [[nodiscard]] bool contains(const std::string& text) const {
        for (const std::string& line : lines_) {
            if (line.find(text) != std::string::npos) return true;
        }
        return false;
    }
    [[nodiscard]] const std::vector<std::string>& lines() const { return lines_; }

private:
    LogSink previous_;
    std::vector<std::string> lines_;  // appended under the logging lock, read on this thread
};

class QtShellTest : public ::testing::Test {
protected:
    void SetUp() override { qtApp(); }
};

// ---- menus --------------------------------------------------------------------------------------

enum class Speed { slow, fast };

MenuEntry item(std::string title, MenuAction action = MenuAction::none) {
    MenuEntry e;
    e.title = std::move(title);
    e.action = action;
    return e;
}

MenuEntry option(std::string title, Speed value, bool checked) {
    MenuEntry e = item(std::move(title), MenuAction::setVideoQuality);
    e.value = value;
    e.checked = checked;
    return e;
}

std::vector<MenuEntry> sampleMenu() {
    MenuEntry speed = item("Speed");
    speed.submenu = std::vector<MenuEntry>{option("Slow", Speed::slow, false),
                                           option("Fast", Speed::fast, true)};
    MenuEntry overlay = item("Camera Overlay", MenuAction::toggleCameraOverlay);
    overlay.checked = true;
    MenuEntry automation = item("VS Code Automation", MenuAction::toggleVSCodeAutomation);
    MenuEntry saving = item("Saving to: Casts");
    saving.enabled = false;
    MenuEntry quit = item("Quit Glimmerbox", MenuAction::quitApp);
    quit.keyEquivalent = "q";
    return {item("⏺ Start Recording", MenuAction::startRecording),
            MenuEntry::separator(),
            speed,
            overlay,
            automation,
            saving,
            item("Save & Share"),
            MenuEntry::separator(),
            quit};
}

QStringList texts(const QMenu& menu) {
    QStringList out;
    for (const QAction* a : menu.actions())
        out << (a->isSeparator() ? QStringLiteral("--") : a->text());
    return out;
}

TEST_F(QtShellTest, MenuShowsEntriesWithSeparatorsSubmenusChecksAndShortcut) {
    const std::unique_ptr<QMenu> menu = buildMenu(sampleMenu(), [](const MenuEntry&) {});
    EXPECT_EQ(texts(*menu), (QStringList{"⏺ Start Recording", "--", "Speed", "Camera Overlay",
                                         "VS Code Automation", "Saving to: Casts", "Save && Share",
                                         "--", "Quit Glimmerbox"}));
    const QList<QAction*> actions = menu->actions();

    QMenu* speed = actions[2]->menu();
    ASSERT_NE(speed, nullptr);
    EXPECT_EQ(texts(*speed), (QStringList{"Slow", "Fast"}));
    EXPECT_FALSE(speed->actions()[0]->isChecked());
    EXPECT_TRUE(speed->actions()[1]->isChecked());

    EXPECT_FALSE(actions[0]->isCheckable());  // a command, not a switch
    EXPECT_TRUE(actions[3]->isCheckable());
    EXPECT_TRUE(actions[3]->isChecked());
    EXPECT_TRUE(actions[4]->isCheckable());  // a switch that is off
    EXPECT_FALSE(actions[4]->isChecked());

    EXPECT_FALSE(actions[5]->isEnabled());
    EXPECT_TRUE(actions[0]->isEnabled());

    EXPECT_EQ(actions[8]->shortcut(), QKeySequence(Qt::CTRL | Qt::Key_Q));
    EXPECT_TRUE(actions[0]->shortcut().isEmpty());
}

TEST_F(QtShellTest, ChoosingAnEntryHandsBackThatEntryWithItsValue) {
    std::vector<MenuEntry> chosen;
    const std::unique_ptr<QMenu> menu =
        buildMenu(sampleMenu(), [&](const MenuEntry& e) { chosen.push_back(e); });
    menu->actions()[2]->menu()->actions()[0]->trigger();  // Speed > Slow
    menu->actions()[8]->trigger();                        // Quit

    ASSERT_EQ(chosen.size(), 2U);
    EXPECT_EQ(chosen[0].title, "Slow");
    EXPECT_EQ(chosen[0].action, MenuAction::setVideoQuality);
    ASSERT_EQ(chosen[0].value.type(), typeid(Speed));
    EXPECT_EQ(std::any_cast<Speed>(chosen[0].value), Speed::slow);
    EXPECT_EQ(chosen[1].action, MenuAction::quitApp);
    EXPECT_FALSE(chosen[1].value.has_value());
}

TEST_F(QtShellTest, StatusItemRunsTheHandlerAfterTheMenuAndReplacesMenus) {
    QtStatusItem status;
    std::vector<MenuAction> handled;
    status.setActionHandler([&](const MenuEntry& e) { handled.push_back(e.action); });
    status.setMenu(sampleMenu());
    QPointer<QMenu> first = status.menu();
    ASSERT_FALSE(first.isNull());
    EXPECT_EQ(status.trayIcon().contextMenu(), first.data());

    first->actions()[0]->trigger();
    EXPECT_TRUE(handled.empty()) << "the handler runs once the menu has closed";
    ASSERT_TRUE(processUntil([&] { return !handled.empty(); }));
    EXPECT_EQ(handled, std::vector<MenuAction>{MenuAction::startRecording});

    std::vector<MenuEntry> second = sampleMenu();
    second[0] = item("⏹ Stop Recording", MenuAction::stopRecording);
    status.setMenu(second);
    EXPECT_EQ(status.trayIcon().contextMenu(), status.menu());
    EXPECT_EQ(status.menu()->actions()[0]->text(), "⏹ Stop Recording");
    EXPECT_TRUE(processUntil([&] { return first.isNull(); })) << "the old menu is deleted";
}

TEST_F(QtShellTest, MenuInstalledWhileTheOldOneIsOpenFollowsWhenItCloses) {
    QtStatusItem status;
    std::vector<MenuAction> handled;
    status.setActionHandler([&](const MenuEntry& e) { handled.push_back(e.action); });
    status.setMenu(sampleMenu());
    QPointer<QMenu> open = status.menu();
    status.popUpMenu();
    ASSERT_TRUE(processUntil([&] { return open->isVisible(); }));

    std::vector<MenuEntry> next = sampleMenu();
    next[0] = item("⏹ Stop Recording", MenuAction::stopRecording);
    status.setMenu(next);
    status.setMenu(next);  // a second rebuild while open replaces the waiting one
    EXPECT_EQ(status.menu(), open.data()) << "not while it is open";
    EXPECT_EQ(status.trayIcon().contextMenu(), open.data());

    // Choosing from the open menu closes it, hands over the entry and installs the new menu.
    open->actions()[0]->trigger();
    open->hide();
    ASSERT_TRUE(processUntil([&] { return open.isNull() && !handled.empty(); }));
    EXPECT_EQ(handled, std::vector<MenuAction>{MenuAction::startRecording});
    ASSERT_NE(status.menu(), nullptr);
    EXPECT_EQ(status.menu()->actions()[0]->text(), "⏹ Stop Recording");
    EXPECT_EQ(status.trayIcon().contextMenu(), status.menu());
}

// ---- status symbols -----------------------------------------------------------------------------

// The share of light (glyph-coloured) pixels in a square around the icon's centre.
double lightShareAtCentre(const QIcon& icon) {
    const QImage image = icon.pixmap(64, 64).toImage();
    int light = 0;
    int all = 0;
    for (int y = 28; y < 36; ++y) {
        for (int x = 28; x < 36; ++x) {
            ++all;
            if (qGray(image.pixel(x, y)) > 200 && qAlpha(image.pixel(x, y)) > 200) ++light;
        }
    }
    return static_cast<double>(light) / all;
}

TEST_F(QtShellTest, StatusSymbolsAreShippedAndUnknownNamesYieldNothing) {
    QtStatusItem status;
    const auto idle = status.lookupSymbol("video.circle", "Glimmerbox");
    ASSERT_TRUE(idle.has_value());
    EXPECT_EQ(idle->name, "video.circle");
    EXPECT_EQ(idle->accessibilityDescription, "Glimmerbox");
    const auto recording = status.lookupSymbol("record.circle.fill", "Recording...");
    ASSERT_TRUE(recording.has_value());
    EXPECT_EQ(recording->accessibilityDescription, "Recording...");

    EXPECT_FALSE(status.lookupSymbol("no.such.symbol", "x").has_value());
    EXPECT_FALSE(status.lookupSymbol("../icons/video.circle", "x").has_value());

    status.setImage(recording);
    status.setImageTemplate(true);
    status.setTitle("");
    EXPECT_EQ(status.image()->name, "record.circle.fill");
    EXPECT_TRUE(status.imageIsTemplate());
    EXPECT_FALSE(status.trayIcon().icon().isNull());
    EXPECT_EQ(status.trayIcon().toolTip(), "Recording...");
    // The recording symbol's dot fills the centre.
    EXPECT_GT(lightShareAtCentre(status.trayIcon().icon()), 0.9);
}

TEST_F(QtShellTest, SymbolThatFailsToLoadFallsBackToTheTitleDrawnAsIcon) {
    ScratchDirectory symbols;
    std::ofstream(symbols.path() / "video.circle.svg") << "<svg this is not";
    QtStatusItem status(QString::fromStdString(symbols.path().string()));
    EXPECT_FALSE(status.lookupSymbol("video.circle", "Glimmerbox").has_value());

    status.setTitle("⏹");
    status.setImage(std::nullopt);
    EXPECT_FALSE(status.image().has_value());
    EXPECT_EQ(status.trayIcon().toolTip(), "⏹");
    // The stop glyph is a filled square: its middle is glyph colour. A font without the glyph
    // would draw an empty box (or nothing) there.
    EXPECT_GT(lightShareAtCentre(status.trayIcon().icon()), 0.9);
    EXPECT_GT(lightShareAtCentre(iconForText(QStringLiteral("⏺"))), 0.9);
    EXPECT_LT(lightShareAtCentre(iconForText(QString())), 0.1);
}

TEST_F(QtShellTest, WithoutATrayTheItemSaysItWaitsForOne) {
    ASSERT_FALSE(QSystemTrayIcon::isSystemTrayAvailable()) << "offscreen has no tray";
    LogCapture log;
    QtStatusItem status;
    status.setTitle("⏺");
    status.setTitle("⏹");
    EXPECT_EQ(std::count_if(log.lines().begin(), log.lines().end(),
                            [](const std::string& l) {
                                return l ==
                                       "Glimmerbox: no system tray found; waiting for one "
                                       "to appear";
                            }),
              1);
    EXPECT_FALSE(status.trayIcon().isVisible());
}

// ---- About window -------------------------------------------------------------------------------

ViewDescription label(std::string id, std::string text, double size, FontWeight weight,
                      TextAlignment alignment, TextColor color) {
    ViewDescription v;
    v.id = std::move(id);
    v.kind = ViewKind::label;
    v.parent = "container";
    v.text = std::move(text);
    v.fontSize = size;
    v.fontWeight = weight;
    v.alignment = alignment;
    v.color = color;
    return v;
}

LayoutConstraint pin(std::string a, Anchor aa, std::string b, Anchor ba, double c = 0,
                     Relation r = Relation::equal) {
    return {std::move(a), aa, r, std::move(b), ba, c};
}

const char* const kFeatures =
    "Features:\n• Screen recording with camera overlay\n• Multiple video quality options  \n"
    "• Customizable camera positioning\n• VS Code automation integration";

WindowDescription aboutWindow() {
    WindowDescription d;
    d.attributes.contentWidth = 400;
    d.attributes.contentHeight = 300;
    d.attributes.styleMask = 3;
    d.attributes.title = "About Glimmerbox";
    d.attributes.centred = true;
    d.attributes.releasedWhenClosed = false;
    ViewDescription container;
    container.id = "container";
    container.parent = "content";
    ViewDescription icon;
    icon.id = "icon";
    icon.kind = ViewKind::image;
    icon.parent = "container";
    icon.imageScaling = 3;
    ViewDescription features = label("features", kFeatures, 11, FontWeight::regular,
                                     TextAlignment::left, TextColor::label);
    features.maximumNumberOfLines = 0;
    features.lineBreak = LineBreak::byWord;
    d.views = {container,
               icon,
               label("title", "Glimmerbox", 24, FontWeight::bold, TextAlignment::center,
                     TextColor::standard),
               label("version", "Version 1.0", 14, FontWeight::regular, TextAlignment::center,
                     TextColor::secondaryLabel),
               label("tagline", "A powerful screen recording tool for developers", 12,
                     FontWeight::regular, TextAlignment::center, TextColor::secondaryLabel),
               features,
               label("footer", "Made for developers", 10, FontWeight::regular,
                     TextAlignment::center, TextColor::tertiaryLabel)};
    const LayoutConstraint w{"icon", Anchor::width, Relation::equal, "", Anchor::top, 64};
    const LayoutConstraint h{"icon", Anchor::height, Relation::equal, "", Anchor::top, 64};
    d.constraints = {
        pin("container", Anchor::top, "content", Anchor::top, 20),
        pin("container", Anchor::leading, "content", Anchor::leading, 20),
        pin("container", Anchor::trailing, "content", Anchor::trailing, -20),
        pin("container", Anchor::bottom, "content", Anchor::bottom, -20),
        pin("icon", Anchor::top, "container", Anchor::top),
        pin("icon", Anchor::centerX, "container", Anchor::centerX),
        w,
        h,
        pin("title", Anchor::top, "icon", Anchor::bottom, 12),
        pin("title", Anchor::leading, "container", Anchor::leading),
        pin("title", Anchor::trailing, "container", Anchor::trailing),
        pin("version", Anchor::top, "title", Anchor::bottom, 4),
        pin("version", Anchor::leading, "container", Anchor::leading),
        pin("version", Anchor::trailing, "container", Anchor::trailing),
        pin("tagline", Anchor::top, "version", Anchor::bottom, 8),
        pin("tagline", Anchor::leading, "container", Anchor::leading),
        pin("tagline", Anchor::trailing, "container", Anchor::trailing),
        pin("features", Anchor::top, "tagline", Anchor::bottom, 16),
        pin("features", Anchor::leading, "container", Anchor::leading),
        pin("features", Anchor::trailing, "container", Anchor::trailing),
        pin("footer", Anchor::bottom, "container", Anchor::bottom),
        pin("footer", Anchor::leading, "container", Anchor::leading),
        pin("footer", Anchor::trailing, "container", Anchor::trailing),
        pin("features", Anchor::bottom, "footer", Anchor::top, -12, Relation::lessThanOrEqual),
    };
    return d;
}

// A view's rectangle in the window's coordinates.
QRect inWindow(const QtWindow& window, const std::string& id) {
    const QWidget* v = window.view(id);
    if (v == nullptr) return {};
    return QRect(v->mapTo(window.widget(), QPoint(0, 0)), v->size());
}

const QLabel& labelOf(const QtWindow& window, const std::string& id) {
    return *qobject_cast<const QLabel*>(window.view(id));
}

TEST_F(QtShellTest, AboutWindowIsAFixedFloatingWindowWithoutMinimiseButton) {
    QtWindowSystem system;
    const std::shared_ptr<Window> made = system.makeWindow(aboutWindow());
    auto& window = dynamic_cast<QtWindow&>(*made);
    QWidget& w = *window.widget();
    EXPECT_EQ(w.windowTitle(), "About Glimmerbox");
    EXPECT_EQ(w.size(), QSize(400, 300));
    EXPECT_EQ(w.minimumSize(), QSize(400, 300));
    EXPECT_EQ(w.maximumSize(), QSize(400, 300));
    EXPECT_TRUE(w.windowFlags().testFlag(Qt::WindowCloseButtonHint));
    EXPECT_TRUE(w.windowFlags().testFlag(Qt::WindowTitleHint));
    EXPECT_FALSE(w.windowFlags().testFlag(Qt::WindowMinimizeButtonHint));
    EXPECT_FALSE(w.windowFlags().testFlag(Qt::WindowMaximizeButtonHint));
    EXPECT_FALSE(w.windowFlags().testFlag(Qt::WindowStaysOnTopHint));
    EXPECT_FALSE(made->isVisible()) << "realised, not shown";

    made->setLevel(3);
    EXPECT_TRUE(w.windowFlags().testFlag(Qt::WindowStaysOnTopHint));
    const QRect screen = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_LE(std::abs(w.geometry().center().x() - screen.center().x()), 1);
    EXPECT_LE(std::abs(w.geometry().center().y() - screen.center().y()), 1);
}

TEST_F(QtShellTest, AboutWindowLabelsCarryTheirTextsFontsAndColours) {
    QtWindow window(aboutWindow());
    EXPECT_TRUE(window.layoutProblems().empty()) << window.layoutProblems().front();
    struct Expected {
        std::string id;
        QString text;
        int pixelSize;
        bool bold;
        Qt::Alignment alignment;
    };
    const std::vector<Expected> expected = {
        {"title", "Glimmerbox", 24, true, Qt::AlignHCenter},
        {"version", "Version 1.0", 14, false, Qt::AlignHCenter},
        {"tagline", "A powerful screen recording tool for developers", 12, false, Qt::AlignHCenter},
        {"features", QString::fromUtf8(kFeatures), 11, false, Qt::AlignLeft},
        {"footer", "Made for developers", 10, false, Qt::AlignHCenter},
    };
    for (const Expected& e : expected) {
        SCOPED_TRACE(e.id);
        const QLabel& l = labelOf(window, e.id);
        EXPECT_EQ(l.text(), e.text);
        EXPECT_EQ(l.font().pixelSize(), e.pixelSize);
        EXPECT_EQ(l.font().bold(), e.bold);
        EXPECT_TRUE(l.alignment() & e.alignment);
    }
    EXPECT_TRUE(labelOf(window, "features").wordWrap());
    EXPECT_TRUE(labelOf(window, "features").text().contains("options  \n"));
    EXPECT_FALSE(labelOf(window, "title").wordWrap());

    // Title in the text colour; label, secondary and tertiary ever fainter.
    const QColor text = qtApp().palette().color(QPalette::WindowText);
    auto colour = [&](const std::string& id) {
        return labelOf(window, id).palette().color(QPalette::WindowText);
    };
    EXPECT_EQ(colour("title"), text);
    EXPECT_GT(colour("features").alphaF(), colour("version").alphaF());
    EXPECT_GT(colour("version").alphaF(), colour("footer").alphaF());
    EXPECT_EQ(colour("version").rgb(), text.rgb());
}

TEST_F(QtShellTest, AboutWindowLayoutFollowsTheConstraints) {
    QtWindow window(aboutWindow());
    EXPECT_EQ(inWindow(window, "container"), QRect(20, 20, 360, 260));
    EXPECT_EQ(inWindow(window, "icon"), QRect(168, 20, 64, 64));  // centred at the top

    const QRect title = inWindow(window, "title");
    const QRect version = inWindow(window, "version");
    const QRect tagline = inWindow(window, "tagline");
    const QRect features = inWindow(window, "features");
    const QRect footer = inWindow(window, "footer");
    EXPECT_EQ(title.top(), 20 + 64 + 12);
    EXPECT_EQ(version.top(), title.top() + title.height() + 4);
    EXPECT_EQ(tagline.top(), version.top() + version.height() + 8);
    EXPECT_EQ(features.top(), tagline.top() + tagline.height() + 16);
    for (const QRect& r : {title, version, tagline, features, footer}) {
        EXPECT_EQ(r.left(), 20);
        EXPECT_EQ(r.width(), 360);
    }
    // Labels take their own height; the footer sits on the container's bottom edge.
    EXPECT_EQ(title.height(), labelOf(window, "title").sizeHint().height());
    EXPECT_EQ(footer.height(), labelOf(window, "footer").sizeHint().height());
    EXPECT_EQ(footer.top() + footer.height(), 280);
    EXPECT_LE(features.top() + features.height(), footer.top() - 12);
    EXPECT_GE(features.height(),
              5 * QFontMetrics(labelOf(window, "features").font()).lineSpacing() - 2)
        << "all five feature lines fit";

    const auto* icon = dynamic_cast<const ImageView*>(window.view("icon"));
    ASSERT_NE(icon, nullptr);
    EXPECT_FALSE(icon->icon().pixmap(64, 64).isNull()) << "the program's own icon";
}

TEST_F(QtShellTest, ClosingTheAboutWindowHidesItAndShowBringsItBack) {
    QtWindow window(aboutWindow());
    window.setLevel(3);
    window.show();
    EXPECT_TRUE(window.isVisible());
    QPointer<QWidget> widget = window.widget();
    widget->close();
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    ASSERT_FALSE(widget.isNull()) << "hidden, not deleted";
    EXPECT_FALSE(window.isVisible());
    window.show();
    EXPECT_TRUE(window.isVisible());
    EXPECT_TRUE(widget->windowFlags().testFlag(Qt::WindowStaysOnTopHint));
}

TEST_F(QtShellTest, ImageViewLoadsTheDescribedFileOrFallsBackToTheProgramsIcon) {
    WindowDescription d = aboutWindow();
    d.views[1].imagePath = "/nonexistent/AppIcon.icns";
    QtWindow missing(d);
    const auto* icon = dynamic_cast<const ImageView*>(missing.view("icon"));
    ASSERT_NE(icon, nullptr);
    EXPECT_EQ(icon->icon().pixmap(32, 32).toImage(),
              QApplication::windowIcon().pixmap(32, 32).toImage());
}

// ---- main queue ---------------------------------------------------------------------------------

TEST_F(QtShellTest, MainQueueRunsClosuresInOrderOnTheGuiThread) {
    QtMainQueue queue;
    EXPECT_TRUE(queue.isCurrent());
    EXPECT_EQ(queue.label(), "main");
    std::vector<int> order;
    std::vector<bool> onGuiThread;
    for (int i = 0; i < 3; ++i) {
        queue.async([&, i] {
            order.push_back(i);
            onGuiThread.push_back(queue.isCurrent() &&
                                  QThread::currentThread() == qtApp().thread());
        });
    }
    std::atomic<bool> fromWorker{false};
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
}

TEST_F(QtShellTest, MainQueueDropsPendingClosuresWhenDestroyedAndSurvivesAThrow) {
    bool ran = false;
    {
        QtMainQueue queue;
        queue.async([&] { ran = true; });
    }
    QCoreApplication::processEvents();
    EXPECT_FALSE(ran);

    LogCapture log;
    QtMainQueue queue;
    queue.async([] { throw std::runtime_error("boom"); });
    queue.async([&] { ran = true; });
    ASSERT_TRUE(processUntil([&] { return ran; }));
    EXPECT_TRUE(log.contains("boom"));
}

// ---- application --------------------------------------------------------------------------------

TEST_F(QtShellTest, ApplicationReportsActivationAndTerminateEndsTheLoop) {
    QtApplication application;
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

TEST_F(QtShellTest, ResourcePathFindsOnlyInstalledFiles) {
    QtApplication application;
    ScratchDirectory data;
    std::filesystem::create_directories(data.path() / "glimmerbox");
    std::ofstream(data.path() / "glimmerbox" / "AppIcon.icns") << "icon";
    const QByteArray previous = qgetenv("XDG_DATA_DIRS");
    qputenv("XDG_DATA_DIRS", QByteArray::fromStdString(data.path().string()));
    const auto found = application.resourcePath("AppIcon", "icns");
    const auto missing = application.resourcePath("Nothing", "icns");
    const auto escaping = application.resourcePath("../glimmerbox/AppIcon", "icns");
    qputenv("XDG_DATA_DIRS", previous);
    ASSERT_TRUE(found.has_value());
    EXPECT_EQ(*found, (data.path() / "glimmerbox" / "AppIcon.icns").string());
    EXPECT_FALSE(missing.has_value());
    EXPECT_FALSE(escaping.has_value());
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

TEST_F(QtShellTest, AlertIsAWarningWithTitleMessageAndOneOkButton) {
    QtAlertPresenter alerts;
    AlertDescription alert{"Recording Failed",
                           "Failed to finalize recording: <moov> missing",
                           AlertStyle::warning,
                           {"OK"}};
    QStringList seen;
    whenModal<QMessageBox>([&](QMessageBox& box) {
        seen << box.windowTitle() << box.text() << box.informativeText();
        const auto* headline = box.findChild<QLabel*>("qt_msgbox_label");
        const auto* message = box.findChild<QLabel*>("qt_msgbox_informativelabel");
        ASSERT_TRUE(headline != nullptr && message != nullptr);
        EXPECT_TRUE(headline->font().bold());
        EXPECT_EQ(message->textFormat(), Qt::PlainText) << "an error text is not markup";
        EXPECT_EQ(box.icon(), QMessageBox::Warning);
        EXPECT_EQ(box.windowModality(), Qt::ApplicationModal);
        ASSERT_EQ(box.buttons().size(), 1);
        EXPECT_EQ(box.buttons()[0]->text(), "OK");
        EXPECT_EQ(box.defaultButton(), box.buttons()[0]);
        box.buttons()[0]->click();
    });
    EXPECT_EQ(alerts.runModal(alert), 0);
    EXPECT_EQ(seen, (QStringList{"Recording Failed", "Recording Failed",
                                 "Failed to finalize recording: <moov> missing"}));
}

TEST_F(QtShellTest, AlertReturnsTheIndexOfThePressedButton) {
    QtAlertPresenter alerts;
    AlertDescription alert{"Question", "", AlertStyle::informational, {"Keep", "Cancel", "Retry"}};
    whenModal<QMessageBox>([](QMessageBox& box) {
        for (QAbstractButton* b : box.buttons()) {
            if (b->text() == "Retry") b->click();
        }
    });
    EXPECT_EQ(alerts.runModal(alert), 2);
    whenModal<QMessageBox>([](QMessageBox& box) {  // Escape presses "Cancel"
        QKeyEvent escape(QEvent::KeyPress, Qt::Key_Escape, Qt::NoModifier);
        QApplication::sendEvent(&box, &escape);
    });
    EXPECT_EQ(alerts.runModal(alert), 1);
}

TEST_F(QtShellTest, FolderDialogChoosesOneFolderUnderTheGivenPrompt) {
    const FolderPickerOptions options{false, true, false, "Choose Save Location"};
    const std::unique_ptr<QFileDialog> dialog = makeFolderDialog(options);
    EXPECT_EQ(dialog->labelText(QFileDialog::Accept), "Choose Save Location");
    EXPECT_EQ(dialog->fileMode(), QFileDialog::Directory);
    EXPECT_TRUE(dialog->testOption(QFileDialog::ShowDirsOnly));
    EXPECT_TRUE(dialog->testOption(QFileDialog::DontUseNativeDialog));

    ScratchDirectory root;
    const std::filesystem::path casts = root.path() / "Casts";
    std::filesystem::create_directories(casts);
    QtFolderPicker picker;
    whenModal<QFileDialog>([&](QFileDialog& d) {
        EXPECT_EQ(d.labelText(QFileDialog::Accept), "Choose Save Location");
        d.setDirectory(QString::fromStdString(root.path().string()));
        d.selectFile(QString::fromStdString(casts.string()));
        // The confirm button is found by its label, as the user finds it.
        for (QPushButton* button : d.findChildren<QPushButton*>()) {
            if (button->text() == "Choose Save Location") button->click();
        }
    });
    const FolderPickerResult chosen = picker.runModal(options);
    EXPECT_EQ(chosen.response, 1);
    EXPECT_EQ(chosen.url, casts.string());

    whenModal<QFileDialog>([](QFileDialog& d) { d.reject(); });
    const FolderPickerResult cancelled = picker.runModal(options);
    EXPECT_EQ(cancelled.response, 0);
    EXPECT_FALSE(cancelled.url.has_value());
}

// ---- notifications ------------------------------------------------------------------------------

// A notification server on a private bus: records Notify calls.
class FakeNotificationServer : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.Notifications")

public:
    QList<QVariantList> calls;

public slots:
    uint Notify(const QString& app, uint replaces, const QString& icon, const QString& summary,
                const QString& body, const QStringList& actions, const QVariantMap& hints,
                int timeout) {
        calls.append({app, replaces, icon, summary, body, actions, hints, timeout});
        return static_cast<uint>(calls.size());
    }
    QString GetServerInformation(QString& vendor, QString& version, QString& specVersion) {
        vendor = "test";
        version = "1";
        specVersion = "1.2";
        return "fake";
    }
};

// A private session bus, its address read from the daemon.
class PrivateBus {
public:
    PrivateBus() {
        int fds[2];
        if (pipe(fds) != 0) return;
        ChildProcess::Options options;
        options.keepFd = fds[1];
        daemon_.emplace(std::vector<std::string>{"dbus-daemon", "--session", "--nofork",
                                                 "--print-address=" + std::to_string(fds[1])},
                        options);
        close(fds[1]);
        char c = 0;
        while (read(fds[0], &c, 1) == 1 && c != '\n') address_.push_back(c);
        close(fds[0]);
    }
    [[nodiscard]] QString address() const { return QString::fromStdString(address_); }

private:
    std::optional<ChildProcess> daemon_;
    std::string address_;
};

TEST_F(QtShellTest, NotificationsGoToTheFreedesktopServiceWithoutBlocking) {
    PrivateBus bus;
    ASSERT_FALSE(bus.address().isEmpty());
    QDBusConnection serverBus = QDBusConnection::connectToBus(bus.address(), "gb-server");
    QDBusConnection clientBus = QDBusConnection::connectToBus(bus.address(), "gb-client");
    ASSERT_TRUE(serverBus.isConnected());

    DBusNotificationCenter center(clientBus);
    std::optional<bool> beforeServer;
    center.requestAuthorization([&](bool answered) { beforeServer = answered; });
    ASSERT_TRUE(processUntil([&] { return beforeServer.has_value(); }));
    EXPECT_FALSE(*beforeServer) << "no server yet";

    FakeNotificationServer server;
    ASSERT_TRUE(serverBus.registerObject("/org/freedesktop/Notifications", &server,
                                         QDBusConnection::ExportAllSlots));
    ASSERT_TRUE(serverBus.registerService("org.freedesktop.Notifications"));
    std::optional<bool> answered;
    center.requestAuthorization([&](bool a) { answered = a; });
    ASSERT_TRUE(processUntil([&] { return answered.has_value(); }));
    EXPECT_TRUE(*answered);

    center.add({"A1", "Recording Started", "Glimmerbox recording in progress", true});
    center.add({"A2", "Recording Saved", "Screencast saved to: glimmerbox-1.mov", false});
    EXPECT_TRUE(server.calls.isEmpty()) << "sent, not awaited";
    ASSERT_TRUE(processUntil([&] { return server.calls.size() == 2; }));

    const QVariantList& first = server.calls[0];
    EXPECT_EQ(first[0].toString(), "Glimmerbox");
    EXPECT_EQ(first[1].toUInt(), 0U);
    EXPECT_EQ(first[3].toString(), "Recording Started");
    EXPECT_EQ(first[4].toString(), "Glimmerbox recording in progress");
    EXPECT_TRUE(first[5].toStringList().isEmpty());
    EXPECT_EQ(first[6].toMap().value("sound-name").toString(), "message-new-instant");
    EXPECT_EQ(first[7].toInt(), -1);
    EXPECT_EQ(server.calls[1][3].toString(), "Recording Saved");
    EXPECT_FALSE(server.calls[1][6].toMap().contains("sound-name"));

    QDBusConnection::disconnectFromBus("gb-server");
    QDBusConnection::disconnectFromBus("gb-client");
}

TEST_F(QtShellTest, WithoutABusNotificationsAreDroppedAndAuthorizationIsRefused) {
    DBusNotificationCenter center(QDBusConnection(QStringLiteral("not-connected")));
    std::optional<bool> answered;
    center.requestAuthorization([&](bool a) { answered = a; });
    EXPECT_EQ(answered, false);
    center.add({"A", "t", "b", true});  // no crash, nothing to see
}

// ---- single instance ----------------------------------------------------------------------------

TEST_F(QtShellTest, OnlyOneInstanceHoldsTheLock) {
    ScratchDirectory dir;
    const std::string path = (dir.path() / "glimmerbox.lock").string();
    std::optional<InstanceLock> first(std::in_place, path);
    EXPECT_EQ(first->state(), InstanceLock::State::owned);
    InstanceLock second(path);
    EXPECT_EQ(second.state(), InstanceLock::State::heldByAnother);

    LogCapture log;
    int argc = 1;
    char name[] = "glimmerbox";
    char* argv[] = {name, nullptr};
    EXPECT_FALSE(QtShell::launch(argc, argv, InstanceLock(path)));
    EXPECT_TRUE(log.contains(QtShell::kAlreadyRunning));

    first.reset();
    EXPECT_EQ(InstanceLock(path).state(), InstanceLock::State::owned);

    const InstanceLock nowhere((dir.path() / "missing" / "x.lock").string());
    EXPECT_EQ(nowhere.state(), InstanceLock::State::unavailable);
    EXPECT_NE(nowhere.failure().find("No such file"), std::string::npos);
}

TEST_F(QtShellTest, LockLivesInTheRuntimeDirectory) {
    const QByteArray previous = qgetenv("XDG_RUNTIME_DIR");
    ScratchDirectory runtime;
    qputenv("XDG_RUNTIME_DIR", QByteArray::fromStdString(runtime.path().string()));
    const std::string inRuntime = InstanceLock::defaultPath();
    qunsetenv("XDG_RUNTIME_DIR");
    const std::string withoutRuntime = InstanceLock::defaultPath();
    if (!previous.isNull()) qputenv("XDG_RUNTIME_DIR", previous);
    EXPECT_EQ(inRuntime, (runtime.path() / "glimmerbox.lock").string());
    EXPECT_EQ(withoutRuntime, "/tmp/glimmerbox-" + std::to_string(getuid()) + ".lock");
}

}  // namespace
}  // namespace gb::linuxp

#include "qt_shell_test.moc"
