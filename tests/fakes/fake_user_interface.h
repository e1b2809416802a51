// Fakes of the application shell's platform: the application object, the status bar and its
// item, windows, alerts, the workspace and the notification center (the folder picker's fake is
// with the file fakes). They record what the logic asked of them; calls whose order matters
// across fakes also go to a shared CallLog when one is attached ("application.terminate",
// "statusItem.menu", "alert <title>", "notification <title>", ...).
//
// Threads: like the real services, main thread only (in unit tests: the test's thread).
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "fakes/log_capture.h"
#include "platform/notifications.h"
#include "platform/user_interface.h"

namespace gb::fakes {

class FakeApplication final : public Application {
public:
    void setActivationPolicyAccessory() override { record("setActivationPolicyAccessory"); }
    void closeAllWindows() override { record("closeAllWindows"); }
    void terminate() override { record("terminate"); }
    void activateIgnoringOtherApps() override { record("activateIgnoringOtherApps"); }
    void observeDidBecomeActive(std::function<void()> observer) override;
    bool isAccessibilityTrusted(bool prompt) override;
    std::optional<std::string> resourcePath(const std::string& name,
                                            const std::string& type) override;

    // Runs every registered activation observer, as when the application becomes active.
    void fireDidBecomeActive();
    void addResource(const std::string& name, const std::string& type, std::string path);

    CallLog* journal = nullptr;
    bool accessibilityTrusted = false;
    std::vector<bool> accessibilityPrompts;  // the prompt flag of every trust check
    std::vector<std::string> calls;          // in order

private:
    void record(const std::string& call);
    std::vector<std::function<void()>> observers_;
    std::map<std::string, std::string> resources_;  // "name.type" -> path
};

class FakeStatusItem final : public StatusItem {
public:
    bool hasButton() const override { return true; }
    std::optional<SymbolImage> lookupSymbol(const std::string& name,
                                            const std::string& accessibilityDescription) override;
    void setImage(const std::optional<SymbolImage>& image) override;
    void setImageTemplate(bool isTemplate) override;
    void setTitle(const std::string& title) override;
    void setMenu(const std::vector<MenuEntry>& entries) override;
    void setActionHandler(std::function<void(const MenuEntry& chosen)> handler) override;

    // The installed menu's entry at this title path (top level, then submenu), or null.
    [[nodiscard]] const MenuEntry* find(const std::vector<std::string>& titlePath) const;
    // Chooses the entry at the title path as the user would; false when there is none or no
    // handler is installed.
    bool choose(const std::vector<std::string>& titlePath);
    [[nodiscard]] const std::vector<MenuEntry>& menu() const;

    CallLog* journal = nullptr;
    std::set<std::string> unavailableSymbols;  // lookups of these names yield nothing

    // The button's state.
    std::optional<SymbolImage> image;
    bool imageIsTemplate = false;
    std::string title;

    std::vector<std::vector<MenuEntry>> menus;  // every installed menu, in order

private:
    // Journals a change of the button: "image <name>", "template true", "title <text>", "menu".
    void record(const std::string& event);
    std::function<void(const MenuEntry&)> handler_;
};

class FakeStatusBar final : public StatusBar {
public:
    std::shared_ptr<StatusItem> makeStatusItem() override;

    // The most recently made item (null before the first).
    [[nodiscard]] FakeStatusItem* item() const {
        return items.empty() ? nullptr : items.back().get();
    }

    CallLog* journal = nullptr;
    std::set<std::string> unavailableSymbols;  // for items made from now on
    std::vector<std::shared_ptr<FakeStatusItem>> items;
};

class FakeWindow final : public Window {
public:
    void setLevel(int newLevel) override { level = newLevel; }
    void show() override { visible = true; }
    bool isVisible() const override { return visible; }

    int level = 0;
    bool visible = false;
};

class FakeWindowSystem final : public WindowSystem {
public:
    std::shared_ptr<Window> makeWindow(const WindowDescription& d) override;

    std::vector<WindowDescription> descriptions;
    std::vector<std::shared_ptr<FakeWindow>> windows;
    [[nodiscard]] size_t makeWindowCount() const { return windows.size(); }
};

class FakeAlertPresenter final : public AlertPresenter {
public:
    int runModal(const AlertDescription& alert) override;

    CallLog* journal = nullptr;
    std::vector<AlertDescription> alerts;
};

class FakeWorkspace final : public Workspace {
public:
    bool openURL(const std::string& path) override {
        opened.push_back(path);
        return true;
    }

    std::vector<std::string> opened;
};

class FakeNotificationCenter final : public NotificationCenter {
public:
    void requestAuthorization(std::function<void(bool granted)> completion) override;
    void add(const NotificationRequest& request) override;

    // Answers every pending authorization request.
    void answerAuthorization(bool granted);

    CallLog* journal = nullptr;
    std::vector<NotificationRequest> requests;
    // Runs after each request was recorded.
    std::function<void(const NotificationRequest&)> onAdd;

private:
    std::vector<std::function<void(bool)>> pendingAnswers_;
};

}  // namespace gb::fakes
