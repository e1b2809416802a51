// Start-up, the status item's icon and menu, notifications and alerts. The menu actions and the
// recorder's reports are in menu_actions.cpp.
#include "app/app_delegate.h"

#include <array>
#include <utility>

#include "app/uuid.h"
#include "recording/log.h"

namespace gb {
namespace {

struct IconState {
    const char* symbol;
    const char* accessibilityDescription;
    const char* fallback;  // shown as the title when the symbol is unavailable
};
constexpr IconState kIdleIcon{"video.circle", "Glimmerbox", "\u23FA"};
constexpr IconState kRecordingIcon{"record.circle.fill", "Recording...", "\u23F9"};

constexpr std::array kQualities{VideoQuality::medium, VideoQuality::high, VideoQuality::ultra,
                                VideoQuality::screenResolution};
constexpr std::array kPresets{CameraOverlayPreset::small, CameraOverlayPreset::medium,
                              CameraOverlayPreset::large};
constexpr std::array kPositions{CameraPosition::topLeft, CameraPosition::topRight,
                                CameraPosition::bottomLeft, CameraPosition::bottomRight};

MenuEntry item(std::string title, MenuAction action) {
    MenuEntry e;
    e.title = std::move(title);
    e.action = action;
    return e;
}

MenuEntry submenuParent(std::string title, std::vector<MenuEntry> entries) {
    MenuEntry e = item(std::move(title), MenuAction::none);
    e.submenu = std::move(entries);
    return e;
}

// One entry per case, the current one checked. Submenu entries name no receiver of their own.
template <class Option, size_t N, class Title>
std::vector<MenuEntry> optionEntries(const std::array<Option, N>& cases, Option current,
                                     MenuAction action, Title title) {
    std::vector<MenuEntry> entries;
    entries.reserve(N);
    for (Option option : cases) {
        MenuEntry e = item(title(option), action);
        e.value = option;
        e.checked = option == current;
        entries.push_back(std::move(e));
    }
    return entries;
}

}  // namespace

std::string lastPathComponent(const std::string& pathOrURL) {
    std::string_view path = pathOrURL;
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    if (path == "/") return "/";
    auto slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

AppDelegate::AppDelegate(Platform platform, RecorderFactory makeRecorder, VSCodeIntegration& vsCode)
    : platform_(platform), makeRecorder_(std::move(makeRecorder)), vsCode_(vsCode) {}

// ---- application life cycle --------------------------------------------------------------------

void AppDelegate::applicationDidFinishLaunching() {
    platform_.application.setActivationPolicyAccessory();
    platform_.application.closeAllWindows();
    // The answer changes nothing: notifications are posted either way.
    platform_.notificationCenter.requestAuthorization([](bool) {});

    recorder_ = makeRecorder_();
    recorder_->setDelegate(weak_from_this());

    setupStatusItem();
    checkAccessibilityPermissions();

    platform_.application.observeDidBecomeActive([weak = weak_from_this()] {
        if (auto self = weak.lock()) self->applicationDidBecomeActive();
    });
}

void AppDelegate::applicationDidBecomeActive() {
    rebuildMenu();
}

bool AppDelegate::applicationShouldHandleReopen(bool /*hasVisibleWindows*/) const {
    return false;
}

bool AppDelegate::applicationShouldTerminateAfterLastWindowClosed() const {
    return false;
}

// ---- status item --------------------------------------------------------------------------------

void AppDelegate::setupStatusItem() {
    statusItem_ = platform_.statusBar.makeStatusItem();
    statusItem_->setActionHandler([weak = weak_from_this()](const MenuEntry& chosen) {
        if (auto self = weak.lock()) self->perform(chosen);
    });

    if (statusItem_->hasButton()) {
        if (auto symbol =
                statusItem_->lookupSymbol(kIdleIcon.symbol, kIdleIcon.accessibilityDescription)) {
            statusItem_->setImage(symbol);
            statusItem_->setImageTemplate(true);
        } else {
            statusItem_->setTitle(kIdleIcon.fallback);
        }
    }

    rebuildMenu();
    updateStatusIcon();
}

void AppDelegate::updateStatusIcon() {
    if (!statusItem_->hasButton()) return;
    const IconState& state = recorder_->isRecording() ? kRecordingIcon : kIdleIcon;
    if (auto symbol = statusItem_->lookupSymbol(state.symbol, state.accessibilityDescription)) {
        statusItem_->setImage(symbol);
        // Template images follow the bar's monochrome style: the state is never told by colour.
        statusItem_->setImageTemplate(true);
        statusItem_->setTitle("");
    } else {
        statusItem_->setTitle(state.fallback);
        statusItem_->setImage(std::nullopt);
    }
}

void AppDelegate::checkAccessibilityPermissions() {
    if (platform_.application.isAccessibilityTrusted(/*prompt=*/true))
        logLine("Accessibility access granted - global shortcuts available");
}

// ---- status menu --------------------------------------------------------------------------------

void AppDelegate::rebuildMenu() {
    statusItem_->setMenu(buildMenu());
}

std::vector<MenuEntry> AppDelegate::buildMenu() {
    const bool recording = recorder_->isRecording();
    const VideoQuality quality = recorder_->videoQuality();
    const bool overlay = recorder_->cameraOverlayEnabled();
    const CameraOverlayPreset preset = recorder_->cameraOverlayPreset();
    const CameraPosition position = recorder_->cameraPosition();
    const bool automation = vsCodeAutomationEnabled();
    const std::optional<std::string> saveLocation =
        platform_.defaults.urlForKey(kCustomSaveLocationKey);

    logLine(std::string("Menu update - Recording state: ") + boolText(recording));

    std::vector<MenuEntry> menu;
    menu.reserve(15);
    menu.push_back(recording ? item("\u23F9 Stop Recording", MenuAction::stopRecording)
                             : item("\u23FA Start Recording", MenuAction::startRecording));
    menu.push_back(MenuEntry::separator());
    menu.push_back(submenuParent(
        "Video Quality",
        optionEntries(kQualities, quality, MenuAction::setVideoQuality,
                      [&](VideoQuality q) { return displayName(q, platform_.display); })));
    MenuEntry overlayEntry = item("Camera Overlay", MenuAction::toggleCameraOverlay);
    overlayEntry.checked = overlay;
    menu.push_back(std::move(overlayEntry));
    menu.push_back(submenuParent(
        "Camera Size", optionEntries(kPresets, preset, MenuAction::setCameraOverlayPreset,
                                     [](CameraOverlayPreset p) { return displayName(p); })));
    menu.push_back(submenuParent("Camera Position",
                                 optionEntries(kPositions, position, MenuAction::setCameraPosition,
                                               [](CameraPosition p) { return displayName(p); })));
    menu.push_back(MenuEntry::separator());
    MenuEntry automationEntry = item("VS Code Automation", MenuAction::toggleVSCodeAutomation);
    automationEntry.checked = automation;
    menu.push_back(std::move(automationEntry));
    menu.push_back(MenuEntry::separator());
    MenuEntry savingTo = item(saveLocation ? "Saving to: " + lastPathComponent(*saveLocation)
                                           : "Saving to: Documents/Glimmerbox Recordings",
                              MenuAction::none);
    savingTo.enabled = false;
    menu.push_back(std::move(savingTo));
    menu.push_back(item("Choose Save Location...", MenuAction::chooseSaveLocation));
    menu.push_back(item("Open Recordings Folder", MenuAction::openRecordingsFolder));
    menu.push_back(MenuEntry::separator());
    menu.push_back(item("About Glimmerbox", MenuAction::showAbout));
    MenuEntry quit = item("Quit Glimmerbox", MenuAction::quitApp);
    quit.keyEquivalent = "q";
    menu.push_back(std::move(quit));

    // Top-level entries name the delegate as receiver; submenu entries reach it through the
    // application's action routing.
    for (MenuEntry& e : menu) e.targeted = true;
    return menu;
}

bool AppDelegate::vsCodeAutomationEnabled() const {
    return platform_.defaults.boolForKey(kVSCodeAutomationEnabledKey).value_or(false);
}

// ---- notifications and alerts -------------------------------------------------------------------

void AppDelegate::showNotification(const std::string& title, const std::string& body) {
    NotificationRequest request;
    request.title = title;
    request.body = body;
    request.defaultSound = true;
    // A new identifier each time: a later notification never replaces an earlier one.
    request.identifier = makeUUIDString();
    platform_.notificationCenter.add(request);
}

void AppDelegate::showAlert(const std::string& title, const std::string& message) {
    AlertDescription alert;
    alert.messageText = title;
    alert.informativeText = message;
    alert.style = AlertStyle::warning;
    alert.buttons = {"OK"};
    (void)platform_.alertPresenter.runModal(alert);
}

}  // namespace gb
