#include "linux/desktop/qt_status_item.h"

#include <QAction>
#include <QApplication>
#include <QCursor>
#include <QEvent>
#include <QFile>
#include <QMenu>
#include <QPainter>
#include <QPainterPath>
#include <QPixmap>
#include <QRegularExpression>
#include <QSystemTrayIcon>
#include <QTimer>

#include "linux/desktop/qt_shell.h"
#include "recording/log.h"

namespace gb::linuxp {
namespace {

using namespace std::chrono_literals;

constexpr auto kTrayPollInterval = 1s;
constexpr const char* kPathProperty = "glimmerboxMenuPath";

// The status icons' colours: a light glyph on a dark disc reads on light and dark panels.
const QColor kGlyphColour(0xf0, 0xf0, 0xf0);
const QColor kDiscColour(0x2a, 0x2a, 0x2a, 0xe6);

QString qText(const std::string& text) {
    return QString::fromStdString(text);
}

// Menu titles are plain text; Qt would take "&" as a mnemonic marker.
QString menuText(const std::string& title) {
    return qText(title).replace(QLatin1Char('&'), QStringLiteral("&&"));
}

// A key equivalent is one character taken with the default modifier; an upper-case letter
// also takes Shift.
QKeySequence shortcutFor(const std::string& keyEquivalent) {
    const QString key = qText(keyEquivalent);
    if (key.size() != 1) return {};
    const QChar c = key.front();
    if (c.isUpper()) return QKeySequence(QStringLiteral("Ctrl+Shift+") + c);
    return QKeySequence(QStringLiteral("Ctrl+") + c.toUpper());
}

// Entries that stand for an option value or switch one on and off show their check state, so
// that an unchecked one still reads as something to check. Options are plain check marks, not
// an exclusive group: Qt would draw (and export over dbusmenu) radio buttons for one, and the
// menu is rebuilt after every choice anyway.
bool showsCheckState(const MenuEntry& entry) {
    return entry.checked || entry.value.has_value() ||
           entry.action == MenuAction::toggleCameraOverlay ||
           entry.action == MenuAction::toggleVSCodeAutomation;
}

void fill(QMenu& menu, const std::vector<MenuEntry>& entries,
          const std::function<void(const MenuEntry&)>& chosen, const QString& path) {
    for (const MenuEntry& entry : entries) {
        if (entry.kind == MenuEntry::Kind::separator) {
            menu.addSeparator();
            continue;
        }
        const QString title = menuText(entry.title);
        const QString entryPath =
            path.isEmpty() ? qText(entry.title) : path + QStringLiteral(" > ") + qText(entry.title);
        if (entry.submenu) {
            QMenu* submenu = menu.addMenu(title);
            submenu->setProperty(kPathProperty, entryPath);
            submenu->menuAction()->setEnabled(entry.enabled);
            fill(*submenu, *entry.submenu, chosen, entryPath);
            continue;
        }
        QAction* action = menu.addAction(title);
        action->setEnabled(entry.enabled);
        action->setShortcut(shortcutFor(entry.keyEquivalent));
        if (showsCheckState(entry)) {
            action->setCheckable(true);
            action->setChecked(entry.checked);
        }
        MenuEntry copy = entry;
        copy.submenu.reset();
        QObject::connect(action, &QAction::triggered, action,
                         [chosen, copy = std::move(copy)] { chosen(copy); });
    }
}

QString flags(const QAction& action) {
    QStringList parts;
    parts << (action.isEnabled() ? QStringLiteral("enabled") : QStringLiteral("disabled"));
    if (action.isCheckable()) {
        parts << (action.isChecked() ? QStringLiteral("checked") : QStringLiteral("unchecked"));
    }
    if (action.menu() != nullptr) parts << QStringLiteral("submenu");
    if (!action.shortcut().isEmpty()) {
        parts << QStringLiteral("shortcut=") +
                     action.shortcut().toString(QKeySequence::PortableText);
    }
    return parts.join(QLatin1Char(' '));
}

QString pathOf(const QMenu& menu, const QAction& action) {
    const QString prefix = menu.property(kPathProperty).toString();
    QString text = action.text().replace(QStringLiteral("&&"), QStringLiteral("&"));
    return prefix.isEmpty() ? text : prefix + QStringLiteral(" > ") + text;
}

// "[menu] entry <path> | <flags>" for every entry, submenus after their entry.
void logEntryLines(const QMenu& menu) {
    for (QAction* action : menu.actions()) {
        if (action->isSeparator()) {
            logLine("[menu] separator");
            continue;
        }
        logLine(QStringLiteral("[menu] entry %1 | %2")
                    .arg(pathOf(menu, *action), flags(*action))
                    .toStdString());
        if (action->menu() != nullptr) logEntryLines(*action->menu());
    }
}

// Other threads may log in between: the block has a start and an end line.
void logEntries(const QMenu& menu) {
    logLine("[menu] installed");
    logEntryLines(menu);
    logLine("[menu] end");
}

// Logs where a menu's entries are on screen each time it opens, and when it closes.
class MenuGeometryLogger final : public QObject {
public:
    using QObject::QObject;

    bool eventFilter(QObject* watched, QEvent* event) override {
        auto* menu = qobject_cast<QMenu*>(watched);
        if (menu != nullptr && event->type() == QEvent::Show) {
            const QRect g = menu->geometry();
            logLine(QStringLiteral("[menu] shown \"%1\" at %2,%3 %4x%5")
                        .arg(menu->property(kPathProperty).toString())
                        .arg(g.x())
                        .arg(g.y())
                        .arg(g.width())
                        .arg(g.height())
                        .toStdString());
            for (QAction* action : menu->actions()) {
                if (action->isSeparator() || !action->isVisible()) continue;
                const QRect r = menu->actionGeometry(action).translated(g.topLeft());
                logLine(QStringLiteral("[menu] at %1,%2 %3x%4 %5")
                            .arg(r.x())
                            .arg(r.y())
                            .arg(r.width())
                            .arg(r.height())
                            .arg(pathOf(*menu, *action))
                            .toStdString());
            }
            logLine("[menu] end");
        }
        if (menu != nullptr && event->type() == QEvent::Hide) {
            logLine(QStringLiteral("[menu] hidden \"%1\"")
                        .arg(menu->property(kPathProperty).toString())
                        .toStdString());
        }
        return QObject::eventFilter(watched, event);
    }
};

void watchGeometry(QMenu& menu, QObject& logger) {
    menu.installEventFilter(&logger);
    for (QAction* action : menu.actions()) {
        if (action->menu() != nullptr) watchGeometry(*action->menu(), logger);
    }
}

bool isPlainSymbolName(const std::string& name) {
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9_][A-Za-z0-9._-]*$"));
    return plain.match(qText(name)).hasMatch();
}

}  // namespace

std::unique_ptr<QMenu> buildMenu(const std::vector<MenuEntry>& entries,
                                 const std::function<void(const MenuEntry&)>& chosen) {
    auto menu = std::make_unique<QMenu>();
    fill(*menu, entries, chosen, QString());
    return menu;
}

QIcon iconForText(const QString& text) {
    constexpr int kSize = 64;
    constexpr double kGlyphBox = 34;
    QPixmap pixmap(kSize, kSize);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(kDiscColour);
    painter.drawEllipse(QRectF(1, 1, kSize - 2, kSize - 2));

    QFont font = QApplication::font();
    font.setPixelSize(48);
    QPainterPath glyph;
    glyph.addText(0, 0, font, text);  // falls back to fonts that have the characters
    const QRectF bounds = glyph.boundingRect();
    if (bounds.width() > 0 && bounds.height() > 0) {
        const double scale = std::min(kGlyphBox / bounds.width(), kGlyphBox / bounds.height());
        QTransform placement;
        placement.translate(kSize / 2.0, kSize / 2.0);
        placement.scale(scale, scale);
        placement.translate(-bounds.center().x(), -bounds.center().y());
        painter.setBrush(kGlyphColour);
        painter.drawPath(placement.map(glyph));
    }
    painter.end();
    return QIcon(pixmap);
}

QtStatusItem::QtStatusItem(QString symbolDirectory)
    : symbolDirectory_(std::move(symbolDirectory)),
      debugMenu_(uiDebugLogging()),
      context_(std::make_unique<QObject>()),
      tray_(std::make_unique<QSystemTrayIcon>()),
      trayWatch_(std::make_unique<QTimer>()) {
    // The right button opens the context menu by itself; the left one opens it here.
    QObject::connect(tray_.get(), &QSystemTrayIcon::activated, context_.get(),
                     [this](QSystemTrayIcon::ActivationReason reason) {
                         if (reason == QSystemTrayIcon::Trigger) popUpMenu();
                     });
    trayWatch_->setInterval(kTrayPollInterval);
    QObject::connect(trayWatch_.get(), &QTimer::timeout, context_.get(), [this] {
        if (!QSystemTrayIcon::isSystemTrayAvailable()) return;
        trayWatch_->stop();
        waitingForTray_ = false;
        logLine("Glimmerbox: system tray found; showing the status icon");
        tray_->show();
    });
    if (debugMenu_) new MenuGeometryLogger(context_.get());
}

QtStatusItem::~QtStatusItem() {
    // The tray must forget the menu before the menu goes.
    tray_->setContextMenu(nullptr);
}

std::optional<QIcon> QtStatusItem::loadSymbol(const std::string& name) {
    if (auto it = symbols_.find(name); it != symbols_.end()) return it->second;
    if (!isPlainSymbolName(name)) return std::nullopt;
    const QString path = symbolDirectory_ + QLatin1Char('/') + qText(name) + QStringLiteral(".svg");
    if (!QFile::exists(path)) return std::nullopt;
    QIcon icon(path);
    // A file that does not parse gives an icon without pixels.
    if (icon.pixmap(QSize(22, 22)).isNull()) return std::nullopt;
    symbols_.emplace(name, icon);
    return icon;
}

std::optional<SymbolImage> QtStatusItem::lookupSymbol(const std::string& name,
                                                      const std::string& accessibilityDescription) {
    if (!loadSymbol(name)) return std::nullopt;
    return SymbolImage{name, accessibilityDescription};
}

void QtStatusItem::setImage(const std::optional<SymbolImage>& image) {
    image_ = image && loadSymbol(image->name) ? image : std::nullopt;
    refreshIcon();
}

void QtStatusItem::setImageTemplate(bool isTemplate) {
    imageIsTemplate_ = isTemplate;
    refreshIcon();
}

void QtStatusItem::setTitle(const std::string& title) {
    title_ = title;
    refreshIcon();
}

void QtStatusItem::refreshIcon() {
    QIcon icon;
    QString tooltip;
    if (image_) {
        icon = symbols_.at(image_->name);
        // Monochrome: a desktop that recolours symbolic icons may do so.
        icon.setIsMask(imageIsTemplate_);
        tooltip = qText(image_->accessibilityDescription);
    } else if (!title_.empty()) {
        icon = iconForText(qText(title_));
        tooltip = qText(title_);
    } else {
        // Neither image nor title: the program's icon keeps the item visible and clickable.
        icon = QApplication::windowIcon();
        tooltip = QApplication::applicationName();
    }
    tray_->setIcon(icon);
    tray_->setToolTip(tooltip);
    showWhenTrayAvailable();
}

void QtStatusItem::showWhenTrayAvailable() {
    if (tray_->isVisible() || waitingForTray_) return;
    if (QSystemTrayIcon::isSystemTrayAvailable()) {
        tray_->show();
        return;
    }
    waitingForTray_ = true;
    logLine("Glimmerbox: no system tray found; waiting for one to appear");
    trayWatch_->start();
}

void QtStatusItem::setMenu(const std::vector<MenuEntry>& entries) {
    std::unique_ptr<QMenu> menu =
        buildMenu(entries, [this](const MenuEntry& entry) { choose(entry); });
    if (menu_ && menu_->isVisible()) {
        // Opening the menu may itself bring a rebuild (the application becomes active); an open
        // menu is never pulled from under the pointer: the new one follows when it closes.
        pendingMenu_ = std::move(menu);
        return;
    }
    install(std::move(menu));
}

void QtStatusItem::install(std::unique_ptr<QMenu> menu) {
    if (debugMenu_) {
        logEntries(*menu);
        if (auto* logger = context_->findChild<MenuGeometryLogger*>()) {
            watchGeometry(*menu, *logger);
        }
    }
    // Queued: the chosen entry's signal comes after the menu hides.
    QObject::connect(
        menu.get(), &QMenu::aboutToHide, context_.get(),
        [this] {
            if (pendingMenu_) install(std::move(pendingMenu_));
        },
        Qt::QueuedConnection);
    tray_->setContextMenu(menu.get());
    // Over dbusmenu Qt announces a replaced menu only with the item's NewMenu signal, which
    // some hosts ignore; an entry put in and taken out again makes it send LayoutUpdated too,
    // which every host follows.
    delete menu->addSeparator();
    // The old menu may be the one whose entry is being handled: let it go after that.
    if (menu_) menu_.release()->deleteLater();
    menu_ = std::move(menu);
}

void QtStatusItem::setActionHandler(std::function<void(const MenuEntry& chosen)> handler) {
    handler_ = std::move(handler);
}

void QtStatusItem::choose(const MenuEntry& entry) {
    // Queued: the menu closes first, and the handler may open modal dialogs.
    QMetaObject::invokeMethod(
        context_.get(),
        [this, entry] {
            if (handler_) handler_(entry);
        },
        Qt::QueuedConnection);
}

void QtStatusItem::popUpMenu() {
    if (menu_) menu_->popup(QCursor::pos());
}

std::shared_ptr<StatusItem> QtStatusBar::makeStatusItem() {
    return std::make_shared<QtStatusItem>();
}

}  // namespace gb::linuxp
