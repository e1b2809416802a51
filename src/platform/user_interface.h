// The application shell's platform: the application object, the status item and its menu,
// windows described by the logic, the modal alert, the folder picker and the workspace.
//
// Threads: everything here is called on the main thread only, and every callback it makes
// (menu actions, activation) arrives on the main thread.
// Ownership: the caller owns what a factory returns; a status item keeps the last installed menu.
#pragma once

#include <any>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace gb {

// ---- status menu -------------------------------------------------------------------------------

enum class MenuAction {
    none,
    startRecording,
    stopRecording,
    setVideoQuality,
    toggleCameraOverlay,
    setCameraOverlayPreset,
    setCameraPosition,
    toggleVSCodeAutomation,
    showAbout,
    chooseSaveLocation,
    openRecordingsFolder,
    quitApp,
};

// One entry of the status menu as the logic builds it.
struct MenuEntry {
    enum class Kind { item, separator };

    Kind kind = Kind::item;
    std::string title;
    MenuAction action = MenuAction::none;
    std::string keyEquivalent;  // one character taken with the platform's default modifier
    bool checked = false;
    bool enabled = true;
    std::any value;  // the option value the entry stands for, or empty
    std::optional<std::vector<MenuEntry>> submenu;
    bool targeted = false;  // names the delegate as its receiver explicitly

    static MenuEntry separator() {
        MenuEntry e;
        e.kind = Kind::separator;
        return e;
    }
};

struct SymbolImage {
    std::string name;
    std::string accessibilityDescription;
};

class StatusItem {
public:
    virtual ~StatusItem() = default;
    [[nodiscard]] virtual bool hasButton() const = 0;
    // Looks up a symbol image by name; nothing when it cannot be supplied.
    [[nodiscard]] virtual std::optional<SymbolImage> lookupSymbol(
        const std::string& name, const std::string& accessibilityDescription) = 0;
    // Sets the button's image; nothing removes it.
    virtual void setImage(const std::optional<SymbolImage>& image) = 0;
    // Marks the button's current image as a template (monochrome) image.
    virtual void setImageTemplate(bool isTemplate) = 0;
    virtual void setTitle(const std::string& title) = 0;
    // Installs a new menu, replacing the old one.
    virtual void setMenu(const std::vector<MenuEntry>& entries) = 0;
    // The chosen entry is handed to `handler` (on the main thread).
    virtual void setActionHandler(std::function<void(const MenuEntry& chosen)> handler) = 0;
};

class StatusBar {
public:
    virtual ~StatusBar() = default;
    // A new status item of variable length.
    [[nodiscard]] virtual std::shared_ptr<StatusItem> makeStatusItem() = 0;
};

// ---- windows -----------------------------------------------------------------------------------

enum class ViewKind { plain, image, label };
enum class FontWeight { regular, bold };
enum class TextAlignment { left, center };
enum class TextColor { standard, label, secondaryLabel, tertiaryLabel };
enum class LineBreak { none, byWord };
enum class Anchor { top, bottom, leading, trailing, centerX, width, height };
enum class Relation { equal, lessThanOrEqual };

struct WindowAttributes {
    double contentWidth = 0;
    double contentHeight = 0;
    unsigned styleMask = 0;  // 1 titled, 2 closable, 4 miniaturizable, 8 resizable
    int backing = 2;         // buffered
    bool deferred = false;
    std::string title;
    bool centred = false;
    bool releasedWhenClosed = true;
    int level = 0;           // 3 floating
};

struct ViewDescription {
    std::string id;
    ViewKind kind = ViewKind::plain;
    std::string parent;  // "content" for the window's content view
    std::string text;
    double fontSize = 0;
    FontWeight fontWeight = FontWeight::regular;
    TextAlignment alignment = TextAlignment::left;
    TextColor color = TextColor::standard;
    int maximumNumberOfLines = 1;  // 0: any number
    LineBreak lineBreak = LineBreak::none;
    int imageScaling = 0;          // 3: proportionally up or down
    std::string imagePath;         // empty: the application's own icon
    bool translatesAutoresizingMask = false;
};

// first.anchor (= or <=) second.anchor + constant; with an empty `secondView`, first = constant.
struct LayoutConstraint {
    std::string firstView;
    Anchor firstAnchor = Anchor::top;
    Relation relation = Relation::equal;
    std::string secondView;
    Anchor secondAnchor = Anchor::top;
    double constant = 0;
};

struct WindowDescription {
    WindowAttributes attributes;
    std::vector<ViewDescription> views;          // in the order they are added
    std::vector<LayoutConstraint> constraints;   // activated together, in this order
};

class Window {
public:
    virtual ~Window() = default;
    virtual void setLevel(int level) = 0;
    // Shows the window (again, if it was closed) and orders it front.
    virtual void show() = 0;
    [[nodiscard]] virtual bool isVisible() const = 0;
};

class WindowSystem {
public:
    virtual ~WindowSystem() = default;
    // Realises a described window; it is not shown yet.
    [[nodiscard]] virtual std::shared_ptr<Window> makeWindow(const WindowDescription& d) = 0;
};

// ---- alert, folder picker, workspace -----------------------------------------------------------

enum class AlertStyle { warning = 0, informational = 1, critical = 2 };

struct AlertDescription {
    std::string messageText;
    std::string informativeText;
    AlertStyle style = AlertStyle::warning;
    std::vector<std::string> buttons;
};

class AlertPresenter {
public:
    virtual ~AlertPresenter() = default;
    // Shows an application-modal alert and returns the index of the pressed button.
    virtual int runModal(const AlertDescription& alert) = 0;
};

struct FolderPickerOptions {
    bool canChooseFiles = true;
    bool canChooseDirectories = false;
    bool allowsMultipleSelection = false;
    std::string prompt;  // the confirm button's title
};

struct FolderPickerResult {
    int response = 0;              // 1 for OK
    std::optional<std::string> url;  // the chosen folder's path
};

class FolderPicker {
public:
    virtual ~FolderPicker() = default;
    // Runs the picker modally.
    virtual FolderPickerResult runModal(const FolderPickerOptions& options) = 0;
};

class Workspace {
public:
    virtual ~Workspace() = default;
    // Opens a folder in the desktop's file browser. The result is advisory.
    virtual bool openURL(const std::string& path) = 0;
};

// ---- the application ---------------------------------------------------------------------------

class Application {
public:
    virtual ~Application() = default;
    // No taskbar/Dock entry and no main window.
    virtual void setActivationPolicyAccessory() = 0;
    // Closes every window the application has now.
    virtual void closeAllWindows() = 0;
    // Ends the event loop and the process.
    virtual void terminate() = 0;
    // Brings the application (and its windows) to the front.
    virtual void activateIgnoringOtherApps() = 0;
    // `observer` runs whenever the application becomes active.
    virtual void observeDidBecomeActive(std::function<void()> observer) = 0;
    // Whether the process may send input events to other programs; with `prompt`, the system may
    // ask the user when it is not.
    virtual bool isAccessibilityTrusted(bool prompt) = 0;
    // A bundled resource's path, or nothing.
    [[nodiscard]] virtual std::optional<std::string> resourcePath(const std::string& name,
                                                                  const std::string& type) = 0;
};

}  // namespace gb
