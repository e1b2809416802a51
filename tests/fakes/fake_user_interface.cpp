#include "fakes/fake_user_interface.h"

#include <algorithm>

namespace gb::fakes {

// ---- FakeApplication ---------------------------------------------------------------------------

void FakeApplication::record(const std::string& call) {
    calls.push_back(call);
    if (journal) journal->add("application." + call);
}

void FakeApplication::observeDidBecomeActive(std::function<void()> observer) {
    record("observeDidBecomeActive");
    observers_.push_back(std::move(observer));
}

bool FakeApplication::isAccessibilityTrusted(bool prompt) {
    record("isAccessibilityTrusted");
    accessibilityPrompts.push_back(prompt);
    return accessibilityTrusted;
}

std::optional<std::string> FakeApplication::resourcePath(const std::string& name,
                                                         const std::string& type) {
    record("resourcePath " + name + "." + type);
    auto it = resources_.find(name + "." + type);
    if (it == resources_.end()) return std::nullopt;
    return it->second;
}

void FakeApplication::fireDidBecomeActive() {
    // Copied: an observer may register another one.
    auto observers = observers_;
    for (auto& observer : observers) observer();
}

void FakeApplication::addResource(const std::string& name, const std::string& type,
                                  std::string path) {
    resources_[name + "." + type] = std::move(path);
}

// ---- FakeStatusItem ----------------------------------------------------------------------------

void FakeStatusItem::record(const std::string& event) {
    if (journal) journal->add("statusItem." + event);
}

std::optional<SymbolImage> FakeStatusItem::lookupSymbol(
    const std::string& name, const std::string& accessibilityDescription) {
    if (unavailableSymbols.contains(name)) return std::nullopt;
    return SymbolImage{name, accessibilityDescription};
}

void FakeStatusItem::setImage(const std::optional<SymbolImage>& newImage) {
    image = newImage;
    if (!image) imageIsTemplate = false;
    record(newImage ? "image " + newImage->name : "image none");
}

void FakeStatusItem::setImageTemplate(bool isTemplate) {
    imageIsTemplate = isTemplate;
    record(isTemplate ? "template true" : "template false");
}

void FakeStatusItem::setTitle(const std::string& newTitle) {
    title = newTitle;
    record("title " + newTitle);
}

void FakeStatusItem::setMenu(const std::vector<MenuEntry>& entries) {
    menus.push_back(entries);
    record("menu");
}

void FakeStatusItem::setActionHandler(std::function<void(const MenuEntry& chosen)> handler) {
    handler_ = std::move(handler);
}

const std::vector<MenuEntry>& FakeStatusItem::menu() const {
    static const std::vector<MenuEntry> kNone;
    return menus.empty() ? kNone : menus.back();
}

const MenuEntry* FakeStatusItem::find(const std::vector<std::string>& titlePath) const {
    const std::vector<MenuEntry>* level = &menu();
    const MenuEntry* found = nullptr;
    for (const auto& title : titlePath) {
        if (!level) return nullptr;
        auto it = std::find_if(level->begin(), level->end(), [&](const MenuEntry& e) {
            return e.kind == MenuEntry::Kind::item && e.title == title;
        });
        if (it == level->end()) return nullptr;
        found = &*it;
        level = found->submenu ? &*found->submenu : nullptr;
    }
    return found;
}

bool FakeStatusItem::choose(const std::vector<std::string>& titlePath) {
    const MenuEntry* entry = find(titlePath);
    if (!entry || !handler_) return false;
    // The handler may install a new menu, which would free the entry: hand over a copy.
    MenuEntry chosen = *entry;
    auto handler = handler_;
    handler(chosen);
    return true;
}

// ---- FakeStatusBar -----------------------------------------------------------------------------

std::shared_ptr<StatusItem> FakeStatusBar::makeStatusItem() {
    auto item = std::make_shared<FakeStatusItem>();
    item->journal = journal;
    item->unavailableSymbols = unavailableSymbols;
    items.push_back(item);
    if (journal) journal->add("statusBar.makeStatusItem");
    return item;
}

// ---- FakeWindowSystem, FakeAlertPresenter, FakeNotificationCenter ------------------------------

std::shared_ptr<Window> FakeWindowSystem::makeWindow(const WindowDescription& d) {
    descriptions.push_back(d);
    windows.push_back(std::make_shared<FakeWindow>());
    return windows.back();
}

int FakeAlertPresenter::runModal(const AlertDescription& alert) {
    alerts.push_back(alert);
    if (journal) journal->add("alert " + alert.messageText);
    return 0;
}

void FakeNotificationCenter::requestAuthorization(std::function<void(bool granted)> completion) {
    if (journal) journal->add("notifications.requestAuthorization");
    pendingAnswers_.push_back(std::move(completion));
}

void FakeNotificationCenter::add(const NotificationRequest& request) {
    requests.push_back(request);
    if (journal) journal->add("notification " + request.title);
    if (onAdd) onAdd(request);
}

void FakeNotificationCenter::answerAuthorization(bool granted) {
    auto answers = std::move(pendingAnswers_);
    pendingAnswers_.clear();
    for (auto& answer : answers)
        if (answer) answer(granted);
}

}  // namespace gb::fakes
