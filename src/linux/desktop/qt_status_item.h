// The status item as a system tray icon (StatusNotifierItem where the desktop offers it, XEmbed
// otherwise) with a menu built from MenuEntry lists.
//
// The two status symbols are monochrome icons compiled into the program (":/icons/<name>.svg").
// Where there is no image, the item shows its title: a tray icon cannot show text, so the text
// is drawn into the icon and also set as its tooltip. Both mouse buttons open the menu.
//
// As a StatusNotifierItem (Qt's choice when a watcher with a host is on the session bus at
// start-up), the menu goes out over dbusmenu and the host shows it on a right click; Qt reports
// the item as no menu (ItemIsMenu false), so hosts send a left click as Activate, which pops the
// same menu up at the pointer.
//
// Without a tray host the item says so on standard output and shows itself once one appears.
//
// With GLIMMERBOX_DEBUG_UI set (see uiDebugLogging()), every installed menu is written to the log
// entry by entry, and every menu that opens logs where its entries are on screen; end-to-end
// tests read the menu and click its entries with that.
//
// Threads: main thread only; the action handler is called on the main thread, after the menu has
// closed (queued), so that it may run modal dialogs.
#pragma once

#include <QIcon>
#include <QString>

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/user_interface.h"

class QMenu;
class QObject;
class QSystemTrayIcon;
class QTimer;

namespace gb::linuxp {

// A fresh menu for the entries: separators, submenus, check marks, disabled entries, and a
// one-character key equivalent as Ctrl+<key>. Choosing an entry calls `chosen` with a copy of
// that entry (its value intact).
[[nodiscard]] std::unique_ptr<QMenu> buildMenu(
    const std::vector<MenuEntry>& entries,
    const std::function<void(const MenuEntry& chosen)>& chosen);

// The text drawn as an icon, light on a dark outline so that it reads on any panel.
[[nodiscard]] QIcon iconForText(const QString& text);

class QtStatusItem final : public StatusItem {
public:
    static constexpr const char* kSymbolDirectory = ":/icons";

    // `symbolDirectory` holds <symbol name>.svg files.
    explicit QtStatusItem(QString symbolDirectory = kSymbolDirectory);
    ~QtStatusItem() override;
    QtStatusItem(const QtStatusItem&) = delete;
    QtStatusItem& operator=(const QtStatusItem&) = delete;

    // A tray icon always has somewhere to show an image or a text.
    [[nodiscard]] bool hasButton() const override { return true; }
    // Nothing for a name without an icon file, or when the file does not load.
    [[nodiscard]] std::optional<SymbolImage> lookupSymbol(
        const std::string& name, const std::string& accessibilityDescription) override;
    void setImage(const std::optional<SymbolImage>& image) override;
    void setImageTemplate(bool isTemplate) override;
    void setTitle(const std::string& title) override;
    void setMenu(const std::vector<MenuEntry>& entries) override;
    void setActionHandler(std::function<void(const MenuEntry& chosen)> handler) override;

    // What the item shows now. A menu installed while the current one is open replaces it
    // once it closes.
    [[nodiscard]] QSystemTrayIcon& trayIcon() { return *tray_; }
    [[nodiscard]] QMenu* menu() const { return menu_.get(); }
    [[nodiscard]] const std::optional<SymbolImage>& image() const { return image_; }
    [[nodiscard]] bool imageIsTemplate() const { return imageIsTemplate_; }
    [[nodiscard]] const std::string& title() const { return title_; }

    // Opens the menu at the pointer, as a click on the icon does.
    void popUpMenu();

private:
    std::optional<QIcon> loadSymbol(const std::string& name);
    void install(std::unique_ptr<QMenu> menu);
    void refreshIcon();
    void showWhenTrayAvailable();
    void choose(const MenuEntry& entry);

    const QString symbolDirectory_;
    const bool debugMenu_;
    std::unique_ptr<QObject> context_;  // receives the menus' and the tray's signals
    std::unique_ptr<QSystemTrayIcon> tray_;
    std::unique_ptr<QMenu> menu_;         // the tray's menu
    std::unique_ptr<QMenu> pendingMenu_;  // its successor, while it is open
    std::unique_ptr<QTimer> trayWatch_;
    std::map<std::string, QIcon> symbols_;  // loaded icons by symbol name
    std::optional<SymbolImage> image_;
    bool imageIsTemplate_ = false;
    std::string title_;
    bool waitingForTray_ = false;
    std::function<void(const MenuEntry&)> handler_;
};

class QtStatusBar final : public StatusBar {
public:
    [[nodiscard]] std::shared_ptr<StatusItem> makeStatusItem() override;
};

}  // namespace gb::linuxp
